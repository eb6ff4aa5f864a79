// Levenberg-Marquardt minimizer against certified nonlinear regression problems and its status paths.
#include "common/numerics/Chisqrminimizer.h"

#include <cmath>
#include <ostream>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct TCertifiedProblem {
  const char* Name;
  TCSMModelFunction Model;
  std::vector<double> X, Y;
  std::vector<double> Start;
  std::vector<double> Certified;
  double ResidualSumOfSquares;
};

void PrintTo(const TCertifiedProblem& p, std::ostream* os) {
  *os << p.Name;
}

// Misra1a: y = b1 (1 - exp(-b2 x))
void Misra1aModel(double x, const double* b, double& y, double* d, int, TChiSqrMinimizer*) {
  const double e = std::exp(-b[1] * x);
  y = b[0] * (1.0 - e);
  d[0] = 1.0 - e;
  d[1] = b[0] * x * e;
}
// Misra1b: y = b1 (1 - (1 + b2 x / 2)^-2)
void Misra1bModel(double x, const double* b, double& y, double* d, int, TChiSqrMinimizer*) {
  const double u = 1.0 + b[1] * x / 2.0;
  y = b[0] * (1.0 - 1.0 / (u * u));
  d[0] = 1.0 - 1.0 / (u * u);
  d[1] = b[0] * x / (u * u * u);
}
// Misra1c: y = b1 (1 - (1 + 2 b2 x)^-1/2)
void Misra1cModel(double x, const double* b, double& y, double* d, int, TChiSqrMinimizer*) {
  const double u = 1.0 + 2.0 * b[1] * x;
  y = b[0] * (1.0 - 1.0 / std::sqrt(u));
  d[0] = 1.0 - 1.0 / std::sqrt(u);
  d[1] = b[0] * x * std::pow(u, -1.5);
}
// Misra1d: y = b1 b2 x / (1 + b2 x)
void Misra1dModel(double x, const double* b, double& y, double* d, int, TChiSqrMinimizer*) {
  const double u = 1.0 + b[1] * x;
  y = b[0] * b[1] * x / u;
  d[0] = b[1] * x / u;
  d[1] = b[0] * x / (u * u);
}
// DanWood: y = b1 x^b2
void DanWoodModel(double x, const double* b, double& y, double* d, int, TChiSqrMinimizer*) {
  const double p = std::pow(x, b[1]);
  y = b[0] * p;
  d[0] = p;
  d[1] = b[0] * p * std::log(x);
}
// Rat42: y = b1 / (1 + exp(b2 - b3 x))
void Rat42Model(double x, const double* b, double& y, double* d, int, TChiSqrMinimizer*) {
  const double e = std::exp(b[1] - b[2] * x);
  const double u = 1.0 + e;
  y = b[0] / u;
  d[0] = 1.0 / u;
  d[1] = -b[0] * e / (u * u);
  d[2] = b[0] * x * e / (u * u);
}
// Eckerle4: y = (b1/b2) exp(-0.5 ((x - b3)/b2)^2)
void Eckerle4Model(double x, const double* b, double& y, double* d, int, TChiSqrMinimizer*) {
  const double t = (x - b[2]) / b[1];
  const double e = std::exp(-0.5 * t * t);
  y = b[0] / b[1] * e;
  d[0] = e / b[1];
  d[1] = -b[0] / (b[1] * b[1]) * e + y * t * t / b[1];
  d[2] = y * t / b[1];
}
// MGH09: y = b1 (x^2 + x b2) / (x^2 + x b3 + b4)
void Mgh09Model(double x, const double* b, double& y, double* d, int, TChiSqrMinimizer*) {
  const double num = x * x + x * b[1], den = x * x + x * b[2] + b[3];
  y = b[0] * num / den;
  d[0] = num / den;
  d[1] = b[0] * x / den;
  d[2] = -y * x / den;
  d[3] = -y / den;
}
// BoxBOD: y = b1 (1 - exp(-b2 x))
void BoxBodModel(double x, const double* b, double& y, double* d, int n, TChiSqrMinimizer* m) {
  Misra1aModel(x, b, y, d, n, m);
}

const std::vector<double> kMisraX = {77.6,  114.9, 141.1, 190.8, 239.9, 289.0, 332.8,
                                     378.4, 434.8, 477.3, 536.8, 593.1, 689.1, 760.0};
const std::vector<double> kMisraY = {10.07, 14.73, 17.94, 23.93, 29.61, 35.18, 40.02,
                                     44.82, 50.76, 55.05, 61.01, 66.40, 75.47, 81.78};

std::vector<TCertifiedProblem> CertifiedProblems() {
  std::vector<TCertifiedProblem> p;
  p.push_back({"Misra1a",
               Misra1aModel,
               kMisraX,
               kMisraY,
               {500, 1e-4},
               {2.3894212918E+02, 5.5015643181E-04},
               1.2455138894E-01});
  p.push_back({"Misra1b",
               Misra1bModel,
               kMisraX,
               kMisraY,
               {500, 1e-4},
               {3.3799746163E+02, 3.9039091287E-04},
               7.5464681533E-02});
  p.push_back({"Misra1c",
               Misra1cModel,
               kMisraX,
               kMisraY,
               {500, 1e-4},
               {6.3642725809E+02, 2.0813627256E-04},
               4.0966836971E-02});
  p.push_back({"Misra1d",
               Misra1dModel,
               kMisraX,
               kMisraY,
               {500, 1e-4},
               {4.3736970754E+02, 3.0227324449E-04},
               5.6419295283E-02});
  p.push_back({"DanWood",
               DanWoodModel,
               {1.309, 1.471, 1.490, 1.565, 1.611, 1.680},
               {2.138, 3.421, 3.597, 4.340, 4.882, 5.660},
               {1, 5},
               {7.6886226176E-01, 3.8604055871E+00},
               4.3173084083E-03});
  p.push_back({"Rat42",
               Rat42Model,
               {9, 14, 21, 28, 42, 57, 63, 70, 79},
               {8.930, 10.800, 18.590, 22.330, 39.350, 56.110, 61.730, 64.620, 67.080},
               {100, 1, 0.1},
               {7.2462237576E+01, 2.6180768402E+00, 6.7359200066E-02},
               8.0565229338E+00});
  p.push_back(
      {"Eckerle4",
       Eckerle4Model,
       {400,   405, 410,   415, 420,   425, 430,   435, 436.5, 438, 439.5, 441,
        442.5, 444, 445.5, 447, 448.5, 450, 451.5, 453, 454.5, 456, 457.5, 459,
        460.5, 462, 463.5, 465, 470,   475, 480,   485, 490,   495, 500},
       {0.0001575, 0.0001699, 0.0002350, 0.0003102, 0.0004917, 0.0008710, 0.0017418, 0.0046400, 0.0065895,
        0.0097302, 0.0149002, 0.0237310, 0.0401683, 0.0712559, 0.1264458, 0.2073413, 0.2902366, 0.3445623,
        0.3698049, 0.3668534, 0.3106727, 0.2078154, 0.1164354, 0.0616764, 0.0337200, 0.0194023, 0.0117831,
        0.0074357, 0.0022732, 0.0008800, 0.0004579, 0.0002345, 0.0001586, 0.0001143, 0.0000710},
       {1.5, 5, 450}, // second certified start: this higher-difficulty set fails from the first
       {1.5543827178E+00, 4.0888321754E+00, 4.5154121844E+02},
       1.4635887487E-03});
  p.push_back({"MGH09",
               Mgh09Model,
               {4.0, 2.0, 1.0, 0.5, 0.25, 0.167, 0.125, 0.1, 0.0833, 0.0714, 0.0625},
               {0.1957, 0.1947, 0.1735, 0.1600, 0.0844, 0.0627, 0.0456, 0.0342, 0.0323, 0.0235, 0.0246},
               {0.25, 0.39, 0.415, 0.39}, // second certified start (higher difficulty)
               {1.9280693458E-01, 1.9128232873E-01, 1.2305650693E-01, 1.3606233068E-01},
               3.0750560385E-04});
  p.push_back({"BoxBOD",
               BoxBodModel,
               {1, 2, 3, 5, 7, 10},
               {109, 149, 149, 191, 213, 224},
               {100, 0.75}, // second certified start (higher difficulty)
               {2.1380940889E+02, 5.4723748542E-01},
               1.1680088766E+03});
  return p;
}

class CertifiedProblemTest : public ::testing::TestWithParam<TCertifiedProblem> {};

TEST_P(CertifiedProblemTest, ReachesCertifiedValues) {
  const TCertifiedProblem& p = GetParam();
  const int np = static_cast<int>(p.Start.size());
  TChiSqrMinimizer csm(np);
  csm.SetModelFunction(p.Model);
  for (int i = 0; i < np; ++i) csm.SetStartParameter(i, p.Start[i]);
  csm.EstimateParameters(p.X.data(), p.Y.data(), static_cast<int>(p.X.size()));
  csm.Tolerance = 1e-15; // the ill-conditioned MGH09 needs the loop to run to the floor of chi-square
  csm.LevenbergMarquardtMinimize(p.X.data(), p.Y.data(), nullptr, static_cast<int>(p.X.size()));
  ASSERT_EQ(csm.GetErrorCode(), 0) << p.Name << ": " << csm.GetErrorMessage();
  for (int i = 0; i < np; ++i)
    EXPECT_NEAR(csm.GetParameter(i), p.Certified[i], 1e-6 * std::fabs(p.Certified[i]))
        << p.Name << " b" << i + 1;
  EXPECT_NEAR(csm.GetChiSqr(), p.ResidualSumOfSquares, 1e-6 * p.ResidualSumOfSquares) << p.Name;
}

INSTANTIATE_TEST_SUITE_P(Certified, CertifiedProblemTest, ::testing::ValuesIn(CertifiedProblems()),
                         [](const auto& info) { return std::string(info.param.Name); });

// y = a + b x
void LineModel(double x, const double* p, double& y, double* d, int, TChiSqrMinimizer*) {
  y = p[0] + p[1] * x;
  d[0] = 1.0;
  d[1] = x;
}

void ThrowingModel(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer* m) {
  if (x > 2.5) throw std::runtime_error("model broke");
  LineModel(x, p, y, d, n, m);
}

struct LineData {
  std::vector<double> X{0, 1, 2, 3, 4, 5, 6, 7};
  std::vector<double> Y;
  explicit LineData(double noise) {
    const double wiggle[8] = {0.3, -0.2, 0.1, -0.4, 0.25, 0.05, -0.15, 0.2};
    for (int i = 0; i < 8; ++i) Y.push_back(2.0 + 0.5 * X[i] + noise * wiggle[i]);
  }
  int N() const { return static_cast<int>(X.size()); }
};

TEST(ChiSqrMinimizer, ExactDataEndsInFirstRoundAndStillGivesCovariance) {
  LineData d(0.0);
  TChiSqrMinimizer csm(2);
  csm.SetModelFunction(LineModel);
  // From a distant start the loop runs until chi-square vanishes.
  csm.SetStartParameter(0, 1.0);
  csm.SetStartParameter(1, 1.0);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), 0);
  EXPECT_LT(csm.GetChiSqr(), 1e-20);
  // From the exact parameters the first round ends the loop.
  csm.SetStartParameter(0, 2.0);
  csm.SetStartParameter(1, 0.5);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), 0);
  EXPECT_LT(csm.GetChiSqr(), 1e-200);
  EXPECT_EQ(csm.GetIterations(), 0);
  EXPECT_NEAR(csm.GetParameter(0), 2.0, 1e-12);
  EXPECT_NEAR(csm.GetParameter(1), 0.5, 1e-12);
  // Covariance of a straight line fit with unit weights: (X^T X)^-1.
  const double n = 8, sx = 28, sxx = 140, det = n * sxx - sx * sx;
  EXPECT_NEAR(csm.GetCovariance(0, 0), sxx / det, 1e-12);
  EXPECT_NEAR(csm.GetCovariance(1, 1), n / det, 1e-12);
  EXPECT_NEAR(csm.GetCovariance(0, 1), -sx / det, 1e-12);
  // Chi-square 0 scales the error to 0.
  EXPECT_EQ(csm.GetParameterError(0), 0.0);
}

TEST(ChiSqrMinimizer, ParameterErrorsMatchLinearRegressionFormulas) {
  LineData d(1.0);
  TChiSqrMinimizer csm(2);
  csm.SetModelFunction(LineModel);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  ASSERT_EQ(csm.GetErrorCode(), 0) << csm.GetErrorMessage();
  const double n = 8, sx = 28, sxx = 140, det = n * sxx - sx * sx;
  double sy = 0, sxy = 0;
  for (int i = 0; i < 8; ++i) sy += d.Y[i], sxy += d.X[i] * d.Y[i];
  const double b = (n * sxy - sx * sy) / det, a = (sy - b * sx) / n;
  double rss = 0;
  for (int i = 0; i < 8; ++i) rss += (d.Y[i] - a - b * d.X[i]) * (d.Y[i] - a - b * d.X[i]);
  EXPECT_NEAR(csm.GetParameter(0), a, 1e-9);
  EXPECT_NEAR(csm.GetParameter(1), b, 1e-9);
  EXPECT_NEAR(csm.GetChiSqr(), rss, 1e-9);
  EXPECT_NEAR(csm.GetReducedChiSqr(), rss / 6, 1e-9);
  EXPECT_NEAR(csm.GetParameterError(1), std::sqrt(rss / 6 * n / det), 1e-9);
  EXPECT_NEAR(csm.GetParameterError(0), std::sqrt(rss / 6 * sxx / det), 1e-9);
}

TEST(ChiSqrMinimizer, SigmaWeightsThePoints) {
  LineData d(1.0);
  std::vector<double> sigma(8, 2.0);
  TChiSqrMinimizer csm(2);
  csm.SetModelFunction(LineModel);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  const double chiUnit = csm.GetChiSqr();
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), sigma.data(), d.N());
  EXPECT_NEAR(csm.GetChiSqr(), chiUnit / 4.0, 1e-9);
}

TEST(ChiSqrMinimizer, ModelExceptionGivesCode7WithText) {
  LineData d(1.0);
  TChiSqrMinimizer csm(2);
  csm.SetModelFunction(ThrowingModel);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), csmException);
  EXPECT_EQ(csm.GetErrorMessage(), "mrqcof:LMF model broke");
  // The object is reusable: a good model afterwards fits normally.
  csm.SetModelFunction(LineModel);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), 0);
}

TEST(ChiSqrMinimizer, MissingOrDoubleModelGivesCode1) {
  LineData d(1.0);
  TChiSqrMinimizer csm(2);
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), csmMissingFitFunction);
  csm.SetModelFunction(LineModel);
  csm.SetModelClosure([](double x, const double* p, double& y, double* dd, int n, TChiSqrMinimizer* m) {
    LineModel(x, p, y, dd, n, m);
  });
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), csmMissingFitFunction);
  csm.SetModelFunction(nullptr);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), 0);
}

TEST(ChiSqrMinimizer, LimitsClampWrongLimitsFailEqualLimitsPin) {
  LineData d(1.0);
  TChiSqrMinimizer csm(2);
  csm.SetModelFunction(LineModel);
  // The free slope would be about 0.5; an upper limit of 0.3 holds it there.
  csm.SetHasUpperLimit(1, true);
  csm.SetUpperLimit(1, 0.3);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), 0);
  EXPECT_DOUBLE_EQ(csm.GetParameter(1), 0.3);
  EXPECT_FALSE(csm.IsParamValueWithinLimits(1, 0.31));
  EXPECT_TRUE(csm.IsParamValueWithinLimits(1, 0.3));

  csm.SetHasLowerLimit(1, true);
  csm.SetLowerLimit(1, 0.4); // above the upper limit
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), csmWrongLimits);

  csm.SetLowerLimit(1, 0.3); // equal limits pin the parameter, which still counts as varied
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), 0);
  EXPECT_DOUBLE_EQ(csm.GetParameter(1), 0.3);
  EXPECT_EQ(csm.GetNumberOfFittedParameters(), 2);
}

TEST(ChiSqrMinimizer, AllFixedEvaluatesChiSqrAndDividesByN) {
  LineData d(1.0);
  TChiSqrMinimizer csm(2);
  csm.SetModelFunction(LineModel);
  csm.SetVaryParameter(0, false);
  csm.SetVaryParameter(1, false);
  csm.SetStartParameter(0, 2.0);
  csm.SetStartParameter(1, 0.5);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(d.X.data(), d.Y.data(), nullptr, d.N());
  EXPECT_EQ(csm.GetErrorCode(), 0);
  EXPECT_EQ(csm.GetNumberOfFittedParameters(), 0);
  double rss = 0;
  for (int i = 0; i < 8; ++i) rss += (d.Y[i] - 2.0 - 0.5 * d.X[i]) * (d.Y[i] - 2.0 - 0.5 * d.X[i]);
  EXPECT_NEAR(csm.GetChiSqr(), rss, 1e-12);
  EXPECT_NEAR(csm.GetReducedChiSqr(), rss / 8, 1e-12);
  EXPECT_EQ(csm.GetParameterError(0), 0.0);
  EXPECT_EQ(csm.GetCovariance(0, 0), 0.0);
}

TEST(ChiSqrMinimizer, AsManyPointsAsParametersGivesMinusOne) {
  std::vector<double> x{1, 2}, y{3, 5.5};
  TChiSqrMinimizer csm(2);
  csm.SetModelFunction(LineModel);
  csm.CopyStartParametersToParameters();
  csm.LevenbergMarquardtMinimize(x.data(), y.data(), nullptr, 2);
  EXPECT_EQ(csm.GetReducedChiSqr(), -1.0);
  EXPECT_EQ(csm.GetParameterError(0), -1.0);
  EXPECT_EQ(csm.GetParameterError(1), -1.0);
}

TEST(ChiSqrMinimizer, IterationLimitGivesCode2AndKeepsParameters) {
  TCertifiedProblem p = CertifiedProblems()[0]; // Misra1a needs several rounds from its start
  TChiSqrMinimizer csm(2);
  csm.SetModelFunction(p.Model);
  csm.SetStartParameter(0, p.Start[0]);
  csm.SetStartParameter(1, p.Start[1]);
  csm.CopyStartParametersToParameters();
  csm.MaxIterations = 3;
  csm.LevenbergMarquardtMinimize(p.X.data(), p.Y.data(), nullptr, static_cast<int>(p.X.size()));
  EXPECT_EQ(csm.GetErrorCode(), csmMaxIterations);
  EXPECT_EQ(csm.GetIterations(), 3);
  EXPECT_NE(csm.GetParameter(0), p.Start[0]);
  EXPECT_TRUE(std::isfinite(csm.GetParameter(1)));
}

TEST(ChiSqrMinimizer, EstimatorWritesOnlyFlaggedParametersAndReportsExceptions) {
  std::vector<double> x{0, 1, 2}, y{1, 2, 3};
  TChiSqrMinimizer csm(2);
  csm.SetStartParameter(0, 7.0);
  csm.SetStartParameter(1, 8.0);
  csm.SetUseEstimatedParameter(1, true);
  csm.SetEstimatorClosure([](const double*, const double*, double* s1, double* s2, int np, const bool* use,
                             double* p, int n, TChiSqrMinimizer*) {
    ASSERT_NE(s1, nullptr);
    ASSERT_NE(s2, nullptr);
    s1[n - 1] = s2[n - 1] = 0; // the scratch arrays hold n points
    for (int i = 0; i < np; ++i)
      if (use[i]) p[i] = 42.0;
  });
  csm.EstimateParameters(x.data(), y.data(), 3);
  EXPECT_EQ(csm.GetErrorCode(), 0);
  EXPECT_EQ(csm.GetParameter(0), 7.0);
  EXPECT_EQ(csm.GetParameter(1), 42.0);

  csm.SetEstimatorClosure([](const double*, const double*, double*, double*, int, const bool*, double*, int,
                             TChiSqrMinimizer*) { throw 5; });
  csm.EstimateParameters(x.data(), y.data(), 3);
  EXPECT_EQ(csm.GetErrorCode(), csmException);
  EXPECT_EQ(csm.GetErrorMessage(), "Unknown Exception");
}

TEST(ChiSqrMinimizer, OutOfRangeIndicesAreIgnored) {
  TChiSqrMinimizer csm(2);
  csm.SetParameter(5, 3.0);
  csm.SetParameter(-1, 3.0);
  EXPECT_EQ(csm.GetParameter(5), 0.0);
  EXPECT_FALSE(csm.GetVaryParameter(2));
  EXPECT_TRUE(csm.GetVaryParameter(1));
  EXPECT_EQ(csm.GetCovariance(0, 9), 0.0);
  EXPECT_EQ(csm.GetParameterError(-3), 0.0);
}

} // namespace
