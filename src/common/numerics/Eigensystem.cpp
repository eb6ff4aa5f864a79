// Eigenvalues and eigenvectors of real symmetric matrices: Householder reduction to tridiagonal form with
// accumulation of the transformation (tred2), implicit QL with shifts (tqli) and the ascending sort.
//
// The reduction keeps the textbook order (last row first, scaled Householder vectors, P = I - u u^T / H
// with H = |u|^2 / 2) but reads the matrix row-wise only: the rank-2 update of one step and the product of
// the trailing matrix with the next Householder vector are done in one pass over the lower triangle, so
// each step streams the matrix once instead of twice. The accumulation forms Q^T row by row, each row
// the product e_r^T P_{r+1} ... P_{n-1}; rows are independent and are dealt to threads in groups.
// QL records the plane rotations of many sweeps and then applies them in order to column strips of the
// transposed eigenvector matrix, where a rotation mixes two contiguous rows; strips go to threads.
#include "common/numerics/Eigensystem.h"

#include "common/numerics/Linalg.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define OX_EIGEN_X86 1
#endif

namespace {

// Reflector rows of Q^T handled by one task of the accumulation.
constexpr int kGroupRows = 8;
// Columns of the transposed eigenvector matrix in one strip of the rotation pass.
constexpr int kStripColumns = 16;
// Rows of the trailing matrix from which a step of the reduction runs as two tasks (below, the cost of a
// thread start outweighs the gain).
constexpr int kSplitRows = 320;
// Rotations recorded before they are applied to the eigenvectors.
constexpr std::size_t kRotationBatch = 65536;

struct TRotation {
  int Index; // mixes rows Index and Index + 1 of the transposed eigenvectors
  double C;
  double S;
};

class TProgressSpan {
public:
  TProgressSpan(const TEigenHooks& hooks, long long offset, long long total)
      : Hooks(hooks), Offset(offset), Total(total) {}
  void Report(long long done) const {
    if (Hooks.Progress) Hooks.Progress(Offset + done, Total);
  }

private:
  const TEigenHooks& Hooks;
  long long Offset;
  long long Total;
};

bool IsCancelled(const TEigenHooks& hooks) {
  return hooks.Cancel && hooks.Cancel();
}

void RunTasks(const TEigenHooks& hooks, int count, const std::function<void(int)>& task) {
  if (count <= 0) return;
  if (hooks.ParallelFor && count > 1) {
    hooks.ParallelFor(count, task);
  } else {
    for (int i = 0; i < count; ++i) task(i);
  }
}

void TransposeInPlace(double* a, int n, std::ptrdiff_t lda) {
  constexpr int kBlock = 32;
  for (int bi = 0; bi < n; bi += kBlock)
    for (int bj = 0; bj <= bi; bj += kBlock) {
      const int iEnd = std::min(bi + kBlock, n), jEnd = std::min(bj + kBlock, n);
      for (int i = bi; i < iEnd; ++i)
        for (int j = bj; j < jEnd && j < i; ++j) std::swap(a[i * lda + j], a[j * lda + i]);
    }
}

inline std::size_t VectorOffset(int i) {
  return static_cast<std::size_t>(i) * (i - 1) / 2;
}

// ---- Reduction: one row of the fused pass ------------------------------------------------------------
// Row j of the lower triangle: row[k] -= u[j] q[k] + q[j] u[k] for k <= j, then, with the new values, the
// row's share of the product with the next Householder vector w: adds row[k] w[j] to p[k] for k < j and
// returns sum over k <= j of row[k] w[k] (the share of p[j]).
double FusedRowPlain(double* row, int j, const double* u, const double* q, const double* w, double* p) {
  const double uj = u[j], qj = q[j], wj = w[j];
  double s = 0.0;
  for (int k = 0; k < j; ++k) {
    const double v = row[k] - (uj * q[k] + qj * u[k]);
    row[k] = v;
    s += v * w[k];
    p[k] += v * wj;
  }
  const double v = row[j] - (uj * q[j] + qj * u[j]);
  row[j] = v;
  return s + v * w[j];
}

#ifdef OX_EIGEN_X86
__attribute__((target("avx2,fma"))) inline double HorizontalSum(__m256d v) {
  const __m128d lo = _mm256_castpd256_pd128(v), hi = _mm256_extractf128_pd(v, 1);
  const __m128d s = _mm_add_pd(lo, hi);
  return _mm_cvtsd_f64(_mm_add_sd(s, _mm_unpackhi_pd(s, s)));
}

__attribute__((target("avx2,fma"))) double FusedRowVector(double* row, int j, const double* u,
                                                          const double* q, const double* w, double* p) {
  const double uj = u[j], qj = q[j], wj = w[j];
  const __m256d vuj = _mm256_set1_pd(uj), vqj = _mm256_set1_pd(qj), vwj = _mm256_set1_pd(wj);
  __m256d acc0 = _mm256_setzero_pd(), acc1 = _mm256_setzero_pd();
  int k = 0;
  for (; k + 8 <= j; k += 8) {
    __m256d t0 = _mm256_mul_pd(vuj, _mm256_loadu_pd(q + k));
    __m256d t1 = _mm256_mul_pd(vuj, _mm256_loadu_pd(q + k + 4));
    t0 = _mm256_fmadd_pd(vqj, _mm256_loadu_pd(u + k), t0);
    t1 = _mm256_fmadd_pd(vqj, _mm256_loadu_pd(u + k + 4), t1);
    const __m256d v0 = _mm256_sub_pd(_mm256_loadu_pd(row + k), t0);
    const __m256d v1 = _mm256_sub_pd(_mm256_loadu_pd(row + k + 4), t1);
    _mm256_storeu_pd(row + k, v0);
    _mm256_storeu_pd(row + k + 4, v1);
    acc0 = _mm256_fmadd_pd(v0, _mm256_loadu_pd(w + k), acc0);
    acc1 = _mm256_fmadd_pd(v1, _mm256_loadu_pd(w + k + 4), acc1);
    _mm256_storeu_pd(p + k, _mm256_fmadd_pd(v0, vwj, _mm256_loadu_pd(p + k)));
    _mm256_storeu_pd(p + k + 4, _mm256_fmadd_pd(v1, vwj, _mm256_loadu_pd(p + k + 4)));
  }
  double s = HorizontalSum(_mm256_add_pd(acc0, acc1));
  for (; k < j; ++k) {
    const double v = row[k] - (uj * q[k] + qj * u[k]);
    row[k] = v;
    s += v * w[k];
    p[k] += v * wj;
  }
  const double v = row[j] - (uj * q[j] + qj * u[j]);
  row[j] = v;
  return s + v * w[j];
}
#endif

// ---- Accumulation: rows of Q^T times the reflectors --------------------------------------------------
// Applies P_i = I - u_i u_i^T / H_i for i = first..n-1 from the right to the given rows.
void ReflectRowsPlain(double* const* rows, int count, int first, int n, const double* vectors,
                      const double* h) {
  for (int i = first; i < n; ++i) {
    if (h[i] == 0.0) continue;
    const double* u = vectors + VectorOffset(i);
    for (int g = 0; g < count; ++g) {
      double* x = rows[g];
      double s = 0.0;
      for (int k = 0; k < i; ++k) s += x[k] * u[k];
      const double f = s / h[i];
      for (int k = 0; k < i; ++k) x[k] -= f * u[k];
    }
  }
}

#ifdef OX_EIGEN_X86
// Four rows through all reflectors i >= first. The update by one reflector and the dot products with the
// next are done in one pass over the rows, so each reflector reads and writes the rows once; every
// element of a reflector is loaded once for the four rows.
__attribute__((target("avx2,fma"))) void Reflect4ChainVector(double* const* x, int first, int n,
                                                             const double* vectors, const double* h) {
  double* x0 = x[0];
  double* x1 = x[1];
  double* x2 = x[2];
  double* x3 = x[3];
  auto next = [&](int i) {
    while (i < n && h[i] == 0.0) ++i;
    return i;
  };
  int i = next(first);
  if (i >= n) return;
  // Dot products with the first reflector.
  double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
  {
    const double* u = vectors + VectorOffset(i);
    __m256d a0 = _mm256_setzero_pd(), a1 = _mm256_setzero_pd(), a2 = _mm256_setzero_pd(),
            a3 = _mm256_setzero_pd();
    int k = 0;
    for (; k + 4 <= i; k += 4) {
      const __m256d uv = _mm256_loadu_pd(u + k);
      a0 = _mm256_fmadd_pd(_mm256_loadu_pd(x0 + k), uv, a0);
      a1 = _mm256_fmadd_pd(_mm256_loadu_pd(x1 + k), uv, a1);
      a2 = _mm256_fmadd_pd(_mm256_loadu_pd(x2 + k), uv, a2);
      a3 = _mm256_fmadd_pd(_mm256_loadu_pd(x3 + k), uv, a3);
    }
    s0 = HorizontalSum(a0);
    s1 = HorizontalSum(a1);
    s2 = HorizontalSum(a2);
    s3 = HorizontalSum(a3);
    for (; k < i; ++k) {
      s0 += x0[k] * u[k];
      s1 += x1[k] * u[k];
      s2 += x2[k] * u[k];
      s3 += x3[k] * u[k];
    }
  }
  for (;;) {
    const double* u = vectors + VectorOffset(i);
    const double f0 = s0 / h[i], f1 = s1 / h[i], f2 = s2 / h[i], f3 = s3 / h[i];
    const __m256d v0 = _mm256_set1_pd(f0), v1 = _mm256_set1_pd(f1), v2 = _mm256_set1_pd(f2),
                  v3 = _mm256_set1_pd(f3);
    const int j = next(i + 1);
    if (j >= n) {
      int k = 0;
      for (; k + 4 <= i; k += 4) {
        const __m256d uv = _mm256_loadu_pd(u + k);
        _mm256_storeu_pd(x0 + k, _mm256_fnmadd_pd(v0, uv, _mm256_loadu_pd(x0 + k)));
        _mm256_storeu_pd(x1 + k, _mm256_fnmadd_pd(v1, uv, _mm256_loadu_pd(x1 + k)));
        _mm256_storeu_pd(x2 + k, _mm256_fnmadd_pd(v2, uv, _mm256_loadu_pd(x2 + k)));
        _mm256_storeu_pd(x3 + k, _mm256_fnmadd_pd(v3, uv, _mm256_loadu_pd(x3 + k)));
      }
      for (; k < i; ++k) {
        x0[k] -= f0 * u[k];
        x1[k] -= f1 * u[k];
        x2[k] -= f2 * u[k];
        x3[k] -= f3 * u[k];
      }
      return;
    }
    // Update by reflector i over k < i, dot products with reflector j over k < j (x beyond i is untouched
    // by reflector i, whose elements stop at i - 1).
    const double* w = vectors + VectorOffset(j);
    __m256d a0 = _mm256_setzero_pd(), a1 = _mm256_setzero_pd(), a2 = _mm256_setzero_pd(),
            a3 = _mm256_setzero_pd();
    int k = 0;
    for (; k + 4 <= i; k += 4) {
      const __m256d uv = _mm256_loadu_pd(u + k), wv = _mm256_loadu_pd(w + k);
      const __m256d y0 = _mm256_fnmadd_pd(v0, uv, _mm256_loadu_pd(x0 + k));
      const __m256d y1 = _mm256_fnmadd_pd(v1, uv, _mm256_loadu_pd(x1 + k));
      const __m256d y2 = _mm256_fnmadd_pd(v2, uv, _mm256_loadu_pd(x2 + k));
      const __m256d y3 = _mm256_fnmadd_pd(v3, uv, _mm256_loadu_pd(x3 + k));
      _mm256_storeu_pd(x0 + k, y0);
      _mm256_storeu_pd(x1 + k, y1);
      _mm256_storeu_pd(x2 + k, y2);
      _mm256_storeu_pd(x3 + k, y3);
      a0 = _mm256_fmadd_pd(y0, wv, a0);
      a1 = _mm256_fmadd_pd(y1, wv, a1);
      a2 = _mm256_fmadd_pd(y2, wv, a2);
      a3 = _mm256_fmadd_pd(y3, wv, a3);
    }
    s0 = HorizontalSum(a0);
    s1 = HorizontalSum(a1);
    s2 = HorizontalSum(a2);
    s3 = HorizontalSum(a3);
    for (; k < i; ++k) {
      x0[k] -= f0 * u[k];
      x1[k] -= f1 * u[k];
      x2[k] -= f2 * u[k];
      x3[k] -= f3 * u[k];
      s0 += x0[k] * w[k];
      s1 += x1[k] * w[k];
      s2 += x2[k] * w[k];
      s3 += x3[k] * w[k];
    }
    for (; k < j; ++k) {
      s0 += x0[k] * w[k];
      s1 += x1[k] * w[k];
      s2 += x2[k] * w[k];
      s3 += x3[k] * w[k];
    }
    i = j;
  }
}

void ReflectRowsVector(double* const* rows, int count, int first, int n, const double* vectors,
                       const double* h) {
  const int whole = count / 4 * 4;
  for (int g = 0; g < whole; g += 4) Reflect4ChainVector(rows + g, first, n, vectors, h);
  // the rows left over take the plain path
  if (whole < count) ReflectRowsPlain(rows + whole, count - whole, first, n, vectors, h);
}
#endif

// ---- QL: recorded rotations applied to a strip of the transposed eigenvectors -------------------------
void RotateStripPlain(double* zt, std::ptrdiff_t ldz, int c0, int width, const TRotation* rot,
                      std::size_t count) {
  for (std::size_t r = 0; r < count; ++r) {
    double* x = zt + rot[r].Index * ldz + c0;
    double* y = x + ldz;
    const double c = rot[r].C, s = rot[r].S;
    for (int k = 0; k < width; ++k) {
      const double f = y[k];
      y[k] = s * x[k] + c * f;
      x[k] = c * x[k] - s * f;
    }
  }
}

#ifdef OX_EIGEN_X86
// Sixteen columns. The rotations of one sweep run down consecutive rows, so the row a rotation leaves for
// the next one stays in registers (four named vectors, so that the compiler keeps them there): per
// rotation and vector one load, one store, two products and two fused multiply-adds.
__attribute__((target("avx2,fma"))) void RotateColumns16Vector(double* zt, std::ptrdiff_t ldz, int c0,
                                                               const TRotation* rot, std::size_t count) {
  __m256d k0 = _mm256_setzero_pd(), k1 = _mm256_setzero_pd(), k2 = _mm256_setzero_pd(),
          k3 = _mm256_setzero_pd();
  int carriedRow = -1;
  for (std::size_t r = 0; r < count; ++r) {
    const int i = rot[r].Index;
    double* x = zt + i * ldz + c0;
    double* y = x + ldz;
    if (carriedRow != i + 1) {
      if (carriedRow >= 0) {
        double* row = zt + carriedRow * ldz + c0;
        _mm256_storeu_pd(row, k0);
        _mm256_storeu_pd(row + 4, k1);
        _mm256_storeu_pd(row + 8, k2);
        _mm256_storeu_pd(row + 12, k3);
      }
      k0 = _mm256_loadu_pd(y);
      k1 = _mm256_loadu_pd(y + 4);
      k2 = _mm256_loadu_pd(y + 8);
      k3 = _mm256_loadu_pd(y + 12);
    }
    const __m256d vc = _mm256_set1_pd(rot[r].C), vs = _mm256_set1_pd(rot[r].S);
    const __m256d x0 = _mm256_loadu_pd(x), x1 = _mm256_loadu_pd(x + 4), x2 = _mm256_loadu_pd(x + 8),
                  x3 = _mm256_loadu_pd(x + 12);
    // The products with the row just loaded go first, so the carried row passes through one multiply-add
    // per rotation: the chain from rotation to rotation is one multiply-add long.
    _mm256_storeu_pd(y, _mm256_fmadd_pd(vc, k0, _mm256_mul_pd(vs, x0)));
    _mm256_storeu_pd(y + 4, _mm256_fmadd_pd(vc, k1, _mm256_mul_pd(vs, x1)));
    _mm256_storeu_pd(y + 8, _mm256_fmadd_pd(vc, k2, _mm256_mul_pd(vs, x2)));
    _mm256_storeu_pd(y + 12, _mm256_fmadd_pd(vc, k3, _mm256_mul_pd(vs, x3)));
    k0 = _mm256_fnmadd_pd(vs, k0, _mm256_mul_pd(vc, x0));
    k1 = _mm256_fnmadd_pd(vs, k1, _mm256_mul_pd(vc, x1));
    k2 = _mm256_fnmadd_pd(vs, k2, _mm256_mul_pd(vc, x2));
    k3 = _mm256_fnmadd_pd(vs, k3, _mm256_mul_pd(vc, x3));
    carriedRow = i;
  }
  if (carriedRow >= 0) {
    double* row = zt + carriedRow * ldz + c0;
    _mm256_storeu_pd(row, k0);
    _mm256_storeu_pd(row + 4, k1);
    _mm256_storeu_pd(row + 8, k2);
    _mm256_storeu_pd(row + 12, k3);
  }
}

// Fewer than sixteen columns (the last strip only): each rotation loads and stores both rows.
__attribute__((target("avx2,fma"))) void RotateColumnsShortVector(double* zt, std::ptrdiff_t ldz, int c0,
                                                                  int width, const TRotation* rot,
                                                                  std::size_t count) {
  for (std::size_t r = 0; r < count; ++r) {
    double* x = zt + rot[r].Index * ldz + c0;
    double* y = x + ldz;
    const __m256d vc = _mm256_set1_pd(rot[r].C), vs = _mm256_set1_pd(rot[r].S);
    for (int k = 0; k < width; k += 4) {
      const __m256d xv = _mm256_loadu_pd(x + k), yv = _mm256_loadu_pd(y + k);
      _mm256_storeu_pd(y + k, _mm256_fmadd_pd(vs, xv, _mm256_mul_pd(vc, yv)));
      _mm256_storeu_pd(x + k, _mm256_fmsub_pd(vc, xv, _mm256_mul_pd(vs, yv)));
    }
  }
}

void RotateStripVector(double* zt, std::ptrdiff_t ldz, int c0, int width, const TRotation* rot,
                       std::size_t count) {
  int done = 0;
  for (; done + 16 <= width; done += 16) RotateColumns16Vector(zt, ldz, c0 + done, rot, count);
  const int vectorWidth = (width - done) / 4 * 4;
  if (vectorWidth > 0) RotateColumnsShortVector(zt, ldz, c0 + done, vectorWidth, rot, count);
  done += vectorWidth;
  if (done < width) RotateStripPlain(zt, ldz, c0 + done, width - done, rot, count);
}
#endif

// ---- The two stages on the layouts used internally ----------------------------------------------------

// Reduction and accumulation; a receives Q^T (transposedQ) or Q.
TEigenStatus Reduce(double* a, int n, std::ptrdiff_t lda, double* d, double* e, const TEigenHooks& hooks,
                    const TProgressSpan& progress, bool transposedQ) {
  if (n <= 0) return TEigenStatus::Ok;
  if (n == 1) {
    d[0] = a[0];
    e[0] = 0.0;
    a[0] = 1.0;
    progress.Report(3);
    return TEigenStatus::Ok;
  }
  const bool vector = UseVectorPath(hooks.Path);
  std::vector<double> vectors(VectorOffset(n) + 1), h(n, 0.0), p(n, 0.0), q(n, 0.0), zero(n, 0.0);

  // Turns row i into its scaled Householder vector (kept in the row and in vectors); sets e[i] and h[i].
  // Returns false when the row is already reduced (no reflector).
  auto prepare = [&](int i) -> bool {
    double* row = a + i * lda;
    const int l = i - 1;
    h[i] = 0.0;
    if (l > 0) {
      double scale = 0.0;
      for (int k = 0; k <= l; ++k) scale += std::fabs(row[k]);
      if (scale != 0.0) {
        double hh = 0.0;
        for (int k = 0; k <= l; ++k) {
          row[k] /= scale;
          hh += row[k] * row[k];
        }
        const double f = row[l];
        const double g = f >= 0.0 ? -std::sqrt(hh) : std::sqrt(hh);
        e[i] = scale * g;
        hh -= f * g;
        row[l] = f - g;
        h[i] = hh;
        std::copy(row, row + i, vectors.begin() + static_cast<std::ptrdiff_t>(VectorOffset(i)));
        return true;
      }
    }
    e[i] = row[l];
    return false;
  };
  auto fusedRow = [vector](double* row, int j, const double* u, const double* qq, const double* w,
                           double* pp) {
#ifdef OX_EIGEN_X86
    if (vector) return FusedRowVector(row, j, u, qq, w, pp);
#else
    (void)vector;
#endif
    return FusedRowPlain(row, j, u, qq, w, pp);
  };

  // The fused pass over rows 0..count-1 adds A w to p. From kSplitRows rows on it runs as two tasks of about
  // equal work (the rows below split, and the rest), each with its own sum, added in a fixed order, so the
  // result is the same on any number of threads.
  std::vector<double> pHigh(n, 0.0);
  auto fusedPass = [&](int count, const double* uu, const double* qq, const double* w) {
    const int split = count >= kSplitRows ? static_cast<int>(count / std::sqrt(2.0)) : count;
    auto range = [&](int task) {
      double* sum = task == 0 ? p.data() : pHigh.data();
      const int j0 = task == 0 ? 0 : split, j1 = task == 0 ? split : count;
      if (task == 1) std::fill(pHigh.begin(), pHigh.begin() + count, 0.0);
      for (int j = j0; j < j1; ++j) sum[j] += fusedRow(a + j * lda, j, uu, qq, w, sum);
    };
    if (split == count) {
      range(0);
      return;
    }
    RunTasks(hooks, 2, range);
    for (int k = 0; k < count; ++k) p[k] += pHigh[k];
  };

  bool reflector = prepare(n - 1);
  if (reflector) fusedPass(n - 1, zero.data(), zero.data(), vectors.data() + VectorOffset(n - 1));
  for (int i = n - 1; i >= 1; --i) {
    if (IsCancelled(hooks)) return TEigenStatus::Cancelled;
    const int l = i - 1;
    const double* u = vectors.data() + VectorOffset(i);
    if (reflector) {
      // p = A u / H, K = u^T p / 2H, q = p - K u; the update is A -= q u^T + u q^T.
      double f = 0.0;
      for (int j = 0; j <= l; ++j) {
        p[j] /= h[i];
        f += p[j] * u[j];
      }
      const double hh = f / (h[i] + h[i]);
      for (int j = 0; j <= l; ++j) q[j] = p[j] - hh * u[j];
      double* row = a + l * lda;
      for (int k = 0; k <= l; ++k) row[k] -= u[l] * q[k] + q[l] * u[k];
    }
    const bool next = l >= 1 && prepare(l);
    std::fill(p.begin(), p.begin() + l, 0.0);
    if (reflector || next) {
      const double* w = next ? vectors.data() + VectorOffset(l) : zero.data();
      const double* uu = reflector ? u : zero.data();
      const double* qq = reflector ? q.data() : zero.data();
      fusedPass(l, uu, qq, w);
    }
    reflector = next;
    progress.Report(2LL * (n - i));
  }
  for (int i = 0; i < n; ++i) d[i] = a[i * lda + i];
  e[0] = 0.0;

  // Accumulation: row r of Q^T is e_r^T P_{r+1} ... P_{n-1} (P_i leaves e_r^T alone for i <= r).
  const int groups = (n + kGroupRows - 1) / kGroupRows;
  auto group = [&](int g) {
    const int r0 = g * kGroupRows, count = std::min(kGroupRows, n - r0);
    double* rows[kGroupRows];
    for (int r = 0; r < count; ++r) {
      rows[r] = a + (r0 + r) * lda;
      std::fill(rows[r], rows[r] + n, 0.0);
      rows[r][r0 + r] = 1.0;
    }
#ifdef OX_EIGEN_X86
    if (vector) {
      ReflectRowsVector(rows, count, r0 + 1, n, vectors.data(), h.data());
      return;
    }
#endif
    ReflectRowsPlain(rows, count, r0 + 1, n, vectors.data(), h.data());
  };
  // A few rounds, so that progress and cancel are heard while the threads work.
  constexpr int kRounds = 8;
  for (int round = 0; round < kRounds; ++round) {
    if (IsCancelled(hooks)) return TEigenStatus::Cancelled;
    const int g0 = static_cast<int>(static_cast<long long>(groups) * round / kRounds);
    const int g1 = static_cast<int>(static_cast<long long>(groups) * (round + 1) / kRounds);
    RunTasks(hooks, g1 - g0, [&](int t) { group(g0 + t); });
    progress.Report(2LL * (n - 1) + static_cast<long long>(n + 2) * (round + 1) / kRounds);
  }
  if (!transposedQ) TransposeInPlace(a, n, lda);
  return TEigenStatus::Ok;
}

// Implicit QL; zt (may be null) holds the transposed eigenvectors, rows turned by the rotations.
TEigenStatus QL(double* d, double* e, int n, double* zt, std::ptrdiff_t ldz, const TEigenHooks& hooks,
                const TProgressSpan& progress) {
  if (n <= 0) return TEigenStatus::Ok;
  for (int i = 1; i < n; ++i) e[i - 1] = e[i];
  e[n - 1] = 0.0;
  for (int i = 0; i < n; ++i)
    if (!std::isfinite(d[i]) || !std::isfinite(e[i])) return TEigenStatus::NoConvergence;

  const bool vector = UseVectorPath(hooks.Path);
  std::vector<TRotation> rotations;
  if (zt) rotations.reserve(std::min<std::size_t>(kRotationBatch, 4 * static_cast<std::size_t>(n) * n) + n);
  auto flush = [&]() {
    if (!zt || rotations.empty()) return;
    int first = n, last = 0; // rows the batch touches
    for (const TRotation& r : rotations) {
      first = std::min(first, r.Index);
      last = std::max(last, r.Index + 1);
    }
    const int rows = last - first + 1;
    const int strips = (n + kStripColumns - 1) / kStripColumns;
    RunTasks(hooks, strips, [&](int strip) {
      const int c0 = strip * kStripColumns, width = std::min(kStripColumns, n - c0);
      // The strip is copied to a dense buffer first: its rows are then neighbours in memory, which the
      // processor's prefetchers follow, instead of one page apart.
      std::vector<double> buffer(static_cast<std::size_t>(rows) * kStripColumns);
      for (int r = 0; r < rows; ++r)
        std::copy(zt + (first + r) * ldz + c0, zt + (first + r) * ldz + c0 + width,
                  buffer.begin() + static_cast<std::ptrdiff_t>(r) * kStripColumns);
      double* base = buffer.data() - static_cast<std::ptrdiff_t>(first) * kStripColumns;
#ifdef OX_EIGEN_X86
      if (vector)
        RotateStripVector(base, kStripColumns, 0, width, rotations.data(), rotations.size());
      else
        RotateStripPlain(base, kStripColumns, 0, width, rotations.data(), rotations.size());
#else
      (void)vector;
      RotateStripPlain(base, kStripColumns, 0, width, rotations.data(), rotations.size());
#endif
      for (int r = 0; r < rows; ++r)
        std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(r) * kStripColumns,
                  buffer.begin() + static_cast<std::ptrdiff_t>(r) * kStripColumns + width,
                  zt + (first + r) * ldz + c0);
    });
    rotations.clear();
  };

  const long long limit = hooks.IterationLimit > 0 ? hooks.IterationLimit : 1000LL * n;
  long long iterations = 0;
  for (int l = 0; l < n; ++l) {
    for (;;) {
      int m = l;
      for (; m < n - 1; ++m) {
        const double dd = std::fabs(d[m]) + std::fabs(d[m + 1]);
        if (std::fabs(e[m]) + dd == dd) break;
      }
      if (m == l) break;
      if (++iterations > limit) {
        flush();
        return TEigenStatus::NoConvergence;
      }
      if (IsCancelled(hooks)) {
        flush();
        return TEigenStatus::Cancelled;
      }
      // Shift from the eigenvalue of the leading 2 x 2 block that lies nearer to d[l].
      double g = (d[l + 1] - d[l]) / (2.0 * e[l]);
      double r = pythag(g, 1.0);
      g = d[m] - d[l] + e[l] / (g + (g >= 0.0 ? std::fabs(r) : -std::fabs(r)));
      double s = 1.0, c = 1.0, p = 0.0;
      int i = m - 1;
      for (; i >= l; --i) {
        const double f = s * e[i];
        const double b = c * e[i];
        e[i + 1] = (r = pythag(f, g));
        if (r == 0.0) {
          // underflow: the block splits here
          d[i + 1] -= p;
          e[m] = 0.0;
          break;
        }
        s = f / r;
        c = g / r;
        g = d[i + 1] - p;
        r = (d[i] - g) * s + 2.0 * c * b;
        d[i + 1] = g + (p = s * r);
        g = c * r - b;
        if (zt) rotations.push_back({i, c, s});
      }
      if (r == 0.0 && i >= l) continue;
      d[l] -= p;
      e[l] = g;
      e[m] = 0.0;
      if (!std::isfinite(d[l]) || !std::isfinite(g)) {
        flush();
        return TEigenStatus::NoConvergence;
      }
      if (rotations.size() >= kRotationBatch) flush();
    }
    progress.Report(l + 1);
  }
  flush();
  return TEigenStatus::Ok;
}

// Selection sort; the vectors are the rows (transposed) or the columns of v.
void SelectionSort(double* d, double* v, int n, std::ptrdiff_t ldv, bool rows) {
  for (int i = 0; i < n - 1; ++i) {
    int k = i;
    double smallest = d[i];
    for (int j = i + 1; j < n; ++j)
      if (d[j] < smallest) {
        smallest = d[j];
        k = j;
      }
    if (k == i) continue;
    std::swap(d[i], d[k]);
    if (!v) continue;
    if (rows) {
      std::swap_ranges(v + i * ldv, v + i * ldv + n, v + k * ldv);
    } else {
      for (int r = 0; r < n; ++r) std::swap(v[r * ldv + i], v[r * ldv + k]);
    }
  }
}

} // namespace

TParallelFor MakeThreadParallelFor(int threadCount) {
  threadCount = std::max(1, threadCount);
  return [threadCount](int taskCount, const std::function<void(int)>& task) {
    if (taskCount <= 0) return;
    const int workers = std::min(threadCount, taskCount);
    std::atomic<int> next{0};
    std::atomic<bool> failed{false};
    std::exception_ptr firstError;
    std::mutex errorLock;
    auto run = [&]() {
      for (;;) {
        if (failed.load(std::memory_order_relaxed)) return;
        const int t = next.fetch_add(1);
        if (t >= taskCount) return;
        try {
          task(t);
        } catch (...) {
          std::lock_guard<std::mutex> lock(errorLock);
          if (!firstError) firstError = std::current_exception();
          failed = true;
        }
      }
    };
    std::vector<std::thread> threads;
    threads.reserve(workers - 1);
    for (int i = 1; i < workers; ++i) threads.emplace_back(run);
    run();
    for (std::thread& t : threads) t.join();
    if (firstError) std::rethrow_exception(firstError);
  };
}

TEigenStatus tred2(double* a, int n, std::ptrdiff_t lda, double* d, double* e, const TEigenHooks& hooks) {
  return Reduce(a, n, lda, d, e, hooks, TProgressSpan(hooks, 0, 3LL * n), false);
}

TEigenStatus tqli(double* d, double* e, int n, double* z, std::ptrdiff_t ldz, const TEigenHooks& hooks) {
  if (z) TransposeInPlace(z, n, ldz);
  const TEigenStatus status = QL(d, e, n, z, ldz, hooks, TProgressSpan(hooks, 0, n));
  if (z) TransposeInPlace(z, n, ldz);
  return status;
}

void SortEigensystemAscending(double* d, double* v, int n, std::ptrdiff_t ldv) {
  SelectionSort(d, v, n, ldv, false);
}

TEigenStatus SymmetricEigensystem(double* a, int n, std::ptrdiff_t lda, double* d, const TEigenHooks& hooks) {
  if (n <= 0) return TEigenStatus::Ok;
  std::vector<double> e(n);
  TEigenStatus status = Reduce(a, n, lda, d, e.data(), hooks, TProgressSpan(hooks, 0, 4LL * n), true);
  if (status != TEigenStatus::Ok) return status;
  status = QL(d, e.data(), n, a, lda, hooks, TProgressSpan(hooks, 3LL * n, 4LL * n));
  if (status != TEigenStatus::Ok) return status;
  SelectionSort(d, a, n, lda, true);
  TransposeInPlace(a, n, lda);
  return TEigenStatus::Ok;
}
