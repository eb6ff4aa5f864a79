// orvex config memory: show and change the memory options file; and the start of the memory
// strategy of one command-line run with its per-run overrides.
#include "CliCommon.h"
#include "common/Saveandload.h"
#include "common/memory/Memorymanagement.h"

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvexcli {
namespace {

struct TConfigMemoryOptions {
  std::string File;
  std::vector<std::string> Settings;
  bool Json = false;
};

const char* StrategyName(int strategy) {
  switch (strategy) {
  case 0:
    return "heap";
  case 1:
    return "mmf";
  case 2:
    return "awe";
  default:
    return "unknown";
  }
}

int ParseInteger(const std::string& key, const std::string& value, int low, int high) {
  size_t used = 0;
  long number = 0;
  try {
    number = std::stol(value, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used == 0 || used != value.size() || number < low || number > high)
    throw CliError(kExitFailure, "Bad value for " + key + ": \"" + value + "\" (must be between " +
                                     std::to_string(low) + " and " + std::to_string(high) + ")");
  return int(number);
}

// Applies one key=value to the options in memory. The ranges are those of the options screen.
void ApplySetting(const std::string& setting) {
  const size_t equals = setting.find('=');
  if (equals == std::string::npos || equals == 0)
    throw CliError(kExitUsage, "--set expects key=value, got \"" + setting + "\"");
  const std::string key = setting.substr(0, equals);
  const std::string value = setting.substr(equals + 1);
  if (key == "strategy" || key == "MemoryStrategy") {
    if (value == "heap" || value == "0")
      TMemoryManagement::StrategyToSave = 0;
    else if (value == "mmf" || value == "1")
      TMemoryManagement::StrategyToSave = 1;
    else if (value == "awe" || value == "2")
      TMemoryManagement::StrategyToSave = 2;
    else
      throw CliError(kExitFailure, "Bad value for strategy: \"" + value + "\" (heap, mmf or awe)");
  } else if (key == "file-location" || key == "FileLocation") {
    if (value.empty()) throw CliError(kExitFailure, "The file location must not be empty");
    TMemoryManagement::MemoryMappedFilePath = value;
  } else if (key == "file-size-gb" || key == "FileSizeInGigaBytes") {
    TMemoryManagement::MemoryMappedFileSizeGB = ParseInteger(key, value, 2, 256);
  } else if (key == "map-size-mb" || key == "MapSizeInMegaBytes") {
    TMemoryManagement::MemoryMappedFileMapSizeMB = ParseInteger(key, value, 16, 256);
  } else if (key == "awe-size-gb" || key == "MemorySizeInGigaBytes") {
    TMemoryManagement::AWEMemorySizeGB = ParseInteger(key, value, 2, 256);
  } else if (key == "awe-map-size-mb") {
    TMemoryManagement::AWEMemoryMapSizeMB = ParseInteger(key, value, 16, 256);
  } else {
    throw CliError(kExitUsage, "Unknown memory option \"" + key +
                                   "\" (strategy, file-location, file-size-gb, map-size-mb, awe-size-gb, "
                                   "awe-map-size-mb)");
  }
}

int RunConfigMemory(const TConfigMemoryOptions& options) {
  TMemoryManagement::MemoryOptionsFileName =
      options.File.empty() ? TMemoryManagement::DefaultMemoryOptionsFileName() : options.File;
  const std::string& fileName = TMemoryManagement::MemoryOptionsFileName;
  const bool exists = std::filesystem::exists(fileName);
  TTagError loadResult = teCreateFileForReadError;
  if (exists) {
    loadResult = TMemoryManagement::LoadOptionsFromFile();
    if (loadResult < 1 && loadResult != teTagNotFound)
      throw CliError(kExitUsage, "Loading Error: " + GetTagErrorName(loadResult) + ": " + fileName);
  }
  if (!options.Settings.empty()) {
    for (const std::string& setting : options.Settings) ApplySetting(setting);
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(fileName).parent_path(), error);
    const TTagError saveResult = TMemoryManagement::SaveOptionsToFile();
    if (saveResult < 1)
      throw CliError(kExitFailure, "Saving Error: " + GetTagErrorName(saveResult) + ": " + fileName);
  }

  const std::string folder =
      TMemoryManagement::MemoryMappedFileDirectory(TMemoryManagement::MemoryMappedFilePath);
  const TSystemMemoryStatus status = TMemoryManagement::ReadSystemMemoryStatus();
  // The folder may not exist yet: ask the file system of its nearest existing parent.
  std::filesystem::path probe(folder);
  std::error_code error;
  while (!probe.empty() && !std::filesystem::exists(probe, error) && probe != probe.parent_path())
    probe = probe.parent_path();
  const uint64_t freeDisk = TMemoryManagement::GetFreeDiskBytes(probe.empty() ? "." : probe.string());
  nlohmann::ordered_json out = {{"file", fileName},
                                {"fileExists", exists || !options.Settings.empty()},
                                {"defaults", !exists && options.Settings.empty()},
                                {"MemoryStrategy", TMemoryManagement::StrategyToSave},
                                {"strategy", StrategyName(TMemoryManagement::StrategyToSave)},
                                {"MemoryMappedFile",
                                 {{"FileLocation", TMemoryManagement::MemoryMappedFilePath},
                                  {"FileSizeInGigaBytes", TMemoryManagement::MemoryMappedFileSizeGB},
                                  {"MapSizeInMegaBytes", TMemoryManagement::MemoryMappedFileMapSizeMB}}},
                                {"AddressWindowingExtension",
                                 {{"MemorySizeInGigaBytes", TMemoryManagement::AWEMemorySizeGB},
                                  {"MapSizeInMegaBytes", TMemoryManagement::AWEMemoryMapSizeMB}}},
                                {"temporaryFolder", folder},
                                {"temporaryFolderFreeBytes", freeDisk},
                                {"physicalMemoryBytes", status.TotalPhysical},
                                {"availablePhysicalMemoryBytes", status.AvailablePhysical},
                                {"status", TMemoryManagement::GetMemoryStatusPercentageString()}};
  // The memory-mapped strategy takes its whole file on disk at start, so that a full disk fails then and
  // not as a fault in a later write.
  const uint64_t diskBytes = uint64_t(TMemoryManagement::MemoryMappedFileSizeGB) * (uint64_t(1) << 30);
  out["memoryMappedFileDiskBytes"] = diskBytes;
  if (exists && loadResult < 1) out["loadResult"] = GetTagErrorName(loadResult);
  if (options.Json) {
    std::cout << out.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
    return kExitOk;
  }
  const auto gib = [](uint64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", double(bytes) / double(uint64_t(1) << 30));
    return std::string(text);
  };
  std::cout << "Memory options file: " << fileName
            << (out["defaults"].get<bool>() ? " (not present: defaults shown)" : "") << "\n"
            << "  MemoryStrategy          " << TMemoryManagement::StrategyToSave << " ("
            << StrategyName(TMemoryManagement::StrategyToSave) << ")\n"
            << "  FileLocation            " << TMemoryManagement::MemoryMappedFilePath << "\n"
            << "  FileSizeInGigaBytes     " << TMemoryManagement::MemoryMappedFileSizeGB << "\n"
            << "  MapSizeInMegaBytes      " << TMemoryManagement::MemoryMappedFileMapSizeMB << "\n"
            << "  AWE MemorySizeInGigaBytes " << TMemoryManagement::AWEMemorySizeGB
            << " (not used on Linux)\n"
            << "  AWE MapSizeInMegaBytes  " << TMemoryManagement::AWEMemoryMapSizeMB << "\n"
            << "Temporary files in " << folder << " (" << gib(freeDisk) << " GiB free)\n"
            << "With the mmf strategy a run reserves " << gib(diskBytes) << " GiB of disk there at its start"
            << " (an unnamed file that goes with the process)\n"
            << "Machine: " << gib(status.TotalPhysical) << " GiB memory, " << gib(status.AvailablePhysical)
            << " GiB available; " << TMemoryManagement::GetMemoryStatusPercentageString() << "\n";
  if (exists && loadResult < 1)
    std::cout << "Note: the file is incomplete (" << GetTagErrorName(loadResult) << ")\n";
  return kExitOk;
}

} // namespace

/// Reads the options file (the default one unless MemoryOptionsFileName is set), applies the
/// --memory, --mmf-dir, --mmf-size-gb and --map-size-mb values of this run and creates the
/// strategy. Bad values end the run with a usage error.
void AddConfigCommands(CLI::App& app, CliContext& ctx) {
  auto* config = app.add_subcommand("config", "Show or change the program's settings files");
  config->require_subcommand(1);
  auto options = std::make_shared<TConfigMemoryOptions>();
  auto* memory = config->add_subcommand("memory", "Show the memory options file; --set key=value changes it");
  memory->add_option("--file", options->File, "Options file (default: the user's MemoryOptions.oxh)");
  memory
      ->add_option("--set", options->Settings,
                   "key=value with key strategy (heap|mmf), file-location, file-size-gb (2-256), "
                   "map-size-mb (16-256), awe-size-gb, awe-map-size-mb; takes effect at the next start")
      ->allow_extra_args(false);
  memory->add_flag("--json", options->Json, "Machine-readable output");
  SetCommandAction(
      memory, ctx, [options] { return RunConfigMemory(*options); }, /*withRuntime=*/false);
}

} // namespace orvexcli
