// Principal component analysis on the demo map: the machine's double multiply-add rate, one read pass over
// the stack, and each stage of Calculate (average, covariance, reduction, QL) and of the extraction of ten
// transformed spectra, set against its floor.
//
// bench_pca [XxYxN [threads]]   defaults: the 256x256x1024 demo map on all processors.
#include "Benchsupport.h"
#include "common/memory/Memorymanagement.h"
#include "common/numerics/Rankupdate.h"
#include "common/numerics/Vectorunits.h"
#include "data/Datafield.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "tools/multivariate/Pcacore.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
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

// One pass over the stack in storage order, a run of 32 spectra at a time, as the analysis reads it.
double ReadPass(const TDGraph& graph, double& sum) {
  TDataField* field = const_cast<TDGraph&>(graph).GetDataField();
  const std::int64_t spectra = graph.GetNumberOfSpectra(), p = graph.GetSizeGraph();
  const int sizeY = graph.GetSizeY();
  std::vector<float> buffer(static_cast<std::size_t>(32 * p));
  sum = 0;
  const auto start = TClock::now();
  for (std::int64_t e = 0; e < spectra; e += 32) {
    const int run = static_cast<int>(std::min<std::int64_t>(32, spectra - e));
    const int32_t index[2] = {static_cast<int32_t>(e / sizeY), static_cast<int32_t>((e % sizeY) * p)};
    field->GetValueArray(index, buffer.data(), run * p);
    for (int i = 0; i < run * p; ++i) sum += buffer[i];
  }
  return Seconds(start);
}

} // namespace

int main(int argc, char** argv) {
  TDemoOptions demo;
  demo.SizeX = demo.SizeY = 256;
  demo.SizeGraph = 1024;
  if (argc > 1 && std::sscanf(argv[1], "%dx%dx%d", &demo.SizeX, &demo.SizeY, &demo.SizeGraph) != 3) {
    std::fprintf(stderr, "usage: bench_pca [XxYxN [threads]]\n");
    return 2;
  }
  const int threads =
      argc > 2 ? std::atoi(argv[2]) : std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();

  const long long n = static_cast<long long>(demo.SizeX) * demo.SizeY;
  const int m = demo.SizeGraph;
  std::printf("PCA on the %dx%dx%d demo map, %d threads, vector units %s; products in single precision, "
              "partial sums of <= %d spectra into double\n",
              demo.SizeX, demo.SizeY, m, threads, HasVectorFMA() ? "AVX2+FMA" : "none",
              TSymmetricRankUpdate::MaxSpectraPerPartialSum);
  const TRate rate = MeasureDoubleFmaRate(threads);
  std::printf(
      "double FMA rate (register-only loop, %d threads): %.1f GFMA/s (%.1f GFMA per processor-second)\n",
      threads, rate.Wall * 1e-9, rate.PerProcessorSecond * 1e-9);

  TProject project;
  const TDemoIDs ids = CreateDemoProject(project, demo);
  const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(ids.Map));
  double sum = 0;
  ReadPass(*graph, sum); // warm
  double cpu = ProcessSeconds();
  const double read = ReadPass(*graph, sum);
  const double readCpu = ProcessSeconds() - cpu;
  std::printf("one read pass over the stack (%.0f MB): %.3f s (%.3f s processor time; sum %.6g)\n",
              n * m * 4.0 / 1e6, read, readCpu, sum);

  TPCACore core;
  cpu = ProcessSeconds();
  auto start = TClock::now();
  const TPCAStatus status = core.Calculate(*graph, {}, nullptr, threads);
  const double whole = Seconds(start), wholeCpu = ProcessSeconds() - cpu;
  if (status != TPCAStatus::Ok) {
    std::fprintf(stderr, "calculation failed: %s\n", core.Error().c_str());
    return 1;
  }
  const double floorFma = static_cast<double>(n) * m * (m + 1) / 2.0;
  // Floors by the wall clock (the rate both threads reached together) and by processor time (the rate of one
  // processor-second): on a shared machine the second pair shows what the code costs.
  const double floorDouble = floorFma / rate.Wall, floorSingle = floorDouble / 2.0;
  const double floorDoubleCpu = floorFma / rate.PerProcessorSecond, floorSingleCpu = floorDoubleCpu / 2.0;
  const TPCACore::TStageTime& av = core.AverageTime;
  const TPCACore::TStageTime& cov = core.CovarianceTime;
  const TPCACore::TStageTime& red = core.ReductionTime;
  const TPCACore::TStageTime& ql = core.QLTime;
  std::printf("Calculate, all %d points: %.3f s (target 1.1 s; %.3f s processor time)\n", m, whole, wholeCpu);
  std::printf("  average     %.3f s = %.2f x one read (target 3 x); processor %.3f s = %.2f x\n", av.Wall,
              av.Wall / read, av.Processor, av.Processor / readCpu);
  std::printf("  covariance  %.3f s (target 0.5 s); floor N M (M+1)/2 = %.3g FMA at the double rate %.3f s, "
              "ratio %.2f; at twice that rate (single precision) %.3f s, ratio %.2f\n",
              cov.Wall, floorFma, floorDouble, cov.Wall / floorDouble, floorSingle, cov.Wall / floorSingle);
  std::printf(
      "              processor %.3f s against %.3f s (double) and %.3f s (single), ratios %.2f and %.2f\n",
      cov.Processor, floorDoubleCpu, floorSingleCpu, cov.Processor / floorDoubleCpu,
      cov.Processor / floorSingleCpu);
  std::printf("  reduction   %.3f s, QL %.3f s: together %.3f s (target 0.5 s) = %.2f x the double floor; "
              "processor %.3f s and %.3f s\n",
              red.Wall, ql.Wall, red.Wall + ql.Wall, (red.Wall + ql.Wall) / floorDouble, red.Processor,
              ql.Processor);

  TPCAExtractOptions options;
  options.PCAResult = false;
  options.TransformedSpectra = true;
  for (int k = 0; k < 10; ++k) options.PCs.push_back(k);
  cpu = ProcessSeconds();
  start = TClock::now();
  const TPCAExtractResult extracted = ExtractPCAResults(project, ids.Map, core, options, nullptr, threads);
  const double extraction = Seconds(start), extractionCpu = ProcessSeconds() - cpu;
  std::printf("extraction of 10 transformed spectra: %.3f s = %.2f x one read (target 3 x; %.3f s processor "
              "time, status %d)\n",
              extraction, extraction / read, extractionCpu, static_cast<int>(extracted.Status));
  std::printf("largest eigenvalues %.6g %.6g %.6g; N = %lld pixels\n", core.EigenValueOfPC(0),
              core.EigenValueOfPC(1), core.EigenValueOfPC(2), static_cast<long long>(core.PixelCount()));
  const TRate after = MeasureDoubleFmaRate(threads);
  std::printf(
      "double FMA rate again at the end: %.1f GFMA/s (%.1f per processor-second); the figures above are "
      "only as steady as these two\n",
      after.Wall * 1e-9, after.PerProcessorSecond * 1e-9);
  return 0;
}
