// TPartialMemoryArray and TPMASequentialAccess on both memory strategies.
#include "MemoryTestSupport.h"
#include "common/OrvexException.h"
#include "common/memory/Partialmemoryarraytemplate.h"
#include "support/TestSupport.h"

#include <atomic>
#include <cstring>
#include <numeric>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using oxtest::TScopedStrategy;
using oxtest::TStrategyKind;

namespace {

constexpr uint64_t kPage = kPartialMemoryPageSize;

class PartialMemoryArrayTest : public ::testing::TestWithParam<TStrategyKind> {
protected:
  // 32 MiB of pages; the memory-mapped strategy sees them through 16 views of 64 KiB, so every
  // test that touches more than 1 MiB evicts pages.
  PartialMemoryArrayTest() : Strategy(GetParam(), 32u << 20, 16 * kPage) {}
  TScopedStrategy Strategy;
};

template <typename T>
void CheckElementsAcrossPages(T (*valueOf)(uint64_t)) {
  // Three and a half pages of elements: the indices around every page boundary are touched.
  const uint64_t count = (3 * kPage + kPage / 2) / sizeof(T);
  TPartialMemoryArray<T> array(count);
  for (uint64_t i = 0; i < count; ++i) array.SetValue(i, valueOf(i));
  for (uint64_t i = 0; i < count; ++i) ASSERT_EQ(array.GetValue(i), valueOf(i)) << "index " << i;
}

} // namespace

TEST_P(PartialMemoryArrayTest, ElementsOfEveryKindSurviveAcrossPageBoundaries) {
  ASSERT_TRUE(Strategy.Ok);
  CheckElementsAcrossPages<int8_t>([](uint64_t i) { return int8_t(i * 7); });
  CheckElementsAcrossPages<uint8_t>([](uint64_t i) { return uint8_t(i * 13); });
  CheckElementsAcrossPages<int16_t>([](uint64_t i) { return int16_t(i * 31 - 5000); });
  CheckElementsAcrossPages<uint16_t>([](uint64_t i) { return uint16_t(i * 17); });
  CheckElementsAcrossPages<int32_t>([](uint64_t i) { return int32_t(i * 2654435761u); });
  CheckElementsAcrossPages<uint32_t>([](uint64_t i) { return uint32_t(i * 40503u); });
  CheckElementsAcrossPages<int64_t>([](uint64_t i) { return int64_t(i) * -1000003; });
  CheckElementsAcrossPages<bool>([](uint64_t i) { return i % 3 == 0; });
  CheckElementsAcrossPages<float>([](uint64_t i) { return float(i) * 0.5f - 3.25f; });
  CheckElementsAcrossPages<double>([](uint64_t i) { return double(i) / 3.0; });
  CheckElementsAcrossPages<long double>([](uint64_t i) { return (long double)(i) / 7.0L; });
}

TEST_P(PartialMemoryArrayTest, ThreeIndicesRunFirstIndexFastest) {
  TPartialMemoryArray<int32_t> array(7, 5, 3);
  EXPECT_EQ(array.GetNumberOfElements(), 105u);
  for (uint64_t k = 0; k < 3; ++k)
    for (uint64_t j = 0; j < 5; ++j)
      for (uint64_t i = 0; i < 7; ++i) array.SetValue(i, j, k, int32_t(100 * k + 10 * j + i));
  EXPECT_EQ(array.GetValue(3 + 7 * 2 + 35 * 1), 123);
  EXPECT_EQ(array.GetValue(6, 4), 46);
  std::vector<int32_t> row(7);
  array.GetValueArrayDim1(5 + 2, row.data()); // j = 2 of k = 1
  for (int i = 0; i < 7; ++i) EXPECT_EQ(row[i], 120 + i);
  std::vector<int32_t> newRow{9, 8, 7, 6, 5, 4, 3};
  array.SetValueArrayDim1(14, newRow.data()); // j = 4 of k = 2 ... index 14*7 = 98
  EXPECT_EQ(array.GetValue(0, 4, 2), 9);
  EXPECT_EQ(array.GetValue(6, 4, 2), 3);
  EXPECT_EQ(array.GetValue(6, 3, 2), 236);
}

TEST_P(PartialMemoryArrayTest, BulkTransfersMatchAReferenceVector) {
  const uint64_t count = 5 * kPage / sizeof(float) + 123; // not a whole number of pages
  std::vector<float> reference(count);
  for (uint64_t i = 0; i < count; ++i) reference[i] = float(i) * 1.25f;
  TPartialMemoryArray<float> array(count);
  array.SetValueArray(0, reference.data(), count);

  std::vector<float> back(count, -1.0f);
  array.GetValueArray(0, back.data(), count);
  EXPECT_EQ(back, reference);

  // Unaligned pieces that start and end inside pages, written over the first contents.
  const uint64_t start = kPage / sizeof(float) - 3;
  std::vector<float> piece(2 * kPage / sizeof(float) + 9);
  std::iota(piece.begin(), piece.end(), -500.0f);
  array.SetValueArray(start, piece.data(), piece.size());
  std::copy(piece.begin(), piece.end(), reference.begin() + start);
  // The last element of the array is reached exactly.
  array.SetValueArray(count - 1, &reference[5], 1);
  reference[count - 1] = reference[5];

  std::vector<float> middle(piece.size() + 20);
  array.GetValueArray(start - 10, middle.data(), middle.size());
  for (size_t i = 0; i < middle.size(); ++i) ASSERT_EQ(middle[i], reference[start - 10 + i]);
  array.GetValueArray(0, back.data(), count);
  EXPECT_EQ(back, reference);
}

TEST_P(PartialMemoryArrayTest, BulkAndElementAccessSeeTheSameBytes) {
  // Large pieces and single elements take different ways to the pages (file transfers and views
  // with the memory-mapped strategy); each must see what the other wrote, also on mapped pages.
  const uint64_t count = 40 * kPage / sizeof(int32_t); // 40 pages against 16 views
  TPartialMemoryArray<int32_t> array(count);
  for (uint64_t i = 0; i < count; i += 1000) array.SetValue(i, -1); // maps pages on the way
  std::vector<int32_t> values(count);
  std::iota(values.begin(), values.end(), 0);
  array.SetValueArray(0, values.data(), count);
  for (uint64_t i = 0; i < count; i += 1000) ASSERT_EQ(array.GetValue(i), int32_t(i));
  for (uint64_t i = 7; i < count; i += 333) array.SetValue(i, -int32_t(i));
  std::vector<int32_t> back(count);
  array.GetValueArray(0, back.data(), count);
  for (uint64_t i = 0; i < count; ++i)
    ASSERT_EQ(back[i], (i >= 7 && (i - 7) % 333 == 0) ? -int32_t(i) : int32_t(i));
  // A small piece straddling a page boundary goes through two views.
  const int32_t pair[2] = {111, 222};
  array.SetValueArray(kPage / 4 - 1, pair, 2);
  array.GetValueArray(kPage / 4 - 1, back.data(), 2);
  EXPECT_EQ(back[0], 111);
  EXPECT_EQ(back[1], 222);
}

TEST_P(PartialMemoryArrayTest, FillCopyAndClear) {
  // 600,000 doubles: 4.8 MB, so the 1 MiB scratch buffer is used several times plus a remainder.
  const uint64_t count = 600000;
  TPartialMemoryArray<double> source(count);
  source.FillWithValue(2.5);
  std::vector<double> values(count);
  source.GetValueArray(0, values.data(), count);
  EXPECT_EQ(std::count(values.begin(), values.end(), 2.5), int64_t(count));

  for (uint64_t i = 0; i < count; i += 997) source.SetValue(i, double(i));
  auto copy = source.CreateArrayWithSameSize();
  ASSERT_EQ(copy->Dim1, count);
  copy->CopyFrom(source);
  for (uint64_t i = 0; i < count; i += 997) ASSERT_EQ(copy->GetValue(i), double(i));
  EXPECT_EQ(copy->GetValue(count - 1), 2.5); // 599,999 is no multiple of 997

  TPartialMemoryArray<double> other(count / 2, 2);
  EXPECT_THROW(other.CopyFrom(source), OrvexException);

  copy->ClearData();
  copy->GetValueArray(0, values.data(), count);
  EXPECT_EQ(std::count(values.begin(), values.end(), 0.0), int64_t(count));
  // A fill of a one-element array uses a buffer of one element.
  TPartialMemoryArray<long double> single(1);
  single.FillWithValue(1.5L);
  EXPECT_EQ(single.GetValue(0), 1.5L);
}

TEST_P(PartialMemoryArrayTest, PagesAreTakenAndGivenBackExactly) {
  const uint32_t freeAtStart = Strategy.FreePages();
  {
    TPartialMemoryArray<uint8_t> empty(0, 10, 10);
    EXPECT_EQ(empty.GetNumberOfElements(), 0u);
    EXPECT_EQ(empty.GetPartialArray(), nullptr);
    EXPECT_EQ(Strategy.FreePages(), freeAtStart);

    TPartialMemoryArray<uint8_t> onePage(kPage);
    EXPECT_EQ(Strategy.FreePages(), freeAtStart - 1);
    TPartialMemoryArray<uint8_t> onePagePlusOne(kPage + 1);
    EXPECT_EQ(Strategy.FreePages(), freeAtStart - 3);
  }
  EXPECT_EQ(Strategy.FreePages(), freeAtStart);
}

TEST_P(PartialMemoryArrayTest, PageActionsCountEveryPageOutAndBack) {
  std::vector<uint64_t> given;
  std::vector<uint64_t> returned;
  Strategy.Allocator()->SetAllocationAndFreeActions(
      [&](uint64_t address, uint32_t size) {
        EXPECT_EQ(size, kPage);
        given.push_back(address / kPage);
      },
      [&](uint64_t address, uint32_t) { returned.push_back(address / kPage); });
  {
    TPartialMemoryArray<float> first(3 * kPage / sizeof(float));  // pages 0..2
    TPartialMemoryArray<float> second(kPage / sizeof(float) + 1); // pages 3..4
    EXPECT_EQ(given, (std::vector<uint64_t>{0, 1, 2, 3, 4}));
    EXPECT_TRUE(returned.empty());
  }
  // second goes first, then first; the freed pages are reused lowest first.
  EXPECT_EQ(returned, (std::vector<uint64_t>{3, 4, 0, 1, 2}));
  given.clear();
  TPartialMemoryArray<uint8_t> third(2 * kPage);
  EXPECT_EQ(given, (std::vector<uint64_t>{0, 1}));
  Strategy.Allocator()->SetAllocationAndFreeActions(nullptr, nullptr);
}

TEST_P(PartialMemoryArrayTest, ArraysThatDoNotFitThrowWithoutCrash) {
  const uint32_t freeAtStart = Strategy.FreePages();
  try {
    TPartialMemoryArray<float> tooLarge(64u << 20); // 256 MiB against a 32 MiB strategy
    FAIL() << "an array larger than the strategy was made";
  } catch (const OrvexExceptionMemoryAllocation& e) {
    EXPECT_NE(std::string(e.what()).find("PartialMemoryAllocator->AllocateArray(256 MBytes) did not work"),
              std::string::npos)
        << e.what();
    EXPECT_NE(std::string(e.what()).find("not enough memory"), std::string::npos);
  }
  try {
    TPartialMemoryArray<double> overflowing(uint64_t(1) << 40, uint64_t(1) << 20, 1 << 4);
    FAIL() << "an overflowing size was accepted";
  } catch (const OrvexExceptionMemoryAllocation& e) {
    EXPECT_NE(std::string(e.what()).find("not enough memory"), std::string::npos) << e.what();
  }
  // Only the last multiplication (by the element size) overflows here.
  EXPECT_THROW(TPartialMemoryArray<int64_t>(uint64_t(1) << 61), OrvexExceptionMemoryAllocation);
  // A page count beyond 32 bits is refused by the allocator itself.
  EXPECT_EQ(Strategy.Allocator()->AllocateArray(uint64_t(1) << 50), nullptr);
  EXPECT_EQ(Strategy.FreePages(), freeAtStart);
  // What is left still works.
  TPartialMemoryArray<float> fits(1000);
  fits.SetValue(999, 4.0f);
  EXPECT_EQ(fits.GetValue(999), 4.0f);
}

TEST_P(PartialMemoryArrayTest, FileTransferRoundTripGoesPageByPage) {
  oxtest::TempDir dir;
  const std::string name = dir.File("contents.bin");
  const uint64_t count = 3 * kPage / sizeof(int32_t) + 77;
  TPartialMemoryArray<int32_t> array(count);
  for (uint64_t i = 0; i < count; ++i) array.SetValue(i, int32_t(i ^ 0x5a5a));
  int fd = ::open(name.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, "HEAD", 4), 4);
  EXPECT_TRUE(array.GetPartialArray()->SaveContentsToFile(fd, 0, count * 4));
  ::close(fd);
  EXPECT_EQ(oxtest::ReadFileBytes(name).size(), 4 + count * 4);

  TPartialMemoryArray<int32_t> loaded(count);
  loaded.FillWithValue(-1);
  fd = ::open(name.c_str(), O_RDONLY);
  ASSERT_EQ(::lseek(fd, 4, SEEK_SET), 4);
  EXPECT_TRUE(loaded.GetPartialArray()->LoadContentsFromFile(fd, 0, count * 4));
  for (uint64_t i = 0; i < count; i += 101) ASSERT_EQ(loaded.GetValue(i), int32_t(i ^ 0x5a5a));
  EXPECT_EQ(loaded.GetValue(count - 1), int32_t((count - 1) ^ 0x5a5a));
  // At the end of the file nothing more arrives: false, and the array keeps its contents.
  EXPECT_FALSE(loaded.GetPartialArray()->LoadContentsFromFile(fd, 0, 16));
  EXPECT_EQ(loaded.GetValue(0), 0x5a5a);
  ::close(fd);
}

TEST_P(PartialMemoryArrayTest, ThreadsReadAndWriteDifferentPagesConcurrently) {
  // Four threads with two pages each write and check their own stripes again and again; with
  // the memory-mapped strategy they compete for 16 views, so pages are evicted underneath.
  constexpr int kThreads = 4;
  constexpr uint64_t kPerThread = 2 * kPage / sizeof(uint32_t);
  TPartialMemoryArray<uint32_t> array(kThreads * kPerThread * 3);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      std::vector<uint32_t> block(kPerThread);
      for (int round = 0; round < 40; ++round) {
        // Thread t owns the stripes t, t + 4, t + 8 (each two pages).
        for (int s = 0; s < 3; ++s) {
          const uint64_t start = uint64_t(t + kThreads * s) * kPerThread;
          for (uint64_t i = 0; i < kPerThread; ++i) block[i] = uint32_t(round * 1000003 + start + i);
          if (round % 2 == 0)
            array.SetValueArray(start, block.data(), kPerThread);
          else
            for (uint64_t i = 0; i < kPerThread; i += 64) array.SetValue(start + i, block[i]);
        }
        for (int s = 0; s < 3; ++s) {
          const uint64_t start = uint64_t(t + kThreads * s) * kPerThread;
          array.GetValueArray(start, block.data(), kPerThread);
          for (uint64_t i = 0; i < kPerThread; i += 64)
            if (block[i] != uint32_t(round * 1000003 + start + i)) failures.fetch_add(1);
        }
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
}

TEST_P(PartialMemoryArrayTest, SequentialAccessForwardAndBackward) {
  const uint64_t count = 1000;
  TPartialMemoryArray<float> array(count);
  {
    TPMASequentialAccess<float> writer(array, 128);
    for (uint64_t i = 0; i < count; ++i) writer.SetNextValue(float(i));
    // 1000 is no whole number of buffers: the next write runs past the end at once.
    EXPECT_THROW(writer.SetNextValue(0.0f), OrvexException);
    writer.FlushBuffer();
  }
  EXPECT_EQ(array.GetValue(999), 999.0f);
  EXPECT_EQ(array.GetValue(128), 128.0f);

  // Backward: position the cursor block by block from the end towards the start.
  TPMASequentialAccess<float> reader(array, 100);
  for (int64_t block = 9; block >= 0; --block) {
    reader.SetPosition(uint64_t(block) * 100);
    for (uint64_t i = 0; i < 100; ++i) ASSERT_EQ(reader.GetNextValue(), float(block * 100 + i));
  }
  // Writes that are not flushed never reach the array: the destructor does not flush.
  {
    TPMASequentialAccess<float> lost(array, 16);
    lost.SetNextValue(-1.0f);
  }
  EXPECT_EQ(array.GetValue(0), 0.0f);
  // A write into one block, then a move elsewhere, stores the block.
  {
    TPMASequentialAccess<float> cursor(array, 16);
    cursor.SetPosition(500);
    cursor.SetNextValue(-5.0f);
    cursor.SetPosition(0);
    EXPECT_EQ(cursor.GetNextValue(), 0.0f);
  }
  EXPECT_EQ(array.GetValue(500), -5.0f);
}

TEST_P(PartialMemoryArrayTest, SequentialReadPastTheEndOfWholeBuffers) {
  // 256 elements in buffers of 128: the read past the end gives one stale value from the empty
  // reload and throws at the next call.
  TPartialMemoryArray<int32_t> array(256);
  for (int i = 0; i < 256; ++i) array.SetValue(uint64_t(i), i);
  TPMASequentialAccess<int32_t> reader(array, 128);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(reader.GetNextValue(), i);
  EXPECT_EQ(reader.GetNextValue(), 128); // the buffer still holds the second block
  try {
    reader.GetNextValue();
    FAIL() << "no end of array";
  } catch (const OrvexException& e) {
    EXPECT_STREQ(e.what(), "TPMASequentialAccess<Kind>::GetNextValue(): End of Array");
  }
  // With another length the first read past the end throws.
  TPartialMemoryArray<int32_t> odd(200);
  TPMASequentialAccess<int32_t> oddReader(odd, 128);
  for (int i = 0; i < 200; ++i) oddReader.GetNextValue();
  EXPECT_THROW(oddReader.GetNextValue(), OrvexException);
}

INSTANTIATE_TEST_SUITE_P(BothStrategies, PartialMemoryArrayTest,
                         ::testing::Values(TStrategyKind::Heap, TStrategyKind::MMF),
                         [](const auto& info) { return oxtest::StrategyName(info.param); });

TEST(PartialMemoryArrayWithoutStrategy, ThrowsTheAllocationException) {
  IPartialMemoryAllocator* previous = TMemoryManagement::PartialMemoryAllocator;
  TMemoryManagement::PartialMemoryAllocator = nullptr;
  EXPECT_THROW(TPartialMemoryArray<float>(10), OrvexExceptionMemoryAllocation);
  TPartialMemoryArray<float> empty(0); // needs no strategy
  EXPECT_EQ(empty.GetNumberOfElements(), 0u);
  TMemoryManagement::PartialMemoryAllocator = previous;
}
