// Levenberg-Marquardt least-squares fitter (mrqmin/mrqcof/gaussj/covsrt) with limits and status codes.
#include "common/numerics/Chisqrminimizer.h"

#include "common/numerics/Linalg.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>

TChiSqrMinimizer::TChiSqrMinimizer(int numberOfParameters)
    : FNumberOfParameters(std::max(numberOfParameters, 0)) {
  const int ma = FNumberOfParameters;
  const size_t m = static_cast<size_t>(std::max(ma, 1));
  // One block for all doubles: 9 vectors and 3 matrices.
  FDoubleBlock.reset(new double[9 * m + 3 * m * m]());
  double* d = FDoubleBlock.get();
  FParameters = d, d += m;
  FStartParameters = d, d += m;
  FUpperLimit = d, d += m;
  FLowerLimit = d, d += m;
  FDerivatives = d, d += m;
  FTrial = d, d += m;
  FBeta = d, d += m;
  FDa = d, d += m;
  FOneDa = d, d += m;
  FAlpha = d, d += m * m;
  FCovar = d, d += m * m;
  d += m * m; // spare matrix keeps the block size uniform
  FIntBlock.reset(new int[4 * m]());
  FIndxc = FIntBlock.get();
  FIndxr = FIndxc + m;
  FIpiv = FIndxr + m;
  FVaried = FIpiv + m;
  FBoolBlock.reset(new bool[4 * m]());
  FVary = FBoolBlock.get();
  FUseEstimated = FVary + m;
  FHasUpperLimit = FUseEstimated + m;
  FHasLowerLimit = FHasUpperLimit + m;
  for (int i = 0; i < ma; ++i) FVary[i] = true;
}

TChiSqrMinimizer::~TChiSqrMinimizer() = default;

#define OX_CSM_GETSET(Type, Name, Array)                                                                     \
  Type TChiSqrMinimizer::Get##Name(int i) const {                                                            \
    return (i >= 0 && i < FNumberOfParameters) ? Array[i] : Type{};                                          \
  }                                                                                                          \
  void TChiSqrMinimizer::Set##Name(int i, Type value) {                                                      \
    if (i >= 0 && i < FNumberOfParameters) Array[i] = value;                                                 \
  }
OX_CSM_GETSET(bool, VaryParameter, FVary)
OX_CSM_GETSET(double, StartParameter, FStartParameters)
OX_CSM_GETSET(double, Parameter, FParameters)
OX_CSM_GETSET(bool, HasLowerLimit, FHasLowerLimit)
OX_CSM_GETSET(double, LowerLimit, FLowerLimit)
OX_CSM_GETSET(bool, HasUpperLimit, FHasUpperLimit)
OX_CSM_GETSET(double, UpperLimit, FUpperLimit)
OX_CSM_GETSET(bool, UseEstimatedParameter, FUseEstimated)
#undef OX_CSM_GETSET

void TChiSqrMinimizer::CopyStartParametersToParameters() {
  std::memcpy(FParameters, FStartParameters, sizeof(double) * FNumberOfParameters);
}

void TChiSqrMinimizer::SetError(int code, const std::string& message) {
  FErrorCode = code;
  FErrorMessage = message;
}

bool TChiSqrMinimizer::HasModel() const {
  return (FModel != nullptr) != static_cast<bool>(FModelClosure);
}

void TChiSqrMinimizer::CallModel(double x, const double* p, double& y, double* derivatives) {
  if (FModel)
    FModel(x, p, y, derivatives, FNumberOfParameters, this);
  else
    FModelClosure(x, p, y, derivatives, FNumberOfParameters, this);
}

double TChiSqrMinimizer::EvaluateModel(double x) {
  double y = 0.0;
  if (HasModel()) CallModel(x, FParameters, y, FDerivatives);
  return y;
}

void TChiSqrMinimizer::EstimateParameters(const double* x, const double* y, int n) {
  FErrorCode = csmOk;
  FErrorMessage.clear();
  CopyStartParametersToParameters();
  const bool hasPlain = FEstimator != nullptr, hasClosure = static_cast<bool>(FEstimatorClosure);
  if (!hasPlain && !hasClosure) return;
  if (hasPlain && hasClosure) {
    SetError(csmMissingFitFunction, "Two estimators set");
    return;
  }
  if (n > FScratchSize) {
    FScratch.reset(new double[2 * static_cast<size_t>(n)]);
    FScratchSize = n;
  }
  double* s1 = FScratch ? FScratch.get() : nullptr;
  double* s2 = FScratch ? FScratch.get() + FScratchSize : nullptr;
  try {
    if (hasPlain)
      FEstimator(x, y, s1, s2, FNumberOfParameters, FUseEstimated, FParameters, n, this);
    else
      FEstimatorClosure(x, y, s1, s2, FNumberOfParameters, FUseEstimated, FParameters, n, this);
  } catch (const std::exception& e) {
    SetError(csmException, e.what()[0] ? e.what() : "Unknown Exception");
  } catch (...) {
    SetError(csmException, "Unknown Exception");
  }
}

void TChiSqrMinimizer::CheckLimits(double* p) {
  for (int j = 0; j < FNumberOfParameters; ++j) {
    if (FHasLowerLimit[j] && FHasUpperLimit[j] && FLowerLimit[j] > FUpperLimit[j]) {
      SetError(csmWrongLimits, "Wrong Limits");
      return;
    }
    if (FHasLowerLimit[j] && p[j] < FLowerLimit[j]) p[j] = FLowerLimit[j];
    if (FHasUpperLimit[j] && p[j] > FUpperLimit[j]) p[j] = FUpperLimit[j];
  }
}

bool TChiSqrMinimizer::IsParamValueWithinLimits(int i, double value) const {
  if (i < 0 || i >= FNumberOfParameters) return false;
  if (FHasLowerLimit[i] && FLowerLimit[i] > value) return false;
  if (FHasUpperLimit[i] && FUpperLimit[i] < value) return false;
  return true;
}

void TChiSqrMinimizer::LevenbergMarquardtMinimize(const double* x, const double* y, const double* sigma,
                                                  int n) {
  FErrorCode = csmOk;
  FErrorMessage.clear();
  if (!HasModel()) {
    SetError(csmMissingFitFunction, "Missing Fit Function");
    return;
  }
  FNumberOfPoints = n;
  FChiSqr = 0.0;
  FLambda = -1.0;
  FIterations = 0;
  FAccepted = false;
  double previous = 0.0;
  do {
    mrqmin(x, y, sigma, n);
    if (FChiSqr < 1e-200 || FErrorCode != csmOk) break;
    if (FIterations == 0) {
      previous = FChiSqr;
    } else {
      if (FAccepted && FChiSqr <= previous && (previous - FChiSqr) / FChiSqr < Tolerance) break;
      if (FChiSqr < previous) previous = FChiSqr;
    }
    ++FIterations;
  } while (FIterations < MaxIterations);
  if (FErrorCode == csmOk) {
    FLambda = 0.0;
    mrqmin(x, y, sigma, n);
    if (FErrorCode == csmOk && FIterations == MaxIterations)
      SetError(csmMaxIterations, "Max. # of Iterations reached");
  }
}

void TChiSqrMinimizer::mrqmin(const double* x, const double* y, const double* sigma, int n) {
  const int ma = FNumberOfParameters;
  if (FLambda < 0.0) {
    CheckLimits(FParameters);
    if (FErrorCode != csmOk) return;
    FMFit = 0;
    for (int j = 0; j < ma; ++j)
      if (FVary[j]) FVaried[FMFit++] = j;
    FLambda = 0.001;
    mrqcof(x, y, sigma, n, FParameters, FAlpha, FBeta);
    if (FErrorCode != csmOk) return;
    FOChiSqr = FChiSqr;
    std::memcpy(FTrial, FParameters, sizeof(double) * ma);
  }
  const int mfit = FMFit;
  for (int j = 0; j < mfit; ++j) {
    for (int k = 0; k < mfit; ++k) FCovar[j * ma + k] = FAlpha[j * ma + k];
    FCovar[j * ma + j] = FAlpha[j * ma + j] * (1.0 + FLambda);
    FOneDa[j] = FBeta[j];
  }
  const int code = gaussj(FCovar, mfit, ma, FOneDa, 1, 1, FIndxc, FIndxr, FIpiv);
  if (code != 0) {
    SetError(code, code == csmSingularMatrix ? "Singular Matrix" : "Singular Matrix2");
    return;
  }
  for (int j = 0; j < mfit; ++j) FDa[j] = FOneDa[j];
  if (FLambda == 0.0) {
    covsrt(FCovar);
    covsrt(FAlpha);
    return;
  }
  std::memcpy(FTrial, FParameters, sizeof(double) * ma);
  for (int l = 0; l < mfit; ++l) FTrial[FVaried[l]] = FParameters[FVaried[l]] + FDa[l];
  CheckLimits(FTrial);
  if (FErrorCode != csmOk) return;
  mrqcof(x, y, sigma, n, FTrial, FCovar, FDa);
  if (FErrorCode != csmOk) return;
  if (FChiSqr < FOChiSqr) {
    FAccepted = true;
    FLambda *= 0.1;
    FOChiSqr = FChiSqr;
    for (int j = 0; j < mfit; ++j) {
      for (int k = 0; k < mfit; ++k) FAlpha[j * ma + k] = FCovar[j * ma + k];
      FBeta[j] = FDa[j];
    }
    std::memcpy(FParameters, FTrial, sizeof(double) * ma);
  } else {
    FAccepted = (FChiSqr == FOChiSqr);
    FLambda *= 10.0;
    FChiSqr = FOChiSqr;
  }
}

void TChiSqrMinimizer::mrqcof(const double* x, const double* y, const double* sigma, int n, const double* p,
                              double* alpha, double* beta) {
  const int ma = FNumberOfParameters;
  const int mfit = FMFit;
  const int* varied = FVaried;
  double* dyda = FDerivatives;
  for (int j = 0; j < mfit; ++j) {
    for (int k = 0; k <= j; ++k) alpha[j * ma + k] = 0.0;
    beta[j] = 0.0;
  }
  double chisq = 0.0;
  for (int i = 0; i < n; ++i) {
    double ymod = 0.0;
    try {
      CallModel(x[i], p, ymod, dyda);
    } catch (const std::exception& e) {
      SetError(csmException, std::string("mrqcof:LMF ") + e.what());
    } catch (...) {
      SetError(csmException, "mrqcof:LMF Unknown Exception");
    }
    if (FErrorCode != csmOk) {
      FChiSqr = chisq;
      return;
    }
    const double sig2i = sigma ? 1.0 / (sigma[i] * sigma[i]) : 1.0;
    const double dy = y[i] - ymod;
    for (int l = 0; l < mfit; ++l) {
      const double wt = dyda[varied[l]] * sig2i;
      double* row = alpha + l * ma;
      for (int m = 0; m <= l; ++m) row[m] += wt * dyda[varied[m]];
      beta[l] += dy * wt;
    }
    chisq += dy * dy * sig2i;
  }
  for (int j = 1; j < mfit; ++j)
    for (int k = 0; k < j; ++k) alpha[k * ma + j] = alpha[j * ma + k];
  FChiSqr = chisq;
}

void TChiSqrMinimizer::covsrt(double* covar) {
  const int ma = FNumberOfParameters;
  for (int i = FMFit; i < ma; ++i)
    for (int j = 0; j <= i; ++j) covar[i * ma + j] = covar[j * ma + i] = 0.0;
  int k = FMFit - 1;
  for (int j = ma - 1; j >= 0; --j) {
    if (FVary[j]) {
      for (int i = 0; i < ma; ++i) std::swap(covar[i * ma + k], covar[i * ma + j]);
      for (int i = 0; i < ma; ++i) std::swap(covar[k * ma + i], covar[j * ma + i]);
      --k;
    }
  }
}

double TChiSqrMinimizer::GetCovariance(int i, int j) const {
  const int ma = FNumberOfParameters;
  if (i < 0 || j < 0 || i >= ma || j >= ma || !FVary[i] || !FVary[j]) return 0.0;
  return FCovar[i * ma + j];
}

double TChiSqrMinimizer::GetReducedChiSqr() const {
  const int divisor = FNumberOfPoints - FMFit;
  if (divisor <= 0) return -1.0;
  return FChiSqr / divisor;
}

double TChiSqrMinimizer::GetParameterError(int i) const {
  if (i < 0 || i >= FNumberOfParameters || !FVary[i]) return 0.0;
  const double r = GetReducedChiSqr();
  const double c = GetCovariance(i, i);
  if (r < 0.0 || c < 1e-31) return -1.0;
  return std::sqrt(c * r);
}
