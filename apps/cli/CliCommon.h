// Shared pieces of the orvex command line: global options, exit codes, errors.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

namespace orvexcli {

/// Exit codes of every command.
enum ExitCode : int {
  kExitOk = 0,      ///< success
  kExitFailure = 1, ///< the operation failed or the input is bad
  kExitUsage = 2,   ///< wrong usage, or a file that can't be read
};

/// Options of the whole program; they may stand before or after a command's name.
struct CliContext {
  bool AnswerYes = false;
  bool AnswerNo = false;
  int Threads = 0;    ///< 0: all processors the process may use
  std::string Memory; ///< "", "heap" or "mmf"
  std::string MmfDir;
  double MmfSizeGB = 0;
  double MapSizeMB = 0;
  int ExitCode = kExitOk;
  bool Started = false;
  /// The chosen command's work, run by main after the application came up (when NeedsRuntime).
  std::function<int()> Action;
  bool NeedsRuntime = true;
};

/// Makes action the work of command: main brings the application up (unless withRuntime is false), runs
/// it, and its result is the exit code.
void SetCommandAction(CLI::App* command, CliContext& ctx, std::function<int()> action,
                      bool withRuntime = true);

/// The shortest text that reads back to the same double ("0.1", "1e-15", "532"); "nan", "inf", "-inf".
std::string FormatNumber(double value);

/// A failure that a command reports: one line on stderr and the exit code.
class CliError : public std::runtime_error {
public:
  CliError(int exitCode, const std::string& message) : std::runtime_error(message), FExitCode(exitCode) {}
  int ExitCodeValue() const { return FExitCode; }

private:
  int FExitCode;
};

/// The message of an exception with its first cause, for one line on stderr: a calculation thread's error
/// reaches the command wrapped in the controller's own.
std::string DescribeError(const std::exception& e);

/// Checks of number options with the range in a person's words: "must be 0 or more", "must be more than 0".
CLI::Validator NonNegative();
CLI::Validator Positive();

/// Adds a global option to the program; fallthrough lets it follow the command's name as well.
void AddGlobalOptions(CLI::App& app, CliContext& ctx);

/// Brings up what every command that works on projects needs: message strategy (--yes/--no or the console),
/// thread limit, progress display, Ctrl-C (and SIGTERM, SIGHUP) as cancel, the data classes. Called by
/// main only; safe to call twice.
void StartRuntime(CliContext& ctx);
/// Takes the application down again (log closed last); called once when the command is done.
void StopRuntime(CliContext& ctx);
/// True after Ctrl-C.
bool CancelRequested();

// Command groups, one per file.
void AddTagCommands(CLI::App& app, CliContext& ctx);
void AddProjectCommands(CLI::App& app, CliContext& ctx);
void AddFitCommands(CLI::App& app, CliContext& ctx);
void AddDataCommands(CLI::App& app, CliContext& ctx);
void AddDemoCommands(CLI::App& app, CliContext& ctx);
void AddAxisCommands(CLI::App& app, CliContext& ctx);
void AddPathsCommands(CLI::App& app, CliContext& ctx);
void AddBitmapCommands(CLI::App& app, CliContext& ctx);
void AddConfigCommands(CLI::App& app, CliContext& ctx);
void AddViewerCommands(CLI::App& app, CliContext& ctx);
void AddToolCommands(CLI::App& app, CliContext& ctx);
void AddMaskCommands(CLI::App& app, CliContext& ctx);

} // namespace orvexcli
