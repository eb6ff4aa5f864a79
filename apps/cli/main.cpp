// orvex: the command line of Orvex Project, for batch work and scripting.
#include "CliCommon.h"
#include "common/OrvexException.h"

#include <cstdio>
#include <iostream>

namespace orvexcli {

std::string DescribeError(const std::exception& e) {
  const auto* orvex = dynamic_cast<const OrvexException*>(&e);
  if (!orvex) return e.what();
  // The oldest entry of the history is the cause; the wrappers around it say only where it passed.
  if (const auto* history = orvex->ExceptionHistory(); history && !history->empty()) return history->back();
  return orvex->Message();
}

void AddGlobalOptions(CLI::App& app, CliContext& ctx) {
  auto* yes = app.add_flag("--yes", ctx.AnswerYes, "Answer every question of the program with Yes/Ok");
  auto* no = app.add_flag("--no", ctx.AnswerNo, "Answer every question of the program with No/Cancel");
  yes->excludes(no);
  app.add_option("--threads", ctx.Threads, "Calculation threads (default: all processors)")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--memory", ctx.Memory, "Memory strategy for this run")
      ->check(CLI::IsMember({"heap", "mmf"}));
  app.add_option("--mmf-dir", ctx.MmfDir, "Folder of the memory-mapped files for this run");
  app.add_option("--mmf-size-gb", ctx.MmfSizeGB, "Size limit of the memory-mapped files in GB")
      ->check(CLI::PositiveNumber);
  app.add_option("--map-size-mb", ctx.MapSizeMB, "Size of the mapped views in MB")
      ->check(CLI::PositiveNumber);
}

} // namespace orvexcli

int main(int argc, char** argv) {
  using namespace orvexcli;
  CLI::App app{"orvex - the command line of Orvex Project", "orvex"};
  app.set_version_flag("--version", std::string("orvex ") + ORVEX_VERSION_STRING);
  app.require_subcommand(1);
  app.fallthrough();

  CliContext ctx;
  AddGlobalOptions(app, ctx);
  AddTagCommands(app, ctx);
  AddProjectCommands(app, ctx);
  AddFitCommands(app, ctx);
  AddDataCommands(app, ctx);
  AddDemoCommands(app, ctx);
  AddAxisCommands(app, ctx);
  AddPathsCommands(app, ctx);
  AddBitmapCommands(app, ctx);
  AddConfigCommands(app, ctx);
  AddViewerCommands(app, ctx);

  // The application goes down on every path, after the command's projects are gone.
  struct TStopAtExit {
    CliContext& Context;
    ~TStopAtExit() { StopRuntime(Context); }
  } stopAtExit{ctx};
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  } catch (const CliError& e) {
    std::cout.flush();
    std::cerr << e.what() << "\n";
    return e.ExitCodeValue();
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << DescribeError(e) << "\n";
    return kExitFailure;
  }
  return ctx.ExitCode;
}
