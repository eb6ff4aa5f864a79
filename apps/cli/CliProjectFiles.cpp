// Loading and saving project and data files for the commands.
#include "CliProjectFiles.h"

#include "CliCommon.h"
#include "common/Saveandload.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace orvexcli {
namespace {

std::string LowerExtension(const std::string& fileName) {
  const size_t dot = fileName.find_last_of('.');
  if (dot == std::string::npos || fileName.find('/', dot) != std::string::npos) return {};
  std::string ext = fileName.substr(dot);
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return ext;
}

[[noreturn]] void FailLoading(TTagError error, const std::string& fileName) {
  throw CliError(error == teCreateFileForReadError ? kExitUsage : kExitFailure,
                 "Loading Error: " + GetTagErrorName(error) + ": " + fileName);
}

} // namespace

TLoadedFile LoadProjectOrDataFile(const std::string& fileName, bool forAppend) {
  TLoadedFile loaded;
  loaded.Project = std::make_unique<TProject>();
  loaded.Project->SetWithoutProjectManager(forAppend);
  const TFileHandle file = OpenFileForReading(fileName);
  if (file == kInvalidFileHandle) FailLoading(teCreateFileForReadError, fileName);
  TTagError result = LoadIdentificationFromFile(file, loaded.Identification);
  if (result < 1) {
    CloseFile(file);
    FailLoading(result, fileName);
  }
  FileSeek(file, 0, TSeekOrigin::Begin);
  loaded.IsDataFile = loaded.Identification == TProject::kDataIdentification ||
                      loaded.Identification == TProject::kDataIdentificationOld;
  if (loaded.IsDataFile) {
    // A data file on its own keeps its IDs (appending renumbers it behind the base instead).
    TTagControl root, t;
    std::string rootName;
    FileSeek(file, kTagFileRootOffset, TSeekOrigin::Begin);
    result = root.ReadTag(file, rootName);
    if (result >= 1) {
      t.LoadOrDefaultIntTag(file, "Version", root, &loaded.Version, 1, 0);
      if (loaded.Version > TProject::ThisVersion) result = teWrongFileVersion;
    }
    if (result >= 1) {
      std::vector<std::unique_ptr<TData>> list;
      result = loaded.Project->LoadDataFromTagFile(file, root, list);
      for (auto& data : list) loaded.Project->OwnData(std::move(data));
      loaded.Project->CleanWrongDataConnections();
      loaded.Project->FindNextDataID();
    }
  } else {
    try {
      result = loaded.Project->LoadProjectFromTagFile(file);
    } catch (const std::exception& e) {
      // Too large for the memory strategy, say: the objects read so far are dropped with the project.
      CloseFile(file);
      throw CliError(kExitFailure, "Loading Error: " + DescribeError(e) + ": " + fileName);
    }
    loaded.Version = loaded.Project->GetFileVersion();
  }
  CloseFile(file);
  if (result < 1) FailLoading(result, fileName);
  loaded.Project->SetFileName(fileName);
  if (CancelRequested()) throw CliError(kExitFailure, "Loading cancelled: " + fileName);
  return loaded;
}

void SaveProjectOrDataFile(TProject& project, const std::string& fileName, bool compatible) {
  const std::string ext = LowerExtension(fileName);
  if (ext != ".oxp" && ext != ".oxd")
    throw CliError(kExitUsage, "Saving Error: the file name must end in .oxp or .oxd: " + fileName);
  TProject::SaveVersion = compatible ? 5 : TProject::ThisVersion;
  TTagError result = teUnspecificError;
  try {
    if (ext == ".oxp") {
      result = project.SaveProjectToFile(fileName);
    } else {
      TDataList all;
      for (const auto& data : project.DataList()) all.push_back(data.get());
      result = project.SaveDataListToFile(fileName, all);
    }
  } catch (...) {
    TProject::SaveVersion = TProject::ThisVersion;
    throw;
  }
  TProject::SaveVersion = TProject::ThisVersion;
  if (CancelRequested()) throw CliError(kExitFailure, "Saving cancelled; " + fileName + " is unchanged");
  if (result < 1) throw CliError(kExitFailure, "Saving Error: " + GetTagErrorName(result) + ": " + fileName);
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
  const auto* transformation = dynamic_cast<const TDTransformation*>(project.FindData(transformationID));
  if (!transformation || count <= 0) return false;
  const TDInterpretation* interpretation = dynamic_cast<const TDInterpretation*>(
      project.FindData(interpretationID != 0 ? interpretationID : transformation->GetInterpretationID()));
  values.resize(static_cast<size_t>(count));
  const int dimension = std::max<int>(transformation->GetDim(), 1);
  std::vector<double> bin(static_cast<size_t>(std::max(dimension, 3)), 0.0), real(bin.size(), 0.0);
  for (int32_t i = 0; i < count; ++i) {
    std::fill(bin.begin(), bin.end(), 0.0);
    bin[static_cast<size_t>(std::min(axis, dimension - 1))] = i;
    transformation->BinToReal(bin.data(), real.data());
    const double standard = real[static_cast<size_t>(std::min(axis, dimension - 1))];
    values[static_cast<size_t>(i)] = interpretation ? interpretation->StandardTo(standard) : standard;
  }
  unit = interpretation ? interpretation->UnitString(interpretation->GetUnitIndex())
                        : transformation->GetStandardUnit();
  return true;
}

std::vector<std::string> DescribeObjectAxes(const TProject& project, const TData& data) {
  const auto* base = dynamic_cast<const TDImageBase*>(&data);
  if (!base) return {};
  std::vector<std::string> lines;
  auto describe = [&](const char* name, int32_t transformationID, int32_t interpretationID, int32_t count,
                      int axis) {
    std::vector<double> values;
    std::string unit;
    if (!AxisValues(project, transformationID, interpretationID, count, axis, values, unit)) return;
    char line[256];
    std::snprintf(line, sizeof line, "%s: %.6g ... %.6g %s, %d px", name, values.front(), values.back(),
                  unit.c_str(), count);
    lines.emplace_back(line);
  };
  describe("x", base->GetSpaceTransformationID(), 0, base->GetSizeX(), 0);
  describe("y", base->GetSpaceTransformationID(), 0, base->GetSizeY(), 1);
  if (const auto* graph = dynamic_cast<const TDGraph*>(&data))
    describe("spectral", graph->GetXTransformationID(), graph->GetXInterpretationID(), graph->GetSizeGraph(),
             0);
  return lines;
}

} // namespace orvexcli
