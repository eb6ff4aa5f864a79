// Automatic placement of viewers: the grid and its cycles, the derived grid for more viewers, cascade and
// single position, loaded viewers off every screen, and the layout file.
#include "viewers/Viewerpositioning.h"

#include "project/Project.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

class TGridViewer : public TVCustomForm {
public:
  explicit TGridViewer(std::string name) : FName(std::move(name)) { SetBounds(0, 0, 333, 222); }
  std::string GetClassNameA() const override { return FName; }

private:
  std::string FName;
};

class ViewerPositioningTest : public ::testing::Test {
protected:
  void SetUp() override { FPositioning.SetProject(&FProject); }

  std::vector<TVCustomForm*> AddViewers(const std::string& className, int count) {
    std::vector<TVCustomForm*> list;
    for (int i = 0; i < count; ++i) {
      auto viewer = std::make_unique<TGridViewer>(className);
      list.push_back(viewer.get());
      FProject.AddViewer(std::move(viewer));
    }
    return list;
  }

  TViewerPositionInfo& Image() { return *FPositioning.GetInfo("TVImageForm"); }

  TProject FProject;
  TViewerPositioning FPositioning;
};

TEST_F(ViewerPositioningTest, FullGridIsFollowedByOneShiftedByTwentyPixels) {
  TViewerPositionInfo& info = Image();
  info.Kind = TViewerPositionKind::Array;
  info.AutoArray = false;
  info.Left = 100;
  info.Top = 10;
  info.Width = 200;
  info.Height = 150;
  info.Columns = 2;
  info.Rows = 5;
  const auto viewers = AddViewers("TVImageForm", 11);
  FPositioning.SetAllViewerPositionWithClassName("TVImageForm", true);
  EXPECT_EQ(viewers[0]->GetLeft(), 100);
  EXPECT_EQ(viewers[0]->GetTop(), 10);
  EXPECT_EQ(viewers[1]->GetLeft(), 300); // second column
  EXPECT_EQ(viewers[2]->GetTop(), 160);  // second row
  EXPECT_EQ(viewers[9]->GetLeft(), 300);
  EXPECT_EQ(viewers[9]->GetTop(), 10 + 4 * 150);
  EXPECT_EQ(viewers[10]->GetLeft(), 120); // eleventh: the second grid
  EXPECT_EQ(viewers[10]->GetTop(), 30);
  EXPECT_EQ(viewers[10]->GetWidth(), 200);
  EXPECT_EQ(viewers[10]->GetHeight(), 150);
}

TEST_F(ViewerPositioningTest, TenViewersOnAThreeByThreeGridGetAnotherGridWithTilesOfAtLeast150) {
  TViewerPositionInfo& info = Image();
  info.Kind = TViewerPositionKind::Array;
  info.AutoArray = true;
  info.Left = 0;
  info.Top = 0;
  info.Width = 400;
  info.Height = 300;
  info.Columns = 3;
  info.Rows = 3;
  info.DesiredRatio = 1.0f;
  const auto viewers = AddViewers("TVImageForm", 10);
  FPositioning.SetAllViewerPositionWithClassName("TVImageForm", true);
  ASSERT_TRUE(info.Derived);
  const TViewerPositionInfo& derived = *info.Derived;
  EXPECT_NE(derived.Columns * 100 + derived.Rows, 303);
  EXPECT_GE(derived.Columns * derived.Rows, 10);
  EXPECT_LT(derived.Columns * derived.Rows, 10 + derived.Columns); // no row stays empty
  EXPECT_GE(derived.Width, 150);
  EXPECT_GE(derived.Height, 150);
  // The space is 1200 × 900; ratio 1 is met best by 4 columns × 3 rows (300 × 300 tiles).
  EXPECT_EQ(derived.Columns, 4);
  EXPECT_EQ(derived.Rows, 3);
  EXPECT_EQ(derived.Width, 300);
  EXPECT_EQ(derived.Height, 300);
  // All ten stand inside the space, none on another.
  for (size_t i = 0; i < viewers.size(); ++i) {
    EXPECT_LE(viewers[i]->GetLeft() + viewers[i]->GetWidth(), 1200);
    EXPECT_LE(viewers[i]->GetTop() + viewers[i]->GetHeight(), 900);
    for (size_t j = 0; j < i; ++j)
      EXPECT_FALSE(viewers[i]->GetLeft() == viewers[j]->GetLeft() &&
                   viewers[i]->GetTop() == viewers[j]->GetTop());
  }
}

TEST_F(ViewerPositioningTest, GridThatHoldsAllNeedsNoOtherShapeAndMovedViewersDoNotCount) {
  TViewerPositionInfo& info = Image();
  info.Kind = TViewerPositionKind::Array;
  info.AutoArray = true;
  info.Width = 400;
  info.Height = 300;
  info.Columns = 2;
  info.Rows = 2;
  const auto viewers = AddViewers("TVImageForm", 5);
  FPositioning.SetAllViewerPositionWithClassName("TVImageForm", true);
  ASSERT_TRUE(info.Derived);
  EXPECT_NE(info.Derived->Columns * info.Derived->Rows, 4);
  // The user moves two of them: counting only unmoved ones, three fit the 2 × 2 grid.
  viewers[0]->SetBounds(999, 999, 100, 100);
  viewers[1]->SetBounds(5, 5, 100, 100);
  FPositioning.CalculateAutoArray(&info, false);
  ASSERT_TRUE(info.Derived);
  EXPECT_EQ(info.Derived->Columns, 2);
  EXPECT_EQ(info.Derived->Rows, 2);
  EXPECT_EQ(info.Derived->Width, 400);
}

TEST_F(ViewerPositioningTest, WithoutFittingGridTheGreatestGridIsTaken) {
  TViewerPositionInfo& info = Image();
  info.Kind = TViewerPositionKind::Array;
  info.AutoArray = true;
  info.Width = 160;
  info.Height = 160;
  info.Columns = 1;
  info.Rows = 1;
  AddViewers("TVImageForm", 3); // one tile of 160 can't hold a grid of 150-pixel tiles for three
  FPositioning.CalculateAutoArray(&info, true);
  ASSERT_TRUE(info.Derived);
  EXPECT_EQ(info.Derived->Columns, 1);
  EXPECT_EQ(info.Derived->Rows, 1);
  EXPECT_EQ(info.Derived->Width, 160);
}

TEST_F(ViewerPositioningTest, ZeroWidthAndHeightUseTheViewersOwnSize) {
  TViewerPositionInfo& info = Image();
  info.Kind = TViewerPositionKind::Array;
  info.AutoArray = false;
  info.Left = 0;
  info.Top = 0;
  info.Width = 0;
  info.Height = 0;
  info.Columns = 2;
  info.Rows = 2;
  const auto viewers = AddViewers("TVImageForm", 3);
  FPositioning.SetAllViewerPositionWithClassName("TVImageForm", true);
  EXPECT_EQ(viewers[0]->GetLeft(), 0);
  EXPECT_EQ(viewers[1]->GetLeft(), 333);
  EXPECT_EQ(viewers[1]->GetTop(), 0);
  EXPECT_EQ(viewers[2]->GetLeft(), 0);  // new row starts at Left
  EXPECT_EQ(viewers[2]->GetTop(), 222); // below the tallest of the row
  EXPECT_EQ(viewers[2]->GetWidth(), 333);
}

TEST_F(ViewerPositioningTest, CascadeStepsAndSinglePositionStays) {
  const auto texts = AddViewers("TVTextForm", 3);
  const auto managers = AddViewers("TVProjectManagerForm", 2);
  FPositioning.SetAllViewerPosition();
  const TViewerPositionInfo& cascade = *FPositioning.GetInfo("TVTextForm");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(texts[i]->GetLeft(), cascade.Left + TViewerPositioning::kCascadeStep * i);
    EXPECT_EQ(texts[i]->GetTop(), cascade.Top + TViewerPositioning::kCascadeStep * i);
  }
  EXPECT_EQ(managers[0]->GetLeft(), managers[1]->GetLeft());
  EXPECT_EQ(managers[0]->GetTop(), managers[1]->GetTop());
}

TEST_F(ViewerPositioningTest, KindNoneKeepsPlaceAndUnknownClassIsLeftAlone) {
  Image().Kind = TViewerPositionKind::None;
  auto viewers = AddViewers("TVImageForm", 1);
  viewers[0]->SetBounds(7, 8, 90, 80);
  FPositioning.SetViewerPosition(viewers[0], false);
  EXPECT_EQ(viewers[0]->GetLeft(), 7);
  EXPECT_EQ(viewers[0]->GetWidth(), 90);
  auto other = AddViewers("TVSomethingElse", 1);
  other[0]->SetBounds(1, 2, 3, 4);
  FPositioning.SetViewerPosition(other[0], false);
  EXPECT_EQ(other[0]->GetLeft(), 1);
}

TEST_F(ViewerPositioningTest, MinimisedViewerIsRestoredAndFilterViewersShareTheFilterManagerLayout) {
  auto viewers = AddViewers("TVFilterForm", 1);
  TWindowPlacement p = viewers[0]->GetPlacement();
  p.ShowCommand = TWindowPlacement::kShowMinimized;
  viewers[0]->SetPlacement(p);
  FPositioning.SetViewerPosition(viewers[0], false);
  EXPECT_EQ(viewers[0]->GetPlacement().ShowCommand, TWindowPlacement::kShowNormal);
  EXPECT_EQ(viewers[0]->GetLeft(), FPositioning.GetInfo("TVFilterManagerForm")->Left);
  EXPECT_EQ(FPositioning.GetInfo("TVBitmapForm"), FPositioning.GetInfo("TVImageForm"));
}

TEST_F(ViewerPositioningTest, LoadedViewerKeepsItsPlaceUnlessItIsOffEveryScreen) {
  FPositioning.SetScreens({{0, 0, 1280, 1024}, {1280, 0, 1920, 1080}});
  auto viewers = AddViewers("TVTextForm", 2);
  viewers[0]->SetBounds(2000, 100, 400, 300); // on the second screen
  viewers[1]->SetBounds(5000, 100, 400, 300); // right of both
  FPositioning.PlaceLoadedViewer(viewers[0]);
  FPositioning.PlaceLoadedViewer(viewers[1]);
  EXPECT_EQ(viewers[0]->GetLeft(), 2000);
  EXPECT_FALSE(FPositioning.IsOffScreen(viewers[1]->GetLeft(), viewers[1]->GetTop(), viewers[1]->GetWidth(),
                                        viewers[1]->GetHeight()));
  EXPECT_TRUE(FPositioning.IsOffScreen(1270, 1090, 400, 300)); // below both screens
  FPositioning.ResetPositionsOnLoad = true;
  FPositioning.PlaceLoadedViewer(viewers[0]);
  EXPECT_NE(viewers[0]->GetLeft(), 2000);
}

TEST_F(ViewerPositioningTest, LayoutFileRoundTripAndMonitorNames) {
  oxtest::TempDir dir;
  TViewerPositionInfo& info = Image();
  info.Kind = TViewerPositionKind::Cascade;
  info.Left = 11;
  info.Top = 12;
  info.Width = 0;
  info.Columns = 4;
  info.DesiredRatio = 1.5f;
  info.AutoArray = false;
  FPositioning.CreateAndAddToSaveList("Drop Actions Window", false)->Left = 77;
  FPositioning.SetScreens({{0, 0, 1600, 900}});
  FPositioning.SetLayoutFolder(dir.Path().string());
  ASSERT_TRUE(FPositioning.CheckAndSaveWindowPositioning());
  EXPECT_EQ(FPositioning.GetMonitorString(false), "1600x900+0+0");

  TViewerPositioning loaded;
  loaded.SetScreens({{0, 0, 1600, 900}});
  loaded.SetLayoutFolder(dir.Path().string());
  ASSERT_EQ(loaded.LoadFromFile(loaded.GetFileNameForMonitors(false)), teNoError);
  const TViewerPositionInfo& back = *loaded.GetInfo("TVImageForm");
  EXPECT_EQ(back.Kind, TViewerPositionKind::Cascade);
  EXPECT_EQ(back.Left, 11);
  EXPECT_EQ(back.Top, 12);
  EXPECT_EQ(back.Width, 0);
  EXPECT_EQ(back.Columns, 4);
  EXPECT_FLOAT_EQ(back.DesiredRatio, 1.5f);
  EXPECT_FALSE(back.AutoArray);
  ASSERT_TRUE(loaded.GetSaveInfoByUniqueName("Drop Actions Window"));
  EXPECT_EQ(loaded.GetSaveInfoByUniqueName("Drop Actions Window")->Left, 77);

  // A larger screen without a layout of its own finds the stored smaller one.
  int32_t width = 2560, height = 1440;
  EXPECT_TRUE(loaded.GetExactOrSmallerKnownMonitorResolution(width, height));
  EXPECT_EQ(width, 1600);
  EXPECT_EQ(height, 900);
  width = 1024;
  height = 768;
  EXPECT_FALSE(loaded.GetExactOrSmallerKnownMonitorResolution(width, height));
}

TEST_F(ViewerPositioningTest, MonitorChangeBringsViewersBackOntoTheScreen) {
  FPositioning.SetScreens({{0, 0, 1280, 1024}, {1280, 0, 1920, 1080}});
  EXPECT_FALSE(FPositioning.CheckWindowPositioningChange()); // first look
  auto viewers = AddViewers("TVTextForm", 1);
  viewers[0]->SetBounds(2500, 100, 400, 300);
  FPositioning.SetScreens({{0, 0, 1280, 1024}}); // the second screen is gone
  EXPECT_TRUE(FPositioning.CheckWindowPositioningChange());
  EXPECT_FALSE(FPositioning.IsOffScreen(viewers[0]->GetLeft(), viewers[0]->GetTop(), viewers[0]->GetWidth(),
                                        viewers[0]->GetHeight()));
}

} // namespace
