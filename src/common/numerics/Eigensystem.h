// Eigenvalues and eigenvectors of real symmetric matrices: Householder reduction to tridiagonal form with
// accumulation of the transformation (tred2), implicit QL with shifts (tqli) and the ascending sort.
#pragma once

#include "common/numerics/Vectorunits.h"

#include <cstddef>
#include <functional>

/// Runs task(0) ... task(taskCount-1), possibly at the same time on several threads, and returns when all
/// have finished. Tasks of one call touch disjoint data.
using TParallelFor = std::function<void(int taskCount, const std::function<void(int task)>& task)>;

/// A TParallelFor on threadCount std::threads (the calling thread is one of them) that deals the tasks one
/// at a time to whichever thread is free. The first exception of a task is rethrown after all have joined.
TParallelFor MakeThreadParallelFor(int threadCount);

/// What a long eigen-calculation reports and listens to. Every member may be left empty.
struct TEigenHooks {
  /// Progress as done out of total steps; called on the calling thread only.
  std::function<void(long long done, long long total)> Progress;
  /// Asked on the calling thread between steps; true stops the calculation with TEigenStatus::Cancelled.
  std::function<bool()> Cancel;
  /// Runs the vector-sized parts (accumulation, rotations of the eigenvectors) on several threads; the
  /// results do not depend on the number of threads. Empty: on the calling thread.
  TParallelFor ParallelFor;
  /// Plain forces the portable loops instead of the vector units.
  TKernelPath Path = TKernelPath::Auto;
  /// QL iterations allowed in all before TEigenStatus::NoConvergence; 0 means 1000 n, which finite input
  /// never reaches.
  long long IterationLimit = 0;
};

enum class TEigenStatus : int {
  Ok = 0,
  Cancelled = 1,     ///< the Cancel hook said so; the outputs are left part-way
  NoConvergence = 2, ///< non-finite values, or the QL iteration limit reached without convergence
};

/// Householder reduction of the symmetric n x n matrix a (rows of stride lda; only the lower triangle,
/// column <= row, is read) to tridiagonal form, from the last row up, with accumulation: on return a holds
/// the orthogonal Q with A = Q T Q^T, d the diagonal of T and e its sub-diagonal with e[i] = T[i][i-1],
/// e[0] = 0. Progress counts 3 n steps in all (two per reduced row, then the accumulation). Each step of the
/// reduction on 320 rows or more runs as two tasks, the accumulation as many, through hooks.ParallelFor.
/// Allocates n (n + 3) / 2 + 3 n doubles and frees them on every path. On cancel a, d and e are left
/// part-way.
TEigenStatus tred2(double* a, int n, std::ptrdiff_t lda, double* d, double* e, const TEigenHooks& hooks = {});

/// Implicit QL with the shift from the leading 2 x 2 block on the tridiagonal matrix (d, e as tred2 leaves
/// them; e is destroyed). On return d holds the eigenvalues, unsorted. With z given (n x n, stride ldz),
/// every plane rotation also turns columns of z, so z = Q from tred2 gives the eigenvectors of A in its
/// columns (column j for d[j]). A sub-diagonal element e[m] counts as zero when |e[m]| + (|d[m]| +
/// |d[m+1]|) equals |d[m]| + |d[m+1]|. Cancel is asked in every iteration. Rotations are recorded for
/// several sweeps and then applied to the rows of the transposed z (z is transposed in place before and
/// after), in strips of 16 columns dealt over hooks.ParallelFor. Allocates its rotation buffer and one
/// n x 16 copy of a strip per task, and frees them.
TEigenStatus tqli(double* d, double* e, int n, double* z, std::ptrdiff_t ldz, const TEigenHooks& hooks = {});

/// Selection sort into ascending order of d, carrying the columns of v (n x n, stride ldv; may be null):
/// for i from 0 to n-2 the smallest of d[i..n-1] is found, a later element replacing the candidate only
/// when strictly smaller, and swapped with position i when it lies elsewhere.
void SortEigensystemAscending(double* d, double* v, int n, std::ptrdiff_t ldv);

/// tred2, tqli and SortEigensystemAscending in one: a (n x n, stride lda, lower triangle read) is replaced
/// by the eigenvectors in its columns, d receives the eigenvalues ascending. Works on the transposed
/// eigenvectors throughout and transposes once at the end. Progress counts 4 n steps in all.
TEigenStatus SymmetricEigensystem(double* a, int n, std::ptrdiff_t lda, double* d,
                                  const TEigenHooks& hooks = {});
