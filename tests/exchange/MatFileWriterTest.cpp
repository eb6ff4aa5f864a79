// MAT-file records byte by byte: short and long data elements, line counts, padding, the size at offset 132,
// the shapes of single spectra, line scans and images, array names and the 2 GiB limit of a variable.
#include "exchange/Exportfiltermatlab.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

// A writer whose bytes end up in a string.
struct TCapture {
  std::string Bytes;
  TBufferedWriting Buffer{64, [this](const void* data, int64_t size) {
                            Bytes.append(static_cast<const char*>(data), static_cast<size_t>(size));
                            return true;
                          }};
  TMatFileWriter Writer{&Buffer};
  const std::string& Flush() {
    Buffer.FlushBuffer();
    return Bytes;
  }
};

int32_t Int32At(const std::string& bytes, size_t offset) {
  int32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, 4);
  return value;
}

int16_t Int16At(const std::string& bytes, size_t offset) {
  int16_t value = 0;
  std::memcpy(&value, bytes.data() + offset, 2);
  return value;
}

TMatlabVariable Variable(int32_t x, int32_t y, int32_t points) {
  TMatlabVariable v;
  v.Caption = "Map 1";
  v.SizeX = x;
  v.SizeY = y;
  v.SizeGraph = points;
  v.SpectralAxis.assign(static_cast<size_t>(points), 1.5);
  v.SpectralUnit = "rel. 1/cm";
  if (v.IsLineScan()) v.LineAxis.assign(static_cast<size_t>(std::max(x, y)), 0.25);
  if (v.IsImage()) {
    v.ImageAxisX.assign(static_cast<size_t>(x), 1.0);
    v.ImageAxisY.assign(static_cast<size_t>(y), 2.0);
  }
  v.SpaceUnit = "µm";
  v.Author = "Orvex Project";
  v.History = "Created by test";
  v.UniqueID = "id";
  v.Date.tm_year = 126;
  v.Date.tm_mon = 10;
  v.Date.tm_mday = 3;
  v.Date.tm_wday = 2;
  // Each value tells where it belongs: point * 10000 + x * 100 + y.
  v.WriteValues = [x, y, points](TMatFileWriter& w) {
    for (int32_t p = 0; p < points; ++p)
      for (int32_t i = 0; i < x; ++i)
        for (int32_t j = 0; j < y; ++j) {
          const float value = static_cast<float>(p * 10000 + i * 100 + j);
          if (!w.Put(&value, 4)) return false;
        }
    return true;
  };
  return v;
}

TEST(MatFileWriterTest, LinesOfDataElements) {
  // Short form (payload of at most 4 bytes in the tag's line), then full lines plus the tag.
  EXPECT_EQ(TMatFileWriter::CalcNumberOfLines(0), 1);
  EXPECT_EQ(TMatFileWriter::CalcNumberOfLines(4), 1);
  EXPECT_EQ(TMatFileWriter::CalcNumberOfLines(5), 2);
  EXPECT_EQ(TMatFileWriter::CalcNumberOfLines(8), 2);
  EXPECT_EQ(TMatFileWriter::CalcNumberOfLines(9), 3);
  EXPECT_EQ(TMatFileWriter::CalcNumberOfLines(16), 3);
  EXPECT_EQ(TMatFileWriter::CalcNumberOfLines(17), 4);
}

TEST(MatFileWriterTest, StringsOfZeroToFourBytesUseTheShortForm) {
  for (const std::string text : {"", "a", "ab", "abc", "abcd"}) {
    TCapture c;
    EXPECT_EQ(c.Writer.WriteString(text, false), 8);
    const std::string& bytes = c.Flush();
    ASSERT_EQ(bytes.size(), 8u);
    EXPECT_EQ(Int16At(bytes, 0), TMatFileWriter::miINT8);
    EXPECT_EQ(Int16At(bytes, 2), static_cast<int16_t>(text.size()));
    EXPECT_EQ(bytes.substr(4, text.size()), text);
    EXPECT_EQ(bytes.substr(4 + text.size()), std::string(4 - text.size(), '\0'));
  }
  // Wide: two characters are four bytes and still short; "µm" is b5 00 6d 00.
  TCapture wide;
  EXPECT_EQ(wide.Writer.WriteString("µm", true), 8);
  EXPECT_EQ(wide.Flush(), std::string("\x04\x00\x04\x00\xb5\x00\x6d\x00", 8));
}

TEST(MatFileWriterTest, LongStringsArePaddedToEightBytes) {
  TCapture c;
  EXPECT_EQ(c.Writer.WriteString("abcde", false), 16);
  const std::string& bytes = c.Flush();
  EXPECT_EQ(Int32At(bytes, 0), TMatFileWriter::miINT8);
  EXPECT_EQ(Int32At(bytes, 4), 5);
  EXPECT_EQ(bytes.substr(8), std::string("abcde\0\0\0", 8));

  TCapture wide; // three characters: six bytes of UTF-16, two of padding
  EXPECT_EQ(wide.Writer.WriteString("a€b", true), 16);
  EXPECT_EQ(wide.Flush(), std::string("\x04\x00\x00\x00\x06\x00\x00\x00"
                                      "a\x00\xac\x20"
                                      "b\x00\x00\x00",
                                      16));
}

TEST(MatFileWriterTest, CellDescriptionAndStringCell) {
  TCapture c;
  EXPECT_EQ(c.Writer.WriteCellDescription(TMatFileWriter::mxCHAR, 1, 3, 7), 48);
  const std::string& bytes = c.Flush();
  const int32_t expected[] = {14, 3 * 8 + 40, 6, 8, 4, 0, 5, 8, 1, 7};
  for (size_t i = 0; i < 10; ++i) EXPECT_EQ(Int32At(bytes, 4 * i), expected[i]) << "word " << i;
  EXPECT_EQ(Int16At(bytes, 40), 1); // empty name, short form
  EXPECT_EQ(Int16At(bytes, 42), 0);

  // A string cell's announced size matches what follows it, for short, long and empty texts.
  for (const std::string text : {"", "6.0", "none", "Created by Orvex Project"}) {
    TCapture s;
    const int64_t written = s.Writer.WriteStringCell(text);
    const std::string& cell = s.Flush();
    EXPECT_EQ(written, static_cast<int64_t>(cell.size()));
    EXPECT_EQ(Int32At(cell, 4), static_cast<int32_t>(cell.size() - 8)) << text;
    EXPECT_EQ(Int32At(cell, 32), text.empty() ? 0 : 1);
    EXPECT_EQ(cell.size() % 8, 0u);
  }
}

TEST(MatFileWriterTest, ImageSizeSmallAndWideForms) {
  TCapture small;
  small.Writer.WriteImageSize(255, 17, true);
  const std::string& a = small.Flush();
  ASSERT_EQ(a.size(), 56u);
  EXPECT_EQ(Int32At(a, 16), TMatFileWriter::mxDOUBLE);
  EXPECT_EQ(Int16At(a, 48), TMatFileWriter::miUINT8);
  EXPECT_EQ(Int16At(a, 50), 2);
  EXPECT_EQ(static_cast<unsigned char>(a[52]), 255);
  EXPECT_EQ(static_cast<unsigned char>(a[53]), 17);

  TCapture wide;
  wide.Writer.WriteImageSize(256, 17, true);
  const std::string& b = wide.Flush();
  ASSERT_EQ(b.size(), 64u);
  EXPECT_EQ(Int32At(b, 16), TMatFileWriter::mxUINT32);
  EXPECT_EQ(Int32At(b, 48), TMatFileWriter::miUINT32);
  EXPECT_EQ(Int32At(b, 52), 8);
  EXPECT_EQ(Int32At(b, 56), 256);
  EXPECT_EQ(Int32At(b, 60), 17);

  TCapture none; // not an image: an empty double
  none.Writer.WriteImageSize(300, 1, false);
  const std::string& c = none.Flush();
  ASSERT_EQ(c.size(), 56u);
  EXPECT_EQ(Int32At(c, 32), 0); // 0 × 0
  EXPECT_EQ(Int32At(c, 36), 0);
}

TEST(MatFileWriterTest, DataOfSingleSpectrumLineScanAndImage) {
  struct TShape {
    int32_t X, Y, P;
  };
  for (const TShape shape : {TShape{1, 1, 5}, TShape{3, 1, 4}, TShape{1, 3, 4}, TShape{2, 3, 5}}) {
    TCapture c;
    const TMatlabVariable v = Variable(shape.X, shape.Y, shape.P);
    c.Writer.WriteData(v);
    const std::string& bytes = c.Flush();
    const int64_t n = int64_t(shape.X) * shape.Y * shape.P * 4;
    EXPECT_EQ(Int32At(bytes, 32), shape.X * shape.Y) << "rows are the pixels";
    EXPECT_EQ(Int32At(bytes, 36), shape.P) << "columns are the points";
    EXPECT_EQ(Int32At(bytes, 48), TMatFileWriter::miSINGLE);
    EXPECT_EQ(Int32At(bytes, 52), n);
    EXPECT_EQ(static_cast<int64_t>(bytes.size()), 56 + n + (n % 8));
    EXPECT_EQ(Int32At(bytes, 4), static_cast<int32_t>(bytes.size() - 8));
    // Column-major: row r = y + x·Y of column p.
    for (int32_t p = 0; p < shape.P; ++p)
      for (int32_t x = 0; x < shape.X; ++x)
        for (int32_t y = 0; y < shape.Y; ++y) {
          float value = 0;
          std::memcpy(&value, bytes.data() + 56 + 4 * ((y + x * shape.Y) + int64_t(p) * shape.X * shape.Y),
                      4);
          ASSERT_EQ(value, static_cast<float>(p * 10000 + x * 100 + y));
        }
  }
}

TEST(MatFileWriterTest, WholeFileMeasuredAndPatchable) {
  for (const TMatlabLayout layout : {TMatlabLayout::DSO6, TMatlabLayout::Structure}) {
    for (const auto& [x, y] : {std::pair{1, 1}, std::pair{7, 1}, std::pair{4, 3}, std::pair{256, 2}}) {
      const TMatlabVariable v = Variable(x, y, 5);
      TCapture c;
      const int64_t body = c.Writer.WriteFile(v, layout, 1);
      const std::string& bytes = c.Flush();
      EXPECT_EQ(body, TMatFileWriter::VariableSize(v, layout));
      EXPECT_EQ(body, static_cast<int64_t>(bytes.size()) - 136) << "the patched size is the file size - 136";
      EXPECT_EQ(bytes.size() % 8, 0u);
      EXPECT_EQ(Int32At(bytes, 128), TMatFileWriter::miMATRIX);
      EXPECT_EQ(Int32At(bytes, 132), 1) << "patched only after the flush";
      EXPECT_EQ(Int32At(bytes, 144),
                layout == TMatlabLayout::DSO6 ? TMatFileWriter::mxOBJECT : TMatFileWriter::mxSTRUCT);
      EXPECT_EQ(bytes.substr(124, 4), std::string("\x00\x01IM", 4));
      EXPECT_EQ(bytes.substr(0, 50), "MATLAB 5.0 MAT-file, Platform: PCWIN, Created on: ");
      EXPECT_EQ(bytes.substr(50, 24), "Tue Nov  3 00:00:00 2026");
      EXPECT_EQ(bytes.substr(74, 50), std::string(50, ' '));
    }
  }
}

TEST(MatFileWriterTest, ArrayNames) {
  EXPECT_EQ(TMatFileWriter::ArrayName("Raman Map (demo)"), "Raman_Map_demo");
  EXPECT_EQ(TMatFileWriter::ArrayName("a+b-c.d,e;f:g*h'i#j~k!l§m$n%o&p/q(r)s=t?u´v`w@x{y[z]}^°<>|µ€"),
            "abcdefghijklmnopqrstuvwxyz");
  EXPECT_EQ(TMatFileWriter::ArrayName("3 peaks"), "x3_peaks");
  EXPECT_EQ(TMatFileWriter::ArrayName("_hidden"), "x_hidden");
  EXPECT_EQ(TMatFileWriter::ArrayName("(µ)"), "x");
  EXPECT_EQ(TMatFileWriter::ArrayName(""), "x");
  EXPECT_EQ(TMatFileWriter::ArrayName(std::string(100, 'a')).size(), 63u);
}

TEST(MatFileWriterTest, SizeOfAVariableAgainstTheLevel5Limit) {
  EXPECT_TRUE(TMatFileWriter::FitsVariable(2147483647));
  EXPECT_FALSE(TMatFileWriter::FitsVariable(2147483648));
  // The size is known without any value (the data count as bytes only) and grows by exactly the
  // value bytes and the include indices of the added pixels: an image of n × n pixels and 4 points.
  auto sizeOf = [](int32_t n) {
    TMatlabVariable v = Variable(2, 2, 4);
    v.WriteValues = nullptr;
    v.SizeX = v.SizeY = n;
    v.ImageAxisX.assign(static_cast<size_t>(n), 0.0);
    v.ImageAxisY.assign(static_cast<size_t>(n), 0.0);
    return TMatFileWriter::VariableSize(v, TMatlabLayout::DSO6);
  };
  const int64_t small = sizeOf(256);   // both sizes in the wide "imagesize" form
  const int64_t large = sizeOf(10400); // 10400² pixels · 4 points · 4 bytes is beyond 2^31 bytes
  const int64_t pixels = int64_t(10400) * 10400 - 256 * 256;
  // values, include indices, and the x and y axes of "imageaxisscale"
  EXPECT_EQ(large - small, pixels * 4 * 4 + pixels * 4 + 2 * (10400 - 256) * 8);
  EXPECT_FALSE(TMatFileWriter::FitsVariable(large));
  EXPECT_TRUE(TMatFileWriter::FitsVariable(sizeOf(10000)));
  EXPECT_EQ(TExportFilterMatlab::TooLargeMessage("Map", 2147483648),
            "Map: too large for a MAT-file of Level 5 (2147483648 bytes, at most 2 GiB per variable)");
}

} // namespace
