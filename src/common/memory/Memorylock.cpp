// Re-entrant spin-then-block page lock and manual-reset event of the paged memory layer.
#include "common/memory/Memorylock.h"

uint32_t TPageLock::CurrentThreadNumber() {
  static std::atomic<uint32_t> nextNumber{1};
  thread_local uint32_t number = nextNumber.fetch_add(1, std::memory_order_relaxed);
  return number;
}

bool TPageLock::TryAcquireFree() {
  uint32_t expected = 0;
  return FState.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed);
}

void TPageLock::AcquireSlow() {
  for (int spin = 0; spin < kSpinCount; ++spin) {
    if (FState.load(std::memory_order_relaxed) == 0 && TryAcquireFree()) return;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
  }
  // Mark the lock as having sleepers, then sleep until it changes; whoever takes it this way
  // keeps the sleeper mark, so that its Leave wakes the next one.
  uint32_t state = FState.exchange(2, std::memory_order_acquire);
  while (state != 0) {
    FState.wait(2, std::memory_order_relaxed);
    state = FState.exchange(2, std::memory_order_acquire);
  }
}

void TPageLock::Enter() {
  const uint32_t self = CurrentThreadNumber();
  if (FOwner.load(std::memory_order_relaxed) == self) {
    ++FRecursion;
    return;
  }
  if (!TryAcquireFree()) AcquireSlow();
  FOwner.store(self, std::memory_order_relaxed);
  FRecursion = 1;
}

bool TPageLock::TryEnter() {
  const uint32_t self = CurrentThreadNumber();
  if (FOwner.load(std::memory_order_relaxed) == self) {
    ++FRecursion;
    return true;
  }
  if (!TryAcquireFree()) return false;
  FOwner.store(self, std::memory_order_relaxed);
  FRecursion = 1;
  return true;
}

void TPageLock::Leave() {
  if (--FRecursion > 0) return;
  FOwner.store(0, std::memory_order_relaxed);
  if (FState.exchange(0, std::memory_order_release) == 2) FState.notify_one();
}

bool TPageLock::IsHeldByCurrentThread() const {
  return FOwner.load(std::memory_order_relaxed) == CurrentThreadNumber();
}

void TManualResetEvent::Set() {
  // Notified under the lock: a waiter that wakes may destroy the event at once.
  std::lock_guard<std::mutex> lock(FMutex);
  FSet = true;
  FCondition.notify_all();
}

void TManualResetEvent::Reset() {
  std::lock_guard<std::mutex> lock(FMutex);
  FSet = false;
}

bool TManualResetEvent::IsSet() const {
  std::lock_guard<std::mutex> lock(FMutex);
  return FSet;
}

bool TManualResetEvent::Wait(int timeoutMs) {
  std::unique_lock<std::mutex> lock(FMutex);
  if (timeoutMs < 0) {
    FCondition.wait(lock, [this] { return FSet; });
    return true;
  }
  return FCondition.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return FSet; });
}
