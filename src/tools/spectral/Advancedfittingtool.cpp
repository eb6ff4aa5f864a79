#include "tools/spectral/Advancedfittingtool.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/numerics/Fitfunctionmanager.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtext.h"
#include "project/Graphmask.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "tools/spectral/Advancedfittingcore.h"
#include "tools/spectral/Advancedfittingpreview.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
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
constexpr const char* kParamPrecision = "Param Precision";
constexpr const char* kPixelX = "Pixel X";
constexpr const char* kPixelY = "Pixel Y";
constexpr const char* kUserFitFunctionsFile = "User Fit Functions File";
constexpr const char* kNumberOfThreads = "Number of Threads";
constexpr const char* kFitMode = "Fit Mode";
constexpr const char* kAdvancedMode = "Advanced Mode";
constexpr const char* kShowAllReplica = "Show all Replica on Startup";
constexpr const char* kExtractWithSupportingPoints = "Extract Fit Curve with Input Data Supporting Points";

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

// The Function list: the standard functions by number, and by name a function of the user fit functions
// file. A name that is none of the entries is kept as text and resolved against the file when the tool
// is configured, so that "Function=MyPeak" may stand before or after the file on a command line (the
// values of one set are checked before any of them is taken).
class TFitFunctionListParameter : public TUserListParameter {
public:
  using TUserListParameter::TUserListParameter;

  /// The name of a user function chosen; empty when a standard function is.
  const std::string& GetUserFunctionName() const { return FUserFunctionName; }

  bool CheckValueText(const std::string& text, std::string& problem) const override {
    if (TUserListParameter::CheckValueText(text, problem)) return true;
    if (Trim(text).empty()) return false;
    problem.clear();
    return true;
  }
  bool SetParameterFromText(const std::string& text, std::string& problem) override {
    std::string ignored;
    if (TUserListParameter::CheckValueText(text, ignored)) {
      FUserFunctionName.clear();
      return TUserListParameter::SetParameterFromText(text, problem);
    }
    if (Trim(text).empty()) {
      problem = "a function name is needed";
      return false;
    }
    FUserFunctionName = Trim(text);
    return true;
  }
  std::string GetValueText() const override {
    return FUserFunctionName.empty() ? TUserListParameter::GetValueText() : FUserFunctionName;
  }
  std::string GetParameterString() const override {
    return FUserFunctionName.empty() ? TUserListParameter::GetParameterString() : FUserFunctionName;
  }
  // Stored settings keep the list's number as any list does, and a chosen user function's name in a tag
  // of its own beside it; a load without that tag returns to the standard function of the number.
  TTagError SaveParameter(TFileHandle file) override {
    TTagError result = TUserListParameter::SaveParameter(file);
    if (result >= 1 && GetSaveValue() && !FUserFunctionName.empty())
      result = UserParameterValue::Save(file, NameTag(), FUserFunctionName);
    return result;
  }
  TTagError LoadParameter(TFileHandle file, const TTagControl* parent) override {
    FUserFunctionName.clear();
    const TTagError result = TUserListParameter::LoadParameter(file, parent);
    std::string name;
    if (result >= 1 && parent && UserParameterValue::Load(file, NameTag(), *parent, name) >= 1)
      FUserFunctionName = Trim(name);
    return result;
  }
  TTagError SaveParameterToTagControl(TTagControl& parent) override {
    TTagError result = TUserListParameter::SaveParameterToTagControl(parent);
    if (result >= 1 && GetSaveValue() && !FUserFunctionName.empty())
      result = UserParameterValue::Add(parent, NameTag(), FUserFunctionName);
    return result;
  }
  TTagError LoadParameterFromTagControl(const TTagControl* parent) override {
    FUserFunctionName.clear();
    const TTagError result = TUserListParameter::LoadParameterFromTagControl(parent);
    std::string name;
    if (parent && UserParameterValue::Get(*parent, NameTag(), name)) FUserFunctionName = Trim(name);
    return result;
  }
  TTagError SaveValueTag(TFileHandle file) override {
    TTagError result = TUserListParameter::SaveValueTag(file);
    if (result >= 1 && GetSaveValue() && !FUserFunctionName.empty())
      result = UserParameterValue::Save(file, NameTag(), FUserFunctionName);
    return result;
  }
  TTagError LoadValueTag(TFileHandle file, const TTagControl& parent) override {
    FUserFunctionName.clear();
    const TTagError result = TUserListParameter::LoadValueTag(file, parent);
    std::string name;
    if (result >= 1 && UserParameterValue::Load(file, NameTag(), parent, name) >= 1)
      FUserFunctionName = Trim(name);
    return result;
  }
  TTagError AddValueTag(TTagControl& parent) override {
    TTagError result = TUserListParameter::AddValueTag(parent);
    if (result >= 1 && GetSaveValue() && !FUserFunctionName.empty())
      result = UserParameterValue::Add(parent, NameTag(), FUserFunctionName);
    return result;
  }
  TTagError ReadValueTag(const TTagControl& parent) override {
    FUserFunctionName.clear();
    const TTagError result = TUserListParameter::ReadValueTag(parent);
    std::string name;
    if (UserParameterValue::Get(parent, NameTag(), name)) FUserFunctionName = Trim(name);
    return result;
  }

private:
  std::string NameTag() const { return GetName() + " User Function"; }
  std::string FUserFunctionName;
};

// The tool's declaration: the Function list is made as the parameter above.
class TAdvancedFittingDeclaration : public TParameterTable {
public:
  void CreateParameters(TUserParameterAdministrator& administrator) override {
    int32_t id = GetFirstId();
    for (const TParameterDeclaration& d : GetDeclarations()) {
      std::unique_ptr<TUserParameter> parameter = CreateParameter(d, id++);
      if (d.Name == kFunction) {
        const auto& list = static_cast<const TUserListParameter&>(*parameter);
        auto function = std::make_unique<TFitFunctionListParameter>(
            list.GetId(), list.GetName(), list.GetCaption(), list.GetDescription(), list.GetDefaultValue());
        for (const auto& [text, number] : list.GetDescriptionsAndNumbers())
          function->AddListEntry(text, number);
        function->SetHasLowerLimit(list.GetHasLowerLimit());
        function->SetHasUpperLimit(list.GetHasUpperLimit());
        function->SetLowerLimit(list.GetLowerLimit());
        function->SetUpperLimit(list.GetUpperLimit());
        parameter = std::move(function);
      }
      administrator.AddParameter(std::move(parameter));
    }
  }
};

// The functions of a user fit functions file; false with one line saying why it can't be used.
bool LoadUserFitFunctions(const std::string& fileName, TFitFunctionManager& manager, std::string& error) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(fileName, ec)) {
    error = "\"" + fileName + "\" is no file";
    return false;
  }
  const TTagError e = manager.LoadUserFitFunctionsFromTagFile(fileName);
  if (e == teWrongFileIdentification) {
    error = "\"" + fileName + "\" is no user fit functions file (ORX_UFIT with OrvexUserFitFunctions)";
    return false;
  }
  if (e < 1) {
    error = "\"" + fileName + "\" can't be read (" + GetTagErrorName(e) + ")";
    return false;
  }
  return true;
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
  } else if (column == "Fit Order") {
    ok = ReadNumber(value, number) && number >= 0 && number <= 1000 && number == std::floor(number);
    if (ok) row.FitOrder = static_cast<int>(number);
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
  std::unique_ptr<TFitFunction> fit;
  // The user's functions, when a file is given; they join the list after the standard ones.
  TFitFunctionManager user;
  std::string fileName;
  if (const auto* file = Find<TUserStringParameter>(parameters, kUserFitFunctionsFile))
    fileName = Trim(file->GetParameter());
  parameter = kUserFitFunctionsFile;
  if (!fileName.empty() && !LoadUserFitFunctions(fileName, user, error)) return false;
  parameter = kFunction;
  const auto* list = dynamic_cast<const TFitFunctionListParameter*>(function);
  const std::string userName = list ? list->GetUserFunctionName() : std::string();
  if (!userName.empty()) {
    std::string known;
    for (const TOfferedFunction& f : offered) known += (known.empty() ? "" : ", ") + f.FunctionName;
    for (int i = 0; i < user.GetCount() && !fit; ++i) {
      const TFitFunction& f = *user.GetFitFunction(i);
      known += ", " + f.FunctionName;
      if (f.FunctionName == userName) fit = TFitFunctionManager::CloneFitFunction(f);
    }
    if (!fit) {
      error = "no fit function \"" + userName + "\"" +
              (fileName.empty() ? std::string(" (no User Fit Functions File is given)") : std::string()) +
              " (known: " + known + ")";
      return false;
    }
  } else {
    const int index = function->GetParameter();
    if (index < 0 || index >= static_cast<int>(offered.size())) {
      error = "no function number " + std::to_string(index);
      return false;
    }
    fit = TFitFunctionManager::CreateFitFunctionByClassName(offered[static_cast<size_t>(index)].ClassName);
    if (!fit) {
      error = "the function \"" + offered[static_cast<size_t>(index)].FunctionName + "\" can't be made";
      return false;
    }
  }
  parameter = kFunctionSettings;
  // Without settings the function stays as made or loaded: a user function keeps its stored rows.
  const std::vector<std::string> assignments = SplitItems(settings->GetParameter());
  const TUserParameterProblems problems =
      assignments.empty() ? TUserParameterProblems() : fit->SetSettingsFromText(assignments);
  if (!problems.empty()) {
    error = problems.front().Parameter + ": " + problems.front().Message;
    return false;
  }
  if (auto* formula = dynamic_cast<TNLFitUserDefined*>(fit.get()); formula && !formula->IsUsable()) {
    const TFormelParser& parser = formula->Parser();
    std::string message = parser.GetMessage();
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
    error = "the formula \"" + formula->FitFunctionString + "\" of \"" + formula->FunctionName +
            "\" can't be read" + (message.empty() ? std::string() : ": " + message);
    parameter = userName.empty() ? kFunctionSettings : kFunction;
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
  if (const auto* p = Find<TUserBoolParameter>(parameters, kExtractWithSupportingPoints))
    core.ExtractFitCurveWithInputDataSupportingPoints = p->GetParameter();
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
  static TAdvancedFittingDeclaration table = [] {
    TAdvancedFittingDeclaration t;
    std::vector<TParameterChoice> choices;
    int number = 0;
    for (const TOfferedFunction& f : OfferedFunctions()) choices.push_back({f.FunctionName, number++});
    t.AddList(kFunction, "Function", 0, choices)
        .SetDescription("The fit function; or by name one of the User Fit Functions File");
    t.AddString(kFunctionSettings, "Function Settings", "")
        .SetDescription("The function's own settings: \"name=value\" items separated by ';'");
    t.AddString(kFitParameters, "Fit Parameters", "")
        .SetDescription("Row settings: \"<parameter>|<column>=<value>\" items separated by ';'; columns "
                        "Start Value, Value, Vary, Lower Limit, Upper Limit (number or none), Auto, "
                        "Extract Value, Extract Error, Value if Fit Fails, Fit Order (the stage from "
                        "which the parameter varies, 0 the first)");
    t.AddString(kFitMask, "Fit Mask", "all")
        .SetSpectralMask()
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
    t.AddBool(kExtractWithSupportingPoints, "Extract Fit Curve with Input Data Supporting Points", true)
        .SetDescription("The extracted fit curves lie on the input's points; off: on the preview range");
    t.AddBool(kShowAllReplica, "Show all Replica on Startup", true)
        .SetDescription("The preview viewer shows the parts of a composite function beside its curve");
    t.AddInt(kParamPrecision, "Param Precision:", 6)
        .SetLimits(2, 12)
        .SetDescription("Significant digits of the values in the text of a fitted spectrum");
    t.AddInt(kPixelX, "Pixel X", 0).SetLowerLimit(0).SetDescription("The spectrum fitted by Extract");
    t.AddInt(kPixelY, "Pixel Y", 0).SetLowerLimit(0);
    t.AddString(kUserFitFunctionsFile, "User Fit Functions File", "")
        .SetDescription(
            "A user fit functions file (ORX_UFIT) whose functions join the Function list by name");
    t.AddInt(kNumberOfThreads, "Number of Threads", -1)
        .SetLimits(-1, 1024)
        .SetDescription("-1: as many as allowed")
        .SetSaved(false);
    t.AddList(kFitMode, "Fit Mode", 0,
              {{TAdvancedFittingPreview::kFitOnChange, 0}, {TAdvancedFittingPreview::kDefineStartValues, 1}})
        .SetDescription(
            "Fit on Change: every change of a parameter or of the spectrum refits it; Define Start "
            "Values: the curve follows the start values");
    t.AddBool(kAdvancedMode, "Advanced Mode", false)
        .SetDescription("Offers the functions of several parts and their settings");
    // The x axis of the preview curve: an even range of the input's axis unit.
    t.AddInt(TAdvancedFittingToolForm::kPreviewPoints, "# of Points:", TAdvancedFitPreviewRange::kMaxPoints)
        .SetLimits(2, TAdvancedFitPreviewRange::kMaxPoints)
        .SetDescription("Points of the preview fit curve");
    t.AddFloat(TAdvancedFittingToolForm::kPreviewStart, "Start Value:", 0)
        .SetLimits(-TAdvancedFitPreviewRange::kLimit, TAdvancedFitPreviewRange::kLimit)
        .SetDescription("First x of the preview fit curve (the input's axis unit); with Stop Value 0 "
                        "too the whole axis");
    t.AddFloat(TAdvancedFittingToolForm::kPreviewStop, "Stop Value:", 0)
        .SetLimits(-TAdvancedFitPreviewRange::kLimit, TAdvancedFitPreviewRange::kLimit)
        .SetDescription("Last x of the preview fit curve");
    t.AddTrigger(TAdvancedFittingToolForm::kResetRange, "Reset Range")
        .SetDescription("The preview range becomes the whole axis of the input");
    t.AddBool(TAdvancedFittingToolForm::kListen, "Listen", false)
        .SetDescription("The preview range follows the x cursor of the preview viewer: from the cursor "
                        "to its difference position")
        .SetSaved(false);
    t.AddTrigger(TAdvancedFittingToolForm::kFitOnce, "Fit Once");
    t.AddTrigger(TAdvancedFittingToolForm::kValuesToStartValues, "<<")
        .SetDescription("The fitted values become the start values");
    t.AddTrigger(TAdvancedFittingToolForm::kStartValuesToValues, ">>")
        .SetDescription("The start values become the values");
    t.AddTrigger(TAdvancedFittingToolForm::kResetParams, "Reset Params");
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
    : TProjectDialogForm("Advanced Fitting Tool", Declaration()),
      FPreview(std::make_unique<TAdvancedFittingPreview>(*this)) {}

std::vector<std::string> TAdvancedFittingToolForm::GetExtractCommands() const {
  return {kExtract, kExtractAll, kExtractCurves};
}

void TAdvancedFittingToolForm::Init(const TIntList* ids, const TIntList* extra, TProject* project) {
  TProjectDialogForm::Init(ids, extra, project);
  if (Interactive && !ConfigurationOnly && ids && !ids->empty()) FPreview->Open(ids->front());
}

void TAdvancedFittingToolForm::CleanUp() {
  FPreview->Close();
  TProjectDialogForm::CleanUp();
}

TAdvancedFittingPreview* TAdvancedFittingToolForm::GetPreview() const {
  return FPreview->IsOpen() ? FPreview.get() : nullptr;
}

TVCustomForm* TAdvancedFittingToolForm::GetSpectralMaskViewer() const {
  const TAdvancedFittingPreview* preview = GetPreview();
  return preview ? preview->GetViewer() : nullptr;
}

int32_t TAdvancedFittingToolForm::GetSpectralMaskGraphID() const {
  const TAdvancedFittingPreview* preview = GetPreview();
  return preview ? preview->GetDataGraphID() : 0;
}

void TAdvancedFittingToolForm::DoDataChange(TData* data) {
  if (!data || !FPreview->IsOpen()) return;
  if (data->InheritsFrom(TDSpaceCursor::kClassName))
    FPreview->FollowSpaceCursor();
  else if (const auto* cursor = dynamic_cast<const TDCursor*>(data))
    FPreview->XCursorChanged(*cursor);
}

void TAdvancedFittingToolForm::DoParameterChanged(const TUserParameterList& changed) {
  if (!FPreview->IsOpen() || FPreview->IsStoring()) return;
  // Advanced Mode stays on while the function of several parts needs it.
  for (const TUserParameter* parameter : changed)
    if (parameter->GetName() == kAdvancedMode && !GetBoolParameter(kAdvancedMode) &&
        !FPreview->IsAdvancedModeChangeAllowed(false)) {
      FPreview->KeepAdvancedMode();
      return;
    }
  // Only the preview range (or Listen) changed: the curve is drawn anew, the fit stays.
  const bool onlyRange = std::all_of(changed.begin(), changed.end(), [](const TUserParameter* parameter) {
    const std::string& name = parameter->GetName();
    return name == kPreviewPoints || name == kPreviewStart || name == kPreviewStop || name == kListen;
  });
  if (!changed.empty() && onlyRange) {
    FPreview->RangeChanged();
    return;
  }
  // A changed setting: Fit on Change refits the current spectrum, Define Start Values redraws its curve.
  FPreview->Update();
}

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
  if (name == kFitOnce || name == kValuesToStartValues || name == kStartValuesToValues ||
      name == kResetParams || name == kResetRange) {
    if (!FPreview->IsOpen()) return false;
    if (name == kResetRange)
      FPreview->ResetRange();
    else if (name == kFitOnce)
      FPreview->FitOnce();
    else if (name == kValuesToStartValues)
      FPreview->CopyValuesToStartValues();
    else if (name == kStartValuesToValues)
      FPreview->CopyStartValuesToValues();
    else
      FPreview->ResetParams();
    return true;
  }
  const bool curvesOnly = name == kExtractCurves;
  if (!curvesOnly && name != kExtract && name != kExtractAll) return false;
  TProject& project = *GetProject();
  // Extract fits the spectrum at Pixel X, Pixel Y of the first input; Extract All (or a run on all) every
  // spectrum of every input, a graph of one spectrum by the same route as Extract. Extract Curves makes the
  // curves of every spectrum of the first input.
  const bool allSpectra = name == kExtractAll || IsRunAll();
  TIntList inputs = GetInitIDs();
  if (!allSpectra && inputs.size() > 1) inputs.resize(1);
  SetRunInputIDs(inputs);
  FFailedFits = 0;
  std::string report;
  std::vector<std::string> json;
  for (int32_t id : inputs) {
    const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(id));
    if (!graph)
      throw OrvexException(GetDialogName() + ": the object of ID " + std::to_string(id) + " is no graph");
    if (!curvesOnly && (!allSpectra || graph->GetNumberOfSpectra() == 1)) {
      const int32_t x = allSpectra ? 0 : GetIntParameter(kPixelX);
      const int32_t y = allSpectra ? 0 : GetIntParameter(kPixelY);
      json.push_back(FitPoint(*graph, x, y, report));
      continue;
    }
    if (!FitGraph(*graph, !curvesOnly, curvesOnly || GetBoolParameter(kExtractFitCurves), report))
      return false;
  }
  SetReport(report);
  // One fitted spectrum reports as one object, several as a list.
  if (json.size() == 1) {
    SetReportJson(json.front());
  } else if (!json.empty()) {
    std::string list;
    for (const std::string& item : json) list += (list.empty() ? "[" : ",") + item;
    SetReportJson(list + "]");
  }
  return true;
}

void TAdvancedFittingToolForm::ConfigureForGraph(const TDGraph& graph, TAdvancedFittingCore& core) const {
  TProject& project = *GetProject();
  const std::string name = "\"" + graph.GetCaption() + "\" (ID " + std::to_string(graph.GetID()) + ")";
  std::string error;
  if (!ConfigureCore(core, error)) throw OrvexException(GetDialogName() + ": " + error);
  core.ExternalCancel = ExternalCancel;
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
  // The curves off the input's points lie on the preview range; start and stop 0 mean the whole axis.
  core.CurveRange.Points = GetIntParameter(kPreviewPoints);
  core.CurveRange.Start = GetFloatParameter(kPreviewStart);
  core.CurveRange.Stop = GetFloatParameter(kPreviewStop);
  if (core.CurveRange.Start == 0 && core.CurveRange.Stop == 0) {
    const int points = core.CurveRange.Points;
    core.CurveRange = TAdvancedFitPreviewRange::FromAxis(core.GetAxis());
    core.CurveRange.Points = points;
  }
}

bool TAdvancedFittingToolForm::FitGraph(const TDGraph& graph, bool images, bool curves, std::string& report) {
  TProject& project = *GetProject();
  const std::string name = "\"" + graph.GetCaption() + "\" (ID " + std::to_string(graph.GetID()) + ")";
  TAdvancedFittingCore core;
  ConfigureForGraph(graph, core);
  // The memory check counts the curves only when they are made.
  core.ExtractFitCurves = curves;

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

std::string TAdvancedFittingToolForm::FitPoint(const TDGraph& graph, int32_t x, int32_t y,
                                               std::string& report) {
  TProject& project = *GetProject();
  const std::string name = "\"" + graph.GetCaption() + "\" (ID " + std::to_string(graph.GetID()) + ")";
  if (x < 0 || y < 0 || x >= graph.GetSizeX() || y >= graph.GetSizeY())
    throw OrvexException(GetDialogName() + ": Pixel X " + std::to_string(x) + ", Pixel Y " +
                         std::to_string(y) + " lie outside " + name + " (0.." +
                         std::to_string(graph.GetSizeX() - 1) + ", 0.." +
                         std::to_string(graph.GetSizeY() - 1) + ")");
  TAdvancedFittingCore core;
  ConfigureForGraph(graph, core);
  TAdvancedFitPointResult result;
  std::string message;
  const int64_t element = int64_t(y) * graph.GetSizeX() + x;
  if (core.FitSpectrum(graph, element, result, message) == TAdvancedFitStatus::Refused)
    throw OrvexException(GetDialogName() + ": " + name + ": " + message);
  FFailedFits += result.FitOK ? 0 : 1;

  std::vector<std::string> names;
  for (int i = 0; i < core.GetFunction()->GetNumberOfParameters(); ++i)
    names.push_back(core.UserParameterName(i));
  const std::string text = FormatAdvancedFitPointResult(names, result, GetIntParameter(kParamPrecision));
  const std::string where = "Pixel " + std::to_string(x) + ", " + std::to_string(y);
  if (GetInitIDs().size() > 1 || !report.empty()) report += "# " + name + " " + where + "\n";
  report += text;

  auto textData = std::make_unique<TDText>();
  textData->SetID(project.GetNewDataID());
  textData->SetCaption(graph.GetCaption() + core.CaptionSuffix(where));
  textData->SetText(text);
  AddResult(std::move(textData));
  if (GetBoolParameter(kExtractFitCurves)) {
    // The fitted curve on the input's axis, NaN when the fit failed.
    TResultInfo info;
    info.CaptionSuffix = core.CaptionSuffix("Curve");
    info.HistoryText = std::string(TAdvancedFittingCore::kToolName) + ": Fit " +
                       core.GetFunction()->FunctionName + ", " + where;
    auto curve = TDGraph::CreateResultGraph(project, graph.GetID(), true, TDataFieldKind::Float, info);
    if (!curve) throw OrvexException(GetDialogName() + ": " + name + ": the curve graph can't be made");
    std::vector<double> axis = core.GetAxis();
    if (!GetBoolParameter(kExtractWithSupportingPoints)) {
      // On the even axis of the preview range.
      int32_t transformationID = 0, interpretationID = 0;
      if (!core.MakeCurveRangeAxis(project, graph.GetID(), axis, transformationID, interpretationID))
        throw OrvexException(GetDialogName() + ": the preview range can't be an axis of " + name);
      curve->SetFieldSize(1, 1, TDataFieldKind::Float, static_cast<int32_t>(axis.size()));
      curve->SetXTransformationID(transformationID);
      curve->SetXInterpretationID(interpretationID);
    }
    std::vector<float> values(static_cast<size_t>(curve->GetSizeGraph()),
                              std::numeric_limits<float>::quiet_NaN());
    if (result.FitOK)
      for (size_t g = 0; g < values.size(); ++g)
        values[g] = SafeDoubleToFloat(core.GetFunction()->GetFunctionValue(
            result.NativeValues.data(), g < axis.size() ? axis[g] : static_cast<double>(g)));
    curve->SetSpectrumOfElement(0, values.data());
    curve->SetAllLinesValid();
    AddResult(std::move(curve));
  }
  return AdvancedFitPointResultJson(names, result);
}

namespace {

std::string Digits(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*g", digits, value);
  return text;
}

std::string JsonNumber(double value) {
  return std::isfinite(value) ? Digits(value, 17) : std::string("null");
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

} // namespace

std::string FormatAdvancedFitPointResult(const std::vector<std::string>& names,
                                         const TAdvancedFitPointResult& result, int precision) {
  const int digits = std::clamp(precision, 2, 12);
  std::string text;
  for (size_t i = 0; i < names.size(); ++i) {
    text += names[i] + " ";
    if (result.FitOK && i < result.Values.size() && i < result.Errors.size())
      text += Digits(result.Values[i], digits) + " " + Digits(result.Errors[i], digits) + "\n";
    else
      text += "-------- --------\n";
  }
  text += "chi2 " + (result.FitOK ? Digits(result.ChiSqr, digits) : std::string("--------")) + "\n";
  for (const auto& [label, value] : AdvancedFitStatisticsText(result, digits))
    text += label + " " + value + "\n";
  return text + "status " + result.Message + "\n";
}

std::string AdvancedFitPointResultJson(const std::vector<std::string>& names,
                                       const TAdvancedFitPointResult& result) {
  auto value = [&](const std::vector<double>& v, size_t i) {
    return result.FitOK && i < v.size() ? JsonNumber(v[i]) : std::string("null");
  };
  std::string json = "{\"parameters\":[";
  for (size_t i = 0; i < names.size(); ++i)
    json += std::string(i ? "," : "") + "{\"name\":" + JsonString(names[i]) +
            ",\"value\":" + value(result.Values, i) + ",\"error\":" + value(result.Errors, i) + "}";
  json += "],\"chi2\":" + (result.FitOK ? JsonNumber(result.ChiSqr) : std::string("null"));
  json += ",\"chi2PerDoF\":" + (result.FitOK ? JsonNumber(result.ChiSqrPerDoF) : std::string("null"));
  json += ",\"points\":" + std::to_string(result.DataPoints);
  json += ",\"dof\":" + std::to_string(result.DegreesOfFreedom);
  json += ",\"averageError\":" + (result.FitOK ? JsonNumber(result.AverageError) : std::string("null"));
  json += ",\"r2\":" + (result.FitOK ? JsonNumber(result.RSquared) : std::string("null"));
  json += ",\"status\":" + JsonString(result.FitOK ? "ok" : "failed");
  json += ",\"message\":" + JsonString(result.Message) + "}";
  return json;
}

void RegisterAdvancedFittingTool(TToolRegistry& registry) {
  registry.Register(TAdvancedFittingToolForm::kClassName, "Advanced Fitting Tool", "spectral",
                    [] { return std::make_unique<TAdvancedFittingToolForm>(); });
}
