// Progress display of a calculation: the form's tick, the delayed view, cancel from the view, errors
// after the delay, and the console line.
#include "common/threads/ConsoleProgressView.h"
#include "common/threads/Mccprogressform.h"
#include "common/threads/Multicorecalc.h"

#include <atomic>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace {

/// Records what the controller shows; the calculation may wait until the view is open.
class TRecordingView : public IProgressView {
public:
  void Open(const TProgressSnapshot& s) override {
    ++Opens;
    Last = s;
    Opened.store(true);
  }
  void Update(const TProgressSnapshot& s) override {
    ++Updates;
    Last = s;
  }
  void Close() override { ++Closes; }
  bool CancelRequested() const override { return Cancel.load(); }
  void KeepAlive() override {}

  int Opens = 0, Updates = 0, Closes = 0;
  TProgressSnapshot Last;
  std::atomic<bool> Opened{false};
  std::atomic<bool> Cancel{false};
};

} // namespace

TEST(MccProgressForm, TimeTexts) {
  EXPECT_EQ(TMCCProgressForm::SecondsToTimeString(0), "0 s");
  EXPECT_EQ(TMCCProgressForm::SecondsToTimeString(59.4), "59 s");
  EXPECT_EQ(TMCCProgressForm::SecondsToTimeString(90), "1 min 30 s");
  EXPECT_EQ(TMCCProgressForm::SecondsToTimeString(7325), "2 h 02 min");
  EXPECT_EQ(TMCCProgressForm::SecondsToTimeString(-3), "0 s");
}

TEST(MccProgressForm, PercentStepsAndClamping) {
  TMCC mcc("figures");
  TMCCProgressForm form(&mcc, "", nullptr);
  EXPECT_EQ(form.Snapshot().Caption, "figures");
  mcc.OverallProgressMax = 200;
  mcc.OverallProgress = 50;
  form.Tick(1, false);
  EXPECT_EQ(form.Snapshot().Overall.Text, "25 %");
  EXPECT_EQ(form.Snapshot().ElapsedText, "1 s");
  mcc.OverallProgress = 500; // past the end
  form.Tick(2, false);
  EXPECT_EQ(form.Snapshot().Overall.Text, "100 %");
  EXPECT_EQ(form.Snapshot().Overall.Position, 200);
  mcc.OverallProgressMax = 0; // no end known: counts as 1
  mcc.OverallProgress = -4;
  form.Tick(3, false);
  EXPECT_EQ(form.Snapshot().Overall.Text, "0 %");

  mcc.OverallProgressInSteps = true;
  mcc.OverallProgress = 3;
  mcc.OverallProgressMax = 10;
  form.Tick(4, false);
  EXPECT_EQ(form.Snapshot().Overall.Text, "Step 3 of 10");
  EXPECT_EQ(form.Snapshot().RemainingText, "N/A");
  mcc.OverallProgressMax = 0;
  mcc.OverallProgress = 250;
  form.Tick(5, false);
  EXPECT_EQ(form.Snapshot().Overall.Text, "Step 250");
  EXPECT_EQ(form.Snapshot().Overall.Position, 50) << "an open-ended bar keeps moving";

  mcc.SetProgressMainCaption("Fitting");
  form.Tick(6, false);
  EXPECT_EQ(form.Snapshot().Overall.Caption, "Fitting");
}

TEST(MccProgressForm, RemainingTimeFromTheLastThirtyChangesShownEveryTenth) {
  TMCC mcc("estimate");
  mcc.ShowTimeRemaining = true;
  TMCCProgressForm form(&mcc, "caption", nullptr);
  EXPECT_EQ(form.Snapshot().Caption, "caption");
  mcc.OverallProgressMax = 1000;
  // One element per second for nine changes: no estimate shown yet.
  for (int i = 1; i <= 9; ++i) {
    mcc.OverallProgress = i;
    form.Tick(i, false);
    EXPECT_EQ(form.Snapshot().RemainingText, "N/A") << i;
  }
  mcc.OverallProgress = 10;
  form.Tick(10, false);
  EXPECT_EQ(form.Snapshot().RemainingText, "16 min 30 s"); // 990 elements at 1 s
  // Ticks without change don't count as changes, but their time does.
  mcc.OverallProgress = 10;
  form.Tick(11, false);
  for (int i = 11; i <= 20; ++i) {
    mcc.OverallProgress = i;
    form.Tick(i + 1, false);
  }
  // Changes: ten at 1 s, then 2 s for element 11, then nine at 1 s → average 21/20 s for 980 left.
  EXPECT_EQ(form.Snapshot().RemainingText, TMCCProgressForm::SecondsToTimeString(980 * 21.0 / 20.0));
}

TEST(MccProgressForm, ThreadBarsOnlyWithSeveralProcessors) {
  TMCC mcc("bars");
  mcc.ShowThreadProgress = true;
  mcc.MCCInit(
      [](TMCC* m, int t) {
        m->ThreadProgressMax[t] = 4;
        m->ThreadProgress[t] = t + 1;
      },
      nullptr, 0);
  mcc.StartThreadsWait(0);
  TMCCProgressForm form(&mcc, "", nullptr);
  EXPECT_TRUE(form.Tick(1, true));
  if (mcc.GetNumberOfPossibleCPUs() < 2) {
    EXPECT_TRUE(form.Snapshot().Threads.empty());
    return;
  }
  ASSERT_EQ(form.Snapshot().Threads.size(), static_cast<std::size_t>(mcc.GetNumberOfThreads()));
  EXPECT_EQ(form.Snapshot().Threads[0].Text, "25 %");
  EXPECT_EQ(form.Snapshot().Threads[1].Text, "50 %");
}

TEST(MccProgressForm, CloseIsRefusedWhileRunningAndCancelsWithTheButton) {
  TMCC mcc("closing");
  std::atomic<bool> release{false};
  mcc.MCCInit(
      [&](TMCC* m, int) {
        while (!release.load() && !m->GetCancel()) std::this_thread::yield();
      },
      nullptr, 0);
  mcc.StartThreads(1);
  TMCCProgressForm form(&mcc, "", nullptr);
  EXPECT_FALSE(form.CloseQuery());
  EXPECT_FALSE(mcc.GetCancel()) << "no cancel button, no cancel";
  mcc.ShowCancelButton = true;
  TMCCProgressForm withButton(&mcc, "", nullptr);
  EXPECT_FALSE(withButton.CloseQuery());
  EXPECT_TRUE(mcc.GetCancel());
  mcc.WaitForThreads(kWaitInfinite);
  EXPECT_TRUE(withButton.Tick(1, true));
  EXPECT_TRUE(withButton.CloseQuery());
}

TEST(MccWaitAndShowProgress, ShortCalculationShowsNoView) {
  TRecordingView view;
  TMCC mcc("short");
  mcc.SetProgressView(&view);
  mcc.MCCInit([](TMCC*, int) {}, nullptr, 0);
  mcc.StartThreads(0);
  // The threads finish without waiting for anything: within any delay at all.
  EXPECT_TRUE(mcc.WaitAndShowProgressOnDelay(60'000));
  EXPECT_EQ(view.Opens, 0);
  EXPECT_EQ(view.Closes, 0);
}

TEST(MccWaitAndShowProgress, LongCalculationShowsTheViewUntilItEnds) {
  TRecordingView view;
  TMCC mcc("long");
  mcc.SetProgressView(&view);
  mcc.MCCInit(
      [&](TMCC* m, int t) {
        if (t == 0) m->OverallProgressMax = 4;
        while (!view.Opened.load()) // runs until the view has appeared
          std::this_thread::yield();
        if (t == 0) m->OverallProgress = 4;
      },
      nullptr, 0);
  mcc.StartThreads(0);
  EXPECT_TRUE(mcc.WaitAndShowProgressOnDelay(0));
  EXPECT_EQ(view.Opens, 1);
  EXPECT_EQ(view.Closes, 1);
  EXPECT_GE(view.Updates, 1);
  EXPECT_EQ(view.Last.Overall.Text, "100 %");
  EXPECT_EQ(view.Last.Caption, "long");
}

TEST(MccWaitAndShowProgress, CancelFromTheViewEndsTheCalculation) {
  TRecordingView view;
  view.Cancel = true;
  TMCC mcc("cancelled by user");
  mcc.ShowCancelButton = true;
  mcc.SetProgressView(&view);
  mcc.MCCInit(
      [](TMCC* m, int) {
        while (!m->GetCancel()) std::this_thread::yield();
      },
      nullptr, 0);
  mcc.StartThreads(0);
  EXPECT_TRUE(mcc.WaitAndShowProgressOnDelay(0));
  EXPECT_TRUE(mcc.GetCancel());
  EXPECT_EQ(view.Closes, 1);
}

TEST(MccWaitAndShowProgress, ErrorAfterTheDelayClosesTheViewAndIsWrapped) {
  TRecordingView view;
  TMCC mcc("late failure");
  mcc.SetProgressView(&view);
  mcc.MCCInit(
      [&](TMCC*, int t) {
        while (!view.Opened.load()) std::this_thread::yield();
        if (t == 0) throw OrvexException("late");
      },
      nullptr, 0);
  mcc.StartThreads(0);
  int thrown = 0;
  try {
    mcc.WaitAndShowProgressOnDelay(0);
  } catch (const OrvexExceptionMCC&) {
    ADD_FAILURE() << "after the delay the error comes wrapped";
  } catch (const OrvexException& e) {
    ++thrown;
    EXPECT_EQ(e.Message(),
              "TMCCProgressForm::ProgressUpdateTimerTimer(): MCC->WaitForThreads() threw exception");
    EXPECT_TRUE(
        ExceptionHistoryContainsString(e, "MCC-Thread Exception in \"late failure\" (ThreadIndex = 0)"));
    EXPECT_TRUE(ExceptionHistoryContainsString(e, "late"));
  }
  EXPECT_EQ(thrown, 1);
  EXPECT_EQ(view.Closes, 1);
  EXPECT_TRUE(mcc.WaitForThreads(0));
}

TEST(ConsoleProgressView, LineAndSilenceWithoutTerminal) {
  std::FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  TProgressSnapshot s;
  s.Caption = "PCA";
  s.Overall.Caption = "Eigenvectors";
  s.Overall.Position = 5;
  s.Overall.Maximum = 10;
  s.Overall.Text = "50 %";
  s.ElapsedText = "3 s";
  s.RemainingText = "3 s";

  TConsoleProgressView drawing(file, TConsoleProgressView::TMode::Always, 10);
  EXPECT_EQ(drawing.FormatLine(s), "PCA: Eigenvectors [#####.....] 50 %  elapsed 3 s  remaining 3 s");
  drawing.Open(s);
  drawing.Close();
  TConsoleProgressView automatic(file); // a file is no terminal
  EXPECT_FALSE(automatic.IsDrawing());
  automatic.Open(s);
  automatic.Update(s);
  automatic.Close();

  std::rewind(file);
  std::string written;
  for (int c; (c = std::fgetc(file)) != EOF;) written += static_cast<char>(c);
  std::fclose(file);
  const std::string line = drawing.FormatLine(s);
  EXPECT_EQ(written, "\r" + line + "\r" + std::string(line.size(), ' ') + "\r");
}

TEST(MccProgressChannel, OverallAndSubLevelsWriteTheirOwnFiguresAndCaptions) {
  TMCC mcc("channel");
  IProgressAndCancel& overall = mcc;
  overall.SetProgressCaption("Loading Project Data");
  overall.SetProgress(3, 10);
  overall.AddProgress(2);
  IProgressAndCancel& sub = overall.SubLevel();
  ASSERT_NE(&sub, &overall);
  sub.SetProgressCaption("Raman Map");
  sub.SetProgress(40, 400);
  sub.AddProgress(10);
  EXPECT_EQ(mcc.GetOverallProgress(), 5);
  EXPECT_EQ(mcc.GetOverallProgressMax(), 10);
  EXPECT_EQ(mcc.GetSubProgress(), 50);
  EXPECT_EQ(mcc.GetSubProgressMax(), 400);
  EXPECT_EQ(mcc.GetProgressMainCaption(), "Loading Project Data");
  EXPECT_EQ(mcc.GetProgressSubCaption(), "Raman Map");
  // Cancel reaches both levels, and so does the process-wide request.
  EXPECT_FALSE(overall.IsCancelled());
  EXPECT_FALSE(sub.IsCancelled());
  mcc.CancelThreads();
  EXPECT_TRUE(overall.IsCancelled());
  EXPECT_TRUE(sub.IsCancelled());
  mcc.StopCancel();
  TMCC::RequestProcessCancel();
  EXPECT_TRUE(sub.IsCancelled());
  TMCC::ClearProcessCancelRequest();
  EXPECT_FALSE(sub.IsCancelled());
}

TEST(MccProgressChannel, ThreadsAddingAtOnceLoseNothing) {
  TMCC mcc("adders");
  mcc.MCCInit(
      [](TMCC* m, int) {
        for (int i = 0; i < 1000; ++i) static_cast<IProgressAndCancel*>(m)->AddProgress(1);
      },
      nullptr, 0);
  mcc.StartThreadsWait(0);
  EXPECT_EQ(mcc.GetOverallProgress(), 1000 * mcc.GetNumberOfThreads());
}
