// The block path of the chi-square minimizer against the per-point path: same model values, same fitted
// parameters, padding of short blocks, weights, and failures raised inside a block model.
#include "common/numerics/Chisqrminimizer.h"
#include "common/numerics/Fitfunctions.h"

#include <cmath>
#include <functional>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Deterministic noise in [-1, 1].
double Wiggle(int i) {
  return std::sin(12.9898 * i + 78.233 * std::sin(0.5 * i));
}

struct TCase {
  std::string Name;
  std::function<std::unique_ptr<TNLFitFunction>()> Make;
  std::vector<double> True;
  std::function<double(double)> Position; ///< abscissa of point i
  double Noise;
};

void PrintTo(const TCase& c, std::ostream* os) {
  *os << c.Name;
}

std::vector<TCase> Cases() {
  auto gauss2 = [] {
    auto f = std::make_unique<TNLFitGauss>();
    f->NumberOfFunctions = 2;
    f->CreateParameters();
    return std::unique_ptr<TNLFitFunction>(std::move(f));
  };
  auto decay2 = [] {
    auto f = std::make_unique<TNLFitExpDecay>();
    f->ExpDecayOrder = 2;
    f->CreateParameters();
    return std::unique_ptr<TNLFitFunction>(std::move(f));
  };
  auto polynom3 = [] {
    auto f = std::make_unique<TNLFitPolynom>();
    f->PolynomOrder = 3;
    f->CreateParameters();
    return std::unique_ptr<TNLFitFunction>(std::move(f));
  };
  const auto linear = [](double i) { return 0.5 * i; };
  return {
      {"Gauss", [] { return std::make_unique<TNLFitGauss>(); }, {5, 40, 6, 100}, linear, 1.0},
      {"Gauss2", gauss2, {5, 30, 4, 100, 50, 5, 60}, linear, 1.0},
      {"Lorentz", [] { return std::make_unique<TNLFitLorentz>(); }, {3, 35, 8, 2000}, linear, 1.0},
      {"PsdVoigt1", [] { return std::make_unique<TNLFitPsdVoigt1>(); }, {3, 35, 8, 2000, 0.4}, linear, 1.0},
      {"PsdVoigt2",
       [] { return std::make_unique<TNLFitPsdVoigt2>(); },
       {3, 35, 6, 9, 2000, 0.4},
       linear,
       1.0},
      {"ExpDecay2", decay2, {2, 0, 50, 3, 20, 15}, [](double i) { return 0.25 * i; }, 0.05},
      {"Polynom3", polynom3, {1, -0.5, 0.02, -1e-4}, [](double i) { return i - 60.0; }, 0.5},
  };
}

class BlockPathTest : public ::testing::TestWithParam<TCase> {};

// The block model gives the per-point values and derivatives at every point of a block.
TEST_P(BlockPathTest, BlockModelMatchesPointModel) {
  const TCase& c = GetParam();
  auto f = c.Make();
  ASSERT_NE(f->BlockModel, nullptr);
  const int np = f->GetNumberOfParameters();
  ASSERT_EQ(np, static_cast<int>(c.True.size()));
  std::vector<double> x(kCSMBlockSize), y(kCSMBlockSize), d(static_cast<size_t>(np) * kCSMBlockSize);
  for (int i = 0; i < kCSMBlockSize; ++i) x[i] = c.Position(2 * i);
  f->BlockModel(x.data(), c.True.data(), y.data(), d.data(), np, nullptr);
  std::vector<double> pd(np);
  for (int i = 0; i < kCSMBlockSize; ++i) {
    double py = 0;
    f->Model(x[i], c.True.data(), py, pd.data(), np, nullptr);
    EXPECT_NEAR(y[i], py, 1e-13 * (std::fabs(py) + 1.0)) << "point " << i;
    for (int k = 0; k < np; ++k)
      EXPECT_NEAR(d[k * kCSMBlockSize + i], pd[k], 1e-12 * (std::fabs(pd[k]) + 1e-3))
          << "point " << i << " parameter " << k;
  }
}

// Fits by both paths agree to 1e-12 relative, for point counts below, at and above whole blocks, with and
// without sigma.
TEST_P(BlockPathTest, FitsByBothPathsAgree) {
  const TCase& c = GetParam();
  auto blockFunction = c.Make();
  auto pointFunction = c.Make();
  pointFunction->BlockModel = nullptr;
  const int np = blockFunction->GetNumberOfParameters();
  for (int n : {37, 64, 150, 256}) {
    for (bool withSigma : {false, true}) {
      std::vector<double> x(n), y(n), sigma(n);
      for (int i = 0; i < n; ++i) {
        x[i] = c.Position(i * 150.0 / n);
        double dummy[16];
        blockFunction->Model(x[i], c.True.data(), y[i], dummy, np, nullptr);
        y[i] += c.Noise * Wiggle(i);
        sigma[i] = 0.5 + 0.25 * (i % 3);
      }
      const double* s = withSigma ? sigma.data() : nullptr;
      std::vector<double> vb(np), eb(np), vp(np), ep(np);
      TFitFunctionErrorInfo ib, ip;
      std::string mb, mp;
      void* tb = blockFunction->ThreadPrepare();
      void* tp = pointFunction->ThreadPrepare();
      // Start at the true values: the test is about the paths, not about the estimators.
      for (int k = 0; k < np; ++k) {
        static_cast<TChiSqrMinimizer*>(tb)->SetUseEstimatedParameter(k, false);
        static_cast<TChiSqrMinimizer*>(tb)->SetStartParameter(k, c.True[k] * (1.0 + 0.02 * Wiggle(k)));
        static_cast<TChiSqrMinimizer*>(tp)->SetUseEstimatedParameter(k, false);
        static_cast<TChiSqrMinimizer*>(tp)->SetStartParameter(k, c.True[k] * (1.0 + 0.02 * Wiggle(k)));
      }
      const bool okB =
          blockFunction->CalculateThread(tb, nullptr, vb.data(), eb.data(), n, x.data(), y.data(), s, ib, mb);
      const bool okP =
          pointFunction->CalculateThread(tp, nullptr, vp.data(), ep.data(), n, x.data(), y.data(), s, ip, mp);
      const int itB = static_cast<TChiSqrMinimizer*>(tb)->GetIterations();
      const int itP = static_cast<TChiSqrMinimizer*>(tp)->GetIterations();
      blockFunction->ThreadPostpare(tb);
      pointFunction->ThreadPostpare(tp);
      SCOPED_TRACE(c.Name + " n=" + std::to_string(n) + (withSigma ? " with sigma" : ""));
      ASSERT_TRUE(okB) << mb;
      ASSERT_TRUE(okP) << mp;
      EXPECT_EQ(itB, itP);
      for (int k = 0; k < np; ++k) {
        if (!blockFunction->Params[k]->Vary) continue;
        EXPECT_NEAR(vb[k], vp[k], 1e-12 * std::fabs(vp[k])) << "parameter " << k;
        EXPECT_NEAR(eb[k], ep[k], 1e-9 * std::fabs(ep[k])) << "error of parameter " << k;
      }
      EXPECT_NEAR(ib.ChiSqr, ip.ChiSqr, 1e-11 * ip.ChiSqr);
      // And the fit found the curve: parameters near the true ones, within the noise.
      for (int k = 0; k < np; ++k) {
        if (blockFunction->Params[k]->Vary) {
          EXPECT_NEAR(vb[k], c.True[k], 0.05 * std::fabs(c.True[k]) + 0.5 * c.Noise) << "parameter " << k;
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Standard, BlockPathTest, ::testing::ValuesIn(Cases()),
                         [](const auto& info) { return info.param.Name; });

// y = a + b x in both forms; the block form can be told to fail.
void LinePoint(double x, const double* p, double& y, double* d, int, TChiSqrMinimizer*) {
  y = p[0] + p[1] * x;
  d[0] = 1.0;
  d[1] = x;
}
void LineBlock(const double* x, const double* p, double* y, double* d, int, TChiSqrMinimizer*) {
  for (int i = 0; i < kCSMBlockSize; ++i) {
    y[i] = p[0] + p[1] * x[i];
    d[i] = 1.0;
    d[kCSMBlockSize + i] = x[i];
  }
}
void ThrowingBlock(const double*, const double*, double*, double*, int, TChiSqrMinimizer*) {
  throw std::runtime_error("block broke");
}
void ReportingBlock(const double* x, const double* p, double* y, double* d, int n, TChiSqrMinimizer* m) {
  LineBlock(x, p, y, d, n, m);
  m->SetError(csmException, "Parser Function Error");
}

// Exact line data through every point count around the block size: padding must add nothing, so chi-square
// stays 0 and the line is found exactly.
TEST(BlockPath, PaddingAddsNothing) {
  for (int n : {2, 3, 63, 64, 65, 127, 128, 129, 200}) {
    std::vector<double> x(n), y(n);
    for (int i = 0; i < n; ++i) x[i] = 0.1 * i, y[i] = 2.0 - 0.75 * x[i];
    TChiSqrMinimizer csm(2);
    csm.SetModelFunction(LinePoint);
    csm.SetBlockModelFunction(LineBlock);
    csm.SetStartParameter(0, 2.0);
    csm.SetStartParameter(1, -0.75);
    csm.CopyStartParametersToParameters();
    csm.LevenbergMarquardtMinimize(x.data(), y.data(), nullptr, n);
    EXPECT_EQ(csm.GetErrorCode(), 0) << n;
    EXPECT_EQ(csm.GetChiSqr(), 0.0) << n;
    // From a wrong start the linear model converges to the line.
    csm.SetStartParameter(0, 0.0);
    csm.SetStartParameter(1, 0.0);
    csm.CopyStartParametersToParameters();
    csm.LevenbergMarquardtMinimize(x.data(), y.data(), nullptr, n);
    EXPECT_EQ(csm.GetErrorCode(), 0) << n;
    EXPECT_NEAR(csm.GetParameter(0), 2.0, 1e-9) << n;
    EXPECT_NEAR(csm.GetParameter(1), -0.75, 1e-9) << n;
  }
}

// Chi-square by the block path equals the sum of weighted squared residuals of the points.
TEST(BlockPath, ChiSqrIsTheWeightedSum) {
  const int n = 150;
  std::vector<double> x(n), y(n), sigma(n);
  double expected = 0.0;
  for (int i = 0; i < n; ++i) {
    x[i] = i;
    y[i] = 1.0 + 0.5 * i + Wiggle(i);
    sigma[i] = 1.0 + (i % 4);
    const double r = y[i] - (1.0 + 0.5 * i);
    expected += r * r / (sigma[i] * sigma[i]);
  }
  TChiSqrMinimizer csm(2);
  csm.SetModelFunction(LinePoint);
  csm.SetBlockModelFunction(LineBlock);
  csm.SetVaryParameter(0, false);
  csm.SetVaryParameter(1, false);
  csm.SetStartParameter(0, 1.0);
  csm.SetStartParameter(1, 0.5);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(x.data(), y.data(), sigma.data(), n);
  EXPECT_EQ(csm.GetErrorCode(), 0);
  EXPECT_NEAR(csm.GetChiSqr(), expected, 1e-12 * expected);
}

TEST(BlockPath, FailuresInsideABlockModel) {
  std::vector<double> x{0, 1, 2, 3}, y{1, 2, 3, 4};
  TChiSqrMinimizer csm(2);
  csm.SetModelFunction(LinePoint);
  csm.SetBlockModelFunction(ThrowingBlock);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(x.data(), y.data(), nullptr, 4);
  EXPECT_EQ(csm.GetErrorCode(), csmException);
  EXPECT_EQ(csm.GetErrorMessage(), "mrqcof:LMF block broke");

  csm.SetBlockModelFunction(ReportingBlock);
  csm.LevenbergMarquardtMinimize(x.data(), y.data(), nullptr, 4);
  EXPECT_EQ(csm.GetErrorCode(), csmException);
  EXPECT_EQ(csm.GetErrorMessage(), "Parser Function Error");

  // Reusable afterwards.
  csm.SetBlockModelFunction(LineBlock);
  csm.LevenbergMarquardtMinimize(x.data(), y.data(), nullptr, 4);
  EXPECT_EQ(csm.GetErrorCode(), 0);
  EXPECT_NEAR(csm.GetParameter(1), 1.0, 1e-9);
}

} // namespace
