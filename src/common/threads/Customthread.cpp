// One worker thread with state, stop event, cooperative pause, timing and a function queue.
#include "common/threads/Customthread.h"

#include "common/threads/Threaderrors.h"
#include "common/threads/Threadplatform.h"

#include <cstring>

namespace {

// Platform thread priorities of TCustomThreadPriority 0 … 6.
constexpr int kPlatformPriority[] = {-15, -2, -1, 0, 1, 2, 15};

} // namespace

TCustomThread::TCustomThread(std::string name) : FName(std::move(name)) {}

TCustomThread::~TCustomThread() {
  WaitForStopped(static_cast<unsigned>(-1));
  // A thread that was let go after a time-out still uses this object: wait for it without limit.
  if (FControl) {
    std::unique_lock lock(FControl->Lock);
    FControl->Changed.wait(lock, [&] { return FControl->Finished; });
  }
  Join();
  CleanupAllFunctionsInList();
}

void TCustomThread::SetThreadFunction(TThreadFunction function, void* parameter) {
  FFunction = function;
  FParameter = parameter;
}

void TCustomThread::SetThreadFunction(TBoundThreadFunction function, void* parameter) {
  FBoundFunction = std::move(function);
  FParameter = parameter;
}

void TCustomThread::Join() {
  if (FThread.joinable()) FThread.join();
}

int TCustomThread::Start(bool suspended) {
  if (!FFunction && !FBoundFunction) {
    FState = ctsStopped;
    return FState;
  }
  if (FControl) {
    std::lock_guard lock(FControl->Lock);
    if (!FControl->Finished) return FState; // the previous run is still going
  }
  FStopEvent->Reset();
  FInitDoneEvent->Reset();
  Join();
  FControl = std::make_shared<TControl>();
  FControl->SuspendCount = suspended ? 1 : 0;
  FReturnValue = -1;
  FTid = 0;
  try {
    FThread = std::thread(&TCustomThread::ThreadEntry, this, FControl, suspended);
  } catch (const std::system_error&) {
    FControl.reset();
    FState = ctsStopped;
    return FState;
  }
  FState = suspended ? ctsSuspended : ctsRunning;
  return FState;
}

void TCustomThread::ThreadEntry(std::shared_ptr<TControl> control, bool suspended) {
  FTid = oxthreads::CurrentThreadTid();
  if (FPriority != TCustomThreadPriority::Normal)
    oxthreads::SetThreadPriority(0, kPlatformPriority[static_cast<int>(FPriority.load())]);
  FInitDoneEvent->Set();
  if (suspended) WaitWhilePaused();

  int exitCode = -1;
  auto result = oxthreads::RunGuarded<OrvexException>(
      [&] {
        if (FFunction)
          exitCode = FFunction(this, FParameter);
        else
          exitCode = FBoundFunction(this, FParameter);
      },
      "TCustomThread Memory Allocation Exception in \"" + FName + "\"", "Unknown TCustomThread Exception");
  if (result.MathError) {
    oxthreads::LogThreadMessage("FPU Exception \"" + result.Error->Message() +
                                "\" in CustomThread: " + FName);
    oxthreads::SetFPUExceptionOccurred();
    exitCode = -1;
  } else if (result.Error) {
    oxthreads::ReportThreadError(*result.Error, "TCustomThread " + FName);
    exitCode = -1;
  }

  std::lock_guard lock(control->Lock);
  control->ExitCode = exitCode;
  control->Finished = true;
  control->Changed.notify_all();
  // Nothing of this object may be touched from here on: its owner may be gone.
}

void TCustomThread::WaitWhilePaused() {
  std::shared_ptr<TControl> control = FControl;
  if (!control) return;
  std::unique_lock lock(control->Lock);
  control->Changed.wait(lock, [&] { return control->SuspendCount <= 0; });
}

int TCustomThread::Pause() {
  if (!FControl || GetThreadState() == ctsStopped) return ctsStopped;
  {
    std::lock_guard lock(FControl->Lock);
    ++FControl->SuspendCount;
  }
  FState = ctsSuspended;
  return FState;
}

int TCustomThread::Resume() {
  if (!FControl || GetThreadState() == ctsStopped) return ctsStopped;
  int previous = 0;
  {
    std::lock_guard lock(FControl->Lock);
    previous = FControl->SuspendCount;
    if (FControl->SuspendCount > 0) --FControl->SuspendCount;
    FControl->Changed.notify_all();
  }
  if (FState != ctsStopRequested) FState = previous > 1 ? ctsSuspended : ctsRunning;
  return FState;
}

int TCustomThread::Stop() {
  if (!FControl || GetThreadState() == ctsStopped) return ctsStopped;
  // A paused thread is resumed however deep its suspend count, so that it can see the stop.
  while (FState == ctsSuspended) Resume();
  FStopEvent->Set();
  FState = ctsStopRequested;
  return FState;
}

int TCustomThread::WaitForStopped(unsigned timeoutMs) {
  if (!FControl) return FState = ctsStopped;
  Stop();
  std::shared_ptr<TControl> control = FControl;
  bool finished = false;
  {
    std::unique_lock lock(control->Lock);
    auto done = [&] { return control->Finished; };
    if (timeoutMs == static_cast<unsigned>(-1))
      control->Changed.wait(lock, done);
    else
      control->Changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
    finished = control->Finished;
  }
  if (finished) return GetThreadState();
  // No safe way to end a thread by force: call the owner's replacement if there is one, and stop
  // waiting for this thread; it ends when its function returns.
  if (FForceTerminate) FForceTerminate();
  oxthreads::LogThreadMessage("TCustomThread \"" + FName + "\" did not stop within " +
                              std::to_string(timeoutMs) + " ms and was left to end by itself");
  if (FThread.joinable()) FThread.detach();
  FReturnValue = -1;
  return FState;
}

int TCustomThread::GetThreadState() {
  if (FControl) {
    bool finished = false;
    int exitCode = -1;
    {
      std::lock_guard lock(FControl->Lock);
      finished = FControl->Finished;
      exitCode = FControl->ExitCode;
    }
    if (finished && FState != ctsStopped) {
      Join();
      FReturnValue = exitCode;
      FState = ctsStopped;
      FTid = 0;
    }
  }
  return FState;
}

bool TCustomThread::QueryForStop() {
  WaitWhilePaused();
  return FStopEvent->IsSet();
}

void TCustomThread::StartingExecution() {
  std::lock_guard lock(FTimingLock);
  FStartTicks = std::chrono::steady_clock::now();
}

void TCustomThread::StoppingExecution() {
  std::lock_guard lock(FTimingLock);
  FStopTicks = std::chrono::steady_clock::now();
}

void TCustomThread::SetTicksPerExecution() {
  std::lock_guard lock(FTimingLock);
  FExecutionTicks = FStopTicks - FStartTicks;
}

double TCustomThread::GetThreadExecutionTime() {
  std::lock_guard lock(FTimingLock);
  return std::chrono::duration<double>(FExecutionTicks).count();
}

bool TCustomThread::SetCustomThreadPriority(TCustomThreadPriority priority) {
  const int value = static_cast<int>(priority);
  if (value < 0 || value > 6) return false;
  FPriority = priority;
  const pid_t tid = FTid.load();
  if (tid == 0) return true; // applied when the thread starts
  return oxthreads::SetThreadPriority(tid, kPlatformPriority[value]);
}

TCustomThreadPriority TCustomThread::GetCustomThreadPriority() {
  const pid_t tid = FTid.load();
  int nice = 0;
  if (tid == 0 || GetThreadState() == ctsStopped || !oxthreads::GetThreadNice(tid, nice))
    return TCustomThreadPriority::Unknown;
  const int platform = oxthreads::NiceToThreadPriority(nice);
  for (int i = 0; i <= 6; ++i)
    if (kPlatformPriority[i] == platform) return static_cast<TCustomThreadPriority>(i);
  return TCustomThreadPriority::Unknown;
}

void TCustomThread::SetSynchronizeStartEvent(std::shared_ptr<TEvent> event, int timeoutMs) {
  std::lock_guard lock(FSynchronizeLock);
  FSynchronizeEvent = std::move(event);
  FSynchronizeTimeout = timeoutMs;
}

int TCustomThread::WaitForSynchronization() {
  WaitWhilePaused();
  std::shared_ptr<TEvent> event;
  int timeout = -1;
  {
    std::lock_guard lock(FSynchronizeLock);
    event = FSynchronizeEvent;
    timeout = FSynchronizeTimeout;
  }
  if (!event) return 0;
  return event->Wait(timeout) ? 0 : -2;
}

// ---------------------------------------------------------------------------------------------------------
// Function queue

void TCustomThread::EnableThreadedFunctionCalls() {
  std::lock_guard lock(FQueueLock);
  FCallsEnabled = true;
}

void TCustomThread::DisableThreadedFunctionCalls() {
  std::lock_guard lock(FQueueLock);
  FCallsEnabled = false;
}

int TCustomThread::AddThreadedFunctionToListToExecute(TQueuedFunction function,
                                                      TThreadFunctionParameterType type, void* parameter,
                                                      bool wait, TEvent* abortEvent) {
  std::shared_ptr<TQueuedCall> call;
  {
    std::lock_guard lock(FQueueLock);
    if (!FCallsEnabled) return 3;
    call = std::make_shared<TQueuedCall>();
    call->Function = std::move(function);
    call->Type = type;
    switch (type) {
    case TThreadFunctionParameterType::Int:
      call->Value.Int = static_cast<int>(reinterpret_cast<std::intptr_t>(parameter));
      break;
    case TThreadFunctionParameterType::Float:
      if (parameter) std::memcpy(&call->Value.Float, parameter, sizeof(float));
      break;
    case TThreadFunctionParameterType::Double:
      if (parameter) std::memcpy(&call->Value.Double, parameter, sizeof(double));
      break;
    case TThreadFunctionParameterType::Bool:
      call->Value.Bool = parameter != nullptr;
      break;
    case TThreadFunctionParameterType::Pointer:
      call->Value.Pointer = parameter;
      break;
    default:
      break;
    }
    if (wait) {
      call->Done = std::make_unique<TEvent>(false, false);
      call->ReferenceCount = 2;
    }
    if (FQueue.empty()) {
      FPending.Set();
      FEmpty.Reset();
    }
    FQueue.push_back(call);
    FChanged.Set();
  }
  if (!wait) return 2;

  TEvent::WaitForAny({call->Done.get(), abortEvent}, -1);
  std::lock_guard lock(call->Lock); // blocks while the function runs
  --call->ReferenceCount;
  if (call->ReferenceCount >= 1) {
    call->Abandoned = true; // cut short: skipped if its turn comes
    return 0;
  }
  return call->Executed ? 1 : 0;
}

void TCustomThread::ReleaseCall(const std::shared_ptr<TQueuedCall>& call) {
  if (call->Done) call->Done->Set();
  --call->ReferenceCount;
}

int TCustomThread::ExecuteFunctionsInThread() {
  WaitWhilePaused();
  std::shared_ptr<TQueuedCall> call;
  {
    std::lock_guard lock(FQueueLock);
    if (FQueue.empty()) return 0;
    call = FQueue.front();
    FQueue.pop_front();
    if (FQueue.empty()) {
      FPending.Reset();
      FEmpty.Set();
    }
    FChanged.Set();
  }
  bool ran = false;
  {
    std::lock_guard lock(call->Lock);
    if (!call->Abandoned && call->Function) {
      try {
        call->Function(call->Type, call->Value);
        call->Executed = true;
        ran = true;
      } catch (const Exception& e) {
        oxthreads::ReportThreadError(e, "TCustomThread " + FName + " queued function");
      } catch (const std::exception& e) {
        oxthreads::ReportThreadError(Exception(e.what()), "TCustomThread " + FName + " queued function");
      } catch (...) {
        oxthreads::ReportThreadError(Exception("unknown exception"),
                                     "TCustomThread " + FName + " queued function");
      }
    }
    ReleaseCall(call);
  }
  return ran ? 1 : 0;
}

void TCustomThread::CleanupAllFunctionsInList() {
  std::deque<std::shared_ptr<TQueuedCall>> calls;
  {
    std::lock_guard lock(FQueueLock);
    calls.swap(FQueue);
    FPending.Reset();
    FEmpty.Set();
    FChanged.Set();
  }
  for (auto& call : calls) {
    std::lock_guard lock(call->Lock);
    ReleaseCall(call);
  }
}

int TCustomThread::ExecuteVoidFunctionWithinThread(std::function<void()> function, bool wait,
                                                   TEvent* abortEvent) {
  return AddThreadedFunctionToListToExecute(
      [f = std::move(function)](TThreadFunctionParameterType, const TThreadFunctionValue&) { f(); },
      TThreadFunctionParameterType::Void, nullptr, wait, abortEvent);
}

int TCustomThread::ExecuteIntFunctionWithinThread(std::function<void(int)> function, int value, bool wait,
                                                  TEvent* abortEvent) {
  return AddThreadedFunctionToListToExecute(
      [f = std::move(function)](TThreadFunctionParameterType, const TThreadFunctionValue& v) { f(v.Int); },
      TThreadFunctionParameterType::Int, reinterpret_cast<void*>(static_cast<std::intptr_t>(value)), wait,
      abortEvent);
}

int TCustomThread::ExecuteFloatFunctionWithinThread(std::function<void(float)> function, float value,
                                                    bool wait, TEvent* abortEvent) {
  return AddThreadedFunctionToListToExecute(
      [f = std::move(function)](TThreadFunctionParameterType, const TThreadFunctionValue& v) { f(v.Float); },
      TThreadFunctionParameterType::Float, &value, wait, abortEvent);
}

int TCustomThread::ExecuteDoubleFunctionWithinThread(std::function<void(double)> function, double value,
                                                     bool wait, TEvent* abortEvent) {
  return AddThreadedFunctionToListToExecute(
      [f = std::move(function)](TThreadFunctionParameterType, const TThreadFunctionValue& v) { f(v.Double); },
      TThreadFunctionParameterType::Double, &value, wait, abortEvent);
}

int TCustomThread::ExecuteBoolFunctionWithinThread(std::function<void(bool)> function, bool value, bool wait,
                                                   TEvent* abortEvent) {
  return AddThreadedFunctionToListToExecute(
      [f = std::move(function)](TThreadFunctionParameterType, const TThreadFunctionValue& v) { f(v.Bool); },
      TThreadFunctionParameterType::Bool, value ? reinterpret_cast<void*>(1) : nullptr, wait, abortEvent);
}

int TCustomThread::ExecutePtrFunctionWithinThread(std::function<void(void*)> function, void* value, bool wait,
                                                  TEvent* abortEvent) {
  return AddThreadedFunctionToListToExecute(
      [f = std::move(function)](TThreadFunctionParameterType, const TThreadFunctionValue& v) {
        f(v.Pointer);
      },
      TThreadFunctionParameterType::Pointer, value, wait, abortEvent);
}
