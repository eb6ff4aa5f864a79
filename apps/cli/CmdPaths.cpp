// orvex paths: the folders and settings files the program uses, as the environment gives them.
#include "CliCommon.h"
#include "common/Safewrite.h"
#include "common/memory/Memorymanagement.h"
#include "project/Orvexapplication.h"
#include "project/Orvexdirectories.h"
#include "project/Systemoptions.h"

#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvexcli {
namespace {

struct TPathsOptions {
  bool Json = false;
  bool All = false;
  bool Clean = false;
  std::vector<std::string> Folders;
};

bool Exists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(path, error);
}

// (name, path) of what a run uses, in the order a user looks for it.
std::vector<std::pair<std::string, std::string>> CollectPaths(bool all) {
  using D = TOrvexDirectories;
  std::vector<std::pair<std::string, std::string>> paths = {
      {"UserRoot", D::User.Root},
      {"CommonRoot", D::Common.Root},
      {"Temp", D::Temp},
      {"Cache", D::Cache},
      {"Runtime", D::Runtime},
      {"ProgramFolder", D::ProgramFolder},
      {"ProgramData", D::ProgramFolder + "ProgramData/"},
      {"ProgramDataCommon", D::ProgramFolder + "ProgramDataCommon/"},
  };
  for (const auto& [name, folder] : D::User.Folders()) paths.emplace_back("User." + name, folder);
  if (all) {
    for (const auto& [name, file] : D::User.Files()) paths.emplace_back("User." + name, file);
    for (const auto& [name, folder] : D::Common.Folders()) paths.emplace_back("Common." + name, folder);
  }
  paths.emplace_back("MemoryOptionsFile", D::User.InternalSettings + "MemoryOptions.oxh");
  paths.emplace_back("SystemOptionsFile", D::User.InternalSettings + "SystemOptions.oxs");
  paths.emplace_back("ProjectSettingsFile", TOrvexApplication::UserProjectSettingsFileName());
  return paths;
}

// The folder of the memory-mapped files as the options file sets it (the cache folder without one).
std::string MemoryMappedFileFolder() {
  TMemoryManagement::MemoryOptionsFileName = TOrvexDirectories::User.InternalSettings + "MemoryOptions.oxh";
  TMemoryManagement::MemoryMappedFilePath = TOrvexDirectories::Cache;
  TMemoryManagement::LoadOptionsFromFile();
  return TMemoryManagement::MemoryMappedFileDirectory(TMemoryManagement::MemoryMappedFilePath);
}

// Removes what killed runs left: temporaries of interrupted saves (in the given folders, or the current
// folder and the program's settings folders) and backing files of the memory-mapped strategy. Files a
// living process is writing are kept.
int RunClean(const TPathsOptions& options) {
  TOrvexDirectories::FormDirectoryStrings();
  std::vector<std::string> folders = options.Folders;
  if (folders.empty()) {
    folders.push_back(".");
    for (const auto& [name, folder] : TOrvexDirectories::User.Folders()) folders.push_back(folder);
  }
  std::vector<std::string> removed;
  for (const auto& folder : folders) {
    std::error_code error;
    if (!options.Folders.empty() && !std::filesystem::is_directory(folder, error))
      throw CliError(kExitUsage, "cannot clean '" + folder + "': not a folder");
    for (auto& name : RemoveStaleTemporaries(folder)) removed.push_back(std::move(name));
  }
  const std::string mmfFolder = MemoryMappedFileFolder();
  const int mmfFiles = Exists(mmfFolder) ? TMemoryManagement::RemoveLeftOverTemporaryFiles(mmfFolder) : 0;
  if (options.Json) {
    std::cout << nlohmann::ordered_json{{"removed", removed}, {"memoryMappedFilesRemoved", mmfFiles}}.dump(
                     2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
              << "\n";
    return kExitOk;
  }
  for (const auto& name : removed) std::cout << "removed: " << name << "\n";
  std::cout << "removed " << removed.size() << " temporar" << (removed.size() == 1 ? "y" : "ies")
            << " of interrupted saves and " << mmfFiles << " memory-mapped file" << (mmfFiles == 1 ? "" : "s")
            << "\n";
  return kExitOk;
}

int RunPaths(const TPathsOptions& options) {
  if (options.Clean) return RunClean(options);
  TOrvexDirectories::FormDirectoryStrings();
  auto paths = CollectPaths(options.All);
  paths.emplace_back("MemoryMappedFiles", MemoryMappedFileFolder());
  if (options.Json) {
    nlohmann::ordered_json out = nlohmann::ordered_json::object();
    for (const auto& [name, path] : paths) out[name] = {{"path", path}, {"exists", Exists(path)}};
    out["Version"] = TOrvexDirectories::Version();
    std::cout << out.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
    return kExitOk;
  }
  size_t width = 0;
  for (const auto& entry : paths) width = std::max(width, entry.first.size());
  for (const auto& [name, path] : paths)
    std::cout << name << std::string(width + 2 - name.size(), ' ') << path
              << (Exists(path) ? "" : "  (missing)") << "\n";
  return kExitOk;
}

} // namespace

void AddPathsCommands(CLI::App& app, CliContext& ctx) {
  auto options = std::make_shared<TPathsOptions>();
  auto* paths =
      app.add_subcommand("paths", "Show the folders and settings files in use (XDG_DATA_HOME, "
                                  "XDG_DATA_DIRS, XDG_CACHE_HOME, XDG_RUNTIME_DIR and TMPDIR move them)");
  paths->add_flag("--json", options->Json, "Machine-readable output");
  paths->add_flag("--all", options->All, "Include the instrument files and the common sub-folders");
  paths->add_flag(
      "--clean", options->Clean,
      "Remove what killed runs left: temporaries of interrupted saves (in FOLDER..., or the current "
      "folder and the settings folders) and memory-mapped files; those of living runs stay");
  paths->add_option("FOLDER", options->Folders, "Folders to clean (with --clean)");
  SetCommandAction(
      paths, ctx, [options] { return RunPaths(*options); }, /*withRuntime=*/false);
}

} // namespace orvexcli
