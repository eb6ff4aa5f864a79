// Graph Background Subtraction and Peak Find Options as tools on the demo map (default 256x256x1024):
// each method's Extract beside a floor measured in the same run, copying every spectrum of the map into a
// new graph through the same paged arrays on as many threads (best of three, as methods 0-2); the ratio to
// the floor for methods 0-2 and spectra per second on 1 and 2 threads for the others and for the peak search
// over every spectrum.
//   bench_graphbackground [SIZE] [fast]   (fast: methods 0-2 only)
#include "Benchsupport.h"
#include "common/memory/Memorymanagement.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "tools/spectral/Graphbackgroundsubtraction.h"
#include "tools/spectral/Peakfindoptions.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using namespace oxbench;

namespace {

// The floor: every spectrum read and written once into a new graph, threads on contiguous blocks.
double CopySeconds(TProject& project, int32_t mapID, int threads) {
  const auto& map = *dynamic_cast<TDGraph*>(project.FindData(mapID));
  // Making the new graph counts, as it does for the tool: its memory is part of the copy.
  const auto start = Clock::now();
  auto copy =
      TDGraph::CreateNewGraph(&project, mapID, false, TDataFieldKind::Float, TDataSaveMode::Always, "C");
  const int total = static_cast<int>(map.GetNumberOfSpectra());
  std::vector<std::thread> team;
  for (int t = 0; t < threads; ++t)
    team.emplace_back([&, t] {
      std::vector<float> spectrum(static_cast<size_t>(map.GetSizeGraph()));
      for (int e = TMCC::GetFirstElementIndex(t, threads, total);
           e <= TMCC::GetLastElementIndex(t, threads, total); ++e) {
        map.GetSpectrumOfElement(e, spectrum.data());
        copy->SetSpectrumOfElement(e, spectrum.data());
      }
    });
  for (std::thread& thread : team) thread.join();
  return Seconds(start);
}

double RunSeconds(TProject& project, int32_t mapID, TProjectDialogForm& tool, bool all) {
  const auto start = Clock::now();
  const TIntList results = tool.RunNonInteractive(project, {mapID}, all ? "Extract All" : "Extract", all);
  const double seconds = Seconds(start);
  for (int32_t id : results) project.DeleteData(id);
  return seconds;
}

} // namespace

int main(int argc, char** argv) {
  const int32_t size = argc > 1 ? std::atoi(argv[1]) : 256;
  const bool fastOnly = argc > 2 && std::string(argv[2]) == "fast";
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();
  RegisterTextClasses();
  TProject project;
  TDemoOptions options;
  options.SizeX = options.SizeY = size;
  options.SizeGraph = 1024;
  std::printf("making the %dx%dx1024 demo map...\n", size, size);
  const TDemoIDs ids = CreateDemoProject(project, options);
  const double spectra = static_cast<double>(size) * size;

  struct TCase {
    const char* Name;
    std::vector<std::string> Settings;
    double Target; // ratio to the floor, 0: spectra per second only
  };
  const std::vector<TCase> cases = {
      {"0 Constant", {"Method=Constant"}, 2},
      {"1 Minimum", {"Method=Minimum"}, 2},
      {"2 Polynomial order 3, half the points", {"Method=Polynomial", "Order=3", "Fit Mask=0:511 px"}, 3},
      {"3 Auto Polynomial order 7", {"Method=Auto Polynomial", "Order=7"}, 0},
      {"4 Shape", {"Method=Shape"}, 0},
      {"5 Average", {"Method=Average"}, 0},
      {"6 Auto Average", {"Method=Auto Average"}, 0},
  };
  for (int threads : {1, 2}) {
    TMCC::SetProcessThreadLimit(threads);
    // Best of three, as the fast methods: the first pass also pays for mapping fresh pages.
    double floor = 1e30;
    for (int pass = 0; pass < 3; ++pass) floor = std::min(floor, CopySeconds(project, ids.Map, threads));
    std::printf("%d thread(s): floor (copy through the paged arrays) %.3f s\n", threads, floor);
    for (const TCase& c : cases) {
      if (fastOnly && c.Target == 0) continue;
      TGraphBackgroundSubtractionForm tool;
      tool.Parameters().SetParameterValuesFromText(c.Settings);
      double seconds = 1e30;
      for (int pass = 0; pass < (c.Target > 0 ? 3 : 1); ++pass)
        seconds = std::min(seconds, RunSeconds(project, ids.Map, tool, false));
      std::printf("  method %-40s %.3f s  %.0f spectra/s  ratio %.1f", c.Name, seconds, spectra / seconds,
                  seconds / floor);
      if (c.Target > 0) std::printf(" (target <= %.0f)", c.Target);
      if (tool.GetAutoPolynomialSpectra() > 0)
        std::printf("  mean fits %.2f",
                    static_cast<double>(tool.GetAutoPolynomialRounds()) / tool.GetAutoPolynomialSpectra());
      std::printf("\n");
    }
    if (fastOnly) continue;
    TPeakFindOptionsForm peaks;
    const double seconds = RunSeconds(project, ids.Map, peaks, true);
    std::printf("  peak search, every spectrum: %.3f s  %.0f spectra/s  %zu peaks\n", seconds,
                spectra / seconds, peaks.GetPeakTable().size());
  }
  return 0;
}
