// Powell minimizer on standard test functions, its limit continuation and status codes, the helper front
// end and the Powell fit over named parameters.
#include "common/numerics/Minimizer.h"

#include "common/numerics/Nlfit.h"

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace {

double Rosenbrock(const double* p, int) {
  const double a = 1.0 - p[0], b = p[1] - p[0] * p[0];
  return a * a + 100.0 * b * b;
}

// A tilted bowl with its minimum 0.5 at (3, -2, 0.5).
double Bowl(const double* p, int) {
  const double a = p[0] - 3.0, b = p[1] + 2.0, c = p[2] - 0.5;
  return 2.0 * a * a + b * b + 3.0 * c * c + a * b + 0.5;
}

// Powell's singular function: minimum 0 at the origin, with a singular Hessian there.
double PowellSingular(const double* p, int) {
  const double a = p[0] + 10.0 * p[1], b = p[2] - p[3], c = p[1] - 2.0 * p[2], d = p[0] - p[3];
  return a * a + 5.0 * b * b + c * c * c * c + 10.0 * d * d * d * d;
}

double Square(const double* p, int) {
  return p[0] * p[0];
}

// Depends on the first parameter only: along the second the line search finds no scale.
double FlatInSecond(const double* p, int) {
  return (p[0] - 1.0) * (p[0] - 1.0);
}

TEST(Minimizer, RosenbrockFromTheClassicStart) {
  TMinimizer m(2);
  m.SetFunction(Rosenbrock);
  m.SetParam(0, -1.2);
  m.SetParam(1, 1.0);
  m.Tolerance = 1e-10;
  m.MaxIterations = 1000;
  m.MinimizeFunction();
  EXPECT_EQ(m.GetStatus(), msDone);
  EXPECT_NEAR(m.GetParam(0), 1.0, 1e-6);
  EXPECT_NEAR(m.GetParam(1), 1.0, 1e-6);
  EXPECT_LT(m.GetFunctionValue(), 1e-12);
  EXPECT_GT(m.GetFunctionCalls(), m.GetIterations());
}

TEST(Minimizer, QuadraticBowlWithKnownMinimum) {
  TMinimizer m(3);
  m.SetFunction(Bowl);
  m.Tolerance = 1e-10;
  m.MinimizeFunction();
  EXPECT_EQ(m.GetStatus(), msDone) << TMinimizer::StatusText(m.GetStatus());
  EXPECT_NEAR(m.GetParam(0), 3.0, 1e-4);
  EXPECT_NEAR(m.GetParam(1), -2.0, 1e-4);
  EXPECT_NEAR(m.GetParam(2), 0.5, 1e-4);
  EXPECT_NEAR(m.GetFunctionValue(), 0.5, 1e-9);
  // The value reported is the function at the point reached.
  EXPECT_DOUBLE_EQ(m.GetFunctionValue(), Bowl(m.Param(), 3));
}

TEST(Minimizer, PowellSingularFunction) {
  TMinimizer m(4);
  m.SetFunction(PowellSingular);
  const double start[4] = {3.0, -1.0, 0.0, 1.0};
  for (int i = 0; i < 4; ++i) m.SetParam(i, start[i]);
  m.Tolerance = 1e-12;
  m.MaxIterations = 2000;
  m.MinimizeFunction();
  EXPECT_EQ(m.GetStatus(), msDone);
  EXPECT_LT(m.GetFunctionValue(), 1e-20);
  // The singular Hessian makes the minimum flat: the point is known to a few 1e-7 only.
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(m.GetParam(i), 0.0, 1e-5) << i;
}

TEST(Minimizer, LimitsHoldTheSearchInsideTheBox) {
  TMinimizer m(3);
  m.SetFunction(Bowl);
  m.Tolerance = 1e-10;
  m.SetUpperLimit(0, true, 1.0); // the free minimum lies at 3
  m.SetLowerLimit(2, true, 2.0); // and at 0.5
  m.MinimizeFunction();
  EXPECT_NEAR(m.GetParam(0), 1.0, 1e-4);
  EXPECT_NEAR(m.GetParam(2), 2.0, 1e-4);
  // With x0 held at 1 the bowl's best x1 is -2 - (x0 - 3)/2 = -1.
  EXPECT_NEAR(m.GetParam(1), -1.0, 1e-3);
}

TEST(Minimizer, StartIsClampedAndWrongLimitsAreRepaired) {
  TMinimizer m(1);
  m.SetFunction(Square);
  m.SetParam(0, 10.0);
  m.SetLowerLimit(0, true, 2.0);
  m.SetUpperLimit(0, true, 2.0); // equal limits count as wrong: lower becomes upper - 1
  m.MaxIterations = 0;           // stop after the first round of line searches
  m.MinimizeFunction();
  EXPECT_EQ(m.GetLowerLimit(0), 1.0);
  EXPECT_EQ(m.GetUpperLimit(0), 2.0);
  m.MaxIterations = 200;
  m.Tolerance = 1e-10;
  m.SetParam(0, 10.0);
  m.MinimizeFunction();
  EXPECT_NEAR(m.GetParam(0), 1.0, 1e-4); // x^2 is smallest at the lower limit

  m.SetLowerLimit(0, true, 5.0); // above the upper limit
  m.SetParam(0, -3.0);
  m.MinimizeFunction();
  EXPECT_EQ(m.GetLowerLimit(0), 1.0);
  EXPECT_NEAR(m.GetParam(0), 1.0, 1e-4);
}

TEST(Minimizer, LimitContinuationValues) {
  TMinimizer m(1);
  m.SetFunction(Square);
  m.SetLowerLimit(0, true, 1.0);
  double p = 1.5;
  EXPECT_DOUBLE_EQ(m.CheckLimitsAndGetFunctionValue(&p), 2.25); // inside: the function itself
  // 0.5 below the limit: f(1) = 1, reflection at 1.5 with f = 2.25; penalty 2 * 1.25 / 0.5 * 0.5.
  p = 0.5;
  EXPECT_DOUBLE_EQ(m.CheckLimitsAndGetFunctionValue(&p), 1.0 + 2.5);
  // An upper limit at 1.2 halves the reflection distance until it stays inside: 1.125, f = 1.265625.
  m.SetUpperLimit(0, true, 1.2);
  EXPECT_DOUBLE_EQ(m.CheckLimitsAndGetFunctionValue(&p), 1.0 + 2.0 * 0.265625 / 0.125 * 0.5);
  // Above the upper limit: f(1.2) = 1.44, reflection 0.2 inside at 1.0 (on the lower limit) with f = 1.
  p = 1.4;
  EXPECT_NEAR(m.CheckLimitsAndGetFunctionValue(&p), 1.44 + 2.0 * 0.44 / 0.2 * 0.2, 1e-12);
}

TEST(Minimizer, StatusCodes) {
  TMinimizer m(2);
  m.SetFunction(Rosenbrock);
  m.SetParam(0, -1.2);
  m.SetParam(1, 1.0);
  m.MaxIterations = 1;
  m.Tolerance = 1e-12;
  m.MinimizeFunction();
  EXPECT_EQ(m.GetStatus(), msTooManyIterations);
  EXPECT_EQ(m.GetIterations(), 2);
  EXPECT_LT(m.GetFunctionValue(), Rosenbrock(std::vector<double>{-1.2, 1.0}.data(), 2));

  TMinimizer flat(2);
  flat.SetFunction(FlatInSecond);
  flat.MinimizeFunction();
  EXPECT_EQ(flat.GetStatus(), msLostScale);
  EXPECT_EQ(TMinimizer::StatusText(msLostScale), "Line search lost its scale");
}

TEST(Minimizer, FunctionHooksInTheirOrder) {
  TMinimizer m(1);
  const double p = 2.0;
  EXPECT_EQ(m.DoFunction(&p), 0.0); // none set
  int user = 7;
  m.SetClosure([](const double* q, int, void* u) { return q[0] + *static_cast<int*>(u); }, &user);
  EXPECT_EQ(m.DoFunction(&p), 9.0);
  m.SetFunction(Square);
  EXPECT_EQ(m.DoFunction(&p), 4.0); // the plain function before the bound closure
  m.SetHelperClosure([](const double* q) { return -q[0]; });
  EXPECT_EQ(m.DoFunction(&p), -2.0); // the helper hook first
}

TEST(MinimizerHelper, FixedParametersStayAndOrderSetsTheWorkingSequence) {
  TMinimizerHelper h(4);
  // Bowl over parameters 0, 2, 3 with parameter 1 a fixed offset.
  std::vector<double> seen;
  h.SetFunction([&](const double* v, int n) {
    EXPECT_EQ(n, 4);
    seen.assign(v, v + n);
    const double q[3] = {v[0], v[2], v[3]};
    return Bowl(q, 3) + v[1];
  });
  h.Parameters[1].Variable = false;
  h.Parameters[1].Value = 10.0;
  h.Parameters[0].Order = 2;
  h.Parameters[2].Order = 0;
  h.Parameters[3].Order = 1;
  h.Parameters[0].Vary = 0.5;
  h.Minimizer.Tolerance = 1e-10;
  h.MinimizeFunction(2);
  EXPECT_EQ(h.Minimizer.GetDimension(), 3);
  EXPECT_NEAR(h.Parameters[0].Value, 3.0, 1e-4);
  EXPECT_EQ(h.Parameters[1].Value, 10.0);
  EXPECT_NEAR(h.Parameters[2].Value, -2.0, 1e-4);
  EXPECT_NEAR(h.Parameters[3].Value, 0.5, 1e-4);
  // Working order: parameter 2 first, then 3, then 0; the first direction carries parameter 0's step.
  EXPECT_EQ(h.Minimizer.GetParam(0), h.Parameters[2].Value);
  EXPECT_EQ(h.Minimizer.GetParam(1), h.Parameters[3].Value);
  EXPECT_EQ(h.Minimizer.GetParam(2), h.Parameters[0].Value);
  EXPECT_EQ(seen[1], 10.0);
}

// y = c + A exp(-x/t) on exact data; the fit recovers c, A and t.
struct TDecayData {
  std::vector<double> X, Y;
  TDecayData() {
    for (int i = 0; i < 40; ++i) {
      X.push_back(0.25 * i);
      Y.push_back(1.5 + 4.0 * std::exp(-X.back() / 2.5));
    }
  }
  double ChiSqr(const double* v) const {
    double s = 0.0;
    for (size_t i = 0; i < X.size(); ++i) {
      const double r = Y[i] - (v[0] + v[1] * std::exp(-X[i] / v[2]));
      s += r * r;
    }
    return s;
  }
};

TEST(NLFit, RecoversTheParametersOfACurve) {
  TDecayData data;
  TNLFit fit(3);
  EXPECT_EQ(fit.GetLastChiSqr(), -1.0);
  fit.SetChiSqrClosure([&](const double* v, int n) {
    EXPECT_EQ(n, 3);
    return data.ChiSqr(v);
  });
  const double start[3] = {0.0, 1.0, 1.0};
  for (int i = 0; i < 3; ++i) fit.GetParam(i)->Value = start[i];
  fit.GetParam(2)->HasLowerLimit = true;
  fit.GetParam(2)->LowerLimit = 0.1;
  fit.Tolerance = 1e-12;
  fit.MaxNumberOfIterations = 500;
  fit.InitFit();
  fit.StartFit();
  EXPECT_NEAR(fit.GetParam(0)->Value, 1.5, 1e-3);
  EXPECT_NEAR(fit.GetParam(1)->Value, 4.0, 1e-3);
  EXPECT_NEAR(fit.GetParam(2)->Value, 2.5, 1e-3);
  EXPECT_LT(fit.GetLastChiSqr(), 1e-8);
  EXPECT_GE(fit.GetLastChiSqr(), 0.0);
}

TEST(NLFit, FixedParameterAndLimits) {
  TDecayData data;
  TNLFit fit(3);
  fit.SetChiSqrClosure([&](const double* v, int) { return data.ChiSqr(v); });
  fit.GetParam(0)->Value = 1.0; // the offset held at a wrong value
  fit.GetParam(0)->Variable = false;
  fit.GetParam(1)->Value = 1.0;
  fit.GetParam(1)->HasUpperLimit = true;
  fit.GetParam(1)->UpperLimit = 3.0; // the true amplitude 4 lies beyond
  fit.GetParam(2)->Value = 1.0;
  fit.Tolerance = 1e-10;
  fit.MaxNumberOfIterations = 500;
  fit.InitFit();
  EXPECT_EQ(fit.GetMinimizer()->GetDimension(), 2);
  fit.StartFit();
  EXPECT_EQ(fit.GetParam(0)->Value, 1.0);
  EXPECT_NEAR(fit.GetParam(1)->Value, 3.0, 1e-4);
  EXPECT_GT(fit.GetParam(2)->Value, 0.0);
  EXPECT_GT(fit.GetLastChiSqr(), 0.1); // the fixed offset leaves a misfit
}

TEST(NLFit, OrdersStayAPermutation) {
  TNLFit fit(5);
  fit.GetParam(3)->Variable = false;
  fit.CheckOrders(); // all -1: list order
  auto orders = [&] {
    std::vector<int> o;
    for (int i = 0; i < 5; ++i) o.push_back(fit.GetParam(i)->Order);
    return o;
  };
  EXPECT_EQ(orders(), (std::vector<int>{0, 1, 2, -1, 3}));
  fit.CheckOrder(4, 0); // last to first: the others move up
  EXPECT_EQ(orders(), (std::vector<int>{1, 2, 3, -1, 0}));
  fit.CheckOrder(4, 99); // clamped to the last place: the others move down
  EXPECT_EQ(orders(), (std::vector<int>{0, 1, 2, -1, 3}));
  fit.CheckOrder(0, 2);
  EXPECT_EQ(orders(), (std::vector<int>{2, 0, 1, -1, 3}));
  fit.CheckOrder(3, 0); // a fixed parameter has no place
  EXPECT_EQ(orders(), (std::vector<int>{2, 0, 1, -1, 3}));
  EXPECT_EQ(fit.GetParam(5), nullptr);
  // Without a closure the chi-square is 0; the hook still writes the values to their parameters by order.
  fit.InitFit();
  const double v[4] = {10, 11, 12, 13};
  EXPECT_EQ(fit.Chi2MM(v), 0.0);
  EXPECT_EQ(fit.GetParam(1)->Value, 10.0);
  EXPECT_EQ(fit.GetParam(2)->Value, 11.0);
  EXPECT_EQ(fit.GetParam(0)->Value, 12.0);
  EXPECT_EQ(fit.GetParam(4)->Value, 13.0);
}

} // namespace
