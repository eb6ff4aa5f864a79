#include "tools/multivariate/Pcatool.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/memory/Memorymanagement.h"
#include "common/threads/Multicorecalc.h"
#include "common/threads/Progressandcancel.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "project/Graphmask.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "tools/multivariate/Pcacore.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>

namespace {

constexpr const char* kSpectrumMask = "Spectrum Mask";
constexpr const char* kUseDrawField = "Use Draw Field";
constexpr const char* kDrawFieldPixels = "Draw Field Pixels";
constexpr const char* kPCMask = "PC Mask";
constexpr const char* kPCAResult = "PCA Result";
constexpr const char* kPCGraphs = "PC Graphs";
constexpr const char* kTransformedSpectra = "Transformed Spectra";
constexpr const char* kReconstructedSpectra = "Reconstructed Spectra";

// The channel the core reports to: it hears no captions (the frame shows none without a window) and
// passes the caller's cancel on.
class TExternalCancelOnly final : public IProgressAndCancel {
public:
  explicit TExternalCancelOnly(const IProgressAndCancel* external) : FExternal(external) {}
  void SetProgressCaption(const std::string& /*caption*/) override {}
  void SetProgress(std::int64_t /*done*/, std::int64_t /*total*/) override {}
  void AddProgress(std::int64_t /*delta*/) override {}
  bool IsCancelled() const override { return FExternal && FExternal->IsCancelled(); }

private:
  const IProgressAndCancel* FExternal;
};

// The project as the extraction sees it: everything goes to the real project, except the result graphs,
// which go to the frame so that they enter the project at the command's end with the run's history. The
// helper objects the graphs refer to (the "PC" transformation and interpretations) are added at once.
class TResultsToFrame final : public IDataProject {
public:
  TResultsToFrame(TProject& project, const std::function<void(std::unique_ptr<TData>)>& result)
      : FProject(project), FResult(result) {}

  bool DataIDExists(int32_t id) const override { return FProject.DataIDExists(id); }
  bool IsIDInheritFrom(int32_t id, const std::string& className) const override {
    return FProject.IsIDInheritFrom(id, className);
  }
  std::string GetClassNameByID(int32_t id) const override { return FProject.GetClassNameByID(id); }
  TData* FindData(int32_t id) const override { return FProject.FindData(id); }
  TData* LockData(int32_t id) override { return FProject.LockData(id); }
  void UnlockData(TData* data) override { FProject.UnlockData(data); }
  int32_t GetNewDataID() override { return FProject.GetNewDataID(); }
  void AddData(std::unique_ptr<TData> data) override {
    if (!data) return;
    // Objects made here know this adapter as their project; they belong to the real one.
    data->SetProject(&FProject);
    if (dynamic_cast<TDGraph*>(data.get()))
      FResult(std::move(data));
    else
      FProject.AddData(std::move(data));
  }
  int32_t MakeOrGetFirstIDByClassName(const std::string& className) override {
    return FProject.MakeOrGetFirstIDByClassName(className);
  }
  TIntList GetIDListByClassName(const std::string& className, int32_t minExclusive,
                                int32_t maxInclusive) const override {
    return FProject.GetIDListByClassName(className, minExclusive, maxInclusive);
  }
  TIntList GetIDListOfAllData(bool filterByMode, TDataSaveMode mode) const override {
    return FProject.GetIDListOfAllData(filterByMode, mode);
  }

private:
  TProject& FProject;
  std::function<void(std::unique_ptr<TData>)> FResult;
};

std::string Describe(const TData& data) {
  return "\"" + data.GetCaption() + "\" (ID " + std::to_string(data.GetID()) + ")";
}

std::string FormatValue(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

} // namespace

TParameterTable& TPCAForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddString(kSpectrumMask, "Spectrum Mask", "all")
        .SetSpectralMask()
        .SetDescription("Points that take part: \"all\", \"none\", \"lo:hi\" in the axis unit, \"lo:hi px\", "
                        "\"graph:ID\", comma-separated");
    t.AddBool(kUseDrawField, "Use Draw Field", false)
        .SetDescription("Calculate on a random draw of pixels (the same draw on every run)");
    t.AddInt(kDrawFieldPixels, "Draw Field Pixels", 1000)
        .SetLowerLimit(5)
        .SetDescription("Pixels of the draw field: from 5 to half the pixels of the map");
    t.AddString(kPCMask, "PC Mask", "0:9 px")
        .SetDescription("Components to extract, PC 0 has the largest eigenvalue: \"lo:hi px\", \"all\", "
                        "comma-separated; a range beyond the last component is cut");
    t.AddBool(kPCAResult, "PCA Result", true).SetDescription("Eigenvalues, eigenvectors and the average");
    t.AddBool(kPCGraphs, "PC Graphs", false).SetDescription("One graph per eigenvector of the PC mask");
    t.AddBool(kTransformedSpectra, "Transformed Spectra", false)
        .SetDescription("The scores of every pixel for the PCs of the PC mask");
    t.AddBool(kReconstructedSpectra, "Reconstructed Spectra", false)
        .SetDescription("Every spectrum rebuilt from the PCs of the PC mask");
    t.AddTrigger(kExtract, "Extract");
    return t;
  }();
  return table;
}

bool IsPCACalculateEnabled(int selectedCount) {
  return selectedCount >= 2;
}

bool IsPCAExtractEnabled(bool done, bool pcaResult, bool pcGraphs, bool transformed, bool reconstructed,
                         int pcMaskCount) {
  if (!done || !(pcaResult || pcGraphs || transformed || reconstructed)) return false;
  return !(pcGraphs || transformed || reconstructed) || pcMaskCount > 0;
}

TPCAForm::TPCAForm() : TProjectDialogForm("PCA", Declaration()) {}

TPCAForm::~TPCAForm() {
  if (FPreviewsOpen) {
    try {
      CleanUp();
    } catch (...) {
    }
  }
}

bool TPCAForm::IsInputIDListOkay(TProject* project, const TIntList* ids, const TIntList* /*extra*/,
                                 std::string* reason) {
  auto refuse = [&](const std::string& text) {
    if (reason) *reason = text;
    return false;
  };
  if (!ids || ids->empty()) return refuse("no input graph");
  if (ids->size() != 1)
    return refuse("exactly one input graph, not " + std::to_string(ids->size()) + " objects");
  if (!project) return true;
  const TData* data = project->FindData(ids->front());
  if (!data) return refuse("no object with ID " + std::to_string(ids->front()));
  if (data->GetClassNameA() != TDGraph::kClassName) return refuse(Describe(*data) + " is no graph");
  if (!IsPCAInputIDListOkay(*project, *ids))
    return refuse(Describe(*data) + " has size X 1; a map or line with size X 2 or more is needed");
  return true;
}

bool TPCAForm::ReadPCMask(int componentCount, std::vector<int>& pcs, std::string& error) const {
  pcs.clear();
  if (componentCount < 1) {
    error = std::string(kPCMask) + ": no components calculated";
    return false;
  }
  // The components are counted on an axis of their own numbers, so that "lo:hi" and "lo:hi px" agree.
  TGraphMaskAxis axis;
  axis.Unit = "PC";
  for (int k = 0; k < componentCount; ++k) axis.Values.push_back(k);
  std::vector<bool> mask(static_cast<size_t>(componentCount), false);
  std::string reason;
  if (!ParseGraphMaskText(GetStringParameter(kPCMask), axis, nullptr, mask, reason)) {
    // The reader names the range itself when nothing was selected; otherwise it is added here.
    const std::string range = "0.." + std::to_string(componentCount - 1);
    error = std::string(kPCMask) + ": " + reason +
            (reason.find(range) == std::string::npos ? " (components " + range + ")" : "");
    return false;
  }
  for (int k = 0; k < componentCount; ++k)
    if (mask[static_cast<size_t>(k)]) pcs.push_back(k);
  if (pcs.empty()) {
    error = std::string(kPCMask) + ": selects no component of 0.." + std::to_string(componentCount - 1);
    return false;
  }
  return true;
}

bool TPCAForm::DoCommand(const std::string& name) {
  if (name != kExtract) return false;
  TProject& project = *GetProject();
  if (FPreviewsOpen) {
    // The open tool extracts what "Calculate PCA" found; it calculates nothing here.
    const TDGraph* graph = SourceGraph();
    if (!graph || !IsExtractEnabled()) return false;
    SetRunInputIDs({FSourceID});
    std::string report;
    if (!ExtractFromPreviews(*graph, report)) return false;
    SetReport(report);
    return true;
  }
  TIntList inputs = GetInitIDs();
  // The command line names the tool before a message already, and the window is the tool's own.
  std::string reason;
  if (!IsInputIDListOkay(&project, &inputs, nullptr, &reason)) throw OrvexException(reason);
  SetRunInputIDs(inputs);
  const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(inputs.front()));
  if (!graph) throw OrvexException("TPCAForm::DoCommand(): the input is no graph");
  std::string report;
  if (!CalculateAndExtract(*graph, report)) return false;
  SetReport(report);
  return true;
}

bool TPCAForm::CalculateAndExtract(const TDGraph& graph, std::string& report) {
  TProject& project = *GetProject();
  const int sizeX = graph.GetSizeX(), sizeY = graph.GetSizeY(), points = graph.GetSizeGraph();

  TPCASettings settings;
  std::string error;
  if (!ReadGraphMaskForGraph(project, graph.GetID(), GetStringParameter(kSpectrumMask), "",
                             settings.SpectrumMask, error))
    throw OrvexException(std::string(kSpectrumMask) + ": " + error);
  const auto selected = std::count(settings.SpectrumMask.begin(), settings.SpectrumMask.end(), true);
  if (selected < 2)
    throw OrvexException(std::string(kSpectrumMask) + ": selects " + std::to_string(selected) +
                         " point(s); at least 2 of the " + std::to_string(points) + " points are needed");

  settings.UseDrawField = GetBoolParameter(kUseDrawField);
  if (settings.UseDrawField) {
    const std::int64_t limit = static_cast<std::int64_t>(sizeX) * sizeY / 2;
    const std::int64_t count = GetIntParameter(kDrawFieldPixels);
    if (limit < 5 || count < 5 || count > limit)
      throw OrvexException(std::string(kDrawFieldPixels) + ": " + std::to_string(count) + " is not in 5.." +
                           std::to_string(limit) + " (half the " + std::to_string(sizeX) + "x" +
                           std::to_string(sizeY) + " pixels)");
    settings.DrawField = RandomizeDrawField(sizeX, sizeY, static_cast<int>(count));
  }

  if (!TMemoryManagement::IsEnoughMemoryAvailable(PCAStartMemoryBytes(sizeX, sizeY, points), false, "", true))
    throw OrvexException(Describe(graph) + ": not enough memory for the calculation");

  TPCACore core;
  TExternalCancelOnly progress(ExternalCancel);
  switch (core.Calculate(graph, settings, &progress, 0)) {
  case TPCAStatus::Ok:
    break;
  case TPCAStatus::Cancelled:
    return false;
  case TPCAStatus::NoPixels:
    throw OrvexException(Describe(graph) + (settings.UseDrawField
                                                ? ": no pixel of the draw field lies on a valid line"
                                                : ": all lines are invalid"));
  case TPCAStatus::Failed:
    throw OrvexException(Describe(graph) + ": " + core.Error());
  }

  // The PC mask is read against the calculated components, before anything is added.
  TPCAExtractOptions options;
  if (!ReadPCMask(core.ComponentCount(), options.PCs, error)) throw OrvexException(error);
  options.PCAResult = GetBoolParameter(kPCAResult);
  options.PCGraphs = GetBoolParameter(kPCGraphs);
  options.TransformedSpectra = GetBoolParameter(kTransformedSpectra);
  options.ReconstructedSpectra = GetBoolParameter(kReconstructedSpectra);
  if (!TMemoryManagement::IsEnoughMemoryAvailable(PCAExtractBytes(graph, core, options), false, "", true))
    throw OrvexException(Describe(graph) + ": not enough memory for the results");

  TResultsToFrame target(project, [this](std::unique_ptr<TData> result) { AddResult(std::move(result)); });
  const TPCAExtractResult made = ExtractPCAResults(target, graph.GetID(), core, options, &progress, 0);
  if (made.Status == TPCAStatus::Cancelled) return false;
  if (made.Status != TPCAStatus::Ok) throw OrvexException(made.Error);

  report += graph.GetCaption() + ": " + std::to_string(core.PixelCount()) + " spectra, " +
            std::to_string(core.ComponentCount()) + " points, " + std::to_string(options.PCs.size()) +
            " PCs extracted\n";
  for (int k : options.PCs)
    report += "PC " + std::to_string(k) + ": eigenvalue " + FormatValue(core.EigenValueOfPC(k)) + "\n";
  return true;
}

// --- The open tool ---------------------------------------------------------------------------------------

namespace {

// A 1 x 1 graph of points values from the source's template, for the previews.
std::unique_ptr<TDGraph> MakePreviewGraph(TProject& project, int32_t sourceID, int points,
                                          const std::string& caption) {
  std::unique_ptr<TDGraph> graph = TDGraph::CreateNewGraph(&project, sourceID, true, TDataFieldKind::Float,
                                                           TDataSaveMode::HardwareOwned, caption);
  if (!graph) return nullptr;
  graph->SetFieldSize(1, 1, TDataFieldKind::Float, points);
  graph->FillField(0.0f);
  graph->SetAllLinesValid();
  return graph;
}

} // namespace

TDGraph* TPCAForm::FindGraph(int32_t id) const {
  return GetProject() ? dynamic_cast<TDGraph*>(GetProject()->FindData(id)) : nullptr;
}

const TDGraph* TPCAForm::SourceGraph() const {
  return FindGraph(FSourceID);
}

IDataProject* TPCAForm::GetMaskProject() {
  return GetProject();
}

void TPCAForm::Init(const TIntList* ids, const TIntList* extra, TProject* project) {
  TProjectDialogForm::Init(ids, extra, project);
  FPreviewsOpen = false;
  if (!Interactive || ConfigurationOnly || !ids || ids->empty()) return;
  const TDGraph* graph = FindGraph(ids->front());
  if (!graph) return;
  FSourceID = graph->GetID();
  FSizeX = graph->GetSizeX();
  FSizeY = graph->GetSizeY();
  FPoints = graph->GetSizeGraph();
  if (!TMemoryManagement::IsEnoughMemoryAvailable(PCAStartMemoryBytes(FSizeX, FSizeY, FPoints), true,
                                                  "PCA Temporary Calculation Data", false)) {
    CleanUp();
    return;
  }
  TProject& p = *GetProject();
  FCore = std::make_unique<TPCACore>();
  FCurrentPC = 0;
  FCursorX = FCursorY = 0;
  GetXYCoordinateFromGraphCursor(p, FCursorX, FCursorY, FSourceID);
  FDrawField.assign(static_cast<size_t>(FSizeX) * static_cast<size_t>(FSizeY), 0);

  // The temporary objects: the preview image (a map only), the cursor's spectrum and its reconstruction,
  // the eigenvalues over the "PC" axis.
  if (FSizeX > 1 && FSizeY > 1) {
    if (auto preview = TDImage::CreateNewImage(&p, FSourceID, TDataFieldKind::Float,
                                               TDataSaveMode::HardwareOwned, kPreviewCaption)) {
      preview->SetFieldSize(FSizeX, FSizeY);
      FPreviewID = preview->GetID();
      AddDataToProject(std::move(preview));
    }
  }
  if (auto mask = MakePreviewGraph(p, FSourceID, FPoints, kMaskPreviewCaption)) {
    FMaskPreviewID = mask->GetID();
    AddDataToProject(std::move(mask));
  }
  if (auto reconstruction = MakePreviewGraph(p, FSourceID, FPoints, kReconstructionPreviewCaption)) {
    FReconstructionID = reconstruction->GetID();
    AddDataToProject(std::move(reconstruction));
  }
  auto transformation = std::make_unique<TDLinearTransformation>();
  transformation->SetParameters(0.0, 0.0, 1.0);
  transformation->SetStandardUnit("PC");
  transformation->SetCaption("PC");
  transformation->SetID(p.GetNewDataID());
  FPCTransformationID = transformation->GetID();
  AddDataToProject(std::move(transformation));
  if (auto eigenValues = MakePreviewGraph(p, FSourceID, kInitialEigenValuePoints, kEigenValuesCaption)) {
    eigenValues->SetSpaceTransformationID(0);
    eigenValues->SetXTransformationID(FPCTransformationID);
    eigenValues->SetXInterpretationID(GetOrMakeStandardZInterpretation(p, "PC", "PC"));
    eigenValues->SetZInterpretationID(GetOrMakeStandardZInterpretation(p, "Var", "Var"));
    FEigenValuesID = eigenValues->GetID();
    AddDataToProject(std::move(eigenValues));
  }

  // The masks: the spectrum mask from its parameter (all points when the text doesn't fit the graph), the
  // PC mask empty until a calculation gives it its size.
  FSpectrumMask = std::make_unique<TGraphMask>(this, FPoints, 1, FSourceID);
  FSpectrumMask->SetMaskName("Spectrum Mask");
  FSpectrumMask->SetAll();
  std::string error;
  FSpectrumMask->SetMaskFromText(GetStringParameter(kSpectrumMask), error);
  FSpectrumMask->SetOnMaskChangeEvent([this](int) { SpectrumMaskChanged(); });
  FPCMask = std::make_unique<TGraphMask>(this, 0, 1, FEigenValuesID);
  FPCMask->SetMaskName("PC Mask");
  FPCMask->SetOnMaskChangeEvent([this](int) { PCMaskChanged(); });
  FSelectedCount = 0;
  for (int i = 0; i < FPoints; ++i) FSelectedCount += FSpectrumMask->GetCurrentMask()[i] ? 1 : 0;

  FPreviewsOpen = true;
  if (IToolViewerFactory* factory = IToolViewerFactory::GetFactory()) {
    if (FPreviewID) AddCustomForm(factory->CreateImageViewer(p, FPreviewID, true));
    FMaskViewer = AddCustomForm(factory->CreateGraphViewer(p, FMaskPreviewID, {}));
    TVCustomForm* eigenViewer = AddCustomForm(factory->CreateGraphViewer(p, FEigenValuesID, {}));
    // The viewers show the masks as bands when they can.
    if (auto* bands = dynamic_cast<IGraphMaskViewer*>(FMaskViewer)) {
      FSpectrumMask->SetGraphID(FMaskPreviewID);
      FSpectrumMask->SetGraphFormInfo(bands, 0);
    }
    if (auto* bands = dynamic_cast<IGraphMaskViewer*>(eigenViewer)) FPCMask->SetGraphFormInfo(bands, 0);
  }
  FReconstructionShown = false;
  FillPreviewImageWithIntensity();
  DoPreviewGraph();
  UpdateCommands();
  if (OnViewersOpened) OnViewersOpened();
}

void TPCAForm::CleanUp() {
  FPreviewsOpen = false;
  FMaskViewer = nullptr;
  FSpectrumMask.reset();
  FPCMask.reset();
  FCore.reset();
  FDrawField.clear();
  FPreviewID = FMaskPreviewID = FReconstructionID = FEigenValuesID = FPCTransformationID = 0;
  FSourceID = 0;
  FSelectedCount = 0;
  FCurrentPC = 0;
  TProjectDialogForm::CleanUp();
  EnableCommand(kExtract, true); // a run without previews calculates and extracts at once
}

void TPCAForm::DoRemoveData(TData* data) {
  if (data && FPreviewsOpen && data->GetID() == FSourceID && GetIsActive()) CleanUp();
}

bool TPCAForm::IsDataUsed(int32_t id) const {
  return FPreviewsOpen && id != 0 && id == FSourceID;
}

void TPCAForm::DoDataChange(TData* data) {
  if (!FPreviewsOpen || !data) return;
  // The cursor pixel follows the source's graph cursor.
  int32_t x = 0, y = 0;
  if (GetXYCoordinateFromGraphCursor(*GetProject(), x, y, FSourceID) && (x != FCursorX || y != FCursorY))
    SetCursorPixel(x, y);
}

void TPCAForm::SetCursorPixel(int x, int y) {
  if (!FPreviewsOpen || x < 0 || y < 0 || x >= FSizeX || y >= FSizeY) return;
  FCursorX = x;
  FCursorY = y;
  DoPreviewGraph();
}

void TPCAForm::FillPreviewImageWithIntensity() {
  const TDGraph* graph = SourceGraph();
  auto* preview = dynamic_cast<TDImage*>(GetProject()->FindData(FPreviewID));
  if (!graph || !preview) return;
  std::vector<float> spectrum(static_cast<size_t>(FPoints)), line(static_cast<size_t>(FSizeX));
  preview->SetAutoDataChange(false);
  for (int y = 0; y < FSizeY; ++y) {
    const bool valid = graph->GetLineValid(y);
    if (valid) {
      for (int x = 0; x < FSizeX; ++x) {
        graph->GetSpectrum(x, y, spectrum.data());
        double sum = 0;
        for (float v : spectrum) sum += v;
        line[static_cast<size_t>(x)] = SafeDoubleToFloat(sum);
      }
      preview->SetLine(y, line.data());
    }
    preview->SetLineValid(y, valid);
  }
  preview->SetAutoDataChange(true);
  preview->DoDataChange(TDataChangeInfo::DataChanged);
}

void TPCAForm::DoPreviewGraph() {
  const TDGraph* graph = SourceGraph();
  TDGraph* mask = FindGraph(FMaskPreviewID);
  if (!graph || !mask || !graph->GetLineValid(FCursorY)) return;
  std::vector<float> spectrum(static_cast<size_t>(FPoints));
  graph->GetSpectrum(FCursorX, FCursorY, spectrum.data());
  mask->SetSpectrum(0, 0, spectrum.data());
  mask->DoDataChange(TDataChangeInfo::DataChanged);
  // The reconstruction joins the cursor's spectrum in its viewer once there is a result (viewers take no
  // object back, so it stays after a later cancel, showing the last result's reconstruction).
  if (FMaskViewer && IsPCADone() && !FReconstructionShown)
    FReconstructionShown = FMaskViewer->AddDataID(FReconstructionID);
  DoReconstructionPreviewGraph();
}

void TPCAForm::DoReconstructionPreviewGraph() {
  const TDGraph* graph = SourceGraph();
  TDGraph* reconstruction = FindGraph(FReconstructionID);
  if (!graph || !reconstruction || !IsPCADone() || !graph->GetLineValid(FCursorY)) return;
  std::vector<float> spectrum(static_cast<size_t>(FPoints)), out(static_cast<size_t>(FPoints));
  graph->GetSpectrum(FCursorX, FCursorY, spectrum.data());
  FCore->Reconstruct(spectrum.data(), PCMaskList(), out.data());
  reconstruction->SetSpectrum(0, 0, out.data());
  reconstruction->DoDataChange(TDataChangeInfo::DataChanged);
}

void TPCAForm::DoPreviewEVGraph() {
  TDGraph* eigenValues = FindGraph(FEigenValuesID);
  if (!eigenValues || !IsPCADone()) return;
  const int m = FCore->ComponentCount();
  if (eigenValues->GetSizeGraph() != m) eigenValues->SetFieldSize(1, 1, TDataFieldKind::Float, m);
  std::vector<float> values(static_cast<size_t>(m));
  for (int k = 0; k < m; ++k) values[static_cast<size_t>(k)] = SafeDoubleToFloat(FCore->EigenValueOfPC(k));
  eigenValues->SetSpectrum(0, 0, values.data());
  eigenValues->SetAllLinesValid();
  eigenValues->DoDataChange(TDataChangeInfo::DataChanged);
}

void TPCAForm::DoReconstructedImage() {
  const TDGraph* graph = SourceGraph();
  auto* preview = dynamic_cast<TDImage*>(GetProject()->FindData(FPreviewID));
  if (!graph || !preview || !FShowReconstructedImage || !IsPCADone()) return;
  // The scores of the current PC at every pixel, whatever the line's state; every line valid.
  const std::vector<int> pcs{FCurrentPC};
  std::vector<float> spectrum(static_cast<size_t>(FPoints)), line(static_cast<size_t>(FSizeX));
  double score = 0;
  preview->SetAutoDataChange(false);
  for (int y = 0; y < FSizeY; ++y) {
    for (int x = 0; x < FSizeX; ++x) {
      graph->GetSpectrum(x, y, spectrum.data(), true);
      FCore->Scores(spectrum.data(), pcs, &score);
      line[static_cast<size_t>(x)] = SafeDoubleToFloat(score);
    }
    preview->SetLine(y, line.data());
    preview->SetLineValid(y, true);
  }
  preview->SetAutoDataChange(true);
  preview->DoDataChange(TDataChangeInfo::DataChanged);
}

bool TPCAForm::IsPCADone() const {
  return FCore && FCore->IsDone();
}

int TPCAForm::GetComponentCount() const {
  return IsPCADone() ? FCore->ComponentCount() : 0;
}

int TPCAForm::GetPCMaskCount() const {
  return static_cast<int>(PCMaskList().size());
}

std::vector<int> TPCAForm::PCMaskList() const {
  std::vector<int> pcs;
  if (!FPCMask) return pcs;
  const bool* mask = FPCMask->GetMask(0);
  for (int k = 0; mask && k < FPCMask->GetMaskSize(); ++k)
    if (mask[k]) pcs.push_back(k);
  return pcs;
}

bool TPCAForm::IsCalculateEnabled() const {
  return FPreviewsOpen && IsPCACalculateEnabled(FSelectedCount);
}

bool TPCAForm::IsExtractEnabled() const {
  return FPreviewsOpen &&
         IsPCAExtractEnabled(IsPCADone(), GetBoolParameter(kPCAResult), GetBoolParameter(kPCGraphs),
                             GetBoolParameter(kTransformedSpectra), GetBoolParameter(kReconstructedSpectra),
                             GetPCMaskCount());
}

void TPCAForm::UpdateCommands() {
  if (FPreviewsOpen) EnableCommand(kExtract, IsExtractEnabled());
  if (OnStateChanged) OnStateChanged();
}

void TPCAForm::SpectrumMaskChanged() {
  FSelectedCount = 0;
  const bool* mask = FSpectrumMask->GetCurrentMask();
  for (int i = 0; mask && i < FPoints; ++i) FSelectedCount += mask[i] ? 1 : 0;
  if (!FSyncingParameters) {
    std::string error;
    const std::string text = FSpectrumMask->GetMaskText(0, error);
    if (!text.empty()) {
      FSyncingParameters = true;
      Parameters().SetParameterValuesFromText({std::string(kSpectrumMask) + "=" + text});
      FSyncingParameters = false;
    }
  }
  UpdateCommands();
}

void TPCAForm::PCMaskChanged() {
  if (!FSyncingParameters && FPCMask) {
    const std::vector<int> pcs = PCMaskList();
    std::vector<bool> flags(static_cast<size_t>(FPCMask->GetMaskSize()), false);
    for (int k : pcs) flags[static_cast<size_t>(k)] = true;
    std::unique_ptr<bool[]> plain(new bool[flags.size() + 1]);
    for (size_t k = 0; k < flags.size(); ++k) plain[k] = flags[k];
    TGraphMaskAxis axis; // component numbers: the text counts them as points
    FSyncingParameters = true;
    Parameters().SetParameterValuesFromText(
        {std::string(kPCMask) + "=" + FormatGraphMaskText(plain.get(), FPCMask->GetMaskSize(), axis)});
    FSyncingParameters = false;
  }
  DoReconstructionPreviewGraph();
  UpdateCommands();
}

void TPCAForm::DoParameterChanged(const TUserParameterList& /*changed*/) {
  if (!FPreviewsOpen || FSyncingParameters) return;
  FSyncingParameters = true;
  // Texts typed into the mask parameters reach the masks; unreadable ones leave them as they are.
  std::string error;
  FSpectrumMask->SetMaskFromText(GetStringParameter(kSpectrumMask), error);
  std::vector<int> pcs;
  if (IsPCADone() && ReadPCMask(FCore->ComponentCount(), pcs, error)) {
    std::unique_ptr<bool[]> plain(new bool[static_cast<size_t>(FPCMask->GetMaskSize()) + 1]());
    for (int k : pcs) plain[static_cast<size_t>(k)] = true;
    if (!FPCMask->IsMaskEqual(plain.get(), 0)) FPCMask->SetMask(plain.get());
  }
  FSyncingParameters = false;
  UpdateCommands();
}

bool TPCAForm::CalculatePCA() {
  const TDGraph* graph = SourceGraph();
  if (!graph || !IsCalculateEnabled()) return false;
  TPCASettings settings;
  settings.SpectrumMask.assign(FSpectrumMask->GetCurrentMask(), FSpectrumMask->GetCurrentMask() + FPoints);
  settings.UseDrawField = GetBoolParameter(kUseDrawField);
  if (settings.UseDrawField) settings.DrawField.assign(FDrawField.begin(), FDrawField.end());
  TExternalCancelOnly progress(ExternalCancel);
  TPCAStatus status = FCore->Prepare(*graph, settings, &progress);
  if (status == TPCAStatus::Ok) {
    // The four steps on all threads; after 100 ms the user sees their captions and may cancel.
    TMCC mcc(GetDialogName() + " (Calculate)");
    mcc.MCCInit([this](TMCC* m, int t) { FCore->CalculateThread(m, t); }, nullptr, 4);
    mcc.StartThreads(0);
    mcc.WaitAndShowProgressOnDelay(100);
    status = FCore->Finish();
  }
  if (status == TPCAStatus::Failed) throw OrvexException(Describe(*graph) + ": " + FCore->Error());
  if (status == TPCAStatus::NoPixels) return false; // the old result stays
  // A new result: the eigenvalues, an empty PC mask over its components, PC 0 current.
  FCurrentPC = 0;
  FSyncingParameters = true;
  FPCMask->SetMaskSize(GetComponentCount());
  FSyncingParameters = false;
  if (GetComponentCount() > 0) FPCMask->ClearAll();
  DoPreviewEVGraph();
  DoPreviewGraph();
  DoReconstructedImage();
  UpdateCommands();
  return status == TPCAStatus::Ok;
}

void TPCAForm::SetCurrentPC(int pc) {
  if (!FPreviewsOpen) return;
  FCurrentPC = std::clamp(pc, 0, std::max(0, GetComponentCount() - 1));
  DoReconstructedImage();
  if (OnStateChanged) OnStateChanged();
}

void TPCAForm::SetShowReconstructedImage(bool show) {
  if (FShowReconstructedImage == show) return;
  FShowReconstructedImage = show;
  if (!FPreviewsOpen) return;
  if (show)
    DoReconstructedImage();
  else
    FillPreviewImageWithIntensity();
}

void TPCAForm::AddCurrentPCToMask() {
  if (FPCMask && FPCMask->IsValueValid(FCurrentPC)) FPCMask->Set(FCurrentPC);
}

void TPCAForm::DeleteCurrentPCFromMask() {
  if (FPCMask && FPCMask->IsValueValid(FCurrentPC)) FPCMask->Clear(FCurrentPC);
}

void TPCAForm::SetDrawField(const std::vector<uint8_t>& flags) {
  if (!FPreviewsOpen || flags.size() != FDrawField.size()) return;
  FDrawField = flags;
}

void TPCAForm::RandomizeDrawFieldCommand() {
  if (!FPreviewsOpen) return;
  const std::int64_t limit = static_cast<std::int64_t>(FSizeX) * FSizeY / 2;
  const std::int64_t count = GetIntParameter(kDrawFieldPixels);
  if (limit < 5 || count < 5 || count > limit)
    throw OrvexException(std::string(kDrawFieldPixels) + ": " + std::to_string(count) + " is not in 5.." +
                         std::to_string(limit) + " (half the " + std::to_string(FSizeX) + "x" +
                         std::to_string(FSizeY) + " pixels)");
  const std::vector<bool> drawn = RandomizeDrawField(FSizeX, FSizeY, static_cast<int>(count));
  for (size_t k = 0; k < FDrawField.size(); ++k) FDrawField[k] = drawn[k] ? 1 : 0;
  if (OnDrawFieldChanged) OnDrawFieldChanged();
}

bool TPCAForm::ExtractFromPreviews(const TDGraph& graph, std::string& report) {
  TProject& project = *GetProject();
  TPCAExtractOptions options;
  options.PCs = PCMaskList();
  options.PCAResult = GetBoolParameter(kPCAResult);
  options.PCGraphs = GetBoolParameter(kPCGraphs);
  options.TransformedSpectra = GetBoolParameter(kTransformedSpectra);
  options.ReconstructedSpectra = GetBoolParameter(kReconstructedSpectra);
  if (!TMemoryManagement::IsEnoughMemoryAvailable(PCAExtractBytes(graph, *FCore, options), true,
                                                  "Graph PCA Result", false))
    return false;
  TExternalCancelOnly progress(ExternalCancel);
  TResultsToFrame target(project, [this](std::unique_ptr<TData> result) { AddResult(std::move(result)); });
  const TPCAExtractResult made = ExtractPCAResults(target, graph.GetID(), *FCore, options, &progress, 0);
  if (made.Status == TPCAStatus::Cancelled) return false;
  if (made.Status != TPCAStatus::Ok) throw OrvexException(made.Error);
  report += graph.GetCaption() + ": " + std::to_string(FCore->PixelCount()) + " spectra, " +
            std::to_string(FCore->ComponentCount()) + " points, " + std::to_string(options.PCs.size()) +
            " PCs extracted\n";
  return true;
}

void RegisterPCATool(TToolRegistry& registry) {
  registry.Register(TPCAForm::kClassName, "PCA", "multivariate", [] { return std::make_unique<TPCAForm>(); });
}
