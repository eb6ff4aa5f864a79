// Auto save: folders by every directory mode and by the day of the save, existing files that mode 0 never
// touches, overwriting in mode 1, clearing in save mode 0, the reports when root or folder are missing, and
// the save asked for from a worker thread while the main thread serves its queue.
#include "project/Autosaveproject.h"

#include "MessageRecorder.h"
#include "common/MainThreadQueue.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "project/Projectactionform.h"
#include "support/TestSupport.h"

#include <filesystem>
#include <future>
#include <thread>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

// Noon of a local calendar day.
std::chrono::system_clock::time_point LocalNoon(int year, int month, int day) {
  std::tm local{};
  local.tm_year = year - 1900;
  local.tm_mon = month - 1;
  local.tm_mday = day;
  local.tm_hour = 12;
  local.tm_isdst = -1;
  return std::chrono::system_clock::from_time_t(std::mktime(&local));
}

class AutoSaveProjectTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    FRecord = std::make_shared<oxtest::TMessageRecord>();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(new oxtest::TRecordingStrategy(FRecord));
    TAutoSaveProject::ResetSettings();
    TAutoSaveProject::RootDirectory = FDir.Path().string();
    TAutoSaveProject::ActionForm = &FForm;
    TAutoSaveProject::Clock = [this] { return FNow; };
    TCustomMessageUserFeedback::SetFeedbackHandler(
        [this](const TCustomMessageUserFeedback::TSnapshot& feedback) { FFeedback.push_back(feedback); });
    AddText("sample");
  }
  void TearDown() override {
    TAutoSaveProject::ResetSettings();
    TAutoSaveProject::ActionForm = nullptr;
    TAutoSaveProject::Clock = nullptr;
    TCustomMessageUserFeedback::SetFeedbackHandler(nullptr);
  }
  void AddText(const std::string& text) {
    auto object = std::make_unique<TDText>();
    object->SetID(FForm.Project().GetNewDataID());
    object->SetText(text);
    FForm.Project().AddData(std::move(object));
  }
  std::string Root() const { return FDir.Path().string() + "/"; }

  oxtest::TempDir FDir;
  TProjectActionForm FForm;
  std::shared_ptr<oxtest::TMessageRecord> FRecord;
  std::chrono::system_clock::time_point FNow = LocalNoon(2024, 3, 1);
  std::vector<TCustomMessageUserFeedback::TSnapshot> FFeedback;
};

TEST_F(AutoSaveProjectTest, FolderOfEveryDirectoryModeAndFileNames) {
  using M = TAutoSaveDirectoryMode;
  const std::pair<M, std::string> expected[] = {
      {M::NoSubDirectory, Root()},
      {M::SubDirectory, Root() + "Orvex User Data/"},
      {M::Date, Root() + "2024-03-01/"},
      {M::SubDirectoryDate, Root() + "Orvex User Data/2024-03-01/"},
      {M::DateSubDirectory, Root() + "2024-03-01/Orvex User Data/"},
  };
  for (const auto& [mode, folder] : expected) {
    TAutoSaveProject::DirectoryMode = mode;
    EXPECT_EQ(TAutoSaveProject::CreateDirName(), folder) << TAutoSaveProject::DirectoryModeName(mode);
  }
  TAutoSaveProject::FileNumber = 7;
  EXPECT_EQ(TAutoSaveProject::CreateFileName(""), Root() + "2024-03-01/Orvex User Data/Sample_0007.oxp");
  EXPECT_EQ(TAutoSaveProject::CreateFileName("Spot A"),
            Root() + "2024-03-01/Orvex User Data/Sample_Spot A.oxp");
  TAutoSaveProject::FileNumber = 12345;
  EXPECT_EQ(fs::path(TAutoSaveProject::CreateFileName("")).filename(), "Sample_12345.oxp");
}

TEST_F(AutoSaveProjectTest, NamesWithForbiddenCharactersAreRefused) {
  for (const char* name : {"a\\b", "a/b", "c:", "x*", "why?", "\"q\"", "<", ">", "p|q"}) {
    EXPECT_FALSE(TAutoSaveProject::SetSubDirectory(name)) << name;
    EXPECT_FALSE(TAutoSaveProject::SetFileName(name)) << name;
  }
  EXPECT_EQ(TAutoSaveProject::GetSubDirectory(), "Orvex User Data");
  EXPECT_EQ(TAutoSaveProject::GetFileName(), "Sample");
  EXPECT_TRUE(TAutoSaveProject::SetFileName("Cell 3 (fixed)"));
  EXPECT_EQ(TAutoSaveProject::GetFileName(), "Cell 3 (fixed)");
}

TEST_F(AutoSaveProjectTest, DateFoldersFollowTheDayOfEachSave) {
  TAutoSaveProject::DirectoryMode = TAutoSaveDirectoryMode::DateSubDirectory;
  TAutoSaveProject::SaveMode = TAutoSaveSaveMode::OnlySaveProject;
  TAutoSaveProject::SaveNextMainThread();
  ASSERT_TRUE(TAutoSaveProject::LastSaveSuccessful());
  EXPECT_TRUE(fs::is_regular_file(Root() + "2024-03-01/Orvex User Data/Sample_0000.oxp"));

  FNow = LocalNoon(2024, 3, 2);
  TAutoSaveProject::SaveNextMainThread();
  ASSERT_TRUE(TAutoSaveProject::LastSaveSuccessful());
  EXPECT_TRUE(fs::is_regular_file(Root() + "2024-03-02/Orvex User Data/Sample_0001.oxp"));
  // Across a year as well.
  FNow = LocalNoon(2025, 1, 1);
  TAutoSaveProject::DirectoryMode = TAutoSaveDirectoryMode::Date;
  TAutoSaveProject::SaveNextMainThread();
  EXPECT_TRUE(fs::is_regular_file(Root() + "2025-01-01/Sample_0002.oxp"));
  EXPECT_EQ(TAutoSaveProject::FileNumber, 3);
}

TEST_F(AutoSaveProjectTest, ModeZeroNeverTouchesAnExistingFile) {
  TAutoSaveProject::DirectoryMode = TAutoSaveDirectoryMode::NoSubDirectory;
  TAutoSaveProject::SaveMode = TAutoSaveSaveMode::OnlySaveProject;
  oxtest::WriteFileBytes(Root() + "Sample_0000.oxp", "somebody's measurement");
  oxtest::WriteFileBytes(Root() + "Sample_0000_1.oxp", "another one");

  TAutoSaveProject::SaveNextMainThread();
  ASSERT_TRUE(TAutoSaveProject::LastSaveSuccessful());
  EXPECT_EQ(TAutoSaveProject::LastFileName(), Root() + "Sample_0000_2.oxp");
  EXPECT_EQ(oxtest::ReadFileBytes(Root() + "Sample_0000.oxp"), "somebody's measurement");
  EXPECT_EQ(oxtest::ReadFileBytes(Root() + "Sample_0000_1.oxp"), "another one");
  EXPECT_EQ(oxtest::ReadFileBytes(Root() + "Sample_0000_2.oxp").substr(0, 8), "ORX_PR06");

  // The same name asked for again (by suffix) takes the next free one.
  TAutoSaveProject::SaveNextThreadSafe("0000");
  EXPECT_EQ(TAutoSaveProject::LastFileName(), Root() + "Sample_0000_3.oxp");
  EXPECT_EQ(oxtest::ReadFileBytes(Root() + "Sample_0000.oxp"), "somebody's measurement");
}

TEST_F(AutoSaveProjectTest, ModeOneOverwritesAndSaveModeZeroClears) {
  TAutoSaveProject::DirectoryMode = TAutoSaveDirectoryMode::SubDirectory;
  TAutoSaveProject::OverwriteMode = TAutoSaveOverwriteMode::OverwriteIfFileExists;
  fs::create_directories(Root() + "Orvex User Data");
  oxtest::WriteFileBytes(Root() + "Orvex User Data/Sample_0000.oxp", "old");

  TAutoSaveProject::SaveNextMainThread();
  ASSERT_TRUE(TAutoSaveProject::LastSaveSuccessful());
  EXPECT_EQ(TAutoSaveProject::LastFileName(), Root() + "Orvex User Data/Sample_0000.oxp");
  EXPECT_EQ(oxtest::ReadFileBytes(TAutoSaveProject::LastFileName()).substr(0, 8), "ORX_PR06");
  EXPECT_TRUE(FForm.Project().DataList().empty()) << "save mode 0 clears the project";

  TProjectActionForm reader;
  ASSERT_TRUE(reader.LoadProject(Root() + "Orvex User Data/Sample_0000.oxp"));
  EXPECT_EQ(reader.Project().DataList().size(), 1u);
}

TEST_F(AutoSaveProjectTest, MissingRootOrFolderIsReportedAndNothingIsLost) {
  TAutoSaveProject::RootDirectory = Root() + "not there";
  EXPECT_FALSE(TAutoSaveProject::SaveNextThreadSafe(""));
  ASSERT_EQ(FFeedback.size(), 1u);
  EXPECT_EQ(FFeedback[0].Text, "Root Folder for Auto Save not found.");

  // A file where the sub directory should be.
  TAutoSaveProject::RootDirectory = Root();
  oxtest::WriteFileBytes(Root() + "Orvex User Data", "in the way");
  EXPECT_FALSE(TAutoSaveProject::SaveNextThreadSafe(""));
  ASSERT_EQ(FFeedback.size(), 2u);
  EXPECT_EQ(FFeedback[1].Text, "Could not create Auto Save folder.");
  EXPECT_EQ(FFeedback[1].Text2, "Check Access Rights and Path name");
  EXPECT_EQ(FForm.Project().DataList().size(), 1u);
  EXPECT_EQ(TAutoSaveProject::FileNumber, 0);
}

TEST_F(AutoSaveProjectTest, WorkerThreadAsksAndTheMainThreadSaves) {
  TMainThreadQueue::Instance().SetMainThread();
  TAutoSaveProject::SaveMode = TAutoSaveSaveMode::OnlySaveProject;
  std::thread::id savingThread;
  FForm.Project().OnFileNameOrChangedState = [&] { savingThread = std::this_thread::get_id(); };
  auto result = std::async(std::launch::async, [] {
    const bool first = TAutoSaveProject::SaveNextThreadSafe("");
    const bool second = TAutoSaveProject::SaveNextThreadSafe("last");
    return first && second;
  });
  while (result.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready)
    TMainThreadQueue::Instance().WaitAndProcess(std::chrono::milliseconds(10));
  EXPECT_TRUE(result.get());
  EXPECT_EQ(savingThread, std::this_thread::get_id());
  EXPECT_TRUE(fs::is_regular_file(Root() + "Orvex User Data/Sample_0000.oxp"));
  EXPECT_TRUE(fs::is_regular_file(Root() + "Orvex User Data/Sample_last.oxp"));
  FForm.Project().OnFileNameOrChangedState = nullptr;
}

} // namespace
