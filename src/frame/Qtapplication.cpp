// The workbench's application object.
#include "frame/Qtapplication.h"

#include "common/Exceptionhandling.h"
#include "common/MainThreadQueue.h"
#include "common/threads/Multicorecalc.h"
#include "frame/Qtmessages.h"
#include "project/Orvexapplication.h"

#include <QMessageBox>
#include <QPointer>

namespace {

void ShowExceptionRecord(TOrvexSEHInfo* info) {
  QMessageBox box(QMessageBox::Critical, "Exception", "An error occurred. The work goes on; details below.",
                  QMessageBox::Ok, QApplication::activeWindow());
  box.setObjectName("ExceptionViewer");
  box.setDetailedText(QString::fromStdString(ComposeExceptionWindowText(info)));
  box.setInformativeText(info && !info->ExceptionStrings.empty()
                             ? QString::fromStdString(info->ExceptionStrings.front())
                             : QString());
  box.exec();
}

} // namespace

TOrvexQtApplication::TOrvexQtApplication(int& argc, char** argv) : QApplication(argc, argv) {
  setApplicationName("Orvex Project");
  setApplicationDisplayName("Orvex Project");
  SetUIFont();
}

TOrvexQtApplication::~TOrvexQtApplication() {
  RemoveServices();
}

void TOrvexQtApplication::SetUIFont() {
  QFont font = QApplication::font();
  font.setPointSize(9);
  QApplication::setFont(font);
}

bool TOrvexQtApplication::notify(QObject* receiver, QEvent* event) {
  try {
    return QApplication::notify(receiver, event);
  } catch (...) {
    std::unique_ptr<TOrvexSEHInfo> info = CreateOrvexSEHInfoFromCurrentException();
    TOrvexApplication::OnOrvexException(info.get());
    return false;
  }
}

void TOrvexQtApplication::InstallServices() {
  auto& queue = TMainThreadQueue::Instance();
  queue.SetMainThread();
  QPointer<TOrvexQtApplication> self(this);
  queue.SetWakeUpCallback([self] {
    if (!self) return;
    QMetaObject::invokeMethod(
        self.data(), [] { TMainThreadQueue::Instance().ProcessPending(); }, Qt::QueuedConnection);
  });
  TOrvexApplication::ExceptionViewer = &ShowExceptionRecord;
  FProgressView = std::make_unique<TQtProgressView>();
  TMCC::SetDefaultProgressView(FProgressView.get());
}

void TOrvexQtApplication::RemoveServices() {
  if (!FProgressView) return;
  TMainThreadQueue::Instance().SetWakeUpCallback(nullptr);
  TOrvexApplication::ExceptionViewer = nullptr;
  if (TMCC::GetDefaultProgressView() == FProgressView.get()) TMCC::SetDefaultProgressView(nullptr);
  FProgressView.reset();
}
