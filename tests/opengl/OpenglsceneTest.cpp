// The scene without a rendering context: matrices and the coordinate maps of the view, the camera's moves,
// the object tree (picking names, change reports, passes, bounding boxes), repaint requests, fitting.
#include "opengl/Openglgraph.h"
#include "opengl/Openglobjects.h"
#include "opengl/Openglview.h"

#include <cmath>
#include <stdexcept>

#include <gtest/gtest.h>

namespace {

void ExpectNear(const TOpenGLVector& a, const TOpenGLVector& b, double tolerance = 1e-9) {
  EXPECT_NEAR(a.X, b.X, tolerance);
  EXPECT_NEAR(a.Y, b.Y, tolerance);
  EXPECT_NEAR(a.Z, b.Z, tolerance);
}

/// A context that only counts what the view asks of it.
class TRecordingContext : public IOpenGLContext {
public:
  bool MakeCurrent() override { return false; }
  void DoneCurrent() override {}
  int GetWidth() const override { return 400; }
  int GetHeight() const override { return 300; }
  void ScheduleRepaint(int delayMs) override {
    ++Repaints;
    LastDelay = delayMs;
  }
  void SetContinuousRepaint(bool on) override { Continuous = on; }
  bool BeginOffscreen(int, int) override { return false; }
  void EndOffscreen() override {}
  IGlyphRasterizer* GetGlyphRasterizer() override { return nullptr; }
  void ViewDestroyed() override { ++Destroyed; }
  int Repaints = 0;
  int LastDelay = -1;
  bool Continuous = false;
  int Destroyed = 0;
};

TEST(OpenGLMatrixTest, InverseUndoesTransformsAndSingularIsRefused) {
  const TOpenGLMatrix m = TOpenGLMatrix::Translation({3, -2, 5}) * TOpenGLMatrix::Rotation(30, {1, 2, 3}) *
                          TOpenGLMatrix::Scaling({2, 0.5, 4});
  TOpenGLMatrix inverse;
  ASSERT_TRUE(m.Inverse(inverse));
  const TOpenGLVector p{1.5, -7, 0.25};
  ExpectNear(inverse.TransformPoint(m.TransformPoint(p)), p);
  // 90° about z turns x into y.
  ExpectNear(TOpenGLMatrix::Rotation(90, {0, 0, 1}).TransformPoint({1, 0, 0}), {0, 1, 0});
  EXPECT_FALSE(TOpenGLMatrix::Scaling({1, 0, 1}).Inverse(inverse));
}

TEST(OpenGLViewTest, PixelVolumeMapsModelUnitsToWindowPixels) {
  TOpenGLView view;
  view.SetViewportSize(400, 300);
  // Model (x, y) lies at OpenGL window (x, y): y up from the bottom. The camera stands at z = 1, the depth
  // range is -1000…1000 from it.
  ExpectNear(view.ProjectPoint({120, 40, 0}), {120, 40, 0.5005}, 1e-9);
  // Window coordinates run down from the top.
  TOpenGLVector model;
  ASSERT_TRUE(view.CalculateMouseCoordinates(120, 260, model));
  ExpectNear(model, {120, 40, 0}, 1e-9);
  // A camera moved by (50, 10) shows model x 50 at the left edge.
  view.Camera().MoveBy({50, 10, 0});
  ASSERT_TRUE(view.CalculateMouseCoordinates(0, 300, model));
  ExpectNear(model, {50, 10, 0}, 1e-9);
}

TEST(OpenGLViewTest, UnProjectInvertsProjectInPerspectiveAndOrthographicVolumes) {
  TOpenGLView view;
  view.SetViewportSize(640, 480);
  view.SetOrthographicVolume(-5, 5, -2, 8);
  const TOpenGLVector p{1.25, 3.5, 0.75};
  TOpenGLVector back;
  TOpenGLVector w = view.ProjectPoint(p);
  ASSERT_TRUE(view.UnProjectPoint(w.X, w.Y, w.Z, back));
  ExpectNear(back, p, 1e-9);

  view.SetProjectionType(TOpenGLProjectionType::Perspective);
  view.Camera().SetPosition({0, 0, 20});
  view.Camera().LookDistance = 20;
  view.SetDepthRange(1, 100);
  w = view.ProjectPoint(p);
  ASSERT_TRUE(view.UnProjectPoint(w.X, w.Y, w.Z, back));
  ExpectNear(back, p, 1e-6);
  // The line of sight through that pixel meets the plane z = 0.75 at p.
  TOpenGLVector onPlane;
  ASSERT_TRUE(view.ProjectPlane(w.X, 480 - w.Y, 0.75, onPlane));
  ExpectNear(onPlane, p, 1e-6);
}

TEST(OpenGLCameraTest, OrbitsKeepTheTargetAndDistance) {
  TOpenGLCamera camera;
  camera.SetPosition({0, 0, 10});
  camera.LookDistance = 10;
  const TOpenGLVector target = camera.Target();
  ExpectNear(target, {0, 0, 0});
  camera.RotateInSurface(-60, 30);
  ExpectNear(camera.Target(), target, 1e-9);
  EXPECT_NEAR((camera.GetPosition() - target).Length(), 10, 1e-9);
  camera.RotateByUpVector(45);
  ExpectNear(camera.Target(), target, 1e-9);
  camera.MoveInViewLine(4);
  ExpectNear(camera.Target(), target, 1e-9);
  EXPECT_NEAR(camera.LookDistance, 6, 1e-9);
  // Looking from a new place at a point sets angles and distance for it.
  camera.SetPosition({3, 4, 0});
  camera.UpdateCamera({0, 0, 0});
  EXPECT_NEAR(camera.LookDistance, 5, 1e-12);
  ExpectNear(camera.Target(), {0, 0, 0}, 1e-9);
  // Rolling turns the up vector about the view line and keeps it a unit vector at right angles to it.
  camera.RotateByViewLine(90);
  EXPECT_NEAR(camera.UpVector.Length(), 1, 1e-12);
}

TEST(OpenGLObjectTest, SceneGivesUniquePickingNamesAndFindsObjects) {
  TOpenGLView view;
  auto* a = view.AddObject(std::make_unique<TOpenGLObject>());
  auto parent = std::make_unique<TOpenGLObject>();
  TOpenGLObject* child = parent->AddObject(std::make_unique<TOpenGLObject>());
  auto* b = view.AddObject(std::move(parent));
  auto fixed = std::make_unique<TOpenGLObject>();
  fixed->SetIDNumber(1000);
  view.AddObject(std::move(fixed));
  EXPECT_NE(a->GetIDNumber(), 0u);
  EXPECT_NE(b->GetIDNumber(), a->GetIDNumber());
  EXPECT_NE(child->GetIDNumber(), b->GetIDNumber());
  EXPECT_NE(child->GetIDNumber(), 0u);
  EXPECT_EQ(view.FindByIDNumber(child->GetIDNumber()), child);
  EXPECT_EQ(view.FindByIDNumber(1000)->GetIDNumber(), 1000u);
  EXPECT_EQ(child->GetView(), &view);
  // Removed objects leave the scene with their children.
  std::unique_ptr<TOpenGLObject> removed = view.RemoveObject(b);
  ASSERT_EQ(removed.get(), b);
  EXPECT_EQ(child->GetView(), nullptr);
  EXPECT_EQ(view.FindByIDNumber(child->GetIDNumber()), nullptr);
  EXPECT_EQ(view.RemoveObject(b), nullptr);
}

TEST(OpenGLObjectTest, SettersReportRealChangesOnly) {
  TOpenGLObject object;
  int changes = 0;
  object.OnChange = [&](TOpenGLObject*) { ++changes; };
  object.SetColor({1, 0, 0, 1});
  object.SetColor({1, 0, 0, 1});
  object.SetLineWidth(2);
  object.SetLineWidth(2);
  object.SetVisible(false);
  object.SetPosition({1, 2, 3});
  EXPECT_EQ(changes, 4);
}

TEST(OpenGLObjectTest, AlphaChoosesThePassAndSelectionTheColour) {
  TOpenGLObject object;
  object.SetColor({1, 0, 0, 1});
  EXPECT_TRUE(object.BelongsToPass(true));
  EXPECT_FALSE(object.BelongsToPass(false));
  object.SetColor({1, 0, 0, 0.5f});
  EXPECT_FALSE(object.BelongsToPass(true));
  EXPECT_TRUE(object.BelongsToPass(false));
  object.SetRenderInBothPasses(true);
  EXPECT_TRUE(object.BelongsToPass(true));
  // A selected object shows (and is sorted by) its selected colour.
  object.SetRenderInBothPasses(false);
  object.SetSelectedColor({0, 1, 0, 1});
  object.SetSelected(true);
  EXPECT_EQ(object.CurrentColor(), (TOpenGLColor{0, 1, 0, 1}));
  EXPECT_TRUE(object.BelongsToPass(true));
}

TEST(OpenGLObjectTest, BoundingBoxFollowsPositionRotationAndScale) {
  auto cube = std::make_unique<TOpenGLCube>();
  cube->SetSize({2, 4, 6});
  cube->SetScale({2, 1, 1});
  cube->SetRotation({0, 0, 90});
  cube->SetPosition({10, 0, 0});
  // Scaled to 4 × 4 × 6 about the origin, turned by 90° about z (x and y exchange), moved by 10 in x.
  const TOpenGLBox box = cube->GetBoundingBox();
  ExpectNear(box.Min, {8, -2, -3});
  ExpectNear(box.Max, {12, 2, 3});
  TOpenGLView view;
  view.AddObject(std::move(cube));
  auto hidden = std::make_unique<TOpenGLCube>();
  hidden->SetPosition({1000, 0, 0});
  hidden->SetVisible(false);
  view.AddObject(std::move(hidden));
  const TOpenGLBox all = view.FindBoundingBox();
  ExpectNear(all.Max, {12, 2, 3});
}

TEST(OpenGLViewTest, ChangesRepaintOnlyWhileActiveAndWithAutoUpdate) {
  TRecordingContext context;
  {
    TOpenGLView view;
    TOpenGLObject* object = view.AddObject(std::make_unique<TOpenGLObject>());
    view.InitOpenGL(&context);
    EXPECT_EQ(context.Repaints, 0);
    view.SetRepaintDelay(40);
    view.Activate();
    const int afterActivate = context.Repaints;
    EXPECT_GE(afterActivate, 1);
    object->SetLineWidth(3);
    EXPECT_EQ(context.Repaints, afterActivate + 1);
    EXPECT_EQ(context.LastDelay, 40);
    view.SetAutoUpdate(false);
    object->SetLineWidth(4);
    EXPECT_EQ(context.Repaints, afterActivate + 1);
    view.SetAutoUpdate(true);
    view.Deactivate();
    object->SetLineWidth(5);
    EXPECT_EQ(context.Repaints, afterActivate + 1);
    view.SetContinuousUpdate(true);
    EXPECT_TRUE(context.Continuous);
    EXPECT_THROW(view.SetPickAreaSize(0), std::exception);
    view.SetPickAreaSize(1);
    EXPECT_EQ(view.GetPickAreaSize(), 1);
  }
  // A view that goes tells its host.
  EXPECT_EQ(context.Destroyed, 1);
}

TEST(OpenGLViewTest, FitCameraShowsTheWholeSceneWithTheWindowsAspect) {
  TOpenGLView view;
  view.SetViewportSize(400, 200);
  auto plane = std::make_unique<TOpenGLFlatPlane>();
  plane->SetSize(100, 100);
  plane->SetPosition({-50, 10, 0});
  view.AddObject(std::move(plane));
  view.FitCamera();
  // The box is 100 × 100; a 2:1 window shows 200 × 100 around its centre (0, 60).
  TOpenGLVector corner;
  ASSERT_TRUE(view.CalculateMouseCoordinates(0, 200, corner));
  ExpectNear(corner, {-100, 10, 0}, 1e-9);
  ASSERT_TRUE(view.CalculateMouseCoordinates(400, 0, corner));
  ExpectNear(corner, {100, 110, 0}, 1e-9);

  view.SetProjectionType(TOpenGLProjectionType::Perspective);
  view.FitCamera();
  // Every corner of the box projects inside the window.
  const TOpenGLBox box = view.FindBoundingBox();
  for (int i = 0; i < 8; ++i) {
    const TOpenGLVector w = view.ProjectPoint(
        {i & 1 ? box.Max.X : box.Min.X, i & 2 ? box.Max.Y : box.Min.Y, i & 4 ? box.Max.Z : box.Min.Z});
    EXPECT_GE(w.X, 0);
    EXPECT_LE(w.X, 400);
    EXPECT_GE(w.Y, 0);
    EXPECT_LE(w.Y, 200);
  }
}

TEST(OpenGLViewTest, WheelZoomKeepsThePointUnderTheMouse) {
  TOpenGLView view;
  view.SetViewportSize(400, 300);
  TOpenGLVector before, after;
  ASSERT_TRUE(view.CalculateMouseCoordinates(100, 50, before));
  view.MouseWheel(100, 50, 2, {});
  ASSERT_TRUE(view.CalculateMouseCoordinates(100, 50, after));
  ExpectNear(after, before, 1e-9);
  // Zoomed in: 400 pixels now show 400 / 1.25² model units.
  TOpenGLVector left, right;
  view.CalculateMouseCoordinates(0, 0, left);
  view.CalculateMouseCoordinates(400, 0, right);
  EXPECT_NEAR(right.X - left.X, 400 / 1.5625, 1e-9);
}

TEST(ClippingFrustumTest, BoxesOutsideTheVolumeAreNotVisible) {
  TClippingFrustum frustum;
  frustum.Calculate(TOpenGLMatrix::Ortho(0, 100, 0, 50, -1, 1));
  TOpenGLBox inside, outside, straddling;
  inside.Add({10, 10, 0});
  inside.Add({20, 20, 0});
  outside.Add({120, 10, 0});
  outside.Add({130, 20, 0});
  straddling.Add({90, 40, 0});
  straddling.Add({110, 60, 0});
  EXPECT_TRUE(frustum.IsBoxVisible(inside));
  EXPECT_FALSE(frustum.IsBoxVisible(outside));
  EXPECT_TRUE(frustum.IsBoxVisible(straddling));
}

TEST(OpenGLMeshTest, StripIndicesAndSideWalls) {
  TOpenGLMesh mesh;
  mesh.SetDimensions(3, 2);
  EXPECT_EQ(mesh.FillIndexArrayRows(0), (std::vector<uint32_t>{3, 0, 4, 1, 5, 2}));
  EXPECT_TRUE(mesh.FillIndexArrayRows(1).empty()); // the last row starts no strip
  mesh.SetUseZValues(true);
  mesh.SetZValue(1, 1, -4);
  mesh.SetZValue(2, 0, 7);
  // Walls: 2 × (3 - 1) along x and 2 × (2 - 1) along y, four vertices each, down to the lowest z.
  const std::vector<TOpenGLVector> walls = mesh.CloseBorders();
  ASSERT_EQ(walls.size(), 6u * 4);
  for (size_t i = 0; i < walls.size(); i += 4) {
    EXPECT_EQ(walls[i].Z, -4);
    EXPECT_EQ(walls[i + 1].Z, -4);
  }
  const TOpenGLBox box = mesh.GetBoundingBox();
  EXPECT_EQ(box.Min.Z, -4);
  EXPECT_EQ(box.Max.Z, 7);
  // A flat mesh covers its corners whatever its z values.
  mesh.SetUseZValues(false);
  mesh.SetFlatCorners(-1, -2, 5, 6);
  ExpectNear(mesh.GetBoundingBox().Min, {-1, -2, 0});
  ExpectNear(mesh.GetBoundingBox().Max, {5, 6, 0});
}

TEST(OpenGLMeshTest, ColourTextureEditing) {
  TOpenGLMesh mesh;
  mesh.SetDimensions(4, 3);
  EXPECT_EQ(mesh.ColorTexture().GetWidth(), 4);
  mesh.SetColorPoint(1, 2, {1, 0, 0, 1});
  mesh.SetColorLine(0, {{0, 0, 1, 1}, {0, 1, 0, 1}});
  EXPECT_EQ(mesh.ColorTexture().GetPixel(1, 2), (TOpenGLColor{1, 0, 0, 1}));
  EXPECT_EQ(mesh.ColorTexture().GetPixel(1, 0), (TOpenGLColor{0, 1, 0, 1}));
  mesh.MakeColorTextureTransparent(0.5f);
  EXPECT_NEAR(mesh.ColorTexture().GetPixel(1, 2).A, 128 / 255.0, 1e-6);
  mesh.MakeColorTextureLineTransparent(2, 0);
  EXPECT_EQ(mesh.ColorTexture().GetPixel(3, 2).A, 0);
  EXPECT_NEAR(mesh.ColorTexture().GetPixel(3, 1).A, 128 / 255.0, 1e-6);
  mesh.SetColorPointOpacity(0, 0, 1);
  EXPECT_EQ(mesh.ColorTexture().GetPixel(0, 0), (TOpenGLColor{0, 0, 1, 1}));
  // Out of range is ignored.
  mesh.SetColorPoint(4, 0, {1, 1, 1, 1});
  mesh.SetColorPoint(-1, 0, {1, 1, 1, 1});
  EXPECT_EQ(mesh.ColorTexture().GetPixel(4, 0), TOpenGLColor{});
}

TEST(OpenGLMarkerTest, ShapesAndMaskBoxes) {
  TOpenGLMarker marker;
  marker.SetShape(TMarkerShape::Rectangle);
  marker.SetSize(10, 4);
  ASSERT_EQ(marker.Outline().size(), 4u);
  ExpectNear(marker.GetBoundingBox().Min, {-5, -2, 0});
  marker.SetShape(TMarkerShape::Polygon);
  marker.SetPoints({{0, 0, 0}, {3, 0, 0}, {3, 8, 0}});
  ExpectNear(marker.GetBoundingBox().Max, {3, 8, 0});
  TOpenGLMultiMask mask;
  EXPECT_LT(mask.GetColor().A, 1.0f); // masks blend by default
  mask.AddRectangle({10, 0, 20, 100});
  mask.AddRectangle({50, -5, 60, 90});
  ExpectNear(mask.GetBoundingBox().Min, {10, -5, 0});
  ExpectNear(mask.GetBoundingBox().Max, {60, 100, 0});
  mask.ClearRectangles();
  EXPECT_TRUE(mask.GetBoundingBox().IsEmpty());
}

TEST(OpenGLGraphTest, GraphObjectBoxSkipsNaNAndHistogramReachesItsBaseLine) {
  TOpenGLGraph graph;
  const double x[] = {0, 1, 2, 3};
  const double y[] = {5, std::nan(""), 9, 6};
  int changes = 0;
  graph.OnChange = [&](TOpenGLObject*) { ++changes; };
  graph.SetDataPoints(x, y, 4);
  EXPECT_EQ(changes, 1);
  ExpectNear(graph.GetBoundingBox().Min, {0, 5, 0});
  ExpectNear(graph.GetBoundingBox().Max, {3, 9, 0});
  graph.SetStyle(TGraphStyle::Histogram);
  graph.SetHistogramBaseLine(-1);
  EXPECT_EQ(graph.GetBoundingBox().Min.Y, -1);
  graph.SetShift(10, 0);
  EXPECT_EQ(graph.GetBoundingBox().Min.X, 10);
}

} // namespace
