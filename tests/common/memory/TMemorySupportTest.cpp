// The page lock, the timer queue and THeapAlignment.
#include "common/memory/Heapalignment.h"
#include "common/memory/Memorylock.h"
#include "common/memory/Memorytimerqueue.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

TEST(PageLock, ReentersForItsOwnerAndTriesWithoutBlockingForOthers) {
  TPageLock lock;
  lock.Enter();
  EXPECT_TRUE(lock.TryEnter());
  EXPECT_TRUE(lock.IsHeldByCurrentThread());
  bool otherGot = true;
  std::thread([&] { otherGot = lock.TryEnter(); }).join();
  EXPECT_FALSE(otherGot);
  lock.Leave();
  std::thread([&] { otherGot = lock.TryEnter(); }).join();
  EXPECT_FALSE(otherGot); // still held once
  lock.Leave();
  EXPECT_FALSE(lock.IsHeldByCurrentThread());
  std::thread([&] {
    otherGot = lock.TryEnter();
    if (otherGot) lock.Leave();
  }).join();
  EXPECT_TRUE(otherGot);
}

TEST(PageLock, ExcludesThreadsThatSleepOnIt) {
  // Many threads count under the lock; long holds force the sleeping path.
  TPageLock lock;
  int64_t counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        TPageLockGuard guard(lock);
        const int64_t seen = counter;
        if (i % 1000 == 0) std::this_thread::yield();
        counter = seen + 1;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 6 * 20000);
}

TEST(MemoryTimerQueue, PeriodicTimerRunsUntilDeletedAndSignalsCompletion) {
  TMemoryTimerQueue queue;
  std::atomic<int> calls{0};
  TManualResetEvent gone(false);
  const auto handle = queue.CreateTimer([&] { calls.fetch_add(1); }, 1, 1);
  EXPECT_EQ(queue.TimerCount(), 1u);
  while (calls.load() < 3) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(queue.DeleteTimer(handle, &gone));
  EXPECT_TRUE(gone.Wait(10000));
  const int after = calls.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(calls.load(), after);
  EXPECT_EQ(queue.TimerCount(), 0u);
  // An unknown handle: false, and its event is set at once.
  TManualResetEvent unknown(false);
  EXPECT_FALSE(queue.DeleteTimer(handle, &unknown));
  EXPECT_TRUE(unknown.IsSet());
}

TEST(MemoryTimerQueue, CallbackDeletesItsOwnTimerAndCompletionWaitsForItsReturn) {
  TMemoryTimerQueue queue;
  TManualResetEvent gone(false);
  std::atomic<bool> returned{false};
  std::atomic<bool> sawGoneEarly{false};
  TMemoryTimerQueue::THandle handle = 0;
  std::atomic<bool> created{false};
  handle = queue.CreateTimer(
      [&] {
        while (!created.load()) std::this_thread::yield();
        queue.DeleteTimer(handle, &gone);
        // Deleting again while the call runs must not signal early.
        queue.DeleteTimer(handle, &gone);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (gone.IsSet()) sawGoneEarly.store(true);
        returned.store(true);
      },
      0, 1);
  created.store(true);
  ASSERT_TRUE(gone.Wait(10000));
  EXPECT_TRUE(returned.load());
  EXPECT_FALSE(sawGoneEarly.load());
  EXPECT_EQ(queue.TimerCount(), 0u);
}

TEST(HeapAlignment, HandsOutAlignedArraysUntilTheBlockIsUsedUp) {
  THeapAlignment heap;
  heap.AddDoubleArrays(2, 10); // 80 bytes each, a multiple of 8: still gains 8
  heap.AddIntArrays(1, 3);     // 12 bytes -> 16
  heap.AddPointerArrays(1, 2);
  EXPECT_EQ(heap.TotalBytes(), 2 * 88u + 16u + (2 * sizeof(void*) + 8));
  ASSERT_TRUE(heap.Allocate());
  double* a = heap.GetDoubleArray(10);
  double* b = heap.GetDoubleArray(10);
  int* c = heap.GetIntArray(3);
  double** d = heap.GetDoublePointerArray(2);
  for (void* p :
       {static_cast<void*>(a), static_cast<void*>(b), static_cast<void*>(c), static_cast<void*>(d)}) {
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
  }
  EXPECT_EQ(reinterpret_cast<char*>(b) - reinterpret_cast<char*>(a), 88);
  heap.ClearArray();
  EXPECT_EQ(a[9], 0.0);
  EXPECT_EQ(c[2], 0);
  for (int i = 0; i < 10; ++i) a[i] = b[i] = i;
  // The reserve allows a little more; then the block is used up for good.
  EXPECT_NE(heap.GetCharArray(40), nullptr);
  EXPECT_EQ(heap.GetFloatArray(100), nullptr);
  EXPECT_EQ(heap.GetCharArray(1), nullptr);
  EXPECT_EQ(a[9], 9.0);
  heap.Clear();
  EXPECT_EQ(heap.TotalBytes(), 0u);
  EXPECT_EQ(heap.GetCharArray(1), nullptr);
}
