// Interpretations: unit lists, conversions, number formatting and their file form.
#include "data/Dinterpretation.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

IDataProject* OwningProject(const TData& object) {
  return object.GetProject();
}

std::string GetUnitKindString(TUnitKind kind) {
  switch (kind) {
  case TUnitKind::None:
    return "None";
  case TUnitKind::Space:
    return "Space";
  case TUnitKind::Spectral:
    return "Spectral";
  case TUnitKind::Time:
    return "Time";
  case TUnitKind::ZValue:
    return "ZValue";
  case TUnitKind::Frequency:
    return "Frequency";
  case TUnitKind::InverseSpace:
    return "Inverse Space";
  case TUnitKind::Phase:
    return "Phase";
  }
  return "Unknown Unitkind";
}

std::string GetInterpretationClassNameForUnitKind(TUnitKind kind) {
  switch (kind) {
  case TUnitKind::Space:
    return "TDSpaceInterpretation";
  case TUnitKind::Spectral:
    return "TDSpectralInterpretation";
  case TUnitKind::Time:
    return "TDTimeInterpretation";
  case TUnitKind::ZValue:
    return "TDZInterpretation";
  case TUnitKind::Frequency:
    return "TDFrequencyInterpretation";
  case TUnitKind::InverseSpace:
    return "TDInverseSpaceInterpretation";
  case TUnitKind::Phase:
    return "TDPhaseInterpretation";
  default:
    return "";
  }
}

std::string GetCursorClassNameForUnitKind(TUnitKind kind) {
  switch (kind) {
  case TUnitKind::Space:
    return "TDSpaceCursor";
  case TUnitKind::Spectral:
    return "TDSpectralCursor";
  case TUnitKind::Time:
    return "TDTimeCursor";
  case TUnitKind::ZValue:
    return "TDZCursor";
  case TUnitKind::Frequency:
    return "TDFrequencyCursor";
  case TUnitKind::InverseSpace:
    return "TDInverseSpaceCursor";
  case TUnitKind::Phase:
    return "TDPhaseCursor";
  default:
    return "";
  }
}

// ---------------------------------------------------------------------------------------------
// Number formatting

namespace {

// Drops trailing zeros of the fraction, and the point when nothing is left behind it.
std::string StripFractionZeros(std::string text) {
  if (text.find('.') == std::string::npos) return text;
  while (!text.empty() && text.back() == '0') text.pop_back();
  if (!text.empty() && text.back() == '.') text.pop_back();
  return text;
}

std::string ExponentText(int exponent, int digits, bool alwaysSign) {
  std::string text = std::to_string(std::abs(exponent));
  while (static_cast<int>(text.size()) < digits) text.insert(text.begin(), '0');
  if (exponent < 0) return "-" + text;
  return alwaysSign ? "+" + text : text;
}

} // namespace

std::string TFloatStyle::FormatValue(double value) const {
  if (std::isnan(value)) return "NAN";
  if (std::isinf(value)) return value > 0 ? "INF" : "-INF";
  const int precision = std::clamp(Precision, 1, 18);
  const int digits = std::clamp(Digits, 0, 18);
  char buffer[128];
  if (Format == TFloatFormat::Fixed) {
    std::snprintf(buffer, sizeof buffer, "%.*f", digits, value);
    return buffer;
  }
  if (value == 0.0) return Format == TFloatFormat::Exponent ? "0E+" + ExponentText(0, digits, false) : "0";
  // The exponent after rounding to the precision decides between the fixed and the scientific form.
  std::snprintf(buffer, sizeof buffer, "%.*E", precision - 1, value);
  std::string scientific = buffer;
  const size_t e = scientific.find('E');
  const int exponent = std::stoi(scientific.substr(e + 1));
  std::string mantissa = scientific.substr(0, e);
  if (Format == TFloatFormat::Exponent) return mantissa + "E" + ExponentText(exponent, digits, true);
  if (exponent < precision && exponent >= -5) {
    std::snprintf(buffer, sizeof buffer, "%.*f", std::max(0, precision - 1 - exponent), value);
    return StripFractionZeros(buffer);
  }
  return StripFractionZeros(mantissa) + "E" + ExponentText(exponent, digits, false);
}

// ---------------------------------------------------------------------------------------------
// TDInterpretation

TDInterpretation::TDInterpretation() {
  SetSaveMode(TDataSaveMode::WhileUsed);
  SetImageIndex(-1);
}

void TDInterpretation::SetUnitTable(TUnitKind kind, std::vector<std::string> units,
                                    std::vector<double> factors, std::vector<double> inverseFactors,
                                    int32_t standardIndex) {
  FUnitKind = kind;
  FUnits = std::move(units);
  FFactors = std::move(factors);
  FInverseFactors = std::move(inverseFactors);
  FStandardUnitIndex = standardIndex;
  FUnitIndex = standardIndex;
}

int32_t TDInterpretation::MakeOrGetCursorID() {
  const std::string className = GetCursorClassNameForUnitKind(FUnitKind);
  IDataProject* project = OwningProject(*this);
  if (className.empty() || !project) return 0;
  return project->MakeOrGetFirstIDByClassName(className);
}

double TDInterpretation::StandardTo(double value, int32_t unit) const {
  unit = ResolveUnit(unit);
  if (unit < 0 || unit >= static_cast<int32_t>(FFactors.size())) return value;
  return value * FFactors[static_cast<size_t>(unit)];
}

double TDInterpretation::ToStandard(double value, int32_t unit) const {
  unit = ResolveUnit(unit);
  if (unit < 0 || unit >= static_cast<int32_t>(FInverseFactors.size())) return value;
  return value * FInverseFactors[static_cast<size_t>(unit)];
}

std::string TDInterpretation::ValueString(double value) const {
  return FFloatStyle.FormatValue(value);
}

std::string TDInterpretation::ValueUnitString(double value) const {
  return ValueUnitString(value, FUnitIndex);
}

std::string TDInterpretation::ValueUnitString(double value, int32_t unit) const {
  return ValueString(value) + " " + UnitString(unit);
}

std::string TDInterpretation::UnitString(int32_t unit) const {
  if (unit < 0 || unit >= GetNumberOfUnits()) return "a.u.";
  return FUnits[static_cast<size_t>(unit)];
}

void TDInterpretation::SetUnitIndex(int32_t index) {
  if (index == FUnitIndex) return;
  if (index >= 0 && index < GetNumberOfUnits()) FUnitIndex = index;
  // Also an index outside the list reports a change: the menus that offered it redraw.
  DoDataChange(TDataChangeInfo::DataChanged);
}

void TDInterpretation::SetFloatStyle(const TFloatStyle& style) {
  if (style == FFloatStyle) return;
  FFloatStyle = style;
  FloatStyleChange(this);
}

void TDInterpretation::CopyParametersFrom(const TDInterpretation& source) {
  FUnitIndex = source.FUnitIndex;
  FFloatStyle = source.FFloatStyle;
}

TTagError TDInterpretation::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TData::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.WriteTag(file, "TDInterpretation", TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveIntTag(file, "UnitIndex", FUnitIndex)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDInterpretation::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TData::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  int32_t version = 0;
  int32_t unitIndex = 0;
  if ((result = own.FindTag(file, "TDInterpretation", parent)) < 1 ||
      (result = t.LoadIntTag(file, "Version", own, &version)) < 1 ||
      (result = t.LoadIntTag(file, "UnitIndex", own, &unitIndex)) < 1)
    return result;
  if (unitIndex >= 0 && unitIndex < GetNumberOfUnits()) FUnitIndex = unitIndex;
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// Classes with a factor table

TDSpaceInterpretation::TDSpaceInterpretation() {
  SetUnitTable(TUnitKind::Space, {"m", "mm", "µm", "nm", "Å", "pm"}, {1e-6, 0.001, 1, 1000, 10000, 1e6},
               {1e6, 1000, 1, 0.001, 0.0001, 1e-6}, 2);
  SetCaption("Spatial Interpretation");
}

TDInverseSpaceInterpretation::TDInverseSpaceInterpretation() {
  SetUnitTable(TUnitKind::InverseSpace, {"1/m", "1/mm", "1/µm", "1/nm", "1/Å", "1/pm"},
               {1e6, 1000, 1, 0.001, 0.0001, 1e-6}, {1e-6, 0.001, 1, 1000, 10000, 1e6}, 2);
  SetCaption("Inverse Spatial Interpretation");
}

TDTimeInterpretation::TDTimeInterpretation() {
  SetUnitTable(TUnitKind::Time, {"h", "min", "s", "ms", "µs", "ns", "ps", "fs"},
               {1.0 / 3600.0, 1.0 / 60.0, 1, 1e3, 1e6, 1e9, 1e12, 1e15},
               {3600, 60, 1, 1e-3, 1e-6, 1e-9, 1e-12, 1e-15}, 2);
  SetCaption("Temporal Interpretation");
}

TDFrequencyInterpretation::TDFrequencyInterpretation() {
  SetUnitTable(TUnitKind::Frequency, {"µHz", "mHz", "Hz", "kHz", "MHz", "GHz", "THz"},
               {1e6, 1000, 1, 0.001, 1e-6, 1e-9, 1e-12}, {1e-6, 0.001, 1, 1000, 1e6, 1e9, 1e12}, 2);
  SetCaption("Hz Interpretation");
}

TDPhaseInterpretation::TDPhaseInterpretation() {
  SetUnitTable(TUnitKind::Phase, {"rad", "mrad", "°", "grad", "mgrad"},
               {1, 1000, 57.29577951308232, 63.66197723675813, 63661.97723675814},
               {1, 0.001, 0.017453292519943295, 0.015707963267948967, 1.5707963267948967e-05}, 0);
  SetCaption("Phase Interpretation");
}

// ---------------------------------------------------------------------------------------------
// TDSpectralInterpretation

TDSpectralInterpretation::TDSpectralInterpretation() {
  SetUnitTable(TUnitKind::Spectral, {"nm", "µm", "1/cm", "rel. 1/cm", "eV", "meV", "rel. eV", "rel. meV"}, {},
               {}, 0);
  SetImageIndex(1);
  SetCaption("Spectral Interpretation");
}

namespace {
constexpr double kTiny = 1e-34;
bool Usable(double divisor) {
  return std::fabs(divisor) >= kTiny;
}
} // namespace

double TDSpectralInterpretation::StandardTo(double value, int32_t unit) const {
  unit = ResolveUnit(unit); // read once: the index may change on the main thread meanwhile
  const double w = value;
  const double e = FExcitationWaveLength;
  const double k1 = kWavenumberConstant;
  const double eV = kElectronVoltNanometer;
  const double meV = kMilliElectronVoltNanometer;
  switch (unit) {
  case suNanometer:
    return w;
  case suMicrometer:
    return 0.001 * w;
  case suWavenumber:
    return Usable(w) ? k1 / w : value;
  case suRelativeWavenumber:
    return Usable(w) && Usable(e) ? k1 / e - k1 / w : value;
  case suElectronVolt:
    return Usable(w) ? eV / w : value;
  case suMilliElectronVolt:
    return Usable(w) ? meV / w : value;
  case suRelativeElectronVolt:
    return Usable(w) && Usable(e) ? eV / w - eV / e : value;
  case suRelativeMilliElectronVolt:
    return Usable(w) && Usable(e) ? meV / w - meV / e : value;
  default:
    return value;
  }
}

double TDSpectralInterpretation::ToStandard(double value, int32_t unit) const {
  unit = ResolveUnit(unit);
  const double u = value;
  const double e = FExcitationWaveLength;
  const double k1 = kWavenumberConstant;
  const double eV = kElectronVoltNanometer;
  const double meV = kMilliElectronVoltNanometer;
  switch (unit) {
  case suNanometer:
    return u;
  case suMicrometer:
    return 1000.0 * u;
  case suWavenumber:
    return Usable(u) ? k1 / u : value;
  case suRelativeWavenumber:
    return Usable(k1 - u * e) ? e * k1 / (k1 - u * e) : value;
  case suElectronVolt:
    return Usable(u) ? eV / u : value;
  case suMilliElectronVolt:
    return Usable(u) ? meV / u : value;
  case suRelativeElectronVolt:
    return Usable(eV + u * e) ? e / (e * u / eV + 1.0) : value;
  case suRelativeMilliElectronVolt:
    return Usable(meV + u * e) ? e / (e * u / meV + 1.0) : value;
  default:
    return value;
  }
}

void TDSpectralInterpretation::SetExcitationWaveLength(double value) {
  if (value == FExcitationWaveLength) return;
  FExcitationWaveLength = value;
  DoDataChange(TDataChangeInfo::DataChanged);
}

void TDSpectralInterpretation::CopyParametersFrom(const TDInterpretation& source) {
  TDInterpretation::CopyParametersFrom(source);
  if (const auto* spectral = dynamic_cast<const TDSpectralInterpretation*>(&source))
    FExcitationWaveLength = spectral->FExcitationWaveLength;
}

TTagError TDSpectralInterpretation::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TDInterpretation::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveDoubleTag(file, "ExcitationWaveLength", FExcitationWaveLength)) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDSpectralInterpretation::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TDInterpretation::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  int32_t version = 0;
  if ((result = own.FindTag(file, kClassName, parent)) < 1 ||
      (result = t.LoadIntTag(file, "Version", own, &version)) < 1 ||
      (result = t.LoadDoubleTag(file, "ExcitationWaveLength", own, &FExcitationWaveLength)) < 1)
    return result;
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// TDZInterpretation

TDZInterpretation::TDZInterpretation() {
  SetUnitTable(TUnitKind::ZValue, {"a.u."}, {}, {}, 0);
  SetImageIndex(0);
}

void TDZInterpretation::SetUnitName(const std::string& name) {
  if (name == FUnits[0]) return;
  FUnits[0] = name;
  DoDataChange(TDataChangeInfo::DataChanged);
}

void TDZInterpretation::CopyParametersFrom(const TDInterpretation& source) {
  TDInterpretation::CopyParametersFrom(source);
  if (const auto* z = dynamic_cast<const TDZInterpretation*>(&source)) FUnits[0] = z->FUnits[0];
}

TTagError TDZInterpretation::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TDInterpretation::SaveDataToTagFile(file);
  if (result < 1) return result;
  TTagControl own, t;
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveAnsiStringTag(file, "UnitName", FUnits[0])) < 1)
    return result;
  return own.CloseWriteTag(file);
}

TTagError TDZInterpretation::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TDInterpretation::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  int32_t version = 0;
  if ((result = own.FindTag(file, kClassName, parent)) < 1) return result;
  t.LoadOrDefaultIntTag(file, "Version", own, &version, 1, 0);
  t.LoadOrDefaultAnsiStringTag(file, "UnitName", own, FUnits[0], FUnits[0]);
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// Helpers

int32_t GetStandardZInterpretation(const IDataProject& project, const std::string& unit) {
  for (int32_t id : project.GetIDListByClassName(TDZInterpretation::kClassName))
    if (const auto* z = dynamic_cast<const TDZInterpretation*>(project.FindData(id));
        z && z->GetUnitName() == unit)
      return id;
  return 0;
}

int32_t GetOrMakeStandardZInterpretation(IDataProject& project, const std::string& firstName,
                                         const std::string& secondName) {
  if (const int32_t id = GetStandardZInterpretation(project, firstName)) return id;
  if (const int32_t id = GetStandardZInterpretation(project, secondName)) return id;
  auto z = std::make_unique<TDZInterpretation>();
  z->SetCaption(firstName);
  z->SetUnitName(secondName);
  z->SetID(project.GetNewDataID());
  const int32_t id = z->GetID();
  project.AddData(std::move(z));
  return id;
}

bool IsInterpretationEqualWithoutUnitIndex(const IDataProject& project, int32_t a, int32_t b) {
  const auto* first = dynamic_cast<const TDInterpretation*>(project.FindData(a));
  const auto* second = dynamic_cast<const TDInterpretation*>(project.FindData(b));
  if (!first || !second || first->GetClassNameA() != second->GetClassNameA()) return false;
  if (const auto* s1 = dynamic_cast<const TDSpectralInterpretation*>(first))
    return s1->GetExcitationWaveLength() ==
           static_cast<const TDSpectralInterpretation*>(second)->GetExcitationWaveLength();
  if (const auto* z1 = dynamic_cast<const TDZInterpretation*>(first))
    return z1->GetUnitName() == static_cast<const TDZInterpretation*>(second)->GetUnitName();
  return true;
}

std::unique_ptr<TDInterpretation> MakeAndCopyInterpretation(IDataProject& project, TDataSaveMode saveMode,
                                                            const TDInterpretation& source) {
  std::unique_ptr<TData> made = TData::CreateDataObjectByName(source.GetClassNameA());
  auto* raw = dynamic_cast<TDInterpretation*>(made.get());
  if (!raw) return nullptr;
  made.release();
  std::unique_ptr<TDInterpretation> copy(raw);
  copy->CopyParametersFrom(source);
  copy->SetCaption(source.GetCaption());
  copy->SetSaveMode(saveMode);
  copy->SetID(project.GetNewDataID());
  return copy;
}

int32_t MakeAndCopyInterpretation(IDataProject& project, TDataSaveMode saveMode, int32_t sourceID) {
  const auto* source = dynamic_cast<const TDInterpretation*>(project.FindData(sourceID));
  if (!source) return 0;
  std::unique_ptr<TDInterpretation> copy = MakeAndCopyInterpretation(project, saveMode, *source);
  if (!copy) return 0;
  const int32_t id = copy->GetID();
  project.AddData(std::move(copy));
  return id;
}

void RegisterInterpretationClasses() {
  TData::RegisterDataObject(TDSpaceInterpretation::kClassName, &TDSpaceInterpretation::CreateDataObject);
  TData::RegisterDataObject(TDInverseSpaceInterpretation::kClassName,
                            &TDInverseSpaceInterpretation::CreateDataObject);
  TData::RegisterDataObject(TDTimeInterpretation::kClassName, &TDTimeInterpretation::CreateDataObject);
  TData::RegisterDataObject(TDFrequencyInterpretation::kClassName,
                            &TDFrequencyInterpretation::CreateDataObject);
  TData::RegisterDataObject(TDSpectralInterpretation::kClassName,
                            &TDSpectralInterpretation::CreateDataObject);
  TData::RegisterDataObject(TDZInterpretation::kClassName, &TDZInterpretation::CreateDataObject);
  TData::RegisterDataObject(TDPhaseInterpretation::kClassName, &TDPhaseInterpretation::CreateDataObject);
}
