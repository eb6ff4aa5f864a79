// Message boxes and the progress dialog of the workbench, for the message proxy and the calculation
// controller; callable from any thread (boxes of other threads are shown by the main thread).
#pragma once

#include "common/Standardmessage.h"
#include "common/threads/Progressview.h"

#include <atomic>
#include <memory>

class QWidget;
class QDialog;
class QLabel;
class QProgressBar;
class QPushButton;

/// Shows a message box for layout and returns the answer of the button pressed. On another thread the box
/// is shown by the main thread and this thread waits for the answer.
TStandardMessageAnswer ShowQtMessageBox(const TMessageBoxLayout& layout);
/// The message strategy of the workbench: blocking messages as message boxes.
IMessagingStrategy* CreateQtMessagingStrategy();
/// The window boxes are placed over (null: none).
void SetMessageBoxParent(QWidget* parent);

/// The progress dialog with Cancel. Driven by the waiting (main) thread; KeepAlive pumps the event loop
/// while the dialog, being application-modal, keeps input from other windows.
class TQtProgressView : public IProgressView {
public:
  TQtProgressView();
  ~TQtProgressView() override;
  void Open(const TProgressSnapshot& snapshot) override;
  void Update(const TProgressSnapshot& snapshot) override;
  void Close() override;
  bool CancelRequested() const override { return FCancel.load(); }
  void KeepAlive() override;
  /// The dialog while open, null otherwise (tests press its Cancel).
  QDialog* Dialog() const;
  QPushButton* CancelButton() const;

private:
  void Show(const TProgressSnapshot& snapshot);

  std::unique_ptr<QDialog> FDialog;
  QLabel* FCaption = nullptr;
  QLabel* FTimes = nullptr;
  QProgressBar* FOverall = nullptr;
  QProgressBar* FSub = nullptr;
  QPushButton* FCancelButton = nullptr;
  std::atomic<bool> FCancel{false};
  bool FOpen = false;
};
