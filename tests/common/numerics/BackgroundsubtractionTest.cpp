// Background kernels: exact constant and minimum, the polynomial against a long-double reference on the
// raw index powers (orders 0, 3, 9, masks with gaps), mask handling, non-finite input, the automatic
// polynomial's rounds and recovery under noise, the binomial and box averages on known arrays.
#include "common/numerics/Backgroundsubtraction.h"

#include "common/OrvexException.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// std::vector<bool> has no data(); the kernels take plain bool arrays.
struct TBoolArray {
  explicit TBoolArray(int n, bool value = true) : Values(new bool[n]), N(n) {
    std::fill(Values, Values + n, value);
  }
  ~TBoolArray() { delete[] Values; }
  TBoolArray(const TBoolArray&) = delete;
  TBoolArray& operator=(const TBoolArray&) = delete;
  bool* Values;
  int N;
  bool& operator[](int i) { return Values[i]; }
  operator const bool*() const { return Values; }
};

// Least squares on the powers (i+1)^j solved by Gaussian elimination with partial pivoting in long double:
// an independent reference for the mapped-index fit.
std::vector<long double> ReferencePolynomial(const std::vector<float>& y, const bool* mask, int order) {
  const int n = static_cast<int>(y.size()), m = order + 1;
  std::vector<long double> a(m * (m + 1), 0.0L);
  for (int i = 0; i < n; ++i) {
    if (!mask[i]) continue;
    for (int r = 0; r < m; ++r) {
      const long double br = std::pow(static_cast<long double>(i + 1), r);
      for (int c = 0; c < m; ++c) a[r * (m + 1) + c] += br * std::pow(static_cast<long double>(i + 1), c);
      a[r * (m + 1) + m] += br * y[i];
    }
  }
  for (int c = 0; c < m; ++c) {
    int p = c;
    for (int r = c + 1; r < m; ++r)
      if (std::fabs(a[r * (m + 1) + c]) > std::fabs(a[p * (m + 1) + c])) p = r;
    for (int k = 0; k <= m; ++k) std::swap(a[c * (m + 1) + k], a[p * (m + 1) + k]);
    for (int r = c + 1; r < m; ++r) {
      const long double f = a[r * (m + 1) + c] / a[c * (m + 1) + c];
      for (int k = c; k <= m; ++k) a[r * (m + 1) + k] -= f * a[c * (m + 1) + k];
    }
  }
  std::vector<long double> coeff(m);
  for (int r = m - 1; r >= 0; --r) {
    long double s = a[r * (m + 1) + m];
    for (int k = r + 1; k < m; ++k) s -= a[r * (m + 1) + k] * coeff[k];
    coeff[r] = s / a[r * (m + 1) + r];
  }
  std::vector<long double> out(n);
  for (int i = 0; i < n; ++i) {
    long double s = 0;
    for (int j = 0; j < m; ++j) s += coeff[j] * std::pow(static_cast<long double>(i + 1), j);
    out[i] = s;
  }
  return out;
}

std::vector<float> Gaussian(int n, double centre, double sigma, double height) {
  std::vector<float> y(n);
  for (int i = 0; i < n; ++i)
    y[i] = static_cast<float>(height * std::exp(-0.5 * std::pow((i - centre) / sigma, 2)));
  return y;
}

double Rms(const std::vector<float>& a, const std::vector<float>& b, int from, int to) {
  double s = 0;
  for (int i = from; i < to; ++i) s += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
  return std::sqrt(s / (to - from));
}

} // namespace

TEST(BackgroundConstantMinimum, ExactValuesAndMasks) {
  const int n = 8;
  const std::vector<float> y = {3, 1, 4, 1, 5, 9, 2, 6};
  const std::vector<float> reference = {1, 2, 3, 4, 5, 6, 7, 8};
  TBoolArray fit(n), change(n);
  change[2] = false;
  std::vector<float> b(n), r(n);
  ASSERT_EQ(ConstantBackground(n, y.data(), fit, change, 0.5, reference.data(), b.data(), r.data()),
            TBackgroundStatus::Done);
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(b[i], 0.5f + reference[i]);
    EXPECT_EQ(r[i], i == 2 ? 0.0f : y[i] - (0.5f + reference[i]));
  }
  ASSERT_EQ(ConstantBackground(n, y.data(), fit, change, -2.0, nullptr, b.data(), r.data()),
            TBackgroundStatus::Done);
  EXPECT_EQ(b[5], -2.0f);
  EXPECT_EQ(r[5], 11.0f);

  // Minimum over the fit mask only: pixels 1 and 3 (value 1) are left out, so the minimum is 2 (pixel 6).
  fit[1] = fit[3] = false;
  ASSERT_EQ(MinimumBackground(n, y.data(), fit, change, 0.25, b.data(), r.data()), TBackgroundStatus::Done);
  for (int i = 0; i < n; ++i) EXPECT_EQ(b[i], 2.25f);
  EXPECT_EQ(r[0], 0.75f);
  EXPECT_EQ(r[2], 0.0f);
}

// The kernels work four points at a time with a point-by-point tail: every length from 1 to 13 with
// scattered masks must give what the point-by-point rules give, whichever lane a point falls in.
TEST(BackgroundConstantMinimum, EveryLengthAndMaskPattern) {
  std::mt19937 random(7);
  std::uniform_real_distribution<float> value(-50.0f, 50.0f);
  const float inf = std::numeric_limits<float>::infinity();
  for (int n = 1; n <= 13; ++n) {
    for (int pattern = 0; pattern < 6; ++pattern) {
      std::vector<float> y(n), reference(n), b(n), r(n);
      TBoolArray fit(n), change(n);
      for (int i = 0; i < n; ++i) {
        y[i] = value(random);
        reference[i] = value(random);
        fit[i] = (random() % 3) != 0;
        change[i] = (random() % 2) != 0;
      }
      // A non-finite value outside both masks must not reach the result.
      const int outside = static_cast<int>(random() % n);
      fit[outside] = change[outside] = false;
      y[outside] = pattern % 2 ? inf : -inf;

      ASSERT_EQ(ConstantBackground(n, y.data(), fit, change, 1.5, reference.data(), b.data(), r.data()),
                TBackgroundStatus::Done);
      for (int i = 0; i < n; ++i) {
        const float expected = static_cast<float>(1.5 + static_cast<double>(reference[i]));
        ASSERT_EQ(b[i], expected) << n << " " << i;
        ASSERT_EQ(r[i], change[i] ? y[i] - expected : 0.0f) << n << " " << i;
      }
      ASSERT_EQ(MinimumBackground(n, y.data(), fit, change, -0.5, b.data(), r.data()),
                TBackgroundStatus::Done);
      float minimum = inf;
      for (int i = 0; i < n; ++i)
        if (fit[i]) minimum = std::min(minimum, y[i]);
      const float expected = minimum == inf ? 0.0f : static_cast<float>(minimum - 0.5);
      for (int i = 0; i < n; ++i) {
        ASSERT_EQ(b[i], expected) << n << " " << i;
        ASSERT_EQ(r[i], change[i] ? y[i] - expected : 0.0f) << n << " " << i;
      }
      ApplyBackground(n, y.data(), change, reference.data(), r.data());
      for (int i = 0; i < n; ++i) ASSERT_EQ(r[i], change[i] ? y[i] - reference[i] : 0.0f) << n << " " << i;
    }
  }
}

// The polynomial's sums run two points at a time and its evaluation two at a time: odd lengths and every
// order must still meet the long-double reference.
TEST(BackgroundPolynomial, OddLengthsEveryOrder) {
  for (int n : {11, 12, 13, 37}) {
    for (int order = 0; order <= 9 && order < n - 1; ++order) {
      std::vector<float> y(n), b(n), r(n);
      for (int i = 0; i < n; ++i) y[i] = static_cast<float>(10.0 + 3.0 * std::sin(0.7 * i) + 0.05 * i * i);
      TBoolArray fit(n), change(n);
      fit[n / 2] = false;
      TBackgroundScratch scratch(n);
      TPolynomialBackgroundFit poly;
      ASSERT_TRUE(poly.Prepare(n, fit, order)) << n << " " << order;
      ASSERT_EQ(PolynomialBackground(poly, y.data(), change, b.data(), r.data(), scratch),
                TBackgroundStatus::Done);
      const std::vector<long double> expected = ReferencePolynomial(y, fit, order);
      for (int i = 0; i < n; ++i)
        ASSERT_NEAR(b[i], static_cast<double>(expected[i]), 2e-5 * (1.0 + std::fabs(double(expected[i]))))
            << n << " " << order << " " << i;
    }
  }
}

TEST(BackgroundConstantMinimum, EmptyMasks) {
  const int n = 6;
  const std::vector<float> y = {5, -1, 7, 2, 2, 0};
  std::vector<float> b(n, 99), r(n, 99);
  TBoolArray emptyFit(n, false), allChange(n, true), noChange(n, false);
  // An empty fit mask leaves the spectrum as it is within the change mask.
  ASSERT_EQ(MinimumBackground(n, y.data(), emptyFit, allChange, 3.0, b.data(), r.data()),
            TBackgroundStatus::Done);
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(b[i], 0.0f);
    EXPECT_EQ(r[i], y[i]);
  }
  // An empty change mask zeroes the whole result.
  TBoolArray allFit(n, true);
  ASSERT_EQ(MinimumBackground(n, y.data(), allFit, noChange, 0.0, b.data(), r.data()),
            TBackgroundStatus::Done);
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(b[i], -1.0f);
    EXPECT_EQ(r[i], 0.0f);
  }
}

TEST(BackgroundNonFinite, FitMaskDecides) {
  const int n = 20;
  std::vector<float> y(n, 1.0f), b(n), r(n);
  y[4] = std::numeric_limits<float>::infinity();
  TBoolArray fit(n), change(n);
  TBackgroundScratch scratch(n);
  TPolynomialBackgroundFit poly;
  ASSERT_TRUE(poly.Prepare(n, fit, 1));
  EXPECT_EQ(MinimumBackground(n, y.data(), fit, change, 0, b.data(), r.data()), TBackgroundStatus::NotFinite);
  EXPECT_TRUE(std::isnan(r[0]) && std::isnan(b[19]));
  EXPECT_EQ(PolynomialBackground(poly, y.data(), change, b.data(), r.data(), scratch),
            TBackgroundStatus::NotFinite);
  EXPECT_TRUE(std::isnan(r[10]));
  EXPECT_EQ(
      AverageBackground(n, y.data(), fit, change, AverageWeights(2).data(), 2, b.data(), r.data(), scratch),
      TBackgroundStatus::NotFinite);
  EXPECT_EQ(
      AutoAverageBackground(n, y.data(), fit, change, TAutoAverageSettings{}, b.data(), r.data(), scratch),
      TBackgroundStatus::NotFinite);
  // Outside the fit mask a non-finite value is carried through, not refused.
  fit[4] = false;
  EXPECT_EQ(MinimumBackground(n, y.data(), fit, change, 0, b.data(), r.data()), TBackgroundStatus::Done);
  EXPECT_EQ(r[0], 0.0f);
  EXPECT_TRUE(std::isinf(r[4]));
}

TEST(BackgroundPolynomial, MatchesLongDoubleReferenceWithGaps) {
  const int n = 1024;
  std::mt19937 g(7);
  std::normal_distribution<double> noise(0.0, 1.0);
  std::vector<float> y(n);
  for (int i = 0; i < n; ++i) {
    const double t = i / 1023.0;
    y[i] = static_cast<float>(100 + 40 * t - 80 * t * t + 30 * std::sin(7 * t) + 5 * noise(g));
  }
  TBoolArray fit(n), change(n);
  for (int i = 100; i < 180; ++i) fit[i] = false;
  for (int i = 600; i < 900; ++i) fit[i] = false;
  for (int i = 0; i < n; i += 7) change[i] = false;
  TBackgroundScratch scratch(n);
  std::vector<float> b(n), r(n);
  for (int order : {0, 3, 9}) {
    SCOPED_TRACE(order);
    TPolynomialBackgroundFit poly;
    ASSERT_TRUE(poly.Prepare(n, fit, order));
    ASSERT_EQ(PolynomialBackground(poly, y.data(), change, b.data(), r.data(), scratch),
              TBackgroundStatus::Done);
    const std::vector<long double> ref = ReferencePolynomial(y, fit, order);
    for (int i = 0; i < n; ++i) {
      ASSERT_NEAR(b[i], static_cast<double>(ref[i]), 2e-6 * std::fabs(static_cast<double>(ref[i])) + 1e-4)
          << i;
      ASSERT_EQ(r[i], change[i] ? y[i] - b[i] : 0.0f);
    }
  }
}

TEST(BackgroundPolynomial, RecoversPolynomialExactly) {
  const int n = 300;
  std::vector<float> y(n), b(n), r(n);
  // 2 - 3x + 0.5x^2 - 0.01x^3 on x = i+1: representable closely in float; the fit reproduces it.
  for (int i = 0; i < n; ++i) {
    const double x = (i + 1) / 100.0;
    y[i] = static_cast<float>(2 - 3 * x + 0.5 * x * x - 0.01 * x * x * x);
  }
  TBoolArray fit(n), change(n);
  for (int i = 0; i < n; i += 3) fit[i] = false;
  TPolynomialBackgroundFit poly;
  ASSERT_TRUE(poly.Prepare(n, fit, 3));
  TBackgroundScratch scratch(n);
  ASSERT_EQ(PolynomialBackground(poly, y.data(), change, b.data(), r.data(), scratch),
            TBackgroundStatus::Done);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(b[i], y[i], 2e-6) << i;
}

TEST(BackgroundPolynomial, RefusesTooSmallMasksAndBadOrders) {
  const int n = 50;
  TBoolArray fit(n, false);
  fit[3] = fit[10] = fit[20] = true;
  TPolynomialBackgroundFit poly;
  EXPECT_FALSE(poly.Prepare(n, fit, 3)); // three points for four coefficients
  EXPECT_TRUE(poly.Prepare(n, fit, 2));
  EXPECT_FALSE(poly.Prepare(n, fit, -1));
  EXPECT_FALSE(poly.Prepare(n, fit, 10));
  EXPECT_FALSE(poly.IsPrepared());
  std::vector<float> y(n, 4.0f), b(n, 7.0f), r(n, 7.0f);
  TBackgroundScratch scratch(n);
  TBoolArray change(n);
  // A refused fit writes nothing.
  EXPECT_EQ(PolynomialBackground(poly, y.data(), change, b.data(), r.data(), scratch),
            TBackgroundStatus::Refused);
  EXPECT_EQ(b[0], 7.0f);
  EXPECT_EQ(r[0], 7.0f);
  // A scratch of another length is a programming error.
  ASSERT_TRUE(poly.Prepare(n, fit, 2));
  TBackgroundScratch wrong(n + 1);
  EXPECT_THROW(PolynomialBackground(poly, y.data(), change, b.data(), r.data(), wrong), OrvexException);
}

TEST(BackgroundAutoPolynomial, FlatSpectrumStopsAfterFourRounds) {
  const int n = 64;
  std::vector<float> y(n, 3.5f), b(n), r(n);
  TBoolArray fit(n), change(n);
  TPolynomialBackgroundFit poly;
  ASSERT_TRUE(poly.Prepare(n, fit, 0));
  TBackgroundScratch scratch(n);
  int rounds = 0;
  ASSERT_EQ(AutoPolynomialBackground(poly, y.data(), change, TAutoPolynomialSettings{}, b.data(), r.data(),
                                     scratch, &rounds),
            TBackgroundStatus::Done);
  // Rounds 0, 1 and 2 never stop; round 3 finds no change.
  EXPECT_EQ(rounds, 4);
  for (int i = 0; i < n; ++i) EXPECT_FLOAT_EQ(b[i], 3.5f);
}

TEST(BackgroundAutoPolynomial, CutsPeaksAndRecoversBackgroundBelowNoise) {
  const int n = 1024;
  const double sigma = 0.5;
  std::mt19937 g(11);
  std::normal_distribution<double> noise(0.0, sigma);
  std::vector<float> truth(n), y(n), b(n), r(n);
  for (int i = 0; i < n; ++i) {
    const double t = i / 1023.0;
    truth[i] = static_cast<float>(50 + 20 * t - 15 * t * t + 4 * t * t * t);
    const double lor = 60.0 / (1 + std::pow((i - 300) / 4.0, 2));
    const double gau = 40.0 * std::exp(-0.5 * std::pow((i - 700) / 5.0, 2));
    y[i] = static_cast<float>(truth[i] + lor + gau + noise(g));
  }
  TBoolArray fit(n), change(n);
  TPolynomialBackgroundFit poly;
  ASSERT_TRUE(poly.Prepare(n, fit, 3));
  TBackgroundScratch scratch(n);
  int rounds = 0;
  ASSERT_EQ(AutoPolynomialBackground(poly, y.data(), change, TAutoPolynomialSettings{}, b.data(), r.data(),
                                     scratch, &rounds),
            TBackgroundStatus::Done);
  EXPECT_GT(rounds, 3);
  EXPECT_LE(rounds, 1000);
  EXPECT_LT(Rms(b, truth, 0, n), sigma);
  // The plain fit over the same points is pulled up by the bands.
  TBackgroundScratch plain(n);
  std::vector<float> bp(n), rp(n);
  ASSERT_EQ(PolynomialBackground(poly, y.data(), change, bp.data(), rp.data(), plain),
            TBackgroundStatus::Done);
  EXPECT_GT(Rms(bp, truth, 0, n), sigma);
  // The band stays in the result at its height within 5 %.
  EXPECT_NEAR(r[300], 60.0, 3.0);
}

TEST(BackgroundAutoPolynomial, RoundLimitAndShortSpectra) {
  const int n = 256;
  std::vector<float> y = Gaussian(n, 128, 6, 100), b(n), r(n);
  TBoolArray fit(n), change(n);
  TPolynomialBackgroundFit poly;
  ASSERT_TRUE(poly.Prepare(n, fit, 2));
  TBackgroundScratch scratch(n);
  TAutoPolynomialSettings settings;
  settings.MaximumRounds = 2;
  int rounds = 0;
  ASSERT_EQ(AutoPolynomialBackground(poly, y.data(), change, settings, b.data(), r.data(), scratch, &rounds),
            TBackgroundStatus::Done);
  EXPECT_EQ(rounds, 2);

  const int m = kMinimumAutoBackgroundLength - 1;
  TBoolArray shortMask(m);
  TPolynomialBackgroundFit shortPoly;
  ASSERT_TRUE(shortPoly.Prepare(m, shortMask, 1));
  TBackgroundScratch shortScratch(m);
  std::vector<float> ys(m, 1.0f), bs(m), rs(m);
  EXPECT_EQ(
      AutoPolynomialBackground(shortPoly, ys.data(), shortMask, settings, bs.data(), rs.data(), shortScratch),
      TBackgroundStatus::Refused);
  EXPECT_EQ(AutoAverageBackground(m, ys.data(), shortMask, shortMask, TAutoAverageSettings{}, bs.data(),
                                  rs.data(), shortScratch),
            TBackgroundStatus::Refused);
}

TEST(BackgroundAverage, BinomialWeightsOnKnownArray) {
  const std::vector<float> w = AverageWeights(2);
  ASSERT_EQ(w.size(), 5u);
  EXPECT_EQ(w, (std::vector<float>{1, 4, 6, 4, 1}));

  // Fit mask 0..6 without pixel 3, size 1: each point averages with its nearest mask neighbours.
  const int n = 7;
  const std::vector<float> y = {0, 4, 8, 100, 16, 20, 24};
  TBoolArray fit(n), change(n);
  fit[3] = false;
  TBackgroundScratch scratch(n);
  std::vector<float> b(n), r(n);
  const std::vector<float> w1 = AverageWeights(1); // 1 2 1
  ASSERT_EQ(AverageBackground(n, y.data(), fit, change, w1.data(), 1, b.data(), r.data(), scratch),
            TBackgroundStatus::Done);
  // Points: (0,0); pixel 0 -> (1/3, 4/3); 1 -> (1, 4); 2 -> (2.25, 9) from pixels 1,2,4 weights 1,2,1;
  // 4 -> (3.75, 15) from 2,4,5; 5 -> (5, 20); 6 -> (5+2*6)/3 = 17/3, (20+48)/3 = 68/3; last (6, 24).
  EXPECT_FLOAT_EQ(b[0], 0.0f);
  EXPECT_FLOAT_EQ(b[1], 4.0f);
  EXPECT_FLOAT_EQ(b[2], 4.0f + (9.0f - 4.0f) * (1.0f / 1.25f));
  EXPECT_FLOAT_EQ(b[3], 9.0f + 6.0f * (0.75f / 1.5f));
  EXPECT_FLOAT_EQ(b[5], 20.0f);
  EXPECT_FLOAT_EQ(b[6], 24.0f);
  EXPECT_FLOAT_EQ(r[3], 100.0f - b[3]);
}

TEST(BackgroundAverage, LinearSpectrumIsItsOwnBackground) {
  // Symmetric weights keep a straight line; at the ends the one-sided means stay on the line too.
  const int n = 100;
  std::vector<float> y(n), b(n), r(n);
  for (int i = 0; i < n; ++i) y[i] = 2.0f + 0.5f * i;
  TBoolArray fit(n), change(n);
  for (int i = 40; i < 50; ++i) fit[i] = false;
  TBackgroundScratch scratch(n);
  const std::vector<float> w = AverageWeights(5);
  ASSERT_EQ(AverageBackground(n, y.data(), fit, change, w.data(), 5, b.data(), r.data(), scratch),
            TBackgroundStatus::Done);
  for (int i = 0; i < n; ++i) EXPECT_NEAR(b[i], y[i], 1e-4) << i;
}

TEST(BackgroundAverage, NoisyBaselineRecoveredBelowNoise) {
  const int n = 1024;
  const double sigma = 1.0;
  std::mt19937 g(3);
  std::normal_distribution<double> noise(0.0, sigma);
  std::vector<float> truth(n), y(n), b(n), r(n);
  for (int i = 0; i < n; ++i) {
    truth[i] = static_cast<float>(20 + 10 * std::sin(i / 200.0));
    y[i] = static_cast<float>(truth[i] + noise(g));
  }
  TBoolArray fit(n), change(n);
  TBackgroundScratch scratch(n);
  const std::vector<float> w = AverageWeights(5);
  ASSERT_EQ(AverageBackground(n, y.data(), fit, change, w.data(), 5, b.data(), r.data(), scratch),
            TBackgroundStatus::Done);
  EXPECT_LT(Rms(b, truth, 5, n - 5), sigma);
}

TEST(BackgroundAutoAverage, BoxMeanOfKnownArrayAndBandRemoval) {
  // One round with threshold large: w stays y, so b is the mirrored three-point box mean of y.
  const int n = 16;
  std::vector<float> y(n), b(n), r(n);
  for (int i = 0; i < n; ++i) y[i] = static_cast<float>(i * i);
  TBoolArray fit(n), change(n);
  TBackgroundScratch scratch(n);
  TAutoAverageSettings s;
  s.HalfWidth = 1;
  s.NumberOfIterations = 1;
  s.NoiseThreshold = 1e30f;
  ASSERT_EQ(AutoAverageBackground(n, y.data(), fit, change, s, b.data(), r.data(), scratch),
            TBackgroundStatus::Done);
  EXPECT_FLOAT_EQ(b[0], (0 + 0 + 1) / 3.0f); // y[-1] mirrors to y[0]
  EXPECT_FLOAT_EQ(b[5], (16 + 25 + 36) / 3.0f);
  EXPECT_FLOAT_EQ(b[15], (196 + 225 + 225) / 3.0f);

  // A narrow band on a smooth background is cut away by the rounds and kept in the result.
  const int m = 1024;
  std::vector<float> truth(m), ym(m), bm(m), rm(m);
  for (int i = 0; i < m; ++i) {
    truth[i] = static_cast<float>(30 + 10 * std::cos(i / 300.0));
    ym[i] = truth[i] + Gaussian(m, 500, 4, 50)[i];
  }
  TBoolArray fitm(m), changem(m);
  TBackgroundScratch scratchm(m);
  ASSERT_EQ(AutoAverageBackground(m, ym.data(), fitm, changem, TAutoAverageSettings{}, bm.data(), rm.data(),
                                  scratchm),
            TBackgroundStatus::Done);
  EXPECT_NEAR(rm[500], 50.0, 2.5);
  // Away from the band the rounds follow the curved background; only pixels above the mean are cut, so
  // the background settles slightly below a concave curve (here about 0.14 on a level of 30-40).
  EXPECT_LT(Rms(bm, truth, 100, 400), 0.3);
}

TEST(BackgroundThreads, SameResultOnOneAndTwoThreads) {
  const int n = 512, spectra = 16;
  std::vector<std::vector<float>> ys(spectra, std::vector<float>(n));
  for (int s = 0; s < spectra; ++s)
    for (int i = 0; i < n; ++i)
      ys[s][i] = static_cast<float>(10 + 0.01 * i + 30.0 / (1 + std::pow((i - 20.0 * s - 50) / 3.0, 2)) +
                                    std::sin(i * 1.7 + s));
  TBoolArray fit(n), change(n);
  TPolynomialBackgroundFit poly;
  ASSERT_TRUE(poly.Prepare(n, fit, 4));
  auto run = [&](int from, int to, std::vector<std::vector<float>>& out) {
    TBackgroundScratch scratch(n);
    std::vector<float> b(n);
    for (int s = from; s < to; ++s)
      AutoPolynomialBackground(poly, ys[s].data(), change, TAutoPolynomialSettings{}, b.data(), out[s].data(),
                               scratch);
  };
  std::vector<std::vector<float>> one(spectra, std::vector<float>(n)), two(spectra, std::vector<float>(n));
  run(0, spectra, one);
  std::thread t([&] { run(0, spectra / 2, two); });
  run(spectra / 2, spectra, two);
  t.join();
  EXPECT_EQ(one, two);
}

TEST(BackgroundShape, RemovesNarrowBandsAndFollowsTheBackground) {
  const int n = 1024;
  std::mt19937 g(23);
  std::normal_distribution<double> noise(0, 1);
  std::vector<float> truth(n), y(n), b(n), r(n);
  for (int i = 0; i < n; ++i) {
    truth[i] = static_cast<float>(200 + 50 * std::cos(i / 300.0) + 0.02 * i);
    y[i] = static_cast<float>(truth[i] + 80 / (1 + std::pow((i - 300) / 4.0, 2)) +
                              60 * std::exp(-0.5 * std::pow((i - 700) / 5.0, 2)) + noise(g));
  }
  TBoolArray fit(n), change(n);
  TBackgroundScratch scratch(n);
  ASSERT_EQ(ShapeBackground(n, y.data(), fit, change, TShapeSettings{}, b.data(), r.data(), scratch),
            TBackgroundStatus::Done);
  // Band heights in the result within 5 %.
  EXPECT_NEAR(r[300], 80.0, 4.0);
  EXPECT_NEAR(r[700], 60.0, 3.0);
  // Between and beside the bands the background follows the curve within the noise.
  EXPECT_LT(Rms(b, truth, 400, 620), 1.0);
  EXPECT_LT(Rms(b, truth, 100, 250), 1.0);
  for (int i = 0; i < n; ++i) ASSERT_FLOAT_EQ(r[i], y[i] - b[i]);

  // Pixels outside the fit mask get the straight line between the background of the pixels around them;
  // elsewhere the background is the one of the full mask (the circle sees the same spectrum).
  std::vector<float> bGap(n), rGap(n);
  for (int i = 280; i < 330; ++i) fit[i] = false;
  for (int i = 0; i < 3; ++i) fit[i] = false;
  change[10] = false;
  ASSERT_EQ(ShapeBackground(n, y.data(), fit, change, TShapeSettings{}, bGap.data(), rGap.data(), scratch),
            TBackgroundStatus::Done);
  for (int i = 0; i < n; ++i) {
    if (i < 3)
      EXPECT_EQ(bGap[i], b[3]) << i;
    else if (i >= 280 && i < 330)
      EXPECT_NEAR(bGap[i], b[279] + (b[330] - b[279]) * (i - 279) / 51.0, 1e-3) << i;
    else
      EXPECT_EQ(bGap[i], b[i]) << i;
  }
  EXPECT_EQ(rGap[10], 0.0f);
}

TEST(BackgroundShape, EmptyMaskNonFiniteValuesAndShortSpectra) {
  const int n = 64;
  std::vector<float> y(n), b(n), r(n);
  for (int i = 0; i < n; ++i) y[i] = static_cast<float>(5 + std::sin(i * 0.3));
  TBoolArray none(n, false), fit(n), change(n);
  TBackgroundScratch scratch(n);
  ASSERT_EQ(ShapeBackground(n, y.data(), none, change, TShapeSettings{}, b.data(), r.data(), scratch),
            TBackgroundStatus::Done);
  EXPECT_EQ(b, std::vector<float>(n, 0.0f));
  EXPECT_EQ(r, y);

  TShapeSettings small;
  small.ShapeSize = 10;
  y[20] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(ShapeBackground(n, y.data(), fit, change, small, b.data(), r.data(), scratch),
            TBackgroundStatus::NotFinite);
  EXPECT_TRUE(std::isnan(b[0]) && std::isnan(r[40]));
  // Outside the fit mask a NaN is bridged for the circle; only its own result is NaN.
  fit[20] = false;
  ASSERT_EQ(ShapeBackground(n, y.data(), fit, change, small, b.data(), r.data(), scratch),
            TBackgroundStatus::Done);
  for (int i = 0; i < n; ++i) {
    EXPECT_TRUE(std::isfinite(b[i])) << i;
    EXPECT_EQ(std::isnan(r[i]), i == 20) << i;
  }

  // Too short for the noise filter: refused; without the filter the circle works.
  const int m = 4;
  std::vector<float> ys = {1, 2, 9, 1}, bs(m), rs(m);
  TBoolArray fits(m), changes(m);
  TBackgroundScratch scratchs(m);
  EXPECT_EQ(ShapeBackground(m, ys.data(), fits, changes, small, bs.data(), rs.data(), scratchs),
            TBackgroundStatus::Refused);
  small.NoiseFactor = 0;
  EXPECT_EQ(ShapeBackground(m, ys.data(), fits, changes, small, bs.data(), rs.data(), scratchs),
            TBackgroundStatus::Done);
  EXPECT_GT(rs[2], 5.0f);
  // Settings the circle refuses are programming errors, every time they are given.
  small.NoiseFactor = -1;
  for (int k = 0; k < 2; ++k)
    EXPECT_THROW(ShapeBackground(m, ys.data(), fits, changes, small, bs.data(), rs.data(), scratchs),
                 OrvexException);
}

TEST(BackgroundShape, LinearGraphInterpolationClosesGaps) {
  const bool ignore[7] = {true, false, true, true, false, true, true};
  const float in[7] = {100, 2, 100, 100, 8, 100, 100};
  float out[7];
  LinearGraphInterpolation(ignore, in, out, 7);
  const float expected[7] = {2, 2, 4, 6, 8, 8, 8};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(out[i], expected[i]) << i;
  const bool all[3] = {true, true, true};
  float same[3] = {1, 2, 3};
  LinearGraphInterpolation(all, same, same, 3);
  for (float v : same) EXPECT_EQ(v, 0.0f);
}

// A NaN where the fit mask is off takes no part in the polynomial: the line is fitted from the rest.
TEST(BackgroundNonFinite, NaNOutsideTheFitMaskStaysOutOfThePolynomial) {
  const int n = 30;
  std::vector<float> y(n), b(n), r(n);
  for (int i = 0; i < n; ++i) y[i] = 2.0f + 0.5f * static_cast<float>(i);
  y[4] = std::numeric_limits<float>::quiet_NaN();
  TBoolArray fit(n), change(n);
  fit.Values[4] = false;
  TBackgroundScratch scratch(n);
  TPolynomialBackgroundFit poly;
  ASSERT_TRUE(poly.Prepare(n, fit.Values, 1));
  PolynomialBackground(poly, y.data(), change.Values, b.data(), r.data(), scratch);
  for (int i : {0, 4, 10, 29}) EXPECT_NEAR(b[i], 2.0f + 0.5f * static_cast<float>(i), 1e-4f) << i;
  EXPECT_NEAR(r[10], 0.0f, 1e-4f);
}
