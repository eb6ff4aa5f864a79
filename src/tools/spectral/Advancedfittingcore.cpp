#include "tools/spectral/Advancedfittingcore.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/memory/Memorymanagement.h"
#include "common/numerics/Chisqrminimizer.h"
#include "common/numerics/Numerics.h"
#include "common/threads/Multicorecalc.h"
#include "common/threads/Progressandcancel.h"
#include "data/Datafield.h"
#include "data/Dcustom.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <functional>
#include <iomanip>
#include <sstream>

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
/// Spectra whose results a thread collects before it writes them to the paged arrays.
constexpr int64_t kResultBlock = 64;
/// Elements a sequential reader of the result arrays holds at once.
constexpr uint64_t kReadBuffer = 4096;
/// Bytes of spectra a thread reads ahead of its fits.
constexpr int64_t kReadAheadBytes = 65536;

/// Frees a thread's fit data on every path.
struct TThreadData {
  TFitFunction& Function;
  void* Data;
  explicit TThreadData(TFitFunction& function) : Function(function), Data(function.ThreadPrepare()) {}
  ~TThreadData() { Function.ThreadPostpare(Data); }
  TThreadData(const TThreadData&) = delete;
  TThreadData& operator=(const TThreadData&) = delete;
};

bool AllFinite(const double* v, int n) {
  for (int i = 0; i < n; ++i)
    if (!std::isfinite(v[i])) return false;
  return true;
}

std::string MegaBytes(int64_t bytes) {
  return std::to_string((bytes + 1048575) / 1048576);
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// Mask

std::vector<bool> CalculateReducedMask(const std::vector<bool>& mask, int dataReduction) {
  const int k = std::clamp(dataReduction, 1, 10000);
  std::vector<bool> reduced(mask.size(), false);
  int counter = 0;
  bool inRun = false;
  for (size_t i = 0; i < mask.size(); ++i) {
    if (!mask[i]) {
      inRun = false;
      continue;
    }
    if (!inRun) counter = 0; // each run of mask points starts afresh
    inRun = true;
    reduced[i] = counter == 0;
    counter = (counter + 1) % k;
  }
  return reduced;
}

std::vector<int> MaskPointIndices(const std::vector<bool>& mask) {
  std::vector<int> indices;
  for (size_t i = 0; i < mask.size(); ++i)
    if (mask[i]) indices.push_back(static_cast<int>(i));
  return indices;
}

// ---------------------------------------------------------------------------------------------------------
// Fit order

void NormalizeFitOrder(std::vector<TAdvancedFitParamSettings>& rows) {
  std::vector<int> orders;
  for (const TAdvancedFitParamSettings& row : rows) orders.push_back(row.FitOrder);
  std::sort(orders.begin(), orders.end());
  orders.erase(std::unique(orders.begin(), orders.end()), orders.end());
  for (TAdvancedFitParamSettings& row : rows)
    row.FitOrder =
        static_cast<int>(std::lower_bound(orders.begin(), orders.end(), row.FitOrder) - orders.begin());
}

bool FitSooner(std::vector<TAdvancedFitParamSettings>& rows, int index) {
  if (index < 0 || index >= static_cast<int>(rows.size())) return false;
  NormalizeFitOrder(rows);
  TAdvancedFitParamSettings& moved = rows[static_cast<size_t>(index)];
  if (moved.FitOrder > 0) {
    --moved.FitOrder;
  } else {
    // Already in the first stage: the others go one stage later, so that this row is fitted alone first.
    for (TAdvancedFitParamSettings& row : rows)
      if (&row != &moved) ++row.FitOrder;
  }
  NormalizeFitOrder(rows);
  return true;
}

bool FitLater(std::vector<TAdvancedFitParamSettings>& rows, int index) {
  if (index < 0 || index >= static_cast<int>(rows.size())) return false;
  NormalizeFitOrder(rows);
  ++rows[static_cast<size_t>(index)].FitOrder;
  NormalizeFitOrder(rows);
  return true;
}

// ---------------------------------------------------------------------------------------------------------
// Preview range

bool TAdvancedFitPreviewRange::IsValid() const {
  return Points >= 2 && Points <= kMaxPoints && std::isfinite(Start) && std::isfinite(Stop) &&
         std::fabs(Start) <= kLimit && std::fabs(Stop) <= kLimit && Start != Stop;
}

std::vector<double> TAdvancedFitPreviewRange::Axis() const {
  std::vector<double> axis;
  if (!IsValid()) return axis;
  axis.resize(static_cast<size_t>(Points));
  const double step = (Stop - Start) / (Points - 1);
  for (int i = 0; i < Points; ++i) axis[static_cast<size_t>(i)] = Start + step * i;
  axis.back() = Stop; // exactly, whatever the rounding of the steps
  return axis;
}

TAdvancedFitPreviewRange TAdvancedFitPreviewRange::FromAxis(const std::vector<double>& axis) {
  TAdvancedFitPreviewRange range;
  if (axis.size() < 2 || !std::isfinite(axis.front()) || !std::isfinite(axis.back()) ||
      axis.front() == axis.back()) {
    range.Points = 2;
    range.Start = 0;
    range.Stop = 1;
    return range;
  }
  range.Points = static_cast<int>(std::min<size_t>(axis.size(), kMaxPoints));
  range.Start = std::clamp(axis.front(), -kLimit, kLimit);
  range.Stop = std::clamp(axis.back(), -kLimit, kLimit);
  return range;
}

bool TAdvancedFitPreviewRange::FollowCursor(double x) {
  if (!std::isfinite(x) || std::fabs(x) > kLimit) return false;
  const bool start = std::fabs(x - Start) <= std::fabs(x - Stop);
  if (x == (start ? Stop : Start)) return false;
  (start ? Start : Stop) = x;
  return true;
}

// ---------------------------------------------------------------------------------------------------------
// Result arrays

TAdvancedFitResultArrays::TAdvancedFitResultArrays(int64_t spectra, int parameters, bool zero)
    : Spectra(spectra), Parameters(parameters), StartValues(uint64_t(parameters), uint64_t(spectra)),
      Values(uint64_t(parameters), uint64_t(spectra)), Errors(uint64_t(parameters), uint64_t(spectra)),
      TransformedValues(uint64_t(parameters), uint64_t(spectra)),
      TransformedErrors(uint64_t(parameters), uint64_t(spectra)), ErrorInfo(uint64_t(spectra)),
      FitGood(uint64_t(spectra)) {
  if (zero) ZeroMCI();
}

int64_t TAdvancedFitResultArrays::BytesNeeded(int64_t spectra, int parameters) {
  return spectra * (5 * int64_t(parameters) * int64_t(sizeof(double)) +
                    int64_t(sizeof(TFitFunctionErrorInfo)) + int64_t(sizeof(bool)));
}

void TAdvancedFitResultArrays::ZeroMCI() {
  StartValues.ClearData();
  Values.ClearData();
  Errors.ClearData();
  TransformedValues.ClearData();
  TransformedErrors.ClearData();
  ErrorInfo.ClearData();
  FitGood.ClearData();
}

// ---------------------------------------------------------------------------------------------------------
// The fit loop

TAdvancedFitScratch::TAdvancedFitScratch(const TAdvancedFitInput& input)
    : Spectrum(static_cast<size_t>(std::max(input.SpectrumLength, 0))),
      Y(static_cast<size_t>(std::max(input.FitPoints, 0))),
      Sigma(static_cast<size_t>(std::max(input.FitPoints, 0)), 1.0) {
  const size_t np = input.Function ? static_cast<size_t>(input.Function->GetNumberOfParameters()) : 0;
  Start.assign(np, 0.0);
  Values.assign(np, 0.0);
  Errors.assign(np, 0.0);
}

namespace {

/// The user's form of count results of np parameters, in place: for each good fit the native values and
/// errors become the parameters and their errors (transform) and are put in the function's order (sort);
/// failed fits stay as they are. native is scratch of np values.
void TransformSortResults(const TFitFunction& f, int np, double* values, double* errors, const bool* good,
                          int64_t count, bool transform, bool sort, double* native) {
  for (int64_t e = 0; e < count; ++e) {
    if (!good[e]) continue;
    double* v = values + e * np;
    double* er = errors + e * np;
    if (transform) {
      std::copy(v, v + np, native);
      f.TransformNativeErrorToError(native, er); // needs the native values
      f.TransformNativeParametersToParameters(v);
    }
    if (sort) f.SortParameters(v, er);
  }
}

// The fit of the points in s.Y: one CalculateThread, or with fit orders of several stages one per stage
// on the function's minimizer, its vary flags narrowed to the stage and restored afterwards.
bool FitInStages(const TAdvancedFitInput& input, void* threadData, TAdvancedFitScratch& s,
                 TFitFunctionErrorInfo& info, std::string& message) {
  const int n = input.FitPoints;
  const int np = input.Function->GetNumberOfParameters();
  auto fit = [&] {
    return input.Function->CalculateThread(threadData, s.Start.data(), s.Values.data(), s.Errors.data(), n,
                                           input.FitX, s.Y.data(), s.Sigma.data(), info, message);
  };
  if (!input.FitOrder) return fit();
  auto* minimizer =
      dynamic_cast<TNLFitFunction*>(input.Function) ? static_cast<TChiSqrMinimizer*>(threadData) : nullptr;
  if (!minimizer || minimizer->GetNumberOfParameters() != np) return fit();
  // The stages: the distinct orders of the varied parameters.
  std::vector<int> stages;
  for (int i = 0; i < np; ++i)
    if (minimizer->GetVaryParameter(i)) stages.push_back(input.FitOrder[i]);
  std::sort(stages.begin(), stages.end());
  stages.erase(std::unique(stages.begin(), stages.end()), stages.end());
  if (stages.size() < 2) return fit();

  std::vector<char> vary(static_cast<size_t>(np)), estimate(static_cast<size_t>(np));
  std::vector<double> start(static_cast<size_t>(np));
  for (int i = 0; i < np; ++i) {
    vary[static_cast<size_t>(i)] = minimizer->GetVaryParameter(i);
    estimate[static_cast<size_t>(i)] = minimizer->GetUseEstimatedParameter(i);
    start[static_cast<size_t>(i)] = minimizer->GetStartParameter(i);
  }
  std::vector<double> used(static_cast<size_t>(np));
  bool good = true;
  for (size_t k = 0; k < stages.size() && good; ++k) {
    for (int i = 0; i < np; ++i)
      minimizer->SetVaryParameter(i, vary[static_cast<size_t>(i)] && input.FitOrder[i] <= stages[k]);
    good = fit();
    // The start values a spectrum used are those of the first stage (its estimates included).
    if (k == 0) used = s.Start;
    if (good && k + 1 < stages.size())
      for (int i = 0; i < np; ++i) {
        // The next stage starts where this one ended, without a new estimate.
        minimizer->SetStartParameter(i, s.Values[static_cast<size_t>(i)]);
        minimizer->SetUseEstimatedParameter(i, false);
      }
  }
  for (int i = 0; i < np; ++i) {
    minimizer->SetVaryParameter(i, vary[static_cast<size_t>(i)]);
    minimizer->SetUseEstimatedParameter(i, estimate[static_cast<size_t>(i)]);
    minimizer->SetStartParameter(i, start[static_cast<size_t>(i)]);
  }
  s.Start = used;
  return good;
}

} // namespace

bool FitOneSpectrum(const TAdvancedFitInput& input, void* threadData, const float* spectrum,
                    TAdvancedFitScratch& s, TFitFunctionErrorInfo& info, std::string& message) {
  const int n = input.FitPoints;
  const int np = input.Function->GetNumberOfParameters();
  info = TFitFunctionErrorInfo();
  bool finite = true;
  for (int i = 0; i < n; ++i) {
    const double y = spectrum[input.FitPointIndex[i]];
    finite = finite && std::isfinite(y);
    s.Y[static_cast<size_t>(i)] = y;
  }
  bool good = false;
  if (!finite) {
    std::fill(s.Start.begin(), s.Start.end(), 0.0);
    message = "Fit Error (the spectrum holds values that are not numbers)";
  } else {
    good = FitInStages(input, threadData, s, info, message);
    if (good &&
        !(AllFinite(s.Values.data(), np) && AllFinite(s.Errors.data(), np) && std::isfinite(info.ChiSqr))) {
      good = false;
      message = "Fit Error (Numeric Problem)";
    }
  }
  if (!good) {
    std::fill(s.Values.begin(), s.Values.end(), 0.0);
    std::fill(s.Errors.begin(), s.Errors.end(), 0.0);
    info.FitOK = false;
    info.ChiSqr = kNaN;
  }
  return good;
}

int64_t FitSpectrumRange(const TAdvancedFitInput& input, int64_t first, int64_t last,
                         TAdvancedFitResultArrays& results, const std::function<bool()>& cancelled,
                         std::atomic<int64_t>* progress, std::string* lastMessage) {
  if (!input.Function || last < first) return 0;
  if (input.Function->GetNumberOfParameters() != results.Parameters || last >= results.Spectra || first < 0)
    throw OrvexException("FitSpectrumRange(): the result arrays don't match the range or the function");
  const int np = results.Parameters;
  TThreadData data(*input.Function);
  TAdvancedFitScratch s(input);

  // Results are collected for a block of spectra and written as whole ranges: the entries of other
  // threads' elements are never touched, not even with their old contents.
  std::vector<double> start(static_cast<size_t>(kResultBlock * np)), values(start.size()),
      errors(start.size());
  std::vector<TFitFunctionErrorInfo> infos(static_cast<size_t>(kResultBlock));
  std::unique_ptr<bool[]> good(new bool[static_cast<size_t>(kResultBlock)]);
  std::vector<double> transformedValues, transformedErrors, native(static_cast<size_t>(np));
  if (input.TransformAndSort) {
    transformedValues.resize(start.size());
    transformedErrors.resize(start.size());
  }
  int64_t blockFirst = first;
  int64_t inBlock = 0;
  auto flush = [&] {
    if (inBlock == 0) return;
    const uint64_t index = uint64_t(blockFirst) * uint64_t(np), count = uint64_t(inBlock) * uint64_t(np);
    results.StartValues.SetValueArray(index, start.data(), count);
    results.Values.SetValueArray(index, values.data(), count);
    results.Errors.SetValueArray(index, errors.data(), count);
    if (input.TransformAndSort) {
      std::copy_n(values.begin(), count, transformedValues.begin());
      std::copy_n(errors.begin(), count, transformedErrors.begin());
      TransformSortResults(*input.Function, np, transformedValues.data(), transformedErrors.data(),
                           good.get(), inBlock, true, true, native.data());
      results.TransformedValues.SetValueArray(index, transformedValues.data(), count);
      results.TransformedErrors.SetValueArray(index, transformedErrors.data(), count);
    }
    results.ErrorInfo.SetValueArray(uint64_t(blockFirst), infos.data(), uint64_t(inBlock));
    results.FitGood.SetValueArray(uint64_t(blockFirst), good.get(), uint64_t(inBlock));
    // Counted per block: a shared counter touched by every thread after every spectrum costs more than a
    // short fit can afford.
    if (progress) progress->fetch_add(inBlock, std::memory_order_relaxed);
    blockFirst += inBlock;
    inBlock = 0;
  };

  const int spanFirst = input.FitPoints > 0 ? input.FitPointIndex[0] : 0;
  const int spanCount = input.FitPoints > 0 ? input.FitPointIndex[input.FitPoints - 1] - spanFirst + 1 : 0;
  // The spans of a group of spectra are read before their fits: one pass over the group's memory lets the
  // reads overlap, where a read between two fits waits for memory every time.
  const int64_t readAhead = std::clamp<int64_t>(
      kReadAheadBytes / (int64_t(std::max(spanCount, 1)) * int64_t(sizeof(float))), 1, kResultBlock);
  std::vector<float> spans(static_cast<size_t>(readAhead) * static_cast<size_t>(spanCount));
  std::vector<char> spanRead(static_cast<size_t>(readAhead));
  int64_t readFirst = first, readCount = 0;
  std::string message;
  int64_t done = 0;
  for (int64_t e = first; e <= last; ++e) {
    if (cancelled && cancelled()) break;
    if (e >= readFirst + readCount) {
      readFirst = e;
      readCount = std::min(readAhead, last - e + 1);
      for (int64_t k = 0; k < readCount; ++k)
        spanRead[static_cast<size_t>(k)] =
            input.ReadSpectrum(e + k, spanFirst, spanCount,
                               spans.data() + static_cast<size_t>(k) * static_cast<size_t>(spanCount));
    }
    const auto k = static_cast<size_t>(e - readFirst);
    const size_t offset = static_cast<size_t>(inBlock * np);
    TFitFunctionErrorInfo& info = infos[static_cast<size_t>(inBlock)];
    bool ok = false;
    // Only the span of the fit points is read; FitOneSpectrum takes them by their spectral index.
    if (spanRead[k]) {
      const float* span = spans.data() + k * static_cast<size_t>(spanCount);
      std::copy(span, span + spanCount, s.Spectrum.begin() + spanFirst);
      ok = FitOneSpectrum(input, data.Data, s.Spectrum.data(), s, info, message);
      std::copy(s.Start.begin(), s.Start.end(), start.begin() + std::ptrdiff_t(offset));
      std::copy(s.Values.begin(), s.Values.end(), values.begin() + std::ptrdiff_t(offset));
      std::copy(s.Errors.begin(), s.Errors.end(), errors.begin() + std::ptrdiff_t(offset));
    } else {
      // A spectrum of an invalid line is not fitted.
      info = TFitFunctionErrorInfo();
      info.ChiSqr = kNaN;
      std::fill_n(start.begin() + std::ptrdiff_t(offset), np, 0.0);
      std::fill_n(values.begin() + std::ptrdiff_t(offset), np, 0.0);
      std::fill_n(errors.begin() + std::ptrdiff_t(offset), np, 0.0);
    }
    good[static_cast<size_t>(inBlock)] = ok;
    ++inBlock;
    ++done;
    if (inBlock == kResultBlock) flush();
  }
  flush();
  if (lastMessage) *lastMessage = message;
  return done;
}

// ---------------------------------------------------------------------------------------------------------
// TAdvancedFittingCore: settings

TAdvancedFittingCore::~TAdvancedFittingCore() = default;

void TAdvancedFittingCore::SetFunction(std::unique_ptr<TFitFunction> function) {
  FFunction = std::move(function);
  FRows.clear();
  FResults.reset();
  FunctionParametersChanged();
}

void TAdvancedFittingCore::FunctionParametersChanged() {
  std::vector<TAdvancedFitParamSettings> old = std::move(FRows);
  FRows.clear();
  FResults.reset();
  if (!FFunction) return;
  for (int i = 0; i < FFunction->GetNumberOfParameters(); ++i) {
    const TFitParam& p = *FFunction->GetParam(i);
    TAdvancedFitParamSettings row;
    row.Name = p.ShortName;
    row.StartValue = p.StartValue;
    row.Value = p.Value;
    row.Vary = p.Vary;
    row.HasLowerLimit = p.HasLowerLimit;
    row.LowerLimit = p.LowerLimit;
    row.HasUpperLimit = p.HasUpperLimit;
    row.UpperLimit = p.UpperLimit;
    row.Auto = p.StartValueAutoDetect;
    for (const TAdvancedFitParamSettings& o : old)
      if (o.Name == row.Name) row = o;
    FRows.push_back(row);
  }
}

int TAdvancedFittingCore::FindRow(const std::string& name) const {
  for (size_t i = 0; i < FRows.size(); ++i)
    if (FRows[i].Name == name) return static_cast<int>(i);
  return -1;
}

std::vector<std::string> TAdvancedFittingCore::CheckRows() const {
  std::vector<std::string> problems;
  if (!FFunction) return {"No fit function is selected"};
  if (static_cast<int>(FRows.size()) != FFunction->GetNumberOfParameters())
    return {"The parameter rows don't match the function " + FFunction->FunctionName};
  for (size_t i = 0; i < FRows.size(); ++i) {
    const TAdvancedFitParamSettings& r = FRows[i];
    const TFitParam& p = *FFunction->GetParam(static_cast<int>(i));
    const std::string head = "Parameter " + r.Name + ": ";
    if (r.Vary != p.Vary && !p.VaryEnable) problems.push_back(head + "Vary can't be changed");
    if (r.Auto && !p.StartValueAutoDetectEnable) problems.push_back(head + "has no automatic start value");
    if (r.HasLowerLimit != p.HasLowerLimit && !p.LowerLimitEnable)
      problems.push_back(head + "the lower limit can't be changed");
    if (r.HasUpperLimit != p.HasUpperLimit && !p.UpperLimitEnable)
      problems.push_back(head + "the upper limit can't be changed");
    auto outside = [](double v, bool hasLow, double low, bool hasHigh, double high) {
      return !std::isfinite(v) || (hasLow && v < low) || (hasHigh && v > high);
    };
    if (r.HasLowerLimit && outside(r.LowerLimit, p.LowerLimitHasLowerLimit, p.LowerLimitLowerLimit,
                                   p.LowerLimitHasUpperLimit, p.LowerLimitUpperLimit))
      problems.push_back(head + "Lower Limit " + std::to_string(r.LowerLimit) +
                         " is outside its allowed range");
    if (r.HasUpperLimit && outside(r.UpperLimit, p.UpperLimitHasLowerLimit, p.UpperLimitLowerLimit,
                                   p.UpperLimitHasUpperLimit, p.UpperLimitUpperLimit))
      problems.push_back(head + "Upper Limit " + std::to_string(r.UpperLimit) +
                         " is outside its allowed range");
    if (r.HasLowerLimit && r.HasUpperLimit && r.LowerLimit > r.UpperLimit)
      problems.push_back(head + "Lower Limit is above Upper Limit");
    if (!std::isfinite(r.StartValue) || !std::isfinite(r.Value))
      problems.push_back(head + "Start Value and Value must be numbers");
  }
  return problems;
}

void TAdvancedFittingCore::ApplyRowsToFunction() {
  if (!FFunction) return;
  const int n = std::min<int>(static_cast<int>(FRows.size()), FFunction->GetNumberOfParameters());
  for (int i = 0; i < n; ++i) {
    const TAdvancedFitParamSettings& r = FRows[static_cast<size_t>(i)];
    TFitParam& p = *FFunction->GetParam(i);
    p.StartValue = r.StartValue;
    p.Value = r.Value;
    p.Vary = r.Vary;
    p.HasLowerLimit = r.HasLowerLimit;
    p.LowerLimit = r.LowerLimit;
    p.HasUpperLimit = r.HasUpperLimit;
    p.UpperLimit = r.UpperLimit;
    p.StartValueAutoDetect = r.Auto;
  }
  FFitOrder.assign(static_cast<size_t>(FFunction->GetNumberOfParameters()), 0);
  for (int i = 0; i < n; ++i) FFitOrder[static_cast<size_t>(i)] = FRows[static_cast<size_t>(i)].FitOrder;
}

int TAdvancedFittingCore::GetNumberOfVariedParameters() const {
  int n = 0;
  for (const TAdvancedFitParamSettings& r : FRows) n += r.Vary ? 1 : 0;
  return n;
}

void TAdvancedFittingCore::CalculateReducedMask() {
  FReducedMask = ::CalculateReducedMask(
      FFitMask.empty() ? std::vector<bool>(static_cast<size_t>(std::max(FSpectrumLength, 0)), true)
                       : FFitMask,
      DataReduction);
  FFitPointIndex = MaskPointIndices(FReducedMask);
}

void TAdvancedFittingCore::CalculateCalcFieldX() {
  FFitX.resize(FFitPointIndex.size());
  for (size_t i = 0; i < FFitPointIndex.size(); ++i) {
    const auto g = static_cast<size_t>(FFitPointIndex[i]);
    FFitX[i] = g < FAxis.size() ? FAxis[g] : double(g);
  }
}

bool TAdvancedFittingCore::IsMaskSizeBigEnough() const {
  return GetNumberOfVariedParameters() <= GetNumberOfFitPoints();
}

std::string TAdvancedFittingCore::CaptionSuffix(const std::string& ending) const {
  return " (Fit " + (FFunction ? FFunction->FunctionName : std::string()) + ": " + ending + ")";
}

std::string TAdvancedFittingCore::UserParameterName(int i) const {
  const TFitParam* p = FFunction ? FFunction->GetParam(i) : nullptr;
  if (!p) return std::string();
  return p->TransformedShortName.empty() ? p->ShortName : p->TransformedShortName;
}

// ---------------------------------------------------------------------------------------------------------
// Memory

int64_t TAdvancedFittingCore::EstimateResultBytes(int64_t spectra, int spectrumLength) const {
  const int np = FFunction ? FFunction->GetNumberOfParameters() : 0;
  int64_t images = (ExtractChiSqr ? 1 : 0) + (ExtractFitFailMask ? 1 : 0);
  for (const TAdvancedFitParamSettings& r : FRows)
    images += (r.ExtractValue ? 1 : 0) + (r.ExtractError ? 1 : 0);
  int64_t curves = 0;
  if (ExtractFitCurves) {
    curves = 1;
    if (ExtractReplica && FFunction) curves += static_cast<int64_t>(FFunction->GetReplicaList().size());
  }
  return TAdvancedFitResultArrays::BytesNeeded(spectra, np) + images * spectra * int64_t(sizeof(float)) +
         curves * spectra *
             (ExtractFitCurveWithInputDataSupportingPoints ? spectrumLength : CurveRange.Points) *
             int64_t(sizeof(float));
}

bool TAdvancedFittingCore::IsEnoughMemoryAvailableForExtractImage(int64_t spectra, int spectrumLength,
                                                                  int64_t available,
                                                                  std::string& message) const {
  const int64_t needed = EstimateResultBytes(spectra, spectrumLength);
  // The same margin the memory management asks of every large allocation.
  const double factor = available < 104857600 ? 3.0 : 1.5;
  if (double(available) > double(needed) * factor) return true;
  message = "Not enough memory for the fit results (" + MegaBytes(needed) + " MB needed, " +
            MegaBytes(std::max<int64_t>(available, 0)) + " MB available)";
  return false;
}

// ---------------------------------------------------------------------------------------------------------
// Running

bool TAdvancedFittingCore::IsCancelRequested() const {
  return ExternalCancel && ExternalCancel->IsCancelled();
}

bool TAdvancedFittingCore::ShouldStop(TMCC& mcc) const {
  if (IsCancelRequested()) mcc.CancelThreads();
  return mcc.GetCancel();
}

bool TAdvancedFittingCore::Prepare(std::string& message) {
  if (!FFunction) {
    message = "Error: No fit function is selected !";
    return false;
  }
  CalculateReducedMask();
  CalculateCalcFieldX();
  if (GetNumberOfFitPoints() == 0) {
    message = "Error: Fit mask is empty !";
    return false;
  }
  const std::vector<std::string> problems = CheckRows();
  if (!problems.empty()) {
    message = problems.front();
    return false;
  }
  if (!IsMaskSizeBigEnough()) {
    message = "Error: " + std::to_string(GetNumberOfFitPoints()) + " fit points are fewer than the " +
              std::to_string(GetNumberOfVariedParameters()) + " varied parameters !";
    return false;
  }
  ApplyRowsToFunction();
  return true;
}

TAdvancedFitInput TAdvancedFittingCore::MakeInput(int spectrumLength,
                                                  TAdvancedFitSpectrumReader reader) const {
  TAdvancedFitInput input;
  input.Function = FFunction.get();
  input.FitPointIndex = FFitPointIndex.data();
  input.FitX = FFitX.data();
  input.FitPoints = GetNumberOfFitPoints();
  // One order for every row is one stage: the fit loop then doesn't look at the orders at all.
  const bool staged =
      FFitOrder.size() == static_cast<size_t>(FFunction ? FFunction->GetNumberOfParameters() : 0) &&
      std::adjacent_find(FFitOrder.begin(), FFitOrder.end(), std::not_equal_to<>()) != FFitOrder.end();
  input.FitOrder = staged ? FFitOrder.data() : nullptr;
  input.SpectrumLength = spectrumLength;
  input.ReadSpectrum = std::move(reader);
  return input;
}

bool TAdvancedFittingCore::RunMultiCore(const std::string& caption, int64_t elements,
                                        const std::function<void(TMCC&, int, int, int)>& function) {
  if (elements <= 0) return !IsCancelRequested();
  const int count = static_cast<int>(elements);
  TMCC mcc(std::string(kToolName) + caption, nullptr, NumberOfThreads);
  mcc.MCCInit(
      [&, count](TMCC* m, int thread) {
        const int threads = m->GetNumberOfThreads();
        if (thread == 0) m->OverallProgressMax.store(count, std::memory_order_relaxed);
        const int first = TMCC::GetFirstElementIndex(thread, threads, count);
        const int last = TMCC::GetLastElementIndex(thread, threads, count);
        if (first <= last) function(*m, thread, first, last);
      },
      nullptr, 0);
  if (ProgressView) mcc.SetProgressView(ProgressView);
  mcc.SetProgressMainCaption(std::string(kToolName) + caption);
  mcc.StartThreads(NumberOfThreads);
  mcc.WaitAndShowProgressOnDelay(100);
  return !mcc.GetCancel() && !IsCancelRequested();
}

TAdvancedFitStatus TAdvancedFittingCore::FitAll(const TDGraph& graph, std::string& message) {
  const TDGraph* g = &graph;
  return FitAll(
      graph.GetNumberOfSpectra(), graph.GetSizeGraph(),
      [g](int64_t element, int first, int count, float* values) {
        const auto x = static_cast<int32_t>(element % g->GetSizeX());
        const auto y = static_cast<int32_t>(element / g->GetSizeX());
        if (!g->GetLineValid(y)) return false;
        g->GetPartOfSpectrum(x, y, first, count, values, true);
        return true;
      },
      message);
}

TAdvancedFitStatus TAdvancedFittingCore::FitAll(int64_t spectra, int spectrumLength,
                                                const TAdvancedFitSpectrumReader& reader,
                                                std::string& message) {
  FResults.reset();
  message.clear();
  if (!FFitMask.empty() && static_cast<int>(FFitMask.size()) != spectrumLength) {
    message = "Error: the fit mask has " + std::to_string(FFitMask.size()) + " points, the spectra " +
              std::to_string(spectrumLength) + " !";
    return TAdvancedFitStatus::Refused;
  }
  FSpectrumLength = spectrumLength;
  if (!Prepare(message)) return TAdvancedFitStatus::Refused;
  if (spectra <= 0 || spectra > INT_MAX) {
    message = "Error: " + std::to_string(spectra) + " spectra can't be fitted !";
    return TAdvancedFitStatus::Refused;
  }
  if (!IsEnoughMemoryAvailableForExtractImage(spectra, spectrumLength,
                                              TMemoryManagement::GetAvailableMemoryInBytes(false), message))
    return TAdvancedFitStatus::Refused;

  const int np = FFunction->GetNumberOfParameters();
  // Not zeroed: the fit writes every entry of every spectrum and the transformation every transformed one,
  // and an unfinished run drops the arrays. Zeroing them first would touch all their memory once more, on
  // this thread alone before the calculation threads start.
  auto results = std::make_unique<TAdvancedFitResultArrays>(spectra, np, false);
  TAdvancedFitInput input = MakeInput(spectrumLength, reader);
  // The threads transform and sort their own results: no second pass over the arrays.
  input.TransformAndSort = true;
  std::string lastMessage;
  const bool finished = RunMultiCore("", spectra, [&](TMCC& mcc, int thread, int first, int last) {
    mcc.ThreadProgressMax[static_cast<size_t>(thread)].store(last - first + 1, std::memory_order_relaxed);
    int asked = 0; // the cancel question comes once before each spectrum
    std::string threadMessage;
    FitSpectrumRange(
        input, first, last, *results,
        [&] {
          // Stored now and then: the threads' counters share a cache line, and a store after every
          // spectrum would pass it between the processors all the time.
          if ((asked & 31) == 0)
            mcc.ThreadProgress[static_cast<size_t>(thread)].store(asked, std::memory_order_relaxed);
          ++asked;
          return ShouldStop(mcc);
        },
        &mcc.OverallProgress, &threadMessage);
    if (thread == 0) lastMessage = threadMessage;
  });
  if (!finished) return TAdvancedFitStatus::Cancelled;
  FLastMessage = lastMessage;
  FResults = std::move(results);
  return TAdvancedFitStatus::Done;
}

TAdvancedFitStatus TAdvancedFittingCore::FitSpectrum(const TDGraph& graph, int64_t element,
                                                     TAdvancedFitPointResult& result, std::string& message) {
  result = TAdvancedFitPointResult();
  message.clear();
  const int length = graph.GetSizeGraph();
  if (!FFitMask.empty() && static_cast<int>(FFitMask.size()) != length) {
    message = "Error: the fit mask has " + std::to_string(FFitMask.size()) + " points, the spectra " +
              std::to_string(length) + " !";
    return TAdvancedFitStatus::Refused;
  }
  FSpectrumLength = length;
  if (!Prepare(message)) return TAdvancedFitStatus::Refused;
  if (element < 0 || element >= graph.GetNumberOfSpectra()) {
    message = "Error: spectrum " + std::to_string(element) + " is not in the graph !";
    return TAdvancedFitStatus::Refused;
  }
  const TAdvancedFitInput input = MakeInput(length, nullptr);
  TThreadData data(*FFunction);
  TAdvancedFitScratch s(input);
  const int np = FFunction->GetNumberOfParameters();
  const int n = input.FitPoints;
  result.DataPoints = n;
  result.DegreesOfFreedom = n - GetNumberOfVariedParameters();
  result.Values.assign(static_cast<size_t>(np), 0.0);
  result.Errors.assign(static_cast<size_t>(np), 0.0);
  result.NativeValues.assign(static_cast<size_t>(np), 0.0);
  result.ChiSqr = kNaN;
  result.ChiSqrPerDoF = kNaN;
  if (!graph.GetLineValid(static_cast<int32_t>(element / graph.GetSizeX()))) {
    result.Message = "Fit Error (the spectrum's line is not valid)";
    return TAdvancedFitStatus::Done;
  }
  graph.GetSpectrumOfElement(element, s.Spectrum.data(), true);
  TFitFunctionErrorInfo info;
  result.FitOK = FitOneSpectrum(input, data.Data, s.Spectrum.data(), s, info, result.Message);
  FLastMessage = result.Message;
  if (!result.FitOK) return TAdvancedFitStatus::Done;
  result.NativeValues = s.Values;
  result.Values = s.Values;
  result.Errors = s.Errors;
  FFunction->TransformNativeErrorToError(s.Values.data(), result.Errors.data());
  FFunction->TransformNativeParametersToParameters(result.Values.data());
  FFunction->SortParameters(result.Values.data(), result.Errors.data());
  result.ChiSqr = info.ChiSqr;
  result.ResidualSumOfSquares = info.ResidualSumOfSquares;
  if (result.DegreesOfFreedom >= 1) result.ChiSqrPerDoF = info.ChiSqr / result.DegreesOfFreedom;
  result.AverageError = n > 0 ? std::sqrt(info.ResidualSumOfSquares / n) : 0.0;
  result.RSquared = std::fabs(info.TotalSumOfSquares) > 1e-31
                        ? 1.0 - info.ResidualSumOfSquares / info.TotalSumOfSquares
                        : 0.0;
  return TAdvancedFitStatus::Done;
}

std::vector<std::pair<std::string, std::string>> AdvancedFitStatisticsText(const TAdvancedFitPointResult& r,
                                                                           int precision) {
  const int digits = std::clamp(precision, 2, 12);
  auto number = [digits](double v) {
    std::ostringstream text;
    text << std::setprecision(digits) << v;
    return text.str();
  };
  std::vector<std::pair<std::string, std::string>> lines;
  lines.emplace_back("Chi^2 / DoF:", r.FitOK && r.DegreesOfFreedom >= 1
                                         ? number(RoundToSignificantDigit(r.ChiSqrPerDoF, digits - 1))
                                         : std::string("--------"));
  lines.emplace_back("Data Points / DoF:",
                     std::to_string(r.DataPoints) + " / " + std::to_string(r.DegreesOfFreedom));
  lines.emplace_back("Average Error:", r.FitOK ? number(r.AverageError) : std::string("--------"));
  lines.emplace_back("R^2:", r.FitOK ? number(std::round(r.RSquared * 100000.0) / 100000.0)
                                     : std::string("--------"));
  return lines;
}

int64_t TAdvancedFittingCore::GetNumberOfFailedFits() const {
  if (!FResults) return 0;
  TPMASequentialAccess<bool> good(FResults->FitGood, kReadBuffer);
  int64_t failed = 0;
  for (int64_t e = 0; e < FResults->Spectra; ++e) failed += good.GetNextValue() ? 0 : 1;
  return failed;
}

void TAdvancedFittingCore::CopyTransformSortResults(bool transform, bool sort) {
  if (!FResults || !FFunction) return;
  TAdvancedFitResultArrays& r = *FResults;
  const int np = r.Parameters;
  const TFitFunction& f = *FFunction;
  const bool finished =
      RunMultiCore(" - Transforming Data", r.Spectra, [&](TMCC& mcc, int, int first, int last) {
        // The native arrays are only read here, so buffered readers may reach into other threads' ranges.
        TPMASequentialAccess<double> values(r.Values, kReadBuffer * uint64_t(np));
        TPMASequentialAccess<double> errors(r.Errors, kReadBuffer * uint64_t(np));
        TPMASequentialAccess<bool> good(r.FitGood, kReadBuffer);
        values.SetPosition(uint64_t(first) * uint64_t(np));
        errors.SetPosition(uint64_t(first) * uint64_t(np));
        good.SetPosition(uint64_t(first));
        std::vector<double> outValues(static_cast<size_t>(kResultBlock * np)), outErrors(outValues.size()),
            native(static_cast<size_t>(np));
        int64_t blockFirst = first, inBlock = 0;
        auto flush = [&] {
          r.TransformedValues.SetValueArray(uint64_t(blockFirst) * uint64_t(np), outValues.data(),
                                            uint64_t(inBlock) * uint64_t(np));
          r.TransformedErrors.SetValueArray(uint64_t(blockFirst) * uint64_t(np), outErrors.data(),
                                            uint64_t(inBlock) * uint64_t(np));
          blockFirst += inBlock;
          inBlock = 0;
        };
        for (int e = first; e <= last; ++e) {
          if (ShouldStop(mcc)) return;
          double* v = outValues.data() + inBlock * np;
          double* er = outErrors.data() + inBlock * np;
          for (int p = 0; p < np; ++p) {
            v[p] = values.GetNextValue();
            er[p] = errors.GetNextValue();
          }
          const bool fitGood = good.GetNextValue();
          TransformSortResults(f, np, v, er, &fitGood, 1, transform, sort, native.data());
          mcc.OverallProgress.fetch_add(1, std::memory_order_relaxed);
          if (++inBlock == kResultBlock) flush();
        }
        if (inBlock > 0) flush();
      });
  if (!finished) FResults.reset(); // half-transformed results are no results
}

// ---------------------------------------------------------------------------------------------------------
// Result objects

namespace {

/// The graph of id, its sizes and line flags, read under its lock; false when it isn't a graph.
bool ReadGraphLayout(IDataProject& project, int32_t id, int32_t& sizeX, int32_t& sizeY, int32_t& length,
                     std::vector<bool>& lineValid) {
  TData* data = project.LockData(id);
  auto* graph = dynamic_cast<TDGraph*>(data);
  if (graph) {
    sizeX = graph->GetSizeX();
    sizeY = graph->GetSizeY();
    length = graph->GetSizeGraph();
    lineValid.assign(static_cast<size_t>(std::max(sizeY, 0)), false);
    for (int32_t y = 0; y < sizeY; ++y) lineValid[static_cast<size_t>(y)] = graph->GetLineValid(y);
  }
  if (data) project.UnlockData(data);
  return graph != nullptr;
}

/// Writes one line of an image from a calculation thread: only the data field is touched, the line flags
/// are set afterwards on the calling thread.
void WriteImageLine(TDImage& image, int32_t y, const float* values) {
  TDataField* field = image.GetDataField();
  if (image.IsInverted()) {
    const int32_t index[2] = {y, 0};
    field->SetValueArray(index, values, image.GetSizeX());
  } else {
    for (int32_t x = 0; x < image.GetSizeX(); ++x) {
      const int32_t index[2] = {x, y};
      field->SetValue(index, values[x]);
    }
  }
}

} // namespace

std::vector<std::unique_ptr<TDImage>> TAdvancedFittingCore::MultiCoreFillImages(IDataProject& project,
                                                                                int32_t graphID,
                                                                                TAdvancedFitStatus& status) {
  std::vector<std::unique_ptr<TDImage>> images;
  status = TAdvancedFitStatus::Cancelled;
  if (!FResults || !FFunction) return images;
  int32_t sizeX = 0, sizeY = 0, length = 0;
  std::vector<bool> lineValid;
  if (!ReadGraphLayout(project, graphID, sizeX, sizeY, length, lineValid) ||
      int64_t(sizeX) * sizeY != FResults->Spectra) {
    status = TAdvancedFitStatus::Refused;
    return images;
  }

  // What each image shows: a value or an error of a parameter, chi-square, or the fail mask.
  enum class TKind { Value, Error, ChiSqr, FailMask };
  struct TPlan {
    TKind Kind;
    int Parameter;
    float FailValue;
  };
  std::vector<TPlan> plans;
  std::vector<std::string> endings;
  for (size_t p = 0; p < FRows.size(); ++p)
    if (FRows[p].ExtractValue) {
      plans.push_back({TKind::Value, static_cast<int>(p), static_cast<float>(FRows[p].ValueIfFitFails)});
      endings.push_back(UserParameterName(static_cast<int>(p)));
    }
  for (size_t p = 0; p < FRows.size(); ++p)
    if (FRows[p].ExtractError) {
      plans.push_back({TKind::Error, static_cast<int>(p), -1.0f});
      endings.push_back(UserParameterName(static_cast<int>(p)) + " Error");
    }
  if (ExtractChiSqr) {
    plans.push_back({TKind::ChiSqr, 0, std::numeric_limits<float>::quiet_NaN()});
    endings.push_back("Chi^2");
  }
  if (ExtractFitFailMask) {
    plans.push_back({TKind::FailMask, 0, 1.0f});
    endings.push_back("Fit Fail Mask");
  }
  for (const std::string& ending : endings) {
    TResultInfo info;
    info.CaptionSuffix = CaptionSuffix(ending);
    info.HistoryText = std::string(kToolName) + ": Fit " + FFunction->FunctionName + ", " + ending;
    auto image = TDImage::CreateResultImage(project, graphID, TDataFieldKind::Float, info);
    if (!image) {
      status = TAdvancedFitStatus::Refused;
      return {};
    }
    images.push_back(std::move(image));
  }

  const TAdvancedFitResultArrays& r = *FResults;
  const int np = r.Parameters;
  const bool finished = RunMultiCore(" - Filling Images", sizeY, [&](TMCC& mcc, int, int first, int last) {
    std::vector<double> values(static_cast<size_t>(sizeX) * static_cast<size_t>(np)), errors(values.size());
    std::vector<TFitFunctionErrorInfo> infos(static_cast<size_t>(sizeX));
    std::unique_ptr<bool[]> good(new bool[static_cast<size_t>(sizeX)]);
    std::vector<float> line(static_cast<size_t>(sizeX));
    for (int y = first; y <= last; ++y) {
      if (ShouldStop(mcc)) return;
      const uint64_t e0 = uint64_t(y) * uint64_t(sizeX);
      r.TransformedValues.GetValueArray(e0 * uint64_t(np), values.data(), values.size());
      r.TransformedErrors.GetValueArray(e0 * uint64_t(np), errors.data(), errors.size());
      r.ErrorInfo.GetValueArray(e0, infos.data(), uint64_t(sizeX));
      r.FitGood.GetValueArray(e0, good.get(), uint64_t(sizeX));
      for (size_t i = 0; i < plans.size(); ++i) {
        const TPlan& plan = plans[i];
        for (int32_t x = 0; x < sizeX; ++x) {
          const size_t at =
              static_cast<size_t>(x) * static_cast<size_t>(np) + static_cast<size_t>(plan.Parameter);
          float v = plan.FailValue;
          switch (plan.Kind) {
          case TKind::Value:
            if (good[static_cast<size_t>(x)]) v = SafeDoubleToFloat(values[at]);
            break;
          case TKind::Error:
            if (good[static_cast<size_t>(x)]) v = SafeDoubleToFloat(errors[at]);
            break;
          case TKind::ChiSqr:
            if (good[static_cast<size_t>(x)]) v = SafeDoubleToFloat(infos[static_cast<size_t>(x)].ChiSqr);
            break;
          case TKind::FailMask:
            v = good[static_cast<size_t>(x)] ? 0.0f : 1.0f;
            break;
          }
          line[static_cast<size_t>(x)] = v;
        }
        WriteImageLine(*images[i], y, line.data());
        // The line's statistics while its values are at hand: no serial pass over every image after.
        images[i]->CalculateLineInformation(y);
      }
      mcc.OverallProgress.fetch_add(1, std::memory_order_relaxed);
    }
  });
  if (!finished) return {};
  for (auto& image : images) {
    for (int32_t y = 0; y < sizeY; ++y) {
      image->SetLineValid(y, lineValid[static_cast<size_t>(y)]);
      image->SetLineChanged(y, true);
    }
    image->CalculateImageStatistics();
  }
  status = TAdvancedFitStatus::Done;
  return images;
}

bool TAdvancedFittingCore::MakeCurveRangeAxis(IDataProject& project, int32_t graphID,
                                              std::vector<double>& axis, int32_t& transformationID,
                                              int32_t& interpretationID) const {
  const auto* input = dynamic_cast<const TDGraph*>(project.FindData(graphID));
  if (!input || !CurveRange.IsValid()) return false;
  axis = CurveRange.Axis();
  const auto* transformation =
      dynamic_cast<const TDTransformation*>(project.FindData(input->GetXTransformationID()));
  interpretationID = input->GetXInterpretationID() != 0 ? input->GetXInterpretationID()
                     : transformation                   ? transformation->GetInterpretationID()
                                                        : 0;
  const auto* interpretation = dynamic_cast<const TDInterpretation*>(project.FindData(interpretationID));
  std::vector<double> standard(axis.size());
  for (size_t g = 0; g < axis.size(); ++g)
    standard[g] = interpretation ? interpretation->ToStandard(axis[g]) : axis[g];
  auto table = std::make_unique<TDLUTTransformation>();
  if (transformation) {
    table->SetUnitKind(transformation->GetUnitKind());
    table->SetStandardUnit(transformation->GetStandardUnit());
  }
  table->SetInterpretationID(interpretationID);
  try {
    table->SetLUT(standard.data(), static_cast<int32_t>(standard.size()));
  } catch (const OrvexException&) {
    return false;
  }
  table->SetCaption(std::string(kToolName) + " Curve Axis");
  table->SetID(project.GetNewDataID());
  transformationID = table->GetID();
  project.AddData(std::move(table));
  return true;
}

std::vector<std::unique_ptr<TDGraph>>
TAdvancedFittingCore::MultiCoreExtractFitCurve(IDataProject& project, int32_t graphID,
                                               TAdvancedFitStatus& status) {
  std::vector<std::unique_ptr<TDGraph>> curves;
  status = TAdvancedFitStatus::Cancelled;
  if (!FResults || !FFunction) return curves;
  int32_t sizeX = 0, sizeY = 0, length = 0;
  std::vector<bool> lineValid;
  if (!ReadGraphLayout(project, graphID, sizeX, sizeY, length, lineValid) ||
      int64_t(sizeX) * sizeY != FResults->Spectra ||
      (!ExtractFitCurveWithInputDataSupportingPoints && !CurveRange.IsValid())) {
    status = TAdvancedFitStatus::Refused;
    return curves;
  }
  std::vector<double> axis(static_cast<size_t>(length));
  for (int32_t g = 0; g < length; ++g)
    axis[static_cast<size_t>(g)] =
        static_cast<int32_t>(FAxis.size()) == length ? FAxis[static_cast<size_t>(g)] : double(g);
  // Off the input's points the curves lie on the even axis of the curve range: a table transformation
  // of its positions in the input's standard unit, read through the input's interpretation.
  int32_t rangeTransformationID = 0, rangeInterpretationID = 0;
  if (!ExtractFitCurveWithInputDataSupportingPoints) {
    if (!MakeCurveRangeAxis(project, graphID, axis, rangeTransformationID, rangeInterpretationID)) {
      status = TAdvancedFitStatus::Refused; // the range doesn't map to the input's axis
      return curves;
    }
    length = static_cast<int32_t>(axis.size());
  }

  // -1: the whole function; 0, 1, ...: one part of a composite function.
  std::vector<int> replicas = {-1};
  std::vector<std::string> endings = {"Curves"};
  if (ExtractReplica) {
    const std::vector<std::string> names = FFunction->GetReplicaList();
    for (size_t i = 0; i < names.size(); ++i) {
      replicas.push_back(static_cast<int>(i));
      endings.push_back("Curves " + names[i]);
    }
  }
  for (const std::string& ending : endings) {
    TResultInfo info;
    info.CaptionSuffix = CaptionSuffix(ending);
    info.HistoryText = std::string(kToolName) + ": Fit " + FFunction->FunctionName + ", " + ending;
    auto graph = TDGraph::CreateResultGraph(project, graphID, false, TDataFieldKind::Float, info);
    if (!graph) {
      status = TAdvancedFitStatus::Refused;
      return {};
    }
    if (rangeTransformationID != 0) {
      graph->SetFieldSize(sizeX, sizeY, TDataFieldKind::Float, length);
      graph->SetXTransformationID(rangeTransformationID);
      graph->SetXInterpretationID(rangeInterpretationID);
    }
    curves.push_back(std::move(graph));
  }

  const TAdvancedFitResultArrays& r = *FResults;
  const int np = r.Parameters;
  const TFitFunction& f = *FFunction;
  const bool finished =
      RunMultiCore(" - Calculating Fit Curve", r.Spectra, [&](TMCC& mcc, int, int first, int last) {
        std::vector<double> values(static_cast<size_t>(np));
        std::vector<float> curve(static_cast<size_t>(length));
        for (int e = first; e <= last; ++e) {
          if (ShouldStop(mcc)) return;
          const bool good = r.FitGood.GetValue(uint64_t(e));
          r.Values.GetValueArray(uint64_t(e) * uint64_t(np), values.data(), uint64_t(np));
          for (size_t c = 0; c < curves.size(); ++c) {
            for (int32_t g = 0; g < length; ++g)
              curve[static_cast<size_t>(g)] =
                  good ? SafeDoubleToFloat(
                             f.GetReplicaValue(values.data(), axis[static_cast<size_t>(g)], replicas[c]))
                       : std::numeric_limits<float>::quiet_NaN();
            curves[c]->SetSpectrumOfElement(e, curve.data());
          }
          mcc.OverallProgress.fetch_add(1, std::memory_order_relaxed);
        }
      });
  if (!finished) return {}; // a cancel drops the curves
  for (auto& graph : curves)
    for (int32_t y = 0; y < sizeY; ++y) graph->SetLineValid(y, lineValid[static_cast<size_t>(y)]);
  status = TAdvancedFitStatus::Done;
  return curves;
}
