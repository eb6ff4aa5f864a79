// The run's log file: one line per entry as time;thread id;message, flushed at once so that the last
// line before a crash is on disk.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <set>
#include <string>
#include <vector>

/// Level of a log entry; only enabled levels are written.
enum class TLogLevel : int { DebugMessage = 0, Warning = 1 };

/// The log file of one run. Every operation may be called from any thread.
class TLogFile {
public:
  /// rawTicks: time column in clock ticks instead of seconds since Open; header: write the opening lines.
  TLogFile(bool rawTicks, bool header);
  ~TLogFile();
  TLogFile(const TLogFile&) = delete;
  TLogFile& operator=(const TLogFile&) = delete;

  /// Opens (or creates) the file. With overwrite false an existing file is appended to.
  /// Returns false when the file can't be opened; true also when it was open already.
  bool Open(const std::string& fileName, bool overwrite);
  /// Creates a new file that no other process writes: fileName if it doesn't exist yet, otherwise the first
  /// free one of stem + "_1", "_2", ... + extension ("LogFile_20261123_045300_1.log"). The name is claimed
  /// by an exclusive create, so runs started in the same second never share a log. False when none of the
  /// first 1000 names could be created; true also when the log was open already. GetFileName tells the name.
  bool OpenExclusive(const std::string& fileName);
  /// Writes the closing line and closes the file. Does nothing on a closed log.
  void Close();
  bool IsOpen() const;

  /// Writes one entry if level is enabled; with withCallStack the caller's stack follows, one frame a line,
  /// at most maxFrames frames. Does nothing on a closed log.
  void AddLog(const std::string& text, TLogLevel level = TLogLevel::DebugMessage, bool withCallStack = false,
              int maxFrames = 50);
  /// Switching it on flushes what is buffered at once.
  void SetImmediateFlush(bool immediateFlush);
  bool GetImmediateFlush() const;
  void SetLogEntries(const std::set<TLogLevel>& levels);
  std::set<TLogLevel> GetLogEntries() const;
  bool IsLevelEnabled(TLogLevel level) const;
  std::string GetFileName() const;
  /// Seconds since Open (0 on a log that was never opened).
  long double GetRelativeTime() const;
  /// Frames of the calling thread's stack, innermost first, without this function's own frame; each text
  /// opens with "AddrPC :".
  void GetCallStack(std::vector<std::string>& frames, int maxFrames);

  /// For the fault handlers: like AddLog with call stack, but waits for the log's lock only for a bounded
  /// time (the faulting thread may hold it) and never throws. Returns false when nothing was written.
  bool AddLogFromFaultHandler(const std::string& text, int maxFrames);

  /// "LogFile_yyyymmdd_hhnnss.log" for the given local time, inside directory (which may be empty).
  static std::string MakeLogFileName(const std::string& directory, std::time_t localTime);
  /// Id of the calling thread as the log's second column shows it.
  static std::uint64_t CurrentThreadId();

private:
  void StartLocked(int handle, const std::string& fileName);
  std::string TimeColumn() const;
  std::string ComposeEntry(const std::string& text, const std::vector<std::string>* frames) const;
  void WriteLocked(const std::string& bytes);
  void FlushBufferLocked(bool syncToDisk);

  std::string FFileName;
  std::atomic<unsigned> FLevelMask{3u}; ///< bit n set: level n enabled (both from the constructor)
  bool FRawTicks;
  bool FHeader;
  bool FImmediateFlush = true;
  bool FIsOpen = false;
  mutable std::timed_mutex FLock;
  int FHandle = -1;
  std::chrono::steady_clock::time_point FStart{};
  std::int64_t FFrequency = 0;
  std::string FBuffer; ///< entries waiting while immediate flush is off
};

/// The process's log; null when there is none (every use checks it).
extern TLogFile* GlobalLogFile;
