// The main thread's work queue.
#include "common/MainThreadQueue.h"

#include "common/Logfile.h"
#include "common/OrvexException.h"

#include <cstdio>
#include <exception>
#include <utility>

/// Completion of one sent item: the sender waits on it, the main thread fills it.
struct TMainThreadQueue::TSendState {
  std::mutex Lock;
  std::condition_variable DoneChanged;
  bool Done = false;
  std::exception_ptr Error;
};

namespace {

std::string DescribeCurrentException() {
  try {
    throw;
  } catch (const Exception& e) {
    return GetExceptionClassNameAndMessage(e);
  } catch (const std::exception& e) {
    return std::string("std::exception: ") + e.what();
  } catch (...) {
    return "unknown exception";
  }
}

} // namespace

TMainThreadQueue& TMainThreadQueue::Instance() {
  static TMainThreadQueue queue;
  return queue;
}

void TMainThreadQueue::SetMainThread(std::thread::id id) {
  FMainThread.store(id);
  FHasMainThread.store(true);
}

bool TMainThreadQueue::IsMainThread() const {
  return FHasMainThread.load() && FMainThread.load() == std::this_thread::get_id();
}

bool TMainThreadQueue::HasMainThread() const {
  return FHasMainThread.load();
}

void TMainThreadQueue::Post(std::function<void()> fn) {
  Enqueue(TItem{std::move(fn), nullptr});
}

void TMainThreadQueue::Send(std::function<void()> fn) {
  // On the main thread, or with no main thread to drain the queue, waiting would never end.
  if (IsMainThread() || !HasMainThread()) {
    fn();
    return;
  }
  auto state = std::make_shared<TSendState>();
  Enqueue(TItem{std::move(fn), state});
  std::exception_ptr error;
  {
    std::unique_lock lock(state->Lock);
    state->DoneChanged.wait(lock, [&] { return state->Done; });
    // Take the exception out, so that its last reference (and its release) stays on this thread.
    error = std::move(state->Error);
  }
  if (error) std::rethrow_exception(error);
}

void TMainThreadQueue::SendNotify(std::function<void()> fn) {
  if (IsMainThread() || !HasMainThread()) {
    fn();
    return;
  }
  Post(std::move(fn));
}

void TMainThreadQueue::Enqueue(TItem item) {
  {
    std::lock_guard guard(FLock);
    FItems.push_back(std::move(item));
  }
  FWorkArrived.notify_all();
  std::shared_ptr<std::function<void()>> wakeUp;
  {
    std::lock_guard guard(FWakeUpLock);
    wakeUp = FWakeUp;
  }
  if (wakeUp && *wakeUp) (*wakeUp)();
}

void TMainThreadQueue::RunItem(TItem& item) {
  std::exception_ptr error;
  try {
    if (item.Fn) item.Fn();
  } catch (...) {
    error = std::current_exception();
  }
  if (item.SendState) {
    {
      std::lock_guard guard(item.SendState->Lock);
      item.SendState->Error = std::move(error);
      item.SendState->Done = true;
    }
    item.SendState->DoneChanged.notify_all();
    return;
  }
  if (error) {
    // Nobody waits for a posted item: its failure goes to the log (or stderr without one).
    std::string text;
    try {
      std::rethrow_exception(error);
    } catch (...) {
      text = "TMainThreadQueue::ProcessPending: a posted function threw " + DescribeCurrentException();
    }
    if (TLogFile* log = GlobalLogFile)
      log->AddLog(text, TLogLevel::Warning, false, 0);
    else
      std::fprintf(stderr, "%s\n", text.c_str());
  }
}

int TMainThreadQueue::ProcessPending(int maxItems) {
  if (HasMainThread() && !IsMainThread())
    throw OrvexException("TMainThreadQueue::ProcessPending: called outside the main thread");
  std::size_t limit;
  {
    std::lock_guard guard(FLock);
    limit = maxItems < 0 ? FItems.size() : static_cast<std::size_t>(maxItems);
  }
  int done = 0;
  while (static_cast<std::size_t>(done) < limit) {
    TItem item;
    {
      std::lock_guard guard(FLock);
      if (FItems.empty()) break;
      item = std::move(FItems.front());
      FItems.pop_front();
    }
    RunItem(item);
    ++done;
  }
  return done;
}

bool TMainThreadQueue::WaitAndProcess(std::chrono::milliseconds timeout) {
  {
    std::unique_lock lock(FLock);
    if (!FWorkArrived.wait_for(lock, timeout, [&] { return !FItems.empty(); })) return false;
  }
  return ProcessPending() > 0;
}

void TMainThreadQueue::SetWakeUpCallback(std::function<void()> cb) {
  auto wakeUp = cb ? std::make_shared<std::function<void()>>(std::move(cb)) : nullptr;
  std::lock_guard guard(FWakeUpLock);
  FWakeUp = std::move(wakeUp);
}

std::size_t TMainThreadQueue::PendingCount() const {
  std::lock_guard guard(FLock);
  return FItems.size();
}
