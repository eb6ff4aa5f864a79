// Cubic splines: the textbook spline/splint pair in float, linear interpolation with the same search,
// and owned-array spline interpolators in one and two dimensions.
#pragma once

/// Second derivatives y2 of the interpolating cubic spline through (x, y), n points with rising x. A boundary
/// derivative of 9.9e29 or more stands for a natural end (second derivative 0). Allocates a work vector.
void spline(const float* x, const float* y, int n, float yp1, float ypn, float* y2);
/// Cubic spline value at x from the output of spline; bisection for the interval, clamped to the ends.
void splint(const float* xa, const float* ya, const float* y2a, int n, float x, float* y);
/// Linear interpolation at x with the same bisection as splint.
void splintL(const float* xa, const float* ya, int n, float x, float* y);

/// Natural cubic spline over owned double arrays.
class TCubicSplineInterpolation {
public:
  TCubicSplineInterpolation() = default;
  TCubicSplineInterpolation(const TCubicSplineInterpolation&) = delete;
  TCubicSplineInterpolation& operator=(const TCubicSplineInterpolation&) = delete;
  virtual ~TCubicSplineInterpolation();

  void CreateArrays(int n);
  void DeleteArrays();
  /// Sorts the points by x (y follows).
  void SortArray();
  /// True only when every step x[i]-x[i-1] is at least 1e-30.
  bool CheckDataSpacing() const;
  /// Second derivatives with the given boundary derivatives (9.9e29 or more: natural end).
  void Spline(double yp1, double ypn);
  /// Spacing check, then the second derivatives of a natural spline; false when the spacing fails.
  bool CalculateSpline();
  double CubicSplineInterpolation(double x) const;
  double LinearInterpolation(double x) const;

  int NumberOfPoints = 0;
  double* X = nullptr;
  double* Y = nullptr;
  double* Y2 = nullptr;
};

/// Bicubic interpolation on a grid of nx by ny values: one spline per row, then one through the column.
class TCubicSplineInterpolation2D {
public:
  TCubicSplineInterpolation2D(int nx, int ny);
  TCubicSplineInterpolation2D(const TCubicSplineInterpolation2D&) = delete;
  TCubicSplineInterpolation2D& operator=(const TCubicSplineInterpolation2D&) = delete;
  virtual ~TCubicSplineInterpolation2D();

  void SetField(int ix, int iy, double value);
  double GetField(int ix, int iy) const;
  void SetXPosition(int ix, double x);
  void SetYPosition(int iy, double y);
  /// Prepares the spline of every row; false when the x positions are not rising.
  bool PrepareSpline();
  double CubicSplineInterpolation(double x, double y) const;

private:
  int FNX, FNY;
  double* FField = nullptr; ///< FNX * FNY, row iy at iy * FNX
  double* FXPos = nullptr;
  double* FYPos = nullptr;
  TCubicSplineInterpolation* FRows = nullptr; ///< one per row
};
