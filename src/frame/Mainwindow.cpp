// The workbench's main window.
#include "frame/Mainwindow.h"

#include "common/Logfile.h"
#include "common/Saveandload.h"
#include "common/Standardmessage.h"
#include "frame/Projectmanager.h"
#include "frame/Qtexportdialog.h"
#include "frame/Qtviewerwindow.h"
#include "project/Autosaveproject.h"
#include "project/Orvexapplication.h"
#include "project/Orvexdirectories.h"
#include "project/Systemoptions.h"
#include "viewers/Viewerpositioning.h"
#include "viewers/Viewershow.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDialog>
#include <QDockWidget>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QFileDialog>
#include <QMenuBar>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

const char* kGeometryPath = "Workbench|Geometry";
const char* kRecentPath = "Workbench|RecentFiles";
const char* kRecoveryPath = "Workbench|RecoveryMinutes";
constexpr size_t kMaxRecent = 10;

// "Orvex Project|*.oxp" → "Orvex Project (*.oxp)".
QString QtFilter(const std::string& filter) {
  const size_t bar = filter.find('|');
  if (bar == std::string::npos) return QString::fromStdString(filter);
  return QString::fromStdString(filter.substr(0, bar) + " (" + filter.substr(bar + 1) + ")");
}

std::string UpperExtension(const std::string& fileName) {
  std::string ext = fs::path(fileName).extension().string();
  for (char& c : ext) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return ext;
}

// Asks through the message proxy; the answer, or Cancel when none came.
TStandardMessageAnswer Ask(const std::string& text, const std::string& caption,
                           const TStandardMessagePossibleAnswers& answers) {
  auto* message = TBlockingMultipleChoiceMessage::CreateAndInit_YesNo(text, caption, kSeverityQuestion,
                                                                      kProgressionInterrupt);
  message->DefinePossibleAnswers(answers);
  std::unique_ptr<IStandardMessageReply> reply(
      TMessageProxy::MsgProxySingleton()->IssueMessage(message, false));
  return reply ? reply->GetAnswer().first : kAnswerCancel;
}

std::vector<TScreenRect> CurrentScreens() {
  std::vector<TScreenRect> screens;
  for (const QScreen* screen : QGuiApplication::screens()) {
    const QRect r = screen->geometry();
    screens.push_back({r.left(), r.top(), r.width(), r.height()});
  }
  return screens;
}

} // namespace

TOrvexMainWindow::TOrvexMainWindow(TProjectActionForm& actions, std::string sessionID)
    : FActions(actions), FSessionID(std::move(sessionID)) {
  setObjectName("MainWindow");
  setAcceptDrops(true);
  resize(1000, 720);
  FManager = new TVProjectManagerForm(actions.Project(), FSessionID, this);
  FManagerDock = new QDockWidget("Project Manager", this);
  FManagerDock->setObjectName("ProjectManagerDock");
  FManagerDock->setWidget(FManager);
  FManagerDock->setFeatures(QDockWidget::DockWidgetMovable | QDockWidget::DockWidgetFloatable);
  addDockWidget(Qt::LeftDockWidgetArea, FManagerDock);
  resizeDocks({FManagerDock}, {380}, Qt::Horizontal);
  // The main area stays empty: viewers are windows of their own.
  auto* centre = new QWidget(this);
  centre->setMinimumSize(200, 100);
  setCentralWidget(centre);
  FManager->OnShowSelection = [this](const std::vector<int32_t>& ids) { ShowIDs(ids); };
  TQtViewerWindow::DecodeIDs = [session = FSessionID](const QMimeData* mime) {
    return TProjectManagerModel::DecodeIDs(mime, session);
  };
  TVCustomForm::OnShowDataInUse = [this](TVCustomForm* viewer) { FManager->Model().SetActiveViewer(viewer); };

  FActions.OnAskOpenFileName = [this](const std::string& t, const std::string& f, const std::string& d,
                                      std::string& n) { return AskOpen(t, f, d, n); };
  FActions.OnAskSaveFileName = [this](const std::string& t, const std::string& f, const std::string& d,
                                      std::string& n) { return AskSave(t, f, d, n); };

  TViewerPositioning* positioning = TViewerPositioning::CreateInstance();
  positioning->SetProject(&actions.Project());
  positioning->SetScreens(CurrentScreens());
  positioning->CheckWindowPositioningChange();
  // The layout of this monitor arrangement, or of the best smaller one.
  const std::string& layouts = TOrvexDirectories::User.UserWindowPositioning;
  if (!layouts.empty()) {
    positioning->SetLayoutFolder(layouts);
    if (positioning->LoadFromFile(positioning->GetFileNameForMonitors(false)) < 1) {
      const std::vector<TScreenRect> screens = CurrentScreens();
      int32_t width = screens.empty() ? 0 : screens.front().Width;
      int32_t height = screens.empty() ? 0 : screens.front().Height;
      if (positioning->GetExactOrSmallerKnownMonitorResolution(width, height))
        positioning->LoadFromFile(
            (fs::path(layouts) / TViewerPositioning::GetFileNameByMonitorString(
                                     std::to_string(width) + "x" + std::to_string(height) + "+0+0"))
                .string());
    }
  }
  auto screensChanged = [] {
    if (TViewerPositioning* p = TViewerPositioning::Instance()) {
      p->SetScreens(CurrentScreens());
      p->CheckWindowPositioningChange();
    }
  };
  connect(qApp, &QGuiApplication::screenAdded, this, screensChanged);
  connect(qApp, &QGuiApplication::screenRemoved, this, screensChanged);

  FRecoveryTimer = new QTimer(this);
  connect(FRecoveryTimer, &QTimer::timeout, this, [this] { WriteRecoveryCopy(); });

  BuildMenus();
  ConnectProject();
  LoadSettings();
  UpdateTitle();
  // Viewers the project holds already (a file of the command line) get their windows now.
  for (TVCustomForm* viewer : actions.Project().GetAllViewersWithoutHardwareAndDialog()) {
    positioning->PlaceLoadedViewer(viewer);
    if (TQtViewerWindow* window = EnsureWindow(viewer)) window->ShowViewerWindow(false);
  }
}

TOrvexMainWindow::~TOrvexMainWindow() {
  TProject& project = FActions.Project();
  project.OnFileNameOrChangedState = nullptr;
  project.OnDataChange = nullptr;
  project.OnClear = nullptr;
  project.OnAfterNewOrLoad = nullptr;
  project.OnShowViewer = nullptr;
  project.OnSetViewerPosition = nullptr;
  project.OnPlaceLoadedViewer = nullptr;
  FActions.OnAskOpenFileName = nullptr;
  FActions.OnAskSaveFileName = nullptr;
  TVCustomForm::OnShowDataInUse = nullptr;
  TQtViewerWindow::DecodeIDs = nullptr;
  for (auto& [viewer, window] : FWindows) {
    viewer->AttachWindow(nullptr);
    window->OnViewerGone = nullptr;
    window->OnFreeViewer = nullptr;
    delete window;
  }
  FWindows.clear();
  TViewerPositioning::CleanupInstance();
}

void TOrvexMainWindow::RegisterToolMenuEntry(const TToolMenuEntry& entry) {
  FToolEntries.push_back(entry);
}

void TOrvexMainWindow::ClearToolMenuEntries() {
  FToolEntries.clear();
}

// ---------------------------------------------------------------------------------------------
// Menus

void TOrvexMainWindow::BuildMenus() {
  QMenu* file = menuBar()->addMenu("&File");
  file->setObjectName("FileMenu");
  auto add = [this](QMenu* menu, const QString& text, const QKeySequence& key, std::function<void()> fn) {
    QAction* action = menu->addAction(text);
    action->setObjectName(text);
    if (!key.isEmpty()) action->setShortcut(key);
    connect(action, &QAction::triggered, this, [fn = std::move(fn)] { fn(); });
    return action;
  };
  add(file, "New", QKeySequence::New, [this] {
    if (QueryClose()) FActions.Project().NewProject();
  });
  add(file, "Open...", QKeySequence::Open, [this] {
    std::string name;
    if (AskOpen("Open Project", TProjectActionForm::kProjectFilter, FActions.RememberFilePath().GetPath(),
                name))
      OpenFile(name, false);
  });
  FRecentMenu = file->addMenu("Open Recent");
  connect(FRecentMenu, &QMenu::aboutToShow, this, [this] { FillRecentMenu(); });
  add(file, "Append Project...", {}, [this] {
    std::string name;
    if (AskOpen("Append Project", TProjectActionForm::kProjectFilter, FActions.RememberFilePath().GetPath(),
                name))
      OpenFile(name, true);
  });
  add(file, "Append Data...", {}, [this] { FActions.LoadDataList(); });
  file->addSeparator();
  add(file, "Save", QKeySequence::Save, [this] {
    if (FActions.SaveProject(true)) AddRecent(FActions.Project().GetFileName());
  });
  add(file, "Save As...", QKeySequence::SaveAs, [this] {
    if (FActions.SaveProjectAs()) AddRecent(FActions.Project().GetFileName());
  });
  add(file, "Save As Compatible...", {}, [this] {
    std::string name = FActions.Project().GetFileName();
    if (AskSave("Save Project for Older Versions", TProjectActionForm::kProjectFilter,
                FActions.RememberFilePath().GetPath(), name))
      FActions.SaveProjectAsCompatible(name);
  });
  add(file, "Save Selected Data...", {}, [this] {
    const std::vector<int32_t> ids = FManager->SelectedIDs();
    if (!ids.empty()) FActions.SaveDataList(TIntList(ids.begin(), ids.end()));
  });
  // Export of the selected objects with each export filter, in list order.
  QMenu* exportMenu = file->addMenu("Export Selected Data");
  exportMenu->setObjectName("ExportMenu");
  {
    const std::vector<std::string> names = TQtExporter(FActions.Project()).FilterNames();
    for (size_t i = 0; i < names.size(); ++i)
      add(exportMenu, QString::fromStdString(names[i] + "..."), {}, [this, i] {
        const std::vector<int32_t> ids = FManager->SelectedIDs();
        if (ids.empty()) return;
        TQtExporter exporter(FActions.Project());
        exporter.Export(static_cast<int>(i), TIntList(ids.begin(), ids.end()), this);
      });
  }
  add(file, "Auto Save Next", {}, [] { TAutoSaveProject::SaveNextMainThread(); });
  file->addSeparator();
  add(file, "Quit", QKeySequence::Quit, [this] { close(); });

  FToolsMenu = menuBar()->addMenu("&Tools");
  connect(FToolsMenu, &QMenu::aboutToShow, this, [this] { FillToolsMenu(); });
  FillToolsMenu();

  FWindowMenu = menuBar()->addMenu("&Window");
  connect(FWindowMenu, &QMenu::aboutToShow, this, [this] { FillWindowMenu(); });
  FillWindowMenu();

  QMenu* help = menuBar()->addMenu("&Help");
  add(help, "About", {}, [this] { ShowAbout(); });
  add(help, "Show Log", {}, [this] { ShowLog(); });
}

void TOrvexMainWindow::FillToolsMenu() {
  FToolsMenu->clear();
  std::map<std::string, QMenu*> submenus;
  for (const TToolMenuEntry& entry : FToolEntries) {
    QMenu* menu = FToolsMenu;
    std::string path;
    size_t start = 0;
    while (start <= entry.Path.size() && !entry.Path.empty()) {
      const size_t bar = entry.Path.find('|', start);
      const std::string part =
          entry.Path.substr(start, bar == std::string::npos ? std::string::npos : bar - start);
      path += "|" + part;
      auto found = submenus.find(path);
      menu = found != submenus.end() ? found->second
                                     : (submenus[path] = menu->addMenu(QString::fromStdString(part)));
      if (bar == std::string::npos) break;
      start = bar + 1;
    }
    QAction* action = menu->addAction(QString::fromStdString(entry.Caption));
    action->setObjectName(QString::fromStdString(entry.Caption));
    connect(action, &QAction::triggered, this, [fn = entry.Action] {
      if (fn) fn();
    });
  }
  if (FToolEntries.empty()) FToolsMenu->addAction("(no tools)")->setEnabled(false);
}

void TOrvexMainWindow::FillWindowMenu() {
  FWindowMenu->clear();
  for (TVCustomForm* viewer : FActions.Project().GetAllViewersWithoutHardwareAndDialog()) {
    TQtViewerWindow* window = WindowOf(viewer);
    if (!window) continue;
    QAction* action = FWindowMenu->addAction(QString::fromStdString(viewer->GetTitle()));
    connect(action, &QAction::triggered, this, [window] {
      window->showNormal();
      window->raise();
      window->activateWindow();
    });
  }
  FWindowMenu->addSeparator();
  QAction* positions = FWindowMenu->addAction("Set Viewer Positions");
  connect(positions, &QAction::triggered, this, [] {
    if (TViewerPositioning* p = TViewerPositioning::Instance()) p->SetAllViewerPosition();
  });
  QAction* closeAll = FWindowMenu->addAction("Close All");
  connect(closeAll, &QAction::triggered, this, [this] { CloseAllViewers(); });
}

void TOrvexMainWindow::FillRecentMenu() {
  FRecentMenu->clear();
  for (const std::string& name : FRecent) {
    QAction* action = FRecentMenu->addAction(QString::fromStdString(name));
    connect(action, &QAction::triggered, this, [this, name] { OpenFile(name, false); });
  }
  if (FRecent.empty()) FRecentMenu->addAction("(empty)")->setEnabled(false);
}

void TOrvexMainWindow::AddRecent(const std::string& fileName) {
  if (fileName.empty()) return;
  std::erase(FRecent, fileName);
  FRecent.insert(FRecent.begin(), fileName);
  if (FRecent.size() > kMaxRecent) FRecent.resize(kMaxRecent);
}

// ---------------------------------------------------------------------------------------------
// Project

void TOrvexMainWindow::ConnectProject() {
  TProject& project = FActions.Project();
  project.OnFileNameOrChangedState = [this] { UpdateTitle(); };
  auto reload = std::make_shared<bool>(false);
  auto scheduleReload = [this, reload] {
    if (*reload) return;
    *reload = true;
    QTimer::singleShot(0, this, [this, reload] {
      *reload = false;
      FManager->Model().Reload();
    });
  };
  project.OnDataChange = [this, scheduleReload](TData* data, TDataChangeInfo info) {
    if (info == TDataChangeInfo::Added || info == TDataChangeInfo::Removed ||
        info == TDataChangeInfo::AboutToBeDeleted)
      scheduleReload();
    else if (data)
      FManager->Model().ObjectChanged(data->GetID());
  };
  project.OnClear = [this] { FManager->Model().Reload(); };
  project.OnAfterNewOrLoad = scheduleReload;
  project.OnShowViewer = [this](TVCustomForm* viewer) {
    if (TQtViewerWindow* window = EnsureWindow(viewer)) window->ShowViewerWindow(false);
  };
  project.OnSetViewerPosition = [](TVCustomForm* viewer, bool recalculating) {
    if (TViewerPositioning* p = TViewerPositioning::Instance()) p->SetViewerPosition(viewer, recalculating);
  };
  project.OnPlaceLoadedViewer = [](TVCustomForm* viewer) {
    if (TViewerPositioning* p = TViewerPositioning::Instance()) p->PlaceLoadedViewer(viewer);
  };
}

TQtViewerWindow* TOrvexMainWindow::WindowOf(TVCustomForm* viewer) const {
  const auto it = FWindows.find(viewer);
  return it == FWindows.end() ? nullptr : it->second;
}

TQtViewerWindow* TOrvexMainWindow::EnsureWindow(TVCustomForm* viewer) {
  if (!viewer) return nullptr;
  if (TQtViewerWindow* window = WindowOf(viewer)) return window;
  // A stored viewer of a class this program doesn't build has no window.
  if (dynamic_cast<TVStoredViewer*>(viewer) || viewer->GetMode() != TViewerMode::Normal) return nullptr;
  auto* window = new TQtViewerWindow(viewer, this);
  window->OnFreeViewer = [this](TVCustomForm* v) { FreeViewer(v); };
  window->OnViewerGone = [this](TVCustomForm* v) { FWindows.erase(v); };
  FWindows[viewer] = window;
  return window;
}

void TOrvexMainWindow::FreeViewer(TVCustomForm* viewer) {
  const std::string className = viewer->GetClassNameA();
  std::unique_ptr<TVCustomForm> owned = FActions.Project().ReleaseViewer(viewer);
  owned.reset(); // the window hears of it and goes
  TViewerPositioning* positioning = TViewerPositioning::Instance();
  if (positioning && positioning->ResetPositionsOnClose)
    positioning->SetAllViewerPositionWithClassName(className, false);
}

void TOrvexMainWindow::CloseAllViewers() {
  std::vector<TQtViewerWindow*> windows;
  for (auto& [viewer, window] : FWindows) windows.push_back(window);
  for (TQtViewerWindow* window : windows) window->close();
}

bool TOrvexMainWindow::ShowIDs(const std::vector<int32_t>& ids) {
  if (ids.empty()) return false;
  TVCustomForm* viewer = ShowIDsInViewer(FActions.Project(), TIntList(ids.begin(), ids.end()));
  if (!viewer) return false;
  if (TQtViewerWindow* window = WindowOf(viewer)) window->ShowViewerWindow(true);
  return true;
}

QString TOrvexMainWindow::ComposeTitle() const {
  const TProject& project = FActions.Project();
  const std::string name = project.GetFileName().empty()
                               ? std::string("Untitled")
                               : fs::path(project.GetFileName()).filename().string();
  return QString::fromStdString("Orvex Project - " + name + (project.GetProjectChanged() ? "*" : ""));
}

void TOrvexMainWindow::UpdateTitle() {
  setWindowTitle(ComposeTitle());
}

bool TOrvexMainWindow::OpenFile(const std::string& fileName, bool append) {
  const std::string ext = UpperExtension(fileName);
  bool ok = false;
  if (ext == ".OXP") {
    if (append) {
      ok = FActions.AppendProject(fileName);
    } else {
      if (!QueryClose()) return false;
      ok = FActions.LoadProject(fileName);
    }
    if (ok) AddRecent(fileName);
  } else if (ext == ".OXD") {
    ok = FActions.AppendDataList(fileName);
  } else {
    return false;
  }
  return ok;
}

// ---------------------------------------------------------------------------------------------
// Dialogs

bool TOrvexMainWindow::AskOpen(const std::string& title, const std::string& filter, const std::string& folder,
                               std::string& fileName) {
  const QString name = QFileDialog::getOpenFileName(this, QString::fromStdString(title),
                                                    QString::fromStdString(folder), QtFilter(filter));
  if (name.isEmpty()) return false;
  fileName = name.toStdString();
  return true;
}

bool TOrvexMainWindow::AskSave(const std::string& title, const std::string& filter, const std::string& folder,
                               std::string& fileName) {
  const std::string start = fileName.empty() ? folder : fileName;
  const QString name = QFileDialog::getSaveFileName(this, QString::fromStdString(title),
                                                    QString::fromStdString(start), QtFilter(filter));
  if (name.isEmpty()) return false;
  fileName = name.toStdString();
  return true;
}

void TOrvexMainWindow::ShowAbout() {
  auto* message = TBlockingNotification::CreateAndInit(
      TOrvexApplication::ProgramInfo() +
          "\n\nA data-evaluation workbench for confocal Raman and scanning probe microscopy.",
      "About Orvex Project");
  delete TMessageProxy::MsgProxySingleton()->IssueMessage(message, false);
}

void TOrvexMainWindow::ShowLog() {
  const std::string name = GlobalLogFile ? GlobalLogFile->GetFileName() : std::string();
  QFile file(QString::fromStdString(name));
  QString text = "No log file is open.";
  if (!name.empty() && file.open(QIODevice::ReadOnly)) text = QString::fromUtf8(file.readAll());
  auto* dialog = new QDialog(this);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setWindowTitle(QString::fromStdString("Log - " + name));
  auto* layout = new QVBoxLayout(dialog);
  auto* view = new QPlainTextEdit(text, dialog);
  view->setReadOnly(true);
  view->setLineWrapMode(QPlainTextEdit::NoWrap);
  layout->addWidget(view);
  dialog->resize(800, 500);
  dialog->show();
}

// ---------------------------------------------------------------------------------------------
// Closing, settings, recovery

bool TOrvexMainWindow::QueryClose() {
  if (FNoQuestions) return true;
  TProject& project = FActions.Project();
  if (!project.GetProjectChanged() || !project.ProjectHasData()) return true;
  const TStandardMessageAnswer answer = Ask("Save Project?", "Warning",
                                            {{kAnswerYes, kProgressionContinue},
                                             {kAnswerNo, kProgressionContinue},
                                             {kAnswerCancel, kProgressionInterrupt}});
  if (answer == kAnswerYes) return FActions.SaveProject(true);
  return answer == kAnswerNo;
}

void TOrvexMainWindow::closeEvent(QCloseEvent* event) {
  if (!QueryClose()) {
    event->ignore();
    return;
  }
  SaveSettings();
  if (TViewerPositioning* p = TViewerPositioning::Instance()) p->CheckAndSaveWindowPositioning();
  if (!FNoQuestions) DeleteRecoveryCopy();
  FRecoveryTimer->stop();
  for (auto& [viewer, window] : FWindows) window->hide();
  event->accept();
}

void TOrvexMainWindow::ShutdownWithoutQuestions() {
  FNoQuestions = true;
  WriteRecoveryCopy();
  close();
  QCoreApplication::quit();
}

void TOrvexMainWindow::LoadSettings() {
  const std::string geometry = TSystemOptionsHelper::GetString(kGeometryPath, "");
  if (!geometry.empty()) restoreGeometry(QByteArray::fromBase64(QByteArray::fromStdString(geometry)));
  const QString recent = QString::fromStdString(TSystemOptionsHelper::GetString(kRecentPath, ""));
  FRecent.clear();
  for (const QString& name : recent.split('\n', Qt::SkipEmptyParts)) FRecent.push_back(name.toStdString());
  int minutes = 5;
  try {
    minutes = std::stoi(TSystemOptionsHelper::GetString(kRecoveryPath, "5"));
  } catch (const std::exception&) { // a damaged entry: the default
  }
  SetRecoveryInterval(minutes);
}

void TOrvexMainWindow::SaveSettings() {
  TSystemOptionsHelper::SetString(kGeometryPath, saveGeometry().toBase64().toStdString());
  std::string recent;
  for (const std::string& name : FRecent) recent += name + "\n";
  TSystemOptionsHelper::SetString(kRecentPath, recent);
}

void TOrvexMainWindow::SetRecoveryInterval(int minutes) {
  TSystemOptionsHelper::SetString(kRecoveryPath, std::to_string(std::max(0, minutes)));
  if (minutes <= 0) {
    FRecoveryTimer->stop();
    return;
  }
  FRecoveryTimer->start(minutes * 60 * 1000);
}

std::string TOrvexMainWindow::RecoveryFileName() const {
  const std::string folder =
      RecoveryFolder.empty() ? TOrvexDirectories::User.InternalSettings : RecoveryFolder;
  const std::string& file = FActions.Project().GetFileName();
  const std::string stem = file.empty() ? std::string("Untitled") : fs::path(file).stem().string();
  return (fs::path(folder) / "Recovery" / (stem + ".oxp")).string();
}

bool TOrvexMainWindow::WriteRecoveryCopy() {
  TProject& project = FActions.Project();
  if (!project.GetProjectChanged()) return false;
  const std::string name = RecoveryFileName();
  std::error_code error;
  fs::create_directories(fs::path(name).parent_path(), error);
  std::string tempName = name;
  const TFileHandle file = CreateFileSafeOverWrite(name, tempName);
  if (file == kInvalidFileHandle) return false;
  // The copy leaves the project's name and its unsaved state alone.
  TTagError result = teUnspecificError;
  try {
    result = project.SaveProjectToTagFile(file);
  } catch (...) {
    result = teUnspecificError;
  }
  CloseFile(file);
  project.SetProjectChanged(true);
  const bool wroteTemp = !tempName.empty() && tempName != name;
  if (result < 1) {
    DeleteFileByName(wroteTemp ? tempName : name);
    return false;
  }
  if (wroteTemp && !DeleteAndRenameFiles(name, tempName)) return false;
  if (GlobalLogFile) GlobalLogFile->AddLog("Recovery copy written: " + name);
  return true;
}

void TOrvexMainWindow::DeleteRecoveryCopy() {
  std::error_code error;
  fs::remove(RecoveryFileName(), error);
}

std::vector<std::string> TOrvexMainWindow::FindRecoveryCopies() {
  const std::string folder =
      RecoveryFolder.empty() ? TOrvexDirectories::User.InternalSettings : RecoveryFolder;
  std::vector<std::string> copies;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(fs::path(folder) / "Recovery", error))
    if (entry.path().extension() == ".oxp") copies.push_back(entry.path().string());
  std::sort(copies.begin(), copies.end());
  return copies;
}

void TOrvexMainWindow::OfferRecoveryCopies() {
  for (const std::string& copy : FindRecoveryCopies()) {
    const TStandardMessageAnswer answer =
        Ask("The last run ended without saving this project:\n" + copy + "\n\nOpen the recovery copy?",
            "Recovery", {{kAnswerYes, kProgressionContinue}, {kAnswerNo, kProgressionInterrupt}});
    if (answer == kAnswerYes && QueryClose() && FActions.LoadProject(copy)) {
      TProject& project = FActions.Project();
      project.SetFileName("");
      project.SetProjectChanged(true);
    }
    std::error_code error;
    fs::remove(copy, error);
    if (answer == kAnswerYes) WriteRecoveryCopy();
  }
}

void TOrvexMainWindow::dragEnterEvent(QDragEnterEvent* event) {
  if (!event->mimeData()->hasUrls()) return;
  for (const QUrl& url : event->mimeData()->urls()) {
    const std::string ext = UpperExtension(url.toLocalFile().toStdString());
    if (ext == ".OXP" || ext == ".OXD") {
      event->acceptProposedAction();
      return;
    }
  }
}

void TOrvexMainWindow::dropEvent(QDropEvent* event) {
  const bool append = event->modifiers().testFlag(Qt::ShiftModifier);
  bool any = false;
  for (const QUrl& url : event->mimeData()->urls())
    any = OpenFile(url.toLocalFile().toStdString(), append) || any;
  if (any) event->acceptProposedAction();
}
