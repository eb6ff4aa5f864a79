// orvex mask: a mask over a graph's spectral points, given as text, added to the project as a mask graph.
#include "CliCommon.h"
#include "CliProjectFiles.h"
#include "data/Dgraph.h"
#include "project/Graphmask.h"

#include <iostream>
#include <memory>

#include <nlohmann/json.hpp>

namespace orvexcli {
namespace {

struct TMaskOptions {
  std::string File, Out, Ranges, Name = "Mask", Unit;
  int32_t ID = 0;
  bool Invert = false;
  bool AllowDamaged = false;
  bool Json = false;
};

/// The loaded project as the mask's owner: always active, as the command runs the mask to its end.
class TCommandMaskOwner : public IGraphMaskOwner {
public:
  explicit TCommandMaskOwner(IDataProject& project) : FProject(project) {}
  IDataProject* GetMaskProject() override { return &FProject; }
  bool IsMaskOwnerActive() const override { return true; }

private:
  IDataProject& FProject;
};

int RunMask(const CliContext& ctx, const TMaskOptions& o) {
  if (o.Name.empty()) throw CliError(kExitFailure, "--name: the mask's name must not be empty");
  TLoadedFile loaded = LoadProjectOrDataFile(o.File);
  CheckDamage(ctx, loaded, o.AllowDamaged);
  TProject& project = *loaded.Project;
  const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(o.ID));
  if (!graph)
    throw CliError(kExitFailure, "no graph with ID " + std::to_string(o.ID) + " in '" + o.File + "'");
  if (graph->GetSizeGraph() < 1)
    throw CliError(kExitFailure, "graph " + std::to_string(o.ID) + " has no spectral points");

  TCommandMaskOwner owner(project);
  TGraphMask mask(&owner, graph->GetSizeGraph(), 1, o.ID);
  mask.SetMaskName(o.Name);
  mask.ClearAll();
  std::string error;
  if (!mask.SetMaskFromText(o.Ranges, error, o.Unit)) throw CliError(kExitFailure, "--ranges: " + error);
  if (o.Invert) mask.InvertAll();
  const std::vector<int32_t> ids = mask.ExtractMask();
  if (ids.empty())
    throw CliError(kExitFailure, "no mask graph could be made from graph " + std::to_string(o.ID));
  SaveProjectOrDataFile(project, o.Out, false);

  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (int32_t id : ids) {
    const TData* data = project.FindData(id);
    if (o.Json) {
      list.push_back({{"id", id}, {"class", data->GetClassNameA()}, {"caption", data->GetCaption()}});
    } else {
      std::cout
          << id << "  " << data->GetClassNameA() << "  "
          << nlohmann::json(data->GetCaption()).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
          << "\n";
    }
  }
  if (o.Json) std::cout << list.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
  return kExitOk;
}

} // namespace

void AddMaskCommands(CLI::App& app, CliContext& ctx) {
  auto options = std::make_shared<TMaskOptions>();
  auto* command =
      app.add_subcommand("mask", "Add a mask graph over a graph's spectral points, given as text");
  command->add_option("FILE", options->File, "Project or data file")->required();
  command->add_option("GRAPH_ID", options->ID, "ID of the graph whose axis the ranges refer to")->required();
  command
      ->add_option(
          "--ranges", options->Ranges,
          "Comma-separated lo:hi (axis values, closed), lo:hi px (point indices), all, none, graph:ID")
      ->required();
  command->add_option("--unit", options->Unit, "Unit of the lo:hi values (default: the axis's current unit)");
  command->add_option("--name", options->Name, "Caption of the mask graph (default Mask)");
  command->add_flag("--invert", options->Invert,
                    "Set the points the ranges leave out, and the other way round");
  command->add_option("-o", options->Out, "Project or data file to write (may be FILE)")->required();
  command->add_flag("--allow-damaged", options->AllowDamaged,
                    "Write even when objects of FILE failed to load");
  command->add_flag("--json", options->Json, "The new object as a JSON array of {id, class, caption}");
  SetCommandAction(command, ctx, [options, &ctx] { return RunMask(ctx, *options); });
}

} // namespace orvexcli
