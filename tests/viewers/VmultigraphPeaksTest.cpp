// The graph viewer's peak finder, mask bands, mask drawing, x-zoom movement and status text: Lorentzians at
// known Raman shifts are found at their positions in the unit shown and labelled there, the label limit
// and its warning, peaks added and deleted by hand, the peak table, the settings in the project file,
// bands drawn from a graph mask, the mask drawn with the mouse, the mask toolbar's commands and drops.
#include "common/Standardmessage.h"
#include "common/parameters/Userparameteradministrator.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtext.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Graphmask.h"
#include "project/Graphmasktoolbar.h"
#include "project/Project.h"
#include "project/Viewerwindow.h"
#include "support/SpaceTransformation.h"
#include "support/SpectralAxis.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "viewers/Viewershow.h"
#include "viewers/Vmultigraph.h"

#include <cmath>
#include <sstream>

#include <gtest/gtest.h>

namespace {

constexpr double kExcitation = 532.0;
constexpr double kNmStart = 540.0;
constexpr double kNmStep = 0.05;
constexpr int32_t kPoints = 1024; // 540 … 591 nm: about 280 … 1940 rel. 1/cm

double Shift(double nm) {
  return 1e7 / kExcitation - 1e7 / nm;
}
double NmOfShift(double shift) {
  return 1e7 / (1e7 / kExcitation - shift);
}

struct TBand {
  double Shift, Fwhm, Height;
};
/// Silicon-, polystyrene- and carbon-like bands over a background of 10.
const std::vector<TBand> kBands = {{520.7, 8, 500}, {1001.4, 10, 300}, {1350, 60, 200}};

/// Records what a viewer asks of its window (the movement of the x zoom needs one).
class TFakeWindow : public IViewerWindow {
public:
  void ShowViewerWindow(bool) override {}
  void HideViewerWindow() override {}
  void SetViewerCaption(const std::string&) override {}
  TWindowPlacement GetViewerPlacement() const override { return {}; }
  void SetViewerPlacement(const TWindowPlacement&) override {}
  void RequestRedraw() override { ++Redraws; }
  void CloseViewerWindow() override {}
  void SetCloseEnabled(bool) override {}
  void ViewerDestroyed() override {}
  int Redraws = 0;
};

class MultiGraphPeaksTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
    RegisterViewers();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
        new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));
    const oxtest::TSpectralAxisIDs axis = oxtest::AddSpectralAxis(FProject, kExcitation, kNmStart, kNmStep);
    FInterpretation = axis.Interpretation;
    FSpectral = axis.Transformation;
    FSpace = oxtest::AddSpaceTransformation(FProject);
    // Spectrum (0, 0) holds the bands, spectrum (1, 0) the same shifted up by 100 rel. 1/cm.
    FGraph = AddGraph("Bands", 2, [](int32_t x, double shift) {
      double v = 10;
      for (const TBand& b : kBands) {
        const double d = (shift - b.Shift - 100.0 * x) / (b.Fwhm / 2);
        v += b.Height / (1 + d * d);
      }
      return v;
    });
  }
  void TearDown() override { TVCustomForm::DeleteRegisteredViewerList(); }

  int32_t AddGraph(const std::string& caption, int32_t sizeX,
                   const std::function<double(int32_t, double)>& f) {
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(FProject.GetNewDataID());
    graph->SetFieldSize(sizeX, 1, TDataFieldKind::Float, kPoints);
    graph->SetXTransformationID(FSpectral);
    graph->SetXInterpretationID(FInterpretation);
    graph->SetSpaceTransformationID(FSpace);
    graph->SetCaption(caption);
    std::vector<float> s(kPoints);
    for (int32_t x = 0; x < sizeX; ++x) {
      for (int32_t g = 0; g < kPoints; ++g)
        s[static_cast<size_t>(g)] = static_cast<float>(f(x, Shift(kNmStart + kNmStep * g)));
      graph->SetSpectrum(x, 0, s.data());
    }
    graph->SetAllLinesValid(true);
    const int32_t id = graph->GetID();
    FProject.AddData(std::move(graph));
    return id;
  }

  TVMultiGraphForm* Show(int32_t id) {
    auto* viewer =
        dynamic_cast<TVMultiGraphForm*>(ShowIDsInViewer(FProject, {id}, TVMultiGraphForm::kClassName));
    if (viewer) viewer->GetOpenGLView().SetViewportSize(800, 500);
    return viewer;
  }
  void PointCursorAt(int32_t x) {
    auto* cursor =
        dynamic_cast<TDCursor*>(FProject.FindData(FProject.MakeOrGetFirstIDByClassName("TDSpaceCursor")));
    ASSERT_TRUE(cursor);
    double wx = 0, wy = 0;
    PixelToWorld(FProject, FSpace, x, 0, wx, wy);
    cursor->SetAutoDataChange(false);
    cursor->SetPosition(0, wx);
    cursor->SetPosition(1, wy);
    cursor->SetAutoDataChange(true);
  }
  /// The pixel spacing in rel. 1/cm near shift.
  static double Spacing(double shift) {
    const double nm = NmOfShift(shift);
    return Shift(nm + kNmStep / 2) - Shift(nm - kNmStep / 2);
  }

  oxtest::TempDir FDir;
  TProject FProject;
  int32_t FInterpretation = 0, FSpectral = 0, FSpace = 0, FGraph = 0;
};

TEST_F(MultiGraphPeaksTest, LorentziansAreFoundAndLabelledAtTheirShifts) {
  TVMultiGraphForm* viewer = Show(FGraph);
  ASSERT_TRUE(viewer);
  PointCursorAt(0);
  EXPECT_EQ(viewer->GetNumberOfPeaks(), 0) << "the peak finder starts off";
  const float maxWithout = viewer->GetGraphInfo(0).MaxY;
  ASSERT_TRUE(viewer->GetCFI()->SetParameterValuesFromText({"PeakLabels=true"}).empty());
  ASSERT_TRUE(viewer->GetPeakLabels());
  // Ripples of the smoothing are no peaks: a relative height of a few counts leaves them out.
  ASSERT_TRUE(viewer->GetPeakCFI()->SetParameterValuesFromText({"MinRelativeHeight=5"}).empty());

  const TPeakInformationList& peaks = viewer->GetPeaks(0);
  ASSERT_EQ(peaks.size(), kBands.size());
  for (size_t k = 0; k < kBands.size(); ++k) {
    EXPECT_NEAR(peaks[k].PeakXPosition, kBands[k].Shift, 0.1 * Spacing(kBands[k].Shift)) << k;
    EXPECT_NEAR(peaks[k].OriginalPeakAbsoluteHeight, 10 + kBands[k].Height, 0.05 * kBands[k].Height) << k;
    EXPECT_FALSE(peaks[k].IsCustomPeak);
  }
  // Room above the curve for the labels: 0.1 of the range more than without them.
  const double lo = viewer->GetGraphInfo(0).MinY;
  EXPECT_GT(viewer->GetGraphInfo(0).MaxY, maxWithout);
  EXPECT_NEAR(viewer->GetGraphInfo(0).MaxY - maxWithout, 0.1 * (maxWithout - lo) / 1.04, 1.0);

  // One label per peak, at the peak's place, giving its shift with two digits.
  const std::vector<TGraphPeakLabel>& labels = viewer->GetPeakLabelList();
  ASSERT_EQ(labels.size(), kBands.size());
  for (size_t k = 0; k < labels.size(); ++k) {
    EXPECT_NEAR(labels[k].X, viewer->XToWindow(peaks[k].PeakXPosition), 1e-9);
    EXPECT_NEAR(labels[k].Y, viewer->YToWindow(0, peaks[k].OriginalPeakAbsoluteHeight), 1e-9);
    char expected[32];
    std::snprintf(expected, sizeof expected, "%.2f", peaks[k].PeakXPosition);
    EXPECT_EQ(labels[k].Text, expected);
  }
  EXPECT_NE(viewer->GetStatusText().find("Number of Peaks: 3"), std::string::npos) << viewer->GetStatusText();
  EXPECT_EQ(viewer->GetStatusText().find("Warning"), std::string::npos);

  // Pixel numbers and other digits on the labels.
  ASSERT_TRUE(
      viewer->GetPeakCFI()->SetParameterValuesFromText({"LabelUnit=Pixel Number", "Digits=1"}).empty());
  ASSERT_EQ(viewer->GetPeakLabelList().size(), kBands.size());
  char pixel[32];
  std::snprintf(pixel, sizeof pixel, "%.1f", peaks[0].PeakPixelPosition);
  EXPECT_EQ(viewer->GetPeakLabelList()[0].Text, pixel);
  EXPECT_NEAR(peaks[0].PeakPixelPosition, (NmOfShift(520.7) - kNmStart) / kNmStep, 0.1);

  // The next spectrum of the stack: its bands lie 100 rel. 1/cm higher.
  viewer->StepSpectrum(1, 0);
  ASSERT_EQ(viewer->GetPeaks(0).size(), kBands.size());
  EXPECT_NEAR(viewer->GetPeaks(0)[1].PeakXPosition, 1101.4, 0.1 * Spacing(1101.4));

  // In nm the same peaks lie at the wavelengths of their shifts.
  ASSERT_TRUE(viewer->GetCFI()->SetParameterValuesFromText({"XUnit=nm"}).empty());
  ASSERT_EQ(viewer->GetPeaks(0).size(), kBands.size());
  EXPECT_NEAR(viewer->GetPeaks(0)[1].PeakXPosition, NmOfShift(1101.4), 0.1 * kNmStep);

  // Off: no peaks, no labels, no room.
  viewer->SetPeakLabels(false);
  EXPECT_EQ(viewer->GetNumberOfPeaks(), 0);
  EXPECT_TRUE(viewer->GetPeakLabelList().empty());
  EXPECT_EQ(viewer->GetStatusText().find("Number of Peaks"), std::string::npos);
}

TEST_F(MultiGraphPeaksTest, AtMostOneHundredLabelsWithTheWarning) {
  // 150 narrow bands, 6 points apart.
  const int32_t many = AddGraph("Comb", 1, [](int32_t, double) { return 0.0; });
  auto* graph = dynamic_cast<TDGraph*>(FProject.FindData(many));
  std::vector<float> s(kPoints, 1.0f);
  for (int32_t k = 0; k < 150; ++k) s[static_cast<size_t>(20 + 6 * k)] = 50.0f;
  graph->SetSpectrum(0, 0, s.data());
  TVMultiGraphForm* viewer = Show(many);
  ASSERT_TRUE(viewer);
  viewer->PeakControl().SmoothKind = 0; // the comb unsmoothed
  viewer->PeakControl().MinRelativePeakValueLimit = 10;
  viewer->SetPeakLabels(true);
  viewer->PeakOptionsChanged();
  EXPECT_EQ(viewer->GetNumberOfPeaks(), 150);
  EXPECT_EQ(viewer->GetPeakLabelList().size(), 100u);
  // The first hundred are labelled.
  EXPECT_NEAR(viewer->GetPeaks(0)[99].PeakPixelPosition, 20 + 6 * 99, 0.5);
  EXPECT_EQ(viewer->GetPeakLabelList().back().PeakIndex, 99);
  EXPECT_NE(viewer->GetStatusText().find("Number of Peaks: 150"), std::string::npos);
  EXPECT_NE(viewer->GetStatusText().find("Warning: >100 Peaks found. Showing first 100"), std::string::npos);
  // Labels hidden: no warning either.
  ASSERT_TRUE(viewer->GetPeakCFI()->SetParameterValuesFromText({"ShowLabels=false"}).empty());
  EXPECT_TRUE(viewer->GetPeakLabelList().empty());
  EXPECT_EQ(viewer->GetStatusText().find("Warning"), std::string::npos);
}

TEST_F(MultiGraphPeaksTest, PeaksAddedByHandStayAndDeletedOnesGo) {
  TVMultiGraphForm* viewer = Show(FGraph);
  ASSERT_TRUE(viewer);
  PointCursorAt(0);
  viewer->PeakControl().MinRelativePeakValueLimit = 5;
  viewer->SetPeakLabels(true);
  viewer->PeakOptionsChanged();
  ASSERT_EQ(viewer->GetPeaks(0).size(), 3u);
  EXPECT_FALSE(viewer->AddPeak(100.0, 20.0)) << "below the axis";
  EXPECT_FALSE(viewer->AddPeak(700.0, std::nan(""))) << "no height";
  // Through the panel, as the user does it.
  ASSERT_TRUE(viewer->GetPeakCFI()->SetParameterValuesFromText({"PeakX=700", "PeakY=42"}).empty());
  auto* add = dynamic_cast<TUserTriggerParameter*>(viewer->GetPeakCFI()->GetUserParameterByName("AddPeak"));
  ASSERT_TRUE(add);
  EXPECT_EQ(add->GetCaption(), "Add Peak ...");
  ASSERT_TRUE(add->Trigger());
  ASSERT_EQ(viewer->GetPeaks(0).size(), 4u);
  const TPeakInformation& added = viewer->GetPeaks(0)[1]; // in pixel order: 520.7, 700, 1001.4, 1350
  EXPECT_TRUE(added.IsCustomPeak);
  EXPECT_NEAR(added.PeakXPosition, 700.0, 1e-6);
  EXPECT_NEAR(added.PeakPixelPosition, (NmOfShift(700) - kNmStart) / kNmStep, 0.01);
  EXPECT_EQ(added.OriginalPeakAbsoluteHeight, 42.0);
  EXPECT_EQ(viewer->GetPeakLabelList().size(), 4u);
  const std::vector<std::string> list = viewer->GetPeakDescriptions();
  ASSERT_EQ(list.size(), 4u);
  EXPECT_EQ(list[1], "700.00 rel. 1/cm: 42 (added)");

  // A new search (another spectrum and back) keeps it.
  viewer->StepSpectrum(1, 0);
  viewer->StepSpectrum(-1, 0);
  ASSERT_EQ(viewer->GetPeaks(0).size(), 4u);
  EXPECT_TRUE(viewer->GetPeaks(0)[1].IsCustomPeak);

  // Deleting: bad indices change nothing; a found peak goes until the next search, an added one for good.
  EXPECT_FALSE(viewer->DeletePeak(-1));
  EXPECT_FALSE(viewer->DeletePeak(4));
  EXPECT_TRUE(viewer->DeletePeak(1));
  EXPECT_TRUE(viewer->DeletePeak(0));
  ASSERT_EQ(viewer->GetPeaks(0).size(), 2u);
  EXPECT_NEAR(viewer->GetPeaks(0)[0].PeakXPosition, 1001.4, 0.5);
  viewer->FindAllPeaks();
  ASSERT_EQ(viewer->GetPeaks(0).size(), 3u);
  for (const TPeakInformation& p : viewer->GetPeaks(0)) EXPECT_FALSE(p.IsCustomPeak);
}

TEST_F(MultiGraphPeaksTest, ThePeakTableIsATextObject) {
  TVMultiGraphForm* viewer = Show(FGraph);
  ASSERT_TRUE(viewer);
  PointCursorAt(1);
  EXPECT_TRUE(viewer->ExtractPeakTable().empty()) << "no peaks, no table";
  viewer->PeakControl().MinRelativePeakValueLimit = 5;
  viewer->SetPeakLabels(true);
  viewer->PeakOptionsChanged();
  ASSERT_TRUE(viewer->AddPeak(800.0, 33.0));
  const std::vector<int32_t> ids = viewer->ExtractPeakTable();
  ASSERT_EQ(ids.size(), 1u);
  const auto* text = dynamic_cast<const TDText*>(FProject.FindData(ids[0]));
  ASSERT_TRUE(text);
  EXPECT_EQ(text->GetCaption(), "Peak Table (Bands)");
  std::istringstream in(text->GetText());
  std::string line;
  ASSERT_TRUE(std::getline(in, line));
  EXPECT_EQ(line.rfind("# x\ty\tpixel\tposition [rel. 1/cm]\theight", 0), 0u) << line;
  const TPeakInformationList& peaks = viewer->GetPeaks(0);
  ASSERT_EQ(peaks.size(), 4u);
  for (const TPeakInformation& peak : peaks) {
    ASSERT_TRUE(std::getline(in, line));
    int x = -1, y = -1, negative = -1, custom = -1;
    double pixel = 0, position = 0, height = 0, smoothed = 0, fwhm = 0, relative = 0, asymmetry = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "%d\t%d\t%lf\t%lf\t%lf\t%lf\t%lf\t%lf\t%lf\t%d\t%d", &x, &y, &pixel,
                          &position, &height, &smoothed, &fwhm, &relative, &asymmetry, &negative, &custom),
              11)
        << line;
    EXPECT_EQ(x, 1);
    EXPECT_EQ(y, 0);
    EXPECT_NEAR(position, peak.PeakXPosition, 1e-6 * std::fabs(peak.PeakXPosition));
    EXPECT_NEAR(height, peak.OriginalPeakAbsoluteHeight, 1e-6 * std::fabs(peak.OriginalPeakAbsoluteHeight));
    EXPECT_EQ(custom, peak.IsCustomPeak ? 1 : 0);
  }
  EXPECT_FALSE(std::getline(in, line));
}

TEST_F(MultiGraphPeaksTest, PeakSettingsAndAddedPeaksRoundTripThroughTheFile) {
  TVMultiGraphForm* viewer = Show(FGraph);
  ASSERT_TRUE(viewer);
  PointCursorAt(0);
  ASSERT_TRUE(viewer->GetPeakCFI()
                  ->SetParameterValuesFromText({"NegativePeaks=true", "UseMinAbsoluteHeight=true",
                                                "MinAbsoluteHeight=12.5", "AllGraphs=false",
                                                "LabelOrientation=Vertical", "LabelColor=#102030",
                                                "LabelUnit=Pixel Number"})
                  .empty());
  EXPECT_FALSE(viewer->GetPeakCFI()->SetParameterValuesFromText({"LabelColor=blue"}).empty());
  viewer->SetPeakLabels(true);
  ASSERT_TRUE(viewer->AddPeak(900.0, 77.0));
  const std::string file = FDir.File("peaks.oxp");
  ASSERT_GE(FProject.SaveProjectToFile(file), 1);

  TProject back;
  ASSERT_GE(back.LoadProjectFromFile(file), 1);
  auto* loaded =
      dynamic_cast<TVMultiGraphForm*>(back.GetFirstViewerByClassName(TVMultiGraphForm::kClassName));
  ASSERT_TRUE(loaded);
  EXPECT_TRUE(loaded->GetPeakLabels());
  EXPECT_TRUE(loaded->PeakControl().CalculateNegativePeaks);
  EXPECT_TRUE(loaded->PeakControl().UseMinPeakValueLimit);
  EXPECT_EQ(loaded->PeakControl().MinPeakValueLimit, 12.5);
  EXPECT_FALSE(loaded->PeakLabelOptions().AllGraphs);
  EXPECT_TRUE(loaded->PeakLabelOptions().ShowVertical);
  EXPECT_TRUE(loaded->PeakLabelOptions().ShowPixelUnit);
  EXPECT_EQ(loaded->PeakLabelOptions().LabelColor, 0x302010u);
  size_t custom = 0;
  for (const TPeakInformation& p : loaded->GetPeaks(0))
    if (p.IsCustomPeak) {
      ++custom;
      EXPECT_NEAR(p.PeakXPosition, 900.0, 1e-6);
      EXPECT_EQ(p.OriginalPeakAbsoluteHeight, 77.0);
    }
  EXPECT_EQ(custom, 1u);
  // The panel shows what was loaded.
  EXPECT_EQ(loaded->GetPeakCFI()->GetUserStringParameter(16)->GetParameter(), "#102030");
}

TEST_F(MultiGraphPeaksTest, RenumberingKeepsAddedPeaksAndBandsOnTheirGraph) {
  TVMultiGraphForm* viewer = Show(FGraph);
  ASSERT_TRUE(viewer);
  viewer->SetPeakLabels(true);
  ASSERT_TRUE(viewer->AddPeak(900.0, 77.0));
  TGraphMask mask(nullptr, kPoints, 1, FGraph);
  mask.ClearAll();
  mask.SetGraphFormInfo(viewer, 0);
  mask.SetMaskRange(10, 20);
  viewer->AddToID(100);
  EXPECT_EQ(viewer->GetGraphInfo(0).GraphID, FGraph + 100);
  viewer->ExchangeID(FGraph + 100, FGraph);
  // Back on the same number: the graph's added peak and band are still its own.
  viewer->FindAllPeaks();
  int custom = 0;
  for (const TPeakInformation& p : viewer->GetPeaks(0)) custom += p.IsCustomPeak;
  EXPECT_EQ(custom, 1);
  viewer->SetAll();
  ASSERT_EQ(viewer->GetMaskBands(0).size(), 1u);
  EXPECT_EQ(viewer->GetMaskBands(0)[0]->GetRectangles().size(), 1u);
  // A deleted graph takes them along.
  FProject.DeleteData(FGraph);
  EXPECT_EQ(viewer->GetGraphCount(), 0);
  EXPECT_EQ(viewer->GetNumberOfPeaks(), 0);
}

TEST_F(MultiGraphPeaksTest, MaskBandsFollowTheGraphMask) {
  TVMultiGraphForm* viewer = Show(FGraph);
  ASSERT_TRUE(viewer);
  TGraphMask mask(nullptr, kPoints, 2, FGraph);
  mask.ClearAll();
  mask.SetGraphFormInfo(viewer, -1);
  mask.SetMaskRange(100, 199);
  mask.SetMaskRange(500, 500);
  std::vector<TOpenGLMultiMask*> bands = viewer->GetMaskBands(0);
  ASSERT_EQ(bands.size(), 1u);
  const std::vector<double>& x = viewer->GetXValues(0);
  const auto& rects = bands[0]->GetRectangles();
  ASSERT_EQ(rects.size(), 2u);
  // From half way to the neighbour before the first point to half way to the one after the last.
  EXPECT_NEAR(rects[0].Left, (viewer->XToWindow(x[99]) + viewer->XToWindow(x[100])) / 2, 1e-6);
  EXPECT_NEAR(rects[0].Right, (viewer->XToWindow(x[199]) + viewer->XToWindow(x[200])) / 2, 1e-6);
  EXPECT_NEAR(rects[1].Left, (viewer->XToWindow(x[499]) + viewer->XToWindow(x[500])) / 2, 1e-6);
  EXPECT_EQ(rects[0].Bottom, TVMultiGraphForm::kMarginBottom);
  EXPECT_EQ(rects[0].Top, 500 - TVMultiGraphForm::kMarginTop);
  const TOpenGLColor c = bands[0]->GetColor();
  const uint32_t expected = GraphMaskBandColor(0);
  EXPECT_NEAR(c.R * 255, expected & 0xFF, 0.5);
  EXPECT_NEAR(c.G * 255, (expected >> 8) & 0xFF, 0.5);
  EXPECT_NEAR(c.A, kGraphMaskBandAlpha, 1e-6);

  // The second mask is a second band, in its own colour; a zoom moves the bands with the axis.
  mask.SetCurrentMaskIndex(1);
  mask.SetMaskRange(800, 900);
  bands = viewer->GetMaskBands(0);
  ASSERT_EQ(bands.size(), 2u);
  EXPECT_NE(bands[0]->GetColor().R, bands[1]->GetColor().R);
  ASSERT_TRUE(viewer->SetXRange(x[150], x[600]));
  bands = viewer->GetMaskBands(0);
  ASSERT_EQ(bands.size(), 2u);
  EXPECT_NEAR(bands[0]->GetRectangles()[0].Left, TVMultiGraphForm::kMarginLeft, 1e-6) << "clipped";
  EXPECT_TRUE(bands[1]->GetRectangles().empty()) << "out of view";

  // Cleared masks have no rectangles; a null mask removes the band.
  mask.SetCurrentMaskIndex(0);
  mask.ClearAll();
  EXPECT_TRUE(viewer->GetMaskBands(0)[0]->GetRectangles().empty());
  viewer->SetMultiMask(FGraph, 0, 0, -1, nullptr);
  viewer->SetMultiMask(FGraph, 1, 0, -1, nullptr);
  EXPECT_TRUE(viewer->GetMaskBands(0).empty());
}

TEST_F(MultiGraphPeaksTest, MaskModeDrawsAndErasesWithTheMouse) {
  TVMultiGraphForm* viewer = Show(FGraph);
  ASSERT_TRUE(viewer);
  EXPECT_FALSE(viewer->DoMaskChange(500, 600)) << "no mask tool";
  TGraphMask* mask = viewer->CreateGraphMaskForCurrentGraph();
  ASSERT_TRUE(mask);
  EXPECT_EQ(viewer->GetGraphMouseMode(), TGraphMouseMode::Mask);
  EXPECT_TRUE(mask->IsMaskCleared());
  EXPECT_NE(viewer->GetStatusText().find("Mask: draw"), std::string::npos);
  const std::vector<double>& x = viewer->GetXValues(0);
  TOpenGLView& view = viewer->GetOpenGLView();
  auto column = [&](double value) { return static_cast<int>(std::lround(viewer->XToWindow(value))); };
  const int row = 250;
  view.MouseDown(column(500), row, TOpenGLMouseButton::Left, {});
  view.MouseMove(column(700), row, {});
  view.MouseUp(column(700), row, TOpenGLMouseButton::Left, {});
  // The points between the two columns are set (a column is a fraction of a point wide on either end).
  int first = -1, last = -1, count = 0;
  for (int i = 0; i < kPoints; ++i)
    if (mask->GetCurrentMask()[i]) {
      if (first < 0) first = i;
      last = i;
      ++count;
    }
  ASSERT_GT(count, 0);
  EXPECT_EQ(count, last - first + 1);
  EXPECT_NEAR(x[static_cast<size_t>(first)], 500, 2 * Spacing(500));
  EXPECT_NEAR(x[static_cast<size_t>(last)], 700, 2 * Spacing(700));
  ASSERT_EQ(viewer->GetMaskBands(0).size(), 1u);
  EXPECT_EQ(viewer->GetMaskBands(0)[0]->GetRectangles().size(), 1u);

  // Erasing a part in the middle leaves two runs, two rectangles.
  viewer->SetMaskErase(true);
  view.MouseDown(column(580), row, TOpenGLMouseButton::Left, {});
  view.MouseUp(column(620), row, TOpenGLMouseButton::Left, {});
  EXPECT_FALSE(mask->GetCurrentMask()[(first + last) / 2]);
  EXPECT_TRUE(mask->GetCurrentMask()[first]);
  EXPECT_EQ(viewer->GetMaskBands(0)[0]->GetRectangles().size(), 2u);

  // The mask tool holds the viewer: no automatic zoom, and a reset returns to mask mode.
  EXPECT_FALSE(viewer->CheckAndDoAutomaticZoom());
  viewer->ResetGraphMouseMode();
  EXPECT_EQ(viewer->GetGraphMouseMode(), TGraphMouseMode::Mask);

  // Extracted, the mask is a graph of zeros and ones.
  const std::vector<int32_t> ids = mask->ExtractMask();
  ASSERT_EQ(ids.size(), 1u);
  auto* extracted = dynamic_cast<TDGraph*>(FProject.FindData(ids[0]));
  ASSERT_TRUE(extracted);
  std::vector<float> values(kPoints);
  extracted->GetSpectrum(0, 0, values.data());
  EXPECT_EQ(values[static_cast<size_t>(first)], 1.0f);
  EXPECT_EQ(values[0], 0.0f);

  // Its range buttons take the part on view, its one-value buttons the point under the x cursor.
  mask->ClearAll();
  ASSERT_TRUE(viewer->SetXRange(x[200], x[300]));
  mask->SetRangeButtonClick(0);
  for (int i = 0; i < kPoints; ++i) EXPECT_EQ(mask->GetCurrentMask()[i], i >= 200 && i <= 300) << i;
  viewer->SetCursor(x[400]);
  mask->SetButtonClick(0);
  EXPECT_TRUE(mask->GetCurrentMask()[400]);

  viewer->DeleteGraphMask();
  EXPECT_EQ(viewer->GetMaskTool(), nullptr);
  EXPECT_EQ(viewer->GetGraphMouseMode(), TGraphMouseMode::Cursor);
  EXPECT_TRUE(viewer->GetMaskBands(0).empty());

  // From the settings, as the control panel does it: mask mode makes the viewer's own mask again.
  ASSERT_TRUE(viewer->GetCFI()->SetParameterValuesFromText({"MouseMode=Mask"}).empty());
  ASSERT_NE(viewer->GetMaskTool(), nullptr);
  EXPECT_EQ(viewer->GetGraphMouseMode(), TGraphMouseMode::Mask);
  ASSERT_TRUE(viewer->GetCFI()->SetParameterValuesFromText({"MouseMode=Zoom"}).empty());
  EXPECT_EQ(viewer->GetGraphMouseMode(), TGraphMouseMode::Zoom);
  EXPECT_FALSE(viewer->GetCFI()->SetParameterValuesFromText({"MouseMode=Lasso"}).empty());
  viewer->DeleteGraphMask();
  EXPECT_EQ(viewer->GetGraphMouseMode(), TGraphMouseMode::Zoom) << "the mode the user chose stays";
  EXPECT_TRUE(viewer->GetMaskBands(0).empty());
}

TEST_F(MultiGraphPeaksTest, TheXZoomMovesThereInAQuarterSecond) {
  TVMultiGraphForm* viewer = Show(FGraph);
  ASSERT_TRUE(viewer);
  ASSERT_TRUE(viewer->SetXRange(400, 1600));
  // Without a window the range is there at once.
  viewer->AnimateXZoom(600, 1000);
  EXPECT_FALSE(viewer->IsXZoomAnimating());
  EXPECT_EQ(viewer->GetMinXInterpretation(), 600);
  EXPECT_EQ(viewer->GetMaxXInterpretation(), 1000);

  TFakeWindow window;
  viewer->AttachWindow(&window);
  const int pushed = viewer->GetGraphInfo(0).ZoomStack.Count();
  viewer->AnimateXZoom(1200, 800); // either order
  EXPECT_TRUE(viewer->IsXZoomAnimating());
  EXPECT_EQ(viewer->GetMinXInterpretation(), 600);
  viewer->AnimateXZoomStep(125); // half the time: half the way
  EXPECT_NEAR(viewer->GetMinXInterpretation(), 700, 1e-9);
  EXPECT_NEAR(viewer->GetMaxXInterpretation(), 1100, 1e-9);
  viewer->AnimateXZoomStep(50); // eased: slow at the start
  EXPECT_LT(viewer->GetMinXInterpretation(), 600 + 200 * 0.2);
  viewer->AnimateXZoomStep(TVMultiGraphForm::kXZoomAnimationMilliseconds);
  EXPECT_FALSE(viewer->IsXZoomAnimating());
  EXPECT_EQ(viewer->GetMinXInterpretation(), 800);
  EXPECT_EQ(viewer->GetMaxXInterpretation(), 1200);
  EXPECT_EQ(viewer->GetGraphInfo(0).ZoomStack.Count(), pushed + 1);
  EXPECT_GT(window.Redraws, 0);
  viewer->AnimateXZoom(5, 5); // empty: refused
  EXPECT_FALSE(viewer->IsXZoomAnimating());
  viewer->AttachWindow(nullptr);
}

TEST_F(MultiGraphPeaksTest, StatusTextGivesCursorSpectrumAndPeaks) {
  TVMultiGraphForm* viewer = Show(FGraph);
  ASSERT_TRUE(viewer);
  PointCursorAt(1);
  viewer->SetCursor(1001.4);
  viewer->SetAll();
  const std::string status = viewer->GetStatusText();
  EXPECT_EQ(status.rfind("1001.4 rel. 1/cm: ", 0), 0u) << status;
  EXPECT_NE(status.find("x=1, y=0"), std::string::npos) << status;
  viewer->PeakControl().MinRelativePeakValueLimit = 5;
  viewer->SetPeakLabels(true);
  EXPECT_NE(viewer->GetStatusText().find("Number of Peaks: 3"), std::string::npos) << viewer->GetStatusText();
  EXPECT_EQ(viewer->GetPeakPanelCaption(), "Peak Options (Bands)");
}

TEST_F(MultiGraphPeaksTest, MaskToolBarButtonsAndDrops) {
  TVMultiGraphForm* viewer = Show(FGraph);
  ASSERT_TRUE(viewer);
  TGraphMask mask(viewer, kPoints, 2, FGraph);
  mask.ClearAll();
  mask.SetGraphFormInfo(viewer, -1);
  int lower = 10, upper = 20, one = 5;
  mask.SetRangeControls([&] { return lower; }, [&] { return upper; });
  mask.SetOneValueControls([&] { return one; });
  TGraphMaskToolBar bar(nullptr, 1);
  EXPECT_FALSE(bar.Click(TGraphMaskCommand::SetAll)) << "no mask";
  EXPECT_EQ(bar.GetColor(), GraphMaskBandColor(1));
  bar.SetGraphMask(&mask, 0);
  bar.SetProject(&FProject);
  ASSERT_EQ(TGraphMaskToolBar::Buttons().size(), 9u);
  EXPECT_EQ(TGraphMaskToolBar::Buttons()[5].Caption, "Set Range");

  // The range buttons take lower to upper - 1.
  EXPECT_TRUE(bar.Click(TGraphMaskCommand::SetRange));
  EXPECT_TRUE(mask.IsRangeFilledWithValue(10, 19, true));
  EXPECT_FALSE(mask.GetMask(0)[20]);
  EXPECT_TRUE(bar.Click(TGraphMaskCommand::Set));
  EXPECT_TRUE(mask.GetMask(0)[5]);
  EXPECT_FALSE(mask.GetMask(1)[5]) << "the buttons work on mask 0";
  ASSERT_EQ(viewer->GetMaskBands(0).size(), 1u);

  // Drops: a mask text over the graph's axis, in pixels or in rel. 1/cm.
  std::string reason;
  EXPECT_FALSE(bar.ToolButtonDragOver(TGraphMaskCommand::SetAll, "0:3 px", reason));
  EXPECT_FALSE(bar.ToolButtonDragOver(TGraphMaskCommand::Set, "nonsense", reason));
  EXPECT_FALSE(reason.empty());
  EXPECT_TRUE(bar.ToolButtonDragOver(TGraphMaskCommand::Set, "100:109 px", reason)) << reason;
  ASSERT_TRUE(bar.ToolButtonDragDrop(TGraphMaskCommand::Set, "100:109 px", reason)) << reason;
  EXPECT_TRUE(mask.IsRangeFilledWithValue(100, 109, true));
  EXPECT_TRUE(mask.GetMask(0)[5]) << "joined to what was set";
  ASSERT_TRUE(bar.ToolButtonDragDrop(TGraphMaskCommand::Clear, "0:14 px", reason)) << reason;
  EXPECT_FALSE(mask.GetMask(0)[5]);
  EXPECT_TRUE(mask.IsRangeFilledWithValue(15, 19, true));
  const std::vector<double>& x = viewer->GetXValues(0);
  char text[64];
  std::snprintf(text, sizeof text, "%.9g:%.9g", (x[299] + x[300]) / 2, (x[309] + x[310]) / 2);
  ASSERT_TRUE(bar.ToolButtonDragDrop(TGraphMaskCommand::CropRange, text, reason)) << reason;
  for (int i = 0; i < kPoints; ++i) EXPECT_EQ(mask.GetMask(0)[i], i >= 300 && i <= 309) << i;
  // All masks: index -1.
  bar.SetMaskIndexForButtons(-1);
  ASSERT_TRUE(bar.ToolButtonDragDrop(TGraphMaskCommand::SetRange, "0:1 px", reason)) << reason;
  EXPECT_TRUE(mask.GetMask(0)[0] && mask.GetMask(1)[0]);
  EXPECT_TRUE(bar.Click(TGraphMaskCommand::InvertAll));
  EXPECT_FALSE(mask.GetMask(1)[0]);
  EXPECT_TRUE(mask.GetMask(1)[500]);
  EXPECT_EQ(viewer->GetMaskBands(0).size(), 1u) << "the bands show the mask current when told";
}

} // namespace
