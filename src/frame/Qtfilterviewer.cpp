// The filter viewer's panel.
#include "frame/Qtfilterviewer.h"

#include "common/Standardmessage.h"
#include "data/Graphfilter.h"
#include "project/Orvexdirectories.h"
#include "project/Project.h"
#include "viewers/Vfilter.h"

#include <QButtonGroup>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QTableWidget>
#include <QToolButton>
#include <QVBoxLayout>
#include <cmath>

namespace {

QString Text(const std::string& text) {
  return QString::fromStdString(text);
}

void Tell(const std::string& text) {
  NotifyUser(text, TVFilterForm::kCaption, kSeverityWarning, false);
}

// The kinds in the order of the add menu, with their hints.
struct TKindEntry {
  int32_t Kind;
  const char* Hint;
};
constexpr TKindEntry kKinds[] = {
    {gfkSum, "Add sum filter"},
    {gfkAverage, "Add average filter"},
    {gfkMinimum, "Add minimum filter"},
    {gfkMaximum, "Add maximum filter"},
    {gfkPosMinimum, "Add position of minimum filter"},
    {gfkPosMaximum, "Add position of maximum filter"},
    {gfkAvgMin, "Add average minus minimum filter"},
    {gfkStdDeviation, "Add standard deviation filter"},
    {gfkWidth, "Add peak width filter"},
    {gfkPosition, "Add center of mass filter"},
};

} // namespace

TQtFilterViewerPanel::TQtFilterViewerPanel(TVFilterForm& viewer, QWidget* parent)
    : QWidget(parent), FViewer(viewer) {
  setObjectName("FilterViewerPanel");
  auto* layout = new QVBoxLayout(this);
  BuildCommands();

  FTable = new QTableWidget(0, 5, this);
  FTable->setObjectName("FilterList");
  FTable->setHorizontalHeaderLabels({"Filter Name", "Filter Kind", "Position", "Width", "Value"});
  FTable->horizontalHeader()->setStretchLastSection(true);
  FTable->setSelectionBehavior(QAbstractItemView::SelectRows);
  FTable->setEditTriggers(QAbstractItemView::NoEditTriggers);
  FTable->verticalHeader()->setVisible(false);
  layout->addWidget(FTable, 1);
  QObject::connect(FTable, &QTableWidget::itemSelectionChanged, this, [this] { SelectionChanged(); });
  QObject::connect(FTable, &QTableWidget::cellDoubleClicked, this, [this](int row, int) {
    // A double-click links the filter to the spectral cursor, or unlinks it.
    FViewer.ChangeListenToPositionMode(row, !FViewer.IsListeningToPosition(row));
    if (FViewer.IsListeningToPosition(row)) FViewer.SendFilterPositionToCursor(row);
    Refresh();
  });

  FSelection = new QLabel(this);
  FSelection->setObjectName("SelectedFilter");
  layout->addWidget(FSelection);

  FEditor = new QWidget(this);
  auto* form = new QFormLayout(FEditor);
  form->setContentsMargins(0, 0, 0, 0);
  FKind = new QComboBox(FEditor);
  for (const TKindEntry& entry : kKinds) FKind->addItem(Text(GetFilterKindCaption(entry.Kind)), entry.Kind);
  form->addRow("Filter Kind", FKind);
  FName = new QLineEdit(FEditor);
  form->addRow("Filter Name", FName);
  FPosition = new QDoubleSpinBox(FEditor);
  FPosition->setRange(-1e9, 1e9);
  FPosition->setDecimals(4);
  form->addRow("Filter Position (Center of the Filter Area)", FPosition);
  FWidth = new QDoubleSpinBox(FEditor);
  FWidth->setRange(0, 1e9);
  FWidth->setDecimals(4);
  form->addRow("Filter Width (Filter Area goes from <Position - Width/2> to <Position + Width/2>)", FWidth);
  FNoBackground = new QRadioButton("No Background Subtraction", FEditor);
  FBothSides =
      new QRadioButton("Background Subtraction using Pixels at Both Sides from the Filter Range", FEditor);
  FLeft =
      new QRadioButton("Background Subtraction using Pixels at the Left Side from the Filter Range", FEditor);
  FRight = new QRadioButton("Background Subtraction using Pixels at the Right Side from the Filter Range",
                            FEditor);
  auto* group = new QButtonGroup(FEditor);
  for (QRadioButton* b : {FNoBackground, FBothSides, FLeft, FRight}) {
    group->addButton(b);
    form->addRow(b);
  }
  FLowerPixels = new QSpinBox(FEditor);
  FLowerPixels->setRange(0, 16);
  FUpperPixels = new QSpinBox(FEditor);
  FUpperPixels->setRange(0, 16);
  form->addRow("Background pixels left", FLowerPixels);
  form->addRow("Background pixels right", FUpperPixels);
  layout->addWidget(FEditor);

  auto apply = [this] {
    if (!FUpdating) ApplyEditor();
  };
  QObject::connect(FKind, qOverload<int>(&QComboBox::currentIndexChanged), this, apply);
  QObject::connect(FName, &QLineEdit::editingFinished, this, apply);
  QObject::connect(FPosition, &QDoubleSpinBox::editingFinished, this, apply);
  QObject::connect(FWidth, &QDoubleSpinBox::editingFinished, this, apply);
  QObject::connect(FLowerPixels, &QSpinBox::editingFinished, this, apply);
  QObject::connect(FUpperPixels, &QSpinBox::editingFinished, this, apply);
  QObject::connect(group, &QButtonGroup::buttonClicked, this, apply);

  FStatus = new QLabel(this);
  FStatus->setObjectName("FilterViewerStatus");
  layout->addWidget(FStatus);
  Refresh();
}

void TQtFilterViewerPanel::BuildCommands() {
  auto* row = new QHBoxLayout();
  static_cast<QVBoxLayout*>(layout())->addLayout(row);
  auto* add = new QToolButton(this);
  add->setObjectName("AddFilter");
  add->setText("Add Filter");
  add->setPopupMode(QToolButton::InstantPopup);
  auto* menu = new QMenu(add);
  for (const TKindEntry& entry : kKinds) {
    QAction* action = menu->addAction(Text(GetFilterKindCaption(entry.Kind)));
    action->setToolTip(entry.Hint);
    const int32_t kind = entry.Kind;
    QObject::connect(action, &QAction::triggered, this, [this, kind] {
      const int32_t index = FViewer.CreateFilter(kind);
      Refresh();
      FTable->selectRow(index);
    });
  }
  QAction* four = menu->addAction("All four min & max");
  four->setToolTip("Add minimum, maximum and their position filters");
  QObject::connect(four, &QAction::triggered, this, [this] {
    FViewer.CreateAllFourMinMax();
    Refresh();
  });
  menu->addSeparator();
  QObject::connect(menu->addAction("Load Quick Filters..."), &QAction::triggered, this,
                   [this] { LoadQuickFilters(); });
  QObject::connect(menu->addAction("Save All Filters..."), &QAction::triggered, this,
                   [this] { SaveQuickFilters(false); });
  QObject::connect(menu->addAction("Save Selected Filters..."), &QAction::triggered, this,
                   [this] { SaveQuickFilters(true); });
  add->setMenu(menu);
  row->addWidget(add);

  auto button = [this, row](const char* name, const char* caption, auto onClick) {
    auto* b = new QPushButton(caption, this);
    b->setObjectName(name);
    QObject::connect(b, &QPushButton::clicked, this, onClick);
    row->addWidget(b);
    return b;
  };
  button("ExtractSelected", "Extract Selected Filter(s)", [this] { Extract(false); });
  button("ExtractAll", "Extract all Filters", [this] { Extract(true); });
  button("DeleteSelected", "Delete Selected Filter(s)", [this] {
    FViewer.DeleteSelectedFilters();
    Refresh();
  });
  button("ShowImage", "Show Image", [this] { ShowLiveImage(); });
  row->addStretch(1);
}

void TQtFilterViewerPanel::Refresh() {
  FUpdating = true;
  const int32_t count = FViewer.GetFilterCount();
  if (FTable->rowCount() != count) FTable->setRowCount(count);
  for (int32_t i = 0; i < count; ++i) {
    const TGraphFilterInfo info = FViewer.GetFilterInfo(i);
    const double value = FViewer.GetLastValue(i);
    const QString cells[5] = {
        Text(info.FilterCaption) + (FViewer.IsListeningToPosition(i) ? " (linked)" : ""),
        Text(GetFilterKindCaption(info.FilterKind)), QString::number(info.FilterPosition, 'g', 8),
        QString::number(info.FilterWidth, 'g', 8),
        std::isfinite(value) ? QString::number(value, 'g', 8) : "-"};
    for (int c = 0; c < 5; ++c) {
      QTableWidgetItem* item = FTable->item(i, c);
      if (!item) FTable->setItem(i, c, item = new QTableWidgetItem);
      if (item->text() != cells[c]) item->setText(cells[c]);
    }
    if (FTable->item(i, 0)->isSelected() != FViewer.IsFilterSelected(i)) FTable->selectRow(i);
  }
  FStatus->setText(Text(FViewer.GetStatusText()));
  FSelection->setText(Text(FViewer.GetSelectionText()));
  FUpdating = false;
  ShowSelectedEditor();
}

void TQtFilterViewerPanel::SelectionChanged() {
  if (FUpdating) return;
  for (int32_t i = 0; i < FTable->rowCount(); ++i)
    FViewer.SetFilterSelected(i, FTable->item(i, 0) && FTable->item(i, 0)->isSelected());
  FSelection->setText(Text(FViewer.GetSelectionText()));
  ShowSelectedEditor();
}

void TQtFilterViewerPanel::ShowSelectedEditor() {
  const TIntList selected = FViewer.GetSelectedFilters();
  FEditor->setEnabled(selected.size() == 1);
  if (selected.size() != 1) return;
  FUpdating = true;
  const TGraphFilterInfo info = FViewer.GetFilterInfo(selected.front());
  FKind->setCurrentIndex(FKind->findData(info.FilterKind));
  if (!FName->hasFocus()) FName->setText(Text(info.FilterCaption));
  if (!FPosition->hasFocus()) FPosition->setValue(info.FilterPosition);
  if (!FWidth->hasFocus()) FWidth->setValue(info.FilterWidth);
  FLowerPixels->setValue(info.LowerBGPixels);
  FUpperPixels->setValue(info.UpperBGPixels);
  if (info.LowerBGPixels == 0 && info.UpperBGPixels == 0)
    FNoBackground->setChecked(true);
  else if (info.UpperBGPixels == 0)
    FLeft->setChecked(true);
  else if (info.LowerBGPixels == 0)
    FRight->setChecked(true);
  else
    FBothSides->setChecked(true);
  FUpdating = false;
}

void TQtFilterViewerPanel::ApplyEditor() {
  const TIntList selected = FViewer.GetSelectedFilters();
  if (selected.size() != 1) return;
  TGraphFilterInfo info = FViewer.GetFilterInfo(selected.front());
  info.FilterKind = FKind->currentData().toInt();
  info.FilterCaption = FName->text().toStdString();
  info.FilterPosition = FPosition->value();
  info.FilterWidth = FWidth->value();
  // The background choice decides which counts are used; the other side's count is zero.
  int32_t lower = FLowerPixels->value(), upper = FUpperPixels->value();
  if (FNoBackground->isChecked()) lower = upper = 0;
  if (FLeft->isChecked()) upper = 0;
  if (FRight->isChecked()) lower = 0;
  if ((FBothSides->isChecked() || FLeft->isChecked()) && lower == 0) lower = 4;
  if ((FBothSides->isChecked() || FRight->isChecked()) && upper == 0) upper = 4;
  info.LowerBGPixels = lower;
  info.UpperBGPixels = upper;
  if (const std::string problem = FViewer.UpdateFilter(selected.front(), info); !problem.empty())
    Tell(problem);
  Refresh();
}

void TQtFilterViewerPanel::Extract(bool all) {
  try {
    const TIntList ids = FViewer.ExtractFilters(all);
    if (ids.empty() && !all && FViewer.GetSelectedFilters().empty()) Tell(TVFilterForm::kNoFilterSelected);
  } catch (const std::exception& e) {
    Tell(e.what());
  }
  Refresh();
}

void TQtFilterViewerPanel::LoadQuickFilters() {
  const QString file = QFileDialog::getOpenFileName(this, "Load Quick Filters", QString(),
                                                    "Quick filter files (*.oxf);;All files (*)");
  if (file.isEmpty()) return;
  if (const std::string problem = FViewer.LoadQuickFilters(file.toStdString()); !problem.empty())
    Tell(problem);
  Refresh();
}

void TQtFilterViewerPanel::SaveQuickFilters(bool selectedOnly) {
  const QString file =
      QFileDialog::getSaveFileName(this, selectedOnly ? "Save Selected Filters" : "Save All Filters",
                                   QString(), "Quick filter files (*.oxf)");
  if (file.isEmpty()) return;
  if (const std::string problem = FViewer.SaveQuickFilters(file.toStdString(), selectedOnly);
      !problem.empty())
    Tell(problem);
}

void TQtFilterViewerPanel::ShowLiveImage() {
  const TIntList selected = FViewer.GetSelectedFilters();
  TProject* project = FViewer.GetProject();
  if (selected.empty() || !project) {
    Tell(TVFilterForm::kNoFilterSelected);
    return;
  }
  for (int32_t index : selected) {
    const int32_t id = FViewer.GetResultObjectID(index);
    if (!id) continue;
    for (const std::string& name : TVCustomForm::GetRegisteredViewerNames()) {
      const TRegisteredViewer* entry = TVCustomForm::GetRegisteredViewer(name);
      if (name == TVFilterForm::kClassName || !entry || !entry->ShowViewer ||
          !entry->IsInputIDListOkayForShowViewer || !entry->IsInputIDListOkayForShowViewer(*project, {id}))
        continue;
      entry->ShowViewer(*project, {id});
      break;
    }
  }
}
