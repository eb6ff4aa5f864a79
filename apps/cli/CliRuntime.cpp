// Start of every command's work: messages, threads, progress display and Ctrl-C.
#include <csignal>
#include <memory>

#include "CliCommon.h"
#include "common/Exceptionhandling.h"
#include "common/MainThreadQueue.h"
#include "common/Standardmessage.h"
#include "common/threads/ConsoleProgressView.h"
#include "common/threads/Multicorecalc.h"
#include "data/Registerdata.h"

namespace orvexcli {
namespace {

// Ctrl-C cancels the running calculation; a second Ctrl-C ends the program at once.
extern "C" void OnInterrupt(int) {
  if (TMCC::ProcessCancelRequested()) {
    std::signal(SIGINT, SIG_DFL);
    std::raise(SIGINT);
    return;
  }
  TMCC::RequestProcessCancel();
}

} // namespace

void StartRuntime(CliContext& ctx) {
  if (ctx.Started)
    return;
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

  if (ctx.Threads > 0)
    TMCC::SetProcessThreadLimit(ctx.Threads);
  static TConsoleProgressView progressView;
  TMCC::SetDefaultProgressView(&progressView);
  TMCC::ClearProcessCancelRequest();
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);

  RegisterDataClasses();
}

bool CancelRequested() { return TMCC::ProcessCancelRequested(); }

} // namespace orvexcli
