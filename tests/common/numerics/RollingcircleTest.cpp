// Rolling circle background: a broad baseline under narrow peaks, straight lines, border peaks, scaling.
#include "common/numerics/Rollingcircle.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace {

double Baseline(int i) {
  return 50.0 + 0.0005 * (i - 200.0) * (i - 200.0);
}

double Peaks(int i) {
  double v = 0;
  for (int c : {60, 150, 275, 330}) v += 100.0 * std::exp(-0.5 * (i - c) * (i - c) / 4.0);
  return v;
}

} // namespace

TEST(RollingCircle, RecoversABroadBaselineUnderNarrowPeaks) {
  const int n = 400;
  std::vector<float> in(n), result(n), background(n);
  for (int i = 0; i < n; ++i) in[i] = static_cast<float>(Baseline(i) + Peaks(i));
  // The baseline rises steeply towards both ends: only circles centred beyond the ends reach them.
  TRollingCircleSubtraction rc(n, 20, 0.0, 0.0, false);
  rc.Calculate(in.data(), result.data(), background.data());
  for (int i = 0; i < n; ++i) {
    bool nearPeak = false;
    for (int c : {60, 150, 275, 330}) nearPeak = nearPeak || std::abs(i - c) < 12;
    if (!nearPeak) {
      ASSERT_NEAR(background[i], Baseline(i), 0.05) << i;
    }
    ASSERT_NEAR(result[i] + background[i], in[i], 1e-3);
  }
  for (int c : {60, 150, 275, 330}) EXPECT_NEAR(result[c], 100.0, 1.0) << c;
}

TEST(RollingCircle, AStraightLineIsAllBackgroundAtAnyScale) {
  const int n = 128;
  for (double scale : {1e-3, 1.0, 1e5}) {
    std::vector<float> in(n), result(n), background(n);
    for (int i = 0; i < n; ++i) in[i] = static_cast<float>(scale * (3.0 + 0.5 * i));
    TRollingCircleSubtraction rc(n, 10, 0.0, 0.0, false);
    rc.Calculate(in.data(), result.data(), background.data());
    for (int i = 0; i < n; ++i) ASSERT_NEAR(result[i], 0.0, 1e-4 * scale * 64) << scale << " " << i;
  }
}

TEST(RollingCircle, NormalizeUsesTheMinimumAndThe95PercentValue) {
  const int n = 21;
  std::vector<float> v(n);
  for (int i = 0; i < n; ++i) v[i] = static_cast<float>(2 * i + 1); // sorted already: 1, 3, ..., 41
  v[20] = 1000.0f;                                                  // outlier above the 95 % index 19
  TRollingCircleSubtraction rc(n, 3, 0.0, 0.0, true);
  rc.Normalize(v.data());
  EXPECT_DOUBLE_EQ(rc.Minimum(), 1.0);
  EXPECT_DOUBLE_EQ(rc.Scale(), n / (39.0 - 1.0));
  EXPECT_DOUBLE_EQ(rc.Normal()[0], 0.0);
  EXPECT_DOUBLE_EQ(rc.Normal()[19], n);
  const std::vector<float> flat(n, 7.0f);
  rc.Normalize(flat.data());
  EXPECT_DOUBLE_EQ(rc.Scale(), 1.0);
  TRollingCircleSubtraction two(2, 1, 0.0, 0.0, true); // 95 % index 0: the last value is used
  const float pair[] = {4.0f, 2.0f};
  two.Normalize(pair);
  EXPECT_DOUBLE_EQ(two.Scale(), 2.0 / 2.0);
  EXPECT_DOUBLE_EQ(two.Normal()[0], 2.0);
}

TEST(RollingCircle, BorderPeaksStayOnlyWithTheFlag) {
  const int n = 100;
  std::vector<float> in(n), kept(n), removed(n);
  for (int i = 0; i < n; ++i) in[i] = static_cast<float>(10.0 + 80.0 * std::exp(-0.5 * i * i / 2.0));
  TRollingCircleSubtraction keep(n, 15, 0.0, 0.0, true);
  keep.Calculate(in.data(), kept.data());
  TRollingCircleSubtraction roll(n, 15, 0.0, 0.0, false);
  roll.Calculate(in.data(), removed.data());
  EXPECT_NEAR(kept[0], 80.0, 0.5);
  EXPECT_LT(removed[0], 5.0);
  EXPECT_NEAR(kept[60], 0.0, 1e-3);
  EXPECT_NEAR(removed[60], 0.0, 1e-3);
}

TEST(RollingCircle, FillLevelLiftsTheBackgroundTowardsTheData) {
  const int n = 64;
  std::vector<float> in(n), half(n), full(n);
  for (int i = 0; i < n; ++i) in[i] = static_cast<float>(5.0 + 40.0 * std::exp(-0.5 * (i - 30) * (i - 30)));
  std::vector<float> none(n);
  TRollingCircleSubtraction(n, 8, 0.0, 0.0, true).Calculate(in.data(), none.data());
  TRollingCircleSubtraction(n, 8, 0.0, 0.5, true).Calculate(in.data(), half.data());
  TRollingCircleSubtraction(n, 8, 0.0, 7.0, true).Calculate(in.data(), full.data()); // clamped to 1
  EXPECT_NEAR(half[30], 0.5 * none[30], 1e-3);
  for (int i = 0; i < n; ++i) ASSERT_NEAR(full[i], 0.0, 1e-4);
}

TEST(RollingCircle, NoiseFilterSmoothsBeforeRolling) {
  const int n = 256;
  std::vector<float> in(n), plain(n), filtered(n);
  for (int i = 0; i < n; ++i) in[i] = static_cast<float>(20.0 + 0.1 * i + ((i % 2) ? 0.5 : -0.5));
  TRollingCircleSubtraction(n, 10, 0.0, 0.0, true).Calculate(in.data(), plain.data());
  TRollingCircleSubtraction(n, 10, 3.0, 0.0, true).Calculate(in.data(), filtered.data());
  // Without filtering the circle rests on the lower points of the alternation; the result keeps it.
  double plainMean = 0, filteredMean = 0;
  for (int i = 10; i < n - 10; ++i) plainMean += plain[i], filteredMean += filtered[i];
  EXPECT_GT(plainMean / (n - 20), 0.4);
  EXPECT_LT(std::fabs(filteredMean / (n - 20)), std::fabs(plainMean / (n - 20)));
}

TEST(RollingCircle, BadArgumentsAreRefused) {
  EXPECT_THROW(TRollingCircleSubtraction(0, 5, 0.0, 0.0, true), OrvexException);
  EXPECT_THROW(TRollingCircleSubtraction(10, 0, 0.0, 0.0, true), OrvexException);
  EXPECT_THROW(TRollingCircleSubtraction(10, 5, -1.0, 0.0, true), OrvexException);
}
