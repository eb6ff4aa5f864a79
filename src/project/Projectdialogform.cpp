#include "project/Projectdialogform.h"

#include "common/OrvexException.h"
#include "common/Standardmessage.h"
#include "common/parameters/Parametertext.h"
#include "data/Dconnector.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dtransformation.h"
#include "project/Orvexdirectories.h"
#include "project/Project.h"
#include "project/Projectactionform.h"
#include "project/Toolhistory.h"
#include "project/Toolregistry.h"
#include "project/Viewerbase.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace {

bool AskYes(const std::string& text, const std::string& caption) {
  return AskUserYesNo(text, caption, kSeverityQuestion);
}

void Tell(const std::string& text, const std::string& caption, bool nonBlocking) {
  NotifyUser(text, caption, kSeverityInformation, nonBlocking);
}

// What went wrong, in the words of the first cause: a calculation thread's error comes wrapped.
std::string CauseOf(const std::exception& e) {
  const auto* orvex = dynamic_cast<const OrvexException*>(&e);
  if (orvex && orvex->ExceptionHistory() && !orvex->ExceptionHistory()->empty())
    return orvex->ExceptionHistory()->back();
  return e.what();
}

TUserParameter* FindParameter(const TUserParameterAdministrator& parameters, const std::string& name,
                              const char* operation) {
  TUserParameter* parameter = parameters.GetUserParameterByName(name);
  if (!parameter)
    throw OrvexException(std::string("TProjectDialogForm::") + operation + "(): no parameter \"" + name +
                         "\"");
  return parameter;
}

} // namespace

const std::string TProjectDialogForm::AutoPreviewWasTurnedOffMessage =
    "Automatic Preview was turned off due to large dataset.\n\nPress \"Calculate Preview\" to see the new "
    "Preview.";

bool GetXYCoordinateFromGraphCursor(TProject& project, int32_t& x, int32_t& y, int32_t graphID) {
  const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(graphID));
  if (!graph) return false;
  const auto* space =
      dynamic_cast<const TDSpaceTransformation*>(project.FindData(graph->GetSpaceTransformationID()));
  const int32_t cursorID = project.GetFirstIDByClassName(TDSpaceCursor::kClassName);
  const auto* cursor = dynamic_cast<const TDCursor*>(project.FindData(cursorID));
  if (!space || !cursor || cursor->GetNumberOfPositions() < 2) return false;
  double real[3] = {cursor->GetPosition(0), cursor->GetPosition(1),
                    cursor->GetNumberOfPositions() > 2 ? cursor->GetPosition(2) : 0.0};
  double bin[3] = {0, 0, 0};
  space->RealToBin(bin, real);
  if (!std::isfinite(bin[0]) || !std::isfinite(bin[1])) return false;
  const double px = std::floor(bin[0] + 0.5), py = std::floor(bin[1] + 0.5);
  if (px < 0 || py < 0 || px >= graph->GetSizeX() || py >= graph->GetSizeY()) return false;
  x = static_cast<int32_t>(px);
  y = static_cast<int32_t>(py);
  return true;
}

// --- Construction and parameters -----------------------------------------------------------------------

TProjectDialogForm::TProjectDialogForm(std::string dialogName, TParameterTable& declaration)
    : FDialogName(std::move(dialogName)), FDeclaration(declaration) {
  FParameters.CreateParameters(&FDeclaration);
  // A button or a changed value of the window: what fails is told to the user here, as no caller waits.
  FParameters.OnParameterChanged = [this](const TUserParameterList& changed, bool /*internal*/) {
    try {
      if (changed.size() == 1 && changed.front()->GetKind() == TUserParameterKind::Trigger)
        ExecuteCommand(changed.front()->GetName());
      else if (FParameters.ValidateParameters()
                   .empty()) // a refused set is taken back at once: no preview of it
        DoParameterChanged(changed);
    } catch (const std::exception& e) {
      Tell(FDialogName + ":\n\n" + CauseOf(e), FDialogName, false);
    }
  };
}

TProjectDialogForm::~TProjectDialogForm() {
  // A tool destroyed while open leaves nothing of itself in the project.
  if (GetIsActive()) {
    try {
      CleanUp();
    } catch (...) {
    }
  }
}

std::string TProjectDialogForm::GetToolKey() const {
  return TToolRegistry::KeyFromClassName(GetClassNameA());
}

void TProjectDialogForm::SetDialogName(const std::string& name) {
  FDialogName = name;
  if (FWindow) FWindow->SetTitle(name);
}

void TProjectDialogForm::SetWindow(IToolWindow* window) {
  FWindow = window;
  if (FWindow) FWindow->SetTitle(FDialogName);
}

std::vector<const TParameterDeclaration*> TProjectDialogForm::GetCommands() const {
  std::vector<const TParameterDeclaration*> commands;
  for (const TParameterDeclaration& declaration : FDeclaration.GetDeclarations())
    if (declaration.Kind == TParameterKind::Trigger) commands.push_back(&declaration);
  return commands;
}

std::vector<std::string> TProjectDialogForm::GetExtractCommands() const {
  std::vector<std::string> names;
  for (const TParameterDeclaration* command : GetCommands())
    if (command->Name != kCalculatePreview) names.push_back(command->Name);
  return names;
}

void TProjectDialogForm::ResetParametersToDeclared() {
  for (const TParameterDeclaration& declaration : FDeclaration.GetDeclarations()) {
    if (declaration.Kind == TParameterKind::Trigger) continue;
    TUserParameter* parameter = FParameters.GetUserParameterByName(declaration.Name);
    std::string problem;
    if (parameter) parameter->SetParameterFromText(parameter->GetDefaultValueText(), problem);
  }
}

int32_t TProjectDialogForm::GetIntParameter(const std::string& name) const {
  auto* parameter = dynamic_cast<TUserIntParameter*>(FindParameter(FParameters, name, "GetIntParameter"));
  if (!parameter)
    throw OrvexException("TProjectDialogForm::GetIntParameter(): \"" + name + "\" holds no int");
  return parameter->GetParameter();
}

double TProjectDialogForm::GetFloatParameter(const std::string& name) const {
  TUserParameter* parameter = FindParameter(FParameters, name, "GetFloatParameter");
  if (auto* number = dynamic_cast<TUserDoubleParameter*>(parameter)) return number->GetParameter();
  if (auto* number = dynamic_cast<TUserFloatParameter*>(parameter)) return number->GetParameter();
  throw OrvexException("TProjectDialogForm::GetFloatParameter(): \"" + name + "\" holds no number");
}

bool TProjectDialogForm::GetBoolParameter(const std::string& name) const {
  auto* parameter = dynamic_cast<TUserBoolParameter*>(FindParameter(FParameters, name, "GetBoolParameter"));
  if (!parameter)
    throw OrvexException("TProjectDialogForm::GetBoolParameter(): \"" + name + "\" holds no bool");
  return parameter->GetParameter();
}

std::string TProjectDialogForm::GetStringParameter(const std::string& name) const {
  auto* parameter =
      dynamic_cast<TUserStringParameter*>(FindParameter(FParameters, name, "GetStringParameter"));
  if (!parameter)
    throw OrvexException("TProjectDialogForm::GetStringParameter(): \"" + name + "\" holds no text");
  return parameter->GetParameter();
}

// --- Stored defaults ---------------------------------------------------------------------------------

std::string TProjectDialogForm::GetDefaultSettingsFileName() const {
  return TOrvexDirectories::User.Root + "ToolDefaults/" + GetToolKey() + ".oxh";
}

bool TProjectDialogForm::SaveDefaultSettings() {
  const std::string fileName = GetDefaultSettingsFileName();
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(fileName).parent_path(), error);
  if (FParameters.SaveParameterValues(fileName) < 1) {
    Tell("The default settings of the " + FDialogName + " could not be saved to\n" + fileName,
         "Save Default Settings", false);
    return false;
  }
  return true;
}

bool TProjectDialogForm::LoadDefaultSettings() {
  const std::string fileName = GetDefaultSettingsFileName();
  std::error_code error;
  if (!std::filesystem::exists(fileName, error)) {
    ResetParametersToDeclared();
    return true;
  }
  if (FParameters.LoadParameterValues(fileName) < 1) {
    Tell("The default settings of the " + FDialogName + " could not be read from\n" + fileName,
         "Load Default Settings", false);
    return false;
  }
  return true;
}

bool TProjectDialogForm::ResetDefaultSettings() {
  std::error_code error;
  std::filesystem::remove(GetDefaultSettingsFileName(), error);
  return !std::filesystem::exists(GetDefaultSettingsFileName(), error);
}

std::string TProjectDialogForm::ConfigureDefaultSettingsText() {
  TTagControl tag("DefaultParameters", TTagKind::TagList);
  GetDialogParameters(tag);
  return TagTreeText(tag);
}

void TProjectDialogForm::GetDialogParameters(TTagControl& tag) {
  FParameters.SaveParameterValueTagsToTagControl(tag);
}

void TProjectDialogForm::SetDialogParameters(const TTagControl& tag) {
  FParameters.LoadParameterValueTagsFromTagControl(tag);
}

// --- Life cycle ----------------------------------------------------------------------------------------

bool TProjectDialogForm::IsInputIDListOkay(TProject* /*project*/, const TIntList* /*ids*/,
                                           const TIntList* /*extra*/, std::string* /*reason*/) {
  return true;
}

void TProjectDialogForm::Init(const TIntList* ids, const TIntList* /*extra*/, TProject* project) {
  if (GetIsActive()) CleanUp();
  FRetiredConnector.reset();
  if (!project && TProjectActionForm::Instance()) project = &TProjectActionForm::Instance()->Project();
  if (!project) throw OrvexException("TProjectDialogForm::Init() of \"" + FDialogName + "\": no project");
  FProject = project;
  FInitIDs = ids ? *ids : TIntList();
  auto connector = std::make_unique<TDConnector>();
  connector->SetID(project->GetNewDataID());
  connector->OnDataChange = [this](TData* data, TDataChangeInfo info) { DataChanged(data, info); };
  connector->OnClearProject = [this]() { DoClearProject(); };
  connector->SetSaveMode(TDataSaveMode::HardwareOwned);
  FConnector = connector.get();
  FProject->AddData(std::move(connector));
  EnableDisableCalculations(true, true, nullptr);
}

void TProjectDialogForm::CleanUp() {
  CleaningUp = true;
  FDataChangedCallbacks.clear();
  if (FProject) {
    for (TVCustomForm* viewer : FCustomForms) {
      viewer->SetCustomFormCanClose(true);
      FProject->ReleaseViewer(viewer); // the released viewer goes here
    }
    for (int32_t id : FTemporaryIDs) FProject->DeleteData(id);
    // The clean-up may run inside the connector's own notification (an input was removed): the connector
    // leaves the project now but lives on until the next use of the tool.
    if (FConnector) FRetiredConnector = FProject->DeleteDataAndReturnPointer(FConnector->GetID());
  }
  FCustomForms.clear();
  FTemporaryIDs.clear();
  FConnector = nullptr;
  FProject = nullptr;
  FInitIDs.clear();
  if (HideOnCleanUp && FWindow) FWindow->HideWindow();
  CleaningUp = false;
}

void TProjectDialogForm::DoRemoveData(TData* /*data*/) {}

void TProjectDialogForm::DoDataChange(TData* /*data*/) {}

void TProjectDialogForm::DoProjectDialogClick() {
  if (GetIsActive()) {
    for (TVCustomForm* viewer : FCustomForms) (void)viewer; // viewers come to front with their windows
    if (FWindow) FWindow->BringToFront();
    return;
  }
  if (ConfigurableWithoutData) {
    ResetDialogBehaviour();
    ConfigurationOnly = true;
    Init(nullptr, nullptr);
  }
}

void TProjectDialogForm::DoClearProject() {
  // The project is going: its objects are gone with it, only the bookkeeping is left.
  FConnector = nullptr;
  if (GetIsActive()) {
    FTemporaryIDs.clear();
    FCustomForms.clear();
    CleanUp();
  }
}

void TProjectDialogForm::ResetDialogBehaviour() {
  Interactive = true;
  ConfigurationOnly = false;
}

void TProjectDialogForm::SetBehaviourForDropAction(bool ctrlDown) {
  Interactive = !ctrlDown;
}

void TProjectDialogForm::SetProjectDialogStartPosition() {
  if (FWindow) FWindow->CenterOnPrimaryMonitor();
}

void TProjectDialogForm::EnableDisableCalculations(bool extract, bool extractAll, TIntList* /*ids*/) {
  EnableCommand(kExtract, GetIsActive() && !ConfigurationOnly && extract);
  EnableCommand(kExtractAll, GetIsActive() && !ConfigurationOnly && extractAll);
}

bool TProjectDialogForm::IsDataUsed(int32_t id) const {
  return GetIsActive() && std::find(FInitIDs.begin(), FInitIDs.end(), id) != FInitIDs.end();
}

bool TProjectDialogForm::IsCleanUpAllowed() {
  if (!GetIsActive()) return true;
  return AskYes("This will close the " + FDialogName + " Dialog.\n\nClose it anyway?",
                "Confirm Dialog Closing");
}

void TProjectDialogForm::WindowClosed() {
  if (GetIsActive() && CleanUpOnClose) CleanUp();
}

// --- Temporary objects and viewers ---------------------------------------------------------------------

void TProjectDialogForm::AddDataToProject(std::unique_ptr<TData> data) {
  if (!data || !FProject) return;
  FTemporaryIDs.push_back(data->GetID());
  FProject->AddData(std::move(data));
}

void TProjectDialogForm::RemoveDataFromProject(int32_t id) {
  auto it = std::find(FTemporaryIDs.begin(), FTemporaryIDs.end(), id);
  if (it == FTemporaryIDs.end() || !FProject) return;
  FTemporaryIDs.erase(it);
  FProject->DeleteData(id);
}

TVCustomForm* TProjectDialogForm::AddCustomForm(std::unique_ptr<TVCustomForm> viewer) {
  if (!viewer || !FProject) return nullptr;
  TVCustomForm* raw = viewer.get();
  raw->SetPreCaption(FDialogName + " (");
  raw->SetPostCaption(")");
  raw->SetCustomFormCanClose(false);
  raw->SetMode(TViewerMode::Dialog); // never saved with the project
  FCustomForms.push_back(raw);
  FProject->AddViewer(std::move(viewer));
  FProject->SetViewerPosition(raw, false);
  return raw;
}

void TProjectDialogForm::RemoveCustomForm(TVCustomForm* viewer) {
  auto it = std::find(FCustomForms.begin(), FCustomForms.end(), viewer);
  if (it == FCustomForms.end()) return;
  FCustomForms.erase(it);
  viewer->SetCustomFormCanClose(true);
  if (FProject) FProject->ReleaseViewer(viewer);
}

int TProjectDialogForm::AddDataChangedCallback(TDataChangedCallback callback) {
  if (!callback) return 0;
  FDataChangedCallbacks.emplace_back(FNextCallbackHandle, std::move(callback));
  return FNextCallbackHandle++;
}

void TProjectDialogForm::RemoveDataChangedCallback(int handle) {
  std::erase_if(FDataChangedCallbacks, [handle](const auto& entry) { return entry.first == handle; });
}

void TProjectDialogForm::DataChanged(TData* data, TDataChangeInfo info) {
  if (CleaningUp || DataChangesIgnored || !data || data == FConnector) return;
  // A callback may remove itself: walk a copy.
  const auto callbacks = FDataChangedCallbacks;
  for (const auto& [handle, callback] : callbacks) callback(data, info);
  if (info == TDataChangeInfo::Removed || info == TDataChangeInfo::AboutToBeDeleted) {
    std::erase(FTemporaryIDs, data->GetID());
    DoRemoveData(data);
  } else if (info == TDataChangeInfo::DataChanged) {
    DoDataChange(data);
  }
}

void TProjectDialogForm::CheckAndShowAutoPreviewMessage(bool autoPreviewOn) {
  if (!autoPreviewOn) Tell(FDialogName + ":\n\n" + AutoPreviewWasTurnedOffMessage, "", true);
}

// --- Commands and results ------------------------------------------------------------------------------

void TProjectDialogForm::EnableCommand(const std::string& name, bool enabled) {
  if (TUserParameter* parameter = FParameters.GetUserParameterByName(name)) parameter->SetEnabled(enabled);
}

bool TProjectDialogForm::IsCommandEnabled(const std::string& name) const {
  const TUserParameter* parameter = FParameters.GetUserParameterByName(name);
  return parameter && parameter->GetEnabled();
}

bool TProjectDialogForm::DoCommand(const std::string& /*name*/) {
  return false;
}

void TProjectDialogForm::DoParameterChanged(const TUserParameterList& /*changed*/) {}

bool TProjectDialogForm::ExecuteCommand(const std::string& name, bool all) {
  const TParameterDeclaration* declaration = FDeclaration.FindDeclaration(name);
  if (!declaration || declaration->Kind != TParameterKind::Trigger || FInCommand) return false;
  if (!GetIsActive() || !IsCommandEnabled(name)) return false;
  FInCommand = true;
  FRunCommand = name;
  FRunAll = all || name == kExtractAll;
  FRunInputIDs = FInitIDs;
  FPendingResults.clear();
  FLastResultIDs.clear();
  FReport.clear();
  FReportJson.clear();
  bool done = false;
  try {
    done = DoCommand(name);
  } catch (...) {
    CommitResults(false);
    FInCommand = false;
    throw;
  }
  CommitResults(done);
  FInCommand = false;
  return done;
}

TData* TProjectDialogForm::AddResult(std::unique_ptr<TData> result) {
  if (!result) return nullptr;
  TData* raw = result.get();
  if (FInCommand) {
    FPendingResults.push_back(std::move(result));
    return raw;
  }
  raw->AddToHistoryList(MakeHistoryText(1, 1), kHistoryEntryToolRun);
  if (FProject) FProject->AddData(std::move(result));
  return raw;
}

void TProjectDialogForm::CommitResults(bool keep) {
  std::vector<std::unique_ptr<TData>> results = std::move(FPendingResults);
  FPendingResults.clear();
  if (!keep || !FProject) return;
  // The first input's history comes first, so that a chain of runs reads as its steps.
  std::vector<THistoryEntry> inherited;
  if (!FRunInputIDs.empty())
    if (const TData* first = FProject->FindData(FRunInputIDs.front())) inherited = first->GetHistoryList();
  const int count = static_cast<int>(results.size());
  for (int i = 0; i < count; ++i) {
    TData& result = *results[static_cast<size_t>(i)];
    std::vector<THistoryEntry> history = inherited;
    history.push_back(THistoryEntry::Now(MakeHistoryText(i + 1, count), kHistoryEntryToolRun));
    result.SetHistoryList(std::move(history));
    FLastResultIDs.push_back(result.GetID());
    FProject->AddData(std::move(results[static_cast<size_t>(i)]));
  }
}

std::string TProjectDialogForm::MakeHistoryText(int resultIndex, int resultCount) const {
  TToolRunStep step;
  step.DialogName = FDialogName;
  step.Key = GetToolKey();
  step.Inputs = FRunInputIDs;
  step.Command = FRunCommand == kExtractAll ? std::string(kExtract) : FRunCommand;
  step.All = FRunAll;
  step.Assignments = FParameters.GetParameterValuesAsText();
  step.ResultIndex = resultIndex;
  step.ResultCount = resultCount;
  return FormatToolRunStep(step);
}

TIntList TProjectDialogForm::RunNonInteractive(TProject& project, const TIntList& ids,
                                               const std::string& command, bool all) {
  SetBehaviourForDropAction(true);
  ConfigurationOnly = false;
  TIntList results;
  try {
    Init(&ids, nullptr, &project);
    if (!ExecuteCommand(command, all))
      throw OrvexException("TProjectDialogForm::RunNonInteractive() of \"" + FDialogName +
                           "\": the command \"" + command + "\" can't run now");
    results = FLastResultIDs;
  } catch (...) {
    if (GetIsActive()) CleanUp();
    ResetDialogBehaviour();
    throw;
  }
  CleanUp();
  ResetDialogBehaviour();
  return results;
}
