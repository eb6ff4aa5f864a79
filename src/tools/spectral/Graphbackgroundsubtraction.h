// Graph Background Subtraction: a background estimated for every spectrum of a graph by one of seven
// methods, fitted to the points of the fit mask and subtracted inside the change mask (0 outside). One
// result graph per input; "Extract Background" keeps the backgrounds themselves instead. The preview shows
// the spectrum under the cursor and its background.
#pragma once

#include "common/numerics/Backgroundsubtraction.h"
#include "project/Processingdialogforms.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class TToolRegistry;

class TGraphBackgroundSubtractionForm : public TProjectGraphProcessingDialogForm {
public:
  static constexpr const char* kClassName = "TGraphBackgroundSubtractionForm";
  static constexpr const char* kCaptionSuffix = " (Background Subtracted)";
  static constexpr const char* kBackgroundCaptionSuffix = " (Background)";
  static constexpr const char* kExtractBackground = "Extract Background";

  TGraphBackgroundSubtractionForm();
  ~TGraphBackgroundSubtractionForm() override;
  std::string GetClassNameA() const override { return kClassName; }
  /// Opens the tool; the preview graph holds the background of the spectrum under the cursor.
  void Init(const TIntList* ids, const TIntList* extra, TProject* project = nullptr) override;

  /// The parameters of the tool, declared once.
  static TParameterTable& Declaration();
  /// Spectra of the last run left unprocessed because their fit-mask values were not all finite.
  int64_t GetNotFiniteCount() const { return FNotFinite.load(); }
  /// Fits the automatic polynomial method made over the last run, and the spectra it ran on.
  int64_t GetAutoPolynomialRounds() const { return FRounds.load(); }
  int64_t GetAutoPolynomialSpectra() const { return FRoundSpectra.load(); }

protected:
  bool DoCommand(const std::string& name) override;
  void DoParameterChanged(const TUserParameterList& changed) override;
  bool PreCalculate(TGraphList& inputs, TGraphList& results) override;
  void CalculateThread(TMCC* mcc, int threadIndex, TGraphList& inputs, TGraphList& results) override;
  void PostCalculate(TGraphList& inputs, TGraphList& results) override;

private:
  /// Everything one input needs during a run; read only while the threads work, except the done flags
  /// which each thread writes for its own elements.
  struct TJob {
    int Length = 0;
    std::unique_ptr<bool[]> FitMask, ChangeMask;
    TPolynomialBackgroundFit Polynomial;
    std::vector<char> Done;
  };

  /// Reads the masks of input and prepares the fit; the reason in error when the settings can't serve it.
  bool PrepareJob(const TDGraph& input, TJob& job, std::string& error) const;
  /// The reference spectrum of the constant method for spectra of length points; empty without one.
  bool ReadReference(int length, std::vector<float>& reference, std::string& error) const;
  /// Background and result of one spectrum by the current method; clean is the thread's buffer for a copy
  /// without non-finite values outside the fit mask.
  TBackgroundStatus Process(const TJob& job, const float* spectrum, float* background, float* result,
                            TBackgroundScratch& scratch, std::vector<float>& clean);
  TBackgroundStatus Estimate(const TJob& job, const float* y, float* background, float* result,
                             TBackgroundScratch& scratch);

  TGraphBackgroundSubtractionKind FKind = TGraphBackgroundSubtractionKind::Polynomial;
  std::vector<TJob> FJobs;
  std::vector<float> FReference, FWeights;
  int FAverageSize = 0;
  TShapeSettings FShape;
  TAutoPolynomialSettings FAutoPolynomial;
  TAutoAverageSettings FAutoAverage;
  double FConstant = 0, FOffset = 0;
  bool FWriteBackground = false;
  bool FSkipRun = false;
  std::atomic<int64_t> FNotFinite{0}, FRounds{0}, FRoundSpectra{0};
};

void RegisterGraphBackgroundSubtraction(TToolRegistry& registry);
