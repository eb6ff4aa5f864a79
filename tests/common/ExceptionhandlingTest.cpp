// Tests of error records: report lines, fault texts, log entry, the window text, FPU status, memory status,
// and the fault and terminate handlers in a child process that dies.
#include "common/Exceptionhandling.h"

#include "common/Logfile.h"
#include "common/MainThreadQueue.h"
#include "common/Standardmessage.h"
#include "support/TestSupport.h"

#include <cfenv>
#include <csignal>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

namespace {

/// Index of the first line that starts with prefix, or -1.
int FindLine(const std::vector<std::string>& lines, const std::string& prefix) {
  for (std::size_t i = 0; i < lines.size(); ++i)
    if (lines[i].rfind(prefix, 0) == 0) return static_cast<int>(i);
  return -1;
}

} // namespace

TEST(ExceptionReport, LinesOfAPlainException) {
  OrvexException e("TProject::Load: file gone");
  auto info = CreateOrvexSEHInfoFromException(&e);
  EXPECT_FALSE(info->OwnsException);
  EXPECT_EQ(info->ExceptionObject, &e);
  const auto& lines = info->ExceptionStrings;
  ASSERT_GE(lines.size(), 10u);
  EXPECT_EQ(lines[0], "Orvex Exception: TProject::Load: file gone");
  EXPECT_EQ(FindLine(lines, "Caused by:"), -1);
  EXPECT_EQ(lines[1], "Additional Information:");
  const char* prefixes[] = {"Time: ",
                            "Application Info: ",
                            "Memory Status: Memory Load ",
                            "Thread Info: ThreadID = ",
                            "Exception Module: ",
                            "Exception Address: 0xFFFFFFFFFFFFFFFF",
                            "Exception Description: ",
                            "Exception Raw Data: "};
  for (std::size_t i = 0; i < std::size(prefixes); ++i)
    EXPECT_EQ(lines[2 + i].rfind(prefixes[i], 0), 0u) << lines[2 + i];
  EXPECT_EQ(lines.size(), 10u);
}

TEST(ExceptionReport, HistoryAndMemoryBlock) {
  OrvexExceptionMemoryAllocation e("TPartialMemoryArray::Allocate: 12 GB",
                                   OrvexExceptionMathError("svdcmp: no convergence", OrvexException("root")));
  auto info = CreateOrvexSEHInfoFromException(&e);
  const auto& lines = info->ExceptionStrings;
  ASSERT_GE(lines.size(), 12u);
  EXPECT_EQ(lines[0], "The Orvex Software could not allocate Memory");
  EXPECT_EQ(lines[6], "see Menu Options -> Memory Options");
  EXPECT_EQ(lines[7], "OrvexExceptionMemoryAllocation: TPartialMemoryArray::Allocate: 12 GB");
  EXPECT_EQ(lines[8], "Caused by:");
  EXPECT_EQ(lines[9], "Math Exception: svdcmp: no convergence");
  EXPECT_EQ(lines[10], "Orvex Exception: root");
  EXPECT_EQ(lines[11], "Additional Information:");
}

TEST(ExceptionReport, RecordsOfForeignExceptionsAndThreads) {
  auto& queue = TMainThreadQueue::Instance();
  queue.SetMainThread();
  std::unique_ptr<TOrvexSEHInfo> info;
  try {
    throw std::runtime_error("disk full");
  } catch (...) {
    info = CreateOrvexSEHInfoFromCurrentException();
  }
  EXPECT_TRUE(info->OwnsException);
  EXPECT_EQ(info->ExceptionStrings.at(0), "Orvex Exception: std::exception: disk full");
  EXPECT_TRUE(info->IsMainThread);
  EXPECT_EQ(info->ThreadInfo, "ThreadID = " + std::to_string(TLogFile::CurrentThreadId()) + " (Main Thread)");
  try {
    throw OrvexExceptionMCC("TMCC::Run: worker 3");
  } catch (...) {
    info = CreateOrvexSEHInfoFromCurrentException();
  }
  EXPECT_NE(dynamic_cast<OrvexExceptionMCC*>(info->ExceptionObject), nullptr);
  std::thread other([&] {
    try {
      throw 42;
    } catch (...) {
      info = CreateOrvexSEHInfoFromCurrentException();
    }
  });
  other.join();
  EXPECT_EQ(info->ExceptionStrings.at(0), "Orvex Exception: Unknown exception object");
  EXPECT_FALSE(info->IsMainThread);
  EXPECT_NE(info->ThreadInfo.find(" (Non-Main Thread)"), std::string::npos);
}

TEST(FaultRecords, TextsOfEachKindOfFault) {
  TFaultRecord segv;
  segv.Signal = SIGSEGV;
  segv.FaultAddress = 0x10;
  segv.Access = TFaultAccess::Write;
  EXPECT_EQ(DescribeFault(segv).ShortName, "Write of Address 0x0000000000000010");
  segv.Access = TFaultAccess::Read;
  EXPECT_EQ(DescribeFault(segv).ShortName, "Read of Address 0x0000000000000010");
  segv.Access = TFaultAccess::Unknown;
  EXPECT_EQ(DescribeFault(segv).ShortName, "Unknown Access Kind of Address 0x0000000000000010");
  segv.Access = TFaultAccess::Execute;
  EXPECT_EQ(DescribeFault(segv).ShortName,
            "User-Mode Data Execution Prevention (DEP - Malware or Virus ?) of Address 0x0000000000000010");
  // A fault inside a known module names it.
  segv.Access = TFaultAccess::Read;
  segv.InstructionAddress = reinterpret_cast<std::uintptr_t>(&std::fesetround);
  EXPECT_NE(DescribeFault(segv).ShortName.find(" in Module \"libm.so"), std::string::npos)
      << DescribeFault(segv).ShortName;
  // Right at the stack pointer: the stack ran out.
  segv.StackPointer = 0x7000'0000'1000;
  segv.FaultAddress = 0x7000'0000'0ff8;
  EXPECT_EQ(DescribeFault(segv).ShortName, "Stack overflow");

  auto fault = [](int signal, int code) {
    TFaultRecord record;
    record.Signal = signal;
    record.Code = code;
    return DescribeFault(record);
  };
  EXPECT_EQ(fault(SIGFPE, FPE_INTDIV).ShortName, "Integer division by zero");
  EXPECT_EQ(fault(SIGFPE, FPE_INTDIV).Description,
            "The thread tried to divide an integer value by an integer divisor of zero.");
  EXPECT_FALSE(fault(SIGFPE, FPE_INTDIV).IsFloatingPoint);
  EXPECT_EQ(fault(SIGFPE, FPE_FLTDIV).ShortName, "Float division by zero");
  EXPECT_TRUE(fault(SIGFPE, FPE_FLTDIV).IsFloatingPoint);
  EXPECT_EQ(fault(SIGFPE, FPE_FLTOVF).ShortName, "Float overflow");
  EXPECT_EQ(fault(SIGFPE, FPE_FLTINV).ShortName, "Float invalid operation");
  EXPECT_EQ(fault(SIGILL, ILL_ILLOPC).ShortName, "Illegal Instruction");
  EXPECT_EQ(fault(SIGILL, ILL_PRVOPC).ShortName, "Privileged instruction");
  EXPECT_EQ(fault(SIGBUS, BUS_ADRALN).ShortName, "Datatype Misalignment");
  EXPECT_EQ(fault(SIGBUS, BUS_ADRERR).ShortName, "In page error");
  EXPECT_EQ(fault(SIGUSR1, 0).ShortName, "External exception");
  EXPECT_EQ(fault(SIGUSR1, 0).Description, "An external exception occured.");
}

TEST(FaultRecords, RecordOfAFault) {
  TFaultRecord record;
  record.Signal = SIGFPE;
  record.Code = FPE_INTDIV;
  record.InstructionAddress = 0x401000;
  record.FaultAddress = 0x401000;
  auto info = GetOrvexExceptionInfoFromRecord(record);
  EXPECT_TRUE(info->OwnsException);
  ASSERT_NE(dynamic_cast<OrvexExceptionSEHSource*>(info->ExceptionObject), nullptr);
  EXPECT_EQ(info->ExceptionStrings.at(0), "Orvex Structured Exception: Integer division by zero");
  EXPECT_EQ(info->RawData, "Code: 0x00000008 - Flags: 0x00000001 - Address: 0x0000000000401000 - Params: "
                           "0xFFFFFFFF, 0x0000000000401000");
  EXPECT_EQ(info->ExceptionAddress, 0x401000u);
  EXPECT_NE(FindLine(info->ExceptionStrings, "Exception Address: 0x0000000000401000"), -1);
  EXPECT_NE(FindLine(info->ExceptionStrings, "Exception Description: The thread tried to divide an integer"),
            -1);
}

TEST(ExceptionLog, OneLineWithModulesAndCallStack) {
  OrvexException e("TTest::Run: logged");
  auto info = CreateOrvexSEHInfoFromException(&e);
  info->CustomTag = 77;
  const std::string text = ComposeExceptionLogText(info.get());
  EXPECT_EQ(
      text.rfind("Exception happened: Orvex Exception: TTest::Run: logged %0A Additional Information: %0A "
                 "Time: ",
                 0),
      0u);
  EXPECT_NE(text.find(" %0A Custom Tag: 77 %0A Modules: %0A %0A Module Name: "), std::string::npos);
  EXPECT_NE(text.find("libc.so.6 - Base: 0x"), std::string::npos);
  EXPECT_NE(text.find(" - Version: Unknown %0A "), std::string::npos);
  EXPECT_EQ(text.find('\n'), std::string::npos);

  oxtest::TempDir dir;
  TLogFile log(false, false);
  ASSERT_TRUE(log.Open(dir.File("x.log"), true));
  TLogFile* saved = GlobalLogFile;
  WriteExceptionToLogFile(info.get()); // no global log yet: nothing
  GlobalLogFile = &log;
  WriteExceptionToLogFile(info.get());
  GlobalLogFile = saved;
  log.Close();
  const std::string content = oxtest::ReadFileBytes(dir.File("x.log"));
  EXPECT_EQ(content.find("Exception happened: "), content.rfind("Exception happened: "));
  EXPECT_NE(content.find(";Exception happened: Orvex Exception: TTest::Run: logged"), std::string::npos);
  EXPECT_NE(content.find("Version: Unknown %0A \r\n\t;\t;\tAddrPC :0x"), std::string::npos);
}

TEST(ExceptionWindow, IssuedAsNotificationAndLogged) {
  TMessageProxy::CleanupRegisteredMessagesAndSingletonObject();
  struct TRecorder : IMessagingStrategy {
    TMessageAnswerFunction GetAnswerStrategyForMessage(IStandardMessage* message) override {
      if (!message) return {};
      return [this](IStandardMessage* msg) {
        Type = msg->GetTypeId();
        Text = msg->GetMessageText();
        Severity = dynamic_cast<IStandardMessageSeverity*>(msg)->GetSeverity();
        return msg->GetReply(kAnswerOk);
      };
    }
    std::string GetName() const override { return "Recorder"; }
    TGuid Type;
    std::string Text;
    int Severity = -1;
  };
  auto* recorder = new TRecorder();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(recorder);
  oxtest::TempDir dir;
  TLogFile log(false, false);
  ASSERT_TRUE(log.Open(dir.File("w.log"), true));
  TLogFile* saved = GlobalLogFile;
  GlobalLogFile = &log;
  OrvexExceptionMathError e("gaussj: singular matrix");
  auto info = CreateOrvexSEHInfoFromException(&e);
  info->CustomTag = 5;
  ShowExceptionInThreadSafeWindow(info.get());
  GlobalLogFile = saved;
  EXPECT_EQ(recorder->Type, TBlockingNotification::ClassGuid);
  EXPECT_EQ(recorder->Severity, kSeverityError);
  EXPECT_EQ(recorder->Text, ComposeExceptionWindowText(info.get()));
  EXPECT_EQ(
      recorder->Text.rfind(std::string(program_invocation_short_name) +
                               " encountered a problem.\n\nTry to safe your data into a new file and restart "
                               "the software.\n",
                           0),
      0u);
  EXPECT_NE(recorder->Text.find("\n\nException Information:\n\nMath Exception: gaussj: singular matrix\n"
                                "Additional Information:\n"),
            std::string::npos);
  EXPECT_EQ(recorder->Text.substr(recorder->Text.size() - 15), "\r\nCustom Tag: 5");
  log.Close();
  EXPECT_NE(oxtest::ReadFileBytes(dir.File("w.log")).find("Exception happened: Math Exception: gaussj"),
            std::string::npos);
  TMessageProxy::CleanupRegisteredMessagesAndSingletonObject();
}

TEST(FloatingPointStatus, ClearFPUExceptionsThrowsOnlyForPendingFaults) {
  std::feclearexcept(FE_ALL_EXCEPT);
  OrvexFPUExceptionOccurred = false;
  EXPECT_NO_THROW(ClearFPUExceptions("TTest::Clean"));
  EXPECT_FALSE(OrvexFPUExceptionOccurred.load());

  volatile double zero = 0.0;
  volatile double quotient = 1.0 / zero;
  (void)quotient;
  ASSERT_NE(std::fetestexcept(FE_DIVBYZERO), 0);
  try {
    ClearFPUExceptions("TTest::Divide");
    FAIL() << "no exception";
  } catch (const OrvexExceptionMathError& e) {
    EXPECT_EQ(e.Message(), "TTest::Divide (Float division by zero)");
  }
  EXPECT_EQ(std::fetestexcept(FE_ALL_EXCEPT), 0);
  EXPECT_TRUE(OrvexFPUExceptionOccurred.load());
  OrvexFPUExceptionOccurred = false;
}

TEST(MemoryStatus, FromMeminfoText) {
  const std::string meminfo = "MemTotal:       16000000 kB\nMemFree:         1000000 kB\n"
                              "MemAvailable:    4000000 kB\nBuffers:          100 kB\n"
                              "SwapTotal:       2048000 kB\nSwapFree:        1024000 kB\n";
  EXPECT_EQ(GetMemoryStatusPercentageStringFromMeminfo(meminfo),
            "Memory Load 75% - Physical: 3906 MB available of 15625 MB - Swap: 1000 MB free of 2000 MB");
  EXPECT_EQ(GetMemoryStatusPercentageStringFromMeminfo("MemTotal: 1000 kB\nMemFree: 500 kB\n"),
            "Memory Load 50% - Physical: 0 MB available of 0 MB");
  EXPECT_EQ(GetMemoryStatusPercentageStringFromMeminfo("garbage"), "Unknown");
  EXPECT_EQ(GetMemoryStatusPercentageString().rfind("Memory Load ", 0), 0u);
}

TEST(ExceptionHandlers, InstallAndUninstallRestoreThePreviousOnes) {
  struct sigaction before {};
  sigaction(SIGBUS, nullptr, &before);
  InstallOrvexExceptionHandlers();
  InstallOrvexExceptionHandlers(); // twice: no change
  struct sigaction during {};
  sigaction(SIGBUS, nullptr, &during);
  EXPECT_NE(during.sa_flags & SA_SIGINFO, 0);
  EXPECT_NE(reinterpret_cast<void*>(during.sa_sigaction), reinterpret_cast<void*>(before.sa_sigaction));
  UninstallOrvexExceptionHandlers();
  struct sigaction after {};
  sigaction(SIGBUS, nullptr, &after);
  EXPECT_EQ(reinterpret_cast<void*>(after.sa_sigaction), reinterpret_cast<void*>(before.sa_sigaction));
}

// ---------------------------------------------------------------------------------------------------------
// Dying processes. Each death test forks a child that installs the handlers, opens a log and dies; the
// parent then reads what the child left on disk.

// Sanitizers take the fault signals themselves: the handler tests run only in plain builds.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OX_TESTS_UNDER_SANITIZER 1
#endif
#endif
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(OX_TESTS_UNDER_SANITIZER)

namespace {

std::string HookMarkerFile;

void MarkerHook(TOrvexSEHInfo* info) {
  std::ofstream marker(HookMarkerFile);
  marker << (info && !info->ExceptionStrings.empty() ? info->ExceptionStrings[0] : "no record") << "\n"
         << info->Context;
}

void PrepareDyingChild(const std::string& logName) {
  auto* log = new TLogFile(false, true);
  log->Open(logName, true);
  GlobalLogFile = log;
  SetOrvexExceptionHook(&MarkerHook);
  InstallOrvexExceptionHandlers();
}

__attribute__((noinline)) void WriteToAddress16() {
  volatile std::uintptr_t address = 16; // through a variable, so the compiler cannot see the bad address
  *reinterpret_cast<volatile int*>(address) = 1;
}

__attribute__((noinline)) int DivideByZero() {
  // Both operands unknown to the compiler, so it has to emit the division instruction.
  volatile int numerator = 7, zero = 0;
  volatile int quotient = numerator / zero;
  return quotient;
}

} // namespace

TEST(ExceptionHandlersDeathTest, AccessViolationIsLoggedShownAndKills) {
  GTEST_FLAG_SET(death_test_style, "fast");
  oxtest::TempDir dir;
  const std::string logName = dir.File("crash.log");
  HookMarkerFile = dir.File("hook.txt");
  EXPECT_EXIT(
      {
        PrepareDyingChild(logName);
        WriteToAddress16();
      },
      ::testing::KilledBySignal(SIGSEGV), "");
  const std::string log = oxtest::ReadFileBytes(logName);
  EXPECT_NE(
      log.find(";Exception happened: Orvex Structured Exception: Write of Address 0x0000000000000010 in "
               "Module \""),
      std::string::npos)
      << log.substr(0, 2000);
  EXPECT_NE(log.find(" (Main Thread) - OrvexUnhandledExceptionFilter %0A "), std::string::npos);
  EXPECT_NE(log.find("Exception Description: The thread tried to read from or write to a virtual address"),
            std::string::npos);
  EXPECT_NE(log.find("Exception Raw Data: Code: 0x0000000B - Flags: 0x00000001 - Address: 0x"),
            std::string::npos);
  EXPECT_NE(log.find(" - Params: 0x1, 0x0000000000000010"), std::string::npos);
  EXPECT_NE(log.find(" %0A Modules: %0A %0A Module Name: "), std::string::npos);
  EXPECT_NE(log.find("\r\n\t;\t;\tAddrPC :0x"), std::string::npos);
  const std::string marker = oxtest::ReadFileBytes(HookMarkerFile);
  EXPECT_EQ(marker.rfind("Orvex Structured Exception: Write of Address 0x0000000000000010", 0), 0u) << marker;
  EXPECT_NE(marker.find("\nOrvexUnhandledExceptionFilter"), std::string::npos);
}

TEST(ExceptionHandlersDeathTest, IntegerDivisionByZeroIsLoggedAndKills) {
  GTEST_FLAG_SET(death_test_style, "fast");
  oxtest::TempDir dir;
  const std::string logName = dir.File("fpe.log");
  HookMarkerFile = dir.File("hook.txt");
  EXPECT_EXIT(
      {
        PrepareDyingChild(logName);
        DivideByZero();
      },
      ::testing::KilledBySignal(SIGFPE), "");
  const std::string log = oxtest::ReadFileBytes(logName);
  EXPECT_NE(log.find(";Exception happened: Orvex Structured Exception: Integer division by zero %0A "),
            std::string::npos)
      << log.substr(0, 2000);
  EXPECT_NE(log.find("Exception Raw Data: Code: 0x00000008 - Flags: 0x00000001"), std::string::npos);
  EXPECT_EQ(
      oxtest::ReadFileBytes(HookMarkerFile).rfind("Orvex Structured Exception: Integer division by zero", 0),
      0u);
}

TEST(ExceptionHandlersDeathTest, SignalFromOutsideIsReportedAndKills) {
  GTEST_FLAG_SET(death_test_style, "fast");
  oxtest::TempDir dir;
  const std::string logName = dir.File("ill.log");
  HookMarkerFile = dir.File("hook.txt");
  EXPECT_EXIT(
      {
        PrepareDyingChild(logName);
        raise(SIGILL);
      },
      ::testing::KilledBySignal(SIGILL), "");
  EXPECT_NE(oxtest::ReadFileBytes(logName).find(";Exception happened: Orvex Structured Exception: "),
            std::string::npos);
}

TEST(ExceptionHandlersDeathTest, UnhandledExceptionIsLoggedAndAborts) {
  GTEST_FLAG_SET(death_test_style, "fast");
  oxtest::TempDir dir;
  const std::string logName = dir.File("terminate.log");
  HookMarkerFile = dir.File("hook.txt");
  EXPECT_EXIT(
      {
        PrepareDyingChild(logName);
        try {
          throw OrvexExceptionMCC("TMCC::Run: lost", OrvexException("inner cause"));
        } catch (...) {
          std::terminate();
        }
      },
      ::testing::KilledBySignal(SIGABRT), "");
  const std::string log = oxtest::ReadFileBytes(logName);
  EXPECT_NE(
      log.find(";Exception happened: MCC Exception: TMCC::Run: lost %0A Caused by: %0A Orvex Exception: "
               "inner cause %0A Additional Information: %0A "),
      std::string::npos)
      << log.substr(0, 2000);
  EXPECT_NE(log.find(" - OrvexUnhandledExceptionFilter %0A "), std::string::npos);
  EXPECT_EQ(oxtest::ReadFileBytes(HookMarkerFile).rfind("MCC Exception: TMCC::Run: lost", 0), 0u);
}

#endif
