// Settings of the fit functions through their parameter tables: the stored layout of each class, loading
// of stored values (missing, outside the limits), settings from text, the settings form and the JSON
// listing, and the parts of composite functions.
#include "common/OrvexException.h"
#include "common/numerics/Fitfunctionmanager.h"
#include "common/numerics/Fitfunctions.h"
#include "common/parameters/Parametertext.h"
#include "support/TestSupport.h"

#include <cmath>
#include <functional>
#include <memory>
#include <numbers>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

/// Writes function into a file under "Root" and reads the file back as a tree.
std::unique_ptr<TTagControl> SavedTree(const oxtest::TempDir& dir, TFitFunction& function) {
  const std::string fileName = dir.File("fit.oxt");
  TFileHandle f = CreateTagFile(fileName, "ORX_TEST");
  EXPECT_NE(f, kInvalidFileHandle);
  TTagControl root;
  root.WriteTag(f, "Root", TTagKind::TagList);
  EXPECT_GE(function.SaveToTagFile(f), 1);
  root.CloseWriteTag(f);
  CloseFile(f);
  auto tree = std::make_unique<TTagControl>();
  EXPECT_EQ(tree->LoadTagListByFileName(fileName, "ORX_TEST"), teNoError);
  return tree;
}

/// Names and kinds of the children of the class tag, in file order.
std::vector<std::pair<std::string, TTagKind>> ClassTagLayout(const TTagControl& root,
                                                             const std::string& cls) {
  std::vector<std::pair<std::string, TTagKind>> layout;
  const TTagControl* classTag = root.FindTagInList("Root|" + cls);
  if (!classTag) classTag = root.FindTagInList(cls);
  EXPECT_NE(classTag, nullptr) << cls;
  if (!classTag) return layout;
  for (const auto& child : *classTag->Children()) layout.emplace_back(child->Name(), child->Kind());
  return layout;
}

/// A class tag as an older writer wrote it by hand: the given int tags, then the function is loaded.
template <class F>
void LoadHandWritten(const oxtest::TempDir& dir, const std::string& cls,
                     const std::vector<std::pair<std::string, int32_t>>& ints, F& function) {
  const std::string fileName = dir.File("old.oxt");
  TFileHandle f = CreateTagFile(fileName, "ORX_TEST");
  ASSERT_NE(f, kInvalidFileHandle);
  TTagControl root, classTag, t;
  root.WriteTag(f, "Root", TTagKind::TagList);
  t.SaveAnsiStringTag(f, "FunctionName", "old");
  classTag.WriteTag(f, cls, TTagKind::TagList);
  t.SaveIntTag(f, "Version", 1);
  for (const auto& [name, value] : ints) t.SaveIntTag(f, name, value);
  classTag.CloseWriteTag(f);
  root.CloseWriteTag(f);
  CloseFile(f);
  TFileHandle r = kInvalidFileHandle;
  TTagControl readRoot;
  ASSERT_EQ(OpenTagFileForReading(fileName, {"ORX_TEST"}, r, readRoot), 1);
  ASSERT_GE(function.LoadFromTagFile(r, readRoot), 1);
  CloseFile(r);
}

using TLayout = std::vector<std::pair<std::string, TTagKind>>;

} // namespace

TEST(FitFunctionSettings, StoredLayoutOfEveryClassIsTheKnownOne) {
  oxtest::TempDir dir;
  const TTagKind I = TTagKind::Int;
  const std::vector<std::pair<std::function<std::unique_ptr<TFitFunction>()>, TLayout>> cases = {
      {[] { return std::make_unique<TNLFitGauss>(); },
       {{"Version", I}, {"NumberOfFunctions", I}, {"IntensityKind", I}, {"WidthKind", I}, {"SortKind", I}}},
      {[] { return std::make_unique<TNLFitLorentz>(); },
       {{"Version", I}, {"NumberOfFunctions", I}, {"IntensityKind", I}, {"ListenIntensityKind", I}}},
      {[] { return std::make_unique<TNLFitPsdVoigt1>(); }, {{"Version", I}}},
      {[] { return std::make_unique<TNLFitPsdVoigt2>(); }, {{"Version", I}}},
      {[] { return std::make_unique<TNLFitExpDecay>(); }, {{"Version", I}, {"ExpDecayOrder", I}}},
      {[] { return std::make_unique<TNLFitPolynom>(); }, {{"Version", I}, {"PolynomOrder", I}}},
      {[] { return std::make_unique<TNLFitUserDefined>(); },
       {{"Version", I}, {"NumberOfParams", I}, {"FitFunctionString", TTagKind::AnsiString}}},
  };
  for (const auto& [make, layout] : cases) {
    auto function = make();
    auto tree = SavedTree(dir, *function);
    EXPECT_EQ(ClassTagLayout(*tree, function->ClassName), layout) << function->ClassName;
  }
}

TEST(FitFunctionSettings, StoredValuesRoundTripAndTheStepStaysOutOfTheFile) {
  oxtest::TempDir dir;
  TNLFitLorentz l;
  ASSERT_TRUE(
      l.SetSettingsFromText({"NumberOfFunctions=4", "IntensityKind=Amplitude", "ListenIntensityKind=1"})
          .empty());
  auto tree = SavedTree(dir, l);
  int32_t value = 0;
  EXPECT_EQ(tree->GetIntTagInList("TNLFitLorentz|NumberOfFunctions", value), teNoError);
  EXPECT_EQ(value, 4);
  auto clone = TFitFunctionManager::CloneFitFunction(l);
  auto* back = dynamic_cast<TNLFitLorentz*>(clone.get());
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->NumberOfFunctions, 4);
  EXPECT_EQ(back->IntensityKind, 1);
  EXPECT_EQ(back->ListenIntensityKind, 1);
  EXPECT_EQ(back->GetNumberOfParameters(), 13);
  EXPECT_EQ(back->Params[3]->ListenKind, TFitParamListenKind::YDiff);

  TNLFitUserDefined u;
  u.EPS = 1e-6;
  u.FitFunctionString = "x2 * exp(-x1 / x3) + x4";
  u.NumberOfParams = 3;
  u.CreateParameters();
  ASSERT_TRUE(u.UserFitFunctionChanged());
  auto userClone = TFitFunctionManager::CloneFitFunction(u);
  auto* userBack = dynamic_cast<TNLFitUserDefined*>(userClone.get());
  ASSERT_NE(userBack, nullptr);
  EXPECT_EQ(userBack->FitFunctionString, "x2*exp(-x1/x3)+x4");
  EXPECT_EQ(userBack->NumberOfParams, 3);
  EXPECT_EQ(userBack->GetNumberOfParameters(), 3);
  EXPECT_TRUE(userBack->IsUsable());
  EXPECT_EQ(userBack->EPS, 1e-4); // not stored: a new function has the default step
}

TEST(FitFunctionSettings, HandWrittenFilesLoadWithDefaultsAndLimits) {
  oxtest::TempDir dir;
  TNLFitGauss g;
  g.WidthKind = 1; // missing in the file: returns to the default
  LoadHandWritten(dir, "TNLFitGauss", {{"NumberOfFunctions", 15}, {"IntensityKind", -3}, {"SortKind", 9}}, g);
  EXPECT_EQ(g.NumberOfFunctions, 10);
  EXPECT_EQ(g.IntensityKind, 0);
  EXPECT_EQ(g.WidthKind, 0);
  EXPECT_EQ(g.SortKind, 4);
  EXPECT_EQ(g.GetNumberOfParameters(), 31);
  EXPECT_TRUE(g.GetOnlyAdvancedMode());

  TNLFitPolynom p;
  LoadHandWritten(dir, "TNLFitPolynom", {}, p);
  EXPECT_EQ(p.PolynomOrder, 2);
  EXPECT_EQ(p.GetNumberOfParameters(), 3);
  LoadHandWritten(dir, "TNLFitPolynom", {{"PolynomOrder", -1}}, p);
  EXPECT_EQ(p.PolynomOrder, 0);
  EXPECT_EQ(p.GetNumberOfParameters(), 1);

  TNLFitUserDefined u;
  LoadHandWritten(dir, "TNLFitUserDefined", {{"NumberOfParams", 1000}}, u);
  EXPECT_EQ(u.NumberOfParams, 100);
  EXPECT_EQ(u.FitFunctionString, "x2+x3*x1"); // the default, compiled without blanks
}

TEST(FitFunctionSettings, SettingsFromTextRebuildTheParametersOrChangeNothing) {
  TNLFitGauss g;
  ASSERT_TRUE(g.SetSettingsFromText({"NumberOfFunctions=3", "WidthKind=FWHM", "IntensityKind=area"}).empty());
  EXPECT_EQ(g.GetNumberOfParameters(), 10);
  EXPECT_EQ(g.GetReplicaList().size(), 3u);
  EXPECT_EQ(g.Params[2]->TransformedLongName, "Peak Width (FWHM)");
  EXPECT_EQ(g.Params[3]->TransformedLongName, "Area");

  const TUserParameterProblems problems =
      g.SetSettingsFromText({"NumberOfFunctions=11", "SortKind=Height", "Peaks=2", "WidthKind=0"});
  ASSERT_EQ(problems.size(), 3u);
  EXPECT_EQ(problems[0], (TUserParameterProblem{"NumberOfFunctions", "11 is outside the limits 1 to 10"}));
  EXPECT_EQ(problems[1].Parameter, "SortKind");
  EXPECT_NE(problems[1].Message.find("No Sort, Center, Peak Width, Intensity, Area"), std::string::npos);
  EXPECT_EQ(problems[2].Parameter, "Peaks");
  EXPECT_NE(problems[2].Message.find("NumberOfFunctions, IntensityKind, WidthKind, SortKind"),
            std::string::npos);
  EXPECT_EQ(g.NumberOfFunctions, 3);
  EXPECT_EQ(g.WidthKind, 2);
  EXPECT_EQ(g.GetNumberOfParameters(), 10);

  TNLFitPsdVoigt1 v; // no settings at all
  const auto none = v.SetSettingsFromText({"NumberOfFunctions=2"});
  ASSERT_EQ(none.size(), 1u);
  EXPECT_EQ(none[0].Parameter, "NumberOfFunctions");
}

TEST(FitFunctionSettings, SettingsFormTakesChangesBack) {
  TNLFitPolynom p;
  TUserParameterAdministrator form;
  p.CFICreateParameters(form);
  ASSERT_EQ(form.GetParameters().size(), 1u);
  TUserIntParameter* order = form.GetUserIntParameter(1);
  ASSERT_NE(order, nullptr);
  EXPECT_EQ(order->GetParameter(), 2);
  order->SetParameter(50); // clipped by the declared limit
  p.CFIParameterChanged(form);
  EXPECT_EQ(p.PolynomOrder, 10);
  EXPECT_EQ(p.GetNumberOfParameters(), 11);
  EXPECT_EQ(p.Params[10]->LongName, "Coefficient(10)");

  TNLFitExpDecay e;
  e.ExpDecayOrder = 0; // out of range before the rebuild
  e.CreateParameters();
  EXPECT_EQ(e.ExpDecayOrder, 1);
  EXPECT_EQ(e.GetNumberOfParameters(), 4);
}

TEST(FitFunctionSettings, JsonAndDefaultsTextComeFromTheDeclaration) {
  TNLFitUserDefined u;
  auto settings = u.Settings().MakeParameters();
  EXPECT_EQ(
      ParametersToJson(*settings),
      "[{\"name\":\"NumberOfParams\",\"caption\":\"Number of parameters\",\"kind\":\"int\",\"default\":2,"
      "\"min\":1,\"max\":100,\"unit\":null,\"choices\":null},"
      "{\"name\":\"FitFunctionString\",\"caption\":\"Formula\",\"kind\":\"string\",\"default\":\"x2 + x3 * "
      "x1\",\"min\":null,\"max\":null,\"unit\":null,\"choices\":null},"
      "{\"name\":\"EPS\",\"caption\":\"Relative step of the derivatives\",\"kind\":\"float\","
      "\"default\":1e-04,\"min\":1e-10,\"max\":1e+30,\"unit\":null,\"choices\":null}]");
  TNLFitLorentz l;
  l.NumberOfFunctions = 2;
  EXPECT_EQ(DefaultSettingsText(*l.Settings().MakeParameters()),
            "DefaultParameters\n  NumberOfFunctions = 2\n  IntensityKind = 0\n  ListenIntensityKind = 0\n");
}

TEST(FitFunctionSettings, PartsOfCompositeFunctionsAddUpAndRefuseBadIndices) {
  TNLFitExpDecay e;
  e.ExpDecayOrder = 3;
  e.CreateParameters();
  ASSERT_EQ(e.GetReplicaList(),
            (std::vector<std::string>{"Exponential Decay 0", "Exponential Decay 1", "Exponential Decay 2"}));
  const double p[8] = {2.0, 1.0, 10.0, 5.0, -3.0, 20.0, 7.0, 0.5};
  for (double x : {1.0, 4.0, 30.0}) {
    double sum = 0;
    for (int r = 0; r < 3; ++r) sum += e.GetReplicaValue(p, x, r) - p[0];
    EXPECT_NEAR(sum + p[0], e.GetFunctionValue(p, x), 1e-12) << x;
    EXPECT_NEAR(e.GetReplicaValue(p, x, 1), 2.0 - 3.0 * std::exp(-(x - 1.0) / 20.0), 1e-12);
  }
  EXPECT_THROW(e.GetReplicaValue(p, 1.0, 3), OrvexException);

  TNLFitLorentz l;
  l.NumberOfFunctions = 2;
  l.CreateParameters();
  const double q[7] = {1.0, 10.0, 2.0, 100.0, 20.0, 4.0, 50.0};
  EXPECT_NEAR(l.GetReplicaValue(q, 10.0, 0), 1.0 + 2.0 * 100.0 / std::numbers::pi / 2.0, 1e-9);
  EXPECT_NEAR(l.GetReplicaValue(q, 12.0, 0) + l.GetReplicaValue(q, 12.0, 1) - 1.0,
              l.GetFunctionValue(q, 12.0), 1e-12);
  try {
    l.GetReplicaValue(q, 1.0, 2);
    ADD_FAILURE() << "no exception";
  } catch (const OrvexException& ex) {
    EXPECT_STREQ(ex.what(), "TNLFitLorentz::GetReplicaValue: wrong Replica index");
  }
}
