// The tool windows and the tool host.
#include "frame/Qttoolwindow.h"

#include "common/Standardmessage.h"
#include "frame/Mainwindow.h"
#include "frame/Qtgraphmasktoolbar.h"
#include "frame/Qtparampanel.h"
#include "frame/Qtviewerwindow.h"
#include "project/Graphmaskparameter.h"
#include "project/Processingdialogforms.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "viewers/Vmultigraph.h"

#include <QCloseEvent>
#include <QComboBox>
#include <QFormLayout>
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

// The graph viewer in which a tool shows and draws its spectral masks, null for other tools and while the
// tool is closed.
TVMultiGraphForm* PreviewGraphViewerOf(TProjectDialogForm& tool) {
  return dynamic_cast<TVMultiGraphForm*>(tool.GetSpectralMaskViewer());
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
  AddMaskToolBars();
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
      if (index >= 0 && index < static_cast<int>(changer->GetIDs().size())) {
        changer->Select(changer->GetIDs()[index]);
        LinkMasks(); // the masks follow the spectrum the preview shows now
      }
  });
  tool.SetWindow(this);
}

TQtToolWindow::~TQtToolWindow() {
  UnlinkMasks();
  FTool.SetWindow(nullptr);
}

// --- Spectral masks --------------------------------------------------------------------------------------

void TQtToolWindow::AddMaskToolBars() {
  auto* form = qobject_cast<QFormLayout*>(FPanel->layout());
  if (!form || !FTool.HasSpectralMaskViewer()) return;
  int band = 0;
  for (const TParameterDeclaration& declaration : FTool.Declaration().GetDeclarations()) {
    if (!declaration.SpectralMask) continue;
    QWidget* edit = FPanel->ControlOf(declaration.Name);
    int row = -1;
    QFormLayout::ItemRole role;
    if (edit) form->getWidgetPosition(edit, &row, &role);
    if (row < 0) continue;
    // The n-th mask shows as band n of the preview, so its toolbar carries that band's colour.
    auto* bar = new TQtGraphMaskToolBar(FPanel, nullptr, band++, 20);
    bar->setObjectName(QString::fromStdString(declaration.Name + " Toolbar"));
    const std::string name = declaration.Name;
    for (int c = static_cast<int>(TGraphMaskCommand::Set); c <= static_cast<int>(TGraphMaskCommand::Extract);
         ++c)
      connect(bar->Button(static_cast<TGraphMaskCommand>(c)), &QToolButton::pressed, this,
              [this, name] { SelectMaskForDrawing(name); });
    form->insertRow(row + 1, QString(), bar);
    FMaskBars[name] = bar;
  }
}

void TQtToolWindow::LinkMasks() {
  // A user drawing masks on the preview goes on drawing into the masks made anew.
  const TVMultiGraphForm* before = PreviewGraphViewerOf(FTool);
  const bool drawing = before && before->GetGraphMouseMode() == TGraphMouseMode::Mask && !FMaskLinks.empty();
  UnlinkMasks();
  TVMultiGraphForm* viewer = PreviewGraphViewerOf(FTool);
  const int32_t graphID = FTool.GetSpectralMaskGraphID();
  if (!viewer || graphID == 0 || !FTool.GetProject() || FMaskBars.empty()) return;
  TProjectDialogForm* tool = &FTool;
  auto source = [tool]() -> IGraphMaskViewer* { return PreviewGraphViewerOf(*tool); };
  for (auto& [name, bar] : FMaskBars) {
    auto* parameter = dynamic_cast<TUserStringParameter*>(FTool.Parameters().GetUserParameterByName(name));
    if (!parameter) continue;
    std::unique_ptr<TGraphMaskParameterLink> link;
    try {
      link = std::make_unique<TGraphMaskParameterLink>(*parameter, *FTool.GetProject(), graphID,
                                                       bar->Logic().GetColorIndex(), source);
    } catch (const std::exception&) {
      continue; // no spectrum to mask: the toolbar stays without mask
    }
    link->OnTextWritten = [this] { FPanel->Refresh(); };
    viewer->LinkMaskControls(link->Mask());
    bar->SetGraphMask(&link->Mask(), 0);
    bar->Logic().SetProject(FTool.GetProject());
    link->ShowBand();
    FMaskLinks[name] = std::move(link);
  }
  // Drawing starts on the first mask of the declaration.
  for (const TParameterDeclaration& declaration : FTool.Declaration().GetDeclarations())
    if (FMaskLinks.count(declaration.Name)) {
      SelectMaskForDrawing(declaration.Name);
      break;
    }
  if (drawing) viewer->SetGraphMouseMode(TGraphMouseMode::Mask);
}

void TQtToolWindow::UnlinkMasks() {
  if (TVMultiGraphForm* viewer = PreviewGraphViewerOf(FTool)) {
    for (auto& [name, link] : FMaskLinks)
      if (viewer->GetMaskTool() == &link->Mask()) viewer->SetMaskTool(nullptr);
    viewer->ClearMultiMasks(FTool.GetSpectralMaskGraphID());
  }
  for (auto& [name, bar] : FMaskBars) bar->SetGraphMask(nullptr, 0);
  FMaskLinks.clear();
}

TQtGraphMaskToolBar* TQtToolWindow::MaskToolBarOf(const std::string& name) const {
  const auto it = FMaskBars.find(name);
  return it == FMaskBars.end() ? nullptr : it->second;
}

TGraphMaskParameterLink* TQtToolWindow::MaskLinkOf(const std::string& name) const {
  const auto it = FMaskLinks.find(name);
  return it == FMaskLinks.end() ? nullptr : it->second.get();
}

void TQtToolWindow::SelectMaskForDrawing(const std::string& name) {
  TGraphMaskParameterLink* link = MaskLinkOf(name);
  TVMultiGraphForm* viewer = PreviewGraphViewerOf(FTool);
  if (!link || !viewer) return;
  // The viewer keeps its mouse mode: the user draws after choosing mask mode there.
  const bool drawing = viewer->GetGraphMouseMode() == TGraphMouseMode::Mask;
  viewer->SetMaskTool(&link->Mask(), false);
  if (drawing) viewer->SetGraphMouseMode(TGraphMouseMode::Mask);
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
  LinkMasks();
  FPanel->Refresh();
  show();
  raise();
  ShowToolViewers();
}

void TQtToolWindow::ShowToolViewers(const std::function<QSize(TVCustomForm*)>& sizeOf) {
  int left = frameGeometry().right() + 10;
  const int top = frameGeometry().top();
  for (TVCustomForm* viewer : FTool.GetCustomForms()) {
    if (TQtViewerWindow::WindowOf(viewer)) continue;
    const QSize size = sizeOf ? sizeOf(viewer) : QSize(700, 460);
    auto* shown = new TQtViewerWindow(viewer, nullptr);
    shown->resize(size);
    shown->move(left, top);
    shown->ShowViewerWindow(false);
    left += size.width() + 10;
  }
}

void TQtToolWindow::HideWindow() {
  UnlinkMasks();
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
  UnlinkMasks();
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
