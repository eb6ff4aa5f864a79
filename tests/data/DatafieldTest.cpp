// Data fields: layout, conversions per kind, raw access, file form, the old nested form, bad sizes.
#include "data/Datafield.h"

#include "common/OrvexException.h"
#include "common/memory/Memorymanagement.h"
#include "common/memory/Memorystrategyheap.h"
#include "support/TestDataObjects.h"
#include "support/TestProgress.h"
#include "support/TestSupport.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

class DatafieldTest : public ::testing::Test {
protected:
  void SetUp() override { oxtest::EnsureMemoryStrategy(); }
  oxtest::TempDir FDir;
};

TEST_F(DatafieldTest, LastDimensionIsFastest) {
  TDataField field({3, 4, 5}, TDataFieldKind::Float);
  const int32_t index[3] = {1, 2, 3};
  EXPECT_EQ(field.ByteOffset(index), (1 * 20 + 2 * 5 + 3) * 4);
  EXPECT_EQ(field.GetSizeInBytes(), 240);
  std::vector<float> row(20);
  for (int i = 0; i < 20; ++i) row[i] = float(i);
  const int32_t start[3] = {2, 0, 0};
  field.SetValueArray(start, row.data(), 20); // runs past the end of a row into the next
  const int32_t probe[3] = {2, 3, 4};
  EXPECT_EQ(field.GetValue(probe), 19.0f);
}

TEST_F(DatafieldTest, ConversionsPerKind) {
  const int32_t at[1] = {0};
  TDataField i32({4}, TDataFieldKind::Int32);
  i32.SetValue(at, -1.7f);
  EXPECT_EQ(i32.GetValue(at), -1.0f); // truncation toward zero
  TDataField u8({4}, TDataFieldKind::UInt8);
  u8.SetValue(at, -1.7f);
  EXPECT_EQ(u8.GetByteValue(at), 255); // the low byte of -1
  TDataField b({4}, TDataFieldKind::Bool);
  b.SetValue(at, 0.0f);
  EXPECT_FALSE(b.GetBoolValue(at));
  b.SetValue(at, 0.5f);
  EXPECT_TRUE(b.GetBoolValue(at));
  TDataField d({4}, TDataFieldKind::Double);
  d.SetDoubleValue(at, 0.1);
  EXPECT_EQ(d.GetDoubleValue(at), 0.1);
  EXPECT_EQ(d.GetValue(at), 0.1f); // rounded to float
  d.SetByteValue(at, 7);           // another kind: nothing happens
  EXPECT_EQ(d.GetDoubleValue(at), 0.1);
  EXPECT_EQ(d.GetByteValue(at), 0);
  TDataField f({4}, TDataFieldKind::Float);
  f.SetValue(at, 1.2345678f);
  EXPECT_EQ(f.GetValue(at), 1.2345678f);
  TDataField c({2}, TDataFieldKind::Int32);
  c.SetColorValue(at, 0x00ff8040);
  EXPECT_EQ(c.GetColorValue(at), 0x00ff8040);
  // Large arrays go through the conversion blocks.
  TDataField i16({10000}, TDataFieldKind::Int16);
  std::vector<float> in(10000), out(10000);
  for (int i = 0; i < 10000; ++i) in[i] = float(i - 5000) + 0.9f;
  i16.SetValueArray(at, in.data(), 10000);
  i16.GetValueArray(at, out.data(), 10000);
  for (int i = 0; i < 10000; ++i) ASSERT_EQ(out[i], float(std::trunc(in[i]))) << i;
}

TEST_F(DatafieldTest, RefusedKindsAndSizes) {
  EXPECT_THROW(TDataField({4}, TDataFieldKind::Extended), OrvexException);
  EXPECT_THROW(TDataField({4}, TDataFieldKind::None), OrvexException);
  EXPECT_THROW(TDataField({1 << 30, 1 << 30, 1 << 30}, TDataFieldKind::Double),
               OrvexExceptionMemoryAllocation);
  // More than the machine holds: the strategy refuses, with the class's exception.
  EXPECT_THROW(TDataField({1 << 30, 1 << 20}, TDataFieldKind::Double), OrvexExceptionMemoryAllocation);
}

TEST_F(DatafieldTest, FileRoundTripAndOldForm) {
  const auto name = FDir.File("f.oxt");
  const int32_t ranges[4] = {2, 3, 4, 5};
  TDataField field(ranges, 4, TDataFieldKind::Int16);
  std::vector<float> values(120);
  for (int i = 0; i < 120; ++i) values[i] = float(i * 3 - 100);
  const int32_t zero[4] = {0, 0, 0, 0};
  field.SetValueArray(zero, values.data(), 120);
  TDataField empty({0}, TDataFieldKind::Float);

  TFileHandle f = CreateTagFile(name, "ORX_TEST");
  TTagControl root;
  root.WriteTag(f, "Root", TTagKind::TagList);
  oxtest::TRecordingProgress progress;
  ASSERT_EQ(SaveDataFieldToTagFile(f, "Field", field, &progress), 1);
  EXPECT_EQ(progress.Total.load(), 120);
  EXPECT_EQ(progress.Done.load(), 120);
  EXPECT_GE(progress.Questions(), 1); // asked for cancel before the step
  ASSERT_EQ(SaveDataFieldToTagFile(f, "Empty", empty), 1);
  root.CloseWriteTag(f);
  CloseFile(f);

  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot, t;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  std::unique_ptr<TDataField> back;
  ASSERT_EQ(LoadDataFieldFromTagFile(in, "Field", readRoot, back), 1);
  EXPECT_EQ(back->Ranges(), std::vector<int32_t>(ranges, ranges + 4));
  std::vector<float> got(120);
  back->GetValueArray(zero, got.data(), 120);
  EXPECT_EQ(got, values);

  // The same bytes read by the old nested form.
  TTagControl list, data;
  ASSERT_EQ(list.FindTag(in, "Field", readRoot), 1);
  ASSERT_EQ(data.FindTag(in, "Data", list), 1);
  TDataFieldOld old(ranges, 4, TDataFieldKind::Int16);
  ASSERT_EQ(old.LoadDataFromFile(in), 1);
  const int32_t probe[4] = {1, 2, 3, 4};
  EXPECT_EQ(old.GetValue(probe), values[1 * 60 + 2 * 20 + 3 * 5 + 4]);
  EXPECT_EQ(old.GetLastDataFieldKind(), TDataFieldKind::Int16);

  ASSERT_EQ(list.FindTag(in, "Empty", readRoot), 1);
  ASSERT_EQ(data.FindTag(in, "Data", list), 1);
  EXPECT_EQ(data.End(), data.Begin()); // a field of range 0 saves an empty "Data" tag
  CloseFile(in);
}

TEST_F(DatafieldTest, DeferredLoadingReadsWhatIsUsedAndSavesTheSameFile) {
  // 2^20 floats: large enough to wait in the file; a small field behind it must still be found.
  const auto name = FDir.File("large.oxt"), copy = FDir.File("copy.oxt");
  const int32_t count = 1 << 20;
  std::vector<float> values(count);
  for (int32_t i = 0; i < count; ++i) values[size_t(i)] = float(i % 9973) * 0.5f - 7.0f;
  const int32_t zero[1] = {0};
  TDataField field({count}, TDataFieldKind::Float), small({3}, TDataFieldKind::Float);
  field.SetValueArray(zero, values.data(), count);
  const float three[3] = {1.5f, 2.5f, 3.5f};
  small.SetValueArray(zero, three, 3);
  auto write = [&](const std::string& fileName, const TDataField& large) {
    TFileHandle f = CreateTagFile(fileName, "ORX_TEST");
    TTagControl root;
    root.WriteTag(f, "Root", TTagKind::TagList);
    ASSERT_EQ(SaveDataFieldToTagFile(f, "Large", large), 1);
    ASSERT_EQ(SaveDataFieldToTagFile(f, "Small", small), 1);
    root.CloseWriteTag(f);
    CloseFile(f);
  };
  write(name, field);

  struct TRestore {
    ~TRestore() { TMemoryManagement::DeferArrayLoading = false; }
  } restore;
  TMemoryManagement::DeferArrayLoading = true;
  const int deferredBefore = TPartialMemoryFromHeapArray::DeferredArrays();
  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  std::unique_ptr<TDataField> large, behind;
  ASSERT_EQ(LoadDataFieldFromTagFile(in, "Large", readRoot, large), 1);
  ASSERT_EQ(LoadDataFieldFromTagFile(in, "Small", readRoot, behind), 1);
  CloseFile(in); // the large field holds the file open itself
  EXPECT_EQ(TPartialMemoryFromHeapArray::DeferredArrays(), deferredBefore + 1); // the small one was read
  const int32_t probe[1] = {count - 1};
  EXPECT_EQ(large->GetValue(probe), values.back());
  float got[3] = {};
  behind->GetValueArray(zero, got, 3);
  EXPECT_EQ(got[2], 3.5f);
  // Saved again (mostly straight from the first file), it reads back value for value.
  write(copy, *large);
  TMemoryManagement::DeferArrayLoading = false;
  ASSERT_EQ(OpenTagFileForReading(copy, {"ORX_TEST"}, in, readRoot), 1);
  ASSERT_EQ(LoadDataFieldFromTagFile(in, "Large", readRoot, large), 1);
  CloseFile(in);
  std::vector<float> back(count);
  large->GetValueArray(zero, back.data(), count);
  EXPECT_TRUE(back == values);
}

TEST_F(DatafieldTest, SizesThatDontMatchTheDataAreRefused) {
  const auto name = FDir.File("bad.oxt");
  TFileHandle f = CreateTagFile(name, "ORX_TEST");
  TTagControl root, list, t;
  root.WriteTag(f, "Root", TTagKind::TagList);
  list.WriteTag(f, "Field", TTagKind::TagList);
  t.SaveIntTag(f, "Dimension", 2);
  t.SaveIntTag(f, "DataType", 9);
  const int32_t ranges[2] = {100000, 100000}; // 40 GB claimed, 16 bytes stored
  t.SaveIntTag(f, "Ranges", ranges, 2);
  const uint8_t bytes[16] = {};
  t.SaveByteTag(f, "Data", bytes, 16);
  list.CloseWriteTag(f);
  root.CloseWriteTag(f);
  CloseFile(f);
  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  std::unique_ptr<TDataField> field;
  EXPECT_EQ(LoadDataFieldFromTagFile(in, "Field", readRoot, field), teReadFileError);
  EXPECT_EQ(field, nullptr);
  CloseFile(in);
}

} // namespace
