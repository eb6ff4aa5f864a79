// Automatic placement of viewers, the derived grid, saved window positions and layout files per monitor
// arrangement.
#include "viewers/Viewerpositioning.h"

#include "common/Logfile.h"
#include "common/Saveandload.h"
#include "project/Project.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>

namespace {

const char* kSystemGroup = "ViewerPositionSystem";
const char* kFormSettingsGroup = "FormSettings";
const char* kLayoutIdentification = "ORX_PRSE";
const char* kLayoutRoot = "ViewerPositioning";

TTagError SaveInts(TFileHandle file, std::initializer_list<std::pair<const char*, int32_t>> values) {
  TTagControl t;
  for (const auto& [name, value] : values) {
    const TTagError result = t.SaveIntTag(file, name, value);
    if (result < 1) return result;
  }
  return teNoError;
}

} // namespace

void TViewerPositionInfo::ResetRunning() {
  Cycle = 0;
  BeginLeft = Left;
  BeginTop = Top;
  BeginColumn = 0;
  BeginRow = 0;
  MaximumHeight = 0;
  if (Derived) Derived->ResetRunning();
}

TViewerPositionInfo TViewerPositionInfo::CopyLayout() const {
  TViewerPositionInfo copy;
  copy.ClassName = ClassName;
  copy.Caption = Caption;
  copy.Kind = Kind;
  copy.Cycle = Cycle;
  copy.Left = Left;
  copy.Top = Top;
  copy.BeginLeft = BeginLeft;
  copy.BeginTop = BeginTop;
  copy.Height = Height;
  copy.MaximumHeight = MaximumHeight;
  copy.Width = Width;
  copy.Columns = Columns;
  copy.Rows = Rows;
  copy.BeginColumn = BeginColumn;
  copy.BeginRow = BeginRow;
  copy.DesiredRatio = DesiredRatio;
  copy.AutoArray = AutoArray;
  return copy;
}

// ---------------------------------------------------------------------------------------------

TViewerPositioning::TViewerPositioning() {
  using K = TViewerPositionKind;
  AddDefaultInfo("TVImageForm", "Image Viewer", K::Array, 400, 0, 400, 400, 3, 2);
  AddDefaultInfo("TVMultiGraphForm", "Graph Viewer", K::Array, 400, 420, 500, 350, 2, 2);
  AddDefaultInfo("TVFilterManagerForm", "Filter Viewer", K::Cascade, 420, 40, 500, 400, 1, 1);
  AddDefaultInfo("TVProjectManagerForm", "Project Manager", K::SinglePosition, 0, 0, 390, 700, 1, 1);
  AddDefaultInfo("TVTextForm", "Text Viewer", K::Cascade, 410, 30, 520, 420, 1, 1);
}

void TViewerPositioning::AddDefaultInfo(const std::string& className, const std::string& caption,
                                        TViewerPositionKind kind, int32_t left, int32_t top, int32_t width,
                                        int32_t height, int32_t columns, int32_t rows) {
  auto info = std::make_unique<TViewerPositionInfo>();
  info->ClassName = className;
  info->Caption = caption;
  info->Kind = kind;
  info->Left = left;
  info->Top = top;
  info->Width = width;
  info->Height = height;
  info->Columns = columns;
  info->Rows = rows;
  info->ResetRunning();
  FInfos.push_back(std::move(info));
}

TViewerPositioning* TViewerPositioning::CreateInstance() {
  if (!FInstance) FInstance = std::make_unique<TViewerPositioning>();
  return FInstance.get();
}

void TViewerPositioning::CleanupInstance() {
  FInstance.reset();
}

std::string TViewerPositioning::ExchangeClassNameForViewerPositioning(const std::string& className) {
  if (className == "TVBitmapForm") return "TVImageForm";
  if (className == "TVFilterForm") return "TVFilterManagerForm";
  return className;
}

TViewerPositionInfo* TViewerPositioning::GetInfo(const std::string& className) {
  const std::string name = ExchangeClassNameForViewerPositioning(className);
  for (auto& info : FInfos)
    if (info->ClassName == name) return info.get();
  return nullptr;
}

void TViewerPositioning::SetViewerBounds(TVCustomForm* viewer, int32_t left, int32_t top, int32_t width,
                                         int32_t height, bool /*recalculating*/) {
  viewer->SetAutoPositionBounds(left, top, std::max(width, 1), std::max(height, 1));
}

void TViewerPositioning::SetViewerPosition(TVCustomForm* viewer, bool recalculating) {
  if (!viewer) return;
  TWindowPlacement placement = viewer->GetPlacement();
  if (placement.ShowCommand == TWindowPlacement::kShowMinimized) {
    placement.ShowCommand = TWindowPlacement::kShowNormal;
    viewer->SetPlacement(placement);
  }
  TViewerPositionInfo* stored = GetInfo(viewer->GetClassNameA());
  if (!stored) return;
  TViewerPositionInfo& info = stored->Derived ? *stored->Derived : *stored;
  const int32_t ownWidth = viewer->GetWidth();
  const int32_t ownHeight = viewer->GetHeight();
  int32_t left = viewer->GetLeft();
  int32_t top = viewer->GetTop();
  int32_t width = ownWidth;
  int32_t height = ownHeight;
  switch (info.Kind) {
  case TViewerPositionKind::None:
    return;
  case TViewerPositionKind::Array: {
    width = info.Width != 0 ? info.Width : ownWidth;
    if (info.Width != 0) {
      left = info.BeginLeft + width * info.BeginColumn;
    } else {
      left = info.BeginLeft;
      info.BeginLeft += width;
    }
    height = info.Height != 0 ? info.Height : ownHeight;
    if (info.Height != 0) {
      top = info.BeginTop + height * info.BeginRow;
    } else {
      top = info.BeginTop;
      info.MaximumHeight = std::max(info.MaximumHeight, height);
    }
    if (++info.BeginColumn >= std::max(1, info.Columns)) {
      info.BeginColumn = 0;
      if (info.Height == 0) {
        info.BeginTop += info.MaximumHeight;
        info.MaximumHeight = 0;
      }
      if (info.Width == 0) info.BeginLeft = info.Left + kCycleOffset * info.Cycle;
      if (++info.BeginRow >= std::max(1, info.Rows)) {
        info.BeginRow = 0;
        ++info.Cycle;
        info.BeginLeft = info.Left + kCycleOffset * info.Cycle;
        info.BeginTop = info.Top + kCycleOffset * info.Cycle;
      }
    }
    break;
  }
  case TViewerPositionKind::Cascade: {
    // Ten steps, then the cascade starts over at its first place.
    const int32_t step = info.Cycle % 10;
    left = info.Left + kCascadeStep * step;
    top = info.Top + kCascadeStep * step;
    width = info.Width != 0 ? info.Width : ownWidth;
    height = info.Height != 0 ? info.Height : ownHeight;
    ++info.Cycle;
    break;
  }
  case TViewerPositionKind::SinglePosition:
    left = info.Left;
    top = info.Top;
    width = info.Width != 0 ? info.Width : ownWidth;
    height = info.Height != 0 ? info.Height : ownHeight;
    break;
  }
  SetViewerBounds(viewer, left, top, width, height, recalculating);
}

void TViewerPositioning::PlaceLoadedViewer(TVCustomForm* viewer) {
  if (!viewer) return;
  if (ResetPositionsOnLoad ||
      IsOffScreen(viewer->GetLeft(), viewer->GetTop(), viewer->GetWidth(), viewer->GetHeight()))
    SetViewerPosition(viewer, false);
}

std::vector<TVCustomForm*> TViewerPositioning::FillViewerList() const {
  return FProject ? FProject->GetAllViewersWithoutHardwareAndDialog() : std::vector<TVCustomForm*>{};
}

int32_t TViewerPositioning::CountViewers(const std::string& className, bool countAll) const {
  int32_t count = 0;
  for (TVCustomForm* viewer : FillViewerList())
    if (ExchangeClassNameForViewerPositioning(viewer->GetClassNameA()) == className &&
        (countAll || !viewer->WasAutoPositioned() || viewer->HasFormNotBeenMovedByUserSinceAutoPosition()))
      ++count;
  return count;
}

void TViewerPositioning::CalculateAutoArray(TViewerPositionInfo* info, bool countAll) {
  if (!info) return;
  info->Derived.reset();
  if (!info->AutoArray || info->Kind != TViewerPositionKind::Array) return;
  info->Derived = std::make_unique<TViewerPositionInfo>(info->CopyLayout());
  TViewerPositionInfo& derived = *info->Derived;
  const int32_t count = CountViewers(info->ClassName, countAll);
  const int32_t columns = std::max(1, info->Columns);
  const int32_t rows = std::max(1, info->Rows);
  if (columns * rows >= count) return;
  const int32_t spaceWidth = info->Width * columns;
  const int32_t spaceHeight = info->Height * rows;
  const int32_t maxColumns = spaceWidth / kMinimumTile;
  const int32_t maxRows = spaceHeight / kMinimumTile;
  int32_t bestColumns = 0;
  int32_t bestRows = 0;
  double bestDistance = 0;
  for (int32_t c = 1; c <= maxColumns; ++c)
    for (int32_t r = 1; r <= maxRows; ++r) {
      if (c * r < count || c * r >= count + c) continue;
      const double ratio = (static_cast<double>(spaceWidth) / c) / (static_cast<double>(spaceHeight) / r);
      const double distance = std::fabs(ratio - info->DesiredRatio);
      if (bestColumns == 0 || distance < bestDistance) {
        bestColumns = c;
        bestRows = r;
        bestDistance = distance;
      }
    }
  if (bestColumns == 0) {
    bestColumns = maxColumns;
    bestRows = maxRows;
  }
  bestColumns = std::max(1, bestColumns);
  bestRows = std::max(1, bestRows);
  derived.Columns = bestColumns;
  derived.Rows = bestRows;
  derived.Width = std::max(spaceWidth / bestColumns, kMinimumTile);
  derived.Height = std::max(spaceHeight / bestRows, kMinimumTile);
  derived.ResetRunning();
}

void TViewerPositioning::ResetViewerPositionList(bool calculateAutoArray) {
  for (auto& info : FInfos) ResetViewerPositionListByClassName(info->ClassName, calculateAutoArray);
}

void TViewerPositioning::ResetViewerPositionListByClassName(const std::string& className,
                                                            bool calculateAutoArray) {
  TViewerPositionInfo* info = GetInfo(className);
  if (!info) return;
  info->ResetRunning();
  if (calculateAutoArray) CalculateAutoArray(info, true);
}

void TViewerPositioning::SetAllViewerPositionWithClassName(const std::string& className, bool countAll) {
  TViewerPositionInfo* info = GetInfo(className);
  if (!info) return;
  info->ResetRunning();
  CalculateAutoArray(info, countAll);
  for (TVCustomForm* viewer : FillViewerList())
    if (ExchangeClassNameForViewerPositioning(viewer->GetClassNameA()) == info->ClassName)
      SetViewerPosition(viewer, true);
}

void TViewerPositioning::SetAllViewerPosition() {
  for (auto& info : FInfos) SetAllViewerPositionWithClassName(info->ClassName, true);
}

// ---------------------------------------------------------------------------------------------
// Other windows

TWinControlSaveInfo* TViewerPositioning::AddToSaveList(const TWinControlSaveInfo& info, bool replace) {
  if (TWinControlSaveInfo* existing = GetSaveInfoByUniqueName(info.UniqueName)) {
    if (replace) *existing = info;
    return existing;
  }
  FSaveList.push_back(info);
  return &FSaveList.back();
}

TWinControlSaveInfo* TViewerPositioning::CreateAndAddToSaveList(const std::string& uniqueName, bool replace) {
  TWinControlSaveInfo info;
  info.UniqueName = uniqueName;
  return AddToSaveList(info, replace);
}

TWinControlSaveInfo* TViewerPositioning::GetSaveInfoByUniqueName(const std::string& uniqueName) {
  for (auto& info : FSaveList)
    if (info.UniqueName == uniqueName) return &info;
  return nullptr;
}

void TViewerPositioning::BeforeDelete(const std::string& uniqueName) {
  std::erase_if(FSaveList, [&](const TWinControlSaveInfo& info) { return info.UniqueName == uniqueName; });
}

// ---------------------------------------------------------------------------------------------
// Persistence

TTagError TViewerPositioning::SaveViewerPositionSystemToTagFile(TFileHandle file) {
  TTagControl system;
  TTagControl t;
  TTagError result;
  if ((result = system.WriteTag(file, kSystemGroup, TTagKind::TagList)) < 1) return result;
  for (const auto& info : FInfos) {
    TTagControl group;
    if ((result = group.WriteTag(file, info->ClassName, TTagKind::TagList)) < 1) return result;
    if ((result = SaveInts(file, {{"Kind", static_cast<int32_t>(info->Kind)},
                                  {"Left", info->Left},
                                  {"Top", info->Top},
                                  {"BeginLeft", info->BeginLeft},
                                  {"BeginTop", info->BeginTop},
                                  {"Width", info->Width},
                                  {"Height", info->Height},
                                  {"MaximumHeight", info->MaximumHeight},
                                  {"Column", info->Columns},
                                  {"BeginColumn", info->BeginColumn},
                                  {"Row", info->Rows},
                                  {"BeginRow", info->BeginRow}})) < 1 ||
        (result = t.SaveFloatTag(file, "DesiredRatio", info->DesiredRatio)) < 1 ||
        (result = t.SaveBoolTag(file, "AutoArray", info->AutoArray)) < 1 ||
        (result = t.SaveIntTag(file, "Overload", info->Cycle)) < 1 ||
        (result = group.CloseWriteTag(file)) < 1)
      return result;
  }
  TTagControl forms;
  if ((result = forms.WriteTag(file, kFormSettingsGroup, TTagKind::TagList)) < 1) return result;
  for (const auto& info : FSaveList) {
    TTagControl group;
    if ((result = group.WriteTag(file, info.UniqueName, TTagKind::TagList)) < 1 ||
        (result = SaveInts(
             file,
             {{"Left", info.Left}, {"Top", info.Top}, {"Width", info.Width}, {"Height", info.Height}})) < 1 ||
        (result = t.SaveBoolTag(file, "Visible", info.Visible)) < 1 ||
        (result = group.CloseWriteTag(file)) < 1)
      return result;
  }
  if ((result = forms.CloseWriteTag(file)) < 1) return result;
  return system.CloseWriteTag(file);
}

TTagError TViewerPositioning::LoadViewerPositionSystemFromTagFile(TFileHandle file,
                                                                  const TTagControl& parent) {
  TTagControl system;
  TTagError result = system.FindTag(file, kSystemGroup, parent);
  if (result != teNoError) return result;
  TTagControl t;
  for (auto& info : FInfos) {
    TTagControl group;
    if (group.FindTag(file, info->ClassName, system) != teNoError) continue;
    TViewerPositionInfo& i = *info;
    int32_t kind = static_cast<int32_t>(i.Kind);
    t.LoadOrDefaultIntTag(file, "Kind", group, &kind, 1, kind);
    if (kind >= 0 && kind <= 3) i.Kind = static_cast<TViewerPositionKind>(kind);
    const std::pair<const char*, int32_t*> ints[] = {
        {"Left", &i.Left},
        {"Top", &i.Top},
        {"BeginLeft", &i.BeginLeft},
        {"BeginTop", &i.BeginTop},
        {"Width", &i.Width},
        {"Height", &i.Height},
        {"MaximumHeight", &i.MaximumHeight},
        {"Column", &i.Columns},
        {"BeginColumn", &i.BeginColumn},
        {"Row", &i.Rows},
        {"BeginRow", &i.BeginRow},
        {"Overload", &i.Cycle},
    };
    for (const auto& [name, value] : ints) t.LoadOrDefaultIntTag(file, name, group, value, 1, *value);
    t.LoadOrDefaultFloatTag(file, "DesiredRatio", group, &i.DesiredRatio, 1, i.DesiredRatio);
    t.LoadOrDefaultBoolTag(file, "AutoArray", group, &i.AutoArray, 1, i.AutoArray);
    i.Columns = std::max(1, i.Columns);
    i.Rows = std::max(1, i.Rows);
    i.Width = std::max(0, i.Width);
    i.Height = std::max(0, i.Height);
    if (!(i.DesiredRatio > 0.0f)) i.DesiredRatio = 1.0f;
    i.Derived.reset();
  }
  TTagControl formsTree;
  if (formsTree.LoadTagListByTagName(file, kFormSettingsGroup, system) == teNoError && formsTree.Children()) {
    for (const auto& child : *formsTree.Children()) {
      TWinControlSaveInfo info;
      info.UniqueName = child->Name();
      child->GetIntTagInListOrDefault("Left", info.Left, 0);
      child->GetIntTagInListOrDefault("Top", info.Top, 0);
      child->GetIntTagInListOrDefault("Width", info.Width, 0);
      child->GetIntTagInListOrDefault("Height", info.Height, 0);
      child->GetBoolTagInListOrDefault("Visible", info.Visible, false);
      AddToSaveList(info, true);
    }
  }
  return teNoError;
}

TTagError TViewerPositioning::SaveToFile(const std::string& fileName) {
  std::string tempName = fileName;
  const TFileHandle file = CreateFileSafeOverWrite(fileName, tempName);
  if (file == kInvalidFileHandle) return teCreateFileForWriteError;
  TTagError result = SaveIdentificationToFile(file, kLayoutIdentification);
  TTagControl root;
  if (result >= 1 && (result = root.WriteTag(file, kLayoutRoot, TTagKind::TagList)) >= 1 &&
      (result = SaveViewerPositionSystemToTagFile(file)) >= 1)
    result = root.CloseWriteTag(file);
  CloseFile(file);
  const bool wroteTemp = !tempName.empty() && tempName != fileName;
  if (result < 1) {
    DeleteFileByName(wroteTemp ? tempName : fileName);
    return result;
  }
  if (wroteTemp && !DeleteAndRenameFiles(fileName, tempName)) return teWriteFileError;
  return result;
}

TTagError TViewerPositioning::LoadFromFile(const std::string& fileName) {
  TFileHandle file = kInvalidFileHandle;
  TTagControl root;
  TTagError result = OpenTagFileForReading(fileName, {kLayoutIdentification}, file, root);
  if (result < 1) return result;
  result = LoadViewerPositionSystemFromTagFile(file, root);
  CloseFile(file);
  return result;
}

// ---------------------------------------------------------------------------------------------
// Monitors

std::string TViewerPositioning::GetMonitorString(bool onlyPrimary) const {
  std::vector<TScreenRect> screens = FScreens;
  if (screens.empty()) screens.push_back({0, 0, 1920, 1080});
  std::string text;
  for (const TScreenRect& s : screens) {
    if (!text.empty()) text += ";";
    text += std::to_string(s.Width) + "x" + std::to_string(s.Height) + "+" + std::to_string(s.Left) + "+" +
            std::to_string(s.Top);
    if (onlyPrimary) break;
  }
  return text;
}

std::string TViewerPositioning::GetFileNameByMonitorString(const std::string& monitorString) {
  std::string name = "ViewerPositions_";
  for (char c : monitorString) name += (std::isalnum(static_cast<unsigned char>(c)) || c == '+') ? c : '_';
  return name + ".oxs";
}

std::string TViewerPositioning::GetFileNameForMonitors(bool onlyPrimary) const {
  const std::string name = GetFileNameByMonitorString(GetMonitorString(onlyPrimary));
  return FLayoutFolder.empty() ? name : (std::filesystem::path(FLayoutFolder) / name).string();
}

bool TViewerPositioning::GetExactOrSmallerKnownMonitorResolution(int32_t& width, int32_t& height) const {
  if (FLayoutFolder.empty()) return false;
  std::error_code error;
  int32_t bestWidth = 0;
  int32_t bestHeight = 0;
  for (const auto& entry : std::filesystem::directory_iterator(FLayoutFolder, error)) {
    int w = 0, h = 0, x = 0, y = 0;
    char rest = 0;
    const std::string name = entry.path().filename().string();
    // Single-screen layouts only: "ViewerPositions_WxH+X+Y.oxs".
    if (std::sscanf(name.c_str(), "ViewerPositions_%dx%d+%d+%d.oxs%c", &w, &h, &x, &y, &rest) != 4) continue;
    if (w > width || h > height) continue;
    if (static_cast<int64_t>(w) * h > static_cast<int64_t>(bestWidth) * bestHeight) {
      bestWidth = w;
      bestHeight = h;
    }
  }
  if (bestWidth == 0) return false;
  width = bestWidth;
  height = bestHeight;
  return true;
}

bool TViewerPositioning::IsOffScreen(int32_t left, int32_t top, int32_t width, int32_t height) const {
  std::vector<TScreenRect> screens = FScreens;
  if (screens.empty()) screens.push_back({0, 0, 1920, 1080});
  constexpr int32_t kVisible = 32;
  for (const TScreenRect& s : screens) {
    const int32_t overlapX = std::min(left + width, s.Left + s.Width) - std::max(left, s.Left);
    const int32_t overlapY = std::min(top + height, s.Top + s.Height) - std::max(top, s.Top);
    if (overlapX >= std::min(kVisible, width) && overlapY >= std::min(kVisible, height)) return false;
  }
  return true;
}

bool TViewerPositioning::CheckWindowPositioningChange() {
  const std::string now = GetMonitorString(false);
  if (FLastMonitorString.empty()) {
    FLastMonitorString = now;
    return false;
  }
  if (now == FLastMonitorString) return false;
  if (GlobalLogFile)
    GlobalLogFile->AddLog("Screen Resolution Changed from \"" + FLastMonitorString + "\" to \"" + now + "\"");
  if (!FLayoutFolder.empty()) {
    SaveToFile(
        (std::filesystem::path(FLayoutFolder) / GetFileNameByMonitorString(FLastMonitorString)).string());
    if (LoadFromFile(GetFileNameForMonitors(false)) < 1 && !FScreens.empty()) {
      int32_t w = FScreens.front().Width, h = FScreens.front().Height;
      if (GetExactOrSmallerKnownMonitorResolution(w, h))
        LoadFromFile((std::filesystem::path(FLayoutFolder) /
                      GetFileNameByMonitorString(std::to_string(w) + "x" + std::to_string(h) + "+0+0"))
                         .string());
    }
  }
  FLastMonitorString = now;
  for (TVCustomForm* viewer : FillViewerList())
    if (IsOffScreen(viewer->GetLeft(), viewer->GetTop(), viewer->GetWidth(), viewer->GetHeight()))
      SetViewerPosition(viewer, true);
  return true;
}

bool TViewerPositioning::CheckAndSaveWindowPositioning() {
  if (FLayoutFolder.empty()) return false;
  std::error_code error;
  std::filesystem::create_directories(FLayoutFolder, error);
  return SaveToFile(GetFileNameForMonitors(false)) >= 1;
}
