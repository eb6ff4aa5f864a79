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

TEST(DtextTest, SizeBeyondTheDataIsRefused) {
  oxtest::TempDir dir;
  const auto name = dir.File("bad.oxt");
  TDText text;
  TFileHandle f = CreateTagFile(name, "ORX_TEST");
  TTagControl root, own, t;
  root.WriteTag(f, "Root", TTagKind::TagList);
  ASSERT_EQ(text.TData::SaveDataToTagFile(f), 1);
  own.WriteTag(f, "TDStream", TTagKind::TagList);
  t.SaveIntTag(f, "Version", 0);
  t.SaveIntTag(f, "StreamSize", 1 << 30);
  const uint8_t bytes[4] = {1, 2, 3, 4};
  t.SaveByteTag(f, "StreamData", bytes, 4);
  own.CloseWriteTag(f);
  root.CloseWriteTag(f);
  CloseFile(f);
  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  TDText back;
  EXPECT_LT(back.LoadDataFromTagFile(in, readRoot), 1);
  CloseFile(in);
}

} // namespace
