// Start of every command's work: messages, threads, progress display and Ctrl-C.
#include "CliCommon.h"
#include "common/Exceptionhandling.h"
#include "common/MainThreadQueue.h"
#include "common/Standardmessage.h"
#include "common/threads/Cancelsignal.h"
#include "common/threads/ConsoleProgressView.h"
#include "common/threads/Multicorecalc.h"
#include "data/Registerdata.h"

#include <memory>

namespace orvexcli {
void StartRuntime(CliContext& ctx) {
  if (ctx.Started) return;
  ctx.Started = true;
  TMainThreadQueue::Instance().SetMainThread();
  InstallOrvexExceptionHandlers();

  TMessageProxy* proxy = TMessageProxy::MsgProxySingleton();
  if (ctx.AnswerYes)
    proxy->SetMessagingStrategy(new TContinueAllMessages_MessagingStrategy());
  else if (ctx.AnswerNo)
    proxy->SetMessagingStrategy(new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerNo));
  else
    proxy->SetMessagingStrategy(new TConsoleMessagingStrategy());

  if (ctx.Threads > 0) TMCC::SetProcessThreadLimit(ctx.Threads);
  static TConsoleProgressView progressView;
  TMCC::SetDefaultProgressView(&progressView);
  // Ctrl-C cancels the running calculation; a second one ends the program.
  TMCC::ClearProcessCancelRequest();
  InstallCalculationCancelHandler();
  StartMemoryStrategyForRun(ctx);

  RegisterDataClasses();
}

bool CancelRequested() {
  return TMCC::ProcessCancelRequested();
}

} // namespace orvexcli
