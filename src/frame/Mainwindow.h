// The workbench's main window: the file, tools, window and help menus on the project commands, the docked
// project manager, viewer windows, dropped files, recent files and geometry between runs, the recovery copy
// of a changed project, and the question before quitting.
#pragma once

#include "project/Projectactionform.h"

#include <QMainWindow>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

class QDockWidget;
class QMenu;
class QTimer;
class TQtViewerWindow;
class TVProjectManagerForm;
class TVCustomForm;

/// A command of the Tools menu: its path ("Spectral|Background"), caption and action.
struct TToolMenuEntry {
  std::string Path;
  std::string Caption;
  std::function<void()> Action;
};

class TOrvexMainWindow : public QMainWindow {
public:
  /// The window over actions' project; sessionID marks the drags of this process.
  TOrvexMainWindow(TProjectActionForm& actions, std::string sessionID);
  ~TOrvexMainWindow() override;

  /// Adds a command to the Tools menu of every main window made afterwards (and of this one).
  static void RegisterToolMenuEntry(const TToolMenuEntry& entry);
  static void ClearToolMenuEntries();

  TProjectActionForm& Actions() { return FActions; }
  TVProjectManagerForm* ProjectManager() const { return FManager; }
  /// The window of a viewer, null when it has none.
  TQtViewerWindow* WindowOf(TVCustomForm* viewer) const;
  /// "Orvex Project - <file name>" with "*" while the project has unsaved changes.
  QString ComposeTitle() const;

  /// Opens a file as the command line or a drop would: .oxp loads (after the question about the present
  /// project), or appends with append; .oxd appends. False when nothing was done.
  bool OpenFile(const std::string& fileName, bool append);
  /// Shows the IDs in the first viewer that accepts them; false when none does.
  bool ShowIDs(const std::vector<int32_t>& ids);

  /// @{ Recovery copy: "Recovery/<name>.oxp" in the settings folder, written by a timer when the project
  /// has unsaved changes, without touching the project's name or state. Interval in minutes; 0: off.
  void SetRecoveryInterval(int minutes);
  std::string RecoveryFileName() const;
  bool WriteRecoveryCopy();
  void DeleteRecoveryCopy();
  /// Recovery copies that a run left behind (after a crash).
  static std::vector<std::string> FindRecoveryCopies();
  /// Offers each copy left behind; Yes loads it as an unsaved project. The copy is deleted either way.
  void OfferRecoveryCopies();
  /// @}

  /// Ends the run without questions (a termination signal): recovery copy of a changed project, then close.
  void ShutdownWithoutQuestions();
  /// The question before quitting: true when the window may close (saved, not wanted, or unchanged).
  bool QueryClose();

  /// The settings folder for recovery copies (default: the internal settings folder).
  static inline std::string RecoveryFolder;

protected:
  void closeEvent(QCloseEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

private:
  void BuildMenus();
  void FillRecentMenu();
  void FillWindowMenu();
  void FillToolsMenu();
  void UpdateTitle();
  void ConnectProject();
  TQtViewerWindow* EnsureWindow(TVCustomForm* viewer);
  void FreeViewer(TVCustomForm* viewer);
  void CloseAllViewers();
  void SaveSettings();
  void LoadSettings();
  void AddRecent(const std::string& fileName);
  bool AskOpen(const std::string& title, const std::string& filter, const std::string& folder,
               std::string& fileName);
  bool AskSave(const std::string& title, const std::string& filter, const std::string& folder,
               std::string& fileName);
  void ShowLog();
  void ShowAbout();

  TProjectActionForm& FActions;
  std::string FSessionID;
  TVProjectManagerForm* FManager = nullptr;
  QDockWidget* FManagerDock = nullptr;
  QMenu* FRecentMenu = nullptr;
  QMenu* FWindowMenu = nullptr;
  QMenu* FToolsMenu = nullptr;
  QTimer* FRecoveryTimer = nullptr;
  std::map<TVCustomForm*, TQtViewerWindow*> FWindows;
  std::vector<std::string> FRecent;
  bool FNoQuestions = false;
  bool FClosing = false;
  static inline std::vector<TToolMenuEntry> FToolEntries;
};
