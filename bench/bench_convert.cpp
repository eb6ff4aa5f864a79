// The whole command-line round trip of a large project (orvex convert: start, load, save with flushing,
// shutdown) beside a plain copy of the same file (read, write, flush), in the same run. Prints seconds and
// the ratio; asserts nothing. Arguments: [orvex binary] [XxYxN, default 256x256x1024].
#include "Benchsupport.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using Clock = oxbench::Clock;
using oxbench::Seconds;

int Run(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawn(&child, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Read and write in 8 MiB blocks, then flush the copy to disk, as the save does.
bool Copy(const std::string& from, const std::string& to) {
  const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (in < 0 || out < 0) return false;
  std::vector<char> block(size_t(8) << 20);
  bool ok = true;
  for (;;) {
    const ssize_t n = ::read(in, block.data(), block.size());
    if (n <= 0) {
      ok = n == 0;
      break;
    }
    if (::write(out, block.data(), size_t(n)) != n) {
      ok = false;
      break;
    }
  }
  ok = ok && ::fdatasync(out) == 0;
  ::close(in);
  ::close(out);
  return ok;
}

void DropCache(const std::string& name) {
  const int fd = ::open(name.c_str(), O_RDONLY);
  if (fd < 0) return;
  ::fdatasync(fd);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  ::close(fd);
}

} // namespace

int main(int argc, char** argv) {
  const std::string orvex = argc > 1 ? argv[1] : ORVEX_CLI_PATH;
  const std::string size = argc > 2 ? argv[2] : "256x256x1024";
  const char* dirEnv = std::getenv("ORVEX_BENCH_DIR");
  const std::string dir = dirEnv ? dirEnv : "/tmp";
  const std::string demo = dir + "/orvex_bench_convert_demo.oxp";
  const std::string converted = dir + "/orvex_bench_convert_out.oxp";
  const std::string copied = dir + "/orvex_bench_convert_copy.oxp";
  if (Run({orvex, "--yes", "demo", "-o", demo, "--size", size}) != 0) {
    std::fprintf(stderr, "could not write the demo data set with %s\n", orvex.c_str());
    return 1;
  }
  std::printf("orvex convert of the %s demo beside a plain copy with flush (files in %s)\n", size.c_str(),
              dir.c_str());
  for (int round = 1; round <= 3; ++round) {
    // Both start from the page cache holding the input, as a user's second run would.
    DropCache(converted);
    auto start = Clock::now();
    const bool copiedOk = Copy(demo, copied);
    const double copy = Seconds(start);
    start = Clock::now();
    const int exitCode = Run({orvex, "--yes", "convert", demo, converted});
    const double convert = Seconds(start);
    std::printf("round %d: copy %.3f s%s  convert %.3f s (exit %d)  ratio %.2fx\n", round, copy,
                copiedOk ? "" : " (failed)", convert, exitCode, convert / copy);
  }
  ::unlink(demo.c_str());
  ::unlink(converted.c_str());
  ::unlink(copied.c_str());
  return 0;
}
