// The tool frame's cost: the Graph Calculator "2*x1+3" over the 256x256x1024 demo map beside a memcpy of
// the same bytes, the non-interactive Init + Extract + CleanUp of a one-spectrum graph, and the Image
// Background Subtraction (surface of order 3) of a 2048x2048 image beside a copy of it.
#include "Benchsupport.h"
#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "tools/image/Imagebackgroundsubtraction.h"
#include "tools/spectral/Graphcalculator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

using namespace oxbench;

int main(int argc, char** argv) {
  const int32_t size = argc > 1 ? std::atoi(argv[1]) : 256;
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();

  TProject project;
  TDemoOptions options;
  options.SizeX = options.SizeY = size;
  options.SizeGraph = 1024;
  std::printf("making the %dx%dx1024 demo map...\n", size, size);
  const TDemoIDs ids = CreateDemoProject(project, options);
  const size_t bytes = static_cast<size_t>(size) * size * 1024 * sizeof(float);
  const double copy = BestMemcpySeconds(bytes);

  for (int pass = 0; pass < 3; ++pass) {
    TGraphCalculatorForm tool;
    tool.Parameters().SetParameterValuesFromText({"Formula=2*x1+3"});
    const auto start = Clock::now();
    const double cpu = ProcessCpuSeconds();
    const TIntList results = tool.RunNonInteractive(project, {ids.Map}, "Extract", false);
    const double seconds = Seconds(start);
    std::printf(
        "Graph Calculator 2*x1+3, %.0f MB: %.3f s wall (%.3f s processor, all threads), memcpy %.3f s, "
        "ratio %.1f (target <= 5)\n",
        bytes / 1e6, seconds, ProcessCpuSeconds() - cpu, copy, seconds / copy);
    for (int32_t id : results) project.DeleteData(id);
  }

  // One spectrum, the whole non-interactive cycle.
  auto single =
      TDGraph::CreateNewGraph(&project, ids.Map, true, TDataFieldKind::Float, TDataSaveMode::Always, "One");
  single->SetLineValid(0, true);
  const int32_t singleID = single->GetID();
  project.AddData(std::move(single));
  {
    constexpr int runs = 200;
    double best = 1e30, total = 0;
    for (int i = 0; i < runs; ++i) {
      TGraphCalculatorForm tool;
      const auto start = Clock::now();
      const TIntList results = tool.RunNonInteractive(project, {singleID}, "Extract", false);
      const double seconds = Seconds(start);
      best = std::min(best, seconds);
      total += seconds;
      for (int32_t id : results) project.DeleteData(id);
    }
    std::printf("Init+Extract+CleanUp of one spectrum: best %.3f ms, mean %.3f ms (target < 1 ms)\n",
                best * 1e3, total / runs * 1e3);
  }

  // A 2048x2048 image with a tilted, curved background.
  constexpr int32_t side = 2048;
  auto image =
      TDImage::CreateNewImage(&project, ids.Topography, TDataFieldKind::Float, TDataSaveMode::Always, "Big");
  image->SetFieldSize(side, side);
  std::vector<float> line(side);
  for (int32_t y = 0; y < side; ++y) {
    for (int32_t x = 0; x < side; ++x)
      line[x] = static_cast<float>(0.001 * x + 0.002 * y + 1e-7 * x * y + std::sin(0.01 * x * y));
    image->SetLine(y, line.data());
    image->SetLineValid(y, true);
  }
  const int32_t imageID = image->GetID();
  project.AddData(std::move(image));
  const double imageCopy = BestMemcpySeconds(static_cast<size_t>(side) * side * sizeof(float));
  for (int pass = 0; pass < 3; ++pass) {
    TImageBackgroundSubtractionForm tool;
    tool.Parameters().SetParameterValuesFromText({"Mode=Surface", "Order=3"});
    const auto start = Clock::now();
    const double cpu = ProcessCpuSeconds();
    const TIntList results = tool.RunNonInteractive(project, {imageID}, "Extract", false);
    const double seconds = Seconds(start);
    std::printf(
        "Image Background Subtraction, surface order 3, 2048x2048: %.3f s wall (%.3f s processor), copy "
        "%.4f s, ratio %.1f (target <= 5)\n",
        seconds, ProcessCpuSeconds() - cpu, imageCopy, seconds / imageCopy);
    for (int32_t id : results) project.DeleteData(id);
  }
  return 0;
}
