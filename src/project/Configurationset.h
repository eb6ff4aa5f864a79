// Configuration sets of the project's settings file: the stored user parameters of a component
// (a tool, a viewer family) written and read through TGlobalConfiguration.
#pragma once

#include "common/parameters/Globalconfiguration.h"
#include "project/Project.h"

#include <cstdint>
#include <string>

/// One component's parameters as an entry of the project's list of configuration sets.
class TConfigurationSet : public IConfigurationSet {
public:
  /// parameters must outlive the set; version is written with the set.
  TConfigurationSet(std::string setName, TUserParameterAdministrator& parameters, int32_t version = 1);

  TTagError SaveConfigurationToTagFile(TFileHandle file) override;
  /// A settings file without this set leaves the parameters as they are.
  TTagError LoadConfigurationFromTagFile(TFileHandle file, const TTagControl& parent) override;

  const std::string& GetSetName() const { return FSetName; }
  /// Version of the set as the last load found it; -1 before a load found it.
  int32_t GetLoadedVersion() const { return FLoadedVersion; }

private:
  std::string FSetName;
  TUserParameterAdministrator& FParameters;
  int32_t FVersion;
  int32_t FLoadedVersion = -1;
};

/// All sets of a TGlobalConfiguration, in its order, as one entry of the project's list.
class TGlobalConfigurationSet : public IConfigurationSet {
public:
  /// configuration must outlive the entry.
  explicit TGlobalConfigurationSet(TGlobalConfiguration& configuration) : FConfiguration(configuration) {}

  TTagError SaveConfigurationToTagFile(TFileHandle file) override {
    return FConfiguration.SaveConfigurationToTagFile(file);
  }
  TTagError LoadConfigurationFromTagFile(TFileHandle file, const TTagControl& parent) override {
    return FConfiguration.LoadConfigurationFromTagFile(file, parent);
  }

private:
  TGlobalConfiguration& FConfiguration;
};
