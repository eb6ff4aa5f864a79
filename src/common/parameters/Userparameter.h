// User parameters: typed, named values with limits and steps that validate changes, tell listeners,
// update their input controls and save themselves to tag files.
#pragma once

#include "common/Floatstyle.h"
#include "common/Tagcontrol.h"

#include <atomic>
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

/// Display of floats, as the float controls format them.

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
  mutable TUserParameterLock FOwnLock;
};

/// Common part of the kinds that hold a value: the four copies (default, wanted, shadow, current),
/// the set algorithm and the shadow logic of loading. Derived kinds add limits and the file form.
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

/// An integer with optional limits and two steps.
class TUserIntParameter : public TUserValueParameter<int32_t> {
public:
  TUserIntParameter(int32_t id, const std::string& name, const std::string& caption,
                    const std::string& description, int32_t defaultValue = 0);

  /// @{ Limits and steps: stored only; the next set clips.
  void SetLowerLimit(int32_t limit) { FLowerLimit = limit; }
  void SetUpperLimit(int32_t limit) { FUpperLimit = limit; }
  void SetHasLowerLimit(bool has) { FHasLowerLimit = has; }
  void SetHasUpperLimit(bool has) { FHasUpperLimit = has; }
  /// Both limits, both switched on.
  void SetLimits(int32_t lower, int32_t upper);
  void SetSmallIncrement(int32_t step) { FSmallIncrement = step; }
  void SetLargeIncrement(int32_t step) { FLargeIncrement = step; }
  int32_t GetLowerLimit() const { return FLowerLimit; }
  int32_t GetUpperLimit() const { return FUpperLimit; }
  bool GetHasLowerLimit() const { return FHasLowerLimit; }
  bool GetHasUpperLimit() const { return FHasUpperLimit; }
  int32_t GetSmallIncrement() const { return FSmallIncrement; }
  int32_t GetLargeIncrement() const { return FLargeIncrement; }
  /// @}

  TTagError SaveParameter(TFileHandle file) override;
  TTagError LoadParameter(TFileHandle file, const TTagControl* parent) override;
  TTagError SaveParameterToTagControl(TTagControl& parent) override;
  TTagError LoadParameterFromTagControl(const TTagControl* parent) override;
  std::string GetParameterString() const override;
  std::string GetValueText() const override;
  bool CheckValueText(const std::string& text, std::string& problem) const override;
  bool SetParameterFromText(const std::string& text, std::string& problem) override;
  void Describe(TUserParameterInfo& info) const override;
  std::string CheckCurrentValue() const override;

protected:
  TUserIntParameter(TUserParameterKind kind, int32_t id, const std::string& name, const std::string& caption,
                    const std::string& description, int32_t defaultValue);
  int32_t ApplyLimits(const int32_t& value) const override;
  /// Parses the text into a number and checks the limits.
  bool ParseValueText(const std::string& text, int32_t& value, std::string& problem) const;

  int32_t FUpperLimit = 0;
  int32_t FLowerLimit = 0;
  bool FHasUpperLimit = false;
  bool FHasLowerLimit = false;
  int32_t FSmallIncrement = 1;
  int32_t FLargeIncrement = 10;
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
  std::string GetValueText() const override;
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

/// A float with limits (0 to 10 by default, both on), two steps and a display style.
class TUserFloatParameter : public TUserValueParameter<float> {
public:
  TUserFloatParameter(int32_t id, const std::string& name, const std::string& caption,
                      const std::string& description, float defaultValue = 0.0f);

  /// @{ Limits and steps: stored only; the next set clips.
  void SetLowerLimit(float limit) { FLowerLimit = limit; }
  void SetUpperLimit(float limit) { FUpperLimit = limit; }
  void SetHasLowerLimit(bool has) { FHasLowerLimit = has; }
  void SetHasUpperLimit(bool has) { FHasUpperLimit = has; }
  void SetLimits(float lower, float upper);
  void SetSmallIncrement(float step) { FSmallIncrement = step; }
  void SetLargeIncrement(float step) { FLargeIncrement = step; }
  /// Display: style, significant digits (general, exponent) or decimals (fixed).
  void SetFloatStyle(TFloatFormat style, int digits);
  float GetLowerLimit() const { return FLowerLimit; }
  float GetUpperLimit() const { return FUpperLimit; }
  bool GetHasLowerLimit() const { return FHasLowerLimit; }
  bool GetHasUpperLimit() const { return FHasUpperLimit; }
  float GetSmallIncrement() const { return FSmallIncrement; }
  float GetLargeIncrement() const { return FLargeIncrement; }
  TFloatFormat GetFloatStyle() const { return FFloatStyle; }
  int GetFloatDigits() const { return FFloatDigits; }
  /// @}

  TTagError SaveParameter(TFileHandle file) override;
  TTagError LoadParameter(TFileHandle file, const TTagControl* parent) override;
  TTagError SaveParameterToTagControl(TTagControl& parent) override;
  TTagError LoadParameterFromTagControl(const TTagControl* parent) override;
  std::string GetParameterString() const override;
  std::string GetValueText() const override;
  bool CheckValueText(const std::string& text, std::string& problem) const override;
  bool SetParameterFromText(const std::string& text, std::string& problem) override;
  void Describe(TUserParameterInfo& info) const override;
  std::string CheckCurrentValue() const override;

protected:
  float ApplyLimits(const float& value) const override;

private:
  bool ParseValueText(const std::string& text, float& value, std::string& problem) const;

  float FLowerLimit = 0.0f;
  float FUpperLimit = 10.0f;
  bool FHasLowerLimit = true;
  bool FHasUpperLimit = true;
  float FSmallIncrement = 0.1f;
  float FLargeIncrement = 1.0f;
  TFloatFormat FFloatStyle = TFloatFormat::General;
  int FFloatDigits = 7;
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

  TTagError SaveParameter(TFileHandle file) override;
  TTagError LoadParameter(TFileHandle file, const TTagControl* parent) override;
  TTagError SaveParameterToTagControl(TTagControl& parent) override;
  TTagError LoadParameterFromTagControl(const TTagControl* parent) override;
  std::string GetParameterString() const override;
  std::string GetValueText() const override;
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

  TTagError SaveParameter(TFileHandle file) override;
  TTagError LoadParameter(TFileHandle file, const TTagControl* parent) override;
  TTagError SaveParameterToTagControl(TTagControl& parent) override;
  TTagError LoadParameterFromTagControl(const TTagControl* parent) override;
  std::string GetParameterString() const override { return GetParameter(); }
  std::string GetValueText() const override { return GetParameter(); }
  bool CheckValueText(const std::string& text, std::string& problem) const override;
  bool SetParameterFromText(const std::string& text, std::string& problem) override;
  void Describe(TUserParameterInfo& info) const override;
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
