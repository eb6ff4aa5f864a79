// The image filter and image repair windows in real windows on the demo topography: the median's preview
// differs from the input exactly by the 3×3 median, and its preview viewer shows the profile colours of
// the median values; a stroke drawn with the mouse in "Draw your Mask here" becomes the repair mask, and the
// preview fills the stroke by line interpolation while every other pixel stays; the image filter window's
// custom filter is saved through its file dialog, listed from the user image filter folder and loaded back,
// and a file that is no custom filter is refused with "Load failed !". Screenshots are kept for a look.
#include "FrameTestSupport.h"
#include "ViewerWindowSupport.h"
#include "data/Dcolorprofile.h"
#include "data/Dimage.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qtparampanel.h"
#include "frame/Qttoolwindow.h"
#include "frame/Qtviewerwindow.h"
#include "project/Demodataset.h"
#include "project/Orvexdirectories.h"
#include "project/Processingdialogforms.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "tools/Registertools.h"
#include "tools/image/Imagefiltertool.h"
#include "tools/image/Imagerepairtool.h"
#include "viewers/Viewershow.h"
#include "viewers/Vimage.h"

#include <QApplication>
#include <QComboBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QImage>
#include <QLineEdit>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPushButton>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

namespace {

using namespace oxframetest;

constexpr int32_t kSizeX = 32;
constexpr int32_t kSizeY = 24;

std::vector<float> Values(TProject& project, int32_t id) {
  const auto* image = dynamic_cast<const TDImage*>(project.FindData(id));
  std::vector<float> values;
  if (!image) return values;
  values.resize(static_cast<size_t>(image->GetSizeX()) * static_cast<size_t>(image->GetSizeY()));
  for (int32_t y = 0; y < image->GetSizeY(); ++y)
    image->GetLine(y, values.data() + static_cast<size_t>(y) * static_cast<size_t>(image->GetSizeX()));
  return values;
}

/// The 3×3 median at (x, y), margins mirrored (i < 0 → −i, i ≥ n → 2n − 2 − i).
float Median3x3(const std::vector<float>& v, int32_t x, int32_t y) {
  const auto mirror = [](int32_t i, int32_t n) { return i < 0 ? -i : (i >= n ? 2 * n - 2 - i : i); };
  std::vector<float> window;
  for (int32_t dy = -1; dy <= 1; ++dy)
    for (int32_t dx = -1; dx <= 1; ++dx)
      window.push_back(v[static_cast<size_t>(mirror(y + dy, kSizeY)) * kSizeX +
                         static_cast<size_t>(mirror(x + dx, kSizeX))]);
  std::nth_element(window.begin(), window.begin() + 4, window.end());
  return window[4];
}

using oxframetest::ButtonOf;

/// Window point of the centre of pixel (x, y) of an image shown in view.
QPoint PointOfPixel(TProject& project, int32_t imageID, TOpenGLView& view, int32_t x, int32_t y) {
  double wx, wy;
  PixelToWorld(project, GetSpaceTransformationIDFromObject(project, imageID), x, y, wx, wy);
  const TOpenGLVector p = view.ProjectPoint(TVImageForm::WorldToModel(wx, wy));
  return {static_cast<int>(p.X), static_cast<int>(view.GetHeight() - p.Y)};
}

void SendMouse(QWidget* widget, QEvent::Type type, QPoint at) {
  const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
  const Qt::MouseButtons held = type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton;
  QMouseEvent event(type, QPointF(at), QPointF(widget->mapToGlobal(at)), button, held, Qt::NoModifier);
  QApplication::sendEvent(widget, &event);
}

class ImageToolWindowsTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    FIDs = oxframetest::CreateWorkbenchDemo(FProject, kSizeX, kSizeY, 16);
    FSavedFilterFolder = TOrvexDirectories::User.UserImageFilters;
    TOrvexDirectories::User.UserImageFilters = FDir.File("UserImageFilters/");
  }
  void TearDown() override {
    TQtToolHost::Instance().CloseAll();
    TOrvexDirectories::User.UserImageFilters = FSavedFilterFolder;
  }

  oxtest::TempDir FDir;
  TProject FProject;
  TDemoIDs FIDs;
  std::string FSavedFilterFolder;
};

TEST_F(ImageToolWindowsTest, TheMedianPreviewOfTheTopographyIsItsThreeByThreeMedian) {
  auto* tool = dynamic_cast<TImageFilterForm*>(
      TQtToolHost::Instance().OpenTool(TImageFilterForm::kClassName, FProject, {FIDs.Topography}));
  ASSERT_NE(tool, nullptr);
  TQtToolWindow* window = TQtToolHost::Instance().WindowOf(TImageFilterForm::kClassName);
  ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));
  ASSERT_TRUE(
      tool->Parameters().SetParameterValuesFromText({"Mode=Median", "MedianFilterSizeEdit=1"}).empty());
  window->Panel()->Refresh();
  QApplication::processEvents();
  ASSERT_FALSE(tool->PreviewImages().empty());
  const int32_t previewID = tool->PreviewImages().front().ID;
  const std::vector<float> input = Values(FProject, FIDs.Topography);
  const std::vector<float> preview = Values(FProject, previewID);
  ASSERT_EQ(preview.size(), input.size());
  int smoothed = 0;
  for (int32_t y = 0; y < kSizeY; ++y)
    for (int32_t x = 0; x < kSizeX; ++x) {
      const size_t i = static_cast<size_t>(y) * kSizeX + static_cast<size_t>(x);
      ASSERT_FLOAT_EQ(preview[i], Median3x3(input, x, y)) << "pixel (" << x << ", " << y << ")";
      smoothed += preview[i] != input[i] ? 1 : 0;
    }
  EXPECT_GT(smoothed, kSizeX * kSizeY / 10) << "the median changed the topography";
  window->grab().save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/imagefilter-window.png"));

  // The preview viewer shows the median values in its profile's colours.
  auto* viewer = dynamic_cast<TVImageForm*>(tool->PreviewImages().front().Viewer);
  ASSERT_NE(viewer, nullptr);
  // The tool gave its preview viewer a window beside its own.
  TQtViewerWindow* shown = TQtViewerWindow::WindowOf(viewer);
  ASSERT_NE(shown, nullptr);
  shown->resize(520, 420);
  shown->ShowViewerWindow(true);
  TQtOpenGLWidget* widget = shown->OpenGLWidget();
  ASSERT_NE(widget, nullptr);
  WaitFor([&] { return widget->FrameCount() > 0; });
  const QImage picture = Grab(widget);
  Keep(picture, "imagefilter-median-preview");
  const auto* profile = dynamic_cast<TDColorProfile*>(FProject.FindData(viewer->GetColorProfileID()));
  ASSERT_NE(profile, nullptr);
  for (const auto& [x, y] : std::vector<std::pair<int32_t, int32_t>>{{0, 0}, {31, 23}, {7, 5}, {20, 14}}) {
    const QPoint at = PointOfPixel(FProject, previewID, viewer->GetOpenGLView(), x, y);
    const TColor c =
        profile->GetColorsFromValue(viewer->GetScaleMaximum(), viewer->GetScaleMinimum(),
                                    preview[static_cast<size_t>(y) * kSizeX + static_cast<size_t>(x)]);
    const QColor seen = picture.pixelColor(at);
    EXPECT_NEAR(seen.red(), int(c & 0xFF), 2) << x << ", " << y;
    EXPECT_NEAR(seen.green(), int((c >> 8) & 0xFF), 2) << x << ", " << y;
    EXPECT_NEAR(seen.blue(), int((c >> 16) & 0xFF), 2) << x << ", " << y;
  }
}

TEST_F(ImageToolWindowsTest, AStrokeDrawnInTheMaskFieldIsRepairedInThePreview) {
  auto* tool = dynamic_cast<TImageRepairForm*>(
      TQtToolHost::Instance().OpenTool(TImageRepairForm::kClassName, FProject, {FIDs.Topography}));
  ASSERT_NE(tool, nullptr);
  TQtToolWindow* window = TQtToolHost::Instance().WindowOf(TImageRepairForm::kClassName);
  ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));
  ASSERT_TRUE(tool->Parameters().SetParameterValuesFromText({"Mode=Line Interpolation"}).empty());
  window->Panel()->Refresh();
  auto* field = window->findChild<TQtOpenGLWidget*>("RepairMaskView");
  ASSERT_NE(field, nullptr);
  ASSERT_TRUE(WaitFor([&] { return field->isVisible() && field->FrameCount() > 0; }));
  TOpenGLView& view = *field->View();
  const QImage before = Grab(field);
  const std::vector<float> input = Values(FProject, FIDs.Topography);

  // A stroke along line 10 from column 8 to column 20, drawn with the mouse.
  const QPoint from = PointOfPixel(FProject, FIDs.Topography, view, 8, 10);
  const QPoint to = PointOfPixel(FProject, FIDs.Topography, view, 20, 10);
  SendMouse(field, QEvent::MouseButtonPress, from);
  SendMouse(field, QEvent::MouseMove, (from + to) / 2);
  SendMouse(field, QEvent::MouseMove, to);
  SendMouse(field, QEvent::MouseButtonRelease, to);
  QApplication::processEvents();
  const QImage after = Grab(field);
  Keep(after, "imagerepair-mask");
  Keep(before, "imagerepair-mask-before");
  window->grab().save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/imagerepair-window.png"));

  const std::vector<uint8_t>& mask = tool->DrawField();
  ASSERT_EQ(mask.size(), static_cast<size_t>(kSizeX * kSizeY));
  EXPECT_EQ(tool->GetDrawFieldImageID(), FIDs.Topography);
  EXPECT_EQ(std::count(mask.begin(), mask.end(), uint8_t(1)), 13);
  // The stroke shows the picture's colours half-way to red; beside it the picture is untouched. The window
  // composes the view as it is: the frame stays opaque.
  for (int32_t x : {8, 14, 20}) {
    const QPoint at = PointOfPixel(FProject, FIDs.Topography, view, x, 10);
    const QColor b = before.pixelColor(at), a = after.pixelColor(at);
    EXPECT_NEAR(a.red(), (b.red() + 255) / 2, 3) << x;
    EXPECT_NEAR(a.green(), b.green() / 2, 3) << x;
    EXPECT_NEAR(a.blue(), b.blue() / 2, 3) << x;
    const QPoint beside = PointOfPixel(FProject, FIDs.Topography, view, x, 12);
    EXPECT_EQ(before.pixelColor(beside), after.pixelColor(beside)) << x;
  }
  const QImage composed = window->grab().toImage().convertToFormat(QImage::Format_RGB888);
  const QPoint inWindow = field->mapTo(window, PointOfPixel(FProject, FIDs.Topography, view, 14, 10));
  EXPECT_EQ(composed.pixelColor(inWindow),
            after.pixelColor(PointOfPixel(FProject, FIDs.Topography, view, 14, 10)));

  // The preview: each stroke pixel is the mean of the pixels above and below it, every other one stays.
  ASSERT_FALSE(tool->PreviewImages().empty());
  EXPECT_EQ(Values(FProject, FIDs.Topography), input) << "the input is left as it was";
  const std::vector<float> preview = Values(FProject, tool->PreviewImages().front().ID);
  ASSERT_EQ(preview.size(), input.size());
  for (int32_t y = 0; y < kSizeY; ++y)
    for (int32_t x = 0; x < kSizeX; ++x) {
      const size_t i = static_cast<size_t>(y) * kSizeX + static_cast<size_t>(x);
      if (y == 10 && x >= 8 && x <= 20)
        EXPECT_NEAR(preview[i], (input[i - kSizeX] + input[i + kSizeX]) / 2, 1e-4 * (1 + std::fabs(input[i])))
            << "stroke pixel " << x;
      else
        EXPECT_EQ(preview[i], input[i]) << "pixel (" << x << ", " << y << ")";
    }
}

TEST_F(ImageToolWindowsTest, ACustomFilterSavedThroughTheWindowIsListedAndLoadsBack) {
  auto* tool = dynamic_cast<TImageFilterForm*>(
      TQtToolHost::Instance().OpenTool(TImageFilterForm::kClassName, FProject, {FIDs.Topography}));
  ASSERT_NE(tool, nullptr);
  TQtToolWindow* window = TQtToolHost::Instance().WindowOf(TImageFilterForm::kClassName);
  ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));
  const std::string kernel = "0 1 0 1 4 1 0 1 0";
  ASSERT_TRUE(
      tool->Parameters()
          .SetParameterValuesFromText({"Mode=Custom", "CustomFilterSizeEdit=1", "CustomFilterFactorEdit=8",
                                       "CustomFilterCoefficients=" + kernel})
          .empty());
  window->Panel()->Refresh();
  auto* list = window->findChild<QComboBox*>("CustomFilterList");
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->count(), 1) << "an empty folder lists nothing but the blank entry";

  // Save: the file dialog is answered with a name in the user image filter folder.
  const std::string saved = TOrvexDirectories::User.UserImageFilters + "cross.flt";
  std::string told;
  TModalWatcher watcher([&](QWidget* modal) {
    if (auto* dialog = qobject_cast<QFileDialog*>(modal)) {
      const QFileInfo file(QString::fromStdString(
          dialog->acceptMode() == QFileDialog::AcceptSave ? saved : FDir.File("not-a-filter.txt")));
      dialog->setDirectory(file.absolutePath());
      dialog->selectFile(file.fileName());
      if (auto* name = dialog->findChild<QLineEdit*>("fileNameEdit")) name->setText(file.fileName());
      // Answered as a user's choice of that file (the dialog's own checks of a typed name are Qt's).
      static_cast<QDialog*>(dialog)->done(QDialog::Accepted);
      return true;
    }
    if (auto* box = qobject_cast<QMessageBox*>(modal)) {
      told = box->text().toStdString();
      box->button(QMessageBox::Ok) ? box->button(QMessageBox::Ok)->click() : box->accept();
      return true;
    }
    return false;
  });
  ButtonOf(*window, "Save")->click();
  ASSERT_TRUE(std::filesystem::exists(saved));
  EXPECT_TRUE(told.empty()) << told;
  ASSERT_EQ(list->count(), 2);
  EXPECT_EQ(list->itemText(1).toStdString(), "cross.flt");
  window->grab().save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/imagefilter-custom.png"));

  // Another kernel on the page, then the listed file chosen: the saved kernel is back.
  ASSERT_TRUE(tool->Parameters()
                  .SetParameterValuesFromText(
                      {"CustomFilterFactorEdit=1", "CustomFilterCoefficients=1 1 1 1 1 1 1 1 1"})
                  .empty());
  list->setCurrentIndex(1);
  emit list->activated(1);
  TCustomImageFilter expected;
  ASSERT_EQ(LoadCustomImageFilter(saved, expected), "");
  EXPECT_EQ(tool->GetIntParameter("CustomFilterSizeEdit"), 1);
  EXPECT_DOUBLE_EQ(tool->GetFloatParameter("CustomFilterFactorEdit"), 8.0);
  std::vector<double> coefficients;
  std::string problem;
  ASSERT_TRUE(
      ParseFilterCoefficients(tool->GetStringParameter("CustomFilterCoefficients"), coefficients, problem));
  EXPECT_EQ(coefficients, (std::vector<double>{0, 1, 0, 1, 4, 1, 0, 1, 0}));
  EXPECT_EQ(coefficients, expected.Buffer);
  // The window shows the loaded kernel.
  auto* shownCoefficients = qobject_cast<QLineEdit*>(window->Panel()->ControlOf("CustomFilterCoefficients"));
  ASSERT_NE(shownCoefficients, nullptr);
  coefficients.clear();
  ASSERT_TRUE(ParseFilterCoefficients(shownCoefficients->text().toStdString(), coefficients, problem));
  EXPECT_EQ(coefficients, expected.Buffer);
  window->grab().save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/imagefilter-loaded.png"));

  // Load through the button: a file that is no custom filter is refused and the page keeps its kernel.
  std::ofstream(FDir.File("not-a-filter.txt")) << "just text";
  ButtonOf(*window, "Load")->click();
  ASSERT_TRUE(WaitFor([&] { return !told.empty(); }));
  EXPECT_EQ(told, kCustomImageFilterLoadFailed);
  EXPECT_DOUBLE_EQ(tool->GetFloatParameter("CustomFilterFactorEdit"), 8.0);
}

} // namespace
