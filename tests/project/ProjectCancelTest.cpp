// Cancelling a save keeps the previous file; cancelling a load leaves a consistent project.
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <filesystem>

#include <gtest/gtest.h>

namespace {

class ProjectCancelTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
    for (int i = 0; i < 3; ++i) {
      auto graph = std::make_unique<TDGraph>();
      graph->SetID(FProject.GetNewDataID());
      graph->SetFieldSize(16, 16, TDataFieldKind::Float, 256);
      graph->FillField(float(i));
      graph->SetAllLinesValid(true);
      FProject.AddData(std::move(graph));
    }
  }
  void TearDown() override { TMCC::ClearProcessCancelRequest(); }

  TProject FProject;
  oxtest::TempDir FDir;
};

TEST_F(ProjectCancelTest, CancelledSaveKeepsThePreviousFile) {
  const auto name = FDir.File("p.oxp");
  ASSERT_EQ(FProject.SaveProjectToFile(name), 1);
  const std::string before = oxtest::ReadFileBytes(name);
  FProject.DataList()[0]->SetCaption("changed");
  TMCC::RequestProcessCancel();
  EXPECT_LT(FProject.SaveProjectToFile(name), 1);
  TMCC::ClearProcessCancelRequest();
  EXPECT_EQ(oxtest::ReadFileBytes(name), before);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(FDir.Path()), {}), 1); // no temporary file left
  EXPECT_EQ(FProject.SaveProjectToFile(name), 1);
  EXPECT_NE(oxtest::ReadFileBytes(name), before);
}

TEST_F(ProjectCancelTest, CancelledLoadLeavesAConsistentProject) {
  const auto name = FDir.File("p.oxp");
  ASSERT_EQ(FProject.SaveProjectToFile(name), 1);
  TMCC::RequestProcessCancel();
  TProject loaded;
  // A cancelled load is no success: the caller says "cancelled", and the file name isn't taken over.
  EXPECT_LT(loaded.LoadProjectFromFile(name), 1);
  EXPECT_TRUE(loaded.LoadWasCancelled());
  EXPECT_TRUE(loaded.GetFileName().empty());
  EXPECT_TRUE(loaded.FailedObjects().empty()) << "a cancel is not damage";
  TMCC::ClearProcessCancelRequest();
  // Whatever came in is whole: each object loaded completely, IDs unique and below the next ID.
  int32_t highest = 0;
  EXPECT_TRUE(loaded.UniqueIDTest(highest));
  EXPECT_LT(loaded.DataList().size(), 3u);
  for (const auto& data : loaded.DataList()) {
    const auto* graph = dynamic_cast<const TDGraph*>(data.get());
    ASSERT_NE(graph, nullptr);
    EXPECT_EQ(graph->GetSizeGraph(), 256);
  }
  TProject again;
  ASSERT_EQ(again.LoadProjectFromFile(name), 1);
  EXPECT_FALSE(again.LoadWasCancelled());
  EXPECT_EQ(again.DataList().size(), 3u);
}

} // namespace
