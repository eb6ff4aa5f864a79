// Tests of the parameter kinds: limits, refused sets, events, input masks, text forms, list entries.
#include "common/parameters/Userparameter.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

/// A control that records what the parameter showed in it.
class TRecordingMask : public IUserParameterInputMask {
public:
  void ShowParameter(const TUserParameter& parameter) override {
    Shown.push_back(parameter.GetParameterString());
  }
  void ShowState(bool enabled, bool visible, TUserParameterFontColor fontColor) override {
    Enabled = enabled;
    Visible = visible;
    Color = fontColor;
    ++StateCalls;
  }
  std::vector<std::string> Shown;
  bool Enabled = true;
  bool Visible = true;
  TUserParameterFontColor Color = TUserParameterFontColor::WindowText;
  int StateCalls = 0;
};

} // namespace

TEST(UserParameterSet, FloatIsClippedToItsDefaultLimits) {
  TUserFloatParameter p(1, "Width", "Width", "");
  EXPECT_TRUE(p.SetParameter(20.0f));
  EXPECT_FLOAT_EQ(p.GetParameter(), 10.0f);
  p.SetParameter(-3.0f);
  EXPECT_FLOAT_EQ(p.GetParameter(), 0.0f);
}

TEST(UserParameterSet, IntLimitsApplyOnlyWhenSwitchedOnAndOnlyAtTheNextSet) {
  TUserIntParameter p(1, "Order", "Order", "", 5);
  p.SetParameter(1000);
  EXPECT_EQ(p.GetParameter(), 1000); // no limits by default
  p.SetUpperLimit(12);
  EXPECT_EQ(p.GetParameter(), 1000); // storing a limit clips nothing
  p.SetHasUpperLimit(true);
  EXPECT_EQ(p.GetParameter(), 1000);
  EXPECT_FALSE(p.CheckCurrentValue().empty());
  p.SetParameter(13);
  EXPECT_EQ(p.GetParameter(), 12);
  // Lower limit first, then upper: with crossed limits the upper one wins.
  p.SetLowerLimit(20);
  p.SetHasLowerLimit(true);
  p.SetParameter(0);
  EXPECT_EQ(p.GetParameter(), 12);
}

TEST(UserParameterSet, RefusedSetKeepsValueRestoresDisplayAndTellsNobody) {
  TUserIntParameter p(1, "N", "N", "", 3);
  TRecordingMask mask;
  p.AddInputMask(&mask);
  int changed = 0;
  int wantedSeen = 0;
  p.OnParameterChanged = [&](const TUserParameterList&, bool) { ++changed; };
  p.OnIsNewParameterOk = [&](const TUserParameterList& list) {
    EXPECT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0], &p);
    wantedSeen = p.GetWantedParameter();
    return wantedSeen != 7;
  };
  const size_t shownBefore = mask.Shown.size();
  EXPECT_FALSE(p.SetParameter(7));
  EXPECT_EQ(wantedSeen, 7);
  EXPECT_EQ(p.GetParameter(), 3);
  EXPECT_EQ(changed, 0);
  // The control may hold the refused text the user typed: it is shown the old value again.
  ASSERT_EQ(mask.Shown.size(), shownBefore + 1);
  EXPECT_EQ(mask.Shown.back(), "3");

  EXPECT_TRUE(p.SetParameter(8));
  EXPECT_EQ(p.GetParameter(), 8);
  EXPECT_EQ(p.GetShadowParameter(), 8);
  EXPECT_EQ(changed, 1);
  EXPECT_EQ(mask.Shown.back(), "8");

  EXPECT_TRUE(p.SetParameterSilent(9));
  EXPECT_EQ(p.GetParameter(), 9);
  EXPECT_EQ(changed, 1);
}

TEST(UserParameterState, ErrorStateColoursControlsAndLabelsAndFiresOnChangeOnly) {
  TUserStringParameter p(1, "Caption", "Caption", "");
  TRecordingMask control, label;
  p.AddInputMask(&control, &label);
  int stateEvents = 0;
  p.OnParameterStateChanged = [&](TUserParameter* changed) {
    EXPECT_EQ(changed, &p);
    ++stateEvents;
  };
  p.SetErrorState(kUserParameterError);
  EXPECT_EQ(control.Color, TUserParameterFontColor::Red);
  EXPECT_EQ(label.Color, TUserParameterFontColor::Red);
  EXPECT_EQ(stateEvents, 1);
  p.SetErrorState(kUserParameterError);
  EXPECT_EQ(stateEvents, 1);
  p.SetErrorState(kUserParameterNoError);
  EXPECT_EQ(label.Color, TUserParameterFontColor::WindowText);
  p.SetEnabled(false);
  p.SetVisible(false);
  EXPECT_FALSE(control.Enabled);
  EXPECT_FALSE(label.Visible);
  EXPECT_EQ(stateEvents, 4);

  p.RemoveInputMask(&control);
  const int calls = control.StateCalls;
  p.SetEnabled(true);
  EXPECT_EQ(control.StateCalls, calls);
}

TEST(UserParameterPath, WithoutAdministratorTheNameIsFehler) {
  TUserBoolParameter p(1, "Flag", "Flag", "");
  EXPECT_EQ(p.GetAbsoluteName(), "Fehler");
}

TEST(UserListParameter, EntriesByDescriptionIndexAndNumber) {
  TUserListParameter p(1, "Method", "Method", "", 10);
  p.AddListEntry("Polynomial", 10);
  p.AddListEntry("Spline", 20);
  p.AddListEntry("Rolling Ball", 30);
  EXPECT_EQ(p.GetKind(), TUserParameterKind::List);
  EXPECT_EQ(p.GetDescriptionsIndexFromParameter(), 0);
  EXPECT_TRUE(p.SetParameterWithDescription("Rolling Ball"));
  EXPECT_EQ(p.GetParameter(), 30);
  EXPECT_EQ(p.GetParameterString(), "Rolling Ball");
  EXPECT_FALSE(p.SetParameterWithDescription("Nothing"));
  EXPECT_EQ(p.GetParameter(), 30);

  EXPECT_TRUE(p.SetParameterByIndex(1));
  EXPECT_EQ(p.GetParameter(), 20);
  int changed = 0;
  p.OnParameterChanged = [&](const TUserParameterList&, bool) { ++changed; };
  EXPECT_FALSE(p.SetParameterByIndex(3));
  EXPECT_FALSE(p.SetParameterByIndex(-1));
  EXPECT_EQ(p.GetParameter(), 20);
  EXPECT_EQ(changed, 0);

  p.ChangeListEntry(1, "Cubic Spline", 21);
  p.ChangeListEntry(7, "Ignored", 99);
  EXPECT_EQ(p.GetDescriptionsIndexFromParameter(), -1); // 20 is no entry any more
  EXPECT_EQ(p.GetParameterString(), "20");
  EXPECT_FALSE(p.CheckCurrentValue().empty());
  const auto entries = p.GetDescriptionsAndNumbers();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[1], std::make_pair(std::string("Cubic Spline"), 21));
  p.ClearAllEntries();
  EXPECT_TRUE(p.GetDescriptions().empty());
}

TEST(UserParameterText, ValuesRoundTripThroughTheirText) {
  TUserFloatParameter f(1, "F", "F", "");
  f.SetLimits(-1e6f, 1e6f);
  f.SetParameter(0.1f);
  std::string problem;
  TUserFloatParameter g(2, "G", "G", "");
  g.SetLimits(-1e6f, 1e6f);
  ASSERT_TRUE(g.SetParameterFromText(f.GetValueText(), problem)) << problem;
  EXPECT_EQ(g.GetParameter(), f.GetParameter()); // exact, not approximately

  TUserListParameter l(3, "L", "L", "");
  l.AddListEntry("Fast", 1);
  l.AddListEntry("Exact", 2);
  l.SetParameter(2);
  EXPECT_EQ(l.GetValueText(), "Exact");
  EXPECT_TRUE(l.SetParameterFromText("fast", problem));
  EXPECT_EQ(l.GetParameter(), 1);
  EXPECT_TRUE(l.SetParameterFromText("2", problem));
  EXPECT_EQ(l.GetParameter(), 2);
  EXPECT_FALSE(l.SetParameterFromText("3", problem));
  EXPECT_NE(problem.find("Fast, Exact"), std::string::npos);

  TUserBoolParameter b(4, "B", "B", "");
  b.TrueFalseStrings("On", "Off");
  EXPECT_TRUE(b.SetParameterFromText(" yes ", problem));
  EXPECT_TRUE(b.GetParameter());
  EXPECT_EQ(b.GetParameterString(), "On");
  EXPECT_TRUE(b.SetParameterFromText("OFF", problem));
  EXPECT_FALSE(b.GetParameter());
  EXPECT_FALSE(b.SetParameterFromText("maybe", problem));

  TUserStringParameter s(5, "S", "S", "", "x");
  EXPECT_TRUE(s.SetParameterFromText(" with = and | inside ", problem));
  EXPECT_EQ(s.GetParameter(), " with = and | inside ");
}

TEST(UserParameterText, BadTextsAndValuesOutsideLimitsAreRefusedWithoutChange) {
  TUserIntParameter i(1, "I", "I", "", 4);
  i.SetLimits(0, 12);
  std::string problem;
  for (const char* bad : {"", "abc", "4.5", "12x", "99999999999"}) {
    EXPECT_FALSE(i.SetParameterFromText(bad, problem)) << bad;
    EXPECT_FALSE(problem.empty());
  }
  EXPECT_FALSE(i.SetParameterFromText("13", problem));
  EXPECT_EQ(problem, "13 is outside the limits 0 to 12");
  EXPECT_FALSE(i.SetParameterFromText("-1", problem));
  EXPECT_EQ(problem, "-1 is outside the limits 0 to 12");
  EXPECT_EQ(i.GetParameter(), 4);
  EXPECT_TRUE(i.SetParameterFromText("+12", problem));
  EXPECT_EQ(i.GetParameter(), 12);

  TUserFloatParameter f(2, "F", "F", "", 1.0f);
  for (const char* bad : {"nan", "inf", "1e39", "1,5", "--1"})
    EXPECT_FALSE(f.CheckValueText(bad, problem)) << bad;
  EXPECT_FALSE(f.SetParameterFromText("10.5", problem));
  EXPECT_FLOAT_EQ(f.GetParameter(), 1.0f);

  i.OnIsNewParameterOk = [](const TUserParameterList&) { return false; };
  EXPECT_FALSE(i.SetParameterFromText("5", problem));
  EXPECT_EQ(problem, "the value 5 was refused");

  TUserTriggerParameter t(3, "Go", "Go", "");
  EXPECT_FALSE(t.SetParameterFromText("1", problem));
}

TEST(UserFloatParameter, DisplayFollowsTheFloatStyle) {
  TUserFloatParameter f(1, "F", "F", "", 2.5f);
  f.SetFloatStyle(TFloatFormat::Fixed, 3);
  EXPECT_EQ(f.GetParameterString(), "2.500");
  f.SetFloatStyle(TFloatFormat::Exponent, 3);
  EXPECT_EQ(f.GetParameterString(), "2.50E+00");
  f.SetFloatStyle(TFloatFormat::General, 4);
  f.SetParameter(0.125f);
  EXPECT_EQ(f.GetParameterString(), "0.125");
}

TEST(UserBoolParameter, FalsifiedReadsFalseButKeepsItsValue) {
  TUserBoolParameter b(1, "B", "B", "", true);
  TRecordingMask mask;
  b.AddInputMask(&mask);
  b.SetFalsified(true);
  EXPECT_FALSE(b.GetParameter());
  EXPECT_TRUE(b.GetCurrentValue());
  EXPECT_EQ(mask.Shown.back(), "False");
  b.SetFalsified(false);
  EXPECT_TRUE(b.GetParameter());
}

TEST(UserTriggerParameter, TriggerAndContinuousActionAskAndTell) {
  TUserTriggerParameter t(1, "Go", "Go", "");
  int fired = 0;
  bool allow = true;
  t.OnParameterChanged = [&](const TUserParameterList& list, bool) {
    EXPECT_EQ(list[0], &t);
    ++fired;
  };
  t.OnIsNewParameterOk = [&](const TUserParameterList&) { return allow; };
  EXPECT_TRUE(t.Trigger());
  allow = false;
  EXPECT_FALSE(t.Trigger());
  EXPECT_EQ(fired, 1);

  TUserContinuousActionParameter a(2, "Move", "Move", "");
  int told = 0;
  a.OnParameterChanged = [&](const TUserParameterList&, bool) { ++told; };
  a.SetActionRunning(true);
  a.SetActionRunning(true);
  EXPECT_TRUE(a.GetActionRunning());
  a.SetActionRunning(false);
  EXPECT_EQ(told, 2);
}
