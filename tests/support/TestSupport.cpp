#include "support/TestSupport.h"

#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace oxtest {

TempDir::TempDir() {
  std::random_device rd;
  const auto base = std::filesystem::temp_directory_path();
  for (int attempt = 0; attempt < 100; ++attempt) {
    auto candidate = base / ("oxtest-" + std::to_string(rd()));
    std::error_code ec;
    if (std::filesystem::create_directory(candidate, ec)) {
      FPath = candidate;
      return;
    }
  }
  throw std::runtime_error("TempDir: no free directory name");
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(FPath, ec);
}

std::string ReadFileBytes(const std::string& fileName) {
  std::ifstream in(fileName, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void WriteFileBytes(const std::string& fileName, const std::string& bytes) {
  std::ofstream out(fileName, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

namespace {
// A line "key: N kB" of /proc/self/status in MiB, -1 when missing.
double StatusMiB(const std::string& wanted) {
  std::ifstream status("/proc/self/status");
  std::string key;
  while (status >> key) {
    if (key == wanted) {
      double kb = 0;
      status >> kb;
      return kb / 1024.0;
    }
    status.ignore(4096, '\n');
  }
  return -1;
}
} // namespace

double PeakResidentMiB() {
  return StatusMiB("VmHWM:");
}

double ResidentMiB() {
  return StatusMiB("VmRSS:");
}

} // namespace oxtest
