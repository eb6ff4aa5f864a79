// Progress of a calculation on the command line: one redrawn line on stderr when it is a terminal.
#pragma once

#include "common/threads/Progressview.h"

#include <cstdio>
#include <string>

/// Draws caption, bar, percentage, elapsed and remaining time on one line that is redrawn in place,
/// at most every 100 ms; draws nothing when the stream isn't a terminal (or when told so).
class TConsoleProgressView : public IProgressView {
public:
  enum class TMode { Auto, Always, Never }; ///< Auto: draw when the stream is a terminal

  explicit TConsoleProgressView(std::FILE* stream = stderr, TMode mode = TMode::Auto, int width = 30);

  void Open(const TProgressSnapshot& snapshot) override;
  void Update(const TProgressSnapshot& snapshot) override;
  void Close() override;
  bool CancelRequested() const override { return false; } // Ctrl-C goes through the process cancel request
  void KeepAlive() override {}

  /// The line drawn for snapshot, without the leading carriage return.
  std::string FormatLine(const TProgressSnapshot& snapshot) const;
  bool IsDrawing() const { return FDrawing; }

private:
  void Draw(const TProgressSnapshot& snapshot);

  std::FILE* FStream;
  bool FDrawing;
  int FWidth;
  bool FOpen = false;
  double FLastDrawSeconds = -1;
  std::size_t FLastLength = 0;
};
