// Exporting from the workbench: the file dialog of an export (clipboard, one file or one file per object,
// the naming choices, the maximum size, the filter's own parameters and a preview of the file names) and
// the run of one export filter on the selected objects, whose clipboard output goes on the Qt clipboard.
#pragma once

#include "exchange/Exportfileinfo.h"
#include "exchange/Exportmanager.h"

#include <QDialog>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class QButtonGroup;
class QCheckBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QRadioButton;
class QSpinBox;
class TProject;
class TQtParamPanel;

class TQtExportFileDialog : public QDialog {
public:
  /// The dialog for exporting the objects ids (captions in the same order) with filter; form holds the
  /// choices it starts from and receives those made.
  TQtExportFileDialog(TExportFilter& filter, const TIntList& ids, std::vector<std::string> captions,
                      TExportFilterFileInfoGetterForm& form, QWidget* parent = nullptr);
  ~TQtExportFileDialog() override;

  /// The target of the choices made; null with the problem shown in the dialog's message line.
  std::unique_ptr<TExportFilterTarget> MakeTarget();
  /// The target taken when the dialog was accepted (null when cancelled).
  std::unique_ptr<TExportFilterTarget> TakeTarget() { return std::move(FTarget); }

  /// @{ The controls, for tests.
  QRadioButton* TargetButton(TExportFilterFileInfoGetterForm::TTarget target) const;
  QLineEdit* FolderEdit() const { return FFolder; }
  QLineEdit* FileNameEdit() const { return FFileName; }
  QListWidget* Preview() const { return FPreview; }
  QLabel* MessageLine() const { return FMessage; }
  /// @}

  void accept() override;

private:
  void ReadControls();
  void UpdatePreview();

  TExportFilter& FFilter;
  TIntList FIDs;
  std::vector<std::string> FCaptions;
  TExportFilterFileInfoGetterForm& FForm;
  std::unique_ptr<TExportFilterTarget> FTarget;
  QButtonGroup* FTargets = nullptr;
  QLineEdit* FFolder = nullptr;
  QLineEdit* FFileName = nullptr;
  QRadioButton* FUseMyName = nullptr;
  QCheckBox* FAutoIncrement = nullptr;
  QRadioButton* FNumberBefore = nullptr;
  QSpinBox* FMaxSizeMB = nullptr;
  TQtParamPanel* FParameters = nullptr;
  QListWidget* FPreview = nullptr;
  QLabel* FMessage = nullptr;
};

/// The export commands of the workbench: the filters in list order and one export of the selected objects.
class TQtExporter {
public:
  explicit TQtExporter(TProject& project);
  ~TQtExporter();

  /// Names of the filters, in list order ("Image ASCII", "Graph ASCII", "Matlab").
  std::vector<std::string> FilterNames() const;
  /// Exports ids with the filter of that index: the file dialog (through Ask; by default shown modally
  /// over parent), the run with progress and cancel, the clipboard, and the "Export Information" text
  /// when there were errors or infos. The filter's settings are stored after an export that started.
  TExportResult Export(int filterIndex, const TIntList& ids, QWidget* parent);

  /// Shows the dialog and returns whether it was accepted; tests replace it to fill in the dialog.
  std::function<bool(TQtExportFileDialog&)> Ask;

private:
  TProject& FProject;
  std::unique_ptr<TExportManager> FManager;
  TExportFilterFileInfoGetterForm FForm;
};
