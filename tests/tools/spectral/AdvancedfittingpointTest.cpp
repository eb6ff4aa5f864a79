// The Advanced Fitting Tool on one spectrum: Extract fits the spectrum at Pixel X, Pixel Y alone and gives
// its values, errors and statistics as text and JSON; a graph of one spectrum takes the same route.
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "tools/spectral/AdvancedfittingTestSupport.h"
#include "tools/spectral/Advancedfittingcore.h"
#include "tools/spectral/Advancedfittingtool.h"

#include <cmath>
#include <limits>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

namespace {

constexpr int kLength = 160;

// Lorentz bands over the point index, area A and FWHM w, on an offset, with seeded noise.
struct TBand {
  double Offset, Center, Width, Area;
};
TBand BandAt(int x, int y) {
  return {20.0 + y, 60.0 + 4.0 * x, 6.0 + 0.5 * y, 2000.0 + 100.0 * x};
}
double LorentzAt(const TBand& b, double g) {
  const double d = g - b.Center;
  return b.Offset + 2.0 * b.Area / M_PI * b.Width / (4.0 * d * d + b.Width * b.Width);
}

class AdvancedFittingPointTest : public oxtest::AdvancedFittingFixture {
protected:
  TDGraph* AddLorentzStack(int sx, int sy, const std::string& caption = "Map") {
    std::mt19937 gen(11);
    std::normal_distribution<double> noise(0.0, 1.5);
    return AddStack(sx, sy, kLength, caption, [&](int x, int y, std::vector<float>& s) {
      const TBand b = BandAt(x, y);
      for (int g = 0; g < kLength; ++g) s[g] = static_cast<float>(LorentzAt(b, g) + noise(gen));
    });
  }
};

// The value of "label" in the text, the rest of its line.
std::string LineAfter(const std::string& text, const std::string& label) {
  const size_t at = text.find("\n" + label + " ");
  if (at == std::string::npos) return "<missing " + label + ">";
  const size_t start = at + label.size() + 2;
  return text.substr(start, text.find('\n', start) - start);
}

TEST_F(AdvancedFittingPointTest, ExtractFitsThePixelAloneAsTheBareFunctionDoes) {
  TDGraph* graph = AddLorentzStack(4, 3);
  TAdvancedFittingToolForm tool;
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"Function=Lorentz", "Fit Mask=40:120 px", "Pixel X=2",
                                               "Pixel Y=1", "Param Precision=8"})
                  .empty());
  const size_t before = ObjectCount();
  const TIntList ids = tool.RunNonInteractive(FProject, {graph->GetID()}, "Extract", false);
  ASSERT_EQ(ids.size(), 1u);
  EXPECT_EQ(ObjectCount(), before + 1);
  auto* text = Result<TDText>(ids, "Map (Fit Lorentz: Pixel 2, 1)");
  ASSERT_NE(text, nullptr);

  // The same points through the function itself, as a fit of one curve does it.
  TNLFitLorentz lorentz;
  std::vector<double> x, y, sigma;
  std::vector<float> spectrum(kLength);
  graph->GetSpectrum(2, 1, spectrum.data());
  for (int g = 40; g <= 120; ++g) {
    x.push_back(g);
    y.push_back(spectrum[g]);
    sigma.push_back(1.0);
  }
  const int n = static_cast<int>(x.size());
  void* data = lorentz.ThreadPrepare();
  std::vector<double> values(4), errors(4);
  TFitFunctionErrorInfo info;
  std::string message;
  ASSERT_TRUE(lorentz.CalculateThread(data, nullptr, values.data(), errors.data(), n, x.data(), y.data(),
                                      sigma.data(), info, message));
  lorentz.ThreadPostpare(data);

  // Same parameters, names in order, the band found.
  const std::string json = tool.GetReportJson();
  const char* names[] = {"y0", "x0", "w", "A"};
  for (int i = 0; i < 4; ++i) {
    char expected[128];
    std::snprintf(expected, sizeof expected, "{\"name\":\"%s\",\"value\":%.17g,\"error\":%.17g}", names[i],
                  values[i], errors[i]);
    EXPECT_NE(json.find(expected), std::string::npos) << expected << "\n" << json;
  }
  const TBand truth = BandAt(2, 1);
  EXPECT_NEAR(values[1], truth.Center, 0.1);
  EXPECT_NEAR(values[2], truth.Width, 0.3);

  // The statistics from the fitted curve, computed here on their own.
  double rss = 0, mean = 0, tss = 0;
  for (int i = 0; i < n; ++i) mean += y[i] / n;
  for (int i = 0; i < n; ++i) {
    const double r = y[i] - lorentz.GetFunctionValue(values.data(), x[i]);
    rss += r * r;
    tss += (y[i] - mean) * (y[i] - mean);
  }
  const int dof = n - 4;
  char expected[512];
  std::snprintf(expected, sizeof expected,
                "\"chi2\":%.17g,\"chi2PerDoF\":%.17g,\"points\":%d,\"dof\":%d,\"averageError\":%.17g,"
                "\"r2\":%.17g,\"status\":\"ok\"",
                info.ChiSqr, info.ChiSqr / dof, n, dof, std::sqrt(info.ResidualSumOfSquares / n),
                1.0 - info.ResidualSumOfSquares / info.TotalSumOfSquares);
  EXPECT_NE(json.find(expected), std::string::npos) << expected << "\n" << json;
  EXPECT_NEAR(info.ResidualSumOfSquares, rss, 1e-9 * rss);
  EXPECT_NEAR(info.ChiSqr, rss, 1e-6 * rss); // unit sigma: chi-square is the residual sum
  EXPECT_GT(1.0 - rss / tss, 0.9);

  // The text: "name value error" with the precision asked for, then the statistics.
  const std::string& t = text->GetText();
  EXPECT_EQ(tool.GetReport(), t);
  char line[128];
  std::snprintf(line, sizeof line, "x0 %.8g %.8g\n", values[1], errors[1]);
  EXPECT_NE(t.find(line), std::string::npos) << line << "\n" << t;
  EXPECT_EQ(LineAfter(t, "Data Points /"), "DoF: " + std::to_string(n) + " / " + std::to_string(dof));
  EXPECT_EQ(LineAfter(t, "R^2:").empty(), false);
  char r2[32];
  std::snprintf(r2, sizeof r2, "%.8g", std::round((1.0 - rss / tss) * 100000.0) / 100000.0);
  EXPECT_EQ(LineAfter(t, "R^2:"), r2);
  EXPECT_EQ(LineAfter(t, "status").rfind("Fit Successful", 0), 0u) << t;
}

TEST_F(AdvancedFittingPointTest, FailedFitIsReportedNotThrownAndCurveFollowsTheFit) {
  TDGraph* graph = AddLorentzStack(3, 2);
  // A NaN inside the fit window of pixel (1, 0).
  std::vector<float> s(kLength);
  graph->GetSpectrum(1, 0, s.data());
  s[70] = std::numeric_limits<float>::quiet_NaN();
  graph->SetSpectrum(1, 0, s.data());
  TAdvancedFittingToolForm tool;
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText(
                      {"Function=Lorentz", "Fit Mask=40:120 px", "Pixel X=1", "Extract Fit Curves=true"})
                  .empty());
  TIntList ids = tool.RunNonInteractive(FProject, {graph->GetID()}, "Extract", false);
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_EQ(tool.GetNumberOfFailedFits(), 1);
  const std::string json = tool.GetReportJson();
  EXPECT_NE(json.find("{\"name\":\"x0\",\"value\":null,\"error\":null}"), std::string::npos) << json;
  EXPECT_NE(json.find("\"chi2\":null"), std::string::npos) << json;
  EXPECT_NE(json.find("\"status\":\"failed\""), std::string::npos) << json;
  auto* text = Result<TDText>(ids, "Map (Fit Lorentz: Pixel 1, 0)");
  ASSERT_NE(text, nullptr);
  EXPECT_NE(text->GetText().find("x0 -------- --------\n"), std::string::npos) << text->GetText();
  EXPECT_EQ(LineAfter(text->GetText(), "Chi^2 /"), "DoF: --------");
  auto* curve = Result<TDGraph>(ids, "Map (Fit Lorentz: Curve)");
  ASSERT_NE(curve, nullptr);
  EXPECT_EQ(curve->GetNumberOfSpectra(), 1);
  EXPECT_TRUE(std::isnan(curve->GetField(0, 0, 80)));

  // A good pixel: the curve is the fitted band on the input's points, everywhere on the axis.
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Pixel X=2", "Pixel Y=1"}).empty());
  ids = tool.RunNonInteractive(FProject, {graph->GetID()}, "Extract", false);
  curve = Result<TDGraph>(ids, "Map (Fit Lorentz: Curve)");
  ASSERT_NE(curve, nullptr);
  ASSERT_EQ(curve->GetSizeGraph(), kLength);
  // The fitted parameters from the report: the curve is their model, close to the true band.
  const std::string json2 = tool.GetReportJson();
  auto valueOf = [&](const std::string& name) {
    const size_t at = json2.find("{\"name\":\"" + name + "\",\"value\":");
    return at == std::string::npos ? NAN : std::stod(json2.substr(at + name.size() + 19));
  };
  const TBand fitted{valueOf("y0"), valueOf("x0"), valueOf("w"), valueOf("A")};
  const TBand b = BandAt(2, 1);
  for (int g : {0, 50, 68, 76, 100, 159}) {
    EXPECT_NEAR(curve->GetField(0, 0, g), LorentzAt(fitted, g), 1e-4 * LorentzAt(fitted, g)) << g;
    EXPECT_NEAR(curve->GetField(0, 0, g), LorentzAt(b, g), 4.0) << g;
  }
}

TEST_F(AdvancedFittingPointTest, OneSpectrumGraphTakesThePointRouteAndStacksGiveImages) {
  TDGraph* single = AddLorentzStack(1, 1, "Single");
  TDGraph* map = AddLorentzStack(3, 2, "Map");
  TAdvancedFittingToolForm tool;
  ASSERT_TRUE(
      tool.Parameters().SetParameterValuesFromText({"Function=Lorentz", "Fit Mask=30:100 px"}).empty());
  const TIntList ids =
      tool.RunNonInteractive(FProject, {single->GetID(), map->GetID()}, "Extract All", false);
  // One text for the single spectrum; four values, four errors, chi-square and fail mask for the map.
  ASSERT_EQ(ids.size(), 1u + 10u);
  ASSERT_NE(Result<TDText>(ids, "Single (Fit Lorentz: Pixel 0, 0)"), nullptr);
  EXPECT_EQ(Result<TDImage>(ids, "Single (Fit Lorentz: x0)"), nullptr);
  auto* center = Result<TDImage>(ids, "Map (Fit Lorentz: x0)");
  ASSERT_NE(center, nullptr);
  EXPECT_NEAR(center->GetField(2, 1), BandAt(2, 1).Center, 0.1);
  // The JSON of the one fitted spectrum is an object, and it names the band of the single spectrum.
  EXPECT_EQ(tool.GetReportJson().front(), '{');
  EXPECT_NE(tool.GetReport().find("Single"), std::string::npos);
  EXPECT_NE(tool.GetReport().find("Map: 6 spectra fitted with Lorentz"), std::string::npos)
      << tool.GetReport();
}

TEST_F(AdvancedFittingPointTest, PixelOutsideOrEmptyMaskRefusedAndNothingAdded) {
  TDGraph* graph = AddLorentzStack(3, 2);
  const size_t before = ObjectCount();
  const struct {
    std::vector<std::string> Set;
    std::string Needle;
  } cases[] = {
      {{"Pixel X=3"}, "Pixel X 3, Pixel Y 0 lie outside"},
      {{"Pixel Y=2"}, "Pixel X 0, Pixel Y 2 lie outside"},
      {{"Fit Mask=none"}, "Fit mask is empty"},
      {{"Fit Mask=10:12 px"}, "3 fit points are fewer than the 4 varied parameters"},
  };
  for (const auto& c : cases) {
    TAdvancedFittingToolForm tool;
    ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Function=Lorentz"}).empty());
    ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText(c.Set).empty()) << c.Set.front();
    try {
      tool.RunNonInteractive(FProject, {graph->GetID()}, "Extract", false);
      ADD_FAILURE() << c.Set.front() << " was taken";
    } catch (const std::exception& e) {
      EXPECT_NE(std::string(e.what()).find(c.Needle), std::string::npos) << e.what();
      EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos) << e.what();
    }
    EXPECT_EQ(ObjectCount(), before) << c.Set.front();
  }
}

TEST(AdvancedFitPointText, NumbersAtThePrecisionAndJsonEscaped) {
  TAdvancedFitPointResult r;
  r.FitOK = true;
  r.Message = "Fit \"Successful\" (3 Iterations)";
  r.Values = {1.0 / 3.0, 1234567.891};
  r.Errors = {0.000123456789, 2.5};
  r.ChiSqr = 12.3456789;
  r.DataPoints = 10;
  r.DegreesOfFreedom = 8;
  r.ChiSqrPerDoF = r.ChiSqr / 8;
  r.AverageError = 0.5;
  r.RSquared = 0.987654321;
  const std::string text = FormatAdvancedFitPointResult({"a", "b"}, r, 4);
  EXPECT_EQ(text, "a 0.3333 0.0001235\n"
                  "b 1.235e+06 2.5\n"
                  "chi2 12.35\n"
                  "Chi^2 / DoF: 1.543\n"
                  "Data Points / DoF: 10 / 8\n"
                  "Average Error: 0.5\n"
                  "R^2: 0.9877\n"
                  "status Fit \"Successful\" (3 Iterations)\n");
  const std::string json = AdvancedFitPointResultJson({"a\\b", "b"}, r);
  EXPECT_EQ(json, "{\"parameters\":[{\"name\":\"a\\\\b\",\"value\":0.33333333333333331,\"error\":"
                  "0.000123456789},{\"name\":\"b\",\"value\":1234567.8910000001,\"error\":2.5}],"
                  "\"chi2\":12.345678899999999,\"chi2PerDoF\":1.5432098624999999,\"points\":10,\"dof\":8,"
                  "\"averageError\":0.5,\"r2\":0.98765432099999995,\"status\":\"ok\",\"message\":"
                  "\"Fit \\\"Successful\\\" (3 Iterations)\"}");
  // Without degrees of freedom the ratio is not given.
  r.DegreesOfFreedom = 0;
  r.ChiSqrPerDoF = std::numeric_limits<double>::quiet_NaN();
  EXPECT_NE(FormatAdvancedFitPointResult({"a", "b"}, r, 6).find("Chi^2 / DoF: --------\n"),
            std::string::npos);
  EXPECT_NE(AdvancedFitPointResultJson({"a", "b"}, r).find("\"chi2PerDoF\":null"), std::string::npos);
}

} // namespace
