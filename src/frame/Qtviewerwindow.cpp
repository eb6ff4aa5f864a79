// The window of a viewer.
#include "frame/Qtviewerwindow.h"

#include "frame/Qtfilterviewer.h"
#include "frame/Qtgraphmasktoolbar.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qtparampanel.h"
#include "opengl/Openglview.h"
#include "project/Project.h"
#include "viewers/Vfilter.h"
#include "viewers/Vmultigraph.h"
#include "viewers/Vtext.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFont>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QScreen>
#include <QScrollArea>
#include <QSplitter>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>
#include <QWindow>

std::function<std::vector<int32_t>(const QMimeData*)> TQtViewerWindow::DecodeIDs;

TQtViewerWindow* TQtViewerWindow::WindowOf(const TVCustomForm* viewer) {
  if (!viewer) return nullptr;
  for (QWidget* widget : QApplication::topLevelWidgets())
    if (auto* window = dynamic_cast<TQtViewerWindow*>(widget); window && window->Viewer() == viewer)
      return window;
  return nullptr;
}

TQtViewerWindow::TQtViewerWindow(TVCustomForm* viewer, QWidget* mainWindow)
    : QWidget(mainWindow, Qt::Window), FViewer(viewer) {
  setAttribute(Qt::WA_DeleteOnClose, false);
  setAcceptDrops(true);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  auto* splitter = new QSplitter(Qt::Horizontal, this);
  layout->addWidget(splitter);
  if (dynamic_cast<TVTextForm*>(viewer)) {
    FText = new QPlainTextEdit(splitter);
    FText->setReadOnly(true);
    FText->setObjectName("TextView");
  } else if (auto* owner = dynamic_cast<IOpenGLViewOwner*>(viewer)) {
    // A graphic viewer draws its scene in a rendering widget.
    FGLWidget = new TQtOpenGLWidget(&owner->GetOpenGLView(), splitter);
    FGLWidget->setObjectName("OpenGLView");
  } else if (auto* filters = dynamic_cast<TVFilterForm*>(viewer)) {
    FFilterPanel = new TQtFilterViewerPanel(*filters, splitter);
  } else {
    auto* label = new QLabel(QString::fromStdString(viewer->GetClassNameA()), splitter);
    label->setAlignment(Qt::AlignCenter);
  }
  if (TUserParameterAdministrator* cfi = viewer->GetCFI(); cfi && !cfi->GetParameters().empty()) {
    FPanel = new TQtParamPanel(*cfi, splitter);
    FPanel->setObjectName("SettingsPanel");
    splitter->setStretchFactor(0, 1);
  }
  FGraphViewer = dynamic_cast<TVMultiGraphForm*>(viewer);
  if (FGraphViewer) {
    // The peak finder's panel beside the settings, shown while the finder is on.
    FPeakBox = new QGroupBox("Peak Find Options", splitter);
    FPeakBox->setObjectName("PeakFindOptions");
    auto* peakLayout = new QVBoxLayout(FPeakBox);
    peakLayout->setContentsMargins(4, 4, 4, 4);
    FPeakCaption = new QLabel(FPeakBox);
    FPeakCaption->setObjectName("PeakOptionsCaption");
    peakLayout->addWidget(FPeakCaption);
    auto* scroll = new QScrollArea(FPeakBox);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    FPeakPanel = new TQtParamPanel(*FGraphViewer->GetPeakCFI(), scroll);
    FPeakPanel->setObjectName("PeakFindOptionsPanel");
    scroll->setWidget(FPeakPanel);
    peakLayout->addWidget(scroll);
    FPeakBox->setMinimumWidth(330);
    FPeakBox->setVisible(false);
    // Over the view, while a mask is drawn: the mask's commands and the erase toggle.
    FMaskRow = new QWidget(this);
    auto* maskLayout = new QHBoxLayout(FMaskRow);
    maskLayout->setContentsMargins(4, 2, 4, 2);
    FMaskBar = new TQtGraphMaskToolBar(FMaskRow, nullptr, 0);
    maskLayout->addWidget(FMaskBar, 1);
    FMaskErase = new QToolButton(FMaskRow);
    FMaskErase->setObjectName("MaskErase");
    FMaskErase->setText("Erase");
    FMaskErase->setToolTip("Dragging clears mask points instead of setting them");
    FMaskErase->setCheckable(true);
    maskLayout->addWidget(FMaskErase);
    connect(FMaskErase, &QToolButton::toggled, this, [this](bool on) {
      if (FViewer && FGraphViewer) FGraphViewer->SetMaskErase(on);
    });
    layout->insertWidget(0, FMaskRow);
    FMaskRow->setVisible(false);
    // The status text under the view.
    FStatus = new QLabel(this);
    FStatus->setObjectName("StatusLabel");
    FStatus->setTextInteractionFlags(Qt::TextSelectableByMouse);
    FStatus->setContentsMargins(6, 2, 6, 2);
    layout->addWidget(FStatus);
    FAnimationTimer = new QTimer(this);
    FAnimationTimer->setInterval(15);
    connect(FAnimationTimer, &QTimer::timeout, this, [this] {
      if (FViewer && FGraphViewer && FGraphViewer->IsXZoomAnimating())
        FGraphViewer->AnimationTimerTimer();
      else
        FAnimationTimer->stop();
    });
  }
  viewer->AttachWindow(this);
  UpdateView();
}

TQtViewerWindow::~TQtViewerWindow() {
  if (FAnimationTimer) FAnimationTimer->stop();
  if (FGLWidget) FGLWidget->DetachView();
  if (FViewer) FViewer->AttachWindow(nullptr);
}

void TQtViewerWindow::UpdateView() {
  if (!FViewer) return;
  if (auto* text = dynamic_cast<TVTextForm*>(FViewer); text && FText) {
    if (FText->toPlainText().toStdString() != text->GetDisplayText())
      FText->setPlainText(QString::fromStdString(text->GetDisplayText()));
    FText->setLineWrapMode(text->GetWordWrap() ? QPlainTextEdit::WidgetWidth : QPlainTextEdit::NoWrap);
    QFont font = FText->font();
    font.setPointSize(text->GetFontSize());
    FText->setFont(font);
  }
  if (FFilterPanel) FFilterPanel->Refresh();
  if (FPanel) FPanel->Refresh();
  if (FGraphViewer) {
    const QString status = QString::fromStdString(FGraphViewer->GetStatusText());
    if (FStatus->text() != status) FStatus->setText(status);
    const bool peaks = FGraphViewer->GetPeakLabels();
    if (FPeakBox->isHidden() == peaks) FPeakBox->setVisible(peaks);
    if (peaks) {
      const QString caption = QString::fromStdString(FGraphViewer->GetPeakPanelCaption());
      if (FPeakCaption->text() != caption) FPeakCaption->setText(caption);
      FPeakPanel->Refresh();
    }
    if (FGraphViewer->IsXZoomAnimating() && !FAnimationTimer->isActive()) FAnimationTimer->start();
    TGraphMask* mask = FGraphViewer->GetMaskTool();
    if (FMaskBar->Logic().GetGraphMask() != mask)
      FMaskBar->SetGraphMask(mask, mask ? mask->GetCurrentMaskIndex() : 0);
    if (mask) FMaskBar->Logic().SetProject(FViewer->GetProject());
    if (FMaskRow->isHidden() == (mask != nullptr)) FMaskRow->setVisible(mask != nullptr);
    if (FMaskErase->isChecked() != FGraphViewer->GetMaskErase())
      FMaskErase->setChecked(FGraphViewer->GetMaskErase());
  }
}

void TQtViewerWindow::ShowViewerWindow(bool activate) {
  if (!activate) setAttribute(Qt::WA_ShowWithoutActivating, true);
  show();
  setAttribute(Qt::WA_ShowWithoutActivating, false);
  if (activate) {
    raise();
    activateWindow();
  }
}

void TQtViewerWindow::HideViewerWindow() {
  hide();
}

void TQtViewerWindow::SetViewerCaption(const std::string& caption) {
  setWindowTitle(QString::fromStdString(caption));
}

QMargins TQtViewerWindow::FrameMargins() const {
  const QRect frame = frameGeometry();
  const QRect inner = geometry();
  return QMargins(inner.left() - frame.left(), inner.top() - frame.top(), frame.right() - inner.right(),
                  frame.bottom() - inner.bottom());
}

TWindowPlacement TQtViewerWindow::GetViewerPlacement() const {
  TWindowPlacement p;
  p.ShowCommand = isMinimized()   ? TWindowPlacement::kShowMinimized
                  : isMaximized() ? TWindowPlacement::kShowMaximized
                                  : TWindowPlacement::kShowNormal;
  // The placement holds the normal rectangle with the window frame.
  const QRect inner = (isMinimized() || isMaximized()) ? normalGeometry() : geometry();
  const QRect normal = inner.marginsAdded(FrameMargins());
  p.WindowLeft = normal.left();
  p.WindowTop = normal.top();
  p.WindowRight = normal.left() + normal.width();
  p.WindowBottom = normal.top() + normal.height();
  return p;
}

void TQtViewerWindow::SetViewerPlacement(const TWindowPlacement& placement) {
  const QMargins frame = FrameMargins();
  if (isMaximized() || isMinimized()) showNormal();
  setGeometry(placement.WindowLeft + frame.left(), placement.WindowTop + frame.top(),
              std::max(1, placement.Width() - frame.left() - frame.right()),
              std::max(1, placement.Height() - frame.top() - frame.bottom()));
  if (placement.ShowCommand == TWindowPlacement::kShowMaximized)
    setWindowState(Qt::WindowMaximized);
  else if (placement.ShowCommand == TWindowPlacement::kShowMinimized)
    setWindowState(Qt::WindowMinimized);
}

void TQtViewerWindow::RequestRedraw() {
  UpdateView();
  update();
  if (FGLWidget) FGLWidget->update();
}

void TQtViewerWindow::CloseViewerWindow() {
  close();
}

void TQtViewerWindow::SetCloseEnabled(bool enabled) {
  if (windowFlags().testFlag(Qt::WindowCloseButtonHint) == enabled) return;
  // Changing the flags of a shown window hides it; show it again as it was.
  const bool wasVisible = isVisible();
  setWindowFlag(Qt::WindowCloseButtonHint, enabled);
  if (wasVisible) show();
}

void TQtViewerWindow::ViewerDestroyed() {
  // A view that belonged to the viewer has already told the rendering widget that it is gone.
  TVCustomForm* gone = FViewer;
  FViewer = nullptr;
  FGraphViewer = nullptr;
  if (FAnimationTimer) FAnimationTimer->stop();
  if (OnViewerGone) OnViewerGone(gone);
  hide();
  deleteLater();
}

void TQtViewerWindow::closeEvent(QCloseEvent* event) {
  if (!FViewer) {
    event->accept();
    return;
  }
  if (!FViewer->CloseQuery()) {
    event->ignore();
    return;
  }
  event->accept();
  if (FViewer->DoClose()) {
    TVCustomForm* viewer = FViewer;
    if (OnFreeViewer) OnFreeViewer(viewer); // the viewer goes, and with it (ViewerDestroyed) this window
  }
}

void TQtViewerWindow::changeEvent(QEvent* event) {
  QWidget::changeEvent(event);
  if (event->type() == QEvent::ActivationChange && isActiveWindow() && FViewer) FViewer->FormActivate();
}

void TQtViewerWindow::dragEnterEvent(QDragEnterEvent* event) {
  if (FViewer && DecodeIDs && !DecodeIDs(event->mimeData()).empty()) event->acceptProposedAction();
}

void TQtViewerWindow::dropEvent(QDropEvent* event) {
  if (!FViewer || !DecodeIDs) return;
  bool any = false;
  for (int32_t id : DecodeIDs(event->mimeData())) any = FViewer->AddDataID(id) || any;
  if (any) event->acceptProposedAction();
}
