// The window side of a calculation's progress display: what the progress form shows, and the
// interface through which the graphical and the command-line front ends show it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// One bar of the progress display with its text ("42 %", "Step 3 of 10").
struct TProgressBarState {
  bool Visible = false;
  std::string Caption;
  std::string Text = "0 %";
  std::int64_t Position = 0;
  std::int64_t Maximum = 1;
};

/// Everything the progress form shows at one moment.
struct TProgressSnapshot {
  std::string Caption;
  TProgressBarState Overall;
  TProgressBarState Sub;
  std::vector<TProgressBarState> Threads; ///< one bar a thread, when thread progress is shown
  bool ShowTimes = false;
  std::string ElapsedText = "0 s";
  std::string RemainingText = "N/A";
  double ElapsedSeconds = 0;
  bool ShowCancelButton = false;
};

/// Shows the progress of a running calculation. The calculation controller drives it from the
/// waiting thread: Open once, Update at every tick, Close at the end. No method is called from a
/// calculation thread.
class IProgressView {
public:
  virtual ~IProgressView() = default;
  virtual void Open(const TProgressSnapshot& snapshot) = 0;
  virtual void Update(const TProgressSnapshot& snapshot) = 0;
  virtual void Close() = 0;
  /// True once the user asked to cancel (cancel button, closing the window).
  virtual bool CancelRequested() const = 0;
  /// Lets the front end breathe between ticks (pump the event loop in the GUI; nothing on a console).
  virtual void KeepAlive() = 0;
};
