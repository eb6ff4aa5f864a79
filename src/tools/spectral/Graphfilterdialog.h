// Graph Filter: every spectrum of a graph through one of five filters into a new graph of the same size:
// cosmic ray (spike) removal, Savitzky-Golay smoothing or differentiation, wavelet noise filter, binomial
// average and median over a spectral and spatial window. A thread streams its block of lines through a
// ring of the lines its window needs, so the stack is never copied whole.
#pragma once

#include "common/numerics/Graphfilterlines.h"
#include "project/Processingdialogforms.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

class TToolRegistry;

class TGraphFilterDialogForm : public TProjectGraphProcessingDialogForm {
public:
  static constexpr const char* kClassName = "TGraphFilterDialogForm";

  TGraphFilterDialogForm();
  ~TGraphFilterDialogForm() override;
  std::string GetClassNameA() const override { return kClassName; }

  /// The page choice ("Mode") and each page's parameters, declared once.
  static TParameterTable& Declaration();

  /// The settings of the parameters as they stand.
  TGraphFilterSettings GetSettings() const;
  /// The caption suffix of a result: " (CRR)", " (SG L,R,O,D)", " (Wavelet Noise F)", " (Average a,b)",
  /// " (Median a,b)".
  static std::string CaptionSuffix(const TGraphFilterSettings& settings);
  /// Savitzky-Golay only: the window left + right + 1 must be shorter than the spectra of length.
  static bool WindowFitsSpectrum(const TGraphFilterSettings& settings, int32_t length);

protected:
  void DoParameterChanged(const TUserParameterList& changed) override;
  bool PreCalculate(TGraphList& inputs, TGraphList& results) override;
  void CalculateThread(TMCC* mcc, int threadIndex, TGraphList& inputs, TGraphList& results) override;
  void PostCalculate(TGraphList& inputs, TGraphList& results) override;
  bool IsExtractPossible() override;
  bool IsExtractAllPossible() override;

private:
  void CalculatePreviewSpectrum(TDGraph& input, TDGraph& preview);
  void NoteProblem(const std::string& problem);

  TGraphFilterSettings FSettings;
  /// Per input: one flag per line, set by the thread that finished the line.
  std::vector<std::vector<uint8_t>> FLineDone;
  std::mutex FProblemLock;
  std::string FProblem;
};

void RegisterGraphFilterDialog(TToolRegistry& registry);
