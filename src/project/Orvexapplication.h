// The process around the project: start-up in a fixed order (guard, directories, memory, options, log,
// messages, registries, main project, command line) and shutdown in reverse with the log closed last.
#pragma once

#include "common/Standardmessage.h"
#include "common/memory/Memorymanagement.h"
#include "project/Orvexdirectories.h"
#include "project/Projectactionform.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

class TOrvexSEHInfo;
class IProgressView;

/// How the user is asked and told during the run.
enum class TApplicationMessageStrategy {
  Console,   ///< prompt on the terminal (answers by themselves without one)
  AnswerYes, ///< every question answered Yes/Ok
  AnswerNo,  ///< every question answered No/Cancel
  Custom,    ///< the strategy of the options (the workbench's message box, a test's recorder)
};

/// What a start is asked to do. The defaults are a command-line run.
struct TOrvexApplicationOptions {
  TApplicationMessageStrategy MessageStrategy = TApplicationMessageStrategy::Console;
  /// Taken over by the message proxy with TApplicationMessageStrategy::Custom.
  std::function<IMessagingStrategy*()> CustomStrategy;
  /// The workbench's guard: one process per user, a second start asks the first to come forward.
  bool SingleInstance = false;
  /// Empty the temporary folder at start-up (only safe for the guarded instance).
  bool EmptyTemporaryFolder = false;
  /// The file of the command line ("" for none).
  std::string CommandLineFile;
  /// Memory options for this run only.
  TMemoryOptionsOverride MemoryOverride;
  /// Roots of the folders; empty fields come from the environment.
  TOrvexDirectoryRoots Roots;
  /// Most calculation threads (0 leaves the process limit as it is).
  int ThreadLimit = 0;
  /// Progress view of calculations without one of their own (null leaves it as it is). Not owned.
  IProgressView* ProgressView = nullptr;
  /// Install the handlers of faults and unhandled exceptions (removed again at shutdown).
  bool InstallExceptionHandlers = true;
  /// Load the user's project settings file at start-up.
  bool LoadUserProjectSettings = true;
  /// Registration of the viewer and tool classes of the layers above the project, called where the
  /// start-up order puts them (after the project exists, before the data classes).
  std::function<void()> RegisterTools;
  std::function<void()> RegisterViewers;
  /// Called on the main thread when a later start asks this instance to come forward.
  std::function<void()> OnBringToFront;
  /// Called on the main thread, after OnBringToFront, with the file a later start was given. A second start
  /// hands over its CommandLineFile.
  std::function<void(const std::string& fileName)> OnFileFromLaterStart;
  /// Called with the name of every step as it begins, start-up and shutdown alike (tests, tracing).
  std::function<void(const std::string& step)> OnStep;
};

/// Outcome of a start.
enum class TStartResult {
  Started,             ///< running; the message loop may start
  SecondInstance,      ///< another instance runs (and was asked to come forward): end the process
  SettingsNotWritable, ///< the internal settings folder can't be written: the user was told; end the process
  BadOptions,          ///< the options of the run are wrong (LastStartError says how)
  AlreadyStarted,      ///< InitializeApplication was called twice
};

/// What the command line's file did at start-up.
enum class TCommandLineAction {
  None,
  FileMissing,
  LoadedProject,
  AppendedData,
  NotImported,
  Failed,
  Ignored
};

enum class TApplicationState { NotStarted, Starting, Running, Closing };

/// The application. Static members only: there is one per process.
class TOrvexApplication {
public:
  TOrvexApplication() = delete;

  /// Brings the process up. On any result but Started the caller runs CleanupApplication and ends.
  static TStartResult InitializeApplication(const TOrvexApplicationOptions& options = {});
  /// Takes the process down in the reverse order; the log closes last. Safe after a failed start.
  static void CleanupApplication();

  static void CreateOrvexProject();
  static void CleanUpOrvexProject();
  /// Opens the run's log in the log folder with its head entries; false when it can't be opened.
  static bool CreateGlobalLogFile();
  /// Acts on the command line's file by its extension (upper-cased): ".OXP" loads, ".OXD" appends.
  static TCommandLineAction CheckCommandLineOnStartUp();
  /// Writes an error record to the log and into the main project's system information, and shows it on
  /// the main thread when the workbench set an exception viewer.
  static void OnOrvexException(TOrvexSEHInfo* info);
  /// True when a file can be written to the internal settings folder; with showMessage the user is told
  /// when not.
  static bool CheckInternalSettingsAccess(bool showMessage = true);
  /// True when "HardwareSettings.oxh" lies beside the program (an instrument installation).
  static bool IsHardwareSettingsPresent();

  static TApplicationState State() { return FState; }
  static TProjectActionForm* ActionForm() { return FActionForm.get(); }
  /// The GUID of this run, as the log's "Application Session ID: " line shows it.
  static const std::string& SessionID() { return FSessionID; }
  static const std::string& LastStartError() { return FLastStartError; }
  static bool PresentationMode() { return FPresentationMode; }
  /// The user's project settings file, loaded at start-up.
  static std::string UserProjectSettingsFileName();
  /// "ProgramInfo: Orvex Project <version> (Build <build>)".
  static std::string ProgramInfo();

  /// Shows error records of the running workbench (set by its frame); runs on the main thread.
  static inline std::function<void(TOrvexSEHInfo*)> ExceptionViewer;

private:
  static void Step(const std::string& name);
  static void Note(const std::string& text);
  static void SetMessagingStrategy();
  static void StartMemoryStrategy();
  static void WriteLogHead();

  static inline TApplicationState FState = TApplicationState::NotStarted;
  static inline TOrvexApplicationOptions FOptions;
  static inline std::unique_ptr<TProjectActionForm> FActionForm;
  static inline std::string FSessionID;
  static inline std::string FLastStartError;
  static inline bool FPresentationMode = false;
  /// What happened before the log was open; written into it as soon as it is.
  static inline std::vector<std::string> FEarlyNotes;
  /// What the start brought up, so that shutdown takes down only that.
  static inline bool FMemoryStrategyCreated = false;
  static inline bool FSystemOptionsLoaded = false;
  static inline bool FHandlersInstalled = false;
  static inline bool FRegistered = false;
};
