// Automatic save of the main project.
#include "project/Autosaveproject.h"

#include "common/Logfile.h"
#include "common/Standardmessage.h"
#include "common/threads/MainThreadFunction.h"
#include "project/Projectactionform.h"

#include <cstdio>
#include <ctime>
#include <filesystem>

namespace {

// Tells the main frame (and the log) why an automatic save didn't happen.
void Feedback(const std::string& text, const std::string& text2) {
  if (TLogFile* log = GlobalLogFile)
    log->AddLog("TAutoSaveProject: " + text + (text2.empty() ? "" : " " + text2), TLogLevel::Warning);
  TCustomMessageUserFeedback::CreateAndSendNotifyMessage(nullptr, text, 1, 1, text2);
}

std::string DateText(std::chrono::system_clock::time_point when) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[16];
  std::strftime(text, sizeof text, "%Y-%m-%d", &local);
  return text;
}

} // namespace

std::string TAutoSaveProject::DirectoryModeName(TAutoSaveDirectoryMode mode) {
  switch (mode) {
  case TAutoSaveDirectoryMode::NoSubDirectory:
    return "No Sub Directory";
  case TAutoSaveDirectoryMode::SubDirectory:
    return "Sub Directory";
  case TAutoSaveDirectoryMode::Date:
    return "Date";
  case TAutoSaveDirectoryMode::SubDirectoryDate:
    return "Sub Directroy, Date";
  case TAutoSaveDirectoryMode::DateSubDirectory:
    return "Date, Sub Directory";
  }
  return "";
}

std::string TAutoSaveProject::SaveModeName(TAutoSaveSaveMode mode) {
  return mode == TAutoSaveSaveMode::SaveAndClearProject ? "Save and Clear Project" : "Only Save Project";
}

std::string TAutoSaveProject::OverwriteModeName(TAutoSaveOverwriteMode mode) {
  return mode == TAutoSaveOverwriteMode::AddSuffixIfFileExists ? "Add Suffix if File Exists"
                                                               : "Overwrite if File Exists";
}

bool TAutoSaveProject::IsValidName(const std::string& name) {
  return name.find_first_of("\\/:*?\"<>|") == std::string::npos;
}

bool TAutoSaveProject::SetSubDirectory(const std::string& name) {
  if (!IsValidName(name)) return false;
  FSubDirectory = name;
  return true;
}

bool TAutoSaveProject::SetFileName(const std::string& name) {
  if (!IsValidName(name)) return false;
  FFileName = name;
  return true;
}

void TAutoSaveProject::ResetSettings() {
  RootDirectory.clear();
  FSubDirectory = "Orvex User Data";
  FFileName = "Sample";
  FileNumber = 0;
  DirectoryMode = TAutoSaveDirectoryMode::SubDirectory;
  SaveMode = TAutoSaveSaveMode::SaveAndClearProject;
  OverwriteMode = TAutoSaveOverwriteMode::AddSuffixIfFileExists;
  FLastSaveSuccessful = false;
  FLastFileName.clear();
}

std::string TAutoSaveProject::CreateDirName() {
  std::string name = RootDirectory;
  if (name.empty() || name.back() != '/') name += '/';
  const std::string date = DateText(Clock ? Clock() : std::chrono::system_clock::now());
  switch (DirectoryMode) {
  case TAutoSaveDirectoryMode::NoSubDirectory:
    break;
  case TAutoSaveDirectoryMode::SubDirectory:
    name += FSubDirectory + "/";
    break;
  case TAutoSaveDirectoryMode::Date:
    name += date + "/";
    break;
  case TAutoSaveDirectoryMode::SubDirectoryDate:
    name += FSubDirectory + "/" + date + "/";
    break;
  case TAutoSaveDirectoryMode::DateSubDirectory:
    name += date + "/" + FSubDirectory + "/";
    break;
  }
  return name;
}

std::string TAutoSaveProject::CreateFileName(const std::string& suffix) {
  std::string part = suffix;
  if (part.empty()) {
    char number[16];
    std::snprintf(number, sizeof number, "%04d", FileNumber);
    part = number;
  }
  return CreateDirName() + FFileName + "_" + part + ".oxp";
}

std::string TAutoSaveProject::IncrementReplacement(const std::string& fileName) {
  std::error_code error;
  if (!std::filesystem::exists(fileName, error)) return fileName;
  const std::filesystem::path path(fileName);
  const std::string stem = (path.parent_path() / path.stem()).string();
  const std::string extension = path.extension().string();
  for (int index = 1;; ++index) {
    const std::string candidate = stem + "_" + std::to_string(index) + extension;
    if (!std::filesystem::exists(candidate, error)) return candidate;
  }
}

TProjectActionForm* TAutoSaveProject::Form() {
  return ActionForm ? ActionForm : TProjectActionForm::Instance();
}

bool TAutoSaveProject::SaveNextThreadSafe(const std::string& suffix) {
  // The main thread does the save; Send waits for it, so the result is there when it returns.
  TCustomMessageExecuteMainThreadFunction::CreateAndSendMessage(nullptr, [suffix] {
    FSuffix = suffix;
    FLastSaveSuccessful = false;
    SaveNextMainThread();
  });
  return FLastSaveSuccessful;
}

void TAutoSaveProject::SaveNextMainThread() {
  FLastSaveSuccessful = false;
  const std::string suffix = FSuffix;
  FSuffix.clear();
  TProjectActionForm* form = Form();
  std::error_code error;
  if (!form || RootDirectory.empty() || !std::filesystem::is_directory(RootDirectory, error)) {
    Feedback("Root Folder for Auto Save not found.", "");
    return;
  }
  std::string fileName = CreateFileName(suffix);
  const std::filesystem::path folder = std::filesystem::path(fileName).parent_path();
  if (!std::filesystem::is_directory(folder, error)) {
    std::filesystem::create_directories(folder, error);
    if (!std::filesystem::is_directory(folder, error)) {
      Feedback("Could not create Auto Save folder.", "Check Access Rights and Path name");
      return;
    }
  }
  if (OverwriteMode == TAutoSaveOverwriteMode::AddSuffixIfFileExists)
    fileName = IncrementReplacement(fileName);
  FLastFileName = fileName;
  form->Project().SetFileName(fileName);
  FLastSaveSuccessful = form->SaveProject(false);
  ++FileNumber;
  // A project whose save failed is kept, so that nothing is lost.
  if (FLastSaveSuccessful && SaveMode == TAutoSaveSaveMode::SaveAndClearProject)
    form->Project().ClearProject();
}
