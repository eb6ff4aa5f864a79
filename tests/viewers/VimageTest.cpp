// The image viewer on a small calibrated image: the colour of every pixel is the profile's colour of its
// value, the automatic scale's percentiles and the 0.1 rule, NaN in the bottom colour, settings refused with
// their limits or choices, the file round trip of every field (draw field included), renumbering, the zoom
// window's extraction, and a click that moves the shared space cursor to the pixel's world position.
#include "viewers/Vimage.h"

#include "data/Dbitmap.h"
#include "data/Dcolorprofile.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "opengl/Openglobjects.h"
#include "project/Project.h"
#include "support/SpaceTransformation.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "viewers/Viewershow.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace {

constexpr int32_t kSizeX = 8;
constexpr int32_t kSizeY = 6;

class VimageTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    RegisterViewers();
    oxtest::EnsureMemoryStrategy();
    // Pixels of 0.5 × 0.25 µm; pixel (0, 0) at world (10, 20).
    FSpaceID = oxtest::AddSpaceTransformation(FProject, {0.5, 0.25, 1}, {10, 20, 0});
    FImageID = AddImage([](int32_t x, int32_t y) { return float(x + 10 * y); });
  }

  template <class F>
  int32_t AddImage(F value, int32_t sizeX = kSizeX, int32_t sizeY = kSizeY) {
    auto image = std::make_unique<TDImage>();
    image->SetID(FProject.GetNewDataID());
    image->SetCaption("Height");
    image->SetFieldSize(sizeX, sizeY);
    image->SetSpaceTransformationID(FSpaceID);
    std::vector<float> line(static_cast<size_t>(sizeX));
    for (int32_t y = 0; y < sizeY; ++y) {
      for (int32_t x = 0; x < sizeX; ++x) line[static_cast<size_t>(x)] = value(x, y);
      image->SetLine(y, line.data());
    }
    image->SetAllLinesValid();
    const int32_t id = image->GetID();
    FProject.AddData(std::move(image));
    return id;
  }

  TVImageForm* Show(const TIntList& ids) {
    auto* viewer = dynamic_cast<TVImageForm*>(ShowIDsInViewer(FProject, ids, TVImageForm::kClassName));
    if (viewer) viewer->GetOpenGLView().SetViewportSize(400, 300);
    return viewer;
  }
  TDImage& Image(int32_t id) { return *dynamic_cast<TDImage*>(FProject.FindData(id)); }
  TDColorProfile& Profile(const TVImageForm& viewer) {
    return *dynamic_cast<TDColorProfile*>(FProject.FindData(viewer.GetColorProfileID()));
  }
  std::string Set(TVImageForm& viewer, const std::vector<std::string>& settings) {
    const TUserParameterProblems problems = viewer.GetCFI()->SetParameterValuesFromText(settings);
    return problems.empty() ? std::string() : problems.front().Parameter + ": " + problems.front().Message;
  }

  oxtest::TempDir FDir;
  TProject FProject;
  int32_t FSpaceID = 0;
  int32_t FImageID = 0;
};

} // namespace

TEST_F(VimageTest, ShowTakesOneToNineteenImagesOrBitmaps) {
  TIntList nineteen(19, FImageID);
  EXPECT_TRUE(TVImageForm::IsInputIDListOkayForShowViewer(FProject, nineteen));
  nineteen.push_back(FImageID);
  EXPECT_FALSE(TVImageForm::IsInputIDListOkayForShowViewer(FProject, nineteen));
  EXPECT_FALSE(TVImageForm::IsInputIDListOkayForShowViewer(FProject, {}));
  EXPECT_FALSE(TVImageForm::IsInputIDListOkayForShowViewer(FProject, {FImageID, FSpaceID}));
  auto bitmap = TDBitmap::CreateNewBitmap(&FProject, 4, 3, TDataSaveMode::Always, "Video");
  const int32_t bitmapID = bitmap->GetID();
  FProject.AddData(std::move(bitmap));
  EXPECT_TRUE(TVImageForm::IsInputIDListOkayForShowViewer(FProject, {bitmapID, FImageID}));
  // The old class name opens this viewer.
  auto old = TVCustomForm::CreateViewerObjectByName("TVBitmapForm");
  ASSERT_NE(old, nullptr);
  EXPECT_EQ(old->GetClassNameA(), TVImageForm::kClassName);
}

TEST_F(VimageTest, EveryPixelHasTheProfileColourOfItsValue) {
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  ASSERT_NE(viewer->GetColorProfileID(), 0);
  const TDColorProfile& profile = Profile(*viewer);
  EXPECT_EQ(profile.GetCaption(), "Default Color Profile");
  EXPECT_EQ(profile.GetStandardColorTable(), TStandardColorProfileTable::Scan);
  EXPECT_EQ(profile.GetSaveMode(), TDataSaveMode::WhileUsed);
  EXPECT_TRUE(viewer->IsDataUsed(viewer->GetColorProfileID()));
  viewer->SetColorScale(3, 41);
  for (int32_t y = 0; y < kSizeY; ++y)
    for (int32_t x = 0; x < kSizeX; ++x)
      ASSERT_EQ(viewer->GetPixelColor(x, y), profile.GetColorsFromValue(41, 3, x + 10 * y)) << x << "," << y;
  // The texture holds the same colours, line 0 in texture row 0 (the mesh's first corner is the top).
  const TOpenGLMesh* mesh = viewer->GetImageMesh();
  ASSERT_NE(mesh, nullptr);
  const TOpenGLColor texel = const_cast<TOpenGLMesh*>(mesh)->ColorTexture().GetPixel(7, 0);
  const TColor expected = profile.GetColorsFromValue(41, 3, 7);
  EXPECT_EQ(std::lround(texel.R * 255), long(expected & 0xFF));
  EXPECT_EQ(std::lround(texel.G * 255), long((expected >> 8) & 0xFF));
  EXPECT_EQ(std::lround(texel.B * 255), long((expected >> 16) & 0xFF));
  // Top edge above the bottom edge in the view: line 0 on top.
  const TOpenGLVector top = viewer->GetOpenGLView().ProjectPoint(TVImageForm::WorldToModel(10, 20));
  const TOpenGLVector bottom = viewer->GetOpenGLView().ProjectPoint(TVImageForm::WorldToModel(10, 21));
  EXPECT_GT(top.Y, bottom.Y);

  // Another table through the settings recolours with it.
  EXPECT_EQ(Set(*viewer, {"ColorTable=Gray"}), "");
  EXPECT_EQ(Profile(*viewer).GetStandardColorTable(), TStandardColorProfileTable::Gray);
  EXPECT_EQ(viewer->GetPixelColor(5, 2), Profile(*viewer).GetColorsFromValue(41, 3, 25));
}

TEST_F(VimageTest, AutomaticScaleTakesThePercentilesAndKeepsAConstantImageApart) {
  // 0 … 47 over the pixels: 0.5 % and 99.5 % of 48 sorted values are indices 0 and 46.
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  const TImageExtrema& extrema = viewer->GetImageColorExtrema();
  ASSERT_TRUE(extrema.Valid);
  EXPECT_EQ(extrema.Sorted.size(), 48u);
  EXPECT_EQ(viewer->GetScaleMinimum(), 0.0);
  EXPECT_EQ(viewer->GetScaleMaximum(), 56.0) << "index 46 of the sorted values (0…7, 10…17, …, 50…57)";

  // Options of 50 and 50.05 % become 50 and 50.1 %.
  TVImageForm::Options() = {50, 50.05};
  viewer->AutomaticColorScale();
  TVImageForm::Options() = {};
  // Both percentages fall on index 23 (value 27): the equal limits are kept apart by 0.1.
  EXPECT_EQ(viewer->GetScaleMinimum(), 27.0);
  EXPECT_DOUBLE_EQ(viewer->GetScaleMaximum(), 27.1);

  const int32_t flat = AddImage([](int32_t, int32_t) { return 7.5f; });
  TVImageForm* other = Show({flat});
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->GetScaleMinimum(), 7.5);
  EXPECT_DOUBLE_EQ(other->GetScaleMaximum(), 7.6);
}

TEST_F(VimageTest, NaNAndInfinityAreLeftOutOfTheScaleAndShownInTheBottomColour) {
  const int32_t holes = AddImage([](int32_t x, int32_t y) {
    if (x == 2 && y == 3) return std::numeric_limits<float>::quiet_NaN();
    if (x == 4 && y == 1) return std::numeric_limits<float>::infinity();
    return float(x);
  });
  TVImageForm* viewer = Show({holes});
  ASSERT_NE(viewer, nullptr);
  EXPECT_EQ(viewer->GetImageColorExtrema().Sorted.size(), 46u);
  EXPECT_EQ(viewer->GetScaleMinimum(), 0.0);
  EXPECT_EQ(viewer->GetScaleMaximum(), 7.0);
  Profile(*viewer).SetWithExtraBottomColor(true);
  Profile(*viewer).SetBottomColor(0x00FF00);
  EXPECT_EQ(viewer->GetPixelColor(2, 3), 0x00FF00u);
  EXPECT_EQ(viewer->GetPixelColor(4, 1), 0x00FF00u);
  EXPECT_EQ(viewer->GetPixelColor(3, 3), Profile(*viewer).GetColorsFromValue(7, 0, 3));
}

TEST_F(VimageTest, ScaleKindsAndLineCorrectionChangeTheColours) {
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  viewer->SetColorScale(1, 57);
  const TColor linear = viewer->GetPixelColor(5, 0);
  EXPECT_EQ(Set(*viewer, {"ScaleKind=Logarithmic"}), "");
  EXPECT_EQ(viewer->GetScaleKind(), TImageScaleKind::Logarithmic);
  EXPECT_NE(viewer->GetPixelColor(5, 0), linear);
  EXPECT_EQ(viewer->GetPixelColor(5, 0), viewer->GetColorOfValue(5));
  EXPECT_EQ(Set(*viewer, {"ScaleKind=Linear", "LineCorrection=Sub Average"}), "");
  // Each line minus its mean (x + 10y - (3.5 + 10y)): every line has the same colours.
  EXPECT_DOUBLE_EQ(viewer->GetLineCorrectedZValue(6, 4), 2.5);
  for (int32_t y = 1; y < kSizeY; ++y) EXPECT_EQ(viewer->GetPixelColor(6, y), viewer->GetPixelColor(6, 0));
}

TEST_F(VimageTest, SettingsOutsideThePictureAreRefusedWithTheirLimits) {
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  std::string problem = Set(*viewer, {"CursorX=8"});
  EXPECT_NE(problem.find("0 to 7"), std::string::npos) << problem;
  problem = Set(*viewer, {"CursorY=-1"});
  EXPECT_NE(problem.find("0 to 5"), std::string::npos) << problem;
  problem = Set(*viewer, {"ZoomStartX=5", "ZoomStopX=2"});
  EXPECT_NE(problem.find("empty"), std::string::npos) << problem;
  int32_t sx, sy, ex, ey;
  viewer->GetZoomWindow(sx, sy, ex, ey);
  EXPECT_EQ(sx, 0) << "a refused set changes nothing";
  EXPECT_EQ(ex, 7);
  problem = Set(*viewer, {"ColorTable=Purple"});
  EXPECT_NE(problem.find("Rainbow2"), std::string::npos) << "names the choices: " << problem;
  problem = Set(*viewer, {"ScaleMinimum=9", "ScaleMaximum=9"});
  EXPECT_NE(problem.find("below"), std::string::npos) << problem;
  problem = Set(*viewer, {"DisplayMode=4D"});
  EXPECT_FALSE(problem.empty());

  // Several values that make a window together are taken in any order.
  EXPECT_EQ(Set(*viewer, {"ZoomStopX=3", "ZoomStartX=1", "ZoomStartY=2", "ZoomStopY=4"}), "");
  viewer->GetZoomWindow(sx, sy, ex, ey);
  EXPECT_EQ((std::vector<int32_t>{sx, sy, ex, ey}), (std::vector<int32_t>{1, 2, 3, 4}));
  EXPECT_FALSE(viewer->SetZoomWindow(3, 0, 2, 5));
  EXPECT_FALSE(viewer->SetZoomWindow(0, 0, 8, 5));
  EXPECT_EQ(Set(*viewer, {"CursorX=6", "CursorY=1"}), "");
  int32_t cx, cy;
  ASSERT_TRUE(viewer->GetCursorPixel(cx, cy));
  EXPECT_EQ(cx, 6);
  EXPECT_EQ(cy, 1);
}

TEST_F(VimageTest, EveryFieldRoundTripsThroughTheProjectFile) {
  const int32_t zImage = AddImage([](int32_t x, int32_t) { return float(x * x); });
  TVImageForm* viewer = Show({FImageID, zImage});
  ASSERT_NE(viewer, nullptr);
  EXPECT_EQ(viewer->GetImageZID(), zImage);
  EXPECT_EQ(
      Set(*viewer, {"ColorTable=Rainbow", "ScaleKind=Square Root", "LineCorrection=Sub Line",
                    "ShowCoordinateSystem=true", "ShowScaleBar=false", "InterpolatePixelColors=true",
                    "ZoomStartX=1", "ZoomStopX=6", "ZoomStartY=1", "ZoomStopY=4", "CursorX=2", "CursorY=3"}),
      "");
  viewer->SetColorScale(-2.5, 12.25);
  viewer->SetCameraByAngle(-30, 65);
  viewer->MakeDrawFieldImage();
  viewer->DrawField().SetLine(0, 0, 7, 5, true);
  viewer->DrawField().SetPixel(7, 0, true);
  const TImageDrawField drawField = viewer->DrawField();
  ASSERT_EQ(FProject.SaveProjectToFile(FDir.File("image.oxp")), teNoError);

  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(FDir.File("image.oxp")), teNoError);
  TVImageForm* again = nullptr;
  for (size_t i = 0; i < loaded.ViewerList().size(); ++i)
    if (auto* v = dynamic_cast<TVImageForm*>(loaded.GetViewer(i))) again = v;
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->GetImageColorID(), FImageID);
  EXPECT_EQ(again->GetImageZID(), zImage);
  EXPECT_EQ(again->GetColorProfileID(), viewer->GetColorProfileID());
  EXPECT_EQ(again->GetSpaceCursorID(), viewer->GetSpaceCursorID());
  EXPECT_EQ(
      dynamic_cast<TDColorProfile*>(loaded.FindData(again->GetColorProfileID()))->GetStandardColorTable(),
      TStandardColorProfileTable::Rainbow);
  EXPECT_EQ(again->GetScaleMinimum(), -2.5);
  EXPECT_EQ(again->GetScaleMaximum(), 12.25);
  EXPECT_EQ(again->GetScaleKind(), TImageScaleKind::SquareRoot);
  EXPECT_EQ(again->GetLineCorrection(), TLineCorrection::SubLine);
  EXPECT_TRUE(again->GetShowCoordinateSystem());
  EXPECT_FALSE(again->GetShowScaleBar());
  EXPECT_TRUE(again->GetInterpolatePixelColors());
  EXPECT_EQ(again->GetCameraPhi(), -30.0);
  EXPECT_EQ(again->GetCameraTheta(), 65.0);
  int32_t sx, sy, ex, ey;
  again->GetZoomWindow(sx, sy, ex, ey);
  EXPECT_EQ((std::vector<int32_t>{sx, sy, ex, ey}), (std::vector<int32_t>{1, 1, 6, 4}));
  int32_t cx, cy;
  ASSERT_TRUE(again->GetCursorPixel(cx, cy));
  EXPECT_EQ(cx, 2);
  EXPECT_EQ(cy, 3);
  EXPECT_EQ(again->DrawField(), drawField);
  EXPECT_EQ(again->GetCFI()->GetUserIntParameter(TVImageForm::kZoomStopX)->GetParameter(), 6);
  // The loaded viewer draws the same colours.
  for (int32_t y = 0; y < kSizeY; ++y)
    for (int32_t x = 0; x < kSizeX; ++x) ASSERT_EQ(again->GetPixelColor(x, y), viewer->GetPixelColor(x, y));

  // Without a draw field the field stays empty after a load.
  again->DeleteDrawField();
  ASSERT_EQ(loaded.SaveProjectToFile(FDir.File("empty.oxp")), teNoError);
  TProject third;
  ASSERT_EQ(third.LoadProjectFromFile(FDir.File("empty.oxp")), teNoError);
  int found = 0;
  for (size_t i = 0; i < third.ViewerList().size(); ++i) {
    if (auto* v = dynamic_cast<TVImageForm*>(third.GetViewer(i))) {
      ++found;
      EXPECT_FALSE(v->DrawField().Exists());
    }
  }
  EXPECT_EQ(found, 1);
}

TEST_F(VimageTest, RenumberingReachesEveryHeldID) {
  const int32_t zImage = AddImage([](int32_t x, int32_t) { return float(x); });
  const int32_t light = AddImage([](int32_t, int32_t y) { return float(y); });
  TVImageForm* viewer = Show({FImageID, zImage, light});
  ASSERT_NE(viewer, nullptr);
  EXPECT_EQ(viewer->GetImageBrightnessID(), light);
  const TIntList held = {FImageID, zImage, light, viewer->GetColorProfileID(), viewer->GetSpaceCursorID()};
  for (int32_t id : held) ASSERT_TRUE(viewer->IsDataUsed(id)) << id;
  viewer->AddToID(100);
  for (int32_t id : held) {
    EXPECT_FALSE(viewer->IsDataUsed(id)) << id;
    EXPECT_TRUE(viewer->IsDataUsed(id + 100)) << id;
  }
  for (int32_t id : held) viewer->ExchangeID(id + 100, id);
  for (int32_t id : held) EXPECT_TRUE(viewer->IsDataUsed(id)) << id;
  EXPECT_FALSE(viewer->IsDataUsed(0));
}

TEST_F(VimageTest, ZoomWindowExtractsAsAnImageAtItsWorldPosition) {
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  ASSERT_TRUE(viewer->SetZoomWindow(2, 1, 5, 3));
  std::string reason;
  const TIntList ids = viewer->ExtractViewerObjects(reason);
  ASSERT_EQ(ids.size(), 1u) << reason;
  const TDImage& zoom = Image(ids.front());
  EXPECT_EQ(zoom.GetCaption(), "Height (Zoom)");
  ASSERT_EQ(zoom.GetSizeX(), 4);
  ASSERT_EQ(zoom.GetSizeY(), 3);
  for (int32_t y = 0; y < 3; ++y)
    for (int32_t x = 0; x < 4; ++x) EXPECT_EQ(zoom.GetField(x, y), float(x + 2 + 10 * (y + 1)));
  double wx, wy, ox, oy;
  PixelToWorld(FProject, zoom.GetSpaceTransformationID(), 0, 0, wx, wy);
  PixelToWorld(FProject, FSpaceID, 2, 1, ox, oy);
  EXPECT_DOUBLE_EQ(wx, ox);
  EXPECT_DOUBLE_EQ(wy, oy);
  EXPECT_NE(zoom.GetSpaceTransformationID(), FSpaceID) << "the source's transformation stays as it was";

  // A viewer whose image went keeps standing, empty, and extracts nothing.
  ASSERT_TRUE(FProject.DeleteData(FImageID));
  EXPECT_EQ(viewer->GetImageColorID(), 0);
  EXPECT_TRUE(viewer->ExtractViewerObjects(reason).empty());
  EXPECT_FALSE(reason.empty());
  EXPECT_EQ(FProject.SaveProjectToFile(FDir.File("empty-viewer.oxp")), teNoError);
}

TEST_F(VimageTest, AClickMovesTheSharedCursorToThePixelsWorldPosition) {
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  TOpenGLView& view = viewer->GetOpenGLView();
  double wx, wy;
  PixelToWorld(FProject, FSpaceID, 3, 2, wx, wy);
  // The window point over the pixel, a little off its centre.
  const TOpenGLVector p = view.ProjectPoint(TVImageForm::WorldToModel(wx + 0.1, wy + 0.05));
  const int x = static_cast<int>(p.X), y = static_cast<int>(view.GetHeight() - p.Y);
  view.MouseDown(x, y, TOpenGLMouseButton::Left, {});
  view.MouseUp(x, y, TOpenGLMouseButton::Left, {});
  auto* cursor = dynamic_cast<TDCursor*>(FProject.FindData(viewer->GetSpaceCursorID()));
  ASSERT_NE(cursor, nullptr);
  EXPECT_EQ(cursor->GetClassNameA(), TDSpaceCursor::kClassName);
  EXPECT_DOUBLE_EQ(cursor->GetPosition(0), wx);
  EXPECT_DOUBLE_EQ(cursor->GetPosition(1), wy);
  EXPECT_EQ(FProject.GetNumberOfLockCursors(), 0) << "the lock is held only while the button is down";
  ASSERT_NE(viewer->GetCursorMarker(), nullptr);
  EXPECT_TRUE(viewer->GetCursorMarker()->GetVisible());
  EXPECT_EQ(viewer->GetCursorMarker()->GetShape(), TMarkerShape::Cross);
  EXPECT_DOUBLE_EQ(viewer->GetCursorMarker()->GetPosition().X, wx);
  EXPECT_DOUBLE_EQ(viewer->GetCursorMarker()->GetPosition().Y, -wy);
  EXPECT_EQ(viewer->GetCFI()->GetUserIntParameter(TVImageForm::kCursorX)->GetParameter(), 3);

  // Another viewer of the same space shares the cursor; the arrow key steps one line down.
  TVImageForm* second = Show({FImageID});
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->GetSpaceCursorID(), viewer->GetSpaceCursorID());
  EXPECT_TRUE(second->GetOpenGLView().KeyDown(TOpenGLKey::Down, 0, {}));
  int32_t cx, cy;
  ASSERT_TRUE(viewer->GetCursorPixel(cx, cy));
  EXPECT_EQ(cx, 3);
  EXPECT_EQ(cy, 3);
  EXPECT_DOUBLE_EQ(viewer->GetCursorMarker()->GetPosition().Y, -(wy + 0.25));

  // A cursor outside the picture hides the cross; a click outside moves nothing.
  cursor->SetPosition(0, -100);
  EXPECT_FALSE(viewer->GetCursorPixel(cx, cy));
  EXPECT_FALSE(viewer->GetCursorMarker()->GetVisible());
  view.MouseDown(1, 1, TOpenGLMouseButton::Left, {});
  view.MouseUp(1, 1, TOpenGLMouseButton::Left, {});
  EXPECT_EQ(cursor->GetPosition(0), -100.0);
}

TEST_F(VimageTest, DrawingWithThePenAndZoomingWithTheMouse) {
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  TOpenGLView& view = viewer->GetOpenGLView();
  const auto windowOf = [&](int32_t px, int32_t py, int& x, int& y) {
    double wx, wy;
    PixelToWorld(FProject, FSpaceID, px, py, wx, wy);
    const TOpenGLVector p = view.ProjectPoint(TVImageForm::WorldToModel(wx, wy));
    x = static_cast<int>(p.X);
    y = static_cast<int>(view.GetHeight() - p.Y);
  };
  int x1, y1, x2, y2;
  windowOf(1, 1, x1, y1);
  windowOf(5, 1, x2, y2);
  viewer->SetImageMouseMode(TImageMouseMode::DrawPen);
  view.MouseDown(x1, y1, TOpenGLMouseButton::Left, {});
  view.MouseMove(x2, y2, {});
  view.MouseUp(x2, y2, TOpenGLMouseButton::Left, {});
  ASSERT_TRUE(viewer->DrawField().Exists());
  EXPECT_EQ(viewer->DrawField().GetNumberOfPixels(true), 5);
  viewer->SetImageMouseMode(TImageMouseMode::DrawErase);
  view.MouseDown(x1, y1, TOpenGLMouseButton::Left, {});
  view.MouseUp(x1, y1, TOpenGLMouseButton::Left, {});
  EXPECT_EQ(viewer->DrawField().GetNumberOfPixels(true), 4);

  viewer->SetNextImageMouseMode(); // after the eraser: the box marker, and after the circle the cursor again
  EXPECT_EQ(viewer->GetImageMouseMode(), TImageMouseMode::BoxMarker);
  viewer->SetImageMouseMode(TImageMouseMode::CircleMarker);
  viewer->SetNextImageMouseMode();
  EXPECT_EQ(viewer->GetImageMouseMode(), TImageMouseMode::Cursor);
  viewer->SetImageMouseMode(TImageMouseMode::Zoom);
  windowOf(2, 1, x1, y1);
  windowOf(4, 3, x2, y2);
  view.MouseDown(x2, y2, TOpenGLMouseButton::Left, {});
  view.MouseMove(x1, y1, {});
  view.MouseUp(x1, y1, TOpenGLMouseButton::Left, {});
  int32_t sx, sy, ex, ey;
  viewer->GetZoomWindow(sx, sy, ex, ey);
  EXPECT_EQ((std::vector<int32_t>{sx, sy, ex, ey}), (std::vector<int32_t>{2, 1, 4, 3}));
  view.MouseDown(10, 10, TOpenGLMouseButton::Right, {});
  viewer->GetZoomWindow(sx, sy, ex, ey);
  EXPECT_EQ((std::vector<int32_t>{sx, sy, ex, ey}), (std::vector<int32_t>{0, 0, 7, 5}));
}

TEST_F(VimageTest, ThreeDimensionalDisplayRaisesTheMeshByTheHeightImage) {
  const int32_t zImage = AddImage([](int32_t x, int32_t) { return float(x); });
  TVImageForm* viewer = Show({FImageID, zImage});
  ASSERT_NE(viewer, nullptr);
  EXPECT_EQ(Set(*viewer, {"DisplayMode=3D"}), "");
  TOpenGLMesh* mesh = viewer->GetImageMesh();
  ASSERT_NE(mesh, nullptr);
  EXPECT_TRUE(mesh->GetUseZValues());
  EXPECT_EQ(mesh->GetZValue(0, 2), 0.0);
  EXPECT_GT(mesh->GetZValue(7, 2), mesh->GetZValue(3, 2));
  EXPECT_DOUBLE_EQ(mesh->GetZValue(3, 0), mesh->GetZValue(3, 5)) << "heights follow the height image";
  EXPECT_EQ(viewer->GetOpenGLView().GetProjectionType(), TOpenGLProjectionType::Perspective);
  EXPECT_FALSE(viewer->GetCursorMarker()->GetVisible());
  EXPECT_EQ(Set(*viewer, {"DisplayMode=2D"}), "");
  EXPECT_FALSE(viewer->GetImageMesh()->GetUseZValues());
  EXPECT_EQ(viewer->GetOpenGLView().GetProjectionType(), TOpenGLProjectionType::Orthographic);
}

TEST_F(VimageTest, AxisTicksAreLabelledWithTheWorldCoordinateWhereTheyStand) {
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  EXPECT_TRUE(viewer->GetAxisLabels(false).empty()) << "no axes without the coordinate system";
  ASSERT_EQ(Set(*viewer, {"ShowCoordinateSystem=true"}), "");
  // World x of the picture runs from 9.75 to 13.75 µm, world y from 19.875 to 21.375 µm.
  for (const bool yAxis : {false, true}) {
    const auto labels = viewer->GetAxisLabels(yAxis);
    ASSERT_GE(labels.size(), 2u) << (yAxis ? "y" : "x");
    double previous = -1e300;
    for (const TOpenGLText* label : labels) {
      const double value = std::stod(label->GetText());
      // Each label stands beside the point of the axis with its value: model x is world x, model y is
      // minus world y.
      const double at = yAxis ? -label->GetPosition().Y : label->GetPosition().X;
      EXPECT_NEAR(at, value, 1e-9) << label->GetText();
      EXPECT_GT(value, previous);
      previous = value;
      if (yAxis) {
        EXPECT_GE(value, 19.875 - 1e-9);
        EXPECT_LE(value, 21.375 + 1e-9);
      } else {
        EXPECT_GE(value, 9.75 - 1e-9);
        EXPECT_LE(value, 13.75 + 1e-9);
      }
    }
  }
  ASSERT_EQ(Set(*viewer, {"ShowCoordinateSystem=false"}), "");
  EXPECT_TRUE(viewer->GetAxisLabels(true).empty());
}

TEST_F(VimageTest, ATurnedSpaceTransformationTurnsThePicture) {
  auto* space = dynamic_cast<TDSpaceTransformation*>(FProject.FindData(FSpaceID));
  space->ViewPort().SetRotation(0, 0, 30);
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  // The picture's box in the model is the box of its four turned corners, not the unturned rectangle.
  TOpenGLBox expected;
  for (const auto& [px, py] : std::vector<std::pair<double, double>>{
           {-0.5, -0.5}, {kSizeX - 0.5, -0.5}, {kSizeX - 0.5, kSizeY - 0.5}, {-0.5, kSizeY - 0.5}}) {
    double wx, wy;
    PixelToWorld(FProject, FSpaceID, px, py, wx, wy);
    expected.Add(TVImageForm::WorldToModel(wx, wy));
  }
  const TOpenGLBox box = viewer->GetImageMesh()->GetBoundingBox();
  EXPECT_NEAR(box.Min.X, expected.Min.X, 1e-9);
  EXPECT_NEAR(box.Max.X, expected.Max.X, 1e-9);
  EXPECT_NEAR(box.Min.Y, expected.Min.Y, 1e-9);
  EXPECT_NEAR(box.Max.Y, expected.Max.Y, 1e-9);
  // The mesh's own first corner lies on the world corner of pixel (0, 0).
  double wx, wy;
  PixelToWorld(FProject, FSpaceID, -0.5, -0.5, wx, wy);
  const TOpenGLVector first = viewer->GetImageMesh()->ModelTransform().TransformPoint({0, 0, 0});
  EXPECT_NEAR(first.X, wx, 1e-9);
  EXPECT_NEAR(first.Y, -wy, 1e-9);
  // A click still lands on the pixel under it.
  TOpenGLView& view = viewer->GetOpenGLView();
  PixelToWorld(FProject, FSpaceID, 6, 4, wx, wy);
  const TOpenGLVector p = view.ProjectPoint(TVImageForm::WorldToModel(wx, wy));
  int32_t x, y;
  ASSERT_TRUE(viewer->WindowToPixel(int(p.X), int(view.GetHeight() - p.Y), x, y));
  EXPECT_EQ(x, 6);
  EXPECT_EQ(y, 4);
}

TEST_F(VimageTest, BoxLineAndCircleMarkersAndTheirWorldSizes) {
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  EXPECT_EQ(viewer->GetMarkerKind(), TImageMarkerKind::None);
  EXPECT_TRUE(viewer->GetMarkerOutline().empty());
  ASSERT_TRUE(viewer->SetMarkerStart(1, 1));
  ASSERT_TRUE(viewer->SetBoxMarker(4, 2));
  // Pixels 1..4 by 1..2: 4 × 0.5 µm wide, 2 × 0.25 µm high; corners on the outer pixel edges.
  double w, h;
  viewer->GetMarkerWorldSize(w, h);
  EXPECT_NEAR(w, 2.0, 1e-12);
  EXPECT_NEAR(h, 0.5, 1e-12);
  const auto box = viewer->GetMarkerOutline();
  ASSERT_EQ(box.size(), 4u);
  EXPECT_NEAR(box[0].X, 10 + 0.5 * 0.5, 1e-12);
  EXPECT_NEAR(box[0].Y, -(20 + 0.5 * 0.25), 1e-12);
  EXPECT_NEAR(box[2].X, 10 + 4.5 * 0.5, 1e-12);
  EXPECT_NEAR(box[2].Y, -(20 + 2.5 * 0.25), 1e-12);

  ASSERT_TRUE(viewer->SetLineMarker(5, 5)); // from (1, 1): 4 × 0.5 by 4 × 0.25
  viewer->GetMarkerWorldSize(w, h);
  EXPECT_NEAR(w, std::hypot(2.0, 1.0), 1e-12);
  EXPECT_EQ(viewer->GetMarkerOutline().size(), 2u);
  EXPECT_FALSE(viewer->SetCircleMarker(8, 0)) << "outside the picture";
  EXPECT_EQ(viewer->GetMarkerKind(), TImageMarkerKind::Line);
  ASSERT_TRUE(viewer->SetCircleMarker(3, 1));
  viewer->GetMarkerWorldSize(w, h);
  EXPECT_NEAR(w, 1.0, 1e-12) << "radius: two pixels of 0.5 µm";
  viewer->HideMarker();
  EXPECT_TRUE(viewer->GetMarkerOutline().empty());

  // Dragging in the box mode stretches the box from the pressed pixel.
  TOpenGLView& view = viewer->GetOpenGLView();
  const auto windowOf = [&](int32_t px, int32_t py) {
    double wx, wy;
    PixelToWorld(FProject, FSpaceID, px, py, wx, wy);
    const TOpenGLVector p = view.ProjectPoint(TVImageForm::WorldToModel(wx, wy));
    return std::pair<int, int>(int(p.X), int(view.GetHeight() - p.Y));
  };
  viewer->SetImageMouseMode(TImageMouseMode::BoxMarker);
  const auto [ax, ay] = windowOf(6, 4);
  const auto [bx, by] = windowOf(2, 1);
  view.MouseDown(ax, ay, TOpenGLMouseButton::Left, {});
  view.MouseMove(bx, by, {});
  view.MouseUp(bx, by, TOpenGLMouseButton::Left, {});
  int32_t x0, y0, x1, y1;
  viewer->GetMarkerPixels(x0, y0, x1, y1);
  EXPECT_EQ((std::vector<int32_t>{x0, y0, x1, y1}), (std::vector<int32_t>{6, 4, 2, 1}));
  EXPECT_EQ(viewer->GetMarkerKind(), TImageMarkerKind::Box);
}

TEST_F(VimageTest, TransformationOutlinesFollowTheirObjectsAndRoundTrip) {
  // A second area: a 4 × 2 pixel image of 1 µm pixels at world (11, 20.5).
  const int32_t otherID = oxtest::AddSpaceTransformation(FProject, {1, 1, 1}, {11, 20.5, 0});
  const int32_t savedSpace = FSpaceID;
  FSpaceID = otherID;
  AddImage([](int32_t, int32_t) { return 0.0f; }, 4, 2);
  FSpaceID = savedSpace;

  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  EXPECT_FALSE(viewer->AddTransformationID(FImageID)) << "only transformations";
  ASSERT_TRUE(viewer->AddDataID(otherID)) << "a transformation dropped on the view becomes an outline";
  ASSERT_TRUE(viewer->AddTransformationID(otherID));
  EXPECT_EQ(viewer->GetTransformationIDs(), (TIntList{otherID}));
  const auto outline = viewer->GetTransformationOutline(otherID);
  ASSERT_EQ(outline.size(), 4u);
  EXPECT_NEAR(outline[0].X, 10.5, 1e-12);
  EXPECT_NEAR(outline[0].Y, -20.0, 1e-12);
  EXPECT_NEAR(outline[2].X, 14.5, 1e-12);
  EXPECT_NEAR(outline[2].Y, -22.0, 1e-12);
  EXPECT_TRUE(viewer->IsDataUsed(viewer->GetImageColorID()));

  ASSERT_EQ(FProject.SaveProjectToFile(FDir.File("outlines.oxp")), teNoError);
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(FDir.File("outlines.oxp")), teNoError);
  TVImageForm* again = nullptr;
  for (size_t i = 0; i < loaded.ViewerList().size(); ++i)
    if (auto* v = dynamic_cast<TVImageForm*>(loaded.GetViewer(i))) again = v;
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->GetTransformationIDs(), (TIntList{otherID}));
  again->AddToID(100);
  EXPECT_EQ(again->GetTransformationIDs(), (TIntList{otherID + 100}));
  again->ExchangeID(otherID + 100, 7);
  EXPECT_EQ(again->GetTransformationIDs(), (TIntList{7}));

  // Deleting the transformation takes its outline away.
  ASSERT_TRUE(FProject.DeleteData(otherID));
  EXPECT_TRUE(viewer->GetTransformationIDs().empty());
}

TEST_F(VimageTest, ATallWindowKeepsTheWorldsAspectAndLeavesBandsOnlyAboveAndBelow) {
  // The picture is 4 × 1.5 µm: in a tall window it takes the whole width left by the margins (8 pixels on
  // the left, the scale bar's 96 on the right) and is centred vertically at its own aspect ratio.
  TVImageForm* viewer = Show({FImageID});
  ASSERT_NE(viewer, nullptr);
  TOpenGLView& view = viewer->GetOpenGLView();
  view.SetViewportSize(300, 900);
  double ax, ay, bx, by;
  PixelToWorld(FProject, FSpaceID, -0.5, -0.5, ax, ay);
  PixelToWorld(FProject, FSpaceID, kSizeX - 0.5, kSizeY - 0.5, bx, by);
  const TOpenGLVector a = view.ProjectPoint(TVImageForm::WorldToModel(ax, ay));
  const TOpenGLVector b = view.ProjectPoint(TVImageForm::WorldToModel(bx, by));
  EXPECT_NEAR(a.X, 8, 0.5);
  EXPECT_NEAR(b.X, 300 - 96, 0.5);
  EXPECT_NEAR((b.X - a.X) / (a.Y - b.Y), 4.0 / 1.5, 1e-6);
  EXPECT_NEAR((a.Y + b.Y) / 2, 450, 0.5);
}

TEST_F(VimageTest, SynchronisedZoomShowsTheSameWorldAreaInTheOtherViewer) {
  // A second image of the same area with pixels half as large: 16 × 12 pixels of 0.25 × 0.125 µm whose
  // pixel (0, 0) lies at world (9.875, 19.9375), so that its pixel edges meet the first image's.
  const int32_t fineID = oxtest::AddSpaceTransformation(FProject, {0.25, 0.125, 1}, {9.875, 19.9375, 0});
  const int32_t savedSpace = FSpaceID;
  FSpaceID = fineID;
  const int32_t fineImage = AddImage([](int32_t x, int32_t y) { return float(x * y); }, 16, 12);
  FSpaceID = savedSpace;

  TVImageForm* coarse = Show({FImageID});
  TVImageForm* detailed = Show({fineImage});
  TVImageForm* apart = Show({fineImage});
  ASSERT_TRUE(coarse && detailed && apart);
  coarse->ChangeSynchronizedZoomActive(true);
  detailed->ChangeSynchronizedZoomActive(true);
  ASSERT_TRUE(coarse->SetZoomWindow(2, 1, 5, 3));
  int32_t sx, sy, ex, ey;
  detailed->GetZoomWindow(sx, sy, ex, ey);
  EXPECT_EQ((std::vector<int32_t>{sx, sy, ex, ey}), (std::vector<int32_t>{4, 2, 11, 7}));
  apart->GetZoomWindow(sx, sy, ex, ey);
  EXPECT_EQ((std::vector<int32_t>{sx, sy, ex, ey}), (std::vector<int32_t>{0, 0, 15, 11}))
      << "not synchronised";
  // And back: the coarse viewer follows the detailed one.
  ASSERT_TRUE(detailed->SetZoomWindow(0, 0, 3, 1));
  coarse->GetZoomWindow(sx, sy, ex, ey);
  EXPECT_EQ((std::vector<int32_t>{sx, sy, ex, ey}), (std::vector<int32_t>{0, 0, 1, 0}));
  detailed->GetZoomWindow(sx, sy, ex, ey);
  EXPECT_EQ((std::vector<int32_t>{sx, sy, ex, ey}), (std::vector<int32_t>{0, 0, 3, 1})) << "no echo back";
}
