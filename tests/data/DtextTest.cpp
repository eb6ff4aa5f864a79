// Streams and texts: raw bytes through a file unchanged, an absent stream stays absent, corrupt sizes are
// refused.
#include "data/Dtext.h"

#include "support/DataRoundTrip.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

TTagError SaveAndLoad(TData& object, TData& back, const oxtest::TempDir& dir) {
  return oxtest::SaveAndLoad(object, back, dir.File("text.oxt"));
}

TEST(DtextTest, TextBytesRoundTripUnchanged) {
  oxtest::TempDir dir;
  TDText text;
  EXPECT_NE(text.GetStream(), nullptr); // made at construction
  EXPECT_EQ(text.GetDataCategory(), 10);
  int changes = 0;
  text.SetOnDataChange(
      [&](TData*, TDataChangeInfo info) { changes += info == TDataChangeInfo::DataChanged; });
  const std::string document =
      std::string("{\\rtf1 Raman \xC2\xB5m\n", 18) + std::string("\0\xFF\x01 end", 7);
  text.SetText(document);
  EXPECT_EQ(changes, 1);
  EXPECT_TRUE(text.IsRichText());
  TDText back;
  ASSERT_EQ(SaveAndLoad(text, back, dir), 1);
  EXPECT_EQ(back.GetText(), document); // stream bytes aren't converted like strings
  EXPECT_EQ(back.GetText().size(), document.size());

  TDText empty;
  TDText emptyBack;
  emptyBack.SetText("old");
  ASSERT_EQ(SaveAndLoad(empty, emptyBack, dir), 1);
  ASSERT_NE(emptyBack.GetStream(), nullptr);
  EXPECT_EQ(emptyBack.GetText(), "");
  EXPECT_FALSE(emptyBack.IsRichText());
}

TEST(DtextTest, StreamWithoutDataStaysWithout) {
  oxtest::TempDir dir;
  TDStream none;
  TDStream back;
  back.MakeStream().WriteBytes("xyz", 3);
  ASSERT_EQ(SaveAndLoad(none, back, dir), 1);
  EXPECT_EQ(back.GetStream(), nullptr);
}

TEST(DtextTest, ASizeThatDiffersFromTheDataIsRefused) {
  oxtest::TempDir dir;
  const auto name = dir.File("bad.oxt");
  // Beyond the data (refused before allocating), zeroed (the text would vanish silently), short of it.
  for (int32_t size : {1 << 30, 0, 3, 4}) {
    TDText text;
    TFileHandle f = CreateTagFile(name, "ORX_TEST");
    TTagControl root, own, t;
    root.WriteTag(f, "Root", TTagKind::TagList);
    ASSERT_EQ(text.TData::SaveDataToTagFile(f), 1);
    own.WriteTag(f, "TDStream", TTagKind::TagList);
    t.SaveIntTag(f, "Version", 0);
    t.SaveIntTag(f, "StreamSize", size);
    const uint8_t bytes[4] = {1, 2, 3, 4};
    t.SaveByteTag(f, "StreamData", bytes, 4);
    own.CloseWriteTag(f);
    root.CloseWriteTag(f);
    CloseFile(f);
    TFileHandle in = kInvalidFileHandle;
    TTagControl readRoot;
    ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
    TDText back;
    if (size == 4) {
      EXPECT_EQ(back.LoadDataFromTagFile(in, readRoot), 1);
      EXPECT_EQ(back.GetText(), std::string("\x01\x02\x03\x04"));
    } else {
      EXPECT_LT(back.LoadDataFromTagFile(in, readRoot), 1) << size;
    }
    CloseFile(in);
  }
}

} // namespace

namespace {

// Names of the direct child lists of the tag file's root, in order.
std::vector<std::string> ClassListsOf(const std::string& fileName) {
  std::vector<std::string> names;
  TFileHandle in = kInvalidFileHandle;
  TTagControl root;
  if (OpenTagFileForReading(fileName, {"ORX_TEST"}, in, root) < 1) return names;
  for (int64_t pos = root.Begin(); pos < root.End();) {
    FileSeek(in, pos, TSeekOrigin::Begin);
    TTagControl child;
    std::string name;
    if (child.ReadTag(in, name) < 1) break;
    if (child.Kind() == TTagKind::TagList) names.push_back(name);
    pos = child.End();
  }
  CloseFile(in);
  return names;
}

} // namespace

TEST(DtextTest, TheTextWritesItsOwnClassListAfterTheStreamsAndLoadsWithoutIt) {
  oxtest::TempDir dir;
  TDText text;
  text.SetText("plain words");
  const auto name = dir.File("own.oxt");
  TFileHandle f = CreateTagFile(name, "ORX_TEST");
  TTagControl root;
  root.WriteTag(f, "Root", TTagKind::TagList);
  ASSERT_EQ(text.SaveDataToTagFile(f), 1);
  root.CloseWriteTag(f);
  CloseFile(f);
  const auto lists = ClassListsOf(name);
  ASSERT_GE(lists.size(), 2u);
  EXPECT_EQ(lists[lists.size() - 2], "TDStream");
  EXPECT_EQ(lists.back(), "TDText");
  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot, own;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  ASSERT_EQ(own.FindTag(in, "TDText", readRoot), 1);
  int32_t version = -1;
  EXPECT_EQ(TTagControl().LoadIntTag(in, "Version", own, &version, 1), 1);
  EXPECT_EQ(version, TDText::ThisVersion);
  CloseFile(in);

  // A file written before the text had its own list: the stream's part alone loads the text.
  TDStream olderForm;
  olderForm.MakeStream().WriteBytes("older text", 10);
  TDText back;
  ASSERT_EQ(SaveAndLoad(olderForm, back, dir), 1);
  EXPECT_EQ(back.GetText(), "older text");
}
