// Cubic splines in one and two dimensions.
#include "common/numerics/Splines.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

namespace {

template <typename T>
void SplineCore(const T* x, const T* y, int n, double yp1, double ypn, T* y2) {
  if (n < 2) {
    if (n == 1) y2[0] = 0;
    return;
  }
  std::vector<double> u(n);
  if (yp1 >= 0.99e30) {
    y2[0] = 0;
    u[0] = 0;
  } else {
    y2[0] = T(-0.5);
    u[0] = (3.0 / (double(x[1]) - x[0])) * ((double(y[1]) - y[0]) / (double(x[1]) - x[0]) - yp1);
  }
  std::vector<double> d2(n);
  d2[0] = y2[0];
  for (int i = 1; i < n - 1; ++i) {
    const double sig = (double(x[i]) - x[i - 1]) / (double(x[i + 1]) - x[i - 1]);
    const double p = sig * d2[i - 1] + 2.0;
    d2[i] = (sig - 1.0) / p;
    u[i] = (double(y[i + 1]) - y[i]) / (double(x[i + 1]) - x[i]) -
           (double(y[i]) - y[i - 1]) / (double(x[i]) - x[i - 1]);
    u[i] = (6.0 * u[i] / (double(x[i + 1]) - x[i - 1]) - sig * u[i - 1]) / p;
  }
  double qn, un;
  if (ypn >= 0.99e30) {
    qn = un = 0.0;
  } else {
    qn = 0.5;
    un = (3.0 / (double(x[n - 1]) - x[n - 2])) *
         (ypn - (double(y[n - 1]) - y[n - 2]) / (double(x[n - 1]) - x[n - 2]));
  }
  d2[n - 1] = (un - qn * u[n - 2]) / (qn * d2[n - 2] + 1.0);
  for (int k = n - 2; k >= 0; --k) d2[k] = d2[k] * d2[k + 1] + u[k];
  for (int k = 0; k < n; ++k) y2[k] = static_cast<T>(d2[k]);
}

// Index klo of the interval [klo, klo+1] that holds x, by bisection on rising xa; clamped to the ends.
template <typename T>
int Bisect(const T* xa, int n, double x) {
  int klo = 0, khi = n - 1;
  while (khi - klo > 1) {
    const int k = (khi + klo) >> 1;
    if (xa[k] > x)
      khi = k;
    else
      klo = k;
  }
  return klo;
}

template <typename T>
double SplintCore(const T* xa, const T* ya, const T* y2a, int n, double x) {
  if (n < 1) return 0.0;
  if (n == 1) return ya[0];
  const int klo = Bisect(xa, n, x), khi = klo + 1;
  const double h = double(xa[khi]) - xa[klo];
  if (h == 0.0) return ya[klo];
  const double a = (xa[khi] - x) / h, b = (x - xa[klo]) / h;
  return a * ya[klo] + b * ya[khi] +
         ((a * a * a - a) * y2a[klo] + (b * b * b - b) * y2a[khi]) * (h * h) / 6.0;
}

template <typename T>
double LinearCore(const T* xa, const T* ya, int n, double x) {
  if (n < 1) return 0.0;
  if (n == 1) return ya[0];
  const int klo = Bisect(xa, n, x), khi = klo + 1;
  const double h = double(xa[khi]) - xa[klo];
  if (h == 0.0) return ya[klo];
  return ya[klo] + (double(ya[khi]) - ya[klo]) * (x - xa[klo]) / h;
}

} // namespace

void spline(const float* x, const float* y, int n, float yp1, float ypn, float* y2) {
  SplineCore(x, y, n, yp1, ypn, y2);
}
void splint(const float* xa, const float* ya, const float* y2a, int n, float x, float* y) {
  *y = static_cast<float>(SplintCore(xa, ya, y2a, n, x));
}
void splintL(const float* xa, const float* ya, int n, float x, float* y) {
  *y = static_cast<float>(LinearCore(xa, ya, n, x));
}

// ---------------------------------------------------------------------------------------------
// TCubicSplineInterpolation

TCubicSplineInterpolation::~TCubicSplineInterpolation() {
  DeleteArrays();
}

void TCubicSplineInterpolation::CreateArrays(int n) {
  DeleteArrays();
  if (n < 1) return;
  NumberOfPoints = n;
  X = new double[n]();
  Y = new double[n]();
  Y2 = new double[n]();
}

void TCubicSplineInterpolation::DeleteArrays() {
  delete[] X;
  delete[] Y;
  delete[] Y2;
  X = Y = Y2 = nullptr;
  NumberOfPoints = 0;
}

void TCubicSplineInterpolation::SortArray() {
  const int n = NumberOfPoints;
  std::vector<int> order(n);
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return X[a] < X[b]; });
  std::vector<double> xs(n), ys(n);
  for (int i = 0; i < n; ++i) xs[i] = X[order[i]], ys[i] = Y[order[i]];
  std::copy(xs.begin(), xs.end(), X);
  std::copy(ys.begin(), ys.end(), Y);
}

bool TCubicSplineInterpolation::CheckDataSpacing() const {
  for (int i = 1; i < NumberOfPoints; ++i)
    if (X[i] - X[i - 1] < 1e-30) return false;
  return true;
}

void TCubicSplineInterpolation::Spline(double yp1, double ypn) {
  if (NumberOfPoints > 0) SplineCore(X, Y, NumberOfPoints, yp1, ypn, Y2);
}

bool TCubicSplineInterpolation::CalculateSpline() {
  if (!CheckDataSpacing()) return false;
  Spline(1e30, 1e30);
  return true;
}

double TCubicSplineInterpolation::CubicSplineInterpolation(double x) const {
  return SplintCore(X, Y, Y2, NumberOfPoints, x);
}

double TCubicSplineInterpolation::LinearInterpolation(double x) const {
  return LinearCore(X, Y, NumberOfPoints, x);
}

// ---------------------------------------------------------------------------------------------
// TCubicSplineInterpolation2D

TCubicSplineInterpolation2D::TCubicSplineInterpolation2D(int nx, int ny)
    : FNX(std::max(nx, 1)), FNY(std::max(ny, 1)) {
  FField = new double[static_cast<size_t>(FNX) * FNY]();
  FXPos = new double[FNX]();
  FYPos = new double[FNY]();
  for (int i = 0; i < FNX; ++i) FXPos[i] = i;
  for (int i = 0; i < FNY; ++i) FYPos[i] = i;
  FRows = new TCubicSplineInterpolation[FNY];
}

TCubicSplineInterpolation2D::~TCubicSplineInterpolation2D() {
  delete[] FField;
  delete[] FXPos;
  delete[] FYPos;
  delete[] FRows;
}

void TCubicSplineInterpolation2D::SetField(int ix, int iy, double value) {
  if (ix >= 0 && ix < FNX && iy >= 0 && iy < FNY) FField[static_cast<size_t>(iy) * FNX + ix] = value;
}
double TCubicSplineInterpolation2D::GetField(int ix, int iy) const {
  if (ix >= 0 && ix < FNX && iy >= 0 && iy < FNY) return FField[static_cast<size_t>(iy) * FNX + ix];
  return 0.0;
}
void TCubicSplineInterpolation2D::SetXPosition(int ix, double x) {
  if (ix >= 0 && ix < FNX) FXPos[ix] = x;
}
void TCubicSplineInterpolation2D::SetYPosition(int iy, double y) {
  if (iy >= 0 && iy < FNY) FYPos[iy] = y;
}

bool TCubicSplineInterpolation2D::PrepareSpline() {
  bool ok = true;
  for (int iy = 0; iy < FNY; ++iy) {
    TCubicSplineInterpolation& row = FRows[iy];
    row.CreateArrays(FNX);
    for (int ix = 0; ix < FNX; ++ix) {
      row.X[ix] = FXPos[ix];
      row.Y[ix] = FField[static_cast<size_t>(iy) * FNX + ix];
    }
    ok = row.CalculateSpline() && ok;
  }
  return ok;
}

double TCubicSplineInterpolation2D::CubicSplineInterpolation(double x, double y) const {
  std::vector<double> column(FNY), y2(FNY);
  for (int iy = 0; iy < FNY; ++iy) column[iy] = FRows[iy].CubicSplineInterpolation(x);
  SplineCore(FYPos, column.data(), FNY, 1e30, 1e30, y2.data());
  return SplintCore(FYPos, column.data(), y2.data(), FNY, y);
}
