#include "tools/spectral/Peakfindoptions.h"

#include "common/OrvexException.h"
#include "common/Standardmessage.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dtext.h"
#include "data/Dtransformation.h"
#include "project/Project.h"
#include "project/Toolregistry.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

// The limits of the search, in the order the search tests them: parameter name stem and struct fields.
struct TLimitBinding {
  const char* Name;
  double TPeakFindControlStruct::*Value;
  bool TPeakFindControlStruct::*Use;
  bool DefaultUse;
};

const TLimitBinding kLimits[] = {
    {"Min Absolute Height", &TPeakFindControlStruct::MinPeakValueLimit,
     &TPeakFindControlStruct::UseMinPeakValueLimit, false},
    {"Max Absolute Height", &TPeakFindControlStruct::MaxPeakValueLimit,
     &TPeakFindControlStruct::UseMaxPeakValueLimit, false},
    {"Min Relative Height", &TPeakFindControlStruct::MinRelativePeakValueLimit,
     &TPeakFindControlStruct::UseMinRelativePeakValueLimit, true},
    {"Max Relative Height", &TPeakFindControlStruct::MaxRelativePeakValueLimit,
     &TPeakFindControlStruct::UseMaxRelativePeakValueLimit, false},
    {"Min FWHM", &TPeakFindControlStruct::MinFWHMLimit, &TPeakFindControlStruct::UseMinFWHMLimit, false},
    {"Max FWHM", &TPeakFindControlStruct::MaxFWHMLimit, &TPeakFindControlStruct::UseMaxFWHMLimit, false},
    {"Min Asymmetry", &TPeakFindControlStruct::MinAsymmetryLimit,
     &TPeakFindControlStruct::UseMinAsymmetryLimit, false},
    {"Max Asymmetry", &TPeakFindControlStruct::MaxAsymmetryLimit,
     &TPeakFindControlStruct::UseMaxAsymmetryLimit, false},
};

std::string Number(double value) {
  if (!std::isfinite(value)) return value != value ? "nan" : (value > 0 ? "inf" : "-inf");
  char text[40];
  std::snprintf(text, sizeof text, "%.9g", value);
  return text;
}

std::string JsonNumber(double value) {
  return std::isfinite(value) ? Number(value) : "null";
}

bool AllFinite(const std::vector<float>& values) {
  return std::all_of(values.begin(), values.end(), [](float v) { return std::isfinite(v); });
}

} // namespace

std::string FormatPeakTable(const std::vector<TPeakTableRow>& rows) {
  std::string text =
      "# x\ty\tpixel\tposition\theight\tsmoothedHeight\tfwhm\trelativeHeight\tasymmetry\tnegative\t"
      "custom\n";
  for (const TPeakTableRow& row : rows) {
    const TPeakInformation& p = row.Peak;
    text += std::to_string(row.X) + "\t" + std::to_string(row.Y) + "\t" + Number(p.PeakPixelPosition) + "\t" +
            Number(p.PeakXPosition) + "\t" + Number(p.OriginalPeakAbsoluteHeight) + "\t" +
            Number(p.SmoothedPeakAbsoluteHeight) + "\t" + Number(p.PeakFWHM) + "\t" +
            Number(p.PeakRelativeHeight) + "\t" + Number(p.FWHMAsymmetryFactor) + "\t" +
            (p.IsNegativePeak ? "1" : "0") + "\t" + (p.IsCustomPeak ? "1" : "0") + "\n";
  }
  return text;
}

std::string FormatPeakTableJson(const std::vector<TPeakTableRow>& rows) {
  std::string text = "[";
  for (size_t i = 0; i < rows.size(); ++i) {
    const TPeakInformation& p = rows[i].Peak;
    text += (i ? ",{" : "{");
    text += "\"x\":" + std::to_string(rows[i].X) + ",\"y\":" + std::to_string(rows[i].Y) +
            ",\"pixel\":" + JsonNumber(p.PeakPixelPosition) + ",\"position\":" + JsonNumber(p.PeakXPosition) +
            ",\"height\":" + JsonNumber(p.OriginalPeakAbsoluteHeight) +
            ",\"smoothedHeight\":" + JsonNumber(p.SmoothedPeakAbsoluteHeight) +
            ",\"fwhm\":" + JsonNumber(p.PeakFWHM) +
            ",\"relativeHeight\":" + JsonNumber(p.PeakRelativeHeight) +
            ",\"asymmetry\":" + JsonNumber(p.FWHMAsymmetryFactor) +
            ",\"negative\":" + (p.IsNegativePeak ? "true" : "false") +
            ",\"custom\":" + (p.IsCustomPeak ? "true" : "false") + "}";
  }
  return text + "]";
}

TParameterTable& TPeakFindOptionsForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddInt("Pixel X", "Pixel X", 0).SetLowerLimit(0).SetDescription("The spectrum searched by Extract");
    t.AddInt("Pixel Y", "Pixel Y", 0).SetLowerLimit(0);
    t.AddBool("Positive Peaks", "Positive Peaks", true);
    t.AddBool("Negative Peaks", "Negative Peaks", false);
    for (const TLimitBinding& limit : kLimits) {
      t.AddBool(std::string("Use ") + limit.Name, std::string("Use ") + limit.Name, limit.DefaultUse);
      t.AddFloat(limit.Name, std::string(limit.Name) + ":", 0.0).SetLimits(-1e36, 1e36);
    }
    t.AddList("Smoothing", "Smoothing", 2, {{"None", 0}, {"Savitzky-Golay", 1}, {"Wavelet", 2}});
    t.AddList("Derivative", "Derivative", 1, {{"Savitzky-Golay", 0}, {"Stencil", 1}});
    t.AddInt("Left Points", "Left Points", 6).SetLimits(0, 100);
    t.AddInt("Right Points", "Right Points", 6).SetLimits(0, 100);
    t.AddInt("Smoothing Order", "Smoothing Order", 4).SetLimits(0, 10);
    t.AddFloat("Noise Factor", "Noise Factor", 0.5).SetLimits(0, 100);
    t.AddTrigger(kCalculatePreview, "Calculate Preview");
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAll, "Extract All");
    return t;
  }();
  return table;
}

TPeakFindOptionsForm::TPeakFindOptionsForm()
    : TProjectGraphProcessingDialogForm("Peak Find Options", Declaration()) {
  MinNumberOfGraphs = 1;
}

TPeakFindOptionsForm::~TPeakFindOptionsForm() = default;

TPeakFindControlStruct TPeakFindOptionsForm::GetControl() const {
  TPeakFindControlStruct control;
  control.CalculatePositivePeaks = GetBoolParameter("Positive Peaks");
  control.CalculateNegativePeaks = GetBoolParameter("Negative Peaks");
  for (const TLimitBinding& limit : kLimits) {
    control.*limit.Value = GetFloatParameter(limit.Name);
    control.*limit.Use = GetBoolParameter(std::string("Use ") + limit.Name);
  }
  control.SmoothKind = GetIntParameter("Smoothing");
  control.DerivativeKind = GetIntParameter("Derivative");
  control.SmoothLeftPoints = GetIntParameter("Left Points");
  control.SmoothRightPoints = GetIntParameter("Right Points");
  control.SmoothOrder = GetIntParameter("Smoothing Order");
  control.WaveletNoiseFactor = GetFloatParameter("Noise Factor");
  return control;
}

bool TPeakFindOptionsForm::DoCommand(const std::string& name) {
  // Extract searches the spectrum at Pixel X, Pixel Y; Extract All (or a run on all) every spectrum.
  FAllSpectra = name == kExtractAll || IsRunAll();
  return TProjectGraphProcessingDialogForm::DoCommand(name);
}

void TPeakFindOptionsForm::DoParameterChanged(const TUserParameterList& /*changed*/) {
  if (GetIsActive() && Interactive && !ConfigurationOnly) UpdatePreview();
}

bool TPeakFindOptionsForm::PreCalculate(TGraphList& inputs, TGraphList& /*results*/) {
  FControl = GetControl();
  FJobs.clear();
  FJobs.resize(inputs.size());
  FRows.clear();
  FPreviewPeaks.clear();
  FNotFinite = 0;
  const int32_t pixelX = GetIntParameter("Pixel X"), pixelY = GetIntParameter("Pixel Y");
  for (size_t i = 0; i < inputs.size(); ++i) {
    const TDGraph& input = *inputs[i];
    TJob& job = FJobs[i];
    const int32_t length = input.GetSizeGraph();
    // The settings must make a search for this length, or nothing could be found anywhere.
    TPeakFindCalculate probe;
    if (!probe.Prepare(&FControl, length, nullptr, nullptr)) {
      if (GetIsPreview()) return true;
      throw OrvexException(GetDialogName() + ": Left Points " + std::to_string(FControl.SmoothLeftPoints) +
                           ", Right Points " + std::to_string(FControl.SmoothRightPoints) +
                           " and Smoothing Order " + std::to_string(FControl.SmoothOrder) +
                           " make no smoothing filter for \"" + input.GetCaption() + "\" (" +
                           std::to_string(length) + " points)");
    }
    std::vector<double> axis;
    std::string unit;
    if (GetAxisValues(*GetProject(), input.GetXTransformationID(), input.GetXInterpretationID(), length, 0,
                      axis, unit))
      job.Axis.assign(axis.begin(), axis.end());
    job.Peaks.SetNumberOfLists(static_cast<int>(input.GetNumberOfSpectra()));
    if (GetIsPreview()) continue;
    if (FAllSpectra) {
      job.Elements.resize(static_cast<size_t>(input.GetNumberOfSpectra()));
      for (size_t e = 0; e < job.Elements.size(); ++e) job.Elements[e] = static_cast<int32_t>(e);
    } else {
      if (pixelX >= input.GetSizeX() || pixelY >= input.GetSizeY())
        throw OrvexException(GetDialogName() + ": Pixel X " + std::to_string(pixelX) + ", Pixel Y " +
                             std::to_string(pixelY) + " lie outside \"" + input.GetCaption() + "\" (0.." +
                             std::to_string(input.GetSizeX() - 1) + ", 0.." +
                             std::to_string(input.GetSizeY() - 1) + ")");
      job.Elements.push_back(pixelY * input.GetSizeX() + pixelX);
    }
  }
  return true;
}

void TPeakFindOptionsForm::CalculateThread(TMCC* mcc, int threadIndex, TGraphList& inputs,
                                           TGraphList& /*results*/) {
  const int threads = mcc->GetNumberOfThreads();
  int64_t notFinite = 0;
  for (size_t i = 0; i < inputs.size() && i < FJobs.size(); ++i) {
    const TDGraph& input = *inputs[i];
    TJob& job = FJobs[i];
    const int32_t length = input.GetSizeGraph();
    // One search per thread: it holds the splines and arrays of the spectrum it works on.
    TPeakFindCalculate search;
    if (!search.Prepare(&FControl, length, job.Axis.empty() ? nullptr : job.Axis.data(), nullptr)) continue;
    std::vector<float> spectrum(static_cast<size_t>(length));
    if (GetIsPreview()) {
      if (threadIndex != 0 || i != 0) continue;
      const int32_t x = GetPositionX(), y = GetPositionY();
      if (x < 0 || y < 0 || x >= input.GetSizeX() || y >= input.GetSizeY() || !input.GetLineValid(y))
        continue;
      input.GetSpectrum(x, y, spectrum.data());
      if (AllFinite(spectrum) && search.FindPeaks(spectrum.data()))
        FPreviewPeaks = search.GetPeakInformationList();
      continue;
    }
    const int total = static_cast<int>(job.Elements.size());
    const int first = TMCC::GetFirstElementIndex(threadIndex, threads, total);
    const int last = TMCC::GetLastElementIndex(threadIndex, threads, total);
    mcc->ThreadProgressMax[static_cast<size_t>(threadIndex)].store(std::max(0, last - first + 1));
    for (int k = first; k <= last; ++k) {
      if (mcc->GetCancel()) return;
      const int32_t e = job.Elements[static_cast<size_t>(k)];
      if (!input.GetLineValid(e / input.GetSizeX())) continue;
      input.GetSpectrumOfElement(e, spectrum.data());
      if (!AllFinite(spectrum)) {
        ++notFinite;
        continue;
      }
      if (search.FindPeaks(spectrum.data()))
        job.Peaks.SetPeakInformationList(e, search.GetPeakInformationList());
      mcc->ThreadProgress[static_cast<size_t>(threadIndex)].store(k - first + 1);
    }
    if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
  }
  FNotFinite.fetch_add(notFinite);
}

void TPeakFindOptionsForm::PostCalculate(TGraphList& inputs, TGraphList& results) {
  if (GetIsPreview() || GetLastRunCancelled()) {
    FJobs.clear();
    HandOverResults(results);
    return;
  }
  std::string report;
  for (size_t i = 0; i < inputs.size() && i < FJobs.size(); ++i) {
    const TDGraph& input = *inputs[i];
    std::vector<TPeakTableRow> rows;
    for (int32_t e : FJobs[i].Elements)
      for (const TPeakInformation& peak : FJobs[i].Peaks.PeakInformationList(e))
        rows.push_back({input.GetID(), e % input.GetSizeX(), e / input.GetSizeX(), peak});
    const std::string table = FormatPeakTable(rows);
    if (inputs.size() > 1)
      report += "# \"" + input.GetCaption() + "\" (ID " + std::to_string(input.GetID()) + ")\n";
    report += table;
    auto text = std::make_unique<TDText>();
    text->SetID(GetProject()->GetNewDataID());
    text->SetCaption("Peak Table (" + input.GetCaption() + ")");
    text->SetText(table);
    AddResult(std::move(text));
    FRows.insert(FRows.end(), rows.begin(), rows.end());
  }
  SetReport(report);
  SetReportJson(FormatPeakTableJson(FRows));
  if (FNotFinite.load() > 0)
    TMessageProxy::MsgProxySingleton()->IssueMessage(
        TBlockingNotification::CreateAndInit(GetDialogName() + ": " + std::to_string(FNotFinite.load()) +
                                                 " spectra hold NaN or Inf and were not searched",
                                             GetDialogName(), kSeverityWarning),
        true);
  FJobs.clear();
  HandOverResults(results);
}

void RegisterPeakFindOptions(TToolRegistry& registry) {
  registry.Register(TPeakFindOptionsForm::kClassName, "Peak Find Options", "spectral",
                    [] { return std::make_unique<TPeakFindOptionsForm>(); });
}
