// Colour profiles: the index arithmetic of value-to-colour with cycles, empty ranges and extra colours, the
// standard tables through their fixed entries, and the file form that keeps stored colours.
#include "data/Dcolorprofile.h"

#include "support/DataRoundTrip.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

TEST(DcolorprofileTest, ValueToColourWithCycle) {
  TDColorProfile profile;
  EXPECT_EQ(profile.GetStandardColorTable(), TStandardColorProfileTable::Scan);
  ASSERT_EQ(profile.GetColorCount(), 1024);
  profile.SetColorCycle(3);
  EXPECT_EQ(profile.GetTotalCount(), 3072);
  // (300 - 250) * 3072 / 300 = 512, modulo 1024.
  EXPECT_EQ(profile.GetColorsFromValue(300, 0, 250), profile.GetColors(512));
  // The table repeats within the range: index 1536 is entry 512 again.
  EXPECT_EQ(profile.GetColorsFromValue(300, 0, 150), profile.GetColors(512));
  EXPECT_EQ(profile.GetColorsFromValue(300, 0, 300), profile.GetColors(0));
  EXPECT_EQ(profile.GetColorsFromValue(5, 5, 5), 0u); // empty range
  EXPECT_EQ(profile.GetColorsFromValueFast(300, 0, 250), profile.GetColors(512));
}

TEST(DcolorprofileTest, OutOfRangeValuesTakeTopAndBottomColours) {
  TDColorProfile profile;
  profile.SetStandardColorTable(TStandardColorProfileTable::Gray);
  profile.SetTopColor(0x123456);
  profile.SetBottomColor(0x654321);
  // Without the flags the first and last table entries are used.
  EXPECT_EQ(profile.GetColorsFromValue(1, 0, 2), profile.GetColors(0));
  EXPECT_EQ(profile.GetColorsFromValue(1, 0, -1), profile.GetColors(255));
  profile.SetWithExtraTopColor(true);
  profile.SetWithExtraBottomColor(true);
  EXPECT_EQ(profile.GetColorsFromValue(1, 0, 2), 0x123456u);
  EXPECT_EQ(profile.GetColorsFromValue(1, 0, -1), 0x654321u);
  EXPECT_EQ(profile.GetColorsFromIndex(-1), 0x123456u);
  EXPECT_EQ(profile.GetColorsFromIndex(256), 0x654321u);
  // Just above upper truncates to index 0, still a table colour.
  EXPECT_EQ(profile.GetColorsFromValue(1, 0, 1.001), profile.GetColors(0));
  EXPECT_EQ(profile.GetColors(256), 0u);
}

TEST(DcolorprofileTest, StandardTables) {
  TDColorProfile profile;
  int changes = 0;
  profile.SetOnDataChange(
      [&](TData*, TDataChangeInfo info) { changes += info == TDataChangeInfo::DataChanged; });
  profile.SetStandardColorTable(TStandardColorProfileTable::Red);
  EXPECT_EQ(changes, 1);
  ASSERT_EQ(profile.GetColorCount(), 256);
  EXPECT_EQ(profile.GetColors(0), 0x0000FFu);   // full colour at the top
  EXPECT_EQ(profile.GetColors(255), 0x000000u); // 255 * 1 / 256 = 0
  EXPECT_EQ(profile.GetColors(127), 0x000080u); // 255 * 129 / 256 = 128
  profile.SetStandardColorTable(TStandardColorProfileTable::WhiteBlack);
  EXPECT_EQ(profile.GetColorCount(), 2);
  EXPECT_EQ(profile.GetColors(0), 0xFFFFFFu);
  EXPECT_EQ(profile.GetColors(1), 0x000000u);
  profile.SetStandardColorTable(static_cast<TStandardColorProfileTable>(99));
  EXPECT_EQ(profile.GetStandardColorTable(), TStandardColorProfileTable::WhiteBlack);

  // Every stored list runs through its fixed first, middle and last entry; the table holds it reversed.
  struct TFixed {
    TStandardColorProfileTable Table;
    int32_t Count;
    TColor First, Middle, Last;
  };
  const TFixed fixed[] = {
      {TStandardColorProfileTable::Crazy1, 1024, 0x000000, 0x31CD00, 0x00FFFF},
      {TStandardColorProfileTable::Scan, 1024, 0x000000, 0x002CAE, 0x73FFFF},
      {TStandardColorProfileTable::Geo, 256, 0x000000, 0xF0C000, 0xF0F0F0},
      {TStandardColorProfileTable::GoldBrown, 1024, 0x082451, 0x1587DD, 0x96FBFF},
      {TStandardColorProfileTable::RedBlackGreen, 256, 0x0000FF, 0x000000, 0x00FF00},
      {TStandardColorProfileTable::Rainbow2, 1024, 0x610061, 0x00FF64, 0x0000FF},
  };
  for (const auto& f : fixed) {
    const auto list = GetStoredColorList(f.Table);
    ASSERT_EQ(static_cast<int32_t>(list.size()), f.Count);
    EXPECT_EQ(list.front(), f.First);
    EXPECT_EQ(list[static_cast<size_t>(f.Count / 2)], f.Middle);
    EXPECT_EQ(list.back(), f.Last);
    profile.SetStandardColorTable(f.Table);
    EXPECT_EQ(profile.GetColors(0), f.Last);
    EXPECT_EQ(profile.GetColors(f.Count - 1), f.First);
    TColor map[8];
    TDColorProfile::FillColorMap(f.Table, map, 8);
    EXPECT_EQ(map[0], f.First);
    EXPECT_EQ(map[4], f.Middle);
  }
  for (int32_t table = kFirstStandardColorTable; table <= kLastStandardColorTable; ++table)
    EXPECT_FALSE(GetStandardColorTableName(static_cast<TStandardColorProfileTable>(table)).empty());
  EXPECT_TRUE(GetStoredColorList(TStandardColorProfileTable::Gray).empty());
}

TEST(DcolorprofileTest, InnerTableAndCountAndCaption) {
  TDColorProfile profile;
  int changes = 0;
  profile.SetOnDataChange(
      [&](TData*, TDataChangeInfo info) { changes += info == TDataChangeInfo::DataChanged; });
  const TColor list[3] = {1, 2, 3};
  profile.SetInnerTable(list, 3);
  EXPECT_EQ(profile.GetColors(0), 3u);
  EXPECT_EQ(profile.GetColors(2), 1u);
  profile.SetColorCount(4);
  EXPECT_EQ(profile.GetColors(3), 0xFFFFFFu);
  EXPECT_EQ(changes, 0); // neither reports a change
  profile.SetColorCycle(1);
  EXPECT_EQ(changes, 0);
  profile.SetColorCycle(2);
  EXPECT_EQ(changes, 1);
  profile.SetWithExtraTopColor(true);
  profile.SetCaptionByColorTable();
  EXPECT_EQ(profile.GetCaption(), "Color Profile (Scan, Cycle 2, TopColor)");
  profile.SetWithExtraBottomColor(true);
  profile.SetColorCycle(1);
  profile.SetCaptionByColorTable();
  EXPECT_EQ(profile.GetCaption(), "Color Profile (Scan, TopColor, BottomColor)");
}

TEST(DcolorprofileTest, LoadedProfileKeepsItsStoredColours) {
  oxtest::TempDir dir;
  const auto name = dir.File("profile.oxt");
  TDColorProfile profile;
  profile.SetStandardColorTable(TStandardColorProfileTable::Sun);
  const TColor custom[5] = {0x010203, 0xA0B0C0, 0xFFFFFF, 0, 0x800000};
  profile.SetInnerTable(custom, 5); // colours no longer those of the table number
  profile.SetColorCycle(4);
  profile.SetTopColor(0xFEDCBA);
  profile.SetWithExtraBottomColor(true);
  profile.SetCaption("Mine");
  TDColorProfile back;
  ASSERT_EQ(oxtest::SaveAndLoad(profile, back, name), 1);
  EXPECT_EQ(back.GetStandardColorTable(), TStandardColorProfileTable::Sun);
  ASSERT_EQ(back.GetColorCount(), 5);
  for (int32_t i = 0; i < 5; ++i) EXPECT_EQ(back.GetColors(i), profile.GetColors(i));
  EXPECT_EQ(back.GetColorCycle(), 4);
  EXPECT_TRUE(back.GetWithExtraBottomColor());
  EXPECT_FALSE(back.GetWithExtraTopColor());
  EXPECT_EQ(back.GetTopColor(), profile.GetColors(0)); // flag off: the first entry
  back.SetWithExtraTopColor(true);
  EXPECT_EQ(back.GetTopColor(), 0xFEDCBAu);
  EXPECT_EQ(back.GetCaption(),
            "Color Profile (Sun, Cycle 4, BottomColor)"); // a stored caption doesn't survive
}

} // namespace
