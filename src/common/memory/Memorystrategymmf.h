// The memory-mapped file strategy: arrays whose pages live in one temporary file, of which only
// a bounded number of pages is mapped at a time, flushed to disk in the background.
#pragma once

#include "common/memory/Memorylock.h"
#include "common/memory/Memorytimerqueue.h"
#include "common/memory/Partialmemoryallocator.h"
#include "common/memory/Partialmmfmemory.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <semaphore>
#include <string>
#include <vector>

class TPartialMemoryFromMMFAllocator;

/// An array of the memory-mapped file strategy. Writes mark it changed; a periodic timer then
/// writes its pages to the file until a whole period passes without writes.
class TPartialMemoryMappedArray : public IPartialArray {
public:
  /// Pieces of a page at least this large move by file reads and writes instead of through a
  /// view: a fresh view costs a page fault for every 4 KiB written, more than the copy itself.
  static constexpr uint32_t kDirectTransferBytes = 16384;

  ~TPartialMemoryMappedArray() override;

  bool LoadContentsFromFile(int fileDescriptor, uint64_t address, uint64_t size) override;
  bool SaveContentsToFile(int fileDescriptor, uint64_t address, uint64_t size) override;
  void GetDataAtAddress(uint64_t address, void* destination, uint32_t size) override;
  void SetDataAtAddress(uint64_t address, const void* source, uint32_t size) override;
  void GetDataAtAddressEx(uint64_t address, void* destination, uint64_t size) override;
  void SetDataAtAddressEx(uint64_t address, const void* source, uint64_t size) override;
  void ClearData() override;

  uint32_t NumberOfPages() const { return uint32_t(FPageNumbers.size()); }
  /// File page that holds page index of this array.
  uint32_t FilePageOf(uint32_t index) const { return FPageNumbers[index]; }
  /// True while a flush timer exists for the array.
  bool HasFlushTimer();
  /// Completed flush passes that wrote pages.
  uint64_t FlushPassCount() const { return FFlushPasses.load(); }

private:
  friend class TPartialMemoryFromMMFAllocator;
  TPartialMemoryMappedArray(TPartialMemoryFromMMFAllocator* allocator, TPartialMMFMemory* memory);

  /// Marks the array written and starts the flush timer when none runs.
  void WriteAccessPage();
  /// The timer's callback: one flush pass over all pages, or the end of the timer after a quiet period.
  void FlushPagesFunc();
  uint8_t* Reach(uint64_t address, std::atomic<uint32_t>*& referenceCount, uint32_t& available);
  /// Moves size bytes between the array at address and memory; false when a page could not be
  /// reached or the backing refused, which ends the transfer there.
  bool TransferRange(uint64_t address, uint8_t* memory, uint64_t size, bool toArray);

  TPartialMemoryFromMMFAllocator* FAllocator;
  TPartialMMFMemory* FMemory;
  std::vector<uint32_t> FPageNumbers;
  uint32_t FPageSize;
  TMemoryTimerQueue* FTimerQueue;
  std::atomic<bool> FClean{true};
  TManualResetEvent FTimerGone{true};
  TMemoryTimerQueue::THandle FTimerHandle = 0;
  std::atomic<bool> FTimerExists{false};
  TPageLock FFlushLock;
  TPageLock FTimerLock;
  std::atomic<bool> FCancelFlush{false};
  std::atomic<uint64_t> FFlushPasses{0};
};

/// Allocator of the memory-mapped file strategy.
class TPartialMemoryFromMMFAllocator : public TCustomPartialMemoryAllocator {
public:
  /// Flushes that may run at one time.
  static constexpr int kMaxConcurrentFlushes = 5;
  /// First delay and period of the flush timer, in milliseconds.
  static constexpr uint32_t kDefaultFlushPeriodMs = 3000;

  TPartialMemoryFromMMFAllocator();
  ~TPartialMemoryFromMMFAllocator() override;

  /// Takes a TPartialMemoryMMFConfiguration. Refuses a zero file or map size, a map size larger
  /// than the file, and a map size below one page; false too when no backing can be made.
  bool Initialize(const void* configuration) override;
  IPartialArray* AllocateArray(uint64_t bytes) override;
  void FreeArray(IPartialArray* array) override;

  /// The file and its views; null before a successful Initialize.
  TPartialMMFMemory* Memory() const { return FMemory.get(); }
  /// Changes the flush period of timers created from now on (tests use short periods).
  void SetFlushPeriodMs(uint32_t periodMs) { FFlushPeriodMs = periodMs; }
  uint32_t FlushPeriodMs() const { return FFlushPeriodMs; }

private:
  friend class TPartialMemoryMappedArray;

  std::counting_semaphore<kMaxConcurrentFlushes> FFlushSemaphore{kMaxConcurrentFlushes};
  std::unique_ptr<TMemoryTimerQueue> FTimerQueue;
  std::unique_ptr<TPartialMMFMemory> FMemory;
  std::atomic<uint32_t> FFlushPeriodMs{kDefaultFlushPeriodMs};
};
