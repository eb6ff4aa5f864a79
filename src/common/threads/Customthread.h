// TCustomThread: one worker thread with a state, a stop event, cooperative pause, timing, and a
// queue of functions that other threads may have it run.
#pragma once

#include "common/threads/Threadevent.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>

#include <sys/types.h>

/// Thread priority of a TCustomThread: 0 idle, 1 lowest, 2 below normal, 3 normal (the default),
/// 4 above normal, 5 highest, 6 time critical; 7 is reported when there is no thread or an error.
enum class TCustomThreadPriority : int {
  Idle = 0,
  Lowest = 1,
  BelowNormal = 2,
  Normal = 3,
  AboveNormal = 4,
  Highest = 5,
  TimeCritical = 6,
  Unknown = 7
};

/// Thread states: 0 running, 1 suspended, 2 stop requested, 3 stopped (the start value).
enum TCustomThreadState : int { ctsRunning = 0, ctsSuspended = 1, ctsStopRequested = 2, ctsStopped = 3 };

/// Type of the parameter of a function queued to run in the thread.
enum class TThreadFunctionParameterType : int {
  Void = 0,
  Int = 1,
  Float = 2,
  Double = 3,
  Bool = 4,
  Pointer = 5
};

/// The parameter value of a queued function, copied when the call is queued.
struct TThreadFunctionValue {
  int Int = 0;
  float Float = 0;
  double Double = 0;
  bool Bool = false;
  void* Pointer = nullptr;
};

class TCustomThread;

/// One thread with a life cycle: Start, cooperative Pause/Resume, Stop (the function polls
/// QueryForStop), WaitForStopped with a time-out. The thread function never lets an exception out.
/// Pausing is cooperative: a running thread stops at its next QueryForStop, ExecuteFunctionsInThread
/// or WaitForSynchronization; a thread started suspended waits before its function begins.
class TCustomThread {
public:
  /// The thread function: the thread object and the parameter; the result is the exit code.
  using TThreadFunction = int (*)(TCustomThread* thread, void* parameter);
  using TBoundThreadFunction = std::function<int(TCustomThread* thread, void* parameter)>;
  /// A function queued to run in the thread, with its parameter type and copied value.
  using TQueuedFunction =
      std::function<void(TThreadFunctionParameterType type, const TThreadFunctionValue& value)>;

  explicit TCustomThread(std::string name);
  /// Waits without limit for the thread to stop, then empties the function queue.
  virtual ~TCustomThread();
  TCustomThread(const TCustomThread&) = delete;
  TCustomThread& operator=(const TCustomThread&) = delete;

  ///@{ The function the thread runs and its parameter; the plain one wins if both are set.
  void SetThreadFunction(TThreadFunction function, void* parameter);
  void SetThreadFunction(TBoundThreadFunction function, void* parameter);
  template <class F>
  requires std::is_invocable_r_v<int, F&, TCustomThread*, void*>
  void SetThreadFunction(F&& function, void* parameter) {
    if constexpr (std::is_convertible_v<F, TThreadFunction>)
      SetThreadFunction(static_cast<TThreadFunction>(function), parameter);
    else
      SetThreadFunction(TBoundThreadFunction(std::forward<F>(function)), parameter);
  }
  ///@}
  /// What replaces forced termination after a time-out of WaitForStopped (e.g. closing a handle the
  /// function blocks on). Without it the thread is left to end by itself and no longer waited for.
  void SetForceTerminateFunction(std::function<void()> function) { FForceTerminate = std::move(function); }

  ///@{ Life cycle; each returns the state afterwards.
  int Start(bool suspended);
  int Pause();
  int Resume();
  int Stop();
  int WaitForStopped(unsigned timeoutMs);
  ///@}

  ///@{ Inside the thread function.
  /// True once a stop was requested; waits here while the thread is paused.
  bool QueryForStop();
  void StartingExecution();
  void StoppingExecution();
  void SetTicksPerExecution();
  /// Runs the first queued function; returns 1 when one ran, 0 otherwise.
  int ExecuteFunctionsInThread();
  /// Waits for the synchronise-start event: 0 signalled or none, -2 time-out.
  int WaitForSynchronization();
  ///@}

  ///@{ Status.
  /// The state; notices a thread that has ended by itself.
  int GetThreadState();
  pid_t GetThreadID() const { return FTid.load(); }
  const std::string& GetName() const { return FName; }
  TEvent& GetStopThreadEvent() { return *FStopEvent; }
  TEvent& GetInitDoneEvent() { return *FInitDoneEvent; }
  /// Set while queued functions wait.
  TEvent& GetFunctionsEvent() { return FPending; }
  int GetThreadReturnValue() const { return FReturnValue.load(); }
  /// Seconds between the last StartingExecution and StoppingExecution, as stored by SetTicksPerExecution.
  double GetThreadExecutionTime();
  bool SetCustomThreadPriority(TCustomThreadPriority priority);
  TCustomThreadPriority GetCustomThreadPriority();
  ///@}

  /// Shares an event that several threads wait for in WaitForSynchronization; null clears it.
  /// timeoutMs -1 waits without limit.
  void SetSynchronizeStartEvent(std::shared_ptr<TEvent> event, int timeoutMs = -1);

  ///@{ Functions run in the thread on request of others.
  void EnableThreadedFunctionCalls();
  void DisableThreadedFunctionCalls();
  /// Queues function. Returns 3 when calls aren't enabled, 2 when queued without waiting; with wait,
  /// 1 when it ran, 0 when it didn't (cleaned up, failed, or the wait was cut short by abortEvent,
  /// in which case it is skipped if its turn comes later). The parameter is read by type: int and
  /// pointer as the pointer value, float and double from the pointed-to value, bool as non-null.
  int AddThreadedFunctionToListToExecute(TQueuedFunction function, TThreadFunctionParameterType type,
                                         void* parameter, bool wait, TEvent* abortEvent = nullptr);
  int ExecuteVoidFunctionWithinThread(std::function<void()> function, bool wait,
                                      TEvent* abortEvent = nullptr);
  int ExecuteIntFunctionWithinThread(std::function<void(int)> function, int value, bool wait,
                                     TEvent* abortEvent = nullptr);
  int ExecuteFloatFunctionWithinThread(std::function<void(float)> function, float value, bool wait,
                                       TEvent* abortEvent = nullptr);
  int ExecuteDoubleFunctionWithinThread(std::function<void(double)> function, double value, bool wait,
                                        TEvent* abortEvent = nullptr);
  int ExecuteBoolFunctionWithinThread(std::function<void(bool)> function, bool value, bool wait,
                                      TEvent* abortEvent = nullptr);
  int ExecutePtrFunctionWithinThread(std::function<void(void*)> function, void* value, bool wait,
                                     TEvent* abortEvent = nullptr);
  /// Empties the queue without running anything; waiting callers get 0.
  void CleanupAllFunctionsInList();
  ///@}

private:
  /// What the thread and its owner share; it outlives the object when a stopped-waiting thread was
  /// let go after a time-out.
  struct TControl {
    std::mutex Lock;
    std::condition_variable Changed;
    bool Finished = false;
    int ExitCode = -1;
    int SuspendCount = 0;
  };
  /// One queued call.
  struct TQueuedCall {
    std::mutex Lock; // held while the function runs
    int ReferenceCount = 1;
    bool Abandoned = false;
    bool Executed = false;
    TQueuedFunction Function;
    TThreadFunctionParameterType Type = TThreadFunctionParameterType::Void;
    TThreadFunctionValue Value;
    std::unique_ptr<TEvent> Done;
  };

  void ThreadEntry(std::shared_ptr<TControl> control, bool suspended);
  void WaitWhilePaused();
  void ReleaseCall(const std::shared_ptr<TQueuedCall>& call);
  void Join();

  std::string FName;
  TThreadFunction FFunction = nullptr;
  TBoundThreadFunction FBoundFunction;
  void* FParameter = nullptr;
  std::function<void()> FForceTerminate;

  std::thread FThread;
  std::shared_ptr<TControl> FControl;
  std::atomic<pid_t> FTid{0};
  std::atomic<int> FState{ctsStopped};
  std::atomic<int> FReturnValue{-1};
  std::shared_ptr<TEvent> FStopEvent = std::make_shared<TEvent>(true, false);
  std::shared_ptr<TEvent> FInitDoneEvent = std::make_shared<TEvent>(true, false);
  std::shared_ptr<TEvent> FSynchronizeEvent;
  int FSynchronizeTimeout = -1;
  std::mutex FSynchronizeLock;
  std::atomic<TCustomThreadPriority> FPriority{TCustomThreadPriority::Normal};

  std::mutex FTimingLock;
  std::chrono::steady_clock::time_point FStartTicks{}, FStopTicks{};
  std::chrono::steady_clock::duration FExecutionTicks{};

  std::mutex FQueueLock;
  std::deque<std::shared_ptr<TQueuedCall>> FQueue;
  TEvent FPending{true, false};
  TEvent FEmpty{true, true};
  TEvent FChanged{false, false};
  bool FCallsEnabled = false;
};
