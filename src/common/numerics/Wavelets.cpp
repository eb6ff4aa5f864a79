// Discrete wavelet transform: filter tables, multi-iteration analysis and
// weighted reconstruction on the three boundary policies, and the wavelet noise
// filter.
#include "common/numerics/Wavelets.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

namespace {

// Published scaling filters (the reconstruction low pass), in the order of
// TWaveletKind. 0: Haar, 2 taps
const double kScaling0[] = {0.7071067811865476, 0.7071067811865476};
// 1: Daubechies, 4 vanishing moments, 8 taps
const double kScaling1[] = {0.2303778133088965,    0.7148465705529157,   0.6308807679298589,
                            -0.027983769416859854, -0.18703481171909309, 0.030841381835560764,
                            0.0328830116668852,    -0.010597401785069032};
// 2: Daubechies, 8 vanishing moments, 16 taps
const double kScaling2[] = {
    0.05441584224310401,   0.31287159091429995,     0.6756307362972898,    0.5853546836542067,
    -0.015829105256349306, -0.2840155429615469,     0.0004724845739132828, 0.12874742662047847,
    -0.017369301001807547, -0.044088253930794755,   0.013981027917398282,  0.008746094047405777,
    -0.004870352993451574, -0.00039174037337694705, 0.0006754494064505693, -0.00011747678412476953};
// 3: Daubechies, 16 vanishing moments, 32 taps
const double kScaling3[] = {
    0.003189220925347738,    0.034907714323673344,   0.16506428348885313,     0.4303127228460038,
    0.637356332083789,       0.4402902568863569,     -0.08975108940248964,    -0.3270633105279177,
    -0.027918208133028276,   0.2111906939471043,     0.027340263752716042,    -0.1323883055638104,
    -0.006239722752474872,   0.07592423604427631,    -0.007588974368857738,   -0.03688839769173014,
    0.01029765964095597,     0.013993768859828731,   -0.006990014563413916,   -0.00364427962149839,
    0.003128023381206269,    0.00040789698084971285, -0.0009410217493595676,  0.00011424152003872239,
    0.00017478724522533817,  -6.103596621410936e-05, -1.3945668988208893e-05, 1.1336608661276258e-05,
    -1.0435713423116066e-06, -7.363656785451205e-07, 2.3087840868575457e-07,  -2.109339630100743e-08};
// 4: Daubechies, 2 vanishing moments, 4 taps
const double kScaling4[] = {0.48296291314453416, 0.8365163037378079, 0.2241438680420134,
                            -0.12940952255126037};
// 5: least asymmetric, 4 vanishing moments, 8 taps
const double kScaling5[] = {0.0322231006040427,   -0.012603967262037833, -0.09921954357684722,
                            0.29785779560527736,  0.8037387518059161,    0.49761866763201545,
                            -0.02963552764599851, -0.07576571478927333};
// 6: least asymmetric, 8 vanishing moments, 16 taps
const double kScaling6[] = {
    0.0018899503327594609, -0.0003029205147213668, -0.01495225833704823,   0.003808752013890615,
    0.049137179673607506,  -0.027219029917056003,  -0.05194583810770904,   0.3644418948353314,
    0.7771857517005235,    0.4813596512583722,     -0.061273359067658524,  -0.1432942383508097,
    0.007607487324917605,  0.03169508781149298,    -0.0005421323317911481, -0.0033824159510061256};
// 7: least asymmetric, 16 vanishing moments, 32 taps
const double kScaling7[] = {
    -1.0797982104319795e-05, -5.396483179315242e-06,  0.00016545679579108483, 3.656592483348223e-05,
    -0.0013387206066921965,  -0.00022211647621176323, 0.0069377611308027096,  0.001359844742484172,
    -0.024952758046290123,   -0.003510275068374009,   0.07803785290341991,    0.03072113906330156,
    -0.15959219218520598,    -0.054040601387606135,   0.47534280601152273,    0.7565249878756971,
    0.39712293362064416,     -0.034574228416972504,   -0.06698304907021778,   0.032333091610663785,
    0.004869274404904607,    -0.031051202843553064,   -0.0031265171722710075, 0.012666731659857348,
    0.0007182119788317892,   -0.0038809122526038786,  -0.0001084456223089688, 0.0008523547108047095,
    2.8078582128442894e-05,  -0.00010943147929529757, -3.113556407621969e-06, 6.230006701220761e-06};

struct TTable {
  const double* Values;
  int Length;
};
template <std::size_t N>
constexpr TTable Table(const double (&v)[N]) {
  return {v, static_cast<int>(N)};
}
const TTable kTables[kNumberOfWaveletKinds] = {Table(kScaling0), Table(kScaling1), Table(kScaling2),
                                               Table(kScaling3), Table(kScaling4), Table(kScaling5),
                                               Table(kScaling6), Table(kScaling7)};

// Two doubles at a time in the portable vector extension of GCC and clang: the
// filter loops below are written as sums of shifted rows so that every output
// is independent and two of them go in one step.
using TV2 = double __attribute__((vector_size(16)));
inline TV2 Load2(const double* p) {
  TV2 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void Store2(double* p, TV2 v) {
  std::memcpy(p, &v, sizeof v);
}

// u[k] = sum_t u0[t] a[k + t] + u1[t] b[k + t] and v[k] likewise with v0, v1,
// for k < count and t < taps: two filters over two rows. Four outputs of each
// filter at a time stay in registers over all taps.
void FilterRows(double* u, double* v, const double* a, const double* b, const double* u0, const double* u1,
                const double* v0, const double* v1, int taps, int count) {
  int k = 0;
  for (; k + 4 <= count; k += 4) {
    TV2 su0 = {0, 0}, su1 = {0, 0}, sv0 = {0, 0}, sv1 = {0, 0};
    for (int t = 0; t < taps; ++t) {
      const TV2 x0 = Load2(a + k + t), x1 = Load2(a + k + t + 2);
      const TV2 y0 = Load2(b + k + t), y1 = Load2(b + k + t + 2);
      const TV2 cu0 = {u0[t], u0[t]}, cu1 = {u1[t], u1[t]}, cv0 = {v0[t], v0[t]}, cv1 = {v1[t], v1[t]};
      su0 += cu0 * x0 + cu1 * y0;
      su1 += cu0 * x1 + cu1 * y1;
      sv0 += cv0 * x0 + cv1 * y0;
      sv1 += cv0 * x1 + cv1 * y1;
    }
    Store2(u + k, su0);
    Store2(u + k + 2, su1);
    Store2(v + k, sv0);
    Store2(v + k + 2, sv1);
  }
  for (; k < count; ++k) {
    double su = 0, sv = 0;
    for (int t = 0; t < taps; ++t) {
      su += u0[t] * a[k + t] + u1[t] * b[k + t];
      sv += v0[t] * a[k + t] + v1[t] * b[k + t];
    }
    u[k] = su;
    v[k] = sv;
  }
}

} // namespace

// ---------------------------------------------------------------------------------------------
// TWaveletArray

TWaveletArray::TWaveletArray(int size) {
  if (size < 0) throw OrvexException("TWaveletArray::TWaveletArray: negative size " + std::to_string(size));
  FValues.assign(static_cast<std::size_t>(size), 0.0f);
}

void TWaveletArray::CopyValuesFrom(const TWaveletArray& other) {
  if (other.Size() != Size())
    throw OrvexException("TWaveletArray::CopyValuesFrom: size " + std::to_string(other.Size()) +
                         " differs from " + std::to_string(Size()));
  FValues = other.FValues;
}

std::unique_ptr<TWaveletArray> TWaveletArray::Clone() const {
  auto copy = std::make_unique<TWaveletArray>(Size());
  copy->CopyValuesFrom(*this);
  return copy;
}

// ---------------------------------------------------------------------------------------------
// TWaveletBufferInfo

TWaveletBufferInfo::TWaveletBufferInfo(int dataSize, const std::vector<int>& detailSizes)
    : FDataSize(dataSize), FApproximation(detailSizes.empty() ? 0 : detailSizes.back()),
      FApproximationWeights(detailSizes.empty() ? 0 : detailSizes.back()) {
  if (dataSize < 1 || detailSizes.empty())
    throw OrvexException("TWaveletBufferInfo::TWaveletBufferInfo: no data or no iteration");
  int largest = dataSize;
  for (int size : detailSizes) {
    FDetails.emplace_back(size);
    FDetailWeights.emplace_back(size);
    largest = std::max(largest, size);
  }
  SetAllValuesTo(1.0f, wbfAll);
  // The extended signal holds the largest array plus the filter's reach on both
  // sides; 64 covers 32 taps.
  const std::size_t work = static_cast<std::size_t>(largest) + 64;
  FSignal.resize(work);
  FNext.resize(work);
  FExtended.resize(work);
  FWork.resize(work);
  FEven.resize(work / 2 + 1);
  FOdd.resize(work / 2 + 1);
}

void TWaveletBufferInfo::SetAllValuesOfIterationTo(int iteration, float value, int flags) {
  if (iteration < 0 || iteration >= NumberOfIterations())
    throw OrvexException("TWaveletBufferInfo::SetAllValuesOfIterationTo: iteration " +
                         std::to_string(iteration) + " is not in 0.." +
                         std::to_string(NumberOfIterations() - 1));
  if (flags & wbfDetails) {
    TWaveletArray& w = FDetailWeights[iteration];
    std::fill(w.Values(), w.Values() + w.Size(), value);
  }
  if ((flags & wbfApproximation) && iteration == NumberOfIterations() - 1)
    std::fill(FApproximationWeights.Values(), FApproximationWeights.Values() + FApproximationWeights.Size(),
              value);
}

void TWaveletBufferInfo::SetAllValuesTo(float value, int flags) {
  for (int i = 0; i < NumberOfIterations(); ++i) SetAllValuesOfIterationTo(i, value, flags);
}

bool TWaveletBufferInfo::SettingsAreEqualTo(const TWaveletBufferInfo& other) const {
  if (FDataSize != other.FDataSize || NumberOfIterations() != other.NumberOfIterations()) return false;
  auto same = [](const TWaveletArray& a, const TWaveletArray& b) {
    return a.Size() == b.Size() && std::equal(a.Values(), a.Values() + a.Size(), b.Values());
  };
  for (int i = 0; i < NumberOfIterations(); ++i)
    if (!same(FDetailWeights[i], other.FDetailWeights[i])) return false;
  return same(FApproximationWeights, other.FApproximationWeights);
}

std::unique_ptr<TWaveletBufferInfo> TWaveletBufferInfo::Clone() const {
  return std::make_unique<TWaveletBufferInfo>(*this);
}

// ---------------------------------------------------------------------------------------------
// TWaveletTransformation

void TWaveletTransformation::SetWaveletKind(TWaveletKind kind) {
  const int k = static_cast<int>(kind);
  if (k < 0 || k >= kNumberOfWaveletKinds)
    throw OrvexException("TWaveletTransformation::SetWaveletKind: unknown kind " + std::to_string(k));
  FKind = kind;
  FArraysCalculated = false;
}

void TWaveletTransformation::SetInvertWaveletFilter(bool invert) {
  FInvert = invert;
  FArraysCalculated = false;
}

void TWaveletTransformation::SetNumberOfDataValues(int count) {
  FDataSize = count;
  FArraysCalculated = false;
}

void TWaveletTransformation::SetNumberOfIterations(int count) {
  FIterations = count;
  FArraysCalculated = false;
}

void TWaveletTransformation::SetWaveletBoundaryPolicy(TWaveletBoundaryPolicy policy) {
  const int p = static_cast<int>(policy);
  if (p < 0 || p > 2)
    throw OrvexException("TWaveletTransformation::SetWaveletBoundaryPolicy: unknown policy " +
                         std::to_string(p));
  FPolicy = policy;
  FArraysCalculated = false;
}

std::vector<double> TWaveletTransformation::CalculateWaveletFilter(TWaveletKind kind) {
  const int k = static_cast<int>(kind);
  if (k < 0 || k >= kNumberOfWaveletKinds)
    throw OrvexException("TWaveletTransformation::CalculateWaveletFilter: unknown kind " + std::to_string(k));
  return std::vector<double>(kTables[k].Values, kTables[k].Values + kTables[k].Length);
}

int TWaveletTransformation::GetDataSizeForMirrorPadding(int size, int filterLength) {
  return (size + filterLength - 1) / 2;
}

int TWaveletTransformation::CalculateMaxIterations() const {
  const int length = kTables[static_cast<int>(FKind)].Length;
  int iterations = 0;
  for (int size = FDataSize; size >= length; size = GetDataSizeForMirrorPadding(size, length)) ++iterations;
  if (iterations == 0)
    throw OrvexExceptionWavelet(
        "TWaveletTransformation::CalculateMaxIterations: " + std::to_string(FDataSize) +
        " data values are too few for a wavelet of " + std::to_string(length) + " taps");
  return iterations;
}

void TWaveletTransformation::CalculateArrays() {
  FArraysCalculated = false;
  const int maxIterations = CalculateMaxIterations();
  const int iterations = FIterations <= 0 ? maxIterations : FIterations;
  if (iterations > maxIterations)
    throw OrvexException("TWaveletTransformation::CalculateArrays: " + std::to_string(iterations) +
                         " iterations asked, " + std::to_string(maxIterations) + " fit");
  FLowPass = CalculateWaveletFilter(FKind);
  if (FInvert) std::reverse(FLowPass.begin(), FLowPass.end());
  const int length = FilterLength();
  FHighPass.resize(length);
  for (int k = 0; k < length; ++k) FHighPass[k] = (k % 2 == 0 ? 1.0 : -1.0) * FLowPass[length - 1 - k];
  // Taps by phase: analysis low and high pass at even and odd taps; synthesis
  // of even and odd outputs, low and high pass, taps running backwards.
  for (std::vector<double>& phase : FPhaseTaps) phase.resize(length / 2);
  for (int t = 0; t < length / 2; ++t) {
    FPhaseTaps[0][t] = FLowPass[2 * t];
    FPhaseTaps[1][t] = FLowPass[2 * t + 1];
    FPhaseTaps[2][t] = FHighPass[2 * t];
    FPhaseTaps[3][t] = FHighPass[2 * t + 1];
    FPhaseTaps[4][t] = FLowPass[length - 2 - 2 * t];
    FPhaseTaps[5][t] = FHighPass[length - 2 - 2 * t];
    FPhaseTaps[6][t] = FLowPass[length - 1 - 2 * t];
    FPhaseTaps[7][t] = FHighPass[length - 1 - 2 * t];
  }
  FSizes.assign(1, FDataSize);
  for (int i = 0; i < iterations; ++i) FSizes.push_back(GetDataSizeForMirrorPadding(FSizes.back(), length));
  FArraysCalculated = true;
}

std::unique_ptr<TWaveletBufferInfo> TWaveletTransformation::CreateBufferInfo() const {
  if (!FArraysCalculated)
    throw OrvexException("TWaveletTransformation::CreateBufferInfo: "
                         "CalculateArrays has not run since the "
                         "last change");
  return std::make_unique<TWaveletBufferInfo>(FDataSize, std::vector<int>(FSizes.begin() + 1, FSizes.end()));
}

void TWaveletTransformation::CheckBufferInfo(const TWaveletBufferInfo* info, const char* operation) const {
  const std::string where = std::string("TWaveletTransformation::") + operation + ": ";
  if (!FArraysCalculated) throw OrvexException(where + "CalculateArrays has not run since the last change");
  if (info == nullptr) throw OrvexException(where + "no buffer info");
  bool fits = info->DataSize() == FDataSize && info->NumberOfIterations() == NumberOfIterations() &&
              info->FSignal.size() >= static_cast<std::size_t>(FDataSize) + 2 * FilterLength();
  for (int i = 0; fits && i < NumberOfIterations(); ++i)
    fits = info->FDetails[i].Size() == FSizes[i + 1] && info->FDetailWeights[i].Size() == FSizes[i + 1];
  if (!fits) throw OrvexException(where + "the buffer info was made for another layout");
}

// extended[t] = x[t - (L - 1)] for t in 0 .. size + 2 (L - 1) - 1, x continued
// by the boundary policy.
void TWaveletTransformation::Extend(const double* x, int size, double* extended) const {
  const int reach = FilterLength() - 1;
  std::copy(x, x + size, extended + reach);
  for (int side = 0; side < 2; ++side)
    for (int r = 0; r < reach; ++r) {
      const int i = side == 0 ? -1 - r : size + r; // index into x
      double v = 0;
      switch (FPolicy) {
      case TWaveletBoundaryPolicy::Periodic:
        v = x[((i % size) + size) % size];
        break;
      case TWaveletBoundaryPolicy::Mirror: {
        int u = i % (2 * size);
        if (u < 0) u += 2 * size;
        v = x[u < size ? u : 2 * size - 1 - u];
        break;
      }
      case TWaveletBoundaryPolicy::Zero:
        v = 0;
        break;
      }
      extended[i + reach] = v;
    }
}

void TWaveletTransformation::CalculateWT(const float* data, TWaveletBufferInfo* info) const {
  CheckBufferInfo(info, "CalculateWT");
  const int length = FilterLength();
  const int half = length / 2;
  const double* taps[4] = {FPhaseTaps[0].data(), FPhaseTaps[1].data(), FPhaseTaps[2].data(),
                           FPhaseTaps[3].data()};
  double* signal = info->FSignal.data();
  double* next = info->FNext.data();
  double* extended = info->FExtended.data();
  double* even = info->FEven.data();
  double* odd = info->FOdd.data();
  double* work = info->FWork.data();
  std::copy(data, data + FDataSize, signal);
  for (int it = 0; it < NumberOfIterations(); ++it) {
    Extend(signal, FSizes[it], extended);
    const int count = FSizes[it + 1];
    float* details = info->FDetails[it].Values();
    // c[k] = sum_j h[j] e[2k + 1 + j] taken apart by the parity of the tap: the
    // odd and even samples of the extended signal, each read contiguously.
    const int extendedSize = FSizes[it] + 2 * (length - 1);
    for (int m = 0; 2 * m < extendedSize; ++m) {
      even[m] = extended[2 * m];
      if (2 * m + 1 < extendedSize) odd[m] = extended[2 * m + 1];
    }
    FilterRows(next, work, odd, even + 1, taps[0], taps[1], taps[2], taps[3], half, count);
    for (int k = 0; k < count; ++k) details[k] = static_cast<float>(work[k]);
    std::swap(signal, next);
  }
  const int last = FSizes.back();
  float* approximation = info->FApproximation.Values();
  for (int k = 0; k < last; ++k) approximation[k] = static_cast<float>(signal[k]);
}

// x[n] = sum_i a[i] h[L - 2 - 2i + n] + d[i] g[L - 2 - 2i + n]: the transposed
// analysis, which inverts it because the filters are orthonormal under shifts
// by two. Output n takes i = n/2 .. (n + L - 2)/2.
void TWaveletTransformation::CalculateReverseWT(float* data, TWaveletBufferInfo* info) const {
  CheckBufferInfo(info, "CalculateReverseWT");
  const int length = FilterLength();
  const int half = length / 2;
  const double* taps[8];
  for (int i = 0; i < 8; ++i) taps[i] = FPhaseTaps[i].data();
  double* signal = info->FSignal.data();
  double* next = info->FNext.data();
  double* details = info->FExtended.data();
  double* even = info->FEven.data();
  double* odd = info->FOdd.data();
  const int last = FSizes.back();
  for (int k = 0; k < last; ++k)
    signal[k] = static_cast<double>(info->FApproximation[k]) * info->FApproximationWeights[k];
  for (int it = NumberOfIterations() - 1; it >= 0; --it) {
    const int count = FSizes[it + 1];
    const float* d = info->FDetails[it].Values();
    const float* w = info->FDetailWeights[it].Values();
    for (int k = 0; k < count; ++k) details[k] = static_cast<double>(d[k]) * w[k];
    const int outSize = FSizes[it];
    // Outputs 2p and 2p + 1 take the same coefficients p .. p + L/2 - 1, with
    // the even and the odd taps.
    const int pairs = (outSize + 1) / 2;
    FilterRows(even, odd, signal, details, taps[4], taps[5], taps[6], taps[7], half, pairs);
    for (int p = 0; p < pairs; ++p) {
      next[2 * p] = even[p];
      if (2 * p + 1 < outSize) next[2 * p + 1] = odd[p];
    }
    std::swap(signal, next);
  }
  for (int n = 0; n < FDataSize; ++n) data[n] = static_cast<float>(signal[n]);
}

void TWaveletTransformation::CalculateWeightInWaveletBufferInfo(TWaveletBufferInfo* info,
                                                                double threshold) const {
  CheckBufferInfo(info, "CalculateWeightInWaveletBufferInfo");
  for (int it = 0; it < NumberOfIterations(); ++it) {
    const TWaveletArray& d = info->FDetails[it];
    TWaveletArray& w = info->FDetailWeights[it];
    for (int k = 0; k < d.Size(); ++k) w[k] = std::fabs(static_cast<double>(d[k])) < threshold ? 0.0f : 1.0f;
  }
  info->SetAllValuesOfIterationTo(NumberOfIterations() - 1, 1.0f, wbfApproximation);
}

// ---------------------------------------------------------------------------------------------
// TWaveletNoiseFilter

TWaveletNoiseFilter::TWaveletNoiseFilter(int length, TWaveletKind kind, double noiseFactor)
    : FNoiseFactor(noiseFactor) {
  if (!(noiseFactor >= 0) || !std::isfinite(noiseFactor))
    throw OrvexException("TWaveletNoiseFilter::TWaveletNoiseFilter: noise factor " +
                         std::to_string(noiseFactor) + " is not a finite value of at least 0");
  FTransformation.SetWaveletKind(kind);
  FTransformation.SetWaveletBoundaryPolicy(TWaveletBoundaryPolicy::Mirror);
  FTransformation.SetNumberOfDataValues(length);
  FTransformation.SetNumberOfIterations(0);
  FTransformation.CalculateArrays();
  FInfo = FTransformation.CreateBufferInfo();
  FMagnitudes.resize(static_cast<std::size_t>(FInfo->Details(0).Size()));
}

TWaveletNoiseFilter::TWaveletNoiseFilter(const TWaveletNoiseFilter& other)
    : FTransformation(other.FTransformation), FInfo(FTransformation.CreateBufferInfo()),
      FMagnitudes(other.FMagnitudes.size()), FNoiseFactor(other.FNoiseFactor) {}

std::unique_ptr<TWaveletNoiseFilter> TWaveletNoiseFilter::Clone() const {
  return std::unique_ptr<TWaveletNoiseFilter>(new TWaveletNoiseFilter(*this));
}

void TWaveletNoiseFilter::DoFilter(const float* in, float* out) {
  const int n = Length();
  if (FNoiseFactor == 0) {
    if (in != out) std::copy(in, in + n, out);
    FLastNoiseLevel = 0;
    return;
  }
  FTransformation.CalculateWT(in, FInfo.get());
  // Noise level from the finest details, where a smooth signal leaves almost
  // nothing: the median of their magnitudes over the median of |N(0, 1)|.
  const TWaveletArray& finest = FInfo->Details(0);
  const int count = finest.Size();
  // A NaN counts as the largest magnitude, so that the selection below keeps a
  // strict ordering.
  for (int k = 0; k < count; ++k)
    FMagnitudes[k] = std::isnan(finest[k]) ? std::numeric_limits<float>::infinity() : std::fabs(finest[k]);
  const int mid = count / 2;
  std::nth_element(FMagnitudes.begin(), FMagnitudes.begin() + mid, FMagnitudes.begin() + count);
  double median = FMagnitudes[mid];
  if (count % 2 == 0)
    median = 0.5 * (median + *std::max_element(FMagnitudes.begin(), FMagnitudes.begin() + mid));
  FLastNoiseLevel = median / 0.6745;
  const double threshold = FNoiseFactor * FLastNoiseLevel * std::sqrt(2.0 * std::log(static_cast<double>(n)));
  FTransformation.CalculateWeightInWaveletBufferInfo(FInfo.get(), threshold);
  FTransformation.CalculateReverseWT(out, FInfo.get());
}
