// Error records and what happens to them: the report text, the log entry, the window for the user, and the
// process-wide handlers that turn platform faults (signals) and unhandled exceptions into records.
#pragma once

#include "common/OrvexException.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// An error record: all that a support engineer needs to know about one failure.
class TOrvexSEHInfo {
public:
  TOrvexSEHInfo() = default;
  ~TOrvexSEHInfo();
  TOrvexSEHInfo(const TOrvexSEHInfo&) = delete;
  TOrvexSEHInfo& operator=(const TOrvexSEHInfo&) = delete;

  std::vector<std::string> ExceptionStrings; ///< the report, from GetExceptionStringList
  std::unique_ptr<TOrvexSEHInfo> InnerInfo;  ///< a chained record
  std::string ExceptionDescription;          ///< description of a platform fault
  std::string RawData;                       ///< "Code: 0x..." of a platform fault
  std::string ModuleName;                    ///< module of the fault address
  std::string Context;                       ///< what was running
  std::uintptr_t ExceptionAddress = ~std::uintptr_t(0);
  std::string ThreadInfo;
  bool IsMainThread = false;
  std::int32_t CustomTag = 0;
  Exception* ExceptionObject = nullptr; ///< the exception this record reports
  bool OwnsException = true;            ///< the destructor deletes ExceptionObject
};

/// How a faulting instruction touched memory.
enum class TFaultAccess { Read, Write, Execute, Unknown };

/// What the signal handler learnt about a platform fault.
struct TFaultRecord {
  int Signal = 0;                        ///< SIGSEGV, SIGFPE, SIGBUS, SIGILL, ...
  int Code = 0;                          ///< si_code
  std::uintptr_t FaultAddress = 0;       ///< si_addr: the memory address involved
  std::uintptr_t InstructionAddress = 0; ///< where the fault happened
  std::uintptr_t StackPointer = 0;       ///< 0 when unknown
  TFaultAccess Access = TFaultAccess::Unknown;
};

/// Short name and description of a fault, as error records show them.
struct TFaultDescription {
  std::string ShortName;
  std::string Description;
  bool IsFloatingPoint = false;
};
TFaultDescription DescribeFault(const TFaultRecord& record);

/// One loaded module (executable or shared library) for the report.
struct TModuleInfo {
  std::string Name;
  std::uintptr_t Base = 0;
  std::size_t Size = 0;
};
std::vector<TModuleInfo> GetLoadedModules();

/// A record for a platform fault: an OrvexExceptionSEHSource with the fault's text, owned by the record.
std::unique_ptr<TOrvexSEHInfo> GetOrvexExceptionInfoFromRecord(const TFaultRecord& record);
/// A record that points at e (not owned), with the thread info and the report list.
std::unique_ptr<TOrvexSEHInfo> CreateOrvexSEHInfoFromException(Exception* e);
/// For catch blocks: a record owning a copy of the exception in flight (a foreign exception becomes an
/// OrvexException with its text).
std::unique_ptr<TOrvexSEHInfo> CreateOrvexSEHInfoFromCurrentException();
/// "ThreadID = " id " (Main Thread)" or " (Non-Main Thread)", and the is-main-thread flag.
void AddCurrentThreadInfoIntoExceptionInfo(TOrvexSEHInfo* info);

/// The report lines of a record.
std::vector<std::string> GetExceptionStringList(TOrvexSEHInfo* info);
/// The single log line of a record: report, custom tag and module list, joined by " %0A ".
std::string ComposeExceptionLogText(TOrvexSEHInfo* info);
/// Writes the record to the global log with the call stack (no log: nothing happens).
void WriteExceptionToLogFile(TOrvexSEHInfo* info);
/// The text shown to the user for a record.
std::string ComposeExceptionWindowText(TOrvexSEHInfo* info);
/// From any thread: tells the user through the message proxy, then writes the record to the log.
void ShowExceptionInThreadSafeWindow(TOrvexSEHInfo* info);

/// Clears the floating-point status; when an invalid operation, division by zero or overflow was pending,
/// sets the FPU-exception flag and throws OrvexExceptionMathError with text and what was pending.
void ClearFPUExceptions(const std::string& text);

/// Memory load and free physical and swap memory, from /proc/meminfo.
std::string GetMemoryStatusPercentageString();
/// The same from the text of a meminfo file.
std::string GetMemoryStatusPercentageStringFromMeminfo(const std::string& meminfo);

/// Application info line of reports (program name and version); set at start-up.
void SetOrvexApplicationInfo(const std::string& info);
std::string GetOrvexApplicationInfo();

/// The application frame's show routine for error records of faults and unhandled exceptions. It runs on
/// the failing thread after the record was written to the log, just before the process dies.
using TOrvexExceptionHook = void (*)(TOrvexSEHInfo*);
void SetOrvexExceptionHook(TOrvexExceptionHook hook);
TOrvexExceptionHook GetOrvexExceptionHook();
/// Set when a floating-point exception happened.
extern std::atomic<bool> OrvexFPUExceptionOccurred;

/// Installs the handlers for SIGSEGV, SIGFPE, SIGBUS and SIGILL and the terminate handler: each builds a
/// record (context "OrvexUnhandledExceptionFilter"), writes it to the log, calls the hook, then lets the
/// previous handler (by default: death by the signal, or abort) take over. Calling it twice does nothing.
void InstallOrvexExceptionHandlers();
/// Puts back the handlers that were there before.
void UninstallOrvexExceptionHandlers();
