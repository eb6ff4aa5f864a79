// Small synchronisation pieces of the paged memory layer: a re-entrant spin-then-block lock
// with try-enter, and a manual-reset event.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

/// Re-entrant lock that spins a bounded number of times before it sleeps, with a try-enter that
/// never blocks. It is 12 bytes, so that a memory-mapped file of millions of pages can have one
/// lock per page. The owning thread may enter again; each Enter needs its Leave.
class TPageLock {
public:
  /// Spins on a taken lock this many times before the thread goes to sleep.
  static constexpr int kSpinCount = 4000;

  TPageLock() = default;
  TPageLock(const TPageLock&) = delete;
  TPageLock& operator=(const TPageLock&) = delete;

  void Enter();
  /// True when the lock is now held by the calling thread (also when it held it already).
  bool TryEnter();
  void Leave();
  /// True when the calling thread holds the lock.
  bool IsHeldByCurrentThread() const;

  /// A process-unique, non-zero number of the calling thread.
  static uint32_t CurrentThreadNumber();

private:
  bool TryAcquireFree();
  void AcquireSlow();

  // 0 free, 1 held, 2 held with sleepers.
  std::atomic<uint32_t> FState{0};
  std::atomic<uint32_t> FOwner{0};
  uint32_t FRecursion = 0;
};

/// Scoped Enter/Leave of a TPageLock.
class TPageLockGuard {
public:
  explicit TPageLockGuard(TPageLock& lock) : FLock(lock) { FLock.Enter(); }
  ~TPageLockGuard() { FLock.Leave(); }
  TPageLockGuard(const TPageLockGuard&) = delete;
  TPageLockGuard& operator=(const TPageLockGuard&) = delete;

private:
  TPageLock& FLock;
};

/// Event that stays signalled until it is reset; waiters wake when it is set.
class TManualResetEvent {
public:
  explicit TManualResetEvent(bool initiallySet) : FSet(initiallySet) {}

  void Set();
  void Reset();
  bool IsSet() const;
  /// Waits until the event is set; a negative time-out waits without limit. True when set.
  bool Wait(int timeoutMs = -1);

private:
  mutable std::mutex FMutex;
  std::condition_variable FCondition;
  bool FSet;
};
