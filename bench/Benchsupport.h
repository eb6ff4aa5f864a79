// Helpers every benchmark uses: wall and processor time, the folder for its files, and a flush that makes
// the next read come from the disk.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace oxbench {

using Clock = std::chrono::steady_clock;

/// Wall seconds since start.
inline double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Wall seconds between two points.
inline double Seconds(Clock::time_point start, Clock::time_point end) {
  return std::chrono::duration<double>(end - start).count();
}

/// Processor seconds the whole process has used so far (all threads).
inline double ProcessCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

/// Processor seconds the calling thread has used so far: on a shared machine the figures per processor second
/// show what the code costs, the wall-clock ones what the machine gave.
inline double ThreadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

/// The folder for benchmark files: ORVEX_BENCH_DIR, else /tmp.
inline std::string BenchDir() {
  const char* dir = std::getenv("ORVEX_BENCH_DIR");
  return dir ? dir : "/tmp";
}

/// Flushes the file to disk and drops it from the page cache, so that reads come from the disk.
inline void SyncAndDrop(const std::string& name) {
  const int fd = ::open(name.c_str(), O_RDONLY);
  if (fd < 0) return;
  ::fdatasync(fd);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  ::close(fd);
}

/// The fastest of three memcpy passes over bytes: the floor that copying work is measured against.
inline double BestMemcpySeconds(size_t bytes) {
  std::vector<char> from(bytes, 1), to(bytes, 0);
  double best = 1e30;
  for (int pass = 0; pass < 3; ++pass) {
    const auto start = Clock::now();
    std::memcpy(to.data(), from.data(), bytes);
    best = std::min(best, Seconds(start));
  }
  return best;
}

/// Writing bytes into memory fresh from the system (every page faulted in and cleared first): what any new
/// object of that size costs before its first value, on top of the memcpy.
inline double FirstTouchSeconds(size_t bytes) {
  const auto start = Clock::now();
  std::unique_ptr<char[]> block(new char[bytes]);
  std::memset(block.get(), 1, bytes);
  const double seconds = Seconds(start);
  if (block[bytes / 2] != 1) std::printf(" ");
  return seconds;
}

} // namespace oxbench
