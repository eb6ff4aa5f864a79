// The workbench's small numeric library: 3-vectors and 3x3 matrices, statistics, rounding,
// conversions, line and Gaussian helpers and dithered integer subtraction, all on caller-owned arrays.
#pragma once

#include "common/numerics/Randomnumbers.h"

#include <string>

// ---------------------------------------------------------------------------------------------
// Vectors and matrices

/// A vector of three doubles.
class TDVector {
public:
  TDVector() = default;
  TDVector(double x, double y, double z) : FX(x), FY(y), FZ(z) {}
  TDVector(const TDVector&) = default;
  TDVector& operator=(const TDVector&) = default;
  virtual ~TDVector() = default;

  TDVector& operator+=(const TDVector& v);
  TDVector& operator-=(const TDVector& v);
  TDVector operator+(const TDVector& v) const;
  TDVector operator-(const TDVector& v) const;
  TDVector operator*(double s) const;
  TDVector operator/(double s) const;

  double Length() const;
  /// The vector divided by its length; a length below 1e-30 divides by 1, so a null vector stays null.
  TDVector UnitVector() const;
  TDVector VectorProduct(const TDVector& v) const;
  double ScalarProduct(const TDVector& v) const;
  double X() const { return FX; }
  double Y() const { return FY; }
  double Z() const { return FZ; }
  void SetVector(const double* v);
  void GetVector(double* v) const;
  /// True when every component differs by at most tolerance.
  bool IsEqual(const TDVector& v, double tolerance) const;
  /// Point on the line p0 + t d nearest to the line p1 + s e (closest approach of two lines). Returns false
  /// for parallel lines, leaving result at p0.
  static bool LineIntersection(const TDVector& p0, const TDVector& d, const TDVector& p1, const TDVector& e,
                               TDVector& result);

private:
  double FX = 0, FY = 0, FZ = 0;
};

/// A vector of three floats.
class TFVector {
public:
  TFVector() = default;
  TFVector(float x, float y, float z) : FX(x), FY(y), FZ(z) {}
  TFVector(const TFVector&) = default;
  TFVector& operator=(const TFVector&) = default;
  virtual ~TFVector() = default;

  TFVector& operator+=(const TFVector& v);
  TFVector& operator-=(const TFVector& v);
  TFVector operator+(const TFVector& v) const;
  TFVector operator-(const TFVector& v) const;
  TFVector operator*(float s) const;
  TFVector operator/(float s) const;

  float Length() const;
  TFVector UnitVector() const;
  TFVector VectorProduct(const TFVector& v) const;
  float ScalarProduct(const TFVector& v) const;
  float X() const { return FX; }
  float Y() const { return FY; }
  float Z() const { return FZ; }

private:
  float FX = 0, FY = 0, FZ = 0;
};

/// A 3x3 matrix of doubles, row-major.
class TDMatrix {
public:
  TDMatrix() = default;
  TDMatrix(double a00, double a01, double a02, double a10, double a11, double a12, double a20, double a21,
           double a22);
  TDMatrix(const TDMatrix&) = default;
  TDMatrix& operator=(const TDMatrix&) = default;
  virtual ~TDMatrix() = default;

  TDMatrix& operator+=(const TDMatrix& m);
  TDMatrix& operator-=(const TDMatrix& m);
  TDMatrix operator+(const TDMatrix& m) const;
  TDMatrix operator-(const TDMatrix& m) const;

  void Unit();
  void Clear();
  void MakeScaleMatrix(double x, double y, double z);
  /// Rotation by the angles x, y, z (radians) about the axes, applied in the order x, then y, then z.
  void MakeRotationMatrix(double x, double y, double z);
  TDMatrix Transpose() const;
  /// Inverse by cofactors; a singular matrix (determinant 0) gives the zero matrix.
  TDMatrix Inverse() const;
  double Determinant() const;
  bool IsEqual(const TDMatrix& m, double tolerance) const;
  double& At(int row, int col) { return FA[row * 3 + col]; }
  double At(int row, int col) const { return FA[row * 3 + col]; }

private:
  double FA[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
};

/// A 3x3 matrix of floats, row-major.
class TFMatrix {
public:
  TFMatrix() = default;
  TFMatrix(float a00, float a01, float a02, float a10, float a11, float a12, float a20, float a21, float a22);
  TFMatrix(const TFMatrix&) = default;
  TFMatrix& operator=(const TFMatrix&) = default;
  virtual ~TFMatrix() = default;

  TFMatrix& operator+=(const TFMatrix& m);
  TFMatrix& operator-=(const TFMatrix& m);
  TFMatrix operator+(const TFMatrix& m) const;
  TFMatrix operator-(const TFMatrix& m) const;

  void Unit();
  void Clear();
  void MakeScaleMatrix(float x, float y, float z);
  void MakeRotationMatrix(float x, float y, float z);
  TFMatrix Transpose() const;
  TFMatrix Inverse() const;
  float& At(int row, int col) { return FA[row * 3 + col]; }
  float At(int row, int col) const { return FA[row * 3 + col]; }

private:
  float FA[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
};

TDVector operator*(const TDMatrix& m, const TDVector& v);
TDMatrix operator*(const TDMatrix& a, const TDMatrix& b);
TFVector operator*(const TFMatrix& m, const TFVector& v);
TFMatrix operator*(const TFMatrix& a, const TFMatrix& b);

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
