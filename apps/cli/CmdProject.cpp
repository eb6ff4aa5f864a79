// orvex info / convert / append: look into, convert and combine project and data files.
#include "CliCommon.h"
#include "CliProjectFiles.h"
#include "CliViewers.h"
#include "common/Saveandload.h"
#include "project/Project.h"

#include <iostream>
#include <memory>

#include <nlohmann/json.hpp>

namespace orvexcli {
namespace {

using json = nlohmann::ordered_json;

json DescribeObject(const TData& data) {
  json object = {{"id", data.GetID()}, {"class", data.GetClassNameA()}, {"caption", data.GetCaption()}};
  json references = json::object();
  for (const auto& [name, id] : data.GetReferencedIDs()) references[name] = id;
  object["references"] = references;
  for (const auto& [key, value] : DescribeObjectSizes(data)) object[key] = value;
  return object;
}

int RunInfo(const std::string& fileName, bool asJson) {
  TLoadedFile loaded = LoadProjectOrDataFile(fileName);
  TProject& project = *loaded.Project;
  json objects = json::array();
  for (const auto& data : project.DataList()) objects.push_back(DescribeObject(*data));
  json viewers = json::array();
  for (size_t i = 0; i < project.ViewerList().size(); ++i) viewers.push_back(DescribeViewer(project, i));
  json skipped = json::array();
  for (const auto& [index, className] : project.SkippedObjects())
    skipped.push_back(json{{"index", index}, {"class", className}});
  json failed = json::array();
  for (const auto& object : loaded.Failed)
    failed.push_back(json{{"index", object.Index}, {"class", object.ClassName}, {"reason", object.Reason}});

  if (asJson) {
    std::cout << json{{"identification", loaded.Identification},
                      {"version", loaded.Version},
                      {"versionText", TProject::GetVersionStringForFileVersion(loaded.Version)},
                      {"nextDataID", project.GetNextDataID()},
                      {"objects", objects},
                      {"viewers", viewers},
                      {"skipped", skipped},
                      {"failed", failed}}
                     .dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
              << "\n";
    return kExitOk;
  }
  std::cout << "identification: " << loaded.Identification << "\n";
  std::cout << "version: " << loaded.Version << " ("
            << TProject::GetVersionStringForFileVersion(loaded.Version) << ")\n";
  std::cout << "next data ID: " << project.GetNextDataID() << "\n";
  std::cout << "objects: " << project.DataList().size() << "\n";
  for (const auto& data : project.DataList()) {
    std::cout << "  " << data->GetID() << "  " << data->GetClassNameA() << "  "
              << json(data->GetCaption()).dump(-1, ' ', false, json::error_handler_t::replace);
    for (const auto& [key, value] : DescribeObjectSizes(*data)) std::cout << "  " << key << "=" << value;
    for (const auto& [name, id] : data->GetReferencedIDs()) std::cout << "  " << name << "=" << id;
    std::cout << "\n";
    for (const auto& line : DescribeObjectAxes(project, *data)) std::cout << "      " << line << "\n";
  }
  std::cout << "viewers: " << project.ViewerList().size() << "\n";
  for (const auto& viewer : project.ViewerList()) std::cout << "  " << viewer->GetClassNameA() << "\n";
  if (!project.SkippedObjects().empty()) {
    std::cout << "skipped (class unknown to this program): " << project.SkippedObjects().size() << "\n";
    for (const auto& [index, className] : project.SkippedObjects())
      std::cout << "  Data " << index << ": " << className << "\n";
  }
  if (!loaded.Failed.empty()) {
    std::cout << "failed (damaged, not loaded): " << loaded.Failed.size() << "\n";
    for (const auto& object : loaded.Failed)
      std::cout << "  Data " << object.Index << ": " << object.ClassName << ": " << object.Reason << "\n";
  }
  return kExitOk;
}

int RunConvert(const CliContext& ctx, const std::string& in, const std::string& out, bool compatible,
               bool allowDamaged) {
  TLoadedFile loaded = LoadProjectOrDataFile(in);
  CheckDamage(ctx, loaded, allowDamaged);
  SaveProjectOrDataFile(*loaded.Project, out, compatible);
  return kExitOk;
}

int RunAppend(const CliContext& ctx, const std::string& base, const std::vector<std::string>& additions,
              const std::string& out, bool compatible, bool allowDamaged) {
  TLoadedFile loaded = LoadProjectOrDataFile(base);
  CheckDamage(ctx, loaded, allowDamaged);
  for (const auto& addition : additions) {
    TLoadedFile part = LoadProjectOrDataFile(addition, /*forAppend=*/true);
    CheckDamage(ctx, part, allowDamaged);
    loaded.Project->AppendProject(*part.Project);
  }
  SaveProjectOrDataFile(*loaded.Project, out, compatible);
  return kExitOk;
}

} // namespace

void AddProjectCommands(CLI::App& app, CliContext& ctx) {
  struct TInfoOptions {
    std::string File;
    bool Json = false;
  };
  auto info = std::make_shared<TInfoOptions>();
  auto* infoCommand = app.add_subcommand("info", "Show what a project or data file holds");
  infoCommand->add_option("FILE", info->File, "Project (.oxp) or data file (.oxd)")->required();
  infoCommand->add_flag("--json", info->Json, "Machine-readable output on stdout");
  SetCommandAction(infoCommand, ctx, [info] { return RunInfo(info->File, info->Json); });

  struct TConvertOptions {
    std::string In, Out;
    bool Compatible = false;
    bool AllowDamaged = false;
  };
  auto convert = std::make_shared<TConvertOptions>();
  auto* convertCommand = app.add_subcommand("convert", "Load a project or data file and save it again");
  convertCommand->add_option("IN", convert->In, "File to read")->required();
  convertCommand->add_option("OUT", convert->Out, "File to write (.oxp or .oxd by its extension)")
      ->required();
  convertCommand->add_flag("--compatible", convert->Compatible,
                           "Write the form older versions read (version 5)");
  convertCommand->add_flag("--allow-damaged", convert->AllowDamaged,
                           "Write what loaded of a damaged file (the lost objects are named)");
  SetCommandAction(convertCommand, ctx, [convert, &ctx] {
    return RunConvert(ctx, convert->In, convert->Out, convert->Compatible, convert->AllowDamaged);
  });

  struct TAppendOptions {
    std::string Base, Out;
    std::vector<std::string> Additions;
    bool Compatible = false;
    bool AllowDamaged = false;
  };
  auto append = std::make_shared<TAppendOptions>();
  auto* appendCommand = app.add_subcommand("append", "Append projects and data files to a project");
  appendCommand->add_option("BASE", append->Base, "Project or data file to start from")->required();
  appendCommand->add_option("ADD", append->Additions, "Projects and data files to append")->required();
  appendCommand->add_option("-o,--output", append->Out, "File to write")->required();
  appendCommand->add_flag("--compatible", append->Compatible,
                          "Write the form older versions read (version 5)");
  appendCommand->add_flag("--allow-damaged", append->AllowDamaged,
                          "Write what loaded of damaged files (the lost objects are named)");
  SetCommandAction(appendCommand, ctx, [append, &ctx] {
    return RunAppend(ctx, append->Base, append->Additions, append->Out, append->Compatible,
                     append->AllowDamaged);
  });
}

} // namespace orvexcli
