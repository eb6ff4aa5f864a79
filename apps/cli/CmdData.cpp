// orvex data: the values of a graph or image as raw little-endian float32, for comparison outside.
#include "CliCommon.h"
#include "CliProjectFiles.h"
#include "common/Safewrite.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"

#include <cerrno>
#include <iostream>
#include <memory>

#include <nlohmann/json.hpp>
#include <unistd.h>

namespace orvexcli {
namespace {

struct TDataOptions {
  std::string File, Out;
  int32_t ID = 0;
  bool Json = false;
};

int RunData(const TDataOptions& o) {
  TLoadedFile loaded = LoadProjectOrDataFile(o.File);
  TData* data = loaded.Project->FindData(o.ID);
  if (!data)
    throw CliError(kExitFailure, "no data object with ID " + std::to_string(o.ID) + " in '" + o.File + "'");
  const auto* graph = dynamic_cast<const TDGraph*>(data);
  const auto* image = dynamic_cast<const TDImage*>(data);
  if (!graph && !image)
    throw CliError(kExitFailure, "data object " + std::to_string(o.ID) + " (" + data->GetClassNameA() +
                                     ") is neither a graph nor an image");
  const bool toStdout = o.Out == "-";
  if (toStdout && o.Json)
    throw CliError(kExitUsage, "--json needs -o FILE: the values go to standard output");
  TSafeFileWriter writer;
  int fd = STDOUT_FILENO;
  if (!toStdout) {
    if (writer.Open(o.Out) < 1) throw CliError(kExitFailure, writer.ErrorText());
    fd = writer.Handle();
  }
  ClearLastFileError();
  bool ok = true;
  int64_t values = 0;
  if (graph) {
    // Spectrum after spectrum, e = x + y * SizeX; invalid lines as stored.
    std::vector<float> spectrum(static_cast<size_t>(graph->GetSizeGraph()));
    for (int64_t e = 0; ok && e < graph->GetNumberOfSpectra(); ++e) {
      graph->GetSpectrumOfElement(e, spectrum.data(), true);
      ok = WriteAllBytes(fd, spectrum.data(), static_cast<int64_t>(spectrum.size() * sizeof(float)));
      values += static_cast<int64_t>(spectrum.size());
      if (CancelRequested()) ok = false;
    }
  } else {
    std::vector<float> line(static_cast<size_t>(image->GetSizeX()));
    for (int32_t y = 0; ok && y < image->GetSizeY(); ++y) {
      image->GetFastLine(y, line.data());
      ok = WriteAllBytes(fd, line.data(), static_cast<int64_t>(line.size() * sizeof(float)));
      values += static_cast<int64_t>(line.size());
    }
  }
  const std::string shown = toStdout ? std::string("the output") : "'" + o.Out + "'";
  if (!ok) {
    const int error = LastFileError();
    if (CancelRequested()) throw CliError(kExitFailure, "Saving cancelled; " + shown + " is unchanged");
    throw CliError(kExitFailure, error == ENOSPC ? "no space left on device while writing " + shown
                                                 : "cannot write " + shown + ": " + FileErrorReason(error));
  }
  if (!toStdout && writer.Commit() < 1) throw CliError(kExitFailure, writer.ErrorText());
  if (o.Json) {
    nlohmann::ordered_json summary = {
        {"id", o.ID}, {"class", data->GetClassNameA()}, {"caption", data->GetCaption()}};
    for (const auto& [key, value] : DescribeObjectSizes(*data)) summary[key] = value;
    summary["values"] = values;
    summary["bytes"] = values * static_cast<int64_t>(sizeof(float));
    summary["format"] = "float32 little-endian";
    summary["order"] = graph ? "spectrum after spectrum, e = x + y*sizeX" : "row after row";
    summary["output"] = o.Out;
    std::cout << summary.dump(2) << "\n";
  }
  return kExitOk;
}

} // namespace

void AddDataCommands(CLI::App& app, CliContext& ctx) {
  auto options = std::make_shared<TDataOptions>();
  auto* command =
      app.add_subcommand("data", "Write the values of a graph or image as raw little-endian float32");
  command->add_option("FILE", options->File, "Project or data file")->required();
  command->add_option("ID", options->ID, "ID of the graph or image")->required();
  command->add_option("-o,--output", options->Out, "File to write, - for standard output")->required();
  command->add_flag("--json", options->Json, "A summary of what was written on stdout (needs -o FILE)");
  SetCommandAction(command, ctx, [options] { return RunData(*options); });
}

} // namespace orvexcli
