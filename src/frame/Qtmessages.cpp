// Message boxes and the progress dialog of the workbench.
#include "frame/Qtmessages.h"

#include "common/MainThreadQueue.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace {

QPointer<QWidget> BoxParent;

QMessageBox::StandardButton ButtonOf(TStandardMessageAnswer answer) {
  switch (answer) {
  case kAnswerOk:
    return QMessageBox::Ok;
  case kAnswerCancel:
    return QMessageBox::Cancel;
  case kAnswerYes:
    return QMessageBox::Yes;
  case kAnswerNo:
    return QMessageBox::No;
  default:
    return QMessageBox::NoButton;
  }
}

QMessageBox::Icon IconOf(TMessageBoxIcon icon) {
  switch (icon) {
  case TMessageBoxIcon::Question:
    return QMessageBox::Question;
  case TMessageBoxIcon::Exclamation:
    return QMessageBox::Warning;
  case TMessageBoxIcon::Hand:
    return QMessageBox::Critical;
  case TMessageBoxIcon::Information:
    break;
  }
  return QMessageBox::Information;
}

TStandardMessageAnswer ShowOnMainThread(const TMessageBoxLayout& layout) {
  QMessageBox box(IconOf(layout.Icon), QString::fromStdString(layout.Caption),
                  QString::fromStdString(layout.Text), QMessageBox::NoButton, BoxParent.data());
  for (TStandardMessageAnswer answer : layout.ButtonAnswers) box.addButton(ButtonOf(answer));
  if (!layout.ButtonAnswers.empty()) box.setDefaultButton(ButtonOf(layout.DefaultAnswer()));
  // Escape and the close button answer Cancel where there is one, else the default.
  const bool hasCancel = std::find(layout.ButtonAnswers.begin(), layout.ButtonAnswers.end(), kAnswerCancel) !=
                         layout.ButtonAnswers.end();
  if (hasCancel) box.setEscapeButton(QMessageBox::Cancel);
  box.exec();
  QAbstractButton* clicked = box.clickedButton();
  for (TStandardMessageAnswer answer : layout.ButtonAnswers)
    if (clicked && box.standardButton(clicked) == ButtonOf(answer)) return answer;
  return hasCancel ? kAnswerCancel : layout.DefaultAnswer();
}

} // namespace

TStandardMessageAnswer ShowQtMessageBox(const TMessageBoxLayout& layout) {
  auto& queue = TMainThreadQueue::Instance();
  if (queue.IsMainThread() || !queue.HasMainThread()) return ShowOnMainThread(layout);
  TStandardMessageAnswer answer = layout.ButtonAnswers.empty() ? kAnswerOk : layout.DefaultAnswer();
  queue.Send([&] { answer = ShowOnMainThread(layout); });
  return answer;
}

IMessagingStrategy* CreateQtMessagingStrategy() {
  return new TShowWindowMessage_MessagingStrategy(&ShowQtMessageBox);
}

void SetMessageBoxParent(QWidget* parent) {
  BoxParent = parent;
}

// ---------------------------------------------------------------------------------------------
// Progress dialog

namespace {

// A dialog whose close button counts as Cancel.
class TProgressDialog : public QDialog {
public:
  explicit TProgressDialog(std::atomic<bool>* cancel) : QDialog(BoxParent.data()), FCancel(cancel) {}

protected:
  void closeEvent(QCloseEvent* event) override {
    FCancel->store(true);
    event->ignore();
  }
  void reject() override { FCancel->store(true); }

private:
  std::atomic<bool>* FCancel;
};

void ShowBar(QProgressBar* bar, const TProgressBarState& state) {
  bar->setVisible(state.Visible);
  const double maximum = static_cast<double>(std::max<std::int64_t>(1, state.Maximum));
  bar->setRange(0, 1000);
  bar->setValue(static_cast<int>(1000.0 * static_cast<double>(state.Position) / maximum));
  bar->setFormat(QString::fromStdString(state.Text));
}

} // namespace

TQtProgressView::TQtProgressView() = default;
TQtProgressView::~TQtProgressView() = default;

void TQtProgressView::Show(const TProgressSnapshot& snapshot) {
  if (!FDialog) {
    FDialog = std::make_unique<TProgressDialog>(&FCancel);
    FDialog->setWindowTitle("Progress");
    FDialog->setWindowModality(Qt::ApplicationModal);
    auto* layout = new QVBoxLayout(FDialog.get());
    FCaption = new QLabel(FDialog.get());
    FOverall = new QProgressBar(FDialog.get());
    FSub = new QProgressBar(FDialog.get());
    FTimes = new QLabel(FDialog.get());
    FCancelButton = new QPushButton("Cancel", FDialog.get());
    QObject::connect(FCancelButton, &QPushButton::clicked, [this] {
      FCancel.store(true);
      FCancelButton->setEnabled(false);
    });
    layout->addWidget(FCaption);
    layout->addWidget(FOverall);
    layout->addWidget(FSub);
    auto* row = new QHBoxLayout;
    row->addWidget(FTimes, 1);
    row->addWidget(FCancelButton);
    layout->addLayout(row);
    FDialog->resize(420, FDialog->sizeHint().height());
  }
  FCaption->setText(QString::fromStdString(snapshot.Caption));
  ShowBar(FOverall, snapshot.Overall);
  ShowBar(FSub, snapshot.Sub);
  FTimes->setVisible(snapshot.ShowTimes);
  FTimes->setText(
      QString::fromStdString("Elapsed " + snapshot.ElapsedText + ", remaining " + snapshot.RemainingText));
  FCancelButton->setVisible(snapshot.ShowCancelButton);
}

void TQtProgressView::Open(const TProgressSnapshot& snapshot) {
  FCancel.store(false);
  Show(snapshot);
  FCancelButton->setEnabled(true);
  FDialog->show();
  FOpen = true;
}

void TQtProgressView::Update(const TProgressSnapshot& snapshot) {
  if (FOpen) Show(snapshot);
}

void TQtProgressView::Close() {
  if (FDialog) FDialog->hide();
  FOpen = false;
}

void TQtProgressView::KeepAlive() {
  // The modal dialog keeps user input from the other windows while their events are served.
  QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

QDialog* TQtProgressView::Dialog() const {
  return FOpen ? FDialog.get() : nullptr;
}

QPushButton* TQtProgressView::CancelButton() const {
  return FCancelButton;
}
