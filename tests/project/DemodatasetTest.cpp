// The demo data set: calibrated axes, bands where the components put them, truth objects, determinism.
#include "project/Demodataset.h"

#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

namespace {

class DemodatasetTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
  }
  void TearDown() override { TMCC::SetProcessThreadLimit(0); }

  // Rel. 1/cm of detector pixel g, through the graph's own transformation and interpretation.
  static double ShiftOfPixel(TProject& project, const TDGraph& graph, double g) {
    const auto* transformation =
        dynamic_cast<const TDTransformation*>(project.FindData(graph.GetXTransformationID()));
    const auto* interpretation =
        dynamic_cast<const TDInterpretation*>(project.FindData(graph.GetXInterpretationID()));
    double wavelength = 0;
    transformation->BinToReal(&g, &wavelength);
    return interpretation->StandardTo(wavelength);
  }
};

TEST_F(DemodatasetTest, BandsStandWhereTheComponentsPutThem) {
  TProject project;
  const TDemoIDs ids = CreateDemoProject(project, {16, 16, 1024, 7});
  const auto& components = DemoComponents();
  ASSERT_EQ(ids.TrueComponents.size(), components.size());
  for (size_t c = 0; c < components.size(); ++c) {
    const auto* truth = dynamic_cast<const TDGraph*>(project.FindData(ids.TrueComponents[c]));
    ASSERT_NE(truth, nullptr);
    std::vector<float> spectrum(1024);
    truth->GetSpectrum(0, 0, spectrum.data());
    const auto g = std::max_element(spectrum.begin(), spectrum.end()) - spectrum.begin();
    const auto strongest =
        *std::max_element(components[c].Bands.begin(), components[c].Bands.end(),
                          [](const auto& a, const auto& b) { return a.Amplitude < b.Amplitude; });
    // Within one pixel of the axis at that place.
    const double pixelWidth =
        std::fabs(ShiftOfPixel(project, *truth, g + 1.0) - ShiftOfPixel(project, *truth, g));
    EXPECT_NEAR(ShiftOfPixel(project, *truth, double(g)), strongest.Shift, pixelWidth) << components[c].Name;
  }
  // The map's axis is shown in rel. 1/cm against 532 nm and covers the fingerprint and CH region.
  const auto* map = dynamic_cast<const TDGraph*>(project.FindData(ids.Map));
  ASSERT_NE(map, nullptr);
  const auto* interpretation =
      dynamic_cast<const TDSpectralInterpretation*>(project.FindData(map->GetXInterpretationID()));
  ASSERT_NE(interpretation, nullptr);
  EXPECT_EQ(interpretation->GetUnitIndex(), TDSpectralInterpretation::suRelativeWavenumber);
  EXPECT_DOUBLE_EQ(interpretation->GetExcitationWaveLength(), 532.0);
  EXPECT_LT(ShiftOfPixel(project, *map, 0), 200);
  EXPECT_GT(ShiftOfPixel(project, *map, 1023), 3100);
}

TEST_F(DemodatasetTest, MapSpectraCarryTheirComponents) {
  TProject project;
  const TDemoIDs ids = CreateDemoProject(project, {24, 24, 1024, 2});
  const auto* map = dynamic_cast<const TDGraph*>(project.FindData(ids.Map));
  const auto* polymer = dynamic_cast<const TDImage*>(project.FindData(ids.TrueAbundances[1]));
  ASSERT_NE(map, nullptr);
  ASSERT_NE(polymer, nullptr);
  // Where the polystyrene abundance is highest, the 1001 band stands far above where it is lowest.
  int32_t bestX = 0, bestY = 0, worstX = 0, worstY = 0;
  for (int32_t y = 0; y < 24; ++y)
    for (int32_t x = 0; x < 24; ++x) {
      if (polymer->GetField(x, y) > polymer->GetField(bestX, bestY)) bestX = x, bestY = y;
      if (polymer->GetField(x, y) < polymer->GetField(worstX, worstY)) worstX = x, worstY = y;
    }
  int32_t band = 0;
  double closest = 1e9;
  for (int32_t g = 0; g < 1024; ++g)
    if (std::fabs(ShiftOfPixel(project, *map, g) - 1001.4) < closest)
      closest = std::fabs(ShiftOfPixel(project, *map, g) - 1001.4), band = g;
  std::vector<float> rich(1024), poor(1024);
  map->GetSpectrum(bestX, bestY, rich.data());
  map->GetSpectrum(worstX, worstY, poor.data());
  auto height = [&](const std::vector<float>& s) { return s[band] - 0.5f * (s[band - 15] + s[band + 15]); };
  EXPECT_GT(height(rich), 300.0f);
  EXPECT_LT(height(poor), 150.0f);
  EXPECT_TRUE(map->GetLineValid(23));
  EXPECT_NE(project.FindData(ids.Topography), nullptr);
  EXPECT_NE(project.FindData(ids.Description), nullptr);
}

TEST_F(DemodatasetTest, SameSeedSameValuesWhateverTheThreads) {
  auto values = [](int threads, uint64_t seed) {
    TMCC::SetProcessThreadLimit(threads);
    TProject project;
    const TDemoIDs ids = CreateDemoProject(project, {9, 7, 128, seed});
    const auto* map = dynamic_cast<const TDGraph*>(project.FindData(ids.Map));
    std::vector<float> all;
    std::vector<float> spectrum(128);
    for (int64_t e = 0; e < map->GetNumberOfSpectra(); ++e) {
      map->GetSpectrumOfElement(e, spectrum.data());
      all.insert(all.end(), spectrum.begin(), spectrum.end());
    }
    return all;
  };
  const auto one = values(1, 5);
  EXPECT_EQ(one, values(2, 5));
  EXPECT_NE(one, values(2, 6));
}

} // namespace
