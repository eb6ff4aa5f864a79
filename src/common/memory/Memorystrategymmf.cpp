// The memory-mapped file strategy: allocator, arrays and their background flushing.
#include "common/memory/Memorystrategymmf.h"

#include "common/Logfile.h"
#include "common/Saveandload.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <vector>

#include <unistd.h>

TPartialMemoryMappedArray::TPartialMemoryMappedArray(TPartialMemoryFromMMFAllocator* allocator,
                                                     TPartialMMFMemory* memory)
    : FAllocator(allocator), FMemory(memory), FPageSize(memory->PageSize()),
      FTimerQueue(allocator->FTimerQueue.get()) {}

TPartialMemoryMappedArray::~TPartialMemoryMappedArray() {
  FCancelFlush.store(true);
  {
    TPageLockGuard guard(FTimerLock);
    if (FTimerHandle != 0) {
      FTimerQueue->DeleteTimer(FTimerHandle, &FTimerGone);
      FTimerHandle = 0;
      FTimerExists.store(false);
    }
  }
  FTimerGone.Wait();
  if (FAllocator) FAllocator->FreeArray(this);
}

bool TPartialMemoryMappedArray::HasFlushTimer() {
  TPageLockGuard guard(FTimerLock);
  return FTimerHandle != 0;
}

uint8_t* TPartialMemoryMappedArray::Reach(uint64_t address, std::atomic<uint32_t>*& referenceCount,
                                          uint32_t& available) {
  const uint64_t index = address / FPageSize;
  const auto offset = uint32_t(address % FPageSize);
  available = FPageSize - offset;
  return FMemory->GetAddressWithinPage(offset, FPageNumbers[index], referenceCount);
}

void TPartialMemoryMappedArray::GetDataAtAddress(uint64_t address, void* destination, uint32_t size) {
  std::atomic<uint32_t>* reference;
  uint32_t available;
  uint8_t* memory = Reach(address, reference, available);
  if (!memory) return;
  std::memcpy(destination, memory, size);
  TPartialMMFMemory::ReleasePage(reference);
}

void TPartialMemoryMappedArray::SetDataAtAddress(uint64_t address, const void* source, uint32_t size) {
  std::atomic<uint32_t>* reference;
  uint32_t available;
  uint8_t* memory = Reach(address, reference, available);
  if (!memory) return;
  std::memcpy(memory, source, size);
  TPartialMMFMemory::ReleasePage(reference);
  WriteAccessPage();
}

bool TPartialMemoryMappedArray::TransferRange(uint64_t address, uint8_t* memory, uint64_t size,
                                              bool toArray) {
  while (size > 0) {
    uint64_t index = address / FPageSize;
    const auto offset = uint32_t(address % FPageSize);
    uint64_t chunk = std::min<uint64_t>(size, FPageSize - offset);
    if (chunk < kDirectTransferBytes) {
      std::atomic<uint32_t>* reference;
      uint8_t* page = FMemory->GetAddressWithinPage(offset, FPageNumbers[index], reference);
      if (!page) return false;
      if (toArray)
        std::memcpy(page, memory, chunk);
      else
        std::memcpy(memory, page, chunk);
      TPartialMMFMemory::ReleasePage(reference);
    } else {
      // Neighbouring file pages join one file transfer.
      const uint64_t fileOffset = uint64_t(FPageNumbers[index]) * FPageSize + offset;
      while (chunk < size && index + 1 < FPageNumbers.size() &&
             FPageNumbers[index + 1] == FPageNumbers[index] + 1 &&
             std::min<uint64_t>(size - chunk, FPageSize) >= kDirectTransferBytes) {
        chunk += std::min<uint64_t>(size - chunk, FPageSize);
        ++index;
      }
      const bool moved = toArray ? FMemory->WriteBacking(fileOffset, memory, chunk)
                                 : FMemory->ReadBacking(fileOffset, memory, chunk);
      if (!moved) return false;
    }
    memory += chunk;
    address += chunk;
    size -= chunk;
  }
  return true;
}

void TPartialMemoryMappedArray::GetDataAtAddressEx(uint64_t address, void* destination, uint64_t size) {
  TransferRange(address, static_cast<uint8_t*>(destination), size, false);
}

void TPartialMemoryMappedArray::SetDataAtAddressEx(uint64_t address, const void* source, uint64_t size) {
  // The bytes are only read; the shared helper takes a mutable pointer for both directions.
  TransferRange(address, const_cast<uint8_t*>(static_cast<const uint8_t*>(source)), size, true);
  if (size > 0) WriteAccessPage();
}

namespace {

// Moves up to size bytes between a file descriptor and memory, retrying on interruption;
// returns the bytes moved, fewer at the end of the file or on an error.
uint64_t TransferDescriptor(int fileDescriptor, uint8_t* memory, uint64_t size, bool fromFile) {
  uint64_t moved = 0;
  while (moved < size) {
    if (!fromFile && FileWritesAborted()) break; // a termination signal stops the save
    const ssize_t result = fromFile ? ::read(fileDescriptor, memory + moved, size_t(size - moved))
                                    : ::write(fileDescriptor, memory + moved, size_t(size - moved));
    if (result < 0 && errno == EINTR) continue;
    if (result < 0) SetLastFileError(errno); // the reason for the message
    if (result == 0 && !fromFile) SetLastFileError(ENOSPC);
    if (result <= 0) break;
    moved += uint64_t(result);
  }
  return moved;
}

// File transfers of arrays go through a buffer of this size, not into the views, for the same
// reason that large pieces do (see kDirectTransferBytes).
constexpr uint64_t kFileTransferBufferBytes = 1 << 20;

} // namespace

bool TPartialMemoryMappedArray::LoadContentsFromFile(int fileDescriptor, uint64_t address, uint64_t size) {
  std::vector<uint8_t> buffer(size_t(std::min(size, kFileTransferBufferBytes)));
  uint64_t movedTotal = 0;
  while (size > 0) {
    const uint64_t chunk = std::min<uint64_t>(size, buffer.size());
    const uint64_t moved = TransferDescriptor(fileDescriptor, buffer.data(), chunk, true);
    if (moved > 0 && !TransferRange(address, buffer.data(), moved, true)) break;
    movedTotal += moved;
    if (moved != chunk) break;
    address += chunk;
    size -= chunk;
  }
  if (movedTotal > 0) WriteAccessPage();
  return movedTotal > 0;
}

bool TPartialMemoryMappedArray::SaveContentsToFile(int fileDescriptor, uint64_t address, uint64_t size) {
  std::vector<uint8_t> buffer(size_t(std::min(size, kFileTransferBufferBytes)));
  uint64_t movedTotal = 0;
  while (size > 0) {
    const uint64_t chunk = std::min<uint64_t>(size, buffer.size());
    if (!TransferRange(address, buffer.data(), chunk, false)) break;
    const uint64_t moved = TransferDescriptor(fileDescriptor, buffer.data(), chunk, false);
    movedTotal += moved;
    if (moved != chunk) break;
    address += chunk;
    size -= chunk;
  }
  return movedTotal > 0;
}

void TPartialMemoryMappedArray::ClearData() {
  for (uint32_t page : FPageNumbers) {
    std::atomic<uint32_t>* reference;
    uint8_t* memory = FMemory->GetAddressWithinPage(0, page, reference);
    if (!memory) continue;
    std::memset(memory, 0, FPageSize);
    TPartialMMFMemory::ReleasePage(reference);
  }
  WriteAccessPage();
}

void TPartialMemoryMappedArray::WriteAccessPage() {
  // Fast path: already marked written and a timer will flush it.
  if (!FClean.load() && FTimerExists.load()) return;
  TPageLockGuard guard(FTimerLock);
  FClean.store(false);
  if (FTimerHandle == 0) {
    FCancelFlush.store(false);
    FTimerGone.Reset();
    const uint32_t period = FAllocator->FlushPeriodMs();
    FTimerHandle = FTimerQueue->CreateTimer([this] { FlushPagesFunc(); }, period, period);
    FTimerExists.store(true);
  }
}

void TPartialMemoryMappedArray::FlushPagesFunc() {
  if (!FAllocator->FFlushSemaphore.try_acquire()) return;
  if (FFlushLock.TryEnter()) {
    bool flush = false;
    {
      TPageLockGuard guard(FTimerLock);
      if (!FClean.load()) {
        flush = true;
        FClean.store(true);
      } else if (FTimerHandle != 0) {
        // A whole period without writes: the timer ends, and signals once this call returns.
        FTimerQueue->DeleteTimer(FTimerHandle, &FTimerGone);
        FTimerHandle = 0;
        FTimerExists.store(false);
      }
    }
    if (flush) {
      const auto start = std::chrono::steady_clock::now();
      // Runs of neighbouring file pages go out in one call.
      size_t index = 0;
      while (index < FPageNumbers.size() && !FCancelFlush.load()) {
        const uint32_t first = FPageNumbers[index];
        uint32_t count = 1;
        while (index + count < FPageNumbers.size() && FPageNumbers[index + count] == first + count &&
               count < 256)
          ++count;
        FMemory->FlushPages(first, count);
        index += count;
      }
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (seconds > 5.0 && GlobalLogFile) {
        std::ostringstream text;
        text << "TPartialMemoryMappedArray->FlushPagesFunc(): FlushViewOfFile() Time = " << std::fixed
             << seconds << ", PageSize = " << FPageSize;
        GlobalLogFile->AddLog(text.str());
      }
      FFlushPasses.fetch_add(1);
    }
    FFlushLock.Leave();
  }
  FAllocator->FFlushSemaphore.release();
}

TPartialMemoryFromMMFAllocator::TPartialMemoryFromMMFAllocator()
    : FTimerQueue(std::make_unique<TMemoryTimerQueue>()) {}

TPartialMemoryFromMMFAllocator::~TPartialMemoryFromMMFAllocator() {
  // The timer thread goes first, so that no flush runs while the file disappears.
  FTimerQueue.reset();
  FMemory.reset();
}

bool TPartialMemoryFromMMFAllocator::Initialize(const void* configuration) {
  if (!configuration) return false;
  const auto* record = static_cast<const TPartialMemoryMMFConfiguration*>(configuration);
  if (record->RecordSize != sizeof(TPartialMemoryMMFConfiguration)) return false;
  TPageLockGuard guard(FLock);
  FMemory.reset();
  ResetPages(0);
  if (record->FileSizeInBytes == 0 || record->MapSizeInBytes == 0) return false;
  if (record->MapSizeInBytes > record->FileSizeInBytes) return false;
  if (record->MapSizeInBytes < kPartialMemoryPageSize) return false; // not a single view
  std::string directory;
  if (record->Directory) directory.assign(record->Directory, record->DirectoryLength);
  auto memory =
      std::make_unique<TPartialMMFMemory>(record->FileSizeInBytes, record->MapSizeInBytes, directory);
  if (!memory->MemoryBackingAllocated()) return false;
  FPageSize = memory->PageSize();
  ResetPages(memory->TotalPages());
  FMemory = std::move(memory);
  return true;
}

IPartialArray* TPartialMemoryFromMMFAllocator::AllocateArray(uint64_t bytes) {
  if (bytes == 0 || !FMemory) return nullptr;
  const uint64_t needed = PagesNeededFor(bytes, FPageSize);
  if (needed > UINT32_MAX) return nullptr;
  const auto count = uint32_t(needed);
  TPartialMemoryMappedArray* array = nullptr;
  bool withAction = false;
  {
    TPageLockGuard guard(FLock);
    if (FFreePages < count) return nullptr;
    try {
      array = new TPartialMemoryMappedArray(this, FMemory.get());
      array->FPageNumbers.assign(count, TMMFPageInfo::kNoPage);
    } catch (const std::bad_alloc&) {
      delete array;
      return nullptr;
    }
    if (!TakePages(count, array->FPageNumbers.data())) {
      array->FPageNumbers.clear();
      delete array;
      return nullptr;
    }
    withAction = bool(FAllocateAction);
  }
  if (withAction) array->WriteAccessPage();
  return array;
}

void TPartialMemoryFromMMFAllocator::FreeArray(IPartialArray* array) {
  auto* mappedArray = dynamic_cast<TPartialMemoryMappedArray*>(array);
  if (!mappedArray || mappedArray->FAllocator != this || mappedArray->FPageNumbers.empty()) return;
  mappedArray->FCancelFlush.store(true);
  mappedArray->FTimerGone.Wait(10000);
  TPageLockGuard guard(FLock);
  ReturnPages(mappedArray->FPageNumbers.data(), uint32_t(mappedArray->FPageNumbers.size()));
  mappedArray->FPageNumbers.clear();
}
