// Texts, axes, markers, masks, cubes, planes, coordinate systems and meshes.
#include "opengl/Openglobjects.h"

#include "opengl/Openglview.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include <GL/gl.h>
#include <GL/glu.h>

#define OX_FIELD_SETTER(Class, Name, Field, Type)                                                            \
  void Class::Set##Name(Type value) {                                                                        \
    if (Field == value) return;                                                                              \
    Field = value;                                                                                           \
    ObjectChanged();                                                                                         \
  }

// --- Text ----------------------------------------------------------------------------------------------

OX_FIELD_SETTER(TOpenGLText, Text, FText, const std::string&)
OX_FIELD_SETTER(TOpenGLText, FontSize, FFontSize, double)
OX_FIELD_SETTER(TOpenGLText, Use3DFont, FUse3DFont, bool)
OX_FIELD_SETTER(TOpenGLText, TextRotation, FTextRotation, double)

void TOpenGLText::SetAlignment(THorizontalAlignment horizontal, TVerticalAlignment vertical) {
  if (FHorizontal == horizontal && FVertical == vertical) return;
  FHorizontal = horizontal;
  FVertical = vertical;
  ObjectChanged();
}

TOpenGLFont* TOpenGLText::Font() const {
  if (!GetView()) return nullptr;
  return FUse3DFont ? GetView()->GetFont3D() : GetView()->GetFont2D();
}

TTextExtent TOpenGLText::Measure() const {
  TOpenGLFont* font = Font();
  return font ? font->MeasureText(FText, FFontSize) : TTextExtent{};
}

void TOpenGLText::RenderData() {
  TOpenGLFont* font = Font();
  if (!font) return;
  font->RenderText({0, 0, 0}, FText, FFontSize, FHorizontal, FVertical, FTextRotation,
                   GetView()->ResourceBin(), ReferenceScale());
}

void TOpenGLMultiLineText::SetLines(const std::vector<std::string>& lines) {
  if (FLines == lines) return;
  FLines = lines;
  ObjectChanged();
}

OX_FIELD_SETTER(TOpenGLMultiLineText, LineSpacing, FLineSpacing, double)

void TOpenGLMultiLineText::RenderData() {
  TOpenGLFont* font = Font();
  if (!font) return;
  const double size = GetFontSize() > 0 ? GetFontSize() : font->GetSize();
  // 2D sizes are pixels: the line step is taken back into model units through the projection.
  double step = size * FLineSpacing;
  if (!GetUse3DFont() && GetView()) {
    const TOpenGLMatrix m = GetView()->ProjectionMatrix() * GetView()->ViewMatrix() * ModelTransform();
    const TOpenGLVector a = m.TransformPoint({0, 0, 0}), b = m.TransformPoint({0, 1, 0});
    const double pixelsPerUnit = std::fabs(b.Y - a.Y) * 0.5 * GetView()->GetHeight();
    if (pixelsPerUnit > 0) step /= pixelsPerUnit;
  }
  for (size_t i = 0; i < FLines.size(); ++i)
    font->RenderText({0, -step * static_cast<double>(i), 0}, FLines[i], GetFontSize(),
                     GetHorizontalAlignment(), GetVerticalAlignment(), GetTextRotation(),
                     GetView()->ResourceBin(), ReferenceScale());
}

// --- Axis ----------------------------------------------------------------------------------------------

TOpenGLAxis::TOpenGLAxis() {
  SetColor({0, 0, 0, 1});
  ChangeLabels();
}

void TOpenGLAxis::Changed() {
  ChangeLabels();
  ObjectChanged();
}

#define OX_AXIS_SETTER(Name, Field, Type)                                                                    \
  void TOpenGLAxis::Set##Name(Type value) {                                                                  \
    if (Field == value) return;                                                                              \
    Field = value;                                                                                           \
    Changed();                                                                                               \
  }
OX_AXIS_SETTER(Start, FStart, const TOpenGLVector&)
OX_AXIS_SETTER(End, FEnd, const TOpenGLVector&)
OX_AXIS_SETTER(WorldStart, FWorldStart, double)
OX_AXIS_SETTER(WorldEnd, FWorldEnd, double)
OX_AXIS_SETTER(FirstLabelPos, FFirstLabelPos, double)
OX_AXIS_SETTER(LastLabelPos, FLastLabelPos, double)
OX_AXIS_SETTER(Ticks, FTickCount, int)
OX_AXIS_SETTER(LogarithmicScale, FLogarithmic, bool)
OX_AXIS_SETTER(LabelType, FLabelType, TAxisLabelType)
OX_AXIS_SETTER(Caption, FCaption, const std::string&)
OX_AXIS_SETTER(CaptionPosition, FCaptionPosition, double)
OX_AXIS_SETTER(CaptionDistance, FCaptionDistance, double)
OX_AXIS_SETTER(UnitCaption, FUnitCaption, const std::string&)
OX_AXIS_SETTER(LabelRotation, FLabelRotation, double)
OX_AXIS_SETTER(LabelsVisible, FLabelsVisible, bool)
OX_AXIS_SETTER(TicksVisible, FTicksVisible, bool)
OX_AXIS_SETTER(TickLength, FTickLength, double)
OX_AXIS_SETTER(ArrowVisible, FArrowVisible, bool)
OX_AXIS_SETTER(ArrowDiameter, FArrowDiameter, double)
OX_AXIS_SETTER(ArrowLength, FArrowLength, double)
#undef OX_AXIS_SETTER

void TOpenGLAxis::SetDirectionVector(const TOpenGLVector& v) {
  const TOpenGLVector n = v.Normalized();
  if (n == FDirection) return;
  FDirection = n;
  Changed();
}

void TOpenGLAxis::SetLabelFormat(TFloatFormat format, int digits) {
  FLabelFormat = format;
  FLabelDigits = std::clamp(digits, 0, 17);
  Changed();
}

void TOpenGLAxis::SetLabelFontSize(double size) {
  FLabelFontSize = size;
  FUse3DLabels = true;
  Changed();
}

void TOpenGLAxis::SetLabelFontSize2D(double pixels) {
  FLabelFontSize2D = pixels;
  FUse3DLabels = false;
  Changed();
}

double TOpenGLAxis::LabelSize() const {
  return FUse3DLabels ? FLabelFontSize : FLabelFontSize2D;
}

TOpenGLVector TOpenGLAxis::WorldToPosition(double world) const {
  const double length = AxisLength();
  const TScalerViewPort port(0, length, FWorldStart, FWorldEnd,
                             FLogarithmic ? TScaleKind::Logarithmic : TScaleKind::Linear);
  const double along = port.WorldToModel(world);
  if (length <= 0) return FStart;
  return FStart + (FEnd - FStart) * (along / length);
}

TOpenGLVector TOpenGLAxis::GetLabelPosition(int index) const {
  if (index < 0 || index >= FTicks.TickCount()) return {};
  const double length = AxisLength();
  const double along = FTicks.LabelPositions()[static_cast<size_t>(index)];
  const TOpenGLVector onAxis = length > 0 ? FStart + (FEnd - FStart) * (along / length) : FStart;
  return onAxis + FDirection * (0.8 * LabelSize());
}

std::string TOpenGLAxis::FormatLabel(double value) const {
  // A tick that should be 0 but carries the rounding of its sum is shown as 0.
  const double span = std::fabs(FWorldEnd - FWorldStart);
  if (span > 0 && std::fabs(value) < span * 1e-12) value = 0;
  char buffer[64];
  switch (FLabelFormat) {
  case TFloatFormat::Exponent:
    std::snprintf(buffer, sizeof buffer, "%.*e", FLabelDigits, value);
    break;
  case TFloatFormat::Fixed:
    std::snprintf(buffer, sizeof buffer, "%.*f", FLabelDigits, value);
    break;
  default:
    std::snprintf(buffer, sizeof buffer, "%.*g", std::max(1, FLabelDigits), value);
    break;
  }
  return buffer;
}

std::string TOpenGLAxis::FullCaption() const {
  if (FUnitCaption.empty()) return FCaption;
  if (FCaption.empty()) return "[" + FUnitCaption + "]";
  return FCaption + " [" + FUnitCaption + "]";
}

namespace {

/// The alignment that keeps a text on the side of its anchor to which direction points.
void AlignmentFor(const TOpenGLVector& d, THorizontalAlignment& h, TVerticalAlignment& v) {
  if (std::fabs(d.X) > std::fabs(d.Y)) {
    h = d.X < 0 ? THorizontalAlignment::Right : THorizontalAlignment::Left;
    v = TVerticalAlignment::Center;
  } else {
    h = THorizontalAlignment::Center;
    v = d.Y < 0 ? TVerticalAlignment::Top : TVerticalAlignment::Bottom;
  }
}

} // namespace

void TOpenGLAxis::ChangeLabels() {
  // Margins and tick distance from the width of "0" in the labels' font (1 when it has no width).
  double zeroWidth = 0;
  if (GetView()) {
    TOpenGLFont* font = FUse3DLabels ? GetView()->GetFont3D() : GetView()->GetFont2D();
    if (font) zeroWidth = font->MeasureText("0", LabelSize()).Width;
  }
  if (!(zeroWidth > 0)) zeroWidth = 1.0;
  FTicks.MaximumNumberOfTicks = std::max(1, FTickCount);
  FTicks.StartMargin = zeroWidth / 2;
  FTicks.EndMargin = zeroWidth / 2;
  FTicks.MinimumTickDistance = 1.5 * zeroWidth;
  FTicks.Calculate(TScalerViewPort(0, AxisLength(), FWorldStart, FWorldEnd,
                                   FLogarithmic ? TScaleKind::Logarithmic : TScaleKind::Linear));

  // The axis's children are its labels and its caption.
  const bool autoUpdate = GetView() && GetView()->GetAutoUpdate();
  if (autoUpdate) GetView()->SetAutoUpdate(false);
  ClearObjects();
  FLabels.clear();
  FCaptionText = nullptr;
  THorizontalAlignment h;
  TVerticalAlignment v;
  AlignmentFor(FDirection, h, v);
  const double length = AxisLength();
  if (FLabelsVisible && FLabelType == TAxisLabelType::Value) {
    for (int i = 0; i < FTicks.TickCount(); ++i) {
      const double t = length > 0 ? FTicks.LabelPositions()[static_cast<size_t>(i)] / length : 0;
      if (t < FFirstLabelPos - 1e-9 || t > FLastLabelPos + 1e-9) continue;
      auto label = std::make_unique<TOpenGLText>();
      label->SetText(FormatLabel(FTicks.LabelValues()[static_cast<size_t>(i)]));
      label->SetPosition(GetLabelPosition(i));
      label->SetUse3DFont(FUse3DLabels);
      label->SetFontSize(LabelSize());
      label->SetAlignment(h, v);
      label->SetTextRotation(FLabelRotation);
      label->SetColor(GetColor());
      label->SetSelectable(false);
      FLabels.push_back(static_cast<TOpenGLText*>(AddObject(std::move(label))));
    }
  }
  const std::string caption = FullCaption();
  if (!caption.empty()) {
    auto text = std::make_unique<TOpenGLText>();
    text->SetText(caption);
    text->SetPosition(FStart + (FEnd - FStart) * FCaptionPosition +
                      FDirection * (FCaptionDistance * LabelSize()));
    text->SetUse3DFont(FUse3DLabels);
    text->SetFontSize(LabelSize());
    text->SetAlignment(h, v);
    text->SetColor(GetColor());
    text->SetSelectable(false);
    FCaptionText = static_cast<TOpenGLText*>(AddObject(std::move(text)));
  }
  TOpenGLBox box;
  box.Add(FStart);
  box.Add(FEnd);
  SetLocalBoundingBox(box);
  if (autoUpdate) GetView()->SetAutoUpdate(true);
}

void TOpenGLAxis::RenderData() {
  glBegin(GL_LINES);
  glVertex3d(FStart.X, FStart.Y, FStart.Z);
  glVertex3d(FEnd.X, FEnd.Y, FEnd.Z);
  if (FTicksVisible) {
    const double length = AxisLength();
    for (double along : FTicks.TickPositions()) {
      const TOpenGLVector p = length > 0 ? FStart + (FEnd - FStart) * (along / length) : FStart;
      const TOpenGLVector q = p + FDirection * FTickLength;
      glVertex3d(p.X, p.Y, p.Z);
      glVertex3d(q.X, q.Y, q.Z);
    }
  }
  glEnd();
  if (FArrowVisible && AxisLength() > 0) {
    // A cone along the axis at its end: rotate the z axis onto the axis direction.
    const TOpenGLVector d = (FEnd - FStart).Normalized();
    const TOpenGLVector z{0, 0, 1};
    const TOpenGLVector axis = z.Cross(d);
    const double angle = std::acos(std::clamp(z.Dot(d), -1.0, 1.0)) * 180.0 / std::numbers::pi;
    glPushMatrix();
    glTranslated(FEnd.X, FEnd.Y, FEnd.Z);
    if (axis.Length() > 1e-12)
      glRotated(angle, axis.X, axis.Y, axis.Z);
    else if (d.Z < 0)
      glRotated(180, 1, 0, 0);
    GLUquadric* q = gluNewQuadric();
    gluCylinder(q, FArrowDiameter / 2, 0, FArrowLength, 20, 5);
    glRotated(180, 1, 0, 0);
    gluDisk(q, 0, FArrowDiameter / 2, 20, 2);
    gluDeleteQuadric(q);
    glPopMatrix();
  }
  // Labels and caption follow the axis's colour.
  for (int i = 0; i < GetObjectCount(); ++i)
    if (GetObject(i)->GetColor() != GetColor()) GetObject(i)->SetColor(GetColor());
  // The font may have arrived since the last layout (the axis joined a view): lay out again then.
  if (GetView()) {
    TOpenGLFont* font = FUse3DLabels ? GetView()->GetFont3D() : GetView()->GetFont2D();
    const double zero = font ? font->MeasureText("0", LabelSize()).Width : 0;
    const double expected = zero > 0 ? zero / 2 : 0.5;
    if (std::fabs(FTicks.StartMargin - expected) > 1e-12) ChangeLabels();
  }
}

// --- Marker --------------------------------------------------------------------------------------------

TOpenGLMarker::TOpenGLMarker() {
  SetColor({1, 0, 0, 1});
  UpdateBox();
}

void TOpenGLMarker::SetShape(TMarkerShape shape) {
  if (FShape == shape) return;
  FShape = shape;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLMarker::SetSize(double width, double height) {
  FWidth = width;
  FHeight = height;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLMarker::SetPoints(const std::vector<TOpenGLVector>& points) {
  FPoints = points;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLMarker::SetFilled(bool value) {
  if (FFilled == value) return;
  FFilled = value;
  ObjectChanged();
}

std::vector<TOpenGLVector> TOpenGLMarker::Outline() const {
  const double w = FWidth / 2, h = FHeight / 2;
  switch (FShape) {
  case TMarkerShape::Cross:
    return {{-w, 0, 0}, {w, 0, 0}, {0, -h, 0}, {0, h, 0}};
  case TMarkerShape::Rectangle:
    return {{-w, -h, 0}, {w, -h, 0}, {w, h, 0}, {-w, h, 0}};
  case TMarkerShape::Circle: {
    std::vector<TOpenGLVector> points;
    constexpr int kSegments = 48;
    for (int i = 0; i < kSegments; ++i) {
      const double a = 2 * std::numbers::pi * i / kSegments;
      points.push_back({w * std::cos(a), h * std::sin(a), 0});
    }
    return points;
  }
  case TMarkerShape::Polygon:
  case TMarkerShape::Line:
    return FPoints;
  }
  return {};
}

void TOpenGLMarker::UpdateBox() {
  TOpenGLBox box;
  for (const TOpenGLVector& p : Outline()) box.Add(p);
  SetLocalBoundingBox(box);
}

void TOpenGLMarker::RenderData() {
  const std::vector<TOpenGLVector> points = Outline();
  GLenum mode = GL_LINE_LOOP;
  if (FShape == TMarkerShape::Cross)
    mode = GL_LINES;
  else if (FShape == TMarkerShape::Line)
    mode = GL_LINE_STRIP;
  else if (FFilled)
    mode = GL_POLYGON;
  glBegin(mode);
  for (const TOpenGLVector& p : points) glVertex3d(p.X, p.Y, p.Z);
  glEnd();
}

// --- Multi mask ----------------------------------------------------------------------------------------

TOpenGLMultiMask::TOpenGLMultiMask() {
  SetColor({0.5f, 0.5f, 0.5f, 0.5f});
}

void TOpenGLMultiMask::SetRectangles(const std::vector<TRect>& rects) {
  if (FRects == rects) return;
  FRects = rects;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLMultiMask::AddRectangle(const TRect& rect) {
  FRects.push_back(rect);
  UpdateBox();
  ObjectChanged();
}

void TOpenGLMultiMask::ClearRectangles() {
  if (FRects.empty()) return;
  FRects.clear();
  UpdateBox();
  ObjectChanged();
}

OX_FIELD_SETTER(TOpenGLMultiMask, Depth, FDepth, double)

void TOpenGLMultiMask::UpdateBox() {
  TOpenGLBox box;
  for (const TRect& r : FRects) {
    box.Add({r.Left, r.Bottom, FDepth});
    box.Add({r.Right, r.Top, FDepth});
  }
  SetLocalBoundingBox(box);
}

void TOpenGLMultiMask::RenderData() {
  glBegin(GL_QUADS);
  for (const TRect& r : FRects) {
    glVertex3d(r.Left, r.Bottom, FDepth);
    glVertex3d(r.Right, r.Bottom, FDepth);
    glVertex3d(r.Right, r.Top, FDepth);
    glVertex3d(r.Left, r.Top, FDepth);
  }
  glEnd();
}

// --- Cube, plane, coordinate system --------------------------------------------------------------------

TOpenGLCube::TOpenGLCube() {
  SetSize({1, 1, 1});
}

void TOpenGLCube::SetSize(const TOpenGLVector& size) {
  FSize = size;
  TOpenGLBox box;
  box.Add(size * -0.5);
  box.Add(size * 0.5);
  SetLocalBoundingBox(box);
  ObjectChanged();
}

void TOpenGLCube::RenderData() {
  const double x = FSize.X / 2, y = FSize.Y / 2, z = FSize.Z / 2;
  // Six faces, counter-clockwise seen from outside, with their normals for lighting.
  static const int kFaces[6][4] = {{0, 1, 3, 2}, {4, 6, 7, 5}, {0, 4, 5, 1},
                                   {2, 3, 7, 6}, {0, 2, 6, 4}, {1, 5, 7, 3}};
  static const double kNormals[6][3] = {{-1, 0, 0}, {1, 0, 0}, {0, -1, 0}, {0, 1, 0}, {0, 0, -1}, {0, 0, 1}};
  auto corner = [&](int i) { return TOpenGLVector{i & 4 ? x : -x, i & 2 ? y : -y, i & 1 ? z : -z}; };
  glBegin(GL_QUADS);
  for (int f = 0; f < 6; ++f) {
    glNormal3dv(kNormals[f]);
    for (int k = 0; k < 4; ++k) {
      const TOpenGLVector p = corner(kFaces[f][k]);
      glVertex3d(p.X, p.Y, p.Z);
    }
  }
  glEnd();
}

TOpenGLFlatPlane::TOpenGLFlatPlane() {
  SetSize(1, 1);
}

void TOpenGLFlatPlane::SetSize(double width, double height) {
  FWidth = width;
  FHeight = height;
  TOpenGLBox box;
  box.Add({0, 0, 0});
  box.Add({width, height, 0});
  SetLocalBoundingBox(box);
  ObjectChanged();
}

void TOpenGLFlatPlane::RenderData() {
  glBegin(GL_QUADS);
  glNormal3d(0, 0, 1);
  glTexCoord2d(0, 0);
  glVertex2d(0, 0);
  glTexCoord2d(1, 0);
  glVertex2d(FWidth, 0);
  glTexCoord2d(1, 1);
  glVertex2d(FWidth, FHeight);
  glTexCoord2d(0, 1);
  glVertex2d(0, FHeight);
  glEnd();
}

TOpenGLCoordinateSystem::TOpenGLCoordinateSystem() {
  const TOpenGLVector labelDirections[3] = {{0, -1, 0}, {-1, 0, 0}, {-1, 0, 0}};
  for (int i = 0; i < 3; ++i) {
    auto axis = std::make_unique<TOpenGLAxis>();
    axis->SetDirectionVector(labelDirections[i]);
    axis->SetArrowVisible(true);
    FAxes[i] = static_cast<TOpenGLAxis*>(AddObject(std::move(axis)));
  }
  SetExtent({100, 100, 100});
}

void TOpenGLCoordinateSystem::SetExtent(const TOpenGLVector& size) {
  FAxes[0]->SetEnd({size.X, 0, 0});
  FAxes[1]->SetEnd({0, size.Y, 0});
  FAxes[2]->SetEnd({0, 0, size.Z});
}

void TOpenGLCoordinateSystem::SetWorldRange(int axis, double start, double end) {
  if (axis < 0 || axis > 2) return;
  FAxes[axis]->SetWorldStart(start);
  FAxes[axis]->SetWorldEnd(end);
}

// --- Mesh ----------------------------------------------------------------------------------------------

TOpenGLMesh::TOpenGLMesh() {
  FColorTexture = AddTexture(std::make_unique<TOpenGLTexture>());
  SetUseTextures(true);
}

void TOpenGLMesh::SetDimensions(int xDimension, int yDimension) {
  FXDim = std::max(0, xDimension);
  FYDim = std::max(0, yDimension);
  FZ.assign(static_cast<size_t>(FXDim) * FYDim, 0.0f);
  FColorTexture->SetSize(FXDim, FYDim);
  FX0 = 0, FY0 = 0, FX1 = FXDim * FDX, FY1 = FYDim * FDY;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLMesh::SetSpacing(double dx, double dy) {
  FDX = dx;
  FDY = dy;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLMesh::SetZValue(int x, int y, double z) {
  if (x < 0 || y < 0 || x >= FXDim || y >= FYDim) return;
  FZ[static_cast<size_t>(y) * FXDim + x] = static_cast<float>(z);
  UpdateBox();
  ObjectChanged();
}

double TOpenGLMesh::GetZValue(int x, int y) const {
  if (x < 0 || y < 0 || x >= FXDim || y >= FYDim) return 0;
  return FZ[static_cast<size_t>(y) * FXDim + x];
}

void TOpenGLMesh::SetZValues(const std::vector<float>& values) {
  if (values.size() != FZ.size()) return;
  FZ = values;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLMesh::SetUseZValues(bool value) {
  if (FUseZValues == value) return;
  FUseZValues = value;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLMesh::SetFlatCorners(double x0, double y0, double x1, double y1) {
  FX0 = x0, FY0 = y0, FX1 = x1, FY1 = y1;
  UpdateBox();
  ObjectChanged();
}

OX_FIELD_SETTER(TOpenGLMesh, CloseBorders, FCloseBorders, bool)

void TOpenGLMesh::SetColorTextureSize(int width, int height) {
  FColorTexture->SetSize(width, height);
  ObjectChanged();
}

void TOpenGLMesh::SetColorPoint(int x, int y, const TOpenGLColor& color) {
  FColorTexture->SetPixel(x, y, color);
}

void TOpenGLMesh::SetColorLine(int y, const std::vector<TOpenGLColor>& colors) {
  for (size_t x = 0; x < colors.size(); ++x) FColorTexture->SetPixel(static_cast<int>(x), y, colors[x]);
}

void TOpenGLMesh::SetColorPointOpacity(int x, int y, float alpha) {
  TOpenGLColor c = FColorTexture->GetPixel(x, y);
  c.A = alpha;
  FColorTexture->SetPixel(x, y, c);
}

void TOpenGLMesh::MakeColorTextureTransparent(float alpha) {
  const auto a = static_cast<uint8_t>(std::lround(std::clamp(alpha, 0.0f, 1.0f) * 255.0f));
  std::vector<uint8_t>& p = FColorTexture->Pixels();
  for (size_t i = 3; i < p.size(); i += 4) p[i] = a;
  FColorTexture->Invalidate();
}

void TOpenGLMesh::MakeColorTextureLineTransparent(int y, float alpha) {
  for (int x = 0; x < FColorTexture->GetWidth(); ++x) SetColorPointOpacity(x, y, alpha);
}

void TOpenGLMesh::UpdateColorTexture() {
  FColorTexture->Invalidate();
  ObjectChanged();
}

void TOpenGLMesh::SetTextureFilterMode(TOpenGLTextureFilter filter) {
  FColorTexture->SetFilter(filter);
  ObjectChanged();
}

TOpenGLVector TOpenGLMesh::GridPoint(int x, int y) const {
  return {x * FDX, y * FDY, FUseZValues ? GetZValue(x, y) : 0.0};
}

std::vector<uint32_t> TOpenGLMesh::FillIndexArrayRows(int y) const {
  std::vector<uint32_t> indices;
  if (y < 0 || y + 1 >= FYDim) return indices;
  indices.reserve(static_cast<size_t>(FXDim) * 2);
  for (int x = 0; x < FXDim; ++x) {
    indices.push_back(static_cast<uint32_t>((y + 1) * FXDim + x));
    indices.push_back(static_cast<uint32_t>(y * FXDim + x));
  }
  return indices;
}

std::vector<TOpenGLVector> TOpenGLMesh::CloseBorders() const {
  std::vector<TOpenGLVector> quads;
  if (FXDim < 2 || FYDim < 2) return quads;
  double bottom = 0;
  if (FUseZValues && !FZ.empty())
    bottom = std::min(0.0, static_cast<double>(*std::min_element(FZ.begin(), FZ.end())));
  auto wall = [&](int xa, int ya, int xb, int yb) {
    const TOpenGLVector a = GridPoint(xa, ya), b = GridPoint(xb, yb);
    quads.push_back({a.X, a.Y, bottom});
    quads.push_back({b.X, b.Y, bottom});
    quads.push_back(b);
    quads.push_back(a);
  };
  for (int x = 0; x + 1 < FXDim; ++x) {
    wall(x, 0, x + 1, 0);
    wall(x + 1, FYDim - 1, x, FYDim - 1);
  }
  for (int y = 0; y + 1 < FYDim; ++y) {
    wall(FXDim - 1, y, FXDim - 1, y + 1);
    wall(0, y + 1, 0, y);
  }
  return quads;
}

void TOpenGLMesh::UpdateBox() {
  TOpenGLBox box;
  if (!FUseZValues) {
    box.Add({FX0, FY0, 0});
    box.Add({FX1, FY1, 0});
  } else if (FXDim > 0 && FYDim > 0) {
    const auto [lo, hi] = std::minmax_element(FZ.begin(), FZ.end());
    box.Add({0, 0, std::min(0.0, static_cast<double>(*lo))});
    box.Add({(FXDim - 1) * FDX, (FYDim - 1) * FDY, static_cast<double>(*hi)});
  }
  SetLocalBoundingBox(box);
}

void TOpenGLMesh::RenderData() {
  if (!FUseZValues) {
    // One textured quad; the texture covers the corners exactly.
    glBegin(GL_QUADS);
    glNormal3d(0, 0, 1);
    glTexCoord2d(0, 0);
    glVertex2d(FX0, FY0);
    glTexCoord2d(1, 0);
    glVertex2d(FX1, FY0);
    glTexCoord2d(1, 1);
    glVertex2d(FX1, FY1);
    glTexCoord2d(0, 1);
    glVertex2d(FX0, FY1);
    glEnd();
    return;
  }
  if (FXDim < 2 || FYDim < 2) return;
  // Vertices with texture coordinates at the texel centres of the grid points.
  std::vector<double> vertices;
  std::vector<float> texCoords;
  vertices.reserve(static_cast<size_t>(FXDim) * FYDim * 3);
  texCoords.reserve(static_cast<size_t>(FXDim) * FYDim * 2);
  for (int y = 0; y < FYDim; ++y)
    for (int x = 0; x < FXDim; ++x) {
      const TOpenGLVector p = GridPoint(x, y);
      vertices.insert(vertices.end(), {p.X, p.Y, p.Z});
      texCoords.push_back(static_cast<float>((x + 0.5) / FXDim));
      texCoords.push_back(static_cast<float>((y + 0.5) / FYDim));
    }
  glEnableClientState(GL_VERTEX_ARRAY);
  glEnableClientState(GL_TEXTURE_COORD_ARRAY);
  glVertexPointer(3, GL_DOUBLE, 0, vertices.data());
  glTexCoordPointer(2, GL_FLOAT, 0, texCoords.data());
  for (int y = 0; y + 1 < FYDim; ++y) {
    const std::vector<uint32_t> indices = FillIndexArrayRows(y);
    glDrawElements(GL_TRIANGLE_STRIP, static_cast<GLsizei>(indices.size()), GL_UNSIGNED_INT, indices.data());
  }
  glDisableClientState(GL_TEXTURE_COORD_ARRAY);
  glDisableClientState(GL_VERTEX_ARRAY);
  if (FCloseBorders) {
    const std::vector<TOpenGLVector> quads = CloseBorders();
    glBegin(GL_QUADS);
    for (const TOpenGLVector& p : quads) glVertex3d(p.X, p.Y, p.Z);
    glEnd();
  }
}
