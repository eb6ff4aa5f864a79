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

class TDGraph;
class TToolRegistry;

/// The average spectrum of graph over the pixels whose flag is set (pixels holds size X x size Y flags,
/// pixel (x, y) at x + y * size X); pixels on invalid lines don't count. count is the number of spectra
/// averaged. False, with average empty, when the flags don't fit the graph or no pixel counts.
bool AverageSpectrumOverPixels(const TDGraph& graph, const std::vector<bool>& pixels,
                               std::vector<float>& average, int64_t& count);

class TGraphBackgroundSubtractionForm : public TProjectGraphProcessingDialogForm {
public:
  static constexpr const char* kClassName = "TGraphBackgroundSubtractionForm";
  static constexpr const char* kCaptionSuffix = " (Background Subtracted)";
  static constexpr const char* kBackgroundCaptionSuffix = " (Background)";
  static constexpr const char* kExtractBackground = "Extract Background";
  static constexpr const char* kReferenceSpectrum = "Reference Spectrum";
  static constexpr const char* kDropSpectrumMessage =
      "Drop a single spectrum on this button to use it for constant subtraction.";
  static constexpr const char* kMaskEmptyMessage =
      "The mask is empty. Edit the mask to define which pixels should be averaged.";
  static constexpr const char* kAutoPolynomialTooSmallMessage =
      "The number of pixels is too small for Auto Polynomial background subtraction.";
  /// The smallest spectrum the automatic polynomial method works on.
  static constexpr int kAutoPolynomialMinimumPoints = 16;

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

  /// @{ The reference spectrum of the constant method ("Reference Spectrum", a graph ID, 0 none).
  bool HasReferenceSpectrum() const;
  /// Graph id becomes the reference when it is a graph of one spectrum; false with the reason otherwise.
  bool SetReferenceSpectrum(int32_t id, std::string& reason);
  void ClearReferenceSpectrum();
  /// The average of the current input over the set pixels (size X x size Y flags, x + y * size X)
  /// becomes a new graph of one spectrum in the project, "Mask Average (" + caption + ")", and the
  /// reference spectrum. Its ID; 0 with the user's message in message when no pixel of a valid line is
  /// set.
  int32_t GetMaskAverage(const std::vector<bool>& pixels, std::string& message);
  /// @}
  /// A new image of the open tool holding the summed intensity of each spectrum of the current input
  /// (invalid lines stay invalid); removed with the tool's other temporary objects. Its ID, 0 without
  /// an input.
  int32_t MakeIntensityImage();

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
