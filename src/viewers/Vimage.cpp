// The image viewer.
#include "viewers/Vimage.h"

#include "common/Saveandload.h"
#include "data/Dbitmap.h"
#include "data/Dcolorprofile.h"
#include "data/Dcursor.h"
#include "data/Dimage.h"
#include "data/Dimagebase.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "opengl/Openglobjects.h"
#include "opengl/Openglticks.h"
#include "project/Project.h"
#include "viewers/Viewershow.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numbers>
#include <type_traits>

namespace {
const char* kGroup = "TVImageForm";
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
/// Model z of the layers over the picture: nearer to the camera is higher.
constexpr double kDrawFieldZ = 0.01;
constexpr double kMarkerZ = 0.02;
/// Size of the cursor's cross in window pixels.
constexpr double kCursorCrossPixels = 24;
constexpr int kScaleBarEntries = 256;
/// Size of the axis labels and length of the ticks, in window pixels.
constexpr double kAxisLabelPixels = 12;
constexpr double kAxisTickPixels = 5;

TOpenGLColor ColorOf(TColor c, float alpha = 1.0f) {
  return TOpenGLColor::FromRGB(static_cast<uint8_t>(c & 0xFF), static_cast<uint8_t>((c >> 8) & 0xFF),
                               static_cast<uint8_t>((c >> 16) & 0xFF), alpha);
}

/// Integer and list parameters alike.
TUserIntParameter* IntParameter(const TUserParameterAdministrator& cfi, int32_t id) {
  return dynamic_cast<TUserIntParameter*>(cfi.GetUserParameter(id));
}

TUserDoubleParameter* DoubleParameter(const TUserParameterAdministrator& cfi, int32_t id) {
  return dynamic_cast<TUserDoubleParameter*>(cfi.GetUserParameter(id));
}

std::string FormatAxisValue(double v) {
  // Tick values are round; a value that is zero but for rounding noise reads 0.
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", std::fabs(v) < 1e-12 ? 0.0 : v);
  return text;
}

std::string FormatScaleValue(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.4g", v);
  return text;
}
} // namespace

// --- Creation and registration ------------------------------------------------------------------------

TVImageForm::TVImageForm() {
  SetFormCaption(kCaption);
  SetBounds(0, 0, 520, 480);
  GetOpenGLView().SetClearColor({1, 1, 1, 1});
  GetOpenGLView().OnViewportSizeChange = [this](int, int) { LayoutView(); };
  CreateCFI();
}

TVImageForm::~TVImageForm() = default;

TImageViewerOptions& TVImageForm::Options() {
  static TImageViewerOptions options;
  return options;
}

void TVImageForm::RegisterViewer() {
  TVCustomForm::RegisterViewer(kClassName, [](TRegisteredViewer& entry) {
    entry.CreateViewer = [] { return std::make_unique<TVImageForm>(); };
    entry.IsInputIDListOkayForShowViewer = &TVImageForm::IsInputIDListOkayForShowViewer;
    entry.ShowViewer = [](TProject& project, const TIntList& ids) {
      return ShowNewViewer(project, std::make_unique<TVImageForm>(), ids);
    };
    entry.Caption = kCaption;
  });
}

bool TVImageForm::IsInputIDListOkayForShowViewer(TProject& project, const TIntList& ids) {
  if (ids.empty() || static_cast<int32_t>(ids.size()) > kMaximumIDs) return false;
  for (int32_t id : ids) {
    const std::string name = project.GetClassNameByID(id);
    if (name != TDImage::kClassName && name != TDBitmap::kClassName) return false;
  }
  return true;
}

// --- Objects ------------------------------------------------------------------------------------------

TDImage* TVImageForm::FindImage(int32_t id) const {
  TProject* project = GetProject();
  return project && id ? dynamic_cast<TDImage*>(project->FindData(id)) : nullptr;
}

TDBitmap* TVImageForm::FindBitmap() const {
  TProject* project = GetProject();
  return project && FBitmapID ? dynamic_cast<TDBitmap*>(project->FindData(FBitmapID)) : nullptr;
}

void TVImageForm::GetShownSize(int32_t& sizeX, int32_t& sizeY) const {
  sizeX = sizeY = 0;
  if (const TDImage* image = FindImage(FImageColorID)) {
    sizeX = image->GetSizeX();
    sizeY = image->GetSizeY();
  } else if (const TDBitmap* bitmap = FindBitmap()) {
    sizeX = bitmap->GetWidth();
    sizeY = bitmap->GetHeight();
  }
}

int32_t TVImageForm::ShownTransformationID() const {
  if (const TDImage* image = FindImage(FImageColorID)) return image->GetSpaceTransformationID();
  if (const TDBitmap* bitmap = FindBitmap()) return bitmap->GetSpaceTransformationID();
  return 0;
}

TDColorProfile* TVImageForm::GetOrMakeColorProfile() {
  TProject* project = GetProject();
  if (!project) return nullptr;
  if (auto* profile = dynamic_cast<TDColorProfile*>(project->FindData(FColorProfileID))) return profile;
  // A load doesn't add objects: until the viewer is used, a profile of its own draws (its ID is dropped).
  if (project->IsLoading()) {
    FColorProfileID = 0;
    if (!FFallbackProfile) FFallbackProfile = std::make_unique<TDColorProfile>();
    return FFallbackProfile.get();
  }
  // Every viewer shows through a profile of the project; without one it makes its own.
  auto profile = std::make_unique<TDColorProfile>();
  profile->SetID(project->GetNewDataID());
  profile->SetSaveMode(TDataSaveMode::WhileUsed);
  auto* raw = profile.get();
  FColorProfileID = raw->GetID();
  project->AddData(std::move(profile));
  return raw;
}

void TVImageForm::ConnectCursor() {
  TProject* project = GetProject();
  if (!project || FSpaceCursorID) return;
  TCursorLink link;
  const int32_t transformation = ShownTransformationID();
  FSpaceCursorID = transformation ? link.ConnectByTransformation(*project, transformation) : 0;
  if (!FSpaceCursorID) FSpaceCursorID = link.Connect(*project, TUnitKind::Space);
}

bool TVImageForm::SetImageID(int32_t id, bool keepScale) {
  TProject* project = GetProject();
  if (!project) return false;
  const std::string name = project->GetClassNameByID(id);
  if (name == TDImage::kClassName) {
    FImageID = FImageColorID = id;
  } else if (name == TDBitmap::kClassName) {
    FBitmapID = id;
    if (!FImageID) FImageColorID = 0;
  } else {
    return false;
  }
  InvalidateExtrema();
  int32_t sizeX, sizeY;
  GetShownSize(sizeX, sizeY);
  FStartX = FStartY = 0;
  FStopX = sizeX - 1;
  FStopY = sizeY - 1;
  if (FDrawField.Exists() && (FDrawField.GetSizeX() != sizeX || FDrawField.GetSizeY() != sizeY))
    FDrawField.Clear();
  GetOrMakeColorProfile();
  ConnectCursor();
  if (!keepScale && FImageColorID) AutomaticColorScale(false);
  SetAll();
  UpdateCaption();
  Changed();
  return true;
}

void TVImageForm::SetColorImage(int32_t id) {
  SetImageID(id, false);
}

void TVImageForm::SetZImage(int32_t id) {
  FImageZID = FindImage(id) ? id : 0;
  FUseZImage = FImageZID != 0;
  FZExtrema = TImageExtrema();
  if (FUseZImage && !FScaleLocked)
    if (const TImageExtrema& z = GetImageZExtrema(); z.Valid) SetZScale(z.Minimum, z.Maximum, false);
  SetAll();
  Changed();
}

void TVImageForm::SetBrightnessImage(int32_t id) {
  FImageBrightnessID = FindImage(id) ? id : 0;
  FUseBrightnessImage = FImageBrightnessID != 0;
  FBrightnessExtrema = TImageExtrema();
  if (FUseBrightnessImage && !FScaleLocked)
    if (const TImageExtrema& b = GetImageBrightnessExtrema(); b.Valid)
      SetBrightnessScale(b.Minimum, b.Maximum, false);
  SetMesh();
  Changed();
}

// --- Colour scale -------------------------------------------------------------------------------------

void TVImageForm::SetColorScale(double minimum, double maximum, bool fromUser) {
  if (!std::isfinite(minimum) || !std::isfinite(maximum)) return;
  if (minimum > maximum) std::swap(minimum, maximum);
  KeepScaleLimitsApart(minimum, maximum);
  if (fromUser) FAutomaticColorScaleOnImageChange = false;
  FScaleMinimum = minimum;
  FScaleMaximum = maximum;
  SyncCFI();
  SetMesh();
  UpdateScaleBar();
  Changed();
}

void TVImageForm::SetZScale(double minimum, double maximum, bool /*fromUser*/) {
  if (!std::isfinite(minimum) || !std::isfinite(maximum)) return;
  if (minimum > maximum) std::swap(minimum, maximum);
  KeepScaleLimitsApart(minimum, maximum);
  FZScaleMinimum = minimum;
  FZScaleMaximum = maximum;
  if (FDisplayMode == TImageDisplayMode::Display3D) UpdateZMesh();
}

void TVImageForm::SetBrightnessScale(double minimum, double maximum, bool /*fromUser*/) {
  if (!std::isfinite(minimum) || !std::isfinite(maximum)) return;
  if (minimum > maximum) std::swap(minimum, maximum);
  KeepScaleLimitsApart(minimum, maximum);
  FBrightnessScaleMinimum = minimum;
  FBrightnessScaleMaximum = maximum;
  SetMesh();
}

void TVImageForm::SetScaleKind(TImageScaleKind kind) {
  if (kind == FScaleKind) return;
  FScaleKind = kind;
  SyncCFI();
  SetMesh();
  UpdateScaleBar();
  Changed();
}

void TVImageForm::InvalidateExtrema() {
  FColorExtrema = TImageExtrema();
  FZExtrema = TImageExtrema();
  FBrightnessExtrema = TImageExtrema();
}

const TImageExtrema& TVImageForm::GetImageColorExtrema() {
  if (!FColorExtrema.Valid)
    if (const TDImage* image = FindImage(FImageColorID))
      GetScaleParameters(*image, FLineCorrection, FColorExtrema);
  return FColorExtrema;
}

const TImageExtrema& TVImageForm::GetImageZExtrema() {
  if (!FZExtrema.Valid)
    if (const TDImage* image = FindImage(FUseZImage && FImageZID ? FImageZID : FImageColorID))
      GetScaleParameters(*image, FLineCorrection3D, FZExtrema);
  return FZExtrema;
}

const TImageExtrema& TVImageForm::GetImageBrightnessExtrema() {
  if (!FBrightnessExtrema.Valid)
    if (const TDImage* image = FindImage(FImageBrightnessID))
      GetScaleParameters(*image, TLineCorrection::None, FBrightnessExtrema);
  return FBrightnessExtrema;
}

void TVImageForm::AutomaticColorScale(bool fromLastLine) {
  TProject* project = GetProject();
  if (FScaleLocked || (project && project->IsLoading())) return;
  TDImage* image = FindImage(FImageColorID);
  if (!image) return;
  double minimum = 0, maximum = 0;
  bool found = false;
  if (fromLastLine) {
    int32_t last = -1;
    for (int32_t y = 0; y < image->GetSizeY(); ++y)
      if (image->GetLineChanged(y) || image->GetLineValid(y)) last = y;
    if (last >= 0) {
      std::vector<float> line(static_cast<size_t>(image->GetSizeX()));
      image->GetFastLine(last, line.data());
      CorrectImageLine(line.data(), image->GetSizeX(), FLineCorrection, line.data());
      found = GetScaleFromLineValues(std::move(line), minimum, maximum);
    }
  } else {
    double lower = Options().LowerPercent, upper = Options().UpperPercent;
    KeepPercentLimitsApart(lower, upper);
    const TImageExtrema& extrema = GetImageColorExtrema();
    found = extrema.ValueAtPercent(lower, minimum) && extrema.ValueAtPercent(upper, maximum);
  }
  if (found) {
    KeepScaleLimitsApart(minimum, maximum);
    FScaleMinimum = minimum;
    FScaleMaximum = maximum;
  }
  if (const TImageExtrema& z = GetImageZExtrema(); z.Valid) {
    double zMin = z.Minimum, zMax = z.Maximum;
    KeepScaleLimitsApart(zMin, zMax);
    FZScaleMinimum = zMin;
    FZScaleMaximum = zMax;
  }
  if (FImageBrightnessID)
    if (const TImageExtrema& b = GetImageBrightnessExtrema(); b.Valid) {
      double bMin = b.Minimum, bMax = b.Maximum;
      KeepScaleLimitsApart(bMin, bMax);
      FBrightnessScaleMinimum = bMin;
      FBrightnessScaleMaximum = bMax;
    }
  FLastTotalAverage = image->GetAverage();
  SyncCFI();
  SetMesh();
  if (FDisplayMode == TImageDisplayMode::Display3D) UpdateZMesh();
  UpdateScaleBar();
}

void TVImageForm::SetLineCorrection(TLineCorrection correction) {
  if (correction == FLineCorrection) return;
  FLineCorrection = correction;
  FColorExtrema = TImageExtrema();
  if (FAutomaticColorScaleOnImageChange) AutomaticColorScale(false);
  SyncCFI();
  SetMesh();
  UpdateScaleBar();
  Changed();
}

void TVImageForm::SetLineCorrection3D(TLineCorrection correction) {
  if (correction == FLineCorrection3D) return;
  FLineCorrection3D = correction;
  FZExtrema = TImageExtrema();
  if (const TImageExtrema& z = GetImageZExtrema(); z.Valid) SetZScale(z.Minimum, z.Maximum, false);
  if (FDisplayMode == TImageDisplayMode::Display3D) UpdateZMesh();
  Changed();
}

void TVImageForm::SetNextLineCorrection() {
  SetLineCorrection(
      static_cast<TLineCorrection>((static_cast<int32_t>(FLineCorrection) + 1) % kLineCorrectionCount));
}

void TVImageForm::SetPreviousLineCorrection() {
  SetLineCorrection(static_cast<TLineCorrection>(
      (static_cast<int32_t>(FLineCorrection) + kLineCorrectionCount - 1) % kLineCorrectionCount));
}

double TVImageForm::GetLineCorrectedZValue(int32_t x, int32_t y) {
  const TDImage* image = FindImage(FImageColorID);
  if (!image || x < 0 || y < 0 || x >= image->GetSizeX() || y >= image->GetSizeY()) return kNaN;
  std::vector<float> line(static_cast<size_t>(image->GetSizeX()));
  image->GetFastLine(y, line.data());
  CorrectImageLine(line.data(), image->GetSizeX(), FLineCorrection, line.data());
  return line[static_cast<size_t>(x)];
}

TColor TVImageForm::GetColorOfValue(double value) {
  const TDColorProfile* profile = GetOrMakeColorProfile();
  if (!profile) return 0;
  double floor = 0;
  if (FScaleKind == TImageScaleKind::Logarithmic && FScaleMinimum <= 0)
    if (!GetImageColorExtrema().SmallestPositive(floor)) floor = 0;
  return TImageColorMapper(*profile, FScaleMinimum, FScaleMaximum, FScaleKind, floor).Map(value);
}

TColor TVImageForm::GetPixelColor(int32_t x, int32_t y) const {
  if (x < 0 || y < 0 || x >= FShownSizeX || y >= FShownSizeY) return 0;
  return FPixelColors[static_cast<size_t>(y) * static_cast<size_t>(FShownSizeX) + static_cast<size_t>(x)];
}

// --- Scene --------------------------------------------------------------------------------------------

void TVImageForm::SetAll() {
  TGraphicUpdateGuard guard(*this);
  BuildScene();
  SetMesh();
  if (FDisplayMode == TImageDisplayMode::Display3D) UpdateZMesh();
  UpdateDrawFieldTexture();
  UpdateScaleBar();
  LayoutView();
  UpdateCursorMarker();
}

void TVImageForm::BuildScene() {
  TOpenGLView& view = GetOpenGLView();
  view.ClearObjects();
  FMesh = FDrawFieldMesh = FScaleBar = nullptr;
  FCursorMarker = FZoomMarker = nullptr;
  FScaleBarTop = FScaleBarBottom = nullptr;
  FAxisX = FAxisY = nullptr;
  FImageMarker = FPositionMarker = nullptr;
  FTransformationMarkers.clear();
  GetShownSize(FShownSizeX, FShownSizeY);
  FPixelColors.assign(static_cast<size_t>(FShownSizeX) * static_cast<size_t>(FShownSizeY), 0);
  // Lighting, fog and shading would alter the colours of the picture: the flat view uses none.
  view.SetFeatures(ofDepthTest | ofBlending | ofTextures);
  if (FShownSizeX <= 0 || FShownSizeY <= 0) return;
  if (FStopX < FStartX || FStopY < FStartY || FStopX >= FShownSizeX || FStopY >= FShownSizeY || FStartX < 0 ||
      FStartY < 0) {
    FStartX = FStartY = 0;
    FStopX = FShownSizeX - 1;
    FStopY = FShownSizeY - 1;
  }
  auto mesh = std::make_unique<TOpenGLMesh>();
  mesh->SetName("Image");
  mesh->SetUseTextures(true);
  mesh->SetDimensions(FShownSizeX, FShownSizeY);
  mesh->SetTextureFilterMode(FInterpolatePixelColors ? TOpenGLTextureFilter::Linear
                                                     : TOpenGLTextureFilter::Nearest);
  FMesh = view.Add(std::move(mesh));

  auto drawField = std::make_unique<TOpenGLMesh>();
  drawField->SetName("DrawField");
  drawField->SetUseTextures(true);
  drawField->SetSelectable(false);
  drawField->SetDimensions(FShownSizeX, FShownSizeY);
  drawField->SetTextureFilterMode(TOpenGLTextureFilter::Nearest); // no half-transparent edges
  drawField->SetPosition({0, 0, kDrawFieldZ});
  FDrawFieldMesh = view.Add(std::move(drawField));

  auto cross = std::make_unique<TOpenGLMarker>();
  cross->SetName("Cursor");
  cross->SetShape(TMarkerShape::Cross);
  cross->SetColor({1, 0, 1, 1});
  cross->SetLineWidth(1.5f);
  cross->SetSelectable(false);
  FCursorMarker = view.Add(std::move(cross));

  auto marker = std::make_unique<TOpenGLMarker>();
  marker->SetName("Marker");
  marker->SetColor({1, 1, 0, 1});
  marker->SetLineWidth(1.5f);
  marker->SetSelectable(false);
  marker->SetVisible(false);
  FImageMarker = view.Add(std::move(marker));
  auto position = std::make_unique<TOpenGLMarker>();
  position->SetName("PositionMarker");
  position->SetShape(TMarkerShape::Circle);
  position->SetColor({1, 1, 0, 1});
  position->SetSelectable(false);
  position->SetVisible(false);
  FPositionMarker = view.Add(std::move(position));
  for (size_t i = 0; i < FTransformationIDs.size(); ++i) {
    auto outline = std::make_unique<TOpenGLMarker>();
    outline->SetName("Transformation");
    outline->SetShape(TMarkerShape::Polygon);
    // Outlines of other areas in green, half transparent, so that the picture shows through.
    outline->SetColor({0, 0.8f, 0, 0.8f});
    outline->SetLineWidth(2);
    outline->SetSelectable(false);
    FTransformationMarkers.push_back(view.Add(std::move(outline)));
  }

  auto zoom = std::make_unique<TOpenGLMarker>();
  zoom->SetName("ZoomRectangle");
  zoom->SetShape(TMarkerShape::Polygon);
  zoom->SetColor({1, 1, 1, 1});
  zoom->SetSelectable(false);
  zoom->SetVisible(false);
  FZoomMarker = view.Add(std::move(zoom));

  auto bar = std::make_unique<TOpenGLMesh>();
  bar->SetName("ScaleBar");
  bar->SetUseTextures(true);
  bar->SetSelectable(false);
  bar->SetDimensions(1, kScaleBarEntries);
  FScaleBar = view.Add(std::move(bar));
  auto top = std::make_unique<TOpenGLText>();
  top->SetAlignment(THorizontalAlignment::Left, TVerticalAlignment::Top);
  top->SetSelectable(false);
  FScaleBarTop = view.Add(std::move(top));
  auto bottom = std::make_unique<TOpenGLText>();
  bottom->SetAlignment(THorizontalAlignment::Left, TVerticalAlignment::Bottom);
  bottom->SetSelectable(false);
  FScaleBarBottom = view.Add(std::move(bottom));

  // The coordinate axes: each a group holding its line with ticks, its labels and its caption, filled anew
  // at each layout (label sizes are window pixels, so they depend on the window).
  auto axisX = std::make_unique<TOpenGLObject>();
  axisX->SetName("AxisX");
  axisX->SetSelectable(false);
  FAxisX = view.Add(std::move(axisX));
  auto axisY = std::make_unique<TOpenGLObject>();
  axisY->SetName("AxisY");
  axisY->SetSelectable(false);
  FAxisY = view.Add(std::move(axisY));
}

bool TVImageForm::PictureFrame(double x0, double y0, double x1, double y1, TPictureFrame& frame) const {
  TProject* project = GetProject();
  if (!project) return false;
  const int32_t transformation = ShownTransformationID();
  double ox, oy, ax, ay, bx, by, cx, cy;
  PixelToWorld(*project, transformation, x0, y0, ox, oy);
  PixelToWorld(*project, transformation, x1, y0, ax, ay);
  PixelToWorld(*project, transformation, x1, y1, bx, by);
  PixelToWorld(*project, transformation, x0, y1, cx, cy);
  frame.Corners = {WorldToModel(ox, oy), WorldToModel(ax, ay), WorldToModel(bx, by), WorldToModel(cx, cy)};
  frame.Origin = frame.Corners[0];
  const TOpenGLVector along = frame.Corners[1] - frame.Origin, down = frame.Corners[3] - frame.Origin;
  if (!std::isfinite(along.X) || !std::isfinite(along.Y) || !std::isfinite(down.X) || !std::isfinite(down.Y))
    return false;
  // The picture's x axis gives the turn; its y axis is then taken along the turned model y (a sheared
  // transformation keeps its y extent, the shear itself can't be shown by a turned rectangle).
  const double angle = std::atan2(along.Y, along.X);
  frame.AngleDegrees = angle * 180.0 / std::numbers::pi;
  frame.Width = std::hypot(along.X, along.Y);
  frame.Height = -std::sin(angle) * down.X + std::cos(angle) * down.Y;
  return frame.Width > 0 && frame.Height != 0;
}

namespace {
/// Lays out one coordinate axis from model point a to b showing world values worldA to worldB: the line
/// with ticks standing out in direction out, a label beside each tick and the caption, sizes in window
/// pixels (unitsPerPixel model units each).
void LayAxis(TOpenGLObject& axis, const TOpenGLVector& a, const TOpenGLVector& b, double worldA,
             double worldB, const TOpenGLVector& out, double unitsPerPixel, const std::string& caption,
             bool vertical) {
  axis.ClearObjects();
  const TOpenGLColor black{0, 0, 0, 1};
  const double lengthPixels = (b - a).Length() / unitsPerPixel;
  TLabelAndTicks ticks;
  ticks.MaximumNumberOfTicks = 8;
  ticks.MinimumTickDistance = vertical ? kAxisLabelPixels * 2.5 : kAxisLabelPixels * 5;
  ticks.Calculate(TScalerViewPort(0, lengthPixels, worldA, worldB));
  const TOpenGLVector dir = lengthPixels > 0 ? (b - a) * (1.0 / (b - a).Length()) : TOpenGLVector{1, 0, 0};
  const double tick = kAxisTickPixels * unitsPerPixel;
  // The line runs from a to b and goes out and back at each tick.
  std::vector<std::pair<double, double>> marks;
  for (int i = 0; i < ticks.TickCount(); ++i)
    marks.emplace_back(ticks.TickPositions()[static_cast<size_t>(i)],
                       ticks.LabelValues()[static_cast<size_t>(i)]);
  std::sort(marks.begin(), marks.end());
  std::vector<TOpenGLVector> points{a};
  for (const auto& [along, value] : marks) {
    const TOpenGLVector p = a + dir * (along * unitsPerPixel);
    points.push_back(p);
    points.push_back(p + out * tick);
    points.push_back(p);
    auto label = std::make_unique<TOpenGLText>();
    label->SetName("AxisLabel");
    label->SetText(FormatAxisValue(value));
    label->SetPosition(p + out * (tick + 3 * unitsPerPixel));
    label->SetFontSize(kAxisLabelPixels);
    label->SetAlignment(vertical ? THorizontalAlignment::Right : THorizontalAlignment::Center,
                        vertical ? TVerticalAlignment::Center : TVerticalAlignment::Top);
    label->SetColor(black);
    label->SetSelectable(false);
    axis.AddObject(std::move(label));
  }
  points.push_back(b);
  auto line = std::make_unique<TOpenGLMarker>();
  line->SetName("AxisLine");
  line->SetShape(TMarkerShape::Line);
  line->SetPoints(points);
  line->SetColor(black);
  line->SetSelectable(false);
  axis.AddObject(std::move(line));
  auto text = std::make_unique<TOpenGLText>();
  text->SetName("AxisCaption");
  text->SetText(caption);
  text->SetFontSize(kAxisLabelPixels);
  text->SetColor(black);
  text->SetSelectable(false);
  if (vertical) {
    // Above the axis's top end, where no label stands.
    text->SetPosition(a + TOpenGLVector{0, 6 * unitsPerPixel, 0});
    text->SetAlignment(THorizontalAlignment::Center, TVerticalAlignment::Bottom);
  } else {
    text->SetPosition((a + b) * 0.5 + out * (tick + (kAxisLabelPixels + 8) * unitsPerPixel));
    text->SetAlignment(THorizontalAlignment::Center, TVerticalAlignment::Top);
  }
  axis.AddObject(std::move(text));
}
} // namespace

std::vector<const TOpenGLText*> TVImageForm::GetAxisLabels(bool yAxis) const {
  std::vector<const TOpenGLText*> labels;
  const TOpenGLObject* axis = yAxis ? FAxisY : FAxisX;
  if (!axis || !axis->GetVisible()) return labels;
  for (int i = 0; i < axis->GetObjectCount(); ++i)
    if (axis->GetObject(i)->GetName() == "AxisLabel")
      labels.push_back(static_cast<const TOpenGLText*>(axis->GetObject(i)));
  return labels;
}

void TVImageForm::LayoutView() {
  TOpenGLView& view = GetOpenGLView();
  if (!FMesh) return;
  // The zoom window: the flat picture covers exactly it, turned as the space transformation turns it.
  TPictureFrame frame;
  if (!PictureFrame(FStartX - 0.5, FStartY - 0.5, FStopX + 0.5, FStopY + 0.5, frame)) return;
  FMesh->SetFlatCorners(0, 0, frame.Width, frame.Height);
  FDrawFieldMesh->SetFlatCorners(0, 0, frame.Width, frame.Height);
  FDrawFieldMesh->SetPosition({frame.Origin.X, frame.Origin.Y, kDrawFieldZ});
  FDrawFieldMesh->SetRotation({0, 0, frame.AngleDegrees});
  double left = frame.Corners[0].X, right = left, bottom = frame.Corners[0].Y, top = bottom;
  for (const TOpenGLVector& c : frame.Corners) {
    left = std::min(left, c.X);
    right = std::max(right, c.X);
    bottom = std::min(bottom, c.Y);
    top = std::max(top, c.Y);
  }
  const double w = std::max(right - left, 1e-12), h = std::max(top - bottom, 1e-12);

  if (FDisplayMode == TImageDisplayMode::Display3D) {
    view.SetProjectionType(FCameraProjection == 1 ? TOpenGLProjectionType::Perspective
                                                  : TOpenGLProjectionType::Orthographic);
    TOpenGLCamera& camera = view.Camera();
    camera.Theta = FCameraTheta;
    camera.Phi = FCameraPhi;
    camera.UpVector = {0, 0, 1};
    camera.LookDistance =
        FFreeCameraDistanceActive && FFreeCameraDistance > 0 ? FFreeCameraDistance : 2.5 * std::max(w, h);
    camera.UpdateCameraBySphereCoordinates({(left + right) / 2, (top + bottom) / 2, 0});
    if (!FFreeCameraDistanceActive) view.FitCamera();
    FScaleBar->SetVisible(false);
    FScaleBarTop->SetVisible(false);
    FScaleBarBottom->SetVisible(false);
    FAxisX->SetVisible(false);
    FAxisY->SetVisible(false);
    return;
  }
  FMesh->SetPosition(frame.Origin);
  FMesh->SetRotation({0, 0, frame.AngleDegrees});

  // Margins in window pixels for the axes and the scale bar; the picture takes the rest at the world's
  // aspect ratio and is centred in it (so a window of another shape leaves bands on two sides).
  const double marginLeft = FShowCoordinateSystem ? 64 : 8;
  const double marginBottom = FShowCoordinateSystem ? 48 : 8;
  const double marginRight = FShowScaleBar ? 96 : 8;
  const double marginTop = FShowCoordinateSystem ? 28 : 8;
  const double viewW = std::max(1, view.GetWidth()), viewH = std::max(1, view.GetHeight());
  const double unitsPerPixel = std::max(w / std::max(viewW - marginLeft - marginRight, 16.0),
                                        h / std::max(viewH - marginTop - marginBottom, 16.0));
  const double spareX = viewW * unitsPerPixel - (w + (marginLeft + marginRight) * unitsPerPixel);
  const double spareY = viewH * unitsPerPixel - (h + (marginTop + marginBottom) * unitsPerPixel);
  const double boxLeft = left - marginLeft * unitsPerPixel - spareX / 2;
  const double boxRight = boxLeft + viewW * unitsPerPixel;
  const double boxBottom = bottom - marginBottom * unitsPerPixel - spareY / 2;
  const double boxTop = boxBottom + viewH * unitsPerPixel;
  view.SetProjectionType(TOpenGLProjectionType::Orthographic);
  TOpenGLCamera& camera = view.Camera();
  camera.Theta = 180;
  camera.Phi = 0;
  camera.UpVector = {0, 1, 0};
  camera.LookDistance = 1;
  camera.SetPosition({0, 0, 0});
  view.SetOrthographicVolume(boxLeft, boxRight, boxBottom, boxTop);

  FScaleBar->SetVisible(FShowScaleBar);
  FScaleBarTop->SetVisible(FShowScaleBar);
  FScaleBarBottom->SetVisible(FShowScaleBar);
  if (FShowScaleBar) {
    const double x0 = right + 14 * unitsPerPixel, x1 = x0 + 18 * unitsPerPixel;
    FScaleBar->SetFlatCorners(x0, top, x1, bottom);
    FScaleBarTop->SetPosition({x1 + 6 * unitsPerPixel, top, kMarkerZ});
    FScaleBarBottom->SetPosition({x1 + 6 * unitsPerPixel, bottom, kMarkerZ});
  }
  FAxisX->SetVisible(FShowCoordinateSystem);
  FAxisY->SetVisible(FShowCoordinateSystem);
  if (FShowCoordinateSystem) {
    // The axes give world coordinates in the space unit: x along the bottom, y (downwards) along the left.
    std::string unit = "µm";
    if (auto* space = dynamic_cast<TDTransformation*>(GetProject()->FindData(ShownTransformationID())))
      unit = space->GetStandardUnit();
    const double gap = 6 * unitsPerPixel;
    LayAxis(*FAxisX, {left, bottom - gap, kMarkerZ}, {right, bottom - gap, kMarkerZ}, left, right, {0, -1, 0},
            unitsPerPixel, "x [" + unit + "]", false);
    LayAxis(*FAxisY, {left - gap, top, kMarkerZ}, {left - gap, bottom, kMarkerZ}, -top, -bottom, {-1, 0, 0},
            unitsPerPixel, "y [" + unit + "]", true);
  }
  if (FCursorMarker) {
    const double size = kCursorCrossPixels * unitsPerPixel;
    FCursorMarker->SetSize(size, size);
  }
  FUnitsPerPixel = unitsPerPixel;
  UpdateImageMarkers();
}

void TVImageForm::RecolorTexture() {
  if (!FMesh) return;
  const int32_t sx = FShownSizeX, sy = FShownSizeY;
  FPixelColors.assign(static_cast<size_t>(sx) * static_cast<size_t>(sy), 0);
  const TDImage* image = FindImage(FImageColorID);
  if (image && image->GetSizeX() == sx && image->GetSizeY() == sy) {
    const TDColorProfile* profile = GetOrMakeColorProfile();
    if (!profile) return;
    double floor = 0;
    if (FScaleKind == TImageScaleKind::Logarithmic && FScaleMinimum <= 0)
      if (!GetImageColorExtrema().SmallestPositive(floor)) floor = 0;
    const TImageColorMapper mapper(*profile, FScaleMinimum, FScaleMaximum, FScaleKind, floor);
    const TDImage* brightness = FUseBrightnessImage ? FindImage(FImageBrightnessID) : nullptr;
    if (brightness && (brightness->GetSizeX() != sx || brightness->GetSizeY() != sy)) brightness = nullptr;
    std::vector<float> line(static_cast<size_t>(sx)), light(static_cast<size_t>(sx));
    const double range = FBrightnessScaleMaximum - FBrightnessScaleMinimum;
    for (int32_t y = 0; y < sy; ++y) {
      TColor* out = FPixelColors.data() + static_cast<size_t>(y) * static_cast<size_t>(sx);
      if (!image->GetLineValid(y)) {
        // A line not yet written shows the bottom colour, like a missing value.
        std::fill(out, out + sx, profile->GetBottomColor());
        continue;
      }
      image->GetFastLine(y, line.data());
      CorrectImageLine(line.data(), sx, FLineCorrection, line.data());
      for (int32_t x = 0; x < sx; ++x) out[x] = mapper.Map(line[static_cast<size_t>(x)]);
      if (brightness && brightness->GetLineValid(y) && range > 0) {
        brightness->GetFastLine(y, light.data());
        for (int32_t x = 0; x < sx; ++x) {
          const double v = light[static_cast<size_t>(x)];
          const double f =
              std::isfinite(v) ? std::clamp((v - FBrightnessScaleMinimum) / range, 0.0, 1.0) : 0.0;
          const TColor c = out[x];
          const auto scale = [f](TColor channel) { return static_cast<TColor>(std::lround(channel * f)); };
          out[x] = scale(c & 0xFF) | (scale((c >> 8) & 0xFF) << 8) | (scale((c >> 16) & 0xFF) << 16);
        }
      }
    }
  } else if (const TDBitmap* bitmap = FindBitmap();
             bitmap && bitmap->GetWidth() == sx && bitmap->GetHeight() == sy) {
    for (int32_t y = 0; y < sy; ++y)
      bitmap->GetLine(y, FPixelColors.data() + static_cast<size_t>(y) * static_cast<size_t>(sx));
  }
  // Texture row y is line y: the mesh puts texture row 0 at its first corner, the top of the picture.
  // The flat picture shows only the zoom window, so that nothing of the image reaches the margins; the height
  // mesh takes the whole image.
  const bool whole = FDisplayMode == TImageDisplayMode::Display3D;
  const int32_t x0 = whole ? 0 : FStartX, y0 = whole ? 0 : FStartY;
  const int32_t w = whole ? sx : FStopX - FStartX + 1, h = whole ? sy : FStopY - FStartY + 1;
  if (w <= 0 || h <= 0 || x0 + w > sx || y0 + h > sy) return;
  TOpenGLTexture& texture = FMesh->ColorTexture();
  if (texture.GetWidth() != w || texture.GetHeight() != h) texture.SetSize(w, h);
  std::vector<uint8_t>& bytes = texture.Pixels();
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const TColor c =
          FPixelColors[static_cast<size_t>(y0 + y) * static_cast<size_t>(sx) + static_cast<size_t>(x0 + x)];
      uint8_t* texel = &bytes[4 * (static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x))];
      texel[0] = static_cast<uint8_t>(c & 0xFF);
      texel[1] = static_cast<uint8_t>((c >> 8) & 0xFF);
      texel[2] = static_cast<uint8_t>((c >> 16) & 0xFF);
      texel[3] = 255;
    }
  FMesh->UpdateColorTexture();
}

void TVImageForm::SetMesh() {
  RecolorTexture();
  // The draw field mixes its red with the picture's colours: it follows them.
  UpdateDrawFieldTexture();
}

void TVImageForm::UpdateZMesh() {
  if (!FMesh) return;
  TProject* project = GetProject();
  const TDImage* image = FindImage(FUseZImage && FImageZID ? FImageZID : FImageColorID);
  if (!project || !image || image->GetSizeX() != FShownSizeX || image->GetSizeY() != FShownSizeY) {
    FMesh->SetUseZValues(false);
    return;
  }
  // The mesh's grid runs from the centre of pixel (0, 0), one pixel step each way, turned as the space
  // transformation turns the picture.
  TPictureFrame step;
  if (!PictureFrame(0, 0, 1, 1, step)) {
    FMesh->SetUseZValues(false);
    return;
  }
  FMesh->SetPosition(step.Origin);
  FMesh->SetRotation({0, 0, step.AngleDegrees});
  FMesh->SetSpacing(step.Width, step.Height);
  // Heights run over a third of the larger side of the picture.
  const double extent = std::max(std::abs(step.Width) * FShownSizeX, std::abs(step.Height) * FShownSizeY);
  const double range = FZScaleMaximum - FZScaleMinimum;
  std::vector<float> z(static_cast<size_t>(FShownSizeX) * static_cast<size_t>(FShownSizeY), 0.0f);
  std::vector<float> line(static_cast<size_t>(FShownSizeX));
  for (int32_t y = 0; y < FShownSizeY; ++y) {
    if (!image->GetLineValid(y)) continue;
    image->GetFastLine(y, line.data());
    CorrectImageLine(line.data(), FShownSizeX, FLineCorrection3D, line.data());
    for (int32_t x = 0; x < FShownSizeX; ++x) {
      const double v = line[static_cast<size_t>(x)];
      const double t =
          std::isfinite(v) && range > 0 ? std::clamp((v - FZScaleMinimum) / range, 0.0, 1.0) : 0.0;
      z[static_cast<size_t>(y) * static_cast<size_t>(FShownSizeX) + static_cast<size_t>(x)] =
          static_cast<float>(t * extent / 3);
    }
  }
  FMesh->SetZValues(z);
  FMesh->SetUseZValues(true);
  FMesh->SetCloseBorders(FNiceMeshBorders);
}

void TVImageForm::UpdateDrawFieldTexture() {
  if (!FDrawFieldMesh) return;
  const bool show = FDrawField.Exists() && FDrawField.GetSizeX() == FShownSizeX &&
                    FDrawField.GetSizeY() == FShownSizeY && FDisplayMode == TImageDisplayMode::Display2D;
  FDrawFieldMesh->SetVisible(show);
  if (!show) return;
  const int32_t w = FStopX - FStartX + 1, h = FStopY - FStartY + 1;
  if (w <= 0 || h <= 0) return;
  TOpenGLTexture& texture = FDrawFieldMesh->ColorTexture();
  if (texture.GetWidth() != w || texture.GetHeight() != h) texture.SetSize(w, h);
  std::vector<uint8_t>& bytes = texture.Pixels();
  const size_t sx = static_cast<size_t>(FShownSizeX);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      // Painted pixels: the picture's colour half-way to red, opaque; the others fully transparent, so the
      // picture shows untouched. The mixing is done here rather than by blending, so that the frame's alpha
      // stays opaque where the window composes the view.
      uint8_t* texel = &bytes[4 * (static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x))];
      const bool painted = FDrawField.GetPixel(FStartX + x, FStartY + y);
      const size_t at = static_cast<size_t>(FStartY + y) * sx + static_cast<size_t>(FStartX + x);
      const TColor c = at < FPixelColors.size() ? FPixelColors[at] : 0;
      texel[0] = static_cast<uint8_t>(((c & 0xFF) + 256) / 2);
      texel[1] = static_cast<uint8_t>(((c >> 8) & 0xFF) / 2);
      texel[2] = static_cast<uint8_t>(((c >> 16) & 0xFF) / 2);
      texel[3] = painted ? 255 : 0;
    }
  FDrawFieldMesh->UpdateColorTexture();
}

void TVImageForm::UpdateScaleBar() {
  if (!FScaleBar) return;
  const TDColorProfile* profile = GetOrMakeColorProfile();
  if (!profile) return;
  TOpenGLTexture& texture = FScaleBar->ColorTexture();
  if (texture.GetWidth() != 1 || texture.GetHeight() != kScaleBarEntries)
    texture.SetSize(1, kScaleBarEntries);
  std::vector<uint8_t>& bytes = texture.Pixels();
  const int32_t total = profile->GetTotalCount();
  for (int r = 0; r < kScaleBarEntries; ++r) {
    // Row 0 lies at the top of the bar: the top of the range.
    const TColor c = profile->GetColorsFromIndex(static_cast<int32_t>(int64_t(r) * total / kScaleBarEntries));
    bytes[4 * static_cast<size_t>(r)] = static_cast<uint8_t>(c & 0xFF);
    bytes[4 * static_cast<size_t>(r) + 1] = static_cast<uint8_t>((c >> 8) & 0xFF);
    bytes[4 * static_cast<size_t>(r) + 2] = static_cast<uint8_t>((c >> 16) & 0xFF);
    bytes[4 * static_cast<size_t>(r) + 3] = 255;
  }
  FScaleBar->UpdateColorTexture();
  const TOpenGLColor text = ColorOf(static_cast<TColor>(FScaleBarColor));
  FScaleBarTop->SetColor(text);
  FScaleBarBottom->SetColor(text);
  FScaleBarTop->SetText(FormatScaleValue(FScaleMaximum));
  FScaleBarBottom->SetText(FormatScaleValue(FScaleMinimum));
}

void TVImageForm::UpdateCursorMarker() {
  if (!FCursorMarker) return;
  int32_t x, y;
  const bool inside = GetCursorPixel(x, y) && FDisplayMode == TImageDisplayMode::Display2D;
  FCursorMarker->SetVisible(inside);
  if (!inside) return;
  double wx, wy;
  PixelToWorld(*GetProject(), ShownTransformationID(), x, y, wx, wy);
  TOpenGLVector p = WorldToModel(wx, wy);
  p.Z = kMarkerZ;
  FCursorMarker->SetPosition(p);
}

void TVImageForm::SetDisplayMode(TImageDisplayMode mode) {
  if (mode == FDisplayMode) return;
  FDisplayMode = mode;
  SyncCFI();
  SetAll();
  Changed();
}

void TVImageForm::SetShowScaleBar(bool show) {
  if (show == FShowScaleBar) return;
  FShowScaleBar = show;
  SyncCFI();
  LayoutView();
  Changed();
}

void TVImageForm::SetShowCoordinateSystem(bool show) {
  if (show == FShowCoordinateSystem) return;
  FShowCoordinateSystem = show;
  SyncCFI();
  LayoutView();
  Changed();
}

void TVImageForm::SetInterpolatePixelColors(bool interpolate) {
  if (interpolate == FInterpolatePixelColors) return;
  FInterpolatePixelColors = interpolate;
  if (FMesh)
    FMesh->SetTextureFilterMode(interpolate ? TOpenGLTextureFilter::Linear : TOpenGLTextureFilter::Nearest);
  SyncCFI();
  Changed();
}

bool TVImageForm::SetZoomWindow(int32_t startX, int32_t startY, int32_t stopX, int32_t stopY) {
  int32_t sizeX, sizeY;
  GetShownSize(sizeX, sizeY);
  if (startX < 0 || startY < 0 || stopX >= sizeX || stopY >= sizeY || startX > stopX || startY > stopY)
    return false;
  FStartX = startX;
  FStartY = startY;
  FStopX = stopX;
  FStopY = stopY;
  SyncCFI();
  SetMesh();
  UpdateDrawFieldTexture();
  LayoutView();
  Changed();
  if (FSynchronizedZoom && !FReceivingZoom) SendZoomForSynchronize();
  return true;
}

void TVImageForm::SendZoomForSynchronize() {
  TProject* project = GetProject();
  if (!project || FShownSizeX <= 0 || FShownSizeY <= 0) return;
  const int32_t t = ShownTransformationID();
  T4Points points;
  const double px[4] = {FStartX - 0.5, FStopX + 0.5, FStopX + 0.5, FStartX - 0.5};
  const double py[4] = {FStartY - 0.5, FStartY - 0.5, FStopY + 0.5, FStopY + 0.5};
  for (int i = 0; i < 4; ++i) PixelToWorld(*project, t, px[i], py[i], points.X[i], points.Y[i]);
  int32_t index = 0;
  for (size_t i = 0; i < project->ViewerList().size(); ++i) {
    auto* other = dynamic_cast<TVImageForm*>(project->GetViewer(i));
    if (!other) continue;
    if (other != this && other->FSynchronizedZoom) other->SynchronizeZoom(points, index);
    ++index;
  }
}

bool TVImageForm::SynchronizeZoom(const T4Points& points, int32_t /*index*/) {
  TProject* project = GetProject();
  int32_t sizeX, sizeY;
  GetShownSize(sizeX, sizeY);
  if (!project || sizeX <= 0 || sizeY <= 0) return false;
  // The corners in this picture's pixel coordinates; the window takes every pixel whose centre lies
  // within their box.
  const auto* space = dynamic_cast<const TDSpaceTransformation*>(project->FindData(ShownTransformationID()));
  double lowX = 1e300, lowY = 1e300, highX = -1e300, highY = -1e300;
  for (int i = 0; i < 4; ++i) {
    const double real[3] = {points.X[i], points.Y[i], 0.0};
    double bin[3] = {points.X[i], points.Y[i], 0.0};
    if (space) space->RealToBin(bin, real);
    if (!std::isfinite(bin[0]) || !std::isfinite(bin[1])) return false;
    lowX = std::min(lowX, bin[0]);
    highX = std::max(highX, bin[0]);
    lowY = std::min(lowY, bin[1]);
    highY = std::max(highY, bin[1]);
  }
  const double eps = 1e-9;
  const int32_t x0 = std::max<int32_t>(0, static_cast<int32_t>(std::ceil(lowX - eps)));
  const int32_t y0 = std::max<int32_t>(0, static_cast<int32_t>(std::ceil(lowY - eps)));
  const int32_t x1 = std::min<int32_t>(sizeX - 1, static_cast<int32_t>(std::floor(highX + eps)));
  const int32_t y1 = std::min<int32_t>(sizeY - 1, static_cast<int32_t>(std::floor(highY + eps)));
  if (x0 > x1 || y0 > y1) return false;
  FReceivingZoom = true;
  const bool done = SetZoomWindow(x0, y0, x1, y1);
  FReceivingZoom = false;
  return done;
}

void TVImageForm::GetZoomWindow(int32_t& startX, int32_t& startY, int32_t& stopX, int32_t& stopY) const {
  startX = FStartX;
  startY = FStartY;
  stopX = FStopX;
  stopY = FStopY;
}

void TVImageForm::ResetZoom() {
  int32_t sizeX, sizeY;
  GetShownSize(sizeX, sizeY);
  if (sizeX > 0 && sizeY > 0) SetZoomWindow(0, 0, sizeX - 1, sizeY - 1);
}

void TVImageForm::SetCameraByAngle(double phi, double theta) {
  FCameraPhi = phi;
  FCameraTheta = theta;
  if (FDisplayMode == TImageDisplayMode::Display3D) LayoutView();
  Changed();
}

// --- Markers ------------------------------------------------------------------------------------------

bool TVImageForm::SetMarkerStart(int32_t x, int32_t y) {
  if (x < 0 || y < 0 || x >= FShownSizeX || y >= FShownSizeY) return false;
  FMarkerX0 = FMarkerX1 = x;
  FMarkerY0 = FMarkerY1 = y;
  return true;
}

bool TVImageForm::SetMarker(TImageMarkerKind kind, int32_t x, int32_t y) {
  if (x < 0 || y < 0 || x >= FShownSizeX || y >= FShownSizeY) return false;
  FMarkerKind = kind;
  FMarkerX1 = x;
  FMarkerY1 = y;
  UpdateImageMarkers();
  return true;
}

bool TVImageForm::SetBoxMarker(int32_t x, int32_t y) {
  return SetMarker(TImageMarkerKind::Box, x, y);
}

bool TVImageForm::SetLineMarker(int32_t x, int32_t y) {
  return SetMarker(TImageMarkerKind::Line, x, y);
}

bool TVImageForm::SetCircleMarker(int32_t x, int32_t y) {
  return SetMarker(TImageMarkerKind::Circle, x, y);
}

void TVImageForm::SetCurrentPositionMarker(int32_t index) {
  FPositionIndex = index < 0 ? -1 : index;
  UpdateImageMarkers();
}

void TVImageForm::HideMarker() {
  FMarkerKind = TImageMarkerKind::None;
  FPositionIndex = -1;
  UpdateImageMarkers();
}

void TVImageForm::GetMarkerPixels(int32_t& x0, int32_t& y0, int32_t& x1, int32_t& y1) const {
  x0 = FMarkerX0;
  y0 = FMarkerY0;
  x1 = FMarkerX1;
  y1 = FMarkerY1;
}

void TVImageForm::GetMarkerWorldSize(double& width, double& height) const {
  width = height = 0;
  TProject* project = GetProject();
  if (!project || FMarkerKind == TImageMarkerKind::None) return;
  const int32_t t = ShownTransformationID();
  double ax, ay, bx, by;
  if (FMarkerKind == TImageMarkerKind::Box) {
    // The box covers both end pixels: its sides run from the outer edges of the pixels.
    const double x0 = std::min(FMarkerX0, FMarkerX1) - 0.5, x1 = std::max(FMarkerX0, FMarkerX1) + 0.5;
    const double y0 = std::min(FMarkerY0, FMarkerY1) - 0.5, y1 = std::max(FMarkerY0, FMarkerY1) + 0.5;
    PixelToWorld(*project, t, x0, y0, ax, ay);
    PixelToWorld(*project, t, x1, y0, bx, by);
    width = std::hypot(bx - ax, by - ay);
    PixelToWorld(*project, t, x0, y1, bx, by);
    height = std::hypot(bx - ax, by - ay);
    return;
  }
  PixelToWorld(*project, t, FMarkerX0, FMarkerY0, ax, ay);
  PixelToWorld(*project, t, FMarkerX1, FMarkerY1, bx, by);
  width = height = std::hypot(bx - ax, by - ay);
}

std::vector<TOpenGLVector> TVImageForm::GetMarkerOutline() const {
  if (!FImageMarker || !FImageMarker->GetVisible()) return {};
  if (FImageMarker->GetShape() != TMarkerShape::Circle) return FImageMarker->GetPoints();
  return {FImageMarker->GetPosition()};
}

void TVImageForm::UpdateImageMarkers() {
  TProject* project = GetProject();
  const bool flat = FDisplayMode == TImageDisplayMode::Display2D;
  if (FImageMarker) {
    const bool show = project && flat && FMarkerKind != TImageMarkerKind::None &&
                      std::max(FMarkerX0, FMarkerX1) < FShownSizeX &&
                      std::max(FMarkerY0, FMarkerY1) < FShownSizeY;
    FImageMarker->SetVisible(show);
    if (show) {
      const int32_t t = ShownTransformationID();
      double ax, ay, bx, by;
      PixelToWorld(*project, t, FMarkerX0, FMarkerY0, ax, ay);
      PixelToWorld(*project, t, FMarkerX1, FMarkerY1, bx, by);
      TPictureFrame frame;
      switch (FMarkerKind) {
      case TImageMarkerKind::Box:
        if (PictureFrame(std::min(FMarkerX0, FMarkerX1) - 0.5, std::min(FMarkerY0, FMarkerY1) - 0.5,
                         std::max(FMarkerX0, FMarkerX1) + 0.5, std::max(FMarkerY0, FMarkerY1) + 0.5, frame)) {
          for (TOpenGLVector& c : frame.Corners) c.Z = kMarkerZ;
          FImageMarker->SetShape(TMarkerShape::Polygon);
          FImageMarker->SetPosition({0, 0, 0});
          FImageMarker->SetPoints(frame.Corners);
        }
        break;
      case TImageMarkerKind::Line: {
        TOpenGLVector a = WorldToModel(ax, ay), b = WorldToModel(bx, by);
        a.Z = b.Z = kMarkerZ;
        FImageMarker->SetShape(TMarkerShape::Line);
        FImageMarker->SetPosition({0, 0, 0});
        FImageMarker->SetPoints({a, b});
        break;
      }
      case TImageMarkerKind::Circle: {
        TOpenGLVector centre = WorldToModel(ax, ay);
        centre.Z = kMarkerZ;
        const double diameter = 2 * std::hypot(bx - ax, by - ay);
        FImageMarker->SetShape(TMarkerShape::Circle);
        FImageMarker->SetPosition(centre);
        FImageMarker->SetSize(diameter, diameter);
        break;
      }
      case TImageMarkerKind::None:
        break;
      }
    }
  }
  if (FPositionMarker) {
    const bool show = project && flat && FMarkerKind == TImageMarkerKind::Line && FPositionIndex >= 0;
    FPositionMarker->SetVisible(show);
    if (show) {
      // Pixel steps along the line, as a profile along it counts them.
      const int32_t steps = std::max(std::abs(FMarkerX1 - FMarkerX0), std::abs(FMarkerY1 - FMarkerY0));
      const double f = steps > 0 ? std::min(1.0, double(FPositionIndex) / steps) : 0.0;
      double wx, wy;
      PixelToWorld(*project, ShownTransformationID(), FMarkerX0 + f * (FMarkerX1 - FMarkerX0),
                   FMarkerY0 + f * (FMarkerY1 - FMarkerY0), wx, wy);
      TOpenGLVector p = WorldToModel(wx, wy);
      p.Z = kMarkerZ;
      FPositionMarker->SetPosition(p);
      const double size = 8 * FUnitsPerPixel;
      FPositionMarker->SetSize(size, size);
    }
  }
  for (size_t i = 0; i < FTransformationMarkers.size() && i < FTransformationIDs.size(); ++i) {
    std::vector<TOpenGLVector> outline =
        flat ? OutlineOfTransformation(FTransformationIDs[i]) : std::vector<TOpenGLVector>{};
    FTransformationMarkers[i]->SetVisible(!outline.empty());
    if (outline.empty()) continue;
    if (outline.size() == 1) {
      // No object covers an area through it: a cross at its origin.
      FTransformationMarkers[i]->SetShape(TMarkerShape::Cross);
      FTransformationMarkers[i]->SetPosition(outline.front());
      FTransformationMarkers[i]->SetSize(kCursorCrossPixels * FUnitsPerPixel,
                                         kCursorCrossPixels * FUnitsPerPixel);
    } else {
      FTransformationMarkers[i]->SetShape(TMarkerShape::Polygon);
      FTransformationMarkers[i]->SetPosition({0, 0, 0});
      FTransformationMarkers[i]->SetPoints(outline);
    }
  }
}

std::vector<TOpenGLVector> TVImageForm::OutlineOfTransformation(int32_t id) const {
  TProject* project = GetProject();
  if (!project || !dynamic_cast<const TDSpaceTransformation*>(project->FindData(id))) return {};
  // The area: the pixel field of the first object placed through this transformation.
  int32_t sizeX = 0, sizeY = 0;
  for (const auto& owned : project->DataList()) {
    const TData* data = owned.get();
    if (!data || GetSpaceTransformationIDFromObject(*project, data->GetID()) != id) continue;
    if (const auto* field = dynamic_cast<const TDImageBase*>(data)) {
      sizeX = field->GetSizeX();
      sizeY = field->GetSizeY();
    } else if (const auto* bitmap = dynamic_cast<const TDBitmap*>(data)) {
      sizeX = bitmap->GetWidth();
      sizeY = bitmap->GetHeight();
    }
    if (sizeX > 0 && sizeY > 0) break;
  }
  std::vector<TOpenGLVector> points;
  const auto add = [&](double px, double py) {
    double wx, wy;
    PixelToWorld(*project, id, px, py, wx, wy);
    TOpenGLVector p = WorldToModel(wx, wy);
    p.Z = kMarkerZ;
    points.push_back(p);
  };
  if (sizeX > 0 && sizeY > 0) {
    add(-0.5, -0.5);
    add(sizeX - 0.5, -0.5);
    add(sizeX - 0.5, sizeY - 0.5);
    add(-0.5, sizeY - 0.5);
  } else {
    add(0, 0);
  }
  return points;
}

bool TVImageForm::AddTransformationID(int32_t id) {
  TProject* project = GetProject();
  if (!project || !dynamic_cast<const TDSpaceTransformation*>(project->FindData(id))) return false;
  if (std::find(FTransformationIDs.begin(), FTransformationIDs.end(), id) != FTransformationIDs.end())
    return true;
  FTransformationIDs.push_back(id);
  SetAll();
  Changed();
  return true;
}

void TVImageForm::DeleteTransformationID(int32_t id) {
  const auto it = std::find(FTransformationIDs.begin(), FTransformationIDs.end(), id);
  if (it == FTransformationIDs.end()) return;
  FTransformationIDs.erase(it);
  SetAll();
  Changed();
}

void TVImageForm::SetTransformations() {
  UpdateImageMarkers();
}

std::vector<TOpenGLVector> TVImageForm::GetTransformationOutline(int32_t id) const {
  const auto it = std::find(FTransformationIDs.begin(), FTransformationIDs.end(), id);
  if (it == FTransformationIDs.end()) return {};
  return OutlineOfTransformation(id);
}

// --- Cursor and mouse ---------------------------------------------------------------------------------

bool TVImageForm::GetCursorPixel(int32_t& x, int32_t& y) const {
  x = y = -1;
  TProject* project = GetProject();
  const auto* cursor = project ? dynamic_cast<const TDCursor*>(project->FindData(FSpaceCursorID)) : nullptr;
  if (!cursor) return false;
  int32_t sizeX, sizeY;
  GetShownSize(sizeX, sizeY);
  return WorldToPixel(*project, ShownTransformationID(), cursor->GetPosition(0), cursor->GetPosition(1),
                      sizeX, sizeY, x, y);
}

bool TVImageForm::SetCursorPixel(int32_t x, int32_t y) {
  TProject* project = GetProject();
  int32_t sizeX, sizeY;
  GetShownSize(sizeX, sizeY);
  if (!project || x < 0 || y < 0 || x >= sizeX || y >= sizeY) return false;
  ConnectCursor();
  auto* cursor = dynamic_cast<TDCursor*>(project->FindData(FSpaceCursorID));
  if (!cursor) return false;
  double wx, wy;
  PixelToWorld(*project, ShownTransformationID(), x, y, wx, wy);
  // Both coordinates move in one change, so that listeners never see a half-moved cursor.
  cursor->SetAutoDataChange(false);
  cursor->SetPosition(0, wx);
  cursor->SetPosition(1, wy);
  cursor->SetAutoDataChange(true);
  return true;
}

bool TVImageForm::WindowToPixel(int x, int y, int32_t& pixelX, int32_t& pixelY) const {
  pixelX = pixelY = -1;
  TProject* project = GetProject();
  TOpenGLVector model;
  if (!project || !GetOpenGLView().CalculateMouseCoordinates(x, y, model)) return false;
  return WorldToPixel(*project, ShownTransformationID(), model.X, -model.Y, FShownSizeX, FShownSizeY, pixelX,
                      pixelY);
}

void TVImageForm::SetNextImageMouseMode() {
  FMouseMode = static_cast<TImageMouseMode>((static_cast<int32_t>(FMouseMode) + 1) % kImageMouseModeCount);
}

void TVImageForm::SetPreviousImageMouseMode() {
  FMouseMode = static_cast<TImageMouseMode>((static_cast<int32_t>(FMouseMode) + kImageMouseModeCount - 1) %
                                            kImageMouseModeCount);
}

void TVImageForm::PaintDrawField(int32_t x, int32_t y) {
  MakeDrawFieldImage();
  FDrawField.DrawSinglePixelWithPen(x, y, FMouseMode == TImageMouseMode::DrawPen, FPenWidth);
  DrawFieldChanged();
}

void TVImageForm::ViewMouseDown(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState /*shift*/) {
  int32_t px, py;
  const bool inside = WindowToPixel(x, y, px, py);
  if (FMouseMode == TImageMouseMode::Zoom && button == TOpenGLMouseButton::Right) {
    ResetZoom();
    return;
  }
  if (button != TOpenGLMouseButton::Left || !inside) return;
  FDragging = true;
  switch (FMouseMode) {
  case TImageMouseMode::Cursor:
    if (TProject* project = GetProject(); project && FSpaceCursorID)
      project->ChangeCursorToLock(FSpaceCursorID, this, TDCursorParts{});
    SetCursorPixel(px, py);
    break;
  case TImageMouseMode::Zoom:
    FZoomAnchorX = px;
    FZoomAnchorY = py;
    break;
  case TImageMouseMode::DrawPen:
  case TImageMouseMode::DrawErase:
    FZoomAnchorX = px; // the last painted pixel, for lines while dragging
    FZoomAnchorY = py;
    PaintDrawField(px, py);
    break;
  case TImageMouseMode::BoxMarker:
  case TImageMouseMode::LineMarker:
  case TImageMouseMode::CircleMarker:
    SetMarkerStart(px, py);
    SetMarker(FMouseMode == TImageMouseMode::BoxMarker    ? TImageMarkerKind::Box
              : FMouseMode == TImageMouseMode::LineMarker ? TImageMarkerKind::Line
                                                          : TImageMarkerKind::Circle,
              px, py);
    break;
  }
}

void TVImageForm::ViewMouseMove(int x, int y, TOpenGLShiftState /*shift*/) {
  if (!FDragging) return;
  int32_t px, py;
  if (!WindowToPixel(x, y, px, py)) return;
  switch (FMouseMode) {
  case TImageMouseMode::Cursor:
    SetCursorPixel(px, py);
    break;
  case TImageMouseMode::Zoom:
    if (TPictureFrame frame;
        FZoomMarker &&
        PictureFrame(std::min(px, FZoomAnchorX) - 0.5, std::min(py, FZoomAnchorY) - 0.5,
                     std::max(px, FZoomAnchorX) + 0.5, std::max(py, FZoomAnchorY) + 0.5, frame)) {
      for (TOpenGLVector& c : frame.Corners) c.Z = kMarkerZ;
      FZoomMarker->SetPoints(frame.Corners);
      FZoomMarker->SetVisible(true);
    }
    break;
  case TImageMouseMode::BoxMarker:
    SetBoxMarker(px, py);
    break;
  case TImageMouseMode::LineMarker:
    SetLineMarker(px, py);
    break;
  case TImageMouseMode::CircleMarker:
    SetCircleMarker(px, py);
    break;
  case TImageMouseMode::DrawPen:
  case TImageMouseMode::DrawErase:
    MakeDrawFieldImage();
    FDrawField.SetLine(FZoomAnchorX, FZoomAnchorY, px, py, FMouseMode == TImageMouseMode::DrawPen);
    FZoomAnchorX = px;
    FZoomAnchorY = py;
    DrawFieldChanged();
    break;
  }
}

void TVImageForm::ViewMouseUp(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState /*shift*/) {
  if (!FDragging || button != TOpenGLMouseButton::Left) return;
  FDragging = false;
  if (FMouseMode == TImageMouseMode::Cursor) {
    if (TProject* project = GetProject(); project && FSpaceCursorID)
      project->ChangeCursorToUnlock(FSpaceCursorID, this);
  } else if (FMouseMode == TImageMouseMode::Zoom) {
    if (FZoomMarker) FZoomMarker->SetVisible(false);
    int32_t px, py;
    if (WindowToPixel(x, y, px, py) && (px != FZoomAnchorX || py != FZoomAnchorY))
      SetZoomWindow(std::min(px, FZoomAnchorX), std::min(py, FZoomAnchorY), std::max(px, FZoomAnchorX),
                    std::max(py, FZoomAnchorY));
  }
}

bool TVImageForm::ViewKeyDown(TOpenGLKey key, int /*character*/, TOpenGLShiftState /*shift*/) {
  int32_t dx = 0, dy = 0;
  switch (key) {
  case TOpenGLKey::Left:
    dx = -1;
    break;
  case TOpenGLKey::Right:
    dx = 1;
    break;
  case TOpenGLKey::Up:
    dy = -1; // line 0 is on top
    break;
  case TOpenGLKey::Down:
    dy = 1;
    break;
  default:
    return false;
  }
  int32_t x, y;
  if (!GetCursorPixel(x, y)) return false;
  return SetCursorPixel(std::clamp(x + dx, 0, FShownSizeX - 1), std::clamp(y + dy, 0, FShownSizeY - 1));
}

// --- Draw field ---------------------------------------------------------------------------------------

void TVImageForm::MakeDrawFieldImage() {
  int32_t sizeX, sizeY;
  GetShownSize(sizeX, sizeY);
  if (sizeX > 0 && sizeY > 0) FDrawField.SetSize(sizeX, sizeY);
}

void TVImageForm::DeleteDrawField() {
  FDrawField.Clear();
  DrawFieldChanged();
}

void TVImageForm::DrawFieldChanged() {
  UpdateDrawFieldTexture();
  Changed();
  if (OnDrawFieldChange) OnDrawFieldChange();
}

// --- Control interface --------------------------------------------------------------------------------

void TVImageForm::CFICreateParameters(TUserParameterAdministrator& cfi) {
  auto* table = cfi.Add<TUserListParameter>(
      kColorTable, "ColorTable", "Color Table:", "The standard table of the viewer's colour profile",
      static_cast<int32_t>(TStandardColorProfileTable::Scan));
  for (int32_t t = kFirstStandardColorTable; t <= kLastStandardColorTable; ++t)
    table->AddListEntry(GetStandardColorTableName(static_cast<TStandardColorProfileTable>(t)), t);
  cfi.Add<TUserDoubleParameter>(kScaleMinimum, "ScaleMinimum",
                                "Scale Minimum:", "The value shown in the bottom colour of the table", 0.0);
  cfi.Add<TUserDoubleParameter>(kScaleMaximum, "ScaleMaximum",
                                "Scale Maximum:", "The value shown in the top colour of the table", 1.0);
  auto* kind = cfi.Add<TUserListParameter>(kScaleKind, "ScaleKind",
                                           "Scale Kind:", "How values are spread over the colour table", 0);
  for (int32_t k = 0; k < kImageScaleKindCount; ++k)
    kind->AddListEntry(GetImageScaleKindName(static_cast<TImageScaleKind>(k)), k);
  auto* automatic = cfi.Add<TUserBoolParameter>(
      kAutomaticColorScale, "AutomaticColorScale", "Automatic Color Scale",
      "Sets the scale from the image's percentiles now and whenever the image changes", true);
  automatic->TrueFalseStrings("On", "Off");
  auto* correction =
      cfi.Add<TUserListParameter>(kLineCorrection, "LineCorrection",
                                  "Line Correction:", "What is taken off each line before it is shown", 0);
  for (int32_t c = 0; c < kLineCorrectionCount; ++c)
    correction->AddListEntry(GetLineCorrectionName(static_cast<TLineCorrection>(c)), c);
  auto* mode = cfi.Add<TUserListParameter>(kDisplayMode, "DisplayMode",
                                           "Display Mode:", "A flat picture or a height mesh", 0);
  mode->AddListEntry("2D", 0);
  mode->AddListEntry("3D", 1);
  cfi.Add<TUserBoolParameter>(kShowScaleBar, "ShowScaleBar", "Show Scale Bar",
                              "Shows the colour table with the scale's limits beside the image", true)
      ->TrueFalseStrings("On", "Off");
  cfi.Add<TUserBoolParameter>(kShowCoordinateSystem, "ShowCoordinateSystem", "Show Coordinate System",
                              "Shows axes in world units along the image", false)
      ->TrueFalseStrings("On", "Off");
  cfi.Add<TUserBoolParameter>(kInterpolatePixelColors, "InterpolatePixelColors", "Interpolate Pixel Colors",
                              "Blends the colours between pixel centres", false)
      ->TrueFalseStrings("On", "Off");
  const auto addPixel = [&cfi](int32_t id, const char* name, const char* caption, const char* description) {
    auto* p = cfi.Add<TUserIntParameter>(id, name, caption, description, 0);
    p->SetLimits(0, 0);
  };
  addPixel(kCursorX, "CursorX", "Cursor X:", "Column of the pixel under the space cursor");
  addPixel(kCursorY, "CursorY", "Cursor Y:", "Line of the pixel under the space cursor");
  addPixel(kZoomStartX, "ZoomStartX", "Zoom Start X:", "First column shown");
  addPixel(kZoomStartY, "ZoomStartY", "Zoom Start Y:", "First line shown");
  addPixel(kZoomStopX, "ZoomStopX", "Zoom Stop X:", "Last column shown");
  addPixel(kZoomStopY, "ZoomStopY", "Zoom Stop Y:", "Last line shown");
  cfi.OnValidateParameters = [](const TUserParameterAdministrator& administrator) {
    TUserParameterProblems problems;
    const auto value = [&administrator](int32_t id) {
      const TUserIntParameter* p = IntParameter(administrator, id);
      return p ? p->GetParameter() : 0;
    };
    if (value(kZoomStartX) > value(kZoomStopX))
      problems.push_back({"ZoomStartX", "the zoom window is empty: ZoomStartX " +
                                            std::to_string(value(kZoomStartX)) + " lies beyond ZoomStopX " +
                                            std::to_string(value(kZoomStopX))});
    if (value(kZoomStartY) > value(kZoomStopY))
      problems.push_back({"ZoomStartY", "the zoom window is empty: ZoomStartY " +
                                            std::to_string(value(kZoomStartY)) + " lies beyond ZoomStopY " +
                                            std::to_string(value(kZoomStopY))});
    const TUserDoubleParameter* lo = DoubleParameter(administrator, kScaleMinimum);
    const TUserDoubleParameter* hi = DoubleParameter(administrator, kScaleMaximum);
    if (lo && hi && !(lo->GetParameter() < hi->GetParameter()))
      problems.push_back({"ScaleMinimum", "ScaleMinimum " + FormatScaleValue(lo->GetParameter()) +
                                              " must lie below ScaleMaximum " +
                                              FormatScaleValue(hi->GetParameter())});
    return problems;
  };
}

bool TVImageForm::CFIParameterIsNewValueAllowed(const TUserParameterList& changed) {
  for (const TUserParameter* p : changed)
    if (const auto* d = dynamic_cast<const TUserDoubleParameter*>(p);
        d && !std::isfinite(d->GetWantedParameter()))
      return false;
  return true;
}

void TVImageForm::CFIParameterChanged(const TUserParameterList& changed) {
  if (FSyncingCFI) return;
  TUserParameterAdministrator* cfi = GetCFI();
  const auto intValue = [cfi](int32_t id) { return IntParameter(*cfi, id)->GetParameter(); };
  const auto boolValue = [cfi](int32_t id) { return cfi->GetUserBoolParameter(id)->GetParameter(); };
  for (const TUserParameter* p : changed) {
    switch (p->GetId()) {
    case kColorTable:
      if (TDColorProfile* profile = GetOrMakeColorProfile())
        profile->SetStandardColorTable(static_cast<TStandardColorProfileTable>(intValue(kColorTable)));
      break;
    case kScaleMinimum:
    case kScaleMaximum: {
      const double lo = DoubleParameter(*cfi, kScaleMinimum)->GetParameter();
      const double hi = DoubleParameter(*cfi, kScaleMaximum)->GetParameter();
      if (lo < hi) SetColorScale(lo, hi, true);
      break;
    }
    case kScaleKind:
      SetScaleKind(static_cast<TImageScaleKind>(intValue(kScaleKind)));
      break;
    case kAutomaticColorScale:
      FAutomaticColorScaleOnImageChange = boolValue(kAutomaticColorScale);
      if (FAutomaticColorScaleOnImageChange) AutomaticColorScale(false);
      break;
    case kLineCorrection:
      SetLineCorrection(static_cast<TLineCorrection>(intValue(kLineCorrection)));
      break;
    case kDisplayMode:
      SetDisplayMode(static_cast<TImageDisplayMode>(intValue(kDisplayMode)));
      break;
    case kShowScaleBar:
      SetShowScaleBar(boolValue(kShowScaleBar));
      break;
    case kShowCoordinateSystem:
      SetShowCoordinateSystem(boolValue(kShowCoordinateSystem));
      break;
    case kInterpolatePixelColors:
      SetInterpolatePixelColors(boolValue(kInterpolatePixelColors));
      break;
    case kCursorX:
    case kCursorY:
      SetCursorPixel(intValue(kCursorX), intValue(kCursorY));
      break;
    case kZoomStartX:
    case kZoomStartY:
    case kZoomStopX:
    case kZoomStopY:
      // Taken when the four make a window; a set of several values is checked as a whole afterwards.
      SetZoomWindow(intValue(kZoomStartX), intValue(kZoomStartY), intValue(kZoomStopX), intValue(kZoomStopY));
      break;
    default:
      break;
    }
  }
  Changed();
}

void TVImageForm::SyncCFI() {
  TUserParameterAdministrator* cfi = GetCFI();
  if (!cfi || FSyncingCFI) return;
  FSyncingCFI = true;
  int32_t sizeX, sizeY;
  GetShownSize(sizeX, sizeY);
  const auto setInt = [cfi](int32_t id, int32_t value, int32_t upper) {
    TUserIntParameter* p = IntParameter(*cfi, id);
    if (upper >= 0) p->SetLimits(0, std::max(0, upper));
    p->SetParameterSilent(value);
  };
  TProject* project = GetProject();
  if (auto* profile = project ? dynamic_cast<TDColorProfile*>(project->FindData(FColorProfileID)) : nullptr)
    setInt(kColorTable, static_cast<int32_t>(profile->GetStandardColorTable()), -1);
  DoubleParameter(*cfi, kScaleMinimum)->SetParameterSilent(FScaleMinimum);
  DoubleParameter(*cfi, kScaleMaximum)->SetParameterSilent(FScaleMaximum);
  setInt(kScaleKind, static_cast<int32_t>(FScaleKind), -1);
  cfi->GetUserBoolParameter(kAutomaticColorScale)->SetParameterSilent(FAutomaticColorScaleOnImageChange);
  setInt(kLineCorrection, static_cast<int32_t>(FLineCorrection), -1);
  setInt(kDisplayMode, static_cast<int32_t>(FDisplayMode), -1);
  cfi->GetUserBoolParameter(kShowScaleBar)->SetParameterSilent(FShowScaleBar);
  cfi->GetUserBoolParameter(kShowCoordinateSystem)->SetParameterSilent(FShowCoordinateSystem);
  cfi->GetUserBoolParameter(kInterpolatePixelColors)->SetParameterSilent(FInterpolatePixelColors);
  int32_t cx, cy;
  GetCursorPixel(cx, cy);
  setInt(kCursorX, std::max(0, cx), sizeX - 1);
  setInt(kCursorY, std::max(0, cy), sizeY - 1);
  setInt(kZoomStartX, FStartX, sizeX - 1);
  setInt(kZoomStartY, FStartY, sizeY - 1);
  setInt(kZoomStopX, FStopX, sizeX - 1);
  setInt(kZoomStopY, FStopY, sizeY - 1);
  FSyncingCFI = false;
}

// --- Persistence --------------------------------------------------------------------------------------

TTagError TVImageForm::SaveViewerToTagFile(TFileHandle file) {
  TTagError result = TVCustomForm::SaveViewerToTagFile(file);
  if (result < 1) return result;
  TTagControl group, t;
  // The draw field line by line; empty without one.
  std::vector<uint8_t> flags = FDrawField.Exists() ? FDrawField.Flags() : FLoadedDrawField;
  std::unique_ptr<bool[]> drawField(new bool[flags.size() + 1]);
  for (size_t i = 0; i < flags.size(); ++i) drawField[i] = flags[i] != 0;
  const bool drawFieldExists = !flags.empty();
  const auto saveInt = [&](const char* name, int32_t value) { return t.SaveIntTag(file, name, value); };
  const auto saveDouble = [&](const char* name, double value) { return t.SaveDoubleTag(file, name, value); };
  const auto saveBool = [&](const char* name, bool value) { return t.SaveBoolTag(file, name, value); };
  if ((result = group.WriteTag(file, kGroup, TTagKind::TagList)) < 1 ||
      (result = saveInt("Version", ThisVersion)) < 1 ||
      (result = saveInt("ImageColorID", FImageColorID)) < 1 ||
      (result = saveInt("ImageZID", FImageZID)) < 1 ||
      (result = saveInt("ImageBrightnessID", FImageBrightnessID)) < 1 ||
      (result = saveInt("ImageID", FImageID)) < 1 || (result = saveInt("BitmapID", FBitmapID)) < 1 ||
      (result = saveInt("Image2ID", FImage2ID)) < 1 ||
      (result = saveInt("DisplayMode", static_cast<int32_t>(FDisplayMode))) < 1 ||
      (result = saveInt("SpaceCursorID", FSpaceCursorID)) < 1 ||
      (result = saveInt("ColorProfileID", FColorProfileID)) < 1 ||
      (result = saveInt("SpaceInterpretationID", FSpaceInterpretationID)) < 1 ||
      (result = saveBool("UseZImage", FUseZImage)) < 1 ||
      (result = saveBool("UseBrightnessImage", FUseBrightnessImage)) < 1 ||
      (result = saveDouble("ScaleMinimum", FScaleMinimum)) < 1 ||
      (result = saveDouble("ScaleMaximum", FScaleMaximum)) < 1 ||
      (result = saveDouble("ZScaleMinimum", FZScaleMinimum)) < 1 ||
      (result = saveDouble("ZScaleMaximum", FZScaleMaximum)) < 1 ||
      (result = saveDouble("BrightnessScaleMinimum", FBrightnessScaleMinimum)) < 1 ||
      (result = saveDouble("BrightnessScaleMaximum", FBrightnessScaleMaximum)) < 1 ||
      (result = saveDouble("LastTotalAverage", FLastTotalAverage)) < 1 ||
      (result = saveDouble("LastTotalAverageZ", FLastTotalAverageZ)) < 1 ||
      (result = saveInt("StartX", FStartX)) < 1 || (result = saveInt("StartY", FStartY)) < 1 ||
      (result = saveInt("StopX", FStopX)) < 1 || (result = saveInt("StopY", FStopY)) < 1 ||
      (result = saveInt("LineCorrection", static_cast<int32_t>(FLineCorrection))) < 1 ||
      (result = saveInt("LineCorrection3D", static_cast<int32_t>(FLineCorrection3D))) < 1 ||
      (result = saveBool("ShowCoordinateSystem", FShowCoordinateSystem)) < 1 ||
      (result = saveBool("ShowZAxis", FShowZAxis)) < 1 ||
      (result = saveBool("DrawFieldExists", drawFieldExists)) < 1 ||
      (result = t.SaveBoolTag(file, "DrawField", drawField.get(), static_cast<int64_t>(flags.size()))) < 1 ||
      (result = saveBool("DrawFieldIsInverted", false)) < 1 ||
      (result = saveDouble("CameraPhi", FCameraPhi)) < 1 ||
      (result = saveDouble("CameraTheta", FCameraTheta)) < 1 ||
      (result = saveInt("CameraProjection", FCameraProjection)) < 1 ||
      (result = saveBool("ShowScaleBar", FShowScaleBar)) < 1 ||
      (result = saveInt("ScaleBarColor", FScaleBarColor)) < 1 ||
      (result = saveBool("FreeAspectRatio", FFreeAspectRatio)) < 1 ||
      (result = saveBool("FreeCameraDistanceActive", FFreeCameraDistanceActive)) < 1 ||
      (result = saveDouble("FreeCameraDistance", FFreeCameraDistance)) < 1 ||
      (result = saveBool("AutomaticColorScaleOnImageChange", FAutomaticColorScaleOnImageChange)) < 1 ||
      (result = saveBool("NiceMeshBorders", FNiceMeshBorders)) < 1 ||
      (result = saveDouble("OGLLabelZPosition", FOGLLabelZPosition)) < 1 ||
      (result = saveInt("ScaleKind", static_cast<int32_t>(FScaleKind))) < 1 ||
      (result = saveBool("InterpolatePixelColors", FInterpolatePixelColors)) < 1 ||
      (result = saveInt("TransformationCount", static_cast<int32_t>(FTransformationIDs.size()))) < 1)
    return result;
  if (!FTransformationIDs.empty() &&
      (result = t.SaveIntTag(file, "TransformationIDs", FTransformationIDs.data(),
                             static_cast<int64_t>(FTransformationIDs.size()))) < 1)
    return result;
  return group.CloseWriteTag(file);
}

TTagError TVImageForm::LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TVCustomForm::LoadViewerFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl group, t;
  if ((result = group.FindTag(file, kGroup, parent)) != teNoError) return result;
  const auto loadInt = [&](const char* name, int32_t& value) {
    t.LoadOrDefaultIntTag(file, name, group, &value, 1, value);
  };
  const auto loadDouble = [&](const char* name, double& value) {
    t.LoadOrDefaultDoubleTag(file, name, group, &value, 1, value);
  };
  const auto loadBool = [&](const char* name, bool& value) {
    t.LoadOrDefaultBoolTag(file, name, group, &value, 1, value);
  };
  const auto loadEnum = [&](const char* name, auto& value, int32_t count) {
    int32_t raw = static_cast<int32_t>(value);
    loadInt(name, raw);
    if (raw >= 0 && raw < count) value = static_cast<std::remove_reference_t<decltype(value)>>(raw);
  };
  if ((result = t.LoadIntTag(file, "ImageColorID", group, &FImageColorID, 1)) != teNoError) return result;
  loadInt("ImageZID", FImageZID);
  loadInt("ImageBrightnessID", FImageBrightnessID);
  loadInt("ImageID", FImageID);
  loadInt("BitmapID", FBitmapID);
  loadInt("Image2ID", FImage2ID);
  loadEnum("DisplayMode", FDisplayMode, 2);
  loadInt("SpaceCursorID", FSpaceCursorID);
  loadInt("ColorProfileID", FColorProfileID);
  loadInt("SpaceInterpretationID", FSpaceInterpretationID);
  loadBool("UseZImage", FUseZImage);
  loadBool("UseBrightnessImage", FUseBrightnessImage);
  loadDouble("ScaleMinimum", FScaleMinimum);
  loadDouble("ScaleMaximum", FScaleMaximum);
  loadDouble("ZScaleMinimum", FZScaleMinimum);
  loadDouble("ZScaleMaximum", FZScaleMaximum);
  loadDouble("BrightnessScaleMinimum", FBrightnessScaleMinimum);
  loadDouble("BrightnessScaleMaximum", FBrightnessScaleMaximum);
  loadDouble("LastTotalAverage", FLastTotalAverage);
  loadDouble("LastTotalAverageZ", FLastTotalAverageZ);
  loadInt("StartX", FStartX);
  loadInt("StartY", FStartY);
  loadInt("StopX", FStopX);
  loadInt("StopY", FStopY);
  loadEnum("LineCorrection", FLineCorrection, kLineCorrectionCount);
  loadEnum("LineCorrection3D", FLineCorrection3D, kLineCorrectionCount);
  loadBool("ShowCoordinateSystem", FShowCoordinateSystem);
  loadBool("ShowZAxis", FShowZAxis);
  bool drawFieldExists = false, inverted = false;
  loadBool("DrawFieldExists", drawFieldExists);
  loadBool("DrawFieldIsInverted", inverted);
  FLoadedDrawField.clear();
  FDrawField.Clear();
  if (drawFieldExists && t.FindTag(file, "DrawField", group) == teNoError) {
    const int64_t count = t.End() - t.Begin();
    if (count > 0 && count <= int64_t(1) << 31) {
      std::unique_ptr<bool[]> values(new bool[static_cast<size_t>(count)]()); // read before it is filled
      if (t.LoadBoolTag(file, "DrawField", group, values.get(), count) == teNoError) {
        FLoadedDrawField.resize(static_cast<size_t>(count));
        for (int64_t i = 0; i < count; ++i)
          FLoadedDrawField[static_cast<size_t>(i)] = (values[static_cast<size_t>(i)] != inverted) ? 1 : 0;
      }
    }
  }
  loadDouble("CameraPhi", FCameraPhi);
  loadDouble("CameraTheta", FCameraTheta);
  loadInt("CameraProjection", FCameraProjection);
  loadBool("ShowScaleBar", FShowScaleBar);
  loadInt("ScaleBarColor", FScaleBarColor);
  loadBool("FreeAspectRatio", FFreeAspectRatio);
  loadBool("FreeCameraDistanceActive", FFreeCameraDistanceActive);
  loadDouble("FreeCameraDistance", FFreeCameraDistance);
  loadBool("AutomaticColorScaleOnImageChange", FAutomaticColorScaleOnImageChange);
  loadBool("NiceMeshBorders", FNiceMeshBorders);
  loadDouble("OGLLabelZPosition", FOGLLabelZPosition);
  loadEnum("ScaleKind", FScaleKind, kImageScaleKindCount);
  loadBool("InterpolatePixelColors", FInterpolatePixelColors);
  int32_t transformations = 0;
  loadInt("TransformationCount", transformations);
  FTransformationIDs.clear();
  if (transformations > 0 && transformations <= 10000) {
    FTransformationIDs.assign(static_cast<size_t>(transformations), 0);
    if (t.LoadIntTag(file, "TransformationIDs", group, FTransformationIDs.data(), transformations) !=
        teNoError)
      FTransformationIDs.clear();
  }
  InvalidateExtrema();
  return teNoError;
}

// --- Project bookkeeping ------------------------------------------------------------------------------

void TVImageForm::DoDataUpdate() {
  // After a load or a renumbering: objects that went are dropped, the draw field meets its picture.
  if (FImageColorID && !FindImage(FImageColorID)) FImageColorID = 0;
  if (FImageID && !FindImage(FImageID)) FImageID = 0;
  if (FImageZID && !FindImage(FImageZID)) FImageZID = 0;
  if (FImageBrightnessID && !FindImage(FImageBrightnessID)) FImageBrightnessID = 0;
  if (FBitmapID && !FindBitmap()) FBitmapID = 0;
  FUseZImage = FUseZImage && FImageZID;
  FUseBrightnessImage = FUseBrightnessImage && FImageBrightnessID;
  int32_t sizeX, sizeY;
  GetShownSize(sizeX, sizeY);
  if (!FLoadedDrawField.empty()) {
    if (static_cast<int64_t>(FLoadedDrawField.size()) == int64_t(sizeX) * sizeY) {
      FDrawField.SetSize(sizeX, sizeY);
      for (int32_t y = 0; y < sizeY; ++y)
        for (int32_t x = 0; x < sizeX; ++x)
          FDrawField.SetPixel(x, y,
                              FLoadedDrawField[static_cast<size_t>(y) * sizeX + static_cast<size_t>(x)] != 0);
      FLoadedDrawField.clear();
    } else if (sizeX > 0 && sizeY > 0) {
      FLoadedDrawField.clear(); // a field of another size than the picture can't be placed
    }
  }
  if (sizeX > 0 && sizeY > 0) {
    GetOrMakeColorProfile();
    ConnectCursor();
  }
  InvalidateExtrema();
  SetAll();
  SyncCFI();
  UpdateCaption();
}

bool TVImageForm::IsDataUsed(int32_t id) const {
  if (id == 0) return false;
  return id == FImageColorID || id == FImageZID || id == FImageBrightnessID || id == FImageID ||
         id == FBitmapID || id == FImage2ID || id == FSpaceCursorID || id == FColorProfileID ||
         id == FSpaceInterpretationID;
}

void TVImageForm::AddToID(int32_t delta) {
  for (int32_t* id : {&FImageColorID, &FImageZID, &FImageBrightnessID, &FImageID, &FBitmapID, &FImage2ID,
                      &FSpaceCursorID, &FColorProfileID, &FSpaceInterpretationID})
    TData::SafeAddToDataID(*id, delta);
  for (int32_t& id : FTransformationIDs) TData::SafeAddToDataID(id, delta);
}

bool TVImageForm::AddDataID(int32_t id) {
  TProject* project = GetProject();
  if (!project) return false;
  const std::string name = project->GetClassNameByID(id);
  if (name == TDBitmap::kClassName) return SetImageID(id, false);
  if (dynamic_cast<const TDSpaceTransformation*>(project->FindData(id))) return AddTransformationID(id);
  if (name != TDImage::kClassName) return false;
  if (!FImageColorID) return SetImageID(id, false);
  if (!FImageZID) {
    SetZImage(id);
    return true;
  }
  if (!FImageBrightnessID) {
    SetBrightnessImage(id);
    return true;
  }
  return false;
}

void TVImageForm::ExchangeID(int32_t oldID, int32_t newID) {
  if (oldID == 0) return;
  for (int32_t* id : {&FImageColorID, &FImageZID, &FImageBrightnessID, &FImageID, &FBitmapID, &FImage2ID,
                      &FSpaceCursorID, &FColorProfileID, &FSpaceInterpretationID})
    if (*id == oldID) *id = newID;
  for (int32_t& id : FTransformationIDs)
    if (id == oldID) id = newID;
}

void TVImageForm::DataChanged(TData* data, TDataChangeInfo info) {
  if (!data || data->GetID() == 0) return;
  const int32_t id = data->GetID();
  const bool gone = info == TDataChangeInfo::Removed || info == TDataChangeInfo::AboutToBeDeleted;
  if (std::find(FTransformationIDs.begin(), FTransformationIDs.end(), id) != FTransformationIDs.end()) {
    if (gone)
      DeleteTransformationID(id);
    else
      SetTransformations();
    return;
  }
  if (id == ShownTransformationID() && !gone && info == TDataChangeInfo::DataChanged) {
    // The picture's own transformation moved or turned it: everything over it is laid anew.
    LayoutView();
    UpdateCursorMarker();
    return;
  }
  if (id == FSpaceCursorID) {
    if (gone) FSpaceCursorID = 0;
    UpdateCursorMarker();
    SyncCFI();
    return;
  }
  if (gone) {
    if (!IsDataUsed(id)) return;
    const bool shown = id == FImageColorID || id == FBitmapID;
    for (int32_t* held : {&FImageColorID, &FImageZID, &FImageBrightnessID, &FImageID, &FBitmapID, &FImage2ID,
                          &FColorProfileID, &FSpaceInterpretationID})
      if (*held == id) *held = 0;
    FUseZImage = FUseZImage && FImageZID;
    FUseBrightnessImage = FUseBrightnessImage && FImageBrightnessID;
    InvalidateExtrema();
    if (shown) FDrawField.Clear();
    // The object is still in the project while it is being deleted: the scene is rebuilt without it.
    SetAll();
    SyncCFI();
    UpdateCaption();
    Changed();
    return;
  }
  if (info == TDataChangeInfo::CaptionChanged) {
    if (id == FImageColorID || id == FBitmapID) UpdateCaption();
    return;
  }
  if (info != TDataChangeInfo::DataChanged) return;
  if (id == FImageColorID || id == FImageZID || id == FImageBrightnessID || id == FBitmapID) {
    int32_t sizeX, sizeY;
    GetShownSize(sizeX, sizeY);
    InvalidateExtrema();
    if (id == FImageColorID && FAutomaticColorScaleOnImageChange) AutomaticColorScale(false);
    if (sizeX != FShownSizeX || sizeY != FShownSizeY)
      SetAll();
    else {
      SetMesh();
      if (FDisplayMode == TImageDisplayMode::Display3D) UpdateZMesh();
      UpdateScaleBar();
    }
    return;
  }
  if (id == FColorProfileID) {
    SetMesh();
    UpdateScaleBar();
    SyncCFI();
    return;
  }
  if (data->InheritsFrom("TDTransformation") && id == ShownTransformationID()) {
    LayoutView();
    UpdateCursorMarker();
  }
}

void TVImageForm::BeforeClearProject() {
  FImageColorID = FImageZID = FImageBrightnessID = FImageID = FBitmapID = FImage2ID = 0;
  FSpaceCursorID = FColorProfileID = FSpaceInterpretationID = 0;
  FDrawField.Clear();
  FLoadedDrawField.clear();
  InvalidateExtrema();
  GetOpenGLView().ClearObjects();
  FMesh = FDrawFieldMesh = FScaleBar = nullptr;
  FCursorMarker = FZoomMarker = nullptr;
  FScaleBarTop = FScaleBarBottom = nullptr;
  FAxisX = FAxisY = nullptr;
  FImageMarker = FPositionMarker = nullptr;
  FTransformationMarkers.clear();
  FTransformationIDs.clear();
  FMarkerKind = TImageMarkerKind::None;
  FPositionIndex = -1;
  FShownSizeX = FShownSizeY = 0;
  FPixelColors.clear();
}

void TVImageForm::RecieveViewerMessage(int32_t message) {
  if (message == static_cast<int32_t>(TViewerMessage::AutoColorScale)) {
    TGraphicUpdateGuard guard(*this);
    AutomaticColorScale(false);
  }
}

TIntList TVImageForm::ExtractViewerObjects(std::string& reason) {
  TProject* project = GetProject();
  int32_t sizeX, sizeY;
  GetShownSize(sizeX, sizeY);
  if (!project || sizeX <= 0 || sizeY <= 0) {
    reason = std::string(kCaption) + ": no image or bitmap is shown";
    return {};
  }
  const int32_t width = FStopX - FStartX + 1, height = FStopY - FStartY + 1;
  const int32_t transformation = ShownTransformationID();
  // The window's first pixel becomes pixel (0, 0) of the result: a copy of the transformation moved by it.
  int32_t movedTransformation = 0;
  if (transformation) {
    movedTransformation = MakeAndCopyTransformation(*project, TDataSaveMode::WhileUsed, transformation);
    if (auto* space = dynamic_cast<TDSpaceTransformation*>(project->FindData(movedTransformation))) {
      TVector3 origin = space->ViewPort().GetModelOrigin();
      origin[0] -= FStartX;
      origin[1] -= FStartY;
      space->ViewPort().SetModelOrigin(origin);
    }
  }
  if (const TDImage* image = FindImage(FImageColorID)) {
    TResultInfo info;
    info.CaptionSuffix = kZoomSuffix;
    info.HistoryText = "Zoom window x " + std::to_string(FStartX) + " to " + std::to_string(FStopX) + ", y " +
                       std::to_string(FStartY) + " to " + std::to_string(FStopY);
    auto result = TDImage::CreateResultImage(*project, FImageColorID, TDataFieldKind::Float, info);
    if (!result) {
      reason = "the zoom window could not be made";
      return {};
    }
    result->SetFieldSize(width, height);
    result->SetSpaceTransformationID(movedTransformation);
    std::vector<float> line(static_cast<size_t>(sizeX));
    for (int32_t y = 0; y < height; ++y) {
      image->GetFastLine(FStartY + y, line.data());
      result->SetLine(y, line.data() + FStartX);
      result->SetLineValid(y, image->GetLineValid(FStartY + y));
    }
    const int32_t id = result->GetID();
    AddResultToProject(*project, std::move(result));
    return {id};
  }
  const TDBitmap* bitmap = FindBitmap();
  auto result = TDBitmap::CreateNewBitmap(project, width, height, TDataSaveMode::Always,
                                          bitmap->GetCaption() + kZoomSuffix);
  std::vector<TColor> line(static_cast<size_t>(sizeX));
  for (int32_t y = 0; y < height; ++y) {
    bitmap->GetLine(FStartY + y, line.data());
    result->SetLine(y, line.data() + FStartX);
  }
  result->SetSpaceTransformationID(movedTransformation);
  const int32_t id = result->GetID();
  project->AddData(std::move(result));
  return {id};
}

// --- Helpers ------------------------------------------------------------------------------------------

void TVImageForm::UpdateCaption() {
  std::string caption = kCaption;
  TProject* project = GetProject();
  const int32_t shown = FImageColorID ? FImageColorID : FBitmapID;
  if (const TData* data = project && shown ? project->FindData(shown) : nullptr)
    caption += " - " + data->GetCaption();
  SetFormCaption(caption);
}

void TVImageForm::Changed() {
  Redraw();
  if (TProject* project = GetProject()) project->ProjectChangedForSave(this);
}
