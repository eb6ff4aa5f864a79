// Image filters on a synthetic float image: wall-clock seconds of median 3x3 and 5x5, average of size 8
// (17 binomial taps) and one iteration of anisotropic smoothing, beside a memcpy of the image. Threads take
// contiguous blocks of lines; passes are separated by joining the threads.
//   bench_imagefilters [SIZE [THREADS [ANISOTROPIC_SIZE]]]      default 2048, 2, 512
#include "Benchsupport.h"
#include "common/numerics/Anisotropicsmoothing.h"
#include "common/numerics/Imagefilters.h"
#include "common/threads/Multicorecalc.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using TClock = oxbench::Clock;
using oxbench::ProcessCpuSeconds; // on a shared machine: what the code costs, beside what the machine gave
using oxbench::Seconds;

double gLastCpu = 0;

double RunFilter(const TImageFilterParameters& p, const std::vector<float>& in, std::vector<float>& out,
                 int n, int threads) {
  const auto start = TClock::now();
  const double cpu = ProcessCpuSeconds();
  TImageFilter filter(p, {in.data(), nullptr, n, n}, {out.data(), nullptr, n, n});
  for (int pass = 0; pass < filter.NumberOfPasses(); ++pass) {
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
      pool.emplace_back([&, t] { filter.CalculateLines(pass, t * n / threads, (t + 1) * n / threads - 1); });
    for (auto& th : pool) th.join();
  }
  filter.FinishImage();
  gLastCpu = ProcessCpuSeconds() - cpu;
  return Seconds(start, TClock::now());
}

void Report(const char* name, double wall) {
  std::printf("%-30s %8.4f s wall, %8.4f s CPU (all threads)\n", name, wall, gLastCpu);
}

} // namespace

int main(int argc, char** argv) {
  const int n = argc > 1 ? std::atoi(argv[1]) : 2048;
  const int threads = argc > 2 ? std::atoi(argv[2]) : 2;
  const int an = argc > 3 ? std::atoi(argv[3]) : 512;
  std::mt19937 g(5);
  std::uniform_real_distribution<float> d(0.0f, 100.0f);
  std::vector<float> in(static_cast<size_t>(n) * n), out(in.size());
  for (float& v : in) v = d(g);

  auto start = TClock::now();
  std::memcpy(out.data(), in.data(), in.size() * sizeof(float));
  std::printf("image %d x %d, %d threads\n", n, n, threads);
  std::printf("memcpy of the image          %8.4f s\n", Seconds(start, TClock::now()));
  TImageFilterParameters p;
  p.Kind = TImageFilterKind::Median;
  p.Size = 1;
  Report("median size 1 (3x3)", RunFilter(p, in, out, n, threads));
  p.Size = 2;
  Report("median size 2 (5x5)", RunFilter(p, in, out, n, threads));
  p.Kind = TImageFilterKind::Average;
  p.Size = 8;
  Report("average size 8 (17 taps)", RunFilter(p, in, out, n, threads));

  std::vector<float> small(static_cast<size_t>(an) * an);
  for (float& v : small) v = d(g);
  TAnisotropicImageSmoothing smoothing;
  smoothing.CreateArrays(an, an);
  smoothing.SetParameter(0.1f, 1.5f, 5.0f, 1.0f, 1);
  smoothing.SetImageData(small.data());
  TMCC mcc("bench anisotropic", nullptr, threads);
  mcc.MCCInit(
      [&](TMCC* m, int t) {
        // The controller as the kernel's team: its threads, its barrier, its cancel.
        TThreadTeam team;
        team.NumberOfThreads = m->GetNumberOfThreads();
        team.WaitForNextStep = [m](int thread) { m->WaitForNextStep(thread); };
        team.Progress = m;
        smoothing.Calculate(team, t);
      },
      nullptr, 0);
  start = TClock::now();
  const double cpu = ProcessCpuSeconds();
  mcc.StartThreadsWait(0);
  const double wall = Seconds(start, TClock::now());
  gLastCpu = ProcessCpuSeconds() - cpu;
  const std::string name = "anisotropic " + std::to_string(an) + "^2, 1 iteration";
  Report(name.c_str(), wall);
  return 0;
}
