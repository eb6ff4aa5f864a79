#include "tools/spectral/Graphcalculator.h"

#include "common/Logfile.h"
#include "common/OrvexException.h"
#include "common/numerics/Formelparser.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dtransformation.h"
#include "project/Project.h"
#include "project/Toolregistry.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr int kBlock = 256;

float ToFloat(double value) {
  constexpr double largest = std::numeric_limits<float>::max();
  if (!(value == value)) return 0.0f;
  return static_cast<float>(std::clamp(value, -largest, largest));
}

// Compiles formula for the calculator's three variables; the parser tells what is wrong.
std::unique_ptr<TFormelParser> CompileFormula(const std::string& formula) {
  auto parser = std::make_unique<TFormelParser>();
  parser->SetXDimension(3);
  parser->SetExpress(formula);
  return parser;
}

std::string FormulaProblem(const TFormelParser& parser) {
  return parser.GetMessage() + " at position " + std::to_string(parser.GetErrorPosition());
}

} // namespace

int64_t CalculateGraphFormula(const TFormelParser& parser, const float* values, const double* axis,
                              int32_t count, float* out, TGraphFormulaScratch& scratch) {
  if (scratch.Values.size() < kBlock) {
    scratch.Values.resize(kBlock);
    scratch.Indices.resize(kBlock);
    scratch.Out.resize(kBlock);
    scratch.Undefined = std::make_unique<bool[]>(kBlock);
  }
  int64_t undefined = 0;
  for (int32_t start = 0; start < count; start += kBlock) {
    const int n = std::min<int32_t>(kBlock, count - start);
    for (int k = 0; k < n; ++k) {
      scratch.Values[k] = values[start + k];
      scratch.Indices[k] = start + k;
    }
    const double* columns[] = {nullptr, scratch.Values.data(), axis + start, scratch.Indices.data()};
    parser.BlockFunc(columns, n, scratch.Out.data(), scratch.Undefined.get(), scratch.Stack);
    for (int k = 0; k < n; ++k) {
      undefined += scratch.Undefined[k] ? 1 : 0;
      out[start + k] = ToFloat(scratch.Out[k]);
    }
  }
  return undefined;
}

TParameterTable& TGraphCalculatorForm::Declaration() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddString("Formula", "Formula", "x1")
        .SetDescription("x1: value, x2: axis value in the graph's unit, x3: point index");
    t.AddTrigger(kCalculatePreview, "Calculate Preview");
    t.AddTrigger(kExtract, "Extract");
    t.AddTrigger(kExtractAll, "Extract All");
    t.SetCrossCheck([](const TUserParameterAdministrator& parameters) {
      TUserParameterProblems problems;
      const auto* formula =
          dynamic_cast<const TUserStringParameter*>(parameters.GetUserParameterByName("Formula"));
      if (!formula) return problems;
      auto parser = CompileFormula(formula->GetParameter());
      if (!parser->IsValid()) problems.push_back({"Formula", FormulaProblem(*parser)});
      return problems;
    });
    return t;
  }();
  return table;
}

TGraphCalculatorForm::TGraphCalculatorForm()
    : TProjectGraphProcessingDialogForm("Graph Calculator", Declaration()) {
  MinNumberOfGraphs = 1;
}

TGraphCalculatorForm::~TGraphCalculatorForm() = default;

void TGraphCalculatorForm::DoParameterChanged(const TUserParameterList& /*changed*/) {
  if (GetIsActive() && Interactive && !ConfigurationOnly) UpdatePreview();
}

bool TGraphCalculatorForm::PreCalculate(TGraphList& inputs, TGraphList& results) {
  const std::string formula = GetStringParameter("Formula");
  FParser = CompileFormula(formula);
  if (!FParser->IsValid())
    throw OrvexException(GetDialogName() + ": the formula \"" + formula +
                         "\" is wrong: " + FormulaProblem(*FParser));
  FUndefined = 0;
  FAxes.assign(inputs.size(), {});
  TProject& project = *GetProject();
  for (size_t i = 0; i < inputs.size(); ++i) {
    const TDGraph& input = *inputs[i];
    std::string unit;
    if (!GetAxisValues(project, input.GetXTransformationID(), input.GetXInterpretationID(),
                       input.GetSizeGraph(), 0, FAxes[i], unit)) {
      // Without an axis the axis value is the point index.
      FAxes[i].resize(static_cast<size_t>(input.GetSizeGraph()));
      for (size_t g = 0; g < FAxes[i].size(); ++g) FAxes[i][g] = static_cast<double>(g);
    }
  }
  if (GetIsPreview()) {
    auto* preview = dynamic_cast<TDGraph*>(project.FindData(GetPreviewGraphID()));
    if (!preview || inputs.empty()) return false;
    results.push_back(preview);
    return true;
  }
  for (TDGraph* input : inputs) {
    TResultInfo info;
    info.CaptionSuffix = kCaptionSuffix;
    TDGraph* result =
        OwnResult(TDGraph::CreateResultGraph(project, input->GetID(), false, TDataFieldKind::Float, info));
    if (!result) return false;
    for (int32_t y = 0; y < input->GetSizeY(); ++y) result->SetLineValid(y, input->GetLineValid(y));
    results.push_back(result);
  }
  return true;
}

void TGraphCalculatorForm::CalculateThread(TMCC* mcc, int threadIndex, TGraphList& inputs,
                                           TGraphList& results) {
  TGraphFormulaScratch scratch;
  const int threads = mcc->GetNumberOfThreads();
  int64_t undefined = 0;
  for (size_t i = 0; i < inputs.size() && i < results.size(); ++i) {
    const TDGraph& input = *inputs[i];
    TDGraph& result = *results[i];
    const int32_t length = input.GetSizeGraph();
    std::vector<float> spectrum(static_cast<size_t>(length)), out(static_cast<size_t>(length));
    if (GetIsPreview()) {
      // The spectrum at the cursor into the one-spectrum preview.
      if (threadIndex != 0) continue;
      const int32_t x = GetPositionX(), y = GetPositionY();
      if (x < input.GetSizeX() && y < input.GetSizeY() && input.GetLineValid(y)) {
        input.GetSpectrum(x, y, spectrum.data());
        undefined +=
            CalculateGraphFormula(*FParser, spectrum.data(), FAxes[i].data(), length, out.data(), scratch);
        result.SetSpectrum(0, 0, out.data());
        result.SetLineValid(0, true);
      } else {
        result.SetLineValid(0, false);
      }
      continue;
    }
    const int64_t total = input.GetNumberOfSpectra();
    const int first = TMCC::GetFirstElementIndex(threadIndex, threads, static_cast<int>(total));
    const int last = TMCC::GetLastElementIndex(threadIndex, threads, static_cast<int>(total));
    mcc->ThreadProgressMax[static_cast<size_t>(threadIndex)].store(std::max(0, last - first + 1));
    for (int e = first; e <= last; ++e) {
      if (mcc->GetCancel()) return;
      const int32_t y = e / input.GetSizeX();
      if (!input.GetLineValid(y)) continue;
      input.GetSpectrumOfElement(e, spectrum.data());
      undefined +=
          CalculateGraphFormula(*FParser, spectrum.data(), FAxes[i].data(), length, out.data(), scratch);
      result.SetSpectrumOfElement(e, out.data());
      mcc->ThreadProgress[static_cast<size_t>(threadIndex)].store(e - first + 1);
    }
    if (threadIndex == 0) mcc->OverallProgress.fetch_add(1);
  }
  FUndefined.fetch_add(undefined);
}

void TGraphCalculatorForm::PostCalculate(TGraphList& /*inputs*/, TGraphList& results) {
  if (FUndefined.load() > 0 && GlobalLogFile && !GetIsPreview())
    GlobalLogFile->AddLog(GetDialogName() + ": " + std::to_string(FUndefined.load()) +
                          " values had no result and were set to 0");
  HandOverResults(results);
  FParser.reset();
}

void RegisterGraphCalculator(TToolRegistry& registry) {
  registry.Register(TGraphCalculatorForm::kClassName, "Graph Calculator", "spectral",
                    [] { return std::make_unique<TGraphCalculatorForm>(); });
}
