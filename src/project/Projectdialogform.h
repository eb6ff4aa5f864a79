// The frame of every analysis tool: opened on a list of data object IDs, it keeps preview objects and
// viewers in the project while it is open, holds the tool's parameters (declared once in a table that
// also gives the window, the command line's --set and the stored defaults), runs its commands and turns
// the calculation into new objects with a replayable history. No widgets: the window is a peer.
#pragma once

#include "common/parameters/Parametertable.h"
#include "data/Dcustom.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class TDConnector;
class TProject;
class TVCustomForm;

/// What the frame needs of a tool's window; the workbench gives a Qt window, tests a recording peer, the
/// command line none. The window shows the tool's parameters itself (they announce their changes).
class IToolWindow {
public:
  virtual ~IToolWindow() = default;
  virtual void SetTitle(const std::string& title) = 0;
  virtual void ShowWindow() = 0;
  virtual void HideWindow() = 0;
  virtual void BringToFront() = 0;
  /// Centres the window on the primary monitor; nothing without one.
  virtual void CenterOnPrimaryMonitor() = 0;
};

/// The viewers a tool opens, supplied by the viewer library (the frame can't name viewer classes).
/// Without a factory the previews run without viewers.
class IToolViewerFactory {
public:
  virtual ~IToolViewerFactory() = default;
  /// A graph viewer on graphID that also shows the graphs of moreIDs, with the tool preview's zoom options.
  virtual std::unique_ptr<TVCustomForm> CreateGraphViewer(TProject& project, int32_t graphID,
                                                          const std::vector<int32_t>& moreIDs) = 0;
  /// An image viewer on imageID; check sets its Check action.
  virtual std::unique_ptr<TVCustomForm> CreateImageViewer(TProject& project, int32_t imageID, bool check) = 0;
  /// Points an image viewer at another image.
  virtual void SetImageID(TVCustomForm& viewer, int32_t imageID) = 0;
  /// Raises (true) or lowers the viewer's AutoUpdate counter around a series of changes.
  virtual void SetAutoUpdate(TVCustomForm& viewer, bool hold) = 0;

  static void SetFactory(IToolViewerFactory* factory) { FFactory = factory; }
  static IToolViewerFactory* GetFactory() { return FFactory; }

private:
  static inline IToolViewerFactory* FFactory = nullptr;
};

/// History entries that tool runs write; their text is an `orvex run` command line.
inline constexpr THistoryEntryType kHistoryEntryToolRun = 16;

/// The space cursor's nearest pixel of the graph: true with x, y inside the graph's field, false when the
/// graph or its cursor is missing or the cursor lies outside.
bool GetXYCoordinateFromGraphCursor(TProject& project, int32_t& x, int32_t& y, int32_t graphID);

class TProjectDialogForm {
public:
  /// The names of the frame's commands (trigger parameters of the tools that have them).
  static constexpr const char* kExtract = "Extract";
  static constexpr const char* kExtractAll = "Extract All";
  static constexpr const char* kCalculatePreview = "Calculate Preview";

  TProjectDialogForm(std::string dialogName, TParameterTable& declaration);
  virtual ~TProjectDialogForm();
  TProjectDialogForm(const TProjectDialogForm&) = delete;
  TProjectDialogForm& operator=(const TProjectDialogForm&) = delete;

  virtual std::string GetClassNameA() const = 0;
  /// The frame the tool stands on: "TProjectDialogForm", "TProjectGraphProcessingDialogForm", ...
  virtual std::string GetFrameName() const { return "TProjectDialogForm"; }
  /// The registry key: class name without "T" and "Form".
  std::string GetToolKey() const;

  const std::string& GetDialogName() const { return FDialogName; }
  void SetDialogName(const std::string& name);

  // --- Window ---------------------------------------------------------------------------------------
  void SetWindow(IToolWindow* window);
  IToolWindow* GetWindow() const { return FWindow; }

  // --- Parameters -----------------------------------------------------------------------------------
  /// The current values; the window, --set, the stored settings and the history all work on these.
  TUserParameterAdministrator& Parameters() { return FParameters; }
  const TUserParameterAdministrator& Parameters() const { return FParameters; }
  const TParameterTable& Declaration() const { return FDeclaration; }
  /// The triggers of the declaration, in order: every command the tool offers.
  std::vector<const TParameterDeclaration*> GetCommands() const;
  /// The commands that make results (Extract, Extract All and a tool's own, like "Extract Amplitude");
  /// `orvex run --command` picks one of them.
  virtual std::vector<std::string> GetExtractCommands() const;
  /// Every value back to its declared default.
  void ResetParametersToDeclared();
  /// @{ Values by declared name; a name that isn't declared with that kind is a programming error.
  int32_t GetIntParameter(const std::string& name) const;
  double GetFloatParameter(const std::string& name) const;
  bool GetBoolParameter(const std::string& name) const;
  std::string GetStringParameter(const std::string& name) const;
  /// @}

  /// @{ Stored defaults: ToolDefaults/<key>.oxh in the user's data folder.
  std::string GetDefaultSettingsFileName() const;
  /// "Save Default Settings"; false (and the user told) when the file can't be written.
  bool SaveDefaultSettings();
  /// "Load Default Settings": the stored values, or the declared ones when none are stored. False when a
  /// stored file exists but can't be read (the values then stay as they were).
  bool LoadDefaultSettings();
  /// Removes the stored file; true when none is left.
  bool ResetDefaultSettings();
  /// "Configure Default Settings": the parameters as the tag tree text.
  std::string ConfigureDefaultSettingsText();
  /// @}

  // --- Life cycle -----------------------------------------------------------------------------------
  /// Asked before the tool opens. reason gets one line when the list is refused.
  virtual bool IsInputIDListOkay(TProject* project, const TIntList* ids, const TIntList* extra,
                                 std::string* reason = nullptr);
  /// Opens the tool on ids in the project (the active one when project is null).
  virtual void Init(const TIntList* ids, const TIntList* extra, TProject* project = nullptr);
  virtual void CleanUp();
  bool GetIsActive() const { return FProject != nullptr; }
  TProject* GetProject() const { return FProject; }
  const TIntList& GetInitIDs() const { return FInitIDs; }

  virtual void DoRemoveData(TData* data);
  virtual void DoDataChange(TData* data);
  virtual void DoProjectDialogClick();
  virtual void DoClearProject();
  virtual void ResetDialogBehaviour();
  /// Interactive unless the Ctrl key is down at the drop.
  virtual void SetBehaviourForDropAction(bool ctrlDown);
  virtual void SetProjectDialogStartPosition();
  /// Enables the frame's commands; the tool's own follow its calls.
  virtual void EnableDisableCalculations(bool extract, bool extractAll, TIntList* ids);
  virtual bool IsDataUsed(int32_t id) const;
  /// True when the tool previews spectra in a graph viewer over which its spectral mask parameters can be
  /// shown and drawn (its window then gives each of them a mask toolbar).
  virtual bool HasSpectralMaskViewer() const { return false; }
  /// That viewer and the graph whose points the masks cover, as they are now: null and 0 while there is
  /// none (before Init, after CleanUp).
  virtual TVCustomForm* GetSpectralMaskViewer() const { return nullptr; }
  virtual int32_t GetSpectralMaskGraphID() const { return 0; }
  /// True when inactive; an active tool asks "Confirm Dialog Closing".
  virtual bool IsCleanUpAllowed();
  /// The window was closed: CleanUp when active and CleanUpOnClose.
  void WindowClosed();

  /// The parameters as value tags below tag, and back.
  virtual void GetDialogParameters(TTagControl& tag);
  virtual void SetDialogParameters(const TTagControl& tag);

  /// @{ Temporary objects and viewers of the open tool; removed by CleanUp, never saved.
  void AddDataToProject(std::unique_ptr<TData> data);
  void RemoveDataFromProject(int32_t id);
  const TIntList& GetTemporaryIDs() const { return FTemporaryIDs; }
  TVCustomForm* AddCustomForm(std::unique_ptr<TVCustomForm> viewer);
  void RemoveCustomForm(TVCustomForm* viewer);
  const std::vector<TVCustomForm*>& GetCustomForms() const { return FCustomForms; }
  /// @}

  using TDataChangedCallback = std::function<void(TData*, TDataChangeInfo)>;
  /// Returns a handle for RemoveDataChangedCallback; a null callback is ignored (handle 0).
  int AddDataChangedCallback(TDataChangedCallback callback);
  void RemoveDataChangedCallback(int handle);

  // --- Commands and results -------------------------------------------------------------------------
  /// Runs a command (a trigger of the declaration) as its button does; all: the whole input list.
  /// Results made meanwhile enter the project at the end, each with its history. Exceptions of the
  /// calculation reach the caller, once. False when the command is unknown or disabled.
  bool ExecuteCommand(const std::string& name, bool all = false);
  /// The IDs of the results the last command added, in order.
  const TIntList& GetLastResultIDs() const { return FLastResultIDs; }
  /// Runs the tool without window or preview: Init, the command, CleanUp (a drop with Ctrl held).
  /// Returns the new IDs; exceptions reach the caller after the clean-up.
  TIntList RunNonInteractive(TProject& project, const TIntList& ids, const std::string& command, bool all);
  /// A table or report a run produced instead of (or beside) objects; the command line prints it.
  const std::string& GetReport() const { return FReport; }
  /// The same report as JSON, when the tool has one: `orvex run --json` prints it instead of the objects.
  const std::string& GetReportJson() const { return FReportJson; }

  /// Hands a finished result to the frame: during a command it is kept and enters the project at the
  /// command's end with the first input's history and the run's entry; outside one it enters at once.
  TData* AddResult(std::unique_ptr<TData> result);
  /// The history entry of a run: the `orvex run` command that repeats it and which result this is.
  std::string MakeHistoryText(int resultIndex, int resultCount) const;

  bool CleaningUp = false;
  bool HideOnCleanUp = true;
  bool CleanUpOnClose = true;
  bool ConfigurableWithoutData = false;
  bool Interactive = true;
  bool ConfigurationOnly = false;
  bool DataChangesIgnored = false;

  /// The text of the message shown when a large data set turns Auto Preview off.
  static const std::string AutoPreviewWasTurnedOffMessage;
  /// A non-blocking information when autoPreviewOn is false.
  void CheckAndShowAutoPreviewMessage(bool autoPreviewOn);

protected:
  /// A tool's own command (not one of the frame's); false when unknown.
  virtual bool DoCommand(const std::string& name);
  /// A parameter changed through the window or a set; tools recalculate their preview here.
  virtual void DoParameterChanged(const TUserParameterList& changed);
  /// Enables or disables a command's trigger.
  void EnableCommand(const std::string& name, bool enabled);
  bool IsCommandEnabled(const std::string& name) const;
  /// The inputs the current command works on (the history's --input); frames set it per run.
  void SetRunInputIDs(const TIntList& ids) { FRunInputIDs = ids; }
  void SetReport(const std::string& report) { FReport = report; }
  void SetReportJson(const std::string& report) { FReportJson = report; }
  bool IsRunAll() const { return FRunAll; }

private:
  void DataChanged(TData* data, TDataChangeInfo info);
  void CommitResults(bool keep);

  std::string FDialogName;
  TParameterTable& FDeclaration;
  TUserParameterAdministrator FParameters;
  IToolWindow* FWindow = nullptr;
  TProject* FProject = nullptr;
  TDConnector* FConnector = nullptr;
  std::unique_ptr<TData> FRetiredConnector;
  TIntList FInitIDs;
  TIntList FTemporaryIDs;
  std::vector<TVCustomForm*> FCustomForms;
  std::vector<std::pair<int, TDataChangedCallback>> FDataChangedCallbacks;
  int FNextCallbackHandle = 1;

  bool FInCommand = false;
  bool FRunAll = false;
  std::string FRunCommand;
  TIntList FRunInputIDs;
  std::vector<std::unique_ptr<TData>> FPendingResults;
  TIntList FLastResultIDs;
  std::string FReport;
  std::string FReportJson;
};
