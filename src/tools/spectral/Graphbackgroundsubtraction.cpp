#include "tools/spectral/Graphbackgroundsubtraction.h"

#include "common/OrvexException.h"
#include "common/Standardmessage.h"
#include "common/numerics/Numerics.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "project/Graphmask.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "project/Viewerbase.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr const char* kFitMask = "Fit Mask";
constexpr const char* kChangeMask = "Change Mask";

std::string GraphName(const TDGraph& graph) {
  return "\"" + graph.GetCaption() + "\" (ID " + std::to_string(graph.GetID()) + ")";
}

bool UsesPolynomial(TGraphBackgroundSubtractionKind kind) {
  return kind == TGraphBackgroundSubtractionKind::Polynomial ||
         kind == TGraphBackgroundSubtractionKind::AutoPolynomial;
}

} // namespace

TParameterTable& TGraphBackgroundSubtractionForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddList("Method", "Method", 2,
              {{"Constant", 0},
               {"Minimum", 1},
               {"Polynomial", 2},
               {"Auto Polynomial", 3},
               {"Shape", 4},
               {"Average", 5},
               {"Auto Average", 6}})
        .SetDescription("How the background of each spectrum is estimated");
    t.AddFloat("Constant Value", "Constant Value:", 0.0).SetDescription("Constant: added to the reference");
    t.AddInt(kReferenceSpectrum, "Reference Spectrum", 0)
        .SetLimits(0, std::numeric_limits<int32_t>::max())
        .SetDescription(
            "Constant: ID of a one-spectrum graph of the inputs' length subtracted as well; 0 none");
    t.AddFloat("Offset", "Offset:", 0.0).SetDescription("Minimum: added to the smallest fit-mask value");
    t.AddInt("Order", "Order:", 3).SetLimits(0, TPolynomialBackgroundFit::kMaximumOrder);
    t.AddFloat("Noise Threshold", "Noise Threshold:", 2.0)
        .SetLimits(0, 1e36)
        .SetDescription(
            "Automatic methods: points above the fit by more than this many noise widths are cut");
    t.AddInt("Number of Iterations", "Number of Iterations:", 100)
        .SetLimits(1, 10000)
        .SetDescription("Auto Average: rounds of averaging");
    t.AddFloat("Tolerance", "Tolerance:", 1e-8)
        .SetLimits(0, 1)
        .SetDescription("Auto Polynomial: stop when the change between rounds falls by less than this");
    t.AddInt("Shape Size", "Shape Size:", 100).SetLimits(10, 1000).SetStep(10);
    t.AddFloat("Noise Factor", "Noise Factor:", 1.0).SetLimits(0, 100);
    t.AddBool("Keep Border Peaks", "Keep border peaks", true);
    t.AddInt("Size [Pixel]", "Size [Pixel]:", 5).SetLimits(1, 20);
    t.AddFloat("Size AutoAvg", "Size AutoAvg:", 10.0)
        .SetLimits(1, 1000)
        .SetDescription("Auto Average: half width of the box in points");
    t.AddString(kFitMask, "Fit Mask:", "all")
        .SetSpectralMask()
        .SetDescription(
            "The points the background is fitted to: all, none, lo:hi in the axis unit, lo:hi px, "
            "graph:ID");
    t.AddString(kChangeMask, "Change Mask:", "all")
        .SetSpectralMask()
        .SetDescription("The points the result keeps (the others become 0), in the same form");
    t.AddTrigger(kCalculatePreview, "Calculate Preview");
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAll, "Extract All");
    t.AddTrigger(kExtractBackground, "Extract Background");
    return t;
  }();
  return table;
}

TGraphBackgroundSubtractionForm::TGraphBackgroundSubtractionForm()
    : TProjectGraphProcessingDialogForm("Graph Background Subtraction", Declaration()) {
  MinNumberOfGraphs = 1;
}

TGraphBackgroundSubtractionForm::~TGraphBackgroundSubtractionForm() = default;

void TGraphBackgroundSubtractionForm::Init(const TIntList* ids, const TIntList* extra, TProject* project) {
  TProjectGraphProcessingDialogForm::Init(ids, extra, project);
  if (TData* preview = GetIsActive() ? GetProject()->FindData(GetPreviewGraphID()) : nullptr)
    preview->SetCaption("Background Preview");
  // Spectrum and background are read against one another: one y axis for both, so that a background that
  // runs away outside its fit mask is seen to do so instead of being scaled onto the spectrum.
  if (TVCustomForm* viewer = GetPreviewViewer(); viewer && viewer->GetCFI())
    viewer->GetCFI()->SetParameterValuesFromText({"OnlyOneYAxis=True"});
}

bool TGraphBackgroundSubtractionForm::DoCommand(const std::string& name) {
  if (name != kExtractBackground) return TProjectGraphProcessingDialogForm::DoCommand(name);
  FWriteBackground = true;
  try {
    const bool done = TProjectGraphProcessingDialogForm::DoCommand(kExtract);
    FWriteBackground = false;
    return done;
  } catch (...) {
    FWriteBackground = false;
    throw;
  }
}

void TGraphBackgroundSubtractionForm::DoParameterChanged(const TUserParameterList& changed) {
  if (!GetIsActive() || !Interactive || ConfigurationOnly) return;
  // Choosing the automatic polynomial for a spectrum too short for it: the user hears why the preview
  // stays empty.
  if (!changed.empty() && changed.front()->GetName() == "Method" &&
      GetIntParameter("Method") == static_cast<int32_t>(TGraphBackgroundSubtractionKind::AutoPolynomial))
    if (const auto* input = dynamic_cast<const TDGraph*>(GetProject()->FindData(GetCurrentID()));
        input && input->GetSizeGraph() < kAutoPolynomialMinimumPoints)
      NotifyUser(kAutoPolynomialTooSmallMessage, GetDialogName(), kSeverityWarning, false);
  UpdatePreview();
}

bool AverageSpectrumOverPixels(const TDGraph& graph, const std::vector<bool>& pixels,
                               std::vector<float>& average, int64_t& count) {
  average.clear();
  count = 0;
  const int32_t sizeX = graph.GetSizeX(), sizeY = graph.GetSizeY(), n = graph.GetSizeGraph();
  if (n < 1 || pixels.size() != static_cast<size_t>(sizeX) * static_cast<size_t>(sizeY)) return false;
  std::vector<double> sum(static_cast<size_t>(n), 0.0);
  std::vector<float> spectrum(static_cast<size_t>(n));
  for (int32_t y = 0; y < sizeY; ++y) {
    if (!graph.GetLineValid(y)) continue;
    for (int32_t x = 0; x < sizeX; ++x) {
      if (!pixels[static_cast<size_t>(y) * sizeX + x]) continue;
      graph.GetSpectrum(x, y, spectrum.data());
      for (int32_t i = 0; i < n; ++i) sum[static_cast<size_t>(i)] += spectrum[static_cast<size_t>(i)];
      ++count;
    }
  }
  if (count == 0) return false;
  average.resize(static_cast<size_t>(n));
  for (int32_t i = 0; i < n; ++i)
    average[static_cast<size_t>(i)] = static_cast<float>(sum[static_cast<size_t>(i)] / count);
  return true;
}

bool TGraphBackgroundSubtractionForm::HasReferenceSpectrum() const {
  return GetIntParameter(kReferenceSpectrum) != 0;
}

bool TGraphBackgroundSubtractionForm::SetReferenceSpectrum(int32_t id, std::string& reason) {
  const auto* graph = GetProject() ? dynamic_cast<const TDGraph*>(GetProject()->FindData(id)) : nullptr;
  if (!graph) {
    reason = "Reference Spectrum: no graph has the ID " + std::to_string(id);
    return false;
  }
  if (graph->GetNumberOfSpectra() != 1) {
    reason = "Reference Spectrum: " + GraphName(*graph) + " holds " +
             std::to_string(graph->GetNumberOfSpectra()) + " spectra, not one";
    return false;
  }
  Parameters().SetParameterValuesFromText({std::string(kReferenceSpectrum) + "=" + std::to_string(id)});
  if (GetIntParameter(kReferenceSpectrum) != id) {
    reason = "Reference Spectrum: " + std::to_string(id) + " was not taken";
    return false;
  }
  return true;
}

void TGraphBackgroundSubtractionForm::ClearReferenceSpectrum() {
  Parameters().SetParameterValuesFromText({std::string(kReferenceSpectrum) + "=0"});
}

int32_t TGraphBackgroundSubtractionForm::GetMaskAverage(const std::vector<bool>& pixels,
                                                        std::string& message) {
  const auto* input =
      GetProject() ? dynamic_cast<const TDGraph*>(GetProject()->FindData(GetCurrentID())) : nullptr;
  if (!input) {
    message = GetDialogName() + ": no input graph";
    return 0;
  }
  std::vector<float> average;
  int64_t count = 0;
  if (!AverageSpectrumOverPixels(*input, pixels, average, count)) {
    message = kMaskEmptyMessage;
    return 0;
  }
  std::unique_ptr<TDGraph> graph =
      TDGraph::CreateNewGraph(GetProject(), input->GetID(), true, TDataFieldKind::Float,
                              TDataSaveMode::Always, "Mask Average (" + input->GetCaption() + ")");
  if (!graph) {
    message = GetDialogName() + ": no graph for the mask average of " + GraphName(*input);
    return 0;
  }
  graph->SetFieldSize(1, 1, TDataFieldKind::Float, input->GetSizeGraph());
  graph->SetSpectrum(0, 0, average.data());
  graph->SetAllLinesValid();
  const int32_t id = graph->GetID();
  GetProject()->AddData(std::move(graph));
  std::string reason;
  if (!SetReferenceSpectrum(id, reason)) {
    message = reason;
    return 0;
  }
  return id;
}

int32_t TGraphBackgroundSubtractionForm::MakeIntensityImage() {
  const auto* input =
      GetProject() ? dynamic_cast<const TDGraph*>(GetProject()->FindData(GetCurrentID())) : nullptr;
  if (!input) return 0;
  std::unique_ptr<TDImage> image =
      TDImage::CreateNewImage(GetProject(), input->GetID(), TDataFieldKind::Float, TDataSaveMode::Never,
                              "Intensity (" + input->GetCaption() + ")");
  if (!image) return 0;
  const int32_t sizeX = input->GetSizeX(), sizeY = input->GetSizeY(), n = input->GetSizeGraph();
  image->SetFieldSize(sizeX, sizeY, TDataFieldKind::Float);
  std::vector<float> spectrum(static_cast<size_t>(std::max(n, 0)));
  for (int32_t y = 0; y < sizeY; ++y) {
    const bool valid = input->GetLineValid(y);
    for (int32_t x = 0; x < sizeX; ++x) {
      double sum = 0;
      if (valid) {
        input->GetSpectrum(x, y, spectrum.data());
        for (float v : spectrum)
          if (std::isfinite(v)) sum += v;
      }
      image->SetField(x, y, static_cast<float>(sum));
    }
    image->SetLineValid(y, valid);
  }
  const int32_t id = image->GetID();
  AddDataToProject(std::move(image));
  return id;
}

bool TGraphBackgroundSubtractionForm::ReadReference(int length, std::vector<float>& reference,
                                                    std::string& error) const {
  reference.clear();
  const int32_t id = GetIntParameter(kReferenceSpectrum);
  if (id == 0) return true;
  const auto* graph = dynamic_cast<const TDGraph*>(GetProject()->FindData(id));
  if (!graph) {
    error = "Reference Spectrum: no graph has the ID " + std::to_string(id);
    return false;
  }
  if (graph->GetNumberOfSpectra() != 1 || graph->GetSizeGraph() != length) {
    error = "Reference Spectrum: " + GraphName(*graph) + " must be one spectrum of " +
            std::to_string(length) + " points, it has " + std::to_string(graph->GetNumberOfSpectra()) +
            " of " + std::to_string(graph->GetSizeGraph());
    return false;
  }
  reference.resize(static_cast<size_t>(length));
  graph->GetSpectrum(0, 0, reference.data(), true);
  return true;
}

bool TGraphBackgroundSubtractionForm::PrepareJob(const TDGraph& input, TJob& job, std::string& error) const {
  job.Length = input.GetSizeGraph();
  const size_t n = static_cast<size_t>(job.Length);
  std::vector<bool> fit, change;
  std::string problem;
  if (!ReadGraphMaskForGraph(*GetProject(), input.GetID(), GetStringParameter(kFitMask), "", fit, problem)) {
    error = std::string(kFitMask) + ": " + problem;
    return false;
  }
  if (!ReadGraphMaskForGraph(*GetProject(), input.GetID(), GetStringParameter(kChangeMask), "", change,
                             problem)) {
    error = std::string(kChangeMask) + ": " + problem;
    return false;
  }
  job.FitMask.reset(new bool[n]);
  job.ChangeMask.reset(new bool[n]);
  for (size_t i = 0; i < n; ++i) {
    job.FitMask[i] = fit[i];
    job.ChangeMask[i] = change[i];
  }
  if (FKind == TGraphBackgroundSubtractionKind::AutoPolynomial && job.Length < kMinimumAutoBackgroundLength) {
    error = GraphName(input) + " has " + std::to_string(job.Length) +
            " points; Auto Polynomial needs at least " + std::to_string(kMinimumAutoBackgroundLength);
    return false;
  }
  if ((FKind == TGraphBackgroundSubtractionKind::Shape ||
       FKind == TGraphBackgroundSubtractionKind::AutoAverage) &&
      job.Length < kMinimumAutoBackgroundLength) {
    error = GraphName(input) + " has " + std::to_string(job.Length) + " points; the method needs at least " +
            std::to_string(kMinimumAutoBackgroundLength);
    return false;
  }
  if (UsesPolynomial(FKind)) {
    const int order = GetIntParameter("Order");
    if (!job.Polynomial.Prepare(job.Length, job.FitMask.get(), order)) {
      const int count = static_cast<int>(std::count(fit.begin(), fit.end(), true));
      error = std::string(kFitMask) + " \"" + GetStringParameter(kFitMask) + "\" selects " +
              std::to_string(count) + " points of " + GraphName(input) + "; Order " + std::to_string(order) +
              " needs at least " + std::to_string(order + 1);
      return false;
    }
  }
  job.Done.assign(static_cast<size_t>(input.GetNumberOfSpectra()), 0);
  return true;
}

bool TGraphBackgroundSubtractionForm::PreCalculate(TGraphList& inputs, TGraphList& results) {
  FKind = static_cast<TGraphBackgroundSubtractionKind>(GetIntParameter("Method"));
  FConstant = GetFloatParameter("Constant Value");
  FOffset = GetFloatParameter("Offset");
  FAutoPolynomial = TAutoPolynomialSettings();
  FAutoPolynomial.NoiseThreshold = static_cast<float>(GetFloatParameter("Noise Threshold"));
  FAutoPolynomial.Tolerance = GetFloatParameter("Tolerance");
  FAutoAverage = TAutoAverageSettings();
  FAutoAverage.HalfWidth = static_cast<int>(GetFloatParameter("Size AutoAvg"));
  FAutoAverage.NoiseThreshold = FAutoPolynomial.NoiseThreshold;
  FAutoAverage.NumberOfIterations = GetIntParameter("Number of Iterations");
  FShape = TShapeSettings();
  FShape.ShapeSize = GetIntParameter("Shape Size");
  FShape.NoiseFactor = static_cast<float>(GetFloatParameter("Noise Factor"));
  FShape.KeepBorderPeaks = GetBoolParameter("Keep Border Peaks");
  FAverageSize = GetIntParameter("Size [Pixel]");
  FWeights =
      FKind == TGraphBackgroundSubtractionKind::Average ? AverageWeights(FAverageSize) : std::vector<float>();
  FNotFinite = 0;
  FRounds = 0;
  FRoundSpectra = 0;
  FSkipRun = false;
  FJobs.clear();
  FJobs.resize(inputs.size());

  // Settings the data can't serve: the preview stays empty, a run is refused naming the reason.
  std::string error;
  bool ok = true;
  for (size_t i = 0; i < inputs.size() && ok; ++i) ok = PrepareJob(*inputs[i], FJobs[i], error);
  if (ok && FKind == TGraphBackgroundSubtractionKind::Constant && !inputs.empty())
    ok = ReadReference(inputs.front()->GetSizeGraph(), FReference, error);
  for (size_t i = 1; ok && !FReference.empty() && i < inputs.size(); ++i)
    if (inputs[i]->GetSizeGraph() != static_cast<int32_t>(FReference.size())) {
      error = "Reference Spectrum: " + GraphName(*inputs[i]) + " has " +
              std::to_string(inputs[i]->GetSizeGraph()) + " points, the reference " +
              std::to_string(FReference.size());
      ok = false;
    }
  if (GetIsPreview()) {
    auto* preview = dynamic_cast<TDGraph*>(GetProject()->FindData(GetPreviewGraphID()));
    if (!preview || inputs.empty()) {
      FSkipRun = true;
      return true;
    }
    if (!ok) {
      preview->SetLineValid(0, false);
      FSkipRun = true;
    }
    results.push_back(preview);
    return true;
  }
  if (!ok) throw OrvexException(GetDialogName() + ": " + error);

  for (TDGraph* input : inputs) {
    TResultInfo info;
    info.CaptionSuffix = FWriteBackground ? kBackgroundCaptionSuffix : kCaptionSuffix;
    TDGraph* result = OwnResult(
        TDGraph::CreateResultGraph(*GetProject(), input->GetID(), false, TDataFieldKind::Float, info));
    if (!result) throw OrvexException(GetDialogName() + ": no graph for the result of " + GraphName(*input));
    for (int32_t y = 0; y < input->GetSizeY(); ++y) result->SetLineValid(y, false);
    results.push_back(result);
  }
  return true;
}

TBackgroundStatus TGraphBackgroundSubtractionForm::Process(const TJob& job, const float* spectrum,
                                                           float* background, float* result,
                                                           TBackgroundScratch& scratch,
                                                           std::vector<float>& clean) {
  const int n = job.Length;
  // The usual spectrum is finite throughout and goes straight to the estimate.
  if (AllFinite(spectrum, n)) return Estimate(job, spectrum, background, result, scratch);
  // NaN or Inf outside the fit mask must not reach the estimate (a product with a zero weight is still
  // NaN): the estimate sees 0 there, and the result keeps the point's own value minus the background.
  bool outsideNotFinite = false;
  for (int i = 0; i < n && !outsideNotFinite; ++i)
    outsideNotFinite = !job.FitMask[i] && !std::isfinite(spectrum[i]);
  const float* y = spectrum;
  if (outsideNotFinite) {
    clean.assign(spectrum, spectrum + n);
    for (int i = 0; i < n; ++i)
      if (!job.FitMask[i] && !std::isfinite(clean[i])) clean[i] = 0.0f;
    y = clean.data();
  }
  const TBackgroundStatus status = Estimate(job, y, background, result, scratch);
  if (outsideNotFinite && status == TBackgroundStatus::Done)
    ApplyBackground(n, spectrum, job.ChangeMask.get(), background, result);
  return status;
}

TBackgroundStatus TGraphBackgroundSubtractionForm::Estimate(const TJob& job, const float* y,
                                                            float* background, float* result,
                                                            TBackgroundScratch& scratch) {
  const int n = job.Length;
  switch (FKind) {
  case TGraphBackgroundSubtractionKind::Constant:
    return ConstantBackground(n, y, job.FitMask.get(), job.ChangeMask.get(), FConstant,
                              FReference.empty() ? nullptr : FReference.data(), background, result);
  case TGraphBackgroundSubtractionKind::Minimum:
    return MinimumBackground(n, y, job.FitMask.get(), job.ChangeMask.get(), FOffset, background, result);
  case TGraphBackgroundSubtractionKind::Polynomial:
    return PolynomialBackground(job.Polynomial, y, job.ChangeMask.get(), background, result, scratch);
  case TGraphBackgroundSubtractionKind::AutoPolynomial: {
    int rounds = 0;
    const TBackgroundStatus status = AutoPolynomialBackground(
        job.Polynomial, y, job.ChangeMask.get(), FAutoPolynomial, background, result, scratch, &rounds);
    if (status == TBackgroundStatus::Done) {
      FRounds.fetch_add(rounds, std::memory_order_relaxed);
      FRoundSpectra.fetch_add(1, std::memory_order_relaxed);
    }
    return status;
  }
  case TGraphBackgroundSubtractionKind::Shape:
    return ShapeBackground(n, y, job.FitMask.get(), job.ChangeMask.get(), FShape, background, result,
                           scratch);
  case TGraphBackgroundSubtractionKind::Average:
    return AverageBackground(n, y, job.FitMask.get(), job.ChangeMask.get(), FWeights.data(), FAverageSize,
                             background, result, scratch);
  case TGraphBackgroundSubtractionKind::AutoAverage:
    return AutoAverageBackground(n, y, job.FitMask.get(), job.ChangeMask.get(), FAutoAverage, background,
                                 result, scratch);
  }
  return TBackgroundStatus::Refused;
}

void TGraphBackgroundSubtractionForm::CalculateThread(TMCC* mcc, int threadIndex, TGraphList& inputs,
                                                      TGraphList& results) {
  if (FSkipRun) return;
  const int threads = mcc->GetNumberOfThreads();
  int64_t notFinite = 0;
  for (size_t i = 0; i < inputs.size() && i < results.size(); ++i) {
    const TDGraph& input = *inputs[i];
    TDGraph& output = *results[i];
    TJob& job = FJobs[i];
    const size_t n = static_cast<size_t>(job.Length);
    // This thread's buffers: the spectra stream through them element by element.
    TBackgroundScratch scratch(job.Length);
    std::vector<float> spectrum(n), background(n), result(n), clean;
    if (GetIsPreview()) {
      // The spectrum at the cursor; its background goes to the preview.
      if (threadIndex != 0) continue;
      const int32_t x = GetPositionX(), y = GetPositionY();
      bool shown = false;
      if (x >= 0 && y >= 0 && x < input.GetSizeX() && y < input.GetSizeY() && input.GetLineValid(y)) {
        input.GetSpectrum(x, y, spectrum.data());
        shown = Process(job, spectrum.data(), background.data(), result.data(), scratch, clean) ==
                TBackgroundStatus::Done;
        if (shown) output.SetSpectrum(0, 0, background.data());
      }
      output.SetLineValid(0, shown);
      continue;
    }
    const int total = static_cast<int>(input.GetNumberOfSpectra());
    const int first = TMCC::GetFirstElementIndex(threadIndex, threads, total);
    const int last = TMCC::GetLastElementIndex(threadIndex, threads, total);
    mcc->ThreadProgressMax[static_cast<size_t>(threadIndex)].store(std::max(0, last - first + 1));
    for (int e = first; e <= last; ++e) {
      if (mcc->GetCancel()) return;
      const int32_t y = e / input.GetSizeX();
      if (!input.GetLineValid(y)) continue;
      input.GetSpectrumOfElement(e, spectrum.data());
      const TBackgroundStatus status =
          Process(job, spectrum.data(), background.data(), result.data(), scratch, clean);
      if (status == TBackgroundStatus::Refused) continue;
      if (status == TBackgroundStatus::NotFinite) ++notFinite;
      output.SetSpectrumOfElement(e, FWriteBackground ? background.data() : result.data());
      job.Done[static_cast<size_t>(e)] = 1;
      mcc->ThreadProgress[static_cast<size_t>(threadIndex)].store(e - first + 1);
    }
    if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
  }
  FNotFinite.fetch_add(notFinite);
}

void TGraphBackgroundSubtractionForm::PostCalculate(TGraphList& inputs, TGraphList& results) {
  if (!GetIsPreview() && !GetLastRunCancelled()) {
    // A line is valid when its input line was and every spectrum of it was done.
    for (size_t i = 0; i < inputs.size() && i < results.size(); ++i) {
      const TDGraph& input = *inputs[i];
      const int32_t sizeX = input.GetSizeX();
      for (int32_t y = 0; y < input.GetSizeY(); ++y) {
        bool valid = input.GetLineValid(y);
        for (int32_t x = 0; valid && x < sizeX; ++x)
          valid = FJobs[i].Done[static_cast<size_t>(y) * sizeX + x] != 0;
        results[i]->SetLineValid(y, valid);
      }
    }
    if (FNotFinite.load() > 0)
      TMessageProxy::MsgProxySingleton()->IssueMessage(
          TBlockingNotification::CreateAndInit(
              GetDialogName() + ": " + std::to_string(FNotFinite.load()) +
                  " spectra have NaN or Inf in the fit mask and were set to NaN",
              GetDialogName(), kSeverityWarning),
          true);
  }
  HandOverResults(results);
  FJobs.clear();
  FReference.clear();
}

void RegisterGraphBackgroundSubtraction(TToolRegistry& registry) {
  registry.Register(TGraphBackgroundSubtractionForm::kClassName, "Graph Background Subtraction", "spectral",
                    [] { return std::make_unique<TGraphBackgroundSubtractionForm>(); });
}
