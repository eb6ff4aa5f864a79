// Work sent from calculation threads to the main thread while it waits for the calculation.
#include "common/MainThreadQueue.h"
#include "common/threads/MainThreadFunction.h"
#include "common/threads/Multicorecalc.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace {

class MainThreadMessagesTest : public ::testing::Test {
protected:
  void SetUp() override { TMainThreadQueue::Instance().SetMainThread(); }
  void TearDown() override { TMainThreadQueue::Instance().ProcessPending(); }
};

int gPlainCalls = 0; // touched on the main thread only

} // namespace

TEST_F(MainThreadMessagesTest, WorkersSendToTheWaitingMainThread) {
  const std::thread::id mainThread = std::this_thread::get_id();
  int onMain = 0; // plain int: only the main thread touches it
  std::atomic<int> wrongThread{0};
  TMCC mcc("messages");
  mcc.MCCInit(
      [&](TMCC*, int) {
        for (int i = 0; i < 20; ++i) {
          TCustomMessageExecuteMainThreadFunction::CreateAndSendMessage(nullptr, [&] {
            if (std::this_thread::get_id() != mainThread) ++wrongThread;
            ++onMain;
          });
        }
        TCustomMessageExecuteMainThreadFunction::CreateAndSendMessage(nullptr, [] { ++gPlainCalls; });
      },
      nullptr, 0);
  gPlainCalls = 0;
  mcc.StartThreads(0);
  // Sends block their workers until the main thread serves them, so this wait must serve the queue.
  EXPECT_TRUE(mcc.WaitAndShowProgressOnDelay(100));
  EXPECT_EQ(onMain, 20 * mcc.GetNumberOfThreads());
  EXPECT_EQ(gPlainCalls, mcc.GetNumberOfThreads());
  EXPECT_EQ(wrongThread.load(), 0);
}

TEST_F(MainThreadMessagesTest, CallerThreadOfStartThreadsWaitSendsAtOnce) {
  int onMain = 0;
  TMCC mcc("caller sends");
  mcc.MCCInit(
      [&](TMCC* m, int t) {
        // The last thread is the calling (main) thread: its send runs at once. Pool threads only post.
        if (t == m->GetNumberOfThreads() - 1)
          TCustomMessageExecuteMainThreadFunction::CreateAndSendMessage(nullptr, [&] { ++onMain; });
        else
          TCustomMessageExecuteMainThreadFunction::CreateAndPostMessage(nullptr, [&] { ++onMain; });
      },
      nullptr, 0);
  mcc.StartThreadsWait(0);
  TMainThreadQueue::Instance().ProcessPending();
  EXPECT_EQ(onMain, mcc.GetNumberOfThreads());
}

TEST_F(MainThreadMessagesTest, ErrorOfASentFunctionReachesTheSender) {
  std::atomic<int> caught{0};
  TMCC mcc("send error");
  mcc.MCCInit(
      [&](TMCC*, int) {
        try {
          TCustomMessageExecuteMainThreadFunction::CreateAndSendMessage(
              nullptr, [] { throw OrvexExceptionMathError("refused on main"); });
        } catch (const OrvexExceptionMathError&) {
          // Caught by its type only: the main thread may drop the last reference to the exception
          // object, and the reference count lives in the uninstrumented runtime library, so reading
          // the object here would be reported as a race by the thread sanitizer.
          ++caught;
        }
      },
      nullptr, 0);
  mcc.StartThreads(0);
  EXPECT_TRUE(mcc.WaitAndShowProgressOnDelay(100));
  EXPECT_EQ(caught.load(), mcc.GetNumberOfThreads());
}

TEST_F(MainThreadMessagesTest, PostNotifyAndRemovedFunctions) {
  int calls = 0;
  std::thread worker([&] {
    TCustomMessageExecuteMainThreadFunction::CreateAndPostMessage(nullptr, [&] { ++calls; });
    TCustomMessageExecuteMainThreadFunction::CreateAndSendNotifyMessage(nullptr, [&] { calls += 10; });
    int value = 5;
    TCustomMessageExecuteMainThreadFunctionWithParameter::CreateAndPostMessage(
        nullptr, [&](void* p) { calls += *static_cast<int*>(p) * 100; }, &value);
    TMainThreadQueue::Instance().Send([] {}); // value stays alive until the main thread served all
  });
  while (TMainThreadQueue::Instance().PendingCount() < 4) std::this_thread::yield();
  EXPECT_EQ(calls, 0) << "posted work waits for the main thread";
  TMainThreadQueue::Instance().ProcessPending();
  worker.join();
  EXPECT_EQ(calls, 511);

  // On the main thread a notify runs at once.
  TCustomMessageExecuteMainThreadFunction::CreateAndSendNotifyMessage(nullptr, [&] { calls = 0; });
  EXPECT_EQ(calls, 0);

  // A reused message whose function was removed runs nothing when its queued delivery arrives.
  auto* message = new TCustomMessageExecuteMainThreadFunction([&] { ++calls; }, nullptr, 1);
  message->Post(nullptr);
  message->SafeRemoveFunctionPointer();
  TMainThreadQueue::Instance().ProcessPending();
  EXPECT_EQ(calls, 0);
  TCustomMessage* owned = message;
  CleanupMultiUseMessage(owned);
  EXPECT_EQ(owned, nullptr);
}
