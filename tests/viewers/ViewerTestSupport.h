// Shared set-up of the viewer tests: a small demo project (map, topography, transformations) with one viewer
// of the class under test on the map.
#pragma once

#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "viewers/Viewershow.h"

#include <memory>

#include <gtest/gtest.h>

namespace oxtest {

template <class TViewer>
class DemoViewerFixture : public ::testing::Test {
protected:
  /// Makes the demo project of sizeX × sizeY spectra of sizeGraph points and a viewer showing its map.
  void MakeDemoWithViewer(int32_t sizeX, int32_t sizeY, int32_t sizeGraph) {
    RegisterDataClasses();
    RegisterViewers();
    EnsureMemoryStrategy();
    TDemoOptions options;
    options.SizeX = sizeX;
    options.SizeY = sizeY;
    options.SizeGraph = sizeGraph;
    FIDs = CreateDemoProject(FProject, options);
    auto viewer = std::make_unique<TViewer>();
    FViewer = viewer.get();
    FProject.AddViewer(std::move(viewer));
    ASSERT_TRUE(FViewer->AddDataID(FIDs.Map));
  }
  TDGraph& Map() { return *dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map)); }

  TempDir FDir;
  TProject FProject;
  TDemoIDs FIDs;
  TViewer* FViewer = nullptr;
};

} // namespace oxtest
