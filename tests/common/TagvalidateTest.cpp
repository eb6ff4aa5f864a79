// The structural check finds each kind of violation at the right place, and accepts what we write.
#include "common/Tagvalidate.h"

#include "common/Tagcontrol.h"
#include "support/TestSupport.h"

#include <cstring>

#include <gtest/gtest.h>

namespace {

class TagValidateTest : public ::testing::Test {
protected:
  void SetUp() override {
    FName = FDir.File("v.oxt");
    TFileHandle f = CreateTagFile(FName, "ORX_TEST");
    TTagControl root, list, t;
    root.WriteTag(f, "Root", TTagKind::TagList);
    list.WriteTag(f, "L", TTagKind::TagList);
    t.SaveIntTag(f, "I", 1); // child at offset kChild
    t.SaveAnsiStringTag(f, "S", "abc");
    list.CloseWriteTag(f);
    t.SaveDoubleTag(f, "D", 2.0);
    root.CloseWriteTag(f);
    CloseFile(f);
    FBytes = oxtest::ReadFileBytes(FName);
  }

  TTagValidationResult CheckWith(const std::string& bytes) {
    oxtest::WriteFileBytes(FName, bytes);
    return ValidateTagFile(FName);
  }

  template <typename T>
  void Put(std::string& bytes, int64_t offset, T value) {
    std::memcpy(bytes.data() + offset, &value, sizeof value);
  }

  // Header offsets: root at 8, L at 36, I at 61, S at 86, D at 114.
  static constexpr int64_t kList = 36, kInt = 61;
  oxtest::TempDir FDir;
  std::string FName;
  std::string FBytes;
};

TEST_F(TagValidateTest, WrittenFileIsValid) {
  const auto r = ValidateTagFile(FName);
  EXPECT_TRUE(r.Valid) << r.Problem;
  EXPECT_EQ(r.TagCount, 5);
  EXPECT_EQ(r.Identification, "ORX_TEST");
}

TEST_F(TagValidateTest, WrongBeginIsFoundWithPath) {
  std::string bytes = FBytes;
  Put<int64_t>(bytes, kInt + 5 + 4, 9999); // Begin of "I"
  const auto r = CheckWith(bytes);
  EXPECT_FALSE(r.Valid);
  EXPECT_EQ(r.Path, "Root|L|I");
  EXPECT_EQ(r.Offset, kInt + 5 + 4);
  EXPECT_NE(r.Problem.find("Begin"), std::string::npos);
}

TEST_F(TagValidateTest, EndBeyondParent) {
  std::string bytes = FBytes;
  Put<int64_t>(bytes, kInt + 5 + 12, int64_t(bytes.size())); // End of "I" beyond "L"
  const auto r = CheckWith(bytes);
  EXPECT_FALSE(r.Valid);
  EXPECT_EQ(r.Path, "Root|L|I");
  EXPECT_NE(r.Problem.find("beyond the parent"), std::string::npos);
}

TEST_F(TagValidateTest, PayloadNotWholeElements) {
  std::string bytes = FBytes;
  // Make "I" a Double tag: 4 bytes are no whole number of doubles.
  Put<int32_t>(bytes, kInt + 5, static_cast<int32_t>(TTagKind::Double));
  const auto r = CheckWith(bytes);
  EXPECT_FALSE(r.Valid);
  EXPECT_NE(r.Problem.find("whole number"), std::string::npos);
}

TEST_F(TagValidateTest, UnknownKindAndBadIdentification) {
  std::string bytes = FBytes;
  Put<int32_t>(bytes, kInt + 5, 42);
  EXPECT_NE(CheckWith(bytes).Problem.find("unknown tag kind 42"), std::string::npos);
  bytes = FBytes;
  bytes[3] = '\0'; // a NUL followed by more characters
  const auto r = CheckWith(bytes);
  EXPECT_FALSE(r.Valid);
  EXPECT_EQ(r.Offset, 4);
}

TEST_F(TagValidateTest, RootMustReachEndOfFile) {
  const auto r = CheckWith(FBytes + "xx");
  EXPECT_FALSE(r.Valid);
  EXPECT_NE(r.Problem.find("not at the end of the file"), std::string::npos);
  EXPECT_FALSE(CheckWith(FBytes.substr(0, FBytes.size() - 3)).Valid);
}

TEST_F(TagValidateTest, GapBetweenChildrenIsFound) {
  std::string bytes = FBytes;
  // Shorten "L"'s End by one byte: its last child then runs beyond it.
  int64_t listEnd = 0;
  std::memcpy(&listEnd, bytes.data() + kList + 5 + 12, 8);
  Put<int64_t>(bytes, kList + 5 + 12, listEnd - 1);
  EXPECT_FALSE(CheckWith(bytes).Valid);
}

TEST_F(TagValidateTest, UnreadableFile) {
  const auto r = ValidateTagFile(FDir.File("missing.oxt"));
  EXPECT_FALSE(r.Readable);
  EXPECT_FALSE(r.Valid);
}

} // namespace
