// The Image Filter tool through its frame on a synthetic 2048x2048 float image, on all the tool's threads:
// median 3x3 and 5x5, the binomial average of size 8 (17 taps) and one iteration of the anisotropic
// smoothing, each the best of three runs (the result image made, filled and added each time), beside the
// best memcpy of the image. Wall-clock and processor seconds of the process.
//   bench_imagefiltertool [SIZE]      default 2048
#include "Benchsupport.h"
#include "common/memory/Memorymanagement.h"
#include "data/Dimage.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "tools/image/Imagefiltertool.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace oxbench;

int main(int argc, char** argv) {
  const int size = argc > 1 ? std::max(16, std::atoi(argv[1])) : 2048;
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();
  TProject project;
  auto image = std::make_unique<TDImage>();
  image->SetID(project.GetNewDataID());
  image->SetCaption("Bench");
  image->SetFieldSize(size, size);
  std::mt19937 random(7);
  std::normal_distribution<float> noise(0.0f, 0.3f);
  std::vector<float> line(static_cast<size_t>(size));
  for (int y = 0; y < size; ++y) {
    for (int x = 0; x < size; ++x)
      line[x] = static_cast<float>(std::sin(0.01 * x) * std::cos(0.013 * y) * 10 + (x > size / 2 ? 4 : 0)) +
                noise(random);
    image->SetLine(y, line.data());
    image->SetLineValid(y, true);
  }
  const int32_t id = image->GetID();
  project.AddData(std::move(image));
  const size_t bytes = static_cast<size_t>(size) * size * sizeof(float);
  const double copy = BestMemcpySeconds(bytes);
  std::printf("image %dx%d (%.1f MB), memcpy %.4f s\n", size, size, bytes / 1e6, copy);

  const std::vector<std::pair<std::string, std::vector<std::string>>> runs = {
      {"median size 1 (3x3)", {"Mode=Median", "MedianFilterSizeEdit=1"}},
      {"median size 2 (5x5)", {"Mode=Median", "MedianFilterSizeEdit=2"}},
      {"average size 8 (17 taps)", {"Mode=Average", "AverageFilterSizeEdit=8"}},
      {"anisotropic, 1 iteration", {"Mode=Anisotropic", "AnisotropicIterationsEdit=1"}}};
  for (const auto& [name, sets] : runs) {
    double wall = 1e30, cpu = 1e30;
    const int repeats = sets.front() == "Mode=Anisotropic" ? 1 : 3;
    for (int run = 0; run < repeats; ++run) {
      TImageFilterForm tool;
      if (!tool.Parameters().SetParameterValuesFromText(sets).empty()) return 1;
      const auto start = Clock::now();
      const double cpuStart = ProcessCpuSeconds();
      const TIntList results = tool.RunNonInteractive(project, {id}, "Extract", false);
      wall = std::min(wall, Seconds(start));
      cpu = std::min(cpu, ProcessCpuSeconds() - cpuStart);
      for (int32_t result : results) project.DeleteData(result);
    }
    std::printf("Image Filter %-26s %.3f s wall, %.3f s processor, memcpy ratio %.0f\n", name.c_str(), wall,
                cpu, wall / copy);
  }
  return 0;
}
