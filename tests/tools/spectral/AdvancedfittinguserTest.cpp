// The Advanced Fitting Tool with the user's fit functions: the functions of a user fit functions file join
// the Function list by name, a user Gauss fits as the built-in Gauss does, and files that aren't such a
// file, or names it doesn't hold, are refused naming the parameter.
#include "common/Saveandload.h"
#include "common/numerics/Fitfunctionmanager.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"
#include "tools/spectral/AdvancedfittingTestSupport.h"
#include "tools/spectral/Advancedfittingcore.h"
#include "tools/spectral/Advancedfittingtool.h"

#include <cmath>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

namespace {

constexpr int kLength = 120;
// The built-in Gauss as a formula: x1 the abscissa, x2 offset, x3 centre, x4 sigma, x5 amplitude.
constexpr const char* kUserGauss = "x2 + x5 * EXP(-0.5 * ((x1 - x3) / x4)^2)";

class AdvancedFittingUserTest : public oxtest::AdvancedFittingFixture {
protected:
  void SetUp() override {
    AdvancedFittingFixture::SetUp();
    FFolder = std::filesystem::temp_directory_path() /
              ("orvex_advfit_user_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
               "_" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(FFolder);
  }
  void TearDown() override { std::filesystem::remove_all(FFolder); }

  std::string PathOf(const std::string& name) const { return (FFolder / name).string(); }

  TDGraph* AddGaussStack(int sx, int sy) {
    return AddStack(sx, sy, kLength, "Stack", [](int x, int y, std::vector<float>& s) {
      // A small deterministic ripple, so that the fits have residuals to agree on.
      for (int g = 0; g < kLength; ++g)
        s[g] = static_cast<float>(oxtest::GaussValue(oxtest::GaussTruthAt(x, y), g) +
                                  0.3 * std::sin(1.7 * g + x));
    });
  }

  // A user fit functions file with the user Gauss (start values near the bands of the stack) and a second
  // function whose formula can't be read.
  std::string WriteUserFile() {
    TFitFunctionManager manager;
    auto gauss = std::make_unique<TNLFitUserDefined>();
    gauss->FunctionName = "UserGauss";
    gauss->Categories = {"User"};
    gauss->NumberOfParams = 4;
    gauss->FitFunctionString = kUserGauss;
    gauss->CreateParameters();
    EXPECT_TRUE(gauss->IsUsable());
    const double start[] = {5.0, 55.0, 4.5, 90.0};
    for (int i = 0; i < 4; ++i) gauss->GetParam(i)->SetValues(start[i], false, true, start[i]);
    gauss->GetParam(2)->SetLimits(true, 1e-6, true, false, 0, true);
    manager.AddFitFunction(std::move(gauss));
    auto broken = std::make_unique<TNLFitUserDefined>();
    broken->FunctionName = "Broken";
    broken->Categories = {"User"};
    broken->FitFunctionString = "x2 * (x1 + ";
    broken->CreateParameters();
    manager.AddFitFunction(std::move(broken));
    const std::string file = PathOf("functions.ouf");
    EXPECT_GE(manager.SaveUserFitFunctionsToTagFile(file), 1);
    return file;
  }

  std::filesystem::path FFolder;
};

TEST_F(AdvancedFittingUserTest, UserGaussGivesTheBuiltInGaussMaps) {
  const int sx = 4, sy = 3;
  TDGraph* graph = AddGaussStack(sx, sy);
  const std::string file = WriteUserFile();

  TAdvancedFittingToolForm builtIn;
  ASSERT_TRUE(builtIn.Parameters().SetParameterValuesFromText({"Fit Mask=20:110 px"}).empty());
  const TIntList reference = builtIn.RunNonInteractive(FProject, {graph->GetID()}, "Extract All", false);

  TAdvancedFittingToolForm user;
  // The name stands before the file that defines it: the set is taken whole.
  ASSERT_TRUE(user.Parameters()
                  .SetParameterValuesFromText(
                      {"Function=UserGauss", "User Fit Functions File=" + file, "Fit Mask=20:110 px"})
                  .empty());
  const TIntList ids = user.RunNonInteractive(FProject, {graph->GetID()}, "Extract All", false);
  EXPECT_EQ(user.GetNumberOfFailedFits(), 0);
  // The same parameters under the formula's names: y0 = x2, x0 = x3, s = x4, Amp = x5.
  const std::pair<const char*, const char*> same[] = {{"y0", "x2"}, {"x0", "x3"}, {"s", "x4"}, {"Amp", "x5"}};
  for (const auto& [gaussName, userName] : same) {
    auto* g = Result<TDImage>(reference, std::string("Stack (Fit Gauss: ") + gaussName + ")");
    auto* u = Result<TDImage>(ids, std::string("Stack (Fit UserGauss: ") + userName + ")");
    auto* ge = Result<TDImage>(reference, std::string("Stack (Fit Gauss: ") + gaussName + " Error)");
    auto* ue = Result<TDImage>(ids, std::string("Stack (Fit UserGauss: ") + userName + " Error)");
    ASSERT_TRUE(g && u && ge && ue) << gaussName;
    for (int y = 0; y < sy; ++y)
      for (int x = 0; x < sx; ++x) {
        EXPECT_NEAR(u->GetField(x, y), g->GetField(x, y), 1e-4 * std::fabs(g->GetField(x, y)) + 1e-5)
            << gaussName << " " << x << " " << y;
        // Numeric derivatives give the errors to a few digits.
        EXPECT_NEAR(ue->GetField(x, y), ge->GetField(x, y), 2e-2 * ge->GetField(x, y)) << gaussName;
      }
  }
  auto* gChi = Result<TDImage>(reference, "Stack (Fit Gauss: Chi^2)");
  auto* uChi = Result<TDImage>(ids, "Stack (Fit UserGauss: Chi^2)");
  ASSERT_TRUE(gChi && uChi);
  EXPECT_NEAR(uChi->GetField(1, 1), gChi->GetField(1, 1), 1e-4 * gChi->GetField(1, 1));
  // The history repeats the run with the function's name and its file.
  const std::string& line = Result<TDImage>(ids, "Stack (Fit UserGauss: x3)")->GetHistoryList().back().Text;
  EXPECT_NE(line.find("Function=UserGauss"), std::string::npos) << line;
  EXPECT_NE(line.find("User Fit Functions File=" + file), std::string::npos) << line;
}

TEST_F(AdvancedFittingUserTest, UserFunctionKeepsItsStoredRowsAndRowsStillApply) {
  TDGraph* graph = AddGaussStack(2, 1);
  const std::string file = WriteUserFile();
  TAdvancedFittingToolForm tool;
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"User Fit Functions File=" + file, "Function=UserGauss",
                                               "Fit Parameters=x2|Vary=false; x2|Value=4"})
                  .empty());
  TAdvancedFittingCore core;
  std::string error;
  ASSERT_TRUE(tool.ConfigureCore(core, error)) << error;
  EXPECT_EQ(core.GetFunction()->FunctionName, "UserGauss");
  ASSERT_EQ(core.Rows().size(), 4u);
  EXPECT_EQ(core.Rows()[1].StartValue, 55.0); // from the file
  EXPECT_TRUE(core.Rows()[2].HasLowerLimit);
  EXPECT_FALSE(core.Rows()[0].Vary);
  // Pixel (0, 0) with the offset fixed at its true value: the point route fits it.
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Fit Mask=20:110 px"}).empty());
  const TIntList ids = tool.RunNonInteractive(FProject, {graph->GetID()}, "Extract", false);
  ASSERT_EQ(ids.size(), 1u);
  const std::string json = tool.GetReportJson();
  EXPECT_NE(json.find("{\"name\":\"x2\",\"value\":4,"), std::string::npos) << json;
  EXPECT_NE(json.find("\"status\":\"ok\""), std::string::npos) << json;
  EXPECT_NE(json.find("\"dof\":88"), std::string::npos) << json; // 91 points, three varied
}

TEST_F(AdvancedFittingUserTest, BadFilesAndNamesAreRefusedNamingTheParameter) {
  const std::string file = WriteUserFile();
  // A tag file of another kind, one of the right kind with another root, and no tag file at all.
  const std::string otherMagic = PathOf("other.oxh");
  {
    TFileHandle f = CreateTagFile(otherMagic, "ORX_TEMP");
    ASSERT_NE(f, kInvalidFileHandle);
    TTagControl root, t;
    ASSERT_GE(root.WriteTag(f, "OrvexUserFitFunctions", TTagKind::TagList), 1);
    ASSERT_GE(t.SaveIntTag(f, "NumberOfFitFunctions", 0), 1);
    ASSERT_GE(root.CloseWriteTag(f), 1);
    CloseFile(f);
  }
  const std::string otherRoot = PathOf("root.ouf");
  {
    TFileHandle f = CreateTagFile(otherRoot, "ORX_UFIT");
    ASSERT_NE(f, kInvalidFileHandle);
    TTagControl root, t;
    ASSERT_GE(root.WriteTag(f, "SomethingElse", TTagKind::TagList), 1);
    ASSERT_GE(t.SaveIntTag(f, "NumberOfFitFunctions", 0), 1);
    ASSERT_GE(root.CloseWriteTag(f), 1);
    CloseFile(f);
  }
  const std::string text = PathOf("text.ouf");
  std::ofstream(text) << "UserGauss = x2 + x3 * x1\n";

  const struct {
    std::vector<std::string> Set;
    std::string Parameter, Needle;
  } cases[] = {
      {{"User Fit Functions File=" + otherMagic}, "User Fit Functions File", "is no user fit functions file"},
      {{"User Fit Functions File=" + otherRoot}, "User Fit Functions File", "is no user fit functions file"},
      {{"User Fit Functions File=" + text}, "User Fit Functions File", text},
      {{"User Fit Functions File=" + PathOf("missing.ouf")}, "User Fit Functions File", "is no file"},
      {{"User Fit Functions File=" + file, "Function=Missing"}, "Function", "no fit function \"Missing\""},
      {{"Function=UserGauss"}, "Function", "no User Fit Functions File"},
      {{"User Fit Functions File=" + file, "Function=Broken"}, "Function", "x2*(x1+"},
  };
  for (const auto& c : cases) {
    TAdvancedFittingToolForm tool;
    const TUserParameterProblems problems = tool.Parameters().SetParameterValuesFromText(c.Set);
    ASSERT_EQ(problems.size(), 1u) << c.Set.front();
    EXPECT_EQ(problems.front().Parameter, c.Parameter) << c.Set.front();
    EXPECT_NE(problems.front().Message.find(c.Needle), std::string::npos) << problems.front().Message;
    EXPECT_EQ(problems.front().Message.find('\n'), std::string::npos) << problems.front().Message;
    // Refused whole: the values are as before.
    EXPECT_EQ(tool.GetStringParameter("User Fit Functions File"), "");
    EXPECT_EQ(tool.Parameters().GetUserParameterByName("Function")->GetValueText(), "Gauss");
  }
  // The known names are listed, the file's ones after the standard ones.
  TAdvancedFittingToolForm tool;
  const TUserParameterProblems problems =
      tool.Parameters().SetParameterValuesFromText({"User Fit Functions File=" + file, "Function=Nope"});
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems.front().Message.find("User Defined, UserGauss, Broken"), std::string::npos)
      << problems.front().Message;
  // A standard name after a user one returns to the list.
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"User Fit Functions File=" + file, "Function=UserGauss"})
                  .empty());
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Function=Lorentz"}).empty());
  EXPECT_EQ(tool.GetIntParameter("Function"), 1);
  EXPECT_EQ(tool.Parameters().GetUserParameterByName("Function")->GetValueText(), "Lorentz");
}

TEST_F(AdvancedFittingUserTest, StoredSettingsKeepTheUserFunctionByName) {
  const std::string file = WriteUserFile();
  TAdvancedFittingToolForm tool;
  auto functionText = [](TAdvancedFittingToolForm& t) {
    return t.Parameters().GetUserParameterByName("Function")->GetValueText();
  };
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Function=Lorentz"}).empty());
  TTagControl standard("DialogParameters", TTagKind::TagList);
  tool.GetDialogParameters(standard);
  ASSERT_TRUE(tool.Parameters()
                  .SetParameterValuesFromText({"User Fit Functions File=" + file, "Function=UserGauss"})
                  .empty());
  TTagControl user("DialogParameters", TTagKind::TagList);
  tool.GetDialogParameters(user);
  const std::string defaults = PathOf("defaults.oxh");
  ASSERT_GE(tool.Parameters().SaveParameterValues(defaults), 1);

  // Settings stored with a standard function return to it.
  tool.SetDialogParameters(standard);
  EXPECT_EQ(functionText(tool), "Lorentz");
  // Settings stored with a user function, in a tree and in a file, give it back to another tool.
  TAdvancedFittingToolForm fromTree, fromFile;
  fromTree.SetDialogParameters(user);
  EXPECT_EQ(functionText(fromTree), "UserGauss");
  ASSERT_GE(fromFile.Parameters().LoadParameterValues(defaults), 1);
  EXPECT_EQ(functionText(fromFile), "UserGauss");
  TAdvancedFittingCore core;
  std::string error;
  ASSERT_TRUE(fromFile.ConfigureCore(core, error)) << error;
  EXPECT_EQ(core.GetFunction()->FunctionName, "UserGauss");
  ASSERT_TRUE(tool.ConfigureCore(core, error)) << error;
  EXPECT_EQ(core.GetFunction()->FunctionName, "Lorentz");
}

TEST_F(AdvancedFittingUserTest, FormulaOfTheStandardUserFunctionTakesEffect) {
  TDGraph* graph = AddGaussStack(2, 2);
  TAdvancedFittingToolForm tool;
  ASSERT_TRUE(
      tool.Parameters()
          .SetParameterValuesFromText(
              {"Function=User Defined",
               std::string("Function Settings=NumberOfParams=4; FitFunctionString=") + kUserGauss,
               "Fit Parameters=x2|Start Value=5; x3|Start Value=52; x4|Start Value=5; x5|Start Value=85",
               "Fit Mask=20:110 px", "Pixel Y=1"})
          .empty());
  tool.RunNonInteractive(FProject, {graph->GetID()}, "Extract", false);
  const std::string json = tool.GetReportJson();
  ASSERT_NE(json.find("\"status\":\"ok\""), std::string::npos) << json;
  const oxtest::TGaussTruth t = oxtest::GaussTruthAt(0, 1);
  auto valueOf = [&](const std::string& name) {
    const size_t at = json.find("{\"name\":\"" + name + "\",\"value\":");
    return at == std::string::npos ? NAN : std::stod(json.substr(at + name.size() + 19));
  };
  EXPECT_NEAR(valueOf("x3"), t.Center, 0.05);
  EXPECT_NEAR(valueOf("x4"), t.Sigma, 0.05);
  EXPECT_NEAR(valueOf("x5"), t.Amp, 0.5);
  // A formula that can't be read is refused before any run.
  const TUserParameterProblems problems =
      tool.Parameters().SetParameterValuesFromText({"Function Settings=FitFunctionString=x2 * ("});
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems.front().Parameter, "Function Settings");
  EXPECT_NE(problems.front().Message.find("can't be read"), std::string::npos) << problems.front().Message;
}

} // namespace
