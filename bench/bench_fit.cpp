// Fits per second of one Lorentzian on a linear background over noisy 1024-point spectra, over the whole
// spectrum and over 100 points around the band, on one thread and on all threads.
#include "common/numerics/Chisqrminimizer.h"
#include "common/numerics/Fitfunctions.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int kPoints = 1024;
constexpr int kSpectra = 512;
constexpr int kRange = 100;

// y = a + b x + 2A/pi w / (4 (x-x0)^2 + w^2); parameters a, b, x0, w, A.
void LorentzLinearModel(double x, const double* p, double& y, double* d, int, TChiSqrMinimizer*) {
  const double dx = x - p[2], w = p[3], a = p[4];
  const double den = 4.0 * dx * dx + w * w;
  const double c = 2.0 / std::numbers::pi * a;
  y = p[0] + p[1] * x + c * w / den;
  d[0] = 1.0;
  d[1] = x;
  d[2] = c * w * 8.0 * dx / (den * den);
  d[3] = c * (4.0 * dx * dx - w * w) / (den * den);
  d[4] = 2.0 / std::numbers::pi * w / den;
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

struct TResult {
  long Fits = 0;
  long Failed = 0;
};

// Fits spectra first, first+step, ... until the deadline; one minimizer for all of them.
TResult Worker(const TSpectra& s, bool range, int first, int step,
               std::chrono::steady_clock::time_point deadline) {
  TChiSqrMinimizer csm(5);
  csm.SetModelFunction(LorentzLinearModel);
  csm.SetEstimatorFunction(LorentzLinearEstimator);
  TResult r;
  for (int k = first;; k += step) {
    if ((r.Fits & 15) == 0 && std::chrono::steady_clock::now() >= deadline) break;
    const int idx = k % kSpectra;
    int from = 0, n = kPoints;
    if (range) {
      from = std::clamp(s.Band[idx] - kRange / 2, 0, kPoints - kRange);
      n = kRange;
    }
    const double* x = s.X.data() + from;
    const double* y = s.Y[idx].data() + from;
    csm.EstimateParameters(x, y, n);
    csm.LevenbergMarquardtMinimize(x, y, nullptr, n);
    ++r.Fits;
    if (csm.GetErrorCode() != 0) ++r.Failed;
  }
  return r;
}

void Run(const TSpectra& s, bool range, int threads) {
  const double seconds = 1.5;
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                    std::chrono::duration<double>(seconds));
  std::vector<TResult> results(threads);
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([&, t] { results[t] = Worker(s, range, t, threads, deadline); });
  for (auto& th : pool) th.join();
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  long fits = 0, failed = 0;
  for (const TResult& r : results) fits += r.Fits, failed += r.Failed;
  std::printf("%-22s threads %2d: %10.0f fits/s  (%ld fits, %ld not converged)\n",
              range ? "100-point range" : "whole spectrum (1024)", threads, fits / elapsed, fits, failed);
}

} // namespace

int main() {
  const TSpectra s = MakeSpectra();
  const int all = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  // Accuracy check on one spectrum so that the figures belong to real fits.
  {
    TChiSqrMinimizer csm(5);
    csm.SetModelFunction(LorentzLinearModel);
    csm.SetEstimatorFunction(LorentzLinearEstimator);
    csm.EstimateParameters(s.X.data(), s.Y[0].data(), kPoints);
    csm.LevenbergMarquardtMinimize(s.X.data(), s.Y[0].data(), nullptr, kPoints);
    std::printf("spectrum 0: center %.3f (true band near %d), width %.3f, iterations %d, status %d\n",
                csm.GetParameter(2), s.Band[0], csm.GetParameter(3), csm.GetIterations(), csm.GetErrorCode());
  }
  for (bool range : {false, true}) {
    Run(s, range, 1);
    if (all > 1) Run(s, range, all);
  }
  return 0;
}
