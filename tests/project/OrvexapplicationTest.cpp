// Start-up and shutdown: the order of the steps and the state each step finds, the folders and the defaults
// of an installation, the internal settings check, the log and its head, the command line by extension, the
// memory options of one run, and the single-instance guard.
#include "project/Orvexapplication.h"

#include "MessageRecorder.h"
#include "common/Logfile.h"
#include "common/MainThreadQueue.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "project/Singleinstance.h"
#include "project/Systemoptions.h"
#include "support/TestSupport.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

class OrvexApplicationTest : public ::testing::Test {
protected:
  void SetUp() override {
    // Other suites of this program leave their heap strategy behind; a start makes its own.
    TMemoryManagement::DestroyMemoryStrategy();
    FRecord = std::make_shared<oxtest::TMessageRecord>();
    FOptions.MessageStrategy = TApplicationMessageStrategy::Custom;
    auto record = FRecord;
    FOptions.CustomStrategy = [record] { return new oxtest::TRecordingStrategy(record); };
    FOptions.Roots.Base = FDir.Path().string();
    FOptions.Roots.ProgramFolder = FDir.File("program");
    FOptions.InstallExceptionHandlers = false;
    FOptions.OnStep = [this](const std::string& step) { FSteps.push_back(step); };
    fs::create_directories(FDir.File("program"));
  }
  void TearDown() override {
    TOrvexApplication::CleanupApplication();
    TMemoryManagement::CurrentStrategy = 0;
    TMemoryManagement::StrategyToSave = 0;
    TMemoryManagement::MemoryOptionsFileName.clear();
    TSystemOptionsHelper::Clear();
  }

  std::string UserRoot() const { return FDir.File("data") + "/"; }
  static std::string LogText() {
    return GlobalLogFile ? oxtest::ReadFileBytes(GlobalLogFile->GetFileName()) : std::string();
  }
  // The log files of the user's log folder (one per run).
  std::vector<std::string> LogFiles() const {
    std::vector<std::string> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(UserRoot() + "Log", error)) files.push_back(entry.path());
    return files;
  }
  // A project file with one text in it, written by a project of its own.
  void WriteProjectWithText(const std::string& fileName, const std::string& text) {
    RegisterDataClasses();
    TProject project;
    auto object = std::make_unique<TDText>();
    object->SetID(project.GetNewDataID());
    object->SetText(text);
    project.AddData(std::move(object));
    ASSERT_GE(project.SaveProjectToFile(fileName), 1);
  }
  // The text of the first text object of the main project, "" when there is none.
  static std::string FirstText() {
    for (const auto& data : TOrvexApplication::ActionForm()->Project().DataList())
      if (auto* text = dynamic_cast<TDText*>(data.get())) return text->GetText();
    return "";
  }

  oxtest::TempDir FDir;
  TOrvexApplicationOptions FOptions;
  std::shared_ptr<oxtest::TMessageRecord> FRecord;
  std::vector<std::string> FSteps;
};

// Position of a step in the record, or -1.
int IndexOf(const std::vector<std::string>& steps, const std::string& step) {
  const auto it = std::find(steps.begin(), steps.end(), step);
  return it == steps.end() ? -1 : int(it - steps.begin());
}

TEST_F(OrvexApplicationTest, StepsRunInOrderAndEachFindsWhatItReliesOn) {
  std::map<std::string, std::string> problems;
  FOptions.OnStep = [&](const std::string& step) {
    FSteps.push_back(step);
    const bool memory = TMemoryManagement::PartialMemoryAllocator != nullptr;
    const bool log = GlobalLogFile && GlobalLogFile->IsOpen();
    const bool form = TOrvexApplication::ActionForm() != nullptr;
    const auto names = TData::RegisteredDataObjectNames();
    const bool registered = std::find(names.begin(), names.end(), "TDGraph") != names.end();
    const auto expect = [&](bool condition, const char* what) {
      if (!condition) problems[step] += what;
    };
    if (step == "CheckInternalSettingsAccess")
      expect(fs::is_directory(UserRoot() + "InternalSettings"), "settings folder missing; ");
    if (step == "CreateOrvexProject") expect(memory && !log && !form, "memory before project, log after; ");
    if (step == "CreateGlobalLogFile")
      expect(form && registered && !log, "project and registry before log; ");
    if (step == "CheckCommandLineOnStartUp") expect(form && registered && log && memory, "all up; ");
    if (step == "CleanupMessageProxy") expect(!form && !registered && log && memory, "project gone first; ");
    if (step == "CloseLogFile") expect(!memory && log, "log last; ");
  };
  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);
  EXPECT_EQ(TOrvexApplication::State(), TApplicationState::Running);
  const std::string logName = GlobalLogFile->GetFileName();
  TOrvexApplication::CleanupApplication();
  EXPECT_TRUE(problems.empty()) << problems.begin()->first << ": " << problems.begin()->second;

  const std::vector<std::string> order = {"CreateSessionID",
                                          "InitializeApplicationObject",
                                          "SetMessagingStrategy",
                                          "InitializeOrvexDirectories",
                                          "CopyUserDefaults",
                                          "CreateMemoryStrategy",
                                          "CheckInternalSettingsAccess",
                                          "LoadSystemOptions",
                                          "CreateOrvexProject",
                                          "HookExceptions",
                                          "CreateProjectActionForm",
                                          "RegisterTools",
                                          "RegisterViewers",
                                          "RegisterDataClasses",
                                          "InitModes",
                                          "CreateGlobalLogFile",
                                          "CheckCommandLineOnStartUp",
                                          "LogShutdown",
                                          "SaveSystemOptions",
                                          "CleanUpOrvexProject",
                                          "CleanupMessageProxy",
                                          "DestroyMemoryStrategy",
                                          "ReleaseGuard",
                                          "CloseLogFile"};
  for (size_t i = 1; i < order.size(); ++i)
    EXPECT_LT(IndexOf(FSteps, order[i - 1]), IndexOf(FSteps, order[i])) << order[i - 1] << " / " << order[i];
  EXPECT_EQ(IndexOf(FSteps, "CloseLogFile"), int(FSteps.size()) - 1);

  // Shutdown left nothing behind and wrote the settings of the run.
  EXPECT_EQ(GlobalLogFile, nullptr);
  EXPECT_EQ(TMemoryManagement::PartialMemoryAllocator, nullptr);
  EXPECT_EQ(TOrvexApplication::State(), TApplicationState::NotStarted);
  EXPECT_TRUE(fs::is_regular_file(UserRoot() + "InternalSettings/MemoryOptions.oxh"));
  EXPECT_TRUE(fs::is_regular_file(UserRoot() + "InternalSettings/SystemOptions.oxs"));

  // The log: name by date, head entries in order, completion, and the closing line last.
  EXPECT_EQ(fs::path(logName).parent_path().string() + "/", UserRoot() + "Log/");
  EXPECT_EQ(fs::path(logName).filename().string().rfind("LogFile_", 0), 0u);
  const std::string text = oxtest::ReadFileBytes(logName);
  const size_t affinity = text.find("ProcessAffinityMask=0x");
  const size_t program = text.find("ProgramInfo: Orvex Project ");
  const size_t session = text.find("Application Session ID: " + TOrvexApplication::SessionID());
  const size_t completed = text.find("TOrvexProjectApplication::InitializeApplication() completed");
  const size_t closed = text.find("Log File closed after");
  ASSERT_NE(affinity, std::string::npos);
  EXPECT_NE(text.find(", SystemAffinityMask=0x"), std::string::npos);
  EXPECT_NE(text.find(" (Build "), std::string::npos);
  EXPECT_TRUE(affinity < program && program < session && session < completed && completed < closed);
  EXPECT_EQ(text.find(";", closed), std::string::npos) << "nothing may follow the closing line";
  EXPECT_EQ(FRecord->Count(), 0u);
}

TEST_F(OrvexApplicationTest, WithoutProgramDataTheFoldersAreMadeEmpty) {
  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);
  for (const auto& [name, folder] : TOrvexDirectories::User.Folders()) {
    EXPECT_TRUE(fs::is_directory(folder)) << name;
    if (name != "Log" && name != "InternalSettings") {
      EXPECT_TRUE(fs::is_empty(folder)) << name;
    }
  }
  EXPECT_TRUE(fs::is_directory(FDir.File("common") + "/Help"));
  EXPECT_TRUE(fs::is_directory(FDir.File("tmp")));
  EXPECT_TRUE(fs::is_directory(FDir.File("cache")));
  EXPECT_EQ(TOrvexDirectories::User.InternalSettings, UserRoot() + "InternalSettings/");
  EXPECT_EQ(TOrvexDirectories::User.DefinitionsSpectrograph, UserRoot() + "Definitions/Spectrograph/");
  EXPECT_EQ(TOrvexDirectories::User.UserFitFunctionsFile,
            UserRoot() + "UserFitFunctions/UserFitFunctions.oxs");
}

TEST_F(OrvexApplicationTest, ProgramDataIsHandedOverWithoutOverwritingNewerFiles) {
  const std::string source = FDir.File("program") + "/ProgramData/UserFitFunctions/";
  fs::create_directories(source);
  oxtest::WriteFileBytes(source + "Defaults.oxs", "installed");
  oxtest::WriteFileBytes(source + "Changed.oxs", "installed");
  fs::create_directories(FDir.File("program") + "/ProgramDataCommon/UserQuickFilters");
  oxtest::WriteFileBytes(FDir.File("program") + "/ProgramDataCommon/UserQuickFilters/Quick.oxs", "common");
  // The user changed one of them after the installation.
  fs::create_directories(UserRoot() + "UserFitFunctions");
  oxtest::WriteFileBytes(UserRoot() + "UserFitFunctions/Changed.oxs", "mine");
  fs::last_write_time(source + "Changed.oxs", fs::file_time_type::clock::now() - std::chrono::hours(1));

  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);
  EXPECT_EQ(oxtest::ReadFileBytes(UserRoot() + "UserFitFunctions/Defaults.oxs"), "installed");
  EXPECT_EQ(oxtest::ReadFileBytes(UserRoot() + "UserFitFunctions/Changed.oxs"), "mine");
  EXPECT_EQ(oxtest::ReadFileBytes(FDir.File("common") + "/UserQuickFilters/Quick.oxs"), "common");
  // The common presets reach the user who has none.
  EXPECT_EQ(oxtest::ReadFileBytes(UserRoot() + "UserQuickFilters/Quick.oxs"), "common");
  EXPECT_NE(LogText().find("default file(s) from"), std::string::npos);
}

TEST_F(OrvexApplicationTest, UnwritableSettingsFolderEndsTheStartWithAMessage) {
  // A file where the folder should be: no user, not even root, can write into it.
  fs::create_directories(UserRoot());
  oxtest::WriteFileBytes(UserRoot() + "InternalSettings", "in the way");
  EXPECT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::SettingsNotWritable);
  ASSERT_EQ(FRecord->Count(), 1u);
  EXPECT_NE(FRecord->Messages[0].Text.find(UserRoot() + "InternalSettings/"), std::string::npos);
  EXPECT_EQ(IndexOf(FSteps, "CreateOrvexProject"), -1);
  EXPECT_EQ(TOrvexApplication::ActionForm(), nullptr);

  TOrvexApplication::CleanupApplication();
  EXPECT_EQ(TMemoryManagement::PartialMemoryAllocator, nullptr);
  EXPECT_EQ(GlobalLogFile, nullptr);
  EXPECT_TRUE(LogFiles().empty());
}

TEST_F(OrvexApplicationTest, CommandLineProjectLoadsWhateverTheCaseOfItsExtension) {
  const std::string fileName = FDir.File("Measured.oxp");
  WriteProjectWithText(fileName, "lower case");
  FOptions.CommandLineFile = fileName;
  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);
  EXPECT_EQ(FirstText(), "lower case");
  EXPECT_EQ(TOrvexApplication::ActionForm()->Project().GetFileName(), fileName);
  TOrvexApplication::CleanupApplication();

  fs::rename(fileName, FDir.File("Upper.OXP"));
  FOptions.CommandLineFile = FDir.File("Upper.OXP");
  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);
  EXPECT_EQ(FirstText(), "lower case");
  EXPECT_EQ(TOrvexApplication::CheckCommandLineOnStartUp(), TCommandLineAction::LoadedProject);
}

TEST_F(OrvexApplicationTest, CommandLineDataFileIsAppended) {
  RegisterDataClasses();
  TProject source;
  auto object = std::make_unique<TDText>();
  object->SetID(source.GetNewDataID());
  object->SetText("data file");
  TData* raw = object.get();
  source.AddData(std::move(object));
  ASSERT_GE(source.SaveDataListToFile(FDir.File("Objects.oxd"), TDataList{raw}), 1);
  FOptions.CommandLineFile = FDir.File("Objects.oxd");
  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);
  EXPECT_EQ(FirstText(), "data file");
  EXPECT_EQ(TOrvexApplication::ActionForm()->Project().GetFileName(), "");
}

TEST_F(OrvexApplicationTest, MissingOrUnimportableCommandLineFileStartsEmpty) {
  FOptions.CommandLineFile = FDir.File("Nowhere.oxp");
  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);
  EXPECT_TRUE(TOrvexApplication::ActionForm()->Project().DataList().empty());
  EXPECT_NE(LogText().find("Nowhere.oxp\" not found"), std::string::npos);
  EXPECT_EQ(FRecord->Count(), 0u);
  TOrvexApplication::CleanupApplication();

  oxtest::WriteFileBytes(FDir.File("Scan.oxt"), "not ours");
  FOptions.CommandLineFile = FDir.File("Scan.oxt");
  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);
  EXPECT_TRUE(TOrvexApplication::ActionForm()->Project().DataList().empty());
  EXPECT_NE(LogText().find("importer of .OXT files is not part of this program"), std::string::npos);
}

TEST_F(OrvexApplicationTest, LogLevelComesFromTheSystemOptions) {
  fs::create_directories(UserRoot() + "InternalSettings");
  TSystemOptionsHelper::FileName = UserRoot() + "InternalSettings/SystemOptions.oxs";
  TSystemOptionsHelper::SetString(TSystemOptionsHelper::kLogLevelPath, "Warning");
  ASSERT_GE(TSystemOptionsHelper::SaveSystemOptions(), 1);
  TSystemOptionsHelper::Clear();

  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);
  ASSERT_NE(GlobalLogFile, nullptr);
  EXPECT_EQ(GlobalLogFile->GetLogEntries(), std::set<TLogLevel>{TLogLevel::Warning});
  // The head is written whatever the level.
  EXPECT_NE(LogText().find("Application Session ID: "), std::string::npos);
  // And the setting survives the run.
  TOrvexApplication::CleanupApplication();
  TSystemOptionsHelper::LoadSystemOptions();
  EXPECT_EQ(TSystemOptionsHelper::GetString(TSystemOptionsHelper::kLogLevelPath, ""), "Warning");
}

TEST_F(OrvexApplicationTest, MemoryOverrideHoldsForOneRunOnly) {
  FOptions.MemoryOverride.Strategy = "mmf";
  FOptions.MemoryOverride.MemoryMappedFilePath = FDir.File("mapped");
  FOptions.MemoryOverride.FileSizeGB = 0.0625;
  FOptions.MemoryOverride.MapSizeMB = 16;
  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);
  EXPECT_EQ(TMemoryManagement::CurrentStrategy, 1);
  EXPECT_TRUE(fs::is_directory(FDir.File("mapped") + "/OrvexMMF"));
  TOrvexApplication::CleanupApplication();

  // The options file written at shutdown keeps the heap strategy and the cache folder.
  TMemoryManagement::MemoryOptionsFileName = UserRoot() + "InternalSettings/MemoryOptions.oxh";
  ASSERT_GE(TMemoryManagement::LoadOptionsFromFile(), 1);
  EXPECT_EQ(TMemoryManagement::CurrentStrategy, 0);
  EXPECT_EQ(TMemoryManagement::MemoryMappedFilePath, FDir.File("cache") + "/");

  FOptions.MemoryOverride = {};
  FOptions.MemoryOverride.Strategy = "paging";
  EXPECT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::BadOptions);
  EXPECT_NE(TOrvexApplication::LastStartError().find("paging"), std::string::npos);
}

TEST_F(OrvexApplicationTest, SecondStartBringsTheFirstForward) {
  FOptions.SingleInstance = true;
  int broughtForward = 0;
  FOptions.OnBringToFront = [&] { ++broughtForward; };
  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);

  // A second start (here: a guard of its own on the same runtime folder) reaches the first.
  TSingleInstanceGuard second(FDir.File("run"), "orvex-project");
  EXPECT_EQ(second.Acquire(nullptr), TSingleInstanceGuard::TResult::OtherBroughtForward);
  EXPECT_FALSE(second.IsHolder());
  // The request reaches the main thread through its queue.
  for (int i = 0; i < 100 && broughtForward == 0; ++i)
    TMainThreadQueue::Instance().WaitAndProcess(std::chrono::milliseconds(20));
  EXPECT_EQ(broughtForward, 1);

  // Once the first has ended, the next start holds the guard.
  TOrvexApplication::CleanupApplication();
  EXPECT_EQ(second.Acquire(nullptr), TSingleInstanceGuard::TResult::First);
}

TEST_F(OrvexApplicationTest, SecondStartHandsItsFileToTheFirst) {
  FOptions.SingleInstance = true;
  std::vector<std::string> events;
  FOptions.OnBringToFront = [&] { events.push_back("front"); };
  FOptions.OnFileFromLaterStart = [&](const std::string& file) { events.push_back("file " + file); };
  ASSERT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::Started);

  const std::string handed = FDir.File("with space and µm.oxp"); // absolute already
  TSingleInstanceGuard second(FDir.File("run"), "orvex-project");
  EXPECT_EQ(second.Acquire([](const std::string&) {}, handed),
            TSingleInstanceGuard::TResult::OtherBroughtForward);
  for (int i = 0; i < 100 && events.size() < 2; ++i)
    TMainThreadQueue::Instance().WaitAndProcess(std::chrono::milliseconds(20));
  EXPECT_EQ(events, (std::vector<std::string>{"front", "file " + handed}));

  // A relative name arrives absolute; none at all only brings the first forward.
  events.clear();
  EXPECT_EQ(second.Acquire([](const std::string&) {}, "relative.oxp"),
            TSingleInstanceGuard::TResult::OtherBroughtForward);
  EXPECT_EQ(second.Acquire(nullptr), TSingleInstanceGuard::TResult::OtherBroughtForward);
  for (int i = 0; i < 100 && events.size() < 3; ++i)
    TMainThreadQueue::Instance().WaitAndProcess(std::chrono::milliseconds(20));
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[1], "file " + (fs::current_path() / "relative.oxp").string());
  EXPECT_EQ(events[2], "front");
  TOrvexApplication::CleanupApplication();
}

TEST_F(OrvexApplicationTest, HolderThatDoesNotAnswerGetsTheMessage) {
  // A holder of the lock that listens nowhere: the second start can't find it.
  fs::create_directories(FDir.File("run"));
  const int lock = ::open((FDir.File("run") + "/orvex-project.lock").c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(lock, 0);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  FOptions.SingleInstance = true;
  EXPECT_EQ(TOrvexApplication::InitializeApplication(FOptions), TStartResult::SecondInstance);
  ::close(lock);
  ASSERT_EQ(FRecord->Count(), 1u);
  EXPECT_EQ(FRecord->Messages[0].Text, "Only one instance of this program allowed !");
  EXPECT_EQ(FRecord->Messages[0].Caption, "The program already runs");
  EXPECT_EQ(TMemoryManagement::PartialMemoryAllocator, nullptr);
}

TEST(SingleInstanceGuardTest, StaleSocketOfADeadHolderDoesNotBlock) {
  oxtest::TempDir dir;
  // What a crashed holder leaves: a socket file nobody listens on, and a lock file nobody holds.
  oxtest::WriteFileBytes(dir.File("guard.socket"), "");
  oxtest::WriteFileBytes(dir.File("guard.lock"), "");
  TSingleInstanceGuard first(dir.Path().string(), "guard");
  std::atomic<int> requests{0};
  ASSERT_EQ(first.Acquire([&] { ++requests; }), TSingleInstanceGuard::TResult::First);
  TSingleInstanceGuard second(dir.Path().string(), "guard");
  EXPECT_EQ(second.Acquire(nullptr), TSingleInstanceGuard::TResult::OtherBroughtForward);
  EXPECT_EQ(second.Acquire(nullptr), TSingleInstanceGuard::TResult::OtherBroughtForward);
  EXPECT_EQ(requests.load(), 2);
  first.Release();
  EXPECT_FALSE(fs::exists(dir.File("guard.socket")));
  EXPECT_EQ(second.Acquire(nullptr), TSingleInstanceGuard::TResult::First);
}

} // namespace
