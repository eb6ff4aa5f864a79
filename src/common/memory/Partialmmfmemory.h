// The backing of the memory-mapped file strategy: one temporary file (or an anonymous memory
// file when none can be made) seen through a bounded number of mapped one-page views.
#pragma once

#include "common/memory/Memorylock.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

/// One mapped view of one page of the backing.
struct TMMFPageInfo {
  static constexpr uint32_t kNoPage = 0xFFFFFFFFu;
  /// Marks a record that a thread has taken for a new page and is mapping right now.
  static constexpr uint32_t kClaimed = 0xFFFFFFFEu;

  std::atomic<uint32_t> PageNumber{kNoPage};
  uint64_t StartAddress = 0;
  uint64_t EndAddress = 0;
  uint32_t Size = 0;
  uint32_t Reserved = 0;
  uint8_t* BaseAddress = nullptr;
};

/// The file and its mapped views. Pages are reached through GetAddressWithinPage, which maps a
/// page on demand into a view chosen by a round-robin search; a page whose reference count is
/// above 0 is never evicted. A thread that holds one page's lock only ever tries other page locks,
/// so no two threads can wait for each other.
class TPartialMMFMemory {
public:
  /// fileSize is rounded up to whole pages. An empty directory, or a file that can't be made or
  /// reserved on disk, leaves the backing to an anonymous memory file.
  TPartialMMFMemory(uint64_t fileSize, uint32_t mapSize, const std::string& directory);
  ~TPartialMMFMemory();
  TPartialMMFMemory(const TPartialMMFMemory&) = delete;
  TPartialMMFMemory& operator=(const TPartialMMFMemory&) = delete;

  /// False when neither the file nor the anonymous fallback could be set up.
  bool MemoryBackingAllocated() const { return FBackingAllocated; }
  /// True when the backing is a file on disk whose space was reserved when it was made.
  bool BackedByDiskFile() const { return FOnDisk; }
  bool DiskSpaceReserved() const { return FDiskSpaceReserved; }
  /// The name the backing file had in its folder. It is removed from the folder as soon as it is made (the
  /// open descriptor keeps it), so a killed process leaves nothing behind; empty for anonymous memory.
  const std::string& FileName() const { return FFileName; }
  /// The open backing file (for tests that look at what reached it); -1 without backing.
  int FileDescriptor() const { return FFileDescriptor; }
  uint32_t TotalPages() const { return FTotalPages; }
  uint32_t PageSize() const { return FPageSize; }
  uint64_t FileSize() const { return FFileSize; }
  uint32_t MappedPageCount() const { return FMappedPages; }

  /// Address of byte offset within file page page, mapping the page if needed, and the page's
  /// reference count, which the caller decrements with ReleasePage after its copy. Null when no
  /// view can be freed because every mapped page is referenced: then the page's lock stays with
  /// the calling thread until that thread reaches the page again with success.
  uint8_t* GetAddressWithinPage(uint32_t offset, uint32_t page, std::atomic<uint32_t>*& referenceCount);
  /// The same on a byte address of the whole backing.
  uint8_t* GetAddress(uint64_t address, std::atomic<uint32_t>*& referenceCount);
  static void ReleasePage(std::atomic<uint32_t>* referenceCount) {
    referenceCount->fetch_sub(1, std::memory_order_release);
  }
  /// Copies bytes between the backing at a byte offset and memory with plain file reads and
  /// writes. The views see the same bytes at once: mappings and file I/O share one page cache.
  /// True when all bytes moved.
  bool ReadBacking(uint64_t offset, void* destination, uint64_t size);
  bool WriteBacking(uint64_t offset, const void* source, uint64_t size);
  /// Starts writing the changed bytes of count file pages from page on to the disk, without
  /// waiting for the disk and without forcing the file's metadata out: what a view flush does.
  /// Works on the file itself, so pages need not be mapped for it.
  bool FlushPages(uint32_t page, uint32_t count);

  ///@{ Figures for diagnostics and tests.
  uint64_t MapCount() const { return FMapCount.load(); }
  uint64_t UnmapCount() const { return FUnmapCount.load(); }
  bool IsPageMapped(uint32_t page);
  uint32_t ReferenceCountOf(uint32_t page) const { return FReferenceCounts[page].load(); }
  /// Tries the lock of a page from the calling thread, leaving it again at once when got.
  bool TryPageLock(uint32_t page);
  ///@}

private:
  TMMFPageInfo* GetNextAvailableMPI();
  bool MapPage(uint32_t page, TMMFPageInfo& record);
  void UnmapRecord(TMMFPageInfo& record);

  uint32_t FPageSize;
  uint32_t FTotalPages = 0;
  uint64_t FFileSize = 0;
  std::string FFileName;
  int FFileDescriptor = -1;
  bool FOnDisk = false;
  bool FBackingAllocated = false;
  bool FDiskSpaceReserved = false;

  std::unique_ptr<TMMFPageInfo*[]> FPageTable;
  std::unique_ptr<TPageLock[]> FPageLocks;
  std::unique_ptr<std::atomic<uint32_t>[]> FReferenceCounts;
  // Extra holds of a page lock that failed reaches left behind; written only by the holder.
  std::unique_ptr<uint32_t[]> FPendingHolds;
  std::unique_ptr<TMMFPageInfo[]> FRecords;
  uint32_t FMappedPages = 0;
  std::atomic<uint32_t> FHand{0};

  std::atomic<uint64_t> FMapCount{0};
  std::atomic<uint64_t> FUnmapCount{0};
};
