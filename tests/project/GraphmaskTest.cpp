// Graph masks: sizes, ranges, the apply-to-all flag, the buttons with their exclusive upper edit, change
// reports to the tool and the viewer, extraction as a graph, and the text form over a calibrated axis.
#include "project/Graphmask.h"

#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "project/Project.h"
#include "support/SpectralAxis.h"
#include "support/TestDataObjects.h"

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

namespace {

class TTestOwner : public IGraphMaskOwner {
public:
  explicit TTestOwner(IDataProject* project) : Project(project) {}
  IDataProject* GetMaskProject() override { return Project; }
  bool IsMaskOwnerActive() const override { return Active; }
  IDataProject* Project;
  bool Active = true;
};

struct TBandCall {
  int32_t GraphID;
  int Band, First, Last;
  std::vector<bool> Mask;
};

class TTestViewer : public IGraphMaskViewer {
public:
  explicit TTestViewer(int size) : Size(size) {}
  void SetMultiMask(int32_t graphID, int band, int first, int last, const bool* mask) override {
    Calls.push_back({graphID, band, first, last, std::vector<bool>(mask, mask + Size)});
  }
  void HideMarker() override { ++HideCalls; }
  int Size;
  std::vector<TBandCall> Calls;
  int HideCalls = 0;
};

std::vector<bool> Bits(const TGraphMask& m, int index) {
  const bool* p = m.GetMask(index);
  return p ? std::vector<bool>(p, p + m.GetMaskSize()) : std::vector<bool>();
}

std::vector<bool> Pattern(int size, std::initializer_list<int> set) {
  std::vector<bool> v(size, false);
  for (int i : set) v[i] = true;
  return v;
}

constexpr double kExcitation = 532.0;
constexpr int kPoints = 64;

// A project with a one-spectrum graph on a quadratic wavelength axis shown in rel. 1/cm, and a plain image
// object to have an ID that isn't a graph.
class GraphMaskTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    const oxtest::TSpectralAxisIDs axis = oxtest::AddSpectralAxis(Project, kExcitation, 540.0, 0.5, -1e-3);
    Interpretation = dynamic_cast<TDSpectralInterpretation*>(Project.FindData(axis.Interpretation));
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(Project.GetNewDataID());
    graph->SetFieldSize(2, 1, TDataFieldKind::Float, kPoints);
    graph->SetXTransformationID(axis.Transformation);
    graph->SetXInterpretationID(Interpretation->GetID());
    graph->SetCaption("Raman");
    GraphID = graph->GetID();
    Project.AddData(std::move(graph));
    auto plain = std::make_unique<TDGraph>();
    plain->SetID(Project.GetNewDataID());
    plain->SetFieldSize(1, 1, TDataFieldKind::Float, kPoints);
    PlainGraphID = plain->GetID();
    Project.AddData(std::move(plain));
    auto other = std::make_unique<oxtest::TDTestObject>();
    other->SetID(Project.GetNewDataID());
    OtherID = other->GetID();
    Project.AddData(std::move(other));
  }

  static double Wavelength(int p) { return 540.0 + 0.5 * p - 1e-3 * p * p; }
  static double RelativeWavenumber(int p) { return 1e7 / kExcitation - 1e7 / Wavelength(p); }

  TProject Project;
  TDSpectralInterpretation* Interpretation = nullptr;
  int32_t GraphID = 0, PlainGraphID = 0, OtherID = 0;
};

} // namespace

TEST(GraphMask, SizeChangesKeepOrDropContents) {
  TGraphMask m(nullptr, 10, 2, 0);
  m.ClearAll();
  m.SetMaskRange(2, 4);
  m.SetMaskSize(10); // unchanged: kept
  EXPECT_EQ(Bits(m, 0), Pattern(10, {2, 3, 4}));
  m.SetMaskSize(12); // changed: made again, nothing of the old set survives
  EXPECT_EQ(Bits(m, 0), std::vector<bool>(12, false));
  m.SetMaskRange(0, 11);
  m.SetNumberOfMasks(2);
  EXPECT_EQ(Bits(m, 0), std::vector<bool>(12, true));
  m.SetNumberOfMasks(3);
  EXPECT_EQ(m.GetNumberOfMasks(), 3);
  EXPECT_EQ(Bits(m, 0), std::vector<bool>(12, false));
  // A zero size or count leaves no arrays, and no operation touches any.
  m.SetMaskSize(0);
  EXPECT_EQ(m.GetMask(0), nullptr);
  m.SetAll();
  m.Set(0);
  EXPECT_TRUE(m.IsMaskCleared());
  EXPECT_TRUE(m.ExtractMask().empty());
  m.SetMaskSize(5);
  ASSERT_NE(m.GetMask(2), nullptr);
  EXPECT_EQ(m.GetMask(3), nullptr);
}

TEST(GraphMask, RangesPointsAndTheirBounds) {
  int changes = 0;
  TGraphMask m(nullptr, 8, 1, 0);
  m.ClearAll();
  m.SetOnMaskChangeEvent([&](int) { ++changes; });
  m.SetMaskRange(3, 3); // first = last: one point
  EXPECT_EQ(Bits(m, 0), Pattern(8, {3}));
  m.SetMaskRange(6, 7); // inclusive upper bound at the last point
  m.Set(0);
  m.Clear(6);
  EXPECT_EQ(Bits(m, 0), Pattern(8, {0, 3, 7}));
  EXPECT_EQ(changes, 4);
  // Invalid values and ranges change nothing and report nothing.
  for (auto [a, b] : {std::pair{-1, 2}, {2, 8}, {5, 4}, {8, 8}}) {
    m.SetMaskRange(a, b);
    m.ClearMaskRange(a, b);
    m.CropMaskRange(a, b);
  }
  m.Set(8);
  m.Clear(-1);
  EXPECT_EQ(changes, 4);
  EXPECT_EQ(Bits(m, 0), Pattern(8, {0, 3, 7}));
  m.CropMaskRange(2, 3); // inside set, whether it was or not; outside cleared
  EXPECT_EQ(Bits(m, 0), Pattern(8, {2, 3}));
  m.ClearMaskRange(0, 7);
  EXPECT_TRUE(m.IsMaskCleared());
  m.InvertAll();
  EXPECT_EQ(Bits(m, 0), std::vector<bool>(8, true));
  EXPECT_TRUE(m.IsRangeFilledWithValue(0, 7, true));
  m.Clear(4);
  EXPECT_FALSE(m.IsRangeFilledWithValue(0, 7, true));
  EXPECT_TRUE(m.IsRangeFilledWithValue(4, 4, false));
  EXPECT_TRUE(m.IsRangeFilledWithValue(5, 4, false)); // empty range
  EXPECT_FALSE(m.IsRangeFilledWithValue(5, 8, true)); // reaches outside
  EXPECT_TRUE(m.IsRangeValid(0, 7));
  EXPECT_FALSE(m.IsRangeValid(0, 8));
  EXPECT_TRUE(m.IsValueValid(7));
  EXPECT_FALSE(m.IsValueValid(8));
}

TEST(GraphMask, PlainArraysInAndOut) {
  TGraphMask m(nullptr, 4, 2, 0);
  m.ClearAll();
  const bool a[4] = {true, false, true, true};
  m.CopyCompleteMaskFrom(1, a);
  m.CopyCompleteMaskFrom(2, a); // one past the set: there is no array, nothing happens
  EXPECT_TRUE(m.IsMaskEqual(a, 1));
  EXPECT_FALSE(m.IsMaskEqual(a, 0));
  EXPECT_FALSE(m.IsMaskEqual(a, 2));
  // SetCurrentMask writes silently, SetMask reports the change.
  int changes = 0;
  m.SetOnMaskChangeEvent([&](int) { ++changes; });
  m.SetCurrentMask(a);
  EXPECT_EQ(changes, 0);
  m.SetMask(a);
  EXPECT_EQ(changes, 1);
  EXPECT_TRUE(m.IsMaskEqual(a, 0));
}

TEST(GraphMask, ApplyToAllChangesEveryMask) {
  TGraphMask m(nullptr, 5, 3, 0);
  m.SetApplyToAll(true);
  m.ClearAll();
  m.SetApplyToAll(false);
  m.SetCurrentMaskIndex(1);
  m.SetMaskRange(0, 1);
  m.SetApplyToAll(true);
  m.InvertAll();
  EXPECT_EQ(Bits(m, 0), std::vector<bool>(5, true));
  EXPECT_EQ(Bits(m, 1), Pattern(5, {2, 3, 4}));
  EXPECT_EQ(Bits(m, 2), std::vector<bool>(5, true));
  m.SetApplyToAll(false);
  m.InvertAll(); // the current one only
  EXPECT_EQ(Bits(m, 1), Pattern(5, {0, 1}));
  EXPECT_EQ(Bits(m, 0), std::vector<bool>(5, true));
  m.SetCurrentMaskIndex(7); // outside: stays
  EXPECT_EQ(m.GetCurrentMaskIndex(), 1);
}

TEST(GraphMask, ButtonsTakeTheUpperEditAsExclusiveAndWorkOnTheirTagsMask) {
  TTestOwner owner(nullptr);
  TGraphMask m(&owner, 10, 3, 0);
  m.SetApplyToAll(true);
  m.ClearAll();
  m.SetApplyToAll(false);
  int lower = 2, upper = 5, value = 9;
  m.SetRangeControls([&] { return lower; }, [&] { return upper; });
  m.SetOneValueControls([&] { return value; });
  m.SetCurrentMaskIndex(0);
  m.SetRangeButtonClick(1); // works on mask 1, then mask 0 is current again
  EXPECT_EQ(Bits(m, 1), Pattern(10, {2, 3, 4}));
  EXPECT_EQ(Bits(m, 0), std::vector<bool>(10, false));
  EXPECT_EQ(m.GetCurrentMaskIndex(), 0);
  m.SetMaskRange(2, 5); // the operation itself is inclusive
  EXPECT_EQ(Bits(m, 0), Pattern(10, {2, 3, 4, 5}));
  m.SetButtonClick(2);
  EXPECT_EQ(Bits(m, 2), Pattern(10, {9}));
  lower = 0, upper = 10; // the whole mask: upper may equal the size
  m.CropRangeButtonClick(-1);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Bits(m, i), std::vector<bool>(10, true)) << i;
  EXPECT_FALSE(m.GetApplyToAll()); // set for that operation only
  lower = 3, upper = 4;
  m.ClearRangeButtonClick(0);
  std::vector<bool> expected(10, true);
  expected[3] = false;
  EXPECT_EQ(Bits(m, 0), expected);
  value = 3;
  m.SetButtonClick(0);
  m.ClearButtonClick(1);
  EXPECT_EQ(Bits(m, 0), std::vector<bool>(10, true));
  EXPECT_EQ(Bits(m, 1), expected);
  m.InvertAllButtonClick(2);
  EXPECT_EQ(Bits(m, 2), std::vector<bool>(10, false));
  m.SetAllButtonClick(2);
  EXPECT_EQ(Bits(m, 2), std::vector<bool>(10, true));
  m.ClearAllButtonClick(-1);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(Bits(m, i) == std::vector<bool>(10, false)) << i;
}

TEST(GraphMask, ButtonsDoNothingWhileTheToolIsInactiveOrTheEditsAreInvalid) {
  TTestOwner owner(nullptr);
  TGraphMask m(&owner, 6, 2, 0);
  m.SetApplyToAll(true);
  m.ClearAll();
  m.SetApplyToAll(false);
  int lower = 1, upper = 3, value = 2;
  m.SetRangeControls([&] { return lower; }, [&] { return upper; });
  m.SetOneValueControls([&] { return value; });
  owner.Active = false;
  m.SetRangeButtonClick(0);
  m.SetButtonClick(0);
  m.SetAllButtonClick(-1);
  EXPECT_TRUE(m.IsMaskCleared());
  owner.Active = true;
  // Edits: lower at least 0 and below upper and the size, upper at most the size; the one value inside.
  for (auto [a, b] : {std::pair{-1, 3}, {3, 3}, {4, 2}, {2, 7}, {6, 7}}) {
    lower = a, upper = b;
    EXPECT_FALSE(m.IsRangeValid()) << a << ":" << b;
    m.SetRangeButtonClick(0);
    m.CropRangeButtonClick(-1);
  }
  for (int v : {-1, 6}) {
    value = v;
    EXPECT_FALSE(m.IsValueValid());
    m.SetButtonClick(0);
  }
  EXPECT_TRUE(m.IsMaskCleared());
  m.SetButtonClick(5); // a tag beyond the set
  lower = 5, upper = 6;
  EXPECT_TRUE(m.IsRangeValid());
  m.SetRangeButtonClick(1);
  EXPECT_EQ(Bits(m, 1), Pattern(6, {5}));
  // Without a tool no button works: there is nothing to be active.
  TGraphMask loose(nullptr, 6, 1, 0);
  loose.ClearAll();
  loose.SetAllButtonClick(0);
  EXPECT_TRUE(loose.IsMaskCleared());
}

TEST(GraphMask, ChangesReachTheToolAndTheViewersBands) {
  TTestViewer viewer(4);
  std::vector<int> events;
  TGraphMask m(nullptr, 4, 2, 0);
  m.SetOnMaskChangeEvent([&](int index) { events.push_back(index); });
  m.SetGraphFormInfo(&viewer, -1);
  m.ClearAll();
  EXPECT_TRUE(viewer.Calls.empty()); // no graph ID: the viewer isn't told
  m.SetGraphID(42);
  m.SetCurrentMaskIndex(1);
  m.Set(2);
  ASSERT_EQ(viewer.Calls.size(), 1u);
  EXPECT_EQ(viewer.Calls[0].GraphID, 42);
  EXPECT_EQ(viewer.Calls[0].Band, 1); // no form index: the current index
  EXPECT_EQ(viewer.Calls[0].First, 0);
  EXPECT_EQ(viewer.Calls[0].Last, -1);
  EXPECT_EQ(viewer.Calls[0].Mask, Pattern(4, {2}));
  EXPECT_EQ(viewer.HideCalls, 1);
  m.SetGraphFormInfo(&viewer, 5);
  m.Clear(2);
  EXPECT_EQ(viewer.Calls.back().Band, 5);
  EXPECT_EQ(viewer.Calls.back().Mask, std::vector<bool>(4, false));
  EXPECT_EQ(events, (std::vector<int>{0, 1, 1}));
}

TEST_F(GraphMaskTest, ExtractMakesGraphsOfZerosAndOnes) {
  TTestOwner owner(&Project);
  TGraphMask m(&owner, kPoints, 1, GraphID);
  m.ClearAll();
  m.SetMaskRange(10, 19);
  const std::vector<int32_t> ids = m.ExtractMask();
  ASSERT_EQ(ids.size(), 1u);
  const auto* g = dynamic_cast<const TDGraph*>(Project.FindData(ids[0]));
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->GetCaption(), "Mask");
  EXPECT_EQ(g->GetSizeX(), 1);
  EXPECT_EQ(g->GetSizeY(), 1);
  EXPECT_EQ(g->GetSizeGraph(), kPoints);
  EXPECT_EQ(g->GetSpaceTransformationID(), 0);
  EXPECT_EQ(g->GetXTransformationID(),
            dynamic_cast<const TDGraph*>(Project.FindData(GraphID))->GetXTransformationID());
  EXPECT_EQ(g->GetImageIndex(), 6);
  EXPECT_TRUE(g->GetLineValid(0));
  EXPECT_TRUE(g->GetMetaData().IsTagInList("DataCategories|Mask"));
  for (int i = 0; i < kPoints; ++i) EXPECT_EQ(g->GetField(0, 0, i), (i >= 10 && i <= 19) ? 1.0f : 0.0f) << i;
  EXPECT_EQ(Project.FindData(GraphID)->GetLockNumber(), 0);

  // Several masks: captions with the index, every mask with the apply-to-all flag.
  m.SetNumberOfMasks(3);
  m.SetMaskName("Fit Range");
  m.SetCurrentMaskIndex(2);
  m.ClearAll();
  auto single = m.ExtractMask();
  ASSERT_EQ(single.size(), 1u);
  EXPECT_EQ(Project.FindData(single[0])->GetCaption(), "Fit Range 2");
  m.SetApplyToAll(true);
  auto all = m.ExtractMask();
  ASSERT_EQ(all.size(), 3u);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(Project.FindData(all[i])->GetCaption(), "Fit Range " + std::to_string(i));
}

TEST_F(GraphMaskTest, ExtractWithoutAGraphMakesNothing) {
  TTestOwner owner(&Project);
  const size_t before = Project.GetIDListOfAllData().size();
  for (int32_t id : {0, 9999, OtherID}) {
    TGraphMask m(&owner, kPoints, 1, id);
    m.SetAll();
    EXPECT_TRUE(m.ExtractMask().empty()) << id;
  }
  EXPECT_EQ(Project.GetIDListOfAllData().size(), before);
  EXPECT_EQ(Project.FindData(OtherID)->GetLockNumber(), 0);
}

TEST_F(GraphMaskTest, TextInEitherUnitSelectsThePointsTheAxisSays) {
  TGraphMaskAxis rel, nm;
  std::string error;
  ASSERT_TRUE(GetGraphMaskAxis(Project, GraphID, "", rel, error)) << error;
  ASSERT_TRUE(GetGraphMaskAxis(Project, GraphID, "nm", nm, error)) << error;
  EXPECT_EQ(rel.Unit, "rel. 1/cm");
  ASSERT_EQ(rel.Values.size(), size_t(kPoints));
  for (int p : {0, 17, 63}) {
    EXPECT_NEAR(nm.Values[p], Wavelength(p), 1e-9);
    EXPECT_NEAR(rel.Values[p], RelativeWavenumber(p), 1e-6);
  }
  // Bounds halfway between points, so that the expected set doesn't hang on rounding.
  auto between = [](double a, double b) { return 0.5 * (a + b); };
  const double lo = between(RelativeWavenumber(9), RelativeWavenumber(10));
  const double hi = between(RelativeWavenumber(20), RelativeWavenumber(21));
  std::vector<bool> mask(kPoints), expected(kPoints, false);
  for (int p = 10; p <= 20; ++p) expected[p] = true;
  expected[40] = expected[41] = expected[42] = true;
  ASSERT_TRUE(ParseGraphMaskText(std::to_string(lo) + ":" + std::to_string(hi) + ", 40:42 px", rel, &Project,
                                 mask, error))
      << error;
  EXPECT_EQ(mask, expected);

  // The same points in nm through the mask object, while the graph shows rel. 1/cm.
  TTestOwner owner(&Project);
  TGraphMask m(&owner, kPoints, 1, GraphID);
  m.ClearAll();
  const std::string nmText = std::to_string(between(Wavelength(9), Wavelength(10))) + ":" +
                             std::to_string(between(Wavelength(20), Wavelength(21))) + ",40:42px";
  ASSERT_TRUE(m.SetMaskFromText(nmText, error, "nm")) << error;
  EXPECT_EQ(Bits(m, 0), expected);
  // Written in the current unit and read back: the same mask; in nm the same again.
  const std::string text = m.GetMaskText(0, error);
  EXPECT_EQ(text.find("px"), std::string::npos) << text;
  ASSERT_TRUE(ParseGraphMaskText(text, rel, &Project, mask, error)) << error;
  EXPECT_EQ(mask, expected);
  ASSERT_TRUE(ParseGraphMaskText(m.GetMaskText(0, error, "nm"), nm, &Project, mask, error)) << error;
  EXPECT_EQ(mask, expected);
  // After the user switches the axis to nm, the stored text in rel. 1/cm still means the same points.
  Interpretation->SetUnitIndex(TDSpectralInterpretation::suNanometer);
  m.ClearAll();
  ASSERT_TRUE(m.SetMaskFromText(text, error, "rel. 1/cm")) << error;
  EXPECT_EQ(Bits(m, 0), expected);
}

TEST_F(GraphMaskTest, AToolsMaskParameterIsReadForItsInputGraph) {
  std::vector<bool> mask, expected(kPoints, false);
  std::string error;
  for (int p = 30; p <= 35; ++p) expected[p] = true;
  const std::string nm = std::to_string(0.5 * (Wavelength(29) + Wavelength(30))) + ":" +
                         std::to_string(0.5 * (Wavelength(35) + Wavelength(36)));
  ASSERT_TRUE(ReadGraphMaskForGraph(Project, GraphID, nm, "nm", mask, error)) << error;
  EXPECT_EQ(mask, expected);
  // The same numbers read in the axis's current unit (rel. 1/cm) mean other points.
  std::vector<bool> other;
  ASSERT_TRUE(ReadGraphMaskForGraph(Project, GraphID, nm, "", other, error)) << error;
  EXPECT_NE(other, expected);
  // Failures leave the mask alone.
  other = expected;
  EXPECT_FALSE(ReadGraphMaskForGraph(Project, GraphID, "-5:-4", "", other, error));
  EXPECT_NE(error.find("selects no point"), std::string::npos) << error;
  EXPECT_EQ(other, expected);
  EXPECT_FALSE(ReadGraphMaskForGraph(Project, PlainGraphID, nm, "", other, error));
  EXPECT_NE(error.find("no spectral axis"), std::string::npos) << error;
  ASSERT_TRUE(ReadGraphMaskForGraph(Project, PlainGraphID, "2:3 px", "", mask, error)) << error;
  EXPECT_EQ(mask, Pattern(kPoints, {2, 3}));
  EXPECT_FALSE(ReadGraphMaskForGraph(Project, OtherID, "all", "", mask, error));
  EXPECT_NE(error.find("no graph with ID"), std::string::npos) << error;
}

TEST_F(GraphMaskTest, TextFormsRoundTrip) {
  TGraphMaskAxis rel, none;
  std::string error;
  ASSERT_TRUE(GetGraphMaskAxis(Project, GraphID, "", rel, error));
  std::vector<bool> mask(kPoints);
  for (const auto& pattern :
       {std::vector<bool>(kPoints, true), std::vector<bool>(kPoints, false), Pattern(kPoints, {0}),
        Pattern(kPoints, {63}), Pattern(kPoints, {0, 1, 2, 5, 62, 63})}) {
    std::unique_ptr<bool[]> raw(new bool[kPoints]);
    std::copy(pattern.begin(), pattern.end(), raw.get());
    for (const TGraphMaskAxis* axis : {&rel, &none}) {
      const std::string text = FormatGraphMaskText(raw.get(), kPoints, *axis);
      ASSERT_TRUE(ParseGraphMaskText(text, *axis, &Project, mask, error)) << text << ": " << error;
      EXPECT_EQ(mask, pattern) << text;
    }
  }
  EXPECT_EQ(FormatGraphMaskText(nullptr, kPoints, rel), "none");
  // An axis that turns back can't express a run by values: the run is written in points.
  TGraphMaskAxis folded;
  for (int i = 0; i < 6; ++i) folded.Values.push_back(i < 3 ? i : 5 - i);
  const bool run[6] = {false, true, true, false, false, false};
  EXPECT_EQ(FormatGraphMaskText(run, 6, folded), "1:2 px");
  // "all", "none" and a mask graph read back.
  ASSERT_TRUE(ParseGraphMaskText("none", rel, nullptr, mask, error));
  EXPECT_EQ(mask, std::vector<bool>(kPoints, false));
  ASSERT_TRUE(ParseGraphMaskText(" ALL ", rel, nullptr, mask, error));
  EXPECT_EQ(mask, std::vector<bool>(kPoints, true));
  TTestOwner owner(&Project);
  TGraphMask m(&owner, kPoints, 1, GraphID);
  m.ClearAll();
  m.SetMaskRange(30, 33);
  const int32_t maskID = m.ExtractMask().at(0);
  ASSERT_TRUE(ParseGraphMaskText("graph:" + std::to_string(maskID) + ",0:0 px", rel, &Project, mask, error))
      << error;
  EXPECT_EQ(mask, Pattern(kPoints, {0, 30, 31, 32, 33}));
}

TEST_F(GraphMaskTest, BadTextIsRefusedWithAReasonAndChangesNothing) {
  TGraphMaskAxis rel, none;
  std::string error;
  ASSERT_TRUE(GetGraphMaskAxis(Project, GraphID, "", rel, error));
  const std::vector<bool> before = Pattern(kPoints, {7});
  struct TCase {
    std::string Text;
    const TGraphMaskAxis* Axis;
    std::string Reason;
  };
  const std::vector<TCase> cases = {
      {"", &rel, "empty item"},
      {"1:5 px,,7:8 px", &rel, "empty item"},
      {"abc", &rel, "expected lo:hi"},
      {"1:x", &rel, "must be numbers"},
      {"1:2:3", &rel, "must be numbers"},
      {"1,5:2 px", &rel, "expected lo:hi"},
      {"500:400", &rel, "lo is above hi"},
      {"5:2 px", &rel, "lo is above hi"},
      {"1.5:3 px", &rel, "whole numbers"},
      {"64:70 px", &rel, "selects no point"},
      {"-9:-1 px", &rel, "selects no point"},
      {"-50000:-40000", &rel, "selects no point"},
      {"100:200", &none, "no spectral axis"},
      {"graph:0", &rel, "positive ID"},
      {"graph:9999", &rel, "no graph with ID 9999"},
      {"graph:" + std::to_string(OtherID), &rel, "no graph"},
      {"graph:" + std::to_string(PlainGraphID), &rel, "no valid spectrum"},
  };
  for (const TCase& c : cases) {
    std::vector<bool> mask = before;
    error.clear();
    EXPECT_FALSE(ParseGraphMaskText(c.Text, *c.Axis, &Project, mask, error)) << c.Text;
    EXPECT_NE(error.find(c.Reason), std::string::npos) << c.Text << " -> " << error;
    EXPECT_EQ(mask, before) << c.Text;
  }
  // A mask graph of another length.
  TTestOwner owner(&Project);
  TGraphMask shortMask(&owner, kPoints, 1, GraphID);
  shortMask.SetAll();
  const int32_t id = shortMask.ExtractMask().at(0);
  std::vector<bool> longer(kPoints + 1, false);
  EXPECT_FALSE(ParseGraphMaskText("graph:" + std::to_string(id), rel, &Project, longer, error));
  EXPECT_NE(error.find("points"), std::string::npos) << error;
  // Units the axis doesn't have, and units on a graph without axis.
  TGraphMaskAxis axis;
  EXPECT_FALSE(GetGraphMaskAxis(Project, GraphID, "furlong", axis, error));
  EXPECT_NE(error.find("furlong"), std::string::npos);
  EXPECT_FALSE(GetGraphMaskAxis(Project, PlainGraphID, "nm", axis, error));
  EXPECT_TRUE(GetGraphMaskAxis(Project, PlainGraphID, "", axis, error));
  EXPECT_TRUE(axis.Values.empty());
  EXPECT_FALSE(GetGraphMaskAxis(Project, OtherID, "", axis, error));
  // Through the mask object: a refused text leaves every mask as it was and reports no change.
  int changes = 0;
  TGraphMask m(&owner, kPoints, 2, GraphID);
  m.SetApplyToAll(true);
  m.ClearAll();
  m.SetOnMaskChangeEvent([&](int) { ++changes; });
  EXPECT_FALSE(m.SetMaskFromText("3:1 px", error));
  EXPECT_FALSE(m.SetMaskFromText("1:3 px", error, "furlong"));
  EXPECT_EQ(changes, 0);
  EXPECT_TRUE(m.IsMaskCleared());
  EXPECT_TRUE(m.SetMaskFromText("1:3 px", error));
  EXPECT_EQ(Bits(m, 0), Pattern(kPoints, {1, 2, 3}));
  EXPECT_EQ(Bits(m, 1), Pattern(kPoints, {1, 2, 3}));
}
