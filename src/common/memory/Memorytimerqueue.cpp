// The timer thread of the paged memory layer.
#include "common/memory/Memorytimerqueue.h"

TMemoryTimerQueue::~TMemoryTimerQueue() {
  {
    std::lock_guard<std::mutex> lock(FMutex);
    FStop = true;
  }
  FCondition.notify_all();
  if (FThread.joinable()) FThread.join();
  for (auto& [handle, timer] : FTimers)
    if (timer.Completion) timer.Completion->Set();
}

TMemoryTimerQueue::THandle TMemoryTimerQueue::CreateTimer(std::function<void()> callback, uint32_t dueMs,
                                                          uint32_t periodMs) {
  std::lock_guard<std::mutex> lock(FMutex);
  const THandle handle = FNextHandle++;
  TTimer& timer = FTimers[handle];
  timer.Callback = std::move(callback);
  timer.Due = TClock::now() + std::chrono::milliseconds(dueMs);
  timer.PeriodMs = periodMs;
  if (!FThread.joinable()) FThread = std::thread([this] { Run(); });
  FCondition.notify_all();
  return handle;
}

bool TMemoryTimerQueue::DeleteTimer(THandle handle, TManualResetEvent* completion) {
  std::lock_guard<std::mutex> lock(FMutex);
  auto it = FTimers.find(handle);
  if (it == FTimers.end()) {
    if (completion) completion->Set();
    return false;
  }
  // Deleted already while its call runs: the first deletion's event is the one that gets set.
  if (it->second.Deleted) return false;
  if (it->second.Running) {
    // The timer thread removes it and signals when the call returns.
    it->second.Deleted = true;
    it->second.Completion = completion;
  } else {
    FTimers.erase(it);
    if (completion) completion->Set();
  }
  FCondition.notify_all();
  return true;
}

size_t TMemoryTimerQueue::TimerCount() const {
  std::lock_guard<std::mutex> lock(FMutex);
  size_t count = 0;
  for (const auto& entry : FTimers)
    if (!entry.second.Deleted) ++count;
  return count;
}

void TMemoryTimerQueue::Run() {
  std::unique_lock<std::mutex> lock(FMutex);
  while (!FStop) {
    auto next = FTimers.end();
    for (auto it = FTimers.begin(); it != FTimers.end(); ++it)
      if (!it->second.Deleted && (next == FTimers.end() || it->second.Due < next->second.Due)) next = it;
    if (next == FTimers.end()) {
      FCondition.wait(lock);
      continue;
    }
    if (TClock::now() < next->second.Due) {
      // A copy: the timer may be deleted while this thread waits.
      const TClock::time_point due = next->second.Due;
      FCondition.wait_until(lock, due);
      continue; // the set of timers may have changed meanwhile
    }
    const THandle handle = next->first;
    TTimer& timer = next->second;
    timer.Running = true;
    std::function<void()> callback = timer.Callback;
    lock.unlock();
    callback();
    lock.lock();
    // std::map keeps references stable, and only this thread erases a running timer.
    auto it = FTimers.find(handle);
    it->second.Running = false;
    if (it->second.Deleted) {
      TManualResetEvent* completion = it->second.Completion;
      FTimers.erase(it);
      if (completion) completion->Set();
    } else if (it->second.PeriodMs == 0) {
      FTimers.erase(it);
    } else {
      it->second.Due = TClock::now() + std::chrono::milliseconds(it->second.PeriodMs);
    }
  }
}
