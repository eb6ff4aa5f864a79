// The windows of the tools: each tool's window is made from its parameter declaration (the generic
// parameter panel with its commands as buttons), with the data set choice, a message line for refused
// values and the default-settings menu. The tool host keeps one tool object per registered tool for the
// whole run and fills the Tools menu from the registry.
#pragma once

#include "project/Projectdialogform.h"

#include <QSize>
#include <QWidget>
#include <functional>
#include <map>
#include <memory>

class QComboBox;
class QLabel;
class QVBoxLayout;
class TGraphMaskParameterLink;
class TQtGraphMaskToolBar;
class TQtParamPanel;
class TProject;

class TQtToolWindow : public QWidget, public IToolWindow {
public:
  explicit TQtToolWindow(TProjectDialogForm& tool, QWidget* parent = nullptr);
  ~TQtToolWindow() override;

  void SetTitle(const std::string& title) override;
  void ShowWindow() override;
  void HideWindow() override;
  void BringToFront() override;
  void CenterOnPrimaryMonitor() override;

  TQtParamPanel* Panel() const { return FPanel; }
  /// The line that names a refused value (empty when all values are accepted).
  QLabel* MessageLine() const { return FMessage; }
  QComboBox* DataSetBox() const { return FDataSet; }
  /// The area between the parameters and the message line where a tool's own widgets go (its statistics,
  /// file buttons, ...), filled by the tool's window extension.
  QVBoxLayout* ExtraArea() const { return FExtra; }
  /// The mask toolbar under the text field of a spectral mask parameter (null for other parameters).
  TQtGraphMaskToolBar* MaskToolBarOf(const std::string& name) const;
  /// The link of a spectral mask parameter to its mask over the preview spectrum, while the tool is
  /// open on a graph with a preview graph viewer (null otherwise).
  TGraphMaskParameterLink* MaskLinkOf(const std::string& name) const;
  /// Hands the mask of the parameter to the preview viewer: mask drawing there changes it.
  void SelectMaskForDrawing(const std::string& name);
  /// Gives each viewer of the tool that has no window yet its own window, side by side to the right of the
  /// tool's window (the tool's viewers stay out of the project's windows and go with the tool). sizeOf
  /// gives a viewer's window size; without it each is 700 × 460.
  void ShowToolViewers(const std::function<QSize(TVCustomForm*)>& sizeOf = {});

protected:
  void closeEvent(class QCloseEvent* event) override;

private:
  void FillDataSetBox();
  /// One toolbar row under each spectral mask parameter's text field.
  void AddMaskToolBars();
  /// Ties each spectral mask parameter to a mask over the preview spectrum of the open tool.
  void LinkMasks();
  /// Unties them; the preview viewer, if still there, no longer draws into them.
  void UnlinkMasks();

  TProjectDialogForm& FTool;
  TQtParamPanel* FPanel = nullptr;
  QLabel* FMessage = nullptr;
  QComboBox* FDataSet = nullptr;
  QVBoxLayout* FExtra = nullptr;
  std::map<std::string, TQtGraphMaskToolBar*> FMaskBars;
  std::map<std::string, std::unique_ptr<TGraphMaskParameterLink>> FMaskLinks;
};

/// What a tool adds to its generated window, called once when the window is made.
using TToolWindowExtension = std::function<void(TQtToolWindow& window, TProjectDialogForm& tool)>;

/// Registers the window extension of the tool with that registry key (the last registration wins).
void RegisterToolWindowExtension(const std::string& key, TToolWindowExtension extension);
/// The workbench's tool window extensions, one call per tool that has one; idempotent. Each tool's
/// extension lives in its own unit of this folder.
void RegisterToolWindowExtensions();

/// The tools of the workbench: one object and window per registered tool, opened from the Tools menu on
/// the project manager's selection.
class TQtToolHost {
public:
  static TQtToolHost& Instance();

  /// Adds an entry per registered tool to the Tools menu; selection gives the IDs to open a tool on.
  void RegisterMenuEntries(std::function<TProject*()> project,
                           std::function<std::vector<int32_t>()> selection);
  /// Opens the tool of key on ids (the user hears why when the tool refuses them); with ctrlDown it runs
  /// at once without window. Returns the tool, null when it didn't open.
  TProjectDialogForm* OpenTool(const std::string& key, TProject& project, const std::vector<int32_t>& ids,
                               bool ctrlDown = false);
  /// The window of an opened tool (tests).
  TQtToolWindow* WindowOf(const std::string& key) const;
  /// Closes every tool (at shutdown, before the project goes).
  void CloseAll();

private:
  struct TEntry {
    std::unique_ptr<TProjectDialogForm> Tool;
    std::unique_ptr<TQtToolWindow> Window;
  };
  std::map<std::string, TEntry> FTools;
};
