// The graph viewer.
#include "viewers/Vmultigraph.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/parameters/Userparameteradministrator.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtext.h"
#include "data/Dtransformation.h"
#include "opengl/Openglgraph.h"
#include "opengl/Openglobjects.h"
#include "project/Graphmasktoolbar.h"
#include "project/Project.h"
#include "viewers/Viewershow.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace {

const char* kGroup = "TVMultiGraphForm";
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
/// Model coordinates far outside the window are clamped, so that a wild value never overflows a float.
constexpr double kModelLimit = 1e6;

TOpenGLColor ColorOf(uint32_t bgr, float alpha = 1.0f) {
  return {static_cast<float>(bgr & 0xFF) / 255.0f, static_cast<float>((bgr >> 8) & 0xFF) / 255.0f,
          static_cast<float>((bgr >> 16) & 0xFF) / 255.0f, alpha};
}

uint8_t ChannelByte(float value) {
  return static_cast<uint8_t>(std::lround(std::clamp(value, 0.0f, 1.0f) * 255.0f));
}

const TOpenGLColor kBlack{0, 0, 0, 1};
const TOpenGLColor kCursorColor{0.45f, 0.45f, 0.45f, 1};
const TOpenGLColor kZoomColor{0.3f, 0.3f, 0.3f, 1};

std::string FormatNumber(double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.6g", value);
  return buffer;
}

} // namespace

// --- Zoom stack and colours -----------------------------------------------------------------------------

void TZoomStack::Push(const TZoomArea& area) {
  FAreas.resize(static_cast<size_t>(FPosition + 1));
  FAreas.push_back(area);
  FPosition = static_cast<int>(FAreas.size()) - 1;
}

bool TZoomStack::Previous(TZoomArea& area) {
  if (FPosition <= 0) return false;
  area = FAreas[static_cast<size_t>(--FPosition)];
  return true;
}

bool TZoomStack::Next(TZoomArea& area) {
  if (FPosition + 1 >= static_cast<int>(FAreas.size())) return false;
  area = FAreas[static_cast<size_t>(++FPosition)];
  return true;
}

void TZoomStack::Clear() {
  FAreas.clear();
  FPosition = -1;
}

namespace {
constexpr uint32_t kDefaultColors[] = {
    0x0000FF, // red
    0xFF0000, // blue
    0x00A000, // green
    0xFF00FF, // magenta
    0xFFFF00, // cyan
    0x0080FF, // orange
    0x000080, // dark red
    0x800000, // dark blue
    0x005000, // dark green
    0x800080, // dark magenta
    0x808000, // dark cyan
    0x004080, // brown
};
} // namespace

int32_t TColorList::Count() {
  return static_cast<int32_t>(std::size(kDefaultColors));
}

uint32_t TColorList::GetColor(int32_t index) {
  const int32_t n = Count();
  return kDefaultColors[static_cast<size_t>(((index % n) + n) % n)];
}

void TGraphDrawInformation::OldVersionToCurrent() {
  const TOpenGLColor c = ColorOf(LineColor, 1.0f - Transparency);
  Red = c.R;
  Green = c.G;
  Blue = c.B;
  Alpha = c.A;
  const TOpenGLColor a = ColorOf(AuxColor, 1.0f - AuxTransparency);
  AuxRed = a.R;
  AuxGreen = a.G;
  AuxBlue = a.B;
  AuxAlpha = AuxColor == 0 && AuxTransparency == 0 ? 0.0f : a.A;
}

void TGraphDrawInformation::CurrentToOldVersion() {
  LineColor = ChannelByte(Red) | (ChannelByte(Green) << 8) | (uint32_t(ChannelByte(Blue)) << 16);
  Transparency = 1.0f - std::clamp(Alpha, 0.0f, 1.0f);
  AuxColor = ChannelByte(AuxRed) | (ChannelByte(AuxGreen) << 8) | (uint32_t(ChannelByte(AuxBlue)) << 16);
  AuxTransparency = AuxAlpha > 0 ? 1.0f - std::clamp(AuxAlpha, 0.0f, 1.0f) : 0.0f;
}

// --- Scene of one graph ---------------------------------------------------------------------------------

/// The scene objects and the data of one shown graph: x values in the current unit, the spectrum on view,
/// and the curve segments (one per run of finite values), each with a symbol twin for symbol styles.
struct TVMultiGraphForm::TGraphScene {
  std::vector<double> X;
  std::vector<float> Spectrum;
  bool HasSpectrum = false;
  TOpenGLObject* Holder = nullptr;
  std::vector<TOpenGLGraph*> Lines;
  std::vector<TOpenGLGraph*> Symbols;
  /// Found and hand-added peaks of the spectrum on view, in pixel order.
  TPeakInformationList Peaks;
};

// --- Creation and registration --------------------------------------------------------------------------

TVMultiGraphForm::TVMultiGraphForm() {
  SetFormCaption(kCaption);
  SetBounds(0, 0, 640, 420);
  TOpenGLView& view = GetOpenGLView();
  view.SetClearColor({1, 1, 1, 1});
  view.SetFeatures(ofBlending | ofStencil);
  // The plot area as stencil: curves draw only inside it.
  auto plane = std::make_unique<TOpenGLFlatPlane>();
  FStencilPlane = view.AddStencilObject(std::move(plane));
  auto frame = std::make_unique<TOpenGLMarker>();
  frame->SetShape(TMarkerShape::Polygon);
  frame->SetColor(kBlack);
  frame->SetSelectable(false);
  FFrame = view.Add(std::move(frame));
  auto xAxis = std::make_unique<TOpenGLAxis>();
  xAxis->SetColor(kBlack);
  xAxis->SetDirectionVector({0, -1, 0});
  xAxis->SetTicks(8);
  xAxis->SetSelectable(false);
  FXAxis = view.Add(std::move(xAxis));
  auto yAxis = std::make_unique<TOpenGLAxis>();
  yAxis->SetColor(kBlack);
  yAxis->SetDirectionVector({-1, 0, 0});
  yAxis->SetTicks(6);
  yAxis->SetLabelRotation(0);
  yAxis->SetCaptionDistance(4.2);
  yAxis->SetSelectable(false);
  FYAxis = view.Add(std::move(yAxis));
  auto cursor = std::make_unique<TOpenGLMarker>();
  cursor->SetShape(TMarkerShape::Line);
  cursor->SetColor(kCursorColor);
  cursor->SetUseStencil(true);
  cursor->SetVisible(false);
  FCursorMarker = view.Add(std::move(cursor));
  auto zoom = std::make_unique<TOpenGLMarker>();
  zoom->SetShape(TMarkerShape::Polygon);
  zoom->SetColor(kZoomColor);
  zoom->SetVisible(false);
  FZoomMarker = view.Add(std::move(zoom));
  // Mask bands and peak labels lie over the curves, below cursor and zoom rectangle.
  auto masks = std::make_unique<TOpenGLObject>();
  masks->SetSelectable(false);
  FMaskHolder = view.Add(std::move(masks));
  auto peaks = std::make_unique<TOpenGLObject>();
  peaks->SetSelectable(false);
  FPeakHolder = view.Add(std::move(peaks));
  auto text = std::make_unique<TOpenGLText>();
  text->SetColor({0.35f, 0.35f, 0.35f, 1});
  text->SetAlignment(THorizontalAlignment::Center, TVerticalAlignment::Center);
  text->SetVisible(false);
  FMessageText = view.Add(std::move(text));
  view.OnViewportSizeChange = [this](int, int) { LayoutScene(); };
  CreateCFI();
  CreatePeakCFI();
}

TVMultiGraphForm::~TVMultiGraphForm() {
  GetOpenGLView().OnViewportSizeChange = nullptr;
  FMaskTool = nullptr;
  if (FOwnMask) FOwnMask->SetGraphFormInfo(nullptr, -1);
  if (TProject* project = GetProject(); project && FXCursorID)
    project->ChangeCursorToUnlock(FXCursorID, this);
}

void TVMultiGraphForm::RegisterViewer() {
  TVCustomForm::RegisterViewer(kClassName, [](TRegisteredViewer& entry) {
    entry.CreateViewer = [] { return std::make_unique<TVMultiGraphForm>(); };
    entry.IsInputIDListOkayForShowViewer = &TVMultiGraphForm::IsInputIDListOkayForShowViewer;
    entry.ShowViewer = [](TProject& project, const TIntList& ids) {
      return ShowNewViewer(project, std::make_unique<TVMultiGraphForm>(), ids);
    };
    entry.Caption = kCaption;
  });
}

bool TVMultiGraphForm::IsInputIDListOkayForShowViewer(TProject& project, const TIntList& ids) {
  if (ids.empty() || ids.size() > static_cast<size_t>(kMaxGraphs)) return false;
  for (int32_t id : ids)
    if (project.GetClassNameByID(id) != TDGraph::kClassName) return false;
  return true;
}

// --- Graphs ---------------------------------------------------------------------------------------------

TDGraph* TVMultiGraphForm::FindGraph(int32_t index) const {
  TProject* project = GetProject();
  if (!project || index < 0 || index >= GetGraphCount()) return nullptr;
  return dynamic_cast<TDGraph*>(project->FindData(FGraphs[static_cast<size_t>(index)].GraphID));
}

TDInterpretation* TVMultiGraphForm::FindXInterpretation() const {
  TProject* project = GetProject();
  return project && FXInterpretationID
             ? dynamic_cast<TDInterpretation*>(project->FindData(FXInterpretationID))
             : nullptr;
}

bool TVMultiGraphForm::IsSpectralAxis() const {
  return dynamic_cast<const TDSpectralInterpretation*>(FindXInterpretation()) != nullptr;
}

int32_t TVMultiGraphForm::IndexOfGraphID(int32_t id) const {
  if (id == 0) return -1;
  for (size_t i = 0; i < FGraphs.size(); ++i)
    if (FGraphs[i].GraphID == id) return static_cast<int32_t>(i);
  return -1;
}

const TGraphDrawInformation& TVMultiGraphForm::GetGraphInfo(int32_t index) const {
  if (index < 0 || index >= GetGraphCount())
    throw OrvexException("TVMultiGraphForm.GetGraphInfo: index " + std::to_string(index) + " out of range");
  return FGraphs[static_cast<size_t>(index)];
}

TGraphDrawInformation& TVMultiGraphForm::GraphInfo(int32_t index) {
  if (index < 0 || index >= GetGraphCount())
    throw OrvexException("TVMultiGraphForm.GraphInfo: index " + std::to_string(index) + " out of range");
  return FGraphs[static_cast<size_t>(index)];
}

bool TVMultiGraphForm::CheckForOnlySingleSpectra() const {
  for (int32_t i = 0; i < GetGraphCount(); ++i)
    if (const TDGraph* graph = FindGraph(i); graph && (graph->GetSizeX() > 1 || graph->GetSizeY() > 1))
      return false;
  return true;
}

void TVMultiGraphForm::MakeOwnXInterpretation(const TDGraph& graph) {
  TProject* project = GetProject();
  if (!project || FXInterpretationID) return;
  int32_t source = graph.GetXInterpretationID();
  if (!source && graph.GetXTransformationID())
    source = MakeOrGetInterpretationIDFromTransformationID(*project, graph.GetXTransformationID());
  if (!source) return;
  FXInterpretationID = MakeAndCopyInterpretation(*project, TDataSaveMode::WhileUsed, source);
  if (TDInterpretation* own = FindXInterpretation()) {
    own->SetCaption("Graph Viewer X Axis");
    FLastXUnitIndex = own->GetUnitIndex();
  }
}

void TVMultiGraphForm::ConnectCursors(bool make) {
  TProject* project = GetProject();
  // Cursors are found or made for the graphs shown: an empty viewer holds none.
  if (!project || GetGraphCount() == 0) return;
  if (!FSpaceCursorID || !dynamic_cast<TDSpaceCursor*>(project->FindData(FSpaceCursorID))) {
    const bool existed = project->GetFirstIDByClassName(TDSpaceCursor::kClassName) != 0;
    FSpaceCursorID = make || existed ? project->MakeOrGetFirstIDByClassName(TDSpaceCursor::kClassName) : 0;
    // A cursor made here starts at the centre pixel of the first graph, so that the viewer opens on a
    // spectrum in the middle of the scan.
    const TDGraph* graph = FindGraph(0);
    auto* cursor = dynamic_cast<TDCursor*>(project->FindData(FSpaceCursorID));
    if (!existed && graph && cursor) {
      double worldX = 0, worldY = 0;
      PixelToWorld(*project, graph->GetSpaceTransformationID(), graph->GetSizeX() / 2, graph->GetSizeY() / 2,
                   worldX, worldY);
      cursor->SetAutoDataChange(false);
      cursor->SetPosition(0, worldX);
      cursor->SetPosition(1, worldY);
      cursor->SetAutoDataChange(true);
    }
  }
  if (!FXCursorID || !dynamic_cast<TDCursor*>(project->FindData(FXCursorID))) {
    if (TDInterpretation* own = FindXInterpretation())
      FXCursorID = make ? own->MakeOrGetCursorID()
                        : project->GetFirstIDByClassName(GetCursorClassNameForUnitKind(own->GetUnitKind()));
  }
}

bool TVMultiGraphForm::AddGraphID(int32_t id) {
  TProject* project = GetProject();
  if (!project || project->GetClassNameByID(id) != TDGraph::kClassName || IsGraphInViewer(id) ||
      GetGraphCount() >= kMaxGraphs)
    return false;
  auto* graph = dynamic_cast<TDGraph*>(project->FindData(id));
  if (!graph) return false;
  TGraphDrawInformation info;
  info.GraphID = id;
  info.LineColor = TColorList::GetColor(FColorCount++);
  info.OldVersionToCurrent();
  const TTagControl& meta = graph->GetMetaData();
  if (meta.IsTagInList("DataCategories|Histogram")) {
    info.GraphStyle = TGraphViewerStyle::Histogram;
    bool wire = false;
    meta.GetBoolTagInListOrDefault("DisplayOptions|Histogram|UseWireframe", wire, false);
    FHistogramShowWireFrame = FHistogramShowWireFrame || wire;
  } else if (meta.IsTagInList("DataCategories|ImageCorrelation")) {
    info.GraphStyle = TGraphViewerStyle::LineAndSymbols;
  }
  const bool first = FGraphs.empty();
  FGraphs.push_back(std::move(info));
  FScenes.push_back(std::make_unique<TGraphScene>());
  if (first) {
    MakeOwnXInterpretation(*graph);
    ConnectCursors(true);
    FAKGraphIndex = 0;
  }
  RebuildGraphScenes();
  const int32_t index = GetGraphCount() - 1;
  ComputeXValues(index);
  FetchSpectrum(index);
  {
    TGraphicUpdateGuard guard(*this);
    if (first) ZoomOutX();
    ZoomOutY(index, false);
    if (FOnlyOneYAxis) EqualizeMinMaxY();
    SetAll();
  }
  Changed();
  return true;
}

void TVMultiGraphForm::DeleteGraphByID(int32_t id) {
  const int32_t index = IndexOfGraphID(id);
  if (index < 0) return;
  FCustomPeaks.erase(id);
  for (auto it = FMultiMasks.begin(); it != FMultiMasks.end();)
    it = it->first.first == id ? FMultiMasks.erase(it) : std::next(it);
  if (FMaskTool && FMaskTool->GetGraphID() == id) {
    if (FMaskTool == FOwnMask.get()) FOwnMask.reset();
    FMaskTool = nullptr;
    if (FMouseMode == TGraphMouseMode::Mask) FMouseMode = TGraphMouseMode::Cursor;
  }
  // The graph's curves leave the scene with it.
  if (TOpenGLObject* holder = FScenes[static_cast<size_t>(index)]->Holder)
    GetOpenGLView().RemoveObject(holder);
  FGraphs.erase(FGraphs.begin() + index);
  FScenes.erase(FScenes.begin() + index);
  if (FAKGraphIndex >= GetGraphCount()) FAKGraphIndex = std::max(0, GetGraphCount() - 1);
  RebuildGraphScenes();
  SetAll();
  Changed();
}

void TVMultiGraphForm::RebuildGraphScenes() {
  TOpenGLView& view = GetOpenGLView();
  for (auto& scene : FScenes) {
    if (scene->Holder) view.RemoveObject(scene->Holder);
    scene->Holder = nullptr;
    scene->Lines.clear();
    scene->Symbols.clear();
  }
  // Later graphs draw over earlier ones; the active graph is drawn last, on top.
  std::vector<int32_t> order;
  for (int32_t i = 0; i < GetGraphCount(); ++i)
    if (i != FAKGraphIndex) order.push_back(i);
  if (FAKGraphIndex < GetGraphCount()) order.push_back(FAKGraphIndex);
  for (int32_t i : order) {
    auto holder = std::make_unique<TOpenGLObject>();
    holder->SetSelectable(false);
    holder->SetColor(kBlack);
    FScenes[static_cast<size_t>(i)]->Holder = view.AddObject(std::move(holder));
  }
  // Mask bands, peak labels, cursor, zoom rectangle and message stay above the curves.
  for (TOpenGLObject* top :
       {FMaskHolder, FPeakHolder, static_cast<TOpenGLObject*>(FCursorMarker),
        static_cast<TOpenGLObject*>(FZoomMarker), static_cast<TOpenGLObject*>(FMessageText)})
    view.AddObject(view.RemoveObject(top));
}

const std::vector<float>& TVMultiGraphForm::GetShownSpectrum(int32_t index) const {
  static const std::vector<float> kEmpty;
  if (index < 0 || index >= GetGraphCount() || !FScenes[static_cast<size_t>(index)]->HasSpectrum)
    return kEmpty;
  return FScenes[static_cast<size_t>(index)]->Spectrum;
}

const std::vector<double>& TVMultiGraphForm::GetXValues(int32_t index) const {
  static const std::vector<double> kEmpty;
  if (index < 0 || index >= GetGraphCount()) return kEmpty;
  return FScenes[static_cast<size_t>(index)]->X;
}

bool TVMultiGraphForm::HasSpectrum(int32_t index) const {
  return index >= 0 && index < GetGraphCount() && FScenes[static_cast<size_t>(index)]->HasSpectrum;
}

void TVMultiGraphForm::ComputeXValues(int32_t index) {
  TGraphScene& scene = *FScenes[static_cast<size_t>(index)];
  scene.X.clear();
  const TDGraph* graph = FindGraph(index);
  TProject* project = GetProject();
  if (!graph || !project) return;
  const int32_t n = graph->GetSizeGraph();
  std::string unit;
  // The x values in the viewer's own unit: the graph's axis to the standard unit, then the own copy of
  // the interpretation (its unit is the one the user chose here).
  if (!GetAxisValues(*project, graph->GetXTransformationID(), FXInterpretationID, n, 0, scene.X, unit)) {
    scene.X.resize(static_cast<size_t>(std::max(n, 0)));
    for (int32_t i = 0; i < n; ++i) scene.X[static_cast<size_t>(i)] = i;
  }
}

bool TVMultiGraphForm::CursorPixel(int32_t index, int32_t& column, int32_t& line) const {
  const TDGraph* graph = FindGraph(index);
  TProject* project = GetProject();
  column = line = -1;
  if (!graph || !project) return false;
  if (graph->GetSizeX() == 1 && graph->GetSizeY() == 1) {
    column = line = 0; // a single spectrum is always on view
    return true;
  }
  const auto* cursor = dynamic_cast<const TDCursor*>(project->FindData(FSpaceCursorID));
  if (!cursor) {
    const TGraphDrawInformation& info = FGraphs[static_cast<size_t>(index)];
    column = info.ColumnIndex;
    line = info.LineIndex;
    return column >= 0 && line >= 0 && column < graph->GetSizeX() && line < graph->GetSizeY();
  }
  return WorldToPixel(*project, graph->GetSpaceTransformationID(), cursor->GetPosition(0),
                      cursor->GetPosition(1), graph->GetSizeX(), graph->GetSizeY(), column, line);
}

void TVMultiGraphForm::FetchSpectrum(int32_t index) {
  TGraphScene& scene = *FScenes[static_cast<size_t>(index)];
  TGraphDrawInformation& info = FGraphs[static_cast<size_t>(index)];
  const TDGraph* graph = FindGraph(index);
  scene.HasSpectrum = false;
  if (!graph || graph->GetSizeGraph() <= 0) {
    scene.Spectrum.clear();
    return;
  }
  int32_t column = -1, line = -1;
  const bool follows = FChangeGraphSimultaneously || index == FAKGraphIndex;
  if (follows) {
    if (!CursorPixel(index, column, line)) {
      scene.Spectrum.clear();
      return; // outside the stack: no curve
    }
    info.ColumnIndex = column;
    info.LineIndex = line;
  } else {
    column = info.ColumnIndex;
    line = info.LineIndex;
    if (column < 0 || line < 0 || column >= graph->GetSizeX() || line >= graph->GetSizeY()) {
      scene.Spectrum.clear();
      return;
    }
  }
  // Only the one spectrum is read: a viewer never passes over the stack.
  scene.Spectrum.resize(static_cast<size_t>(graph->GetSizeGraph()));
  graph->GetSpectrum(column, line, scene.Spectrum.data());
  scene.HasSpectrum = true;
}

// --- Scene ----------------------------------------------------------------------------------------------

double TVMultiGraphForm::XToWindow(double x) const {
  const TOpenGLView& view = GetOpenGLView();
  const double left = kMarginLeft, right = view.GetWidth() - kMarginRight;
  const double span = FMaxXInterpretation - FMinXInterpretation;
  if (!(span != 0)) return left;
  return left + (x - FMinXInterpretation) / span * (right - left);
}

double TVMultiGraphForm::YToWindow(int32_t index, double y) const {
  const TOpenGLView& view = GetOpenGLView();
  // Model y runs upwards from the window's bottom.
  const double bottom = kMarginBottom, top = view.GetHeight() - kMarginTop;
  if (index < 0 || index >= GetGraphCount()) return bottom;
  const TGraphDrawInformation& info = FGraphs[static_cast<size_t>(index)];
  double lo = info.DisplayMinY, hi = info.DisplayMaxY, v = y;
  if (info.ScaleKindYAxis == 1) {
    if (!(lo > 0) || !(hi > 0) || !(y > 0)) return kNaN;
    lo = std::log10(lo);
    hi = std::log10(hi);
    v = std::log10(y);
  }
  if (!(hi != lo)) return bottom;
  return bottom + (v - lo) / (hi - lo) * (top - bottom);
}

bool TVMultiGraphForm::WindowToData(int windowX, int windowY, double& x, double& y) const {
  const TOpenGLView& view = GetOpenGLView();
  const double left = kMarginLeft, right = view.GetWidth() - kMarginRight;
  const double bottom = kMarginBottom, top = view.GetHeight() - kMarginTop;
  const double modelY = view.GetHeight() - windowY; // window y runs downwards
  if (windowX < left || windowX > right || modelY < bottom || modelY > top || right <= left || top <= bottom)
    return false;
  x = FMinXInterpretation + (windowX - left) / (right - left) * (FMaxXInterpretation - FMinXInterpretation);
  y = kNaN;
  if (FAKGraphIndex < GetGraphCount()) {
    const TGraphDrawInformation& info = FGraphs[static_cast<size_t>(FAKGraphIndex)];
    const double t = (modelY - bottom) / (top - bottom);
    if (info.ScaleKindYAxis == 1 && info.DisplayMinY > 0 && info.DisplayMaxY > 0) {
      const double lo = std::log10(info.DisplayMinY), hi = std::log10(info.DisplayMaxY);
      y = std::pow(10.0, lo + t * (hi - lo));
    } else {
      y = info.DisplayMinY + t * (info.DisplayMaxY - info.DisplayMinY);
    }
  }
  return true;
}

void TVMultiGraphForm::UpdateCurve(int32_t index) {
  TGraphScene& scene = *FScenes[static_cast<size_t>(index)];
  const TGraphDrawInformation& info = FGraphs[static_cast<size_t>(index)];
  if (!scene.Holder) return;
  // Runs of finite points within the x zoom (and one neighbour on each side, so that lines reach the
  // edge), mapped to window pixels; NaN, infinite and, on a log axis, non-positive values make gaps.
  std::vector<std::vector<TXYPoint>> runs;
  if (scene.HasSpectrum) {
    const size_t n = std::min(scene.X.size(), scene.Spectrum.size());
    const double lo = std::min(FMinXInterpretation, FMaxXInterpretation);
    const double hi = std::max(FMinXInterpretation, FMaxXInterpretation);
    std::vector<TXYPoint> run;
    auto inside = [&](size_t i) { return i < n && scene.X[i] >= lo && scene.X[i] <= hi; };
    for (size_t i = 0; i < n; ++i) {
      const bool near = inside(i) || (i > 0 && inside(i - 1)) || inside(i + 1);
      const double y = scene.Spectrum[i];
      const double wy = near && std::isfinite(y) ? YToWindow(index, y) : kNaN;
      const double wx = XToWindow(scene.X[i]);
      if (!std::isfinite(wy) || !std::isfinite(wx)) {
        if (!run.empty()) runs.push_back(std::move(run));
        run.clear();
        continue;
      }
      run.push_back({std::clamp(wx, -kModelLimit, kModelLimit), std::clamp(wy, -kModelLimit, kModelLimit)});
    }
    if (!run.empty()) runs.push_back(std::move(run));
  }
  const bool lines = info.GraphStyle != TGraphViewerStyle::Symbols;
  const bool symbols =
      info.GraphStyle == TGraphViewerStyle::Symbols || info.GraphStyle == TGraphViewerStyle::LineAndSymbols;
  const TOpenGLColor color = {info.Red, info.Green, info.Blue, info.Alpha};
  auto ensure = [&](std::vector<TOpenGLGraph*>& list, size_t count) {
    while (list.size() < count) {
      auto curve = std::make_unique<TOpenGLGraph>();
      curve->SetUseStencil(true);
      curve->SetSelectable(false);
      list.push_back(static_cast<TOpenGLGraph*>(scene.Holder->AddObject(std::move(curve))));
    }
  };
  ensure(scene.Lines, lines ? runs.size() : 0);
  ensure(scene.Symbols, symbols ? runs.size() : 0);
  const double bottom = kMarginBottom;
  auto fill = [&](std::vector<TOpenGLGraph*>& list, bool use, TGraphStyle style) {
    for (size_t k = 0; k < list.size(); ++k) {
      TOpenGLGraph* curve = list[k];
      const bool visible = use && k < runs.size();
      curve->SetVisible(visible);
      if (!visible) continue;
      curve->SetColor(color);
      curve->SetLineWidth(info.LineWidth);
      curve->SetPointSize(style == TGraphStyle::Points ? std::max(3.0f, 3.0f * info.PointSize)
                                                       : info.PointSize);
      curve->SetStyle(style);
      curve->SetHistogramBaseLine(bottom);
      curve->ShowOptimised = style == TGraphStyle::Line;
      std::vector<double> xs(runs[k].size()), ys(runs[k].size());
      for (size_t i = 0; i < runs[k].size(); ++i) {
        xs[i] = runs[k][i].X;
        ys[i] = runs[k][i].Y;
      }
      curve->SetDataPoints(xs.data(), ys.data(), static_cast<int>(xs.size()));
    }
  };
  fill(scene.Lines, lines,
       info.GraphStyle == TGraphViewerStyle::Histogram ? TGraphStyle::Histogram : TGraphStyle::Line);
  fill(scene.Symbols, symbols, TGraphStyle::Points);
}

void TVMultiGraphForm::UpdateCursorMarker() {
  const TOpenGLView& view = GetOpenGLView();
  const double x = GetCursorX();
  if (!std::isfinite(x) || GetGraphCount() == 0) {
    FCursorMarker->SetVisible(false);
    return;
  }
  const double wx = std::clamp(XToWindow(x), -kModelLimit, kModelLimit);
  FCursorMarker->SetPoints(
      {{wx, double(kMarginBottom), 0.0}, {wx, double(view.GetHeight() - kMarginTop), 0.0}});
  FCursorMarker->SetVisible(true);
}

void TVMultiGraphForm::SetCoordinateSystem(int32_t index) {
  const TOpenGLView& view = GetOpenGLView();
  const double left = kMarginLeft, right = std::max<double>(left + 1, view.GetWidth() - kMarginRight);
  const double bottom = kMarginBottom, top = std::max<double>(bottom + 1, view.GetHeight() - kMarginTop);
  FXAxis->SetStart({left, bottom, 0});
  FXAxis->SetEnd({right, bottom, 0});
  FXAxis->SetWorldStart(FMinXInterpretation);
  FXAxis->SetWorldEnd(FMaxXInterpretation);
  FXAxis->SetUnitCaption(GetXUnitName());
  FYAxis->SetStart({left, bottom, 0});
  FYAxis->SetEnd({left, top, 0});
  if (index >= 0 && index < GetGraphCount()) {
    const TGraphDrawInformation& info = FGraphs[static_cast<size_t>(index)];
    FYAxis->SetLogarithmicScale(info.ScaleKindYAxis == 1);
    FYAxis->SetWorldStart(info.DisplayMinY);
    FYAxis->SetWorldEnd(info.DisplayMaxY);
    std::string unit;
    if (TProject* project = GetProject())
      if (const TDGraph* graph = FindGraph(index))
        if (auto* z = dynamic_cast<const TDInterpretation*>(project->FindData(graph->GetZInterpretationID())))
          unit = z->UnitString(z->GetUnitIndex());
    FYAxis->SetUnitCaption(unit);
    FYAxis->SetColor(FCascadeGraphs || GetGraphCount() > 1 ? TOpenGLColor{info.Red, info.Green, info.Blue, 1}
                                                           : kBlack);
    FYAxis->SetVisible(true);
  } else {
    FYAxis->SetVisible(false);
  }
}

void TVMultiGraphForm::LayoutScene() {
  TOpenGLView& view = GetOpenGLView();
  TGraphicUpdateGuard guard(*this);
  FLayoutWidth = view.GetWidth();
  FLayoutHeight = view.GetHeight();
  const double left = kMarginLeft, right = std::max<double>(left + 1, FLayoutWidth - kMarginRight);
  const double bottom = kMarginBottom, top = std::max<double>(bottom + 1, FLayoutHeight - kMarginTop);
  if (auto* plane = dynamic_cast<TOpenGLFlatPlane*>(FStencilPlane)) {
    plane->SetPosition({left, bottom, 0});
    plane->SetSize(right - left, top - bottom);
  }
  FFrame->SetPoints({{left, bottom, 0}, {right, bottom, 0}, {right, top, 0}, {left, top, 0}});
  FMessageText->SetPosition({(left + right) / 2, (bottom + top) / 2, 0});
  SetCoordinateSystem(FAKGraphIndex);
  for (int32_t i = 0; i < GetGraphCount(); ++i) UpdateCurve(i);
  UpdateMaskBands();
  UpdatePeakLabels();
  UpdateCursorMarker();
  const bool none = FAKGraphIndex < GetGraphCount() && !HasSpectrum(FAKGraphIndex);
  FMessageText->SetText(GetGraphCount() == 0 ? "No graph" : "Cursor outside the stack");
  FMessageText->SetVisible(GetGraphCount() == 0 || none);
}

void TVMultiGraphForm::SetAll() {
  TGraphicUpdateGuard guard(*this);
  if (FScenes.size() != FGraphs.size()) {
    FScenes.clear();
    for (size_t i = 0; i < FGraphs.size(); ++i) FScenes.push_back(std::make_unique<TGraphScene>());
  }
  bool holders = true;
  for (auto& scene : FScenes) holders = holders && scene->Holder;
  if (!holders) RebuildGraphScenes();
  for (int32_t i = 0; i < GetGraphCount(); ++i) {
    ComputeXValues(i);
    FetchSpectrum(i);
  }
  SpectraChanged();
  CalculateCascadeValues();
  LayoutScene();
  UpdateCaption();
  UpdateStatus();
  SyncCFI();
  Redraw();
}

void TVMultiGraphForm::SetAllGraphs() {
  TGraphicUpdateGuard guard(*this);
  for (int32_t i = 0; i < GetGraphCount(); ++i) FetchSpectrum(i);
  SpectraChanged();
  if (!CheckAndDoAutomaticZoom()) {
    CalculateCascadeValues();
    LayoutScene();
  }
  UpdateStatus();
  SyncCFI();
  Redraw();
}

void TVMultiGraphForm::SetSingleGraph(int32_t index) {
  if (index < 0 || index >= GetGraphCount()) return;
  TGraphicUpdateGuard guard(*this);
  FetchSpectrum(index);
  SpectraChanged();
  UpdateCurve(index);
  UpdatePeakLabels();
  if (index == FAKGraphIndex) {
    FMessageText->SetVisible(!HasSpectrum(index));
    FMessageText->SetText("Cursor outside the stack");
  }
}

// --- Zoom -----------------------------------------------------------------------------------------------

bool TVMultiGraphForm::GetMinMaxYGraphValue(double& minimum, double& maximum, bool ignoreRayleigh,
                                            int32_t index) const {
  if (index < 0 || index >= GetGraphCount()) return false;
  const TGraphScene& scene = *FScenes[static_cast<size_t>(index)];
  if (!scene.HasSpectrum) return false;
  const double lo = std::min(FMinXInterpretation, FMaxXInterpretation);
  const double hi = std::max(FMinXInterpretation, FMaxXInterpretation);
  const TDInterpretation* own = FindXInterpretation();
  const bool rayleigh = ignoreRayleigh && IsSpectralAxis();
  minimum = std::numeric_limits<double>::infinity();
  maximum = -minimum;
  bool any = false;
  const size_t n = std::min(scene.X.size(), scene.Spectrum.size());
  for (size_t i = 0; i < n; ++i) {
    const double x = scene.X[i], y = scene.Spectrum[i];
    if (!(x >= lo && x <= hi) || !std::isfinite(y)) continue;
    if (rayleigh) {
      const double shift =
          own->StandardTo(own->ToStandard(x), TDSpectralInterpretation::suRelativeWavenumber);
      if (std::fabs(shift) < kRayleighHalfWidth) continue;
    }
    minimum = std::min(minimum, y);
    maximum = std::max(maximum, y);
    any = true;
  }
  return any;
}

double TVMultiGraphForm::GetExtraYForPeakLabels(int32_t /*index*/) const {
  return FPeakLabels ? kPeakLabelExtra : 0.0;
}

void TVMultiGraphForm::ZoomOutX() {
  double lo = std::numeric_limits<double>::infinity(), hi = -lo;
  for (const auto& scene : FScenes)
    for (double x : scene->X)
      if (std::isfinite(x)) {
        lo = std::min(lo, x);
        hi = std::max(hi, x);
      }
  if (!(lo <= hi)) return;
  if (lo == hi) {
    lo -= 0.5;
    hi += 0.5;
  }
  FMinXInterpretation = lo;
  FMaxXInterpretation = hi;
}

void TVMultiGraphForm::ZoomOutY(int32_t index, bool ignoreRayleigh) {
  if (index < 0 || index >= GetGraphCount()) return;
  double minimum = 0, maximum = 0;
  if (!GetMinMaxYGraphValue(minimum, maximum, ignoreRayleigh, index)) return;
  TGraphDrawInformation& info = FGraphs[static_cast<size_t>(index)];
  const double extra = GetExtraYForPeakLabels(index);
  if (info.ScaleKindYAxis == 1) {
    if (maximum == minimum) maximum += 1.0;
    if (minimum < 1e-31 || maximum < 1e-31 || minimum >= 1e36 || maximum >= 1e36) return;
    const double d = std::log10(maximum) - std::log10(minimum);
    info.MinY = SafeDoubleToFloat((1.0 - 0.02 * d) * minimum);
    info.MaxY = SafeDoubleToFloat((1.0 + 0.02 * d) * maximum * (d * extra + 1.0));
    return;
  }
  if (maximum == minimum) maximum += 1.0;
  const double range = maximum - minimum;
  info.MinY = SafeDoubleToFloat(minimum - 0.02 * range);
  info.MaxY = SafeDoubleToFloat(maximum + (0.02 + extra) * range);
}

void TVMultiGraphForm::ZoomOutAndSetAll(bool ignoreRayleigh) {
  TGraphicUpdateGuard guard(*this);
  ZoomOutX();
  for (int32_t i = 0; i < GetGraphCount(); ++i) ZoomOutY(i, ignoreRayleigh);
  if (FOnlyOneYAxis) EqualizeMinMaxY();
  AddCurrentAreaToZoomStacks();
  SetAll();
}

void TVMultiGraphForm::ZoomOutXAndSetAll(bool /*ignoreRayleigh*/) {
  TGraphicUpdateGuard guard(*this);
  ZoomOutX();
  AddCurrentAreaToZoomStacks();
  SetAll();
}

void TVMultiGraphForm::ZoomOutYAndSetAll(bool ignoreRayleigh) {
  TGraphicUpdateGuard guard(*this);
  for (int32_t i = 0; i < GetGraphCount(); ++i) ZoomOutY(i, ignoreRayleigh);
  if (FOnlyOneYAxis) EqualizeMinMaxY();
  AddCurrentAreaToZoomStacks();
  SetAll();
}

bool TVMultiGraphForm::CheckAndDoAutomaticZoom() {
  if (FMouseMode == TGraphMouseMode::Mask || GetGraphCount() == 0) return false;
  TGraphicUpdateGuard guard(*this);
  if (FAutoZoomOutX && FAutoZoomOutY) {
    ZoomOutAndSetAll(false);
    return true;
  }
  if (FAutoZoomOutX) {
    ZoomOutXAndSetAll(false);
    return true;
  }
  if (FAutoZoomOutY) {
    // A step through the stack rescales y without a full rebuild (the x values stay).
    for (int32_t i = 0; i < GetGraphCount(); ++i) ZoomOutY(i, false);
    if (FOnlyOneYAxis) EqualizeMinMaxY();
    CalculateCascadeValues();
    LayoutScene();
    return true;
  }
  return false;
}

bool TVMultiGraphForm::SetXRange(double minimum, double maximum) {
  if (!std::isfinite(minimum) || !std::isfinite(maximum) || !(minimum < maximum)) return false;
  TGraphicUpdateGuard guard(*this);
  FMinXInterpretation = minimum;
  FMaxXInterpretation = maximum;
  LayoutScene();
  SyncCFI();
  Changed();
  return true;
}

bool TVMultiGraphForm::SetYRange(int32_t index, double minimum, double maximum) {
  if (index < 0 || index >= GetGraphCount() || !std::isfinite(minimum) || !std::isfinite(maximum) ||
      !(minimum < maximum))
    return false;
  TGraphDrawInformation& info = FGraphs[static_cast<size_t>(index)];
  if (info.ScaleKindYAxis == 1 && !(minimum > 0)) return false;
  TGraphicUpdateGuard guard(*this);
  info.MinY = SafeDoubleToFloat(minimum);
  info.MaxY = SafeDoubleToFloat(maximum);
  if (FOnlyOneYAxis)
    for (auto& other : FGraphs) {
      other.MinY = info.MinY;
      other.MaxY = info.MaxY;
    }
  CalculateCascadeValues();
  LayoutScene();
  SyncCFI();
  Changed();
  return true;
}

void TVMultiGraphForm::AnimateXZoom(double from, double to) {
  const double lo = std::min(from, to), hi = std::max(from, to);
  if (!std::isfinite(lo) || !std::isfinite(hi) || !(lo < hi)) return;
  FAnimationFrom[0] = FMinXInterpretation;
  FAnimationFrom[1] = FMaxXInterpretation;
  FAnimationTo[0] = lo;
  FAnimationTo[1] = hi;
  FAnimationStart = std::chrono::steady_clock::now();
  FAnimating = true;
  // Only a window's timer drives the movement; without one the end comes at once.
  if (!GetWindow())
    AnimateXZoomStep(kXZoomAnimationMilliseconds);
  else
    Redraw();
}

void TVMultiGraphForm::AnimationTimerTimer() {
  if (!FAnimating) return;
  const double elapsed =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - FAnimationStart).count();
  AnimateXZoomStep(elapsed);
}

void TVMultiGraphForm::AnimateXZoomStep(double elapsedMilliseconds) {
  if (!FAnimating) return;
  const double t = std::clamp(elapsedMilliseconds / kXZoomAnimationMilliseconds, 0.0, 1.0);
  if (t >= 1.0) {
    FAnimating = false;
    TGraphicUpdateGuard guard(*this);
    SetXRange(FAnimationTo[0], FAnimationTo[1]);
    AddCurrentAreaToZoomStacks();
    UpdateStatus();
    return;
  }
  // Smooth start and end: the movement is quickest halfway.
  const double e = t * t * (3.0 - 2.0 * t);
  const double lo = FAnimationFrom[0] + (FAnimationTo[0] - FAnimationFrom[0]) * e;
  const double hi = FAnimationFrom[1] + (FAnimationTo[1] - FAnimationFrom[1]) * e;
  if (lo < hi) {
    TGraphicUpdateGuard guard(*this);
    FMinXInterpretation = lo;
    FMaxXInterpretation = hi;
    LayoutScene();
  }
  Redraw();
}

void TVMultiGraphForm::SetAllMinYandMaxYEqual() {
  EqualizeMinMaxY();
  CalculateCascadeValues();
  LayoutScene();
}

void TVMultiGraphForm::EqualizeMinMaxY() {
  if (FGraphs.empty()) return;
  float lo = FGraphs.front().MinY, hi = FGraphs.front().MaxY;
  for (const auto& info : FGraphs) {
    lo = std::min(lo, info.MinY);
    hi = std::max(hi, info.MaxY);
  }
  for (auto& info : FGraphs) {
    info.MinY = lo;
    info.MaxY = hi;
  }
}

void TVMultiGraphForm::EqualizeScaleYAxisKind() {
  if (FGraphs.empty()) return;
  const int32_t kind =
      FGraphs[static_cast<size_t>(std::min(FAKGraphIndex, GetGraphCount() - 1))].ScaleKindYAxis;
  for (auto& info : FGraphs) info.ScaleKindYAxis = kind;
}

void TVMultiGraphForm::CalculateCascadeValues() {
  if (!FCascadeGraphs) {
    for (auto& info : FGraphs) {
      info.DisplayMinY = info.MinY;
      info.DisplayMaxY = info.MaxY;
    }
    return;
  }
  const int32_t n = GetGraphCount();
  const double s = FCascadeDistance;
  int32_t k = 0;
  for (int32_t i = n - 1; i >= 0; --i, ++k) {
    TGraphDrawInformation& info = FGraphs[static_cast<size_t>(i)];
    if (info.ScaleKindYAxis == 1 && info.MinY > 0 && info.MaxY > 0) {
      const double lo = std::log10(info.MinY), hi = std::log10(info.MaxY);
      const double d = (hi - lo) * s;
      info.DisplayMinY = SafeDoubleToFloat(std::pow(10.0, lo - d * k));
      info.DisplayMaxY = SafeDoubleToFloat(std::pow(10.0, hi + d * (n - 1 - k)));
    } else {
      const double d = (double(info.MaxY) - info.MinY) * s;
      info.DisplayMinY = SafeDoubleToFloat(info.MinY - d * k);
      info.DisplayMaxY = SafeDoubleToFloat(info.MaxY + d * (n - 1 - k));
    }
  }
}

void TVMultiGraphForm::AddCurrentAreaToZoomStacks() {
  for (auto& info : FGraphs)
    info.ZoomStack.Push({FMinXInterpretation, FMaxXInterpretation, info.MinY, info.MaxY});
}

bool TVMultiGraphForm::PreviousZoom() {
  return StepZoom(&TZoomStack::Previous);
}

bool TVMultiGraphForm::NextZoom() {
  return StepZoom(&TZoomStack::Next);
}

// Every graph takes the y range of its zoom stack's neighbour; the active graph's x range goes to the view.
bool TVMultiGraphForm::StepZoom(bool (TZoomStack::*step)(TZoomArea&)) {
  if (FGraphs.empty()) return false;
  bool moved = false;
  TZoomArea area;
  for (size_t i = 0; i < FGraphs.size(); ++i)
    if ((FGraphs[i].ZoomStack.*step)(area)) {
      FGraphs[i].MinY = static_cast<float>(area.YFrom);
      FGraphs[i].MaxY = static_cast<float>(area.YTo);
      if (static_cast<int32_t>(i) == FAKGraphIndex) {
        FMinXInterpretation = area.XFrom;
        FMaxXInterpretation = area.XTo;
        moved = true;
      }
    }
  if (moved) SetAll();
  return moved;
}

// --- Active graph, stack position, units ----------------------------------------------------------------

void TVMultiGraphForm::ChangeAKGraphIndex(int32_t index, bool update) {
  if (index < 0 || index >= GetGraphCount() || index == FAKGraphIndex) return;
  FAKGraphIndex = index;
  if (!update) return;
  RebuildGraphScenes();
  SetAll();
  Changed();
}

void TVMultiGraphForm::ToggleToNextGraphInList() {
  if (GetGraphCount() > 1) ChangeAKGraphIndex((FAKGraphIndex + 1) % GetGraphCount());
}

void TVMultiGraphForm::ToggleToPreviousGraphInList() {
  if (GetGraphCount() > 1) ChangeAKGraphIndex((FAKGraphIndex + GetGraphCount() - 1) % GetGraphCount());
}

bool TVMultiGraphForm::ChangeSpacePosition(int32_t index, int32_t x, int32_t y, int32_t /*z*/) {
  const TDGraph* graph = FindGraph(index);
  TProject* project = GetProject();
  if (!graph || !project || x < 0 || y < 0 || x >= graph->GetSizeX() || y >= graph->GetSizeY()) return false;
  FGraphs[static_cast<size_t>(index)].ColumnIndex = x;
  FGraphs[static_cast<size_t>(index)].LineIndex = y;
  ConnectCursors(true);
  auto* cursor = dynamic_cast<TDCursor*>(project->FindData(FSpaceCursorID));
  if (!cursor) {
    SetSingleGraph(index);
    return true;
  }
  double worldX = 0, worldY = 0;
  PixelToWorld(*project, graph->GetSpaceTransformationID(), x, y, worldX, worldY);
  // One change for both coordinates: the graphs (and every other viewer of the cursor) follow once.
  cursor->SetAutoDataChange(false);
  cursor->SetPosition(0, worldX);
  cursor->SetPosition(1, worldY);
  cursor->SetAutoDataChange(true);
  return true;
}

void TVMultiGraphForm::StepSpectrum(int32_t dx, int32_t dy) {
  if (CheckForOnlySingleSpectra() || FAKGraphIndex >= GetGraphCount()) return;
  const TGraphDrawInformation& info = FGraphs[static_cast<size_t>(FAKGraphIndex)];
  const TDGraph* graph = FindGraph(FAKGraphIndex);
  if (!graph) return;
  int32_t column = info.ColumnIndex, line = info.LineIndex;
  TProject* project = GetProject();
  const auto* cursor = project ? dynamic_cast<const TDCursor*>(project->FindData(FSpaceCursorID)) : nullptr;
  if (!HasSpectrum(FAKGraphIndex) && cursor) {
    // Outside the stack: the step starts from the pixel the cursor stands on, and the edge holds.
    const double real[3] = {cursor->GetPosition(0), cursor->GetPosition(1), 0.0};
    double bin[3] = {real[0], real[1], 0.0};
    if (auto* space =
            dynamic_cast<const TDSpaceTransformation*>(project->FindData(graph->GetSpaceTransformationID())))
      space->RealToBin(bin, real);
    if (std::isfinite(bin[0]) && std::isfinite(bin[1])) {
      column = static_cast<int32_t>(std::clamp(std::round(bin[0]), -1e6, 1e6));
      line = static_cast<int32_t>(std::clamp(std::round(bin[1]), -1e6, 1e6));
    }
  }
  ChangeSpacePosition(FAKGraphIndex, std::clamp(column + dx, 0, graph->GetSizeX() - 1),
                      std::clamp(line + dy, 0, graph->GetSizeY() - 1));
}

int32_t TVMultiGraphForm::GetXUnitIndex() const {
  const TDInterpretation* own = FindXInterpretation();
  return own ? own->GetUnitIndex() : FLastXUnitIndex;
}

std::vector<std::string> TVMultiGraphForm::GetXUnitNames() const {
  const TDInterpretation* own = FindXInterpretation();
  return own ? own->GetUnits() : std::vector<std::string>{};
}

std::string TVMultiGraphForm::GetXUnitName() const {
  const TDInterpretation* own = FindXInterpretation();
  if (own) return own->UnitString(own->GetUnitIndex());
  if (const TDGraph* graph = FindGraph(0))
    if (TProject* project = GetProject())
      if (auto* t = dynamic_cast<const TDTransformation*>(project->FindData(graph->GetXTransformationID())))
        return t->GetStandardUnit();
  return "";
}

bool TVMultiGraphForm::ChangeXUnitIndex(int32_t index) {
  TDInterpretation* own = FindXInterpretation();
  if (!own || index < 0 || index >= own->GetNumberOfUnits()) return false;
  const int32_t old = own->GetUnitIndex();
  if (index == old && index == FLastXUnitIndex) return true;
  own->SetUnitIndex(index); // reports a change, which XInterpretationChanged takes up
  if (FLastXUnitIndex != index) XInterpretationChanged();
  return true;
}

void TVMultiGraphForm::XInterpretationChanged() {
  TDInterpretation* own = FindXInterpretation();
  if (!own) return;
  const int32_t now = own->GetUnitIndex();
  if (now != FLastXUnitIndex && FLastXUnitIndex >= 0 && FLastXUnitIndex < own->GetNumberOfUnits()) {
    // The range on view goes through the standard unit into the new one: the same part stays in view.
    const double a = own->StandardTo(own->ToStandard(FMinXInterpretation, FLastXUnitIndex), now);
    const double b = own->StandardTo(own->ToStandard(FMaxXInterpretation, FLastXUnitIndex), now);
    if (std::isfinite(a) && std::isfinite(b) && a != b) {
      FMinXInterpretation = std::min(a, b);
      FMaxXInterpretation = std::max(a, b);
    }
    for (auto& info : FGraphs) info.ZoomStack.Clear();
  }
  FLastXUnitIndex = now;
  SetAll();
  Changed();
}

void TVMultiGraphForm::ChangeGraphColor(int32_t index, uint32_t color) {
  if (index < 0 || index >= GetGraphCount()) return;
  TGraphDrawInformation& info = FGraphs[static_cast<size_t>(index)];
  info.LineColor = color & 0x00FFFFFF;
  info.OldVersionToCurrent();
  UpdateCurve(index);
  SetCoordinateSystem(FAKGraphIndex);
  Changed();
}

void TVMultiGraphForm::ToggleGraphLineWidth() {
  if (FAKGraphIndex >= GetGraphCount()) return;
  TGraphDrawInformation& info = FGraphs[static_cast<size_t>(FAKGraphIndex)];
  info.LineWidth = info.LineWidth >= 2.0f ? 1.0f : (info.LineWidth == 1.0f ? 2.0f : info.LineWidth);
  UpdateCurve(FAKGraphIndex);
  SyncCFI();
  Changed();
}

// --- Cursor and mouse -----------------------------------------------------------------------------------

double TVMultiGraphForm::GetCursorX() const {
  TProject* project = GetProject();
  const auto* cursor = project ? dynamic_cast<const TDCursor*>(project->FindData(FXCursorID)) : nullptr;
  if (!cursor) return kNaN;
  const TDInterpretation* own = FindXInterpretation();
  return own ? own->StandardTo(cursor->GetPosition(0)) : cursor->GetPosition(0);
}

void TVMultiGraphForm::SetCursor(double x) {
  TProject* project = GetProject();
  if (!project || !std::isfinite(x)) return;
  ConnectCursors(true);
  auto* cursor = dynamic_cast<TDCursor*>(project->FindData(FXCursorID));
  if (!cursor) return;
  const TDInterpretation* own = FindXInterpretation();
  cursor->SetPosition(0, own ? own->ToStandard(x) : x);
}

std::string TVMultiGraphForm::GetInterpretDataAtCursorPosition() const {
  const double x = GetCursorX();
  if (!std::isfinite(x)) return "";
  std::string text = FormatNumber(x) + " " + GetXUnitName();
  if (FAKGraphIndex < GetGraphCount() && HasSpectrum(FAKGraphIndex)) {
    const TGraphScene& scene = *FScenes[static_cast<size_t>(FAKGraphIndex)];
    size_t best = 0;
    double distance = std::numeric_limits<double>::infinity();
    for (size_t i = 0; i < std::min(scene.X.size(), scene.Spectrum.size()); ++i)
      if (std::fabs(scene.X[i] - x) < distance) {
        distance = std::fabs(scene.X[i] - x);
        best = i;
      }
    if (best < scene.Spectrum.size()) text += ": " + FormatNumber(scene.Spectrum[best]);
  }
  return text;
}

void TVMultiGraphForm::UpdateStatus() {
  std::string status = GetInterpretDataAtCursorPosition();
  if (FAKGraphIndex < GetGraphCount() && !CheckForOnlySingleSpectra()) {
    const TGraphDrawInformation& info = FGraphs[static_cast<size_t>(FAKGraphIndex)];
    status += std::string(status.empty() ? "" : "   ") +
              (HasSpectrum(FAKGraphIndex)
                   ? "x=" + std::to_string(info.ColumnIndex) + ", y=" + std::to_string(info.LineIndex)
                   : "cursor outside the stack");
  }
  if (FPeakLabels) {
    const int32_t peaks = GetNumberOfPeaks();
    status += std::string(status.empty() ? "" : "   ") + "Number of Peaks: " + std::to_string(peaks);
    if (peaks > kMaxPeakLabels && FPeakOptions.ShowLabels) status += std::string("   ") + kPeakWarning;
  }
  if (FMouseMode == TGraphMouseMode::Mask)
    status += std::string(status.empty() ? "" : "   ") + (FMaskErase ? "Mask: erase" : "Mask: draw");
  if (status == FStatusText) return;
  FStatusText = status;
  // The window shows the text: it hears of the change through a redraw request.
  Redraw();
}

void TVMultiGraphForm::ViewMouseDown(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState /*shift*/) {
  if (button != TOpenGLMouseButton::Left) return;
  double dataX = 0, dataY = 0;
  if (!WindowToData(x, y, dataX, dataY)) return;
  FDragging = true;
  FDragStartX = x;
  FDragStartY = y;
  if (FMouseMode == TGraphMouseMode::Cursor) {
    // The cursor is held only while it is dragged.
    if (TProject* project = GetProject(); project && FXCursorID)
      project->ChangeCursorToLock(FXCursorID, this, cpLeftHeld);
    SetCursor(dataX);
  }
}

void TVMultiGraphForm::ViewMouseMove(int x, int y, TOpenGLShiftState /*shift*/) {
  if (!FDragging) return;
  double dataX = 0, dataY = 0;
  if (FMouseMode == TGraphMouseMode::Cursor) {
    if (WindowToData(x, y, dataX, dataY)) SetCursor(dataX);
  } else if (FMouseMode == TGraphMouseMode::Zoom) {
    const double h = GetOpenGLView().GetHeight();
    FZoomMarker->SetColor(kZoomColor);
    FZoomMarker->SetPoints({{double(FDragStartX), h - FDragStartY, 0},
                            {double(x), h - FDragStartY, 0},
                            {double(x), h - y, 0},
                            {double(FDragStartX), h - y, 0}});
    FZoomMarker->SetVisible(true);
  } else if (FMouseMode == TGraphMouseMode::Mask && FMaskTool) {
    // The x range to be masked, over the plot area's full height.
    const double h = GetOpenGLView().GetHeight();
    const double bottom = kMarginBottom, top = h - kMarginTop;
    FZoomMarker->SetColor(FMaskErase ? kZoomColor : ColorOf(GraphMaskBandColor(0)));
    FZoomMarker->SetPoints({{double(FDragStartX), bottom, 0},
                            {double(x), bottom, 0},
                            {double(x), top, 0},
                            {double(FDragStartX), top, 0}});
    FZoomMarker->SetVisible(true);
  }
  Redraw();
}

void TVMultiGraphForm::ViewMouseUp(int x, int y, TOpenGLMouseButton button, TOpenGLShiftState /*shift*/) {
  if (button != TOpenGLMouseButton::Left || !FDragging) return;
  FDragging = false;
  if (FMouseMode == TGraphMouseMode::Cursor) {
    if (TProject* project = GetProject(); project && FXCursorID)
      project->ChangeCursorToUnlock(FXCursorID, this);
    return;
  }
  if (FMouseMode == TGraphMouseMode::Mask) {
    // The dragged x range goes to the mask tool; a click without movement changes the point under it.
    const TOpenGLView& view = GetOpenGLView();
    const double left = kMarginLeft, right = view.GetWidth() - kMarginRight;
    auto dataX = [&](int windowX) {
      const double c = std::clamp<double>(windowX, left, right);
      return FMinXInterpretation + (c - left) / (right - left) * (FMaxXInterpretation - FMinXInterpretation);
    };
    if (right > left) DoMaskChange(dataX(FDragStartX), dataX(x));
    HideMarker();
    return;
  }
  if (FMouseMode != TGraphMouseMode::Zoom) return;
  FZoomMarker->SetVisible(false);
  double x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  const TOpenGLView& view = GetOpenGLView();
  // Both corners clamped into the plot area.
  auto clampX = [&](int v) { return std::clamp(v, kMarginLeft, view.GetWidth() - kMarginRight); };
  auto clampY = [&](int v) { return std::clamp(v, kMarginTop, view.GetHeight() - kMarginBottom); };
  if (!WindowToData(clampX(FDragStartX), clampY(FDragStartY), x0, y0) ||
      !WindowToData(clampX(x), clampY(y), x1, y1) || std::abs(x - FDragStartX) < 3 ||
      std::abs(y - FDragStartY) < 3)
    return;
  TGraphicUpdateGuard guard(*this);
  if (FAKGraphIndex < GetGraphCount()) {
    TGraphDrawInformation& info = FGraphs[static_cast<size_t>(FAKGraphIndex)];
    if (std::isfinite(y0) && std::isfinite(y1) && y0 != y1) {
      info.MinY = SafeDoubleToFloat(std::min(y0, y1));
      info.MaxY = SafeDoubleToFloat(std::max(y0, y1));
    }
  }
  CalculateCascadeValues();
  // The y range changes at once; the x range moves there (and is pushed to the zoom stacks at the end).
  AnimateXZoom(std::min(x0, x1), std::max(x0, x1));
  LayoutScene();
  SyncCFI();
  Changed();
}

bool TVMultiGraphForm::ViewMouseWheel(int x, int y, double steps, TOpenGLShiftState /*shift*/) {
  double dataX = 0, dataY = 0;
  if (!WindowToData(x, y, dataX, dataY)) return true;
  // Zoom about the point under the mouse: a step away from the user narrows the range by a fifth.
  const double factor = std::pow(0.8, steps);
  const double lo = dataX - (dataX - FMinXInterpretation) * factor;
  const double hi = dataX + (FMaxXInterpretation - dataX) * factor;
  if (hi - lo > 0) SetXRange(lo, hi);
  return true;
}

bool TVMultiGraphForm::ViewKeyDown(TOpenGLKey key, int /*character*/, TOpenGLShiftState /*shift*/) {
  switch (key) {
  case TOpenGLKey::Left:
    StepSpectrum(-1, 0);
    return true;
  case TOpenGLKey::Right:
    StepSpectrum(1, 0);
    return true;
  case TOpenGLKey::Up:
    StepSpectrum(0, -1);
    return true;
  case TOpenGLKey::Down:
    StepSpectrum(0, 1);
    return true;
  case TOpenGLKey::PageUp:
  case TOpenGLKey::F5:
    ToggleToPreviousGraphInList();
    return true;
  case TOpenGLKey::PageDown:
  case TOpenGLKey::F6:
    ToggleToNextGraphInList();
    return true;
  case TOpenGLKey::Home:
    ZoomOutAndSetAll(false);
    return true;
  default:
    return false;
  }
}

// --- Extraction and export ------------------------------------------------------------------------------

int32_t TVMultiGraphForm::ExtractGraph() {
  TProject* project = GetProject();
  TDGraph* source = FindGraph(FAKGraphIndex);
  if (!project || !source || !HasSpectrum(FAKGraphIndex)) return 0;
  const TGraphDrawInformation& info = FGraphs[static_cast<size_t>(FAKGraphIndex)];
  const bool stack = source->GetSizeX() > 1 || source->GetSizeY() > 1;
  const std::string caption =
      source->GetCaption() +
      (stack ? " (x=" + std::to_string(info.ColumnIndex) + ", y=" + std::to_string(info.LineIndex) + ")"
             : " (Extracted)");
  std::unique_ptr<TDGraph> graph = TDGraph::CreateNewGraph(
      project, source->GetID(), true, TDataFieldKind::Float, TDataSaveMode::Always, caption);
  if (!graph) return 0;
  // The spectrum keeps its place on the sample: a point transformation at its world position.
  if (auto* space =
          dynamic_cast<const TDSpaceTransformation*>(project->FindData(source->GetSpaceTransformationID()))) {
    auto position = std::make_unique<TDSpaceTransformation>();
    position->SetID(project->GetNewDataID());
    position->SetCaption(caption + ": Position Transformation");
    position->SetInterpretationID(space->GetInterpretationID());
    position->SetStandardUnit(space->GetStandardUnit());
    const double bin[3] = {double(info.ColumnIndex), double(info.LineIndex), 0.0};
    double world[3] = {0, 0, 0};
    space->BinToReal(bin, world);
    position->ViewPort().SetScale({1.0, 1.0, 1.0});
    position->ViewPort().SetRotation(0, 0, 0);
    position->ViewPort().SetModelOrigin({0.0, 0.0, 0.0});
    position->ViewPort().SetWorldOrigin({world[0], world[1], world[2]});
    graph->SetSpaceTransformationID(position->GetID());
    project->AddData(std::move(position));
  }
  if (source->GetXTransformationID())
    graph->SetXTransformationID(
        MakeAndCopyTransformation(*project, TDataSaveMode::Always, source->GetXTransformationID()));
  if (source->GetXInterpretationID())
    graph->SetXInterpretationID(
        MakeAndCopyInterpretation(*project, TDataSaveMode::Always, source->GetXInterpretationID()));
  std::vector<float> values(static_cast<size_t>(source->GetSizeGraph()));
  source->GetSpectrum(info.ColumnIndex, info.LineIndex, values.data());
  graph->SetSpectrum(0, 0, values.data());
  graph->SetLineValid(0, true);
  const int32_t id = graph->GetID();
  project->AddData(std::move(graph));
  return id;
}

TIntList TVMultiGraphForm::ExtractViewerObjects(std::string& reason) {
  if (GetGraphCount() == 0 || !FindGraph(FAKGraphIndex)) {
    reason = "the graph viewer shows no graph";
    return {};
  }
  if (!HasSpectrum(FAKGraphIndex)) {
    reason = "the space cursor lies outside the active graph's stack";
    return {};
  }
  const int32_t id = ExtractGraph();
  if (!id) {
    reason = "the spectrum could not be extracted";
    return {};
  }
  return {id};
}

std::vector<std::string> TVMultiGraphForm::GetASCIIDataStringList() const {
  std::vector<std::string> lines;
  if (GetGraphCount() == 0) return lines;
  std::string header = GetXUnitName().empty() ? "x" : "x [" + GetXUnitName() + "]";
  TProject* project = GetProject();
  size_t rows = 0;
  for (int32_t i = 0; i < GetGraphCount(); ++i) {
    const TData* data = project ? project->FindData(FGraphs[static_cast<size_t>(i)].GraphID) : nullptr;
    header += "\t" + (data ? data->GetCaption() : std::string("Graph"));
    rows = std::max(rows, FScenes[static_cast<size_t>(i)]->X.size());
  }
  lines.push_back(header);
  const std::vector<double>& x = FScenes[static_cast<size_t>(FAKGraphIndex)]->X;
  for (size_t r = 0; r < rows; ++r) {
    std::string line = r < x.size() ? FormatNumber(x[r]) : "";
    for (int32_t i = 0; i < GetGraphCount(); ++i) {
      const std::vector<float>& s = GetShownSpectrum(i);
      line += "\t" + (r < s.size() ? FormatNumber(s[r]) : std::string());
    }
    lines.push_back(line);
  }
  return lines;
}

// --- Flags ----------------------------------------------------------------------------------------------

void TVMultiGraphForm::SetOnlyOneYAxis(bool value) {
  FOnlyOneYAxis = value;
  if (value) {
    EqualizeMinMaxY();
    EqualizeScaleYAxisKind();
  }
  CalculateCascadeValues();
  LayoutScene();
}

void TVMultiGraphForm::SetCascadeGraphs(bool value) {
  FCascadeGraphs = value;
  CalculateCascadeValues();
  LayoutScene();
}

void TVMultiGraphForm::SetCascadeDistance(double value) {
  if (!std::isfinite(value) || value < 0) return;
  FCascadeDistance = value;
  CalculateCascadeValues();
  LayoutScene();
}

void TVMultiGraphForm::SetAutoZoomOut(bool x, bool y) {
  FAutoZoomOutX = x;
  FAutoZoomOutY = y;
  FAutoZoomOut = x || y;
}

// --- Control interface ----------------------------------------------------------------------------------

void TVMultiGraphForm::CFICreateParameters(TUserParameterAdministrator& cfi) {
  auto* unit = cfi.Add<TUserListParameter>(kXUnit, "XUnit", "X Unit", "The unit of the x axis", 0);
  (void)unit;
  auto* sx = cfi.Add<TUserIntParameter>(kSpectrumX, "SpectrumX", "Spectrum X",
                                        "Column of the active graph's spectrum (from 0)", 0);
  sx->SetLimits(0, 0);
  auto* sy = cfi.Add<TUserIntParameter>(kSpectrumY, "SpectrumY", "Spectrum Y",
                                        "Line of the active graph's spectrum (from 0)", 0);
  sy->SetLimits(0, 0);
  auto* active =
      cfi.Add<TUserIntParameter>(kActiveGraph, "ActiveGraph", "Active Graph", "Index of the active graph", 0);
  active->SetLimits(0, 0);
  // The ranges keep every digit in their text form, so that a refused set of settings restores them exactly.
  for (auto* range : {cfi.Add<TUserDoubleParameter>(kXMinimum, "XMinimum", "X Minimum",
                                                    "Left end of the x range (x unit)", 0.0),
                      cfi.Add<TUserDoubleParameter>(kXMaximum, "XMaximum", "X Maximum",
                                                    "Right end of the x range (x unit)", 1.0),
                      cfi.Add<TUserDoubleParameter>(kYMinimum, "YMinimum", "Y Minimum",
                                                    "Lower end of the active graph's y range", 0.0),
                      cfi.Add<TUserDoubleParameter>(kYMaximum, "YMaximum", "Y Maximum",
                                                    "Upper end of the active graph's y range", 1.0)})
    range->SetFloatStyle(TFloatFormat::General, 17);
  auto* ax = cfi.Add<TUserBoolParameter>(kAutoZoomOutX, "AutoZoomOutX", "Automatic X Zoom",
                                         "Shows the whole x range after each change of the data", false);
  ax->TrueFalseStrings("On", "Off");
  auto* ay = cfi.Add<TUserBoolParameter>(kAutoZoomOutY, "AutoZoomOutY", "Automatic Y Zoom",
                                         "Fits the y range to each spectrum shown", true);
  ay->TrueFalseStrings("On", "Off");
  auto* scale = cfi.Add<TUserListParameter>(kScaleKindY, "ScaleKindY", "Y Scale", "Scale of the y axis", 0);
  scale->AddListEntry("Linear", 0);
  scale->AddListEntry("Logarithmic", 1);
  auto* one = cfi.Add<TUserBoolParameter>(kOnlyOneYAxis, "OnlyOneYAxis", "One Y Axis",
                                          "All graphs share one y range", false);
  one->TrueFalseStrings("On", "Off");
  auto* cascade = cfi.Add<TUserBoolParameter>(kCascadeGraphs, "CascadeGraphs", "Cascade Graphs",
                                              "Shifts the graphs apart by a fraction of their height", false);
  cascade->TrueFalseStrings("On", "Off");
  auto* distance = cfi.Add<TUserDoubleParameter>(kCascadeDistance, "CascadeDistance", "Cascade Distance",
                                                 "The shift between cascaded graphs, in graph heights", 0.2);
  distance->SetLimits(0.0, 10.0);
  auto* style = cfi.Add<TUserListParameter>(kGraphStyle, "GraphStyle", "Graph Style",
                                            "How the active graph is drawn", 0);
  style->AddListEntry("Line", 0);
  style->AddListEntry("Symbols", 1);
  style->AddListEntry("Line and Symbols", 2);
  style->AddListEntry("Histogram", 3);
  auto* width = cfi.Add<TUserDoubleParameter>(kLineWidth, "LineWidth", "Line Width",
                                              "Line width of the active graph in pixels", 1.0);
  width->SetLimits(0.5, 10.0);
  auto* peaks = cfi.Add<TUserBoolParameter>(kPeakLabels, "PeakLabels", "Peak Labels",
                                            "Finds the peaks of the shown spectra and labels them", false);
  peaks->TrueFalseStrings("On", "Off");
  auto* mode =
      cfi.Add<TUserListParameter>(kMouseMode, "MouseMode", "Mouse",
                                  "What a drag in the plot does: move the cursor, zoom, draw a mask", 0);
  mode->AddListEntry("Cursor", static_cast<int32_t>(TGraphMouseMode::Cursor));
  mode->AddListEntry("Zoom", static_cast<int32_t>(TGraphMouseMode::Zoom));
  mode->AddListEntry("Mask", static_cast<int32_t>(TGraphMouseMode::Mask));
  cfi.OnValidateParameters = [](const TUserParameterAdministrator& administrator) {
    TUserParameterProblems problems;
    auto value = [&](int32_t id) {
      const auto* p = dynamic_cast<const TUserDoubleParameter*>(administrator.GetUserParameter(id));
      return p ? p->GetParameter() : 0.0;
    };
    const double x0 = value(kXMinimum), x1 = value(kXMaximum), y0 = value(kYMinimum), y1 = value(kYMaximum);
    if (!(x0 < x1))
      problems.push_back({"XMinimum", "the x range is empty or inverted: XMinimum (" + FormatNumber(x0) +
                                          ") must be below XMaximum (" + FormatNumber(x1) + ")"});
    if (!(y0 < y1))
      problems.push_back({"YMinimum", "the y range is empty or inverted: YMinimum (" + FormatNumber(y0) +
                                          ") must be below YMaximum (" + FormatNumber(y1) + ")"});
    const auto* scaleKind = administrator.GetUserListParameter(kScaleKindY);
    if (scaleKind && scaleKind->GetParameter() == 1 && !(y0 > 0))
      problems.push_back({"YMinimum", "a logarithmic y axis needs YMinimum above 0"});
    return problems;
  };
}

void TVMultiGraphForm::SyncCFI() {
  TUserParameterAdministrator* cfi = GetCFI();
  if (!cfi || FSyncingCFI) return;
  FSyncingCFI = true;
  if (auto* unit = cfi->GetUserListParameter(kXUnit)) {
    const std::vector<std::string> names = GetXUnitNames();
    if (unit->GetDescriptions() != names) {
      unit->ClearAllEntries();
      for (size_t i = 0; i < names.size(); ++i) unit->AddListEntry(names[i], static_cast<int32_t>(i));
    }
    unit->SetParameterSilent(GetXUnitIndex());
  }
  const TDGraph* graph = FindGraph(FAKGraphIndex);
  const TGraphDrawInformation* info =
      FAKGraphIndex < GetGraphCount() ? &FGraphs[static_cast<size_t>(FAKGraphIndex)] : nullptr;
  if (auto* sx = cfi->GetUserIntParameter(kSpectrumX)) {
    sx->SetLimits(0, graph ? std::max(0, graph->GetSizeX() - 1) : 0);
    sx->SetParameterSilent(info ? info->ColumnIndex : 0);
  }
  if (auto* sy = cfi->GetUserIntParameter(kSpectrumY)) {
    sy->SetLimits(0, graph ? std::max(0, graph->GetSizeY() - 1) : 0);
    sy->SetParameterSilent(info ? info->LineIndex : 0);
  }
  if (auto* active = cfi->GetUserIntParameter(kActiveGraph)) {
    active->SetLimits(0, std::max(0, GetGraphCount() - 1));
    active->SetParameterSilent(FAKGraphIndex);
  }
  auto setDouble = [&](int32_t id, double value) {
    if (auto* p = dynamic_cast<TUserDoubleParameter*>(cfi->GetUserParameter(id)))
      p->SetParameterSilent(value);
  };
  auto setBool = [&](int32_t id, bool value) {
    if (auto* p = cfi->GetUserBoolParameter(id)) p->SetParameterSilent(value);
  };
  setDouble(kXMinimum, FMinXInterpretation);
  setDouble(kXMaximum, FMaxXInterpretation);
  setDouble(kYMinimum, info ? info->MinY : 0.0);
  setDouble(kYMaximum, info ? info->MaxY : 1.0);
  setBool(kAutoZoomOutX, FAutoZoomOutX);
  setBool(kAutoZoomOutY, FAutoZoomOutY);
  if (auto* p = cfi->GetUserListParameter(kScaleKindY))
    p->SetParameterSilent(info ? info->ScaleKindYAxis : 0);
  setBool(kOnlyOneYAxis, FOnlyOneYAxis);
  setBool(kCascadeGraphs, FCascadeGraphs);
  setDouble(kCascadeDistance, FCascadeDistance);
  if (auto* p = cfi->GetUserListParameter(kGraphStyle))
    p->SetParameterSilent(info ? static_cast<int32_t>(info->GraphStyle) : 0);
  setDouble(kLineWidth, info ? info->LineWidth : 1.0);
  setBool(kPeakLabels, FPeakLabels);
  if (auto* p = cfi->GetUserListParameter(kMouseMode))
    p->SetParameterSilent(
        static_cast<int32_t>(FMouseMode == TGraphMouseMode::Tool ? TGraphMouseMode::Cursor : FMouseMode));
  FSyncingCFI = false;
}

void TVMultiGraphForm::CFIParameterChanged(const TUserParameterList& changed) {
  if (FSyncingCFI) return;
  TUserParameterAdministrator* cfi = GetCFI();
  auto number = [&](int32_t id) {
    const auto* p = dynamic_cast<const TUserDoubleParameter*>(cfi->GetUserParameter(id));
    return p ? p->GetParameter() : 0.0;
  };
  auto flag = [&](int32_t id) {
    const auto* p = cfi->GetUserBoolParameter(id);
    return p && p->GetParameter();
  };
  TGraphicUpdateGuard guard(*this);
  bool layout = false;
  bool spectrum = false;
  for (const TUserParameter* p : changed) {
    TGraphDrawInformation* info =
        FAKGraphIndex < GetGraphCount() ? &FGraphs[static_cast<size_t>(FAKGraphIndex)] : nullptr;
    switch (p->GetId()) {
    case kXUnit:
      ChangeXUnitIndex(cfi->GetUserListParameter(kXUnit)->GetParameter());
      break;
    case kSpectrumX:
    case kSpectrumY:
      spectrum = true;
      break;
    case kActiveGraph:
      ChangeAKGraphIndex(cfi->GetUserIntParameter(kActiveGraph)->GetParameter());
      break;
    case kXMinimum:
    case kXMaximum:
      FMinXInterpretation = number(kXMinimum);
      FMaxXInterpretation = number(kXMaximum);
      layout = true;
      break;
    case kYMinimum:
    case kYMaximum:
      if (info) {
        info->MinY = SafeDoubleToFloat(number(kYMinimum));
        info->MaxY = SafeDoubleToFloat(number(kYMaximum));
        if (FOnlyOneYAxis) EqualizeMinMaxY();
      }
      layout = true;
      break;
    case kAutoZoomOutX:
    case kAutoZoomOutY:
      SetAutoZoomOut(flag(kAutoZoomOutX), flag(kAutoZoomOutY));
      break;
    case kScaleKindY:
      if (info) info->ScaleKindYAxis = cfi->GetUserListParameter(kScaleKindY)->GetParameter();
      if (FOnlyOneYAxis) EqualizeScaleYAxisKind();
      layout = true;
      break;
    case kOnlyOneYAxis:
      FOnlyOneYAxis = flag(kOnlyOneYAxis);
      if (FOnlyOneYAxis) {
        EqualizeMinMaxY();
        EqualizeScaleYAxisKind();
      }
      layout = true;
      break;
    case kCascadeGraphs:
      FCascadeGraphs = flag(kCascadeGraphs);
      layout = true;
      break;
    case kCascadeDistance:
      FCascadeDistance = number(kCascadeDistance);
      layout = true;
      break;
    case kGraphStyle:
      if (info)
        info->GraphStyle =
            static_cast<TGraphViewerStyle>(cfi->GetUserListParameter(kGraphStyle)->GetParameter());
      layout = true;
      break;
    case kLineWidth:
      if (info) info->LineWidth = static_cast<float>(number(kLineWidth));
      layout = true;
      break;
    case kPeakLabels:
      SetPeakLabels(flag(kPeakLabels));
      break;
    case kMouseMode: {
      const auto mode = static_cast<TGraphMouseMode>(cfi->GetUserListParameter(kMouseMode)->GetParameter());
      // Mask drawing without a tool's mask draws a mask of the viewer's own over the active graph.
      if (mode == TGraphMouseMode::Mask && !FMaskTool)
        CreateGraphMaskForCurrentGraph();
      else
        SetGraphMouseMode(mode);
      break;
    }
    default:
      break;
    }
  }
  if (spectrum && FAKGraphIndex < GetGraphCount())
    ChangeSpacePosition(FAKGraphIndex, cfi->GetUserIntParameter(kSpectrumX)->GetParameter(),
                        cfi->GetUserIntParameter(kSpectrumY)->GetParameter());
  if (layout) {
    CalculateCascadeValues();
    LayoutScene();
  }
  Changed();
}

// --- Persistence ----------------------------------------------------------------------------------------

TTagError TVMultiGraphForm::SaveViewerToTagFile(TFileHandle file) {
  TTagError result = TVCustomForm::SaveViewerToTagFile(file);
  if (result < 1) return result;
  const int64_t n = GetGraphCount();
  std::vector<int32_t> ids, xIndex, yIndex, style, color, auxColor, pointStyle, lineStyle, scaleKind;
  std::vector<double> maxY, minY;
  std::vector<float> transparency, auxTransparency, lineWidth, pointSize;
  for (auto& info : FGraphs) {
    info.CurrentToOldVersion();
    ids.push_back(info.GraphID);
    maxY.push_back(info.MaxY);
    minY.push_back(info.MinY);
    xIndex.push_back(info.ColumnIndex);
    yIndex.push_back(info.LineIndex);
    style.push_back(static_cast<int32_t>(info.GraphStyle));
    color.push_back(static_cast<int32_t>(info.LineColor));
    transparency.push_back(info.Transparency);
    auxColor.push_back(static_cast<int32_t>(info.AuxColor));
    auxTransparency.push_back(info.AuxTransparency);
    pointStyle.push_back(info.PointStyle);
    lineStyle.push_back(info.LineStyle);
    lineWidth.push_back(info.LineWidth);
    pointSize.push_back(info.PointSize);
    scaleKind.push_back(info.ScaleKindYAxis);
  }
  TTagControl group, t;
  if ((result = group.WriteTag(file, kGroup, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = t.SaveIntTag(file, "XInterpretationID", FXInterpretationID)) < 1 ||
      (result = t.SaveIntTag(file, "XCursorID", FXCursorID)) < 1 ||
      (result = t.SaveIntTag(file, "SpaceCursorID", FSpaceCursorID)) < 1 ||
      (result = t.SaveList(file, "GraphIDList", ids)) < 1 ||
      (result = t.SaveIntTag(file, "LastXUnitIndex", GetXUnitIndex())) < 1 ||
      (result = t.SaveDoubleTag(file, "MinXInterpretation", FMinXInterpretation)) < 1 ||
      (result = t.SaveDoubleTag(file, "MaxXInterpretation", FMaxXInterpretation)) < 1 ||
      (result = t.SaveBoolTag(file, "OnlyOneYAxis", FOnlyOneYAxis)) < 1 ||
      (result = t.SaveBoolTag(file, "ChangeGraphSimultaneously", FChangeGraphSimultaneously)) < 1 ||
      (result = t.SaveIntTag(file, "ScaleKindXAxis", FScaleKindXAxis)) < 1 ||
      (result = t.SaveBoolTag(file, "ShowAxisArrows", FShowAxisArrows)) < 1 ||
      (result = t.SaveDoubleTag(file, "MaxYList", maxY.data(), n)) < 1 ||
      (result = t.SaveDoubleTag(file, "MinYList", minY.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "LastXIndexList", xIndex.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "LastYIndexList", yIndex.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "GraphStyleList", style.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "GraphColorList", color.data(), n)) < 1 ||
      (result = t.SaveFloatTag(file, "GraphTransparencyList", transparency.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "GraphAuxColorList", auxColor.data(), n)) < 1 ||
      (result = t.SaveFloatTag(file, "GraphAuxTransparencyList", auxTransparency.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "GraphPointStyleList", pointStyle.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "GraphLineStyleList", lineStyle.data(), n)) < 1 ||
      (result = t.SaveFloatTag(file, "GraphLineWidthList", lineWidth.data(), n)) < 1 ||
      (result = t.SaveFloatTag(file, "GraphPointSizeList", pointSize.data(), n)) < 1 ||
      (result = t.SaveIntTag(file, "GraphScaleKindYAxisList", scaleKind.data(), n)) < 1 ||
      (result = t.SaveBoolTag(file, "PeakLabels", FPeakLabels)) < 1 ||
      (result = t.SaveBoolTag(file, "HistogramOverlap", FHistogramOverlap)) < 1 ||
      (result = t.SaveBoolTag(file, "HistogramShowWireFrame", FHistogramShowWireFrame)) < 1 ||
      (result = t.SaveBoolTag(file, "AutoZoomOutX", FAutoZoomOutX)) < 1 ||
      (result = t.SaveBoolTag(file, "AutoZoomOutY", FAutoZoomOutY)) < 1 ||
      (result = t.SaveBoolTag(file, "AutoZoomOut", FAutoZoomOut)) < 1 ||
      (result = t.SaveBoolTag(file, "SynchronizedZoom", FSynchronizedZoom)) < 1 ||
      (result = t.SaveBoolTag(file, "CascadeGraphs", FCascadeGraphs)) < 1 ||
      (result = t.SaveIntTag(file, "AKGraphIndex", FAKGraphIndex)) < 1 ||
      (result = t.SaveIntTag(file, "XGraphID", FXGraphID)) < 1 ||
      (result = t.SaveDoubleTag(file, "CascadeDistance", FCascadeDistance)) < 1)
    return result;
  // The peak finder: its search settings, the label options and the peaks added by hand (each with the
  // ID of its graph).
  std::vector<int32_t> peakGraphs;
  std::vector<const TPeakInformation*> peaks;
  for (const auto& [id, list] : FCustomPeaks)
    for (const TPeakInformation& peak : list) {
      peakGraphs.push_back(id);
      peaks.push_back(&peak);
    }
  TTagControl peakGroup, infos;
  if ((result = peakGroup.WriteTag(file, "PeakFindOptions", TTagKind::TagList)) < 1 ||
      (result = FPeakControl.SaveToTagFile(file)) < 1 ||
      (result = t.SaveBoolTag(file, "AutoFindPeaks", FPeakOptions.AutoFindPeaks)) < 1 ||
      (result = t.SaveBoolTag(file, "AllGraphs", FPeakOptions.AllGraphs)) < 1 ||
      (result = t.SaveBoolTag(file, "ShowLabels", FPeakOptions.ShowLabels)) < 1 ||
      (result = t.SaveBoolTag(file, "ShowPixelUnit", FPeakOptions.ShowPixelUnit)) < 1 ||
      (result = t.SaveBoolTag(file, "ShowVertical", FPeakOptions.ShowVertical)) < 1 ||
      (result = t.SaveIntTag(file, "LabelColor", static_cast<int32_t>(FPeakOptions.LabelColor))) < 1 ||
      (result = t.SaveIntTag(file, "CalculatedXUnitIndex", FCalculatedXUnitIndex)) < 1 ||
      (result = infos.WriteTag(file, "PeakInfos", TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "NumPeaks", static_cast<int32_t>(peaks.size()))) < 1 ||
      (result = t.SaveList(file, "PeakGraphIDList", peakGraphs)) < 1)
    return result;
  for (size_t i = 0; i < peaks.size(); ++i) {
    TTagControl one;
    if ((result = one.WriteTag(file, "Peak" + std::to_string(i), TTagKind::TagList)) < 1 ||
        (result = peaks[i]->SaveToTagFile(file)) < 1 || (result = one.CloseWriteTag(file)) < 1)
      return result;
  }
  if ((result = infos.CloseWriteTag(file)) < 1 || (result = peakGroup.CloseWriteTag(file)) < 1) return result;
  return group.CloseWriteTag(file);
}

TTagError TVMultiGraphForm::LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TVCustomForm::LoadViewerFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl group, t;
  if ((result = group.FindTag(file, kGroup, parent)) != teNoError) return result;
  TIntList ids;
  if ((result = t.LoadList(file, "GraphIDList", group, ids)) != teNoError) return result;
  if (ids.size() > static_cast<size_t>(kMaxGraphs)) return teUnspecificError;
  t.LoadOrDefaultIntTag(file, "XInterpretationID", group, &FXInterpretationID, 1, 0);
  t.LoadOrDefaultIntTag(file, "XCursorID", group, &FXCursorID, 1, 0);
  t.LoadOrDefaultIntTag(file, "SpaceCursorID", group, &FSpaceCursorID, 1, 0);
  t.LoadOrDefaultIntTag(file, "LastXUnitIndex", group, &FLastXUnitIndex, 1, 0);
  t.LoadOrDefaultDoubleTag(file, "MinXInterpretation", group, &FMinXInterpretation, 1, 0.0);
  t.LoadOrDefaultDoubleTag(file, "MaxXInterpretation", group, &FMaxXInterpretation, 1, 1.0);
  t.LoadOrDefaultBoolTag(file, "OnlyOneYAxis", group, &FOnlyOneYAxis, 1, false);
  t.LoadOrDefaultBoolTag(file, "ChangeGraphSimultaneously", group, &FChangeGraphSimultaneously, 1, true);
  t.LoadOrDefaultIntTag(file, "ScaleKindXAxis", group, &FScaleKindXAxis, 1, 0);
  t.LoadOrDefaultBoolTag(file, "ShowAxisArrows", group, &FShowAxisArrows, 1, false);
  const int64_t n = static_cast<int64_t>(ids.size());
  std::vector<int32_t> xIndex(ids.size()), yIndex(ids.size()), style(ids.size()), color(ids.size()),
      auxColor(ids.size()), pointStyle(ids.size()), lineStyle(ids.size()), scaleKind(ids.size());
  std::vector<double> maxY(ids.size(), 1.0), minY(ids.size(), 0.0);
  std::vector<float> transparency(ids.size()), auxTransparency(ids.size()), lineWidth(ids.size()),
      pointSize(ids.size());
  if (n > 0) {
    t.LoadOrDefaultDoubleTag(file, "MaxYList", group, maxY.data(), n, 1.0);
    t.LoadOrDefaultDoubleTag(file, "MinYList", group, minY.data(), n, 0.0);
    t.LoadOrDefaultIntTag(file, "LastXIndexList", group, xIndex.data(), n, 0);
    t.LoadOrDefaultIntTag(file, "LastYIndexList", group, yIndex.data(), n, 0);
    t.LoadOrDefaultIntTag(file, "GraphStyleList", group, style.data(), n, 0);
    t.LoadOrDefaultIntTag(file, "GraphColorList", group, color.data(), n, 0x0000FF);
    t.LoadOrDefaultFloatTag(file, "GraphTransparencyList", group, transparency.data(), n, 0.0f);
    t.LoadOrDefaultIntTag(file, "GraphAuxColorList", group, auxColor.data(), n, 0);
    t.LoadOrDefaultFloatTag(file, "GraphAuxTransparencyList", group, auxTransparency.data(), n, 0.0f);
    t.LoadOrDefaultIntTag(file, "GraphPointStyleList", group, pointStyle.data(), n, 0);
    t.LoadOrDefaultIntTag(file, "GraphLineStyleList", group, lineStyle.data(), n, 0);
    t.LoadOrDefaultFloatTag(file, "GraphLineWidthList", group, lineWidth.data(), n, 1.0f);
    t.LoadOrDefaultFloatTag(file, "GraphPointSizeList", group, pointSize.data(), n, 1.0f);
    t.LoadOrDefaultIntTag(file, "GraphScaleKindYAxisList", group, scaleKind.data(), n, 0);
  }
  t.LoadOrDefaultBoolTag(file, "PeakLabels", group, &FPeakLabels, 1, false);
  t.LoadOrDefaultBoolTag(file, "HistogramOverlap", group, &FHistogramOverlap, 1, false);
  t.LoadOrDefaultBoolTag(file, "HistogramShowWireFrame", group, &FHistogramShowWireFrame, 1, false);
  t.LoadOrDefaultBoolTag(file, "AutoZoomOutX", group, &FAutoZoomOutX, 1, false);
  t.LoadOrDefaultBoolTag(file, "AutoZoomOutY", group, &FAutoZoomOutY, 1, true);
  t.LoadOrDefaultBoolTag(file, "AutoZoomOut", group, &FAutoZoomOut, 1, true);
  t.LoadOrDefaultBoolTag(file, "SynchronizedZoom", group, &FSynchronizedZoom, 1, false);
  t.LoadOrDefaultBoolTag(file, "CascadeGraphs", group, &FCascadeGraphs, 1, false);
  t.LoadOrDefaultIntTag(file, "AKGraphIndex", group, &FAKGraphIndex, 1, 0);
  t.LoadOrDefaultIntTag(file, "XGraphID", group, &FXGraphID, 1, 0);
  t.LoadOrDefaultDoubleTag(file, "CascadeDistance", group, &FCascadeDistance, 1, 0.2);
  FCustomPeaks.clear();
  TTagControl peakGroup;
  if (peakGroup.FindTag(file, "PeakFindOptions", group) == teNoError) {
    FPeakControl.LoadFromTagFile(file, peakGroup);
    t.LoadOrDefaultBoolTag(file, "AutoFindPeaks", peakGroup, &FPeakOptions.AutoFindPeaks, 1, true);
    t.LoadOrDefaultBoolTag(file, "AllGraphs", peakGroup, &FPeakOptions.AllGraphs, 1, true);
    t.LoadOrDefaultBoolTag(file, "ShowLabels", peakGroup, &FPeakOptions.ShowLabels, 1, true);
    t.LoadOrDefaultBoolTag(file, "ShowPixelUnit", peakGroup, &FPeakOptions.ShowPixelUnit, 1, false);
    t.LoadOrDefaultBoolTag(file, "ShowVertical", peakGroup, &FPeakOptions.ShowVertical, 1, false);
    int32_t color = static_cast<int32_t>(FPeakOptions.LabelColor);
    t.LoadOrDefaultIntTag(file, "LabelColor", peakGroup, &color, 1, color);
    FPeakOptions.LabelColor = static_cast<uint32_t>(color) & 0x00FFFFFF;
    t.LoadOrDefaultIntTag(file, "CalculatedXUnitIndex", peakGroup, &FCalculatedXUnitIndex, 1, 0);
    TTagControl infos;
    if (infos.FindTag(file, "PeakInfos", peakGroup) == teNoError) {
      int32_t count = 0;
      t.LoadOrDefaultIntTag(file, "NumPeaks", infos, &count, 1, 0);
      TIntList graphs;
      t.LoadList(file, "PeakGraphIDList", infos, graphs);
      for (int32_t i = 0; i < count && i < static_cast<int32_t>(graphs.size()); ++i) {
        TTagControl one;
        if (one.FindTag(file, "Peak" + std::to_string(i), infos) != teNoError) continue;
        TPeakInformation peak;
        peak.LoadFromTagFile(file, one);
        peak.IsCustomPeak = true;
        FCustomPeaks[graphs[static_cast<size_t>(i)]].push_back(peak);
      }
    }
  }
  SyncPeakCFI();
  FGraphs.clear();
  for (size_t i = 0; i < ids.size(); ++i) {
    TGraphDrawInformation info;
    info.GraphID = ids[i];
    info.MaxY = SafeDoubleToFloat(maxY[i]);
    info.MinY = SafeDoubleToFloat(minY[i]);
    info.ColumnIndex = xIndex[i];
    info.LineIndex = yIndex[i];
    info.GraphStyle = static_cast<TGraphViewerStyle>(std::clamp(style[i], 0, 3));
    info.LineColor = static_cast<uint32_t>(color[i]) & 0x00FFFFFF;
    info.Transparency = transparency[i];
    info.AuxColor = static_cast<uint32_t>(auxColor[i]) & 0x00FFFFFF;
    info.AuxTransparency = auxTransparency[i];
    info.PointStyle = pointStyle[i];
    info.LineStyle = lineStyle[i];
    info.LineWidth = lineWidth[i];
    info.PointSize = pointSize[i];
    info.ScaleKindYAxis = scaleKind[i] == 1 ? 1 : 0;
    info.OldVersionToCurrent();
    FGraphs.push_back(std::move(info));
  }
  FColorCount = GetGraphCount();
  if (FAKGraphIndex < 0 || FAKGraphIndex >= std::max(1, GetGraphCount())) FAKGraphIndex = 0;
  FScenes.clear();
  for (size_t i = 0; i < FGraphs.size(); ++i) FScenes.push_back(std::make_unique<TGraphScene>());
  FLoaded = true;
  return teNoError;
}

// --- Project bookkeeping --------------------------------------------------------------------------------

void TVMultiGraphForm::DoDataUpdate() {
  // After a load or a renumbering: the ranges stay as stored; the spectra and the scene are made anew.
  TGraphicUpdateGuard guard(*this);
  ConnectCursors(false); // a loaded project is shown as it is: cursors are found, not made
  if (TDInterpretation* own = FindXInterpretation()) {
    if (FLastXUnitIndex >= 0 && FLastXUnitIndex < own->GetNumberOfUnits() &&
        own->GetUnitIndex() != FLastXUnitIndex) {
      own->SetAutoDataChange(false);
      own->SetUnitIndex(FLastXUnitIndex);
      own->SetAutoDataChange(true);
    }
  }
  RebuildGraphScenes();
  SetAll();
  FLoaded = false;
}

bool TVMultiGraphForm::IsDataUsed(int32_t id) const {
  if (id == 0) return false;
  if (id == FXInterpretationID || id == FXCursorID || id == FSpaceCursorID || id == FXGraphID) return true;
  return IsGraphInViewer(id);
}

void TVMultiGraphForm::AddToID(int32_t delta) {
  for (auto& info : FGraphs) TData::SafeAddToDataID(info.GraphID, delta);
  RenumberKeys([delta](int32_t id) {
    TData::SafeAddToDataID(id, delta);
    return id;
  });
  TData::SafeAddToDataID(FXInterpretationID, delta);
  TData::SafeAddToDataID(FXCursorID, delta);
  TData::SafeAddToDataID(FSpaceCursorID, delta);
  TData::SafeAddToDataID(FXGraphID, delta);
}

void TVMultiGraphForm::ExchangeID(int32_t oldID, int32_t newID) {
  if (oldID == 0) return;
  for (auto& info : FGraphs)
    if (info.GraphID == oldID) info.GraphID = newID;
  RenumberKeys([oldID, newID](int32_t id) { return id == oldID ? newID : id; });
  if (FXInterpretationID == oldID) FXInterpretationID = newID;
  if (FXCursorID == oldID) FXCursorID = newID;
  if (FSpaceCursorID == oldID) FSpaceCursorID = newID;
  if (FXGraphID == oldID) FXGraphID = newID;
}

void TVMultiGraphForm::SpaceCursorChanged() {
  if (GetGraphCount() == 0) return;
  TGraphicUpdateGuard guard(*this);
  for (int32_t i = 0; i < GetGraphCount(); ++i)
    if (FChangeGraphSimultaneously || i == FAKGraphIndex) FetchSpectrum(i);
  SpectraChanged();
  if (!CheckAndDoAutomaticZoom()) {
    CalculateCascadeValues();
    LayoutScene();
  }
  UpdateStatus();
  SyncCFI();
}

void TVMultiGraphForm::DataChanged(TData* data, TDataChangeInfo info) {
  if (!data || data->GetID() == 0) return;
  const int32_t id = data->GetID();
  const bool gone = info == TDataChangeInfo::Removed || info == TDataChangeInfo::AboutToBeDeleted;
  if (IsGraphInViewer(id)) {
    if (gone) {
      DeleteGraphByID(id);
    } else if (info == TDataChangeInfo::DataChanged) {
      // New values: spectra and x values anew, then the automatic zoom on them.
      TGraphicUpdateGuard guard(*this);
      SetAll();
      if (CheckAndDoAutomaticZoom()) SyncCFI();
    } else if (info == TDataChangeInfo::CaptionChanged) {
      UpdateCaption();
    }
    return;
  }
  if (id == FSpaceCursorID) {
    if (gone)
      FSpaceCursorID = 0;
    else if (info == TDataChangeInfo::DataChanged)
      SpaceCursorChanged();
    return;
  }
  if (id == FXCursorID) {
    if (gone) FXCursorID = 0;
    UpdateCursorMarker();
    UpdateStatus();
    return;
  }
  if (id == FXInterpretationID) {
    if (gone) {
      FXInterpretationID = 0;
      SetAll();
    } else if (info == TDataChangeInfo::DataChanged) {
      XInterpretationChanged();
    }
    return;
  }
  if (gone || info != TDataChangeInfo::DataChanged) return;
  // A transformation or interpretation of a shown graph changed: x values and positions anew.
  for (int32_t i = 0; i < GetGraphCount(); ++i)
    if (const TDGraph* graph = FindGraph(i);
        graph && (graph->GetXTransformationID() == id || graph->GetSpaceTransformationID() == id ||
                  graph->GetZInterpretationID() == id || graph->GetXInterpretationID() == id)) {
      SetAll();
      return;
    }
}

void TVMultiGraphForm::RenumberKeys(const std::function<int32_t(int32_t)>& renumber) {
  std::map<int32_t, TPeakInformationList> peaks;
  for (auto& [id, list] : FCustomPeaks) peaks[renumber(id)] = std::move(list);
  FCustomPeaks = std::move(peaks);
  std::map<std::pair<int32_t, int>, std::vector<bool>> masks;
  for (auto& [key, flags] : FMultiMasks) masks[{renumber(key.first), key.second}] = std::move(flags);
  FMultiMasks = std::move(masks);
}

void TVMultiGraphForm::BeforeClearProject() {
  FCustomPeaks.clear();
  FMultiMasks.clear();
  if (FMaskTool == FOwnMask.get()) FMaskTool = nullptr;
  FOwnMask.reset();
  FGraphs.clear();
  TGraphicUpdateGuard guard(*this);
  RebuildGraphScenes();
  FScenes.clear();
  FXInterpretationID = FXCursorID = FSpaceCursorID = FXGraphID = 0;
}

void TVMultiGraphForm::UpdateCaption() {
  std::string caption = kCaption;
  if (const TDGraph* graph = FindGraph(FAKGraphIndex)) {
    caption += " - " + graph->GetCaption();
    if (GetGraphCount() > 1) caption += " (+" + std::to_string(GetGraphCount() - 1) + ")";
  }
  SetFormCaption(caption);
}

void TVMultiGraphForm::Changed() {
  if (TProject* project = GetProject()) project->ProjectChangedForSave(this);
  Redraw();
}

std::vector<TOpenGLGraph*> TVMultiGraphForm::GetCurveSegments(int32_t index) const {
  std::vector<TOpenGLGraph*> segments;
  if (index < 0 || index >= GetGraphCount()) return segments;
  for (TOpenGLGraph* curve : FScenes[static_cast<size_t>(index)]->Lines)
    if (curve->GetVisible()) segments.push_back(curve);
  for (TOpenGLGraph* curve : FScenes[static_cast<size_t>(index)]->Symbols)
    if (curve->GetVisible()) segments.push_back(curve);
  return segments;
}

// --- Mouse mode -----------------------------------------------------------------------------------------

void TVMultiGraphForm::SetGraphMouseMode(TGraphMouseMode mode) {
  FMouseMode = mode;
  SyncCFI();
  UpdateStatus();
  Redraw();
}

void TVMultiGraphForm::SetMaskErase(bool erase) {
  FMaskErase = erase;
  UpdateStatus();
}

void TVMultiGraphForm::ResetGraphMouseMode() {
  SetGraphMouseMode(FMaskTool && FMaskKeepsMode ? TGraphMouseMode::Mask : TGraphMouseMode::Cursor);
}

// --- Peaks ----------------------------------------------------------------------------------------------

namespace {

enum TPeakParameterId : int32_t {
  kPositivePeaks = 1,
  kNegativePeaks,
  kUseMinAbsoluteHeight,
  kMinAbsoluteHeight,
  kUseMaxAbsoluteHeight,
  kMaxAbsoluteHeight,
  kUseMinRelativeHeight,
  kMinRelativeHeight,
  kAutoFindPeaks,
  kAllGraphs,
  kLabelUnit,
  kShowLabels,
  kLabelOrientation,
  kDigits,
  kLineLength,
  kLabelColor,
  kFindPeaksNow,
  kPeakX,
  kPeakY,
  kAddPeak,
  kPeakList,
  kDeletePeak,
  kExtractPeakTable,
  kSmoothing,
  kNoiseFactor,
};

std::string FormatFixed(double value, int digits) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.*f", std::clamp(digits, 0, 8), value);
  return buffer;
}

/// The x value at a (fractional) pixel position, linear between points.
double XOfPixelPosition(const std::vector<double>& x, double pixel) {
  if (x.empty() || !std::isfinite(pixel)) return pixel;
  if (x.size() == 1) return x[0];
  const double p = std::clamp(pixel, 0.0, double(x.size() - 1));
  const size_t i = std::min(static_cast<size_t>(p), x.size() - 2);
  return x[i] + (x[i + 1] - x[i]) * (p - double(i));
}

std::string ColorText(uint32_t bgr) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "#%02X%02X%02X", bgr & 0xFF, (bgr >> 8) & 0xFF, (bgr >> 16) & 0xFF);
  return buffer;
}

bool ParseColorText(const std::string& text, uint32_t& bgr) {
  unsigned r = 0, g = 0, b = 0;
  char end = 0;
  if (text.size() != 7 || std::sscanf(text.c_str(), "#%2x%2x%2x%c", &r, &g, &b, &end) != 3) return false;
  bgr = r | (g << 8) | (b << 16);
  return true;
}

} // namespace

void TVMultiGraphForm::CreatePeakCFI() {
  FPeakCFI = std::make_unique<TUserParameterAdministrator>();
  TUserParameterAdministrator& cfi = *FPeakCFI;
  // The heights on the panel: "Min Relative Height:" starts switched on at 0.
  FPeakControl.UseMinRelativePeakValueLimit = true;
  FPeakControl.MinRelativePeakValueLimit = 0;
  cfi.Add<TUserBoolParameter>(kPositivePeaks, "PositivePeaks", "Positive Peaks", "Search maxima", true)
      ->TrueFalseStrings("On", "Off");
  cfi.Add<TUserBoolParameter>(kNegativePeaks, "NegativePeaks", "Negative Peaks", "Search minima", false)
      ->TrueFalseStrings("On", "Off");
  auto pair = [&](int32_t useId, const char* useName, const char* caption, int32_t valueId,
                  const char* valueName, bool on, const char* description) {
    cfi.Add<TUserBoolParameter>(useId, useName, caption, description, on)->TrueFalseStrings("On", "Off");
    // The value's row names the limit without the colon of its switch.
    std::string valueCaption = caption;
    if (!valueCaption.empty() && valueCaption.back() == ':') valueCaption.pop_back();
    auto* value = cfi.Add<TUserDoubleParameter>(valueId, valueName, valueCaption, description, 0.0);
    value->SetFloatStyle(TFloatFormat::General, 8);
  };
  pair(kUseMinAbsoluteHeight, "UseMinAbsoluteHeight", "Min Absolute Height:", kMinAbsoluteHeight,
       "MinAbsoluteHeight", false, "Peaks lower than this (smoothed data) are left out");
  pair(kUseMaxAbsoluteHeight, "UseMaxAbsoluteHeight", "Max Absolute Height:", kMaxAbsoluteHeight,
       "MaxAbsoluteHeight", false, "Peaks higher than this (smoothed data) are left out");
  pair(kUseMinRelativeHeight, "UseMinRelativeHeight", "Min Relative Height:", kMinRelativeHeight,
       "MinRelativeHeight", true, "Peaks that rise less than this above their surroundings are left out");
  // Broad bands on a noisy spectrum need more smoothing than the default before their maxima are found.
  auto* smoothing = cfi.Add<TUserListParameter>(kSmoothing, "Smoothing", "Smoothing",
                                                "How the spectrum is smoothed before the search", 2);
  smoothing->AddListEntry("None", 0);
  smoothing->AddListEntry("Savitzky-Golay", 1);
  smoothing->AddListEntry("Wavelet", 2);
  auto* noise = cfi.Add<TUserDoubleParameter>(kNoiseFactor, "NoiseFactor", "Noise Factor",
                                              "Strength of the wavelet smoothing", 0.5);
  noise->SetLimits(0.0, 100.0);
  noise->SetFloatStyle(TFloatFormat::General, 6);
  cfi.Add<TUserBoolParameter>(kAutoFindPeaks, "AutoFindPeaks", "Auto Find Peaks",
                              "Search again whenever the spectrum changes", true)
      ->TrueFalseStrings("On", "Off");
  cfi.Add<TUserBoolParameter>(kAllGraphs, "AllGraphs", "All Graphs", "Search every graph shown", true)
      ->TrueFalseStrings("On", "Off");
  auto* unit = cfi.Add<TUserListParameter>(kLabelUnit, "LabelUnit", "Label Unit", "What the labels give", 0);
  unit->AddListEntry("Real Unit", 0);
  unit->AddListEntry("Pixel Number", 1);
  cfi.Add<TUserBoolParameter>(kShowLabels, "ShowLabels", "Show Labels", "Label the peaks", true)
      ->TrueFalseStrings("On", "Off");
  auto* orientation = cfi.Add<TUserListParameter>(kLabelOrientation, "LabelOrientation", "Labels",
                                                  "Horizontal or vertical label texts", 0);
  orientation->AddListEntry("Horizontal", 0);
  orientation->AddListEntry("Vertical", 1);
  auto* digits = cfi.Add<TUserIntParameter>(kDigits, "Digits", "Digits:", "Digits after the point", 2);
  digits->SetLimits(0, 8);
  auto* length = cfi.Add<TUserIntParameter>(kLineLength, "LineLength",
                                            "Line Length:", "Length of the label lines in pixels", 40);
  length->SetLimits(0, 200);
  cfi.Add<TUserStringParameter>(kLabelColor, "LabelColor", "Label Color", "Colour of the labels (#RRGGBB)",
                                ColorText(FPeakOptions.LabelColor));
  cfi.Add<TUserTriggerParameter>(kFindPeaksNow, "FindPeaks", "Find Peaks", "Search the shown spectra now");
  auto* px =
      cfi.Add<TUserDoubleParameter>(kPeakX, "PeakX", "Peak X", "Position of a peak to add (x unit)", 0.0);
  px->SetFloatStyle(TFloatFormat::General, 10);
  auto* py = cfi.Add<TUserDoubleParameter>(kPeakY, "PeakY", "Peak Y", "Height of a peak to add", 0.0);
  py->SetFloatStyle(TFloatFormat::General, 10);
  cfi.Add<TUserTriggerParameter>(kAddPeak, "AddPeak", "Add Peak ...", "Adds a peak at Peak X, Peak Y");
  cfi.Add<TUserListParameter>(kPeakList, "Peak", "Peak", "The peaks of the active graph", 0);
  cfi.Add<TUserTriggerParameter>(kDeletePeak, "DeletePeak", "Delete Peak ...", "Deletes the chosen peak");
  cfi.Add<TUserTriggerParameter>(kExtractPeakTable, "ExtractPeakTable", "Extract Peak Table",
                                 "Makes a text object with the table of the peaks");
  cfi.AllParameterListChanged();
  cfi.OnParameterChanged = [this](const TUserParameterList& changed, bool /*internal*/) {
    PeakCFIChanged(changed);
  };
  cfi.OnValidateParameters = [](const TUserParameterAdministrator& administrator) {
    TUserParameterProblems problems;
    uint32_t color = 0;
    const auto* text = administrator.GetUserStringParameter(kLabelColor);
    if (text && !ParseColorText(text->GetParameter(), color))
      problems.push_back({"LabelColor", "the label colour '" + text->GetParameter() +
                                            "' is no colour: give it as #RRGGBB, e.g. #7828C8"});
    return problems;
  };
  SyncPeakCFI();
}

std::string TVMultiGraphForm::GetPeakPanelCaption() const {
  const TDGraph* graph = FindGraph(FAKGraphIndex);
  return "Peak Options (" + (graph ? graph->GetCaption() : std::string()) + ")";
}

void TVMultiGraphForm::PeakCFIChanged(const TUserParameterList& changed) {
  if (FSyncingPeakCFI) return;
  TUserParameterAdministrator& cfi = *FPeakCFI;
  auto flag = [&](int32_t id) { return cfi.GetUserBoolParameter(id)->GetParameter(); };
  auto number = [&](int32_t id) {
    return dynamic_cast<TUserDoubleParameter*>(cfi.GetUserParameter(id))->GetParameter();
  };
  bool search = false, labels = false;
  for (TUserParameter* p : changed) {
    switch (p->GetId()) {
    case kPositivePeaks:
    case kNegativePeaks:
    case kUseMinAbsoluteHeight:
    case kMinAbsoluteHeight:
    case kUseMaxAbsoluteHeight:
    case kMaxAbsoluteHeight:
    case kUseMinRelativeHeight:
    case kMinRelativeHeight:
    case kAllGraphs:
    case kAutoFindPeaks:
    case kSmoothing:
    case kNoiseFactor:
      search = true;
      break;
    case kLabelUnit:
    case kShowLabels:
    case kLabelOrientation:
    case kDigits:
    case kLineLength:
    case kLabelColor:
      labels = true;
      break;
    case kFindPeaksNow:
      FindAllPeaks();
      break;
    case kAddPeak:
      AddPeak(number(kPeakX), number(kPeakY));
      break;
    case kDeletePeak:
      DeletePeak(cfi.GetUserListParameter(kPeakList)->GetParameter());
      break;
    case kExtractPeakTable:
      ExtractPeakTable();
      break;
    default:
      break;
    }
  }
  FPeakControl.CalculatePositivePeaks = flag(kPositivePeaks);
  FPeakControl.CalculateNegativePeaks = flag(kNegativePeaks);
  FPeakControl.UseMinPeakValueLimit = flag(kUseMinAbsoluteHeight);
  FPeakControl.MinPeakValueLimit = number(kMinAbsoluteHeight);
  FPeakControl.UseMaxPeakValueLimit = flag(kUseMaxAbsoluteHeight);
  FPeakControl.MaxPeakValueLimit = number(kMaxAbsoluteHeight);
  FPeakControl.UseMinRelativePeakValueLimit = flag(kUseMinRelativeHeight);
  FPeakControl.MinRelativePeakValueLimit = number(kMinRelativeHeight);
  FPeakControl.SmoothKind = cfi.GetUserListParameter(kSmoothing)->GetParameter();
  FPeakControl.WaveletNoiseFactor = number(kNoiseFactor);
  FPeakOptions.AutoFindPeaks = flag(kAutoFindPeaks);
  FPeakOptions.AllGraphs = flag(kAllGraphs);
  FPeakOptions.ShowPixelUnit = cfi.GetUserListParameter(kLabelUnit)->GetParameter() == 1;
  FPeakOptions.ShowLabels = flag(kShowLabels);
  FPeakOptions.ShowVertical = cfi.GetUserListParameter(kLabelOrientation)->GetParameter() == 1;
  FPeakOptions.Digits = cfi.GetUserIntParameter(kDigits)->GetParameter();
  FPeakOptions.LineLength = cfi.GetUserIntParameter(kLineLength)->GetParameter();
  ParseColorText(cfi.GetUserStringParameter(kLabelColor)->GetParameter(), FPeakOptions.LabelColor);
  if (search && FPeakOptions.AutoFindPeaks) {
    FindAllPeaks();
  } else if (labels || search) {
    TGraphicUpdateGuard guard(*this);
    UpdatePeakLabels();
    UpdateStatus();
  }
  Changed();
}

void TVMultiGraphForm::SyncPeakCFI() {
  if (!FPeakCFI || FSyncingPeakCFI) return;
  FSyncingPeakCFI = true;
  TUserParameterAdministrator& cfi = *FPeakCFI;
  auto setBool = [&](int32_t id, bool value) { cfi.GetUserBoolParameter(id)->SetParameterSilent(value); };
  auto setDouble = [&](int32_t id, double value) {
    dynamic_cast<TUserDoubleParameter*>(cfi.GetUserParameter(id))->SetParameterSilent(value);
  };
  setBool(kPositivePeaks, FPeakControl.CalculatePositivePeaks);
  setBool(kNegativePeaks, FPeakControl.CalculateNegativePeaks);
  setBool(kUseMinAbsoluteHeight, FPeakControl.UseMinPeakValueLimit);
  setDouble(kMinAbsoluteHeight, FPeakControl.MinPeakValueLimit);
  setBool(kUseMaxAbsoluteHeight, FPeakControl.UseMaxPeakValueLimit);
  setDouble(kMaxAbsoluteHeight, FPeakControl.MaxPeakValueLimit);
  setBool(kUseMinRelativeHeight, FPeakControl.UseMinRelativePeakValueLimit);
  setDouble(kMinRelativeHeight, FPeakControl.MinRelativePeakValueLimit);
  cfi.GetUserListParameter(kSmoothing)->SetParameterSilent(FPeakControl.SmoothKind);
  setDouble(kNoiseFactor, FPeakControl.WaveletNoiseFactor);
  setBool(kAutoFindPeaks, FPeakOptions.AutoFindPeaks);
  setBool(kAllGraphs, FPeakOptions.AllGraphs);
  cfi.GetUserListParameter(kLabelUnit)->SetParameterSilent(FPeakOptions.ShowPixelUnit ? 1 : 0);
  setBool(kShowLabels, FPeakOptions.ShowLabels);
  cfi.GetUserListParameter(kLabelOrientation)->SetParameterSilent(FPeakOptions.ShowVertical ? 1 : 0);
  cfi.GetUserIntParameter(kDigits)->SetParameterSilent(FPeakOptions.Digits);
  cfi.GetUserIntParameter(kLineLength)->SetParameterSilent(FPeakOptions.LineLength);
  cfi.GetUserStringParameter(kLabelColor)->SetParameterSilent(ColorText(FPeakOptions.LabelColor));
  auto* list = cfi.GetUserListParameter(kPeakList);
  const std::vector<std::string> peaks = GetPeakDescriptions();
  if (list->GetDescriptions() != peaks) {
    list->ClearAllEntries();
    for (size_t i = 0; i < peaks.size(); ++i) list->AddListEntry(peaks[i], static_cast<int32_t>(i));
  }
  if (list->GetParameter() >= static_cast<int32_t>(peaks.size())) list->SetParameterSilent(0);
  cfi.GetUserParameter(kDeletePeak)->SetEnabled(!peaks.empty());
  cfi.GetUserParameter(kExtractPeakTable)->SetEnabled(GetNumberOfPeaks() > 0);
  FSyncingPeakCFI = false;
}

void TVMultiGraphForm::PeakOptionsChanged() {
  SyncPeakCFI();
  if (FPeakLabels && FPeakOptions.AutoFindPeaks) {
    FindAllPeaks();
  } else {
    TGraphicUpdateGuard guard(*this);
    UpdatePeakLabels();
    UpdateStatus();
  }
  Changed();
}

void TVMultiGraphForm::SetPeakLabels(bool value) {
  if (FPeakLabels == value) return;
  FPeakLabels = value;
  TGraphicUpdateGuard guard(*this);
  if (value) {
    for (int32_t i = 0; i < GetGraphCount(); ++i) FindPeak(i);
  } else {
    for (auto& scene : FScenes) scene->Peaks.clear();
  }
  // The room above the curves for the labels comes and goes with them (through the automatic zoom; a
  // range the user set stays).
  if (!CheckAndDoAutomaticZoom()) {
    CalculateCascadeValues();
    LayoutScene();
  }
  UpdateStatus();
  SyncCFI();
  SyncPeakCFI();
  Changed();
}

bool TVMultiGraphForm::FindPeak(int32_t index) {
  if (index < 0 || index >= GetGraphCount()) return false;
  TGraphScene& scene = *FScenes[static_cast<size_t>(index)];
  scene.Peaks.clear();
  const bool searched = FPeakOptions.AllGraphs || index == FAKGraphIndex;
  bool found = false;
  if (searched && scene.HasSpectrum && scene.Spectrum.size() >= 6) {
    // The x spline of the search runs in the viewer's unit, so that positions come out as shown.
    std::vector<float> x(scene.Spectrum.size());
    for (size_t i = 0; i < x.size(); ++i)
      x[i] = static_cast<float>(i < scene.X.size() ? scene.X[i] : double(i));
    // Values that are not finite break the splines: such a spectrum has no peaks.
    bool finite = true;
    for (float v : scene.Spectrum) finite = finite && std::isfinite(v);
    if (finite && FPeakFinder.Prepare(&FPeakControl, static_cast<int>(x.size()), x.data(), nullptr) &&
        FPeakFinder.FindPeaks(scene.Spectrum.data())) {
      scene.Peaks = FPeakFinder.GetPeakInformationList();
      found = true;
    }
    FCalculatedXUnitIndex = GetXUnitIndex();
  }
  // Peaks added by hand stay, whatever the search found.
  if (auto it = FCustomPeaks.find(FGraphs[static_cast<size_t>(index)].GraphID); it != FCustomPeaks.end()) {
    for (TPeakInformation peak : it->second) {
      peak.PeakXPosition = XOfPixelPosition(scene.X, peak.PeakPixelPosition);
      scene.Peaks.push_back(peak);
    }
    std::stable_sort(scene.Peaks.begin(), scene.Peaks.end(),
                     [](const TPeakInformation& a, const TPeakInformation& b) {
                       return a.PeakPixelPosition < b.PeakPixelPosition;
                     });
  }
  return found;
}

void TVMultiGraphForm::FindAllPeaks() {
  TGraphicUpdateGuard guard(*this);
  for (int32_t i = 0; i < GetGraphCount(); ++i) {
    if (FPeakLabels)
      FindPeak(i);
    else
      FScenes[static_cast<size_t>(i)]->Peaks.clear();
  }
  UpdatePeakLabels();
  UpdateStatus();
  SyncPeakCFI();
  Redraw();
}

void TVMultiGraphForm::SpectraChanged() {
  if (!FPeakLabels) return;
  if (FPeakOptions.AutoFindPeaks) {
    for (int32_t i = 0; i < GetGraphCount(); ++i) FindPeak(i);
  }
  SyncPeakCFI();
}

const TPeakInformationList& TVMultiGraphForm::GetPeaks(int32_t index) const {
  static const TPeakInformationList kNone;
  if (index < 0 || index >= GetGraphCount()) return kNone;
  return FScenes[static_cast<size_t>(index)]->Peaks;
}

int32_t TVMultiGraphForm::GetNumberOfPeaks() const {
  size_t n = 0;
  for (const auto& scene : FScenes) n += scene->Peaks.size();
  return static_cast<int32_t>(n);
}

int32_t TVMultiGraphForm::PointOfX(int32_t index, double x) const {
  const std::vector<double>& xs = GetXValues(index);
  int32_t best = -1;
  double distance = std::numeric_limits<double>::infinity();
  for (size_t i = 0; i < xs.size(); ++i)
    if (std::fabs(xs[i] - x) < distance) {
      distance = std::fabs(xs[i] - x);
      best = static_cast<int32_t>(i);
    }
  return best;
}

double TVMultiGraphForm::PixelPositionOfX(int32_t index, double x) const {
  const std::vector<double>& xs = GetXValues(index);
  if (xs.empty() || !std::isfinite(x)) return kNaN;
  if (xs.size() == 1) return x == xs[0] ? 0.0 : kNaN;
  for (size_t i = 0; i + 1 < xs.size(); ++i) {
    const double a = xs[i], b = xs[i + 1];
    if ((x >= std::min(a, b) && x <= std::max(a, b))) return a == b ? double(i) : i + (x - a) / (b - a);
  }
  return kNaN;
}

bool TVMultiGraphForm::AddPeak(double x, double y) {
  if (FAKGraphIndex >= GetGraphCount() || !HasSpectrum(FAKGraphIndex) || !std::isfinite(y)) return false;
  const double pixel = PixelPositionOfX(FAKGraphIndex, x);
  if (!std::isfinite(pixel)) return false;
  TPeakInformation peak;
  peak.IsCustomPeak = true;
  peak.PeakPixelPosition = pixel;
  peak.PeakXPosition = x;
  peak.OriginalPeakAbsoluteHeight = y;
  peak.SmoothedPeakAbsoluteHeight = y;
  FCustomPeaks[FGraphs[static_cast<size_t>(FAKGraphIndex)].GraphID].push_back(peak);
  if (!FPeakLabels) {
    SetPeakLabels(true);
    return true;
  }
  FindAllPeaks();
  Changed();
  return true;
}

std::vector<std::string> TVMultiGraphForm::GetPeakDescriptions() const {
  std::vector<std::string> list;
  if (FAKGraphIndex >= GetGraphCount()) return list;
  const int digits = FPeakOptions.Digits;
  for (const TPeakInformation& peak : FScenes[static_cast<size_t>(FAKGraphIndex)]->Peaks) {
    std::string text = FPeakOptions.ShowPixelUnit
                           ? FormatFixed(peak.PeakPixelPosition, digits) + " px"
                           : FormatFixed(peak.PeakXPosition, digits) + " " + GetXUnitName();
    text += ": " + FormatNumber(peak.OriginalPeakAbsoluteHeight);
    if (peak.IsCustomPeak) text += " (added)";
    list.push_back(text);
  }
  return list;
}

bool TVMultiGraphForm::DeletePeak(int32_t index) {
  if (FAKGraphIndex >= GetGraphCount()) return false;
  TPeakInformationList& peaks = FScenes[static_cast<size_t>(FAKGraphIndex)]->Peaks;
  if (index < 0 || index >= static_cast<int32_t>(peaks.size())) return false;
  const TPeakInformation peak = peaks[static_cast<size_t>(index)];
  peaks.erase(peaks.begin() + index);
  if (peak.IsCustomPeak) {
    // A peak added by hand goes for good.
    TPeakInformationList& custom = FCustomPeaks[FGraphs[static_cast<size_t>(FAKGraphIndex)].GraphID];
    for (auto it = custom.begin(); it != custom.end(); ++it)
      if (it->PeakPixelPosition == peak.PeakPixelPosition &&
          it->OriginalPeakAbsoluteHeight == peak.OriginalPeakAbsoluteHeight) {
        custom.erase(it);
        break;
      }
  }
  TGraphicUpdateGuard guard(*this);
  UpdatePeakLabels();
  UpdateStatus();
  SyncPeakCFI();
  Changed();
  return true;
}

std::string TVMultiGraphForm::GetPeakTableText(int32_t index) const {
  if (index < 0 || index >= GetGraphCount()) return "";
  const TGraphDrawInformation& info = FGraphs[static_cast<size_t>(index)];
  const std::string unit = GetXUnitName();
  std::string text = "# x\ty\tpixel\tposition [" + unit +
                     "]\theight\tsmoothedHeight\tfwhm\trelativeHeight\tasymmetry\tnegative\tcustom\n";
  char line[512];
  for (const TPeakInformation& p : GetPeaks(index)) {
    std::snprintf(line, sizeof line, "%d\t%d\t%.6f\t%.9g\t%.9g\t%.9g\t%.9g\t%.9g\t%.9g\t%d\t%d\n",
                  info.ColumnIndex, info.LineIndex, p.PeakPixelPosition, p.PeakXPosition,
                  p.OriginalPeakAbsoluteHeight, p.SmoothedPeakAbsoluteHeight, p.PeakFWHM,
                  p.PeakRelativeHeight, p.FWHMAsymmetryFactor, p.IsNegativePeak ? 1 : 0,
                  p.IsCustomPeak ? 1 : 0);
    text += line;
  }
  return text;
}

std::vector<int32_t> TVMultiGraphForm::ExtractPeakTable() {
  std::vector<int32_t> ids;
  TProject* project = GetProject();
  if (!project) return ids;
  for (int32_t i = 0; i < GetGraphCount(); ++i) {
    const TDGraph* graph = FindGraph(i);
    if (!graph || GetPeaks(i).empty()) continue;
    auto text = std::make_unique<TDText>();
    text->SetID(project->GetNewDataID());
    text->SetCaption("Peak Table (" + graph->GetCaption() + ")");
    text->SetText(GetPeakTableText(i));
    ids.push_back(text->GetID());
    project->AddData(std::move(text));
  }
  return ids;
}

void TVMultiGraphForm::UpdatePeakLabels() {
  if (!FPeakHolder) return;
  FPeakHolder->ClearObjects();
  FPeakLabelList.clear();
  if (!FPeakLabels || !FPeakOptions.ShowLabels) return;
  const TOpenGLView& view = GetOpenGLView();
  const double left = kMarginLeft, right = view.GetWidth() - kMarginRight;
  const TOpenGLColor color = ColorOf(FPeakOptions.LabelColor);
  const double gap = 4, length = FPeakOptions.LineLength;
  const double bottom = kMarginBottom, top = view.GetHeight() - kMarginTop;
  constexpr double kLabelTextRoom = 16; // pixels for a horizontal label's text
  // The first kMaxPeakLabels peaks, graph after graph in the viewer's order.
  for (int32_t g = 0; g < GetGraphCount() && int32_t(FPeakLabelList.size()) < kMaxPeakLabels; ++g) {
    const TPeakInformationList& peaks = FScenes[static_cast<size_t>(g)]->Peaks;
    for (size_t k = 0; k < peaks.size() && int32_t(FPeakLabelList.size()) < kMaxPeakLabels; ++k) {
      const TPeakInformation& peak = peaks[k];
      const double wx = XToWindow(peak.PeakXPosition);
      const double wy = YToWindow(g, peak.OriginalPeakAbsoluteHeight);
      if (!std::isfinite(wx) || !std::isfinite(wy) || wx < left || wx > right) continue;
      TGraphPeakLabel label;
      label.GraphIndex = g;
      label.PeakIndex = static_cast<int32_t>(k);
      label.X = wx;
      label.Y = wy;
      label.Text = FPeakOptions.ShowPixelUnit ? FormatFixed(peak.PeakPixelPosition, FPeakOptions.Digits)
                                              : FormatFixed(peak.PeakXPosition, FPeakOptions.Digits);
      // A line away from the curve (upwards for a maximum, downwards for a minimum), the text at its end.
      const double sign = peak.IsNegativePeak ? -1.0 : 1.0;
      const double y0 = std::clamp(wy + sign * gap, -kModelLimit, kModelLimit);
      double y1 = std::clamp(y0 + sign * length, -kModelLimit, kModelLimit);
      // Near the frame the line gets shorter, so that the text stays inside the plot.
      if (sign > 0)
        y1 = std::max(y0, std::min(y1, top - kLabelTextRoom));
      else
        y1 = std::min(y0, std::max(y1, bottom + kLabelTextRoom));
      if (length > 0) {
        auto line = std::make_unique<TOpenGLMarker>();
        line->SetShape(TMarkerShape::Line);
        line->SetColor(color);
        line->SetUseStencil(true);
        line->SetSelectable(false);
        line->SetPoints({{wx, y0, 0}, {wx, y1, 0}});
        FPeakHolder->AddObject(std::move(line));
      }
      auto text = std::make_unique<TOpenGLText>();
      text->SetColor(color);
      text->SetSelectable(false);
      text->SetUseStencil(true);
      text->SetText(label.Text);
      text->SetPosition({wx, y1 + sign * 2, 0});
      if (FPeakOptions.ShowVertical) {
        text->SetTextRotation(90);
        text->SetAlignment(peak.IsNegativePeak ? THorizontalAlignment::Right : THorizontalAlignment::Left,
                           TVerticalAlignment::Center);
      } else {
        text->SetAlignment(THorizontalAlignment::Center,
                           peak.IsNegativePeak ? TVerticalAlignment::Top : TVerticalAlignment::Bottom);
      }
      FPeakHolder->AddObject(std::move(text));
      FPeakLabelList.push_back(std::move(label));
    }
  }
}

// --- Masks ----------------------------------------------------------------------------------------------

IDataProject* TVMultiGraphForm::GetMaskProject() {
  return GetProject();
}

void TVMultiGraphForm::SetMultiMask(int32_t graphID, int bandIndex, int firstPoint, int lastPoint,
                                    const bool* mask) {
  const std::pair<int32_t, int> key{graphID, bandIndex};
  if (!mask || bandIndex < 0) {
    FMultiMasks.erase(key);
  } else {
    TProject* project = GetProject();
    const auto* graph = project ? dynamic_cast<const TDGraph*>(project->FindData(graphID)) : nullptr;
    const int size = graph ? graph->GetSizeGraph() : 0;
    if (size <= 0) return;
    const int first = std::clamp(firstPoint, 0, size - 1);
    const int last = lastPoint < 0 ? size - 1 : std::clamp(lastPoint, first, size - 1);
    // mask holds the flags of points first to last.
    std::vector<bool>& band = FMultiMasks[key];
    band.assign(static_cast<size_t>(size), false);
    for (int i = first; i <= last; ++i) band[static_cast<size_t>(i)] = mask[i - first];
  }
  TGraphicUpdateGuard guard(*this);
  UpdateMaskBands();
  Redraw();
}

void TVMultiGraphForm::HideMarker() {
  if (FZoomMarker->GetVisible()) {
    FZoomMarker->SetVisible(false);
    Redraw();
  }
}

void TVMultiGraphForm::ClearMultiMasks(int32_t graphID) {
  for (auto it = FMultiMasks.begin(); it != FMultiMasks.end();)
    it = graphID == 0 || it->first.first == graphID ? FMultiMasks.erase(it) : std::next(it);
  TGraphicUpdateGuard guard(*this);
  UpdateMaskBands();
  Redraw();
}

std::vector<TOpenGLMultiMask*> TVMultiGraphForm::GetMaskBands(int32_t index) const {
  std::vector<TOpenGLMultiMask*> bands;
  if (index < 0 || index >= GetGraphCount() || !FMaskHolder) return bands;
  const int32_t id = FGraphs[static_cast<size_t>(index)].GraphID;
  for (int k = 0; k < FMaskHolder->GetObjectCount(); ++k)
    if (auto* band = dynamic_cast<TOpenGLMultiMask*>(FMaskHolder->GetObject(k));
        band && band->GetName() == std::to_string(id))
      bands.push_back(band);
  return bands;
}

void TVMultiGraphForm::UpdateMaskBands() {
  if (!FMaskHolder) return;
  FMaskHolder->ClearObjects();
  const TOpenGLView& view = GetOpenGLView();
  const double left = kMarginLeft, right = view.GetWidth() - kMarginRight;
  const double bottom = kMarginBottom, top = view.GetHeight() - kMarginTop;
  for (const auto& [key, flags] : FMultiMasks) {
    const int32_t index = IndexOfGraphID(key.first);
    if (index < 0) continue;
    const std::vector<double>& x = GetXValues(index);
    const size_t n = std::min(x.size(), flags.size());
    // One rectangle per run of set points, from half way to the previous point to half way to the next.
    std::vector<TOpenGLMultiMask::TRect> rects;
    auto edge = [&](size_t i, int side) {
      const double w = XToWindow(x[i]);
      if (side < 0)
        return i > 0 ? (w + XToWindow(x[i - 1])) / 2 : w - (n > 1 ? (XToWindow(x[1]) - w) / 2 : 0.5);
      return i + 1 < n ? (w + XToWindow(x[i + 1])) / 2 : w + (n > 1 ? (w - XToWindow(x[n - 2])) / 2 : 0.5);
    };
    for (size_t i = 0; i < n;) {
      if (!flags[i]) {
        ++i;
        continue;
      }
      size_t j = i;
      while (j + 1 < n && flags[j + 1]) ++j;
      double a = edge(i, -1), b = edge(j, +1);
      if (a > b) std::swap(a, b);
      a = std::clamp(a, left, right);
      b = std::clamp(b, left, right);
      if (b > a) rects.push_back({a, bottom, b, top});
      i = j + 1;
    }
    auto band = std::make_unique<TOpenGLMultiMask>();
    band->SetColor(ColorOf(GraphMaskBandColor(key.second), kGraphMaskBandAlpha));
    band->SetSelectable(false);
    band->SetName(std::to_string(key.first));
    band->SetRectangles(rects);
    FMaskHolder->AddObject(std::move(band));
  }
}

void TVMultiGraphForm::SetMaskTool(TGraphMask* mask, bool keepMaskMode) {
  if (FMaskTool == mask && FMaskKeepsMode == keepMaskMode) return;
  if (FOwnMask && FMaskTool == FOwnMask.get() && mask != FMaskTool) FOwnMask.reset();
  FMaskTool = mask;
  FMaskKeepsMode = mask && keepMaskMode;
  if (mask && keepMaskMode)
    SetGraphMouseMode(TGraphMouseMode::Mask);
  else if (!mask && FMouseMode == TGraphMouseMode::Mask)
    SetGraphMouseMode(TGraphMouseMode::Cursor);
}

void TVMultiGraphForm::LinkMaskControls(TGraphMask& mask) {
  // The toolbar's range is the part on view, its one value the point under the x cursor.
  const int32_t id = mask.GetGraphID();
  auto visible = [this, id](bool last) {
    const int32_t index = IndexOfGraphID(id);
    const std::vector<double>& x = GetXValues(index);
    const double lo = std::min(FMinXInterpretation, FMaxXInterpretation);
    const double hi = std::max(FMinXInterpretation, FMaxXInterpretation);
    int first = -1, end = -1;
    for (size_t i = 0; i < x.size(); ++i)
      if (x[i] >= lo && x[i] <= hi) {
        if (first < 0) first = static_cast<int>(i);
        end = static_cast<int>(i) + 1;
      }
    return last ? end : first;
  };
  mask.SetRangeControls([visible] { return visible(false); }, [visible] { return visible(true); });
  mask.SetOneValueControls([this, id] { return PointOfX(IndexOfGraphID(id), GetCursorX()); });
}

TGraphMask* TVMultiGraphForm::CreateGraphMaskForCurrentGraph() {
  const TDGraph* graph = FindGraph(FAKGraphIndex);
  if (!graph || graph->GetSizeGraph() < 1) return nullptr;
  DeleteGraphMask();
  FOwnMask = std::make_unique<TGraphMask>(this, graph->GetSizeGraph(), 1, graph->GetID());
  FOwnMask->ClearAll();
  FOwnMask->SetGraphFormInfo(this, 0);
  LinkMaskControls(*FOwnMask);
  TGraphMask* mask = FOwnMask.get();
  SetMaskTool(mask, true);
  mask->MaskChanged();
  return mask;
}

void TVMultiGraphForm::DeleteGraphMask() {
  if (!FOwnMask) return;
  const int32_t id = FOwnMask->GetGraphID();
  if (FMaskTool == FOwnMask.get()) SetMaskTool(nullptr);
  FOwnMask.reset();
  FMultiMasks.erase({id, 0});
  TGraphicUpdateGuard guard(*this);
  UpdateMaskBands();
  Redraw();
}

bool TVMultiGraphForm::DoMaskChange(double x0, double x1) {
  if (!FMaskTool) return false;
  const int32_t index = IndexOfGraphID(FMaskTool->GetGraphID());
  if (index < 0 || !std::isfinite(x0) || !std::isfinite(x1)) return false;
  const std::vector<double>& x = GetXValues(index);
  const double lo = std::min(x0, x1), hi = std::max(x0, x1);
  int first = -1, last = -1;
  for (size_t i = 0; i < x.size() && static_cast<int>(i) < FMaskTool->GetMaskSize(); ++i)
    if (x[i] >= lo && x[i] <= hi) {
      if (first < 0) first = static_cast<int>(i);
      last = static_cast<int>(i);
    }
  if (first < 0) {
    // A click between two points takes the nearer one.
    if (std::fabs(x1 - x0) > 0) return false;
    first = last = PointOfX(index, x0);
    if (first < 0 || first >= FMaskTool->GetMaskSize()) return false;
  }
  // The points of a falling axis come in index order all the same.
  if (FMaskErase)
    FMaskTool->ClearMaskRange(first, last);
  else
    FMaskTool->SetMaskRange(first, last);
  return true;
}
