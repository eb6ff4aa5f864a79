// Image Fourier Filter: one image taken to the frequency plane (N x N, N the larger side), frequencies
// marked by hand or by a pattern removed, and the image given back. The planes live in paged memory;
// rows and columns of the transforms are shared out between the tool's threads.
#pragma once

#include "common/memory/Partialmemoryarraytemplate.h"
#include "common/numerics/Fft.h"
#include "project/Projectdialogform.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class TDImage;
class TMCC;
class TToolRegistry;

/// How the amplitude image shows |F|.
enum class TFourierScaleType : int32_t { Linear = 0, Log = 1, Sqrt = 2 };

/// The frequencies a filter type removes.
enum class TFourierFilterType : int32_t {
  FreeHand = 0,
  LowPassLine = 1,
  LowPass = 2,
  HighPassLine = 3,
  HighPass = 4,
  RemoveHarmonics = 5
};

// --- Plain kernels on caller-owned arrays ---------------------------------------------------------------

/// The frequency index of transform bin k of n: k for k < ceil(n/2), k - n above; the indices run
/// -floor(n/2) .. ceil(n/2) - 1.
inline int FourierFrequencyIndex(int k, int n) {
  return k < (n + 1) / 2 ? k : k - n;
}

/// Fills field (n x n, display order: index i, j at [(j + n/2) n + i + n/2], n/2 rounded down) with the
/// pixels the pattern removes. frequency is the edit value, stepX and stepY the frequencies of one index
/// step in x and y (both > 0). Free Hand leaves the field as it is; a type outside the table raises
/// "Not implemented".
void CalculateFourierDrawField(TFourierFilterType type, double frequency, double stepX, double stepY, int n,
                               uint8_t* field);

/// One row of the n-point working plane sampled from two neighbouring source lines: out[x] is the
/// bilinear value at (x * stepX) between line0 and line1 with weight fy of line1, clamped to the line.
void SampleFourierRow(const float* line0, const float* line1, double fy, int sizeX, double stepX, int n,
                      TComplex* out);

/// The displayed value of an amplitude.
double ScaleFourierAmplitude(double amplitude, TFourierScaleType scale);

/// A recalculation a fixed wait after the last of a series of changes: every change starts the wait
/// anew, so that a stroke of the pen or a run of typed digits costs one calculation at its end. Plain
/// time points in and out; whoever owns a timer asks it when the wait is over.
class TUpdateDelay {
public:
  using TClock = std::chrono::steady_clock;
  explicit TUpdateDelay(std::chrono::milliseconds wait) : FWait(wait) {}
  std::chrono::milliseconds GetWait() const { return FWait; }
  /// A change at now: the calculation is due a full wait later.
  void Changed(TClock::time_point now);
  bool IsPending() const { return FPending; }
  /// The time still to wait at now (0 when due or nothing is pending).
  std::chrono::milliseconds Remaining(TClock::time_point now) const;
  /// True once when a change is pending and its wait has passed by now; the change is then taken.
  bool TakeIfDue(TClock::time_point now);
  /// Forgets a pending change.
  void Cancel() { FPending = false; }

private:
  std::chrono::milliseconds FWait;
  TClock::time_point FDue{};
  bool FPending = false;
};

// --- The tool -------------------------------------------------------------------------------------------

class TImageFourierFilterForm : public TProjectDialogForm {
public:
  static constexpr const char* kClassName = "TImageFourierFilterForm";
  static constexpr const char* kCaptionSuffix = " (Fourier Filter)";
  static constexpr const char* kAmplitudeCaptionSuffix = " (Fourier Amplitude)";
  static constexpr const char* kExtractAmplitude = "Extract Amplitude";

  TImageFourierFilterForm();
  ~TImageFourierFilterForm() override;
  std::string GetClassNameA() const override { return kClassName; }
  static TParameterTable& Declaration();

  bool IsInputIDListOkay(TProject* project, const TIntList* ids, const TIntList* extra,
                         std::string* reason = nullptr) override;
  void Init(const TIntList* ids, const TIntList* extra, TProject* project = nullptr) override;
  void CleanUp() override;
  void DoRemoveData(TData* data) override;
  void DoDataChange(TData* data) override;
  bool IsDataUsed(int32_t id) const override;

  /// Threads of the transforms from the next Init; -1: one per processor.
  int NumberOfThreads = -1;

  /// The working size N of the open tool (0 before the first transform).
  int GetN() const { return FN; }
  /// The hand-drawn marks, N x N in display order (frequency 0 at (N/2, N/2)); non-zero removes the
  /// frequency. Used by "Free Hand"; valid after the first transform.
  std::vector<uint8_t>& DrawField() { return FDrawField; }
  /// The mask the last backward transform used.
  const std::vector<uint8_t>& GetAppliedField() const { return FAppliedField; }
  /// The temporary preview and amplitude images of an interactive tool (0 when none).
  int32_t GetPreviewImageID() const { return FPreviewID; }
  int32_t GetAmplitudeImageID() const { return FAmplitudeID; }
  /// True when the last calculation was cancelled.
  bool GetLastRunCancelled() const { return FLastRunCancelled; }

  /// Forward transform of the source (when not done yet), the pattern, backward transform into the
  /// preview and the amplitude into its image. With "Show Original" the preview shows the source.
  void UpdatePreview();

  /// The wait between a change and the recalculation of the preview.
  static constexpr std::chrono::milliseconds kUpdateWait{250};
  /// The window's timer: started (or started anew) with the wait in milliseconds; when it fires the
  /// window calls UpdateTimerElapsed. Without a timer every change recalculates at once.
  void SetUpdateTimer(std::function<void(int milliseconds)> start) { FStartUpdateTimer = std::move(start); }
  /// A change that needs a new preview (a parameter, the hand-drawn marks): with a timer the wait starts
  /// anew, without one the preview is calculated now. Nothing while Auto Preview is off.
  void RequestPreviewUpdate(TUpdateDelay::TClock::time_point now = TUpdateDelay::TClock::now());
  /// The timer fired: the preview when the wait since the last change is over, else the timer again
  /// for the rest of the wait.
  void UpdateTimerElapsed(TUpdateDelay::TClock::time_point now = TUpdateDelay::TClock::now());
  bool IsPreviewUpdatePending() const { return FUpdateDelay.IsPending(); }
  /// Takes over the marks drawn by hand (N x N flags in display order, as DrawField) and asks for a
  /// new preview; false (nothing changed) when the size isn't N x N or the marks are the same.
  bool SetDrawField(const std::vector<uint8_t>& flags,
                    TUpdateDelay::TClock::time_point now = TUpdateDelay::TClock::now());
  /// The filter type chosen now.
  TFourierFilterType GetFilterType() const;
  /// The number of previews calculated since Init (the backward transforms and the "Show Original"
  /// copies).
  int GetPreviewCount() const { return FPreviewCount; }

  /// Told after Init opened the tool's viewers (the window links them), and after each preview.
  std::function<void()> OnViewersOpened;
  std::function<void()> OnPreviewUpdated;

protected:
  bool DoCommand(const std::string& name) override;
  void DoParameterChanged(const TUserParameterList& changed) override;

private:
  using TPlane = TPartialMemoryArray<TComplex>;
  enum class TPass { Forward, Backward };
  // Per-thread transform objects and the block buffer of the column step.
  struct TThreadWork {
    std::unique_ptr<TFFT> FFT;
    std::vector<TComplex> Block, Column;
    std::vector<float> Line0, Line1, Out;
  };

  TDImage& Source() const;
  /// Sizes, steps, frequency steps and planes for the source; nothing when they are current.
  void PrepareTransform();
  bool CalculateFFTMultiCore();
  bool CalculateBackFFTMultiCore(TDImage& result);
  void RunThreads(TPass pass, TDImage* result);
  void DoFFT(TMCC* mcc, int threadIndex);
  void DoBackFFT(TMCC* mcc, int threadIndex);
  /// Column step: every column of blocks first..last transformed from `from` into `to`; masked
  /// frequencies (backward) are set to 0 on the way.
  void TransformColumnBlocks(TThreadWork& work, const TPlane& from, TPlane& to, int threadIndex, int threads,
                             bool inverse, bool applyMask);
  void CalculateDrawField();
  void FillFFTImage(TDImage& image) const;
  void ExtractFFTAmplitudeImage();

  std::unique_ptr<TMCC> FMCC;
  int32_t FSourceID = 0;
  int FN = 0;
  int FSizeX = 0, FSizeY = 0;
  double FStepX = 1, FStepY = 1;                   // sampling steps in source pixels
  double FFrequencyStepX = 1, FFrequencyStepY = 1; // 1/µm per frequency index
  std::unique_ptr<TPlane> FSpectrum, FWork;
  bool FSpectrumValid = false;
  std::vector<uint8_t> FDrawField, FAppliedField;
  std::vector<TThreadWork> FThreadWork;
  TPass FPass = TPass::Forward;
  TDImage* FRunResult = nullptr;
  const TDImage* FRunSource = nullptr;
  std::atomic<bool> FNonFinite{false};
  int32_t FPreviewID = 0, FAmplitudeID = 0;
  bool FLastRunCancelled = false;
  bool FInCalculation = false;
  TUpdateDelay FUpdateDelay{kUpdateWait};
  std::function<void(int)> FStartUpdateTimer;
  int FPreviewCount = 0;
};

void RegisterImageFourierFilter(TToolRegistry& registry);
