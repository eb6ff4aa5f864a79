// The process-wide memory strategy: its options file, its creation at start-up, and the figures
// of free memory that callers ask before large allocations.
#pragma once

#include "common/memory/Partialmemory.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

/// Free and total bytes of the machine and the process, as Linux reports them.
struct TSystemMemoryStatus {
  uint64_t TotalPhysical = 0;     ///< MemTotal
  uint64_t AvailablePhysical = 0; ///< MemAvailable
  /// What stands for the page file: memory plus swap, and what of it is available.
  uint64_t TotalPageFile = 0;
  uint64_t AvailablePageFile = 0;
  /// The process's application address span and the part of it not yet used (less VmSize).
  uint64_t TotalAddressSpace = 0;
  uint64_t AvailableAddressSpace = 0;
};

/// Values given on the command line for one run; they are not written to the options file.
/// An empty text or a value of 0 leaves the option as it is.
struct TMemoryOptionsOverride {
  std::string Strategy; ///< "", "heap" or "mmf"
  std::string MemoryMappedFilePath;
  double FileSizeGB = 0;
  double MapSizeMB = 0;
};

/// The memory strategy of the process. Static members only; the strategy is created once at
/// start-up, before any data exists, and destroyed after the last array is gone.
class TMemoryManagement {
public:
  TMemoryManagement() = delete;

  /// The process-wide allocator; null before CreateMemoryStrategy and after DestroyMemoryStrategy.
  static inline IPartialMemoryAllocator* PartialMemoryAllocator = nullptr;
  /// The strategy wanted (0 heap, 1 memory-mapped file, 2 AWE), then the strategy running.
  static inline int CurrentStrategy = 0;
  /// What the next SaveOptionsToFile writes as the strategy.
  static inline int StrategyToSave = 0;
  /// Directory under which the "OrvexMMF" folder of the temporary files is made.
  static std::string MemoryMappedFilePath; // starts as DefaultMemoryMappedFilePath()
  /// Full name of the options file; set at start-up.
  static inline std::string MemoryOptionsFileName;
  static inline int MemoryMappedFileSizeGB = 16;
  static inline int MemoryMappedFileMapSizeMB = 512;
  static inline int AWEMemorySizeGB = 16;
  static inline int AWEMemoryMapSizeMB = 512;
  /// Large arrays loaded from a file keep their bytes in the file until they are first used; saving
  /// them unchanged copies file to file. For commands that load and save again without looking at the
  /// data (convert, append): they then never hold the data in memory. Off for the workbench, where a
  /// file may change on disk while the project is open.
  static inline std::atomic<bool> DeferArrayLoading{false};

  /// Reads the options file; a TTagError (1 or more success, -6 can't open, -4 wrong identification).
  static int LoadOptionsFromFile();
  /// Writes the options file anew; -5 when it can't be created.
  static int SaveOptionsToFile();
  /// Sets up the allocator of CurrentStrategy, falling back to the heap with a message.
  static void CreateMemoryStrategy();
  static void DestroyMemoryStrategy();

  /// Overrides strategy, folder and sizes for this run only (the options file keeps its values).
  /// Returns an empty text, or what is wrong with the values.
  static std::string ApplyOptionsOverride(const TMemoryOptionsOverride& values);
  static void ClearOptionsOverride();

  static int64_t GetAvailableMemoryInBytes(bool ignoreStrategy);
  /// True when bytesNeeded fits with a safety factor; may ask or tell the user when showMessage.
  static bool IsEnoughMemoryAvailable(int64_t bytesNeeded, bool showMessage,
                                      const std::string& additionalInfo, bool ignoreStrategy);
  /// Free percentages of physical memory, page file and address space.
  static void GetMemoryStatusPercentage(int& physical, int& pageFile, int& addressSpace);
  static void GetMemoryStatusPercentage(int& physical, int& pageFile, int& addressSpace,
                                        uint64_t& freeAddressSpace, uint64_t& freePageFile,
                                        uint64_t& freePhysical);
  /// 0 with the heap strategy, else the free share of the strategy's pages in percent.
  static double GetAvailableExtendedMemoryInPercent();
  static std::string GetMemoryStatusPercentageString();

  ///@{ Linux figures behind the status.
  static TSystemMemoryStatus ReadSystemMemoryStatus();
  /// Free bytes of the file system that holds path (0 when it can't be asked).
  static uint64_t GetFreeDiskBytes(const std::string& path);
  ///@}

  /// "$XDG_CACHE_HOME/orvex/" (or "~/.cache/orvex/").
  static std::string DefaultMemoryMappedFilePath();
  /// "$XDG_DATA_HOME/orvex/InternalSettings/MemoryOptions.oxh" (or below "~/.local/share").
  static std::string DefaultMemoryOptionsFileName();
  /// The folder of the temporary files for a location: path with a trailing "/" plus "OrvexMMF/".
  static std::string MemoryMappedFileDirectory(const std::string& path);
  /// Removes every "*.tmp" file of the folder that no running process holds; the number removed.
  static int RemoveLeftOverTemporaryFiles(const std::string& directory);

  /// How start-up errors reach the user while the message system isn't up: text and caption.
  /// The default writes to stderr.
  using TPlainMessageHandler = std::function<void(const std::string& text, const std::string& caption)>;
  static inline TPlainMessageHandler PlainMessageHandler;
  /// Ends the process when not even the heap strategy works; tests replace it.
  static inline std::function<void(int exitCode)> FatalExitHandler;

  /// Bytes the heap strategy may hand out: the machine's physical memory.
  static uint64_t HeapStrategyLimitInBytes();
};
