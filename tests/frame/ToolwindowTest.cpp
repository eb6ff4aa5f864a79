// The tool windows in real windows: both proof tools opened from the Tools menu's host on a demo map, a
// wrong value refused in red with its problem while Extract is off, then an extract through the button,
// and screenshots of the windows kept for a look.
#include "FrameTestSupport.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Registerdata.h"
#include "frame/Mainwindow.h"
#include "frame/Qtparampanel.h"
#include "frame/Qttoolwindow.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "project/Toolregistry.h"
#include "support/TestSupport.h"
#include "tools/Registertools.h"

#include <QApplication>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSpinBox>

#include <gtest/gtest.h>

namespace {

using oxframetest::WaitFor;

// Whether the picture holds a patch of the red that marks a refused value.
bool HasRefusedRed(const QImage& image) {
  int count = 0;
  for (int y = 0; y < image.height(); ++y)
    for (int x = 0; x < image.width(); ++x) {
      const QColor c = image.pixelColor(x, y);
      if (c.red() > 240 && c.green() > 170 && c.green() < 210 && c.blue() > 170 && c.blue() < 210) ++count;
    }
  return count > 50;
}

using oxframetest::ButtonOf;

class ToolWindowTest : public ::testing::Test {
protected:
  void SetUp() override { FIDs = oxframetest::CreateWorkbenchDemo(FProject, 16, 12, 64); }
  void TearDown() override { TQtToolHost::Instance().CloseAll(); }

  void Save(QWidget& window, const std::string& name) {
    window.grab().save(QString::fromStdString(FDir.Path().string() + "/" + name));
    if (const char* keep = std::getenv("ORVEX_SCREENSHOT_DIR"))
      window.grab().save(QString::fromStdString(std::string(keep) + "/" + name));
  }

  oxtest::TempDir FDir;
  TProject FProject;
  TDemoIDs FIDs;
};

TEST_F(ToolWindowTest, GraphCalculatorRefusesAWrongFormulaThenExtracts) {
  TProjectDialogForm* tool = TQtToolHost::Instance().OpenTool("GraphCalculator", FProject, {FIDs.Map});
  ASSERT_NE(tool, nullptr);
  TQtToolWindow* window = TQtToolHost::Instance().WindowOf("GraphCalculator");
  ASSERT_NE(window, nullptr);
  ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));
  EXPECT_EQ(window->windowTitle().toStdString(), "Graph Calculator");
  auto* formula = qobject_cast<QLineEdit*>(window->Panel()->ControlOf("Formula"));
  ASSERT_NE(formula, nullptr);
  formula->setText("2*(x1+");
  emit formula->editingFinished();
  QApplication::processEvents();
  EXPECT_NE(window->MessageLine()->text().toStdString().find("Formula"), std::string::npos)
      << window->MessageLine()->text().toStdString();
  EXPECT_FALSE(tool->Parameters().GetUserParameterByName("Extract")->GetEnabled());
  ASSERT_NE(ButtonOf(*window, "Extract"), nullptr);
  EXPECT_FALSE(ButtonOf(*window, "Extract")->isEnabled());
  EXPECT_EQ(tool->GetStringParameter("Formula"), "x1");
  Save(*window, "graph_calculator_refused.png");
  EXPECT_TRUE(HasRefusedRed(window->grab().toImage()));

  formula->setText("x1*2");
  emit formula->editingFinished();
  QApplication::processEvents();
  EXPECT_TRUE(window->MessageLine()->text().isEmpty());
  ASSERT_TRUE(tool->Parameters().GetUserParameterByName("Extract")->GetEnabled());
  const size_t before = FProject.DataList().size();
  QPushButton* extract = ButtonOf(*window, "Extract");
  ASSERT_NE(extract, nullptr);
  extract->click();
  ASSERT_EQ(tool->GetLastResultIDs().size(), 1u);
  EXPECT_EQ(FProject.DataList().size(), before + 1);
  auto* result = dynamic_cast<TDGraph*>(FProject.FindData(tool->GetLastResultIDs().front()));
  auto* map = dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map));
  ASSERT_NE(result, nullptr);
  EXPECT_FLOAT_EQ(result->GetField(3, 4, 10), 2 * map->GetField(3, 4, 10));
  Save(*window, "graph_calculator.png");
  window->close(); // closing cleans up: preview objects go
  EXPECT_FALSE(tool->GetIsActive());
  EXPECT_EQ(FProject.DataList().size(), before + 1 - 3); // preview, original and connector gone
}

TEST_F(ToolWindowTest, ImageBackgroundSubtractionPreviewsAndExtracts) {
  TProjectDialogForm* tool =
      TQtToolHost::Instance().OpenTool("ImageBackgroundSubtraction", FProject, {FIDs.Topography});
  ASSERT_NE(tool, nullptr);
  TQtToolWindow* window = TQtToolHost::Instance().WindowOf("ImageBackgroundSubtraction");
  ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));
  ASSERT_EQ(tool->GetTemporaryIDs().size(), 1u); // the preview image, calculated at once
  auto* order = qobject_cast<QSpinBox*>(window->Panel()->ControlOf("Order"));
  ASSERT_NE(order, nullptr);
  order->setValue(2);
  QApplication::processEvents();
  EXPECT_EQ(tool->GetIntParameter("Order"), 2);
  Save(*window, "image_background.png");
  ButtonOf(*window, "Extract")->click();
  ASSERT_EQ(tool->GetLastResultIDs().size(), 1u);
  EXPECT_NE(FProject.FindData(tool->GetLastResultIDs().front())->GetCaption().find("(Background Subtracted)"),
            std::string::npos);
  // An image tool refuses a graph, with the reason.
  std::string told;
  oxframetest::TModalWatcher watcher([&told](QWidget* modal) {
    auto* box = qobject_cast<QMessageBox*>(modal);
    if (!box) return false;
    told = box->text().toStdString();
    box->button(QMessageBox::Ok) ? box->button(QMessageBox::Ok)->click() : box->accept();
    return true;
  });
  EXPECT_EQ(TQtToolHost::Instance().OpenTool("ImageBackgroundSubtraction", FProject, {FIDs.Map}), nullptr);
  EXPECT_NE(told.find("the tool takes a TDImage"), std::string::npos) << told;
}

} // namespace
