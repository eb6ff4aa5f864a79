// Cursors: positions without notification storms, mouse states and drags, locks through the project's lock
// manager, sharing between listeners through the project's changes, deletion, and the file form.
#include "data/Dcursor.h"

#include "common/Standardmessage.h"
#include "data/Dconnector.h"
#include "data/Dtransformation.h"
#include "project/Project.h"
#include "support/TestSupport.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

TEST(DcursorTest, ClassesCarryTheirUnitsAndNames) {
  TDSpaceCursor space;
  EXPECT_EQ(space.GetNumberOfPositions(), 3);
  EXPECT_EQ(space.GetPositionName(2), "Z");
  EXPECT_EQ(space.GetPositionName(3), "a.u.");
  EXPECT_EQ(space.GetStandardUnit(), "µm");
  EXPECT_EQ(space.GetCaption(), "Spatial Cursor");
  EXPECT_EQ(space.GetSaveMode(), TDataSaveMode::WhileUsed);
  TDInverseSpaceCursor inverse;
  EXPECT_EQ(inverse.GetPositionName(0), "Px");
  EXPECT_EQ(inverse.GetUnitKind(), TUnitKind::InverseSpace);
  TDSpectralCursor spectral;
  EXPECT_EQ(spectral.GetNumberOfPositions(), 1);
  EXPECT_EQ(spectral.GetImageIndex(), 3);
  TDPhaseCursor phase;
  EXPECT_EQ(phase.GetStandardUnit(), "rad");
  TDZCursor z;
  EXPECT_EQ(z.GetImageIndex(), 7);
  EXPECT_EQ(z.GetPositionName(-1), "a.u.");
}

TEST(DcursorTest, PositionsNotifyOnlyOnRealChanges) {
  TDSpaceCursor cursor;
  int changes = 0;
  cursor.SetOnDataChange(
      [&](TData*, TDataChangeInfo info) { changes += info == TDataChangeInfo::DataChanged; });
  cursor.SetPosition(1, 2.5);
  cursor.SetPosition(1, 2.5); // the same value: silent
  cursor.SetPosition(3, 1.0); // out of range: nothing
  cursor.SetPosition(-1, 1.0);
  EXPECT_EQ(changes, 1);
  EXPECT_EQ(cursor.GetPosition(1), 2.5);
  EXPECT_EQ(cursor.GetPosition(3), 0.0);
  cursor.SetDiffPosition(0, 4.0);
  EXPECT_EQ(changes, 2);
  cursor.SetBoxPosition(3, 2, 9.0); // row n is valid, and reports nothing
  cursor.SetBoxPosition(4, 0, 1.0);
  cursor.SetBoxPosition(0, 3, 1.0);
  EXPECT_EQ(cursor.GetBoxPosition(3, 2), 9.0);
  EXPECT_EQ(cursor.GetBoxPosition(4, 0), 0.0);
  EXPECT_EQ(changes, 2);
  cursor.SetNumberOfPositions(2);
  EXPECT_EQ(cursor.GetPosition(1), 0.0);
  EXPECT_EQ(cursor.GetBoxPosition(2, 1), 0.0);
  EXPECT_EQ(cursor.GetBoxPosition(3, 0), 0.0);
}

TEST(DcursorTest, LeftPressStartsADrag) {
  TDSpaceCursor cursor;
  cursor.SetPosition(0, 1.0);
  cursor.SetPosition(1, 2.0);
  std::vector<TDCursorParts> seen;
  cursor.SetOnDataChange(
      [&](TData* d, TDataChangeInfo) { seen.push_back(static_cast<TDCursor*>(d)->GetCursorState()); });
  TDCursorParts state = 0xFFFFFFFF;
  TDCursor::FillCursorStateDown(state, TMouseButton::Left, TShiftState{});
  EXPECT_EQ(state, cpLeftPressed);
  cursor.SetCursorState(state);
  EXPECT_EQ(cursor.GetDifference(0), 0.0);
  EXPECT_EQ(cursor.GetTotalDifference(), 0.0);
  // The state is seen during its own notification only.
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0], cpLeftPressed);
  EXPECT_EQ(cursor.GetCursorState(), 0u);
  cursor.SetPosition(0, 4.0);
  cursor.SetPosition(1, 6.0);
  EXPECT_EQ(cursor.GetDifference(0), -3.0);
  EXPECT_DOUBLE_EQ(cursor.GetTotalDifference(), 5.0);
  // The same state again still reports a change.
  cursor.SetCursorState(0);
  EXPECT_EQ(seen.size(), 4u);
}

TEST(DcursorTest, MouseEventsToStates) {
  TDCursorParts shift = 0, alt = 0, state = 0;
  TShiftState withShift;
  withShift.Shift = true;
  TShiftState withAlt;
  withAlt.Alt = true;
  TDCursor::FillCursorStateMove(shift, withShift);
  TDCursor::FillCursorStateMove(alt, withAlt);
  EXPECT_EQ(shift, alt); // a viewer can't tell them apart
  EXPECT_EQ(shift, cpShiftOrAlt);
  TShiftState held;
  held.Ctrl = true;
  held.Right = true;
  TDCursor::FillCursorStateUp(state, TMouseButton::Middle, held);
  EXPECT_EQ(state, cpMiddleReleased | cpCtrlHeld | cpRightHeld);
  held.Double = true;
  TDCursor::FillCursorStateDown(state, TMouseButton::Right, held);
  EXPECT_EQ(state, cpRightPressed | cpRightHeld | cpCtrlHeld | cpDoubleClick);
  // Only the parts that exist count in the fourth byte.
  EXPECT_TRUE(TDCursor::IsSameState(cpLeftHeld, cpLeftHeld | 0x80000000u));
  EXPECT_FALSE(TDCursor::IsSameState(cpLeftHeld, cpLeftHeld | 0x00800000u));
}

class DcursorProjectTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterCursorClasses();
    RegisterTransformationClasses();
    RegisterInterpretationClasses();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
        new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerOk));
  }
  template <class T>
  T* Add() {
    auto object = std::make_unique<T>();
    object->SetID(FProject.GetNewDataID());
    T* raw = object.get();
    FProject.AddData(std::move(object));
    return raw;
  }
  TProject FProject;
};

// A listener as viewers and tools are: a connector that passes the project's changes to a cursor link.
struct TListener {
  TDConnector* Connector = nullptr;
  TCursorLink Link;
  std::vector<double> Seen;
  int Removed = 0;
};

TEST_F(DcursorProjectTest, ListenersOfOneUnitSeeEachOthersMoves) {
  auto* graphAxis = Add<TDSpectralTransformation>();
  auto* otherAxis = Add<TDSpectralTransformation>();
  auto* spaceAxis = Add<TDSpaceTransformation>();
  TListener a, b, c;
  for (auto* listener : {&a, &b, &c}) {
    listener->Connector = Add<TDConnector>();
    listener->Connector->OnDataChange = [listener](TData* sender, TDataChangeInfo info) {
      listener->Link.DataChanged(sender, info);
    };
    listener->Link.OnCursorChanged = [listener](TDCursor& cursor, TDataChangeInfo) {
      listener->Seen.push_back(cursor.GetPosition(0));
    };
    listener->Link.OnCursorRemoved = [listener] { ++listener->Removed; };
  }
  const int32_t id = a.Link.ConnectByTransformation(FProject, graphAxis->GetID());
  ASSERT_NE(id, 0);
  EXPECT_EQ(b.Link.ConnectByTransformation(FProject, otherAxis->GetID()), id);
  ASSERT_NE(c.Link.ConnectByTransformation(FProject, spaceAxis->GetID()), id);

  FProject.SetProjectChanged(false);
  EXPECT_TRUE(a.Link.SetPosition(0, 633.0));
  EXPECT_EQ(b.Seen, std::vector<double>{633.0});
  EXPECT_EQ(b.Link.GetPosition(0), 633.0);
  EXPECT_TRUE(b.Link.SetPosition(0, 640.5));
  EXPECT_EQ(a.Seen.back(), 640.5);
  EXPECT_TRUE(c.Seen.empty());  // a space cursor's listener hears nothing of the spectral one
  b.Link.SetPosition(0, 640.5); // no move, no message
  EXPECT_EQ(a.Seen.size(), 2u);
  EXPECT_FALSE(FProject.GetProjectChanged()); // cursor moves don't make a project unsaved

  // Deleting the cursor clears every holder.
  ASSERT_TRUE(FProject.DeleteData(id));
  EXPECT_EQ(a.Link.GetCursorID(), 0);
  EXPECT_EQ(b.Link.GetCursorID(), 0);
  EXPECT_NE(c.Link.GetCursorID(), 0);
  EXPECT_EQ(a.Removed, 1);
  EXPECT_EQ(b.Removed, 1);
  EXPECT_EQ(c.Removed, 0);
  EXPECT_FALSE(a.Link.SetPosition(0, 1.0));
  EXPECT_EQ(a.Link.GetPosition(0), 0.0);
  // A new cursor is made on the next request.
  const int32_t again = a.Link.Connect(FProject, TUnitKind::Spectral);
  EXPECT_NE(again, 0);
  EXPECT_NE(again, id);
}

TEST_F(DcursorProjectTest, LocksThroughTheLockManager) {
  TCursorLockManager locks(FProject);
  std::vector<int32_t> lockChanges;
  locks.OnCursorLockChange = [&](int32_t id) { lockChanges.push_back(id); };
  auto* spectral = Add<TDSpectralCursor>();
  auto* space = Add<TDSpaceCursor>();
  auto* axis = Add<TDLinearTransformation>();
  std::vector<TDCursorParts> states;
  spectral->SetOnDataChange([&](TData* d, TDataChangeInfo info) {
    if (info == TDataChangeInfo::DataChanged) states.push_back(static_cast<TDCursor*>(d)->GetCursorState());
  });
  int toolA = 0, toolB = 0;
  EXPECT_EQ(locks.GetNumberOfLockCursors(), 0);
  EXPECT_TRUE(locks.ChangeCursorToLock(spectral->GetID(), &toolA, cpLeftPressed | cpLeftHeld));
  EXPECT_EQ(states, std::vector<TDCursorParts>{cpLockChanged});
  EXPECT_TRUE(locks.IsCursorLockedByObject(spectral->GetID(), &toolA));
  EXPECT_FALSE(locks.IsCursorLockedByObject(spectral->GetID(), &toolB));
  EXPECT_EQ(spectral->GetLockState(), cpLeftPressed | cpLeftHeld);
  EXPECT_TRUE(locks.ChangeCursorToLock(spectral->GetID(), &toolA, cpLeftPressed | cpLeftHeld));
  EXPECT_EQ(states.size(), 1u);                                     // nothing changed, nothing announced
  EXPECT_FALSE(locks.ChangeCursorToLock(axis->GetID(), &toolA, 0)); // not a cursor
  EXPECT_TRUE(locks.ChangeCursorToLock(space->GetID(), &toolB, cpRightHeld));
  EXPECT_EQ(locks.GetNumberOfLockCursors(), 2);

  EXPECT_FALSE(locks.ChangeCursorToUnlock(spectral->GetID(), &toolB)); // only the locker unlocks
  EXPECT_TRUE(locks.IsCursorLockedByObject(spectral->GetID(), &toolA));
  EXPECT_TRUE(locks.ChangeCursorToUnlock(spectral->GetID(), &toolA));
  EXPECT_EQ(states.back(), cpLockChanged);
  EXPECT_EQ(spectral->GetLockingObject(), nullptr);
  EXPECT_EQ(spectral->GetLockState(), 0u);
  EXPECT_EQ(locks.GetNumberOfLockCursors(), 1);

  locks.ChangeCursorToLock(spectral->GetID(), &toolA, cpLeftHeld);
  locks.ReleaseAllLocks();
  EXPECT_EQ(locks.GetNumberOfLockCursors(), 0);
  EXPECT_EQ(space->GetLockState(), 0u);

  // A removed cursor releases its lock holder when the project routes the change here.
  locks.ChangeCursorToLock(space->GetID(), &toolB, cpRightHeld);
  lockChanges.clear();
  locks.DataChange(space, TDataChangeInfo::Removed);
  EXPECT_EQ(space->GetLockingObject(), nullptr);
  EXPECT_EQ(lockChanges, std::vector<int32_t>{space->GetID()});
}

TEST_F(DcursorProjectTest, FileFormKeepsPositionsAndUnit) {
  oxtest::TempDir dir;
  auto* cursor = Add<TDSpaceCursor>();
  cursor->SetPosition(0, 1.0 / 3.0);
  cursor->SetPosition(2, -1e-300);
  cursor->SetStandardUnit("nm");
  cursor->SetDiffPosition(1, 8.0);           // not stored
  auto* axis = Add<TDSpaceTransformation>(); // uses nothing, but something must use the cursor
  (void)axis;
  cursor->SetSaveMode(TDataSaveMode::Always);
  ASSERT_EQ(FProject.SaveProjectToFile(dir.File("c.oxp")), 1);
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(dir.File("c.oxp")), 1);
  const auto* back = dynamic_cast<const TDSpaceCursor*>(loaded.FindData(cursor->GetID()));
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->GetPosition(0), 1.0 / 3.0);
  EXPECT_EQ(back->GetPosition(2), -1e-300);
  EXPECT_EQ(back->GetStandardUnit(), "nm");
  EXPECT_EQ(back->GetDiffPosition(1), 0.0);
}

TEST(DcursorTest, OldFilesWithoutUnitKeepTheDefault) {
  oxtest::TempDir dir;
  const auto name = dir.File("cursor.oxt");
  TDZCursor written;
  written.SetID(5);
  TFileHandle f = CreateTagFile(name, "ORX_TEST");
  TTagControl root, own, t;
  root.WriteTag(f, "Root", TTagKind::TagList);
  ASSERT_EQ(written.TData::SaveDataToTagFile(f), 1);
  own.WriteTag(f, "TDCursor", TTagKind::TagList);
  t.SaveIntTag(f, "Version", 0);
  t.SaveIntTag(f, "NumberOfPositions", 2);
  const double positions[2] = {1.5, -2.5};
  t.SaveDoubleTag(f, "Positions", positions, 2);
  own.CloseWriteTag(f);
  root.CloseWriteTag(f);
  CloseFile(f);
  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  TDZCursor back;
  EXPECT_EQ(back.LoadDataFromTagFile(in, readRoot), 1);
  CloseFile(in);
  EXPECT_EQ(back.GetStandardUnit(), "a.u.");
  EXPECT_EQ(back.GetNumberOfPositions(), 2); // the file's count wins
  EXPECT_EQ(back.GetPosition(1), -2.5);
}

} // namespace
