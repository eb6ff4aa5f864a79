// Reductions of one spectrum over a pixel range to single numbers, with the linear background taken from
// pixels beside the range: sums, averages, extrema, centre of mass, peak width, standard deviation, the
// parabolic peak and the straight-line regression. The filter data objects and the graph filters both run
// on these; every array belongs to the caller, nothing here allocates.
#pragma once

/// The background beside a range for one spectrum. Lower and upper are named after the axis value: on a
/// rising axis the lower side lies left of the range, on a falling axis right of it.
struct TFilterBackground {
  double Lower = 0, Upper = 0;   ///< mean value of each side
  double LowerX = 0, UpperX = 0; ///< mean x position of each side
  int LowerCount = 0, UpperCount = 0;
  double Mean = 0; ///< average of the sides that have pixels, 0 when none has
  int Sides = 0;   ///< number of sides with pixels
};

/// One spectrum seen by a reduction: x positions and values of the whole field (length pixels), the range
/// start..stop (inclusive, 0 <= start <= stop < length) and its background.
struct TFilterField {
  const double* X = nullptr;
  const float* Y = nullptr;
  int Length = 0;
  int Start = 0, Stop = 0;
  TFilterBackground Background;

  int RangeCount() const { return Stop - Start + 1; }
  /// The value at pixel i less the background: the straight line through both sides' means when both
  /// sides have pixels, else the mean background.
  double ValueMinusBackground(int i) const {
    const TFilterBackground& b = Background;
    if (b.LowerCount > 0 && b.UpperCount > 0)
      return Y[i] - ((X[i] - b.LowerX) * (b.Upper - b.Lower) / (b.UpperX - b.LowerX) + b.Lower);
    return Y[i] - b.Mean;
  }
};

/// Fills field.Background from up to lowerPixels and upperPixels pixels beside the range. Falling axis
/// (x at start >= x at stop): the lower side runs rightward from stop+1, the upper side leftward from
/// start-1; rising axis the other way round. Pixels outside the field are skipped, not counted.
void SetLowerAndUpperBackground(TFilterField& field, int lowerPixels, int upperPixels);

/// The first and the count of pixels a reduction reads: the range widened by the background pixels on the
/// side where each lies, clipped to the field.
void GetPixelRangeNeeded(const double* x, int length, int start, int stop, int lowerPixels, int upperPixels,
                         int& first, int& count);

/// Sum of the raw values over the range less the pixel count times the mean background.
double FilterSum(const TFilterField& field);
/// Mean of the raw values over the range less the mean background.
double FilterAverage(const TFilterField& field);

/// Extrema of the values less background over the range and where they lie; the first pixel sets both,
/// ties keep the earlier pixel.
struct TFilterMinMax {
  double Minimum = 0, MinimumX = 0, Maximum = 0, MaximumX = 0;
  int MinimumIndex = 0, MaximumIndex = 0;
};
TFilterMinMax FilterMinMax(const TFilterField& field);

/// Centre of mass of the values less background: sum(x v) / sum(v); emptyValue when |sum(v)| <= threshold
/// (threshold 0: only an exact zero).
double FilterCenterOfMass(const TFilterField& field, double threshold, double emptyValue);

/// Width of the peak at levelFraction of its height. The peak is the largest value less background in the
/// range; with peakAboveFirst it must exceed the range's first value, or the width is 0. From the peak the
/// search walks the whole field, rightward while values reach the level and leftward until one falls
/// below it, and interpolates both crossings linearly; 0 when either crossing can't be interpolated.
double FilterWidth(const TFilterField& field, double levelFraction, bool peakAboveFirst);

/// Mean of the values less background over the range, less their minimum.
double FilterAverageMinusMinimum(const TFilterField& field);
/// sqrt(|(S/n)^2 - Q/n|) with S and Q the sum and square sum of the values less background.
double FilterStandardDeviation(const TFilterField& field);

/// Parabola a0 + a1 x + a2 x^2 fitted to the values less background around the range's maximum.
struct TFilterParabola {
  double Intensity = 0, Center = 0, Curvature = 0, Error = 0;
  bool Fitted = false; ///< the normal equations were solved (Error is valid)
};
/// The maximum is found as FilterWidth finds it (peak above the first value); it must lie at index 2 to
/// length-2. The window grows from the peak on both sides until the x distance reaches width/2 or the field
/// ends. Error is 100 times the mean relative deviation |(v - fit)/fit| where |fit| > 1e-30; intensity,
/// centre and curvature are set when |a2| > 1e-30. Everything 0 when no fit is possible.
TFilterParabola FilterParabola(const TFilterField& field, double width);

/// Straight-line regression of the values less background on x over the range.
struct TFilterLine {
  double Offset = 0, Slope = 0, Correlation = 0;
};
TFilterLine FilterLinearRegression(const TFilterField& field);
