// A paged float array of 4 GiB on the memory-mapped strategy with 64 MB of views: the data is
// many times what is mapped, and the process's resident memory stays far below it.
#include "common/memory/Memorymanagement.h"
#include "common/memory/Memorystrategymmf.h"
#include "common/memory/Partialmemoryarraytemplate.h"
#include "support/TestSupport.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Peak resident memory of the process in bytes (VmHWM of /proc/self/status).
uint64_t PeakResidentBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
  return 0;
}

// The value of element i: exactly representable, different for neighbouring pages.
float ValueOf(uint64_t i) {
  return float(i % 1000003);
}

} // namespace

TEST(PartialMemoryArrayLarge, FourGiBOfFloatsThroughSixtyFourMBOfViews) {
  oxtest::TempDir dir;
  const uint64_t count = (uint64_t(4) << 30) / sizeof(float) + 12345; // a little over 4 GiB
  const uint64_t bytes = count * sizeof(float);

  auto allocator = std::make_unique<TPartialMemoryFromMMFAllocator>();
  TPartialMemoryMMFConfiguration configuration;
  configuration.FileSizeInBytes = bytes + (uint64_t(64) << 20);
  configuration.MapSizeInBytes = 64u << 20;
  const std::string directory = dir.Path().string();
  configuration.Directory = directory.c_str();
  configuration.DirectoryLength = uint32_t(directory.size());
  ASSERT_TRUE(allocator->Initialize(&configuration));
  ASSERT_TRUE(allocator->Memory()->BackedByDiskFile());
  IPartialMemoryAllocator* previous = TMemoryManagement::PartialMemoryAllocator;
  TMemoryManagement::PartialMemoryAllocator = allocator.get();

  const uint64_t residentBefore = PeakResidentBytes();
  const auto start = std::chrono::steady_clock::now();
  double writtenSum = 0;
  double readSum = 0;
  uint64_t mismatches = 0;
  {
    TPartialMemoryArray<float> array(count);
    ASSERT_EQ(array.GetTotalBytes(), bytes);
    // Fill block by block through the bulk operation, summing what goes in.
    std::vector<float> block(1 << 20);
    for (uint64_t index = 0; index < count; index += block.size()) {
      const uint64_t n = std::min<uint64_t>(block.size(), count - index);
      for (uint64_t i = 0; i < n; ++i) {
        block[i] = ValueOf(index + i);
        writtenSum += block[i];
      }
      array.SetValueArray(index, block.data(), n);
    }
    // Read back in another order (last half first) and check every element.
    const uint64_t half = count / 2;
    for (const auto& [from, to] : {std::pair{half, count}, std::pair{uint64_t(0), half}}) {
      for (uint64_t index = from; index < to; index += block.size()) {
        const uint64_t n = std::min<uint64_t>(block.size(), to - index);
        std::fill(block.begin(), block.end(), -1.0f);
        array.GetValueArray(index, block.data(), n);
        for (uint64_t i = 0; i < n; ++i) {
          readSum += block[i];
          mismatches += block[i] != ValueOf(index + i);
        }
      }
    }
    // Single elements go through the 64 MB of views: one from every 4 KiB, so every page of the
    // file is mapped once and evicted again.
    for (uint64_t i = 3; i < count; i += 1024) {
      const float value = array.GetValue(i);
      mismatches += value != ValueOf(i);
    }
    // Single elements at the far end and across the 4 GiB boundary.
    EXPECT_EQ(array.GetValue(count - 1), ValueOf(count - 1));
    const uint64_t boundary = (uint64_t(4) << 30) / sizeof(float);
    array.SetValue(boundary, -7.5f);
    EXPECT_EQ(array.GetValue(boundary), -7.5f);
    EXPECT_EQ(array.GetValue(boundary - 1), ValueOf(boundary - 1));
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const uint64_t peak = PeakResidentBytes();
  TMemoryManagement::PartialMemoryAllocator = previous;
  allocator.reset();

  EXPECT_EQ(mismatches, 0u);
  EXPECT_EQ(readSum, writtenSum);
  // Far below the data: at most a quarter of it (the views are 64 MB).
  EXPECT_LT(peak, bytes / 4);
  std::printf("[ figures  ] %.2f GiB written and read in %.1f s; peak resident memory (VmHWM) %.1f MiB "
              "(%.1f MiB before), checksum %.0f\n",
              double(bytes) / (1 << 30), seconds, double(peak) / (1 << 20),
              double(residentBefore) / (1 << 20), readSum);
}
