// Linear algebra on caller-owned arrays: LU decomposition, Gauss-Jordan elimination, singular value
// decomposition, least squares over basis vectors and the line and polynomial regressions.
#pragma once

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
