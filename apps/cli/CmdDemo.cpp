// orvex demo: writes the built-in demo data set, a synthetic confocal Raman map, as a project file.
#include "CliCommon.h"
#include "CliProjectFiles.h"
#include "project/Demodataset.h"

#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <regex>

namespace orvexcli {
namespace {

TDemoOptions ParseSize(const std::string& size, uint64_t seed) {
  TDemoOptions options;
  options.Seed = seed;
  if (size.empty()) return options;
  const std::regex pattern(R"((\d+)x(\d+)x(\d+))");
  std::smatch match;
  if (!std::regex_match(size, match, pattern))
    throw CliError(kExitUsage, "--size must be XxYxN, e.g. 128x128x1024: " + size);
  const long long x = std::stoll(match[1]), y = std::stoll(match[2]), n = std::stoll(match[3]);
  if (x < 1 || y < 1 || n < 2 || x > 100000 || y > 100000 || n > 100000 || y * n > 2147483647LL)
    throw CliError(kExitUsage, "--size out of range: " + size);
  options.SizeX = static_cast<int32_t>(x);
  options.SizeY = static_cast<int32_t>(y);
  options.SizeGraph = static_cast<int32_t>(n);
  return options;
}

int RunDemo(const TDemoOptions& options, const std::string& out) {
  const auto start = std::chrono::steady_clock::now();
  TProject project;
  const TDemoIDs ids = CreateDemoProject(project, options);
  if (CancelRequested()) throw CliError(kExitFailure, "Demo data set cancelled; nothing written");
  const double made = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  SaveProjectOrDataFile(project, out, false);
  const double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  char times[96];
  std::snprintf(times, sizeof times, "made in %.2f s, with saving %.2f s", made, total);
  std::cout << "written: " << out << " (map " << options.SizeX << "x" << options.SizeY << "x"
            << options.SizeGraph << ", ID " << ids.Map << "; " << times << ")\n";
  return kExitOk;
}

} // namespace

void AddDemoCommands(CLI::App& app, CliContext& ctx) {
  struct TOptions {
    std::string Out, Size;
    uint64_t Seed = 1;
  };
  auto options = std::make_shared<TOptions>();
  auto* command = app.add_subcommand("demo", "Write the demo data set: a synthetic confocal Raman map");
  command->add_option("-o,--output", options->Out, "Project file to write (.oxp)")->required();
  command->add_option("--size", options->Size,
                      "XxYxN: pixels in x and y, points per spectrum (default 128x128x1024)");
  command->add_option("--seed", options->Seed, "Seed of the noise and spikes (default 1)");
  // The size is checked before the application comes up: a wrong one is a usage error.
  command->callback([options, &ctx] {
    const TDemoOptions demo = ParseSize(options->Size, options->Seed);
    ctx.Action = [demo, options] { return RunDemo(demo, options->Out); };
    ctx.NeedsRuntime = true;
  });
}

} // namespace orvexcli
