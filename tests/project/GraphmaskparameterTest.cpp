// A mask parameter tied to its mask: text read into the mask and shown as the viewer's band (none for a
// mask of every point), mask changes written back as one parameter change in the text form, unreadable
// and refused texts, a toolbar click, and a viewer that is gone.
#include "project/Graphmaskparameter.h"

#include "common/OrvexException.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "project/Graphmasktoolbar.h"
#include "project/Project.h"
#include "support/SpectralAxis.h"
#include "support/TestDataObjects.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr double kExcitation = 532.0;
constexpr int kPoints = 50;

class TBandViewer : public IGraphMaskViewer {
public:
  void SetMultiMask(int32_t graphID, int band, int first, int last, const bool* mask) override {
    ++Calls;
    GraphID = graphID;
    Band = band;
    First = first;
    Last = last;
    if (mask)
      Mask.assign(mask, mask + kPoints);
    else
      Mask.clear(); // no band
  }
  void HideMarker() override {}
  int Calls = 0;
  int32_t GraphID = 0;
  int Band = -1, First = -2, Last = -2;
  std::vector<bool> Mask;
};

std::vector<bool> Points(std::initializer_list<std::pair<int, int>> runs) {
  std::vector<bool> v(kPoints, false);
  for (auto [first, last] : runs)
    for (int i = first; i <= last; ++i) v[i] = true;
  return v;
}

std::vector<bool> Bits(TGraphMask& mask) {
  return std::vector<bool>(mask.GetCurrentMask(), mask.GetCurrentMask() + mask.GetMaskSize());
}

// A project with a graph of kPoints points on a wavelength axis (600 + p nm) shown in nm.
class GraphMaskParameterTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    const oxtest::TSpectralAxisIDs axis =
        oxtest::AddSpectralAxis(Project, kExcitation, 600.0, 1.0, 0.0, TDSpectralInterpretation::suNanometer);
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(Project.GetNewDataID());
    graph->SetFieldSize(1, 1, TDataFieldKind::Float, kPoints);
    graph->SetXTransformationID(axis.Transformation);
    graph->SetXInterpretationID(axis.Interpretation);
    GraphID = graph->GetID();
    Project.AddData(std::move(graph));
    Parameter.OnParameterChanged = [this](const TUserParameterList&, bool) { ++Changes; };
  }

  std::unique_ptr<TGraphMaskParameterLink> Link(IGraphMaskViewer* viewer) {
    return std::make_unique<TGraphMaskParameterLink>(Parameter, Project, GraphID, 1,
                                                     [viewer] { return viewer; });
  }

  TProject Project;
  int32_t GraphID = 0;
  TUserStringParameter Parameter{1, "Fit Mask", "Fit Mask:", "", "all"};
  int Changes = 0;
};

} // namespace

TEST_F(GraphMaskParameterTest, TheTextIsReadIntoTheMaskAndShownAsTheBand) {
  TBandViewer viewer;
  auto link = Link(&viewer);
  EXPECT_EQ(Bits(link->Mask()), std::vector<bool>(kPoints, true));
  link->ShowBand();
  EXPECT_EQ(viewer.GraphID, GraphID);
  EXPECT_EQ(viewer.Band, 1);
  EXPECT_TRUE(viewer.Mask.empty()) << "a mask of every point shows no band";
  EXPECT_GT(viewer.Calls, 0);
  // A text entered: points 610 … 615 nm and 30 … 32 by index.
  ASSERT_TRUE(Parameter.SetParameter("609.5:615.5, 30:32 px"));
  const std::vector<bool> expected = Points({{10, 15}, {30, 32}});
  EXPECT_EQ(Bits(link->Mask()), expected);
  EXPECT_EQ(viewer.Mask, expected);
  EXPECT_TRUE(link->GetTextError().empty());
  // Reading it didn't write anything back: the user's text stays as typed.
  EXPECT_EQ(Parameter.GetParameter(), "609.5:615.5, 30:32 px");
  EXPECT_EQ(link->GetWriteCount(), 0);
  EXPECT_EQ(Changes, 1);
}

TEST_F(GraphMaskParameterTest, AChangeOfTheMaskBecomesOneChangeOfTheText) {
  TBandViewer viewer;
  auto link = Link(&viewer);
  ASSERT_TRUE(Parameter.SetParameter("10:15 px"));
  Changes = 0;
  int written = 0;
  link->OnTextWritten = [&written] { ++written; };
  link->Mask().SetMaskRange(40, 44); // as drawing in the viewer does
  EXPECT_EQ(Changes, 1);
  EXPECT_EQ(written, 1);
  EXPECT_EQ(link->GetWriteCount(), 1);
  const std::vector<bool> expected = Points({{10, 15}, {40, 44}});
  EXPECT_EQ(Bits(link->Mask()), expected);
  EXPECT_EQ(viewer.Mask, expected);
  // The text is the mask's text form in nm and reads back to the same points.
  EXPECT_EQ(Parameter.GetParameter(), "610:615,640:644");
  TGraphMaskAxis axis;
  std::string error;
  ASSERT_TRUE(GetGraphMaskAxis(Project, GraphID, "", axis, error)) << error;
  std::vector<bool> back(kPoints);
  ASSERT_TRUE(ParseGraphMaskText(Parameter.GetParameter(), axis, &Project, back, error)) << error;
  EXPECT_EQ(back, expected);
}

TEST_F(GraphMaskParameterTest, AToolbarClickChangesTheParameterOnce) {
  auto link = Link(nullptr);
  ASSERT_TRUE(Parameter.SetParameter("0:9 px"));
  Changes = 0;
  TGraphMaskToolBar bar(&link->Mask());
  bar.SetMaskIndexForButtons(0);
  ASSERT_TRUE(bar.Click(TGraphMaskCommand::InvertAll));
  EXPECT_EQ(Changes, 1);
  EXPECT_EQ(Parameter.GetParameter(), "610:649");
  ASSERT_TRUE(bar.Click(TGraphMaskCommand::ClearAll));
  EXPECT_EQ(Parameter.GetParameter(), "none");
  EXPECT_EQ(Changes, 2);
}

TEST_F(GraphMaskParameterTest, AnUnreadableTextLeavesTheMaskAndSaysWhy) {
  TBandViewer viewer;
  auto link = Link(&viewer);
  ASSERT_TRUE(Parameter.SetParameter("5:9 px"));
  const int calls = viewer.Calls;
  ASSERT_TRUE(Parameter.SetParameter("9:5 px")); // the parameter takes any text; the mask can't
  EXPECT_FALSE(link->GetTextError().empty());
  EXPECT_EQ(Bits(link->Mask()), Points({{5, 9}}));
  EXPECT_EQ(viewer.Calls, calls) << "the band stays as it was";
  ASSERT_TRUE(Parameter.SetParameter("none"));
  EXPECT_TRUE(link->GetTextError().empty());
  EXPECT_TRUE(link->Mask().IsMaskCleared());
}

TEST_F(GraphMaskParameterTest, ARefusedTextTakesTheMaskBack) {
  auto link = Link(nullptr);
  ASSERT_TRUE(Parameter.SetParameter("5:9 px"));
  Parameter.OnIsNewParameterOk = [this](const TUserParameterList&) {
    return Parameter.GetWantedParameter() != "none";
  };
  link->Mask().ClearAll();
  EXPECT_EQ(Parameter.GetParameter(), "5:9 px");
  EXPECT_EQ(Bits(link->Mask()), Points({{5, 9}}));
}

TEST_F(GraphMaskParameterTest, WithoutAViewerTheMaskStillFollowsAndTheLinkLetsTheParameterGo) {
  IGraphMaskViewer* viewer = nullptr;
  auto link =
      std::make_unique<TGraphMaskParameterLink>(Parameter, Project, GraphID, 0, [&viewer] { return viewer; });
  link->Mask().SetAll();
  ASSERT_TRUE(Parameter.SetParameter("20:21 px"));
  EXPECT_EQ(Bits(link->Mask()), Points({{20, 21}}));
  ASSERT_EQ(Parameter.GetInputMasks().size(), 1u);
  link.reset();
  EXPECT_TRUE(Parameter.GetInputMasks().empty());
  EXPECT_TRUE(Parameter.SetParameter("all")); // nobody listens any more
  // A graph ID that isn't a graph is a programming error.
  EXPECT_THROW(TGraphMaskParameterLink(Parameter, Project, 9999, 0, nullptr), OrvexException);
}
