// The viewer frame: registry, captions, the placement tags and their failures, closing, and the memory of
// automatic positioning.
#include "common/Saveandload.h"
#include "project/Viewerbase.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

class TPlainViewer : public TVCustomForm {
public:
  explicit TPlainViewer(std::string name = "TVPlainTest") : FName(std::move(name)) {}
  std::string GetClassNameA() const override { return FName; }
  bool AllowClose = true;
  bool IsCloseAllowed() override { return AllowClose; }

private:
  std::string FName;
};

// A window that records what the viewer tells it.
class TRecordingWindow : public IViewerWindow {
public:
  void ShowViewerWindow(bool) override { ++Shown; }
  void HideViewerWindow() override {}
  void SetViewerCaption(const std::string& caption) override { Caption = caption; }
  TWindowPlacement GetViewerPlacement() const override { return Placement; }
  void SetViewerPlacement(const TWindowPlacement& placement) override { Placement = placement; }
  void RequestRedraw() override { ++Redraws; }
  void CloseViewerWindow() override {}
  void SetCloseEnabled(bool enabled) override { CloseEnabled = enabled; }
  void ViewerDestroyed() override { Destroyed = true; }
  bool Destroyed = false;

  int Shown = 0;
  int Redraws = 0;
  bool CloseEnabled = true;
  std::string Caption;
  TWindowPlacement Placement;
};

// Writes the viewer into a file under a group "Viewer 0" and returns the file's name.
std::string SaveViewer(TVCustomForm& viewer, const oxtest::TempDir& dir) {
  const std::string name = dir.File("viewer.tag");
  const TFileHandle file = CreateFileForWriting(name);
  EXPECT_NE(file, kInvalidFileHandle);
  TTagControl group;
  EXPECT_GE(group.WriteTag(file, "Viewer 0", TTagKind::TagList), 1);
  EXPECT_GE(viewer.SaveViewerToTagFile(file), 1);
  EXPECT_GE(group.CloseWriteTag(file), 1);
  CloseFile(file);
  return name;
}

TTagError LoadViewer(TVCustomForm& viewer, const std::string& name) {
  const TFileHandle file = OpenFileForReading(name);
  EXPECT_NE(file, kInvalidFileHandle);
  TTagControl group;
  FileSeek(file, 0, TSeekOrigin::Begin);
  TTagError result = group.LoadTagListFromFile(file);
  if (result >= 1) result = viewer.LoadViewerFromTagFile(file, group);
  CloseFile(file);
  return result;
}

// Writes a "Viewer 0" group whose TVCustomForm group holds only the named int tags.
std::string WriteFrameGroup(const oxtest::TempDir& dir,
                            const std::vector<std::pair<std::string, int32_t>>& tags) {
  const std::string name = dir.File("hand.tag");
  const TFileHandle file = CreateFileForWriting(name);
  TTagControl outer, group, t;
  outer.WriteTag(file, "Viewer 0", TTagKind::TagList);
  group.WriteTag(file, "TVCustomForm", TTagKind::TagList);
  for (const auto& [tag, value] : tags) t.SaveIntTag(file, tag, value);
  group.CloseWriteTag(file);
  outer.CloseWriteTag(file);
  CloseFile(file);
  return name;
}

class ViewerRegistryTest : public ::testing::Test {
protected:
  void SetUp() override { TVCustomForm::DeleteRegisteredViewerList(); }
  void TearDown() override { TVCustomForm::DeleteRegisteredViewerList(); }
};

TEST_F(ViewerRegistryTest, FirstRegistrationOfANameWins) {
  TVCustomForm::RegisterViewer("TVPlainTest", [](TRegisteredViewer& entry) {
    entry.CreateViewer = [] { return std::make_unique<TPlainViewer>("first"); };
    entry.Caption = "First";
  });
  TVCustomForm::RegisterViewer("TVPlainTest", [](TRegisteredViewer& entry) {
    entry.CreateViewer = [] { return std::make_unique<TPlainViewer>("second"); };
    entry.Caption = "Second";
  });
  EXPECT_EQ(TVCustomForm::GetRegisteredViewerNames(), std::vector<std::string>{"TVPlainTest"});
  EXPECT_EQ(TVCustomForm::GetRegisteredViewer("TVPlainTest")->Caption, "First");
  EXPECT_EQ(TVCustomForm::CreateViewerObjectByName("TVPlainTest")->GetClassNameA(), "first");
}

TEST_F(ViewerRegistryTest, OldBitmapViewerNameCreatesAnImageViewerAndUnknownNamesNothing) {
  TVCustomForm::RegisterViewerClass("TVImageForm",
                                    [] { return std::make_unique<TPlainViewer>("TVImageForm"); });
  auto viewer = TVCustomForm::CreateViewerObjectByName("TVBitmapForm");
  ASSERT_TRUE(viewer);
  EXPECT_EQ(viewer->GetClassNameA(), "TVImageForm");
  EXPECT_FALSE(TVCustomForm::CreateViewerObjectByName("TVNoSuchForm"));
  TVCustomForm::DeleteRegisteredViewerList();
  EXPECT_FALSE(TVCustomForm::CreateViewerObjectByName("TVImageForm"));
}

TEST(ViewerFrameTest, CaptionIsThePartsJoinedAndReachesTheWindow) {
  TRecordingWindow window; // outlives the viewer, which tells its window when it goes
  TPlainViewer viewer;
  viewer.SetFormCaption("Graph Viewer");
  viewer.AttachWindow(&window);
  EXPECT_EQ(window.Caption, "Graph Viewer");
  viewer.SetPreCaption("Background (");
  viewer.SetPostCaption(")");
  EXPECT_EQ(viewer.GetCaption(), "Background (Graph Viewer)");
  EXPECT_EQ(window.Caption, "Background (Graph Viewer)");
  viewer.SetCustomFormCanClose(false);
  EXPECT_FALSE(window.CloseEnabled);
  EXPECT_FALSE(viewer.CloseQuery());
}

TEST(ViewerFrameTest, PlacementSurvivesTheFileWithAndWithoutAWindow) {
  oxtest::TempDir dir;
  TRecordingWindow window, later; // outlive the viewers, which tell their windows when they go
  TPlainViewer source;
  source.AttachWindow(&window);
  TWindowPlacement p;
  p.ShowCommand = TWindowPlacement::kShowMaximized;
  p.WindowLeft = -1900; // a second screen left of the first
  p.WindowTop = 37;
  p.WindowRight = -1000;
  p.WindowBottom = 737;
  source.SetPlacement(p);
  const std::string name = SaveViewer(source, dir);

  TPlainViewer headless;
  ASSERT_EQ(LoadViewer(headless, name), teNoError);
  EXPECT_EQ(headless.GetPlacement(), p);
  // Attached later, the window takes the stored placement.
  headless.AttachWindow(&later);
  EXPECT_EQ(later.Placement, p);
}

TEST(ViewerFrameTest, MissingRequiredTagEndsTheLoadWithItsError) {
  oxtest::TempDir dir;
  const std::string name = WriteFrameGroup(
      dir, {{"Version", 1}, {"ShowCommand", 1}, {"MinimumPositionX", -1}, {"MinimumPositionY", -1}});
  TPlainViewer viewer;
  EXPECT_EQ(LoadViewer(viewer, name), teTagNotFound);
  TPlainViewer noGroup;
  const std::string empty = dir.File("empty.tag");
  {
    const TFileHandle file = CreateFileForWriting(empty);
    TTagControl outer;
    outer.WriteTag(file, "Viewer 0", TTagKind::TagList);
    outer.CloseWriteTag(file);
    CloseFile(file);
  }
  EXPECT_LT(LoadViewer(noGroup, empty), 1);
}

TEST(ViewerFrameTest, OldFileWithoutWindowRectangleKeepsTheDefaults) {
  oxtest::TempDir dir;
  const std::string name = WriteFrameGroup(dir, {{"ShowCommand", 2},
                                                 {"MinimumPositionX", 5},
                                                 {"MinimumPositionY", 6},
                                                 {"MaximumPositionX", 7},
                                                 {"MaximumPositionY", 8}});
  TPlainViewer viewer;
  viewer.SetBounds(10, 20, 300, 200);
  ASSERT_EQ(LoadViewer(viewer, name), teNoError);
  const TWindowPlacement p = viewer.GetPlacement();
  EXPECT_EQ(p.ShowCommand, 2);
  EXPECT_EQ(p.MinimumPositionX, 5);
  EXPECT_EQ(p.MaximumPositionY, 8);
  EXPECT_EQ(p.WindowLeft, 10);
  EXPECT_EQ(p.WindowTop, 20);
  EXPECT_EQ(p.Width(), 300);
  EXPECT_EQ(p.Height(), 200);
}

TEST(ViewerFrameTest, UnknownShowCommandBecomesNormal) {
  oxtest::TempDir dir;
  const std::string name = WriteFrameGroup(dir, {{"ShowCommand", 9},
                                                 {"MinimumPositionX", -1},
                                                 {"MinimumPositionY", -1},
                                                 {"MaximumPositionX", -1},
                                                 {"MaximumPositionY", -1}});
  TPlainViewer viewer;
  ASSERT_EQ(LoadViewer(viewer, name), teNoError);
  EXPECT_EQ(viewer.GetPlacement().ShowCommand, TWindowPlacement::kShowNormal);
}

TEST(ViewerFrameTest, MovedByUserIsSeenAgainstTheAutomaticPosition) {
  TRecordingWindow window;
  TPlainViewer viewer;
  viewer.AttachWindow(&window);
  EXPECT_FALSE(viewer.HasFormNotBeenMovedByUserSinceAutoPosition()); // never auto-positioned
  viewer.SetAutoPositionBounds(100, 50, 400, 300);
  EXPECT_TRUE(viewer.HasFormNotBeenMovedByUserSinceAutoPosition());
  window.Placement.WindowRight += 1; // the user widened it by one pixel
  EXPECT_FALSE(viewer.HasFormNotBeenMovedByUserSinceAutoPosition());
}

TEST(ViewerFrameTest, ClosingConsultsTheViewerAndForgetsTheActivationHandler) {
  TPlainViewer viewer;
  int activations = 0;
  viewer.OnFormActivate = [&](TVCustomForm*) { ++activations; };
  viewer.FormActivate();
  EXPECT_EQ(activations, 1);
  viewer.AllowClose = false;
  EXPECT_FALSE(viewer.CloseQuery());
  viewer.AllowClose = true;
  EXPECT_TRUE(viewer.CloseQuery());
  EXPECT_TRUE(viewer.DoClose()); // freed
  viewer.FormActivate();
  EXPECT_EQ(activations, 1);
  viewer.SetKeepOnClose(true);
  EXPECT_FALSE(viewer.DoClose());
}

TEST(ViewerFrameTest, ActivationOfAViewerAsksProjectManagersToShowItsData) {
  std::vector<std::string> asked;
  TVCustomForm::OnShowDataInUse = [&](TVCustomForm* v) { asked.push_back(v->GetClassNameA()); };
  TPlainViewer manager("TVProjectManagerForm");
  TPlainViewer graph("TVMultiGraphForm");
  manager.FormActivate();
  graph.FormActivate();
  TVCustomForm::OnShowDataInUse = nullptr;
  EXPECT_EQ(asked, std::vector<std::string>{"TVMultiGraphForm"});
}

} // namespace
