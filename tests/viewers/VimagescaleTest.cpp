// The image viewer's colour scale kernels: line corrections against hand values, percentiles and the two
// rules that keep limits apart, the live line's scale (widening indices, a worked example), and the scale
// kinds in front of a colour profile, including NaN and infinities.
#include "viewers/Vimagescale.h"

#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

namespace {
constexpr float kNaNf = std::numeric_limits<float>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
} // namespace

TEST(VimagescaleTest, LineCorrectionsAgainstHandValues) {
  // 2 + 3x with a NaN that must neither count nor change.
  const std::vector<float> line = {2, 5, kNaNf, 11, 14};
  std::vector<float> out(line.size());

  CorrectImageLine(line.data(), 5, TLineCorrection::None, out.data());
  EXPECT_EQ(out[3], 11.0f);

  CorrectImageLine(line.data(), 5, TLineCorrection::SubAverage, out.data()); // mean of 2, 5, 11, 14 is 8
  EXPECT_FLOAT_EQ(out[0], -6.0f);
  EXPECT_FLOAT_EQ(out[4], 6.0f);
  EXPECT_TRUE(std::isnan(out[2]));

  CorrectImageLine(line.data(), 5, TLineCorrection::DivAverage, out.data());
  EXPECT_FLOAT_EQ(out[0], 0.25f);
  EXPECT_FLOAT_EQ(out[3], 11.0f / 8.0f);

  CorrectImageLine(line.data(), 5, TLineCorrection::SubLine, out.data()); // the line itself: all zero
  for (size_t i : {0u, 1u, 3u, 4u}) EXPECT_NEAR(out[i], 0.0f, 1e-5f) << i;
  EXPECT_TRUE(std::isnan(out[2]));

  // In place, and a line of zero mean is left alone by the division.
  std::vector<float> zero = {-1, 1};
  CorrectImageLine(zero.data(), 2, TLineCorrection::DivAverage, zero.data());
  EXPECT_EQ(zero, (std::vector<float>{-1, 1}));
  // A single finite value: the fitted line is that value.
  std::vector<float> one = {kNaNf, 4, kNaNf};
  CorrectImageLine(one.data(), 3, TLineCorrection::SubLine, one.data());
  EXPECT_EQ(one[1], 0.0f);
}

TEST(VimagescaleTest, PercentilesTruncateTheirIndexAndLimitsAreKeptApart) {
  TImageExtrema info;
  double v = 0;
  EXPECT_FALSE(info.ValueAtPercent(50, v));
  info.Sorted.resize(1000);
  std::iota(info.Sorted.begin(), info.Sorted.end(), 0.0f);
  ASSERT_TRUE(info.ValueAtPercent(0.5, v));
  EXPECT_EQ(v, 4.0); // 999 * 0.005 = 4.995
  ASSERT_TRUE(info.ValueAtPercent(99.5, v));
  EXPECT_EQ(v, 994.0);
  ASSERT_TRUE(info.ValueAtPercent(100, v));
  EXPECT_EQ(v, 999.0);
  ASSERT_TRUE(info.ValueAtPercent(150, v)); // clamped
  EXPECT_EQ(v, 999.0);
  EXPECT_TRUE(info.SmallestPositive(v));
  EXPECT_EQ(v, 1.0);

  double lower = 50, upper = 50.05;
  KeepPercentLimitsApart(lower, upper);
  EXPECT_DOUBLE_EQ(upper, 50.1);
  lower = 10, upper = 20;
  KeepPercentLimitsApart(lower, upper);
  EXPECT_EQ(upper, 20.0);

  double minimum = 3, maximum = 3;
  KeepScaleLimitsApart(minimum, maximum);
  EXPECT_EQ(minimum, 3.0);
  EXPECT_DOUBLE_EQ(maximum, 3.1);
}

TEST(VimagescaleTest, LiveLineScaleStretchesTheCentralNinetyPercent) {
  // 0 … 100: the 5 % and 95 % values are 5 and 95, stretched to exactly 0 … 100.
  std::vector<float> ramp(101);
  std::iota(ramp.begin(), ramp.end(), 0.0f);
  double minimum = 0, maximum = 0;
  ASSERT_TRUE(GetScaleFromLineValues(ramp, minimum, maximum));
  EXPECT_NEAR(minimum, 0.0, 1e-12);
  EXPECT_NEAR(maximum, 100.0, 1e-12);

  // Mostly constant: the indices widen to the ends, where 5 and 7 differ.
  std::vector<float> spike(100, 5.0f);
  spike[42] = 7.0f;
  ASSERT_TRUE(GetScaleFromLineValues(spike, minimum, maximum));
  EXPECT_NEAR(minimum, (12.0 - 2.0 / 90 * 100) * 0.5, 1e-12);
  EXPECT_NEAR(maximum, (2.0 / 90 * 100 + 12.0) * 0.5, 1e-12);

  // All equal: the indices reach the ends and the limits stay equal (never a hang).
  std::vector<float> flat(37, 2.5f);
  flat[3] = kNaNf;
  ASSERT_TRUE(GetScaleFromLineValues(flat, minimum, maximum));
  EXPECT_EQ(minimum, 2.5);
  EXPECT_EQ(maximum, 2.5);
  EXPECT_FALSE(GetScaleFromLineValues({kNaNf, kNaNf}, minimum, maximum));
}

TEST(VimagescaleTest, ScaleKindsMapThroughTheProfile) {
  TDColorProfile profile; // Scan, 1024 colours
  profile.SetWithExtraBottomColor(true);
  profile.SetBottomColor(0x123456);

  const TImageColorMapper linear(profile, 10, 20, TImageScaleKind::Linear);
  for (double v : {9.0, 10.0, 12.5, 15.0, 19.99, 20.0, 25.0})
    EXPECT_EQ(linear.Map(v), profile.GetColorsFromValue(20, 10, v)) << v;
  EXPECT_EQ(linear.Map(std::nan("")), 0x123456u);
  EXPECT_EQ(linear.Map(kInf), 0x123456u);
  EXPECT_EQ(linear.Map(-kInf), 0x123456u);

  // Logarithmic: 10 lies in the middle of 1 … 100.
  const TImageColorMapper log(profile, 1, 100, TImageScaleKind::Logarithmic);
  EXPECT_EQ(log.Map(10), profile.GetColorsFromValue(1, 0, 0.5));
  EXPECT_EQ(log.Map(0), 0x123456u);
  EXPECT_EQ(log.Map(-3), 0x123456u);
  EXPECT_NE(log.Map(10), linear.Map(10 + 5.5)); // not the linear middle
  // A lower limit at or below zero takes the floor given (the smallest positive value).
  const TImageColorMapper floored(profile, -5, 100, TImageScaleKind::Logarithmic, 1.0);
  EXPECT_EQ(floored.Map(10), log.Map(10));
  const TImageColorMapper empty(profile, -5, 100, TImageScaleKind::Logarithmic, 0.0);
  EXPECT_EQ(empty.Map(10), 0x123456u);

  // Square root: a quarter of the range lies at half the table.
  const TImageColorMapper root(profile, 10, 50, TImageScaleKind::SquareRoot);
  EXPECT_EQ(root.Map(20), profile.GetColorsFromValue(1, 0, 0.5));
  EXPECT_EQ(root.Map(5), profile.GetBottomColor());
  EXPECT_EQ(root.Map(60), profile.GetTopColor());
}
