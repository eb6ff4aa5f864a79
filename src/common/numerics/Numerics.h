// The workbench's small numeric library: 3-vectors and 3x3 matrices, statistics, rounding,
// conversions, line and Gaussian helpers and dithered integer subtraction, all on caller-owned arrays.
#pragma once

#include "common/numerics/Linalg.h"
#include "common/numerics/Randomnumbers.h"

#include <string>

// ---------------------------------------------------------------------------------------------
// Vectors and matrices

// TDVector, TFVector, TDMatrix and TFMatrix: one template each for both element types, in Linalg.h.

// ---------------------------------------------------------------------------------------------
// Statistics and sampling

/// Summary of a data set, in this field order.
struct TStatisticalDescription {
  double Mean = 0;
  double StandardDeviation = 0;
  double Variance = 0;
  double Median = 0;
  double Lower5Percent = 0;
  double Upper5Percent = 0;
  double Maximum = 0;
  double Minimum = 0;
};

/// Minimum and maximum of a data set with the sorted values the colour scaling keeps.
class TExtremaInfo {
public:
  TExtremaInfo() = default;
  TExtremaInfo(const TExtremaInfo&) = delete;
  TExtremaInfo& operator=(const TExtremaInfo&) = delete;
  virtual ~TExtremaInfo();
  /// Copies every scalar; when the source has an array, replaces the own one by a copy.
  void CopyFrom(const TExtremaInfo& source);
  /// Replaces the owned array by a copy of count values (count 0 frees it).
  void SetValues(const float* values, int count);

  double Minimum = 0;
  int MinimumIndex = 0;
  int MaximumIndex = 0;
  int ValidCount = 0;
  int InvalidCount = 0;
  int Flags = 0;
  int NumberOfValues = 0;  ///< elements of Values
  float* Values = nullptr; ///< owned; the sorted values
  double Maximum = 0;
};

/// Sorts values in place and fills the description (variance divides by n).
void GetStatisticalDescriptionFromArray(double* values, int n, TStatisticalDescription* description);
/// Linear interpolation at position (n-1)*fraction; throws for a fraction outside 0..1 or n below 1.
double GetInterpolatedBufferValue(const double* values, int n, double fraction);
float GetInterpolatedBufferValue(const float* values, int n, double fraction);
/// Relative position (0..1) at which a rising array reaches value.
float GetInterpolatedBufferIndexPercentage(const float* values, int n, float value);
/// True when none of the n values is NaN or infinite; four values at a time where the processor has vectors.
bool AllFinite(const float* values, int64_t n);
int ConvertIndexToPeriodicInterval(int i, int n);
int ConvertIndexToMirrorPeriodicInterval(int i, int n);
float GetValueFromArrayContinueBorder(int i, const float* values, int n);
float GetValueFromArrayPointReflection(int i, const float* values, int n);

// ---------------------------------------------------------------------------------------------
// Rounding and conversion

/// Rounds to steps of 1/scale, half away from zero.
float Round(float scale, float value);
double Round(double scale, double value);
long double Round(long double scale, long double value);
/// Keeps a long double inside the double range: +-1e306 at most, non-zero magnitudes at least 1e-306.
double SafeExtendedToDouble(long double x);
double RoundToSignificantDigit(double value, int digits);
/// Rounds value to a multiple of 10^exponent (half away from zero).
double SimpleRoundTo(double value, int exponent);
/// The value cut to its leading digit, e.g. 345 -> 300; 0 for magnitudes below 1e-30.
float GetDeltaTick(float value);
double GetDeltaTick(double value);
long double GetDeltaTick(long double value);
double NextPowerOfTwo(double value, bool downward);
float Sign(float value);

// ---------------------------------------------------------------------------------------------
// Functions of a line or a Gaussian

float GaussSigma(float x, float sigma);
float GaussVectorSigma(float sigma, const float* a, const float* b, int n);
void TwoPointToPointSlope(double y1, double y2, double x1, double x2, double* slope, double* offset);
double LinearScale(double y1, double y2, double x1, double x2, double x);
double LogarithmicScale(double x, double a, double b, double c, double d);
double ExponentialScale(double x, double a, double b, double c, double d);
/// Fills values[0..n] with row n of Pascal's triangle; level is the row the recursion is at (call with 0).
void BinomialValues(double* values, int n, int level);
void BinomialValues(float* values, int n, int level);
/// Coefficients (order+1) of p(a x + b) for the polynomial p given in in.
void ShiftAndStretchPolynom(double a, double b, int order, const double* in, double* out);
void SwapMin(float& a, float& b);
void SwapMin(double& a, double& b);
void SwapMin(long double& a, long double& b);
void SwapMin(int& a, int& b);
/// direction 0 either, 1 rising, 2 falling; strict refuses equal neighbours.
bool IsArrayMonotonic(const double* values, int n, bool strict, int direction);
bool IsAtLeastOneBoolSetInArray(const bool* values, int n);
/// Sets the n x n matrix to unity.
void SetUnitMatrix(float* a, int n);
/// a (rowsA x colsA) times b (rowsB x colsB), result written into a, which must hold rowsA x colsB
/// elements; nothing happens when colsA != rowsB. Allocates a temporary and frees it.
void MultiplyMatrices(float* a, int rowsA, int colsA, const float* b, int rowsB, int colsB);

// ---------------------------------------------------------------------------------------------
// Dithered integer subtraction for raw counts

/// a[i] -= b[i], the fractions carried over with random dithering so that sums are preserved on average.
void LocalSubtractDoubleArrayFromIntArray(int* a, const double* b, int n);
/// As above with one carry over the whole array.
void GlobalSubtractDoubleArrayFromIntArray(int* a, const double* b, int n);
/// Subtracts the constant b from each a[i] with the global carry.
void GlobalSubtractDoubleFromIntArray(int* a, int n, double b);
/// Compares the variants on a synthetic array; returns a text with the mean errors of each.
std::string SubtractDoubleArrayFromIntArrayTest();
