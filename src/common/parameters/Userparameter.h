// User parameters: typed, named values with limits and steps that validate changes, tell listeners,
// update their input controls and save themselves to tag files.
#pragma once

#include "common/Floatstyle.h"
#include "common/Tagcontrol.h"

#include <atomic>
#include <concepts>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class TUserParameter;
class TUserParameterAdministrator;

/// The kind of a parameter as its base stores it.
enum class TUserParameterKind : int32_t {
  None = -1,
  List = 1,
  Int = 2,
  Float = 3,
  Bool = 4,
  String = 5,
  Trigger = 6,
  ContinuousAction = 7,
  Collection = 8,
};

/// Name of a kind for listings ("Int", "Float", ...).
std::string UserParameterKindName(TUserParameterKind kind);

/// Error state of a parameter: 1 means no error, 0 marks the value as wrong (red in its controls).
using TUserParameterError = int32_t;
inline constexpr TUserParameterError kUserParameterNoError = 1;
inline constexpr TUserParameterError kUserParameterError = 0;

/// The parameters a change concerns; the first is the one that was set.
using TUserParameterList = std::vector<TUserParameter*>;

/// A value was taken over. internalChange is false for every change made through SetParameter.
using TParameterChangedEvent = std::function<void(const TUserParameterList& changed, bool internalChange)>;
/// Asked before a value is taken over; the wanted value is readable through GetWantedParameter.
using TIsNewParameterOkEvent = std::function<bool(const TUserParameterList& changed)>;
/// Enabled, visible or error state of the parameter changed.
using TParameterStateChangedEvent = std::function<void(TUserParameter* parameter)>;

/// Font colour that a control shows: window text normally, red while the parameter is in error.
enum class TUserParameterFontColor { WindowText, Red };

/// An input control (or its label) that shows a parameter. The control reports an entered value by
/// calling the parameter's setters (SetParameter, SetParameterFromText); the parameter calls back here.
class IUserParameterInputMask {
public:
  virtual ~IUserParameterInputMask() = default;
  /// Shows the parameter's range, steps, entries and current value.
  virtual void ShowParameter(const TUserParameter& parameter) = 0;
  /// Shows enabled and visible state and the font colour of the error state.
  virtual void ShowState(bool enabled, bool visible, TUserParameterFontColor fontColor) = 0;
};

/// Lock that guards the value copies of an administrator's parameters: spins a bounded number of times,
/// then blocks. Held only around copies, never while a listener runs.
class TUserParameterLock {
public:
  static constexpr int kSpinCount = 4000;
  void lock() {
    for (int i = 0; i < kSpinCount; ++i)
      if (FMutex.try_lock()) return;
    FMutex.lock();
  }
  void unlock() { FMutex.unlock(); }

private:
  std::mutex FMutex;
};

/// Everything a form or a listing needs to know of one parameter (see TUserParameter::Describe).
struct TUserParameterInfo {
  TUserParameter* Parameter = nullptr;
  TUserParameterKind Kind = TUserParameterKind::None;
  int32_t Id = -1;
  int Depth = 0;            ///< 0 at the root, one more inside each collection
  std::string Name;         ///< tag name, also the name in "name=value"
  std::string AbsoluteName; ///< path with "|" between the levels
  std::string Caption;      ///< label
  std::string Description;  ///< help text
  std::string Unit;         ///< unit of the value, empty when it has none
  std::string DefaultValue; ///< the declared default in the text form of Value
  bool HasValue = false;    ///< false for triggers, actions and collections
  bool HasLowerLimit = false;
  bool HasUpperLimit = false;
  double LowerLimit = 0;
  double UpperLimit = 0;
  double SmallIncrement = 0;
  double LargeIncrement = 0;
  std::vector<std::string> EntryNames; ///< list descriptions; for bools the false and true texts
  std::vector<int32_t> EntryNumbers;   ///< numbers of the list entries
  std::string Value;                   ///< text that SetParameterFromText accepts back
  std::string DisplayValue;            ///< GetParameterString
  bool Enabled = true;
  bool Visible = true;
  bool SaveValue = true;
};

/// Base of all parameter kinds.
class TUserParameter {
public:
  TUserParameter(TUserParameterKind kind, int32_t id, const std::string& name, const std::string& caption,
                 const std::string& description);
  virtual ~TUserParameter();
  TUserParameter(const TUserParameter&) = delete;
  TUserParameter& operator=(const TUserParameter&) = delete;

  /// Attaches a control (and optionally its label) and shows the parameter in it.
  virtual void AddInputMask(IUserParameterInputMask* control, IUserParameterInputMask* label = nullptr);
  virtual void RemoveInputMask(IUserParameterInputMask* control);
  /// Shows the current value and range in every attached control.
  virtual void UpdateInputMasks() = 0;
  /// Writes the parameter's group into an open file.
  virtual TTagError SaveParameter(TFileHandle file) = 0;
  /// Puts the stored value aside as shadow value (parent null: only the reset of the shadow).
  virtual TTagError LoadParameter(TFileHandle file, const TTagControl* parent) = 0;
  /// Adds the parameter's group to parent in memory.
  virtual TTagError SaveParameterToTagControl(TTagControl& parent) = 0;
  /// Like LoadParameter, from a tree in memory.
  virtual TTagError LoadParameterFromTagControl(const TTagControl* parent) = 0;
  /// Takes the shadow value over through SetParameter.
  virtual void InheritShadowParameter() = 0;
  /// Takes the value of a parameter of the same kind through SetParameter; false for another kind.
  virtual bool Assign(const TUserParameter& source);
  virtual void SetEnabled(bool enabled);
  virtual void SetVisible(bool visible);
  virtual void SetErrorState(TUserParameterError state);
  virtual bool GetEnabled() const { return FEnabled; }
  virtual bool GetVisible() const { return FVisible; }
  virtual TUserParameterError GetErrorState() const { return FErrorState; }
  /// The value as it is displayed.
  virtual std::string GetParameterString() const { return std::string(); }

  /// @{ Text form of the value, for the command line and generic forms. The text of GetValueText is
  /// accepted back by SetParameterFromText. Parsing problems and values outside the limits are
  /// reported in problem; a value outside the limits is not clipped here, it is refused.
  virtual std::string GetValueText() const { return std::string(); }
  virtual bool CheckValueText(const std::string& text, std::string& problem) const;
  /// CheckValueText, then SetParameter; a refusal by OnIsNewParameterOk is a problem as well.
  virtual bool SetParameterFromText(const std::string& text, std::string& problem);
  /// @}

  /// The declared default in the text form of GetValueText; empty for kinds without a value.
  virtual std::string GetDefaultValueText() const { return std::string(); }

  /// @{ The value alone as one tag named like the parameter: the form of a tool's stored settings,
  /// where each value is one tag. Written only with SaveValue. Loading puts the stored value aside as
  /// shadow value (the default or the current value when the tag is missing, by ResetOnLoad), to be
  /// taken over by InheritShadowParameter. Kinds without a value write and read nothing.
  virtual TTagError SaveValueTag(TFileHandle /*file*/) { return teNoError; }
  virtual TTagError LoadValueTag(TFileHandle /*file*/, const TTagControl& /*parent*/) { return teNoError; }
  virtual TTagError AddValueTag(TTagControl& /*parent*/) { return teNoError; }
  virtual TTagError ReadValueTag(const TTagControl& /*parent*/) { return teNoError; }
  /// @}

  /// Fills info with what this parameter knows of itself (depth and path are the caller's).
  virtual void Describe(TUserParameterInfo& info) const;
  /// Problem of the current value alone (outside limits after the limits changed); empty when fine.
  virtual std::string CheckCurrentValue() const { return std::string(); }

  /// Path of the parameter: names of enclosing collections and its own, with "|" between them;
  /// "Fehler" when the parameter has no administrator.
  std::string GetAbsoluteName() const;

  /// @{ Fields.
  TUserParameterKind GetKind() const { return FKind; }
  int32_t GetId() const { return FId; }
  const std::string& GetName() const { return FName; }
  const std::string& GetCaption() const { return FCaption; }
  void SetCaption(const std::string& caption) { FCaption = caption; }
  const std::string& GetDescription() const { return FDescription; }
  void SetDescription(const std::string& description) { FDescription = description; }
  /// Unit of the value as the user reads it ("cm-1", "px"); empty when it has none.
  const std::string& GetUnit() const { return FUnit; }
  void SetUnit(const std::string& unit) { FUnit = unit; }
  bool GetSaveValue() const { return FSaveValue; }
  void SetSaveValue(bool value) { FSaveValue = value; }
  bool GetResetOnLoad() const { return FResetOnLoad; }
  void SetResetOnLoad(bool value) { FResetOnLoad = value; }
  /// True between a load that put a value aside and the take-over of that value.
  bool GetShadowPending() const { return FShadowPending; }
  TUserParameterAdministrator* GetAdministrator() const { return FAdministrator; }
  void SetAdministrator(TUserParameterAdministrator* administrator) { FAdministrator = administrator; }
  const std::vector<IUserParameterInputMask*>& GetInputMasks() const { return FInputMasks; }
  /// @}

  TParameterChangedEvent OnParameterChanged;
  TIsNewParameterOkEvent OnIsNewParameterOk;
  TParameterStateChangedEvent OnParameterStateChanged;

protected:
  /// The administrator's lock, or a lock of its own when the parameter stands alone.
  TUserParameterLock& ValueLock() const;
  /// Asks OnIsNewParameterOk (yes without the event).
  bool AskIsNewParameterOk(const TUserParameterList& changed);
  void ShowStateInMasks();
  void DoParameterStateChanged();
  /// Finds the parameter's group in parent (file path); the result of the search.
  TTagError FindOwnGroup(TFileHandle file, const TTagControl& parent, TTagControl& group) const;
  /// Appends the parameter's group to a list node of a tree; null when parent is no list.
  TTagControl* AddGroup(TTagControl& parent) const;
  /// The parameter's group among the direct children of parent; null when there is none.
  const TTagControl* FindGroup(const TTagControl& parent) const;

  bool FSaveValue = true;
  bool FResetOnLoad = true;
  bool FShadowPending = false;
  TUserParameterAdministrator* FAdministrator = nullptr;
  int32_t FId = -1;
  std::vector<IUserParameterInputMask*> FInputMasks;
  std::vector<IUserParameterInputMask*> FInputLabels; ///< one per mask, may be null
  std::string FCaption;
  TUserParameterKind FKind = TUserParameterKind::None;
  bool FEnabled = true;
  bool FVisible = true;
  TUserParameterError FErrorState = kUserParameterNoError;
  std::string FName;
  std::string FDescription;
  std::string FUnit;
  mutable TUserParameterLock FOwnLock;
};

/// Text forms and tag forms of the value types, shared by the value kinds.
namespace UserParameterValue {
/// @{ Shortest text that reads back as the same number (std::to_chars).
std::string ToText(int32_t value);
std::string ToText(float value);
std::string ToText(double value);
/// @}
/// @{ Reads a whole text (blanks around it and a leading "+" allowed) into a number; false when the
/// text is no number of the type, not finite, or outside the type's range.
bool FromText(const std::string& text, int32_t& value);
bool FromText(const std::string& text, float& value);
bool FromText(const std::string& text, double& value);
/// @}
/// What a malformed text should have been: "a whole number" or "a number".
const char* ExpectedText(int32_t);
const char* ExpectedText(float);
const char* ExpectedText(double);

/// @{ One value as a tag named name: written into an open file, read from the children of parent in a
/// file (the old value stays when the tag is missing or unreadable), appended to a tree, read from a tree.
TTagError Save(TFileHandle file, const std::string& name, int32_t value);
TTagError Save(TFileHandle file, const std::string& name, float value);
TTagError Save(TFileHandle file, const std::string& name, double value);
TTagError Save(TFileHandle file, const std::string& name, bool value);
TTagError Save(TFileHandle file, const std::string& name, const std::string& value);
TTagError Load(TFileHandle file, const std::string& name, const TTagControl& parent, int32_t& value);
TTagError Load(TFileHandle file, const std::string& name, const TTagControl& parent, float& value);
TTagError Load(TFileHandle file, const std::string& name, const TTagControl& parent, double& value);
TTagError Load(TFileHandle file, const std::string& name, const TTagControl& parent, bool& value);
TTagError Load(TFileHandle file, const std::string& name, const TTagControl& parent, std::string& value);
TTagError Add(TTagControl& parent, const std::string& name, int32_t value);
TTagError Add(TTagControl& parent, const std::string& name, float value);
TTagError Add(TTagControl& parent, const std::string& name, double value);
TTagError Add(TTagControl& parent, const std::string& name, bool value);
TTagError Add(TTagControl& parent, const std::string& name, const std::string& value);
bool Get(const TTagControl& parent, const std::string& name, int32_t& value);
bool Get(const TTagControl& parent, const std::string& name, float& value);
bool Get(const TTagControl& parent, const std::string& name, double& value);
bool Get(const TTagControl& parent, const std::string& name, bool& value);
bool Get(const TTagControl& parent, const std::string& name, std::string& value);
/// @}

/// Display text of a floating value in a style: significant digits (general, exponent) or decimals (fixed).
std::string FormatFloat(double value, TFloatFormat style, int digits);
} // namespace UserParameterValue

/// Common part of the kinds that hold a value: the four copies (default, wanted, shadow, current),
/// the set algorithm, the shadow logic of loading and the file forms of the value. Derived kinds add
/// their text form; the numbers their limits and steps.
template <typename T>
class TUserValueParameter : public TUserParameter {
public:
  TUserValueParameter(TUserParameterKind kind, int32_t id, const std::string& name,
                      const std::string& caption, const std::string& description, const T& defaultValue)
      : TUserParameter(kind, id, name, caption, description), FDefaultValue(defaultValue),
        FWantedValue(defaultValue), FShadowValue(defaultValue), FCurrentValue(defaultValue) {}

  /// The current value; any thread may read it.
  virtual T GetParameter() const {
    std::lock_guard<TUserParameterLock> guard(ValueLock());
    return FCurrentValue;
  }
  /// Applies the limits, asks OnIsNewParameterOk, takes the value over and tells OnParameterChanged.
  /// Returns false when the value was refused (the current value stays).
  bool SetParameter(const T& value) { return SetValue(value, true); }
  /// The same without telling OnParameterChanged.
  bool SetParameterSilent(const T& value) { return SetValue(value, false); }

  T GetDefaultValue() const { return FDefaultValue; }
  void SetDefaultValue(const T& value) { FDefaultValue = value; }
  /// The value of the running set after limits; what OnIsNewParameterOk is asked about.
  T GetWantedParameter() const {
    std::lock_guard<TUserParameterLock> guard(ValueLock());
    return FWantedValue;
  }
  T GetShadowParameter() const {
    std::lock_guard<TUserParameterLock> guard(ValueLock());
    return FShadowValue;
  }
  /// The stored current value, without any forcing of the administrator's state sets.
  T GetCurrentValue() const {
    std::lock_guard<TUserParameterLock> guard(ValueLock());
    return FCurrentValue;
  }

  void UpdateInputMasks() override {
    for (IUserParameterInputMask* mask : FInputMasks) mask->ShowParameter(*this);
  }
  void InheritShadowParameter() override {
    FShadowPending = false;
    if (FSaveValue || FResetOnLoad) SetParameter(GetShadowParameter());
  }
  /// The text form of a value of this kind; what SetParameterFromText accepts back.
  virtual std::string ValueToText(const T& value) const = 0;
  std::string GetValueText() const override { return ValueToText(GetCurrentValue()); }
  std::string GetDefaultValueText() const override { return ValueToText(FDefaultValue); }

  /// The group of the parameter's name holding "Value" (with SaveValue); kinds with steps add them.
  TTagError SaveParameter(TFileHandle file) override {
    TTagControl group;
    TTagError result = group.WriteTag(file, FName, TTagKind::TagList);
    if (result >= 1 && FSaveValue) result = UserParameterValue::Save(file, "Value", GetCurrentValue());
    return result >= 1 ? group.CloseWriteTag(file) : result;
  }
  TTagError LoadParameter(TFileHandle file, const TTagControl* parent) override {
    ResetShadowForLoad();
    if (!parent) return teNoError;
    TTagControl group;
    TTagError result = FindOwnGroup(file, *parent, group);
    if (result != teNoError || !FSaveValue) return result;
    T value = GetShadowParameter();
    if ((result = UserParameterValue::Load(file, "Value", group, value)) < 1) return result;
    SetShadow(value);
    return teNoError;
  }
  TTagError SaveParameterToTagControl(TTagControl& parent) override {
    TTagControl* group = AddGroup(parent);
    if (!group) return teUnspecificError;
    if (FSaveValue) UserParameterValue::Add(*group, "Value", GetCurrentValue());
    return teNoError;
  }
  TTagError LoadParameterFromTagControl(const TTagControl* parent) override {
    ResetShadowForLoad();
    if (!parent) return teNoError;
    const TTagControl* group = FindGroup(*parent);
    if (!group) return teTagNotFound;
    T value = GetShadowParameter();
    if (FSaveValue && UserParameterValue::Get(*group, "Value", value)) SetShadow(value);
    return teNoError;
  }

  TTagError SaveValueTag(TFileHandle file) override {
    return FSaveValue ? UserParameterValue::Save(file, FName, GetCurrentValue()) : teNoError;
  }
  TTagError LoadValueTag(TFileHandle file, const TTagControl& parent) override {
    ResetShadowForLoad();
    if (!FSaveValue) return teNoError;
    T value = GetShadowParameter();
    const TTagError result = UserParameterValue::Load(file, FName, parent, value);
    if (result >= 1) SetShadow(value);
    return result;
  }
  TTagError AddValueTag(TTagControl& parent) override {
    return FSaveValue ? UserParameterValue::Add(parent, FName, GetCurrentValue()) : teNoError;
  }
  TTagError ReadValueTag(const TTagControl& parent) override {
    ResetShadowForLoad();
    T value = GetShadowParameter();
    if (FSaveValue && UserParameterValue::Get(parent, FName, value)) SetShadow(value);
    return teNoError;
  }
  void Describe(TUserParameterInfo& info) const override {
    TUserParameter::Describe(info);
    info.HasValue = true;
  }

  bool Assign(const TUserParameter& source) override {
    if (source.GetKind() != FKind) return false;
    const auto* typed = dynamic_cast<const TUserValueParameter<T>*>(&source);
    if (!typed) return false;
    SetParameter(typed->GetCurrentValue());
    return true;
  }

protected:
  /// The value after the limits of the kind.
  virtual T ApplyLimits(const T& value) const { return value; }

  bool SetValue(const T& value, bool notify) {
    TUserParameterList changed{this};
    {
      std::lock_guard<TUserParameterLock> guard(ValueLock());
      FWantedValue = ApplyLimits(value);
    }
    const bool ok = AskIsNewParameterOk(changed);
    if (ok) {
      std::lock_guard<TUserParameterLock> guard(ValueLock());
      FShadowValue = FWantedValue;
      FCurrentValue = FWantedValue;
    }
    // Refused values are taken back from the display here as well.
    UpdateInputMasks();
    if (ok && notify && OnParameterChanged) OnParameterChanged(changed, false);
    return ok;
  }

  /// Start of every load: the shadow is the default (ResetOnLoad) or the current value.
  void ResetShadowForLoad() {
    std::lock_guard<TUserParameterLock> guard(ValueLock());
    FShadowValue = FResetOnLoad ? FDefaultValue : FCurrentValue;
    FShadowPending = true;
  }
  void SetShadow(const T& value) {
    std::lock_guard<TUserParameterLock> guard(ValueLock());
    FShadowValue = value;
  }

  T FDefaultValue;
  T FWantedValue;
  T FShadowValue;
  T FCurrentValue;
};

/// A number with optional limits, two steps and, for the floating types, a display style. The
/// integer, float and double kinds are this one template: limits, increments, their file and tree
/// form, the text form and its checks exist once.
template <typename T>
class TUserNumericParameter : public TUserValueParameter<T> {
  using Base = TUserValueParameter<T>;

public:
  /// @{ Limits and steps: stored only; the next set clips.
  void SetLowerLimit(T limit) { FLowerLimit = limit; }
  void SetUpperLimit(T limit) { FUpperLimit = limit; }
  void SetHasLowerLimit(bool has) { FHasLowerLimit = has; }
  void SetHasUpperLimit(bool has) { FHasUpperLimit = has; }
  /// Both limits, both switched on.
  void SetLimits(T lower, T upper) {
    FLowerLimit = lower;
    FUpperLimit = upper;
    FHasLowerLimit = FHasUpperLimit = true;
  }
  void SetSmallIncrement(T step) { FSmallIncrement = step; }
  void SetLargeIncrement(T step) { FLargeIncrement = step; }
  T GetLowerLimit() const { return FLowerLimit; }
  T GetUpperLimit() const { return FUpperLimit; }
  bool GetHasLowerLimit() const { return FHasLowerLimit; }
  bool GetHasUpperLimit() const { return FHasUpperLimit; }
  T GetSmallIncrement() const { return FSmallIncrement; }
  T GetLargeIncrement() const { return FLargeIncrement; }
  /// Display: style, significant digits (general, exponent) or decimals (fixed).
  void SetFloatStyle(TFloatFormat style, int digits) requires std::floating_point<T> {
    FFloatStyle = style;
    FFloatDigits = digits < 0 ? 0 : (digits > 18 ? 18 : digits);
  }
  TFloatFormat GetFloatStyle() const requires std::floating_point<T> { return FFloatStyle; }
  int GetFloatDigits() const requires std::floating_point<T> { return FFloatDigits; }
  /// @}

  TTagError SaveParameter(TFileHandle file) override {
    TTagControl group;
    TTagError result = group.WriteTag(file, this->FName, TTagKind::TagList);
    if (result >= 1 && this->FSaveValue)
      result = UserParameterValue::Save(file, kValueTag, this->GetCurrentValue());
    if (result >= 1) result = UserParameterValue::Save(file, kSmallIncrementTag, FSmallIncrement);
    if (result >= 1) result = UserParameterValue::Save(file, kLargeIncrementTag, FLargeIncrement);
    return result >= 1 ? group.CloseWriteTag(file) : result;
  }
  TTagError LoadParameter(TFileHandle file, const TTagControl* parent) override {
    this->ResetShadowForLoad();
    if (!parent) return teNoError;
    TTagControl group;
    TTagError result = this->FindOwnGroup(file, *parent, group);
    if (result != teNoError) return result;
    if (this->FSaveValue) {
      T value = this->GetShadowParameter();
      if ((result = UserParameterValue::Load(file, kValueTag, group, value)) < 1) return result;
      this->SetShadow(value);
    }
    if ((result = UserParameterValue::Load(file, kSmallIncrementTag, group, FSmallIncrement)) < 1)
      return result;
    return UserParameterValue::Load(file, kLargeIncrementTag, group, FLargeIncrement);
  }
  TTagError SaveParameterToTagControl(TTagControl& parent) override {
    TTagControl* group = this->AddGroup(parent);
    if (!group) return teUnspecificError;
    if (this->FSaveValue) UserParameterValue::Add(*group, kValueTag, this->GetCurrentValue());
    UserParameterValue::Add(*group, kSmallIncrementTag, FSmallIncrement);
    UserParameterValue::Add(*group, kLargeIncrementTag, FLargeIncrement);
    return teNoError;
  }
  TTagError LoadParameterFromTagControl(const TTagControl* parent) override {
    this->ResetShadowForLoad();
    if (!parent) return teNoError;
    const TTagControl* group = this->FindGroup(*parent);
    if (!group) return teTagNotFound;
    T value = this->GetShadowParameter();
    if (this->FSaveValue && UserParameterValue::Get(*group, kValueTag, value)) this->SetShadow(value);
    UserParameterValue::Get(*group, kSmallIncrementTag, FSmallIncrement);
    UserParameterValue::Get(*group, kLargeIncrementTag, FLargeIncrement);
    return teNoError;
  }

  std::string GetParameterString() const override {
    if constexpr (std::floating_point<T>)
      return UserParameterValue::FormatFloat(this->GetParameter(), FFloatStyle, FFloatDigits);
    else
      return std::to_string(this->GetParameter());
  }
  std::string ValueToText(const T& value) const override { return UserParameterValue::ToText(value); }
  bool CheckValueText(const std::string& text, std::string& problem) const override {
    T value{};
    return ParseValueText(text, value, problem);
  }
  bool SetParameterFromText(const std::string& text, std::string& problem) override {
    T value{};
    if (!ParseValueText(text, value, problem)) return false;
    if (!this->SetParameter(value)) {
      problem = "the value " + UserParameterValue::ToText(value) + " was refused";
      return false;
    }
    return true;
  }
  void Describe(TUserParameterInfo& info) const override {
    Base::Describe(info);
    info.HasLowerLimit = FHasLowerLimit;
    info.HasUpperLimit = FHasUpperLimit;
    info.LowerLimit = static_cast<double>(FLowerLimit);
    info.UpperLimit = static_cast<double>(FUpperLimit);
    info.SmallIncrement = static_cast<double>(FSmallIncrement);
    info.LargeIncrement = static_cast<double>(FLargeIncrement);
  }
  std::string CheckCurrentValue() const override { return LimitProblem(this->GetCurrentValue()); }

protected:
  static constexpr const char* kValueTag = "Value";
  static constexpr const char* kSmallIncrementTag = "SmallIncrement";
  static constexpr const char* kLargeIncrementTag = "LargeIncrement";

  TUserNumericParameter(TUserParameterKind kind, int32_t id, const std::string& name,
                        const std::string& caption, const std::string& description, T defaultValue)
      : Base(kind, id, name, caption, description, defaultValue) {}

  /// Below the lower limit becomes the lower limit, then above the upper limit the upper limit.
  T ApplyLimits(const T& value) const override {
    T result = value;
    if (FHasLowerLimit && result < FLowerLimit) result = FLowerLimit;
    if (FHasUpperLimit && result > FUpperLimit) result = FUpperLimit;
    return result;
  }
  /// Why value lies outside the limits, naming them; empty when it lies inside.
  std::string LimitProblem(T value) const {
    const bool below = FHasLowerLimit && value < FLowerLimit;
    const bool above = FHasUpperLimit && value > FUpperLimit;
    if (!below && !above) return std::string();
    const std::string text = UserParameterValue::ToText(value);
    if (FHasLowerLimit && FHasUpperLimit)
      return text + " is outside the limits " + UserParameterValue::ToText(FLowerLimit) + " to " +
             UserParameterValue::ToText(FUpperLimit);
    return below ? text + " is below the lower limit " + UserParameterValue::ToText(FLowerLimit)
                 : text + " is above the upper limit " + UserParameterValue::ToText(FUpperLimit);
  }
  /// Parses the text into a number and checks the limits: a value outside them is refused, not clipped.
  bool ParseValueText(const std::string& text, T& value, std::string& problem) const {
    if (!UserParameterValue::FromText(text, value)) {
      problem = "\"" + text + "\" is not " + UserParameterValue::ExpectedText(T{});
      return false;
    }
    problem = LimitProblem(value);
    return problem.empty();
  }

  T FUpperLimit{};
  T FLowerLimit{};
  bool FHasUpperLimit = false;
  bool FHasLowerLimit = false;
  T FSmallIncrement{};
  T FLargeIncrement{};
  TFloatFormat FFloatStyle = TFloatFormat::General;
  int FFloatDigits = 7;
};

/// An integer with optional limits (none by default) and two steps (1 and 10).
class TUserIntParameter : public TUserNumericParameter<int32_t> {
public:
  TUserIntParameter(int32_t id, const std::string& name, const std::string& caption,
                    const std::string& description, int32_t defaultValue = 0)
      : TUserIntParameter(TUserParameterKind::Int, id, name, caption, description, defaultValue) {}

protected:
  TUserIntParameter(TUserParameterKind kind, int32_t id, const std::string& name, const std::string& caption,
                    const std::string& description, int32_t defaultValue)
      : TUserNumericParameter<int32_t>(kind, id, name, caption, description, defaultValue) {
    FSmallIncrement = 1;
    FLargeIncrement = 10;
  }
};

/// An integer chosen from a list of (description, number) entries.
class TUserListParameter : public TUserIntParameter {
public:
  TUserListParameter(int32_t id, const std::string& name, const std::string& caption,
                     const std::string& description, int32_t defaultValue = 0);

  void AddListEntry(const std::string& description, int32_t number);
  /// Replaces entry index; an index out of range does nothing.
  void ChangeListEntry(int index, const std::string& description, int32_t number);
  void ClearAllEntries();
  const std::vector<std::string>& GetDescriptions() const { return FDescriptions; }
  std::vector<std::pair<std::string, int32_t>> GetDescriptionsAndNumbers() const;
  /// Sets the number of the first entry with this description; false when there is none.
  bool SetParameterWithDescription(const std::string& description);
  /// Sets the number of entry index; an index out of range does nothing (false).
  bool SetParameterByIndex(int index);
  /// Index of the first entry whose number is the current value, -1 when none is.
  int GetDescriptionsIndexFromParameter() const;

  std::string GetParameterString() const override;
  /// The description of the entry with this number; the number itself when no entry has it.
  std::string ValueToText(const int32_t& value) const override;
  bool CheckValueText(const std::string& text, std::string& problem) const override;
  bool SetParameterFromText(const std::string& text, std::string& problem) override;
  void Describe(TUserParameterInfo& info) const override;
  std::string CheckCurrentValue() const override;

private:
  /// Number of the entry named by text: its description, else its number in decimal.
  bool ParseEntry(const std::string& text, int32_t& number, std::string& problem) const;

  std::vector<std::string> FDescriptions;
  std::vector<int32_t> FNumbers;
};

/// A float with limits (0 to 10 by default, both on), two steps (0.1 and 1) and a display style.
class TUserFloatParameter : public TUserNumericParameter<float> {
public:
  TUserFloatParameter(int32_t id, const std::string& name, const std::string& caption,
                      const std::string& description, float defaultValue = 0.0f)
      : TUserNumericParameter<float>(TUserParameterKind::Float, id, name, caption, description,
                                     defaultValue) {
    SetLimits(0.0f, 10.0f);
    FSmallIncrement = 0.1f;
    FLargeIncrement = 1.0f;
  }
};

/// A float kept in double precision, for settings that need more than seven digits (tolerances,
/// positions on a spectral axis). No limits by default; steps 0.1 and 1. Its kind is that of a float.
class TUserDoubleParameter : public TUserNumericParameter<double> {
public:
  TUserDoubleParameter(int32_t id, const std::string& name, const std::string& caption,
                       const std::string& description, double defaultValue = 0.0)
      : TUserNumericParameter<double>(TUserParameterKind::Float, id, name, caption, description,
                                      defaultValue) {
    FSmallIncrement = 0.1;
    FLargeIncrement = 1.0;
  }
};

/// A bool with the two texts that its controls show.
class TUserBoolParameter : public TUserValueParameter<bool> {
public:
  TUserBoolParameter(int32_t id, const std::string& name, const std::string& caption,
                     const std::string& description, bool defaultValue = false);

  /// False while the parameter is falsified by its administrator, else the current value.
  bool GetParameter() const override;
  void TrueFalseStrings(const std::string& trueText, const std::string& falseText);
  const std::string& GetTrueText() const { return FTrueText; }
  const std::string& GetFalseText() const { return FFalseText; }
  /// Forces the value read to false (state sets of the administrator); shows the change.
  void SetFalsified(bool falsified);
  bool GetFalsified() const { return FFalsified; }

  std::string GetParameterString() const override;
  /// "true" or "false".
  std::string ValueToText(const bool& value) const override { return value ? "true" : "false"; }
  bool CheckValueText(const std::string& text, std::string& problem) const override;
  bool SetParameterFromText(const std::string& text, std::string& problem) override;
  void Describe(TUserParameterInfo& info) const override;

private:
  bool ParseValueText(const std::string& text, bool& value, std::string& problem) const;

  std::string FTrueText = "True";
  std::string FFalseText = "False";
  std::atomic<bool> FFalsified{false};
};

/// A text.
class TUserStringParameter : public TUserValueParameter<std::string> {
public:
  TUserStringParameter(int32_t id, const std::string& name, const std::string& caption,
                       const std::string& description, const std::string& defaultValue = std::string());

  std::string GetParameterString() const override { return GetParameter(); }
  std::string ValueToText(const std::string& value) const override { return value; }
  bool CheckValueText(const std::string& text, std::string& problem) const override;
  bool SetParameterFromText(const std::string& text, std::string& problem) override;
};

/// A command without a value: Trigger asks OnIsNewParameterOk and tells OnParameterChanged.
class TUserTriggerParameter : public TUserParameter {
public:
  TUserTriggerParameter(int32_t id, const std::string& name, const std::string& caption,
                        const std::string& description);
  /// Fires the command; false when OnIsNewParameterOk refused it.
  bool Trigger();

  void UpdateInputMasks() override;
  TTagError SaveParameter(TFileHandle file) override;
  TTagError LoadParameter(TFileHandle file, const TTagControl* parent) override;
  TTagError SaveParameterToTagControl(TTagControl& parent) override;
  TTagError LoadParameterFromTagControl(const TTagControl* parent) override;
  void InheritShadowParameter() override {}

protected:
  TUserTriggerParameter(TUserParameterKind kind, int32_t id, const std::string& name,
                        const std::string& caption, const std::string& description);
};

/// An action that runs while its control is held down: Start and Stop bracket it, Trigger repeats it.
class TUserContinuousActionParameter : public TUserTriggerParameter {
public:
  TUserContinuousActionParameter(int32_t id, const std::string& name, const std::string& caption,
                                 const std::string& description);
  /// The control went down (true) or up (false); each switch is told like a trigger.
  void SetActionRunning(bool running);
  bool GetActionRunning() const { return FRunning; }

private:
  std::atomic<bool> FRunning{false};
};
