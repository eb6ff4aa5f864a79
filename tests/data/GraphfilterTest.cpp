// Graph filters: the range over calibrated axes in several units, rising and falling, the reductions of
// every kind on spectra with known answers, the part-spectrum path, the file form and concurrent use.
#include "data/Graphfilter.h"

#include "common/numerics/Filterreductions.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <cmath>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr int32_t kLength = 256;

// A project with one graph on a quadratic wavelength axis shown in rel. 1/cm against 532 nm, and an
// intensity interpretation.
struct TAxisProject {
  TProject Project;
  TDGraph* Graph = nullptr;
  TDSpectralTransformation* Transformation = nullptr;
  TDSpectralInterpretation* Interpretation = nullptr;

  explicit TAxisProject(double slope) {
    oxtest::EnsureMemoryStrategy();
    auto interpretation = std::make_unique<TDSpectralInterpretation>();
    interpretation->SetID(Project.GetNewDataID());
    interpretation->SetExcitationWaveLength(532);
    interpretation->SetUnitIndex(TDSpectralInterpretation::suRelativeWavenumber);
    Interpretation = interpretation.get();
    Project.AddData(std::move(interpretation));
    auto transformation = std::make_unique<TDSpectralTransformation>();
    transformation->SetID(Project.GetNewDataID());
    transformation->SetPolynom(slope > 0 ? 540 : 560, slope, 1e-5);
    transformation->SetInterpretationID(Interpretation->GetID());
    Transformation = transformation.get();
    Project.AddData(std::move(transformation));
    auto z = std::make_unique<TDZInterpretation>();
    z->SetID(Project.GetNewDataID());
    const int32_t zID = z->GetID();
    Project.AddData(std::move(z));
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(Project.GetNewDataID());
    graph->SetFieldSize(2, 2, TDataFieldKind::Float, kLength);
    graph->SetXTransformationID(Transformation->GetID());
    graph->SetXInterpretationID(Interpretation->GetID());
    graph->SetZInterpretationID(zID);
    Graph = graph.get();
    Project.AddData(std::move(graph));
  }

  // Axis value of pixel i in a unit, straight from the calibration.
  double Value(int i, int32_t unit) const {
    return Interpretation->StandardTo(Transformation->PixelToWaveLength(i), unit);
  }
  // First and last pixel whose value in unit lies in [lo, hi].
  std::pair<int, int> Inside(double lo, double hi, int32_t unit) const {
    int first = -1, last = -1;
    for (int i = 0; i < kLength; ++i) {
      const double v = Value(i, unit);
      if (v >= lo && v <= hi) {
        if (first < 0) first = i;
        last = i;
      }
    }
    return {first, last};
  }
};

TGraphFilter MakeFilter(TAxisProject& p, int32_t kind, double position, double width, int32_t unit = -1) {
  TGraphFilter f(kind);
  f.SetNewInputGraph(p.Graph);
  f.Info().FilterPosition = position;
  f.Info().FilterWidth = width;
  f.Info().UnitIndex = unit;
  return f;
}

} // namespace

TEST(GraphfilterTest, KindCaptionsAndSettings) {
  EXPECT_EQ(GetFilterKindCaption(gfkSum), "Sum");
  EXPECT_EQ(GetFilterKindCaption(gfkSum, false), "");
  EXPECT_EQ(GetFilterKindCaption(gfkPosMinimum), "Pos. Minimum");
  EXPECT_EQ(GetFilterKindCaption(gfkAvgMin), "Avg-Min");
  EXPECT_EQ(GetFilterKindCaption(gfkStdDeviation), "Std. Deviation");
  EXPECT_EQ(GetFilterKindCaption(10), "Unknown");
  EXPECT_EQ(GetFilterKindCaption(-1), "Unknown");

  TGraphFilterInfo info;
  EXPECT_EQ(info.FilterCaption, "Unknown");
  EXPECT_EQ(info.LowerBGPixels, 4);
  EXPECT_EQ(info.UnitIndex, -1);
  EXPECT_EQ(info.WidthFilterLevelPercentage, 50);
  EXPECT_TRUE(info.UseBackground());
  info.LowerBGPixels = 0;
  EXPECT_TRUE(info.UseBackground());
  info.UpperBGPixels = 0;
  EXPECT_FALSE(info.UseBackground());
  EXPECT_EQ(info.Problem(), "");
  TGraphFilterInfo copy;
  info.CopyTo(copy);
  EXPECT_EQ(copy, info);

  info.FilterWidth = -1;
  EXPECT_EQ(info.Problem(), "FilterWidth is negative");
  info.FilterWidth = 1;
  info.UpperBGPixels = 17;
  EXPECT_EQ(info.Problem(), "UpperBGPixels lies outside 0 to 16");
  info.UpperBGPixels = 0;
  info.FilterKind = 10;
  EXPECT_NE(info.Problem().find("FilterKind"), std::string::npos);
}

TEST(GraphfilterTest, TheRangeSelectsThePixelsTheAxisSaysOnRisingAndFallingAxes) {
  for (double slope : {0.06, -0.06}) {
    TAxisProject p(slope);
    const int32_t relative = TDSpectralInterpretation::suRelativeWavenumber;
    const int32_t nm = TDSpectralInterpretation::suNanometer;
    // In the current unit (rel. 1/cm).
    const double centre = p.Value(100, relative);
    TGraphFilter f = MakeFilter(p, gfkSum, centre, 30);
    ASSERT_EQ(f.CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
    auto expected = p.Inside(centre - 15, centre + 15, relative);
    EXPECT_EQ(f.GetStartPixel(), expected.first) << slope;
    EXPECT_EQ(f.GetStopPixel(), expected.second) << slope;
    EXPECT_GT(f.GetNumberOfPixels(), 5);
    EXPECT_EQ(f.GetAxisUnitString(), "rel. 1/cm");
    EXPECT_EQ(f.ThreadInfo().UnitKind, static_cast<int32_t>(TUnitKind::Spectral));

    // A filter stored in nm picks the same pixels as its range converted to the axis's unit.
    const double lambda = p.Value(180, nm);
    TGraphFilter inNm = MakeFilter(p, gfkSum, lambda, 1.0, nm);
    ASSERT_EQ(inNm.CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
    expected = p.Inside(lambda - 0.5, lambda + 0.5, nm);
    EXPECT_EQ(inNm.GetStartPixel(), expected.first);
    EXPECT_EQ(inNm.GetStopPixel(), expected.second);
    TGraphFilter converted = inNm;
    ASSERT_TRUE(converted.ChangeUnitIndex(-1));
    EXPECT_EQ(converted.Info().UnitIndex, -1);
    EXPECT_GT(converted.Info().FilterPosition, 400); // rel. 1/cm now
    ASSERT_EQ(converted.CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
    EXPECT_EQ(converted.GetStartPixel(), inNm.GetStartPixel());
    EXPECT_EQ(converted.GetStopPixel(), inNm.GetStopPixel());
    // And back to nm: the same range again.
    ASSERT_TRUE(converted.ChangeUnitIndex(nm));
    EXPECT_NEAR(converted.Info().FilterPosition, lambda, 1e-9);
    EXPECT_NEAR(converted.Info().FilterWidth, 1.0, 1e-9);
  }
}

TEST(GraphfilterTest, NarrowOffAxisAndUnexpressibleRanges) {
  TAxisProject p(0.06);
  const double centre = 0.3 * p.Value(50, -1) + 0.7 * p.Value(51, -1);
  TGraphFilter narrow = MakeFilter(p, gfkAverage, centre, 0.01);
  EXPECT_EQ(narrow.CopyParamsForThread(), TGraphFilterRangeStatus::NarrowerThanStep);
  EXPECT_EQ(narrow.GetStartPixel(), 51);
  EXPECT_EQ(narrow.GetStopPixel(), 51);
  // A width of exactly 0 on a pixel's value: that pixel is inside the closed range.
  TGraphFilter zero = MakeFilter(p, gfkAverage, p.Value(77, -1), 0);
  EXPECT_EQ(zero.CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
  EXPECT_EQ(zero.GetStartPixel(), 77);

  TGraphFilter off = MakeFilter(p, gfkSum, p.Value(kLength - 1, -1) + 100, 20);
  EXPECT_EQ(off.CopyParamsForThread(), TGraphFilterRangeStatus::OffAxis);
  EXPECT_EQ(off.GetStartPixel(), kLength - 1);
  // Half on the axis: the pixels that are.
  TGraphFilter half = MakeFilter(p, gfkSum, p.Value(0, -1), 10);
  EXPECT_EQ(half.CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
  EXPECT_EQ(half.GetStartPixel(), 0);

  TGraphFilter badUnit = MakeFilter(p, gfkSum, 500, 10, 42);
  EXPECT_EQ(badUnit.CopyParamsForThread(), TGraphFilterRangeStatus::BadUnit);
  EXPECT_FALSE(badUnit.ChangeUnitIndex(0));
  TGraphFilter otherKind = MakeFilter(p, gfkSum, 500, 10);
  otherKind.Info().UnitKind = static_cast<int32_t>(TUnitKind::Space);
  EXPECT_EQ(otherKind.CopyParamsForThread(), TGraphFilterRangeStatus::BadUnit);
  TGraphFilter negative = MakeFilter(p, gfkSum, 500, -3);
  EXPECT_EQ(negative.CopyParamsForThread(), TGraphFilterRangeStatus::BadSettings);
  TGraphFilter none(gfkSum);
  EXPECT_EQ(none.CopyParamsForThread(), TGraphFilterRangeStatus::NoInput);
  EXPECT_EQ(none.Calculation(nullptr), 0.0);
}

TEST(GraphfilterTest, EveryKindOnABandOverALinearBackground) {
  TAxisProject p(0.06);
  // A Lorentzian band of known FWHM in rel. 1/cm on a line, on the axis's own positions.
  const double centre = p.Value(128, -1), fwhm = 12;
  std::vector<float> y(kLength);
  for (int i = 0; i < kLength; ++i) {
    const double x = p.Value(i, -1);
    y[i] = static_cast<float>(100 + 0.05 * x + 800 / (1 + 4 * (x - centre) * (x - centre) / (fwhm * fwhm)));
  }
  std::vector<double> results(kGraphFilterKindCount);
  TGraphFilter any = MakeFilter(p, gfkSum, centre, 120);
  ASSERT_EQ(any.CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
  // The same reductions straight from the kernel on the filter's pixels.
  TFilterField field;
  field.X = any.GetXPositions().data();
  field.Y = y.data();
  field.Length = kLength;
  field.Start = any.GetStartPixel();
  field.Stop = any.GetStopPixel();
  SetLowerAndUpperBackground(field, 4, 4);
  const TFilterMinMax m = FilterMinMax(field);
  const std::vector<double> expected = {FilterSum(field),
                                        FilterAverage(field),
                                        m.Minimum,
                                        m.Maximum,
                                        m.MinimumX,
                                        m.MaximumX,
                                        FilterCenterOfMass(field, 1e-30, centre),
                                        FilterWidth(field, 0.5, false),
                                        FilterAverageMinusMinimum(field),
                                        FilterStandardDeviation(field)};
  for (int32_t kind = 0; kind < kGraphFilterKindCount; ++kind) {
    TGraphFilter f = MakeFilter(p, kind, centre, 120);
    ASSERT_EQ(f.CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
    results[kind] = f.Calculation(y.data());
    EXPECT_EQ(results[kind], expected[kind]) << GetFilterKindCaption(kind);
  }
  // Known answers: the width of the Lorentzian, its position, the maximum at the band's pixel.
  EXPECT_NEAR(results[gfkWidth], fwhm, 0.05); // linear crossings on a 2 per cm grid
  EXPECT_NEAR(results[gfkPosition], centre, 0.01);
  EXPECT_DOUBLE_EQ(results[gfkPosMaximum], centre);
  EXPECT_GT(results[gfkMaximum], 700);
  EXPECT_GT(results[gfkStdDeviation], 0);

  // The units of the results.
  TGraphFilter position = MakeFilter(p, gfkPosition, centre, 120);
  position.CopyParamsForThread();
  EXPECT_EQ(position.GetResultZUnitString(), "rel. 1/cm");
  TGraphFilter sum = MakeFilter(p, gfkSum, centre, 120);
  sum.CopyParamsForThread();
  EXPECT_NE(sum.GetResultZUnitString(), "rel. 1/cm");
  EXPECT_NE(sum.GetResultZUnitString(), "Unknown");
}

TEST(GraphfilterTest, WidthOfLorentziansOfKnownFWHM) {
  TAxisProject p(-0.02); // a finely sampled falling axis
  for (double fwhm : {4.0, 8.0, 16.0}) {
    const double centre = p.Value(130, -1);
    std::vector<float> y(kLength);
    for (int i = 0; i < kLength; ++i) {
      const double d = p.Value(i, -1) - centre;
      y[i] = static_cast<float>(1000 / (1 + 4 * d * d / (fwhm * fwhm)));
    }
    TGraphFilter f = MakeFilter(p, gfkWidth, centre, 20);
    f.Info().LowerBGPixels = f.Info().UpperBGPixels = 0;
    ASSERT_EQ(f.CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
    EXPECT_NEAR(f.Calculation(y.data()), fwhm, 0.015 * fwhm) << fwhm;
  }
}

TEST(GraphfilterTest, PositionOfValuesThatSumToZeroKeepsTheRangeCentre) {
  TAxisProject p(0.06);
  std::vector<float> flat(kLength, 5.0f);
  TGraphFilter f = MakeFilter(p, gfkPosition, p.Value(90, -1), 40);
  ASSERT_EQ(f.CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
  EXPECT_EQ(f.Calculation(flat.data()), p.Value(90, -1));
  // No background asked for: the raw values count, and a constant has its centre in the middle.
  f.Info().LowerBGPixels = f.Info().UpperBGPixels = 0;
  f.CopyParamsForThread();
  const double mid = 0.5 * (p.Value(f.GetStartPixel(), -1) + p.Value(f.GetStopPixel(), -1));
  EXPECT_NEAR(f.Calculation(flat.data()), mid, 0.05);
}

TEST(GraphfilterTest, PartOfTheSpectrumGivesTheWholeSpectrumsResult) {
  for (double slope : {0.06, -0.06}) {
    TAxisProject p(slope);
    std::vector<float> y(kLength);
    for (int i = 0; i < kLength; ++i) y[i] = static_cast<float>(50 + 3 * std::sin(i / 7.0) + (i % 11));
    // Ranges inside, at the start and at the end of the field, with uneven background counts.
    for (int centrePixel : {2, 100, kLength - 3}) {
      for (int32_t kind = 0; kind < kGraphFilterKindCount; ++kind) {
        if (kind == gfkWidth) continue; // reads the whole field
        TGraphFilter f = MakeFilter(p, kind, p.Value(centrePixel, -1), 25);
        f.Info().LowerBGPixels = 3;
        f.Info().UpperBGPixels = 7;
        ASSERT_NE(f.CopyParamsForThread(), TGraphFilterRangeStatus::OffAxis);
        int32_t first = 0, count = 0;
        f.GetPixelRangeNeededByFilter(first, count);
        EXPECT_GE(first, 0);
        EXPECT_LE(first + count, kLength);
        EXPECT_LT(count, kLength);
        EXPECT_EQ(f.CalculationOfPart(y.data() + first, first, count), f.Calculation(y.data()))
            << GetFilterKindCaption(kind) << " at " << centrePixel;
      }
    }
  }
}

TEST(GraphfilterTest, SettingsRoundTripWithTheirTagKinds) {
  oxtest::TempDir dir;
  const auto name = dir.File("filter.oxt");
  TGraphFilter f(gfkWidth);
  f.Info().FilterCaption = "Si band";
  f.Info().FilterPosition = 520.7;
  f.Info().FilterWidth = 33.25;
  f.Info().LowerBGPixels = 2;
  f.Info().UpperBGPixels = 0;
  f.Info().UnitKind = 2;
  f.Info().UnitIndex = 3;
  f.Info().WidthFilterLevelPercentage = 25;
  TFileHandle out = CreateTagFile(name, "ORX_TEST");
  TTagControl root, list;
  root.WriteTag(out, "Root", TTagKind::TagList);
  list.WriteTag(out, "Filter0", TTagKind::TagList);
  ASSERT_EQ(f.SaveToTagFile(out), 1);
  list.CloseWriteTag(out);
  root.CloseWriteTag(out);
  CloseFile(out);

  TTagControl tree;
  ASSERT_EQ(tree.LoadTagListByFileName(name, "ORX_TEST"), 1);
  const std::vector<std::pair<std::string, TTagKind>> kinds = {
      {"FilterKind", TTagKind::Int},          {"LowerBGPixels", TTagKind::Int},
      {"UpperBGPixels", TTagKind::Int},       {"UnitKind", TTagKind::Int},
      {"UnitIndex", TTagKind::Int},           {"FilterPosition", TTagKind::Double},
      {"FilterWidth", TTagKind::Double},      {"WidthFilterLevelPercentage", TTagKind::Double},
      {"FilterCaption", TTagKind::AnsiString}};
  for (const auto& [tag, kind] : kinds) {
    const TTagControl* node = tree.FindTagInList("Filter0|" + tag);
    ASSERT_NE(node, nullptr) << tag;
    EXPECT_EQ(node->Kind(), kind) << tag;
  }

  TFileHandle in = kInvalidFileHandle;
  TTagControl readRoot, filterTag;
  ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, readRoot), 1);
  ASSERT_EQ(filterTag.FindTag(in, "Filter0", readRoot), 1);
  TGraphFilter back;
  back.SetNeedsFullRecalculation(false);
  ASSERT_EQ(back.LoadFromTagFile(in, filterTag), 1);
  // An empty list: every setting at its default.
  TGraphFilter defaults(gfkAverage);
  ASSERT_EQ(defaults.LoadFromTagFile(in, readRoot), 1);
  CloseFile(in);
  EXPECT_EQ(back.Info(), f.Info());
  EXPECT_TRUE(back.GetNeedsFullRecalculation());
  EXPECT_EQ(defaults.Info(), TGraphFilterInfo());
}

TEST(GraphfilterTest, ManyThreadsCalculateWithOneFilterAndClonesAlike) {
  TAxisProject p(0.06);
  const int spectra = 200;
  std::vector<std::vector<float>> y(spectra, std::vector<float>(kLength));
  for (int s = 0; s < spectra; ++s)
    for (int i = 0; i < kLength; ++i)
      y[s][i] =
          static_cast<float>(10 + s * 0.01 * i + 300 * std::exp(-0.5 * std::pow((i - 60 - s % 90) / 4.0, 2)));
  for (int32_t kind = 0; kind < kGraphFilterKindCount; ++kind) {
    TGraphFilter f = MakeFilter(p, kind, p.Value(100, -1), 80);
    f.Info().LowerBGPixels = 5;
    ASSERT_EQ(f.CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
    std::vector<double> serial(spectra);
    for (int s = 0; s < spectra; ++s) serial[s] = f.Calculation(y[s].data());
    const auto clone = f.CloneForCalculation();
    std::vector<double> parallel(spectra), cloned(spectra);
    std::vector<std::thread> pool;
    for (int t = 0; t < 4; ++t)
      pool.emplace_back([&, t] {
        for (int s = t; s < spectra; s += 4) {
          parallel[s] = f.Calculation(y[s].data());
          cloned[s] = clone->Calculation(y[s].data());
        }
      });
    for (auto& thread : pool) thread.join();
    EXPECT_EQ(parallel, serial) << GetFilterKindCaption(kind);
    EXPECT_EQ(cloned, serial) << GetFilterKindCaption(kind);
  }
}
