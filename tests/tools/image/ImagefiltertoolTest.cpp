// The Image Filter tool: every page against the kernels on the same image (line flags, thread shares and
// parameter wiring are the tool's), Sobel's outputs and steps, captions, the custom filter files, stored
// parameters, presets and every refused input (nothing added).
#include "tools/image/Imagefiltertool.h"

#include "common/OrvexException.h"
#include "common/Tagcontrol.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Orvexdirectories.h"
#include "project/Project.h"
#include "support/SpaceTransformation.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

namespace {

// The failure as the command line shows it: the first cause of a wrapped calculation error.
std::string CauseText(const std::exception& e) {
  const auto* orvex = dynamic_cast<const OrvexException*>(&e);
  if (orvex && orvex->ExceptionHistory() && !orvex->ExceptionHistory()->empty())
    return orvex->ExceptionHistory()->back();
  return e.what();
}

class ImageFilterToolTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
    FFolder = std::filesystem::temp_directory_path() /
              ("orvex_imagefiltertool_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
               "_" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(FFolder);
  }
  void TearDown() override {
    TMCC::ClearProcessCancelRequest();
    TMCC::SetProcessThreadLimit(0);
    std::error_code error;
    std::filesystem::remove_all(FFolder, error);
  }

  // An image of f(x, y); lines listed in invalid are flagged invalid (their values stay stored).
  int32_t AddImage(int sizeX, int sizeY, const std::function<double(int, int)>& f,
                   const std::vector<int>& invalid = {}) {
    auto image = std::make_unique<TDImage>();
    image->SetID(FProject.GetNewDataID());
    image->SetCaption("Topo");
    image->SetFieldSize(sizeX, sizeY);
    std::vector<float> line(static_cast<size_t>(sizeX));
    for (int y = 0; y < sizeY; ++y) {
      for (int x = 0; x < sizeX; ++x) line[x] = static_cast<float>(f(x, y));
      image->SetLine(y, line.data());
      image->SetLineValid(y, std::find(invalid.begin(), invalid.end(), y) == invalid.end());
    }
    const int32_t id = image->GetID();
    FProject.AddData(std::move(image));
    return id;
  }
  TDImage& Image(int32_t id) { return *dynamic_cast<TDImage*>(FProject.FindData(id)); }
  std::vector<float> Values(const TDImage& image) {
    std::vector<float> v(static_cast<size_t>(image.GetSizeX()) * image.GetSizeY());
    for (int y = 0; y < image.GetSizeY(); ++y)
      image.GetFastLine(y, &v[static_cast<size_t>(y) * image.GetSizeX()]);
    return v;
  }
  std::vector<bool> Flags(const TDImage& image) {
    std::vector<bool> f;
    for (int y = 0; y < image.GetSizeY(); ++y) f.push_back(image.GetLineValid(y));
    return f;
  }
  // The kernel run directly on the image's values and flags.
  std::pair<std::vector<float>, std::vector<bool>> Reference(int32_t id, const TImageFilterParameters& p) {
    const TDImage& image = Image(id);
    const int sx = image.GetSizeX(), sy = image.GetSizeY();
    std::vector<float> in = Values(image), out(in.size(), 0.0f);
    std::unique_ptr<bool[]> inValid(new bool[sy]), outValid(new bool[sy]);
    for (int y = 0; y < sy; ++y) {
      inValid[y] = image.GetLineValid(y);
      outValid[y] = false;
    }
    TImageFilter filter(p, {in.data(), inValid.get(), sx, sy}, {out.data(), outValid.get(), sx, sy});
    filter.Calculate();
    return {out, std::vector<bool>(outValid.get(), outValid.get() + sy)};
  }
  TIntList Run(TImageFilterForm& tool, const std::vector<std::string>& set, const TIntList& ids) {
    EXPECT_TRUE(tool.Parameters().SetParameterValuesFromText(set).empty());
    return tool.RunNonInteractive(FProject, ids, "Extract", false);
  }
  // The first line of the failure of a run, or "" when it went through.
  std::string Failure(const std::vector<std::string>& set, const TIntList& ids) {
    TImageFilterForm tool;
    const auto problems = tool.Parameters().SetParameterValuesFromText(set);
    if (!problems.empty()) return "refused " + problems.front().Parameter + ": " + problems.front().Message;
    try {
      tool.RunNonInteractive(FProject, ids, "Extract", false);
    } catch (const std::exception& e) {
      return CauseText(e);
    }
    return "";
  }

  TProject FProject;
  std::filesystem::path FFolder;
};

double Wave(int x, int y) {
  return std::sin(0.7 * x + 0.3 * y * y) * 5 + 0.05 * x * y + ((x * 7 + y * 3) % 5);
}

TEST_F(ImageFilterToolTest, EveryPageGivesTheKernelsResultWithItsCaption) {
  // Line 4 invalid: skipped by the kernels, its flag carried into the result.
  const int32_t id = AddImage(23, 17, Wave, {4});
  struct TCase {
    std::vector<std::string> Set;
    TImageFilterParameters P;
    std::string Suffix;
  };
  auto params = [](TImageFilterKind kind, int size, TMarginalPixels margin = TMarginalPixels::Mirror) {
    TImageFilterParameters p;
    p.Kind = kind;
    p.Size = size;
    p.Margin = margin;
    return p;
  };
  std::vector<TCase> cases;
  cases.push_back(
      {{"Mode=Average", "AverageFilterSizeEdit=3"}, params(TImageFilterKind::Average, 3), " (Average 3)"});
  cases.push_back({{"Mode=Average", "AverageFilterSizeEdit=2", "MarginalPixelsGroupBox=Copy"},
                   params(TImageFilterKind::Average, 2, TMarginalPixels::Copy),
                   " (Average 2)"});
  cases.push_back({{"Mode=Median", "MedianFilterSizeEdit=2", "MarginalPixelsGroupBox=Zero"},
                   params(TImageFilterKind::Median, 2, TMarginalPixels::Zero),
                   " (Median 2)"});
  cases.push_back(
      {{"Mode=Median", "MedianFilterSizeEdit=0"}, params(TImageFilterKind::Median, 0), " (Median 0)"});
  cases.push_back({{"Mode=Variance", "VarianceFilterSizeEdit=2"},
                   params(TImageFilterKind::Variance, 2),
                   " (Variance 2)"});
  {
    TImageFilterParameters p = params(TImageFilterKind::Kirsch, 1);
    p.KirschDirection = 3;
    cases.push_back({{"Mode=Kirsch", "KirschDirectionComboBox=G3"}, p, "Kirsch G3"});
    p.KirschDirection = 0;
    cases.push_back({{"Mode=Kirsch", "KirschDirectionComboBox=GMax"}, p, "Kirsch GMax"});
  }
  {
    TImageFilterParameters p = params(TImageFilterKind::Laplace, 1, TMarginalPixels::Copy);
    p.LaplaceType = 3;
    cases.push_back({{"Mode=Laplace", "LaplaceTypeRadioGroup=Type 3 [1,2,1][2,-12,2][1,2,1]",
                      "MarginalPixelsGroupBox=Copy"},
                     p,
                     "Laplace Type 3"});
  }
  {
    TImageFilterParameters p = params(TImageFilterKind::Sharpen, 2);
    p.SharpenAmount = 0.7;
    p.SharpenThreshold = 0.25;
    cases.push_back(
        {{"Mode=Sharpen", "SharpenRadiusEdit=2", "SharpenAmountEdit=0.7", "SharpenThresholdEdit=0.25"},
         p,
         " (Sel.Sharpness 2)"});
  }
  {
    // An asymmetric kernel: a flip or a transposition would show.
    TImageFilterParameters p = params(TImageFilterKind::Custom, 1);
    p.CustomCoefficients = {1, 2, 0, -1, 3, 0.5, 0, -2, 4};
    p.CustomFactor = 2.5;
    cases.push_back({{"Mode=Custom", "CustomFilterSizeEdit=1", "CustomFilterFactorEdit=2.5",
                      "CustomFilterCoefficients=1 2 0; -1 3 0.5; 0 -2 4"},
                     p,
                     " (Custom 1)"});
  }
  for (const TCase& c : cases) {
    TImageFilterForm tool;
    const TIntList ids = Run(tool, c.Set, {id});
    ASSERT_EQ(ids.size(), 1u) << c.Suffix;
    const TDImage& result = Image(ids.front());
    EXPECT_EQ(result.GetCaption(), "Topo" + c.Suffix);
    EXPECT_EQ(tool.CaptionSuffix(c.P), c.Suffix);
    const auto [values, flags] = Reference(id, c.P);
    EXPECT_EQ(Flags(result), flags) << c.Suffix;
    const std::vector<float> got = Values(result);
    for (int y = 0; y < 17; ++y) {
      if (!flags[y]) continue;
      for (int x = 0; x < 23; ++x)
        ASSERT_EQ(got[y * 23 + x], values[y * 23 + x]) << c.Suffix << " " << x << "," << y;
    }
  }
}

TEST_F(ImageFilterToolTest, SobelGivesOneImagePerChosenOutputInPixelOrSpaceSteps) {
  const int32_t id = AddImage(12, 10, [](int x, int y) { return 0.5 * x * x - 2.0 * y + x * y; });
  {
    TImageFilterForm tool;
    const TIntList ids = Run(tool, {"Mode=Sobel", "SobelThetaUnitRadioGroup=Degree"}, {id});
    ASSERT_EQ(ids.size(), 4u);
    const char* names[] = {"Gx", "Gy", "G", "Theta"};
    for (int k = 0; k < 4; ++k) {
      EXPECT_EQ(Image(ids[k]).GetCaption(), std::string("Topo (Sobel ") + names[k] + ")");
      TImageFilterParameters p;
      p.Kind = TImageFilterKind::Sobel;
      p.SobelOutput = static_cast<TSobelOutput>(k);
      p.ThetaInDegree = true;
      EXPECT_EQ(Values(Image(ids[k])), Reference(id, p).first) << names[k];
    }
  }
  TImageFilterForm tool;
  EXPECT_EQ(Run(tool, {"Mode=Sobel", "SobelGxCheckBox=false", "SobelGCheckBox=false"}, {id}).size(), 2u);

  // Space based: a calibrated 0.5 x 0.25 µm pixel divides Gx by 0.5 and Gy by 0.25.
  const int32_t spaceID = oxtest::AddSpaceTransformation(FProject, {0.5, 0.25, 1.0});
  Image(id).SetSpaceTransformationID(spaceID);
  TImageFilterForm spaced;
  const TIntList ids = Run(
      spaced,
      {"Mode=Sobel", "SobelUnitRadioGroup=Space based", "SobelGCheckBox=false", "SobelThetaCheckBox=false"},
      {id});
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_EQ(spaced.GetUncalibratedWarnings(), 0);
  TImageFilterParameters p;
  p.Kind = TImageFilterKind::Sobel;
  p.SobelOutput = TSobelOutput::Gx;
  const std::vector<float> gx = Reference(id, p).first, sx = Values(Image(ids[0]));
  p.SobelOutput = TSobelOutput::Gy;
  const std::vector<float> gy = Reference(id, p).first, sy = Values(Image(ids[1]));
  for (size_t i = 0; i < gx.size(); ++i) {
    ASSERT_NEAR(sx[i], gx[i] / 0.5, 1e-5 * (1 + std::abs(gx[i])));
    ASSERT_NEAR(sy[i], gy[i] / 0.25, 1e-5 * (1 + std::abs(gy[i])));
  }
  // Uncalibrated: a warning, and pixel based.
  dynamic_cast<TDSpaceTransformation*>(FProject.FindData(spaceID))->SetIsCalibrated(false);
  TImageFilterForm uncalibrated;
  const TIntList plain = Run(uncalibrated,
                             {"Mode=Sobel", "SobelUnitRadioGroup=Space based", "SobelGyCheckBox=false",
                              "SobelGCheckBox=false", "SobelThetaCheckBox=false"},
                             {id});
  ASSERT_EQ(plain.size(), 1u);
  EXPECT_EQ(uncalibrated.GetUncalibratedWarnings(), 1);
  EXPECT_EQ(Values(Image(plain[0])), gx);
}

TEST_F(ImageFilterToolTest, AnisotropicPageMatchesTheKernelAndPresetsSetThePage) {
  const int32_t id =
      AddImage(20, 16, [](int x, int y) { return (x < 10 ? 0.0 : 10.0) + ((x * 13 + y * 7) % 5) * 0.3; });
  TImageFilterForm tool;
  const TIntList ids =
      Run(tool, {"Mode=Anisotropic", "AnisotropicIterationsEdit=2", "AnisotropicP2Edit=2"}, {id});
  ASSERT_EQ(ids.size(), 1u);
  EXPECT_EQ(Image(ids[0]).GetCaption(), "Topo (AS)");
  TAnisotropicImageSmoothing kernel;
  kernel.SetParameter(1.0f, 2.0f, 5.0f, 1.0f, 2);
  kernel.CreateArrays(20, 16);
  const std::vector<float> in = Values(Image(id));
  kernel.SetImageData(in.data());
  kernel.Calculate();
  std::vector<float> expected(in.size());
  kernel.GetImageData(expected.data());
  const std::vector<float> got = Values(Image(ids[0]));
  for (size_t i = 0; i < got.size(); ++i) ASSERT_NEAR(got[i], expected[i], 1e-4) << i;

  TImageFilterForm presets;
  presets.ApplyAnisotropicPreset(TImageFilterForm::kLargeStructures);
  EXPECT_DOUBLE_EQ(presets.GetFloatParameter("AnisotropicP1Edit"), 0.1);
  EXPECT_DOUBLE_EQ(presets.GetFloatParameter("AnisotropicP2Edit"), 5.0);
  EXPECT_EQ(presets.GetIntParameter("AnisotropicIterationsEdit"), 3);
  ASSERT_TRUE(presets.Parameters()
                  .SetParameterValuesFromText({"AnisotropicDeltaTEdit=9", "AnisotropicSigmaEdit=3"})
                  .empty());
  presets.ApplyAnisotropicPreset(TImageFilterForm::kSmallStructures);
  EXPECT_DOUBLE_EQ(presets.GetFloatParameter("AnisotropicP1Edit"), 0.1);
  EXPECT_DOUBLE_EQ(presets.GetFloatParameter("AnisotropicP2Edit"), 1.5);
  EXPECT_DOUBLE_EQ(presets.GetFloatParameter("AnisotropicDeltaTEdit"), 5.0);
  EXPECT_DOUBLE_EQ(presets.GetFloatParameter("AnisotropicSigmaEdit"), 1.0);
  EXPECT_EQ(presets.GetIntParameter("AnisotropicIterationsEdit"), 1);
  EXPECT_THROW(presets.ApplyAnisotropicPreset("Medium Structures"), OrvexException);
  // The presets are no result commands of the command line.
  const auto commands = presets.GetExtractCommands();
  EXPECT_EQ(commands, (std::vector<std::string>{"Extract", "Extract All"}));
}

TEST_F(ImageFilterToolTest, OneAndTwoThreadsGiveTheSameImagesForEveryInput) {
  const int32_t a = AddImage(31, 29, Wave, {0, 13});
  const int32_t b = AddImage(9, 40, [](int x, int y) { return Wave(y, x) * 3; });
  for (const std::vector<std::string>& set :
       {std::vector<std::string>{"Mode=Average", "AverageFilterSizeEdit=4"},
        std::vector<std::string>{"Mode=Median", "MedianFilterSizeEdit=2", "MarginalPixelsGroupBox=Copy"},
        std::vector<std::string>{"Mode=Anisotropic"}}) {
    std::vector<std::vector<float>> runs;
    for (int threads : {1, 0}) {
      TMCC::SetProcessThreadLimit(threads);
      TImageFilterForm tool;
      ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText(set).empty());
      const TIntList ids = tool.RunNonInteractive(FProject, {a, b}, "Extract", true);
      ASSERT_EQ(ids.size(), 2u);
      std::vector<float> both = Values(Image(ids[0]));
      const std::vector<float> second = Values(Image(ids[1]));
      both.insert(both.end(), second.begin(), second.end());
      runs.push_back(both);
    }
    EXPECT_EQ(runs[0], runs[1]) << set[0];
  }
}

TEST_F(ImageFilterToolTest, ResultsWithoutInterpretationGetAU) {
  const int32_t id = AddImage(6, 6, Wave);
  TImageFilterForm tool;
  const TIntList ids = Run(tool, {"Mode=Laplace"}, {id});
  ASSERT_EQ(ids.size(), 1u);
  const auto* z =
      dynamic_cast<const TDZInterpretation*>(FProject.FindData(Image(ids[0]).GetZInterpretationID()));
  ASSERT_NE(z, nullptr);
  EXPECT_EQ(z->GetUnitName(), "a.u.");
}

TEST_F(ImageFilterToolTest, CustomFilterFilesRoundTripAndRefuseWrongOrShortFiles) {
  TCustomImageFilter filter;
  filter.Size = 2;
  filter.Divisor = -3.5;
  for (int i = 0; i < 25; ++i) filter.Buffer.push_back(i * 0.25 - 1.0 / 3.0);
  const std::string file = (FFolder / "edge.uif").string();
  ASSERT_EQ(SaveCustomImageFilter(file, filter), "");
  TCustomImageFilter read;
  ASSERT_EQ(LoadCustomImageFilter(file, read), "");
  EXPECT_EQ(read.Size, 2);
  EXPECT_EQ(read.Divisor, -3.5);
  EXPECT_EQ(read.Buffer, filter.Buffer);

  // The file's own tags.
  TTagControl tree;
  ASSERT_EQ(tree.LoadTagListByFileName(file, kCustomImageFilterIdentification), 1);
  int32_t size = 0;
  EXPECT_EQ(tree.GetIntTagInList("FilterSize", size), 1);
  EXPECT_EQ(size, 2);
  EXPECT_EQ(tree.Name(), "OrvexUserImageFilter");

  // Unusable filters are not written.
  TCustomImageFilter bad = filter;
  bad.Buffer.pop_back();
  EXPECT_EQ(SaveCustomImageFilter((FFolder / "bad.uif").string(), bad), "Save failed !");
  bad = filter;
  bad.Divisor = 0;
  EXPECT_EQ(SaveCustomImageFilter((FFolder / "bad.uif").string(), bad), "Save failed !");
  EXPECT_EQ(SaveCustomImageFilter((FFolder / "no" / "such" / "x.uif").string(), filter), "Save failed !");

  // Every cut of the file, and another identification, fail to load and leave the filter as it was.
  std::ifstream in(file, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  for (size_t cut :
       {size_t(4), size_t(8), size_t(30), bytes.size() / 2, bytes.size() - 8, bytes.size() - 1}) {
    const std::string shortFile = (FFolder / ("short" + std::to_string(cut))).string();
    std::ofstream(shortFile, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(cut));
    TCustomImageFilter kept;
    kept.Size = 3;
    EXPECT_EQ(LoadCustomImageFilter(shortFile, kept), "Load failed !") << cut;
    EXPECT_EQ(kept.Size, 3);
  }
  std::string other = bytes;
  other.replace(0, 8, "ORX_FILT");
  std::ofstream((FFolder / "other").string(), std::ios::binary)
      .write(other.data(), static_cast<std::streamsize>(other.size()));
  EXPECT_EQ(LoadCustomImageFilter((FFolder / "other").string(), read), "Load failed !");
  EXPECT_EQ(LoadCustomImageFilter((FFolder / "missing").string(), read), "Load failed !");

  // The folder lists the filter files only.
  std::ofstream((FFolder / "notes.txt").string()) << "ORX_UIC";
  const auto listed = ListCustomImageFilters(FFolder.string());
  ASSERT_FALSE(listed.empty());
  EXPECT_EQ(listed.front(), file);
  for (const std::string& name : listed) EXPECT_EQ(name.find("notes.txt"), std::string::npos);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), (FFolder / "other").string()), 0);
}

TEST_F(ImageFilterToolTest, TheCustomPageSavesAndLoadsItsKernelAndANamedFileWins) {
  const int32_t id = AddImage(10, 9, Wave);
  const std::string file = (FFolder / "k.uif").string();
  TImageFilterForm writer;
  ASSERT_TRUE(writer.Parameters()
                  .SetParameterValuesFromText({"CustomFilterSizeEdit=1", "CustomFilterFactorEdit=4",
                                               "CustomFilterCoefficients=0 1 0 1 -0.5 1 0 1 0.125"})
                  .empty());
  ASSERT_TRUE(writer.SaveCustomFilter(file));
  TImageFilterForm reader;
  ASSERT_TRUE(reader.LoadCustomFilter(file));
  EXPECT_EQ(reader.GetFilterParameters().Kind, TImageFilterKind::Average);
  ASSERT_TRUE(reader.Parameters().SetParameterValuesFromText({"Mode=Custom"}).empty());
  const TImageFilterParameters loaded = reader.GetFilterParameters();
  EXPECT_EQ(loaded.CustomCoefficients, (std::vector<double>{0, 1, 0, 1, -0.5, 1, 0, 1, 0.125}));
  EXPECT_EQ(loaded.CustomFactor, 4.0);
  EXPECT_FALSE(reader.LoadCustomFilter((FFolder / "none.uif").string()));

  // The file wins over the page's text (which here has a wrong count).
  TImageFilterForm tool;
  const TIntList ids =
      Run(tool, {"Mode=Custom", "CustomFilterCoefficients=1 2 3", "CustomFilterFile=" + file}, {id});
  ASSERT_EQ(ids.size(), 1u);
  EXPECT_EQ(Values(Image(ids[0])), Reference(id, loaded).first);
}

TEST_F(ImageFilterToolTest, BadInputNamesTheImageOrParameterAndAddsNothing) {
  const int32_t good = AddImage(5, 5, Wave);
  const int32_t nan = AddImage(6, 6, Wave);
  Image(nan).SetField(2, 3, std::numeric_limits<float>::quiet_NaN());
  Image(nan).SetLineValid(3, true);
  const int32_t huge = AddImage(6, 6, [](int, int) { return 3e38; });
  const std::string truncated = (FFolder / "t.uif").string();
  {
    TCustomImageFilter f;
    f.Buffer.assign(9, 1.0);
    ASSERT_EQ(SaveCustomImageFilter(truncated, f), "");
    std::filesystem::resize_file(truncated, std::filesystem::file_size(truncated) - 16);
  }
  const size_t before = FProject.DataList().size();
  const std::string goodName = "\"Topo\" (ID " + std::to_string(good) + ")";
  struct TBad {
    std::vector<std::string> Set;
    int32_t ID;
    std::string Needle;
  };
  const std::vector<TBad> bad = {
      {{"Mode=Median"}, nan, "(ID " + std::to_string(nan) + ") holds NaN or Inf at pixel (2, 3)"},
      // 5 pixels: Mirror takes size 4 (size + 1), not 5; Copy and Zero take size 2 (2 size + 1), not 3.
      {{"Mode=Median", "MedianFilterSizeEdit=5"},
       good,
       goodName + " has 5 x 5 pixels, the filter window needs at least 6 x 6"},
      {{"Mode=Average", "AverageFilterSizeEdit=3", "MarginalPixelsGroupBox=Zero"}, good, "at least 7 x 7"},
      {{"Mode=Variance", "VarianceFilterSizeEdit=3", "MarginalPixelsGroupBox=Copy"}, good, "at least 7 x 7"},
      {{"Mode=Median", "MedianFilterSizeEdit=10"}, good, "refused MedianFilterSizeEdit"},
      {{"Mode=Variance", "VarianceFilterSizeEdit=0"}, good, "refused VarianceFilterSizeEdit"},
      {{"Mode=Anisotropic", "AnisotropicSigmaEdit=20"}, good, "refused AnisotropicSigmaEdit"},
      {{"Mode=Custom", "CustomFilterSizeEdit=4"}, good, "refused CustomFilterSizeEdit"},
      {{"Mode=Custom", "CustomFilterCoefficients=1 2 3 4"},
       good,
       "CustomFilterCoefficients holds 4 numbers, CustomFilterSizeEdit 1 needs 9"},
      {{"Mode=Custom", "CustomFilterCoefficients=1 2 x 4 5 6 7 8 9"}, good, "\"x\" is not a finite number"},
      {{"Mode=Custom", "CustomFilterFactorEdit=0"}, good, "CustomFilterFactorEdit is 0"},
      {{"Mode=Custom", "CustomFilterFile=" + truncated}, good, "Load failed !"},
      {{"Mode=Sobel", "SobelGxCheckBox=false", "SobelGyCheckBox=false", "SobelGCheckBox=false",
        "SobelThetaCheckBox=false"},
       good,
       "no Sobel image is chosen"},
      {{"Mode=Custom", "CustomFilterCoefficients=1 1 1 1 1 1 1 1 1", "CustomFilterFactorEdit=0.5"},
       huge,
       "Calculation Error. Possible reason: images contain extreme large/small values."}};
  for (const TBad& b : bad) {
    const std::string failure = Failure(b.Set, {b.ID});
    EXPECT_NE(failure.find(b.Needle), std::string::npos) << b.Set.front() << ": " << failure;
    EXPECT_EQ(failure.find('\n'), std::string::npos) << failure;
    EXPECT_EQ(FProject.DataList().size(), before) << failure;
  }
  // The boundary sizes themselves go through.
  EXPECT_EQ(Failure({"Mode=Median", "MedianFilterSizeEdit=4"}, {good}), "");
  EXPECT_EQ(Failure({"Mode=Average", "AverageFilterSizeEdit=2", "MarginalPixelsGroupBox=Zero"}, {good}), "");

  // A graph is no input.
  auto graph = std::make_unique<TDGraph>();
  graph->SetID(FProject.GetNewDataID());
  graph->SetFieldSize(4, 4, TDataFieldKind::Float, 8);
  const TIntList graphIDs{graph->GetID()};
  FProject.AddData(std::move(graph));
  TImageFilterForm tool;
  std::string reason;
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &graphIDs, nullptr, &reason));
  EXPECT_FALSE(reason.empty());
}

TEST_F(ImageFilterToolTest, ACancelledRunAddsNothing) {
  const int32_t id = AddImage(40, 30, Wave);
  const size_t before = FProject.DataList().size();
  for (const char* mode : {"Mode=Average", "Mode=Sobel", "Mode=Anisotropic"}) {
    TImageFilterForm tool;
    ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({mode}).empty());
    tool.Interactive = false;
    TIntList ids{id};
    tool.Init(&ids, nullptr, &FProject);
    TMCC::RequestProcessCancel();
    EXPECT_FALSE(tool.ExecuteCommand("Extract"));
    TMCC::ClearProcessCancelRequest();
    EXPECT_TRUE(tool.GetLastRunCancelled()) << mode;
    EXPECT_TRUE(tool.GetLastResultIDs().empty());
    tool.CleanUp();
    EXPECT_EQ(FProject.DataList().size(), before) << mode;
  }
}

TEST_F(ImageFilterToolTest, DialogParametersRoundTripUnderTheirGroupTag) {
  TImageFilterForm a;
  ASSERT_TRUE(
      a.Parameters()
          .SetParameterValuesFromText({"Mode=Kirsch", "KirschDirectionComboBox=G7", "SharpenAmountEdit=2.5",
                                       "CustomFilterCoefficients=1 0 0 0 1 0 0 0 1"})
          .empty());
  TTagControl tag("Settings", TTagKind::TagList);
  a.GetDialogParameters(tag);
  ASSERT_TRUE(tag.IsTagInList("ImageFilterDialog|Mode"));
  ASSERT_TRUE(tag.IsTagInList("ImageFilterDialog|KirschDirectionComboBox"));
  TImageFilterForm b;
  b.SetDialogParameters(tag);
  const TImageFilterParameters p = b.GetFilterParameters();
  EXPECT_EQ(p.Kind, TImageFilterKind::Kirsch);
  EXPECT_EQ(p.KirschDirection, 7);
  EXPECT_EQ(p.SharpenAmount, 2.5);
  EXPECT_EQ(b.GetStringParameter("CustomFilterCoefficients"), "1 0 0 0 1 0 0 0 1");
}

TEST_F(ImageFilterToolTest, InteractivePreviewFollowsTheParametersAndLeavesNothing) {
  const int32_t id = AddImage(16, 12, Wave);
  const size_t before = FProject.DataList().size();
  TImageFilterForm tool;
  TIntList ids{id};
  tool.Init(&ids, nullptr, &FProject);
  ASSERT_EQ(tool.PreviewImages().size(), 1u);
  const TDImage& preview = Image(tool.PreviewImages().front().ID);
  TImageFilterParameters p;
  p.Kind = TImageFilterKind::Average;
  p.Size = 1;
  EXPECT_EQ(Values(preview), Reference(id, p).first);
  ASSERT_TRUE(
      tool.Parameters().SetParameterValuesFromText({"Mode=Median", "MedianFilterSizeEdit=2"}).empty());
  p.Kind = TImageFilterKind::Median;
  p.Size = 2;
  EXPECT_EQ(Values(preview), Reference(id, p).first);
  // Sobel shows the image of the preview choice.
  ASSERT_TRUE(
      tool.Parameters().SetParameterValuesFromText({"Mode=Sobel", "SobelPreviewComboBox=Gy"}).empty());
  p.Kind = TImageFilterKind::Sobel;
  p.SobelOutput = TSobelOutput::Gy;
  EXPECT_EQ(Values(preview), Reference(id, p).first);
  tool.CleanUp();
  EXPECT_EQ(FProject.DataList().size(), before);
}

} // namespace

namespace {
TEST(ImageFilterUserFolderTest, TheWindowListsTheCustomFiltersOfTheUserImageFilterFolder) {
  oxtest::TempDir dir;
  const std::string saved = TOrvexDirectories::User.UserImageFilters;
  TOrvexDirectories::User.UserImageFilters = dir.File("");
  TCustomImageFilter filter;
  filter.Size = 1;
  filter.Divisor = 1;
  filter.Buffer = {0, 0, 0, 0, 1, 0, 0, 0, 0};
  ASSERT_EQ(SaveCustomImageFilter(dir.File("b.uif"), filter), "");
  ASSERT_EQ(SaveCustomImageFilter(dir.File("a.uif"), filter), "");
  std::ofstream(dir.File("notes.txt")) << "ORX_UICX not a filter";
  EXPECT_EQ(TImageFilterForm::UserFilterFolder(), dir.File(""));
  const std::vector<std::string> files = TImageFilterForm::GetUserFilterFiles();
  ASSERT_EQ(files.size(), 2u) << "only files with the custom filter identification";
  EXPECT_EQ(std::filesystem::path(files[0]).filename(), "a.uif");
  EXPECT_EQ(std::filesystem::path(files[1]).filename(), "b.uif");
  TOrvexDirectories::User.UserImageFilters.clear();
  EXPECT_TRUE(TImageFilterForm::GetUserFilterFiles().empty()) << "no folder, no list";
  TOrvexDirectories::User.UserImageFilters = saved;
}
} // namespace
