// The memory-mapped file backing: views, victim search, reference counts, flushing, the file.
#include "MemoryTestSupport.h"
#include "common/memory/Partialmemoryarraytemplate.h"
#include "common/memory/Partialmmfmemory.h"
#include "support/TestSupport.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint32_t kPage = kPartialMemoryPageSize;

// Polls a condition for at most ten seconds; the tests wait for background work this way.
template <typename F>
bool Eventually(F condition) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

bool OtherThreadGetsPageLock(TPartialMMFMemory& memory, uint32_t page) {
  bool got = false;
  std::thread([&] { got = memory.TryPageLock(page); }).join();
  return got;
}

} // namespace

TEST(PartialMMFMemory, VictimSearchIsRoundRobinAndSkipsReferencedPages) {
  TPartialMMFMemory memory(16 * kPage, 4 * kPage, "");
  ASSERT_TRUE(memory.MemoryBackingAllocated());
  EXPECT_FALSE(memory.BackedByDiskFile());
  EXPECT_EQ(memory.MappedPageCount(), 4u);
  for (uint32_t page = 0; page < 4; ++page) EXPECT_TRUE(memory.IsPageMapped(page));
  EXPECT_EQ(memory.MapCount(), 4u);

  std::atomic<uint32_t>* reference = nullptr;
  // Page 0 is referenced: the first search passes it and takes page 1.
  uint8_t* page0 = memory.GetAddressWithinPage(0, 0, reference);
  ASSERT_NE(page0, nullptr);
  std::atomic<uint32_t>* reference0 = reference;
  EXPECT_EQ(memory.ReferenceCountOf(0), 1u);
  ASSERT_NE(memory.GetAddressWithinPage(100, 10, reference), nullptr);
  TPartialMMFMemory::ReleasePage(reference);
  EXPECT_TRUE(memory.IsPageMapped(0));
  EXPECT_FALSE(memory.IsPageMapped(1));
  EXPECT_TRUE(memory.IsPageMapped(10));
  // The hand moved on: page 2 goes next, then page 3, then the view now holding page 10.
  ASSERT_NE(memory.GetAddress(uint64_t(11) * kPage + 5, reference), nullptr);
  TPartialMMFMemory::ReleasePage(reference);
  EXPECT_FALSE(memory.IsPageMapped(2));
  ASSERT_NE(memory.GetAddress(uint64_t(12) * kPage, reference), nullptr);
  TPartialMMFMemory::ReleasePage(reference);
  EXPECT_FALSE(memory.IsPageMapped(3));
  ASSERT_NE(memory.GetAddress(uint64_t(13) * kPage, reference), nullptr);
  TPartialMMFMemory::ReleasePage(reference);
  EXPECT_TRUE(memory.IsPageMapped(0)); // still referenced, passed again
  EXPECT_FALSE(memory.IsPageMapped(10));
  EXPECT_EQ(memory.UnmapCount(), 4u);
  EXPECT_EQ(memory.MapCount(), 8u);
  TPartialMMFMemory::ReleasePage(reference0);
}

TEST(PartialMMFMemory, DataSurvivesEviction) {
  oxtest::TempDir dir;
  TPartialMMFMemory memory(32 * kPage, 3 * kPage, dir.Path().string());
  ASSERT_TRUE(memory.BackedByDiskFile());
  for (uint32_t page = 0; page < 32; ++page) {
    std::atomic<uint32_t>* reference;
    uint8_t* base = memory.GetAddressWithinPage(0, page, reference);
    ASSERT_NE(base, nullptr);
    for (uint32_t i = 0; i < kPage; i += 4096) base[i] = uint8_t(page * 7 + i / 4096);
    TPartialMMFMemory::ReleasePage(reference);
  }
  for (uint32_t page = 31; page < 32; --page) {
    std::atomic<uint32_t>* reference;
    const uint8_t* base = memory.GetAddressWithinPage(0, page, reference);
    ASSERT_NE(base, nullptr);
    for (uint32_t i = 0; i < kPage; i += 4096) ASSERT_EQ(base[i], uint8_t(page * 7 + i / 4096)) << page;
    TPartialMMFMemory::ReleasePage(reference);
  }
  EXPECT_GE(memory.UnmapCount(), 29u + 29u);
}

TEST(PartialMMFMemory, AllViewsReferencedGivesNullAndKeepsThePageLock) {
  TPartialMMFMemory memory(8 * kPage, 2 * kPage, "");
  std::atomic<uint32_t>* first;
  std::atomic<uint32_t>* second;
  ASSERT_NE(memory.GetAddressWithinPage(0, 0, first), nullptr);
  ASSERT_NE(memory.GetAddressWithinPage(0, 1, second), nullptr);
  std::atomic<uint32_t>* reference = reinterpret_cast<std::atomic<uint32_t>*>(1);
  EXPECT_EQ(memory.GetAddressWithinPage(0, 5, reference), nullptr);
  EXPECT_EQ(reference, nullptr);
  // The calling thread keeps the lock of page 5; another thread can't have it.
  EXPECT_FALSE(OtherThreadGetsPageLock(memory, 5));
  EXPECT_TRUE(OtherThreadGetsPageLock(memory, 6));
  // A second failure by the same thread re-enters the lock.
  EXPECT_EQ(memory.GetAddressWithinPage(0, 5, reference), nullptr);

  TPartialMMFMemory::ReleasePage(second);
  ASSERT_NE(memory.GetAddressWithinPage(0, 5, reference), nullptr);
  // Success gives back every hold that the failures left.
  EXPECT_TRUE(OtherThreadGetsPageLock(memory, 5));
  TPartialMMFMemory::ReleasePage(reference);
  TPartialMMFMemory::ReleasePage(first);
}

TEST(PartialMMFMemory, TemporaryFileIsMadeInTheDirectoryAndLeavesItAtOnce) {
  oxtest::TempDir dir;
  {
    TPartialMMFMemory memory(10 * kPage + 1, 2 * kPage, dir.Path().string());
    ASSERT_TRUE(memory.BackedByDiskFile());
    const std::filesystem::path path(memory.FileName());
    EXPECT_EQ(path.parent_path(), dir.Path());
    EXPECT_EQ(path.filename().string().substr(0, 3), "qzt");
    EXPECT_EQ(path.extension(), ".tmp");
    EXPECT_EQ(memory.TotalPages(), 11u); // rounded up to whole pages
    // The open file has its whole size, but the folder holds nothing a killed run could leave.
    struct stat st {};
    ASSERT_EQ(::fstat(memory.FileDescriptor(), &st), 0);
    EXPECT_EQ(uint64_t(st.st_size), 11u * kPage);
    EXPECT_EQ(st.st_nlink, 0u);
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
  }
  // A directory that doesn't exist leaves the backing to anonymous memory.
  TPartialMMFMemory fallback(4 * kPage, kPage, (dir.Path() / "missing").string());
  EXPECT_TRUE(fallback.MemoryBackingAllocated());
  EXPECT_FALSE(fallback.BackedByDiskFile());
}

TEST(PartialMMFAllocator, InitializeRefusesUnworkableConfigurations) {
  TPartialMemoryFromMMFAllocator allocator;
  EXPECT_FALSE(allocator.Initialize(nullptr));
  TPartialMemoryMMFConfiguration configuration;
  configuration.FileSizeInBytes = 8 * kPage;
  configuration.MapSizeInBytes = 9 * kPage; // larger than the file
  EXPECT_FALSE(allocator.Initialize(&configuration));
  configuration.MapSizeInBytes = 0;
  EXPECT_FALSE(allocator.Initialize(&configuration));
  configuration.MapSizeInBytes = kPage;
  configuration.FileSizeInBytes = 0;
  EXPECT_FALSE(allocator.Initialize(&configuration));
  configuration.FileSizeInBytes = 8 * kPage;
  TPartialMemoryHeapConfiguration heapRecord; // another strategy's record
  EXPECT_FALSE(allocator.Initialize(&heapRecord));
  configuration.RecordSize = 12;
  EXPECT_FALSE(allocator.Initialize(&configuration));
  configuration.RecordSize = sizeof(configuration);
  ASSERT_TRUE(allocator.Initialize(&configuration));
  uint32_t total, free, pageSize;
  allocator.GetMemoryStatus(total, free, pageSize);
  EXPECT_EQ(total, 8u);
  EXPECT_EQ(free, 8u);
  EXPECT_EQ(pageSize, kPage);
  // Arrays of another allocator are ignored by FreeArray.
  TPartialMemoryFromHeapAllocator heap;
  TPartialMemoryHeapConfiguration heapConfiguration;
  heapConfiguration.LimitInBytes = 4 * kPage;
  ASSERT_TRUE(heap.Initialize(&heapConfiguration));
  std::unique_ptr<IPartialArray> heapArray(heap.AllocateArray(100));
  allocator.FreeArray(heapArray.get());
  allocator.FreeArray(nullptr);
  heap.GetMemoryStatus(total, free, pageSize);
  EXPECT_EQ(total, 5u); // the limit's pages plus one
  EXPECT_EQ(free, 4u);
}

TEST(PartialMMFAllocator, WritesAreFlushedToTheFileAndTheTimerEndsWhenQuiet) {
  oxtest::TempDir dir;
  oxtest::TScopedStrategy strategy(oxtest::TStrategyKind::MMF, 64 * kPage, 4 * kPage, dir.Path().string());
  ASSERT_TRUE(strategy.Ok);
  strategy.Mmf->SetFlushPeriodMs(20);
  TPartialMemoryArray<uint32_t> array(8 * kPage / 4);
  auto* mapped = dynamic_cast<TPartialMemoryMappedArray*>(array.GetPartialArray());
  ASSERT_NE(mapped, nullptr);
  EXPECT_FALSE(mapped->HasFlushTimer());

  array.SetValue(7, 0xC0FFEEu);
  array.SetValue(5 * kPage / 4 + 1, 0xBADCAFEu);
  EXPECT_TRUE(mapped->HasFlushTimer());
  ASSERT_TRUE(Eventually([&] { return mapped->FlushPassCount() >= 1; }));
  // After a quiet period the timer ends by itself.
  ASSERT_TRUE(Eventually([&] { return !mapped->HasFlushTimer(); }));
  const uint64_t passes = mapped->FlushPassCount();

  // The file holds the values at the pages the array got.
  const int fd = strategy.Mmf->Memory()->FileDescriptor();
  ASSERT_GE(fd, 0);
  uint32_t value = 0;
  ASSERT_EQ(::pread(fd, &value, 4, off_t(uint64_t(mapped->FilePageOf(0)) * kPage + 28)), 4);
  EXPECT_EQ(value, 0xC0FFEEu);
  ASSERT_EQ(::pread(fd, &value, 4, off_t(uint64_t(mapped->FilePageOf(5)) * kPage + 4)), 4);
  EXPECT_EQ(value, 0xBADCAFEu);

  // A new write starts a new timer; destroying the array meanwhile waits for it safely.
  array.FillWithValue(3);
  EXPECT_TRUE(mapped->HasFlushTimer());
  ASSERT_TRUE(Eventually([&] { return mapped->FlushPassCount() > passes; }));
}

TEST(PartialMMFAllocator, ManyArraysFlushingWhileDestroyed) {
  // Arrays come and go while their timers fire; none of this may hang or touch freed memory.
  oxtest::TScopedStrategy strategy(oxtest::TStrategyKind::MMF, 256 * kPage, 8 * kPage);
  ASSERT_TRUE(strategy.Ok);
  strategy.Mmf->SetFlushPeriodMs(1);
  const uint32_t freeAtStart = strategy.FreePages();
  for (int round = 0; round < 30; ++round) {
    std::vector<std::unique_ptr<TPartialMemoryArray<float>>> arrays;
    for (int i = 0; i < 7; ++i) {
      arrays.push_back(std::make_unique<TPartialMemoryArray<float>>(3 * kPage / 4));
      arrays.back()->FillWithValue(float(i));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(round % 3));
    for (int i = 0; i < 7; ++i) EXPECT_EQ(arrays[i]->GetValue(kPage / 4 + 3), float(i));
  }
  EXPECT_EQ(strategy.FreePages(), freeAtStart);
}
