// Tests of the log file: header and line layout, levels, flushing, call stacks, threads, file names.
#include "common/Logfile.h"

#include "support/TestSupport.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<std::string> SplitCrLf(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const auto end = text.find("\r\n", start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 2;
  }
  return lines;
}

const std::string kTid = std::to_string(TLogFile::CurrentThreadId());

} // namespace

TEST(LogFile, HeaderAndEntriesInRelativeSeconds) {
  oxtest::TempDir dir;
  const std::string name = dir.File("a.log");
  {
    TLogFile log(false, true);
    ASSERT_TRUE(log.Open(name, true));
    EXPECT_TRUE(log.IsOpen());
    EXPECT_EQ(log.GetFileName(), name);
    log.AddLog("first entry");
    log.AddLog("second", TLogLevel::Warning);
    log.Close();
    EXPECT_FALSE(log.IsOpen());
  }
  const auto lines = SplitCrLf(oxtest::ReadFileBytes(name));
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], "----- ");
  EXPECT_EQ(lines[1], "# Format: RelativeSystemTime[sec];ThreadID;Message");
  EXPECT_TRUE(std::regex_match(
      lines[2], std::regex(R"(\d+\.\d{3};)" + kTid +
                           R"(;Log File opened for user .+\. PerformanceFrequency = 1000000000)")))
      << lines[2];
  EXPECT_TRUE(std::regex_match(
      lines[3], std::regex(R"(\d+\.\d{3};\d+;Current System Time is: \d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} )"
                           R"(\(YYYY/MM/DD hh:mm:ss\.xxx\))")))
      << lines[3];
  EXPECT_TRUE(std::regex_match(lines[4], std::regex(R"(\d+\.\d{3};)" + kTid + ";first entry"))) << lines[4];
  EXPECT_TRUE(std::regex_match(lines[5], std::regex(R"(\d+\.\d{3};)" + kTid + ";second"))) << lines[5];
  EXPECT_TRUE(
      std::regex_match(lines[6], std::regex(R"(\d+\.\d{3};\d+;Log File closed after \d+\.\d{3} seconds)")))
      << lines[6];
}

TEST(LogFile, RawTicksAndNoHeader) {
  oxtest::TempDir dir;
  const std::string name = dir.File("raw.log");
  {
    TLogFile raw(true, true);
    ASSERT_TRUE(raw.Open(name, true));
    raw.AddLog("tick");
  }
  auto lines = SplitCrLf(oxtest::ReadFileBytes(name));
  ASSERT_GE(lines.size(), 5u);
  EXPECT_EQ(lines[1], "# Format: SystemTime[tics];ThreadID;Message");
  EXPECT_TRUE(std::regex_match(lines[4], std::regex(R"(\d+;\d+;tick)"))) << lines[4];

  TLogFile plain(false, false);
  ASSERT_TRUE(plain.Open(name, true));
  plain.AddLog("only");
  plain.Close();
  lines = SplitCrLf(oxtest::ReadFileBytes(name));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(R"(\d+\.\d{3};\d+;only)")));
}

TEST(LogFile, AppendsOrOverwritesAndFailsOnBadPath) {
  oxtest::TempDir dir;
  const std::string name = dir.File("b.log");
  oxtest::WriteFileBytes(name, "old content\r\n");
  {
    TLogFile log(false, false);
    ASSERT_TRUE(log.Open(name, false));
    log.AddLog("appended");
  }
  std::string content = oxtest::ReadFileBytes(name);
  EXPECT_EQ(content.rfind("old content\r\n", 0), 0u);
  EXPECT_NE(content.find(";appended\r\n"), std::string::npos);
  {
    TLogFile log(false, false);
    ASSERT_TRUE(log.Open(name, true));
  }
  content = oxtest::ReadFileBytes(name);
  EXPECT_EQ(content.find("old content"), std::string::npos);
  EXPECT_NE(content.find("Log File closed after"), std::string::npos);

  TLogFile bad(false, true);
  EXPECT_FALSE(bad.Open(dir.File("missing/dir/c.log"), true));
  EXPECT_FALSE(bad.IsOpen());
  bad.AddLog("nowhere"); // must not crash
}

TEST(LogFile, ClosedLogAndDisabledLevelsWriteNothing) {
  oxtest::TempDir dir;
  const std::string name = dir.File("c.log");
  TLogFile log(false, false);
  log.AddLog("before open");
  ASSERT_TRUE(log.Open(name, true));
  log.SetLogEntries({TLogLevel::Warning});
  EXPECT_FALSE(log.IsLevelEnabled(TLogLevel::DebugMessage));
  log.AddLog("debug line", TLogLevel::DebugMessage);
  log.AddLog("warning line", TLogLevel::Warning);
  log.SetLogEntries({TLogLevel::DebugMessage});
  EXPECT_EQ(log.GetLogEntries(), std::set<TLogLevel>{TLogLevel::DebugMessage});
  log.AddLog("warning dropped", TLogLevel::Warning);
  log.AddLog("debug kept", TLogLevel::DebugMessage);
  log.Close();
  const std::string afterClose = oxtest::ReadFileBytes(name);
  log.AddLog("after close");
  EXPECT_EQ(oxtest::ReadFileBytes(name), afterClose);
  EXPECT_EQ(afterClose.find("before open"), std::string::npos);
  EXPECT_EQ(afterClose.find("debug line"), std::string::npos);
  EXPECT_NE(afterClose.find("warning line"), std::string::npos);
  EXPECT_EQ(afterClose.find("warning dropped"), std::string::npos);
  EXPECT_NE(afterClose.find("debug kept"), std::string::npos);
}

TEST(LogFile, BufferedEntriesReachDiskWhenImmediateFlushReturns) {
  oxtest::TempDir dir;
  const std::string name = dir.File("d.log");
  TLogFile log(false, false);
  ASSERT_TRUE(log.Open(name, true));
  log.SetImmediateFlush(false);
  log.AddLog("buffered");
  EXPECT_EQ(oxtest::ReadFileBytes(name).find("buffered"), std::string::npos);
  log.SetImmediateFlush(true);
  EXPECT_NE(oxtest::ReadFileBytes(name).find(";buffered\r\n"), std::string::npos);
  log.AddLog("direct");
  EXPECT_NE(oxtest::ReadFileBytes(name).find(";direct\r\n"), std::string::npos);
}

TEST(LogFile, CallStackFramesFollowTheEntry) {
  oxtest::TempDir dir;
  const std::string name = dir.File("e.log");
  TLogFile log(false, false);
  ASSERT_TRUE(log.Open(name, true));
  log.AddLog("with stack", TLogLevel::DebugMessage, true, 3);
  log.Close();
  const auto lines = SplitCrLf(oxtest::ReadFileBytes(name));
  ASSERT_GE(lines.size(), 3u);
  EXPECT_NE(lines[0].find(";with stack"), std::string::npos);
  std::size_t frames = 0;
  for (std::size_t i = 1; i < lines.size() && lines[i].rfind("\t;\t;\t", 0) == 0; ++i) {
    EXPECT_EQ(lines[i].rfind("\t;\t;\tAddrPC :0x", 0), 0u) << lines[i];
    ++frames;
  }
  EXPECT_GE(frames, 1u);
  EXPECT_LE(frames, 3u);

  std::vector<std::string> stack;
  log.GetCallStack(stack, 64);
  ASSERT_FALSE(stack.empty());
  for (const auto& frame : stack) EXPECT_EQ(frame.rfind("AddrPC :", 0), 0u);
  log.GetCallStack(stack, 0);
  EXPECT_TRUE(stack.empty());
}

TEST(LogFile, EntriesOfManyThreadsStayWhole) {
  oxtest::TempDir dir;
  const std::string name = dir.File("f.log");
  TLogFile log(false, false);
  ASSERT_TRUE(log.Open(name, true));
  log.SetImmediateFlush(false);
  constexpr int kThreads = 6, kLines = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&log, t] {
      for (int i = 0; i < kLines; ++i)
        log.AddLog("thread " + std::to_string(t) + " line " + std::to_string(i) + " " + std::string(40, 'x'));
    });
  for (auto& thread : threads) thread.join();
  log.Close();
  const auto lines = SplitCrLf(oxtest::ReadFileBytes(name));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines + 1));
  const std::regex entry(R"(\d+\.\d{3};\d+;thread (\d) line (\d+) x{40})");
  std::vector<int> nextLine(kThreads, 0);
  for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[i], match, entry)) << lines[i];
    const int thread = std::stoi(match[1]);
    EXPECT_EQ(std::stoi(match[2]), nextLine[thread]++); // each thread's lines in its own order
  }
}

TEST(LogFile, FileNameFromLocalTime) {
  const char* oldTz = std::getenv("TZ");
  const std::string saved = oldTz ? oldTz : "";
  setenv("TZ", "UTC", 1);
  tzset();
  const std::time_t when = 1704164645; // 2024-01-02 03:04:05 UTC
  EXPECT_EQ(TLogFile::MakeLogFileName("/var/log/orvex", when), "/var/log/orvex/LogFile_20240102_030405.log");
  EXPECT_EQ(TLogFile::MakeLogFileName("/tmp/", when), "/tmp/LogFile_20240102_030405.log");
  EXPECT_EQ(TLogFile::MakeLogFileName("", when), "LogFile_20240102_030405.log");
  if (oldTz)
    setenv("TZ", saved.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();
}

TEST(LogFile, DestroyingTheGlobalLogClearsThePointer) {
  oxtest::TempDir dir;
  auto* log = new TLogFile(false, false);
  ASSERT_TRUE(log->Open(dir.File("g.log"), true));
  GlobalLogFile = log;
  delete log;
  EXPECT_EQ(GlobalLogFile, nullptr);
}

TEST(LogFile, ExclusiveOpenTakesTheNextFreeNameAndNeverShares) {
  oxtest::TempDir dir;
  const std::string name = dir.File("LogFile_20261123_045300.log");
  // Runs started in the same second, some at once from several threads.
  constexpr int kLogs = 6;
  std::vector<std::unique_ptr<TLogFile>> logs;
  for (int i = 0; i < kLogs; ++i) logs.push_back(std::make_unique<TLogFile>(false, true));
  std::vector<std::thread> threads;
  std::atomic<int> opened{0};
  for (auto& log : logs)
    threads.emplace_back([&, raw = log.get()] { opened += raw->OpenExclusive(name) ? 1 : 0; });
  for (auto& t : threads) t.join();
  EXPECT_EQ(opened.load(), kLogs);
  std::set<std::string> names;
  for (auto& log : logs) names.insert(log->GetFileName());
  EXPECT_EQ(names.size(), size_t(kLogs));
  EXPECT_TRUE(names.count(name));
  EXPECT_TRUE(names.count(dir.File("LogFile_20261123_045300_1.log")));
  EXPECT_TRUE(names.count(dir.File("LogFile_20261123_045300_" + std::to_string(kLogs - 1) + ".log")));
  for (auto& log : logs) {
    log->AddLog("only mine");
    log->Close();
  }
  // Each file has exactly one run in it: one opening, one entry, one closing.
  for (const auto& file : names) {
    const std::string text = oxtest::ReadFileBytes(file);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6) << file << "\n" << text;
  }
  // A folder that isn't there: no name can be made.
  TLogFile nowhere(false, true);
  EXPECT_FALSE(nowhere.OpenExclusive(dir.File("missing/LogFile.log")));
}
