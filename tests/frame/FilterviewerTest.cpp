// The filter viewer in a real window: a sum filter over the silicon band of the demo map, added and set in
// the panel's editor, is calculated live and its image shows the silicon gradient (brighter to the right);
// a screenshot of the window is kept for a look.
#include "FrameTestSupport.h"
#include "data/Dimage.h"
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

#include <gtest/gtest.h>

namespace {

using oxframetest::WaitFor;

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
  delete window; // the viewer stops calculating when its window goes
  EXPECT_FALSE(viewer->IsLive());
  EXPECT_EQ(viewer->GetResultObjectID(index), 0);
}

} // namespace
