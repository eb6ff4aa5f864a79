// Spectrum filters: spike detection and both repairs on synthetic spikes, the linear bridge at the ends,
// normalised binomial averages and medians over available channels and spectra against brute-force sums,
// the ring of lines (each line read once, invalid lines left out) and line-split runs against one run.
#include "common/numerics/Spectrumfilters.h"

#include "common/OrvexException.h"
#include "common/numerics/Sorttools.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// A small stack: spectrum (x, y) at (x + y sizeX) * n.
struct TStack {
  int SizeX, SizeY, N;
  std::vector<float> Values;
  std::vector<bool> ValidLine;
  TStack(int sx, int sy, int n, unsigned seed) : SizeX(sx), SizeY(sy), N(n), ValidLine(sy, true) {
    std::mt19937 g(seed);
    // Few distinct values, so the medians meet ties.
    std::uniform_int_distribution<int> u(0, 6);
    Values.resize(static_cast<size_t>(sx) * sy * n);
    for (float& v : Values) v = static_cast<float>(u(g)) * 0.5f;
  }
  const float* Spectrum(int x, int y) const {
    return Values.data() + (static_cast<size_t>(y) * SizeX + x) * N;
  }
  bool Read(int line, float* buffer) const {
    std::copy(Spectrum(0, line), Spectrum(0, line) + static_cast<size_t>(SizeX) * N, buffer);
    return ValidLine[line];
  }
};

// The binomial average and median at one channel, summed directly over the window.
float BruteForce(const TStack& s, TNeighbourhoodFilterKind kind, int a, int b, int x, int y, int i) {
  const std::vector<float> wa = NormalisedBinomialWeights(a), wb = NormalisedBinomialWeights(b);
  double sum = 0, weights = 0;
  std::vector<float> values{s.Spectrum(x, y)[i]};
  for (int dy = -b; dy <= b; ++dy)
    for (int dx = -b; dx <= b; ++dx) {
      const int px = x + dx, py = y + dy;
      if (px < 0 || py < 0 || px >= s.SizeX || py >= s.SizeY) continue;
      if (!s.ValidLine[py] && !(dx == 0 && dy == 0)) continue;
      for (int k = -a; k <= a; ++k) {
        if (i + k < 0 || i + k >= s.N) continue;
        const double w = double(wa[k + a]) * wb[dx + b] * wb[dy + b];
        sum += w * s.Spectrum(px, py)[i + k];
        weights += w;
        if (!(dx == 0 && dy == 0 && k == 0)) values.push_back(s.Spectrum(px, py)[i + k]);
      }
    }
  if (kind == TNeighbourhoodFilterKind::BinomialAverage) return static_cast<float>(sum / weights);
  return STCalculateMedian(values.data(), static_cast<int>(values.size()), true);
}

} // namespace

TEST(SpikeRemoval, FindsSyntheticSpikesAndBridgesThem) {
  // A smooth band on a sloped baseline: no point of it is a spike.
  const int n = 400;
  std::vector<float> y(n), out(n);
  for (int i = 0; i < n; ++i)
    y[i] = static_cast<float>(100 + 0.05 * i + 40 * std::exp(-0.5 * std::pow((i - 200) / 15.0, 2)));
  // Single spikes, a run of two, and spikes at both ends.
  const std::vector<int> spikes = {0, 57, 58, 250, 399};
  for (int i : spikes) y[i] += 300;
  TSpikeRemoval removal(n, TSpikeRemovalSettings{});
  EXPECT_EQ(removal.Filter(y.data(), out.data()), static_cast<int>(spikes.size()));
  for (int i = 0; i < n; ++i) {
    const bool spike = std::count(spikes.begin(), spikes.end(), i) > 0;
    EXPECT_EQ(removal.Spikes()[i], spike) << i;
    if (!spike) {
      EXPECT_EQ(out[i], y[i]) << i;
    }
  }
  EXPECT_EQ(out[0], y[1]);     // a spike at the start takes the next good value
  EXPECT_EQ(out[399], y[398]); // at the end the last good value
  EXPECT_FLOAT_EQ(out[57], y[56] + (y[59] - y[56]) / 3.0f);
  EXPECT_FLOAT_EQ(out[58], y[56] + 2 * (y[59] - y[56]) / 3.0f);
  EXPECT_FLOAT_EQ(out[250], (y[249] + y[251]) / 2.0f);

  // A factor above the spikes' ratio finds none and copies.
  TSpikeRemovalSettings lax;
  lax.DynamicFactor = 1e6;
  TSpikeRemoval none(n, lax);
  EXPECT_EQ(none.Filter(y.data(), out.data()), 0);
  EXPECT_EQ(out, y);

  // With noise every spike is still found, and the repaired spectrum stays within a few noise widths of
  // the clean one (noise may add a few harmless detections).
  std::mt19937 g(11);
  std::normal_distribution<double> noise(0, 1);
  std::vector<float> clean(n);
  for (int i = 0; i < n; ++i) {
    clean[i] = static_cast<float>(100 + 40 * std::exp(-0.5 * std::pow((i - 200) / 15.0, 2)) + noise(g));
    y[i] = clean[i];
  }
  for (int i : spikes) y[i] += 300;
  const int found = removal.Filter(y.data(), out.data());
  EXPECT_GE(found, static_cast<int>(spikes.size()));
  EXPECT_LE(found, static_cast<int>(spikes.size()) + n / 20);
  for (int i : spikes) EXPECT_TRUE(removal.Spikes()[i]) << i;
  for (int i = 0; i < n; ++i) EXPECT_NEAR(out[i], clean[i], 5.0) << i;
}

TEST(SpikeRemoval, MedianOfNeighbourSpectraAndTheirChoice) {
  const int n = 50;
  std::vector<float> y(n, 10.0f), left(n), right(n), out(n);
  for (int i = 0; i < n; ++i) {
    left[i] = 9.0f + (i % 3);
    right[i] = 11.0f - (i % 2);
    y[i] = 10.0f + 0.1f * (i % 4);
  }
  y[20] = 500;
  y[21] = 400;
  TSpikeRemovalSettings s;
  s.Interpolation = TSpikeInterpolation::NeighborSpectraMedian;
  TSpikeRemoval removal(n, s);
  EXPECT_EQ(removal.Filter(y.data(), out.data(), left.data(), right.data()), 2);
  EXPECT_EQ(out[20], std::max(left[20], right[20])); // median of 500 and the two neighbours
  EXPECT_EQ(out[21], std::max(left[21], right[21]));
  EXPECT_EQ(out[5], y[5]);
  // Without neighbours the median setting falls back to the line.
  EXPECT_EQ(removal.Filter(y.data(), out.data()), 2);
  EXPECT_FLOAT_EQ(out[20], y[19] + (y[22] - y[19]) / 3.0f);

  int a = -1, b = -1;
  ASSERT_TRUE(SpikeNeighbourPixels(0, 6, a, b));
  EXPECT_EQ(std::pair(a, b), std::pair(1, 2));
  ASSERT_TRUE(SpikeNeighbourPixels(5, 6, a, b));
  EXPECT_EQ(std::pair(a, b), std::pair(4, 3));
  ASSERT_TRUE(SpikeNeighbourPixels(3, 6, a, b));
  EXPECT_EQ(std::pair(a, b), std::pair(2, 4));
  EXPECT_FALSE(SpikeNeighbourPixels(2, 4, a, b)); // narrower than 5: linear repair
}

TEST(SpikeRemoval, ShortSpectraAndWholeRuns) {
  // A spectrum shorter than the window: the window shrinks to the spectrum.
  std::vector<float> y = {1, 1, 60, 1}, out(4);
  TSpikeRemovalSettings s;
  s.FilterSize = 4;
  TSpikeRemoval removal(4, s);
  EXPECT_EQ(removal.Filter(y.data(), out.data()), 0); // sorted index 4 is the largest value: r <= 1
  s.FilterSize = 1;
  TSpikeRemoval small(4, s);
  EXPECT_EQ(small.Filter(y.data(), out.data()), 1);
  EXPECT_EQ(out, (std::vector<float>{1, 1, 1, 1}));

  const bool all[3] = {true, true, true}, ends[5] = {true, true, false, true, true};
  std::vector<float> v = {4, 5, 6, 7, 8}, r(5);
  ReplaceSpikesLinear(v.data(), all, r.data(), 3);
  EXPECT_EQ(std::vector<float>(r.begin(), r.begin() + 3), (std::vector<float>{4, 4, 4}));
  ReplaceSpikesLinear(v.data(), ends, v.data(), 5); // in place
  EXPECT_EQ(v, (std::vector<float>{6, 6, 6, 6, 6}));
  EXPECT_THROW(TSpikeRemoval(0, TSpikeRemovalSettings{}), OrvexException);
}

TEST(NeighbourhoodFilter, SpectralAverageAndMedianOnKnownArrays) {
  const std::vector<float> w = NormalisedBinomialWeights(2);
  EXPECT_EQ(w, (std::vector<float>{1 / 16.f, 4 / 16.f, 6 / 16.f, 4 / 16.f, 1 / 16.f}));

  const int n = 6;
  const std::vector<float> y = {4, 8, 0, 2, 10, 6};
  std::vector<float> out(n);
  TSpectrumNeighbourhoodFilter copy(TNeighbourhoodFilterKind::BinomialAverage, n, 0, 0);
  copy.FilterSpectral(y.data(), out.data());
  EXPECT_EQ(out, y); // both sizes 0 copy the data
  TSpectrumNeighbourhoodFilter avg(TNeighbourhoodFilterKind::BinomialAverage, n, 1, 0);
  avg.FilterSpectral(y.data(), out.data());
  EXPECT_FLOAT_EQ(out[0], (2 * 4 + 8) / 3.0f); // the weights of channel -1 are left out of the sum
  EXPECT_FLOAT_EQ(out[2], (8 + 0 + 2) / 4.0f);
  EXPECT_FLOAT_EQ(out[5], (10 + 2 * 6) / 3.0f);

  TSpectrumNeighbourhoodFilter med(TNeighbourhoodFilterKind::Median, n, 1, 0);
  med.FilterSpectral(y.data(), out.data());
  EXPECT_EQ(out, (std::vector<float>{4, 4, 2, 2, 6, 6})); // two values at the ends: the pixel's own
  TSpectrumNeighbourhoodFilter med2(TNeighbourhoodFilterKind::Median, n, 2, 0);
  med2.FilterSpectral(y.data(), out.data());
  // Channel 0: {4, 8, 0} -> 4; channel 1: {4, 8, 0, 2} -> (2 + 4) / 2; channel 2: all five -> 4.
  EXPECT_EQ(out[0], 4);
  EXPECT_EQ(out[1], 3);
  EXPECT_EQ(out[2], 4);

  // The five-value network against selection on data full of ties.
  std::mt19937 g(3);
  std::uniform_int_distribution<int> u(0, 3);
  std::vector<float> r(300), o(300);
  for (float& v : r) v = static_cast<float>(u(g));
  TSpectrumNeighbourhoodFilter long5(TNeighbourhoodFilterKind::Median, 300, 2, 0);
  long5.FilterSpectral(r.data(), o.data());
  for (int i = 2; i < 298; ++i) {
    std::vector<float> window(r.begin() + i - 2, r.begin() + i + 3);
    EXPECT_EQ(o[i], STCalculateMedian(window.data(), 5, true)) << i;
  }
}

TEST(NeighbourhoodFilter, SpatialWindowsMatchBruteForceWithEdgesAndInvalidLines) {
  TStack s(5, 6, 12, 21);
  s.ValidLine[2] = false;
  for (auto kind : {TNeighbourhoodFilterKind::BinomialAverage, TNeighbourhoodFilterKind::Median})
    for (auto [a, b] : {std::pair{0, 1}, {1, 1}, {2, 2}, {1, 0}}) {
      TSpectrumNeighbourhoodFilter filter(kind, s.N, a, b);
      TSpectrumLineRing ring(s.SizeX, s.SizeY, s.N, b);
      std::vector<float> out(s.N);
      for (int y = 0; y < s.SizeY; ++y) {
        ring.Advance(y, [&](int line, float* buffer) { return s.Read(line, buffer); });
        for (int x = 0; x < s.SizeX; ++x) {
          filter.Filter(ring, x, y, out.data());
          for (int i = 0; i < s.N; ++i)
            ASSERT_NEAR(out[i], BruteForce(s, kind, a, b, x, y, i), 1e-5)
                << int(kind) << " a " << a << " b " << b << " at " << x << "," << y << "," << i;
        }
      }
    }
}

TEST(NeighbourhoodFilter, RingReadsEachLineOnceAndSplitRunsAgree) {
  TStack s(4, 9, 16, 8);
  s.ValidLine[4] = false;
  const size_t lineSize = static_cast<size_t>(s.SizeX) * s.N;
  auto run = [&](int first, int last, std::vector<float>& result, std::map<int, int>& reads) {
    TSpectrumNeighbourhoodFilter filter(TNeighbourhoodFilterKind::BinomialAverage, s.N, 1, 2);
    TSpectrumLineRing ring(s.SizeX, s.SizeY, s.N, 2);
    return FilterSpectrumLines(
        filter, ring, first, last,
        [&](int line, float* buffer) {
          ++reads[line];
          return s.Read(line, buffer);
        },
        [&](int line, const float* values) {
          std::copy(values, values + lineSize, result.begin() + line * lineSize);
          return true;
        });
  };
  std::vector<float> whole(s.Values.size()), split(s.Values.size());
  std::map<int, int> readsWhole, readsA, readsB;
  ASSERT_TRUE(run(0, s.SizeY - 1, whole, readsWhole));
  for (int y = 0; y < s.SizeY; ++y) EXPECT_EQ(readsWhole[y], 1) << y;
  // Two threads on two blocks of lines: each reads its lines and the 2 b lines beyond its block once.
  std::thread t([&] { run(0, 3, split, readsA); });
  run(4, s.SizeY - 1, split, readsB);
  t.join();
  EXPECT_EQ(whole, split);
  EXPECT_EQ(readsA.size(), 6u);
  EXPECT_EQ(readsB.size(), 7u);

  // A writer that refuses stops the run after the first line.
  TSpectrumNeighbourhoodFilter filter(TNeighbourhoodFilterKind::Median, s.N, 1, 1);
  TSpectrumLineRing ring(s.SizeX, s.SizeY, s.N, 1);
  int written = 0;
  EXPECT_FALSE(FilterSpectrumLines(
      filter, ring, 0, s.SizeY - 1, [&](int line, float* buffer) { return s.Read(line, buffer); },
      [&](int, const float*) { return ++written < 1; }));
  EXPECT_EQ(written, 1);
  // A ring too small for the filter is a programming error.
  TSpectrumLineRing narrow(s.SizeX, s.SizeY, s.N, 0);
  EXPECT_THROW(FilterSpectrumLines(
                   filter, narrow, 0, 1, [&](int line, float* buffer) { return s.Read(line, buffer); },
                   [&](int, const float*) { return true; }),
               OrvexException);
}
