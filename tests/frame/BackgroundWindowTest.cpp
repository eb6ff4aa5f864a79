// The background tool's window on the demo map in real windows: a mask toolbar under each mask text in its
// band's colour, the preview with spectrum, background and both masks' bands, a band drawn with the mouse
// in the preview's mask mode becoming the "Fit Mask" text, "Get Mask Average" over pixels drawn into the
// intensity image making the reference graph, "Drop Spectrum"/"Clear Spectrum" and the messages.
// Screenshots go to the screenshot folder for a look.
#include "FrameTestSupport.h"
#include "ViewerWindowSupport.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "frame/Qtgraphmasktoolbar.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qtparampanel.h"
#include "frame/Qttoolwindow.h"
#include "frame/Qtviewerwindow.h"
#include "project/Demodataset.h"
#include "project/Graphmask.h"
#include "project/Graphmaskparameter.h"
#include "project/Processingdialogforms.h"
#include "project/Project.h"
#include "tools/Registertools.h"
#include "tools/spectral/Graphbackgroundsubtraction.h"
#include "viewers/Viewershow.h"
#include "viewers/Vimage.h"
#include "viewers/Vmultigraph.h"

#include <QApplication>
#include <QDropEvent>
#include <QFrame>
#include <QLineEdit>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QSpinBox>
#include <QToolButton>
#include <cmath>

#include <gtest/gtest.h>

namespace {

using oxframetest::Keep;
using oxframetest::WaitFor;
using oxframetest::WindowPointOfPixel;

constexpr int kWidth = 900;
constexpr int kHeight = 500;

struct TRGB {
  int R, G, B;
};
TRGB RGBOf(uint32_t bgr) {
  return {int(bgr & 0xFF), int((bgr >> 8) & 0xFF), int((bgr >> 16) & 0xFF)};
}
TRGB At(const QImage& image, int x, int y) {
  const QColor c = image.pixelColor(x, y);
  return {c.red(), c.green(), c.blue()};
}
bool Near(TRGB c, TRGB want, int tolerance) {
  return std::abs(c.R - want.R) <= tolerance && std::abs(c.G - want.G) <= tolerance &&
         std::abs(c.B - want.B) <= tolerance;
}
// White seen through band colour index band.
TRGB BandOnWhite(int band) {
  const TRGB c = RGBOf(GraphMaskBandColor(band));
  const float a = kGraphMaskBandAlpha;
  return {int(std::lround(255 * (1 - a) + c.R * a)), int(std::lround(255 * (1 - a) + c.G * a)),
          int(std::lround(255 * (1 - a) + c.B * a))};
}
int CountColour(const QImage& image, TRGB want, int tolerance) {
  int n = 0;
  for (int y = 0; y < image.height(); ++y)
    for (int x = 0; x < image.width(); ++x) n += Near(At(image, x, y), want, tolerance);
  return n;
}

using oxframetest::ButtonOf;

class BackgroundWindowTest : public ::testing::Test {
protected:
  void SetUp() override { FIDs = oxframetest::CreateWorkbenchDemo(FProject, 20, 20, 1024); }
  void TearDown() override { TQtToolHost::Instance().CloseAll(); }

  void SetText(TQtToolWindow& window, const std::string& name, const std::string& text) {
    auto* edit = qobject_cast<QLineEdit*>(window.Panel()->ControlOf(name));
    ASSERT_NE(edit, nullptr) << name;
    edit->setText(QString::fromStdString(text));
    emit edit->editingFinished();
    QApplication::processEvents();
  }

  TProject FProject;
  TDemoIDs FIDs;
};

TEST_F(BackgroundWindowTest, MasksShowOnThePreviewFollowDrawingAndTheReferenceComesFromTheImageMask) {
  std::vector<std::string> told;
  oxframetest::TModalWatcher watcher([&told](QWidget* modal) {
    auto* box = qobject_cast<QMessageBox*>(modal);
    if (!box) return false;
    told.push_back(box->text().toStdString());
    box->button(QMessageBox::Ok) ? box->button(QMessageBox::Ok)->click() : box->accept();
    return true;
  });
  auto* tool = dynamic_cast<TGraphBackgroundSubtractionForm*>(
      TQtToolHost::Instance().OpenTool("GraphBackgroundSubtraction", FProject, {FIDs.Map}));
  ASSERT_NE(tool, nullptr);
  TQtToolWindow* window = TQtToolHost::Instance().WindowOf("GraphBackgroundSubtraction");
  ASSERT_TRUE(window);
  ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));

  // A toolbar under each mask text, its colour panel in the colour of the mask's band.
  TQtGraphMaskToolBar* fitBar = window->MaskToolBarOf("Fit Mask");
  TQtGraphMaskToolBar* changeBar = window->MaskToolBarOf("Change Mask");
  ASSERT_TRUE(fitBar && changeBar);
  EXPECT_EQ(window->MaskToolBarOf("Order"), nullptr);
  ASSERT_TRUE(window->MaskLinkOf("Fit Mask") && window->MaskLinkOf("Change Mask"));
  EXPECT_EQ(fitBar->Logic().GetGraphMask(), &window->MaskLinkOf("Fit Mask")->Mask());
  for (auto [bar, band] : {std::pair{fitBar, 0}, std::pair{changeBar, 1}}) {
    const QImage panel = bar->ColorPanel()->grab().toImage();
    EXPECT_TRUE(Near(At(panel, panel.width() / 2, panel.height() / 2), RGBOf(GraphMaskBandColor(band)), 0));
  }
  EXPECT_GT(fitBar->mapTo(window, QPoint(0, 0)).y(),
            window->Panel()->ControlOf("Fit Mask")->mapTo(window, QPoint(0, 0)).y());

  // The preview in its window: spectrum and background.
  auto* preview = dynamic_cast<TVMultiGraphForm*>(tool->GetPreviewViewer());
  ASSERT_TRUE(preview);
  TQtViewerWindow* previewWindow = oxframetest::WindowOfViewer(preview);
  ASSERT_TRUE(previewWindow);
  previewWindow->OpenGLWidget()->setFixedSize(kWidth, kHeight);
  ASSERT_TRUE(WaitFor([&] { return previewWindow->OpenGLWidget()->FrameCount() > 0; }));
  ASSERT_TRUE(tool->Parameters().SetParameterValuesFromText({"Method=Auto Polynomial", "Order=1"}).empty());
  ASSERT_TRUE(preview->SetXRange(300, 1900));

  // Masks typed as text show as bands: the fit mask over 560 … 700, the change mask over 1700 … 1850.
  SetText(*window, "Fit Mask", "560:700");
  SetText(*window, "Change Mask", "1700:1850");
  EXPECT_TRUE(window->MaskLinkOf("Fit Mask")->GetTextError().empty());
  QImage picture = oxframetest::Grab(previewWindow->OpenGLWidget());
  Keep(picture, "background_window_preview_bands");
  ASSERT_EQ(picture.width(), kWidth);
  const int row = TVMultiGraphForm::kMarginTop + 6;
  auto column = [&](double shift) { return static_cast<int>(std::lround(preview->XToWindow(shift))); };
  EXPECT_TRUE(Near(At(picture, column(630), row), BandOnWhite(0), 4));
  EXPECT_TRUE(Near(At(picture, column(1775), row), BandOnWhite(1), 4));
  EXPECT_TRUE(Near(At(picture, column(900), row), {255, 255, 255}, 2));
  // The curves: the spectrum red, its background blue.
  EXPECT_GT(CountColour(picture, RGBOf(TColorList::GetColor(0)), 60), 400);
  EXPECT_GT(CountColour(picture, RGBOf(TColorList::GetColor(1)), 60), 300);

  // Drawn with the mouse in the preview's mask mode, over 1000 … 1100: the fit mask takes the points.
  preview->SetGraphMouseMode(TGraphMouseMode::Mask);
  EXPECT_EQ(preview->GetMaskTool(), &window->MaskLinkOf("Fit Mask")->Mask());
  TOpenGLView& view = preview->GetOpenGLView();
  view.MouseDown(column(1000), kHeight / 2, TOpenGLMouseButton::Left, {});
  view.MouseMove(column(1100), kHeight / 2, {});
  view.MouseUp(column(1100), kHeight / 2, TOpenGLMouseButton::Left, {});
  QApplication::processEvents();
  const std::string fitText = tool->GetStringParameter("Fit Mask");
  EXPECT_NE(fitText, "560:700");
  EXPECT_EQ(fitText.find("px"), std::string::npos) << fitText;
  // The text reads back to both runs, and the text field shows it.
  std::vector<bool> points;
  std::string error;
  ASSERT_TRUE(ReadGraphMaskForGraph(FProject, FIDs.Map, fitText, "", points, error)) << error;
  TGraphMaskAxis axis;
  ASSERT_TRUE(GetGraphMaskAxis(FProject, FIDs.Map, "", axis, error)) << error;
  int inDrawn = 0, inTyped = 0, elsewhere = 0;
  for (size_t i = 0; i < points.size(); ++i) {
    if (!points[i]) continue;
    const double x = axis.Values[i];
    if (x >= 995 && x <= 1105)
      ++inDrawn;
    else if (x >= 560 && x <= 700)
      ++inTyped;
    else
      ++elsewhere;
  }
  EXPECT_GT(inDrawn, 10);
  EXPECT_GT(inTyped, 10);
  EXPECT_EQ(elsewhere, 0);
  EXPECT_EQ(qobject_cast<QLineEdit*>(window->Panel()->ControlOf("Fit Mask"))->text().toStdString(), fitText);
  picture = oxframetest::Grab(previewWindow->OpenGLWidget());
  Keep(picture, "background_window_preview_drawn");
  EXPECT_TRUE(Near(At(picture, column(1050), row), BandOnWhite(0), 4));
  EXPECT_EQ(tool->GetStringParameter("Change Mask"), "1700:1850");
  window->grab().save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/background_window.png"));

  // A click on the change mask's toolbar works on that mask and hands it to the preview for drawing.
  changeBar->Button(TGraphMaskCommand::InvertAll)->click();
  QApplication::processEvents();
  EXPECT_EQ(preview->GetMaskTool(), &window->MaskLinkOf("Change Mask")->Mask());
  EXPECT_EQ(preview->GetGraphMouseMode(), TGraphMouseMode::Mask);
  const std::string inverted = tool->GetStringParameter("Change Mask");
  EXPECT_EQ(qobject_cast<QLineEdit*>(window->Panel()->ControlOf("Change Mask"))->text().toStdString(),
            inverted);
  ASSERT_TRUE(ReadGraphMaskForGraph(FProject, FIDs.Map, inverted, "", points, error)) << error;
  for (size_t i = 0; i < points.size(); ++i)
    ASSERT_EQ(points[i], !(axis.Values[i] >= 1700 && axis.Values[i] <= 1850)) << i;
  EXPECT_EQ(tool->GetStringParameter("Fit Mask"), fitText);
  changeBar->Button(TGraphMaskCommand::SetAll)->click();
  EXPECT_EQ(tool->GetStringParameter("Change Mask"), "all");
  // A mask over every point shows no band: the change mask's part of the plot is white again.
  picture = oxframetest::Grab(previewWindow->OpenGLWidget());
  EXPECT_TRUE(Near(At(picture, column(1775), row), {255, 255, 255}, 2));
  EXPECT_TRUE(Near(At(picture, column(1050), row), BandOnWhite(0), 4));

  // "Drop Spectrum" with none held says how to use it.
  QPushButton* drop = ButtonOf(*window, "Drop Spectrum");
  ASSERT_TRUE(drop);
  drop->click();
  ASSERT_TRUE(WaitFor([&] { return !told.empty(); }));
  EXPECT_EQ(told.back(), TGraphBackgroundSubtractionForm::kDropSpectrumMessage);

  // "Get Mask Average" with nothing drawn says the mask is empty.
  TVImageForm* intensity = nullptr;
  for (TVCustomForm* viewer : tool->GetCustomForms())
    if (auto* image = dynamic_cast<TVImageForm*>(viewer)) intensity = image;
  ASSERT_TRUE(intensity);
  TQtViewerWindow* intensityWindow = oxframetest::WindowOfViewer(intensity);
  ASSERT_TRUE(intensityWindow);
  ASSERT_TRUE(WaitFor([&] { return intensityWindow->OpenGLWidget()->FrameCount() > 0; }));
  EXPECT_EQ(intensity->GetImageMouseMode(), TImageMouseMode::DrawPen);
  ASSERT_TRUE(intensity->DrawField().Exists());
  QPushButton* average = ButtonOf(*window, "Get Mask Average");
  ASSERT_TRUE(average);
  const size_t toldBefore = told.size();
  average->click();
  ASSERT_TRUE(WaitFor([&] { return told.size() > toldBefore; }));
  EXPECT_EQ(told.back(), TGraphBackgroundSubtractionForm::kMaskEmptyMessage);
  EXPECT_FALSE(tool->HasReferenceSpectrum());

  // Pixels (3, 4) and (12, 15) marked with the pen, as a user does.
  const auto* image = dynamic_cast<const TDImage*>(FProject.FindData(intensity->GetImageColorID()));
  ASSERT_TRUE(image);
  TOpenGLView& imageView = intensity->GetOpenGLView();
  for (auto [x, y] : {std::pair{3, 4}, std::pair{12, 15}}) {
    const QPoint at = WindowPointOfPixel(FProject, *image, *intensity, x, y);
    imageView.MouseDown(at.x(), at.y(), TOpenGLMouseButton::Left, {});
    imageView.MouseMove(at.x() + 1, at.y(), {});
    imageView.MouseUp(at.x() + 1, at.y(), TOpenGLMouseButton::Left, {});
  }
  ASSERT_TRUE(intensity->DrawField().GetPixel(3, 4));
  ASSERT_TRUE(intensity->DrawField().GetPixel(12, 15));
  const int64_t drawn = intensity->DrawField().GetNumberOfPixels(true);
  Keep(oxframetest::Grab(intensityWindow->OpenGLWidget()), "background_window_intensity_drawn");
  const size_t objects = FProject.DataList().size();
  average->click();
  QApplication::processEvents();
  ASSERT_TRUE(tool->HasReferenceSpectrum());
  EXPECT_EQ(FProject.DataList().size(), objects + 1);
  const auto* reference =
      dynamic_cast<const TDGraph*>(FProject.FindData(tool->GetIntParameter("Reference Spectrum")));
  ASSERT_TRUE(reference);
  EXPECT_EQ(reference->GetNumberOfSpectra(), 1);
  // Its values are the average over the drawn pixels.
  const auto& map = *dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map));
  std::vector<double> sum(1024, 0.0);
  std::vector<float> s(1024);
  for (int y = 0; y < 20; ++y)
    for (int x = 0; x < 20; ++x)
      if (intensity->DrawField().GetPixel(x, y)) {
        map.GetSpectrum(x, y, s.data());
        for (int i = 0; i < 1024; ++i) sum[i] += s[i];
      }
  reference->GetSpectrum(0, 0, s.data());
  for (int i : {0, 300, 700, 1023}) EXPECT_NEAR(s[i], sum[i] / drawn, 1e-3 * std::fabs(sum[i] / drawn)) << i;
  EXPECT_EQ(drop->text(), "Clear Spectrum");
  auto* referenceField = qobject_cast<QSpinBox*>(window->Panel()->ControlOf("Reference Spectrum"));
  ASSERT_TRUE(referenceField);
  EXPECT_EQ(referenceField->value(), reference->GetID());
  window->grab().save(
      QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/background_window_reference.png"));

  // "Clear Spectrum" lets it go; a graph dropped on the button is taken again.
  const int32_t referenceID = reference->GetID();
  drop->click();
  QApplication::processEvents();
  EXPECT_FALSE(tool->HasReferenceSpectrum());
  EXPECT_EQ(drop->text(), "Drop Spectrum");
  EXPECT_EQ(referenceField->value(), 0);
  // A drag enters the button, then drops there, as the toolkit delivers them.
  auto dragAndDrop = [drop](const QMimeData& mime) {
    QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(drop, &enter);
    if (!enter.isAccepted()) return false;
    QDropEvent dropped(QPointF(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(drop, &dropped);
    return true;
  };
  QMimeData mime;
  mime.setText(QString::number(referenceID));
  ASSERT_TRUE(dragAndDrop(mime));
  EXPECT_EQ(tool->GetIntParameter("Reference Spectrum"), referenceID);
  EXPECT_EQ(drop->text(), "Clear Spectrum");
  // The map itself is more than one spectrum: refused with the reason.
  mime.setText(QString::number(FIDs.Map));
  const size_t toldBeforeMap = told.size();
  ASSERT_TRUE(dragAndDrop(mime));
  ASSERT_TRUE(WaitFor([&] { return told.size() > toldBeforeMap; }));
  EXPECT_NE(told.back().find("not one"), std::string::npos) << told.back();
  EXPECT_EQ(tool->GetIntParameter("Reference Spectrum"), referenceID);
  QMimeData words;
  words.setText("a spectrum");
  EXPECT_FALSE(dragAndDrop(words)) << "text that names no graph isn't taken";

  // Closing lets the preview go with the masks' links.
  window->close();
  EXPECT_FALSE(tool->GetIsActive());
  EXPECT_EQ(window->MaskLinkOf("Fit Mask"), nullptr);
}

} // namespace
