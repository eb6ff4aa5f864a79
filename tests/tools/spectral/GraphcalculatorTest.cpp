// The Graph Calculator: its kernel on plain arrays, and the tool on the demo map through the frame.
#include "tools/spectral/Graphcalculator.h"

#include "common/OrvexException.h"
#include "common/numerics/Formelparser.h"
#include "common/parameters/Parametertext.h"
#include "data/Dgraph.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "support/TestDataObjects.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

TEST(GraphCalculatorKernel, EvaluatesEveryVariableAcrossBlockEdges) {
  TFormelParser parser;
  parser.SetXDimension(3);
  parser.SetExpress("2*x1+x2-x3");
  ASSERT_TRUE(parser.IsValid());
  for (int32_t count : {1, 255, 256, 257, 1000}) {
    std::vector<float> values(static_cast<size_t>(count)), out(static_cast<size_t>(count));
    std::vector<double> axis(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
      values[i] = static_cast<float>(i % 17) * 0.5f;
      axis[i] = 100.0 + 0.25 * i;
    }
    TGraphFormulaScratch scratch;
    EXPECT_EQ(CalculateGraphFormula(parser, values.data(), axis.data(), count, out.data(), scratch), 0);
    for (int32_t i = 0; i < count; ++i)
      ASSERT_FLOAT_EQ(out[i], static_cast<float>(2.0 * values[i] + axis[i] - i)) << count << " " << i;
  }
}

TEST(GraphCalculatorKernel, UndefinedValuesBecomeZeroAndAreCounted) {
  TFormelParser parser;
  parser.SetXDimension(3);
  parser.SetExpress("1/(x3-2)+sqrt(x1)");
  ASSERT_TRUE(parser.IsValid());
  const std::vector<float> values{4, -1, 9, 16};
  const std::vector<double> axis(4, 0.0);
  std::vector<float> out(4, 99.0f);
  TGraphFormulaScratch scratch;
  // x3 = 2 divides by zero, x1 = -1 has no root.
  EXPECT_EQ(CalculateGraphFormula(parser, values.data(), axis.data(), 4, out.data(), scratch), 2);
  EXPECT_FLOAT_EQ(out[0], -0.5f + 2.0f);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_EQ(out[2], 0.0f);
  EXPECT_FLOAT_EQ(out[3], 1.0f + 4.0f);
}

class GraphCalculatorTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
    TDemoOptions options;
    options.SizeX = 7;
    options.SizeY = 3;
    options.SizeGraph = 40;
    FIDs = CreateDemoProject(FProject, options);
  }
  TDGraph& Map() { return *dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map)); }

  TProject FProject;
  TDemoIDs FIDs;
};

TEST_F(GraphCalculatorTest, ResultUsesValueAxisAndIndexOfEveryValidSpectrum) {
  TGraphCalculatorForm tool;
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Formula=x1*2+x2/1000+x3"}).empty());
  Map().SetLineValid(1, false);
  const TIntList results = tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
  ASSERT_EQ(results.size(), 1u);
  auto* result = dynamic_cast<TDGraph*>(FProject.FindData(results.front()));
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->GetCaption(), Map().GetCaption() + " (Calculator)");
  EXPECT_EQ(result->GetXTransformationID(), Map().GetXTransformationID());
  std::vector<double> axis;
  std::string unit;
  ASSERT_TRUE(
      GetAxisValues(FProject, Map().GetXTransformationID(), Map().GetXInterpretationID(), 40, 0, axis, unit));
  for (int32_t y = 0; y < 3; ++y) {
    EXPECT_EQ(result->GetLineValid(y), y != 1);
    if (y == 1) continue;
    for (int32_t x = 0; x < 7; ++x)
      for (int32_t g = 0; g < 40; g += 13)
        EXPECT_FLOAT_EQ(result->GetField(x, y, g),
                        static_cast<float>(Map().GetField(x, y, g) * 2.0 + axis[g] / 1000 + g));
  }
}

TEST_F(GraphCalculatorTest, OneResultPerInputAndWrongFormulaRefusedWithItsPosition) {
  TGraphCalculatorForm tool;
  const TUserParameterProblems problems = tool.Parameters().SetParameterValuesFromText({"Formula=2*(x1+"});
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems.front().Parameter, "Formula");
  EXPECT_NE(problems.front().Message.find("position"), std::string::npos) << problems.front().Message;
  EXPECT_EQ(tool.GetStringParameter("Formula"), "x1");
  auto copy =
      TDGraph::CreateNewGraph(&FProject, FIDs.Map, false, TDataFieldKind::Float, TDataSaveMode::Always, "B");
  copy->CopyFieldFrom(Map());
  const int32_t second = copy->GetID();
  FProject.AddData(std::move(copy));
  const TIntList results = tool.RunNonInteractive(FProject, {FIDs.Map, second}, "Extract", true);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(FProject.FindData(results[1])->GetCaption(), "B (Calculator)");
}

TEST(ToolRegistry, KeysAndClassNamesInAnyCase) {
  TToolRegistry registry;
  RegisterGraphCalculator(registry);
  ASSERT_NE(registry.Find("graphcalculator"), nullptr);
  EXPECT_EQ(registry.Find("TGRAPHCALCULATORFORM"), registry.Find("GraphCalculator"));
  EXPECT_EQ(registry.Find("Graph"), nullptr);
  EXPECT_EQ(registry.GetKeys(), std::vector<std::string>{"GraphCalculator"});
  EXPECT_THROW(RegisterGraphCalculator(registry), OrvexException);
  auto tool = registry.Find("GraphCalculator")->Create();
  EXPECT_EQ(tool->GetFrameName(), "TProjectGraphProcessingDialogForm");
  EXPECT_EQ(tool->GetExtractCommands(), (std::vector<std::string>{"Extract", "Extract All"}));
}

} // namespace
