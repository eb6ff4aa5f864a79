// Wavelets: the filter tables' orthonormality and vanishing moments, exact reconstruction on every kind,
// policy and length, weights, failure paths, threads sharing one transformation, and the noise filter.
#include "common/numerics/Wavelets.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

const TWaveletBoundaryPolicy kPolicies[] = {TWaveletBoundaryPolicy::Periodic, TWaveletBoundaryPolicy::Mirror,
                                            TWaveletBoundaryPolicy::Zero};

TWaveletKind Kind(int k) {
  return static_cast<TWaveletKind>(k);
}

// Vanishing moments of the published families: half the taps, one for Haar.
int VanishingMoments(int kind) {
  const int taps = static_cast<int>(TWaveletTransformation::CalculateWaveletFilter(Kind(kind)).size());
  return kind == 0 ? 1 : taps / 2;
}

std::vector<float> Noise(int n, unsigned seed, double sigma = 1.0) {
  std::mt19937 g(seed);
  std::normal_distribution<double> d(0.0, sigma);
  std::vector<float> x(n);
  for (float& v : x) v = static_cast<float>(d(g));
  return x;
}

TWaveletTransformation Made(int kind, TWaveletBoundaryPolicy policy, int n, int iterations = 0,
                            bool invert = false) {
  TWaveletTransformation wt;
  wt.SetWaveletKind(Kind(kind));
  wt.SetWaveletBoundaryPolicy(policy);
  wt.SetInvertWaveletFilter(invert);
  wt.SetNumberOfDataValues(n);
  wt.SetNumberOfIterations(iterations);
  wt.CalculateArrays();
  return wt;
}

double Rms(const float* x, int first, int last) {
  double s = 0;
  for (int i = first; i < last; ++i) s += static_cast<double>(x[i]) * x[i];
  return std::sqrt(s / (last - first));
}

TEST(WaveletFilters, TablesHaveTheirTapsAndAreOrthonormalWithVanishingMoments) {
  const int taps[] = {2, 8, 16, 32, 4, 8, 16, 32};
  for (int kind = 0; kind < kNumberOfWaveletKinds; ++kind) {
    const std::vector<double> h = TWaveletTransformation::CalculateWaveletFilter(Kind(kind));
    const int length = static_cast<int>(h.size());
    ASSERT_EQ(length, taps[kind]) << "kind " << kind;
    double sum = 0;
    for (double v : h) sum += v;
    // The published tables of the longest filters carry about twelve significant digits.
    EXPECT_NEAR(sum, std::sqrt(2.0), 1e-11) << "kind " << kind;
    // sum_k h[k] h[k + 2m] = delta(m)
    for (int m = 0; 2 * m < length; ++m) {
      double s = 0;
      for (int k = 0; k + 2 * m < length; ++k) s += h[k] * h[k + 2 * m];
      EXPECT_NEAR(s, m == 0 ? 1.0 : 0.0, 1e-11) << "kind " << kind << " shift " << 2 * m;
    }
    // sum_k (k - c)^p g[k] = 0 for p below the number of vanishing moments, g the high pass. Measured
    // relative to the sum of magnitudes of the terms, on centred and scaled positions.
    const double centre = (length - 1) / 2.0;
    for (int p = 0; p < VanishingMoments(kind); ++p) {
      double s = 0, scale = 0;
      for (int k = 0; k < length; ++k) {
        const double g = (k % 2 == 0 ? 1.0 : -1.0) * h[length - 1 - k];
        const double t = std::pow((k - centre) / length, p) * g;
        s += t;
        scale += std::fabs(t);
      }
      EXPECT_LT(std::fabs(s), 1e-9 * scale) << "kind " << kind << " moment " << p;
    }
  }
}

TEST(WaveletTransformation, HaarGivesPairSumsAndDifferences) {
  TWaveletTransformation wt = Made(0, TWaveletBoundaryPolicy::Periodic, 4, 1);
  auto info = wt.CreateBufferInfo();
  const float x[] = {1, 2, 3, 4};
  wt.CalculateWT(x, info.get());
  const double r = 1 / std::sqrt(2.0);
  ASSERT_EQ(info->Approximation().Size(), 2);
  EXPECT_NEAR(info->Approximation()[0], 3 * r, 1e-6);
  EXPECT_NEAR(info->Approximation()[1], 7 * r, 1e-6);
  EXPECT_NEAR(info->Details(0)[0], -r, 1e-6);
  EXPECT_NEAR(info->Details(0)[1], -r, 1e-6);
  // a second iteration halves again: (3 + 7) / 2 and (3 - 7) / 2
  TWaveletTransformation two = Made(0, TWaveletBoundaryPolicy::Periodic, 4, 2);
  auto info2 = two.CreateBufferInfo();
  two.CalculateWT(x, info2.get());
  EXPECT_NEAR(info2->Approximation()[0], 5.0, 1e-6);
  EXPECT_NEAR(info2->Details(1)[0], -2.0, 1e-6);
}

TEST(WaveletTransformation, ExactReconstructionForEveryKindPolicyAndLength) {
  for (int kind = 0; kind < kNumberOfWaveletKinds; ++kind) {
    const int taps = static_cast<int>(TWaveletTransformation::CalculateWaveletFilter(Kind(kind)).size());
    std::vector<int> lengths;
    for (int n = taps; n < taps + 12; ++n) lengths.push_back(n);
    lengths.insert(lengths.end(), {2 * taps + 1, 255, 1024});
    for (TWaveletBoundaryPolicy policy : kPolicies)
      for (bool invert : {false, true})
        for (int n : lengths) {
          TWaveletTransformation wt = Made(kind, policy, n, 0, invert);
          ASSERT_EQ(wt.NumberOfIterations(), wt.CalculateMaxIterations());
          auto info = wt.CreateBufferInfo();
          const std::vector<float> x = Noise(n, 1000u * kind + n);
          std::vector<float> y(n);
          wt.CalculateWT(x.data(), info.get());
          wt.CalculateReverseWT(y.data(), info.get());
          float worst = 0, largest = 0;
          for (int i = 0; i < n; ++i) {
            worst = std::max(worst, std::fabs(y[i] - x[i]));
            largest = std::max(largest, std::fabs(x[i]));
          }
          ASSERT_LT(worst, 2e-6f * largest) << "kind " << kind << " policy " << static_cast<int>(policy)
                                            << " invert " << invert << " n " << n;
        }
  }
}

TEST(WaveletTransformation, PolynomialsLeaveNoInteriorDetails) {
  for (int kind = 0; kind < kNumberOfWaveletKinds; ++kind) {
    const int n = 256;
    const int degree = VanishingMoments(kind) - 1;
    TWaveletTransformation wt = Made(kind, TWaveletBoundaryPolicy::Zero, n, 1);
    auto info = wt.CreateBufferInfo();
    // a polynomial of the highest degree the wavelet cancels, on [-1, 1] so that floats hold it well
    std::vector<float> x(n);
    for (int i = 0; i < n; ++i) x[i] = static_cast<float>(std::pow((i - 127.5) / 128.0, std::min(degree, 3)));
    wt.CalculateWT(x.data(), info.get());
    const int taps = wt.FilterLength();
    const TWaveletArray& d = info->Details(0);
    // coefficient k reaches samples 2k + 2 - taps .. 2k + 1: interior when all of them lie in the signal
    for (int k = taps / 2; 2 * k + 1 < n; ++k)
      ASSERT_LT(std::fabs(d[k]), 2e-5) << "kind " << kind << " k " << k;
    // where the zero padding cuts the polynomial off they are not small
    if (kind != 0) {
      float edge = 0;
      for (int k = 0; k < taps / 2; ++k) edge = std::max(edge, std::fabs(d[k]));
      EXPECT_GT(edge, 1e-3f) << "kind " << kind;
    }
  }
}

TEST(WaveletTransformation, WeightsSplitTheSignalIntoApproximationAndDetails) {
  const int n = 300;
  TWaveletTransformation wt = Made(6, TWaveletBoundaryPolicy::Mirror, n);
  auto info = wt.CreateBufferInfo();
  const std::vector<float> x = Noise(n, 5u);
  wt.CalculateWT(x.data(), info.get());
  std::vector<float> smooth(n), rough(n), levelTwo(n);
  info->SetAllValuesTo(0.0f, wbfDetails);
  wt.CalculateReverseWT(smooth.data(), info.get());
  info->SetAllValuesTo(1.0f, wbfDetails);
  info->SetAllValuesTo(0.0f, wbfApproximation);
  wt.CalculateReverseWT(rough.data(), info.get());
  // the reconstruction is linear in the weighted coefficients: both parts add up to the signal
  for (int i = 0; i < n; ++i) ASSERT_NEAR(smooth[i] + rough[i], x[i], 1e-5) << i;
  // white noise lives mostly in the details
  EXPECT_LT(Rms(smooth.data(), 0, n), 0.2 * Rms(rough.data(), 0, n));
  // one iteration's details alone: zero weights elsewhere; its energy is that of its coefficients
  info->SetAllValuesTo(0.0f, wbfAll);
  info->SetAllValuesOfIterationTo(1, 1.0f, wbfDetails);
  wt.CalculateReverseWT(levelTwo.data(), info.get());
  double energy = 0;
  for (int k = 0; k < info->Details(1).Size(); ++k) energy += info->Details(1)[k] * info->Details(1)[k];
  const double rms = Rms(levelTwo.data(), 0, n);
  EXPECT_GT(rms * rms * n, 0.5 * energy); // mirrored ends fold part of the energy back, never more
  EXPECT_LT(rms * rms * n, 1.0001 * energy);
  // the approximation flag reaches only the last iteration
  info->SetAllValuesTo(1.0f, wbfAll);
  info->SetAllValuesOfIterationTo(0, 0.0f, wbfApproximation);
  EXPECT_EQ(info->ApproximationWeights()[0], 1.0f);
  info->SetAllValuesOfIterationTo(info->NumberOfIterations() - 1, 0.0f, wbfApproximation);
  EXPECT_EQ(info->ApproximationWeights()[0], 0.0f);
  EXPECT_EQ(info->DetailWeights(info->NumberOfIterations() - 1)[0], 1.0f);
}

TEST(WaveletBufferInfo, SettingsCompareLayoutAndWeightsAndClonesAreIndependent) {
  TWaveletTransformation wt = Made(1, TWaveletBoundaryPolicy::Mirror, 100);
  auto a = wt.CreateBufferInfo();
  auto b = a->Clone();
  EXPECT_TRUE(a->SettingsAreEqualTo(*b));
  b->DetailWeights(1)[3] = 0.25f;
  EXPECT_FALSE(a->SettingsAreEqualTo(*b));
  EXPECT_EQ(a->DetailWeights(1)[3], 1.0f);
  b->DetailWeights(1)[3] = 1.0f;
  EXPECT_TRUE(a->SettingsAreEqualTo(*b));
  TWaveletTransformation fewer = Made(1, TWaveletBoundaryPolicy::Mirror, 100, 1);
  EXPECT_FALSE(a->SettingsAreEqualTo(*fewer.CreateBufferInfo()));
  EXPECT_THROW(a->SetAllValuesOfIterationTo(a->NumberOfIterations(), 1.0f, wbfDetails), OrvexException);

  TWaveletArray x(4);
  x[2] = 7.0f;
  auto copy = x.Clone();
  x[2] = 1.0f;
  EXPECT_EQ((*copy)[2], 7.0f);
  x.CopyValuesFrom(*copy);
  EXPECT_EQ(x[2], 7.0f);
  TWaveletArray other(5);
  EXPECT_THROW(x.CopyValuesFrom(other), OrvexException);
}

TEST(WaveletTransformation, IterationCountsAndFailurePaths) {
  for (int kind = 0; kind < kNumberOfWaveletKinds; ++kind) {
    TWaveletTransformation wt;
    wt.SetWaveletKind(Kind(kind));
    const int taps = static_cast<int>(TWaveletTransformation::CalculateWaveletFilter(Kind(kind)).size());
    wt.SetNumberOfDataValues(taps - 1);
    EXPECT_THROW(wt.CalculateMaxIterations(), OrvexExceptionWavelet) << kind;
    EXPECT_THROW(wt.CalculateArrays(), OrvexExceptionWavelet) << kind;
    EXPECT_THROW(TWaveletNoiseFilter(taps - 1, Kind(kind), 1.0), OrvexExceptionWavelet) << kind;
    wt.SetNumberOfDataValues(taps);
    EXPECT_EQ(wt.CalculateMaxIterations(), 1) << kind;
  }
  TWaveletTransformation wt;
  wt.SetWaveletKind(TWaveletKind::Haar);
  wt.SetNumberOfDataValues(1024);
  EXPECT_EQ(wt.CalculateMaxIterations(), 10); // 1024 -> 512 -> ... -> 1
  wt.SetNumberOfIterations(11);
  EXPECT_THROW(wt.CalculateArrays(), OrvexException);
  wt.SetNumberOfIterations(3);
  wt.CalculateArrays();
  auto info = wt.CreateBufferInfo();
  std::vector<float> x(1024, 1.0f);
  // a buffer info of another layout, and a change without CalculateArrays, are refused
  TWaveletTransformation other = Made(0, TWaveletBoundaryPolicy::Periodic, 1024, 4);
  EXPECT_THROW(wt.CalculateWT(x.data(), other.CreateBufferInfo().get()), OrvexException);
  EXPECT_THROW(wt.CalculateWT(x.data(), nullptr), OrvexException);
  wt.SetWaveletKind(TWaveletKind::Symlet8Taps);
  EXPECT_THROW(wt.CalculateWT(x.data(), info.get()), OrvexException);
  EXPECT_THROW(wt.SetWaveletKind(static_cast<TWaveletKind>(8)), OrvexException);
  EXPECT_THROW(TWaveletNoiseFilter(100, TWaveletKind::Haar, -1.0), OrvexException);
}

// One transformation, read only, shared by four threads with a buffer info each.
TEST(WaveletTransformation, ThreadsSharingOneTransformationMatchOneThread) {
  const int n = 1000;
  const TWaveletTransformation wt = Made(7, TWaveletBoundaryPolicy::Mirror, n);
  constexpr int kThreads = 4, kSignals = 20;
  std::vector<std::vector<float>> results(kThreads * kSignals);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      auto info = wt.CreateBufferInfo();
      for (int s = 0; s < kSignals; ++s) {
        std::vector<float> x = Noise(n, 77u * t + s);
        wt.CalculateWT(x.data(), info.get());
        wt.CalculateWeightInWaveletBufferInfo(info.get(), 1.0);
        wt.CalculateReverseWT(x.data(), info.get());
        results[t * kSignals + s] = std::move(x);
      }
    });
  for (std::thread& th : threads) th.join();
  auto info = wt.CreateBufferInfo();
  for (int t = 0; t < kThreads; ++t)
    for (int s = 0; s < kSignals; ++s) {
      std::vector<float> x = Noise(n, 77u * t + s);
      wt.CalculateWT(x.data(), info.get());
      wt.CalculateWeightInWaveletBufferInfo(info.get(), 1.0);
      wt.CalculateReverseWT(x.data(), info.get());
      ASSERT_EQ(std::memcmp(x.data(), results[t * kSignals + s].data(), n * sizeof(float)), 0)
          << t << " " << s;
    }
}

TEST(WaveletNoiseFilter, FactorZeroReturnsTheInput) {
  const std::vector<float> x = Noise(1024, 3u);
  std::vector<float> y(1024, -1.0f);
  TWaveletNoiseFilter filter(1024, TWaveletKind::Symlet16Taps, 0.0);
  filter.DoFilter(x.data(), y.data());
  EXPECT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(float)), 0);
}

// Clones serve other threads: each filters its own spectra and all agree with the original bit for bit.
TEST(WaveletNoiseFilter, ClonesOnThreadsMatchTheOriginal) {
  const int n = 1024;
  TWaveletNoiseFilter original(n, TWaveletKind::Symlet16Taps, 1.0);
  constexpr int kThreads = 4;
  std::vector<std::vector<float>> results(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t, clone = std::shared_ptr<TWaveletNoiseFilter>(original.Clone())] {
      std::vector<float> x = Noise(n, 60u + t, 1.0 + t);
      clone->DoFilter(x.data(), x.data());
      results[t] = std::move(x);
    });
  for (std::thread& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) {
    std::vector<float> x = Noise(n, 60u + t, 1.0 + t);
    original.DoFilter(x.data(), x.data());
    EXPECT_NEAR(original.LastNoiseLevel(), 1.0 + t, 0.2 * (1.0 + t));
    EXPECT_EQ(std::memcmp(x.data(), results[t].data(), n * sizeof(float)), 0) << t;
  }
}

// A bad value is not hidden: it spreads through the reconstruction instead of vanishing, and the filter
// stays usable for the next spectrum.
TEST(WaveletNoiseFilter, NaNInTheInputShowsInTheOutput) {
  const int n = 256;
  TWaveletNoiseFilter filter(n, TWaveletKind::Daubechies8Taps, 1.0);
  std::vector<float> x = Noise(n, 8u), y(n);
  x[100] = std::numeric_limits<float>::quiet_NaN();
  filter.DoFilter(x.data(), y.data());
  EXPECT_TRUE(std::isnan(y[100]));
  x[100] = 0.0f;
  filter.DoFilter(x.data(), y.data());
  for (int i = 0; i < n; ++i) ASSERT_TRUE(std::isfinite(y[i])) << i;
}

TEST(WaveletNoiseFilter, CutsWhiteNoiseAndEstimatesItsLevel) {
  for (int kind = 0; kind < kNumberOfWaveletKinds; ++kind) {
    const int n = 1024;
    const std::vector<float> x = Noise(n, 500u + kind, 2.0);
    std::vector<float> y(n);
    TWaveletNoiseFilter filter(n, Kind(kind), 1.0);
    filter.DoFilter(x.data(), y.data());
    EXPECT_NEAR(filter.LastNoiseLevel(), 2.0, 0.3) << "kind " << kind;
    EXPECT_LT(Rms(y.data(), 0, n), Rms(x.data(), 0, n) / 3) << "kind " << kind;
  }
}

// A smooth signal, a quadratic with a Gaussian peak, under white noise: in the interior the filtered signal
// is at least three times closer to it than the noisy one; and filtering in place gives the same.
TEST(WaveletNoiseFilter, KeepsASmoothSignalInTheInterior) {
  for (int kind = 1; kind < kNumberOfWaveletKinds; ++kind) {
    const int n = 1024;
    std::vector<float> clean(n), x(n), y(n);
    const std::vector<float> noise = Noise(n, 900u + kind, 1.0);
    for (int i = 0; i < n; ++i) {
      const double t = i / double(n);
      clean[i] =
          static_cast<float>(40 * (t - 0.3) * (t - 0.3) + 30 * std::exp(-std::pow((t - 0.6) / 0.05, 2)));
      x[i] = clean[i] + noise[i];
    }
    TWaveletNoiseFilter filter(n, Kind(kind), 1.0);
    filter.DoFilter(x.data(), y.data());
    std::vector<float> errIn(n), errOut(n);
    for (int i = 0; i < n; ++i) {
      errIn[i] = x[i] - clean[i];
      errOut[i] = y[i] - clean[i];
    }
    const int margin = 64;
    EXPECT_LT(Rms(errOut.data(), margin, n - margin), Rms(errIn.data(), margin, n - margin) / 3)
        << "kind " << kind;
    std::vector<float> inPlace = x;
    filter.DoFilter(inPlace.data(), inPlace.data());
    EXPECT_EQ(std::memcmp(inPlace.data(), y.data(), n * sizeof(float)), 0) << "kind " << kind;
  }
}

// A polynomial of a degree the wavelet cancels carries no interior details, so the interior comes back as
// it was (a line for the 4-tap filter, a parabola for the others).
TEST(WaveletNoiseFilter, KeepsALowPolynomialWithSmallNoise) {
  for (int kind = 1; kind < kNumberOfWaveletKinds; ++kind) {
    const int n = 512;
    const std::vector<float> noise = Noise(n, 40u + kind, 0.01);
    std::vector<float> poly(n), x(n), y(n);
    for (int i = 0; i < n; ++i) {
      const double t = (i - 256.0) / 256.0;
      poly[i] = static_cast<float>(100 + 50 * t - (kind == 4 ? 0.0 : 20 * t * t));
      x[i] = poly[i] + noise[i];
    }
    TWaveletNoiseFilter filter(n, Kind(kind), 1.0);
    filter.DoFilter(x.data(), y.data());
    // no point strays beyond five times the noise, and on average the result lies closer than the noise
    std::vector<float> err(n);
    for (int i = 0; i < n; ++i) err[i] = y[i] - poly[i];
    for (int i = 64; i < n - 64; ++i) ASSERT_LT(std::fabs(err[i]), 0.05) << "kind " << kind << " i " << i;
    EXPECT_LT(Rms(err.data(), 64, n - 64), 0.005) << "kind " << kind;
  }
}

} // namespace
