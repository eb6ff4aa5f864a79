// The reference spectrum of the constant method: the average over marked pixels (hand-computed numbers,
// invalid lines left out), "Get Mask Average" making a one-spectrum graph that becomes the reference and
// serves a run, a dropped graph taken or refused, the intensity image, and the user's messages.
#include "common/Standardmessage.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "tools/spectral/Graphbackgroundsubtraction.h"

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace {

class TMessageRecorder : public IMessageLoggingStrategy {
public:
  explicit TMessageRecorder(std::vector<std::string>* texts) : FTexts(texts) {}
  void LogMessageAndReplyAndStrategy(IMessagingStrategy*, IStandardMessage* message,
                                     IStandardMessageReply*) override {
    if (message) FTexts->push_back(message->GetMessageText());
  }

private:
  std::vector<std::string>* FTexts;
};

// A 3 x 2 graph of 3 points; spectrum (x, y) holds {x + 10 y, 2 x, 100 y + p} at point p.
std::unique_ptr<TDGraph> SmallGraph() {
  auto graph = std::make_unique<TDGraph>();
  graph->SetFieldSize(3, 2, TDataFieldKind::Float, 3);
  for (int32_t y = 0; y < 2; ++y)
    for (int32_t x = 0; x < 3; ++x) {
      const float s[3] = {float(x + 10 * y), float(2 * x), float(100 * y + 2)};
      graph->SetSpectrum(x, y, s);
    }
  graph->SetAllLinesValid(true);
  return graph;
}

class GraphBackgroundReferenceTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(new TContinueAllMessages_MessagingStrategy);
    TMessageProxy::MsgProxySingleton()->SetMessageLoggingStrategy(new TMessageRecorder(&FMessages));
  }
  void TearDown() override {
    if (FTool.GetIsActive()) FTool.CleanUp();
    TMessageProxy::MsgProxySingleton()->SetMessageLoggingStrategy(nullptr);
  }
  void Open(int32_t sizeGraph) {
    TDemoOptions options;
    options.SizeX = 6;
    options.SizeY = 4;
    options.SizeGraph = sizeGraph;
    FIDs = CreateDemoProject(FProject, options);
    const TIntList ids{FIDs.Map};
    FTool.Init(&ids, nullptr, &FProject);
    ASSERT_TRUE(FTool.GetIsActive());
  }
  TDGraph& Map() { return *dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map)); }
  bool Told(const std::string& text) const {
    for (const std::string& m : FMessages)
      if (m.find(text) != std::string::npos) return true;
    return false;
  }

  TProject FProject;
  TDemoIDs FIDs;
  TGraphBackgroundSubtractionForm FTool;
  std::vector<std::string> FMessages;
};

} // namespace

TEST(GraphBackgroundAverage, TheAverageOverMarkedPixelsLeavesInvalidLinesOut) {
  oxtest::EnsureMemoryStrategy();
  std::unique_ptr<TDGraph> graph = SmallGraph();
  // Pixels (0, 0), (2, 0) and (1, 1): {0, 0, 2}, {2, 4, 2}, {11, 2, 102}.
  std::vector<bool> pixels = {true, false, true, false, true, false};
  std::vector<float> average;
  int64_t count = 0;
  ASSERT_TRUE(AverageSpectrumOverPixels(*graph, pixels, average, count));
  EXPECT_EQ(count, 3);
  ASSERT_EQ(average.size(), 3u);
  EXPECT_FLOAT_EQ(average[0], 13.0f / 3);
  EXPECT_FLOAT_EQ(average[1], 2.0f);
  EXPECT_FLOAT_EQ(average[2], 106.0f / 3);
  // With line 1 invalid only the two pixels of line 0 count.
  graph->SetLineValid(1, false);
  ASSERT_TRUE(AverageSpectrumOverPixels(*graph, pixels, average, count));
  EXPECT_EQ(count, 2);
  EXPECT_FLOAT_EQ(average[0], 1.0f);
  EXPECT_FLOAT_EQ(average[1], 2.0f);
  EXPECT_FLOAT_EQ(average[2], 2.0f);
  // Only pixels on the invalid line, none at all, or flags of another size: nothing.
  EXPECT_FALSE(AverageSpectrumOverPixels(*graph, {false, false, false, true, true, true}, average, count));
  EXPECT_TRUE(average.empty());
  EXPECT_EQ(count, 0);
  EXPECT_FALSE(AverageSpectrumOverPixels(*graph, std::vector<bool>(6, false), average, count));
  EXPECT_FALSE(AverageSpectrumOverPixels(*graph, std::vector<bool>(5, true), average, count));
}

TEST_F(GraphBackgroundReferenceTest, GetMaskAverageMakesTheReferenceAndARunSubtractsIt) {
  Open(64);
  std::string message;
  EXPECT_EQ(FTool.GetMaskAverage(std::vector<bool>(24, false), message), 0);
  EXPECT_EQ(message, TGraphBackgroundSubtractionForm::kMaskEmptyMessage);
  EXPECT_FALSE(FTool.HasReferenceSpectrum());

  std::vector<bool> pixels(24, false);
  pixels[1 + 0 * 6] = pixels[4 + 2 * 6] = true;
  const size_t before = FProject.DataList().size();
  const int32_t id = FTool.GetMaskAverage(pixels, message);
  ASSERT_NE(id, 0) << message;
  EXPECT_EQ(FProject.DataList().size(), before + 1);
  EXPECT_TRUE(FTool.HasReferenceSpectrum());
  EXPECT_EQ(FTool.GetIntParameter("Reference Spectrum"), id);
  const auto* reference = dynamic_cast<const TDGraph*>(FProject.FindData(id));
  ASSERT_NE(reference, nullptr);
  EXPECT_EQ(reference->GetNumberOfSpectra(), 1);
  EXPECT_EQ(reference->GetSizeGraph(), 64);
  EXPECT_EQ(reference->GetCaption(), "Mask Average (" + Map().GetCaption() + ")");
  EXPECT_EQ(reference->GetXTransformationID(), Map().GetXTransformationID());
  std::vector<float> a(64), b(64), r(64);
  Map().GetSpectrum(1, 0, a.data());
  Map().GetSpectrum(4, 2, b.data());
  reference->GetSpectrum(0, 0, r.data());
  for (int i = 0; i < 64; ++i)
    ASSERT_NEAR(r[i], 0.5f * (a[i] + b[i]), 1e-3f * std::fabs(a[i] + b[i]) + 1e-4f);

  // The constant method subtracts it: spectrum (1, 0) less the reference is half their difference.
  FTool.CleanUp();
  ASSERT_TRUE(FTool.Parameters().SetParameterValuesFromText({"Method=Constant", "Constant Value=0"}).empty());
  const TIntList results = FTool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
  ASSERT_EQ(results.size(), 1u);
  std::vector<float> result(64);
  dynamic_cast<TDGraph*>(FProject.FindData(results.front()))->GetSpectrum(1, 0, result.data());
  for (int i = 0; i < 64; ++i) ASSERT_NEAR(result[i], 0.5f * (a[i] - b[i]), 1e-3f * std::fabs(a[i]) + 1e-3f);
}

TEST_F(GraphBackgroundReferenceTest, ADroppedGraphIsTakenOnlyAsASingleSpectrum) {
  Open(64);
  std::string reason;
  EXPECT_FALSE(FTool.SetReferenceSpectrum(FIDs.Map, reason));
  EXPECT_NE(reason.find("not one"), std::string::npos) << reason;
  EXPECT_FALSE(FTool.SetReferenceSpectrum(99999, reason));
  EXPECT_NE(reason.find("99999"), std::string::npos) << reason;
  EXPECT_FALSE(FTool.HasReferenceSpectrum());
  std::unique_ptr<TDGraph> single =
      TDGraph::CreateNewGraph(&FProject, FIDs.Map, true, TDataFieldKind::Float, TDataSaveMode::Always, "One");
  ASSERT_TRUE(single);
  single->SetFieldSize(1, 1, TDataFieldKind::Float, 64);
  single->SetAllLinesValid(true);
  const int32_t id = single->GetID();
  FProject.AddData(std::move(single));
  ASSERT_TRUE(FTool.SetReferenceSpectrum(id, reason)) << reason;
  EXPECT_EQ(FTool.GetIntParameter("Reference Spectrum"), id);
  FTool.ClearReferenceSpectrum();
  EXPECT_FALSE(FTool.HasReferenceSpectrum());
}

TEST_F(GraphBackgroundReferenceTest, TheIntensityImageSumsEachSpectrumAndGoesWithTheTool) {
  Open(64);
  Map().SetLineValid(3, false);
  const int32_t id = FTool.MakeIntensityImage();
  ASSERT_NE(id, 0);
  const auto* image = dynamic_cast<const TDImage*>(FProject.FindData(id));
  ASSERT_NE(image, nullptr);
  ASSERT_EQ(image->GetSizeX(), 6);
  ASSERT_EQ(image->GetSizeY(), 4);
  std::vector<float> s(64);
  Map().GetSpectrum(5, 2, s.data());
  double sum = 0;
  for (float v : s) sum += v;
  EXPECT_NEAR(image->GetField(5, 2), sum, 1e-4 * std::fabs(sum));
  EXPECT_FALSE(image->GetLineValid(3));
  FTool.CleanUp();
  EXPECT_EQ(FProject.FindData(id), nullptr);
}

TEST_F(GraphBackgroundReferenceTest, AutoPolynomialOnAShortSpectrumIsToldWhenChosen) {
  Open(12);
  FTool.Interactive = true;
  ASSERT_TRUE(FTool.Parameters().SetParameterValuesFromText({"Method=Minimum"}).empty());
  EXPECT_FALSE(Told(TGraphBackgroundSubtractionForm::kAutoPolynomialTooSmallMessage));
  ASSERT_TRUE(FTool.Parameters().SetParameterValuesFromText({"Method=Auto Polynomial"}).empty());
  EXPECT_TRUE(Told(TGraphBackgroundSubtractionForm::kAutoPolynomialTooSmallMessage));
}

TEST_F(GraphBackgroundReferenceTest, AutoPolynomialOnALongSpectrumSaysNothing) {
  Open(64);
  FTool.Interactive = true;
  ASSERT_TRUE(FTool.Parameters().SetParameterValuesFromText({"Method=Auto Polynomial"}).empty());
  EXPECT_FALSE(Told(TGraphBackgroundSubtractionForm::kAutoPolynomialTooSmallMessage));
}

TEST(GraphBackgroundMasks, BothMasksAreMarkedAsSpectralMasks) {
  const TParameterTable& table = TGraphBackgroundSubtractionForm::Declaration();
  EXPECT_TRUE(table.FindDeclaration("Fit Mask")->SpectralMask);
  EXPECT_TRUE(table.FindDeclaration("Change Mask")->SpectralMask);
  EXPECT_FALSE(table.FindDeclaration("Order")->SpectralMask);
}
