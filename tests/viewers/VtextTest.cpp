// The text viewer in a project: show, caption, settings, files written back unchanged, appended projects
// with shifted IDs, deleted texts, damaged viewer tags; and the plain text of rich text.
#include "viewers/Vtext.h"

#include "common/Saveandload.h"
#include "common/Standardmessage.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "viewers/Viewershow.h"

#include <gtest/gtest.h>

namespace {

class TextViewerTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
    RegisterViewers();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
        new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));
  }
  void TearDown() override { TVCustomForm::DeleteRegisteredViewerList(); }

  int32_t AddText(TProject& project, const std::string& caption, const std::string& text) {
    auto data = std::make_unique<TDText>();
    data->SetID(project.GetNewDataID());
    data->SetCaption(caption);
    data->SetText(text);
    const int32_t id = data->GetID();
    project.AddData(std::move(data));
    return id;
  }

  static TVTextForm* FirstTextViewer(TProject& project) {
    return dynamic_cast<TVTextForm*>(project.GetFirstViewerByClassName(TVTextForm::kClassName));
  }

  // The "Viewer" subtree of a project file.
  static std::unique_ptr<TTagControl> ViewerTree(const std::string& fileName) {
    auto root = std::make_unique<TTagControl>();
    EXPECT_GE(root->LoadTagListByFileName(fileName, TProject::kProjectIdentification), 1);
    return root;
  }

  static bool SameTree(const TTagControl& a, const TTagControl& b, std::string& where) {
    if (a.Name() != b.Name() || a.Kind() != b.Kind() || a.Data() != b.Data()) {
      where = a.Name() + " / " + b.Name();
      return false;
    }
    const size_t na = a.Children() ? a.Children()->size() : 0;
    const size_t nb = b.Children() ? b.Children()->size() : 0;
    if (na != nb) {
      where = a.Name() + ": children";
      return false;
    }
    for (size_t i = 0; i < na; ++i)
      if (!SameTree(*(*a.Children())[i], *(*b.Children())[i], where)) return false;
    return true;
  }
};

TEST_F(TextViewerTest, ShowPicksTheTextViewerAndCaptionNamesTheObject) {
  TProject project;
  const int32_t id = AddText(project, "Notes", "line one\nline two");
  EXPECT_EQ(FindViewerClassForIDs(project, {id}), "TVTextForm");
  TVCustomForm* viewer = ShowIDsInViewer(project, {id});
  ASSERT_TRUE(viewer);
  EXPECT_EQ(viewer->GetCaption(), "Text Viewer - Notes");
  EXPECT_TRUE(viewer->IsDataUsed(id));
  EXPECT_FALSE(viewer->IsDataUsed(0));
  EXPECT_EQ(static_cast<TVTextForm*>(viewer)->GetDisplayText(), "line one\nline two");
  // An ID that is no text is refused, by the check and by the viewer.
  EXPECT_FALSE(TVTextForm::IsInputIDListOkayForShowViewer(project, {12345}));
  EXPECT_FALSE(TVTextForm::IsInputIDListOkayForShowViewer(project, {}));
  EXPECT_FALSE(ShowIDsInViewer(project, {12345}));
  EXPECT_FALSE(viewer->AddDataID(12345));
  EXPECT_EQ(static_cast<TVTextForm*>(viewer)->GetTextID(), id);
}

TEST_F(TextViewerTest, DemoOpensItsDescriptionInATextViewer) {
  TProject project;
  const TDemoIDs ids = CreateDemoProject(project, {16, 8, 64, 3});
  TVTextForm* viewer = FirstTextViewer(project);
  ASSERT_TRUE(viewer);
  EXPECT_EQ(viewer->GetTextID(), ids.Description);
  EXPECT_EQ(viewer->GetCaption(), "Text Viewer - About this data set (demo)");
  EXPECT_NE(viewer->GetDisplayText().find("Orvex demo data set"), std::string::npos);
}

TEST_F(TextViewerTest, ChangesAndDeletionOfTheTextReachTheViewer) {
  TProject project;
  const int32_t id = AddText(project, "Notes", "first");
  auto* viewer = static_cast<TVTextForm*>(ShowIDsInViewer(project, {id}));
  static_cast<TDText*>(project.FindData(id))->SetText("second");
  EXPECT_EQ(viewer->GetDisplayText(), "second");
  project.FindData(id)->SetCaption("Renamed");
  EXPECT_EQ(viewer->GetCaption(), "Text Viewer - Renamed");
  ASSERT_TRUE(project.DeleteData(id));
  EXPECT_EQ(viewer->GetTextID(), 0);
  EXPECT_FALSE(viewer->IsDataUsed(id));
  EXPECT_EQ(viewer->GetCaption(), "Text Viewer");
}

TEST_F(TextViewerTest, SettingsAreUserParametersWithLimitsAndTravelInTheFile) {
  oxtest::TempDir dir;
  TProject project;
  const int32_t id = AddText(project, "Notes", "x");
  auto* viewer = static_cast<TVTextForm*>(ShowIDsInViewer(project, {id}));
  ASSERT_TRUE(viewer->GetCFI());
  EXPECT_FALSE(viewer->GetCFI()->SetParameterValuesFromText({"FontSize=200"}).empty());
  EXPECT_EQ(viewer->GetFontSize(), 9);
  project.SetProjectChanged(false);
  EXPECT_TRUE(viewer->GetCFI()->SetParameterValuesFromText({"FontSize=14", "WordWrap=Off"}).empty());
  EXPECT_TRUE(project.GetProjectChanged());
  const std::string file = dir.File("p.oxp");
  ASSERT_GE(project.SaveProjectToFile(file), 1);
  TProject back;
  ASSERT_GE(back.LoadProjectFromFile(file), 1);
  TVTextForm* loaded = FirstTextViewer(back);
  ASSERT_TRUE(loaded);
  EXPECT_EQ(loaded->GetFontSize(), 14);
  EXPECT_FALSE(loaded->GetWordWrap());
  EXPECT_EQ(loaded->GetTextID(), id);
  EXPECT_FALSE(back.GetProjectChanged()); // loading a viewer is no change
}

TEST_F(TextViewerTest, ConvertAndCompatibleSaveWriteViewersBackUnchanged) {
  oxtest::TempDir dir;
  TProject project;
  const int32_t id = AddText(project, "Notes", "x");
  TVCustomForm* viewer = ShowIDsInViewer(project, {id});
  viewer->SetBounds(-1500, 40, 640, 480);
  TWindowPlacement p = viewer->GetPlacement();
  p.ShowCommand = TWindowPlacement::kShowMaximized;
  viewer->SetPlacement(p);
  const std::string first = dir.File("first.oxp");
  ASSERT_GE(project.SaveProjectToFile(first), 1);

  TProject again;
  ASSERT_GE(again.LoadProjectFromFile(first), 1);
  const std::string second = dir.File("second.oxp");
  ASSERT_GE(again.SaveProjectToFile(second), 1);
  const std::string compatible = dir.File("compatible.oxp");
  ASSERT_GE(again.SaveProjectToFile(compatible, {TProject::kCompatibleVersion}), 1);

  auto a = ViewerTree(first);
  auto b = ViewerTree(second);
  auto c = std::make_unique<TTagControl>();
  ASSERT_GE(c->LoadTagListByFileName(compatible, TProject::kProjectIdentificationOld), 1);
  const TTagControl* va = a->FindTagInList("Viewer");
  const TTagControl* vb = b->FindTagInList("Viewer");
  const TTagControl* vc = c->FindTagInList("Viewer");
  ASSERT_TRUE(va && vb && vc);
  std::string where;
  EXPECT_TRUE(SameTree(*va, *vb, where)) << where;
  EXPECT_TRUE(SameTree(*va, *vc, where)) << where;
  int32_t left = 0;
  EXPECT_EQ(va->GetIntTagInList("Viewer 0|TVCustomForm|WindowLeft", left), teNoError);
  EXPECT_EQ(left, -1500);
}

TEST_F(TextViewerTest, AppendShiftsTheViewersIDs) {
  oxtest::TempDir dir;
  TProject source;
  const int32_t id = AddText(source, "Appended", "x");
  ShowIDsInViewer(source, {id});
  const std::string file = dir.File("source.oxp");
  ASSERT_GE(source.SaveProjectToFile(file), 1);

  TProject main;
  AddText(main, "A", "a");
  AddText(main, "B", "b");
  const int32_t delta = main.GetNextDataID();
  TProject loader;
  ASSERT_GE(loader.LoadProjectFromFile(file), 1);
  main.AppendProject(loader);
  TVTextForm* viewer = FirstTextViewer(main);
  ASSERT_TRUE(viewer);
  EXPECT_EQ(viewer->GetTextID(), id + delta);
  ASSERT_TRUE(main.FindData(viewer->GetTextID()));
  EXPECT_EQ(main.FindData(viewer->GetTextID())->GetCaption(), "Appended");
}

TEST_F(TextViewerTest, DamagedViewerIsDroppedAloneAndUnknownClassIsKept) {
  oxtest::TempDir dir;
  TProject project;
  const int32_t id = AddText(project, "Notes", "x");
  ShowIDsInViewer(project, {id});
  ShowIDsInViewer(project, {id});
  const std::string file = dir.File("p.oxp");
  ASSERT_GE(project.SaveProjectToFile(file), 1);

  // Rename the first viewer's required "ShowCommand" tag in the file bytes: that viewer is damaged.
  std::string bytes = oxtest::ReadFileBytes(file);
  const size_t at = bytes.find("ShowCommand");
  ASSERT_NE(at, std::string::npos);
  bytes[at] = 'X';
  const std::string damaged = dir.File("damaged.oxp");
  oxtest::WriteFileBytes(damaged, bytes);
  TProject back;
  ASSERT_GE(back.LoadProjectFromFile(damaged), 1);
  EXPECT_EQ(back.GetViewerListByClassName(TVTextForm::kClassName).size(), 1u);

  // Without the class registered the viewers are kept as stored tags and written back.
  TVCustomForm::DeleteRegisteredViewerList();
  TProject unknown;
  ASSERT_GE(unknown.LoadProjectFromFile(file), 1);
  ASSERT_EQ(unknown.ViewerList().size(), 2u);
  EXPECT_FALSE(dynamic_cast<TVTextForm*>(unknown.ViewerList()[0].get()));
  EXPECT_EQ(unknown.ViewerList()[0]->GetClassNameA(), "TVTextForm");
}

TEST(RichTextTest, PlainTextOfRichText) {
  const std::string rtf =
      "{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0 Calibri;}}{\\colortbl;\\red255\\green0\\blue0;}"
      "{\\*\\generator Writer;}\\f0\\fs20 Peak at 520 cm\\'b9\\par "
      "Width 3 \\'b5m\\tab ok\\line \\{braces\\}\\\\ end}";
  EXPECT_EQ(TVTextForm::RichTextToPlainText(rtf),
            "Peak at 520 cm\xC2\xB9\nWidth 3 \xC2\xB5m\tok\n{braces}\\ end");
  EXPECT_EQ(TVTextForm::RichTextToPlainText(""), "");
  // Unbalanced groups and a trailing backslash end without reading past the text.
  EXPECT_EQ(TVTextForm::RichTextToPlainText("}}a{b\\"), "ab");
  EXPECT_EQ(TVTextForm::RichTextToPlainText("x\\'4"), "x");
}

} // namespace
