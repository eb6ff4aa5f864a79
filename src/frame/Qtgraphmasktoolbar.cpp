// The mask toolbar as widgets.
#include "frame/Qtgraphmasktoolbar.h"

#include <QDragEnterEvent>
#include <QDragMoveEvent>
#include <QDropEvent>
#include <QFrame>
#include <QHBoxLayout>
#include <QMimeData>
#include <QToolButton>

TQtGraphMaskToolBar::TQtGraphMaskToolBar(QWidget* parent, TGraphMask* mask, int colorIndex, int size)
    : QWidget(parent), FLogic(mask, colorIndex, size) {
  setObjectName("GraphMaskToolBar");
  FLayout = new QHBoxLayout(this);
  FLayout->setContentsMargins(0, 0, 0, 0);
  FLayout->setSpacing(2);
  FColorPanel = new QFrame(this);
  FColorPanel->setObjectName("MaskColorPanel");
  FColorPanel->setFrameShape(QFrame::Box);
  FColorPanel->setFixedSize(size, size);
  FColorPanel->setToolTip("Colour of the mask's bands in the graph viewer");
  for (const TGraphMaskButtonInfo& info : TGraphMaskToolBar::Buttons()) {
    auto* button = new QToolButton(this);
    button->setText(QString::fromStdString(info.Caption));
    button->setToolTip(QString::fromStdString(info.Hint));
    button->setObjectName(QString::fromStdString("Mask" + info.Caption));
    button->setMinimumHeight(size);
    button->setAcceptDrops(true);
    button->installEventFilter(this);
    const TGraphMaskCommand command = info.Command;
    connect(button, &QToolButton::clicked, this, [this, command] { FLogic.Click(command); });
    FButtons[button] = command;
  }
  Arrange();
  UpdateColorPanel();
}

void TQtGraphMaskToolBar::Arrange() {
  while (FLayout->count() > 0) FLayout->takeAt(0);
  const bool left = FLogic.GetColorPanelPosition() == TGraphMaskColorPanelPosition::Left;
  if (left) FLayout->addWidget(FColorPanel);
  for (const TGraphMaskButtonInfo& info : TGraphMaskToolBar::Buttons())
    FLayout->addWidget(Button(info.Command));
  if (!left) FLayout->addWidget(FColorPanel);
  FLayout->addStretch(1);
  FColorPanel->setVisible(FLogic.GetColorPanelVisibility());
}

void TQtGraphMaskToolBar::UpdateColorPanel() {
  const uint32_t c = FLogic.GetColor();
  FColorPanel->setStyleSheet(
      QString("background-color: rgb(%1, %2, %3);").arg(c & 0xFF).arg((c >> 8) & 0xFF).arg((c >> 16) & 0xFF));
}

void TQtGraphMaskToolBar::SetGraphMask(TGraphMask* mask, int index) {
  FLogic.SetGraphMask(mask, index);
}

void TQtGraphMaskToolBar::SetColorPanelPosition(TGraphMaskColorPanelPosition position) {
  FLogic.SetColorPanelPosition(position);
  Arrange();
}

void TQtGraphMaskToolBar::SetColorPanelVisibility(bool visible) {
  FLogic.SetColorPanelVisibility(visible);
  FColorPanel->setVisible(visible);
}

void TQtGraphMaskToolBar::SetColorIndex(int index) {
  FLogic.SetColorIndex(index);
  UpdateColorPanel();
}

QToolButton* TQtGraphMaskToolBar::Button(TGraphMaskCommand command) const {
  for (const auto& [button, c] : FButtons)
    if (c == command) return button;
  return nullptr;
}

bool TQtGraphMaskToolBar::eventFilter(QObject* watched, QEvent* event) {
  auto* button = qobject_cast<QToolButton*>(watched);
  const auto it = button ? FButtons.find(button) : FButtons.end();
  if (it == FButtons.end()) return QWidget::eventFilter(watched, event);
  std::string reason;
  switch (event->type()) {
  case QEvent::DragEnter:
  case QEvent::DragMove: {
    auto* drag = static_cast<QDragMoveEvent*>(event);
    const std::string text = drag->mimeData()->text().trimmed().toStdString();
    if (drag->mimeData()->hasText() && FLogic.ToolButtonDragOver(it->second, text, reason))
      drag->acceptProposedAction();
    else
      drag->ignore();
    return true;
  }
  case QEvent::Drop: {
    auto* drop = static_cast<QDropEvent*>(event);
    const std::string text = drop->mimeData()->text().trimmed().toStdString();
    if (drop->mimeData()->hasText() && FLogic.ToolButtonDragDrop(it->second, text, reason))
      drop->acceptProposedAction();
    else
      drop->ignore();
    return true;
  }
  default:
    return QWidget::eventFilter(watched, event);
  }
}
