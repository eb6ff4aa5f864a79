// orvex-project [FILE]: the workbench. Without a display it says so in one line and ends with 2 before the
// window toolkit is touched; --version and --help need no display.
#include "frame/Mainwindow.h"
#include "frame/Projectmanager.h"
#include "frame/Qtapplication.h"
#include "frame/Qtmessages.h"
#include "frame/Qttoolwindow.h"
#include "project/Orvexapplication.h"
#include "tools/Registertools.h"
#include "viewers/Viewershow.h"

#include <QPointer>
#include <QSocketNotifier>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

namespace {

int SignalPipe[2] = {-1, -1};

void OnTerminationSignal(int signal) {
  const char byte = static_cast<char>(signal);
  if (SignalPipe[1] >= 0) (void)!write(SignalPipe[1], &byte, 1);
}

void PrintHelp() {
  std::printf("Usage: orvex-project [FILE]\n\n"
              "The Orvex Project workbench. FILE may be a project (.oxp), which is opened, or a data file\n"
              "(.oxd), whose objects are appended. A second start hands FILE to the running workbench.\n\n"
              "  --help      this text\n"
              "  --version   the program's version\n\n"
              "Needs a display (DISPLAY or WAYLAND_DISPLAY); the command line 'orvex' works without one.\n");
}

} // namespace

int main(int argc, char** argv) {
  std::string file;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--version") {
      std::printf("orvex-project %s\n", ORVEX_VERSION_STRING);
      return 0;
    }
    if (arg == "--help" || arg == "-h") {
      PrintHelp();
      return 0;
    }
    if (!arg.empty() && arg[0] == '-') {
      std::fprintf(stderr, "orvex-project: unknown option %s (see --help)\n", arg.c_str());
      return 2;
    }
    if (!file.empty()) {
      std::fprintf(stderr, "orvex-project: only one file may be given\n");
      return 2;
    }
    file = arg;
  }
  const char* display = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if ((!display || !*display) && (!wayland || !*wayland)) {
    std::fprintf(stderr, "orvex-project: no display (neither DISPLAY nor WAYLAND_DISPLAY is set); the "
                         "command line 'orvex' works without one\n");
    return 2;
  }

  TOrvexQtApplication app(argc, argv);
  app.InstallServices();

  QPointer<TOrvexMainWindow> mainWindow;
  TOrvexApplicationOptions options;
  options.MessageStrategy = TApplicationMessageStrategy::Custom;
  options.CustomStrategy = &CreateQtMessagingStrategy;
  options.SingleInstance = true;
  options.EmptyTemporaryFolder = true;
  options.ProgressView = app.ProgressView();
  options.RegisterViewers = &RegisterViewers;
  options.RegisterTools = &RegisterAllTools;
  // The file of the command line: opened at the end of the start; a second start hands it to the first.
  options.CommandLineFile = file;
  options.OnFileFromLaterStart = [&mainWindow](const std::string& fileName) {
    if (mainWindow) mainWindow->OpenFile(fileName, false);
  };
  options.OnBringToFront = [&mainWindow] {
    if (!mainWindow) return;
    mainWindow->showNormal();
    mainWindow->raise();
    mainWindow->activateWindow();
  };
  const TStartResult result = TOrvexApplication::InitializeApplication(options);
  if (result != TStartResult::Started) {
    TOrvexApplication::CleanupApplication();
    app.RemoveServices();
    return result == TStartResult::SecondInstance ? 0 : 1;
  }

  int exitCode = 0;
  {
    TOrvexMainWindow window(*TOrvexApplication::ActionForm(), TOrvexApplication::SessionID());
    mainWindow = &window;
    SetMessageBoxParent(&window);
    // The Tools menu: every registered tool, opened on the project manager's selection.
    TQtToolHost::Instance().RegisterMenuEntries([] { return &TOrvexApplication::ActionForm()->Project(); },
                                                [&window] { return window.ProjectManager()->SelectedIDs(); });
    window.show();

    // Termination signals: a recovery copy of a changed project, then a shutdown without questions.
    std::unique_ptr<QSocketNotifier> notifier;
    if (pipe(SignalPipe) == 0) {
      notifier = std::make_unique<QSocketNotifier>(SignalPipe[0], QSocketNotifier::Read);
      QObject::connect(notifier.get(), &QSocketNotifier::activated, &window, [&window] {
        char byte = 0;
        (void)!read(SignalPipe[0], &byte, 1);
        window.ShutdownWithoutQuestions();
      });
      for (int s : {SIGTERM, SIGINT, SIGHUP}) std::signal(s, &OnTerminationSignal);
    }

    window.OfferRecoveryCopies();
    exitCode = app.exec();
    for (int s : {SIGTERM, SIGINT, SIGHUP}) std::signal(s, SIG_DFL);
    TQtToolHost::Instance().CloseAll();
    SetMessageBoxParent(nullptr);
    mainWindow = nullptr;
  }
  TOrvexApplication::CleanupApplication();
  app.RemoveServices();
  return exitCode;
}
