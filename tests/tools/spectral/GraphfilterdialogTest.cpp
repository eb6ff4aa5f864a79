// The Graph Filter tool through the frame on a small demo map: its declared pages, the refused
// Savitzky-Golay settings, the spatial window streamed across the threads' blocks of lines against a direct
// computation, the preview beside the extract, line validity, and runs that must leave nothing behind.
#include "tools/spectral/Graphfilterdialog.h"

#include "common/OrvexException.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "support/TestDataObjects.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace {

class GraphFilterDialogTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
    TDemoOptions options;
    options.SizeX = 9;
    options.SizeY = 13; // more lines than threads, so that blocks of lines meet inside the image
    options.SizeGraph = 48;
    FIDs = CreateDemoProject(FProject, options);
  }
  TDGraph& Map() { return *dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map)); }
  TDGraph& Result(int32_t id) { return *dynamic_cast<TDGraph*>(FProject.FindData(id)); }
  size_t ObjectCount() const { return FProject.GetIDListOfAllData().size(); }

  TIntList Run(TGraphFilterDialogForm& tool, const std::vector<std::string>& sets) {
    const TUserParameterProblems problems = tool.Parameters().SetParameterValuesFromText(sets);
    EXPECT_TRUE(problems.empty()) << (problems.empty() ? "" : problems.front().Message);
    return tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
  }

  TProject FProject;
  TDemoIDs FIDs;
};

TEST_F(GraphFilterDialogTest, PagesDeclaredWithTheirDefaultsAndCaptions) {
  TGraphFilterDialogForm tool;
  const TGraphFilterSettings s = tool.GetSettings();
  EXPECT_EQ(s.Mode, TGraphFilterMode::SpikeRemoval);
  EXPECT_EQ(s.Spikes.FilterSize, 2);
  EXPECT_DOUBLE_EQ(s.Spikes.DynamicFactor, 8.0);
  EXPECT_EQ(std::make_tuple(s.GolayLeft, s.GolayRight, s.GolayOrder, s.GolayDerivative),
            std::make_tuple(5, 5, 4, 0));
  EXPECT_DOUBLE_EQ(s.WaveletNoiseFactor, 0.5);
  EXPECT_EQ(std::make_tuple(s.AverageSpectral, s.AverageSpatial, s.MedianSpectral, s.MedianSpatial),
            std::make_tuple(1, 0, 1, 0));
  EXPECT_EQ(TGraphFilterDialogForm::CaptionSuffix(s), " (CRR)");
  const std::vector<std::pair<std::string, std::string>> pages = {{"Savitzky-Golay", " (SG 5,5,4,0)"},
                                                                  {"Wavelet Noise", " (Wavelet Noise 0.5)"},
                                                                  {"Average", " (Average 1,0)"},
                                                                  {"Median", " (Median 1,0)"}};
  for (const auto& [page, suffix] : pages) {
    ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Mode=" + page}).empty()) << page;
    EXPECT_EQ(TGraphFilterDialogForm::CaptionSuffix(tool.GetSettings()), suffix);
  }
  // Limits of the pages.
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"CRRFilterSize=5"}).empty());
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"MedianSpatial=10"}).empty());
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"SGLeft=33"}).empty());
  EXPECT_EQ(tool.GetIntParameter("SGLeft"), 5);
}

TEST_F(GraphFilterDialogTest, SavitzkyGolaySettingsThatDetermineNoPolynomialAreRefused) {
  TGraphFilterDialogForm tool;
  // Window 2 + 2 + 1 = 5 can't carry order 6; a derivative above the order doesn't exist.
  TUserParameterProblems problems =
      tool.Parameters().SetParameterValuesFromText({"SGLeft=2", "SGRight=2", "SGOrder=6"});
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems.front().Parameter, "SGOrder");
  EXPECT_EQ(tool.GetIntParameter("SGLeft"), 5); // the set is taken back whole
  problems = tool.Parameters().SetParameterValuesFromText({"SGDerivative=5"});
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems.front().Parameter, "SGDerivative");
  // The boundary: window 2 + 2 + 1 = 5 above order 4, derivative equal to the order.
  EXPECT_TRUE(
      tool.Parameters().SetParameterValuesFromText({"SGLeft=2", "SGRight=2", "SGDerivative=4"}).empty());
  // A window as long as the spectrum is refused for the graph, naming it; nothing is added.
  TGraphFilterSettings s = tool.GetSettings();
  s.Mode = TGraphFilterMode::SavitzkyGolay;
  s.GolayLeft = s.GolayRight = 10;
  EXPECT_TRUE(TGraphFilterDialogForm::WindowFitsSpectrum(s, 22));
  EXPECT_FALSE(TGraphFilterDialogForm::WindowFitsSpectrum(s, 21));
  const size_t before = ObjectCount();
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"Mode=Savitzky-Golay", "SGLeft=24", "SGRight=23"})
                  .empty());
  try {
    tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
    FAIL() << "a window of the spectrum's length was accepted";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find("SGLeft + SGRight + 1 = 48"), std::string::npos) << e.what();
  }
  EXPECT_EQ(ObjectCount(), before);
}

// Binomial average over channels (a = 1) and the 3 x 3 neighbours (b = 1), straight from the definition:
// weights 1 2 1 in each direction, normalised over the terms that exist.
TEST_F(GraphFilterDialogTest, SpatialAverageAcrossThreadBlocksMatchesTheDefinition) {
  Map().SetLineValid(6, false);
  TGraphFilterDialogForm tool;
  const TIntList ids = Run(tool, {"Mode=Average", "AverageSpectral=1", "AverageSpatial=1"});
  ASSERT_EQ(ids.size(), 1u);
  TDGraph& result = Result(ids[0]);
  EXPECT_EQ(result.GetCaption(), Map().GetCaption() + " (Average 1,1)");
  const int32_t sx = Map().GetSizeX(), sy = Map().GetSizeY(), n = Map().GetSizeGraph();
  const double w[3] = {1, 2, 1};
  for (int32_t y = 0; y < sy; ++y) {
    EXPECT_EQ(result.GetLineValid(y), y != 6) << y;
    if (y == 6) continue;
    for (int32_t x = 0; x < sx; ++x)
      for (int32_t g = 0; g < n; ++g) {
        double sum = 0, weights = 0;
        for (int dy = -1; dy <= 1; ++dy)
          for (int dx = -1; dx <= 1; ++dx)
            for (int dg = -1; dg <= 1; ++dg) {
              const int32_t px = x + dx, py = y + dy, pg = g + dg;
              if (px < 0 || px >= sx || py < 0 || py >= sy || pg < 0 || pg >= n || py == 6) continue;
              const double weight = w[dx + 1] * w[dy + 1] * w[dg + 1];
              sum += weight * Map().GetField(px, py, pg);
              weights += weight;
            }
        ASSERT_NEAR(result.GetField(x, y, g), sum / weights, 1e-4 * std::abs(sum / weights) + 1e-4)
            << x << " " << y << " " << g;
      }
  }
}

TEST_F(GraphFilterDialogTest, AverageOfSizeZeroCopiesAndEveryPageRuns) {
  TGraphFilterDialogForm tool;
  TIntList ids = Run(tool, {"Mode=Average", "AverageSpectral=0", "AverageSpatial=0"});
  ASSERT_EQ(ids.size(), 1u);
  for (int32_t y = 0; y < Map().GetSizeY(); ++y)
    for (int32_t x = 0; x < Map().GetSizeX(); ++x)
      for (int32_t g = 0; g < Map().GetSizeGraph(); ++g)
        ASSERT_EQ(Result(ids[0]).GetField(x, y, g), Map().GetField(x, y, g));
  for (const char* page : {"CRR", "Savitzky-Golay", "Median"}) {
    ids = Run(tool, {std::string("Mode=") + page, "MedianSpatial=2"});
    ASSERT_EQ(ids.size(), 1u) << page;
    for (int32_t y = 0; y < Map().GetSizeY(); ++y) EXPECT_TRUE(Result(ids[0]).GetLineValid(y)) << page;
  }
}

TEST_F(GraphFilterDialogTest, PreviewAtTheCursorEqualsTheExtractedSpectrum) {
  TGraphFilterDialogForm tool;
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"Mode=Median", "MedianSpectral=2", "MedianSpatial=1"})
                  .empty());
  const TIntList ids = tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
  ASSERT_EQ(ids.size(), 1u);
  tool.Interactive = true;
  const TIntList inputs{FIDs.Map};
  tool.Init(&inputs, nullptr, &FProject);
  const auto* preview = dynamic_cast<const TDGraph*>(FProject.FindData(tool.GetPreviewGraphID()));
  ASSERT_NE(preview, nullptr);
  ASSERT_TRUE(preview->GetLineValid(0));
  for (int32_t g = 0; g < Map().GetSizeGraph(); ++g)
    EXPECT_EQ(preview->GetField(0, 0, g),
              Result(ids[0]).GetField(tool.GetPositionX(), tool.GetPositionY(), g))
        << g;
  tool.CleanUp();
}

TEST_F(GraphFilterDialogTest, CancelledAndRefusedRunsAddNothingAndLeaveTheInput) {
  const size_t before = ObjectCount();
  const float probe = Map().GetField(3, 4, 10);
  TGraphFilterDialogForm tool;
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Mode=Savitzky-Golay"}).empty());
  TMCC::RequestProcessCancel();
  EXPECT_THROW(tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false), std::exception);
  TMCC::ClearProcessCancelRequest();
  EXPECT_EQ(ObjectCount(), before);
  // A value that isn't a number on a valid line: refused with the graph and the pixel.
  Map().SetField(3, 4, 10, std::numeric_limits<float>::quiet_NaN());
  try {
    tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
    FAIL() << "NaN accepted";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find("pixel (3, 4), point 10"), std::string::npos) << e.what();
  }
  EXPECT_EQ(ObjectCount(), before);
  // The same NaN on an invalid line is not read as data.
  Map().SetLineValid(4, false);
  EXPECT_EQ(tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false).size(), 1u);
  Map().SetLineValid(4, true);
  Map().SetField(3, 4, 10, probe);
}

TEST(GraphFilterRegistry, RegisteredUnderItsKey) {
  TToolRegistry registry;
  RegisterGraphFilterDialog(registry);
  const TToolEntry* entry = registry.Find("GraphFilterDialog");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->Caption, "Graph Filter");
  EXPECT_EQ(entry->Create()->GetFrameName(), "TProjectGraphProcessingDialogForm");
}

} // namespace
