#include "common/numerics/Backgroundsubtraction.h"

#include "common/OrvexException.h"
#include "common/numerics/Linalg.h"
#include "common/numerics/Numerics.h"
#include "common/numerics/Rollingcircle.h"
#include "common/numerics/Splines.h"
#include "common/numerics/Wavelets.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// The pixel index mapped to [-1, 1]; a single pixel sits at 0.
long double MappedIndex(int i, int length) {
  if (length < 2) return 0.0L;
  return -1.0L + 2.0L * static_cast<long double>(i) / static_cast<long double>(length - 1);
}

void FillNaN(int length, float* background, float* result) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  std::fill(background, background + length, nan);
  std::fill(result, result + length, nan);
}

void CheckScratch(const TBackgroundScratch& scratch, int length, const char* operation) {
  if (scratch.Length() != length)
    throw OrvexException(std::string(operation) + ": scratch made for " + std::to_string(scratch.Length()) +
                         " pixels, spectrum has " + std::to_string(length));
}

// Copies in to out with every run of points where keep(i) is false replaced by the straight line between
// the kept points around it, or by the nearest kept value at an end; out = 0 when no point is kept.
template <typename TKeep>
void BridgeGaps(const float* in, float* out, int n, TKeep keep) {
  int previous = -1; // last kept point
  for (int i = 0; i <= n; ++i) {
    if (i < n && !keep(i)) continue;
    // Points previous + 1 .. i - 1 are a gap between kept points previous and i (either may be missing).
    const float left = previous >= 0 ? in[previous] : (i < n ? in[i] : 0.0f);
    const float right = i < n ? in[i] : left;
    for (int k = previous + 1; k < i; ++k) {
      if (previous < 0 || i >= n)
        out[k] = previous < 0 ? right : left;
      else
        out[k] =
            static_cast<float>(left + (static_cast<double>(right) - left) * (k - previous) / (i - previous));
    }
    if (i < n) out[i] = in[i];
    previous = i;
  }
}

// The per-spectrum loops of the fast methods run over thousands of points for every spectrum of a map,
// so they are written four floats (two doubles) at a time where the processor has vectors; the plain
// loops after them take the remaining points and are the whole code elsewhere.

#if defined(__SSE2__)
// Four mask flags as lanes of all ones (set) or all zeros (clear).
inline __m128 MaskLanes(const bool* mask) {
  int32_t bytes;
  std::memcpy(&bytes, mask, sizeof bytes);
  const __m128i zero = _mm_setzero_si128();
  __m128i lanes = _mm_unpacklo_epi8(_mm_cvtsi32_si128(bytes), zero);
  lanes = _mm_unpacklo_epi16(lanes, zero);
  return _mm_castsi128_ps(_mm_cmpgt_epi32(lanes, zero));
}

// Two floats widened to doubles.
inline __m128d LoadTwoAsDouble(const float* values) {
  return _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(values))));
}

// y - b inside the change mask, 0 outside, for four points; a non-finite y outside the mask gives 0 too.
inline void StoreBackgroundAndResult(const float* y, const bool* changeMask, __m128 b, float* background,
                                     float* result) {
  _mm_storeu_ps(background, b);
  _mm_storeu_ps(result, _mm_and_ps(_mm_sub_ps(_mm_loadu_ps(y), b), MaskLanes(changeMask)));
}
#endif

// rhs[j] = sum over i of basis row j times values, rows of n points; m rows in registers at once.
template <int M>
void MaskedBasisSumsOf(const double* basis, int n, const float* values, double* rhs) {
  int i = 0;
#if defined(__SSE2__)
  __m128d sums[M];
  for (int j = 0; j < M; ++j) sums[j] = _mm_setzero_pd();
  // The rows spelled out one by one (not a loop), so that the sums stay in registers.
  const auto addRows = [&]<size_t... J>(std::index_sequence<J...>, const __m128d v, int at) {
    ((sums[J] = _mm_add_pd(sums[J], _mm_mul_pd(_mm_loadu_pd(basis + J * static_cast<size_t>(n) + at), v))),
     ...);
  };
  for (; i + 2 <= n; i += 2) addRows(std::make_index_sequence<M>(), LoadTwoAsDouble(values + i), i);
  for (int j = 0; j < M; ++j) {
    double lanes[2];
    _mm_storeu_pd(lanes, sums[j]);
    rhs[j] = lanes[0] + lanes[1];
  }
#else
  for (int j = 0; j < M; ++j) rhs[j] = 0.0;
#endif
  for (; i < n; ++i)
    for (int j = 0; j < M; ++j) rhs[j] += basis[static_cast<size_t>(j) * n + i] * values[i];
}

// The polynomial with coefficients c (m of them) at every mapped index t, by Horner's rule, into out.
template <int M>
void EvaluatePolynomialOf(const double* t, int n, const double* c, float* out) {
  int i = 0;
#if defined(__SSE2__)
  for (; i + 2 <= n; i += 2) {
    const __m128d x = _mm_loadu_pd(t + i);
    __m128d w = _mm_set1_pd(c[M - 1]);
    for (int j = M - 2; j >= 0; --j) w = _mm_add_pd(_mm_mul_pd(w, x), _mm_set1_pd(c[j]));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i), _mm_castps_si128(_mm_cvtpd_ps(w)));
  }
#endif
  for (; i < n; ++i) {
    double w = c[M - 1];
    for (int j = M - 2; j >= 0; --j) w = w * t[i] + c[j];
    out[i] = static_cast<float>(w);
  }
}

// The number of rows as a template argument keeps the sums in registers.
template <int M = 1>
void MaskedBasisSums(const double* basis, int n, int m, const float* values, double* rhs) {
  if constexpr (M <= TPolynomialBackgroundFit::kMaximumOrder + 1) {
    if (m == M) return MaskedBasisSumsOf<M>(basis, n, values, rhs);
    MaskedBasisSums<M + 1>(basis, n, m, values, rhs);
  }
}

template <int M = 1>
void EvaluatePolynomial(const double* t, int n, int m, const double* c, float* out) {
  if constexpr (M <= TPolynomialBackgroundFit::kMaximumOrder + 1) {
    if (m == M) return EvaluatePolynomialOf<M>(t, n, c, out);
    EvaluatePolynomial<M + 1>(t, n, m, c, out);
  }
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Polynomial fit

bool TPolynomialBackgroundFit::Prepare(int length, const bool* fitMask, int order) {
  FPrepared = false;
  FLength = length;
  FOrder = order;
  FFitCount = 0;
  if (length < 1 || order < 0 || order > kMaximumOrder || fitMask == nullptr) return false;
  FFitMask = std::make_unique<bool[]>(length);
  std::copy(fitMask, fitMask + length, FFitMask.get());
  FFitCount = static_cast<int>(std::count(fitMask, fitMask + length, true));
  const int m = order + 1;
  // Distinct pixels: order + 1 of them make the normal matrix regular, fewer make it singular, which
  // rounding may hide from the pivot test.
  if (FFitCount < m) return false;

  FMapped.assign(length, 0.0);
  FMaskedBasis.assign(static_cast<size_t>(m) * length, 0.0);
  for (int i = 0; i < length; ++i) {
    const long double t = MappedIndex(i, length);
    FMapped[i] = static_cast<double>(t);
    long double p = 1.0L;
    for (int j = 0; j < m; ++j) {
      FMaskedBasis[static_cast<size_t>(j) * length + i] = fitMask[i] ? static_cast<double>(p) : 0.0;
      p *= t;
    }
  }
  // N[a][b] = sum over the fit mask of t^(a+b): the power sums up to 2 order.
  std::vector<long double> sums(2 * order + 1, 0.0L);
  for (int i = 0; i < length; ++i) {
    if (!fitMask[i]) continue;
    const long double t = MappedIndex(i, length);
    long double p = 1.0L;
    for (int k = 0; k <= 2 * order; ++k) {
      sums[k] += p;
      p *= t;
    }
  }
  FMatrix.assign(static_cast<size_t>(m) * m, 0.0L);
  for (int a = 0; a < m; ++a)
    for (int b = 0; b < m; ++b) FMatrix[a * m + b] = sums[a + b];
  FIndex.assign(m, 0);
  long double d = 0;
  if (!ludcmp(FMatrix.data(), m, FIndex.data(), &d)) return false;
  if (!CheckLinearDependency(FMatrix.data(), m)) return false;
  FPrepared = true;
  return true;
}

void TPolynomialBackgroundFit::Fit(const float* values, float* out, long double* coefficients) const {
  if (!FPrepared) throw OrvexException("TPolynomialBackgroundFit::Fit: the fit is not prepared");
  const int m = FOrder + 1, n = FLength;
  // The right-hand side over the masked basis (zero outside the fit mask). When every value is finite the
  // products are summed without looking at the mask; otherwise a point with a zero basis value adds
  // nothing, so a NaN outside the fit mask stays out of the fit. The sums of at most a few thousand
  // products of magnitude up to |y| stay far inside double precision.
  double rhs[kMaximumOrder + 1];
  if (AllFinite(values, n)) {
    MaskedBasisSums(FMaskedBasis.data(), n, m, values, rhs);
  } else {
    for (int j = 0; j < m; ++j) {
      const double* basis = FMaskedBasis.data() + static_cast<size_t>(j) * n;
      double r = 0.0;
      for (int i = 0; i < n; ++i) r += basis[i] != 0.0 ? basis[i] * values[i] : 0.0;
      rhs[j] = r;
    }
  }
  for (int j = 0; j < m; ++j) coefficients[j] = rhs[j];
  lubksb(FMatrix.data(), m, FIndex.data(), coefficients);
  double c[kMaximumOrder + 1];
  for (int j = 0; j < m; ++j) c[j] = static_cast<double>(coefficients[j]);
  EvaluatePolynomial(FMapped.data(), n, m, c, out);
}

// ---------------------------------------------------------------------------------------------
// Scratch

TBackgroundScratch::TBackgroundScratch(int length) : FLength(length) {
  if (length < 1)
    throw OrvexException("TBackgroundScratch::TBackgroundScratch: length " + std::to_string(length) +
                         " is below 1");
  for (auto* v : {&Work, &Fit, &PreviousFit, &Noise, &Mean}) v->assign(length, 0.0f);
  PointX.reserve(length + 2);
  PointY.reserve(length + 2);
  Coefficients.assign(TPolynomialBackgroundFit::kMaximumOrder + 1, 0.0L);
}

TBackgroundScratch::~TBackgroundScratch() = default;

TRollingCircleSubtraction* TBackgroundScratch::ShapeCircle(const TShapeSettings& settings) {
  const bool same = FCircleSettings.ShapeSize == settings.ShapeSize &&
                    FCircleSettings.NoiseFactor == settings.NoiseFactor &&
                    FCircleSettings.KeepBorderPeaks == settings.KeepBorderPeaks;
  if (FCircleTried && same) return FCircle.get();
  FCircle.reset();
  FCircleSettings = settings;
  FCircleTried = false;
  try {
    FCircle = std::make_unique<TRollingCircleSubtraction>(FLength, settings.ShapeSize, settings.NoiseFactor,
                                                          0.01, settings.KeepBorderPeaks);
  } catch (const OrvexExceptionWavelet&) {
    FCircleTried = true; // too few points for the noise filter: refused until the settings change
    return nullptr;
  }
  FCircleTried = true;
  return FCircle.get();
}

bool TBackgroundScratch::NoiseSpectrum(const float* y, float* noise) {
  if (FLength < kMinimumAutoBackgroundLength) return false;
  if (!FWavelet) {
    auto wt = std::make_unique<TWaveletTransformation>();
    wt->SetWaveletKind(TWaveletKind::Symlet16Taps);
    wt->SetWaveletBoundaryPolicy(TWaveletBoundaryPolicy::Mirror);
    wt->SetNumberOfDataValues(FLength);
    wt->SetNumberOfIterations(1);
    wt->CalculateArrays();
    FWaveletInfo = wt->CreateBufferInfo();
    FWavelet = std::move(wt);
  }
  FWavelet->CalculateWT(y, FWaveletInfo.get());
  // Without the approximation the reconstruction is the finest details alone.
  FWaveletInfo->SetAllValuesTo(1.0f, wbfAll);
  FWaveletInfo->SetAllValuesOfIterationTo(0, 0.0f, wbfApproximation);
  FWavelet->CalculateReverseWT(noise, FWaveletInfo.get());
  return true;
}

// ---------------------------------------------------------------------------------------------
// Kernels

void ApplyBackground(int length, const float* y, const bool* changeMask, const float* background,
                     float* result) {
  int i = 0;
#if defined(__SSE2__)
  for (; i + 4 <= length; i += 4)
    _mm_storeu_ps(result + i, _mm_and_ps(_mm_sub_ps(_mm_loadu_ps(y + i), _mm_loadu_ps(background + i)),
                                         MaskLanes(changeMask + i)));
#endif
  for (; i < length; ++i) result[i] = changeMask[i] ? y[i] - background[i] : 0.0f;
}

bool FitMaskValuesAreFinite(int length, const float* y, const bool* fitMask) {
  if (AllFinite(y, length)) return true;
  for (int i = 0; i < length; ++i)
    if (fitMask[i] && !std::isfinite(y[i])) return false;
  return true;
}

TBackgroundStatus ConstantBackground(int length, const float* y, const bool* fitMask, const bool* changeMask,
                                     double constant, const float* reference, float* background,
                                     float* result) {
  if (!FitMaskValuesAreFinite(length, y, fitMask)) {
    FillNaN(length, background, result);
    return TBackgroundStatus::NotFinite;
  }
  int i = 0;
#if defined(__SSE2__)
  if (reference) {
    const __m128d c = _mm_set1_pd(constant);
    for (; i + 4 <= length; i += 4) {
      const __m128 low = _mm_cvtpd_ps(_mm_add_pd(c, LoadTwoAsDouble(reference + i)));
      const __m128 high = _mm_cvtpd_ps(_mm_add_pd(c, LoadTwoAsDouble(reference + i + 2)));
      StoreBackgroundAndResult(y + i, changeMask + i, _mm_movelh_ps(low, high), background + i, result + i);
    }
  } else {
    const __m128 b = _mm_set1_ps(static_cast<float>(constant));
    for (; i + 4 <= length; i += 4)
      StoreBackgroundAndResult(y + i, changeMask + i, b, background + i, result + i);
  }
#endif
  for (; i < length; ++i) {
    background[i] = static_cast<float>(constant + (reference ? static_cast<double>(reference[i]) : 0.0));
    result[i] = changeMask[i] ? y[i] - background[i] : 0.0f;
  }
  return TBackgroundStatus::Done;
}

TBackgroundStatus MinimumBackground(int length, const float* y, const bool* fitMask, const bool* changeMask,
                                    double offset, float* background, float* result) {
  if (!FitMaskValuesAreFinite(length, y, fitMask)) {
    FillNaN(length, background, result);
    return TBackgroundStatus::NotFinite;
  }
  // Points outside the fit mask count as +Inf; the fit-mask values are finite, so the minimum stays
  // infinite exactly when the fit mask is empty.
  constexpr float kNone = std::numeric_limits<float>::infinity();
  float minimum = kNone;
  int i = 0;
#if defined(__SSE2__)
  const __m128 none = _mm_set1_ps(kNone);
  __m128 lanes = none;
  for (; i + 4 <= length; i += 4) {
    const __m128 in = MaskLanes(fitMask + i);
    lanes = _mm_min_ps(lanes, _mm_or_ps(_mm_and_ps(in, _mm_loadu_ps(y + i)), _mm_andnot_ps(in, none)));
  }
  float four[4];
  _mm_storeu_ps(four, lanes);
  minimum = std::min(std::min(four[0], four[1]), std::min(four[2], four[3]));
#endif
  for (; i < length; ++i)
    if (fitMask[i] && y[i] < minimum) minimum = y[i];
  const float b = minimum != kNone ? static_cast<float>(minimum + offset) : 0.0f;
  i = 0;
#if defined(__SSE2__)
  for (; i + 4 <= length; i += 4)
    StoreBackgroundAndResult(y + i, changeMask + i, _mm_set1_ps(b), background + i, result + i);
#endif
  for (; i < length; ++i) {
    background[i] = b;
    result[i] = changeMask[i] ? y[i] - b : 0.0f;
  }
  return TBackgroundStatus::Done;
}

TBackgroundStatus PolynomialBackground(const TPolynomialBackgroundFit& fit, const float* y,
                                       const bool* changeMask, float* background, float* result,
                                       TBackgroundScratch& scratch) {
  if (!fit.IsPrepared()) return TBackgroundStatus::Refused;
  const int n = fit.Length();
  CheckScratch(scratch, n, "PolynomialBackground");
  if (!FitMaskValuesAreFinite(n, y, fit.FitMask())) {
    FillNaN(n, background, result);
    return TBackgroundStatus::NotFinite;
  }
  fit.Fit(y, background, scratch.Coefficients.data());
  ApplyBackground(n, y, changeMask, background, result);
  return TBackgroundStatus::Done;
}

TBackgroundStatus AutoPolynomialBackground(const TPolynomialBackgroundFit& fit, const float* y,
                                           const bool* changeMask, const TAutoPolynomialSettings& settings,
                                           float* background, float* result, TBackgroundScratch& scratch,
                                           int* rounds) {
  if (rounds) *rounds = 0;
  if (!fit.IsPrepared()) return TBackgroundStatus::Refused;
  const int n = fit.Length();
  CheckScratch(scratch, n, "AutoPolynomialBackground");
  if (n < kMinimumAutoBackgroundLength) return TBackgroundStatus::Refused;
  if (!FitMaskValuesAreFinite(n, y, fit.FitMask())) {
    FillNaN(n, background, result);
    return TBackgroundStatus::NotFinite;
  }
  float* noise = scratch.Noise.data();
  float* w = scratch.Work.data();
  float* p = scratch.Fit.data();
  float* previous = scratch.PreviousFit.data();
  scratch.NoiseSpectrum(y, noise);
  std::copy(y, y + n, w);
  double d = 0, previousD = 0;
  int r = 0;
  for (; r < std::max(1, settings.MaximumRounds); ++r) {
    fit.Fit(w, p, scratch.Coefficients.data());
    if (r > 0) {
      previousD = d;
      d = 0;
      for (int i = 0; i < n; ++i) {
        const double e = static_cast<double>(previous[i]) - p[i];
        d += e * e;
      }
    }
    std::copy(p, p + n, previous);
    // Points above the fit by more than the noise allows are cut to the fit, one round at a time.
    for (int i = 0; i < n; ++i)
      w[i] = y[i] <= p[i] + std::fabs(noise[i]) * settings.NoiseThreshold ? y[i] : p[i];
    if (r > 2 && (d < 1e-30 || (previousD - d) / d < settings.Tolerance)) {
      ++r;
      break;
    }
  }
  if (rounds) *rounds = r;
  std::copy(p, p + n, background);
  ApplyBackground(n, y, changeMask, background, result);
  return TBackgroundStatus::Done;
}

void LinearGraphInterpolation(const bool* ignore, const float* in, float* out, int n) {
  if (out == in) {
    const std::vector<float> copy(in, in + n);
    BridgeGaps(copy.data(), out, n, [&](int i) { return !ignore[i]; });
  } else {
    BridgeGaps(in, out, n, [&](int i) { return !ignore[i]; });
  }
}

TBackgroundStatus ShapeBackground(int length, const float* y, const bool* fitMask, const bool* changeMask,
                                  const TShapeSettings& settings, float* background, float* result,
                                  TBackgroundScratch& scratch) {
  CheckScratch(scratch, length, "ShapeBackground");
  if (!FitMaskValuesAreFinite(length, y, fitMask)) {
    FillNaN(length, background, result);
    return TBackgroundStatus::NotFinite;
  }
  if (std::none_of(fitMask, fitMask + length, [](bool b) { return b; })) {
    std::fill(background, background + length, 0.0f);
    ApplyBackground(length, y, changeMask, background, result);
    return TBackgroundStatus::Done;
  }
  TRollingCircleSubtraction* circle = scratch.ShapeCircle(settings);
  if (circle == nullptr) return TBackgroundStatus::Refused;
  // A value that is not finite outside the fit mask would spoil the circle's scale: the circle rolls over
  // the line bridging it instead.
  const float* rolledOver = y;
  if (!std::all_of(y, y + length, [](float v) { return std::isfinite(v); })) {
    BridgeGaps(y, scratch.Mean.data(), length, [&](int i) { return std::isfinite(y[i]); });
    rolledOver = scratch.Mean.data();
  }
  float* rolled = scratch.Fit.data();
  // The circle rolls over the whole spectrum; its background counts only at the fit-mask pixels, and the
  // gaps between them are closed by straight lines.
  circle->Calculate(rolledOver, scratch.Work.data(), rolled);
  BridgeGaps(rolled, background, length, [&](int i) { return fitMask[i]; });
  ApplyBackground(length, y, changeMask, background, result);
  return TBackgroundStatus::Done;
}

std::vector<float> AverageWeights(int size) {
  if (size < 0) throw OrvexException("AverageWeights: negative size " + std::to_string(size));
  std::vector<float> weights(2 * size + 1, 0.0f);
  BinomialValues(weights.data(), 2 * size, 0);
  return weights;
}

TBackgroundStatus AverageBackground(int length, const float* y, const bool* fitMask, const bool* changeMask,
                                    const float* weights, int size, float* background, float* result,
                                    TBackgroundScratch& scratch) {
  CheckScratch(scratch, length, "AverageBackground");
  if (!FitMaskValuesAreFinite(length, y, fitMask)) {
    FillNaN(length, background, result);
    return TBackgroundStatus::NotFinite;
  }
  std::vector<float>& px = scratch.PointX;
  std::vector<float>& py = scratch.PointY;
  px.clear();
  py.clear();
  px.push_back(0.0f);
  py.push_back(y[0]);
  for (int i = 0; i < length; ++i) {
    if (!fitMask[i]) continue;
    double sw = weights[size], sx = weights[size] * static_cast<double>(i), sy = weights[size] * double(y[i]);
    // Up to size further fit-mask pixels on each side, nearest first; their weights run outward.
    for (int k = 1, j = i - 1; k <= size && j >= 0; --j) {
      if (!fitMask[j]) continue;
      sw += weights[size - k];
      sx += weights[size - k] * static_cast<double>(j);
      sy += weights[size - k] * double(y[j]);
      ++k;
    }
    for (int k = 1, j = i + 1; k <= size && j < length; ++j) {
      if (!fitMask[j]) continue;
      sw += weights[size + k];
      sx += weights[size + k] * static_cast<double>(j);
      sy += weights[size + k] * double(y[j]);
      ++k;
    }
    px.push_back(static_cast<float>(sx / sw));
    py.push_back(static_cast<float>(sy / sw));
  }
  px.push_back(static_cast<float>(length - 1));
  py.push_back(y[length - 1]);
  const int count = static_cast<int>(px.size());
  for (int i = 0; i < length; ++i)
    splintL(px.data(), py.data(), count, static_cast<float>(i), &background[i]);
  ApplyBackground(length, y, changeMask, background, result);
  return TBackgroundStatus::Done;
}

TBackgroundStatus AutoAverageBackground(int length, const float* y, const bool* fitMask,
                                        const bool* changeMask, const TAutoAverageSettings& settings,
                                        float* background, float* result, TBackgroundScratch& scratch) {
  CheckScratch(scratch, length, "AutoAverageBackground");
  if (length < kMinimumAutoBackgroundLength) return TBackgroundStatus::Refused;
  if (!FitMaskValuesAreFinite(length, y, fitMask)) {
    FillNaN(length, background, result);
    return TBackgroundStatus::NotFinite;
  }
  const int v = std::max(0, settings.HalfWidth);
  float* noise = scratch.Noise.data();
  float* w = scratch.Work.data();
  float* next = scratch.Fit.data();
  float* a = scratch.Mean.data();
  scratch.NoiseSpectrum(y, noise);
  std::copy(y, y + length, w);
  const int iterations = std::max(1, settings.NumberOfIterations);
  const double scale = 1.0 / (2 * v + 1);
  // w continued by mirroring at both ends, so each box is a window of the extended array and its sum can
  // slide: add the pixel entering, drop the one leaving.
  std::vector<float>& extended = scratch.Extended;
  extended.resize(static_cast<size_t>(length) + 2 * v);
  for (int round = 0; round < iterations; ++round) {
    for (int k = -v; k < length + v; ++k)
      extended[k + v] = w[ConvertIndexToMirrorPeriodicInterval(k, length)];
    double sum = 0;
    for (int k = 0; k < 2 * v + 1; ++k) sum += extended[k];
    for (int i = 0; i < length; ++i) {
      if (i > 0) sum += static_cast<double>(extended[i + 2 * v]) - extended[i - 1];
      a[i] = static_cast<float>(sum * scale);
      next[i] = y[i] <= a[i] + std::fabs(noise[i]) * settings.NoiseThreshold ? y[i] : a[i];
    }
    std::copy(next, next + length, w);
  }
  std::copy(a, a + length, background);
  ApplyBackground(length, y, changeMask, background, result);
  return TBackgroundStatus::Done;
}
