// The staged fit order of the Advanced Fitting Tool's rows ("Fit Sooner", "Fit Later"): the order
// arithmetic, a staged fit equal to its stages done by hand, and an order that finds a band a single fit
// misses. The preview range of the fit curve (its points and axis, Reset Range, Listen following the x
// cursor), values taken from the x cursor by a parameter's listen kind, and the fit curves extracted on
// the preview range instead of the input's points.
#include "AdvancedfittingTestSupport.h"
#include "common/numerics/Fitfunctionmanager.h"
#include "data/Dcursor.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "project/Demodataset.h"
#include "project/Graphmask.h"
#include "tools/spectral/Advancedfittingcore.h"
#include "tools/spectral/Advancedfittingpreview.h"
#include "tools/spectral/Advancedfittingtool.h"

#include <cmath>
#include <limits>

namespace {

// --- Fit order arithmetic --------------------------------------------------------------------------------

std::vector<int> Orders(const std::vector<TAdvancedFitParamSettings>& rows) {
  std::vector<int> orders;
  for (const auto& row : rows) orders.push_back(row.FitOrder);
  return orders;
}

TEST(AdvancedFittingFitOrder, SoonerAndLaterMoveOneRowBetweenStages) {
  std::vector<TAdvancedFitParamSettings> rows(4);
  EXPECT_TRUE(FitLater(rows, 2));
  EXPECT_EQ(Orders(rows), (std::vector<int>{0, 0, 1, 0}));
  EXPECT_TRUE(FitSooner(rows, 2));
  EXPECT_EQ(Orders(rows), (std::vector<int>{0, 0, 0, 0}));
  // Sooner from the first stage: the row gets a first stage of its own.
  EXPECT_TRUE(FitSooner(rows, 1));
  EXPECT_EQ(Orders(rows), (std::vector<int>{1, 0, 1, 1}));
  EXPECT_TRUE(FitLater(rows, 3));
  EXPECT_EQ(Orders(rows), (std::vector<int>{1, 0, 1, 2}));
  // Alone in the last stage: later changes nothing.
  EXPECT_TRUE(FitLater(rows, 3));
  EXPECT_EQ(Orders(rows), (std::vector<int>{1, 0, 1, 2}));
  // Alone in the first stage: sooner changes nothing either.
  EXPECT_TRUE(FitSooner(rows, 1));
  EXPECT_EQ(Orders(rows), (std::vector<int>{1, 0, 1, 2}));
  // Leaving a stage empty closes the gap.
  EXPECT_TRUE(FitLater(rows, 1));
  EXPECT_EQ(Orders(rows), (std::vector<int>{0, 0, 0, 1}));
  EXPECT_FALSE(FitSooner(rows, 4));
  EXPECT_FALSE(FitLater(rows, -1));
  rows[0].FitOrder = 7;
  rows[1].FitOrder = 3;
  NormalizeFitOrder(rows);
  EXPECT_EQ(Orders(rows), (std::vector<int>{3, 2, 0, 1}));
}

// --- Staged fits -----------------------------------------------------------------------------------------

constexpr int kLength = 200;

// A Lorentz band (native form: y0, x0, w, A) over the point index.
double Lorentz(double x, double y0, double x0, double w, double a) {
  return y0 + 2 * a / M_PI * w / (4 * (x - x0) * (x - x0) + w * w);
}

std::vector<float> BandSpectrum() {
  std::vector<float> s(kLength);
  for (int g = 0; g < kLength; ++g)
    s[static_cast<size_t>(g)] =
        static_cast<float>(Lorentz(g, 10, 120, 6, 3000) + 0.3 * std::sin(0.7 * g)); // a little ripple
  return s;
}

struct TFit {
  bool Good = false;
  std::vector<double> Values, Errors, Start;
  double ChiSqr = 0;
};

// One spectrum fitted by the core from rows (Auto off); orders (may be empty) the fit order of each row.
TFit FitBand(const std::vector<double>& start, const std::vector<bool>& vary,
             const std::vector<int>& orders) {
  oxtest::EnsureMemoryStrategy();
  TAdvancedFittingCore core;
  core.SetFunction(TFitFunctionManager::CreateFitFunctionByClassName("TNLFitLorentz"));
  std::vector<TAdvancedFitParamSettings>& rows = core.Rows();
  EXPECT_EQ(rows.size(), 4u);
  for (size_t i = 0; i < rows.size(); ++i) {
    rows[i].Auto = false;
    rows[i].StartValue = start[i];
    rows[i].Value = start[i]; // a fixed row holds its Value
    rows[i].Vary = vary[i];
    rows[i].FitOrder = orders.empty() ? 0 : orders[i];
  }
  std::vector<double> axis(kLength);
  for (int g = 0; g < kLength; ++g) axis[static_cast<size_t>(g)] = g;
  core.SetAxis(axis);
  core.NumberOfThreads = 1;
  const std::vector<float> spectrum = BandSpectrum();
  std::string message;
  const TAdvancedFitStatus status = core.FitAll(
      1, kLength,
      [&](int64_t, int first, int count, float* values) {
        std::copy(spectrum.begin() + first, spectrum.begin() + first + count, values);
        return true;
      },
      message);
  EXPECT_EQ(status, TAdvancedFitStatus::Done) << message;
  TFit fit;
  const TAdvancedFitResultArrays* r = core.GetResults();
  if (!r) return fit;
  fit.Good = r->FitGood.GetValue(0);
  fit.Values.resize(4);
  fit.Errors.resize(4);
  fit.Start.resize(4);
  r->Values.GetValueArray(0, fit.Values.data(), 4);
  r->Errors.GetValueArray(0, fit.Errors.data(), 4);
  r->StartValues.GetValueArray(0, fit.Start.data(), 4);
  fit.ChiSqr = r->ErrorInfo.GetValue(0).ChiSqr;
  return fit;
}

TEST(AdvancedFittingFitOrder, AStagedFitIsItsStagesDoneOneAfterTheOther) {
  // Height and width first (offset and centre held), then all four.
  const std::vector<double> start{0, 116, 12, 1000};
  const std::vector<int> orders{1, 1, 0, 0};
  const TFit staged = FitBand(start, {true, true, true, true}, orders);
  ASSERT_TRUE(staged.Good);
  const TFit first = FitBand(start, {false, false, true, true}, {});
  ASSERT_TRUE(first.Good);
  EXPECT_EQ(first.Values[0], start[0]); // held
  EXPECT_EQ(first.Values[1], start[1]);
  const TFit second = FitBand(first.Values, {true, true, true, true}, {});
  ASSERT_TRUE(second.Good);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_DOUBLE_EQ(staged.Values[i], second.Values[i]) << i;
    EXPECT_DOUBLE_EQ(staged.Errors[i], second.Errors[i]) << i;
    // The start values reported are the spectrum's own, not those of a later stage.
    EXPECT_DOUBLE_EQ(staged.Start[i], start[i]) << i;
  }
  EXPECT_DOUBLE_EQ(staged.ChiSqr, second.ChiSqr);
  // One stage: the plain fit.
  const TFit plain = FitBand(start, {true, true, true, true}, {});
  const TFit oneStage = FitBand(start, {true, true, true, true}, {3, 3, 3, 3});
  for (size_t i = 0; i < 4; ++i) EXPECT_DOUBLE_EQ(plain.Values[i], oneStage.Values[i]) << i;
  // A fixed row in a stage of its own adds no stage.
  const TFit fixedLater = FitBand(start, {false, true, true, true}, {2, 0, 0, 0});
  const TFit fixedPlain = FitBand(start, {false, true, true, true}, {});
  for (size_t i = 0; i < 4; ++i) EXPECT_DOUBLE_EQ(fixedLater.Values[i], fixedPlain.Values[i]) << i;
}

TEST(AdvancedFittingFitOrder, AnOrderFindsABandThatASingleFitMisses) {
  // The centre starts far beside the band with a narrow width: a single fit settles on a broad dip
  // elsewhere. Fitting the width alone first widens the line until it reaches the band; then all four
  // find it.
  std::vector<double> start{10, 60, 2, 3000};
  const TFit single = FitBand(start, {true, true, true, true}, {});
  ASSERT_TRUE(single.Good);
  EXPECT_GT(std::fabs(single.Values[1] - 120), 10) << single.Values[1];
  const TFit widthFirst = FitBand(start, {true, true, true, true}, {1, 1, 0, 1});
  ASSERT_TRUE(widthFirst.Good);
  EXPECT_NEAR(widthFirst.Values[1], 120, 0.05);
  EXPECT_NEAR(widthFirst.Values[2], 6, 0.05);
  EXPECT_NEAR(widthFirst.Values[3], 3000, 30);
  EXPECT_GT(single.ChiSqr, 1000 * widthFirst.ChiSqr);
  // Closer, but still beside the band: fitting the centre alone first brings it there.
  start = {0, 90, 6, 3000};
  const TFit single2 = FitBand(start, {true, true, true, true}, {});
  ASSERT_TRUE(single2.Good);
  EXPECT_GT(std::fabs(single2.Values[1] - 120), 10) << single2.Values[1];
  const TFit centreFirst = FitBand(start, {true, true, true, true}, {1, 0, 1, 1});
  ASSERT_TRUE(centreFirst.Good);
  EXPECT_NEAR(centreFirst.Values[1], 120, 0.05);
  EXPECT_NEAR(centreFirst.ChiSqr, widthFirst.ChiSqr, 1e-6 * widthFirst.ChiSqr); // the same minimum
}

// --- Preview range, listening and extraction on the demo map --------------------------------------------

class AdvancedFittingRangeTest : public oxtest::AdvancedFittingDemoFixture {
protected:
  void SetUp() override {
    AdvancedFittingDemoFixture::SetUp();
    CreateDemo(6, 4);
  }

  /// Opened to define start values.
  TAdvancedFittingPreview& Open(TAdvancedFittingToolForm& tool, const std::vector<std::string>& settings) {
    std::vector<std::string> all{"Fit Mode=Define Start Values"};
    all.insert(all.end(), settings.begin(), settings.end());
    return AdvancedFittingDemoFixture::Open(tool, all);
  }

  std::vector<double> MapAxis(const TAdvancedFittingToolForm& tool) {
    TAdvancedFittingCore core;
    tool.ConfigureForGraph(*dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map)), core);
    return core.GetAxis();
  }

  /// The positions of a graph's points as a viewer reads them (its transformation and interpretation).
  std::vector<double> AxisOf(int32_t graphID) {
    TGraphMaskAxis axis;
    std::string error;
    EXPECT_TRUE(GetGraphMaskAxis(FProject, graphID, "", axis, error)) << error;
    return axis.Values;
  }

  /// Moves the x cursor of the map's axis to x (in the axis unit).
  void MoveXCursorTo(const TAdvancedFittingPreview& preview, double x) {
    ASSERT_FALSE(preview.GetXCursorClassName().empty());
    auto* cursor = dynamic_cast<TDCursor*>(
        FProject.FindData(FProject.MakeOrGetFirstIDByClassName(preview.GetXCursorClassName())));
    ASSERT_NE(cursor, nullptr);
    const auto* map = dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map));
    const auto* transformation =
        dynamic_cast<const TDTransformation*>(FProject.FindData(map->GetXTransformationID()));
    const int32_t interpretationID = map->GetXInterpretationID() != 0 ? map->GetXInterpretationID()
                                                                      : transformation->GetInterpretationID();
    const auto* interpretation = dynamic_cast<const TDInterpretation*>(FProject.FindData(interpretationID));
    ASSERT_NE(interpretation, nullptr);
    cursor->SetPosition(0, interpretation->ToStandard(x));
  }
};

TEST_F(AdvancedFittingRangeTest, TheCurveLiesOnTheRangeWithItsPointsAndResetRangeTakesTheWholeAxis) {
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {});
  const std::vector<double> map = MapAxis(tool);
  EXPECT_EQ(preview.GetAxisUnit(), "rel. 1/cm");
  // Never set: the whole axis, as many points as the map has.
  TAdvancedFitPreviewRange range = preview.GetRange();
  EXPECT_EQ(range.Points, 512);
  EXPECT_DOUBLE_EQ(range.Start, map.front());
  EXPECT_DOUBLE_EQ(range.Stop, map.back());

  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText(
                      {"# of Points=101", "Preview Start Value=500", "Preview Stop Value=540"})
                  .empty());
  const auto* fit = dynamic_cast<const TDGraph*>(FProject.FindData(preview.GetFitGraphID()));
  ASSERT_NE(fit, nullptr);
  ASSERT_EQ(fit->GetSizeGraph(), 101);
  const std::vector<double>& curve = preview.GetCurveAxis();
  ASSERT_EQ(curve.size(), 101u);
  EXPECT_DOUBLE_EQ(curve.front(), 500);
  EXPECT_DOUBLE_EQ(curve[50], 520);
  EXPECT_DOUBLE_EQ(curve.back(), 540);
  // A viewer reads the same positions from the curve graph's own axis.
  const std::vector<double> shown = AxisOf(preview.GetFitGraphID());
  ASSERT_EQ(shown.size(), 101u);
  for (size_t g = 0; g < shown.size(); ++g) EXPECT_NEAR(shown[g], 500 + 0.4 * g, 1e-6) << g;
  // The curve of the start values at those positions.
  TAdvancedFittingCore core;
  std::string error;
  ASSERT_TRUE(tool.ConfigureCore(core, error)) << error;
  std::vector<double> p;
  for (const auto& row : core.Rows()) p.push_back(row.StartValue);
  for (int g : {0, 37, 100})
    EXPECT_FLOAT_EQ(fit->GetField(0, 0, g),
                    static_cast<float>(core.GetFunction()->GetFunctionValue(p.data(), curve[g])));
  // Start equal to stop: no curve, the status says why.
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Preview Stop Value=500"}).empty());
  EXPECT_NE(preview.GetStatus().find("Preview range is empty"), std::string::npos) << preview.GetStatus();

  ASSERT_TRUE(tool.ExecuteCommand(TAdvancedFittingToolForm::kResetRange));
  range = preview.GetRange();
  EXPECT_EQ(range.Points, 512);
  EXPECT_DOUBLE_EQ(range.Start, map.front());
  EXPECT_DOUBLE_EQ(range.Stop, map.back());
  EXPECT_DOUBLE_EQ(tool.GetFloatParameter(TAdvancedFittingToolForm::kPreviewStart), map.front());
  EXPECT_EQ(fit->GetSizeGraph(), 512);
  const std::vector<double> whole = AxisOf(preview.GetFitGraphID());
  EXPECT_NEAR(whole.front(), map.front(), 1e-6);
  EXPECT_NEAR(whole.back(), map.back(), 1e-6);
  // Closing takes the curve's axis with the preview graphs.
  const int32_t table = fit->GetXTransformationID();
  ASSERT_NE(dynamic_cast<const TDLUTTransformation*>(FProject.FindData(table)), nullptr);
  tool.CleanUp();
  EXPECT_EQ(FProject.FindData(table), nullptr);
}

TEST(AdvancedFittingPreviewRange, AxisFromAxisAndFollowingTheCursor) {
  TAdvancedFitPreviewRange range;
  range.Points = 5;
  range.Start = 10;
  range.Stop = 0;
  EXPECT_EQ(range.Axis(), (std::vector<double>{10, 7.5, 5, 2.5, 0}));
  range.Points = 1;
  EXPECT_FALSE(range.IsValid());
  EXPECT_TRUE(range.Axis().empty());
  range.Points = 1001;
  EXPECT_FALSE(range.IsValid());
  range.Points = 3;
  range.Stop = 10;
  EXPECT_FALSE(range.IsValid()); // empty
  range.Stop = 2e20;
  EXPECT_FALSE(range.IsValid());

  // A long axis gives at most 1000 points, a falling one keeps its direction, a short one 0 .. 1.
  std::vector<double> axis(3000);
  for (size_t g = 0; g < axis.size(); ++g) axis[g] = 900 - 0.25 * g;
  range = TAdvancedFitPreviewRange::FromAxis(axis);
  EXPECT_EQ(range.Points, 1000);
  EXPECT_EQ(range.Start, 900);
  EXPECT_EQ(range.Stop, 900 - 0.25 * 2999);
  range = TAdvancedFitPreviewRange::FromAxis({4.0});
  EXPECT_EQ(range.Points, 2);
  EXPECT_EQ(range.Start, 0);
  EXPECT_EQ(range.Stop, 1);

  range.Points = 11;
  range.Start = 100;
  range.Stop = 200;
  EXPECT_TRUE(range.FollowCursor(180)); // nearer to the stop
  EXPECT_EQ(range.Start, 100);
  EXPECT_EQ(range.Stop, 180);
  EXPECT_TRUE(range.FollowCursor(90)); // beyond the start
  EXPECT_EQ(range.Start, 90);
  EXPECT_EQ(range.Stop, 180);
  EXPECT_TRUE(range.FollowCursor(135)); // the middle: the start
  EXPECT_EQ(range.Start, 135);
  EXPECT_FALSE(range.FollowCursor(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_FALSE(range.FollowCursor(3e20));
  EXPECT_EQ(range.Points, 11);
  EXPECT_EQ(range.Start, 135);
  EXPECT_EQ(range.Stop, 180);
}

TEST_F(AdvancedFittingRangeTest, ListenMovesTheNearerEndOfTheRangeWithTheXCursor) {
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview =
      Open(tool, {"# of Points=41", "Preview Start Value=500", "Preview Stop Value=540"});
  // Without Listen the cursor leaves the range alone.
  MoveXCursorTo(preview, 530);
  EXPECT_DOUBLE_EQ(preview.GetRange().Stop, 540);
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Listen=true"}).empty());
  MoveXCursorTo(preview, 531);
  EXPECT_NEAR(preview.GetRange().Start, 500, 1e-9);
  EXPECT_NEAR(preview.GetRange().Stop, 531, 1e-6);
  MoveXCursorTo(preview, 505);
  EXPECT_NEAR(preview.GetRange().Start, 505, 1e-6);
  EXPECT_NEAR(preview.GetRange().Stop, 531, 1e-6);
  EXPECT_EQ(preview.GetRange().Points, 41);
  // The curve follows: 41 points from 505 to 531.
  ASSERT_EQ(preview.GetCurveAxis().size(), 41u);
  EXPECT_NEAR(preview.GetCurveAxis().front(), 505, 1e-6);
  EXPECT_NEAR(preview.GetCurveAxis().back(), 531, 1e-6);
  tool.CleanUp();
}

TEST_F(AdvancedFittingRangeTest, AnArmedParameterTakesItsStartValueFromTheCursorByItsListenKind) {
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {});
  // Lorentz: y0 listens to the y value, x0 to the x position, w to an x distance, A to an area.
  const int y0 = 0, x0 = 1, w = 2, a = 3;
  ASSERT_EQ(preview.Rows().size(), 4u);
  EXPECT_EQ(preview.GetListenKind(y0), TFitParamListenKind::YAxis);
  EXPECT_EQ(preview.GetListenKind(x0), TFitParamListenKind::XAxis);
  EXPECT_EQ(preview.GetListenKind(w), TFitParamListenKind::XDiffAbsolute);
  EXPECT_EQ(preview.GetListenKind(a), TFitParamListenKind::Area);
  EXPECT_FALSE(preview.ArmListen(4));
  EXPECT_EQ(preview.GetArmedRow(), -1);

  // Nothing armed: the cursor changes no row.
  const double before = preview.Rows()[x0].StartValue;
  MoveXCursorTo(preview, 521);
  EXPECT_EQ(preview.Rows()[x0].StartValue, before);

  ASSERT_TRUE(preview.ArmListen(x0));
  EXPECT_EQ(preview.GetArmedRow(), x0);
  MoveXCursorTo(preview, 522.5);
  EXPECT_NEAR(preview.Rows()[x0].StartValue, 522.5, 1e-6);
  MoveXCursorTo(preview, 519);
  EXPECT_NEAR(preview.Rows()[x0].StartValue, 519, 1e-6);
  // Stored in the tool's rows, as an extract reads them.
  TAdvancedFittingCore core;
  std::string error;
  ASSERT_TRUE(tool.ConfigureCore(core, error)) << error;
  EXPECT_NEAR(core.Rows()[x0].StartValue, 519, 1e-6);
  preview.DisarmListen();
  MoveXCursorTo(preview, 600);
  EXPECT_NEAR(preview.Rows()[x0].StartValue, 519, 1e-6);

  // The width from two positions: their distance.
  ASSERT_TRUE(preview.ArmListen(w));
  MoveXCursorTo(preview, 515);
  const double widthBefore = preview.Rows()[w].StartValue;
  MoveXCursorTo(preview, 527);
  EXPECT_NE(widthBefore, 12);
  EXPECT_NEAR(preview.Rows()[w].StartValue, 12, 1e-6);

  // The offset: the spectrum's value at the point nearest to the cursor.
  const std::vector<double> map = MapAxis(tool);
  const auto* data = dynamic_cast<const TDGraph*>(FProject.FindData(preview.GetDataGraphID()));
  auto nearest = [&](double x) {
    size_t n = 0;
    for (size_t g = 1; g < map.size(); ++g)
      if (std::fabs(map[g] - x) < std::fabs(map[n] - x)) n = g;
    return n;
  };
  ASSERT_TRUE(preview.ArmListen(y0));
  MoveXCursorTo(preview, 700);
  EXPECT_DOUBLE_EQ(preview.Rows()[y0].StartValue, data->GetField(0, 0, static_cast<int32_t>(nearest(700))));

  // The area: trapezoids of the spectrum between the last two positions.
  ASSERT_TRUE(preview.ArmListen(a));
  MoveXCursorTo(preview, 500);
  MoveXCursorTo(preview, 540);
  double area = 0;
  for (size_t g = 1; g < map.size(); ++g)
    if (std::min(map[g - 1], map[g]) >= 500 - 1e-6 && std::max(map[g - 1], map[g]) <= 540 + 1e-6)
      area += 0.5 * (data->GetField(0, 0, int32_t(g - 1)) + data->GetField(0, 0, int32_t(g))) *
              std::fabs(map[g] - map[g - 1]);
  EXPECT_GT(area, 0);
  EXPECT_NEAR(preview.Rows()[a].StartValue, area, 1e-6 * area);
  tool.CleanUp();
}

TEST_F(AdvancedFittingRangeTest, ListenedWidthIsTakenInTheUserFormOfTheParameter) {
  // Gauss with its width shown as FWHM: the distance the cursor spans is the FWHM, the row holds sigma.
  TAdvancedFittingToolForm tool;
  std::vector<std::string> settings{"Function=Gauss", "Function Settings=WidthKind=FWHM", "Fit Mask=480:560",
                                    "Fit Mode=Define Start Values"};
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText(settings).empty());
  const TIntList ids{FIDs.Map};
  tool.Init(&ids, nullptr, &FProject);
  TAdvancedFittingPreview* preview = tool.GetPreview();
  ASSERT_NE(preview, nullptr);
  int s = -1;
  for (int i = 0; i < static_cast<int>(preview->Rows().size()); ++i)
    if (preview->Rows()[static_cast<size_t>(i)].Name == "s") s = i;
  ASSERT_GE(s, 0);
  ASSERT_TRUE(preview->ArmListen(s));
  MoveXCursorTo(*preview, 510);
  MoveXCursorTo(*preview, 520);
  EXPECT_NEAR(preview->Rows()[static_cast<size_t>(s)].StartValue, 10 * 0.42466090014400953, 1e-6);
  tool.CleanUp();
}

TEST_F(AdvancedFittingRangeTest, FitCurvesOffTheInputPointsLieOnThePreviewRange) {
  const std::vector<std::string> settings{
      "Function=Lorentz",        "Fit Mask=480:560",
      "Extract Fit Curves=true", "Extract Fit Curve with Input Data Supporting Points=false",
      "# of Points=81",          "Preview Start Value=480",
      "Preview Stop Value=560"};
  {
    // Every spectrum.
    TAdvancedFittingToolForm tool;
    ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText(settings).empty());
    const TIntList ids = tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract All", false);
    const auto* map = dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map));
    auto* curves = Result<TDGraph>(ids, map->GetCaption() + " (Fit Lorentz: Curves)");
    ASSERT_NE(curves, nullptr);
    EXPECT_EQ(curves->GetSizeX(), 6);
    EXPECT_EQ(curves->GetSizeY(), 4);
    ASSERT_EQ(curves->GetSizeGraph(), 81);
    const std::vector<double> axis = AxisOf(curves->GetID());
    ASSERT_EQ(axis.size(), 81u);
    for (size_t g = 0; g < axis.size(); ++g) EXPECT_NEAR(axis[g], 480 + g, 1e-6) << g;
    auto* centre = Result<TDImage>(ids, map->GetCaption() + " (Fit Lorentz: x0)");
    auto* offset = Result<TDImage>(ids, map->GetCaption() + " (Fit Lorentz: y0)");
    ASSERT_TRUE(centre && offset);
    // Where a band was fitted, the curve's highest point lies at its centre.
    int checked = 0;
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 6; ++x) {
        const float c = centre->GetField(x, y);
        if (!(c > 500 && c < 540)) continue;
        int apex = 0;
        for (int g = 1; g < 81; ++g)
          if (curves->GetField(x, y, g) > curves->GetField(x, y, apex)) apex = g;
        EXPECT_NEAR(480 + apex, c, 0.51) << x << " " << y;
        ++checked;
      }
    EXPECT_GT(checked, 0);
  }
  {
    // The current spectrum.
    TAdvancedFittingToolForm tool;
    ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText(settings).empty());
    const TIntList ids = tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
    const auto* map = dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map));
    auto* curve = Result<TDGraph>(ids, map->GetCaption() + " (Fit Lorentz: Curve)");
    ASSERT_NE(curve, nullptr);
    ASSERT_EQ(curve->GetSizeGraph(), 81);
    const std::vector<double> axis = AxisOf(curve->GetID());
    ASSERT_EQ(axis.size(), 81u);
    EXPECT_NEAR(axis.front(), 480, 1e-6);
    EXPECT_NEAR(axis.back(), 560, 1e-6);
  }
}

TEST(AdvancedFittingPreviewRange, TheMemoryEstimateCountsTheCurvesOnTheRange) {
  TAdvancedFittingCore core;
  core.SetFunction(TFitFunctionManager::CreateFitFunctionByClassName("TNLFitLorentz"));
  core.ExtractFitCurves = true;
  core.CurveRange.Points = 12;
  const int64_t onInput = core.EstimateResultBytes(100, 512);
  core.ExtractFitCurveWithInputDataSupportingPoints = false;
  const int64_t onRange = core.EstimateResultBytes(100, 512);
  EXPECT_EQ(onInput - onRange, int64_t(100) * (512 - 12) * int64_t(sizeof(float)));
}

TEST_F(AdvancedFittingRangeTest, FitSoonerAndLaterReachTheToolsRows) {
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {});
  ASSERT_TRUE(preview.FitLater(1));
  EXPECT_EQ(Orders(preview.Rows()), (std::vector<int>{0, 1, 0, 0}));
  EXPECT_NE(tool.GetStringParameter("Fit Parameters").find("x0|Fit Order=1"), std::string::npos);
  TAdvancedFittingCore core;
  std::string error;
  ASSERT_TRUE(tool.ConfigureCore(core, error)) << error;
  EXPECT_EQ(Orders(core.Rows()), (std::vector<int>{0, 1, 0, 0}));
  ASSERT_TRUE(preview.FitSooner(1));
  EXPECT_EQ(Orders(preview.Rows()), (std::vector<int>{0, 0, 0, 0}));
  EXPECT_FALSE(preview.FitSooner(9));
  // A bad order is refused by name.
  const TUserParameterProblems problems =
      tool.Parameters().SetParameterValuesFromText({"Fit Parameters=x0|Fit Order=-1"});
  ASSERT_FALSE(problems.empty());
  EXPECT_NE(problems.front().Message.find("x0|Fit Order"), std::string::npos) << problems.front().Message;
  tool.CleanUp();
}

} // namespace
