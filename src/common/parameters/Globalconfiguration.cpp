// Configuration sets of tools and components in tag files and tag trees.
#include "common/parameters/Globalconfiguration.h"

#include <algorithm>

TTagError TGlobalConfiguration::SaveConfigurationSetToTagFile(TFileHandle file, const std::string& setName,
                                                              TUserParameterAdministrator& parameters,
                                                              int32_t version) {
  TTagControl set, group, t;
  TTagError result = set.WriteTag(file, setName, TTagKind::TagList);
  if (result >= 1) result = t.SaveIntTag(file, kVersionTag, version);
  if (result >= 1)
    result = group.WriteTag(file, TUserParameterAdministrator::kUserParameterGroup, TTagKind::TagList);
  if (result >= 1) result = parameters.SaveParameterValuesToFile(file);
  if (result >= 1) result = group.CloseWriteTag(file);
  return result >= 1 ? set.CloseWriteTag(file) : result;
}

TTagError TGlobalConfiguration::LoadConfigurationSetFromTagFile(TFileHandle file, const TTagControl& parent,
                                                                const std::string& setName,
                                                                TUserParameterAdministrator& parameters,
                                                                int32_t* version) {
  TTagControl set, group, t;
  TTagError result = set.FindTag(file, setName, parent);
  if (result >= 1 && set.Kind() != TTagKind::TagList) result = teTagNotFound;
  if (result < 1) return result;
  int32_t stored = 0;
  if ((result = t.LoadOrDefaultIntTag(file, kVersionTag, set, &stored, 1, 0)) < 1) return result;
  if (version) *version = stored;
  if ((result = group.FindTag(file, TUserParameterAdministrator::kUserParameterGroup, set)) < 1)
    return result;
  return parameters.LoadParameterValuesFromFile(file, &group);
}

TTagError TGlobalConfiguration::SaveConfigurationSetToTagControl(TTagControl& parent,
                                                                 const std::string& setName,
                                                                 TUserParameterAdministrator& parameters,
                                                                 int32_t version) {
  if (parent.Kind() != TTagKind::TagList || !parent.Children()) return teUnspecificError;
  parent.Children()->push_back(TTagControl::CreateTag(setName, TTagKind::TagList));
  TTagControl& set = *parent.Children()->back();
  set.Children()->push_back(TTagControl::CreateTag(kVersionTag, TTagKind::Int, &version));
  set.Children()->push_back(
      TTagControl::CreateTag(TUserParameterAdministrator::kUserParameterGroup, TTagKind::TagList));
  return parameters.SaveParameterValuesToTagControl(set.Children()->back().get());
}

TTagError TGlobalConfiguration::LoadConfigurationSetFromTagControl(const TTagControl& parent,
                                                                   const std::string& setName,
                                                                   TUserParameterAdministrator& parameters,
                                                                   int32_t* version) {
  const TTagControl* set = nullptr;
  if (parent.Children())
    for (const auto& child : *parent.Children())
      if (child->Name() == setName && child->Kind() == TTagKind::TagList) {
        set = child.get();
        break;
      }
  if (!set) return teTagNotFound;
  if (version) set->GetIntTagInListOrDefault(kVersionTag, *version, 0);
  const TTagControl* group = nullptr;
  for (const auto& child : *set->Children())
    if (child->Name() == TUserParameterAdministrator::kUserParameterGroup) {
      group = child.get();
      break;
    }
  if (!group) return teTagNotFound;
  return parameters.LoadParameterValuesFromTagControl(group);
}

void TGlobalConfiguration::AddConfigurationSet(const std::string& setName,
                                               TUserParameterAdministrator* parameters, int32_t version) {
  for (TSet& set : FSets)
    if (set.Name == setName) {
      set.Parameters = parameters;
      set.Version = version;
      return;
    }
  FSets.push_back({setName, parameters, version});
}

bool TGlobalConfiguration::RemoveConfigurationSet(const std::string& setName) {
  const auto it =
      std::find_if(FSets.begin(), FSets.end(), [&](const TSet& set) { return set.Name == setName; });
  if (it == FSets.end()) return false;
  FSets.erase(it);
  return true;
}

TUserParameterAdministrator* TGlobalConfiguration::GetConfigurationSet(const std::string& setName) const {
  for (const TSet& set : FSets)
    if (set.Name == setName) return set.Parameters;
  return nullptr;
}

std::vector<std::string> TGlobalConfiguration::GetConfigurationSetNames() const {
  std::vector<std::string> names;
  for (const TSet& set : FSets) names.push_back(set.Name);
  return names;
}

TTagError TGlobalConfiguration::SaveConfigurationToTagFile(TFileHandle file) {
  for (TSet& set : FSets) {
    const TTagError result = SaveConfigurationSetToTagFile(file, set.Name, *set.Parameters, set.Version);
    if (result < 1) return result;
  }
  return teNoError;
}

TTagError TGlobalConfiguration::LoadConfigurationFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = teNoError;
  for (TSet& set : FSets) {
    const TTagError one = LoadConfigurationSetFromTagFile(file, parent, set.Name, *set.Parameters);
    if (one < teTagNotFound && result >= 1) result = one;
  }
  return result;
}

TTagError TGlobalConfiguration::SaveConfigurationToTagControl(TTagControl& parent) {
  for (TSet& set : FSets) {
    const TTagError result = SaveConfigurationSetToTagControl(parent, set.Name, *set.Parameters, set.Version);
    if (result < 1) return result;
  }
  return teNoError;
}

TTagError TGlobalConfiguration::LoadConfigurationFromTagControl(const TTagControl& parent) {
  for (TSet& set : FSets) LoadConfigurationSetFromTagControl(parent, set.Name, *set.Parameters);
  return teNoError;
}
