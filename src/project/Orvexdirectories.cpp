// The program's folders below the XDG roots, their creation, and the hand-over of installation defaults.
#include "project/Orvexdirectories.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>

#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::string EnvironmentOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value && *value ? std::string(value) : fallback;
}

std::string HomeFolder() {
  return EnvironmentOr("HOME", "/tmp");
}

// The first entry of $XDG_DATA_DIRS that holds an "orvex" folder; else the first entry; else
// /usr/local/share.
std::string CommonDataBase() {
  const std::string dirs = EnvironmentOr("XDG_DATA_DIRS", "");
  std::vector<std::string> entries;
  std::stringstream stream(dirs);
  for (std::string entry; std::getline(stream, entry, ':');)
    if (!entry.empty()) entries.push_back(TOrvexDirectories::WithSeparator(entry));
  std::error_code error;
  for (const std::string& entry : entries)
    if (fs::is_directory(entry + "orvex", error)) return entry;
  return "/usr/local/share/";
}

// Member, entry name, relative path: the table of fixed sub-folders.
struct TFolderEntry {
  std::string TOrvexDirectorySet::*Member;
  const char* Name;
  const char* Path;
};

const std::vector<TFolderEntry>& FolderTable() {
  using S = TOrvexDirectorySet;
  static const std::vector<TFolderEntry> table = {
      {&S::Help, "Help", "Help/"},
      {&S::Log, "Log", "Log/"},
      {&S::InternalSettings, "InternalSettings", "InternalSettings/"},
      {&S::UserFitFunctions, "UserFitFunctions", "UserFitFunctions/"},
      {&S::UserImageFilters, "UserImageFilters", "UserImageFilters/"},
      {&S::UserQuickFilters, "UserQuickFilters", "UserQuickFilters/"},
      {&S::UserWindowPositioning, "UserWindowPositioning", "UserWindowPositioning/"},
      {&S::ExportFilterSettings, "ExportFilterSettings", "ExportFilterSettings/"},
      {&S::UserCoordinateSystems, "UserCoordinateSystems", "UserCoordinateSystems/"},
      {&S::UserConfigurations, "UserConfigurations", "UserConfigurations/"},
      {&S::UserPointCollections, "UserPointCollections", "UserPointCollections/"},
      {&S::PointViewerBackgrounds, "PointViewerBackgrounds", "PointViewerBackgrounds/"},
      {&S::UserLithography, "UserLithography", "UserLithography/"},
      {&S::DefinitionsSpectrograph, "DefinitionsSpectrograph", "Definitions/Spectrograph/"},
      {&S::CCSCalibrations, "CCSCalibrations", "CCSCalibrations/"},
      {&S::ScantableLoadProfiles, "ScantableLoadProfiles", "ScantableLoadProfiles/"},
      {&S::HardwareSettings, "HardwareSettings", "HardwareSettings/"},
  };
  return table;
}

const std::vector<TFolderEntry>& FileTable() {
  using S = TOrvexDirectorySet;
  static const std::vector<TFolderEntry> table = {
      {&S::UserFitFunctionsFile, "UserFitFunctionsFile", "UserFitFunctions/UserFitFunctions.oxs"},
      {&S::IFC2451IPFile, "IFC2451IPFile", "IFC2451_IP.txt"},
      {&S::CCSCorrectionFactorsFile, "CCSCorrectionFactorsFile", "CCSCorrectionFactors.txt"},
      {&S::CCSCalibrationFile, "CCSCalibrationFile", "CCSCalibrationFile.txt"},
      {&S::RemoteControlCalibrationFile, "RemoteControlCalibrationFile", "RemoteControlCalibration.oxh"},
      {&S::InvertedMicroscopeCalibrationFile, "InvertedMicroscopeCalibrationFile",
       "InvertedMicroscopeCalibration.oxh"},
      {&S::SamplePositioningCalibrationFile, "SamplePositioningCalibrationFile",
       "SamplePositioningCalibration.oxh"},
      {&S::InertialDriveCalibrationFile, "InertialDriveCalibrationFile", "InertialDriveCalibration.oxh"},
      {&S::MicroscopeZPositionFile, "MicroscopeZPositionFile", "MicroscopeZPosition.oxh"},
      {&S::VideoCalibrationFile, "VideoCalibrationFile", "VideoCalibration.oxh"},
  };
  return table;
}

// The presets a new user receives from the common data when they have none of their own.
const std::vector<std::string TOrvexDirectorySet::*>& UserDefaultFolders() {
  using S = TOrvexDirectorySet;
  static const std::vector<std::string S::*> folders = {&S::UserFitFunctions, &S::UserImageFilters,
                                                        &S::UserQuickFilters, &S::ExportFilterSettings};
  return folders;
}

bool CreateFolder(const std::string& folder, std::vector<std::string>& notes) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (fs::is_directory(folder, error)) return true;
  notes.push_back("Could not create folder \"" + folder + "\"" + (error ? ": " + error.message() : ""));
  return false;
}

} // namespace

std::string TOrvexDirectories::WithSeparator(const std::string& path) {
  std::string result = path;
  while (result.size() > 1 && result.back() == '/') result.pop_back();
  if (result != "/") result += '/';
  return result;
}

std::string TOrvexDirectories::Version() {
#ifdef ORVEX_VERSION_STRING
  return ORVEX_VERSION_STRING;
#else
  return "0.0.0";
#endif
}

std::string TOrvexDirectories::ExecutableFolder() {
  std::error_code error;
  const fs::path executable = fs::read_symlink("/proc/self/exe", error);
  if (error || executable.empty()) return "./";
  return WithSeparator(executable.parent_path().string());
}

void TOrvexDirectorySet::Form(const std::string& root) {
  Root = TOrvexDirectories::WithSeparator(root);
  for (const TFolderEntry& entry : FolderTable()) this->*entry.Member = Root + entry.Path;
  for (const TFolderEntry& entry : FileTable()) this->*entry.Member = Root + entry.Path;
}

std::vector<std::pair<std::string, std::string>> TOrvexDirectorySet::Folders() const {
  std::vector<std::pair<std::string, std::string>> result;
  for (const TFolderEntry& entry : FolderTable()) result.emplace_back(entry.Name, this->*entry.Member);
  return result;
}

std::vector<std::pair<std::string, std::string>> TOrvexDirectorySet::Files() const {
  std::vector<std::pair<std::string, std::string>> result;
  for (const TFolderEntry& entry : FileTable()) result.emplace_back(entry.Name, this->*entry.Member);
  return result;
}

void TOrvexDirectories::FormDirectoryStrings(const TOrvexDirectoryRoots& roots) {
  const std::string base = roots.Base.empty() ? "" : WithSeparator(roots.Base);
  const auto pick = [&](const std::string& given, const char* below, const std::string& fromEnvironment) {
    if (!given.empty()) return WithSeparator(given);
    if (!base.empty()) return base + below;
    return fromEnvironment;
  };
  const std::string home = HomeFolder();
  User.Form(
      pick(roots.UserRoot, "data/", EnvironmentOr("XDG_DATA_HOME", home + "/.local/share") + "/orvex/"));
  Common.Form(pick(roots.CommonRoot, "common/", CommonDataBase() + "orvex/Common Data/"));
  Temp = pick(roots.TempRoot, "tmp/", WithSeparator(EnvironmentOr("TMPDIR", "/tmp")) + "Orvex/");
  Cache = pick(roots.CacheRoot, "cache/", EnvironmentOr("XDG_CACHE_HOME", home + "/.cache") + "/orvex/");
  Runtime = pick(roots.RuntimeRoot, "run/", WithSeparator(EnvironmentOr("XDG_RUNTIME_DIR", Temp)));
  ProgramFolder = roots.ProgramFolder.empty() ? ExecutableFolder() : WithSeparator(roots.ProgramFolder);
  FFormed = true;
}

void TOrvexDirectories::InitializeOrvexDirectories(const TOrvexDirectoryRoots& roots,
                                                   bool emptyTemporaryFolder,
                                                   std::vector<std::string>& notes) {
  FormDirectoryStrings(roots);
  std::error_code error;
  // An installation hands its defaults to a new user; files the user changed since stay untouched.
  const std::pair<const char*, std::string> handOvers[] = {{"ProgramData", User.Root},
                                                           {"ProgramDataCommon", Common.Root}};
  for (const auto& [name, target] : handOvers) {
    const std::string source = ProgramFolder + name;
    if (!fs::is_directory(source, error)) continue;
    const int copied = UpdateTree(source, target, notes);
    notes.push_back("Copied " + std::to_string(copied < 0 ? 0 : copied) + " default file(s) from \"" +
                    source + "\" to \"" + target + "\"");
  }
  ForceCreateAllOrvexDirectories(notes);
  if (emptyTemporaryFolder && !DeleteTreeContents(Temp))
    notes.push_back("Could not empty the temporary folder \"" + Temp + "\"");
}

void TOrvexDirectories::CopyUserDefaults(std::vector<std::string>& notes) {
  std::error_code error;
  for (auto member : UserDefaultFolders()) {
    const fs::path source = Common.*member;
    if (!fs::is_directory(source, error)) continue;
    for (fs::recursive_directory_iterator it(source, error), end; !error && it != end; it.increment(error)) {
      if (!it->is_regular_file(error)) continue;
      const fs::path target = fs::path(User.*member) / fs::relative(it->path(), source, error);
      if (fs::exists(target, error)) continue;
      fs::create_directories(target.parent_path(), error);
      if (!fs::copy_file(it->path(), target, error))
        notes.push_back("Could not copy \"" + it->path().string() + "\" to \"" + target.string() + "\"");
    }
  }
}

bool TOrvexDirectories::ForceCreateAllOrvexDirectories(std::vector<std::string>& notes) {
  bool userComplete = CreateFolder(User.Root, notes);
  for (const auto& [name, folder] : User.Folders())
    userComplete = CreateFolder(folder, notes) && userComplete;
  if (CreateFolder(Common.Root, notes))
    for (const auto& [name, folder] : Common.Folders()) CreateFolder(folder, notes);
  CreateFolder(Temp, notes);
  CreateFolder(Cache, notes);
  return userComplete;
}

int TOrvexDirectories::UpdateTree(const std::string& source, const std::string& target,
                                  std::vector<std::string>& notes) {
  std::error_code error;
  if (!fs::is_directory(source, error)) return -1;
  int copied = 0;
  for (fs::recursive_directory_iterator it(source, error), end; !error && it != end; it.increment(error)) {
    const fs::path relative = fs::relative(it->path(), source, error);
    const fs::path destination = fs::path(target) / relative;
    std::error_code itemError;
    if (it->is_directory(itemError)) {
      fs::create_directories(destination, itemError);
      continue;
    }
    if (!it->is_regular_file(itemError)) continue;
    if (fs::exists(destination, itemError) &&
        fs::last_write_time(destination, itemError) >= fs::last_write_time(it->path(), itemError))
      continue;
    fs::create_directories(destination.parent_path(), itemError);
    if (fs::copy_file(it->path(), destination, fs::copy_options::overwrite_existing, itemError))
      ++copied;
    else
      notes.push_back("Could not copy \"" + it->path().string() + "\" to \"" + destination.string() + "\"" +
                      (itemError ? ": " + itemError.message() : ""));
  }
  if (error) notes.push_back("Could not read \"" + source + "\": " + error.message());
  return copied;
}

bool TOrvexDirectories::DeleteTreeContents(const std::string& folder) {
  std::error_code error;
  if (!fs::is_directory(folder, error)) return true;
  bool complete = true;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    std::error_code itemError;
    fs::remove_all(it->path(), itemError);
    complete = complete && !itemError;
  }
  return complete && !error;
}
