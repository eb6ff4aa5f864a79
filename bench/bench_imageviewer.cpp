// The image viewer on a 256 × 256 image: recolouring after a change of the colour scale (the whole texture
// through the profile) and a move of the shared space cursor (one marker), each beside the redraw of an
// unchanged scene. Prints median and 95th percentile in milliseconds. Built with the workbench, the frames
// are drawn in a real rendering context at 1000 × 600 (run it under xvfb-run without a display); without one
// only the scene updates are timed.
#include "Benchsupport.h"
#include "common/memory/Memorymanagement.h"
#include "data/Dimage.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "viewers/Viewershow.h"
#include "viewers/Vimage.h"

#ifdef ORVEX_BENCH_WITH_GL
#include "frame/Qtapplication.h"
#include "frame/Qtopenglwidget.h"

#include <GL/gl.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <random>
#include <vector>

namespace {

constexpr int32_t kSize = 256;
constexpr int kRuns = 200;

struct TFigures {
  double Median = 0;
  double P95 = 0;
};

TFigures Measure(const std::function<void(int)>& step) {
  std::vector<double> ms;
  ms.reserve(kRuns);
  for (int i = 0; i < kRuns; ++i) {
    const auto start = oxbench::Clock::now();
    step(i);
    ms.push_back(1000 * oxbench::Seconds(start));
  }
  std::sort(ms.begin(), ms.end());
  return {ms[ms.size() / 2], ms[std::min(ms.size() - 1, ms.size() * 95 / 100)]};
}

void Print(const char* what, const TFigures& f) {
  std::printf("  %-44s median %7.3f ms   95th %7.3f ms\n", what, f.Median, f.P95);
}

int32_t AddImage(TProject& project) {
  auto space = std::make_unique<TDSpaceTransformation>();
  space->SetID(project.GetNewDataID());
  space->ViewPort().SetScale({0.2, 0.2, 1});
  const int32_t spaceID = space->GetID();
  project.AddData(std::move(space));
  auto image = std::make_unique<TDImage>();
  image->SetID(project.GetNewDataID());
  image->SetFieldSize(kSize, kSize);
  image->SetSpaceTransformationID(spaceID);
  std::mt19937 random(3);
  std::normal_distribution<float> noise(0, 0.05f);
  std::vector<float> line(kSize);
  for (int32_t y = 0; y < kSize; ++y) {
    for (int32_t x = 0; x < kSize; ++x)
      line[static_cast<size_t>(x)] = std::sin(0.05f * float(x)) * std::cos(0.03f * float(y)) + noise(random);
    image->SetLine(y, line.data());
  }
  image->SetAllLinesValid();
  const int32_t id = image->GetID();
  project.AddData(std::move(image));
  return id;
}

} // namespace

int main(int argc, char** argv) {
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();
  RegisterViewers();
  TProject project;
  const int32_t id = AddImage(project);
  auto* viewer = dynamic_cast<TVImageForm*>(ShowIDsInViewer(project, {id}, TVImageForm::kClassName));
  if (!viewer) {
    std::printf("no image viewer\n");
    return 1;
  }
  viewer->GetOpenGLView().SetViewportSize(1000, 600);
  std::mt19937 random(7);
  std::uniform_int_distribution<int32_t> pixel(0, kSize - 1);

  std::printf("image viewer, %d x %d float image, %d runs each\n", kSize, kSize, kRuns);
  std::printf("scene updates (no drawing):\n");
  Print("recolour after a scale change",
        Measure([&](int i) { viewer->SetColorScale(-1.0 - 0.001 * i, 1.0 + 0.001 * i); }));
  Print("cursor move", Measure([&](int) { viewer->SetCursorPixel(pixel(random), pixel(random)); }));

#ifdef ORVEX_BENCH_WITH_GL
  if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) {
    std::printf("drawing: skipped (no display; run under xvfb-run)\n");
    return 0;
  }
  TOrvexQtApplication app(argc, argv);
  TOpenGLView& view = viewer->GetOpenGLView();
  TQtOpenGLWidget widget(&view);
  widget.resize(1000, 600);
  widget.show();
  while (widget.FrameCount() == 0) TOrvexQtApplication::processEvents();
  widget.MakeCurrent();
  const auto* renderer = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  std::printf("drawing at 1000 x 600 on %s (update, frame, finish):\n", renderer ? renderer : "?");
  widget.DoneCurrent();
  widget.BeginOffscreen(1000, 600);
  view.Paint(); // first frame: texture upload, glyphs
  glFinish();
  const auto frame = [&] {
    view.Paint();
    glFinish();
  };
  Print("unchanged redraw", Measure([&](int) { frame(); }));
  Print("recolour after a scale change", Measure([&](int i) {
          viewer->SetColorScale(-1.0 - 0.001 * i, 1.0 + 0.001 * i);
          frame();
        }));
  Print("unchanged redraw (again)", Measure([&](int) { frame(); }));
  Print("cursor move", Measure([&](int) {
          viewer->SetCursorPixel(pixel(random), pixel(random));
          frame();
        }));
  widget.EndOffscreen();
#else
  (void)argc;
  (void)argv;
#endif
  return 0;
}
