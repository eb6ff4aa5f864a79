// Error hand-off of thread functions: error records for the process-wide hook, the log, and the
// thread-safe window for math errors.
#include "common/threads/Threaderrors.h"

#include "common/Exceptionhandling.h"
#include "common/Logfile.h"

namespace oxthreads {

void LogThreadMessage(const std::string& text) {
  if (TLogFile* log = GlobalLogFile) log->AddLog(text, TLogLevel::DebugMessage, false, 0);
}

void ReportThreadError(const Exception& e, const std::string& context) {
  // The record points at e and doesn't own it; it lives only for this call.
  auto record = CreateOrvexSEHInfoFromException(const_cast<Exception*>(&e));
  record->Context = context;
  if (TOrvexExceptionHook hook = GetOrvexExceptionHook())
    hook(record.get());
  else
    WriteExceptionToLogFile(record.get());
}

void ReportThreadMathError(const Exception& e, const std::string& logText, const std::string& context) {
  LogThreadMessage(logText);
  Exception plain(e.Message());
  auto record = CreateOrvexSEHInfoFromException(&plain);
  record->Context = context;
  ShowExceptionInThreadSafeWindow(record.get());
}

void SetFPUExceptionOccurred() {
  OrvexFPUExceptionOccurred.store(true);
}

} // namespace oxthreads
