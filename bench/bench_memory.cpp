// Throughput of the paged memory layer: bulk GetValueArray/SetValueArray of a 1 GiB float array on
// the heap strategy against memcpy, and on the memory-mapped strategy (data 4x the map size)
// against raw sequential writes and reads of a file of the same size on the same disk.
#include "Benchsupport.h"
#include "common/memory/Memorymanagement.h"
#include "common/memory/Memorystrategyheap.h"
#include "common/memory/Memorystrategymmf.h"
#include "common/memory/Partialmemoryarraytemplate.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr uint64_t kBytes = uint64_t(1) << 30;
constexpr uint64_t kCount = kBytes / sizeof(float);
constexpr uint64_t kChunk = (uint64_t(4) << 20) / sizeof(float); // 4 MiB per call in the chunked runs

using oxbench::Seconds;

double GiBPerSecond(double seconds) {
  return double(kBytes) / double(1 << 30) / seconds;
}

template <typename F>
double Best(int runs, F work) {
  double best = 1e300;
  for (int run = 0; run < runs; ++run) {
    const auto start = std::chrono::steady_clock::now();
    work();
    best = std::min(best, Seconds(start));
  }
  return best;
}

struct TFigures {
  double SetWhole, GetWhole, SetChunked, GetChunked;
};

TFigures MeasureArray(std::vector<float>& source, std::vector<float>& target, int runs) {
  TPartialMemoryArray<float> array(kCount);
  array.SetValueArray(0, source.data(), kCount); // first touch of every page, not measured
  TFigures figures{};
  figures.SetWhole = GiBPerSecond(Best(runs, [&] { array.SetValueArray(0, source.data(), kCount); }));
  figures.GetWhole = GiBPerSecond(Best(runs, [&] { array.GetValueArray(0, target.data(), kCount); }));
  figures.SetChunked = GiBPerSecond(Best(runs, [&] {
    for (uint64_t i = 0; i < kCount; i += kChunk) array.SetValueArray(i, source.data() + i, kChunk);
  }));
  figures.GetChunked = GiBPerSecond(Best(runs, [&] {
    for (uint64_t i = 0; i < kCount; i += kChunk) array.GetValueArray(i, target.data() + i, kChunk);
  }));
  if (std::memcmp(source.data(), target.data(), kBytes) != 0) std::printf("  !! data read back differs\n");
  return figures;
}

void PrintFigures(const char* name, const TFigures& figures, double reference, const char* referenceName) {
  std::printf("%-34s set %6.2f GiB/s (%5.1f%%)  get %6.2f GiB/s (%5.1f%%)   [whole array in one call]\n",
              name, figures.SetWhole, 100 * figures.SetWhole / reference, figures.GetWhole,
              100 * figures.GetWhole / reference);
  std::printf("%-34s set %6.2f GiB/s (%5.1f%%)  get %6.2f GiB/s (%5.1f%%)   [4 MiB calls]   of %s\n", "",
              figures.SetChunked, 100 * figures.SetChunked / reference, figures.GetChunked,
              100 * figures.GetChunked / reference, referenceName);
}

// Raw sequential file throughput on the folder's disk: write with fsync, then read with the page
// cache dropped for the file first, so that the disk itself is measured.
void MeasureDisk(const std::string& directory, const std::vector<float>& source, double& writeRate,
                 double& readRate, double& cachedReadRate) {
  const std::string name = directory + "/bench_sequential.bin";
  const auto* bytes = reinterpret_cast<const char*>(source.data());
  std::vector<char> buffer(4 << 20);
  int fd = ::open(name.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
  auto start = std::chrono::steady_clock::now();
  for (uint64_t done = 0; done < kBytes; done += buffer.size())
    if (::write(fd, bytes + done, buffer.size()) != ssize_t(buffer.size())) std::printf("  !! short write\n");
  ::fsync(fd);
  writeRate = GiBPerSecond(Seconds(start));
  ::close(fd);
  fd = ::open(name.c_str(), O_RDONLY);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  start = std::chrono::steady_clock::now();
  while (::read(fd, buffer.data(), buffer.size()) > 0) {
  }
  readRate = GiBPerSecond(Seconds(start));
  ::lseek(fd, 0, SEEK_SET);
  start = std::chrono::steady_clock::now();
  while (::read(fd, buffer.data(), buffer.size()) > 0) {
  }
  cachedReadRate = GiBPerSecond(Seconds(start));
  ::close(fd);
  ::unlink(name.c_str());
}

} // namespace

int main(int argc, char** argv) {
  const int runs = 3;
  std::string directory = argc > 1 ? argv[1] : TMemoryManagement::DefaultMemoryMappedFilePath() + "bench";
  std::filesystem::create_directories(directory);
  std::printf("Paged memory benchmark: 1 GiB float array, best of %d runs, files in %s\n\n", runs,
              directory.c_str());

  std::vector<float> source(kCount);
  std::vector<float> target(kCount, 0.0f);
  for (uint64_t i = 0; i < kCount; ++i) source[i] = float(i % 65521);

  const double memcpyRate =
      GiBPerSecond(Best(runs, [&] { std::memcpy(target.data(), source.data(), kBytes); }));
  std::printf("%-34s %6.2f GiB/s\n", "memcpy 1 GiB", memcpyRate);

  {
    TPartialMemoryFromHeapAllocator allocator;
    TPartialMemoryHeapConfiguration configuration;
    configuration.LimitInBytes = 2 * kBytes;
    allocator.Initialize(&configuration);
    TMemoryManagement::PartialMemoryAllocator = &allocator;
    std::fill(target.begin(), target.end(), 0.0f);
    PrintFigures("heap strategy", MeasureArray(source, target, runs), memcpyRate, "memcpy");
    TMemoryManagement::PartialMemoryAllocator = nullptr;
  }

  double writeRate = 0, readRate = 0, cachedReadRate = 0;
  MeasureDisk(directory, source, writeRate, readRate, cachedReadRate);
  std::printf(
      "\n%-34s write+fsync %6.2f GiB/s  read (cache dropped) %6.2f GiB/s  read (cached) %6.2f GiB/s\n",
      "raw sequential file 1 GiB", writeRate, readRate, cachedReadRate);
  {
    TPartialMemoryFromMMFAllocator allocator;
    TPartialMemoryMMFConfiguration configuration;
    configuration.FileSizeInBytes = kBytes + (uint64_t(64) << 20);
    configuration.MapSizeInBytes = uint32_t(kBytes / 4); // the data is 4x what is mapped
    configuration.Directory = directory.c_str();
    configuration.DirectoryLength = uint32_t(directory.size());
    if (!allocator.Initialize(&configuration)) {
      std::printf("memory-mapped strategy could not be set up in %s\n", directory.c_str());
      return 1;
    }
    TMemoryManagement::PartialMemoryAllocator = &allocator;
    std::fill(target.begin(), target.end(), 0.0f);
    const TFigures figures = MeasureArray(source, target, runs);
    std::printf(
        "%-34s set %6.2f GiB/s (%5.1f%% of write+fsync)  get %6.2f GiB/s (%5.1f%% of uncached read)\n",
        "mmf strategy, 256 MB mapped", figures.SetWhole, 100 * figures.SetWhole / writeRate, figures.GetWhole,
        100 * figures.GetWhole / readRate);
    std::printf("%-34s set %6.2f GiB/s (%5.1f%%)  get %6.2f GiB/s (%5.1f%%)   [4 MiB calls]\n", "",
                figures.SetChunked, 100 * figures.SetChunked / writeRate, figures.GetChunked,
                100 * figures.GetChunked / readRate);
    std::printf("%-34s views mapped %llu times, unmapped %llu times\n", "",
                (unsigned long long)allocator.Memory()->MapCount(),
                (unsigned long long)allocator.Memory()->UnmapCount());
    TMemoryManagement::PartialMemoryAllocator = nullptr;
  }
  return 0;
}
