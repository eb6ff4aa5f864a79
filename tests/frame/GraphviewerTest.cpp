// The graph viewer in a real window: a narrow Lorentzian at a known Raman shift has its apex at the column
// the x range predicts, in rel. 1/cm and, after switching the unit from the settings, at the column the nm
// range predicts; an arrow key shows the next spectrum of the stack; the offscreen picture equals the one
// drawn for the window; and a viewer reopened from a saved project draws the same picture. Screenshots go
// to the screenshot folder for a look.
#include "FrameTestSupport.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "frame/Offscreenview.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qtviewerwindow.h"
#include "frame/Viewexport.h"
#include "imaging/Rasterfile.h"
#include "project/Project.h"
#include "support/SpaceTransformation.h"
#include "support/SpectralAxis.h"
#include "support/TestSupport.h"
#include "viewers/Viewershow.h"
#include "viewers/Vmultigraph.h"

#include <cmath>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

using oxframetest::WaitFor;

constexpr double kExcitation = 532.0;
constexpr double kNmStart = 540.0;
constexpr double kNmStep = 0.02;
constexpr int32_t kPoints = 2500; // 540 … 590 nm
constexpr int kWidth = 600;
constexpr int kHeight = 400;

double RelativeWavenumber(double nm) {
  return 1e7 / kExcitation - 1e7 / nm;
}
double NmOfRelativeWavenumber(double shift) {
  return 1e7 / (1e7 / kExcitation - shift);
}

void SaveScreenshot(const TOpenGLBitmap& bitmap, const std::string& name) {
  std::filesystem::create_directories(ORVEX_SCREENSHOT_DIR);
  std::string error;
  WriteRasterFile(std::string(ORVEX_SCREENSHOT_DIR) + "/" + name + ".png", RasterImageFromBitmap(bitmap),
                  error);
}

/// The column of the topmost strongly red pixel (the apex of a red curve); -1 when there is none.
int ApexColumn(const TOpenGLBitmap& b, int& row) {
  for (int y = 0; y < b.Height; ++y)
    for (int x = 0; x < b.Width; ++x) {
      const uint8_t* p = &b.Pixels[(static_cast<size_t>(y) * b.Width + x) * 3];
      if (p[0] > 180 && p[1] < 110 && p[2] < 110) {
        row = y;
        return x;
      }
    }
  row = -1;
  return -1;
}

/// The column where x (in the unit shown) lies for the x range [lo, hi] in a window kWidth wide.
double ExpectedColumn(double x, double lo, double hi) {
  const double left = TVMultiGraphForm::kMarginLeft, right = kWidth - TVMultiGraphForm::kMarginRight;
  return left + (x - lo) / (hi - lo) * (right - left);
}

class GraphViewerWindowTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    RegisterViewers();
    const oxtest::TSpectralAxisIDs axis = oxtest::AddSpectralAxis(FProject, kExcitation, kNmStart, kNmStep);
    FSpace = oxtest::AddSpaceTransformation(FProject, {1.5, 1.5, 1.0});
    // A 3 x 2 stack: spectrum (x, y) is a Lorentzian of width 3 rel. 1/cm at the sample nearest to
    // 900 + 100 x + 50 y rel. 1/cm, height 100 + 10 x, over a background of 5.
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(FProject.GetNewDataID());
    graph->SetFieldSize(3, 2, TDataFieldKind::Float, kPoints);
    graph->SetXTransformationID(axis.Transformation);
    graph->SetXInterpretationID(axis.Interpretation);
    graph->SetSpaceTransformationID(FSpace);
    graph->SetCaption("Lorentzians");
    std::vector<float> s(kPoints);
    for (int32_t y = 0; y < 2; ++y)
      for (int32_t x = 0; x < 3; ++x) {
        const double apex = ApexShift(x, y);
        for (int32_t g = 0; g < kPoints; ++g) {
          const double d = (RelativeWavenumber(kNmStart + kNmStep * g) - apex) / 1.5;
          s[static_cast<size_t>(g)] = static_cast<float>(5 + (100 + 10 * x) / (1 + d * d));
        }
        graph->SetSpectrum(x, y, s.data());
      }
    graph->SetAllLinesValid(true);
    FGraph = graph->GetID();
    FProject.AddData(std::move(graph));
  }

  /// The shift of the sample nearest to the wanted apex of spectrum (x, y).
  static double ApexShift(int32_t x, int32_t y) {
    const double wanted = 900.0 + 100 * x + 50 * y;
    const double g = std::round((NmOfRelativeWavenumber(wanted) - kNmStart) / kNmStep);
    return RelativeWavenumber(kNmStart + kNmStep * g);
  }

  TVMultiGraphForm* ShowGraph() {
    auto* viewer =
        dynamic_cast<TVMultiGraphForm*>(ShowIDsInViewer(FProject, {FGraph}, TVMultiGraphForm::kClassName));
    EXPECT_TRUE(viewer);
    return viewer;
  }
  void PointCursorAt(int32_t x, int32_t y) {
    auto* cursor =
        dynamic_cast<TDCursor*>(FProject.FindData(FProject.MakeOrGetFirstIDByClassName("TDSpaceCursor")));
    ASSERT_TRUE(cursor);
    double wx = 0, wy = 0;
    PixelToWorld(FProject, FSpace, x, y, wx, wy);
    cursor->SetAutoDataChange(false);
    cursor->SetPosition(0, wx);
    cursor->SetPosition(1, wy);
    cursor->SetAutoDataChange(true);
  }

  oxtest::TempDir FDir;
  TProject FProject;
  int32_t FGraph = 0;
  int32_t FSpace = 0;
};

TEST_F(GraphViewerWindowTest, ApexColumnInRelativeWavenumbersAndInNanometres) {
  TVMultiGraphForm* viewer = ShowGraph();
  ASSERT_TRUE(viewer);
  PointCursorAt(1, 0);
  auto* window = new TQtViewerWindow(viewer, nullptr);
  TQtOpenGLWidget* widget = window->OpenGLWidget();
  ASSERT_NE(widget, nullptr);
  widget->setFixedSize(kWidth, kHeight);
  window->ShowViewerWindow(true);
  ASSERT_TRUE(WaitFor([&] { return widget->FrameCount() > 0; }));
  ASSERT_EQ(viewer->GetOpenGLView().GetWidth(), kWidth);
  ASSERT_TRUE(viewer->SetXRange(700, 1300));

  TOpenGLBitmap picture;
  ASSERT_TRUE(viewer->GetOpenGLView().ExportBitmap(1.0, picture));
  SaveScreenshot(picture, "graphviewer_relative_wavenumber");
  int row = 0;
  const double apex = ApexShift(1, 0);
  EXPECT_NEAR(ApexColumn(picture, row), ExpectedColumn(apex, 700, 1300), 1.0);
  // The apex is the top of the curve: just under the upper limit of the automatic y zoom.
  EXPECT_NEAR(row,
              TVMultiGraphForm::kMarginTop +
                  (kHeight - TVMultiGraphForm::kMarginTop - TVMultiGraphForm::kMarginBottom) *
                      (0.02 * 110 / (1.04 * 110)),
              2.0);

  // The unit from the settings, as the control panel sets it: the same part stays in view, in nm.
  ASSERT_TRUE(viewer->GetCFI()->SetParameterValuesFromText({"XUnit=nm"}).empty());
  const double lo = NmOfRelativeWavenumber(700), hi = NmOfRelativeWavenumber(1300);
  EXPECT_NEAR(viewer->GetMinXInterpretation(), lo, 1e-9);
  ASSERT_TRUE(viewer->GetOpenGLView().ExportBitmap(1.0, picture));
  SaveScreenshot(picture, "graphviewer_nanometre");
  const int column = ApexColumn(picture, row);
  EXPECT_NEAR(column, ExpectedColumn(NmOfRelativeWavenumber(apex), lo, hi), 1.0);
  EXPECT_GT(std::abs(column - ExpectedColumn(apex, 700, 1300)), 3) << "nm and rel. 1/cm place it apart";

  // An arrow key: the next spectrum (x = 2) has its apex 100 rel. 1/cm further up.
  ASSERT_TRUE(viewer->GetCFI()->SetParameterValuesFromText({"XUnit=rel. 1/cm"}).empty());
  viewer->GetOpenGLView().KeyDown(TOpenGLKey::Right, 0, {});
  EXPECT_EQ(viewer->GetGraphInfo(0).ColumnIndex, 2);
  ASSERT_TRUE(viewer->GetOpenGLView().ExportBitmap(1.0, picture));
  SaveScreenshot(picture, "graphviewer_next_spectrum");
  EXPECT_NEAR(ApexColumn(picture, row), ExpectedColumn(ApexShift(2, 0), 700, 1300), 1.0);
  delete window; // the window gives the view back before the viewer goes with the project
}

TEST_F(GraphViewerWindowTest, OffscreenAndReopenedViewersDrawTheSamePicture) {
  TVMultiGraphForm* viewer = ShowGraph();
  ASSERT_TRUE(viewer);
  PointCursorAt(2, 1);
  ASSERT_TRUE(viewer->SetXRange(800, 1400));
  viewer->SetCursor(1150);

  // Offscreen first (the view is in no window yet) ...
  TOpenGLBitmap offscreen;
  std::string error;
  ASSERT_TRUE(RenderViewOffscreen(viewer->GetOpenGLView(), kWidth, kHeight, offscreen, error)) << error;
  SaveScreenshot(offscreen, "graphviewer_offscreen");
  int row = 0;
  EXPECT_NEAR(ApexColumn(offscreen, row), ExpectedColumn(ApexShift(2, 1), 800, 1400), 1.0);

  // ... then in a window of the same size: the same pixels.
  auto window = std::make_unique<QWidget>();
  auto* widget = new TQtOpenGLWidget(&viewer->GetOpenGLView(), window.get());
  widget->setFixedSize(kWidth, kHeight);
  window->show();
  ASSERT_TRUE(WaitFor([&] { return widget->FrameCount() > 0; }));
  TOpenGLBitmap onscreen;
  ASSERT_TRUE(viewer->GetOpenGLView().ExportBitmap(1.0, onscreen));
  EXPECT_EQ(onscreen.Pixels, offscreen.Pixels);
  EXPECT_FALSE(RenderViewOffscreen(viewer->GetOpenGLView(), 10, 10, offscreen, error)) << "shown in a window";
  window.reset();

  // A project saved and opened again draws its viewer alike.
  const std::string file = FDir.File("graphs.oxp");
  ASSERT_GE(FProject.SaveProjectToFile(file), 1);
  TProject back;
  ASSERT_GE(back.LoadProjectFromFile(file), 1);
  auto* loaded =
      dynamic_cast<TVMultiGraphForm*>(back.GetFirstViewerByClassName(TVMultiGraphForm::kClassName));
  ASSERT_TRUE(loaded);
  TOpenGLBitmap reopened;
  ASSERT_TRUE(RenderViewOffscreen(loaded->GetOpenGLView(), kWidth, kHeight, reopened, error)) << error;
  SaveScreenshot(reopened, "graphviewer_reopened");
  EXPECT_EQ(reopened.Pixels, onscreen.Pixels);
  // And through a file: the picture's size and the failure for a name without a picture format.
  const std::string png = FDir.File("view.png");
  ASSERT_TRUE(ExportViewOffscreen(loaded->GetOpenGLView(), 320, 200, png, error)) << error;
  TRasterImage image;
  ASSERT_TRUE(ReadRasterFile(png, image, error)) << error;
  EXPECT_EQ(image.Width, 320);
  EXPECT_EQ(image.Height, 200);
  EXPECT_FALSE(ExportViewOffscreen(loaded->GetOpenGLView(), 320, 200, FDir.File("view.txt"), error));
}

} // namespace
