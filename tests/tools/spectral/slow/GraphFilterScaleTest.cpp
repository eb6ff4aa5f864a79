// Savitzky-Golay through the Graph Filter tool on a 1 GiB map held in a memory-mapped file with 64 MB of
// views: the result is right where the polynomial reproduces itself, and the resident memory stays far
// below the two gigabytes of input and result.
#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestSupport.h"
#include "tools/spectral/Graphfilterdialog.h"

#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace {

double PeakResidentMiB() {
  std::ifstream status("/proc/self/status");
  std::string key;
  while (status >> key) {
    if (key == "VmHWM:") {
      double kb = 0;
      status >> kb;
      return kb / 1024.0;
    }
    status.ignore(4096, '\n');
  }
  return -1;
}

TEST(GraphFilterScaleTest, SavitzkyGolayOnAMapLargerThanTheMappedViews) {
  oxtest::TempDir dir;
  TMemoryOptionsOverride options;
  options.Strategy = "mmf";
  options.MemoryMappedFilePath = dir.Path().string() + "/";
  options.FileSizeGB = 4;
  options.MapSizeMB = 64;
  ASSERT_EQ(TMemoryManagement::ApplyOptionsOverride(options), "");
  TMemoryManagement::CreateMemoryStrategy();
  ASSERT_EQ(TMemoryManagement::CurrentStrategy, 1);
  RegisterDataClasses();

  constexpr int32_t kSize = 512, kLength = 1024; // 512 x 512 spectra of 1024 floats: 1 GiB
  TProject project;
  auto graph = std::make_unique<TDGraph>();
  graph->SetID(project.GetNewDataID());
  graph->SetCaption("large");
  graph->SetFieldSize(kSize, kSize, TDataFieldKind::Float, kLength);
  // A quadratic along each spectrum with its own coefficients per pixel: order 4 reproduces it inside.
  std::vector<float> spectrum(kLength);
  auto value = [](int32_t x, int32_t y, int32_t g) {
    const double t = (g - 512) / 64.0;
    return static_cast<float>((x % 7) + 0.5 * (y % 5) * t + 0.25 * t * t);
  };
  for (int32_t y = 0; y < kSize; ++y)
    for (int32_t x = 0; x < kSize; ++x) {
      for (int32_t g = 0; g < kLength; ++g) spectrum[static_cast<size_t>(g)] = value(x, y, g);
      graph->SetSpectrum(x, y, spectrum.data());
    }
  graph->SetAllLinesValid(true);
  const int32_t id = graph->GetID();
  project.AddData(std::move(graph));

  TGraphFilterDialogForm tool;
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Mode=Savitzky-Golay"}).empty());
  const TIntList results = tool.RunNonInteractive(project, {id}, "Extract", false);
  ASSERT_EQ(results.size(), 1u);
  const auto* result = dynamic_cast<const TDGraph*>(project.FindData(results[0]));
  ASSERT_NE(result, nullptr);
  int64_t checked = 0;
  for (int32_t y = 0; y < kSize; y += 37)
    for (int32_t x = 0; x < kSize; x += 41) {
      ASSERT_TRUE(result->GetLineValid(y));
      result->GetSpectrum(x, y, spectrum.data());
      for (int32_t g = 5; g < kLength - 5; g += 13, ++checked)
        ASSERT_NEAR(spectrum[static_cast<size_t>(g)], value(x, y, g), 1e-3) << x << " " << y << " " << g;
    }
  EXPECT_GT(checked, 10000);
  const double peak = PeakResidentMiB();
  std::printf("[ figures  ] peak resident memory (VmHWM) %.1f MiB for 2 GiB of input and result\n", peak);
  EXPECT_GT(peak, 0);
  EXPECT_LT(peak, 256.0);
}

} // namespace
