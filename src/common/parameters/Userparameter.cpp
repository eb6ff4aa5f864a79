// User parameters: the base, the value kinds, their text forms and their tag file form.
#include "common/parameters/Userparameter.h"

#include "common/parameters/Userparameteradministrator.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace {

std::string Trim(const std::string& text) {
  size_t first = 0, last = text.size();
  while (first < last && std::isspace(static_cast<unsigned char>(text[first]))) ++first;
  while (last > first && std::isspace(static_cast<unsigned char>(text[last - 1]))) --last;
  return text.substr(first, last - first);
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

/// First direct child of the name (names are taken literally, "|" included).
const TTagControl* FindChild(const TTagControl& parent, const std::string& name) {
  if (!parent.Children()) return nullptr;
  for (const auto& child : *parent.Children())
    if (child->Name() == name) return child.get();
  return nullptr;
}

/// Appends a value tag to a list node; teUnspecificError when parent is no list.
TTagError AddTag(TTagControl& parent, const std::string& name, TTagKind kind, const void* data) {
  if (parent.Kind() != TTagKind::TagList || !parent.Children()) return teUnspecificError;
  parent.Children()->push_back(TTagControl::CreateTag(name, kind, data, 1));
  return teNoError;
}

template <typename T>
std::string NumberText(T value) {
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  return std::string(buffer, result.ptr);
}

/// The text without surrounding blanks and without one leading "+", which from_chars does not take.
std::string NumberBody(const std::string& raw) {
  std::string text = Trim(raw);
  if (text.size() > 1 && text[0] == '+' && text[1] != '-' && text[1] != '+') text.erase(0, 1);
  return text;
}

template <typename T>
bool ParseNumber(const std::string& raw, T& value) {
  const std::string text = NumberBody(raw);
  if (text.empty()) return false;
  T number{};
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return false;
  if constexpr (std::is_floating_point_v<T>)
    if (!std::isfinite(number)) return false;
  value = number;
  return true;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Text and tag forms of the value types

namespace UserParameterValue {

std::string ToText(int32_t value) {
  return NumberText(value);
}
std::string ToText(float value) {
  return NumberText(value);
}
std::string ToText(double value) {
  return NumberText(value);
}

bool FromText(const std::string& text, int32_t& value) {
  return ParseNumber(text, value);
}
bool FromText(const std::string& text, float& value) {
  if (ParseNumber(text, value)) return true;
  // The float parser reports tiny values that only a subnormal float holds as out of range, like
  // values beyond the largest float; only the tiny ones are taken, rounded from the double.
  double number = 0;
  if (!ParseNumber(text, number) || std::fabs(number) >= std::numeric_limits<float>::min()) return false;
  value = static_cast<float>(number);
  return true;
}
bool FromText(const std::string& text, double& value) {
  return ParseNumber(text, value);
}

const char* ExpectedText(int32_t) {
  return "a whole number";
}
const char* ExpectedText(float) {
  return "a number";
}
const char* ExpectedText(double) {
  return "a number";
}

TTagError Save(TFileHandle file, const std::string& name, int32_t value) {
  return TTagControl().SaveIntTag(file, name, value);
}
TTagError Save(TFileHandle file, const std::string& name, float value) {
  return TTagControl().SaveFloatTag(file, name, value);
}
TTagError Save(TFileHandle file, const std::string& name, double value) {
  return TTagControl().SaveDoubleTag(file, name, value);
}
TTagError Save(TFileHandle file, const std::string& name, bool value) {
  return TTagControl().SaveBoolTag(file, name, value);
}
TTagError Save(TFileHandle file, const std::string& name, const std::string& value) {
  return TTagControl().SaveAnsiStringTag(file, name, value);
}

TTagError Load(TFileHandle file, const std::string& name, const TTagControl& parent, int32_t& value) {
  return TTagControl().LoadOrDefaultIntTag(file, name, parent, &value, 1, value);
}
TTagError Load(TFileHandle file, const std::string& name, const TTagControl& parent, float& value) {
  return TTagControl().LoadOrDefaultFloatTag(file, name, parent, &value, 1, value);
}
TTagError Load(TFileHandle file, const std::string& name, const TTagControl& parent, double& value) {
  return TTagControl().LoadOrDefaultDoubleTag(file, name, parent, &value, 1, value);
}
TTagError Load(TFileHandle file, const std::string& name, const TTagControl& parent, bool& value) {
  return TTagControl().LoadOrDefaultBoolTag(file, name, parent, &value, 1, value);
}
TTagError Load(TFileHandle file, const std::string& name, const TTagControl& parent, std::string& value) {
  const std::string old = value;
  return TTagControl().LoadOrDefaultAnsiStringTag(file, name, parent, value, old);
}

TTagError Add(TTagControl& parent, const std::string& name, int32_t value) {
  return AddTag(parent, name, TTagKind::Int, &value);
}
TTagError Add(TTagControl& parent, const std::string& name, float value) {
  return AddTag(parent, name, TTagKind::Float, &value);
}
TTagError Add(TTagControl& parent, const std::string& name, double value) {
  return AddTag(parent, name, TTagKind::Double, &value);
}
TTagError Add(TTagControl& parent, const std::string& name, bool value) {
  return AddTag(parent, name, TTagKind::Bool, &value);
}
TTagError Add(TTagControl& parent, const std::string& name, const std::string& value) {
  return AddTag(parent, name, TTagKind::AnsiString, &value);
}

bool Get(const TTagControl& parent, const std::string& name, int32_t& value) {
  const TTagControl* tag = FindChild(parent, name);
  return tag && tag->GetIntTag(&value, 1) >= 1;
}
bool Get(const TTagControl& parent, const std::string& name, float& value) {
  const TTagControl* tag = FindChild(parent, name);
  return tag && tag->GetFloatTag(&value, 1) >= 1;
}
bool Get(const TTagControl& parent, const std::string& name, double& value) {
  const TTagControl* tag = FindChild(parent, name);
  return tag && tag->GetDoubleTag(&value, 1) >= 1;
}
bool Get(const TTagControl& parent, const std::string& name, bool& value) {
  const TTagControl* tag = FindChild(parent, name);
  return tag && tag->GetBoolTag(&value, 1) >= 1;
}
bool Get(const TTagControl& parent, const std::string& name, std::string& value) {
  const TTagControl* tag = FindChild(parent, name);
  return tag && tag->GetAnsiStringTag(value) >= 1;
}

std::string FormatFloat(double value, TFloatFormat style, int digits) {
  char buffer[64];
  switch (style) {
  case TFloatFormat::Exponent:
    std::snprintf(buffer, sizeof(buffer), "%.*E", std::max(digits - 1, 0), value);
    break;
  case TFloatFormat::Fixed:
    std::snprintf(buffer, sizeof(buffer), "%.*f", digits, value);
    break;
  default:
    std::snprintf(buffer, sizeof(buffer), "%.*G", std::max(digits, 1), value);
    break;
  }
  return buffer;
}

} // namespace UserParameterValue

std::string UserParameterKindName(TUserParameterKind kind) {
  switch (kind) {
  case TUserParameterKind::List:
    return "List";
  case TUserParameterKind::Int:
    return "Int";
  case TUserParameterKind::Float:
    return "Float";
  case TUserParameterKind::Bool:
    return "Bool";
  case TUserParameterKind::String:
    return "String";
  case TUserParameterKind::Trigger:
    return "Trigger";
  case TUserParameterKind::ContinuousAction:
    return "ContinuousAction";
  case TUserParameterKind::Collection:
    return "Collection";
  default:
    return "None";
  }
}

// ---------------------------------------------------------------------------------------------
// TUserParameter

TUserParameter::TUserParameter(TUserParameterKind kind, int32_t id, const std::string& name,
                               const std::string& caption, const std::string& description)
    : FId(id), FCaption(caption), FKind(kind), FName(name), FDescription(description) {}

TUserParameter::~TUserParameter() = default;

void TUserParameter::AddInputMask(IUserParameterInputMask* control, IUserParameterInputMask* label) {
  if (!control) return;
  FInputMasks.push_back(control);
  FInputLabels.push_back(label);
  control->ShowParameter(*this);
  ShowStateInMasks();
}

void TUserParameter::RemoveInputMask(IUserParameterInputMask* control) {
  for (size_t i = 0; i < FInputMasks.size(); ++i)
    if (FInputMasks[i] == control) {
      FInputMasks.erase(FInputMasks.begin() + static_cast<std::ptrdiff_t>(i));
      FInputLabels.erase(FInputLabels.begin() + static_cast<std::ptrdiff_t>(i));
      return;
    }
}

bool TUserParameter::Assign(const TUserParameter& source) {
  return source.GetKind() == FKind;
}

void TUserParameter::SetEnabled(bool enabled) {
  if (FEnabled == enabled) return;
  FEnabled = enabled;
  ShowStateInMasks();
  DoParameterStateChanged();
}

void TUserParameter::SetVisible(bool visible) {
  if (FVisible == visible) return;
  FVisible = visible;
  ShowStateInMasks();
  DoParameterStateChanged();
}

void TUserParameter::SetErrorState(TUserParameterError state) {
  if (FErrorState == state) return;
  FErrorState = state;
  ShowStateInMasks();
  DoParameterStateChanged();
}

bool TUserParameter::CheckValueText(const std::string& /*text*/, std::string& problem) const {
  problem = "has no value that could be set";
  return false;
}

bool TUserParameter::SetParameterFromText(const std::string& text, std::string& problem) {
  return CheckValueText(text, problem);
}

void TUserParameter::Describe(TUserParameterInfo& info) const {
  info.Parameter = const_cast<TUserParameter*>(this);
  info.Kind = FKind;
  info.Id = FId;
  info.Name = FName;
  info.Caption = FCaption;
  info.Description = FDescription;
  info.Unit = FUnit;
  info.DefaultValue = GetDefaultValueText();
  info.Enabled = GetEnabled();
  info.Visible = GetVisible();
  info.SaveValue = FSaveValue;
  info.Value = GetValueText();
  info.DisplayValue = GetParameterString();
}

std::string TUserParameter::GetAbsoluteName() const {
  if (!FAdministrator) return "Fehler";
  const TUserCollectionParameter* parent = FAdministrator->GetCollectionParent();
  return parent ? parent->GetAbsoluteName() + "|" + FName : FName;
}

TUserParameterLock& TUserParameter::ValueLock() const {
  return FAdministrator ? FAdministrator->GetValueLock() : FOwnLock;
}

bool TUserParameter::AskIsNewParameterOk(const TUserParameterList& changed) {
  return OnIsNewParameterOk ? OnIsNewParameterOk(changed) : true;
}

void TUserParameter::ShowStateInMasks() {
  const TUserParameterFontColor color =
      FErrorState == kUserParameterError ? TUserParameterFontColor::Red : TUserParameterFontColor::WindowText;
  for (size_t i = 0; i < FInputMasks.size(); ++i) {
    FInputMasks[i]->ShowState(FEnabled, FVisible, color);
    if (FInputLabels[i]) FInputLabels[i]->ShowState(FEnabled, FVisible, color);
  }
}

void TUserParameter::DoParameterStateChanged() {
  if (OnParameterStateChanged) OnParameterStateChanged(this);
}

TTagControl* TUserParameter::AddGroup(TTagControl& parent) const {
  if (parent.Kind() != TTagKind::TagList || !parent.Children()) return nullptr;
  parent.Children()->push_back(TTagControl::CreateTag(FName, TTagKind::TagList));
  return parent.Children()->back().get();
}

const TTagControl* TUserParameter::FindGroup(const TTagControl& parent) const {
  const TTagControl* group = FindChild(parent, FName);
  return group && group->Kind() == TTagKind::TagList ? group : nullptr;
}

TTagError TUserParameter::FindOwnGroup(TFileHandle file, const TTagControl& parent,
                                       TTagControl& group) const {
  const TTagError result = group.FindTag(file, FName, parent);
  if (result == teNoError && group.Kind() != TTagKind::TagList) return teTagNotFound;
  return result;
}

// ---------------------------------------------------------------------------------------------
// TUserListParameter

TUserListParameter::TUserListParameter(int32_t id, const std::string& name, const std::string& caption,
                                       const std::string& description, int32_t defaultValue)
    : TUserIntParameter(TUserParameterKind::List, id, name, caption, description, defaultValue) {}

void TUserListParameter::AddListEntry(const std::string& description, int32_t number) {
  FDescriptions.push_back(description);
  FNumbers.push_back(number);
}

void TUserListParameter::ChangeListEntry(int index, const std::string& description, int32_t number) {
  if (index < 0 || index >= static_cast<int>(FNumbers.size())) return;
  FDescriptions[static_cast<size_t>(index)] = description;
  FNumbers[static_cast<size_t>(index)] = number;
}

void TUserListParameter::ClearAllEntries() {
  FDescriptions.clear();
  FNumbers.clear();
}

std::vector<std::pair<std::string, int32_t>> TUserListParameter::GetDescriptionsAndNumbers() const {
  std::vector<std::pair<std::string, int32_t>> result;
  for (size_t i = 0; i < FNumbers.size(); ++i) result.emplace_back(FDescriptions[i], FNumbers[i]);
  return result;
}

bool TUserListParameter::SetParameterWithDescription(const std::string& description) {
  for (size_t i = 0; i < FDescriptions.size(); ++i)
    if (FDescriptions[i] == description) return SetParameter(FNumbers[i]);
  return false;
}

bool TUserListParameter::SetParameterByIndex(int index) {
  if (index < 0 || index >= static_cast<int>(FNumbers.size())) return false;
  return SetParameter(FNumbers[static_cast<size_t>(index)]);
}

int TUserListParameter::GetDescriptionsIndexFromParameter() const {
  const int32_t value = GetParameter();
  for (size_t i = 0; i < FNumbers.size(); ++i)
    if (FNumbers[i] == value) return static_cast<int>(i);
  return -1;
}

std::string TUserListParameter::GetParameterString() const {
  const int index = GetDescriptionsIndexFromParameter();
  return index >= 0 ? FDescriptions[static_cast<size_t>(index)] : std::to_string(GetParameter());
}

std::string TUserListParameter::ValueToText(const int32_t& value) const {
  for (size_t i = 0; i < FNumbers.size(); ++i)
    if (FNumbers[i] == value) return FDescriptions[i];
  return std::to_string(value);
}

bool TUserListParameter::ParseEntry(const std::string& text, int32_t& number, std::string& problem) const {
  const std::string trimmed = Trim(text);
  for (size_t i = 0; i < FDescriptions.size(); ++i)
    if (FDescriptions[i] == text || FDescriptions[i] == trimmed) {
      number = FNumbers[i];
      return true;
    }
  for (size_t i = 0; i < FDescriptions.size(); ++i)
    if (Lower(FDescriptions[i]) == Lower(trimmed)) {
      number = FNumbers[i];
      return true;
    }
  int32_t value = 0;
  if (UserParameterValue::FromText(trimmed, value) &&
      std::find(FNumbers.begin(), FNumbers.end(), value) != FNumbers.end()) {
    number = value;
    return true;
  }
  problem = "\"" + text + "\" is none of the entries";
  if (!FDescriptions.empty()) {
    problem += " (";
    for (size_t i = 0; i < FDescriptions.size(); ++i) problem += (i ? ", " : "") + FDescriptions[i];
    problem += ")";
  }
  return false;
}

bool TUserListParameter::CheckValueText(const std::string& text, std::string& problem) const {
  int32_t number = 0;
  return ParseEntry(text, number, problem);
}

bool TUserListParameter::SetParameterFromText(const std::string& text, std::string& problem) {
  int32_t number = 0;
  if (!ParseEntry(text, number, problem)) return false;
  if (!SetParameter(number)) {
    problem = "the entry \"" + Trim(text) + "\" was refused";
    return false;
  }
  return true;
}

void TUserListParameter::Describe(TUserParameterInfo& info) const {
  TUserIntParameter::Describe(info);
  info.EntryNames = FDescriptions;
  info.EntryNumbers = FNumbers;
}

std::string TUserListParameter::CheckCurrentValue() const {
  std::string problem = TUserIntParameter::CheckCurrentValue();
  if (problem.empty() && !FNumbers.empty() &&
      std::find(FNumbers.begin(), FNumbers.end(), GetCurrentValue()) == FNumbers.end())
    problem = std::to_string(GetCurrentValue()) + " is none of the entries";
  return problem;
}

// ---------------------------------------------------------------------------------------------
// TUserBoolParameter

TUserBoolParameter::TUserBoolParameter(int32_t id, const std::string& name, const std::string& caption,
                                       const std::string& description, bool defaultValue)
    : TUserValueParameter<bool>(TUserParameterKind::Bool, id, name, caption, description, defaultValue) {}

bool TUserBoolParameter::GetParameter() const {
  return FFalsified ? false : TUserValueParameter<bool>::GetParameter();
}

void TUserBoolParameter::TrueFalseStrings(const std::string& trueText, const std::string& falseText) {
  FTrueText = trueText;
  FFalseText = falseText;
}

void TUserBoolParameter::SetFalsified(bool falsified) {
  if (FFalsified.exchange(falsified) != falsified) UpdateInputMasks();
}

std::string TUserBoolParameter::GetParameterString() const {
  return GetParameter() ? FTrueText : FFalseText;
}

bool TUserBoolParameter::ParseValueText(const std::string& text, bool& value, std::string& problem) const {
  const std::string word = Lower(Trim(text));
  if (word == "true" || word == "1" || word == "yes" || word == "on" || word == Lower(FTrueText)) {
    value = true;
    return true;
  }
  if (word == "false" || word == "0" || word == "no" || word == "off" || word == Lower(FFalseText)) {
    value = false;
    return true;
  }
  problem = "\"" + text + "\" is neither true nor false";
  return false;
}

bool TUserBoolParameter::CheckValueText(const std::string& text, std::string& problem) const {
  bool value = false;
  return ParseValueText(text, value, problem);
}

bool TUserBoolParameter::SetParameterFromText(const std::string& text, std::string& problem) {
  bool value = false;
  if (!ParseValueText(text, value, problem)) return false;
  if (!SetParameter(value)) {
    problem = std::string("the value ") + (value ? "true" : "false") + " was refused";
    return false;
  }
  return true;
}

void TUserBoolParameter::Describe(TUserParameterInfo& info) const {
  TUserValueParameter<bool>::Describe(info);
  info.EntryNames = {FFalseText, FTrueText};
  info.EntryNumbers = {0, 1};
}

// ---------------------------------------------------------------------------------------------
// TUserStringParameter

TUserStringParameter::TUserStringParameter(int32_t id, const std::string& name, const std::string& caption,
                                           const std::string& description, const std::string& defaultValue)
    : TUserValueParameter<std::string>(TUserParameterKind::String, id, name, caption, description,
                                       defaultValue) {}

bool TUserStringParameter::CheckValueText(const std::string& /*text*/, std::string& /*problem*/) const {
  return true;
}

bool TUserStringParameter::SetParameterFromText(const std::string& text, std::string& problem) {
  if (!SetParameter(text)) {
    problem = "the text \"" + text + "\" was refused";
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Triggers and continuous actions

TUserTriggerParameter::TUserTriggerParameter(int32_t id, const std::string& name, const std::string& caption,
                                             const std::string& description)
    : TUserParameter(TUserParameterKind::Trigger, id, name, caption, description) {}

TUserTriggerParameter::TUserTriggerParameter(TUserParameterKind kind, int32_t id, const std::string& name,
                                             const std::string& caption, const std::string& description)
    : TUserParameter(kind, id, name, caption, description) {}

bool TUserTriggerParameter::Trigger() {
  TUserParameterList changed{this};
  if (!AskIsNewParameterOk(changed)) return false;
  if (OnParameterChanged) OnParameterChanged(changed, false);
  return true;
}

void TUserTriggerParameter::UpdateInputMasks() {
  for (IUserParameterInputMask* mask : FInputMasks) mask->ShowParameter(*this);
}

TTagError TUserTriggerParameter::SaveParameter(TFileHandle /*file*/) {
  return teNoError;
}
TTagError TUserTriggerParameter::LoadParameter(TFileHandle /*file*/, const TTagControl* /*parent*/) {
  return teNoError;
}
TTagError TUserTriggerParameter::SaveParameterToTagControl(TTagControl& /*parent*/) {
  return teNoError;
}
TTagError TUserTriggerParameter::LoadParameterFromTagControl(const TTagControl* /*parent*/) {
  return teNoError;
}

TUserContinuousActionParameter::TUserContinuousActionParameter(int32_t id, const std::string& name,
                                                               const std::string& caption,
                                                               const std::string& description)
    : TUserTriggerParameter(TUserParameterKind::ContinuousAction, id, name, caption, description) {}

void TUserContinuousActionParameter::SetActionRunning(bool running) {
  if (FRunning == running) return;
  TUserParameterList changed{this};
  if (!AskIsNewParameterOk(changed)) return;
  FRunning = running;
  UpdateInputMasks();
  if (OnParameterChanged) OnParameterChanged(changed, false);
}
