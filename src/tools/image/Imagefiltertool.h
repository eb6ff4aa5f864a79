// Image Filter: one of nine neighbourhood filters on each input image, one result per image (Sobel: one
// per chosen output), with a live preview of the current image. The lines of an image are shared out
// between the tool's threads; filters of two passes meet at a barrier between them. Custom kernels can
// be kept in small tag files of their own.
#pragma once

#include "common/numerics/Anisotropicsmoothing.h"
#include "common/numerics/Imagefilters.h"
#include "project/Processingdialogforms.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class TToolRegistry;

// --- Custom filter files ---------------------------------------------------------------------------------

/// A user kernel: half width Size (1..3), the divisor and (2 Size + 1)^2 coefficients, top row first.
struct TCustomImageFilter {
  int32_t Size = 1;
  double Divisor = 1.0;
  std::vector<double> Buffer;
};

inline constexpr const char* kCustomImageFilterIdentification = "ORX_UICF";
inline constexpr const char* kCustomImageFilterRootTag = "OrvexUserImageFilter";
inline constexpr const char* kCustomImageFilterSaveFailed = "Save failed !";
inline constexpr const char* kCustomImageFilterLoadFailed = "Load failed !";

/// Writes filter to fileName; empty on success, else kCustomImageFilterSaveFailed (also for a filter whose
/// size, divisor or coefficient count is not usable).
std::string SaveCustomImageFilter(const std::string& fileName, const TCustomImageFilter& filter);
/// Reads a filter; empty on success, else kCustomImageFilterLoadFailed (wrong identification, a missing or
/// short tag, a size out of range, a divisor of 0, a file cut short). filter is untouched on failure.
std::string LoadCustomImageFilter(const std::string& fileName, TCustomImageFilter& filter);
/// The files of folder that carry the custom filter identification, full paths, sorted by name.
std::vector<std::string> ListCustomImageFilters(const std::string& folder);
/// Numbers separated by blanks, commas, semicolons or line breaks. False with a problem text naming the
/// first token that is not a finite number.
bool ParseFilterCoefficients(const std::string& text, std::vector<double>& values, std::string& problem);

// --- The tool ----------------------------------------------------------------------------------------------

class TImageFilterForm : public TProjectImageProcessingDialogForm {
public:
  static constexpr const char* kClassName = "TImageFilterForm";
  /// The group tag of GetDialogParameters: every parameter below it as "ImageFilterDialog|<name>".
  static constexpr const char* kDialogTag = "ImageFilterDialog";
  /// The commands of the anisotropic page's presets.
  static constexpr const char* kSmallStructures = "Small Structures";
  static constexpr const char* kLargeStructures = "Large Structures";
  /// The texts of the failures the user sees.
  static constexpr const char* kCalculationError =
      "Calculation Error.\nPossible reason: images contain extreme large/small values.";
  static constexpr const char* kNotCalibrated =
      "At least one Space Transformation is not calibrated.\nThe result can not be calibrated after extract";

  TImageFilterForm();
  ~TImageFilterForm() override;
  std::string GetClassNameA() const override { return kClassName; }
  static TParameterTable& Declaration();

  /// The filter as the parameters stand (Sobel output: the preview choice). The custom kernel comes from
  /// the custom filter file when one is named, else from the coefficient text; raises OrvexException
  /// naming the parameter or file when it can't be read.
  TImageFilterParameters GetFilterParameters() const;
  /// The Sobel images the parameters ask for, in the order Gx, Gy, G, Theta.
  std::vector<TSobelOutput> GetChosenSobelOutputs() const;
  /// The caption suffix of a result of the filter p (for Sobel, of p's output).
  static std::string CaptionSuffix(const TImageFilterParameters& p);
  /// Sets the anisotropic page to a preset: P1, P2, DeltaT, Sigma and the number of iterations.
  void ApplyAnisotropicPreset(const std::string& preset);

  /// The custom page's kernel into a custom filter file, and back into the page (size, divisor and the
  /// coefficient text). False, with "Save failed !" / "Load failed !" told to the user, on failure.
  bool SaveCustomFilter(const std::string& fileName);
  bool LoadCustomFilter(const std::string& fileName);
  /// The user image filter folder, where the window saves custom filters and lists them from.
  static std::string UserFilterFolder();
  /// The custom filter files of that folder (by their identification, sorted).
  static std::vector<std::string> GetUserFilterFiles();

  std::vector<std::string> GetExtractCommands() const override;
  void GetDialogParameters(TTagControl& tag) override;
  void SetDialogParameters(const TTagControl& tag) override;

  /// How many times a run went on pixel based because "Space based" met an uncalibrated image.
  int GetUncalibratedWarnings() const { return FUncalibratedWarnings; }

protected:
  bool DoCommand(const std::string& name) override;
  void PreCalculate(TImageList& inputs, TImageList& results) override;
  void CalculateThread(TMCC* mcc, int threadIndex, TImageList& inputs, TImageList& results) override;
  void PostCalculate(TImageList& inputs, TImageList& results) override;

private:
  // One output image of one input: its values and line flags, the filter that fills them, the result.
  struct TOutput {
    std::vector<float> Values;
    std::unique_ptr<bool[]> LineValid;
    std::unique_ptr<TImageFilter> Filter;
    TDImage* Result = nullptr;
  };
  // One input image's work.
  struct TJob {
    TDImage* Input = nullptr;
    int SizeX = 0, SizeY = 0;
    std::vector<float> Values;
    std::unique_ptr<bool[]> LineValid;
    std::vector<TOutput> Outputs;
    std::unique_ptr<TAnisotropicImageSmoothing> Smoothing;
  };

  void PrepareJob(TJob& job, const TImageFilterParameters& p, const std::vector<TSobelOutput>& outputs,
                  TImageList& results);
  /// The pixel steps of a "Space based" Sobel run on image (1, 1 with a warning when uncalibrated).
  void SpaceSteps(const TDImage& image, double& stepX, double& stepY);

  std::vector<TJob> FJobs;
  TImageFilterKind FKind = TImageFilterKind::Average;
  int FUncalibratedWarnings = 0;
};

void RegisterImageFilter(TToolRegistry& registry);
