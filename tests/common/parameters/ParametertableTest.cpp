// Tests of parameters declared once: a tool-shaped unit declares its settings in one table and gets the
// tag round trip (tree and file), "name=value" with every problem at once, the one-line form, the
// defaults text and the JSON listing from that one declaration.
#include "common/parameters/Parametertable.h"

#include "common/OrvexException.h"
#include "common/parameters/Parametertext.h"
#include "support/TestSupport.h"

#include <cstring>
#include <limits>

#include <gtest/gtest.h>

namespace {

/// The settings of a baseline tool as a plain value type.
struct TBaselineSettings {
  int32_t Order = 3;
  double NoiseFactor = 1.5;
  bool Smooth = true;
  std::string Caption = "Baseline";
  int32_t Method = 1;
  double Center = 1234.5;
  bool operator==(const TBaselineSettings&) const = default;
};

/// The one declaration of the tool's parameters.
const TBoundParameterTable<TBaselineSettings>& BaselineTable() {
  static const TBoundParameterTable<TBaselineSettings> table = [] {
    using S = TBaselineSettings;
    TBoundParameterTable<S> t;
    t.Int(&S::Order, "Order", "Polynomial order", 3).SetLimits(0, 12);
    t.Float(&S::NoiseFactor, "NoiseFactor", "Noise factor", 1.5).SetLimits(0.1, 100).SetStep(0.1);
    t.Bool(&S::Smooth, "Smooth", "Smooth first", true);
    t.String(&S::Caption, "Caption", "Caption of the result", "Baseline");
    t.List(&S::Method, "Method", "Method", 1, {{"Polynomial", 1}, {"Spline", 2}, {"Rolling Ball", 3}});
    t.Float(&S::Center, "Center", "Band \"center\"", 1234.5).SetUnit("cm-1");
    return t;
  }();
  return table;
}

/// A tool as the frame sees it: its dialog parameters travel in tags, nothing hand-written.
class TBaselineTool {
public:
  TTagError GetDialogParameters(TTagControl& tag) {
    return BaselineTable().Bind(Settings).SaveToTagControl(tag);
  }
  TTagError SetDialogParameters(const TTagControl& tag) {
    return BaselineTable().Bind(Settings).LoadFromTagControl(tag);
  }
  TBaselineSettings Settings;
};

/// Settings that differ from the defaults in every field, with texts that stress every text form.
TBaselineSettings OddSettings() {
  TBaselineSettings s;
  s.Order = 12;
  s.NoiseFactor = 0.1 + 0.2; // not the double nearest to 0.3
  s.Smooth = false;
  s.Caption = " 5 µm; \"quoted\" = a|b \\ ";
  s.Method = 3;
  s.Center = -5e-324; // smallest denormal
  return s;
}

const TTagControl* Child(const TTagControl& parent, const std::string& name) {
  for (const auto& c : *parent.Children())
    if (c->Name() == name) return c.get();
  return nullptr;
}

} // namespace

TEST(ParameterTable, DeclaredDefaultsAreTheToolsOwnDefaults) {
  TBaselineSettings changed = OddSettings();
  BaselineTable().Bind(changed).ResetToDefaults();
  EXPECT_EQ(changed, TBaselineSettings());
}

TEST(ParameterTable, DeclarationErrorsAreProgrammingErrors) {
  TParameterTable t;
  t.AddInt("A", "A", 0);
  EXPECT_THROW(t.AddBool("A", "A again", false), OrvexException);
  EXPECT_THROW(t.AddInt("", "no name", 0), OrvexException);
  EXPECT_THROW(t.AddList("L", "L", 5, {{"One", 1}, {"Two", 2}}), OrvexException);
}

TEST(ParameterTable, TableMakesTheParameterClassesWithLimitsStepsAndUnits) {
  TUserParameterAdministrator a;
  TBaselineSettings s;
  BaselineTable().Bind(s).CreateParameters(a);
  ASSERT_EQ(a.GetParameters().size(), 6u);
  EXPECT_EQ(a.GetUserIntParameter(1)->GetUpperLimit(), 12);
  auto* noise = dynamic_cast<TUserDoubleParameter*>(a.GetUserParameter(2));
  ASSERT_NE(noise, nullptr);
  EXPECT_EQ(noise->GetSmallIncrement(), 0.1);
  EXPECT_EQ(noise->GetLargeIncrement(), 1.0);
  EXPECT_EQ(a.GetUserListParameter(5)->GetDescriptions().size(), 3u);
  EXPECT_EQ(a.GetUserParameter(6)->GetUnit(), "cm-1");
  std::vector<TUserParameterInfo> infos = a.DescribeParameters();
  EXPECT_EQ(infos[4].DefaultValue, "Polynomial");
  EXPECT_EQ(infos[5].DefaultValue, "1234.5");
}

TEST(ParameterTableTags, DialogParametersRoundTripExactlyInATree) {
  TBaselineTool saved;
  saved.Settings = OddSettings();
  TTagControl tag("DialogParameters", TTagKind::TagList);
  ASSERT_GE(saved.GetDialogParameters(tag), 1);
  // One value tag per parameter, of the parameter's kind.
  ASSERT_EQ(tag.Children()->size(), 6u);
  EXPECT_EQ(Child(tag, "Order")->Kind(), TTagKind::Int);
  EXPECT_EQ(Child(tag, "NoiseFactor")->Kind(), TTagKind::Double);
  EXPECT_EQ(Child(tag, "Smooth")->Kind(), TTagKind::Bool);
  EXPECT_EQ(Child(tag, "Caption")->Kind(), TTagKind::AnsiString);
  EXPECT_EQ(Child(tag, "Method")->Kind(), TTagKind::Int);

  TBaselineTool loaded;
  ASSERT_GE(loaded.SetDialogParameters(tag), 1);
  EXPECT_EQ(loaded.Settings, saved.Settings);
  EXPECT_EQ(std::memcmp(&loaded.Settings.NoiseFactor, &saved.Settings.NoiseFactor, sizeof(double)), 0);
}

TEST(ParameterTableTags, DialogParametersRoundTripThroughAFile) {
  oxtest::TempDir dir;
  const std::string fileName = dir.File("tool.oxs");
  TBaselineSettings saved = OddSettings();
  {
    const TFileHandle file = CreateTagFile(fileName, "ORX_PRSE");
    ASSERT_NE(file, kInvalidFileHandle);
    TTagControl root;
    ASSERT_EQ(root.WriteTag(file, "Baseline", TTagKind::TagList), teNoError);
    ASSERT_GE(BaselineTable().Bind(std::as_const(saved)).SaveToFile(file), 1);
    ASSERT_EQ(root.CloseWriteTag(file), teNoError);
    CloseFile(file);
  }
  TFileHandle file = kInvalidFileHandle;
  TTagControl root;
  ASSERT_GE(OpenTagFileForReading(fileName, {"ORX_PRSE"}, file, root), 1);
  TBaselineSettings loaded;
  EXPECT_GE(BaselineTable().Bind(loaded).LoadFromFile(file, root), 1);
  CloseFile(file);
  EXPECT_EQ(loaded, saved);
}

TEST(ParameterTableTags, MissingTagsGiveDefaultsAndStoredValuesAreHeldToTheLimits) {
  TTagControl tag("DialogParameters", TTagKind::TagList);
  const int32_t order = 50;
  const double noise = -1;
  tag.Children()->push_back(TTagControl::CreateTag("Order", TTagKind::Int, &order));
  tag.Children()->push_back(TTagControl::CreateTag("NoiseFactor", TTagKind::Double, &noise));
  TBaselineTool tool;
  tool.Settings = OddSettings();
  ASSERT_GE(tool.SetDialogParameters(tag), 1);
  TBaselineSettings expected; // every missing value returns to its default
  expected.Order = 12;        // pulled to the upper limit
  expected.NoiseFactor = 0.1; // pulled to the lower limit
  EXPECT_EQ(tool.Settings, expected);
}

TEST(ParameterTableText, SeveralWrongEntriesAreReportedTogetherAndNothingChanges) {
  TBaselineSettings s = OddSettings();
  const TBaselineSettings before = s;
  const TUserParameterProblems problems = BaselineTable().Bind(s).SetFromText(
      {"Order=13", "NoiseFactor=1,5", "Smooth=maybe", "Method=Cubic", "Colour=red", "Caption=fine"});
  EXPECT_EQ(s, before);
  ASSERT_EQ(problems.size(), 5u);
  EXPECT_EQ(problems[0], (TUserParameterProblem{"Order", "13 is outside the limits 0 to 12"}));
  EXPECT_EQ(problems[1], (TUserParameterProblem{"NoiseFactor", "\"1,5\" is not a number"}));
  EXPECT_EQ(problems[2], (TUserParameterProblem{"Smooth", "\"maybe\" is neither true nor false"}));
  EXPECT_EQ(problems[3],
            (TUserParameterProblem{"Method",
                                   "\"Cubic\" is none of the entries (Polynomial, Spline, Rolling Ball)"}));
  EXPECT_EQ(problems[4],
            (TUserParameterProblem{"Colour", "no parameter of this name (known: Order, NoiseFactor, "
                                             "Smooth, Caption, Method, Center)"}));
  const std::string message = ParameterProblemsMessage(problems);
  EXPECT_EQ(message.find('\n'), std::string::npos); // one line
  for (const char* part : {"Order: 13 is outside the limits 0 to 12", "NoiseFactor: ", "Smooth: ",
                           "Method: \"Cubic\"", "Colour: no parameter", "nothing was changed"})
    EXPECT_NE(message.find(part), std::string::npos) << part;

  EXPECT_TRUE(BaselineTable().Bind(s).SetFromText({"Order=0", "Method=spline", "Center=-0.25"}).empty());
  EXPECT_EQ(s.Order, 0);
  EXPECT_EQ(s.Method, 2);
  EXPECT_EQ(s.Center, -0.25);
  EXPECT_EQ(s.Caption, before.Caption);
}

TEST(ParameterTableText, BoundariesOfTheLimitsAreInsideAndANameTwiceIsWrong) {
  TBaselineSettings s;
  EXPECT_TRUE(BaselineTable().Bind(s).SetFromText({"NoiseFactor=0.1", "Order=12"}).empty());
  EXPECT_EQ(s.NoiseFactor, 0.1);
  const auto problems = BaselineTable().Bind(s).SetFromText({"NoiseFactor=0.09999999999999999"});
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].Message, "0.09999999999999999 is outside the limits 0.1 to 100");
  const auto twice = BaselineTable().Bind(s).SetFromText({"Order=1", "Order=2"});
  ASSERT_EQ(twice.size(), 1u);
  EXPECT_EQ(twice[0].Message, "is given more than once");
  EXPECT_EQ(s.Order, 12);
}

TEST(ParameterTableText, RefusalOrCrossCheckLaterInTheSetTakesBackWhatWasSet) {
  TUserParameterAdministrator a;
  TBaselineSettings s;
  BaselineTable().Bind(s).CreateParameters(a);
  int told = 0;
  a.OnParameterChanged = [&told](const TUserParameterList&, bool) { ++told; };
  a.OnIsNewParameterOk = [](const TUserParameterList& changed) { return changed[0]->GetName() != "Smooth"; };
  const auto refused = a.SetParameterValuesFromText({"Order=7", "Smooth=false"});
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(refused[0].Parameter, "Smooth");
  EXPECT_EQ(a.GetUserIntParameter(1)->GetParameter(), 3);
  EXPECT_EQ(told, 2); // Order set, and set back

  a.OnIsNewParameterOk = nullptr;
  a.OnValidateParameters = [](const TUserParameterAdministrator& p) {
    TUserParameterProblems problems;
    if (p.GetUserListParameter(5)->GetParameter() == 2 && p.GetUserIntParameter(1)->GetParameter() > 5)
      problems.push_back({"Order", "a spline takes an order of 5 at most"});
    return problems;
  };
  const auto cross = a.SetParameterValuesFromText({"Order=7", "Method=Spline"});
  ASSERT_EQ(cross.size(), 1u);
  EXPECT_EQ(a.GetUserIntParameter(1)->GetParameter(), 3);
  EXPECT_EQ(a.GetUserListParameter(5)->GetParameter(), 1);
}

TEST(ParameterTableText, OneLineFormRoundTripsEveryText) {
  TBaselineSettings saved = OddSettings();
  auto administrator = BaselineTable().Bind(saved).MakeParameters();
  const std::string line = ParameterValuesToLine(*administrator);
  EXPECT_EQ(line, "Order=12; NoiseFactor=0.30000000000000004; Smooth=false; "
                  "Caption=\" 5 µm; \\\"quoted\\\" = a|b \\\\ \"; Method=Rolling Ball; Center=-5e-324");

  TUserParameterAdministrator other;
  TBaselineSettings loaded;
  BaselineTable().Bind(loaded).CreateParameters(other);
  ASSERT_TRUE(SetParameterValuesFromLine(other, line).empty());
  BaselineTable().Bind(loaded).ReadParameters(other);
  EXPECT_EQ(loaded, saved);

  for (const std::string caption :
       {"", "a", "=", ";", "\"", " ", "x\"", "\\", "a;b=c", "\"\\\"", "tab\tend"}) {
    const std::vector<std::string> one{"Caption=" + caption};
    std::vector<std::string> back;
    std::string problem;
    ASSERT_TRUE(SplitParameterLine(FormatParameterLine(one), back, problem)) << caption;
    EXPECT_EQ(back, one) << caption;
  }
}

TEST(ParameterTableText, MalformedLinesAreReported) {
  std::vector<std::string> out;
  std::string problem;
  EXPECT_FALSE(SplitParameterLine("Caption=\"open; Order=2", out, problem));
  EXPECT_EQ(problem, "the value of Caption has no closing quote");
  EXPECT_FALSE(SplitParameterLine("Caption=\"a\" b; Order=2", out, problem));
  ASSERT_TRUE(SplitParameterLine(" Order = 2 ;; Smooth ;", out, problem));
  EXPECT_EQ(out, (std::vector<std::string>{"Order=2", "Smooth"}));
  TUserParameterAdministrator a;
  TBaselineSettings s;
  BaselineTable().Bind(s).CreateParameters(a);
  const auto problems = SetParameterValuesFromLine(a, " Order = 2 ;; Smooth ;");
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].Message, "expected name=value");
  EXPECT_EQ(a.GetUserIntParameter(1)->GetParameter(), 3);
}

TEST(ParameterTableDescription, DefaultSettingsTextShowsTheTagTree) {
  TBaselineSettings s = OddSettings();
  s.Caption = "Base µ";
  auto administrator = BaselineTable().Bind(s).MakeParameters();
  EXPECT_EQ(DefaultSettingsText(*administrator), "DefaultParameters\n"
                                                 "  Order = 12\n"
                                                 "  NoiseFactor = 0.30000000000000004\n"
                                                 "  Smooth = false\n"
                                                 "  Caption = Base µ\n"
                                                 "  Method = 3\n"
                                                 "  Center = -5e-324\n");
}

TEST(ParameterTableDescription, TagTreeTextShowsNestedListsAndArrays) {
  TTagControl root("Root", TTagKind::TagList);
  root.AddSubTag("Inner", TTagKind::TagList);
  const int32_t ints[3] = {1, -2, 3};
  const float floats[2] = {0.1f, 2.5f};
  root.Children()->back()->Children()->push_back(TTagControl::CreateTag("Ints", TTagKind::Int, ints, 3));
  root.Children()->push_back(TTagControl::CreateTag("Floats", TTagKind::Float, floats, 2));
  EXPECT_EQ(TagTreeText(root), "Root\n  Inner\n    Ints = 1, -2, 3\n  Floats = 0.1, 2.5\n");
}

TEST(ParameterTableDescription, JsonListsEveryValueParameterWithKindDefaultLimitsUnitAndChoices) {
  TBaselineSettings s = OddSettings(); // the current values do not show: defaults are declared ones
  auto administrator = BaselineTable().Bind(s).MakeParameters();
  EXPECT_EQ(
      ParametersToJson(*administrator),
      "[{\"name\":\"Order\",\"caption\":\"Polynomial order\",\"kind\":\"int\",\"default\":3,\"min\":0,"
      "\"max\":12,\"unit\":null,\"choices\":null},"
      "{\"name\":\"NoiseFactor\",\"caption\":\"Noise factor\",\"kind\":\"float\",\"default\":1.5,\"min\":0.1,"
      "\"max\":100,\"unit\":null,\"choices\":null},"
      "{\"name\":\"Smooth\",\"caption\":\"Smooth first\",\"kind\":\"bool\",\"default\":true,\"min\":null,"
      "\"max\":null,\"unit\":null,\"choices\":null},"
      "{\"name\":\"Caption\",\"caption\":\"Caption of the result\",\"kind\":\"string\","
      "\"default\":\"Baseline\",\"min\":null,\"max\":null,\"unit\":null,\"choices\":null},"
      "{\"name\":\"Method\",\"caption\":\"Method\",\"kind\":\"list\",\"default\":\"Polynomial\","
      "\"min\":null,\"max\":null,\"unit\":null,\"choices\":[\"Polynomial\",\"Spline\",\"Rolling Ball\"]},"
      "{\"name\":\"Center\",\"caption\":\"Band \\\"center\\\"\",\"kind\":\"float\",\"default\":1234.5,"
      "\"min\":null,\"max\":null,\"unit\":\"cm-1\",\"choices\":null}]");
}

TEST(ParameterTableDescription, JsonOfCollectionsUsesPathsAndLeavesCommandsOut) {
  TUserParameterAdministrator a;
  auto* group = a.Add<TUserCollectionParameter>(1, "Fit", "Fit", "");
  auto* tol = group->GetNestedAdministrator().Add<TUserFloatParameter>(2, "Tolerance", "Tol", "", 0.1f);
  tol->SetLimits(0.0f, 0.3f);
  a.Add<TUserTriggerParameter>(3, "Run", "Run", "");
  a.AllParameterListChanged();
  EXPECT_EQ(ParametersToJson(a), "[{\"name\":\"Fit|Tolerance\",\"caption\":\"Tol\",\"kind\":\"float\","
                                 "\"default\":0.1,\"min\":0,\"max\":0.3,\"unit\":null,\"choices\":null}]");
  EXPECT_EQ(JsonString("a\x01\n\"\\µ"), "\"a\\u0001\\n\\\"\\\\µ\"");
}

TEST(ParameterTableTags, CollectionsNestTheirValueTags) {
  TUserParameterAdministrator a;
  auto* group = a.Add<TUserCollectionParameter>(1, "Fit", "Fit", "");
  auto* iterations = group->GetNestedAdministrator().Add<TUserIntParameter>(2, "Iterations", "It", "", 10);
  a.Add<TUserTriggerParameter>(3, "Run", "Run", "");
  a.AllParameterListChanged();
  iterations->SetParameter(42);
  EXPECT_EQ(DefaultSettingsText(a), "DefaultParameters\n  Fit\n    Iterations = 42\n");

  TTagControl tag("DialogParameters", TTagKind::TagList);
  ASSERT_GE(a.SaveParameterValueTagsToTagControl(tag), 1);
  iterations->SetParameter(1);
  ASSERT_GE(a.LoadParameterValueTagsFromTagControl(tag), 1);
  EXPECT_EQ(iterations->GetParameter(), 42);
  // A tree without the collection's tag returns its members to their defaults.
  TTagControl empty("DialogParameters", TTagKind::TagList);
  ASSERT_GE(a.LoadParameterValueTagsFromTagControl(empty), 1);
  EXPECT_EQ(iterations->GetParameter(), 10);
}

TEST(ParameterTableTags, BindingFindsItsParametersBesideOthersOfAForm) {
  TUserParameterAdministrator form;
  form.OnCreateParameters = [](TUserParameterAdministrator& a) {
    a.Add<TUserIntParameter>(99, "Zoom", "Zoom", "", 7);
  };
  TBaselineSettings s = OddSettings();
  BaselineTable().Bind(s).CreateParameters(form);
  ASSERT_EQ(form.GetParameters().size(), 7u);
  EXPECT_EQ(form.GetUserIntParameter(1)->GetParameter(), 12);
  EXPECT_EQ(form.GetUserParameterByName("Caption")->GetValueText(), s.Caption);
  ASSERT_TRUE(form.SetParameterValuesFromText({"Order=4", "Zoom=2"}).empty());
  TBaselineSettings back = s;
  BaselineTable().Bind(back).ReadParameters(form);
  EXPECT_EQ(back.Order, 4);
  EXPECT_EQ(back.Caption, s.Caption);
  EXPECT_EQ(form.GetUserIntParameter(99)->GetParameter(), 2);
}

TEST(ParameterTableText, CrossCheckOfTheTableTakesABadCombinationBackWhole) {
  struct TRange {
    double Low = 0;
    double High = 10;
    bool operator==(const TRange&) const = default;
  };
  TBoundParameterTable<TRange> table;
  table.Float(&TRange::Low, "Low", "Low", 0);
  table.Float(&TRange::High, "High", "High", 10);
  table.SetCrossCheck([](const TUserParameterAdministrator& a) {
    TUserParameterProblems problems;
    const double low = dynamic_cast<const TUserDoubleParameter&>(*a.GetUserParameter(1)).GetParameter();
    const double high = dynamic_cast<const TUserDoubleParameter&>(*a.GetUserParameter(2)).GetParameter();
    if (low >= high) problems.push_back({"High", "must lie above Low"});
    return problems;
  });
  TRange r;
  const auto problems = table.Bind(r).SetFromText({"Low=20", "High=15"});
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0], (TUserParameterProblem{"High", "must lie above Low"}));
  EXPECT_EQ(r, TRange());
  EXPECT_TRUE(table.Bind(r).SetFromText({"Low=12", "High=15"}).empty());
  EXPECT_EQ(r, (TRange{12, 15}));

  // The same check guards a form that the table filled.
  TUserParameterAdministrator form;
  table.Bind(r).CreateParameters(form);
  EXPECT_TRUE(form.ValidateParameters().empty());
  dynamic_cast<TUserDoubleParameter&>(*form.GetUserParameter(1)).SetParameter(99);
  EXPECT_EQ(form.ValidateParameters().size(), 1u);
}
