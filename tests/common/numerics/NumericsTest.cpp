// Numeric library: linear algebra identities, sorting and selection, statistics, rounding, splines, filters.
#include "common/numerics/Numerics.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/numerics/Linalg.h"
#include "common/numerics/Savgol.h"
#include "common/numerics/Sorttools.h"
#include "common/numerics/Splines.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<double> RandomMatrix(int rows, int cols, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  std::vector<double> a(rows * cols);
  for (double& v : a) v = d(g);
  return a;
}

// Hilbert matrix: the classic ill-conditioned case.
std::vector<double> Hilbert(int n) {
  std::vector<double> a(n * n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) a[i * n + j] = 1.0 / (i + j + 1);
  return a;
}

TEST(Linalg, LuSolveResidualsOnRandomAndIllConditioned) {
  for (int n : {1, 3, 8, 20}) {
    for (int kind = 0; kind < 2; ++kind) {
      const int m = kind == 0 ? n : std::min(n, 8);
      std::vector<double> a = kind == 0 ? RandomMatrix(m, m, 7u + n) : Hilbert(m);
      std::vector<double> lu = a, b(m), x(m);
      for (int i = 0; i < m; ++i) b[i] = i + 1.0;
      x = b;
      std::vector<int> index(m);
      double d;
      ASSERT_TRUE(ludcmp(lu.data(), m, index.data(), &d));
      EXPECT_TRUE(CheckLinearDependency(lu.data(), m));
      lubksb(lu.data(), m, index.data(), x.data());
      double worst = 0;
      for (int i = 0; i < m; ++i) {
        double r = -b[i];
        for (int j = 0; j < m; ++j) r += a[i * m + j] * x[j];
        worst = std::max(worst, std::fabs(r));
      }
      EXPECT_LT(worst, kind == 0 ? 1e-12 : 1e-6) << "n=" << m << " kind=" << kind;
    }
  }
}

TEST(Linalg, LuRefusesZeroRowAndFlagsDependency) {
  std::vector<double> a = {1, 2, 0, 0, 3, 4, 5, 6};
  std::vector<int> index(2);
  double d;
  std::vector<double> zeroRow = {1, 2, 0, 0};
  EXPECT_FALSE(ludcmp(zeroRow.data(), 2, index.data(), &d));
  std::vector<double> dependent = {1, 2, 2, 4};
  ASSERT_TRUE(ludcmp(dependent.data(), 2, index.data(), &d));
  EXPECT_FALSE(CheckLinearDependency(dependent.data(), 2));
  EXPECT_TRUE(CheckLinearDependency(dependent.data(), 0));
}

TEST(Linalg, GaussJordanInverseTimesMatrixIsUnity) {
  const int n = 6;
  std::vector<double> a = RandomMatrix(n, n, 3u), inv = a, b(n, 1.0);
  std::vector<int> c(n), r(n), p(n);
  ASSERT_EQ(gaussj(inv.data(), n, n, b.data(), 1, 1, c.data(), r.data(), p.data()), 0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      double s = 0;
      for (int k = 0; k < n; ++k) s += a[i * n + k] * inv[k * n + j];
      EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-12);
    }
  std::vector<double> singular = {1, 2, 2, 4};
  std::vector<double> bb(2, 1.0);
  EXPECT_EQ(gaussj(singular.data(), 2, 2, bb.data(), 1, 1, c.data(), r.data(), p.data()), 5);
}

TEST(Linalg, SvdReconstructsAndOrdersSingularValues) {
  for (auto [m, n] : {std::pair{6, 4}, std::pair{5, 5}, std::pair{8, 3}}) {
    std::vector<double> a = RandomMatrix(m, n, 11u + m);
    a[n - 1] = a[0]; // make column 0 and n-1 share an entry for some structure
    std::vector<double> u = a, w(n), v(n * n);
    std::vector<double*> ur(m), vr(n);
    for (int i = 0; i < m; ++i) ur[i] = u.data() + i * n;
    for (int i = 0; i < n; ++i) vr[i] = v.data() + i * n;
    svdec(ur.data(), m, n, w.data(), vr.data());
    for (int k = 1; k < n; ++k) EXPECT_GE(w[k - 1], w[k]);
    for (int i = 0; i < m; ++i)
      for (int j = 0; j < n; ++j) {
        double s = 0;
        for (int k = 0; k < n; ++k) s += u[i * n + k] * w[k] * v[j * n + k];
        EXPECT_NEAR(s, a[i * n + j], 1e-12);
      }
    // V is orthogonal.
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        double s = 0;
        for (int k = 0; k < n; ++k) s += v[k * n + i] * v[k * n + j];
        EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-12);
      }
  }
  EXPECT_DOUBLE_EQ(pythag(3e200, 4e200), 5e200);
  EXPECT_DOUBLE_EQ(pythag(0.0, 0.0), 0.0);
}

TEST(Linalg, RegressionsAndVectorEquation) {
  std::vector<double> x{0, 1, 2, 3, 4}, y(5);
  for (int i = 0; i < 5; ++i) y[i] = 1.0 - 2.0 * x[i] + 0.5 * x[i] * x[i];
  double c[3];
  ASSERT_TRUE(PolynomRegression(x.data(), y.data(), 5, 2, c));
  EXPECT_NEAR(c[0], 1.0, 1e-12);
  EXPECT_NEAR(c[1], -2.0, 1e-12);
  EXPECT_NEAR(c[2], 0.5, 1e-12);
  EXPECT_FALSE(PolynomRegression(x.data(), y.data(), 2, 2, c));
  double slope, offset;
  LinearRegression(x.data(), y.data(), 5, 1, 1, slope, offset); // one point
  EXPECT_EQ(slope, 0.0);
  EXPECT_EQ(offset, y[1]);
  std::vector<double> same(5, 2.0);
  LinearRegression(same.data(), y.data(), 5, -1, -1, slope, offset); // zero determinant
  EXPECT_EQ(slope, 0.0);

  std::vector<float> b0{1, 0, 1, 0}, b1{0, 1, 1, 2}, target(4);
  for (int k = 0; k < 4; ++k) target[k] = 3 * b0[k] - 2 * b1[k];
  float* basis[2] = {b0.data(), b1.data()};
  TSolveLinearVectorEquation s;
  s.CreateArrays(2, 4);
  s.SetBasis(basis);
  s.Init();
  ASSERT_TRUE(s.IsValid);
  float* coeff = nullptr;
  float residual = -1;
  s.GetResult(target.data(), &coeff, &residual);
  EXPECT_NEAR(coeff[0], 3.0f, 1e-5f);
  EXPECT_NEAR(coeff[1], -2.0f, 1e-5f);
  EXPECT_NEAR(residual, 0.0f, 1e-5f);
  delete[] coeff;
}

TEST(Sorting, QuickSortIndexAndSelectionAgainstStd) {
  std::mt19937 g(5);
  std::uniform_real_distribution<float> d(-100, 100);
  for (int n : {0, 1, 2, 7, 8, 100, 1001}) {
    std::vector<float> v(n);
    for (float& f : v) f = std::round(d(g)); // with repeated values
    std::vector<float> ref = v, q = v, b = v;
    std::sort(ref.begin(), ref.end());
    QuickSort(q.data(), n);
    EXPECT_EQ(q, ref);
    if (n <= 100) {
      BubbleSort(b.data(), n);
      EXPECT_EQ(b, ref);
    }
    std::vector<double> dv(v.begin(), v.end());
    std::vector<int> idx(n);
    for (int i = 0; i < n; ++i) idx[i] = i;
    IndexQuickSort(dv.data(), idx.data(), n);
    for (int i = 0; i < n; ++i) EXPECT_EQ(dv[i], v[idx[i]]);
    for (int k : {0, n / 2, n - 1}) {
      if (n == 0) break;
      std::vector<float> s = v;
      EXPECT_EQ(QuickSelect(s.data(), n, k), ref[k]);
    }
  }
}

TEST(Sorting, Median) {
  std::vector<float> four{4, 1, 3, 2};
  EXPECT_FLOAT_EQ(STCalculateMedian(four.data(), 4, true), 2.5f);
  std::vector<float> four2{4, 1, 3, 2};
  EXPECT_FLOAT_EQ(STCalculateMedian(four2.data(), 4, false), 2.0f);
  std::vector<float> two{5, 1};
  EXPECT_FLOAT_EQ(STCalculateMedian(two.data(), 2, true), 5.0f); // first element, unsorted
  std::vector<float> five{9, 7, 1, 3, 5};
  EXPECT_FLOAT_EQ(STCalculateMedian(five.data(), 5, true), 5.0f);
}

TEST(Statistics, DescriptionAndInterpolation) {
  std::vector<double> one{4.2};
  TStatisticalDescription s;
  GetStatisticalDescriptionFromArray(one.data(), 1, &s);
  EXPECT_EQ(s.StandardDeviation, 0.0);
  EXPECT_EQ(s.Lower5Percent, 4.2);
  EXPECT_EQ(s.Upper5Percent, 4.2);
  EXPECT_EQ(s.Median, 4.2);
  std::vector<double> v{5, 1, 4, 2, 3};
  GetStatisticalDescriptionFromArray(v.data(), 5, &s);
  EXPECT_EQ(v, (std::vector<double>{1, 2, 3, 4, 5})); // left sorted
  EXPECT_DOUBLE_EQ(s.Mean, 3.0);
  EXPECT_DOUBLE_EQ(s.Variance, 2.0); // divided by n
  EXPECT_DOUBLE_EQ(s.Median, 3.0);
  EXPECT_DOUBLE_EQ(s.Lower5Percent, 1.2);
  EXPECT_DOUBLE_EQ(s.Upper5Percent, 4.8);
  EXPECT_THROW(GetInterpolatedBufferValue(v.data(), 5, 1.5), OrvexException);
  try {
    GetInterpolatedBufferValue(v.data(), 0, 0.5);
  } catch (const OrvexException& e) {
    EXPECT_STREQ(e.what(), "GetInterpolatedBufferValue: Argument Exception");
  }
  std::vector<float> rising{0, 10, 20, 30};
  EXPECT_FLOAT_EQ(GetInterpolatedBufferIndexPercentage(rising.data(), 4, 15), 0.5f);
  EXPECT_FLOAT_EQ(GetInterpolatedBufferIndexPercentage(rising.data(), 4, 20), 2.0f / 3.0f);
  EXPECT_FLOAT_EQ(GetInterpolatedBufferIndexPercentage(rising.data(), 4, -5), 0.0f);
  EXPECT_FLOAT_EQ(GetInterpolatedBufferIndexPercentage(rising.data(), 4, 50), 1.0f);
}

TEST(Statistics, IndexMappings) {
  EXPECT_EQ(ConvertIndexToPeriodicInterval(-1, 5), 4);
  EXPECT_EQ(ConvertIndexToPeriodicInterval(12, 5), 2);
  EXPECT_EQ(ConvertIndexToMirrorPeriodicInterval(5, 5), 4);
  EXPECT_EQ(ConvertIndexToMirrorPeriodicInterval(-1, 5), 0);
  EXPECT_EQ(ConvertIndexToMirrorPeriodicInterval(-2, 5), 1);
  const float a[3] = {1, 2, 4};
  EXPECT_EQ(GetValueFromArrayContinueBorder(-3, a, 3), 1.0f);
  EXPECT_EQ(GetValueFromArrayContinueBorder(7, a, 3), 4.0f);
  EXPECT_EQ(GetValueFromArrayPointReflection(-1, a, 3), 0.0f); // 2*1 - 2
  EXPECT_EQ(GetValueFromArrayPointReflection(3, a, 3), 6.0f);  // 2*4 - 2
}

TEST(Rounding, ValuesFromTheRules) {
  EXPECT_EQ(SafeDoubleToFloat(0.0), 0.0f);
  EXPECT_EQ(SafeDoubleToFloat(1e-40), 1e-36f);
  EXPECT_EQ(SafeDoubleToFloat(-1e-40), -1e-36f);
  EXPECT_EQ(SafeDoubleToFloat(1e300), 1e36f);
  EXPECT_EQ(SafeExtendedToDouble(1e400L), 1e306);
  EXPECT_EQ(SafeExtendedToDouble(-1e-400L), -1e-306);
  EXPECT_EQ(GetDeltaTick(0.0), 0.0);
  EXPECT_EQ(GetDeltaTick(345.0), 300.0);
  EXPECT_EQ(GetDeltaTick(-345.0), -300.0);
  EXPECT_NEAR(GetDeltaTick(0.0456), 0.04, 1e-15);
  EXPECT_DOUBLE_EQ(Round(100.0, 2.345), 2.35);
  EXPECT_DOUBLE_EQ(Round(1.0, -2.5), -3.0);
  EXPECT_DOUBLE_EQ(RoundToSignificantDigit(12345.0, 2), 12300.0);
  EXPECT_EQ(RoundToSignificantDigit(1e-250, 3), 0.0);
  EXPECT_EQ(NextPowerOfTwo(8.0, true), 8.0);
  EXPECT_EQ(NextPowerOfTwo(5.0, false), 16.0);
  EXPECT_EQ(Sign(-2.0f), -1.0f);
  double bin[5];
  BinomialValues(bin, 4, 0);
  EXPECT_EQ(std::vector<double>(bin, bin + 5), (std::vector<double>{1, 4, 6, 4, 1}));
  const double in[3] = {1, 2, 3}; // 1 + 2x + 3x^2 at 2x + 1: 6 + 16x + 12x^2
  double out[3];
  ShiftAndStretchPolynom(2, 1, 2, in, out);
  EXPECT_NEAR(out[0], 6, 1e-12);
  EXPECT_NEAR(out[1], 16, 1e-12);
  EXPECT_NEAR(out[2], 12, 1e-12);
  const double mono[4] = {1, 2, 2, 3};
  EXPECT_TRUE(IsArrayMonotonic(mono, 4, false, 1));
  EXPECT_FALSE(IsArrayMonotonic(mono, 4, true, 0));
  EXPECT_FALSE(IsArrayMonotonic(mono, 4, false, 2));
}

TEST(VectorsAndMatrices, Identities) {
  EXPECT_TRUE(TDVector(0, 0, 0).UnitVector().IsEqual(TDVector(0, 0, 0), 0.0));
  EXPECT_NEAR(TDVector(3, 4, 12).UnitVector().Length(), 1.0, 1e-15);
  const TDVector a(1, 2, 3), b(-2, 0.5, 4);
  EXPECT_NEAR(a.VectorProduct(b).ScalarProduct(a), 0.0, 1e-14);
  TDMatrix r;
  r.MakeRotationMatrix(0.3, -0.7, 1.1);
  EXPECT_TRUE((r * r.Transpose()).IsEqual(TDMatrix(1, 0, 0, 0, 1, 0, 0, 0, 1), 1e-14));
  const TDMatrix m(2, 1, 0, 1, 3, 1, 0, 1, 4);
  TDMatrix unit;
  unit.Unit();
  EXPECT_TRUE((m * m.Inverse()).IsEqual(unit, 1e-14));
  EXPECT_NEAR((r * a).Length(), a.Length(), 1e-14);
  TDVector hit;
  ASSERT_TRUE(TDVector::LineIntersection(TDVector(0, 0, 0), TDVector(1, 0, 0), TDVector(2, -1, 0),
                                         TDVector(0, 1, 0), hit));
  EXPECT_TRUE(hit.IsEqual(TDVector(2, 0, 0), 1e-14));
  float mm[4] = {1, 2, 3, 4};
  const float id[4] = {1, 0, 0, 1};
  MultiplyMatrices(mm, 2, 2, id, 2, 2);
  EXPECT_EQ(mm[3], 4.0f);
}

TEST(VectorsAndMatrices, FloatElementsFollowTheDoubleOnesWithinFloatPrecision) {
  const TFVector a(1, 2, 3), b(-2, 0.5f, 4);
  const TDVector ad(1, 2, 3), bd(-2, 0.5, 4);
  const TFVector cross = a.VectorProduct(b);
  const TDVector crossD = ad.VectorProduct(bd);
  EXPECT_FLOAT_EQ(cross.X(), static_cast<float>(crossD.X()));
  EXPECT_FLOAT_EQ(cross.Y(), static_cast<float>(crossD.Y()));
  EXPECT_FLOAT_EQ(cross.Z(), static_cast<float>(crossD.Z()));
  EXPECT_FLOAT_EQ(TFVector(3, 4, 12).Length(), 13.0f);
  EXPECT_TRUE(TFVector(0, 0, 0).UnitVector().IsEqual(TFVector(0, 0, 0), 0.0f)); // a null vector stays null
  TFMatrix r;
  r.MakeRotationMatrix(0.3f, -0.7f, 1.1f);
  TFMatrix unit;
  unit.Unit();
  EXPECT_TRUE((r * r.Transpose()).IsEqual(unit, 1e-6f));
  const TFMatrix m(2, 1, 0, 1, 3, 1, 0, 1, 4);
  EXPECT_DOUBLE_EQ(m.Determinant(), 18.0);
  EXPECT_TRUE((m * m.Inverse()).IsEqual(unit, 1e-6f));
  // A singular matrix has the zero matrix as its inverse.
  const TFMatrix singular(1, 2, 3, 2, 4, 6, 0, 1, 1);
  EXPECT_TRUE(singular.Inverse().IsEqual(TFMatrix(), 0.0f));
  TFMatrix scale;
  scale.MakeScaleMatrix(2, 3, 4);
  const TFVector scaled = scale * TFVector(1, 1, 1);
  EXPECT_TRUE(scaled.IsEqual(TFVector(2, 3, 4), 0.0f));
  EXPECT_TRUE(((m + m) - m).IsEqual(m, 0.0f));
}

TEST(Splines, InterpolatesCubicsAndNaturalEnds) {
  // A natural spline through points of a straight line is that line; a clamped one reproduces a cubic's
  // values at the knots and stays close between them.
  std::vector<float> x{0, 1, 2.5, 3, 5}, y(5), y2(5);
  for (int i = 0; i < 5; ++i) y[i] = 2 * x[i] - 1;
  spline(x.data(), y.data(), 5, 1e30f, 1e30f, y2.data());
  float v;
  splint(x.data(), y.data(), y2.data(), 5, 1.7f, &v);
  EXPECT_NEAR(v, 2.4f, 1e-5f);
  splintL(x.data(), y.data(), 5, 4.0f, &v);
  EXPECT_NEAR(v, 7.0f, 1e-5f);

  TCubicSplineInterpolation s;
  s.CreateArrays(6);
  const double xs[6] = {4, 0, 1, 2, 3, 5};
  for (int i = 0; i < 6; ++i) s.X[i] = xs[i], s.Y[i] = std::sin(xs[i]);
  EXPECT_FALSE(s.CheckDataSpacing());
  s.SortArray();
  ASSERT_TRUE(s.CalculateSpline());
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(s.CubicSplineInterpolation(s.X[i]), s.Y[i], 1e-14);
  EXPECT_NEAR(s.CubicSplineInterpolation(2.5), std::sin(2.5), 2e-2);
  EXPECT_NEAR(s.LinearInterpolation(2.5), (std::sin(2.0) + std::sin(3.0)) / 2, 1e-14);

  TCubicSplineInterpolation2D g(4, 3);
  for (int ix = 0; ix < 4; ++ix)
    for (int iy = 0; iy < 3; ++iy) g.SetField(ix, iy, 1.0 + 2.0 * ix - 0.5 * iy);
  ASSERT_TRUE(g.PrepareSpline());
  EXPECT_NEAR(g.CubicSplineInterpolation(1.5, 0.5), 1.0 + 3.0 - 0.25, 1e-12);
}

TEST(Savgol, SmoothsPolynomialsExactly) {
  double kernel[11];
  ASSERT_TRUE(SavgolKernel(kernel, 5, 5, 0, 2));
  double sum = 0;
  for (double k : kernel) sum += k;
  EXPECT_NEAR(sum, 1.0, 1e-12);
  // Filtering a quadratic returns it unchanged; the first-derivative kernel returns its slope.
  auto f = [](double t) { return 3.0 - 0.5 * t + 0.2 * t * t; };
  double s = 0;
  for (int k = -5; k <= 5; ++k) s += kernel[k + 5] * f(7 + k);
  EXPECT_NEAR(s, f(7), 1e-10);
  ASSERT_TRUE(SavgolKernel(kernel, 5, 5, 1, 2));
  s = 0;
  for (int k = -5; k <= 5; ++k) s += kernel[k + 5] * f(7 + k);
  EXPECT_NEAR(s, -0.5 + 0.4 * 7, 1e-10);
  double c[11];
  ASSERT_TRUE(savgol(c, 11, 5, 5, 0, 2));
  ASSERT_TRUE(SavgolKernel(kernel, 5, 5, 0, 2));
  EXPECT_DOUBLE_EQ(c[0], kernel[5]);
  EXPECT_DOUBLE_EQ(c[1], kernel[4]);  // offset -1
  EXPECT_DOUBLE_EQ(c[10], kernel[6]); // offset +1
  EXPECT_FALSE(SavgolKernel(kernel, 1, 1, 0, 4));
}

TEST(Dithering, SumsArePreserved) {
  const int n = 5000;
  std::vector<double> b(n, 10.3);
  std::vector<int> a(n, 100);
  GlobalSubtractDoubleArrayFromIntArray(a.data(), b.data(), n);
  long sum = 0;
  for (int v : a) sum += 100 - v;
  EXPECT_NEAR(static_cast<double>(sum), 10.3 * n, 1.0);
  std::vector<int> c(n, 100);
  GlobalSubtractDoubleFromIntArray(c.data(), n, 10.7);
  sum = 0;
  for (int v : c) sum += 100 - v;
  EXPECT_NEAR(static_cast<double>(sum), 10.7 * n, 1.0);
  RandomSeed(3);
  std::vector<int> l(n, 100);
  LocalSubtractDoubleArrayFromIntArray(l.data(), b.data(), n);
  sum = 0;
  for (int v : l) sum += 100 - v;
  EXPECT_NEAR(static_cast<double>(sum) / n, 10.3, 0.05); // random dithering: right on average
}

} // namespace

TEST(AllFinite, FindsNaNAndInfinitiesAtEveryPlaceOfTheVectorAndTheTail) {
  const float specials[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::quiet_NaN()};
  for (int64_t n : {1, 3, 4, 5, 8, 11}) {
    std::vector<float> values(static_cast<size_t>(n), 1.0f);
    // The largest finite values and the smallest subnormal are finite.
    values[0] = std::numeric_limits<float>::max();
    values[static_cast<size_t>(n - 1)] = -std::numeric_limits<float>::denorm_min();
    EXPECT_TRUE(AllFinite(values.data(), n)) << n;
    for (int64_t at = 0; at < n; ++at)
      for (float special : specials) {
        std::vector<float> bad = values;
        bad[static_cast<size_t>(at)] = special;
        EXPECT_FALSE(AllFinite(bad.data(), n)) << special << " at " << at << " of " << n;
      }
  }
  EXPECT_TRUE(AllFinite(nullptr, 0));
}
