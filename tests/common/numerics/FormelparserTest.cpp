// Formula parser: precedence, unary minus, functions, error texts and concurrent evaluation.
#include "common/numerics/Formelparser.h"

#include <cmath>
#include <numbers>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

double Eval(const std::string& formula, std::vector<double> x = {0, 0, 0, 0}, bool* undefined = nullptr) {
  TFormelParser p;
  p.SetXDimension(static_cast<int>(x.size()) - 1);
  p.SetExpress(formula);
  EXPECT_FALSE(p.HasError()) << formula << ": " << p.GetMessage() << " at " << p.GetErrorPosition();
  const double r = p.Func(x.data());
  if (undefined)
    *undefined = p.UnDefined();
  else
    EXPECT_FALSE(p.UnDefined()) << formula;
  return r;
}

TEST(FormelParser, PrecedenceAndAssociativity) {
  EXPECT_DOUBLE_EQ(Eval("1+2*3"), 7.0);
  EXPECT_DOUBLE_EQ(Eval("(1+2)*3"), 9.0);
  EXPECT_DOUBLE_EQ(Eval("2*3^2"), 18.0);
  EXPECT_DOUBLE_EQ(Eval("10-4-3"), 3.0);
  EXPECT_DOUBLE_EQ(Eval("64/4/2"), 8.0);
  EXPECT_DOUBLE_EQ(Eval("2^3^2"), 64.0);  // equal priority works from the left
  EXPECT_DOUBLE_EQ(Eval("7%3*2"), 1.0);   // % binds weaker than *: 7 % 6
  EXPECT_DOUBLE_EQ(Eval("7.9%3.2"), 1.0); // both operands truncated
  EXPECT_DOUBLE_EQ(Eval("1 + 2 * (3 - 1) / 4"), 2.0);
  EXPECT_DOUBLE_EQ(Eval("((2))"), 2.0);
}

TEST(FormelParser, ComparisonsAndLogic) {
  EXPECT_DOUBLE_EQ(Eval("3>2"), 1.0);
  EXPECT_DOUBLE_EQ(Eval("3<2"), 0.0);
  EXPECT_DOUBLE_EQ(Eval("2=2"), 1.0);
  EXPECT_DOUBLE_EQ(Eval("2!3"), 1.0);
  EXPECT_DOUBLE_EQ(Eval("1+1=2"), 1.0); // arithmetic before comparison
  EXPECT_DOUBLE_EQ(Eval("0|0"), 0.0);
  EXPECT_DOUBLE_EQ(Eval("0|2"), 1.0);
  EXPECT_DOUBLE_EQ(Eval("1&0"), 0.0);
  EXPECT_DOUBLE_EQ(Eval("3>2&2>1"), 1.0);
  EXPECT_DOUBLE_EQ(Eval("1|0&0"), 1.0); // & before |
}

TEST(FormelParser, UnaryMinus) {
  EXPECT_DOUBLE_EQ(Eval("-2^2"), -4.0); // power binds stronger than the sign
  EXPECT_DOUBLE_EQ(Eval("2^-1"), 0.5);  // the sign behind ^ is unary
  EXPECT_DOUBLE_EQ(Eval("-3*-2"), 6.0);
  EXPECT_DOUBLE_EQ(Eval("4--2"), 6.0);
  EXPECT_DOUBLE_EQ(Eval("-(1+2)"), -3.0);
  EXPECT_DOUBLE_EQ(Eval("--3"), 3.0);
  EXPECT_DOUBLE_EQ(Eval("2*(-x1)", {0, 5}), -10.0);
}

TEST(FormelParser, NumbersAndVariables) {
  EXPECT_DOUBLE_EQ(Eval("1E-3"), 1e-3); // the sign behind E stays in the number
  EXPECT_DOUBLE_EQ(Eval("2.5E+2-1"), 249.0);
  EXPECT_DOUBLE_EQ(Eval("1e3*x2", {0, 0, 2}), 2000.0);
  EXPECT_DOUBLE_EQ(Eval(".5+x1", {0, 1}), 1.5);
  EXPECT_DOUBLE_EQ(Eval("x1*x2+x3", {0, 2, 3, 4}), 10.0);
  EXPECT_DOUBLE_EQ(Eval("X1+x1", {0, 2}), 4.0);
}

TEST(FormelParser, Functions) {
  EXPECT_NEAR(Eval("SIN(PI(0)/2)"), 1.0, 1e-15);
  EXPECT_NEAR(Eval("ASIN(1)"), std::numbers::pi / 2, 1e-15);
  EXPECT_NEAR(Eval("sinh(1)"), std::sinh(1.0), 1e-15); // names without regard to case
  EXPECT_NEAR(Eval("ASINH(SINH(0.7))"), 0.7, 1e-15);
  EXPECT_NEAR(Eval("LOG10(1000)+LOG2(8)+LOGE(EXP(2))"), 8.0, 1e-14);
  EXPECT_NEAR(Eval("COTAN(1)"), 1.0 / std::tan(1.0), 1e-15);
  EXPECT_DOUBLE_EQ(Eval("ABS(-3)+SQRT(16)"), 7.0);
  EXPECT_DOUBLE_EQ(Eval("SINC(0)"), 1.0);
  EXPECT_NEAR(Eval("SINCSQR(2)"), std::pow(std::sin(2.0) / 2.0, 2), 1e-15);
  EXPECT_DOUBLE_EQ(Eval("HEAVYSIDE(0)+HEAVYSIDE(3)+HEAVYSIDE(-1)"), 1.5);
  EXPECT_DOUBLE_EQ(Eval("Sign(-4)+Sign(0)"), -1.0);
  EXPECT_DOUBLE_EQ(Eval("AirySqr(0)"), 1.0);
  EXPECT_NEAR(Eval("2*SIN(x1)^2", {0, 0.5}), 2 * std::pow(std::sin(0.5), 2), 1e-15);
  EXPECT_NEAR(Eval("-COS(0)"), -1.0, 0.0);
}

TEST(FormelParser, BesselJ1AgainstLibrary) {
  TFormelParser p;
  p.SetXDimension(1);
  p.SetExpress("BESSELJ1(x1)");
  for (double x : {-20.0, -8.5, -3.0, -0.1, 0.0, 0.5, 2.0, 7.9, 8.0, 8.1, 15.0, 40.0}) {
    double v[2] = {0, x};
    const double expected = x < 0 ? -std::cyl_bessel_j(1.0, -x) : std::cyl_bessel_j(1.0, x);
    EXPECT_NEAR(p.Func(v), expected, 2e-8) << x;
  }
  p.SetExpress("AirySqr(x1)");
  double v[2] = {0, 3.0};
  EXPECT_NEAR(p.Func(v), std::pow(2 * std::cyl_bessel_j(1.0, 3.0) / 3.0, 2), 1e-8);
}

TEST(FormelParser, UndefinedResults) {
  bool undefined = false;
  Eval("1/0", {0}, &undefined);
  EXPECT_TRUE(undefined);
  Eval("(-8)^(1/3)", {0}, &undefined);
  EXPECT_TRUE(undefined);
  EXPECT_DOUBLE_EQ(Eval("(-8)^2", {0}, &undefined), 64.0);
  EXPECT_FALSE(undefined);
  Eval("5%0.5", {0}, &undefined); // the divisor truncates to 0
  EXPECT_TRUE(undefined);
  Eval("SQRT(-1)", {0}, &undefined);
  EXPECT_TRUE(undefined);
  Eval("LOGE(0)", {0}, &undefined);
  EXPECT_TRUE(undefined);
}

struct ErrorCase {
  const char* Formula;
  int Dimension;
  const char* Message;
  int Position;
};

TEST(FormelParser, ErrorsWithTextAndPosition) {
  const ErrorCase cases[] = {
      {"(1+2", 1, "Wrong amount of opening/closing braces !", 4},
      {"1+2)", 1, "Wrong amount of opening/closing braces !", 4},
      {")(", 1, "Wrong amount of opening/closing braces !", 1},
      {"FOO(2)", 1, "Unknown function !\n", 1},
      {"1+*2", 1, "Operator or closing brace behind an operator !", 3},
      {"(1+)", 1, "Operator or closing brace behind an operator !", 4},
      {"(1)2", 1, "Missing operator behind a closing brace !", 4},
      {"1+2-", 1, "Operator at the end of the formula !", 4},
      {"x3+1", 2, "Variable out of range !", 1},
      {"x0", 2, "Variable out of range !", 1},
      {"1+abc", 1, "Invalid number or variable !", 3},
      {"1.2.3", 1, "Invalid number or variable !", 1},
      {"2$", 1, "Invalid character in formula !", 2},
      {"SIN()", 1, "Missing operand !", 5},
  };
  for (const ErrorCase& c : cases) {
    TFormelParser p;
    p.SetXDimension(c.Dimension);
    p.SetExpress(c.Formula);
    EXPECT_TRUE(p.HasError()) << c.Formula;
    EXPECT_FALSE(p.IsValid()) << c.Formula;
    EXPECT_EQ(p.GetMessage(), c.Message) << c.Formula;
    EXPECT_EQ(p.GetErrorPosition(), c.Position) << c.Formula;
    double x[4] = {0, 0, 0, 0};
    p.Func(x);
    EXPECT_TRUE(p.UnDefined()) << c.Formula;
  }
}

TEST(FormelParser, EmptyFormulaIsNoErrorButInvalid) {
  TFormelParser p;
  p.SetExpress("   ");
  EXPECT_FALSE(p.HasError());
  EXPECT_FALSE(p.IsValid());
  EXPECT_EQ(p.GetMessage(), "There is no valid formula !");
  p.GetFunc();
  EXPECT_TRUE(p.UnDefined());
}

TEST(FormelParser, DimensionChangeRecompiles) {
  TFormelParser p;
  p.SetXDimension(2);
  p.SetExpress("x3");
  EXPECT_TRUE(p.HasError());
  p.SetXDimension(3);
  EXPECT_FALSE(p.HasError());
  p.SetXVector(3, 4.5);
  EXPECT_DOUBLE_EQ(p.GetFunc(), 4.5);
}

TEST(FormelParser, ManyThreadsEvaluateOneCompiledParser) {
  TFormelParser p;
  p.SetXDimension(3);
  p.SetExpress("x2*EXP(-0.5*((x1-x3)/2)^2)+SIN(x1)/(1+x1^2)");
  ASSERT_TRUE(p.IsValid());
  auto reference = [](double x) {
    return 3.0 * std::exp(-0.5 * std::pow((x - 1.5) / 2, 2)) + std::sin(x) / (1 + x * x);
  };
  const int nThreads = 4, nPoints = 20000;
  std::vector<double> maxError(nThreads, 0.0);
  std::vector<int> undefinedCount(nThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < nThreads; ++t)
    threads.emplace_back([&, t]() {
      double* stack = nullptr;
      for (int i = 0; i < nPoints; ++i) {
        const double xv = -10.0 + 20.0 * i / nPoints + t * 1e-3;
        double x[4] = {0, xv, 3.0, 1.5};
        bool undefined;
        const double v = p.MulticoreFunc(x, undefined, stack);
        if (undefined) ++undefinedCount[t];
        maxError[t] = std::max(maxError[t], std::fabs(v - reference(xv)));
      }
      TFormelParser::ReleaseStack(stack);
    });
  for (auto& th : threads) th.join();
  for (int t = 0; t < nThreads; ++t) {
    EXPECT_EQ(undefinedCount[t], 0);
    EXPECT_LT(maxError[t], 1e-12);
  }
}

TEST(FormelParser, FunctionTableIsSortedLongestFirstAndRebuilds) {
  const auto& list = TCustomParserFunction::Functions();
  ASSERT_EQ(list.size(), 28u);
  for (size_t i = 1; i < list.size(); ++i) EXPECT_GE(list[i - 1]->Name().size(), list[i]->Name().size());
  EXPECT_GE(TCustomParserFunction::FindFunction("besselj1("), 0);
  EXPECT_LT(TCustomParserFunction::FindFunction("SIN"), 0);
  TCustomParserFunction::DeleteFunctions();
  EXPECT_DOUBLE_EQ(Eval("ABS(-2)"), 2.0); // filled again on use
}

} // namespace

// The block evaluation gives for every set exactly what the one-by-one evaluation gives, undefined
// places included.
TEST(FormelParser, BlockEvaluationEqualsScalar) {
  const char* formulas[] = {"2*x1+3", "x1/(x2-3)", "sqrt(x1)-x3^2", "-x1*(x2>2)+x3%2", "loge(x1-x2)", "7"};
  constexpr int count = 37;
  std::vector<double> x1(count), x2(count), x3(count);
  for (int k = 0; k < count; ++k) {
    x1[k] = k * 0.75 - 10.0;
    x2[k] = k % 7;
    x3[k] = k;
  }
  const double* columns[] = {nullptr, x1.data(), x2.data(), x3.data()};
  for (const char* formula : formulas) {
    TFormelParser p;
    p.SetXDimension(3);
    p.SetExpress(formula);
    ASSERT_TRUE(p.IsValid()) << formula;
    std::vector<double> out(count), scratch;
    bool undefined[count];
    p.BlockFunc(columns, count, out.data(), undefined, scratch);
    double* stack = nullptr;
    for (int k = 0; k < count; ++k) {
      const double x[] = {0, x1[k], x2[k], x3[k]};
      bool scalarUndefined = false;
      const double expected = p.MulticoreFunc(x, scalarUndefined, stack);
      EXPECT_EQ(undefined[k], scalarUndefined) << formula << " at " << k;
      EXPECT_EQ(out[k], scalarUndefined ? 0.0 : expected) << formula << " at " << k;
    }
    TFormelParser::ReleaseStack(stack);
  }
}
