// The Advanced Fitting Tool on its frame: parameters, the run on a synthetic Gauss stack, refusals and
// cancel.
#include "tools/spectral/Advancedfittingtool.h"

#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "support/TestDataObjects.h"
#include "support/TestProgress.h"
#include "tools/spectral/AdvancedfittingTestSupport.h"
#include "tools/spectral/Advancedfittingcore.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

constexpr int kLength = 120;

using oxtest::GaussTruthAt;
using TTruth = oxtest::TGaussTruth;

class AdvancedFittingToolTest : public oxtest::AdvancedFittingFixture {
protected:
  TDGraph* AddGaussStack(int sx, int sy) {
    return AddStack(sx, sy, kLength, "Stack", [](int x, int y, std::vector<float>& s) {
      for (int g = 0; g < kLength; ++g) s[g] = static_cast<float>(oxtest::GaussValue(GaussTruthAt(x, y), g));
    });
  }
};

TEST_F(AdvancedFittingToolTest, GaussStackGivesItsMapsWithAReplayableHistory) {
  const int sx = 5, sy = 4;
  TDGraph* graph = AddGaussStack(sx, sy);
  TAdvancedFittingToolForm tool;
  ASSERT_TRUE(
      tool.Parameters()
          .SetParameterValuesFromText({"Fit Mask=20:110 px", "Data Reduction=2",
                                       "Fit Parameters=y0|Extract Error=false; Amp|Extract Value=false"})
          .empty());
  const TIntList ids = tool.RunNonInteractive(FProject, {graph->GetID()}, "Extract All", false);
  // Four values less one, four errors less one, chi-square and fail mask.
  ASSERT_EQ(ids.size(), 3u + 3u + 2u);
  EXPECT_EQ(tool.GetNumberOfFailedFits(), 0);
  auto* center = Result<TDImage>(ids, "Stack (Fit Gauss: x0)");
  auto* sigma = Result<TDImage>(ids, "Stack (Fit Gauss: s)");
  auto* offset = Result<TDImage>(ids, "Stack (Fit Gauss: y0)");
  auto* ampError = Result<TDImage>(ids, "Stack (Fit Gauss: Amp Error)");
  auto* fail = Result<TDImage>(ids, "Stack (Fit Gauss: Fit Fail Mask)");
  ASSERT_TRUE(center && sigma && offset && ampError && fail);
  EXPECT_EQ(Result<TDImage>(ids, "Stack (Fit Gauss: Amp)"), nullptr);
  EXPECT_EQ(Result<TDImage>(ids, "Stack (Fit Gauss: y0 Error)"), nullptr);
  ASSERT_EQ(center->GetSizeX(), sx);
  ASSERT_EQ(center->GetSizeY(), sy);
  for (int y = 0; y < sy; ++y)
    for (int x = 0; x < sx; ++x) {
      const TTruth t = GaussTruthAt(x, y);
      EXPECT_NEAR(center->GetField(x, y), t.Center, 1e-3) << x << " " << y;
      EXPECT_NEAR(sigma->GetField(x, y), t.Sigma, 1e-3) << x << " " << y;
      EXPECT_NEAR(offset->GetField(x, y), t.Offset, 1e-2) << x << " " << y;
      EXPECT_GE(ampError->GetField(x, y), 0.0f);
      EXPECT_EQ(fail->GetField(x, y), 0.0f);
    }
  // The history of every result is the command line that makes it again, with the changed settings.
  const auto& history = center->GetHistoryList();
  ASSERT_FALSE(history.empty());
  const std::string& line = history.back().Text;
  EXPECT_NE(line.find("orvex run AdvancedFittingTool"), std::string::npos) << line;
  EXPECT_NE(line.find("Fit Mask=20:110 px"), std::string::npos) << line;
  EXPECT_NE(line.find("Data Reduction=2"), std::string::npos) << line;
}

TEST_F(AdvancedFittingToolTest, SettingsApplyBeforeTheRowsTheyCreate) {
  TAdvancedFittingToolForm tool;
  // x0_1 exists only with two functions; the rows are read after the settings whatever the order.
  EXPECT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"Fit Parameters=x0_1|Start Value=70; x0_0|Auto=false",
                                               "Function Settings=NumberOfFunctions=2; SortKind=Center"})
                  .empty());
  TAdvancedFittingCore core;
  std::string error;
  ASSERT_TRUE(tool.ConfigureCore(core, error)) << error;
  ASSERT_GE(core.FindRow("x0_1"), 0);
  EXPECT_EQ(core.Rows()[core.FindRow("x0_1")].StartValue, 70.0);
  EXPECT_FALSE(core.Rows()[core.FindRow("x0_0")].Auto);
  EXPECT_EQ(core.GetFunction()->GetNumberOfParameters(), 7);
  // Another function: its own rows.
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"Function=Lorentz", "Function Settings=", "Fit Parameters="})
                  .empty());
  ASSERT_TRUE(tool.ConfigureCore(core, error)) << error;
  EXPECT_EQ(core.GetFunction()->FunctionName, "Lorentz");
}

TEST_F(AdvancedFittingToolTest, BadRowsAndSettingsAreRefusedNamingThemAndChangeNothing) {
  TAdvancedFittingToolForm tool;
  const struct {
    std::string Assignment, Parameter, Needle;
  } cases[] = {
      {"Fit Parameters=q|Start Value=1", "Fit Parameters", "\"q\""},
      {"Fit Parameters=x0|Colour=1", "Fit Parameters", "Colour"},
      {"Fit Parameters=x0|Lower Limit=abc", "Fit Parameters", "x0|Lower Limit"},
      {"Fit Parameters=x0 Start Value 3", "Fit Parameters", "x0 Start Value 3"},
      {"Fit Parameters=s|Lower Limit=5; s|Upper Limit=2", "Fit Parameters", "s"},
      {"Function Settings=NumberOfFunctions=abc", "Function Settings", "NumberOfFunctions"},
      {"Function=NoSuchFunction", "Function", ""},
  };
  for (const auto& c : cases) {
    const TUserParameterProblems problems = tool.Parameters().SetParameterValuesFromText({c.Assignment});
    ASSERT_EQ(problems.size(), 1u) << c.Assignment;
    EXPECT_EQ(problems.front().Parameter, c.Parameter) << c.Assignment;
    EXPECT_NE(problems.front().Message.find(c.Needle), std::string::npos) << problems.front().Message;
    EXPECT_EQ(problems.front().Message.find('\n'), std::string::npos) << problems.front().Message;
  }
  EXPECT_EQ(tool.GetStringParameter("Fit Parameters"), "");
  EXPECT_EQ(tool.GetStringParameter("Function Settings"), "");
  EXPECT_EQ(tool.GetIntParameter("Function"), 0);
}

TEST_F(AdvancedFittingToolTest, BadMaskOrInputRefusedAndNothingAdded) {
  TDGraph* graph = AddGaussStack(3, 2);
  TAdvancedFittingToolForm tool;
  const size_t before = ObjectCount();
  for (const std::string mask : {"none", "5:2 px", "nonsense", "0:1 px"}) {
    ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Fit Mask=" + mask}).empty()) << mask;
    try {
      tool.RunNonInteractive(FProject, {graph->GetID()}, "Extract", false);
      ADD_FAILURE() << mask << " was taken";
    } catch (const std::exception& e) {
      const std::string what = e.what();
      EXPECT_EQ(what.find('\n'), std::string::npos) << what;
      if (mask == "none")
        EXPECT_NE(what.find("Fit mask is empty"), std::string::npos) << what;
      else if (mask == "0:1 px")
        EXPECT_NE(what.find("2 fit points"), std::string::npos) << what;
      else
        EXPECT_NE(what.find("Fit Mask"), std::string::npos) << what;
    }
    EXPECT_EQ(ObjectCount(), before) << mask;
  }
  // Only graphs are fitted.
  auto image = std::make_unique<TDImage>();
  image->SetID(FProject.GetNewDataID());
  image->SetCaption("Topo");
  const int32_t imageID = image->GetID();
  FProject.AddData(std::move(image));
  std::string reason;
  const TIntList inputs{imageID};
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &inputs, nullptr, &reason));
  EXPECT_NE(reason.find("Topo"), std::string::npos) << reason;
}

TEST_F(AdvancedFittingToolTest, CancelAddsNothingAndCurvesHaveTheirOwnCommand) {
  TDGraph* graph = AddGaussStack(6, 6);
  TAdvancedFittingToolForm tool;
  tool.Parameters().SetParameterValuesFromText({"Number of Threads=2"});
  const size_t before = ObjectCount();
  oxtest::TRecordingProgress cancel(5);
  tool.ExternalCancel = &cancel;
  const TIntList inputs{graph->GetID()};
  tool.Init(&inputs, nullptr, &FProject);
  EXPECT_FALSE(tool.ExecuteCommand("Extract All"));
  EXPECT_TRUE(tool.GetLastResultIDs().empty());
  EXPECT_GT(cancel.Questions(), 0);
  tool.CleanUp();
  EXPECT_EQ(ObjectCount(), before);
  tool.ExternalCancel = nullptr;

  const TIntList ids = tool.RunNonInteractive(FProject, {graph->GetID()}, "Extract Curves", false);
  ASSERT_EQ(ids.size(), 1u);
  auto* curves = dynamic_cast<TDGraph*>(FProject.FindData(ids.front()));
  ASSERT_NE(curves, nullptr);
  EXPECT_EQ(curves->GetCaption(), "Stack (Fit Gauss: Curves)");
  for (int y : {0, 5})
    for (int x : {0, 5})
      for (int g : {0, 40, 65, 119}) {
        const TTruth t = GaussTruthAt(x, y);
        const double d = (g - t.Center) / t.Sigma;
        EXPECT_NEAR(curves->GetField(x, y, g), t.Offset + t.Amp * std::exp(-0.5 * d * d), 1e-2)
            << x << " " << y << " " << g;
      }
}

TEST(AdvancedFittingToolRegistry, ListedWithTheManagersFunctions) {
  TToolRegistry registry;
  RegisterAdvancedFittingTool(registry);
  ASSERT_NE(registry.Find("AdvancedFittingTool"), nullptr);
  auto tool = registry.Find("advancedfittingtool")->Create();
  EXPECT_EQ(tool->GetDialogName(), "Advanced Fitting Tool");
  EXPECT_EQ(tool->GetExtractCommands(),
            (std::vector<std::string>{"Extract", "Extract All", "Extract Curves"}));
  const TParameterDeclaration* function = tool->Declaration().FindDeclaration("Function");
  ASSERT_NE(function, nullptr);
  ASSERT_GE(function->Choices.size(), 2u);
  EXPECT_EQ(function->Choices[0].Text, "Gauss");
  EXPECT_EQ(function->Choices[1].Text, "Lorentz");
}

} // namespace
