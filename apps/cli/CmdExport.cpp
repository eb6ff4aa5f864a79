// orvex formats / export: the export filters with their parameters, and an export of objects of a project.
#include "CliCommon.h"
#include "CliParameterJson.h"
#include "CliProjectFiles.h"
#include "exchange/Exportfileinfo.h"
#include "exchange/Exportmanager.h"
#include "project/Orvexdirectories.h"

#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>

#include <nlohmann/json.hpp>

namespace orvexcli {
namespace {

using json = nlohmann::ordered_json;
namespace fs = std::filesystem;

struct TFormatsOptions {
  bool Json = false;
};

struct TExportOptions {
  std::string File, IDs, Format, Out;
  std::vector<std::string> Settings;
  int64_t MaxSize = 0;
  bool SaveSettings = false;
  bool Json = false;
};

// The filters with the settings the user stored for them.
std::unique_ptr<TExportManager> MakeManager(IDataProject* project) {
  auto manager = std::make_unique<TExportManager>(project, TOrvexDirectories::User.ExportFilterSettings);
  RegisterExportFilters(*manager);
  for (const auto& filter : manager->GetFilters()) filter->LoadExportFilterSettingsFromTagFile();
  return manager;
}

std::vector<std::string> FilterNames(const TExportManager& manager) {
  std::vector<std::string> names;
  for (const auto& filter : manager.GetFilters()) names.push_back(filter->GetName());
  return names;
}

int RunFormats(const TFormatsOptions& o) {
  std::unique_ptr<TExportManager> manager = MakeManager(nullptr);
  json list = json::array();
  for (const auto& filter : manager->GetFilters()) {
    std::string fileFilter, extension;
    filter->GetFileFilter(fileFilter, extension);
    list.push_back(json{{"name", filter->GetName()},
                        {"extension", extension},
                        {"classes", filter->GetAcceptedClasses()},
                        {"parameters", ParameterDeclarationsToJson(filter->GetParameterTable(),
                                                                   filter->GetDeclaredValues())}});
  }
  if (o.Json) {
    std::cout << list.dump(2) << "\n";
    return kExitOk;
  }
  for (const auto& entry : list) {
    std::cout << entry["name"].get<std::string>() << "  " << entry["extension"].get<std::string>() << "  "
              << Joined(entry["classes"].get<std::vector<std::string>>()) << "\n";
    for (const auto& parameter : entry["parameters"]) {
      std::cout << "  " << parameter["name"].get<std::string>() << " = ";
      const json& value = parameter["value"];
      std::cout << (value.is_string() ? value.get<std::string>() : value.dump());
      if (parameter["choices"].is_array())
        std::cout << "  (" << Joined(parameter["choices"].get<std::vector<std::string>>()) << ")";
      std::cout << "  [" << parameter["caption"].get<std::string>() << "]\n";
    }
  }
  return kExitOk;
}

// The names and values of a filter's settings; unknown names and bad values end the command unchanged.
void ApplySettings(TExportFilter& filter, const std::vector<std::string>& settings) {
  if (settings.empty()) return;
  TUserParameterAdministrator* values = filter.GetDeclaredValues();
  std::vector<std::string> names;
  for (const TParameterDeclaration& declaration : filter.GetParameterTable().GetDeclarations())
    names.push_back(declaration.Name);
  for (const std::string& setting : settings) {
    const size_t eq = setting.find('=');
    if (eq == std::string::npos || eq == 0)
      throw CliError(kExitUsage, "--set wants NAME=VALUE, got \"" + setting + "\"");
    const std::string name = setting.substr(0, eq);
    if (!values || !values->GetUserParameterByName(name))
      throw CliError(kExitFailure, "unknown parameter \"" + name + "\" of " + filter.GetName() +
                                       " (parameters: " + Joined(names) + ")");
  }
  const TUserParameterProblems problems = values->SetParameterValuesFromText(settings);
  if (!problems.empty())
    throw CliError(kExitFailure,
                   "parameter \"" + problems.front().Parameter + "\": " + problems.front().Message);
}

int RunExport(const TExportOptions& o) {
  const std::vector<int32_t> ids = ParseObjectIDs(o.IDs);
  {
    // An unknown format is a usage error, found before the project is read.
    std::unique_ptr<TExportManager> probe = MakeManager(nullptr);
    if (probe->FindFilter(o.Format) < 0)
      throw CliError(kExitUsage,
                     "unknown format \"" + o.Format + "\" (formats: " + Joined(FilterNames(*probe)) + ")");
  }
  TLoadedFile loaded = LoadProjectOrDataFile(o.File);
  TProject& project = *loaded.Project;
  std::unique_ptr<TExportManager> manager = MakeManager(&project);
  const int index = manager->FindFilter(o.Format);
  TExportFilter& filter = *manager->GetFilters()[static_cast<size_t>(index)];
  ApplySettings(filter, o.Settings);

  bool madeFolder = false;
  std::string targetProblem;
  manager->ReportToUser = false;
  manager->OnCreateFileInfo = [&](TExportFilter& f,
                                  const TIntList& list) -> std::unique_ptr<TExportFilterTarget> {
    TExportFilterFileInfoGetterForm form;
    form.MaxSize = o.MaxSize;
    std::vector<std::string> captions;
    for (int32_t id : list) {
      const TData* data = project.FindData(id);
      captions.push_back(data ? data->GetCaption() : std::to_string(id));
    }
    std::error_code error;
    if (list.size() == 1 && !fs::is_directory(o.Out, error))
      return std::make_unique<TExportFilterTarget>(std::vector<std::string>{o.Out}, o.MaxSize);
    if (list.size() > 1 && !fs::exists(o.Out, error)) {
      if (!fs::create_directories(o.Out, error)) {
        targetProblem = "cannot make the folder '" + o.Out + "': " + error.message();
        return nullptr;
      }
      madeFolder = true;
    }
    if (!fs::is_directory(o.Out, error)) {
      targetProblem = "'" + o.Out + "' is not a folder, and several objects need one";
      return nullptr;
    }
    form.Folder = o.Out;
    form.Target = list.size() == 1 ? TExportFilterFileInfoGetterForm::tOneFile
                                   : TExportFilterFileInfoGetterForm::tSeveralFiles;
    form.UseMyFileName = false;
    std::string problem;
    auto target = form.CreateFileInfo(f, list, captions, problem);
    if (!target) targetProblem = problem;
    return target;
  };

  TExportResult result = manager->DoExport(index, ids);
  if (result.Accepted && !result.Started && targetProblem.empty() && result.Errors.empty())
    targetProblem = "nothing was exported";
  if (!targetProblem.empty()) result.Errors.push_back(targetProblem);
  if (madeFolder && result.Files.empty()) {
    std::error_code error;
    fs::remove(o.Out, error); // only when empty: a folder of ours that received nothing
  }
  const bool failed = !result.Errors.empty() || result.Cancelled;
  if (!failed && o.SaveSettings) {
    filter.SetSaveSettings(true);
    if (filter.SaveExportFilterSettingsToTagFile() < 1)
      result.Errors.push_back("cannot store the settings of " + filter.GetName() + " in '" +
                              filter.GetSettingsFileName() + "'");
  }

  auto idOfFile = [&](const TExportedFile& file) {
    return ids.size() == 1 ? ids.front()
                           : ids[static_cast<size_t>(std::min<int>(file.Index, int(ids.size()) - 1))];
  };
  if (o.Json) {
    json files = json::array();
    for (const TExportedFile& file : result.Files)
      files.push_back(json{{"id", idOfFile(file)}, {"file", file.FileName}, {"bytes", file.Bytes}});
    std::cout << json{{"files", files},
                      {"errors", result.Errors},
                      {"infos", result.Infos},
                      {"cancelled", result.Cancelled}}
                     .dump(2)
              << "\n";
  } else {
    for (const TExportedFile& file : result.Files) std::cout << file.FileName << "  " << file.Bytes << "\n";
    for (const std::string& info : result.Infos) std::cout << info << "\n";
  }
  for (const std::string& error : result.Errors) std::cerr << error << "\n";
  if (result.Cancelled) std::cerr << "Export canceled.\n";
  return result.Errors.empty() && !result.Cancelled ? kExitOk : kExitFailure;
}

} // namespace

void AddExportCommands(CLI::App& app, CliContext& ctx) {
  auto formats = std::make_shared<TFormatsOptions>();
  auto* formatsCommand = app.add_subcommand("formats", "List the export filters with their parameters");
  formatsCommand->add_flag("--json", formats->Json, "Machine-readable output");
  SetCommandAction(formatsCommand, ctx, [formats] { return RunFormats(*formats); });

  auto options = std::make_shared<TExportOptions>();
  auto* command = app.add_subcommand("export", "Export objects of a project with an export filter");
  command->add_option("FILE", options->File, "Project or data file")->required();
  command->add_option("IDS", options->IDs, "IDs of the objects, separated by commas")->required();
  command->add_option("--format", options->Format, "Name of the export filter (any case)")->required();
  command->add_option("-o,--output", options->Out, "File (one object) or folder (several objects)")
      ->required();
  command->add_option("--set", options->Settings, "NAME=VALUE: a parameter of the filter (repeatable)");
  command->add_option("--max-size", options->MaxSize, "Most bytes of a file (0: no limit)")
      ->check(NonNegative());
  command->add_flag("--save-settings", options->SaveSettings,
                    "Store the parameters as the filter's settings");
  command->add_flag("--json", options->Json, "Machine-readable output: files, errors, infos, cancelled");
  SetCommandAction(command, ctx, [options] { return RunExport(*options); });
}

} // namespace orvexcli
