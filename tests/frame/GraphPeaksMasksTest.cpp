// The graph viewer's peaks and masks on the demo map in a real window: peak labels stand over the strong
// bands (silicon at 520, polystyrene at 1001, the carbon bands), the window shows the status text and the
// "Peak Find Options" panel, a drawn mask shows as a transparent band and the mask toolbar's colour panel
// has the band's colour; and the background tool's preview draws the spectrum with its background.
// Screenshots go to the screenshot folder for a look.
#include "FrameTestSupport.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "frame/Offscreenview.h"
#include "frame/Qtgraphmasktoolbar.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qttoolwindow.h"
#include "frame/Qtviewerwindow.h"
#include "frame/Viewexport.h"
#include "imaging/Rasterfile.h"
#include "project/Demodataset.h"
#include "project/Graphmask.h"
#include "project/Processingdialogforms.h"
#include "project/Project.h"
#include "support/TestSupport.h"
#include "tools/Registertools.h"
#include "viewers/Viewershow.h"
#include "viewers/Vmultigraph.h"

#include <QApplication>
#include <QGroupBox>
#include <QImage>
#include <QLabel>
#include <QToolButton>
#include <cmath>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

using oxframetest::WaitFor;

constexpr int kWidth = 900;
constexpr int kHeight = 500;

void SaveScreenshot(const TOpenGLBitmap& bitmap, const std::string& name) {
  std::filesystem::create_directories(ORVEX_SCREENSHOT_DIR);
  std::string error;
  WriteRasterFile(std::string(ORVEX_SCREENSHOT_DIR) + "/" + name + ".png", RasterImageFromBitmap(bitmap),
                  error);
}

struct TRGB {
  int R, G, B;
};
TRGB PixelAt(const TOpenGLBitmap& b, int x, int row) {
  const uint8_t* p = &b.Pixels[(static_cast<size_t>(row) * b.Width + x) * 3];
  return {p[0], p[1], p[2]};
}
bool Near(TRGB c, TRGB want, int tolerance) {
  return std::abs(c.R - want.R) <= tolerance && std::abs(c.G - want.G) <= tolerance &&
         std::abs(c.B - want.B) <= tolerance;
}
TRGB RGBOf(uint32_t bgr) {
  return {int(bgr & 0xFF), int((bgr >> 8) & 0xFF), int((bgr >> 16) & 0xFF)};
}
/// Pixels of colour want (±tolerance) in columns x0 … x1 and rows y0 … y1 of the picture.
int CountColour(const TOpenGLBitmap& b, int x0, int x1, int y0, int y1, TRGB want, int tolerance) {
  int n = 0;
  for (int y = std::max(0, y0); y <= std::min(b.Height - 1, y1); ++y)
    for (int x = std::max(0, x0); x <= std::min(b.Width - 1, x1); ++x)
      if (Near(PixelAt(b, x, y), want, tolerance)) ++n;
  return n;
}

class GraphPeaksMasksTest : public ::testing::Test {
protected:
  void SetUp() override { FIDs = oxframetest::CreateWorkbenchDemo(FProject, 20, 20, 1024); }

  /// A graph viewer on the map in a window of the test's size, the cursor on spectrum (x, y).
  TVMultiGraphForm* ShowMap(int32_t x, int32_t y) {
    auto* viewer =
        dynamic_cast<TVMultiGraphForm*>(ShowIDsInViewer(FProject, {FIDs.Map}, TVMultiGraphForm::kClassName));
    EXPECT_TRUE(viewer);
    if (!viewer) return nullptr;
    viewer->ChangeSpacePosition(0, x, y);
    FWindow = new TQtViewerWindow(viewer, nullptr);
    FWindow->OpenGLWidget()->setFixedSize(kWidth, kHeight);
    FWindow->ShowViewerWindow(true);
    EXPECT_TRUE(WaitFor([&] { return FWindow->OpenGLWidget()->FrameCount() > 0; }));
    return viewer;
  }
  void TearDown() override { delete FWindow; }

  TProject FProject;
  TDemoIDs FIDs;
  TQtViewerWindow* FWindow = nullptr;
};

TEST_F(GraphPeaksMasksTest, LabelsStandOverTheStrongBandsOfTheDemo) {
  // Spectrum (6, 6): on the first polystyrene bead and the carbon stripe, over the silicon gradient.
  TVMultiGraphForm* viewer = ShowMap(6, 6);
  ASSERT_TRUE(viewer);
  ASSERT_EQ(viewer->GetOpenGLView().GetWidth(), kWidth);
  EXPECT_TRUE(FWindow->PeakPanel()->isHidden()) << "the panel comes with the peak finder";
  ASSERT_TRUE(viewer->GetCFI()->SetParameterValuesFromText({"PeakLabels=true"}).empty());
  // Bands that rise well above the noise, with the position as label.
  // Bands that rise well above the noise, with the position as label; the smoothing strong enough to take
  // the noise off the broad carbon bands.
  ASSERT_TRUE(viewer->GetPeakCFI()
                  ->SetParameterValuesFromText({"MinRelativeHeight=120", "Digits=0", "NoiseFactor=1.5"})
                  .empty());
  QApplication::processEvents();
  EXPECT_FALSE(FWindow->PeakPanel()->isHidden());
  EXPECT_EQ(FWindow->PeakPanel()->title().toStdString(), "Peak Find Options");
  auto* caption = FWindow->PeakPanel()->findChild<QLabel*>("PeakOptionsCaption");
  ASSERT_TRUE(caption);
  EXPECT_EQ(caption->text().toStdString(),
            "Peak Options (" + FProject.FindData(FIDs.Map)->GetCaption() + ")");
  ASSERT_TRUE(viewer->SetXRange(300, 1900));
  viewer->ZoomOutYAndSetAll(false); // the y range of this part, with room for the labels

  TOpenGLBitmap picture;
  ASSERT_TRUE(viewer->GetOpenGLView().ExportBitmap(1.0, picture));
  SaveScreenshot(picture, "graphpeaks_demo_labels");
  const TPeakInformationList& peaks = viewer->GetPeaks(0);
  std::string found;
  for (const TPeakInformation& p : peaks)
    found += std::to_string(p.PeakXPosition) + " (" + std::to_string(p.PeakRelativeHeight) + ") ";
  SCOPED_TRACE("peaks: " + found);
  auto find = [&](double shift, double tolerance) -> const TPeakInformation* {
    for (const TPeakInformation& p : peaks)
      if (std::fabs(p.PeakXPosition - shift) <= tolerance) return &p;
    return nullptr;
  };
  const TPeakInformation* silicon = find(520.7, 3);
  const TPeakInformation* polystyrene = find(1001.4, 3);
  const TPeakInformation* carbonD = find(1350, 25);
  const TPeakInformation* carbonG = find(1590, 20);
  ASSERT_TRUE(silicon);
  ASSERT_TRUE(polystyrene);
  ASSERT_TRUE(carbonD);
  ASSERT_TRUE(carbonG);
  EXPECT_LE(peaks.size(), 12u) << "noise makes no labels";
  // Each band's label: a line of the label colour rising from just over the apex, with the text above it.
  const TRGB violet = RGBOf(viewer->PeakLabelOptions().LabelColor);
  for (const TPeakInformation* p : {silicon, polystyrene, carbonD, carbonG}) {
    const int column = static_cast<int>(std::lround(viewer->XToWindow(p->PeakXPosition)));
    const int apexRow =
        kHeight - static_cast<int>(std::lround(viewer->YToWindow(0, p->OriginalPeakAbsoluteHeight)));
    const int line = CountColour(picture, column - 1, column + 1, apexRow - 44, apexRow - 5, violet, 40);
    EXPECT_GE(line, 30) << "label line of the band at " << p->PeakXPosition;
    // The text: more label-coloured pixels above the line, a few columns wide.
    const int text = CountColour(picture, column - 20, column + 20, apexRow - 62, apexRow - 45, violet, 60);
    EXPECT_GE(text, 15) << "label text of the band at " << p->PeakXPosition;
  }
  // Away from the bands the plot is white there.
  const int empty = static_cast<int>(std::lround(viewer->XToWindow(1800)));
  EXPECT_EQ(CountColour(picture, empty - 2, empty + 2, 20, kHeight / 2, violet, 40), 0);

  // The window shows the status text with the number of peaks.
  QApplication::processEvents();
  const std::string status = FWindow->StatusLabel()->text().toStdString();
  EXPECT_NE(status.find("Number of Peaks: " + std::to_string(viewer->GetNumberOfPeaks())), std::string::npos)
      << status;
  EXPECT_NE(status.find("x=6, y=6"), std::string::npos) << status;
  FWindow->grab().save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/graphpeaks_window.png"));
}

TEST_F(GraphPeaksMasksTest, AMaskShowsAsATransparentBand) {
  TVMultiGraphForm* viewer = ShowMap(10, 10);
  ASSERT_TRUE(viewer);
  ASSERT_TRUE(viewer->SetXRange(300, 1900));
  TGraphMask* mask = viewer->CreateGraphMaskForCurrentGraph();
  ASSERT_TRUE(mask);
  // Drawn with the mouse over 900 … 1100 rel. 1/cm, as a user does in mask mode.
  TOpenGLView& view = viewer->GetOpenGLView();
  const int a = static_cast<int>(std::lround(viewer->XToWindow(900)));
  const int b = static_cast<int>(std::lround(viewer->XToWindow(1100)));
  view.MouseDown(a, kHeight / 2, TOpenGLMouseButton::Left, {});
  view.MouseMove(b, kHeight / 2, {});
  view.MouseUp(b, kHeight / 2, TOpenGLMouseButton::Left, {});
  ASSERT_FALSE(mask->IsMaskCleared());
  QApplication::processEvents();

  TOpenGLBitmap picture;
  ASSERT_TRUE(viewer->GetOpenGLView().ExportBitmap(1.0, picture));
  SaveScreenshot(picture, "graphmask_demo_band");
  // Near the top of the plot, where no curve runs: white blended with the band colour inside, white outside.
  const TRGB band = RGBOf(GraphMaskBandColor(0));
  const float alpha = kGraphMaskBandAlpha;
  const TRGB blended = {int(std::lround(255 * (1 - alpha) + band.R * alpha)),
                        int(std::lround(255 * (1 - alpha) + band.G * alpha)),
                        int(std::lround(255 * (1 - alpha) + band.B * alpha))};
  const int row = TVMultiGraphForm::kMarginTop + 6;
  EXPECT_TRUE(Near(PixelAt(picture, (a + b) / 2, row), blended, 4))
      << PixelAt(picture, (a + b) / 2, row).R << "," << PixelAt(picture, (a + b) / 2, row).G << ","
      << PixelAt(picture, (a + b) / 2, row).B;
  EXPECT_TRUE(Near(PixelAt(picture, a + 3, row), blended, 4));
  EXPECT_TRUE(Near(PixelAt(picture, b - 3, row), blended, 4));
  EXPECT_TRUE(Near(PixelAt(picture, a - 6, row), {255, 255, 255}, 2));
  EXPECT_TRUE(Near(PixelAt(picture, b + 6, row), {255, 255, 255}, 2));
  FWindow->grab().save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/graphmask_window.png"));
  // The window shows the mask's toolbar while the viewer draws a mask.
  ASSERT_TRUE(FWindow->MaskToolBar());
  EXPECT_TRUE(FWindow->MaskToolBar()->isVisible());
  EXPECT_EQ(FWindow->MaskToolBar()->Logic().GetGraphMask(), mask);
  // The status line says the viewer draws masks.
  EXPECT_NE(FWindow->StatusLabel()->text().toStdString().find("Mask: draw"), std::string::npos);

  // The toolbar's colour panel has the band's colour; its Invert All turns the band into the rest.
  TQtGraphMaskToolBar bar(nullptr, mask, 0);
  bar.SetMaskIndexForButtons(0);
  bar.show();
  ASSERT_TRUE(WaitFor([&] { return bar.isVisible(); }));
  const QImage panel = bar.ColorPanel()->grab().toImage();
  const QColor centre = panel.pixelColor(panel.width() / 2, panel.height() / 2);
  EXPECT_EQ(centre.red(), band.R);
  EXPECT_EQ(centre.green(), band.G);
  EXPECT_EQ(centre.blue(), band.B);
  bar.grab().save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/graphmask_toolbar.png"));
  bar.Button(TGraphMaskCommand::InvertAll)->click();
  QApplication::processEvents();
  ASSERT_TRUE(viewer->GetOpenGLView().ExportBitmap(1.0, picture));
  SaveScreenshot(picture, "graphmask_demo_inverted");
  EXPECT_TRUE(Near(PixelAt(picture, (a + b) / 2, row), {255, 255, 255}, 2));
  EXPECT_TRUE(Near(PixelAt(picture, a - 6, row), blended, 4));
  viewer->DeleteGraphMask();
  QApplication::processEvents();
  EXPECT_FALSE(FWindow->MaskToolBar()->isVisible());
}

TEST_F(GraphPeaksMasksTest, AZoomRectangleMovesTheXRangeThereDrivenByTheWindow) {
  TVMultiGraphForm* viewer = ShowMap(10, 10);
  ASSERT_TRUE(viewer);
  ASSERT_TRUE(viewer->SetXRange(300, 1900));
  viewer->SetGraphMouseMode(TGraphMouseMode::Zoom);
  TOpenGLView& view = viewer->GetOpenGLView();
  const int a = static_cast<int>(std::lround(viewer->XToWindow(800)));
  const int b = static_cast<int>(std::lround(viewer->XToWindow(1200)));
  // The rectangle's rows take in values 650 … 850, where this spectrum runs in that part.
  const int top = kHeight - static_cast<int>(std::lround(viewer->YToWindow(0, 850)));
  const int bottom = kHeight - static_cast<int>(std::lround(viewer->YToWindow(0, 650)));
  view.MouseDown(a, top, TOpenGLMouseButton::Left, {});
  view.MouseMove(b, bottom, {});
  view.MouseUp(b, bottom, TOpenGLMouseButton::Left, {});
  const double lo = viewer->GetMinXInterpretation();
  EXPECT_TRUE(viewer->IsXZoomAnimating());
  EXPECT_LT(lo, 750) << "the range moves, it doesn't jump";
  // The window's timer takes it there.
  ASSERT_TRUE(WaitFor([&] { return !viewer->IsXZoomAnimating(); }, 3000));
  EXPECT_NEAR(viewer->GetMinXInterpretation(), 800, 2);
  EXPECT_NEAR(viewer->GetMaxXInterpretation(), 1200, 2);
  TOpenGLBitmap picture;
  ASSERT_TRUE(viewer->GetOpenGLView().ExportBitmap(1.0, picture));
  SaveScreenshot(picture, "graphzoom_after_movement");
  EXPECT_NEAR(viewer->GetGraphInfo(0).MinY, 650, 5);
  EXPECT_NEAR(viewer->GetGraphInfo(0).MaxY, 850, 5);
  // The curve runs through the new range from the left edge of the plot to the right.
  const TRGB red = RGBOf(TColorList::GetColor(0));
  const int left = TVMultiGraphForm::kMarginLeft, right = kWidth - TVMultiGraphForm::kMarginRight;
  EXPECT_GT(CountColour(picture, left + 1, left + 20, 0, kHeight - 1, red, 60), 5);
  EXPECT_GT(CountColour(picture, right - 20, right - 1, 0, kHeight - 1, red, 60), 5);
}

TEST_F(GraphPeaksMasksTest, TheBackgroundToolPreviewsSpectrumAndBackground) {
  RegisterAllTools();
  TProjectDialogForm* tool =
      TQtToolHost::Instance().OpenTool("GraphBackgroundSubtraction", FProject, {FIDs.Map});
  ASSERT_NE(tool, nullptr);
  auto* form = dynamic_cast<TProjectGraphProcessingDialogForm*>(tool);
  ASSERT_TRUE(form);
  auto* preview = dynamic_cast<TVMultiGraphForm*>(form->GetPreviewViewer());
  ASSERT_TRUE(preview);
  // A background that follows the baseline under the bands.
  ASSERT_TRUE(tool->Parameters().SetParameterValuesFromText({"Method=Auto Polynomial", "Order=5"}).empty());
  QApplication::processEvents();
  ASSERT_EQ(preview->GetGraphCount(), 2);
  ASSERT_TRUE(preview->HasSpectrum(0));
  ASSERT_TRUE(preview->HasSpectrum(1));
  // The background lies under the spectrum: nowhere above it by more than the noise.
  const std::vector<float>& spectrum = preview->GetShownSpectrum(0);
  const std::vector<float>& background = preview->GetShownSpectrum(1);
  ASSERT_EQ(spectrum.size(), background.size());
  int above = 0;
  for (size_t i = 0; i < spectrum.size(); ++i) above += background[i] > spectrum[i] + 40;
  EXPECT_LT(above, static_cast<int>(spectrum.size() / 20));
  // Both are drawn on one scale: the spectrum red, the background blue.
  ASSERT_TRUE(preview->GetCFI()->SetParameterValuesFromText({"OnlyOneYAxis=true"}).empty());
  // The tool's window shows its preview in a window of its own; the picture is taken there.
  TQtViewerWindow* shown = nullptr;
  for (QWidget* widget : QApplication::topLevelWidgets())
    if (auto* w = dynamic_cast<TQtViewerWindow*>(widget); w && w->Viewer() == preview) shown = w;
  ASSERT_TRUE(shown);
  shown->OpenGLWidget()->setFixedSize(kWidth, kHeight);
  const int frames = shown->OpenGLWidget()->FrameCount();
  shown->OpenGLWidget()->update();
  ASSERT_TRUE(WaitFor([&] { return shown->OpenGLWidget()->FrameCount() > frames; }));
  TOpenGLBitmap picture;
  ASSERT_TRUE(preview->GetOpenGLView().ExportBitmap(1.0, picture));
  ASSERT_EQ(picture.Width, kWidth);
  ASSERT_EQ(picture.Height, kHeight);
  SaveScreenshot(picture, "background_preview");
  const int red = CountColour(picture, 0, kWidth - 1, 0, kHeight - 1, RGBOf(TColorList::GetColor(0)), 60);
  const int blue = CountColour(picture, 0, kWidth - 1, 0, kHeight - 1, RGBOf(TColorList::GetColor(1)), 60);
  EXPECT_GT(red, 600);
  EXPECT_GT(blue, 400);
  // Column by column the blue curve is drawn below (or at) the red one.
  int lower = 0, columns = 0;
  for (int x = TVMultiGraphForm::kMarginLeft + 2; x < kWidth - TVMultiGraphForm::kMarginRight - 2; x += 10) {
    int redTop = -1, blueTop = -1;
    for (int y = 0; y < kHeight && (redTop < 0 || blueTop < 0); ++y) {
      if (redTop < 0 && Near(PixelAt(picture, x, y), RGBOf(TColorList::GetColor(0)), 60)) redTop = y;
      if (blueTop < 0 && Near(PixelAt(picture, x, y), RGBOf(TColorList::GetColor(1)), 60)) blueTop = y;
    }
    if (redTop < 0 || blueTop < 0) continue;
    ++columns;
    lower += blueTop >= redTop - 2;
  }
  ASSERT_GT(columns, 40);
  EXPECT_GE(lower, columns * 8 / 10);
  TQtToolHost::Instance().CloseAll();
}

} // namespace
