// The administrator of user parameters and the collection parameter that nests one.
#include "common/parameters/Userparameteradministrator.h"

#include "common/Logfile.h"
#include "common/Safewrite.h"

#include <algorithm>

namespace {

bool HasValue(const TUserParameter& parameter) {
  switch (parameter.GetKind()) {
  case TUserParameterKind::List:
  case TUserParameterKind::Int:
  case TUserParameterKind::Float:
  case TUserParameterKind::Bool:
  case TUserParameterKind::String:
    return true;
  default:
    return false;
  }
}

std::string TrimName(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return std::string();
  const size_t last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

const TTagControl* FindChild(const TTagControl& parent, const std::string& name) {
  if (!parent.Children()) return nullptr;
  for (const auto& child : *parent.Children())
    if (child->Name() == name) return child.get();
  return nullptr;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// The list

TUserParameterAdministrator::TUserParameterAdministrator() : FCreatingThread(std::this_thread::get_id()) {}

TUserParameterAdministrator::~TUserParameterAdministrator() = default;

void TUserParameterAdministrator::ClearParameters() {
  FIdMap.clear();
  FDisabledSets.clear();
  FHiddenSets.clear();
  FFalsifiedSets.clear();
  FUsedSet.clear();
  FHideUnused = false;
  FParameters.clear();
}

void TUserParameterAdministrator::CreateParameters(TParameterCollection* collection, bool clearFirst) {
  if (clearFirst) ClearParameters();
  if (OnCreateParameters) OnCreateParameters(*this);
  FParameterCollection = collection;
  if (collection) collection->CreateParameters(*this);
  AllParameterListChanged();
}

void TUserParameterAdministrator::AllParameterListChanged() {
  FIdMap.clear();
  for (auto& parameter : FParameters) {
    TUserParameter* p = parameter.get();
    FIdMap.emplace(p->GetId(), p);
    p->SetAdministrator(this);
    p->OnIsNewParameterOk = [this](const TUserParameterList& changed) { return DoIsNewParameterOk(changed); };
    p->OnParameterChanged = [this](const TUserParameterList& changed, bool internalChange) {
      DoParameterChanged(changed, internalChange);
    };
    p->OnParameterStateChanged = [this](TUserParameter* changed) { DoParameterStateChanged(changed); };
    if (auto* collection = dynamic_cast<TUserCollectionParameter*>(p))
      collection->GetNestedAdministrator().AllParameterListChanged();
  }
}

// ---------------------------------------------------------------------------------------------
// Lookup

TUserParameter* TUserParameterAdministrator::GetUserParameter(int32_t id) const {
  const auto it = FIdMap.find(id);
  if (it != FIdMap.end()) return it->second;
  for (const auto& parameter : FParameters)
    if (auto* collection = dynamic_cast<TUserCollectionParameter*>(parameter.get()))
      if (TUserParameter* hit = collection->GetNestedAdministrator().GetUserParameter(id)) return hit;
  return nullptr;
}

namespace {
template <class T>
T* TypedParameter(TUserParameter* parameter, TUserParameterKind kind) {
  return parameter && parameter->GetKind() == kind ? dynamic_cast<T*>(parameter) : nullptr;
}
} // namespace

TUserIntParameter* TUserParameterAdministrator::GetUserIntParameter(int32_t id) const {
  return TypedParameter<TUserIntParameter>(GetUserParameter(id), TUserParameterKind::Int);
}
TUserListParameter* TUserParameterAdministrator::GetUserListParameter(int32_t id) const {
  return TypedParameter<TUserListParameter>(GetUserParameter(id), TUserParameterKind::List);
}
TUserBoolParameter* TUserParameterAdministrator::GetUserBoolParameter(int32_t id) const {
  return TypedParameter<TUserBoolParameter>(GetUserParameter(id), TUserParameterKind::Bool);
}
TUserFloatParameter* TUserParameterAdministrator::GetUserFloatParameter(int32_t id) const {
  return TypedParameter<TUserFloatParameter>(GetUserParameter(id), TUserParameterKind::Float);
}
TUserStringParameter* TUserParameterAdministrator::GetUserStringParameter(int32_t id) const {
  return TypedParameter<TUserStringParameter>(GetUserParameter(id), TUserParameterKind::String);
}
TUserCollectionParameter* TUserParameterAdministrator::GetUserCollectionParameter(int32_t id) const {
  return TypedParameter<TUserCollectionParameter>(GetUserParameter(id), TUserParameterKind::Collection);
}

TUserParameter* TUserParameterAdministrator::GetUserParameterByName(const std::string& name) const {
  for (const auto& parameter : FParameters) {
    // The kind is asked first: a cast on every parameter would make long lists slow to search.
    if (parameter->GetKind() == TUserParameterKind::Collection)
      if (auto* collection = dynamic_cast<TUserCollectionParameter*>(parameter.get()))
        if (TUserParameter* hit = collection->GetNestedAdministrator().GetUserParameterByName(name))
          return hit;
    if (parameter->GetName() == name) return parameter.get();
  }
  return nullptr;
}

TUserParameter* TUserParameterAdministrator::GetUserParameterByAbsoluteName(const std::string& path) const {
  const size_t bar = path.find('|');
  if (bar == std::string::npos) return GetUserParameterByName(path);
  TUserParameter* head = GetUserParameterByName(path.substr(0, bar));
  if (!head) return nullptr;
  auto* collection = dynamic_cast<TUserCollectionParameter*>(head);
  if (!collection) return head; // the rest of the path is ignored
  return collection->GetNestedAdministrator().GetUserParameterByAbsoluteName(path.substr(bar + 1));
}

// ---------------------------------------------------------------------------------------------
// Events

void TUserParameterAdministrator::DisconnectGUI(IUserParameterControlForm* form) {
  if (FControlForm == form) FControlForm = nullptr;
}

bool TUserParameterAdministrator::IsCreatingThread(const char* operation) const {
  if (std::this_thread::get_id() == FCreatingThread) return true;
  if (GlobalLogFile)
    GlobalLogFile->AddLog(std::string("TUserParameterAdministrator::") + operation +
                              " call not in main thread !",
                          TLogLevel::DebugMessage, true, 10);
  return false;
}

void TUserParameterAdministrator::DoParameterChanged(const TUserParameterList& changed, bool internalChange) {
  if (!IsCreatingThread("DoParameterChanged")) return;
  if (FControlForm) FControlForm->ParameterChanged(changed, internalChange);
  if (OnParameterChanged) OnParameterChanged(changed, internalChange);
}

bool TUserParameterAdministrator::DoIsNewParameterOk(const TUserParameterList& changed) {
  if (!IsCreatingThread("DoIsNewParameterOk")) return false;
  if (FControlForm && !FControlForm->IsNewParameterOk(changed)) return false;
  return OnIsNewParameterOk ? OnIsNewParameterOk(changed) : true;
}

void TUserParameterAdministrator::DoParameterStateChanged(TUserParameter* parameter) {
  if (!IsCreatingThread("DoParameterStateChanged")) return;
  if (FControlForm) FControlForm->ParameterStateChanged(parameter);
  if (OnParameterStateChanged) OnParameterStateChanged(parameter);
}

// ---------------------------------------------------------------------------------------------
// Persistence

TTagError TUserParameterAdministrator::SaveParameterValues(const std::string& fileName, int32_t version) {
  return WriteFileSafely(fileName, [&](TFileHandle file) {
    TTagControl configuration, group, t;
    TTagError result = SaveIdentificationToFile(file, kHardwareSettingsIdentification);
    if (result >= 1) result = configuration.WriteTag(file, kMeasurementConfigurationGroup, TTagKind::TagList);
    if (result >= 1) result = t.SaveIntTag(file, "Version", version);
    if (result >= 1) result = group.WriteTag(file, kUserParameterGroup, TTagKind::TagList);
    if (result >= 1) result = SaveParameterValuesToFile(file);
    if (result >= 1) result = group.CloseWriteTag(file);
    if (result >= 1) result = configuration.CloseWriteTag(file);
    return result;
  });
}

TTagError TUserParameterAdministrator::LoadParameterValues(const std::string& fileName) {
  TFileHandle file = kInvalidFileHandle;
  TTagControl root;
  TTagError result = OpenTagFileForReading(fileName, {kHardwareSettingsIdentification}, file, root);
  if (result < 1) return result;
  TTagControl configuration, group;
  const TTagControl* configurationTag = &root;
  if (root.Name() != kMeasurementConfigurationGroup) {
    result = configuration.FindTag(file, kMeasurementConfigurationGroup, root);
    configurationTag = &configuration;
  }
  if (result >= 1) result = group.FindTag(file, kUserParameterGroup, *configurationTag);
  if (result >= 1) result = LoadParameterValuesFromFile(file, &group);
  CloseFile(file);
  return result;
}

TTagError TUserParameterAdministrator::SaveParameterValuesToFile(TFileHandle file) {
  for (auto& parameter : FParameters) {
    const TTagError result = parameter->SaveParameter(file);
    if (result < 1) return result;
  }
  return teNoError;
}

TTagError TUserParameterAdministrator::LoadParameterShadowsFromFile(TFileHandle file,
                                                                    const TTagControl* parent) {
  if (OnBeforeLoad) OnBeforeLoad(*this);
  // A missing group is normal (a file of an older parameter list); only read failures are reported.
  TTagError result = teNoError;
  for (auto& parameter : FParameters) {
    const TTagError one = parameter->LoadParameter(file, parent);
    if (one < teTagNotFound && result >= 1) result = one;
  }
  if (OnAfterLoad) OnAfterLoad(*this);
  return result;
}

TTagError TUserParameterAdministrator::LoadParameterShadowsFromTagControl(const TTagControl* tag) {
  if (OnBeforeLoad) OnBeforeLoad(*this);
  for (auto& parameter : FParameters) parameter->LoadParameterFromTagControl(tag);
  if (OnAfterLoad) OnAfterLoad(*this);
  return teNoError;
}

void TUserParameterAdministrator::InheritShadowParameters() {
  for (auto& parameter : FParameters) parameter->InheritShadowParameter();
}

TTagError TUserParameterAdministrator::LoadParameterValuesFromFile(TFileHandle file,
                                                                   const TTagControl* parent) {
  const TTagError result = LoadParameterShadowsFromFile(file, parent);
  InheritShadowParameters();
  return result;
}

TTagError TUserParameterAdministrator::SaveParameterValuesToTagControl(TTagControl* tag) {
  if (!tag) return teUnspecificError;
  for (auto& parameter : FParameters) {
    const TTagError result = parameter->SaveParameterToTagControl(*tag);
    if (result < 1) return result;
  }
  return teNoError;
}

TTagError TUserParameterAdministrator::LoadParameterValuesFromTagControl(const TTagControl* tag) {
  const TTagError result = LoadParameterShadowsFromTagControl(tag);
  InheritShadowParameters();
  return result;
}

TTagError TUserParameterAdministrator::SaveParameterValueTagsToFile(TFileHandle file) {
  for (auto& parameter : FParameters) {
    const TTagError result = parameter->SaveValueTag(file);
    if (result < 1) return result;
  }
  return teNoError;
}

TTagError TUserParameterAdministrator::LoadParameterValueTagShadowsFromFile(TFileHandle file,
                                                                            const TTagControl* parent) {
  if (OnBeforeLoad) OnBeforeLoad(*this);
  TTagError result = teNoError;
  for (auto& parameter : FParameters) {
    // Without a parent only the shadows return to their start (a collection whose tag is missing).
    const TTagError one =
        parent ? parameter->LoadValueTag(file, *parent) : parameter->ReadValueTag(TTagControl());
    if (one < teTagNotFound && result >= 1) result = one;
  }
  if (OnAfterLoad) OnAfterLoad(*this);
  return result;
}

TTagError TUserParameterAdministrator::LoadParameterValueTagsFromFile(TFileHandle file,
                                                                      const TTagControl& parent) {
  const TTagError result = LoadParameterValueTagShadowsFromFile(file, &parent);
  InheritShadowParameters();
  return result;
}

TTagError TUserParameterAdministrator::SaveParameterValueTagsToTagControl(TTagControl& tag) {
  if (tag.Kind() != TTagKind::TagList || !tag.Children()) return teUnspecificError;
  for (auto& parameter : FParameters) {
    const TTagError result = parameter->AddValueTag(tag);
    if (result < 1) return result;
  }
  return teNoError;
}

TTagError TUserParameterAdministrator::LoadParameterValueTagShadowsFromTagControl(const TTagControl* tag) {
  if (OnBeforeLoad) OnBeforeLoad(*this);
  const TTagControl none;
  for (auto& parameter : FParameters) parameter->ReadValueTag(tag ? *tag : none);
  if (OnAfterLoad) OnAfterLoad(*this);
  return teNoError;
}

TTagError TUserParameterAdministrator::LoadParameterValueTagsFromTagControl(const TTagControl& tag) {
  const TTagError result = LoadParameterValueTagShadowsFromTagControl(&tag);
  InheritShadowParameters();
  return result;
}

void TUserParameterAdministrator::CopyParameterValues(const TUserParameterAdministrator& source) {
  for (const auto& from : source.FParameters) {
    TUserParameter* to = GetUserParameterByName(from->GetName());
    if (to && to->GetKind() == from->GetKind()) to->Assign(*from);
  }
}

// ---------------------------------------------------------------------------------------------
// State sets

void TUserParameterAdministrator::RemoveSet(std::vector<TUserParameterSet>& sets,
                                            const TUserParameterSet& set) {
  const auto it = std::find(sets.begin(), sets.end(), set);
  if (it != sets.end()) sets.erase(it);
}

void TUserParameterAdministrator::EnableParameterSet(const TUserParameterSet& set) {
  RemoveSet(FDisabledSets, set);
}
void TUserParameterAdministrator::DisableParameterSet(const TUserParameterSet& set) {
  FDisabledSets.push_back(set);
}
void TUserParameterAdministrator::ShowParameterSet(const TUserParameterSet& set) {
  RemoveSet(FHiddenSets, set);
}
void TUserParameterAdministrator::HideParameterSet(const TUserParameterSet& set) {
  FHiddenSets.push_back(set);
}
void TUserParameterAdministrator::FalsifyParameterSet(const TUserParameterSet& set) {
  FFalsifiedSets.push_back(set);
}
void TUserParameterAdministrator::UnfalsifyParameterSet(const TUserParameterSet& set) {
  RemoveSet(FFalsifiedSets, set);
}

void TUserParameterAdministrator::HideUnusedParameter(const TUserParameterSet& set) {
  FHideUnused = true;
  FUsedSet = set;
}

void TUserParameterAdministrator::ClearStatusLists(bool update) {
  FDisabledSets.clear();
  FHiddenSets.clear();
  FFalsifiedSets.clear();
  FUsedSet.clear();
  FHideUnused = false;
  if (update) UpdateParameterState();
}

bool TUserParameterAdministrator::IsInSets(const std::vector<TUserParameterSet>& sets,
                                           TUserParameter* parameter) const {
  for (const auto& set : sets)
    if (set.count(parameter)) return true;
  return false;
}

bool TUserParameterAdministrator::IsUsed(TUserParameter* parameter) const {
  if (!FHideUnused || FUsedSet.count(parameter)) return true;
  if (auto* collection = dynamic_cast<TUserCollectionParameter*>(parameter))
    for (const auto& member : collection->GetNestedAdministrator().FParameters)
      if (IsUsed(member.get())) return true;
  return false;
}

void TUserParameterAdministrator::UpdateParameterState() {
  UpdateParameterStateIn(*this, true, true);
}

void TUserParameterAdministrator::UpdateParameterStateIn(TUserParameterAdministrator& administrator,
                                                         bool parentEnabled, bool parentVisible) {
  for (auto& parameter : administrator.FParameters) {
    TUserParameter* p = parameter.get();
    const bool enabled = parentEnabled && !IsInSets(FDisabledSets, p);
    const bool visible = parentVisible && !IsInSets(FHiddenSets, p) && IsUsed(p);
    p->SetEnabled(enabled);
    p->SetVisible(visible);
    if (auto* flag = dynamic_cast<TUserBoolParameter*>(p)) flag->SetFalsified(IsInSets(FFalsifiedSets, p));
    if (auto* collection = dynamic_cast<TUserCollectionParameter*>(p)) {
      const bool handOn = collection->GetMakeStateVisible();
      UpdateParameterStateIn(collection->GetNestedAdministrator(), handOn ? enabled : true,
                             handOn ? visible : true);
    }
  }
}

int TUserParameterAdministrator::GetIconIndexFromIconName(const std::string& name) const {
  const auto it = std::find(FIconNames.begin(), FIconNames.end(), name);
  return it == FIconNames.end() ? -1 : static_cast<int>(it - FIconNames.begin());
}

// ---------------------------------------------------------------------------------------------
// Generic walk and text interface

void TUserParameterAdministrator::WalkFrom(const std::function<void(TUserParameter&, int)>& visit,
                                           int depth) const {
  for (const auto& parameter : FParameters) {
    visit(*parameter, depth);
    if (auto* collection = dynamic_cast<TUserCollectionParameter*>(parameter.get()))
      collection->GetNestedAdministrator().WalkFrom(visit, depth + 1);
  }
}

void TUserParameterAdministrator::ForEachParameter(
    const std::function<void(TUserParameter&, int depth)>& visit) const {
  WalkFrom(visit, 0);
}

std::vector<TUserParameterInfo> TUserParameterAdministrator::DescribeParameters() const {
  std::vector<TUserParameterInfo> result;
  ForEachParameter([&result](TUserParameter& parameter, int depth) {
    TUserParameterInfo info;
    parameter.Describe(info);
    info.Depth = depth;
    info.AbsoluteName = parameter.GetAbsoluteName();
    result.push_back(std::move(info));
  });
  return result;
}

std::vector<std::string> TUserParameterAdministrator::GetParameterValuesAsText() const {
  std::vector<std::string> result;
  ForEachParameter([&result](TUserParameter& parameter, int) {
    if (HasValue(parameter)) result.push_back(parameter.GetAbsoluteName() + "=" + parameter.GetValueText());
  });
  return result;
}

std::vector<std::string> TUserParameterAdministrator::GetSettableParameterNames() const {
  std::vector<std::string> result;
  ForEachParameter([&result](TUserParameter& parameter, int) {
    if (HasValue(parameter)) result.push_back(parameter.GetAbsoluteName());
  });
  return result;
}

TUserParameterProblems
TUserParameterAdministrator::SetParameterValuesFromText(const std::vector<std::string>& assignments) {
  TUserParameterProblems problems;
  std::vector<std::pair<TUserParameter*, std::string>> planned;
  std::string knownNames;
  for (const std::string& assignment : assignments) {
    const size_t equals = assignment.find('=');
    const std::string name = TrimName(assignment.substr(0, equals));
    if (equals == std::string::npos || name.empty()) {
      problems.push_back({assignment, "expected name=value"});
      continue;
    }
    const std::string value = assignment.substr(equals + 1);
    TUserParameter* parameter = GetUserParameterByAbsoluteName(name);
    // A path whose head is no collection finds the head; that is not the parameter asked for.
    const std::string lastName = name.substr(name.rfind('|') == std::string::npos ? 0 : name.rfind('|') + 1);
    if (!parameter || parameter->GetName() != lastName) {
      if (knownNames.empty())
        for (const std::string& known : GetSettableParameterNames())
          knownNames += (knownNames.empty() ? "" : ", ") + known;
      problems.push_back({name, "no parameter of this name (known: " + knownNames + ")"});
      continue;
    }
    std::string problem;
    if (!parameter->CheckValueText(value, problem)) {
      problems.push_back({parameter->GetAbsoluteName(), problem});
      continue;
    }
    const bool twice = std::any_of(planned.begin(), planned.end(),
                                   [parameter](const auto& entry) { return entry.first == parameter; });
    if (twice) {
      problems.push_back({parameter->GetAbsoluteName(), "is given more than once"});
      continue;
    }
    planned.emplace_back(parameter, value);
  }
  if (!problems.empty()) return problems;

  // Values are set in order; when a listener refuses one or the checks across parameters fail, the
  // ones already set return to their former values, so a set is taken whole or not at all.
  std::vector<std::pair<TUserParameter*, std::string>> former;
  for (auto& [parameter, value] : planned) {
    former.emplace_back(parameter, parameter->GetValueText());
    std::string problem;
    if (!parameter->SetParameterFromText(value, problem)) {
      problems.push_back({parameter->GetAbsoluteName(), problem});
      former.pop_back();
      break;
    }
  }
  if (problems.empty()) problems = ValidateParameters();
  if (!problems.empty())
    for (auto it = former.rbegin(); it != former.rend(); ++it) {
      std::string ignored;
      it->first->SetParameterFromText(it->second, ignored);
    }
  return problems;
}

void TUserParameterAdministrator::CollectValidation(const TUserParameterAdministrator& administrator,
                                                    TUserParameterProblems& problems) const {
  for (const auto& parameter : administrator.FParameters)
    if (auto* collection = dynamic_cast<const TUserCollectionParameter*>(parameter.get()))
      CollectValidation(collection->GetNestedAdministrator(), problems);
  if (administrator.FParameterCollection) {
    const TUserParameterProblems more = administrator.FParameterCollection->ValidateParameters(administrator);
    problems.insert(problems.end(), more.begin(), more.end());
  }
  if (administrator.OnValidateParameters) {
    const TUserParameterProblems more = administrator.OnValidateParameters(administrator);
    problems.insert(problems.end(), more.begin(), more.end());
  }
}

TUserParameterProblems TUserParameterAdministrator::ValidateParameters() const {
  TUserParameterProblems problems;
  ForEachParameter([&problems](TUserParameter& parameter, int) {
    const std::string problem = parameter.CheckCurrentValue();
    if (!problem.empty()) problems.push_back({parameter.GetAbsoluteName(), problem});
  });
  CollectValidation(*this, problems);
  return problems;
}

// ---------------------------------------------------------------------------------------------
// TUserCollectionParameter

TUserCollectionParameter::TUserCollectionParameter(int32_t id, const std::string& name,
                                                   const std::string& caption, const std::string& description)
    : TUserParameter(TUserParameterKind::Collection, id, name, caption, description) {
  FNested.SetCollectionParent(this);
  // The nested administrator's events go on to this parameter's own, and so to the owner.
  FNested.OnParameterChanged = [this](const TUserParameterList& changed, bool internalChange) {
    if (OnParameterChanged) OnParameterChanged(changed, internalChange);
  };
  FNested.OnIsNewParameterOk = [this](const TUserParameterList& changed) {
    return OnIsNewParameterOk ? OnIsNewParameterOk(changed) : true;
  };
  FNested.OnParameterStateChanged = [this](TUserParameter* parameter) {
    if (OnParameterStateChanged) OnParameterStateChanged(parameter);
  };
}

void TUserCollectionParameter::UpdateInputMasks() {
  for (IUserParameterInputMask* mask : FInputMasks) mask->ShowParameter(*this);
}

TTagError TUserCollectionParameter::SaveParameter(TFileHandle file) {
  TTagControl group, members;
  TTagError result = group.WriteTag(file, FName, TTagKind::TagList);
  if (result >= 1)
    result = members.WriteTag(file, TUserParameterAdministrator::kUserParameterGroup, TTagKind::TagList);
  if (result >= 1) result = FNested.SaveParameterValuesToFile(file);
  if (result >= 1) result = members.CloseWriteTag(file);
  return result >= 1 ? group.CloseWriteTag(file) : result;
}

TTagError TUserCollectionParameter::LoadParameter(TFileHandle file, const TTagControl* parent) {
  if (!parent) return FNested.LoadParameterShadowsFromFile(file, nullptr);
  TTagControl group, members;
  TTagError result = FindOwnGroup(file, *parent, group);
  if (result == teNoError)
    result = members.FindTag(file, TUserParameterAdministrator::kUserParameterGroup, group);
  if (result != teNoError) {
    FNested.LoadParameterShadowsFromFile(file, nullptr);
    return result;
  }
  return FNested.LoadParameterShadowsFromFile(file, &members);
}

TTagError TUserCollectionParameter::SaveParameterToTagControl(TTagControl& parent) {
  if (parent.Kind() != TTagKind::TagList || !parent.Children()) return teUnspecificError;
  parent.Children()->push_back(TTagControl::CreateTag(FName, TTagKind::TagList));
  TTagControl& group = *parent.Children()->back();
  group.Children()->push_back(
      TTagControl::CreateTag(TUserParameterAdministrator::kUserParameterGroup, TTagKind::TagList));
  return FNested.SaveParameterValuesToTagControl(group.Children()->back().get());
}

TTagError TUserCollectionParameter::LoadParameterFromTagControl(const TTagControl* parent) {
  const TTagControl* group = parent ? FindChild(*parent, FName) : nullptr;
  const TTagControl* members =
      group ? FindChild(*group, TUserParameterAdministrator::kUserParameterGroup) : nullptr;
  FNested.LoadParameterShadowsFromTagControl(members);
  return parent && !members ? teTagNotFound : teNoError;
}

TTagError TUserCollectionParameter::SaveValueTag(TFileHandle file) {
  TTagControl group;
  TTagError result = group.WriteTag(file, FName, TTagKind::TagList);
  if (result >= 1) result = FNested.SaveParameterValueTagsToFile(file);
  return result >= 1 ? group.CloseWriteTag(file) : result;
}

TTagError TUserCollectionParameter::LoadValueTag(TFileHandle file, const TTagControl& parent) {
  TTagControl group;
  const TTagError result = FindOwnGroup(file, parent, group);
  if (result != teNoError) {
    FNested.LoadParameterValueTagShadowsFromFile(file, nullptr);
    return result;
  }
  return FNested.LoadParameterValueTagShadowsFromFile(file, &group);
}

TTagError TUserCollectionParameter::AddValueTag(TTagControl& parent) {
  TTagControl* group = AddGroup(parent);
  return group ? FNested.SaveParameterValueTagsToTagControl(*group) : teUnspecificError;
}

TTagError TUserCollectionParameter::ReadValueTag(const TTagControl& parent) {
  return FNested.LoadParameterValueTagShadowsFromTagControl(FindGroup(parent));
}

void TUserCollectionParameter::InheritShadowParameter() {
  FNested.InheritShadowParameters();
}

bool TUserCollectionParameter::Assign(const TUserParameter& source) {
  const auto* collection = dynamic_cast<const TUserCollectionParameter*>(&source);
  if (!collection) return false;
  FNested.CopyParameterValues(collection->FNested);
  return true;
}

void TUserCollectionParameter::SetEnabled(bool enabled) {
  TUserParameter::SetEnabled(enabled);
  if (FMakeStateVisible)
    for (const auto& member : FNested.GetParameters()) member->SetEnabled(enabled);
}

void TUserCollectionParameter::SetVisible(bool visible) {
  TUserParameter::SetVisible(visible);
  if (FMakeStateVisible)
    for (const auto& member : FNested.GetParameters()) member->SetVisible(visible);
}

void TUserCollectionParameter::SetErrorState(TUserParameterError state) {
  TUserParameter::SetErrorState(state);
  if (FMakeStateVisible)
    for (const auto& member : FNested.GetParameters()) member->SetErrorState(state);
}
