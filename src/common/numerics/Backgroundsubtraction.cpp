#include "common/numerics/Backgroundsubtraction.h"

#include "common/OrvexException.h"
#include "common/numerics/Linalg.h"
#include "common/numerics/Numerics.h"
#include "common/numerics/Rollingcircle.h"
#include "common/numerics/Splines.h"
#include "common/numerics/Wavelets.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

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

  FBasis.assign(static_cast<size_t>(m) * length, 0.0);
  FMaskedBasis.assign(static_cast<size_t>(m) * length, 0.0);
  for (int i = 0; i < length; ++i) {
    const long double t = MappedIndex(i, length);
    long double p = 1.0L;
    for (int j = 0; j < m; ++j) {
      FBasis[static_cast<size_t>(j) * length + i] = static_cast<double>(p);
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

void TPolynomialBackgroundFit::Fit(const float* values, float* out, long double* coefficients,
                                   double* work) const {
  if (!FPrepared) throw OrvexException("TPolynomialBackgroundFit::Fit: the fit is not prepared");
  const int m = FOrder + 1, n = FLength;
  // The right-hand side over the masked basis (zero outside the fit mask); a point with a zero basis value
  // adds nothing, so a NaN outside the fit mask stays out of the fit. The sums of at most a few thousand
  // products of magnitude up to |y| stay far inside double precision.
  for (int j = 0; j < m; ++j) {
    const double* basis = FMaskedBasis.data() + static_cast<size_t>(j) * n;
    double r = 0.0;
    for (int i = 0; i < n; ++i) r += basis[i] != 0.0 ? basis[i] * values[i] : 0.0;
    coefficients[j] = r;
  }
  lubksb(FMatrix.data(), m, FIndex.data(), coefficients);
  const double c0 = static_cast<double>(coefficients[0]);
  for (int i = 0; i < n; ++i) work[i] = c0;
  for (int j = 1; j < m; ++j) {
    const double c = static_cast<double>(coefficients[j]);
    const double* basis = FBasis.data() + static_cast<size_t>(j) * n;
    for (int i = 0; i < n; ++i) work[i] += c * basis[i];
  }
  for (int i = 0; i < n; ++i) out[i] = static_cast<float>(work[i]);
}

// ---------------------------------------------------------------------------------------------
// Scratch

TBackgroundScratch::TBackgroundScratch(int length) : FLength(length) {
  if (length < 1)
    throw OrvexException("TBackgroundScratch::TBackgroundScratch: length " + std::to_string(length) +
                         " is below 1");
  for (auto* v : {&Work, &Fit, &PreviousFit, &Noise, &Mean}) v->assign(length, 0.0f);
  DoubleWork.assign(length, 0.0);
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
  for (int i = 0; i < length; ++i) result[i] = changeMask[i] ? y[i] - background[i] : 0.0f;
}

bool FitMaskValuesAreFinite(int length, const float* y, const bool* fitMask) {
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
  for (int i = 0; i < length; ++i)
    background[i] = static_cast<float>(constant + (reference ? static_cast<double>(reference[i]) : 0.0));
  ApplyBackground(length, y, changeMask, background, result);
  return TBackgroundStatus::Done;
}

TBackgroundStatus MinimumBackground(int length, const float* y, const bool* fitMask, const bool* changeMask,
                                    double offset, float* background, float* result) {
  if (!FitMaskValuesAreFinite(length, y, fitMask)) {
    FillNaN(length, background, result);
    return TBackgroundStatus::NotFinite;
  }
  bool any = false;
  float minimum = 0.0f;
  for (int i = 0; i < length; ++i) {
    if (!fitMask[i]) continue;
    if (!any || y[i] < minimum) minimum = y[i];
    any = true;
  }
  const float b = any ? static_cast<float>(minimum + offset) : 0.0f;
  std::fill(background, background + length, b);
  ApplyBackground(length, y, changeMask, background, result);
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
  fit.Fit(y, background, scratch.Coefficients.data(), scratch.DoubleWork.data());
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
    fit.Fit(w, p, scratch.Coefficients.data(), scratch.DoubleWork.data());
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
