// The PCA tool on its frame: the parameters it lists, a run on a small demo map (captions, sizes, the
// eigenvalue graph's PC axis, the replayable history), the PC mask cut and refused, bad input and cancel
// that add nothing, and the repeatable draw field.
#include "tools/multivariate/Pcatool.h"

#include "common/OrvexException.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Graphmask.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "support/TestDataObjects.h"
#include "support/TestProgress.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr int kSizeX = 12, kSizeY = 10, kPoints = 128;

class PCAToolTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
    TDemoOptions options;
    options.SizeX = kSizeX;
    options.SizeY = kSizeY;
    options.SizeGraph = kPoints;
    options.Seed = 5;
    FIDs = CreateDemoProject(FProject, options);
    FMap = dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map));
    ASSERT_NE(FMap, nullptr);
  }

  TDGraph* Result(const TIntList& ids, const std::string& suffix) {
    for (int32_t id : ids)
      if (TData* d = FProject.FindData(id); d && d->GetCaption() == FMap->GetCaption() + suffix)
        return dynamic_cast<TDGraph*>(d);
    return nullptr;
  }

  std::vector<float> Spectrum(const TDGraph& graph, int x = 0, int y = 0) {
    std::vector<float> s(static_cast<size_t>(graph.GetSizeGraph()));
    graph.GetSpectrum(x, y, s.data());
    return s;
  }

  void Set(TPCAForm& tool, const std::vector<std::string>& assignments) {
    ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText(assignments).empty());
  }

  size_t ObjectCount() const { return FProject.GetIDListOfAllData().size(); }

  TProject FProject;
  TDemoIDs FIDs;
  TDGraph* FMap = nullptr;
};

TEST_F(PCAToolTest, DeclaresItsParametersOnceUnderTheirLabels) {
  TPCAForm tool;
  std::vector<std::string> names;
  for (const TParameterDeclaration& d : TPCAForm::Declaration().GetDeclarations())
    if (d.Kind != TParameterKind::Trigger) names.push_back(d.Name);
  EXPECT_EQ(names, (std::vector<std::string>{"Spectrum Mask", "Use Draw Field", "Draw Field Pixels",
                                             "PC Mask", "PCA Result", "PC Graphs", "Transformed Spectra",
                                             "Reconstructed Spectra"}));
  EXPECT_EQ(tool.GetToolKey(), "PCA");
  EXPECT_EQ(tool.GetStringParameter("Spectrum Mask"), "all");
  EXPECT_EQ(tool.GetStringParameter("PC Mask"), "0:9 px");
  EXPECT_EQ(tool.GetIntParameter("Draw Field Pixels"), 1000);
  EXPECT_TRUE(tool.GetBoolParameter("PCA Result"));
  EXPECT_FALSE(tool.GetBoolParameter("PC Graphs") || tool.GetBoolParameter("Transformed Spectra") ||
               tool.GetBoolParameter("Reconstructed Spectra") || tool.GetBoolParameter("Use Draw Field"));
  // Fewer than five draw-field pixels are refused by the parameter itself.
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"Draw Field Pixels=4"}).empty());
  EXPECT_EQ(tool.GetExtractCommands(), (std::vector<std::string>{"Extract"}));

  TToolRegistry registry;
  RegisterPCATool(registry);
  EXPECT_NE(registry.Find("PCA"), nullptr);
}

TEST_F(PCAToolTest, ExtractGivesTheResultGraphsWithAPCAxisAndTheRunAsHistory) {
  TPCAForm tool;
  Set(tool, {"Spectrum Mask=20:99 px", "PC Graphs=true", "Transformed Spectra=true",
             "Reconstructed Spectra=true", "PC Mask=0:2 px"});
  const TIntList ids = tool.RunNonInteractive(FProject, {FMap->GetID()}, "Extract", false);
  ASSERT_EQ(ids.size(), 3u + 3u + 2u);
  const int m = 80;

  TDGraph* values = Result(ids, " (PCA)(EigenValues)");
  TDGraph* vectors = Result(ids, " (PCA)(EigenVectors)");
  TDGraph* average = Result(ids, " (PCA)(Average)");
  TDGraph* transformed = Result(ids, " (PCA)(Transformed)");
  TDGraph* reconstructed = Result(ids, " (PCA)(Reconstructed)");
  ASSERT_TRUE(values && vectors && average && transformed && reconstructed);
  for (int k = 0; k < 3; ++k)
    EXPECT_NE(Result(ids, " (PCA)(EigenVector " + std::to_string(k) + ")"), nullptr) << k;
  EXPECT_EQ(Result(ids, " (PCA)(EigenVector 3)"), nullptr);

  EXPECT_EQ(values->GetSizeGraph(), m);
  EXPECT_EQ(vectors->GetSizeX(), m);
  EXPECT_EQ(vectors->GetSizeGraph(), kPoints);
  EXPECT_EQ(average->GetSizeGraph(), kPoints);
  EXPECT_EQ(transformed->GetSizeX(), kSizeX);
  EXPECT_EQ(transformed->GetSizeY(), kSizeY);
  EXPECT_EQ(transformed->GetSizeGraph(), 3);
  EXPECT_EQ(reconstructed->GetSizeGraph(), kPoints);

  // The eigenvalue graph reads 0, 1, 2, ... on its axis and falls.
  TGraphMaskAxis axis;
  std::string error;
  ASSERT_TRUE(GetGraphMaskAxis(FProject, values->GetID(), "", axis, error)) << error;
  ASSERT_EQ(axis.Values.size(), static_cast<size_t>(m));
  for (int k = 0; k < m; ++k) EXPECT_DOUBLE_EQ(axis.Values[static_cast<size_t>(k)], k) << k;
  const std::vector<float> eigenvalues = Spectrum(*values);
  EXPECT_GT(eigenvalues[0], 0.0f);
  EXPECT_TRUE(std::is_sorted(eigenvalues.rbegin(), eigenvalues.rend()));

  // Outside the spectrum mask the average is zero; inside it holds the demo's counts.
  const std::vector<float> mean = Spectrum(*average);
  EXPECT_EQ(mean[0], 0.0f);
  EXPECT_EQ(mean[127], 0.0f);
  EXPECT_GT(mean[50], 0.0f);

  // Every result carries the command that repeats the run.
  const std::string history = values->GetHistoryList().back().Text;
  EXPECT_NE(history.find("orvex run PCA"), std::string::npos) << history;
  EXPECT_NE(history.find("--set 'PC Mask=0:2 px'"), std::string::npos) << history;
  EXPECT_NE(tool.GetReport().find("PC 0: eigenvalue"), std::string::npos) << tool.GetReport();
}

TEST_F(PCAToolTest, PCMaskEndBeyondTheLastComponentIsCutAStartBeyondItRefused) {
  {
    TPCAForm tool;
    Set(tool, {"Spectrum Mask=40:44 px", "PCA Result=false", "PC Graphs=true", "PC Mask=2:1000 px"});
    const TIntList ids = tool.RunNonInteractive(FProject, {FMap->GetID()}, "Extract", false);
    // Five points give PCs 0..4; the range keeps 2, 3 and 4.
    ASSERT_EQ(ids.size(), 3u);
    EXPECT_NE(Result(ids, " (PCA)(EigenVector 4)"), nullptr);
    EXPECT_EQ(Result(ids, " (PCA)(EigenVector 1)"), nullptr);
  }
  {
    const size_t before = ObjectCount();
    TPCAForm tool;
    Set(tool, {"Spectrum Mask=40:44 px", "PC Graphs=true", "PC Mask=5:9 px"});
    try {
      tool.RunNonInteractive(FProject, {FMap->GetID()}, "Extract", false);
      FAIL() << "a PC mask beyond the components was taken";
    } catch (const OrvexException& e) {
      const std::string text = e.what();
      EXPECT_NE(text.find("PC Mask"), std::string::npos) << text;
      EXPECT_NE(text.find("0..4"), std::string::npos) << text;
    }
    EXPECT_EQ(ObjectCount(), before);
  }
}

TEST_F(PCAToolTest, BadInputIsRefusedWithItsCulpritAndAddsNothing) {
  const size_t before = ObjectCount();
  auto refused = [&](const std::vector<std::string>& assignments, const TIntList& inputs,
                     const std::string& culprit) {
    TPCAForm tool;
    Set(tool, assignments);
    try {
      tool.RunNonInteractive(FProject, inputs, "Extract", false);
      ADD_FAILURE() << culprit << ": accepted";
    } catch (const OrvexException& e) {
      EXPECT_NE(std::string(e.what()).find(culprit), std::string::npos) << e.what();
    }
    EXPECT_EQ(ObjectCount(), before) << culprit;
  };
  refused({"Spectrum Mask=40:40 px"}, {FMap->GetID()}, "Spectrum Mask");
  refused({"Spectrum Mask=nonsense"}, {FMap->GetID()}, "Spectrum Mask");
  // 120 pixels allow at most 60 in the draw field.
  refused({"Use Draw Field=true", "Draw Field Pixels=61"}, {FMap->GetID()}, "5..60");

  TPCAForm tool;
  std::string reason;
  TIntList two{FMap->GetID(), FMap->GetID()};
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &two, nullptr, &reason));
  TIntList topography{FIDs.Topography};
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &topography, nullptr, &reason));
  EXPECT_NE(reason.find("is no graph"), std::string::npos) << reason;
  // A single spectrum (size X 1) is no stack to analyse.
  TIntList component{FIDs.TrueComponents.at(0)};
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &component, nullptr, &reason));
  TIntList map{FMap->GetID()};
  EXPECT_TRUE(tool.IsInputIDListOkay(&FProject, &map, nullptr, &reason)) << reason;
}

TEST_F(PCAToolTest, CancelAddsNothing) {
  const size_t before = ObjectCount();
  TPCAForm tool;
  Set(tool, {"Transformed Spectra=true"});
  oxtest::TRecordingProgress cancel(0);
  tool.ExternalCancel = &cancel;
  TIntList ids{FMap->GetID()};
  tool.SetBehaviourForDropAction(true);
  tool.Init(&ids, nullptr, &FProject);
  EXPECT_FALSE(tool.ExecuteCommand("Extract"));
  EXPECT_TRUE(tool.GetLastResultIDs().empty());
  tool.CleanUp();
  EXPECT_GT(cancel.Questions(), 0);
  EXPECT_EQ(ObjectCount(), before);
}

TEST_F(PCAToolTest, DrawFieldRunsRepeatAndDifferFromTheWholeMap) {
  auto eigenvalues = [&](bool drawField) {
    TPCAForm tool;
    Set(tool, {"Spectrum Mask=20:99 px", drawField ? "Use Draw Field=true" : "Use Draw Field=false",
               "Draw Field Pixels=30"});
    const TIntList ids = tool.RunNonInteractive(FProject, {FMap->GetID()}, "Extract", false);
    TDGraph* values = Result(ids, " (PCA)(EigenValues)");
    return values ? Spectrum(*values) : std::vector<float>{};
  };
  const std::vector<float> first = eigenvalues(true), second = eigenvalues(true), whole = eigenvalues(false);
  ASSERT_EQ(first.size(), 80u);
  EXPECT_EQ(first, second);
  ASSERT_EQ(whole.size(), 80u);
  EXPECT_NE(first, whole);
}

} // namespace
