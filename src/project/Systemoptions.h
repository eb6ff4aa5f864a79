// The program's own state between runs ("SystemOptions.oxs" in the internal settings folder): a free tag
// tree whose entries are addressed by "|"-separated paths, such as "LogFile|LogLevel".
#pragma once

#include "common/Tagcontrol.h"

#include <memory>
#include <string>

/// The system options of the process. Static members only; loaded at start-up, saved at shutdown.
class TSystemOptionsHelper {
public:
  TSystemOptionsHelper() = delete;

  /// Identification of the file: that of the settings files, whose extension it shares.
  static constexpr const char* kIdentification = "ORX_PRSE";
  static constexpr const char* kRootName = "OrvexSystemOptions";
  static constexpr const char* kLogLevelPath = "LogFile|LogLevel";

  /// Full name of the file; set at start-up.
  static inline std::string FileName;

  /// Reads the file; a missing or foreign file leaves an empty tree and the defaults. Returns the TTagError
  /// of the read (-6 for a missing file).
  static TTagError LoadSystemOptions();
  /// Writes the tree (defaults included) through a temporary file; the TTagError of the write.
  static TTagError SaveSystemOptions();
  /// Drops every entry.
  static void Clear();

  /// The text at path, or defaultValue when the entry is missing or no text.
  static std::string GetString(const std::string& path, const std::string& defaultValue);
  /// Sets the text at path, replacing an entry of another kind.
  static void SetString(const std::string& path, const std::string& value);

private:
  static TTagControl& Tree();
  static inline std::unique_ptr<TTagControl> FTree;
};
