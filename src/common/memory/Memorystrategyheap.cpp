// The heap memory strategy: arrays made of page-sized heap blocks.
#include "common/memory/Memorystrategyheap.h"

#include "common/Saveandload.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Reads or writes a whole range of a file, retrying on interruption; returns the bytes moved. Writing goes
// in pieces of 64 MiB, so that an aborted save (a termination signal) stops soon; a failure leaves its
// reason for the message.
uint64_t TransferFile(int fileDescriptor, uint8_t* memory, uint64_t size, bool toMemory) {
  uint64_t moved = 0;
  while (moved < size) {
    if (!toMemory && FileWritesAborted()) break;
    const size_t chunk = size_t(std::min<uint64_t>(size - moved, toMemory ? 1u << 30 : 1u << 26));
    const ssize_t result = toMemory ? ::read(fileDescriptor, memory + moved, chunk)
                                    : ::write(fileDescriptor, memory + moved, chunk);
    if (result < 0 && errno == EINTR) continue;
    if (result < 0) SetLastFileError(errno);
    if (result == 0 && !toMemory) SetLastFileError(ENOSPC);
    if (result <= 0) break;
    moved += uint64_t(result);
  }
  return moved;
}

// Copies size bytes of one file from offset on to another at its position, in the system (no copy passes
// through this process). Returns the bytes copied; unsupported (nothing copied, another way must be taken)
// when the system can't copy between these files.
uint64_t CopyBetweenFiles(int from, uint64_t offset, int to, uint64_t size, bool& unsupported) {
  unsupported = false;
  uint64_t copied = 0;
  auto position = static_cast<off_t>(offset);
  while (copied < size) {
    if (FileWritesAborted()) break;
    const size_t chunk = size_t(std::min<uint64_t>(size - copied, 1u << 26));
    const ssize_t result = ::copy_file_range(from, &position, to, nullptr, chunk, 0);
    if (result < 0 && errno == EINTR) continue;
    if (result < 0 && copied == 0 &&
        (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP || errno == EBADF)) {
      unsupported = true;
      break;
    }
    if (result < 0) SetLastFileError(errno);
    if (result <= 0) break; // 0: the source ended early
    copied += uint64_t(result);
  }
  return copied;
}

// Arrays whose contents wait in a file: each holds the file open, so their number is bounded.
constexpr int kMaxDeferredArrays = 256;
std::atomic<int> gDeferredArrays{0};

} // namespace

TPartialMemoryFromHeapArray::~TPartialMemoryFromHeapArray() {
  DropDeferred();
  if (FAllocator) FAllocator->FreeArray(this);
}

int TPartialMemoryFromHeapArray::DeferredArrays() {
  return gDeferredArrays.load();
}

bool TPartialMemoryFromHeapArray::DeferContentsFromFile(int fileDescriptor, uint64_t fileOffset) {
  if (!FContiguousBlock || FDeferred.load()) return false;
  if (gDeferredArrays.fetch_add(1) >= kMaxDeferredArrays) {
    gDeferredArrays.fetch_sub(1);
    return false;
  }
  // A descriptor of its own: the loader closes its one, and a save that replaces the file by name leaves
  // this one on the old contents.
  const int file = ::fcntl(fileDescriptor, F_DUPFD_CLOEXEC, 0);
  struct stat st {};
  if (file < 0 || ::fstat(file, &st) != 0 || !S_ISREG(st.st_mode) ||
      uint64_t(st.st_size) < fileOffset + FTotalBytes) {
    if (file >= 0) ::close(file);
    gDeferredArrays.fetch_sub(1);
    return false;
  }
  std::lock_guard lock(FDeferLock);
  const auto pages = static_cast<uint32_t>(FFragments.size());
  FPageLoaded.reset(new std::atomic<bool>[pages]);
  for (uint32_t i = 0; i < pages; ++i) FPageLoaded[i].store(false, std::memory_order_relaxed);
  FPagesWaiting = pages;
  FDeferredFile = file;
  FDeferredOffset = fileOffset;
  FDeferredFileSize = st.st_size;
  FDeferredModified[0] = st.st_mtim.tv_sec;
  FDeferredModified[1] = st.st_mtim.tv_nsec;
  FDeferredLost = false;
  FDeferred.store(true, std::memory_order_release);
  return true;
}

bool TPartialMemoryFromHeapArray::DeferredFileUnchanged() const {
  struct stat st {};
  // Writing changes the modification time (the link count and status time change when the file is
  // replaced by name, which leaves these contents as they were).
  return ::fstat(FDeferredFile, &st) == 0 && st.st_size == FDeferredFileSize &&
         st.st_mtim.tv_sec == FDeferredModified[0] && st.st_mtim.tv_nsec == FDeferredModified[1];
}

void TPartialMemoryFromHeapArray::DropDeferredLocked() const {
  if (!FDeferred.load()) return;
  ::close(FDeferredFile);
  FDeferredFile = -1;
  FPagesWaiting = 0;
  FDeferred.store(false, std::memory_order_release);
  gDeferredArrays.fetch_sub(1);
}

void TPartialMemoryFromHeapArray::DropDeferred() const {
  std::lock_guard lock(FDeferLock);
  DropDeferredLocked();
}

void TPartialMemoryFromHeapArray::LoadWaitingPages(uint64_t address, uint64_t size) const {
  if (size == 0 || address >= FTotalBytes) return;
  const uint64_t first = address / FPageSize;
  const uint64_t last = std::min<uint64_t>((address + size - 1) / FPageSize, FFragments.size() - 1);
  auto loaded = [this](uint64_t page) { return FPageLoaded[page].load(std::memory_order_acquire); };
  bool waiting = false;
  for (uint64_t page = first; page <= last && !waiting; ++page) waiting = !loaded(page);
  if (!waiting) return;

  std::lock_guard lock(FDeferLock);
  if (!FDeferred.load()) return; // another thread loaded the last pages
  const bool unchanged = DeferredFileUnchanged();
  for (uint64_t page = first; page <= last;) {
    if (loaded(page)) {
      ++page;
      continue;
    }
    // A run of waiting pages in one read.
    uint64_t end = page + 1;
    while (end <= last && !loaded(end)) ++end;
    const uint64_t from = page * FPageSize, to = std::min<uint64_t>(end * FPageSize, FTotalBytes);
    uint64_t moved = 0;
    while (unchanged && from + moved < to) {
      const ssize_t result = ::pread(FDeferredFile, FContiguousBlock + from + moved,
                                     size_t(to - from - moved), off_t(FDeferredOffset + from + moved));
      if (result < 0 && errno == EINTR) continue;
      if (result <= 0) break;
      moved += uint64_t(result);
    }
    if (from + moved < to) {
      std::memset(FContiguousBlock + from + moved, 0, to - from - moved);
      FDeferredLost = true;
    }
    for (uint64_t p = page; p < end; ++p) FPageLoaded[p].store(true, std::memory_order_release);
    FPagesWaiting -= uint32_t(end - page);
    page = end;
  }
  if (FPagesWaiting == 0) DropDeferredLocked();
}

void TPartialMemoryFromHeapArray::GetDataAtAddress(uint64_t address, void* destination, uint32_t size) {
  Materialize(address, size);
  const THeapFragment& fragment = FFragments[address / FPageSize];
  std::memcpy(destination, fragment.Block + (address - fragment.StartAddress), size);
}

void TPartialMemoryFromHeapArray::SetDataAtAddress(uint64_t address, const void* source, uint32_t size) {
  Materialize(address, size); // the rest of the page stays what the file holds
  const THeapFragment& fragment = FFragments[address / FPageSize];
  std::memcpy(fragment.Block + (address - fragment.StartAddress), source, size);
}

void TPartialMemoryFromHeapArray::GetDataAtAddressEx(uint64_t address, void* destination, uint64_t size) {
  Materialize(address, size);
  auto* target = static_cast<uint8_t*>(destination);
  while (size > 0) {
    const THeapFragment& fragment = FFragments[address / FPageSize];
    const uint64_t offset = address - fragment.StartAddress;
    const uint64_t chunk = std::min<uint64_t>(size, fragment.Size - offset);
    std::memcpy(target, fragment.Block + offset, chunk);
    target += chunk;
    address += chunk;
    size -= chunk;
  }
}

const void* TPartialMemoryFromHeapArray::GetReadPointer(uint64_t address, uint64_t& available) const {
  // Who reads in place reads much: all of it comes in.
  Materialize(0, FTotalBytes);
  available = 0;
  if (address >= FTotalBytes) return nullptr;
  if (FContiguousBlock) {
    available = FTotalBytes - address;
    return FContiguousBlock + address;
  }
  const THeapFragment& fragment = FFragments[address / FPageSize];
  available = fragment.EndAddress - address;
  return fragment.Block + (address - fragment.StartAddress);
}

void TPartialMemoryFromHeapArray::SetDataAtAddressEx(uint64_t address, const void* source, uint64_t size) {
  Materialize(address, size);
  auto* from = static_cast<const uint8_t*>(source);
  while (size > 0) {
    const THeapFragment& fragment = FFragments[address / FPageSize];
    const uint64_t offset = address - fragment.StartAddress;
    const uint64_t chunk = std::min<uint64_t>(size, fragment.Size - offset);
    std::memcpy(fragment.Block + offset, from, chunk);
    from += chunk;
    address += chunk;
    size -= chunk;
  }
}

bool TPartialMemoryFromHeapArray::TransferContents(int fileDescriptor, uint64_t address, uint64_t size,
                                                   bool read) {
  if (FContiguousBlock)
    return TransferFile(fileDescriptor, FContiguousBlock + address, size, read) > 0 || size == 0;
  uint64_t movedTotal = 0;
  while (size > 0) {
    const THeapFragment& fragment = FFragments[address / FPageSize];
    const uint64_t offset = address - fragment.StartAddress;
    const uint64_t chunk = std::min<uint64_t>(size, fragment.Size - offset);
    const uint64_t moved = TransferFile(fileDescriptor, fragment.Block + offset, chunk, read);
    movedTotal += moved;
    if (moved != chunk) break;
    address += chunk;
    size -= chunk;
  }
  return movedTotal > 0;
}

bool TPartialMemoryFromHeapArray::LoadContentsFromFile(int fileDescriptor, uint64_t address, uint64_t size) {
  Materialize(address, size); // the bytes around the loaded range stay what they were
  return TransferContents(fileDescriptor, address, size, true);
}

bool TPartialMemoryFromHeapArray::SaveContentsToFile(int fileDescriptor, uint64_t address, uint64_t size) {
  if (FDeferred.load(std::memory_order_acquire)) {
    std::unique_lock lock(FDeferLock);
    if (FDeferred.load()) {
      if (!DeferredFileUnchanged()) {
        SetLastFileError(ESTALE); // the file the contents were to come from was changed in place
        return false;
      }
      // Runs of pages still in the file go file to file, the loaded ones from memory.
      const uint64_t end = address + size;
      auto inFileAt = [this](uint64_t at) {
        return !FPageLoaded[at / FPageSize].load(std::memory_order_acquire);
      };
      while (address < end) {
        const bool inFile = inFileAt(address);
        uint64_t next = (address / FPageSize + 1) * FPageSize;
        while (next < end && inFileAt(next) == inFile) next += FPageSize;
        const uint64_t count = std::min(next, end) - address;
        bool moved = false;
        if (inFile) {
          bool unsupported = false;
          const uint64_t copied =
              CopyBetweenFiles(FDeferredFile, FDeferredOffset + address, fileDescriptor, count, unsupported);
          if (unsupported) {
            // This system copies no bytes between these files: they come into memory and go from there.
            lock.unlock();
            LoadWaitingPages(address, end - address);
            return SaveContentsToFile(fileDescriptor, address, end - address);
          }
          moved = copied == count;
        } else {
          moved = TransferFile(fileDescriptor, FContiguousBlock + address, count, false) == count;
        }
        if (!moved) return false;
        address += count;
      }
      return true;
    }
  }
  if (FDeferredLost) {
    SetLastFileError(ESTALE);
    return false;
  }
  return TransferContents(fileDescriptor, address, size, false);
}

void TPartialMemoryFromHeapArray::ClearData() {
  DropDeferred();
  FDeferredLost = false;
  for (const THeapFragment& fragment : FFragments) std::memset(fragment.Block, 0, fragment.Size);
}

namespace {
constexpr uint64_t kHugePage = 2u << 20;
uint64_t RoundedToHugePages(uint64_t bytes) {
  return (bytes + kHugePage - 1) / kHugePage * kHugePage;
}
} // namespace

TPartialMemoryFromHeapAllocator::~TPartialMemoryFromHeapAllocator() {
  for (const TKeptBlock& kept : FKept) std::free(kept.Block);
}

uint64_t TPartialMemoryFromHeapAllocator::KeptBytes() const {
  std::lock_guard lock(FKeptLock);
  return FKeptBytes;
}

uint8_t* TPartialMemoryFromHeapAllocator::TakeBlock(uint64_t bytes) {
  uint8_t* block = nullptr;
  {
    std::lock_guard lock(FKeptLock);
    for (auto it = FKept.begin(); it != FKept.end(); ++it)
      if (it->Bytes >= bytes && it->Bytes - bytes <= bytes / 8) {
        block = it->Block;
        FKeptBytes -= it->Bytes;
        FKept.erase(it);
        break;
      }
  }
  if (block) {
    // Cleared as the system clears a fresh block, so an array never shows what an earlier one held.
    std::memset(block, 0, bytes);
    return block;
  }
  block = static_cast<uint8_t*>(std::aligned_alloc(kHugePage, bytes));
  if (!block) {
    // Short of memory: the kept blocks go first.
    std::vector<TKeptBlock> kept;
    {
      std::lock_guard lock(FKeptLock);
      kept.swap(FKept);
      FKeptBytes = 0;
    }
    for (const TKeptBlock& k : kept) std::free(k.Block);
    block = static_cast<uint8_t*>(std::aligned_alloc(kHugePage, bytes));
  }
  if (block) ::madvise(block, bytes, MADV_HUGEPAGE);
  return block;
}

void TPartialMemoryFromHeapAllocator::KeepBlock(uint8_t* block, uint64_t bytes) {
  std::vector<uint8_t*> freed;
  {
    std::lock_guard lock(FKeptLock);
    if (bytes > FKeepLimit) {
      freed.push_back(block);
    } else {
      while (FKeptBytes + bytes > FKeepLimit) {
        freed.push_back(FKept.front().Block);
        FKeptBytes -= FKept.front().Bytes;
        FKept.erase(FKept.begin());
      }
      FKept.push_back({block, bytes});
      FKeptBytes += bytes;
    }
  }
  for (uint8_t* b : freed) std::free(b); // outside the lock: giving back a large block takes a while
}

uint64_t TPartialMemoryFromHeapAllocator::ApplicationAddressSpan() {
  // x86-64 Linux gives user space the addresses from the lowest mappable page (64 KiB by the
  // usual mmap_min_addr) up to 2^47 less one guard page.
  constexpr uint64_t lowest = 0x10000;
  constexpr uint64_t highest = (uint64_t(1) << 47) - 4096;
  return highest - lowest;
}

bool TPartialMemoryFromHeapAllocator::Initialize(const void* configuration) {
  if (!configuration) return false;
  const auto* record = static_cast<const TPartialMemoryHeapConfiguration*>(configuration);
  if (record->RecordSize != sizeof(TPartialMemoryHeapConfiguration)) return false;
  const uint64_t limit = std::min(record->LimitInBytes, ApplicationAddressSpan());
  if (limit == 0) return false;
  // One page more than the limit holds, even for an exact multiple.
  const uint64_t pages = limit / kPartialMemoryPageSize + 1;
  if (pages > UINT32_MAX) return false;
  TPageLockGuard guard(FLock);
  FPageSize = kPartialMemoryPageSize;
  ResetPages(uint32_t(pages));
  std::lock_guard keptLock(FKeptLock);
  FKeepLimit = std::min(kKeptBlockBytes, limit / 4);
  return true;
}

IPartialArray* TPartialMemoryFromHeapAllocator::AllocateArray(uint64_t bytes) {
  if (bytes == 0) return nullptr;
  const uint64_t needed = PagesNeededFor(bytes, FPageSize);
  if (needed > UINT32_MAX) return nullptr;
  const auto count = uint32_t(needed);

  TPartialMemoryFromHeapArray* array = nullptr;
  {
    TPageLockGuard guard(FLock);
    if (FFreePages < count) return nullptr;
    try {
      array = new TPartialMemoryFromHeapArray(this);
      array->FPageNumbers.resize(count);
      array->FFragments.resize(count);
    } catch (const std::bad_alloc&) {
      delete array; // holds no pages yet, so nothing goes back
      return nullptr;
    }
    array->FPageSize = FPageSize;
    array->FTotalBytes = bytes;
    if (!TakePages(count, array->FPageNumbers.data())) {
      array->FPageNumbers.clear();
      array->FFragments.clear();
      delete array;
      return nullptr;
    }
  }

  // The blocks are allocated outside the lock: malloc may take long for many pages. A large array gets one
  // block on huge pages, so that filling it costs few page faults and file transfers run in one piece.
  if (bytes >= kHugePage) {
    array->FContiguousBytes = RoundedToHugePages(bytes);
    array->FContiguousBlock = TakeBlock(array->FContiguousBytes);
  }
  uint64_t start = 0;
  for (uint32_t i = 0; i < count; ++i) {
    THeapFragment& fragment = array->FFragments[i];
    fragment.StartAddress = start;
    fragment.Size = uint32_t(std::min<uint64_t>(bytes - start, FPageSize));
    fragment.EndAddress = start + fragment.Size;
    fragment.Block = array->FContiguousBlock ? array->FContiguousBlock + start
                                             : static_cast<uint8_t*>(std::malloc(fragment.Size));
    if (!fragment.Block) {
      delete array; // FreeArray gives back pages and the blocks made so far
      return nullptr;
    }
    start += fragment.Size;
  }
  return array;
}

void TPartialMemoryFromHeapAllocator::FreeArray(IPartialArray* array) {
  auto* heapArray = dynamic_cast<TPartialMemoryFromHeapArray*>(array);
  if (!heapArray || heapArray->FAllocator != this || heapArray->FPageNumbers.empty()) return;
  for (THeapFragment& fragment : heapArray->FFragments) {
    if (!heapArray->FContiguousBlock) std::free(fragment.Block);
    fragment.Block = nullptr;
  }
  if (heapArray->FContiguousBlock) KeepBlock(heapArray->FContiguousBlock, heapArray->FContiguousBytes);
  heapArray->FContiguousBlock = nullptr;
  TPageLockGuard guard(FLock);
  ReturnPages(heapArray->FPageNumbers.data(), uint32_t(heapArray->FPageNumbers.size()));
  heapArray->FPageNumbers.clear();
  heapArray->FFragments.clear();
}
