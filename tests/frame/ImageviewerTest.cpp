// The image viewer in a real window (Xvfb, Mesa's software rasteriser): at the centre of known pixels the
// window shows exactly the colour profile's colour of their value (within 2 per channel), line 0 on top; the
// shared space cursor is drawn as a cross; and a viewer reopened from a saved project draws the same
// picture; a click on a map's image picks the spectrum a graph viewer shows. The pictures are kept in the
// screenshot folder for a look by eye.
#include "ViewerWindowSupport.h"
#include "data/Dcolorprofile.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qtviewerwindow.h"
#include "frame/Viewexport.h"
#include "imaging/Rasterfile.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/SpaceTransformation.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "viewers/Viewershow.h"
#include "viewers/Vimage.h"
#include "viewers/Vmultigraph.h"

#include <QImage>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

using namespace oxframetest;

constexpr int32_t kSizeX = 16;
constexpr int32_t kSizeY = 12;

struct TShownViewer {
  TQtViewerWindow* Window = nullptr;
  TQtOpenGLWidget* Widget = nullptr;
};

TShownViewer ShowInWindow(TVImageForm* viewer) {
  TShownViewer shown;
  shown.Window = new TQtViewerWindow(viewer, nullptr);
  shown.Window->resize(760, 520);
  shown.Window->ShowViewerWindow(true);
  shown.Widget = shown.Window->OpenGLWidget();
  if (shown.Widget) WaitFor([&] { return shown.Widget->FrameCount() > 0; });
  return shown;
}

testing::AssertionResult ColourNear(const QImage& image, QPoint at, TColor expected) {
  if (!image.rect().contains(at)) return testing::AssertionFailure() << "outside the window";
  const QColor c = image.pixelColor(at);
  const int r = int(expected & 0xFF), g = int((expected >> 8) & 0xFF), b = int((expected >> 16) & 0xFF);
  if (std::abs(c.red() - r) <= 2 && std::abs(c.green() - g) <= 2 && std::abs(c.blue() - b) <= 2)
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "window shows (" << c.red() << ", " << c.green() << ", " << c.blue()
                                     << "), the profile gives (" << r << ", " << g << ", " << b << ")";
}

/// True when a pixel of the cursor's colour (magenta) lies within two rows of point: the cross's arm.
bool CrossArmNear(const QImage& image, QPoint at) {
  for (int dy = -2; dy <= 2; ++dy) {
    const QPoint p = at + QPoint(0, dy);
    if (!image.rect().contains(p)) continue;
    const QColor c = image.pixelColor(p);
    if (c.red() > 200 && c.green() < 60 && c.blue() > 200) return true;
  }
  return false;
}

class ImageViewerWindowTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    RegisterViewers();
    oxtest::EnsureMemoryStrategy();
    // Square pixels of 0.5 µm, so that the picture keeps the image's proportions.
    FSpaceID = oxtest::AddSpaceTransformation(FProject, {0.5, 0.5, 1}, {-3, 2, 0});
    auto image = std::make_unique<TDImage>();
    image->SetID(FProject.GetNewDataID());
    image->SetCaption("Gradient");
    image->SetFieldSize(kSizeX, kSizeY);
    image->SetSpaceTransformationID(FSpaceID);
    std::vector<float> line(kSizeX);
    for (int32_t y = 0; y < kSizeY; ++y) {
      // Lines differ by much more than columns, so that an upside-down picture can't pass.
      for (int32_t x = 0; x < kSizeX; ++x) line[static_cast<size_t>(x)] = float(x + 16 * y);
      image->SetLine(y, line.data());
    }
    image->SetAllLinesValid();
    FImageID = image->GetID();
    FProject.AddData(std::move(image));
  }

  TProject FProject;
  int32_t FSpaceID = 0;
  int32_t FImageID = 0;
};

TEST_F(ImageViewerWindowTest, PixelCentresShowTheProfileColourOfTheirValueLineZeroOnTop) {
  auto* viewer = dynamic_cast<TVImageForm*>(ShowIDsInViewer(FProject, {FImageID}, TVImageForm::kClassName));
  ASSERT_NE(viewer, nullptr);
  viewer->GetCFI()->SetParameterValuesFromText({"ColorTable=Rainbow"});
  viewer->SetColorScale(0, 191);
  ASSERT_TRUE(viewer->SetCursorPixel(11, 4));
  const TShownViewer shown = ShowInWindow(viewer);
  ASSERT_NE(shown.Widget, nullptr);
  const QImage image = Grab(shown.Widget);
  Keep(image, "imageviewer");
  const auto& profile = *dynamic_cast<TDColorProfile*>(FProject.FindData(viewer->GetColorProfileID()));

  for (const auto& [x, y] : std::vector<std::pair<int32_t, int32_t>>{
           {0, 0}, {15, 0}, {0, 11}, {15, 11}, {3, 7}, {8, 2}, {12, 9}, {5, 10}, {1, 5}}) {
    const QPoint at = WindowPointOfPixel(FProject, FSpaceID, *viewer, x, y);
    EXPECT_TRUE(ColourNear(image, at, profile.GetColorsFromValue(191, 0, x + 16 * y)))
        << "pixel (" << x << ", " << y << ") at window " << at.x() << ", " << at.y();
  }
  // Line 0 is drawn on top, column 0 on the left.
  const QPoint first = WindowPointOfPixel(FProject, FSpaceID, *viewer, 0, 0);
  const QPoint last = WindowPointOfPixel(FProject, FSpaceID, *viewer, 15, 11);
  EXPECT_LT(first.y(), last.y());
  EXPECT_LT(first.x(), last.x());
  // Pixels are square on screen, as in the world.
  const QPoint right = WindowPointOfPixel(FProject, FSpaceID, *viewer, 1, 0);
  const QPoint below = WindowPointOfPixel(FProject, FSpaceID, *viewer, 0, 1);
  EXPECT_NEAR(right.x() - first.x(), below.y() - first.y(), 1);

  // The cursor's cross: its arm a few pixels beside the centre of pixel (11, 4) is drawn in its colour.
  const QPoint cross = WindowPointOfPixel(FProject, FSpaceID, *viewer, 11, 4);
  EXPECT_TRUE(CrossArmNear(image, cross + QPoint(6, 0)));

  // A click elsewhere moves the cross with the shared cursor.
  const QPoint target = WindowPointOfPixel(FProject, FSpaceID, *viewer, 2, 9);
  viewer->GetOpenGLView().MouseDown(target.x(), target.y(), TOpenGLMouseButton::Left, {});
  viewer->GetOpenGLView().MouseUp(target.x(), target.y(), TOpenGLMouseButton::Left, {});
  int32_t cx, cy;
  ASSERT_TRUE(viewer->GetCursorPixel(cx, cy));
  EXPECT_EQ(cx, 2);
  EXPECT_EQ(cy, 9);
  const QImage moved = Grab(shown.Widget);
  Keep(moved, "imageviewer-cursor-moved");
  EXPECT_TRUE(CrossArmNear(moved, target + QPoint(6, 0)));
  EXPECT_FALSE(CrossArmNear(moved, cross + QPoint(6, 0)));
  EXPECT_TRUE(ColourNear(moved, cross + QPoint(6, 0), profile.GetColorsFromValue(191, 0, 11 + 16 * 4)))
      << "the old cross is gone";
  delete shown.Window;
}

TEST_F(ImageViewerWindowTest, AViewerReopenedFromTheProjectDrawsTheSamePicture) {
  auto* viewer = dynamic_cast<TVImageForm*>(ShowIDsInViewer(FProject, {FImageID}, TVImageForm::kClassName));
  ASSERT_NE(viewer, nullptr);
  viewer->GetCFI()->SetParameterValuesFromText({"ColorTable=Geo", "ShowCoordinateSystem=true", "ZoomStartX=2",
                                                "ZoomStopX=13", "ZoomStartY=1", "ZoomStopY=10"});
  viewer->MakeDrawFieldImage();
  viewer->DrawField().SetLine(2, 2, 12, 8, true);
  viewer->DrawFieldChanged();
  const TShownViewer first = ShowInWindow(viewer);
  ASSERT_NE(first.Widget, nullptr);
  const QImage before = Grab(first.Widget);
  Keep(before, "imageviewer-saved");

  oxtest::TempDir dir;
  ASSERT_EQ(FProject.SaveProjectToFile(dir.File("viewer.oxp")), teNoError);
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(dir.File("viewer.oxp")), teNoError);
  TVImageForm* again = nullptr;
  for (size_t i = 0; i < loaded.ViewerList().size(); ++i)
    if (auto* v = dynamic_cast<TVImageForm*>(loaded.GetViewer(i))) again = v;
  ASSERT_NE(again, nullptr);
  const TShownViewer second = ShowInWindow(again);
  ASSERT_NE(second.Widget, nullptr);
  second.Window->resize(first.Window->size());
  WaitFor([&] { return second.Widget->size() == first.Widget->size(); });
  const QImage after = Grab(second.Widget);
  Keep(after, "imageviewer-reopened");
  ASSERT_EQ(after.size(), before.size());
  int differing = 0;
  for (int y = 0; y < before.height(); ++y)
    for (int x = 0; x < before.width(); ++x)
      if (before.pixel(x, y) != after.pixel(x, y)) ++differing;
  EXPECT_EQ(differing, 0);
  delete second.Window;
  delete first.Window;
}

TEST_F(ImageViewerWindowTest, ATurnedPictureHasTheProfileColourAtItsPixelCentresAndLabelledAxes) {
  dynamic_cast<TDSpaceTransformation*>(FProject.FindData(FSpaceID))->ViewPort().SetRotation(0, 0, 30);
  auto* viewer = dynamic_cast<TVImageForm*>(ShowIDsInViewer(FProject, {FImageID}, TVImageForm::kClassName));
  ASSERT_NE(viewer, nullptr);
  viewer->GetCFI()->SetParameterValuesFromText({"ColorTable=Rainbow", "ShowCoordinateSystem=true"});
  viewer->SetColorScale(0, 191);
  ASSERT_TRUE(viewer->SetMarkerStart(2, 2));
  ASSERT_TRUE(viewer->SetBoxMarker(6, 5));
  const TShownViewer shown = ShowInWindow(viewer);
  ASSERT_NE(shown.Widget, nullptr);
  const QImage image = Grab(shown.Widget);
  Keep(image, "imageviewer-turned");
  const auto& profile = *dynamic_cast<TDColorProfile*>(FProject.FindData(viewer->GetColorProfileID()));
  for (const auto& [x, y] : std::vector<std::pair<int32_t, int32_t>>{
           {0, 0}, {15, 0}, {0, 11}, {15, 11}, {9, 7}, {8, 9}, {12, 3}, {1, 10}}) {
    const QPoint at = WindowPointOfPixel(FProject, FSpaceID, *viewer, x, y);
    EXPECT_TRUE(ColourNear(image, at, profile.GetColorsFromValue(191, 0, x + 16 * y)))
        << "pixel (" << x << ", " << y << ") at window " << at.x() << ", " << at.y();
  }
  // Turned by 30° (clockwise on screen, y running downwards): the last pixel of line 0 lies lower than
  // the first, and column 0's last pixel lies left of its first.
  const QPoint first = WindowPointOfPixel(FProject, FSpaceID, *viewer, 0, 0);
  const QPoint lineEnd = WindowPointOfPixel(FProject, FSpaceID, *viewer, 15, 0);
  const QPoint columnEnd = WindowPointOfPixel(FProject, FSpaceID, *viewer, 0, 11);
  EXPECT_GT(lineEnd.y(), first.y() + 20);
  EXPECT_LT(columnEnd.x(), first.x() - 10);
  // The box marker's edge (yellow) runs between the pixels of its first line and those above.
  double ax, ay, bx, by;
  PixelToWorld(FProject, FSpaceID, 3, 1.5, ax, ay);
  PixelToWorld(FProject, FSpaceID, 5, 1.5, bx, by);
  TOpenGLView& view = viewer->GetOpenGLView();
  int yellow = 0;
  for (double t = 0; t <= 1.0; t += 0.25) {
    const TOpenGLVector p =
        view.ProjectPoint(TVImageForm::WorldToModel(ax + t * (bx - ax), ay + t * (by - ay)));
    bool found = false;
    for (int dx = -1; dx <= 1 && !found; ++dx)
      for (int dy = -1; dy <= 1 && !found; ++dy) {
        const QPoint at(int(p.X) + dx, int(view.GetHeight() - p.Y) + dy);
        if (!image.rect().contains(at)) continue;
        const QColor c = image.pixelColor(at);
        found = c.red() > 200 && c.green() > 200 && c.blue() < 80;
      }
    yellow += found ? 1 : 0;
  }
  EXPECT_GE(yellow, 4);
  // Axis labels are drawn: dark pixels under the picture's box.
  EXPECT_GE(viewer->GetAxisLabels(false).size(), 2u);
  delete shown.Window;
}

// Browsing a map: a click on pixel (x, y) of the topography makes the graph viewer on the map show spectrum
// (x, y), and a step of the graph viewer's spectrum moves the image's cross along.
TEST(MapBrowsingWindowTest, AClickOnTheImageChoosesTheSpectrumAndAStepMovesTheCross) {
  RegisterDataClasses();
  RegisterViewers();
  oxtest::EnsureMemoryStrategy();
  TProject project;
  TDemoOptions options;
  options.SizeX = 12;
  options.SizeY = 8;
  options.SizeGraph = 64;
  const TDemoIDs ids = CreateDemoProject(project, options);
  auto graphOwned = std::make_unique<TVMultiGraphForm>();
  TVMultiGraphForm* graph = graphOwned.get();
  project.AddViewer(std::move(graphOwned));
  ASSERT_TRUE(graph->AddDataID(ids.Map));
  auto imageOwned = std::make_unique<TVImageForm>();
  TVImageForm* viewer = imageOwned.get();
  project.AddViewer(std::move(imageOwned));
  ASSERT_TRUE(viewer->AddDataID(ids.Topography));
  EXPECT_EQ(graph->GetSpaceCursorID(), viewer->GetSpaceCursorID()) << "one shared space cursor";
  const TShownViewer shown = ShowInWindow(viewer);
  ASSERT_NE(shown.Widget, nullptr);

  const auto* map = dynamic_cast<const TDGraph*>(project.FindData(ids.Map));
  ASSERT_NE(map, nullptr);
  std::vector<float> expected(64);
  const QPoint target = WindowPointOfPixel(project, ids.SpaceTransformation, *viewer, 9, 2);
  viewer->GetOpenGLView().MouseDown(target.x(), target.y(), TOpenGLMouseButton::Left, {});
  viewer->GetOpenGLView().MouseUp(target.x(), target.y(), TOpenGLMouseButton::Left, {});
  ASSERT_TRUE(graph->HasSpectrum(0));
  map->GetSpectrum(9, 2, expected.data());
  EXPECT_EQ(graph->GetShownSpectrum(0), expected) << "the graph viewer shows spectrum (9, 2)";

  graph->StepSpectrum(-1, 1);
  map->GetSpectrum(8, 3, expected.data());
  EXPECT_EQ(graph->GetShownSpectrum(0), expected);
  int32_t cx = -1, cy = -1;
  ASSERT_TRUE(viewer->GetCursorPixel(cx, cy));
  EXPECT_EQ(cx, 8);
  EXPECT_EQ(cy, 3);
  const QImage picture = Grab(shown.Widget);
  Keep(picture, "map-browsing");
  EXPECT_TRUE(CrossArmNear(picture, WindowPointOfPixel(project, ids.SpaceTransformation, *viewer, 8, 3) +
                                        QPoint(6, 0)));
  delete shown.Window;
}

} // namespace
