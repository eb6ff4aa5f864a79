// Console progress bar of the command line.
#include "common/threads/ConsoleProgressView.h"

#include <algorithm>

#include <unistd.h>

TConsoleProgressView::TConsoleProgressView(std::FILE* stream, TMode mode, int width)
    : FStream(stream), FWidth(std::max(5, width)) {
  switch (mode) {
  case TMode::Always:
    FDrawing = true;
    break;
  case TMode::Never:
    FDrawing = false;
    break;
  default:
    FDrawing = stream && ::isatty(::fileno(stream)) == 1;
    break;
  }
}

std::string TConsoleProgressView::FormatLine(const TProgressSnapshot& snapshot) const {
  const TProgressBarState& bar = snapshot.Overall;
  std::string line = snapshot.Caption;
  if (!bar.Caption.empty()) line += ": " + bar.Caption;
  const std::int64_t maximum = std::max<std::int64_t>(1, bar.Maximum);
  const std::int64_t position = std::clamp<std::int64_t>(bar.Position, 0, maximum);
  const int filled = static_cast<int>(position * FWidth / maximum);
  line += " [" + std::string(filled, '#') + std::string(FWidth - filled, '.') + "] " + bar.Text;
  // The part within the current step (one large object of a project, say).
  if (snapshot.Sub.Visible && snapshot.Sub.Maximum > 0)
    line +=
        " (" + (snapshot.Sub.Caption.empty() ? std::string("step") : snapshot.Sub.Caption) + " " +
        std::to_string(std::clamp<std::int64_t>(snapshot.Sub.Position * 100 / snapshot.Sub.Maximum, 0, 100)) +
        " %)";
  line += "  elapsed " + snapshot.ElapsedText;
  line += "  remaining " + snapshot.RemainingText;
  return line;
}

void TConsoleProgressView::Draw(const TProgressSnapshot& snapshot) {
  const std::string line = FormatLine(snapshot);
  // Pad with blanks over the rest of a longer previous line.
  const std::size_t pad = FLastLength > line.size() ? FLastLength - line.size() : 0;
  std::fprintf(FStream, "\r%s%s", line.c_str(), std::string(pad, ' ').c_str());
  std::fflush(FStream);
  FLastLength = line.size();
  FLastDrawSeconds = snapshot.ElapsedSeconds;
}

void TConsoleProgressView::Open(const TProgressSnapshot& snapshot) {
  FOpen = true;
  FLastLength = 0;
  if (FDrawing) Draw(snapshot);
}

void TConsoleProgressView::Update(const TProgressSnapshot& snapshot) {
  if (!FOpen || !FDrawing) return;
  if (snapshot.ElapsedSeconds - FLastDrawSeconds < 0.1) return;
  Draw(snapshot);
}

void TConsoleProgressView::Close() {
  if (FOpen && FDrawing) {
    // Clear the line so that the next output starts clean.
    std::fprintf(FStream, "\r%s\r", std::string(FLastLength, ' ').c_str());
    std::fflush(FStream);
  }
  FOpen = false;
}
