// Colour profiles: the tables that turn image values into colours, with the standard tables, cycles and
// extra colours for values outside the range.
#pragma once

#include "data/Dcustom.h"

#include <cstdint>
#include <string>
#include <vector>

/// A colour 0x00BBGGRR: the low byte is red.
using TColor = uint32_t;

/// The standard tables (1 to 22).
enum class TStandardColorProfileTable : int32_t {
  Gray = 1,
  Red = 2,
  Green = 3,
  Blue = 4,
  Yellow = 5,
  Aqua = 6,
  Fuchsia = 7,
  Crazy1 = 8,
  Scan = 9,
  WhiteBlack = 10,
  Geo = 11,
  Sun = 12,
  Mint = 13,
  Greny = 14,
  GreenWhite = 15,
  GoldBrown = 16,
  Crazy2 = 17,
  BlueWhite = 18,
  Cherry = 19,
  Rainbow = 20,
  RedBlackGreen = 21,
  Rainbow2 = 22,
};
inline constexpr int32_t kFirstStandardColorTable = 1;
inline constexpr int32_t kLastStandardColorTable = 22;

/// The table's name ("Gray", ...); empty for an unknown number.
std::string GetStandardColorTableName(TStandardColorProfileTable table);
/// The stored list of a table that has one (bottom of the range first), empty for the others. The lists
/// run smoothly through the fixed first, middle and last entries of each table.
std::vector<TColor> GetStoredColorList(TStandardColorProfileTable table);

/// Value-to-colour table. Index 0 belongs to the top of the value range, the last index to the bottom.
class TDColorProfile : public TData {
  ORVEX_DATA_CLASS(TDColorProfile, TData)
public:
  TDColorProfile();
  static constexpr int32_t ThisVersion = 0;

  int32_t GetDataCategory() const override { return 9; }
  TTagError SaveDataToTagFile(TFileHandle file) override;
  /// Keeps the stored colours and ends with SetCaptionByColorTable: a stored caption doesn't survive.
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;

  /// Sets the table of a standard number, stores the number and reports a change; unknown numbers do nothing.
  void SetStandardColorTable(TStandardColorProfileTable table);
  TStandardColorProfileTable GetStandardColorTable() const { return FStandardTable; }
  /// 256 entries fading from colour at index 0 to nearly black at index 255.
  void SetLinearTable(TColor colour);
  /// Copies a stored list reversed: entry i goes to index count - 1 - i.
  void SetInnerTable(const TColor* list, int32_t count);
  /// Resizes the table, filled white; no change is reported.
  void SetColorCount(int32_t count);
  int32_t GetColorCount() const { return static_cast<int32_t>(FColors.size()); }
  void SetColorCycle(int32_t cycle);
  int32_t GetColorCycle() const { return FColorCycle; }
  int32_t GetTotalCount() const { return GetColorCount() * FColorCycle; }
  void SetWithExtraTopColor(bool on);
  void SetWithExtraBottomColor(bool on);
  bool GetWithExtraTopColor() const { return FWithExtraTopColor; }
  bool GetWithExtraBottomColor() const { return FWithExtraBottomColor; }
  void SetTopColor(TColor colour);
  void SetBottomColor(TColor colour);
  /// The extra top colour when switched on, else the first entry.
  TColor GetTopColor() const;
  /// The extra bottom colour when switched on, else the last entry.
  TColor GetBottomColor() const;
  /// Table entry i, 0 outside.
  TColor GetColors(int32_t i) const;
  /// Negative: top colour; below the total count: entry index modulo the count; above: bottom colour.
  TColor GetColorsFromIndex(int32_t index) const;
  /// The colour of value in the range from lower to upper; 0 when the range is empty.
  TColor GetColorsFromValue(double upper, double lower, double value) const;
  /// The same without the range test, for whole images whose caller tested the range once.
  TColor GetColorsFromValueFast(double upper, double lower, double value) const;
  /// A table's colours stretched to size entries (for a menu icon).
  static void FillColorMap(TStandardColorProfileTable table, TColor* map, int32_t size);
  /// "Color Profile (" + table name, cycle and extras, + ")".
  void SetCaptionByColorTable();

private:
  void ApplyTable(TStandardColorProfileTable table);

  TStandardColorProfileTable FStandardTable = TStandardColorProfileTable::Scan;
  int32_t FColorCycle = 1;
  bool FWithExtraTopColor = false;
  bool FWithExtraBottomColor = false;
  TColor FTopColor = 0x0000FF;
  TColor FBottomColor = 0xFF0000;
  std::vector<TColor> FColors;
};

/// Registers the colour profile class.
void RegisterColorProfileClasses();
