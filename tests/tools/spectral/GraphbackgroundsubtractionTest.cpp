// Graph Background Subtraction through the frame: each result spectrum is the kernel's on the same spectrum
// with the masks read from their texts, lines valid as their inputs, the background kept by Extract
// Background, a reference spectrum, non-finite spectra, the same bytes on one and two threads, the preview,
// and refused settings or a cancel adding nothing.
#include "tools/spectral/Graphbackgroundsubtraction.h"

#include "common/OrvexException.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Graphmask.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include <gtest/gtest.h>

namespace {

constexpr int32_t kSizeX = 6, kSizeY = 4, kLength = 64;

class GraphBackgroundTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
    TDemoOptions options;
    options.SizeX = kSizeX;
    options.SizeY = kSizeY;
    options.SizeGraph = kLength;
    FIDs = CreateDemoProject(FProject, options);
  }
  void TearDown() override {
    TMCC::ClearProcessCancelRequest();
    TMCC::SetProcessThreadLimit(0);
  }
  TDGraph& Map() { return *dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map)); }
  TDGraph& Graph(int32_t id) { return *dynamic_cast<TDGraph*>(FProject.FindData(id)); }
  std::vector<float> Spectrum(const TDGraph& graph, int32_t x, int32_t y) {
    std::vector<float> values(static_cast<size_t>(graph.GetSizeGraph()));
    graph.GetSpectrum(x, y, values.data(), true);
    return values;
  }
  std::vector<bool> Mask(const std::string& text) {
    std::vector<bool> mask;
    std::string error;
    EXPECT_TRUE(ReadGraphMaskForGraph(FProject, FIDs.Map, text, "", mask, error)) << error;
    return mask;
  }
  TIntList Run(TGraphBackgroundSubtractionForm& tool, const std::vector<std::string>& settings,
               const std::string& command = "Extract", const TIntList& inputs = {}) {
    const TUserParameterProblems problems = tool.Parameters().SetParameterValuesFromText(settings);
    EXPECT_TRUE(problems.empty()) << (problems.empty() ? "" : problems.front().Message);
    return tool.RunNonInteractive(FProject, inputs.empty() ? TIntList{FIDs.Map} : inputs, command, false);
  }
  // The whole field of a graph, invalid lines included.
  std::vector<float> Field(const TDGraph& graph) {
    std::vector<float> all;
    for (int32_t y = 0; y < graph.GetSizeY(); ++y)
      for (int32_t x = 0; x < graph.GetSizeX(); ++x) {
        const std::vector<float> s = Spectrum(graph, x, y);
        all.insert(all.end(), s.begin(), s.end());
      }
    return all;
  }

  TProject FProject;
  TDemoIDs FIDs;
};

TEST_F(GraphBackgroundTest, PolynomialResultIsTheKernelsWithMasksFromTheirTexts) {
  TGraphBackgroundSubtractionForm tool;
  Map().SetLineValid(2, false);
  const TIntList results =
      Run(tool, {"Method=Polynomial", "Order=2", "Fit Mask=0:15 px, 40:63 px", "Change Mask=5:58 px"});
  ASSERT_EQ(results.size(), 1u);
  const TDGraph& result = Graph(results.front());
  EXPECT_EQ(result.GetCaption(), Map().GetCaption() + " (Background Subtracted)");
  EXPECT_EQ(result.GetSizeGraph(), kLength);
  EXPECT_EQ(result.GetXTransformationID(), Map().GetXTransformationID());
  const std::vector<bool> fitBits = Mask("0:15 px, 40:63 px"), changeBits = Mask("5:58 px");
  std::unique_ptr<bool[]> fit(new bool[kLength]), change(new bool[kLength]);
  for (int i = 0; i < kLength; ++i) {
    fit[i] = fitBits[i];
    change[i] = changeBits[i];
  }
  TPolynomialBackgroundFit polynomial;
  ASSERT_TRUE(polynomial.Prepare(kLength, fit.get(), 2));
  TBackgroundScratch scratch(kLength);
  std::vector<float> background(kLength), want(kLength);
  for (int32_t y = 0; y < kSizeY; ++y) {
    EXPECT_EQ(result.GetLineValid(y), y != 2);
    if (y == 2) continue;
    for (int32_t x = 0; x < kSizeX; ++x) {
      const std::vector<float> input = Spectrum(Map(), x, y);
      ASSERT_EQ(PolynomialBackground(polynomial, input.data(), change.get(), background.data(), want.data(),
                                     scratch),
                TBackgroundStatus::Done);
      const std::vector<float> got = Spectrum(result, x, y);
      for (int i = 0; i < kLength; ++i) {
        ASSERT_EQ(got[i], want[i]) << x << " " << y << " " << i;
        if (i < 5 || i > 58) {
          ASSERT_EQ(got[i], 0.0f);
        }
      }
    }
  }
}

TEST_F(GraphBackgroundTest, ExtractBackgroundKeepsWhatExtractSubtracts) {
  TGraphBackgroundSubtractionForm tool;
  const TIntList subtracted = Run(tool, {"Method=Minimum", "Offset=-2.5", "Fit Mask=10:50 px"});
  const TIntList backgrounds = Run(tool, {}, "Extract Background");
  ASSERT_EQ(backgrounds.size(), 1u);
  EXPECT_EQ(Graph(backgrounds.front()).GetCaption(), Map().GetCaption() + " (Background)");
  for (int32_t y = 0; y < kSizeY; ++y)
    for (int32_t x = 0; x < kSizeX; ++x) {
      const std::vector<float> input = Spectrum(Map(), x, y),
                               result = Spectrum(Graph(subtracted.front()), x, y),
                               background = Spectrum(Graph(backgrounds.front()), x, y);
      const float minimum = *std::min_element(input.begin() + 10, input.begin() + 51);
      for (int i = 0; i < kLength; ++i) {
        ASSERT_EQ(background[i], static_cast<float>(minimum - 2.5)) << i;
        ASSERT_EQ(result[i], input[i] - background[i]) << i;
      }
    }
}

TEST_F(GraphBackgroundTest, ConstantTakesTheReferenceSpectrumAndRefusesOneOfAnotherLength) {
  auto reference =
      TDGraph::CreateNewGraph(&FProject, FIDs.Map, true, TDataFieldKind::Float, TDataSaveMode::Always, "Ref");
  std::vector<float> values(kLength);
  for (int i = 0; i < kLength; ++i) values[i] = 0.25f * static_cast<float>(i);
  reference->SetSpectrum(0, 0, values.data());
  reference->SetLineValid(0, true);
  const int32_t referenceID = reference->GetID();
  FProject.AddData(std::move(reference));
  TGraphBackgroundSubtractionForm tool;
  const TIntList results =
      Run(tool, {"Method=Constant", "Constant Value=3", "Reference Spectrum=" + std::to_string(referenceID)});
  ASSERT_EQ(results.size(), 1u);
  const std::vector<float> input = Spectrum(Map(), 4, 3), result = Spectrum(Graph(results.front()), 4, 3);
  for (int i = 0; i < kLength; ++i) ASSERT_FLOAT_EQ(result[i], input[i] - (3.0f + values[i])) << i;

  // The map itself holds many spectra: refused, naming the parameter, nothing added.
  const size_t before = FProject.GetIDListOfAllData().size();
  try {
    Run(tool, {"Reference Spectrum=" + std::to_string(FIDs.Map)});
    FAIL() << "a map as reference was taken";
  } catch (const OrvexException& e) {
    EXPECT_NE(std::string(e.what()).find("Reference Spectrum"), std::string::npos) << e.what();
  }
  EXPECT_EQ(FProject.GetIDListOfAllData().size(), before);
}

TEST_F(GraphBackgroundTest, RefusedMasksAndOrdersNameWhatIsWrongAndAddNothing) {
  const size_t before = FProject.GetIDListOfAllData().size();
  struct TCase {
    std::vector<std::string> Settings;
    std::string Needle;
  };
  const std::vector<TCase> cases = {
      {{"Method=Polynomial", "Order=3", "Fit Mask=0:2 px"}, "Order 3 needs at least 4"},
      {{"Method=Auto Polynomial", "Order=0", "Fit Mask=none"}, "Fit Mask"},
      {{"Method=Polynomial", "Fit Mask=9:3 px"}, "Fit Mask"},
      {{"Method=Minimum", "Change Mask=100:500 px"}, "Change Mask"},
      {{"Method=Minimum", "Change Mask=graph:9999"}, "Change Mask"},
  };
  for (const TCase& c : cases) {
    TGraphBackgroundSubtractionForm tool;
    try {
      Run(tool, c.Settings);
      ADD_FAILURE() << c.Settings.back() << " was taken";
    } catch (const OrvexException& e) {
      EXPECT_NE(std::string(e.what()).find(c.Needle), std::string::npos) << e.what();
    }
    EXPECT_EQ(FProject.GetIDListOfAllData().size(), before);
  }
  // Values outside their limits don't reach a run at all.
  TGraphBackgroundSubtractionForm tool;
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"Order=10"}).empty());
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"Shape Size=5"}).empty());
  EXPECT_FALSE(tool.Parameters().SetParameterValuesFromText({"Method=Spline"}).empty());
}

TEST_F(GraphBackgroundTest, NonFiniteFitValuesMakeOneNaNSpectrumAndTheRunGoesOn) {
  std::vector<float> spectrum = Spectrum(Map(), 1, 1);
  spectrum[20] = std::numeric_limits<float>::quiet_NaN();
  Map().SetSpectrum(1, 1, spectrum.data());
  TGraphBackgroundSubtractionForm tool;
  const TIntList results = Run(tool, {"Method=Polynomial", "Order=1"});
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(tool.GetNotFiniteCount(), 1);
  const TDGraph& result = Graph(results.front());
  EXPECT_TRUE(result.GetLineValid(1));
  for (float v : Spectrum(result, 1, 1)) ASSERT_TRUE(std::isnan(v));
  for (float v : Spectrum(result, 2, 1)) ASSERT_TRUE(std::isfinite(v));
  // Outside the fit mask a NaN doesn't stop the spectrum.
  const TIntList masked = Run(tool, {"Fit Mask=30:63 px"});
  EXPECT_EQ(tool.GetNotFiniteCount(), 0);
  const std::vector<float> kept = Spectrum(Graph(masked.front()), 1, 1);
  EXPECT_TRUE(std::isnan(kept[20]));
  for (int i = 21; i < kLength; ++i) ASSERT_TRUE(std::isfinite(kept[i])) << i;
}

TEST_F(GraphBackgroundTest, SameBytesOnOneAndTwoThreadsForEveryMethod) {
  for (const char* method :
       {"Constant", "Minimum", "Polynomial", "Auto Polynomial", "Shape", "Average", "Auto Average"}) {
    std::vector<float> fields[2];
    for (int threads : {1, 2}) {
      TMCC::SetProcessThreadLimit(threads);
      TGraphBackgroundSubtractionForm tool;
      const TIntList results = Run(
          tool, {std::string("Method=") + method, "Order=3", "Shape Size=10", "Fit Mask=0:40 px, 50:63 px"});
      ASSERT_EQ(results.size(), 1u) << method;
      fields[threads - 1] = Field(Graph(results.front()));
    }
    ASSERT_EQ(fields[0].size(), fields[1].size());
    EXPECT_EQ(std::memcmp(fields[0].data(), fields[1].data(), fields[0].size() * sizeof(float)), 0) << method;
  }
}

TEST_F(GraphBackgroundTest, ExtractAllMakesOneResultPerInput) {
  auto copy =
      TDGraph::CreateNewGraph(&FProject, FIDs.Map, false, TDataFieldKind::Float, TDataSaveMode::Always, "B");
  copy->CopyFieldFrom(Map());
  const int32_t second = copy->GetID();
  FProject.AddData(std::move(copy));
  TGraphBackgroundSubtractionForm tool;
  tool.Parameters().SetParameterValuesFromText({"Method=Average", "Size [Pixel]=3"});
  const TIntList results = tool.RunNonInteractive(FProject, {FIDs.Map, second}, "Extract", true);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(Graph(results[1]).GetCaption(), "B (Background Subtracted)");
  EXPECT_EQ(Field(Graph(results[0])), Field(Graph(results[1])));
}

TEST_F(GraphBackgroundTest, ACancelledRunAddsNothing) {
  const size_t before = FProject.GetIDListOfAllData().size();
  TMCC::RequestProcessCancel();
  TGraphBackgroundSubtractionForm tool;
  TIntList results;
  try {
    results = Run(tool, {"Method=Polynomial"});
  } catch (const std::exception&) {
    // a cancel may also end the run with an exception; either way nothing is kept
  }
  TMCC::ClearProcessCancelRequest();
  EXPECT_TRUE(results.empty());
  EXPECT_EQ(FProject.GetIDListOfAllData().size(), before);
}

TEST_F(GraphBackgroundTest, PreviewShowsTheBackgroundOfTheSpectrumAtThePosition) {
  TGraphBackgroundSubtractionForm tool;
  tool.Parameters().SetParameterValuesFromText({"Method=Minimum", "Offset=1"});
  const TIntList ids{FIDs.Map};
  tool.Init(&ids, nullptr, &FProject);
  ASSERT_TRUE(tool.GetIsActive());
  const auto* preview = dynamic_cast<const TDGraph*>(FProject.FindData(tool.GetPreviewGraphID()));
  ASSERT_NE(preview, nullptr);
  EXPECT_EQ(preview->GetCaption(), "Background Preview");
  const std::vector<float> input = Spectrum(Map(), tool.GetPositionX(), tool.GetPositionY());
  const float minimum = *std::min_element(input.begin(), input.end());
  EXPECT_TRUE(preview->GetLineValid(0));
  for (float v : Spectrum(*preview, 0, 0)) ASSERT_EQ(v, minimum + 1.0f);
  // A new setting recalculates it.
  tool.Parameters().SetParameterValuesFromText({"Offset=3"});
  for (float v : Spectrum(*preview, 0, 0)) ASSERT_EQ(v, minimum + 3.0f);
  // Settings the spectrum can't serve leave the preview empty and raise nothing.
  EXPECT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"Method=Polynomial", "Order=5", "Fit Mask=0:2 px"})
                  .empty());
  EXPECT_FALSE(preview->GetLineValid(0));
  tool.CleanUp();
}

} // namespace
