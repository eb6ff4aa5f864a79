// Fourier transforms: every length against an extended-precision direct sum, closed forms, round trips,
// the real-input pair, 2-D, and threads sharing plans.
#include "common/numerics/Fft.h"

#include "common/OrvexException.h"

#include <cmath>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using TLongComplex = std::complex<long double>;
constexpr long double kPi = 3.141592653589793238462643383279502884L;

std::vector<TComplex> RandomSignal(int n, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  std::vector<TComplex> x(n);
  for (TComplex& v : x) v = TComplex(d(g), d(g));
  return x;
}

// Direct O(n^2) transform in long double with an exact integer reduction of the exponent.
std::vector<TLongComplex> NaiveDFT(const std::vector<TComplex>& x, bool inverse) {
  const int n = static_cast<int>(x.size());
  std::vector<TLongComplex> roots(n);
  for (int j = 0; j < n; ++j) {
    const long double a = (inverse ? 2.0L : -2.0L) * kPi * j / n;
    roots[j] = TLongComplex(std::cos(a), std::sin(a));
  }
  std::vector<TLongComplex> out(n);
  for (int k = 0; k < n; ++k) {
    TLongComplex s = 0;
    long long e = 0;
    for (int j = 0; j < n; ++j) {
      s += TLongComplex(x[j].real(), x[j].imag()) * roots[e];
      e += k;
      if (e >= n) e -= n;
    }
    out[k] = inverse ? s / static_cast<long double>(n) : s;
  }
  return out;
}

// ||a - b|| / ||b|| in the 2-norm.
double RelativeError(const std::vector<TComplex>& a, const std::vector<TLongComplex>& b) {
  long double num = 0, den = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    num += std::norm(TLongComplex(a[i].real(), a[i].imag()) - b[i]);
    den += std::norm(b[i]);
  }
  return static_cast<double>(std::sqrt(num / den));
}

double RelativeError(const std::vector<TComplex>& a, const std::vector<TComplex>& b) {
  double num = 0, den = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    num += std::norm(a[i] - b[i]);
    den += std::norm(b[i]);
  }
  return std::sqrt(num / den);
}

std::vector<int> TestLengths() {
  std::vector<int> lengths;
  for (int n = 1; n <= 128; ++n) lengths.push_back(n);
  for (int n : {210, 1000, 1009, 2039, 4096, 4097}) lengths.push_back(n);
  return lengths;
}

TEST(FFT, EveryLengthAgainstExtendedPrecisionDirectSum) {
  for (int n : TestLengths()) {
    const std::vector<TComplex> x = RandomSignal(n, 100u + n);
    std::vector<TComplex> y = x;
    TFFT fft(n);
    fft.Forward(y.data());
    EXPECT_LE(RelativeError(y, NaiveDFT(x, false)), 1e-13) << "forward n=" << n;
    y = x;
    fft.Inverse(y.data());
    EXPECT_LE(RelativeError(y, NaiveDFT(x, true)), 1e-13) << "inverse n=" << n;
  }
}

TEST(FFT, RoundTripRestoresTheSignal) {
  for (int n : {1, 2, 3, 17, 37, 64, 97, 360, 1009, 1024, 2310, 4097, 6007}) {
    const std::vector<TComplex> x = RandomSignal(n, 7u * n);
    std::vector<TComplex> y = x;
    TFFT fft(n);
    fft.Forward(y.data());
    fft.Inverse(y.data());
    EXPECT_LE(RelativeError(y, x), 1e-14) << "n=" << n;
  }
}

// Closed forms on a mixed-radix, an odd-prime-radix and a chirp-z length.
TEST(FFT, ClosedForms) {
  for (int n : {48, 77, 101, 1009}) {
    TFFT fft(n);
    const double tol = 1e-12 * n;
    // A delta at j0 gives exp(-2 pi i j0 k / n); at 0 it gives all ones.
    for (int j0 : {0, 1, n / 3}) {
      std::vector<TComplex> x(n, 0.0);
      x[j0] = 1.0;
      fft.Forward(x.data());
      for (int k = 0; k < n; ++k) {
        const double a = -2.0 * M_PI * ((static_cast<long long>(j0) * k) % n) / n;
        ASSERT_NEAR(x[k].real(), std::cos(a), tol) << "n=" << n << " j0=" << j0 << " k=" << k;
        ASSERT_NEAR(x[k].imag(), std::sin(a), tol) << "n=" << n << " j0=" << j0 << " k=" << k;
      }
    }
    // A constant c gives c n at frequency 0 and nothing elsewhere.
    {
      std::vector<TComplex> x(n, TComplex(2.5, -1.0));
      fft.Forward(x.data());
      EXPECT_NEAR(x[0].real(), 2.5 * n, tol);
      EXPECT_NEAR(x[0].imag(), -1.0 * n, tol);
      for (int k = 1; k < n; ++k) ASSERT_LT(std::abs(x[k]), tol) << "n=" << n << " k=" << k;
    }
    // cos(2 pi f j / n) gives n/2 at f and at n - f.
    {
      const int f = 5;
      std::vector<TComplex> x(n);
      for (int j = 0; j < n; ++j) x[j] = std::cos(2.0 * M_PI * ((f * j) % n) / n);
      fft.Forward(x.data());
      for (int k = 0; k < n; ++k) {
        const double expected = (k == f || k == n - f) ? n / 2.0 : 0.0;
        ASSERT_NEAR(x[k].real(), expected, tol) << "n=" << n << " k=" << k;
        ASSERT_NEAR(x[k].imag(), 0.0, tol) << "n=" << n << " k=" << k;
      }
    }
    // Shift theorem: x[j - d] transforms to X[k] exp(-2 pi i d k / n). Parseval: sum |x|^2 = sum |X|^2 / n.
    {
      const int d = 3;
      const std::vector<TComplex> x = RandomSignal(n, 11u);
      std::vector<TComplex> shifted(n);
      for (int j = 0; j < n; ++j) shifted[(j + d) % n] = x[j];
      std::vector<TComplex> X = x, S = shifted;
      fft.Forward(X.data());
      fft.Forward(S.data());
      double energyTime = 0, energyFreq = 0;
      for (int k = 0; k < n; ++k) {
        const double a = -2.0 * M_PI * ((static_cast<long long>(d) * k) % n) / n;
        const TComplex expected = X[k] * TComplex(std::cos(a), std::sin(a));
        ASSERT_LT(std::abs(S[k] - expected), tol) << "n=" << n << " k=" << k;
        energyTime += std::norm(x[k]);
        energyFreq += std::norm(X[k]);
      }
      EXPECT_NEAR(energyFreq / n, energyTime, 1e-12 * energyTime) << "n=" << n;
    }
  }
}

TEST(FFT, RefusesLengthsBelowOne) {
  EXPECT_THROW(TFFT(0), OrvexException);
  EXPECT_THROW(GetFFTPlan(-5), OrvexException);
  EXPECT_THROW(TRealFFT(0), OrvexException);
}

TEST(RealFFT, MatchesTheComplexTransformAndRoundTrips) {
  std::vector<int> lengths;
  for (int n = 1; n <= 70; ++n) lengths.push_back(n);
  for (int n : {1009, 1024, 2046}) lengths.push_back(n);
  for (int n : lengths) {
    std::mt19937 g(300u + n);
    std::uniform_real_distribution<double> d(-1.0, 1.0);
    std::vector<double> x(n);
    for (double& v : x) v = d(g);
    std::vector<TComplex> full(x.begin(), x.end());
    TFFT(n).Forward(full.data());
    TRealFFT rfft(n);
    ASSERT_EQ(rfft.SpectrumLength(), n / 2 + 1);
    std::vector<TComplex> half(rfft.SpectrumLength());
    rfft.Forward(x.data(), half.data());
    EXPECT_LE(RelativeError(half, std::vector<TComplex>(full.begin(), full.begin() + n / 2 + 1)), 1e-14)
        << "n=" << n;
    std::vector<double> back(n);
    rfft.Inverse(half.data(), back.data());
    double worst = 0;
    for (int j = 0; j < n; ++j) worst = std::max(worst, std::fabs(back[j] - x[j]));
    EXPECT_LT(worst, 1e-14) << "n=" << n;
  }
}

TEST(RealFFT, InverseIgnoresImaginaryPartsOfZeroAndNyquist) {
  for (int n : {8, 9, 1024}) {
    TRealFFT rfft(n);
    std::vector<TComplex> half(rfft.SpectrumLength());
    for (std::size_t k = 0; k < half.size(); ++k) half[k] = TComplex(1.0 / (k + 1), 0.5 / (k + 2));
    std::vector<double> a(n), b(n);
    half[0] = TComplex(half[0].real(), 0);
    if (n % 2 == 0) half[n / 2] = TComplex(half[n / 2].real(), 0);
    rfft.Inverse(half.data(), a.data());
    half[0] += TComplex(0, 3.0);
    if (n % 2 == 0) half[n / 2] += TComplex(0, -2.0);
    rfft.Inverse(half.data(), b.data());
    for (int j = 0; j < n; ++j) ASSERT_NEAR(a[j], b[j], 1e-15) << "n=" << n << " j=" << j;
    // and the result is the real signal of that half spectrum: its forward transform gives it back
    std::vector<TComplex> again(rfft.SpectrumLength());
    rfft.Forward(a.data(), again.data());
    half[0] = TComplex(half[0].real(), 0);
    if (n % 2 == 0) half[n / 2] = TComplex(half[n / 2].real(), 0);
    EXPECT_LE(RelativeError(again, half), 1e-14);
  }
}

TEST(FFT2D, RowsThenColumnsAgainstDirectSumAndRoundTrip) {
  for (auto [rows, cols] : {std::pair{6, 10}, std::pair{7, 5}, std::pair{1, 9}, std::pair{16, 37}}) {
    const std::vector<TComplex> x = RandomSignal(rows * cols, 41u + rows * cols);
    // direct 2-D sum in long double
    std::vector<TLongComplex> ref(rows * cols);
    for (int u = 0; u < rows; ++u)
      for (int v = 0; v < cols; ++v) {
        TLongComplex s = 0;
        for (int r = 0; r < rows; ++r)
          for (int c = 0; c < cols; ++c) {
            const long double a = -2.0L * kPi *
                                  (static_cast<long double>((u * r) % rows) / rows +
                                   static_cast<long double>((v * c) % cols) / cols);
            s += TLongComplex(x[r * cols + c].real(), x[r * cols + c].imag()) *
                 TLongComplex(std::cos(a), std::sin(a));
          }
        ref[u * cols + v] = s;
      }
    std::vector<TComplex> y = x;
    TFFT2D fft(rows, cols);
    fft.Forward(y.data());
    EXPECT_LE(RelativeError(y, ref), 1e-13) << rows << "x" << cols;
    fft.Inverse(y.data());
    EXPECT_LE(RelativeError(y, x), 1e-14) << rows << "x" << cols;
  }
}

// Eight threads make and use plans of lengths nobody asked for before, some of them the same at the same
// time; every result must equal, bit for bit, the one a single thread gets afterwards.
TEST(FFT, ThreadsSharingPlansGiveSingleThreadResultsBitForBit) {
  const std::vector<int> lengths = {1503, 1001, 1222, 1500, 1001, 999, 2187, 1503, 1222, 768, 977, 1500};
  constexpr int kThreads = 8;
  std::vector<std::vector<std::vector<TComplex>>> results(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (std::size_t i = 0; i < lengths.size(); ++i) {
        const int n = lengths[(i + t) % lengths.size()];
        std::vector<TComplex> x = RandomSignal(n, static_cast<unsigned>(n));
        TFFT fft(n);
        fft.Forward(x.data());
        TRealFFT rfft(n);
        std::vector<double> real(n);
        for (int j = 0; j < n; ++j) real[j] = x[j].imag();
        std::vector<TComplex> half(rfft.SpectrumLength());
        rfft.Forward(real.data(), half.data());
        x.insert(x.end(), half.begin(), half.end());
        results[t].push_back(std::move(x));
      }
    });
  for (std::thread& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t)
    for (std::size_t i = 0; i < lengths.size(); ++i) {
      const int n = lengths[(i + t) % lengths.size()];
      std::vector<TComplex> x = RandomSignal(n, static_cast<unsigned>(n));
      TFFT fft(n);
      fft.Forward(x.data());
      TRealFFT rfft(n);
      std::vector<double> real(n);
      for (int j = 0; j < n; ++j) real[j] = x[j].imag();
      std::vector<TComplex> half(rfft.SpectrumLength());
      rfft.Forward(real.data(), half.data());
      x.insert(x.end(), half.begin(), half.end());
      ASSERT_EQ(results[t][i].size(), x.size());
      EXPECT_EQ(std::memcmp(results[t][i].data(), x.data(), x.size() * sizeof(TComplex)), 0)
          << "thread " << t << " n=" << n;
    }
}

} // namespace
