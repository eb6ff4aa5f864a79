// Tests of the one numeric parameter template in its three kinds (int, float, double): limits, steps,
// their file and tree forms, the text form and its checks behave alike.
#include "common/parameters/Userparameter.h"

#include <cstring>
#include <limits>

#include <gtest/gtest.h>

namespace {

template <class P>
struct TNumericCase;
template <>
struct TNumericCase<TUserIntParameter> {
  using T = int32_t;
  static constexpr T kLower = -5, kUpper = 40, kInside = 17, kStep = 3;
  static constexpr TTagKind kTagKind = TTagKind::Int;
  static constexpr const char* kExpected = "a whole number";
};
template <>
struct TNumericCase<TUserFloatParameter> {
  using T = float;
  static constexpr T kLower = -0.5f, kUpper = 4.25f, kInside = 0.1f, kStep = 0.01f;
  static constexpr TTagKind kTagKind = TTagKind::Float;
  static constexpr const char* kExpected = "a number";
};
template <>
struct TNumericCase<TUserDoubleParameter> {
  using T = double;
  static constexpr T kLower = -0.5, kUpper = 4.25, kInside = 0.1 + 0.2, kStep = 0.001;
  static constexpr TTagKind kTagKind = TTagKind::Double;
  static constexpr const char* kExpected = "a number";
};

template <class P>
class NumericParameter : public ::testing::Test {};
using TNumericKinds = ::testing::Types<TUserIntParameter, TUserFloatParameter, TUserDoubleParameter>;
TYPED_TEST_SUITE(NumericParameter, TNumericKinds);

} // namespace

TYPED_TEST(NumericParameter, LimitsClipSetsAndRefuseTexts) {
  using C = TNumericCase<TypeParam>;
  TypeParam p(1, "N", "N", "");
  p.SetLimits(C::kLower, C::kUpper);
  p.SetParameter(C::kUpper + 1);
  EXPECT_EQ(p.GetParameter(), C::kUpper);
  p.SetParameter(C::kLower - 1);
  EXPECT_EQ(p.GetParameter(), C::kLower);
  std::string problem;
  EXPECT_TRUE(p.SetParameterFromText(p.ValueToText(C::kUpper), problem)) << problem;
  EXPECT_FALSE(p.SetParameterFromText(p.ValueToText(C::kUpper + 1), problem));
  EXPECT_EQ(problem, p.ValueToText(C::kUpper + 1) + " is outside the limits " + p.ValueToText(C::kLower) +
                         " to " + p.ValueToText(C::kUpper));
  p.SetHasLowerLimit(false);
  EXPECT_FALSE(p.CheckValueText(p.ValueToText(C::kUpper + 1), problem));
  EXPECT_EQ(problem, p.ValueToText(C::kUpper + 1) + " is above the upper limit " + p.ValueToText(C::kUpper));
  EXPECT_FALSE(p.CheckValueText("x1", problem));
  EXPECT_EQ(problem, std::string("\"x1\" is not ") + C::kExpected);
  EXPECT_EQ(p.GetParameter(), C::kUpper);
}

TYPED_TEST(NumericParameter, TextOfTheValueReadsBackToTheSameBits) {
  using C = TNumericCase<TypeParam>;
  TypeParam p(1, "N", "N", "");
  p.SetHasLowerLimit(false);
  p.SetHasUpperLimit(false);
  for (const typename C::T value :
       {C::kInside, C::kLower, std::numeric_limits<typename C::T>::max(),
        std::numeric_limits<typename C::T>::lowest(), std::numeric_limits<typename C::T>::denorm_min()}) {
    std::string problem;
    ASSERT_TRUE(p.SetParameterFromText(p.ValueToText(value), problem))
        << problem << " " << p.ValueToText(value);
    const typename C::T back = p.GetParameter();
    EXPECT_EQ(std::memcmp(&back, &value, sizeof(value)), 0) << p.ValueToText(value);
  }
}

TYPED_TEST(NumericParameter, GroupAndValueTagsKeepValueAndSteps) {
  using C = TNumericCase<TypeParam>;
  TypeParam saved(1, "N", "N", "");
  saved.SetLimits(C::kLower, C::kUpper);
  saved.SetSmallIncrement(C::kStep);
  saved.SetLargeIncrement(C::kStep * 4);
  saved.SetParameter(C::kInside);
  TTagControl tree("Parameters", TTagKind::TagList);
  ASSERT_GE(saved.SaveParameterToTagControl(tree), 1);
  TTagControl values("Values", TTagKind::TagList);
  ASSERT_GE(saved.AddValueTag(values), 1);
  ASSERT_EQ(values.Children()->size(), 1u);
  EXPECT_EQ(values.Children()->front()->Kind(), C::kTagKind);

  TypeParam group(2, "N", "N", "");
  group.SetLimits(C::kLower, C::kUpper);
  ASSERT_GE(group.LoadParameterFromTagControl(&tree), 1);
  group.InheritShadowParameter();
  EXPECT_EQ(group.GetParameter(), C::kInside);
  EXPECT_EQ(group.GetSmallIncrement(), C::kStep);
  EXPECT_EQ(group.GetLargeIncrement(), static_cast<typename C::T>(C::kStep * 4));

  TypeParam value(3, "N", "N", "");
  value.SetLimits(C::kLower, C::kUpper);
  ASSERT_GE(value.ReadValueTag(values), 1);
  EXPECT_TRUE(value.GetShadowPending());
  value.InheritShadowParameter();
  EXPECT_EQ(value.GetParameter(), C::kInside);
}

TEST(NumericParameterRanges, FloatRefusesTextsBeyondItsRangeWhereDoubleTakesThem) {
  TUserFloatParameter f(1, "F", "F", "");
  f.SetHasUpperLimit(false);
  TUserDoubleParameter d(2, "D", "D", "");
  std::string problem;
  EXPECT_FALSE(f.CheckValueText("1e39", problem));
  EXPECT_TRUE(d.CheckValueText("1e39", problem));
  for (const char* bad : {"nan", "inf", "-inf", "1e400", "", " ", "+", "+-1", "0x10", "1 2"}) {
    EXPECT_FALSE(d.CheckValueText(bad, problem)) << bad;
    EXPECT_FALSE(f.CheckValueText(bad, problem)) << bad;
  }
  EXPECT_TRUE(d.SetParameterFromText(" +2.5e-3 ", problem));
  EXPECT_EQ(d.GetParameter(), 2.5e-3);
}

TEST(NumericParameterRanges, IntTextsBeyondThirtyTwoBitsAreRefused) {
  TUserIntParameter i(1, "I", "I", "");
  std::string problem;
  EXPECT_TRUE(i.CheckValueText("2147483647", problem));
  EXPECT_TRUE(i.CheckValueText("-2147483648", problem));
  EXPECT_FALSE(i.CheckValueText("2147483648", problem));
  EXPECT_FALSE(i.CheckValueText("1e3", problem));
}
