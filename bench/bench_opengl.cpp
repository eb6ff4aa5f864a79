// The scene's geometry: reduction of a noisy 10^6-point curve (a Lorentzian on a slope) at several limits,
// and tick choice for 20 axes. Prints points kept and milliseconds per run. Built with the workbench it also
// draws scenes offscreen at 1000 × 600 in a real rendering context (run it under xvfb-run without a
// display): an empty frame, 20 curves of 1024 points with axes and labels, and a reduced 10^6-point curve.
#include "opengl/Openglgraph.h"
#include "opengl/Openglobjects.h"
#include "opengl/Openglticks.h"
#include "opengl/Openglview.h"

#ifdef ORVEX_BENCH_WITH_GL
#include "frame/Qtapplication.h"
#include "frame/Qtopenglwidget.h"

#include <GL/gl.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>

namespace {

double Milliseconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

} // namespace

#ifdef ORVEX_BENCH_WITH_GL
/// Milliseconds per frame of view drawn offscreen (best of three runs of frames frames).
double FrameMilliseconds(TQtOpenGLWidget& widget, TOpenGLView& view, int frames) {
  double best = 1e300;
  widget.BeginOffscreen(view.GetWidth(), view.GetHeight());
  view.Paint(); // first frame: display lists and glyphs
  glFinish();
  for (int run = 0; run < 3; ++run) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < frames; ++i) view.Paint();
    glFinish();
    best = std::min(best, Milliseconds(std::chrono::steady_clock::now() - start) / frames);
  }
  widget.EndOffscreen();
  return best;
}

void DrawScenes(int argc, char** argv) {
  if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) {
    std::printf("drawing: skipped (no display; run under xvfb-run)\n");
    return;
  }
  TOrvexQtApplication app(argc, argv);
  TOpenGLView view;
  TQtOpenGLWidget widget(&view);
  widget.resize(1000, 600);
  widget.show();
  while (widget.FrameCount() == 0) TOrvexQtApplication::processEvents();
  view.SetViewportSize(1000, 600);
  widget.MakeCurrent();
  const auto* renderer = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  std::printf("drawing at 1000 x 600 on %s\n", renderer ? renderer : "?");
  widget.DoneCurrent();
  std::printf("  empty frame:                          %8.2f ms\n", FrameMilliseconds(widget, view, 50));

  std::mt19937 random(5);
  std::normal_distribution<double> noise(0, 2.0);
  for (int c = 0; c < 20; ++c) {
    std::vector<double> xs(1024), ys(1024);
    for (int i = 0; i < 1024; ++i) {
      xs[static_cast<size_t>(i)] = 80 + 900.0 * i / 1023;
      const double dx = i - 50.0 * (c + 1);
      ys[static_cast<size_t>(i)] = 60 + 20 * c + 200 / (1 + dx * dx / 30) + noise(random);
    }
    auto graph = std::make_unique<TOpenGLGraph>();
    graph->ShowOptimised = false;
    graph->SetDataPoints(xs.data(), ys.data(), 1024);
    graph->SetColor(
        TOpenGLColor::FromRGB(static_cast<uint8_t>(12 * c), 40, static_cast<uint8_t>(255 - 12 * c)));
    view.Add(std::move(graph));
  }
  std::printf("  20 curves x 1024 points alone:          %8.2f ms\n", FrameMilliseconds(widget, view, 20));
  auto xAxis = std::make_unique<TOpenGLAxis>();
  xAxis->SetStart({80, 50, 0});
  xAxis->SetEnd({980, 50, 0});
  xAxis->SetWorldStart(100);
  xAxis->SetWorldEnd(3200);
  xAxis->SetTicks(10);
  xAxis->SetCaption("Wavenumber");
  xAxis->SetUnitCaption("cm⁻¹");
  view.Add(std::move(xAxis));
  auto yAxis = std::make_unique<TOpenGLAxis>();
  yAxis->SetStart({80, 50, 0});
  yAxis->SetEnd({80, 580, 0});
  yAxis->SetDirectionVector({-1, 0, 0});
  yAxis->SetWorldStart(0);
  yAxis->SetWorldEnd(65000);
  yAxis->SetCaption("Intensity");
  view.Add(std::move(yAxis));
  std::printf("  20 curves x 1024 points, axes, labels: %8.2f ms\n", FrameMilliseconds(widget, view, 20));

  view.ClearObjects();
  constexpr int kPoints = 1000000;
  std::vector<double> xs(kPoints), ys(kPoints);
  for (int i = 0; i < kPoints; ++i) {
    xs[static_cast<size_t>(i)] = 1000.0 * i / (kPoints - 1);
    const double dx = xs[static_cast<size_t>(i)] - 400;
    ys[static_cast<size_t>(i)] =
        50 + 0.1 * xs[static_cast<size_t>(i)] + 450.0 / (1 + dx * dx / 25.0) + noise(random);
  }
  auto graph = std::make_unique<TOpenGLGraph>();
  graph->OptimisationLimit = 0.5;
  const auto start = std::chrono::steady_clock::now();
  graph->SetDataPoints(xs.data(), ys.data(), kPoints);
  const double reduction = Milliseconds(std::chrono::steady_clock::now() - start);
  const int kept = graph->GetOptimisedNrOfPoints();
  view.Add(std::move(graph));
  std::printf("  10^6-point curve, reduced to %d:     %8.2f ms per frame (reduction %.1f ms)\n", kept,
              FrameMilliseconds(widget, view, 20), reduction);
}
#endif

int main(int argc, char** argv) {
#ifdef ORVEX_BENCH_WITH_GL
  DrawScenes(argc, argv);
#else
  (void)argc;
  (void)argv;
#endif
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
