// The process-wide memory strategy: options file, creation with fall-back, free-memory figures.
#include "common/memory/Memorymanagement.h"

#include "common/Safewrite.h"
#include "common/Standardmessage.h"
#include "common/Tagcontrol.h"
#include "common/memory/Memorystrategyheap.h"
#include "common/memory/Memorystrategymmf.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr const char* kOptionsIdentification = "ORX_HDSE";
constexpr uint64_t kGigaByte = uint64_t(1) << 30;

// Values of the command line for this run; they never reach the options file.
struct TRunOverride {
  bool HasPath = false;
  std::string Path;
  double FileSizeGB = 0;
  double MapSizeMB = 0;
};
TRunOverride& RunOverride() {
  static TRunOverride values;
  return values;
}

std::string EnvironmentOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value && *value ? std::string(value) : fallback;
}

std::string HomeDirectory() {
  return EnvironmentOr("HOME", "/tmp");
}

void ShowPlainMessage(const std::string& text, const std::string& caption) {
  if (TMemoryManagement::PlainMessageHandler) {
    TMemoryManagement::PlainMessageHandler(text, caption);
    return;
  }
  std::fprintf(stderr, "%s\n%s\n", caption.c_str(), text.c_str());
}

// Reads "Key:   value kB" lines of /proc/meminfo; bytes, or 0 when missing.
uint64_t MemInfoValue(const std::string& content, const std::string& key) {
  const size_t at = content.find("\n" + key + ":");
  const size_t start = content.compare(0, key.size() + 1, key + ":") == 0 ? 0 : at;
  if (start == std::string::npos) return 0;
  std::istringstream line(content.substr(start + (start == 0 ? 0 : 1) + key.size() + 1, 64));
  uint64_t value = 0;
  line >> value;
  return value * 1024;
}

std::string ReadWholeFile(const char* name) {
  std::ifstream file(name);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

bool StrategyIsHeapLike() {
  return TMemoryManagement::CurrentStrategy == 0 || !TMemoryManagement::PartialMemoryAllocator;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Locations

std::string TMemoryManagement::MemoryMappedFilePath = TMemoryManagement::DefaultMemoryMappedFilePath();

std::string TMemoryManagement::DefaultMemoryMappedFilePath() {
  return EnvironmentOr("XDG_CACHE_HOME", HomeDirectory() + "/.cache") + "/orvex/";
}

std::string TMemoryManagement::DefaultMemoryOptionsFileName() {
  return EnvironmentOr("XDG_DATA_HOME", HomeDirectory() + "/.local/share") +
         "/orvex/InternalSettings/MemoryOptions.oxh";
}

std::string TMemoryManagement::MemoryMappedFileDirectory(const std::string& path) {
  std::string directory = path;
  if (directory.empty() || directory.back() != '/') directory += '/';
  return directory + "OrvexMMF/";
}

int TMemoryManagement::RemoveLeftOverTemporaryFiles(const std::string& directory) {
  namespace fs = std::filesystem;
  int removed = 0;
  std::error_code error;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
    const fs::path& name = it->path();
    if (name.extension() != ".tmp" || it->is_directory(error)) continue;
    // A file that a running process holds is not left over: its owner keeps an exclusive lock.
    const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd >= 0) {
      const bool inUse = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
      ::close(fd);
      if (inUse) continue;
    }
    if (::unlink(name.c_str()) == 0) ++removed;
  }
  return removed;
}

// ---------------------------------------------------------------------------------------------
// Options file

int TMemoryManagement::SaveOptionsToFile() {
  return WriteFileSafely(MemoryOptionsFileName, [](TFileHandle file) {
    TTagControl root;
    TTagControl mmf;
    TTagControl awe;
    TTagControl value;
    TTagError result = SaveIdentificationToFile(file, kOptionsIdentification);
    if (result >= 1) result = root.WriteTag(file, "MemoryOptions", TTagKind::TagList);
    if (result >= 1) result = value.SaveIntTag(file, "MemoryStrategy", int32_t(StrategyToSave));
    if (result >= 1) result = mmf.WriteTag(file, "MemoryMappedFile", TTagKind::TagList);
    if (result >= 1) result = value.SaveAnsiStringTag(file, "FileLocation", MemoryMappedFilePath);
    if (result >= 1) result = value.SaveIntTag(file, "FileSizeInGigaBytes", int32_t(MemoryMappedFileSizeGB));
    if (result >= 1)
      result = value.SaveIntTag(file, "MapSizeInMegaBytes", int32_t(MemoryMappedFileMapSizeMB));
    if (result >= 1) result = mmf.CloseWriteTag(file);
    if (result >= 1) result = awe.WriteTag(file, "AddressWindowingExtension", TTagKind::TagList);
    if (result >= 1) result = value.SaveIntTag(file, "MemorySizeInGigaBytes", int32_t(AWEMemorySizeGB));
    if (result >= 1) result = value.SaveIntTag(file, "MapSizeInMegaBytes", int32_t(AWEMemoryMapSizeMB));
    if (result >= 1) result = awe.CloseWriteTag(file);
    if (result >= 1) result = root.CloseWriteTag(file);
    return result;
  });
}

int TMemoryManagement::LoadOptionsFromFile() {
  TFileHandle file = kInvalidFileHandle;
  TTagControl root;
  TTagError result = OpenTagFileForReading(MemoryOptionsFileName, {kOptionsIdentification}, file, root);
  if (result < 1) return result;
  TTagControl mmf;
  TTagControl awe;
  TTagControl value;
  int32_t number = 0;
  std::string text;
  // Each value is taken as soon as it is read; the first failing read ends the load.
  result = value.LoadIntTag(file, "MemoryStrategy", root, &number);
  if (result >= 1) {
    CurrentStrategy = number;
    StrategyToSave = CurrentStrategy;
    result = mmf.FindTag(file, "MemoryMappedFile", root);
  }
  if (result >= 1) result = value.LoadAnsiStringTag(file, "FileLocation", mmf, text);
  if (result >= 1) {
    MemoryMappedFilePath = text;
    result = value.LoadIntTag(file, "FileSizeInGigaBytes", mmf, &number);
  }
  if (result >= 1) {
    MemoryMappedFileSizeGB = number;
    result = value.LoadIntTag(file, "MapSizeInMegaBytes", mmf, &number);
  }
  if (result >= 1) {
    MemoryMappedFileMapSizeMB = number;
    result = awe.FindTag(file, "AddressWindowingExtension", root);
  }
  if (result >= 1) result = value.LoadIntTag(file, "MemorySizeInGigaBytes", awe, &number);
  if (result >= 1) {
    AWEMemorySizeGB = number;
    result = value.LoadIntTag(file, "MapSizeInMegaBytes", awe, &number);
  }
  if (result >= 1) AWEMemoryMapSizeMB = number;
  CloseFile(file);
  return result;
}

// ---------------------------------------------------------------------------------------------
// Strategy

std::string TMemoryManagement::ApplyOptionsOverride(const TMemoryOptionsOverride& values) {
  if (!values.Strategy.empty() && values.Strategy != "heap" && values.Strategy != "mmf")
    return "Unknown memory strategy \"" + values.Strategy + "\" (heap or mmf)";
  if (!(values.FileSizeGB >= 0) || values.FileSizeGB > 1024 * 1024)
    return "The size of the memory-mapped file must be a positive number of GB";
  if (!(values.MapSizeMB >= 0) || values.MapSizeMB >= 4096)
    return "The map size must be a positive number of MB below 4096";
  TRunOverride& run = RunOverride();
  if (!values.Strategy.empty()) CurrentStrategy = values.Strategy == "mmf" ? 1 : 0;
  if (!values.MemoryMappedFilePath.empty()) {
    run.HasPath = true;
    run.Path = values.MemoryMappedFilePath;
  }
  if (values.FileSizeGB > 0) run.FileSizeGB = values.FileSizeGB;
  if (values.MapSizeMB > 0) run.MapSizeMB = values.MapSizeMB;
  return "";
}

void TMemoryManagement::ClearOptionsOverride() {
  RunOverride() = TRunOverride{};
}

uint64_t TMemoryManagement::HeapStrategyLimitInBytes() {
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long pageSize = ::sysconf(_SC_PAGESIZE);
  if (pages <= 0 || pageSize <= 0) return uint64_t(2) * kGigaByte;
  return uint64_t(pages) * uint64_t(pageSize);
}

void TMemoryManagement::CreateMemoryStrategy() {
  std::string errorText;
  bool success = false;
  TRunOverride& run = RunOverride();

  if (CurrentStrategy == 1) {
    std::string& path = run.HasPath ? run.Path : MemoryMappedFilePath;
    if (path.empty() || path.back() != '/') path += '/';
    const std::string directory = MemoryMappedFileDirectory(path);
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (!std::filesystem::is_directory(directory, error)) {
      errorText = "Path does not exist: " + directory;
    } else {
      // Files left by a run that crashed go first.
      RemoveLeftOverTemporaryFiles(directory);
      TPartialMemoryMMFConfiguration configuration;
      const double fileBytes = run.FileSizeGB > 0 ? run.FileSizeGB * double(kGigaByte)
                                                  : double(MemoryMappedFileSizeGB) * double(kGigaByte);
      const double mapBytes = run.MapSizeMB > 0 ? run.MapSizeMB * 1048576.0
                                                : double(uint64_t(uint32_t(MemoryMappedFileMapSizeMB)) << 20);
      configuration.FileSizeInBytes = fileBytes > 0 ? uint64_t(fileBytes) : 0;
      configuration.MapSizeInBytes = mapBytes > 0 && mapBytes < 4294967296.0 ? uint32_t(mapBytes) : 0;
      configuration.Directory = directory.c_str();
      configuration.DirectoryLength = uint32_t(directory.size());
      auto* allocator = new TPartialMemoryFromMMFAllocator();
      if (allocator->Initialize(&configuration)) {
        PartialMemoryAllocator = allocator;
        success = true;
      } else {
        delete allocator;
        errorText = "Initializing memory strategy MMF did not work.\nMaybe not enough disk space on \"" +
                    directory + "\"";
      }
    }
  } else if (CurrentStrategy == 2) {
    // The address windowing strategy has no counterpart on Linux: it fails like a strategy
    // whose initialisation did not work.
    errorText = "Initializing memory strategy AWE did not work.";
  } else if (CurrentStrategy != 0) {
    errorText = "Unkown memory strategy: \nFilename: " + MemoryOptionsFileName;
  }

  if (!errorText.empty())
    ShowPlainMessage(
        "Could not create wanted memory strategy. Using default strategy (<2GBytes).\n\nError:\n" + errorText,
        "Memory Strategy Error");

  if (!success) {
    // A 64-bit process is not bound to 2 GB: the heap strategy may use the machine's memory.
    TPartialMemoryHeapConfiguration configuration;
    configuration.LimitInBytes = HeapStrategyLimitInBytes();
    auto* allocator = new TPartialMemoryFromHeapAllocator();
    if (!allocator->Initialize(&configuration)) {
      delete allocator;
      ShowPlainMessage("Could not create standard memory strategy.\nProgram will shut down.", "Fatal Error");
      if (FatalExitHandler)
        FatalExitHandler(0);
      else
        std::exit(0);
      return;
    }
    PartialMemoryAllocator = allocator;
    CurrentStrategy = 0;
  }
}

void TMemoryManagement::DestroyMemoryStrategy() {
  delete PartialMemoryAllocator;
  PartialMemoryAllocator = nullptr;
}

// ---------------------------------------------------------------------------------------------
// Free memory

TSystemMemoryStatus TMemoryManagement::ReadSystemMemoryStatus() {
  TSystemMemoryStatus status;
  const std::string memInfo = ReadWholeFile("/proc/meminfo");
  status.TotalPhysical = MemInfoValue(memInfo, "MemTotal");
  status.AvailablePhysical = MemInfoValue(memInfo, "MemAvailable");
  if (status.TotalPhysical == 0) status.TotalPhysical = HeapStrategyLimitInBytes();
  status.TotalPageFile = status.TotalPhysical + MemInfoValue(memInfo, "SwapTotal");
  status.AvailablePageFile = status.AvailablePhysical + MemInfoValue(memInfo, "SwapFree");
  status.TotalAddressSpace = TPartialMemoryFromHeapAllocator::ApplicationAddressSpan();
  const uint64_t used = MemInfoValue(ReadWholeFile("/proc/self/status"), "VmSize");
  status.AvailableAddressSpace = used < status.TotalAddressSpace ? status.TotalAddressSpace - used : 0;
  return status;
}

uint64_t TMemoryManagement::GetFreeDiskBytes(const std::string& path) {
  struct statvfs info {};
  if (::statvfs(path.c_str(), &info) != 0) return 0;
  return uint64_t(info.f_bavail) * uint64_t(info.f_frsize);
}

int64_t TMemoryManagement::GetAvailableMemoryInBytes(bool ignoreStrategy) {
  if (!ignoreStrategy && !StrategyIsHeapLike()) {
    uint32_t totalPages = 0, freePages = 0, pageSize = 0;
    PartialMemoryAllocator->GetMemoryStatus(totalPages, freePages, pageSize);
    uint64_t available = uint64_t(freePages) * pageSize;
    // A file whose space could not be reserved can only grow into what the disk still has.
    if (auto* mmf = dynamic_cast<TPartialMemoryFromMMFAllocator*>(PartialMemoryAllocator)) {
      TPartialMMFMemory* memory = mmf->Memory();
      if (memory && memory->BackedByDiskFile() && !memory->DiskSpaceReserved())
        available =
            std::min(available, GetFreeDiskBytes(std::filesystem::path(memory->FileName())
                                                     .parent_path()
                                                     .string())); // the file itself has left its folder
    }
    return int64_t(available);
  }
  const TSystemMemoryStatus status = ReadSystemMemoryStatus();
  return int64_t(std::min(status.AvailableAddressSpace, status.AvailablePageFile));
}

bool TMemoryManagement::IsEnoughMemoryAvailable(int64_t bytesNeeded, bool showMessage,
                                                const std::string& additionalInfo, bool ignoreStrategy) {
  const int64_t available = GetAvailableMemoryInBytes(ignoreStrategy);
  const double factor = available < 104857600 ? 3.0 : 1.5;
  if (double(available) > double(bytesNeeded) * factor) return true;
  if (!showMessage) return false;

  std::string figures = "Memory needed: " + std::to_string(bytesNeeded / 1024 / 1024) +
                        " MB - Available Memory: " + std::to_string(available / 1024 / 1024) + " MB\n\n";
  if (!additionalInfo.empty()) figures += "Additional Info: " + additionalInfo + "\n\n";
  TMessageProxy* proxy = TMessageProxy::MsgProxySingleton();
  if (bytesNeeded > available) {
    proxy->IssueMessage(TBlockingNotification::CreateAndInit(
                            "Sorry, but there is not enough memory available for this action\n\n" + figures,
                            "Not enough memory", kSeverityError),
                        true);
    return false;
  }
  IStandardMessageReply* reply = proxy->IssueMessage(
      TBlockingMultipleChoiceMessage::CreateAndInit_YesNo(
          "WARNING: You're about to append data that could lead to memory allocation problems:\n\n" +
              figures +
              "If you run into this problem more often,\ncheck the Orvex memory options:\n(Menu -> Options "
              "-> "
              "Memory Options)\n\nDo you really want to continue? (Save your data first!)",
          "WARNING: Memory Problem", kSeverityError, kProgressionInterrupt),
      false);
  if (!reply) return false;
  const bool yes = reply->GetAnswer().first == kAnswerYes;
  delete reply;
  return yes;
}

void TMemoryManagement::GetMemoryStatusPercentage(int& physical, int& pageFile, int& addressSpace) {
  uint64_t freeAddressSpace, freePageFile, freePhysical;
  GetMemoryStatusPercentage(physical, pageFile, addressSpace, freeAddressSpace, freePageFile, freePhysical);
}

void TMemoryManagement::GetMemoryStatusPercentage(int& physical, int& pageFile, int& addressSpace,
                                                  uint64_t& freeAddressSpace, uint64_t& freePageFile,
                                                  uint64_t& freePhysical) {
  const TSystemMemoryStatus status = ReadSystemMemoryStatus();
  auto percent = [](uint64_t available, uint64_t total) {
    return total == 0 ? 0 : int(double(available) / double(total) * 100.0);
  };
  physical = percent(status.AvailablePhysical, status.TotalPhysical);
  pageFile = percent(status.AvailablePageFile, status.TotalPageFile);
  addressSpace = percent(status.AvailableAddressSpace, status.TotalAddressSpace);
  freeAddressSpace = status.AvailableAddressSpace;
  freePageFile = status.AvailablePageFile;
  freePhysical = status.AvailablePhysical;
}

double TMemoryManagement::GetAvailableExtendedMemoryInPercent() {
  if (StrategyIsHeapLike()) return 0;
  uint32_t totalPages = 0, freePages = 0, pageSize = 0;
  PartialMemoryAllocator->GetMemoryStatus(totalPages, freePages, pageSize);
  return totalPages == 0 ? 0 : double(freePages) * 100.0 / double(totalPages);
}

std::string TMemoryManagement::GetMemoryStatusPercentageString() {
  int physical = 0, pageFile = 0, addressSpace = 0;
  GetMemoryStatusPercentage(physical, pageFile, addressSpace);
  std::string text = "PM: " + std::to_string(physical) + "% - PF: " + std::to_string(pageFile) +
                     "% - AS: " + std::to_string(addressSpace) + "%";
  if (!StrategyIsHeapLike())
    text += " - EM: " + std::to_string(int(GetAvailableExtendedMemoryInPercent())) + "%";
  return text;
}
