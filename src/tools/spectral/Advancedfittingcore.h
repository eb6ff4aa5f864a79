// Fitting of one fit function to every spectrum of a graph stack on all processor cores: the settings of
// each fit parameter, the fit mask and its data reduction, the per-thread fit loop over contiguous element
// ranges, the paged result arrays, and the images made from them (values, errors, chi-square, fail mask)
// with the fit curves. Knows nothing of windows; the fitting tool and the command line drive it.
#pragma once

#include "common/memory/Partialmemoryarraytemplate.h"
#include "common/numerics/Fitfunctions.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class IDataProject;
class IProgressAndCancel;
class IProgressView;
class TDGraph;
class TDImage;
class TMCC;

/// The settings of one fit parameter as the fitting tool's parameter table shows them. Values are in the
/// fit function's own (native) form, the form its parameter list holds.
struct TAdvancedFitParamSettings {
  std::string Name; ///< the parameter's short name
  double StartValue = 0;
  double Value = 0;
  bool Vary = true;
  bool HasLowerLimit = false;
  double LowerLimit = 0;
  bool HasUpperLimit = false;
  double UpperLimit = 0;
  /// Every spectrum starts from its own estimate of this parameter instead of StartValue.
  bool Auto = false;
  bool ExtractValue = true;
  bool ExtractError = true;
  /// What the value image shows for a spectrum whose fit failed (the error image shows -1).
  double ValueIfFitFails = std::numeric_limits<double>::quiet_NaN();
  /// The stage of a staged fit in which this parameter starts to vary (0 the first). A fit runs one
  /// stage per distinct value among the varied rows, in rising order: stage k varies the rows of order
  /// up to k, the others stay at their start values (or estimates), and each stage starts from the
  /// values the one before found. The last stage varies every varied row, so values, errors and
  /// chi-square are those of a full fit, reached by a path the user chose (a peak's height and width
  /// settled before its position, say). All rows of one order: the plain single fit.
  int FitOrder = 0;
};

/// @{ "Fit Sooner" and "Fit Later" on row index: the row moves one stage earlier (a row already in the
/// first stage gets a stage of its own before all others) or one stage later (a row alone in the last
/// stage stays). The orders are renumbered 0, 1, 2 ... without gaps afterwards. False when index is no row.
bool FitSooner(std::vector<TAdvancedFitParamSettings>& rows, int index);
bool FitLater(std::vector<TAdvancedFitParamSettings>& rows, int index);
/// The orders renumbered 0, 1, 2 ... keeping their sequence.
void NormalizeFitOrder(std::vector<TAdvancedFitParamSettings>& rows);
/// @}

/// The even x axis of the fit curve preview: points positions from start to stop (both included).
struct TAdvancedFitPreviewRange {
  static constexpr int kMaxPoints = 1000;
  static constexpr double kLimit = 1e20; ///< start and stop lie within -kLimit .. kLimit
  int Points = kMaxPoints;
  double Start = 0;
  double Stop = 0;
  /// Two points or more, up to kMaxPoints, start and stop finite, within the limit and different.
  bool IsValid() const;
  /// The positions; empty when not valid.
  std::vector<double> Axis() const;
  /// "Reset Range": the whole of a spectral axis (its first and last position, in its direction) with as
  /// many points as it has, at most kMaxPoints. An axis of fewer than two positions gives 0 .. 1.
  static TAdvancedFitPreviewRange FromAxis(const std::vector<double>& axis);
  /// "Listen": the end of the range nearer to the x cursor's position x moves there (the start on a
  /// tie), so that clicking near each end sets the range; the points stay. False (range unchanged) when
  /// x isn't finite, lies outside the limit or on the other end.
  bool FollowCursor(double x);
};

/// @{ Fit mask and data reduction.
/// The mask thinned by reduction k (clamped to 1..10000): in every run of set points the first point and
/// each k-th point after it are kept.
std::vector<bool> CalculateReducedMask(const std::vector<bool>& mask, int dataReduction);
/// Indices of the set points of a mask, in order.
std::vector<int> MaskPointIndices(const std::vector<bool>& mask);
/// @}

/// The multi-core result arrays of one run, in paged memory so that they may exceed main memory. The
/// per-parameter arrays hold parameter p of spectrum e at p + parameters * e.
class TAdvancedFitResultArrays {
public:
  /// Allocates (throws OrvexExceptionMemoryAllocation when the memory strategy refuses) and, with zero,
  /// zeroes. Without, the entries hold whatever the memory held until written: for a run that writes every
  /// entry and drops the arrays when it doesn't finish.
  TAdvancedFitResultArrays(int64_t spectra, int parameters, bool zero = true);
  /// Bytes the arrays of a run take.
  static int64_t BytesNeeded(int64_t spectra, int parameters);
  void ZeroMCI();

  const int64_t Spectra;
  const int Parameters;
  TPartialMemoryArray<double> StartValues;       ///< start values used (estimates or the rows' values)
  TPartialMemoryArray<double> Values;            ///< fitted values, native form
  TPartialMemoryArray<double> Errors;            ///< their errors, native form
  TPartialMemoryArray<double> TransformedValues; ///< values after CopyTransformSortResults
  TPartialMemoryArray<double> TransformedErrors; ///< errors after CopyTransformSortResults
  TPartialMemoryArray<TFitFunctionErrorInfo> ErrorInfo;
  TPartialMemoryArray<bool> FitGood;
};

/// Reads the points first .. first + count - 1 of spectrum element e (e = x + y SizeX) of the stack into
/// values[0 .. count - 1]; false when its line isn't valid. Called from several threads at once.
using TAdvancedFitSpectrumReader = std::function<bool(int64_t element, int first, int count, float* values)>;

/// What every thread of a run shares, read-only.
struct TAdvancedFitInput {
  TFitFunction* Function =
      nullptr; ///< not changed during the run; each thread has its own ThreadPrepare data
  const int* FitPointIndex = nullptr; ///< spectral index of each fit point
  const double* FitX = nullptr;       ///< axis position of each fit point
  int FitPoints = 0;
  /// The fit order of each parameter (see TAdvancedFitParamSettings::FitOrder); null: one stage.
  const int* FitOrder = nullptr;
  int SpectrumLength = 0;
  TAdvancedFitSpectrumReader ReadSpectrum;
  /// When set, each thread also writes the transformed and sorted values and errors of its own elements
  /// (what CopyTransformSortResults(true, true) gives), while they are still at hand.
  bool TransformAndSort = false;
};

/// Per-thread working arrays of the fit loop.
struct TAdvancedFitScratch {
  explicit TAdvancedFitScratch(const TAdvancedFitInput& input);
  std::vector<float> Spectrum;
  std::vector<double> Y, Sigma, Start, Values, Errors;
};

/// Fits the fit points of one spectrum (spectrum holds the whole spectrum, or at least the span of the fit
/// points) with threadData from Function->ThreadPrepare. A spectrum with a non-finite value among its fit
/// points fails without a fit, a fit with non-finite results fails after it; warnings (the iteration limit)
/// count as failures. On failure values and errors are zero and the chi-square in info is NaN. message gets
/// the function's status text. With fit orders of more than one stage the stages run one after the other
/// on the same minimizer (see TAdvancedFitParamSettings::FitOrder); a failed stage fails the spectrum.
bool FitOneSpectrum(const TAdvancedFitInput& input, void* threadData, const float* spectrum,
                    TAdvancedFitScratch& scratch, TFitFunctionErrorInfo& info, std::string& message);

/// The fit loop of one thread: elements first..last, each from its own start values (no seeding from
/// neighbours, so a result never depends on the split). Results go to the disjoint entries of these
/// elements in results. cancelled (may be empty) is asked before each spectrum; after a cancel the entries
/// of the elements not reached keep what they held. progress (may be null) counts the finished elements,
/// a block of them at a time.
/// Returns the number of elements handled; lastMessage (may be null) gets the last status text.
int64_t FitSpectrumRange(const TAdvancedFitInput& input, int64_t first, int64_t last,
                         TAdvancedFitResultArrays& results, const std::function<bool()>& cancelled,
                         std::atomic<int64_t>* progress, std::string* lastMessage);

/// The result of a whole-stack run or of an extraction.
enum class TAdvancedFitStatus { Done, Cancelled, Refused };

/// Statistics of a fit of one spectrum, as the tool shows them beside the fitted parameters.
struct TAdvancedFitPointResult {
  bool FitOK = false;
  std::string Message;
  std::vector<double> Values, Errors; ///< user form, sorted
  std::vector<double> NativeValues;   ///< for drawing the curve
  double ChiSqr = 0;
  int DataPoints = 0;
  int DegreesOfFreedom = 0;
  double ChiSqrPerDoF = 0; ///< NaN when the degrees of freedom are below 1
  double AverageError = 0; ///< sqrt(residual sum of squares / points)
  double RSquared = 0;     ///< 1 - residual / total sum of squares; 0 when the total is about 0
  double ResidualSumOfSquares = 0;
};

/// The statistics lines shown beside a fit, label and text: "Chi^2 / DoF:" (rounded to precision digits,
/// "--------" without degrees of freedom), "Data Points / DoF:", "Average Error:" and "R^2:" (five decimals).
std::vector<std::pair<std::string, std::string>>
AdvancedFitStatisticsText(const TAdvancedFitPointResult& result, int precision);

/// The whole-stack fitting: settings, the run under a calculation controller, and the result objects.
class TAdvancedFittingCore {
public:
  static constexpr const char* kToolName = "Advanced Fitting Tool";

  TAdvancedFittingCore() = default;
  TAdvancedFittingCore(const TAdvancedFittingCore&) = delete;
  TAdvancedFittingCore& operator=(const TAdvancedFittingCore&) = delete;
  ~TAdvancedFittingCore();

  ///@{ The fit function and its parameter rows.
  /// Takes the function and builds one row per parameter from its parameter list (extraction on, NaN for
  /// failures).
  void SetFunction(std::unique_ptr<TFitFunction> function);
  TFitFunction* GetFunction() const { return FFunction.get(); }
  /// Rebuilds the rows after the function's settings changed its parameter list; rows of parameters
  /// with the same short name keep their settings.
  void FunctionParametersChanged();
  std::vector<TAdvancedFitParamSettings>& Rows() { return FRows; }
  const std::vector<TAdvancedFitParamSettings>& Rows() const { return FRows; }
  /// Index of the row of that short name, -1 for none.
  int FindRow(const std::string& name) const;
  /// What is wrong with the rows (a limit outside the limits its parameter allows, a fixed parameter set
  /// to vary, estimation asked where the function has none, lower above upper limit), one text each
  /// naming the row; empty when they can be used.
  std::vector<std::string> CheckRows() const;
  /// Copies the rows into the function's parameter list (after CheckRows found nothing).
  void ApplyRowsToFunction();
  int GetNumberOfVariedParameters() const;
  ///@}

  ///@{ Fit mask, data reduction and the spectral axis.
  /// The spectral axis of the stack (one position per point, the unit the mask speaks of).
  void SetAxis(std::vector<double> axis) { FAxis = std::move(axis); }
  const std::vector<double>& GetAxis() const { return FAxis; }
  /// One flag per spectral point; an empty mask means all points.
  void SetFitMask(std::vector<bool> mask) { FFitMask = std::move(mask); }
  const std::vector<bool>& GetFitMask() const { return FFitMask; }
  int DataReduction = 1; ///< 1..10000
  /// The reduced mask, fit point indices and fit x from mask, reduction and axis (a run calls them).
  void CalculateReducedMask();
  void CalculateCalcFieldX();
  int GetNumberOfFitPoints() const { return static_cast<int>(FFitPointIndex.size()); }
  const std::vector<bool>& GetReducedMask() const { return FReducedMask; }
  const std::vector<double>& GetFitX() const { return FFitX; }
  /// The varied parameters are no more than the fit points.
  bool IsMaskSizeBigEnough() const;
  ///@}

  ///@{ Extraction options.
  bool ExtractChiSqr = true;
  bool ExtractFitFailMask = true;
  bool ExtractFitCurves = false;
  bool ExtractReplica = false;
  /// Fit curves on the input's own axis; off: on the even axis of CurveRange.
  bool ExtractFitCurveWithInputDataSupportingPoints = true;
  /// The axis of the extracted fit curves when they are not on the input's points (the tool's preview
  /// range), in the unit of the input's axis.
  TAdvancedFitPreviewRange CurveRange;
  ///@}

  ///@{ Running.
  /// Calculation threads: -1 as many as allowed.
  int NumberOfThreads = -1;
  /// Progress view of the calculations; null: the process-wide default.
  IProgressView* ProgressView = nullptr;
  /// Asked before every spectrum besides the controller's own cancel (may be null).
  const IProgressAndCancel* ExternalCancel = nullptr;

  /// The estimate of a run over spectra spectra of length points: result arrays, images and curves (of
  /// the curve range's points when not on the input's).
  int64_t EstimateResultBytes(int64_t spectra, int spectrumLength) const;
  /// Refuses (false, message) when the estimate of a run doesn't fit in available bytes.
  bool IsEnoughMemoryAvailableForExtractImage(int64_t spectra, int spectrumLength, int64_t available,
                                              std::string& message) const;

  /// Fits every spectrum of the graph: checks mask, rows and memory (Refused, with a one-line message),
  /// creates the result arrays and runs MultiCoreAdvancedFitting, whose threads also transform and sort
  /// their own results as CopyTransformSortResults(true, true) would. A cancel drops the result arrays. The
  /// graph is only read.
  TAdvancedFitStatus FitAll(const TDGraph& graph, std::string& message);
  /// The same on any stack: spectra of spectrumLength points read by reader.
  TAdvancedFitStatus FitAll(int64_t spectra, int spectrumLength, const TAdvancedFitSpectrumReader& reader,
                            std::string& message);
  /// Fits one spectrum of the graph through the same thread routine (the tool's preview and current
  /// spectrum); Refused (message) for an empty mask, bad rows or too few points.
  TAdvancedFitStatus FitSpectrum(const TDGraph& graph, int64_t element, TAdvancedFitPointResult& result,
                                 std::string& message);
  /// Results of the last finished run; null before, after a cancel or after DeleteMCI.
  const TAdvancedFitResultArrays* GetResults() const { return FResults.get(); }
  void DeleteMCI() { FResults.reset(); }
  /// Number of spectra whose fit failed in the last run (invalid lines included).
  int64_t GetNumberOfFailedFits() const;
  const std::string& GetLastStatusMessage() const { return FLastMessage; }
  /// Fills the transformed arrays of every good spectrum from the native ones: with transform the user
  /// form of values and errors, with sort the function's order of its parts.
  void CopyTransformSortResults(bool transform, bool sort);
  ///@}

  ///@{ Result objects from the last run, made from the graph of graphID in project but not added to it;
  /// the caller adds them. Empty after a cancel.
  /// Images of the selected values and errors, chi-square and fail mask, captioned input caption +
  /// " (Fit " + function + ": " + name + ")" and so on. Line validity follows the graph's.
  std::vector<std::unique_ptr<TDImage>> MultiCoreFillImages(IDataProject& project, int32_t graphID,
                                                            TAdvancedFitStatus& status);
  /// A graph of the input's size with the fitted curve of every spectrum on the input's axis, or on the
  /// even axis of CurveRange (a new table transformation added to project) (NaN for failed spectra), and with
  /// ExtractReplica one more per part of a composite function. Caption suffix
  /// ": Curves)" and ": Curves <part>)".
  std::vector<std::unique_ptr<TDGraph>> MultiCoreExtractFitCurve(IDataProject& project, int32_t graphID,
                                                                 TAdvancedFitStatus& status);
  ///@}

  /// The even axis of CurveRange for curves of the graph graphID: its positions (the input's axis unit)
  /// and a new table transformation of them in the input's standard unit, added to project, with the
  /// interpretation the curves take. False when the range isn't valid or doesn't map to the axis.
  bool MakeCurveRangeAxis(IDataProject& project, int32_t graphID, std::vector<double>& axis,
                          int32_t& transformationID, int32_t& interpretationID) const;

  /// " (Fit " + function name + ": " + ending + ")".
  std::string CaptionSuffix(const std::string& ending) const;
  /// The short name of parameter i in the user form.
  std::string UserParameterName(int i) const;

private:
  bool Prepare(std::string& message);
  TAdvancedFitInput MakeInput(int spectrumLength, TAdvancedFitSpectrumReader reader) const;
  /// Runs function on the calculation controller of the tool, with caption; false when cancelled.
  bool RunMultiCore(const std::string& caption, int64_t elements,
                    const std::function<void(TMCC&, int thread, int first, int last)>& function);
  bool IsCancelRequested() const;
  /// Passes an outside cancel on to the controller; true when the threads should end.
  bool ShouldStop(TMCC& mcc) const;

  std::unique_ptr<TFitFunction> FFunction;
  std::vector<TAdvancedFitParamSettings> FRows;
  std::vector<double> FAxis;
  std::vector<bool> FFitMask;
  int FSpectrumLength = 0; ///< of the stack being fitted; an empty mask means all its points
  std::vector<bool> FReducedMask;
  std::vector<int> FFitPointIndex;
  std::vector<double> FFitX;
  std::vector<int> FFitOrder;
  std::unique_ptr<TAdvancedFitResultArrays> FResults;
  std::string FLastMessage;
};
