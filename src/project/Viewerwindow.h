// The screen side of a viewer: where its window stands and what the window can be told. The workbench
// implements the window with its toolkit; without one (command line, tests) a viewer has no window and
// keeps its placement for the file.
#pragma once

#include <cstdint>
#include <string>

/// Placement of a viewer's window. ShowCommand: 1 normal, 2 minimised, 3 maximised. The minimised and
/// maximised positions are -1 (the desktop places them). Window* is the normal frame rectangle in
/// virtual-screen pixels; Right and Bottom lie one past the last pixel.
struct TWindowPlacement {
  static constexpr int32_t kShowNormal = 1;
  static constexpr int32_t kShowMinimized = 2;
  static constexpr int32_t kShowMaximized = 3;

  int32_t ShowCommand = kShowNormal;
  int32_t MinimumPositionX = -1;
  int32_t MinimumPositionY = -1;
  int32_t MaximumPositionX = -1;
  int32_t MaximumPositionY = -1;
  int32_t WindowLeft = 0;
  int32_t WindowTop = 0;
  int32_t WindowRight = 400;
  int32_t WindowBottom = 300;

  int32_t Width() const { return WindowRight - WindowLeft; }
  int32_t Height() const { return WindowBottom - WindowTop; }
  bool operator==(const TWindowPlacement&) const = default;
};

/// A viewer's window, as the toolkit-free viewer drives it.
class IViewerWindow {
public:
  virtual ~IViewerWindow() = default;
  /// Shows the window; with activate it takes the focus.
  virtual void ShowViewerWindow(bool activate) = 0;
  virtual void HideViewerWindow() = 0;
  virtual void SetViewerCaption(const std::string& caption) = 0;
  virtual TWindowPlacement GetViewerPlacement() const = 0;
  virtual void SetViewerPlacement(const TWindowPlacement& placement) = 0;
  /// Asks for a repaint from the viewer's state; never paints at once.
  virtual void RequestRedraw() = 0;
  /// Asks the window to close; the viewer's CloseQuery decides.
  virtual void CloseViewerWindow() = 0;
  /// Greys the window's close command while false.
  virtual void SetCloseEnabled(bool enabled) = 0;
  /// The viewer is being destroyed: the window must not touch it any more and goes as well.
  virtual void ViewerDestroyed() = 0;
};
