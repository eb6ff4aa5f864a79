// Exemplar-based filling: a periodic texture is restored, the boundary and confidences follow the target,
// rotations turn the window, and bad arguments are refused.
#include "common/numerics/Inpainting.h"

#include <cmath>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace {

float Texture(int x, int y) {
  return static_cast<float>(std::sin(2 * 3.141592653589793 * x / 6.0) + 0.5 * ((y / 3) % 2));
}

} // namespace

TEST(Inpainting, APeriodicTextureIsRestored) {
  const int nx = 30, ny = 28;
  std::vector<float> original(nx * ny), image(nx * ny);
  std::unique_ptr<bool[]> mask(new bool[nx * ny]());
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) original[y * nx + x] = Texture(x, y);
  image = original;
  int marked = 0;
  for (int y = 11; y < 17; ++y)
    for (int x = 12; x < 19; ++x) mask[y * nx + x] = true, image[y * nx + x] = 99.0f, ++marked;
  TInpainting inpainting;
  inpainting.Init(image.data(), mask.get(), nx, ny, 3, 1);
  EXPECT_EQ(inpainting.RemainingTargetPixels(), marked);
  EXPECT_TRUE(inpainting.IsBoundary(12, 11));
  EXPECT_FALSE(inpainting.IsBoundary(14, 13)); // inside the target
  EXPECT_FALSE(inpainting.IsBoundary(11, 11)); // known pixel
  EXPECT_GT(inpainting.ProcessAll(), 0);
  EXPECT_EQ(inpainting.RemainingTargetPixels(), 0);
  EXPECT_FALSE(inpainting.Process());
  double maxError = 0;
  for (int i = 0; i < nx * ny; ++i) maxError = std::max(maxError, double(std::fabs(image[i] - original[i])));
  EXPECT_LT(maxError, 1e-5);
  // Filled pixels got a confidence below 1, the known ones kept 1.
  EXPECT_LT(inpainting.Confidence(15, 14), 1.0);
  EXPECT_EQ(inpainting.Confidence(2, 2), 1.0);
}

TEST(Inpainting, ConfidenceAndRotations) {
  const int nx = 12, ny = 12;
  std::vector<float> image(nx * ny, 1.0f);
  std::unique_ptr<bool[]> mask(new bool[nx * ny]());
  mask[5 * nx + 5] = true;
  TInpainting inpainting;
  inpainting.Init(image.data(), mask.get(), nx, ny, 1, 4);
  EXPECT_NEAR(inpainting.ComputeConfidence(5, 5), 8.0 / 9.0, 1e-12);
  EXPECT_NEAR(inpainting.ComputeConfidence(0, 0), 1.0, 1e-12); // clipped window, all known
  // Quarter turns: (1, 0) goes to (0, 1), then (-1, 0), then (0, -1).
  const int right = 1 * 3 + 2; // (dx, dy) = (1, 0) in the 3x3 table
  EXPECT_EQ(inpainting.RotationTable(0)[right], std::make_pair(1, 0));
  EXPECT_EQ(inpainting.RotationTable(1)[right], std::make_pair(0, 1));
  EXPECT_EQ(inpainting.RotationTable(2)[right], std::make_pair(-1, 0));
  EXPECT_EQ(inpainting.RotationTable(3)[right], std::make_pair(0, -1));
  EXPECT_TRUE(inpainting.Process());
  EXPECT_EQ(image[5 * nx + 5], 1.0f);
  EXPECT_NEAR(inpainting.Confidence(5, 5), 8.0 / 9.0, 1e-12);
}

TEST(Inpainting, EmptyTargetAndBadArguments) {
  std::vector<float> image(64, 0.0f);
  std::unique_ptr<bool[]> mask(new bool[64]());
  TInpainting inpainting;
  inpainting.Init(image.data(), mask.get(), 8, 8, 2, 1);
  EXPECT_FALSE(inpainting.Process());
  EXPECT_THROW(inpainting.Init(image.data(), mask.get(), 8, 8, 0, 1), OrvexExceptionImageFilter);
  EXPECT_THROW(inpainting.Init(image.data(), mask.get(), 8, 8, 4, 121), OrvexExceptionImageFilter);
  EXPECT_THROW(inpainting.Init(image.data(), mask.get(), 1024, 1024, 4, 1), OrvexExceptionImageFilter);
  // A target too large for any whole source window: no patch is found.
  for (int i = 0; i < 64; ++i) mask[i] = i != 0;
  inpainting.Init(image.data(), mask.get(), 8, 8, 2, 1);
  EXPECT_FALSE(inpainting.Process());
}
