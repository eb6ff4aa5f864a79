// Saves killed at many moments: a child process saves a project while the test sends SIGKILL, SIGTERM or
// SIGINT after a varying delay. The target must always be the old file byte for byte or the complete new
// project, and after the next save (or a cleaning of the folder) no temporary may be left.
#include "common/Safewrite.h"
#include "common/Standardmessage.h"
#include "common/threads/Cancelsignal.h"
#include "common/threads/Multicorecalc.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <random>
#include <thread>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using oxtest::TDTestObject;

constexpr int32_t kNewObjects = 6;

// A project of objects whose values make a save take a few milliseconds.
void Fill(TProject& project, int32_t objects, size_t valuesEach, float base) {
  for (int32_t i = 0; i < objects; ++i) {
    auto object = std::make_unique<TDTestObject>();
    object->SetID(project.GetNewDataID());
    object->SetCaption("Object " + std::to_string(i));
    object->Values.assign(valuesEach, base + float(i));
    project.AddData(std::move(object));
  }
}

std::vector<std::string> Temporaries(const oxtest::TempDir& dir) {
  std::vector<std::string> found;
  for (const auto& entry : fs::directory_iterator(dir.Path()))
    if (IsSafeWriteTemporaryName(entry.path().filename().string())) found.push_back(entry.path().string());
  return found;
}

// What the target holds after the kill.
enum class TOutcome { Missing, Old, CompleteNew, Broken };

TOutcome Inspect(const std::string& target, const std::string& oldBytes) {
  if (!fs::exists(target)) return TOutcome::Missing;
  const std::string bytes = oxtest::ReadFileBytes(target);
  if (!oldBytes.empty() && bytes == oldBytes) return TOutcome::Old;
  TProject loaded;
  if (loaded.LoadProjectFromFile(target) < 1 || !loaded.FailedObjects().empty()) return TOutcome::Broken;
  if (static_cast<int32_t>(loaded.DataList().size()) != kNewObjects) return TOutcome::Broken;
  for (const auto& data : loaded.DataList()) {
    const auto* object = dynamic_cast<const TDTestObject*>(data.get());
    if (!object || object->Values.size() != 200000) return TOutcome::Broken;
  }
  return TOutcome::CompleteNew;
}

class InterruptedSaveTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::RegisterTestDataObjects();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
        new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));
  }

  // Forks a child that saves project to target and kills it with signal after delay; returns how the
  // child ended (true: by the signal or with a cancelled save, false: it finished the save first).
  static bool SaveAndKill(TProject& project, const std::string& target, int signal,
                          std::chrono::microseconds delay) {
    const pid_t child = ::fork();
    if (child == 0) {
      // The child handles termination like the command line does.
      TMCC::ClearProcessCancelRequest();
      ResetSafeWriteAbort();
      InstallCalculationCancelHandler();
      const TTagError result = project.SaveProjectToFile(target);
      ::_exit(result >= 1 ? 0 : 3);
    }
    std::this_thread::sleep_for(delay);
    ::kill(child, signal);
    int status = 0;
    ::waitpid(child, &status, 0);
    return !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  void Run(bool targetExists) {
    oxtest::TempDir dir;
    const std::string target = dir.File("project.oxp");
    std::string oldBytes;
    if (targetExists) {
      TProject old;
      Fill(old, 2, 1000, 100.0f);
      ASSERT_EQ(old.SaveProjectToFile(target), teNoError);
      oldBytes = oxtest::ReadFileBytes(target);
    }
    TProject fresh;
    Fill(fresh, kNewObjects, 200000, 1.0f);

    std::mt19937 random(targetExists ? 7 : 11);
    int interrupted = 0, completed = 0;
    for (int signal : {SIGKILL, SIGTERM, SIGINT}) {
      for (int attempt = 0; attempt < 12; ++attempt) {
        // From the very start of the child to past the end of a typical save.
        const auto delay = std::chrono::microseconds(std::uniform_int_distribution<int>(0, 60000)(random));
        const bool killed = SaveAndKill(fresh, target, signal, delay);
        const TOutcome outcome = Inspect(target, oldBytes);
        SCOPED_TRACE("signal " + std::to_string(signal) + ", delay " + std::to_string(delay.count()) + " us");
        ASSERT_NE(outcome, TOutcome::Broken);
        if (targetExists) {
          EXPECT_NE(outcome, TOutcome::Missing);
        }
        if (outcome == TOutcome::CompleteNew) {
          ++completed;
          // Reset for the next attempt: the old file again, or no file.
          if (targetExists)
            oxtest::WriteFileBytes(target, oldBytes);
          else
            fs::remove(target);
        } else {
          ++interrupted;
        }
        // A handled signal cleans up at once; only SIGKILL can leave a temporary behind.
        if (signal != SIGKILL && killed) {
          EXPECT_TRUE(Temporaries(dir).empty());
        }
        RemoveStaleTemporaries(dir.Path().string());
        EXPECT_TRUE(Temporaries(dir).empty());
      }
    }
    // The delays must have hit saves in progress as well as finished ones, or the test proved little.
    EXPECT_GT(interrupted, 0);
    RecordProperty("interrupted", interrupted);
    RecordProperty("completed", completed);

    // The next save of the target leaves no temporary either, whatever the last kill left.
    SaveAndKill(fresh, target, SIGKILL, std::chrono::microseconds(3000));
    ASSERT_EQ(fresh.SaveProjectToFile(target), teNoError);
    EXPECT_EQ(Inspect(target, oldBytes), TOutcome::CompleteNew);
    EXPECT_TRUE(Temporaries(dir).empty());
  }
};

TEST_F(InterruptedSaveTest, ExistingTargetIsOldOrCompleteNew) {
  Run(true);
}

TEST_F(InterruptedSaveTest, NewTargetIsMissingOrCompleteNew) {
  Run(false);
}

} // namespace
