// Events on one process-wide lock and condition: every Set wakes all waiters, who check their own
// events again. Simple and free of lost wake-ups; events are rare enough for this to cost nothing.
#include "common/threads/Threadevent.h"

#include <condition_variable>
#include <mutex>
#include <vector>

namespace {

std::mutex& EventLock() {
  static std::mutex lock;
  return lock;
}

std::condition_variable& EventChanged() {
  static std::condition_variable changed;
  return changed;
}

} // namespace

TEvent::TEvent(bool manualReset, bool initiallySet) : FManualReset(manualReset), FSet(initiallySet) {}

void TEvent::Set() {
  {
    std::lock_guard lock(EventLock());
    FSet = true;
  }
  EventChanged().notify_all();
}

void TEvent::Reset() {
  std::lock_guard lock(EventLock());
  FSet = false;
}

bool TEvent::IsSet() const {
  std::lock_guard lock(EventLock());
  return FSet;
}

bool TEvent::Wait(int milliseconds) {
  return WaitForAny({this}, milliseconds) == 0;
}

int TEvent::WaitForAny(std::initializer_list<TEvent*> events, int milliseconds) {
  const std::vector<TEvent*> list(events);
  int found = -1;
  auto anySet = [&] {
    for (std::size_t i = 0; i < list.size(); ++i) {
      if (list[i] && list[i]->FSet) {
        found = static_cast<int>(i);
        return true;
      }
    }
    return false;
  };
  std::unique_lock lock(EventLock());
  if (milliseconds < 0)
    EventChanged().wait(lock, anySet);
  else if (!EventChanged().wait_for(lock, std::chrono::milliseconds(milliseconds), anySet))
    return -1;
  if (!list[found]->FManualReset) list[found]->FSet = false;
  return found;
}
