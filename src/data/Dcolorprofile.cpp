// Colour profiles: standard tables, value-to-colour lookup and the file form.
#include "data/Dcolorprofile.h"

#include <algorithm>
#include <cmath>

namespace {

struct TTableInfo {
  const char* Name;
  enum { Linear, Stored, TwoEntries } Kind;
  int32_t Count;
  TColor First, Middle, Last; // linear tables: the full colour in First
};

const TTableInfo& TableInfo(TStandardColorProfileTable table) {
  static const TTableInfo infos[] = {
      {"Gray", TTableInfo::Linear, 256, 0xFFFFFF, 0, 0},
      {"Red", TTableInfo::Linear, 256, 0x0000FF, 0, 0},
      {"Green", TTableInfo::Linear, 256, 0x00FF00, 0, 0},
      {"Blue", TTableInfo::Linear, 256, 0xFF0000, 0, 0},
      {"Yellow", TTableInfo::Linear, 256, 0x00FFFF, 0, 0},
      {"Aqua", TTableInfo::Linear, 256, 0xFFFF00, 0, 0},
      {"Fuchsia", TTableInfo::Linear, 256, 0xFF00FF, 0, 0},
      {"Crazy1", TTableInfo::Stored, 1024, 0x000000, 0x31CD00, 0x00FFFF},
      {"Scan", TTableInfo::Stored, 1024, 0x000000, 0x002CAE, 0x73FFFF},
      {"WhiteBlack", TTableInfo::TwoEntries, 2, 0xFFFFFF, 0, 0x000000},
      {"Geo", TTableInfo::Stored, 256, 0x000000, 0xF0C000, 0xF0F0F0},
      {"Sun", TTableInfo::Stored, 1024, 0x000000, 0x7F7FB6, 0xD7D7FF},
      {"Mint", TTableInfo::Stored, 1024, 0x000000, 0x8BCA0E, 0xFFFFFF},
      {"Greny", TTableInfo::Stored, 1024, 0x000000, 0x00FE00, 0xFFFFFF},
      {"GreenWhite", TTableInfo::Stored, 1024, 0x000000, 0x00A200, 0xFFFFFF},
      {"GoldBrown", TTableInfo::Stored, 1024, 0x082451, 0x1587DD, 0x96FBFF},
      {"Crazy2", TTableInfo::Stored, 1024, 0x000000, 0x7100EF, 0xF0F0F0},
      {"BlueWhite", TTableInfo::Stored, 1024, 0x000000, 0xFE0000, 0xFFFEFE},
      {"Cherry", TTableInfo::Stored, 1024, 0x000000, 0x3F3F7F, 0xFFFFFF},
      {"Rainbow", TTableInfo::Stored, 256, 0x000000, 0x00FF00, 0xFFFFFF},
      {"RedBlackGreen", TTableInfo::Stored, 256, 0x0000FF, 0x000000, 0x00FF00},
      {"Rainbow2", TTableInfo::Stored, 1024, 0x610061, 0x00FF64, 0x0000FF},
  };
  return infos[static_cast<int32_t>(table) - kFirstStandardColorTable];
}

bool IsKnownTable(TStandardColorProfileTable table) {
  const auto n = static_cast<int32_t>(table);
  return n >= kFirstStandardColorTable && n <= kLastStandardColorTable;
}

int Channel(TColor colour, int shift) {
  return static_cast<int>((colour >> shift) & 0xFF);
}

TColor MakeColor(int red, int green, int blue) {
  return static_cast<TColor>(red) | (static_cast<TColor>(green) << 8) | (static_cast<TColor>(blue) << 16);
}

} // namespace

std::string GetStandardColorTableName(TStandardColorProfileTable table) {
  return IsKnownTable(table) ? TableInfo(table).Name : "";
}

std::vector<TColor> GetStoredColorList(TStandardColorProfileTable table) {
  if (!IsKnownTable(table) || TableInfo(table).Kind != TTableInfo::Stored) return {};
  const TTableInfo& info = TableInfo(table);
  const int32_t n = info.Count;
  const double x1 = n / 2, x2 = n - 1;
  std::vector<TColor> list(static_cast<size_t>(n));
  // Per channel the parabola through the first, middle and last entry (Lagrange form), kept within a byte.
  for (int32_t i = 0; i < n; ++i) {
    const double x = i;
    const double l0 = (x - x1) * (x - x2) / ((0 - x1) * (0 - x2));
    const double l1 = (x - 0) * (x - x2) / ((x1 - 0) * (x1 - x2));
    const double l2 = (x - 0) * (x - x1) / ((x2 - 0) * (x2 - x1));
    int channels[3];
    for (int c = 0; c < 3; ++c) {
      const double value =
          l0 * Channel(info.First, 8 * c) + l1 * Channel(info.Middle, 8 * c) + l2 * Channel(info.Last, 8 * c);
      channels[c] = static_cast<int>(std::lround(std::clamp(value, 0.0, 255.0)));
    }
    list[static_cast<size_t>(i)] = MakeColor(channels[0], channels[1], channels[2]);
  }
  return list;
}

// ---------------------------------------------------------------------------------------------
// TDColorProfile

TDColorProfile::TDColorProfile() {
  SetSaveMode(TDataSaveMode::WhileUsed);
  ApplyTable(FStandardTable);
  SetCaption("Default Color Profile");
}

void TDColorProfile::ApplyTable(TStandardColorProfileTable table) {
  const TTableInfo& info = TableInfo(table);
  switch (info.Kind) {
  case TTableInfo::Linear:
    SetLinearTable(info.First);
    break;
  case TTableInfo::Stored: {
    const std::vector<TColor> list = GetStoredColorList(table);
    SetInnerTable(list.data(), static_cast<int32_t>(list.size()));
    break;
  }
  case TTableInfo::TwoEntries:
    SetColorCount(2);
    FColors[0] = info.First;
    FColors[1] = info.Last;
    break;
  }
}

void TDColorProfile::SetStandardColorTable(TStandardColorProfileTable table) {
  if (!IsKnownTable(table)) return;
  ApplyTable(table);
  FStandardTable = table;
  DoDataChange(TDataChangeInfo::DataChanged);
}

void TDColorProfile::SetLinearTable(TColor colour) {
  SetColorCount(256);
  for (int i = 0; i < 256; ++i)
    FColors[static_cast<size_t>(255 - i)] =
        MakeColor(Channel(colour, 0) * (i + 1) / 256, Channel(colour, 8) * (i + 1) / 256,
                  Channel(colour, 16) * (i + 1) / 256);
}

void TDColorProfile::SetInnerTable(const TColor* list, int32_t count) {
  SetColorCount(count);
  for (int32_t i = 0; i < count; ++i) FColors[static_cast<size_t>(count - 1 - i)] = list[i];
}

void TDColorProfile::SetColorCount(int32_t count) {
  FColors.assign(static_cast<size_t>(std::max(count, 0)), 0xFFFFFF);
}

void TDColorProfile::SetColorCycle(int32_t cycle) {
  cycle = std::max(cycle, 1);
  if (cycle == FColorCycle) return;
  FColorCycle = cycle;
  DoDataChange(TDataChangeInfo::DataChanged);
}

void TDColorProfile::SetWithExtraTopColor(bool on) {
  if (on == FWithExtraTopColor) return;
  FWithExtraTopColor = on;
  DoDataChange(TDataChangeInfo::DataChanged);
}

void TDColorProfile::SetWithExtraBottomColor(bool on) {
  if (on == FWithExtraBottomColor) return;
  FWithExtraBottomColor = on;
  DoDataChange(TDataChangeInfo::DataChanged);
}

void TDColorProfile::SetTopColor(TColor colour) {
  if (colour == FTopColor) return;
  FTopColor = colour;
  DoDataChange(TDataChangeInfo::DataChanged);
}

void TDColorProfile::SetBottomColor(TColor colour) {
  if (colour == FBottomColor) return;
  FBottomColor = colour;
  DoDataChange(TDataChangeInfo::DataChanged);
}

TColor TDColorProfile::GetTopColor() const {
  if (FWithExtraTopColor) return FTopColor;
  return FColors.empty() ? 0 : FColors.front();
}

TColor TDColorProfile::GetBottomColor() const {
  if (FWithExtraBottomColor) return FBottomColor;
  return FColors.empty() ? 0 : FColors.back();
}

TColor TDColorProfile::GetColors(int32_t i) const {
  return i >= 0 && i < GetColorCount() ? FColors[static_cast<size_t>(i)] : 0;
}

TColor TDColorProfile::GetColorsFromIndex(int32_t index) const {
  if (index < 0) return GetTopColor();
  if (index < GetTotalCount()) return FColors[static_cast<size_t>(index % GetColorCount())];
  return GetBottomColor();
}

TColor TDColorProfile::GetColorsFromValue(double upper, double lower, double value) const {
  if (std::fabs(upper - lower) < 1e-30) return 0;
  return GetColorsFromValueFast(upper, lower, value);
}

TColor TDColorProfile::GetColorsFromValueFast(double upper, double lower, double value) const {
  const double total = GetTotalCount();
  const double factor = total / (upper - lower);
  double position = (upper - value) * factor;
  if (!(position >= -2.0)) // also NaN
    position = -2.0;
  if (position > total + 2.0) position = total + 2.0;
  return GetColorsFromIndex(static_cast<int32_t>(position)); // truncation toward zero
}

void TDColorProfile::FillColorMap(TStandardColorProfileTable table, TColor* map, int32_t size) {
  if (!IsKnownTable(table) || size < 1) return;
  std::vector<TColor> list = GetStoredColorList(table);
  if (list.empty()) {
    TDColorProfile profile;
    profile.ApplyTable(table);
    list = profile.FColors;
  }
  const auto count = static_cast<int64_t>(list.size());
  for (int32_t i = 0; i < size; ++i) map[i] = list[static_cast<size_t>(i * count / size)];
}

void TDColorProfile::SetCaptionByColorTable() {
  std::string caption = "Color Profile (" + GetStandardColorTableName(FStandardTable);
  if (FColorCycle != 1) caption += ", Cycle " + std::to_string(FColorCycle);
  if (FWithExtraTopColor) caption += ", TopColor";
  if (FWithExtraBottomColor) caption += ", BottomColor";
  SetCaption(caption + ")");
}

TTagError TDColorProfile::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TData::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  const int32_t count = GetColorCount();
  static_assert(sizeof(TColor) == sizeof(int32_t));
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveIntTag(file, "StandardColorProfileTable", static_cast<int32_t>(FStandardTable))) < 1 ||
      (result = t.SaveIntTag(file, "ColorCount", count)) < 1 ||
      (result = t.SaveIntTag(file, "Colors", reinterpret_cast<const int32_t*>(FColors.data()), count)) < 1 ||
      (result = t.SaveIntTag(file, "TopColor", static_cast<int32_t>(FTopColor))) < 1 ||
      (result = t.SaveIntTag(file, "BottomColor", static_cast<int32_t>(FBottomColor))) < 1 ||
      (result = t.SaveIntTag(file, "ColorCycle", FColorCycle)) < 1 ||
      (result = t.SaveBoolTag(file, "WithExtraTopColor", FWithExtraTopColor)) < 1 ||
      (result = t.SaveBoolTag(file, "WithExtraBottomColor", FWithExtraBottomColor)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDColorProfile::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TData::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  int32_t version = 0, table = 0, count = 0;
  if ((result = own.FindTag(file, kClassName, parent)) < 1 ||
      (result = t.LoadIntTag(file, "Version", own, &version)) < 1 ||
      (result = t.LoadIntTag(file, "StandardColorProfileTable", own, &table)) < 1 ||
      (result = t.LoadIntTag(file, "ColorCount", own, &count)) < 1 ||
      (result = t.FindTag(file, "Colors", own)) < 1)
    return result;
  // A count the tag can't hold is corrupt: refuse before allocating.
  if (count < 0 || static_cast<int64_t>(count) * 4 > t.End() - t.Begin()) return teReadFileError;
  FStandardTable = static_cast<TStandardColorProfileTable>(table);
  SetColorCount(count);
  if ((result = t.LoadIntTag(file, "Colors", own, reinterpret_cast<int32_t*>(FColors.data()), count)) < 1)
    return result;
  int32_t top = static_cast<int32_t>(FTopColor), bottom = static_cast<int32_t>(FBottomColor);
  t.LoadOrDefaultIntTag(file, "TopColor", own, &top, 1, top);
  t.LoadOrDefaultIntTag(file, "BottomColor", own, &bottom, 1, bottom);
  FTopColor = static_cast<TColor>(top);
  FBottomColor = static_cast<TColor>(bottom);
  t.LoadOrDefaultIntTag(file, "ColorCycle", own, &FColorCycle, 1, 1);
  FColorCycle = std::max(FColorCycle, 1);
  t.LoadOrDefaultBoolTag(file, "WithExtraTopColor", own, &FWithExtraTopColor, 1, false);
  t.LoadOrDefaultBoolTag(file, "WithExtraBottomColor", own, &FWithExtraBottomColor, 1, false);
  SetCaptionByColorTable();
  return teNoError;
}

void RegisterColorProfileClasses() {
  TData::RegisterDataObject(TDColorProfile::kClassName, &TDColorProfile::CreateDataObject);
}
