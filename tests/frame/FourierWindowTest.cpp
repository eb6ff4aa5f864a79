// The Image Fourier Filter in real windows: opened from the tool host on an image of vertical stripes
// (a cosine along x), the amplitude viewer shows bright spots at the stripes' frequency either side of
// frequency 0 in pixel (N/2, N/2) (N odd, so the rounding counts); the pen marks both spots in the amplitude
// viewer's draw field, and one wait later the preview has lost its stripes. Screenshots are kept.
#include "ViewerWindowSupport.h"
#include "data/Dimage.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qttoolwindow.h"
#include "frame/Qtviewerwindow.h"
#include "project/Project.h"
#include "support/SpaceTransformation.h"
#include "support/TestSupport.h"
#include "tools/Registertools.h"
#include "tools/image/Imagefourierfilter.h"
#include "viewers/Viewershow.h"
#include "viewers/Vimage.h"

#include <QApplication>
#include <QImage>
#include <cmath>
#include <filesystem>
#include <numbers>

#include <gtest/gtest.h>

namespace {

using namespace oxframetest;

constexpr int kN = 63;      // odd: frequency 0 at pixel 31
constexpr int kPeriods = 9; // stripes across the image: spots at 31 +- 9

double Stripes(int x) {
  return 2.0 + std::cos(2 * std::numbers::pi * kPeriods * x / kN);
}

bool SameColour(const QImage& image, QPoint a, QPoint b, int tolerance = 6) {
  const QColor ca = image.pixelColor(a), cb = image.pixelColor(b);
  return std::abs(ca.red() - cb.red()) <= tolerance && std::abs(ca.green() - cb.green()) <= tolerance &&
         std::abs(ca.blue() - cb.blue()) <= tolerance;
}

class FourierWindowTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    RegisterViewers();
    RegisterAllTools();
    const int32_t spaceID = oxtest::AddSpaceTransformation(FProject, {0.1, 0.1, 1});
    auto image = std::make_unique<TDImage>();
    image->SetID(FProject.GetNewDataID());
    image->SetCaption("Stripes");
    image->SetFieldSize(kN, kN);
    image->SetSpaceTransformationID(spaceID);
    std::vector<float> line(kN);
    for (int y = 0; y < kN; ++y) {
      for (int x = 0; x < kN; ++x) line[static_cast<size_t>(x)] = static_cast<float>(Stripes(x));
      image->SetLine(y, line.data());
    }
    image->SetAllLinesValid();
    FImageID = image->GetID();
    FProject.AddData(std::move(image));
  }
  void TearDown() override { TQtToolHost::Instance().CloseAll(); }

  TProject FProject;
  int32_t FImageID = 0;
};

TEST_F(FourierWindowTest, AmplitudeSpotsMarkedByHandLeaveThePreviewWithoutStripes) {
  auto* tool = dynamic_cast<TImageFourierFilterForm*>(
      TQtToolHost::Instance().OpenTool("ImageFourierFilter", FProject, {FImageID}));
  ASSERT_NE(tool, nullptr);
  ASSERT_EQ(tool->GetN(), kN);
  ASSERT_EQ(tool->GetCustomForms().size(), 2u);
  auto* amplitudeViewer = dynamic_cast<TVImageForm*>(tool->GetCustomForms()[0]);
  auto* previewViewer = dynamic_cast<TVImageForm*>(tool->GetCustomForms()[1]);
  ASSERT_NE(amplitudeViewer, nullptr);
  ASSERT_NE(previewViewer, nullptr);
  ASSERT_EQ(amplitudeViewer->GetImageColorID(), tool->GetAmplitudeImageID());
  ASSERT_EQ(previewViewer->GetImageColorID(), tool->GetPreviewImageID());
  TQtViewerWindow* amplitudeWindow = WindowOfViewer(amplitudeViewer);
  TQtViewerWindow* previewWindow = WindowOfViewer(previewViewer);
  ASSERT_NE(amplitudeWindow, nullptr) << "the tool's viewers get windows";
  ASSERT_NE(previewWindow, nullptr);
  ASSERT_TRUE(WaitFor([&] { return amplitudeWindow->isVisible() && previewWindow->isVisible(); }));
  // Large enough for several screen pixels per image pixel, as in the other viewer tests.
  amplitudeWindow->resize(760, 520);
  previewWindow->resize(760, 520);
  ASSERT_NE(amplitudeWindow->OpenGLWidget(), nullptr);
  ASSERT_NE(previewWindow->OpenGLWidget(), nullptr);
  ASSERT_TRUE(WaitFor([&] {
    return amplitudeWindow->OpenGLWidget()->FrameCount() > 0 &&
           previewWindow->OpenGLWidget()->FrameCount() > 0;
  }));
  // The amplitude viewer's draw field is the tool's, ready for the pen.
  EXPECT_EQ(amplitudeViewer->GetImageMouseMode(), TImageMouseMode::DrawPen);
  EXPECT_EQ(amplitudeViewer->DrawField().GetSizeX(), kN);
  EXPECT_EQ(amplitudeViewer->DrawField().GetNumberOfPixels(true), 0);

  // The amplitude: frequency 0 at (31, 31), the stripes at (31 +- 9, 31), dark elsewhere.
  const auto& amplitudeImage = *dynamic_cast<TDImage*>(FProject.FindData(tool->GetAmplitudeImageID()));
  const int c = kN / 2;
  EXPECT_NEAR(amplitudeImage.GetField(c, c), 2.0 * kN * kN, 1e-2 * kN * kN);
  EXPECT_NEAR(amplitudeImage.GetField(c + kPeriods, c), 0.5 * kN * kN, 1e-2 * kN * kN);
  EXPECT_NEAR(amplitudeImage.GetField(c - kPeriods, c), 0.5 * kN * kN, 1e-2 * kN * kN);
  EXPECT_LT(amplitudeImage.GetField(c + kPeriods + 3, c + 5), 1e-2 * kN * kN);
  // The automatic scale of an exact cosine reads its percentiles from round-off; the scale is set by hand
  // to the amplitude's range, as a user does, so that the spots stand out from a black background.
  amplitudeViewer->SetColorScale(0, 2.0 * kN * kN);
  const QImage amplitude = Grab(amplitudeWindow->OpenGLWidget());
  Keep(amplitude, "fourier-amplitude");
  const QPoint centre = WindowPointOfPixel(FProject, amplitudeImage, *amplitudeViewer, c, c);
  const QPoint right = WindowPointOfPixel(FProject, amplitudeImage, *amplitudeViewer, c + kPeriods, c);
  const QPoint left = WindowPointOfPixel(FProject, amplitudeImage, *amplitudeViewer, c - kPeriods, c);
  const QPoint background = WindowPointOfPixel(FProject, amplitudeImage, *amplitudeViewer, c + 4, c + 7);
  const QPoint above = WindowPointOfPixel(FProject, amplitudeImage, *amplitudeViewer, c, c - kPeriods);
  for (QPoint p : {centre, right, left, background, above}) ASSERT_TRUE(amplitude.rect().contains(p));
  // Each point shows the colour of its amplitude: the top colour at frequency 0, a quarter of the scale at
  // both spots, black around them.
  auto colourOf = [&](double value) { return amplitudeViewer->GetColorOfValue(value); };
  auto near = [&](QPoint p, TColor expected) {
    const QColor got = amplitude.pixelColor(p);
    return std::abs(got.red() - int(expected & 0xFF)) <= 3 &&
           std::abs(got.green() - int((expected >> 8) & 0xFF)) <= 3 &&
           std::abs(got.blue() - int((expected >> 16) & 0xFF)) <= 3;
  };
  EXPECT_TRUE(near(centre, colourOf(2.0 * kN * kN)));
  EXPECT_TRUE(near(right, colourOf(0.5 * kN * kN)));
  EXPECT_TRUE(near(left, colourOf(0.5 * kN * kN)));
  EXPECT_TRUE(near(background, colourOf(0)));
  EXPECT_TRUE(near(above, colourOf(0)));
  EXPECT_TRUE(SameColour(amplitude, right, left));
  EXPECT_FALSE(SameColour(amplitude, right, background, 60));
  EXPECT_FALSE(SameColour(amplitude, right, centre, 20));
  // Frequency 0 lies in the middle of the picture, the two spots symmetric about it on one row.
  EXPECT_NEAR(centre.x(), (left.x() + right.x()) / 2, 1);
  EXPECT_EQ(left.y(), right.y());
  EXPECT_EQ(centre.y(), right.y());

  // The preview first shows the stripes: a crest and a trough differ.
  const auto& previewImage = *dynamic_cast<TDImage*>(FProject.FindData(tool->GetPreviewImageID()));
  const QImage striped = Grab(previewWindow->OpenGLWidget());
  Keep(striped, "fourier-preview-striped");
  const QPoint crest = WindowPointOfPixel(FProject, previewImage, *previewViewer, 0, 20);
  const QPoint trough =
      WindowPointOfPixel(FProject, previewImage, *previewViewer, 3, 20); // x 9/63 = 1/7 period
  const QPoint crest2 = WindowPointOfPixel(FProject, previewImage, *previewViewer, 7, 40);
  EXPECT_FALSE(SameColour(striped, crest, trough, 30));
  EXPECT_TRUE(SameColour(striped, crest, crest2, 10));

  // Both spots marked with the pen (a short stroke over each), as a user does.
  amplitudeViewer->SetPenWidth(3);
  const int countBefore = tool->GetPreviewCount();
  TOpenGLView& view = amplitudeViewer->GetOpenGLView();
  for (QPoint spot : {right, left}) {
    view.MouseDown(spot.x(), spot.y(), TOpenGLMouseButton::Left, {});
    view.MouseMove(spot.x() + 1, spot.y(), {});
    view.MouseUp(spot.x() + 1, spot.y(), TOpenGLMouseButton::Left, {});
  }
  EXPECT_EQ(tool->GetPreviewCount(), countBefore) << "the preview waits for the end of the strokes";
  EXPECT_TRUE(tool->IsPreviewUpdatePending());
  ASSERT_TRUE(WaitFor([&] { return tool->GetPreviewCount() > countBefore; }));
  EXPECT_EQ(tool->GetPreviewCount(), countBefore + 1) << "one calculation for the whole series";
  const std::vector<uint8_t>& applied = tool->GetAppliedField();
  auto at = [](int x, int y) { return static_cast<size_t>(y) * kN + static_cast<size_t>(x); };
  EXPECT_EQ(applied[at(c + kPeriods, c)], 1);
  EXPECT_EQ(applied[at(c - kPeriods, c)], 1);
  EXPECT_EQ(applied[at(c, c)], 0) << "the constant part stays";
  EXPECT_EQ(tool->DrawField(), amplitudeViewer->DrawField().Flags());
  // The stripes are gone from the preview's values and its picture.
  for (int x = 0; x < kN; x += 5) EXPECT_NEAR(previewImage.GetField(x, 20), 2.0, 1e-4) << x;
  const QImage flat = Grab(previewWindow->OpenGLWidget());
  Keep(flat, "fourier-preview-filtered");
  EXPECT_TRUE(SameColour(flat, crest, trough, 10));
  // The marks show over the amplitude: red-tinted where the spots were.
  const QImage marked = Grab(amplitudeWindow->OpenGLWidget());
  Keep(marked, "fourier-amplitude-marked");
  EXPECT_FALSE(SameColour(marked, right, centre, 20));
  EXPECT_GT(marked.pixelColor(right).red(), marked.pixelColor(right).blue());
  // Away from the marks the picture is as before.
  EXPECT_EQ(marked.pixelColor(background), amplitude.pixelColor(background));

  // Closing the tool's window takes the viewers and their windows with it.
  TQtToolHost::Instance().WindowOf("ImageFourierFilter")->close();
  EXPECT_FALSE(tool->GetIsActive());
  EXPECT_TRUE(WaitFor([&] {
    QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    for (QWidget* widget : QApplication::topLevelWidgets())
      if (dynamic_cast<TQtViewerWindow*>(widget)) return false;
    return true;
  }));
}

} // namespace
