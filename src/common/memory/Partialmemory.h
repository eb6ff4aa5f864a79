// Interfaces of the paged memory layer: an array of pages reached by 64-bit byte offsets, and
// the allocator of the running memory strategy that hands out such arrays.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

/// Every strategy cuts memory into pages of this size, on every machine the same.
inline constexpr uint32_t kPartialMemoryPageSize = 65536;

/// Bytes of one array's pages, reached by 64-bit byte offsets from the array's start.
/// Offsets and sizes are not checked: the caller stays inside the array.
class IPartialArray {
public:
  virtual ~IPartialArray() = default;
  /// Reads size bytes from the open file descriptor at its current position into the array at
  /// address, page by page. True when at least one byte arrived; stops at the first short read.
  virtual bool LoadContentsFromFile(int fileDescriptor, uint64_t address, uint64_t size) = 0;
  /// Writes size bytes of the array at address to the open file at its current position.
  virtual bool SaveContentsToFile(int fileDescriptor, uint64_t address, uint64_t size) = 0;
  /// One element: the range [address, address + size) lies inside one page.
  virtual void GetDataAtAddress(uint64_t address, void* destination, uint32_t size) = 0;
  virtual void SetDataAtAddress(uint64_t address, const void* source, uint32_t size) = 0;
  /// Any range; walks page by page.
  virtual void GetDataAtAddressEx(uint64_t address, void* destination, uint64_t size) = 0;
  virtual void SetDataAtAddressEx(uint64_t address, const void* source, uint64_t size) = 0;
  /// Every byte of the array's pages becomes 0.
  virtual void ClearData() = 0;
  /// Takes note that the whole array is the bytes of the open file from fileOffset on, without reading
  /// them: they are read when the array is first used, or go file to file when it is saved unchanged
  /// (a project loaded and saved again never holds them in memory). The file must not change in place
  /// meanwhile; if it does, the save fails instead of writing other bytes. False (nothing noted, the
  /// default) when the strategy keeps no such notes or the file can't be kept open; the caller then loads.
  virtual bool DeferContentsFromFile(int fileDescriptor, uint64_t fileOffset) {
    (void)fileDescriptor;
    (void)fileOffset;
    return false;
  }
  /// Where the bytes from address on lie in memory, for reading them in place: the pointer, and in
  /// available how many bytes follow it without a break. Null (the default, and for a strategy whose pages
  /// move) when the bytes must be fetched with GetDataAtAddressEx. The pointer holds while the array
  /// lives and is not resized.
  virtual const void* GetReadPointer(uint64_t address, uint64_t& available) const {
    (void)address;
    available = 0;
    return nullptr;
  }
};

/// Called for every page when it is given out and when it comes back: the page's byte address
/// within the allocator (page number times page size) and its size.
using TPartialMemoryPageAction = std::function<void(uint64_t address, uint32_t size)>;

/// The allocator of one memory strategy.
class IPartialMemoryAllocator {
public:
  virtual ~IPartialMemoryAllocator() = default;
  /// Takes the strategy's configuration record; false for a null or foreign record or values
  /// the strategy can't work with.
  virtual bool Initialize(const void* configuration) = 0;
  virtual void SetAllocationAndFreeActions(TPartialMemoryPageAction allocate,
                                           TPartialMemoryPageAction release) = 0;
  /// A new array of the given size, or null when there is no room; never throws for lack of room.
  virtual IPartialArray* AllocateArray(uint64_t bytes) = 0;
  /// Returns the pages of an array of this allocator; ignores null and foreign arrays.
  virtual void FreeArray(IPartialArray* array) = 0;
  virtual void GetMemoryStatus(uint32_t& totalPages, uint32_t& freePages, uint32_t& pageSize) = 0;
};

/// Configuration of the heap strategy. The first field is the record's own size.
struct TPartialMemoryHeapConfiguration {
  uint32_t RecordSize = sizeof(TPartialMemoryHeapConfiguration);
  uint32_t Unused = 0;
  uint64_t LimitInBytes = 0;
};

/// Configuration of the memory-mapped file strategy.
struct TPartialMemoryMMFConfiguration {
  uint32_t RecordSize = sizeof(TPartialMemoryMMFConfiguration);
  uint32_t Unused = 0;
  uint64_t FileSizeInBytes = 0;
  uint32_t MapSizeInBytes = 0;
  const char* Directory = nullptr;
  uint32_t DirectoryLength = 0;
};
