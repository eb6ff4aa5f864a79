// The filter viewer's panel in its window: the list of filters with their values at the cursor, the editor
// of the selected filter, and the commands (add a filter of a kind, delete, rename, extract, quick filter
// files, show a filter's live image).
#pragma once

#include <QWidget>

class TVFilterForm;
class QTableWidget;
class QComboBox;
class QLineEdit;
class QDoubleSpinBox;
class QSpinBox;
class QLabel;
class QRadioButton;
class QPushButton;

class TQtFilterViewerPanel : public QWidget {
public:
  TQtFilterViewerPanel(TVFilterForm& viewer, QWidget* parent);

  /// Shows the viewer's state: the list with the values at the cursor, the selected filter, the status.
  void Refresh();

private:
  void BuildCommands();
  void SelectionChanged();
  /// The editor's values into the selected filter (one filter selected).
  void ApplyEditor();
  void ShowSelectedEditor();
  void Extract(bool all);
  void LoadQuickFilters();
  void SaveQuickFilters(bool selectedOnly);
  void ShowLiveImage();

  TVFilterForm& FViewer;
  QTableWidget* FTable = nullptr;
  QLabel* FStatus = nullptr;
  QLabel* FSelection = nullptr;
  QComboBox* FKind = nullptr;
  QLineEdit* FName = nullptr;
  QDoubleSpinBox* FPosition = nullptr;
  QDoubleSpinBox* FWidth = nullptr;
  QRadioButton* FNoBackground = nullptr;
  QRadioButton* FBothSides = nullptr;
  QRadioButton* FLeft = nullptr;
  QRadioButton* FRight = nullptr;
  QSpinBox* FLowerPixels = nullptr;
  QSpinBox* FUpperPixels = nullptr;
  QWidget* FEditor = nullptr;
  bool FUpdating = false;
};
