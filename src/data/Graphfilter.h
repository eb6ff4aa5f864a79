// Graph filters: one reduction of every spectrum of a graph to a single number over a range of its spectral
// axis, the working form behind the filter viewer. The range is a position and a width in a unit of the
// axis; it selects the pixels whose axis value lies inside it. The reductions are those of the filter data
// objects (common/numerics/Filterreductions).
#pragma once

#include "common/Tagcontrol.h"
#include "common/numerics/Filterreductions.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class IDataProject;
class TDGraph;

/// What a graph filter computes.
enum TGraphFilterKind : int32_t {
  gfkSum = 0,
  gfkAverage = 1,
  gfkMinimum = 2,
  gfkMaximum = 3,
  gfkPosMinimum = 4,
  gfkPosMaximum = 5,
  gfkPosition = 6,
  gfkWidth = 7,
  gfkAvgMin = 8,
  gfkStdDeviation = 9,
};
inline constexpr int32_t kGraphFilterKindCount = 10;

/// "Average", "Minimum", ... "Std. Deviation"; the sum is "Sum" in context and empty in the filter list;
/// "Unknown" for any other value.
std::string GetFilterKindCaption(int32_t kind, bool inContext = true);

/// The background of one spectrum, one per thread.
using TGraphFilterBackgroundInfo = TFilterBackground;

/// The settings of one graph filter, as the user edits them and as they are stored.
struct TGraphFilterInfo {
  int32_t FilterKind = gfkSum;
  std::string FilterCaption = "Unknown";
  double FilterPosition = 0; ///< centre of the range, in the unit of UnitIndex
  double FilterWidth = 0;    ///< the range is [position - width/2, position + width/2]
  int32_t LowerBGPixels = 4, UpperBGPixels = 4;
  int32_t UnitKind = 0;   ///< the unit kind of the axis the range refers to (0: not known yet)
  int32_t UnitIndex = -1; ///< -1: the axis's current unit
  double WidthFilterLevelPercentage = 50;

  /// Background is subtracted exactly when some background pixels are asked for.
  bool UseBackground() const { return LowerBGPixels + UpperBGPixels > 0; }
  void CopyTo(TGraphFilterInfo& target) const { target = *this; }
  bool operator==(const TGraphFilterInfo&) const = default;
  /// Empty when the settings can be used, else a line naming the first bad one: an unknown kind, a
  /// position or width that isn't finite, a negative width, background counts outside 0 to 16, a level
  /// outside (0, 100).
  std::string Problem() const;
};

/// How the range meets the axis of the input graph.
enum class TGraphFilterRangeStatus {
  Inside,           ///< some pixels lie inside the range
  NarrowerThanStep, ///< none inside, the range lies within the axis: the pixel nearest the position
  OffAxis,          ///< the range lies wholly beyond one end of the axis (the nearest pixel is still set)
  NoInput,          ///< no input graph, or one without spectra
  BadUnit,          ///< the axis can't express the filter's unit
  BadSettings,      ///< see TGraphFilterInfo::Problem
};

/// The positions of a graph's pixels on its spectral axis in one unit, with the units of axis and values.
struct TGraphAxisPositions {
  std::vector<double> X;
  std::string AxisUnit = "Unknown";
  std::string ValueUnit = "Unknown";
};
/// Positions from the graph's spectral transformation in unitIndex of its interpretation (-1: the current
/// unit); an axis without interpretation gives its standard unit, one without transformation pixel
/// indices. False (X empty) for a graph without spectra or outside a project, or when the axis can't
/// express the unit: an index outside its list, or a unitKind (0: any) other than the axis's.
bool GetGraphAxisPositions(const TDGraph& graph, int32_t unitKind, int32_t unitIndex,
                           TGraphAxisPositions& out);
/// The first and last pixel whose position lies in [lower, upper] (closed; the axis may rise or fall).
/// None inside: the pixel nearest the centre, as NarrowerThanStep when the range lies within the axis and
/// OffAxis when it lies wholly beyond one end.
TGraphFilterRangeStatus FindRangePixels(const double* x, int32_t length, double lower, double upper,
                                        int32_t& start, int32_t& stop);

/// One graph filter on one input graph. Settings are edited in the working record (Info); CopyParamsForThread
/// commits them for the calculation, which is const and reentrant: any number of threads may run
/// Calculation at once, each with its own spectrum buffer. Another engine takes a CloneForCalculation.
class TGraphFilter {
public:
  TGraphFilter() = default;
  explicit TGraphFilter(int32_t kind);

  /// The working settings, edited by the user.
  TGraphFilterInfo& Info() { return FInfo; }
  const TGraphFilterInfo& Info() const { return FInfo; }
  /// The committed settings the calculation uses.
  const TGraphFilterInfo& ThreadInfo() const { return FThreadInfo; }
  void SetFilterCaption(const std::string& caption) { FInfo.FilterCaption = caption; }
  std::string GetFilterKindCaption() const { return ::GetFilterKindCaption(FInfo.FilterKind); }

  /// The graph whose spectra are reduced (null: none); takes the axis's unit kind when the filter has none
  /// yet, and asks for a full recalculation.
  void SetNewInputGraph(TDGraph* graph);
  int32_t GetInputGraphID() const { return FGraphID; }
  IDataProject* GetProject() const { return FProject; }

  /// Commits the working settings: x positions in the filter's unit, start and stop pixels, units.
  TGraphFilterRangeStatus CopyParamsForThread();
  /// The axis positions of the input graph's pixels in the committed unit; false without input.
  bool CalculateXPositions();
  /// Start and stop pixels of the committed range over the x positions.
  TGraphFilterRangeStatus CalculateStartStopRanges();
  /// Expresses the working range in another unit of the axis (-1: its current unit): both ends are
  /// converted, so the same pixels stay selected. False, nothing changed, when the axis can't do it.
  bool ChangeUnitIndex(int32_t newIndex);

  /// @{ The calculation on a whole spectrum of GetFieldLength() values.
  TGraphFilterBackgroundInfo GetLowerAndUpperBackground(const float* spectrum) const;
  double GetFieldValueMinusBackGround(const TGraphFilterBackgroundInfo& background, const float* spectrum,
                                      int32_t i) const;
  double Calculation(const float* spectrum) const;
  /// @}
  /// The same on the part of a spectrum that GetPixelRangeNeededByFilter names (values[0] is pixel first);
  /// equal to Calculation for every kind but the width, which needs the whole field.
  double CalculationOfPart(const float* values, int32_t first, int32_t count) const;
  /// The pixels the calculation reads: the range widened by the background pixels on their sides.
  void GetPixelRangeNeededByFilter(int32_t& first, int32_t& count) const;

  int32_t GetStartPixel() const { return FStart; }
  int32_t GetStopPixel() const { return FStop; }
  int32_t GetNumberOfPixels() const { return FStop - FStart + 1; }
  int32_t GetFieldLength() const { return static_cast<int32_t>(FX.size()); }
  const std::vector<double>& GetXPositions() const { return FX; }
  /// Unit of the results: the axis's for positions and widths, the graph's values' otherwise.
  std::string GetResultZUnitString() const;
  /// The unit the committed range is expressed in ("Unknown" before CopyParamsForThread).
  const std::string& GetAxisUnitString() const { return FAxisUnit; }

  /// The value of the last single-spectrum run.
  double GetLastValue() const { return FLastValue; }
  void SetLastValue(double value) { FLastValue = value; }
  bool GetNeedsFullRecalculation() const { return FNeedsFullRecalculation; }
  void SetNeedsFullRecalculation(bool on) { FNeedsFullRecalculation = on; }

  /// A copy with the same settings, input and committed state.
  std::unique_ptr<TGraphFilter> CloneForCalculation() const { return std::make_unique<TGraphFilter>(*this); }

  /// Writes the working settings as tags into the tag open in file.
  TTagError SaveToTagFile(TFileHandle file) const;
  /// Reads the settings from the children of parent; missing tags keep the defaults. The committed record
  /// follows at the next CopyParamsForThread.
  TTagError LoadFromTagFile(TFileHandle file, const TTagControl& parent);

private:
  TFilterField Field(const float* spectrum) const;
  double Reduce(TFilterField& field) const;

  TGraphFilterInfo FInfo, FThreadInfo;
  IDataProject* FProject = nullptr;
  int32_t FGraphID = 0;
  int32_t FStart = 0, FStop = 0;
  std::vector<double> FX;
  double FLastValue = 0;
  bool FNeedsFullRecalculation = true;
  std::string FZUnit = "Unknown", FAxisUnit = "Unknown";
};
