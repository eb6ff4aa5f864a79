// SIGINT handler that turns Ctrl-C into a cancel request of the running calculations.
#include "common/threads/Cancelsignal.h"

#include "common/threads/Multicorecalc.h"

#include <csignal>

namespace {

struct sigaction gPreviousAction {};
bool gInstalled = false;

extern "C" void OnInterrupt(int signal) {
  // Only async-signal-safe work here: one lock-free atomic, sigaction and raise.
  if (!TMCC::ProcessCancelRequested()) {
    TMCC::RequestProcessCancel();
    return;
  }
  sigaction(SIGINT, &gPreviousAction, nullptr);
  raise(signal);
}

} // namespace

void InstallCalculationCancelHandler() {
  if (gInstalled) return;
  struct sigaction action {};
  action.sa_handler = &OnInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  if (sigaction(SIGINT, &action, &gPreviousAction) == 0) gInstalled = true;
}

void UninstallCalculationCancelHandler() {
  if (!gInstalled) return;
  sigaction(SIGINT, &gPreviousAction, nullptr);
  gInstalled = false;
}
