// The filter viewer: live values equal the extraction's, a writer's changed spectra recalculate only their
// pixels, a changed filter recalculates only itself, the cursor values, the input going away, persistence,
// quick filter files; and the data exchange between a writer and its readers.
#include "viewers/Vfilter.h"

#include "common/MainThreadQueue.h"
#include "common/OrvexException.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "project/Quickfilterfile.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "viewers/ViewerTestSupport.h"
#include "viewers/Viewershow.h"

#include <cmath>
#include <filesystem>

#include <gtest/gtest.h>

namespace {

constexpr int kWait = 20000;

class VfilterTest : public oxtest::DemoViewerFixture<TVFilterForm> {
protected:
  void SetUp() override {
    TMainThreadQueue::Instance().SetMainThread();
    MakeDemoWithViewer(9, 6, 128);
  }
  void TearDown() override {
    if (FViewer) FViewer->SetLive(false);
  }
  // Every spectrum: level (x + 1)(y + 2) plus pixel index / 100, so that sums differ per pixel and range.
  void SetLevels(float extra = 0) {
    std::vector<float> s(static_cast<size_t>(Map().GetSizeGraph()));
    for (int32_t y = 0; y < Map().GetSizeY(); ++y)
      for (int32_t x = 0; x < Map().GetSizeX(); ++x) {
        for (size_t g = 0; g < s.size(); ++g) s[g] = float((x + 1) * (y + 2)) + float(g) / 100 + extra;
        Map().SetSpectrum(x, y, s.data());
      }
  }
  // A sum filter over pixels [first, last] of the axis, without background.
  int32_t AddSumFilter(int32_t first, int32_t last) {
    const int32_t index = FViewer->CreateFilter(gfkSum);
    TGraphFilterInfo info = FViewer->GetFilterInfo(index);
    TGraphAxisPositions axis;
    EXPECT_TRUE(GetGraphAxisPositions(Map(), 0, info.UnitIndex, axis));
    const double a = axis.X[static_cast<size_t>(first)], b = axis.X[static_cast<size_t>(last)];
    info.FilterPosition = 0.5 * (a + b);
    info.FilterWidth = std::abs(b - a) * 1.0000001;
    info.LowerBGPixels = info.UpperBGPixels = 0;
    EXPECT_EQ(FViewer->UpdateFilter(index, info), "");
    return index;
  }
  static double ExpectedSum(int32_t x, int32_t y, int32_t first, int32_t last, float extra = 0) {
    double sum = 0;
    for (int32_t g = first; g <= last; ++g) sum += float((x + 1) * (y + 2)) + float(g) / 100 + extra;
    return sum;
  }
};

TEST(DataExchangeTest, OneWriterManyReadersAndMarksTakenOnce) {
  TDataExchangeHolder exchange;
  int woken = 0;
  exchange.RegisterWriter(&woken);
  exchange.RegisterWriter(&woken); // the same writer again is fine
  try {
    exchange.RegisterWriter(&exchange);
    FAIL() << "a second writer was accepted";
  } catch (const OrvexException& e) {
    EXPECT_NE(std::string(e.what()).find(
                  "TData::RegisterDataWriter(): Writer already registered for this Object !"),
              std::string::npos);
  }
  exchange.RegisterReader(&exchange, [&woken] { ++woken; });
  exchange.CreateExchangeStruct(4, 3);
  exchange.Mark([](TDataExchangeStruct& marks) {
    marks.MarkPixel(1, 2);
    marks.MarkPixel(4, 0); // outside: ignored
    marks.MarkLine(0);
  });
  EXPECT_EQ(woken, 1);
  TDataExchangeStruct taken;
  EXPECT_TRUE(exchange.Take(taken));
  EXPECT_TRUE(taken.HasXYChanged(1, 2));
  EXPECT_TRUE(taken.HasXYChanged(3, 0));
  EXPECT_FALSE(taken.HasXYChanged(1, 1));
  EXPECT_FALSE(taken.HasXYChanged(-1, 0));
  EXPECT_FALSE(exchange.Take(taken)) << "marks are reset when taken";
  exchange.UnRegisterReader(&exchange);
  exchange.Mark([](TDataExchangeStruct& marks) { marks.MarkAll(); });
  EXPECT_EQ(woken, 1) << "an unregistered reader isn't woken";
  exchange.UnRegisterWriter(&woken);
  EXPECT_FALSE(exchange.HasWriter());
}

TEST_F(VfilterTest, DataChangeWithoutWriterMarksEveryPixel) {
  int woken = 0;
  Map().RegisterDataReader(&woken, [&woken] { ++woken; });
  Map().DataExchange().CreateExchangeStruct(Map().GetSizeX(), Map().GetSizeY());
  Map().DoDataChange(TDataChangeInfo::DataChanged);
  TDataExchangeStruct taken;
  ASSERT_TRUE(Map().DataExchange().Take(taken));
  EXPECT_TRUE(taken.HasXYChanged(8, 5));
  // With a writer the writer marks its own pixels; the change alone marks nothing.
  Map().RegisterDataWriter(this);
  Map().DoDataChange(TDataChangeInfo::DataChanged);
  EXPECT_FALSE(Map().DataExchange().Take(taken));
  Map().UnRegisterDataWriter(this);
  Map().UnRegisterDataReader(&woken);
  EXPECT_GE(woken, 1);
}

TEST_F(VfilterTest, LiveValuesEqualTheExtraction) {
  SetLevels();
  const int32_t index = AddSumFilter(40, 59);
  FViewer->SetLive(true);
  ASSERT_TRUE(FViewer->WaitUntilCalculated(kWait));
  const std::vector<float> values = FViewer->GetResultValues(index);
  ASSERT_EQ(values.size(), size_t(9 * 6));
  for (int32_t y = 0; y < 6; ++y)
    for (int32_t x = 0; x < 9; ++x)
      EXPECT_NEAR(values[size_t(y * 9 + x)], ExpectedSum(x, y, 40, 59), 1e-3) << x << "," << y;
  // The live image shows the same values.
  auto* live = dynamic_cast<TDImage*>(FProject.FindData(FViewer->GetResultObjectID(index)));
  ASSERT_NE(live, nullptr);
  EXPECT_EQ(live->GetSaveMode(), TDataSaveMode::Never);
  EXPECT_FLOAT_EQ(live->GetField(4, 3), values[3 * 9 + 4]);
  // The permanent extraction gives the same numbers.
  const TIntList ids = FViewer->ExtractFilters(true);
  ASSERT_EQ(ids.size(), 1u);
  auto* image = dynamic_cast<TDImage*>(FProject.FindData(ids.front()));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->GetSaveMode(), TDataSaveMode::Always);
  for (int32_t y = 0; y < 6; ++y)
    for (int32_t x = 0; x < 9; ++x) EXPECT_FLOAT_EQ(image->GetField(x, y), values[size_t(y * 9 + x)]);
  // Switching off removes the live image.
  const int32_t liveID = FViewer->GetResultObjectID(index);
  FViewer->SetLive(false);
  EXPECT_EQ(FProject.FindData(liveID), nullptr);
}

TEST_F(VfilterTest, AWriterRecalculatesOnlyItsPixelsAndAChangedFilterOnlyItself) {
  SetLevels();
  const int32_t a = AddSumFilter(10, 19);
  const int32_t b = AddSumFilter(70, 79);
  FViewer->SetLive(true);
  ASSERT_TRUE(FViewer->WaitUntilCalculated(kWait));
  const int64_t afterFirst = FViewer->GetCalculationCount();
  EXPECT_EQ(afterFirst, 2 * 9 * 6);

  // A measurement writes two spectra and marks them.
  Map().RegisterDataWriter(this);
  std::vector<float> s(static_cast<size_t>(Map().GetSizeGraph()), 1.0f);
  Map().SetSpectrum(2, 1, s.data());
  Map().SetSpectrum(7, 4, s.data());
  Map().DataExchange().Mark([](TDataExchangeStruct& marks) {
    marks.MarkPixel(2, 1);
    marks.MarkPixel(7, 4);
  });
  ASSERT_TRUE(FViewer->WaitUntilCalculated(kWait));
  EXPECT_EQ(FViewer->GetCalculationCount() - afterFirst, 2 * 2) << "two pixels, two filters";
  EXPECT_FLOAT_EQ(FViewer->GetResultValues(a)[1 * 9 + 2], 10.0f);
  EXPECT_FLOAT_EQ(FViewer->GetResultValues(b)[4 * 9 + 7], 10.0f);
  EXPECT_NEAR(FViewer->GetResultValues(a)[0], ExpectedSum(0, 0, 10, 19), 1e-3) << "others kept";
  Map().UnRegisterDataWriter(this);

  // One filter changed: all valid pixels for that filter alone.
  const int64_t beforeChange = FViewer->GetCalculationCount();
  TGraphFilterInfo info = FViewer->GetFilterInfo(b);
  info.FilterKind = gfkMaximum;
  ASSERT_EQ(FViewer->UpdateFilter(b, info), "");
  ASSERT_TRUE(FViewer->WaitUntilCalculated(kWait));
  EXPECT_EQ(FViewer->GetCalculationCount() - beforeChange, 9 * 6);
  EXPECT_NEAR(FViewer->GetResultValues(b)[0], 1 * 2 + 79 / 100.0, 1e-3);
}

TEST_F(VfilterTest, CursorValueAveragesTheSquareAroundTheSpaceCursor) {
  SetLevels();
  const int32_t index = AddSumFilter(0, 9);
  auto* cursor =
      dynamic_cast<TDCursor*>(FProject.FindData(FProject.MakeOrGetFirstIDByClassName("TDSpaceCursor")));
  ASSERT_NE(cursor, nullptr);
  const auto* space =
      dynamic_cast<const TDSpaceTransformation*>(FProject.FindData(Map().GetSpaceTransformationID()));
  ASSERT_NE(space, nullptr);
  const double bin[3] = {4, 3, 0};
  double world[3];
  space->BinToReal(bin, world);
  cursor->SetPosition(0, world[0]);
  cursor->SetPosition(1, world[1]);
  cursor->DoDataChange(TDataChangeInfo::DataChanged);
  FViewer->GetCFI()->GetUserIntParameter(TVFilterForm::kSpatialAverageSize)->SetParameter(0);
  FViewer->SetLive(true);
  ASSERT_TRUE(FViewer->WaitUntilCalculated(kWait));
  EXPECT_NEAR(FViewer->GetLastValue(index), ExpectedSum(4, 3, 0, 9), 1e-3);
  // Radius 1: the nine neighbours' average; the level is linear in x and y, so the average is the centre's.
  FViewer->GetCFI()->GetUserIntParameter(TVFilterForm::kSpatialAverageSize)->SetParameter(1);
  ASSERT_TRUE(FViewer->WaitUntilCalculated(kWait));
  double sum = 0;
  for (int dy = -1; dy <= 1; ++dy)
    for (int dx = -1; dx <= 1; ++dx) sum += ExpectedSum(4 + dx, 3 + dy, 0, 9);
  EXPECT_NEAR(FViewer->GetLastValue(index), sum / 9, 1e-2);
}

TEST_F(VfilterTest, InputDeletedLeavesNoGraphDataAndStopsTheTeam) {
  SetLevels();
  AddSumFilter(5, 15);
  FViewer->SetLive(true);
  ASSERT_TRUE(FViewer->WaitUntilCalculated(kWait));
  EXPECT_EQ(FViewer->GetStatusText(), TVFilterForm::kReady);
  ASSERT_TRUE(FProject.DeleteData(FIDs.Map));
  EXPECT_FALSE(FViewer->IsLive());
  EXPECT_EQ(FViewer->GetGraphID(), 0);
  EXPECT_EQ(FViewer->GetStatusText(), TVFilterForm::kNoGraphData);
  EXPECT_EQ(FViewer->GetFilterCount(), 1) << "the filters stay";
  std::string reason;
  EXPECT_TRUE(FViewer->ExtractViewerObjects(reason).empty());
  EXPECT_NE(reason.find("No Graph Data"), std::string::npos);
}

TEST_F(VfilterTest, FiltersAndSettingsRoundTripThroughTheProjectFile) {
  SetLevels();
  const int32_t index = AddSumFilter(20, 30);
  FViewer->RenameFilter(index, "Band A");
  FViewer->CreateAllFourMinMax();
  FViewer->GetCFI()->GetUserIntParameter(TVFilterForm::kSpatialAverageSize)->SetParameter(4);
  const std::string file = FDir.File("filterviewer.oxp");
  ASSERT_EQ(FProject.SaveProjectToFile(file), teNoError);

  TProject loaded;
  ASSERT_EQ(loaded.LoadProjectFromFile(file), teNoError);
  TVFilterForm* again = nullptr;
  for (size_t i = 0; i < loaded.ViewerList().size(); ++i)
    if (auto* v = dynamic_cast<TVFilterForm*>(loaded.GetViewer(i))) again = v;
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->GetGraphID(), FIDs.Map);
  ASSERT_EQ(again->GetFilterCount(), 5);
  EXPECT_EQ(again->GetFilterInfo(0), FViewer->GetFilterInfo(0));
  EXPECT_EQ(again->GetFilterInfo(0).FilterCaption, "Band A");
  EXPECT_EQ(again->GetFilterInfo(4).FilterKind, gfkPosMaximum);
  EXPECT_EQ(again->GetSpatialAverageSize(), 4);
  // Loaded filters calculate as the saved ones.
  std::string reason;
  const TIntList ids = again->ExtractViewerObjects(reason);
  ASSERT_EQ(ids.size(), 5u) << reason;
  auto* image = dynamic_cast<TDImage*>(loaded.FindData(ids.front()));
  ASSERT_NE(image, nullptr);
  EXPECT_NEAR(image->GetField(3, 2), ExpectedSum(3, 2, 20, 30), 1e-3);
}

TEST_F(VfilterTest, QuickFilterFilesReplaceTheListAndRefuseWrongFiles) {
  SetLevels();
  AddSumFilter(20, 30);
  FViewer->CreateFilter(gfkPosition);
  FViewer->SetFilterSelected(1, true);
  EXPECT_EQ(FViewer->GetSelectionText(), FViewer->GetFilterInfo(1).FilterCaption);
  const std::string file = FDir.File("quick.oxf");
  ASSERT_EQ(FViewer->SaveQuickFilters(file, true), "");
  FViewer->SelectAllFilters(true);
  EXPECT_EQ(FViewer->GetSelectionText(), TVFilterForm::kMultipleFilters);
  ASSERT_EQ(FViewer->LoadQuickFilters(file), "");
  ASSERT_EQ(FViewer->GetFilterCount(), 1);
  EXPECT_EQ(FViewer->GetFilterInfo(0).FilterKind, gfkPosition);
  EXPECT_EQ(FViewer->GetSelectionText(), TVFilterForm::kNoFilterSelected);

  const std::string wrong = FDir.File("notquick.oxf");
  oxtest::WriteFileBytes(wrong, "this is no tag file at all");
  EXPECT_FALSE(FViewer->LoadQuickFilters(wrong).empty());
  EXPECT_EQ(FViewer->GetFilterCount(), 1) << "a failed load changes nothing";
}

TEST_F(VfilterTest, ShowAcceptsExactlyOneGraph) {
  EXPECT_TRUE(TVFilterForm::IsInputIDListOkayForShowViewer(FProject, {FIDs.Map}));
  EXPECT_FALSE(TVFilterForm::IsInputIDListOkayForShowViewer(FProject, {FIDs.Map, FIDs.Map}));
  EXPECT_FALSE(TVFilterForm::IsInputIDListOkayForShowViewer(FProject, {FIDs.Topography}));
  EXPECT_FALSE(TVFilterForm::IsInputIDListOkayForShowViewer(FProject, {}));
  EXPECT_FALSE(FViewer->AddDataID(FIDs.Topography));
  EXPECT_EQ(FViewer->GetGraphID(), FIDs.Map);
}

} // namespace
