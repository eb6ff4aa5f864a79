// The Advanced Fitting Tool's own widgets in its window: the function list by category, the function's
// settings, the parameter table, the statistics and fit status of the current spectrum, the extraction
// switches of all rows and the user fit function file commands. Everything they show and do is the
// tool's preview; the commands Fit Once, <<, >>, Reset Params, Reset Range and the extracts are the
// panel's buttons. A row's context menu moves it in the fit order ("Fit Sooner", "Fit Later"); a double
// click on its name arms it to take its start value from the preview viewer's x cursor (again: ends).
#include "frame/Qtparampanel.h"
#include "frame/Qttoolwindow.h"
#include "tools/spectral/Advancedfittingpreview.h"
#include "tools/spectral/Advancedfittingtool.h"

#include <QCheckBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QRadioButton>
#include <QTableWidget>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>

void RegisterAdvancedFittingWindowExtension();

namespace {

enum TColumn {
  cName,
  cStartValue,
  cValue,
  cVary,
  cLowerLimit,
  cUpperLimit,
  cAuto,
  cExtractValue,
  cExtractError,
  cValueIfFitFails,
  cFitOrder,
  cCount
};

const char* const kColumnCaptions[cCount] = {
    "Name",          "Start Value",        "Value",    "Vary",
    "Lower Limit",   "Upper Limit",        "Auto",     "Extract Value",
    "Extract Error", "Value if Fit Fails", "Fit Order"};

QString Number(double value, int digits) {
  if (std::isnan(value)) return "NaN";
  char text[40];
  std::snprintf(text, sizeof text, "%.*g", digits, value);
  return QString::fromLatin1(text);
}

bool ReadNumber(const QString& text, double& value) {
  const QString t = text.trimmed();
  if (t.compare("nan", Qt::CaseInsensitive) == 0) {
    value = std::numeric_limits<double>::quiet_NaN();
    return true;
  }
  bool ok = false;
  value = t.toDouble(&ok);
  return ok && std::isfinite(value);
}

// The tool's widgets below its parameter panel.
class TAdvancedFittingArea : public QWidget {
public:
  TAdvancedFittingArea(TQtToolWindow& window, TAdvancedFittingToolForm& tool)
      : QWidget(&window), FWindow(window), FTool(tool), FPreview(tool.Preview()) {
    setObjectName("AdvancedFittingArea");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);

    // Function list by category, and the function's own settings.
    FFunctions = new QTreeWidget(this);
    FFunctions->setObjectName("FunctionList");
    FFunctions->setHeaderHidden(true);
    FFunctions->setMaximumHeight(150);
    layout->addWidget(FFunctions);
    connect(FFunctions, &QTreeWidget::itemClicked, this, [this](QTreeWidgetItem* item, int) {
      if (FUpdating || !item || item->childCount() > 0 || !item->parent()) return;
      if (!FPreview.SelectFunction(item->text(0).toStdString()))
        FWindow.MessageLine()->setText("\"" + item->text(0) + "\" needs Advanced Mode");
      else
        FWindow.MessageLine()->clear();
    });
    auto* settingsRow = new QHBoxLayout;
    settingsRow->addWidget(new QLabel("Function Settings:", this));
    FSettings = new QLineEdit(this);
    FSettings->setObjectName("FunctionSettingsEdit");
    FSettings->setToolTip("The function's own settings: \"name=value\" items separated by ';'");
    settingsRow->addWidget(FSettings);
    layout->addLayout(settingsRow);
    connect(FSettings, &QLineEdit::editingFinished, this, [this] {
      if (FUpdating || FSettings->text().toStdString() == FTool.GetStringParameter("Function Settings"))
        return;
      if (FPreview.SetFunctionSettings(FSettings->text().toStdString()))
        FWindow.MessageLine()->clear();
      else
        FWindow.MessageLine()->setText(QString::fromStdString(FPreview.GetStatus()));
    });

    // The parameter rows.
    FTable = new QTableWidget(0, cCount, this);
    FTable->setObjectName("ParameterTable");
    for (int c = 0; c < cCount; ++c)
      FTable->setHorizontalHeaderItem(c, new QTableWidgetItem(kColumnCaptions[c]));
    FTable->verticalHeader()->setVisible(false);
    FTable->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    FTable->setMinimumHeight(140);
    layout->addWidget(FTable);
    connect(FTable, &QTableWidget::itemChanged, this, [this](QTableWidgetItem* item) { CellChanged(item); });
    // ParamFitOrderMenu: the row's place in the staged fit.
    FTable->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(FTable, &QWidget::customContextMenuRequested, this, [this](const QPoint& at) {
      const int row = FTable->rowAt(at.y());
      if (row < 0) return;
      QMenu menu(this);
      menu.setObjectName("ParamFitOrderMenu");
      QAction* sooner = menu.addAction("Fit Sooner");
      QAction* later = menu.addAction("Fit Later");
      const QAction* chosen = menu.exec(FTable->viewport()->mapToGlobal(at));
      if (chosen == sooner) FPreview.FitSooner(row);
      if (chosen == later) FPreview.FitLater(row);
    });
    // A double click on a name arms the row to take its start value from the x cursor.
    connect(FTable, &QTableWidget::cellDoubleClicked, this, [this](int row, int column) {
      if (column != cName) return;
      if (FPreview.GetArmedRow() == row) {
        FPreview.DisarmListen();
        FWindow.MessageLine()->clear();
      } else if (FPreview.ArmListen(row)) {
        FWindow.MessageLine()->setText(
            QString("%1 takes its start value from the x cursor (%2); double click its name again to end")
                .arg(FTable->item(row, cName)->text(),
                     QString::fromStdString(FitParamListenKindName(FPreview.GetListenKind(row)))));
      } else {
        FWindow.MessageLine()->setText(FTable->item(row, cName)->text() + " takes no value from the cursor");
      }
    });

    auto* extractRow = new QHBoxLayout;
    auto addButton = [this](QHBoxLayout* row, const QString& text, const QString& name, auto action) {
      auto* button = new QPushButton(text, this);
      button->setObjectName(name);
      row->addWidget(button);
      connect(button, &QPushButton::clicked, this, action);
      return button;
    };
    extractRow->addWidget(new QLabel("Extract Value:", this));
    addButton(extractRow, "All", "ExtractValueAll", [this] { FPreview.SetAllExtract(true, true); });
    addButton(extractRow, "None", "ExtractValueNone", [this] { FPreview.SetAllExtract(true, false); });
    extractRow->addWidget(new QLabel("Extract Error:", this));
    addButton(extractRow, "All", "ExtractErrorAll", [this] { FPreview.SetAllExtract(false, true); });
    addButton(extractRow, "None", "ExtractErrorNone", [this] { FPreview.SetAllExtract(false, false); });
    extractRow->addStretch();
    layout->addLayout(extractRow);

    // Statistics and status of the current spectrum.
    auto* statistics = new QGroupBox("Fit", this);
    auto* form = new QFormLayout(statistics);
    for (const char* label : {"Chi^2 / DoF:", "Data Points / DoF:", "Average Error:", "R^2:"}) {
      auto* value = new QLabel("--------", statistics);
      value->setObjectName(label);
      form->addRow(label, value);
      FStatistics[label] = value;
    }
    FStatus = new QLabel(statistics);
    FStatus->setObjectName("FitStatus");
    FStatus->setWordWrap(true);
    form->addRow("Status:", FStatus);
    // The curve of Define Start Values: from the start values or the values.
    auto* curveRow = new QHBoxLayout;
    FCurveFromStart = new QRadioButton("Start Value", statistics);
    FCurveFromStart->setObjectName("CurveFromStartValue");
    auto* fromValue = new QRadioButton("Value", statistics);
    fromValue->setObjectName("CurveFromValue");
    FCurveFromStart->setChecked(true);
    curveRow->addWidget(FCurveFromStart);
    curveRow->addWidget(fromValue);
    curveRow->addStretch();
    form->addRow("Preview:", curveRow);
    connect(fromValue, &QRadioButton::toggled, this, [this](bool on) {
      if (!FUpdating) FPreview.SetCurveFromValue(on);
    });
    FPixel = new QLabel(statistics);
    FPixel->setObjectName("CurrentSpectrum");
    form->addRow("Spectrum:", FPixel);
    layout->addWidget(statistics);

    // The user fit functions.
    auto* userRow = new QHBoxLayout;
    addButton(userRow, "Add", "AddUserFunction", [this] { AddUserFunction(); });
    addButton(userRow, "Delete", "DeleteUserFunction", [this] { FPreview.DeleteSelectedUserFunction(); });
    addButton(userRow, "Save...", "SaveUserFunctions", [this] {
      const QString name = QFileDialog::getSaveFileName(this, "Save user fit functions to file");
      if (!name.isEmpty()) FPreview.SaveUserFunctions(name.toStdString());
    });
    addButton(userRow, "Load...", "LoadUserFunctions", [this] {
      const QString name = QFileDialog::getOpenFileName(this, "Load user fit functions from file");
      if (!name.isEmpty()) FPreview.LoadUserFunctions(name.toStdString(), false);
    });
    addButton(userRow, "Append...", "AppendUserFunctions", [this] {
      const QString name = QFileDialog::getOpenFileName(this, "Append user fit functions from file");
      if (!name.isEmpty()) FPreview.LoadUserFunctions(name.toStdString(), true);
    });
    userRow->itemAt(0)->widget()->setToolTip("Add selected function to user fit functions");
    userRow->itemAt(1)->widget()->setToolTip("Delete selected user fit function");
    userRow->addStretch();
    auto* userBox = new QGroupBox("User Fit Functions", this);
    userBox->setLayout(userRow);
    layout->addWidget(userBox);

    // The rows, the function and its settings have their own widgets here; the panel's text lines for
    // them go.
    for (const char* name : {"Function", "Function Settings", "Fit Parameters"})
      if (TUserParameter* parameter = FTool.Parameters().GetUserParameterByName(name)) {
        parameter->SetVisible(false);
        if (QWidget* control = window.Panel()->ControlOf(name))
          if (auto* panelLayout = qobject_cast<QFormLayout*>(window.Panel()->layout()))
            panelLayout->setRowVisible(control, false);
      }

    FPreview.OnChanged = [this] { Refresh(); };
    Refresh();
  }

  ~TAdvancedFittingArea() override { FPreview.OnChanged = nullptr; }

private:
  void Refresh() {
    FUpdating = true;
    FWindow.SetTitle(FPreview.GetTitle());
    FWindow.Panel()->Refresh();
    RefreshFunctions();
    FSettings->setText(QString::fromStdString(FTool.GetStringParameter("Function Settings")));
    RefreshTable();
    for (const auto& [label, text] : FPreview.GetStatistics())
      if (auto found = FStatistics.find(label); found != FStatistics.end())
        found->second->setText(QString::fromStdString(text));
    FStatus->setText(QString::fromStdString(FPreview.GetStatus()));
    FStatus->setStyleSheet(FPreview.GetStatus() == TAdvancedFittingPreview::kFitSuccessful
                               ? "color: #006000"
                               : "color: #b00000");
    FPixel->setText(QString("Pixel %1, %2").arg(FPreview.GetPixelX()).arg(FPreview.GetPixelY()));
    RefreshCaptions();
    FUpdating = false;
  }

  // Captions that depend on the state: the range's unit and the extract commands of the mode.
  void RefreshCaptions() {
    auto* layout = qobject_cast<QFormLayout*>(FWindow.Panel()->layout());
    const std::string unit = FPreview.GetAxisUnit().empty() ? std::string("a.u.") : FPreview.GetAxisUnit();
    auto label = [&](const char* name, const std::string& text) {
      QWidget* control = FWindow.Panel()->ControlOf(name);
      if (auto* caption = layout && control ? qobject_cast<QLabel*>(layout->labelForField(control)) : nullptr)
        caption->setText(QString::fromStdString(text));
    };
    label(TAdvancedFittingToolForm::kPreviewStart, "Start Value [" + unit + "]:");
    label(TAdvancedFittingToolForm::kPreviewStop, "Stop Value [" + unit + "]:");
    auto button = [&](const char* name, const char* text) {
      if (auto* b = qobject_cast<QPushButton*>(FWindow.Panel()->ControlOf(name))) b->setText(text);
    };
    const bool fitOnChange = FPreview.IsFitOnChange();
    button(TProjectDialogForm::kExtract, fitOnChange ? "Fit and Extract Current" : "Extract Current");
    button(TProjectDialogForm::kExtractAll, "Fit and Extract All");
  }

  void RefreshFunctions() {
    const std::string selected = FPreview.GetSelectedFunctionName();
    const bool advanced = FTool.GetBoolParameter("Advanced Mode");
    FFunctions->clear();
    std::map<std::string, QTreeWidgetItem*> categories;
    for (const TFitFunctionListEntry& entry : FPreview.GetFunctionList()) {
      QTreeWidgetItem*& category = categories[entry.Category];
      if (!category) {
        category = new QTreeWidgetItem(FFunctions, {QString::fromStdString(entry.Category)});
        category->setFlags(Qt::ItemIsEnabled);
        category->setExpanded(true);
      }
      auto* item = new QTreeWidgetItem(category, {QString::fromStdString(entry.FunctionName)});
      if (entry.OnlyAdvancedMode && !advanced) item->setDisabled(true);
      if (entry.FunctionName == selected) FFunctions->setCurrentItem(item);
    }
  }

  void RefreshTable() {
    const auto& rows = FPreview.Rows();
    const std::vector<std::string> names = FPreview.RowNames();
    const int digits = FTool.GetIntParameter("Param Precision");
    FTable->setRowCount(static_cast<int>(rows.size()));
    for (int r = 0; r < static_cast<int>(rows.size()); ++r) {
      const TAdvancedFitParamSettings& row = rows[static_cast<size_t>(r)];
      // Items are kept and only their contents change: an edit's own signal may still be running.
      auto itemAt = [&](int column, Qt::ItemFlags flags) {
        QTableWidgetItem* item = FTable->item(r, column);
        if (!item) {
          item = new QTableWidgetItem;
          FTable->setItem(r, column, item);
        }
        item->setFlags(flags);
        return item;
      };
      auto text = [&](int column, const QString& value, bool editable = true) {
        itemAt(column,
               editable ? Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsEditable : Qt::ItemIsEnabled)
            ->setText(value);
      };
      auto check = [&](int column, bool value) {
        itemAt(column, Qt::ItemIsEnabled | Qt::ItemIsUserCheckable)
            ->setCheckState(value ? Qt::Checked : Qt::Unchecked);
      };
      text(cName,
           QString::fromStdString(r < static_cast<int>(names.size()) ? names[static_cast<size_t>(r)]
                                                                     : row.Name),
           false);
      text(cStartValue, Number(row.StartValue, digits));
      text(cValue, Number(row.Value, digits));
      check(cVary, row.Vary);
      text(cLowerLimit, row.HasLowerLimit ? Number(row.LowerLimit, digits) : QString("none"));
      text(cUpperLimit, row.HasUpperLimit ? Number(row.UpperLimit, digits) : QString("none"));
      check(cAuto, row.Auto);
      check(cExtractValue, row.ExtractValue);
      check(cExtractError, row.ExtractError);
      text(cValueIfFitFails, Number(row.ValueIfFitFails, digits));
      text(cFitOrder, QString::number(row.FitOrder + 1), false);
      // The row armed to take its start value from the cursor stands out.
      FTable->item(r, cName)->setBackground(r == FPreview.GetArmedRow() ? QBrush(QColor(255, 230, 120))
                                                                        : QBrush());
    }
  }

  void CellChanged(QTableWidgetItem* item) {
    if (FUpdating || !item) return;
    const int r = item->row();
    if (r < 0 || r >= static_cast<int>(FPreview.Rows().size())) return;
    TAdvancedFitParamSettings row = FPreview.Rows()[static_cast<size_t>(r)];
    const QString text = item->text();
    const bool checked = item->checkState() == Qt::Checked;
    bool ok = true;
    double value = 0;
    switch (item->column()) {
    case cStartValue:
      ok = ReadNumber(text, value) && !std::isnan(value);
      if (ok) row.StartValue = value;
      break;
    case cValue:
      ok = ReadNumber(text, value) && !std::isnan(value);
      if (ok) row.Value = value;
      break;
    case cLowerLimit:
    case cUpperLimit: {
      const bool lower = item->column() == cLowerLimit;
      const bool none = text.trimmed() == "none" || text.trimmed().isEmpty();
      ok = none || (ReadNumber(text, value) && !std::isnan(value));
      if (ok) (lower ? row.HasLowerLimit : row.HasUpperLimit) = !none;
      if (ok && !none) (lower ? row.LowerLimit : row.UpperLimit) = value;
      break;
    }
    case cValueIfFitFails:
      ok = ReadNumber(text, value);
      if (ok) row.ValueIfFitFails = value;
      break;
    case cVary:
      row.Vary = checked;
      break;
    case cAuto:
      row.Auto = checked;
      break;
    case cExtractValue:
      row.ExtractValue = checked;
      break;
    case cExtractError:
      row.ExtractError = checked;
      break;
    default:
      return;
    }
    std::string problem = "\"" + text.toStdString() + "\" is no value for " + row.Name;
    if (ok && FPreview.SetRow(r, row, problem)) {
      FWindow.MessageLine()->clear();
      return;
    }
    FWindow.MessageLine()->setText(QString::fromStdString(problem));
    Refresh(); // the refused cell shows its value again
  }

  void AddUserFunction() {
    bool ok = false;
    const QString name = QInputDialog::getText(this, "Add selected function to user fit functions",
                                               "Name:", QLineEdit::Normal, QString(), &ok);
    if (!ok || name.trimmed().isEmpty()) return;
    std::string problem;
    if (!FPreview.AddSelectedFunctionToUserFunctions(name.trimmed().toStdString(), problem))
      FWindow.MessageLine()->setText(QString::fromStdString(problem));
  }

  TQtToolWindow& FWindow;
  TAdvancedFittingToolForm& FTool;
  TAdvancedFittingPreview& FPreview;
  QTreeWidget* FFunctions = nullptr;
  QLineEdit* FSettings = nullptr;
  QTableWidget* FTable = nullptr;
  std::map<std::string, QLabel*> FStatistics;
  QLabel* FStatus = nullptr;
  QLabel* FPixel = nullptr;
  QRadioButton* FCurveFromStart = nullptr;
  bool FUpdating = false;
};

} // namespace

void RegisterAdvancedFittingWindowExtension() {
  RegisterToolWindowExtension("AdvancedFittingTool", [](TQtToolWindow& window, TProjectDialogForm& tool) {
    auto* fitting = dynamic_cast<TAdvancedFittingToolForm*>(&tool);
    if (!fitting) return;
    window.ExtraArea()->addWidget(new TAdvancedFittingArea(window, *fitting));
  });
}
