// Shared set-up of the large-map tests: the memory-mapped strategy with small views in a temporary folder, a
// 1 GiB map filled from a function of (x, y, point).
#pragma once

#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestSupport.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace oxtest {

/// 512 × 512 spectra of 1024 floats: 1 GiB, sixteen times the 64 MB of mapped views.
inline constexpr int32_t kLargeMapSize = 512, kLargeMapLength = 1024;

/// Switches to the memory-mapped strategy: a 4 GB file in dir, 64 MB of views.
inline void UseSmallMappedViews(const TempDir& dir) {
  TMemoryOptionsOverride options;
  options.Strategy = "mmf";
  options.MemoryMappedFilePath = dir.Path().string() + "/";
  options.FileSizeGB = 4;
  options.MapSizeMB = 64;
  ASSERT_EQ(TMemoryManagement::ApplyOptionsOverride(options), "");
  TMemoryManagement::CreateMemoryStrategy();
  ASSERT_EQ(TMemoryManagement::CurrentStrategy, 1);
  RegisterDataClasses();
}

/// Adds the large map, value(x, y, g) at every point, all lines valid; returns its ID.
template <class Value>
int32_t AddLargeMap(TProject& project, Value value) {
  auto graph = std::make_unique<TDGraph>();
  graph->SetID(project.GetNewDataID());
  graph->SetCaption("large");
  graph->SetFieldSize(kLargeMapSize, kLargeMapSize, TDataFieldKind::Float, kLargeMapLength);
  std::vector<float> spectrum(kLargeMapLength);
  for (int32_t y = 0; y < kLargeMapSize; ++y)
    for (int32_t x = 0; x < kLargeMapSize; ++x) {
      for (int32_t g = 0; g < kLargeMapLength; ++g) spectrum[static_cast<size_t>(g)] = value(x, y, g);
      graph->SetSpectrum(x, y, spectrum.data());
    }
  graph->SetAllLinesValid(true);
  const int32_t id = graph->GetID();
  project.AddData(std::move(graph));
  return id;
}

} // namespace oxtest
