// Principal component analysis without a window: a stack of known rank gives back its variances, loadings,
// average and spectra; one and two threads agree; cancels and failures leave nothing behind; masks, draw
// field and norm modes act as they should; the result graphs carry their captions, sizes and axes.
#include "tools/multivariate/Pcacore.h"

#include "common/OrvexException.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestProgress.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

// A stack in memory: spectrum of pixel (x, y) at (x + y * sx) * p.
struct TStack {
  int SizeX = 0, SizeY = 0, Points = 0;
  std::vector<float> Values;
  std::vector<bool> LineValid;
  float* Spectrum(int x, int y) { return Values.data() + (static_cast<std::size_t>(x) + y * SizeX) * Points; }
  const float* Spectrum(int x, int y) const {
    return Values.data() + (static_cast<std::size_t>(x) + y * SizeX) * Points;
  }
};

// Orthonormal columns (Gram-Schmidt, twice for accuracy) of a rows x cols matrix, row-major.
void Orthonormalise(std::vector<double>& a, int rows, int cols) {
  for (int c = 0; c < cols; ++c)
    for (int pass = 0; pass < 2; ++pass) {
      for (int q = 0; q < c; ++q) {
        double dot = 0;
        for (int r = 0; r < rows; ++r) dot += a[r * cols + c] * a[r * cols + q];
        for (int r = 0; r < rows; ++r) a[r * cols + c] -= dot * a[r * cols + q];
      }
      double norm = 0;
      for (int r = 0; r < rows; ++r) norm += a[r * cols + c] * a[r * cols + c];
      for (int r = 0; r < rows; ++r) a[r * cols + c] /= std::sqrt(norm);
    }
}

class PcaCoreTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
  }

  TDGraph* AddGraph(const TStack& stack, const std::string& caption = "Map") {
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(Project.GetNewDataID());
    graph->SetCaption(caption);
    graph->SetFieldSize(stack.SizeX, stack.SizeY, TDataFieldKind::Float, stack.Points);
    for (int y = 0; y < stack.SizeY; ++y) {
      for (int x = 0; x < stack.SizeX; ++x) graph->SetSpectrum(x, y, stack.Spectrum(x, y));
      graph->SetLineValid(y, stack.LineValid[y]);
    }
    TDGraph* raw = graph.get();
    Project.AddData(std::move(graph));
    return raw;
  }

  // Average + r orthogonal zero-mean scores (variance Variances[c], divisor N over the valid pixels) times
  // orthonormal loadings; line JunkLine is invalid and holds junk, one value of it not even finite.
  TStack KnownRank(int sx, int sy, int p, const std::vector<double>& variances) {
    const int r = static_cast<int>(variances.size());
    std::mt19937 gen(7);
    std::normal_distribution<double> normal;
    TStack s{sx, sy, p, std::vector<float>(static_cast<std::size_t>(sx) * sy * p),
             std::vector<bool>(sy, true)};
    s.LineValid[JunkLine] = false;
    const int n = sx * (sy - 1);
    Loadings.assign(static_cast<std::size_t>(p) * r, 0.0);
    for (double& v : Loadings) v = normal(gen);
    Orthonormalise(Loadings, p, r);
    // Scores: centred, orthogonal columns over the valid pixels, scaled to the variances.
    std::vector<double> scores(static_cast<std::size_t>(n) * r);
    for (double& v : scores) v = normal(gen);
    for (int c = 0; c < r; ++c) {
      double mean = 0;
      for (int i = 0; i < n; ++i) mean += scores[i * r + c];
      for (int i = 0; i < n; ++i) scores[i * r + c] -= mean / n;
    }
    std::vector<double> q = scores;
    Orthonormalise(q, n, r); // still zero-mean: the columns stay in the span of centred vectors
    Average.assign(p, 0.0);
    for (int g = 0; g < p; ++g) Average[g] = 50.0 + 20.0 * std::sin(0.1 * g);
    int i = 0;
    for (int y = 0; y < sy; ++y)
      for (int x = 0; x < sx; ++x) {
        float* spectrum = s.Spectrum(x, y);
        if (y == JunkLine) {
          for (int g = 0; g < p; ++g) spectrum[g] = static_cast<float>(1e6 * normal(gen));
          spectrum[1] = std::numeric_limits<float>::quiet_NaN();
          continue;
        }
        for (int g = 0; g < p; ++g) {
          double v = Average[g];
          for (int c = 0; c < r; ++c) v += std::sqrt(variances[c] * n) * q[i * r + c] * Loadings[g * r + c];
          spectrum[g] = static_cast<float>(v);
        }
        ++i;
      }
    return s;
  }

  static std::vector<float> ReadSpectrum(const TDGraph& graph, int x, int y) {
    std::vector<float> v(graph.GetSizeGraph());
    graph.GetSpectrum(x, y, v.data(), true);
    return v;
  }

  TProject Project;
  std::vector<double> Loadings;
  std::vector<double> Average;
  static constexpr int JunkLine = 3;
};

TEST_F(PcaCoreTest, KnownRankGivesVariancesLoadingsAverageAndSpectra) {
  const std::vector<double> variances = {9.0, 4.0, 1.0};
  const TStack stack = KnownRank(13, 11, 40, variances);
  TDGraph* graph = AddGraph(stack);
  TPCACore core;
  ASSERT_EQ(core.Calculate(*graph, {}, nullptr, 2), TPCAStatus::Ok) << core.Error();
  ASSERT_TRUE(core.IsDone());
  EXPECT_EQ(core.PixelCount(), 13 * 10);
  ASSERT_EQ(core.ComponentCount(), 40);
  const std::vector<double>& ev = core.EigenValuesAscending();
  EXPECT_TRUE(std::is_sorted(ev.begin(), ev.end()));
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(core.EigenValueOfPC(k), variances[k], 1e-5 * variances[k]) << k;
  for (int k = 3; k < 40; ++k) EXPECT_LT(std::fabs(core.EigenValueOfPC(k)), 1e-6 * variances[0]) << k;
  for (int k = 0; k < 3; ++k) {
    double dot = 0, largest = 0;
    int at = 0;
    for (int g = 0; g < 40; ++g) {
      dot += core.EigenVectorOfPC(g, k) * Loadings[g * 3 + k];
      if (std::fabs(core.EigenVectorOfPC(g, k)) > largest)
        largest = std::fabs(core.EigenVectorOfPC(g, k)), at = g;
    }
    EXPECT_NEAR(std::fabs(dot), 1.0, 1e-6) << "loading " << k;
    EXPECT_GT(core.EigenVectorOfPC(at, k), 0.0) << "the largest element of each vector is positive";
  }
  for (int g = 0; g < 40; ++g) EXPECT_NEAR(core.Average()[g], Average[g], 1e-5 * std::fabs(Average[g]));

  // PCs 0..2 give the stack back; PC 0 alone does not.
  std::vector<float> rebuilt(40);
  double worst = 0, worstOne = 0;
  for (int y = 0; y < 11; ++y)
    for (int x = 0; x < 13; ++x) {
      if (y == JunkLine) continue;
      core.Reconstruct(stack.Spectrum(x, y), {0, 1, 2}, rebuilt.data());
      for (int g = 0; g < 40; ++g)
        worst = std::max<double>(worst, std::fabs(rebuilt[g] - stack.Spectrum(x, y)[g]));
      core.Reconstruct(stack.Spectrum(x, y), {0}, rebuilt.data());
      for (int g = 0; g < 40; ++g)
        worstOne = std::max<double>(worstOne, std::fabs(rebuilt[g] - stack.Spectrum(x, y)[g]));
    }
  EXPECT_LT(worst, 1e-4);
  EXPECT_GT(worstOne, 0.1);
}

TEST_F(PcaCoreTest, OneAndTwoThreadsAgreeOverSeveralBlocks) {
  // 2300 pixels: two blocks of the covariance, the second short.
  TStack s{50, 46, 37, {}, std::vector<bool>(46, true)};
  s.Values.resize(static_cast<std::size_t>(50) * 46 * 37);
  std::mt19937 gen(3);
  std::normal_distribution<float> normal;
  for (int e = 0; e < 50 * 46; ++e) {
    const float a = normal(gen), b = normal(gen);
    for (int g = 0; g < 37; ++g)
      s.Values[static_cast<std::size_t>(e) * 37 + g] =
          10.0f + a * std::sin(0.2f * g) + 0.5f * b * std::cos(0.3f * g) + 0.1f * normal(gen);
  }
  s.LineValid[5] = false;
  TDGraph* graph = AddGraph(s);
  TPCACore one, two;
  ASSERT_EQ(one.Calculate(*graph, {}, nullptr, 1), TPCAStatus::Ok);
  ASSERT_EQ(two.Calculate(*graph, {}, nullptr, 2), TPCAStatus::Ok);
  EXPECT_EQ(one.PixelCount(), 50 * 45);
  const double scale = one.EigenValueOfPC(0);
  for (int k = 0; k < 37; ++k) {
    EXPECT_NEAR(one.EigenValueOfPC(k), two.EigenValueOfPC(k), 1e-10 * scale) << k;
    EXPECT_NEAR(one.Average()[k], two.Average()[k], 1e-10 * std::fabs(one.Average()[k]));
  }
  // Every vector has its element of largest magnitude positive.
  for (int k = 0; k < 37; ++k) {
    int at = 0;
    for (int i = 1; i < 37; ++i)
      if (std::fabs(two.EigenVectorOfPC(i, k)) > std::fabs(two.EigenVectorOfPC(at, k))) at = i;
    EXPECT_GT(two.EigenVectorOfPC(at, k), 0.0) << "component " << k;
  }
  // The vectors of well separated eigenvalues (the first two) agree element by element.
  for (int k = 0; k < 2; ++k)
    for (int i = 0; i < 37; ++i) EXPECT_NEAR(one.EigenVectorOfPC(i, k), two.EigenVectorOfPC(i, k), 1e-10);
}

TEST_F(PcaCoreTest, CancelAtAnyStepLeavesNoResultAndAddsNothing) {
  const TStack stack = KnownRank(30, 80, 24, {4.0, 1.0}); // 2370 valid pixels: two blocks
  TDGraph* graph = AddGraph(stack);
  const std::size_t objects = Project.GetIDListOfAllData().size();
  for (int cancelAfter : {0, 1, 2, 4, 8, 16, 40}) {
    oxtest::TRecordingProgress progress(cancelAfter);
    TPCACore core;
    EXPECT_EQ(core.Calculate(*graph, {}, &progress, 2), TPCAStatus::Cancelled) << cancelAfter;
    EXPECT_FALSE(core.IsDone());
    EXPECT_EQ(Project.GetIDListOfAllData().size(), objects);
  }
  // A run that is never cancelled finishes; its extraction cancelled at any point adds nothing.
  oxtest::TRecordingProgress quiet;
  TPCACore core;
  ASSERT_EQ(core.Calculate(*graph, {}, &quiet, 2), TPCAStatus::Ok);
  const std::vector<std::string> captions = quiet.CaptionsSeen();
  EXPECT_EQ(captions, (std::vector<std::string>{"Calculating Average Spectrum", "Filling Covariance Matrix",
                                                "Matrix Calculation"}));
  TPCAExtractOptions options;
  options.PCGraphs = options.TransformedSpectra = options.ReconstructedSpectra = true;
  options.PCs = {0, 1};
  for (int cancelAfter : {0, 3, 30, 45}) {
    oxtest::TRecordingProgress progress(cancelAfter);
    const TPCAExtractResult result = ExtractPCAResults(Project, graph->GetID(), core, options, &progress, 2);
    EXPECT_EQ(result.Status, TPCAStatus::Cancelled) << cancelAfter;
    EXPECT_EQ(Project.GetIDListOfAllData().size(), objects) << cancelAfter;
  }
}

TEST_F(PcaCoreTest, NonFiniteValueAtASelectedPointStopsWithItsPixel) {
  TStack stack = KnownRank(6, 5, 10, {2.0});
  stack.Spectrum(4, 2)[7] = std::numeric_limits<float>::infinity();
  stack.Spectrum(1, 4)[2] = std::numeric_limits<float>::quiet_NaN();
  TDGraph* graph = AddGraph(stack);
  for (int threads : {1, 2}) {
    TPCACore core;
    EXPECT_EQ(core.Calculate(*graph, {}, nullptr, threads), TPCAStatus::Failed);
    EXPECT_FALSE(core.IsDone());
    // The earliest pixel in storage order (x-major) speaks.
    EXPECT_EQ(core.Error(), "Map: non-finite value at pixel (1, 4), point 2") << threads;
  }
  // Masked out, the same points don't matter.
  TPCASettings settings;
  settings.SpectrumMask.assign(10, true);
  settings.SpectrumMask[7] = settings.SpectrumMask[2] = false;
  TPCACore core;
  EXPECT_EQ(core.Calculate(*graph, settings, nullptr, 2), TPCAStatus::Ok) << core.Error();
  EXPECT_EQ(core.ComponentCount(), 8);
}

TEST_F(PcaCoreTest, BadInputIsRefusedAndNoPixelsKeepsTheOldResult) {
  TStack stack = KnownRank(6, 5, 10, {2.0});
  TDGraph* graph = AddGraph(stack);
  TPCACore core;
  TPCASettings settings;
  settings.SpectrumMask.assign(10, false);
  settings.SpectrumMask[4] = true;
  EXPECT_EQ(core.Calculate(*graph, settings, nullptr, 2), TPCAStatus::Failed);
  EXPECT_EQ(core.Error(), "Spectrum Mask: 1 point(s) selected; at least 2 of 0..9 are needed");
  settings.SpectrumMask.assign(9, true);
  EXPECT_EQ(core.Calculate(*graph, settings, nullptr, 2), TPCAStatus::Failed);
  EXPECT_EQ(core.Error(), "Spectrum Mask: 9 flags for spectra of 10 points");

  ASSERT_EQ(core.Calculate(*graph, {}, nullptr, 2), TPCAStatus::Ok);
  const double largest = core.EigenValueOfPC(0);
  for (int y = 0; y < 5; ++y) graph->SetLineValid(y, false);
  EXPECT_EQ(core.Calculate(*graph, {}, nullptr, 2), TPCAStatus::NoPixels);
  EXPECT_TRUE(core.IsDone());
  EXPECT_EQ(core.EigenValueOfPC(0), largest);

  TPCAExtractOptions options;
  options.PCGraphs = true;
  options.PCs = {10};
  const TPCAExtractResult result = ExtractPCAResults(Project, graph->GetID(), core, options, nullptr, 1);
  EXPECT_EQ(result.Status, TPCAStatus::Failed);
  EXPECT_EQ(result.Error, "PC Mask: component 10 not in 0..9");
}

TEST_F(PcaCoreTest, DrawFieldIsRepeatableAndSmallOnesAreIgnored) {
  const std::vector<bool> a = RandomizeDrawField(20, 15, 150), b = RandomizeDrawField(20, 15, 150);
  EXPECT_EQ(a, b);
  EXPECT_EQ(std::count(a.begin(), a.end(), true), 150);
  EXPECT_NE(RandomizeDrawField(20, 15, 150, 5), a);
  EXPECT_THROW(RandomizeDrawField(2, 2, 5), OrvexException);

  const TStack stack = KnownRank(20, 15, 12, {3.0, 1.0});
  TDGraph* graph = AddGraph(stack);
  TPCACore all, few, drawn;
  ASSERT_EQ(all.Calculate(*graph, {}, nullptr, 2), TPCAStatus::Ok);
  TPCASettings settings;
  settings.UseDrawField = true;
  settings.DrawField.assign(300, false);
  settings.DrawField[0] = settings.DrawField[7] = settings.DrawField[299] = true; // 3 pixels: ignored
  ASSERT_EQ(few.Calculate(*graph, settings, nullptr, 2), TPCAStatus::Ok);
  EXPECT_EQ(few.PixelCount(), all.PixelCount());
  EXPECT_EQ(few.EigenValueOfPC(0), all.EigenValueOfPC(0));
  settings.DrawField = a;
  ASSERT_EQ(drawn.Calculate(*graph, settings, nullptr, 2), TPCAStatus::Ok);
  int expected = 0;
  for (int y = 0; y < 15; ++y)
    for (int x = 0; x < 20; ++x) expected += y != JunkLine && a[x + y * 20];
  EXPECT_EQ(drawn.PixelCount(), expected);
  // A subset of a rank-2 stack still spans the same two loadings.
  EXPECT_LT(drawn.EigenValueOfPC(2), 1e-6 * drawn.EigenValueOfPC(0));
}

TEST_F(PcaCoreTest, NormModesScaleEachSpectrumAndKeepTheTrace) {
  // Small integers in mirrored pairs around 4, and one pixel at 4 itself: the average is exactly 4 and
  // that pixel's norm exactly 0, so it must enter the normed covariance as a zero column.
  TStack s{9, 7, 6, {}, std::vector<bool>(7, true)};
  s.Values.resize(9 * 7 * 6);
  std::mt19937 gen(11);
  std::uniform_int_distribution<int> u(0, 8);
  for (int e = 0; e < 31; ++e)
    for (int g = 0; g < 6; ++g) {
      const float v = static_cast<float>(u(gen));
      s.Values[e * 6 + g] = v;
      s.Values[(e + 31) * 6 + g] = 8.0f - v;
    }
  for (int g = 0; g < 6; ++g) s.Values[62 * 6 + g] = 4.0f;
  TDGraph* graph = AddGraph(s);
  for (int mode : {0, 1, 2}) {
    TPCACore core;
    TPCASettings settings;
    settings.NormMode = mode;
    ASSERT_EQ(core.Calculate(*graph, settings, nullptr, 2), TPCAStatus::Ok);
    for (int g = 0; g < 6; ++g) EXPECT_EQ(core.Average()[g], 4.0);
    // Reference in double: the trace of the covariance of the normed centred spectra.
    double trace = 0;
    for (int e = 0; e < 63; ++e) {
      const float* x = s.Values.data() + e * 6;
      double l1 = 0, l2 = 0;
      for (int g = 0; g < 6; ++g) l1 += std::fabs(x[g] - 4.0), l2 += (x[g] - 4.0) * (x[g] - 4.0);
      const double norm = mode == 0 ? 1.0 : mode == 1 ? l1 / 6 : std::sqrt(l2 / 6);
      if (norm > 1e-30) trace += l2 / (norm * norm);
    }
    trace /= 63;
    double sum = 0;
    for (double v : core.EigenValuesAscending()) sum += v;
    EXPECT_NEAR(sum, trace, 1e-6 * trace) << "mode " << mode;
    if (mode == 2) {
      EXPECT_NEAR(sum, 62.0 / 63.0 * 6.0, 1e-6); // each non-zero column has squared norm 6
    }
  }
}

TEST_F(PcaCoreTest, ResultGraphsCarryCaptionsSizesAxesAndMaskedValues) {
  const TStack stack = KnownRank(8, 6, 20, {5.0, 2.0, 1.0});
  TDGraph* graph = AddGraph(stack, "Scan");
  TPCASettings settings;
  settings.SpectrumMask.assign(20, true);
  for (int g : {0, 1, 2, 9, 10, 19}) settings.SpectrumMask[g] = false; // before, inside and at the end
  TPCACore core;
  ASSERT_EQ(core.Calculate(*graph, settings, nullptr, 2), TPCAStatus::Ok);
  ASSERT_EQ(core.ComponentCount(), 14);
  TPCAExtractOptions options;
  options.PCGraphs = options.TransformedSpectra = options.ReconstructedSpectra = true;
  options.PCs = {0, 2};
  const TPCAExtractResult r = ExtractPCAResults(Project, graph->GetID(), core, options, nullptr, 2);
  ASSERT_EQ(r.Status, TPCAStatus::Ok) << r.Error;

  auto* values = dynamic_cast<TDGraph*>(Project.FindData(r.EigenValuesID));
  auto* vectors = dynamic_cast<TDGraph*>(Project.FindData(r.EigenVectorsID));
  auto* average = dynamic_cast<TDGraph*>(Project.FindData(r.AverageID));
  auto* transformed = dynamic_cast<TDGraph*>(Project.FindData(r.TransformedID));
  auto* rebuilt = dynamic_cast<TDGraph*>(Project.FindData(r.ReconstructedID));
  ASSERT_TRUE(values && vectors && average && transformed && rebuilt);
  ASSERT_EQ(r.PCGraphIDs.size(), 2u);
  auto* pc2 = dynamic_cast<TDGraph*>(Project.FindData(r.PCGraphIDs[1]));
  ASSERT_NE(pc2, nullptr);
  EXPECT_EQ(values->GetCaption(), "Scan (PCA)(EigenValues)");
  EXPECT_EQ(vectors->GetCaption(), "Scan (PCA)(EigenVectors)");
  EXPECT_EQ(average->GetCaption(), "Scan (PCA)(Average)");
  EXPECT_EQ(pc2->GetCaption(), "Scan (PCA)(EigenVector 2)");
  EXPECT_EQ(transformed->GetCaption(), "Scan (PCA)(Transformed)");
  EXPECT_EQ(rebuilt->GetCaption(), "Scan (PCA)(Reconstructed)");

  // Sizes and axes.
  EXPECT_EQ(values->GetSizeX() * values->GetSizeY(), 1);
  EXPECT_EQ(values->GetSizeGraph(), 14);
  EXPECT_EQ(vectors->GetSizeX(), 14);
  EXPECT_EQ(vectors->GetSizeY(), 1);
  EXPECT_EQ(vectors->GetSizeGraph(), 20);
  EXPECT_EQ(transformed->GetSizeX(), 8);
  EXPECT_EQ(transformed->GetSizeY(), 6);
  EXPECT_EQ(transformed->GetSizeGraph(), 2);
  EXPECT_EQ(rebuilt->GetSizeGraph(), 20);
  auto* pc = dynamic_cast<TDLinearTransformation*>(Project.FindData(values->GetXTransformationID()));
  ASSERT_NE(pc, nullptr);
  EXPECT_EQ(pc->GetStandardUnit(), "PC");
  double bin = 2, real = 0;
  pc->BinToReal(&bin, &real);
  EXPECT_EQ(real, 2.0);
  auto* pcUnit = dynamic_cast<TDZInterpretation*>(Project.FindData(values->GetXInterpretationID()));
  auto* var = dynamic_cast<TDZInterpretation*>(Project.FindData(values->GetZInterpretationID()));
  ASSERT_TRUE(pcUnit && var);
  EXPECT_EQ(pcUnit->GetUnitName(), "PC");
  EXPECT_EQ(var->GetUnitName(), "Var");
  EXPECT_EQ(values->GetSpaceTransformationID(), 0);
  EXPECT_EQ(vectors->GetSpaceTransformationID(), pc->GetID());
  EXPECT_EQ(transformed->GetXTransformationID(), pc->GetID());

  // Values: eigenvalues largest first, vectors and average zero outside the mask.
  const std::vector<float> ev = ReadSpectrum(*values, 0, 0);
  for (int k = 0; k < 14; ++k) EXPECT_FLOAT_EQ(ev[k], static_cast<float>(core.EigenValueOfPC(k)));
  const std::vector<float> v2 = ReadSpectrum(*vectors, 2, 0), pc2Values = ReadSpectrum(*pc2, 0, 0);
  const std::vector<float> mean = ReadSpectrum(*average, 0, 0);
  int i = 0;
  for (int g = 0; g < 20; ++g) {
    EXPECT_EQ(v2[g], pc2Values[g]);
    if (!settings.SpectrumMask[g]) {
      EXPECT_EQ(v2[g], 0.0f) << g;
      EXPECT_EQ(mean[g], 0.0f) << g;
      continue;
    }
    EXPECT_FLOAT_EQ(v2[g], static_cast<float>(core.EigenVectorOfPC(i, 2)));
    EXPECT_FLOAT_EQ(mean[g], static_cast<float>(core.Average()[i]));
    ++i;
  }

  // Transformed and reconstructed pixels; the invalid source line stays invalid.
  for (int y = 0; y < 6; ++y) {
    EXPECT_EQ(transformed->GetLineValid(y), y != JunkLine);
    EXPECT_EQ(rebuilt->GetLineValid(y), y != JunkLine);
  }
  double scores[2];
  core.Scores(stack.Spectrum(5, 4), {0, 2}, scores);
  const std::vector<float> t = ReadSpectrum(*transformed, 5, 4);
  EXPECT_FLOAT_EQ(t[0], static_cast<float>(scores[0]));
  EXPECT_FLOAT_EQ(t[1], static_cast<float>(scores[1]));
  const std::vector<float> y = ReadSpectrum(*rebuilt, 5, 4);
  std::vector<float> expected(20);
  core.Reconstruct(stack.Spectrum(5, 4), {0, 2}, expected.data());
  EXPECT_EQ(y, expected);
  // Zero-order hold: points 0-2 take point 3's value, 9 and 10 take point 8's, 19 takes 18's.
  EXPECT_EQ(y[0], y[3]);
  EXPECT_EQ(y[2], y[3]);
  EXPECT_EQ(y[9], y[8]);
  EXPECT_EQ(y[10], y[8]);
  EXPECT_EQ(y[19], y[18]);
  EXPECT_NE(y[3], y[4]);
}

TEST_F(PcaCoreTest, InputIsOneGraphWiderThanOnePixel) {
  TStack line{4, 1, 3, std::vector<float>(12, 1.0f), std::vector<bool>(1, true)};
  TStack column{1, 5, 3, std::vector<float>(15, 1.0f), std::vector<bool>(5, true)};
  const int32_t a = AddGraph(line)->GetID(), b = AddGraph(column)->GetID();
  auto other = std::make_unique<oxtest::TDTestObject>();
  oxtest::RegisterTestDataObjects();
  other->SetID(Project.GetNewDataID());
  const int32_t c = other->GetID();
  Project.AddData(std::move(other));
  EXPECT_TRUE(IsPCAInputIDListOkay(Project, {a}));
  EXPECT_FALSE(IsPCAInputIDListOkay(Project, {b})); // one pixel wide
  EXPECT_FALSE(IsPCAInputIDListOkay(Project, {a, a}));
  EXPECT_FALSE(IsPCAInputIDListOkay(Project, {}));
  EXPECT_FALSE(IsPCAInputIDListOkay(Project, {c}));
  EXPECT_FALSE(IsPCAInputIDListOkay(Project, {999}));
}

TEST(PcaCoreSizes, MemoryFiguresAsTheToolAsks) {
  // Y squared on purpose: a 100 x 1 line asks only for the matrix term and 8 bytes.
  EXPECT_EQ(PCAStartMemoryBytes(100, 1, 50), 8 + 60 * 50 * 8);
  EXPECT_EQ(PCAStartMemoryBytes(100, 30, 50), 30 * 30 * 8 + 60 * 50 * 8);
}

} // namespace
