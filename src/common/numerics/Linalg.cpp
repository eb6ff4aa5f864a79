// Linear algebra on caller-owned arrays.
#include "common/numerics/Linalg.h"

#include "common/OrvexException.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

// ---------------------------------------------------------------------------------------------
// LU decomposition (Crout, implicit partial pivoting)

namespace {

template <typename T>
bool LuDecompose(T* a, int n, int* index, T* d) {
  if (n < 1) return false;
  std::unique_ptr<long double[]> vv(new long double[n]);
  *d = 1;
  for (int i = 0; i < n; ++i) {
    long double big = 0;
    for (int j = 0; j < n; ++j) big = std::max(big, static_cast<long double>(std::fabs(a[i * n + j])));
    if (big == 0) return false; // a row of zeros: singular
    vv[i] = 1.0L / big;
  }
  for (int j = 0; j < n; ++j) {
    for (int i = 0; i < j; ++i) {
      long double sum = a[i * n + j];
      for (int k = 0; k < i; ++k) sum -= static_cast<long double>(a[i * n + k]) * a[k * n + j];
      a[i * n + j] = static_cast<T>(sum);
    }
    long double big = 0;
    int imax = j;
    for (int i = j; i < n; ++i) {
      long double sum = a[i * n + j];
      for (int k = 0; k < j; ++k) sum -= static_cast<long double>(a[i * n + k]) * a[k * n + j];
      a[i * n + j] = static_cast<T>(sum);
      const long double dum = vv[i] * std::fabs(sum);
      if (dum >= big) {
        big = dum;
        imax = i;
      }
    }
    if (j != imax) {
      for (int k = 0; k < n; ++k) std::swap(a[imax * n + k], a[j * n + k]);
      *d = -*d;
      vv[imax] = vv[j];
    }
    index[j] = imax;
    const T pivot = a[j * n + j];
    if (j != n - 1 && pivot != 0) {
      const long double dum = 1.0L / pivot;
      for (int i = j + 1; i < n; ++i) a[i * n + j] = static_cast<T>(a[i * n + j] * dum);
    }
  }
  return true;
}

template <typename T>
void LuBackSubstitute(const T* a, int n, const int* index, T* b) {
  int ii = -1;
  for (int i = 0; i < n; ++i) {
    const int ip = index[i];
    long double sum = b[ip];
    b[ip] = b[i];
    if (ii >= 0)
      for (int j = ii; j < i; ++j) sum -= static_cast<long double>(a[i * n + j]) * b[j];
    else if (sum != 0)
      ii = i;
    b[i] = static_cast<T>(sum);
  }
  for (int i = n - 1; i >= 0; --i) {
    long double sum = b[i];
    for (int j = i + 1; j < n; ++j) sum -= static_cast<long double>(a[i * n + j]) * b[j];
    b[i] = static_cast<T>(sum / a[i * n + i]);
  }
}

template <typename T>
bool LinearDependency(const T* a, int n) {
  for (int i = 0; i < n; ++i)
    if (std::fabs(a[i * n + i]) <= T(1e-29)) return false;
  return true;
}

} // namespace

bool ludcmp(long double* a, int n, int* index, long double* d) {
  return LuDecompose(a, n, index, d);
}
bool ludcmp(double* a, int n, int* index, double* d) {
  return LuDecompose(a, n, index, d);
}
bool ludcmp(float* a, int n, int* index, float* d) {
  return LuDecompose(a, n, index, d);
}
void lubksb(const long double* a, int n, const int* index, long double* b) {
  LuBackSubstitute(a, n, index, b);
}
void lubksb(const double* a, int n, const int* index, double* b) {
  LuBackSubstitute(a, n, index, b);
}
void lubksb(const float* a, int n, const int* index, float* b) {
  LuBackSubstitute(a, n, index, b);
}
bool CheckLinearDependency(const long double* a, int n) {
  return LinearDependency(a, n);
}
bool CheckLinearDependency(const double* a, int n) {
  return LinearDependency(a, n);
}

// ---------------------------------------------------------------------------------------------
// Gauss-Jordan elimination with full pivoting

int gaussj(double* a, int n, int stride, double* b, int m, int bStride, int* indxc, int* indxr, int* ipiv) {
  int irow = 0, icol = 0;
  for (int j = 0; j < n; ++j) ipiv[j] = 0;
  for (int i = 0; i < n; ++i) {
    double big = 0.0;
    for (int j = 0; j < n; ++j)
      if (ipiv[j] != 1)
        for (int k = 0; k < n; ++k) {
          if (ipiv[k] == 0) {
            const double v = std::fabs(a[j * stride + k]);
            if (v >= big) {
              big = v;
              irow = j;
              icol = k;
            }
          } else if (ipiv[k] > 1) {
            return 4;
          }
        }
    ++ipiv[icol];
    if (irow != icol) {
      for (int l = 0; l < n; ++l) std::swap(a[irow * stride + l], a[icol * stride + l]);
      for (int l = 0; l < m; ++l) std::swap(b[irow * bStride + l], b[icol * bStride + l]);
    }
    indxr[i] = irow;
    indxc[i] = icol;
    if (std::fabs(a[icol * stride + icol]) < 1e-100) return 5;
    const double pivinv = 1.0 / a[icol * stride + icol];
    a[icol * stride + icol] = 1.0;
    for (int l = 0; l < n; ++l) a[icol * stride + l] *= pivinv;
    for (int l = 0; l < m; ++l) b[icol * bStride + l] *= pivinv;
    for (int ll = 0; ll < n; ++ll)
      if (ll != icol) {
        const double dum = a[ll * stride + icol];
        if (dum == 0.0) continue;
        a[ll * stride + icol] = 0.0;
        for (int l = 0; l < n; ++l) a[ll * stride + l] -= a[icol * stride + l] * dum;
        for (int l = 0; l < m; ++l) b[ll * bStride + l] -= b[icol * bStride + l] * dum;
      }
  }
  for (int l = n - 1; l >= 0; --l)
    if (indxr[l] != indxc[l])
      for (int k = 0; k < n; ++k) std::swap(a[k * stride + indxr[l]], a[k * stride + indxc[l]]);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Singular value decomposition (Golub-Reinsch as in the Numerical Recipes form)

double pythag(double a, double b) {
  const double absa = std::fabs(a), absb = std::fabs(b);
  if (absa > absb) {
    const double r = absb / absa;
    return absa * std::sqrt(1.0 + r * r);
  }
  if (absb == 0.0) return 0.0;
  const double r = absa / absb;
  return absb * std::sqrt(1.0 + r * r);
}

namespace {
inline double SignOf(double a, double b) {
  return b >= 0.0 ? std::fabs(a) : -std::fabs(a);
}
} // namespace

void svdcmp(double** aRows, int m, int n, double* wArr, double** vRows) {
  if (m < 1 || n < 1) return;
  // The routine is written with indices from 1 as in the textbook; these accessors map them.
  auto A = [&](int i, int j) -> double& { return aRows[i - 1][j - 1]; };
  auto V = [&](int i, int j) -> double& { return vRows[i - 1][j - 1]; };
  auto W = [&](int i) -> double& { return wArr[i - 1]; };
  std::vector<double> rv1Store(n + 1);
  auto RV1 = [&](int i) -> double& { return rv1Store[i]; };

  int l = 0, nm = 0;
  double anorm = 0.0, c, f, g = 0.0, h, s, scale = 0.0, x, y, z;
  for (int i = 1; i <= n; ++i) {
    l = i + 1;
    RV1(i) = scale * g;
    g = s = scale = 0.0;
    if (i <= m) {
      for (int k = i; k <= m; ++k) scale += std::fabs(A(k, i));
      if (scale != 0.0) {
        for (int k = i; k <= m; ++k) {
          A(k, i) /= scale;
          s += A(k, i) * A(k, i);
        }
        f = A(i, i);
        g = -SignOf(std::sqrt(s), f);
        h = f * g - s;
        A(i, i) = f - g;
        for (int j = l; j <= n; ++j) {
          s = 0.0;
          for (int k = i; k <= m; ++k) s += A(k, i) * A(k, j);
          f = s / h;
          for (int k = i; k <= m; ++k) A(k, j) += f * A(k, i);
        }
        for (int k = i; k <= m; ++k) A(k, i) *= scale;
      }
    }
    W(i) = scale * g;
    g = s = scale = 0.0;
    if (i <= m && i != n) {
      for (int k = l; k <= n; ++k) scale += std::fabs(A(i, k));
      if (scale != 0.0) {
        for (int k = l; k <= n; ++k) {
          A(i, k) /= scale;
          s += A(i, k) * A(i, k);
        }
        f = A(i, l);
        g = -SignOf(std::sqrt(s), f);
        h = f * g - s;
        A(i, l) = f - g;
        for (int k = l; k <= n; ++k) RV1(k) = A(i, k) / h;
        for (int j = l; j <= m; ++j) {
          s = 0.0;
          for (int k = l; k <= n; ++k) s += A(j, k) * A(i, k);
          for (int k = l; k <= n; ++k) A(j, k) += s * RV1(k);
        }
        for (int k = l; k <= n; ++k) A(i, k) *= scale;
      }
    }
    anorm = std::max(anorm, std::fabs(W(i)) + std::fabs(RV1(i)));
  }
  for (int i = n; i >= 1; --i) {
    if (i < n) {
      if (g != 0.0) {
        for (int j = l; j <= n; ++j) V(j, i) = (A(i, j) / A(i, l)) / g;
        for (int j = l; j <= n; ++j) {
          s = 0.0;
          for (int k = l; k <= n; ++k) s += A(i, k) * V(k, j);
          for (int k = l; k <= n; ++k) V(k, j) += s * V(k, i);
        }
      }
      for (int j = l; j <= n; ++j) V(i, j) = V(j, i) = 0.0;
    }
    V(i, i) = 1.0;
    g = RV1(i);
    l = i;
  }
  for (int i = std::min(m, n); i >= 1; --i) {
    l = i + 1;
    g = W(i);
    for (int j = l; j <= n; ++j) A(i, j) = 0.0;
    if (g != 0.0) {
      g = 1.0 / g;
      for (int j = l; j <= n; ++j) {
        s = 0.0;
        for (int k = l; k <= m; ++k) s += A(k, i) * A(k, j);
        f = (s / A(i, i)) * g;
        for (int k = i; k <= m; ++k) A(k, j) += f * A(k, i);
      }
      for (int j = i; j <= m; ++j) A(j, i) *= g;
    } else {
      for (int j = i; j <= m; ++j) A(j, i) = 0.0;
    }
    ++A(i, i);
  }
  for (int k = n; k >= 1; --k) {
    for (int its = 1; its <= 30; ++its) {
      bool flag = true;
      for (l = k; l >= 1; --l) {
        nm = l - 1;
        if (std::fabs(RV1(l)) + anorm == anorm) {
          flag = false;
          break;
        }
        if (std::fabs(W(nm)) + anorm == anorm) break;
      }
      if (flag) {
        c = 0.0;
        s = 1.0;
        for (int i = l; i <= k; ++i) {
          f = s * RV1(i);
          RV1(i) = c * RV1(i);
          if (std::fabs(f) + anorm == anorm) break;
          g = W(i);
          h = pythag(f, g);
          W(i) = h;
          h = 1.0 / h;
          c = g * h;
          s = -f * h;
          for (int j = 1; j <= m; ++j) {
            y = A(j, nm);
            z = A(j, i);
            A(j, nm) = y * c + z * s;
            A(j, i) = z * c - y * s;
          }
        }
      }
      z = W(k);
      if (l == k) {
        if (z < 0.0) {
          W(k) = -z;
          for (int j = 1; j <= n; ++j) V(j, k) = -V(j, k);
        }
        break;
      }
      if (its == 30) throw OrvexExceptionMathError("no convergence in 30 svdcmp iterations");
      x = W(l);
      nm = k - 1;
      y = W(nm);
      g = RV1(nm);
      h = RV1(k);
      f = ((y - z) * (y + z) + (g - h) * (g + h)) / (2.0 * h * y);
      g = pythag(f, 1.0);
      f = ((x - z) * (x + z) + h * ((y / (f + SignOf(g, f))) - h)) / x;
      c = s = 1.0;
      for (int j = l; j <= nm; ++j) {
        const int i = j + 1;
        g = RV1(i);
        y = W(i);
        h = s * g;
        g = c * g;
        z = pythag(f, h);
        RV1(j) = z;
        c = f / z;
        s = h / z;
        f = x * c + g * s;
        g = g * c - x * s;
        h = y * s;
        y *= c;
        for (int jj = 1; jj <= n; ++jj) {
          x = V(jj, j);
          z = V(jj, i);
          V(jj, j) = x * c + z * s;
          V(jj, i) = z * c - x * s;
        }
        z = pythag(f, h);
        W(j) = z;
        if (z != 0.0) {
          z = 1.0 / z;
          c = f * z;
          s = h * z;
        }
        f = c * g + s * y;
        x = c * y - s * g;
        for (int jj = 1; jj <= m; ++jj) {
          y = A(jj, j);
          z = A(jj, i);
          A(jj, j) = y * c + z * s;
          A(jj, i) = z * c - y * s;
        }
      }
      RV1(l) = 0.0;
      RV1(k) = f;
      W(k) = x;
    }
  }
}

void svreord(double** u, int m, int n, double* w, double** v) {
  std::vector<double> su(m), sv(n);
  int inc = 1;
  do {
    inc = inc * 3 + 1;
  } while (inc <= n);
  do {
    inc /= 3;
    for (int i = inc; i < n; ++i) {
      const double sw = w[i];
      for (int k = 0; k < m; ++k) su[k] = u[k][i];
      for (int k = 0; k < n; ++k) sv[k] = v[k][i];
      int j = i;
      while (w[j - inc] < sw) {
        w[j] = w[j - inc];
        for (int k = 0; k < m; ++k) u[k][j] = u[k][j - inc];
        for (int k = 0; k < n; ++k) v[k][j] = v[k][j - inc];
        j -= inc;
        if (j < inc) break;
      }
      w[j] = sw;
      for (int k = 0; k < m; ++k) u[k][j] = su[k];
      for (int k = 0; k < n; ++k) v[k][j] = sv[k];
    }
  } while (inc > 1);
  for (int k = 0; k < n; ++k) {
    int negatives = 0;
    for (int i = 0; i < m; ++i)
      if (u[i][k] < 0.0) ++negatives;
    for (int j = 0; j < n; ++j)
      if (v[j][k] < 0.0) ++negatives;
    if (negatives > (m + n) / 2) {
      for (int i = 0; i < m; ++i) u[i][k] = -u[i][k];
      for (int j = 0; j < n; ++j) v[j][k] = -v[j][k];
    }
  }
}

void svdec(double** a, int m, int n, double* w, double** v) {
  svdcmp(a, m, n, w, v);
  svreord(a, m, n, w, v);
}

void svbksb(double** u, const double* w, double** v, int m, int n, const double* b, double* x) {
  std::vector<double> tmp(n);
  for (int j = 0; j < n; ++j) {
    double s = 0.0;
    if (w[j] != 0.0) {
      for (int i = 0; i < m; ++i) s += u[i][j] * b[i];
      s /= w[j];
    }
    tmp[j] = s;
  }
  for (int j = 0; j < n; ++j) {
    double s = 0.0;
    for (int jj = 0; jj < n; ++jj) s += v[j][jj] * tmp[jj];
    x[j] = s;
  }
}

// ---------------------------------------------------------------------------------------------
// Regressions

void LinearRegression(const double* x, const double* y, int n, int firstIndex, int lastIndex, double& slope,
                      double& offset) {
  if (firstIndex == -1 && lastIndex == -1) {
    firstIndex = 0;
    lastIndex = n - 1;
  }
  firstIndex = std::clamp(firstIndex, 0, std::max(n - 1, 0));
  lastIndex = std::clamp(lastIndex, 0, std::max(n - 1, 0));
  if (firstIndex > lastIndex) std::swap(firstIndex, lastIndex);
  slope = 0.0;
  offset = 0.0;
  if (n < 1) return;
  const int count = lastIndex - firstIndex + 1;
  long double sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (int i = firstIndex; i <= lastIndex; ++i) {
    sx += x[i];
    sy += y[i];
    sxx += static_cast<long double>(x[i]) * x[i];
    sxy += static_cast<long double>(x[i]) * y[i];
  }
  const long double det = count * sxx - sx * sx;
  if (count < 2 || det == 0) {
    offset = static_cast<double>(sy / count);
    return;
  }
  slope = static_cast<double>((count * sxy - sx * sy) / det);
  offset = static_cast<double>((sy - slope * sx) / count);
}

bool PolynomRegression(const double* x, const double* y, int n, int order, double* coefficients) {
  if (order < 0) return false;
  const int m = order + 1;
  for (int i = 0; i < m; ++i) coefficients[i] = 0.0;
  if (n < m) return false;
  std::vector<long double> powSums(2 * m - 1, 0.0L), rhs(m, 0.0L), a(m * m);
  for (int k = 0; k < n; ++k) {
    long double p = 1.0L;
    for (int j = 0; j < 2 * m - 1; ++j) {
      powSums[j] += p;
      if (j < m) rhs[j] += p * y[k];
      p *= x[k];
    }
  }
  for (int i = 0; i < m; ++i)
    for (int j = 0; j < m; ++j) a[i * m + j] = powSums[i + j];
  std::vector<int> index(m);
  long double d;
  if (!ludcmp(a.data(), m, index.data(), &d) || !CheckLinearDependency(a.data(), m)) return false;
  lubksb(a.data(), m, index.data(), rhs.data());
  for (int i = 0; i < m; ++i) coefficients[i] = static_cast<double>(rhs[i]);
  return true;
}

// ---------------------------------------------------------------------------------------------
// TSolveLinearVectorEquation

TSolveLinearVectorEquation::~TSolveLinearVectorEquation() {
  FreeArrays();
}

void TSolveLinearVectorEquation::FreeArrays() {
  delete[] NormalMatrix;
  delete[] PivotIndex;
  delete[] RightSide;
  NormalMatrix = nullptr;
  PivotIndex = nullptr;
  RightSide = nullptr;
  IsValid = false;
}

void TSolveLinearVectorEquation::CreateArrays(int nBasis, int length) {
  FreeArrays();
  NumberOfBasisVectors = std::max(nBasis, 0);
  VectorLength = std::max(length, 0);
  if (NumberOfBasisVectors > 0) {
    NormalMatrix = new float[NumberOfBasisVectors * NumberOfBasisVectors]();
    PivotIndex = new int[NumberOfBasisVectors]();
    RightSide = new float[NumberOfBasisVectors]();
  }
}

TSolveLinearVectorEquation* TSolveLinearVectorEquation::Clone() const {
  auto* r = new TSolveLinearVectorEquation();
  r->CreateArrays(NumberOfBasisVectors, VectorLength);
  r->Basis = Basis;
  const int nn = NumberOfBasisVectors;
  if (nn > 0) {
    std::memcpy(r->NormalMatrix, NormalMatrix, sizeof(float) * nn * nn);
    std::memcpy(r->PivotIndex, PivotIndex, sizeof(int) * nn);
  }
  r->IsValid = IsValid;
  return r;
}

void TSolveLinearVectorEquation::NormalizeBasis() {
  if (!Basis) return;
  for (int i = 0; i < NumberOfBasisVectors; ++i) {
    double s = 0;
    for (int k = 0; k < VectorLength; ++k) s += std::fabs(Basis[i][k]);
    if (s > 0)
      for (int k = 0; k < VectorLength; ++k) Basis[i][k] = static_cast<float>(Basis[i][k] / s);
  }
}

void TSolveLinearVectorEquation::Init() {
  IsValid = false;
  const int nn = NumberOfBasisVectors;
  if (!Basis || nn < 1 || !NormalMatrix) return;
  for (int i = 0; i < nn; ++i)
    for (int j = 0; j <= i; ++j) {
      double s = 0;
      for (int k = 0; k < VectorLength; ++k) s += double(Basis[i][k]) * Basis[j][k];
      NormalMatrix[i * nn + j] = NormalMatrix[j * nn + i] = static_cast<float>(s);
    }
  if (nn == 1) {
    IsValid = std::fabs(NormalMatrix[0]) >= 1e-30f;
    PivotIndex[0] = 0;
    return;
  }
  float d;
  IsValid = ludcmp(NormalMatrix, nn, PivotIndex, &d);
}

void TSolveLinearVectorEquation::GetResult(const float* b, float** coefficients, float* residual) {
  if (!coefficients) return;
  const int nn = NumberOfBasisVectors;
  if (!*coefficients && nn > 0) *coefficients = new float[nn]();
  if (!IsValid) return;
  for (int i = 0; i < nn; ++i) {
    double s = 0;
    for (int k = 0; k < VectorLength; ++k) s += double(Basis[i][k]) * b[k];
    RightSide[i] = static_cast<float>(s);
  }
  if (nn == 1)
    RightSide[0] /= NormalMatrix[0];
  else
    lubksb(NormalMatrix, nn, PivotIndex, RightSide);
  std::memcpy(*coefficients, RightSide, sizeof(float) * nn);
  if (residual) {
    double sq = 0;
    for (int k = 0; k < VectorLength; ++k) {
      double r = b[k];
      for (int i = 0; i < nn; ++i) r -= double(RightSide[i]) * Basis[i][k];
      sq += r * r;
    }
    *residual = VectorLength > 0 ? static_cast<float>(std::sqrt(sq / VectorLength)) : 0.0f;
  }
}
