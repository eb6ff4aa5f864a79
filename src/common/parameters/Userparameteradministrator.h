// The owner of a list of user parameters: lookup by id, name and "|" path, events in the creating
// thread, state sets, persistence in tag files, and the generic text and listing interface.
#pragma once

#include "common/parameters/Userparameter.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

class TUserCollectionParameter;

/// One problem of a parameter: its path and the message for the user.
struct TUserParameterProblem {
  std::string Parameter;
  std::string Message;
  bool operator==(const TUserParameterProblem&) const = default;
};
using TUserParameterProblems = std::vector<TUserParameterProblem>;

/// What a form that shows an administrator hears of it (the control form of a parameter set).
class IUserParameterControlForm {
public:
  virtual ~IUserParameterControlForm() = default;
  virtual void ParameterChanged(const TUserParameterList& changed, bool internalChange) = 0;
  virtual bool IsNewParameterOk(const TUserParameterList& changed) = 0;
  virtual void ParameterStateChanged(TUserParameter* parameter) = 0;
};

/// A set of parameters that an application part declares: CreateParameters fills the administrator,
/// ValidateParameters reports the problems that involve several parameters at once.
class TParameterCollection {
public:
  virtual ~TParameterCollection() = default;
  virtual void CreateParameters(TUserParameterAdministrator& administrator) = 0;
  virtual TUserParameterProblems
  ValidateParameters(const TUserParameterAdministrator& /*administrator*/) const {
    return {};
  }
};

using TUserParameterSet = std::set<TUserParameter*>;

/// Owns a flat list of parameters; collection parameters nest administrators of their own.
class TUserParameterAdministrator {
public:
  /// Name of the group that holds the parameters of an administrator in files.
  static constexpr const char* kUserParameterGroup = "User Parameter";
  static constexpr const char* kMeasurementConfigurationGroup = "Measurement Configuration";
  static constexpr const char* kHardwareSettingsIdentification = "ORX_HDSE";

  TUserParameterAdministrator();
  virtual ~TUserParameterAdministrator();
  TUserParameterAdministrator(const TUserParameterAdministrator&) = delete;
  TUserParameterAdministrator& operator=(const TUserParameterAdministrator&) = delete;

  // --- The list ----------------------------------------------------------------------------------

  /// Appends a parameter and takes ownership; call AllParameterListChanged when the list is complete.
  template <class T>
  T* AddParameter(std::unique_ptr<T> parameter) {
    T* raw = parameter.get();
    raw->SetAdministrator(this);
    FParameters.push_back(std::move(parameter));
    return raw;
  }
  /// Constructs a parameter of kind T in the list.
  template <class T, class... Args>
  T* Add(Args&&... args) {
    return AddParameter(std::make_unique<T>(std::forward<Args>(args)...));
  }
  void ClearParameters();
  const std::vector<std::unique_ptr<TUserParameter>>& GetParameters() const { return FParameters; }

  /// Runs OnCreateParameters, lets collection (may be null) add its parameters, then
  /// AllParameterListChanged. With clearFirst the old list goes first. The collection is kept for
  /// ValidateParameters: it must outlive this administrator or be replaced by another call.
  void CreateParameters(TParameterCollection* collection, bool clearFirst = true);
  /// Rebuilds the id map and points every parameter's events at this administrator.
  void AllParameterListChanged();

  // --- Lookup ------------------------------------------------------------------------------------

  /// By id, in this list and then in nested collections; null when unknown.
  TUserParameter* GetUserParameter(int32_t id) const;
  TUserIntParameter* GetUserIntParameter(int32_t id) const;
  TUserListParameter* GetUserListParameter(int32_t id) const;
  TUserBoolParameter* GetUserBoolParameter(int32_t id) const;
  TUserFloatParameter* GetUserFloatParameter(int32_t id) const;
  TUserStringParameter* GetUserStringParameter(int32_t id) const;
  TUserCollectionParameter* GetUserCollectionParameter(int32_t id) const;
  /// In list order; collections are searched before their own name is compared, so nested names
  /// shadow later ones. Null when not found.
  TUserParameter* GetUserParameterByName(const std::string& name) const;
  /// A "|" path; the head is looked up by name; a head that isn't a collection ends the walk.
  TUserParameter* GetUserParameterByAbsoluteName(const std::string& path) const;

  /// The collection parameter that owns this administrator, null at the root.
  TUserCollectionParameter* GetCollectionParent() const { return FCollectionParent; }
  void SetCollectionParent(TUserCollectionParameter* parent) { FCollectionParent = parent; }

  // --- Events and form ---------------------------------------------------------------------------

  void ConnectGUI(IUserParameterControlForm* form) { FControlForm = form; }
  void DisconnectGUI(IUserParameterControlForm* form);
  IUserParameterControlForm* GetControlForm() const { return FControlForm; }

  /// Handlers the parameters' events point at; outside the creating thread they log and drop the event.
  void DoParameterChanged(const TUserParameterList& changed, bool internalChange);
  bool DoIsNewParameterOk(const TUserParameterList& changed);
  void DoParameterStateChanged(TUserParameter* parameter);

  std::function<void(TUserParameterAdministrator&)> OnCreateParameters;
  TParameterChangedEvent OnParameterChanged;
  TIsNewParameterOkEvent OnIsNewParameterOk;
  TParameterStateChangedEvent OnParameterStateChanged;
  std::function<void(TUserParameterAdministrator&)> OnBeforeLoad;
  std::function<void(TUserParameterAdministrator&)> OnAfterLoad;
  /// Checks across parameters; its problems join those of ValidateParameters.
  std::function<TUserParameterProblems(const TUserParameterAdministrator&)> OnValidateParameters;

  // --- Persistence -------------------------------------------------------------------------------

  /// Writes a hardware settings file: "Measurement Configuration" with "Version" and "User Parameter".
  /// -5 when the file can't be created; an existing file is replaced only after a complete write.
  TTagError SaveParameterValues(const std::string& fileName, int32_t version = 1);
  /// Reads the values of a hardware settings file (identification, "Measurement Configuration",
  /// "User Parameter"); loaded values are taken over only after all were read.
  TTagError LoadParameterValues(const std::string& fileName);
  /// Each parameter's group into an open file, in list order; stops at the first failure.
  TTagError SaveParameterValuesToFile(TFileHandle file);
  /// Loads each parameter from the groups below parent (null: every value returns to its default or
  /// stays, by ResetOnLoad), with the load events, then takes the shadows over.
  TTagError LoadParameterValuesFromFile(TFileHandle file, const TTagControl* parent);
  /// @{ The two halves of a load, for collections: shadows first (with the load events), and only
  /// when every parameter is read, the take-over through SetParameter.
  TTagError LoadParameterShadowsFromFile(TFileHandle file, const TTagControl* parent);
  TTagError LoadParameterShadowsFromTagControl(const TTagControl* tag);
  void InheritShadowParameters();
  /// @}
  /// The same on a tree in memory: the groups become children of tag.
  TTagError SaveParameterValuesToTagControl(TTagControl* tag);
  TTagError LoadParameterValuesFromTagControl(const TTagControl* tag);
  /// @{ Value tags: each parameter's value as one tag named like it (a collection as a list tag of its
  /// name holding its members' tags); the form of a tool's stored settings and of GetDialogParameters.
  /// Triggers, actions and parameters without SaveValue write nothing. A load puts every value aside
  /// first (missing tags give the default or keep the value, by ResetOnLoad) and takes them over through
  /// SetParameter only when all are read, so limits and listeners apply; it returns the first read
  /// failure (a missing tag is none).
  TTagError SaveParameterValueTagsToFile(TFileHandle file);
  TTagError LoadParameterValueTagsFromFile(TFileHandle file, const TTagControl& parent);
  TTagError SaveParameterValueTagsToTagControl(TTagControl& tag);
  TTagError LoadParameterValueTagsFromTagControl(const TTagControl& tag);
  /// The first half of the loads above (no take-over), for collections.
  TTagError LoadParameterValueTagShadowsFromFile(TFileHandle file, const TTagControl* parent);
  TTagError LoadParameterValueTagShadowsFromTagControl(const TTagControl* tag);
  /// @}
  /// For each parameter of source, the one of the same name and kind here takes its value.
  void CopyParameterValues(const TUserParameterAdministrator& source);

  // --- State sets --------------------------------------------------------------------------------

  void EnableParameterSet(const TUserParameterSet& set);
  void DisableParameterSet(const TUserParameterSet& set);
  void ShowParameterSet(const TUserParameterSet& set);
  void HideParameterSet(const TUserParameterSet& set);
  void FalsifyParameterSet(const TUserParameterSet& set);
  void UnfalsifyParameterSet(const TUserParameterSet& set);
  /// Hides every parameter outside set (collections stay visible while a member is used).
  void HideUnusedParameter(const TUserParameterSet& set);
  /// Forgets all sets; with update the parameters show it at once.
  void ClearStatusLists(bool update);
  /// Applies the sets to every parameter here and in nested collections.
  void UpdateParameterState();

  // --- Icons -------------------------------------------------------------------------------------

  void SetIconList(const std::vector<std::string>& iconNames) { FIconNames = iconNames; }
  /// Index of the icon, -1 when unknown.
  int GetIconIndexFromIconName(const std::string& name) const;
  const std::vector<std::string>& GetIconNamesFromList() const { return FIconNames; }

  // --- Generic walk and text interface -------------------------------------------------------------

  /// Calls visit for each parameter depth-first in list order: a collection, then its members.
  void ForEachParameter(const std::function<void(TUserParameter&, int depth)>& visit) const;
  /// The listing of every parameter as ForEachParameter walks them.
  std::vector<TUserParameterInfo> DescribeParameters() const;
  /// "path=value" of every parameter with a value.
  std::vector<std::string> GetParameterValuesAsText() const;
  /// Absolute names of every parameter that takes a value, in walk order.
  std::vector<std::string> GetSettableParameterNames() const;
  /// Applies "name=value" assignments (name may be a "|" path). All texts are checked first: unknown
  /// names (the problem lists the known ones), malformed values, values outside the limits (named),
  /// entries that are no choice (the choices listed), a name given twice. If any is wrong, nothing is
  /// set. Otherwise they are set in order, then ValidateParameters runs; a refusal by a listener or a
  /// problem of the validation returns the values already set to their former ones.
  /// Returns every problem found, empty on full success.
  TUserParameterProblems SetParameterValuesFromText(const std::vector<std::string>& assignments);
  /// Current values outside their limits, in nested collections too, and OnValidateParameters.
  TUserParameterProblems ValidateParameters() const;

  /// The lock that guards the value copies of this administrator's parameters.
  TUserParameterLock& GetValueLock() const { return FValueLock; }
  std::thread::id GetCreatingThread() const { return FCreatingThread; }

private:
  bool IsCreatingThread(const char* operation) const;
  bool IsInSets(const std::vector<TUserParameterSet>& sets, TUserParameter* parameter) const;
  bool IsUsed(TUserParameter* parameter) const;
  void UpdateParameterStateIn(TUserParameterAdministrator& administrator, bool parentEnabled,
                              bool parentVisible);
  void CollectValidation(const TUserParameterAdministrator& administrator,
                         TUserParameterProblems& problems) const;
  static void RemoveSet(std::vector<TUserParameterSet>& sets, const TUserParameterSet& set);
  void WalkFrom(const std::function<void(TUserParameter&, int)>& visit, int depth) const;

  std::vector<std::unique_ptr<TUserParameter>> FParameters;
  std::map<int32_t, TUserParameter*> FIdMap;
  std::vector<std::string> FIconNames;
  IUserParameterControlForm* FControlForm = nullptr;
  TUserCollectionParameter* FCollectionParent = nullptr;
  TParameterCollection* FParameterCollection = nullptr;
  mutable TUserParameterLock FValueLock;
  std::thread::id FCreatingThread;

  std::vector<TUserParameterSet> FDisabledSets;
  std::vector<TUserParameterSet> FHiddenSets;
  std::vector<TUserParameterSet> FFalsifiedSets;
  bool FHideUnused = false;
  TUserParameterSet FUsedSet;
};

/// A parameter that holds a nested administrator: it opens one level of the "|" paths, forwards the
/// nested events to its own, and with MakeStateVisible hands its state on to its members.
class TUserCollectionParameter : public TUserParameter {
public:
  TUserCollectionParameter(int32_t id, const std::string& name, const std::string& caption,
                           const std::string& description);

  TUserParameterAdministrator& GetNestedAdministrator() { return FNested; }
  const TUserParameterAdministrator& GetNestedAdministrator() const { return FNested; }
  bool GetMakeStateVisible() const { return FMakeStateVisible; }
  void SetMakeStateVisible(bool value) { FMakeStateVisible = value; }

  void UpdateInputMasks() override;
  TTagError SaveParameter(TFileHandle file) override;
  TTagError LoadParameter(TFileHandle file, const TTagControl* parent) override;
  TTagError SaveParameterToTagControl(TTagControl& parent) override;
  TTagError LoadParameterFromTagControl(const TTagControl* parent) override;
  TTagError SaveValueTag(TFileHandle file) override;
  TTagError LoadValueTag(TFileHandle file, const TTagControl& parent) override;
  TTagError AddValueTag(TTagControl& parent) override;
  TTagError ReadValueTag(const TTagControl& parent) override;
  void InheritShadowParameter() override;
  bool Assign(const TUserParameter& source) override;
  void SetEnabled(bool enabled) override;
  void SetVisible(bool visible) override;
  void SetErrorState(TUserParameterError state) override;

private:
  TUserParameterAdministrator FNested;
  bool FMakeStateVisible = true;
};
