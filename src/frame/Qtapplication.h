// The workbench's application object: exceptions that leave an event handler go to the application's
// exception handling and work goes on; the main-thread queue is drained from the Qt event loop; boxes,
// the exception viewer and the progress dialog are put in place.
#pragma once

#include <QApplication>
#include <memory>

class TQtProgressView;

class TOrvexQtApplication : public QApplication {
public:
  TOrvexQtApplication(int& argc, char** argv);
  ~TOrvexQtApplication() override;

  /// Catches what an event handler throws: the record goes to TOrvexApplication::OnOrvexException.
  bool notify(QObject* receiver, QEvent* event) override;

  /// Names this thread the main thread of the queue and wakes the event loop when work arrives; sets the
  /// exception viewer and the default progress view of calculations.
  void InstallServices();
  /// Undoes InstallServices (before the application object goes).
  void RemoveServices();
  TQtProgressView* ProgressView() const { return FProgressView.get(); }

  /// The desktop's font at 9 pt.
  static void SetUIFont();

private:
  std::unique_ptr<TQtProgressView> FProgressView;
};
