// Start-up and shutdown of the process.
#include "project/Orvexapplication.h"

#include "common/Exceptionhandling.h"
#include "common/Logfile.h"
#include "common/MainThreadQueue.h"
#include "common/threads/Multicorecalc.h"
#include "common/threads/Threadplatform.h"
#include "data/Registerdata.h"
#include "project/Projectactionform.h"
#include "project/Singleinstance.h"
#include "project/Systemoptions.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <random>
#include <set>

#include <fcntl.h>
#include <unistd.h>

namespace {

std::unique_ptr<TSingleInstanceGuard> Guard;
TMemoryManagement::TPlainMessageHandler PreviousPlainMessageHandler;
TOrvexExceptionHook PreviousExceptionHook = nullptr;

TGuid NewGuid() {
  std::random_device device;
  std::mt19937_64 generator((uint64_t(device()) << 32) ^ device() ^ uint64_t(std::time(nullptr)));
  const uint64_t high = generator(), low = generator();
  TGuid guid;
  guid.Data1 = uint32_t(high >> 32);
  guid.Data2 = uint16_t(high >> 16);
  guid.Data3 = uint16_t((high & 0x0FFF) | 0x4000); // random GUID: version 4
  for (int i = 0; i < 8; ++i) guid.Data4[i] = uint8_t(low >> (56 - 8 * i));
  guid.Data4[0] = uint8_t((guid.Data4[0] & 0x3F) | 0x80);
  return guid;
}

// Writes a line whatever levels the log has enabled: the head and the start-up notes must be there.
void LogAlways(const std::string& text) {
  TLogFile* log = GlobalLogFile;
  if (!log) return;
  log->AddLog(text,
              log->IsLevelEnabled(TLogLevel::DebugMessage) ? TLogLevel::DebugMessage : TLogLevel::Warning);
}

void Notify(const std::string& text, const std::string& caption) {
  TMessageProxy::MsgProxySingleton()->IssueMessage(
      TBlockingNotification::CreateAndInit(text, caption, kSeverityError), true);
}

// The hook of the fault handlers: the record is in the log already, the workbench may show it.
void ShowRecordFromHandler(TOrvexSEHInfo* info) {
  if (TOrvexApplication::ExceptionViewer && TMainThreadQueue::Instance().IsMainThread())
    TOrvexApplication::ExceptionViewer(info);
}

// Runs one shutdown step; a failure is logged and the next step follows.
template <class F>
void ShutdownStep(const char* name, F&& body) {
  try {
    body();
  } catch (const std::exception& e) {
    LogAlways(std::string("TOrvexApplication::CleanupApplication: ") + name + " failed: " + e.what());
  } catch (...) {
    LogAlways(std::string("TOrvexApplication::CleanupApplication: ") + name + " failed");
  }
}

std::string UpperExtension(const std::string& fileName) {
  std::string extension = std::filesystem::path(fileName).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return char(std::toupper(c)); });
  return extension;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Helpers

void TOrvexApplication::Step(const std::string& name) {
  if (FOptions.OnStep) FOptions.OnStep(name);
}

void TOrvexApplication::Note(const std::string& text) {
  if (GlobalLogFile && GlobalLogFile->IsOpen())
    LogAlways(text);
  else
    FEarlyNotes.push_back(text);
}

std::string TOrvexApplication::ProgramInfo() {
  return "ProgramInfo: Orvex Project " + TOrvexDirectories::Version() + " (Build " + __DATE__ + ")";
}

std::string TOrvexApplication::UserProjectSettingsFileName() {
  return TOrvexDirectories::User.InternalSettings + "ProjectSettings.oxs";
}

bool TOrvexApplication::IsHardwareSettingsPresent() {
  std::error_code error;
  return std::filesystem::is_regular_file(TOrvexDirectories::ProgramFolder + "HardwareSettings.oxh", error);
}

void TOrvexApplication::SetMessagingStrategy() {
  IMessagingStrategy* strategy = nullptr;
  switch (FOptions.MessageStrategy) {
  case TApplicationMessageStrategy::Console:
    strategy = new TConsoleMessagingStrategy();
    break;
  case TApplicationMessageStrategy::AnswerYes:
    strategy = new TContinueAllMessages_MessagingStrategy();
    break;
  case TApplicationMessageStrategy::AnswerNo:
    strategy = new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerNo);
    break;
  case TApplicationMessageStrategy::Custom:
    strategy = FOptions.CustomStrategy ? FOptions.CustomStrategy() : nullptr;
    break;
  }
  if (!strategy) strategy = new TConsoleMessagingStrategy();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(strategy);
}

// ---------------------------------------------------------------------------------------------
// Start-up

TStartResult TOrvexApplication::InitializeApplication(const TOrvexApplicationOptions& options) {
  if (FState != TApplicationState::NotStarted) return TStartResult::AlreadyStarted;
  FState = TApplicationState::Starting;
  FOptions = options;
  FEarlyNotes.clear();
  FLastStartError.clear();

  // 1. The identity of this run.
  Step("CreateSessionID");
  FSessionID = NewGuid().ToString();

  // 2. The application object: the main thread, and the guard of the workbench.
  Step("InitializeApplicationObject");
  TMainThreadQueue::Instance().SetMainThread();
  if (FOptions.SingleInstance) {
    Note("The request that the system must not sleep is not available on this platform");
    // The guard lives in the runtime folder, so the folder names are needed before the folders are made.
    TOrvexDirectories::FormDirectoryStrings(FOptions.Roots);
    std::error_code error;
    std::filesystem::create_directories(TOrvexDirectories::Runtime, error);
    Guard = std::make_unique<TSingleInstanceGuard>(TOrvexDirectories::Runtime, "orvex-project");
    const auto result = Guard->Acquire(
        [](const std::string& fileName) {
          TMainThreadQueue::Instance().Post([fileName] {
            if (FOptions.OnBringToFront) FOptions.OnBringToFront();
            if (!fileName.empty() && FOptions.OnFileFromLaterStart) FOptions.OnFileFromLaterStart(fileName);
          });
        },
        FOptions.CommandLineFile);
    if (result == TSingleInstanceGuard::TResult::OtherBroughtForward ||
        result == TSingleInstanceGuard::TResult::OtherNotReached) {
      Guard.reset();
      if (result == TSingleInstanceGuard::TResult::OtherNotReached) {
        SetMessagingStrategy();
        Notify("Only one instance of this program allowed !", "The program already runs");
      }
      FLastStartError = "Another instance of the program runs";
      return TStartResult::SecondInstance;
    }
    if (result == TSingleInstanceGuard::TResult::NoGuard)
      Note("Single-instance guard not available: could not create \"" + Guard->LockFileName() + "\"");
  }

  // 3. Title (fonts and monitor arrangement are the workbench frame's).
  Step("SetApplicationTitle");
  SetMessageApplicationTitle(std::string("Orvex Project"));
  SetOrvexApplicationInfo("Orvex Project " + TOrvexDirectories::Version());

  // 5. How the user is asked and told.
  Step("SetMessagingStrategy");
  SetMessagingStrategy();
  PreviousPlainMessageHandler = TMemoryManagement::PlainMessageHandler;
  TMemoryManagement::PlainMessageHandler = [](const std::string& text, const std::string& caption) {
    Notify(text, caption);
  };

  // 6. Folders and defaults.
  Step("InitializeOrvexDirectories");
  TOrvexDirectories::InitializeOrvexDirectories(FOptions.Roots, FOptions.EmptyTemporaryFolder, FEarlyNotes);
  Step("CopyUserDefaults");
  TOrvexDirectories::CopyUserDefaults(FEarlyNotes);

  // 7. Presentation mode.
  FPresentationMode = FileExists(TOrvexDirectories::ProgramFolder + "PresentationMode.txt");

  // 8. Memory, then the internal settings folder.
  Step("CreateMemoryStrategy");
  TMemoryManagement::MemoryOptionsFileName = TOrvexDirectories::User.InternalSettings + "MemoryOptions.oxh";
  TMemoryManagement::MemoryMappedFilePath = TOrvexDirectories::Cache;
  const TTagError optionsResult = TMemoryManagement::LoadOptionsFromFile();
  if (optionsResult < 1 && optionsResult != teCreateFileForReadError)
    Note("Memory options file \"" + TMemoryManagement::MemoryOptionsFileName +
         "\" could not be read: " + GetTagErrorName(optionsResult));
  const std::string problem = TMemoryManagement::ApplyOptionsOverride(FOptions.MemoryOverride);
  if (!problem.empty()) {
    FLastStartError = problem;
    return TStartResult::BadOptions;
  }
  if (TMemoryManagement::PartialMemoryAllocator) {
    Note("Memory strategy exists already and is kept");
  } else {
    TMemoryManagement::CreateMemoryStrategy();
    FMemoryStrategyCreated = true;
  }
  Step("CheckInternalSettingsAccess");
  if (!CheckInternalSettingsAccess(true)) {
    FLastStartError =
        "The internal settings folder can't be written: " + TOrvexDirectories::User.InternalSettings;
    return TStartResult::SettingsNotWritable;
  }

  // 9. System options and the process settings of the run.
  Step("LoadSystemOptions");
  TSystemOptionsHelper::FileName = TOrvexDirectories::User.InternalSettings + "SystemOptions.oxs";
  TSystemOptionsHelper::LoadSystemOptions();
  FSystemOptionsLoaded = true;
  if (FOptions.ThreadLimit > 0) TMCC::SetProcessThreadLimit(FOptions.ThreadLimit);
  if (FOptions.ProgressView) TMCC::SetDefaultProgressView(FOptions.ProgressView);

  // 10, 11. Hardware settings and drawing defaults belong to the instrument and the workbench frame.
  if (IsHardwareSettingsPresent())
    Note("HardwareSettings.oxh beside the program is not read: this program has no instrument side");

  // 12. The main project with everything around it.
  Step("CreateOrvexProject");
  CreateOrvexProject();

  // 13.
  Step("InitModes");
  FActionForm->InitModes();

  // 15. The log; from here every standard message goes into it as well.
  Step("CreateGlobalLogFile");
  CreateGlobalLogFile();
  TMessageProxy::MsgProxySingleton()->SetMessageLoggingStrategy(new TStdMsgToLogFile_Strategy());

  // 17. The user's project settings.
  if (FOptions.LoadUserProjectSettings && FileExists(UserProjectSettingsFileName())) {
    Step("LoadProjectSettings");
    FActionForm->LoadProjectSettings(UserProjectSettingsFileName(), TSaveProjectSettingsKind::Both);
  }

  // 18.
  LogAlways("TOrvexProjectApplication::InitializeApplication() completed");
  FState = TApplicationState::Running;

  // 19.
  Step("CheckCommandLineOnStartUp");
  CheckCommandLineOnStartUp();
  return TStartResult::Started;
}

void TOrvexApplication::CreateOrvexProject() {
  Step("HookExceptions");
  PreviousExceptionHook = GetOrvexExceptionHook();
  SetOrvexExceptionHook(&ShowRecordFromHandler);
  if (FOptions.InstallExceptionHandlers) {
    InstallOrvexExceptionHandlers();
    FHandlersInstalled = true;
  }

  Step("CreateProjectActionForm");
  FActionForm = std::make_unique<TProjectActionForm>();
  TProjectActionForm::SetInstance(FActionForm.get());

  Step("RegisterTools");
  if (FOptions.RegisterTools) FOptions.RegisterTools();
  Step("RegisterViewers");
  if (FOptions.RegisterViewers) FOptions.RegisterViewers();
  Step("RegisterDataClasses");
  RegisterDataClasses();
  FRegistered = true;
}

bool TOrvexApplication::CheckInternalSettingsAccess(bool showMessage) {
  const std::string folder = TOrvexDirectories::User.InternalSettings;
  const std::string probe = folder + ".write_test_" + std::to_string(::getpid());
  bool writable = false;
  const int file = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file >= 0) {
    const char byte = 0;
    writable = ::write(file, &byte, 1) == 1;
    writable = ::close(file) == 0 && writable;
    ::unlink(probe.c_str());
  }
  if (!writable && showMessage)
    Notify(
        "Could not write to the folder of the internal settings:\n\"" + folder +
            "\"\n\nThe program needs to write its settings there and ends now.\nCheck the access rights of "
            "the folder.",
        "Orvex Settings Problem");
  return writable;
}

bool TOrvexApplication::CreateGlobalLogFile() {
  if (GlobalLogFile) return GlobalLogFile->IsOpen();
  const std::string level = TSystemOptionsHelper::GetString(TSystemOptionsHelper::kLogLevelPath, "");
  std::set<TLogLevel> levels;
  if (level.find("DebugMessage") != std::string::npos) levels.insert(TLogLevel::DebugMessage);
  if (level.find("Warning") != std::string::npos) levels.insert(TLogLevel::Warning);
  if (levels.empty()) levels.insert(TLogLevel::DebugMessage);

  auto log = std::make_unique<TLogFile>(true, true);
  log->SetImmediateFlush(true);
  log->SetLogEntries(levels);
  const std::string fileName = TLogFile::MakeLogFileName(TOrvexDirectories::User.Log, std::time(nullptr));
  // Each run creates its own file: one started in the same second takes the next free name ("_1", "_2", ...).
  if (!log->OpenExclusive(fileName)) {
    FEarlyNotes.push_back("Could not open the log file \"" + fileName + "\"");
    return false;
  }
  GlobalLogFile = log.release();
  WriteLogHead();
  for (const std::string& note : FEarlyNotes) LogAlways("Start-up: " + note);
  FEarlyNotes.clear();
  if (FActionForm)
    FActionForm->Project().SystemInformation().AddCurrentLogFileToSystemInformation(
        GlobalLogFile->GetFileName());
  return true;
}

void TOrvexApplication::WriteLogHead() {
  const oxthreads::TAffinityMask process = oxthreads::GetProcessAffinityMask();
  const long processors = ::sysconf(_SC_NPROCESSORS_CONF);
  const uint64_t system = processors >= 64 ? ~uint64_t(0) : (uint64_t(1) << std::max(1L, processors)) - 1;
  char masks[96];
  std::snprintf(masks, sizeof masks, "ProcessAffinityMask=0x%llX, SystemAffinityMask=0x%llX",
                static_cast<unsigned long long>(process), static_cast<unsigned long long>(system));
  LogAlways(masks);
  LogAlways(ProgramInfo());
  LogAlways("Application Session ID: " + FSessionID);
  if (!FActionForm) return;
  // The version record this run adds to every file it saves.
  TOrvexSystemInformation& information = FActionForm->Project().SystemInformation();
  information.LockSystemTag();
  std::string record;
  if (const TTagControl* list = information.SystemTag().FindTagInList("VersionInfo");
      list && list->Children() && !list->Children()->empty())
    if (const TTagControl* entry = list->Children()->back().get(); entry->Children())
      for (const auto& child : *entry->Children()) {
        std::string value;
        if (child->Kind() == TTagKind::AnsiString && child->GetAnsiStringTag(value) >= 1)
          record += (record.empty() ? "" : ", ") + child->Name() + "=" + value;
      }
  information.UnlockSystemTag();
  LogAlways("SystemInformation VersionInfo: " + record);
}

TCommandLineAction TOrvexApplication::CheckCommandLineOnStartUp() {
  const std::string fileName = FOptions.CommandLineFile;
  if (fileName.empty() || !FActionForm) return TCommandLineAction::None;
  std::error_code error;
  if (!std::filesystem::is_regular_file(fileName, error)) {
    LogAlways("Command line: file \"" + fileName + "\" not found; the program starts with an empty project");
    return TCommandLineAction::FileMissing;
  }
  const std::string extension = UpperExtension(fileName);
  if (extension == ".OXD") {
    LogAlways("Command line: appending data file \"" + fileName + "\"");
    return FActionForm->AppendDataList(fileName) ? TCommandLineAction::AppendedData
                                                 : TCommandLineAction::Failed;
  }
  if (extension == ".OXP") {
    LogAlways("Command line: loading project \"" + fileName + "\"");
    return FActionForm->LoadProject(fileName) ? TCommandLineAction::LoadedProject
                                              : TCommandLineAction::Failed;
  }
  if (extension == ".OXT" || extension == ".OXM") {
    LogAlways("Command line: the importer of " + extension + " files is not part of this program; \"" +
              fileName + "\" is not imported and the program starts with an empty project");
    return TCommandLineAction::NotImported;
  }
  LogAlways("Command line: no action for \"" + fileName + "\"");
  return TCommandLineAction::Ignored;
}

void TOrvexApplication::OnOrvexException(TOrvexSEHInfo* info) {
  if (!info) return;
  WriteExceptionToLogFile(info);
  if (FActionForm)
    FActionForm->Project().SystemInformation().AddExceptionToSystemInformation(ComposeExceptionLogText(info));
  if (ExceptionViewer && TMainThreadQueue::Instance().IsMainThread()) ExceptionViewer(info);
}

// ---------------------------------------------------------------------------------------------
// Shutdown

void TOrvexApplication::CleanUpOrvexProject() {
  if (FActionForm) {
    TProjectActionForm::SetInstance(nullptr);
    FActionForm.reset();
  }
  if (FRegistered) {
    TVCustomForm::DeleteRegisteredViewerList();
    TData::DeleteRegisteredDataObjectList();
    FRegistered = false;
  }
}

void TOrvexApplication::CleanupApplication() {
  if (FState == TApplicationState::NotStarted) return;
  FState = TApplicationState::Closing;

  // 1.
  Step("LogShutdown");
  LogAlways("TOrvexProjectApplication::CleanupApplication() started");

  // 3.
  if (FSystemOptionsLoaded) {
    Step("SaveSystemOptions");
    ShutdownStep("SaveSystemOptions", [] {
      const TTagError result = TSystemOptionsHelper::SaveSystemOptions();
      if (result < 1) LogAlways("System options could not be saved: " + GetTagErrorName(result));
    });
    FSystemOptionsLoaded = false;
  }

  // 4. The project and the registries; no calculation runs after this.
  Step("CleanUpOrvexProject");
  ShutdownStep("CleanUpOrvexProject", [] { CleanUpOrvexProject(); });

  // 6. The message proxy with its strategies (the log's message strategy with it).
  Step("CleanupMessageProxy");
  ShutdownStep("CleanupMessageProxy", [] {
    TMessageProxy::CleanupRegisteredMessagesAndSingletonObject();
    TMemoryManagement::PlainMessageHandler = PreviousPlainMessageHandler;
    PreviousPlainMessageHandler = nullptr;
  });

  // 7. Memory: after this no data field may exist.
  if (FMemoryStrategyCreated) {
    Step("DestroyMemoryStrategy");
    ShutdownStep("DestroyMemoryStrategy", [] {
      const int result = TMemoryManagement::SaveOptionsToFile();
      if (result < 1) LogAlways("Memory options could not be saved: " + GetTagErrorName(result));
      TMemoryManagement::ClearOptionsOverride();
      TMemoryManagement::DestroyMemoryStrategy();
    });
    FMemoryStrategyCreated = false;
  }

  // The guard and the fault handlers go before the log, which stays to hear of their failures.
  Step("ReleaseGuard");
  ShutdownStep("ReleaseGuard", [] { Guard.reset(); });
  ShutdownStep("ExceptionHooks", [] {
    if (FHandlersInstalled) UninstallOrvexExceptionHandlers();
    FHandlersInstalled = false;
    SetOrvexExceptionHook(PreviousExceptionHook);
    PreviousExceptionHook = nullptr;
  });

  // 9. The log, last.
  Step("CloseLogFile");
  if (TLogFile* log = GlobalLogFile) {
    LogAlways("TOrvexProjectApplication::CleanupApplication() completed");
    GlobalLogFile = nullptr;
    log->Close();
    delete log;
  }
  FEarlyNotes.clear();
  FState = TApplicationState::NotStarted;
}
