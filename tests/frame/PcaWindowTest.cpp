// The PCA window on a small demo map in real windows: Extract waits for a calculation; "Calculate PCA"
// gives the eigenvalue graph, whose red curve falls from left to right in its viewer, and with "Show
// reconstructed Image" the preview image shows the scores of PC 0 (each pixel in the colour of its score);
// "Add to Mask" puts the current PC into the PC mask, and Extract then writes the chosen results.
// Screenshots are kept.
#include "FrameTestSupport.h"
#include "ViewerWindowSupport.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "frame/Qtopenglwidget.h"
#include "frame/Qttoolwindow.h"
#include "frame/Qtviewerwindow.h"
#include "imaging/Rasterfile.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestSupport.h"
#include "tools/Registertools.h"
#include "tools/multivariate/Pcacore.h"
#include "tools/multivariate/Pcatool.h"
#include "viewers/Viewershow.h"
#include "viewers/Vimage.h"
#include "viewers/Vmultigraph.h"

#include <QApplication>
#include <QCheckBox>
#include <QImage>
#include <QPushButton>
#include <QSpinBox>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

using namespace oxframetest;

constexpr int kSizeX = 24, kSizeY = 20, kPoints = 64;

/// The topmost strongly red pixel of each column (-1 where there is none): the first curve of a graph
/// viewer is drawn in red.
std::vector<int> CurveRows(const QImage& image) {
  std::vector<int> rows(static_cast<size_t>(image.width()), -1);
  for (int x = 0; x < image.width(); ++x)
    for (int y = 0; y < image.height(); ++y) {
      const QColor c = image.pixelColor(x, y);
      if (c.red() > 180 && c.green() < 110 && c.blue() < 110) {
        rows[static_cast<size_t>(x)] = y;
        break;
      }
    }
  return rows;
}

using oxframetest::ButtonOf;

class PcaWindowTest : public ::testing::Test {
protected:
  void SetUp() override { FIDs = oxframetest::CreateWorkbenchDemo(FProject, kSizeX, kSizeY, kPoints, 3); }
  void TearDown() override { TQtToolHost::Instance().CloseAll(); }

  TProject FProject;
  TDemoIDs FIDs;
};

TEST_F(PcaWindowTest, CalculateShowsAFallingEigenvalueGraphAndTheScoreImageOfPCZero) {
  auto* tool = dynamic_cast<TPCAForm*>(TQtToolHost::Instance().OpenTool("PCA", FProject, {FIDs.Map}));
  ASSERT_NE(tool, nullptr);
  ASSERT_TRUE(tool->HasPreviews());
  TQtToolWindow* window = TQtToolHost::Instance().WindowOf("PCA");
  ASSERT_NE(window, nullptr);
  ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));
  QPushButton* calculate = ButtonOf(*window, "Calculate PCA");
  QPushButton* extract = ButtonOf(*window, "Extract");
  QPushButton* addPC = ButtonOf(*window, "Add to Mask");
  auto* showScores = window->findChild<QCheckBox*>("Show reconstructed Image");
  auto* currentPC = window->findChild<QSpinBox*>("Current PC");
  ASSERT_TRUE(calculate && extract && addPC && showScores && currentPC);
  // Before a calculation: Calculate on, Extract and the PC controls off.
  EXPECT_TRUE(calculate->isEnabled());
  EXPECT_FALSE(extract->isEnabled());
  EXPECT_FALSE(addPC->isEnabled());
  window->grab().save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/pca-window-open.png"));

  // The viewers: preview image, cursor spectrum, eigenvalues, each in a window.
  ASSERT_EQ(tool->GetCustomForms().size(), 3u);
  auto* imageViewer = dynamic_cast<TVImageForm*>(tool->GetCustomForms()[0]);
  auto* eigenViewer = dynamic_cast<TVMultiGraphForm*>(tool->GetCustomForms()[2]);
  ASSERT_NE(imageViewer, nullptr);
  ASSERT_NE(eigenViewer, nullptr);
  TQtViewerWindow* imageWindow = WindowOfViewer(imageViewer);
  TQtViewerWindow* eigenWindow = WindowOfViewer(eigenViewer);
  ASSERT_TRUE(imageWindow && eigenWindow);
  ASSERT_TRUE(WaitFor([&] { return imageWindow->isVisible() && eigenWindow->isVisible(); }));
  imageWindow->resize(760, 520);
  eigenWindow->resize(760, 520);
  ASSERT_TRUE(WaitFor([&] {
    return imageWindow->OpenGLWidget()->FrameCount() > 0 && eigenWindow->OpenGLWidget()->FrameCount() > 0;
  }));

  showScores->setChecked(true);
  calculate->click();
  ASSERT_TRUE(tool->IsPCADone());
  const int m = tool->GetComponentCount();
  EXPECT_EQ(m, kPoints);
  EXPECT_TRUE(extract->isEnabled()) << "PCA Result needs no PC";
  EXPECT_TRUE(addPC->isEnabled());
  EXPECT_EQ(currentPC->maximum(), m - 1);

  // The eigenvalue graph falls: its curve's rows go down (grow) from left to right.
  const TDGraph& eigenValues = *dynamic_cast<TDGraph*>(FProject.FindData(tool->GetEigenValuesID()));
  ASSERT_EQ(eigenValues.GetSizeGraph(), m);
  EXPECT_GT(eigenValues.GetField(0, 0, 0), eigenValues.GetField(0, 0, 1));
  EXPECT_GT(eigenValues.GetField(0, 0, 1), eigenValues.GetField(0, 0, m - 1));
  // The viewer shows the components from -1 to M (at most 100), its cursor on PC 0.
  EXPECT_DOUBLE_EQ(eigenViewer->GetMinXInterpretation(), -1);
  EXPECT_DOUBLE_EQ(eigenViewer->GetMaxXInterpretation(), m);
  EXPECT_DOUBLE_EQ(eigenViewer->GetCursorX(), 0);
  const QImage graph = Grab(eigenWindow->OpenGLWidget());
  Keep(graph, "pca-eigenvalues");
  const std::vector<int> rows = CurveRows(graph);
  std::vector<std::pair<int, int>> curve; // (column, row) where the curve is drawn
  for (int x = 0; x < static_cast<int>(rows.size()); ++x)
    if (rows[static_cast<size_t>(x)] >= 0) curve.emplace_back(x, rows[static_cast<size_t>(x)]);
  ASSERT_GT(curve.size(), 100u) << "the curve spans the plot";
  const auto& first = curve.front();
  const auto& last = curve.back();
  EXPECT_LT(first.second + 100, last.second) << "high on the left, low on the right";
  // Falling everywhere: no column lies more than a line width above one left of it.
  int rises = 0;
  for (size_t k = 1; k < curve.size(); ++k)
    if (curve[k].second < curve[k - 1].second - 2) ++rises;
  EXPECT_EQ(rises, 0);

  // The preview image holds the scores of PC 0, and the window shows each in its colour.
  const auto& preview = *dynamic_cast<TDImage*>(FProject.FindData(tool->GetPreviewImageID()));
  const TDGraph& map = *dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map));
  std::vector<float> spectrum(kPoints);
  for (auto [x, y] : {std::pair{2, 3}, {12, 10}, {20, 17}}) {
    map.GetSpectrum(x, y, spectrum.data());
    double score = 0;
    tool->Core().Scores(spectrum.data(), {0}, &score);
    EXPECT_NEAR(preview.GetField(x, y), score, 1e-4 * std::abs(score) + 1e-5);
  }
  const QImage scores = Grab(imageWindow->OpenGLWidget());
  Keep(scores, "pca-score-pc0");
  int matched = 0, distinct = 0;
  QColor previous;
  // (The cursor's cross sits in the middle of the map, so pixels away from it are read.)
  for (auto [x, y] : {std::pair{0, 0}, {5, 4}, {15, 6}, {20, 17}, {23, 19}, {7, 15}}) {
    const QPoint at = WindowPointOfPixel(FProject, preview, *imageViewer, x, y);
    ASSERT_TRUE(scores.rect().contains(at));
    const TColor expected = imageViewer->GetColorOfValue(preview.GetField(x, y));
    const QColor got = scores.pixelColor(at);
    if (std::abs(got.red() - int(expected & 0xFF)) <= 3 &&
        std::abs(got.green() - int((expected >> 8) & 0xFF)) <= 3 &&
        std::abs(got.blue() - int((expected >> 16) & 0xFF)) <= 3)
      ++matched;
    if (previous.isValid() && got != previous) ++distinct;
    previous = got;
  }
  EXPECT_EQ(matched, 6);
  EXPECT_GT(distinct, 2) << "the scores differ over the map";

  // PC 1 current: the image shows its scores; both into the PC mask; extract the PC graphs.
  currentPC->setValue(1);
  EXPECT_EQ(tool->GetCurrentPC(), 1);
  EXPECT_DOUBLE_EQ(eigenViewer->GetCursorX(), 1);
  map.GetSpectrum(12, 10, spectrum.data());
  double score1 = 0;
  tool->Core().Scores(spectrum.data(), {1}, &score1);
  EXPECT_NEAR(preview.GetField(12, 10), score1, 1e-4 * std::abs(score1) + 1e-5);
  ASSERT_TRUE(tool->Parameters().SetParameterValuesFromText({"PC Graphs=true"}).empty());
  QApplication::processEvents();
  EXPECT_FALSE(extract->isEnabled()) << "PC Graphs need a PC in the mask";
  addPC->click();
  currentPC->setValue(0);
  addPC->click();
  EXPECT_EQ(tool->GetPCMaskCount(), 2);
  EXPECT_TRUE(extract->isEnabled());
  extract->click();
  int pcGraphs = 0;
  for (int32_t id : tool->GetLastResultIDs())
    if (FProject.FindData(id)->GetCaption().find("(PCA)(EigenVector ") != std::string::npos) ++pcGraphs;
  EXPECT_EQ(pcGraphs, 2);
  window->grab().save(QString::fromStdString(std::string(ORVEX_SCREENSHOT_DIR) + "/pca-window.png"));

  // The cursor pixel follows the map's cursor: a click in the preview image moves the shared cursor, and
  // "Mask Preview" shows that pixel's spectrum, with its reconstruction from PCs 0 and 1 beside it.
  ASSERT_TRUE(imageViewer->SetCursorPixel(17, 5));
  QApplication::processEvents();
  EXPECT_EQ(tool->GetCursorX(), 17);
  EXPECT_EQ(tool->GetCursorY(), 5);
  const TDGraph& maskPreview = *dynamic_cast<TDGraph*>(FProject.FindData(tool->GetMaskPreviewID()));
  const TDGraph& reconstruction =
      *dynamic_cast<TDGraph*>(FProject.FindData(tool->GetReconstructionPreviewID()));
  map.GetSpectrum(17, 5, spectrum.data());
  std::vector<float> shown(kPoints), rebuilt(kPoints), expected(kPoints);
  maskPreview.GetSpectrum(0, 0, shown.data());
  EXPECT_EQ(shown, spectrum);
  tool->Core().Reconstruct(spectrum.data(), {0, 1}, expected.data());
  reconstruction.GetSpectrum(0, 0, rebuilt.data());
  EXPECT_EQ(rebuilt, expected);
  auto* spectrumViewer = tool->GetCustomForms()[1];
  EXPECT_TRUE(spectrumViewer->IsDataUsed(tool->GetReconstructionPreviewID()));
  TQtViewerWindow* spectrumWindow = WindowOfViewer(spectrumViewer);
  ASSERT_NE(spectrumWindow, nullptr);
  spectrumWindow->resize(760, 520);
  QApplication::processEvents();
  const QImage spectra = Grab(spectrumWindow->OpenGLWidget());
  Keep(spectra, "pca-cursor-spectrum");
}

} // namespace
