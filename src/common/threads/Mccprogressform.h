// The progress form of a multi-core calculation, without its window: the timer tick that turns the
// controller's figures into texts and bars, the time estimate, closing and cancelling.
#pragma once

#include "common/threads/Progressview.h"

#include <array>
#include <cstdint>
#include <string>

/// Which parts of the progress display a calculation wants, read at every tick.
struct TProgressLayout {
  bool ShowOverall = true;
  bool ShowSub = false;
  bool ShowTimes = false;
  bool ShowCancelButton = false;
  bool OverallInSteps = false;
  bool SubInSteps = false;
  /// Bars of the thread section; 0 hides it.
  int ThreadBars = 0;
};

/// What the progress form reads of the calculation it shows, and the two things it may do to it:
/// wait for its end and cancel it. TMCC implements it; the form knows nothing else of the controller.
class IMCCProgressSource {
public:
  virtual const std::string& GetName() const = 0;
  virtual TProgressLayout GetProgressLayout() const = 0;
  virtual std::int64_t GetOverallProgress() const = 0;
  virtual std::int64_t GetOverallProgressMax() const = 0;
  virtual std::int64_t GetSubProgress() const = 0;
  virtual std::int64_t GetSubProgressMax() const = 0;
  virtual std::string GetProgressMainCaption() = 0;
  virtual std::string GetProgressSubCaption() = 0;
  /// The figures of one thread's bar; both 0 for a thread that doesn't exist.
  virtual void GetThreadProgress(int threadIndex, std::int64_t& position, std::int64_t& maximum) const = 0;
  /// True when the threads have finished; then throws the calculation's stored error, if any.
  virtual bool WaitForThreads(unsigned long milliseconds) = 0;
  /// Waits up to milliseconds for the end, keeping the main thread's queue served; throws nothing.
  virtual bool WaitForThreadsFinished(unsigned long milliseconds) = 0;
  virtual void CancelThreads() = 0;

protected:
  ~IMCCProgressSource() = default;
};

/// Shows a running calculation through an IProgressView (none: just waits) until its threads have
/// finished. Ticks every 30 ms on the waiting thread, which meanwhile serves the main-thread queue.
class TMCCProgressForm {
public:
  /// Interval of the update timer in milliseconds.
  static constexpr int TimerIntervalMs = 30;

  /// An empty caption shows the calculation's name.
  TMCCProgressForm(IMCCProgressSource* mcc, const std::string& caption, IProgressView* view);

  /// Opens the view and ticks until the threads have finished. An error of the calculation closes
  /// the view and is thrown as OrvexException around it.
  void ShowModal();
  /// One timer tick at elapsedSeconds since the form was shown. With checkFinished, asks whether the
  /// threads have finished (may throw as ShowModal); returns true when they have.
  bool Tick(double elapsedSeconds, bool checkFinished = true);
  /// A close request: refused (false) until the calculation has finished; with the cancel button
  /// shown it cancels the calculation.
  bool CloseQuery();
  const TProgressSnapshot& Snapshot() const { return FSnapshot; }

  /// "12 s", "3 min 05 s", "2 h 07 min".
  static std::string SecondsToTimeString(double seconds);

private:
  void FillBar(TProgressBarState& bar, std::int64_t p, std::int64_t m, bool inSteps);
  void UpdateTimeEstimate(std::int64_t p, std::int64_t m, double secondsSinceLastTick);

  IMCCProgressSource* FMCC;
  IProgressView* FView;
  TProgressSnapshot FSnapshot;
  bool FClosePermitted = false;
  double FLastTickSeconds = 0;
  std::int64_t FLastProgress = 0;
  double FSecondsSinceProgress = 0;
  std::array<double, 30> FSecondsPerStep{};
  std::int64_t FWriteCounter = 0;
};
