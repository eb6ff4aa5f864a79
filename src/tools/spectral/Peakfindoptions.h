// Peak finding on graphs: the peaks of the spectrum at a pixel, or with Extract All of every spectrum of
// every input, found in parallel with one search per thread. The result is the peak table: printed as the
// run's report (one peak a line) and kept as a text object "Peak Table (" + caption + ")".
#pragma once

#include "common/numerics/Peakfind.h"
#include "project/Processingdialogforms.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

class TToolRegistry;

/// One row of the peak table: the spectrum (x, y) of graph GraphID and one of its peaks.
struct TPeakTableRow {
  int32_t GraphID = 0;
  int32_t X = 0, Y = 0;
  TPeakInformation Peak;
};

/// The table as text: a header line starting with '#', then one peak a line, fields separated by tabs:
/// x, y, pixel, position, height, smoothedHeight, fwhm, relativeHeight, asymmetry, negative, custom.
std::string FormatPeakTable(const std::vector<TPeakTableRow>& rows);
/// The table as a JSON array of objects with those names (height: the original data's height at the peak).
std::string FormatPeakTableJson(const std::vector<TPeakTableRow>& rows);

class TPeakFindOptionsForm : public TProjectGraphProcessingDialogForm {
public:
  static constexpr const char* kClassName = "TPeakFindOptionsForm";

  TPeakFindOptionsForm();
  ~TPeakFindOptionsForm() override;
  std::string GetClassNameA() const override { return kClassName; }

  /// The parameters of the tool, declared once.
  static TParameterTable& Declaration();
  /// The settings of a search from the current parameters.
  TPeakFindControlStruct GetControl() const;
  /// The rows of the last run (spectra in element order, peaks in pixel order within each).
  const std::vector<TPeakTableRow>& GetPeakTable() const { return FRows; }
  /// The peaks the preview found in the spectrum under the cursor.
  const TPeakInformationList& GetPreviewPeaks() const { return FPreviewPeaks; }
  /// Spectra of the last run skipped because they hold NaN or Inf.
  int64_t GetNotFiniteCount() const { return FNotFinite.load(); }

protected:
  bool DoCommand(const std::string& name) override;
  void DoParameterChanged(const TUserParameterList& changed) override;
  bool PreCalculate(TGraphList& inputs, TGraphList& results) override;
  void CalculateThread(TMCC* mcc, int threadIndex, TGraphList& inputs, TGraphList& results) override;
  void PostCalculate(TGraphList& inputs, TGraphList& results) override;

private:
  struct TJob {
    std::vector<float> Axis; ///< empty: pixel numbers
    TPeakInformationImage Peaks;
    std::vector<int32_t> Elements; ///< the spectra to search
  };

  TPeakFindControlStruct FControl;
  std::vector<TJob> FJobs;
  std::vector<TPeakTableRow> FRows;
  TPeakInformationList FPreviewPeaks;
  std::atomic<int64_t> FNotFinite{0};
  bool FAllSpectra = false;
};

void RegisterPeakFindOptions(TToolRegistry& registry);
