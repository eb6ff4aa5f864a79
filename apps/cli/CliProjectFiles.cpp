// Loading and saving project and data files for the commands.
#include "CliProjectFiles.h"

#include "common/Saveandload.h"
#include "common/Tagvalidate.h"
#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace orvexcli {
namespace {

std::string LowerExtension(const std::string& fileName) {
  const size_t dot = fileName.find_last_of('.');
  if (dot == std::string::npos || fileName.find('/', dot) != std::string::npos) return {};
  std::string ext = fileName.substr(dot);
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return ext;
}

// The reason of a failed load in a user's words.
std::string LoadFailureReason(TTagError error) {
  switch (error) {
  case teReadFileError:
    return "the file is cut short or damaged";
  case teWrongFileIdentification:
    return "not a project or data file";
  case teWrongFileVersion:
    return "written by a newer version of the program";
  case teTagNotFound:
    return "the file is damaged (a part is missing)";
  default:
    return "the file is damaged (" + GetTagErrorName(error) + ")";
  }
}

bool Printable(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c >= 32 && c < 127; });
}

} // namespace

TLoadedFile LoadProjectOrDataFile(const std::string& fileName, bool forAppend) {
  // A command runs briefly and mostly looks at little of the data: large arrays stay in the file until
  // they are used, and a save of them unchanged copies file to file (convert and append never hold them
  // in memory). A file changed in place meanwhile is noticed, and such a save fails.
  TMemoryManagement::DeferArrayLoading = true;
  TLoadedFile loaded;
  loaded.FileName = fileName;
  loaded.Project = std::make_unique<TProject>();
  TProject& project = *loaded.Project;
  project.SetWithoutProjectManager(forAppend);
  const std::string shown = "'" + fileName + "'";
  ClearLastFileError();
  const TFileHandle file = OpenFileForReading(fileName);
  if (file == kInvalidFileHandle)
    throw CliError(kExitUsage, "cannot open " + shown + ": " + FileErrorReason(LastFileError()));
  struct TCloser {
    TFileHandle File;
    ~TCloser() { CloseFile(File); }
  } closer{file};
  if (LoadIdentificationFromFile(file, loaded.Identification) < 1)
    throw CliError(kExitUsage, "cannot read " + shown + ": " + FileErrorReason(LastFileError()));
  FileSeek(file, 0, TSeekOrigin::Begin);
  loaded.IsDataFile = loaded.Identification == TProject::kDataIdentification ||
                      loaded.Identification == TProject::kDataIdentificationOld;
  const bool isProject = loaded.Identification == TProject::kProjectIdentification ||
                         loaded.Identification == TProject::kProjectIdentificationOld;
  if (!loaded.IsDataFile && !isProject)
    throw CliError(kExitFailure, shown + " is not a project or data file" +
                                     (Printable(loaded.Identification) && !loaded.Identification.empty()
                                          ? " (identification \"" + loaded.Identification + "\")"
                                          : std::string()));
  TTagError result = teUnspecificError;
  try {
    if (loaded.IsDataFile) {
      // A data file on its own keeps its IDs (appending renumbers it behind the base instead).
      std::vector<std::unique_ptr<TData>> list;
      result = project.LoadDataListFromTagFile(file, list, /*keepIDs=*/true);
      for (auto& data : list) project.OwnData(std::move(data));
      project.FindNextDataID();
    } else {
      result = project.LoadProjectFromTagFile(file);
    }
  } catch (const std::bad_alloc&) {
    throw CliError(kExitFailure, "not enough memory to load " + shown +
                                     "; the memory-mapped strategy (--memory mmf) keeps large data on disk");
  } catch (const std::exception& e) {
    throw CliError(kExitFailure, "cannot load " + shown + ": " + DescribeError(e));
  }
  loaded.Version = project.GetFileVersion();
  if (CancelRequested()) throw CliError(kExitFailure, "Loading cancelled: " + fileName);
  if (result < 1) throw CliError(kExitFailure, "cannot load " + shown + ": " + LoadFailureReason(result));
  loaded.Failed = project.FailedObjects();
  // A file whose head is cut off loads as nothing at all: that is damage, not an empty project.
  if (project.DataList().empty() && loaded.Failed.empty() && project.SkippedObjects().empty()) {
    const TTagValidationResult check = ValidateTagFile(fileName);
    if (!check.Valid)
      throw CliError(kExitFailure, "cannot load " + shown + ": the file is damaged (" + check.Problem +
                                       " at byte " + std::to_string(check.Offset) + ")");
  }
  project.SetFileName(fileName);
  return loaded;
}

void CheckDamage(const CliContext& ctx, const TLoadedFile& loaded, bool allowDamaged) {
  if (loaded.Failed.empty()) return;
  // The console's message strategy has shown each object's message; answered by --yes or --no they
  // passed silently, so the warnings are said here.
  if (ctx.AnswerYes || ctx.AnswerNo)
    for (const auto& failed : loaded.Failed)
      std::cerr << "warning: '" << loaded.FileName << "': Data " << failed.Index << " (" << failed.ClassName
                << ") could not be loaded: " << failed.Reason << "\n";
  if (!allowDamaged)
    throw CliError(kExitFailure,
                   std::to_string(loaded.Failed.size()) + " object" + (loaded.Failed.size() == 1 ? "" : "s") +
                       " of '" + loaded.FileName +
                       "' could not be loaded; nothing written (--allow-damaged writes the rest)");
}

void SaveProjectOrDataFile(TProject& project, const std::string& fileName, bool compatible) {
  const std::string ext = LowerExtension(fileName);
  if (ext != ".oxp" && ext != ".oxd")
    throw CliError(kExitUsage, "cannot save '" + fileName + "': the name must end in .oxp or .oxd");
  const bool existed = FileExists(fileName);
  const TProjectSaveOptions options{compatible ? TProject::kCompatibleVersion : TProject::ThisVersion};
  TTagError result = teUnspecificError;
  if (ext == ".oxp") {
    result = project.SaveProjectToFile(fileName, options);
  } else {
    TDataList all;
    for (const auto& data : project.DataList()) all.push_back(data.get());
    result = project.SaveDataListToFile(fileName, all, options);
  }
  if (CancelRequested())
    throw CliError(kExitFailure, "Saving cancelled; " + (existed ? "'" + fileName + "' is unchanged"
                                                                 : std::string("nothing written")));
  if (result < 1)
    throw CliError(kExitFailure, project.LastFileErrorText().empty()
                                     ? "cannot write '" + fileName + "': " + GetTagErrorName(result)
                                     : project.LastFileErrorText());
}

std::vector<std::pair<std::string, int64_t>> DescribeObjectSizes(const TData& data) {
  if (const auto* graph = dynamic_cast<const TDGraph*>(&data))
    return {{"sizeX", graph->GetSizeX()}, {"sizeY", graph->GetSizeY()}, {"sizeGraph", graph->GetSizeGraph()}};
  if (const auto* image = dynamic_cast<const TDImageBase*>(&data))
    return {{"sizeX", image->GetSizeX()}, {"sizeY", image->GetSizeY()}};
  return {};
}

bool AxisValues(const TProject& project, int32_t transformationID, int32_t interpretationID, int32_t count,
                int axis, std::vector<double>& values, std::string& unit) {
  return GetAxisValues(project, transformationID, interpretationID, count, axis, values, unit);
}

std::vector<std::string> DescribeObjectAxes(const TProject& project, const TData& data) {
  const auto* base = dynamic_cast<const TDImageBase*>(&data);
  if (!base) return {};
  std::vector<std::string> lines;
  // Along an image axis: where the first and the last pixel lie. When the other coordinate moves too the
  // axis is rotated, and only its extent along itself says how long it is.
  auto describeSpace = [&](const char* name, int32_t count, int axis) {
    const auto* transformation =
        dynamic_cast<const TDTransformation*>(project.FindData(base->GetSpaceTransformationID()));
    if (!transformation || count <= 0) return;
    const TDInterpretation* interpretation =
        dynamic_cast<const TDInterpretation*>(project.FindData(transformation->GetInterpretationID()));
    const size_t size = static_cast<size_t>(std::max<int>(transformation->GetDim(), 3));
    std::vector<double> bin(size, 0.0), first(size, 0.0), last(size, 0.0);
    transformation->BinToReal(bin.data(), first.data());
    bin[static_cast<size_t>(axis)] = count - 1;
    transformation->BinToReal(bin.data(), last.data());
    const double along = last[static_cast<size_t>(axis)] - first[static_cast<size_t>(axis)];
    const double across = last[static_cast<size_t>(1 - axis)] - first[static_cast<size_t>(1 - axis)];
    auto convert = [&](double v) { return interpretation ? interpretation->StandardTo(v) : v; };
    const std::string unit = interpretation ? interpretation->UnitString(interpretation->GetUnitIndex())
                                            : transformation->GetStandardUnit();
    std::string line = std::string(name) + ": ";
    if (std::abs(across) > 1e-12 * std::max(std::abs(along), 1e-300)) {
      const double extent = std::abs(convert(std::hypot(along, across)) - convert(0.0));
      line += FormatNumber(extent) + " " + unit + " along the rotated axis";
    } else {
      line += FormatNumber(convert(first[static_cast<size_t>(axis)])) + " ... " +
              FormatNumber(convert(last[static_cast<size_t>(axis)])) + " " + unit;
    }
    lines.push_back(line + ", " + std::to_string(count) + " px");
  };
  describeSpace("x", base->GetSizeX(), 0);
  describeSpace("y", base->GetSizeY(), 1);
  if (const auto* graph = dynamic_cast<const TDGraph*>(&data)) {
    std::vector<double> values;
    std::string unit;
    if (AxisValues(project, graph->GetXTransformationID(), graph->GetXInterpretationID(),
                   graph->GetSizeGraph(), 0, values, unit))
      lines.push_back("spectral: " + FormatNumber(values.front()) + " ... " + FormatNumber(values.back()) +
                      " " + unit + ", " + std::to_string(graph->GetSizeGraph()) + " px");
  }
  return lines;
}

std::string Joined(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
  return text.empty() ? std::string("none") : text;
}

std::vector<int32_t> ParseObjectIDs(const std::string& text) {
  std::vector<int32_t> ids;
  std::stringstream stream(text);
  std::string part;
  while (std::getline(stream, part, ',')) {
    try {
      size_t used = 0;
      const long value = std::stol(part, &used);
      if (used != part.size() || value <= 0 || value > INT32_MAX) throw std::invalid_argument(part);
      ids.push_back(static_cast<int32_t>(value));
    } catch (const std::exception&) {
      throw CliError(kExitUsage, "not an object ID: \"" + part + "\"");
    }
  }
  if (ids.empty()) throw CliError(kExitUsage, "no object IDs given");
  return ids;
}

} // namespace orvexcli
