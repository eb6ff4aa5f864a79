// Configuration sets of the project's settings file.
#include "project/Configurationset.h"

#include <utility>

TConfigurationSet::TConfigurationSet(std::string setName, TUserParameterAdministrator& parameters,
                                     int32_t version)
    : FSetName(std::move(setName)), FParameters(parameters), FVersion(version) {}

TTagError TConfigurationSet::SaveConfigurationToTagFile(TFileHandle file) {
  return TGlobalConfiguration::SaveConfigurationSetToTagFile(file, FSetName, FParameters, FVersion);
}

TTagError TConfigurationSet::LoadConfigurationFromTagFile(TFileHandle file, const TTagControl& parent) {
  int32_t version = 0;
  const TTagError result =
      TGlobalConfiguration::LoadConfigurationSetFromTagFile(file, parent, FSetName, FParameters, &version);
  if (result >= 1) FLoadedVersion = version;
  return result;
}
