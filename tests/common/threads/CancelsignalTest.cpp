// Ctrl-C reaches a running calculation as its cancel request.
#include "common/threads/Cancelsignal.h"

#include "common/Safewrite.h"
#include "common/threads/Multicorecalc.h"

#include <atomic>
#include <csignal>

#include <gtest/gtest.h>

TEST(CancelSignal, InterruptCancelsTheRunningCalculation) {
  TMCC::ClearProcessCancelRequest();
  InstallCalculationCancelHandler();
  InstallCalculationCancelHandler(); // a second call changes nothing
  std::atomic<int> loops{0};
  TMCC mcc("interruptible");
  mcc.MCCInit(
      [&](TMCC* m, int) {
        while (!m->GetCancel()) loops.fetch_add(1, std::memory_order_relaxed);
      },
      nullptr, 0);
  mcc.StartThreads(0);
  while (loops.load() < 1000) std::this_thread::yield();
  std::raise(SIGINT); // handled: the process lives on
  EXPECT_TRUE(mcc.WaitForThreads(kWaitInfinite));
  EXPECT_TRUE(TMCC::ProcessCancelRequested());
  // Saves under way stop with it.
  EXPECT_TRUE(SafeWritesAborted());
  TMCC::ClearProcessCancelRequest();
  ResetSafeWriteAbort();
  UninstallCalculationCancelHandler();

  struct sigaction current {};
  sigaction(SIGINT, nullptr, &current);
  EXPECT_EQ(current.sa_handler, SIG_DFL) << "the previous disposition is back";
}

TEST(CancelSignal, TerminationAndHangUpAreHandledLikeAnInterrupt) {
  for (int signal : {SIGTERM, SIGHUP}) {
    TMCC::ClearProcessCancelRequest();
    InstallCalculationCancelHandler();
    std::raise(signal); // handled: the process lives on
    EXPECT_TRUE(TMCC::ProcessCancelRequested()) << signal;
    EXPECT_TRUE(SafeWritesAborted()) << signal;
    TMCC::ClearProcessCancelRequest();
    ResetSafeWriteAbort();
    UninstallCalculationCancelHandler();
    struct sigaction current {};
    sigaction(signal, nullptr, &current);
    EXPECT_EQ(current.sa_handler, SIG_DFL) << signal;
  }
}
