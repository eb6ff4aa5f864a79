// Handler that turns Ctrl-C, SIGTERM and SIGHUP into a cancel request of the running calculations and saves.
#include "common/threads/Cancelsignal.h"

#include "common/Safewrite.h"
#include "common/threads/Multicorecalc.h"

#include <csignal>

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
struct sigaction gPreviousAction[3]{};
bool gInstalled = false;

int SlotOf(int signal) {
  for (int i = 0; i < 3; ++i)
    if (kSignals[i] == signal) return i;
  return 0;
}

extern "C" void OnInterrupt(int signal) {
  // Only async-signal-safe work here: lock-free atomics, unlink, sigaction and raise.
  if (!TMCC::ProcessCancelRequested()) {
    TMCC::RequestProcessCancel();
    AbortPendingSafeWrites();
    return;
  }
  sigaction(signal, &gPreviousAction[SlotOf(signal)], nullptr);
  raise(signal);
}

} // namespace

void InstallCalculationCancelHandler() {
  if (gInstalled) return;
  struct sigaction action {};
  action.sa_handler = &OnInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (int i = 0; i < 3; ++i) sigaction(kSignals[i], &action, &gPreviousAction[i]);
  gInstalled = true;
}

void UninstallCalculationCancelHandler() {
  if (!gInstalled) return;
  for (int i = 0; i < 3; ++i) sigaction(kSignals[i], &gPreviousAction[i], nullptr);
  gInstalled = false;
}
