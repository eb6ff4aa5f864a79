// Project commands: load and save with their messages, the file dialog fall-through, saves that fail without
// harming the previous file, the compatible save, the question before dropping changes, appending projects
// and data files, settings files and the memory check before a load.
#include "project/Projectactionform.h"

#include "MessageRecorder.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

class ProjectActionFormTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::RegisterTestDataObjects();
    oxtest::EnsureMemoryStrategy();
    FRecord = std::make_shared<oxtest::TMessageRecord>();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(new oxtest::TRecordingStrategy(FRecord));
  }
  void TearDown() override {}

  static TDText* AddText(TProject& project, const std::string& text) {
    auto object = std::make_unique<TDText>();
    object->SetID(project.GetNewDataID());
    object->SetText(text);
    auto* raw = object.get();
    project.AddData(std::move(object));
    return raw;
  }
  static oxtest::TDTestObject* AddTestObject(TProject& project, int32_t refID) {
    auto object = std::make_unique<oxtest::TDTestObject>();
    object->SetID(project.GetNewDataID());
    object->RefID = refID;
    auto* raw = object.get();
    project.AddData(std::move(object));
    return raw;
  }
  static std::vector<std::string> Texts(TProject& project) {
    std::vector<std::string> texts;
    for (const auto& data : project.DataList())
      if (auto* text = dynamic_cast<TDText*>(data.get())) texts.push_back(text->GetText());
    return texts;
  }

  oxtest::TempDir FDir;
  std::shared_ptr<oxtest::TMessageRecord> FRecord;
  TProjectActionForm FForm;
};

TEST_F(ProjectActionFormTest, SavedProjectLoadsBackWithNameFolderAndRecentList) {
  AddText(FForm.Project(), "first");
  const std::string fileName = FDir.File("Round.oxp");
  ASSERT_TRUE(FForm.SaveProjectAs(fileName));
  EXPECT_EQ(FForm.Project().GetFileName(), fileName);
  EXPECT_FALSE(FForm.Project().GetProjectChanged());

  TProjectActionForm other;
  AddText(other.Project(), "to be replaced");
  ASSERT_TRUE(other.LoadProject(fileName));
  EXPECT_EQ(Texts(other.Project()), std::vector<std::string>{"first"});
  EXPECT_EQ(other.Project().GetFileName(), fileName);
  EXPECT_EQ(other.RememberFilePath().GetPath(), FDir.Path().string() + "/");
  EXPECT_EQ(other.RecentFiles().Get("OXP"), std::vector<std::string>{fileName});
  EXPECT_EQ(FRecord->Count(), 0u);
}

TEST_F(ProjectActionFormTest, UnreadableOrForeignFileIsReportedAndLeavesAnEmptyProject) {
  AddText(FForm.Project(), "old");
  EXPECT_FALSE(FForm.LoadProject(FDir.File("missing.oxp")));
  EXPECT_TRUE(FRecord->Contains("Loading Error: Could not open file"));
  EXPECT_TRUE(FForm.Project().DataList().empty());

  oxtest::WriteFileBytes(FDir.File("foreign.oxp"), "NOT_ORVX and some more bytes");
  EXPECT_FALSE(FForm.LoadProject(FDir.File("foreign.oxp")));
  EXPECT_TRUE(FRecord->Contains("Loading Error: " + GetTagErrorName(teWrongFileIdentification)));
  EXPECT_EQ(FForm.Project().GetFileName(), "");
  EXPECT_TRUE(FForm.RecentFiles().Get("OXP").empty());
}

TEST_F(ProjectActionFormTest, FileTooLargeForMemoryIsRefusedBeforeReading) {
  // A sparse file far beyond any machine's memory; its content is never read.
  const std::string fileName = FDir.File("huge.oxp");
  const int fd = ::open(fileName.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  const bool sized = ::ftruncate(fd, off_t(1) << 43) == 0; // 8 TiB
  ::close(fd);
  if (!sized) GTEST_SKIP() << "the file system refuses an 8 TiB sparse file";
  AddText(FForm.Project(), "old");
  EXPECT_FALSE(FForm.CheckProjectDataFileSize(fileName));
  EXPECT_TRUE(FRecord->Contains("not enough memory"));
  EXPECT_FALSE(FForm.LoadProject(fileName));
  EXPECT_TRUE(FForm.Project().DataList().empty());
  EXPECT_FALSE(FRecord->Contains("Loading Error"));
  // A file that can't be opened passes the check: the load reports it.
  EXPECT_TRUE(FForm.CheckProjectDataFileSize(FDir.File("missing.oxp")));
}

TEST_F(ProjectActionFormTest, ProjectWithoutNameGoesThroughTheFileDialog) {
  AddText(FForm.Project(), "unnamed");
  int asked = 0;
  std::string answer;
  FForm.OnAskSaveFileName = [&](const std::string&, const std::string& filter, const std::string&,
                                std::string& fileName) {
    ++asked;
    EXPECT_EQ(filter, "Orvex Project|*.oxp");
    fileName = answer;
    return !answer.empty();
  };
  EXPECT_FALSE(FForm.SaveProject(true)); // cancelled
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(FForm.Project().GetFileName(), "");

  answer = FDir.File("Chosen.oxp");
  EXPECT_TRUE(FForm.SaveProject(true));
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(FForm.Project().GetFileName(), answer);
  EXPECT_TRUE(fs::is_regular_file(answer));
  // With a name the dialog stays shut.
  EXPECT_TRUE(FForm.SaveProject(true));
  EXPECT_EQ(asked, 2);
}

TEST_F(ProjectActionFormTest, FailedSaveKeepsThePreviousFile) {
  AddText(FForm.Project(), "good");
  const std::string fileName = FDir.File("Keep.oxp");
  ASSERT_TRUE(FForm.SaveProjectAs(fileName));
  const std::string before = oxtest::ReadFileBytes(fileName);

  AddTestObject(FForm.Project(), 0)->FailOnSave = true;
  EXPECT_FALSE(FForm.SaveProject(true));
  EXPECT_TRUE(FRecord->Contains("There was an error while saving the OXP File."));
  EXPECT_EQ(oxtest::ReadFileBytes(fileName), before);

  // An exception half way is caught, reported and harmless as well.
  dynamic_cast<oxtest::TDTestObject*>(FForm.Project().DataList().back().get())->ThrowOnSave = true;
  const size_t messages = FRecord->Count();
  EXPECT_FALSE(FForm.SaveProject(false));
  EXPECT_EQ(FRecord->Count(), messages + 1);
  EXPECT_EQ(oxtest::ReadFileBytes(fileName), before);
  int files = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(FDir.Path())) ++files;
  EXPECT_EQ(files, 1) << "no temporary file may stay behind";
}

TEST_F(ProjectActionFormTest, CompatibleSaveWritesTheOlderIdentificationAndRestoresTheVersion) {
  AddText(FForm.Project(), "for old programs");
  const std::string fileName = FDir.File("Old.oxp");
  ASSERT_TRUE(FForm.SaveProjectAsCompatible(fileName));
  EXPECT_EQ(oxtest::ReadFileBytes(fileName).substr(0, 8), "ORX_PRCT");
  EXPECT_EQ(TFileVersion::SaveVersion, TProject::ThisVersion);
  ASSERT_TRUE(FForm.SaveProjectAs(FDir.File("New.oxp")));
  EXPECT_EQ(oxtest::ReadFileBytes(FDir.File("New.oxp")).substr(0, 8), "ORX_PR06");
}

TEST_F(ProjectActionFormTest, CheckAndSaveAsksOnlyForChangedProjects) {
  const std::string fileName = FDir.File("Asked.oxp");
  AddText(FForm.Project(), "data");
  ASSERT_TRUE(FForm.SaveProjectAs(fileName));
  EXPECT_TRUE(FForm.CheckAndSaveProject());
  EXPECT_EQ(FRecord->Count(), 0u) << "an unchanged project needs no question";

  AddText(FForm.Project(), "more");
  ASSERT_TRUE(FForm.Project().GetProjectChanged());
  const std::string before = oxtest::ReadFileBytes(fileName);
  FRecord->Answer = kAnswerNo;
  EXPECT_TRUE(FForm.CheckAndSaveProject());
  ASSERT_EQ(FRecord->Count(), 1u);
  EXPECT_EQ(FRecord->Messages[0].Text, "Save Project?");
  EXPECT_EQ(FRecord->Messages[0].Caption, "Warning");
  EXPECT_EQ(oxtest::ReadFileBytes(fileName), before);

  FRecord->Answer = kAnswerYes;
  EXPECT_TRUE(FForm.CheckAndSaveProject());
  EXPECT_FALSE(FForm.Project().GetProjectChanged());
  TProjectActionForm reader;
  ASSERT_TRUE(reader.LoadProject(fileName));
  EXPECT_EQ(Texts(reader.Project()).size(), 2u);
}

TEST_F(ProjectActionFormTest, AppendedProjectFollowsTheMainProjectsIDs) {
  TProjectActionForm source;
  AddText(source.Project(), "appended");
  const std::string fileName = FDir.File("Source.oxp");
  ASSERT_TRUE(source.SaveProjectAs(fileName));

  AddText(FForm.Project(), "main");
  ASSERT_TRUE(FForm.SaveProjectAs(FDir.File("Main.oxp")));
  ASSERT_TRUE(FForm.AppendProject(fileName));
  EXPECT_EQ(Texts(FForm.Project()), (std::vector<std::string>{"main", "appended"}));
  int32_t highest = 0;
  EXPECT_TRUE(FForm.Project().UniqueIDTest(highest));
  EXPECT_EQ(FForm.Project().GetFileName(), FDir.File("Main.oxp"));

  EXPECT_FALSE(FForm.AppendProject(FDir.File("missing.oxp")));
  EXPECT_TRUE(FRecord->Contains("Loading Error: Could not open file"));
  EXPECT_EQ(FForm.Project().DataList().size(), 2u);
}

TEST_F(ProjectActionFormTest, DataFileCarriesWhatItsObjectsReferTo) {
  TProjectActionForm source;
  auto* target = AddTestObject(source.Project(), 0);
  auto* referring = AddTestObject(source.Project(), target->GetID());
  AddText(source.Project(), "not selected");
  const std::string fileName = FDir.File("Selected.oxd");
  ASSERT_TRUE(source.SaveDataList({referring->GetID()}, fileName));
  EXPECT_EQ(source.RecentFiles().Get("OXD"), std::vector<std::string>{fileName});

  AddText(FForm.Project(), "present");
  ASSERT_TRUE(FForm.LoadDataList(std::vector<std::string>{fileName}));
  ASSERT_EQ(FForm.Project().DataList().size(), 3u);
  std::vector<oxtest::TDTestObject*> loaded;
  for (const auto& data : FForm.Project().DataList())
    if (auto* object = dynamic_cast<oxtest::TDTestObject*>(data.get())) loaded.push_back(object);
  ASSERT_EQ(loaded.size(), 2u);
  // Renumbered behind the present object, the reference renumbered with them.
  EXPECT_GT(loaded[0]->GetID(), 1);
  const bool linked = loaded[0]->RefID == loaded[1]->GetID() || loaded[1]->RefID == loaded[0]->GetID();
  EXPECT_TRUE(linked);

  EXPECT_FALSE(FForm.SaveDataList({1}, FDir.File("no/such/folder/x.oxd")));
  EXPECT_TRUE(FRecord->Contains("There was an error while saving Data !"));
}

TEST_F(ProjectActionFormTest, SettingsFilesAndTheirFailureMessages) {
  FForm.Project().SetDataPath("/data/measurements/");
  const std::string fileName = FDir.File("Settings.oxs");
  ASSERT_TRUE(FForm.SaveProjectSettings(fileName, TSaveProjectSettingsKind::Both));
  // A second save replaces the file through a temporary one.
  ASSERT_TRUE(FForm.SaveProjectSettings(fileName, TSaveProjectSettingsKind::Both));

  TProjectActionForm reader;
  ASSERT_TRUE(reader.LoadProjectSettings(fileName, TSaveProjectSettingsKind::Both));
  EXPECT_EQ(reader.Project().GetDataPath(), "/data/measurements/");
  EXPECT_EQ(FRecord->Count(), 0u);

  EXPECT_FALSE(reader.LoadProjectSettings(FDir.File("missing.oxs"), TSaveProjectSettingsKind::Both));
  EXPECT_TRUE(FRecord->Contains("Error while loading Project Settings (LoadKind = 2"));
  EXPECT_FALSE(
      FForm.SaveProjectSettings(FDir.File("no/folder/Settings.oxs"), TSaveProjectSettingsKind::Both));
  EXPECT_TRUE(FRecord->Contains("Saving Error: Could not save Project Settings."));
}

} // namespace
