// The heap strategy keeps large blocks given back for the next array of about their size: a kept block
// comes back cleared, a block of another size or beyond the bound is not kept or not taken, and threads
// giving back and taking blocks at once lose none.
#include "common/memory/Memorystrategyheap.h"
#include "common/memory/Partialmemory.h"

#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr uint64_t kMiB = uint64_t(1) << 20;

class HeapKeptBlocksTest : public ::testing::Test {
protected:
  void SetUp() override {
    TPartialMemoryHeapConfiguration configuration;
    configuration.LimitInBytes = 256 * kMiB; // blocks wait up to a quarter: 64 MiB
    ASSERT_TRUE(FAllocator.Initialize(&configuration));
  }
  /// An array of bytes with every byte set to fill.
  IPartialArray* Filled(uint64_t bytes, uint8_t fill) {
    IPartialArray* array = FAllocator.AllocateArray(bytes);
    if (!array) return nullptr;
    const std::vector<uint8_t> data(bytes, fill);
    array->SetDataAtAddressEx(0, data.data(), bytes);
    return array;
  }
  static bool AllZero(IPartialArray* array, uint64_t bytes) {
    std::vector<uint8_t> data(bytes, 0xff);
    array->GetDataAtAddressEx(0, data.data(), bytes);
    for (uint8_t b : data)
      if (b != 0) return false;
    return true;
  }

  TPartialMemoryFromHeapAllocator FAllocator;
};

} // namespace

TEST_F(HeapKeptBlocksTest, AKeptBlockComesBackClearedForAnArrayOfAboutItsSize) {
  IPartialArray* first = Filled(10 * kMiB, 0xab);
  ASSERT_NE(first, nullptr);
  delete first; // gives its pages and its block back
  EXPECT_EQ(FAllocator.KeptBytes(), 10 * kMiB);
  // 9.5 MiB rounds to 10 MiB of huge pages: the same block, cleared.
  IPartialArray* second = FAllocator.AllocateArray(9 * kMiB + kMiB / 2);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(FAllocator.KeptBytes(), 0u);
  EXPECT_TRUE(AllZero(second, 9 * kMiB + kMiB / 2));
  delete second; // gives its pages and its block back

  // A block more than an eighth larger than asked for stays kept; the array gets a new one.
  IPartialArray* small = FAllocator.AllocateArray(4 * kMiB);
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(FAllocator.KeptBytes(), 10 * kMiB);
  delete small; // gives its pages and its block back
  EXPECT_EQ(FAllocator.KeptBytes(), 14 * kMiB);
}

TEST_F(HeapKeptBlocksTest, TheBoundHoldsAndTheOldestMakeRoom) {
  IPartialArray* huge = Filled(80 * kMiB, 1); // beyond a quarter of the limit: never kept
  ASSERT_NE(huge, nullptr);
  delete huge; // gives its pages and its block back
  EXPECT_EQ(FAllocator.KeptBytes(), 0u);
  std::vector<IPartialArray*> arrays;
  for (int i = 0; i < 5; ++i) arrays.push_back(Filled(20 * kMiB, 2));
  for (IPartialArray* a : arrays) {
    ASSERT_NE(a, nullptr);
    delete a; // gives its pages and its block back
  }
  EXPECT_EQ(FAllocator.KeptBytes(), 60 * kMiB) << "three of 20 MiB fit below 64 MiB";
  // Small arrays live on single pages and never touch the kept blocks.
  IPartialArray* page = FAllocator.AllocateArray(1000);
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(FAllocator.KeptBytes(), 60 * kMiB);
  delete page; // gives its pages and its block back
}

TEST_F(HeapKeptBlocksTest, ThreadsTakingAndGivingBackLoseNoBlock) {
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([this, t, &failures] {
      for (int round = 0; round < 20; ++round) {
        IPartialArray* a = Filled(4 * kMiB, static_cast<uint8_t>(t + 1));
        if (!a) {
          ++failures[static_cast<size_t>(t)];
          continue;
        }
        uint8_t probe = 0;
        a->GetDataAtAddressEx(3 * kMiB, &probe, 1);
        if (probe != t + 1) ++failures[static_cast<size_t>(t)]; // another thread wrote into this block
        delete a;                                               // gives its pages and its block back
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
  EXPECT_LE(FAllocator.KeptBytes(), 64 * kMiB);
  EXPECT_EQ(FAllocator.KeptBytes() % (4 * kMiB), 0u);
}
