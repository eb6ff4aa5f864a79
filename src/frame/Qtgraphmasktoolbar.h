// The mask toolbar as widgets: a colour panel showing the colour of the mask's bands, and one button per
// mask command. Buttons take dropped text (a mask text such as "500:560" or "graph:12") as the toolbar's
// logic allows. Tool windows place it over their graph mask.
#pragma once

#include "project/Graphmasktoolbar.h"

#include <QWidget>
#include <map>

class QBoxLayout;
class QFrame;
class QToolButton;

class TQtGraphMaskToolBar : public QWidget {
public:
  /// A toolbar over mask (may be null), its colour panel in the colour of band colorIndex.
  TQtGraphMaskToolBar(QWidget* parent, TGraphMask* mask, int colorIndex = 0, int size = 24);

  TGraphMaskToolBar& Logic() { return FLogic; }
  void SetGraphMask(TGraphMask* mask, int index);
  void SetMaskIndexForButtons(int index) { FLogic.SetMaskIndexForButtons(index); }
  void SetColorPanelPosition(TGraphMaskColorPanelPosition position);
  void SetColorPanelVisibility(bool visible);
  void SetColorIndex(int index);
  /// The button of command (tests).
  QToolButton* Button(TGraphMaskCommand command) const;
  QFrame* ColorPanel() const { return FColorPanel; }

protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

private:
  void Arrange();
  void UpdateColorPanel();

  TGraphMaskToolBar FLogic;
  QBoxLayout* FLayout = nullptr;
  QFrame* FColorPanel = nullptr;
  std::map<QToolButton*, TGraphMaskCommand> FButtons;
};
