#include "tools/spectral/Advancedfittingpreview.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/numerics/Fitfunctionmanager.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "project/Graphmask.h"
#include "project/Project.h"
#include "project/Viewerbase.h"
#include "tools/spectral/Advancedfittingtool.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace {

constexpr const char* kFunction = "Function";
constexpr const char* kFitParameters = "Fit Parameters";
constexpr const char* kFunctionSettings = "Function Settings";
constexpr const char* kFitMode = "Fit Mode";
constexpr const char* kAdvancedMode = "Advanced Mode";
constexpr const char* kPixelX = "Pixel X";
constexpr const char* kPixelY = "Pixel Y";
constexpr const char* kParamPrecision = "Param Precision";
constexpr const char* kUserFitFunctionsFile = "User Fit Functions File";
constexpr const char* kUserCategory = "User";
constexpr const char* kShowAllReplica = "Show all Replica on Startup";

std::string Number(double value) {
  if (std::isnan(value)) return "nan";
  char text[40];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

std::string Bool(bool value) {
  return value ? "true" : "false";
}

std::string Limit(bool has, double value) {
  return has ? Number(value) : std::string("none");
}

// The "name=value" items of a settings text, separated by ';' or line breaks.
std::vector<std::string> SettingItems(const std::string& text) {
  std::vector<std::string> items;
  std::string item;
  for (char c : text + ";") {
    if (c == ';' || c == '\n') {
      const auto first = item.find_first_not_of(" \t\r");
      if (first != std::string::npos)
        items.push_back(item.substr(first, item.find_last_not_of(" \t\r") - first + 1));
      item.clear();
    } else {
      item += c;
    }
  }
  return items;
}

} // namespace

std::string FitParameterText(const std::vector<TAdvancedFitParamSettings>& rows) {
  std::string text;
  auto add = [&text](const std::string& name, const char* column, const std::string& value) {
    text += (text.empty() ? "" : "; ") + name + "|" + column + "=" + value;
  };
  for (const TAdvancedFitParamSettings& row : rows) {
    add(row.Name, "Start Value", Number(row.StartValue));
    add(row.Name, "Value", Number(row.Value));
    add(row.Name, "Vary", Bool(row.Vary));
    add(row.Name, "Lower Limit", Limit(row.HasLowerLimit, row.LowerLimit));
    add(row.Name, "Upper Limit", Limit(row.HasUpperLimit, row.UpperLimit));
    add(row.Name, "Auto", Bool(row.Auto));
    add(row.Name, "Extract Value", Bool(row.ExtractValue));
    add(row.Name, "Extract Error", Bool(row.ExtractError));
    add(row.Name, "Value if Fit Fails", Number(row.ValueIfFitFails));
    add(row.Name, "Fit Order", std::to_string(row.FitOrder));
  }
  return text;
}

TAdvancedFittingPreview::TAdvancedFittingPreview(TAdvancedFittingToolForm& tool)
    : FTool(tool), FUserFunctions(std::make_unique<TFitFunctionManager>()), FTitle(tool.GetDialogName()) {}

TAdvancedFittingPreview::~TAdvancedFittingPreview() = default;

// --- Life cycle ------------------------------------------------------------------------------------------

void TAdvancedFittingPreview::Open(int32_t graphID) {
  Close();
  TProject* project = FTool.GetProject();
  const auto* graph = project ? dynamic_cast<const TDGraph*>(project->FindData(graphID)) : nullptr;
  if (!graph) return;
  FGraphID = graphID;
  FTitle = FTool.GetDialogName();
  // The user functions of the tool's file join the list.
  const std::string file = FTool.GetStringParameter(kUserFitFunctionsFile);
  if (!file.empty() && FUserFunctions->LoadUserFitFunctionsFromTagFile(file) < 1)
    FTitle = kSaveLoadProblemTitle;
  FPixelX = std::clamp(FTool.GetIntParameter(kPixelX), 0, graph->GetSizeX() - 1);
  FPixelY = std::clamp(FTool.GetIntParameter(kPixelY), 0, graph->GetSizeY() - 1);
  int32_t x = 0, y = 0;
  if (GetXYCoordinateFromGraphCursor(*project, x, y, graphID)) {
    FPixelX = x;
    FPixelY = y;
  }
  auto data = TDGraph::CreateNewGraph(project, graphID, true, TDataFieldKind::Float,
                                      TDataSaveMode::HardwareOwned, graph->GetCaption() + " (Preview)");
  auto fit = TDGraph::CreateNewGraph(project, graphID, true, TDataFieldKind::Float,
                                     TDataSaveMode::HardwareOwned, "Fit Preview");
  if (!data || !fit) {
    FGraphID = 0;
    return;
  }
  // The unit of the input's axis and its cursor: the preview range and the listening speak of them.
  TGraphMaskAxis axis;
  std::string error;
  FAxisUnit = GetGraphMaskAxis(*project, graphID, "", axis, error) ? axis.Unit : std::string();
  const auto* transformation =
      dynamic_cast<const TDTransformation*>(project->FindData(graph->GetXTransformationID()));
  FXInterpretationID = graph->GetXInterpretationID() != 0 ? graph->GetXInterpretationID()
                       : transformation                   ? transformation->GetInterpretationID()
                                                          : 0;
  const auto* interpretation = dynamic_cast<const TDInterpretation*>(project->FindData(FXInterpretationID));
  FXCursorClass = interpretation   ? GetCursorClassNameForUnitKind(interpretation->GetUnitKind())
                  : transformation ? GetCursorClassNameForUnitKind(transformation->GetUnitKind())
                                   : std::string();
  // The fit curve's own x axis: a table of the range's positions in the input's standard unit, read
  // through the input's interpretation, so that the viewer places curve and data alike.
  auto table = std::make_unique<TDLUTTransformation>();
  if (transformation) {
    table->SetUnitKind(transformation->GetUnitKind());
    table->SetStandardUnit(transformation->GetStandardUnit());
  }
  table->SetInterpretationID(FXInterpretationID);
  table->SetCaption("Fit Preview Axis");
  table->SetID(project->GetNewDataID());
  FCurveTransformationID = table->GetID();
  FTool.AddDataToProject(std::move(table));
  fit->SetXTransformationID(FCurveTransformationID);
  fit->SetXInterpretationID(graph->GetXInterpretationID());
  FDataGraphID = data->GetID();
  FFitGraphID = fit->GetID();
  FTool.AddDataToProject(std::move(data));
  FTool.AddDataToProject(std::move(fit));
  CopySpectrumToDataGraph();
  Reconfigure();
  // A range never set is the whole axis.
  if (FTool.GetFloatParameter(TAdvancedFittingToolForm::kPreviewStart) == 0 &&
      FTool.GetFloatParameter(TAdvancedFittingToolForm::kPreviewStop) == 0)
    ResetRange();
  MakeReplicaGraphs();
  if (IToolViewerFactory* factory = IToolViewerFactory::GetFactory()) {
    // The curve first: it is drawn over the data, where it is judged.
    std::vector<int32_t> more{FDataGraphID};
    if (FTool.GetBoolParameter(kShowAllReplica))
      more.insert(more.end(), FReplicaGraphIDs.begin(), FReplicaGraphIDs.end());
    FViewer = FTool.AddCustomForm(factory->CreateGraphViewer(*project, FFitGraphID, more));
    // Data and curves on one y axis, so that the curve is seen where it lies on the data.
    if (FViewer && FViewer->GetCFI()) FViewer->GetCFI()->SetParameterValuesFromText({"OnlyOneYAxis=True"});
  }
  StorePixel();
  Update();
}

void TAdvancedFittingPreview::Close() {
  FGraphID = FDataGraphID = FFitGraphID = FCurveTransformationID = FXInterpretationID = 0;
  FReplicaGraphIDs.clear();
  FXCursorClass.clear();
  FAxisUnit.clear();
  FCurveAxis.clear();
  FArmedRow = -1;
  FListenPositions.clear();
  FViewer = nullptr;
  FLastResult = TAdvancedFitPointResult();
  FStatus = kNotFitted;
}

// --- The current spectrum ------------------------------------------------------------------------------

bool TAdvancedFittingPreview::SetPixel(int32_t x, int32_t y) {
  if (!IsOpen()) return false;
  const auto* graph = dynamic_cast<const TDGraph*>(FTool.GetProject()->FindData(FGraphID));
  if (!graph || x < 0 || y < 0 || x >= graph->GetSizeX() || y >= graph->GetSizeY()) return false;
  FPixelX = x;
  FPixelY = y;
  StorePixel();
  CopySpectrumToDataGraph();
  Update();
  return true;
}

bool TAdvancedFittingPreview::FollowSpaceCursor() {
  if (!IsOpen()) return false;
  int32_t x = 0, y = 0;
  if (!GetXYCoordinateFromGraphCursor(*FTool.GetProject(), x, y, FGraphID)) return false;
  if (x == FPixelX && y == FPixelY) return false;
  return SetPixel(x, y);
}

void TAdvancedFittingPreview::CopySpectrumToDataGraph() {
  TProject& project = *FTool.GetProject();
  const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(FGraphID));
  auto* data = dynamic_cast<TDGraph*>(project.FindData(FDataGraphID));
  if (!graph || !data) return;
  std::vector<float> spectrum(static_cast<size_t>(graph->GetSizeGraph()));
  graph->GetSpectrum(FPixelX, FPixelY, spectrum.data());
  data->SetSpectrum(0, 0, spectrum.data());
  data->SetLineValid(0, graph->GetLineValid(FPixelY));
  data->DoDataChange(TDataChangeInfo::DataChanged);
}

// --- Fitting and the rows --------------------------------------------------------------------------------

bool TAdvancedFittingPreview::Reconfigure() {
  if (!IsOpen()) return false;
  const auto* graph = dynamic_cast<const TDGraph*>(FTool.GetProject()->FindData(FGraphID));
  if (!graph) return false;
  try {
    FTool.ConfigureForGraph(*graph, FCore);
  } catch (const OrvexException& e) {
    ClearResult(e.what());
    return false;
  }
  return true;
}

bool TAdvancedFittingPreview::FitOnce() {
  if (!Reconfigure()) {
    Changed();
    return false;
  }
  const auto* graph = dynamic_cast<const TDGraph*>(FTool.GetProject()->FindData(FGraphID));
  std::string message;
  const int64_t element = int64_t(FPixelY) * graph->GetSizeX() + FPixelX;
  if (FCore.FitSpectrum(*graph, element, FLastResult, message) == TAdvancedFitStatus::Refused) {
    ClearResult(message);
    DrawCurves(false);
    Changed();
    return false;
  }
  if (FLastResult.FitOK) {
    std::vector<TAdvancedFitParamSettings>& rows = FCore.Rows();
    for (size_t i = 0; i < rows.size() && i < FLastResult.NativeValues.size(); ++i)
      rows[i].Value = FLastResult.NativeValues[i];
    StoreRows();
    FStatus = kFitSuccessful;
  } else {
    FStatus = FLastResult.Message;
  }
  DrawCurves(FLastResult.FitOK);
  Changed();
  return FLastResult.FitOK;
}

void TAdvancedFittingPreview::Update() {
  if (!IsOpen()) return;
  if (IsFitOnChange()) {
    FitOnce();
    return;
  }
  if (Reconfigure()) ClearResult(kNotFitted);
  DrawCurves(FCurveFromValue);
  Changed();
}

void TAdvancedFittingPreview::CopyValuesToStartValues() {
  if (!Reconfigure()) return;
  for (TAdvancedFitParamSettings& row : FCore.Rows()) row.StartValue = row.Value;
  StoreRows();
  DrawCurves(IsFitOnChange() || FCurveFromValue);
  Changed();
}

void TAdvancedFittingPreview::CopyStartValuesToValues() {
  if (!Reconfigure()) return;
  for (TAdvancedFitParamSettings& row : FCore.Rows()) row.Value = row.StartValue;
  StoreRows();
  DrawCurves(IsFitOnChange() || FCurveFromValue);
  Changed();
}

void TAdvancedFittingPreview::ResetParams() {
  FStoring = true;
  const TUserParameterProblems problems =
      FTool.Parameters().SetParameterValuesFromText({std::string(kFitParameters) + "="});
  FStoring = false;
  if (!problems.empty()) {
    ClearResult(problems.front().Parameter + ": " + problems.front().Message);
    Changed();
    return;
  }
  ClearResult(kNotFitted);
  Update();
}

bool TAdvancedFittingPreview::SetRow(int index, const TAdvancedFitParamSettings& row, std::string& problem) {
  if (!Reconfigure()) {
    problem = FStatus;
    return false;
  }
  std::vector<TAdvancedFitParamSettings> rows = FCore.Rows();
  if (index < 0 || index >= static_cast<int>(rows.size())) {
    problem = "no row " + std::to_string(index);
    return false;
  }
  rows[static_cast<size_t>(index)] = row;
  rows[static_cast<size_t>(index)].Name = FCore.Rows()[static_cast<size_t>(index)].Name;
  FStoring = true;
  const TUserParameterProblems problems = FTool.Parameters().SetParameterValuesFromText(
      {std::string(kFitParameters) + "=" + FitParameterText(rows)});
  FStoring = false;
  if (!problems.empty()) {
    problem = problems.front().Message;
    return false;
  }
  Update();
  return true;
}

bool TAdvancedFittingPreview::FitSooner(int index) {
  if (!Reconfigure() || !::FitSooner(FCore.Rows(), index)) return false;
  StoreRows();
  Update();
  return true;
}

bool TAdvancedFittingPreview::FitLater(int index) {
  if (!Reconfigure() || !::FitLater(FCore.Rows(), index)) return false;
  StoreRows();
  Update();
  return true;
}

void TAdvancedFittingPreview::SetAllExtract(bool values, bool on) {
  if (!Reconfigure()) return;
  for (TAdvancedFitParamSettings& row : FCore.Rows()) (values ? row.ExtractValue : row.ExtractError) = on;
  StoreRows();
  Changed();
}

std::vector<std::string> TAdvancedFittingPreview::RowNames() const {
  std::vector<std::string> names;
  for (int i = 0; i < static_cast<int>(FCore.Rows().size()); ++i) names.push_back(FCore.UserParameterName(i));
  return names;
}

void TAdvancedFittingPreview::StoreRows() {
  FStoring = true;
  const TUserParameterProblems problems = FTool.Parameters().SetParameterValuesFromText(
      {std::string(kFitParameters) + "=" + FitParameterText(FCore.Rows())});
  FStoring = false;
  if (!problems.empty())
    throw OrvexException("TAdvancedFittingPreview::StoreRows(): the rows are refused: " +
                         problems.front().Message);
}

void TAdvancedFittingPreview::StorePixel() {
  FStoring = true;
  FTool.Parameters().SetParameterValuesFromText({std::string(kPixelX) + "=" + std::to_string(FPixelX),
                                                 std::string(kPixelY) + "=" + std::to_string(FPixelY)});
  FStoring = false;
}

void TAdvancedFittingPreview::ClearResult(const std::string& status) {
  FLastResult = TAdvancedFitPointResult();
  FStatus = status;
}

// --- Curves ----------------------------------------------------------------------------------------------

void TAdvancedFittingPreview::MakeReplicaGraphs() {
  TProject& project = *FTool.GetProject();
  const TFitFunction* function = FCore.GetFunction();
  const std::vector<std::string> replicas =
      function ? function->GetReplicaList() : std::vector<std::string>();
  if (replicas.size() == FReplicaGraphIDs.size()) return;
  for (int32_t id : FReplicaGraphIDs) FTool.RemoveDataFromProject(id);
  FReplicaGraphIDs.clear();
  for (const std::string& name : replicas) {
    auto graph = TDGraph::CreateNewGraph(&project, FGraphID, true, TDataFieldKind::Float,
                                         TDataSaveMode::HardwareOwned, "Fit Preview " + name);
    if (!graph) continue;
    FReplicaGraphIDs.push_back(graph->GetID());
    FTool.AddDataToProject(std::move(graph));
    if (FViewer && FTool.GetBoolParameter(kShowAllReplica)) FViewer->AddDataID(FReplicaGraphIDs.back());
  }
}

void TAdvancedFittingPreview::DrawCurves(bool fromValues) {
  TProject& project = *FTool.GetProject();
  auto* fit = dynamic_cast<TDGraph*>(project.FindData(FFitGraphID));
  const TFitFunction* function = FCore.GetFunction();
  if (!fit || !function) return;
  MakeReplicaGraphs();
  const TAdvancedFitPreviewRange range = GetRange();
  const std::vector<double> axis = range.Axis();
  if (axis.empty()) {
    FStatus = "Preview range is empty (Start Value equals Stop Value)";
    return;
  }
  if (!SizeCurveGraphs(axis)) return;
  const size_t length = axis.size();
  std::vector<double> p;
  for (const TAdvancedFitParamSettings& row : FCore.Rows())
    p.push_back(fromValues ? row.Value : row.StartValue);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  auto fill = [&](TDGraph& graph, int replica) {
    std::vector<float> values(length, static_cast<float>(nan));
    try {
      for (size_t g = 0; g < length; ++g) {
        const double x = axis[g];
        values[g] = SafeDoubleToFloat(replica < 0 ? function->GetFunctionValue(p.data(), x)
                                                  : function->GetReplicaValue(p.data(), x, replica));
      }
    } catch (const std::exception&) {
      std::fill(values.begin(), values.end(), static_cast<float>(nan));
      FStatus = "Preview Error (function fails for this x-range)";
    }
    graph.SetSpectrum(0, 0, values.data());
    graph.SetLineValid(0, true);
    graph.DoDataChange(TDataChangeInfo::DataChanged);
  };
  fill(*fit, -1);
  for (size_t r = 0; r < FReplicaGraphIDs.size(); ++r)
    if (auto* replica = dynamic_cast<TDGraph*>(project.FindData(FReplicaGraphIDs[r])))
      fill(*replica, static_cast<int>(r));
}

bool TAdvancedFittingPreview::SizeCurveGraphs(const std::vector<double>& axis) {
  TProject& project = *FTool.GetProject();
  auto* table = dynamic_cast<TDLUTTransformation*>(project.FindData(FCurveTransformationID));
  if (!table) return false;
  const auto* interpretation = dynamic_cast<const TDInterpretation*>(project.FindData(FXInterpretationID));
  std::vector<double> standard(axis.size());
  for (size_t g = 0; g < axis.size(); ++g)
    standard[g] = interpretation ? interpretation->ToStandard(axis[g]) : axis[g];
  if (standard != table->GetLUT()) {
    try {
      table->SetLUT(standard.data(), static_cast<int32_t>(standard.size()));
    } catch (const OrvexException&) {
      FStatus = "Preview Error (the range can't be shown on this axis)";
      return false;
    }
    table->DoDataChange(TDataChangeInfo::DataChanged);
  }
  std::vector<int32_t> ids{FFitGraphID};
  ids.insert(ids.end(), FReplicaGraphIDs.begin(), FReplicaGraphIDs.end());
  for (int32_t id : ids)
    if (auto* graph = dynamic_cast<TDGraph*>(project.FindData(id))) {
      if (graph->GetSizeGraph() != static_cast<int32_t>(axis.size()) || graph->GetSizeX() != 1 ||
          graph->GetSizeY() != 1)
        graph->SetFieldSize(1, 1, TDataFieldKind::Float, static_cast<int32_t>(axis.size()));
      graph->SetXTransformationID(FCurveTransformationID);
      graph->SetXInterpretationID(FXInterpretationID);
    }
  FCurveAxis = axis;
  return true;
}

// --- The preview range -----------------------------------------------------------------------------------

TAdvancedFitPreviewRange TAdvancedFittingPreview::GetRange() const {
  TAdvancedFitPreviewRange range;
  range.Points = FTool.GetIntParameter(TAdvancedFittingToolForm::kPreviewPoints);
  range.Start = FTool.GetFloatParameter(TAdvancedFittingToolForm::kPreviewStart);
  range.Stop = FTool.GetFloatParameter(TAdvancedFittingToolForm::kPreviewStop);
  if (range.Start == 0 && range.Stop == 0) {
    const int points = range.Points;
    range = TAdvancedFitPreviewRange::FromAxis(FCore.GetAxis());
    range.Points = points;
  }
  return range;
}

void TAdvancedFittingPreview::ResetRange() {
  const TAdvancedFitPreviewRange range = TAdvancedFitPreviewRange::FromAxis(FCore.GetAxis());
  FStoring = true;
  FTool.Parameters().SetParameterValuesFromText(
      {std::string(TAdvancedFittingToolForm::kPreviewPoints) + "=" + std::to_string(range.Points),
       std::string(TAdvancedFittingToolForm::kPreviewStart) + "=" + Number(range.Start),
       std::string(TAdvancedFittingToolForm::kPreviewStop) + "=" + Number(range.Stop)});
  FStoring = false;
  if (!IsOpen()) return;
  RedrawCurves();
  Changed();
}

void TAdvancedFittingPreview::RangeChanged() {
  if (!IsOpen()) return;
  RedrawCurves();
  Changed();
}

void TAdvancedFittingPreview::RedrawCurves() {
  const std::string status = FStatus;
  DrawCurves(FLastResult.FitOK || (!IsFitOnChange() && FCurveFromValue));
  // A drawable range clears an earlier complaint about the range; the fit's own status stays.
  if (FStatus == status && !GetRange().IsValid()) return;
  if (FStatus == status && status.rfind("Preview range is empty", 0) == 0)
    FStatus = FLastResult.FitOK ? std::string(kFitSuccessful) : std::string(kNotFitted);
}

// --- Values from the cursor ------------------------------------------------------------------------------

TFitParamListenKind TAdvancedFittingPreview::GetListenKind(int index) const {
  TFitFunction* function = FCore.GetFunction();
  const TFitParam* param = function ? function->GetParam(index) : nullptr;
  return param ? param->ListenKind : TFitParamListenKind::NoListen;
}

bool TAdvancedFittingPreview::ArmListen(int index) {
  if (GetListenKind(index) == TFitParamListenKind::NoListen) return false;
  FArmedRow = index;
  FListenPositions.clear();
  Changed();
  return true;
}

void TAdvancedFittingPreview::DisarmListen() {
  if (FArmedRow < 0) return;
  FArmedRow = -1;
  FListenPositions.clear();
  Changed();
}

bool TAdvancedFittingPreview::XCursorChanged(const TDCursor& cursor) {
  if (!IsOpen() || FXCursorClass.empty() || cursor.GetClassNameA() != FXCursorClass) return false;
  const auto* interpretation =
      dynamic_cast<const TDInterpretation*>(FTool.GetProject()->FindData(FXInterpretationID));
  const double position = cursor.GetPosition(0);
  XCursorMovedTo(interpretation ? interpretation->StandardTo(position) : position);
  return true;
}

void TAdvancedFittingPreview::XCursorMovedTo(double position) {
  if (!IsOpen() || !std::isfinite(position)) return;
  if (FTool.GetBoolParameter(TAdvancedFittingToolForm::kListen)) {
    TAdvancedFitPreviewRange range = GetRange();
    if (range.FollowCursor(position)) {
      FStoring = true;
      FTool.Parameters().SetParameterValuesFromText(
          {std::string(TAdvancedFittingToolForm::kPreviewStart) + "=" + Number(range.Start),
           std::string(TAdvancedFittingToolForm::kPreviewStop) + "=" + Number(range.Stop)});
      FStoring = false;
      if (FArmedRow < 0) {
        RedrawCurves();
        Changed();
      }
    }
  }
  if (FArmedRow < 0 || !Reconfigure()) return;
  FListenPositions.push_back(position);
  if (FListenPositions.size() > 2) FListenPositions.erase(FListenPositions.begin());
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double last = FListenPositions.back();
  const double first = FListenPositions.size() == 2 ? FListenPositions.front() : nan;
  double value = nan;
  switch (GetListenKind(FArmedRow)) {
  case TFitParamListenKind::XAxis:
    value = last;
    break;
  case TFitParamListenKind::YAxis:
    value = SpectrumValueAt(last);
    break;
  case TFitParamListenKind::XDiff:
    value = last - first;
    break;
  case TFitParamListenKind::XDiffAbsolute:
    value = std::fabs(last - first);
    break;
  case TFitParamListenKind::YDiff:
    value = SpectrumValueAt(last) - SpectrumValueAt(first);
    break;
  case TFitParamListenKind::YDiffAbsolute:
    value = std::fabs(SpectrumValueAt(last) - SpectrumValueAt(first));
    break;
  case TFitParamListenKind::Area:
    value = std::isnan(first) ? nan : SpectrumAreaBetween(first, last);
    break;
  default:
    break;
  }
  if (!std::isfinite(value)) return; // a difference needs a second position
  // The value is the user's form of the parameter; the rows hold the native one.
  std::vector<TAdvancedFitParamSettings>& rows = FCore.Rows();
  std::vector<double> start;
  for (const TAdvancedFitParamSettings& row : rows) start.push_back(row.StartValue);
  FCore.GetFunction()->TransformNativeParametersToParameters(start.data());
  start[static_cast<size_t>(FArmedRow)] = value;
  FCore.GetFunction()->TransformParametersToNativeParameters(start.data());
  for (size_t i = 0; i < rows.size(); ++i)
    if (std::isfinite(start[i])) rows[i].StartValue = start[i];
  StoreRows();
  Update();
}

double TAdvancedFittingPreview::SpectrumValueAt(double x) const {
  const auto* data = dynamic_cast<const TDGraph*>(FTool.GetProject()->FindData(FDataGraphID));
  const std::vector<double>& axis = FCore.GetAxis();
  if (!data || axis.empty() || !std::isfinite(x)) return std::numeric_limits<double>::quiet_NaN();
  size_t nearest = 0;
  for (size_t g = 1; g < axis.size(); ++g)
    if (std::fabs(axis[g] - x) < std::fabs(axis[nearest] - x)) nearest = g;
  return data->GetField(0, 0, static_cast<int32_t>(nearest));
}

double TAdvancedFittingPreview::SpectrumAreaBetween(double a, double b) const {
  const auto* data = dynamic_cast<const TDGraph*>(FTool.GetProject()->FindData(FDataGraphID));
  const std::vector<double>& axis = FCore.GetAxis();
  if (!data || axis.size() < 2) return std::numeric_limits<double>::quiet_NaN();
  const double low = std::min(a, b), high = std::max(a, b);
  double area = 0;
  for (size_t g = 1; g < axis.size(); ++g) {
    const double x0 = axis[g - 1], x1 = axis[g];
    if (std::min(x0, x1) < low || std::max(x0, x1) > high) continue; // only steps wholly inside
    area += 0.5 * (double(data->GetField(0, 0, int32_t(g - 1))) + data->GetField(0, 0, int32_t(g))) *
            std::fabs(x1 - x0);
  }
  return area;
}

// --- What the window shows -------------------------------------------------------------------------------

void TAdvancedFittingPreview::SetCurveFromValue(bool fromValue) {
  if (FCurveFromValue == fromValue) return;
  FCurveFromValue = fromValue;
  if (!IsOpen() || IsFitOnChange()) return;
  DrawCurves(FCurveFromValue);
  Changed();
}

bool TAdvancedFittingPreview::IsFitOnChange() const {
  return FTool.GetIntParameter(kFitMode) == 0;
}

std::vector<std::pair<std::string, std::string>> TAdvancedFittingPreview::GetStatistics() const {
  return AdvancedFitStatisticsText(FLastResult, FTool.GetIntParameter(kParamPrecision));
}

void TAdvancedFittingPreview::Changed() {
  if (OnChanged) OnChanged();
}

// --- Function list and user functions --------------------------------------------------------------------

std::vector<TFitFunctionListEntry> TAdvancedFittingPreview::GetFunctionList() const {
  std::vector<TFitFunctionListEntry> list;
  TFitFunctionManager standard;
  standard.CreateStandardFitFunctions();
  auto add = [&list](const TFitFunction& f, bool user) {
    list.push_back({f.FunctionName,
                    user ? std::string(kUserCategory)
                         : (f.Categories.empty() ? std::string("Other") : f.Categories.front()),
                    user, f.GetOnlyAdvancedMode()});
  };
  for (int i = 0; i < standard.GetCount(); ++i) add(*standard.GetFitFunction(i), false);
  for (int i = 0; i < FUserFunctions->GetCount(); ++i)
    if (FUserFunctions->GetFitFunction(i)->IsUserFunction()) add(*FUserFunctions->GetFitFunction(i), true);
  return list;
}

std::string TAdvancedFittingPreview::GetSelectedFunctionName() const {
  const TUserParameter* function = FTool.Parameters().GetUserParameterByName(kFunction);
  return function ? function->GetValueText() : std::string();
}

bool TAdvancedFittingPreview::SelectFunction(const std::string& functionName) {
  const std::vector<TFitFunctionListEntry> list = GetFunctionList();
  const auto entry = std::find_if(list.begin(), list.end(), [&](const TFitFunctionListEntry& e) {
    return e.FunctionName == functionName;
  });
  if (entry == list.end()) return false;
  if (entry->OnlyAdvancedMode && !FTool.GetBoolParameter(kAdvancedMode)) return false;
  // The function and rows of its own in one set: the rows of the former function don't apply.
  FStoring = true;
  const TUserParameterProblems problems = FTool.Parameters().SetParameterValuesFromText(
      {std::string(kFunction) + "=" + functionName, std::string(kFitParameters) + "="});
  FStoring = false;
  if (!problems.empty()) {
    ClearResult(problems.front().Parameter + ": " + problems.front().Message);
    Changed();
    return false;
  }
  ClearResult(kNotFitted);
  Update();
  return true;
}

bool TAdvancedFittingPreview::SetFunctionSettings(const std::string& settings) {
  const std::vector<TAdvancedFitParamSettings> former = FCore.Rows();
  if (!FTool.GetBoolParameter(kAdvancedMode)) {
    // Settings that make a function of several parts are for advanced mode only.
    TAdvancedFittingCore trial;
    std::string error;
    if (FTool.ConfigureCore(trial, error)) {
      const std::vector<std::string> assignments = SettingItems(settings);
      if (!assignments.empty() && trial.GetFunction()->SetSettingsFromText(assignments).empty() &&
          trial.GetFunction()->GetOnlyAdvancedMode()) {
        FStatus = "Advanced Mode is needed for these settings";
        Changed();
        return false;
      }
    }
  }
  FStoring = true;
  const TUserParameterProblems problems = FTool.Parameters().SetParameterValuesFromText(
      {std::string(kFunctionSettings) + "=" + settings, std::string(kFitParameters) + "="});
  FStoring = false;
  if (!problems.empty()) {
    ClearResult(problems.front().Parameter + ": " + problems.front().Message);
    Changed();
    return false;
  }
  if (Reconfigure()) {
    for (TAdvancedFitParamSettings& row : FCore.Rows())
      for (const TAdvancedFitParamSettings& old : former)
        if (old.Name == row.Name) row = old;
    StoreRows();
  }
  Update();
  return true;
}

bool TAdvancedFittingPreview::IsAdvancedModeChangeAllowed(bool on) const {
  if (on) return true;
  TAdvancedFittingCore core;
  std::string error;
  if (!FTool.ConfigureCore(core, error)) return true;
  return !core.GetFunction()->GetOnlyAdvancedMode();
}

void TAdvancedFittingPreview::KeepAdvancedMode() {
  FStoring = true;
  FTool.Parameters().SetParameterValuesFromText({std::string(kAdvancedMode) + "=true"});
  FStoring = false;
  FStatus = "Advanced Mode is needed by the selected function";
  Changed();
}

bool TAdvancedFittingPreview::AddSelectedFunctionToUserFunctions(const std::string& name,
                                                                 std::string& problem) {
  if (name.empty()) {
    problem = "a name is needed";
    return false;
  }
  for (const TFitFunctionListEntry& entry : GetFunctionList())
    if (entry.FunctionName == name) {
      problem = "a function named \"" + name + "\" exists";
      return false;
    }
  TAdvancedFittingCore core;
  if (!FTool.ConfigureCore(core, problem)) return false;
  core.ApplyRowsToFunction();
  std::unique_ptr<TFitFunction> copy = TFitFunctionManager::CloneFitFunction(*core.GetFunction());
  if (!copy) {
    problem = "the function can't be copied";
    return false;
  }
  copy->FunctionName = name;
  copy->DisplayName = name;
  copy->Categories = {kUserCategory};
  FUserFunctions->AddFitFunction(std::move(copy));
  Changed();
  return true;
}

bool TAdvancedFittingPreview::DeleteSelectedUserFunction() {
  const std::string name = GetSelectedFunctionName();
  for (int i = 0; i < FUserFunctions->GetCount(); ++i)
    if (FUserFunctions->GetFitFunction(i)->FunctionName == name &&
        FUserFunctions->GetFitFunction(i)->IsUserFunction()) {
      FUserFunctions->DeleteFitFunction(i);
      SelectFunction(GetFunctionList().front().FunctionName);
      Changed();
      return true;
    }
  return false;
}

bool TAdvancedFittingPreview::SaveUserFunctions(const std::string& fileName) {
  if (FUserFunctions->SaveUserFitFunctionsToTagFile(fileName) < 1) {
    FTitle = kSaveLoadProblemTitle;
    Changed();
    return false;
  }
  FTitle = FTool.GetDialogName();
  // The saved file is the tool's: its functions may be chosen by name from now on.
  FStoring = true;
  FTool.Parameters().SetParameterValuesFromText({std::string(kUserFitFunctionsFile) + "=" + fileName});
  FStoring = false;
  Changed();
  return true;
}

bool TAdvancedFittingPreview::LoadUserFunctions(const std::string& fileName, bool append) {
  auto loaded = std::make_unique<TFitFunctionManager>();
  TTagError result = append ? teNoError : loaded->LoadUserFitFunctionsFromTagFile(fileName);
  if (append) {
    // The present functions stay; the file's join them.
    for (int i = 0; i < FUserFunctions->GetCount(); ++i)
      if (auto copy = TFitFunctionManager::CloneFitFunction(*FUserFunctions->GetFitFunction(i)))
        loaded->AddFitFunction(std::move(copy));
    result = loaded->AppendUserFitFunctionsFromTagFile(fileName);
  }
  if (result < 1) {
    FTitle = kSaveLoadProblemTitle;
    Changed();
    return false;
  }
  FUserFunctions = std::move(loaded);
  FTitle = FTool.GetDialogName();
  if (!append) {
    FStoring = true;
    FTool.Parameters().SetParameterValuesFromText({std::string(kUserFitFunctionsFile) + "=" + fileName});
    FStoring = false;
  }
  Changed();
  return true;
}
