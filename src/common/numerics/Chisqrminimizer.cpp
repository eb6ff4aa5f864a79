// Levenberg-Marquardt least-squares fitter (mrqmin/mrqcof/gaussj/covsrt) with limits and status codes.
#include "common/numerics/Chisqrminimizer.h"

#include "common/numerics/Linalg.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <new>

namespace {

// The normal equations sum over the points in kLanes interleaved partial sums (point i goes to lane i mod
// kLanes), which the vector units add side by side; the lanes are added in a fixed order at the end. The
// order of the additions is thus the same for every vector width; processors with fused multiply-add round
// the products once less, which moves results in the last digits only.
constexpr int kLanes = 8;
constexpr int kBlock = kCSMBlockSize;
static_assert(kBlock % kLanes == 0, "a block holds whole lane vectors");
constexpr size_t kAlignment = 64;
typedef double TLaneVector __attribute__((vector_size(kLanes * sizeof(double)), aligned(sizeof(double))));

size_t RoundUpToLanes(size_t count) {
  return (count + kLanes - 1) / kLanes * kLanes;
}

double ReduceLanes(const double* s) {
  return ((s[0] + s[1]) + (s[2] + s[3])) + ((s[4] + s[5]) + (s[6] + s[7]));
}

// Sum over one block of a[i] b[i] in four independent chains, added to the lanes of s; the short chains keep
// the vector units busy where one running sum would wait for each addition.
[[gnu::always_inline]] inline void AddProducts(TLaneVector& s, const TLaneVector* a, const TLaneVector* b) {
  static_assert(kBlock / kLanes == 8, "the chains below cover eight lane vectors");
  TLaneVector c0 = a[0] * b[0], c1 = a[1] * b[1], c2 = a[2] * b[2], c3 = a[3] * b[3];
  c0 += a[4] * b[4];
  c1 += a[5] * b[5];
  c2 += a[6] * b[6];
  c3 += a[7] * b[7];
  s += (c0 + c1) + (c2 + c3);
}

// Adds one block of points to the lane sums: for every pair (l, m <= l) of fitted parameters w d_l d_m, for
// every l w dy d_l, and w dy^2, in this order in sums. The products are formed as in the textbook per-point
// loop (wt = d_l w, then wt d_m, dy wt), chi-square as dy (dy w).
OX_SIMD_CLONES
void AccumulateBlock(const double* yData, const double* yModel, const double* w, bool unitWeights,
                     const double* d, const int* varied, int mfit, double* dy, double* wt, double* sums) {
  constexpr int kVectors = kBlock / kLanes;
  const auto lanes = [](const double* p) { return reinterpret_cast<const TLaneVector*>(p); };
  TLaneVector* dyv = reinterpret_cast<TLaneVector*>(dy);
  const TLaneVector* yd = lanes(yData);
  const TLaneVector* ym = lanes(yModel);
  const TLaneVector* wv = lanes(w);
  for (int i = 0; i < kVectors; ++i) dyv[i] = yd[i] - ym[i];
  // With unit weights w d_l is d_l itself (the product with 1 is exact), so the derivatives serve directly.
  const auto weighted = [&](int l) {
    return unitWeights ? lanes(d + varied[l] * kBlock) : lanes(wt + l * kBlock);
  };
  if (!unitWeights)
    for (int l = 0; l < mfit; ++l) {
      const TLaneVector* dl = lanes(d + varied[l] * kBlock);
      TLaneVector* wl = reinterpret_cast<TLaneVector*>(wt + l * kBlock);
      for (int i = 0; i < kVectors; ++i) wl[i] = dl[i] * wv[i];
    }
  TLaneVector* s = reinterpret_cast<TLaneVector*>(sums);
  int k = 0;
  for (int l = 0; l < mfit; ++l) {
    const TLaneVector* wl = weighted(l);
    for (int m = 0; m <= l; ++m, ++k) AddProducts(s[k], wl, lanes(d + varied[m] * kBlock));
  }
  for (int l = 0; l < mfit; ++l, ++k) AddProducts(s[k], dyv, weighted(l));
  if (unitWeights) {
    AddProducts(s[k], dyv, dyv);
  } else {
    TLaneVector wdy[kVectors];
    for (int i = 0; i < kVectors; ++i) wdy[i] = dyv[i] * wv[i];
    AddProducts(s[k], dyv, wdy);
  }
}

} // namespace

void TChiSqrMinimizer::TAlignedDelete::operator()(double* p) const {
  ::operator delete[](p, std::align_val_t(kAlignment));
}

TChiSqrMinimizer::TChiSqrMinimizer(int numberOfParameters)
    : FNumberOfParameters(std::max(numberOfParameters, 0)) {
  const int ma = FNumberOfParameters;
  const size_t m = static_cast<size_t>(std::max(ma, 1));
  // One aligned block for all doubles: 9 vectors and 3 matrices, then the block buffers, each starting on a
  // whole lane vector.
  const size_t head = RoundUpToLanes(9 * m + 3 * m * m);
  const size_t sums = (m * (m + 1) / 2 + m + 1) * kLanes;
  const size_t total = head + 6 * kBlock + 2 * m * kBlock + sums;
  FDoubleBlock.reset(
      static_cast<double*>(::operator new[](total * sizeof(double), std::align_val_t(kAlignment))));
  double* d = FDoubleBlock.get();
  std::fill(d, d + total, 0.0);
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
  d = FDoubleBlock.get() + head; // a spare matrix keeps the head size uniform
  FBlockX = d, d += kBlock;
  FBlockYData = d, d += kBlock;
  FBlockY = d, d += kBlock;
  FBlockW = d, d += kBlock;
  FBlockOnes = d, d += kBlock;
  FBlockDy = d, d += kBlock;
  FBlockD = d, d += m * kBlock;
  FBlockWt = d, d += m * kBlock;
  FLaneSums = d;
  std::fill(FBlockOnes, FBlockOnes + kBlock, 1.0);
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

bool TChiSqrMinimizer::EvaluateBlock(const double* x, int count, const double* p) {
  try {
    if (FBlockModel) {
      FBlockModel(x, p, FBlockY, FBlockD, FNumberOfParameters, this);
    } else {
      for (int j = 0; j < count; ++j) {
        FBlockY[j] = 0.0;
        CallModel(x[j], p, FBlockY[j], FDerivatives);
        if (FErrorCode != csmOk) return false;
        for (int l = 0; l < FMFit; ++l) FBlockD[FVaried[l] * kBlock + j] = FDerivatives[FVaried[l]];
      }
    }
  } catch (const std::exception& e) {
    SetError(csmException, std::string("mrqcof:LMF ") + e.what());
  } catch (...) {
    SetError(csmException, "mrqcof:LMF Unknown Exception");
  }
  return FErrorCode == csmOk;
}

// The textbook sums over the points, taken block by block: the model fills a block of values and
// derivatives, AccumulateBlock adds it to the lane sums of the lower triangle of alpha, of beta and of
// chi-square. A short last block is padded with copies of the last point whose residual and derivatives are
// set to 0, so padding adds exact zeros. A failing model ends the round with the chi-square of the blocks
// before.
void TChiSqrMinimizer::mrqcof(const double* x, const double* y, const double* sigma, int n, const double* p,
                              double* alpha, double* beta) {
  const int ma = FNumberOfParameters;
  const int mfit = FMFit;
  const int pairs = mfit * (mfit + 1) / 2;
  double* chiSums = FLaneSums + static_cast<size_t>(pairs + mfit) * kLanes;
  std::fill(FLaneSums, chiSums + kLanes, 0.0);
  for (int start = 0; start < n; start += kBlock) {
    const int count = std::min(kBlock, n - start);
    const double* bx = x + start;
    const double* by = y + start;
    if (count < kBlock) {
      std::copy(bx, bx + count, FBlockX);
      std::fill(FBlockX + count, FBlockX + kBlock, bx[count - 1]);
      std::copy(by, by + count, FBlockYData);
      std::fill(FBlockYData + count, FBlockYData + kBlock, by[count - 1]);
      bx = FBlockX;
      by = FBlockYData;
    }
    const double* w = FBlockOnes;
    if (sigma || count < kBlock) {
      for (int j = 0; j < count; ++j) FBlockW[j] = sigma ? 1.0 / (sigma[start + j] * sigma[start + j]) : 1.0;
      std::fill(FBlockW + count, FBlockW + kBlock, 0.0);
      w = FBlockW;
    }
    if (!EvaluateBlock(bx, count, p)) {
      FChiSqr = ReduceLanes(chiSums);
      return;
    }
    for (int j = count; j < kBlock; ++j) {
      FBlockY[j] = by[j];
      for (int l = 0; l < mfit; ++l) FBlockD[FVaried[l] * kBlock + j] = 0.0;
    }
    AccumulateBlock(by, FBlockY, w, w == FBlockOnes, FBlockD, FVaried, mfit, FBlockDy, FBlockWt, FLaneSums);
  }
  const double* s = FLaneSums;
  for (int j = 0; j < mfit; ++j)
    for (int k = 0; k <= j; ++k, s += kLanes) alpha[j * ma + k] = ReduceLanes(s);
  for (int j = 0; j < mfit; ++j, s += kLanes) beta[j] = ReduceLanes(s);
  for (int j = 1; j < mfit; ++j)
    for (int k = 0; k < j; ++k) alpha[k * ma + j] = alpha[j * ma + k];
  FChiSqr = ReduceLanes(s);
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
