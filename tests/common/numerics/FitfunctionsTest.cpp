// Standard fit functions: derivatives, recovery of parameters, conversions, estimation, replicas,
// persistence.
#include "common/numerics/Fitfunctions.h"

#include "common/OrvexException.h"
#include "support/TestSupport.h"

#include <cmath>
#include <functional>
#include <memory>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct TModelCase {
  const char* Name;
  TCSMModelFunction Model;
  std::vector<double> P;
};

std::vector<TModelCase> ModelCases() {
  return {
      {"Gauss1", CSMGauss, {3.0, 50.0, 4.0, 100.0}},
      {"Gauss2", CSMGauss, {3.0, 50.0, 4.0, 100.0, 62.0, 2.5, 40.0}},
      {"Lorentz2", CSMLorentz, {1.0, 48.0, 6.0, 500.0, 60.0, 3.0, 200.0}},
      {"PsdVoigt1", CSMPsdVoigt1, {2.0, 51.0, 7.0, 800.0, 0.3}},
      {"PsdVoigt2", CSMPsdVoigt2, {2.0, 51.0, 7.0, 4.0, 800.0, 0.6}},
      {"ExpDecay2", CSMExpDecay, {5.0, 10.0, 100.0, 8.0, 40.0, 30.0}},
      {"Decay", CSMLevenbergMarquardtExponentialDecay, {5.0, 100.0, 8.0}},
      {"Polynom3", CSMPolynom, {1.0, -0.5, 0.02, -1e-4}},
  };
}

TEST(FitFunctionModels, AnalyticDerivativesMatchFiniteDifferences) {
  for (const TModelCase& c : ModelCases()) {
    const int n = static_cast<int>(c.P.size());
    std::vector<double> d(n), dm(n), p = c.P;
    for (double x : {12.0, 40.0, 49.0, 51.5, 55.0, 70.0}) {
      double y;
      c.Model(x, p.data(), y, d.data(), n, nullptr);
      for (int i = 0; i < n; ++i) {
        const double h = 1e-6 * std::max(1.0, std::fabs(p[i]));
        std::vector<double> pp = p, pm = p;
        pp[i] += h;
        pm[i] -= h;
        double yp, ym;
        c.Model(x, pp.data(), yp, dm.data(), n, nullptr);
        c.Model(x, pm.data(), ym, dm.data(), n, nullptr);
        const double numeric = (yp - ym) / (2 * h);
        EXPECT_NEAR(d[i], numeric, 1e-6 * std::max(1.0, std::fabs(numeric)))
            << c.Name << " p" << i << " x=" << x;
      }
    }
  }
}

TEST(FitFunctionModels, ClosedFormsAndGuards) {
  double y, d[4];
  const double g[4] = {0.0, 0.0, 1.0, 1.0};
  CSMGauss(0.0, g, y, d, 4, nullptr);
  EXPECT_DOUBLE_EQ(y, 1.0);
  CSMGauss(30.0, g, y, d, 4, nullptr); // exponent -450: below the guard
  EXPECT_EQ(y, 0.0);
  EXPECT_EQ(d[3], 0.0);
  // A Lorentzian of area A and width w peaks at 2A/(pi w).
  const double l[4] = {0.0, 0.0, 2.0, 10.0};
  CSMLorentz(0.0, l, y, d, 4, nullptr);
  EXPECT_NEAR(y, 2 * 10.0 / (std::numbers::pi * 2.0), 1e-14);
  // Decay terms with an exponent of 700 or more are left out.
  const double e[4] = {1.0, 0.0, 1.0, 1.0};
  CSMExpDecay(-800.0, e, y, d, 4, nullptr);
  EXPECT_EQ(y, 1.0);
}

// Noiseless data from the function's model, fitted from its own estimate.
void ExpectRecovers(TNLFitFunction& f, const std::vector<double>& truth, double xFrom, double xTo, int n,
                    double tolerance) {
  std::vector<double> x(n), y(n);
  for (int i = 0; i < n; ++i) {
    x[i] = xFrom + (xTo - xFrom) * i / (n - 1);
    y[i] = f.GetFunctionValue(truth.data(), x[i]);
  }
  void* td = f.ThreadPrepare();
  const int np = f.GetNumberOfParameters();
  std::vector<double> start(np), values(np), errors(np);
  TFitFunctionErrorInfo info;
  std::string message;
  const bool ok = f.CalculateThread(td, start.data(), values.data(), errors.data(), n, x.data(), y.data(),
                                    nullptr, info, message);
  f.ThreadPostpare(td);
  ASSERT_TRUE(ok) << f.DisplayName << ": " << message;
  EXPECT_TRUE(info.FitOK);
  EXPECT_TRUE(info.EstimateOK);
  EXPECT_EQ(message.rfind("Fit Successful (", 0), 0u) << message;
  for (int i = 0; i < np; ++i)
    EXPECT_NEAR(values[i], truth[i], tolerance * std::max(1.0, std::fabs(truth[i])))
        << f.DisplayName << " p" << i;
  EXPECT_LT(info.ResidualSumOfSquares, 1e-12 * std::max(1.0, info.TotalSumOfSquares));
  EXPECT_GT(info.TotalSumOfSquares, 0.0);
}

TEST(StandardFitFunctions, NoiselessDataRecoversParameters) {
  TNLFitGauss gauss;
  ExpectRecovers(gauss, {10.0, 420.0, 12.0, 300.0}, 300, 550, 256, 1e-6);
  TNLFitLorentz lorentz;
  ExpectRecovers(lorentz, {5.0, 1000.0, 8.0, 2000.0}, 900, 1100, 400, 1e-6);
  TNLFitPsdVoigt1 v1;
  ExpectRecovers(v1, {1.0, 50.0, 6.0, 900.0, 0.4}, 0, 100, 300, 1e-6);
  TNLFitPsdVoigt2 v2;
  ExpectRecovers(v2, {1.0, 50.0, 6.0, 9.0, 900.0, 0.4}, 0, 100, 300, 1e-5);
  TNLFitExpDecay decay;
  decay.Tolerance = 1e-14;
  ExpectRecovers(decay, {2.0, 0.0, 50.0, 12.0}, 0, 100, 200, 1e-6);
  TNLFitPolynom poly;
  ExpectRecovers(poly, {1.5, -0.25, 0.01}, -10, 30, 50, 1e-8);
  TNLFitUserDefined user; // default formula x2 + x3 * x1
  user.Params[0]->StartValue = 1.0;
  user.Params[1]->StartValue = 1.0;
  ExpectRecovers(user, {-3.0, 0.75}, 0, 10, 20, 1e-6);
}

TEST(StandardFitFunctions, TwoGaussiansFromGivenStarts) {
  TNLFitGauss g;
  g.NumberOfFunctions = 2;
  g.CreateParameters();
  ASSERT_EQ(g.GetNumberOfParameters(), 7);
  EXPECT_TRUE(g.GetOnlyAdvancedMode());
  EXPECT_TRUE(g.Params[0]->Separator);
  EXPECT_FALSE(g.Params[1]->StartValueAutoDetect);
  EXPECT_FALSE(g.Params[1]->StartValueAutoDetectEnable);
  const std::vector<double> truth = {1.0, 40.0, 3.0, 50.0, 60.0, 5.0, 30.0};
  const double starts[7] = {0.0, 38.0, 4.0, 40.0, 62.0, 4.0, 20.0};
  for (int i = 0; i < 7; ++i) g.Params[i]->StartValue = starts[i];
  ExpectRecovers(g, truth, 0, 100, 201, 1e-6);
}

TEST(StandardFitFunctions, UserFormulaErrorsAndDimension) {
  TNLFitUserDefined u;
  EXPECT_TRUE(u.IsUsable());
  EXPECT_EQ(u.GetNumberOfParameters(), 2);
  EXPECT_EQ(u.Params[0]->ShortName, "x2");
  EXPECT_EQ(u.Params[1]->LongName, "Parameter(3)");
  u.FitFunctionString = "x2 * EXP(-x1 / x4)";
  EXPECT_FALSE(u.UserFitFunctionChanged()); // x4 is beyond two parameters
  u.NumberOfParams = 3;
  u.CreateParameters();
  EXPECT_TRUE(u.UserFitFunctionChanged());
  EXPECT_EQ(u.FitFunctionString, "x2*EXP(-x1/x4)");
  EXPECT_EQ(u.GetNumberOfParameters(), 3);
  // A formula undefined at the data ends the fit with the parser's error.
  u.FitFunctionString = "x2 + x3 / (x1 - 1) + x4";
  ASSERT_TRUE(u.UserFitFunctionChanged());
  std::vector<double> x{0, 1, 2, 3}, y{1, 2, 3, 4};
  void* td = u.ThreadPrepare();
  double values[3];
  TFitFunctionErrorInfo info;
  std::string message;
  EXPECT_FALSE(
      u.CalculateThread(td, nullptr, values, nullptr, 4, x.data(), y.data(), nullptr, info, message));
  u.ThreadPostpare(td);
  EXPECT_EQ(message, "Fit Error (Parser Function Error)");
  const double p[3] = {1, 1, 1};
  EXPECT_THROW(u.GetFunctionValue(p, 1.0), OrvexException);
}

TEST(StandardFitFunctions, GaussUserNativeConversionsRoundTrip) {
  TNLFitGauss g;
  g.NumberOfFunctions = 2;
  g.CreateParameters();
  const double native[7] = {1.0, 10.0, 2.0, 50.0, 20.0, 0.5, 8.0};
  for (int wk = 0; wk < 3; ++wk)
    for (int ik = 0; ik < 2; ++ik) {
      g.WidthKind = wk;
      g.IntensityKind = ik;
      double v[7];
      std::copy(native, native + 7, v);
      g.TransformNativeParametersToParameters(v);
      if (wk == 2) {
        EXPECT_NEAR(v[2], 2.0 * 2.3548200450309493, 1e-12);
      }
      if (ik == 1) {
        EXPECT_NEAR(v[3], 50.0 * 2.0 * std::sqrt(2 * std::numbers::pi), 1e-9);
      }
      g.TransformParametersToNativeParameters(v);
      for (int i = 0; i < 7; ++i) EXPECT_NEAR(v[i], native[i], 1e-12 * std::fabs(native[i])) << wk << ik << i;
    }
  g.WidthKind = 2;
  g.IntensityKind = 1;
  double e[7] = {0, 0, 0.1, 1.0, 0, 0.01, 0.2};
  g.TransformNativeErrorToError(native, e);
  EXPECT_NEAR(e[2], 0.1 * 2.3548200450309493, 1e-12);
  EXPECT_NEAR(e[3], (1.0 * 2.0 + 0.1 * 50.0) * std::sqrt(2 * std::numbers::pi), 1e-12);
}

TEST(StandardFitFunctions, LorentzAreaAmplitudeRoundTrip) {
  TNLFitLorentz l;
  l.IntensityKind = 1;
  double v[4] = {0.0, 5.0, 4.0, 100.0};
  l.TransformNativeParametersToParameters(v);
  EXPECT_NEAR(v[3], 2 * 100.0 / (std::numbers::pi * 4.0), 1e-12);
  // The amplitude is the model's height above the offset at the center.
  const double native[4] = {0.0, 5.0, 4.0, 100.0};
  EXPECT_NEAR(v[3], l.GetFunctionValue(native, 5.0), 1e-12);
  l.TransformParametersToNativeParameters(v);
  EXPECT_NEAR(v[3], 100.0, 1e-12);
}

TEST(StandardFitFunctions, SortByCenterMovesValuesAndErrors) {
  TNLFitGauss g;
  g.NumberOfFunctions = 3;
  g.CreateParameters();
  g.SortKind = 1;
  double v[10] = {0, 30, 1, 5, 10, 2, 6, 20, 3, 7};
  double e[10] = {0, 0.3, 0.1, 0.5, 0.1, 0.2, 0.6, 0.2, 0.3, 0.7};
  g.SortParameters(v, e);
  EXPECT_EQ(v[1], 10);
  EXPECT_EQ(v[4], 20);
  EXPECT_EQ(v[7], 30);
  EXPECT_EQ(v[9], 5);
  EXPECT_EQ(e[1], 0.1);
  EXPECT_EQ(e[9], 0.5);
}

TEST(StandardFitFunctions, PeakEstimation) {
  std::vector<double> x(21), y(21);
  for (int i = 0; i < 21; ++i) x[i] = i, y[i] = 2.0 + 10.0 * std::exp(-0.5 * std::pow((i - 8) / 2.0, 2));
  TPeakEstimate e = EstimatePeak(x.data(), y.data(), 21);
  EXPECT_TRUE(e.Upward);
  EXPECT_EQ(e.Center, 8.0);
  EXPECT_NEAR(e.Base, 2.0 + 10.0 * std::exp(-8.0) / 2, 1e-6); // mean of the end points
  EXPECT_NEAR(e.Height, 12.0 - e.Base, 1e-12);
  EXPECT_EQ(e.Width, 6.0); // points 5..11 lie at or above half height, 6 and 10 beyond it

  // Area exactly 0 counts as a downward peak.
  std::vector<double> z{1, 3, -1, 1};
  e = EstimatePeak(x.data(), z.data(), 4);
  EXPECT_FALSE(e.Upward);
  EXPECT_EQ(e.Center, 2.0);

  // Flat: height 0, and the Lorentz area is still pi w/2 times -1.
  std::vector<double> flat(10, 4.0);
  e = EstimatePeak(x.data(), flat.data(), 10);
  EXPECT_EQ(e.Height, 0.0);
  EXPECT_LE(e.Width, 1.0);
  TNLFitLorentz l;
  TChiSqrMinimizer m(4);
  l.InitializeCSM(&m);
  l.CopyParamsToCSM(&m);
  m.EstimateParameters(x.data(), flat.data(), 10);
  EXPECT_NEAR(m.GetParameter(3), -std::numbers::pi * e.Width / 2.0, 1e-12);
}

TEST(StandardFitFunctions, FixedAutoDetectParameterKeepsValue) {
  TNLFitGauss g;
  std::vector<double> x(21), y(21);
  for (int i = 0; i < 21; ++i) x[i] = i, y[i] = 2.0 + 10.0 * std::exp(-0.5 * std::pow((i - 8) / 2.0, 2));
  g.Params[1]->Vary = false; // center fixed by the user, auto-detect still on
  g.Params[1]->Value = 7.5;
  auto* m = static_cast<TChiSqrMinimizer*>(g.ThreadPrepare());
  m->EstimateParameters(x.data(), y.data(), 21);
  EXPECT_EQ(m->GetParameter(1), 7.5);
  EXPECT_EQ(m->GetParameter(3), y[8] - m->GetParameter(0)); // the height is still estimated
  g.ThreadPostpare(m);
  // A parameter the user may not vary takes the estimate: the center of an exponential decay.
  TNLFitExpDecay d;
  auto* md = static_cast<TChiSqrMinimizer*>(d.ThreadPrepare());
  std::vector<double> yd(21);
  for (int i = 0; i < 21; ++i) x[i] = 5 + i, yd[i] = 1 + 3 * std::exp(-i / 4.0);
  md->EstimateParameters(x.data(), yd.data(), 21);
  EXPECT_EQ(md->GetParameter(1), 5.0);
  EXPECT_FALSE(md->GetVaryParameter(1));
  d.ThreadPostpare(md);
}

TEST(StandardFitFunctions, ReplicaLists) {
  TNLFitGauss g;
  EXPECT_TRUE(g.GetReplicaList().empty());
  g.NumberOfFunctions = 2;
  g.CreateParameters();
  ASSERT_EQ(g.GetReplicaList().size(), 2u);
  const double p[7] = {1.0, 10.0, 2.0, 5.0, 20.0, 3.0, 7.0};
  EXPECT_NEAR(g.GetReplicaValue(p, 20.0, 1), 1.0 + 7.0, 1e-12);
  EXPECT_NEAR(g.GetReplicaValue(p, 20.0, 0) + g.GetReplicaValue(p, 20.0, 1) - p[0],
              g.GetFunctionValue(p, 20.0), 1e-12);
  TNLFitPsdVoigt2 v;
  ASSERT_EQ(v.GetReplicaList().size(), 2u);
  const double q[6] = {1.0, 0.0, 2.0, 3.0, 10.0, 0.3};
  EXPECT_NEAR(v.GetReplicaValue(q, 0.5, 0) + v.GetReplicaValue(q, 0.5, 1) - 1.0, v.GetFunctionValue(q, 0.5),
              1e-12);
  try {
    v.GetReplicaValue(q, 0.5, 2);
    FAIL() << "no exception";
  } catch (const OrvexException& e) {
    EXPECT_STREQ(e.what(), "CSMCalculatePsdVoigt2WithReplica: wrong Replica index");
  }
}

TEST(StandardFitFunctions, StatusTexts) {
  TChiSqrMinimizer m(1);
  std::string s;
  TNLFitFunction::CreateErrorMessage(&m, s, false);
  EXPECT_EQ(s, "Fit Successful (0 Iterations)");
  TNLFitFunction::CreateErrorMessage(&m, s, true);
  EXPECT_EQ(s, "Fit Error (Numeric Problem)");
  double x = 0, y = 0;
  m.LevenbergMarquardtMinimize(&x, &y, nullptr, 1);
  TNLFitFunction::CreateErrorMessage(&m, s, false);
  EXPECT_EQ(s, "Fit Error (Missing Fit Function)");
}

TEST(StandardFitFunctions, PersistenceRoundTrip) {
  oxtest::TempDir dir;
  const std::string fileName = dir.File("fit.oxt");
  TNLFitGauss g;
  g.NumberOfFunctions = 2;
  g.WidthKind = 2;
  g.SortKind = 3;
  g.CreateParameters();
  g.FunctionName = "Two peaks";
  g.Params[4]->StartValue = 123.5;
  g.Params[4]->HasUpperLimit = true;
  g.Params[4]->UpperLimit = 200.0;
  g.Params[2]->Vary = false;
  {
    TFileHandle f = CreateTagFile(fileName, "ORX_TEST");
    ASSERT_NE(f, kInvalidFileHandle);
    TTagControl root;
    root.WriteTag(f, "Root", TTagKind::TagList);
    ASSERT_GE(g.SaveToTagFile(f), 1);
    root.CloseWriteTag(f);
    CloseFile(f);
  }
  TFileHandle f = kInvalidFileHandle;
  TTagControl root;
  ASSERT_EQ(OpenTagFileForReading(fileName, {"ORX_TEST"}, f, root), 1);
  TNLFitGauss h;
  ASSERT_GE(h.LoadFromTagFile(f, root), 1);
  CloseFile(f);
  EXPECT_EQ(h.NumberOfFunctions, 2);
  EXPECT_EQ(h.WidthKind, 2);
  EXPECT_EQ(h.SortKind, 3);
  EXPECT_EQ(h.FunctionName, "Two peaks");
  ASSERT_EQ(h.GetNumberOfParameters(), 7);
  EXPECT_EQ(h.Params[4]->StartValue, 123.5);
  EXPECT_TRUE(h.Params[4]->HasUpperLimit);
  EXPECT_EQ(h.Params[4]->UpperLimit, 200.0);
  EXPECT_FALSE(h.Params[2]->Vary);
  EXPECT_TRUE(h.Params[1]->Vary);
}

} // namespace

#include "common/numerics/Fitfunctionmanager.h"

namespace {

TEST(FitFunctionManager, StandardListCloneAndUserFile) {
  TFitFunctionManager m;
  m.CreateStandardFitFunctions();
  ASSERT_EQ(m.GetCount(), 7);
  EXPECT_EQ(m.GetFitFunction(0)->DisplayName, "Gauss");
  EXPECT_EQ(m.GetFitFunction(6)->DisplayName, "User Defined");
  EXPECT_EQ(m.GetUserFitFunctionCount(), 0);
  EXPECT_EQ(TFitFunctionManager::CreateFitFunctionByClassName("TNoSuchFit"), nullptr);

  // A user's own function: a formula with three parameters.
  auto user = std::make_unique<TNLFitUserDefined>();
  user->NumberOfParams = 3;
  user->CreateParameters();
  user->FitFunctionString = "x2 * EXP(-x1 / x3) + x4";
  ASSERT_TRUE(user->UserFitFunctionChanged());
  user->FunctionName = "My decay";
  user->Categories.push_back("User");
  user->Params[1]->StartValue = 4.5;
  auto clone = TFitFunctionManager::CloneFitFunction(*user);
  ASSERT_NE(clone, nullptr);
  auto* c = dynamic_cast<TNLFitUserDefined*>(clone.get());
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->FitFunctionString, "x2*EXP(-x1/x3)+x4");
  EXPECT_TRUE(c->IsUsable());
  EXPECT_EQ(c->GetNumberOfParameters(), 3);
  EXPECT_EQ(c->Params[1]->StartValue, 4.5);
  EXPECT_TRUE(c->IsUserFunction());
  m.AddFitFunction(std::move(user));
  EXPECT_EQ(m.GetUserFitFunctionCount(), 1);

  oxtest::TempDir dir;
  const std::string file = dir.File("user.fit");
  ASSERT_EQ(m.SaveUserFitFunctionsToTagFile(file), 1);
  EXPECT_EQ(oxtest::ReadFileBytes(file).substr(0, 8), "ORX_UFIT");

  TFitFunctionManager other;
  other.CreateStandardFitFunctions();
  ASSERT_GE(other.AppendUserFitFunctionsFromTagFile(file), 1);
  ASSERT_GE(other.AppendUserFitFunctionsFromTagFile(file), 1);
  EXPECT_EQ(other.GetUserFitFunctionCount(), 2);
  ASSERT_GE(other.LoadUserFitFunctionsFromTagFile(file), 1); // replaces
  EXPECT_EQ(other.GetUserFitFunctionCount(), 1);
  EXPECT_EQ(other.GetCount(), 8);
  EXPECT_EQ(other.GetFitFunction(7)->FunctionName, "My decay");
  // A file of another kind is refused.
  oxtest::WriteFileBytes(dir.File("bad.fit"), std::string("ORX_XXXX") + std::string(40, '\0'));
  EXPECT_EQ(other.LoadUserFitFunctionsFromTagFile(dir.File("bad.fit")), teWrongFileIdentification);
  EXPECT_LT(other.LoadUserFitFunctionsFromTagFile(dir.File("missing.fit")), 0);
}

} // namespace
