// Blocked symmetric rank-k update: exact agreement with a plain loop at every tile and panel edge, the
// rounding bound of the single-precision partial sums, thread invariance and the dealing of tiles.
#include "common/numerics/Rankupdate.h"

#include "common/OrvexException.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr double kCanary = 12345.25; // marks elements that must stay untouched

// Small integers: every product and every partial sum is exact in float, so both forms must give the
// double reference bit for bit.
std::vector<float> IntegerSpectra(int k, int m, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> dist(-8, 8);
  std::vector<float> b(static_cast<std::size_t>(k) * m);
  for (float& x : b) x = static_cast<float>(dist(gen));
  return b;
}

std::vector<double> Reference(const std::vector<float>& b, int k, int m) {
  std::vector<double> c(static_cast<std::size_t>(m) * m, 0.0);
  for (int s = 0; s < k; ++s)
    for (int r = 0; r < m; ++r)
      for (int col = 0; col <= r; ++col)
        c[r * m + col] += static_cast<double>(b[s * m + r]) * static_cast<double>(b[s * m + col]);
  return c;
}

std::vector<double> RunUpdate(const std::vector<float>& b, int k, int m, TKernelPath path, int threads,
                              int maxBlock = 0) {
  TSymmetricRankUpdate update(m, maxBlock > 0 ? maxBlock : k, path);
  std::vector<double> c(static_cast<std::size_t>(m) * m, kCanary);
  for (int r = 0; r < m; ++r)
    for (int col = 0; col <= r; ++col) c[r * m + col] = 0.0;
  update.LoadBlock(b.data(), k, m);
  update.UpdateAllTiles(c.data(), m, threads);
  return c;
}

} // namespace

TEST(SymmetricRankUpdate, MatchesPlainLoopAtTileAndPanelEdges) {
  // Point counts around the micro-tile edges (4, 24) and the tile edge (96); block lengths around the
  // length of the float partial sums (32) and its multiples.
  const int sizes[][2] = {{1, 1},   {3, 3},     {4, 256},  {5, 257},  {23, 63},  {24, 64},
                          {25, 65}, {16, 1},    {49, 300}, {95, 20},  {96, 513}, {97, 64},
                          {193, 9}, {250, 260}, {7, 31},   {191, 95}, {98, 33}};
  // Auto takes the 32-register column form where the processor has it, Vector16 the 16-register form.
  for (TKernelPath path : {TKernelPath::Auto, TKernelPath::Vector16, TKernelPath::Plain}) {
    for (const auto& size : sizes) {
      const int m = size[0], k = size[1];
      const std::vector<float> b = IntegerSpectra(k, m, 100u + m * 7u + k);
      const std::vector<double> ref = Reference(b, k, m);
      const std::vector<double> c = RunUpdate(b, k, m, path, 2);
      int wrong = 0, touched = 0;
      for (int r = 0; r < m; ++r)
        for (int col = 0; col < m; ++col) {
          if (col <= r && c[r * m + col] != ref[r * m + col]) ++wrong;
          if (col > r && c[r * m + col] != kCanary) ++touched;
        }
      EXPECT_EQ(wrong, 0) << "m=" << m << " k=" << k << " path=" << static_cast<int>(path);
      EXPECT_EQ(touched, 0) << "m=" << m << " k=" << k << " path=" << static_cast<int>(path);
    }
  }
}

TEST(SymmetricRankUpdate, ShortPartialSumsBoundTheRounding) {
  // One block of 65536 equal spectra of 1 + 2^-11: a float sum over the whole block would drift by about
  // 5e-4 relative (past 2^15 each addition loses 2^-10); short partial sums stay near 1e-7.
  const int m = 20, k = 65536, blocks = 2;
  const float value = 1.0f + 1.0f / 2048.0f;
  const std::vector<float> b(static_cast<std::size_t>(k) * m, value);
  const double exact = static_cast<double>(k) * blocks * static_cast<double>(value) * value;
  for (TKernelPath path : {TKernelPath::Auto, TKernelPath::Plain}) {
    TSymmetricRankUpdate update(m, k, path);
    std::vector<double> c(m * m, 0.0);
    for (int i = 0; i < blocks; ++i) {
      update.LoadBlock(b.data(), k, m);
      update.UpdateAllTiles(c.data(), m, 1);
    }
    for (int r = 0; r < m; ++r)
      for (int col = 0; col <= r; ++col)
        EXPECT_LE(std::fabs(c[r * m + col] - exact), 2e-5 * exact) << r << "," << col;
  }
}

TEST(SymmetricRankUpdate, RandomDataWithinSinglePrecisionBound) {
  const int m = 130, k = 700;
  std::mt19937 gen(9);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> b(static_cast<std::size_t>(k) * m);
  for (float& x : b) x = dist(gen);
  const std::vector<double> ref = Reference(b, k, m);
  std::vector<double> absSum(static_cast<std::size_t>(m) * m, 0.0);
  for (int s = 0; s < k; ++s)
    for (int r = 0; r < m; ++r)
      for (int col = 0; col <= r; ++col)
        absSum[r * m + col] += std::fabs(double(b[s * m + r]) * b[s * m + col]);
  for (TKernelPath path : {TKernelPath::Auto, TKernelPath::Plain}) {
    const std::vector<double> c = RunUpdate(b, k, m, path, 2);
    double worst = 0;
    for (int r = 0; r < m; ++r)
      for (int col = 0; col <= r; ++col)
        worst = std::max(worst, std::fabs(c[r * m + col] - ref[r * m + col]) / absSum[r * m + col]);
    // Each float partial sum carries at most one rounding of 2^-24 relative per product and per addition.
    EXPECT_LE(worst, 2.0 * TSymmetricRankUpdate::MaxSpectraPerPartialSum * 6e-8)
        << "plain=" << (path == TKernelPath::Plain);
    EXPECT_GT(worst, 0.0) << "products are formed in single precision";
  }
}

TEST(SymmetricRankUpdate, ThreadCountAndBlockSplitDoNotChangeTheSum) {
  const int m = 211, k = 600;
  std::mt19937 gen(4);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> b(static_cast<std::size_t>(k) * m);
  for (float& x : b) x = dist(gen);
  const std::vector<double> one = RunUpdate(b, k, m, TKernelPath::Auto, 1);
  for (int threads : {2, 3, 7, 40}) EXPECT_EQ(RunUpdate(b, k, m, TKernelPath::Auto, threads), one) << threads;

  // Two blocks in turn add up to the single block (exact data, so the split cannot change a bit).
  const std::vector<float> ints = IntegerSpectra(k, m, 21);
  const std::vector<double> whole = RunUpdate(ints, k, m, TKernelPath::Auto, 2);
  TSymmetricRankUpdate update(m, 400);
  std::vector<double> c(static_cast<std::size_t>(m) * m, kCanary);
  for (int r = 0; r < m; ++r)
    for (int col = 0; col <= r; ++col) c[r * m + col] = 0.0;
  update.LoadBlock(ints.data(), 400, m);
  update.UpdateAllTiles(c.data(), m, 2);
  update.LoadBlock(ints.data() + 400 * m, k - 400, m);
  update.UpdateAllTiles(c.data(), m, 2);
  EXPECT_EQ(c, whole);
}

TEST(SymmetricRankUpdate, SpectraLoadedConcurrentlyAndFromDoubles) {
  const int m = 100, k = 64;
  const std::vector<float> b = IntegerSpectra(k, m, 77);
  std::vector<double> bd(b.begin(), b.end());
  TSymmetricRankUpdate update(m, k);
  update.SetBlockLength(k);
  std::vector<std::thread> loaders;
  for (int t = 0; t < 4; ++t)
    loaders.emplace_back([&, t]() {
      for (int s = t; s < k; s += 4) update.LoadSpectrum(s, bd.data() + s * m);
    });
  for (std::thread& t : loaders) t.join();
  std::vector<double> c(static_cast<std::size_t>(m) * m, 0.0);
  update.UpdateAllTiles(c.data(), m, 2);
  TSymmetricRankUpdate::MirrorLowerToUpper(c.data(), m, m);
  const std::vector<double> ref = Reference(b, k, m);
  for (int r = 0; r < m; ++r)
    for (int col = 0; col <= r; ++col) {
      ASSERT_EQ(c[r * m + col], ref[r * m + col]);
      ASSERT_EQ(c[col * m + r], ref[r * m + col]);
    }
}

TEST(SymmetricRankUpdate, WritesOnlyTheLowerTriangleOfACornerOfALargerMatrix) {
  const int m = 101, k = 70, ldc = 113;
  const std::vector<float> b = IntegerSpectra(k, m, 5);
  const std::vector<double> ref = Reference(b, k, m);
  TSymmetricRankUpdate update(m, k);
  update.LoadBlock(b.data(), k, m);
  std::vector<double> c(static_cast<std::size_t>(ldc) * ldc, kCanary);
  for (int r = 0; r < m; ++r)
    for (int col = 0; col <= r; ++col) c[r * ldc + col] = 0.0;
  for (int t = update.TileCount() - 1; t >= 0; --t) update.UpdateTile(t, c.data(), ldc); // any order
  for (int r = 0; r < ldc; ++r)
    for (int col = 0; col < ldc; ++col) {
      if (r < m && col <= r)
        ASSERT_EQ(c[r * ldc + col], ref[r * m + col]) << r << "," << col;
      else
        ASSERT_EQ(c[r * ldc + col], kCanary) << r << "," << col;
    }
  TSymmetricRankUpdate::MirrorLowerToUpper(c.data(), m, ldc);
  for (int r = 0; r < m; ++r)
    for (int col = r + 1; col < m; ++col) ASSERT_EQ(c[r * ldc + col], ref[col * m + r]);
  EXPECT_EQ(c[m * ldc + m], kCanary);
}

TEST(SymmetricRankUpdate, TilesAreDealtEvenlyAndExactlyOnce) {
  for (int m : {1, 95, 96, 97, 500, 1024}) {
    TSymmetricRankUpdate update(m, 1);
    const int tiles = update.TileCount();
    long long total = 0, largest = 0;
    for (int t = 0; t < tiles; ++t) {
      int row, column;
      update.TileOrigin(t, row, column);
      EXPECT_LE(column, row);
      EXPECT_LT(row, m);
      total += update.TileWork(t);
      largest = std::max(largest, update.TileWork(t));
    }
    EXPECT_EQ(total, static_cast<long long>(m) * (m + 1) / 2) << m;
    for (int threads : {1, 2, 3, 8}) {
      std::vector<int> owner(tiles, -1);
      int expectedFirst = 0;
      for (int th = 0; th < threads; ++th) {
        int first, last;
        update.ThreadTileRange(th, threads, first, last);
        if (first > last) continue;
        EXPECT_EQ(first, expectedFirst) << "ranges follow each other";
        expectedFirst = last + 1;
        long long work = 0;
        for (int t = first; t <= last; ++t) {
          EXPECT_EQ(owner[t], -1);
          owner[t] = th;
          work += update.TileWork(t);
        }
        EXPECT_LE(std::llabs(work - total / threads), largest) << "m=" << m << " threads=" << threads;
      }
      EXPECT_EQ(std::count(owner.begin(), owner.end(), -1), 0) << "m=" << m << " threads=" << threads;
    }
  }
}

TEST(SymmetricRankUpdate, RefusesBadSizesAndIndices) {
  EXPECT_THROW(TSymmetricRankUpdate(0, 10), OrvexException);
  EXPECT_THROW(TSymmetricRankUpdate(10, 0), OrvexException);
  TSymmetricRankUpdate update(10, 5);
  std::vector<double> c(100, 0.0);
  EXPECT_THROW(update.UpdateTile(0, c.data(), 10), OrvexException); // nothing loaded
  EXPECT_THROW(update.SetBlockLength(0), OrvexException);
  EXPECT_THROW(update.SetBlockLength(6), OrvexException);
  update.SetBlockLength(3);
  std::vector<float> x(10, 1.0f);
  EXPECT_THROW(update.LoadSpectrum(3, x.data()), OrvexException);
  EXPECT_THROW(update.LoadSpectrum(-1, x.data()), OrvexException);
  EXPECT_THROW(update.UpdateTile(update.TileCount(), c.data(), 10), OrvexException);
  int first, last;
  EXPECT_THROW(update.ThreadTileRange(2, 2, first, last), OrvexException);
}
