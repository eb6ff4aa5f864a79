// Boxes of worker threads shown by the main thread, queued one after the other, with the answer going back
// to the worker; the progress dialog whose Cancel stops a calculation so that it adds nothing.
#include "FrameTestSupport.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "frame/Qtapplication.h"
#include "frame/Qtmessages.h"
#include "project/Project.h"

#include <QAbstractButton>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

namespace {

using oxframetest::TModalWatcher;
using oxframetest::WaitFor;

TStandardMessageAnswer AskYesNo(const std::string& text) {
  auto* message = TBlockingMultipleChoiceMessage::CreateAndInit_YesNo(text, "Worker", kSeverityQuestion,
                                                                      kProgressionInterrupt);
  std::unique_ptr<IStandardMessageReply> reply(
      TMessageProxy::MsgProxySingleton()->IssueMessage(message, false));
  return reply ? reply->GetAnswer().first : -1;
}

TEST(WorkerMessageTest, WorkersBoxIsShownByTheMainThreadAndAnswersTheWorker) {
  std::atomic<TStandardMessageAnswer> answer{0};
  std::thread::id boxThread;
  std::vector<std::string> texts;
  TModalWatcher watcher([&](QWidget* modal) {
    auto* box = qobject_cast<QMessageBox*>(modal);
    if (!box) return false;
    boxThread = std::this_thread::get_id();
    texts.push_back(box->text().toStdString());
    box->button(QMessageBox::No)->click();
    return true;
  });
  std::thread worker([&] { answer = AskYesNo("Continue the worker?"); });
  EXPECT_TRUE(WaitFor([&] { return answer.load() != 0; }));
  worker.join();
  EXPECT_EQ(answer.load(), kAnswerNo);
  EXPECT_EQ(boxThread, std::this_thread::get_id());
  EXPECT_EQ(texts, std::vector<std::string>{"Continue the worker?"});
}

TEST(WorkerMessageTest, BoxesOfSeveralThreadsComeOneAfterTheOther) {
  constexpr int kWorkers = 3;
  std::atomic<int> done{0};
  std::vector<TStandardMessageAnswer> answers(kWorkers, 0);
  int maxOpen = 0;
  std::vector<std::string> texts;
  TModalWatcher watcher([&](QWidget* modal) {
    auto* box = qobject_cast<QMessageBox*>(modal);
    if (!box) return false;
    int open = 0;
    for (QWidget* w : QApplication::topLevelWidgets())
      if (qobject_cast<QMessageBox*>(w) && w->isVisible()) ++open;
    maxOpen = std::max(maxOpen, open);
    texts.push_back(box->text().toStdString());
    // Even workers hear Yes, odd ones No.
    const bool even = (box->text().back().digitValue() % 2) == 0;
    box->button(even ? QMessageBox::Yes : QMessageBox::No)->click();
    return true;
  });
  std::vector<std::thread> workers;
  for (int i = 0; i < kWorkers; ++i)
    workers.emplace_back([&, i] {
      answers[static_cast<size_t>(i)] = AskYesNo("Worker " + std::to_string(i));
      ++done;
    });
  EXPECT_TRUE(WaitFor([&] { return done.load() == kWorkers; }));
  for (auto& w : workers) w.join();
  EXPECT_EQ(maxOpen, 1);
  EXPECT_EQ(texts.size(), static_cast<size_t>(kWorkers));
  for (int i = 0; i < kWorkers; ++i)
    EXPECT_EQ(answers[static_cast<size_t>(i)], i % 2 == 0 ? kAnswerYes : kAnswerNo);
}

TEST(ProgressDialogTest, CancelInTheProgressDialogAddsNothing) {
  RegisterDataClasses();
  TProject project;
  auto* view = static_cast<TOrvexQtApplication*>(QApplication::instance())->ProgressView();
  ASSERT_TRUE(view);
  bool dialogSeen = false;
  TModalWatcher watcher([&](QWidget*) {
    QDialog* dialog = view->Dialog();
    if (!dialog || !dialog->isVisible()) return false;
    dialogSeen = true;
    view->CancelButton()->click();
    return true;
  });
  // A calculation that makes a result object only when it ran to its end.
  std::atomic<int> steps{0};
  TMCC mcc("Slow result");
  mcc.ShowCancelButton = true;
  mcc.MCCInit(
      [&steps](TMCC* m, int) {
        for (int i = 0; i < 2000 && !m->GetCancel(); ++i) {
          std::this_thread::sleep_for(std::chrono::milliseconds(5));
          ++steps;
        }
      },
      nullptr, 0);
  mcc.StartThreads(2);
  mcc.WaitAndShowProgressOnDelay(100);
  if (!mcc.GetCancel()) {
    auto text = std::make_unique<TDText>();
    text->SetID(project.GetNewDataID());
    project.AddData(std::move(text));
  }
  EXPECT_TRUE(dialogSeen);
  EXPECT_TRUE(mcc.GetCancel());
  EXPECT_LT(steps.load(), 2 * 2000);
  EXPECT_TRUE(project.DataList().empty());
  EXPECT_FALSE(view->Dialog()); // closed again
}

} // namespace
