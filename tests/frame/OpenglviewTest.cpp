// Scenes drawn in a real window (Xvfb, Mesa's software rasteriser) and read back: a curve's apex in the
// right column, the background colour, a semi-transparent mask that blends alike in any adding order,
// picking, axis labels that put glyphs at their ticks, exports that scale line widths, pictures written to
// files, and a viewer window hosting its viewer's scene. Every picture is also written as PNG to the
// screenshot folder for a look by eye.
#include "opengl/Openglview.h"

#include "frame/FrameTestSupport.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qtviewerwindow.h"
#include "frame/Viewexport.h"
#include "imaging/Rasterfile.h"
#include "opengl/Openglgraph.h"
#include "opengl/Openglobjects.h"
#include "project/Viewerbase.h"
#include "support/TestSupport.h"

#include <QImage>
#include <QPointer>
#include <QVBoxLayout>
#include <cmath>
#include <filesystem>
#include <memory>

#include <gtest/gtest.h>

namespace {

constexpr int kWidth = 400;
constexpr int kHeight = 300;

struct TRGB {
  int R, G, B;
};

TRGB PixelAt(const TOpenGLBitmap& b, int x, int y) {
  const uint8_t* p = &b.Pixels[(static_cast<size_t>(y) * b.Width + x) * 3];
  return {p[0], p[1], p[2]};
}

bool IsRed(TRGB c) {
  return c.R > 200 && c.G < 90 && c.B < 90;
}

bool IsDark(TRGB c) {
  return c.R + c.G + c.B < 3 * 160;
}

void SaveScreenshot(const TOpenGLBitmap& bitmap, const std::string& name) {
  std::filesystem::create_directories(ORVEX_SCREENSHOT_DIR);
  std::string error;
  WriteRasterFile(std::string(ORVEX_SCREENSHOT_DIR) + "/" + name + ".png", RasterImageFromBitmap(bitmap),
                  error);
}

/// A window with a rendering widget on a view, shown and drawn once.
class OpenGLViewWindowTest : public ::testing::Test {
protected:
  void SetUp() override {
    FWindow = std::make_unique<QWidget>();
    auto* layout = new QVBoxLayout(FWindow.get());
    layout->setContentsMargins(0, 0, 0, 0);
    FWidget = new TQtOpenGLWidget(&FView, FWindow.get());
    FWidget->setFixedSize(kWidth, kHeight);
    layout->addWidget(FWidget);
    FWindow->show();
    ASSERT_TRUE(oxframetest::WaitFor([&] { return FWidget->FrameCount() > 0; }));
    ASSERT_TRUE(FView.IsActive());
    ASSERT_EQ(FView.GetWidth(), kWidth);
    ASSERT_EQ(FView.GetHeight(), kHeight);
  }
  void TearDown() override {
    FWindow.reset(); // the widget gives up the view's GL names; the view goes after
  }

  TOpenGLBitmap Export(double scale = 1) {
    TOpenGLBitmap bitmap;
    EXPECT_TRUE(FView.ExportBitmap(scale, bitmap));
    return bitmap;
  }

  /// The widget's own framebuffer after a repaint, as the window shows it.
  TOpenGLBitmap Grab() {
    const int before = FWidget->FrameCount();
    FWidget->update();
    oxframetest::WaitFor([&] { return FWidget->FrameCount() > before; });
    const QImage image = FWidget->grabFramebuffer().convertToFormat(QImage::Format_RGB888);
    TOpenGLBitmap bitmap;
    bitmap.Width = image.width();
    bitmap.Height = image.height();
    for (int y = 0; y < image.height(); ++y)
      bitmap.Pixels.insert(bitmap.Pixels.end(), image.constScanLine(y),
                           image.constScanLine(y) + image.width() * 3);
    return bitmap;
  }

  TOpenGLGraph* AddHorizontalLine(double y, float width) {
    auto graph = std::make_unique<TOpenGLGraph>();
    const double xs[] = {20, 380};
    const double ys[] = {y, y};
    graph->SetDataPoints(xs, ys, 2);
    graph->SetLineWidth(width);
    return FView.Add(std::move(graph));
  }

  TOpenGLView FView; // declared before the window, so it outlives it
  std::unique_ptr<QWidget> FWindow;
  TQtOpenGLWidget* FWidget = nullptr;
};

TEST_F(OpenGLViewWindowTest, LorentzianApexStandsInItsColumnOnTheBackground) {
  FView.SetClearColor(TOpenGLColor::FromRGB(30, 60, 90));
  auto graph = std::make_unique<TOpenGLGraph>();
  const double apex = 217.3;
  std::vector<double> xs, ys;
  for (double x = 0; x < kWidth; x += 0.25) {
    xs.push_back(x);
    ys.push_back(40 + 200 / (1 + (x - apex) * (x - apex) / 64));
  }
  graph->SetDataPoints(xs.data(), ys.data(), static_cast<int>(xs.size()));
  FView.Add(std::move(graph));
  for (const auto& [bitmap, name] :
       {std::pair{Export(), "lorentzian_export"}, std::pair{Grab(), "lorentzian_window"}}) {
    SaveScreenshot(bitmap, name);
    ASSERT_EQ(bitmap.Width, kWidth);
    // The background colour exactly, in the corners.
    for (auto [x, y] : {std::pair{0, 0}, std::pair{kWidth - 1, kHeight - 1}}) {
      const TRGB c = PixelAt(bitmap, x, y);
      EXPECT_EQ(c.R, 30);
      EXPECT_EQ(c.G, 60);
      EXPECT_EQ(c.B, 90);
    }
    // The topmost red row is the apex (y = 240 from the bottom, row 60 from the top); its red pixels
    // centre on the apex's column.
    int top = -1;
    for (int y = 0; y < kHeight && top < 0; ++y)
      for (int x = 0; x < kWidth; ++x)
        if (IsRed(PixelAt(bitmap, x, y))) {
          top = y;
          break;
        }
    EXPECT_NEAR(top, kHeight - 240, 1) << name;
    double sum = 0;
    int count = 0;
    for (int x = 0; x < kWidth; ++x)
      if (IsRed(PixelAt(bitmap, x, top))) sum += x, ++count;
    ASSERT_GT(count, 0);
    EXPECT_NEAR(sum / count, apex, 1.0) << name;
  }
}

TEST_F(OpenGLViewWindowTest, SemiTransparentMaskBlendsAlikeInAnyAddingOrder) {
  auto addMask = [&] {
    auto mask = std::make_unique<TOpenGLMultiMask>();
    mask->SetColor({0, 0, 1, 0.5f});
    mask->AddRectangle({100, 0, 200, kHeight});
    FView.Add(std::move(mask));
  };
  AddHorizontalLine(150, 5);
  addMask();
  const TOpenGLBitmap curveFirst = Export();
  FView.ClearObjects();
  addMask();
  AddHorizontalLine(150, 5);
  const TOpenGLBitmap maskFirst = Export();
  SaveScreenshot(maskFirst, "mask_over_curve");
  EXPECT_EQ(curveFirst.Pixels, maskFirst.Pixels);
  // The curve shows through the mask: half red, half blue; white beside it: half white, half blue.
  const TRGB through = PixelAt(maskFirst, 150, kHeight - 150);
  EXPECT_NEAR(through.R, 128, 2);
  EXPECT_NEAR(through.G, 0, 2);
  EXPECT_NEAR(through.B, 128, 2);
  const TRGB beside = PixelAt(maskFirst, 150, 40);
  EXPECT_NEAR(beside.R, 128, 2);
  EXPECT_NEAR(beside.B, 255, 2);
  // Outside the mask the curve stays pure red.
  const TRGB outside = PixelAt(maskFirst, 300, kHeight - 150);
  EXPECT_EQ(outside.R, 255);
  EXPECT_EQ(outside.B, 0);
}

TEST_F(OpenGLViewWindowTest, PickingHitsTheCurveNotEmptySpace) {
  TOpenGLGraph* line = AddHorizontalLine(150, 1);
  auto plane = std::make_unique<TOpenGLFlatPlane>();
  plane->SetSize(40, 40);
  plane->SetPosition({300, 200, 0});
  plane->SetSelectable(false); // can't be picked
  FView.Add(std::move(plane));
  FView.SetPickAreaSize(3);
  // Window row 150 from the top is model y 150.
  const std::vector<TOpenGLHit> hits = FView.GetObjectsByCoordinates(200, kHeight - 150);
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].Object, line);
  EXPECT_TRUE(FView.GetObjectsByCoordinates(200, 50).empty());
  EXPECT_TRUE(FView.GetObjectsByCoordinates(320, kHeight - 220).empty());
  // Two pixels off the line: a 3-pixel area misses it, a 7-pixel area catches it.
  EXPECT_TRUE(FView.GetObjectsByCoordinates(200, kHeight - 153).empty());
  FView.SetPickAreaSize(7);
  EXPECT_EQ(FView.SelectSingleObject(200, kHeight - 153), line);
  EXPECT_TRUE(line->GetSelected());
  EXPECT_EQ(FView.SelectSingleObject(200, 20), nullptr);
  EXPECT_FALSE(line->GetSelected());
}

TEST_F(OpenGLViewWindowTest, LabelsDarkenPixelsBelowTheirTicks) {
  auto owned = std::make_unique<TOpenGLAxis>();
  TOpenGLAxis* axis = owned.get();
  FView.Add(std::move(owned));
  axis->SetStart({50, 60, 0});
  axis->SetEnd({350, 60, 0});
  axis->SetDirectionVector({0, -1, 0});
  axis->SetWorldStart(0);
  axis->SetWorldEnd(300);
  axis->SetLabelFontSize2D(12);
  axis->SetCaption("Wavenumber");
  axis->SetUnitCaption("cm⁻¹");
  // Dark pixels in the band below the tick ends (ticks are 5 long; labels start 0.8 × 12 below the axis).
  auto darkBelow = [&](const TOpenGLBitmap& b, double x) {
    int dark = 0;
    const int top = kHeight - 60 + 7;
    for (int y = top; y < top + 14; ++y)
      for (int dx = -12; dx <= 12; ++dx)
        if (IsDark(PixelAt(b, static_cast<int>(std::lround(x)) + dx, y))) ++dark;
    return dark;
  };
  const TOpenGLBitmap labelled = Export();
  SaveScreenshot(labelled, "axis_labels");
  ASSERT_GE(axis->ActualNrOfTicks(), 3);
  for (int i = 0; i < axis->ActualNrOfTicks(); ++i) {
    const double x = 50 + axis->Ticks().TickPositions()[static_cast<size_t>(i)];
    EXPECT_GE(darkBelow(labelled, x), 8) << "label " << axis->Labels()[static_cast<size_t>(i)]->GetText();
  }
  // The caption stands further down, centred.
  int captionDark = 0;
  for (int y = kHeight - 60 + 24; y < kHeight - 60 + 50; ++y)
    for (int x = 120; x < 280; ++x) captionDark += IsDark(PixelAt(labelled, x, y));
  EXPECT_GE(captionDark, 40);
  axis->SetLabelsVisible(false);
  const TOpenGLBitmap bare = Export();
  for (int i = 0; i < axis->ActualNrOfTicks(); ++i)
    EXPECT_EQ(darkBelow(bare, 50 + axis->Ticks().TickPositions()[static_cast<size_t>(i)]), 0);
}

TEST_F(OpenGLViewWindowTest, UnitCharactersHaveGlyphs) {
  auto add = [&](const std::string& s, double y) {
    auto text = std::make_unique<TOpenGLText>();
    text->SetText(s);
    text->SetFontSize(24);
    text->SetColor({0, 0, 0, 1});
    text->SetPosition({20, y, 0});
    return FView.Add(std::move(text));
  };
  TOpenGLText* plain = add("A", 250);
  TOpenGLText* ring = add("Å", 200);
  TOpenGLText* units = add("µm cm⁻¹", 120);
  const TOpenGLBitmap b = Export();
  SaveScreenshot(b, "unit_glyphs");
  EXPECT_GT(units->Measure().Width, ring->Measure().Width);
  auto darkIn = [&](int x0, int x1, int yTop, int yBottom) {
    int dark = 0;
    for (int y = yTop; y < yBottom; ++y)
      for (int x = x0; x < x1; ++x) dark += IsDark(PixelAt(b, x, y));
    return dark;
  };
  // Above the baseline, over the letter's width: the ring adds dark pixels above the A's cap height.
  const int aWidth = static_cast<int>(plain->Measure().Width);
  EXPECT_GT(darkIn(20, 20 + aWidth, kHeight - 250 - 24, kHeight - 250), 20);
  EXPECT_GT(darkIn(20, 20 + aWidth, kHeight - 200 - 30, kHeight - 200 - 18),
            darkIn(20, 20 + aWidth, kHeight - 250 - 30, kHeight - 250 - 18));
  // Every character of the unit text drew something: dark pixels in each of its eighths.
  const int width = static_cast<int>(units->Measure().Width);
  ASSERT_GT(width, 40);
  int darkSections = 0;
  for (int i = 0; i < 7; ++i)
    darkSections +=
        darkIn(20 + i * width / 7, 20 + (i + 1) * width / 7, kHeight - 120 - 24, kHeight - 120 + 8) > 0;
  EXPECT_EQ(darkSections, 7);
}

TEST_F(OpenGLViewWindowTest, ExportAtTwiceTheSizeDoublesLineWidths) {
  AddHorizontalLine(150, 3);
  auto redRows = [](const TOpenGLBitmap& b, int x) {
    int rows = 0;
    for (int y = 0; y < b.Height; ++y) rows += IsRed(PixelAt(b, x, y));
    return rows;
  };
  const TOpenGLBitmap single = Export(1);
  const TOpenGLBitmap twice = Export(2);
  SaveScreenshot(twice, "line_export_2x");
  ASSERT_EQ(twice.Width, 2 * kWidth);
  ASSERT_EQ(twice.Height, 2 * kHeight);
  EXPECT_EQ(redRows(single, 200), 3);
  EXPECT_EQ(redRows(twice, 400), 6);
  // The screen is drawn at its own scale again afterwards.
  EXPECT_EQ(FView.GetReferenceScale(), 1);
  EXPECT_EQ(redRows(Grab(), 200), 3);
}

TEST_F(OpenGLViewWindowTest, ExportWritesThePictureAndRefusesUnknownFormats) {
  AddHorizontalLine(100, 2);
  oxtest::TempDir dir;
  std::string error;
  ASSERT_TRUE(ExportViewBitmap(FView, dir.File("view.png"), 1, error)) << error;
  TRasterImage read;
  ASSERT_TRUE(ReadRasterFile(dir.File("view.png"), read, error)) << error;
  const TOpenGLBitmap direct = Export();
  EXPECT_EQ(read.Width, direct.Width);
  EXPECT_EQ(read.Pixels, direct.Pixels);
  EXPECT_FALSE(ExportViewBitmap(FView, dir.File("view.xyz"), 1, error));
  EXPECT_NE(error.find("view.xyz"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir.File("view.xyz")));
}

/// A viewer that draws a scene.
class TVTestGraphicForm : public TVCustomForm, public IOpenGLViewOwner {
public:
  std::string GetClassNameA() const override { return "TVTestGraphicForm"; }
  TOpenGLView& GetOpenGLView() override { return FView; }
  TOpenGLView FView;
};

TEST(QtViewerWindowOpenGLTest, GraphicViewerGetsARenderingWidgetAndMayGoFirst) {
  auto viewer = std::make_unique<TVTestGraphicForm>();
  viewer->FView.SetClearColor({0, 1, 0, 1});
  auto* window = new TQtViewerWindow(viewer.get(), nullptr);
  window->resize(300, 200);
  window->show();
  TQtOpenGLWidget* widget = window->OpenGLWidget();
  ASSERT_NE(widget, nullptr);
  ASSERT_TRUE(oxframetest::WaitFor([&] { return widget->FrameCount() > 0; }));
  EXPECT_TRUE(viewer->FView.IsActive());
  const QImage image = widget->grabFramebuffer();
  EXPECT_EQ(image.pixelColor(5, 5), QColor(0, 255, 0));
  // The viewer (and its view) goes before the window: the widget forgets the view and keeps drawing.
  QPointer<TQtViewerWindow> guard(window);
  viewer.reset();
  EXPECT_EQ(widget->View(), nullptr);
  EXPECT_TRUE(oxframetest::WaitFor([&] {
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return guard.isNull();
  }));
}

} // namespace
