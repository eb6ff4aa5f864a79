// The project: files written and read back, old identifications and versions, unknown classes, appending,
// deleting, the reference graph, and saves that fail half way.
#include "project/Project.h"

#include "common/Standardmessage.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

using oxtest::TDTestObject;

// Records the text of every message the project issues.
class TRecordingLogger : public IMessageLoggingStrategy {
public:
  explicit TRecordingLogger(std::vector<std::string>* texts) : FTexts(texts) {}
  void LogMessageAndReplyAndStrategy(IMessagingStrategy*, IStandardMessage* message,
                                     IStandardMessageReply*) override {
    if (message) FTexts->push_back(message->GetMessageText());
  }

private:
  std::vector<std::string>* FTexts;
};

// A viewer of a registered class that uses one object.
class TTestViewer : public TVCustomForm {
public:
  int32_t UsedID = 0;
  std::string GetClassNameA() const override { return "TVTestViewer"; }
  TTagError SaveViewerToTagFile(TFileHandle file) override {
    return TTagControl().SaveIntTag(file, "UsedID", UsedID);
  }
  TTagError LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) override {
    return TTagControl().LoadIntTag(file, "UsedID", parent, &UsedID, 1);
  }
  bool IsDataUsed(int32_t id) const override { return id == UsedID; }
  void AddToID(int32_t delta) override { TData::SafeAddToDataID(UsedID, delta); }
};

class ProjectTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::RegisterTestDataObjects();
    TVCustomForm::RegisterViewerClass("TVTestViewer", [] { return std::make_unique<TTestViewer>(); });
    Answer(kAnswerYes);
    TMessageProxy::MsgProxySingleton()->SetMessageLoggingStrategy(new TRecordingLogger(&FMessages));
  }
  void TearDown() override { TMessageProxy::MsgProxySingleton()->SetMessageLoggingStrategy(nullptr); }
  void Answer(TStandardMessageAnswer answer) {
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
        new TFixedAnswerToAllMessages_MessagingStrategy(answer));
  }

  // Adds a test object with a new ID and returns it.
  TDTestObject* Add(TProject& project, const std::string& caption, int32_t refID = 0) {
    auto object = std::make_unique<TDTestObject>();
    object->SetID(project.GetNewDataID());
    object->SetCaption(caption);
    object->RefID = refID;
    object->Values = {1.0f, 2.0f, float(refID)};
    auto* raw = object.get();
    project.AddData(std::move(object));
    return raw;
  }

  static TDTestObject* Get(TProject& project, int32_t id) {
    return dynamic_cast<TDTestObject*>(project.FindData(id));
  }

  // The file's tree without the system information, written anew: equal content gives equal bytes.
  std::string BytesWithoutSystemInformation(const std::string& fileName) {
    TTagControl tree;
    if (tree.LoadTagListByFileName(fileName, TProject::kProjectIdentification) < 1 || !tree.Children())
      return {};
    std::erase_if(*tree.Children(), [](const auto& child) { return child->Name() == "SystemInformation"; });
    const auto copy = FDir.File("stripped.tmp");
    tree.SaveTagListToFileByName(copy, "ORX_PR06");
    const std::string bytes = oxtest::ReadFileBytes(copy);
    DeleteFileByName(copy);
    return bytes;
  }

  oxtest::TempDir FDir;
  std::vector<std::string> FMessages;
};

TEST_F(ProjectTest, SaveLoadRoundTripAndSecondSaveIsIdentical) {
  TProject project;
  auto* a = Add(project, "A");
  auto* b = Add(project, "B", a->GetID());
  b->AddToHistoryList("made from A", 1);
  const int32_t v = 7;
  b->GetMetaData().AddSubTag("Tool|Setting", TTagKind::Int, &v);
  auto viewer = std::make_unique<TTestViewer>();
  viewer->UsedID = b->GetID();
  project.AddViewer(std::move(viewer));
  const auto first = FDir.File("p.oxp");
  ASSERT_EQ(project.SaveProjectToFile(first), 1);
  EXPECT_FALSE(project.GetProjectChanged());

  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(first), 1);
  EXPECT_EQ(loaded.GetNextDataID(), project.GetNextDataID());
  ASSERT_EQ(loaded.DataList().size(), 2u);
  auto* lb = Get(loaded, b->GetID());
  ASSERT_NE(lb, nullptr);
  EXPECT_EQ(lb->GetCaption(), "B");
  EXPECT_EQ(lb->RefID, a->GetID());
  EXPECT_EQ(lb->GetHistoryList(), b->GetHistoryList());
  EXPECT_EQ(lb->Values, b->Values);
  int32_t setting = 0;
  EXPECT_EQ(lb->GetMetaData().GetIntTagInList("Tool|Setting", setting), 1);
  EXPECT_EQ(setting, 7);
  ASSERT_EQ(loaded.ViewerList().size(), 1u);
  EXPECT_EQ(dynamic_cast<TTestViewer*>(loaded.ViewerList()[0].get())->UsedID, b->GetID());
  EXPECT_EQ(loaded.GetFileVersion(), 6);
  // Every version that touched the file is recorded: the writer's and now the reader's.
  EXPECT_EQ(loaded.SystemInformation().VersionRecordCount(), 2);

  const auto second = FDir.File("q.oxp");
  ASSERT_EQ(loaded.SaveProjectToFile(second), 1);
  EXPECT_FALSE(BytesWithoutSystemInformation(first).empty());
  EXPECT_EQ(BytesWithoutSystemInformation(first), BytesWithoutSystemInformation(second));
}

TEST_F(ProjectTest, OldIdentificationAndCompatibleSave) {
  TProject project;
  Add(project, "A");
  const auto name = FDir.File("old.oxp");
  ASSERT_EQ(project.SaveProjectToFile(name, TProjectSaveOptions{TProject::kCompatibleVersion}), 1);
  // The compatible form is an option of that one save: the next one writes the current form again.
  EXPECT_EQ(TFileVersion::SaveVersion, TProject::ThisVersion);
  EXPECT_EQ(oxtest::ReadFileBytes(name).substr(0, 8), "ORX_PRCT");
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(name), 1);
  EXPECT_EQ(loaded.DataList().size(), 1u);
  EXPECT_EQ(loaded.GetFileVersion(), 6); // the head "Version" stays the software's

  const auto data = FDir.File("old.oxd");
  ASSERT_EQ(project.SaveDataListToFile(data, {project.DataList()[0].get()},
                                       TProjectSaveOptions{TProject::kCompatibleVersion}),
            1);
  EXPECT_EQ(oxtest::ReadFileBytes(data).substr(0, 8), "ORX_DATA");
}

// Rewrites the "Version" value right behind the root header of a saved file.
void PatchVersion(const std::string& fileName, int32_t version) {
  std::string bytes = oxtest::ReadFileBytes(fileName);
  const std::string marker = std::string("\x07\x00\x00\x00", 4) + "Version";
  const size_t at = bytes.find(marker);
  ASSERT_NE(at, std::string::npos);
  std::memcpy(bytes.data() + at + marker.size() + 20, &version, 4);
  oxtest::WriteFileBytes(fileName, bytes);
}

TEST_F(ProjectTest, NewerVersionAsksAndObeys) {
  TProject project;
  Add(project, "A");
  const auto name = FDir.File("v7.oxp");
  ASSERT_EQ(project.SaveProjectToFile(name), 1);
  PatchVersion(name, 7);

  Answer(kAnswerNo);
  TProject refused;
  EXPECT_EQ(refused.LoadProjectFromFile(name), teWrongFileVersion);
  ASSERT_FALSE(FMessages.empty());
  EXPECT_NE(FMessages.back().find("File Version: 7 - Software Version: 6"), std::string::npos);

  Answer(kAnswerYes);
  TProject accepted;
  EXPECT_EQ(accepted.LoadProjectFromFile(name), 1);
  EXPECT_EQ(accepted.DataList().size(), 1u);

  // A data file of a newer version is refused without a question.
  const auto data = FDir.File("v7.oxd");
  ASSERT_EQ(project.SaveDataListToFile(data, {project.DataList()[0].get()}), 1);
  PatchVersion(data, 7);
  const size_t asked = FMessages.size();
  TFileHandle f = OpenFileForReading(data);
  std::vector<std::unique_ptr<TData>> list;
  EXPECT_EQ(project.LoadDataListFromTagFile(f, list), teWrongFileVersion);
  CloseFile(f);
  EXPECT_EQ(FMessages.size(), asked);
}

TEST_F(ProjectTest, UnknownClassLeavesGapAndDanglingID) {
  TProject project;
  auto* a = Add(project, "A");
  TData::RegisterDataObject("TDVanishing", [] { return std::make_unique<TDTestObject>(); });
  // An object whose class name will be unknown to the reader.
  class TDVanishing : public TDTestObject {
  public:
    std::string GetClassNameA() const override { return "TDWillBeUnknown"; }
  };
  auto unknown = std::make_unique<TDVanishing>();
  unknown->SetID(project.GetNewDataID());
  const int32_t unknownID = unknown->GetID();
  project.AddData(std::move(unknown));
  auto* c = Add(project, "C", unknownID);
  const auto name = FDir.File("gap.oxp");
  ASSERT_EQ(project.SaveProjectToFile(name), 1);

  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(name), 1);
  EXPECT_EQ(loaded.DataList().size(), 2u);
  EXPECT_NE(loaded.FindData(a->GetID()), nullptr);
  EXPECT_EQ(Get(loaded, c->GetID())->RefID, unknownID); // dangling, kept as it was
  ASSERT_EQ(loaded.SkippedObjects().size(), 1u);
  EXPECT_EQ(loaded.SkippedObjects()[0].second, "TDWillBeUnknown");
}

TEST_F(ProjectTest, AppendTwiceNeverCollides) {
  TProject part;
  auto* a = Add(part, "A");
  Add(part, "B", a->GetID());
  const auto name = FDir.File("part.oxp");
  ASSERT_EQ(part.SaveProjectToFile(name), 1);

  TProject base;
  Add(base, "X");
  for (int round = 0; round < 2; ++round) {
    TProject source;
    source.SetWithoutProjectManager(true);
    ASSERT_EQ(source.LoadProjectFromFile(name), 1);
    base.AppendProject(source);
  }
  int32_t highest = 0;
  EXPECT_TRUE(base.UniqueIDTest(highest));
  EXPECT_LT(highest, base.GetNextDataID());
  ASSERT_EQ(base.DataList().size(), 5u);
  int references = 0;
  for (const auto& data : base.DataList()) {
    auto* t = dynamic_cast<TDTestObject*>(data.get());
    if (t->GetCaption() == "B") {
      ASSERT_NE(base.FindData(t->RefID), nullptr);
      EXPECT_EQ(base.FindData(t->RefID)->GetCaption(), "A"); // still the A of its own part
      EXPECT_EQ(t->RefID, t->GetID() - 1);
      ++references;
    }
  }
  EXPECT_EQ(references, 2);
}

TEST_F(ProjectTest, DeletingALockedObjectRefuses) {
  TProject project;
  auto* a = Add(project, "A");
  auto* b = Add(project, "B", a->GetID());
  std::vector<TDataChangeInfo> seen;
  project.OnDataChange = [&](TData*, TDataChangeInfo info) { seen.push_back(info); };
  TData* locked = project.LockData(a->GetID());
  ASSERT_EQ(locked, a);
  EXPECT_FALSE(project.DeleteData(a->GetID()));
  ASSERT_FALSE(FMessages.empty());
  EXPECT_EQ(FMessages.back(), "Cannot delete object \"A\"\n\nObject is locked!");
  EXPECT_EQ(seen, std::vector<TDataChangeInfo>{TDataChangeInfo::AboutToBeDeleted});
  EXPECT_EQ(b->RefID, a->GetID());
  project.UnlockData(locked);
  const int32_t id = a->GetID();
  EXPECT_TRUE(project.DeleteData(id));
  EXPECT_EQ(project.FindData(id), nullptr);
  EXPECT_TRUE(project.DeleteData(999)); // unknown IDs are no failure
}

TEST_F(ProjectTest, SaveModeOneFollowsItsUsers) {
  TProject project;
  auto* helper = Add(project, "Helper");
  helper->SetSaveMode(TDataSaveMode::WhileUsed);
  auto viewer = std::make_unique<TTestViewer>();
  viewer->UsedID = helper->GetID();
  TVCustomForm* raw = viewer.get();
  project.AddViewer(std::move(viewer));
  const auto name = FDir.File("m1.oxp");
  ASSERT_EQ(project.SaveProjectToFile(name), 1);
  TProject withViewer;
  ASSERT_EQ(withViewer.LoadProjectFromFile(name), 1);
  EXPECT_EQ(withViewer.DataList().size(), 1u);
  project.ReleaseViewer(raw);
  ASSERT_EQ(project.SaveProjectToFile(name), 1);
  TProject withoutViewer;
  ASSERT_EQ(withoutViewer.LoadProjectFromFile(name), 1);
  EXPECT_TRUE(withoutViewer.DataList().empty());
}

TEST_F(ProjectTest, FailedSaveKeepsThePreviousFile) {
  TProject project;
  auto* a = Add(project, "A");
  const auto name = FDir.File("keep.oxp");
  ASSERT_EQ(project.SaveProjectToFile(name), 1);
  const std::string before = oxtest::ReadFileBytes(name);

  Add(project, "B");
  a->FailOnSave = true;
  EXPECT_EQ(project.SaveProjectToFile(name), teWriteFileError);
  EXPECT_EQ(oxtest::ReadFileBytes(name), before);
  a->FailOnSave = false;
  a->ThrowOnSave = true;
  EXPECT_ANY_THROW(project.SaveProjectToFile(name));
  EXPECT_EQ(oxtest::ReadFileBytes(name), before);
  // No temporary file is left behind.
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(FDir.Path())) {
    (void)entry;
    ++files;
  }
  EXPECT_EQ(files, 1);
}

TEST_F(ProjectTest, DependenciesAndToggling) {
  TProject project;
  auto* c = Add(project, "C");
  auto* b = Add(project, "B", c->GetID());
  auto* a = Add(project, "A", b->GetID());
  Add(project, "Unrelated");
  TIntList ids = {a->GetID(), 999};
  project.FillIDListWithDependencies(ids);
  EXPECT_EQ(ids, (TIntList{a->GetID(), 999, b->GetID(), c->GetID()}));
  EXPECT_EQ(project.ToggleToNextDataID(a->GetID()), project.DataList().back()->GetID());
  EXPECT_EQ(project.ToggleToNextDataID(project.DataList().back()->GetID()), c->GetID()); // cyclic
  EXPECT_EQ(project.ToggleToPriorDataID(c->GetID()), project.DataList().back()->GetID());
  EXPECT_EQ(project.ToggleToNextDataID(12345), 0);
  TProject single;
  auto* only = Add(single, "Only");
  EXPECT_EQ(single.ToggleToNextDataID(only->GetID()), only->GetID());
  EXPECT_TRUE(project.IsDataUsed(c->GetID()));
  EXPECT_FALSE(project.IsDataUsed(a->GetID()));
  EXPECT_EQ(project.GetIDListByUsedID(b->GetID()), TIntList{a->GetID()});
}

TEST_F(ProjectTest, AddDataWithIDZeroIsReportedAndAdded) {
  TProject project;
  auto object = std::make_unique<TDTestObject>();
  object->SetCaption("Nameless");
  project.AddData(std::move(object));
  EXPECT_EQ(project.DataList().size(), 1u);
  ASSERT_FALSE(FMessages.empty());
  EXPECT_EQ(FMessages.back(), "TProject::AddData:\n\nID of Data Object \"Nameless\" is 0!");
}

TEST_F(ProjectTest, UnknownViewerIsKeptThroughLoadAndSave) {
  TProject project;
  auto* a = Add(project, "A");
  auto viewer = std::make_unique<TTestViewer>();
  viewer->UsedID = a->GetID();
  project.AddViewer(std::move(viewer));
  const auto name = FDir.File("v.oxp");
  ASSERT_EQ(project.SaveProjectToFile(name), 1);
  TVCustomForm::DeleteRegisteredViewerList(); // the reader doesn't know the viewer class
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(name), 1);
  ASSERT_EQ(loaded.ViewerList().size(), 1u);
  EXPECT_EQ(loaded.ViewerList()[0]->GetClassNameA(), "TVTestViewer");
  const auto again = FDir.File("w.oxp");
  ASSERT_EQ(loaded.SaveProjectToFile(again), 1);
  EXPECT_EQ(BytesWithoutSystemInformation(name), BytesWithoutSystemInformation(again));
}

TEST_F(ProjectTest, DataFileRenumbersBehindTheProject) {
  TProject source;
  auto* a = Add(source, "A");
  auto* b = Add(source, "B", a->GetID());
  Add(source, "Other");
  auto* c = Add(source, "C", source.GetNextDataID() - 1); // refers to "Other", which isn't saved
  const auto name = FDir.File("d.oxd");
  ASSERT_EQ(source.SaveDataListToFile(name, {a, b, c}), 1);

  TProject target;
  Add(target, "T1");
  Add(target, "T2");
  const int32_t next = target.GetNextDataID();
  TFileHandle f = OpenFileForReading(name);
  std::vector<std::unique_ptr<TData>> list;
  ASSERT_EQ(target.LoadDataListFromTagFile(f, list), 1);
  CloseFile(f);
  ASSERT_EQ(list.size(), 3u);
  auto* la = dynamic_cast<TDTestObject*>(list[0].get());
  auto* lb = dynamic_cast<TDTestObject*>(list[1].get());
  auto* lc = dynamic_cast<TDTestObject*>(list[2].get());
  EXPECT_EQ(la->GetID(), a->GetID() + next);
  EXPECT_EQ(lb->RefID, la->GetID());
  EXPECT_EQ(lc->RefID, 0); // cleaned: the data file didn't hold its target
  EXPECT_EQ(la->GetProject(), nullptr);
  EXPECT_GT(target.GetNextDataID(), lc->GetID());
}

TEST_F(ProjectTest, TruncatedProjectFilesLoadWhatIsThere) {
  TProject project;
  for (int i = 0; i < 4; ++i) Add(project, "Object " + std::to_string(i));
  const auto name = FDir.File("full.oxp");
  ASSERT_EQ(project.SaveProjectToFile(name), 1);
  const std::string bytes = oxtest::ReadFileBytes(name);
  const auto cut = FDir.File("cut.oxp");
  // The longer the piece, the more objects come back; never a crash or a hang.
  size_t previous = 0;
  for (size_t length = 0; length <= bytes.size(); length += 7) {
    oxtest::WriteFileBytes(cut, bytes.substr(0, length));
    TProject loaded;
    loaded.LoadProjectFromFile(cut);
    EXPECT_GE(loaded.DataList().size(), previous) << "length " << length;
    previous = loaded.DataList().size();
  }
  TProject whole;
  ASSERT_EQ(whole.LoadProjectFromFile(name), 1);
  EXPECT_EQ(whole.DataList().size(), 4u);
}

// Damages the "Version" of one object's own class list so that it can't be found: the object fails,
// the others load, and the failure is named.
TEST_F(ProjectTest, AnObjectThatFailsToLoadIsReportedAndTheRestLoads) {
  TProject project;
  for (int i = 0; i < 3; ++i) Add(project, "Object " + std::to_string(i));
  const auto name = FDir.File("damaged.oxp");
  ASSERT_EQ(project.SaveProjectToFile(name), 1);
  std::string bytes = oxtest::ReadFileBytes(name);
  // The class list of each object is named like its class; renaming the second one loses that object. Its
  // name follows the header of the object's "Data 1" list.
  const size_t dataOne = bytes.find("Data 1");
  ASSERT_NE(dataOne, std::string::npos);
  const size_t at = bytes.find(TDTestObject::kClassName, dataOne);
  ASSERT_NE(at, std::string::npos);
  bytes[at] = 'X';
  oxtest::WriteFileBytes(name, bytes);

  TProject loaded;
  const size_t messagesBefore = FMessages.size();
  ASSERT_EQ(loaded.LoadProjectFromFile(name), 1);
  EXPECT_EQ(loaded.DataList().size(), 2u);
  ASSERT_EQ(loaded.FailedObjects().size(), 1u);
  EXPECT_EQ(loaded.FailedObjects()[0].Index, 1);
  EXPECT_EQ(loaded.FailedObjects()[0].ClassName, TDTestObject::kClassName);
  EXPECT_EQ(loaded.FailedObjects()[0].Reason, "Tag Not Found");
  // One message for the lost object, naming index, class and reason.
  ASSERT_EQ(FMessages.size(), messagesBefore + 1);
  EXPECT_EQ(FMessages.back(),
            std::string("Data 1 (") + TDTestObject::kClassName + ") could not be loaded: Tag Not Found");

  // A data file says the same, and a clean load forgets it.
  ASSERT_EQ(project.SaveDataListToFile(FDir.File("d.oxd"), {project.DataList()[1].get()}), 1);
  std::string data = oxtest::ReadFileBytes(FDir.File("d.oxd"));
  const size_t own = data.find(TDTestObject::kClassName, data.find("Data 0"));
  ASSERT_NE(own, std::string::npos);
  data[own] = 'X';
  oxtest::WriteFileBytes(FDir.File("d.oxd"), data);
  TFileHandle f = OpenFileForReading(FDir.File("d.oxd"));
  std::vector<std::unique_ptr<TData>> list;
  ASSERT_EQ(loaded.LoadDataListFromTagFile(f, list), 1);
  CloseFile(f);
  EXPECT_TRUE(list.empty());
  ASSERT_EQ(loaded.FailedObjects().size(), 1u);
  EXPECT_EQ(loaded.FailedObjects()[0].Index, 0);
  TProject clean;
  ASSERT_EQ(project.SaveProjectToFile(FDir.File("p.oxp")), 1);
  ASSERT_EQ(clean.LoadProjectFromFile(FDir.File("p.oxp")), 1);
  EXPECT_TRUE(clean.FailedObjects().empty());
  EXPECT_EQ(clean.LastFileErrorText(), "");
}

TEST_F(ProjectTest, FileErrorsNameTheFileAndTheReason) {
  TProject project;
  const auto missing = FDir.File("missing.oxp");
  EXPECT_EQ(project.LoadProjectFromFile(missing), teCreateFileForReadError);
  EXPECT_EQ(project.LastFileErrorText(), "cannot open '" + missing + "': no such file");
  EXPECT_EQ(project.LoadProjectFromFile(FDir.Path().string()), teCreateFileForReadError);
  EXPECT_EQ(project.LastFileErrorText(), "cannot open '" + FDir.Path().string() + "': is a folder");
  Add(project, "A");
  const auto nowhere = FDir.File("no/such/folder.oxp");
  EXPECT_EQ(project.SaveProjectToFile(nowhere), teCreateFileForWriteError);
  EXPECT_EQ(project.LastFileErrorText(), "cannot write '" + nowhere + "': no such folder");
}

TEST_F(ProjectTest, SettingsFileRoundTrip) {
  TProject project;
  project.SetModeIndex(3);
  project.SetDataPath("/data/raman");
  const auto name = FDir.File("s.oxs");
  TFileHandle f = CreateTagFile(name, "");
  FileSeek(f, 0, TSeekOrigin::Begin);
  ASSERT_EQ(project.SaveProjectSettingsToTagFile(f, TSaveProjectSettingsKind::Both), 1);
  CloseFile(f);
  TProject other;
  f = OpenFileForReading(name);
  ASSERT_EQ(other.LoadProjectSettingsFromTagFile(f, TSaveProjectSettingsKind::Both), 1);
  CloseFile(f);
  EXPECT_EQ(other.GetModeIndex(), 3);
  EXPECT_EQ(other.GetDataPath(), "/data/raman");
  // A project file is no settings file: -1 here, where the project loader says -4.
  const auto projectName = FDir.File("p.oxp");
  ASSERT_EQ(project.SaveProjectToFile(projectName), 1);
  f = OpenFileForReading(projectName);
  EXPECT_EQ(other.LoadProjectSettingsFromTagFile(f, TSaveProjectSettingsKind::Both), -1);
  CloseFile(f);
  TProject wrong;
  EXPECT_EQ(wrong.LoadProjectFromFile(name), teWrongFileIdentification);
}

TEST(ProjectVersionTest, VersionTexts) {
  EXPECT_EQ(TProject::GetVersionStringForFileVersion(6), "Orvex Project 4.0, Orvex Control 4.0");
  EXPECT_EQ(TProject::GetVersionStringForFileVersion(9), "Unknown version \"9\"");
}

} // namespace
