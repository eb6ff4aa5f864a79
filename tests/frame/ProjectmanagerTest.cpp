// The project manager's table: columns, sort keys, filter, rename, delete, drag format, the active viewer's
// objects in bold, and a project of many objects (adding objects costs the project a notice to every
// other object, so the test stays at 4,000).
#include "frame/Projectmanager.h"

#include "FrameTestSupport.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "viewers/Viewershow.h"

#include <QFont>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMimeData>
#include <QSortFilterProxyModel>
#include <QTableView>

#include <gtest/gtest.h>

namespace {

using oxframetest::WaitFor;

class ProjectManagerTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    RegisterViewers();
  }
  void TearDown() override { TVCustomForm::DeleteRegisteredViewerList(); }

  int32_t AddText(const std::string& caption) {
    auto data = std::make_unique<TDText>();
    data->SetID(FProject.GetNewDataID());
    data->SetCaption(caption);
    const int32_t id = data->GetID();
    FProject.AddData(std::move(data));
    return id;
  }

  TProject FProject;
};

TEST_F(ProjectManagerTest, ColumnsRenameAndDelete) {
  const int32_t a = AddText("Alpha");
  const int32_t b = AddText("Beta");
  TVProjectManagerForm form(FProject, "s");
  TProjectManagerModel& model = form.Model();
  ASSERT_EQ(model.rowCount(), 2);
  EXPECT_EQ(model.data(model.index(0, TProjectManagerModel::ColumnID), Qt::DisplayRole).toString(),
            QString::number(a));
  EXPECT_EQ(model.data(model.index(1, TProjectManagerModel::ColumnCaption), Qt::DisplayRole).toString(),
            "Beta");
  EXPECT_EQ(model.data(model.index(1, TProjectManagerModel::ColumnClass), Qt::DisplayRole).toString(),
            "TDText");
  EXPECT_TRUE(model.flags(model.index(0, TProjectManagerModel::ColumnCaption)) & Qt::ItemIsEditable);
  EXPECT_FALSE(model.flags(model.index(0, TProjectManagerModel::ColumnID)) & Qt::ItemIsEditable);
  ASSERT_TRUE(model.setData(model.index(0, TProjectManagerModel::ColumnCaption), "Renamed", Qt::EditRole));
  EXPECT_EQ(FProject.FindData(a)->GetCaption(), "Renamed");

  form.SelectIDs({b});
  QKeyEvent del(QEvent::KeyPress, Qt::Key_Delete, Qt::NoModifier);
  QApplication::sendEvent(&form, &del);
  EXPECT_FALSE(FProject.FindData(b));
  model.Reload();
  EXPECT_EQ(model.rowCount(), 1);
}

TEST_F(ProjectManagerTest, SortByIDIsNumericAndFilterFindsCaptions) {
  for (int i = 0; i < 12; ++i) AddText(i == 7 ? "Needle" : "Hay " + std::to_string(i));
  TVProjectManagerForm form(FProject, "s");
  QAbstractItemModel* shown = form.View()->model();
  form.View()->sortByColumn(TProjectManagerModel::ColumnID, Qt::DescendingOrder);
  EXPECT_EQ(shown->data(shown->index(0, 0)).toString(), "12"); // 12 before 9: numbers, not texts
  EXPECT_EQ(shown->data(shown->index(1, 0)).toString(), "11");
  form.Filter()->setText("needle");
  ASSERT_EQ(shown->rowCount(), 1);
  EXPECT_EQ(shown->data(shown->index(0, 1)).toString(), "Needle");
  form.Filter()->clear();
  EXPECT_EQ(shown->rowCount(), 12);
}

TEST_F(ProjectManagerTest, DragCarriesIDsAndSessionAndOnlyThisSessionReadsThem) {
  const int32_t a = AddText("A");
  const int32_t b = AddText("B");
  TVProjectManagerForm form(FProject, "session-1");
  TProjectManagerModel& model = form.Model();
  std::unique_ptr<QMimeData> mime(model.mimeData({model.index(1, 0), model.index(0, 2), model.index(1, 3)}));
  EXPECT_EQ(TProjectManagerModel::DecodeIDs(mime.get(), "session-1"), (std::vector<int32_t>{b, a}));
  EXPECT_TRUE(TProjectManagerModel::DecodeIDs(mime.get(), "session-2").empty());
  QMimeData foreign;
  foreign.setText("1,2");
  EXPECT_TRUE(TProjectManagerModel::DecodeIDs(&foreign, "session-1").empty());
  QMimeData broken;
  broken.setData(TProjectManagerModel::kMimeType, "session-1;x,-4,,7");
  EXPECT_EQ(TProjectManagerModel::DecodeIDs(&broken, "session-1"), std::vector<int32_t>{7});
}

TEST_F(ProjectManagerTest, ObjectsOfTheActiveViewerAreBold) {
  const int32_t a = AddText("A");
  AddText("B");
  TVCustomForm* viewer = ShowIDsInViewer(FProject, {a});
  ASSERT_TRUE(viewer);
  TVProjectManagerForm form(FProject, "s");
  TProjectManagerModel& model = form.Model();
  EXPECT_FALSE(model.data(model.index(0, 1), Qt::FontRole).isValid());
  model.SetActiveViewer(viewer);
  EXPECT_TRUE(model.data(model.index(0, 1), Qt::FontRole).value<QFont>().bold());
  EXPECT_FALSE(model.data(model.index(1, 1), Qt::FontRole).isValid());
}

TEST_F(ProjectManagerTest, ThousandsOfObjectsAreListedSortedAndFiltered) {
  for (int i = 0; i < 4000; ++i) AddText("Object " + std::to_string(i));
  TVProjectManagerForm form(FProject, "s");
  form.resize(500, 400);
  form.show();
  ASSERT_TRUE(WaitFor([&] { return form.isVisible(); }));
  QAbstractItemModel* shown = form.View()->model();
  EXPECT_EQ(shown->rowCount(), 4000);
  form.View()->sortByColumn(TProjectManagerModel::ColumnID, Qt::DescendingOrder);
  EXPECT_EQ(shown->data(shown->index(0, 0)).toString(), "4000");
  form.Filter()->setText("Object 3999");
  ASSERT_EQ(shown->rowCount(), 1);
  EXPECT_EQ(shown->data(shown->index(0, 0)).toString(), "4000");
}

} // namespace
