// The one queue of work for the main thread: other threads post, send or notify functions, and the main
// thread's event loop (the GUI's, or the command line's wait loop) drains it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

/// Work for the main thread. Functions run in the order they arrive.
class TMainThreadQueue {
public:
  static TMainThreadQueue& Instance();

  /// Names the main thread; called at start-up. Until it is called, Send and SendNotify run at once on
  /// the calling thread, since no loop would ever drain them.
  void SetMainThread(std::thread::id id = std::this_thread::get_id());
  bool IsMainThread() const;
  /// True once SetMainThread was called.
  bool HasMainThread() const;

  /// Queues fn and returns at once. An exception thrown by fn is written to the log.
  void Post(std::function<void()> fn);
  /// Blocks until the main thread ran fn; an exception thrown by fn is rethrown here. On the main thread
  /// fn runs at once.
  void Send(std::function<void()> fn);
  /// On the main thread fn runs at once, otherwise like Post.
  void SendNotify(std::function<void()> fn);

  /// Main thread: runs queued items (at most maxItems; -1: those queued when the call began) and returns
  /// how many ran. Throws OrvexException on another thread.
  int ProcessPending(int maxItems = -1);
  /// Main thread: waits up to timeout for work, runs what is queued; true when anything ran.
  bool WaitAndProcess(std::chrono::milliseconds timeout);
  /// cb is called (on the posting thread, outside the queue's lock) whenever work arrives.
  void SetWakeUpCallback(std::function<void()> cb);

  /// Number of items waiting.
  std::size_t PendingCount() const;

private:
  TMainThreadQueue() = default;
  struct TSendState;
  struct TItem {
    std::function<void()> Fn;
    std::shared_ptr<TSendState> SendState; ///< null for posted items
  };
  void Enqueue(TItem item);
  void RunItem(TItem& item);

  std::atomic<std::thread::id> FMainThread{};
  std::atomic<bool> FHasMainThread{false};
  mutable std::mutex FLock;
  std::condition_variable FWorkArrived;
  std::deque<TItem> FItems;
  std::mutex FWakeUpLock;
  std::shared_ptr<std::function<void()>> FWakeUp;
};
