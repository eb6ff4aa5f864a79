// Ctrl-C for the command line: the first interrupt cancels the running calculations, a second one
// ends the process as usual.
#pragma once

/// Installs the SIGINT handler. The first SIGINT sets the process-wide cancel request that every
/// calculation polls (TMCC::RequestProcessCancel); while that request is pending, a further SIGINT
/// restores the previous disposition and raises the signal again. Calling it twice does nothing.
void InstallCalculationCancelHandler();
/// Puts back the SIGINT disposition that was there before.
void UninstallCalculationCancelHandler();
