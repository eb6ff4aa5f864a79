#include "tools/spectral/Advancedfittingtool.h"

#include "common/OrvexException.h"
#include "common/numerics/Fitfunctionmanager.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "project/Graphmask.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "tools/spectral/Advancedfittingcore.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace {

constexpr const char* kFunction = "Function";
constexpr const char* kFunctionSettings = "Function Settings";
constexpr const char* kFitParameters = "Fit Parameters";
constexpr const char* kFitMask = "Fit Mask";
constexpr const char* kDataReduction = "Data Reduction";
constexpr const char* kExtractChiSqr = "Extract Chi^2";
constexpr const char* kExtractFitFailMask = "Extract Fit Fail Mask";
constexpr const char* kExtractFitCurves = "Extract Fit Curves";
constexpr const char* kExtractReplica = "Extract Replica";
constexpr const char* kNumberOfThreads = "Number of Threads";

// The functions the tool offers, in the manager's order: class name for creation, function name for
// the user.
struct TOfferedFunction {
  std::string ClassName, FunctionName;
};

const std::vector<TOfferedFunction>& OfferedFunctions() {
  static const std::vector<TOfferedFunction> functions = [] {
    TFitFunctionManager manager;
    manager.CreateStandardFitFunctions();
    std::vector<TOfferedFunction> list;
    for (int i = 0; i < manager.GetCount(); ++i)
      if (const TFitFunction* f = manager.GetFitFunction(i)) list.push_back({f->ClassName, f->FunctionName});
    return list;
  }();
  return functions;
}

std::string Trim(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

// Items of a list separated by ';' or line breaks, trimmed, empty ones dropped.
std::vector<std::string> SplitItems(const std::string& text) {
  std::vector<std::string> items;
  std::string item;
  for (char c : text + ";") {
    if (c == ';' || c == '\n') {
      if (!Trim(item).empty()) items.push_back(Trim(item));
      item.clear();
    } else {
      item += c;
    }
  }
  return items;
}

bool ReadNumber(const std::string& text, double& value) {
  if (text == "nan" || text == "NaN") {
    value = std::numeric_limits<double>::quiet_NaN();
    return true;
  }
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text.c_str(), &end);
  if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(v)) return false;
  value = v;
  return true;
}

bool ReadBool(const std::string& text, bool& value) {
  if (text == "true" || text == "1" || text == "yes") {
    value = true;
    return true;
  }
  if (text == "false" || text == "0" || text == "no") {
    value = false;
    return true;
  }
  return false;
}

// A limit column: a number, or "none" for no limit.
bool ReadLimit(const std::string& text, bool& has, double& limit) {
  if (text == "none") {
    has = false;
    return true;
  }
  double v = 0;
  if (!ReadNumber(text, v) || std::isnan(v)) return false;
  has = true;
  limit = v;
  return true;
}

// Sets one column of a row; false for an unknown column or an unreadable value.
bool SetColumn(TAdvancedFitParamSettings& row, const std::string& column, const std::string& value,
               std::string& error) {
  bool ok = false;
  double number = 0;
  if (column == "Start Value") {
    ok = ReadNumber(value, number) && !std::isnan(number);
    if (ok) row.StartValue = number;
  } else if (column == "Value") {
    ok = ReadNumber(value, number) && !std::isnan(number);
    if (ok) row.Value = number;
  } else if (column == "Vary") {
    ok = ReadBool(value, row.Vary);
  } else if (column == "Lower Limit") {
    ok = ReadLimit(value, row.HasLowerLimit, row.LowerLimit);
  } else if (column == "Upper Limit") {
    ok = ReadLimit(value, row.HasUpperLimit, row.UpperLimit);
  } else if (column == "Auto") {
    ok = ReadBool(value, row.Auto);
  } else if (column == "Extract Value") {
    ok = ReadBool(value, row.ExtractValue);
  } else if (column == "Extract Error") {
    ok = ReadBool(value, row.ExtractError);
  } else if (column == "Value if Fit Fails") {
    ok = ReadNumber(value, number);
    if (ok) row.ValueIfFitFails = number;
  } else {
    error = "unknown column \"" + column + "\" of row \"" + row.Name + "\"";
    return false;
  }
  if (!ok) error = "\"" + value + "\" is no value for \"" + row.Name + "|" + column + "\"";
  return ok;
}

template <class P>
const P* Find(const TUserParameterAdministrator& parameters, const char* name) {
  return dynamic_cast<const P*>(parameters.GetUserParameterByName(name));
}

// The core set up from the parameters as they stand; false with the parameter at fault and why.
bool Configure(const TUserParameterAdministrator& parameters, TAdvancedFittingCore& core,
               std::string& parameter, std::string& error) {
  const auto* function = Find<TUserIntParameter>(parameters, kFunction);
  const auto* settings = Find<TUserStringParameter>(parameters, kFunctionSettings);
  const auto* rows = Find<TUserStringParameter>(parameters, kFitParameters);
  if (!function || !settings || !rows)
    throw OrvexException("TAdvancedFittingToolForm::Configure(): parameters are missing");
  const auto& offered = OfferedFunctions();
  const int index = function->GetParameter();
  parameter = kFunction;
  if (index < 0 || index >= static_cast<int>(offered.size())) {
    error = "no function number " + std::to_string(index);
    return false;
  }
  auto fit = TFitFunctionManager::CreateFitFunctionByClassName(offered[static_cast<size_t>(index)].ClassName);
  if (!fit) {
    error = "the function \"" + offered[static_cast<size_t>(index)].FunctionName + "\" can't be made";
    return false;
  }
  parameter = kFunctionSettings;
  const TUserParameterProblems problems = fit->SetSettingsFromText(SplitItems(settings->GetParameter()));
  if (!problems.empty()) {
    error = problems.front().Parameter + ": " + problems.front().Message;
    return false;
  }
  core.SetFunction(std::move(fit));
  parameter = kFitParameters;
  if (!ApplyFitParameterText(rows->GetParameter(), core, error)) return false;
  const std::vector<std::string> rowProblems = core.CheckRows();
  if (!rowProblems.empty()) {
    error = rowProblems.front();
    return false;
  }
  if (const auto* p = Find<TUserIntParameter>(parameters, kDataReduction))
    core.DataReduction = p->GetParameter();
  if (const auto* p = Find<TUserBoolParameter>(parameters, kExtractChiSqr))
    core.ExtractChiSqr = p->GetParameter();
  if (const auto* p = Find<TUserBoolParameter>(parameters, kExtractFitFailMask))
    core.ExtractFitFailMask = p->GetParameter();
  if (const auto* p = Find<TUserBoolParameter>(parameters, kExtractFitCurves))
    core.ExtractFitCurves = p->GetParameter();
  if (const auto* p = Find<TUserBoolParameter>(parameters, kExtractReplica))
    core.ExtractReplica = p->GetParameter();
  if (const auto* p = Find<TUserIntParameter>(parameters, kNumberOfThreads))
    core.NumberOfThreads = p->GetParameter();
  parameter.clear();
  return true;
}

} // namespace

bool ApplyFitParameterText(const std::string& text, TAdvancedFittingCore& core, std::string& error) {
  // Rows are changed on a copy so that a refused text leaves them as they were.
  std::vector<TAdvancedFitParamSettings> rows = core.Rows();
  for (const std::string& item : SplitItems(text)) {
    const auto bar = item.find('|');
    const auto equals = item.find('=');
    if (bar == std::string::npos || equals == std::string::npos || equals < bar) {
      error = "\"" + item + "\" is not of the form <parameter>|<column>=<value>";
      return false;
    }
    const std::string name = Trim(item.substr(0, bar));
    const std::string column = Trim(item.substr(bar + 1, equals - bar - 1));
    const std::string value = Trim(item.substr(equals + 1));
    const int row = core.FindRow(name);
    if (row < 0) {
      error = "the function has no parameter \"" + name + "\"";
      return false;
    }
    if (!SetColumn(rows[static_cast<size_t>(row)], column, value, error)) return false;
  }
  core.Rows() = std::move(rows);
  return true;
}

TParameterTable& TAdvancedFittingToolForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    std::vector<TParameterChoice> choices;
    int number = 0;
    for (const TOfferedFunction& f : OfferedFunctions()) choices.push_back({f.FunctionName, number++});
    t.AddList(kFunction, "Function", 0, choices).SetDescription("The fit function");
    t.AddString(kFunctionSettings, "Function Settings", "")
        .SetDescription("The function's own settings: \"name=value\" items separated by ';'");
    t.AddString(kFitParameters, "Fit Parameters", "")
        .SetDescription("Row settings: \"<parameter>|<column>=<value>\" items separated by ';'; columns "
                        "Start Value, Value, Vary, Lower Limit, Upper Limit (number or none), Auto, "
                        "Extract Value, Extract Error, Value if Fit Fails");
    t.AddString(kFitMask, "Fit Mask", "all")
        .SetDescription("Points fitted: \"all\", \"none\", \"lo:hi\" in the axis unit, \"lo:hi px\", "
                        "\"graph:ID\", comma-separated");
    t.AddInt(kDataReduction, "Data Reduction", 1)
        .SetLimits(1, 10000)
        .SetDescription("Every k-th point of each run of the mask is fitted");
    t.AddBool(kExtractChiSqr, "Extract Chi^2", true);
    t.AddBool(kExtractFitFailMask, "Extract Fit Fail Mask", true);
    t.AddBool(kExtractFitCurves, "Extract Fit Curves", false)
        .SetDescription("Extract also makes the fitted curves");
    t.AddBool(kExtractReplica, "Extract Replica", false)
        .SetDescription("With the curves, one more curve graph per part of a composite function");
    t.AddInt(kNumberOfThreads, "Number of Threads", -1)
        .SetLimits(-1, 1024)
        .SetDescription("-1: as many as allowed")
        .SetSaved(false);
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAll, "Extract All");
    t.AddTrigger(TAdvancedFittingToolForm::kExtractCurves, "Extract Curves");
    t.SetCrossCheck([](const TUserParameterAdministrator& parameters) {
      TUserParameterProblems problems;
      TAdvancedFittingCore core;
      std::string parameter, error;
      if (!Configure(parameters, core, parameter, error)) problems.push_back({parameter, error});
      return problems;
    });
    return t;
  }();
  return table;
}

TAdvancedFittingToolForm::TAdvancedFittingToolForm()
    : TProjectDialogForm("Advanced Fitting Tool", Declaration()) {}

TAdvancedFittingToolForm::~TAdvancedFittingToolForm() = default;

bool TAdvancedFittingToolForm::IsInputIDListOkay(TProject* project, const TIntList* ids,
                                                 const TIntList* /*extra*/, std::string* reason) {
  auto refuse = [&](const std::string& text) {
    if (reason) *reason = text;
    return false;
  };
  if (!ids || ids->empty()) return refuse("no input graph");
  if (!project) return true;
  for (int32_t id : *ids) {
    const TData* data = project->FindData(id);
    if (!data) return refuse("no object with ID " + std::to_string(id));
    if (!dynamic_cast<const TDGraph*>(data))
      return refuse("\"" + data->GetCaption() + "\" (ID " + std::to_string(id) + ") is no graph");
  }
  return true;
}

bool TAdvancedFittingToolForm::ConfigureCore(TAdvancedFittingCore& core, std::string& error) const {
  std::string parameter;
  if (Configure(Parameters(), core, parameter, error)) return true;
  error = parameter + ": " + error;
  return false;
}

bool TAdvancedFittingToolForm::DoCommand(const std::string& name) {
  const bool curvesOnly = name == kExtractCurves;
  if (!curvesOnly && name != kExtract && name != kExtractAll) return false;
  TProject& project = *GetProject();
  // Extract fits the first input, Extract All every input.
  TIntList inputs = GetInitIDs();
  if (!IsRunAll() && inputs.size() > 1) inputs.resize(1);
  SetRunInputIDs(inputs);
  FFailedFits = 0;
  std::string report;
  for (int32_t id : inputs) {
    const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(id));
    if (!graph)
      throw OrvexException(GetDialogName() + ": the object of ID " + std::to_string(id) + " is no graph");
    if (!FitGraph(*graph, !curvesOnly, curvesOnly || GetBoolParameter(kExtractFitCurves), report))
      return false;
  }
  SetReport(report);
  return true;
}

bool TAdvancedFittingToolForm::FitGraph(const TDGraph& graph, bool images, bool curves, std::string& report) {
  TProject& project = *GetProject();
  const std::string name = "\"" + graph.GetCaption() + "\" (ID " + std::to_string(graph.GetID()) + ")";
  TAdvancedFittingCore core;
  std::string error;
  if (!ConfigureCore(core, error)) throw OrvexException(GetDialogName() + ": " + error);
  core.ExternalCancel = ExternalCancel;
  // The memory check counts the curves only when they are made.
  core.ExtractFitCurves = curves;

  TGraphMaskAxis axis;
  if (!GetGraphMaskAxis(project, graph.GetID(), "", axis, error))
    throw OrvexException(GetDialogName() + ": " + name + ": " + error);
  std::vector<bool> mask;
  if (!ReadGraphMaskForGraph(project, graph.GetID(), GetStringParameter(kFitMask), "", mask, error))
    throw OrvexException(GetDialogName() + ": Fit Mask: " + error);
  if (axis.Values.empty()) {
    // Without a spectral axis the fit runs over the point index.
    axis.Values.resize(static_cast<size_t>(graph.GetSizeGraph()));
    for (size_t g = 0; g < axis.Values.size(); ++g) axis.Values[g] = static_cast<double>(g);
  }
  core.SetAxis(axis.Values);
  core.SetFitMask(mask);

  std::string message;
  const TAdvancedFitStatus status = core.FitAll(graph, message);
  if (status == TAdvancedFitStatus::Cancelled) return false;
  if (status == TAdvancedFitStatus::Refused)
    throw OrvexException(GetDialogName() + ": " + name + ": " + message);

  TAdvancedFitStatus made = TAdvancedFitStatus::Done;
  if (images) {
    auto results = core.MultiCoreFillImages(project, graph.GetID(), made);
    if (made == TAdvancedFitStatus::Cancelled) return false;
    for (auto& image : results) AddResult(std::move(image));
  }
  if (curves) {
    auto results = core.MultiCoreExtractFitCurve(project, graph.GetID(), made);
    if (made == TAdvancedFitStatus::Cancelled) return false;
    for (auto& curve : results) AddResult(std::move(curve));
  }
  const int64_t spectra = graph.GetNumberOfSpectra();
  FFailedFits += core.GetNumberOfFailedFits();
  report += graph.GetCaption() + ": " + std::to_string(spectra) + " spectra fitted with " +
            core.GetFunction()->FunctionName + " on " + std::to_string(core.GetNumberOfFitPoints()) +
            " points, " + std::to_string(core.GetNumberOfFailedFits()) + " failed\n";
  return true;
}

void RegisterAdvancedFittingTool(TToolRegistry& registry) {
  registry.Register(TAdvancedFittingToolForm::kClassName, "Advanced Fitting Tool", "spectral",
                    [] { return std::make_unique<TAdvancedFittingToolForm>(); });
}
