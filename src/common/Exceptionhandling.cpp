// Error records, their report and log entry, and the handlers for platform faults and unhandled exceptions.
#include "common/Exceptionhandling.h"

#include "common/Logfile.h"
#include "common/MainThreadQueue.h"
#include "common/Standardmessage.h"

#include <cerrno>
#include <cfenv>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <mutex>
#include <sstream>

#include <dlfcn.h>
#include <link.h>
#include <ucontext.h>
#include <unistd.h>

std::atomic<bool> OrvexFPUExceptionOccurred{false};

namespace {

std::atomic<TOrvexExceptionHook> ShowHook{nullptr};

std::mutex& AppInfoLock() {
  static std::mutex lock;
  return lock;
}

std::string& AppInfo() {
  static std::string info;
  return info;
}

std::string Hex(std::uintptr_t value, int digits = 16) {
  char text[32];
  std::snprintf(text, sizeof text, "%0*llX", digits, static_cast<unsigned long long>(value));
  return text;
}

std::string BaseName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string ModuleOfAddress(std::uintptr_t address) {
  Dl_info info{};
  if (address != 0 && dladdr(reinterpret_cast<void*>(address), &info) != 0 && info.dli_fname &&
      *info.dli_fname)
    return BaseName(info.dli_fname);
  return "";
}

std::string ExecutablePath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return "";
  path[length] = 0;
  return path;
}

std::string LocalTimeText() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &local);
  return text;
}

bool OnMainThread() {
  auto& queue = TMainThreadQueue::Instance();
  if (queue.HasMainThread()) return queue.IsMainThread();
  return gettid() == getpid();
}

} // namespace

TOrvexSEHInfo::~TOrvexSEHInfo() {
  if (OwnsException) delete ExceptionObject;
}

// ---------------------------------------------------------------------------------------------------------
// Faults

TFaultDescription DescribeFault(const TFaultRecord& record) {
  TFaultDescription result;
  switch (record.Signal) {
  case SIGSEGV: {
    // A fault right at the stack pointer is the guard page below a stack that has run out.
    const std::uintptr_t distance = record.FaultAddress > record.StackPointer
                                        ? record.FaultAddress - record.StackPointer
                                        : record.StackPointer - record.FaultAddress;
    if (record.StackPointer != 0 && record.FaultAddress != 0 && distance < 65536) {
      result.ShortName = "Stack overflow";
      result.Description = "The thread used up its stack.";
      break;
    }
    switch (record.Access) {
    case TFaultAccess::Read:
      result.ShortName = "Read";
      break;
    case TFaultAccess::Write:
      result.ShortName = "Write";
      break;
    case TFaultAccess::Execute:
      result.ShortName = "User-Mode Data Execution Prevention (DEP - Malware or Virus ?)";
      break;
    default:
      result.ShortName = "Unknown Access Kind";
    }
    result.ShortName += " of Address 0x" + Hex(record.FaultAddress);
    if (const std::string module = ModuleOfAddress(record.InstructionAddress); !module.empty())
      result.ShortName += " in Module \"" + module + "\"";
    result.Description = "The thread tried to read from or write to a virtual address for which it does not "
                         "have the appropriate access.";
    break;
  }
  case SIGBUS:
    if (record.Code == BUS_ADRALN) {
      result.ShortName = "Datatype Misalignment";
      result.Description = "The thread tried to read or write data that is misaligned on hardware that does "
                           "not provide alignment.";
    } else {
      result.ShortName = "In page error";
      result.Description =
          "The thread tried to access a page that was not present, and the system was unable "
          "to load the page (for example a mapped file that has shrunk).";
    }
    break;
  case SIGFPE:
    result.IsFloatingPoint = true;
    switch (record.Code) {
    case FPE_INTDIV:
      result.IsFloatingPoint = false;
      result.ShortName = "Integer division by zero";
      result.Description = "The thread tried to divide an integer value by an integer divisor of zero.";
      break;
    case FPE_INTOVF:
      result.IsFloatingPoint = false;
      result.ShortName = "Integer overflow";
      result.Description =
          "The result of an integer operation caused a carry out of the most significant bit of the result.";
      break;
    case FPE_FLTDIV:
      result.ShortName = "Float division by zero";
      result.Description =
          "The thread tried to divide a floating-point value by a floating-point divisor of zero.";
      break;
    case FPE_FLTOVF:
      result.ShortName = "Float overflow";
      result.Description =
          "The exponent of a floating-point operation is greater than the magnitude allowed by "
          "the corresponding type.";
      break;
    case FPE_FLTUND:
      result.ShortName = "Float underflow";
      result.Description =
          "The exponent of a floating-point operation is less than the magnitude allowed by the "
          "corresponding type.";
      break;
    case FPE_FLTRES:
      result.ShortName = "Float inexact result";
      result.Description =
          "The result of a floating-point operation cannot be represented exactly as a decimal fraction.";
      break;
    case FPE_FLTSUB:
      result.IsFloatingPoint = false;
      result.ShortName = "Array bounds exceeded";
      result.Description =
          "The thread tried to access an array element that is out of bounds and the underlying "
          "hardware supports bounds checking.";
      break;
    default: // FPE_FLTINV and anything else
      result.ShortName = "Float invalid operation";
      result.Description =
          "This exception represents any floating-point exception not included in this list.";
    }
    break;
  case SIGILL:
    if (record.Code == ILL_PRVOPC || record.Code == ILL_PRVREG) {
      result.ShortName = "Privileged instruction";
      result.Description = "The thread tried to execute an instruction whose operation is not allowed in the "
                           "current machine mode.";
    } else {
      result.ShortName = "Illegal Instruction";
      result.Description = "The thread tried to execute an invalid instruction.";
    }
    break;
  case SIGTRAP:
    if (record.Code == TRAP_TRACE) {
      result.ShortName = "Single step";
      result.Description =
          "A trace trap or other single-instruction mechanism signaled that one instruction has "
          "been executed.";
    } else {
      result.ShortName = "Breakpoint";
      result.Description = "A breakpoint was encountered.";
    }
    break;
  default:
    result.ShortName = "External exception";
    result.Description = "An external exception occured.";
  }
  return result;
}

std::vector<TModuleInfo> GetLoadedModules() {
  std::vector<TModuleInfo> modules;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* data) -> int {
        auto& list = *static_cast<std::vector<TModuleInfo>*>(data);
        std::uintptr_t low = UINTPTR_MAX, high = 0;
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const auto& header = info->dlpi_phdr[i];
          if (header.p_type != PT_LOAD) continue;
          low = std::min<std::uintptr_t>(low, header.p_vaddr);
          high = std::max<std::uintptr_t>(high, header.p_vaddr + header.p_memsz);
        }
        TModuleInfo module;
        module.Name = info->dlpi_name ? info->dlpi_name : "";
        if (list.empty() && module.Name.empty())
          module.Name = ExecutablePath(); // the first entry is the program itself
        if (low <= high) {
          module.Base = info->dlpi_addr + low;
          module.Size = high - low;
        }
        list.push_back(std::move(module));
        return 0;
      },
      &modules);
  return modules;
}

std::unique_ptr<TOrvexSEHInfo> GetOrvexExceptionInfoFromRecord(const TFaultRecord& record) {
  auto info = std::make_unique<TOrvexSEHInfo>();
  const TFaultDescription description = DescribeFault(record);
  info->ExceptionDescription = description.Description;
  const char* access = record.Access == TFaultAccess::Read      ? "0"
                       : record.Access == TFaultAccess::Write   ? "1"
                       : record.Access == TFaultAccess::Execute ? "8"
                                                                : "FFFFFFFF";
  info->RawData = "Code: 0x" + Hex(static_cast<unsigned>(record.Signal), 8) + " - Flags: 0x" +
                  Hex(static_cast<unsigned>(record.Code), 8) + " - Address: 0x" +
                  Hex(record.InstructionAddress) + " - Params: 0x" + access + ", 0x" +
                  Hex(record.FaultAddress);
  info->ModuleName = ModuleOfAddress(record.InstructionAddress);
  info->ExceptionAddress = record.InstructionAddress;
  info->ExceptionObject = new OrvexExceptionSEHSource(description.ShortName);
  info->OwnsException = true;
  AddCurrentThreadInfoIntoExceptionInfo(info.get());
  info->ExceptionStrings = GetExceptionStringList(info.get());
  return info;
}

// ---------------------------------------------------------------------------------------------------------
// Records from exceptions

std::unique_ptr<TOrvexSEHInfo> CreateOrvexSEHInfoFromException(Exception* e) {
  auto info = std::make_unique<TOrvexSEHInfo>();
  info->ExceptionObject = e;
  info->OwnsException = false;
  AddCurrentThreadInfoIntoExceptionInfo(info.get());
  info->ExceptionStrings = GetExceptionStringList(info.get());
  return info;
}

std::unique_ptr<TOrvexSEHInfo> CreateOrvexSEHInfoFromCurrentException() {
  Exception* copy = nullptr;
  try {
    if (std::current_exception()) throw;
    copy = new OrvexException("no exception in flight");
  } catch (const Exception& e) {
    copy = e.Clone();
  } catch (const std::exception& e) {
    copy = new OrvexException(std::string("std::exception: ") + e.what());
  } catch (...) {
    copy = new OrvexException("Unknown exception object");
  }
  auto info = CreateOrvexSEHInfoFromException(copy);
  info->OwnsException = true;
  return info;
}

void AddCurrentThreadInfoIntoExceptionInfo(TOrvexSEHInfo* info) {
  if (!info) return;
  info->IsMainThread = OnMainThread();
  info->ThreadInfo = "ThreadID = " + std::to_string(TLogFile::CurrentThreadId()) +
                     (info->IsMainThread ? " (Main Thread)" : " (Non-Main Thread)");
}

// ---------------------------------------------------------------------------------------------------------
// Report, log, window

std::vector<std::string> GetExceptionStringList(TOrvexSEHInfo* info) {
  std::vector<std::string> lines;
  if (!info) return lines;
  Exception* e = info->ExceptionObject;
  if (dynamic_cast<OrvexExceptionMemoryAllocation*>(e)) {
    lines.insert(lines.end(),
                 {"The Orvex Software could not allocate Memory", "for new Data Objects. Try to delete large",
                  "Data Objects that you don't use anymore and be", "sure that there are no other Programs",
                  "running with high memory usage.", "Consider using the Memory Mapped File Strategy,",
                  "see Menu Options -> Memory Options"});
  }
  lines.push_back(e ? GetExceptionClassNameAndMessage(*e) : std::string("Unknown Exception"));
  if (auto* orvex = dynamic_cast<OrvexException*>(e)) {
    if (const auto* history = orvex->ExceptionHistory(); history && !history->empty()) {
      lines.push_back("Caused by:");
      lines.insert(lines.end(), history->begin(), history->end());
    }
  }
  lines.push_back("Additional Information:");
  lines.push_back("Time: " + LocalTimeText());
  lines.push_back("Application Info: " + GetOrvexApplicationInfo());
  lines.push_back("Memory Status: " + GetMemoryStatusPercentageString());
  lines.push_back("Thread Info: " + info->ThreadInfo + (info->Context.empty() ? "" : " - " + info->Context));
  lines.push_back("Exception Module: " + info->ModuleName);
  lines.push_back("Exception Address: 0x" + Hex(info->ExceptionAddress));
  lines.push_back("Exception Description: " + info->ExceptionDescription);
  lines.push_back("Exception Raw Data: " + info->RawData);
  return lines;
}

std::string ComposeExceptionLogText(TOrvexSEHInfo* info) {
  if (!info) return "";
  const std::vector<std::string> lines =
      info->ExceptionStrings.empty() ? GetExceptionStringList(info) : info->ExceptionStrings;
  std::string text = "Exception happened: ";
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) text += " %0A ";
    text += lines[i];
  }
  text += " %0A Custom Tag: " + std::to_string(info->CustomTag);
  text += " %0A Modules: %0A %0A ";
  for (const auto& module : GetLoadedModules()) {
    text += "Module Name: " + (module.Name.empty() ? std::string("Unknown") : module.Name);
    text += " - Base: " + (module.Size ? "0x" + Hex(module.Base) : std::string("Unknown"));
    text += " - Size: " + (module.Size ? std::to_string(module.Size) : std::string("Unknown"));
    text += " - Version: Unknown %0A ";
  }
  return text;
}

void WriteExceptionToLogFile(TOrvexSEHInfo* info) {
  TLogFile* log = GlobalLogFile;
  if (!log || !info) return;
  log->AddLog(ComposeExceptionLogText(info), TLogLevel::DebugMessage, true, 50);
}

std::string ComposeExceptionWindowText(TOrvexSEHInfo* info) {
  std::string text = program_invocation_short_name;
  text += " encountered a problem.";
  text +=
      "\n\nTry to safe your data into a new file and restart the software.\nPlease send the following "
      "exception information to Orvex.\nPress Alt-Print to copy a screenshot of this window into the windows "
      "clipboard.";
  text += "\n\nException Information:\n\n";
  if (info) {
    const std::vector<std::string> lines =
        info->ExceptionStrings.empty() ? GetExceptionStringList(info) : info->ExceptionStrings;
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (i > 0) text += "\n";
      text += lines[i];
    }
    text += "\r\nCustom Tag: " + std::to_string(info->CustomTag);
  }
  return text;
}

void ShowExceptionInThreadSafeWindow(TOrvexSEHInfo* info) {
  auto* message = new TBlockingNotification();
  message->SetMessageText(ComposeExceptionWindowText(info));
  message->DefineMessageSeverity(kSeverityError);
  try {
    TMessageProxy::MsgProxySingleton()->IssueMessage(message, true);
  } catch (...) {
    // The user could not be told; the log below still gets the record.
  }
  WriteExceptionToLogFile(info);
}

// ---------------------------------------------------------------------------------------------------------
// Floating point, memory, application info, hook

void ClearFPUExceptions(const std::string& text) {
  const int pending = std::fetestexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW);
  std::feclearexcept(FE_ALL_EXCEPT);
  if (!pending) return;
  OrvexFPUExceptionOccurred.store(true);
  std::string what;
  auto add = [&](int flag, const char* name) {
    if (pending & flag) what += (what.empty() ? "" : ", ") + std::string(name);
  };
  add(FE_INVALID, "Float invalid operation");
  add(FE_DIVBYZERO, "Float division by zero");
  add(FE_OVERFLOW, "Float overflow");
  throw OrvexExceptionMathError(text + " (" + what + ")");
}

std::string GetMemoryStatusPercentageStringFromMeminfo(const std::string& meminfo) {
  long long total = -1, available = -1, freeMemory = -1, swapTotal = -1, swapFree = -1;
  std::istringstream lines(meminfo);
  std::string line;
  while (std::getline(lines, line)) {
    char key[64];
    long long value;
    if (std::sscanf(line.c_str(), "%63[^:]: %lld", key, &value) != 2) continue;
    const std::string name = key;
    if (name == "MemTotal")
      total = value;
    else if (name == "MemAvailable")
      available = value;
    else if (name == "MemFree")
      freeMemory = value;
    else if (name == "SwapTotal")
      swapTotal = value;
    else if (name == "SwapFree")
      swapFree = value;
  }
  if (available < 0) available = freeMemory;
  if (total <= 0 || available < 0) return "Unknown";
  const long long load = (100 * (total - available) + total / 2) / total;
  std::string text = "Memory Load " + std::to_string(load) +
                     "% - Physical: " + std::to_string(available / 1024) + " MB available of " +
                     std::to_string(total / 1024) + " MB";
  if (swapTotal >= 0 && swapFree >= 0)
    text += " - Swap: " + std::to_string(swapFree / 1024) + " MB free of " +
            std::to_string(swapTotal / 1024) + " MB";
  return text;
}

std::string GetMemoryStatusPercentageString() {
  std::ifstream file("/proc/meminfo");
  std::stringstream content;
  content << file.rdbuf();
  return GetMemoryStatusPercentageStringFromMeminfo(content.str());
}

void SetOrvexApplicationInfo(const std::string& info) {
  std::lock_guard guard(AppInfoLock());
  AppInfo() = info;
}

std::string GetOrvexApplicationInfo() {
  {
    std::lock_guard guard(AppInfoLock());
    if (!AppInfo().empty()) return AppInfo();
  }
  return std::string(program_invocation_short_name) + " (pid " + std::to_string(getpid()) + ")";
}

void SetOrvexExceptionHook(TOrvexExceptionHook hook) {
  ShowHook.store(hook);
}
TOrvexExceptionHook GetOrvexExceptionHook() {
  return ShowHook.load();
}

// ---------------------------------------------------------------------------------------------------------
// Process-wide handlers

namespace {

constexpr int kFaultSignals[] = {SIGSEGV, SIGFPE, SIGBUS, SIGILL};
constexpr const char* kHandlerContext = "OrvexUnhandledExceptionFilter";

std::mutex& InstallLock() {
  static std::mutex lock;
  return lock;
}
bool HandlersInstalled = false;
struct sigaction PreviousActions[4];
std::terminate_handler PreviousTerminate = nullptr;
std::atomic<bool> HandlingFatalError{false};
// The alternate stack lets the handler run after a stack overflow (on the thread that installed it).
alignas(16) char AlternateStack[1 << 16];
stack_t PreviousAlternateStack{};

int SignalSlot(int signal) {
  for (int i = 0; i < 4; ++i)
    if (kFaultSignals[i] == signal) return i;
  return -1;
}

void ReportFatalRecord(TOrvexSEHInfo* info) {
  info->Context = kHandlerContext;
  info->ExceptionStrings = GetExceptionStringList(info);
  // The crash must reach the disk even with debug messages switched off, and even if the failing thread
  // held the log's lock; hence the fault-handler entry and not AddLog.
  if (TLogFile* log = GlobalLogFile) log->AddLogFromFaultHandler(ComposeExceptionLogText(info), 50);
  if (TOrvexExceptionHook hook = ShowHook.load()) hook(info);
}

void FaultHandler(int signal, siginfo_t* signalInfo, void* context) {
  const int slot = SignalSlot(signal);
  if (HandlingFatalError.exchange(true)) {
    // A second fault while reporting the first one: no more reporting, just die.
    std::signal(signal, SIG_DFL);
    raise(signal);
    return;
  }
  const int savedErrno = errno;
  TFaultRecord record;
  record.Signal = signal;
  record.Code = signalInfo ? signalInfo->si_code : 0;
  record.FaultAddress = signalInfo ? reinterpret_cast<std::uintptr_t>(signalInfo->si_addr) : 0;
#if defined(__x86_64__)
  if (context) {
    const auto* machine = &static_cast<ucontext_t*>(context)->uc_mcontext;
    record.InstructionAddress = static_cast<std::uintptr_t>(machine->gregs[REG_RIP]);
    record.StackPointer = static_cast<std::uintptr_t>(machine->gregs[REG_RSP]);
    if (signal == SIGSEGV) {
      // Page-fault error code: bit 1 write access, bit 4 instruction fetch.
      const auto error = static_cast<unsigned long>(machine->gregs[REG_ERR]);
      record.Access = (error & 0x10)  ? TFaultAccess::Execute
                      : (error & 0x2) ? TFaultAccess::Write
                                      : TFaultAccess::Read;
    }
  }
#else
  (void)context;
  record.InstructionAddress = record.FaultAddress;
#endif
  if (signal == SIGFPE && DescribeFault(record).IsFloatingPoint) OrvexFPUExceptionOccurred.store(true);
  try {
    auto info = GetOrvexExceptionInfoFromRecord(record);
    ReportFatalRecord(info.get());
  } catch (...) {
    // Reporting failed; dying by the signal still follows.
  }
  // Hand over to what was there before. A fault sent by another process is raised again; a real fault
  // repeats itself when the instruction runs again after this handler returns.
  if (slot >= 0)
    sigaction(signal, &PreviousActions[slot], nullptr);
  else
    std::signal(signal, SIG_DFL);
  if (!signalInfo || signalInfo->si_code <= 0) raise(signal);
  errno = savedErrno;
}

[[noreturn]] void TerminateHandler() {
  if (!HandlingFatalError.exchange(true)) {
    try {
      auto info = CreateOrvexSEHInfoFromCurrentException();
      info->OwnsException = true;
      ReportFatalRecord(info.get());
    } catch (...) {
    }
  }
  if (PreviousTerminate && PreviousTerminate != &TerminateHandler) PreviousTerminate();
  std::abort();
}

} // namespace

void InstallOrvexExceptionHandlers() {
  std::lock_guard guard(InstallLock());
  if (HandlersInstalled) return;
  stack_t alternate{};
  alternate.ss_sp = AlternateStack;
  alternate.ss_size = sizeof AlternateStack;
  alternate.ss_flags = 0;
  sigaltstack(&alternate, &PreviousAlternateStack);
  struct sigaction action {};
  action.sa_sigaction = &FaultHandler;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int i = 0; i < 4; ++i) sigaction(kFaultSignals[i], &action, &PreviousActions[i]);
  PreviousTerminate = std::set_terminate(&TerminateHandler);
  HandlingFatalError.store(false);
  HandlersInstalled = true;
}

void UninstallOrvexExceptionHandlers() {
  std::lock_guard guard(InstallLock());
  if (!HandlersInstalled) return;
  for (int i = 0; i < 4; ++i) sigaction(kFaultSignals[i], &PreviousActions[i], nullptr);
  std::set_terminate(PreviousTerminate);
  PreviousTerminate = nullptr;
  if (PreviousAlternateStack.ss_sp || (PreviousAlternateStack.ss_flags & SS_DISABLE))
    sigaltstack(&PreviousAlternateStack, nullptr);
  HandlersInstalled = false;
}
