// A fixed set of threads that run one function again and again on command.
#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

/// Wait without limit, for the waits that take milliseconds.
inline constexpr unsigned long kWaitInfinite = 0xFFFFFFFFul;

/// Pool of threads that sit at their start signal, run the pool's function with their index when
/// started, and go back to waiting. Idle threads block and use no processor. Nothing the function
/// throws ends a pool thread: the error is reported and surfaces from the next wait.
class TThreadPool {
public:
  /// The pool function: the parameter given to Initialize and the thread index.
  using TThreadPoolFunction = std::function<void(void* parameter, int threadIndex)>;

  TThreadPool(std::string name, int numberOfThreads);
  ~TThreadPool();
  TThreadPool(const TThreadPool&) = delete;
  TThreadPool& operator=(const TThreadPool&) = delete;

  /// Sets the function and its parameter; call while no thread runs.
  void Initialize(TThreadPoolFunction function, void* parameter);
  /// Changes the number of threads; for a changed number all threads are stopped and joined first,
  /// and new ones are created lazily.
  void SetNumberOfThreads(int numberOfThreads);
  int GetNumberOfThreads() const { return static_cast<int>(FInfos.size()); }
  const std::string& GetName() const { return FName; }

  /// Creates the threads that don't exist yet, so that a later start is quick.
  void PrepareThreads();
  void PrepareThread(int index);
  /// Starts all threads, or one (an index out of range is ignored); creates it if needed.
  void StartThreads();
  void StartThread(int index);
  /// Asks threads to end after their current run.
  void StopThreads();
  void StopThread(int index);
  /// Stops all threads and waits without limit until they have ended.
  void KillThreads();

  /// True when every existing thread has finished its run.
  bool AreAllThreadsReady();
  /// Waits until all existing threads have finished their run; false only on time-out. Afterwards
  /// an error stored by a thread (lowest index first) is thrown in the waiting thread.
  bool WaitForThreads(unsigned long milliseconds);
  /// Waits for one thread: false for a bad index or a time-out, true for a thread that doesn't exist
  /// or has finished; stored errors of any thread are thrown as in WaitForThreads.
  bool WaitForThread(int index, unsigned long milliseconds);
  /// True when a thread holds a stored error; index gets the lowest such thread.
  bool SomeThreadThrewException(int& index);

  /// Kernel thread id of an existing thread, 0 for none.
  pid_t GetThreadTid(int index);
  /// Called by every pool thread right after it has finished a run (outside all locks); set it
  /// while no thread runs.
  void SetRunFinishedCallback(std::function<void()> callback) { FRunFinished = std::move(callback); }

private:
  struct TThreadInfo {
    std::thread Thread;
    int Index = 0;
    pid_t Tid = 0;
    bool StartSignal = false; // auto reset: taken by the thread when it starts a run
    bool Done = true;         // manual reset: the thread is not in a run
    bool Stop = false;
    bool Ready = true;
    std::exception_ptr Error;
    std::condition_variable StartCondition;
  };

  void ThreadMain(TThreadInfo* info);
  void PrepareThreadLocked(std::unique_lock<std::mutex>& lock, TThreadInfo& info);
  bool WaitLocked(std::unique_lock<std::mutex>& lock, unsigned long milliseconds, int onlyIndex);
  void ThrowStoredErrorLocked(std::unique_lock<std::mutex>& lock);

  std::string FName;
  std::vector<std::unique_ptr<TThreadInfo>> FInfos;
  std::mutex FLock;
  std::condition_variable FDoneCondition;
  std::condition_variable FCreatedCondition;
  TThreadPoolFunction FFunction;
  void* FParameter = nullptr;
  std::function<void()> FRunFinished;
};
