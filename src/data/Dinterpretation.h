// Interpretations: the unit in which the user sees the values of an axis, with the conversions from and to
// the standard unit of its kind (space, inverse space, spectral, time, frequency, phase, Z value).
#pragma once

#include "common/Floatstyle.h"
#include "data/Dcustom.h"

/// The project that owns object; null outside a project.
IDataProject* OwningProject(const TData& object);

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// The physical dimension of an axis.
enum class TUnitKind : int32_t {
  None = 0,
  Space = 1,
  Spectral = 2,
  Time = 3,
  ZValue = 4,
  Frequency = 5,
  InverseSpace = 6,
  Phase = 7,
};

/// "None", "Space", ... for the known kinds, "Unknown Unitkind" for any other value.
std::string GetUnitKindString(TUnitKind kind);
/// The interpretation class of a unit kind ("TDSpaceInterpretation", ...), empty for kind 0 and unknown
/// kinds.
std::string GetInterpretationClassNameForUnitKind(TUnitKind kind);
/// The cursor class of a unit kind ("TDSpaceCursor", ...), empty for kind 0 and unknown kinds.
std::string GetCursorClassNameForUnitKind(TUnitKind kind);

/// How a number is written: general (fixed or scientific, whichever is shorter), scientific, or fixed.

/// Number formatting of an axis: significant digits (precision), digits of the exponent or after the point.
struct TFloatStyle {
  int32_t Precision = 5;
  int32_t Digits = 1;
  TFloatFormat Format = TFloatFormat::General;

  /// The value as text, with "." as decimal separator.
  std::string FormatValue(double value) const;
  bool operator==(const TFloatStyle&) const = default;
};

/// Base of the interpretations: a list of units, the current one, and the conversions by a factor table.
class TDInterpretation : public TData {
  ORVEX_DATA_CLASS(TDInterpretation, TData)
public:
  TDInterpretation();
  static constexpr int32_t ThisVersion = 0;

  int32_t GetDataCategory() const override { return 6; }
  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;

  /// The cursor of this unit kind in the project, made when there is none; 0 without project or kind.
  virtual int32_t MakeOrGetCursorID();
  /// A value in the standard unit converted into unit (-1: the current unit); unknown units leave it as is.
  virtual double StandardTo(double value, int32_t unit = -1) const;
  /// A value in unit (-1: the current unit) converted into the standard unit.
  virtual double ToStandard(double value, int32_t unit = -1) const;
  virtual std::string ValueString(double value) const;
  /// The value, a blank and the current unit.
  virtual std::string ValueUnitString(double value) const;
  virtual std::string ValueUnitString(double value, int32_t unit) const;
  /// The name of unit; "a.u." outside the list.
  virtual std::string UnitString(int32_t unit) const;
  /// Hook after the float style changed.
  virtual void FloatStyleChange(TDInterpretation* /*sender*/) {}
  /// Takes over all parameters of source (same class) except ID, caption and history.
  virtual void CopyParametersFrom(const TDInterpretation& source);

  /// Stores a different index that lies in the list; any different index reports a data change.
  void SetUnitIndex(int32_t index);
  int32_t GetUnitIndex() const { return FUnitIndex; }
  int32_t GetStandardUnitIndex() const { return FStandardUnitIndex; }
  TUnitKind GetUnitKind() const { return FUnitKind; }
  const std::vector<std::string>& GetUnits() const { return FUnits; }
  int32_t GetNumberOfUnits() const { return static_cast<int32_t>(FUnits.size()); }
  void SetFloatStyle(const TFloatStyle& style);
  const TFloatStyle& GetFloatStyle() const { return FFloatStyle; }
  /// The "Units" command: the chosen entry becomes the current unit.
  void ChangeUnitsClick(int32_t item) { SetUnitIndex(item); }

protected:
  /// Sets the unit list with the factors from the standard unit and their written reciprocals.
  void SetUnitTable(TUnitKind kind, std::vector<std::string> units, std::vector<double> factors,
                    std::vector<double> inverseFactors, int32_t standardIndex);
  int32_t ResolveUnit(int32_t unit) const { return unit == -1 ? FUnitIndex : unit; }

  std::vector<std::string> FUnits;
  TUnitKind FUnitKind = TUnitKind::None;
  int32_t FStandardUnitIndex = 0;
  int32_t FUnitIndex = 0;
  TFloatStyle FFloatStyle;
  std::vector<double> FFactors;
  std::vector<double> FInverseFactors;
};

class TDSpaceInterpretation : public TDInterpretation {
  ORVEX_DATA_CLASS(TDSpaceInterpretation, TDInterpretation)
public:
  TDSpaceInterpretation();
};

class TDInverseSpaceInterpretation : public TDInterpretation {
  ORVEX_DATA_CLASS(TDInverseSpaceInterpretation, TDInterpretation)
public:
  TDInverseSpaceInterpretation();
};

class TDTimeInterpretation : public TDInterpretation {
  ORVEX_DATA_CLASS(TDTimeInterpretation, TDInterpretation)
public:
  TDTimeInterpretation();
};

class TDFrequencyInterpretation : public TDInterpretation {
  ORVEX_DATA_CLASS(TDFrequencyInterpretation, TDInterpretation)
public:
  TDFrequencyInterpretation();
};

class TDPhaseInterpretation : public TDInterpretation {
  ORVEX_DATA_CLASS(TDPhaseInterpretation, TDInterpretation)
public:
  TDPhaseInterpretation();
};

/// Spectral axis: nm, µm, absolute and relative wavenumbers and energies against the excitation wavelength.
class TDSpectralInterpretation : public TDInterpretation {
  ORVEX_DATA_CLASS(TDSpectralInterpretation, TDInterpretation)
public:
  TDSpectralInterpretation();
  static constexpr int32_t ThisVersion = 0;

  /// Unit indices of the spectral list.
  enum TSpectralUnit : int32_t {
    suNanometer = 0,
    suMicrometer = 1,
    suWavenumber = 2,
    suRelativeWavenumber = 3,
    suElectronVolt = 4,
    suMilliElectronVolt = 5,
    suRelativeElectronVolt = 6,
    suRelativeMilliElectronVolt = 7,
  };
  static constexpr double kWavenumberConstant = 1e7;              ///< nm per 1/cm
  static constexpr double kPlanckTimesC = 1.2398424468024267e-06; ///< h c in eV m
  static constexpr double kElectronVoltNanometer = kPlanckTimesC * 1e9;
  static constexpr double kMilliElectronVoltNanometer = kPlanckTimesC * 1e12;

  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  double StandardTo(double value, int32_t unit = -1) const override;
  double ToStandard(double value, int32_t unit = -1) const override;
  void CopyParametersFrom(const TDInterpretation& source) override;

  /// Stores a different wavelength (nm) and reports a data change.
  void SetExcitationWaveLength(double value);
  double GetExcitationWaveLength() const { return FExcitationWaveLength; }

private:
  double FExcitationWaveLength = 532.0;
};

/// Values of an image or graph: one free unit name, never converted.
class TDZInterpretation : public TDInterpretation {
  ORVEX_DATA_CLASS(TDZInterpretation, TDInterpretation)
public:
  TDZInterpretation();
  static constexpr int32_t ThisVersion = 0;

  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  double StandardTo(double value, int32_t /*unit*/ = -1) const override { return value; }
  double ToStandard(double value, int32_t /*unit*/ = -1) const override { return value; }
  void CopyParametersFrom(const TDInterpretation& source) override;

  void SetUnitName(const std::string& name);
  const std::string& GetUnitName() const { return FUnits[0]; }
};

// --- Helpers ---------------------------------------------------------------------------------------

/// The first Z interpretation of the project whose unit is exactly unit; 0 when there is none.
int32_t GetStandardZInterpretation(const IDataProject& project, const std::string& unit);
/// Tries firstName, then secondName as unit; otherwise makes and adds a Z interpretation with the caption
/// firstName and the unit secondName. Returns its ID.
int32_t GetOrMakeStandardZInterpretation(IDataProject& project, const std::string& firstName,
                                         const std::string& secondName);
/// Same class, and for spectral ones the same excitation, for Z ones the same unit; the unit index is
/// ignored.
bool IsInterpretationEqualWithoutUnitIndex(const IDataProject& project, int32_t a, int32_t b);
/// A new object of the source's class with its parameters and a new ID; not added to the project.
/// Null when the class can't be made.
std::unique_ptr<TDInterpretation> MakeAndCopyInterpretation(IDataProject& project, TDataSaveMode saveMode,
                                                            const TDInterpretation& source);
/// The same by ID; the copy is added to the project. Returns its ID, 0 when source isn't an interpretation.
int32_t MakeAndCopyInterpretation(IDataProject& project, TDataSaveMode saveMode, int32_t sourceID);

/// Registers the interpretation classes in the fixed order of the registry.
void RegisterInterpretationClasses();
