// Ctrl-C for the command line: the first interrupt cancels the running calculations and saves, a second
// one ends the process as usual. SIGTERM and SIGHUP are handled the same way.
#pragma once

/// Installs the handler of SIGINT, SIGTERM and SIGHUP. The first signal sets the process-wide cancel
/// request that every calculation polls (TMCC::RequestProcessCancel) and aborts the saves under way (their
/// temporaries go, the old files stay); while that request is pending, a further signal restores the
/// previous disposition and raises the signal again. Calling it twice does nothing.
void InstallCalculationCancelHandler();
/// Puts back the dispositions that were there before.
void UninstallCalculationCancelHandler();
