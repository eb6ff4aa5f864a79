// orvex axis: the spectral axis of a graph in its current unit, at full precision.
#include "CliCommon.h"
#include "CliProjectFiles.h"
#include "data/Dgraph.h"

#include <iostream>
#include <memory>

#include <nlohmann/json.hpp>

namespace orvexcli {
namespace {

struct TAxisOptions {
  std::string File;
  int32_t ID = 0;
  bool Json = false;
};

int RunAxis(const TAxisOptions& o) {
  TLoadedFile loaded = LoadProjectOrDataFile(o.File);
  const auto* graph = dynamic_cast<const TDGraph*>(loaded.Project->FindData(o.ID));
  if (!graph)
    throw CliError(kExitFailure, "no graph with ID " + std::to_string(o.ID) + " in '" + o.File + "'");
  std::vector<double> values;
  std::string unit;
  if (!AxisValues(*loaded.Project, graph->GetXTransformationID(), graph->GetXInterpretationID(),
                  graph->GetSizeGraph(), 0, values, unit))
    throw CliError(kExitFailure, "graph " + std::to_string(o.ID) + " has no spectral transformation");
  if (o.Json) {
    // The JSON writer prints doubles as the shortest text that reads back to the same value.
    std::cout << nlohmann::ordered_json{{"id", o.ID}, {"unit", unit}, {"values", values}}.dump() << "\n";
    return kExitOk;
  }
  for (double v : values) std::cout << FormatNumber(v) << "\n";
  return kExitOk;
}

} // namespace

void AddAxisCommands(CLI::App& app, CliContext& ctx) {
  auto options = std::make_shared<TAxisOptions>();
  auto* command =
      app.add_subcommand("axis", "Print the spectral axis of a graph in its current unit, one per line");
  command->add_option("FILE", options->File, "Project or data file")->required();
  command->add_option("ID", options->ID, "ID of the graph")->required();
  command->add_flag("--json", options->Json, "Machine-readable output: id, unit and values");
  SetCommandAction(command, ctx, [options] { return RunAxis(*options); });
}

} // namespace orvexcli
