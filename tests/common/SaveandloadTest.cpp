// Primitives of tag files: identifications, strings, encoding, safe overwrite, streams, float clamping.
#include "common/Saveandload.h"

#include "common/Tagstream.h"
#include "support/TestSupport.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

TEST(SaveandloadTest, IdentificationIsCutAtEight) {
  oxtest::TempDir dir;
  const auto name = dir.File("id.oxt");
  TFileHandle f = CreateTagFile(name, "ORX_LONGER");
  CloseFile(f);
  EXPECT_EQ(oxtest::ReadFileBytes(name), "ORX_LONG");
  f = OpenFileForReading(name);
  std::string id;
  EXPECT_EQ(LoadIdentificationFromFile(f, id), 1);
  EXPECT_EQ(id, "ORX_LONG");
  EXPECT_NE(id, "ORX_LONGER");
  CloseFile(f);
  f = CreateTagFile(name, "ABC");
  CloseFile(f);
  EXPECT_EQ(oxtest::ReadFileBytes(name), std::string("ABC\0\0\0\0\0", 8));
}

TEST(SaveandloadTest, StoredNulCutsStringButPositionPassesAllBytes) {
  oxtest::TempDir dir;
  const auto name = dir.File("s.bin");
  oxtest::WriteFileBytes(name, std::string("\x05\x00\x00\x00"
                                           "ab\0cdZ",
                                           10));
  TFileHandle f = OpenFileForReading(name);
  std::string s;
  EXPECT_EQ(LoadAnsiStringFromFile(f, s), 1);
  EXPECT_EQ(s, "ab");
  EXPECT_EQ(FilePosition(f), 9);
  CloseFile(f);
}

TEST(SaveandloadTest, Cp1252RoundTripOfEveryByte) {
  std::string all;
  for (int b = 1; b < 256; ++b) all.push_back(static_cast<char>(b));
  EXPECT_EQ(Utf8ToCp1252(Cp1252ToUtf8(all)), all);
  EXPECT_EQ(Cp1252ToUtf8("\x80"), "\xE2\x82\xAC"); // euro sign
  EXPECT_EQ(Utf8ToCp1252("\xE2\x82\xAC"), "\x80");
  EXPECT_EQ(Utf8ToCp1252("\xE4\xB8\xAD"), "?"); // outside the code page
}

TEST(SaveandloadTest, SafeOverwriteKeepsOldFileUntilRename) {
  oxtest::TempDir dir;
  const auto name = dir.File("p.oxp");
  std::string temp;
  TFileHandle f = CreateFileSafeOverWrite(name, temp);
  ASSERT_NE(f, kInvalidFileHandle);
  EXPECT_TRUE(temp.empty()); // a new file is written directly
  WriteAllBytes(f, "old", 3);
  CloseFile(f);

  temp = name;
  f = CreateFileSafeOverWrite(name, temp);
  ASSERT_NE(f, kInvalidFileHandle);
  EXPECT_NE(temp, name);
  EXPECT_EQ(temp.rfind(name + ".", 0), 0u);
  EXPECT_EQ(temp.substr(temp.size() - 5), ".temp");
  WriteAllBytes(f, "new", 3);
  CloseFile(f);
  EXPECT_EQ(oxtest::ReadFileBytes(name), "old");
  ASSERT_TRUE(DeleteAndRenameFiles(name, temp));
  EXPECT_EQ(oxtest::ReadFileBytes(name), "new");
  EXPECT_FALSE(FileExists(temp));
  EXPECT_TRUE(DeleteAndRenameFiles(name, name)); // equal names: nothing happens
  EXPECT_TRUE(FileExists(name));
}

TEST(SaveandloadTest, SafeOverwriteFindsFreeTempName) {
  oxtest::TempDir dir;
  const auto name = dir.File("p.oxp");
  oxtest::WriteFileBytes(name, "x");
  std::string first = name, second = name;
  TFileHandle a = CreateFileSafeOverWrite(name, first);
  TFileHandle b = CreateFileSafeOverWrite(name, second);
  ASSERT_NE(a, kInvalidFileHandle);
  ASSERT_NE(b, kInvalidFileHandle);
  EXPECT_NE(first, second);
  CloseFile(a);
  CloseFile(b);
}

TEST(SaveandloadTest, ExclusiveWriting) {
  oxtest::TempDir dir;
  const auto name = dir.File("x.bin");
  TFileHandle a = CreateFileForWriting(name);
  ASSERT_NE(a, kInvalidFileHandle);
  WriteAllBytes(a, "keep", 4);
  EXPECT_EQ(CreateFileForWriting(name), kInvalidFileHandle);
  CloseFile(a);
  EXPECT_EQ(oxtest::ReadFileBytes(name), "keep"); // the refused writer did not truncate it
}

TEST(SaveandloadTest, StreamsToAndFromFile) {
  oxtest::TempDir dir;
  const auto name = dir.File("st.bin");
  std::vector<uint8_t> bytes(10000);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7);
  TMemoryByteStream stream(bytes);
  stream.SetPosition(123);
  TFileHandle f = CreateFileForWriting(name);
  EXPECT_EQ(SaveStreamToFile(f, stream), 1);
  EXPECT_EQ(stream.Position(), 123);
  CloseFile(f);
  f = OpenFileForReading(name);
  TMemoryByteStream back;
  EXPECT_EQ(LoadStreamFromFile(f, back, 10000), 1);
  EXPECT_EQ(back.Bytes(), bytes);
  EXPECT_EQ(back.Position(), 0);
  FileSeek(f, 9000, TSeekOrigin::Begin);
  EXPECT_EQ(LoadStreamFromFile(f, back, 5000), -3); // more than the rest of the file
  CloseFile(f);
}

TEST(SaveandloadTest, SafeDoubleToFloat) {
  EXPECT_EQ(SafeDoubleToFloat(1e300), 1e36f);
  EXPECT_EQ(SafeDoubleToFloat(-1e300), -1e36f);
  EXPECT_EQ(SafeDoubleToFloat(1e-300), 1e-36f);
  EXPECT_EQ(SafeDoubleToFloat(-1e-300), -1e-36f);
  EXPECT_EQ(SafeDoubleToFloat(0.0), 0.0f);
  EXPECT_EQ(SafeDoubleToFloat(1e36), 1e36f);
  EXPECT_EQ(SafeDoubleToFloat(0.1), 0.1f);
  EXPECT_TRUE(std::isnan(SafeDoubleToFloat(std::nan(""))));
}

TEST(TagStreamTest, StreamPathReadsTheFileBytes) {
  oxtest::TempDir dir;
  const auto name = dir.File("s.oxt");
  TFileHandle f = CreateTagFile(name, "ORX_STRM");
  TTagControl root, t;
  root.WriteTag(f, "Root", TTagKind::TagList);
  t.SaveIntTag(f, "A", 11);
  const uint8_t b[3] = {1, 2, 3};
  t.SaveByteTag(f, "B", b, 3);
  root.CloseWriteTag(f);
  CloseFile(f);
  const std::string bytes = oxtest::ReadFileBytes(name);
  TMemoryByteStream stream(std::vector<uint8_t>(bytes.begin(), bytes.end()));
  std::string id, rootName;
  EXPECT_EQ(LoadIdentificationFromStream(&stream, id), kStreamOk);
  EXPECT_EQ(id, "ORX_STRM");
  TTagControl sroot, tag;
  EXPECT_EQ(ReadTagFromStream(&stream, sroot, rootName), kStreamOk);
  EXPECT_EQ(rootName, "Root");
  uint8_t got[3] = {};
  EXPECT_EQ(LoadByteTagFromStream(&stream, tag, "B", sroot, got, 3), kStreamOk);
  EXPECT_EQ(got[2], 3);
  int32_t a = 0;
  EXPECT_EQ(LoadOrDefaultIntTagFromStream(&stream, tag, "A", sroot, &a, 1, -1), kStreamOk);
  EXPECT_EQ(a, 11);
  // Unlike the file path: defaults filled and the failure still returned.
  EXPECT_EQ(LoadOrDefaultIntTagFromStream(&stream, tag, "Z", sroot, &a, 1, -1), kStreamFail);
  EXPECT_EQ(a, -1);
}

} // namespace
