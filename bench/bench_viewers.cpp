// The graph viewer's costs: random steps of the space cursor over the demo map (spectrum read, scene update
// and, with a display, the frame drawn and finished) beside the redraw of an unchanged scene in the same run;
// and the opening of a graph viewer on a 256 MiB and on a 1 GiB stack, with the resident memory it adds.
// Run under xvfb-run for the drawing; without a display only the updates are measured. The stacks live on
// the memory-mapped strategy under ORVEX_BENCH_DIR (default /tmp).
#include "Benchsupport.h"
#include "common/MainThreadQueue.h"
#include "common/Standardmessage.h"
#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "viewers/Viewershow.h"
#include "viewers/Vmultigraph.h"

#ifdef ORVEX_BENCH_WITH_GL
#include "frame/Offscreenview.h"
#include "frame/Qtapplication.h"

#include <GL/gl.h>
#endif

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

using oxbench::Clock;

double Milliseconds(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double ResidentMiB() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

struct TFigures {
  double Median = 0, P95 = 0;
};

TFigures Summarise(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  if (samples.empty()) return {};
  auto at = [&](double q) {
    return samples[static_cast<size_t>(q * static_cast<double>(samples.size() - 1))];
  };
  return {at(0.5), at(0.95)};
}

/// A stack of sx × sy spectra of 1024 points: a Lorentzian that moves with the pixel over a slope.
int32_t AddStack(TProject& project, int32_t sx, int32_t sy, const std::string& caption) {
  auto graph = std::make_unique<TDGraph>();
  graph->SetID(project.GetNewDataID());
  graph->SetFieldSize(sx, sy, TDataFieldKind::Float, 1024);
  graph->SetCaption(caption);
  std::vector<float> s(1024);
  for (int32_t y = 0; y < sy; ++y)
    for (int32_t x = 0; x < sx; ++x) {
      const double centre = 200 + (x + y) % 600;
      for (int32_t g = 0; g < 1024; ++g) {
        const double d = (g - centre) / 4.0;
        s[static_cast<size_t>(g)] = static_cast<float>(0.05 * g + 500.0 / (1 + d * d));
      }
      graph->SetSpectrum(x, y, s.data());
    }
  graph->SetAllLinesValid(true);
  const int32_t id = graph->GetID();
  project.AddData(std::move(graph));
  return id;
}

} // namespace

int main(int argc, char** argv) {
  const int32_t size = argc > 1 ? std::atoi(argv[1]) : 256;
  TMemoryOptionsOverride memory;
  memory.Strategy = "mmf";
  memory.MemoryMappedFilePath = oxbench::BenchDir();
  memory.FileSizeGB = 8;
  memory.MapSizeMB = 512;
  if (std::string problem = TMemoryManagement::ApplyOptionsOverride(memory); !problem.empty())
    std::printf("memory strategy: %s\n", problem.c_str());
  TMemoryManagement::CreateMemoryStrategy();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
      new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));
  TMainThreadQueue::Instance().SetMainThread();
  RegisterDataClasses();
  RegisterViewers();

  // The drawing, when there is a display: one offscreen context of 1000 × 600, current for the whole run.
  std::function<void()> drawFrame;
#ifdef ORVEX_BENCH_WITH_GL
  std::unique_ptr<TOrvexQtApplication> app;
  std::unique_ptr<TOffscreenOpenGLContext> context;
  if (std::getenv("DISPLAY") || std::getenv("WAYLAND_DISPLAY")) {
    app = std::make_unique<TOrvexQtApplication>(argc, argv);
    context = std::make_unique<TOffscreenOpenGLContext>(1000, 600);
    if (!context->IsValid()) context.reset();
  }
#endif

  std::printf("making the %dx%dx1024 demo map (memory-mapped strategy)...\n", size, size);
  auto project = std::make_unique<TProject>();
  TDemoOptions options;
  options.SizeX = options.SizeY = size;
  options.SizeGraph = 1024;
  const TDemoIDs ids = CreateDemoProject(*project, options);
  auto* viewer =
      dynamic_cast<TVMultiGraphForm*>(project->GetFirstViewerByClassName(TVMultiGraphForm::kClassName));
  if (!viewer) {
    std::printf("the demo opened no graph viewer\n");
    return 1;
  }
  TOpenGLView& view = viewer->GetOpenGLView();
#ifdef ORVEX_BENCH_WITH_GL
  if (context) {
    view.InitOpenGL(context.get());
    view.SetViewportSize(1000, 600);
    view.Activate();
    context->BeginOffscreen(1000, 600);
    drawFrame = [&view] {
      view.Paint();
      glFinish();
    };
    drawFrame(); // display lists and glyphs of the first frame
  }
#endif
  if (!drawFrame) view.SetViewportSize(1000, 600);
  std::printf("graph viewer at 1000 x 600, %s\n",
              drawFrame ? "drawn offscreen" : "updates only (no display)");

  constexpr int kSteps = 1000;
  std::mt19937 random(7);
  std::uniform_int_distribution<int32_t> pixel(0, size - 1);
  std::vector<double> steps, redraws;
  for (int i = 0; i < kSteps; ++i) {
    const int32_t x = pixel(random), y = pixel(random);
    auto start = Clock::now();
    viewer->ChangeSpacePosition(0, x, y);
    if (drawFrame) drawFrame();
    steps.push_back(Milliseconds(start));
    if (drawFrame) {
      start = Clock::now();
      drawFrame();
      redraws.push_back(Milliseconds(start));
    }
  }
  const TFigures step = Summarise(steps), redraw = Summarise(redraws);
  std::printf("  %d random cursor steps:  median %7.2f ms, 95th percentile %7.2f ms\n", kSteps, step.Median,
              step.P95);
  if (drawFrame)
    std::printf(
        "  unchanged redraw:         median %7.2f ms, 95th percentile %7.2f ms (step - redraw: %.2f ms)\n",
        redraw.Median, redraw.P95, step.Median - redraw.Median);
#ifdef ORVEX_BENCH_WITH_GL
  if (context) {
    context->EndOffscreen();
    context->MakeCurrent();
    view.ReleaseOpenGL();
    context->DoneCurrent();
  }
#endif
  project.reset();

  // Opening: a viewer reads only the spectrum it shows, so the size of the stack must not matter.
  for (const int32_t side : {256, 512}) {
    TProject stacks;
    const int32_t id = AddStack(stacks, side, side, "Stack");
    const double before = ResidentMiB();
    const auto start = Clock::now();
    auto* opened =
        dynamic_cast<TVMultiGraphForm*>(ShowIDsInViewer(stacks, {id}, TVMultiGraphForm::kClassName));
    if (!opened) return 1;
    std::string error;
    TOpenGLBitmap frame;
    bool drawn = false;
#ifdef ORVEX_BENCH_WITH_GL
    if (context) drawn = RenderViewOffscreen(opened->GetOpenGLView(), 1000, 600, frame, error);
#endif
    if (!drawn) opened->GetOpenGLView().SetViewportSize(1000, 600);
    const double ms = Milliseconds(start);
    std::printf("  open on %4d MiB stack (%dx%dx1024): %s %7.2f ms, resident memory %+7.1f MiB\n",
                int(int64_t(side) * side * 1024 * 4 / (1024 * 1024)), side, side,
                drawn ? "first frame" : "scene ready", ms, ResidentMiB() - before);
  }
  (void)ids;
  return 0;
}
