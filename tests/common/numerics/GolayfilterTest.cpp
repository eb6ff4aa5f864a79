// Savitzky-Golay filter: exact on polynomials up to its order (symmetric and one-sided windows), true
// derivatives per pixel, refused settings, the shorter sums at the ends, the mirrored continuation against
// an explicitly mirrored array, and the double and integer forms.
#include "common/numerics/Golayfilter.h"

#include "common/OrvexException.h"

#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<double> Polynomial(int n, std::initializer_list<double> coefficients, double shift = 0) {
  std::vector<double> y(n);
  for (int i = 0; i < n; ++i) {
    double p = 1, s = 0;
    for (double c : coefficients) {
      s += c * p;
      p *= (i - shift);
    }
    y[i] = s;
  }
  return y;
}

} // namespace

TEST(GolayFilter, ReproducesPolynomialsUpToItsOrder) {
  const int n = 60;
  // A cubic centred in the array keeps its values small enough for float input.
  const std::vector<double> cubic = Polynomial(n, {3.0, -0.5, 0.02, 0.001}, 30);
  std::vector<float> in(cubic.begin(), cubic.end()), out(n);
  for (auto [nl, nr, m] : {std::tuple{5, 5, 3}, {5, 5, 4}, {2, 6, 3}, {0, 7, 3}, {8, 0, 5}}) {
    TGolayFilter filter(nl, nr, 0, m);
    EXPECT_EQ(filter.WindowLength(), nl + nr + 1);
    filter.Faltung(in.data(), out.data(), n);
    for (int i = nl; i < n - nr; ++i)
      EXPECT_NEAR(out[i], in[i], 2e-5 * (1 + std::fabs(in[i]))) << nl << "," << nr << "," << m << " at " << i;
  }
  // A quartic: order 4 follows it, order 3 (on a symmetric window the same as order 2) misses it by
  // 1e-3 times the kernel's fourth moment, -72 for 11 points.
  const std::vector<double> quartic = Polynomial(n, {0, 0, 0, 0, 1e-3}, 30);
  in.assign(quartic.begin(), quartic.end());
  TGolayFilter(5, 5, 0, 4).Faltung(in.data(), out.data(), n);
  for (int i = 5; i < n - 5; ++i) EXPECT_NEAR(out[i], in[i], 2e-5 * (1 + std::fabs(in[i])));
  TGolayFilter(5, 5, 0, 3).Faltung(in.data(), out.data(), n);
  for (int i = 5; i < n - 5; ++i) EXPECT_NEAR(out[i] - in[i], -0.072, 1e-3);
}

TEST(GolayFilter, DerivativesAreTrueDerivativesPerPixel) {
  const int n = 40;
  std::vector<double> square = Polynomial(n, {0, 0, 1}), cube = Polynomial(n, {0, 0, 0, 1}), out(n);
  TGolayFilter first(4, 4, 1, 2);
  first.Faltung(square.data(), out.data(), n);
  for (int i = 4; i < n - 4; ++i) EXPECT_NEAR(out[i], 2.0 * i, 1e-9 * n * n);
  TGolayFilter second(4, 4, 2, 2);
  second.Faltung(square.data(), out.data(), n);
  for (int i = 4; i < n - 4; ++i) EXPECT_NEAR(out[i], 2.0, 1e-9 * n * n);
  // A one-sided window of order 4 gives the third derivative of i^3 exactly.
  TGolayFilter third(1, 6, 3, 4);
  third.Faltung(cube.data(), out.data(), n);
  for (int i = 1; i < n - 6; ++i) EXPECT_NEAR(out[i], 6.0, 1e-7 * n * n * n);
  // Kernel moments: a derivative-1 kernel has sum 0 and first moment 1; a smoothing kernel sums to 1.
  double sum = 0, moment = 0;
  for (int k = -4; k <= 4; ++k) {
    sum += first.GetSortedFilter(k);
    moment += k * first.GetSortedFilter(k);
  }
  EXPECT_NEAR(sum, 0.0, 1e-12);
  EXPECT_NEAR(moment, 1.0, 1e-12);
  EXPECT_EQ(first.GetSortedFilter(5), 0.0);
  TGolayFilter smooth;
  sum = 0;
  for (double c : smooth.Kernel()) sum += c;
  EXPECT_NEAR(sum, 1.0, 1e-12);
}

TEST(GolayFilter, RefusesWindowsThatDoNotDetermineThePolynomial) {
  EXPECT_FALSE(TGolayFilter::AreFilterOptionsValid(2, 1, 0, 4)); // 4 points for order 4
  EXPECT_TRUE(TGolayFilter::AreFilterOptionsValid(2, 2, 0, 4));  // 5 points
  EXPECT_FALSE(TGolayFilter::AreFilterOptionsValid(5, 5, 5, 4)); // derivative above the order
  EXPECT_TRUE(TGolayFilter::AreFilterOptionsValid(5, 5, 4, 4));
  EXPECT_FALSE(TGolayFilter::AreFilterOptionsValid(-1, 5, 0, 2));
  EXPECT_THROW(TGolayFilter(2, 1, 0, 4), OrvexException);

  TGolayFilter filter(3, 3, 1, 2);
  const std::vector<double> before = filter.Kernel();
  EXPECT_FALSE(filter.SetFilterOptions(1, 1, 0, 3));
  EXPECT_EQ(filter.Left(), 3);
  EXPECT_EQ(filter.Derivative(), 1);
  EXPECT_EQ(filter.Kernel(), before);
  EXPECT_TRUE(filter.FitsSpectrumLength(8));
  EXPECT_FALSE(filter.FitsSpectrumLength(7)); // the window as long as the spectrum
}

TEST(GolayFilter, EndsUseShorterSumsOrTheMirroredSpectrum) {
  const int n = 30;
  std::mt19937 g(5);
  std::uniform_real_distribution<float> u(-10, 10);
  std::vector<float> y(n), plain(n), mirrored(n);
  for (float& v : y) v = u(g);
  TGolayFilter filter(4, 2, 0, 3);
  filter.Faltung(y.data(), plain.data(), n);
  filter.FaltungWithMirrorPeriodicInterval(y.data(), mirrored.data(), n);
  // Shorter sums: only the terms inside the array.
  double s0 = 0, sLast = 0;
  for (int k = 0; k <= 2; ++k) s0 += filter.GetSortedFilter(k) * y[k];
  for (int k = -4; k <= 0; ++k) sLast += filter.GetSortedFilter(k) * y[n - 1 + k];
  EXPECT_NEAR(plain[0], s0, 1e-5);
  EXPECT_NEAR(plain[n - 1], sLast, 1e-5);
  // Mirrored: the same sum over the array continued as y[1] y[0] | y[0] y[1] ... y[n-1] | y[n-1] y[n-2].
  std::vector<double> extended;
  for (int k = 4; k >= 1; --k) extended.push_back(y[k - 1]);
  extended.insert(extended.end(), y.begin(), y.end());
  for (int k = 1; k <= 2; ++k) extended.push_back(y[n - k]);
  for (int i = 0; i < n; ++i) {
    double s = 0;
    for (int k = -4; k <= 2; ++k) s += filter.GetSortedFilter(k) * extended[i + 4 + k];
    EXPECT_NEAR(mirrored[i], s, 1e-5) << i;
  }
  // Interior pixels agree between the two forms.
  for (int i = 4; i < n - 2; ++i) EXPECT_FLOAT_EQ(plain[i], mirrored[i]);

  // A constant stays constant with the mirror, even when the window is longer than the spectrum.
  std::vector<float> flat(3, 7.5f), flatOut(3);
  TGolayFilter wide(5, 5, 0, 4);
  wide.FaltungWithMirrorPeriodicInterval(flat.data(), flatOut.data(), 3);
  for (float v : flatOut) EXPECT_NEAR(v, 7.5f, 1e-5);
}

TEST(GolayFilter, IntegerAndDoubleFormsAgreeWithFloat) {
  const int n = 25;
  std::vector<int> ints(n);
  std::vector<float> floats(n), outFloat(n);
  std::vector<double> doubles(n), outDouble(n), outInt(n);
  for (int i = 0; i < n; ++i) {
    ints[i] = (i * 37) % 11 - 5;
    floats[i] = static_cast<float>(ints[i]);
    doubles[i] = ints[i];
  }
  TGolayFilter filter(3, 3, 1, 3);
  filter.Faltung(floats.data(), outFloat.data(), n);
  filter.Faltung(doubles.data(), outDouble.data(), n);
  filter.Faltung(ints.data(), outInt.data(), n);
  for (int i = 0; i < n; ++i) {
    EXPECT_DOUBLE_EQ(outInt[i], outDouble[i]);
    EXPECT_NEAR(outFloat[i], outDouble[i], 1e-5);
  }
}
