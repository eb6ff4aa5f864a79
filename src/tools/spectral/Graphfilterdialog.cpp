#include "tools/spectral/Graphfilterdialog.h"

#include "common/OrvexException.h"
#include "common/numerics/Numerics.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "project/Project.h"
#include "project/Toolregistry.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace {

// The page choice; the numbers are those of TGraphFilterMode.
const std::vector<TParameterChoice> kPages = {
    {"CRR", 0}, {"Savitzky-Golay", 1}, {"Wavelet Noise", 2}, {"Average", 3}, {"Median", 4}};

std::string NumberText(double value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

std::string GraphName(const TDGraph& graph) {
  return "graph \"" + graph.GetCaption() + "\" (ID " + std::to_string(graph.GetID()) + ")";
}

// Reads line y of input (every spectrum, stored values) into buffer; values that aren't finite on a
// valid line are reported through problem and make the read stop the run.
bool ReadLine(const TDGraph& input, int y, float* buffer, std::string& problem) {
  const int32_t length = input.GetSizeGraph();
  const bool valid = input.GetLineValid(y);
  for (int32_t x = 0; x < input.GetSizeX(); ++x) {
    float* spectrum = buffer + static_cast<size_t>(x) * length;
    input.GetSpectrum(x, y, spectrum, true);
    if (!valid || !problem.empty() || AllFinite(spectrum, length)) continue;
    for (int32_t g = 0; g < length; ++g) {
      if (std::isfinite(spectrum[g])) continue;
      problem = GraphName(input) + ": the value at pixel (" + std::to_string(x) + ", " + std::to_string(y) +
                "), point " + std::to_string(g) + " is not a finite number";
      break;
    }
  }
  return valid;
}

} // namespace

TParameterTable& TGraphFilterDialogForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddList("Mode", "Filter", 0, kPages);
    // "CRR"
    t.AddInt("CRRFilterSize", "Filter Size:", 2).SetLimits(1, 4);
    t.AddFloat("CRRDynamicFactor", "Dynamic Factor:", 8.0).SetLimits(1, 100).SetStep(0.1);
    t.AddList("CRRInterpolation", "Interpolation:", 0,
              {{"Neighbor Pixels (Linear)", 0}, {"Neighbor Spectra (Median)", 1}});
    // "SG"
    t.AddInt("SGLeft", "Left:", 5).SetLimits(0, 32);
    t.AddInt("SGRight", "Right:", 5).SetLimits(0, 32);
    t.AddInt("SGOrder", "Order:", 4).SetLimits(2, 9);
    t.AddInt("SGDerivative", "Derivative:", 0).SetLowerLimit(0);
    // "WaveletNoise"
    t.AddFloat("WaveletNoiseFactor", "Noise Factor:", 0.5).SetLimits(0, 100000).SetStep(0.1);
    // "Average"
    t.AddInt("AverageSpectral", "Average Filter Size (spectral):", 1)
        .SetLimits(0, 9)
        .SetDescription("Using Binomial Distribution for Filter Coefficients");
    t.AddInt("AverageSpatial", "Average Filter Size (spatial):", 0).SetLimits(0, 9);
    // "Median"
    t.AddInt("MedianSpectral", "Median Filter Size (spectral):", 1).SetLimits(0, 9);
    t.AddInt("MedianSpatial", "Median Filter Size (spatial):", 0).SetLimits(0, 9);
    t.AddTrigger(kCalculatePreview, "Calculate Preview");
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAll, "Extract All");
    // The Savitzky-Golay polynomial must be determined by its window, and the derivative must exist.
    t.SetCrossCheck([](const TUserParameterAdministrator& parameters) {
      TUserParameterProblems problems;
      auto value = [&](const char* name) {
        const auto* p = dynamic_cast<const TUserIntParameter*>(parameters.GetUserParameterByName(name));
        return p ? p->GetParameter() : 0;
      };
      const int left = value("SGLeft"), right = value("SGRight"), order = value("SGOrder");
      if (left + right + 1 <= order)
        problems.push_back({"SGOrder", "the order " + std::to_string(order) +
                                           " needs a window longer than SGLeft + SGRight + 1 = " +
                                           std::to_string(left + right + 1)});
      if (value("SGDerivative") > order)
        problems.push_back({"SGDerivative", "the derivative " + std::to_string(value("SGDerivative")) +
                                                " exceeds the order " + std::to_string(order)});
      return problems;
    });
    return t;
  }();
  return table;
}

TGraphFilterDialogForm::TGraphFilterDialogForm()
    : TProjectGraphProcessingDialogForm("Graph Filter", Declaration()) {
  MinNumberOfGraphs = 1;
}

TGraphFilterDialogForm::~TGraphFilterDialogForm() = default;

TGraphFilterSettings TGraphFilterDialogForm::GetSettings() const {
  TGraphFilterSettings s;
  s.Mode = static_cast<TGraphFilterMode>(GetIntParameter("Mode"));
  s.Spikes.FilterSize = GetIntParameter("CRRFilterSize");
  s.Spikes.DynamicFactor = GetFloatParameter("CRRDynamicFactor");
  s.Spikes.Interpolation = GetIntParameter("CRRInterpolation") == 1
                               ? TSpikeInterpolation::NeighborSpectraMedian
                               : TSpikeInterpolation::NeighborPixelsLinear;
  s.GolayLeft = GetIntParameter("SGLeft");
  s.GolayRight = GetIntParameter("SGRight");
  s.GolayOrder = GetIntParameter("SGOrder");
  s.GolayDerivative = GetIntParameter("SGDerivative");
  s.WaveletNoiseFactor = GetFloatParameter("WaveletNoiseFactor");
  s.AverageSpectral = GetIntParameter("AverageSpectral");
  s.AverageSpatial = GetIntParameter("AverageSpatial");
  s.MedianSpectral = GetIntParameter("MedianSpectral");
  s.MedianSpatial = GetIntParameter("MedianSpatial");
  return s;
}

std::string TGraphFilterDialogForm::CaptionSuffix(const TGraphFilterSettings& s) {
  switch (s.Mode) {
  case TGraphFilterMode::SpikeRemoval:
    return " (CRR)";
  case TGraphFilterMode::SavitzkyGolay:
    return " (SG " + std::to_string(s.GolayLeft) + "," + std::to_string(s.GolayRight) + "," +
           std::to_string(s.GolayOrder) + "," + std::to_string(s.GolayDerivative) + ")";
  case TGraphFilterMode::WaveletNoise:
    return " (Wavelet Noise " + NumberText(s.WaveletNoiseFactor) + ")";
  case TGraphFilterMode::Average:
    return " (Average " + std::to_string(s.AverageSpectral) + "," + std::to_string(s.AverageSpatial) + ")";
  case TGraphFilterMode::Median:
    return " (Median " + std::to_string(s.MedianSpectral) + "," + std::to_string(s.MedianSpatial) + ")";
  }
  return " (Graph Filter)";
}

bool TGraphFilterDialogForm::WindowFitsSpectrum(const TGraphFilterSettings& s, int32_t length) {
  if (s.Mode != TGraphFilterMode::SavitzkyGolay) return true;
  return s.GolayLeft + s.GolayRight + 1 < length;
}

bool TGraphFilterDialogForm::IsExtractPossible() {
  // Headless runs (and a tool not yet open) go on to the calculation, which names the graph it refuses.
  if (!Interactive || !GetIsActive() || GetCurrentID() == 0) return true;
  const auto* graph = dynamic_cast<const TDGraph*>(GetProject()->FindData(GetCurrentID()));
  return !graph || WindowFitsSpectrum(GetSettings(), graph->GetSizeGraph());
}

bool TGraphFilterDialogForm::IsExtractAllPossible() {
  if (!Interactive || !GetIsActive()) return true;
  const TGraphFilterSettings settings = GetSettings();
  for (int32_t id : GetInputIDs()) {
    const auto* graph = dynamic_cast<const TDGraph*>(GetProject()->FindData(id));
    if (graph && !WindowFitsSpectrum(settings, graph->GetSizeGraph())) return false;
  }
  return true;
}

void TGraphFilterDialogForm::DoParameterChanged(const TUserParameterList& /*changed*/) {
  if (!GetIsActive() || ConfigurationOnly) return;
  EnableDisableCalculations(true, true, nullptr);
  if (Interactive && IsExtractPossible()) UpdatePreview();
}

void TGraphFilterDialogForm::NoteProblem(const std::string& problem) {
  std::lock_guard<std::mutex> lock(FProblemLock);
  if (FProblem.empty()) FProblem = problem;
}

bool TGraphFilterDialogForm::PreCalculate(TGraphList& inputs, TGraphList& results) {
  FSettings = GetSettings();
  FProblem.clear();
  FLineDone.assign(inputs.size(), {});
  TProject& project = *GetProject();
  for (TDGraph* input : inputs) {
    if (!WindowFitsSpectrum(FSettings, input->GetSizeGraph()))
      throw OrvexException(GraphName(*input) + ": the Savitzky-Golay window SGLeft + SGRight + 1 = " +
                           std::to_string(FSettings.GolayLeft + FSettings.GolayRight + 1) +
                           " is not shorter than its " + std::to_string(input->GetSizeGraph()) + " points");
    // The filters refuse their settings (or a spectrum too short for the wavelet) here, before any thread.
    TGraphFilterLines check(FSettings, std::max(1, input->GetSizeX()), std::max(1, input->GetSizeY()),
                            std::max(1, input->GetSizeGraph()));
  }
  if (GetIsPreview()) {
    auto* preview = dynamic_cast<TDGraph*>(project.FindData(GetPreviewGraphID()));
    if (!preview || inputs.empty()) return false;
    results.push_back(preview);
    return true;
  }
  for (size_t i = 0; i < inputs.size(); ++i) {
    TResultInfo info;
    info.CaptionSuffix = CaptionSuffix(FSettings);
    TDGraph* result = OwnResult(
        TDGraph::CreateResultGraph(project, inputs[i]->GetID(), false, TDataFieldKind::Float, info));
    if (!result) return false;
    for (int32_t y = 0; y < result->GetSizeY(); ++y) result->SetLineValid(y, false);
    FLineDone[i].assign(static_cast<size_t>(inputs[i]->GetSizeY()), 0);
    results.push_back(result);
  }
  return true;
}

void TGraphFilterDialogForm::CalculatePreviewSpectrum(TDGraph& input, TDGraph& preview) {
  const int32_t x = GetPositionX(), y = GetPositionY();
  if (x >= input.GetSizeX() || y >= input.GetSizeY() || !input.GetLineValid(y)) {
    preview.SetLineValid(0, false);
    return;
  }
  const int32_t length = input.GetSizeGraph();
  TGraphFilterLines lines(FSettings, input.GetSizeX(), input.GetSizeY(), length);
  std::string problem;
  lines.FilterLines(
      y, y, [&](int line, float* buffer) { return ReadLine(input, line, buffer, problem); },
      [&](int /*line*/, const float* result) {
        preview.SetSpectrum(0, 0, result + static_cast<size_t>(x) * length);
        return true;
      });
  preview.SetLineValid(0, problem.empty());
}

void TGraphFilterDialogForm::CalculateThread(TMCC* mcc, int threadIndex, TGraphList& inputs,
                                             TGraphList& results) {
  const int threads = mcc->GetNumberOfThreads();
  for (size_t i = 0; i < inputs.size() && i < results.size(); ++i) {
    TDGraph& input = *inputs[i];
    TDGraph& result = *results[i];
    if (GetIsPreview()) {
      // One spectrum: one thread does the work, the others return at once.
      if (threadIndex == 0) CalculatePreviewSpectrum(input, result);
      continue;
    }
    const int sizeY = input.GetSizeY();
    const int first = TMCC::GetFirstElementIndex(threadIndex, threads, sizeY);
    const int last = TMCC::GetLastElementIndex(threadIndex, threads, sizeY);
    if (first > last) continue;
    const int32_t length = input.GetSizeGraph();
    mcc->ThreadProgressMax[static_cast<size_t>(threadIndex)].store(last - first + 1);
    TGraphFilterLines lines(FSettings, input.GetSizeX(), sizeY, length);
    std::string problem;
    const bool complete = lines.FilterLines(
        first, last, [&](int y, float* buffer) { return ReadLine(input, y, buffer, problem); },
        [&](int y, const float* values) {
          if (!problem.empty() || mcc->GetCancel()) return false;
          for (int32_t x = 0; x < input.GetSizeX(); ++x)
            result.SetSpectrum(x, y, values + static_cast<size_t>(x) * length);
          FLineDone[i][static_cast<size_t>(y)] = 1;
          mcc->ThreadProgress[static_cast<size_t>(threadIndex)].store(y - first + 1);
          return true;
        });
    if (!problem.empty()) {
      NoteProblem(problem);
      mcc->CancelThreads();
    }
    if (!complete) return;
    if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
  }
}

void TGraphFilterDialogForm::PostCalculate(TGraphList& inputs, TGraphList& results) {
  if (!FProblem.empty()) {
    // Nothing of a refused run is kept.
    const std::string problem = FProblem;
    FProblem.clear();
    throw OrvexException(GetDialogName() + ": " + problem);
  }
  if (!GetIsPreview()) {
    // A line is valid when all of its spectra were filtered and the input line was valid.
    for (size_t i = 0; i < inputs.size() && i < results.size(); ++i)
      for (int32_t y = 0; y < results[i]->GetSizeY(); ++y)
        results[i]->SetLineValid(y, FLineDone[i][static_cast<size_t>(y)] != 0 && inputs[i]->GetLineValid(y));
  }
  HandOverResults(results);
}

void RegisterGraphFilterDialog(TToolRegistry& registry) {
  registry.Register(TGraphFilterDialogForm::kClassName, "Graph Filter", "spectral",
                    [] { return std::make_unique<TGraphFilterDialogForm>(); });
}
