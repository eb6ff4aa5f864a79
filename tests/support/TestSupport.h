// Helpers shared by all test suites.
#pragma once

#include <filesystem>
#include <string>

namespace oxtest {

/// A fresh directory under the system's temporary folder, removed with all its content on destruction.
class TempDir {
public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return FPath; }
  /// Path of a file name inside the directory, as a string.
  std::string File(const std::string& name) const { return (FPath / name).string(); }

private:
  std::filesystem::path FPath;
};

/// Whole content of a file as bytes in a string (empty when it can't be read).
std::string ReadFileBytes(const std::string& fileName);
/// Writes bytes to a file, replacing it.
void WriteFileBytes(const std::string& fileName, const std::string& bytes);
/// Peak resident memory of this process (VmHWM of /proc/self/status) in MiB, -1 when unknown.
double PeakResidentMiB();
/// Resident memory of this process now (VmRSS) in MiB, -1 when unknown.
double ResidentMiB();

} // namespace oxtest
