// The export's file dialog and the workbench's export command.
#include "frame/Qtexportdialog.h"

#include "frame/Qtparampanel.h"
#include "project/Orvexdirectories.h"
#include "project/Project.h"
#include "viewers/Viewershow.h"

#include <QApplication>
#include <QButtonGroup>
#include <QCheckBox>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMimeData>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QVBoxLayout>
#include <algorithm>

namespace {

using TForm = TExportFilterFileInfoGetterForm;

const char* TargetCaption(TForm::TTarget target) {
  switch (target) {
  case TForm::tClipboard:
    return "Clipboard";
  case TForm::tOneFile:
    return "One File";
  default:
    return "One File for each Data Object";
  }
}

} // namespace

TQtExportFileDialog::TQtExportFileDialog(TExportFilter& filter, const TIntList& ids,
                                         std::vector<std::string> captions,
                                         TExportFilterFileInfoGetterForm& form, QWidget* parent)
    : QDialog(parent), FFilter(filter), FIDs(ids), FCaptions(std::move(captions)), FForm(form) {
  setWindowTitle(QString::fromStdString("Export (" + filter.GetName() + ")"));
  setObjectName("ExportFileDialog");
  auto* layout = new QVBoxLayout(this);

  // Where the data go: the choices the filter allows for these objects.
  auto* targetBox = new QGroupBox("Export to", this);
  auto* targetLayout = new QVBoxLayout(targetBox);
  FTargets = new QButtonGroup(this);
  const std::vector<TForm::TTarget> offered = TForm::OfferedTargets(filter.GetTargetMode());
  if (std::find(offered.begin(), offered.end(), FForm.Target) == offered.end()) FForm.Target = offered.back();
  for (TForm::TTarget target : offered) {
    auto* button = new QRadioButton(TargetCaption(target), targetBox);
    button->setChecked(target == FForm.Target);
    FTargets->addButton(button, static_cast<int>(target));
    targetLayout->addWidget(button);
  }
  layout->addWidget(targetBox);

  auto* fileBox = new QGroupBox("Files", this);
  auto* fileLayout = new QFormLayout(fileBox);
  auto* folderRow = new QHBoxLayout;
  FFolder = new QLineEdit(QString::fromStdString(FForm.Folder), fileBox);
  FFolder->setObjectName("ExportFolder");
  auto* browse = new QPushButton("...", fileBox);
  folderRow->addWidget(FFolder, 1);
  folderRow->addWidget(browse);
  fileLayout->addRow("Folder:", folderRow);
  auto* naming = new QButtonGroup(this);
  FUseMyName = new QRadioButton("Use My File Name:", fileBox);
  auto* useObjectName = new QRadioButton("Use Data Object Name", fileBox);
  naming->addButton(FUseMyName);
  naming->addButton(useObjectName);
  (FForm.UseMyFileName ? FUseMyName : useObjectName)->setChecked(true);
  FFileName = new QLineEdit(QString::fromStdString(FForm.FileName), fileBox);
  FFileName->setObjectName("ExportFileName");
  fileLayout->addRow(FUseMyName, FFileName);
  fileLayout->addRow(useObjectName);
  FAutoIncrement = new QCheckBox("Add Auto Increment Number", fileBox);
  FAutoIncrement->setChecked(FForm.AddAutoIncrementNumber);
  FNumberBefore = new QRadioButton("Before Name", fileBox);
  auto* numberAfter = new QRadioButton("After Name", fileBox);
  auto* numberPlace = new QButtonGroup(this);
  numberPlace->addButton(FNumberBefore);
  numberPlace->addButton(numberAfter);
  (FForm.BeforeName ? FNumberBefore : numberAfter)->setChecked(true);
  auto* numberRow = new QHBoxLayout;
  numberRow->addWidget(FAutoIncrement);
  numberRow->addWidget(FNumberBefore);
  numberRow->addWidget(numberAfter);
  fileLayout->addRow(numberRow);
  FMaxSizeMB = new QSpinBox(fileBox);
  FMaxSizeMB->setRange(0, 1 << 20);
  FMaxSizeMB->setSuffix(" MB");
  FMaxSizeMB->setSpecialValueText("no limit");
  FMaxSizeMB->setValue(static_cast<int>(FForm.MaxSize / (1024 * 1024)));
  fileLayout->addRow("Maximum File Size:", FMaxSizeMB);
  layout->addWidget(fileBox);

  // The filter's own parameters, bound to its values (stored with its settings after the export).
  if (TUserParameterAdministrator* values = filter.GetDeclaredValues()) {
    auto* parameterBox = new QGroupBox("Settings", this);
    auto* parameterLayout = new QVBoxLayout(parameterBox);
    FParameters = new TQtParamPanel(*values, parameterBox);
    parameterLayout->addWidget(FParameters);
    layout->addWidget(parameterBox);
  }

  layout->addWidget(new QLabel("Files:", this));
  FPreview = new QListWidget(this);
  FPreview->setObjectName("ExportPreview");
  FPreview->setMaximumHeight(110);
  layout->addWidget(FPreview);
  FMessage = new QLabel(this);
  FMessage->setObjectName("ExportMessage");
  FMessage->setStyleSheet("color: #b00000");
  layout->addWidget(FMessage);
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
  layout->addWidget(buttons);

  connect(buttons, &QDialogButtonBox::accepted, this, [this] { accept(); });
  connect(buttons, &QDialogButtonBox::rejected, this, [this] { reject(); });
  connect(browse, &QPushButton::clicked, this, [this] {
    const QString folder = QFileDialog::getExistingDirectory(this, "Export Folder", FFolder->text());
    if (!folder.isEmpty()) FFolder->setText(folder);
  });
  const auto changed = [this] { UpdatePreview(); };
  connect(FTargets, &QButtonGroup::idClicked, this, changed);
  connect(naming, &QButtonGroup::buttonClicked, this, changed);
  connect(numberPlace, &QButtonGroup::buttonClicked, this, changed);
  connect(FAutoIncrement, &QCheckBox::toggled, this, changed);
  connect(FFileName, &QLineEdit::textChanged, this, changed);
  connect(FFolder, &QLineEdit::textChanged, this, changed);
  UpdatePreview();
}

TQtExportFileDialog::~TQtExportFileDialog() = default;

QRadioButton* TQtExportFileDialog::TargetButton(TExportFilterFileInfoGetterForm::TTarget target) const {
  return qobject_cast<QRadioButton*>(FTargets->button(static_cast<int>(target)));
}

void TQtExportFileDialog::ReadControls() {
  FForm.Target = static_cast<TForm::TTarget>(FTargets->checkedId());
  FForm.Folder = FFolder->text().toStdString();
  FForm.FileName = FFileName->text().toStdString();
  FForm.UseMyFileName = FUseMyName->isChecked();
  FForm.AddAutoIncrementNumber = FAutoIncrement->isChecked();
  FForm.BeforeName = FNumberBefore->isChecked();
  FForm.MaxSize = static_cast<int64_t>(FMaxSizeMB->value()) * 1024 * 1024;
}

void TQtExportFileDialog::UpdatePreview() {
  ReadControls();
  const bool files = FForm.Target != TForm::tClipboard;
  FFolder->setEnabled(files);
  FFileName->setEnabled(files && FForm.UseMyFileName);
  FPreview->clear();
  const std::string problem = files && FForm.UseMyFileName ? TForm::CheckFileName(FForm.FileName) : "";
  FMessage->setText(QString::fromStdString(problem));
  if (!files || !problem.empty()) return;
  bool renamed = false;
  for (const std::string& line : TForm::PreviewLines(FForm.MakeFileNames(FFilter, FCaptions, renamed)))
    FPreview->addItem(QString::fromStdString(line));
}

std::unique_ptr<TExportFilterTarget> TQtExportFileDialog::MakeTarget() {
  ReadControls();
  std::string problem;
  std::unique_ptr<TExportFilterTarget> target = FForm.CreateFileInfo(FFilter, FIDs, FCaptions, problem);
  FMessage->setText(QString::fromStdString(problem));
  return target;
}

void TQtExportFileDialog::accept() {
  FTarget = MakeTarget();
  if (FTarget) QDialog::accept(); // otherwise the dialog stays, its message line naming the problem
}

// ---------------------------------------------------------------------------------------------------

TQtExporter::TQtExporter(TProject& project)
    : FProject(project),
      FManager(std::make_unique<TExportManager>(&project, TOrvexDirectories::User.ExportFilterSettings)) {
  RegisterExportFilters(*FManager);
  for (const auto& filter : FManager->GetFilters()) filter->LoadExportFilterSettingsFromTagFile();
  FManager->OnShowExportInformation = [this](int32_t textID) { ShowIDsInViewer(FProject, {textID}); };
  Ask = [](TQtExportFileDialog& dialog) { return dialog.exec() == QDialog::Accepted; };
}

TQtExporter::~TQtExporter() = default;

std::vector<std::string> TQtExporter::FilterNames() const {
  std::vector<std::string> names;
  for (const auto& filter : FManager->GetFilters()) names.push_back(filter->GetName());
  return names;
}

TExportResult TQtExporter::Export(int filterIndex, const TIntList& ids, QWidget* parent) {
  FManager->OnCreateFileInfo = [this, parent](TExportFilter& filter,
                                              const TIntList& list) -> std::unique_ptr<TExportFilterTarget> {
    std::vector<std::string> captions;
    for (int32_t id : list) {
      const TData* data = FProject.FindData(id);
      captions.push_back(data ? data->GetCaption() : std::to_string(id));
    }
    TQtExportFileDialog dialog(filter, list, captions, FForm, parent);
    if (!Ask || !Ask(dialog)) return nullptr;
    return dialog.TakeTarget();
  };
  TExportResult result = FManager->DoExport(filterIndex, ids);
  if (!result.ClipboardBytes.empty()) {
    // Text exports go on the clipboard as text, the others as their bytes.
    const QByteArray bytes(reinterpret_cast<const char*>(result.ClipboardBytes.data()),
                           static_cast<qsizetype>(result.ClipboardBytes.size()));
    auto* mime = new QMimeData;
    if (bytes.indexOf('\0') < 0)
      mime->setText(QString::fromUtf8(bytes));
    else
      mime->setData("application/octet-stream", bytes);
    QApplication::clipboard()->setMimeData(mime);
  }
  if (result.Started && !result.Cancelled) {
    TExportFilter& filter = *FManager->GetFilters()[static_cast<size_t>(filterIndex)];
    filter.SetSaveSettings(true);
    filter.SaveExportFilterSettingsToTagFile();
  }
  return result;
}
