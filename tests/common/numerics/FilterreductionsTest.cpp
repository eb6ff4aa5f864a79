// Range reductions with the background beside the range: background sides on rising and falling axes,
// known answers of every reduction, and the degenerate cases that must give 0.
#include "common/numerics/Filterreductions.h"

#include <cmath>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct TSpectrum {
  std::vector<double> X;
  std::vector<float> Y;
  TFilterField Field(int start, int stop) const {
    TFilterField f;
    f.X = X.data();
    f.Y = Y.data();
    f.Length = static_cast<int>(X.size());
    f.Start = start;
    f.Stop = stop;
    return f;
  }
};

// x = x0 + step i, y = f(x).
template <class F>
TSpectrum Make(int n, double x0, double step, F f) {
  TSpectrum s;
  for (int i = 0; i < n; ++i) {
    s.X.push_back(x0 + step * i);
    s.Y.push_back(static_cast<float>(f(s.X.back())));
  }
  return s;
}

double Gauss(double x, double c, double sigma) {
  return std::exp(-0.5 * (x - c) * (x - c) / (sigma * sigma));
}

} // namespace

TEST(FilterBackground, SidesFollowTheAxisDirection) {
  // Values equal to the pixel index make every side mean readable.
  TSpectrum rising = Make(20, 100, 2, [](double x) { return (x - 100) / 2; });
  TFilterField f = rising.Field(8, 11);
  SetLowerAndUpperBackground(f, 3, 2);
  EXPECT_EQ(f.Background.LowerCount, 3);
  EXPECT_DOUBLE_EQ(f.Background.Lower, 6.0); // pixels 7, 6, 5
  EXPECT_DOUBLE_EQ(f.Background.LowerX, 112.0);
  EXPECT_EQ(f.Background.UpperCount, 2);
  EXPECT_DOUBLE_EQ(f.Background.Upper, 12.5); // pixels 12, 13
  EXPECT_DOUBLE_EQ(f.Background.Mean, 9.25);
  EXPECT_EQ(f.Background.Sides, 2);

  TSpectrum falling = Make(20, 100, -2, [](double x) { return (100 - x) / 2; });
  TFilterField g = falling.Field(8, 11);
  SetLowerAndUpperBackground(g, 3, 2);
  EXPECT_DOUBLE_EQ(g.Background.Lower, 13.0); // pixels 12, 13, 14: the low x side is on the right
  EXPECT_DOUBLE_EQ(g.Background.Upper, 6.5);  // pixels 7, 6
  EXPECT_DOUBLE_EQ(g.Background.UpperX, 87.0);
}

TEST(FilterBackground, PixelsOutsideTheFieldAreSkippedAndZeroCountsGiveNoBackground) {
  TSpectrum s = Make(10, 0, 1, [](double x) { return x; });
  TFilterField f = s.Field(1, 7);
  SetLowerAndUpperBackground(f, 4, 4);
  EXPECT_EQ(f.Background.LowerCount, 1); // only pixel 0
  EXPECT_EQ(f.Background.UpperCount, 2); // pixels 8, 9
  EXPECT_DOUBLE_EQ(f.Background.Upper, 8.5);

  TFilterField edge = s.Field(0, 5);
  SetLowerAndUpperBackground(edge, 4, 4);
  EXPECT_EQ(edge.Background.Sides, 1);
  EXPECT_DOUBLE_EQ(edge.Background.Mean, 7.5); // pixels 6..9
  // One side only: the mean is subtracted, not a line.
  EXPECT_DOUBLE_EQ(edge.ValueMinusBackground(2), 2 - 7.5);

  TFilterField none = s.Field(3, 5);
  SetLowerAndUpperBackground(none, 0, 0);
  EXPECT_EQ(none.Background.Sides, 0);
  EXPECT_DOUBLE_EQ(none.Background.Mean, 0.0);
  EXPECT_DOUBLE_EQ(FilterSum(none), 12.0);
}

TEST(FilterBackground, BothSidesSubtractTheLineThroughTheirMeans) {
  TSpectrum s = Make(40, 500, 0.5, [](double x) { return 3 + 0.25 * x; });
  TFilterField f = s.Field(10, 25);
  SetLowerAndUpperBackground(f, 4, 6);
  for (int i = 0; i < 40; ++i) EXPECT_NEAR(f.ValueMinusBackground(i), 0.0, 1e-4) << i;
}

TEST(FilterReductions, SumAndAverageOverALinearBackground) {
  // A Gaussian band of known area on a sloped background; equal counts on both sides centre the mean
  // background on the range, so the sum is the band's area per pixel.
  const double sigma = 3, height = 50;
  TSpectrum s = Make(200, 0, 1, [&](double x) { return 20 + 0.3 * x + height * Gauss(x, 100, sigma); });
  TFilterField f = s.Field(70, 130);
  SetLowerAndUpperBackground(f, 4, 4);
  const double area = height * sigma * std::sqrt(2 * M_PI);
  EXPECT_NEAR(FilterSum(f), area, 2e-3 * area);
  EXPECT_NEAR(FilterAverage(f), area / 61, 2e-3 * area / 61);
}

TEST(FilterReductions, MinMaxKeepsTheFirstOfEqualValues) {
  TSpectrum s;
  s.X = {0, 1, 2, 3, 4, 5, 6};
  s.Y = {9, 1, 5, 1, 7, 7, 9};
  TFilterField f = s.Field(1, 5);
  SetLowerAndUpperBackground(f, 0, 0);
  const TFilterMinMax m = FilterMinMax(f);
  EXPECT_EQ(m.MinimumIndex, 1);
  EXPECT_EQ(m.MaximumIndex, 4);
  EXPECT_DOUBLE_EQ(m.Minimum, 1);
  EXPECT_DOUBLE_EQ(m.MaximumX, 4);
}

TEST(FilterReductions, CenterOfMassOfASymmetricPeak) {
  TSpectrum s = Make(300, 1000, -0.7, [](double x) { return 5 + 80 * Gauss(x, 1000 - 0.7 * 150, 6); });
  TFilterField f = s.Field(110, 190); // symmetric about pixel 150
  SetLowerAndUpperBackground(f, 4, 4);
  EXPECT_NEAR(FilterCenterOfMass(f, 0, 0), 1000 - 0.7 * 150, 1e-4);

  // Values that sum to zero: the given empty value.
  TSpectrum flat = Make(10, 0, 1, [](double) { return 2.0; });
  TFilterField z = flat.Field(2, 6);
  SetLowerAndUpperBackground(z, 2, 2);
  EXPECT_DOUBLE_EQ(FilterCenterOfMass(z, 1e-30, -7), -7);
  EXPECT_DOUBLE_EQ(FilterCenterOfMass(z, 0, 0), 0);
}

TEST(FilterReductions, WidthOfAGaussianAtHalfHeight) {
  const double sigma = 8;
  for (double step : {0.25, -0.25}) {
    TSpectrum s = Make(800, 300, step, [&](double x) { return 1000 * Gauss(x, 300 + step * 400, sigma); });
    TFilterField f = s.Field(350, 450);
    SetLowerAndUpperBackground(f, 0, 0);
    EXPECT_NEAR(FilterWidth(f, 0.5, true), 2.3548200450309493 * sigma, 1e-3 * sigma) << step;
    // At 1/e^2 of the height the width is 4 sigma.
    EXPECT_NEAR(FilterWidth(f, std::exp(-2.0), false), 4 * sigma, 2e-3 * sigma);
  }
}

TEST(FilterReductions, WidthAndParabolaOfAConstantAreZero) {
  TSpectrum s = Make(50, 0, 1, [](double) { return 3.0; });
  TFilterField f = s.Field(10, 30);
  SetLowerAndUpperBackground(f, 0, 0);
  EXPECT_EQ(FilterWidth(f, 0.5, true), 0.0);
  EXPECT_EQ(FilterWidth(f, 0.5, false), 0.0);
  const TFilterParabola p = FilterParabola(f, 10);
  EXPECT_FALSE(p.Fitted);
  EXPECT_EQ(p.Intensity, 0.0);
  EXPECT_EQ(p.Center, 0.0);
}

TEST(FilterReductions, WidthNeedsACrossingOnBothSides) {
  // A peak that never falls below the level on its right within the field.
  TSpectrum s = Make(30, 0, 1, [](double x) { return x < 10 ? x : 10.0; });
  TFilterField f = s.Field(5, 20);
  SetLowerAndUpperBackground(f, 0, 0);
  EXPECT_EQ(FilterWidth(f, 0.5, true), 0.0);
}

TEST(FilterReductions, ParabolaRecoversAnExactParabola) {
  TSpectrum s = Make(100, 500, 0.8, [](double x) { return 250 - 0.5 * (x - 540.4) * (x - 540.4); });
  TFilterField f = s.Field(40, 60);
  SetLowerAndUpperBackground(f, 0, 0);
  const TFilterParabola p = FilterParabola(f, 12);
  ASSERT_TRUE(p.Fitted);
  EXPECT_NEAR(p.Center, 540.4, 1e-6);
  EXPECT_NEAR(p.Intensity, 250, 1e-5);
  EXPECT_NEAR(p.Curvature, -0.5, 1e-6);
  EXPECT_NEAR(p.Error, 0.0, 1e-4);

  // The peak at the second pixel of the field: nothing is fitted.
  TSpectrum edge = Make(20, 0, 1, [](double x) { return -(x - 1) * (x - 1); });
  TFilterField e = edge.Field(0, 10);
  SetLowerAndUpperBackground(e, 0, 0);
  EXPECT_FALSE(FilterParabola(e, 6).Fitted);
}

TEST(FilterReductions, StandardDeviationAverageMinusMinimumAndLine) {
  TSpectrum s = Make(12, 0, 1, [](double x) { return x; });
  TFilterField f = s.Field(2, 9); // values 2..9
  SetLowerAndUpperBackground(f, 0, 0);
  EXPECT_NEAR(FilterStandardDeviation(f), std::sqrt((64.0 - 1) / 12), 1e-12);
  EXPECT_NEAR(FilterAverageMinusMinimum(f), 3.5, 1e-6);
  TFilterLine line = FilterLinearRegression(f);
  EXPECT_NEAR(line.Slope, 1, 1e-12);
  EXPECT_NEAR(line.Offset, 0, 1e-12);
  EXPECT_NEAR(line.Correlation, 1, 1e-12);

  TSpectrum flat = Make(12, 0, 1, [](double) { return 4.0; });
  TFilterField g = flat.Field(2, 9);
  SetLowerAndUpperBackground(g, 0, 0);
  line = FilterLinearRegression(g);
  EXPECT_NEAR(line.Offset, 4, 1e-12);
  EXPECT_EQ(line.Correlation, 0.0);
  // A single pixel: the determinant vanishes, everything is 0.
  TFilterField one = flat.Field(3, 3);
  SetLowerAndUpperBackground(one, 0, 0);
  line = FilterLinearRegression(one);
  EXPECT_EQ(line.Offset, 0.0);
  EXPECT_EQ(line.Slope, 0.0);
}

TEST(FilterReductions, PixelRangeNeededWidensOnTheSideOfEachBackground) {
  std::vector<double> rising(50), falling(50);
  std::iota(rising.begin(), rising.end(), 0.0);
  for (int i = 0; i < 50; ++i) falling[i] = -i;
  int first, count;
  GetPixelRangeNeeded(rising.data(), 50, 20, 30, 3, 5, first, count);
  EXPECT_EQ(first, 17);
  EXPECT_EQ(count, 19);
  GetPixelRangeNeeded(falling.data(), 50, 20, 30, 3, 5, first, count);
  EXPECT_EQ(first, 15);
  EXPECT_EQ(count, 19);
  GetPixelRangeNeeded(rising.data(), 50, 1, 47, 4, 4, first, count);
  EXPECT_EQ(first, 0);
  EXPECT_EQ(count, 50);
}
