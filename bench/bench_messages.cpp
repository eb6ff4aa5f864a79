// Benchmark of the log file, the main-thread queue and the message proxy: prints entries, round trips and
// messages per second.
#include "Benchsupport.h"
#include "common/Logfile.h"
#include "common/MainThreadQueue.h"
#include "common/Standardmessage.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

using TClock = oxbench::Clock;
using oxbench::Seconds;

void BenchLog(const std::string& fileName, bool immediateFlush, int entries) {
  TLogFile log(false, true);
  if (!log.Open(fileName, true)) {
    std::printf("log: can't open %s\n", fileName.c_str());
    return;
  }
  log.SetImmediateFlush(immediateFlush);
  const auto start = TClock::now();
  for (int i = 0; i < entries; ++i) log.AddLog("benchmark entry number " + std::to_string(i));
  log.Close();
  const double seconds = Seconds(start);
  std::printf("log, immediate flush %-3s: %8d entries in %7.3f s = %10.0f entries/s\n",
              immediateFlush ? "on" : "off", entries, seconds, entries / seconds);
}

void BenchDisabledLevel(const std::string& fileName) {
  TLogFile log(false, false);
  log.Open(fileName, true);
  log.SetLogEntries({TLogLevel::Warning});
  constexpr int kCalls = 10'000'000;
  const std::string text = "never written";
  const auto start = TClock::now();
  for (int i = 0; i < kCalls; ++i) log.AddLog(text, TLogLevel::DebugMessage);
  std::printf("log, disabled level: %.2f ns per call\n", Seconds(start) * 1e9 / kCalls);
}

void BenchSend(int threads, int sendsPerThread) {
  auto& queue = TMainThreadQueue::Instance();
  queue.SetMainThread();
  std::atomic<int> finished{0};
  long counter = 0;
  const auto start = TClock::now();
  std::vector<std::thread> senders;
  for (int t = 0; t < threads; ++t)
    senders.emplace_back([&] {
      for (int i = 0; i < sendsPerThread; ++i) queue.Send([&] { ++counter; });
      ++finished;
    });
  while (finished.load() < threads) queue.WaitAndProcess(std::chrono::milliseconds(10));
  for (auto& sender : senders) sender.join();
  const double seconds = Seconds(start);
  std::printf("queue, Send from %d thread(s): %ld round trips in %.3f s = %.0f per s\n", threads, counter,
              seconds, counter / seconds);
}

void BenchPost(int items) {
  auto& queue = TMainThreadQueue::Instance();
  queue.SetMainThread();
  long counter = 0;
  const auto start = TClock::now();
  std::thread poster([&] {
    for (int i = 0; i < items; ++i) queue.Post([&] { ++counter; });
  });
  poster.join();
  while (counter < items) queue.ProcessPending();
  const double seconds = Seconds(start);
  std::printf("queue, Post and drain: %d items in %.3f s = %.0f per s\n", items, seconds, items / seconds);
}

void BenchMessages(int messages) {
  auto* proxy = TMessageProxy::MsgProxySingleton();
  proxy->SetMessagingStrategy(new TContinueAllMessages_MessagingStrategy());
  const auto start = TClock::now();
  int yes = 0;
  for (int i = 0; i < messages; ++i) {
    std::unique_ptr<IStandardMessageReply> reply(proxy->IssueMessage(
        TBlockingMultipleChoiceMessage::CreateAndInit_YesNo("Continue?", "", kSeverityQuestion, 0), false));
    yes += reply && reply->GetAnswer().first == kAnswerYes;
  }
  const double seconds = Seconds(start);
  std::printf("messages, automatic answer without logging: %d (%d Yes) in %.3f s = %.0f per s\n", messages,
              yes, seconds, messages / seconds);
  TMessageProxy::CleanupRegisteredMessagesAndSingletonObject();
}

} // namespace

int main() {
  const auto dir =
      std::filesystem::temp_directory_path() / ("orvex_bench_messages_" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  BenchLog((dir / "flush.log").string(), true, 5'000);
  BenchLog((dir / "buffered.log").string(), false, 500'000);
  BenchDisabledLevel((dir / "disabled.log").string());
  BenchSend(1, 50'000);
  BenchSend(4, 25'000);
  BenchPost(500'000);
  BenchMessages(200'000);
  std::filesystem::remove_all(dir);
  return 0;
}
