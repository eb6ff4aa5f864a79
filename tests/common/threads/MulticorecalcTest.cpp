// The multi-core calculation controller: thread choice, element coverage, barriers, cancel, errors,
// private blocks, priority and affinity, progress figures.
#include "common/threads/Multicorecalc.h"

#include "common/Exceptionhandling.h"
#include "common/threads/Threadplatform.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

/// Restores the process-wide settings a test changes.
class MulticorecalcTest : public ::testing::Test {
protected:
  void TearDown() override {
    TMCC::SetProcessThreadLimit(0);
    TMCC::ClearProcessCancelRequest();
  }
};

struct TCoverData {
  std::vector<std::atomic<int>> Hits;
  std::atomic<int> Calls{0};
  explicit TCoverData(int n) : Hits(n) {}
};

void CoverElements(TMCC* mcc, int threadIndex) {
  auto* data = static_cast<TCoverData*>(mcc->GetUserData());
  data->Calls.fetch_add(1);
  const int n = static_cast<int>(data->Hits.size());
  const int first = TMCC::GetFirstElementIndex(threadIndex, mcc->GetNumberOfThreads(), n);
  const int last = TMCC::GetLastElementIndex(threadIndex, mcc->GetNumberOfThreads(), n);
  for (int e = first; e <= last; ++e) data->Hits[e].fetch_add(1);
}

int PossibleCPUs() {
  return oxthreads::CountProcessors(oxthreads::GetProcessAffinityMask());
}

} // namespace

TEST_F(MulticorecalcTest, EveryElementIsProcessedOnceForEveryRequestAndSize) {
  TMCC mcc("cover");
  for (int request : {0, 1, 2, 3, 100}) {
    for (int elements : {0, 1, 2, 3, 7, 1000, 1001}) {
      TCoverData data(elements);
      mcc.MCCInit(&CoverElements, &data, 0);
      mcc.StartThreads(request);
      ASSERT_TRUE(mcc.WaitForThreads(kWaitInfinite));
      EXPECT_EQ(data.Calls.load(), mcc.GetNumberOfThreads());
      for (int e = 0; e < elements; ++e)
        ASSERT_EQ(data.Hits[e].load(), 1) << "request " << request << ", element " << e;

      TCoverData dataWait(elements);
      mcc.MCCInit(&CoverElements, &dataWait, 0);
      mcc.StartThreadsWait(request);
      EXPECT_EQ(dataWait.Calls.load(), mcc.GetNumberOfThreads());
      for (int e = 0; e < elements; ++e)
        ASSERT_EQ(dataWait.Hits[e].load(), 1) << "request " << request << ", element " << e;
    }
  }
}

TEST_F(MulticorecalcTest, ThreadCountsFollowTheRequestAndTheProcessorCount) {
  const int p = PossibleCPUs();
  TCoverData data(10);
  TMCC mcc("counts");
  mcc.MCCInit(&CoverElements, &data, 0);
  mcc.StartThreads(100); // cut to 32, then to the processors
  mcc.WaitForThreads(kWaitInfinite);
  EXPECT_EQ(mcc.GetNumberOfThreads(), std::min(p, 32));
  EXPECT_EQ(mcc.GetNumberOfPoolThreads(), std::min(p, 32));

  mcc.StartThreads(1);
  mcc.WaitForThreads(kWaitInfinite);
  EXPECT_EQ(mcc.GetNumberOfThreads(), 1);

  mcc.StartThreadsWait(0);
  EXPECT_EQ(mcc.GetNumberOfThreads(), p);
  EXPECT_EQ(mcc.GetNumberOfPoolThreads(), p > 1 ? p - 1 : 0);

  mcc.SetNumThreads(100, 100);
  EXPECT_EQ(mcc.GetNumberOfThreads(), 64);
  EXPECT_EQ(mcc.ThreadProgress.size(), 64u);
  EXPECT_EQ(mcc.GetThreadPool().GetNumberOfThreads(), 100);
  mcc.SetNumThreads(0, 2);
  EXPECT_EQ(mcc.GetNumberOfThreads(), 1);
  EXPECT_EQ(mcc.GetThreadPool().GetNumberOfThreads(), 100) << "a larger pool is kept";
}

TEST_F(MulticorecalcTest, ProcessThreadLimitIsHonoured) {
  TMCC::SetProcessThreadLimit(1);
  TCoverData data(5);
  TMCC mcc("limited");
  EXPECT_EQ(mcc.GetNumberOfPossibleCPUs(), 1);
  EXPECT_EQ(mcc.GetThreadPool().GetNumberOfThreads(), 1);
  mcc.MCCInit(&CoverElements, &data, 0);
  mcc.StartThreads(0);
  mcc.WaitForThreads(kWaitInfinite);
  EXPECT_EQ(mcc.GetNumberOfThreads(), 1);
  for (auto& hit : data.Hits) EXPECT_EQ(hit.load(), 1);

  // A limit set after construction counts from the next start on.
  TMCC::SetProcessThreadLimit(0);
  mcc.StartThreads(0);
  mcc.WaitForThreads(kWaitInfinite);
  EXPECT_EQ(mcc.GetNumberOfThreads(), PossibleCPUs());
}

TEST_F(MulticorecalcTest, SingleProcessorRunsEverythingOnTheCaller) {
  TMCC::SetProcessThreadLimit(1);
  TMCC mcc("alone");
  std::thread::id ranOn;
  int index = -1;
  mcc.MCCInit(
      [&](TMCC*, int threadIndex) {
        ranOn = std::this_thread::get_id();
        index = threadIndex;
      },
      nullptr, 0);
  mcc.StartThreadsWait(0);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(index, 0);
  EXPECT_EQ(mcc.GetNumberOfThreads(), 1);
  EXPECT_EQ(mcc.GetNumberOfPoolThreads(), 0);
}

TEST_F(MulticorecalcTest, StartWithoutFunctionDoesNothing) {
  TMCC mcc("empty");
  mcc.StartThreads(0);
  EXPECT_EQ(mcc.GetNumberOfThreads(), 0);
  EXPECT_TRUE(mcc.WaitForThreads(0));
  mcc.StartThreadsWait(0);
  EXPECT_EQ(mcc.GetNumberOfThreads(), 0);
}

TEST_F(MulticorecalcTest, BarrierKeepsAllThreadsInStepOverManySteps) {
  constexpr int kSteps = 2000;
  TMCC mcc("barrier");
  mcc.PrepareThreads();
  std::vector<int> stepOfThread(TMCC::MaxNumberOfThreads, -1); // plain ints: the barrier orders them
  std::atomic<int> mismatches{0};
  std::atomic<int> released{0};
  mcc.MCCInit(
      [&](TMCC* m, int t) {
        const int threads = m->GetNumberOfThreads();
        for (int step = 0; step < kSteps; ++step) {
          stepOfThread[t] = step;
          released += m->WaitForNextStep(t);
          for (int other = 0; other < threads; ++other)
            if (stepOfThread[other] != step) ++mismatches;
          released += m->WaitForNextStep(t);
        }
      },
      nullptr, 0);
  for (int run = 0; run < 2; ++run) {
    released = 0;
    if (run == 0) {
      mcc.StartThreads(0);
      mcc.WaitForThreads(kWaitInfinite);
    } else {
      mcc.StartThreadsWait(0);
    }
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(released.load(), 2 * kSteps) << "exactly one thread releases each barrier";
  }
}

TEST_F(MulticorecalcTest, CancelFromAnotherThreadStopsARunningCalculation) {
  TMCC mcc("cancel");
  std::atomic<int> loops{0};
  mcc.MCCInit(
      [&](TMCC* m, int) {
        while (!m->GetCancel()) loops.fetch_add(1, std::memory_order_relaxed);
      },
      nullptr, 0);
  mcc.StartThreads(0);
  std::thread canceller([&] {
    while (loops.load() < 1000) std::this_thread::yield();
    mcc.CancelThreads();
  });
  EXPECT_TRUE(mcc.WaitForThreads(kWaitInfinite));
  canceller.join();
  EXPECT_TRUE(mcc.GetCancel());
  mcc.StopCancel();
  EXPECT_FALSE(mcc.GetCancel());
}

TEST_F(MulticorecalcTest, SafeCancelEndsAllThreadsOnTheSameStep) {
  TMCC mcc("safe cancel");
  std::vector<int> stepsDone(TMCC::MaxNumberOfThreads, 0);
  std::atomic<int> progress{0};
  mcc.MCCInit(
      [&](TMCC* m, int t) {
        while (!m->IsCanceledSafeWait(t)) {
          ++stepsDone[t];
          progress.fetch_add(1);
        }
      },
      nullptr, 0);
  mcc.StartThreads(0);
  std::thread canceller([&] {
    while (progress.load() < 500) std::this_thread::yield();
    mcc.CancelThreads();
  });
  mcc.WaitForThreads(kWaitInfinite);
  canceller.join();
  const int threads = mcc.GetNumberOfThreads();
  EXPECT_GT(stepsDone[0], 0);
  for (int t = 1; t < threads; ++t) EXPECT_EQ(stepsDone[t], stepsDone[0]) << "thread " << t;

  // Every start clears the cancel flag.
  std::atomic<int> ran{0};
  mcc.MCCInit([&](TMCC* m, int) { ran += m->GetCancel() ? 0 : 1; }, nullptr, 0);
  mcc.StartThreads(0);
  mcc.WaitForThreads(kWaitInfinite);
  EXPECT_EQ(ran.load(), mcc.GetNumberOfThreads());
}

TEST_F(MulticorecalcTest, ProcessCancelRequestReachesTheRunningCalculation) {
  TMCC mcc("interrupted");
  std::atomic<int> loops{0};
  mcc.MCCInit(
      [&](TMCC* m, int) {
        while (!m->GetCancel()) loops.fetch_add(1, std::memory_order_relaxed);
      },
      nullptr, 0);
  mcc.StartThreads(0);
  while (loops.load() < 1000) std::this_thread::yield();
  TMCC::RequestProcessCancel(); // what a SIGINT handler does
  EXPECT_TRUE(mcc.WaitForThreads(kWaitInfinite));
  // The request outlives the start of a new calculation until it is cleared.
  mcc.StartThreads(0);
  EXPECT_TRUE(mcc.WaitForThreads(kWaitInfinite));
  TMCC::ClearProcessCancelRequest();
  EXPECT_FALSE(mcc.GetCancel());
}

TEST_F(MulticorecalcTest, ExceptionReachesTheWaiterOnceAndSiblingsAreReleased) {
  if (PossibleCPUs() < 2) GTEST_SKIP() << "needs two processors for sibling threads";
  TMCC mcc("failing");
  std::atomic<int> siblings{0};
  mcc.MCCInit(
      [&](TMCC* m, int t) {
        try {
          m->WaitForNextStep(t);
          if (t == 0) throw OrvexException("boom in thread zero");
          for (;;) m->WaitForNextStep(t); // would wait forever without the failed sibling
        } catch (const OrvexExceptionMCCSiblingTriggered&) {
          ++siblings;
          throw;
        }
      },
      nullptr, 0);
  for (int run = 0; run < 2; ++run) {
    siblings = 0;
    int thrown = 0;
    try {
      if (run == 0) {
        mcc.StartThreads(0);
        mcc.WaitForThreads(kWaitInfinite);
      } else {
        mcc.StartThreadsWait(0);
      }
    } catch (const OrvexExceptionMCCSiblingTriggered&) {
      ADD_FAILURE() << "the waiter must never see the sibling exception";
    } catch (const OrvexExceptionMCC& e) {
      ++thrown;
      EXPECT_EQ(e.Message(), "MCC-Thread Exception in \"failing\" (ThreadIndex = 0)");
      EXPECT_TRUE(ExceptionHistoryContainsString(e, "boom in thread zero"));
    }
    EXPECT_EQ(thrown, 1);
    EXPECT_EQ(siblings.load(), mcc.GetNumberOfThreads() - 1);
    EXPECT_TRUE(mcc.ThreadThrowedException());
    EXPECT_TRUE(mcc.WaitForThreads(kWaitInfinite)) << "the error is handed out once";
    mcc.ResetExceptionOccured();
    EXPECT_FALSE(mcc.ThreadThrowedException());
    if (run == 1) break; // a start guard stays set after StartThreadsWait threw: the controller is done
  }
}

TEST_F(MulticorecalcTest, FirstOfTwoExceptionsIsTheOneReported) {
  if (PossibleCPUs() < 2) GTEST_SKIP() << "needs two threads";
  TMCC mcc("two failures");
  mcc.MCCInit(
      [](TMCC* m, int t) {
        if (t == 1) throw OrvexException("first");
        while (!m->ThreadThrowedException()) std::this_thread::yield();
        throw OrvexException("second");
      },
      nullptr, 0);
  mcc.StartThreads(2);
  try {
    mcc.WaitForThreads(kWaitInfinite);
    FAIL() << "expected an exception";
  } catch (const OrvexExceptionMCC& e) {
    EXPECT_NE(e.Message().find("(ThreadIndex = 1)"), std::string::npos);
    EXPECT_TRUE(ExceptionHistoryContainsString(e, "first"));
    EXPECT_FALSE(ExceptionHistoryContainsString(e, "second"));
  }
}

TEST_F(MulticorecalcTest, ForeignExceptionsAreTranslated) {
  TMCC mcc("foreign");
  auto expectHistory = [&](void (*fn)(TMCC*, int), const std::string& text) {
    mcc.MCCInit(fn, nullptr, 0);
    mcc.StartThreads(1);
    try {
      mcc.WaitForThreads(kWaitInfinite);
      ADD_FAILURE() << "expected an exception with " << text;
    } catch (const OrvexExceptionMCC& e) {
      EXPECT_TRUE(ExceptionHistoryContainsString(e, text)) << text;
    }
  };
  expectHistory([](TMCC*, int) { throw std::bad_alloc(); },
                "MCC-Thread Memory Allocation Exception in \"foreign\" (ThreadIndex = 0)");
  expectHistory([](TMCC*, int) { throw OrvexExceptionMemoryAllocation("no room"); },
                "OrvexExceptionMemoryAllocation: MCC-Thread Memory Allocation Exception");
  expectHistory([](TMCC*, int) { throw 42; }, "Unknown MCC-Thread Exception");
  expectHistory([](TMCC*, int) { throw std::runtime_error("plain std"); }, "plain std");

  // A math error ends its own thread only; the waiter is not told.
  mcc.ResetExceptionOccured();
  mcc.MCCInit([](TMCC*, int) { throw OrvexExceptionMathError("division by zero"); }, nullptr, 0);
  mcc.StartThreads(1);
  EXPECT_TRUE(mcc.WaitForThreads(kWaitInfinite));
  EXPECT_FALSE(mcc.ThreadThrowedException());
}

TEST_F(MulticorecalcTest, PrivateBlocksAreZeroedSeparateAndKeptPerThread) {
  constexpr int kBlock = 1000;
  TMCC mcc("blocks");
  std::atomic<int> dirty{0};
  mcc.MCCInit(
      [&](TMCC* m, int t) {
        auto* bytes = static_cast<unsigned char*>(m->GetThreadMemory(t));
        if (reinterpret_cast<std::uintptr_t>(bytes) % 64 != 0) ++dirty;
        for (int i = 0; i < kBlock; ++i) {
          if (bytes[i] != 0) ++dirty;
          bytes[i] = static_cast<unsigned char>(t + 1);
        }
      },
      nullptr, kBlock);
  mcc.StartThreadsWait(0);
  EXPECT_EQ(dirty.load(), 0);
  std::set<void*> blocks;
  for (int t = 0; t < mcc.GetNumberOfThreads(); ++t) {
    auto* bytes = static_cast<unsigned char*>(mcc.ThreadMemory[t]);
    ASSERT_NE(bytes, nullptr);
    blocks.insert(bytes);
    for (int i = 0; i < kBlock; ++i) ASSERT_EQ(bytes[i], t + 1) << "thread " << t << " byte " << i;
  }
  EXPECT_EQ(blocks.size(), static_cast<std::size_t>(mcc.GetNumberOfThreads()));

  mcc.MCCInit([&](TMCC* m, int t) { dirty += m->GetThreadMemory(t) != nullptr; }, nullptr, 0);
  mcc.StartThreads(0);
  mcc.WaitForThreads(kWaitInfinite);
  EXPECT_EQ(dirty.load(), 0) << "block size 0 gives no blocks";
}

TEST_F(MulticorecalcTest, MemberFunctionAndUserData) {
  struct TTool {
    std::atomic<int> Sum{0};
    void Calculate(TMCC* mcc, int t) { Sum += *static_cast<int*>(mcc->GetUserData()) + t; }
  } tool;
  int base = 100;
  TMCC mcc("member", [&tool](TMCC* m, int t) { tool.Calculate(m, t); });
  mcc.MCCInit(static_cast<TMCCThreadFunction>(nullptr), &base, 0);
  mcc.StartThreads(0);
  mcc.WaitForThreads(kWaitInfinite);
  const int n = mcc.GetNumberOfThreads();
  EXPECT_EQ(tool.Sum.load(), 100 * n + n * (n - 1) / 2);
}

TEST_F(MulticorecalcTest, PoolThreadsRunBelowNormalPriorityWithTheChosenAffinity) {
  TMCC mcc("priority");
  std::atomic<int> seen{0};
  mcc.MCCInit([&](TMCC*, int) { ++seen; }, nullptr, 0);
  mcc.StartThreads(0);
  mcc.WaitForThreads(kWaitInfinite);
  ASSERT_GT(mcc.GetNumberOfPoolThreads(), 0);
  const pid_t tid = mcc.GetThreadPool().GetThreadTid(0);
  ASSERT_NE(tid, 0);
  int nice = 0;
  ASSERT_TRUE(oxthreads::GetThreadNice(tid, nice));
  EXPECT_EQ(oxthreads::NiceToThreadPriority(nice), TMCC::DefaultMCCThreadPriority);

  mcc.SetThreadPriorityForAllThreads(7); // not a priority: ignored
  EXPECT_EQ(mcc.GetThreadPriority(), TMCC::DefaultMCCThreadPriority);
  mcc.SetThreadPriorityForAllThreads(-15);
  ASSERT_TRUE(oxthreads::GetThreadNice(tid, nice));
  EXPECT_EQ(oxthreads::NiceToThreadPriority(nice), -15);

  const oxthreads::TAffinityMask process = oxthreads::GetProcessAffinityMask();
  const oxthreads::TAffinityMask lowest = process & (~process + 1);
  mcc.SetAffinityMaskForAllThreads(lowest);
  oxthreads::TAffinityMask mask = 0;
  ASSERT_TRUE(oxthreads::GetThreadAffinity(tid, mask));
  EXPECT_EQ(mask, lowest);
  EXPECT_EQ(mcc.GetNumberOfPossibleCPUs(), 1);
  mcc.SetAffinityMaskForAllThreads(0); // nothing left: back to all processors of the process
  EXPECT_EQ(mcc.GetThreadAffinityMask(), process);
  ASSERT_TRUE(oxthreads::GetThreadAffinity(tid, mask));
  EXPECT_EQ(mask, process);
}

TEST_F(MulticorecalcTest, CallerGetsItsAffinityAndPriorityBack) {
  oxthreads::TAffinityMask before = 0, after = 0;
  int niceBefore = 0, niceAfter = 0;
  ASSERT_TRUE(oxthreads::GetThreadAffinity(0, before));
  ASSERT_TRUE(oxthreads::GetThreadNice(0, niceBefore));
  TMCC mcc("caller");
  const oxthreads::TAffinityMask process = oxthreads::GetProcessAffinityMask();
  mcc.SetAffinityMaskForAllThreads(process & (~process + 1));
  oxthreads::TAffinityMask during = 0;
  mcc.MCCInit(
      [&](TMCC* m, int t) {
        if (t == m->GetNumberOfThreads() - 1) oxthreads::GetThreadAffinity(0, during);
      },
      nullptr, 0);
  mcc.StartThreadsWait(0);
  EXPECT_EQ(during, process & (~process + 1));
  ASSERT_TRUE(oxthreads::GetThreadAffinity(0, after));
  ASSERT_TRUE(oxthreads::GetThreadNice(0, niceAfter));
  EXPECT_EQ(after, before);
  EXPECT_EQ(niceAfter, niceBefore);
}

TEST_F(MulticorecalcTest, ThreadFiguresReplaceOverallOrSubProgress) {
  TMCC mcc("figures");
  mcc.MCCInit(
      [](TMCC* m, int t) {
        m->ThreadProgressMax[t] = 10;
        m->ThreadProgress[t] = t + 1;
        if (t == 0) {
          m->OverallProgressMax = 50;
          m->OverallProgress = 5;
          m->SubProgressMax = 8;
          m->SubProgress = 4;
        }
      },
      nullptr, 0);
  mcc.StartThreadsWait(0);
  const int n = mcc.GetNumberOfThreads();
  EXPECT_EQ(mcc.GetOverallProgress(), 5);
  EXPECT_EQ(mcc.GetOverallProgressMax(), 50);
  mcc.ShowThreadProgress = true;
  EXPECT_EQ(mcc.GetOverallProgress(), n * (n + 1) / 2);
  EXPECT_EQ(mcc.GetOverallProgressMax(), 10 * n);
  EXPECT_EQ(mcc.GetSubProgress(), 4);
  mcc.ThreadProgressIsSubProgress = true;
  EXPECT_EQ(mcc.GetOverallProgress(), 5);
  EXPECT_EQ(mcc.GetSubProgress(), n * (n + 1) / 2);
  EXPECT_EQ(mcc.GetSubProgressMax(), 10 * n);

  mcc.SetProgressMainCaption("main");
  mcc.SetProgressSubCaption("sub");
  EXPECT_EQ(mcc.GetProgressMainCaption(), "main");
  EXPECT_EQ(mcc.GetProgressSubCaption(), "sub");

  // A new start zeroes the figures.
  mcc.MCCInit([](TMCC*, int) {}, nullptr, 0);
  mcc.StartThreadsWait(0);
  EXPECT_EQ(mcc.GetSubProgress(), 0);
  mcc.ShowThreadProgress = false;
  EXPECT_EQ(mcc.GetOverallProgress(), 0);
  EXPECT_EQ(mcc.GetOverallProgressMax(), 0);
}

namespace {
std::mutex gHookLock;
std::vector<std::string> gHookContexts;
void RecordingHook(TOrvexSEHInfo* info) {
  std::lock_guard lock(gHookLock);
  gHookContexts.push_back(info->Context + " | " + GetExceptionClassNameAndMessage(*info->ExceptionObject));
}
} // namespace

TEST_F(MulticorecalcTest, ErrorsReachTheProcessHookOnceWithTheirContext) {
  if (PossibleCPUs() < 2) GTEST_SKIP() << "needs sibling threads";
  gHookContexts.clear();
  SetOrvexExceptionHook(&RecordingHook);
  TMCC mcc("hooked");
  mcc.MCCInit(
      [](TMCC* m, int t) {
        if (t == 1) throw OrvexException("hook me");
        for (;;) m->WaitForNextStep(t); // leaves with the sibling exception, which the hook never sees
      },
      nullptr, 0);
  mcc.StartThreads(2);
  EXPECT_THROW(mcc.WaitForThreads(kWaitInfinite), OrvexExceptionMCC);
  SetOrvexExceptionHook(nullptr);
  ASSERT_EQ(gHookContexts.size(), 1u);
  EXPECT_EQ(gHookContexts[0], "MCCThreadFunction hooked | Orvex Exception: hook me");
}
