// Graph filters: settings, the range over the axis of the input graph, the reductions and the file form.
#include "data/Graphfilter.h"

#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"

#include <algorithm>
#include <cmath>

std::string GetFilterKindCaption(int32_t kind, bool inContext) {
  switch (kind) {
  case gfkSum:
    return inContext ? "Sum" : "";
  case gfkAverage:
    return "Average";
  case gfkMinimum:
    return "Minimum";
  case gfkMaximum:
    return "Maximum";
  case gfkPosMinimum:
    return "Pos. Minimum";
  case gfkPosMaximum:
    return "Pos. Maximum";
  case gfkPosition:
    return "Position";
  case gfkWidth:
    return "Width";
  case gfkAvgMin:
    return "Avg-Min";
  case gfkStdDeviation:
    return "Std. Deviation";
  default:
    return "Unknown";
  }
}

std::string TGraphFilterInfo::Problem() const {
  if (FilterKind < 0 || FilterKind >= kGraphFilterKindCount)
    return "FilterKind " + std::to_string(FilterKind) + " is no filter kind (0 to 9)";
  if (!std::isfinite(FilterPosition)) return "FilterPosition is not a finite number";
  if (!std::isfinite(FilterWidth)) return "FilterWidth is not a finite number";
  if (FilterWidth < 0) return "FilterWidth is negative";
  if (LowerBGPixels < 0 || LowerBGPixels > 16) return "LowerBGPixels lies outside 0 to 16";
  if (UpperBGPixels < 0 || UpperBGPixels > 16) return "UpperBGPixels lies outside 0 to 16";
  if (!(WidthFilterLevelPercentage > 0 && WidthFilterLevelPercentage < 100))
    return "WidthFilterLevelPercentage lies outside 0 to 100";
  return {};
}

namespace {

// The axis of a graph: its transformation (null: pixel indices) and interpretation (null: the
// transformation's standard unit).
struct TAxis {
  const TDGraph* Graph = nullptr;
  const TDTransformation* Transformation = nullptr;
  const TDInterpretation* Interpretation = nullptr;
};

TAxis FindAxis(IDataProject* project, int32_t graphID) {
  TAxis axis;
  if (!project || graphID == 0) return axis;
  axis.Graph = dynamic_cast<const TDGraph*>(project->FindData(graphID));
  if (!axis.Graph) return axis;
  axis.Transformation =
      dynamic_cast<const TDTransformation*>(project->FindData(axis.Graph->GetXTransformationID()));
  int32_t interpretationID = axis.Graph->GetXInterpretationID();
  if (interpretationID == 0 && axis.Transformation)
    interpretationID = axis.Transformation->GetInterpretationID();
  if (axis.Transformation)
    axis.Interpretation = dynamic_cast<const TDInterpretation*>(project->FindData(interpretationID));
  return axis;
}

// The unit index that stands for unit (-1: the current one), or -2 when the axis can't express it.
int32_t ResolveUnit(const TAxis& axis, const TGraphFilterInfo& info, int32_t unit) {
  if (!axis.Interpretation) return unit == -1 ? -1 : -2;
  if (info.UnitKind != 0 && info.UnitKind != static_cast<int32_t>(axis.Interpretation->GetUnitKind()))
    return -2;
  const int32_t resolved = unit == -1 ? axis.Interpretation->GetUnitIndex() : unit;
  return resolved >= 0 && resolved < axis.Interpretation->GetNumberOfUnits() ? resolved : -2;
}

double StandardValueOfPixel(const TDTransformation& transformation, int32_t pixel) {
  double bin[3] = {0, 0, 0}, real[3] = {0, 0, 0};
  bin[0] = pixel;
  transformation.BinToReal(bin, real);
  return real[0];
}

} // namespace

bool GetGraphAxisPositions(const TDGraph& graph, int32_t unitKind, int32_t unitIndex,
                           TGraphAxisPositions& out) {
  out = TGraphAxisPositions();
  IDataProject* project = graph.GetProject();
  const TAxis axis = FindAxis(project, graph.GetID());
  const int32_t n = graph.GetSizeGraph();
  if (!axis.Graph || n < 1) return false;
  TGraphFilterInfo info;
  info.UnitKind = unitKind;
  const int32_t unit = ResolveUnit(axis, info, unitIndex);
  if (unit == -2) return false;
  out.X.resize(static_cast<size_t>(n));
  for (int32_t i = 0; i < n; ++i) {
    double x = i; // an uncalibrated axis counts pixels
    if (axis.Transformation) {
      x = StandardValueOfPixel(*axis.Transformation, i);
      if (axis.Interpretation) x = axis.Interpretation->StandardTo(x, unit);
    }
    out.X[static_cast<size_t>(i)] = x;
  }
  if (axis.Interpretation)
    out.AxisUnit = axis.Interpretation->UnitString(unit);
  else
    out.AxisUnit = axis.Transformation ? axis.Transformation->GetStandardUnit() : "Pixel";
  if (const auto* z = dynamic_cast<const TDInterpretation*>(project->FindData(graph.GetZInterpretationID())))
    out.ValueUnit = z->UnitString(z->GetUnitIndex());
  return true;
}

TGraphFilterRangeStatus FindRangePixels(const double* x, int32_t length, double lower, double upper,
                                        int32_t& start, int32_t& stop) {
  start = stop = 0;
  if (length < 1) return TGraphFilterRangeStatus::NoInput;
  if (!(lower <= upper)) return TGraphFilterRangeStatus::BadSettings;
  const double centre = 0.5 * (lower + upper);
  int32_t first = -1, last = -1, nearest = 0;
  double nearestDistance = INFINITY, minimum = INFINITY, maximum = -INFINITY;
  for (int32_t i = 0; i < length; ++i) {
    const double v = x[i];
    minimum = std::min(minimum, v);
    maximum = std::max(maximum, v);
    if (v >= lower && v <= upper) {
      if (first < 0) first = i;
      last = i;
    }
    const double distance = std::fabs(v - centre);
    if (distance < nearestDistance) {
      nearestDistance = distance;
      nearest = i;
    }
  }
  if (first >= 0) {
    start = first;
    stop = last;
    return TGraphFilterRangeStatus::Inside;
  }
  start = stop = nearest;
  return (upper < minimum || lower > maximum) ? TGraphFilterRangeStatus::OffAxis
                                              : TGraphFilterRangeStatus::NarrowerThanStep;
}

TGraphFilter::TGraphFilter(int32_t kind) {
  FInfo.FilterKind = kind;
  FInfo.FilterCaption = ::GetFilterKindCaption(kind);
}

void TGraphFilter::SetNewInputGraph(TDGraph* graph) {
  FProject = graph ? graph->GetProject() : nullptr;
  FGraphID = graph ? graph->GetID() : 0;
  if (graph && FInfo.UnitKind == 0) {
    const TAxis axis = FindAxis(FProject, FGraphID);
    if (axis.Interpretation) FInfo.UnitKind = static_cast<int32_t>(axis.Interpretation->GetUnitKind());
  }
  FNeedsFullRecalculation = true;
}

bool TGraphFilter::CalculateXPositions() {
  TGraphAxisPositions axis;
  const TDGraph* graph = FProject ? dynamic_cast<const TDGraph*>(FProject->FindData(FGraphID)) : nullptr;
  const bool ok = graph && GetGraphAxisPositions(*graph, FThreadInfo.UnitKind, FThreadInfo.UnitIndex, axis);
  FX = std::move(axis.X);
  FAxisUnit = axis.AxisUnit;
  FZUnit = axis.ValueUnit;
  return ok;
}

TGraphFilterRangeStatus TGraphFilter::CalculateStartStopRanges() {
  FStart = FStop = 0;
  if (!FThreadInfo.Problem().empty()) return TGraphFilterRangeStatus::BadSettings;
  if (FX.empty()) return TGraphFilterRangeStatus::NoInput;
  const double lo = FThreadInfo.FilterPosition - 0.5 * FThreadInfo.FilterWidth;
  const double hi = FThreadInfo.FilterPosition + 0.5 * FThreadInfo.FilterWidth;
  return FindRangePixels(FX.data(), GetFieldLength(), lo, hi, FStart, FStop);
}

TGraphFilterRangeStatus TGraphFilter::CopyParamsForThread() {
  FThreadInfo = FInfo;
  if (!FThreadInfo.Problem().empty()) {
    FX.clear();
    FStart = FStop = 0;
    return TGraphFilterRangeStatus::BadSettings;
  }
  if (!CalculateXPositions()) {
    const TAxis axis = FindAxis(FProject, FGraphID);
    const bool noInput = !axis.Graph || axis.Graph->GetSizeGraph() < 1;
    return noInput ? TGraphFilterRangeStatus::NoInput : TGraphFilterRangeStatus::BadUnit;
  }
  return CalculateStartStopRanges();
}

bool TGraphFilter::ChangeUnitIndex(int32_t newIndex) {
  const TAxis axis = FindAxis(FProject, FGraphID);
  if (!axis.Interpretation) return false;
  const int32_t from = ResolveUnit(axis, FInfo, FInfo.UnitIndex), to = ResolveUnit(axis, FInfo, newIndex);
  if (from < 0 || to < 0) return false;
  const double a = FInfo.FilterPosition - 0.5 * FInfo.FilterWidth;
  const double b = FInfo.FilterPosition + 0.5 * FInfo.FilterWidth;
  const double na = axis.Interpretation->StandardTo(axis.Interpretation->ToStandard(a, from), to);
  const double nb = axis.Interpretation->StandardTo(axis.Interpretation->ToStandard(b, from), to);
  FInfo.FilterPosition = 0.5 * (na + nb);
  FInfo.FilterWidth = std::fabs(nb - na);
  FInfo.UnitIndex = newIndex;
  return true;
}

TFilterField TGraphFilter::Field(const float* spectrum) const {
  TFilterField f;
  f.X = FX.data();
  f.Y = spectrum;
  f.Length = GetFieldLength();
  f.Start = FStart;
  f.Stop = FStop;
  SetLowerAndUpperBackground(f, FThreadInfo.LowerBGPixels, FThreadInfo.UpperBGPixels);
  return f;
}

TGraphFilterBackgroundInfo TGraphFilter::GetLowerAndUpperBackground(const float* spectrum) const {
  return Field(spectrum).Background;
}

double TGraphFilter::GetFieldValueMinusBackGround(const TGraphFilterBackgroundInfo& background,
                                                  const float* spectrum, int32_t i) const {
  TFilterField f;
  f.X = FX.data();
  f.Y = spectrum;
  f.Length = GetFieldLength();
  f.Background = background;
  return f.ValueMinusBackground(i);
}

double TGraphFilter::Reduce(TFilterField& f) const {
  switch (FThreadInfo.FilterKind) {
  case gfkSum:
    return FilterSum(f);
  case gfkAverage:
    return FilterAverage(f);
  case gfkMinimum:
    return FilterMinMax(f).Minimum;
  case gfkMaximum:
    return FilterMinMax(f).Maximum;
  case gfkPosMinimum:
    return FilterMinMax(f).MinimumX;
  case gfkPosMaximum:
    return FilterMinMax(f).MaximumX;
  case gfkPosition:
    return FilterCenterOfMass(f, 1e-30, FThreadInfo.FilterPosition);
  case gfkWidth:
    return FilterWidth(f, FThreadInfo.WidthFilterLevelPercentage * 0.01, false);
  case gfkAvgMin:
    return FilterAverageMinusMinimum(f);
  case gfkStdDeviation:
    return FilterStandardDeviation(f);
  default:
    return 0.0;
  }
}

double TGraphFilter::Calculation(const float* spectrum) const {
  if (FX.empty()) return 0.0;
  TFilterField f = Field(spectrum);
  return Reduce(f);
}

double TGraphFilter::CalculationOfPart(const float* values, int32_t first, int32_t count) const {
  if (FX.empty() || first < 0 || count < 1 || first + count > GetFieldLength() || FStart < first ||
      FStop >= first + count)
    return 0.0;
  // The part seen as a field of its own: the background sides were clipped to it already.
  TFilterField f;
  f.X = FX.data() + first;
  f.Y = values;
  f.Length = count;
  f.Start = FStart - first;
  f.Stop = FStop - first;
  SetLowerAndUpperBackground(f, FThreadInfo.LowerBGPixels, FThreadInfo.UpperBGPixels);
  return Reduce(f);
}

void TGraphFilter::GetPixelRangeNeededByFilter(int32_t& first, int32_t& count) const {
  if (FX.empty()) {
    first = count = 0;
    return;
  }
  GetPixelRangeNeeded(FX.data(), GetFieldLength(), FStart, FStop, FThreadInfo.LowerBGPixels,
                      FThreadInfo.UpperBGPixels, first, count);
}

std::string TGraphFilter::GetResultZUnitString() const {
  switch (FThreadInfo.FilterKind) {
  case gfkPosMinimum:
  case gfkPosMaximum:
  case gfkPosition:
  case gfkWidth:
    return FAxisUnit;
  default:
    return FZUnit;
  }
}

TTagError TGraphFilter::SaveToTagFile(TFileHandle file) const {
  TTagControl t;
  TTagError result;
  if ((result = t.SaveIntTag(file, "FilterKind", FInfo.FilterKind)) < 1 ||
      (result = t.SaveAnsiStringTag(file, "FilterCaption", FInfo.FilterCaption)) < 1 ||
      (result = t.SaveDoubleTag(file, "FilterPosition", FInfo.FilterPosition)) < 1 ||
      (result = t.SaveDoubleTag(file, "FilterWidth", FInfo.FilterWidth)) < 1 ||
      (result = t.SaveIntTag(file, "LowerBGPixels", FInfo.LowerBGPixels)) < 1 ||
      (result = t.SaveIntTag(file, "UpperBGPixels", FInfo.UpperBGPixels)) < 1 ||
      (result = t.SaveIntTag(file, "UnitKind", FInfo.UnitKind)) < 1 ||
      (result = t.SaveIntTag(file, "UnitIndex", FInfo.UnitIndex)) < 1 ||
      (result = t.SaveDoubleTag(file, "WidthFilterLevelPercentage", FInfo.WidthFilterLevelPercentage)) < 1)
    return result;
  return teNoError;
}

TTagError TGraphFilter::LoadFromTagFile(TFileHandle file, const TTagControl& parent) {
  const TGraphFilterInfo defaults;
  TGraphFilterInfo info;
  TTagControl t;
  TTagError result;
  if ((result = t.LoadOrDefaultIntTag(file, "FilterKind", parent, &info.FilterKind, 1, defaults.FilterKind)) <
          1 ||
      (result = t.LoadOrDefaultAnsiStringTag(file, "FilterCaption", parent, info.FilterCaption,
                                             defaults.FilterCaption)) < 1 ||
      (result = t.LoadOrDefaultDoubleTag(file, "FilterPosition", parent, &info.FilterPosition, 1,
                                         defaults.FilterPosition)) < 1 ||
      (result = t.LoadOrDefaultDoubleTag(file, "FilterWidth", parent, &info.FilterWidth, 1,
                                         defaults.FilterWidth)) < 1 ||
      (result = t.LoadOrDefaultIntTag(file, "LowerBGPixels", parent, &info.LowerBGPixels, 1,
                                      defaults.LowerBGPixels)) < 1 ||
      (result = t.LoadOrDefaultIntTag(file, "UpperBGPixels", parent, &info.UpperBGPixels, 1,
                                      defaults.UpperBGPixels)) < 1 ||
      (result = t.LoadOrDefaultIntTag(file, "UnitKind", parent, &info.UnitKind, 1, defaults.UnitKind)) < 1 ||
      (result = t.LoadOrDefaultIntTag(file, "UnitIndex", parent, &info.UnitIndex, 1, defaults.UnitIndex)) <
          1 ||
      (result = t.LoadOrDefaultDoubleTag(file, "WidthFilterLevelPercentage", parent,
                                         &info.WidthFilterLevelPercentage, 1,
                                         defaults.WidthFilterLevelPercentage)) < 1)
    return result;
  FInfo = info;
  FNeedsFullRecalculation = true;
  return teNoError;
}
