// Connectors pass the project's changes and its clearing to a tool and never travel with a project file;
// data evaluators survive a save and load.
#include "data/Dconnector.h"

#include "common/Standardmessage.h"
#include "data/Dcursor.h"
#include "project/Project.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

TEST(DconnectorTest, PassesChangesAndClearingAndIsNeverSaved) {
  RegisterCursorClasses();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
      new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));
  oxtest::TempDir dir;
  TProject project;
  auto connector = std::make_unique<TDConnector>();
  EXPECT_EQ(connector->GetCaption(), "Connector");
  EXPECT_EQ(connector->GetSaveMode(), TDataSaveMode::HardwareOwned);
  std::vector<std::pair<int32_t, TDataChangeInfo>> changes;
  int clears = 0;
  connector->OnDataChange = [&](TData* sender, TDataChangeInfo info) {
    changes.emplace_back(sender->GetID(), info);
  };
  connector->OnClearProject = [&] { ++clears; };
  connector->SetID(project.GetNewDataID());
  const int32_t connectorID = connector->GetID();
  project.AddData(std::move(connector));

  auto cursor = std::make_unique<TDSpectralCursor>();
  cursor->SetID(project.GetNewDataID());
  cursor->SetSaveMode(TDataSaveMode::Always);
  TDSpectralCursor* raw = cursor.get();
  project.AddData(std::move(cursor));
  raw->SetPosition(0, 500.0);
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_EQ(changes[0], std::make_pair(raw->GetID(), TDataChangeInfo::Added));
  EXPECT_EQ(changes[1], std::make_pair(raw->GetID(), TDataChangeInfo::DataChanged));

  ASSERT_EQ(project.SaveProjectToFile(dir.File("p.oxp")), 1);
  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(dir.File("p.oxp")), 1);
  EXPECT_TRUE(loaded.DataIDExists(raw->GetID()));
  EXPECT_FALSE(loaded.DataIDExists(connectorID));

  project.ClearProject();
  EXPECT_EQ(clears, 1);
}

TEST(DconnectorTest, DataEvaluatorRoundTrip) {
  oxtest::TempDir dir;
  const auto name = dir.File("e.oxt");
  TDDataEvaluator evaluator;
  evaluator.SetID(12);
  evaluator.SetCaption("Evaluator");
  TFileHandle f = CreateTagFile(name, "ORX_TEST");
  TTagControl root;
  root.WriteTag(f, "Root", TTagKind::TagList);
  ASSERT_EQ(evaluator.SaveDataToTagFile(f), 1);
  root.CloseWriteTag(f);
  CloseFile(f);
  TTagControl tree;
  ASSERT_EQ(tree.LoadTagListByFileName(name, "ORX_TEST"), 1);
  EXPECT_TRUE(tree.IsTagInList("TDDataEvaluator|Version"));
  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  TDDataEvaluator back;
  EXPECT_EQ(back.LoadDataFromTagFile(in, readRoot), 1);
  CloseFile(in);
  EXPECT_EQ(back.GetID(), 12);
  EXPECT_EQ(back.GetCaption(), "Evaluator");
}

} // namespace
