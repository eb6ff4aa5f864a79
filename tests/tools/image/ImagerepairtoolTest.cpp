// The Image Repair tool: the mask as the union of its four sources, each method against its kernel and
// known numbers, and every refused input (nothing added).
#include "tools/image/Imagerepairtool.h"

#include "common/OrvexException.h"
#include "common/Tagcontrol.h"
#include "common/numerics/Imagerepair.h"
#include "common/numerics/Inpainting.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dimage.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"

#include <cmath>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

namespace {

std::string CauseText(const std::exception& e) {
  const auto* orvex = dynamic_cast<const OrvexException*>(&e);
  if (orvex && orvex->ExceptionHistory() && !orvex->ExceptionHistory()->empty())
    return orvex->ExceptionHistory()->back();
  return e.what();
}

class ImageRepairToolTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
  }
  void TearDown() override { TMCC::ClearProcessCancelRequest(); }

  int32_t AddImage(int sizeX, int sizeY, const std::function<double(int, int)>& f) {
    auto image = std::make_unique<TDImage>();
    image->SetID(FProject.GetNewDataID());
    image->SetCaption("Scan");
    image->SetFieldSize(sizeX, sizeY);
    std::vector<float> line(static_cast<size_t>(sizeX));
    for (int y = 0; y < sizeY; ++y) {
      for (int x = 0; x < sizeX; ++x) line[x] = static_cast<float>(f(x, y));
      image->SetLine(y, line.data());
      image->SetLineValid(y, true);
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
  TIntList Run(TImageRepairForm& tool, const std::vector<std::string>& set, const TIntList& ids) {
    EXPECT_TRUE(tool.Parameters().SetParameterValuesFromText(set).empty());
    return tool.RunNonInteractive(FProject, ids, "Extract", false);
  }
  std::string Failure(const std::vector<std::string>& set, const TIntList& ids) {
    TImageRepairForm tool;
    const auto problems = tool.Parameters().SetParameterValuesFromText(set);
    if (!problems.empty()) return "refused " + problems.front().Parameter;
    try {
      tool.RunNonInteractive(FProject, ids, "Extract", false);
    } catch (const std::exception& e) {
      return CauseText(e);
    }
    return "";
  }

  TProject FProject;
};

TEST(PixelRectangles, TextsAreReadInclusiveAndBadOnesNamed) {
  std::vector<TPixelRectangle> r;
  std::string problem;
  ASSERT_TRUE(ParsePixelRectangles(" 1:3, 0:0 ;5:5,2:7;", r, problem));
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0].X0, 1);
  EXPECT_EQ(r[0].X1, 3);
  EXPECT_EQ(r[0].Y0, 0);
  EXPECT_EQ(r[0].Y1, 0);
  EXPECT_EQ(r[1].Y1, 7);
  ASSERT_TRUE(ParsePixelRectangles("", r, problem));
  EXPECT_TRUE(r.empty());
  for (const char* text : {"1:3", "1:3,2", "a:3,1:2", "1:3,1:2x", "1-3,1:2", ":3,1:2"}) {
    EXPECT_FALSE(ParsePixelRectangles(text, r, problem)) << text;
    EXPECT_NE(problem.find("is not of the form"), std::string::npos) << text;
  }
  EXPECT_FALSE(ParsePixelRectangles("4:3,1:2", r, problem));
  EXPECT_NE(problem.find("lower bound lies above"), std::string::npos);
}

TEST_F(ImageRepairToolTest, TheMaskJoinsNonFinitePixelsMaskImageRectanglesAndTheDrawing) {
  const int32_t id = AddImage(6, 5, [](int x, int y) { return x + 10 * y; });
  Image(id).SetField(0, 0, std::numeric_limits<float>::infinity());
  Image(id).SetField(5, 4, std::numeric_limits<float>::quiet_NaN());
  for (int y = 0; y < 5; ++y) Image(id).SetLineValid(y, true);
  const int32_t maskID = AddImage(6, 5, [](int x, int y) { return x == 2 && y == 1 ? 0.5 : 0.0; });
  TImageRepairForm tool;
  ASSERT_TRUE(
      tool.Parameters()
          .SetParameterValuesFromText({"MaskImage=" + std::to_string(maskID), "MaskRectangles=4:5,2:2"})
          .empty());
  TIntList ids{id};
  tool.Init(&ids, nullptr, &FProject);
  ASSERT_EQ(tool.GetDrawFieldImageID(), id);
  ASSERT_EQ(tool.DrawField().size(), 30u);
  tool.DrawField()[3 * 6 + 1] = 1;
  const std::vector<bool> mask = tool.BuildMask(Image(id));
  std::vector<bool> expected(30, false);
  for (int i : {0, 29, 1 * 6 + 2, 2 * 6 + 4, 2 * 6 + 5, 3 * 6 + 1}) expected[i] = true;
  EXPECT_EQ(mask, expected);
  // The drawing belongs to its image: another of the same size doesn't get it.
  const int32_t other = AddImage(6, 5, [](int, int) { return 1.0; });
  std::vector<bool> otherExpected(30, false);
  for (int i : {1 * 6 + 2, 2 * 6 + 4, 2 * 6 + 5}) otherExpected[i] = true;
  EXPECT_EQ(tool.BuildMask(Image(other)), otherExpected);
  tool.CleanUp();
}

TEST_F(ImageRepairToolTest, EachMethodGivesItsKernelsResultWithItsCaption) {
  auto f = [](int x, int y) { return std::sin(0.4 * x) * 3 + std::cos(0.3 * y) * 2 + 0.1 * x * y; };
  const int32_t id = AddImage(24, 20, f);
  Image(id).SetField(7, 7, std::numeric_limits<float>::quiet_NaN());
  Image(id).SetLineValid(7, true);
  const std::string rectangles = "MaskRectangles=3:5,10:13;15:15,0:19";
  std::vector<bool> maskVector(24 * 20, false);
  maskVector[7 * 24 + 7] = true;
  for (int y = 10; y <= 13; ++y)
    for (int x = 3; x <= 5; ++x) maskVector[y * 24 + x] = true;
  for (int y = 0; y < 20; ++y) maskVector[y * 24 + 15] = true;
  std::unique_ptr<bool[]> mask(new bool[24 * 20]);
  std::copy(maskVector.begin(), maskVector.end(), mask.get());
  const std::vector<float> input = Values(Image(id));
  auto reference = [&](const std::function<void(const TFloatImage&)>& repair) {
    std::vector<float> v = input;
    repair(TFloatImage{v.data(), nullptr, 24, 20});
    return v;
  };
  struct TCase {
    std::vector<std::string> Set;
    std::string Suffix;
    std::vector<float> Expected;
  };
  TSimpleFillingParameters filling;
  filling.Value = -2;
  filling.AddNoise = true;
  filling.NoiseAmplitude = 0.5;
  filling.Distribution = TNoiseDistribution::Gaussian;
  filling.Direction = TNoiseDirection::Add;
  filling.Seed = 17;
  std::vector<float> inpainted = input;
  {
    TInpainting inpainting;
    inpainting.Init(inpainted.data(), mask.get(), 24, 20, 3, 2);
    inpainting.ProcessAll();
  }
  const std::vector<TCase> cases = {
      {{"Mode=Line Interpolation", rectangles},
       " (Repaired Line Interp.)",
       reference([&](const TFloatImage& i) { RepairLineInterpolation(i, mask.get()); })},
      {{"Mode=Simple Filling", rectangles, "SimpleFillingValueEdit=-2", "SimpleFillingNoiseCheckBox=true",
        "SimpleFillingNoiseEdit=0.5", "SimpleFillingDistributionRadioGroup=Gaussian",
        "SimpleFillingDirectionRadioGroup=Add", "SimpleFillingSeedEdit=17"},
       " (Repaired Simple Filling)",
       reference([&](const TFloatImage& i) { RepairSimpleFilling(i, mask.get(), filling); })},
      {{"Mode=Simple Interpolation", rectangles, "SimpleInterpolationIterationsEdit=250"},
       " (Repaired Simple Interp.)",
       reference([&](const TFloatImage& i) { RepairSimpleInterpolation(i, mask.get(), 250); })},
      {{"Mode=Texture Analysis", rectangles, "InpaintingTextureAnalysisWindowSizeEdit=3",
        "InpaintingTextureNumberOfRotationsEdit=2"},
       " (Repaired Inpainting)",
       inpainted}};
  for (const TCase& c : cases) {
    TImageRepairForm tool;
    const TIntList ids = Run(tool, c.Set, {id});
    ASSERT_EQ(ids.size(), 1u) << c.Suffix;
    EXPECT_EQ(Image(ids[0]).GetCaption(), "Scan" + c.Suffix);
    const std::vector<float> got = Values(Image(ids[0]));
    ASSERT_EQ(got.size(), c.Expected.size());
    for (size_t i = 0; i < got.size(); ++i) {
      ASSERT_EQ(got[i], c.Expected[i]) << c.Suffix << " pixel " << i;
      if (!maskVector[i]) {
        ASSERT_EQ(got[i], input[i]) << c.Suffix << " changed an unmasked pixel " << i;
      }
    }
  }
}

TEST_F(ImageRepairToolTest, LineInterpolationIsLinearBetweenTheBoundingPixels) {
  // Columns of a plane: interpolation along a column gives the plane back exactly.
  const int32_t id = AddImage(5, 9, [](int x, int y) { return 2.0 * y - x + 0.5; });
  TImageRepairForm tool;
  const TIntList ids = Run(tool, {"MaskRectangles=1:3,2:5;0:0,0:1"}, {id});
  ASSERT_EQ(ids.size(), 1u);
  for (int y = 0; y < 9; ++y)
    for (int x = 0; x < 5; ++x) {
      // The run touching the top edge takes its one bounding value (row 2).
      const double expected = (x == 0 && y <= 1) ? 2.0 * 2 - 0 + 0.5 : 2.0 * y - x + 0.5;
      EXPECT_NEAR(Image(ids[0]).GetField(x, y), expected, 1e-5) << x << "," << y;
    }
}

TEST_F(ImageRepairToolTest, BadInputIsNamedAndAddsNothing) {
  const int32_t id = AddImage(8, 8, [](int x, int y) { return x * y; });
  const int32_t small = AddImage(8, 7, [](int, int) { return 1.0; });
  const int32_t big = AddImage(1024, 1024, [](int x, int) { return x; });
  const int32_t justBelow = AddImage(1023, 1024, [](int x, int) { return x; });
  const size_t before = FProject.DataList().size();
  const std::string name = "\"Scan\" (ID " + std::to_string(id) + ")";
  struct TBad {
    std::vector<std::string> Set;
    int32_t ID;
    std::string Needle;
  };
  const std::vector<TBad> bad = {
      {{}, id, "the repair mask of " + name + " is empty"},
      {{"MaskImage=" + std::to_string(small)}, id, "has 8 x 7 pixels, " + name + " has 8 x 8"},
      {{"MaskImage=999"}, id, "MaskImage 999 names no object"},
      {{"MaskRectangles=1:2;3"}, id, "MaskRectangles: \"1:2\" is not of the form"},
      {{"MaskRectangles=5:9,0:0"}, id, "5:9,0:0 reaches beyond"},
      {{"MaskRectangles=2:1,0:0"}, id, "lower bound lies above"},
      {{"Mode=Texture Analysis", "MaskRectangles=1:2,1:2"},
       big,
       "Error: Inpainting Texture Analysis only works on Images smaller than 1024*1024 pixels !"},
      {{"Mode=Simple Interpolation", "SimpleInterpolationIterationsEdit=0"},
       id,
       "refused SimpleInterpolationIterationsEdit"},
      {{"Mode=Texture Analysis", "InpaintingTextureAnalysisWindowSizeEdit=21"},
       id,
       "refused InpaintingTextureAnalysisWindowSizeEdit"},
      {{"Mode=Texture Analysis", "InpaintingTextureNumberOfRotationsEdit=121"},
       id,
       "refused InpaintingTextureNumberOfRotationsEdit"},
      // Filling with noise only keeps the pixel that is not a number.
      {{"Mode=Simple Filling", "SimpleFillingReplaceCheckBox=false", "SimpleFillingNoiseCheckBox=true",
        "SimpleFillingNoiseEdit=1"},
       -1,
       "Calculation Error. Possible reason"}};
  Image(small).SetField(0, 0, std::numeric_limits<float>::quiet_NaN());
  Image(small).SetLineValid(0, true);
  for (const TBad& b : bad) {
    const std::string failure = Failure(b.Set, {b.ID < 0 ? small : b.ID});
    EXPECT_NE(failure.find(b.Needle), std::string::npos) << failure;
    EXPECT_EQ(FProject.DataList().size(), before) << failure;
  }
  // The largest size texture analysis takes.
  EXPECT_EQ(Failure({"Mode=Texture Analysis", "MaskRectangles=500:501,500:501"}, {justBelow}), "");
}

TEST_F(ImageRepairToolTest, ACancelledRunAddsNothingAndParametersRoundTrip) {
  const int32_t id = AddImage(10, 10, [](int x, int y) { return x - y; });
  const size_t before = FProject.DataList().size();
  TImageRepairForm tool;
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"Mode=Simple Interpolation", "MaskRectangles=2:4,2:4"})
                  .empty());
  tool.Interactive = false;
  TIntList ids{id};
  tool.Init(&ids, nullptr, &FProject);
  TMCC::RequestProcessCancel();
  EXPECT_FALSE(tool.ExecuteCommand("Extract"));
  TMCC::ClearProcessCancelRequest();
  EXPECT_TRUE(tool.GetLastRunCancelled());
  tool.CleanUp();
  EXPECT_EQ(FProject.DataList().size(), before);

  TTagControl tag("Settings", TTagKind::TagList);
  tool.GetDialogParameters(tag);
  ASSERT_TRUE(tag.IsTagInList("ImageRepairDialog|Mode"));
  TImageRepairForm other;
  other.SetDialogParameters(tag);
  EXPECT_EQ(other.GetIntParameter("Mode"), 2);
  EXPECT_EQ(other.GetStringParameter("MaskRectangles"), "2:4,2:4");
}

} // namespace
