// The thread pool: runs, restarts, errors surfacing in the waiter, index checks, time-outs.
#include "common/threads/Threadpool.h"

#include "common/OrvexException.h"

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

TEST(ThreadPool, EmptyPoolWaitsAtOnceAndIgnoresBadIndices) {
  TThreadPool pool("empty", 0);
  EXPECT_TRUE(pool.WaitForThreads(kWaitInfinite));
  EXPECT_TRUE(pool.AreAllThreadsReady());
  pool.StartThread(-1);
  pool.StartThread(0);
  pool.StopThread(5);
  EXPECT_FALSE(pool.WaitForThread(0, 0));
  EXPECT_EQ(pool.GetThreadTid(0), 0);
}

TEST(ThreadPool, EveryThreadRunsOncePerStartWithItsIndex) {
  std::vector<std::atomic<int>> runs(3);
  TThreadPool pool("runs", 3);
  int parameter = 7;
  std::atomic<int> wrongParameter{0};
  pool.Initialize(
      [&](void* p, int index) {
        if (p != &parameter) ++wrongParameter;
        ++runs[index];
      },
      &parameter);
  EXPECT_TRUE(pool.WaitForThread(1, 0)) << "a thread that doesn't exist yet counts as finished";
  pool.PrepareThreads();
  for (int i = 0; i < 3; ++i) EXPECT_NE(pool.GetThreadTid(i), 0);
  for (int round = 1; round <= 50; ++round) {
    pool.StartThreads();
    ASSERT_TRUE(pool.WaitForThreads(kWaitInfinite));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(runs[i].load(), round);
  }
  pool.StartThread(1);
  EXPECT_TRUE(pool.WaitForThread(1, kWaitInfinite));
  EXPECT_EQ(runs[1].load(), 51);
  EXPECT_EQ(runs[0].load(), 50);
  EXPECT_EQ(wrongParameter.load(), 0);
}

TEST(ThreadPool, WaitTimesOutWhileAThreadRuns) {
  std::atomic<bool> release{false};
  TThreadPool pool("blocking", 2);
  pool.Initialize(
      [&](void*, int index) {
        if (index == 1)
          while (!release.load()) std::this_thread::yield();
      },
      nullptr);
  pool.StartThreads();
  EXPECT_TRUE(pool.WaitForThread(0, kWaitInfinite));
  EXPECT_FALSE(pool.WaitForThreads(0));
  EXPECT_FALSE(pool.WaitForThread(1, 1));
  EXPECT_FALSE(pool.AreAllThreadsReady());
  release = true;
  EXPECT_TRUE(pool.WaitForThreads(kWaitInfinite));
  EXPECT_TRUE(pool.AreAllThreadsReady());
}

TEST(ThreadPool, ErrorsSurfaceInTheWaiterAndThreadsKeepWorking) {
  std::atomic<bool> fail{true};
  std::vector<std::atomic<int>> runs(3);
  TThreadPool pool("errors", 3);
  pool.Initialize(
      [&](void*, int index) {
        ++runs[index];
        if (fail.load() && index == 2) throw std::runtime_error("third failed");
        if (fail.load() && index == 1) throw OrvexExceptionMemoryAllocation("no memory");
      },
      nullptr);
  pool.StartThreads();
  int index = -1;
  try {
    pool.WaitForThreads(kWaitInfinite);
    FAIL() << "expected the stored error";
  } catch (const OrvexExceptionMemoryAllocation& e) {
    // Lowest index first; the allocation failure comes with the pool's text around it.
    EXPECT_EQ(e.Message(), "TThreadPool Memory Allocation Exception in \"errors\" (ThreadIndex = 1)");
    EXPECT_TRUE(ExceptionHistoryContainsString(e, "no memory"));
  }
  EXPECT_TRUE(pool.SomeThreadThrewException(index));
  EXPECT_EQ(index, 1);
  EXPECT_THROW(pool.WaitForThreads(0), OrvexExceptionMemoryAllocation) << "stays stored until the next start";
  EXPECT_TRUE(pool.WaitForThread(0, 0)) << "a finished thread is not waited for";

  fail = false;
  pool.StartThreads(); // a new run starts clean
  EXPECT_TRUE(pool.WaitForThreads(kWaitInfinite));
  EXPECT_FALSE(pool.SomeThreadThrewException(index));
  for (auto& r : runs) EXPECT_EQ(r.load(), 2);
}

TEST(ThreadPool, StoppedThreadsAreRecreatedAndResizingKeepsWorking) {
  std::atomic<int> runs{0};
  TThreadPool pool("resize", 2);
  pool.Initialize([&](void*, int) { ++runs; }, nullptr);
  pool.StartThreads();
  pool.WaitForThreads(kWaitInfinite);
  pool.KillThreads();
  EXPECT_EQ(pool.GetThreadTid(0), 0);
  pool.StartThreads();
  EXPECT_TRUE(pool.WaitForThreads(kWaitInfinite));
  EXPECT_EQ(runs.load(), 4);

  pool.StopThread(0);
  pool.StartThread(0); // a start after a stop request runs again
  EXPECT_TRUE(pool.WaitForThreads(kWaitInfinite));
  EXPECT_EQ(runs.load(), 5);

  pool.SetNumberOfThreads(5);
  EXPECT_EQ(pool.GetNumberOfThreads(), 5);
  pool.StartThreads();
  EXPECT_TRUE(pool.WaitForThreads(kWaitInfinite));
  EXPECT_EQ(runs.load(), 10);
}
