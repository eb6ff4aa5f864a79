// Repair of marked pixels of a float image: linear interpolation along columns, filling with a value and
// noise, and repeated averaging of the four neighbours. The mask has one flag per pixel, true for the
// pixels to repair, in the image's layout. Line flags of the image are not used.
#pragma once

#include "common/numerics/Imagefilters.h"

#include <cstdint>

/// For each run of marked pixels in a column: linear interpolation between the two pixels that bound the
/// run; a run touching the top or bottom takes its one bounding value; a fully marked column stays.
void RepairLineInterpolation(const TFloatImage& image, const bool* mask);

enum class TNoiseDistribution : int { Box = 0, Gaussian = 1 };
enum class TNoiseDirection : int { Add = 0, Subtract = 1, Symmetric = 2 };

struct TSimpleFillingParameters {
  bool ReplaceValue = true;
  double Value = 0.0;
  bool AddNoise = false;
  /// Box: values up to the amplitude; Gaussian: the amplitude is the standard deviation.
  double NoiseAmplitude = 0.0;
  TNoiseDistribution Distribution = TNoiseDistribution::Box;
  /// Add: only positive noise, Subtract: only negative, Symmetric: both signs.
  TNoiseDirection Direction = TNoiseDirection::Symmetric;
  std::uint32_t Seed = 1;
};

/// Marked pixels become the value (when ReplaceValue) and get noise (when AddNoise).
void RepairSimpleFilling(const TFloatImage& image, const bool* mask, const TSimpleFillingParameters& p);

/// iterations (1..1000000) Jacobi sweeps: every marked pixel becomes 0.25 times the sum of its four
/// neighbours of the previous sweep; an index beyond the edge is mirrored (-1 reads 1). Marked pixels that
/// are not finite start at the mean of the finite unmarked pixels. Raises OrvexExceptionImageFilter for an
/// iteration count out of range or an image of less than 2 pixels each way.
void RepairSimpleInterpolation(const TFloatImage& image, const bool* mask, int iterations);
