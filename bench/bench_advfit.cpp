// Spectra fitted per second by the whole-stack fitting on a 64 x 64 x 1024 stack (or SIZE x SIZE) of noisy
// Gauss (and Lorentz) spectra, printed beside the bare fit core: (a) the fit function's CalculateThread on
// the same windows already in memory as doubles, one minimizer per thread; (b) the stack run (spectra read
// from the paged graph, only masked points copied, results to paged arrays, transform and sort) plus the
// filling of the images; (c) the time of (b) over (a). Windows of 64 and 256 points around the band and the
// whole spectrum, on one thread and on all; wall-clock figures and figures per processor second (the machine
// may be shared).
#include "Benchsupport.h"
#include "common/memory/Memorymanagement.h"
#include "common/numerics/Fitfunctions.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "tools/spectral/Advancedfittingcore.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

int gSize = 64; // map side, from the command line
constexpr int kPoints = 1024;
int gSpectra = 64 * 64;
constexpr int kBand = 512;

struct TStack {
  TDGraph* Graph = nullptr;
};

// Gauss or Lorentz bands near kBand whose centre, width and height change over the map, on an offset, with
// normal noise of deviation 2.
TStack MakeStack(TProject& project, bool lorentz) {
  TStack s;
  auto graph = std::make_unique<TDGraph>();
  graph->SetID(project.GetNewDataID());
  graph->SetCaption(lorentz ? "Lorentz stack" : "Gauss stack");
  graph->SetFieldSize(gSize, gSize, TDataFieldKind::Float, kPoints);
  std::vector<float> spectrum(kPoints);
  std::mt19937 gen(2024);
  std::normal_distribution<double> noise(0.0, 2.0);
  for (int e = 0; e < gSpectra; ++e) {
    const int x = e % gSize, y = e / gSize;
    const double x0 = kBand - 6.0 + 12.0 * x / gSize, w = 4.0 + 2.0 * y / gSize, h = 200.0 + 10.0 * x;
    for (int g = 0; g < kPoints; ++g) {
      const double d = (g - x0) / w;
      const double peak = lorentz ? h / (1.0 + 4.0 * d * d / 2.355 / 2.355) : h * std::exp(-0.5 * d * d);
      spectrum[g] = static_cast<float>(50.0 + peak + noise(gen));
    }
    graph->SetSpectrumOfElement(e, spectrum.data());
  }
  graph->SetAllLinesValid();
  s.Graph = graph.get();
  project.AddData(std::move(graph));
  return s;
}

std::unique_ptr<TFitFunction> MakeFunction(bool lorentz) {
  if (lorentz) return std::make_unique<TNLFitLorentz>();
  return std::make_unique<TNLFitGauss>();
}

// (a): CalculateThread on windows held as doubles, one minimizer per thread, at the calculation threads'
// default priority as the stack run; fits per second.
double BareCore(const TStack& s, bool lorentz, int first, int count, int threads, long& failed,
                double& perCpu) {
  std::unique_ptr<TFitFunction> f = MakeFunction(lorentz);
  std::vector<double> x(static_cast<size_t>(count)), sigma(static_cast<size_t>(count), 1.0);
  for (int i = 0; i < count; ++i) x[static_cast<size_t>(i)] = first + i;
  std::vector<double> y(static_cast<size_t>(gSpectra) * static_cast<size_t>(count));
  std::vector<float> window(static_cast<size_t>(count));
  for (int e = 0; e < gSpectra; ++e) {
    s.Graph->GetPartOfSpectrum(e % gSize, e / gSize, first, count, window.data(), true);
    std::copy(window.begin(), window.end(), y.begin() + std::ptrdiff_t(e) * count);
  }
  const int np = f->GetNumberOfParameters();
  std::vector<long> bad(static_cast<size_t>(threads), 0);
  TMCC mcc(
      "bench_advfit",
      [&](TMCC* m, int t) {
        void* data = f->ThreadPrepare();
        std::vector<double> start(static_cast<size_t>(np)), values(static_cast<size_t>(np)),
            errors(static_cast<size_t>(np));
        TFitFunctionErrorInfo info;
        std::string message;
        const int a = TMCC::GetFirstElementIndex(t, m->GetNumberOfThreads(), gSpectra);
        const int b = TMCC::GetLastElementIndex(t, m->GetNumberOfThreads(), gSpectra);
        for (int e = a; e <= b; ++e)
          if (!f->CalculateThread(data, start.data(), values.data(), errors.data(), count, x.data(),
                                  y.data() + static_cast<size_t>(e) * static_cast<size_t>(count),
                                  sigma.data(), info, message))
            ++bad[static_cast<size_t>(t)];
        f->ThreadPostpare(data);
      },
      threads);
  mcc.PrepareThreads();
  const double cpu = oxbench::ProcessCpuSeconds();
  const auto start = oxbench::Clock::now();
  mcc.StartThreadsWait(threads);
  const double seconds = oxbench::Seconds(start);
  perCpu = gSpectra / (oxbench::ProcessCpuSeconds() - cpu);
  failed = 0;
  for (long v : bad) failed += v;
  return gSpectra / seconds;
}

// (b): the stack run and the images; fits per second.
double StackRun(TProject& project, const TStack& s, bool lorentz, int first, int count, int threads,
                long& failed, double& perCpu) {
  TAdvancedFittingCore core;
  core.SetFunction(MakeFunction(lorentz));
  core.NumberOfThreads = threads;
  std::vector<bool> mask(kPoints, false);
  std::fill(mask.begin() + first, mask.begin() + first + count, true);
  core.SetFitMask(mask);
  std::string message;
  const double cpu = oxbench::ProcessCpuSeconds();
  const auto start = oxbench::Clock::now();
  if (core.FitAll(*s.Graph, message) != TAdvancedFitStatus::Done) {
    std::printf("stack run refused: %s\n", message.c_str());
    return 0.0;
  }
  TAdvancedFitStatus status;
  auto images = core.MultiCoreFillImages(project, s.Graph->GetID(), status);
  const double seconds = oxbench::Seconds(start);
  perCpu = gSpectra / (oxbench::ProcessCpuSeconds() - cpu);
  failed = static_cast<long>(core.GetNumberOfFailedFits());
  return gSpectra / seconds;
}

} // namespace

// Optional arguments: the side of the map (default 64; above 64 only the 64-point window runs), then to
// profile one case alone: the function (gauss or lorentz), the window and the threads, run ten times.
int main(int argc, char** argv) {
  if (argc > 1) gSize = std::clamp(std::atoi(argv[1]), 2, 1024);
  const bool single = argc > 4;
  const bool singleLorentz = single && std::string(argv[2]) == "lorentz";
  const int singleWindow = single ? std::clamp(std::atoi(argv[3]), 4, kPoints) : 0;
  const int singleThreads = single ? std::max(1, std::atoi(argv[4])) : 0;
  gSpectra = gSize * gSize;
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();
  const int all = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  std::printf("%d x %d x %d stack, %d spectra per run; fits per second\n", gSize, gSize, kPoints, gSpectra);
  std::printf(
      "(a) bare core, (b) stack run with images, (c) time of b over a; wall clock and per CPU second\n");
  std::printf("%-8s %-13s %-3s %10s %10s %7s %12s %12s %7s %s\n", "function", "window", "thr", "(a) wall",
              "(b) wall", "(c)", "(a) per CPU", "(b) per CPU", "(c) CPU", "failed a/b");
  {
    TProject project;
    for (bool lorentz : {false, true}) {
      if (single && lorentz != singleLorentz) continue;
      const TStack s = MakeStack(project, lorentz);
      std::vector<int> counts = gSize > 64 ? std::vector<int>{64} : std::vector<int>{64, 256, kPoints};
      if (single) counts = {singleWindow};
      for (int count : counts) {
        const int first = count == kPoints ? 0 : std::max(0, kBand - count / 2);
        std::vector<int> threadCounts = all > 1 ? std::vector<int>{1, all} : std::vector<int>{1};
        if (single) threadCounts = {singleThreads};
        for (int threads : threadCounts) {
          long failedA = 0, failedB = 0;
          // The best of several alternating runs each, since the machine is shared.
          double a = 0, b = 0, aCpu = 0, bCpu = 0;
          for (int round = 0; round < (single ? 10 : gSize > 64 ? 3 : 5); ++round) {
            double perCpu = 0;
            a = std::max(a, BareCore(s, lorentz, first, count, threads, failedA, perCpu));
            aCpu = std::max(aCpu, perCpu);
            b = std::max(b, StackRun(project, s, lorentz, first, count, threads, failedB, perCpu));
            bCpu = std::max(bCpu, perCpu);
          }
          std::printf(
              "%-8s %-13s %-3d %10.0f %10.0f %7.3f %12.0f %12.0f %7.3f %ld/%ld\n",
              lorentz ? "Lorentz" : "Gauss",
              (count == kPoints ? std::string("whole (1024)") : std::to_string(count) + " points").c_str(),
              threads, a, b, a / b, aCpu, bCpu, aCpu / bCpu, failedA, failedB);
        }
      }
    }
  }
  TMemoryManagement::DestroyMemoryStrategy();
  return 0;
}
