// Tests of the main-thread queue: order, send from many threads, exceptions, limits, wake-up.
#include "common/MainThreadQueue.h"

#include "common/Logfile.h"
#include "common/OrvexException.h"
#include "support/TestSupport.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

class MainThreadQueueTest : public ::testing::Test {
protected:
  void SetUp() override {
    Queue.SetMainThread();
    Queue.SetWakeUpCallback(nullptr);
    Queue.ProcessPending(); // leftovers of other tests
  }
  void TearDown() override {
    Queue.SetWakeUpCallback(nullptr);
    Queue.ProcessPending();
  }
  TMainThreadQueue& Queue = TMainThreadQueue::Instance();
};

} // namespace

TEST_F(MainThreadQueueTest, PostedItemsRunInOrderOnlyWhenDrained) {
  std::vector<int> order;
  for (int i = 0; i < 5; ++i) Queue.Post([&order, i] { order.push_back(i); });
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(Queue.PendingCount(), 5u);
  EXPECT_EQ(Queue.ProcessPending(2), 2);
  EXPECT_EQ(order, (std::vector<int>{0, 1}));
  EXPECT_EQ(Queue.ProcessPending(), 3);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(Queue.ProcessPending(), 0);
}

TEST_F(MainThreadQueueTest, ItemsPostedWhileDrainingWaitForTheNextRound) {
  int runs = 0;
  std::function<void()> repost = [&] {
    ++runs;
    Queue.Post(repost);
  };
  Queue.Post(repost);
  EXPECT_EQ(Queue.ProcessPending(), 1);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(Queue.PendingCount(), 1u);
  Queue.ProcessPending(0);
  EXPECT_EQ(runs, 1);
  // Break the chain.
  repost = [&] { ++runs; };
  EXPECT_EQ(Queue.ProcessPending(), 1); // the old function, which posts the new one
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(Queue.ProcessPending(), 1);
  EXPECT_EQ(runs, 3);
  EXPECT_EQ(Queue.PendingCount(), 0u);
}

TEST_F(MainThreadQueueTest, SendAndSendNotifyOnTheMainThreadRunAtOnce) {
  int value = 0;
  Queue.Send([&] { value = 1; });
  EXPECT_EQ(value, 1);
  Queue.SendNotify([&] { value = 2; });
  EXPECT_EQ(value, 2);
  EXPECT_EQ(Queue.PendingCount(), 0u);
  EXPECT_THROW(Queue.Send([] { throw OrvexException("direct"); }), OrvexException);
}

TEST_F(MainThreadQueueTest, SendFromManyThreadsWhileTheMainThreadDrains) {
  constexpr int kThreads = 8, kSends = 200;
  const auto mainId = std::this_thread::get_id();
  long counter = 0; // touched by the main thread only
  std::atomic<int> wrongThread{0};
  std::atomic<int> finished{0};
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; ++t)
    senders.emplace_back([&] {
      for (int i = 0; i < kSends; ++i) {
        long seen = -1;
        Queue.Send([&] {
          if (std::this_thread::get_id() != mainId) ++wrongThread;
          seen = ++counter;
        });
        if (seen <= 0) // Send returned before its function ran
          ++wrongThread;
      }
      ++finished;
    });
  while (finished.load() < kThreads) Queue.WaitAndProcess(std::chrono::milliseconds(5));
  for (auto& sender : senders) sender.join();
  EXPECT_EQ(counter, kThreads * kSends);
  EXPECT_EQ(wrongThread.load(), 0);
}

TEST_F(MainThreadQueueTest, SendRethrowsToTheSender) {
  std::atomic<bool> caught{false};
  std::atomic<bool> done{false};
  std::thread sender([&] {
    try {
      Queue.Send([] { throw OrvexExceptionMathError("TTest::Send: failed on purpose"); });
    } catch (const OrvexExceptionMathError& e) {
      caught = e.Message() == "TTest::Send: failed on purpose";
    }
    done = true;
  });
  while (!done.load()) Queue.WaitAndProcess(std::chrono::milliseconds(5));
  sender.join();
  EXPECT_TRUE(caught.load());
}

TEST_F(MainThreadQueueTest, PostedExceptionIsLoggedAndDrainingGoesOn) {
  oxtest::TempDir dir;
  TLogFile log(false, false);
  ASSERT_TRUE(log.Open(dir.File("q.log"), true));
  TLogFile* saved = GlobalLogFile;
  GlobalLogFile = &log;
  bool after = false;
  Queue.Post([] { throw OrvexException("posted boom"); });
  Queue.Post([&] { after = true; });
  EXPECT_EQ(Queue.ProcessPending(), 2);
  GlobalLogFile = saved;
  EXPECT_TRUE(after);
  log.Close();
  EXPECT_NE(
      oxtest::ReadFileBytes(dir.File("q.log"))
          .find("TMainThreadQueue::ProcessPending: a posted function threw Orvex Exception: posted boom"),
      std::string::npos);
}

TEST_F(MainThreadQueueTest, OtherThreadsMayNotDrainAndSendNotifyQueues) {
  bool threw = false;
  bool ran = false;
  std::thread other([&] {
    try {
      Queue.ProcessPending();
    } catch (const OrvexException&) {
      threw = true;
    }
    EXPECT_FALSE(Queue.IsMainThread());
    Queue.SendNotify([&] { ran = true; });
  });
  other.join();
  EXPECT_TRUE(threw);
  EXPECT_FALSE(ran);
  EXPECT_TRUE(Queue.IsMainThread());
  EXPECT_EQ(Queue.ProcessPending(), 1);
  EXPECT_TRUE(ran);
}

TEST_F(MainThreadQueueTest, WakeUpCallbackAndWaitAndProcess) {
  std::atomic<int> wakeUps{0};
  Queue.SetWakeUpCallback([&] { ++wakeUps; });
  EXPECT_FALSE(Queue.WaitAndProcess(std::chrono::milliseconds(1)));
  bool ran = false;
  std::thread poster([&] { Queue.Post([&] { ran = true; }); });
  poster.join();
  EXPECT_EQ(wakeUps.load(), 1);
  EXPECT_TRUE(Queue.WaitAndProcess(std::chrono::milliseconds(1000)));
  EXPECT_TRUE(ran);
}
