// orvex show / viewer: add a viewer to a project as Show does, and list or change a viewer's settings.
#include "CliCommon.h"
#include "CliProjectFiles.h"
#include "CliViewers.h"
#include "viewers/Viewershow.h"

#include <iostream>
#include <memory>
#include <sstream>

namespace orvexcli {

using json = nlohmann::ordered_json;

json DescribeViewer(const TProject& project, size_t index) {
  const TVCustomForm* viewer = project.GetViewer(index);
  if (!viewer) return json();
  json ids = json::array();
  for (const auto& data : project.DataList())
    if (viewer->IsDataUsed(data->GetID())) ids.push_back(data->GetID());
  return json{
      {"index", index}, {"class", viewer->GetClassNameA()}, {"title", viewer->GetTitle()}, {"ids", ids}};
}

namespace {

std::string IDRange(const TProject& project) {
  if (project.DataList().empty()) return "the project holds no objects";
  return "the project holds IDs " + std::to_string(project.DataList().front()->GetID()) + " to " +
         std::to_string(project.DataList().back()->GetID());
}

std::vector<std::string> ParameterNames(TUserParameterAdministrator* cfi) {
  std::vector<std::string> names;
  if (cfi)
    for (const TUserParameterInfo& info : cfi->DescribeParameters())
      if (info.HasValue) names.push_back(info.AbsoluteName);
  return names;
}

// Applies NAME=VALUE settings; any problem ends the command before anything is written.
void ApplySettings(TVCustomForm& viewer, const std::vector<std::string>& settings) {
  if (settings.empty()) return;
  TUserParameterAdministrator* cfi = viewer.GetCFI();
  const std::vector<std::string> names = ParameterNames(cfi);
  for (const std::string& setting : settings) {
    const size_t eq = setting.find('=');
    if (eq == std::string::npos || eq == 0)
      throw CliError(kExitUsage, "--set wants NAME=VALUE, got \"" + setting + "\"");
    const std::string name = setting.substr(0, eq);
    if (!cfi || !cfi->GetUserParameterByAbsoluteName(name))
      throw CliError(kExitFailure, "unknown setting \"" + name + "\" of " + viewer.GetClassNameA() +
                                       " (settings: " + Joined(names) + ")");
  }
  const TUserParameterProblems problems = cfi->SetParameterValuesFromText(settings);
  if (!problems.empty()) {
    const TUserParameterProblem& first = problems.front();
    throw CliError(kExitFailure, "setting \"" + first.Parameter + "\": " + first.Message);
  }
}

json DescribeSettings(TVCustomForm& viewer) {
  json list = json::array();
  TUserParameterAdministrator* cfi = viewer.GetCFI();
  if (!cfi) return list;
  for (const TUserParameterInfo& info : cfi->DescribeParameters()) {
    json entry = {{"name", info.AbsoluteName}, {"kind", UserParameterKindName(info.Kind)}};
    if (info.HasValue) entry["value"] = info.Value;
    if (info.HasLowerLimit) entry["min"] = info.LowerLimit;
    if (info.HasUpperLimit) entry["max"] = info.UpperLimit;
    if (!info.EntryNames.empty()) entry["choices"] = info.EntryNames;
    list.push_back(entry);
  }
  return list;
}

void PrintViewer(const json& viewer, bool asJson) {
  if (asJson) {
    std::cout << viewer.dump(2) << "\n";
    return;
  }
  std::cout << viewer["index"].get<size_t>() << "  " << viewer["class"].get<std::string>() << "  "
            << json(viewer["title"]).dump() << "  ids=";
  std::string ids;
  for (const auto& id : viewer["ids"]) ids += (ids.empty() ? "" : ",") + std::to_string(id.get<int32_t>());
  std::cout << (ids.empty() ? "-" : ids) << "\n";
}

struct TShowOptions {
  std::string File, IDs, ViewerClass, Out;
  std::vector<std::string> Settings;
  bool Json = false;
};

void RunShow(CliContext& ctx, const TShowOptions& o) {
  const std::vector<int32_t> ids = ParseObjectIDs(o.IDs);
  StartRuntime(ctx);
  TLoadedFile loaded = LoadProjectOrDataFile(o.File);
  TProject& project = *loaded.Project;
  for (int32_t id : ids)
    if (!project.DataIDExists(id))
      throw CliError(kExitFailure, "unknown object ID " + std::to_string(id) + " (" + IDRange(project) + ")");
  std::vector<std::string> showable;
  for (const std::string& name : TVCustomForm::GetRegisteredViewerNames())
    if (const TRegisteredViewer* entry = TVCustomForm::GetRegisteredViewer(name); entry && entry->ShowViewer)
      showable.push_back(name);
  const TIntList list(ids.begin(), ids.end());
  if (!o.ViewerClass.empty() && std::find(showable.begin(), showable.end(), o.ViewerClass) == showable.end())
    throw CliError(kExitFailure, "unknown viewer class \"" + o.ViewerClass +
                                     "\" (viewer classes: " + Joined(showable) + ")");
  TVCustomForm* viewer = ShowIDsInViewer(project, list, o.ViewerClass);
  if (!viewer)
    throw CliError(kExitFailure, "no viewer " +
                                     (o.ViewerClass.empty() ? std::string("class") : o.ViewerClass) +
                                     " accepts IDs " + o.IDs + " (viewer classes: " + Joined(showable) + ")");
  ApplySettings(*viewer, o.Settings);
  SaveProjectOrDataFile(project, o.Out, false);
  const auto& viewers = project.ViewerList();
  for (size_t i = 0; i < viewers.size(); ++i)
    if (viewers[i].get() == viewer) PrintViewer(DescribeViewer(project, i), o.Json);
}

struct TViewerOptions {
  std::string File, Out;
  long Index = -1;
  std::vector<std::string> Settings;
  bool Extract = false;
  bool Json = false;
};

void RunViewer(CliContext& ctx, const TViewerOptions& o) {
  if ((!o.Settings.empty() || o.Extract) && o.Out.empty())
    throw CliError(kExitUsage, "--set and --extract need -o OUT");
  StartRuntime(ctx);
  TLoadedFile loaded = LoadProjectOrDataFile(o.File);
  TProject& project = *loaded.Project;
  const size_t count = project.ViewerList().size();
  TVCustomForm* viewer = o.Index >= 0 ? project.GetViewer(static_cast<size_t>(o.Index)) : nullptr;
  if (!viewer)
    throw CliError(kExitFailure, "no viewer " + std::to_string(o.Index) + " (the project holds " +
                                     std::to_string(count) + (count == 1 ? " viewer" : " viewers") +
                                     (count ? ", indices 0 to " + std::to_string(count - 1) : std::string()) +
                                     ")");
  if (dynamic_cast<TVStoredViewer*>(viewer))
    throw CliError(kExitFailure, "viewer " + std::to_string(o.Index) + " is of class " +
                                     viewer->GetClassNameA() + ", which this program doesn't build");
  ApplySettings(*viewer, o.Settings);
  TIntList extracted;
  if (o.Extract) {
    std::string reason;
    extracted = viewer->ExtractViewerObjects(reason);
    if (extracted.empty())
      throw CliError(kExitFailure,
                     "nothing to extract from viewer " + std::to_string(o.Index) + " (" + reason + ")");
  }
  if (!o.Out.empty()) SaveProjectOrDataFile(project, o.Out, false);
  json description = DescribeViewer(project, static_cast<size_t>(o.Index));
  description["settings"] = DescribeSettings(*viewer);
  if (o.Extract) description["extracted"] = extracted;
  if (o.Json) {
    std::cout << description.dump(2) << "\n";
    return;
  }
  PrintViewer(description, false);
  for (int32_t id : extracted)
    if (const TData* data = project.FindData(id))
      std::cout << "  extracted " << id << "  " << data->GetClassNameA() << "  \"" << data->GetCaption()
                << "\"\n";
  for (const auto& setting : description["settings"]) {
    std::cout << "  " << setting["name"].get<std::string>() << " (" << setting["kind"].get<std::string>()
              << ")";
    if (setting.contains("value")) std::cout << " = " << setting["value"].get<std::string>();
    if (setting.contains("min") || setting.contains("max"))
      std::cout << "  [" << (setting.contains("min") ? setting["min"].dump() : "") << " .. "
                << (setting.contains("max") ? setting["max"].dump() : "") << "]";
    if (setting.contains("choices")) {
      std::vector<std::string> choices = setting["choices"].get<std::vector<std::string>>();
      std::cout << "  choices: " << Joined(choices);
    }
    std::cout << "\n";
  }
}

} // namespace

void AddViewerCommands(CLI::App& app, CliContext& ctx) {
  auto show = std::make_shared<TShowOptions>();
  auto* showCommand = app.add_subcommand("show", "Add a viewer on objects to a project, as Show does");
  showCommand->add_option("FILE", show->File, "Project (.oxp) or data file (.oxd)")->required();
  showCommand->add_option("IDS", show->IDs, "Object IDs, separated by commas")->required();
  showCommand->add_option("--viewer", show->ViewerClass,
                          "Viewer class (default: the first that accepts the IDs)");
  showCommand->add_option("--set", show->Settings, "A setting of the viewer, NAME=VALUE (repeatable)");
  showCommand->add_option("-o", show->Out, "Project file to write")->required();
  showCommand->add_flag("--json", show->Json, "Machine-readable output on stdout");
  showCommand->callback([show, &ctx] { RunShow(ctx, *show); });

  auto viewer = std::make_shared<TViewerOptions>();
  auto* viewerCommand = app.add_subcommand("viewer", "List or change the settings of a project's viewer");
  viewerCommand->add_option("FILE", viewer->File, "Project (.oxp)")->required();
  viewerCommand->add_option("INDEX", viewer->Index, "Index of the viewer, as info lists them")->required();
  viewerCommand->add_option("--set", viewer->Settings, "A setting, NAME=VALUE (repeatable; needs -o)");
  viewerCommand->add_flag("--extract", viewer->Extract, "Make the viewer's objects (needs -o)");
  viewerCommand->add_option("-o", viewer->Out, "Project file to write");
  viewerCommand->add_flag("--json", viewer->Json, "Machine-readable output on stdout");
  viewerCommand->callback([viewer, &ctx] { RunViewer(ctx, *viewer); });
}

} // namespace orvexcli
