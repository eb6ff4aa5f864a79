// Automatic numbered saves of the main project into a folder tree below a root: by sub directory, by the
// date of the save, or both; the caller may ask from any thread, the save itself runs on the main thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

class TProjectActionForm;

enum class TAutoSaveDirectoryMode : int32_t {
  NoSubDirectory = 0,
  SubDirectory = 1,
  Date = 2,
  SubDirectoryDate = 3,
  DateSubDirectory = 4,
};
enum class TAutoSaveSaveMode : int32_t { SaveAndClearProject = 0, OnlySaveProject = 1 };
enum class TAutoSaveOverwriteMode : int32_t { AddSuffixIfFileExists = 0, OverwriteIfFileExists = 1 };

/// The automatic save. Static members only; the settings belong to the process.
class TAutoSaveProject {
public:
  TAutoSaveProject() = delete;

  /// The names the settings show, by value.
  static std::string DirectoryModeName(TAutoSaveDirectoryMode mode);
  static std::string SaveModeName(TAutoSaveSaveMode mode);
  static std::string OverwriteModeName(TAutoSaveOverwriteMode mode);

  ///@{ Settings.
  static inline std::string RootDirectory;
  static inline int32_t FileNumber = 0;
  static inline TAutoSaveDirectoryMode DirectoryMode = TAutoSaveDirectoryMode::SubDirectory;
  static inline TAutoSaveSaveMode SaveMode = TAutoSaveSaveMode::SaveAndClearProject;
  static inline TAutoSaveOverwriteMode OverwriteMode = TAutoSaveOverwriteMode::AddSuffixIfFileExists;
  static const std::string& GetSubDirectory() { return FSubDirectory; }
  static const std::string& GetFileName() { return FFileName; }
  /// False (and nothing changes) for a name holding one of \ / : * ? " < > |.
  static bool SetSubDirectory(const std::string& name);
  static bool SetFileName(const std::string& name);
  /// Back to the defaults ("Orvex User Data", "Sample", number 0, modes 1, 0, 0; no root).
  static void ResetSettings();
  ///@}

  /// True when name holds none of the characters a folder or file name may not have.
  static bool IsValidName(const std::string& name);

  /// The clock whose local day names the date folders; the system clock unless set (tests).
  static inline std::function<std::chrono::system_clock::time_point()> Clock;
  /// The action form whose project is saved; the application's unless set.
  static inline TProjectActionForm* ActionForm = nullptr;

  /// Root with separator, then the folders of the directory mode, ending in a separator.
  static std::string CreateDirName();
  /// Folder, file name, "_", the suffix or else the file number with four digits, ".oxp".
  static std::string CreateFileName(const std::string& suffix);
  /// fileName, or the first of "<name>_1.oxp", "<name>_2.oxp", ... that doesn't exist.
  static std::string IncrementReplacement(const std::string& fileName);

  /// From any thread: saves the next file on the main thread and returns whether that worked.
  static bool SaveNextThreadSafe(const std::string& suffix);
  /// The save itself (main thread).
  static void SaveNextMainThread();
  static bool LastSaveSuccessful() { return FLastSaveSuccessful; }
  /// Name of the file of the last save attempt ("" before the first).
  static const std::string& LastFileName() { return FLastFileName; }

private:
  static TProjectActionForm* Form();
  static inline std::string FSubDirectory = "Orvex User Data";
  static inline std::string FFileName = "Sample";
  static inline std::string FSuffix;
  static inline bool FLastSaveSuccessful = false;
  static inline std::string FLastFileName;
};
