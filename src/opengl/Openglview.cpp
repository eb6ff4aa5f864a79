// The view: scene ownership, frame drawing in two passes, projection and coordinate maps, picking through
// the selection buffer, the mouse modes and offscreen export.
#include "opengl/Openglview.h"

#include "common/OrvexException.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <GL/gl.h>
#include <GL/glu.h>

namespace {
constexpr double kDegrees = 180.0 / std::numbers::pi;
} // namespace

// --- Camera --------------------------------------------------------------------------------------------

TOpenGLCamera::TOpenGLCamera() {
  SetPosition({0, 0, 1});
  SetSelectable(false);
}

TOpenGLVector TOpenGLCamera::Direction() const {
  const double t = Theta / kDegrees, p = Phi / kDegrees;
  return {std::sin(t) * std::cos(p), std::sin(t) * std::sin(p), std::cos(t)};
}

TOpenGLVector TOpenGLCamera::Target() const {
  return GetPosition() + Direction() * LookDistance;
}

TOpenGLMatrix TOpenGLCamera::ViewMatrix() const {
  return TOpenGLMatrix::LookAt(GetPosition(), Target(), UpVector);
}

void TOpenGLCamera::MoveBy(const TOpenGLVector& d) {
  SetPosition(GetPosition() + d);
}

void TOpenGLCamera::MoveInViewLine(double distance) {
  const TOpenGLVector target = Target();
  LookDistance = std::max(LookDistance - distance, LookDistance * 1e-3);
  UpdateCameraBySphereCoordinates(target);
}

void TOpenGLCamera::RotateByViewLine(double degrees) {
  UpVector = TOpenGLMatrix::Rotation(degrees, Direction()).TransformPoint(UpVector).Normalized();
  ObjectChanged();
}

void TOpenGLCamera::RotateByUpVector(double degrees) {
  const TOpenGLVector target = Target();
  const TOpenGLVector d = TOpenGLMatrix::Rotation(degrees, UpVector).TransformPoint(Direction()).Normalized();
  Theta = std::acos(std::clamp(d.Z, -1.0, 1.0)) * kDegrees;
  Phi = std::atan2(d.Y, d.X) * kDegrees;
  UpdateCameraBySphereCoordinates(target);
}

void TOpenGLCamera::RotateInSurface(double dTheta, double dPhi) {
  const TOpenGLVector target = Target();
  // Theta stays inside (0, 180) so that the up vector never lies on the view line.
  Theta = std::clamp(Theta + dTheta, 0.01, 179.99);
  Phi += dPhi;
  UpdateCameraBySphereCoordinates(target);
}

void TOpenGLCamera::UpdateCamera(const TOpenGLVector& target) {
  const TOpenGLVector d = target - GetPosition();
  const double length = d.Length();
  if (length <= 0) return;
  LookDistance = length;
  Theta = std::acos(std::clamp(d.Z / length, -1.0, 1.0)) * kDegrees;
  Phi = std::atan2(d.Y, d.X) * kDegrees;
  ObjectChanged();
}

void TOpenGLCamera::UpdateCameraBySphereCoordinates(const TOpenGLVector& target) {
  const TOpenGLVector position = target - Direction() * LookDistance;
  if (position == GetPosition())
    ObjectChanged();
  else
    SetPosition(position);
}

// --- Lights, fog, clipping -----------------------------------------------------------------------------

TOpenGLLightSource* TOpenGLLightingSystem::AddLight() {
  if (GetLightCount() >= kMaxLights) return nullptr;
  FLights.push_back(std::make_unique<TOpenGLLightSource>());
  return FLights.back().get();
}

void TOpenGLLightingSystem::Apply() const {
  const GLfloat ambient[4] = {AmbientLight.R, AmbientLight.G, AmbientLight.B, AmbientLight.A};
  glLightModelfv(GL_LIGHT_MODEL_AMBIENT, ambient);
  glEnable(GL_COLOR_MATERIAL);
  glColorMaterial(GL_FRONT_AND_BACK, GL_AMBIENT_AND_DIFFUSE);
  for (int i = 0; i < kMaxLights; ++i) {
    const GLenum light = static_cast<GLenum>(GL_LIGHT0 + i);
    if (i >= static_cast<int>(FLights.size()) || !FLights[static_cast<size_t>(i)]->Enabled) {
      glDisable(light);
      continue;
    }
    const TOpenGLLightSource& s = *FLights[static_cast<size_t>(i)];
    const GLfloat position[4] = {static_cast<GLfloat>(s.Position.X), static_cast<GLfloat>(s.Position.Y),
                                 static_cast<GLfloat>(s.Position.Z), static_cast<GLfloat>(s.W)};
    const GLfloat a[4] = {s.Ambient.R, s.Ambient.G, s.Ambient.B, s.Ambient.A};
    const GLfloat d[4] = {s.Diffuse.R, s.Diffuse.G, s.Diffuse.B, s.Diffuse.A};
    const GLfloat sp[4] = {s.Specular.R, s.Specular.G, s.Specular.B, s.Specular.A};
    glLightfv(light, GL_POSITION, position);
    glLightfv(light, GL_AMBIENT, a);
    glLightfv(light, GL_DIFFUSE, d);
    glLightfv(light, GL_SPECULAR, sp);
    glEnable(light);
  }
}

void TOpenGLFog::Apply() const {
  const GLfloat color[4] = {Color.R, Color.G, Color.B, Color.A};
  glFogfv(GL_FOG_COLOR, color);
  glFogi(GL_FOG_MODE, Mode == TOpenGLFogMode::Linear        ? GL_LINEAR
                      : Mode == TOpenGLFogMode::Exponential ? GL_EXP
                                                            : GL_EXP2);
  glFogf(GL_FOG_DENSITY, static_cast<GLfloat>(Density));
  glFogf(GL_FOG_START, static_cast<GLfloat>(Start));
  glFogf(GL_FOG_END, static_cast<GLfloat>(End));
  glEnable(GL_FOG);
}

void TClippingFrustum::Calculate(const TOpenGLMatrix& m) {
  // Planes from the rows of the combined matrix: row 3 ± row i.
  for (int i = 0; i < 3; ++i)
    for (int sign = 0; sign < 2; ++sign) {
      double* p = FPlanes[i * 2 + sign];
      for (int c = 0; c < 4; ++c) p[c] = m.At(3, c) + (sign == 0 ? 1 : -1) * m.At(i, c);
    }
}

bool TClippingFrustum::IsBoxVisible(const TOpenGLBox& box) const {
  if (box.IsEmpty()) return true;
  for (const auto& p : FPlanes) {
    // The corner farthest along the plane's normal.
    const double x = p[0] >= 0 ? box.Max.X : box.Min.X;
    const double y = p[1] >= 0 ? box.Max.Y : box.Min.Y;
    const double z = p[2] >= 0 ? box.Max.Z : box.Min.Z;
    if (p[0] * x + p[1] * y + p[2] * z + p[3] < 0) return false;
  }
  return true;
}

void TClippingVolume::Apply() const {
  if (!Enabled || Box.IsEmpty()) return;
  const GLdouble planes[6][4] = {{1, 0, 0, -Box.Min.X}, {-1, 0, 0, Box.Max.X}, {0, 1, 0, -Box.Min.Y},
                                 {0, -1, 0, Box.Max.Y}, {0, 0, 1, -Box.Min.Z}, {0, 0, -1, Box.Max.Z}};
  for (int i = 0; i < 6; ++i) {
    glClipPlane(static_cast<GLenum>(GL_CLIP_PLANE0 + i), planes[i]);
    glEnable(static_cast<GLenum>(GL_CLIP_PLANE0 + i));
  }
}

void TClippingVolume::Remove() const {
  for (int i = 0; i < 6; ++i) glDisable(static_cast<GLenum>(GL_CLIP_PLANE0 + i));
}

// --- View ----------------------------------------------------------------------------------------------

TOpenGLView::TOpenGLView() {
  FCamera.AttachToView(this);
  FFont2D = std::make_unique<TOpenGL2DFont>(kDefaultOpenGLFontFamily, 12);
  FFont3D = std::make_unique<TOpenGL3DFont>(kDefaultOpenGLFontFamily, 10);
}

TOpenGLView::~TOpenGLView() {
  if (FContext) {
    IOpenGLContext* context = FContext;
    if (context->MakeCurrent()) {
      ReleaseOpenGL();
      context->DoneCurrent();
    }
    context->ViewDestroyed();
  }
  FObjects.clear();
  FStencilObjects.clear();
}

void TOpenGLView::InitOpenGL(IOpenGLContext* context) {
  FContext = context;
  FInitialised = true;
  if (context) {
    FRasterizer = context->GetGlyphRasterizer();
    if (FFont2D) FFont2D->SetRasterizer(FRasterizer);
    if (FFont3D) FFont3D->SetRasterizer(FRasterizer);
  }
}

void TOpenGLView::ReleaseOpenGL() {
  // Names of the scene's textures and lists go with the context; each holder forgets its own.
  std::function<void(TOpenGLObject&)> release = [&](TOpenGLObject& o) {
    if (o.FDisplayList != 0) glDeleteLists(o.FDisplayList, 1);
    o.FDisplayList = 0;
    o.FListValid = false;
    for (int i = 0; i < o.GetTextureCount(); ++i) o.GetTexture(i)->ReleaseOpenGL();
    for (int i = 0; i < o.GetObjectCount(); ++i) release(*o.GetObject(i));
  };
  for (auto& o : FObjects) release(*o);
  for (auto& o : FStencilObjects) release(*o);
  if (FFont2D) FFont2D->ReleaseOpenGL();
  if (FFont3D) FFont3D->ReleaseOpenGL();
  EmptyResourceBin();
  FContext = nullptr;
  FActive = false;
  FInitialised = false;
}

void TOpenGLView::Activate() {
  FActive = true;
  RePaint();
}

void TOpenGLView::Deactivate() {
  FActive = false;
}

void TOpenGLView::SetViewportSize(int width, int height) {
  const int w = std::max(1, width), h = std::max(1, height);
  if (w == FWidth && h == FHeight) return;
  FWidth = w;
  FHeight = h;
  if (OnViewportSizeChange) OnViewportSizeChange(w, h);
}

void TOpenGLView::PrepareObject(TOpenGLObject* object) {
  object->AttachToView(this);
  std::function<void(TOpenGLObject*)> number = [&](TOpenGLObject* o) {
    if (o->FIDNumber == 0) o->FIDNumber = FNextID++;
    for (auto& child : o->FChildren) number(child.get());
  };
  number(object);
}

TOpenGLObject* TOpenGLView::AddObject(std::unique_ptr<TOpenGLObject> object) {
  if (!object) throw OrvexException("TOpenGLView::AddObject: no object");
  TOpenGLObject* raw = object.get();
  FObjects.push_back(std::move(object));
  PrepareObject(raw);
  ObjectChanged(raw);
  return raw;
}

TOpenGLObject* TOpenGLView::AddStencilObject(std::unique_ptr<TOpenGLObject> object) {
  if (!object) throw OrvexException("TOpenGLView::AddStencilObject: no object");
  TOpenGLObject* raw = object.get();
  raw->SetStencilObject(true);
  FStencilObjects.push_back(std::move(object));
  PrepareObject(raw);
  ObjectChanged(raw);
  return raw;
}

std::unique_ptr<TOpenGLObject> TOpenGLView::RemoveObject(TOpenGLObject* object) {
  for (auto* list : {&FObjects, &FStencilObjects}) {
    const auto it =
        std::find_if(list->begin(), list->end(), [&](const auto& o) { return o.get() == object; });
    if (it == list->end()) continue;
    std::unique_ptr<TOpenGLObject> owned = std::move(*it);
    list->erase(it);
    owned->AttachToView(nullptr);
    owned->SetStencilObject(false);
    RePaint();
    return owned;
  }
  return nullptr;
}

void TOpenGLView::ClearObjects() {
  FObjects.clear();
  FStencilObjects.clear();
  RePaint();
}

TOpenGLObject* TOpenGLView::FindByIDNumber(uint32_t id) const {
  for (const auto* list : {&FObjects, &FStencilObjects})
    for (const auto& o : *list)
      if (TOpenGLObject* found = o->FindByIDNumber(id)) return found;
  return nullptr;
}

void TOpenGLView::ObjectChanged(TOpenGLObject* /*object*/) {
  if (FAutoUpdate) RePaint();
}

void TOpenGLView::RePaint() {
  if (IsActive()) FContext->ScheduleRepaint(FRepaintDelay);
}

void TOpenGLView::SetClearColor(const TOpenGLColor& color) {
  FClearColor = color;
  RePaint();
}

void TOpenGLView::SetFeatures(uint32_t features) {
  FFeatures = features;
  RePaint();
}

void TOpenGLView::SetFog(const TOpenGLFog& fog) {
  FFog = fog;
  RePaint();
}

void TOpenGLView::SetLighting(bool on) {
  SetFeatures(on ? FFeatures | ofLighting : FFeatures & ~static_cast<uint32_t>(ofLighting));
}

void TOpenGLView::SetFont2D(std::unique_ptr<TOpenGLFont> font) {
  if (FFont2D && FContext && FContext->MakeCurrent()) FFont2D->ReleaseOpenGL();
  FFont2D = std::move(font);
  if (FFont2D) FFont2D->SetRasterizer(FRasterizer);
  RePaint();
}

void TOpenGLView::SetFont3D(std::unique_ptr<TOpenGLFont> font) {
  if (FFont3D && FContext && FContext->MakeCurrent()) FFont3D->ReleaseOpenGL();
  FFont3D = std::move(font);
  if (FFont3D) FFont3D->SetRasterizer(FRasterizer);
  RePaint();
}

void TOpenGLView::SetGlyphRasterizer(IGlyphRasterizer* rasterizer) {
  FRasterizer = rasterizer;
  if (FFont2D) FFont2D->SetRasterizer(rasterizer);
  if (FFont3D) FFont3D->SetRasterizer(rasterizer);
}

void TOpenGLView::SetContinuousUpdate(bool on) {
  FContinuousUpdate = on;
  if (FContext) FContext->SetContinuousRepaint(on);
}

void TOpenGLView::SetPickAreaSize(int size) {
  if (size < 1) throw OrvexException("TOpenGLView::SetPickAreaSize: the pick area must be 1 pixel or more");
  FPickAreaSize = size;
}

void TOpenGLView::SetProjectionType(TOpenGLProjectionType type) {
  FProjectionType = type;
  RePaint();
}

void TOpenGLView::SetOrthographicVolume(double left, double right, double bottom, double top) {
  FOrthoLeft = left;
  FOrthoRight = right;
  FOrthoBottom = bottom;
  FOrthoTop = top;
  RePaint();
}

void TOpenGLView::SetDepthRange(double zNear, double zFar) {
  FNear = zNear;
  FFar = zFar;
  RePaint();
}

TOpenGLMatrix TOpenGLView::ProjectionMatrix() const {
  if (FProjectionType == TOpenGLProjectionType::Perspective) {
    const double zNear = FNear > 0 ? FNear : 0.01 * FCamera.LookDistance;
    const double zFar = FFar > zNear ? FFar : 1000 * FCamera.LookDistance;
    return TOpenGLMatrix::Perspective(FFieldOfView, static_cast<double>(FWidth) / FHeight, zNear, zFar);
  }
  if (FOrthoRight != FOrthoLeft && FOrthoTop != FOrthoBottom)
    return TOpenGLMatrix::Ortho(FOrthoLeft, FOrthoRight, FOrthoBottom, FOrthoTop, FNear, FFar);
  // The pixel volume: one model unit per pixel of the window, with the camera's offset in x and y.
  return TOpenGLMatrix::Ortho(0, FWidth, 0, FHeight, FNear, FFar);
}

void TOpenGLView::ApplyFeatures() const {
  HasFeature(ofDepthTest) ? glEnable(GL_DEPTH_TEST) : glDisable(GL_DEPTH_TEST);
  glDepthFunc(GL_LEQUAL);
  HasFeature(ofBackFaceCulling) ? glEnable(GL_CULL_FACE) : glDisable(GL_CULL_FACE);
  if (HasFeature(ofBlending)) {
    glEnable(GL_BLEND);
    glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  } else {
    glDisable(GL_BLEND);
  }
  // Reproducible pixels: no smoothing, no dithering.
  glDisable(GL_LINE_SMOOTH);
  glDisable(GL_POINT_SMOOTH);
  glDisable(GL_POLYGON_SMOOTH);
  glDisable(GL_DITHER);
  glDisable(GL_LIGHTING);
  glDisable(GL_FOG);
  glDisable(GL_TEXTURE_2D);
  glShadeModel(GL_SMOOTH);
}

void TOpenGLView::EmptyResourceBin() {
  for (uint32_t name : FBin->Textures) {
    GLuint n = name;
    glDeleteTextures(1, &n);
  }
  for (uint32_t list : FBin->Lists) glDeleteLists(list, 1);
  FBin->Textures.clear();
  FBin->Lists.clear();
}

void TOpenGLView::Paint() {
  EmptyResourceBin();
  if (FViewportWidth < 1 || FReferenceScale == 1) {
    FViewportWidth = FWidth;
    FViewportHeight = FHeight;
  }
  glViewport(0, 0, FViewportWidth, FViewportHeight);
  glClearColor(FClearColor.R, FClearColor.G, FClearColor.B, FClearColor.A);
  glClearDepth(1.0);
  glClearStencil(0);
  glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT);
  glMatrixMode(GL_PROJECTION);
  glLoadMatrixd(ProjectionMatrix().M.data());
  glMatrixMode(GL_MODELVIEW);
  RenderScene();
  // An opaque view stays opaque: blending leaves alpha below 1 where text and transparent objects lie,
  // and the window would compose such pixels as see-through, with wrong colours.
  if (FClearColor.A >= 1.0f) {
    glColorMask(GL_FALSE, GL_FALSE, GL_FALSE, GL_TRUE);
    glClearColor(0, 0, 0, 1);
    glClear(GL_COLOR_BUFFER_BIT);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
  }
}

void TOpenGLView::RenderStencil() {
  if (!HasFeature(ofStencil) || FStencilObjects.empty()) {
    glDisable(GL_STENCIL_TEST);
    return;
  }
  // Stencil objects write 1 where they draw, nothing into colour or depth.
  glEnable(GL_STENCIL_TEST);
  glClear(GL_STENCIL_BUFFER_BIT);
  glStencilFunc(GL_ALWAYS, 1, 0xFF);
  glStencilOp(GL_REPLACE, GL_REPLACE, GL_REPLACE);
  glColorMask(GL_FALSE, GL_FALSE, GL_FALSE, GL_FALSE);
  glDepthMask(GL_FALSE);
  for (auto& o : FStencilObjects) {
    o->Render(true);
    o->Render(false);
  }
  glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
  glDepthMask(GL_TRUE);
  glStencilFunc(GL_EQUAL, 1, 0xFF);
  glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
}

void TOpenGLView::RenderVisibleLights() const {
  bool any = false;
  for (int i = 0; i < FLighting.GetLightCount(); ++i)
    any = any || const_cast<TOpenGLLightingSystem&>(FLighting).GetLight(i).Visible;
  if (!any) return;
  glPushAttrib(GL_ENABLE_BIT | GL_CURRENT_BIT);
  glDisable(GL_LIGHTING);
  glColor4f(1, 0, 0, 1);
  GLUquadric* quadric = gluNewQuadric();
  for (int i = 0; i < FLighting.GetLightCount(); ++i) {
    const TOpenGLLightSource& s = const_cast<TOpenGLLightingSystem&>(FLighting).GetLight(i);
    if (!s.Visible) continue;
    glPushMatrix();
    glTranslated(s.Position.X, s.Position.Y, s.Position.Z);
    gluSphere(quadric, 10, 6, 3);
    glPopMatrix();
  }
  gluDeleteQuadric(quadric);
  glPopAttrib();
}

void TOpenGLView::RenderScene() {
  ApplyFeatures();
  // 1. The camera.
  glMatrixMode(GL_MODELVIEW);
  glLoadMatrixd(ViewMatrix().M.data());
  // 2. Fog and lights.
  if (HasFeature(ofFog)) FFog.Apply();
  if (HasFeature(ofLighting)) {
    glEnable(GL_LIGHTING);
    FLighting.Apply();
  }
  FClippingVolume.Apply();
  RenderStencil();
  // 3. Names for picking start with -1.
  glInitNames();
  glPushName(static_cast<GLuint>(-1));
  // 4. The opaque pass, 5. the transparent pass over it: transparent objects blend over everything opaque
  // whatever the order in which they were added, and don't hide each other in the depth buffer.
  for (auto& o : FObjects) o->Render(true);
  glDepthMask(GL_FALSE);
  for (auto& o : FObjects) o->Render(false);
  glDepthMask(GL_TRUE);
  glPopName();
  FClippingVolume.Remove();
  glDisable(GL_STENCIL_TEST);
  // 6. The after-render event.
  if (OnAfterRender && !FDesignState) OnAfterRender(this);
  // 7. Visible lights as small red spheres.
  RenderVisibleLights();
}

// --- Coordinates ---------------------------------------------------------------------------------------

void TOpenGLView::GetOglCoordinatesFromWindowsCoordinates(double x, double y, double& oglX,
                                                          double& oglY) const {
  oglX = x;
  oglY = FHeight - y;
}

bool TOpenGLView::UnProjectPoint(double oglX, double oglY, double depth, TOpenGLVector& model) const {
  TOpenGLMatrix inverse;
  if (!(ProjectionMatrix() * ViewMatrix()).Inverse(inverse)) return false;
  const TOpenGLVector ndc{2 * oglX / FWidth - 1, 2 * oglY / FHeight - 1, 2 * depth - 1};
  model = inverse.TransformPoint(ndc);
  return std::isfinite(model.X) && std::isfinite(model.Y) && std::isfinite(model.Z);
}

TOpenGLVector TOpenGLView::ProjectPoint(const TOpenGLVector& model) const {
  const TOpenGLVector ndc = (ProjectionMatrix() * ViewMatrix()).TransformPoint(model);
  return {(ndc.X + 1) * 0.5 * FWidth, (ndc.Y + 1) * 0.5 * FHeight, (ndc.Z + 1) * 0.5};
}

bool TOpenGLView::ProjectPlane(double x, double y, double planeZ, TOpenGLVector& model) const {
  double ox, oy;
  GetOglCoordinatesFromWindowsCoordinates(x, y, ox, oy);
  TOpenGLVector nearPoint, farPoint;
  if (!UnProjectPoint(ox, oy, 0, nearPoint) || !UnProjectPoint(ox, oy, 1, farPoint)) return false;
  const TOpenGLVector d = farPoint - nearPoint;
  if (std::fabs(d.Z) < 1e-300) return false;
  const double t = (planeZ - nearPoint.Z) / d.Z;
  model = nearPoint + d * t;
  return true;
}

bool TOpenGLView::CalculateMouseCoordinates(int x, int y, TOpenGLVector& model) const {
  return ProjectPlane(x, y, 0, model);
}

TOpenGLBox TOpenGLView::FindBoundingBox() const {
  TOpenGLBox box;
  for (const auto& o : FObjects)
    if (o->GetVisible()) box.AddBox(o->GetBoundingBox());
  return box;
}

void TOpenGLView::FitCamera() {
  const TOpenGLBox box = FindBoundingBox();
  if (box.IsEmpty()) return;
  const TOpenGLVector centre = box.Center();
  if (FProjectionType == TOpenGLProjectionType::Orthographic) {
    // Keep the window's aspect ratio: widen the narrower side of the box.
    double w = std::max(box.Max.X - box.Min.X, 1e-12), h = std::max(box.Max.Y - box.Min.Y, 1e-12);
    const double aspect = static_cast<double>(FWidth) / FHeight;
    if (w / h < aspect)
      w = h * aspect;
    else
      h = w / aspect;
    FCamera.Theta = 180;
    FCamera.Phi = 0;
    FCamera.UpVector = {0, 1, 0};
    FCamera.LookDistance = 1;
    FCamera.UpdateCameraBySphereCoordinates({0, 0, 0});
    SetOrthographicVolume(centre.X - w / 2, centre.X + w / 2, centre.Y - h / 2, centre.Y + h / 2);
    const double depth = std::max(box.Max.Z - box.Min.Z, 1.0);
    SetDepthRange(-(std::fabs(box.Max.Z) + depth) - 1, std::fabs(box.Min.Z) + depth + 1);
    return;
  }
  // The bounding sphere fills the vertical field of view.
  const double radius = std::max((box.Max - box.Min).Length() / 2, 1e-9);
  const double distance = radius / std::sin(FFieldOfView / 2 / kDegrees);
  FCamera.LookDistance = distance;
  FCamera.UpdateCameraBySphereCoordinates(centre);
  SetDepthRange(std::max(distance - 2 * radius, distance * 1e-3), distance + 2 * radius);
}

// --- Picking -------------------------------------------------------------------------------------------

std::vector<TOpenGLHit> TOpenGLView::GetObjectsByCoordinates(int x, int y) {
  std::vector<TOpenGLHit> hits;
  if (!FContext || !FContext->MakeCurrent()) return hits;
  std::vector<GLuint> buffer(65536);
  glSelectBuffer(static_cast<GLsizei>(buffer.size()), buffer.data());
  glRenderMode(GL_SELECT);
  double ox, oy;
  GetOglCoordinatesFromWindowsCoordinates(x + 0.5, y + 0.5, ox, oy);
  glViewport(0, 0, FWidth, FHeight);
  GLint viewport[4] = {0, 0, FWidth, FHeight};
  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  gluPickMatrix(ox, oy, FPickAreaSize, FPickAreaSize, viewport);
  glMultMatrixd(ProjectionMatrix().M.data());
  glMatrixMode(GL_MODELVIEW);
  RenderScene();
  const GLint count = glRenderMode(GL_RENDER);
  // Records: name count, min depth, max depth, names; the deepest name is the object drawn.
  size_t at = 0;
  for (GLint i = 0; i < count && at + 3 <= buffer.size(); ++i) {
    const GLuint names = buffer[at];
    const double minDepth = buffer[at + 1] / 4294967295.0;
    const double maxDepth = buffer[at + 2] / 4294967295.0;
    const size_t first = at + 3;
    at = first + names;
    if (names == 0 || at > buffer.size()) continue;
    TOpenGLObject* object = FindByIDNumber(buffer[at - 1]);
    // A part that can't be picked on its own (a label, a tick) picks the object it belongs to.
    while (object && !object->GetSelectable()) object = object->GetParent();
    if (!object) continue;
    auto same =
        std::find_if(hits.begin(), hits.end(), [&](const TOpenGLHit& h) { return h.Object == object; });
    if (same != hits.end()) {
      same->MinDepth = std::min(same->MinDepth, minDepth);
      same->MaxDepth = std::max(same->MaxDepth, maxDepth);
    } else {
      hits.push_back({object, minDepth, maxDepth});
    }
  }
  FContext->DoneCurrent();
  std::stable_sort(hits.begin(), hits.end(),
                   [](const TOpenGLHit& a, const TOpenGLHit& b) { return a.MinDepth < b.MinDepth; });
  return hits;
}

TOpenGLObject* TOpenGLView::SelectSingleObject(int x, int y) {
  const std::vector<TOpenGLHit> hits = GetObjectsByCoordinates(x, y);
  TOpenGLObject* chosen = hits.empty() ? nullptr : hits.front().Object;
  std::function<void(TOpenGLObject&)> select = [&](TOpenGLObject& o) {
    o.SetSelected(&o == chosen);
    for (int i = 0; i < o.GetObjectCount(); ++i) select(*o.GetObject(i));
  };
  for (auto& o : FObjects) select(*o);
  return chosen;
}

std::vector<TOpenGLObject*> TOpenGLView::SelectMultipleObjects(int left, int top, int right, int bottom) {
  const int savedSize = FPickAreaSize;
  const int w = std::max(1, std::abs(right - left));
  const int h = std::max(1, std::abs(bottom - top));
  // One pick over the rectangle: a square pick area as large as its longer side, centred on it, and then
  // only the objects whose box projects into the rectangle.
  FPickAreaSize = std::max(w, h);
  const std::vector<TOpenGLHit> hits = GetObjectsByCoordinates((left + right) / 2, (top + bottom) / 2);
  FPickAreaSize = savedSize;
  std::vector<TOpenGLObject*> selected;
  const double x0 = std::min(left, right), x1 = std::max(left, right);
  const double y0 = FHeight - std::max(top, bottom), y1 = FHeight - std::min(top, bottom);
  for (const TOpenGLHit& hit : hits) {
    const TOpenGLBox box = hit.Object->GetBoundingBox();
    const TOpenGLMatrix parent =
        hit.Object->GetParent() ? hit.Object->GetParent()->ModelTransform() : TOpenGLMatrix();
    bool inside = !box.IsEmpty();
    for (int corner = 0; corner < 8 && inside; ++corner) {
      const TOpenGLVector p = ProjectPoint(
          parent.TransformPoint({corner & 1 ? box.Max.X : box.Min.X, corner & 2 ? box.Max.Y : box.Min.Y,
                                 corner & 4 ? box.Max.Z : box.Min.Z}));
      inside = p.X >= x0 - 0.5 && p.X <= x1 + 0.5 && p.Y >= y0 - 0.5 && p.Y <= y1 + 0.5;
    }
    if (inside) {
      hit.Object->SetSelected(true);
      selected.push_back(hit.Object);
    }
  }
  return selected;
}

// --- Mouse ---------------------------------------------------------------------------------------------

void TOpenGLView::MouseDown(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift) {
  if (OnMouseDown) OnMouseDown(x, y, button, shift);
  FDragging = button == TOpenGLMouseButton::Left;
  FDragX = x;
  FDragY = y;
  if (FMouseMode == TOpenGLMouseMode::Select && button == TOpenGLMouseButton::Left) {
    const std::vector<TOpenGLHit> hits = GetObjectsByCoordinates(x, y);
    if (OnSelect) OnSelect(hits);
  }
}

void TOpenGLView::MouseMove(int x, int y, TOpenGLShiftState shift) {
  if (OnMouseMove) OnMouseMove(x, y, shift);
  if (!FDragging) return;
  const int dx = x - FDragX, dy = y - FDragY;
  FDragX = x;
  FDragY = y;
  if (dx == 0 && dy == 0) return;
  switch (FMouseMode) {
  case TOpenGLMouseMode::Rotate:
    FCamera.RotateInSurface(-0.5 * dy, -0.5 * dx);
    break;
  case TOpenGLMouseMode::Move: {
    // The scene follows the mouse: the model points under the old and new positions.
    TOpenGLVector a, b;
    const double planeZ = FCamera.Target().Z;
    if (ProjectPlane(x - dx, y - dy, planeZ, a) && ProjectPlane(x, y, planeZ, b)) {
      if (FProjectionType == TOpenGLProjectionType::Orthographic && FOrthoRight == FOrthoLeft)
        FCamera.MoveBy({a.X - b.X, a.Y - b.Y, 0});
      else if (FProjectionType == TOpenGLProjectionType::Orthographic)
        SetOrthographicVolume(FOrthoLeft + a.X - b.X, FOrthoRight + a.X - b.X, FOrthoBottom + a.Y - b.Y,
                              FOrthoTop + a.Y - b.Y);
      else
        FCamera.MoveBy(a - b);
    }
    break;
  }
  case TOpenGLMouseMode::Zoom:
    MouseWheel(FDragX, FDragY, -dy / 20.0, shift);
    break;
  default:
    break;
  }
}

void TOpenGLView::MouseUp(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState shift) {
  if (OnMouseUp) OnMouseUp(x, y, button, shift);
  FDragging = false;
}

bool TOpenGLView::KeyDown(TOpenGLKey key, int character, TOpenGLShiftState shift) {
  return OnKeyDown && OnKeyDown(key, character, shift);
}

void TOpenGLView::MouseWheel(int x, int y, double steps, TOpenGLShiftState shift) {
  if (steps == 0) return;
  if (OnMouseWheel && OnMouseWheel(x, y, steps, shift)) return;
  const double factor = std::pow(1.25, -steps); // < 1 zooms in
  if (FProjectionType == TOpenGLProjectionType::Perspective) {
    FCamera.MoveInViewLine(FCamera.LookDistance * (1 - factor));
    return;
  }
  TOpenGLVector p;
  if (!ProjectPlane(x, y, 0, p)) return;
  double l = FOrthoLeft, r = FOrthoRight, b = FOrthoBottom, t = FOrthoTop;
  if (r == l || t == b) {
    // The pixel volume in model units, as the camera's offset shows it.
    const TOpenGLVector origin = FCamera.GetPosition();
    l = origin.X, r = origin.X + FWidth, b = origin.Y, t = origin.Y + FHeight;
    FCamera.MoveBy({-origin.X, -origin.Y, 0});
  }
  SetOrthographicVolume(p.X + (l - p.X) * factor, p.X + (r - p.X) * factor, p.Y + (b - p.Y) * factor,
                        p.Y + (t - p.Y) * factor);
}

// --- Export --------------------------------------------------------------------------------------------

bool TOpenGLView::ExportBitmap(double scale, TOpenGLBitmap& bitmap) {
  if (!FContext || !(scale > 0)) return false;
  const int w = std::max(1, static_cast<int>(std::lround(FWidth * scale)));
  const int h = std::max(1, static_cast<int>(std::lround(FHeight * scale)));
  if (!FContext->BeginOffscreen(w, h)) return false;
  FReferenceScale = scale;
  FViewportWidth = w;
  FViewportHeight = h;
  // Line widths and point sizes are set outside the display lists, so the lists serve the export as well.
  Paint();
  glFinish();
  std::vector<uint8_t> rgba(static_cast<size_t>(w) * h * 4);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, w, h, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
  FReferenceScale = 1;
  FViewportWidth = FWidth;
  FViewportHeight = FHeight;
  FContext->EndOffscreen();
  bitmap.Width = w;
  bitmap.Height = h;
  bitmap.Pixels.resize(static_cast<size_t>(w) * h * 3);
  // OpenGL's rows run bottom-up; the picture's top-down.
  for (int row = 0; row < h; ++row) {
    const uint8_t* src = &rgba[static_cast<size_t>(h - 1 - row) * w * 4];
    uint8_t* dst = &bitmap.Pixels[static_cast<size_t>(row) * w * 3];
    for (int x = 0; x < w; ++x) {
      dst[x * 3] = src[x * 4];
      dst[x * 3 + 1] = src[x * 4 + 1];
      dst[x * 3 + 2] = src[x * 4 + 2];
    }
  }
  RePaint();
  return true;
}
