// The line-by-line driver of the spectrum filters: every mode gives what its kernel gives spectrum by
// spectrum, blocks of lines on two threads give the same bytes as one run, spike repair takes its median
// neighbours from the line, refused settings raise.
#include "common/numerics/Graphfilterlines.h"

#include "common/OrvexException.h"
#include "common/numerics/Wavelets.h"

#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr int kSizeX = 6, kSizeY = 5, kLength = 64;
constexpr size_t kLine = static_cast<size_t>(kSizeX) * kLength;

std::vector<float> MakeStack() {
  std::vector<float> stack(kLine * kSizeY);
  std::mt19937 g(4);
  std::normal_distribution<double> noise(0, 1);
  for (int y = 0; y < kSizeY; ++y)
    for (int x = 0; x < kSizeX; ++x)
      for (int i = 0; i < kLength; ++i)
        stack[y * kLine + x * kLength + i] =
            static_cast<float>(20 + x + 30 * std::exp(-0.5 * std::pow((i - 30 - y) / 3.0, 2)) + noise(g));
  return stack;
}

// Runs the lines first..last into result; returns whether the run finished.
bool RunLines(const TGraphFilterSettings& settings, const std::vector<float>& stack,
              std::vector<float>& result, int first, int last, int invalidLine = -1) {
  TGraphFilterLines lines(settings, kSizeX, kSizeY, kLength);
  return lines.FilterLines(
      first, last,
      [&](int line, float* buffer) {
        std::copy(stack.begin() + line * kLine, stack.begin() + (line + 1) * kLine, buffer);
        return line != invalidLine;
      },
      [&](int line, const float* values) {
        std::copy(values, values + kLine, result.begin() + line * kLine);
        return true;
      });
}

std::vector<TGraphFilterSettings> AllModes() {
  std::vector<TGraphFilterSettings> all;
  for (int mode = 0; mode <= 4; ++mode) {
    TGraphFilterSettings s;
    s.Mode = static_cast<TGraphFilterMode>(mode);
    s.Spikes.Interpolation = TSpikeInterpolation::NeighborSpectraMedian;
    s.AverageSpatial = 1;
    s.MedianSpatial = 1;
    all.push_back(s);
  }
  return all;
}

} // namespace

TEST(GraphFilterLines, EachModeMatchesItsKernel) {
  const std::vector<float> stack = MakeStack();
  std::vector<float> result(stack.size()), expected(stack.size());
  for (const TGraphFilterSettings& s : AllModes()) {
    ASSERT_TRUE(RunLines(s, stack, result, 0, kSizeY - 1, 2));
    switch (s.Mode) {
    case TGraphFilterMode::SavitzkyGolay: {
      const TGolayFilter golay(5, 5, 0, 4);
      for (size_t e = 0; e < stack.size() / kLength; ++e)
        golay.FaltungWithMirrorPeriodicInterval(stack.data() + e * kLength, expected.data() + e * kLength,
                                                kLength);
      break;
    }
    case TGraphFilterMode::WaveletNoise: {
      TWaveletNoiseFilter wavelet(kLength, TWaveletKind::Symlet16Taps, 0.5);
      for (size_t e = 0; e < stack.size() / kLength; ++e)
        wavelet.DoFilter(stack.data() + e * kLength, expected.data() + e * kLength);
      break;
    }
    case TGraphFilterMode::SpikeRemoval: {
      TSpikeRemoval spikes(kLength, s.Spikes);
      for (int y = 0; y < kSizeY; ++y)
        for (int x = 0; x < kSizeX; ++x) {
          int a = 0, b = 0;
          ASSERT_TRUE(SpikeNeighbourPixels(x, kSizeX, a, b));
          const float* line = stack.data() + y * kLine;
          spikes.Filter(line + x * kLength, expected.data() + y * kLine + x * kLength, line + a * kLength,
                        line + b * kLength);
        }
      break;
    }
    default: {
      // The neighbourhood filters through their own line helper, line 2 invalid in both.
      const bool median = s.Mode == TGraphFilterMode::Median;
      TSpectrumNeighbourhoodFilter filter(median ? TNeighbourhoodFilterKind::Median
                                                 : TNeighbourhoodFilterKind::BinomialAverage,
                                          kLength, 1, 1);
      TSpectrumLineRing ring(kSizeX, kSizeY, kLength, 1);
      ASSERT_TRUE(FilterSpectrumLines(
          filter, ring, 0, kSizeY - 1,
          [&](int line, float* buffer) {
            std::copy(stack.begin() + line * kLine, stack.begin() + (line + 1) * kLine, buffer);
            return line != 2;
          },
          [&](int line, const float* values) {
            std::copy(values, values + kLine, expected.begin() + line * kLine);
            return true;
          }));
    }
    }
    EXPECT_EQ(result, expected) << "mode " << static_cast<int>(s.Mode);
    EXPECT_NE(result, stack) << "mode " << static_cast<int>(s.Mode);
  }
}

TEST(GraphFilterLines, BlocksOnTwoThreadsGiveTheSameBytes) {
  const std::vector<float> stack = MakeStack();
  for (const TGraphFilterSettings& s : AllModes()) {
    std::vector<float> one(stack.size()), two(stack.size());
    ASSERT_TRUE(RunLines(s, stack, one, 0, kSizeY - 1));
    std::thread t([&] { RunLines(s, stack, two, 0, 1); });
    RunLines(s, stack, two, 2, kSizeY - 1);
    t.join();
    EXPECT_EQ(one, two) << "mode " << static_cast<int>(s.Mode);
  }
}

TEST(GraphFilterLines, SpikeTakesTheMedianOfItsLineNeighboursAndBadSettingsRaise) {
  std::vector<float> stack = MakeStack(), result(stack.size());
  TGraphFilterSettings s = AllModes()[0];
  const size_t at = 3 * kLine + 2 * kLength + 10; // spectrum (2, 3), channel 10
  stack[at] += 500;
  ASSERT_TRUE(RunLines(s, stack, result, 0, kSizeY - 1));
  const float left = stack[at - kLength], right = stack[at + kLength];
  EXPECT_EQ(result[at], std::max(left, right)); // the median of the spike and its two neighbours
  s.Spikes.Interpolation = TSpikeInterpolation::NeighborPixelsLinear;
  ASSERT_TRUE(RunLines(s, stack, result, 0, kSizeY - 1));
  EXPECT_FLOAT_EQ(result[at], (stack[at - 1] + stack[at + 1]) / 2);

  TGraphFilterSettings golay;
  golay.Mode = TGraphFilterMode::SavitzkyGolay;
  golay.GolayLeft = 2;
  golay.GolayRight = 1;
  EXPECT_THROW(TGraphFilterLines(golay, kSizeX, kSizeY, kLength), OrvexException); // 4 points, order 4
  TGraphFilterSettings wavelet;
  wavelet.Mode = TGraphFilterMode::WaveletNoise;
  EXPECT_THROW(TGraphFilterLines(wavelet, kSizeX, kSizeY, 8), OrvexException);
  // A writer that refuses stops the run.
  TGraphFilterLines lines(TGraphFilterSettings{}, kSizeX, kSizeY, kLength);
  int written = 0;
  EXPECT_FALSE(lines.FilterLines(
      0, kSizeY - 1,
      [&](int line, float* buffer) {
        std::copy(stack.begin() + line * kLine, stack.begin() + (line + 1) * kLine, buffer);
        return true;
      },
      [&](int, const float*) { return ++written < 2; }));
  EXPECT_EQ(written, 2);
}
