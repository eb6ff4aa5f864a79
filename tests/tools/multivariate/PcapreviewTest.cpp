// The PCA tool opened with its previews: which commands are enabled when, the temporary objects and what
// they show (the intensity, the cursor's spectrum and its reconstruction, the eigenvalues, the score image
// of the current PC), the PC mask that a calculation clears and the current PC fills, the spectrum mask
// kept with its parameter, and an extract of the held result.
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestProgress.h"
#include "tools/multivariate/Pcacore.h"
#include "tools/multivariate/Pcatool.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr int kSizeX = 12, kSizeY = 10, kPoints = 64;

TEST(PCACommandStates, CalculateNeedsTwoPointsExtractAResultASwitchAndPCsForThePCSwitches) {
  EXPECT_FALSE(IsPCACalculateEnabled(0));
  EXPECT_FALSE(IsPCACalculateEnabled(1));
  EXPECT_TRUE(IsPCACalculateEnabled(2));
  // done, PCA Result, PC Graphs, Transformed, Reconstructed, PC mask count
  EXPECT_FALSE(IsPCAExtractEnabled(false, true, false, false, false, 3)) << "no result yet";
  EXPECT_TRUE(IsPCAExtractEnabled(true, true, false, false, false, 0)) << "PCA Result needs no PC";
  EXPECT_FALSE(IsPCAExtractEnabled(true, false, false, false, false, 3)) << "no switch on";
  for (int which = 0; which < 3; ++which) {
    const bool graphs = which == 0, transformed = which == 1, reconstructed = which == 2;
    EXPECT_FALSE(IsPCAExtractEnabled(true, false, graphs, transformed, reconstructed, 0)) << which;
    EXPECT_FALSE(IsPCAExtractEnabled(true, true, graphs, transformed, reconstructed, 0)) << which;
    EXPECT_TRUE(IsPCAExtractEnabled(true, false, graphs, transformed, reconstructed, 1)) << which;
  }
}

class PCAPreviewTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
    TDemoOptions options;
    options.SizeX = kSizeX;
    options.SizeY = kSizeY;
    options.SizeGraph = kPoints;
    options.Seed = 7;
    FIDs = CreateDemoProject(FProject, options);
    FMap = dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map));
    ASSERT_NE(FMap, nullptr);
  }
  void Open(TPCAForm& tool) {
    TIntList ids{FIDs.Map};
    tool.Init(&ids, nullptr, &FProject);
    ASSERT_TRUE(tool.HasPreviews());
  }
  void Set(TPCAForm& tool, const std::vector<std::string>& assignments) {
    ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText(assignments).empty());
  }
  std::vector<float> Spectrum(const TDGraph& graph, int x = 0, int y = 0) {
    std::vector<float> s(static_cast<size_t>(graph.GetSizeGraph()));
    graph.GetSpectrum(x, y, s.data());
    return s;
  }
  TDGraph& Graph(int32_t id) { return *dynamic_cast<TDGraph*>(FProject.FindData(id)); }

  TProject FProject;
  TDemoIDs FIDs;
  TDGraph* FMap = nullptr;
};

TEST_F(PCAPreviewTest, PreviewsShowIntensityAndCursorSpectrumAndGoAtCleanUp) {
  const size_t before = FProject.GetIDListOfAllData().size();
  TPCAForm tool;
  Open(tool);
  ASSERT_NE(tool.GetPreviewImageID(), 0);
  auto* preview = dynamic_cast<TDImage*>(FProject.FindData(tool.GetPreviewImageID()));
  ASSERT_NE(preview, nullptr);
  EXPECT_EQ(preview->GetCaption(), "Preview");
  EXPECT_EQ(preview->GetSizeX(), kSizeX);
  EXPECT_EQ(preview->GetSizeY(), kSizeY);
  // The intensity: the plain sum of each spectrum.
  for (auto [x, y] : {std::pair{0, 0}, {5, 3}, {11, 9}}) {
    double sum = 0;
    for (float v : Spectrum(*FMap, x, y)) sum += v;
    EXPECT_NEAR(preview->GetField(x, y), sum, 1e-4 * std::abs(sum) + 1e-4) << x << " " << y;
  }
  EXPECT_EQ(Graph(tool.GetMaskPreviewID()).GetCaption(), "Mask Preview");
  EXPECT_EQ(Graph(tool.GetReconstructionPreviewID()).GetCaption(), "Reconstruction Preview");
  EXPECT_EQ(Graph(tool.GetEigenValuesID()).GetCaption(), "Eigenvalues");
  EXPECT_EQ(Graph(tool.GetEigenValuesID()).GetSizeGraph(), TPCAForm::kInitialEigenValuePoints);
  tool.SetCursorPixel(4, 6);
  EXPECT_EQ(Spectrum(Graph(tool.GetMaskPreviewID())), Spectrum(*FMap, 4, 6));
  tool.SetCursorPixel(kSizeX, 0); // outside: ignored
  EXPECT_EQ(tool.GetCursorX(), 4);
  // Before a calculation: calculate on, extract off; nothing to add to the PC mask.
  EXPECT_TRUE(tool.IsCalculateEnabled());
  EXPECT_FALSE(tool.IsExtractEnabled());
  EXPECT_FALSE(tool.ExecuteCommand("Extract"));
  EXPECT_EQ(tool.GetSelectedCount(), kPoints);
  const TIntList temporaries = tool.GetTemporaryIDs();
  EXPECT_EQ(temporaries.size(), 5u); // four previews and the "PC" axis
  tool.CleanUp();
  for (int32_t id : temporaries) EXPECT_EQ(FProject.FindData(id), nullptr) << id;
  // What stays are the "PC" and "Var" interpretations, which results share.
  const TIntList after = FProject.GetIDListOfAllData();
  EXPECT_EQ(after.size(), before + 2);
  for (size_t k = before; k < after.size(); ++k)
    EXPECT_NE(FProject.FindData(after[k])->GetClassNameA().find("Interpretation"), std::string::npos);
}

TEST_F(PCAPreviewTest, CalculateFillsEigenvaluesClearsThePCMaskAndExtractFollowsTheSwitches) {
  TPCAForm tool;
  Open(tool);
  tool.SetCursorPixel(3, 2);
  ASSERT_TRUE(tool.CalculatePCA());
  ASSERT_TRUE(tool.IsPCADone());
  const int m = tool.GetComponentCount();
  EXPECT_EQ(m, kPoints);
  // The eigenvalue graph: M points, PC k at point k, falling.
  const TDGraph& eigenValues = Graph(tool.GetEigenValuesID());
  ASSERT_EQ(eigenValues.GetSizeGraph(), m);
  const std::vector<float> values = Spectrum(eigenValues);
  for (int k = 0; k < m; ++k)
    EXPECT_FLOAT_EQ(values[static_cast<size_t>(k)], static_cast<float>(tool.Core().EigenValueOfPC(k)));
  EXPECT_TRUE(std::is_sorted(values.rbegin(), values.rend()));
  EXPECT_GT(values[0], 10 * values[10]);
  // The PC mask has M components, none set; the reconstruction is then the average.
  ASSERT_NE(tool.PCMask(), nullptr);
  EXPECT_EQ(tool.PCMask()->GetMaskSize(), m);
  EXPECT_EQ(tool.GetPCMaskCount(), 0);
  EXPECT_EQ(tool.GetStringParameter("PC Mask"), "none");
  const std::vector<float> average = Spectrum(Graph(tool.GetReconstructionPreviewID()));
  for (int i = 0; i < m; ++i)
    EXPECT_NEAR(average[static_cast<size_t>(i)], tool.Core().Average()[static_cast<size_t>(i)], 1e-4);

  // Extract: PCA Result alone needs no PC; PC Graphs need one.
  EXPECT_TRUE(tool.IsExtractEnabled());
  Set(tool, {"PC Graphs=true"});
  EXPECT_FALSE(tool.IsExtractEnabled());
  EXPECT_FALSE(tool.ExecuteCommand("Extract"));
  tool.SetCurrentPC(1);
  tool.AddCurrentPCToMask();
  tool.SetCurrentPC(0);
  tool.AddCurrentPCToMask();
  EXPECT_EQ(tool.GetPCMaskCount(), 2);
  EXPECT_EQ(tool.GetStringParameter("PC Mask"), "0:1 px");
  EXPECT_TRUE(tool.IsExtractEnabled());
  // The reconstruction preview follows the PC mask.
  std::vector<float> expected(static_cast<size_t>(kPoints));
  tool.Core().Reconstruct(Spectrum(*FMap, 3, 2).data(), {0, 1}, expected.data());
  EXPECT_EQ(Spectrum(Graph(tool.GetReconstructionPreviewID())), expected);
  tool.DeleteCurrentPCFromMask();
  EXPECT_EQ(tool.GetStringParameter("PC Mask"), "1:1 px");
  tool.AddCurrentPCToMask();
  // The text parameter reaches the mask too.
  Set(tool, {"PC Mask=2:3 px"});
  EXPECT_EQ(tool.GetPCMaskCount(), 2);
  EXPECT_TRUE(tool.PCMask()->GetMask(0)[2] && tool.PCMask()->GetMask(0)[3]);
  Set(tool, {"PC Mask=0:1 px"});

  const size_t before = FProject.GetIDListOfAllData().size();
  ASSERT_TRUE(tool.ExecuteCommand("Extract"));
  const TIntList& made = tool.GetLastResultIDs();
  std::vector<std::string> captions;
  for (int32_t id : made) captions.push_back(FProject.FindData(id)->GetCaption());
  const std::string name = FMap->GetCaption();
  EXPECT_NE(std::find(captions.begin(), captions.end(), name + " (PCA)(EigenValues)"), captions.end());
  EXPECT_NE(std::find(captions.begin(), captions.end(), name + " (PCA)(EigenVector 0)"), captions.end());
  EXPECT_NE(std::find(captions.begin(), captions.end(), name + " (PCA)(EigenVector 1)"), captions.end());
  EXPECT_EQ(std::find(captions.begin(), captions.end(), name + " (PCA)(EigenVector 2)"), captions.end());
  EXPECT_GT(FProject.GetIDListOfAllData().size(), before);
  tool.CleanUp();
  // Without previews the tool calculates and extracts at once again.
  EXPECT_EQ(tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false).empty(), false);
}

TEST_F(PCAPreviewTest, ScoreImageOfTheCurrentPCAndASpectrumMaskOfOnePointStopsCalculate) {
  TPCAForm tool;
  Open(tool);
  Set(tool, {"Spectrum Mask=10:41 px"});
  EXPECT_EQ(tool.GetSelectedCount(), 32);
  ASSERT_TRUE(tool.CalculatePCA());
  EXPECT_EQ(tool.GetComponentCount(), 32);
  tool.SetShowReconstructedImage(true);
  const auto& preview = *dynamic_cast<TDImage*>(FProject.FindData(tool.GetPreviewImageID()));
  auto scoreAt = [&](int x, int y, int pc) {
    double score = 0;
    tool.Core().Scores(Spectrum(*FMap, x, y).data(), {pc}, &score);
    return score;
  };
  for (auto [x, y] : {std::pair{0, 0}, {7, 4}, {11, 9}})
    EXPECT_NEAR(preview.GetField(x, y), scoreAt(x, y, 0), 1e-4 * std::abs(scoreAt(x, y, 0)) + 1e-5);
  tool.SetCurrentPC(2);
  EXPECT_EQ(tool.GetCurrentPC(), 2);
  EXPECT_NEAR(preview.GetField(7, 4), scoreAt(7, 4, 2), 1e-4 * std::abs(scoreAt(7, 4, 2)) + 1e-5);
  tool.SetCurrentPC(99); // beyond the last component: the last
  EXPECT_EQ(tool.GetCurrentPC(), 31);
  // Back to the intensity.
  tool.SetShowReconstructedImage(false);
  double sum = 0;
  for (float v : Spectrum(*FMap, 7, 4)) sum += v;
  EXPECT_NEAR(preview.GetField(7, 4), sum, 1e-4 * std::abs(sum));

  // The mask toolbar's way: one point left, calculate is off and does nothing.
  tool.SpectrumMask()->CropMaskRange(5, 5);
  EXPECT_EQ(tool.GetSelectedCount(), 1);
  // The parameter holds the mask's text, which reads back to the same single point.
  const std::string text = tool.GetStringParameter("Spectrum Mask");
  EXPECT_NE(text, "10:41 px");
  tool.SpectrumMask()->SetAll();
  EXPECT_EQ(tool.GetSelectedCount(), kPoints);
  Set(tool, {"Spectrum Mask=" + text});
  EXPECT_EQ(tool.GetSelectedCount(), 1);
  EXPECT_TRUE(tool.SpectrumMask()->GetCurrentMask()[5]);
  EXPECT_FALSE(tool.IsCalculateEnabled());
  EXPECT_FALSE(tool.CalculatePCA());
  EXPECT_EQ(tool.GetComponentCount(), 32) << "the old result stays";
  tool.CleanUp();
}

TEST_F(PCAPreviewTest, RandomizedDrawFieldIsUsedByCalculate) {
  TPCAForm tool;
  Open(tool);
  Set(tool, {"Draw Field Pixels=20", "Use Draw Field=true"});
  int told = 0;
  tool.OnDrawFieldChanged = [&told] { ++told; };
  tool.RandomizeDrawFieldCommand();
  EXPECT_EQ(told, 1);
  EXPECT_EQ(std::count(tool.GetDrawField().begin(), tool.GetDrawField().end(), 1), 20);
  ASSERT_TRUE(tool.CalculatePCA());
  EXPECT_EQ(tool.Core().PixelCount(), 20);
  // Three pixels drawn by hand are too few: every pixel takes part.
  std::vector<uint8_t> few(static_cast<size_t>(kSizeX * kSizeY), 0);
  few[0] = few[5] = few[17] = 1;
  tool.SetDrawField(few);
  ASSERT_TRUE(tool.CalculatePCA());
  EXPECT_EQ(tool.Core().PixelCount(), kSizeX * kSizeY);
  Set(tool, {"Draw Field Pixels=61"}); // above half the pixels
  EXPECT_THROW(tool.RandomizeDrawFieldCommand(), std::exception);
  tool.CleanUp();
}

TEST_F(PCAPreviewTest, ACancelledCalculationLeavesNoResultAndExtractOff) {
  TPCAForm tool;
  Open(tool);
  ASSERT_TRUE(tool.CalculatePCA());
  oxtest::TRecordingProgress cancel(0); // cancels at the first question
  tool.ExternalCancel = &cancel;
  EXPECT_FALSE(tool.CalculatePCA());
  EXPECT_GT(cancel.Questions(), 0);
  EXPECT_FALSE(tool.IsPCADone());
  EXPECT_EQ(tool.GetComponentCount(), 0);
  EXPECT_FALSE(tool.IsExtractEnabled());
  EXPECT_FALSE(tool.ExecuteCommand("Extract"));
  tool.ExternalCancel = nullptr;
  EXPECT_TRUE(tool.CalculatePCA());
  EXPECT_TRUE(tool.IsExtractEnabled());
  tool.CleanUp();
}

} // namespace
