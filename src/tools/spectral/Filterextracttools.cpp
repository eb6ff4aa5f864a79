#include "tools/spectral/Filterextracttools.h"

#include "common/OrvexException.h"
#include "data/Dfilter.h"
#include "data/Dgraph.h"
#include "data/Dtext.h"
#include "data/Graphfilter.h"
#include "project/Filterextraction.h"
#include "project/Project.h"
#include "project/Quickfilterfile.h"
#include "project/Toolregistry.h"

#include <sstream>

// --- The graph list --------------------------------------------------------------------------------------

bool TGraphExtractDialogForm::IsInputIDListOkay(TProject* project, const TIntList* ids,
                                                const TIntList* /*extra*/, std::string* reason) {
  auto refuse = [&](const std::string& why) {
    if (reason) *reason = why;
    return false;
  };
  if (!project) return refuse("no project");
  if (!ids || ids->empty()) return refuse("the input list is empty; the tool takes graphs");
  for (int32_t id : *ids) {
    const TData* data = project->FindData(id);
    if (!data) return refuse("no object has the ID " + std::to_string(id));
    if (!data->InheritsFrom(TDGraph::kClassName))
      return refuse("object " + std::to_string(id) + " is a " + data->GetClassNameA() +
                    ", the tool takes a TDGraph");
  }
  return true;
}

std::vector<TDGraph*> TGraphExtractDialogForm::RunInputs() const {
  std::vector<TDGraph*> graphs;
  for (int32_t id : GetInitIDs()) {
    auto* graph = dynamic_cast<TDGraph*>(GetProject()->FindData(id));
    if (!graph) throw OrvexException(GetDialogName() + ": the graph " + std::to_string(id) + " is gone");
    graphs.push_back(graph);
  }
  return graphs;
}

// --- FilterViewerExtract ---------------------------------------------------------------------------------

TParameterTable& TFilterViewerExtractForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    std::vector<TParameterChoice> kinds;
    for (int32_t kind = 0; kind < kGraphFilterKindCount; ++kind)
      kinds.push_back({GetFilterKindCaption(kind), kind});
    t.AddList("FilterKind", "Filter Kind", gfkSum, kinds);
    t.AddFloat("FilterPosition", "Filter Position (Center of the Filter Area)", 0);
    t.AddFloat("FilterWidth",
               "Filter Width (Filter Area goes from <Position - Width/2> to <Position + Width/2>)", 10)
        .SetLowerLimit(0);
    t.AddInt("LowerBGPixels", "Background pixels below the range", 4).SetLimits(0, 16);
    t.AddInt("UpperBGPixels", "Background pixels above the range", 4).SetLimits(0, 16);
    t.AddInt("UnitKind", "Unit kind of the range (0: the axis's)", 0).SetLowerLimit(0);
    t.AddInt("UnitIndex", "Unit of the range (-1: the axis's current unit)", -1).SetLowerLimit(-1);
    t.AddFloat("WidthFilterLevelPercentage", "Width level (%)", 50).SetLimits(0, 100);
    t.AddString("FilterCaption", "Filter Name", "");
    t.AddString("QuickFilterFile", "Quick filter file", "")
        .SetDescription("when set, the filters of this file replace the one above");
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAll, "Extract All");
    return t;
  }();
  return table;
}

TFilterViewerExtractForm::TFilterViewerExtractForm()
    : TGraphExtractDialogForm("Filter Viewer Extract", Declaration()) {
  ConfigurableWithoutData = false;
}

TFilterViewerExtractForm::~TFilterViewerExtractForm() = default;

std::vector<std::unique_ptr<TGraphFilter>> TFilterViewerExtractForm::MakeFilters() const {
  std::vector<std::unique_ptr<TGraphFilter>> filters;
  const std::string quickFile = GetStringParameter("QuickFilterFile");
  if (!quickFile.empty()) {
    const std::string problem = LoadQuickFilters(quickFile, filters);
    if (!problem.empty())
      throw OrvexException(GetDialogName() + ": QuickFilterFile '" + quickFile + "': " + problem);
    if (filters.empty())
      throw OrvexException(GetDialogName() + ": QuickFilterFile '" + quickFile + "' holds no filters");
    for (const auto& filter : filters)
      if (const std::string bad = filter->Info().Problem(); !bad.empty())
        throw OrvexException(GetDialogName() + ": QuickFilterFile '" + quickFile + "': " + bad);
    return filters;
  }
  auto filter = std::make_unique<TGraphFilter>(GetIntParameter("FilterKind"));
  TGraphFilterInfo& info = filter->Info();
  info.FilterPosition = GetFloatParameter("FilterPosition");
  info.FilterWidth = GetFloatParameter("FilterWidth");
  info.LowerBGPixels = GetIntParameter("LowerBGPixels");
  info.UpperBGPixels = GetIntParameter("UpperBGPixels");
  info.UnitKind = GetIntParameter("UnitKind");
  info.UnitIndex = GetIntParameter("UnitIndex");
  info.WidthFilterLevelPercentage = GetFloatParameter("WidthFilterLevelPercentage");
  const std::string caption = GetStringParameter("FilterCaption");
  info.FilterCaption = caption.empty() ? "Unknown" : caption;
  filters.push_back(std::move(filter));
  return filters;
}

bool TFilterViewerExtractForm::DoCommand(const std::string& name) {
  if (name != kExtract && name != kExtractAll) return false;
  const std::vector<std::unique_ptr<TGraphFilter>> templates = MakeFilters();
  TProject& project = *GetProject();
  std::vector<const TGraphFilter*> models;
  for (const auto& model : templates) models.push_back(model.get());
  for (TDGraph* graph : RunInputs()) {
    TGraphFilterResults results;
    if (!ExtractGraphFilters(project, *graph, models, GetDialogName(), results)) return false;
    if (!results.ValuesText.empty()) SetReport(GetReport() + results.ValuesText);
    for (auto& object : results.Objects) AddResult(std::move(object));
  }
  return true;
}

// --- FilterManagerExtract --------------------------------------------------------------------------------

namespace {

// The filter classes a project file can hold, in the order of the FilterClass choice.
std::unique_ptr<TDFilter> CreateFilterOfClass(int32_t number) {
  switch (number) {
  case 0:
    return std::make_unique<TDSumFilter>();
  case 1:
    return std::make_unique<TDAverageFilter>();
  case 2:
    return std::make_unique<TDMinMaxFilter>();
  case 3:
    return std::make_unique<TDCenterOfMassFilter>();
  case 4:
    return std::make_unique<TDWidthFilter>();
  case 5:
    return std::make_unique<TDParabolicFilter>();
  case 6:
    return std::make_unique<TDGaussFilter>();
  case 7:
    return std::make_unique<TDLorentzFilter>();
  case 8:
    return std::make_unique<TDExponentialFilter>();
  default:
    throw OrvexException("CreateFilterOfClass(): no filter class " + std::to_string(number));
  }
}

} // namespace

TParameterTable& TFilterManagerExtractForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddList("FilterClass", "Filter", 0,
              {{"Sum", 0},
               {"Average", 1},
               {"MinMax", 2},
               {"CenterOfMass", 3},
               {"Width", 4},
               {"Parabolic", 5},
               {"Gauss", 6},
               {"Lorentz", 7},
               {"Exponential", 8}});
    t.AddFloat("RangeLower", "Range from", 0).SetDescription("in the unit of UnitIndex");
    t.AddFloat("RangeUpper", "Range to", 10);
    t.AddInt("UnitIndex", "Unit of the range (-1: the axis's current unit)", -1).SetLowerLimit(-1);
    t.AddInt("LowerBGPixels", "Background pixels below the range", 4).SetLimits(0, 16);
    t.AddInt("UpperBGPixels", "Background pixels above the range", 4).SetLimits(0, 16);
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAll, "Extract All");
    return t;
  }();
  return table;
}

TFilterManagerExtractForm::TFilterManagerExtractForm()
    : TGraphExtractDialogForm("Filter Manager Extract", Declaration()) {}

TFilterManagerExtractForm::~TFilterManagerExtractForm() = default;

bool TFilterManagerExtractForm::DoCommand(const std::string& name) {
  if (name != kExtract && name != kExtractAll) return false;
  TProject& project = *GetProject();
  const double lower = GetFloatParameter("RangeLower"), upper = GetFloatParameter("RangeUpper");
  if (!(lower <= upper))
    throw OrvexException(GetDialogName() + ": RangeLower " + FilterNumberText(lower) +
                         " lies above RangeUpper " + FilterNumberText(upper));
  for (TDGraph* graph : RunInputs()) {
    std::unique_ptr<TDFilter> filter = CreateFilterOfClass(GetIntParameter("FilterClass"));
    filter->SetID(project.GetNewDataID());
    filter->SetUnitIndex(GetIntParameter("UnitIndex"));
    filter->SetRange(lower, upper);
    filter->SetInputInteger(TDFilter::kLowerBackgroundInput, GetIntParameter("LowerBGPixels"));
    filter->SetInputInteger(TDFilter::kUpperBackgroundInput, GetIntParameter("UpperBGPixels"));
    filter->SetIDs(graph->GetID(), graph->GetID());
    const TGraphFilterRangeStatus status = filter->PrepareCalculationForGraph(*graph);
    if (status == TGraphFilterRangeStatus::OffAxis)
      throw OrvexException(GetDialogName() + ": " + FilterGraphName(*graph) + ": the range " +
                           FilterNumberText(lower) + " to " + FilterNumberText(upper) +
                           " of RangeLower and RangeUpper lies off the axis");
    if (status == TGraphFilterRangeStatus::BadUnit)
      throw OrvexException(GetDialogName() + ": " + FilterGraphName(*graph) +
                           ": its axis has no unit UnitIndex " + std::to_string(filter->GetUnitIndex()));
    if (status != TGraphFilterRangeStatus::Inside && status != TGraphFilterRangeStatus::NarrowerThanStep)
      throw OrvexException(GetDialogName() + ": " + FilterGraphName(*graph) + " can't be filtered");
    const std::string className = filter->GetClassNameA();
    filter->SetCaption(graph->GetCaption() + " (" + className.substr(2) + " " + FilterNumberText(lower) +
                       " to " + FilterNumberText(upper) + ")");
    TFilterExtraction extraction(*graph);
    extraction.AddDataFilter(*filter);
    if (!extraction.Run(GetDialogName())) return false;
    if (GetFilterResultShape(*graph) == TFilterResultShape::Values) {
      SetReport(GetReport() + extraction.MakeValuesText());
    } else {
      for (int32_t i = 0; i < extraction.GetOutputCount(); ++i) {
        std::unique_ptr<TData> target = extraction.CreateResultObject(
            project, i, FilterResultCaption(*graph, extraction.GetOutputCaption(i), ""));
        if (!target) continue;
        filter->SetTargetID(i, target->GetID());
        AddResult(std::move(target));
      }
    }
    filter->PostpareCalculation();
    AddResult(std::move(filter));
  }
  return true;
}

void RegisterFilterViewerExtract(TToolRegistry& registry) {
  registry.Register(TFilterViewerExtractForm::kClassName, "Filter Viewer Extract", "spectral",
                    [] { return std::make_unique<TFilterViewerExtractForm>(); });
}

void RegisterFilterManagerExtract(TToolRegistry& registry) {
  registry.Register(TFilterManagerExtractForm::kClassName, "Filter Manager Extract", "spectral",
                    [] { return std::make_unique<TFilterManagerExtractForm>(); });
}
