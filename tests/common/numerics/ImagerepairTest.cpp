// Repair of marked pixels: exact line interpolation, filling with noise, and convergence of the
// neighbour averaging to the discrete Laplace solution.
#include "common/numerics/Imagerepair.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Grid {
  int nx, ny;
  std::vector<float> v;
  std::unique_ptr<bool[]> mask;
  Grid(int x, int y, double (*f)(int, int)) : nx(x), ny(y), v(x * y), mask(new bool[x * y]()) {
    for (int j = 0; j < ny; ++j)
      for (int i = 0; i < nx; ++i) v[j * nx + i] = static_cast<float>(f(i, j));
  }
  TFloatImage Image() { return {v.data(), nullptr, nx, ny}; }
  float& At(int x, int y) { return v[y * nx + x]; }
  void Mark(int x, int y) { mask[y * nx + x] = true; }
};

double Ramp(int x, int y) {
  return 2.0 * x + 3.0 * y + 1.0;
}

} // namespace

TEST(ImageRepair, LineInterpolationIsExactOnARampAndHandlesEdges) {
  Grid g(4, 10, Ramp);
  for (int y : {2, 3, 4}) g.Mark(0, y), g.At(0, y) = 1e9f;       // inner run
  for (int y : {0, 1}) g.Mark(1, y), g.At(1, y) = 1e9f;          // touches the top
  for (int y : {8, 9}) g.Mark(2, y), g.At(2, y) = 1e9f;          // touches the bottom
  for (int y = 0; y < 10; ++y) g.Mark(3, y), g.At(3, y) = -7.0f; // fully marked
  RepairLineInterpolation(g.Image(), g.mask.get());
  for (int y : {2, 3, 4}) EXPECT_FLOAT_EQ(g.At(0, y), Ramp(0, y));
  EXPECT_FLOAT_EQ(g.At(1, 0), Ramp(1, 2));
  EXPECT_FLOAT_EQ(g.At(1, 1), Ramp(1, 2));
  EXPECT_FLOAT_EQ(g.At(2, 9), Ramp(2, 7));
  EXPECT_FLOAT_EQ(g.At(3, 5), -7.0f);
  EXPECT_FLOAT_EQ(g.At(0, 5), Ramp(0, 5)); // unmarked pixels untouched
}

TEST(ImageRepair, SimpleFillingValueAndNoiseDirections) {
  Grid g(20, 20, Ramp);
  for (int i = 0; i < 400; i += 2) g.mask[i] = true;
  TSimpleFillingParameters p;
  p.Value = 5.0;
  RepairSimpleFilling(g.Image(), g.mask.get(), p);
  EXPECT_EQ(g.v[0], 5.0f);
  EXPECT_EQ(g.v[1], static_cast<float>(Ramp(1, 0)));
  p.AddNoise = true;
  p.NoiseAmplitude = 2.0;
  for (TNoiseDirection d : {TNoiseDirection::Add, TNoiseDirection::Subtract, TNoiseDirection::Symmetric})
    for (TNoiseDistribution dist : {TNoiseDistribution::Box, TNoiseDistribution::Gaussian}) {
      p.Direction = d;
      p.Distribution = dist;
      RepairSimpleFilling(g.Image(), g.mask.get(), p);
      double mn = 1e9, mx = -1e9, mean = 0;
      for (int i = 0; i < 400; i += 2)
        mn = std::min(mn, g.v[i] - 5.0), mx = std::max(mx, g.v[i] - 5.0), mean += g.v[i] - 5.0;
      mean /= 200;
      if (d == TNoiseDirection::Add) {
        EXPECT_GE(mn, 0.0);
      }
      if (d == TNoiseDirection::Subtract) {
        EXPECT_LE(mx, 0.0);
      }
      if (d == TNoiseDirection::Symmetric) {
        EXPECT_LT(mn, 0.0);
        EXPECT_GT(mx, 0.0);
        EXPECT_NEAR(mean, 0.0, 0.5);
      }
      if (dist == TNoiseDistribution::Box) {
        EXPECT_LE(std::max(-mn, mx), 2.0 + 1e-6);
      }
      EXPECT_GT(mx - mn, 0.5);
    }
  p.ReplaceValue = false;
  p.AddNoise = false;
  g.v[0] = 42.0f;
  RepairSimpleFilling(g.Image(), g.mask.get(), p);
  EXPECT_EQ(g.v[0], 42.0f);
}

TEST(ImageRepair, SimpleInterpolationConvergesToTheHarmonicSolution) {
  // A linear function is discretely harmonic: the marked block must converge to it.
  Grid g(12, 10, Ramp);
  for (int y = 3; y <= 6; ++y)
    for (int x = 4; x <= 8; ++x) g.Mark(x, y), g.At(x, y) = std::numeric_limits<float>::quiet_NaN();
  // A marked run in the first column reads its mirrored neighbour x = 1 twice. With the unmarked ends
  // R(0,1) = 4 and R(0,5) = 16 the fixed point solves 4 u2 - u3 = 22, -u2 + 4 u3 - u4 = 24,
  // -u3 + 4 u4 = 46: u3 = 164 / 14, u2 = (u3 + 22) / 4, u4 = (u3 + 46) / 4.
  for (int y = 2; y < 5; ++y) g.Mark(0, y);
  RepairSimpleInterpolation(g.Image(), g.mask.get(), 3000);
  for (int y = 3; y <= 6; ++y)
    for (int x = 4; x <= 8; ++x) ASSERT_NEAR(g.At(x, y), Ramp(x, y), 1e-3) << x << "," << y;
  const double u3 = 164.0 / 14.0;
  EXPECT_NEAR(g.At(0, 2), (u3 + 22) / 4, 1e-4);
  EXPECT_NEAR(g.At(0, 3), u3, 1e-4);
  EXPECT_NEAR(g.At(0, 4), (u3 + 46) / 4, 1e-4);
  // One sweep from the NaN start: the block starts at the mean of the finite unmarked pixels.
  Grid h(6, 6, [](int, int) { return 4.0; });
  h.Mark(2, 2), h.Mark(2, 3);
  h.At(2, 2) = std::numeric_limits<float>::infinity();
  h.At(0, 0) = 4.0f + 30.0f; // raises the mean of the 34 unmarked pixels by 30/34
  RepairSimpleInterpolation(h.Image(), h.mask.get(), 1);
  EXPECT_NEAR(h.At(2, 2), 0.25 * (3 * 4.0 + 4.0), 1e-6);
  EXPECT_NEAR(h.At(2, 3), 0.25 * (3 * 4.0 + 4.0 + 30.0 / 34.0), 1e-6);
  EXPECT_THROW(RepairSimpleInterpolation(h.Image(), h.mask.get(), 0), OrvexExceptionImageFilter);
}
