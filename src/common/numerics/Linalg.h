// Linear algebra on caller-owned arrays: LU decomposition, Gauss-Jordan elimination, singular value
// decomposition, least squares over basis vectors and the line and polynomial regressions.
#pragma once

#include <algorithm>
#include <cmath>

// Matrices of ludcmp, lubksb and gaussj are flat row-major arrays of n x n elements.

/// LU decomposition with implicit partial pivoting (Crout). The permutation goes to index, d is +1 or -1
/// for an even or odd number of row exchanges. Returns false (and raises nothing) for a row of zeros; a
/// zero pivot is left in place and not replaced by a tiny number. Allocates a scaling vector and frees it.
bool ludcmp(long double* a, int n, int* index, long double* d);
bool ludcmp(double* a, int n, int* index, double* d);
bool ludcmp(float* a, int n, int* index, float* d);
/// Solves A x = b in place of b with the decomposition of ludcmp.
void lubksb(const long double* a, int n, const int* index, long double* b);
void lubksb(const double* a, int n, const int* index, double* b);
void lubksb(const float* a, int n, const int* index, float* b);
/// After ludcmp: false when any diagonal element's magnitude is at most 1e-29; n below 1 is independent.
bool CheckLinearDependency(const long double* a, int n);
bool CheckLinearDependency(const double* a, int n);

/// Gauss-Jordan elimination with full pivoting: a (n x n, stride stride) is replaced by its inverse, b
/// (n x m, stride bStride) by the solutions. Pivot ties keep the later element. The three index arrays
/// hold n ints each and are the caller's. Returns 0, or 4 when a pivot is met twice (singular), 5 when a
/// pivot's magnitude is below 1e-100; on failure a and b are left part-way.
int gaussj(double* a, int n, int stride, double* b, int m, int bStride, int* indxc, int* indxr, int* ipiv);

/// Hypotenuse sqrt(a^2 + b^2) without overflow or destructive underflow (reentrant).
double pythag(double a, double b);
/// Singular value decomposition A = U W V^T (Golub-Reinsch). a (m rows of n) becomes U, w receives the n
/// singular values, v (n rows of n) receives V. Allocates one work vector and frees it on every path.
/// Throws OrvexExceptionMathError "no convergence in 30 svdcmp iterations".
void svdcmp(double** a, int m, int n, double* w, double** v);
/// Sorts singular values falling (Shell's method, h = 3h+1) carrying the columns of u and v, then flips the
/// signs of a column pair when more than half of its entries are negative.
void svreord(double** u, int m, int n, double* w, double** v);
/// svdcmp followed by svreord.
void svdec(double** a, int m, int n, double* w, double** v);
/// Solves A x = b with a decomposition; singular values of 0 are skipped. Allocates a work vector.
void svbksb(double** u, const double* w, double** v, int m, int n, const double* b, double* x);

/// Least-squares line y = slope x + offset through the points firstIndex..lastIndex (both -1: all).
/// A single point or a zero determinant gives offset = mean y, slope 0.
void LinearRegression(const double* x, const double* y, int n, int firstIndex, int lastIndex, double& slope,
                      double& offset);
/// Least-squares polynomial of the given order (order+1 coefficients, rising powers) by normal equations in
/// extended precision. Returns false and zero coefficients when the system is singular or n is too small.
bool PolynomRegression(const double* x, const double* y, int n, int order, double* coefficients);

/// Least-squares solution of b = sum of coefficients times basis vectors, by normal equations in floats.
class TSolveLinearVectorEquation {
public:
  TSolveLinearVectorEquation() = default;
  TSolveLinearVectorEquation(const TSolveLinearVectorEquation&) = delete;
  TSolveLinearVectorEquation& operator=(const TSolveLinearVectorEquation&) = delete;
  virtual ~TSolveLinearVectorEquation();

  /// Allocates the normal matrix, pivots and right side for nBasis vectors of the given length. The basis
  /// pointer array is the caller's and is set with SetBasis.
  void CreateArrays(int nBasis, int length);
  void SetBasis(float** basis) { Basis = basis; }
  /// A new object with the same sizes, basis pointer, normal matrix and validity.
  TSolveLinearVectorEquation* Clone() const;
  /// Divides each basis vector by the sum of the absolute values of its elements.
  void NormalizeBasis();
  /// Builds and decomposes the Gram matrix; sets IsValid.
  void Init();
  /// Coefficients of b (allocated with new[] when *coefficients is null); nothing when invalid. With
  /// residual given: the root of the mean squared residual over the vector length.
  void GetResult(const float* b, float** coefficients, float* residual);

  int NumberOfBasisVectors = 0;
  int VectorLength = 0;
  float** Basis = nullptr;       ///< the caller's
  float* NormalMatrix = nullptr; ///< n x n, owned
  int* PivotIndex = nullptr;     ///< owned
  float* RightSide = nullptr;    ///< owned
  bool IsValid = false;

private:
  void FreeArrays();
};

// ---------------------------------------------------------------------------------------------
// Vectors of three and 3x3 matrices, one template for double and float elements. Lengths, determinants
// and inverses are worked out in double precision whatever the element type.

/// A vector of three elements.
template <typename T>
class TVector3D {
public:
  TVector3D() = default;
  TVector3D(T x, T y, T z) : FX(x), FY(y), FZ(z) {}
  TVector3D(const TVector3D&) = default;
  TVector3D& operator=(const TVector3D&) = default;
  virtual ~TVector3D() = default;

  TVector3D& operator+=(const TVector3D& v) {
    FX += v.FX, FY += v.FY, FZ += v.FZ;
    return *this;
  }
  TVector3D& operator-=(const TVector3D& v) {
    FX -= v.FX, FY -= v.FY, FZ -= v.FZ;
    return *this;
  }
  TVector3D operator+(const TVector3D& v) const { return TVector3D(FX + v.FX, FY + v.FY, FZ + v.FZ); }
  TVector3D operator-(const TVector3D& v) const { return TVector3D(FX - v.FX, FY - v.FY, FZ - v.FZ); }
  TVector3D operator*(T s) const { return TVector3D(FX * s, FY * s, FZ * s); }
  TVector3D operator/(T s) const { return TVector3D(FX / s, FY / s, FZ / s); }

  T Length() const { return static_cast<T>(std::sqrt(double(FX) * FX + double(FY) * FY + double(FZ) * FZ)); }
  /// The vector divided by its length; a length below 1e-30 divides by 1, so a null vector stays null.
  TVector3D UnitVector() const {
    T l = Length();
    if (l < T(1e-30)) l = T(1);
    return *this / l;
  }
  TVector3D VectorProduct(const TVector3D& v) const {
    return TVector3D(FY * v.FZ - FZ * v.FY, FZ * v.FX - FX * v.FZ, FX * v.FY - FY * v.FX);
  }
  T ScalarProduct(const TVector3D& v) const { return FX * v.FX + FY * v.FY + FZ * v.FZ; }
  T X() const { return FX; }
  T Y() const { return FY; }
  T Z() const { return FZ; }
  void SetVector(const T* v) { FX = v[0], FY = v[1], FZ = v[2]; }
  void GetVector(T* v) const { v[0] = FX, v[1] = FY, v[2] = FZ; }
  /// True when every component differs by at most tolerance.
  bool IsEqual(const TVector3D& v, T tolerance) const {
    return std::fabs(FX - v.FX) <= tolerance && std::fabs(FY - v.FY) <= tolerance &&
           std::fabs(FZ - v.FZ) <= tolerance;
  }
  /// Point on the line p0 + t d nearest to the line p1 + s e (closest approach of two lines). Returns false
  /// for parallel lines, leaving result at p0.
  static bool LineIntersection(const TVector3D& p0, const TVector3D& d, const TVector3D& p1,
                               const TVector3D& e, TVector3D& result) {
    // Closest approach: minimise |p0 + t d - p1 - s e|^2 over t and s.
    result = p0;
    const TVector3D w = p0 - p1;
    const T a = d.ScalarProduct(d), b = d.ScalarProduct(e), c = e.ScalarProduct(e);
    const T dd = d.ScalarProduct(w), ee = e.ScalarProduct(w);
    const T denom = a * c - b * b;
    if (std::fabs(denom) <= T(1e-30) * std::max(T(1), a * c)) return false;
    const T t = (b * ee - c * dd) / denom;
    result = p0 + d * t;
    return true;
  }

private:
  T FX = 0, FY = 0, FZ = 0;
};

/// A 3x3 matrix, row-major.
template <typename T>
class TMatrix3x3 {
public:
  TMatrix3x3() = default;
  TMatrix3x3(T a00, T a01, T a02, T a10, T a11, T a12, T a20, T a21, T a22)
      : FA{a00, a01, a02, a10, a11, a12, a20, a21, a22} {}
  TMatrix3x3(const TMatrix3x3&) = default;
  TMatrix3x3& operator=(const TMatrix3x3&) = default;
  virtual ~TMatrix3x3() = default;

  TMatrix3x3& operator+=(const TMatrix3x3& m) {
    for (int i = 0; i < 9; ++i) FA[i] += m.FA[i];
    return *this;
  }
  TMatrix3x3& operator-=(const TMatrix3x3& m) {
    for (int i = 0; i < 9; ++i) FA[i] -= m.FA[i];
    return *this;
  }
  TMatrix3x3 operator+(const TMatrix3x3& m) const { return TMatrix3x3(*this) += m; }
  TMatrix3x3 operator-(const TMatrix3x3& m) const { return TMatrix3x3(*this) -= m; }

  void Unit() {
    for (int i = 0; i < 9; ++i) FA[i] = (i % 4 == 0) ? T(1) : T(0);
  }
  void Clear() { std::fill(FA, FA + 9, T(0)); }
  void MakeScaleMatrix(T x, T y, T z) {
    Clear();
    FA[0] = x, FA[4] = y, FA[8] = z;
  }
  /// Rotation by the angles x, y, z (radians) about the axes, applied in the order x, then y, then z.
  void MakeRotationMatrix(T x, T y, T z) {
    const double cx = std::cos(double(x)), sx = std::sin(double(x)), cy = std::cos(double(y)),
                 sy = std::sin(double(y)), cz = std::cos(double(z)), sz = std::sin(double(z));
    // Rz * Ry * Rx
    const double m[9] = {cz * cy,
                         cz * sy * sx - sz * cx,
                         cz * sy * cx + sz * sx,
                         sz * cy,
                         sz * sy * sx + cz * cx,
                         sz * sy * cx - cz * sx,
                         -sy,
                         cy * sx,
                         cy * cx};
    for (int i = 0; i < 9; ++i) FA[i] = static_cast<T>(m[i]);
  }
  TMatrix3x3 Transpose() const {
    TMatrix3x3 r;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) r.FA[j * 3 + i] = FA[i * 3 + j];
    return r;
  }
  /// Inverse by cofactors; a singular matrix (determinant 0) gives the zero matrix.
  TMatrix3x3 Inverse() const {
    TMatrix3x3 r;
    const double det = Determinant();
    if (det == 0) return r;
    auto c = [&](int i, int j) { return double(FA[i * 3 + j]); };
    const double inv[9] = {c(1, 1) * c(2, 2) - c(1, 2) * c(2, 1), c(0, 2) * c(2, 1) - c(0, 1) * c(2, 2),
                           c(0, 1) * c(1, 2) - c(0, 2) * c(1, 1), c(1, 2) * c(2, 0) - c(1, 0) * c(2, 2),
                           c(0, 0) * c(2, 2) - c(0, 2) * c(2, 0), c(0, 2) * c(1, 0) - c(0, 0) * c(1, 2),
                           c(1, 0) * c(2, 1) - c(1, 1) * c(2, 0), c(0, 1) * c(2, 0) - c(0, 0) * c(2, 1),
                           c(0, 0) * c(1, 1) - c(0, 1) * c(1, 0)};
    for (int i = 0; i < 9; ++i) r.FA[i] = static_cast<T>(inv[i] / det);
    return r;
  }
  double Determinant() const {
    const T* a = FA;
    return double(a[0]) * (double(a[4]) * a[8] - double(a[5]) * a[7]) -
           double(a[1]) * (double(a[3]) * a[8] - double(a[5]) * a[6]) +
           double(a[2]) * (double(a[3]) * a[7] - double(a[4]) * a[6]);
  }
  bool IsEqual(const TMatrix3x3& m, T tolerance) const {
    for (int i = 0; i < 9; ++i)
      if (std::fabs(FA[i] - m.FA[i]) > tolerance) return false;
    return true;
  }
  T& At(int row, int col) { return FA[row * 3 + col]; }
  T At(int row, int col) const { return FA[row * 3 + col]; }

private:
  T FA[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
};

template <typename T>
TVector3D<T> operator*(const TMatrix3x3<T>& m, const TVector3D<T>& v) {
  return TVector3D<T>(m.At(0, 0) * v.X() + m.At(0, 1) * v.Y() + m.At(0, 2) * v.Z(),
                      m.At(1, 0) * v.X() + m.At(1, 1) * v.Y() + m.At(1, 2) * v.Z(),
                      m.At(2, 0) * v.X() + m.At(2, 1) * v.Y() + m.At(2, 2) * v.Z());
}
template <typename T>
TMatrix3x3<T> operator*(const TMatrix3x3<T>& a, const TMatrix3x3<T>& b) {
  TMatrix3x3<T> r;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      r.At(i, j) = a.At(i, 0) * b.At(0, j) + a.At(i, 1) * b.At(1, j) + a.At(i, 2) * b.At(2, j);
  return r;
}

using TDVector = TVector3D<double>;
using TFVector = TVector3D<float>;
using TDMatrix = TMatrix3x3<double>;
using TFMatrix = TMatrix3x3<float>;
