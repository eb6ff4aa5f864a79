// The Image Fourier Filter: its patterns and sampling on plain arrays, and the tool on images with known
// spectra through the frame (numpy comparisons of every pattern are in the command line test).
#include "tools/image/Imagefourierfilter.h"

#include "common/threads/Multicorecalc.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"

#include <chrono>
#include <cmath>
#include <functional>
#include <numbers>

#include <gtest/gtest.h>

namespace {

size_t At(int i, int j, int n) {
  return static_cast<size_t>(j + n / 2) * n + static_cast<size_t>(i + n / 2);
}

TEST(FourierDrawField, LowPassAtZeroKeepsOnlyTheConstantPartHighPassNothing) {
  for (int n : {6, 7}) {
    std::vector<uint8_t> field(static_cast<size_t>(n) * n, 7);
    CalculateFourierDrawField(TFourierFilterType::LowPass, 0.0, 0.3, 0.2, n, field.data());
    for (int j = -(n / 2); j < (n + 1) / 2; ++j)
      for (int i = -(n / 2); i < (n + 1) / 2; ++i)
        ASSERT_EQ(field[At(i, j, n)], (i != 0 || j != 0) ? 1 : 0) << n << " " << i << " " << j;
    CalculateFourierDrawField(TFourierFilterType::HighPass, 0.0, 0.3, 0.2, n, field.data());
    for (uint8_t marked : field) ASSERT_EQ(marked, 0);
  }
}

TEST(FourierDrawField, PatternsUseEachAxisStepAndLinesAreComplementary) {
  const int n = 9;
  std::vector<uint8_t> low(n * n), high(n * n), lowLine(n * n), highLine(n * n);
  // x steps of 0.5, y steps of 0.25: frequency 0.9 lies between indices 1 and 2 in x, 3 and 4 in y.
  CalculateFourierDrawField(TFourierFilterType::LowPass, 0.9, 0.5, 0.25, n, low.data());
  CalculateFourierDrawField(TFourierFilterType::HighPass, 0.9, 0.5, 0.25, n, high.data());
  CalculateFourierDrawField(TFourierFilterType::LowPassLine, 0.9, 0.5, 0.25, n, lowLine.data());
  CalculateFourierDrawField(TFourierFilterType::HighPassLine, 0.9, 0.5, 0.25, n, highLine.data());
  for (int j = -4; j <= 4; ++j)
    for (int i = -4; i <= 4; ++i) {
      const double r2 = 0.25 * i * i + 0.0625 * j * j;
      EXPECT_EQ(low[At(i, j, n)], r2 > 0.81 ? 1 : 0) << i << " " << j;
      EXPECT_EQ(high[At(i, j, n)], r2 < 0.81 ? 1 : 0) << i << " " << j;
      EXPECT_EQ(lowLine[At(i, j, n)], std::abs(i) >= 2 ? 1 : 0) << i << " " << j;
      EXPECT_EQ(highLine[At(i, j, n)], std::abs(i) <= 1 ? 1 : 0) << i << " " << j;
    }
  // Around the circle: 0.25 + 0.25 inside, 0.25 + 0.5625 = 0.8125 just outside, 0 + 0.5625 inside.
  EXPECT_EQ(low[At(1, 2, n)], 0);
  EXPECT_EQ(low[At(1, 3, n)], 1);
  EXPECT_EQ(low[At(0, 3, n)], 0);
}

TEST(FourierDrawField, RemoveHarmonicsStepsAtLeastTwoAndFreeHandKeepsTheField) {
  const int n = 12;
  std::vector<uint8_t> field(n * n);
  auto marked = [&](double f) {
    CalculateFourierDrawField(TFourierFilterType::RemoveHarmonics, f, 0.5, 0.1, n, field.data());
    std::vector<int> columns;
    for (int i = -6; i < 6; ++i) {
      for (int j = -6; j < 6; ++j) EXPECT_EQ(field[At(i, j, n)], field[At(i, -6, n)]) << "all rows alike";
      if (field[At(i, 0, n)]) columns.push_back(i);
    }
    return columns;
  };
  EXPECT_EQ(marked(0.0), (std::vector<int>{-6, -4, -2, 2, 4})); // below two steps: every second index
  EXPECT_EQ(marked(0.7), (std::vector<int>{-6, -4, -2, 2, 4}));
  EXPECT_EQ(marked(1.6), (std::vector<int>{-6, -3, 3})); // trunc(3.2) = 3
  EXPECT_EQ(marked(-2.0), (std::vector<int>{-4, 4}));    // the sign doesn't count
  EXPECT_EQ(marked(100.0), (std::vector<int>{}));

  std::vector<uint8_t> drawn(n * n, 0);
  drawn[At(2, -1, n)] = 1;
  const std::vector<uint8_t> before = drawn;
  CalculateFourierDrawField(TFourierFilterType::FreeHand, 1.0, 0.5, 0.1, n, drawn.data());
  EXPECT_EQ(drawn, before);
  try {
    CalculateFourierDrawField(static_cast<TFourierFilterType>(9), 1.0, 0.5, 0.1, n, drawn.data());
    ADD_FAILURE() << "no exception";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find("Not implemented"), std::string::npos) << e.what();
  }
}

TEST(FourierSampling, RowsAgreeWithTheImagesBilinearInterpolation) {
  const int sizeX = 5, sizeY = 3, n = 5;
  std::vector<float> values(sizeX * sizeY);
  for (int k = 0; k < sizeX * sizeY; ++k) values[k] = static_cast<float>(std::sin(1.3 * k) * 10);
  const double stepX = 1.0, stepY = double(sizeY) / n;
  std::vector<TComplex> row(n);
  for (int y = 0; y < n; ++y) {
    const double position = std::min(y * stepY, double(sizeY - 1));
    const int j = static_cast<int>(position), j1 = std::min(j + 1, sizeY - 1);
    SampleFourierRow(&values[j * sizeX], &values[j1 * sizeX], position - j, sizeX, stepX, n, row.data());
    for (int x = 0; x < n; ++x) {
      EXPECT_NEAR(
          row[x].real(),
          TDImage::GetInterpolatedValueFromImageArray(x * stepX, y * stepY, sizeX, sizeY, values.data()),
          1e-5)
          << x << " " << y;
      EXPECT_EQ(row[x].imag(), 0.0);
    }
  }
  // Sampling a 3-value line onto 7 points: clamped at the end, linear between.
  const float line[3] = {0, 3, 6};
  std::vector<TComplex> wide(7);
  SampleFourierRow(line, line, 0.0, 3, 3.0 / 7.0, 7, wide.data());
  for (int x = 0; x < 7; ++x) EXPECT_NEAR(wide[x].real(), std::min(3.0 * x * 3.0 / 7.0, 6.0), 1e-12);
}

TEST(FourierScale, LinearLogAndSqrt) {
  EXPECT_EQ(ScaleFourierAmplitude(4.0, TFourierScaleType::Linear), 4.0);
  EXPECT_DOUBLE_EQ(ScaleFourierAmplitude(4.0, TFourierScaleType::Sqrt), 2.0);
  EXPECT_DOUBLE_EQ(ScaleFourierAmplitude(std::exp(2.0), TFourierScaleType::Log), 2.0);
  EXPECT_DOUBLE_EQ(ScaleFourierAmplitude(0.0, TFourierScaleType::Log), std::log(1e-36));
}

class ImageFourierFilterTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
  }
  void TearDown() override { TMCC::ClearProcessCancelRequest(); }

  // An image of f(x, y), with a space transformation of the given pixel sizes (none when 0).
  int32_t AddImage(int sizeX, int sizeY, const std::function<double(int, int)>& f, double pixelX = 0,
                   double pixelY = 0) {
    auto image = std::make_unique<TDImage>();
    image->SetID(FProject.GetNewDataID());
    image->SetCaption("Test image");
    image->SetFieldSize(sizeX, sizeY);
    std::vector<float> line(static_cast<size_t>(sizeX));
    for (int y = 0; y < sizeY; ++y) {
      for (int x = 0; x < sizeX; ++x) line[x] = static_cast<float>(f(x, y));
      image->SetLine(y, line.data());
      image->SetLineValid(y, true);
    }
    if (pixelX > 0) {
      auto space = std::make_unique<TDSpaceTransformation>();
      space->SetID(FProject.GetNewDataID());
      space->ViewPort().SetScale({pixelX, pixelY, 1.0});
      image->SetSpaceTransformationID(space->GetID());
      FProject.AddData(std::move(space));
    }
    const int32_t id = image->GetID();
    FProject.AddData(std::move(image));
    return id;
  }
  TDImage& Image(int32_t id) { return *dynamic_cast<TDImage*>(FProject.FindData(id)); }
  void Set(TImageFourierFilterForm& tool, const std::vector<std::string>& assignments) {
    ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText(assignments).empty());
  }
  // Runs a command on an open, non-interactive tool; the one image it made.
  TDImage& Run(TImageFourierFilterForm& tool, const std::string& command) {
    EXPECT_TRUE(tool.ExecuteCommand(command));
    EXPECT_FALSE(tool.GetLastResultIDs().empty());
    return Image(tool.GetLastResultIDs().front());
  }
  void Open(TImageFourierFilterForm& tool, int32_t id) {
    tool.Interactive = false;
    TIntList ids{id};
    tool.Init(&ids, nullptr, &FProject);
  }

  TProject FProject;
};

constexpr double kTwoPi = 2 * std::numbers::pi;

TEST_F(ImageFourierFilterTest, FreeHandRemovesTheMarkedCosineOfASquareImage) {
  for (int n : {8, 9}) {
    auto f = [n](int x, int y) {
      return 3 + 2 * std::cos(kTwoPi * 2 * x / n) + 0.5 * std::sin(kTwoPi * y / n);
    };
    const int32_t id = AddImage(n, n, f, 0.5, 0.5);
    TImageFourierFilterForm tool;
    Open(tool, id);
    // Nothing marked: the square image comes back as it is.
    const TDImage& same = Run(tool, "Extract");
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) ASSERT_NEAR(same.GetField(x, y), f(x, y), 1e-5) << n;
    ASSERT_EQ(tool.GetN(), n);
    tool.DrawField()[At(2, 0, n)] = 1;
    tool.DrawField()[At(-2, 0, n)] = 1;
    const TDImage& result = Run(tool, "Extract");
    EXPECT_NE(result.GetCaption().find(" (Fourier Filter)"), std::string::npos);
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x)
        ASSERT_NEAR(result.GetField(x, y), f(x, y) - 2 * std::cos(kTwoPi * 2 * x / n), 1e-5);
    EXPECT_EQ(result.GetSpaceTransformationID(), Image(id).GetSpaceTransformationID());
    tool.CleanUp();
  }
}

TEST_F(ImageFourierFilterTest, LowPassCountsFrequenciesInTheImagesOwnUnitsPerAxis) {
  // 8 x 8 pixels of 0.5 µm by 0.25 µm: one index step is 0.25 1/µm in x and 0.5 1/µm in y.
  auto f = [](int x, int y) {
    return 3 + 2 * std::cos(kTwoPi * 3 * x / 8) + 0.5 * std::sin(kTwoPi * y / 8) +
           std::cos(kTwoPi * 2 * y / 8);
  };
  const int32_t id = AddImage(8, 8, f, 0.5, 0.25);
  TImageFourierFilterForm tool;
  Set(tool, {"FilterTypeComboBox=Low Pass", "FilterFrequency=0.6"});
  Open(tool, id);
  // Kept: x index 0..2 (0.5 1/µm), y index 1 (0.5 1/µm); gone: x index 3 (0.75), y index 2 (1.0).
  const TDImage& result = Run(tool, "Extract");
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) ASSERT_NEAR(result.GetField(x, y), 3 + 0.5 * std::sin(kTwoPi * y / 8), 1e-5);
  // High Pass at the same frequency keeps exactly the rest.
  Set(tool, {"FilterTypeComboBox=High Pass"});
  const TDImage& rest = Run(tool, "Extract");
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x)
      ASSERT_NEAR(rest.GetField(x, y), f(x, y) - 3 - 0.5 * std::sin(kTwoPi * y / 8), 1e-5);
}

TEST_F(ImageFourierFilterTest, AmplitudeImageHasFrequencyZeroInTheMiddleAndAxesInInverseMicrometres) {
  // 6 x 4 (N = 6, even) and 5 x 3 (N = 5, odd) constant images: all amplitude at (N/2, N/2) = value N².
  for (auto [sizeX, sizeY] : {std::pair{6, 4}, std::pair{5, 3}}) {
    const int n = sizeX;
    const int32_t id = AddImage(
        sizeX, sizeY, [](int, int) { return 2.0; }, 0.4, 0.8);
    TImageFourierFilterForm tool;
    const TIntList results = tool.RunNonInteractive(FProject, {id}, "Extract Amplitude", false);
    ASSERT_EQ(results.size(), 2u);
    const TDImage& amplitude = Image(results[0]);
    EXPECT_NE(amplitude.GetCaption().find(" (Fourier Amplitude)"), std::string::npos);
    ASSERT_EQ(amplitude.GetSizeX(), n);
    ASSERT_EQ(amplitude.GetSizeY(), n);
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x)
        ASSERT_NEAR(amplitude.GetField(x, y), (x == n / 2 && y == n / 2) ? 2.0 * n * n : 0.0, 1e-4);
    const auto* inverse =
        dynamic_cast<const TDSpaceTransformation*>(FProject.FindData(amplitude.GetSpaceTransformationID()));
    ASSERT_NE(inverse, nullptr);
    EXPECT_EQ(inverse->GetID(), results[1]);
    EXPECT_EQ(inverse->GetCaption(), "Inverse Spatial Transformation");
    EXPECT_EQ(inverse->GetUnitKind(), TUnitKind::InverseSpace);
    ASSERT_NE(FProject.FindData(inverse->GetInterpretationID()), nullptr);
    EXPECT_EQ(FProject.FindData(inverse->GetInterpretationID())->GetClassNameA(),
              "TDInverseSpaceInterpretation");
    const double zero[3] = {double(n / 2), double(n / 2), 0}, corner[3] = {0, 0, 0};
    double real[3];
    inverse->BinToReal(zero, real);
    EXPECT_NEAR(real[0], 0.0, 1e-12);
    EXPECT_NEAR(real[1], 0.0, 1e-12);
    inverse->BinToReal(corner, real);
    EXPECT_NEAR(real[0], -(n / 2) / (sizeX * 0.4), 1e-12);
    EXPECT_NEAR(real[1], -(n / 2) / (sizeY * 0.8), 1e-12);
    const auto* z =
        dynamic_cast<const TDZInterpretation*>(FProject.FindData(amplitude.GetZInterpretationID()));
    ASSERT_NE(z, nullptr);
    EXPECT_EQ(z->GetCaption(), "Amplitude");
  }
}

TEST_F(ImageFourierFilterTest, AnImageWithoutTransformationCountsOneMicrometrePerPixel) {
  const int32_t id = AddImage(10, 4, [](int x, int) { return std::cos(kTwoPi * x / 10); });
  TImageFourierFilterForm tool;
  Set(tool, {"Scale=Sqrt"});
  const TIntList results = tool.RunNonInteractive(FProject, {id}, "Extract Amplitude", false);
  ASSERT_EQ(results.size(), 2u);
  const TDImage& amplitude = Image(results[0]);
  const auto& inverse = *dynamic_cast<const TDSpaceTransformation*>(FProject.FindData(results[1]));
  const double one[3] = {6, 7, 0};
  double real[3];
  inverse.BinToReal(one, real);
  EXPECT_NEAR(real[0], 1.0 / 10, 1e-12);
  EXPECT_NEAR(real[1], 2.0 / 4, 1e-12);
  // A cosine of period 10 in x sampled on 10 x 10: sqrt of N² / 2 at indices ±1, row 0.
  EXPECT_NEAR(amplitude.GetField(6, 5), std::sqrt(50.0), 1e-4);
  EXPECT_NEAR(amplitude.GetField(4, 5), std::sqrt(50.0), 1e-4);
  EXPECT_NEAR(amplitude.GetField(5, 5), 0.0, 1e-3);
}

TEST_F(ImageFourierFilterTest, ThreadsGiveTheSameResultsBitForBit) {
  // 37 x 20: N = 37, odd and prime, sampled in y, column blocks split unevenly.
  const int32_t id = AddImage(
      37, 20, [](int x, int y) { return std::sin(0.37 * x * x + 0.2 * y) + 0.01 * x * y; }, 0.3, 0.7);
  std::vector<std::vector<float>> results;
  for (int threads : {1, 3, 5}) {
    TImageFourierFilterForm tool;
    tool.NumberOfThreads = threads;
    Set(tool, {"FilterTypeComboBox=Low Pass", "FilterFrequency=1.5"});
    const TIntList ids = tool.RunNonInteractive(FProject, {id}, "Extract", false);
    ASSERT_EQ(ids.size(), 1u);
    const TDImage& image = Image(ids.front());
    ASSERT_EQ(image.GetSizeX(), 37);
    ASSERT_EQ(image.GetSizeY(), 20);
    std::vector<float> values(37 * 20);
    for (int y = 0; y < 20; ++y) image.GetLine(y, &values[y * 37]);
    results.push_back(values);
  }
  EXPECT_EQ(results[0], results[1]);
  EXPECT_EQ(results[0], results[2]);
}

TEST_F(ImageFourierFilterTest, CancelAndBadValuesAddNothing) {
  const int32_t id = AddImage(8, 6, [](int x, int y) { return x - y; });
  const size_t before = FProject.DataList().size();
  {
    TImageFourierFilterForm tool;
    Open(tool, id);
    TMCC::RequestProcessCancel();
    EXPECT_FALSE(tool.ExecuteCommand("Extract"));
    EXPECT_TRUE(tool.GetLastRunCancelled());
    EXPECT_FALSE(tool.ExecuteCommand("Extract Amplitude"));
    TMCC::ClearProcessCancelRequest();
    EXPECT_TRUE(tool.GetLastResultIDs().empty());
    tool.CleanUp();
  }
  EXPECT_EQ(FProject.DataList().size(), before);

  Image(id).SetField(3, 2, std::numeric_limits<float>::infinity());
  TImageFourierFilterForm tool;
  try {
    tool.RunNonInteractive(FProject, {id}, "Extract", false);
    ADD_FAILURE() << "no exception";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find("(ID " + std::to_string(id) + ") holds NaN"), std::string::npos)
        << e.what();
  }
  EXPECT_EQ(FProject.DataList().size(), before);
  EXPECT_FALSE(tool.GetIsActive());
}

TEST_F(ImageFourierFilterTest, InputListTakesExactlyOneImageOfAtLeastTwoByTwo) {
  const int32_t a = AddImage(4, 4, [](int, int) { return 1.0; });
  const int32_t b = AddImage(4, 4, [](int, int) { return 1.0; });
  const int32_t line = AddImage(5, 1, [](int, int) { return 1.0; });
  TImageFourierFilterForm tool;
  std::string reason;
  const TIntList one{a}, two{a, b}, thin{line}, none{}, missing{999};
  EXPECT_TRUE(tool.IsInputIDListOkay(&FProject, &one, nullptr, &reason));
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &two, nullptr, &reason));
  EXPECT_NE(reason.find("exactly one image, 2 given"), std::string::npos) << reason;
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &none, nullptr, &reason));
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &thin, nullptr, &reason));
  EXPECT_NE(reason.find("(ID " + std::to_string(line) + ") has 5 x 1 pixels"), std::string::npos) << reason;
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &missing, nullptr, &reason));
  EXPECT_NE(reason.find("999"), std::string::npos) << reason;
}

TEST_F(ImageFourierFilterTest, InteractiveToolKeepsPreviewAndAmplitudeUntilCleanUp) {
  const int32_t id = AddImage(
      8, 8, [](int x, int) { return 1 + std::cos(kTwoPi * 3 * x / 8); }, 1, 1);
  const size_t before = FProject.DataList().size();
  TImageFourierFilterForm tool;
  TIntList ids{id};
  tool.Init(&ids, nullptr, &FProject);
  ASSERT_NE(tool.GetPreviewImageID(), 0);
  ASSERT_NE(tool.GetAmplitudeImageID(), 0);
  const TDImage& preview = Image(tool.GetPreviewImageID());
  const TDImage& amplitude = Image(tool.GetAmplitudeImageID());
  EXPECT_NEAR(preview.GetField(3, 2), 1 + std::cos(kTwoPi * 9 / 8), 1e-5); // free hand, nothing marked
  EXPECT_NEAR(amplitude.GetField(4, 4), 64.0, 1e-4);
  EXPECT_NEAR(amplitude.GetField(7, 4), 32.0, 1e-4); // index 3
  // A changed pattern recalculates the preview (auto preview is on).
  Set(tool, {"FilterTypeComboBox=Low Pass", "FilterFrequency=0.3"});
  EXPECT_NEAR(preview.GetField(3, 2), 1.0, 1e-5);
  Set(tool, {"ShowOriginalCheckBox=true"});
  EXPECT_NEAR(preview.GetField(3, 2), 1 + std::cos(kTwoPi * 9 / 8), 1e-5);
  Set(tool, {"Scale=Log"});
  EXPECT_NEAR(amplitude.GetField(4, 4), std::log(64.0), 1e-4);
  EXPECT_EQ(FProject.DataList().size(), before + 3); // two images and the tool's connector
  tool.CleanUp();
  EXPECT_EQ(FProject.DataList().size(), before);
}

TEST(FourierUpdateDelay, EveryChangeStartsTheWaitAnewAndTheChangeIsTakenOnce) {
  using namespace std::chrono_literals;
  TUpdateDelay delay(250ms);
  const TUpdateDelay::TClock::time_point t0{};
  EXPECT_FALSE(delay.IsPending());
  EXPECT_FALSE(delay.TakeIfDue(t0 + 1h));
  delay.Changed(t0);
  EXPECT_EQ(delay.Remaining(t0 + 100ms), 150ms);
  delay.Changed(t0 + 100ms); // a second change before the first was due
  EXPECT_FALSE(delay.TakeIfDue(t0 + 250ms));
  EXPECT_EQ(delay.Remaining(t0 + 250ms), 100ms);
  EXPECT_EQ(delay.Remaining(t0 + 250ms + 500us), 100ms) << "rounded up, never early";
  EXPECT_TRUE(delay.TakeIfDue(t0 + 350ms));
  EXPECT_FALSE(delay.IsPending());
  EXPECT_FALSE(delay.TakeIfDue(t0 + 400ms)) << "taken once";
  EXPECT_EQ(delay.Remaining(t0 + 400ms), 0ms);
  delay.Changed(t0 + 1s);
  delay.Cancel();
  EXPECT_FALSE(delay.TakeIfDue(t0 + 2s));
}

// The window's part, without a window: a timer that records what it was asked to wait, and marks set
// as the amplitude viewer's draw field hands them over.
TEST_F(ImageFourierFilterTest, HandMarksReachTheFilterMaskOneWaitAfterTheLastChange) {
  using namespace std::chrono_literals;
  const int n = 8;
  auto f = [](int x, int y) { return 2 + std::cos(kTwoPi * 3 * x / 8) + 0.5 * std::cos(kTwoPi * y / 8); };
  const int32_t id = AddImage(n, n, f, 1, 1);
  TImageFourierFilterForm tool;
  std::vector<int> waits;
  tool.SetUpdateTimer([&waits](int ms) { waits.push_back(ms); });
  int opened = 0, updated = 0;
  tool.OnViewersOpened = [&opened] { ++opened; };
  tool.OnPreviewUpdated = [&updated] { ++updated; };
  TIntList ids{id};
  tool.Init(&ids, nullptr, &FProject);
  EXPECT_EQ(opened, 1);
  EXPECT_EQ(updated, 1); // the first preview comes at once
  ASSERT_EQ(tool.GetN(), n);
  const TDImage& preview = Image(tool.GetPreviewImageID());
  EXPECT_NEAR(preview.GetField(1, 0), f(1, 0), 1e-5);

  // Marks at x index +-3 (the cosine in x) drawn in two strokes 100 ms apart.
  const auto t0 = TUpdateDelay::TClock::now();
  std::vector<uint8_t> marks(static_cast<size_t>(n) * n, 0);
  marks[At(3, 0, n)] = 1;
  EXPECT_TRUE(tool.SetDrawField(marks, t0));
  marks[At(-3, 0, n)] = 1;
  EXPECT_TRUE(tool.SetDrawField(marks, t0 + 100ms));
  EXPECT_FALSE(tool.SetDrawField(marks, t0 + 110ms)) << "the same marks change nothing";
  EXPECT_FALSE(tool.SetDrawField(std::vector<uint8_t>(5, 1), t0 + 120ms)) << "wrong size";
  EXPECT_EQ(waits, (std::vector<int>{250, 250}));
  EXPECT_TRUE(tool.IsPreviewUpdatePending());
  EXPECT_EQ(tool.GetPreviewCount(), 1) << "nothing calculated before the wait is over";

  // The timer of the first change fires: 100 ms are left, the timer is started for them.
  tool.UpdateTimerElapsed(t0 + 250ms);
  EXPECT_EQ(tool.GetPreviewCount(), 1);
  ASSERT_EQ(waits.size(), 3u);
  EXPECT_EQ(waits.back(), 100);
  tool.UpdateTimerElapsed(t0 + 350ms);
  EXPECT_EQ(tool.GetPreviewCount(), 2);
  EXPECT_FALSE(tool.IsPreviewUpdatePending());
  EXPECT_EQ(updated, 2);
  // The mask used is exactly the marks, and the marked cosine is gone from the preview.
  EXPECT_EQ(tool.GetAppliedField(), marks);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x)
      ASSERT_NEAR(preview.GetField(x, y), f(x, y) - std::cos(kTwoPi * 3 * x / 8), 1e-5) << x << " " << y;
  // A late tick with nothing pending calculates nothing.
  tool.UpdateTimerElapsed(t0 + 1s);
  EXPECT_EQ(tool.GetPreviewCount(), 2);

  // A pattern ignores the hand marks: new marks ask for no preview, and the pattern's field is used.
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"FilterTypeComboBox=High Pass Line", "FilterFrequency=0.2"})
                  .empty());
  tool.UpdateTimerElapsed(TUpdateDelay::TClock::now() + 1s);
  marks[At(1, 1, n)] = 1;
  const size_t waitsBefore = waits.size();
  EXPECT_TRUE(tool.SetDrawField(marks));
  EXPECT_EQ(waits.size(), waitsBefore);
  for (int j = -4; j < 4; ++j)
    for (int i = -4; i < 4; ++i)
      ASSERT_EQ(tool.GetAppliedField()[At(i, j, n)], std::abs(i) <= 1 ? 1 : 0) << i << " " << j;
  tool.CleanUp();
  EXPECT_FALSE(tool.IsPreviewUpdatePending());
}

TEST_F(ImageFourierFilterTest, ShowOriginalShowsTheSourceAndKeepsTheMarksForLater) {
  const int n = 8;
  auto f = [](int x, int y) { return 1 + std::cos(kTwoPi * 2 * x / 8) + 0.25 * y; };
  const int32_t id = AddImage(n, n, f, 1, 1);
  TImageFourierFilterForm tool;
  TIntList ids{id};
  tool.Init(&ids, nullptr, &FProject); // no timer: every change recalculates at once
  const TDImage& preview = Image(tool.GetPreviewImageID());
  std::vector<uint8_t> marks(static_cast<size_t>(n) * n, 0);
  marks[At(2, 0, n)] = marks[At(-2, 0, n)] = 1;
  ASSERT_TRUE(tool.SetDrawField(marks));
  EXPECT_NEAR(preview.GetField(0, 3), f(0, 3) - 1, 1e-5);
  Set(tool, {"ShowOriginalCheckBox=true"});
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) ASSERT_FLOAT_EQ(preview.GetField(x, y), static_cast<float>(f(x, y)));
  EXPECT_EQ(tool.DrawField(), marks);
  Set(tool, {"ShowOriginalCheckBox=false"});
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x)
      ASSERT_NEAR(preview.GetField(x, y), f(x, y) - std::cos(kTwoPi * 2 * x / 8), 1e-5) << x << " " << y;
  // Auto Preview off: changes wait for "Calculate Preview".
  Set(tool, {"AutoPreviewCheckBox=false"});
  const int count = tool.GetPreviewCount();
  marks.assign(marks.size(), 0);
  ASSERT_TRUE(tool.SetDrawField(marks));
  EXPECT_EQ(tool.GetPreviewCount(), count);
  EXPECT_NEAR(preview.GetField(0, 3), f(0, 3) - 1, 1e-5);
  ASSERT_TRUE(tool.ExecuteCommand("Calculate Preview"));
  EXPECT_NEAR(preview.GetField(0, 3), f(0, 3), 1e-5);
  tool.CleanUp();
}

} // namespace
