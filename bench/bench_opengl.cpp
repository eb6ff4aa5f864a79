// The scene's geometry: reduction of a noisy 10^6-point curve (a Lorentzian on a slope) at several limits,
// and tick choice for 20 axes. Prints points kept and milliseconds per run.
#include "opengl/Openglgraph.h"
#include "opengl/Openglticks.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>

namespace {

double Milliseconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

} // namespace

int main() {
  constexpr int kPoints = 1000000;
  TOpenGLGraph graph;
  graph.SetNrOfDataPoints(kPoints);
  std::mt19937 random(11);
  std::normal_distribution<double> noise(0, 1.0);
  // Model units: 1000 pixels wide, 600 high, as a viewer of 1000 × 600 draws it.
  for (int i = 0; i < kPoints; ++i) {
    const double x = 1000.0 * i / (kPoints - 1);
    const double dx = x - 400;
    graph.SetDataPoint(i, x, 50 + 0.1 * x + 450.0 / (1 + dx * dx / 25.0) + noise(random));
  }
  std::printf("curve reduction, %d points\n", kPoints);
  for (double limit : {0.25, 0.5, 1.0, 2.0}) {
    graph.OptimisationLimit = limit;
    double best = 1e300;
    for (int run = 0; run < 3; ++run) {
      const auto start = std::chrono::steady_clock::now();
      graph.OptimizeGraph();
      best = std::min(best, Milliseconds(std::chrono::steady_clock::now() - start));
    }
    std::printf("  limit %.2f px: %8d points kept, %8.1f ms\n", limit, graph.GetOptimisedNrOfPoints(), best);
  }

  TLabelAndTicks ticks;
  ticks.MaximumNumberOfTicks = 10;
  ticks.MinimumTickDistance = 40;
  const int kAxes = 20;
  const int kRounds = 10000;
  const auto start = std::chrono::steady_clock::now();
  int total = 0;
  for (int round = 0; round < kRounds; ++round)
    for (int axis = 0; axis < kAxes; ++axis) {
      ticks.Calculate(TScalerViewPort(0, 1000, -3.0 * axis, 1000.0 + axis * 17.0));
      total += ticks.TickCount();
    }
  const double ms = Milliseconds(std::chrono::steady_clock::now() - start);
  std::printf("ticks: %d axes in %.4f ms (%d ticks per round)\n", kAxes, ms / kRounds, total / kRounds);
  return 0;
}
