// How an image viewer turns values into colours: line corrections, the sorted values of an image kept for
// cheap percentiles, the automatic scale from percentiles or from the line written last, and the scale
// kinds (linear, logarithmic, square root) in front of the colour profile. Plain functions on caller-owned
// arrays, so that they test without a project or a view.
#pragma once

#include "data/Dcolorprofile.h"

#include <cstdint>
#include <string>
#include <vector>

class TDImage;

/// The mapping of values to the colour table.
enum class TImageScaleKind : int32_t { Linear = 0, Logarithmic = 1, SquareRoot = 2 };
inline constexpr int32_t kImageScaleKindCount = 3;
/// "Linear", "Logarithmic", "Square Root".
std::string GetImageScaleKindName(TImageScaleKind kind);

/// What is taken off each line before it is shown.
enum class TLineCorrection : int32_t { None = 0, SubAverage = 1, DivAverage = 2, SubLine = 3 };
inline constexpr int32_t kLineCorrectionCount = 4;
/// "None", "Sub Average", "Div Average", "Sub Line".
std::string GetLineCorrectionName(TLineCorrection correction);

/// Corrects one line of count values into out (may be the same array). Non-finite values stay as they are
/// and take no part in the mean or the fitted line; a line without finite values is copied unchanged.
/// "Div Average" by a mean of 0 leaves the line unchanged.
void CorrectImageLine(const float* values, int32_t count, TLineCorrection correction, float* out);

/// The sorted finite values of an image after line correction, with their extremes: what percentiles are
/// read from without a new pass over the image.
struct TImageExtrema {
  bool Valid = false;
  double Minimum = 0;
  double Maximum = 0;
  std::vector<float> Sorted;

  /// The value at percent (0 … 100) of the sorted list: index (n - 1) * percent / 100, truncated; false
  /// when the list is empty.
  bool ValueAtPercent(double percent, double& value) const;
  /// The smallest value above 0; false when there is none.
  bool SmallestPositive(double& value) const;
};

/// Fills info from the valid lines of image, each corrected; invalid when no finite value is found.
void GetScaleParameters(const TDImage& image, TLineCorrection correction, TImageExtrema& info);

/// Percent limits closer than 0.1 are moved apart: the upper one becomes the lower one plus 0.1.
void KeepPercentLimitsApart(double& lowerPercent, double& upperPercent);
/// A scale whose limits are equal (a constant image) is kept apart the same way: the upper limit becomes the
/// lower limit plus 0.1.
void KeepScaleLimitsApart(double& minimum, double& maximum);

/// The scale from the live line's values (sorted here): the central 90 % stretched to the whole range; the
/// indices move outwards while the two values are equal. False without finite values.
bool GetScaleFromLineValues(std::vector<float> values, double& minimum, double& maximum);

/// Value to colour through a profile, a range and a scale kind. Non-finite values take the bottom colour. A
/// linear scale gives exactly the profile's colour of the value in the range; the logarithmic one works on
/// log10 of values and limits (values at or below 0 take the bottom colour; a lower limit at or below 0 is
/// replaced by positiveFloor); the square root one on the signed root of the distance from the minimum.
class TImageColorMapper {
public:
  TImageColorMapper(const TDColorProfile& profile, double minimum, double maximum, TImageScaleKind kind,
                    double positiveFloor = 0);
  TColor Map(double value) const;

private:
  const TDColorProfile& FProfile;
  TImageScaleKind FKind;
  double FMinimum;
  double FUpper = 0;
  double FLower = 0;
  bool FEmpty = false;
};
