// Configuration sets: the stored parameters of tools and components, each set a named group of a
// tag file (project settings, default settings) with its version and its user parameters.
#pragma once

#include "common/Tagcontrol.h"
#include "common/parameters/Userparameteradministrator.h"

#include <cstdint>
#include <string>
#include <vector>

/// Saves and loads configuration sets. A set is written as a list tag named like the set, holding
/// "Version" (Int) and "User Parameter" with one group per parameter. The static operations handle one
/// set; an instance keeps an ordered list of sets that travel together.
class TGlobalConfiguration {
public:
  static constexpr const char* kVersionTag = "Version";

  /// Writes one set into an open file at the current position.
  static TTagError SaveConfigurationSetToTagFile(TFileHandle file, const std::string& setName,
                                                 TUserParameterAdministrator& parameters,
                                                 int32_t version = 1);
  /// Finds the set's group below parent and loads its values (taken over after all are read). A missing
  /// group leaves every value as it is and returns the result of the search. The stored version goes to
  /// version when given (0 when the tag is missing).
  static TTagError LoadConfigurationSetFromTagFile(TFileHandle file, const TTagControl& parent,
                                                   const std::string& setName,
                                                   TUserParameterAdministrator& parameters,
                                                   int32_t* version = nullptr);
  /// @{ The same on a tree in memory.
  static TTagError SaveConfigurationSetToTagControl(TTagControl& parent, const std::string& setName,
                                                    TUserParameterAdministrator& parameters,
                                                    int32_t version = 1);
  static TTagError LoadConfigurationSetFromTagControl(const TTagControl& parent, const std::string& setName,
                                                      TUserParameterAdministrator& parameters,
                                                      int32_t* version = nullptr);
  /// @}

  /// Appends a set (not owned); a set of the same name is replaced in its place.
  void AddConfigurationSet(const std::string& setName, TUserParameterAdministrator* parameters,
                           int32_t version = 1);
  bool RemoveConfigurationSet(const std::string& setName);
  /// Null when no set has the name.
  TUserParameterAdministrator* GetConfigurationSet(const std::string& setName) const;
  std::vector<std::string> GetConfigurationSetNames() const;

  /// Every set in list order; stops at the first failure.
  TTagError SaveConfigurationToTagFile(TFileHandle file);
  /// Every set found below parent; sets that are missing keep their values. Returns the first read
  /// failure, else success.
  TTagError LoadConfigurationFromTagFile(TFileHandle file, const TTagControl& parent);
  TTagError SaveConfigurationToTagControl(TTagControl& parent);
  TTagError LoadConfigurationFromTagControl(const TTagControl& parent);

private:
  struct TSet {
    std::string Name;
    TUserParameterAdministrator* Parameters;
    int32_t Version;
  };
  std::vector<TSet> FSets;
};
