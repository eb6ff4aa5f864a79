// Savitzky-Golay through the Graph Filter tool on a 1 GiB map held in a memory-mapped file with 64 MB of
// views: the result is right where the polynomial reproduces itself, and the resident memory stays far
// below the two gigabytes of input and result.
#include "data/Dgraph.h"
#include "project/Project.h"
#include "support/TestSupport.h"
#include "tools/spectral/Graphfilterdialog.h"
#include "tools/spectral/slow/LargeMapSupport.h"

#include <cstdio>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(GraphFilterScaleTest, SavitzkyGolayOnAMapLargerThanTheMappedViews) {
  oxtest::TempDir dir;
  ASSERT_NO_FATAL_FAILURE(oxtest::UseSmallMappedViews(dir));
  constexpr int32_t kSize = oxtest::kLargeMapSize, kLength = oxtest::kLargeMapLength;
  // A quadratic along each spectrum with its own coefficients per pixel: order 4 reproduces it inside.
  auto value = [](int32_t x, int32_t y, int32_t g) {
    const double t = (g - 512) / 64.0;
    return static_cast<float>((x % 7) + 0.5 * (y % 5) * t + 0.25 * t * t);
  };
  TProject project;
  const int32_t id = oxtest::AddLargeMap(project, value);
  std::vector<float> spectrum(kLength);

  TGraphFilterDialogForm tool;
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Mode=Savitzky-Golay"}).empty());
  const TIntList results = tool.RunNonInteractive(project, {id}, "Extract", false);
  ASSERT_EQ(results.size(), 1u);
  const auto* result = dynamic_cast<const TDGraph*>(project.FindData(results[0]));
  ASSERT_NE(result, nullptr);
  int64_t checked = 0;
  for (int32_t y = 0; y < kSize; y += 37)
    for (int32_t x = 0; x < kSize; x += 41) {
      ASSERT_TRUE(result->GetLineValid(y));
      result->GetSpectrum(x, y, spectrum.data());
      for (int32_t g = 5; g < kLength - 5; g += 13, ++checked)
        ASSERT_NEAR(spectrum[static_cast<size_t>(g)], value(x, y, g), 1e-3) << x << " " << y << " " << g;
    }
  EXPECT_GT(checked, 10000);
  const double peak = oxtest::PeakResidentMiB();
  std::printf("[ figures  ] peak resident memory (VmHWM) %.1f MiB for 2 GiB of input and result\n", peak);
  EXPECT_GT(peak, 0);
  EXPECT_LT(peak, 256.0);
}

} // namespace
