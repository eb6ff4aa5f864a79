// Bitmaps: pixel access, interpolation at the edges, both file forms (a compatible save holds a BMP file),
// BMP files of other layouts, and extraction into images.
#include "data/Dbitmap.h"

#include "common/Standardmessage.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "project/Project.h"
#include "support/DataRoundTrip.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

class DbitmapTest : public ::testing::Test {
protected:
  void SetUp() override { oxtest::EnsureMemoryStrategy(); }
};

TColor MakeTestColor(int32_t x, int32_t y) {
  return static_cast<TColor>(10 * x + 1) | (static_cast<TColor>(50 * y + 2) << 8) |
         (static_cast<TColor>(200 - 7 * x * y) << 16);
}

// A 5 x 3 picture with a different colour in every pixel.
void Paint(TDBitmap& bitmap) {
  bitmap.SetFieldSize(5, 3);
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 5; ++x) bitmap.SetField(x, y, MakeTestColor(x, y));
}

TTagError SaveAndLoad(TDBitmap& bitmap, TDBitmap& back, const oxtest::TempDir& dir) {
  return oxtest::SaveAndLoad(bitmap, back, dir.File("bitmap.oxt"));
}

void ExpectSamePixels(const TDBitmap& a, const TDBitmap& b) {
  ASSERT_EQ(a.GetWidth(), b.GetWidth());
  ASSERT_EQ(a.GetHeight(), b.GetHeight());
  for (int32_t y = 0; y < a.GetHeight(); ++y)
    for (int32_t x = 0; x < a.GetWidth(); ++x) EXPECT_EQ(a.GetField(x, y), b.GetField(x, y)) << x << "," << y;
}

TEST_F(DbitmapTest, PixelsAndLines) {
  auto bitmap = TDBitmap::CreateNewBitmap(nullptr, 4, 2, TDataSaveMode::Always, "Frame");
  EXPECT_EQ(bitmap->GetField(3, 1), 0xFFFFFFu); // white after clearing
  bitmap->SetField(3, 1, 0x123456);
  EXPECT_EQ(bitmap->GetField(3, 1), 0x123456u);
  EXPECT_EQ(bitmap->GetField(4, 1), 0u);
  bitmap->SetField(-1, 0, 7); // nothing outside
  const TColor line[4] = {1, 2, 3, 4};
  bitmap->SetLine(0, line);
  TColor read[4];
  bitmap->GetLine(0, read);
  EXPECT_EQ(std::vector<TColor>(read, read + 4), std::vector<TColor>(line, line + 4));
  bitmap->GetLine(5, read);
  EXPECT_EQ(read[2], 0u);
  bitmap->SetFieldSize(4, 2); // unchanged sizes keep the pixels
  EXPECT_EQ(bitmap->GetField(2, 0), 3u);
  EXPECT_TRUE(bitmap->IsDataPointInside(3.00005, -0.00005));
  EXPECT_FALSE(bitmap->IsDataPointInside(3.01, 0));
  EXPECT_TRUE(bitmap->GetLineValid(1));
}

TEST_F(DbitmapTest, InterpolationMixesChannelsAndStopsAtTheEdges) {
  TDBitmap bitmap;
  bitmap.SetFieldSize(2, 2);
  bitmap.SetField(0, 0, 0x000000);
  bitmap.SetField(1, 0, 0x0000C8);                             // red 200
  bitmap.SetField(0, 1, 0x006400);                             // green 100
  bitmap.SetField(1, 1, 0xFF0000);                             // blue 255
  EXPECT_EQ(bitmap.GetInterpolatedField(0.5, 0.5), 0x401932u); // each channel a quarter, rounded
  EXPECT_EQ(bitmap.GetInterpolatedField(0.25, 0), 0x000032u);
  // The last column has no right neighbour: only y counts there.
  EXPECT_EQ(bitmap.GetInterpolatedField(1, 0.5), 0x800064u);
  EXPECT_EQ(bitmap.GetInterpolatedField(1, 1), 0xFF0000u);  // the last corner itself
  EXPECT_EQ(bitmap.GetInterpolatedField(9, -3), 0x0000C8u); // clamped
}

TEST_F(DbitmapTest, BothFileFormsRoundTrip) {
  oxtest::TempDir dir;
  TDBitmap bitmap;
  Paint(bitmap);
  bitmap.SetSpaceTransformationID(8);
  TDBitmap back;
  ASSERT_EQ(SaveAndLoad(bitmap, back, dir), 1);
  ExpectSamePixels(bitmap, back);
  EXPECT_EQ(back.GetSpaceTransformationID(), 8);

  TFileVersion::SaveVersion = 5;
  TDBitmap compatible;
  const TTagError result = SaveAndLoad(bitmap, compatible, dir);
  TFileVersion::SaveVersion = TFileVersion::ThisVersion;
  ASSERT_EQ(result, 1);
  ExpectSamePixels(bitmap, compatible);
  EXPECT_EQ(compatible.GetSpaceTransformationID(), 8);
  // The compatible file holds no field, but a BMP stream of 54 + 3 rows of 16 bytes.
  TTagControl tree;
  ASSERT_EQ(tree.LoadTagListByFileName(dir.File("bitmap.oxt"), "ORX_TEST"), 1);
  EXPECT_FALSE(tree.IsTagInList("TDBitmap|BitmapData"));
  int32_t size = 0, version = -1;
  ASSERT_EQ(tree.GetIntTagInList("TDStream|StreamSize", size), 1);
  EXPECT_EQ(size, 54 + 3 * 16);
  ASSERT_EQ(tree.GetIntTagInList("TDBitmap|Version", version), 1);
  EXPECT_EQ(version, 0);
}

TEST_F(DbitmapTest, DecodesTopDownThirtyTwoBitFilesAndRefusesOthers) {
  // Hand-made: 2 x 2, 32 bits per pixel, negative height (rows top-down).
  std::vector<uint8_t> bmp(54 + 16, 0);
  auto put = [&](size_t at, uint32_t v, int n) {
    for (int i = 0; i < n; ++i) bmp[at + i] = static_cast<uint8_t>(v >> (8 * i));
  };
  bmp[0] = 'B';
  bmp[1] = 'M';
  put(10, 54, 4);
  put(14, 40, 4);
  put(18, 2, 4);
  put(22, static_cast<uint32_t>(-2), 4);
  put(26, 1, 2);
  put(28, 32, 2);
  const uint8_t pixels[16] = {3, 2, 1, 0, 30, 20, 10, 0,
                              6, 5, 4, 0, 60, 50, 40, 0}; // blue, green, red, unused
  std::copy(pixels, pixels + 16, bmp.begin() + 54);
  int32_t width = 0, height = 0;
  std::vector<TColor> decoded;
  ASSERT_TRUE(DecodeBitmapFile(bmp, width, height, decoded));
  EXPECT_EQ(width, 2);
  EXPECT_EQ(height, 2);
  EXPECT_EQ(decoded[0], 0x030201u);
  EXPECT_EQ(decoded[3], 0x3C3228u);
  bmp.resize(60); // too short for its rows
  EXPECT_FALSE(DecodeBitmapFile(bmp, width, height, decoded));
  put(28, 8, 2);
  bmp.resize(70);
  EXPECT_FALSE(DecodeBitmapFile(bmp, width, height, decoded)); // palette pictures aren't read

  // Encoding and decoding give the picture back, rows padded to four bytes.
  std::vector<TColor> picture{0x010203, 0x040506, 0x070809, 0x0A0B0C, 0x0D0E0F, 0x101112};
  const auto encoded = EncodeBitmapFile(3, 2, picture);
  EXPECT_EQ(encoded.size(), 54u + 2 * 12);
  ASSERT_TRUE(DecodeBitmapFile(encoded, width, height, decoded));
  EXPECT_EQ(decoded, picture);
}

TEST_F(DbitmapTest, ExtractionIntoImages) {
  RegisterInterpretationClasses();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
      new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerOk));
  TProject project;
  auto owned = TDBitmap::CreateNewBitmap(&project, 5, 3, TDataSaveMode::Always, "Video");
  Paint(*owned);
  TDBitmap* bitmap = owned.get();
  project.AddData(std::move(owned));
  const int32_t mono = bitmap->ExtractAsImageMonochrome();
  auto* image = dynamic_cast<TDImage*>(project.FindData(mono));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->GetCaption(), "Video (Image)");
  const TColor c = MakeTestColor(4, 2);
  EXPECT_FLOAT_EQ(image->GetField(4, 2), static_cast<float>(0.299 * (c & 0xFF) + 0.587 * ((c >> 8) & 0xFF) +
                                                            0.114 * ((c >> 16) & 0xFF)));
  EXPECT_EQ(GetStandardZInterpretation(project, "Bins"), image->GetZInterpretationID());

  const auto rgb = bitmap->ExtractAsImageRGB();
  ASSERT_EQ(rgb.size(), 3u);
  const auto* blue = dynamic_cast<TDImage*>(project.FindData(rgb[2]));
  ASSERT_NE(blue, nullptr);
  EXPECT_EQ(blue->GetCaption(), "Video (Image Blue)");
  EXPECT_EQ(blue->GetField(3, 1), static_cast<float>((MakeTestColor(3, 1) >> 16) & 0xFF));
  EXPECT_EQ(dynamic_cast<TDImage*>(project.FindData(rgb[0]))->GetField(2, 0), 21.0f);
}

} // namespace
