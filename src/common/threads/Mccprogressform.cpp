// Progress form logic of a multi-core calculation.
#include "common/threads/Mccprogressform.h"

#include "common/OrvexException.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>

TMCCProgressForm::TMCCProgressForm(IMCCProgressSource* mcc, const std::string& caption, IProgressView* view)
    : FMCC(mcc), FView(view) {
  FSnapshot.Caption = caption.empty() ? mcc->GetName() : caption;
  const TProgressLayout layout = mcc->GetProgressLayout();
  FSnapshot.Overall.Visible = layout.ShowOverall;
  FSnapshot.Sub.Visible = layout.ShowSub;
  FSnapshot.ShowTimes = layout.ShowTimes;
  FSnapshot.ShowCancelButton = layout.ShowCancelButton;
  FSnapshot.Threads.resize(static_cast<std::size_t>(std::max(0, layout.ThreadBars)));
  for (auto& bar : FSnapshot.Threads) bar.Visible = true;
}

std::string TMCCProgressForm::SecondsToTimeString(double seconds) {
  const long long total = seconds > 0 ? static_cast<long long>(seconds + 0.5) : 0;
  char text[64];
  if (total < 60)
    std::snprintf(text, sizeof(text), "%lld s", total);
  else if (total < 3600)
    std::snprintf(text, sizeof(text), "%lld min %02lld s", total / 60, total % 60);
  else
    std::snprintf(text, sizeof(text), "%lld h %02lld min", total / 3600, (total % 3600) / 60);
  return text;
}

void TMCCProgressForm::FillBar(TProgressBarState& bar, std::int64_t p, std::int64_t m, bool inSteps) {
  if (!inSteps) {
    if (m <= 0) m = 1;
    p = std::clamp<std::int64_t>(p, 0, m);
    bar.Maximum = m;
    bar.Position = p;
    bar.Text = std::to_string(p * 100 / m) + " %";
    return;
  }
  bar.Text = "Step " + std::to_string(p);
  if (m != 0) bar.Text += " of " + std::to_string(m);
  if (m > 0 && p >= 0 && p <= m) {
    bar.Maximum = m;
    bar.Position = p;
  } else {
    // Without a known end the bar keeps moving.
    bar.Maximum = 100;
    bar.Position = p >= 0 ? p % 100 : 0;
  }
}

void TMCCProgressForm::UpdateTimeEstimate(std::int64_t p, std::int64_t m, double secondsSinceLastTick) {
  FSecondsSinceProgress += secondsSinceLastTick;
  if (p > 0 && p != FLastProgress) {
    const std::int64_t increase = p - FLastProgress;
    if (increase > 0) {
      FSecondsPerStep[FWriteCounter % FSecondsPerStep.size()] =
          FSecondsSinceProgress / static_cast<double>(increase);
      ++FWriteCounter;
      FSecondsSinceProgress = 0;
      const std::int64_t count = std::min<std::int64_t>(FWriteCounter, FSecondsPerStep.size());
      double sum = 0;
      for (std::int64_t i = 0; i < count; ++i) sum += FSecondsPerStep[i];
      const double estimate =
          static_cast<double>(std::max<std::int64_t>(0, m - p)) * sum / static_cast<double>(count);
      // Shown every tenth change only, so that the text doesn't flicker.
      if (FWriteCounter % 10 == 0) FSnapshot.RemainingText = SecondsToTimeString(estimate);
    } else {
      FSecondsSinceProgress = 0; // progress went back: a new stage begins
    }
  }
  FLastProgress = p;
}

bool TMCCProgressForm::Tick(double elapsedSeconds, bool checkFinished) {
  FSnapshot.ElapsedSeconds = elapsedSeconds;
  FSnapshot.ElapsedText = SecondsToTimeString(elapsedSeconds);
  const double sinceLastTick = std::max(0.0, elapsedSeconds - FLastTickSeconds);
  FLastTickSeconds = elapsedSeconds;

  const TProgressLayout layout = FMCC->GetProgressLayout();
  const std::int64_t p = FMCC->GetOverallProgress();
  const std::int64_t m = FMCC->GetOverallProgressMax();
  if (!layout.OverallInSteps) {
    UpdateTimeEstimate(p, m, sinceLastTick);
    FillBar(FSnapshot.Overall, p, m, false);
  } else {
    FillBar(FSnapshot.Overall, p, m, true);
    FSnapshot.RemainingText = "N/A";
  }
  FSnapshot.Overall.Caption = FMCC->GetProgressMainCaption();

  if (layout.ShowSub) {
    FillBar(FSnapshot.Sub, FMCC->GetSubProgress(), FMCC->GetSubProgressMax(), layout.SubInSteps);
    FSnapshot.Sub.Caption = FMCC->GetProgressSubCaption();
  }

  for (std::size_t i = 0; i < FSnapshot.Threads.size(); ++i) {
    std::int64_t pos = 0, max = 0;
    FMCC->GetThreadProgress(static_cast<int>(i), pos, max);
    max = std::max<std::int64_t>(1, max);
    pos = std::clamp<std::int64_t>(pos, 0, max);
    auto& bar = FSnapshot.Threads[i];
    bar.Maximum = max;
    bar.Position = pos;
    bar.Text = std::to_string(pos * 100 / max) + " %";
  }

  if (!checkFinished) return false;
  try {
    if (FMCC->WaitForThreads(0)) {
      FClosePermitted = true;
      return true;
    }
  } catch (const Exception& e) {
    FClosePermitted = true;
    throw OrvexException(
        "TMCCProgressForm::ProgressUpdateTimerTimer(): MCC->WaitForThreads() threw exception", e);
  }
  return false;
}

bool TMCCProgressForm::CloseQuery() {
  if (FClosePermitted) return true;
  if (FSnapshot.ShowCancelButton) FMCC->CancelThreads();
  return false;
}

void TMCCProgressForm::ShowModal() {
  const auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  Tick(0, false);
  if (FView) FView->Open(FSnapshot);
  try {
    for (;;) {
      FMCC->WaitForThreadsFinished(TimerIntervalMs);
      if (FView && FView->CancelRequested()) CloseQuery();
      const bool finished = Tick(elapsed());
      if (FView) {
        FView->Update(FSnapshot);
        FView->KeepAlive();
      }
      if (finished) break;
    }
  } catch (...) {
    if (FView) FView->Close();
    throw;
  }
  if (FView) FView->Close();
}
