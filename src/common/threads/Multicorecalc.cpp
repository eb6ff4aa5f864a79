// The multi-core calculation controller.
#include "common/threads/Multicorecalc.h"

#include "common/MainThreadQueue.h"
#include "common/threads/Mccprogressform.h"
#include "common/threads/Threaderrors.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>

namespace {

std::atomic<int> gProcessThreadLimit{0};
std::atomic<bool> gProcessCancelRequest{false};
std::atomic<IProgressView*> gDefaultProgressView{nullptr};

static_assert(std::atomic<bool>::is_always_lock_free, "the cancel request is set from signal handlers");

constexpr std::size_t kThreadMemoryAlignment = 64;

} // namespace

// ---------------------------------------------------------------------------------------------------------
// Process-wide settings

void TMCC::SetProcessThreadLimit(int maxThreads) {
  gProcessThreadLimit.store(std::max(0, maxThreads));
}
int TMCC::GetProcessThreadLimit() {
  return gProcessThreadLimit.load();
}
void TMCC::RequestProcessCancel() noexcept {
  gProcessCancelRequest.store(true, std::memory_order_relaxed);
}
void TMCC::ClearProcessCancelRequest() noexcept {
  gProcessCancelRequest.store(false);
}
bool TMCC::ProcessCancelRequested() noexcept {
  return gProcessCancelRequest.load(std::memory_order_relaxed);
}
void TMCC::SetDefaultProgressView(IProgressView* view) {
  gDefaultProgressView.store(view);
}
IProgressView* TMCC::GetDefaultProgressView() {
  return gDefaultProgressView.load();
}

// ---------------------------------------------------------------------------------------------------------
// Construction and set-up

TMCC::TMCC(std::string name, TMCCMemberThreadFunction memberFunction, int numberOfThreads)
    : FMemberFunction(std::move(memberFunction)), FName(std::move(name)) {
  FProcessAffinityMask = oxthreads::GetProcessAffinityMask();
  FThreadAffinityMask = FProcessAffinityMask;
  const int poolThreads = numberOfThreads == -1 ? GetNumberOfPossibleCPUs() : std::max(1, numberOfThreads);
  FThreadPool = std::make_unique<TThreadPool>(FName, poolThreads);
  FThreadPool->Initialize(
      [](void* self, int threadIndex) { static_cast<TMCC*>(self)->GuardedThreadFunction(threadIndex); },
      FSelf);
  FThreadPool->SetRunFinishedCallback([this] {
    // Wakes the main thread when it waits for this calculation while serving its queue.
    if (FMainThreadWaiting.load()) TMainThreadQueue::Instance().Post([] {});
  });
}

TMCC::~TMCC() {
  // The pool goes first: its threads must have ended before the fields they use disappear.
  FThreadPool.reset();
  FreeThreadArrays();
}

void TMCC::MCCInit(TMCCThreadFunction function, void* userData, int perThreadBlockSize) {
  FFunction = function;
  FUserData = userData;
  if (perThreadBlockSize != FPerThreadBlockSize) {
    FPerThreadBlockSize = perThreadBlockSize;
    // Thread arrays are rebuilt with the new block size at the next start.
    FreeThreadArrays();
    FNumThreads = 0;
    FNumPoolThreads = 0;
  }
}

void TMCC::MCCInit(TMCCMemberThreadFunction function, void* userData, int perThreadBlockSize) {
  FFunction = nullptr;
  FMemberFunction = std::move(function);
  MCCInit(static_cast<TMCCThreadFunction>(nullptr), userData, perThreadBlockSize);
}

void TMCC::PrepareThreads() {
  FThreadPool->PrepareThreads();
}

void TMCC::SetThreadPriorityForAllThreads(int priority) {
  if (!oxthreads::IsValidThreadPriority(priority)) return;
  FThreadPriority = priority;
  ApplyPoolThreadSettings();
}

void TMCC::SetAffinityMaskForAllThreads(oxthreads::TAffinityMask mask) {
  mask &= FProcessAffinityMask;
  FThreadAffinityMask = mask != 0 ? mask : FProcessAffinityMask;
  ApplyPoolThreadSettings();
}

int TMCC::GetNumberOfPossibleCPUs() const {
  int cpus = std::max(1, oxthreads::CountProcessors(FThreadAffinityMask));
  const int limit = GetProcessThreadLimit();
  if (limit > 0) cpus = std::min(cpus, limit);
  return cpus;
}

void TMCC::FreeThreadArrays() {
  for (void*& block : ThreadMemory) {
    if (block) ::operator delete(block, std::align_val_t(kThreadMemoryAlignment));
    block = nullptr;
  }
  ThreadMemory.clear();
  ThreadProgress.clear();
  ThreadProgressMax.clear();
}

void TMCC::SetNumThreads(int threads, int poolThreads) {
  if (threads == FNumThreads && poolThreads == FNumPoolThreads && !ThreadProgress.empty()) return;
  FreeThreadArrays();
  FNumThreads = std::clamp(threads, 1, MaxNumberOfThreads);
  FNumPoolThreads = std::max(0, poolThreads);
  ThreadProgress = std::vector<std::atomic<int>>(FNumThreads);
  ThreadProgressMax = std::vector<std::atomic<int>>(FNumThreads);
  ThreadMemory.assign(FNumThreads, nullptr);
  if (FPerThreadBlockSize > 0) {
    for (void*& block : ThreadMemory) {
      block = ::operator new(static_cast<std::size_t>(FPerThreadBlockSize),
                             std::align_val_t(kThreadMemoryAlignment));
      std::memset(block, 0, static_cast<std::size_t>(FPerThreadBlockSize));
    }
  }
  // A larger pool stays as it is; only its first FNumPoolThreads threads run.
  if (FThreadPool->GetNumberOfThreads() < FNumPoolThreads) FThreadPool->SetNumberOfThreads(FNumPoolThreads);
}

void* TMCC::GetThreadMemory(int threadIndex) const {
  if (threadIndex < 0 || threadIndex >= static_cast<int>(ThreadMemory.size())) return nullptr;
  return ThreadMemory[threadIndex];
}

void TMCC::ApplyPoolThreadSettings() {
  const int poolThreads = std::min(FNumPoolThreads, FThreadPool->GetNumberOfThreads());
  if (static_cast<int>(FAppliedTid.size()) < poolThreads) {
    FAppliedTid.resize(poolThreads, 0);
    FAppliedPriority.resize(poolThreads, 0);
    FAppliedMask.resize(poolThreads, 0);
  }
  for (int i = 0; i < poolThreads; ++i) {
    const pid_t tid = FThreadPool->GetThreadTid(i);
    if (tid == 0) continue;
    // A thread keeps its settings between runs: only new threads and changed values need the calls.
    if (FAppliedTid[i] == tid && FAppliedMask[i] == FThreadAffinityMask &&
        FAppliedPriority[i] == FThreadPriority)
      continue;
    oxthreads::SetThreadAffinity(tid, FThreadAffinityMask);
    oxthreads::SetThreadPriority(tid, FThreadPriority);
    FAppliedTid[i] = tid;
    FAppliedMask[i] = FThreadAffinityMask;
    FAppliedPriority[i] = FThreadPriority;
  }
}

// ---------------------------------------------------------------------------------------------------------
// Element partition

int TMCC::GetFirstElementIndex(int threadIndex, int numberOfThreads, int numberOfElements) {
  if (numberOfElements <= threadIndex) return -1;
  if (numberOfElements < numberOfThreads) return threadIndex;
  // Exact integer arithmetic: the same truncated quotient as the extended-precision product.
  return static_cast<int>(static_cast<std::int64_t>(threadIndex) * numberOfElements / numberOfThreads);
}

int TMCC::GetLastElementIndex(int threadIndex, int numberOfThreads, int numberOfElements) {
  if (numberOfElements <= threadIndex) return -2;
  if (numberOfElements < numberOfThreads) return threadIndex;
  return static_cast<int>((static_cast<std::int64_t>(threadIndex) + 1) * numberOfElements / numberOfThreads) -
         1;
}

// ---------------------------------------------------------------------------------------------------------
// Running

bool TMCC::ChooseStart(int& maxThreads) {
  if (!FFunction && !FMemberFunction) return false;
  if (FStartGuard) return false;
  FStartGuard = true;
  FCancel.store(false);
  FSafeCancel.store(false);
  if (maxThreads < 1 || maxThreads > DefaultMCCMaxNumberOfThreads) maxThreads = DefaultMCCMaxNumberOfThreads;
  return true;
}

void TMCC::StartThreads(int maxThreads) {
  if (!ChooseStart(maxThreads)) return;
  const int n = maxThreads;
  const int p = GetNumberOfPossibleCPUs();
  const int t = FNumThreads;
  const int pool = FNumPoolThreads;
  if (n == 1 || (p == 1 && t != 1 && pool != 1)) {
    SetNumThreads(1, 1);
  } else if (n < p && t != n && pool != n) {
    SetNumThreads(n, n);
  } else if (!(t == p && pool == p)) {
    SetNumThreads(p, p);
  }
  StartRun();
  FStartGuard = false;
}

void TMCC::StartRun() {
  for (int i = 0; i < FNumThreads; ++i) {
    ThreadProgress[i].store(0);
    ThreadProgressMax[i].store(0);
  }
  // The overall figures are zeroed before the threads run, so that a thread may set them at once.
  OverallProgress.store(0);
  OverallProgressMax.store(0);
  {
    std::lock_guard lock(FBarrierLock);
    FBarrierCount = 0;
  }
  for (int i = 0; i < FNumPoolThreads; ++i) FThreadPool->StartThread(i);
  ApplyPoolThreadSettings();
}

void TMCC::StartThreadsWait(int maxThreads) {
  if (!ChooseStart(maxThreads)) return;
  const int n = maxThreads;
  const int p = GetNumberOfPossibleCPUs();
  const int t = FNumThreads;
  const int pool = FNumPoolThreads;
  if (n > 1 && p > 1) {
    if (n < p && t != n && pool != n - 1)
      SetNumThreads(n, n - 1);
    else if (!(t == p && pool == p - 1))
      SetNumThreads(p, p - 1);
  } else {
    SetNumThreads(1, 0);
  }
  StartRun();

  // The calling thread works as the last thread with the calculation's affinity and priority.
  oxthreads::TAffinityMask oldMask = 0;
  const bool oldMaskKnown = oxthreads::GetThreadAffinity(0, oldMask) && oldMask != 0;
  if (oldMask != FThreadAffinityMask) oxthreads::SetThreadAffinity(0, FThreadAffinityMask);
  int oldNice = 0;
  // Lowering the caller's priority is only done when it can be raised again afterwards.
  const bool changePriority = oxthreads::GetThreadNice(0, oldNice) &&
                              oxthreads::ThreadPriorityToNice(FThreadPriority) != oldNice &&
                              oxthreads::CanLowerNiceTo(oldNice);
  if (changePriority) oxthreads::SetThreadPriority(0, FThreadPriority);

  GuardedThreadFunction(FNumThreads - 1);
  WaitForThreads(kWaitInfinite);

  if (oldMaskKnown && oldMask != FThreadAffinityMask) oxthreads::SetThreadAffinity(0, oldMask);
  if (changePriority) oxthreads::SetThreadPriority(0, oxthreads::NiceToThreadPriority(oldNice));
  FStartGuard = false;
}

void TMCC::GuardedThreadFunction(int threadIndex) {
  auto result = oxthreads::RunGuarded<OrvexExceptionMCC>(
      [&] {
        if (FFunction)
          FFunction(FSelf, threadIndex);
        else if (FMemberFunction)
          FMemberFunction(FSelf, threadIndex);
      },
      "MCC-Thread Memory Allocation Exception in \"" + FName +
          "\" (ThreadIndex = " + std::to_string(threadIndex) + ")",
      "Unknown MCC-Thread Exception");
  if (!result.Error) return;
  if (result.MathError) {
    // A math error ends only its own thread; the calculation is not told.
    oxthreads::ReportThreadMathError(
        *result.Error, "FPU Exception \"" + result.Error->Message() + "\" in MCC Thread: " + FName,
        "MCC Thread: " + FName);
    return;
  }
  // A sibling exception only ends its thread: the error that caused it is stored already.
  if (dynamic_cast<const OrvexExceptionMCCSiblingTriggered*>(result.Error.get())) return;
  oxthreads::ReportThreadError(*result.Error, "MCCThreadFunction " + FName);
  SetThreadException(result.Error.get(), threadIndex);
}

void TMCC::SetThreadException(const Exception* exception, int threadIndex) {
  {
    std::lock_guard lock(FExceptionLock);
    if (!FStoredException) {
      const std::string text =
          "MCC-Thread Exception in \"" + FName + "\" (ThreadIndex = " + std::to_string(threadIndex) + ")";
      FStoredException = exception ? std::make_unique<OrvexExceptionMCC>(text, *exception)
                                   : std::make_unique<OrvexExceptionMCC>(text);
      FStoredThreadIndex = threadIndex;
      FExceptionOccured.store(true);
      FExceptionStored.store(true);
    }
  }
  ResumeAllThreads(threadIndex);
}

int TMCC::GetStoredThreadIndex() {
  std::lock_guard lock(FExceptionLock);
  return FStoredThreadIndex;
}

bool TMCC::WaitForThreadsFinished(unsigned long milliseconds) {
  if (FNumPoolThreads <= 0) return true;
  auto& queue = TMainThreadQueue::Instance();
  if (!queue.HasMainThread() || !queue.IsMainThread()) return FThreadPool->WaitForThreads(milliseconds);

  // On the main thread: serve its queue while waiting. Finished pool threads post an empty item, so
  // the wait ends at once when the last one is done.
  struct TWaitingFlag {
    std::atomic<bool>& Flag;
    ~TWaitingFlag() { Flag.store(false); }
  } waiting{FMainThreadWaiting};
  FMainThreadWaiting.store(true);
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    queue.ProcessPending();
    if (FThreadPool->WaitForThreads(0)) return true;
    std::chrono::milliseconds slice(50);
    if (milliseconds != kWaitInfinite) {
      const auto elapsed =
          std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
      const auto left = std::chrono::milliseconds(milliseconds) - elapsed;
      if (left <= std::chrono::milliseconds(0)) return false;
      slice = std::min(slice, left);
    }
    queue.WaitAndProcess(slice);
  }
}

bool TMCC::WaitForThreads(unsigned long milliseconds) {
  if (FNumPoolThreads > 0 && !WaitForThreadsFinished(milliseconds)) return false;
  std::unique_ptr<OrvexExceptionMCC> stored;
  {
    std::lock_guard lock(FExceptionLock);
    if (FStoredException) {
      stored = std::move(FStoredException);
      FStoredThreadIndex = -1;
      FExceptionStored.store(false);
    }
  }
  if (stored) throw OrvexExceptionMCC(*stored);
  return true;
}

bool TMCC::WaitAndShowProgressOnDelay(int milliseconds) {
  if (WaitForThreads(static_cast<unsigned long>(std::max(0, milliseconds)))) return true;
  IProgressView* view = FProgressView ? FProgressView : GetDefaultProgressView();
  TMCCProgressForm form(this, "", view);
  form.ShowModal();
  return true;
}

// ---------------------------------------------------------------------------------------------------------
// Barrier and cancel

void TMCC::ThrowSibling() {
  throw OrvexExceptionMCCSiblingTriggered("MCC-Sibling-Thread Exception in \"" + FName + "\"");
}

int TMCC::WaitForNextStep(int /*threadIndex*/) {
  std::unique_lock lock(FBarrierLock);
  ++FBarrierCount;
  const bool last = FBarrierCount >= FNumThreads;
  if (FExceptionStored.load()) {
    lock.unlock();
    ThrowSibling();
  }
  if (!last) {
    const std::uint64_t generation = FBarrierGeneration;
    FBarrierCondition.wait(lock, [&] { return FBarrierGeneration != generation || FExceptionStored.load(); });
    if (FExceptionStored.load()) {
      lock.unlock();
      ThrowSibling();
    }
    return 0;
  }
  FBarrierCount = 0;
  ++FBarrierGeneration;
  lock.unlock();
  FBarrierCondition.notify_all();
  return 1;
}

void TMCC::ResumeAllThreads(int /*exceptIndex*/) {
  {
    std::lock_guard lock(FBarrierLock);
    if (FBarrierCount > 0) FBarrierCount = 0;
    ++FBarrierGeneration;
  }
  FBarrierCondition.notify_all();
}

bool TMCC::IsCanceledSafeWait(int threadIndex) {
  WaitForNextStep(threadIndex);
  if (threadIndex == 0) FSafeCancel.store(GetCancel());
  WaitForNextStep(threadIndex);
  return FSafeCancel.load();
}

// ---------------------------------------------------------------------------------------------------------
// Progress

void TMCC::SetProgressMainCaption(const std::string& caption) {
  std::lock_guard lock(FMainCaptionLock);
  FProgressMainCaption = caption;
}

void TMCC::SetProgressSubCaption(const std::string& caption) {
  std::lock_guard lock(FSubCaptionLock);
  FProgressSubCaption = caption;
}

std::string TMCC::GetProgressMainCaption() {
  std::lock_guard lock(FMainCaptionLock);
  return FProgressMainCaption;
}

std::string TMCC::GetProgressSubCaption() {
  std::lock_guard lock(FSubCaptionLock);
  return FProgressSubCaption;
}

namespace {
std::int64_t Sum(const std::vector<std::atomic<int>>& values) {
  std::int64_t sum = 0;
  for (const auto& value : values) sum += value.load(std::memory_order_relaxed);
  return sum;
}
} // namespace

std::int64_t TMCC::GetOverallProgress() const {
  if (ShowThreadProgress && !ThreadProgressIsSubProgress) return Sum(ThreadProgress);
  return OverallProgress.load(std::memory_order_relaxed);
}

std::int64_t TMCC::GetOverallProgressMax() const {
  if (ShowThreadProgress && !ThreadProgressIsSubProgress) return Sum(ThreadProgressMax);
  return OverallProgressMax.load(std::memory_order_relaxed);
}

std::int64_t TMCC::GetSubProgress() const {
  if (ShowThreadProgress && ThreadProgressIsSubProgress) return Sum(ThreadProgress);
  return SubProgress.load(std::memory_order_relaxed);
}

std::int64_t TMCC::GetSubProgressMax() const {
  if (ShowThreadProgress && ThreadProgressIsSubProgress) return Sum(ThreadProgressMax);
  return SubProgressMax.load(std::memory_order_relaxed);
}

void TMCC::GetThreadProgress(int threadIndex, std::int64_t& position, std::int64_t& maximum) const {
  position = maximum = 0;
  if (threadIndex < 0 || threadIndex >= static_cast<int>(ThreadProgress.size())) return;
  position = ThreadProgress[threadIndex].load(std::memory_order_relaxed);
  maximum = ThreadProgressMax[threadIndex].load(std::memory_order_relaxed);
}

TProgressLayout TMCC::GetProgressLayout() const {
  TProgressLayout layout;
  layout.ShowOverall = ShowOverallProgress;
  layout.ShowSub = ShowSubProgress;
  layout.ShowTimes = ShowTimeRemaining;
  layout.ShowCancelButton = ShowCancelButton;
  layout.OverallInSteps = OverallProgressInSteps;
  layout.SubInSteps = SubProgressInSteps;
  // The thread section appears only when more than one processor may work.
  if (ShowThreadProgress && GetNumberOfPossibleCPUs() > 1)
    layout.ThreadBars = static_cast<int>(ThreadProgress.size());
  return layout;
}
