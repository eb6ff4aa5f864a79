// orvex data: the values of a graph or image as raw little-endian float32, for comparison outside.
#include "CliCommon.h"
#include "CliProjectFiles.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"

#include <cstdio>
#include <iostream>
#include <memory>

#include <unistd.h>

namespace orvexcli {
namespace {

// Writes all bytes to a descriptor; false on failure.
bool WriteOut(int fd, const void* data, size_t size) {
  const auto* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = ::write(fd, p, size);
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

void RunData(CliContext& ctx, const std::string& fileName, int32_t id, const std::string& out) {
  StartRuntime(ctx);
  TLoadedFile loaded = LoadProjectOrDataFile(fileName);
  TData* data = loaded.Project->FindData(id);
  if (!data) throw CliError(kExitFailure, "No data object with ID " + std::to_string(id) + " in " + fileName);
  const auto* graph = dynamic_cast<const TDGraph*>(data);
  const auto* image = dynamic_cast<const TDImage*>(data);
  if (!graph && !image)
    throw CliError(kExitFailure, "Data object " + std::to_string(id) + " (" + data->GetClassNameA() +
                                     ") is neither a graph nor an image");
  int fd = STDOUT_FILENO;
  std::string tempName;
  TFileHandle file = kInvalidFileHandle;
  if (out != "-") {
    tempName = out;
    file = CreateFileSafeOverWrite(out, tempName);
    if (file == kInvalidFileHandle)
      throw CliError(kExitFailure,
                     "Saving Error: " + GetTagErrorName(teCreateFileForWriteError) + ": " + out);
    fd = file;
  }
  bool ok = true;
  if (graph) {
    // Spectrum after spectrum, e = x + y * SizeX; invalid lines as stored.
    std::vector<float> spectrum(static_cast<size_t>(graph->GetSizeGraph()));
    for (int64_t e = 0; ok && e < graph->GetNumberOfSpectra(); ++e) {
      graph->GetSpectrumOfElement(e, spectrum.data(), true);
      ok = WriteOut(fd, spectrum.data(), spectrum.size() * sizeof(float));
      if (CancelRequested()) ok = false;
    }
  } else {
    std::vector<float> line(static_cast<size_t>(image->GetSizeX()));
    for (int32_t y = 0; ok && y < image->GetSizeY(); ++y) {
      image->GetFastLine(y, line.data());
      ok = WriteOut(fd, line.data(), line.size() * sizeof(float));
    }
  }
  if (file != kInvalidFileHandle) {
    CloseFile(file);
    if (!ok) {
      DeleteFileByName(tempName.empty() || tempName == out ? out : tempName);
    } else if (!DeleteAndRenameFiles(out, tempName)) {
      ok = false;
    }
  }
  if (!ok) throw CliError(kExitFailure, "Saving Error: " + GetTagErrorName(teWriteFileError) + ": " + out);
}

} // namespace

void AddDataCommands(CLI::App& app, CliContext& ctx) {
  struct TOptions {
    std::string File, Out;
    int32_t ID = 0;
  };
  auto options = std::make_shared<TOptions>();
  auto* command =
      app.add_subcommand("data", "Write the values of a graph or image as raw little-endian float32");
  command->add_option("FILE", options->File, "Project or data file")->required();
  command->add_option("ID", options->ID, "ID of the graph or image")->required();
  command->add_option("-o,--output", options->Out, "File to write, - for standard output")->required();
  command->callback([options, &ctx] { RunData(ctx, options->File, options->ID, options->Out); });
}

} // namespace orvexcli

namespace orvexcli {
namespace {

void RunAxis(CliContext& ctx, const std::string& fileName, int32_t id) {
  StartRuntime(ctx);
  TLoadedFile loaded = LoadProjectOrDataFile(fileName);
  const auto* graph = dynamic_cast<const TDGraph*>(loaded.Project->FindData(id));
  if (!graph) throw CliError(kExitFailure, "No graph with ID " + std::to_string(id) + " in " + fileName);
  std::vector<double> values;
  std::string unit;
  if (!AxisValues(*loaded.Project, graph->GetXTransformationID(), graph->GetXInterpretationID(),
                  graph->GetSizeGraph(), 0, values, unit))
    throw CliError(kExitFailure, "Graph " + std::to_string(id) + " has no spectral transformation");
  for (double v : values) std::printf("%.10g\n", v);
}

} // namespace

void AddAxisCommands(CLI::App& app, CliContext& ctx) {
  struct TOptions {
    std::string File;
    int32_t ID = 0;
  };
  auto options = std::make_shared<TOptions>();
  auto* command =
      app.add_subcommand("axis", "Print the spectral axis of a graph in its current unit, one per line");
  command->add_option("FILE", options->File, "Project or data file")->required();
  command->add_option("ID", options->ID, "ID of the graph")->required();
  command->callback([options, &ctx] { RunAxis(ctx, options->File, options->ID); });
}

} // namespace orvexcli
