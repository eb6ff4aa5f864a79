// The folders of the program: the user and common data roots with their fixed sub-folders, the temporary
// folder, the folder of the memory-mapped files, the runtime folder, and the defaults an installation hands
// to a new user through a "ProgramData" folder beside the program.
#pragma once

#include <string>
#include <utility>
#include <vector>

/// Where the roots lie. An empty field takes its value from the environment; Base, when set, puts every
/// root below one folder (tests, portable runs), and fields set beside it still win.
struct TOrvexDirectoryRoots {
  std::string UserRoot;      ///< default "$XDG_DATA_HOME/orvex/" (or "~/.local/share/orvex/")
  std::string CommonRoot;    ///< default "<first $XDG_DATA_DIRS entry with orvex/>/orvex/Common Data/"
  std::string TempRoot;      ///< default "$TMPDIR/Orvex/" (or "/tmp/Orvex/")
  std::string CacheRoot;     ///< default "$XDG_CACHE_HOME/orvex/" (or "~/.cache/orvex/")
  std::string RuntimeRoot;   ///< default "$XDG_RUNTIME_DIR/" (or the temporary root)
  std::string ProgramFolder; ///< default: the folder of the running executable
  /// "data/", "common/", "tmp/", "cache/" and "run/" below Base.
  std::string Base;
};

/// The fixed sub-folders and files below one root; every folder ends in "/".
struct TOrvexDirectorySet {
  std::string Root;
  std::string Help;
  std::string Log;
  std::string InternalSettings;
  std::string UserFitFunctions;
  std::string UserFitFunctionsFile;
  std::string UserImageFilters;
  std::string UserQuickFilters;
  std::string UserWindowPositioning;
  std::string ExportFilterSettings;
  // Folders and files of the acquisition side; only the instrument reads them.
  std::string UserCoordinateSystems;
  std::string UserConfigurations;
  std::string UserPointCollections;
  std::string PointViewerBackgrounds;
  std::string UserLithography;
  std::string DefinitionsSpectrograph;
  std::string CCSCalibrations;
  std::string ScantableLoadProfiles;
  std::string HardwareSettings;
  std::string IFC2451IPFile;
  std::string CCSCorrectionFactorsFile;
  std::string CCSCalibrationFile;
  std::string RemoteControlCalibrationFile;
  std::string InvertedMicroscopeCalibrationFile;
  std::string SamplePositioningCalibrationFile;
  std::string InertialDriveCalibrationFile;
  std::string MicroscopeZPositionFile;
  std::string VideoCalibrationFile;

  /// Fills every entry below root (which gets a trailing "/").
  void Form(const std::string& root);
  /// (entry name, path) of every folder below the root, in table order.
  std::vector<std::pair<std::string, std::string>> Folders() const;
  /// (entry name, path) of every file entry.
  std::vector<std::pair<std::string, std::string>> Files() const;
};

/// The program's folders: global strings, filled once at start-up by InitializeOrvexDirectories.
class TOrvexDirectories {
public:
  TOrvexDirectories() = delete;

  static inline TOrvexDirectorySet User;
  static inline TOrvexDirectorySet Common;
  static inline std::string Temp;          ///< emptied at start-up by the guarded instance
  static inline std::string Cache;         ///< default location of the memory-mapped files
  static inline std::string Runtime;       ///< lock file and socket of the single-instance guard
  static inline std::string ProgramFolder; ///< where "ProgramData" and "PresentationMode.txt" are looked for
  /// The program's version text, compiled in from the build.
  static std::string Version();

  /// Forms all strings from roots and the environment; touches no file. True once called.
  static void FormDirectoryStrings(const TOrvexDirectoryRoots& roots = {});
  static bool IsFormed() { return FFormed; }

  /// Forms the strings, copies "ProgramData" and "ProgramDataCommon" from beside the program into the
  /// user and common root (newer files are never overwritten), creates every folder and, with
  /// emptyTemporaryFolder, empties the temporary folder. Failures go to notes and don't stop anything.
  static void InitializeOrvexDirectories(const TOrvexDirectoryRoots& roots, bool emptyTemporaryFolder,
                                         std::vector<std::string>& notes);
  /// Gives the user the common presets (fit functions, filters, export settings) that they don't have yet.
  static void CopyUserDefaults(std::vector<std::string>& notes);
  /// Creates every folder of both sets, the temporary and the cache folder. False when a folder of the user
  /// set could not be made (the common set may lie where the user can't write).
  static bool ForceCreateAllOrvexDirectories(std::vector<std::string>& notes);

  /// Copies the tree below source into target: a file is copied when the target has none or an older one.
  /// Returns the number of files copied; -1 when source is no folder.
  static int UpdateTree(const std::string& source, const std::string& target,
                        std::vector<std::string>& notes);
  /// Removes everything inside folder (the folder itself stays); false when something could not be removed.
  static bool DeleteTreeContents(const std::string& folder);
  /// Folder of the running executable with a trailing "/"; "./" when it can't be found.
  static std::string ExecutableFolder();
  /// path with exactly one trailing "/".
  static std::string WithSeparator(const std::string& path);

private:
  static inline bool FFormed = false;
};
