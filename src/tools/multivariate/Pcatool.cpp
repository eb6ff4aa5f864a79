#include "tools/multivariate/Pcatool.h"

#include "common/OrvexException.h"
#include "common/memory/Memorymanagement.h"
#include "common/threads/Progressandcancel.h"
#include "data/Dgraph.h"
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

TPCAForm::TPCAForm() : TProjectDialogForm("PCA", Declaration()) {}

TPCAForm::~TPCAForm() = default;

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

void RegisterPCATool(TToolRegistry& registry) {
  registry.Register(TPCAForm::kClassName, "PCA", "multivariate", [] { return std::make_unique<TPCAForm>(); });
}
