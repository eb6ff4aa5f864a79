// The tool commands: "tools" lists the registered tools and their parameters, "run" runs one on objects
// of a project, "history" lists an object's history, "replay" runs the tool steps of a history again.
#include "CliCommon.h"
#include "CliProjectFiles.h"
#include "common/Saveandload.h"
#include "common/parameters/Parametertext.h"
#include "project/Projectdialogform.h"
#include "project/Toolhistory.h"
#include "project/Toolregistry.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvexcli {

namespace {

using json = nlohmann::ordered_json;

std::string Dump(const json& j) {
  return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string JoinKeys() {
  std::string keys;
  for (const std::string& key : TToolRegistry::Instance().GetKeys()) keys += (keys.empty() ? "" : ", ") + key;
  return keys;
}

const TToolEntry& FindTool(const std::string& name) {
  const TToolEntry* tool = TToolRegistry::Instance().Find(name);
  if (!tool) throw CliError(kExitFailure, "unknown tool '" + name + "'; one of: " + JoinKeys());
  return *tool;
}

TIntList ParseIDs(const std::string& text, const char* option) {
  TIntList ids;
  std::stringstream stream(text);
  std::string item;
  while (std::getline(stream, item, ',')) {
    int32_t id = 0;
    const auto [end, error] = std::from_chars(item.data(), item.data() + item.size(), id);
    if (error != std::errc() || end != item.data() + item.size() || id <= 0)
      throw CliError(kExitFailure, std::string(option) + " needs IDs like 3 or 3,5, not '" + text + "'");
    ids.push_back(id);
  }
  if (ids.empty()) throw CliError(kExitFailure, std::string(option) + " needs at least one ID");
  return ids;
}

void ApplyAssignments(TProjectDialogForm& tool, const std::vector<std::string>& assignments,
                      const std::string& what) {
  if (assignments.empty()) return;
  const TUserParameterProblems problems = tool.Parameters().SetParameterValuesFromText(assignments);
  if (!problems.empty())
    throw CliError(kExitFailure, tool.GetToolKey() + ": " + what + ": " + ParameterProblemsMessage(problems));
}

// A parameter file: NAME=VALUE lines with # comments, or a defaults file that "Save Default Settings" wrote.
void ApplyParameterFile(TProjectDialogForm& tool, const std::string& fileName) {
  std::ifstream in(fileName, std::ios::binary);
  if (!in) throw CliError(kExitUsage, "cannot read the parameter file '" + fileName + "'");
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw CliError(kExitUsage, "cannot read the parameter file '" + fileName + "'");
  if (content.find('\0') != std::string::npos) {
    if (tool.Parameters().LoadParameterValues(fileName) < 1)
      throw CliError(kExitUsage, "'" + fileName + "' is neither a defaults file nor NAME=VALUE lines");
    return;
  }
  std::vector<std::string> assignments;
  std::stringstream lines(content);
  std::string line;
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    assignments.push_back(line.substr(first));
  }
  ApplyAssignments(tool, assignments, "--params " + fileName);
}

std::unique_ptr<TProjectDialogForm> CreateTool(const TToolEntry& entry) {
  std::unique_ptr<TProjectDialogForm> tool = entry.Create();
  if (!tool) throw CliError(kExitFailure, "the tool '" + entry.Key + "' could not be made");
  return tool;
}

json DescribeTool(const TToolEntry& entry) {
  std::unique_ptr<TProjectDialogForm> tool = CreateTool(entry);
  json j;
  j["key"] = entry.Key;
  j["class"] = entry.ClassName;
  j["caption"] = entry.Caption;
  j["frame"] = tool->GetFrameName();
  j["commands"] = json::array();
  for (const TParameterDeclaration* command : tool->GetCommands())
    j["commands"].push_back({{"name", command->Name}, {"caption", command->Caption}});
  j["parameters"] = json::parse(ParametersToJson(tool->Parameters()));
  // A mask text over the input's spectral points says so; its kind stays "string".
  for (json& parameter : j["parameters"])
    if (const TParameterDeclaration* d = tool->Declaration().FindDeclaration(parameter.value("name", ""));
        d && d->SpectralMask)
      parameter["spectralMask"] = true;
  return j;
}

std::string ChoicesText(const json& choices) {
  std::string text;
  for (const auto& choice : choices) text += (text.empty() ? "" : ", ") + choice.get<std::string>();
  return text;
}

std::string ValueText(const json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

void PrintToolText(const json& tool) {
  std::cout << tool["key"].get<std::string>() << "  \"" << tool["caption"].get<std::string>() << "\"  "
            << tool["frame"].get<std::string>() << "\n";
  std::cout << "  commands:";
  for (const auto& command : tool["commands"])
    std::cout << " \"" << command["name"].get<std::string>() << "\"";
  std::cout << "\n";
  for (const auto& p : tool["parameters"]) {
    std::cout << "  " << p["name"].get<std::string>() << " (" << p["kind"].get<std::string>() << ") default "
              << ValueText(p["default"]);
    if (!p["min"].is_null() || !p["max"].is_null())
      std::cout << ", limits " << ValueText(p["min"]) << " to " << ValueText(p["max"]);
    if (!p["unit"].is_null()) std::cout << ", unit " << p["unit"].get<std::string>();
    if (!p["choices"].is_null()) std::cout << ", one of: " << ChoicesText(p["choices"]);
    std::cout << "\n";
  }
}

struct TNewObject {
  int32_t ID = 0;
  std::string ClassName;
  std::string Caption;
  int Step = 0;
};

void PrintObjects(const std::vector<TNewObject>& objects, bool asJson, bool withStep) {
  if (asJson) {
    json list = json::array();
    for (const TNewObject& object : objects) {
      json j{{"id", object.ID}, {"class", object.ClassName}, {"caption", object.Caption}};
      if (withStep) j["step"] = object.Step;
      list.push_back(j);
    }
    std::cout << Dump(list) << "\n";
    return;
  }
  for (const TNewObject& object : objects)
    std::cout << object.ID << "  " << object.ClassName << "  " << object.Caption << "\n";
}

// One run of a tool on a project: the tool's command on the inputs, the new IDs back. Failures of the
// calculation become one line; a cancel leaves the project as it was.
TIntList RunTool(TProjectDialogForm& tool, TProject& project, const TIntList& ids, const std::string& command,
                 bool all) {
  std::string reason;
  if (!tool.IsInputIDListOkay(&project, &ids, nullptr, &reason))
    throw CliError(kExitFailure, tool.GetToolKey() + ": input refused: " + reason);
  const std::vector<std::string> commands = tool.GetExtractCommands();
  if (std::find(commands.begin(), commands.end(), command) == commands.end()) {
    std::string names;
    for (const std::string& name : commands) names += (names.empty() ? "'" : ", '") + name + "'";
    throw CliError(kExitFailure, tool.GetToolKey() + ": unknown command '" + command + "'; one of: " + names);
  }
  TIntList results;
  try {
    results = tool.RunNonInteractive(project, ids, command, all);
  } catch (const CliError&) {
    throw;
  } catch (const std::exception& e) {
    if (CancelRequested())
      throw CliError(kExitFailure, tool.GetDialogName() + ": cancelled, nothing was written");
    throw CliError(kExitFailure, tool.GetToolKey() + ": " + DescribeError(e));
  }
  if (CancelRequested())
    throw CliError(kExitFailure, tool.GetDialogName() + ": cancelled, nothing was written");
  return results;
}

TNewObject DescribeNew(const TProject& project, int32_t id, int step) {
  const TData* data = project.FindData(id);
  return TNewObject{id, data ? data->GetClassNameA() : std::string(),
                    data ? data->GetCaption() : std::string(), step};
}

// --- tools ---------------------------------------------------------------------------------------------

struct TToolsOptions {
  std::string Tool;
  bool Json = false;
  bool SaveDefaults = false;
  bool ResetDefaults = false;
  bool Factory = false;
  std::vector<std::string> Sets;
};

int RunTools(const TToolsOptions& o) {
  if (o.Tool.empty()) {
    if (o.SaveDefaults || o.ResetDefaults || !o.Sets.empty())
      throw CliError(kExitUsage, "--save-defaults, --reset-defaults and --set need a TOOL");
    json list = json::array();
    for (const TToolEntry& entry : TToolRegistry::Instance().GetTools()) list.push_back(DescribeTool(entry));
    if (o.Json) {
      std::cout << Dump(list) << "\n";
    } else {
      for (const auto& tool : list)
        std::cout << tool["key"].get<std::string>() << "  \"" << tool["caption"].get<std::string>() << "\"  "
                  << tool["frame"].get<std::string>() << "\n";
    }
    return kExitOk;
  }
  const TToolEntry& entry = FindTool(o.Tool);
  if (o.ResetDefaults) {
    std::unique_ptr<TProjectDialogForm> tool = CreateTool(entry);
    if (!tool->ResetDefaultSettings())
      throw CliError(kExitFailure, "cannot remove '" + tool->GetDefaultSettingsFileName() + "'");
    std::cout << entry.Key << ": stored defaults removed\n";
    return kExitOk;
  }
  if (o.SaveDefaults) {
    std::unique_ptr<TProjectDialogForm> tool = CreateTool(entry);
    if (!o.Factory && !tool->LoadDefaultSettings())
      throw CliError(kExitFailure, "cannot read '" + tool->GetDefaultSettingsFileName() + "'");
    ApplyAssignments(*tool, o.Sets, "--set");
    if (!tool->SaveDefaultSettings())
      throw CliError(kExitFailure, "cannot write '" + tool->GetDefaultSettingsFileName() + "'");
    std::cout << entry.Key << ": defaults stored in " << tool->GetDefaultSettingsFileName() << "\n";
    return kExitOk;
  }
  if (!o.Sets.empty()) throw CliError(kExitUsage, "--set goes with --save-defaults");
  const json tool = DescribeTool(entry);
  if (o.Json)
    std::cout << Dump(json::array({tool})) << "\n";
  else
    PrintToolText(tool);
  return kExitOk;
}

// --- run -----------------------------------------------------------------------------------------------

struct TRunOptions {
  std::string Tool;
  std::string File;
  std::string Input;
  std::vector<std::string> Sets;
  std::string Params;
  bool All = false;
  std::string Command = TProjectDialogForm::kExtract;
  bool Factory = false;
  std::string Out;
  bool Json = false;
  bool AllowDamaged = false;
};

int RunRun(CliContext& ctx, const TRunOptions& o) {
  const TToolEntry& entry = FindTool(o.Tool);
  if (o.Input.empty()) throw CliError(kExitFailure, entry.Key + ": --input is required (the IDs to work on)");
  const TIntList ids = ParseIDs(o.Input, "--input");
  std::unique_ptr<TProjectDialogForm> tool = CreateTool(entry);
  // Declared defaults, then the stored ones, then the parameter file, then each --set.
  if (!o.Factory && !tool->LoadDefaultSettings())
    throw CliError(kExitFailure,
                   "cannot read the stored defaults '" + tool->GetDefaultSettingsFileName() + "'");
  if (!o.Params.empty()) ApplyParameterFile(*tool, o.Params);
  ApplyAssignments(*tool, o.Sets, "--set");
  TLoadedFile loaded = LoadProjectOrDataFile(o.File);
  CheckDamage(ctx, loaded, o.AllowDamaged);
  TProject& project = *loaded.Project;
  const TIntList results = RunTool(*tool, project, ids, o.Command, o.All);
  SaveProjectOrDataFile(project, o.Out, false);
  std::vector<TNewObject> objects;
  for (int32_t id : results) objects.push_back(DescribeNew(project, id, 1));
  // A tool whose answer is a table gives it as data: with --json it is printed instead of the objects.
  if (o.Json && !tool->GetReportJson().empty()) {
    std::cout << tool->GetReportJson() << "\n";
    return kExitOk;
  }
  if (!tool->GetReport().empty() && !o.Json)
    std::cout << tool->GetReport() << (tool->GetReport().back() == '\n' ? "" : "\n");
  PrintObjects(objects, o.Json, false);
  return kExitOk;
}

// --- history -------------------------------------------------------------------------------------------

std::string DateText(const THistoryEntry& entry) {
  char text[40];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", entry.Date[0], entry.Date[1],
                entry.Date[2], entry.Date[3], entry.Date[4], entry.Date[5]);
  return text;
}

bool IsReplayable(const THistoryEntry& entry, TToolRunStep& step) {
  std::string problem;
  return entry.Type == kHistoryEntryToolRun && ParseToolRunStep(entry.Text, step, problem);
}

const TData& FindObject(const TProject& project, int32_t id, const std::string& file) {
  const TData* data = project.FindData(id);
  if (!data)
    throw CliError(kExitFailure, "no object has the ID " + std::to_string(id) + " in '" + file + "'");
  return *data;
}

struct THistoryOptions {
  std::string File;
  int32_t ID = 0;
  bool Json = false;
};

int RunHistory(const THistoryOptions& o) {
  TLoadedFile loaded = LoadProjectOrDataFile(o.File);
  const TData& data = FindObject(*loaded.Project, o.ID, o.File);
  json list = json::array();
  for (const THistoryEntry& entry : data.GetHistoryList()) {
    TToolRunStep step;
    const bool replayable = IsReplayable(entry, step);
    if (o.Json) {
      list.push_back({{"date", DateText(entry)},
                      {"type", entry.Type},
                      {"text", entry.Text},
                      {"replayable", replayable}});
    } else {
      std::cout << DateText(entry) << (replayable ? "  [replayable]  " : "  ") << entry.Text << "\n";
    }
  }
  if (o.Json) std::cout << Dump(list) << "\n";
  return kExitOk;
}

// --- replay --------------------------------------------------------------------------------------------

struct TReplayOptions {
  std::string File;
  int32_t ID = 0;
  std::string On;
  std::string Input;
  std::string Out;
  bool Json = false;
  bool DryRun = false;
};

int RunReplay(CliContext& ctx, const TReplayOptions& o) {
  std::vector<TToolRunStep> steps;
  {
    TLoadedFile source = LoadProjectOrDataFile(o.File);
    const TData& data = FindObject(*source.Project, o.ID, o.File);
    for (const THistoryEntry& entry : data.GetHistoryList()) {
      TToolRunStep step;
      if (IsReplayable(entry, step)) steps.push_back(step);
    }
  }
  if (steps.empty())
    throw CliError(kExitFailure, "the history of ID " + std::to_string(o.ID) + " has no tool runs");
  for (size_t i = 1; i < steps.size(); ++i)
    if (steps[i].Inputs.size() != 1)
      throw CliError(kExitFailure, "step " + std::to_string(i + 1) + " (" + steps[i].Key +
                                       ") ran on several inputs; only the first step may");
  if (o.Input.empty()) throw CliError(kExitFailure, "--input is required (the IDs the first step works on)");
  TIntList inputs = ParseIDs(o.Input, "--input");
  // Every step's tool and parameters are checked before anything runs.
  std::vector<std::unique_ptr<TProjectDialogForm>> tools;
  for (size_t i = 0; i < steps.size(); ++i) {
    const TToolEntry* entry = TToolRegistry::Instance().Find(steps[i].Key);
    if (!entry)
      throw CliError(kExitFailure, "step " + std::to_string(i + 1) + ": unknown tool '" + steps[i].Key + "'");
    tools.push_back(CreateTool(*entry));
    const TUserParameterProblems problems =
        tools.back()->Parameters().SetParameterValuesFromText(steps[i].Assignments);
    if (!problems.empty())
      throw CliError(kExitFailure, "step " + std::to_string(i + 1) + " (" + entry->Key +
                                       "): " + ParameterProblemsMessage(problems));
  }
  if (o.DryRun) {
    for (size_t i = 0; i < steps.size(); ++i) {
      TToolRunStep shown = steps[i];
      if (i == 0) shown.Inputs = inputs;
      if (o.Json) continue;
      std::cout << "step " << i + 1 << ": " << FormatToolRunStep(shown) << "\n";
    }
    if (o.Json) {
      json list = json::array();
      for (size_t i = 0; i < steps.size(); ++i)
        list.push_back(
            {{"step", i + 1}, {"key", steps[i].Key}, {"command", steps[i].Command}, {"all", steps[i].All}});
      std::cout << Dump(list) << "\n";
    }
    return kExitOk;
  }
  const std::string target = o.On.empty() ? o.File : o.On;
  TLoadedFile loaded = LoadProjectOrDataFile(target);
  CheckDamage(ctx, loaded, false);
  TProject& project = *loaded.Project;
  std::vector<TNewObject> objects;
  for (size_t i = 0; i < steps.size(); ++i) {
    const TIntList results = RunTool(*tools[i], project, inputs, steps[i].Command, steps[i].All);
    for (int32_t id : results) objects.push_back(DescribeNew(project, id, static_cast<int>(i + 1)));
    if (i + 1 < steps.size()) {
      // The chain went on with the result this step's entry names.
      const size_t next = static_cast<size_t>(steps[i].ResultIndex - 1);
      if (next >= results.size())
        throw CliError(kExitFailure,
                       "step " + std::to_string(i + 1) + " made " + std::to_string(results.size()) +
                           " results; the chain went on with result " + std::to_string(steps[i].ResultIndex));
      inputs = TIntList{results[next]};
    }
  }
  SaveProjectOrDataFile(project, o.Out, false);
  PrintObjects(objects, o.Json, true);
  return kExitOk;
}

} // namespace

void AddToolCommands(CLI::App& app, CliContext& ctx) {
  auto tools = std::make_shared<TToolsOptions>();
  auto* toolsCommand = app.add_subcommand("tools", "List the tools, or one tool's commands and parameters");
  toolsCommand->add_option("TOOL", tools->Tool, "Tool key or class name (any case)");
  toolsCommand->add_flag("--json", tools->Json, "Machine-readable listing");
  toolsCommand->add_flag("--save-defaults", tools->SaveDefaults, "Store the tool's defaults (with --set)");
  toolsCommand->add_flag("--reset-defaults", tools->ResetDefaults, "Remove the stored defaults");
  toolsCommand->add_flag("--factory", tools->Factory,
                         "With --save-defaults: start from the declared defaults");
  toolsCommand->add_option("--set", tools->Sets, "NAME=VALUE for --save-defaults (repeatable)");
  SetCommandAction(toolsCommand, ctx, [tools] { return RunTools(*tools); });

  auto run = std::make_shared<TRunOptions>();
  auto* runCommand = app.add_subcommand("run", "Run a tool on objects of a project and save the results");
  runCommand->add_option("TOOL", run->Tool, "Tool key or class name (any case)")->required();
  runCommand->add_option("FILE", run->File, "Project or data file")->required();
  runCommand->add_option("--input", run->Input, "IDs the tool works on: ID[,ID...]");
  runCommand->add_option("--set", run->Sets, "NAME=VALUE (repeatable)");
  runCommand->add_option("--params", run->Params, "File of NAME=VALUE lines (# comments) or a defaults file");
  runCommand->add_flag("--all", run->All, "Work on every input (Extract All)");
  runCommand->add_option("--command", run->Command, "The extract command to run (default Extract)");
  runCommand->add_flag("--factory", run->Factory, "Ignore the stored defaults");
  runCommand->add_option("-o,--output", run->Out, "File to write (may be FILE)")->required();
  runCommand->add_flag("--json", run->Json, "Machine-readable list of the new objects");
  runCommand->add_flag("--allow-damaged", run->AllowDamaged,
                       "Work on a file with objects that failed to load");
  SetCommandAction(runCommand, ctx, [&ctx, run] { return RunRun(ctx, *run); });

  auto history = std::make_shared<THistoryOptions>();
  auto* historyCommand = app.add_subcommand("history", "The history of an object; tool runs are replayable");
  historyCommand->add_option("FILE", history->File, "Project or data file")->required();
  historyCommand->add_option("ID", history->ID, "Object ID")->required();
  historyCommand->add_flag("--json", history->Json, "Machine-readable listing");
  SetCommandAction(historyCommand, ctx, [history] { return RunHistory(*history); });

  auto replay = std::make_shared<TReplayOptions>();
  auto* replayCommand = app.add_subcommand("replay", "Run the tool steps of an object's history again");
  replayCommand->add_option("FILE", replay->File, "Project or data file holding the object")->required();
  replayCommand->add_option("ID", replay->ID, "Object whose history is replayed")->required();
  replayCommand->add_option("--on", replay->On, "Project to work on (default FILE)");
  replayCommand->add_option("--input", replay->Input, "IDs the first step works on: ID[,ID...]");
  replayCommand->add_option("-o,--output", replay->Out, "File to write");
  replayCommand->add_flag("--json", replay->Json, "Machine-readable list of the new objects (with \"step\")");
  replayCommand->add_flag("--dry-run", replay->DryRun, "Only show the steps");
  SetCommandAction(replayCommand, ctx, [&ctx, replay] {
    if (!replay->DryRun && replay->Out.empty()) throw CliError(kExitUsage, "-o is required unless --dry-run");
    return RunReplay(ctx, *replay);
  });
}

} // namespace orvexcli
