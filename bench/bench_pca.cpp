// Principal component analysis kernels: the machine's multiply-add rate, the covariance of a large stack by
// the blocked rank-k update, and the eigen-decomposition of the resulting matrix.
//
// bench_pca [N [M [threads [plain]]]]   defaults: 65536 spectra of 1024 points on all processors, vector
// units when the processor has them; "plain" runs the portable loops instead.
#include "Benchsupport.h"
#include "common/numerics/Eigensystem.h"
#include "common/numerics/Rankupdate.h"
#include "common/numerics/Vectorunits.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <thread>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define OX_BENCH_X86 1
#endif

namespace {

using TClock = oxbench::Clock;
using oxbench::Seconds;
// Processor time of the whole process (all threads), to set against the wall time on a shared machine.
inline double ProcessSeconds() {
  return oxbench::ProcessCpuSeconds();
}

constexpr long long kRateLoops = 50'000'000;

#ifdef OX_BENCH_X86
// Twelve independent accumulators, named one by one so that they live in registers, cover the latency of
// the two multiply-add units; the loop touches no memory.
__attribute__((target("avx2,fma"))) double DoubleFmaLoop(long long loops) {
  const __m256d a = _mm256_set1_pd(0.999999999), b = _mm256_set1_pd(1e-10);
  __m256d x0 = _mm256_set1_pd(1.0), x1 = _mm256_set1_pd(1.1), x2 = _mm256_set1_pd(1.2),
          x3 = _mm256_set1_pd(1.3), x4 = _mm256_set1_pd(1.4), x5 = _mm256_set1_pd(1.5),
          x6 = _mm256_set1_pd(1.6), x7 = _mm256_set1_pd(1.7), x8 = _mm256_set1_pd(1.8),
          x9 = _mm256_set1_pd(1.9), x10 = _mm256_set1_pd(2.0), x11 = _mm256_set1_pd(2.1);
  for (long long n = 0; n < loops; ++n) {
    x0 = _mm256_fmadd_pd(x0, a, b);
    x1 = _mm256_fmadd_pd(x1, a, b);
    x2 = _mm256_fmadd_pd(x2, a, b);
    x3 = _mm256_fmadd_pd(x3, a, b);
    x4 = _mm256_fmadd_pd(x4, a, b);
    x5 = _mm256_fmadd_pd(x5, a, b);
    x6 = _mm256_fmadd_pd(x6, a, b);
    x7 = _mm256_fmadd_pd(x7, a, b);
    x8 = _mm256_fmadd_pd(x8, a, b);
    x9 = _mm256_fmadd_pd(x9, a, b);
    x10 = _mm256_fmadd_pd(x10, a, b);
    x11 = _mm256_fmadd_pd(x11, a, b);
  }
  __m256d s = _mm256_add_pd(_mm256_add_pd(_mm256_add_pd(x0, x1), _mm256_add_pd(x2, x3)),
                            _mm256_add_pd(_mm256_add_pd(x4, x5), _mm256_add_pd(x6, x7)));
  s = _mm256_add_pd(s, _mm256_add_pd(_mm256_add_pd(x8, x9), _mm256_add_pd(x10, x11)));
  alignas(32) double out[4];
  _mm256_store_pd(out, s);
  return out[0] + out[1] + out[2] + out[3];
}
constexpr double kFmaPerLoop = 12.0 * 4.0;
#else
double DoubleFmaLoop(long long loops) {
  double acc[12];
  for (int i = 0; i < 12; ++i) acc[i] = 1.0 + i * 1e-9;
  for (long long n = 0; n < loops; ++n)
    for (int i = 0; i < 12; ++i) acc[i] = acc[i] * 0.999999999 + 1e-10;
  double s = 0;
  for (double x : acc) s += x;
  return s;
}
constexpr double kFmaPerLoop = 12.0;
#endif

// Double multiply-adds per second of all threads together, by the wall clock and per second of processor
// time (on a shared machine the second shows what the processor does while it runs this process).
struct TRate {
  double Wall;
  double PerProcessorSecond;
};

TRate MeasureDoubleFmaRate(int threads) {
  std::vector<double> sink(threads);
  std::vector<std::thread> pool;
  const double cpu0 = ProcessSeconds();
  const auto start = TClock::now();
  for (int t = 0; t < threads; ++t) pool.emplace_back([t, &sink]() { sink[t] = DoubleFmaLoop(kRateLoops); });
  for (std::thread& t : pool) t.join();
  const double secs = Seconds(start), cpu = ProcessSeconds() - cpu0;
  double s = 0;
  for (double x : sink) s += x;
  if (s == 12345.678) std::printf(" "); // keeps the loops alive
  const double fma = kFmaPerLoop * kRateLoops * threads;
  return {fma / secs, fma / cpu};
}

} // namespace

int main(int argc, char** argv) {
  const int n = argc > 1 ? std::atoi(argv[1]) : 65536;
  const int m = argc > 2 ? std::atoi(argv[2]) : 1024;
  const int threads =
      argc > 3 ? std::atoi(argv[3]) : std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  const TKernelPath path =
      argc > 4 && std::string(argv[4]) == "plain" ? TKernelPath::Plain : TKernelPath::Auto;
  const int blockLength = 2000;
  std::printf("PCA kernels: N=%d spectra x M=%d points, %d threads, vector units %s, kernels %s\n", n, m,
              threads, HasVectorFMA() ? "AVX2+FMA" : "none", UseVectorPath(path) ? "vector" : "plain");

  const TRate rates = MeasureDoubleFmaRate(threads);
  const double rate = rates.Wall;
  std::printf(
      "double FMA rate (register-only loop, %d threads): %.1f GFMA/s (%.1f GFMA per processor-second)\n",
      threads, rate * 1e-9, rates.PerProcessorSecond * 1e-9);

  // A stack with some structure: a few broad components plus noise, as float like the data fields.
  std::vector<float> stack(static_cast<std::size_t>(n) * m);
  {
    std::mt19937 gen(1);
    std::normal_distribution<float> noise(0.0f, 0.05f);
    std::uniform_real_distribution<float> amp(0.0f, 1.0f);
    for (int s = 0; s < n; ++s) {
      const float a1 = amp(gen), a2 = amp(gen), a3 = amp(gen);
      float* x = stack.data() + static_cast<std::size_t>(s) * m;
      for (int i = 0; i < m; ++i) {
        const float t = static_cast<float>(i) / m;
        x[i] = 1.0f + a1 * std::exp(-50.0f * (t - 0.3f) * (t - 0.3f)) +
               a2 * std::exp(-80.0f * (t - 0.6f) * (t - 0.6f)) + a3 * t + noise(gen);
      }
    }
  }

  auto start = TClock::now();
  double readSum = 0;
  for (float x : stack) readSum += x;
  const double readTime = Seconds(start);
  std::printf("one read pass over the stack (%.0f MB): %.3f s (sum %.6g)\n", stack.size() * 4.0 / 1e6,
              readTime, readSum);

  start = TClock::now();
  std::vector<double> average(m, 0.0);
  for (int s = 0; s < n; ++s) {
    const float* x = stack.data() + static_cast<std::size_t>(s) * m;
    for (int i = 0; i < m; ++i) average[i] += x[i];
  }
  for (double& a : average) a /= n;
  const double averageTime = Seconds(start);
  std::printf("average (one thread): %.3f s = %.2f x one read\n", averageTime, averageTime / readTime);

  std::vector<double> c(static_cast<std::size_t>(m) * m, 0.0);
  TSymmetricRankUpdate update(m, blockLength, path);
  double loadTime = 0, tileTime = 0, loadCpu = 0, tileCpu = 0;
  double cpuStart = ProcessSeconds();
  start = TClock::now();
  for (int s0 = 0; s0 < n; s0 += blockLength) {
    const int k = std::min(blockLength, n - s0);
    const auto t0 = TClock::now();
    const double c0 = ProcessSeconds();
    update.SetBlockLength(k);
    // Each thread centres and loads its share of the block, as the workers of a calculation would.
    std::vector<std::thread> loaders;
    for (int t = 0; t < threads; ++t)
      loaders.emplace_back([&, t]() {
        std::vector<double> centred(m);
        for (int s = k * t / threads; s < k * (t + 1) / threads; ++s) {
          const float* x = stack.data() + static_cast<std::size_t>(s0 + s) * m;
          for (int i = 0; i < m; ++i) centred[i] = x[i] - average[i];
          update.LoadSpectrum(s, centred.data());
        }
      });
    for (std::thread& t : loaders) t.join();
    const auto t1 = TClock::now();
    const double c1 = ProcessSeconds();
    update.UpdateAllTiles(c.data(), m, threads);
    loadCpu += c1 - c0;
    tileCpu += ProcessSeconds() - c1;
    loadTime += std::chrono::duration<double>(t1 - t0).count();
    tileTime += Seconds(t1);
  }
  for (double& x : c) x /= n;
  TSymmetricRankUpdate::MirrorLowerToUpper(c.data(), m, m);
  const double covTime = Seconds(start);
  const double covCpu = ProcessSeconds() - cpuStart;
  const double floorFma = static_cast<double>(n) * m * (m + 1) / 2.0;
  const double floorTime = floorFma / rate;
  std::printf(
      "covariance: %.3f s (loading blocks %.3f s, tiles %.3f s; processor time %.3f s and %.3f s); floor "
      "N*M(M+1)/2 = %.3g FMA at the "
      "double rate = %.3f s; ratio %.2f; by processor time %.3f s against %.3f s, ratio %.2f; products in "
      "single precision (%s), partial sums of <= %d spectra into double\n",
      covTime, loadTime, tileTime, loadCpu, tileCpu, floorFma, floorTime, covTime / floorTime, covCpu,
      floorFma / rates.PerProcessorSecond, covCpu / (floorFma / rates.PerProcessorSecond),
      update.UsesVectorPath() ? "vector" : "plain", TSymmetricRankUpdate::MaxSpectraPerPartialSum);

  // Eigen-decomposition of the covariance; the progress hook stamps the stage boundaries.
  std::vector<double> a = c, d(m);
  double reductionEnd = 0, accumulationEnd = 0;
  cpuStart = ProcessSeconds();
  const auto eigenStart = TClock::now();
  TEigenHooks hooks;
  hooks.ParallelFor = MakeThreadParallelFor(threads);
  hooks.Path = path;
  hooks.Progress = [&](long long done, long long) {
    if (done == 2LL * (m - 1) && reductionEnd == 0) reductionEnd = Seconds(eigenStart);
    if (done == 3LL * m && accumulationEnd == 0) accumulationEnd = Seconds(eigenStart);
  };
  const TEigenStatus status = SymmetricEigensystem(a.data(), m, m, d.data(), hooks);
  const double eigenTime = Seconds(eigenStart);
  const double eigenCpu = ProcessSeconds() - cpuStart;
  std::printf("reduction %.3f s, accumulation %.3f s, QL + sort + transpose %.3f s; reduction + QL %.3f s "
              "(%.3f s processor time; %.2f x the covariance floor by wall clock) (status %d)\n",
              reductionEnd, accumulationEnd - reductionEnd, eigenTime - accumulationEnd, eigenTime, eigenCpu,
              eigenTime / floorTime, static_cast<int>(status));
  const TRate after = MeasureDoubleFmaRate(threads);
  std::printf(
      "double FMA rate again at the end: %.1f GFMA/s (%.1f per processor-second); the figures above are "
      "only as steady as these two\n",
      after.Wall * 1e-9, after.PerProcessorSecond * 1e-9);

  // Accuracy of the largest pairs: |C v - lambda v| / |C|.
  double worst = 0;
  for (int k = m - 1; k >= std::max(0, m - 10); --k) {
    double r2 = 0;
    for (int i = 0; i < m; ++i) {
      double s = -d[k] * a[static_cast<std::size_t>(i) * m + k];
      for (int j = 0; j < m; ++j)
        s += c[static_cast<std::size_t>(i) * m + j] * a[static_cast<std::size_t>(j) * m + k];
      r2 += s * s;
    }
    worst = std::max(worst, std::sqrt(r2) / std::fabs(d[m - 1]));
  }
  std::printf("largest eigenvalues %.6g %.6g %.6g; worst relative residual of the ten largest %.2g\n",
              d[m - 1], d[m - 2], d[m - 3], worst);
  return status == TEigenStatus::Ok ? 0 : 1;
}
