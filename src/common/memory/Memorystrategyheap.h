// The heap memory strategy: every page of an array is its own block of the program heap.
#pragma once

#include "common/memory/Partialmemoryallocator.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

/// One page of a heap array; the last page of an array holds only the remainder.
struct THeapFragment {
  uint64_t StartAddress = 0;
  uint64_t EndAddress = 0; ///< one past the last byte
  uint32_t Size = 0;
  uint32_t Reserved = 0;
  uint8_t* Block = nullptr;
};

class TPartialMemoryFromHeapAllocator;

/// An array of the heap strategy: a table of page-sized heap blocks.
class TPartialMemoryFromHeapArray : public IPartialArray {
public:
  ~TPartialMemoryFromHeapArray() override;

  bool LoadContentsFromFile(int fileDescriptor, uint64_t address, uint64_t size) override;
  bool SaveContentsToFile(int fileDescriptor, uint64_t address, uint64_t size) override;
  void GetDataAtAddress(uint64_t address, void* destination, uint32_t size) override;
  void SetDataAtAddress(uint64_t address, const void* source, uint32_t size) override;
  void GetDataAtAddressEx(uint64_t address, void* destination, uint64_t size) override;
  void SetDataAtAddressEx(uint64_t address, const void* source, uint64_t size) override;
  void ClearData() override;
  /// A large array is one block: any range of it; otherwise the rest of one fragment.
  const void* GetReadPointer(uint64_t address, uint64_t& available) const override;
  /// Only a large array (one block) defers, and only so many at once that the open files stay few.
  bool DeferContentsFromFile(int fileDescriptor, uint64_t fileOffset) override;
  /// True while the contents wait in the file.
  bool IsDeferred() const { return FDeferred.load(std::memory_order_acquire); }
  /// Arrays of the process whose contents wait in a file now.
  static int DeferredArrays();

  uint64_t TotalBytes() const { return FTotalBytes; }
  uint32_t NumberOfFragments() const { return uint32_t(FFragments.size()); }
  const THeapFragment& Fragment(uint32_t index) const { return FFragments[index]; }

private:
  /// Moves size bytes at address between the file and the fragments; read: from the file into memory.
  bool TransferContents(int fileDescriptor, uint64_t address, uint64_t size, bool read);
  /// Reads the pages of [address, address + size) that still wait in the file into the block (each page
  /// once, whichever thread comes first). Contents that can't be read, or a file changed since, leave
  /// zeros and make every later save fail.
  void Materialize(uint64_t address, uint64_t size) const {
    if (FDeferred.load(std::memory_order_acquire)) LoadWaitingPages(address, size);
  }
  void LoadWaitingPages(uint64_t address, uint64_t size) const;
  /// The deferred file is still what it was when the contents were noted.
  bool DeferredFileUnchanged() const;
  /// Forgets the deferred contents (closes the file); FDeferLock held.
  void DropDeferredLocked() const;
  void DropDeferred() const;
  friend class TPartialMemoryFromHeapAllocator;
  explicit TPartialMemoryFromHeapArray(TPartialMemoryFromHeapAllocator* allocator) : FAllocator(allocator) {}

  TPartialMemoryFromHeapAllocator* FAllocator;
  std::vector<THeapFragment> FFragments;
  std::vector<uint32_t> FPageNumbers;
  /// One block behind all fragments of a large array (null: each fragment has its own block).
  uint8_t* FContiguousBlock = nullptr;
  uint64_t FContiguousBytes = 0; ///< the block's size, rounded to whole huge pages
  uint64_t FTotalBytes = 0;
  uint32_t FPageSize = kPartialMemoryPageSize;

  // Deferred contents: the file (a descriptor of its own), where they start, and what the file was.
  mutable std::atomic<bool> FDeferred{false};
  mutable std::mutex FDeferLock;
  mutable std::unique_ptr<std::atomic<bool>[]> FPageLoaded; ///< per page: its bytes are in the block
  mutable uint32_t FPagesWaiting = 0;
  mutable int FDeferredFile = -1;
  uint64_t FDeferredOffset = 0;
  int64_t FDeferredFileSize = 0;
  int64_t FDeferredModified[2] = {0, 0};          ///< modification time, seconds and nanoseconds
  mutable std::atomic<bool> FDeferredLost{false}; ///< the contents could not be read: saves fail
};

/// Allocator of the heap strategy. Its limit bounds the sum of all arrays.
class TPartialMemoryFromHeapAllocator : public TCustomPartialMemoryAllocator {
public:
  TPartialMemoryFromHeapAllocator() = default;
  ~TPartialMemoryFromHeapAllocator() override;

  /// Takes a TPartialMemoryHeapConfiguration; the limit is capped at the span of the process's
  /// application addresses, and 0 is refused.
  bool Initialize(const void* configuration) override;
  IPartialArray* AllocateArray(uint64_t bytes) override;
  void FreeArray(IPartialArray* array) override;

  /// Span of addresses a 64-bit Linux process can give to its data.
  static uint64_t ApplicationAddressSpan();

  /// Large blocks given back are kept for the next array of about their size (a tool run after run makes
  /// results of the same size): taking such a block costs clearing it, a fresh one faulting in and clearing
  /// every page by the system, several times as long. At most this many bytes wait, and at most a
  /// quarter of the limit.
  static constexpr uint64_t kKeptBlockBytes = uint64_t(1) << 30;
  /// Bytes of blocks waiting now.
  uint64_t KeptBytes() const;

private:
  struct TKeptBlock {
    uint8_t* Block = nullptr;
    uint64_t Bytes = 0;
  };
  /// A kept block of bytes to bytes + 1/8 (cleared), or a new one; null when there is no memory.
  uint8_t* TakeBlock(uint64_t bytes);
  /// Keeps the block when there is room among the kept ones (the oldest make room), else frees it.
  void KeepBlock(uint8_t* block, uint64_t bytes);

  mutable std::mutex FKeptLock;
  std::vector<TKeptBlock> FKept; ///< oldest first
  uint64_t FKeptBytes = 0;
  uint64_t FKeepLimit = 0;
};
