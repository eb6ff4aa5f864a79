#include "common/numerics/Rollingcircle.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

TRollingCircleSubtraction::TRollingCircleSubtraction(int n, int radius, double noiseLevel, double fillLevel,
                                                     bool keepBorderPeaks)
    : FLength(n), FRadius(radius),
      FFillLevel(std::clamp(std::isfinite(fillLevel) ? fillLevel : 0.0, 0.0, 1.0)),
      FKeepBorderPeaks(keepBorderPeaks) {
  if (n < 1 || radius < 1)
    throw OrvexException("TRollingCircleSubtraction::TRollingCircleSubtraction: length " + std::to_string(n) +
                         " and radius " + std::to_string(radius) + " must be at least 1");
  if (!(noiseLevel >= 0) || !std::isfinite(noiseLevel))
    throw OrvexException("TRollingCircleSubtraction::TRollingCircleSubtraction: noise level must be finite "
                         "and at least 0");
  if (noiseLevel > 0)
    FNoiseFilter = std::make_unique<TWaveletNoiseFilter>(n, TWaveletKind::Symlet8Taps, noiseLevel);
  FCircle.resize(2 * radius + 1);
  for (int i = -radius; i <= radius; ++i)
    FCircle[i + radius] = std::sqrt(double(radius) * radius - double(i) * i);
  FSmoothed.resize(n);
  FSorted.resize(n);
  FNormal.resize(n);
  FOffset.resize(n);
}

void TRollingCircleSubtraction::Normalize(const float* values) {
  const int n = FLength;
  std::copy(values, values + n, FSorted.begin());
  std::sort(FSorted.begin(), FSorted.end());
  int upper = static_cast<int>(0.95 * (n - 1));
  if (upper == 0) upper = n - 1;
  FMinimum = FSorted[0];
  const double range = double(FSorted[upper]) - FMinimum;
  FScale = range < 1e-31 ? 1.0 : n / range;
  for (int i = 0; i < n; ++i) FNormal[i] = (values[i] - FMinimum) * FScale;
}

void TRollingCircleSubtraction::ResetOffsetArray() {
  std::fill(FOffset.begin(), FOffset.end(), -std::numeric_limits<double>::infinity());
}

void TRollingCircleSubtraction::UpdateOffsetArray(int position) {
  const int n = FLength, r = FRadius;
  const int first = std::max(0, position - r), last = std::min(n - 1, position + r);
  if (first > last) return;
  double centre;
  if (position < 0)
    centre = FNormal[0] + r;
  else if (position >= n)
    centre = FNormal[n - 1] + r;
  else
    centre = FNormal[position] - r;
  // Shift by the largest penetration (or the smallest gap), so that the circle just touches the curve.
  double shift = std::numeric_limits<double>::infinity();
  for (int i = first; i <= last; ++i)
    shift = std::min(shift, FNormal[i] - (centre + FCircle[i - position + r]));
  centre += shift;
  for (int i = first; i <= last; ++i) FOffset[i] = std::max(FOffset[i], centre + FCircle[i - position + r]);
}

void TRollingCircleSubtraction::UpdateOffsetArraySegment(int first, int last) {
  const int step = first <= last ? 1 : -1;
  for (int p = first;; p += step) {
    UpdateOffsetArray(p);
    if (p == last) break;
  }
}

void TRollingCircleSubtraction::Calculate(const float* in, float* result, float* background) {
  const int n = FLength;
  if (FNoiseFilter)
    FNoiseFilter->DoFilter(in, FSmoothed.data());
  else
    std::copy(in, in + n, FSmoothed.begin());
  Normalize(FSmoothed.data());
  ResetOffsetArray();
  const int reach = FKeepBorderPeaks ? 0 : FRadius;
  UpdateOffsetArraySegment(-reach, n - 1 + reach);
  UpdateOffsetArraySegment(n - 1 + reach, -reach);
  for (int i = 0; i < n; ++i) {
    const double offset = FOffset[i] + FFillLevel * (FNormal[i] - FOffset[i]);
    const double back = FSmoothed[i] - (FNormal[i] - offset) / FScale;
    if (background != nullptr) background[i] = static_cast<float>(back);
    result[i] = static_cast<float>(in[i] - back);
  }
}
