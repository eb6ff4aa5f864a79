// The backing of the memory-mapped file strategy and its round-robin page views.
#include "common/memory/Partialmmfmemory.h"

#include "common/memory/Partialmemory.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

TPartialMMFMemory::TPartialMMFMemory(uint64_t fileSize, uint32_t mapSize, const std::string& directory)
    : FPageSize(kPartialMemoryPageSize) {
  const uint64_t pages = fileSize / FPageSize + (fileSize % FPageSize != 0 ? 1 : 0);
  // The two highest page numbers mark empty and claimed views.
  if (pages == 0 || pages >= TMMFPageInfo::kClaimed) return;
  FTotalPages = uint32_t(pages);
  FFileSize = pages * FPageSize;

  if (!directory.empty()) {
    std::string name = directory;
    if (name.back() != '/') name += '/';
    name += "qztXXXXXX.tmp";
    std::vector<char> buffer(name.begin(), name.end());
    buffer.push_back('\0');
    const int fd = ::mkstemps(buffer.data(), 4);
    if (fd >= 0) {
      // Out of the folder at once: the descriptor keeps the file for this process, and a process killed
      // at any later moment leaves no file behind. (The lock covers the moment before the unlink: a later
      // start sees that a living process made it.)
      ::flock(fd, LOCK_EX | LOCK_NB);
      ::unlink(buffer.data());
      ::fcntl(fd, F_SETFD, FD_CLOEXEC);
      bool usable = ::ftruncate(fd, off_t(FFileSize)) == 0;
      if (usable) {
        // Reserve the disk space now: a page written later into a full disk would otherwise end
        // the process with SIGBUS. File systems without reservation keep the sparse file.
        if (::fallocate(fd, 0, 0, off_t(FFileSize)) == 0)
          FDiskSpaceReserved = true;
        else if (errno != EOPNOTSUPP)
          usable = false;
      }
      if (usable) {
        FFileDescriptor = fd;
        FFileName = buffer.data();
        FOnDisk = true;
      } else {
        ::close(fd);
      }
    }
  }
  if (FFileDescriptor < 0) {
    // No file: an anonymous memory file of the same size takes its place (backed by swap).
    const int fd = ::memfd_create("OrvexMMF", MFD_CLOEXEC);
    if (fd >= 0 && ::ftruncate(fd, off_t(FFileSize)) == 0)
      FFileDescriptor = fd;
    else if (fd >= 0)
      ::close(fd);
  }
  if (FFileDescriptor < 0) return;
  FBackingAllocated = true;

  FPageTable = std::make_unique<TMMFPageInfo*[]>(FTotalPages);
  FPageLocks = std::make_unique<TPageLock[]>(FTotalPages);
  FReferenceCounts = std::make_unique<std::atomic<uint32_t>[]>(FTotalPages);
  FPendingHolds = std::make_unique<uint32_t[]>(FTotalPages);
  for (uint32_t page = 0; page < FTotalPages; ++page) {
    FPageTable[page] = nullptr;
    FReferenceCounts[page].store(0, std::memory_order_relaxed);
    FPendingHolds[page] = 0;
  }

  FMappedPages = mapSize / FPageSize;
  if (FMappedPages > FTotalPages) FMappedPages = FTotalPages;
  FRecords = std::make_unique<TMMFPageInfo[]>(FMappedPages);
  // The first pages of the file are mapped from the start, and the hand stands at 0.
  for (uint32_t i = 0; i < FMappedPages; ++i)
    if (MapPage(i, FRecords[i])) FPageTable[i] = &FRecords[i];
  FHand.store(0);
}

TPartialMMFMemory::~TPartialMMFMemory() {
  for (uint32_t page = 0; page < FTotalPages && FPageTable; ++page) {
    TPageLockGuard guard(FPageLocks[page]);
    FPageTable[page] = nullptr;
    FReferenceCounts[page].store(0);
  }
  for (uint32_t i = 0; i < FMappedPages; ++i) UnmapRecord(FRecords[i]);
  if (FFileDescriptor >= 0) ::close(FFileDescriptor);
}

bool TPartialMMFMemory::MapPage(uint32_t page, TMMFPageInfo& record) {
  void* base = ::mmap(nullptr, FPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, FFileDescriptor,
                      off_t(uint64_t(page) * FPageSize));
  if (base == MAP_FAILED) {
    record.BaseAddress = nullptr;
    record.PageNumber.store(TMMFPageInfo::kNoPage, std::memory_order_release);
    return false;
  }
  record.BaseAddress = static_cast<uint8_t*>(base);
  record.StartAddress = uint64_t(page) * FPageSize;
  record.EndAddress = record.StartAddress + FPageSize;
  record.Size = FPageSize;
  record.PageNumber.store(page, std::memory_order_release);
  FMapCount.fetch_add(1, std::memory_order_relaxed);
  return true;
}

void TPartialMMFMemory::UnmapRecord(TMMFPageInfo& record) {
  if (record.BaseAddress) {
    ::munmap(record.BaseAddress, record.Size);
    FUnmapCount.fetch_add(1, std::memory_order_relaxed);
  }
  record.BaseAddress = nullptr;
  record.PageNumber.store(TMMFPageInfo::kClaimed, std::memory_order_release);
}

TMMFPageInfo* TPartialMMFMemory::GetNextAvailableMPI() {
  if (FMappedPages == 0) return nullptr;
  const uint32_t start = FHand.load(std::memory_order_relaxed) % FMappedPages;
  uint32_t index = start;
  do {
    TMMFPageInfo& record = FRecords[index];
    const uint32_t next = index + 1 == FMappedPages ? 0 : index + 1;
    uint32_t held = record.PageNumber.load(std::memory_order_acquire);
    if (held == TMMFPageInfo::kNoPage) {
      // An empty view (its last mapping failed): take it if no other thread does first.
      if (record.PageNumber.compare_exchange_strong(held, TMMFPageInfo::kClaimed)) {
        FHand.exchange(next);
        return &record;
      }
    } else if (held != TMMFPageInfo::kClaimed) {
      TPageLock& lock = FPageLocks[held];
      if (lock.TryEnter()) {
        if (FReferenceCounts[held].load(std::memory_order_acquire) < 1 && FPageTable[held] == &record) {
          FHand.exchange(next);
          FPageTable[held] = nullptr;
          UnmapRecord(record);
          lock.Leave();
          return &record;
        }
        lock.Leave();
      }
    }
    index = next;
  } while (index != start);
  return nullptr;
}

uint8_t* TPartialMMFMemory::GetAddressWithinPage(uint32_t offset, uint32_t page,
                                                 std::atomic<uint32_t>*& referenceCount) {
  referenceCount = nullptr;
  TPageLock& lock = FPageLocks[page];
  lock.Enter();
  auto leaveAll = [&] {
    // One Leave for this Enter and one for every failed reach that kept the lock.
    const uint32_t extra = FPendingHolds[page];
    FPendingHolds[page] = 0;
    for (uint32_t i = 0; i <= extra; ++i) lock.Leave();
  };

  TMMFPageInfo* record = FPageTable[page];
  if (record) {
    FReferenceCounts[page].fetch_add(1, std::memory_order_acquire);
    uint8_t* address = record->BaseAddress + offset;
    leaveAll();
    referenceCount = &FReferenceCounts[page];
    return address;
  }
  record = GetNextAvailableMPI();
  if (!record) {
    // Every view is referenced: keep the lock, so that no other thread maps this page meanwhile.
    ++FPendingHolds[page];
    return nullptr;
  }
  uint8_t* address = nullptr;
  if (MapPage(page, *record)) {
    FPageTable[page] = record;
    FReferenceCounts[page].fetch_add(1, std::memory_order_acquire);
    address = record->BaseAddress + offset;
    referenceCount = &FReferenceCounts[page];
  }
  leaveAll();
  return address;
}

uint8_t* TPartialMMFMemory::GetAddress(uint64_t address, std::atomic<uint32_t>*& referenceCount) {
  return GetAddressWithinPage(uint32_t(address % FPageSize), uint32_t(address / FPageSize), referenceCount);
}

bool TPartialMMFMemory::ReadBacking(uint64_t offset, void* destination, uint64_t size) {
  auto* target = static_cast<uint8_t*>(destination);
  while (size > 0) {
    const ssize_t moved =
        ::pread(FFileDescriptor, target, size_t(std::min<uint64_t>(size, 1u << 30)), off_t(offset));
    if (moved < 0 && errno == EINTR) continue;
    if (moved <= 0) return false;
    target += moved;
    offset += uint64_t(moved);
    size -= uint64_t(moved);
  }
  return true;
}

bool TPartialMMFMemory::WriteBacking(uint64_t offset, const void* source, uint64_t size) {
  const auto* from = static_cast<const uint8_t*>(source);
  while (size > 0) {
    const ssize_t moved =
        ::pwrite(FFileDescriptor, from, size_t(std::min<uint64_t>(size, 1u << 30)), off_t(offset));
    if (moved < 0 && errno == EINTR) continue;
    if (moved <= 0) return false;
    from += moved;
    offset += uint64_t(moved);
    size -= uint64_t(moved);
  }
  return true;
}

bool TPartialMMFMemory::FlushPages(uint32_t page, uint32_t count) {
  if (!FOnDisk) return true; // anonymous memory has no disk to reach
  return ::sync_file_range(FFileDescriptor, off_t(uint64_t(page) * FPageSize),
                           off_t(uint64_t(count) * FPageSize), SYNC_FILE_RANGE_WRITE) == 0;
}

bool TPartialMMFMemory::IsPageMapped(uint32_t page) {
  TPageLockGuard guard(FPageLocks[page]);
  return FPageTable[page] != nullptr;
}

bool TPartialMMFMemory::TryPageLock(uint32_t page) {
  if (!FPageLocks[page].TryEnter()) return false;
  FPageLocks[page].Leave();
  return true;
}
