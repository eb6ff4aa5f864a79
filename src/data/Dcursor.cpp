// Cursors of every unit, their state from mouse events, file form, the project's locks and cursor links.
#include "data/Dcursor.h"

#include "data/Dtransformation.h"

#include <cmath>

TDCursor::TDCursor() {
  SetSaveMode(TDataSaveMode::WhileUsed);
}

void TDCursor::InitCursor(TUnitKind kind, std::vector<std::string> names, const std::string& unit,
                          const std::string& caption, int32_t imageIndex) {
  FUnitKind = kind;
  SetNumberOfPositions(static_cast<int32_t>(names.size()));
  FPositionNames = std::move(names);
  FStandardUnit = unit;
  SetCaption(caption);
  SetImageIndex(imageIndex);
}

TDSpaceCursor::TDSpaceCursor() {
  InitCursor(TUnitKind::Space, {"X", "Y", "Z"}, "µm", "Spatial Cursor", 1);
}
TDInverseSpaceCursor::TDInverseSpaceCursor() {
  InitCursor(TUnitKind::InverseSpace, {"Px", "Py", "Pz"}, "1/µm", "Inverse Spatial Cursor", 2);
}
TDSpectralCursor::TDSpectralCursor() {
  InitCursor(TUnitKind::Spectral, {"Spectral Position"}, "nm", "Spectral Cursor", 3);
}
TDTimeCursor::TDTimeCursor() {
  InitCursor(TUnitKind::Time, {"Time"}, "s", "Time Cursor", 4);
}
TDFrequencyCursor::TDFrequencyCursor() {
  InitCursor(TUnitKind::Frequency, {"Frequency"}, "Hz", "Frequency Cursor", 5);
}
TDPhaseCursor::TDPhaseCursor() {
  InitCursor(TUnitKind::Phase, {"Phase"}, "rad", "Phase Cursor", 6);
}
TDZCursor::TDZCursor() {
  InitCursor(TUnitKind::ZValue, {"ZValue"}, "a.u.", "Z Cursor", 7);
}

// ---------------------------------------------------------------------------------------------
// Positions

namespace {
bool InRange(int32_t i, size_t size) {
  return i >= 0 && static_cast<size_t>(i) < size;
}
} // namespace

double TDCursor::GetPosition(int32_t i) const {
  return InRange(i, FPositions.size()) ? FPositions[static_cast<size_t>(i)] : 0.0;
}

void TDCursor::SetPosition(int32_t i, double value) {
  if (!InRange(i, FPositions.size()) || FPositions[static_cast<size_t>(i)] == value) return;
  FPositions[static_cast<size_t>(i)] = value;
  DoDataChange(TDataChangeInfo::DataChanged);
}

double TDCursor::GetDiffPosition(int32_t i) const {
  return InRange(i, FDiffPositions.size()) ? FDiffPositions[static_cast<size_t>(i)] : 0.0;
}

void TDCursor::SetDiffPosition(int32_t i, double value) {
  if (!InRange(i, FDiffPositions.size()) || FDiffPositions[static_cast<size_t>(i)] == value) return;
  FDiffPositions[static_cast<size_t>(i)] = value;
  DoDataChange(TDataChangeInfo::DataChanged);
}

double TDCursor::GetBoxPosition(int32_t i, int32_t j) const {
  const int32_t n = GetNumberOfPositions();
  if (i < 0 || i > n || j < 0 || j >= n) return 0.0;
  return FBoxPositions[static_cast<size_t>(i) * static_cast<size_t>(n) + static_cast<size_t>(j)];
}

void TDCursor::SetBoxPosition(int32_t i, int32_t j, double value) {
  const int32_t n = GetNumberOfPositions();
  if (i < 0 || i > n || j < 0 || j >= n) return;
  FBoxPositions[static_cast<size_t>(i) * static_cast<size_t>(n) + static_cast<size_t>(j)] = value;
}

double TDCursor::GetDifference(int32_t i) const {
  if (!InRange(i, FPositions.size())) return 0.0;
  return FDiffPositions[static_cast<size_t>(i)] - FPositions[static_cast<size_t>(i)];
}

double TDCursor::GetTotalDifference() const {
  double sum = 0.0;
  for (int32_t i = 0; i < GetNumberOfPositions(); ++i) sum += GetDifference(i) * GetDifference(i);
  return std::sqrt(sum);
}

std::string TDCursor::GetPositionName(int32_t i) const {
  if (!InRange(i, FPositions.size()) || !InRange(i, FPositionNames.size())) return "a.u.";
  return FPositionNames[static_cast<size_t>(i)];
}

void TDCursor::SetNumberOfPositions(int32_t n) {
  if (n < 0) n = 0;
  if (n == GetNumberOfPositions() &&
      FBoxPositions.size() == static_cast<size_t>(n + 1) * static_cast<size_t>(n))
    return;
  FPositions.assign(static_cast<size_t>(n), 0.0);
  FDiffPositions.assign(static_cast<size_t>(n), 0.0);
  FBoxPositions.assign(static_cast<size_t>(n + 1) * static_cast<size_t>(n), 0.0);
}

// ---------------------------------------------------------------------------------------------
// State and locks

namespace {
TDCursorParts HeldParts(const TShiftState& shift) {
  TDCursorParts state = 0;
  if (shift.Shift || shift.Alt) state |= cpShiftOrAlt; // a viewer can't tell the two apart
  if (shift.Ctrl) state |= cpCtrlHeld;
  if (shift.Left) state |= cpLeftHeld;
  if (shift.Middle) state |= cpMiddleHeld;
  if (shift.Right) state |= cpRightHeld;
  if (shift.Double) state |= cpDoubleClick;
  return state;
}
} // namespace

void TDCursor::FillCursorStateDown(TDCursorParts& state, TMouseButton button, const TShiftState& shift) {
  state = HeldParts(shift);
  switch (button) {
  case TMouseButton::Left:
    state |= cpLeftPressed;
    break;
  case TMouseButton::Middle:
    state |= cpMiddlePressed;
    break;
  case TMouseButton::Right:
    state |= cpRightPressed;
    break;
  }
}

void TDCursor::FillCursorStateUp(TDCursorParts& state, TMouseButton button, const TShiftState& shift) {
  state = HeldParts(shift);
  switch (button) {
  case TMouseButton::Left:
    state |= cpLeftReleased;
    break;
  case TMouseButton::Middle:
    state |= cpMiddleReleased;
    break;
  case TMouseButton::Right:
    state |= cpRightReleased;
    break;
  }
}

void TDCursor::FillCursorStateMove(TDCursorParts& state, const TShiftState& shift) {
  state = HeldParts(shift);
}

bool TDCursor::IsSameState(TDCursorParts a, TDCursorParts b) {
  // The first three bytes compare whole; the fourth only under the mask of the parts that exist.
  constexpr TDCursorParts lowBytes = 0x00FFFFFFu;
  constexpr TDCursorParts highMask = kCursorPartsMask & 0xFF000000u;
  return (a & lowBytes) == (b & lowBytes) && (a & highMask) == (b & highMask);
}

void TDCursor::SetCursorState(TDCursorParts state) {
  if (!IsSameState(state, FState)) {
    FState = state;
    if (state & cpLeftPressed) FDiffPositions = FPositions; // a drag measures from here
  }
  DoDataChange(TDataChangeInfo::DataChanged);
}

void TDCursor::AfterOnDataChange() {
  TData::AfterOnDataChange();
  FState = 0;
}

void TDCursor::ChangeToLock(const void* locker, TDCursorParts parts) {
  const bool changed = locker != FLockingObject || !IsSameState(parts, FLockState);
  FLockState = parts;
  FLockingObject = locker;
  if (changed) SetCursorState(cpLockChanged);
  if (!locker) FLockState = 0;
}

void TDCursor::ChangeToUnlock(const void* locker) {
  if (!locker || locker != FLockingObject) return;
  FLockingObject = nullptr;
  SetCursorState(cpLockChanged);
  FLockState = 0;
}

// ---------------------------------------------------------------------------------------------
// File form

TTagError TDCursor::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TData::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  const int32_t n = GetNumberOfPositions();
  if ((result = own.WriteTag(file, "TDCursor", TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveIntTag(file, "NumberOfPositions", n)) < 1 ||
      (result = t.SaveDoubleTag(file, "Positions", FPositions.data(), n)) < 1 ||
      (result = t.SaveAnsiStringTag(file, "StandardUnit", FStandardUnit)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDCursor::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TData::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  int32_t version = 0, n = 0;
  if ((result = own.FindTag(file, "TDCursor", parent)) < 1 ||
      (result = t.LoadIntTag(file, "Version", own, &version)) < 1 ||
      (result = t.LoadIntTag(file, "NumberOfPositions", own, &n)) < 1)
    return result;
  if (n < 0) return teReadFileError;
  if ((result = t.FindTag(file, "Positions", own)) < 1) return result;
  // A count the tag can't hold is corrupt: refuse before allocating.
  if (static_cast<int64_t>(n) * 8 > t.End() - t.Begin()) return teReadFileError;
  SetNumberOfPositions(n);
  if ((result = t.LoadDoubleTag(file, "Positions", own, FPositions.data(), n)) < 1) return result;
  t.LoadOrDefaultAnsiStringTag(file, "StandardUnit", own, FStandardUnit, FStandardUnit);
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// TCursorLockManager

TDCursor* TCursorLockManager::FindCursor(int32_t id) const {
  return dynamic_cast<TDCursor*>(FProject.FindData(id));
}

bool TCursorLockManager::ChangeCursorToLock(int32_t id, const void* locker, TDCursorParts parts) {
  TDCursor* cursor = FindCursor(id);
  if (!cursor) return false;
  const void* before = cursor->GetLockingObject();
  cursor->ChangeToLock(locker, parts);
  if (before != cursor->GetLockingObject() && OnCursorLockChange) OnCursorLockChange(id);
  return true;
}

bool TCursorLockManager::ChangeCursorToUnlock(int32_t id, const void* locker) {
  TDCursor* cursor = FindCursor(id);
  if (!cursor || !locker || cursor->GetLockingObject() != locker) return false;
  cursor->ChangeToUnlock(locker);
  if (OnCursorLockChange) OnCursorLockChange(id);
  return true;
}

bool TCursorLockManager::IsCursorLockedByObject(int32_t id, const void* locker) const {
  const TDCursor* cursor = FindCursor(id);
  return cursor && locker && cursor->GetLockingObject() == locker;
}

int32_t TCursorLockManager::GetNumberOfLockCursors() const {
  int32_t count = 0;
  for (int32_t id : FProject.GetIDListOfAllData())
    if (const auto* cursor = dynamic_cast<const TDCursor*>(FProject.FindData(id)))
      if (cursor->GetLockingObject()) ++count;
  return count;
}

void TCursorLockManager::ReleaseAllLocks() {
  for (int32_t id : FProject.GetIDListOfAllData())
    if (TDCursor* cursor = FindCursor(id))
      if (cursor->GetLockingObject()) ChangeCursorToLock(id, nullptr, 0);
}

void TCursorLockManager::DataChange(TData* data, TDataChangeInfo info) {
  if (info != TDataChangeInfo::Removed || !data) return;
  if (auto* cursor = dynamic_cast<TDCursor*>(data))
    if (cursor->GetLockingObject()) ChangeCursorToLock(cursor->GetID(), nullptr, 0);
}

// ---------------------------------------------------------------------------------------------
// TCursorLink

int32_t TCursorLink::Connect(IDataProject& project, TUnitKind kind) {
  FProject = &project;
  const std::string className = GetCursorClassNameForUnitKind(kind);
  FCursorID = className.empty() ? 0 : project.MakeOrGetFirstIDByClassName(className);
  return FCursorID;
}

int32_t TCursorLink::ConnectByTransformation(IDataProject& project, int32_t transformationID) {
  FProject = &project;
  FCursorID = MakeOrGetCursorIDFromTransformationID(project, transformationID);
  return FCursorID;
}

TDCursor* TCursorLink::GetCursor() const {
  if (!FProject || FCursorID == 0) return nullptr;
  return dynamic_cast<TDCursor*>(FProject->FindData(FCursorID));
}

bool TCursorLink::SetPosition(int32_t i, double value) {
  TDCursor* cursor = GetCursor();
  if (!cursor) return false;
  cursor->SetPosition(i, value);
  return true;
}

double TCursorLink::GetPosition(int32_t i) const {
  const TDCursor* cursor = GetCursor();
  return cursor ? cursor->GetPosition(i) : 0.0;
}

bool TCursorLink::DataChanged(TData* sender, TDataChangeInfo info) {
  if (!sender || FCursorID == 0 || sender->GetID() != FCursorID) return false;
  if (info == TDataChangeInfo::Removed) {
    FCursorID = 0;
    if (OnCursorRemoved) OnCursorRemoved();
    return true;
  }
  if (auto* cursor = dynamic_cast<TDCursor*>(sender); cursor && OnCursorChanged)
    OnCursorChanged(*cursor, info);
  return true;
}

void SendSpaceCursorByArrowKeys(IDataProject& project, int32_t cursorID, int32_t transformationID,
                                int32_t stepX, int32_t stepY) {
  auto* cursor = dynamic_cast<TDSpaceCursor*>(project.FindData(cursorID));
  const auto* space = dynamic_cast<const TDSpaceTransformation*>(project.FindData(transformationID));
  if (!cursor || !space) return;
  // The cursor moves by whole pixels of the scan: to bins, step, and back to space.
  const double real[3] = {cursor->GetPosition(0), cursor->GetPosition(1), cursor->GetPosition(2)};
  double bin[3];
  space->RealToBin(bin, real);
  bin[0] += stepX;
  bin[1] += stepY;
  double moved[3];
  space->BinToReal(bin, moved);
  cursor->SetAutoDataChange(false);
  for (int i = 0; i < 3; ++i) cursor->SetPosition(i, moved[i]);
  cursor->SetAutoDataChange(true);
}

void RegisterCursorClasses() {
  TData::RegisterDataObject(TDSpaceCursor::kClassName, &TDSpaceCursor::CreateDataObject);
  TData::RegisterDataObject(TDInverseSpaceCursor::kClassName, &TDInverseSpaceCursor::CreateDataObject);
  TData::RegisterDataObject(TDSpectralCursor::kClassName, &TDSpectralCursor::CreateDataObject);
  TData::RegisterDataObject(TDZCursor::kClassName, &TDZCursor::CreateDataObject);
  TData::RegisterDataObject(TDTimeCursor::kClassName, &TDTimeCursor::CreateDataObject);
  TData::RegisterDataObject(TDFrequencyCursor::kClassName, &TDFrequencyCursor::CreateDataObject);
  TData::RegisterDataObject(TDPhaseCursor::kClassName, &TDPhaseCursor::CreateDataObject);
}
