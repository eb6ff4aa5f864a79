// The window of a viewer: a top-level window transient for the main window, with the viewer's view (a text
// view, or the rendering widget of a viewer that draws a scene) and its settings panel; it takes dropped
// object IDs for the viewer.
#pragma once

#include "project/Viewerwindow.h"

#include <QWidget>
#include <functional>

class TVCustomForm;
class TQtParamPanel;
class TQtOpenGLWidget;
class TQtFilterViewerPanel;
class QPlainTextEdit;
class QLabel;
class QGroupBox;
class QTimer;
class TVMultiGraphForm;
class TQtGraphMaskToolBar;
class QToolButton;

class TQtViewerWindow : public QWidget, public IViewerWindow {
public:
  /// A window for viewer, owned by Qt (parent: the main window, as a separate top-level window).
  TQtViewerWindow(TVCustomForm* viewer, QWidget* mainWindow);
  ~TQtViewerWindow() override;

  TVCustomForm* Viewer() const { return FViewer; }
  /// The rendering widget of a viewer that draws a scene (IOpenGLViewOwner); null for others.
  TQtOpenGLWidget* OpenGLWidget() const { return FGLWidget; }
  /// The line under the view with the viewer's status text (graph viewer), null for others.
  QLabel* StatusLabel() const { return FStatus; }
  /// The graph viewer's "Peak Find Options" panel, shown while its peak finder is on; null for others.
  QGroupBox* PeakPanel() const { return FPeakBox; }
  TQtParamPanel* PeakParamPanel() const { return FPeakPanel; }
  /// The mask toolbar over the graph viewer's mask tool, shown while a mask is drawn; null for others.
  TQtGraphMaskToolBar* MaskToolBar() const { return FMaskBar; }

  // IViewerWindow
  void ShowViewerWindow(bool activate) override;
  void HideViewerWindow() override;
  void SetViewerCaption(const std::string& caption) override;
  TWindowPlacement GetViewerPlacement() const override;
  void SetViewerPlacement(const TWindowPlacement& placement) override;
  void RequestRedraw() override;
  void CloseViewerWindow() override;
  void SetCloseEnabled(bool enabled) override;
  void ViewerDestroyed() override;

  /// Called when the viewer is to be freed after its window closed (the main window releases it).
  std::function<void(TVCustomForm*)> OnFreeViewer;
  /// Called when the viewer was destroyed (the window goes as well).
  std::function<void(TVCustomForm*)> OnViewerGone;
  /// The window that shows viewer, null when it has none.
  static TQtViewerWindow* WindowOf(const TVCustomForm* viewer);
  /// Parses dropped IDs of this session; empty when the drop isn't ours.
  static std::function<std::vector<int32_t>(const class QMimeData*)> DecodeIDs;

protected:
  void closeEvent(QCloseEvent* event) override;
  void changeEvent(QEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

private:
  void UpdateView();
  /// Width of the window frame on each side (0 before the window manager framed it).
  QMargins FrameMargins() const;

  TVCustomForm* FViewer;
  QPlainTextEdit* FText = nullptr;
  TQtOpenGLWidget* FGLWidget = nullptr;
  TQtParamPanel* FPanel = nullptr;
  TQtFilterViewerPanel* FFilterPanel = nullptr;
  TVMultiGraphForm* FGraphViewer = nullptr;
  QLabel* FStatus = nullptr;
  QGroupBox* FPeakBox = nullptr;
  QLabel* FPeakCaption = nullptr; ///< "Peak Options (" + graph name + ")"
  TQtParamPanel* FPeakPanel = nullptr;
  TQtGraphMaskToolBar* FMaskBar = nullptr;
  QToolButton* FMaskErase = nullptr;
  QWidget* FMaskRow = nullptr;
  /// Drives the graph viewer's x zoom movement while it runs.
  QTimer* FAnimationTimer = nullptr;
};
