// Parameter tables: declarations that become user parameters, and bindings of a table to an object.
#include "common/parameters/Parametertable.h"

#include "common/OrvexException.h"

#include <algorithm>
#include <cmath>

// ---------------------------------------------------------------------------------------------
// TParameterDeclaration

TParameterDeclaration& TParameterDeclaration::SetLimits(double lower, double upper) {
  return SetLowerLimit(lower).SetUpperLimit(upper);
}
TParameterDeclaration& TParameterDeclaration::SetLowerLimit(double lower) {
  HasLowerLimit = true;
  LowerLimit = lower;
  return *this;
}
TParameterDeclaration& TParameterDeclaration::SetUpperLimit(double upper) {
  HasUpperLimit = true;
  UpperLimit = upper;
  return *this;
}
TParameterDeclaration& TParameterDeclaration::SetStep(double step) {
  Step = step;
  return *this;
}
TParameterDeclaration& TParameterDeclaration::SetUnit(const std::string& unit) {
  Unit = unit;
  return *this;
}
TParameterDeclaration& TParameterDeclaration::SetDescription(const std::string& description) {
  Description = description;
  return *this;
}
TParameterDeclaration& TParameterDeclaration::SetSaved(bool saved) {
  Saved = saved;
  return *this;
}

TParameterDeclaration& TParameterDeclaration::SetSpectralMask() {
  if (Kind != TParameterKind::String)
    throw OrvexException("parameter " + Name + ": only a string parameter holds a mask text");
  SpectralMask = true;
  return *this;
}

// ---------------------------------------------------------------------------------------------
// TParameterTable

TParameterDeclaration& TParameterTable::Add(TParameterDeclaration declaration) {
  if (declaration.Name.empty()) throw OrvexException("TParameterTable::Add: a parameter needs a name");
  if (FindDeclaration(declaration.Name))
    throw OrvexException("TParameterTable::Add: parameter \"" + declaration.Name + "\" is declared twice");
  FDeclarations.push_back(std::move(declaration));
  return FDeclarations.back();
}

TParameterDeclaration& TParameterTable::AddInt(const std::string& name, const std::string& caption,
                                               int32_t defaultValue) {
  TParameterDeclaration d;
  d.Name = name;
  d.Caption = caption;
  d.Kind = TParameterKind::Int;
  d.DefaultNumber = defaultValue;
  return Add(std::move(d));
}

TParameterDeclaration& TParameterTable::AddFloat(const std::string& name, const std::string& caption,
                                                 double defaultValue) {
  TParameterDeclaration d;
  d.Name = name;
  d.Caption = caption;
  d.Kind = TParameterKind::Float;
  d.DefaultNumber = defaultValue;
  return Add(std::move(d));
}

TParameterDeclaration& TParameterTable::AddBool(const std::string& name, const std::string& caption,
                                                bool defaultValue) {
  TParameterDeclaration d;
  d.Name = name;
  d.Caption = caption;
  d.Kind = TParameterKind::Bool;
  d.DefaultNumber = defaultValue ? 1 : 0;
  return Add(std::move(d));
}

TParameterDeclaration& TParameterTable::AddString(const std::string& name, const std::string& caption,
                                                  const std::string& defaultValue) {
  TParameterDeclaration d;
  d.Name = name;
  d.Caption = caption;
  d.Kind = TParameterKind::String;
  d.DefaultText = defaultValue;
  return Add(std::move(d));
}

TParameterDeclaration& TParameterTable::AddList(const std::string& name, const std::string& caption,
                                                int32_t defaultNumber,
                                                const std::vector<TParameterChoice>& choices) {
  const bool known = std::any_of(choices.begin(), choices.end(), [defaultNumber](const TParameterChoice& c) {
    return c.Number == defaultNumber;
  });
  if (!known)
    throw OrvexException("TParameterTable::AddList: the default of \"" + name + "\" is none of its choices");
  TParameterDeclaration d;
  d.Name = name;
  d.Caption = caption;
  d.Kind = TParameterKind::List;
  d.DefaultNumber = defaultNumber;
  d.Choices = choices;
  const auto [low, high] = std::minmax_element(
      choices.begin(), choices.end(), [](const auto& a, const auto& b) { return a.Number < b.Number; });
  d.SetLimits(low->Number, high->Number);
  return Add(std::move(d));
}

TParameterDeclaration& TParameterTable::AddTrigger(const std::string& name, const std::string& caption) {
  TParameterDeclaration d;
  d.Name = name;
  d.Caption = caption;
  d.Kind = TParameterKind::Trigger;
  d.Saved = false;
  return Add(std::move(d));
}

const TParameterDeclaration* TParameterTable::FindDeclaration(const std::string& name) const {
  for (const auto& d : FDeclarations)
    if (d.Name == name) return &d;
  return nullptr;
}

namespace {

/// Limits and steps of a declaration onto a numeric parameter; without a declared step the kind keeps
/// its own.
template <class P, typename T>
void ApplyNumericDeclaration(P& p, const TParameterDeclaration& d) {
  p.SetHasLowerLimit(d.HasLowerLimit);
  p.SetHasUpperLimit(d.HasUpperLimit);
  if (d.HasLowerLimit) p.SetLowerLimit(static_cast<T>(d.LowerLimit));
  if (d.HasUpperLimit) p.SetUpperLimit(static_cast<T>(d.UpperLimit));
  if (d.Step > 0) {
    p.SetSmallIncrement(static_cast<T>(d.Step));
    p.SetLargeIncrement(static_cast<T>(10 * d.Step));
  }
}

} // namespace

std::unique_ptr<TUserParameter> TParameterTable::CreateParameter(const TParameterDeclaration& d,
                                                                 int32_t id) const {
  std::unique_ptr<TUserParameter> result;
  switch (d.Kind) {
  case TParameterKind::Int: {
    auto p = std::make_unique<TUserIntParameter>(id, d.Name, d.Caption, d.Description,
                                                 static_cast<int32_t>(d.DefaultNumber));
    ApplyNumericDeclaration<TUserIntParameter, int32_t>(*p, d);
    result = std::move(p);
    break;
  }
  case TParameterKind::Float: {
    auto p = std::make_unique<TUserDoubleParameter>(id, d.Name, d.Caption, d.Description, d.DefaultNumber);
    ApplyNumericDeclaration<TUserDoubleParameter, double>(*p, d);
    result = std::move(p);
    break;
  }
  case TParameterKind::Bool:
    result = std::make_unique<TUserBoolParameter>(id, d.Name, d.Caption, d.Description, d.DefaultNumber != 0);
    break;
  case TParameterKind::String:
    result = std::make_unique<TUserStringParameter>(id, d.Name, d.Caption, d.Description, d.DefaultText);
    break;
  case TParameterKind::List: {
    auto p = std::make_unique<TUserListParameter>(id, d.Name, d.Caption, d.Description,
                                                  static_cast<int32_t>(d.DefaultNumber));
    for (const auto& choice : d.Choices) p->AddListEntry(choice.Text, choice.Number);
    ApplyNumericDeclaration<TUserListParameter, int32_t>(*p, d);
    result = std::move(p);
    break;
  }
  case TParameterKind::Trigger:
    result = std::make_unique<TUserTriggerParameter>(id, d.Name, d.Caption, d.Description);
    break;
  }
  result->SetUnit(d.Unit);
  result->SetSaveValue(d.Saved);
  // A value that is not stored keeps what it has through a load of stored settings.
  result->SetResetOnLoad(d.Saved);
  return result;
}

void TParameterTable::CreateParameters(TUserParameterAdministrator& administrator) {
  int32_t id = FFirstId;
  for (const auto& d : FDeclarations) administrator.AddParameter(CreateParameter(d, id++));
}

// ---------------------------------------------------------------------------------------------
// TParameterBinding

TParameterBinding::TParameterBinding(const TParameterTable& table, TToParameters toParameters,
                                     TFromParameters fromParameters)
    : FTable(&table), FToParameters(std::move(toParameters)), FFromParameters(std::move(fromParameters)) {}

void TParameterBinding::CreateParameters(TUserParameterAdministrator& administrator) const {
  // The table is only read; the administrator keeps it as the owner of the set's checks.
  administrator.CreateParameters(const_cast<TParameterTable*>(FTable));
  if (FToParameters) FToParameters(administrator);
}

std::unique_ptr<TUserParameterAdministrator> TParameterBinding::MakeParameters() const {
  auto administrator = std::make_unique<TUserParameterAdministrator>();
  CreateParameters(*administrator);
  return administrator;
}

void TParameterBinding::ReadParameters(const TUserParameterAdministrator& administrator) const {
  if (FFromParameters) FFromParameters(administrator);
}

TTagError TParameterBinding::SaveToFile(TFileHandle file) const {
  return MakeParameters()->SaveParameterValueTagsToFile(file);
}

TTagError TParameterBinding::LoadFromFile(TFileHandle file, const TTagControl& parent) const {
  auto administrator = MakeParameters();
  const TTagError result = administrator->LoadParameterValueTagsFromFile(file, parent);
  ReadParameters(*administrator);
  return result;
}

TTagError TParameterBinding::SaveToTagControl(TTagControl& tag) const {
  return MakeParameters()->SaveParameterValueTagsToTagControl(tag);
}

TTagError TParameterBinding::LoadFromTagControl(const TTagControl& tag) const {
  auto administrator = MakeParameters();
  const TTagError result = administrator->LoadParameterValueTagsFromTagControl(tag);
  ReadParameters(*administrator);
  return result;
}

TUserParameterProblems TParameterBinding::SetFromText(const std::vector<std::string>& assignments) const {
  auto administrator = MakeParameters();
  TUserParameterProblems problems = administrator->SetParameterValuesFromText(assignments);
  if (problems.empty()) ReadParameters(*administrator);
  return problems;
}

void TParameterBinding::ApplyLimits() const {
  // The parameters took the values through their setter, which applies the limits.
  ReadParameters(*MakeParameters());
}

void TParameterBinding::ResetToDefaults() const {
  auto administrator = std::make_unique<TUserParameterAdministrator>();
  if (FTable) administrator->CreateParameters(const_cast<TParameterTable*>(FTable));
  ReadParameters(*administrator);
}
