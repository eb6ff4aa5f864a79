// Background kernels and the peak search: spectra per second of 1024 points on 1 and 2 threads over a
// synthetic in-memory set (polynomial baseline, a Lorentzian and a Gaussian band, noise), beside a floor:
// copying every spectrum once. Threads take contiguous blocks, each with its own scratch or search object;
// the polynomial fit is prepared once and shared. The automatic polynomial reports its mean number of fits.
//   bench_background [SPECTRA [THREADS]]      default 16384 spectra, threads 1 and 2
#include "common/numerics/Backgroundsubtraction.h"
#include "common/numerics/Peakfind.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

using TClock = std::chrono::steady_clock;
constexpr int kPoints = 1024;

std::vector<float> MakeSpectra(int count) {
  std::vector<float> data(static_cast<size_t>(count) * kPoints);
  std::mt19937 g(17);
  std::normal_distribution<double> noise(0.0, 1.0);
  std::uniform_real_distribution<double> centre(100, 900);
  for (int s = 0; s < count; ++s) {
    const double c1 = centre(g), c2 = centre(g);
    float* y = data.data() + static_cast<size_t>(s) * kPoints;
    for (int i = 0; i < kPoints; ++i) {
      const double t = i / double(kPoints - 1);
      y[i] = static_cast<float>(200 + 50 * t - 80 * t * t + 30 * t * t * t +
                                60 / (1 + std::pow((i - c1) / 5, 2)) +
                                40 * std::exp(-0.5 * std::pow((i - c2) / 6, 2)) + 2 * noise(g));
    }
  }
  return data;
}

// Runs body(first, last, thread) on threads blocks of [0, count); returns the wall-clock seconds.
double Run(int count, int threads, const std::function<void(int, int, int)>& body) {
  const auto start = TClock::now();
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    const int first = static_cast<int>(static_cast<long long>(count) * t / threads);
    const int last = static_cast<int>(static_cast<long long>(count) * (t + 1) / threads);
    pool.emplace_back(body, first, last, t);
  }
  for (std::thread& th : pool) th.join();
  return std::chrono::duration<double>(TClock::now() - start).count();
}

} // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 16384;
  std::vector<int> threadCounts = {1, 2};
  if (argc > 2) threadCounts = {std::atoi(argv[2])};
  const std::vector<float> data = MakeSpectra(count);
  std::vector<float> out(data.size());
  auto spectrum = [&](int s) { return data.data() + static_cast<size_t>(s) * kPoints; };
  auto result = [&](int s) { return out.data() + static_cast<size_t>(s) * kPoints; };

  std::unique_ptr<bool[]> all(new bool[kPoints]), half(new bool[kPoints]);
  for (int i = 0; i < kPoints; ++i) {
    all[i] = true;
    half[i] = (i / 64) % 2 == 0;
  }
  TPolynomialBackgroundFit poly3, poly7;
  poly3.Prepare(kPoints, half.get(), 3);
  poly7.Prepare(kPoints, all.get(), 7);
  const std::vector<float> binomial = AverageWeights(5);

  std::printf("%d spectra of %d points\n", count, kPoints);
  for (int threads : threadCounts) {
    const double floor = Run(count, threads, [&](int a, int b, int) {
      for (int s = a; s < b; ++s) std::copy(spectrum(s), spectrum(s) + kPoints, result(s));
    });
    std::printf("threads %d: floor (copy) %.4f s\n", threads, floor);
    auto report = [&](const char* name, double seconds) {
      std::printf("  %-36s %.4f s  %10.0f spectra/s  %6.2f x floor\n", name, seconds, count / seconds,
                  seconds / floor);
    };
    report("constant", Run(count, threads, [&](int a, int b, int) {
             std::vector<float> bg(kPoints);
             for (int s = a; s < b; ++s)
               ConstantBackground(kPoints, spectrum(s), all.get(), all.get(), 10.0, nullptr, bg.data(),
                                  result(s));
           }));
    report("minimum", Run(count, threads, [&](int a, int b, int) {
             std::vector<float> bg(kPoints);
             for (int s = a; s < b; ++s)
               MinimumBackground(kPoints, spectrum(s), half.get(), all.get(), 0.0, bg.data(), result(s));
           }));
    report("polynomial order 3, half mask", Run(count, threads, [&](int a, int b, int) {
             TBackgroundScratch scratch(kPoints);
             std::vector<float> bg(kPoints);
             for (int s = a; s < b; ++s)
               PolynomialBackground(poly3, spectrum(s), all.get(), bg.data(), result(s), scratch);
           }));
    std::vector<long long> fits(threads, 0);
    const double autoPoly = Run(count, threads, [&](int a, int b, int t) {
      TBackgroundScratch scratch(kPoints);
      std::vector<float> bg(kPoints);
      for (int s = a; s < b; ++s) {
        int rounds = 0;
        AutoPolynomialBackground(poly7, spectrum(s), all.get(), TAutoPolynomialSettings{}, bg.data(),
                                 result(s), scratch, &rounds);
        fits[t] += rounds;
      }
    });
    long long totalFits = 0;
    for (long long f : fits) totalFits += f;
    report("auto polynomial order 7", autoPoly);
    std::printf("  %-36s %.1f\n", "  mean fits per spectrum", double(totalFits) / count);
    report("shape, size 100, noise factor 1", Run(count, threads, [&](int a, int b, int) {
             TBackgroundScratch scratch(kPoints);
             std::vector<float> bg(kPoints);
             for (int s = a; s < b; ++s)
               ShapeBackground(kPoints, spectrum(s), all.get(), all.get(), TShapeSettings{}, bg.data(),
                               result(s), scratch);
           }));
    report("average, size 5", Run(count, threads, [&](int a, int b, int) {
             TBackgroundScratch scratch(kPoints);
             std::vector<float> bg(kPoints);
             for (int s = a; s < b; ++s)
               AverageBackground(kPoints, spectrum(s), all.get(), all.get(), binomial.data(), 5, bg.data(),
                                 result(s), scratch);
           }));
    report("auto average, 10 / 100 rounds", Run(count, threads, [&](int a, int b, int) {
             TBackgroundScratch scratch(kPoints);
             std::vector<float> bg(kPoints);
             for (int s = a; s < b; ++s)
               AutoAverageBackground(kPoints, spectrum(s), all.get(), all.get(), TAutoAverageSettings{},
                                     bg.data(), result(s), scratch);
           }));
    std::vector<long long> peaks(threads, 0);
    const double peakSeconds = Run(count, threads, [&](int a, int b, int t) {
      TPeakFindControlStruct control;
      control.UseMinRelativePeakValueLimit = true;
      control.MinRelativePeakValueLimit = 16;
      TPeakFindCalculate pf;
      pf.Prepare(&control, kPoints, nullptr, nullptr);
      for (int s = a; s < b; ++s) {
        pf.FindPeaks(spectrum(s));
        peaks[t] += static_cast<long long>(pf.GetPeakInformationList().size());
      }
    });
    long long totalPeaks = 0;
    for (long long p : peaks) totalPeaks += p;
    report("peak search (defaults)", peakSeconds);
    std::printf("  %-36s %.2f\n", "  mean peaks per spectrum", double(totalPeaks) / count);
  }
  return 0;
}
