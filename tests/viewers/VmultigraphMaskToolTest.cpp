// The graph viewer drawing into a mask a tool hands it: a tool's mask parameter tied to a mask over the
// viewer's graph; drawing with the mouse in mask mode changes the tool's mask, its band and the parameter's
// text; a text entered shows as the band; without a handed mask the viewer draws into its own.
#include "common/Standardmessage.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "opengl/Openglobjects.h"
#include "project/Graphmaskparameter.h"
#include "project/Graphmasktoolbar.h"
#include "project/Project.h"
#include "support/SpectralAxis.h"
#include "support/TestDataObjects.h"
#include "viewers/Viewershow.h"
#include "viewers/Vmultigraph.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

constexpr double kExcitation = 532.0;
constexpr double kNmStart = 540.0;
constexpr double kNmStep = 0.05;
constexpr int32_t kPoints = 1024;

class MultiGraphMaskToolTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
    RegisterViewers();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
        new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));
    const oxtest::TSpectralAxisIDs axis = oxtest::AddSpectralAxis(FProject, kExcitation, kNmStart, kNmStep);
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(FProject.GetNewDataID());
    graph->SetFieldSize(1, 1, TDataFieldKind::Float, kPoints);
    graph->SetXTransformationID(axis.Transformation);
    graph->SetXInterpretationID(axis.Interpretation);
    std::vector<float> s(kPoints);
    for (int32_t g = 0; g < kPoints; ++g) s[static_cast<size_t>(g)] = 10.0f + static_cast<float>(g % 50);
    graph->SetSpectrum(0, 0, s.data());
    graph->SetAllLinesValid(true);
    FGraph = graph->GetID();
    FProject.AddData(std::move(graph));
  }
  void TearDown() override { TVCustomForm::DeleteRegisteredViewerList(); }

  TVMultiGraphForm* Show() {
    auto* viewer =
        dynamic_cast<TVMultiGraphForm*>(ShowIDsInViewer(FProject, {FGraph}, TVMultiGraphForm::kClassName));
    if (viewer) viewer->GetOpenGLView().SetViewportSize(800, 500);
    return viewer;
  }
  int Column(TVMultiGraphForm& viewer, double shift) {
    return static_cast<int>(std::lround(viewer.XToWindow(shift)));
  }
  void Drag(TVMultiGraphForm& viewer, double from, double to) {
    TOpenGLView& view = viewer.GetOpenGLView();
    view.MouseDown(Column(viewer, from), 250, TOpenGLMouseButton::Left, {});
    view.MouseMove(Column(viewer, to), 250, {});
    view.MouseUp(Column(viewer, to), 250, TOpenGLMouseButton::Left, {});
  }

  TProject FProject;
  int32_t FGraph = 0;
};

// The set points as runs (first, last).
std::vector<std::pair<int, int>> Runs(TGraphMask& mask) {
  std::vector<std::pair<int, int>> runs;
  const bool* m = mask.GetCurrentMask();
  for (int i = 0; i < mask.GetMaskSize(); ++i)
    if (m[i]) {
      if (runs.empty() || runs.back().second != i - 1)
        runs.push_back({i, i});
      else
        runs.back().second = i;
    }
  return runs;
}

} // namespace

TEST_F(MultiGraphMaskToolTest, DrawingInMaskModeChangesTheHandedMaskItsBandAndTheParameter) {
  TVMultiGraphForm* viewer = Show();
  ASSERT_TRUE(viewer);
  TUserStringParameter parameter(1, "Fit Mask", "Fit Mask:", "", "none");
  int changes = 0;
  parameter.OnParameterChanged = [&changes](const TUserParameterList&, bool) { ++changes; };
  TGraphMaskParameterLink link(parameter, FProject, FGraph, 1, [viewer] { return viewer; });
  viewer->LinkMaskControls(link.Mask());
  viewer->SetMaskTool(&link.Mask(), false);
  EXPECT_EQ(viewer->GetGraphMouseMode(), TGraphMouseMode::Cursor) << "handing a mask keeps the mode";
  viewer->SetGraphMouseMode(TGraphMouseMode::Mask);
  ASSERT_TRUE(viewer->SetXRange(300, 1900));

  Drag(*viewer, 800, 1000);
  const std::vector<std::pair<int, int>> runs = Runs(link.Mask());
  ASSERT_EQ(runs.size(), 1u);
  const std::vector<double>& x = viewer->GetXValues(0);
  EXPECT_NEAR(x[static_cast<size_t>(runs[0].first)], 800, 3);
  EXPECT_NEAR(x[static_cast<size_t>(runs[0].second)], 1000, 3);
  // One change of the parameter, whose text reads back to the drawn points.
  EXPECT_EQ(changes, 1);
  const std::string text = parameter.GetParameter();
  EXPECT_NE(text, "none");
  std::vector<bool> back;
  std::string error;
  ASSERT_TRUE(ReadGraphMaskForGraph(FProject, FGraph, text, "", back, error)) << error;
  for (int i = 0; i < kPoints; ++i)
    ASSERT_EQ(back[static_cast<size_t>(i)], i >= runs[0].first && i <= runs[0].second) << i;
  // The band of the tool's mask is band 1 of the viewer: one rectangle.
  const std::vector<TOpenGLMultiMask*> bands = viewer->GetMaskBands(0);
  ASSERT_EQ(bands.size(), 1u);
  EXPECT_EQ(bands[0]->GetRectangles().size(), 1u);
  const TOpenGLColor colour = bands[0]->GetColor();
  const uint32_t expected = GraphMaskBandColor(1);
  EXPECT_NEAR(colour.R * 255, expected & 0xFF, 0.5);
  EXPECT_NEAR(colour.G * 255, (expected >> 8) & 0xFF, 0.5);

  // A text entered shows as the band: two runs, two rectangles; the viewer's own mask isn't made.
  ASSERT_TRUE(parameter.SetParameter("400:500, 1500:1600"));
  EXPECT_EQ(Runs(link.Mask()).size(), 2u);
  EXPECT_EQ(viewer->GetMaskBands(0)[0]->GetRectangles().size(), 2u);
  EXPECT_EQ(viewer->GetMaskTool(), &link.Mask());

  // Erasing takes points away through the same path.
  viewer->SetMaskErase(true);
  Drag(*viewer, 1450, 1650);
  EXPECT_EQ(Runs(link.Mask()).size(), 1u);
  EXPECT_EQ(changes, 3);
  viewer->SetMaskErase(false);

  // Taken back, the viewer draws into a mask of its own again and the tool's mask stays as it was.
  viewer->SetMaskTool(nullptr);
  const std::string kept = parameter.GetParameter();
  TGraphMask* own = viewer->CreateGraphMaskForCurrentGraph();
  ASSERT_TRUE(own);
  ASSERT_NE(own, &link.Mask());
  Drag(*viewer, 1200, 1300);
  EXPECT_FALSE(own->IsMaskCleared());
  EXPECT_EQ(parameter.GetParameter(), kept);
  EXPECT_EQ(changes, 3);
}

TEST_F(MultiGraphMaskToolTest, TheToolbarsRangeButtonsTakeThePartOnView) {
  TVMultiGraphForm* viewer = Show();
  ASSERT_TRUE(viewer);
  TUserStringParameter parameter(1, "Change Mask", "Change Mask:", "", "none");
  TGraphMaskParameterLink link(parameter, FProject, FGraph, 0, [viewer] { return viewer; });
  viewer->LinkMaskControls(link.Mask());
  ASSERT_TRUE(viewer->SetXRange(1000, 1200));
  TGraphMaskToolBar bar(&link.Mask());
  bar.SetMaskIndexForButtons(0);
  ASSERT_TRUE(bar.Click(TGraphMaskCommand::SetRange));
  const std::vector<std::pair<int, int>> runs = Runs(link.Mask());
  ASSERT_EQ(runs.size(), 1u);
  const std::vector<double>& x = viewer->GetXValues(0);
  EXPECT_GE(x[static_cast<size_t>(runs[0].first)], 1000);
  EXPECT_LE(x[static_cast<size_t>(runs[0].second)], 1200);
  EXPECT_NEAR(x[static_cast<size_t>(runs[0].first)], 1000, 1);
  EXPECT_NEAR(x[static_cast<size_t>(runs[0].second)], 1200, 1);
  EXPECT_NE(parameter.GetParameter(), "none");
}
