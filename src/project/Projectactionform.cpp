// Project commands on the main project.
#include "project/Projectactionform.h"

#include "common/Exceptionhandling.h"
#include "common/Logfile.h"
#include "common/Safewrite.h"
#include "common/Standardmessage.h"
#include "common/memory/Memorymanagement.h"
#include "common/threads/Multicorecalc.h"
#include "data/Datafield.h"

#include <algorithm>
#include <filesystem>

namespace {

void Notify(const std::string& text) {
  TMessageProxy::MsgProxySingleton()->IssueMessage(
      TBlockingNotification::CreateAndInit(text, "Error", kSeverityError), true);
}

bool AskYes(const std::string& text, const std::string& caption) {
  return AskUserYesNo(text, caption, kSeverityWarning);
}

// No exception leaves a command: it is logged with its record and the user hears of it.
template <class F>
bool RunCommand(const std::string& command, F&& body) {
  try {
    return body();
  } catch (...) {
    try {
      auto info = CreateOrvexSEHInfoFromCurrentException();
      info->Context = "TProjectActionForm::" + command;
      WriteExceptionToLogFile(info.get());
      Notify(ComposeExceptionWindowText(info.get()));
    } catch (...) {
      // Reporting failed as well; the command still ends with false.
    }
    return false;
  }
}

// Closes a file handle at the end of a scope.
struct TFileCloser {
  TFileHandle File;
  ~TFileCloser() {
    if (File != kInvalidFileHandle) CloseFile(File);
  }
};

} // namespace

// ---------------------------------------------------------------------------------------------
// Remembered folder and recent files

void TRememberFilePath::RememberFile(const std::string& fileName) {
  const std::filesystem::path folder = std::filesystem::path(fileName).parent_path();
  if (!folder.empty()) FPath = folder.string() + "/";
}

void TRecentFileList::Add(const std::string& key, const std::string& fileName) {
  std::vector<std::string>& list = FLists[key];
  std::erase(list, fileName);
  list.insert(list.begin(), fileName);
  if (list.size() > kMaxEntries) list.resize(kMaxEntries);
}

std::vector<std::string> TRecentFileList::Get(const std::string& key) const {
  const auto it = FLists.find(key);
  return it == FLists.end() ? std::vector<std::string>{} : it->second;
}

// ---------------------------------------------------------------------------------------------
// Form

TProjectActionForm::TProjectActionForm() : FProject(std::make_unique<TProject>()) {}

TProjectActionForm::~TProjectActionForm() {
  if (FInstance == this) FInstance = nullptr;
}

void TProjectActionForm::InitModes() {
  if (FProject->GetModeIndex() < 0) FProject->SetModeIndex(0);
}

// ---------------------------------------------------------------------------------------------
// Project files

TTagError TProjectActionForm::LoadProjectInto(TProject& project, const std::string& fileName, bool& opened) {
  TFileCloser file{OpenFileForReading(fileName)};
  opened = file.File != kInvalidFileHandle;
  if (!opened) return teCreateFileForReadError;
  return project.LoadProjectFromTagFile(file.File);
}

bool TProjectActionForm::LoadProject(const std::string& fileName) {
  return RunCommand("LoadProject", [&] {
    FProject->ClearProject();
    if (!CheckProjectDataFileSize(fileName)) return false;
    bool opened = false;
    const TTagError result = LoadProjectInto(*FProject, fileName, opened);
    if (!opened) {
      Notify("Loading Error: Could not open file");
      return false;
    }
    if (result < 1) {
      Notify(FProject->LoadWasCancelled() ? std::string("Loading cancelled")
                                          : "Loading Error: " + GetTagErrorName(result));
      return false;
    }
    FRememberFilePath.RememberFile(fileName);
    FProject->SetFileName(fileName);
    FRecentFiles.Add("OXP", fileName);
    FProject->RepositionViewersAfterLoad();
    return true;
  });
}

bool TProjectActionForm::SaveProjectToFileName(const std::string& fileName, bool showError,
                                               const TProjectSaveOptions& options) {
  // A compatible save writes for older programs on purpose: no warning about them then.
  if (options.Version >= TProject::ThisVersion && !FProject->NewerVersionSaveOK()) return false;
  // The project writes through a temporary file: the previous file survives a failed save.
  const TTagError result = FProject->SaveProjectToFile(fileName, options);
  if (result < 1) {
    if (showError) Notify("There was an error while saving the OXP File.");
    return false;
  }
  FRememberFilePath.RememberFile(fileName);
  FRecentFiles.Add("OXP", fileName);
  return true;
}

bool TProjectActionForm::SaveProject(bool showError) {
  if (FProject->GetFileName().empty()) return SaveProjectAs();
  return RunCommand("SaveProject", [&] { return SaveProjectToFileName(FProject->GetFileName(), showError); });
}

bool TProjectActionForm::SaveProjectAs() {
  std::string fileName = std::filesystem::path(FProject->GetFileName()).filename().string();
  if (!OnAskSaveFileName ||
      !OnAskSaveFileName("Save Project As", kProjectFilter, FRememberFilePath.GetPath(), fileName) ||
      fileName.empty())
    return false;
  return SaveProjectAs(fileName);
}

bool TProjectActionForm::SaveProjectAs(const std::string& fileName) {
  return RunCommand("SaveProjectAs", [&] { return SaveProjectToFileName(fileName, true); });
}

bool TProjectActionForm::SaveProjectAsCompatible(const std::string& fileName) {
  return RunCommand("SaveProjectAsCompatible", [&] {
    return SaveProjectToFileName(fileName, true, TProjectSaveOptions{TProject::kCompatibleVersion});
  });
}

bool TProjectActionForm::CheckAndSaveProject() {
  return RunCommand("CheckAndSaveProject", [&] {
    if (!FProject->GetProjectChanged() || !FProject->EmptyProjectSaveOK()) return true;
    if (!AskYes("Save Project?", "Warning")) return true;
    return SaveProject(true);
  });
}

bool TProjectActionForm::AppendProject(const std::string& fileName) {
  return RunCommand("AppendProject", [&] {
    if (!CheckProjectDataFileSize(fileName)) return false;
    TProject loader;
    bool opened = false;
    const TTagError result = LoadProjectInto(loader, fileName, opened);
    if (!opened) {
      Notify("Loading Error: Could not open file");
      return false;
    }
    // What was read before a failure is appended as well, as a failed load keeps it.
    FProject->AppendProject(loader);
    FProject->RepositionViewersAfterLoad();
    if (result < 1) {
      Notify("Loading Error: " + GetTagErrorName(result));
      return false;
    }
    FRememberFilePath.RememberFile(fileName);
    FRecentFiles.Add("OXP", fileName);
    return true;
  });
}

bool TProjectActionForm::OnProgramClose(const std::string& settingsFileName) {
  const bool result = CheckAndSaveProject();
  if (!settingsFileName.empty()) SaveProjectSettings(settingsFileName, TSaveProjectSettingsKind::Both);
  return result;
}

// ---------------------------------------------------------------------------------------------
// Data files

bool TProjectActionForm::LoadDataList(const std::vector<std::string>& fileNames) {
  bool all = true;
  for (const std::string& fileName : fileNames) all = AppendDataList(fileName) && all;
  return all;
}

bool TProjectActionForm::LoadDataList() {
  std::string fileName;
  if (!OnAskOpenFileName ||
      !OnAskOpenFileName("Load Data", kDataFilter, FRememberFilePath.GetPath(), fileName) || fileName.empty())
    return false;
  return AppendDataList(fileName);
}

bool TProjectActionForm::AppendDataList(const std::string& fileName) {
  return RunCommand("AppendDataList", [&] {
    if (!CheckProjectDataFileSize(fileName)) return false;
    TFileCloser file{OpenFileForReading(fileName)};
    if (file.File == kInvalidFileHandle) {
      Notify("Loading Error: Could not open file");
      return false;
    }
    std::vector<std::unique_ptr<TData>> loaded;
    const TTagError result = FProject->LoadDataListFromTagFile(file.File, loaded);
    for (auto& data : loaded) FProject->AddData(std::move(data));
    if (result < 1) {
      Notify("Loading Error: " + GetTagErrorName(result));
      return false;
    }
    FRememberFilePath.RememberFile(fileName);
    FRecentFiles.Add("OXD", fileName);
    return true;
  });
}

bool TProjectActionForm::SaveDataList(const TIntList& idList, const std::string& fileName) {
  return RunCommand("SaveDataList", [&] {
    // What the objects refer to goes with them, so that the file stands on its own.
    TIntList ids = idList;
    FProject->FillIDListWithDependencies(ids);
    TDataList list = FProject->GetDataListByIDList(ids);
    TTagError result = teUnspecificError;
    try {
      result = FProject->SaveDataListToFile(fileName, list);
    } catch (...) {
      FProject->ReleaseDataList(list);
      throw;
    }
    FProject->ReleaseDataList(list);
    if (result < 1) {
      Notify("There was an error while saving Data !");
      return false;
    }
    FRememberFilePath.RememberFile(fileName);
    FRecentFiles.Add("OXD", fileName);
    return true;
  });
}

bool TProjectActionForm::SaveDataList(const TIntList& idList) {
  std::string fileName;
  if (!OnAskSaveFileName ||
      !OnAskSaveFileName("Save Data", kDataFilter, FRememberFilePath.GetPath(), fileName) || fileName.empty())
    return false;
  return SaveDataList(idList, fileName);
}

// ---------------------------------------------------------------------------------------------
// Settings

bool TProjectActionForm::SaveProjectSettings(const std::string& fileName, TSaveProjectSettingsKind kind) {
  const bool saved = RunCommand("SaveProjectSettings", [&] {
    return WriteFileSafely(fileName, [&](TFileHandle file) {
             TTagError result = teUnspecificError;
             TMCC mcc(
                 "Saving Project Settings",
                 [&](TMCC*, int) { result = FProject->SaveProjectSettingsToTagFile(file, kind); }, 1);
             mcc.StartThreads(1);
             mcc.WaitAndShowProgressOnDelay(100);
             return result;
           }) >= 1;
  });
  if (!saved)
    Notify(
        "Saving Error: Could not save Project Settings. Maybe the directory is missing or not accessible.");
  return saved;
}

bool TProjectActionForm::LoadProjectSettings(const std::string& fileName, TSaveProjectSettingsKind kind) {
  const bool loaded = RunCommand("LoadProjectSettings", [&] {
    TFileCloser file{OpenFileForReading(fileName)};
    return file.File != kInvalidFileHandle && FProject->LoadProjectSettingsFromTagFile(file.File, kind) >= 1;
  });
  if (!loaded)
    Notify("Error while loading Project Settings (LoadKind = " + std::to_string(static_cast<int>(kind)));
  return loaded;
}

// ---------------------------------------------------------------------------------------------
// Sizes

bool TProjectActionForm::CheckProjectDataFileSize(const std::string& fileName) {
  int64_t size = -1;
  {
    TFileCloser file{OpenFileForReading(fileName)};
    if (file.File == kInvalidFileHandle) return true;
    size = FileSize(file.File);
  }
  if (size < 0) return true;
  return TMemoryManagement::IsEnoughMemoryAvailable(size, true, "Paste Data / Loading OXP Data from File",
                                                    false);
}

int64_t TProjectActionForm::GetDataObjectSize(const TData* data) {
  if (!data) return 0;
  const TDataField* field = const_cast<TData*>(data)->GetDataField();
  return field ? field->GetSizeInBytes() : 0;
}

int64_t TProjectActionForm::GetDataObjectSizeByID(int32_t id) {
  TData* data = FProject->LockData(id);
  const int64_t size = GetDataObjectSize(data);
  if (data) FProject->UnlockData(data);
  return size;
}

int64_t TProjectActionForm::GetDataObjectSizeByIDList(const TIntList& idList) {
  int64_t total = 0;
  for (int32_t id : idList) total += GetDataObjectSizeByID(id);
  return total;
}
