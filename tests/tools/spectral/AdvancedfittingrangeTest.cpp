// The fit loop of one thread over caller-owned arrays: spectra are read a group ahead of their fits, each
// exactly once, the results equal fits of the spectra one by one, a cancel leaves the entries it didn't
// reach alone, and two threads on disjoint ranges of the same arrays give what one gives.
#include "support/TestDataObjects.h"
#include "tools/spectral/Advancedfittingcore.h"

#include <atomic>
#include <cmath>
#include <cstring>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

namespace {

constexpr int kLength = 1024;
constexpr int kSpectra = 150;
constexpr int kFirstPoint = 400, kLastPoint = 699; // a window of 300 points: groups of 54 spectra are read

double ValueAt(int e, int g) {
  const double centre = 520.0 + 0.2 * (e % 37), sigma = 6.0 + 0.05 * (e % 11);
  const double d = (g - centre) / sigma;
  return 30.0 + 0.1 * e + (200.0 + e) * std::exp(-0.5 * d * d) + 0.5 * std::sin(0.37 * g * (1 + e % 5));
}

// Spectra made on request; spectra whose number is a multiple of 13 lie on invalid lines.
struct TSource {
  std::vector<std::atomic<int>> Reads = std::vector<std::atomic<int>>(kSpectra);
  std::atomic<int> Outside{0};
  bool Read(int64_t e, int first, int count, float* values) {
    if (e < 0 || e >= kSpectra || first < 0 || first + count > kLength) {
      Outside.fetch_add(1);
      return false;
    }
    Reads[static_cast<size_t>(e)].fetch_add(1);
    if (e % 13 == 0) return false;
    for (int i = 0; i < count; ++i) values[i] = static_cast<float>(ValueAt(static_cast<int>(e), first + i));
    return true;
  }
};

struct TSetup {
  TNLFitGauss Function;
  std::vector<int> Index;
  std::vector<double> X;
  TAdvancedFitInput Input;
  explicit TSetup(TSource& source) {
    for (int g = kFirstPoint; g <= kLastPoint; ++g) {
      Index.push_back(g);
      X.push_back(g);
    }
    Input.Function = &Function;
    Input.FitPointIndex = Index.data();
    Input.FitX = X.data();
    Input.FitPoints = static_cast<int>(Index.size());
    Input.SpectrumLength = kLength;
    Input.ReadSpectrum = [&source](int64_t e, int first, int count, float* values) {
      return source.Read(e, first, count, values);
    };
  }
};

class AdvancedFitRangeTest : public ::testing::Test {
protected:
  void SetUp() override { oxtest::EnsureMemoryStrategy(); }
};

TEST_F(AdvancedFitRangeTest, GroupsReadOnceAndResultsEqualSingleFits) {
  TSource source;
  TSetup setup(source);
  const int np = setup.Function.GetNumberOfParameters();
  TAdvancedFitResultArrays results(kSpectra, np);
  const int64_t first = 7, last = 140; // not a multiple of the group
  std::string message;
  EXPECT_EQ(FitSpectrumRange(setup.Input, first, last, results, nullptr, nullptr, &message),
            last - first + 1);
  EXPECT_EQ(source.Outside.load(), 0);
  for (int e = 0; e < kSpectra; ++e)
    EXPECT_EQ(source.Reads[static_cast<size_t>(e)].load(), e >= first && e <= last ? 1 : 0) << e;

  // Each spectrum fitted alone, through the same routine, from its whole spectrum.
  void* data = setup.Function.ThreadPrepare();
  TAdvancedFitScratch scratch(setup.Input);
  std::vector<float> spectrum(kLength);
  for (int e = 0; e < kSpectra; ++e) {
    const bool good = results.FitGood.GetValue(uint64_t(e));
    std::vector<double> values(static_cast<size_t>(np)), errors(values.size());
    results.Values.GetValueArray(uint64_t(e) * uint64_t(np), values.data(), uint64_t(np));
    results.Errors.GetValueArray(uint64_t(e) * uint64_t(np), errors.data(), uint64_t(np));
    if (e < first || e > last || e % 13 == 0) {
      EXPECT_FALSE(good) << e;
      for (int p = 0; p < np; ++p) EXPECT_EQ(values[static_cast<size_t>(p)], 0.0) << e;
      continue;
    }
    for (int g = 0; g < kLength; ++g) spectrum[static_cast<size_t>(g)] = static_cast<float>(ValueAt(e, g));
    TFitFunctionErrorInfo info;
    std::string text;
    ASSERT_TRUE(FitOneSpectrum(setup.Input, data, spectrum.data(), scratch, info, text)) << e << " " << text;
    EXPECT_TRUE(good) << e;
    EXPECT_EQ(std::memcmp(values.data(), scratch.Values.data(), values.size() * sizeof(double)), 0) << e;
    EXPECT_EQ(std::memcmp(errors.data(), scratch.Errors.data(), errors.size() * sizeof(double)), 0) << e;
    EXPECT_EQ(results.ErrorInfo.GetValue(uint64_t(e)).ChiSqr, info.ChiSqr) << e;
    EXPECT_NEAR(values[1], 520.0 + 0.2 * (e % 37), 0.05) << e;
  }
  setup.Function.ThreadPostpare(data);
}

TEST_F(AdvancedFitRangeTest, CancelLeavesUnreachedEntriesAndReadsBoundedAhead) {
  TSource source;
  TSetup setup(source);
  const int np = setup.Function.GetNumberOfParameters();
  TAdvancedFitResultArrays results(kSpectra, np);
  // Marks that a write would overwrite.
  for (int e = 0; e < kSpectra; ++e) {
    results.FitGood.SetValue(uint64_t(e), true);
    for (int p = 0; p < np; ++p) results.Values.SetValue(uint64_t(e) * uint64_t(np) + uint64_t(p), -7.0);
  }
  int asked = 0;
  const int allowed = 60; // past the first group of 54
  std::atomic<int64_t> progress{0};
  const int64_t done = FitSpectrumRange(
      setup.Input, 0, kSpectra - 1, results, [&] { return asked++ >= allowed; }, &progress, nullptr);
  EXPECT_EQ(done, allowed);
  EXPECT_EQ(progress.load(), allowed);
  int read = 0;
  for (int e = 0; e < kSpectra; ++e) read += source.Reads[static_cast<size_t>(e)].load();
  // The second group was read, nothing beyond it.
  EXPECT_EQ(read, 108);
  for (int e = 0; e < kSpectra; ++e) {
    const double v = results.Values.GetValue(uint64_t(e) * uint64_t(np) + 1);
    if (e < allowed) {
      EXPECT_EQ(results.FitGood.GetValue(uint64_t(e)), e % 13 != 0) << e;
      EXPECT_NE(v, -7.0) << e;
    } else {
      EXPECT_TRUE(results.FitGood.GetValue(uint64_t(e))) << e;
      EXPECT_EQ(v, -7.0) << e;
    }
  }
}

// A stack run leaves its arrays unzeroed, so the fit loop must write every entry of its range.
TEST_F(AdvancedFitRangeTest, EveryEntryOfTheRangeIsWrittenWhateverTheArraysHeld) {
  TSource zeroSource, dirtySource;
  TSetup zeroSetup(zeroSource), dirtySetup(dirtySource);
  const int np = zeroSetup.Function.GetNumberOfParameters();
  TAdvancedFitResultArrays zeroed(kSpectra, np), dirty(kSpectra, np, false);
  const uint64_t n = uint64_t(kSpectra) * uint64_t(np);
  const std::vector<double> garbage(n, -1.25e300);
  for (auto* a : {&dirty.StartValues, &dirty.Values, &dirty.Errors}) a->SetValueArray(0, garbage.data(), n);
  TFitFunctionErrorInfo junk;
  junk.FitOK = junk.EstimateOK = true;
  junk.ChiSqr = junk.TotalSumOfSquares = junk.ResidualSumOfSquares = 3.5;
  for (int e = 0; e < kSpectra; ++e) {
    dirty.ErrorInfo.SetValue(uint64_t(e), junk);
    dirty.FitGood.SetValue(uint64_t(e), true);
  }
  FitSpectrumRange(zeroSetup.Input, 0, kSpectra - 1, zeroed, nullptr, nullptr, nullptr);
  FitSpectrumRange(dirtySetup.Input, 0, kSpectra - 1, dirty, nullptr, nullptr, nullptr);
  std::vector<double> x(n), y(n);
  for (auto [a, b] : {std::pair{&zeroed.StartValues, &dirty.StartValues},
                      std::pair{&zeroed.Values, &dirty.Values}, std::pair{&zeroed.Errors, &dirty.Errors}}) {
    a->GetValueArray(0, x.data(), n);
    b->GetValueArray(0, y.data(), n);
    EXPECT_EQ(std::memcmp(x.data(), y.data(), n * sizeof(double)), 0);
  }
  for (int e = 0; e < kSpectra; ++e) {
    const TFitFunctionErrorInfo a = zeroed.ErrorInfo.GetValue(uint64_t(e)),
                                b = dirty.ErrorInfo.GetValue(uint64_t(e));
    EXPECT_EQ(a.FitOK, b.FitOK) << e;
    EXPECT_EQ(a.EstimateOK, b.EstimateOK) << e;
    EXPECT_EQ(std::memcmp(&a.ChiSqr, &b.ChiSqr, sizeof(double)), 0) << e; // NaN for the invalid ones
    EXPECT_EQ(a.TotalSumOfSquares, b.TotalSumOfSquares) << e;
    EXPECT_EQ(a.ResidualSumOfSquares, b.ResidualSumOfSquares) << e;
    EXPECT_EQ(zeroed.FitGood.GetValue(uint64_t(e)), dirty.FitGood.GetValue(uint64_t(e))) << e;
    EXPECT_EQ(dirty.FitGood.GetValue(uint64_t(e)), e % 13 != 0) << e;
  }
}

TEST_F(AdvancedFitRangeTest, TwoThreadsOnDisjointRangesMatchOne) {
  TSource one, two;
  TSetup a(one), b(two);
  const int np = a.Function.GetNumberOfParameters();
  TAdvancedFitResultArrays single(kSpectra, np), split(kSpectra, np);
  FitSpectrumRange(a.Input, 0, kSpectra - 1, single, nullptr, nullptr, nullptr);
  // Ranges that end inside a block of results and inside a group of reads.
  std::thread left([&] { FitSpectrumRange(b.Input, 0, 70, split, nullptr, nullptr, nullptr); });
  std::thread right([&] { FitSpectrumRange(b.Input, 71, kSpectra - 1, split, nullptr, nullptr, nullptr); });
  left.join();
  right.join();
  std::vector<double> x(static_cast<size_t>(kSpectra * np)), y(x.size());
  single.Values.GetValueArray(0, x.data(), x.size());
  split.Values.GetValueArray(0, y.data(), y.size());
  EXPECT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(double)), 0);
  single.Errors.GetValueArray(0, x.data(), x.size());
  split.Errors.GetValueArray(0, y.data(), y.size());
  EXPECT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(double)), 0);
  for (int e = 0; e < kSpectra; ++e)
    EXPECT_EQ(single.FitGood.GetValue(uint64_t(e)), split.FitGood.GetValue(uint64_t(e))) << e;
}

} // namespace
