// Error hand-off of thread functions: log lines and the process-wide error handling.
#include "common/threads/Threaderrors.h"

#include "common/Logfile.h"

#include <atomic>

namespace oxthreads {

namespace {
std::atomic<bool> gFPUExceptionOccurred{false};
} // namespace

void SetFPUExceptionOccurred() {
  gFPUExceptionOccurred.store(true);
}
bool FPUExceptionOccurred() {
  return gFPUExceptionOccurred.load();
}
void ClearFPUExceptionOccurred() {
  gFPUExceptionOccurred.store(false);
}

void LogThreadMessage(const std::string& text) {
  if (TLogFile* log = GlobalLogFile) log->AddLog(text, TLogLevel::DebugMessage, false, 0);
}

void ReportThreadError(const Exception& e, const std::string& context) {
  LogThreadMessage("Exception happened: " + GetExceptionClassNameAndMessage(e) + " %0A Context: " + context);
}

void ReportThreadMathError(const Exception& e, const std::string& logText, const std::string& context) {
  LogThreadMessage(logText);
  LogThreadMessage("Exception happened: " + GetExceptionClassNameAndMessage(e) + " %0A Context: " + context);
}

} // namespace oxthreads
