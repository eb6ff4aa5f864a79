// Multi-core calculation benchmark: speed-up of a compute-bound kernel over 1 and 2 threads, the cost
// of one start/stop cycle of a prepared pool, and the processor time idle pool threads use.
#include "Benchsupport.h"
#include "common/threads/Multicorecalc.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>
#include <vector>

namespace {

using oxbench::Clock;

struct TKernelData {
  int Elements = 0;
  int InnerSteps = 0;
  std::vector<double> Result;
};

// A compute-bound kernel: a few hundred floating-point operations per element, no shared writes.
void Kernel(TMCC* mcc, int threadIndex) {
  auto* data = static_cast<TKernelData*>(mcc->GetUserData());
  const int first = TMCC::GetFirstElementIndex(threadIndex, mcc->GetNumberOfThreads(), data->Elements);
  const int last = TMCC::GetLastElementIndex(threadIndex, mcc->GetNumberOfThreads(), data->Elements);
  for (int e = first; e <= last; ++e) {
    double x = 1.0 + e * 1e-6;
    for (int k = 0; k < data->InnerSteps; ++k) x = std::sqrt(x * 1.0000001 + 0.5) + std::sin(x) * 1e-3;
    data->Result[e] = x;
  }
}

double RunKernel(int threads, TKernelData& data, int priority) {
  TMCC mcc("bench kernel");
  mcc.SetThreadPriorityForAllThreads(priority);
  mcc.MCCInit(&Kernel, &data, 0);
  mcc.PrepareThreads();
  double best = 1e9;
  for (int repeat = 0; repeat < 3; ++repeat) {
    const auto start = Clock::now();
    mcc.StartThreads(threads);
    mcc.WaitForThreads(kWaitInfinite);
    best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
  }
  return best;
}

using oxbench::ProcessCpuSeconds;

} // namespace

int main() {
  const int processors = TMCC("probe").GetNumberOfPossibleCPUs();
  std::printf("processors available to the process: %d\n", processors);

  TKernelData data;
  data.Elements = 200'000;
  data.InnerSteps = 200;
  data.Result.assign(data.Elements, 0.0);
  double load[3] = {0, 0, 0};
  if (getloadavg(load, 3) > 0)
    std::printf("load average: %.2f (calculation threads run below normal priority and yield to other "
                "processes)\n",
                load[0]);
  // Normal priority first: the pool threads can only lower their priority, not raise it again.
  for (int priority : {0, TMCC::DefaultMCCThreadPriority}) {
    const double one = RunKernel(1, data, priority);
    const std::vector<double> reference = data.Result;
    const double two = RunKernel(2, data, priority);
    const bool same = reference == data.Result;
    std::printf("kernel %d elements x %d steps, thread priority %d: 1 thread %.3f s, 2 threads %.3f s, "
                "speed-up %.2f (target >= 1.8 on 2 idle cores)%s\n",
                data.Elements, data.InnerSteps, priority, one, two, one / two,
                same ? "" : "  RESULTS DIFFER");
  }

  // Start/stop cycle of a prepared pool with an empty thread function.
  {
    TMCC mcc("bench cycle");
    mcc.MCCInit([](TMCC*, int) {}, nullptr, 0);
    mcc.PrepareThreads();
    for (int i = 0; i < 100; ++i) { // warm-up: threads created, settings applied
      mcc.StartThreads(0);
      mcc.WaitForThreads(kWaitInfinite);
    }
    constexpr int kCycles = 20'000;
    const auto start = Clock::now();
    for (int i = 0; i < kCycles; ++i) {
      mcc.StartThreads(0);
      mcc.WaitForThreads(kWaitInfinite);
    }
    const double perCycle = std::chrono::duration<double, std::micro>(Clock::now() - start).count() / kCycles;
    std::printf("start/stop cycle of a prepared pool (%d threads): %.1f us (target well under 100 us)\n",
                mcc.GetNumberOfThreads(), perCycle);

    // A barrier step of all threads.
    constexpr int kSteps = 20'000;
    mcc.MCCInit(
        [](TMCC* m, int t) {
          for (int s = 0; s < kSteps; ++s) m->WaitForNextStep(t);
        },
        nullptr, 0);
    const auto barrierStart = Clock::now();
    mcc.StartThreads(0);
    mcc.WaitForThreads(kWaitInfinite);
    std::printf("barrier step of %d threads: %.2f us\n", mcc.GetNumberOfThreads(),
                std::chrono::duration<double, std::micro>(Clock::now() - barrierStart).count() / kSteps);

    // Idle pool threads block: the process uses (almost) no processor time while they wait.
    const double cpuBefore = ProcessCpuSeconds();
    const auto wallBefore = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const double cpu = ProcessCpuSeconds() - cpuBefore;
    const double wall = std::chrono::duration<double>(Clock::now() - wallBefore).count();
    std::printf("idle pool of %d threads: process CPU time %.4f s over %.2f s wall\n",
                mcc.GetThreadPool().GetNumberOfThreads(), cpu, wall);
  }
  return 0;
}
