// The old filter manager: its filters re-extracted into their linked targets (and a missing target made
// and linked), its stored tags kept through a save and load.
#include "viewers/Vfiltermanager.h"

#include "data/Dfilter.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Graphfilter.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "viewers/ViewerTestSupport.h"
#include "viewers/Viewershow.h"

#include <gtest/gtest.h>

namespace {

class VfiltermanagerTest : public oxtest::DemoViewerFixture<TVFilterManagerForm> {
protected:
  void SetUp() override {
    MakeDemoWithViewer(5, 4, 64);
    // Every spectrum constant (x + 1) * (y + 1): a sum over n pixels without background is n times that.
    std::vector<float> s(64);
    for (int32_t y = 0; y < 4; ++y)
      for (int32_t x = 0; x < 5; ++x) {
        std::fill(s.begin(), s.end(), float((x + 1) * (y + 1)));
        Map().SetSpectrum(x, y, s.data());
      }
  }
  // A sum filter over pixels 10..19 of the map's axis (in its current unit), no background.
  TDSumFilter* AddSumFilter(int32_t targetID) {
    TGraphAxisPositions axis;
    EXPECT_TRUE(GetGraphAxisPositions(Map(), 0, -1, axis));
    auto filter = std::make_unique<TDSumFilter>();
    filter->SetID(FProject.GetNewDataID());
    filter->SetRange(std::min(axis.X[10], axis.X[19]), std::max(axis.X[10], axis.X[19]));
    filter->SetInputInteger(TDFilter::kLowerBackgroundInput, 0);
    filter->SetInputInteger(TDFilter::kUpperBackgroundInput, 0);
    filter->SetIDs(FIDs.Map, FIDs.Map);
    filter->SetTargetID(0, targetID);
    TDSumFilter* raw = filter.get();
    FProject.AddData(std::move(filter));
    return raw;
  }
};

TEST_F(VfiltermanagerTest, ReExtractionWritesLinkedTargetsAndLinksNewOnes) {
  auto target =
      TDImage::CreateNewImage(&FProject, FIDs.Map, TDataFieldKind::Float, TDataSaveMode::Always, "Old sum");
  const int32_t targetID = target->GetID();
  FProject.AddData(std::move(target));
  TDSumFilter* linked = AddSumFilter(targetID);
  TDSumFilter* unlinked = AddSumFilter(0);
  EXPECT_EQ(FViewer->GetFilterIDs(), (TIntList{linked->GetID(), unlinked->GetID()}));

  std::string reason;
  const TIntList written = FViewer->ExtractViewerObjects(reason);
  ASSERT_EQ(written.size(), 2u) << reason;
  EXPECT_EQ(written[0], targetID) << "the linked image keeps its ID";
  auto* image = dynamic_cast<TDImage*>(FProject.FindData(targetID));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->GetCaption(), "Old sum");
  EXPECT_FLOAT_EQ(image->GetField(3, 2), 10.0f * 4 * 3);
  EXPECT_EQ(unlinked->GetTargetID(0), written[1]) << "a new target is made and linked";
  auto* made = dynamic_cast<TDImage*>(FProject.FindData(written[1]));
  ASSERT_NE(made, nullptr);
  EXPECT_FLOAT_EQ(made->GetField(0, 0), 10.0f);
}

TEST_F(VfiltermanagerTest, StoredTagsAndGraphSurviveSaveAndLoad) {
  const std::string file = FDir.File("manager.oxp");
  ASSERT_EQ(FProject.SaveProjectToFile(file), teNoError);
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(file), teNoError);
  TVFilterManagerForm* again = nullptr;
  for (size_t i = 0; i < loaded.ViewerList().size(); ++i)
    if (auto* v = dynamic_cast<TVFilterManagerForm*>(loaded.GetViewer(i))) again = v;
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->GetGraphID(), FIDs.Map);
  std::string reason;
  EXPECT_TRUE(again->ExtractViewerObjects(reason).empty());
  EXPECT_EQ(reason, "no filter object works on the graph");
}

} // namespace
