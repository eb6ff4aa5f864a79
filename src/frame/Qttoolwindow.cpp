// The tool windows and the tool host.
#include "frame/Qttoolwindow.h"

#include "common/Standardmessage.h"
#include "frame/Mainwindow.h"
#include "frame/Qtparampanel.h"
#include "project/Processingdialogforms.h"
#include "project/Project.h"
#include "project/Toolregistry.h"

#include <QCloseEvent>
#include <QComboBox>
#include <QGuiApplication>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QToolButton>
#include <QVBoxLayout>

namespace {

TDataSetChanger* DataSetChangerOf(TProjectDialogForm& tool) {
  if (auto* graphs = dynamic_cast<TProjectGraphProcessingDialogForm*>(&tool))
    return graphs->GetDataSetChanger();
  if (auto* images = dynamic_cast<TProjectImageProcessingDialogForm*>(&tool))
    return images->GetDataSetChanger();
  return nullptr;
}

void Tell(const std::string& text, const std::string& caption) {
  NotifyUser(text, caption, kSeverityWarning, false);
}

std::string FolderCaption(const std::string& folder) {
  if (folder == "spectral") return "Spectral";
  if (folder == "multivariate") return "Multivariate";
  if (folder == "image") return "Image";
  return folder;
}

} // namespace

// --- Window --------------------------------------------------------------------------------------------

TQtToolWindow::TQtToolWindow(TProjectDialogForm& tool, QWidget* parent)
    : QWidget(parent, Qt::Window), FTool(tool) {
  setObjectName(QString::fromStdString(tool.GetToolKey()));
  auto* layout = new QVBoxLayout(this);
  FDataSet = new QComboBox(this);
  FDataSet->setObjectName("DataSet");
  FDataSet->setVisible(false);
  layout->addWidget(FDataSet);
  FPanel = new TQtParamPanel(tool.Parameters(), this);
  layout->addWidget(FPanel);
  FExtra = new QVBoxLayout;
  layout->addLayout(FExtra);
  FMessage = new QLabel(this);
  FMessage->setObjectName("Message");
  FMessage->setStyleSheet("color: #b00000");
  FMessage->setWordWrap(true);
  layout->addWidget(FMessage);
  // The dialog menu.
  auto* settings = new QToolButton(this);
  settings->setText("Settings");
  settings->setPopupMode(QToolButton::InstantPopup);
  auto* menu = new QMenu(settings);
  menu->addAction("Load Default Settings", this, [this] {
    FTool.LoadDefaultSettings();
    FPanel->Refresh();
  });
  menu->addAction("Save Default Settings", this, [this] { FTool.SaveDefaultSettings(); });
  menu->addAction("Configure Default Settings", this, [this] {
    QMessageBox::information(this, "Configure Default Settings",
                             QString::fromStdString(FTool.ConfigureDefaultSettingsText()));
  });
  settings->setMenu(menu);
  layout->addWidget(settings, 0, Qt::AlignLeft);
  // A refused value: the problem in the message line, no extract until it is mended.
  FPanel->OnProblem = [this](const std::string& problem) {
    FMessage->setText(QString::fromStdString(problem));
    if (FTool.GetIsActive()) FTool.EnableDisableCalculations(problem.empty(), problem.empty(), nullptr);
    FPanel->RefreshStates();
  };
  connect(FDataSet, &QComboBox::activated, this, [this](int index) {
    if (TDataSetChanger* changer = DataSetChangerOf(FTool))
      if (index >= 0 && index < static_cast<int>(changer->GetIDs().size()))
        changer->Select(changer->GetIDs()[index]);
  });
  tool.SetWindow(this);
}

TQtToolWindow::~TQtToolWindow() {
  FTool.SetWindow(nullptr);
}

void TQtToolWindow::SetTitle(const std::string& title) {
  setWindowTitle(QString::fromStdString(title));
}

void TQtToolWindow::FillDataSetBox() {
  TDataSetChanger* changer = DataSetChangerOf(FTool);
  FDataSet->clear();
  FDataSet->setVisible(changer != nullptr && FTool.GetProject());
  if (!changer || !FTool.GetProject()) return;
  for (const std::string& caption : changer->GetCaptions(*FTool.GetProject()))
    FDataSet->addItem(QString::fromStdString(caption));
  const auto& ids = changer->GetIDs();
  const auto it = std::find(ids.begin(), ids.end(), changer->GetCurrentID());
  if (it != ids.end()) FDataSet->setCurrentIndex(static_cast<int>(it - ids.begin()));
}

void TQtToolWindow::ShowWindow() {
  FillDataSetBox();
  FMessage->clear();
  FPanel->Refresh();
  show();
  raise();
}

void TQtToolWindow::HideWindow() {
  hide();
}

void TQtToolWindow::BringToFront() {
  show();
  raise();
  activateWindow();
}

void TQtToolWindow::CenterOnPrimaryMonitor() {
  QScreen* screen = QGuiApplication::primaryScreen();
  if (!screen) return;
  adjustSize();
  const QRect area = screen->availableGeometry();
  move(area.center() - rect().center());
}

void TQtToolWindow::closeEvent(QCloseEvent* event) {
  FTool.WindowClosed();
  event->accept();
}

// --- Extensions ----------------------------------------------------------------------------------------

namespace {
std::map<std::string, TToolWindowExtension>& Extensions() {
  static std::map<std::string, TToolWindowExtension> extensions;
  return extensions;
}
} // namespace

void RegisterToolWindowExtension(const std::string& key, TToolWindowExtension extension) {
  Extensions()[key] = std::move(extension);
}

// --- Host ----------------------------------------------------------------------------------------------

TQtToolHost& TQtToolHost::Instance() {
  static TQtToolHost host;
  static const bool extensionsRegistered = (RegisterToolWindowExtensions(), true);
  (void)extensionsRegistered;
  return host;
}

void TQtToolHost::RegisterMenuEntries(std::function<TProject*()> project,
                                      std::function<std::vector<int32_t>()> selection) {
  for (const TToolEntry& entry : TToolRegistry::Instance().GetTools()) {
    const std::string key = entry.Key;
    TOrvexMainWindow::RegisterToolMenuEntry(
        {FolderCaption(entry.Folder), entry.Caption, [this, key, project, selection] {
           TProject* p = project();
           if (!p) return;
           const bool ctrl = QGuiApplication::queryKeyboardModifiers() & Qt::ControlModifier;
           OpenTool(key, *p, selection(), ctrl);
         }});
  }
}

TProjectDialogForm* TQtToolHost::OpenTool(const std::string& key, TProject& project,
                                          const std::vector<int32_t>& ids, bool ctrlDown) {
  const TToolEntry* entry = TToolRegistry::Instance().Find(key);
  if (!entry) return nullptr;
  TEntry& slot = FTools[entry->Key];
  if (!slot.Tool) {
    slot.Tool = entry->Create();
    slot.Window = std::make_unique<TQtToolWindow>(*slot.Tool);
    const auto extension = Extensions().find(entry->Key);
    if (extension != Extensions().end()) extension->second(*slot.Window, *slot.Tool);
  }
  TProjectDialogForm& tool = *slot.Tool;
  std::string reason;
  const TIntList list(ids.begin(), ids.end());
  if (!tool.IsInputIDListOkay(&project, &list, nullptr, &reason)) {
    Tell(tool.GetDialogName() + ": " + reason, tool.GetDialogName());
    return nullptr;
  }
  if (tool.GetIsActive() && !tool.IsCleanUpAllowed()) return nullptr;
  try {
    if (ctrlDown) {
      if (tool.GetIsActive()) tool.CleanUp();
      tool.RunNonInteractive(project, list, TProjectDialogForm::kExtract, false);
      return &tool;
    }
    tool.ResetDialogBehaviour();
    tool.Init(&list, nullptr, &project);
    tool.SetProjectDialogStartPosition();
    slot.Window->ShowWindow();
  } catch (const std::exception& e) {
    if (tool.GetIsActive()) tool.CleanUp();
    Tell(tool.GetDialogName() + ":\n\n" + e.what(), tool.GetDialogName());
    return nullptr;
  }
  return &tool;
}

TQtToolWindow* TQtToolHost::WindowOf(const std::string& key) const {
  const TToolEntry* entry = TToolRegistry::Instance().Find(key);
  if (!entry) return nullptr;
  auto it = FTools.find(entry->Key);
  return it == FTools.end() ? nullptr : it->second.Window.get();
}

void TQtToolHost::CloseAll() {
  for (auto& [key, slot] : FTools)
    if (slot.Tool && slot.Tool->GetIsActive()) slot.Tool->CleanUp();
  FTools.clear();
}
