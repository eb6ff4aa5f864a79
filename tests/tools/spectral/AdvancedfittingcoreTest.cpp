// Whole-stack fitting: mask reduction, recovery of known parameters from synthetic Gauss stacks, failures,
// thread-count invariance, cancel, refusals, sorting of composite functions, curves and the single spectrum.
#include "tools/spectral/Advancedfittingcore.h"

#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestProgress.h"
#include "support/TestSupport.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include <gtest/gtest.h>

namespace {

constexpr int kLength = 240;

double AxisAt(int g) {
  return 100.0 + 0.5 * g;
}

// True parameters of pixel (x, y): a Gauss on an offset, all four varying over the map.
struct TTruth {
  double Offset, Center, Sigma, Amp;
};
TTruth TruthAt(int x, int y) {
  return {10.0 + 0.5 * y, 140.0 + 2.5 * x, 3.0 + 0.25 * y, 100.0 + 7.0 * x + 3.0 * y};
}

class AdvancedFittingCoreTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
  }

  // A graph of Gauss spectra with the truth above plus seeded normal noise of deviation noise.
  TDGraph* AddGaussStack(int sx, int sy, double noise, unsigned seed = 7) {
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(FProject.GetNewDataID());
    graph->SetCaption("Stack");
    graph->SetFieldSize(sx, sy, TDataFieldKind::Float, kLength);
    std::mt19937 gen(seed);
    std::normal_distribution<double> n(0.0, noise > 0 ? noise : 1.0);
    std::vector<float> s(kLength);
    for (int y = 0; y < sy; ++y) {
      for (int x = 0; x < sx; ++x) {
        const TTruth t = TruthAt(x, y);
        for (int g = 0; g < kLength; ++g) {
          const double d = (AxisAt(g) - t.Center) / t.Sigma;
          s[g] = static_cast<float>(t.Offset + t.Amp * std::exp(-0.5 * d * d) + (noise > 0 ? n(gen) : 0.0));
        }
        graph->SetSpectrum(x, y, s.data());
      }
      graph->SetLineValid(y, true);
    }
    TDGraph* raw = graph.get();
    FProject.AddData(std::move(graph));
    return raw;
  }

  void SetUpGauss(TAdvancedFittingCore& core) {
    core.SetFunction(std::make_unique<TNLFitGauss>());
    SetUpAxisOnly(core);
  }

  static void SetUpAxisOnly(TAdvancedFittingCore& core) {
    std::vector<double> axis(kLength);
    for (int g = 0; g < kLength; ++g) axis[g] = AxisAt(g);
    core.SetAxis(axis);
  }

  // The image whose caption ends with suffix, null when none.
  static TDImage* Find(const std::vector<std::unique_ptr<TDImage>>& images, const std::string& caption) {
    for (const auto& i : images)
      if (i->GetCaption() == caption) return i.get();
    return nullptr;
  }

  size_t ObjectCount() const { return FProject.GetIDListOfAllData().size(); }

  TProject FProject;
};

TEST(AdvancedFitMask, ReductionKeepsFirstPointOfEachRunAndEveryKth) {
  const std::vector<bool> mask = {false, true, true, true, true, true, false, true, true, false, true};
  EXPECT_EQ(CalculateReducedMask(mask, 1), mask);
  const std::vector<bool> by2 = {false, true, false, true, false, true, false, true, false, false, true};
  EXPECT_EQ(CalculateReducedMask(mask, 2), by2);
  const std::vector<bool> by3 = {false, true, false, false, true, false, false, true, false, false, true};
  EXPECT_EQ(CalculateReducedMask(mask, 3), by3);
  // Out-of-range reductions are clamped: 0 acts as 1, a huge one keeps only the run starts.
  EXPECT_EQ(CalculateReducedMask(mask, 0), mask);
  EXPECT_EQ(MaskPointIndices(CalculateReducedMask(mask, 1000000)), (std::vector<int>{1, 7, 10}));
  EXPECT_TRUE(MaskPointIndices(CalculateReducedMask(std::vector<bool>(5, false), 2)).empty());
}

TEST_F(AdvancedFittingCoreTest, NoiselessStackGivesTheTrueParametersInImagesWithCaptions) {
  const int sx = 7, sy = 5;
  TDGraph* graph = AddGaussStack(sx, sy, 0.0);
  TAdvancedFittingCore core;
  SetUpGauss(core);
  std::string message;
  ASSERT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done) << message;
  EXPECT_EQ(core.GetNumberOfFailedFits(), 0);
  TAdvancedFitStatus status;
  const size_t before = ObjectCount();
  auto images = core.MultiCoreFillImages(FProject, graph->GetID(), status);
  ASSERT_EQ(status, TAdvancedFitStatus::Done);
  EXPECT_EQ(images.size(), 4u + 4u + 2u); // values, errors, chi-square, fail mask
  EXPECT_EQ(ObjectCount(), before);       // made, not added

  TDImage* center = Find(images, "Stack (Fit Gauss: x0)");
  TDImage* sigma = Find(images, "Stack (Fit Gauss: s)");
  TDImage* amp = Find(images, "Stack (Fit Gauss: Amp)");
  TDImage* offset = Find(images, "Stack (Fit Gauss: y0)");
  TDImage* centerError = Find(images, "Stack (Fit Gauss: x0 Error)");
  TDImage* chi = Find(images, "Stack (Fit Gauss: Chi^2)");
  TDImage* fail = Find(images, "Stack (Fit Gauss: Fit Fail Mask)");
  ASSERT_TRUE(center && sigma && amp && offset && centerError && chi && fail);
  EXPECT_EQ(center->GetSizeX(), sx);
  EXPECT_EQ(center->GetSizeY(), sy);
  for (int y = 0; y < sy; ++y) {
    EXPECT_TRUE(center->GetLineValid(y));
    for (int x = 0; x < sx; ++x) {
      const TTruth t = TruthAt(x, y);
      // The data are floats: the fit can't be closer than their rounding allows.
      EXPECT_NEAR(center->GetField(x, y), t.Center, 1e-4 * t.Center);
      EXPECT_NEAR(sigma->GetField(x, y), t.Sigma, 1e-4 * t.Sigma);
      EXPECT_NEAR(amp->GetField(x, y), t.Amp, 1e-4 * t.Amp);
      EXPECT_NEAR(offset->GetField(x, y), t.Offset, 1e-3);
      EXPECT_GE(centerError->GetField(x, y), 0.0f);
      EXPECT_LT(centerError->GetField(x, y), 1e-3f);
      EXPECT_LT(chi->GetField(x, y), 1e-6f);
      EXPECT_EQ(fail->GetField(x, y), 0.0f);
    }
  }
}

TEST_F(AdvancedFittingCoreTest, NoisyStackAgreesWithTheTruthWithinTheReportedErrors) {
  const int sx = 12, sy = 10;
  const double noise = 2.0;
  TDGraph* graph = AddGaussStack(sx, sy, noise, 99);
  TAdvancedFittingCore core;
  SetUpGauss(core);
  std::string message;
  ASSERT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done) << message;
  const TAdvancedFitResultArrays& r = *core.GetResults();
  double sumPull2 = 0, worst = 0, sumChi = 0;
  for (int e = 0; e < sx * sy; ++e) {
    ASSERT_TRUE(r.FitGood.GetValue(e));
    const TTruth t = TruthAt(e % sx, e / sx);
    const double truth[4] = {t.Offset, t.Center, t.Sigma, t.Amp};
    for (int p = 0; p < 4; ++p) {
      const double err = r.TransformedErrors.GetValue(p, e);
      ASSERT_GT(err, 0.0);
      const double pull = (r.TransformedValues.GetValue(p, e) - truth[p]) / err;
      sumPull2 += pull * pull;
      worst = std::max(worst, std::fabs(pull));
    }
    sumChi += r.ErrorInfo.GetValue(e).ChiSqr;
  }
  // The errors describe the scatter: about one in root mean square, no pixel far out.
  const double rmsPull = std::sqrt(sumPull2 / (4.0 * sx * sy));
  EXPECT_GT(rmsPull, 0.7);
  EXPECT_LT(rmsPull, 1.3);
  EXPECT_LT(worst, 5.0);
  // Chi-square with unit weights is the residual sum: points times the noise variance, on average.
  EXPECT_NEAR(sumChi / (sx * sy) / (kLength - 4), noise * noise, 0.15 * noise * noise);
}

TEST_F(AdvancedFittingCoreTest, FailuresAndInvalidLinesAreFilledAndNeverStopTheRun) {
  const int sx = 5, sy = 4;
  TDGraph* graph = AddGaussStack(sx, sy, 0.0);
  std::vector<float> s(kLength);
  graph->GetSpectrum(2, 1, s.data());
  s[100] = std::numeric_limits<float>::quiet_NaN(); // inside the mask: no fit attempt
  graph->SetSpectrum(2, 1, s.data());
  graph->GetSpectrum(4, 0, s.data());
  s[5] = std::numeric_limits<float>::infinity(); // outside the mask: no harm
  graph->SetSpectrum(4, 0, s.data());
  graph->SetLineValid(3, false);

  TAdvancedFittingCore core;
  SetUpGauss(core);
  std::vector<bool> mask(kLength, false);
  std::fill(mask.begin() + 20, mask.end() - 20, true);
  core.SetFitMask(mask);
  core.Rows()[core.FindRow("x0")].ValueIfFitFails = -7.0;
  std::string message;
  ASSERT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done) << message;
  EXPECT_EQ(core.GetNumberOfFailedFits(), 1 + sx);
  TAdvancedFitStatus status;
  auto images = core.MultiCoreFillImages(FProject, graph->GetID(), status);
  ASSERT_EQ(status, TAdvancedFitStatus::Done);
  TDImage* center = Find(images, "Stack (Fit Gauss: x0)");
  TDImage* amp = Find(images, "Stack (Fit Gauss: Amp)");
  TDImage* ampError = Find(images, "Stack (Fit Gauss: Amp Error)");
  TDImage* chi = Find(images, "Stack (Fit Gauss: Chi^2)");
  TDImage* fail = Find(images, "Stack (Fit Gauss: Fit Fail Mask)");
  ASSERT_TRUE(center && amp && ampError && chi && fail);

  EXPECT_EQ(center->GetField(2, 1), -7.0f);
  EXPECT_TRUE(std::isnan(amp->GetField(2, 1))); // the default for failures
  EXPECT_EQ(ampError->GetField(2, 1), -1.0f);
  EXPECT_TRUE(std::isnan(chi->GetField(2, 1)));
  EXPECT_EQ(fail->GetField(2, 1), 1.0f);
  EXPECT_NEAR(center->GetField(4, 0), TruthAt(4, 0).Center, 1e-2);
  EXPECT_EQ(fail->GetField(4, 0), 0.0f);
  EXPECT_NEAR(center->GetField(3, 1), TruthAt(3, 1).Center, 1e-2); // the neighbour of the failure is fitted
  // The invalid line: invalid in every image, its pixels failed.
  for (const auto& image : images) {
    EXPECT_FALSE(image->GetLineValid(3)) << image->GetCaption();
    EXPECT_TRUE(image->GetLineValid(2)) << image->GetCaption();
  }
  for (int x = 0; x < sx; ++x) EXPECT_EQ(fail->GetFastField(x, 3), 1.0f);
  EXPECT_EQ(center->GetFastField(0, 3), -7.0f);
}

TEST_F(AdvancedFittingCoreTest, IterationLimitCountsAsFailure) {
  TDGraph* graph = AddGaussStack(3, 2, 1.0);
  TAdvancedFittingCore core;
  SetUpGauss(core);
  static_cast<TNLFitFunction*>(core.GetFunction())->MaxIterations = 1;
  std::string message;
  ASSERT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done) << message;
  EXPECT_EQ(core.GetNumberOfFailedFits(), 6);
  EXPECT_EQ(core.GetLastStatusMessage(), "Fit Warning (Max. # of Iterations reached)");
  EXPECT_EQ(core.GetResults()->Values.GetValue(1, 3), 0.0); // failed spectra leave zeros behind
}

TEST_F(AdvancedFittingCoreTest, OneAndTwoThreadsGiveIdenticalBytes) {
  const int sx = 9, sy = 7; // 63 spectra: not divisible by the thread count
  TDGraph* graph = AddGaussStack(sx, sy, 3.0, 5);
  std::vector<float> s(kLength);
  graph->GetSpectrum(4, 4, s.data());
  s[120] = std::numeric_limits<float>::quiet_NaN();
  graph->SetSpectrum(4, 4, s.data());

  auto run = [&](int threads, std::vector<double>& values, std::vector<double>& errors,
                 std::vector<TFitFunctionErrorInfo>& infos, std::vector<float>& pixels) {
    TAdvancedFittingCore core;
    SetUpGauss(core);
    core.NumberOfThreads = threads;
    core.DataReduction = 2;
    std::string message;
    ASSERT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done) << message;
    const TAdvancedFitResultArrays& r = *core.GetResults();
    values.resize(r.Values.GetNumberOfElements());
    errors.resize(values.size());
    infos.resize(r.ErrorInfo.GetNumberOfElements());
    r.TransformedValues.GetValueArray(0, values.data(), values.size());
    r.TransformedErrors.GetValueArray(0, errors.data(), errors.size());
    r.ErrorInfo.GetValueArray(0, infos.data(), infos.size());
    TAdvancedFitStatus status;
    auto images = core.MultiCoreFillImages(FProject, graph->GetID(), status);
    ASSERT_EQ(status, TAdvancedFitStatus::Done);
    pixels.clear();
    std::vector<float> line(sx);
    for (const auto& image : images)
      for (int y = 0; y < sy; ++y) {
        image->GetFastLine(y, line.data());
        pixels.insert(pixels.end(), line.begin(), line.end());
      }
  };
  std::vector<double> v1, e1, v2, e2;
  std::vector<TFitFunctionErrorInfo> i1, i2;
  std::vector<float> p1, p2;
  run(1, v1, e1, i1, p1);
  run(2, v2, e2, i2, p2);
  ASSERT_EQ(v1.size(), v2.size());
  ASSERT_EQ(p1.size(), p2.size());
  EXPECT_EQ(std::memcmp(v1.data(), v2.data(), v1.size() * sizeof(double)), 0);
  EXPECT_EQ(std::memcmp(e1.data(), e2.data(), e1.size() * sizeof(double)), 0);
  ASSERT_EQ(i1.size(), i2.size());
  for (size_t e = 0; e < i1.size(); ++e) { // field by field: the record has padding
    EXPECT_EQ(i1[e].FitOK, i2[e].FitOK);
    EXPECT_EQ(i1[e].EstimateOK, i2[e].EstimateOK);
    EXPECT_EQ(std::memcmp(&i1[e].ChiSqr, &i2[e].ChiSqr, sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(&i1[e].ResidualSumOfSquares, &i2[e].ResidualSumOfSquares, sizeof(double)), 0);
  }
  EXPECT_FALSE(i1[4 + 4 * sx].FitOK);
  EXPECT_EQ(std::memcmp(p1.data(), p2.data(), p1.size() * sizeof(float)), 0);
}

TEST_F(AdvancedFittingCoreTest, CancelledRunKeepsNoResultAndAddsNothing) {
  TDGraph* graph = AddGaussStack(8, 8, 1.0);
  TAdvancedFittingCore core;
  SetUpGauss(core);
  core.ExtractFitCurves = true;
  core.NumberOfThreads = 2;
  oxtest::TRecordingProgress cancel(10); // cancels after ten spectra were asked about
  core.ExternalCancel = &cancel;
  const size_t before = ObjectCount();
  std::string message;
  EXPECT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Cancelled);
  EXPECT_EQ(core.GetResults(), nullptr);
  TAdvancedFitStatus status;
  EXPECT_TRUE(core.MultiCoreFillImages(FProject, graph->GetID(), status).empty());
  EXPECT_EQ(status, TAdvancedFitStatus::Cancelled);
  EXPECT_TRUE(core.MultiCoreExtractFitCurve(FProject, graph->GetID(), status).empty());
  EXPECT_EQ(ObjectCount(), before);
  EXPECT_LT(cancel.Questions(), 64 + 2); // stopped early, not after every spectrum
  // The same core runs to the end once the cancel is gone.
  core.ExternalCancel = nullptr;
  EXPECT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done);
  // A cancel while the images or the curves are made drops them, and keeps the fit results.
  oxtest::TRecordingProgress late(3);
  core.ExternalCancel = &late;
  EXPECT_TRUE(core.MultiCoreFillImages(FProject, graph->GetID(), status).empty());
  EXPECT_EQ(status, TAdvancedFitStatus::Cancelled);
  EXPECT_TRUE(core.MultiCoreExtractFitCurve(FProject, graph->GetID(), status).empty());
  EXPECT_EQ(status, TAdvancedFitStatus::Cancelled);
  EXPECT_EQ(ObjectCount(), before);
  ASSERT_NE(core.GetResults(), nullptr);
  core.ExternalCancel = nullptr;
  EXPECT_EQ(core.MultiCoreFillImages(FProject, graph->GetID(), status).size(), 10u);
  EXPECT_EQ(status, TAdvancedFitStatus::Done);
}

TEST_F(AdvancedFittingCoreTest, RefusalsNameTheirCause) {
  TDGraph* graph = AddGaussStack(3, 3, 0.0);
  TAdvancedFittingCore core;
  SetUpGauss(core);
  std::string message;

  core.SetFitMask(std::vector<bool>(kLength, false));
  EXPECT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Refused);
  EXPECT_EQ(message, "Error: Fit mask is empty !");

  std::vector<bool> three(kLength, false);
  three[100] = three[101] = three[102] = true; // three points, four varied parameters
  core.SetFitMask(three);
  EXPECT_FALSE((core.CalculateReducedMask(), core.IsMaskSizeBigEnough()));
  EXPECT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Refused);
  EXPECT_NE(message.find("fewer than the 4 varied"), std::string::npos) << message;
  core.Rows()[core.FindRow("y0")].Vary = false; // three varied parameters fit three points
  EXPECT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done) << message;

  core.SetFitMask(std::vector<bool>(kLength, true));
  auto& width = core.Rows()[core.FindRow("s")];
  width.HasUpperLimit = true;
  width.UpperLimit = 0.5 * width.LowerLimit;
  EXPECT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Refused);
  EXPECT_EQ(message, "Parameter s: Lower Limit is above Upper Limit");
  EXPECT_EQ(core.GetResults(), nullptr);

  core.SetFitMask(std::vector<bool>(kLength - 1, true));
  EXPECT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Refused);

  std::string memory;
  EXPECT_FALSE(core.IsEnoughMemoryAvailableForExtractImage(1000000, 1024, 8 * 1048576, memory));
  EXPECT_EQ(memory, "Not enough memory for the fit results (223 MB needed, 8 MB available)");
  EXPECT_TRUE(core.IsEnoughMemoryAvailableForExtractImage(100, 1024, 8 * 1048576, memory));
}

TEST_F(AdvancedFittingCoreTest, ResultsAndMemoryEstimateFollowTheExtractOptions) {
  TAdvancedFittingCore core;
  SetUpGauss(core);
  const int64_t all = core.EstimateResultBytes(1000, 100);
  EXPECT_EQ(all, TAdvancedFitResultArrays::BytesNeeded(1000, 4) + 10 * 1000 * 4);
  core.ExtractFitCurves = true;
  EXPECT_EQ(core.EstimateResultBytes(1000, 100), all + 1000 * 100 * 4);
  core.ExtractFitCurves = false;
  core.ExtractChiSqr = false;
  for (auto& row : core.Rows()) row.ExtractError = false;
  core.Rows()[0].ExtractValue = false;

  TDGraph* graph = AddGaussStack(4, 3, 0.0);
  std::string message;
  ASSERT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done);
  TAdvancedFitStatus status;
  auto images = core.MultiCoreFillImages(FProject, graph->GetID(), status);
  std::vector<std::string> captions;
  for (const auto& i : images) captions.push_back(i->GetCaption());
  EXPECT_EQ(captions,
            (std::vector<std::string>{"Stack (Fit Gauss: x0)", "Stack (Fit Gauss: s)",
                                      "Stack (Fit Gauss: Amp)", "Stack (Fit Gauss: Fit Fail Mask)"}));
}

TEST_F(AdvancedFittingCoreTest, UserFormAndSortingOfATwoGaussFunction) {
  // Two Gauss peaks per spectrum; the start values name them in reverse order of their centres.
  auto graph = std::make_unique<TDGraph>();
  graph->SetID(FProject.GetNewDataID());
  graph->SetCaption("Pair");
  graph->SetFieldSize(3, 2, TDataFieldKind::Float, kLength);
  std::vector<float> s(kLength);
  for (int e = 0; e < 6; ++e) {
    for (int g = 0; g < kLength; ++g) {
      const double a = (AxisAt(g) - 130.0) / 4.0, b = (AxisAt(g) - 180.0 - e) / 6.0;
      s[g] = static_cast<float>(5.0 + 200.0 * std::exp(-0.5 * a * a) + (80.0 + e) * std::exp(-0.5 * b * b));
    }
    graph->SetSpectrumOfElement(e, s.data());
  }
  graph->SetAllLinesValid();
  TDGraph* raw = graph.get();
  FProject.AddData(std::move(graph));

  auto function = std::make_unique<TNLFitGauss>();
  function->NumberOfFunctions = 2;
  function->WidthKind = 2; // FWHM in the user form
  function->SortKind = 1;  // by centre
  function->CreateParameters();
  TAdvancedFittingCore core;
  core.SetFunction(std::move(function));
  std::vector<double> axis(kLength);
  for (int g = 0; g < kLength; ++g) axis[g] = AxisAt(g);
  core.SetAxis(axis);
  auto set = [&](const std::string& name, double start) {
    const int row = core.FindRow(name);
    ASSERT_GE(row, 0) << name;
    core.Rows()[row].StartValue = start;
  };
  set("x0_0", 178.0);
  set("s_0", 5.0);
  set("Amp_0", 90.0);
  set("x0_1", 131.0);
  set("s_1", 3.0);
  set("Amp_1", 150.0);
  std::string message;
  ASSERT_EQ(core.FitAll(*raw, message), TAdvancedFitStatus::Done) << message;
  const TAdvancedFitResultArrays& r = *core.GetResults();
  const double fwhm = 2.0 * std::sqrt(2.0 * std::log(2.0));
  for (int e = 0; e < 6; ++e) {
    ASSERT_TRUE(r.FitGood.GetValue(e));
    EXPECT_NEAR(r.Values.GetValue(1, e), 180.0 + e, 1e-3); // native: in the order of the start values
    EXPECT_NEAR(r.TransformedValues.GetValue(1, e), 130.0, 1e-3);
    EXPECT_NEAR(r.TransformedValues.GetValue(2, e), 4.0 * fwhm, 1e-3);
    EXPECT_NEAR(r.TransformedValues.GetValue(3, e), 200.0, 1e-2);
    EXPECT_NEAR(r.TransformedValues.GetValue(4, e), 180.0 + e, 1e-3);
    EXPECT_NEAR(r.TransformedValues.GetValue(5, e), 6.0 * fwhm, 1e-3);
    EXPECT_NEAR(r.TransformedErrors.GetValue(2, e), fwhm * r.Errors.GetValue(5, e), 1e-12);
  }
  // The run's threads transformed and sorted their results; the separate pass gives the same bytes.
  const size_t entries = static_cast<size_t>(r.Spectra) * static_cast<size_t>(r.Parameters);
  std::vector<double> fusedValues(entries), fusedErrors(entries), values(entries), errors(entries);
  r.TransformedValues.GetValueArray(0, fusedValues.data(), entries);
  r.TransformedErrors.GetValueArray(0, fusedErrors.data(), entries);
  core.CopyTransformSortResults(true, true);
  ASSERT_NE(core.GetResults(), nullptr);
  core.GetResults()->TransformedValues.GetValueArray(0, values.data(), entries);
  core.GetResults()->TransformedErrors.GetValueArray(0, errors.data(), entries);
  EXPECT_EQ(fusedValues, values);
  EXPECT_EQ(fusedErrors, errors);

  TAdvancedFitStatus status;
  auto images = core.MultiCoreFillImages(FProject, raw->GetID(), status);
  TDImage* fwhmImage = Find(images, "Pair (Fit Gauss: FWHM_0)");
  ASSERT_NE(fwhmImage, nullptr);
  // Line statistics made by the filling threads equal a fresh pass over the finished image.
  const double average = fwhmImage->GetAverage(), deviation = fwhmImage->GetDeviation();
  EXPECT_NEAR(average, 4.0 * fwhm, 1e-3);
  fwhmImage->CalculateLineInformationForAllValidLines();
  EXPECT_EQ(fwhmImage->GetAverage(), average);
  EXPECT_EQ(fwhmImage->GetDeviation(), deviation);

  // The curves of the parts: each is the offset plus one peak, so together they give the whole curve.
  core.ExtractFitCurves = true;
  core.ExtractReplica = true;
  auto curves = core.MultiCoreExtractFitCurve(FProject, raw->GetID(), status);
  ASSERT_EQ(status, TAdvancedFitStatus::Done);
  ASSERT_EQ(curves.size(), 3u);
  EXPECT_EQ(curves[1]->GetCaption(), "Pair (Fit Gauss: Curves Gauss Function 0)");
  EXPECT_EQ(curves[2]->GetCaption(), "Pair (Fit Gauss: Curves Gauss Function 1)");
  std::vector<float> whole(kLength), part0(kLength), part1(kLength), data(kLength);
  curves[0]->GetSpectrumOfElement(4, whole.data());
  curves[1]->GetSpectrumOfElement(4, part0.data());
  curves[2]->GetSpectrumOfElement(4, part1.data());
  raw->GetSpectrumOfElement(4, data.data());
  const double y0 = r.Values.GetValue(0, 4);
  for (int g = 0; g < kLength; g += 7) {
    EXPECT_NEAR(whole[g], part0[g] + part1[g] - y0, 1e-3);
    EXPECT_NEAR(whole[g], data[g], 1e-2);
  }
  EXPECT_NEAR(part0[std::lround((184.0 - 100.0) / 0.5)], 5.0 + 84.0,
              0.1); // the part of the first start values
}

TEST_F(AdvancedFittingCoreTest, StartValuesComeFromEachSpectrumOrFromTheRow) {
  TDGraph* graph = AddGaussStack(4, 1, 0.0); // a line scan
  TAdvancedFittingCore core;
  SetUpGauss(core);
  auto& center = core.Rows()[core.FindRow("x0")];
  ASSERT_TRUE(center.Auto);
  std::string message;
  ASSERT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done);
  const double estimate0 = core.GetResults()->StartValues.GetValue(1, 0);
  const double estimate3 = core.GetResults()->StartValues.GetValue(1, 3);
  EXPECT_NEAR(estimate0, TruthAt(0, 0).Center, 2.0);
  EXPECT_NEAR(estimate3, TruthAt(3, 0).Center, 2.0);

  core.Rows()[core.FindRow("x0")].Auto = false;
  core.Rows()[core.FindRow("x0")].StartValue = 143.5;
  ASSERT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done);
  for (int e = 0; e < 4; ++e) {
    EXPECT_EQ(core.GetResults()->StartValues.GetValue(1, e), 143.5);
    EXPECT_NEAR(core.GetResults()->TransformedValues.GetValue(1, e), TruthAt(e, 0).Center, 1e-3);
  }
  TAdvancedFitStatus status;
  auto images = core.MultiCoreFillImages(FProject, graph->GetID(), status);
  ASSERT_FALSE(images.empty());
  EXPECT_EQ(images.front()->GetSizeX(), 4);
  EXPECT_EQ(images.front()->GetSizeY(), 1);
}

TEST_F(AdvancedFittingCoreTest, FitCurvesFollowTheModelAndReplicasItsParts) {
  TDGraph* graph = AddGaussStack(3, 2, 0.0);
  graph->SetLineValid(1, false);
  TAdvancedFittingCore core;
  SetUpGauss(core);
  core.ExtractFitCurves = true;
  core.ExtractReplica = true; // one Gauss has no parts: only the whole curve
  std::string message;
  ASSERT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done);
  TAdvancedFitStatus status;
  auto curves = core.MultiCoreExtractFitCurve(FProject, graph->GetID(), status);
  ASSERT_EQ(status, TAdvancedFitStatus::Done);
  ASSERT_EQ(curves.size(), 1u);
  EXPECT_EQ(curves[0]->GetCaption(), "Stack (Fit Gauss: Curves)");
  EXPECT_EQ(curves[0]->GetSizeGraph(), kLength);
  std::vector<float> data(kLength), fitted(kLength);
  graph->GetSpectrum(2, 0, data.data());
  curves[0]->GetSpectrum(2, 0, fitted.data());
  for (int g = 0; g < kLength; ++g) EXPECT_NEAR(fitted[g], data[g], 1e-3 * (1.0 + std::fabs(data[g])));
  EXPECT_FALSE(curves[0]->GetLineValid(1));
  curves[0]->GetSpectrum(0, 1, fitted.data(), true);
  EXPECT_TRUE(std::isnan(fitted[0]));
}

TEST_F(AdvancedFittingCoreTest, SingleSpectrumMatchesTheStackRunAndGivesItsStatistics) {
  TDGraph* graph = AddGaussStack(3, 3, 1.5, 11);
  TAdvancedFittingCore core;
  SetUpGauss(core);
  core.DataReduction = 3;
  std::string message;
  ASSERT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done);
  EXPECT_EQ(core.GetNumberOfFitPoints(), kLength / 3);
  TAdvancedFitPointResult point;
  ASSERT_EQ(core.FitSpectrum(*graph, 5, point, message), TAdvancedFitStatus::Done) << message;
  ASSERT_TRUE(point.FitOK) << point.Message;
  for (int p = 0; p < 4; ++p) {
    EXPECT_EQ(point.Values[p], core.GetResults()->TransformedValues.GetValue(p, 5));
    EXPECT_EQ(point.Errors[p], core.GetResults()->TransformedErrors.GetValue(p, 5));
  }
  EXPECT_EQ(point.DataPoints, kLength / 3);
  EXPECT_EQ(point.DegreesOfFreedom, kLength / 3 - 4);
  EXPECT_DOUBLE_EQ(point.ChiSqrPerDoF, point.ChiSqr / point.DegreesOfFreedom);
  EXPECT_DOUBLE_EQ(point.ChiSqr, point.ResidualSumOfSquares); // unit weights
  EXPECT_NEAR(point.AverageError, 1.5, 0.3);
  EXPECT_GT(point.RSquared, 0.99);
  EXPECT_LT(point.RSquared, 1.0);
  EXPECT_EQ(core.FitSpectrum(*graph, 9, point, message), TAdvancedFitStatus::Refused);
}

TEST(AdvancedFitStatistics, TextsOfTheStatisticsLines) {
  TAdvancedFitPointResult r;
  r.FitOK = true;
  r.DataPoints = 80;
  r.DegreesOfFreedom = 76;
  r.ChiSqrPerDoF = 2.3456789;
  r.AverageError = 1.5;
  r.RSquared = 0.9876543;
  auto lines = AdvancedFitStatisticsText(r, 3);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], std::make_pair(std::string("Chi^2 / DoF:"), std::string("2.35")));
  EXPECT_EQ(AdvancedFitStatisticsText(r, 6)[0].second, "2.34568");
  EXPECT_EQ(lines[1].second, "80 / 76");
  EXPECT_EQ(lines[2].second, "1.5");
  EXPECT_EQ(lines[3], std::make_pair(std::string("R^2:"), std::string("0.988")));
  EXPECT_EQ(AdvancedFitStatisticsText(r, 6)[3].second, "0.98765");
  r.DegreesOfFreedom = 0; // as many varied parameters as points
  EXPECT_EQ(AdvancedFitStatisticsText(r, 6)[0].second, "--------");
  r.FitOK = false;
  EXPECT_EQ(AdvancedFitStatisticsText(r, 6)[2].second, "--------");
}

TEST_F(AdvancedFittingCoreTest, FormulaFunctionOnTwoThreadsMatchesOneThread) {
  // The formula's parser is shared by the threads, each with its own argument block.
  TDGraph* graph = AddGaussStack(5, 3, 1.0, 3);
  auto run = [&](int threads) {
    auto formula = std::make_unique<TNLFitUserDefined>();
    formula->NumberOfParams = 4;
    formula->FitFunctionString = "x2 + x5 * exp(-0.5 * ((x1 - x3) / x4) ^ 2)";
    formula->CreateParameters();
    EXPECT_TRUE(formula->UserFitFunctionChanged());
    TAdvancedFittingCore core;
    core.SetFunction(std::move(formula));
    SetUpAxisOnly(core);
    const double start[4] = {12.0, 145.0, 3.5, 130.0};
    for (int p = 0; p < 4; ++p) core.Rows()[p].StartValue = start[p];
    core.NumberOfThreads = threads;
    std::string message;
    EXPECT_EQ(core.FitAll(*graph, message), TAdvancedFitStatus::Done) << message;
    std::vector<double> values(4 * 15);
    if (core.GetResults())
      core.GetResults()->TransformedValues.GetValueArray(0, values.data(), values.size());
    EXPECT_EQ(core.GetNumberOfFailedFits(), 0);
    return values;
  };
  const std::vector<double> one = run(1), two = run(2);
  EXPECT_EQ(std::memcmp(one.data(), two.data(), one.size() * sizeof(double)), 0);
  EXPECT_NEAR(one[4 * 7 + 1], TruthAt(2, 1).Center, 0.1);
  EXPECT_NEAR(one[4 * 7 + 3], TruthAt(2, 1).Amp, 3.0);
}

TEST_F(AdvancedFittingCoreTest, LorentzScatterOverPixelsMatchesTheReportedErrors) {
  // One Lorentzian everywhere, independent noise per pixel: the spread of the fitted values over the map
  // is what the errors of the single fits say.
  const int sx = 16, sy = 16;
  const double x0 = 160.0, w = 8.0, area = 3000.0, offset = 20.0, noise = 3.0;
  auto graph = std::make_unique<TDGraph>();
  graph->SetID(FProject.GetNewDataID());
  graph->SetFieldSize(sx, sy, TDataFieldKind::Float, kLength);
  std::mt19937 gen(4242);
  std::normal_distribution<double> n(0.0, noise);
  std::vector<float> s(kLength);
  for (int e = 0; e < sx * sy; ++e) {
    for (int g = 0; g < kLength; ++g) {
      const double d = AxisAt(g) - x0;
      s[g] = static_cast<float>(offset + 2.0 * area / std::acos(-1.0) * w / (4.0 * d * d + w * w) + n(gen));
    }
    graph->SetSpectrumOfElement(e, s.data());
  }
  graph->SetAllLinesValid();
  TDGraph* raw = graph.get();
  FProject.AddData(std::move(graph));

  TAdvancedFittingCore core;
  core.SetFunction(std::make_unique<TNLFitLorentz>());
  SetUpAxisOnly(core);
  std::string message;
  ASSERT_EQ(core.FitAll(*raw, message), TAdvancedFitStatus::Done) << message;
  ASSERT_EQ(core.GetNumberOfFailedFits(), 0);
  const TAdvancedFitResultArrays& r = *core.GetResults();
  const int count = sx * sy;
  for (int p = 0; p < 4; ++p) {
    double mean = 0;
    std::vector<double> errors;
    for (int e = 0; e < count; ++e) {
      mean += r.TransformedValues.GetValue(p, e);
      errors.push_back(r.TransformedErrors.GetValue(p, e));
    }
    mean /= count;
    double scatter = 0;
    for (int e = 0; e < count; ++e) scatter += std::pow(r.TransformedValues.GetValue(p, e) - mean, 2);
    scatter = std::sqrt(scatter / (count - 1));
    std::nth_element(errors.begin(), errors.begin() + count / 2, errors.end());
    const double median = errors[count / 2];
    EXPECT_GT(scatter / median, 1.0 / 1.5) << "parameter " << p;
    EXPECT_LT(scatter / median, 1.5) << "parameter " << p;
  }
  for (int e = 0; e < count; e += 17) {
    const TFitFunctionErrorInfo info = r.ErrorInfo.GetValue(e);
    EXPECT_NEAR(info.ChiSqr, info.ResidualSumOfSquares, 1e-9 * info.ResidualSumOfSquares);
  }
}

TEST_F(AdvancedFittingCoreTest, DemoMapBandsAreFoundWhereTheirComponentDominates) {
  // Lorentz fits of the silicon, polystyrene and calcite bands on the demo map, in the pixels where that
  // component's true abundance is the largest: the median centre and width match the bands it was made of.
  TDemoOptions options;
  options.SizeX = 32;
  options.SizeY = 32;
  const TDemoModel model = MakeDemoModel(options);
  const int sx = options.SizeX, sy = options.SizeY, sg = options.SizeGraph, count = sx * sy;
  TDGraph graph;
  graph.SetFieldSize(sx, sy, TDataFieldKind::Float, sg);
  std::vector<float> spectrum(sg);
  for (int y = 0; y < sy; ++y)
    for (int x = 0; x < sx; ++x) {
      SynthesizeDemoSpectrum(model, x, y, spectrum.data());
      graph.SetSpectrum(x, y, spectrum.data());
    }
  graph.SetAllLinesValid();
  const size_t components = DemoComponents().size();
  std::vector<std::vector<float>> abundance(components, std::vector<float>(count));
  for (size_t c = 0; c < components; ++c)
    SynthesizeDemoAbundance(model, static_cast<int>(c), abundance[c].data());

  struct TCase {
    int Component;
    TDemoBand Band;
  };
  const TCase cases[] = {{0, DemoComponents()[0].Bands[0]},
                         {1, DemoComponents()[1].Bands[0]},
                         {3, DemoComponents()[3].Bands[0]}};
  for (const TCase& c : cases) {
    TAdvancedFittingCore core;
    core.SetFunction(std::make_unique<TNLFitLorentz>());
    core.SetAxis(model.Shift);
    std::vector<bool> mask(sg);
    for (int g = 0; g < sg; ++g) mask[g] = std::fabs(model.Shift[g] - c.Band.Shift) < 20.0;
    core.SetFitMask(mask);
    std::string message;
    ASSERT_EQ(core.FitAll(graph, message), TAdvancedFitStatus::Done) << message;
    const TAdvancedFitResultArrays& r = *core.GetResults();
    std::vector<double> centres, widths;
    for (int e = 0; e < count; ++e) {
      bool dominant = true;
      for (size_t k = 0; k < components; ++k)
        dominant = dominant && abundance[k][e] <= abundance[c.Component][e];
      if (!dominant || !r.FitGood.GetValue(e)) continue;
      centres.push_back(r.TransformedValues.GetValue(1, e));
      widths.push_back(r.TransformedValues.GetValue(2, e));
    }
    ASSERT_GE(centres.size(), 20u) << c.Band.Shift;
    std::nth_element(centres.begin(), centres.begin() + centres.size() / 2, centres.end());
    std::nth_element(widths.begin(), widths.begin() + widths.size() / 2, widths.end());
    EXPECT_NEAR(centres[centres.size() / 2], c.Band.Shift, 0.3);
    EXPECT_NEAR(widths[widths.size() / 2], c.Band.Width, 0.05 * c.Band.Width) << c.Band.Shift;
  }
}

TEST(AdvancedFitMemory, SmallMemoryMappedStrategyRefusesTheRunBeforeAllocating) {
  // The process's strategy is swapped for a quarter gigabyte of mapped file, and back afterwards.
  oxtest::TempDir dir;
  TMemoryManagement::DestroyMemoryStrategy();
  TMemoryOptionsOverride options;
  options.Strategy = "mmf";
  options.MemoryMappedFilePath = dir.Path().string() + "/";
  options.FileSizeGB = 0.25;
  options.MapSizeMB = 16;
  ASSERT_EQ(TMemoryManagement::ApplyOptionsOverride(options), "");
  TMemoryManagement::CreateMemoryStrategy();
  EXPECT_EQ(TMemoryManagement::CurrentStrategy, 1);
  {
    TDGraph large; // a million spectra of 16 points: 64 MB, results of about 230 MB
    large.SetFieldSize(1000, 1000, TDataFieldKind::Float, 16);
    large.SetAllLinesValid();
    TAdvancedFittingCore core;
    core.SetFunction(std::make_unique<TNLFitGauss>());
    std::string message;
    EXPECT_EQ(core.FitAll(large, message), TAdvancedFitStatus::Refused);
    EXPECT_EQ(message.rfind("Not enough memory for the fit results (223 MB needed, ", 0), 0u) << message;
    EXPECT_EQ(core.GetResults(), nullptr);

    TDGraph small;
    small.SetFieldSize(4, 4, TDataFieldKind::Float, 16);
    std::vector<float> s(16);
    for (int g = 0; g < 16; ++g)
      s[g] = static_cast<float>(5.0 + 50.0 * std::exp(-0.5 * (g - 7.5) * (g - 7.5) / 4.0));
    for (int e = 0; e < 16; ++e) small.SetSpectrumOfElement(e, s.data());
    small.SetAllLinesValid();
    EXPECT_EQ(core.FitAll(small, message), TAdvancedFitStatus::Done) << message;
    EXPECT_EQ(core.GetNumberOfFailedFits(), 0);
    core.DeleteMCI();
  }
  TMemoryManagement::DestroyMemoryStrategy();
  TMemoryManagement::ClearOptionsOverride();
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::CreateMemoryStrategy();
}

TEST_F(AdvancedFittingCoreTest, SingleSpectrumOnTwoThreadsAndAnAllNaNMap) {
  // Fewer spectra than threads: the idle thread does nothing, the one spectrum is fitted.
  TDGraph* single = AddGaussStack(1, 1, 0.0);
  TAdvancedFittingCore core;
  SetUpGauss(core);
  core.NumberOfThreads = 2;
  std::string message;
  ASSERT_EQ(core.FitAll(*single, message), TAdvancedFitStatus::Done) << message;
  TAdvancedFitStatus status;
  auto images = core.MultiCoreFillImages(FProject, single->GetID(), status);
  TDImage* center = Find(images, "Stack (Fit Gauss: x0)");
  ASSERT_NE(center, nullptr);
  EXPECT_EQ(center->GetSizeX(), 1);
  EXPECT_NEAR(center->GetField(0, 0), TruthAt(0, 0).Center, 1e-3);

  // Every spectrum not a number: every fit fails, the run still ends with its images.
  TDGraph* nan = AddGaussStack(3, 2, 0.0);
  nan->FillField(std::numeric_limits<float>::quiet_NaN());
  ASSERT_EQ(core.FitAll(*nan, message), TAdvancedFitStatus::Done) << message;
  EXPECT_EQ(core.GetNumberOfFailedFits(), 6);
  images = core.MultiCoreFillImages(FProject, nan->GetID(), status);
  ASSERT_EQ(status, TAdvancedFitStatus::Done);
  TDImage* fail = Find(images, "Stack (Fit Gauss: Fit Fail Mask)");
  TDImage* error = Find(images, "Stack (Fit Gauss: s Error)");
  ASSERT_TRUE(fail && error);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 3; ++x) {
      EXPECT_EQ(fail->GetField(x, y), 1.0f);
      EXPECT_EQ(error->GetField(x, y), -1.0f);
    }
}

} // namespace
