// The filter extraction engine and the two extraction tools on a demo map whose spectra are set to known
// shapes: values per pixel against closed forms, the part-of-spectrum read against the whole read, the
// result shapes (image, line profile, values), filter objects with their target links, and bad input.
#include "project/Filterextraction.h"

#include "common/Saveandload.h"
#include "common/Tagcontrol.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dfilter.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtext.h"
#include "data/Graphfilter.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "project/Quickfilterfile.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "tools/spectral/Filterextracttools.h"

#include <cmath>
#include <filesystem>
#include <limits>

#include <gtest/gtest.h>

namespace {

class FilterExtractionTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
    TDemoOptions options;
    options.SizeX = 7;
    options.SizeY = 5;
    options.SizeGraph = 256;
    FIDs = CreateDemoProject(FProject, options);
    ASSERT_TRUE(GetGraphAxisPositions(Map(), 0, -1, FAxis));
  }
  TDGraph& Map() { return *dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map)); }
  size_t ObjectCount() const { return FProject.GetIDListOfAllData().size(); }

  // Every spectrum: level (x + 1)(y + 2) everywhere, plus a triangle of height h centred at the axis
  // value centre (symmetric in pixels), so that sums and centres have closed forms.
  void SetShapes(int32_t centrePixel, int32_t halfBase, float height) {
    const int32_t n = Map().GetSizeGraph();
    std::vector<float> s(static_cast<size_t>(n));
    for (int32_t y = 0; y < Map().GetSizeY(); ++y)
      for (int32_t x = 0; x < Map().GetSizeX(); ++x) {
        const float level = static_cast<float>((x + 1) * (y + 2));
        for (int32_t g = 0; g < n; ++g) {
          const int32_t d = std::abs(g - centrePixel);
          s[static_cast<size_t>(g)] = level + (d < halfBase ? height * (1.0f - float(d) / halfBase) : 0.0f);
        }
        Map().SetSpectrum(x, y, s.data());
      }
  }

  // The centre of mass of the triangle of SetShapes on the axis (not linear in the pixels).
  double TriangleCentre(int32_t centrePixel, int32_t halfBase) const {
    double sum = 0, weights = 0;
    for (int32_t d = 1 - halfBase; d < halfBase; ++d) {
      const double w = 1.0 - std::abs(d) / static_cast<double>(halfBase);
      sum += w * FAxis.X[static_cast<size_t>(centrePixel + d)];
      weights += w;
    }
    return sum / weights;
  }

  TProject FProject;
  TDemoIDs FIDs;
  TGraphAxisPositions FAxis;
};

TEST_F(FilterExtractionTest, SumAverageAndPositionAgainstClosedForms) {
  SetShapes(128, 6, 50.0f);
  // A range around the triangle, without background: n pixels of the level plus the triangle's area.
  const double centre = FAxis.X[128];
  const double width = std::abs(FAxis.X[140] - FAxis.X[116]);
  TGraphFilter sum(gfkSum), average(gfkAverage), position(gfkPosition);
  for (TGraphFilter* f : {&sum, &average, &position}) {
    f->Info().FilterPosition = centre;
    f->Info().FilterWidth = width;
    f->Info().LowerBGPixels = f->Info().UpperBGPixels = 0;
    f->SetNewInputGraph(&Map());
    ASSERT_EQ(f->CopyParamsForThread(), TGraphFilterRangeStatus::Inside);
  }
  // With background on both sides the level drops out: the centre of mass is the triangle's centre.
  position.Info().LowerBGPixels = position.Info().UpperBGPixels = 3;
  position.CopyParamsForThread();
  const int32_t n = sum.GetNumberOfPixels();
  ASSERT_GE(n, 20);
  TFilterExtraction all(Map());
  all.AddGraphFilter(sum);
  all.AddGraphFilter(average);
  all.AddGraphFilter(position);
  ASSERT_TRUE(all.Run());
  Map().SetLineValid(2, false);
  TFilterExtraction alone(Map()); // a single filter reads only its part of the spectra
  alone.AddGraphFilter(sum);
  ASSERT_TRUE(alone.Run());
  int32_t first = 0, count = 0;
  alone.GetPixelRangeRead(first, count);
  EXPECT_EQ(count, n);
  const double triangle = 50.0 * 6; // sum of 50 (1 - |d|/6) over |d| < 6
  for (int32_t y = 0; y < 5; ++y)
    for (int32_t x = 0; x < 7; ++x) {
      const size_t e = static_cast<size_t>(x + 7 * y);
      const double level = (x + 1) * (y + 2);
      EXPECT_NEAR(all.GetValues(0)[e], level * n + triangle, 1e-3) << x << " " << y;
      EXPECT_NEAR(all.GetValues(1)[e], level + triangle / n, 1e-4);
      EXPECT_NEAR(all.GetValues(2)[e], TriangleCentre(128, 6), 2e-4 * std::abs(centre));
      EXPECT_EQ(alone.GetValues(0)[e], y == 2 ? 0.0f : all.GetValues(0)[e]);
    }
  EXPECT_TRUE(alone.GetLineValid(1));
  EXPECT_FALSE(alone.GetLineValid(2));
}

TEST_F(FilterExtractionTest, ResultShapesForMapLineAndSingleSpectrum) {
  SetShapes(100, 4, 10.0f);
  TGraphFilter sum(gfkMaximum);
  sum.Info().FilterPosition = FAxis.X[100];
  sum.Info().FilterWidth = std::abs(FAxis.X[110] - FAxis.X[90]);
  sum.SetNewInputGraph(&Map());
  sum.CopyParamsForThread();
  TFilterExtraction map(Map());
  map.AddGraphFilter(sum);
  ASSERT_TRUE(map.Run());
  auto image = map.CreateResultObject(FProject, 0, "max");
  ASSERT_NE(dynamic_cast<TDImage*>(image.get()), nullptr);
  const auto& im = dynamic_cast<TDImage&>(*image);
  EXPECT_EQ(im.GetSizeX(), 7);
  EXPECT_EQ(im.GetSizeY(), 5);
  EXPECT_FLOAT_EQ(im.GetField(4, 3), 10.0f); // background (4 pixels each side) takes the level away

  // One line: a profile graph of SizeX points; one spectrum: text.
  auto line =
      TDGraph::CreateNewGraph(&FProject, FIDs.Map, false, TDataFieldKind::Float, TDataSaveMode::Always, "L");
  line->SetFieldSize(7, 1, TDataFieldKind::Float, Map().GetSizeGraph());
  std::vector<float> s(static_cast<size_t>(Map().GetSizeGraph()));
  for (int32_t x = 0; x < 7; ++x) {
    Map().GetSpectrum(x, 3, s.data());
    s[100] += static_cast<float>(x);
    line->SetSpectrum(x, 0, s.data());
  }
  line->SetLineValid(0, true);
  TDGraph* lineGraph = line.get();
  FProject.AddData(std::move(line));
  sum.SetNewInputGraph(lineGraph);
  sum.CopyParamsForThread();
  TFilterExtraction profile(*lineGraph);
  profile.AddGraphFilter(sum);
  ASSERT_TRUE(profile.Run());
  auto graph = profile.CreateResultObject(FProject, 0, "profile");
  auto* g = dynamic_cast<TDGraph*>(graph.get());
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->GetSizeX(), 1);
  EXPECT_EQ(g->GetSizeGraph(), 7);
  for (int32_t x = 0; x < 7; ++x) EXPECT_FLOAT_EQ(g->GetField(0, 0, x), 10.0f + x);

  auto* truth = dynamic_cast<TDGraph*>(FProject.FindData(FIDs.TrueComponents.front()));
  sum.SetNewInputGraph(truth);
  sum.CopyParamsForThread();
  TFilterExtraction single(*truth);
  single.AddGraphFilter(sum);
  ASSERT_TRUE(single.Run());
  EXPECT_EQ(single.CreateResultObject(FProject, 0, "x"), nullptr);
  EXPECT_EQ(single.MakeValuesText().rfind("Maximum\t", 0), 0u) << single.MakeValuesText();
}

TEST_F(FilterExtractionTest, NonFiniteValuesRefusedOnlyWhereAFilterReads) {
  SetShapes(128, 6, 50.0f);
  TGraphFilter sum(gfkSum);
  sum.Info().FilterPosition = FAxis.X[128];
  sum.Info().FilterWidth = std::abs(FAxis.X[132] - FAxis.X[124]);
  sum.SetNewInputGraph(&Map());
  sum.CopyParamsForThread();
  Map().SetField(2, 3, 10, std::numeric_limits<float>::infinity()); // far outside range and background
  TFilterExtraction outside(Map());
  outside.AddGraphFilter(sum);
  EXPECT_TRUE(outside.Run());
  Map().SetField(5, 1, 130, std::numeric_limits<float>::quiet_NaN());
  TFilterExtraction inside(Map());
  inside.AddGraphFilter(sum);
  try {
    inside.Run();
    FAIL() << "NaN accepted";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find("pixel (5, 1), point 130"), std::string::npos) << e.what();
  }
}

TEST_F(FilterExtractionTest, FilterViewerExtractMakesImagesAndRefusesBadRanges) {
  SetShapes(128, 6, 50.0f);
  TFilterViewerExtractForm tool;
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText(
                      {"FilterKind=Position", "FilterPosition=" + std::to_string(FAxis.X[128]),
                       "FilterWidth=" + std::to_string(std::abs(FAxis.X[140] - FAxis.X[116]))})
                  .empty());
  const TIntList ids = tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
  ASSERT_EQ(ids.size(), 1u);
  const auto* image = dynamic_cast<const TDImage*>(FProject.FindData(ids[0]));
  ASSERT_NE(image, nullptr);
  EXPECT_NEAR(image->GetField(6, 4), TriangleCentre(128, 6), 2e-4 * std::abs(FAxis.X[128]));

  const size_t before = ObjectCount();
  std::string why;
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &FIDs.TrueAbundances, nullptr, &why));
  EXPECT_NE(why.find("TDImage"), std::string::npos) << why;
  const TIntList none;
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &none, nullptr, &why));
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"FilterWidth=-1"}).empty());
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"LowerBGPixels=17"}).empty());
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"FilterPosition=-50000"}).empty());
  try {
    tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
    FAIL() << "a range off the axis was accepted";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find("lies off the axis"), std::string::npos) << e.what();
  }
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"FilterPosition=" + std::to_string(FAxis.X[128])})
                  .empty());
  TMCC::RequestProcessCancel();
  EXPECT_THROW(tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false), std::exception);
  TMCC::ClearProcessCancelRequest();
  EXPECT_EQ(ObjectCount(), before);
}

TEST_F(FilterExtractionTest, FilterManagerExtractLinksAnImagePerOutput) {
  SetShapes(128, 6, 50.0f);
  TFilterManagerExtractForm tool;
  const double lo = std::min(FAxis.X[116], FAxis.X[140]), hi = std::max(FAxis.X[116], FAxis.X[140]);
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"FilterClass=MinMax", "RangeLower=" + std::to_string(lo),
                                               "RangeUpper=" + std::to_string(hi)})
                  .empty());
  const TIntList ids = tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
  ASSERT_EQ(ids.size(), 5u); // four images, then the filter
  auto* filter = dynamic_cast<TDMinMaxFilter*>(FProject.FindData(ids[4]));
  ASSERT_NE(filter, nullptr);
  for (int32_t i = 0; i < 4; ++i) EXPECT_EQ(filter->GetTargetID(i), ids[static_cast<size_t>(i)]);
  // Output 2 is the maximum less background: the triangle's height.
  const auto* maximum = dynamic_cast<const TDImage*>(FProject.FindData(ids[2]));
  ASSERT_NE(maximum, nullptr);
  EXPECT_NEAR(maximum->GetField(3, 2), 50.0, 1e-3);
  const auto* at = dynamic_cast<const TDImage*>(FProject.FindData(ids[3]));
  EXPECT_NEAR(at->GetField(3, 2), FAxis.X[128], 1e-3);
}

TEST_F(FilterExtractionTest, QuickFilterFilesRoundTripAndReplaceTheSingleFilter) {
  SetShapes(128, 6, 50.0f);
  oxtest::TempDir dir;
  TGraphFilter position(gfkPosition), maximum(gfkMaximum);
  position.Info().FilterCaption = "centre";
  position.Info().FilterPosition = FAxis.X[128];
  position.Info().FilterWidth = std::abs(FAxis.X[140] - FAxis.X[116]);
  maximum.Info().FilterCaption = "height";
  maximum.Info().FilterPosition = FAxis.X[128];
  maximum.Info().FilterWidth = std::abs(FAxis.X[136] - FAxis.X[120]);
  maximum.Info().LowerBGPixels = 2;
  maximum.Info().UpperBGPixels = 0;
  const std::string file = dir.File("two.oxf");
  ASSERT_EQ(SaveQuickFilters(file, {&position, &maximum}), "");
  std::vector<std::unique_ptr<TGraphFilter>> back;
  ASSERT_EQ(LoadQuickFilters(file, back), "");
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0]->Info(), position.Info());
  EXPECT_EQ(back[1]->Info(), maximum.Info());

  // The file's filters replace the parameters' one: an image each, in file order, with their captions.
  TFilterViewerExtractForm tool;
  ASSERT_TRUE(
      tool.Parameters().SetParameterValuesFromText({"FilterKind=Sum", "QuickFilterFile=" + file}).empty());
  const TIntList ids = tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_EQ(FProject.FindData(ids[0])->GetCaption(), "centre");
  EXPECT_EQ(FProject.FindData(ids[1])->GetCaption(), "height");
  EXPECT_NEAR(dynamic_cast<TDImage*>(FProject.FindData(ids[0]))->GetField(1, 1), TriangleCentre(128, 6),
              2e-4 * std::abs(FAxis.X[128]));
  EXPECT_NEAR(dynamic_cast<TDImage*>(FProject.FindData(ids[1]))->GetField(1, 1), 50.0, 1e-3);

  // Wrong identification, wrong version, truncated: the texts of each, and a run adds nothing.
  const std::string other = dir.File("other.oxf");
  TFileHandle out = CreateTagFile(other, "ORX_PROJ");
  TTagControl root;
  root.WriteTag(out, "OrvexFilterViewerFilters", TTagKind::TagList);
  root.CloseWriteTag(out);
  CloseFile(out);
  EXPECT_EQ(LoadQuickFilters(other, back), kQuickFilterWrongIdentification);
  const std::string version = dir.File("version.oxf");
  out = CreateTagFile(version, "ORX_FILT");
  root.WriteTag(out, "OrvexFilterViewerFilters", TTagKind::TagList);
  TTagControl value;
  value.SaveIntTag(out, "QuickFilterFileVersion", ThisQuickFilterFileVersion + 1);
  value.SaveIntTag(out, "NumberOfFilters", 0);
  root.CloseWriteTag(out);
  CloseFile(out);
  EXPECT_EQ(LoadQuickFilters(version, back), kQuickFilterWrongVersion);
  const std::string cut = dir.File("cut.oxf");
  std::filesystem::copy_file(file, cut);
  std::filesystem::resize_file(cut, std::filesystem::file_size(file) * 2 / 3);
  EXPECT_EQ(LoadQuickFilters(cut, back), kQuickFilterLoadFailed);
  EXPECT_TRUE(back.empty());
  EXPECT_EQ(LoadQuickFilters(dir.File("missing.oxf"), back), kQuickFilterLoadFailed);
  const size_t before = ObjectCount();
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"QuickFilterFile=" + version}).empty());
  try {
    tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
    FAIL() << "a file of another version was read";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find(kQuickFilterWrongVersion), std::string::npos) << e.what();
  }
  EXPECT_EQ(ObjectCount(), before);
}

} // namespace
