// The scene viewers' frame: input from the view reaches the viewer, unused input falls back to the view,
// and counted updates leave the view's auto update as it was.
#include "viewers/Vgraphic.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

class TRecordingViewer : public TVCustomGraphicForm {
public:
  std::string GetClassNameA() const override { return "TRecordingViewer"; }
  std::vector<std::string> Events;
  bool UseWheel = false;

protected:
  void ViewMouseDown(int x, int y, TOpenGLMouseButton, TOpenGLShiftState) override {
    Events.push_back("down " + std::to_string(x) + "," + std::to_string(y));
  }
  void ViewMouseUp(int x, int y, TOpenGLMouseButton, TOpenGLShiftState) override {
    Events.push_back("up " + std::to_string(x) + "," + std::to_string(y));
  }
  bool ViewMouseWheel(int, int, double steps, TOpenGLShiftState) override {
    Events.push_back("wheel " + std::to_string(static_cast<int>(steps)));
    return UseWheel;
  }
  bool ViewKeyDown(TOpenGLKey key, int character, TOpenGLShiftState shift) override {
    if (key == TOpenGLKey::Right && shift.Ctrl) Events.push_back("ctrl right");
    if (key == TOpenGLKey::Character) Events.push_back(std::string("char ") + static_cast<char>(character));
    return key != TOpenGLKey::Escape;
  }
};

} // namespace

TEST(VgraphicTest, ViewInputReachesTheViewer) {
  TRecordingViewer viewer;
  TOpenGLView& view = viewer.GetOpenGLView();
  view.MouseDown(10, 20, TOpenGLMouseButton::Left, {});
  view.MouseUp(11, 21, TOpenGLMouseButton::Left, {});
  EXPECT_TRUE(view.KeyDown(TOpenGLKey::Right, 0, {false, true, false}));
  EXPECT_TRUE(view.KeyDown(TOpenGLKey::Character, 'x', {}));
  EXPECT_FALSE(view.KeyDown(TOpenGLKey::Escape, 0, {}));
  EXPECT_EQ(viewer.Events, (std::vector<std::string>{"down 10,20", "up 11,21", "ctrl right", "char x"}));
}

TEST(VgraphicTest, WheelUsedByTheViewerLeavesTheCamera) {
  TRecordingViewer viewer;
  TOpenGLView& view = viewer.GetOpenGLView();
  view.SetViewportSize(200, 100);
  view.SetOrthographicVolume(0, 200, 0, 100);
  const TOpenGLVector probe{150, 80, 0};
  const TOpenGLVector before = view.ProjectPoint(probe);
  viewer.UseWheel = true;
  view.MouseWheel(50, 50, 2, {});
  EXPECT_EQ(viewer.Events.back(), "wheel 2");
  EXPECT_EQ(view.ProjectPoint(probe).X, before.X);
  EXPECT_EQ(view.ProjectPoint(probe).Y, before.Y);
  viewer.UseWheel = false; // not used: the view zooms about the point
  view.MouseWheel(50, 50, 2, {});
  EXPECT_NE(view.ProjectPoint(probe).X, before.X);
}

TEST(VgraphicTest, NestedUpdatesRestoreAutoUpdate) {
  TRecordingViewer viewer;
  TOpenGLView& view = viewer.GetOpenGLView();
  ASSERT_TRUE(view.GetAutoUpdate());
  {
    TGraphicUpdateGuard outer(viewer);
    {
      TGraphicUpdateGuard inner(viewer);
      EXPECT_FALSE(view.GetAutoUpdate());
    }
    EXPECT_FALSE(view.GetAutoUpdate());
    EXPECT_TRUE(viewer.IsUpdating());
  }
  EXPECT_TRUE(view.GetAutoUpdate());
  viewer.EndUpdate(); // an unmatched end is ignored
  EXPECT_FALSE(viewer.IsUpdating());
  view.SetAutoUpdate(false);
  viewer.BeginUpdate();
  viewer.EndUpdate();
  EXPECT_FALSE(view.GetAutoUpdate());
}
