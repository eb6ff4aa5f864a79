// Filter data objects: a reduction of each spectrum of a graph to a few numbers over a range of its
// spectral axis, with an optional linear background from pixels beside the range. Applied to all spectra,
// each result parameter gives one value per pixel, which a caller writes into a target image.
//
// A caller runs SetFieldSize, SetXPosition for each pixel, PrepareCalculation, then Calculation once per
// spectrum, reading GetParameter(i) for each output, and finally PostpareCalculation. An object serves one
// thread at a time (the working state lives inside it); parallel callers take one CloneForCalculation each.
#pragma once

#include "common/numerics/Filterreductions.h"
#include "data/Dcustom.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class TChiSqrMinimizer;
class TDGraph;
enum class TGraphFilterRangeStatus;

/// The group of filter objects in the project's lists.
inline constexpr int32_t kFilterDataCategory = 1;

/// Kinds of a filter input.
enum class TFIPType : int32_t { Float = 0, Integer = 1 };

/// One input of a filter: caption, kind, value and limits.
struct TFilterInputParameter {
  std::string Caption;
  TFIPType FIPType = TFIPType::Integer;
  double FIPFloat = 0, FIPMinFloat = 0, FIPMaxFloat = 0;
  int32_t FIPInteger = 0, FIPMinInteger = 0, FIPMaxInteger = 0;
  bool FIPBoolean = false;
};

/// What an output's value measures, which decides its unit.
enum class TFilterOutputUnit {
  Intensity,
  Axis,
  Percent,
  IntensityTimesAxis,
  IntensityPerAxis,
  IntensityPerAxisSquared,
  None
};

/// Base of the filter objects: range, unit, inputs, outputs with their target objects, and the working
/// state of one run.
class TDFilter : public TData {
public:
  static constexpr int32_t ThisVersion = 0;
  /// Index of the inputs every filter has first: the background pixel counts on each side.
  static constexpr int kLowerBackgroundInput = 0, kUpperBackgroundInput = 1;

  TDFilter();
  ~TDFilter() override;
  bool InheritsFrom(std::string_view className) const override {
    return className == "TDFilter" || TData::InheritsFrom(className);
  }

  // --- Operations of the data object -----------------------------------------------------------

  int32_t GetDataCategory() const override { return kFilterDataCategory; }
  TTagError SaveDataToTagFile(TFileHandle file) override;
  /// Reads range, unit, outputs' targets and the inputs' values. The class's inputs prevail: a file with
  /// fewer inputs leaves the rest at their defaults, values are clamped into the class's limits.
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  /// A removed target clears its link; a removed source or input graph clears that ID.
  void DataChanged(TData* sender, TDataChangeInfo info) override;
  bool IsDataUsed(int32_t id) const override;
  void AddToID(int32_t delta) override;
  void CleanWrongDataConnections() override;
  void ExchangeID(int32_t oldID, int32_t newID) override;
  std::vector<std::pair<std::string, int32_t>> GetReferencedIDs() const override;

  // --- The calculation -------------------------------------------------------------------------

  /// Computes every output for one spectrum of the field length set by SetFieldSize.
  virtual void Calculation(const float* spectrum) = 0;
  /// Clamps start and stop to the field and orders them; keeps the units of values and of the axis.
  /// Throws when no field is set.
  virtual void PrepareCalculation(int32_t start, int32_t stop, const std::string& intensityUnit,
                                  const std::string& axisUnit);
  /// The whole set-up for the spectra of a graph: the field from its length, the x positions on its axis in
  /// the filter's unit, start and stop from the range (the pixels whose position lies inside it, or the one
  /// nearest its centre when it is narrower than a step), the units of values and axis, and the graph as
  /// input. Prepares nothing when the range lies wholly off the axis or the axis can't express the unit;
  /// the status says which.
  TGraphFilterRangeStatus PrepareCalculationForGraph(const TDGraph& graph);
  /// Frees the x positions, sets the field length 0 and clears the changed flag.
  virtual void PostpareCalculation();
  /// Clears every target link.
  virtual void CleanOutputIDs();
  /// Caption of output i; empty outside.
  virtual std::string GetParameterCaption(int32_t i) const;
  /// Unit of output i from the units given to PrepareCalculation; empty outside.
  virtual std::string GetZUnit(int32_t i) const;

  /// A new object of the same class with the same range, inputs, field and prepared state, for another
  /// thread; not in any project.
  std::unique_ptr<TDFilter> CloneForCalculation() const;

  // --- Range, unit, outputs, inputs --------------------------------------------------------------

  /// Stores the range in the unit of UnitIndex; the changed flag is set only when a value differs.
  void SetRange(double lower, double upper);
  double GetRange(int i) const { return FRange[i == 0 ? 0 : 1]; }
  void SetUnitIndex(int32_t index) { FUnitIndex = index; }
  int32_t GetUnitIndex() const { return FUnitIndex; }
  bool IsChanged() const { return FChanged; }

  int32_t GetParameterCount() const { return static_cast<int32_t>(FParameters.size()); }
  /// Output i of the last Calculation; 0 outside.
  double GetParameter(int32_t i) const;
  int32_t GetTargetID(int32_t i) const;
  void SetTargetID(int32_t i, int32_t id);
  /// Cuts the link to a target object; true when there was one.
  bool RemoveFilterDataLink(int32_t targetID);
  /// The linked targets that are images or graphs in the project, in output order.
  TIntList GetLinkedFilterData() const;

  int32_t GetInputParameterCount() const { return static_cast<int32_t>(FInputs.size()); }
  const TFilterInputParameter& GetInput(int32_t i) const;
  /// Sets an input's value, clamped into its limits; wrong index or kind throws.
  void SetInputFloat(int32_t i, double value);
  void SetInputInteger(int32_t i, int32_t value);

  // --- Working state of one run --------------------------------------------------------------------

  void SetFieldSize(int32_t length);
  int32_t GetFieldSize() const { return FFieldLength; }
  void SetXPosition(int32_t i, double x);
  double GetXPosition(int32_t i) const;
  int32_t GetStartIndex() const { return FStart; }
  int32_t GetStopIndex() const { return FStop; }
  /// The background of the last Calculation.
  const TFilterBackground& GetBackground() const { return FBackground; }
  void SetIDs(int32_t inputID, int32_t sourceID) {
    FInputID = inputID;
    FSourceID = sourceID;
  }
  void GetIDs(int32_t& inputID, int32_t& sourceID) const {
    inputID = FInputID;
    sourceID = FSourceID;
  }

protected:
  /// An empty object of the same class (CloneForCalculation fills it).
  virtual std::unique_ptr<TDFilter> CreateSameKind() const = 0;
  /// Sets the outputs: captions and units; results are 0 and target links 0.
  void DefineOutputs(std::vector<std::string> captions, std::vector<TFilterOutputUnit> units);
  void AddFloatInput(const std::string& caption, double value, double minimum, double maximum);
  void AddIntegerInput(const std::string& caption, int32_t value, int32_t minimum, int32_t maximum);
  double InputFloat(int32_t i) const { return FInputs[static_cast<size_t>(i)].FIPFloat; }
  int32_t InputInteger(int32_t i) const { return FInputs[static_cast<size_t>(i)].FIPInteger; }
  /// The spectrum over the prepared range with its background from the first two inputs.
  TFilterField MakeField(const float* spectrum);
  void SetParameter(int32_t i, double value) { FParameters[static_cast<size_t>(i)] = value; }
  void ClearParameters();
  bool IsPrepared() const { return FPrepared; }
  /// Writes the class's own list tag with its version (after the base's tags).
  TTagError SaveOwnTag(TFileHandle file, const char* className);

private:
  double FRange[2] = {0, 0};
  int32_t FUnitIndex = -1;
  bool FChanged = false;
  std::vector<double> FParameters;
  TIntList FTargetIDs;
  std::vector<std::string> FOutputCaptions;
  std::vector<TFilterOutputUnit> FOutputUnits;
  std::vector<TFilterInputParameter> FInputs;

  int32_t FStart = 0, FStop = 0, FFieldLength = 0;
  bool FPrepared = false;
  std::vector<double> FX;
  TFilterBackground FBackground;
  int32_t FInputID = 0, FSourceID = 0;
  std::string FIntensityUnit, FAxisUnit;
};

/// Declares the class plumbing of a filter class: its stored name, factory and CreateSameKind.
#define ORVEX_FILTER_CLASS(ClassName)                                                                        \
  ORVEX_DATA_CLASS(ClassName, TDFilter)                                                                      \
protected:                                                                                                   \
  std::unique_ptr<TDFilter> CreateSameKind() const override {                                                \
    return std::make_unique<ClassName>();                                                                    \
  }                                                                                                          \
                                                                                                             \
public:

/// Sum of the range less pixel count times mean background.
class TDSumFilter : public TDFilter {
  ORVEX_FILTER_CLASS(TDSumFilter)
  TDSumFilter();
  TTagError SaveDataToTagFile(TFileHandle file) override;
  void Calculation(const float* spectrum) override;
};

/// Mean of the range less mean background.
class TDAverageFilter : public TDFilter {
  ORVEX_FILTER_CLASS(TDAverageFilter)
  TDAverageFilter();
  TTagError SaveDataToTagFile(TFileHandle file) override;
  void Calculation(const float* spectrum) override;
};

/// Minimum and maximum of the values less background, and their positions.
class TDMinMaxFilter : public TDFilter {
  ORVEX_FILTER_CLASS(TDMinMaxFilter)
  TDMinMaxFilter();
  TTagError SaveDataToTagFile(TFileHandle file) override;
  void Calculation(const float* spectrum) override;
};

/// Centre of mass of the values less background; 0 when they sum to exactly 0.
class TDCenterOfMassFilter : public TDFilter {
  ORVEX_FILTER_CLASS(TDCenterOfMassFilter)
  TDCenterOfMassFilter();
  TTagError SaveDataToTagFile(TFileHandle file) override;
  void Calculation(const float* spectrum) override;
};

/// Width of the range's peak at "Level [%]:" of its height.
class TDWidthFilter : public TDFilter {
  ORVEX_FILTER_CLASS(TDWidthFilter)
  TDWidthFilter();
  TTagError SaveDataToTagFile(TFileHandle file) override;
  void Calculation(const float* spectrum) override;
};

/// A parabola through the pixels within "Width:" around the range's peak.
class TDParabolicFilter : public TDFilter {
  ORVEX_FILTER_CLASS(TDParabolicFilter)
  TDParabolicFilter();
  TTagError SaveDataToTagFile(TFileHandle file) override;
  void Calculation(const float* spectrum) override;
};

/// The least-squares fit shared by the Gauss, Lorentz and exponential filters: the minimizer and the
/// arrays of the range, made by Prepare.
class TFilterFit {
public:
  TFilterFit();
  ~TFilterFit();
  /// Makes the minimizer for the model and arrays for count points; sigma is 1 throughout.
  void Prepare(int numberOfParameters, int count, double tolerance, int iterations, bool gauss, bool lorentz);
  void Release();
  /// Fits the values less background of the range; false when the range has fewer pixels than the
  /// model has parameters (nothing is fitted then).
  bool Fit(const TFilterField& field);
  const TChiSqrMinimizer* Minimizer() const { return FMinimizer.get(); }
  /// sqrt(chi-square / number of points) of the last fit.
  double Error() const;

private:
  std::unique_ptr<TChiSqrMinimizer> FMinimizer;
  std::vector<double> FX, FY, FSigma;
};

/// A Gaussian on an offset fitted to the range.
class TDGaussFilter : public TDFilter {
  ORVEX_FILTER_CLASS(TDGaussFilter)
  TDGaussFilter();
  TTagError SaveDataToTagFile(TFileHandle file) override;
  void PrepareCalculation(int32_t start, int32_t stop, const std::string& intensityUnit,
                          const std::string& axisUnit) override;
  void PostpareCalculation() override;
  void Calculation(const float* spectrum) override;

private:
  TFilterFit FFit;
};

/// A Lorentzian on an offset fitted to the range.
class TDLorentzFilter : public TDFilter {
  ORVEX_FILTER_CLASS(TDLorentzFilter)
  TDLorentzFilter();
  TTagError SaveDataToTagFile(TFileHandle file) override;
  void PrepareCalculation(int32_t start, int32_t stop, const std::string& intensityUnit,
                          const std::string& axisUnit) override;
  void PostpareCalculation() override;
  void Calculation(const float* spectrum) override;

private:
  TFilterFit FFit;
};

/// An exponential decay y0 + A exp(-x/t) fitted to the range. Four outputs (intensity, decay constant,
/// offset, error) or, with the validity output, five: "Valid" is 1 for a fit that ended well, else 0.
class TDExponentialFilter : public TDFilter {
  ORVEX_FILTER_CLASS(TDExponentialFilter)
  TDExponentialFilter();
  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  void PrepareCalculation(int32_t start, int32_t stop, const std::string& intensityUnit,
                          const std::string& axisUnit) override;
  void PostpareCalculation() override;
  void Calculation(const float* spectrum) override;
  /// Switches the "Valid" output on or off (target links of the kept outputs stay).
  void SetValidOutput(bool on);
  bool HasValidOutput() const { return GetParameterCount() == 5; }

private:
  TFilterFit FFit;
};

/// Straight-line regression over the range: offset, slope and correlation. Not created by name.
class TDLinearRegressionFilter : public TDFilter {
  ORVEX_FILTER_CLASS(TDLinearRegressionFilter)
  TDLinearRegressionFilter();
  TTagError SaveDataToTagFile(TFileHandle file) override;
  void Calculation(const float* spectrum) override;
};

/// Registers the filter classes that files name (all but the linear regression).
void RegisterFilterClasses();
