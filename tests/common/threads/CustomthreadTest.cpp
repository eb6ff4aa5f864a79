// TCustomThread: life cycle, cooperative pause, stop with time-out, queued functions, synchronised
// start, errors in the thread function, priority.
#include "common/threads/Customthread.h"

#include "common/Exceptionhandling.h"
#include "common/OrvexException.h"
#include "common/threads/Threadplatform.h"

#include <atomic>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

namespace {

// Serves the function queue until asked to stop; returns 5.
int ServeUntilStopped(TCustomThread* thread, void*) {
  while (!thread->QueryForStop()) {
    if (thread->GetFunctionsEvent().Wait(1)) thread->ExecuteFunctionsInThread();
  }
  return 5;
}

} // namespace

TEST(CustomThread, StartWithoutFunctionCreatesNothing) {
  TCustomThread thread("no function");
  EXPECT_EQ(thread.Start(false), ctsStopped);
  EXPECT_EQ(thread.GetThreadID(), 0);
  EXPECT_EQ(thread.Stop(), ctsStopped);
  EXPECT_EQ(thread.WaitForStopped(0), ctsStopped);
  EXPECT_EQ(thread.Pause(), ctsStopped);
  EXPECT_EQ(thread.GetCustomThreadPriority(), TCustomThreadPriority::Unknown);
}

TEST(CustomThread, RunsUntilStoppedAndCanBeStartedAgain) {
  TCustomThread thread("worker");
  thread.SetThreadFunction(&ServeUntilStopped, nullptr);
  for (int run = 0; run < 3; ++run) {
    EXPECT_EQ(thread.Start(false), ctsRunning);
    ASSERT_TRUE(thread.GetInitDoneEvent().Wait(-1));
    EXPECT_NE(thread.GetThreadID(), 0);
    EXPECT_EQ(thread.GetThreadState(), ctsRunning);
    EXPECT_EQ(thread.WaitForStopped(static_cast<unsigned>(-1)), ctsStopped);
    EXPECT_EQ(thread.GetThreadReturnValue(), 5);
  }
}

TEST(CustomThread, ThreadThatEndsByItselfIsNoticed) {
  TCustomThread thread("short");
  std::unique_ptr<int> value(new int(42));
  thread.SetThreadFunction([](TCustomThread*, void* p) { return *static_cast<int*>(p); }, value.get());
  thread.Start(false);
  while (thread.GetThreadState() != ctsStopped) std::this_thread::yield();
  EXPECT_EQ(thread.GetThreadReturnValue(), 42);
}

TEST(CustomThread, SuspendedStartWaitsForResume) {
  std::atomic<bool> ran{false};
  TCustomThread thread("suspended");
  thread.SetThreadFunction(
      [&](TCustomThread*, void*) {
        ran = true;
        return 1;
      },
      nullptr);
  EXPECT_EQ(thread.Start(true), ctsSuspended);
  ASSERT_TRUE(thread.GetInitDoneEvent().Wait(-1));
  EXPECT_FALSE(ran.load()) << "the function must not begin before Resume";
  EXPECT_EQ(thread.Resume(), ctsRunning);
  EXPECT_EQ(thread.WaitForStopped(static_cast<unsigned>(-1)), ctsStopped);
  EXPECT_TRUE(ran.load());
  EXPECT_EQ(thread.GetThreadReturnValue(), 1);
}

TEST(CustomThread, PauseCountsAndStopResumesAnyDepth) {
  std::atomic<int> loops{0};
  TCustomThread thread("paused");
  thread.SetThreadFunction(
      [&](TCustomThread* t, void*) {
        while (!t->QueryForStop()) ++loops;
        return 0;
      },
      nullptr);
  thread.Start(false);
  EXPECT_EQ(thread.Pause(), ctsSuspended);
  EXPECT_EQ(thread.Pause(), ctsSuspended);
  EXPECT_EQ(thread.Resume(), ctsSuspended) << "two pauses need two resumes";
  EXPECT_EQ(thread.Resume(), ctsRunning);
  thread.Pause();
  thread.Pause();
  thread.Pause();
  EXPECT_EQ(thread.Stop(), ctsStopRequested);
  EXPECT_EQ(thread.WaitForStopped(static_cast<unsigned>(-1)), ctsStopped);
}

TEST(CustomThread, StopTimeOutCallsTheReplacementOfForcedTermination) {
  std::atomic<bool> release{false};
  std::atomic<int> forced{0};
  auto thread = std::make_unique<TCustomThread>("stubborn");
  thread->SetThreadFunction(
      [&](TCustomThread*, void*) {
        while (!release.load()) // never polls the stop event
          std::this_thread::yield();
        return 3;
      },
      nullptr);
  thread->SetForceTerminateFunction([&] {
    ++forced;
    release = true;
  });
  thread->Start(false);
  EXPECT_EQ(thread->WaitForStopped(1), ctsStopRequested);
  EXPECT_EQ(forced.load(), 1);
  EXPECT_EQ(thread->GetThreadReturnValue(), -1);
  thread.reset(); // waits for the thread that was let go
  EXPECT_TRUE(release.load());
}

TEST(CustomThread, ErrorInTheThreadFunctionEndsOnlyThatThread) {
  TCustomThread thread("throws");
  thread.SetThreadFunction([](TCustomThread*, void*) -> int { throw OrvexException("inside"); }, nullptr);
  thread.Start(false);
  EXPECT_EQ(thread.WaitForStopped(static_cast<unsigned>(-1)), ctsStopped);
  EXPECT_EQ(thread.GetThreadReturnValue(), -1);

  OrvexFPUExceptionOccurred = false;
  thread.SetThreadFunction([](TCustomThread*, void*) -> int { throw OrvexExceptionMathError("overflow"); },
                           nullptr);
  thread.Start(false);
  EXPECT_EQ(thread.WaitForStopped(static_cast<unsigned>(-1)), ctsStopped);
  EXPECT_TRUE(OrvexFPUExceptionOccurred.load()) << "a math error sets the process-wide flag";
  OrvexFPUExceptionOccurred = false;
}

TEST(CustomThread, QueuedFunctionsRunInTheThreadWithTheirValues) {
  TCustomThread thread("queue");
  thread.SetThreadFunction(&ServeUntilStopped, nullptr);
  EXPECT_EQ(thread.ExecuteVoidFunctionWithinThread([] {}, false), 3) << "calls not enabled yet";
  thread.EnableThreadedFunctionCalls();
  thread.Start(false);
  ASSERT_TRUE(thread.GetInitDoneEvent().Wait(-1));

  const pid_t workerTid = thread.GetThreadID();
  pid_t ranOn = 0;
  int i = 0;
  float f = 0;
  double d = 0;
  bool b = false;
  void* p = nullptr;
  int marker = 0;
  EXPECT_EQ(thread.ExecuteVoidFunctionWithinThread([&] { ranOn = oxthreads::CurrentThreadTid(); }, true), 1);
  EXPECT_EQ(ranOn, workerTid);
  EXPECT_EQ(thread.ExecuteIntFunctionWithinThread([&](int v) { i = v; }, -17, true), 1);
  EXPECT_EQ(thread.ExecuteFloatFunctionWithinThread([&](float v) { f = v; }, 2.5f, true), 1);
  EXPECT_EQ(thread.ExecuteDoubleFunctionWithinThread([&](double v) { d = v; }, 1e300, true), 1);
  EXPECT_EQ(thread.ExecuteBoolFunctionWithinThread([&](bool v) { b = v; }, true, true), 1);
  EXPECT_EQ(thread.ExecutePtrFunctionWithinThread([&](void* v) { p = v; }, &marker, true), 1);
  EXPECT_EQ(i, -17);
  EXPECT_EQ(f, 2.5f);
  EXPECT_EQ(d, 1e300);
  EXPECT_TRUE(b);
  EXPECT_EQ(p, &marker);

  std::atomic<int> posted{0};
  for (int k = 0; k < 10; ++k) EXPECT_EQ(thread.ExecuteVoidFunctionWithinThread([&] { ++posted; }, false), 2);
  EXPECT_EQ(thread.ExecuteVoidFunctionWithinThread([] {}, true), 1); // runs after the ten, in order
  EXPECT_EQ(posted.load(), 10);
  EXPECT_EQ(thread.ExecuteVoidFunctionWithinThread([] { throw OrvexException("queued failure"); }, true), 0)
      << "a call that throws counts as not executed";

  thread.DisableThreadedFunctionCalls();
  EXPECT_EQ(thread.ExecuteVoidFunctionWithinThread([] {}, true), 3);
  thread.WaitForStopped(static_cast<unsigned>(-1));
}

TEST(CustomThread, AbortedWaitSkipsTheCallAndCleanupReleasesWaiters) {
  TCustomThread thread("not serving");
  thread.EnableThreadedFunctionCalls(); // no thread serves the queue in this test
  TEvent abort(true, true);             // already set: the wait ends at once
  std::atomic<int> ran{0};
  EXPECT_EQ(thread.ExecuteVoidFunctionWithinThread([&] { ++ran; }, true, &abort), 0);
  EXPECT_EQ(thread.ExecuteFunctionsInThread(), 0) << "an abandoned call is skipped";
  EXPECT_EQ(ran.load(), 0);
  EXPECT_FALSE(thread.GetFunctionsEvent().IsSet());

  int result = -1;
  std::thread caller([&] { result = thread.ExecuteVoidFunctionWithinThread([&] { ++ran; }, true); });
  while (!thread.GetFunctionsEvent().IsSet()) std::this_thread::yield();
  thread.CleanupAllFunctionsInList();
  caller.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(ran.load(), 0);
}

TEST(CustomThread, SynchronisedStartReleasesAllThreadsTogether) {
  auto start = std::make_shared<TEvent>(true, false);
  std::atomic<int> passed{0};
  auto body = [&](TCustomThread* t, void*) {
    if (t->WaitForSynchronization() == 0) ++passed;
    return 0;
  };
  TCustomThread a("a"), b("b");
  for (TCustomThread* t : {&a, &b}) {
    t->SetThreadFunction(body, nullptr);
    t->SetSynchronizeStartEvent(start);
    t->Start(false);
  }
  EXPECT_EQ(passed.load(), 0);
  start->Set();
  a.WaitForStopped(static_cast<unsigned>(-1));
  b.WaitForStopped(static_cast<unsigned>(-1));
  EXPECT_EQ(passed.load(), 2);

  TCustomThread c("timeout");
  c.SetSynchronizeStartEvent(std::make_shared<TEvent>(true, false), 0);
  EXPECT_EQ(c.WaitForSynchronization(), -2);
  c.SetSynchronizeStartEvent(nullptr);
  EXPECT_EQ(c.WaitForSynchronization(), 0);
}

TEST(CustomThread, PriorityIsAppliedToTheRunningThread) {
  TCustomThread thread("low");
  thread.SetThreadFunction(&ServeUntilStopped, nullptr);
  EXPECT_TRUE(thread.SetCustomThreadPriority(TCustomThreadPriority::BelowNormal));
  thread.Start(false);
  ASSERT_TRUE(thread.GetInitDoneEvent().Wait(-1));
  EXPECT_EQ(thread.GetCustomThreadPriority(), TCustomThreadPriority::BelowNormal);
  EXPECT_TRUE(thread.SetCustomThreadPriority(TCustomThreadPriority::Idle));
  EXPECT_EQ(thread.GetCustomThreadPriority(), TCustomThreadPriority::Idle);
  EXPECT_FALSE(thread.SetCustomThreadPriority(TCustomThreadPriority::Unknown));
  thread.WaitForStopped(static_cast<unsigned>(-1));
  EXPECT_EQ(thread.GetCustomThreadPriority(), TCustomThreadPriority::Unknown);
}
