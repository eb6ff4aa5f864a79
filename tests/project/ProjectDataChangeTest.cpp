// Change notices at scale: building a project of n objects makes a number of DataChanged calls that grows
// with n, not n²; removals still reach every object (so that references to a removed object go), and
// connectors still hear of every change; the data list stays sorted by ID, equal IDs in adding order.
#include "data/Dconnector.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"

#include <map>
#include <memory>

#include <gtest/gtest.h>

namespace {

/// A data object that counts what it is told.
class TCountingObject : public oxtest::TDTestObject {
public:
  void DataChanged(TData* sender, TDataChangeInfo info) override {
    oxtest::TDTestObject::DataChanged(sender, info);
    ++(*Calls)[static_cast<int>(info)];
  }
  std::map<int, int>* Calls = nullptr;
};

TEST(ProjectDataChangeTest, BuildingAProjectCostsCallsInProportionToItsSize) {
  oxtest::EnsureMemoryStrategy();
  TProject project;
  std::map<int, int> calls;
  auto connector = std::make_unique<TDConnector>();
  connector->SetID(project.GetNewDataID());
  int connectorHeard = 0;
  connector->OnDataChange = [&](TData*, TDataChangeInfo) { ++connectorHeard; };
  project.AddData(std::move(connector));
  const int n = 3000;
  for (int i = 0; i < n; ++i) {
    auto object = std::make_unique<TCountingObject>();
    object->Calls = &calls;
    object->SetID(project.GetNewDataID());
    project.AddData(std::move(object));
  }
  // Each addition reaches the connector, no other object: n calls, where telling every object made n²/2.
  EXPECT_EQ(connectorHeard, n);
  EXPECT_EQ(calls[static_cast<int>(TDataChangeInfo::Added)], 0);
  // A change of one object is heard by the connector alone.
  project.DataList()[5]->DoDataChange(TDataChangeInfo::CaptionChanged);
  EXPECT_EQ(connectorHeard, n + 1);
  EXPECT_EQ(calls[static_cast<int>(TDataChangeInfo::CaptionChanged)], 0);

  // A removal reaches every other object once.
  const int32_t removed = project.DataList()[10]->GetID();
  ASSERT_TRUE(project.DeleteData(removed));
  EXPECT_EQ(calls[static_cast<int>(TDataChangeInfo::Removed)], n - 1);
  EXPECT_EQ(project.FindData(removed), nullptr);
}

TEST(ProjectDataChangeTest, ATakenOutConnectorHearsNoMore) {
  oxtest::EnsureMemoryStrategy();
  TProject project;
  auto owned = std::make_unique<TDConnector>();
  owned->SetID(project.GetNewDataID());
  int heard = 0;
  owned->OnDataChange = [&](TData*, TDataChangeInfo) { ++heard; };
  const int32_t connectorID = owned->GetID();
  project.AddData(std::move(owned));
  oxtest::TDTestObject* first = nullptr;
  {
    auto object = std::make_unique<oxtest::TDTestObject>();
    object->SetID(project.GetNewDataID());
    first = object.get();
    project.AddData(std::move(object));
  }
  EXPECT_EQ(heard, 1);
  std::unique_ptr<TData> connector = project.DeleteDataAndReturnPointer(connectorID);
  ASSERT_NE(connector, nullptr);
  first->DoDataChange(TDataChangeInfo::DataChanged);
  auto object = std::make_unique<oxtest::TDTestObject>();
  object->SetID(project.GetNewDataID());
  project.AddData(std::move(object));
  EXPECT_EQ(heard, 1);
}

TEST(ProjectDataChangeTest, DataListStaysSortedByIDWithEqualIDsInAddingOrder) {
  oxtest::EnsureMemoryStrategy();
  TProject project;
  for (int32_t id : {5, 3, 9, 3, 1, 9, 7}) {
    auto object = std::make_unique<oxtest::TDTestObject>();
    object->SetID(id);
    object->SetCaption(std::to_string(id) + "#" + std::to_string(project.DataList().size()));
    project.AddData(std::move(object));
  }
  std::vector<std::string> order;
  for (const auto& data : project.DataList()) order.push_back(data->GetCaption());
  EXPECT_EQ(order, (std::vector<std::string>{"1#4", "3#1", "3#3", "5#0", "7#6", "9#2", "9#5"}));
}

} // namespace
