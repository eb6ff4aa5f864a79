// MAT export of the demo map (default 256×256×1024 floats, 256 MiB) beside a raw write of the same number of
// bytes to the same folder in the same run, each without and with flushing to disk; then the Graph ASCII
// export of the map in values per second. Prints its figures; asserts nothing.
// Arguments: [XxYxN, default 256x256x1024] [repeat: only the MAT export without flushing, that many
// times, for a profiler]. ORVEX_BENCH_DIR chooses the folder.
#include "Benchsupport.h"
#include "common/Standardmessage.h"
#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "exchange/Exportmanager.h"
#include "project/Demodataset.h"
#include "project/Project.h"

#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using oxbench::Clock;
using oxbench::Seconds;

// The same bytes in 4 MiB writes, optionally flushed: what the disk can take at best. cpu receives the
// processor seconds.
double RawWrite(const std::string& name, int64_t bytes, bool sync, double& cpu) {
  std::vector<char> block(size_t(4) << 20, 1);
  const auto start = Clock::now();
  cpu = oxbench::ProcessCpuSeconds();
  const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  for (int64_t done = 0; done < bytes;) {
    const size_t n = static_cast<size_t>(std::min<int64_t>(bytes - done, static_cast<int64_t>(block.size())));
    if (::write(fd, block.data(), n) != static_cast<ssize_t>(n)) break;
    done += static_cast<int64_t>(n);
  }
  if (sync) ::fsync(fd);
  ::close(fd);
  cpu = oxbench::ProcessCpuSeconds() - cpu;
  return Seconds(start);
}

struct TRun {
  double Seconds = -1;
  double CpuSeconds = 0; ///< processor time of the whole process: what the export costs, load aside
  int64_t Bytes = 0;
};

TRun Export(TExportManager& manager, const std::string& filter, int32_t id, const std::string& name,
            bool sync) {
  manager.OnCreateFileInfo = [&](TExportFilter&, const TIntList&) {
    auto target = std::make_unique<TExportFilterTarget>(std::vector<std::string>{name}, 0);
    target->SetSyncToDisk(sync);
    return target;
  };
  const auto start = Clock::now();
  const double cpu = oxbench::ProcessCpuSeconds();
  const TExportResult result = manager.DoExport(manager.FindFilter(filter), {id});
  TRun run;
  run.Seconds = Seconds(start);
  run.CpuSeconds = oxbench::ProcessCpuSeconds() - cpu;
  if (!result.Errors.empty() || result.Files.empty()) {
    std::printf("  %s failed: %s\n", filter.c_str(),
                result.Errors.empty() ? "no file" : result.Errors[0].c_str());
    run.Seconds = -1;
    return run;
  }
  run.Bytes = result.Files[0].Bytes;
  return run;
}

} // namespace

int main(int argc, char** argv) {
  TDemoOptions options;
  options.SizeX = options.SizeY = 256;
  options.SizeGraph = 1024;
  int repeat = 0;
  if ((argc > 1 &&
       std::sscanf(argv[1], "%dx%dx%d", &options.SizeX, &options.SizeY, &options.SizeGraph) != 3) ||
      (argc > 2 && std::sscanf(argv[2], "%d", &repeat) != 1)) {
    std::fprintf(stderr, "usage: bench_export [XxYxN [repeat]]\n");
    return 2;
  }
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
      new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));

  TProject project;
  auto start = Clock::now();
  const TDemoIDs ids = CreateDemoProject(project, options);
  const int64_t values = int64_t(options.SizeX) * options.SizeY * options.SizeGraph;
  std::printf("demo map %dx%dx%d (%.0f MiB of floats) made in %.2f s\n", options.SizeX, options.SizeY,
              options.SizeGraph, values * 4.0 / 1048576.0, Seconds(start));

  TExportManager manager(&project, "");
  RegisterExportFilters(manager);
  manager.ReportToUser = false;
  const std::string dir = oxbench::BenchDir();
  const std::string mat = dir + "/bench_export.mat", raw = dir + "/bench_export.raw",
                    txt = dir + "/bench_export.txt";

  if (repeat > 0) {
    for (int i = 0; i < repeat; ++i) {
      const TRun run = Export(manager, "Matlab", ids.Map, mat, false);
      std::printf("MAT export %.3f s (%.3f s CPU)\n", run.Seconds, run.CpuSeconds);
    }
    ::unlink(mat.c_str());
    return 0;
  }
  for (const bool sync : {false, true}) {
    // Export and raw write take turns, three times each after one warm-up export; the best of each counts,
    // since other work on the machine only ever adds time. Both write a new file (the one before is
    // removed untimed): replacing a file costs the removal of the old one besides, printed apart.
    TRun best = Export(manager, "Matlab", ids.Map, mat, sync);
    TRun replacing = best;
    replacing.Seconds = best.Seconds = 1e30;
    double rawBest = 1e30, rawCpuBest = 1e30;
    for (int i = 0; i < 3; ++i) {
      const TRun over = Export(manager, "Matlab", ids.Map, mat, sync); // over the file of the last run
      if (over.Seconds >= 0 && over.Seconds < replacing.Seconds) replacing = over;
      ::unlink(mat.c_str());
      const TRun run = Export(manager, "Matlab", ids.Map, mat, sync);
      if (run.Seconds >= 0 && run.Seconds < best.Seconds) best = run;
      ::unlink(raw.c_str());
      double cpu = 0;
      const double seconds = RawWrite(raw, best.Bytes, sync, cpu);
      rawBest = std::min(rawBest, seconds);
      rawCpuBest = std::min(rawCpuBest, cpu);
    }
    std::printf(
        "%s fsync: MAT export %.3f s (%.0f MiB/s, %.3f s CPU), raw write of the same %lld bytes %.3f s "
        "(%.3f s CPU), ratio %.2f; MAT export over an existing file %.3f s\n",
        sync ? "with" : "without", best.Seconds, best.Bytes / 1048576.0 / best.Seconds, best.CpuSeconds,
        static_cast<long long>(best.Bytes), rawBest, rawCpuBest, best.Seconds / rawBest, replacing.Seconds);
  }
  const TRun ascii = Export(manager, "Graph ASCII", ids.Map, txt, false);
  std::printf("Graph ASCII: %.3f s, %.2f million values/s, %.0f MiB of text\n", ascii.Seconds,
              values / ascii.Seconds / 1e6, ascii.Bytes / 1048576.0);
  ::unlink(mat.c_str());
  ::unlink(raw.c_str());
  ::unlink(txt.c_str());
  return 0;
}
