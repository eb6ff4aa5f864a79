// Range reductions of the filters on every spectrum of an in-memory stack of 1024-point spectra: the graph
// filter's sum and centre of mass of a 60-point band (read in place, only the pixels the filter needs),
// its width (whole spectrum), and the Gauss filter object fitting the band, on 1 and 2 threads. Printed
// beside two floors measured in the same run: one pass over only the band's bytes, and a memcpy of the
// whole stack, with the ratio to the first.
//   bench_filters [SPECTRA]      default 65536 spectra (256 x 256)
#include "Benchsupport.h"
#include "common/memory/Memorymanagement.h"
#include "common/numerics/Filterreductions.h"
#include "data/Dfilter.h"
#include "data/Dgraph.h"
#include "data/Dtransformation.h"
#include "data/Graphfilter.h"
#include "project/Project.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kPoints = 1024;
constexpr int kBandStart = 480, kBandStop = 539; // 60 pixels
constexpr int kBackground = 4;

std::vector<float> MakeSpectra(int count) {
  std::vector<float> data(static_cast<size_t>(count) * kPoints);
  std::mt19937 g(5);
  std::normal_distribution<double> noise(0.0, 1.0);
  for (int s = 0; s < count; ++s) {
    const double c = 505 + 10 * std::sin(s * 0.01);
    float* y = data.data() + static_cast<size_t>(s) * kPoints;
    for (int i = 0; i < kPoints; ++i)
      y[i] =
          static_cast<float>(300 + 0.1 * i + 500 * std::exp(-0.5 * std::pow((i - c) / 4, 2)) + 2 * noise(g));
  }
  return data;
}

// Runs body(first, last) on threads blocks of [0, count); returns the wall-clock seconds.
double Run(int count, int threads, const std::function<void(int, int)>& body) {
  const auto start = oxbench::Clock::now();
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    const int first = static_cast<int>(static_cast<long long>(count) * t / threads);
    const int last = static_cast<int>(static_cast<long long>(count) * (t + 1) / threads);
    pool.emplace_back(body, first, last);
  }
  for (std::thread& th : pool) th.join();
  return oxbench::Seconds(start);
}

// The best of three runs.
double Best(int count, int threads, const std::function<void(int, int)>& body) {
  double best = 1e300;
  for (int k = 0; k < 3; ++k) best = std::min(best, Run(count, threads, body));
  return best;
}

volatile double gSink;

} // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 65536;
  if (count < 1) {
    std::fprintf(stderr, "usage: bench_filters [SPECTRA]\n");
    return 2;
  }
  const std::vector<float> stack = MakeSpectra(count);
  std::vector<float> copy(stack.size());
  // A graph of one spectrum carries the axis the graph filters read: a falling table, as rel. 1/cm runs.
  TMemoryManagement::CreateMemoryStrategy();
  TProject project;
  std::vector<double> x(kPoints);
  for (int i = 0; i < kPoints; ++i) x[i] = 1800 - 1.7 * i;
  auto lut = std::make_unique<TDLUTTransformation>();
  lut->SetID(project.GetNewDataID());
  lut->SetLUT(x.data(), kPoints);
  const int32_t lutID = lut->GetID();
  project.AddData(std::move(lut));
  auto graph = std::make_unique<TDGraph>();
  graph->SetID(project.GetNewDataID());
  graph->SetFieldSize(1, 1, TDataFieldKind::Float, kPoints);
  graph->SetXTransformationID(lutID);
  TDGraph* input = graph.get();
  project.AddData(std::move(graph));
  std::vector<double> results(static_cast<size_t>(count));

  // The pixels a graph filter reads for the band: the range and the background pixels beside it.
  int32_t first = 0, needed = 0;
  GetPixelRangeNeeded(x.data(), kPoints, kBandStart, kBandStop, kBackground, kBackground, first, needed);

  std::printf("bench_filters: %d spectra of %d points, band of %d pixels (%d read with background)\n", count,
              kPoints, kBandStop - kBandStart + 1, needed);
  std::printf("%-44s %8s %12s %10s %8s\n", "", "threads", "spectra/s", "s", "x band");
  for (int threads : {1, 2}) {
    const double band = Best(count, threads, [&](int a, int b) {
      for (int s = a; s < b; ++s) {
        const float* y = stack.data() + static_cast<size_t>(s) * kPoints + first;
        double sum = 0;
        for (int i = 0; i < needed; ++i) sum += y[i];
        results[static_cast<size_t>(s)] = sum;
      }
    });
    const double copyTime = Best(count, threads, [&](int a, int b) {
      std::memcpy(copy.data() + static_cast<size_t>(a) * kPoints,
                  stack.data() + static_cast<size_t>(a) * kPoints,
                  sizeof(float) * static_cast<size_t>(b - a) * kPoints);
    });
    auto line = [&](const char* name, double seconds) {
      std::printf("%-44s %8d %12.0f %10.4f %8.2f\n", name, threads, count / seconds, seconds, seconds / band);
    };
    line("floor: read of the band's bytes", band);
    line("floor: memcpy of the stack", copyTime);
    for (int32_t kind : {gfkSum, gfkPosition, gfkWidth}) {
      TGraphFilter filter(kind);
      filter.SetNewInputGraph(input);
      filter.Info().FilterPosition = 0.5 * (x[kBandStart] + x[kBandStop]);
      filter.Info().FilterWidth = x[kBandStart] - x[kBandStop] + 0.5; // half a step beyond each end
      filter.Info().LowerBGPixels = filter.Info().UpperBGPixels = kBackground;
      if (filter.CopyParamsForThread() != TGraphFilterRangeStatus::Inside ||
          filter.GetNumberOfPixels() != kBandStop - kBandStart + 1) {
        std::fprintf(stderr, "bench_filters: the band's range doesn't select its pixels\n");
        return 1;
      }
      int32_t part = 0, partCount = 0;
      filter.GetPixelRangeNeededByFilter(part, partCount);
      const double seconds = Best(count, threads, [&](int a, int b) {
        // Only the pixels the filter needs are read, in place; the width needs the whole spectrum.
        for (int s = a; s < b; ++s) {
          const float* y = stack.data() + static_cast<size_t>(s) * kPoints;
          results[static_cast<size_t>(s)] =
              kind == gfkWidth ? filter.Calculation(y) : filter.CalculationOfPart(y + part, part, partCount);
        }
      });
      line((std::string("graph filter ") + GetFilterKindCaption(kind)).c_str(), seconds);
    }
    // The Gauss filter object: one prepared clone per thread.
    TDGaussFilter gauss;
    gauss.SetFieldSize(kPoints);
    for (int i = 0; i < kPoints; ++i) gauss.SetXPosition(i, x[static_cast<size_t>(i)]);
    gauss.PrepareCalculation(kBandStart, kBandStop, "CCD cts", "rel. 1/cm");
    const int fitCount = std::min(count, 8192);
    const double fit = Best(fitCount, threads, [&](int a, int b) {
      auto clone = gauss.CloneForCalculation();
      for (int s = a; s < b; ++s) {
        clone->Calculation(stack.data() + static_cast<size_t>(s) * kPoints);
        results[static_cast<size_t>(s)] = clone->GetParameter(1);
      }
    });
    std::printf("%-44s %8d %12.0f %10.4f %8s\n", "Gauss filter object (fit of the band)", threads,
                fitCount / fit, fit, "-");
  }
  gSink = results[static_cast<size_t>(count) / 2];
  return 0;
}
