// The Advanced Fitting Tool's window on the demo map: Lorentz chosen in the function list, the fit mask
// around the silicon band at 520 rel. 1/cm, the space cursor on a silicon pixel, "Fit Once": the status
// reads "Fit Successful", the statistics are filled, and the preview viewer draws the fitted curve (red)
// over the data (blue) with its apex at the fitted band position. Then the rows' fit order, a start value
// taken from the x cursor, the extract captions of each mode, and the fit curve drawn over a narrower
// preview range only. Screenshots of the window and the viewer.
#include "FrameTestSupport.h"
#include "ViewerWindowSupport.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "frame/Qtparampanel.h"
#include "frame/Qttoolwindow.h"
#include "frame/Viewexport.h"
#include "imaging/Rasterfile.h"
#include "project/Demodataset.h"
#include "project/Graphmask.h"
#include "project/Graphmaskparameter.h"
#include "project/Project.h"
#include "support/TestSupport.h"
#include "tools/Registertools.h"
#include "tools/spectral/Advancedfittingcore.h"
#include "tools/spectral/Advancedfittingpreview.h"
#include "tools/spectral/Advancedfittingtool.h"
#include "viewers/Viewershow.h"
#include "viewers/Vmultigraph.h"

#include <QApplication>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTableWidget>
#include <QTreeWidget>
#include <cmath>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

using oxframetest::WaitFor;

constexpr int kWidth = 640, kHeight = 400;
constexpr double kLow = 480, kHigh = 560; // the x range shown, rel. 1/cm

using oxframetest::ButtonOf;

// The colours of the curves, also where the fit mask's transparent band lies over them: the curve's own
// channel stands well above the other two (the pale band alone has none that does).
bool IsRed(const uint8_t* p) {
  return p[0] > 150 && p[0] > p[1] + 60 && p[0] > p[2] + 60;
}
bool IsBlue(const uint8_t* p) {
  return p[2] > 150 && p[2] > p[0] + 60 && p[2] > p[1] + 60;
}

/// The topmost pixel of a colour in the plot area: column and row, -1 when there is none.
template <class Colour>
std::pair<int, int> Topmost(const TOpenGLBitmap& b, Colour colour) {
  for (int y = TVMultiGraphForm::kMarginTop; y < b.Height - TVMultiGraphForm::kMarginBottom; ++y)
    for (int x = TVMultiGraphForm::kMarginLeft; x < b.Width - TVMultiGraphForm::kMarginRight; ++x)
      if (colour(&b.Pixels[(static_cast<size_t>(y) * b.Width + x) * 3])) return {x, y};
  return {-1, -1};
}

/// Pixels of a colour within radius of (cx, cy).
template <class Colour>
int CountNear(const TOpenGLBitmap& b, Colour colour, int cx, int cy, int radius) {
  int count = 0;
  for (int y = std::max(0, cy - radius); y <= std::min(b.Height - 1, cy + radius); ++y)
    for (int x = std::max(0, cx - radius); x <= std::min(b.Width - 1, cx + radius); ++x)
      if (colour(&b.Pixels[(static_cast<size_t>(y) * b.Width + x) * 3])) ++count;
  return count;
}

double ColumnOf(double x) {
  const double left = TVMultiGraphForm::kMarginLeft, right = kWidth - TVMultiGraphForm::kMarginRight;
  return left + (x - kLow) / (kHigh - kLow) * (right - left);
}

class AdvancedFittingWindowTest : public ::testing::Test {
protected:
  void SetUp() override { FIDs = oxframetest::CreateWorkbenchDemo(FProject, 16, 12); }
  void TearDown() override { TQtToolHost::Instance().CloseAll(); }

  /// The pixel where silicon's true abundance is largest.
  void SiliconPixel(int& px, int& py) {
    size_t silicon = 0;
    for (size_t i = 0; i < DemoComponents().size(); ++i)
      if (DemoComponents()[i].Name == "Silicon") silicon = i;
    const auto* abundance = dynamic_cast<const TDImage*>(FProject.FindData(FIDs.TrueAbundances.at(silicon)));
    ASSERT_NE(abundance, nullptr);
    float best = -1;
    for (int y = 0; y < abundance->GetSizeY(); ++y)
      for (int x = 0; x < abundance->GetSizeX(); ++x)
        if (abundance->GetField(x, y) > best) {
          best = abundance->GetField(x, y);
          px = x;
          py = y;
        }
  }

  void MoveSpaceCursorTo(int x, int y) {
    auto* cursor =
        dynamic_cast<TDCursor*>(FProject.FindData(FProject.MakeOrGetFirstIDByClassName("TDSpaceCursor")));
    ASSERT_NE(cursor, nullptr);
    double wx = 0, wy = 0;
    PixelToWorld(FProject, FIDs.SpaceTransformation, x, y, wx, wy);
    cursor->SetPosition(0, wx);
    cursor->SetPosition(1, wy);
  }

  /// A fresh picture of the viewer as its window shows it, kWidth x kHeight, rows from the top.
  static bool PictureOf(TVCustomForm* viewer, TOpenGLBitmap& bitmap) {
    TQtViewerWindow* shown = oxframetest::WindowOfViewer(viewer);
    if (!shown || !shown->OpenGLWidget()) return false;
    shown->show();
    shown->OpenGLWidget()->setFixedSize(kWidth, kHeight);
    if (!WaitFor([&] { return shown->OpenGLWidget()->FrameCount() > 0; })) return false;
    const QImage image = oxframetest::Grab(shown->OpenGLWidget());
    if (image.width() != kWidth || image.height() != kHeight) return false;
    bitmap.Width = kWidth;
    bitmap.Height = kHeight;
    bitmap.Pixels.resize(static_cast<size_t>(kWidth) * kHeight * 3);
    for (int y = 0; y < kHeight; ++y)
      std::memcpy(&bitmap.Pixels[static_cast<size_t>(y) * kWidth * 3], image.constScanLine(y),
                  static_cast<size_t>(kWidth) * 3);
    return true;
  }

  void Save(const TOpenGLBitmap& bitmap, QWidget& window, const std::string& name) {
    std::filesystem::create_directories(ORVEX_SCREENSHOT_DIR);
    std::string error;
    WriteRasterFile(std::string(ORVEX_SCREENSHOT_DIR) + "/" + name + "_viewer.png",
                    RasterImageFromBitmap(bitmap), error);
    window.grab().save(
        QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/" + name + "_window.png"));
  }

  TProject FProject;
  TDemoIDs FIDs;
};

TEST_F(AdvancedFittingWindowTest, LorentzOnTheSiliconBandFitOnceDrawsTheCurveOnTheData) {
  TProjectDialogForm* opened = TQtToolHost::Instance().OpenTool("AdvancedFittingTool", FProject, {FIDs.Map});
  ASSERT_NE(opened, nullptr);
  auto* tool = dynamic_cast<TAdvancedFittingToolForm*>(opened);
  ASSERT_NE(tool, nullptr);
  TQtToolWindow* window = TQtToolHost::Instance().WindowOf("AdvancedFittingTool");
  ASSERT_NE(window, nullptr);
  ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));
  TAdvancedFittingPreview* preview = tool->GetPreview();
  ASSERT_NE(preview, nullptr);
  EXPECT_EQ(window->windowTitle().toStdString(), "Advanced Fitting Tool");

  // Define Start Values, so that only the button fits.
  auto* mode = qobject_cast<QComboBox*>(window->Panel()->ControlOf("Fit Mode"));
  ASSERT_NE(mode, nullptr);
  mode->setCurrentText(TAdvancedFittingPreview::kDefineStartValues);
  QApplication::processEvents();
  ASSERT_FALSE(preview->IsFitOnChange());

  // Lorentz from the function list, by category.
  auto* functions = window->findChild<QTreeWidget*>("FunctionList");
  ASSERT_NE(functions, nullptr);
  const auto found = functions->findItems("Lorentz", Qt::MatchExactly | Qt::MatchRecursive);
  ASSERT_EQ(found.size(), 1);
  ASSERT_NE(found.front()->parent(), nullptr) << "functions stand under their category";
  emit functions->itemClicked(found.front(), 0);
  QApplication::processEvents();
  EXPECT_EQ(preview->GetSelectedFunctionName(), "Lorentz");

  // The mask around the band, typed into the panel.
  auto* mask = qobject_cast<QLineEdit*>(window->Panel()->ControlOf("Fit Mask"));
  ASSERT_NE(mask, nullptr);
  mask->setText("480:560");
  emit mask->editingFinished();
  QApplication::processEvents();
  EXPECT_EQ(tool->GetStringParameter("Fit Mask"), "480:560");
  // The fit mask has its toolbar under its field and is tied to the preview's spectrum.
  EXPECT_NE(window->MaskToolBarOf("Fit Mask"), nullptr);
  TGraphMaskParameterLink* maskLink = window->MaskLinkOf("Fit Mask");
  ASSERT_NE(maskLink, nullptr);
  EXPECT_EQ(maskLink->Mask().GetGraphID(), preview->GetDataGraphID());

  // The preview range over the band with many points, so that the curve's apex is drawn where it lies.
  auto* points0 = qobject_cast<QSpinBox*>(window->Panel()->ControlOf("# of Points"));
  auto* start0 = qobject_cast<QDoubleSpinBox*>(window->Panel()->ControlOf("Preview Start Value"));
  auto* stop0 = qobject_cast<QDoubleSpinBox*>(window->Panel()->ControlOf("Preview Stop Value"));
  ASSERT_TRUE(points0 && start0 && stop0);
  points0->setValue(1000);
  start0->setValue(kLow);
  stop0->setValue(kHigh);
  QApplication::processEvents();
  ASSERT_EQ(preview->GetCurveAxis().size(), 1000u);

  // The space cursor on the pixel with most silicon: that spectrum becomes the current one.
  int px = 0, py = 0;
  SiliconPixel(px, py);
  MoveSpaceCursorTo(px, py);
  QApplication::processEvents();
  EXPECT_EQ(preview->GetPixelX(), px);
  EXPECT_EQ(preview->GetPixelY(), py);
  auto* status = window->findChild<QLabel*>("FitStatus");
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(status->text().toStdString(), TAdvancedFittingPreview::kNotFitted);

  QPushButton* fitOnce = ButtonOf(*window, "Fit Once");
  ASSERT_NE(fitOnce, nullptr);
  fitOnce->click();
  QApplication::processEvents();
  EXPECT_EQ(status->text().toStdString(), "Fit Successful");
  auto* r2 = window->findChild<QLabel*>("R^2:");
  ASSERT_NE(r2, nullptr);
  EXPECT_GT(r2->text().toDouble(), 0.9) << r2->text().toStdString();
  auto* points = window->findChild<QLabel*>("Data Points / DoF:");
  ASSERT_NE(points, nullptr);
  EXPECT_NE(points->text().toStdString().find(" / "), std::string::npos);

  // The band position among the fitted values, shown in the table too.
  double centre = std::nan("");
  for (const TAdvancedFitParamSettings& row : preview->Rows())
    if (row.Value > 510 && row.Value < 530) centre = row.Value;
  ASSERT_TRUE(std::isfinite(centre));
  EXPECT_NEAR(centre, 520.7, 1.0);
  auto* table = window->findChild<QTableWidget*>("ParameterTable");
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->rowCount(), static_cast<int>(preview->Rows().size()));
  EXPECT_EQ(table->horizontalHeaderItem(1)->text().toStdString(), "Start Value");

  // The preview viewer: the fitted curve (red, the first graph, drawn over the rest) on the data (blue),
  // both on one y axis. The curve's apex lies at the fitted centre and at the height of the data's peak.
  ASSERT_FALSE(tool->GetCustomForms().empty());
  auto* viewer = dynamic_cast<TVMultiGraphForm*>(tool->GetCustomForms().front());
  ASSERT_NE(viewer, nullptr);
  ASSERT_GE(viewer->GetGraphCount(), 2);
  EXPECT_EQ(viewer->GetGraphInfo(0).GraphID, preview->GetFitGraphID());
  EXPECT_EQ(viewer->GetGraphInfo(1).GraphID, preview->GetDataGraphID());
  ASSERT_TRUE(viewer->SetXRange(kLow, kHigh));
  // The tool gave its preview viewer a window beside its own.
  TOpenGLBitmap picture;
  ASSERT_TRUE(PictureOf(viewer, picture));
  Save(picture, *window, "advanced_fitting_fit_once");
  // The curve's apex lies within a point spacing of the map's axis from the centre.
  TAdvancedFittingCore core;
  tool->ConfigureForGraph(*dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map)), core);
  const std::vector<double>& axis = core.GetAxis();
  double spacing = 0, peak = 0;
  const auto* data = dynamic_cast<const TDGraph*>(FProject.FindData(preview->GetDataGraphID()));
  for (size_t g = 1; g < axis.size(); ++g) {
    if (axis[g - 1] < centre && axis[g] >= centre) spacing = std::fabs(axis[g] - axis[g - 1]);
    if (axis[g] > kLow && axis[g] < kHigh) peak = std::max(peak, double(data->GetField(0, 0, int(g))));
  }
  ASSERT_GT(spacing, 0);
  const double columns = ColumnOf(kLow + spacing) - ColumnOf(kLow);
  const auto [fitX, fitY] = Topmost(picture, IsRed);
  ASSERT_GE(fitX, 0) << "no fit curve drawn";
  EXPECT_NEAR(fitX, ColumnOf(centre), columns + 1);
  const TGraphDrawInformation& shown = viewer->GetGraphInfo(1);
  EXPECT_FLOAT_EQ(shown.DisplayMaxY, viewer->GetGraphInfo(0).DisplayMaxY) << "one y axis";
  const double plot = kHeight - TVMultiGraphForm::kMarginTop - TVMultiGraphForm::kMarginBottom;
  const double peakRow = TVMultiGraphForm::kMarginTop +
                         (shown.DisplayMaxY - peak) / (shown.DisplayMaxY - shown.DisplayMinY) * plot;
  EXPECT_NEAR(fitY, peakRow, 0.05 * plot);
  // The data is drawn too, beside the curve where they part.
  int blue = 0;
  for (size_t i = 0; i + 2 < picture.Pixels.size(); i += 3) blue += IsBlue(&picture.Pixels[i]) ? 1 : 0;
  EXPECT_GT(blue, 20);
  EXPECT_GT(CountNear(picture, IsRed, fitX, fitY + 20, 20), 10) << "the curve runs down from its apex";

  // The table is the rows: the offset held fixed by its Vary box, the next fit varies one parameter less.
  int offsetRow = -1;
  for (int r = 0; r < table->rowCount(); ++r)
    if (table->item(r, 0)->text() == "y0") offsetRow = r;
  ASSERT_GE(offsetRow, 0);
  table->item(offsetRow, 3)->setCheckState(Qt::Unchecked);
  QApplication::processEvents();
  EXPECT_FALSE(preview->Rows()[static_cast<size_t>(offsetRow)].Vary);
  fitOnce->click();
  QApplication::processEvents();
  EXPECT_EQ(status->text().toStdString(), "Fit Successful");
  const int fitPoints = preview->GetLastResult().DataPoints;
  EXPECT_EQ(points->text().toStdString(), std::to_string(fitPoints) + " / " + std::to_string(fitPoints - 3));
  // A start value typed into its cell.
  table->item(offsetRow, 1)->setText("600");
  QApplication::processEvents();
  EXPECT_DOUBLE_EQ(preview->Rows()[static_cast<size_t>(offsetRow)].StartValue, 600.0);
  EXPECT_NE(tool->GetStringParameter("Fit Parameters").find("y0|Start Value=600"), std::string::npos);

  // The extract commands are named by the mode: no fit happens in Define Start Values.
  auto* extract = qobject_cast<QPushButton*>(window->Panel()->ControlOf("Extract"));
  ASSERT_NE(extract, nullptr);
  EXPECT_EQ(extract->text().toStdString(), "Extract Current");
  auto* extractAll = qobject_cast<QPushButton*>(window->Panel()->ControlOf("Extract All"));
  ASSERT_NE(extractAll, nullptr);
  EXPECT_EQ(extractAll->text().toStdString(), "Fit and Extract All");
  // The preview range's captions name the axis unit.
  auto* panelLayout = qobject_cast<QFormLayout*>(window->Panel()->layout());
  ASSERT_NE(panelLayout, nullptr);
  auto* startLabel =
      qobject_cast<QLabel*>(panelLayout->labelForField(window->Panel()->ControlOf("Preview Start Value")));
  ASSERT_NE(startLabel, nullptr);
  EXPECT_EQ(startLabel->text().toStdString(), "Start Value [" + preview->GetAxisUnit() + "]:");
  EXPECT_FALSE(preview->GetAxisUnit().empty());

  // Fit Later on the centre's row: a stage of its own after the others, shown in the Fit Order column.
  int centreRow = -1;
  for (int r = 0; r < table->rowCount(); ++r)
    if (table->item(r, 0)->text() == "x0") centreRow = r;
  ASSERT_GE(centreRow, 0);
  ASSERT_EQ(table->horizontalHeaderItem(10)->text().toStdString(), "Fit Order");
  ASSERT_TRUE(preview->FitLater(centreRow));
  QApplication::processEvents();
  EXPECT_EQ(table->item(centreRow, 10)->text().toStdString(), "2");
  EXPECT_EQ(table->item(offsetRow, 10)->text().toStdString(), "1");

  // A double click on the centre's name arms it; the viewer's x cursor then sets its start value.
  emit table->cellDoubleClicked(centreRow, 0);
  QApplication::processEvents();
  EXPECT_EQ(preview->GetArmedRow(), centreRow);
  viewer->SetCursor(523.0);
  QApplication::processEvents();
  EXPECT_NEAR(preview->Rows()[static_cast<size_t>(centreRow)].StartValue, 523.0, 1e-6);
  EXPECT_NE(table->item(centreRow, 1)->text().toStdString().find("523"), std::string::npos);
  emit table->cellDoubleClicked(centreRow, 0);
  QApplication::processEvents();
  EXPECT_EQ(preview->GetArmedRow(), -1);

  // The fitted curve over a narrower range only, 60 points from 505 to 535, on the same view 480..560.
  ASSERT_TRUE(fitOnce->isEnabled());
  fitOnce->click();
  QApplication::processEvents();
  EXPECT_EQ(status->text().toStdString(), "Fit Successful");
  points0->setValue(60);
  start0->setValue(505);
  stop0->setValue(535);
  QApplication::processEvents();
  ASSERT_EQ(preview->GetCurveAxis().size(), 60u);
  EXPECT_DOUBLE_EQ(preview->GetCurveAxis().front(), 505);
  EXPECT_DOUBLE_EQ(preview->GetCurveAxis().back(), 535);
  ASSERT_TRUE(viewer->SetXRange(kLow, kHigh));
  TOpenGLBitmap ranged;
  ASSERT_TRUE(PictureOf(viewer, ranged));
  Save(ranged, *window, "advanced_fitting_preview_range");
  // Red (the curve) only between the columns of 505 and 535; the data (blue) on both sides of them.
  int redInside = 0, redOutside = 0, blueLeft = 0, blueRight = 0;
  const int left = static_cast<int>(std::floor(ColumnOf(505))) - 2;
  const int right = static_cast<int>(std::ceil(ColumnOf(535))) + 2;
  for (int y = TVMultiGraphForm::kMarginTop; y < kHeight - TVMultiGraphForm::kMarginBottom; ++y)
    for (int x = TVMultiGraphForm::kMarginLeft; x < kWidth - TVMultiGraphForm::kMarginRight; ++x) {
      const uint8_t* p = &ranged.Pixels[(static_cast<size_t>(y) * ranged.Width + x) * 3];
      if (IsRed(p)) ++(x >= left && x <= right ? redInside : redOutside);
      if (IsBlue(p) && x < left) ++blueLeft;
      if (IsBlue(p) && x > right) ++blueRight;
    }
  EXPECT_GT(redInside, 50);
  EXPECT_EQ(redOutside, 0);
  // It is the fitted curve still: the range changes the drawing, not the fit.
  EXPECT_EQ(status->text().toStdString(), "Fit Successful");
  const TGraphDrawInformation& shownNow = viewer->GetGraphInfo(1);
  const auto [rangedX, rangedY] = Topmost(ranged, IsRed);
  EXPECT_NEAR(rangedX, ColumnOf(centre), columns + 1);
  EXPECT_NEAR(rangedY,
              TVMultiGraphForm::kMarginTop +
                  (shownNow.DisplayMaxY - peak) / (shownNow.DisplayMaxY - shownNow.DisplayMinY) * plot,
              0.05 * plot);
  EXPECT_GT(blueLeft, 10);
  EXPECT_GT(blueRight, 10);
  // Reset Range: the whole axis again.
  QPushButton* reset = ButtonOf(*window, "Reset Range");
  ASSERT_NE(reset, nullptr);
  reset->click();
  QApplication::processEvents();
  EXPECT_GT(preview->GetCurveAxis().size(), 60u);
  EXPECT_NEAR(start0->value(), preview->GetRange().Start, 1e-6);

  // Fit on Change: the extract command fits first.
  mode->setCurrentText(TAdvancedFittingPreview::kFitOnChange);
  QApplication::processEvents();
  EXPECT_EQ(extract->text().toStdString(), "Fit and Extract Current");

  // Drawn with the mouse in the preview's mask mode, 600 … 620 joins the fit mask.
  viewer->SetGraphMouseMode(TGraphMouseMode::Mask);
  EXPECT_EQ(viewer->GetMaskTool(), &maskLink->Mask());
  ASSERT_TRUE(viewer->SetXRange(450, 650));
  TOpenGLView& view = viewer->GetOpenGLView();
  const int from = static_cast<int>(std::lround(viewer->XToWindow(600)));
  const int to = static_cast<int>(std::lround(viewer->XToWindow(620)));
  view.MouseDown(from, kHeight / 2, TOpenGLMouseButton::Left, {});
  view.MouseMove(to, kHeight / 2, {});
  view.MouseUp(to, kHeight / 2, TOpenGLMouseButton::Left, {});
  QApplication::processEvents();
  std::vector<bool> drawn;
  std::string maskError;
  ASSERT_TRUE(
      ReadGraphMaskForGraph(FProject, FIDs.Map, tool->GetStringParameter("Fit Mask"), "", drawn, maskError))
      << maskError;
  int inTyped = 0, inDrawn = 0, elsewhere = 0;
  for (size_t g = 0; g < drawn.size(); ++g) {
    if (!drawn[g]) continue;
    const double x = axis[g];
    (x >= 480 && x <= 560 ? inTyped : x >= 595 && x <= 625 ? inDrawn : elsewhere)++;
  }
  EXPECT_GT(inTyped, 10);
  EXPECT_GT(inDrawn, 3) << tool->GetStringParameter("Fit Mask");
  EXPECT_EQ(elsewhere, 0);

  const int32_t fitGraph = preview->GetFitGraphID();
  window->close();
  EXPECT_FALSE(tool->GetIsActive());
  EXPECT_EQ(FProject.FindData(fitGraph), nullptr);
}

} // namespace
