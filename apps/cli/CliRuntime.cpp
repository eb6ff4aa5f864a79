// Start of every command's work: the application comes up headless on its real start-up path (folders,
// memory strategy, options, log, message strategy, registries), with Ctrl-C as cancel of the running
// calculation; it goes down again when the command is done.
#include "CliCommon.h"
#include "common/Safewrite.h"
#include "common/threads/Cancelsignal.h"
#include "common/threads/ConsoleProgressView.h"
#include "common/threads/Multicorecalc.h"
#include "project/Orvexapplication.h"
#include "tools/Registertools.h"
#include "viewers/Viewershow.h"

namespace orvexcli {

void StartRuntime(CliContext& ctx) {
  if (ctx.Started) return;
  ctx.Started = true;
  TOrvexApplicationOptions options;
  options.MessageStrategy = ctx.AnswerYes  ? TApplicationMessageStrategy::AnswerYes
                            : ctx.AnswerNo ? TApplicationMessageStrategy::AnswerNo
                                           : TApplicationMessageStrategy::Console;
  options.ThreadLimit = ctx.Threads;
  static TConsoleProgressView progressView;
  options.ProgressView = &progressView;
  options.MemoryOverride = {ctx.Memory, ctx.MmfDir, ctx.MmfSizeGB, ctx.MapSizeMB};
  // The command line may run many times at once: no single-instance guard.
  options.SingleInstance = false;
  options.RegisterViewers = &RegisterViewers;
  options.RegisterTools = &RegisterAllTools;
  const TStartResult result = TOrvexApplication::InitializeApplication(options);
  if (result != TStartResult::Started) {
    TOrvexApplication::CleanupApplication();
    throw CliError(result == TStartResult::BadOptions ? kExitUsage : kExitFailure,
                   TOrvexApplication::LastStartError());
  }
  TMCC::ClearProcessCancelRequest();
  ResetSafeWriteAbort();
  InstallCalculationCancelHandler();
}

void StopRuntime(CliContext& ctx) {
  if (!ctx.Started) return;
  ctx.Started = false;
  TOrvexApplication::CleanupApplication();
}

bool CancelRequested() {
  return TMCC::ProcessCancelRequested();
}

} // namespace orvexcli
