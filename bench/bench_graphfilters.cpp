// Spectrum filters over a whole stack in memory: Savitzky-Golay 11 points order 3 (smoothing and first
// derivative, mirrored ends) and the spectral median of size 2, each printed beside a floor measured in the
// same run: copying the stack with memcpy. Threads take contiguous blocks of spectra, each writing its own
// part of the result; the kernel is made once and shared, each thread has its own median filter.
//   bench_graphfilters [SIZEX SIZEY N]      default 256 256 1024 (float32, 256 MiB in and out)
#include "Benchsupport.h"
#include "common/numerics/Golayfilter.h"
#include "common/numerics/Spectrumfilters.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

namespace {

struct TTimes {
  double Wall, Cpu;
};

// Runs body(first, last) on threads blocks of [0, count); returns the wall-clock seconds and the processor
// seconds of all threads (on a shared machine the latter show what the code costs).
TTimes Run(size_t count, int threads, const std::function<void(size_t, size_t)>& body) {
  const double cpu = oxbench::ProcessCpuSeconds();
  const auto start = oxbench::Clock::now();
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) pool.emplace_back(body, count * t / threads, count * (t + 1) / threads);
  for (std::thread& th : pool) th.join();
  return {oxbench::Seconds(start), oxbench::ProcessCpuSeconds() - cpu};
}

} // namespace

int main(int argc, char** argv) {
  int sizeX = 256, sizeY = 256, n = 1024;
  if (argc == 4) {
    sizeX = std::atoi(argv[1]);
    sizeY = std::atoi(argv[2]);
    n = std::atoi(argv[3]);
  }
  if (sizeX < 1 || sizeY < 1 || n < 12) {
    std::fprintf(stderr, "usage: bench_graphfilters [SIZEX SIZEY N]   (N at least 12)\n");
    return 2;
  }
  const size_t spectra = static_cast<size_t>(sizeX) * sizeY, values = spectra * n;
  std::vector<float> stack(values), out(values);
  // Two bands on a sloped baseline with a cheap pseudo-random noise; every page of both arrays is touched
  // before anything is timed.
  uint32_t state = 12345;
  for (size_t e = 0; e < spectra; ++e) {
    float* y = stack.data() + e * n;
    const double c = 200 + static_cast<double>(e % 500);
    for (int i = 0; i < n; ++i) {
      state = state * 1664525u + 1013904223u;
      y[i] = static_cast<float>(100 + 0.05 * i + 50 / (1 + (i - c) * (i - c) / 16.0) +
                                4.0 * ((state >> 8) * (1.0 / 16777216.0) - 0.5));
    }
  }
  std::memset(out.data(), 0, values * sizeof(float));

  std::printf("stack %d x %d x %d float32 (%.0f MiB)\n", sizeX, sizeY, n, values * 4.0 / (1 << 20));
  const TGolayFilter smooth(5, 5, 0, 3), derivative(5, 5, 1, 3);
  for (int threads : {1, 2}) {
    const TTimes floor = Run(spectra, threads, [&](size_t a, size_t b) {
      std::memcpy(out.data() + a * n, stack.data() + a * n, (b - a) * n * sizeof(float));
    });
    std::printf("threads %d: floor (memcpy) wall %.4f s, processor %.4f s\n", threads, floor.Wall, floor.Cpu);
    auto report = [&](const char* name, TTimes t) {
      std::printf("  %-38s wall %.4f s (%5.2f x floor)  processor %.4f s (%5.2f x floor)  %8.0f spectra/s\n",
                  name, t.Wall, t.Wall / floor.Wall, t.Cpu, t.Cpu / floor.Cpu, spectra / t.Wall);
    };
    report("Savitzky-Golay 11/3 smoothing", Run(spectra, threads, [&](size_t a, size_t b) {
             for (size_t e = a; e < b; ++e)
               smooth.FaltungWithMirrorPeriodicInterval(stack.data() + e * n, out.data() + e * n, n);
           }));
    report("Savitzky-Golay 11/3 first derivative", Run(spectra, threads, [&](size_t a, size_t b) {
             for (size_t e = a; e < b; ++e)
               derivative.FaltungWithMirrorPeriodicInterval(stack.data() + e * n, out.data() + e * n, n);
           }));
    report("median, spectral size 2", Run(spectra, threads, [&](size_t a, size_t b) {
             TSpectrumNeighbourhoodFilter median(TNeighbourhoodFilterKind::Median, n, 2, 0);
             for (size_t e = a; e < b; ++e) median.FilterSpectral(stack.data() + e * n, out.data() + e * n);
           }));
  }
  return 0;
}
