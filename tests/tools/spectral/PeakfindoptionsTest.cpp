// Peak Find Options through the frame: the peaks of the spectrum at a pixel with positions in the axis
// unit, every spectrum with Extract All as a search of its own would find them on one or two threads, the
// table as report and text object, negative peaks, and refused settings adding nothing.
#include "tools/spectral/Peakfindoptions.h"

#include "common/OrvexException.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dtext.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

constexpr int32_t kSizeX = 5, kSizeY = 3, kLength = 128;

double FirstCentre(int32_t x, int32_t y) {
  return 40.0 + 3.3 * x + 0.7 * y;
}
constexpr double kSecondCentre = 90.25;

class PeakFindToolTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    RegisterTextClasses();
    oxtest::EnsureMemoryStrategy();
    TDemoOptions options;
    options.SizeX = kSizeX;
    options.SizeY = kSizeY;
    options.SizeGraph = kLength;
    FIDs = CreateDemoProject(FProject, options);
    // Two Gaussian bands on a sloped baseline, the first moving from spectrum to spectrum.
    std::vector<float> spectrum(kLength);
    for (int32_t y = 0; y < kSizeY; ++y)
      for (int32_t x = 0; x < kSizeX; ++x) {
        for (int i = 0; i < kLength; ++i) {
          const double a = (i - FirstCentre(x, y)) / 2.5, b = (i - kSecondCentre) / 4.0;
          spectrum[i] = static_cast<float>(10.0 + 0.02 * i + 100.0 * std::exp(-0.5 * a * a) +
                                           50.0 * std::exp(-0.5 * b * b));
        }
        Map().SetSpectrum(x, y, spectrum.data());
      }
  }
  void TearDown() override { TMCC::SetProcessThreadLimit(0); }
  TDGraph& Map() { return *dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map)); }
  size_t ObjectCount() { return FProject.GetIDListOfAllData().size(); }
  TIntList Run(TPeakFindOptionsForm& tool, const std::vector<std::string>& settings, bool all) {
    const TUserParameterProblems problems = tool.Parameters().SetParameterValuesFromText(settings);
    EXPECT_TRUE(problems.empty()) << (problems.empty() ? "" : problems.front().Message);
    return tool.RunNonInteractive(FProject, {FIDs.Map}, all ? "Extract All" : "Extract", all);
  }

  TProject FProject;
  TDemoIDs FIDs;
};

TEST_F(PeakFindToolTest, SpectrumAtThePixelGivesBothBandsInPixelsAndAxisUnit) {
  TPeakFindOptionsForm tool;
  const TIntList results = Run(tool, {"Pixel X=3", "Pixel Y=2"}, false);
  ASSERT_EQ(results.size(), 1u);
  ASSERT_NE(results.front(), 0);
  EXPECT_EQ(FProject.GetIDListOfAllData().back(), results.front());
  const auto* text = dynamic_cast<const TDText*>(FProject.FindData(results.front()));
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(text->GetCaption(), "Peak Table (" + Map().GetCaption() + ")");
  const std::vector<TPeakTableRow>& rows = tool.GetPeakTable();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(text->GetText(), FormatPeakTable(rows));
  EXPECT_EQ(tool.GetReport(), FormatPeakTable(rows));
  std::vector<double> axis;
  std::string unit;
  ASSERT_TRUE(GetAxisValues(FProject, Map().GetXTransformationID(), Map().GetXInterpretationID(), kLength, 0,
                            axis, unit));
  const double centres[] = {FirstCentre(3, 2), kSecondCentre};
  for (size_t k = 0; k < 2; ++k) {
    const TPeakInformation& peak = rows[k].Peak;
    EXPECT_EQ(rows[k].X, 3);
    EXPECT_EQ(rows[k].Y, 2);
    EXPECT_NEAR(peak.PeakPixelPosition, centres[k], 0.05) << k;
    // The axis between the neighbouring pixels, linearly: the spline lies close to it on a smooth axis.
    const int i = static_cast<int>(centres[k]);
    const double linear = axis[i] + (centres[k] - i) * (axis[i + 1] - axis[i]);
    EXPECT_NEAR(peak.PeakXPosition, linear, 0.05 * std::abs(axis[i + 1] - axis[i])) << k;
    EXPECT_FALSE(peak.IsNegativePeak);
    EXPECT_FALSE(peak.IsCustomPeak);
  }
  EXPECT_NEAR(rows[0].Peak.OriginalPeakAbsoluteHeight, 100.0 + 10.0 + 0.02 * centres[0], 0.5);
}

TEST_F(PeakFindToolTest, ExtractAllSearchesEverySpectrumAsOneSearchDoesOnOneOrTwoThreads) {
  std::vector<double> axisValues;
  std::string unit;
  ASSERT_TRUE(GetAxisValues(FProject, Map().GetXTransformationID(), Map().GetXInterpretationID(), kLength, 0,
                            axisValues, unit));
  const std::vector<float> axis(axisValues.begin(), axisValues.end());
  std::vector<std::vector<TPeakTableRow>> tables;
  for (int threads : {1, 2}) {
    TMCC::SetProcessThreadLimit(threads);
    TPeakFindOptionsForm tool;
    ASSERT_EQ(Run(tool, {}, true).size(), 1u);
    tables.push_back(tool.GetPeakTable());
    // The reference: a search of its own over each spectrum in element order.
    const TPeakFindControlStruct control = tool.GetControl();
    TPeakFindCalculate search;
    ASSERT_TRUE(search.Prepare(&control, kLength, axis.data(), nullptr));
    std::vector<TPeakTableRow> want;
    std::vector<float> spectrum(kLength);
    for (int32_t y = 0; y < kSizeY; ++y)
      for (int32_t x = 0; x < kSizeX; ++x) {
        Map().GetSpectrum(x, y, spectrum.data());
        ASSERT_TRUE(search.FindPeaks(spectrum.data()));
        for (const TPeakInformation& peak : search.GetPeakInformationList())
          want.push_back({FIDs.Map, x, y, peak});
      }
    ASSERT_EQ(tables.back().size(), want.size());
    EXPECT_EQ(want.size(), static_cast<size_t>(2 * kSizeX * kSizeY));
    for (size_t k = 0; k < want.size(); ++k) {
      EXPECT_EQ(tables.back()[k].X, want[k].X);
      EXPECT_EQ(tables.back()[k].Y, want[k].Y);
      EXPECT_EQ(tables.back()[k].Peak, want[k].Peak) << k;
    }
  }
  EXPECT_EQ(FormatPeakTable(tables[0]), FormatPeakTable(tables[1]));
}

TEST_F(PeakFindToolTest, NegativeBandsAreFoundAndMarkedWhenAskedFor) {
  std::vector<float> spectrum(kLength);
  Map().GetSpectrum(1, 1, spectrum.data());
  for (float& v : spectrum) v = -v;
  Map().SetSpectrum(1, 1, spectrum.data());
  TPeakFindOptionsForm tool;
  // Positive peaks only: the maximum between the dips may count, the dips never.
  Run(tool, {"Pixel X=1", "Pixel Y=1"}, false);
  for (const TPeakTableRow& row : tool.GetPeakTable()) {
    EXPECT_FALSE(row.Peak.IsNegativePeak);
    EXPECT_GT(std::abs(row.Peak.PeakPixelPosition - FirstCentre(1, 1)), 5.0);
    EXPECT_GT(std::abs(row.Peak.PeakPixelPosition - kSecondCentre), 5.0);
  }
  Run(tool, {"Positive Peaks=false", "Negative Peaks=true"}, false);
  ASSERT_EQ(tool.GetPeakTable().size(), 2u);
  EXPECT_TRUE(tool.GetPeakTable()[0].Peak.IsNegativePeak);
  EXPECT_NEAR(tool.GetPeakTable()[0].Peak.PeakPixelPosition, FirstCentre(1, 1), 0.05);
  EXPECT_TRUE(tool.GetPeakTable()[1].Peak.IsNegativePeak);
  EXPECT_NEAR(tool.GetPeakTable()[1].Peak.PeakPixelPosition, kSecondCentre, 0.05);
  EXPECT_NE(tool.GetReport().find("\t1\t0\n"), std::string::npos) << tool.GetReport();
}

TEST_F(PeakFindToolTest, RefusedSettingsNameThemAndAddNothing) {
  const size_t before = ObjectCount();
  {
    TPeakFindOptionsForm tool;
    try {
      Run(tool, {"Pixel X=5"}, false);
      ADD_FAILURE() << "a pixel outside the map was taken";
    } catch (const OrvexException& e) {
      EXPECT_NE(std::string(e.what()).find("Pixel X 5"), std::string::npos) << e.what();
    }
  }
  {
    TPeakFindOptionsForm tool;
    try {
      Run(tool, {"Smoothing=Savitzky-Golay", "Left Points=0", "Right Points=0", "Smoothing Order=4"}, true);
      ADD_FAILURE() << "a filter of one point and order 4 was taken";
    } catch (const OrvexException& e) {
      EXPECT_NE(std::string(e.what()).find("Smoothing Order 4"), std::string::npos) << e.what();
    }
  }
  EXPECT_EQ(ObjectCount(), before);
  TPeakFindOptionsForm tool;
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"Pixel Y=-1"}).empty());
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"Smoothing=Fourier"}).empty());
}

TEST(PeakTable, TextAndJsonFormsCarryEveryField) {
  TPeakTableRow row;
  row.X = 4;
  row.Y = 7;
  row.Peak.PeakPixelPosition = 12.5;
  row.Peak.PeakXPosition = 1001.25;
  row.Peak.OriginalPeakAbsoluteHeight = 3;
  row.Peak.SmoothedPeakAbsoluteHeight = 2.5;
  row.Peak.PeakFWHM = 7.75;
  row.Peak.PeakRelativeHeight = 1.5;
  row.Peak.FWHMAsymmetryFactor = 0.5;
  row.Peak.IsNegativePeak = true;
  const std::string text = FormatPeakTable({row});
  EXPECT_EQ(text.substr(text.find('\n') + 1), "4\t7\t12.5\t1001.25\t3\t2.5\t7.75\t1.5\t0.5\t1\t0\n");
  const std::string object =
      "{\"x\":4,\"y\":7,\"pixel\":12.5,\"position\":1001.25,\"height\":3,\"smoothedHeight\":2.5,"
      "\"fwhm\":7.75,\"relativeHeight\":1.5,\"asymmetry\":0.5,\"negative\":true,\"custom\":false}";
  EXPECT_EQ(FormatPeakTableJson({row, row}), "[" + object + "," + object + "]");
  EXPECT_EQ(FormatPeakTableJson({}), "[]");
}

} // namespace
