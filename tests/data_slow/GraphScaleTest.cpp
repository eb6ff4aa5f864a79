// Data larger than the mapped memory: a graph of 4 GiB on the memory-mapped strategy with 64 MB of views is
// filled, saved, loaded into a second project and checksummed, with the resident memory far below the data.
#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestSupport.h"

#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace {

double Checksum(const TDGraph& graph) {
  std::vector<float> spectrum(static_cast<size_t>(graph.GetSizeGraph()));
  double sum = 0;
  for (int64_t e = 0; e < graph.GetNumberOfSpectra(); ++e) {
    graph.GetSpectrumOfElement(e, spectrum.data(), true);
    for (size_t g = 0; g < spectrum.size(); g += 7) sum += spectrum[g] * double((e % 13) + 1);
  }
  return sum;
}

TEST(GraphScaleTest, FourGiBGraphThroughSixtyFourMegabytesOfViews) {
  oxtest::TempDir dir;
  TMemoryOptionsOverride options;
  options.Strategy = "mmf";
  options.MemoryMappedFilePath = dir.Path().string() + "/";
  options.FileSizeGB = 12;
  options.MapSizeMB = 64;
  ASSERT_EQ(TMemoryManagement::ApplyOptionsOverride(options), "");
  TMemoryManagement::CreateMemoryStrategy();
  ASSERT_EQ(TMemoryManagement::CurrentStrategy, 1);
  RegisterDataClasses();

  constexpr int32_t kSize = 1024; // 1024 x 1024 spectra of 1024 floats: 4 GiB
  double written = 0;
  const std::string file = dir.File("large.oxp");
  {
    TProject project;
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(project.GetNewDataID());
    graph->SetFieldSize(kSize, kSize, TDataFieldKind::Float, kSize);
    std::vector<float> spectrum(kSize);
    for (int32_t x = 0; x < kSize; ++x)
      for (int32_t y = 0; y < kSize; ++y) {
        for (int32_t g = 0; g < kSize; ++g)
          spectrum[static_cast<size_t>(g)] = float((x * 31 + y * 17 + g) % 1000);
        graph->SetSpectrum(x, y, spectrum.data());
      }
    graph->SetAllLinesValid(true);
    written = Checksum(*graph);
    project.AddData(std::move(graph));
    ASSERT_EQ(project.SaveProjectToFile(file), 1);
  }
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(file), 1);
  const auto* graph = dynamic_cast<const TDGraph*>(loaded.FindData(1));
  ASSERT_NE(graph, nullptr);
  EXPECT_EQ(graph->GetSizeGraph(), kSize);
  EXPECT_EQ(Checksum(*graph), written);
  const double peak = oxtest::PeakResidentMiB();
  std::printf("peak resident memory: %.1f MiB for 4096 MiB of data\n", peak);
  EXPECT_LT(peak, 1024.0);
}

} // namespace
