// Fits per second of one Lorentzian on a linear background over noisy 1024-point spectra, over the whole
// spectrum and over 100 points around the band, with the block model and with the per-point model, on one
// thread and on all threads of a calculation controller (one minimizer per thread).
#include "Benchsupport.h"
#include "common/numerics/Chisqrminimizer.h"
#include "common/numerics/Fitfunctions.h"
#include "common/threads/Multicorecalc.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <numbers>
#include <random>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr int kPoints = 1024;
constexpr int kSpectra = 512;
constexpr int kRange = 100;
constexpr int kRoundsPerRun = 4; // one controller run fits every spectrum this often

// y = a + b x + 2A/pi w / (4 (x-x0)^2 + w^2); parameters a, b, x0, w, A. One division serves value and
// derivatives.
[[gnu::always_inline]] inline void LorentzLinearPoint(double x, const double* p, double& y, double& d0,
                                                      double& d1, double& d2, double& d3, double& d4) {
  const double dx = x - p[2], w = p[3];
  const double r = 1.0 / (4.0 * dx * dx + w * w);
  const double c = 2.0 / std::numbers::pi * p[4];
  const double peak = c * w * r;
  y = p[0] + p[1] * x + peak;
  d0 = 1.0;
  d1 = x;
  d2 = 8.0 * peak * dx * r;
  d3 = c * (4.0 * dx * dx - w * w) * r * r;
  d4 = 2.0 / std::numbers::pi * w * r;
}

void LorentzLinearModel(double x, const double* p, double& y, double* d, int, TChiSqrMinimizer*) {
  LorentzLinearPoint(x, p, y, d[0], d[1], d[2], d[3], d[4]);
}

OX_SIMD_CLONES
void LorentzLinearBlock(const double* __restrict x, const double* __restrict p, double* __restrict y,
                        double* __restrict d, int, TChiSqrMinimizer*) {
  constexpr int b = kCSMBlockSize;
  for (int i = 0; i < b; ++i)
    LorentzLinearPoint(x[i], p, y[i], d[i], d[b + i], d[2 * b + i], d[3 * b + i], d[4 * b + i]);
}

void LorentzLinearEstimator(const double* x, const double* y, double*, double*, int, const bool*, double* p,
                            int n, TChiSqrMinimizer*) {
  const TPeakEstimate e = EstimatePeak(x, y, n);
  const double slope = (y[n - 1] - y[0]) / (x[n - 1] - x[0]);
  p[0] = y[0] - slope * x[0];
  p[1] = slope;
  p[2] = e.Center;
  p[3] = std::max(e.Width, 1e-10);
  p[4] = std::numbers::pi * p[3] / 2.0 * (e.Upward ? std::max(e.Height, 1.0) : std::min(e.Height, -1.0));
}

struct TSpectra {
  std::vector<double> X;
  std::vector<std::vector<double>> Y;
  std::vector<int> Band; // index of the true center
};

TSpectra MakeSpectra() {
  TSpectra s;
  std::mt19937 gen(12345);
  std::normal_distribution<double> noise(0.0, 2.0);
  std::uniform_real_distribution<double> center(300.0, 700.0), width(6.0, 14.0), area(2000.0, 6000.0);
  s.X.resize(kPoints);
  for (int i = 0; i < kPoints; ++i) s.X[i] = i;
  for (int k = 0; k < kSpectra; ++k) {
    const double x0 = center(gen), w = width(gen), a = area(gen), off = 50.0 + k % 7, slope = 0.01 * (k % 5);
    std::vector<double> y(kPoints);
    for (int i = 0; i < kPoints; ++i) {
      const double dx = s.X[i] - x0;
      y[i] = off + slope * s.X[i] + 2.0 * a / std::numbers::pi * w / (4 * dx * dx + w * w) + noise(gen);
    }
    s.Y.push_back(std::move(y));
    s.Band.push_back(static_cast<int>(std::lround(x0)));
  }
  return s;
}

std::unique_ptr<TChiSqrMinimizer> MakeMinimizer(bool block) {
  auto csm = std::make_unique<TChiSqrMinimizer>(5);
  csm->SetModelFunction(LorentzLinearModel);
  if (block) csm->SetBlockModelFunction(LorentzLinearBlock);
  csm->SetEstimatorFunction(LorentzLinearEstimator);
  return csm;
}

// Estimates and fits spectrum idx (whole or the range around its band); true when the fit ended with code 0.
bool FitOne(TChiSqrMinimizer& csm, const TSpectra& s, int idx, bool range) {
  int from = 0, n = kPoints;
  if (range) {
    from = std::clamp(s.Band[idx] - kRange / 2, 0, kPoints - kRange);
    n = kRange;
  }
  const double* x = s.X.data() + from;
  const double* y = s.Y[idx].data() + from;
  csm.EstimateParameters(x, y, n);
  csm.LevenbergMarquardtMinimize(x, y, nullptr, n);
  return csm.GetErrorCode() == 0;
}

double CpuSeconds() {
  return oxbench::ProcessCpuSeconds();
}

// Runs the controller over kSpectra * kRoundsPerRun fits until at least a second has passed.
void Run(const TSpectra& s, bool range, bool block, int threads) {
  std::vector<std::unique_ptr<TChiSqrMinimizer>> minimizers;
  for (int t = 0; t < threads; ++t) minimizers.push_back(MakeMinimizer(block));
  std::vector<long> failed(threads, 0);
  const int elements = kSpectra * kRoundsPerRun;
  TMCC mcc(
      "bench_fit",
      [&](TMCC* m, int t) {
        const int first = TMCC::GetFirstElementIndex(t, m->GetNumberOfThreads(), elements);
        const int last = TMCC::GetLastElementIndex(t, m->GetNumberOfThreads(), elements);
        for (int e = first; e <= last; ++e)
          if (!FitOne(*minimizers[t], s, e % kSpectra, range)) ++failed[t];
      },
      threads);
  mcc.SetThreadPriorityForAllThreads(0);
  mcc.PrepareThreads();
  long fits = 0;
  const double cpu0 = CpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  double elapsed = 0.0;
  do {
    mcc.StartThreadsWait(threads);
    fits += elements;
    elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  } while (elapsed < 1.0);
  const double cpu = CpuSeconds() - cpu0;
  long notConverged = 0;
  for (long f : failed) notConverged += f;
  std::printf("%-22s %-9s threads %d: %9.0f fits/s  %9.0f fits per CPU second  (%ld fits, %ld not "
              "converged)\n",
              range ? "100-point range" : "whole spectrum (1024)", block ? "block" : "per-point",
              mcc.GetNumberOfThreads(), fits / elapsed, fits / cpu, fits, notConverged);
}

// Largest relative difference of the parameters between the block and the per-point path over some spectra.
double PathDifference(const TSpectra& s) {
  auto a = MakeMinimizer(true), b = MakeMinimizer(false);
  double worst = 0.0;
  for (int k = 0; k < 64; ++k) {
    FitOne(*a, s, k, false);
    FitOne(*b, s, k, false);
    for (int i = 0; i < 5; ++i) {
      const double pa = a->GetParameter(i), pb = b->GetParameter(i);
      worst = std::max(worst, std::fabs(pa - pb) / std::max(std::fabs(pb), 1e-300));
    }
  }
  return worst;
}

} // namespace

// With the argument "block" only the block path over whole spectra runs (for profiling).
int main(int argc, char** argv) {
  const bool blockOnly = argc > 1 && std::string_view(argv[1]) == "block";
  const TSpectra s = MakeSpectra();
  const int all = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  // Accuracy check on one spectrum so that the figures belong to real fits.
  {
    auto csm = MakeMinimizer(true);
    FitOne(*csm, s, 0, false);
    std::printf("spectrum 0: center %.3f (true band near %d), width %.3f, iterations %d, status %d\n",
                csm->GetParameter(2), s.Band[0], csm->GetParameter(3), csm->GetIterations(),
                csm->GetErrorCode());
    std::printf("block against per-point path, largest relative parameter difference: %.3g\n",
                PathDifference(s));
  }
  for (bool range : {false, true})
    for (bool block : {true, false}) {
      if (blockOnly && (!block || range)) continue;
      Run(s, range, block, 1);
      if (all > 1) Run(s, range, block, all);
    }
  return 0;
}
