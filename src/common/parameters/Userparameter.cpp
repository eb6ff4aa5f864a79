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

constexpr const char* kValueTag = "Value";
constexpr const char* kSmallIncrementTag = "SmallIncrement";
constexpr const char* kLargeIncrementTag = "LargeIncrement";

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

/// Appends a child to a list node of the tree; null when parent is no list.
TTagControl* AddChild(TTagControl& parent, const std::string& name, TTagKind kind,
                      const void* data = nullptr) {
  if (parent.Kind() != TTagKind::TagList || !parent.Children()) return nullptr;
  parent.Children()->push_back(TTagControl::CreateTag(name, kind, data, 1));
  return parent.Children()->back().get();
}

/// First direct child of the name (names are taken literally, "|" included).
const TTagControl* FindChild(const TTagControl& parent, const std::string& name) {
  if (!parent.Children()) return nullptr;
  for (const auto& child : *parent.Children())
    if (child->Name() == name) return child.get();
  return nullptr;
}

/// Shortest text that reads back as the same float.
std::string FloatToText(float value) {
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  return std::string(buffer, result.ptr);
}

bool ParseInt(const std::string& raw, int32_t& value) {
  std::string text = Trim(raw);
  if (!text.empty() && text[0] == '+') text.erase(0, 1);
  if (text.empty()) return false;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

} // namespace

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

TTagError TUserParameter::FindOwnGroup(TFileHandle file, const TTagControl& parent,
                                       TTagControl& group) const {
  const TTagError result = group.FindTag(file, FName, parent);
  if (result == teNoError && group.Kind() != TTagKind::TagList) return teTagNotFound;
  return result;
}

// ---------------------------------------------------------------------------------------------
// TUserIntParameter

TUserIntParameter::TUserIntParameter(int32_t id, const std::string& name, const std::string& caption,
                                     const std::string& description, int32_t defaultValue)
    : TUserIntParameter(TUserParameterKind::Int, id, name, caption, description, defaultValue) {}

TUserIntParameter::TUserIntParameter(TUserParameterKind kind, int32_t id, const std::string& name,
                                     const std::string& caption, const std::string& description,
                                     int32_t defaultValue)
    : TUserValueParameter<int32_t>(kind, id, name, caption, description, defaultValue) {}

void TUserIntParameter::SetLimits(int32_t lower, int32_t upper) {
  FLowerLimit = lower;
  FUpperLimit = upper;
  FHasLowerLimit = FHasUpperLimit = true;
}

int32_t TUserIntParameter::ApplyLimits(const int32_t& value) const {
  int32_t result = value;
  if (FHasLowerLimit && result < FLowerLimit) result = FLowerLimit;
  if (FHasUpperLimit && result > FUpperLimit) result = FUpperLimit;
  return result;
}

TTagError TUserIntParameter::SaveParameter(TFileHandle file) {
  TTagControl group, t;
  TTagError result = group.WriteTag(file, FName, TTagKind::TagList);
  if (result >= 1 && FSaveValue) result = t.SaveIntTag(file, kValueTag, GetCurrentValue());
  if (result >= 1) result = t.SaveIntTag(file, kSmallIncrementTag, FSmallIncrement);
  if (result >= 1) result = t.SaveIntTag(file, kLargeIncrementTag, FLargeIncrement);
  return result >= 1 ? group.CloseWriteTag(file) : result;
}

TTagError TUserIntParameter::LoadParameter(TFileHandle file, const TTagControl* parent) {
  ResetShadowForLoad();
  if (!parent) return teNoError;
  TTagControl group, t;
  TTagError result = FindOwnGroup(file, *parent, group);
  if (result != teNoError) return result;
  if (FSaveValue) {
    int32_t value = 0;
    if ((result = t.LoadOrDefaultIntTag(file, kValueTag, group, &value, 1, GetShadowParameter())) < 1)
      return result;
    SetShadow(value);
  }
  if ((result =
           t.LoadOrDefaultIntTag(file, kSmallIncrementTag, group, &FSmallIncrement, 1, FSmallIncrement)) < 1)
    return result;
  return t.LoadOrDefaultIntTag(file, kLargeIncrementTag, group, &FLargeIncrement, 1, FLargeIncrement);
}

TTagError TUserIntParameter::SaveParameterToTagControl(TTagControl& parent) {
  TTagControl* group = AddChild(parent, FName, TTagKind::TagList);
  if (!group) return teUnspecificError;
  if (FSaveValue) {
    const int32_t value = GetCurrentValue();
    AddChild(*group, kValueTag, TTagKind::Int, &value);
  }
  AddChild(*group, kSmallIncrementTag, TTagKind::Int, &FSmallIncrement);
  AddChild(*group, kLargeIncrementTag, TTagKind::Int, &FLargeIncrement);
  return teNoError;
}

TTagError TUserIntParameter::LoadParameterFromTagControl(const TTagControl* parent) {
  ResetShadowForLoad();
  if (!parent) return teNoError;
  const TTagControl* group = FindChild(*parent, FName);
  if (!group) return teTagNotFound;
  int32_t value = 0;
  const TTagControl* tag = nullptr;
  if (FSaveValue && (tag = FindChild(*group, kValueTag)) && tag->GetIntTag(&value, 1) >= 1) SetShadow(value);
  if ((tag = FindChild(*group, kSmallIncrementTag)) && tag->GetIntTag(&value, 1) >= 1)
    FSmallIncrement = value;
  if ((tag = FindChild(*group, kLargeIncrementTag)) && tag->GetIntTag(&value, 1) >= 1)
    FLargeIncrement = value;
  return teNoError;
}

std::string TUserIntParameter::GetParameterString() const {
  return std::to_string(GetParameter());
}

std::string TUserIntParameter::GetValueText() const {
  return std::to_string(GetCurrentValue());
}

bool TUserIntParameter::ParseValueText(const std::string& text, int32_t& value, std::string& problem) const {
  if (!ParseInt(text, value)) {
    problem = "\"" + text + "\" is not a whole number";
    return false;
  }
  if (FHasLowerLimit && value < FLowerLimit) {
    problem = std::to_string(value) + " is below the lower limit " + std::to_string(FLowerLimit);
    return false;
  }
  if (FHasUpperLimit && value > FUpperLimit) {
    problem = std::to_string(value) + " is above the upper limit " + std::to_string(FUpperLimit);
    return false;
  }
  return true;
}

bool TUserIntParameter::CheckValueText(const std::string& text, std::string& problem) const {
  int32_t value = 0;
  return ParseValueText(text, value, problem);
}

bool TUserIntParameter::SetParameterFromText(const std::string& text, std::string& problem) {
  int32_t value = 0;
  if (!ParseValueText(text, value, problem)) return false;
  if (!SetParameter(value)) {
    problem = "the value " + std::to_string(value) + " was refused";
    return false;
  }
  return true;
}

void TUserIntParameter::Describe(TUserParameterInfo& info) const {
  TUserParameter::Describe(info);
  info.HasValue = true;
  info.HasLowerLimit = FHasLowerLimit;
  info.HasUpperLimit = FHasUpperLimit;
  info.LowerLimit = FLowerLimit;
  info.UpperLimit = FUpperLimit;
  info.SmallIncrement = FSmallIncrement;
  info.LargeIncrement = FLargeIncrement;
}

std::string TUserIntParameter::CheckCurrentValue() const {
  const int32_t value = GetCurrentValue();
  if (FHasLowerLimit && value < FLowerLimit)
    return std::to_string(value) + " is below the lower limit " + std::to_string(FLowerLimit);
  if (FHasUpperLimit && value > FUpperLimit)
    return std::to_string(value) + " is above the upper limit " + std::to_string(FUpperLimit);
  return std::string();
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

std::string TUserListParameter::GetValueText() const {
  const int32_t value = GetCurrentValue();
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
  if (ParseInt(trimmed, value) && std::find(FNumbers.begin(), FNumbers.end(), value) != FNumbers.end()) {
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
// TUserFloatParameter

TUserFloatParameter::TUserFloatParameter(int32_t id, const std::string& name, const std::string& caption,
                                         const std::string& description, float defaultValue)
    : TUserValueParameter<float>(TUserParameterKind::Float, id, name, caption, description, defaultValue) {}

void TUserFloatParameter::SetLimits(float lower, float upper) {
  FLowerLimit = lower;
  FUpperLimit = upper;
  FHasLowerLimit = FHasUpperLimit = true;
}

void TUserFloatParameter::SetFloatStyle(TFloatFormat style, int digits) {
  FFloatStyle = style;
  FFloatDigits = std::clamp(digits, 0, 18);
}

float TUserFloatParameter::ApplyLimits(const float& value) const {
  float result = value;
  if (FHasLowerLimit && result < FLowerLimit) result = FLowerLimit;
  if (FHasUpperLimit && result > FUpperLimit) result = FUpperLimit;
  return result;
}

TTagError TUserFloatParameter::SaveParameter(TFileHandle file) {
  TTagControl group, t;
  TTagError result = group.WriteTag(file, FName, TTagKind::TagList);
  if (result >= 1 && FSaveValue) result = t.SaveFloatTag(file, kValueTag, GetCurrentValue());
  if (result >= 1) result = t.SaveFloatTag(file, kSmallIncrementTag, FSmallIncrement);
  if (result >= 1) result = t.SaveFloatTag(file, kLargeIncrementTag, FLargeIncrement);
  return result >= 1 ? group.CloseWriteTag(file) : result;
}

TTagError TUserFloatParameter::LoadParameter(TFileHandle file, const TTagControl* parent) {
  ResetShadowForLoad();
  if (!parent) return teNoError;
  TTagControl group, t;
  TTagError result = FindOwnGroup(file, *parent, group);
  if (result != teNoError) return result;
  if (FSaveValue) {
    float value = 0;
    if ((result = t.LoadOrDefaultFloatTag(file, kValueTag, group, &value, 1, GetShadowParameter())) < 1)
      return result;
    SetShadow(value);
  }
  if ((result = t.LoadOrDefaultFloatTag(file, kSmallIncrementTag, group, &FSmallIncrement, 1,
                                        FSmallIncrement)) < 1)
    return result;
  return t.LoadOrDefaultFloatTag(file, kLargeIncrementTag, group, &FLargeIncrement, 1, FLargeIncrement);
}

TTagError TUserFloatParameter::SaveParameterToTagControl(TTagControl& parent) {
  TTagControl* group = AddChild(parent, FName, TTagKind::TagList);
  if (!group) return teUnspecificError;
  if (FSaveValue) {
    const float value = GetCurrentValue();
    AddChild(*group, kValueTag, TTagKind::Float, &value);
  }
  AddChild(*group, kSmallIncrementTag, TTagKind::Float, &FSmallIncrement);
  AddChild(*group, kLargeIncrementTag, TTagKind::Float, &FLargeIncrement);
  return teNoError;
}

TTagError TUserFloatParameter::LoadParameterFromTagControl(const TTagControl* parent) {
  ResetShadowForLoad();
  if (!parent) return teNoError;
  const TTagControl* group = FindChild(*parent, FName);
  if (!group) return teTagNotFound;
  float value = 0;
  const TTagControl* tag = nullptr;
  if (FSaveValue && (tag = FindChild(*group, kValueTag)) && tag->GetFloatTag(&value, 1) >= 1)
    SetShadow(value);
  if ((tag = FindChild(*group, kSmallIncrementTag)) && tag->GetFloatTag(&value, 1) >= 1)
    FSmallIncrement = value;
  if ((tag = FindChild(*group, kLargeIncrementTag)) && tag->GetFloatTag(&value, 1) >= 1)
    FLargeIncrement = value;
  return teNoError;
}

std::string TUserFloatParameter::GetParameterString() const {
  char buffer[64];
  const double value = GetParameter();
  switch (FFloatStyle) {
  case TFloatFormat::Exponent:
    std::snprintf(buffer, sizeof(buffer), "%.*E", std::max(FFloatDigits - 1, 0), value);
    break;
  case TFloatFormat::Fixed:
    std::snprintf(buffer, sizeof(buffer), "%.*f", FFloatDigits, value);
    break;
  default:
    std::snprintf(buffer, sizeof(buffer), "%.*G", std::max(FFloatDigits, 1), value);
    break;
  }
  return buffer;
}

std::string TUserFloatParameter::GetValueText() const {
  return FloatToText(GetCurrentValue());
}

bool TUserFloatParameter::ParseValueText(const std::string& raw, float& value, std::string& problem) const {
  std::string text = Trim(raw);
  if (!text.empty() && text[0] == '+') text.erase(0, 1);
  double number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size() ||
      !std::isfinite(number) || std::fabs(number) > std::numeric_limits<float>::max()) {
    problem = "\"" + raw + "\" is not a number";
    return false;
  }
  value = static_cast<float>(number);
  if (FHasLowerLimit && value < FLowerLimit) {
    problem = FloatToText(value) + " is below the lower limit " + FloatToText(FLowerLimit);
    return false;
  }
  if (FHasUpperLimit && value > FUpperLimit) {
    problem = FloatToText(value) + " is above the upper limit " + FloatToText(FUpperLimit);
    return false;
  }
  return true;
}

bool TUserFloatParameter::CheckValueText(const std::string& text, std::string& problem) const {
  float value = 0;
  return ParseValueText(text, value, problem);
}

bool TUserFloatParameter::SetParameterFromText(const std::string& text, std::string& problem) {
  float value = 0;
  if (!ParseValueText(text, value, problem)) return false;
  if (!SetParameter(value)) {
    problem = "the value " + FloatToText(value) + " was refused";
    return false;
  }
  return true;
}

void TUserFloatParameter::Describe(TUserParameterInfo& info) const {
  TUserParameter::Describe(info);
  info.HasValue = true;
  info.HasLowerLimit = FHasLowerLimit;
  info.HasUpperLimit = FHasUpperLimit;
  info.LowerLimit = FLowerLimit;
  info.UpperLimit = FUpperLimit;
  info.SmallIncrement = FSmallIncrement;
  info.LargeIncrement = FLargeIncrement;
}

std::string TUserFloatParameter::CheckCurrentValue() const {
  const float value = GetCurrentValue();
  if (FHasLowerLimit && value < FLowerLimit)
    return FloatToText(value) + " is below the lower limit " + FloatToText(FLowerLimit);
  if (FHasUpperLimit && value > FUpperLimit)
    return FloatToText(value) + " is above the upper limit " + FloatToText(FUpperLimit);
  return std::string();
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

TTagError TUserBoolParameter::SaveParameter(TFileHandle file) {
  TTagControl group, t;
  TTagError result = group.WriteTag(file, FName, TTagKind::TagList);
  if (result >= 1 && FSaveValue) result = t.SaveBoolTag(file, kValueTag, GetCurrentValue());
  return result >= 1 ? group.CloseWriteTag(file) : result;
}

TTagError TUserBoolParameter::LoadParameter(TFileHandle file, const TTagControl* parent) {
  ResetShadowForLoad();
  if (!parent) return teNoError;
  TTagControl group, t;
  TTagError result = FindOwnGroup(file, *parent, group);
  if (result != teNoError || !FSaveValue) return result;
  bool value = false;
  if ((result = t.LoadOrDefaultBoolTag(file, kValueTag, group, &value, 1, GetShadowParameter())) < 1)
    return result;
  SetShadow(value);
  return teNoError;
}

TTagError TUserBoolParameter::SaveParameterToTagControl(TTagControl& parent) {
  TTagControl* group = AddChild(parent, FName, TTagKind::TagList);
  if (!group) return teUnspecificError;
  if (FSaveValue) {
    const bool value = GetCurrentValue();
    AddChild(*group, kValueTag, TTagKind::Bool, &value);
  }
  return teNoError;
}

TTagError TUserBoolParameter::LoadParameterFromTagControl(const TTagControl* parent) {
  ResetShadowForLoad();
  if (!parent) return teNoError;
  const TTagControl* group = FindChild(*parent, FName);
  if (!group) return teTagNotFound;
  bool value = false;
  const TTagControl* tag = nullptr;
  if (FSaveValue && (tag = FindChild(*group, kValueTag)) && tag->GetBoolTag(&value, 1) >= 1) SetShadow(value);
  return teNoError;
}

std::string TUserBoolParameter::GetParameterString() const {
  return GetParameter() ? FTrueText : FFalseText;
}

std::string TUserBoolParameter::GetValueText() const {
  return GetCurrentValue() ? "true" : "false";
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
  TUserParameter::Describe(info);
  info.HasValue = true;
  info.EntryNames = {FFalseText, FTrueText};
  info.EntryNumbers = {0, 1};
}

// ---------------------------------------------------------------------------------------------
// TUserStringParameter

TUserStringParameter::TUserStringParameter(int32_t id, const std::string& name, const std::string& caption,
                                           const std::string& description, const std::string& defaultValue)
    : TUserValueParameter<std::string>(TUserParameterKind::String, id, name, caption, description,
                                       defaultValue) {}

TTagError TUserStringParameter::SaveParameter(TFileHandle file) {
  TTagControl group, t;
  TTagError result = group.WriteTag(file, FName, TTagKind::TagList);
  if (result >= 1 && FSaveValue) result = t.SaveAnsiStringTag(file, kValueTag, GetCurrentValue());
  return result >= 1 ? group.CloseWriteTag(file) : result;
}

TTagError TUserStringParameter::LoadParameter(TFileHandle file, const TTagControl* parent) {
  ResetShadowForLoad();
  if (!parent) return teNoError;
  TTagControl group, t;
  TTagError result = FindOwnGroup(file, *parent, group);
  if (result != teNoError || !FSaveValue) return result;
  std::string value;
  if ((result = t.LoadOrDefaultAnsiStringTag(file, kValueTag, group, value, GetShadowParameter())) < 1)
    return result;
  SetShadow(value);
  return teNoError;
}

TTagError TUserStringParameter::SaveParameterToTagControl(TTagControl& parent) {
  TTagControl* group = AddChild(parent, FName, TTagKind::TagList);
  if (!group) return teUnspecificError;
  if (FSaveValue) {
    const std::string value = GetCurrentValue();
    AddChild(*group, kValueTag, TTagKind::AnsiString, &value);
  }
  return teNoError;
}

TTagError TUserStringParameter::LoadParameterFromTagControl(const TTagControl* parent) {
  ResetShadowForLoad();
  if (!parent) return teNoError;
  const TTagControl* group = FindChild(*parent, FName);
  if (!group) return teTagNotFound;
  std::string value;
  const TTagControl* tag = nullptr;
  if (FSaveValue && (tag = FindChild(*group, kValueTag)) && tag->GetAnsiStringTag(value) >= 1)
    SetShadow(value);
  return teNoError;
}

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

void TUserStringParameter::Describe(TUserParameterInfo& info) const {
  TUserParameter::Describe(info);
  info.HasValue = true;
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
