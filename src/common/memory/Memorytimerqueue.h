// One timer thread with periodic, cancellable timers: it drives the background flushing of
// memory-mapped arrays.
#pragma once

#include "common/memory/Memorylock.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

/// Timers that call a function after a first delay and then periodically, all on one thread
/// that starts with the first timer. Deleting a timer never blocks: its completion event is set
/// once the callback is certain not to run any more (at once, or when a running call returns),
/// so that a callback may delete its own timer.
class TMemoryTimerQueue {
public:
  using THandle = uint64_t;

  TMemoryTimerQueue() = default;
  /// Stops the thread; a callback that is running is waited for, no further one starts.
  ~TMemoryTimerQueue();
  TMemoryTimerQueue(const TMemoryTimerQueue&) = delete;
  TMemoryTimerQueue& operator=(const TMemoryTimerQueue&) = delete;

  /// A new timer; its first call comes after dueMs, then every periodMs (0: once).
  THandle CreateTimer(std::function<void()> callback, uint32_t dueMs, uint32_t periodMs);
  /// Removes a timer. completion (may be null) is set when no call of it runs any more.
  /// False for an unknown handle, whose completion event is then set as well, and for a timer
  /// deleted already, which leaves completion alone.
  bool DeleteTimer(THandle handle, TManualResetEvent* completion);
  /// Number of timers that exist.
  size_t TimerCount() const;

private:
  using TClock = std::chrono::steady_clock;
  struct TTimer {
    std::function<void()> Callback;
    TClock::time_point Due;
    uint32_t PeriodMs = 0;
    bool Running = false;
    bool Deleted = false;
    TManualResetEvent* Completion = nullptr;
  };

  void Run();

  mutable std::mutex FMutex;
  std::condition_variable FCondition;
  std::map<THandle, TTimer> FTimers;
  THandle FNextHandle = 1;
  bool FStop = false;
  std::thread FThread;
};
