// The filter viewer.
#include "viewers/Vfilter.h"

#include "common/MainThreadQueue.h"
#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "project/Filterextraction.h"
#include "project/Project.h"
#include "project/Quickfilterfile.h"
#include "viewers/Viewershow.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

namespace {
const char* kGroup = "TVFilterForm";
const char* kSettingsGroup = "Settings";
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
} // namespace

/// One filter of the list: the working filter (settings committed on the main thread, so that the team only
/// clones it), its flags and its values.
struct TVFilterForm::TFilterEntry {
  uint64_t Key = 0; ///< stays with the filter while indices shift
  std::unique_ptr<TGraphFilter> Filter;
  bool Selected = false;
  bool Listen = false;
  bool Changed = true; ///< recalculate every valid pixel at the next run
  bool Usable = false; ///< the committed range can be used on the input
  std::vector<float> Values;
  double LastValue = kNaN;
  int32_t ResultID = 0;
};

/// A filter in one run: a clone of the committed filter and the values it fills.
struct TVFilterForm::TRunItem {
  uint64_t Key = 0;
  std::unique_ptr<TGraphFilter> Filter;
  bool Changed = false;
  bool Usable = false;
  std::vector<float> Values;
};

/// What thread 0 prepares for a run and every thread reads.
struct TVFilterForm::TRun {
  uint64_t Generation = 0;
  std::vector<TRunItem> Items;
  std::vector<std::unique_ptr<TGraphFilter>> AllFilters; ///< for the values at the cursor
  std::vector<uint64_t> AllKeys;
  TDataExchangeStruct Exchange;
  bool AnyFilterChanged = false;
  std::vector<int64_t> Pixels; ///< the pixels to calculate, x + y * sizeX
  std::vector<uint8_t> LineValid;
  int32_t SizeX = 0, SizeY = 0, Length = 0;
  bool ReadPart = false;
  int32_t First = 0, Count = 0;
  int32_t CursorX = -1, CursorY = -1, Spatial = 0;
};

// --- Creation and registration ------------------------------------------------------------------------

TVFilterForm::TVFilterForm() {
  SetFormCaption(kCaption);
  SetBounds(0, 0, 560, 480);
  CreateCFI();
  FStatus = kNoGraphData;
}

TVFilterForm::~TVFilterForm() {
  *FAlive = false;
  DeleteAndWaitForStaticThread();
}

void TVFilterForm::RegisterViewer() {
  TVCustomForm::RegisterViewer(kClassName, [](TRegisteredViewer& entry) {
    entry.CreateViewer = [] { return std::make_unique<TVFilterForm>(); };
    entry.IsInputIDListOkayForShowViewer = &TVFilterForm::IsInputIDListOkayForShowViewer;
    entry.ShowViewer = [](TProject& project, const TIntList& ids) {
      return ShowNewViewer(project, std::make_unique<TVFilterForm>(), ids);
    };
    entry.Caption = kCaption;
  });
}

bool TVFilterForm::IsInputIDListOkayForShowViewer(TProject& project, const TIntList& ids) {
  return ids.size() == 1 && project.GetClassNameByID(ids.front()) == TDGraph::kClassName;
}

// --- Input --------------------------------------------------------------------------------------------

TDGraph* TVFilterForm::FindGraph() const {
  TProject* project = GetProject();
  return project && FGraphID ? dynamic_cast<TDGraph*>(project->FindData(FGraphID)) : nullptr;
}

TFilterRunMode TVFilterForm::GetRunMode() const {
  const TDGraph* graph = FindGraph();
  if (!graph || graph->GetSizeGraph() == 0) return TFilterRunMode::None;
  switch (GetFilterResultShape(*graph)) {
  case TFilterResultShape::Values:
    return TFilterRunMode::SingleSpectrum;
  case TFilterResultShape::Profile:
    return TFilterRunMode::LineScan;
  case TFilterResultShape::Image:
    break;
  }
  return TFilterRunMode::Image;
}

std::string TVFilterForm::GetStatusText() const {
  if (!FindGraph()) return kNoGraphData;
  return FStatus;
}

int32_t TVFilterForm::FindSpectralCursorID() const {
  TProject* project = GetProject();
  const TDGraph* graph = FindGraph();
  if (!project || !graph) return 0;
  if (auto* interpretation =
          dynamic_cast<TDInterpretation*>(project->FindData(graph->GetXInterpretationID())))
    return interpretation->MakeOrGetCursorID();
  return project->MakeOrGetFirstIDByClassName(TDSpectralCursor::kClassName);
}

bool TVFilterForm::InitializeWithNewInputGraph(int32_t graphID) {
  TProject* project = GetProject();
  if (graphID != 0 && (!project || project->GetClassNameByID(graphID) != TDGraph::kClassName)) return false;
  const bool live = IsLive();
  DeleteAndWaitForStaticThread();
  DeleteResultObjects();
  FGraphID = graphID;
  TDGraph* graph = FindGraph();
  {
    std::lock_guard lock(FListLock);
    for (auto& entry : FFilters) {
      entry->Filter->SetNewInputGraph(graph);
      entry->Usable =
          graph && entry->Filter->CopyParamsForThread() <= TGraphFilterRangeStatus::NarrowerThanStep;
      entry->Changed = true;
      entry->Values.assign(graph ? static_cast<size_t>(graph->GetNumberOfSpectra()) : 0, 0.0f);
      entry->LastValue = kNaN;
    }
  }
  FSpectralCursorID = FindSpectralCursorID();
  FSpaceCursorID = project && graph ? project->MakeOrGetFirstIDByClassName(TDSpaceCursor::kClassName) : 0;
  FStatus = graph ? (FSpectralCursorID ? kReady : kNoCursorData) : kNoGraphData;
  UpdateCaption();
  if (live && graph) SetLive(true);
  Changed();
  return true;
}

void TVFilterForm::UpdateCaption() {
  std::string caption = kCaption;
  if (const TDGraph* graph = FindGraph()) caption += " - " + graph->GetCaption();
  SetFormCaption(caption);
}

void TVFilterForm::Changed() {
  Redraw();
  if (TProject* project = GetProject()) project->ProjectChangedForSave(this);
}

// --- Filters ------------------------------------------------------------------------------------------

void TVFilterForm::InitializeFilter(TGraphFilter& filter) const {
  TDGraph* graph = FindGraph();
  if (!graph) return;
  filter.SetNewInputGraph(graph);
  TProject* project = GetProject();
  auto* interpretation =
      project ? dynamic_cast<TDInterpretation*>(project->FindData(graph->GetXInterpretationID())) : nullptr;
  const int32_t unit = interpretation ? interpretation->GetStandardUnitIndex() : -1;
  TGraphAxisPositions axis;
  if (!GetGraphAxisPositions(*graph, 0, unit, axis) || axis.X.empty()) return;
  const auto [lo, hi] = std::minmax_element(axis.X.begin(), axis.X.end());
  double position = 0.5 * (*lo + *hi);
  if (const auto* cursor =
          project ? dynamic_cast<const TDCursor*>(project->FindData(FSpectralCursorID)) : nullptr) {
    const double p = cursor->GetPosition(0);
    if (p >= *lo && p <= *hi) position = p;
  }
  TGraphFilterInfo& info = filter.Info();
  info.UnitIndex = unit;
  info.FilterPosition = position;
  info.FilterWidth = (*hi - *lo) / 20;
}

int32_t TVFilterForm::CreateFilter(int32_t kind) {
  auto entry = std::make_unique<TFilterEntry>();
  entry->Key = FNextKey++;
  entry->Filter = std::make_unique<TGraphFilter>(kind);
  InitializeFilter(*entry->Filter);
  if (TDGraph* graph = FindGraph()) {
    entry->Usable = entry->Filter->CopyParamsForThread() <= TGraphFilterRangeStatus::NarrowerThanStep;
    entry->Values.assign(static_cast<size_t>(graph->GetNumberOfSpectra()), 0.0f);
  }
  int32_t index;
  {
    std::lock_guard lock(FListLock);
    FFilters.push_back(std::move(entry));
    index = static_cast<int32_t>(FFilters.size()) - 1;
  }
  if (IsLive()) CreateResultObjects();
  Wake();
  Changed();
  return index;
}

int32_t TVFilterForm::CreateAllFourMinMax() {
  const int32_t first = CreateFilter(gfkMinimum);
  CreateFilter(gfkMaximum);
  CreateFilter(gfkPosMinimum);
  CreateFilter(gfkPosMaximum);
  return first;
}

int32_t TVFilterForm::GetFilterCount() const {
  std::lock_guard lock(FListLock);
  return static_cast<int32_t>(FFilters.size());
}

TGraphFilterInfo TVFilterForm::GetFilterInfo(int32_t index) const {
  std::lock_guard lock(FListLock);
  if (index < 0 || index >= static_cast<int32_t>(FFilters.size())) return {};
  return FFilters[static_cast<size_t>(index)]->Filter->Info();
}

std::string TVFilterForm::UpdateFilter(int32_t index, const TGraphFilterInfo& info) {
  if (const std::string problem = info.Problem(); !problem.empty()) return problem;
  {
    std::lock_guard lock(FListLock);
    if (index < 0 || index >= static_cast<int32_t>(FFilters.size()))
      return "no filter " + std::to_string(index);
    TFilterEntry& entry = *FFilters[static_cast<size_t>(index)];
    entry.Filter->Info() = info;
    entry.Usable =
        FindGraph() && entry.Filter->CopyParamsForThread() <= TGraphFilterRangeStatus::NarrowerThanStep;
    entry.Changed = true;
  }
  Wake();
  Changed();
  return {};
}

void TVFilterForm::RenameFilter(int32_t index, const std::string& caption) {
  {
    std::lock_guard lock(FListLock);
    if (index < 0 || index >= static_cast<int32_t>(FFilters.size())) return;
    FFilters[static_cast<size_t>(index)]->Filter->SetFilterCaption(caption);
  }
  Changed();
}

void TVFilterForm::DeleteFilters(const TIntList& indices) {
  std::vector<int32_t> resultIDs;
  {
    std::lock_guard lock(FListLock);
    std::vector<uint8_t> gone(FFilters.size(), 0);
    for (int32_t i : indices)
      if (i >= 0 && i < static_cast<int32_t>(FFilters.size())) gone[static_cast<size_t>(i)] = 1;
    std::vector<std::unique_ptr<TFilterEntry>> kept;
    for (size_t i = 0; i < FFilters.size(); ++i) {
      if (gone[i])
        resultIDs.push_back(FFilters[i]->ResultID);
      else
        kept.push_back(std::move(FFilters[i]));
    }
    FFilters = std::move(kept);
  }
  if (TProject* project = GetProject())
    for (int32_t id : resultIDs)
      if (id) project->DeleteData(id);
  Changed();
}

void TVFilterForm::DeleteSelectedFilters() {
  DeleteFilters(GetSelectedFilters());
}

void TVFilterForm::SetFilterSelected(int32_t index, bool selected) {
  std::lock_guard lock(FListLock);
  if (index >= 0 && index < static_cast<int32_t>(FFilters.size()))
    FFilters[static_cast<size_t>(index)]->Selected = selected;
}

bool TVFilterForm::IsFilterSelected(int32_t index) const {
  std::lock_guard lock(FListLock);
  return index >= 0 && index < static_cast<int32_t>(FFilters.size()) &&
         FFilters[static_cast<size_t>(index)]->Selected;
}

void TVFilterForm::SelectAllFilters(bool selected) {
  std::lock_guard lock(FListLock);
  for (auto& entry : FFilters) entry->Selected = selected;
}

TIntList TVFilterForm::GetSelectedFilters() const {
  std::lock_guard lock(FListLock);
  TIntList selected;
  for (size_t i = 0; i < FFilters.size(); ++i)
    if (FFilters[i]->Selected) selected.push_back(static_cast<int32_t>(i));
  return selected;
}

std::string TVFilterForm::GetSelectionText() const {
  const TIntList selected = GetSelectedFilters();
  if (selected.empty()) return kNoFilterSelected;
  if (selected.size() > 1) return kMultipleFilters;
  return GetFilterInfo(selected.front()).FilterCaption;
}

void TVFilterForm::ChangeListenToPositionMode(int32_t index, bool listen) {
  std::lock_guard lock(FListLock);
  if (index >= 0 && index < static_cast<int32_t>(FFilters.size()))
    FFilters[static_cast<size_t>(index)]->Listen = listen;
}

bool TVFilterForm::IsListeningToPosition(int32_t index) const {
  std::lock_guard lock(FListLock);
  return index >= 0 && index < static_cast<int32_t>(FFilters.size()) &&
         FFilters[static_cast<size_t>(index)]->Listen;
}

namespace {
// The filter's range in the axis's standard unit (the unit of the spectral cursor).
bool RangeInStandardUnit(TProject& project, const TDGraph& graph, const TGraphFilterInfo& info, double& lower,
                         double& upper) {
  auto* interpretation = dynamic_cast<TDInterpretation*>(project.FindData(graph.GetXInterpretationID()));
  double a = info.FilterPosition - info.FilterWidth / 2, b = info.FilterPosition + info.FilterWidth / 2;
  if (interpretation) {
    a = interpretation->ToStandard(a, info.UnitIndex);
    b = interpretation->ToStandard(b, info.UnitIndex);
  }
  lower = std::min(a, b);
  upper = std::max(a, b);
  return std::isfinite(lower) && std::isfinite(upper);
}
} // namespace

void TVFilterForm::SendFilterPositionToCursor(int32_t index) {
  TProject* project = GetProject();
  const TDGraph* graph = FindGraph();
  if (!project || !graph || index < 0 || index >= GetFilterCount()) return;
  auto* cursor = dynamic_cast<TDCursor*>(project->FindData(FSpectralCursorID));
  double lower, upper;
  if (cursor && RangeInStandardUnit(*project, *graph, GetFilterInfo(index), lower, upper))
    cursor->SetPosition(0, 0.5 * (lower + upper));
}

bool TVFilterForm::CursorIsPositionInFilterRange(int32_t index) const {
  TProject* project = GetProject();
  const TDGraph* graph = FindGraph();
  if (!project || !graph || index < 0 || index >= GetFilterCount()) return false;
  const auto* cursor = dynamic_cast<const TDCursor*>(project->FindData(FSpectralCursorID));
  double lower, upper;
  if (!cursor || !RangeInStandardUnit(*project, *graph, GetFilterInfo(index), lower, upper)) return false;
  const double p = cursor->GetPosition(0);
  return p >= lower && p <= upper;
}

// --- Results ------------------------------------------------------------------------------------------

double TVFilterForm::GetLastValue(int32_t index) const {
  std::lock_guard lock(FListLock);
  if (index < 0 || index >= static_cast<int32_t>(FFilters.size())) return kNaN;
  return FFilters[static_cast<size_t>(index)]->LastValue;
}

std::vector<float> TVFilterForm::GetResultValues(int32_t index) const {
  std::lock_guard lock(FListLock);
  if (index < 0 || index >= static_cast<int32_t>(FFilters.size())) return {};
  return FFilters[static_cast<size_t>(index)]->Values;
}

int32_t TVFilterForm::GetResultObjectID(int32_t index) const {
  std::lock_guard lock(FListLock);
  if (index < 0 || index >= static_cast<int32_t>(FFilters.size())) return 0;
  return FFilters[static_cast<size_t>(index)]->ResultID;
}

void TVFilterForm::CreateResultObjects() {
  TProject* project = GetProject();
  TDGraph* graph = FindGraph();
  const TFilterRunMode mode = GetRunMode();
  if (!project || !graph || (mode != TFilterRunMode::Image && mode != TFilterRunMode::LineScan)) return;
  std::vector<std::pair<TFilterEntry*, std::string>> missing;
  {
    std::lock_guard lock(FListLock);
    for (auto& entry : FFilters)
      if (!entry->ResultID || !project->FindData(entry->ResultID)) {
        const TGraphFilterInfo& info = entry->Filter->Info();
        const std::string caption = info.FilterCaption != "Unknown" && !info.FilterCaption.empty()
                                        ? info.FilterCaption
                                        : FilterResultCaption(*graph, entry->Filter->GetFilterKindCaption(),
                                                              FilterNumberText(info.FilterPosition) + " " +
                                                                  entry->Filter->GetAxisUnitString());
        missing.emplace_back(entry.get(), caption + " (Filter Viewer)");
      }
  }
  for (auto& [entry, caption] : missing) {
    std::unique_ptr<TData> object;
    if (mode == TFilterRunMode::Image) {
      object =
          TDImage::CreateNewImage(project, FGraphID, TDataFieldKind::Float, TDataSaveMode::Never, caption);
    } else if (auto profile = TDGraph::CreateNewGraph(project, FGraphID, true, TDataFieldKind::Float,
                                                      TDataSaveMode::Never, caption)) {
      profile->SetXTransformationID(0);
      profile->SetXInterpretationID(0);
      profile->SetFieldSize(1, 1, TDataFieldKind::Float, graph->GetSizeX());
      object = std::move(profile);
    }
    if (!object) continue;
    const int32_t id = object->GetID();
    project->AddData(std::move(object));
    std::lock_guard lock(FListLock);
    entry->ResultID = id;
  }
}

void TVFilterForm::DeleteResultObjects() {
  std::vector<int32_t> ids;
  {
    std::lock_guard lock(FListLock);
    for (auto& entry : FFilters) {
      if (entry->ResultID) ids.push_back(entry->ResultID);
      entry->ResultID = 0;
    }
  }
  if (TProject* project = GetProject())
    for (int32_t id : ids) project->DeleteData(id);
}

// --- The team -----------------------------------------------------------------------------------------

void TVFilterForm::Wake() {
  FRequested.fetch_add(1);
  {
    std::lock_guard lock(FWakeLock);
    FWakeFlag = true;
  }
  FWakeCondition.notify_all();
}

void TVFilterForm::SetLive(bool live) {
  if (!live) {
    DeleteAndWaitForStaticThread();
    DeleteResultObjects();
    return;
  }
  if (IsLive() || !FindGraph()) return;
  CreateResultObjects();
  StartStaticThread();
}

void TVFilterForm::StartStaticThread() {
  TDGraph* graph = FindGraph();
  if (!graph || FMCC) return;
  graph->DataExchange().CreateExchangeStruct(graph->GetSizeX(), graph->GetSizeY());
  graph->RegisterDataReader(this, [this] { Wake(); });
  FTeamGraph = graph;
  FSpatial.store(GetSpatialAverageSize());
  UpdateCursorPixel();
  MarkAllFiltersChanged();
  FRun = std::make_unique<TRun>();
  FMCC = std::make_unique<TMCC>("Filter Viewer Static Thread");
  FMCC->SetProgressMainCaption("Filter Viewer Calculation");
  FMCC->MCCInit([this](TMCC* mcc, int thread) { MCCStaticThreadFunc(mcc, thread); }, this, 0);
  Wake();
  FMCC->StartThreads(-1);
}

void TVFilterForm::DeleteAndWaitForStaticThread() {
  if (!FMCC) return;
  FMCC->CancelThreads();
  {
    std::lock_guard lock(FWakeLock);
    FWakeFlag = true;
  }
  FWakeCondition.notify_all();
  while (!FMCC->WaitForThreadsFinished(50)) {
  }
  FMCC.reset();
  if (FTeamGraph) FTeamGraph->UnRegisterDataReader(this);
  FTeamGraph = nullptr;
}

void TVFilterForm::UpdateCursorPixel() {
  TProject* project = GetProject();
  const TDGraph* graph = FindGraph();
  const auto* cursor = project ? dynamic_cast<const TDCursor*>(project->FindData(FSpaceCursorID)) : nullptr;
  if (!graph || !cursor) {
    FCursorX.store(-1);
    FCursorY.store(-1);
    return;
  }
  double world[3] = {cursor->GetPosition(0), cursor->GetPosition(1), 0.0}, bin[3] = {world[0], world[1], 0.0};
  if (const auto* space =
          dynamic_cast<const TDSpaceTransformation*>(project->FindData(graph->GetSpaceTransformationID())))
    space->RealToBin(bin, world);
  FCursorX.store(static_cast<int32_t>(std::lround(bin[0])));
  FCursorY.store(static_cast<int32_t>(std::lround(bin[1])));
}

void TVFilterForm::MarkAllFiltersChanged() {
  std::lock_guard lock(FListLock);
  for (auto& entry : FFilters) entry->Changed = true;
}

void TVFilterForm::MCCStaticThreadFunc(TMCC* mcc, int threadIndex) {
  const int threads = mcc->GetNumberOfThreads();
  TRun& run = *FRun; // one run, prepared by thread 0, read by all
  std::vector<float> spectrum, average;
  for (;;) {
    if (threadIndex == 0) {
      std::unique_lock lock(FWakeLock);
      FWakeCondition.wait(lock, [&] { return FWakeFlag || mcc->GetCancel(); });
      FWakeFlag = false;
    }
    if (mcc->IsCanceledSafeWait(threadIndex)) return;
    if (threadIndex == 0) PrepareRun(run);
    mcc->WaitForNextStep(threadIndex);
    CalculateRange(run, threadIndex, threads, spectrum, average);
    mcc->WaitForNextStep(threadIndex);
    if (threadIndex == 0) FinishRun(run, spectrum, average);
  }
}

void TVFilterForm::PrepareRun(TRun& run) {
  // The graph stays in the project while the team runs: its removal stops the team first.
  TDGraph* graph = FTeamGraph;
  run = TRun{};
  run.Generation = FRequested.load();
  if (!graph) return;
  run.SizeX = graph->GetSizeX();
  run.SizeY = graph->GetSizeY();
  run.Length = graph->GetSizeGraph();
  graph->DataExchange().Take(run.Exchange);
  run.LineValid.resize(static_cast<size_t>(run.SizeY));
  for (int32_t y = 0; y < run.SizeY; ++y)
    run.LineValid[static_cast<size_t>(y)] = graph->GetLineValid(y) ? 1 : 0;
  run.Spatial = FSpatial.load();
  run.CursorX = FCursorX.load();
  run.CursorY = FCursorY.load();
  if (run.SizeX * run.SizeY == 1) run.CursorX = run.CursorY = 0;
  const size_t n = static_cast<size_t>(run.SizeX) * static_cast<size_t>(run.SizeY);
  {
    std::lock_guard lock(FListLock);
    for (auto& entry : FFilters) {
      run.AllFilters.push_back(entry->Usable ? entry->Filter->CloneForCalculation() : nullptr);
      run.AllKeys.push_back(entry->Key);
      if (!entry->Changed && !run.Exchange.AnyPixelChanged) continue;
      TRunItem item;
      item.Key = entry->Key;
      item.Filter = entry->Filter->CloneForCalculation();
      item.Changed = entry->Changed;
      item.Usable = entry->Usable;
      item.Values = entry->Values;
      item.Values.resize(n, 0.0f);
      run.AnyFilterChanged = run.AnyFilterChanged || entry->Changed;
      entry->Changed = false;
      run.Items.push_back(std::move(item));
    }
  }
  if (run.Items.empty()) return;
  for (int32_t y = 0; y < run.SizeY; ++y) {
    if (!run.LineValid[static_cast<size_t>(y)]) continue;
    for (int32_t x = 0; x < run.SizeX; ++x)
      if (run.AnyFilterChanged || run.Exchange.HasXYChanged(x, y))
        run.Pixels.push_back(int64_t(y) * run.SizeX + x);
  }
  // One filter that reads only its range (every kind but the width): read only that part of a spectrum.
  if (run.Items.size() == 1 && run.Items.front().Usable &&
      run.Items.front().Filter->ThreadInfo().FilterKind != gfkWidth) {
    run.Items.front().Filter->GetPixelRangeNeededByFilter(run.First, run.Count);
    run.ReadPart = run.Count > 0 && run.Count < run.Length;
  }
}

void TVFilterForm::CalculateRange(TRun& run, int threadIndex, int threads, std::vector<float>& spectrum,
                                  std::vector<float>& /*average*/) {
  const TDGraph* graph = FTeamGraph;
  if (!graph || run.Pixels.empty()) return;
  spectrum.resize(static_cast<size_t>(run.Length));
  const int n = static_cast<int>(run.Pixels.size());
  const int first = TMCC::GetFirstElementIndex(threadIndex, threads, n);
  const int last = TMCC::GetLastElementIndex(threadIndex, threads, n);
  int64_t calculations = 0;
  for (int i = first; i <= last; ++i) {
    const int64_t pixel = run.Pixels[static_cast<size_t>(i)];
    const int32_t x = static_cast<int32_t>(pixel % run.SizeX), y = static_cast<int32_t>(pixel / run.SizeX);
    const bool pixelChanged = run.Exchange.HasXYChanged(x, y);
    if (run.ReadPart)
      graph->GetPartOfSpectrum(x, y, run.First, run.Count, spectrum.data());
    else
      graph->GetSpectrum(x, y, spectrum.data(), true);
    for (TRunItem& item : run.Items) {
      if (!item.Changed && !pixelChanged) continue;
      double value = 0;
      if (item.Usable)
        value = run.ReadPart ? item.Filter->CalculationOfPart(spectrum.data(), run.First, run.Count)
                             : item.Filter->Calculation(spectrum.data());
      item.Values[static_cast<size_t>(pixel)] = SafeDoubleToFloat(std::isfinite(value) ? value : 0.0);
      ++calculations;
    }
  }
  FCalculationCount.fetch_add(calculations);
}

void TVFilterForm::FinishRun(TRun& run, std::vector<float>& spectrum, std::vector<float>& average) {
  const TDGraph* graph = FTeamGraph;
  // The values at the cursor: the filters on the spectrum averaged over the valid pixels of the square.
  std::vector<double> cursorValues(run.AllFilters.size(), kNaN);
  if (graph && run.CursorX >= 0 && run.CursorY >= 0 && run.CursorX < run.SizeX && run.CursorY < run.SizeY) {
    spectrum.resize(static_cast<size_t>(run.Length));
    average.assign(static_cast<size_t>(run.Length), 0.0f);
    std::vector<double> sum(static_cast<size_t>(run.Length), 0.0);
    int count = 0;
    for (int32_t y = run.CursorY - run.Spatial; y <= run.CursorY + run.Spatial; ++y) {
      if (y < 0 || y >= run.SizeY || !run.LineValid[static_cast<size_t>(y)]) continue;
      for (int32_t x = run.CursorX - run.Spatial; x <= run.CursorX + run.Spatial; ++x) {
        if (x < 0 || x >= run.SizeX) continue;
        graph->GetSpectrum(x, y, spectrum.data(), true);
        for (size_t i = 0; i < sum.size(); ++i) sum[i] += spectrum[i];
        ++count;
      }
    }
    if (count > 0) {
      for (size_t i = 0; i < sum.size(); ++i) average[i] = static_cast<float>(sum[i] / count);
      for (size_t f = 0; f < run.AllFilters.size(); ++f)
        if (run.AllFilters[f]) cursorValues[f] = run.AllFilters[f]->Calculation(average.data());
    }
  }
  {
    std::lock_guard lock(FListLock);
    for (auto& entry : FFilters) {
      for (TRunItem& item : run.Items)
        if (item.Key == entry->Key) entry->Values = std::move(item.Values);
      for (size_t f = 0; f < run.AllKeys.size(); ++f)
        if (run.AllKeys[f] == entry->Key) entry->LastValue = cursorValues[f];
    }
    FResultLineValid = run.LineValid;
  }
  FCalculated.store(run.Generation);
  if (!FPosted.exchange(true)) {
    TMainThreadQueue::Instance().Post([this, alive = FAlive] {
      if (*alive) CalculationReadyMainThread();
    });
  }
}

void TVFilterForm::CalculationReadyMainThread() {
  FPosted.store(false);
  const uint64_t generation = FCalculated.load();
  TProject* project = GetProject();
  std::vector<TData*> changed;
  if (project) {
    std::lock_guard lock(FListLock);
    const TDGraph* graph = FindGraph();
    for (auto& entry : FFilters) {
      if (!entry->ResultID || !graph) continue;
      if (auto* image = dynamic_cast<TDImage*>(project->FindData(entry->ResultID))) {
        image->SetAutoDataChange(false);
        for (int32_t y = 0; y < image->GetSizeY() && y < graph->GetSizeY(); ++y) {
          image->SetLine(y, entry->Values.data() + static_cast<size_t>(y) * graph->GetSizeX());
          image->SetLineValid(y, y < static_cast<int32_t>(FResultLineValid.size()) &&
                                     FResultLineValid[static_cast<size_t>(y)]);
        }
        changed.push_back(image);
      } else if (auto* profile = dynamic_cast<TDGraph*>(project->FindData(entry->ResultID))) {
        profile->SetAutoDataChange(false);
        profile->SetSpectrum(0, 0, entry->Values.data());
        profile->SetLineValid(0, !FResultLineValid.empty() && FResultLineValid[0]);
        changed.push_back(profile);
      }
    }
  }
  for (TData* data : changed) {
    data->DoDataChange(TDataChangeInfo::DataChanged);
    data->SetAutoDataChange(true);
  }
  FFinished.store(generation);
  Redraw();
}

bool TVFilterForm::WaitUntilCalculated(int timeoutMs) {
  if (!IsLive()) return false;
  const uint64_t target = FRequested.load();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  TMainThreadQueue& queue = TMainThreadQueue::Instance();
  while (FFinished.load() < target) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    if (queue.IsMainThread())
      queue.WaitAndProcess(std::chrono::milliseconds(5));
    else
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (FMCC && FMCC->WaitForThreadsFinished(0)) {
      FMCC->WaitForThreads(0); // the team ended early: its error comes out here
      return false;
    }
  }
  return true;
}

// --- Extraction and quick filters ---------------------------------------------------------------------

TIntList TVFilterForm::ExtractFilters(bool all) {
  TProject* project = GetProject();
  TDGraph* graph = FindGraph();
  if (!project || !graph) throw OrvexException(std::string(kCaption) + ": " + kNoGraphData);
  std::vector<std::unique_ptr<TGraphFilter>> copies; // CopyCurrentFiltersToExtractionList
  {
    std::lock_guard lock(FListLock);
    for (auto& entry : FFilters)
      if (all || entry->Selected) copies.push_back(entry->Filter->CloneForCalculation());
  }
  if (copies.empty()) return {};
  std::vector<const TGraphFilter*> models;
  for (auto& copy : copies) models.push_back(copy.get());
  const std::string status = FStatus;
  FStatus = kExtracting;
  TGraphFilterResults results;
  bool done = false;
  try {
    done = ExtractGraphFilters(*project, *graph, models, kCaption, results);
  } catch (...) {
    FStatus = status;
    throw;
  }
  FStatus = status;
  TIntList ids;
  if (!done) return ids;
  for (auto& object : results.Objects) {
    if (!object) continue;
    ids.push_back(object->GetID());
    project->AddData(std::move(object));
  }
  return ids;
}

TIntList TVFilterForm::ExtractViewerObjects(std::string& reason) {
  if (!FindGraph()) {
    reason = std::string(kCaption) + ": " + kNoGraphData;
    return {};
  }
  if (GetFilterCount() == 0) {
    reason = "the filter viewer holds no filters";
    return {};
  }
  TIntList ids = ExtractFilters(true);
  if (ids.empty()) reason = "the extraction was cancelled";
  return ids;
}

std::string TVFilterForm::SaveQuickFilters(const std::string& fileName, bool selectedOnly) const {
  std::lock_guard lock(FListLock);
  std::vector<const TGraphFilter*> filters;
  for (auto& entry : FFilters)
    if (!selectedOnly || entry->Selected) filters.push_back(entry->Filter.get());
  return ::SaveQuickFilters(fileName, filters);
}

std::string TVFilterForm::LoadQuickFilters(const std::string& fileName) {
  std::vector<std::unique_ptr<TGraphFilter>> loaded;
  if (std::string problem = ::LoadQuickFilters(fileName, loaded); !problem.empty()) return problem;
  const bool live = IsLive();
  SetLive(false);
  TDGraph* graph = FindGraph();
  {
    std::lock_guard lock(FListLock);
    FFilters.clear();
    for (auto& filter : loaded) {
      auto entry = std::make_unique<TFilterEntry>();
      entry->Key = FNextKey++;
      entry->Filter = std::move(filter);
      entry->Filter->SetNewInputGraph(graph);
      entry->Usable =
          graph && entry->Filter->CopyParamsForThread() <= TGraphFilterRangeStatus::NarrowerThanStep;
      if (graph) entry->Values.assign(static_cast<size_t>(graph->GetNumberOfSpectra()), 0.0f);
      FFilters.push_back(std::move(entry));
    }
  }
  if (live) SetLive(true);
  Changed();
  return {};
}

// --- Control interface --------------------------------------------------------------------------------

void TVFilterForm::CFICreateParameters(TUserParameterAdministrator& cfi) {
  auto* spatial =
      cfi.Add<TUserIntParameter>(kSpatialAverageSize, "SpatialAverageSize", "Spatial Average Size:",
                                 "The values of the spectrum under the cursor are those of the average "
                                 "over the (2s+1)² spectra around it",
                                 2);
  spatial->SetLimits(0, 9);
  auto* show = cfi.Add<TUserBoolParameter>(kShowInputGraph, "ShowInputGraph", "Show Input Graph",
                                           "Shows the input graph beside the filters", true);
  show->TrueFalseStrings("On", "Off");
  cfi.Add<TUserStringParameter>(kQuickFilterFile, "QuickFilterFile", "Quick Filter File",
                                "Replaces the filters by those of a quick filter file (\"ORX_FILT\")", "");
  cfi.OnValidateParameters = [this](const TUserParameterAdministrator& administrator) {
    TUserParameterProblems problems;
    const TUserStringParameter* file = administrator.GetUserStringParameter(kQuickFilterFile);
    if (file && !file->GetParameter().empty())
      problems.push_back({file->GetAbsoluteName(),
                          FQuickFilterProblem.empty() ? kQuickFilterLoadFailed : FQuickFilterProblem});
    return problems;
  };
}

bool TVFilterForm::CFIParameterIsNewValueAllowed(const TUserParameterList& changed) {
  for (const TUserParameter* p : changed)
    if (p->GetId() == kQuickFilterFile) {
      const auto* file = dynamic_cast<const TUserStringParameter*>(p);
      if (!file || file->GetParameter().empty()) continue;
      std::vector<std::unique_ptr<TGraphFilter>> probe;
      if (!::LoadQuickFilters(file->GetParameter(), probe).empty()) return false;
    }
  return true;
}

void TVFilterForm::CFIParameterChanged(const TUserParameterList& changed) {
  for (const TUserParameter* p : changed) {
    if (p->GetId() == kQuickFilterFile) {
      // The file's filters replace the list; the name isn't kept, so that a load of the project doesn't
      // read the file again.
      // A file that can't be read keeps its name, so that the check below refuses the setting.
      auto* file = GetCFI()->GetUserStringParameter(kQuickFilterFile);
      if (file && !file->GetParameter().empty()) {
        FQuickFilterProblem = LoadQuickFilters(file->GetParameter());
        if (FQuickFilterProblem.empty()) file->SetParameterSilent("");
      }
    } else if (p->GetId() == kSpatialAverageSize) {
      FSpatial.store(GetSpatialAverageSize());
      Wake();
    }
  }
  Changed();
}

int32_t TVFilterForm::GetSpatialAverageSize() const {
  const TUserIntParameter* p = GetCFI()->GetUserIntParameter(kSpatialAverageSize);
  return p ? p->GetParameter() : 2;
}

bool TVFilterForm::GetShowInputGraph() const {
  const TUserBoolParameter* p = GetCFI()->GetUserBoolParameter(kShowInputGraph);
  return p && p->GetParameter();
}

// --- Persistence --------------------------------------------------------------------------------------

TTagError TVFilterForm::SaveViewerToTagFile(TFileHandle file) {
  TTagError result = TVCustomForm::SaveViewerToTagFile(file);
  if (result < 1) return result;
  std::lock_guard lock(FListLock);
  const int32_t count = static_cast<int32_t>(FFilters.size());
  std::vector<int32_t> resultIDs;
  for (auto& entry : FFilters) resultIDs.push_back(entry->ResultID);
  TTagControl group, settings, t;
  if ((result = group.WriteTag(file, kGroup, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveIntTag(file, "GraphID", FGraphID)) < 1 ||
      (result = t.SaveIntTag(file, "SpectralCursorID", FSpectralCursorID)) < 1 ||
      (result = t.SaveIntTag(file, "GraphImageID", FGraphImageID)) < 1 ||
      (result = t.SaveIntTag(file, "FilterIDList", resultIDs.data(), count)) < 1 ||
      (result = t.SaveIntTag(file, "NumberOfFilters", count)) < 1)
    return result;
  for (int32_t i = 0; i < count; ++i) {
    TTagControl filterTag;
    if ((result = filterTag.WriteTag(file, "Filter" + std::to_string(i), TTagKind::TagList)) < 1 ||
        (result = FFilters[static_cast<size_t>(i)]->Filter->SaveToTagFile(file)) < 1 ||
        (result = filterTag.CloseWriteTag(file)) < 1)
      return result;
  }
  if ((result = settings.WriteTag(file, kSettingsGroup, TTagKind::TagList)) < 1 ||
      (result = GetCFI()->SaveParameterValuesToFile(file)) < 1 || (result = settings.CloseWriteTag(file)) < 1)
    return result;
  return group.CloseWriteTag(file);
}

TTagError TVFilterForm::LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TVCustomForm::LoadViewerFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl group, settings, t;
  if ((result = group.FindTag(file, kGroup, parent)) != teNoError) return result;
  if ((result = t.LoadIntTag(file, "GraphID", group, &FGraphID, 1)) != teNoError) return result;
  t.LoadOrDefaultIntTag(file, "SpectralCursorID", group, &FSpectralCursorID, 1, 0);
  t.LoadOrDefaultIntTag(file, "GraphImageID", group, &FGraphImageID, 1, 0);
  int32_t count = 0;
  t.LoadOrDefaultIntTag(file, "NumberOfFilters", group, &count, 1, 0);
  if (count < 0 || count > 100000) return teUnspecificError;
  std::vector<std::unique_ptr<TFilterEntry>> filters;
  for (int32_t i = 0; i < count; ++i) {
    TTagControl filterTag;
    if ((result = filterTag.FindTag(file, "Filter" + std::to_string(i), group)) != teNoError) return result;
    auto entry = std::make_unique<TFilterEntry>();
    entry->Key = FNextKey++;
    entry->Filter = std::make_unique<TGraphFilter>();
    if ((result = entry->Filter->LoadFromTagFile(file, filterTag)) != teNoError) return result;
    filters.push_back(std::move(entry));
  }
  {
    std::lock_guard lock(FListLock);
    FFilters = std::move(filters);
  }
  if (settings.FindTag(file, kSettingsGroup, group) == teNoError)
    GetCFI()->LoadParameterValuesFromFile(file, &settings);
  FSpatial.store(GetSpatialAverageSize());
  return teNoError;
}

// --- Project bookkeeping ------------------------------------------------------------------------------

void TVFilterForm::DoDataUpdate() {
  // After a load or a renumbering: the filters meet their input again.
  if (FGraphID && FindGraph()) {
    const bool live = IsLive();
    DeleteAndWaitForStaticThread();
    TDGraph* graph = FindGraph();
    {
      std::lock_guard lock(FListLock);
      for (auto& entry : FFilters) {
        if (entry->Filter->GetInputGraphID() != FGraphID || entry->Filter->GetProject() != GetProject())
          entry->Filter->SetNewInputGraph(graph);
        entry->Usable = entry->Filter->CopyParamsForThread() <= TGraphFilterRangeStatus::NarrowerThanStep;
        entry->Values.resize(static_cast<size_t>(graph->GetNumberOfSpectra()), 0.0f);
        entry->Changed = true;
      }
    }
    if (!FSpectralCursorID) FSpectralCursorID = FindSpectralCursorID();
    if (!FSpaceCursorID && GetProject())
      FSpaceCursorID = GetProject()->MakeOrGetFirstIDByClassName(TDSpaceCursor::kClassName);
    FStatus = FSpectralCursorID ? kReady : kNoCursorData;
    if (live) SetLive(true);
  }
  UpdateCaption();
  Redraw();
}

bool TVFilterForm::IsDataUsed(int32_t id) const {
  if (id == 0) return false;
  if (id == FGraphID || id == FSpectralCursorID || id == FGraphImageID) return true;
  std::lock_guard lock(FListLock);
  for (auto& entry : FFilters)
    if (entry->ResultID == id) return true;
  return false;
}

void TVFilterForm::AddToID(int32_t delta) {
  TData::SafeAddToDataID(FGraphID, delta);
  TData::SafeAddToDataID(FSpectralCursorID, delta);
  TData::SafeAddToDataID(FGraphImageID, delta);
  TData::SafeAddToDataID(FSpaceCursorID, delta);
  std::lock_guard lock(FListLock);
  for (auto& entry : FFilters) TData::SafeAddToDataID(entry->ResultID, delta);
}

bool TVFilterForm::AddDataID(int32_t id) {
  TProject* project = GetProject();
  if (!project || project->GetClassNameByID(id) != TDGraph::kClassName) return false;
  return InitializeWithNewInputGraph(id);
}

void TVFilterForm::ExchangeID(int32_t oldID, int32_t newID) {
  if (oldID == 0) return;
  if (FGraphID == oldID) {
    InitializeWithNewInputGraph(newID);
    return;
  }
  if (FSpectralCursorID == oldID) FSpectralCursorID = newID;
  if (FGraphImageID == oldID) FGraphImageID = newID;
  if (FSpaceCursorID == oldID) FSpaceCursorID = newID;
}

void TVFilterForm::DataChanged(TData* data, TDataChangeInfo info) {
  if (!data || data->GetID() == 0) return;
  const int32_t id = data->GetID();
  const bool gone = info == TDataChangeInfo::Removed || info == TDataChangeInfo::AboutToBeDeleted;
  if (id == FGraphID) {
    if (gone) {
      // The input goes: the team stops before the graph is freed, and the filters lose their input.
      DeleteAndWaitForStaticThread();
      DeleteResultObjects();
      FGraphID = 0;
      std::lock_guard lock(FListLock);
      for (auto& entry : FFilters) {
        entry->Filter->SetNewInputGraph(nullptr);
        entry->Usable = false;
        entry->Values.clear();
      }
      FStatus = kNoGraphData;
      UpdateCaption();
      Redraw();
    } else if (info == TDataChangeInfo::DataChanged) {
      Wake(); // the graph marked its pixels itself
    } else if (info == TDataChangeInfo::CaptionChanged) {
      UpdateCaption();
    }
    return;
  }
  if (id == FSpectralCursorID) {
    if (gone) {
      FSpectralCursorID = 0;
      FStatus = kNoCursorData;
      return;
    }
    const auto* cursor = dynamic_cast<const TDCursor*>(data);
    TProject* project = GetProject();
    const TDGraph* graph = FindGraph();
    if (!cursor || !project || !graph || info != TDataChangeInfo::DataChanged) return;
    auto* interpretation = dynamic_cast<TDInterpretation*>(project->FindData(graph->GetXInterpretationID()));
    bool any = false;
    {
      std::lock_guard lock(FListLock);
      for (auto& entry : FFilters) {
        if (!entry->Listen) continue;
        TGraphFilterInfo& filterInfo = entry->Filter->Info();
        const double position = interpretation
                                    ? interpretation->StandardTo(cursor->GetPosition(0), filterInfo.UnitIndex)
                                    : cursor->GetPosition(0);
        if (position == filterInfo.FilterPosition) continue;
        filterInfo.FilterPosition = position;
        entry->Usable = entry->Filter->CopyParamsForThread() <= TGraphFilterRangeStatus::NarrowerThanStep;
        entry->Changed = true;
        any = true;
      }
    }
    if (any) Wake();
    return;
  }
  if (id == FSpaceCursorID) {
    if (gone) FSpaceCursorID = 0;
    UpdateCursorPixel();
    Wake(); // new values at the cursor
    return;
  }
  if (gone) {
    std::lock_guard lock(FListLock);
    for (auto& entry : FFilters)
      if (entry->ResultID == id) entry->ResultID = 0;
  }
}

void TVFilterForm::BeforeClearProject() {
  DeleteAndWaitForStaticThread();
  FGraphID = 0;
  FSpectralCursorID = FGraphImageID = FSpaceCursorID = 0;
  std::lock_guard lock(FListLock);
  for (auto& entry : FFilters) entry->ResultID = 0;
}
