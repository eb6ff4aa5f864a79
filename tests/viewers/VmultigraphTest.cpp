// The graph viewer in a project: which ID lists it takes, the y zoom's numbers (linear, logarithmic, peak
// label room, the laser line left out), cascading, browsing the stack with the shared space cursor (also
// outside the stack), switching x units, settings and their refusals, gaps for values that aren't finite,
// persistence with every field, renumbering, extraction of the spectrum on view, and deleted graphs.
#include "viewers/Vmultigraph.h"

#include "common/Saveandload.h"
#include "common/Standardmessage.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtext.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "opengl/Openglgraph.h"
#include "opengl/Openglobjects.h"
#include "project/Project.h"
#include "support/SpaceTransformation.h"
#include "support/SpectralAxis.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "viewers/Viewershow.h"

#include <cmath>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

namespace {

constexpr double kExcitation = 532.0;
constexpr double kNmStart = 530.0; // the axis starts below the laser line
constexpr double kNmStep = 0.1;

/// IDs of a small scan made by hand: a spectral axis in rel. 1/cm, a space transformation of 2 µm pixels
/// with its origin at (10, 20) µm, and graphs on them.
struct TScan {
  int32_t Interpretation = 0;
  int32_t XTransformation = 0;
  int32_t Space = 0;
  int32_t Graph = 0;
};

class MultiGraphTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
    RegisterViewers();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
        new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));
    FScan = MakeScan(FProject, 5, 4, 200);
  }
  void TearDown() override { TVCustomForm::DeleteRegisteredViewerList(); }

  static TScan MakeScan(TProject& project, int32_t sx, int32_t sy, int32_t sg) {
    TScan scan;
    const oxtest::TSpectralAxisIDs axis = oxtest::AddSpectralAxis(project, kExcitation, kNmStart, kNmStep);
    scan.Interpretation = axis.Interpretation;
    scan.XTransformation = axis.Transformation;
    scan.Space = oxtest::AddSpaceTransformation(project, {2.0, 2.0, 1.0}, {10.0, 20.0, 0.0});
    scan.Graph = AddGraph(project, scan, sx, sy, sg, "Scan");
    return scan;
  }

  /// A graph on the scan's axes; spectrum (x, y) holds 100 (x + 1) + 10 y + g / 100 at point g.
  static int32_t AddGraph(TProject& project, const TScan& scan, int32_t sx, int32_t sy, int32_t sg,
                          const std::string& caption) {
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(project.GetNewDataID());
    graph->SetFieldSize(sx, sy, TDataFieldKind::Float, sg);
    graph->SetXTransformationID(scan.XTransformation);
    graph->SetXInterpretationID(scan.Interpretation);
    if (sx * sy > 1) graph->SetSpaceTransformationID(scan.Space);
    graph->SetCaption(caption);
    std::vector<float> s(static_cast<size_t>(sg));
    for (int32_t y = 0; y < sy; ++y)
      for (int32_t x = 0; x < sx; ++x) {
        for (int32_t g = 0; g < sg; ++g) s[static_cast<size_t>(g)] = Level(x, y, g);
        graph->SetSpectrum(x, y, s.data());
      }
    graph->SetAllLinesValid(true);
    const int32_t id = graph->GetID();
    project.AddData(std::move(graph));
    return id;
  }
  static float Level(int32_t x, int32_t y, int32_t g) {
    return float(100 * (x + 1) + 10 * y) + float(g) / 100;
  }

  TVMultiGraphForm* Show(const TIntList& ids) {
    auto* viewer =
        dynamic_cast<TVMultiGraphForm*>(ShowIDsInViewer(FProject, ids, TVMultiGraphForm::kClassName));
    if (viewer) viewer->GetOpenGLView().SetViewportSize(600, 400);
    return viewer;
  }
  TDGraph& Graph(int32_t id) { return *dynamic_cast<TDGraph*>(FProject.FindData(id)); }
  TDCursor& SpaceCursor() {
    return *dynamic_cast<TDCursor*>(FProject.FindData(FProject.MakeOrGetFirstIDByClassName("TDSpaceCursor")));
  }
  void PointCursorAt(double pixelX, double pixelY) {
    double wx = 0, wy = 0;
    PixelToWorld(FProject, FScan.Space, pixelX, pixelY, wx, wy);
    TDCursor& cursor = SpaceCursor();
    cursor.SetAutoDataChange(false);
    cursor.SetPosition(0, wx);
    cursor.SetPosition(1, wy);
    cursor.SetAutoDataChange(true);
  }
  /// Replaces spectrum (0, 0) of the graph.
  void SetSpectrum(int32_t id, const std::vector<float>& values) {
    Graph(id).SetSpectrum(0, 0, values.data());
    Graph(id).DoDataChange(TDataChangeInfo::DataChanged);
  }
  std::string Set(TVMultiGraphForm& viewer, const std::vector<std::string>& settings) {
    const TUserParameterProblems problems = viewer.GetCFI()->SetParameterValuesFromText(settings);
    return problems.empty() ? "" : problems.front().Message;
  }

  /// Visible curve objects anywhere in the viewer's scene.
  static int VisibleCurves(TVMultiGraphForm& viewer) {
    int count = 0;
    std::function<void(TOpenGLObject*)> walk = [&](TOpenGLObject* o) {
      if (dynamic_cast<TOpenGLGraph*>(o) && o->GetVisible()) ++count;
      for (int i = 0; i < o->GetObjectCount(); ++i) walk(o->GetObject(i));
    };
    TOpenGLView& view = viewer.GetOpenGLView();
    for (int i = 0; i < view.GetObjectCount(); ++i) walk(view.GetObject(i));
    return count;
  }

  TProject FProject;
  TScan FScan;
};

// --- Opening ----------------------------------------------------------------------------------------------

TEST_F(MultiGraphTest, TakesOneToTwentyGraphsAndNothingElse) {
  TIntList ids{FScan.Graph};
  for (int i = 1; i < 20; ++i) ids.push_back(AddGraph(FProject, FScan, 1, 1, 10, "G" + std::to_string(i)));
  EXPECT_TRUE(TVMultiGraphForm::IsInputIDListOkayForShowViewer(FProject, ids));
  ids.push_back(AddGraph(FProject, FScan, 1, 1, 10, "one too many"));
  EXPECT_FALSE(TVMultiGraphForm::IsInputIDListOkayForShowViewer(FProject, ids));
  EXPECT_FALSE(TVMultiGraphForm::IsInputIDListOkayForShowViewer(FProject, {}));
  EXPECT_FALSE(TVMultiGraphForm::IsInputIDListOkayForShowViewer(FProject, {FScan.Graph, FScan.Space}));
  EXPECT_EQ(FindViewerClassForIDs(FProject, {FScan.Graph}), TVMultiGraphForm::kClassName);

  TVMultiGraphForm* viewer = Show({FScan.Graph, ids[1]});
  ASSERT_TRUE(viewer);
  EXPECT_EQ(viewer->GetGraphCount(), 2);
  EXPECT_FALSE(viewer->AddGraphID(FScan.Graph)) << "a graph is shown once";
  EXPECT_FALSE(viewer->AddGraphID(FScan.Space));
  EXPECT_NE(viewer->GetGraphInfo(0).LineColor, viewer->GetGraphInfo(1).LineColor);
  EXPECT_EQ(viewer->GetGraphInfo(0).LineColor, TColorList::GetColor(0));
  EXPECT_FALSE(viewer->CheckForOnlySingleSpectra());
}

// --- Y zoom and cascading ---------------------------------------------------------------------------------

TEST_F(MultiGraphTest, LinearYZoomOfConstantAndRampCurves) {
  const int32_t single = AddGraph(FProject, FScan, 1, 1, 101, "Single");
  TVMultiGraphForm* viewer = Show({single});
  ASSERT_TRUE(viewer);
  SetSpectrum(single, std::vector<float>(101, 3.0f));
  viewer->ZoomOutY(0, false);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MinY, 2.98f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MaxY, 4.02f);

  std::vector<float> ramp(101);
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = float(i);
  SetSpectrum(single, ramp);
  viewer->ZoomOutY(0, false);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MinY, -2.0f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MaxY, 102.0f);

  // Room for peak labels: a tenth of the range above.
  viewer->SetPeakLabels(true);
  viewer->ZoomOutY(0, false);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MinY, -2.0f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MaxY, 112.0f);

  // Only the x zoom counts: points 10 … 20 of the ramp.
  const std::vector<double>& x = viewer->GetXValues(0);
  viewer->SetPeakLabels(false);
  ASSERT_TRUE(viewer->SetXRange(std::min(x[10], x[20]), std::max(x[10], x[20])));
  viewer->ZoomOutY(0, false);
  EXPECT_NEAR(viewer->GetGraphInfo(0).MinY, 10 - 0.2, 1e-4);
  EXPECT_NEAR(viewer->GetGraphInfo(0).MaxY, 20 + 0.2, 1e-4);

  // Bad indices are ignored.
  viewer->ZoomOutY(5, false);
  viewer->ZoomOutY(-1, false);
}

TEST_F(MultiGraphTest, LogarithmicYZoomAndItsLimits) {
  const int32_t single = AddGraph(FProject, FScan, 1, 1, 3, "Single");
  TVMultiGraphForm* viewer = Show({single});
  ASSERT_TRUE(viewer);
  viewer->GraphInfo(0).ScaleKindYAxis = 1;
  SetSpectrum(single, {1.0f, 10.0f, 100.0f});
  viewer->ZoomOutY(0, false);
  // d = 2 decades: (1 - 0.04) · 1 and (1 + 0.04) · 100.
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MinY, 0.96f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MaxY, 104.0f);

  // A minimum of 0 (or above 1e36) keeps the earlier range.
  SetSpectrum(single, {0.0f, 10.0f, 100.0f});
  viewer->ZoomOutY(0, false);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MinY, 0.96f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MaxY, 104.0f);
  SetSpectrum(single, {1.0f, 10.0f, 2e36f});
  viewer->ZoomOutY(0, false);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MaxY, 104.0f);
  // The setting refuses a range that a log axis can't show.
  EXPECT_FALSE(viewer->SetYRange(0, 0.0, 10.0));
  EXPECT_NE(Set(*viewer, {"ScaleKindY=Logarithmic", "YMinimum=-1", "YMaximum=10"}), "");
}

TEST_F(MultiGraphTest, NonFiniteValuesAreGapsAndLeftOutOfTheZoom) {
  const int32_t single = AddGraph(FProject, FScan, 1, 1, 9, "Single");
  TVMultiGraphForm* viewer = Show({single});
  ASSERT_TRUE(viewer);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  SetSpectrum(single, {1, 2, 3, nan, 5, 6, inf, 8, 9});
  viewer->ZoomOutYAndSetAll(false);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MinY, 1 - 0.16f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MaxY, 9 + 0.16f);
  const std::vector<TOpenGLGraph*> segments = viewer->GetCurveSegments(0);
  ASSERT_EQ(segments.size(), 3u);
  EXPECT_EQ(segments[0]->GetNrOfDataPoints(), 3);
  EXPECT_EQ(segments[1]->GetNrOfDataPoints(), 2);
  EXPECT_EQ(segments[2]->GetNrOfDataPoints(), 2);
  // All NaN: no data, the range stays.
  SetSpectrum(single, std::vector<float>(9, nan));
  viewer->ZoomOutY(0, false);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MaxY, 9 + 0.16f);
  EXPECT_TRUE(viewer->GetCurveSegments(0).empty());
}

TEST_F(MultiGraphTest, RayleighZoomLeavesOutTheLaserLine) {
  // 530 nm … 549.9 nm against 532 nm: the laser line lies at point 20.
  const int32_t single = AddGraph(FProject, FScan, 1, 1, 200, "Single");
  std::vector<float> s(200, 10.0f);
  s[20] = 5000.0f; // the laser line
  s[150] = 40.0f;  // a Raman band
  SetSpectrum(single, s);
  TVMultiGraphForm* viewer = Show({single});
  ASSERT_TRUE(viewer);
  viewer->ZoomOutY(0, false);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MaxY, 5000 + 0.02f * 4990);
  viewer->ZoomOutYAndSetAll(true);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MaxY, 40 + 0.02f * 30);
  // Points just outside 50 rel. 1/cm count again: 532 → 533.5 nm is about 53 1/cm.
  double lo = 0, hi = 0;
  ASSERT_TRUE(viewer->GetMinMaxYGraphValue(lo, hi, true, 0));
  EXPECT_FLOAT_EQ(hi, 40.0f);
}

TEST_F(MultiGraphTest, CascadeShiftsByWholeRanges) {
  const int32_t a = AddGraph(FProject, FScan, 1, 1, 10, "A");
  const int32_t b = AddGraph(FProject, FScan, 1, 1, 10, "B");
  TVMultiGraphForm* viewer = Show({a, b});
  ASSERT_TRUE(viewer);
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(viewer->SetYRange(i, 0.0, 10.0));
  viewer->SetCascadeDistance(1.0);
  viewer->SetCascadeGraphs(true);
  // The last graph keeps its lower limit and gains one range above; the first moves one range down.
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(1).DisplayMinY, 0.0f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(1).DisplayMaxY, 20.0f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).DisplayMinY, -10.0f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).DisplayMaxY, 10.0f);
  viewer->SetCascadeGraphs(false);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).DisplayMinY, 0.0f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(1).DisplayMaxY, 10.0f);

  // One y axis: smallest minimum, greatest maximum for all.
  ASSERT_TRUE(viewer->SetYRange(1, -5.0, 7.0));
  viewer->SetOnlyOneYAxis(true);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MinY, -5.0f);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(1).MaxY, 10.0f);
}

// --- Stack browsing ---------------------------------------------------------------------------------------

TEST_F(MultiGraphTest, TheSpectrumFollowsTheSharedSpaceCursor) {
  TVMultiGraphForm* viewer = Show({FScan.Graph});
  ASSERT_TRUE(viewer);
  EXPECT_EQ(viewer->GetSpaceCursorID(), SpaceCursor().GetID());
  // The project had no space cursor: the one made starts at the centre pixel (2, 2) of the 5 x 4 scan.
  EXPECT_EQ(viewer->GetGraphInfo(0).ColumnIndex, 2);
  EXPECT_EQ(viewer->GetGraphInfo(0).LineIndex, 2);
  EXPECT_TRUE(viewer->HasSpectrum(0));
  PointCursorAt(3, 2);
  ASSERT_TRUE(viewer->HasSpectrum(0));
  EXPECT_EQ(viewer->GetGraphInfo(0).ColumnIndex, 3);
  EXPECT_EQ(viewer->GetGraphInfo(0).LineIndex, 2);
  EXPECT_FLOAT_EQ(viewer->GetShownSpectrum(0)[7], Level(3, 2, 7));
  // Automatic y zoom fits each spectrum.
  EXPECT_NEAR(viewer->GetGraphInfo(0).MinY, Level(3, 2, 0) - 0.02 * 1.99, 1e-3);
  // A world position a little off the pixel centre still picks the nearest pixel.
  PointCursorAt(0.4, 3.3);
  EXPECT_FLOAT_EQ(viewer->GetShownSpectrum(0)[0], Level(0, 3, 0));

  // Keys step one spectrum and move the shared cursor; the edge holds.
  viewer->GetOpenGLView().KeyDown(TOpenGLKey::Right, 0, {});
  EXPECT_EQ(viewer->GetGraphInfo(0).ColumnIndex, 1);
  double wx = 0, wy = 0;
  PixelToWorld(FProject, FScan.Space, 1, 3, wx, wy);
  EXPECT_DOUBLE_EQ(SpaceCursor().GetPosition(0), wx);
  EXPECT_DOUBLE_EQ(SpaceCursor().GetPosition(1), wy);
  viewer->GetOpenGLView().KeyDown(TOpenGLKey::Down, 0, {});
  EXPECT_EQ(viewer->GetGraphInfo(0).LineIndex, 3);

  // The cursor outside the stack: no curve, no error; a step brings it back to the edge.
  PointCursorAt(-3, 1);
  EXPECT_FALSE(viewer->HasSpectrum(0));
  EXPECT_TRUE(viewer->GetShownSpectrum(0).empty());
  EXPECT_TRUE(viewer->GetCurveSegments(0).empty());
  PointCursorAt(5, 1); // one past the last column
  EXPECT_FALSE(viewer->HasSpectrum(0));
  std::string reason;
  EXPECT_TRUE(viewer->ExtractViewerObjects(reason).empty());
  EXPECT_NE(reason, "");
  viewer->StepSpectrum(-1, 0);
  EXPECT_TRUE(viewer->HasSpectrum(0));
  EXPECT_EQ(viewer->GetGraphInfo(0).ColumnIndex, 4);
  EXPECT_EQ(viewer->GetGraphInfo(0).LineIndex, 1);
  PointCursorAt(-3, 9);
  viewer->StepSpectrum(1, 0); // far outside: to the nearest pixel of the edge
  EXPECT_EQ(viewer->GetGraphInfo(0).ColumnIndex, 0);
  EXPECT_EQ(viewer->GetGraphInfo(0).LineIndex, 3);
}

TEST_F(MultiGraphTest, TwoViewersShareTheCursor) {
  TVMultiGraphForm* first = Show({FScan.Graph});
  TVMultiGraphForm* second = Show({FScan.Graph});
  ASSERT_TRUE(first && second);
  ASSERT_TRUE(first->ChangeSpacePosition(0, 4, 1));
  EXPECT_EQ(second->GetGraphInfo(0).ColumnIndex, 4);
  EXPECT_EQ(second->GetGraphInfo(0).LineIndex, 1);
  EXPECT_FALSE(first->ChangeSpacePosition(0, 5, 1)) << "beyond the stack";
  EXPECT_FALSE(first->ChangeSpacePosition(3, 0, 0)) << "no such graph";
}

// --- Units ------------------------------------------------------------------------------------------------

TEST_F(MultiGraphTest, SwitchingUnitsKeepsThePartInViewAndTouchesNothingElse) {
  TVMultiGraphForm* viewer = Show({FScan.Graph});
  ASSERT_TRUE(viewer);
  ASSERT_NE(viewer->GetXInterpretationID(), FScan.Interpretation) << "the viewer keeps its own copy";
  EXPECT_EQ(viewer->GetXUnitName(), "rel. 1/cm");
  auto* own = dynamic_cast<TDInterpretation*>(FProject.FindData(viewer->GetXInterpretationID()));
  ASSERT_TRUE(own);
  // Zoom onto 600 … 700 rel. 1/cm, then show nm.
  ASSERT_TRUE(viewer->SetXRange(600, 700));
  ASSERT_TRUE(viewer->ChangeXUnitIndex(TDSpectralInterpretation::suNanometer));
  const double nm600 = 1e7 / (1e7 / kExcitation - 600), nm700 = 1e7 / (1e7 / kExcitation - 700);
  EXPECT_NEAR(viewer->GetMinXInterpretation(), nm600, 1e-9);
  EXPECT_NEAR(viewer->GetMaxXInterpretation(), nm700, 1e-9);
  EXPECT_EQ(viewer->GetXUnitName(), "nm");
  EXPECT_NEAR(viewer->GetXValues(0)[10], kNmStart + 10 * kNmStep, 1e-9);
  EXPECT_EQ(viewer->GetXAxis()->FullCaption(), "[nm]");
  EXPECT_DOUBLE_EQ(viewer->GetXAxis()->GetWorldStart(), viewer->GetMinXInterpretation());
  // The graph's own interpretation still shows rel. 1/cm.
  auto* original = dynamic_cast<TDInterpretation*>(FProject.FindData(FScan.Interpretation));
  EXPECT_EQ(original->GetUnitIndex(), TDSpectralInterpretation::suRelativeWavenumber);
  // 1/cm runs the other way round: the range stays ordered.
  ASSERT_TRUE(viewer->ChangeXUnitIndex(TDSpectralInterpretation::suWavenumber));
  EXPECT_LT(viewer->GetMinXInterpretation(), viewer->GetMaxXInterpretation());
  EXPECT_NEAR(viewer->GetMinXInterpretation(), 1e7 / nm700, 1e-6);
  EXPECT_FALSE(viewer->ChangeXUnitIndex(99));
  // The x window places the curve by the value: x increases to the right.
  EXPECT_LT(viewer->XToWindow(viewer->GetMinXInterpretation()),
            viewer->XToWindow(viewer->GetMaxXInterpretation()));
}

// --- Settings ---------------------------------------------------------------------------------------------

TEST_F(MultiGraphTest, SettingsApplyAndRefuseWithLimitsOrChoices) {
  TVMultiGraphForm* viewer = Show({FScan.Graph});
  ASSERT_TRUE(viewer);
  EXPECT_EQ(Set(*viewer, {"SpectrumX=2", "SpectrumY=3"}), "");
  EXPECT_EQ(viewer->GetGraphInfo(0).ColumnIndex, 2);
  EXPECT_EQ(viewer->GetGraphInfo(0).LineIndex, 3);
  EXPECT_FLOAT_EQ(viewer->GetShownSpectrum(0)[0], Level(2, 3, 0));

  const std::string beyond = Set(*viewer, {"SpectrumX=5"});
  EXPECT_NE(beyond.find('4'), std::string::npos) << beyond; // the limit is named
  EXPECT_EQ(viewer->GetGraphInfo(0).ColumnIndex, 2);

  const std::string unit = Set(*viewer, {"XUnit=furlong"});
  EXPECT_NE(unit.find("rel. 1/cm"), std::string::npos) << unit; // the choices are listed
  EXPECT_EQ(Set(*viewer, {"XUnit=nm"}), "");
  EXPECT_EQ(viewer->GetXUnitName(), "nm");

  const double left = viewer->GetMinXInterpretation(), right = viewer->GetMaxXInterpretation();
  EXPECT_NE(Set(*viewer, {"XMinimum=545", "XMaximum=540"}), "");
  EXPECT_NE(Set(*viewer, {"XMinimum=540", "XMaximum=540"}), "");
  EXPECT_DOUBLE_EQ(viewer->GetMinXInterpretation(), left);
  EXPECT_DOUBLE_EQ(viewer->GetMaxXInterpretation(), right);
  EXPECT_EQ(Set(*viewer, {"XMinimum=540", "XMaximum=545"}), "");
  EXPECT_DOUBLE_EQ(viewer->GetMinXInterpretation(), 540);

  EXPECT_EQ(Set(*viewer, {"AutoZoomOutY=false", "YMinimum=-10", "YMaximum=1000", "GraphStyle=Histogram",
                          "LineWidth=2.5", "CascadeDistance=0.5", "PeakLabels=true"}),
            "");
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).MinY, -10.0f);
  EXPECT_EQ(viewer->GetGraphInfo(0).GraphStyle, TGraphViewerStyle::Histogram);
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).LineWidth, 2.5f);
  EXPECT_DOUBLE_EQ(viewer->GetCascadeDistance(), 0.5);
  EXPECT_TRUE(viewer->GetPeakLabels());
  EXPECT_FALSE(viewer->GetAutoZoomOutY());
  EXPECT_NE(Set(*viewer, {"ActiveGraph=1"}), "") << "one graph only";

  // The line width toggle: 2.5 → 1 → 2 → 1.
  viewer->ToggleGraphLineWidth();
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).LineWidth, 1.0f);
  viewer->ToggleGraphLineWidth();
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).LineWidth, 2.0f);
  viewer->ToggleGraphLineWidth();
  EXPECT_FLOAT_EQ(viewer->GetGraphInfo(0).LineWidth, 1.0f);
}

// --- Persistence and renumbering --------------------------------------------------------------------------

TEST_F(MultiGraphTest, EveryFieldRoundTripsThroughAProjectFile) {
  const int32_t second = AddGraph(FProject, FScan, 1, 1, 200, "Second");
  TVMultiGraphForm* viewer = Show({FScan.Graph, second});
  ASSERT_TRUE(viewer);
  ASSERT_TRUE(viewer->ChangeSpacePosition(0, 3, 1));
  ASSERT_EQ(Set(*viewer, {"XUnit=eV", "AutoZoomOutY=false", "PeakLabels=true", "CascadeGraphs=true",
                          "CascadeDistance=0.75", "GraphStyle=Line and Symbols", "LineWidth=3"}),
            "");
  ASSERT_TRUE(viewer->SetYRange(1, -3.5, 1234.25));
  viewer->ChangeGraphColor(1, 0x00123456);
  viewer->GraphInfo(1).Transparency = 0.25f;
  viewer->GraphInfo(1).PointSize = 2.0f;
  viewer->GraphInfo(0).ScaleKindYAxis = 1;
  viewer->SetChangeGraphSimultaneously(false);
  viewer->ChangeAKGraphIndex(1);
  oxtest::TempDir dir;
  const std::string file = dir.File("graphs.oxp");
  ASSERT_GE(FProject.SaveProjectToFile(file), 1);

  TProject back;
  ASSERT_GE(back.LoadProjectFromFile(file), 1);
  auto* loaded =
      dynamic_cast<TVMultiGraphForm*>(back.GetFirstViewerByClassName(TVMultiGraphForm::kClassName));
  ASSERT_TRUE(loaded);
  ASSERT_EQ(loaded->GetGraphCount(), 2);
  EXPECT_EQ(loaded->GetXInterpretationID(), viewer->GetXInterpretationID());
  EXPECT_TRUE(back.FindData(loaded->GetXInterpretationID())) << "the own interpretation is saved while used";
  EXPECT_EQ(loaded->GetXCursorID(), viewer->GetXCursorID());
  EXPECT_EQ(loaded->GetSpaceCursorID(), viewer->GetSpaceCursorID());
  EXPECT_EQ(loaded->GetXUnitName(), "eV");
  EXPECT_DOUBLE_EQ(loaded->GetMinXInterpretation(), viewer->GetMinXInterpretation());
  EXPECT_DOUBLE_EQ(loaded->GetMaxXInterpretation(), viewer->GetMaxXInterpretation());
  EXPECT_EQ(loaded->GetAKGraphIndex(), 1);
  EXPECT_FALSE(loaded->GetAutoZoomOutY());
  EXPECT_TRUE(loaded->GetPeakLabels());
  EXPECT_TRUE(loaded->GetCascadeGraphs());
  EXPECT_DOUBLE_EQ(loaded->GetCascadeDistance(), 0.75);
  EXPECT_FALSE(loaded->GetChangeGraphSimultaneously());
  for (int32_t i = 0; i < 2; ++i) {
    const TGraphDrawInformation& a = viewer->GetGraphInfo(i);
    const TGraphDrawInformation& b = loaded->GetGraphInfo(i);
    EXPECT_EQ(a.GraphID, b.GraphID);
    EXPECT_FLOAT_EQ(a.MinY, b.MinY);
    EXPECT_FLOAT_EQ(a.MaxY, b.MaxY);
    EXPECT_FLOAT_EQ(a.DisplayMinY, b.DisplayMinY);
    EXPECT_FLOAT_EQ(a.DisplayMaxY, b.DisplayMaxY);
    EXPECT_EQ(a.ColumnIndex, b.ColumnIndex);
    EXPECT_EQ(a.LineIndex, b.LineIndex);
    EXPECT_EQ(a.GraphStyle, b.GraphStyle);
    EXPECT_EQ(a.LineColor, b.LineColor);
    EXPECT_FLOAT_EQ(a.Transparency, b.Transparency);
    EXPECT_FLOAT_EQ(a.LineWidth, b.LineWidth);
    EXPECT_FLOAT_EQ(a.PointSize, b.PointSize);
    EXPECT_EQ(a.ScaleKindYAxis, b.ScaleKindYAxis);
  }
  EXPECT_EQ(loaded->GetGraphInfo(1).LineColor, 0x00123456u);
  EXPECT_EQ(loaded->GetGraphInfo(0).ColumnIndex, 3);
  EXPECT_FLOAT_EQ(loaded->GetShownSpectrum(0)[5], Level(3, 1, 5));

  // Saved again, the file is the same.
  const std::string again = dir.File("again.oxp");
  ASSERT_GE(back.SaveProjectToFile(again), 1);
  TTagControl a, b;
  ASSERT_GE(a.LoadTagListByFileName(file, TProject::kProjectIdentification), 1);
  ASSERT_GE(b.LoadTagListByFileName(again, TProject::kProjectIdentification), 1);
  int32_t n = 0;
  ASSERT_EQ(a.GetIntTagInList("Viewer|Viewer 0|TVMultiGraphForm|AKGraphIndex", n), teNoError);
  EXPECT_EQ(n, 1);
  const TTagControl* ga = a.FindTagInList("Viewer|Viewer 0|TVMultiGraphForm");
  const TTagControl* gb = b.FindTagInList("Viewer|Viewer 0|TVMultiGraphForm");
  ASSERT_TRUE(ga && gb);
  ASSERT_TRUE(ga->Children() && gb->Children());
  ASSERT_EQ(ga->Children()->size(), gb->Children()->size());
  for (size_t i = 0; i < ga->Children()->size(); ++i) {
    EXPECT_EQ((*ga->Children())[i]->Name(), (*gb->Children())[i]->Name());
    EXPECT_EQ((*ga->Children())[i]->Data(), (*gb->Children())[i]->Data()) << (*ga->Children())[i]->Name();
  }
}

TEST_F(MultiGraphTest, TheTagsStandInTheirOrder) {
  TVMultiGraphForm* viewer = Show({FScan.Graph});
  ASSERT_TRUE(viewer);
  oxtest::TempDir dir;
  const std::string file = dir.File("order.oxp");
  ASSERT_GE(FProject.SaveProjectToFile(file), 1);
  TTagControl root;
  ASSERT_GE(root.LoadTagListByFileName(file, TProject::kProjectIdentification), 1);
  const TTagControl* group = root.FindTagInList("Viewer|Viewer 0|TVMultiGraphForm");
  ASSERT_TRUE(group && group->Children());
  std::vector<std::string> names;
  for (const auto& child : *group->Children()) names.push_back(child->Name());
  const std::vector<std::string> expected = {"Version",
                                             "XInterpretationID",
                                             "XCursorID",
                                             "SpaceCursorID",
                                             "GraphIDList",
                                             "LastXUnitIndex",
                                             "MinXInterpretation",
                                             "MaxXInterpretation",
                                             "OnlyOneYAxis",
                                             "ChangeGraphSimultaneously",
                                             "ScaleKindXAxis",
                                             "ShowAxisArrows",
                                             "MaxYList",
                                             "MinYList",
                                             "LastXIndexList",
                                             "LastYIndexList",
                                             "GraphStyleList",
                                             "GraphColorList",
                                             "GraphTransparencyList",
                                             "GraphAuxColorList",
                                             "GraphAuxTransparencyList",
                                             "GraphPointStyleList",
                                             "GraphLineStyleList",
                                             "GraphLineWidthList",
                                             "GraphPointSizeList",
                                             "GraphScaleKindYAxisList",
                                             "PeakLabels",
                                             "HistogramOverlap",
                                             "HistogramShowWireFrame",
                                             "AutoZoomOutX",
                                             "AutoZoomOutY",
                                             "AutoZoomOut",
                                             "SynchronizedZoom",
                                             "CascadeGraphs",
                                             "AKGraphIndex",
                                             "XGraphID",
                                             "CascadeDistance",
                                             "PeakFindOptions"};
  EXPECT_EQ(names, expected);
}

TEST_F(MultiGraphTest, AppendAndExchangeRenumberEveryID) {
  TVMultiGraphForm* viewer = Show({FScan.Graph});
  ASSERT_TRUE(viewer);
  const int32_t graph = FScan.Graph, own = viewer->GetXInterpretationID(), x = viewer->GetXCursorID(),
                space = viewer->GetSpaceCursorID();
  ASSERT_TRUE(own && x && space);
  viewer->AddToID(100);
  EXPECT_EQ(viewer->GetGraphInfo(0).GraphID, graph + 100);
  EXPECT_EQ(viewer->GetXInterpretationID(), own + 100);
  EXPECT_EQ(viewer->GetXCursorID(), x + 100);
  EXPECT_EQ(viewer->GetSpaceCursorID(), space + 100);
  EXPECT_TRUE(viewer->IsDataUsed(graph + 100));
  EXPECT_FALSE(viewer->IsDataUsed(graph));
  viewer->ExchangeID(graph + 100, 7);
  viewer->ExchangeID(own + 100, 8);
  EXPECT_EQ(viewer->GetGraphInfo(0).GraphID, 7);
  EXPECT_EQ(viewer->GetXInterpretationID(), 8);
  EXPECT_FALSE(viewer->IsDataUsed(0));

  // Through a file appended to another project.
  TProject source;
  const TScan scan = MakeScan(source, 3, 2, 50);
  ShowIDsInViewer(source, {scan.Graph}, TVMultiGraphForm::kClassName);
  oxtest::TempDir dir;
  const std::string file = dir.File("source.oxp");
  ASSERT_GE(source.SaveProjectToFile(file), 1);
  TProject main;
  MakeScan(main, 2, 2, 20);
  const int32_t delta = main.GetNextDataID();
  TProject loader;
  ASSERT_GE(loader.LoadProjectFromFile(file), 1);
  auto* stored =
      dynamic_cast<TVMultiGraphForm*>(loader.GetFirstViewerByClassName(TVMultiGraphForm::kClassName));
  ASSERT_TRUE(stored);
  const int32_t ownBefore = stored->GetXInterpretationID();
  main.AppendProject(loader);
  TVMultiGraphForm* appended = nullptr;
  for (TVCustomForm* v : main.GetViewerListByClassName(TVMultiGraphForm::kClassName))
    if (auto* g = dynamic_cast<TVMultiGraphForm*>(v);
        g && g->GetGraphCount() == 1 && g->GetGraphInfo(0).GraphID == scan.Graph + delta)
      appended = g;
  ASSERT_TRUE(appended);
  EXPECT_EQ(appended->GetXInterpretationID(), ownBefore + delta);
  ASSERT_TRUE(main.FindData(appended->GetXInterpretationID()));
  EXPECT_EQ(main.FindData(appended->GetGraphInfo(0).GraphID)->GetCaption(), "Scan");
}

// --- Extraction -------------------------------------------------------------------------------------------

TEST_F(MultiGraphTest, ExtractionOfAStackSpectrumKeepsItsPlaceAndAxis) {
  TVMultiGraphForm* viewer = Show({FScan.Graph});
  ASSERT_TRUE(viewer);
  ASSERT_TRUE(viewer->ChangeSpacePosition(0, 4, 3));
  std::string reason;
  const TIntList ids = viewer->ExtractViewerObjects(reason);
  ASSERT_EQ(ids.size(), 1u) << reason;
  auto* graph = dynamic_cast<TDGraph*>(FProject.FindData(ids[0]));
  ASSERT_TRUE(graph);
  EXPECT_EQ(graph->GetCaption(), "Scan (x=4, y=3)");
  EXPECT_EQ(graph->GetSizeX(), 1);
  EXPECT_EQ(graph->GetSizeY(), 1);
  ASSERT_EQ(graph->GetSizeGraph(), 200);
  std::vector<float> values(200);
  graph->GetSpectrum(0, 0, values.data());
  for (int32_t g = 0; g < 200; g += 37) EXPECT_FLOAT_EQ(values[static_cast<size_t>(g)], Level(4, 3, g));
  EXPECT_TRUE(graph->GetLineValid(0));
  // The position transformation: scale 1, no rotation, the spectrum's world position.
  auto* position = dynamic_cast<TDSpaceTransformation*>(FProject.FindData(graph->GetSpaceTransformationID()));
  ASSERT_TRUE(position);
  EXPECT_EQ(position->GetCaption(), "Scan (x=4, y=3): Position Transformation");
  EXPECT_DOUBLE_EQ(position->ViewPort().GetScale()[0], 1.0);
  EXPECT_DOUBLE_EQ(position->ViewPort().GetScale()[1], 1.0);
  EXPECT_DOUBLE_EQ(position->ViewPort().GetModelOrigin()[0], 0.0);
  EXPECT_DOUBLE_EQ(position->ViewPort().GetWorldOrigin()[0], 10.0 + 2 * 4);
  EXPECT_DOUBLE_EQ(position->ViewPort().GetWorldOrigin()[1], 20.0 + 2 * 3);
  // Copies of the x transformation and interpretation: new objects, same mapping.
  EXPECT_NE(graph->GetXTransformationID(), FScan.XTransformation);
  EXPECT_TRUE(IsTransformationEqual(FProject, graph->GetXTransformationID(), FScan.XTransformation));
  EXPECT_NE(graph->GetXInterpretationID(), FScan.Interpretation);
  EXPECT_TRUE(
      IsInterpretationEqualWithoutUnitIndex(FProject, graph->GetXInterpretationID(), FScan.Interpretation));
}

TEST_F(MultiGraphTest, ExtractionOfASingleSpectrum) {
  const int32_t single = AddGraph(FProject, FScan, 1, 1, 20, "Reference");
  TVMultiGraphForm* viewer = Show({single});
  ASSERT_TRUE(viewer);
  EXPECT_TRUE(viewer->CheckForOnlySingleSpectra());
  // Stack navigation is off: keys and cursor moves leave the one spectrum on view.
  PointCursorAt(-50, -50);
  EXPECT_TRUE(viewer->HasSpectrum(0));
  const int32_t id = viewer->ExtractGraph();
  ASSERT_NE(id, 0);
  auto* graph = dynamic_cast<TDGraph*>(FProject.FindData(id));
  ASSERT_TRUE(graph);
  EXPECT_EQ(graph->GetCaption(), "Reference (Extracted)");
  EXPECT_EQ(graph->GetSpaceTransformationID(), 0);
  const std::vector<std::string> ascii = viewer->GetASCIIDataStringList();
  ASSERT_EQ(ascii.size(), 21u);
  EXPECT_EQ(ascii[0], "x [rel. 1/cm]\tReference");
}

// --- Deletion
// -----------------------------------------------------------------------------------------------

TEST_F(MultiGraphTest, ADeletedGraphIsDroppedAndAnEmptyViewerStays) {
  const int32_t second = AddGraph(FProject, FScan, 5, 4, 200, "Second");
  TVMultiGraphForm* viewer = Show({FScan.Graph, second});
  ASSERT_TRUE(viewer);
  PointCursorAt(1, 1);
  viewer->ChangeAKGraphIndex(1);
  ASSERT_EQ(VisibleCurves(*viewer), 2);
  FProject.DeleteData(second);
  ASSERT_EQ(viewer->GetGraphCount(), 1);
  EXPECT_EQ(viewer->GetAKGraphIndex(), 0);
  EXPECT_EQ(VisibleCurves(*viewer), 1) << "the deleted graph's curve left the scene";
  FProject.DeleteData(FScan.Graph);
  EXPECT_EQ(viewer->GetGraphCount(), 0);
  EXPECT_EQ(FProject.GetViewerListByClassName(TVMultiGraphForm::kClassName).size(), 1u);
  oxtest::TempDir dir;
  const std::string file = dir.File("empty.oxp");
  ASSERT_GE(FProject.SaveProjectToFile(file), 1);
  TProject back;
  ASSERT_GE(back.LoadProjectFromFile(file), 1);
  auto* loaded =
      dynamic_cast<TVMultiGraphForm*>(back.GetFirstViewerByClassName(TVMultiGraphForm::kClassName));
  ASSERT_TRUE(loaded);
  EXPECT_EQ(loaded->GetGraphCount(), 0);
}

// --- Zoom history
// ---------------------------------------------------------------------------------------------

TEST(ZoomStackTest, WalksBackAndForthAndDropsTheAreasAheadOnAPush) {
  TZoomStack stack;
  TZoomArea area;
  EXPECT_FALSE(stack.Previous(area));
  stack.Push({0, 10, 0, 1});
  stack.Push({2, 8, 0, 1});
  stack.Push({3, 4, 0, 1});
  ASSERT_TRUE(stack.Previous(area));
  EXPECT_EQ(area, (TZoomArea{2, 8, 0, 1}));
  ASSERT_TRUE(stack.Previous(area));
  EXPECT_FALSE(stack.Previous(area));
  ASSERT_TRUE(stack.Next(area));
  EXPECT_EQ(area, (TZoomArea{2, 8, 0, 1}));
  stack.Push({5, 6, 0, 1});
  EXPECT_EQ(stack.Count(), 3);
  EXPECT_FALSE(stack.Next(area));
}

TEST(ColorListTest, StoredColourAndFloatColourConvertBothWays) {
  TGraphDrawInformation info;
  info.LineColor = 0x00336699;
  info.Transparency = 0.5f;
  info.OldVersionToCurrent();
  EXPECT_FLOAT_EQ(info.Red, 0x99 / 255.0f);
  EXPECT_FLOAT_EQ(info.Blue, 0x33 / 255.0f);
  EXPECT_FLOAT_EQ(info.Alpha, 0.5f);
  info.LineColor = 0;
  info.Transparency = 0;
  info.CurrentToOldVersion();
  EXPECT_EQ(info.LineColor, 0x00336699u);
  EXPECT_FLOAT_EQ(info.Transparency, 0.5f);
  EXPECT_EQ(TColorList::GetColor(0), 0x000000FFu); // red first
  EXPECT_EQ(TColorList::GetColor(1), 0x00FF0000u); // then blue
  EXPECT_EQ(TColorList::GetColor(TColorList::Count()), TColorList::GetColor(0));
}

} // namespace
