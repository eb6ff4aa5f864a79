// The run's log file.
#include "common/Logfile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <execinfo.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

TLogFile* GlobalLogFile = nullptr;

namespace {

constexpr std::size_t kBufferLimit = 64 * 1024;

std::string FormatLongDouble(long double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.3Lf", value);
  return text;
}

std::string CurrentUserName() {
  if (const char* user = std::getenv("USER"); user && *user) return user;
  // The reentrant form: logs of several threads may start at once, and getpwuid shares one buffer.
  passwd entry{};
  passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(geteuid(), &entry, buffer, sizeof buffer, &found) == 0 && found && found->pw_name)
    return found->pw_name;
  return "unknown";
}

std::string CurrentSystemTimeText() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[64];
  std::snprintf(text, sizeof text, "%04d/%02d/%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(millis));
  return text;
}

// Frames of the calling thread, skipping `skip` innermost ones (the collectors themselves).
__attribute__((noinline)) void CollectFrames(std::vector<std::string>& frames, int maxFrames, int skip) {
  frames.clear();
  if (maxFrames <= 0) return;
  std::vector<void*> addresses(static_cast<std::size_t>(maxFrames + skip));
  const int count = backtrace(addresses.data(), static_cast<int>(addresses.size()));
  char** symbols = backtrace_symbols(addresses.data(), count);
  for (int i = skip; i < count; ++i) {
    char text[40];
    std::snprintf(text, sizeof text, "AddrPC :0x%016llx",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(addresses[i])));
    std::string frame = text;
    if (symbols && symbols[i]) {
      frame += " ";
      frame += symbols[i];
    }
    frames.push_back(std::move(frame));
  }
  std::free(symbols);
}

} // namespace

TLogFile::TLogFile(bool rawTicks, bool header) : FRawTicks(rawTicks), FHeader(header) {}

TLogFile::~TLogFile() {
  Close();
  if (GlobalLogFile == this) GlobalLogFile = nullptr;
}

std::uint64_t TLogFile::CurrentThreadId() {
  return static_cast<std::uint64_t>(gettid());
}

std::string TLogFile::MakeLogFileName(const std::string& directory, std::time_t localTime) {
  std::tm local{};
  localtime_r(&localTime, &local);
  char name[64];
  std::strftime(name, sizeof name, "LogFile_%Y%m%d_%H%M%S.log", &local);
  if (directory.empty()) return name;
  return directory.back() == '/' ? directory + name : directory + "/" + name;
}

bool TLogFile::Open(const std::string& fileName, bool overwrite) {
  std::lock_guard guard(FLock);
  if (FIsOpen) return true;
  struct stat info {};
  const bool exists = ::stat(fileName.c_str(), &info) == 0;
  int handle;
  if (exists && !overwrite)
    handle = ::open(fileName.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  else
    handle = ::open(fileName.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (handle < 0) return false;
  StartLocked(handle, fileName);
  return true;
}

bool TLogFile::OpenExclusive(const std::string& fileName) {
  std::lock_guard guard(FLock);
  if (FIsOpen) return true;
  const size_t slash = fileName.find_last_of('/');
  const size_t dot = fileName.find_last_of('.');
  const bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash);
  const std::string stem = hasExtension ? fileName.substr(0, dot) : fileName;
  const std::string extension = hasExtension ? fileName.substr(dot) : std::string();
  for (int n = 0; n < 1000; ++n) {
    const std::string name = n == 0 ? fileName : stem + "_" + std::to_string(n) + extension;
    const int handle = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
    if (handle >= 0) {
      StartLocked(handle, name);
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

void TLogFile::StartLocked(int handle, const std::string& fileName) {
  FHandle = handle;
  FFileName = fileName;
  FStart = std::chrono::steady_clock::now();
  FFrequency = std::chrono::steady_clock::period::den / std::chrono::steady_clock::period::num;
  FIsOpen = true;
  if (FHeader) {
    std::string header = "----- \r\n";
    header += FRawTicks ? "# Format: SystemTime[tics];ThreadID;Message\r\n"
                        : "# Format: RelativeSystemTime[sec];ThreadID;Message\r\n";
    header += ComposeEntry("Log File opened for user " + CurrentUserName() +
                               ". PerformanceFrequency = " + std::to_string(FFrequency),
                           nullptr);
    header += ComposeEntry(
        "Current System Time is: " + CurrentSystemTimeText() + " (YYYY/MM/DD hh:mm:ss.xxx)", nullptr);
    WriteLocked(header);
  }
}

void TLogFile::Close() {
  std::lock_guard guard(FLock);
  if (!FIsOpen) return;
  const long double elapsed =
      std::chrono::duration<long double>(std::chrono::steady_clock::now() - FStart).count();
  FBuffer += ComposeEntry("Log File closed after " + FormatLongDouble(elapsed) + " seconds", nullptr);
  FlushBufferLocked(true);
  ::close(FHandle);
  FHandle = -1;
  FIsOpen = false;
}

bool TLogFile::IsOpen() const {
  std::lock_guard guard(FLock);
  return FIsOpen;
}

void TLogFile::AddLog(const std::string& text, TLogLevel level, bool withCallStack, int maxFrames) {
  if (!IsLevelEnabled(level)) return;
  std::vector<std::string> frames;
  if (withCallStack) CollectFrames(frames, maxFrames, 2); // CollectFrames and AddLog
  std::lock_guard guard(FLock);
  if (!FIsOpen) return;
  WriteLocked(ComposeEntry(text, withCallStack ? &frames : nullptr));
}

bool TLogFile::AddLogFromFaultHandler(const std::string& text, int maxFrames) {
  try {
    std::vector<std::string> frames;
    CollectFrames(frames, maxFrames, 2);
    // The faulting thread may hold the lock; after a while write anyway rather than lose the report.
    const bool locked = FLock.try_lock_for(std::chrono::seconds(2));
    bool written = false;
    if (FIsOpen) {
      WriteLocked(ComposeEntry(text, &frames));
      FlushBufferLocked(true);
      written = true;
    }
    if (locked) FLock.unlock();
    return written;
  } catch (...) {
    return false;
  }
}

void TLogFile::SetImmediateFlush(bool immediateFlush) {
  std::lock_guard guard(FLock);
  FImmediateFlush = immediateFlush;
  if (immediateFlush && FIsOpen) FlushBufferLocked(true);
}

bool TLogFile::GetImmediateFlush() const {
  std::lock_guard guard(FLock);
  return FImmediateFlush;
}

void TLogFile::SetLogEntries(const std::set<TLogLevel>& levels) {
  unsigned mask = 0;
  for (TLogLevel level : levels) {
    const int bit = static_cast<int>(level);
    if (bit >= 0 && bit < 32) mask |= 1u << bit;
  }
  FLevelMask.store(mask, std::memory_order_relaxed);
}

std::set<TLogLevel> TLogFile::GetLogEntries() const {
  std::set<TLogLevel> levels;
  const unsigned mask = FLevelMask.load(std::memory_order_relaxed);
  for (int bit = 0; bit < 32; ++bit)
    if (mask & (1u << bit)) levels.insert(static_cast<TLogLevel>(bit));
  return levels;
}

bool TLogFile::IsLevelEnabled(TLogLevel level) const {
  const int bit = static_cast<int>(level);
  return bit >= 0 && bit < 32 && (FLevelMask.load(std::memory_order_relaxed) & (1u << bit)) != 0;
}

std::string TLogFile::GetFileName() const {
  std::lock_guard guard(FLock);
  return FFileName;
}

long double TLogFile::GetRelativeTime() const {
  if (FStart == std::chrono::steady_clock::time_point{}) return 0;
  return std::chrono::duration<long double>(std::chrono::steady_clock::now() - FStart).count();
}

void TLogFile::GetCallStack(std::vector<std::string>& frames, int maxFrames) {
  CollectFrames(frames, maxFrames, 2); // CollectFrames and GetCallStack
}

std::string TLogFile::TimeColumn() const {
  if (FRawTicks) return std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
  return FormatLongDouble(GetRelativeTime());
}

std::string TLogFile::ComposeEntry(const std::string& text, const std::vector<std::string>* frames) const {
  std::string entry = TimeColumn();
  entry += ';';
  entry += std::to_string(CurrentThreadId());
  entry += ';';
  entry += text;
  entry += "\r\n";
  if (frames) {
    for (const auto& frame : *frames) {
      entry += "\t;\t;\t";
      entry += frame;
      entry += "\r\n";
    }
  }
  return entry;
}

void TLogFile::WriteLocked(const std::string& bytes) {
  FBuffer += bytes;
  if (FImmediateFlush)
    FlushBufferLocked(true);
  else if (FBuffer.size() >= kBufferLimit)
    FlushBufferLocked(false);
}

void TLogFile::FlushBufferLocked(bool syncToDisk) {
  if (FHandle < 0) {
    FBuffer.clear();
    return;
  }
  const char* data = FBuffer.data();
  std::size_t left = FBuffer.size();
  while (left > 0) {
    const ssize_t written = ::write(FHandle, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      break; // a full disk must not take the program down; the entry is lost
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
  FBuffer.clear();
  if (syncToDisk) ::fdatasync(FHandle);
}
