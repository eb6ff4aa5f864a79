// Image background subtraction: exact polynomials removed (least squares in general: the numpy check),
// invalid lines left alone, mean removal at order 0, non-finite pixels named, refused parameters, and the
// same result whatever the split of the lines among threads.
#include "common/numerics/Imagebackground.h"

#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Image {
  int nx, ny;
  std::vector<float> data;
  std::unique_ptr<bool[]> valid;
  Image(int x, int y, const std::function<double(int, int)>& f)
      : nx(x), ny(y), data(x * y), valid(new bool[y]) {
    for (int j = 0; j < ny; ++j) {
      valid[j] = true;
      for (int i = 0; i < nx; ++i) data[j * nx + i] = static_cast<float>(f(i, j));
    }
  }
  float At(int x, int y) const { return data[y * nx + x]; }
  float& At(int x, int y) { return data[y * nx + x]; }
};

double Noise(int x, int y) {
  std::mt19937 g(static_cast<unsigned>(x * 7919 + y * 104729 + 17));
  return std::uniform_real_distribution<double>(-1.0, 1.0)(g);
}

// A polynomial in the pixel indices with every term i + j <= order present.
double Poly(int order, int x, int y) {
  static const double a[4][4] = {
      {12.5, -0.8, 0.03, -2e-4}, {0.6, 0.01, -1e-3, 0}, {-0.02, 4e-4, 0, 0}, {3e-4, 0, 0, 0}};
  double s = 0;
  for (int i = 0; i <= order; ++i)
    for (int j = 0; i + j <= order; ++j) s += a[i][j] * std::pow(x, i) * std::pow(y, j);
  return s;
}

double MaxAbs(const std::vector<float>& v) {
  double m = 0;
  for (float f : v) m = std::max(m, double(std::fabs(f)));
  return m;
}

} // namespace

TEST(ImageBackground, SurfaceRemovesExactPolynomialsOfEveryOrder) {
  for (int order = 0; order <= 3; ++order) {
    SCOPED_TRACE(order);
    Image img(53, 41, [&](int x, int y) { return Poly(order, x, y); });
    std::vector<float> out(img.data.size(), -999.0f);
    TImageBackgroundSubtraction k;
    ASSERT_TRUE(k.Prepare(TImageBackgroundMode::Surface, order, img.nx, img.ny, img.valid.get()).Ok());
    ASSERT_TRUE(k.Run(img.data.data(), out.data()).Ok());
    // Float input rounding is about 1e-7 of the values (up to ~60 here), so 1e-4 relative is ample.
    EXPECT_LT(MaxAbs(out), 1e-4 * MaxAbs(img.data));
    for (int y : {0, 17, 40})
      for (int x : {0, 26, 52}) EXPECT_NEAR(k.Background(x, y), Poly(order, x, y), 1e-4 * MaxAbs(img.data));
  }
}

TEST(ImageBackground, WideLinesSummedInBlocksKeepTheirAccuracy) {
  // Lines are summed in blocks of 256 pixels with a scalar tail: 1029 = 4 blocks + 5 pixels.
  for (auto mode : {TImageBackgroundMode::Surface, TImageBackgroundMode::Lines}) {
    Image img(1029, 9,
              [](int x, int y) { return 40.0 + 0.02 * x - 3e-5 * x * x + 2e-8 * x * x * x + 0.5 * y; });
    std::vector<float> out(img.data.size());
    ASSERT_TRUE(SubtractImageBackground(img.data.data(), out.data(), nullptr, img.nx, img.ny, mode, 3).Ok());
    EXPECT_LT(MaxAbs(out), 1e-4 * MaxAbs(img.data));
  }
}

TEST(ImageBackground, SurfaceOfLowerOrderLeavesTheHigherTerm) {
  // x*y is outside the order-1 space: the residual must keep it (minus its best plane), not vanish.
  Image img(20, 20, [](int x, int y) { return double(x) * y; });
  std::vector<float> out(img.data.size());
  ASSERT_TRUE(
      SubtractImageBackground(img.data.data(), out.data(), nullptr, 20, 20, TImageBackgroundMode::Surface, 1)
          .Ok());
  // Closed form: x*y minus its plane fit on the symmetric grid is (x - 9.5)(y - 9.5) exactly.
  for (int y = 0; y < 20; y += 3)
    for (int x = 0; x < 20; x += 4) EXPECT_NEAR(out[y * 20 + x], (x - 9.5) * (y - 9.5), 1e-3);
}

TEST(ImageBackground, LinesRemoveEachRowsOwnPolynomial) {
  for (int order = 0; order <= 3; ++order) {
    SCOPED_TRACE(order);
    // Every row a different polynomial in x, unrelated between rows.
    auto rowPoly = [&](int x, int y) {
      double s = 0, xp = 1;
      for (int i = 0; i <= order; ++i, xp *= x) s += (Noise(i, y) * 10.0 / std::pow(30.0, i)) * xp;
      return s;
    };
    Image img(61, 9, rowPoly);
    std::vector<float> out(img.data.size(), -999.0f);
    ASSERT_TRUE(SubtractImageBackground(img.data.data(), out.data(), nullptr, img.nx, img.ny,
                                        TImageBackgroundMode::Lines, order)
                    .Ok());
    EXPECT_LT(MaxAbs(out), 1e-4 * MaxAbs(img.data));
  }
}

TEST(ImageBackground, OrderZeroRemovesTheMean) {
  Image img(31, 17, [](int x, int y) { return 100.0 + 7.0 * Noise(x, y); });
  img.valid[0] = img.valid[16] = false;
  double mean = 0;
  int n = 0;
  std::vector<double> rowMean(img.ny, 0.0);
  for (int y = 1; y < 16; ++y)
    for (int x = 0; x < img.nx; ++x) mean += img.At(x, y), rowMean[y] += img.At(x, y) / img.nx, ++n;
  mean /= n;
  std::vector<float> surface(img.data.size()), lines(img.data.size());
  ASSERT_TRUE(SubtractImageBackground(img.data.data(), surface.data(), img.valid.get(), img.nx, img.ny,
                                      TImageBackgroundMode::Surface, 0)
                  .Ok());
  ASSERT_TRUE(SubtractImageBackground(img.data.data(), lines.data(), img.valid.get(), img.nx, img.ny,
                                      TImageBackgroundMode::Lines, 0)
                  .Ok());
  for (int y = 1; y < 16; ++y)
    for (int x = 0; x < img.nx; x += 5) {
      EXPECT_NEAR(surface[y * img.nx + x], img.At(x, y) - mean, 2e-5);
      EXPECT_NEAR(lines[y * img.nx + x], img.At(x, y) - rowMean[y], 2e-5);
    }
}

TEST(ImageBackground, InvalidLinesAreNeitherReadNorChanged) {
  for (auto mode : {TImageBackgroundMode::Surface, TImageBackgroundMode::Lines}) {
    Image img(24, 12, [](int x, int y) { return Poly(2, x, y); });
    // Garbage, NaN included, on the invalid lines: the fit must not see it.
    for (int y : {2, 7}) {
      img.valid[y] = false;
      for (int x = 0; x < img.nx; ++x) img.At(x, y) = x == 3 ? NAN : 1e6f + x;
    }
    const std::vector<float> original = img.data;
    // Separate output: invalid lines copied unchanged.
    std::vector<float> out(img.data.size(), -999.0f);
    ASSERT_TRUE(
        SubtractImageBackground(img.data.data(), out.data(), img.valid.get(), img.nx, img.ny, mode, 2).Ok());
    // In place: invalid lines untouched.
    ASSERT_TRUE(
        SubtractImageBackground(img.data.data(), img.data.data(), img.valid.get(), img.nx, img.ny, mode, 2)
            .Ok());
    for (int y = 0; y < img.ny; ++y)
      for (int x = 0; x < img.nx; ++x) {
        const size_t e = y * img.nx + x;
        if (y == 2 || y == 7) {
          EXPECT_EQ(std::isnan(out[e]), std::isnan(original[e]));
          if (!std::isnan(original[e])) {
            EXPECT_EQ(out[e], original[e]);
            EXPECT_EQ(img.data[e], original[e]);
          }
        } else {
          EXPECT_NEAR(out[e], 0.0f, 1e-3);
          EXPECT_EQ(img.data[e], out[e]);
        }
      }
  }
}

TEST(ImageBackground, NonFinitePixelIsNamed) {
  for (auto mode : {TImageBackgroundMode::Surface, TImageBackgroundMode::Lines}) {
    for (float bad : {NAN, INFINITY, -INFINITY}) {
      Image img(16, 10, [](int x, int y) { return x + 2.0 * y; });
      img.At(5, 6) = bad;
      img.At(9, 8) = NAN; // a later one: the first is reported
      std::vector<float> out(img.data.size(), -999.0f);
      const TImageBackgroundStatus s =
          SubtractImageBackground(img.data.data(), out.data(), nullptr, img.nx, img.ny, mode, 1);
      EXPECT_EQ(s.Code, TImageBackgroundCode::NotFinite);
      EXPECT_EQ(s.X, 5);
      EXPECT_EQ(s.Y, 6);
      EXPECT_EQ(s.Text(), "pixel x = 5, y = 6 is not a finite number");
      // Surface fails before anything is written; Lines has done the lines before and nothing after.
      for (int y = 0; y < img.ny; ++y) {
        const bool written = mode == TImageBackgroundMode::Lines && y < 6;
        EXPECT_EQ(out[y * img.nx] != -999.0f, written) << "line " << y;
      }
    }
  }
}

TEST(ImageBackground, HugeFiniteValuesAreNotTakenForNonFinite) {
  // 1e38 summed over a few pixels overflows a float: the kernel must still see only finite pixels.
  for (auto mode : {TImageBackgroundMode::Surface, TImageBackgroundMode::Lines}) {
    Image img(300, 3, [](int, int) { return 1e38; });
    std::vector<float> out(img.data.size(), -999.0f);
    const TImageBackgroundStatus s =
        SubtractImageBackground(img.data.data(), out.data(), nullptr, img.nx, img.ny, mode, 0);
    ASSERT_TRUE(s.Ok()) << s.Text();
    EXPECT_LT(MaxAbs(out), 1e32); // 1e-6 of the values: the constant is removed
  }
}

TEST(ImageBackground, RefusesParametersItCannotServe) {
  TImageBackgroundSubtraction k;
  const float one[4] = {1, 2, 3, 4};
  float out[4];
  EXPECT_EQ(k.Prepare(TImageBackgroundMode::Surface, 4, 10, 10, nullptr).Code,
            TImageBackgroundCode::BadParameters);
  EXPECT_EQ(k.Prepare(TImageBackgroundMode::Surface, -1, 10, 10, nullptr).Code,
            TImageBackgroundCode::BadParameters);
  EXPECT_EQ(k.Prepare(TImageBackgroundMode::Lines, 1, 0, 10, nullptr).Code,
            TImageBackgroundCode::BadParameters);
  EXPECT_EQ(k.Prepare(static_cast<TImageBackgroundMode>(7), 1, 5, 5, nullptr).Code,
            TImageBackgroundCode::BadParameters);
  // Not prepared: every later step refuses rather than reading state left from a failed Prepare.
  TImageBackgroundSums sums;
  EXPECT_EQ(k.Accumulate(one, 0, 0, sums).Code, TImageBackgroundCode::BadParameters);
  EXPECT_EQ(k.Subtract(one, out, 0, 0).Code, TImageBackgroundCode::BadParameters);
  // Order 3 needs four columns, and for the surface four valid lines.
  EXPECT_EQ(k.Prepare(TImageBackgroundMode::Lines, 3, 3, 10, nullptr).Code,
            TImageBackgroundCode::TooFewPixels);
  EXPECT_TRUE(k.Prepare(TImageBackgroundMode::Lines, 3, 4, 1, nullptr).Ok());
  bool valid[5] = {true, false, true, true, false};
  EXPECT_EQ(k.Prepare(TImageBackgroundMode::Surface, 3, 8, 5, valid).Code,
            TImageBackgroundCode::TooFewPixels);
  EXPECT_TRUE(k.Prepare(TImageBackgroundMode::Surface, 2, 8, 5, valid).Ok());
  // Surface prepared but not solved: Subtract refuses.
  EXPECT_EQ(k.Subtract(one, out, 0, 0).Code, TImageBackgroundCode::BadParameters);
  // A single pixel at order 0 is its own mean.
  ASSERT_TRUE(SubtractImageBackground(one, out, nullptr, 1, 1, TImageBackgroundMode::Surface, 0).Ok());
  EXPECT_EQ(out[0], 0.0f);
}

TEST(ImageBackground, SharesOfLinesOnThreadsGiveTheWholeImagesResult) {
  Image img(128, 97, [](int x, int y) { return Poly(3, x, y) + 3.0 * Noise(x, y); });
  img.valid[50] = false;
  std::vector<float> whole(img.data.size()), split(img.data.size());
  ASSERT_TRUE(SubtractImageBackground(img.data.data(), whole.data(), img.valid.get(), img.nx, img.ny,
                                      TImageBackgroundMode::Surface, 3)
                  .Ok());
  TImageBackgroundSubtraction k;
  ASSERT_TRUE(k.Prepare(TImageBackgroundMode::Surface, 3, img.nx, img.ny, img.valid.get()).Ok());
  const int cut[4] = {0, 30, 51, 97};
  TImageBackgroundSums sums[3];
  TImageBackgroundStatus st[3];
  {
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
      threads.emplace_back(
          [&, t] { st[t] = k.Accumulate(img.data.data(), cut[t], cut[t + 1] - 1, sums[t]); });
    for (auto& th : threads) th.join();
  }
  for (int t = 1; t < 3; ++t) sums[0].Add(sums[t]);
  for (int t = 0; t < 3; ++t) ASSERT_TRUE(st[t].Ok());
  ASSERT_TRUE(k.Solve(sums[0]).Ok());
  {
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
      threads.emplace_back(
          [&, t] { st[t] = k.Subtract(img.data.data(), split.data(), cut[t], cut[t + 1] - 1); });
    for (auto& th : threads) th.join();
  }
  for (int t = 0; t < 3; ++t) ASSERT_TRUE(st[t].Ok());
  // The sums are added in another order, so the last bits may differ.
  for (size_t e = 0; e < whole.size(); ++e) ASSERT_NEAR(split[e], whole[e], 1e-4) << e;
}
