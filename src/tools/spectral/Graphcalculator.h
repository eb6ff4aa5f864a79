// Graph Calculator: a formula over the values of a graph, one result graph per input graph.
// Variables: x1 the value, x2 the axis value in the graph's unit, x3 the point index.
#pragma once

#include "project/Processingdialogforms.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

class TFormelParser;
class TToolRegistry;

/// Scratch of one thread for CalculateGraphFormula.
struct TGraphFormulaScratch {
  std::vector<double> Values, Indices, Out, Stack;
  std::unique_ptr<bool[]> Undefined;
};

/// The kernel: out[i] = formula(values[i], axis[i], i) for i < count, evaluated in blocks. Values without
/// a result become 0; returns how many there were.
int64_t CalculateGraphFormula(const TFormelParser& parser, const float* values, const double* axis,
                              int32_t count, float* out, TGraphFormulaScratch& scratch);

class TGraphCalculatorForm : public TProjectGraphProcessingDialogForm {
public:
  static constexpr const char* kClassName = "TGraphCalculatorForm";
  static constexpr const char* kCaptionSuffix = " (Calculator)";

  TGraphCalculatorForm();
  ~TGraphCalculatorForm() override;
  std::string GetClassNameA() const override { return kClassName; }

  /// The parameters of the tool, declared once.
  static TParameterTable& Declaration();
  /// How many values of the last run had no result.
  int64_t GetUndefinedCount() const { return FUndefined.load(); }

protected:
  void DoParameterChanged(const TUserParameterList& changed) override;
  bool PreCalculate(TGraphList& inputs, TGraphList& results) override;
  void CalculateThread(TMCC* mcc, int threadIndex, TGraphList& inputs, TGraphList& results) override;
  void PostCalculate(TGraphList& inputs, TGraphList& results) override;

private:
  std::unique_ptr<TFormelParser> FParser;
  std::vector<std::vector<double>> FAxes; ///< per input
  std::atomic<int64_t> FUndefined{0};
};

void RegisterGraphCalculator(TToolRegistry& registry);
