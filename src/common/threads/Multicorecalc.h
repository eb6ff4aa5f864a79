// TMCC, the controller of one multi-core calculation: runs one thread function on several pool
// threads, divides elements, provides barriers, cancel, progress figures and error hand-back.
#pragma once

#include "common/OrvexException.h"
#include "common/threads/Mccprogressform.h"
#include "common/threads/Progressandcancel.h"
#include "common/threads/Threadplatform.h"
#include "common/threads/Threadpool.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

class IProgressView;
class TMCC;

/// Plain thread function of a calculation: the controller and the thread index.
using TMCCThreadFunction = void (*)(TMCC* mcc, int threadIndex);
/// Bound thread function (stands for a method of the tool that runs the calculation).
using TMCCMemberThreadFunction = std::function<void(TMCC* mcc, int threadIndex)>;

/// Controller of one multi-core calculation. Every thread runs the same function with its own
/// index 0 … T-1, takes its elements from GetFirstElementIndex/GetLastElementIndex, meets the others
/// at WaitForNextStep, polls GetCancel, and never lets an exception out: the first one is stored and
/// rethrown to the waiting thread as OrvexExceptionMCC.
///
/// As IProgressAndCancel it is the overall level (main caption, OverallProgress, the cancel flag); its
/// SubLevel is the sub caption and SubProgress. As IMCCProgressSource it feeds its progress form.
class TMCC final : public IProgressAndCancel, public IMCCProgressSource {
public:
  /// Priority of calculation threads unless set otherwise: below normal.
  static constexpr int DefaultMCCThreadPriority = -1;
  /// Most threads a start asks for.
  static constexpr int DefaultMCCMaxNumberOfThreads = 32;
  /// Most threads a controller runs.
  static constexpr int MaxNumberOfThreads = 64;

  /// numberOfThreads -1: one pool thread for each possible processor; otherwise max(1, value).
  explicit TMCC(std::string name, TMCCMemberThreadFunction memberFunction = nullptr,
                int numberOfThreads = -1);
  virtual ~TMCC();
  TMCC(const TMCC&) = delete;
  TMCC& operator=(const TMCC&) = delete;

  ///@{ Set-up; perThreadBlockSize > 0 gives every thread a private zeroed block in ThreadMemory.
  void MCCInit(TMCCThreadFunction function, void* userData, int perThreadBlockSize);
  void MCCInit(TMCCMemberThreadFunction function, void* userData, int perThreadBlockSize);
  /// Any callable of (TMCC*, int): lambdas without captures run as plain functions.
  template <class F>
  requires std::is_invocable_v<F&, TMCC*, int>
  void MCCInit(F&& function, void* userData, int perThreadBlockSize) {
    if constexpr (std::is_convertible_v<F, TMCCThreadFunction>)
      MCCInit(static_cast<TMCCThreadFunction>(function), userData, perThreadBlockSize);
    else
      MCCInit(TMCCMemberThreadFunction(std::forward<F>(function)), userData, perThreadBlockSize);
  }
  ///@}
  /// Creates the pool threads ahead of time, so that a later start is quick.
  void PrepareThreads();
  /// Accepts -15, -2, -1, 0, 1, 2, 15 only; others are ignored.
  void SetThreadPriorityForAllThreads(int priority);
  /// The mask is restricted to the process's processors; an empty result means all of those.
  void SetAffinityMaskForAllThreads(oxthreads::TAffinityMask mask);
  void SetNumThreads(int threads, int poolThreads);

  ///@{ Running.
  /// Starts the threads and returns at once; maxThreads below 1 means as many as allowed.
  void StartThreads(int maxThreads);
  /// The calling thread joins in as the last thread; returns when all are done (rethrows errors).
  void StartThreadsWait(int maxThreads);
  /// True when all threads have finished; then throws the stored error, if any.
  bool WaitForThreads(unsigned long milliseconds) override;
  /// Waits, keeping the main thread's queue served; after `milliseconds` shows the progress view
  /// until the threads have finished. Errors come as from WaitForThreads within the delay, and wrapped
  /// in an OrvexException once the view is shown.
  bool WaitAndShowProgressOnDelay(int milliseconds);
  /// Waits up to milliseconds for the threads to finish without taking out a stored error; on the
  /// main thread the main-thread queue is served meanwhile, so workers may Send to it.
  bool WaitForThreadsFinished(unsigned long milliseconds) override;
  void CancelThreads() override { FCancel.store(true, std::memory_order_relaxed); }
  void StopCancel() { FCancel.store(false, std::memory_order_relaxed); }
  /// True after CancelThreads, and while a process-wide cancel request is pending.
  bool GetCancel() const { return FCancel.load(std::memory_order_relaxed) || ProcessCancelRequested(); }
  ///@}

  ///@{ Inside a thread function.
  /// Barrier of all T threads; returns 1 for the thread that released the others, 0 otherwise.
  /// Throws OrvexExceptionMCCSiblingTriggered when another thread has failed.
  int WaitForNextStep(int threadIndex);
  /// The cancel flag as all threads agree on it at this point (two barriers).
  bool IsCanceledSafeWait(int threadIndex);
  static int GetFirstElementIndex(int threadIndex, int numberOfThreads, int numberOfElements);
  static int GetLastElementIndex(int threadIndex, int numberOfThreads, int numberOfElements);
  void SetProgressMainCaption(const std::string& caption);
  void SetProgressSubCaption(const std::string& caption);
  /// Stores the first error of the calculation (later ones are dropped) and wakes the barrier.
  void SetThreadException(const Exception* exception, int threadIndex);
  ///@}

  ///@{ Progress captions under their locks.
  void LockProgressMainCaption() { FMainCaptionLock.lock(); }
  void UnLockProgressMainCaption() { FMainCaptionLock.unlock(); }
  void LockProgressSubCaption() { FSubCaptionLock.lock(); }
  void UnLockProgressSubCaption() { FSubCaptionLock.unlock(); }
  std::string GetProgressMainCaption() override;
  std::string GetProgressSubCaption() override;
  ///@}

  ///@{ Progress figures as shown: the sums of the thread figures where the show flags say so.
  std::int64_t GetOverallProgress() const override;
  std::int64_t GetOverallProgressMax() const override;
  std::int64_t GetSubProgress() const override;
  std::int64_t GetSubProgressMax() const override;
  void GetThreadProgress(int threadIndex, std::int64_t& position, std::int64_t& maximum) const override;
  TProgressLayout GetProgressLayout() const override;
  ///@}

  ///@{ The overall level as the narrow progress channel that kernels and data objects take.
  void SetProgressCaption(const std::string& caption) override { SetProgressMainCaption(caption); }
  void SetProgress(std::int64_t done, std::int64_t total) override {
    OverallProgressMax.store(total, std::memory_order_relaxed);
    OverallProgress.store(done, std::memory_order_relaxed);
  }
  void AddProgress(std::int64_t delta) override {
    OverallProgress.fetch_add(delta, std::memory_order_relaxed);
  }
  bool IsCancelled() const override { return GetCancel(); }
  IProgressAndCancel& SubLevel() override { return FSubLevel; }
  ///@}

  bool ThreadThrowedException() const { return FExceptionOccured.load(); }
  void ResetExceptionOccured() { FExceptionOccured.store(false); }

  const std::string& GetName() const override { return FName; }
  void* GetUserData() const { return FUserData; }
  int GetNumberOfThreads() const { return FNumThreads; }
  int GetNumberOfPoolThreads() const { return FNumPoolThreads; }
  int GetNumberOfPossibleCPUs() const;
  int GetThreadPriority() const { return FThreadPriority; }
  oxthreads::TAffinityMask GetThreadAffinityMask() const { return FThreadAffinityMask; }
  /// The private block of a thread, null without blocks.
  void* GetThreadMemory(int threadIndex) const;
  /// Index of the thread whose error is stored, -1 for none.
  int GetStoredThreadIndex();
  TThreadPool& GetThreadPool() { return *FThreadPool; }

  /// The view WaitAndShowProgressOnDelay uses; null: the process-wide default view.
  void SetProgressView(IProgressView* view) { FProgressView = view; }

  ///@{ Process-wide settings that every controller honours.
  /// Most calculation threads of this process; 0 (the default) means all processors it may use.
  static void SetProcessThreadLimit(int maxThreads);
  static int GetProcessThreadLimit();
  /// Asks every running and future calculation to cancel, until ClearProcessCancelRequest. Safe to
  /// call from a signal handler (one lock-free atomic store).
  static void RequestProcessCancel() noexcept;
  static void ClearProcessCancelRequest() noexcept;
  static bool ProcessCancelRequested() noexcept;
  /// Progress view of calculations that have none of their own (the command line's console view,
  /// the workbench's dialog); null shows nothing. Not owned.
  static void SetDefaultProgressView(IProgressView* view);
  static IProgressView* GetDefaultProgressView();
  ///@}

  ///@{ Progress figures, written by the calculation without a lock (display only). A start zeroes
  /// OverallProgress, OverallProgressMax and the thread arrays, so maxima are set inside the thread function.
  std::atomic<std::int64_t> OverallProgress{0};
  std::atomic<std::int64_t> OverallProgressMax{0};
  std::atomic<std::int64_t> SubProgress{0};
  std::atomic<std::int64_t> SubProgressMax{0};
  /// One entry a thread; each thread writes its own. Zeroed at every start.
  std::vector<std::atomic<int>> ThreadProgress;
  std::vector<std::atomic<int>> ThreadProgressMax;
  ///@}
  ///@{ What the progress view shows; set before the start.
  bool OverallProgressInSteps = false;
  bool SubProgressInSteps = false;
  bool ShowOverallProgress = true;
  bool ShowSubProgress = false;
  bool ShowThreadProgress = false;
  bool ThreadProgressIsSubProgress = false;
  bool ShowCancelButton = false;
  bool ShowTimeRemaining = false;
  ///@}
  /// Private blocks of the threads, when the block size is positive.
  std::vector<void*> ThreadMemory;

private:
  /// The sub caption and SubProgress figures as a progress channel of their own.
  class TSubLevel final : public IProgressAndCancel {
  public:
    explicit TSubLevel(TMCC& owner) : FOwner(owner) {}
    void SetProgressCaption(const std::string& caption) override { FOwner.SetProgressSubCaption(caption); }
    void SetProgress(std::int64_t done, std::int64_t total) override {
      FOwner.SubProgressMax.store(total, std::memory_order_relaxed);
      FOwner.SubProgress.store(done, std::memory_order_relaxed);
    }
    void AddProgress(std::int64_t delta) override {
      FOwner.SubProgress.fetch_add(delta, std::memory_order_relaxed);
    }
    bool IsCancelled() const override { return FOwner.GetCancel(); }

  private:
    TMCC& FOwner;
  };

  /// Zeroes the figures of a new run and its barrier, starts the pool threads and gives them their settings.
  void StartRun();
  void GuardedThreadFunction(int threadIndex);
  void ResumeAllThreads(int exceptIndex);
  bool ChooseStart(int& maxThreads);
  void ApplyPoolThreadSettings();
  void FreeThreadArrays();
  void ThrowSibling();

  std::unique_ptr<TThreadPool> FThreadPool;
  TMCC* FSelf = this;
  TSubLevel FSubLevel{*this};
  int FPerThreadBlockSize = 0;
  oxthreads::TAffinityMask FProcessAffinityMask = 1;
  oxthreads::TAffinityMask FThreadAffinityMask = 1;
  int FThreadPriority = DefaultMCCThreadPriority;
  std::atomic<bool> FCancel{false};
  std::atomic<bool> FSafeCancel{false};

  std::mutex FExceptionLock;
  std::unique_ptr<OrvexExceptionMCC> FStoredException;
  int FStoredThreadIndex = -1;
  std::atomic<bool> FExceptionStored{false};
  std::atomic<bool> FExceptionOccured{false};

  std::mutex FBarrierLock;
  std::condition_variable FBarrierCondition;
  int FBarrierCount = 0;
  std::uint64_t FBarrierGeneration = 0;

  std::mutex FMainCaptionLock;
  std::mutex FSubCaptionLock;
  std::string FProgressMainCaption;
  std::string FProgressSubCaption;

  void* FUserData = nullptr;
  TMCCThreadFunction FFunction = nullptr;
  TMCCMemberThreadFunction FMemberFunction;
  std::string FName;

  int FNumThreads = 0;
  int FNumPoolThreads = 0;
  bool FStartGuard = false;
  IProgressView* FProgressView = nullptr;
  /// Set while the main thread waits in WaitAndShowProgressOnDelay: finished runs wake it.
  std::atomic<bool> FMainThreadWaiting{false};
  /// Priority and affinity last given to each pool thread, by kernel id, to skip needless calls.
  std::vector<pid_t> FAppliedTid;
  std::vector<int> FAppliedPriority;
  std::vector<oxthreads::TAffinityMask> FAppliedMask;
};
