#include "project/Filterextraction.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/numerics/Filterreductions.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dfilter.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtext.h"
#include "data/Graphfilter.h"

#include <algorithm>
#include <cmath>
#include <sstream>

TFilterResultShape GetFilterResultShape(const TDGraph& input) {
  if (input.GetSizeY() == 1 && input.GetSizeX() == 1) return TFilterResultShape::Values;
  if (input.GetSizeY() == 1) return TFilterResultShape::Profile;
  return TFilterResultShape::Image;
}

TFilterExtraction::TFilterExtraction(const TDGraph& input)
    : FInput(input), FSizeX(input.GetSizeX()), FSizeY(input.GetSizeY()), FLength(input.GetSizeGraph()) {}

TFilterExtraction::~TFilterExtraction() = default;

void TFilterExtraction::AddGraphFilter(const TGraphFilter& filter) {
  if (filter.GetFieldLength() != FLength)
    throw OrvexException("TFilterExtraction::AddGraphFilter(): the filter \"" + filter.Info().FilterCaption +
                         "\" is not committed on a graph of " + std::to_string(FLength) + " points");
  FItems.push_back({&filter, nullptr, GetOutputCount()});
  FOutputCaptions.push_back(filter.GetFilterKindCaption());
}

void TFilterExtraction::AddDataFilter(const TDFilter& filter) {
  if (filter.GetFieldSize() != FLength)
    throw OrvexException("TFilterExtraction::AddDataFilter(): the filter \"" + filter.GetCaption() +
                         "\" is not prepared for a graph of " + std::to_string(FLength) + " points");
  FItems.push_back({nullptr, &filter, GetOutputCount()});
  for (int32_t i = 0; i < filter.GetParameterCount(); ++i)
    FOutputCaptions.push_back(filter.GetParameterCaption(i));
}

const std::string& TFilterExtraction::GetOutputCaption(int32_t output) const {
  if (output < 0 || output >= GetOutputCount())
    throw OrvexException("TFilterExtraction::GetOutputCaption(): no output " + std::to_string(output));
  return FOutputCaptions[static_cast<size_t>(output)];
}

const std::vector<float>& TFilterExtraction::GetValues(int32_t output) const {
  if (output < 0 || output >= static_cast<int32_t>(FValues.size()))
    throw OrvexException("TFilterExtraction::GetValues(): no output " + std::to_string(output));
  return FValues[static_cast<size_t>(output)];
}

bool TFilterExtraction::GetLineValid(int32_t y) const {
  return FComplete && FLineDone && y >= 0 && y < FSizeY && FInput.GetLineValid(y) &&
         FLineDone[static_cast<size_t>(y)].load() == FSizeX;
}

void TFilterExtraction::GetPixelRangeRead(int32_t& first, int32_t& count) const {
  first = FCheckFirst;
  count = FCheckCount;
}

void TFilterExtraction::NoteProblem(const std::string& problem) {
  std::lock_guard<std::mutex> lock(FProblemLock);
  if (FProblem.empty()) FProblem = problem;
}

bool TFilterExtraction::Run(const std::string& caption) {
  FValues.assign(FItems.size() ? static_cast<size_t>(GetOutputCount()) : 0,
                 std::vector<float>(static_cast<size_t>(FSizeX) * FSizeY, 0.0f));
  FLineDone = std::make_unique<std::atomic<int32_t>[]>(static_cast<size_t>(std::max(1, FSizeY)));
  FComplete = false;
  FProblem.clear();
  if (FLength < 1 || FSizeX < 1 || FSizeY < 1)
    throw OrvexException("TFilterExtraction::Run(): the graph holds no spectra");

  // The part of the spectra that is read: a lone graph filter needs only its range with the background
  // pixels beside it (the width looks at the whole spectrum); filter objects take whole spectra.
  FReadPart = FItems.size() == 1 && FItems[0].Graph && FItems[0].Graph->ThreadInfo().FilterKind != gfkWidth;
  FReadFirst = 0;
  FReadCount = FLength;
  if (FReadPart) FItems[0].Graph->GetPixelRangeNeededByFilter(FReadFirst, FReadCount);
  // The values checked for finiteness: the union of what each reduction looks at.
  int32_t lo = FLength, hi = -1;
  for (const TItem& item : FItems) {
    int32_t first = 0, count = FLength;
    if (item.Graph) {
      if (item.Graph->ThreadInfo().FilterKind != gfkWidth)
        item.Graph->GetPixelRangeNeededByFilter(first, count);
    } else {
      std::vector<double> x(static_cast<size_t>(FLength));
      for (int32_t i = 0; i < FLength; ++i) x[static_cast<size_t>(i)] = item.Data->GetXPosition(i);
      const int lower = item.Data->GetInput(TDFilter::kLowerBackgroundInput).FIPInteger;
      const int upper = item.Data->GetInput(TDFilter::kUpperBackgroundInput).FIPInteger;
      GetPixelRangeNeeded(x.data(), FLength, item.Data->GetStartIndex(), item.Data->GetStopIndex(), lower,
                          upper, first, count);
    }
    lo = std::min(lo, first);
    hi = std::max(hi, first + count - 1);
  }
  FCheckFirst = hi >= lo ? lo : 0;
  FCheckCount = hi >= lo ? hi - lo + 1 : 0;

  TMCC mcc(caption, [this](TMCC* m, int thread) { CalculateThread(m, thread); });
  mcc.PrepareThreads();
  mcc.OverallProgressMax.store(1);
  mcc.StopCancel();
  mcc.StartThreads(0);
  mcc.WaitAndShowProgressOnDelay(100);
  if (!FProblem.empty()) throw OrvexException(FProblem);
  FComplete = !mcc.GetCancel();
  return FComplete;
}

void TFilterExtraction::CalculateThread(TMCC* mcc, int threadIndex) {
  const int threads = mcc->GetNumberOfThreads();
  const int total = FSizeX * FSizeY;
  const int first = TMCC::GetFirstElementIndex(threadIndex, threads, total);
  const int last = TMCC::GetLastElementIndex(threadIndex, threads, total);
  if (first > last) return;
  mcc->ThreadProgressMax[static_cast<size_t>(threadIndex)].store(last - first + 1);
  // Each thread calculates filter objects with clones of its own: they keep their working state inside.
  std::vector<std::unique_ptr<TDFilter>> clones(FItems.size());
  for (size_t i = 0; i < FItems.size(); ++i)
    if (FItems[i].Data) clones[i] = FItems[i].Data->CloneForCalculation();
  std::vector<float> buffer(static_cast<size_t>(FReadPart ? std::max(1, FReadCount) : FLength));
  const int32_t checkFrom = FCheckFirst - (FReadPart ? FReadFirst : 0);
  // Pixels done are counted per line here and added to the shared count when the line changes, and the
  // progress is published now and then: shared counters written per pixel would bounce between the cores.
  int32_t countedLine = first / FSizeX, counted = 0;
  auto flush = [&]() {
    if (counted > 0) FLineDone[static_cast<size_t>(countedLine)].fetch_add(counted);
    counted = 0;
  };
  for (int e = first; e <= last; ++e) {
    if (((e - first) & 255) == 0) {
      if (mcc->GetCancel()) return;
      mcc->ThreadProgress[static_cast<size_t>(threadIndex)].store(e - first);
    }
    const int32_t x = e % FSizeX, y = e / FSizeX;
    if (y != countedLine) {
      flush();
      countedLine = y;
    }
    if (FInput.GetLineValid(y)) {
      if (FReadPart)
        FInput.GetPartOfSpectrum(x, y, FReadFirst, FReadCount, buffer.data());
      else
        FInput.GetSpectrum(x, y, buffer.data());
      for (int32_t g = checkFrom; g < checkFrom + FCheckCount; ++g) {
        if (std::isfinite(buffer[static_cast<size_t>(g)])) continue;
        NoteProblem("graph \"" + FInput.GetCaption() + "\" (ID " + std::to_string(FInput.GetID()) +
                    "): the value at pixel (" + std::to_string(x) + ", " + std::to_string(y) + "), point " +
                    std::to_string(g + (FReadPart ? FReadFirst : 0)) + " is not a finite number");
        mcc->CancelThreads();
        return;
      }
      const size_t pixel = static_cast<size_t>(e);
      for (size_t i = 0; i < FItems.size(); ++i) {
        const TItem& item = FItems[i];
        if (item.Graph) {
          const double value = FReadPart
                                   ? item.Graph->CalculationOfPart(buffer.data(), FReadFirst, FReadCount)
                                   : item.Graph->Calculation(buffer.data());
          FValues[static_cast<size_t>(item.FirstOutput)][pixel] = SafeDoubleToFloat(value);
        } else {
          TDFilter& filter = *clones[i];
          filter.Calculation(buffer.data());
          for (int32_t p = 0; p < filter.GetParameterCount(); ++p)
            FValues[static_cast<size_t>(item.FirstOutput + p)][pixel] =
                SafeDoubleToFloat(filter.GetParameter(p));
        }
      }
    }
    ++counted;
  }
  flush();
  mcc->ThreadProgress[static_cast<size_t>(threadIndex)].store(last - first + 1);
  for (auto& clone : clones)
    if (clone) clone->PostpareCalculation();
}

std::unique_ptr<TData> TFilterExtraction::CreateResultObject(IDataProject& project, int32_t output,
                                                             const std::string& caption) const {
  const std::vector<float>& values = GetValues(output);
  const TFilterResultShape shape = GetFilterResultShape(FInput);
  if (shape == TFilterResultShape::Values) return nullptr;
  if (shape == TFilterResultShape::Profile) {
    // The values along the line as one spectrum over the pixel index.
    auto graph = TDGraph::CreateNewGraph(&project, FInput.GetID(), true, TDataFieldKind::Float,
                                         TDataSaveMode::Always, caption);
    if (!graph) return nullptr;
    graph->SetXTransformationID(0);
    graph->SetXInterpretationID(0);
    graph->SetFieldSize(1, 1, TDataFieldKind::Float, FSizeX);
    graph->SetSpectrum(0, 0, values.data());
    graph->SetLineValid(0, GetLineValid(0));
    return graph;
  }
  auto image = TDImage::CreateNewImage(&project, FInput.GetID(), TDataFieldKind::Float, TDataSaveMode::Always,
                                       caption);
  if (!image) return nullptr;
  image->SetAutoDataChange(false);
  for (int32_t y = 0; y < FSizeY; ++y) {
    image->SetLine(y, values.data() + static_cast<size_t>(y) * FSizeX);
    image->SetLineValid(y, GetLineValid(y));
  }
  image->SetAutoDataChange(true);
  return image;
}

std::string TFilterExtraction::MakeValuesText() const {
  std::ostringstream text;
  text.precision(9);
  for (int32_t i = 0; i < GetOutputCount(); ++i)
    text << FOutputCaptions[static_cast<size_t>(i)] << '\t' << GetValues(i)[0] << '\n';
  return text.str();
}

// --- Extraction of graph filters into result objects ------------------------------------------------

std::string FilterGraphName(const TDGraph& graph) {
  return "graph \"" + graph.GetCaption() + "\" (ID " + std::to_string(graph.GetID()) + ")";
}

std::string FilterNumberText(double value) {
  std::ostringstream text;
  text.precision(10);
  text << value;
  return text.str();
}

std::string GraphFilterRangeProblem(TGraphFilterRangeStatus status, const TGraphFilter& filter,
                                    const TDGraph& graph) {
  const TGraphFilterInfo& info = filter.Info();
  switch (status) {
  case TGraphFilterRangeStatus::Inside:
  case TGraphFilterRangeStatus::NarrowerThanStep:
    return {};
  case TGraphFilterRangeStatus::OffAxis: {
    const std::vector<double>& x = filter.GetXPositions();
    return FilterGraphName(graph) + ": the range " +
           FilterNumberText(info.FilterPosition - info.FilterWidth / 2) + " to " +
           FilterNumberText(info.FilterPosition + info.FilterWidth / 2) + " " + filter.GetAxisUnitString() +
           " of FilterPosition and FilterWidth lies off the axis (" + FilterNumberText(x.front()) + " to " +
           FilterNumberText(x.back()) + ")";
  }
  case TGraphFilterRangeStatus::NoInput:
    return FilterGraphName(graph) + " holds no spectra";
  case TGraphFilterRangeStatus::BadUnit:
    return FilterGraphName(graph) + ": its axis has no unit UnitIndex " + std::to_string(info.UnitIndex) +
           " of UnitKind " + std::to_string(info.UnitKind);
  case TGraphFilterRangeStatus::BadSettings:
    return info.Problem();
  }
  return "unknown range status";
}

std::string FilterResultCaption(const TDGraph& graph, const std::string& what, const std::string& where) {
  return graph.GetCaption() + " (" + what + (where.empty() ? "" : " " + where) + ")";
}

bool ExtractGraphFilters(IDataProject& project, TDGraph& graph,
                         const std::vector<const TGraphFilter*>& models, const std::string& runCaption,
                         TGraphFilterResults& results) {
  std::vector<std::unique_ptr<TGraphFilter>> filters;
  TFilterExtraction extraction(graph);
  for (const TGraphFilter* model : models) {
    auto filter = model->CloneForCalculation();
    filter->SetNewInputGraph(&graph);
    const std::string problem = GraphFilterRangeProblem(filter->CopyParamsForThread(), *filter, graph);
    if (!problem.empty()) throw OrvexException(runCaption + ": " + problem);
    extraction.AddGraphFilter(*filter);
    filters.push_back(std::move(filter));
  }
  if (!extraction.Run(runCaption)) return false;
  if (GetFilterResultShape(graph) == TFilterResultShape::Values) {
    auto text = std::make_unique<TDText>();
    text->SetID(project.GetNewDataID());
    text->SetCaption(graph.GetCaption() + " (Filter Values)");
    results.ValuesText = extraction.MakeValuesText();
    text->SetText(results.ValuesText);
    results.Objects.push_back(std::move(text));
    return true;
  }
  for (size_t i = 0; i < filters.size(); ++i) {
    const TGraphFilter& filter = *filters[i];
    const TGraphFilterInfo& info = filter.Info();
    const std::string caption =
        info.FilterCaption != "Unknown" && !info.FilterCaption.empty()
            ? info.FilterCaption
            : FilterResultCaption(graph, filter.GetFilterKindCaption(),
                                  FilterNumberText(info.FilterPosition) + " " + filter.GetAxisUnitString());
    results.Objects.push_back(extraction.CreateResultObject(project, static_cast<int32_t>(i), caption));
  }
  return true;
}
