// The interactive side of the Advanced Fitting Tool on a small demo map: Fit Once and its statistics
// against a fit of the same spectrum by the core alone, the row commands, Reset Params, the cursor moving
// the current spectrum (refitted with Fit on Change only), and the user function file commands.
#include "tools/spectral/Advancedfittingpreview.h"

#include "AdvancedfittingTestSupport.h"
#include "common/Saveandload.h"
#include "common/numerics/Fitfunctionmanager.h"
#include "data/Dcursor.h"
#include "data/Dtransformation.h"
#include "project/Demodataset.h"
#include "project/Graphmask.h"
#include "project/Graphmaskparameter.h"
#include "project/Projectdialogform.h"
#include "project/Viewerbase.h"
#include "support/TestSupport.h"
#include "tools/spectral/Advancedfittingcore.h"
#include "tools/spectral/Advancedfittingtool.h"

#include <cmath>
#include <fstream>
#include <limits>

namespace {

class AdvancedFittingPreviewTest : public oxtest::AdvancedFittingDemoFixture {
protected:
  void SetUp() override {
    AdvancedFittingDemoFixture::SetUp();
    CreateDemo(8, 6);
  }

  /// The same spectrum fitted by the core alone from the tool's present settings.
  TAdvancedFitPointResult FitByCore(const TAdvancedFittingToolForm& tool, int x, int y) {
    const auto& graph = *dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map));
    TAdvancedFittingCore core;
    tool.ConfigureForGraph(graph, core);
    TAdvancedFitPointResult result;
    std::string message;
    EXPECT_EQ(core.FitSpectrum(graph, int64_t(y) * graph.GetSizeX() + x, result, message),
              TAdvancedFitStatus::Done)
        << message;
    return result;
  }

  void MoveSpaceCursorTo(int x, int y) {
    auto* cursor =
        dynamic_cast<TDCursor*>(FProject.FindData(FProject.MakeOrGetFirstIDByClassName("TDSpaceCursor")));
    ASSERT_NE(cursor, nullptr);
    double wx = 0, wy = 0;
    PixelToWorld(FProject, FIDs.SpaceTransformation, x, y, wx, wy);
    cursor->SetPosition(0, wx);
    cursor->SetPosition(1, wy);
  }

  std::string Statistic(const TAdvancedFittingPreview& preview, const std::string& label) {
    for (const auto& [name, text] : preview.GetStatistics())
      if (name == label) return text;
    return "(missing)";
  }
};

TEST_F(AdvancedFittingPreviewTest, FitOnceTakesTheFittedValuesAndStatistics) {
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {"Fit Mode=Define Start Values", "Pixel X=5", "Pixel Y=3"});
  // Define Start Values: nothing fitted on opening.
  EXPECT_EQ(preview.GetStatus(), TAdvancedFittingPreview::kNotFitted);
  EXPECT_EQ(Statistic(preview, "R^2:"), "--------");
  EXPECT_EQ(preview.GetPixelX(), 5);
  EXPECT_EQ(preview.GetPixelY(), 3);
  ASSERT_NE(preview.GetFitGraphID(), 0);
  ASSERT_NE(preview.GetDataGraphID(), 0);

  ASSERT_TRUE(tool.ExecuteCommand(TAdvancedFittingToolForm::kFitOnce));
  EXPECT_EQ(preview.GetStatus(), "Fit Successful");
  const TAdvancedFitPointResult expected = FitByCore(tool, 5, 3);
  ASSERT_TRUE(expected.FitOK);
  const auto& rows = preview.Rows();
  ASSERT_EQ(rows.size(), expected.NativeValues.size());
  for (size_t i = 0; i < rows.size(); ++i) EXPECT_DOUBLE_EQ(rows[i].Value, expected.NativeValues[i]) << i;
  // The values live in the tool's parameters: an extract reads the same rows.
  TAdvancedFittingCore core;
  std::string error;
  ASSERT_TRUE(tool.ConfigureCore(core, error)) << error;
  for (size_t i = 0; i < rows.size(); ++i) EXPECT_DOUBLE_EQ(core.Rows()[i].Value, rows[i].Value);

  const TAdvancedFitPointResult& result = preview.GetLastResult();
  EXPECT_DOUBLE_EQ(result.ChiSqr, expected.ChiSqr);
  EXPECT_EQ(result.DegreesOfFreedom, result.DataPoints - 4); // Lorentz varies four parameters
  EXPECT_GT(result.DataPoints, 10);
  EXPECT_EQ(Statistic(preview, "Data Points / DoF:"),
            std::to_string(result.DataPoints) + " / " + std::to_string(result.DegreesOfFreedom));
  EXPECT_NE(Statistic(preview, "Chi^2 / DoF:"), "--------");
  EXPECT_NEAR(std::stod(Statistic(preview, "Average Error:")),
              std::sqrt(result.ResidualSumOfSquares / result.DataPoints), 1e-4 * result.AverageError);
  EXPECT_GT(std::stod(Statistic(preview, "R^2:")), 0.9);

  // The curve graph holds the fitted model on the map's axis: its largest value lies at the band.
  const auto* fit = dynamic_cast<const TDGraph*>(FProject.FindData(preview.GetFitGraphID()));
  const auto* data = dynamic_cast<const TDGraph*>(FProject.FindData(preview.GetDataGraphID()));
  const auto* map = dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map));
  ASSERT_TRUE(fit && data && map);
  // The curve lies on the preview range, by default the whole axis with as many points as it has.
  const std::vector<double>& curveAxis = preview.GetCurveAxis();
  ASSERT_EQ(fit->GetSizeGraph(), static_cast<int>(curveAxis.size()));
  ASSERT_EQ(curveAxis.size(), 512u);
  TAdvancedFittingCore core2;
  tool.ConfigureForGraph(*map, core2);
  EXPECT_DOUBLE_EQ(curveAxis.front(), core2.GetAxis().front());
  EXPECT_DOUBLE_EQ(curveAxis.back(), core2.GetAxis().back());
  std::vector<double> fitted;
  for (const auto& row : rows) fitted.push_back(row.Value);
  for (int g : {0, 200, 511})
    EXPECT_FLOAT_EQ(fit->GetField(0, 0, g),
                    static_cast<float>(core2.GetFunction()->GetFunctionValue(fitted.data(), curveAxis[g])));
  // The fitted model at the map's points: at its highest one it passes near the data (the band stands
  // far above the noise).
  int apex = 0;
  auto model = [&](int g) {
    return core2.GetFunction()->GetFunctionValue(fitted.data(), core2.GetAxis()[g]);
  };
  for (int g = 1; g < data->GetSizeGraph(); ++g)
    if (model(g) > model(apex)) apex = g;
  EXPECT_FLOAT_EQ(data->GetField(0, 0, apex), map->GetField(5, 3, apex));
  EXPECT_NEAR(model(apex), data->GetField(0, 0, apex), 0.15 * data->GetField(0, 0, apex));
}

TEST_F(AdvancedFittingPreviewTest, ArrowsCopyBetweenValuesAndStartValuesAndResetParamsRestores) {
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {"Fit Mode=Define Start Values"});
  const std::vector<TAdvancedFitParamSettings> fresh = preview.Rows();
  ASSERT_TRUE(tool.ExecuteCommand(TAdvancedFittingToolForm::kFitOnce));
  ASSERT_EQ(preview.GetStatus(), "Fit Successful");
  const std::vector<TAdvancedFitParamSettings> fitted = preview.Rows();
  bool differ = false;
  for (size_t i = 0; i < fitted.size(); ++i) differ = differ || fitted[i].Value != fitted[i].StartValue;
  ASSERT_TRUE(differ) << "the fit must have moved some value away from its start";

  ASSERT_TRUE(tool.ExecuteCommand(TAdvancedFittingToolForm::kValuesToStartValues));
  for (size_t i = 0; i < fitted.size(); ++i) {
    EXPECT_DOUBLE_EQ(preview.Rows()[i].StartValue, fitted[i].Value);
    EXPECT_DOUBLE_EQ(preview.Rows()[i].Value, fitted[i].Value);
  }

  // ">>" the other way: change a start value, then the values follow the start values.
  TAdvancedFitParamSettings row = preview.Rows()[1];
  row.StartValue = 515.0;
  std::string problem;
  ASSERT_TRUE(preview.SetRow(1, row, problem)) << problem;
  ASSERT_TRUE(tool.ExecuteCommand(TAdvancedFittingToolForm::kStartValuesToValues));
  for (const TAdvancedFitParamSettings& r : preview.Rows()) EXPECT_DOUBLE_EQ(r.Value, r.StartValue) << r.Name;
  EXPECT_DOUBLE_EQ(preview.Rows()[1].Value, 515.0);

  // Reset Params: back to the function's own rows, and the tool's text of rows is empty.
  row = preview.Rows()[0];
  row.Vary = false;
  row.HasUpperLimit = true;
  row.UpperLimit = 1e6;
  ASSERT_TRUE(preview.SetRow(0, row, problem)) << problem;
  EXPECT_FALSE(preview.Rows()[0].Vary);
  ASSERT_TRUE(tool.ExecuteCommand(TAdvancedFittingToolForm::kResetParams));
  EXPECT_EQ(tool.GetStringParameter("Fit Parameters"), "");
  ASSERT_EQ(preview.Rows().size(), fresh.size());
  for (size_t i = 0; i < fresh.size(); ++i) {
    EXPECT_EQ(preview.Rows()[i].Vary, fresh[i].Vary);
    EXPECT_EQ(preview.Rows()[i].HasUpperLimit, fresh[i].HasUpperLimit);
    EXPECT_DOUBLE_EQ(preview.Rows()[i].StartValue, fresh[i].StartValue);
    EXPECT_DOUBLE_EQ(preview.Rows()[i].Value, fresh[i].Value);
  }
  EXPECT_EQ(preview.GetStatus(), TAdvancedFittingPreview::kNotFitted);
}

TEST_F(AdvancedFittingPreviewTest, DefineStartValuesDrawsTheStartCurve) {
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {"Fit Mode=Define Start Values"});
  std::vector<TAdvancedFitParamSettings> rows = preview.Rows();
  std::string problem;
  for (int i = 0; i < static_cast<int>(rows.size()); ++i) {
    rows[static_cast<size_t>(i)].Auto = false;
    rows[static_cast<size_t>(i)].StartValue = i == 1 ? 520.0 : 10.0 * (i + 1);
    ASSERT_TRUE(preview.SetRow(i, rows[static_cast<size_t>(i)], problem)) << problem;
  }
  TAdvancedFittingCore core;
  ASSERT_TRUE(tool.ConfigureCore(core, problem)) << problem;
  std::vector<double> p;
  for (const auto& r : core.Rows()) p.push_back(r.StartValue);
  const auto* fit = dynamic_cast<const TDGraph*>(FProject.FindData(preview.GetFitGraphID()));
  const auto& graph = *dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map));
  tool.ConfigureForGraph(graph, core);
  for (int g : {0, 100, 300, 511})
    EXPECT_FLOAT_EQ(fit->GetField(0, 0, g), static_cast<float>(core.GetFunction()->GetFunctionValue(
                                                p.data(), preview.GetCurveAxis()[g])))
        << g;
  // The preview choice "Value": the curve of the Value column (still the function's own values here).
  std::vector<double> v;
  for (const auto& r : core.Rows()) v.push_back(r.Value);
  ASSERT_NE(v, p);
  preview.SetCurveFromValue(true);
  for (int g : {0, 100, 300, 511})
    EXPECT_FLOAT_EQ(fit->GetField(0, 0, g), static_cast<float>(core.GetFunction()->GetFunctionValue(
                                                v.data(), preview.GetCurveAxis()[g])))
        << g;
  preview.SetCurveFromValue(false);
  EXPECT_FLOAT_EQ(fit->GetField(0, 0, 300), static_cast<float>(core.GetFunction()->GetFunctionValue(
                                                p.data(), preview.GetCurveAxis()[300])));
}

TEST_F(AdvancedFittingPreviewTest, CursorMoveRefitsWithFitOnChangeOnly) {
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {});
  EXPECT_EQ(preview.GetStatus(), "Fit Successful"); // Fit on Change fits the first spectrum at once

  MoveSpaceCursorTo(6, 4);
  EXPECT_EQ(preview.GetPixelX(), 6);
  EXPECT_EQ(preview.GetPixelY(), 4);
  EXPECT_EQ(tool.GetIntParameter("Pixel X"), 6);
  EXPECT_EQ(tool.GetIntParameter("Pixel Y"), 4);
  const auto* data = dynamic_cast<const TDGraph*>(FProject.FindData(preview.GetDataGraphID()));
  const auto* map = dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map));
  for (int g : {0, 200, 400}) EXPECT_FLOAT_EQ(data->GetField(0, 0, g), map->GetField(6, 4, g));
  EXPECT_EQ(preview.GetStatus(), "Fit Successful");
  // Refitted: the rows hold the fit of pixel (6, 4) from the same start rows.
  ASSERT_TRUE(tool.ExecuteCommand(TAdvancedFittingToolForm::kResetParams));
  const TAdvancedFitPointResult expected = FitByCore(tool, 6, 4);
  for (size_t i = 0; i < expected.NativeValues.size(); ++i)
    EXPECT_DOUBLE_EQ(preview.Rows()[i].Value, expected.NativeValues[i]) << i;

  // Define Start Values: a cursor move shows the new spectrum but fits nothing.
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Fit Mode=Define Start Values"}).empty());
  preview.Update();
  MoveSpaceCursorTo(1, 1);
  EXPECT_EQ(preview.GetPixelX(), 1);
  EXPECT_FLOAT_EQ(data->GetField(0, 0, 200), map->GetField(1, 1, 200));
  EXPECT_EQ(preview.GetStatus(), TAdvancedFittingPreview::kNotFitted);
  EXPECT_EQ(Statistic(preview, "Chi^2 / DoF:"), "--------");
}

TEST_F(AdvancedFittingPreviewTest, ClosingDeletesThePreviewGraphs) {
  const size_t before = ObjectCount();
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {});
  const int32_t fit = preview.GetFitGraphID();
  EXPECT_NE(FProject.FindData(fit), nullptr);
  tool.CleanUp();
  EXPECT_EQ(FProject.FindData(fit), nullptr);
  EXPECT_EQ(tool.GetPreview(), nullptr);
  EXPECT_EQ(ObjectCount(), before);
}

TEST_F(AdvancedFittingPreviewTest, UserFunctionsSavedLoadedAndAWrongFileNamedInTheTitle) {
  oxtest::TempDir dir;
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {});
  EXPECT_EQ(preview.GetTitle(), "Advanced Fitting Tool");
  std::string problem;
  ASSERT_TRUE(preview.AddSelectedFunctionToUserFunctions("Silicon Band", problem)) << problem;
  EXPECT_FALSE(preview.AddSelectedFunctionToUserFunctions("Silicon Band", problem));
  bool listed = false;
  for (const TFitFunctionListEntry& e : preview.GetFunctionList())
    listed = listed || (e.FunctionName == "Silicon Band" && e.Category == "User" && e.UserFunction);
  EXPECT_TRUE(listed);
  const std::string file = dir.File("mine.oxu");
  ASSERT_TRUE(preview.SaveUserFunctions(file));
  EXPECT_EQ(tool.GetStringParameter("User Fit Functions File"), file);
  ASSERT_TRUE(preview.SelectFunction("Silicon Band"));
  EXPECT_EQ(preview.GetSelectedFunctionName(), "Silicon Band");
  EXPECT_EQ(preview.GetStatus(), "Fit Successful");

  // Another file's magic: refused, said in the title, the list stays.
  const std::string wrong = dir.File("wrong.oxu");
  std::ofstream(wrong) << "not a user fit functions file";
  EXPECT_FALSE(preview.LoadUserFunctions(wrong, false));
  EXPECT_EQ(preview.GetTitle(), "Advanced Fitting Tool (Save/Load Problem)");
  EXPECT_EQ(tool.GetStringParameter("User Fit Functions File"), file);
  ASSERT_TRUE(preview.LoadUserFunctions(file, false));
  EXPECT_EQ(preview.GetTitle(), "Advanced Fitting Tool");
  ASSERT_TRUE(preview.DeleteSelectedUserFunction());
  for (const TFitFunctionListEntry& e : preview.GetFunctionList()) EXPECT_NE(e.FunctionName, "Silicon Band");
}

TEST_F(AdvancedFittingPreviewTest, AdvancedModeCannotBeLeftWithAFunctionOfSeveralParts) {
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {}, "Gauss");
  EXPECT_TRUE(preview.IsAdvancedModeChangeAllowed(false));
  const size_t rows = preview.Rows().size();
  // Two parts are for advanced mode only.
  EXPECT_FALSE(preview.SetFunctionSettings("NumberOfFunctions=2"));
  EXPECT_EQ(preview.GetStatus(), "Advanced Mode is needed for these settings");
  EXPECT_EQ(tool.GetStringParameter("Function Settings"), "");
  EXPECT_EQ(preview.Rows().size(), rows);
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Advanced Mode=true"}).empty());
  // The stored rows of one Gauss don't stop the change to two: the rows follow the new parameter list.
  ASSERT_TRUE(preview.SetFunctionSettings("NumberOfFunctions=2")) << preview.GetStatus();
  EXPECT_GT(preview.Rows().size(), rows);
  // Turning it off is taken back, with the reason in the status.
  auto* advanced = tool.Parameters().GetUserParameterByName("Advanced Mode");
  std::string problem;
  ASSERT_TRUE(advanced->SetParameterFromText("false", problem)) << problem; // announces the change
  EXPECT_TRUE(tool.GetBoolParameter("Advanced Mode"));
  EXPECT_EQ(preview.GetStatus(), "Advanced Mode is needed by the selected function");
  EXPECT_FALSE(preview.IsAdvancedModeChangeAllowed(false));
  EXPECT_TRUE(preview.IsAdvancedModeChangeAllowed(true));
}

// A viewer that records what it is shown: its graphs and the mask bands.
class TRecordingViewer : public TVCustomForm, public IGraphMaskViewer {
public:
  std::string GetClassNameA() const override { return "TRecordingViewer"; }
  bool AddDataID(int32_t id) override {
    Graphs.push_back(id);
    return true;
  }
  void SetMultiMask(int32_t graphID, int band, int first, int last, const bool* mask) override {
    MaskGraph = graphID;
    Band = band;
    EXPECT_EQ(first, 0);
    EXPECT_EQ(last, -1);
    Mask.assign(mask, mask + MaskSize);
    ++MaskCalls;
  }
  void HideMarker() override {}
  std::vector<int32_t> Graphs;
  int32_t MaskGraph = 0;
  int Band = -1;
  int MaskSize = 0;
  int MaskCalls = 0;
  std::vector<bool> Mask;
};

class TRecordingFactory : public IToolViewerFactory {
public:
  std::unique_ptr<TVCustomForm> CreateGraphViewer(TProject&, int32_t graphID,
                                                  const std::vector<int32_t>& moreIDs) override {
    auto viewer = std::make_unique<TRecordingViewer>();
    viewer->MaskSize = MaskSize;
    viewer->AddDataID(graphID);
    for (int32_t id : moreIDs) viewer->AddDataID(id);
    Made = viewer.get();
    return viewer;
  }
  std::unique_ptr<TVCustomForm> CreateImageViewer(TProject&, int32_t, bool) override { return nullptr; }
  void SetImageID(TVCustomForm&, int32_t) override {}
  void SetAutoUpdate(TVCustomForm&, bool) override {}
  int MaskSize = 0;
  TRecordingViewer* Made = nullptr;
};

TEST_F(AdvancedFittingPreviewTest, ViewerShowsCurveOverDataWithTheFitMaskAsBand) {
  TRecordingFactory factory;
  factory.MaskSize = 512;
  IToolViewerFactory* former = IToolViewerFactory::GetFactory();
  IToolViewerFactory::SetFactory(&factory);
  TAdvancedFittingToolForm tool;
  TAdvancedFittingPreview& preview = Open(tool, {});
  IToolViewerFactory::SetFactory(former);
  ASSERT_NE(factory.Made, nullptr);
  EXPECT_EQ(preview.GetViewer(), factory.Made);
  ASSERT_EQ(factory.Made->Graphs.size(), 2u); // Lorentz has no replicas
  EXPECT_EQ(factory.Made->Graphs[0], preview.GetFitGraphID());
  EXPECT_EQ(factory.Made->Graphs[1], preview.GetDataGraphID());
  // The tool names this viewer and the data graph for its spectral masks; tied there as a window ties
  // them, the band is the points of the mask 480:560 over the data graph.
  EXPECT_TRUE(tool.HasSpectralMaskViewer());
  ASSERT_EQ(tool.GetSpectralMaskViewer(), factory.Made);
  ASSERT_EQ(tool.GetSpectralMaskGraphID(), preview.GetDataGraphID());
  auto* parameter = dynamic_cast<TUserStringParameter*>(tool.Parameters().GetUserParameterByName("Fit Mask"));
  ASSERT_NE(parameter, nullptr);
  TGraphMaskParameterLink link(*parameter, FProject, tool.GetSpectralMaskGraphID(), 0, [&tool] {
    return dynamic_cast<IGraphMaskViewer*>(tool.GetSpectralMaskViewer());
  });
  link.ShowBand();
  EXPECT_EQ(factory.Made->MaskGraph, preview.GetDataGraphID());
  EXPECT_EQ(factory.Made->Band, 0);
  TAdvancedFittingCore core;
  tool.ConfigureForGraph(*dynamic_cast<const TDGraph*>(FProject.FindData(FIDs.Map)), core);
  ASSERT_EQ(factory.Made->Mask.size(), core.GetAxis().size());
  int set = 0;
  for (size_t g = 0; g < core.GetAxis().size(); ++g) {
    const double x = core.GetAxis()[g];
    if (x > 481 && x < 559) {
      EXPECT_TRUE(factory.Made->Mask[g]) << x;
    } else if (x < 479 || x > 561) {
      EXPECT_FALSE(factory.Made->Mask[g]) << x;
    }
    set += factory.Made->Mask[g] ? 1 : 0;
  }
  EXPECT_EQ(set, preview.GetLastResult().DataPoints);
  // A new mask moves the band; a refit with the same mask sends none.
  const int calls = factory.Made->MaskCalls;
  ASSERT_TRUE(tool.ExecuteCommand(TAdvancedFittingToolForm::kFitOnce));
  EXPECT_EQ(factory.Made->MaskCalls, calls);
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Fit Mask=990:1020"}).empty());
  EXPECT_GT(factory.Made->MaskCalls, calls);
  for (size_t g = 0; g < core.GetAxis().size(); ++g)
    if (core.GetAxis()[g] > 500 && core.GetAxis()[g] < 540) {
      EXPECT_FALSE(factory.Made->Mask[g]);
    }
  tool.CleanUp(); // the viewer goes with the tool's clean-up
}

TEST_F(AdvancedFittingPreviewTest, ReplicasJoinTheViewerOnStartupOnlyWhenAskedTo) {
  for (const bool show : {true, false}) {
    TRecordingFactory factory;
    factory.MaskSize = 512;
    IToolViewerFactory* former = IToolViewerFactory::GetFactory();
    IToolViewerFactory::SetFactory(&factory);
    TAdvancedFittingToolForm tool;
    TAdvancedFittingPreview& preview =
        Open(tool,
             {"Advanced Mode=true", "Function Settings=NumberOfFunctions=2",
              std::string("Show all Replica on Startup=") + (show ? "true" : "false")},
             "Gauss");
    IToolViewerFactory::SetFactory(former);
    ASSERT_NE(factory.Made, nullptr);
    // Two parts: two replica graphs are made either way, and drawn.
    ASSERT_EQ(preview.GetReplicaGraphIDs().size(), 2u);
    for (int32_t id : preview.GetReplicaGraphIDs()) EXPECT_NE(FProject.FindData(id), nullptr);
    EXPECT_EQ(factory.Made->Graphs.size(), show ? 4u : 2u) << show;
    tool.CleanUp();
  }
}

TEST(AdvancedFittingRowsText, ReadsBackToTheSameRows) {
  TAdvancedFittingCore core;
  auto function = TFitFunctionManager::CreateFitFunctionByClassName("TNLFitLorentz");
  ASSERT_TRUE(function);
  core.SetFunction(std::move(function));
  std::vector<TAdvancedFitParamSettings> rows = core.Rows();
  ASSERT_GE(rows.size(), 2u);
  rows[0].StartValue = 0.1 + 0.2; // a value that needs all digits
  rows[0].Value = -1.0 / 3.0;
  rows[0].Vary = false;
  rows[0].HasLowerLimit = true;
  rows[0].LowerLimit = -2.5e-7;
  rows[1].HasUpperLimit = false;
  rows[1].Auto = !rows[1].Auto;
  rows[1].ExtractError = false;
  rows[1].ValueIfFitFails = 7.25;
  TAdvancedFittingCore read;
  read.SetFunction(TFitFunctionManager::CreateFitFunctionByClassName("TNLFitLorentz"));
  std::string error;
  ASSERT_TRUE(ApplyFitParameterText(FitParameterText(rows), read, error)) << error;
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto &a = rows[i], &b = read.Rows()[i];
    EXPECT_EQ(a.StartValue, b.StartValue);
    EXPECT_EQ(a.Value, b.Value);
    EXPECT_EQ(a.Vary, b.Vary);
    EXPECT_EQ(a.HasLowerLimit, b.HasLowerLimit);
    if (a.HasLowerLimit) {
      EXPECT_EQ(a.LowerLimit, b.LowerLimit);
    }
    EXPECT_EQ(a.HasUpperLimit, b.HasUpperLimit);
    EXPECT_EQ(a.Auto, b.Auto);
    EXPECT_EQ(a.ExtractValue, b.ExtractValue);
    EXPECT_EQ(a.ExtractError, b.ExtractError);
    EXPECT_TRUE(a.ValueIfFitFails == b.ValueIfFitFails ||
                (std::isnan(a.ValueIfFitFails) && std::isnan(b.ValueIfFitFails)));
  }
}

} // namespace
