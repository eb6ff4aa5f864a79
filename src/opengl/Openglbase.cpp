// Vectors, matrices, textures and the scene object's fields, tree and rendering order.
#include "opengl/Openglbase.h"

#include "opengl/Openglview.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <GL/gl.h>

// --- Vectors and matrices ---------------------------------------------------------------------------

double TOpenGLVector::Length() const {
  return std::sqrt(X * X + Y * Y + Z * Z);
}

TOpenGLVector TOpenGLVector::Normalized() const {
  const double l = Length();
  return l > 0 ? *this * (1.0 / l) : *this;
}

TOpenGLMatrix TOpenGLMatrix::operator*(const TOpenGLMatrix& o) const {
  TOpenGLMatrix r;
  for (int row = 0; row < 4; ++row)
    for (int col = 0; col < 4; ++col) {
      double sum = 0;
      for (int k = 0; k < 4; ++k) sum += At(row, k) * o.At(k, col);
      r.At(row, col) = sum;
    }
  return r;
}

TOpenGLVector TOpenGLMatrix::TransformPoint(const TOpenGLVector& p) const {
  const double x = At(0, 0) * p.X + At(0, 1) * p.Y + At(0, 2) * p.Z + At(0, 3);
  const double y = At(1, 0) * p.X + At(1, 1) * p.Y + At(1, 2) * p.Z + At(1, 3);
  const double z = At(2, 0) * p.X + At(2, 1) * p.Y + At(2, 2) * p.Z + At(2, 3);
  const double w = At(3, 0) * p.X + At(3, 1) * p.Y + At(3, 2) * p.Z + At(3, 3);
  if (w == 0) return {x, y, z};
  return {x / w, y / w, z / w};
}

bool TOpenGLMatrix::Inverse(TOpenGLMatrix& result) const {
  // Gauss-Jordan elimination with partial pivoting on [A | I].
  double a[4][8];
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) {
      a[r][c] = At(r, c);
      a[r][c + 4] = r == c ? 1 : 0;
    }
  for (int c = 0; c < 4; ++c) {
    int pivot = c;
    for (int r = c + 1; r < 4; ++r)
      if (std::fabs(a[r][c]) > std::fabs(a[pivot][c])) pivot = r;
    if (std::fabs(a[pivot][c]) < 1e-300) {
      result = TOpenGLMatrix();
      return false;
    }
    if (pivot != c)
      for (int k = 0; k < 8; ++k) std::swap(a[c][k], a[pivot][k]);
    const double d = a[c][c];
    for (int k = 0; k < 8; ++k) a[c][k] /= d;
    for (int r = 0; r < 4; ++r) {
      if (r == c) continue;
      const double f = a[r][c];
      if (f == 0) continue;
      for (int k = 0; k < 8; ++k) a[r][k] -= f * a[c][k];
    }
  }
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) result.At(r, c) = a[r][c + 4];
  return true;
}

TOpenGLMatrix TOpenGLMatrix::Translation(const TOpenGLVector& t) {
  TOpenGLMatrix m;
  m.At(0, 3) = t.X;
  m.At(1, 3) = t.Y;
  m.At(2, 3) = t.Z;
  return m;
}

TOpenGLMatrix TOpenGLMatrix::Scaling(const TOpenGLVector& s) {
  TOpenGLMatrix m;
  m.At(0, 0) = s.X;
  m.At(1, 1) = s.Y;
  m.At(2, 2) = s.Z;
  return m;
}

TOpenGLMatrix TOpenGLMatrix::Rotation(double degrees, const TOpenGLVector& axis) {
  const TOpenGLVector u = axis.Normalized();
  const double a = degrees * std::numbers::pi / 180.0;
  const double c = std::cos(a), s = std::sin(a), t = 1 - c;
  TOpenGLMatrix m;
  m.At(0, 0) = t * u.X * u.X + c;
  m.At(0, 1) = t * u.X * u.Y - s * u.Z;
  m.At(0, 2) = t * u.X * u.Z + s * u.Y;
  m.At(1, 0) = t * u.X * u.Y + s * u.Z;
  m.At(1, 1) = t * u.Y * u.Y + c;
  m.At(1, 2) = t * u.Y * u.Z - s * u.X;
  m.At(2, 0) = t * u.X * u.Z - s * u.Y;
  m.At(2, 1) = t * u.Y * u.Z + s * u.X;
  m.At(2, 2) = t * u.Z * u.Z + c;
  return m;
}

TOpenGLMatrix TOpenGLMatrix::LookAt(const TOpenGLVector& eye, const TOpenGLVector& target,
                                    const TOpenGLVector& up) {
  const TOpenGLVector f = (target - eye).Normalized();
  const TOpenGLVector s = f.Cross(up).Normalized();
  const TOpenGLVector u = s.Cross(f);
  TOpenGLMatrix m;
  m.At(0, 0) = s.X, m.At(0, 1) = s.Y, m.At(0, 2) = s.Z;
  m.At(1, 0) = u.X, m.At(1, 1) = u.Y, m.At(1, 2) = u.Z;
  m.At(2, 0) = -f.X, m.At(2, 1) = -f.Y, m.At(2, 2) = -f.Z;
  return m * Translation(eye * -1.0);
}

TOpenGLMatrix TOpenGLMatrix::Ortho(double left, double right, double bottom, double top, double zNear,
                                   double zFar) {
  TOpenGLMatrix m;
  m.At(0, 0) = 2 / (right - left);
  m.At(1, 1) = 2 / (top - bottom);
  m.At(2, 2) = -2 / (zFar - zNear);
  m.At(0, 3) = -(right + left) / (right - left);
  m.At(1, 3) = -(top + bottom) / (top - bottom);
  m.At(2, 3) = -(zFar + zNear) / (zFar - zNear);
  return m;
}

TOpenGLMatrix TOpenGLMatrix::Perspective(double fovY, double aspect, double zNear, double zFar) {
  const double f = 1.0 / std::tan(fovY * std::numbers::pi / 360.0);
  TOpenGLMatrix m;
  m.At(0, 0) = f / aspect;
  m.At(1, 1) = f;
  m.At(2, 2) = (zFar + zNear) / (zNear - zFar);
  m.At(2, 3) = 2 * zFar * zNear / (zNear - zFar);
  m.At(3, 2) = -1;
  m.At(3, 3) = 0;
  return m;
}

void TOpenGLBox::Add(const TOpenGLVector& p) {
  if (IsEmpty()) {
    Min = Max = p;
    return;
  }
  Min = {std::min(Min.X, p.X), std::min(Min.Y, p.Y), std::min(Min.Z, p.Z)};
  Max = {std::max(Max.X, p.X), std::max(Max.Y, p.Y), std::max(Max.Z, p.Z)};
}

void TOpenGLBox::AddBox(const TOpenGLBox& box) {
  if (box.IsEmpty()) return;
  Add(box.Min);
  Add(box.Max);
}

// --- Textures ------------------------------------------------------------------------------------------

TOpenGLTexture::~TOpenGLTexture() {
  if (FName == 0) return;
  if (auto bin = FBin.lock()) bin->Textures.push_back(FName);
}

void TOpenGLTexture::SetSize(int width, int height) {
  FWidth = std::max(0, width);
  FHeight = std::max(0, height);
  FPixels.assign(static_cast<size_t>(FWidth) * FHeight * 4, 0);
  FDirty = true;
}

void TOpenGLTexture::SetPixel(int x, int y, const TOpenGLColor& color) {
  if (x < 0 || y < 0 || x >= FWidth || y >= FHeight) return;
  uint8_t* p = &FPixels[(static_cast<size_t>(y) * FWidth + x) * 4];
  auto byte = [](float v) { return static_cast<uint8_t>(std::lround(std::clamp(v, 0.0f, 1.0f) * 255.0f)); };
  p[0] = byte(color.R);
  p[1] = byte(color.G);
  p[2] = byte(color.B);
  p[3] = byte(color.A);
  FDirty = true;
}

TOpenGLColor TOpenGLTexture::GetPixel(int x, int y) const {
  if (x < 0 || y < 0 || x >= FWidth || y >= FHeight) return {};
  const uint8_t* p = &FPixels[(static_cast<size_t>(y) * FWidth + x) * 4];
  return TOpenGLColor::FromRGB(p[0], p[1], p[2], p[3] / 255.0f);
}

void TOpenGLTexture::SetFilter(TOpenGLTextureFilter filter) {
  if (FFilter == filter) return;
  FFilter = filter;
  FDirty = true;
}

void TOpenGLTexture::Bind(const std::shared_ptr<TOpenGLResourceBin>& bin) {
  if (FWidth == 0 || FHeight == 0) return;
  if (FName == 0) {
    GLuint name = 0;
    glGenTextures(1, &name);
    FName = name;
    FBin = bin;
    FDirty = true;
  }
  glBindTexture(GL_TEXTURE_2D, FName);
  if (FDirty) {
    const GLint filter = FFilter == TOpenGLTextureFilter::Linear ? GL_LINEAR : GL_NEAREST;
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, filter);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, filter);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, FWidth, FHeight, 0, GL_RGBA, GL_UNSIGNED_BYTE, FPixels.data());
    FDirty = false;
  }
  glEnable(GL_TEXTURE_2D);
}

void TOpenGLTexture::Release() {
  glBindTexture(GL_TEXTURE_2D, 0);
  glDisable(GL_TEXTURE_2D);
}

void TOpenGLTexture::ReleaseOpenGL() {
  if (FName != 0) {
    GLuint name = FName;
    glDeleteTextures(1, &name);
  }
  FName = 0;
  FDirty = true;
  FBin.reset();
}

// --- Scene objects -------------------------------------------------------------------------------------

TOpenGLObject::TOpenGLObject() = default;

TOpenGLObject::~TOpenGLObject() {
  // Children first, so that they give up their names while the view is still known.
  FChildren.clear();
  if (FDisplayList != 0 && FView) FView->ResourceBin()->Lists.push_back(FDisplayList);
}

void TOpenGLObject::Assign(const TOpenGLObject& s) {
  FPosition = s.FPosition;
  FRotation = s.FRotation;
  FRotationalCentre = s.FRotationalCentre;
  FScale = s.FScale;
  FColor = s.FColor;
  FSelectedColor = s.FSelectedColor;
  FSingleColor = s.FSingleColor;
  FSpecularReflectivity = s.FSpecularReflectivity;
  FShininess = s.FShininess;
  FDrawStyle = s.FDrawStyle;
  FLineWidth = s.FLineWidth;
  FPointSize = s.FPointSize;
  FName = s.FName;
  FSelectable = s.FSelectable;
  FVisible = s.FVisible;
  FUseTextures = s.FUseTextures;
  FUseStencil = s.FUseStencil;
  FRenderInBothPasses = s.FRenderInBothPasses;
  ObjectChanged();
}

void TOpenGLObject::ObjectChanged() {
  FListValid = false;
  DoOnChange();
  if (OnChange) OnChange(this);
  if (FView) FView->ObjectChanged(this);
}

double TOpenGLObject::ReferenceScale() const {
  return FView ? FView->GetReferenceScale() : 1.0;
}

void TOpenGLObject::AttachToView(TOpenGLView* view) {
  if (FView && FView != view && FDisplayList != 0) {
    FView->ResourceBin()->Lists.push_back(FDisplayList);
    FDisplayList = 0;
    FListValid = false;
  }
  FView = view;
  for (auto& child : FChildren) child->AttachToView(view);
}

TOpenGLObject* TOpenGLObject::AddObject(std::unique_ptr<TOpenGLObject> child) {
  if (!child) return nullptr;
  TOpenGLObject* raw = child.get();
  raw->FParent = this;
  FChildren.push_back(std::move(child));
  if (FView) FView->PrepareObject(raw);
  ObjectChanged();
  return raw;
}

std::unique_ptr<TOpenGLObject> TOpenGLObject::RemoveObject(TOpenGLObject* child) {
  const auto it =
      std::find_if(FChildren.begin(), FChildren.end(), [&](const auto& c) { return c.get() == child; });
  if (it == FChildren.end()) return nullptr;
  std::unique_ptr<TOpenGLObject> owned = std::move(*it);
  FChildren.erase(it);
  owned->FParent = nullptr;
  owned->AttachToView(nullptr);
  ObjectChanged();
  return owned;
}

void TOpenGLObject::ClearObjects() {
  if (FChildren.empty()) return;
  FChildren.clear();
  ObjectChanged();
}

TOpenGLObject* TOpenGLObject::FindByIDNumber(uint32_t id) {
  if (FIDNumber == id) return this;
  for (auto& child : FChildren)
    if (TOpenGLObject* found = child->FindByIDNumber(id)) return found;
  return nullptr;
}

TOpenGLTexture* TOpenGLObject::AddTexture(std::unique_ptr<TOpenGLTexture> texture) {
  FTextures.push_back(std::move(texture));
  ObjectChanged();
  return FTextures.back().get();
}

#define OX_SETTER(Name, Field, Type)                                                                         \
  void TOpenGLObject::Set##Name(Type value) {                                                                \
    if (Field == value) return;                                                                              \
    Field = value;                                                                                           \
    ObjectChanged();                                                                                         \
  }
OX_SETTER(Position, FPosition, const TOpenGLVector&)
OX_SETTER(Rotation, FRotation, const TOpenGLVector&)
OX_SETTER(RotationalCentre, FRotationalCentre, const TOpenGLVector&)
OX_SETTER(Scale, FScale, const TOpenGLVector&)
OX_SETTER(Color, FColor, const TOpenGLColor&)
OX_SETTER(SelectedColor, FSelectedColor, const TOpenGLColor&)
OX_SETTER(SingleColor, FSingleColor, bool)
OX_SETTER(SpecularReflectivity, FSpecularReflectivity, float)
OX_SETTER(Shininess, FShininess, float)
OX_SETTER(DrawStyle, FDrawStyle, TOpenGLDrawStyle)
OX_SETTER(LineWidth, FLineWidth, float)
OX_SETTER(PointSize, FPointSize, float)
OX_SETTER(Name, FName, const std::string&)
OX_SETTER(IDNumber, FIDNumber, uint32_t)
OX_SETTER(Selectable, FSelectable, bool)
OX_SETTER(Selected, FSelected, bool)
OX_SETTER(Visible, FVisible, bool)
OX_SETTER(UseTextures, FUseTextures, bool)
OX_SETTER(UseStencil, FUseStencil, bool)
OX_SETTER(RenderInBothPasses, FRenderInBothPasses, bool)
#undef OX_SETTER

bool TOpenGLObject::BelongsToPass(bool opaquePass) const {
  return FRenderInBothPasses || CurrentColor().IsOpaque() == opaquePass;
}

TOpenGLMatrix TOpenGLObject::LocalTransform() const {
  return TOpenGLMatrix::Translation(FPosition) * TOpenGLMatrix::Translation(FRotationalCentre) *
         TOpenGLMatrix::Rotation(FRotation.X, {1, 0, 0}) * TOpenGLMatrix::Rotation(FRotation.Y, {0, 1, 0}) *
         TOpenGLMatrix::Rotation(FRotation.Z, {0, 0, 1}) *
         TOpenGLMatrix::Translation(FRotationalCentre * -1.0) * TOpenGLMatrix::Scaling(FScale);
}

TOpenGLMatrix TOpenGLObject::ModelTransform() const {
  return FParent ? FParent->ModelTransform() * LocalTransform() : LocalTransform();
}

TOpenGLBox TOpenGLObject::GetBoundingBox() const {
  TOpenGLBox local = GetLocalBoundingBox();
  for (const auto& child : FChildren)
    if (child->FVisible) local.AddBox(child->GetBoundingBox());
  if (local.IsEmpty()) return local;
  const TOpenGLMatrix m = LocalTransform();
  TOpenGLBox box;
  for (int corner = 0; corner < 8; ++corner)
    box.Add(m.TransformPoint({corner & 1 ? local.Max.X : local.Min.X, corner & 2 ? local.Max.Y : local.Min.Y,
                              corner & 4 ? local.Max.Z : local.Min.Z}));
  return box;
}

void TOpenGLObject::CompileDisplayLists() {
  if (!UsesDisplayList()) return;
  if (FDisplayList == 0) FDisplayList = glGenLists(1);
  if (FDisplayList == 0) return;
  glNewList(FDisplayList, GL_COMPILE);
  RenderData();
  glEndList();
  FListValid = true;
}

void TOpenGLObject::Render(bool opaquePass) {
  if (!FVisible) return;
  glPushMatrix();
  glTranslated(FPosition.X, FPosition.Y, FPosition.Z);
  glTranslated(FRotationalCentre.X, FRotationalCentre.Y, FRotationalCentre.Z);
  glRotated(FRotation.X, 1, 0, 0);
  glRotated(FRotation.Y, 0, 1, 0);
  glRotated(FRotation.Z, 0, 0, 1);
  glTranslated(-FRotationalCentre.X, -FRotationalCentre.Y, -FRotationalCentre.Z);
  glScaled(FScale.X, FScale.Y, FScale.Z);

  const bool stencilParent = FParent && FParent->FStencilObject;
  TOpenGLTexture* texture = nullptr;
  if (!stencilParent) {
    const GLfloat specular[4] = {FSpecularReflectivity, FSpecularReflectivity, FSpecularReflectivity, 1};
    glMaterialfv(GL_FRONT, GL_SPECULAR, specular);
    glMaterialf(GL_FRONT, GL_SHININESS, std::clamp(FShininess, 0.0f, 128.0f));
    if (FUseTextures && !FTextures.empty() && FView && FView->HasFeature(ofTextures)) {
      texture = FTextures.front().get();
      texture->Bind(FView->ResourceBin());
    }
    const TOpenGLColor& c = CurrentColor();
    glColor4f(c.R, c.G, c.B, c.A);
  }

  // The pass is chosen by the colour's alpha as the context holds it.
  GLfloat current[4] = {1, 1, 1, 1};
  glGetFloatv(GL_CURRENT_COLOR, current);
  const bool opaque = current[3] >= 1.0f;
  if (opaque == opaquePass || FRenderInBothPasses) {
    const bool stencilOff = FView && FView->HasFeature(ofStencil) && !FUseStencil && !FStencilObject;
    if (stencilOff) {
      glPushAttrib(GL_STENCIL_BUFFER_BIT | GL_ENABLE_BIT);
      glDisable(GL_STENCIL_TEST);
    }
    if (OnStartRendering) OnStartRendering(this);
    glLoadName(FIDNumber);
    const double scale = ReferenceScale();
    glLineWidth(static_cast<GLfloat>(FLineWidth * scale));
    glPointSize(static_cast<GLfloat>(FPointSize * scale));
    switch (FDrawStyle) {
    case TOpenGLDrawStyle::Fill:
      glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
      break;
    case TOpenGLDrawStyle::Line:
      glPolygonMode(GL_FRONT_AND_BACK, GL_LINE);
      break;
    case TOpenGLDrawStyle::Point:
      glPolygonMode(GL_FRONT_AND_BACK, GL_POINT);
      break;
    }
    if (UsesDisplayList()) {
      if (!FListValid || FDisplayList == 0) CompileDisplayLists();
      if (FDisplayList != 0) glCallList(FDisplayList);
    } else {
      RenderData();
    }
    glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
    if (OnRenderingFinished) OnRenderingFinished(this);
    if (stencilOff) glPopAttrib();
  }
  // Children are drawn in either pass by their own colour.
  for (size_t i = 0; i < FChildren.size(); ++i) {
    glPushName(static_cast<GLuint>(i));
    FChildren[i]->Render(opaquePass);
    glPopName();
  }
  if (texture) texture->Release();
  glPopMatrix();
}
