// Filter data objects: the base with its file form and links, and the ten reductions.
#include "data/Dfilter.h"

#include "common/OrvexException.h"
#include "common/numerics/Chisqrminimizer.h"
#include "common/numerics/Fitfunctions.h"
#include "data/Dgraph.h"
#include "data/Graphfilter.h"

#include <algorithm>
#include <cmath>

namespace {

const std::string kLowerBGCaption = "Lower BG Ave. [Pixels]:";
const std::string kUpperBGCaption = "Upper BG Ave. [Pixels]:";
constexpr double kGaussFWHMPerSigma = 2.3548200450309493;

// Reads up to count values of an array tag; returns how many the tag holds (0 when it is missing), and
// never reads past the tag.
template <typename T>
int64_t LoadArrayPrefix(TFileHandle file, const std::string& name, const TTagControl& parent, T* values,
                        int64_t count) {
  TTagControl t;
  if (t.FindTag(file, name, parent) < 1) return 0;
  const int64_t stored = (t.End() - t.Begin()) / static_cast<int64_t>(sizeof(T));
  const int64_t n = std::min(stored, count);
  if (n <= 0) return 0;
  if constexpr (std::is_same_v<T, bool>) {
    if (t.LoadBoolTag(file, name, parent, values, n) < 1) return 0;
  } else if (ReadAllBytes(file, values, n * static_cast<int64_t>(sizeof(T))) < 0) {
    return 0;
  }
  return n;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// TDFilter

TDFilter::TDFilter() {
  AddIntegerInput(kLowerBGCaption, 4, 0, 16);
  AddIntegerInput(kUpperBGCaption, 4, 0, 16);
}

TDFilter::~TDFilter() = default;

void TDFilter::SetRange(double lower, double upper) {
  if (FRange[0] == lower && FRange[1] == upper) return;
  FRange[0] = lower;
  FRange[1] = upper;
  FChanged = true;
}

double TDFilter::GetParameter(int32_t i) const {
  if (i < 0 || i >= GetParameterCount()) return 0.0;
  return FParameters[static_cast<size_t>(i)];
}

int32_t TDFilter::GetTargetID(int32_t i) const {
  if (i < 0 || i >= static_cast<int32_t>(FTargetIDs.size())) return 0;
  return FTargetIDs[static_cast<size_t>(i)];
}

void TDFilter::SetTargetID(int32_t i, int32_t id) {
  if (i < 0 || i >= static_cast<int32_t>(FTargetIDs.size()))
    throw OrvexException("TDFilter::SetTargetID: output " + std::to_string(i) + " out of range");
  FTargetIDs[static_cast<size_t>(i)] = id;
}

bool TDFilter::RemoveFilterDataLink(int32_t targetID) {
  if (targetID == 0) return false;
  bool removed = false;
  for (int32_t& id : FTargetIDs)
    if (id == targetID) {
      id = 0;
      removed = true;
    }
  if (removed) DoDataChange(TDataChangeInfo::DataChanged);
  return removed;
}

TIntList TDFilter::GetLinkedFilterData() const {
  TIntList result;
  const IDataProject* project = GetProject();
  if (!project) return result;
  for (int32_t id : FTargetIDs)
    if (id != 0 && (project->IsIDInheritFrom(id, "TDImage") || project->IsIDInheritFrom(id, "TDGraph")))
      result.push_back(id);
  return result;
}

const TFilterInputParameter& TDFilter::GetInput(int32_t i) const {
  if (i < 0 || i >= GetInputParameterCount())
    throw OrvexException("TDFilter::GetInput: input " + std::to_string(i) + " out of range");
  return FInputs[static_cast<size_t>(i)];
}

void TDFilter::SetInputFloat(int32_t i, double value) {
  if (i < 0 || i >= GetInputParameterCount() || FInputs[static_cast<size_t>(i)].FIPType != TFIPType::Float)
    throw OrvexException("TDFilter::SetInputFloat: input " + std::to_string(i) + " is no float input");
  TFilterInputParameter& p = FInputs[static_cast<size_t>(i)];
  const double clamped = std::clamp(value, p.FIPMinFloat, p.FIPMaxFloat);
  if (clamped != p.FIPFloat) FChanged = true;
  p.FIPFloat = clamped;
}

void TDFilter::SetInputInteger(int32_t i, int32_t value) {
  if (i < 0 || i >= GetInputParameterCount() || FInputs[static_cast<size_t>(i)].FIPType != TFIPType::Integer)
    throw OrvexException("TDFilter::SetInputInteger: input " + std::to_string(i) + " is no integer input");
  TFilterInputParameter& p = FInputs[static_cast<size_t>(i)];
  const int32_t clamped = std::clamp(value, p.FIPMinInteger, p.FIPMaxInteger);
  if (clamped != p.FIPInteger) FChanged = true;
  p.FIPInteger = clamped;
}

void TDFilter::AddFloatInput(const std::string& caption, double value, double minimum, double maximum) {
  TFilterInputParameter p;
  p.Caption = caption;
  p.FIPType = TFIPType::Float;
  p.FIPFloat = value;
  p.FIPMinFloat = minimum;
  p.FIPMaxFloat = maximum;
  FInputs.push_back(p);
}

void TDFilter::AddIntegerInput(const std::string& caption, int32_t value, int32_t minimum, int32_t maximum) {
  TFilterInputParameter p;
  p.Caption = caption;
  p.FIPType = TFIPType::Integer;
  p.FIPInteger = value;
  p.FIPMinInteger = minimum;
  p.FIPMaxInteger = maximum;
  FInputs.push_back(p);
}

void TDFilter::DefineOutputs(std::vector<std::string> captions, std::vector<TFilterOutputUnit> units) {
  FOutputCaptions = std::move(captions);
  FOutputUnits = std::move(units);
  FOutputUnits.resize(FOutputCaptions.size(), TFilterOutputUnit::Intensity);
  FParameters.assign(FOutputCaptions.size(), 0.0);
  FTargetIDs.resize(FOutputCaptions.size(), 0);
}

void TDFilter::ClearParameters() {
  std::fill(FParameters.begin(), FParameters.end(), 0.0);
}

std::string TDFilter::GetParameterCaption(int32_t i) const {
  if (i < 0 || i >= static_cast<int32_t>(FOutputCaptions.size())) return {};
  return FOutputCaptions[static_cast<size_t>(i)];
}

std::string TDFilter::GetZUnit(int32_t i) const {
  if (i < 0 || i >= static_cast<int32_t>(FOutputUnits.size())) return {};
  switch (FOutputUnits[static_cast<size_t>(i)]) {
  case TFilterOutputUnit::Intensity:
    return FIntensityUnit;
  case TFilterOutputUnit::Axis:
    return FAxisUnit;
  case TFilterOutputUnit::Percent:
    return "%";
  case TFilterOutputUnit::IntensityTimesAxis:
    return FIntensityUnit + "*" + FAxisUnit;
  case TFilterOutputUnit::IntensityPerAxis:
    return FIntensityUnit + "/" + FAxisUnit;
  case TFilterOutputUnit::IntensityPerAxisSquared:
    return FIntensityUnit + "/" + FAxisUnit + "^2";
  case TFilterOutputUnit::None:
    break;
  }
  return {};
}

void TDFilter::CleanOutputIDs() {
  std::fill(FTargetIDs.begin(), FTargetIDs.end(), 0);
}

void TDFilter::SetFieldSize(int32_t length) {
  if (length < 0) throw OrvexException("TDFilter::SetFieldSize: negative length");
  FFieldLength = length;
  FX.assign(static_cast<size_t>(length), 0.0);
  FPrepared = false;
}

void TDFilter::SetXPosition(int32_t i, double x) {
  if (i < 0 || i >= FFieldLength)
    throw OrvexException("TDFilter::SetXPosition: pixel " + std::to_string(i) + " outside the field");
  FX[static_cast<size_t>(i)] = x;
}

double TDFilter::GetXPosition(int32_t i) const {
  if (i < 0 || i >= FFieldLength) return 0.0;
  return FX[static_cast<size_t>(i)];
}

void TDFilter::PrepareCalculation(int32_t start, int32_t stop, const std::string& intensityUnit,
                                  const std::string& axisUnit) {
  if (FFieldLength < 1) throw OrvexException("TDFilter::PrepareCalculation: no field size set");
  start = std::clamp(start, 0, FFieldLength - 1);
  stop = std::clamp(stop, 0, FFieldLength - 1);
  FStart = std::min(start, stop);
  FStop = std::max(start, stop);
  FIntensityUnit = intensityUnit;
  FAxisUnit = axisUnit;
  FPrepared = true;
}

TGraphFilterRangeStatus TDFilter::PrepareCalculationForGraph(const TDGraph& graph) {
  FPrepared = false;
  TGraphAxisPositions axis;
  if (!GetGraphAxisPositions(graph, 0, FUnitIndex, axis))
    return graph.GetSizeGraph() < 1 || !graph.GetProject() ? TGraphFilterRangeStatus::NoInput
                                                           : TGraphFilterRangeStatus::BadUnit;
  if (!std::isfinite(FRange[0]) || !std::isfinite(FRange[1])) return TGraphFilterRangeStatus::BadSettings;
  int32_t start = 0, stop = 0;
  const auto status =
      FindRangePixels(axis.X.data(), static_cast<int32_t>(axis.X.size()), std::min(FRange[0], FRange[1]),
                      std::max(FRange[0], FRange[1]), start, stop);
  if (status != TGraphFilterRangeStatus::Inside && status != TGraphFilterRangeStatus::NarrowerThanStep)
    return status;
  SetFieldSize(static_cast<int32_t>(axis.X.size()));
  FX = std::move(axis.X);
  FInputID = graph.GetID();
  PrepareCalculation(start, stop, axis.ValueUnit, axis.AxisUnit);
  return status;
}

void TDFilter::PostpareCalculation() {
  FX.clear();
  FX.shrink_to_fit();
  FFieldLength = 0;
  FPrepared = false;
  FChanged = false;
}

TFilterField TDFilter::MakeField(const float* spectrum) {
  if (!FPrepared) throw OrvexException(GetClassNameA() + "::Calculation: PrepareCalculation was not called");
  TFilterField f;
  f.X = FX.data();
  f.Y = spectrum;
  f.Length = FFieldLength;
  f.Start = FStart;
  f.Stop = FStop;
  SetLowerAndUpperBackground(f, InputInteger(kLowerBackgroundInput), InputInteger(kUpperBackgroundInput));
  FBackground = f.Background;
  return f;
}

std::unique_ptr<TDFilter> TDFilter::CloneForCalculation() const {
  std::unique_ptr<TDFilter> clone = CreateSameKind();
  clone->SetCaption(GetCaption());
  clone->FRange[0] = FRange[0];
  clone->FRange[1] = FRange[1];
  clone->FUnitIndex = FUnitIndex;
  clone->FChanged = FChanged;
  clone->FOutputCaptions = FOutputCaptions;
  clone->FOutputUnits = FOutputUnits;
  clone->FParameters.assign(FParameters.size(), 0.0);
  clone->FTargetIDs = FTargetIDs;
  clone->FInputs = FInputs;
  clone->FInputID = FInputID;
  clone->FSourceID = FSourceID;
  clone->FFieldLength = FFieldLength;
  clone->FX = FX;
  if (FPrepared) clone->PrepareCalculation(FStart, FStop, FIntensityUnit, FAxisUnit);
  return clone;
}

void TDFilter::DataChanged(TData* sender, TDataChangeInfo info) {
  TData::DataChanged(sender, info);
  if (info != TDataChangeInfo::Removed || !sender || sender == this) return;
  const int32_t id = sender->GetID();
  if (id == 0) return;
  for (int32_t& target : FTargetIDs)
    if (target == id) target = 0;
  if (FSourceID == id) FSourceID = 0;
  if (FInputID == id) FInputID = 0;
}

bool TDFilter::IsDataUsed(int32_t id) const {
  return id != 0 && std::find(FTargetIDs.begin(), FTargetIDs.end(), id) != FTargetIDs.end();
}

void TDFilter::AddToID(int32_t delta) {
  TData::AddToID(delta);
  for (int32_t& id : FTargetIDs) SafeAddToDataID(id, delta);
  SafeAddToDataID(FInputID, delta);
  SafeAddToDataID(FSourceID, delta);
}

void TDFilter::CleanWrongDataConnections() {
  IDataProject* project = GetProject();
  if (!project) return;
  for (int32_t& id : FTargetIDs)
    if (id != 0 && !project->DataIDExists(id)) id = 0;
}

void TDFilter::ExchangeID(int32_t oldID, int32_t newID) {
  for (int32_t& id : FTargetIDs)
    if (id == oldID) id = newID;
}

std::vector<std::pair<std::string, int32_t>> TDFilter::GetReferencedIDs() const {
  std::vector<std::pair<std::string, int32_t>> ids;
  // One name per output, so that listings keyed by name keep them all.
  for (size_t i = 0; i < FTargetIDs.size(); ++i)
    ids.emplace_back("TargetID" + std::to_string(i), FTargetIDs[i]);
  return ids;
}

// The inputs are stored as one array tag per field, one value per input in input order.
TTagError TDFilter::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TData::SaveDataToTagFile(file);
  if (result < 1) return result;
  const auto n = static_cast<int64_t>(FInputs.size());
  std::vector<int32_t> types, ints, minInts, maxInts;
  std::vector<double> floats, minFloats, maxFloats;
  std::unique_ptr<bool[]> booleans(new bool[static_cast<size_t>(std::max<int64_t>(n, 1))]());
  for (int64_t i = 0; i < n; ++i) {
    const TFilterInputParameter& p = FInputs[static_cast<size_t>(i)];
    types.push_back(static_cast<int32_t>(p.FIPType));
    floats.push_back(p.FIPFloat);
    minFloats.push_back(p.FIPMinFloat);
    maxFloats.push_back(p.FIPMaxFloat);
    ints.push_back(p.FIPInteger);
    minInts.push_back(p.FIPMinInteger);
    maxInts.push_back(p.FIPMaxInteger);
    booleans[static_cast<size_t>(i)] = p.FIPBoolean;
  }
  TTagControl own, t;
  if ((result = own.WriteTag(file, "TDFilter", TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveDoubleTag(file, "Range", FRange, 2)) < 1 ||
      (result = t.SaveIntTag(file, "UnitIndex", FUnitIndex)) < 1 ||
      (result = t.SaveIntTag(file, "ParameterCount", GetParameterCount())) < 1 ||
      (result = t.SaveIntTag(file, "TargetIDs", FTargetIDs.data(), static_cast<int64_t>(FTargetIDs.size()))) <
          1 ||
      (result = t.SaveIntTag(file, "InputParameterCount", static_cast<int32_t>(n))) < 1 ||
      (result = t.SaveIntTag(file, "FIPType", types.data(), n)) < 1 ||
      (result = t.SaveDoubleTag(file, "FIPFloat", floats.data(), n)) < 1 ||
      (result = t.SaveDoubleTag(file, "FIPMinFloat", minFloats.data(), n)) < 1 ||
      (result = t.SaveDoubleTag(file, "FIPMaxFloat", maxFloats.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "FIPInteger", ints.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "FIPMinInteger", minInts.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "FIPMaxInteger", maxInts.data(), n)) < 1 ||
      (result = t.SaveBoolTag(file, "FIPBoolean", booleans.get(), n)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDFilter::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TData::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.FindTag(file, "TDFilter", parent)) < 1) return result;
  if ((result = t.LoadDoubleTag(file, "Range", own, FRange, 2)) < 1) return result;
  t.LoadOrDefaultIntTag(file, "UnitIndex", own, &FUnitIndex, 1, -1);
  std::fill(FTargetIDs.begin(), FTargetIDs.end(), 0);
  LoadArrayPrefix(file, "TargetIDs", own, FTargetIDs.data(), static_cast<int64_t>(FTargetIDs.size()));
  int32_t stored = 0;
  t.LoadOrDefaultIntTag(file, "InputParameterCount", own, &stored, 1, 0);
  const int64_t n = std::clamp<int64_t>(stored, 0, GetInputParameterCount());
  if (n > 0) {
    std::vector<int32_t> types(static_cast<size_t>(n)), ints(static_cast<size_t>(n));
    std::vector<double> floats(static_cast<size_t>(n));
    std::unique_ptr<bool[]> booleans(new bool[static_cast<size_t>(n)]());
    const int64_t haveTypes = LoadArrayPrefix(file, "FIPType", own, types.data(), n);
    const int64_t haveFloats = LoadArrayPrefix(file, "FIPFloat", own, floats.data(), n);
    const int64_t haveInts = LoadArrayPrefix(file, "FIPInteger", own, ints.data(), n);
    const int64_t haveBooleans = LoadArrayPrefix(file, "FIPBoolean", own, booleans.get(), n);
    for (int64_t i = 0; i < n; ++i) {
      TFilterInputParameter& p = FInputs[static_cast<size_t>(i)];
      // An input whose stored kind differs from the class's is not this input: it keeps its default.
      if (i < haveTypes && types[static_cast<size_t>(i)] != static_cast<int32_t>(p.FIPType)) continue;
      if (p.FIPType == TFIPType::Float && i < haveFloats && std::isfinite(floats[static_cast<size_t>(i)]))
        p.FIPFloat = std::clamp(floats[static_cast<size_t>(i)], p.FIPMinFloat, p.FIPMaxFloat);
      if (p.FIPType == TFIPType::Integer && i < haveInts)
        p.FIPInteger = std::clamp(ints[static_cast<size_t>(i)], p.FIPMinInteger, p.FIPMaxInteger);
      if (i < haveBooleans) p.FIPBoolean = booleans[static_cast<size_t>(i)];
    }
  }
  FChanged = true;
  return teNoError;
}

TTagError TDFilter::SaveOwnTag(TFileHandle file, const char* className) {
  TTagControl own, t;
  TTagError result;
  if ((result = own.WriteTag(file, className, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

// Each class writes its own list tag after the base's; none holds more than its version yet.
#define ORVEX_FILTER_SAVE(ClassName)                                                                         \
  TTagError ClassName::SaveDataToTagFile(TFileHandle file) {                                                 \
    TTagError result = TDFilter::SaveDataToTagFile(file);                                                    \
    if (result < 1) return result;                                                                           \
    return SaveOwnTag(file, kClassName);                                                                     \
  }

ORVEX_FILTER_SAVE(TDSumFilter)
ORVEX_FILTER_SAVE(TDAverageFilter)
ORVEX_FILTER_SAVE(TDMinMaxFilter)
ORVEX_FILTER_SAVE(TDCenterOfMassFilter)
ORVEX_FILTER_SAVE(TDWidthFilter)
ORVEX_FILTER_SAVE(TDParabolicFilter)
ORVEX_FILTER_SAVE(TDGaussFilter)
ORVEX_FILTER_SAVE(TDLorentzFilter)
ORVEX_FILTER_SAVE(TDExponentialFilter)
ORVEX_FILTER_SAVE(TDLinearRegressionFilter)

// ---------------------------------------------------------------------------------------------
// The plain reductions

using U = TFilterOutputUnit;

TDSumFilter::TDSumFilter() {
  SetCaption("Sum");
  DefineOutputs({"Sum"}, {U::Intensity});
}

void TDSumFilter::Calculation(const float* spectrum) {
  SetParameter(0, FilterSum(MakeField(spectrum)));
}

TDAverageFilter::TDAverageFilter() {
  SetCaption("Average");
  DefineOutputs({"Average"}, {U::Intensity});
}

void TDAverageFilter::Calculation(const float* spectrum) {
  SetParameter(0, FilterAverage(MakeField(spectrum)));
}

TDMinMaxFilter::TDMinMaxFilter() {
  SetCaption("Min & Max");
  DefineOutputs({"Minimum", "Position of Minimum", "Maximum", "Position of Maximum"},
                {U::Intensity, U::Axis, U::Intensity, U::Axis});
}

void TDMinMaxFilter::Calculation(const float* spectrum) {
  const TFilterMinMax m = FilterMinMax(MakeField(spectrum));
  SetParameter(0, m.Minimum);
  SetParameter(1, m.MinimumX);
  SetParameter(2, m.Maximum);
  SetParameter(3, m.MaximumX);
}

TDCenterOfMassFilter::TDCenterOfMassFilter() {
  SetCaption("Center of mass");
  DefineOutputs({"Center of mass"}, {U::Axis});
}

void TDCenterOfMassFilter::Calculation(const float* spectrum) {
  SetParameter(0, FilterCenterOfMass(MakeField(spectrum), 0.0, 0.0));
}

TDWidthFilter::TDWidthFilter() {
  SetCaption("Width");
  AddFloatInput("Level [%]:", 50, 1, 99);
  DefineOutputs({"Width"}, {U::Axis});
}

void TDWidthFilter::Calculation(const float* spectrum) {
  SetParameter(0, FilterWidth(MakeField(spectrum), InputFloat(2) * 0.01, true));
}

TDParabolicFilter::TDParabolicFilter() {
  SetCaption("Parabolic");
  AddFloatInput("Width:", 10, 0, 100000);
  DefineOutputs({"Intensity", "Center", "Curvature", "Error"},
                {U::Intensity, U::Axis, U::IntensityPerAxisSquared, U::Percent});
}

void TDParabolicFilter::Calculation(const float* spectrum) {
  ClearParameters();
  const TFilterParabola p = FilterParabola(MakeField(spectrum), InputFloat(2));
  SetParameter(0, p.Intensity);
  SetParameter(1, p.Center);
  SetParameter(2, p.Curvature);
  SetParameter(3, p.Error);
}

TDLinearRegressionFilter::TDLinearRegressionFilter() {
  SetCaption("Linear Regression");
  DefineOutputs({"Offset", "Slope", "Correlation"}, {U::Intensity, U::IntensityPerAxis, U::None});
}

void TDLinearRegressionFilter::Calculation(const float* spectrum) {
  const TFilterLine line = FilterLinearRegression(MakeField(spectrum));
  SetParameter(0, line.Offset);
  SetParameter(1, line.Slope);
  SetParameter(2, line.Correlation);
}

// ---------------------------------------------------------------------------------------------
// The fitted models

TFilterFit::TFilterFit() = default;
TFilterFit::~TFilterFit() = default;

void TFilterFit::Prepare(int numberOfParameters, int count, double tolerance, int iterations, bool gauss,
                         bool lorentz) {
  FMinimizer = std::make_unique<TChiSqrMinimizer>(numberOfParameters);
  TChiSqrMinimizer& m = *FMinimizer;
  if (gauss) {
    m.SetModelFunction(&CSMGauss);
    m.SetBlockModelFunction(&CSMGaussBlock);
    m.SetEstimatorFunction(&CSMEstimateParametersGauss);
  } else if (lorentz) {
    m.SetModelFunction(&CSMLorentz);
    m.SetBlockModelFunction(&CSMLorentzBlock);
    m.SetEstimatorFunction(&CSMEstimateParametersLorentz);
  } else {
    m.SetModelFunction(&CSMLevenbergMarquardtExponentialDecay);
    m.SetEstimatorFunction(&CSMEstimateParametersExponentialDecay);
  }
  for (int i = 0; i < numberOfParameters; ++i) {
    m.SetVaryParameter(i, true);
    m.SetUseEstimatedParameter(i, true);
  }
  if (gauss || lorentz) { // the width stays positive
    m.SetHasLowerLimit(2, true);
    m.SetLowerLimit(2, 1e-10);
  }
  m.Tolerance = tolerance;
  m.MaxIterations = iterations;
  FX.assign(static_cast<size_t>(std::max(count, 0)), 0.0);
  FY.assign(FX.size(), 0.0);
  FSigma.assign(FX.size(), 1.0);
}

void TFilterFit::Release() {
  FMinimizer.reset();
  FX = {};
  FY = {};
  FSigma = {};
}

bool TFilterFit::Fit(const TFilterField& field) {
  const int n = field.RangeCount();
  if (!FMinimizer || n < FMinimizer->GetNumberOfParameters() || n > static_cast<int>(FX.size())) return false;
  for (int k = 0; k < n; ++k) {
    FX[static_cast<size_t>(k)] = field.X[field.Start + k];
    FY[static_cast<size_t>(k)] = field.ValueMinusBackground(field.Start + k);
  }
  FMinimizer->EstimateParameters(FX.data(), FY.data(), n);
  FMinimizer->LevenbergMarquardtMinimize(FX.data(), FY.data(), FSigma.data(), n);
  return true;
}

double TFilterFit::Error() const {
  if (!FMinimizer || FMinimizer->GetNumberOfPoints() <= 0) return 0.0;
  return std::sqrt(FMinimizer->GetChiSqr() / FMinimizer->GetNumberOfPoints());
}

TDGaussFilter::TDGaussFilter() {
  SetCaption("Gauss");
  AddFloatInput("Tolerance:", 1e-4, 1e-8, 1);
  AddIntegerInput("Iterations:", 200, 1, 200);
  DefineOutputs({"Intensity", "Center", "Width (FWHM)", "Offset", "Error"},
                {U::Intensity, U::Axis, U::Axis, U::Intensity, U::Intensity});
}

void TDGaussFilter::PrepareCalculation(int32_t start, int32_t stop, const std::string& intensityUnit,
                                       const std::string& axisUnit) {
  TDFilter::PrepareCalculation(start, stop, intensityUnit, axisUnit);
  FFit.Prepare(4, GetStopIndex() - GetStartIndex() + 1, InputFloat(2), InputInteger(3), true, false);
}

void TDGaussFilter::PostpareCalculation() {
  FFit.Release();
  TDFilter::PostpareCalculation();
}

void TDGaussFilter::Calculation(const float* spectrum) {
  ClearParameters();
  if (!FFit.Fit(MakeField(spectrum))) return;
  const double* p = FFit.Minimizer()->Parameters();
  SetParameter(0, p[3]);
  SetParameter(1, p[1]);
  SetParameter(2, p[2] * kGaussFWHMPerSigma);
  SetParameter(3, p[0]);
  SetParameter(4, FFit.Error());
}

TDLorentzFilter::TDLorentzFilter() {
  SetCaption("Lorentz");
  AddFloatInput("Tolerance:", 1e-4, 1e-8, 1);
  AddIntegerInput("Iterations:", 200, 1, 200);
  DefineOutputs({"Area", "Center", "Width (FWHM)", "Offset", "Error"},
                {U::IntensityTimesAxis, U::Axis, U::Axis, U::Intensity, U::Intensity});
}

void TDLorentzFilter::PrepareCalculation(int32_t start, int32_t stop, const std::string& intensityUnit,
                                         const std::string& axisUnit) {
  TDFilter::PrepareCalculation(start, stop, intensityUnit, axisUnit);
  FFit.Prepare(4, GetStopIndex() - GetStartIndex() + 1, InputFloat(2), InputInteger(3), false, true);
}

void TDLorentzFilter::PostpareCalculation() {
  FFit.Release();
  TDFilter::PostpareCalculation();
}

void TDLorentzFilter::Calculation(const float* spectrum) {
  ClearParameters();
  if (!FFit.Fit(MakeField(spectrum))) return;
  const double* p = FFit.Minimizer()->Parameters();
  SetParameter(0, p[3]);
  SetParameter(1, p[1]);
  SetParameter(2, p[2]);
  SetParameter(3, p[0]);
  SetParameter(4, FFit.Error());
}

TDExponentialFilter::TDExponentialFilter() {
  SetCaption("Exponential");
  AddFloatInput("Tolerance:", 1e-4, 1e-8, 1);
  AddIntegerInput("Iterations:", 200, 1, 200);
  SetValidOutput(false);
}

void TDExponentialFilter::SetValidOutput(bool on) {
  std::vector<std::string> captions = {"Intensity", "Decay Constant", "Offset", "Error"};
  std::vector<U> units = {U::Intensity, U::Axis, U::Intensity, U::Intensity};
  if (on) {
    captions.push_back("Valid");
    units.push_back(U::None);
  }
  TIntList targets;
  for (int32_t i = 0; i < GetParameterCount(); ++i) targets.push_back(GetTargetID(i));
  DefineOutputs(std::move(captions), std::move(units));
  for (int32_t i = 0; i < std::min<int32_t>(GetParameterCount(), static_cast<int32_t>(targets.size())); ++i)
    SetTargetID(i, targets[static_cast<size_t>(i)]);
}

TTagError TDExponentialFilter::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  // The stored output count says which of the two forms was saved; it must be known before the targets
  // are read.
  TTagControl own, t;
  int32_t count = 4;
  if (own.FindTag(file, "TDFilter", parent) >= 1)
    t.LoadOrDefaultIntTag(file, "ParameterCount", own, &count, 1, 4);
  SetValidOutput(count == 5);
  return TDFilter::LoadDataFromTagFile(file, parent);
}

void TDExponentialFilter::PrepareCalculation(int32_t start, int32_t stop, const std::string& intensityUnit,
                                             const std::string& axisUnit) {
  TDFilter::PrepareCalculation(start, stop, intensityUnit, axisUnit);
  FFit.Prepare(3, GetStopIndex() - GetStartIndex() + 1, InputFloat(2), InputInteger(3), false, false);
}

void TDExponentialFilter::PostpareCalculation() {
  FFit.Release();
  TDFilter::PostpareCalculation();
}

void TDExponentialFilter::Calculation(const float* spectrum) {
  ClearParameters();
  if (HasValidOutput()) SetParameter(4, 1.0);
  if (!FFit.Fit(MakeField(spectrum))) {
    if (HasValidOutput()) SetParameter(4, 0.0); // too few pixels: nothing was fitted
    return;
  }
  const TChiSqrMinimizer* m = FFit.Minimizer();
  const double* p = m->Parameters();
  SetParameter(0, p[1]);
  SetParameter(1, p[2]);
  SetParameter(2, p[0]);
  SetParameter(3, FFit.Error());
  if (HasValidOutput() && m->GetErrorCode() != csmOk) SetParameter(4, 0.0);
}

void RegisterFilterClasses() {
  TData::RegisterDataObject(TDSumFilter::kClassName, &TDSumFilter::CreateDataObject);
  TData::RegisterDataObject(TDAverageFilter::kClassName, &TDAverageFilter::CreateDataObject);
  TData::RegisterDataObject(TDMinMaxFilter::kClassName, &TDMinMaxFilter::CreateDataObject);
  TData::RegisterDataObject(TDCenterOfMassFilter::kClassName, &TDCenterOfMassFilter::CreateDataObject);
  TData::RegisterDataObject(TDWidthFilter::kClassName, &TDWidthFilter::CreateDataObject);
  TData::RegisterDataObject(TDParabolicFilter::kClassName, &TDParabolicFilter::CreateDataObject);
  TData::RegisterDataObject(TDGaussFilter::kClassName, &TDGaussFilter::CreateDataObject);
  TData::RegisterDataObject(TDExponentialFilter::kClassName, &TDExponentialFilter::CreateDataObject);
  TData::RegisterDataObject(TDLorentzFilter::kClassName, &TDLorentzFilter::CreateDataObject);
}
