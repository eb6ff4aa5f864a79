// Loading and saving project and data files for the commands, with errors in the program's words.
#pragma once

#include "CliCommon.h"
#include "project/Project.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orvexcli {

struct TLoadedFile {
  std::unique_ptr<TProject> Project;
  std::string FileName;
  std::string Identification;
  int32_t Version = 0;
  bool IsDataFile = false;
  /// Objects of the file that could not be restored (damaged, too large); the rest loaded.
  std::vector<TFailedObject> Failed;
};

/// Loads a project file, or a data file into a fresh project keeping its IDs. Throws CliError with one
/// line naming the file and the reason: exit 2 when the file can't be opened, 1 when it is of the wrong
/// kind, damaged beyond use or the load was cancelled. forAppend marks the project as a temporary one
/// that is appended elsewhere.
TLoadedFile LoadProjectOrDataFile(const std::string& fileName, bool forAppend = false);
/// Says what of a loaded file is lost, one warning line per object on stderr (the console message
/// strategy has shown them already), and, unless allowDamaged, throws CliError (exit 1): nothing is
/// written from a damaged file without being asked to.
void CheckDamage(const CliContext& ctx, const TLoadedFile& loaded, bool allowDamaged);
/// Saves as a project (".oxp") or data file (".oxd") by the extension; throws CliError on failure.
void SaveProjectOrDataFile(TProject& project, const std::string& fileName, bool compatible);

/// "sizeX", "sizeY", "sizeGraph" of images and graphs, nothing for other objects.
std::vector<std::pair<std::string, int64_t>> DescribeObjectSizes(const TData& data);
/// Axis lines of images and graphs in physical units ("x: 0 ... 50 µm, 128 px"); a rotated space axis
/// gives its extent along the image axis ("x: 50 µm along the rotated axis, 128 px"). Nothing for other
/// objects.
std::vector<std::string> DescribeObjectAxes(const TProject& project, const TData& data);
/// The values of an axis (0 x, 1 y of a space transformation; 0 of a one-dimensional one) in the current unit
/// of its interpretation (interpretationID, or the transformation's own when 0). False without
/// transformation.
bool AxisValues(const TProject& project, int32_t transformationID, int32_t interpretationID, int32_t count,
                int axis, std::vector<double>& values, std::string& unit);

/// Items joined by ", ", "none" for an empty list: the choices a refusal names.
std::string Joined(const std::vector<std::string>& items);
/// "ID[,ID...]" of objects; exit 2 with one line for anything else.
std::vector<int32_t> ParseObjectIDs(const std::string& text);

} // namespace orvexcli
