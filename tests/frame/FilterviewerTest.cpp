// The filter viewer in a real window: a sum filter over the silicon band of the demo map, added and set in
// the panel's editor, is calculated live and its image shows the silicon gradient (brighter to the right);
// moved with the spectral cursor to the polystyrene band, it shows the three beads; screenshots of the window
// are kept for a look.
#include "FrameTestSupport.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Registerdata.h"
#include "frame/Qtviewerwindow.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestSupport.h"
#include "viewers/Vfilter.h"
#include "viewers/Viewershow.h"

#include <QDoubleSpinBox>
#include <QLabel>
#include <QTableWidget>
#include <algorithm>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using oxframetest::WaitFor;

// Groups of neighbouring pixels brighter than halfway between the image's extremes.
int CountBrightBlobs(const TDImage& image) {
  const int32_t w = image.GetSizeX(), h = image.GetSizeY();
  float low = image.GetField(0, 0), high = low;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      low = std::min(low, image.GetField(x, y));
      high = std::max(high, image.GetField(x, y));
    }
  const double threshold = 0.5 * (low + high);
  std::vector<char> seen(static_cast<size_t>(w * h), 0);
  int blobs = 0;
  for (int32_t y0 = 0; y0 < h; ++y0)
    for (int32_t x0 = 0; x0 < w; ++x0) {
      if (seen[static_cast<size_t>(y0 * w + x0)] || image.GetField(x0, y0) <= threshold) continue;
      ++blobs;
      std::vector<std::pair<int32_t, int32_t>> stack{{x0, y0}};
      seen[static_cast<size_t>(y0 * w + x0)] = 1;
      while (!stack.empty()) {
        const auto [x, y] = stack.back();
        stack.pop_back();
        for (const auto& [dx, dy] : {std::pair{1, 0}, std::pair{-1, 0}, std::pair{0, 1}, std::pair{0, -1}}) {
          const int32_t nx = x + dx, ny = y + dy;
          if (nx < 0 || ny < 0 || nx >= w || ny >= h || seen[static_cast<size_t>(ny * w + nx)] ||
              image.GetField(nx, ny) <= threshold)
            continue;
          seen[static_cast<size_t>(ny * w + nx)] = 1;
          stack.emplace_back(nx, ny);
        }
      }
    }
  return blobs;
}

TEST(FilterViewerWindowTest, SiliconBandSumShowsTheGradientLive) {
  RegisterDataClasses();
  RegisterViewers();
  TProject project;
  TDemoOptions options;
  options.SizeX = 24;
  options.SizeY = 16;
  options.SizeGraph = 256;
  const TDemoIDs ids = CreateDemoProject(project, options);
  auto owned = std::make_unique<TVFilterForm>();
  TVFilterForm* viewer = owned.get();
  project.AddViewer(std::move(owned));
  ASSERT_TRUE(viewer->AddDataID(ids.Map));

  auto* window = new TQtViewerWindow(viewer, nullptr);
  window->resize(900, 600);
  window->ShowViewerWindow(true);
  ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));
  EXPECT_TRUE(viewer->IsLive()) << "a shown filter viewer calculates";

  // A sum filter over the silicon band in the axis's unit (rel. 1/cm), with background on both sides.
  const int32_t index = viewer->CreateFilter(gfkSum);
  TGraphFilterInfo info = viewer->GetFilterInfo(index);
  info.UnitIndex = -1;
  info.FilterPosition = 520.7;
  info.FilterWidth = 30;
  info.FilterCaption = "Silicon";
  ASSERT_EQ(viewer->UpdateFilter(index, info), "");
  viewer->SetFilterSelected(index, true);
  ASSERT_TRUE(WaitFor([&] { return viewer->WaitUntilCalculated(50); }, 20000));
  window->RequestRedraw();

  auto* table = window->findChild<QTableWidget*>("FilterList");
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(table->rowCount(), 1);
  EXPECT_EQ(table->item(0, 0)->text().toStdString(), "Silicon");
  EXPECT_NE(table->item(0, 4)->text().toStdString(), "-") << "the value at the cursor is shown";
  auto* status = window->findChild<QLabel*>("FilterViewerStatus");
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(status->text().toStdString(), TVFilterForm::kReady);

  // The live image: the silicon abundance rises to the right.
  auto* image = dynamic_cast<TDImage*>(project.FindData(viewer->GetResultObjectID(index)));
  ASSERT_NE(image, nullptr);
  double left = 0, right = 0;
  for (int32_t y = 0; y < 16; ++y)
    for (int32_t x = 0; x < 12; ++x) {
      left += image->GetField(x, y);
      right += image->GetField(x + 12, y);
    }
  EXPECT_GT(right, 1.2 * left) << "left " << left << ", right " << right;

  const QImage shot = window->grab().toImage();
  if (const char* keep = std::getenv("ORVEX_SCREENSHOT_DIR"))
    shot.save(QString::fromStdString(std::string(keep) + "/filterviewer.png"));

  // The filter follows the spectral cursor: moved to the polystyrene band at 1001 rel. 1/cm, the live image
  // shows the three beads instead of the gradient.
  viewer->ChangeListenToPositionMode(index, true);
  const auto* map = dynamic_cast<const TDGraph*>(project.FindData(ids.Map));
  auto* interpretation = dynamic_cast<TDInterpretation*>(project.FindData(map->GetXInterpretationID()));
  ASSERT_NE(interpretation, nullptr);
  // The spectral cursor the viewer listens to: the one of the map's axis.
  auto* cursor = dynamic_cast<TDCursor*>(project.FindData(interpretation->MakeOrGetCursorID()));
  ASSERT_NE(cursor, nullptr);
  cursor->SetPosition(0, interpretation->ToStandard(1001.4, -1));
  EXPECT_NEAR(viewer->GetFilterInfo(index).FilterPosition, 1001.4, 1e-6);
  ASSERT_TRUE(WaitFor([&] { return viewer->WaitUntilCalculated(50); }, 20000));
  window->RequestRedraw();
  image = dynamic_cast<TDImage*>(project.FindData(viewer->GetResultObjectID(index)));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(CountBrightBlobs(*image), 3);
  if (const char* keep = std::getenv("ORVEX_SCREENSHOT_DIR"))
    window->grab().toImage().save(QString::fromStdString(std::string(keep) + "/filterviewer-beads.png"));
  delete window; // the viewer stops calculating when its window goes
  EXPECT_FALSE(viewer->IsLive());
  EXPECT_EQ(viewer->GetResultObjectID(index), 0);
}

} // namespace
