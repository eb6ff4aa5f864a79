// Polynomial background subtraction through its tool on a 1 GiB map held in a memory-mapped file with 64 MB
// of views: each spectrum is a cubic background fitted on its first half plus a band in its second half, so
// the result is the band alone; the resident memory stays far below the two gigabytes of input and result.
#include "data/Dgraph.h"
#include "project/Project.h"
#include "support/TestSupport.h"
#include "tools/spectral/Graphbackgroundsubtraction.h"
#include "tools/spectral/slow/LargeMapSupport.h"

#include <cmath>
#include <cstdio>
#include <vector>

#include <gtest/gtest.h>

namespace {

double Band(int32_t g) {
  const double d = (g - 800) / 5.0;
  return 50.0 / (1.0 + d * d);
}

TEST(GraphBackgroundScaleTest, PolynomialOnAMapLargerThanTheMappedViews) {
  oxtest::TempDir dir;
  ASSERT_NO_FATAL_FAILURE(oxtest::UseSmallMappedViews(dir));
  constexpr int32_t kSize = oxtest::kLargeMapSize, kLength = oxtest::kLargeMapLength;
  auto value = [](int32_t x, int32_t y, int32_t g) {
    const double t = (g - 512) / 256.0;
    return static_cast<float>((x % 5) + 0.3 * (y % 3) * t - 0.2 * t * t + 0.05 * t * t * t +
                              (g >= 512 ? Band(g) : 0.0));
  };
  TProject project;
  const int32_t id = oxtest::AddLargeMap(project, value);

  TGraphBackgroundSubtractionForm tool;
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"Method=Polynomial", "Order=3", "Fit Mask=0:511 px"})
                  .empty());
  const TIntList results = tool.RunNonInteractive(project, {id}, "Extract", false);
  ASSERT_EQ(results.size(), 1u);
  const auto* result = dynamic_cast<const TDGraph*>(project.FindData(results[0]));
  ASSERT_NE(result, nullptr);
  std::vector<float> spectrum(kLength);
  int64_t checked = 0;
  for (int32_t y = 0; y < kSize; y += 37)
    for (int32_t x = 0; x < kSize; x += 41) {
      ASSERT_TRUE(result->GetLineValid(y));
      result->GetSpectrum(x, y, spectrum.data());
      for (int32_t g = 0; g < kLength; g += 7, ++checked)
        ASSERT_NEAR(spectrum[static_cast<size_t>(g)], g >= 512 ? Band(g) : 0.0, 5e-3)
            << x << " " << y << " " << g;
    }
  EXPECT_GT(checked, 20000);
  const double peak = oxtest::PeakResidentMiB();
  std::printf("[ figures  ] peak resident memory (VmHWM) %.1f MiB for 2 GiB of input and result\n", peak);
  EXPECT_GT(peak, 0);
  EXPECT_LT(peak, 256.0);
}

} // namespace
