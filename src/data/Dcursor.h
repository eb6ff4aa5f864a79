// Cursors: shared positions in one physical dimension, moved by viewers and tools through ordinary data
// changes; the project's cursor locks; and the link a listener keeps to the cursor of its unit.
#pragma once

#include "data/Dcustom.h"
#include "data/Dinterpretation.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// The state of a cursor: which mouse buttons and keys took part in its last change (a set of bits).
using TDCursorParts = uint32_t;

/// The bits of TDCursorParts with a fixed meaning.
enum TDCursorPart : TDCursorParts {
  cpShiftOrAlt = 1u << 0,
  cpLeftHeld = 1u << 2,
  cpDoubleClick = 1u << 3,
  cpLeftReleased = 1u << 4,
  cpLeftPressed = 1u << 5,
  cpMiddleHeld = 1u << 6,
  cpMiddleReleased = 1u << 7,
  cpMiddlePressed = 1u << 8,
  cpRightHeld = 1u << 9,
  cpRightReleased = 1u << 10,
  cpRightPressed = 1u << 11,
  cpLockChanged = 1u << 14,
  cpCtrlHeld = 1u << 16,
};
/// The eighteen parts that exist.
inline constexpr TDCursorParts kCursorPartsMask = (1u << 18) - 1;

enum class TMouseButton { Left, Right, Middle };

/// Keys and buttons held during a mouse event.
struct TShiftState {
  bool Shift = false;
  bool Alt = false;
  bool Ctrl = false;
  bool Left = false;
  bool Right = false;
  bool Middle = false;
  bool Double = false;
};

/// Base of the cursors: positions, the positions at the last press, box positions, names, state and lock.
class TDCursor : public TData {
  ORVEX_DATA_CLASS(TDCursor, TData)
public:
  TDCursor();
  static constexpr int32_t ThisVersion = 0;

  int32_t GetDataCategory() const override { return 5; }
  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  /// Clears the state after delivery, so that a state is only seen during its own notification.
  void AfterOnDataChange() override;

  /// @{ Values; an index out of range gives 0.0 or does nothing. A setter that changes nothing is silent.
  double GetPosition(int32_t i) const;
  void SetPosition(int32_t i, double value);
  double GetDiffPosition(int32_t i) const;
  void SetDiffPosition(int32_t i, double value);
  /// i from 0 to n, j from 0 to n - 1; the setter reports no change.
  double GetBoxPosition(int32_t i, int32_t j) const;
  void SetBoxPosition(int32_t i, int32_t j, double value);
  /// Difference position minus position.
  double GetDifference(int32_t i) const;
  /// Root of the sum of the squared differences.
  double GetTotalDifference() const;
  /// @}
  std::string GetPositionName(int32_t i) const;
  int32_t GetNumberOfPositions() const { return static_cast<int32_t>(FPositions.size()); }
  /// A different count makes all three arrays anew, zero-filled.
  void SetNumberOfPositions(int32_t n);
  TUnitKind GetUnitKind() const { return FUnitKind; }
  const std::string& GetStandardUnit() const { return FStandardUnit; }
  void SetStandardUnit(const std::string& unit) { FStandardUnit = unit; }

  /// @{ A mouse event as a state; the set is cleared first.
  static void FillCursorStateDown(TDCursorParts& state, TMouseButton button, const TShiftState& shift);
  static void FillCursorStateUp(TDCursorParts& state, TMouseButton button, const TShiftState& shift);
  static void FillCursorStateMove(TDCursorParts& state, const TShiftState& shift);
  /// @}
  /// True when two states are the same for the parts that exist.
  static bool IsSameState(TDCursorParts a, TDCursorParts b);
  /// Stores a different state (a left press copies the positions into the difference positions), then
  /// reports a data change in every case.
  void SetCursorState(TDCursorParts state);
  TDCursorParts GetCursorState() const { return FState; }

  /// The locker owns parts of the cursor; a change of locker or parts is announced by the lock bit.
  void ChangeToLock(const void* locker, TDCursorParts parts);
  /// Only the present locker can unlock.
  void ChangeToUnlock(const void* locker);
  const void* GetLockingObject() const { return FLockingObject; }
  TDCursorParts GetLockState() const { return FLockState; }

protected:
  void InitCursor(TUnitKind kind, std::vector<std::string> names, const std::string& unit,
                  const std::string& caption, int32_t imageIndex);

  TUnitKind FUnitKind = TUnitKind::None;
  std::vector<double> FPositions;
  std::vector<double> FDiffPositions;
  std::vector<double> FBoxPositions;
  std::vector<std::string> FPositionNames;
  std::string FStandardUnit = "a.u.";
  TDCursorParts FState = 0;
  const void* FLockingObject = nullptr;
  TDCursorParts FLockState = 0;
};

class TDSpaceCursor : public TDCursor {
  ORVEX_DATA_CLASS(TDSpaceCursor, TDCursor)
public:
  TDSpaceCursor();
};

class TDInverseSpaceCursor : public TDCursor {
  ORVEX_DATA_CLASS(TDInverseSpaceCursor, TDCursor)
public:
  TDInverseSpaceCursor();
};

class TDSpectralCursor : public TDCursor {
  ORVEX_DATA_CLASS(TDSpectralCursor, TDCursor)
public:
  TDSpectralCursor();
};

class TDTimeCursor : public TDCursor {
  ORVEX_DATA_CLASS(TDTimeCursor, TDCursor)
public:
  TDTimeCursor();
};

class TDFrequencyCursor : public TDCursor {
  ORVEX_DATA_CLASS(TDFrequencyCursor, TDCursor)
public:
  TDFrequencyCursor();
};

class TDPhaseCursor : public TDCursor {
  ORVEX_DATA_CLASS(TDPhaseCursor, TDCursor)
public:
  TDPhaseCursor();
};

class TDZCursor : public TDCursor {
  ORVEX_DATA_CLASS(TDZCursor, TDCursor)
public:
  TDZCursor();
};

/// The project's cursor locks: who holds which cursor. One per project; the project forwards its
/// ChangeCursorToLock, ChangeCursorToUnlock, IsCursorLockedByObject and GetNumberOfLockCursors here,
/// calls DataChange from its change routing and ReleaseAllLocks when it is cleared.
class TCursorLockManager {
public:
  explicit TCursorLockManager(IDataProject& project) : FProject(project) {}

  /// Locks the cursor of id for locker (null releases every lock on it); false when id is no cursor.
  bool ChangeCursorToLock(int32_t id, const void* locker, TDCursorParts parts);
  /// Releases the lock when locker holds it; false when id is no cursor or someone else holds it.
  bool ChangeCursorToUnlock(int32_t id, const void* locker);
  bool IsCursorLockedByObject(int32_t id, const void* locker) const;
  /// The number of cursors of the project that someone holds.
  int32_t GetNumberOfLockCursors() const;
  /// Releases the locks of all cursors (the project is being cleared).
  void ReleaseAllLocks();
  /// A cursor being removed releases its lock holder.
  void DataChange(TData* data, TDataChangeInfo info);

  /// Fired with the cursor's ID whenever its locker changed.
  std::function<void(int32_t)> OnCursorLockChange;

private:
  TDCursor* FindCursor(int32_t id) const;
  IDataProject& FProject;
};

/// What a viewer or tool keeps of a shared cursor: its ID, found or made for one unit kind. Every holder of
/// the same unit works on the same object, so a move by one reaches all others as the cursor's data change.
class TCursorLink {
public:
  /// Finds or makes the cursor of the unit kind in the project; returns its ID (0 for kind 0).
  int32_t Connect(IDataProject& project, TUnitKind kind);
  /// Finds or makes the cursor of a transformation's unit kind.
  int32_t ConnectByTransformation(IDataProject& project, int32_t transformationID);
  void Disconnect() { FCursorID = 0; }
  int32_t GetCursorID() const { return FCursorID; }
  /// The cursor while it exists in the project, else null.
  TDCursor* GetCursor() const;
  /// Moves the shared cursor; false when there is none.
  bool SetPosition(int32_t i, double value);
  double GetPosition(int32_t i) const;

  /// Feed every DataChanged of the holder here. A change of the cursor calls OnCursorChanged; its removal
  /// clears the ID and calls OnCursorRemoved. True when the change concerned the cursor.
  bool DataChanged(TData* sender, TDataChangeInfo info);
  bool IsDataUsed(int32_t id) const { return id != 0 && id == FCursorID; }
  void AddToID(int32_t delta) { TData::SafeAddToDataID(FCursorID, delta); }

  std::function<void(TDCursor&, TDataChangeInfo)> OnCursorChanged;
  std::function<void()> OnCursorRemoved;

private:
  IDataProject* FProject = nullptr;
  int32_t FCursorID = 0;
};

/// Moves a space cursor by (stepX, stepY) pixels of a space transformation, as the arrow keys do.
void SendSpaceCursorByArrowKeys(IDataProject& project, int32_t cursorID, int32_t transformationID,
                                int32_t stepX, int32_t stepY);

/// Registers the cursor classes in the fixed order of the registry.
void RegisterCursorClasses();
