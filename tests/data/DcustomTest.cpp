// Data object base: change rule, history, IDs, registry, and the base's file form.
#include "data/Dcustom.h"

#include "support/DataRoundTrip.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

using oxtest::TDTestObject;

struct TRecorder {
  std::vector<TDataChangeInfo> Infos;
  int AfterCalls = 0;
};

class TRecordingObject : public TDTestObject {
public:
  TRecorder* Recorder = nullptr;
  void AfterOnDataChange() override { ++Recorder->AfterCalls; }
};

TEST(DcustomTest, AutoDataChangeCollectsIntoOneNotification) {
  TRecorder rec;
  TRecordingObject object;
  object.Recorder = &rec;
  object.SetOnDataChange([&](TData*, TDataChangeInfo info) { rec.Infos.push_back(info); });
  object.SetAutoDataChange(false);
  object.DoDataChange(TDataChangeInfo::DataChanged);
  object.DoDataChange(TDataChangeInfo::DataChanged);
  EXPECT_TRUE(rec.Infos.empty());
  object.DoDataChange(TDataChangeInfo::CaptionChanged); // other kinds go out at once
  EXPECT_EQ(rec.Infos.size(), 1u);
  object.SetAutoDataChange(true);
  ASSERT_EQ(rec.Infos.size(), 2u);
  EXPECT_EQ(rec.Infos[1], TDataChangeInfo::DataChanged);
  EXPECT_EQ(rec.AfterCalls, 1);
  EXPECT_FALSE(object.IsDataChangePending());
  object.SetAutoDataChange(true); // already on: nothing
  EXPECT_EQ(rec.Infos.size(), 2u);
}

TEST(DcustomTest, CaptionAndHistoryNotify) {
  TDTestObject object;
  std::vector<TDataChangeInfo> infos;
  object.SetOnDataChange([&](TData*, TDataChangeInfo info) { infos.push_back(info); });
  object.SetCaption("a");
  object.SetCaption("a"); // the same text sends nothing
  object.AddToHistoryList("step", 1);
  object.AddToHistoryList("step", 1); // kept twice
  EXPECT_EQ(infos,
            (std::vector<TDataChangeInfo>{TDataChangeInfo::CaptionChanged, TDataChangeInfo::HistoryChanged,
                                          TDataChangeInfo::HistoryChanged}));
  EXPECT_EQ(object.GetHistoryList().size(), 2u);
  EXPECT_GE(object.GetHistoryList()[0].Date[0], 2020);
}

TEST(DcustomTest, AddToIDKeepsZeroAndRecordsTheChange) {
  TDTestObject object;
  int notifications = 0;
  object.SetOnDataChange([&](TData*, TDataChangeInfo) { ++notifications; });
  object.AddToID(5);
  EXPECT_EQ(object.GetID(), 0);
  ASSERT_EQ(object.GetHistoryList().size(), 1u);
  EXPECT_EQ(object.GetHistoryList()[0].Text, "ID changed from 0 to 5.");
  EXPECT_EQ(object.GetHistoryList()[0].Type, kHistoryEntryIDChange);
  object.SetID(3);
  object.RefID = 0;
  object.AddToID(10);
  EXPECT_EQ(object.GetID(), 13);
  EXPECT_EQ(object.RefID, 0); // a missing reference stays missing
  EXPECT_EQ(notifications, 0);
}

TEST(DcustomTest, RegistryKeepsOrderAndIgnoresDuplicates) {
  TData::RegisterDataObject("TDRegistryA", [] { return std::make_unique<TDTestObject>(); });
  TData::RegisterDataObject("TDRegistryB", [] { return nullptr; });
  TData::RegisterDataObject("TDRegistryA", [] { return nullptr; });
  const auto names = TData::RegisteredDataObjectNames();
  const auto a = std::find(names.begin(), names.end(), "TDRegistryA");
  const auto b = std::find(names.begin(), names.end(), "TDRegistryB");
  ASSERT_NE(a, names.end());
  EXPECT_LT(a, b);
  EXPECT_EQ(std::count(names.begin(), names.end(), "TDRegistryA"), 1);
  EXPECT_NE(TData::CreateDataObjectByName("TDRegistryA"), nullptr); // the first factory stays
  EXPECT_EQ(TData::CreateDataObjectByName("TDNoSuchClass"), nullptr);
}

TEST(DcustomTest, BaseFileFormRoundTrip) {
  oxtest::TempDir dir;
  const auto name = dir.File("obj.oxt");
  TDTestObject object;
  object.SetID(17);
  object.SetCaption("Spectrum \xC2\xB5");
  object.SetImageIndex(4);
  object.AddToHistoryList("first", 1);
  object.AddToHistoryList("second\nline", 3);
  const int32_t answer = 42;
  object.GetMetaData().AddSubTag("Tool|Answer", TTagKind::Int, &answer);
  object.RefID = 5;
  object.Values = {1.5f, -2.0f};

  TDTestObject back;
  ASSERT_EQ(oxtest::SaveAndLoad(object, back, name), 1);
  EXPECT_EQ(back.GetID(), 17);
  EXPECT_EQ(back.GetCaption(), "Spectrum \xC2\xB5");
  EXPECT_EQ(back.GetImageIndex(), 4);
  EXPECT_EQ(back.GetHistoryList(), object.GetHistoryList());
  int32_t v = 0;
  EXPECT_EQ(back.GetMetaData().GetIntTagInList("Tool|Answer", v), 1);
  EXPECT_EQ(v, 42);
  EXPECT_EQ(back.GetMetaData().Name(), "MetaData");
  EXPECT_EQ(back.RefID, 5);
  EXPECT_EQ(back.Values, object.Values);
}

TEST(DcustomTest, HistoryListIsOptionalButIDIsNot) {
  oxtest::TempDir dir;
  const auto name = dir.File("obj.oxt");
  TFileHandle f = CreateTagFile(name, "ORX_TEST");
  TTagControl root, data, t;
  root.WriteTag(f, "Root", TTagKind::TagList);
  data.WriteTag(f, "TData", TTagKind::TagList);
  t.SaveIntTag(f, "ID", 3);
  t.SaveAnsiStringTag(f, "Caption", "c");
  data.CloseWriteTag(f);
  TTagControl noID;
  noID.WriteTag(f, "NoID", TTagKind::TagList);
  data.WriteTag(f, "TData", TTagKind::TagList);
  t.SaveAnsiStringTag(f, "Caption", "c");
  data.CloseWriteTag(f);
  noID.CloseWriteTag(f);
  root.CloseWriteTag(f);
  CloseFile(f);
  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  TDTestObject object;
  EXPECT_EQ(object.TData::LoadDataFromTagFile(in, readRoot), 1); // no history: an empty one is fine
  EXPECT_EQ(object.GetID(), 3);
  EXPECT_TRUE(object.GetHistoryList().empty());
  TTagControl noIDTag;
  ASSERT_EQ(noIDTag.FindTag(in, "NoID", readRoot), 1);
  TDTestObject other;
  EXPECT_EQ(other.TData::LoadDataFromTagFile(in, noIDTag), -1);
  CloseFile(in);
}

} // namespace
