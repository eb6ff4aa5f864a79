// The thread pool: threads that wait at a start signal, run the pool function and report back.
#include "common/threads/Threadpool.h"

#include "common/threads/Threaderrors.h"
#include "common/threads/Threadplatform.h"

#include <chrono>

TThreadPool::TThreadPool(std::string name, int numberOfThreads) : FName(std::move(name)) {
  SetNumberOfThreads(numberOfThreads);
}

TThreadPool::~TThreadPool() {
  KillThreads();
}

void TThreadPool::Initialize(TThreadPoolFunction function, void* parameter) {
  std::lock_guard lock(FLock);
  FFunction = std::move(function);
  FParameter = parameter;
}

void TThreadPool::SetNumberOfThreads(int numberOfThreads) {
  if (numberOfThreads < 0) numberOfThreads = 0;
  if (numberOfThreads == GetNumberOfThreads()) return;
  KillThreads();
  std::lock_guard lock(FLock);
  FInfos.clear();
  for (int i = 0; i < numberOfThreads; ++i) {
    auto info = std::make_unique<TThreadInfo>();
    info->Index = i;
    FInfos.push_back(std::move(info));
  }
}

void TThreadPool::PrepareThreadLocked(std::unique_lock<std::mutex>& lock, TThreadInfo& info) {
  if (info.Tid != 0) return;
  if (info.Thread.joinable()) info.Thread.join(); // a thread that was stopped has left its loop already
  info.Stop = false;
  info.Ready = true;
  info.Done = true;
  info.StartSignal = false;
  info.Thread = std::thread(&TThreadPool::ThreadMain, this, &info);
  // Wait until the thread has registered its kernel id, so that priority and affinity can be set
  // from outside right after a start.
  FDoneCondition.wait(lock, [&] { return info.Tid != 0; });
}

void TThreadPool::PrepareThreads() {
  std::unique_lock lock(FLock);
  for (auto& info : FInfos) PrepareThreadLocked(lock, *info);
}

void TThreadPool::PrepareThread(int index) {
  std::unique_lock lock(FLock);
  if (index >= 0 && index < GetNumberOfThreads()) PrepareThreadLocked(lock, *FInfos[index]);
}

void TThreadPool::StartThreads() {
  for (int i = 0; i < GetNumberOfThreads(); ++i) StartThread(i);
}

void TThreadPool::StartThread(int index) {
  std::unique_lock lock(FLock);
  if (index < 0 || index >= GetNumberOfThreads()) return;
  TThreadInfo& info = *FInfos[index];
  PrepareThreadLocked(lock, info);
  info.Ready = false;
  info.Stop = false;
  info.Done = false;
  info.Error = nullptr; // a new run starts without the error of the previous one
  info.StartSignal = true;
  info.StartCondition.notify_one();
}

void TThreadPool::StopThreads() {
  for (int i = 0; i < GetNumberOfThreads(); ++i) StopThread(i);
}

void TThreadPool::StopThread(int index) {
  std::lock_guard lock(FLock);
  if (index < 0 || index >= GetNumberOfThreads()) return;
  TThreadInfo& info = *FInfos[index];
  if (info.Tid == 0) return;
  info.Stop = true;
  info.StartSignal = true;
  info.StartCondition.notify_one();
}

void TThreadPool::KillThreads() {
  StopThreads();
  for (auto& info : FInfos) {
    if (info->Thread.joinable()) info->Thread.join();
  }
}

void TThreadPool::ThreadMain(TThreadInfo* info) {
  {
    std::lock_guard lock(FLock);
    info->Tid = oxthreads::CurrentThreadTid();
    FDoneCondition.notify_all();
  }
  const std::string memoryText = "TThreadPool Memory Allocation Exception in \"" + FName +
                                 "\" (ThreadIndex = " + std::to_string(info->Index) + ")";
  for (;;) {
    TThreadPoolFunction function;
    void* parameter = nullptr;
    {
      std::unique_lock lock(FLock);
      info->StartCondition.wait(lock, [&] { return info->StartSignal; });
      info->StartSignal = false;
      if (info->Stop) {
        info->Ready = true;
        info->Done = true;
        info->Tid = 0;
        FDoneCondition.notify_all();
        return;
      }
      function = FFunction;
      parameter = FParameter;
    }

    auto result = oxthreads::RunGuarded<OrvexException>(
        [&] {
          if (function) function(parameter, info->Index);
        },
        memoryText, "Unknown TThreadPool Thread Exception");
    if (result.MathError) {
      oxthreads::ReportThreadMathError(
          *result.Error, "FPU Exception \"" + result.Error->Message() + "\" in TThreadPool Thread: " + FName,
          "TThreadPool Thread: " + FName);
    } else if (result.Error) {
      oxthreads::ReportThreadError(*result.Error, "ThreadPoolThreadMain " + FName);
    }

    bool stop = false;
    {
      std::lock_guard lock(FLock);
      if (result.Error && !result.MathError)
        info->Error = std::move(result.Thrown); // no reference stays with this thread
      info->Ready = true;
      stop = info->Stop;
      if (stop) info->Tid = 0;
      info->Done = true;
      FDoneCondition.notify_all();
    }
    if (FRunFinished) FRunFinished();
    if (stop) return;
  }
}

bool TThreadPool::AreAllThreadsReady() {
  std::lock_guard lock(FLock);
  for (auto& info : FInfos)
    if (info->Tid != 0 && !info->Ready) return false;
  return true;
}

bool TThreadPool::WaitLocked(std::unique_lock<std::mutex>& lock, unsigned long milliseconds, int onlyIndex) {
  auto allDone = [&] {
    if (onlyIndex >= 0) return FInfos[onlyIndex]->Done;
    for (auto& info : FInfos)
      if (!info->Done) return false;
    return true;
  };
  if (milliseconds == kWaitInfinite) {
    FDoneCondition.wait(lock, allDone);
    return true;
  }
  return FDoneCondition.wait_for(lock, std::chrono::milliseconds(milliseconds), allDone);
}

void TThreadPool::ThrowStoredErrorLocked(std::unique_lock<std::mutex>& lock) {
  for (auto& info : FInfos) {
    if (info->Error) {
      std::exception_ptr error = info->Error;
      lock.unlock();
      std::rethrow_exception(error);
    }
  }
}

bool TThreadPool::WaitForThreads(unsigned long milliseconds) {
  std::unique_lock lock(FLock);
  if (!WaitLocked(lock, milliseconds, -1)) return false;
  ThrowStoredErrorLocked(lock);
  return true;
}

bool TThreadPool::WaitForThread(int index, unsigned long milliseconds) {
  std::unique_lock lock(FLock);
  if (index < 0 || index >= GetNumberOfThreads()) return false;
  if (FInfos[index]->Tid == 0 || FInfos[index]->Ready) return true;
  if (!WaitLocked(lock, milliseconds, index)) return false;
  ThrowStoredErrorLocked(lock);
  return true;
}

bool TThreadPool::SomeThreadThrewException(int& index) {
  std::lock_guard lock(FLock);
  for (auto& info : FInfos) {
    if (info->Error) {
      index = info->Index;
      return true;
    }
  }
  return false;
}

pid_t TThreadPool::GetThreadTid(int index) {
  std::lock_guard lock(FLock);
  if (index < 0 || index >= GetNumberOfThreads()) return 0;
  return FInfos[index]->Tid;
}
