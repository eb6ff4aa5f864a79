// The commands of the file menu on the main project: load, save, save as, compatible save, append, data
// files, project settings, the memory check before a load and the question before a project is dropped.
// No widgets: file names come from the caller, or from a file dialog the workbench supplies.
#pragma once

#include "project/Project.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// The folder the user last took a file from or saved a file to (one for the process).
class TRememberFilePath {
public:
  /// Keeps the folder of fileName.
  void RememberFile(const std::string& fileName);
  const std::string& GetPath() const { return FPath; }
  void SetPath(const std::string& path) { FPath = path; }

private:
  std::string FPath;
};

/// Recently used files, newest first, one list per key ("OXP", "OXD").
class TRecentFileList {
public:
  static constexpr size_t kMaxEntries = 10;
  void Add(const std::string& key, const std::string& fileName);
  std::vector<std::string> Get(const std::string& key) const;

private:
  std::map<std::string, std::vector<std::string>> FLists;
};

/// Asks the user for a file name: title, filter ("Orvex Data|*.oxd"), start folder and proposed name come in,
/// the chosen name goes out. False after a cancel.
using TFileDialogFunction = std::function<bool(const std::string& title, const std::string& filter,
                                               const std::string& folder, std::string& fileName)>;

/// Owner of the main project and of the project commands; one for the process while the application runs
/// (Instance), but an ordinary object that tests make on their own. All commands run on the main thread,
/// report failures through the message proxy and let no exception out.
class TProjectActionForm {
public:
  TProjectActionForm();
  ~TProjectActionForm();
  TProjectActionForm(const TProjectActionForm&) = delete;
  TProjectActionForm& operator=(const TProjectActionForm&) = delete;

  /// The process's action form (set by the application); null outside a running application.
  static TProjectActionForm* Instance() { return FInstance; }
  static void SetInstance(TProjectActionForm* form) { FInstance = form; }

  TProject& Project() { return *FProject; }
  TRememberFilePath& RememberFilePath() { return FRememberFilePath; }
  TRecentFileList& RecentFiles() { return FRecentFiles; }

  /// Dialogs of the workbench; unset dialogs answer with a cancel.
  TFileDialogFunction OnAskOpenFileName;
  TFileDialogFunction OnAskSaveFileName;

  /// Sets up the operating mode of the project: a project-only program has the one mode 0.
  void InitModes();

  // --- Project files
  // -----------------------------------------------------------------------------------------

  /// Clears the project and loads fileName into it. False, with the user told, when the file is too large,
  /// can't be opened or fails to load (what was read so far stays).
  bool LoadProject(const std::string& fileName);
  /// Saves under the project's file name, or asks for one (SaveProjectAs) when it has none. The previous
  /// file survives a failed save. With showError a failure is reported.
  bool SaveProject(bool showError);
  /// Asks for a file name through OnAskSaveFileName, then saves as that; false after a cancel.
  bool SaveProjectAs();
  /// Saves as fileName; on success the project takes the name and the file enters the recent list.
  bool SaveProjectAs(const std::string& fileName);
  /// Save as in the file version older programs read (5), then back to the present version.
  bool SaveProjectAsCompatible(const std::string& fileName);
  /// When the project changed since its last save and holds user data (or the user wants it saved anyway),
  /// asks "Save Project?"; Yes saves. Returns false only when the wanted save failed.
  bool CheckAndSaveProject();
  /// Loads fileName into a temporary project and appends its objects and viewers to the main project.
  bool AppendProject(const std::string& fileName);
  /// What happens when the program closes: the question about the project, then the user's project settings
  /// into settingsFileName (none when empty). Returns what CheckAndSaveProject returned.
  bool OnProgramClose(const std::string& settingsFileName);

  // --- Data files
  // --------------------------------------------------------------------------------------------

  /// Appends every data file of the list; true when all loaded.
  bool LoadDataList(const std::vector<std::string>& fileNames);
  /// Asks for data files through OnAskOpenFileName (one name) and appends it.
  bool LoadDataList();
  /// Loads the objects of a data file into the project, renumbered behind its IDs.
  bool AppendDataList(const std::string& fileName);
  /// Saves the objects of idList, with what they refer to, as a data file.
  bool SaveDataList(const TIntList& idList, const std::string& fileName);
  /// The same with the file name from OnAskSaveFileName; false after a cancel.
  bool SaveDataList(const TIntList& idList);

  // --- Settings
  // ----------------------------------------------------------------------------------------------

  /// Writes the project settings (kind as TSaveProjectSettingsKind) on a calculation worker; the previous
  /// file survives a failed save.
  bool SaveProjectSettings(const std::string& fileName, TSaveProjectSettingsKind kind);
  bool LoadProjectSettings(const std::string& fileName, TSaveProjectSettingsKind kind);

  // --- Sizes
  // -------------------------------------------------------------------------------------------------

  /// True when the file would fit in memory, asking or telling the user when it may not; true also when the
  /// file can't be opened, so that the load reports that.
  bool CheckProjectDataFileSize(const std::string& fileName);
  /// Bytes of the object's data field (0 without one).
  static int64_t GetDataObjectSize(const TData* data);
  int64_t GetDataObjectSizeByID(int32_t id);
  int64_t GetDataObjectSizeByIDList(const TIntList& idList);

  /// File filters of the dialogs.
  static constexpr const char* kProjectFilter = "Orvex Project|*.oxp";
  static constexpr const char* kDataFilter = "Orvex Data|*.oxd";

private:
  TTagError LoadProjectInto(TProject& project, const std::string& fileName, bool& opened);
  bool SaveProjectToFileName(const std::string& fileName, bool showError,
                             const TProjectSaveOptions& options = {});

  static inline TProjectActionForm* FInstance = nullptr;
  std::unique_ptr<TProject> FProject;
  TRememberFilePath FRememberFilePath;
  TRecentFileList FRecentFiles;
};
