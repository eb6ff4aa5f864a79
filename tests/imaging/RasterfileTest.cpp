// Raster image files: lossless round trips, JPEG within its loss, corrupt and unknown files refused.
#include "imaging/Rasterfile.h"

#include "support/TestSupport.h"

#include <cstdlib>

#include <gtest/gtest.h>

namespace {

TRasterImage Gradient(int32_t width, int32_t height) {
  TRasterImage image;
  image.Width = width;
  image.Height = height;
  image.Pixels.resize(static_cast<size_t>(width) * height * 3);
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x) {
      uint8_t* p = image.Pixels.data() + (static_cast<size_t>(y) * width + x) * 3;
      p[0] = static_cast<uint8_t>(x * 255 / std::max(width - 1, 1));
      p[1] = static_cast<uint8_t>(y * 255 / std::max(height - 1, 1));
      p[2] = static_cast<uint8_t>((x + y) % 7 == 0 ? 255 : 40);
    }
  return image;
}

TEST(RasterfileTest, PngAndTiffRoundTripExactly) {
  oxtest::TempDir dir;
  const TRasterImage image = Gradient(37, 23); // odd sizes: no row padding may creep in
  for (const char* name : {"a.png", "b.TIFF", "c.tif"}) {
    std::string error;
    ASSERT_TRUE(WriteRasterFile(dir.File(name), image, error)) << name << ": " << error;
    TRasterImage back;
    ASSERT_TRUE(ReadRasterFile(dir.File(name), back, error)) << name << ": " << error;
    EXPECT_EQ(back.Width, 37);
    EXPECT_EQ(back.Height, 23);
    EXPECT_EQ(back.Pixels, image.Pixels) << name;
  }
}

TEST(RasterfileTest, JpegKeepsThePictureWithinItsLoss) {
  oxtest::TempDir dir;
  TRasterImage image = Gradient(64, 48);
  for (size_t i = 2; i < image.Pixels.size(); i += 3) image.Pixels[i] = 128; // smooth content: little loss
  std::string error;
  ASSERT_TRUE(WriteRasterFile(dir.File("p.jpg"), image, error, 95)) << error;
  TRasterImage back;
  ASSERT_TRUE(ReadRasterFile(dir.File("p.jpg"), back, error)) << error;
  ASSERT_EQ(back.Pixels.size(), image.Pixels.size());
  double sum = 0;
  for (size_t i = 0; i < image.Pixels.size(); ++i)
    sum += std::abs(int(back.Pixels[i]) - int(image.Pixels[i]));
  EXPECT_LT(sum / double(image.Pixels.size()), 3.0);
}

TEST(RasterfileTest, CorruptUnknownAndMissingFilesAreRefused) {
  oxtest::TempDir dir;
  const TRasterImage image = Gradient(8, 8);
  std::string error;
  ASSERT_TRUE(WriteRasterFile(dir.File("good.png"), image, error));
  for (const char* name : {"bad.png", "bad.jpg", "bad.tif"}) {
    const std::string good = oxtest::ReadFileBytes(dir.File("good.png"));
    oxtest::WriteFileBytes(dir.File(name), good.substr(0, 40)); // cut short (and of the wrong kind for two)
    TRasterImage back;
    EXPECT_FALSE(ReadRasterFile(dir.File(name), back, error)) << name;
    EXPECT_FALSE(error.empty()) << name;
  }
  TRasterImage back;
  EXPECT_FALSE(ReadRasterFile(dir.File("missing.png"), back, error));
  EXPECT_FALSE(ReadRasterFile(dir.File("picture.gif"), back, error));
  EXPECT_FALSE(WriteRasterFile(dir.File("picture.gif"), image, error));
  EXPECT_FALSE(WriteRasterFile(dir.File("empty.png"), TRasterImage{}, error));
  // A failed write leaves the old file as it was.
  const std::string before = oxtest::ReadFileBytes(dir.File("good.png"));
  EXPECT_FALSE(WriteRasterFile(dir.File("good.png"), TRasterImage{}, error));
  EXPECT_EQ(oxtest::ReadFileBytes(dir.File("good.png")), before);
}

} // namespace
