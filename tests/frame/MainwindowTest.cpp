// The main window in a real window: title and changed state, the question before quitting, dropped files,
// double-click to a viewer window, the settings panel, IDs dropped on a viewer, exceptions in a menu action,
// and the recovery copy.
#include "frame/Mainwindow.h"

#include "FrameTestSupport.h"
#include "common/OrvexException.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "frame/Projectmanager.h"
#include "frame/Qtparampanel.h"
#include "frame/Qtviewerwindow.h"
#include "support/TestSupport.h"
#include "viewers/Viewershow.h"
#include "viewers/Vtext.h"

#include <QAbstractButton>
#include <QAction>
#include <QDropEvent>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QSpinBox>
#include <QTableView>
#include <QUrl>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

using oxframetest::TModalWatcher;
using oxframetest::WaitFor;

class MainWindowTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    RegisterViewers();
    TOrvexMainWindow::RecoveryFolder = FDir.Path().string();
    FActions = std::make_unique<TProjectActionForm>();
    FWindow = std::make_unique<TOrvexMainWindow>(*FActions, "test-session");
    FWindow->SetRecoveryInterval(0);
    FWindow->show();
    ASSERT_TRUE(WaitFor([&] { return FWindow->isVisible(); }));
  }
  void TearDown() override {
    FWindow.reset();
    FActions.reset();
    TVCustomForm::DeleteRegisteredViewerList();
    TOrvexMainWindow::ClearToolMenuEntries();
    TOrvexMainWindow::RecoveryFolder.clear();
  }

  TProject& Project() { return FActions->Project(); }

  int32_t AddText(const std::string& caption, const std::string& text) {
    auto data = std::make_unique<TDText>();
    data->SetID(Project().GetNewDataID());
    data->SetCaption(caption);
    data->SetText(text);
    const int32_t id = data->GetID();
    Project().AddData(std::move(data));
    return id;
  }

  // Clicks the button of a message box with this text; records the texts of all boxes seen.
  std::function<bool(QWidget*)> Answer(QMessageBox::StandardButton button) {
    return [this, button](QWidget* modal) {
      auto* box = qobject_cast<QMessageBox*>(modal);
      if (!box) return false;
      FBoxes.push_back(box->text().toStdString());
      box->button(button)->click();
      return true;
    };
  }

  void Drop(QWidget* target, const std::vector<std::string>& files, Qt::KeyboardModifiers modifiers) {
    QMimeData mime;
    QList<QUrl> urls;
    for (const std::string& f : files) urls.push_back(QUrl::fromLocalFile(QString::fromStdString(f)));
    mime.setUrls(urls);
    QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, modifiers);
    QApplication::sendEvent(target, &enter);
    ASSERT_TRUE(enter.isAccepted());
    QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, modifiers);
    QApplication::sendEvent(target, &drop);
  }

  oxtest::TempDir FDir;
  std::unique_ptr<TProjectActionForm> FActions;
  std::unique_ptr<TOrvexMainWindow> FWindow;
  std::vector<std::string> FBoxes;
};

TEST_F(MainWindowTest, TitleNamesTheFileAndMarksChangesButNotLoading) {
  EXPECT_EQ(FWindow->windowTitle().toStdString(), "Orvex Project - Untitled");
  const int32_t id = AddText("Notes", "text");
  ShowIDsInViewer(Project(), {id});
  const std::string file = FDir.File("titled.oxp");
  ASSERT_TRUE(FActions->SaveProjectAs(file));
  EXPECT_EQ(FWindow->windowTitle().toStdString(), "Orvex Project - titled.oxp");
  ASSERT_TRUE(FWindow->OpenFile(file, false));
  EXPECT_EQ(FWindow->windowTitle().toStdString(),
            "Orvex Project - titled.oxp"); // loading and placing: no change
  Project().FindData(Project().GetFirstIDByClassName("TDText"))->SetCaption("Changed");
  EXPECT_EQ(FWindow->windowTitle().toStdString(), "Orvex Project - titled.oxp*");
}

TEST_F(MainWindowTest, QuitWithChangesAsksAndCancelKeepsTheWindowOpen) {
  AddText("Notes", "unsaved");
  {
    TModalWatcher watcher(Answer(QMessageBox::Cancel));
    EXPECT_FALSE(FWindow->close());
  }
  ASSERT_EQ(FBoxes.size(), 1u);
  EXPECT_EQ(FBoxes[0], "Save Project?");
  EXPECT_TRUE(FWindow->isVisible());
  {
    TModalWatcher watcher(Answer(QMessageBox::No));
    EXPECT_TRUE(FWindow->close());
  }
  EXPECT_EQ(FBoxes.size(), 2u);
  EXPECT_FALSE(FWindow->isVisible());
}

TEST_F(MainWindowTest, QuitWithoutChangesAsksNothing) {
  TModalWatcher watcher(Answer(QMessageBox::Cancel));
  EXPECT_TRUE(FWindow->close());
  EXPECT_TRUE(FBoxes.empty());
}

TEST_F(MainWindowTest, YesSavesBeforeQuittingAndAFailedSaveKeepsTheWindowOpen) {
  AddText("Notes", "unsaved");
  Project().SetFileName((FDir.Path() / "missing-folder" / "x.oxp").string()); // can't be written
  {
    TModalWatcher watcher([&](QWidget* modal) {
      auto* box = qobject_cast<QMessageBox*>(modal);
      if (!box) return false;
      FBoxes.push_back(box->text().toStdString());
      (box->button(QMessageBox::Yes) ? box->button(QMessageBox::Yes) : box->button(QMessageBox::Ok))->click();
      return true;
    });
    EXPECT_FALSE(FWindow->close());
  }
  EXPECT_TRUE(FWindow->isVisible());
  ASSERT_GE(FBoxes.size(), 2u); // the question, then the failure
  EXPECT_EQ(FBoxes[1], "There was an error while saving the OXP File.");
}

TEST_F(MainWindowTest, DroppedDataFileAppendsAndShiftAppendsAProject) {
  // A data file of one text, written by a second action form.
  TProjectActionForm writer;
  auto text = std::make_unique<TDText>();
  text->SetID(writer.Project().GetNewDataID());
  text->SetCaption("From a data file");
  const int32_t writtenID = text->GetID();
  writer.Project().AddData(std::move(text));
  const std::string data = FDir.File("one.oxd");
  ASSERT_TRUE(writer.SaveDataList({writtenID}, data));
  const std::string project = FDir.File("one.oxp");
  ASSERT_TRUE(writer.SaveProjectAs(project));

  AddText("Present", "x");
  Project().SetProjectChanged(false);
  Drop(FWindow.get(), {data}, Qt::NoModifier);
  ASSERT_EQ(Project().DataList().size(), 2u);
  EXPECT_EQ(Project().DataList()[1]->GetCaption(), "From a data file");
  EXPECT_TRUE(FBoxes.empty());
  Drop(FWindow.get(), {project}, Qt::ShiftModifier);
  EXPECT_EQ(Project().DataList().size(), 3u);
  EXPECT_TRUE(Project().GetFileName().empty()); // appending keeps the project's name
  // The manager lists them once the events are served.
  EXPECT_TRUE(WaitFor([&] { return FWindow->ProjectManager()->Model().rowCount() == 3; }));
}

TEST_F(MainWindowTest, DoubleClickShowsTheSelectionInATextViewerWindow) {
  const int32_t id = AddText("About this data set (demo)", "Orvex demo data set\n\nLine two.");
  ASSERT_TRUE(WaitFor([&] { return FWindow->ProjectManager()->Model().rowCount() == 1; }));
  TVProjectManagerForm* manager = FWindow->ProjectManager();
  manager->SelectIDs({id});
  EXPECT_EQ(manager->SelectedIDs(), std::vector<int32_t>{id});
  const QModelIndex index = manager->View()->model()->index(0, 1);
  emit manager->View()->doubleClicked(index);
  TVCustomForm* viewer = Project().GetFirstViewerByClassName("TVTextForm");
  ASSERT_TRUE(viewer);
  TQtViewerWindow* window = FWindow->WindowOf(viewer);
  ASSERT_TRUE(window);
  ASSERT_TRUE(WaitFor([&] { return window->isVisible(); }));
  EXPECT_EQ(window->windowTitle().toStdString(), "Text Viewer - About this data set (demo)");
  auto* view = window->findChild<QPlainTextEdit*>("TextView");
  ASSERT_TRUE(view);
  EXPECT_EQ(view->toPlainText().toStdString(), "Orvex demo data set\n\nLine two.");

  // The screenshot shows text: dark pixels on the light page, in the upper left where the text starts.
  QApplication::processEvents();
  const QImage shot = view->viewport()->grab().toImage();
  shot.save(QString::fromStdString(FDir.File("text-viewer.png")));
  if (const char* keep = std::getenv("ORVEX_SCREENSHOT_DIR"))
    shot.save(QString::fromStdString(std::string(keep) + "/text-viewer.png"));
  int dark = 0;
  int darkLowerHalf = 0;
  for (int y = 0; y < shot.height(); ++y)
    for (int x = 0; x < shot.width(); ++x)
      if (qGray(shot.pixel(x, y)) < 100) {
        ++dark;
        if (y > shot.height() / 2) ++darkLowerHalf;
      }
  EXPECT_GT(dark, 50);
  EXPECT_EQ(darkLowerHalf, 0); // three short lines don't reach the lower half

  // Closing the window frees the viewer.
  window->close();
  EXPECT_FALSE(Project().GetFirstViewerByClassName("TVTextForm"));
}

TEST_F(MainWindowTest, ViewersOfAProjectLoadedBeforeTheWindowGetTheirWindows) {
  FWindow.reset();
  const int32_t id = AddText("Loaded early", "x");
  TVCustomForm* viewer = ShowIDsInViewer(Project(), {id}); // no workbench yet: no window
  viewer->SetBounds(-5000, -5000, 300, 200);               // and a place off every screen
  FWindow = std::make_unique<TOrvexMainWindow>(*FActions, "test-session");
  FWindow->show();
  TQtViewerWindow* window = FWindow->WindowOf(viewer);
  ASSERT_TRUE(window);
  EXPECT_TRUE(WaitFor([&] { return window->isVisible(); }));
  EXPECT_EQ(window->windowTitle().toStdString(), "Text Viewer - Loaded early");
  EXPECT_GE(viewer->GetLeft(), 0); // placed again onto the screen
  EXPECT_GE(viewer->GetTop(), 0);
}

TEST_F(MainWindowTest, PlacementReachesTheRealWindowAndComesBack) {
  const int32_t id = AddText("Placed", "x");
  FWindow->ShowIDs({id});
  TVCustomForm* viewer = Project().GetFirstViewerByClassName("TVTextForm");
  TQtViewerWindow* window = FWindow->WindowOf(viewer);
  viewer->SetBounds(100, 120, 300, 200);
  ASSERT_TRUE(WaitFor([&] { return window->frameGeometry().topLeft() == QPoint(100, 120); }));
  EXPECT_EQ(window->frameGeometry().size(), QSize(300, 200));
  TWindowPlacement p = viewer->GetPlacement();
  EXPECT_EQ(p.ShowCommand, TWindowPlacement::kShowNormal);
  EXPECT_EQ(p.WindowLeft, 100);
  EXPECT_EQ(p.WindowBottom, 320);
  // Maximised, the normal rectangle is kept for the file.
  p.ShowCommand = TWindowPlacement::kShowMaximized;
  viewer->SetPlacement(p);
  ASSERT_TRUE(WaitFor([&] { return window->isMaximized(); }));
  const TWindowPlacement maximised = viewer->GetPlacement();
  EXPECT_EQ(maximised.ShowCommand, TWindowPlacement::kShowMaximized);
  EXPECT_EQ(maximised.WindowLeft, 100);
  EXPECT_EQ(maximised.Width(), 300);
}

TEST_F(MainWindowTest, SettingsPanelChangesTheViewerAndRefusesValuesOutOfLimits) {
  const int32_t id = AddText("Notes", "x");
  FWindow->ShowIDs({id});
  auto* viewer = static_cast<TVTextForm*>(Project().GetFirstViewerByClassName("TVTextForm"));
  ASSERT_TRUE(viewer);
  TQtViewerWindow* window = FWindow->WindowOf(viewer);
  auto* panel = window->findChild<TQtParamPanel*>("SettingsPanel");
  ASSERT_TRUE(panel);
  auto* size = qobject_cast<QSpinBox*>(panel->ControlOf("FontSize"));
  ASSERT_TRUE(size);
  EXPECT_EQ(size->minimum(), 6);
  EXPECT_EQ(size->maximum(), 72);
  size->setValue(15);
  EXPECT_EQ(viewer->GetFontSize(), 15);
  EXPECT_EQ(window->findChild<QPlainTextEdit*>("TextView")->font().pointSize(), 15);
  // A change from elsewhere shows in the panel.
  std::string problem;
  ASSERT_TRUE(viewer->GetCFI()->GetUserParameterByName("FontSize")->SetParameterFromText("11", problem));
  EXPECT_EQ(size->value(), 11);
}

TEST_F(MainWindowTest, IDsDroppedOnAViewerAreShownThereOnlyFromThisSession) {
  const int32_t first = AddText("First", "one");
  const int32_t second = AddText("Second", "two");
  FWindow->ShowIDs({first});
  auto* viewer = static_cast<TVTextForm*>(Project().GetFirstViewerByClassName("TVTextForm"));
  TQtViewerWindow* window = FWindow->WindowOf(viewer);
  auto dropIDs = [&](const std::string& session) {
    std::unique_ptr<QMimeData> mime(TProjectManagerModel::EncodeIDs({second}, session));
    // As a real drag: the enter names the target, then the drop.
    QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, mime.get(), Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(window, &enter);
    EXPECT_EQ(enter.isAccepted(), session == "test-session");
    QDropEvent drop(QPointF(5, 5), Qt::CopyAction, mime.get(), Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(window, &drop);
  };
  dropIDs("another-session");
  EXPECT_EQ(viewer->GetTextID(), first);
  dropIDs("test-session");
  EXPECT_EQ(viewer->GetTextID(), second);
  EXPECT_EQ(window->windowTitle().toStdString(), "Text Viewer - Second");
}

TEST_F(MainWindowTest, ExceptionInAMenuActionShowsTheExceptionViewerAndWorkGoesOn) {
  int runs = 0;
  TOrvexMainWindow::RegisterToolMenuEntry({"Test", "Throwing Tool", [&] {
                                             ++runs;
                                             throw OrvexException("TTestTool.Run: broken on purpose");
                                           }});
  QAction* action = nullptr;
  for (QAction* menu : FWindow->menuBar()->actions())
    if (menu->text() == "&Tools") {
      emit menu->menu()->aboutToShow();
      action = menu->menu()->findChild<QAction*>("Throwing Tool");
    }
  ASSERT_TRUE(action);
  std::string shown;
  {
    TModalWatcher watcher([&](QWidget* modal) {
      if (modal->objectName() != "ExceptionViewer") return false;
      auto* box = qobject_cast<QMessageBox*>(modal);
      shown = (box->informativeText() + "\n" + box->detailedText()).toStdString();
      box->button(QMessageBox::Ok)->click();
      return true;
    });
    QMetaObject::invokeMethod(action, "trigger", Qt::QueuedConnection); // through the event loop
    ASSERT_TRUE(WaitFor([&] { return !shown.empty(); }));
  }
  EXPECT_EQ(runs, 1);
  EXPECT_NE(shown.find("broken on purpose"), std::string::npos) << shown;
  // The window still works.
  QMetaObject::invokeMethod(action, "trigger", Qt::QueuedConnection);
  TModalWatcher again([](QWidget* modal) {
    if (auto* box = qobject_cast<QMessageBox*>(modal)) box->button(QMessageBox::Ok)->click();
    return true;
  });
  EXPECT_TRUE(WaitFor([&] { return runs == 2; }));
  EXPECT_TRUE(FWindow->isVisible());
}

TEST_F(MainWindowTest, RecoveryCopyComesWithChangesAndGoesWithANormalClose) {
  AddText("Notes", "precious");
  const std::string named = FDir.File("work.oxp");
  ASSERT_TRUE(FActions->SaveProjectAs(named));
  EXPECT_FALSE(FWindow->WriteRecoveryCopy()); // nothing unsaved
  AddText("More", "unsaved");
  ASSERT_TRUE(FWindow->WriteRecoveryCopy());
  const std::string copy = FWindow->RecoveryFileName();
  EXPECT_EQ(std::filesystem::path(copy).filename(), "work.oxp");
  EXPECT_TRUE(std::filesystem::exists(copy));
  EXPECT_EQ(Project().GetFileName(), named); // name and state left alone
  EXPECT_TRUE(Project().GetProjectChanged());
  EXPECT_EQ(FWindow->windowTitle().toStdString(), "Orvex Project - work.oxp*");
  {
    TModalWatcher watcher(Answer(QMessageBox::No));
    EXPECT_TRUE(FWindow->close());
  }
  EXPECT_FALSE(std::filesystem::exists(copy));
}

TEST_F(MainWindowTest, RecoveryCopyOfACrashedRunIsOfferedAndLoaded) {
  AddText("Crash victim", "unsaved");
  ASSERT_TRUE(FWindow->WriteRecoveryCopy());
  // The run ends without closing (a crash): the copy stays for the next start.
  FWindow.reset();
  FActions = std::make_unique<TProjectActionForm>();
  FWindow = std::make_unique<TOrvexMainWindow>(*FActions, "next-run");
  FWindow->show();
  ASSERT_EQ(TOrvexMainWindow::FindRecoveryCopies().size(), 1u);
  {
    TModalWatcher watcher(Answer(QMessageBox::Yes));
    FWindow->OfferRecoveryCopies();
  }
  ASSERT_EQ(FBoxes.size(), 1u);
  EXPECT_NE(FBoxes[0].find("Open the recovery copy?"), std::string::npos);
  ASSERT_EQ(Project().DataList().size(), 1u);
  EXPECT_EQ(Project().DataList()[0]->GetCaption(), "Crash victim");
  EXPECT_TRUE(Project().GetFileName().empty());
  EXPECT_TRUE(Project().GetProjectChanged());
  // A shutdown by signal keeps the copy; a normal close after saving removes it.
  FWindow->ShutdownWithoutQuestions();
  EXPECT_EQ(TOrvexMainWindow::FindRecoveryCopies().size(), 1u);
}

} // namespace
