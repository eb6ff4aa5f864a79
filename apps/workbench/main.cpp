// orvex-project [FILE]: the workbench. Without a display it says so in one line and ends with 2 before the
// window toolkit is touched; --version and --help need no display. With --export-view it draws one viewer
// of a project offscreen into a picture and ends without a window.
#include "common/MainThreadQueue.h"
#include "frame/Mainwindow.h"
#include "frame/Offscreenview.h"
#include "frame/Projectmanager.h"
#include "frame/Qtapplication.h"
#include "frame/Qtmessages.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qttoolwindow.h"
#include "project/Orvexapplication.h"
#include "tools/Registertools.h"
#include "viewers/Vgraphic.h"
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
              "  --version   the program's version\n"
              "  --export-view INDEX [--size WxH] -o OUT.png FILE\n"
              "              draws viewer INDEX of project FILE (as 'orvex info' lists them) offscreen at\n"
              "              WxH pixels (default 800x600) into a picture and ends; exit 1 when INDEX is no\n"
              "              viewer that draws a scene\n\n"
              "Needs a display (DISPLAY or WAYLAND_DISPLAY); the command line 'orvex' works without one.\n");
}

/// What --export-view asks for.
struct TExportViewRequest {
  bool Active = false;
  long Index = -1;
  int Width = 800;
  int Height = 600;
  std::string Out;
};

bool ParseSize(const std::string& text, int& width, int& height) {
  const size_t x = text.find('x');
  if (x == std::string::npos) return false;
  try {
    size_t used = 0;
    const int w = std::stoi(text.substr(0, x), &used);
    if (used != x) return false;
    const std::string rest = text.substr(x + 1);
    const int h = std::stoi(rest, &used);
    if (used != rest.size() || w < 1 || h < 1 || w > 16384 || h > 16384) return false;
    width = w;
    height = h;
    return true;
  } catch (...) {
    return false;
  }
}

/// Loads the project, draws the viewer offscreen and writes the picture. 0 on success, 1 on failure.
int RunExportView(const TExportViewRequest& request, const std::string& file) {
  // No progress window and no questions: the picture is made quietly, calculations wait on this thread.
  TMainThreadQueue::Instance().SetMainThread();
  TOrvexApplicationOptions options;
  options.MessageStrategy = TApplicationMessageStrategy::AnswerYes;
  options.SingleInstance = false; // a picture doesn't need the running workbench, nor disturbs it
  options.RegisterViewers = &RegisterViewers;
  options.RegisterTools = &RegisterAllTools;
  if (TOrvexApplication::InitializeApplication(options) != TStartResult::Started) {
    std::fprintf(stderr, "orvex-project: %s\n", TOrvexApplication::LastStartError().c_str());
    TOrvexApplication::CleanupApplication();
    return 1;
  }
  int exitCode = 1;
  {
    TProject project;
    const TTagError loaded = project.LoadProjectFromFile(file);
    TVCustomForm* viewer =
        loaded >= 1 && request.Index >= 0 ? project.GetViewer(static_cast<size_t>(request.Index)) : nullptr;
    auto* graphic = dynamic_cast<TVCustomGraphicForm*>(viewer);
    std::string error;
    if (loaded < 1) {
      std::fprintf(stderr, "orvex-project: can't open project %s (error %d)\n", file.c_str(), int(loaded));
    } else if (!graphic) {
      std::fprintf(stderr, "orvex-project: viewer %ld of %s is %s\n", request.Index, file.c_str(),
                   viewer ? ("a " + viewer->GetClassNameA() + ", which draws no scene").c_str()
                          : "not there");
    } else if (!ExportViewOffscreen(graphic->GetOpenGLView(), request.Width, request.Height, request.Out,
                                    error)) {
      std::fprintf(stderr, "orvex-project: %s\n", error.c_str());
    } else {
      exitCode = 0;
    }
  }
  TOrvexApplication::CleanupApplication();
  return exitCode;
}

} // namespace

int main(int argc, char** argv) {
  std::string file;
  TExportViewRequest exportView;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--export-view" || arg == "--size" || arg == "-o") {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "orvex-project: %s needs a value (see --help)\n", arg.c_str());
        return 2;
      }
      const std::string value = argv[++i];
      if (arg == "--export-view") {
        exportView.Active = true;
        char* end = nullptr;
        exportView.Index = std::strtol(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || exportView.Index < 0) {
          std::fprintf(stderr, "orvex-project: --export-view wants a viewer index, got \"%s\"\n",
                       value.c_str());
          return 2;
        }
      } else if (arg == "--size") {
        if (!ParseSize(value, exportView.Width, exportView.Height)) {
          std::fprintf(stderr, "orvex-project: --size wants WxH (1 to 16384 each), got \"%s\"\n",
                       value.c_str());
          return 2;
        }
      } else {
        exportView.Out = value;
      }
      continue;
    }
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
  if (exportView.Active && (exportView.Out.empty() || file.empty())) {
    std::fprintf(stderr, "orvex-project: --export-view needs -o OUT and a project FILE\n");
    return 2;
  }
  if (!exportView.Active && !exportView.Out.empty()) {
    std::fprintf(stderr, "orvex-project: -o and --size belong to --export-view\n");
    return 2;
  }
  const char* display = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if ((!display || !*display) && (!wayland || !*wayland)) {
    std::fprintf(stderr, "orvex-project: no display (neither DISPLAY nor WAYLAND_DISPLAY is set); the "
                         "command line 'orvex' works without one\n");
    return 2;
  }

  // Every window's rendering context is of one format (compatibility profile, depth 24, stencil 8, no
  // multisampling), set before the first window exists.
  QSurfaceFormat::setDefaultFormat(OpenGLViewSurfaceFormat());
  TOrvexQtApplication app(argc, argv);
  if (exportView.Active) return RunExportView(exportView, file);
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
