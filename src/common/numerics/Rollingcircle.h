// Background of a spectrum by a circle rolled beneath it: broad structures stay in the background, peaks
// narrower than the circle go to the result.
#pragma once

#include "common/numerics/Wavelets.h"

#include <memory>
#include <vector>

/// One object per spectrum length and per thread (it keeps its work space).
/// The values are first smoothed by a wavelet noise filter (a noise level of 0 leaves them) and scaled by
/// Normalize so that the circle of the given radius (in channels) sees the same proportions for any
/// intensity scale. The circle then rolls over every position, left to right and back; each channel's
/// background is the highest point of all circles below it.
class TRollingCircleSubtraction {
public:
  /// n channels (at least 1), radius at least 1, noise level at least 0; fillLevel is clamped to 0..1 and
  /// lifts the rolled background towards the smoothed data by that share of the remaining gap.
  /// keepBorderPeaks keeps the circle centre inside the array, so that a peak at an end stays in the result;
  /// otherwise the centre also runs radius channels beyond both ends and such peaks join the background.
  /// Raises OrvexException for bad arguments (and OrvexExceptionWavelet when n is too short for the filter).
  TRollingCircleSubtraction(int n, int radius, double noiseLevel, double fillLevel, bool keepBorderPeaks);

  /// result = in - background; background may be null.
  void Calculate(const float* in, float* result, float* background = nullptr);

  /// Scales values into the normal array: the smallest value goes to 0 and the value at 95 % of the sorted
  /// values (the last one when that index is 0) to n; a range below 1e-31 keeps the scale 1.
  void Normalize(const float* values);
  /// Places the circle centre at position (which may lie outside the array), lowers or raises it until it
  /// touches the normal curve, and lifts the offset of every channel under the circle to its height.
  void UpdateOffsetArray(int position);
  /// UpdateOffsetArray for the positions first..last, in that order (first may exceed last).
  void UpdateOffsetArraySegment(int first, int last);
  /// Restarts the offsets below every value.
  void ResetOffsetArray();

  int Length() const { return FLength; }
  double Scale() const { return FScale; }
  double Minimum() const { return FMinimum; }
  const std::vector<double>& Normal() const { return FNormal; }
  const std::vector<double>& Offset() const { return FOffset; }

private:
  int FLength;
  int FRadius;
  double FFillLevel;
  bool FKeepBorderPeaks;
  std::unique_ptr<TWaveletNoiseFilter> FNoiseFilter;
  /// sqrt(r^2 - i^2) at index i + r for i = -r..r.
  std::vector<double> FCircle;
  std::vector<float> FSmoothed;
  std::vector<float> FSorted;
  std::vector<double> FNormal;
  std::vector<double> FOffset;
  double FScale = 1.0;
  double FMinimum = 0.0;
};
