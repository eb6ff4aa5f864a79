// Helpers of the workbench tests: answering modal boxes as a user would, waiting for events, screenshots.
#pragma once

#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "tools/Registertools.h"
#include "viewers/Viewershow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QPushButton>
#include <QString>
#include <QTimer>
#include <QWidget>
#include <functional>
#include <string>
#include <vector>

namespace oxframetest {

/// Watches for modal windows while the test runs; each one found is handed to the handler, which
/// answers it (clicks a button) and returns true, or returns false to leave it for a later look.
class TModalWatcher {
public:
  explicit TModalWatcher(std::function<bool(QWidget*)> handler) : FHandler(std::move(handler)) {
    FTimer.setInterval(20);
    QObject::connect(&FTimer, &QTimer::timeout, [this] {
      QWidget* modal = QApplication::activeModalWidget();
      if (modal && modal->isVisible() && FHandler(modal)) ++Handled;
    });
    FTimer.start();
  }
  int Handled = 0;

private:
  std::function<bool(QWidget*)> FHandler;
  QTimer FTimer;
};

/// Serves events until done() or about ten seconds passed; the result of done().
inline bool WaitFor(const std::function<bool()>& done, int maxMs = 10000) {
  QElapsedTimer timer;
  timer.start();
  while (!done() && timer.elapsed() < maxMs) QApplication::processEvents(QEventLoop::AllEvents, 20);
  return done();
}

/// The push button of window with the caption text, null when there is none.
inline QPushButton* ButtonOf(QWidget& window, const QString& text) {
  for (QPushButton* button : window.findChildren<QPushButton*>())
    if (button->text() == text) return button;
  return nullptr;
}

/// Registers the data classes, viewers and tools, and fills project with the demo data set: a map of
/// sizeX × sizeY spectra of sizeGraph points.
inline TDemoIDs CreateWorkbenchDemo(TProject& project, int32_t sizeX, int32_t sizeY, int32_t sizeGraph = 1024,
                                    uint64_t seed = 1) {
  RegisterDataClasses();
  RegisterViewers();
  RegisterAllTools();
  TDemoOptions options;
  options.SizeX = sizeX;
  options.SizeY = sizeY;
  options.SizeGraph = sizeGraph;
  options.Seed = seed;
  return CreateDemoProject(project, options);
}

} // namespace oxframetest
