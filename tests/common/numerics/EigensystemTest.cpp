// Symmetric eigen-solver: closed forms, accuracy bounds, sort order, hooks and thread invariance.
#include "common/numerics/Eigensystem.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr double kPi = 3.14159265358979323846;

using TMatrix = std::vector<double>; // n x n, row-major

// A random orthogonal matrix: the product of n random Householder reflections.
TMatrix RandomOrthogonal(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> dist;
  TMatrix q(n * n, 0.0);
  for (int i = 0; i < n; ++i) q[i * n + i] = 1.0;
  std::vector<double> v(n), w(n);
  for (int step = 0; step < n; ++step) {
    double norm2 = 0;
    for (double& x : v) {
      x = dist(gen);
      norm2 += x * x;
    }
    // q <- q (I - 2 v v^T / |v|^2)
    for (int r = 0; r < n; ++r) {
      double s = 0;
      for (int k = 0; k < n; ++k) s += q[r * n + k] * v[k];
      const double f = 2.0 * s / norm2;
      for (int k = 0; k < n; ++k) q[r * n + k] -= f * v[k];
    }
  }
  return q;
}

// A = Q diag(lambda) Q^T.
TMatrix FromEigensystem(const TMatrix& q, const std::vector<double>& lambda) {
  const int n = static_cast<int>(lambda.size());
  TMatrix a(n * n, 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) {
      double s = 0;
      for (int k = 0; k < n; ++k) s += q[i * n + k] * lambda[k] * q[j * n + k];
      a[i * n + j] = a[j * n + i] = s;
    }
  return a;
}

TMatrix SecondDifference(int n) {
  TMatrix a(n * n, 0.0);
  for (int i = 0; i < n; ++i) {
    a[i * n + i] = 2.0;
    if (i > 0) a[i * n + i - 1] = a[(i - 1) * n + i] = -1.0;
  }
  return a;
}

struct TAccuracy {
  double Residual = 0;      // max over j of |A v_j - d_j v_j|
  double Orthogonality = 0; // Frobenius norm of V^T V - I
};

// v holds the eigenvectors in its columns.
TAccuracy Measure(const TMatrix& a, const std::vector<double>& d, const TMatrix& v) {
  const int n = static_cast<int>(d.size());
  TAccuracy acc;
  for (int j = 0; j < n; ++j) {
    double r2 = 0;
    for (int i = 0; i < n; ++i) {
      double s = -d[j] * v[i * n + j];
      for (int k = 0; k < n; ++k) s += a[i * n + k] * v[k * n + j];
      r2 += s * s;
    }
    acc.Residual = std::max(acc.Residual, std::sqrt(r2));
  }
  double o2 = 0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      double s = i == j ? -1.0 : 0.0;
      for (int k = 0; k < n; ++k) s += v[k * n + i] * v[k * n + j];
      o2 += s * s;
    }
  acc.Orthogonality = std::sqrt(o2);
  return acc;
}

// Solves with the one-call form; returns eigenvalues and vectors (columns).
TEigenStatus Solve(const TMatrix& a, int n, std::vector<double>& d, TMatrix& v,
                   const TEigenHooks& hooks = {}) {
  v = a;
  d.assign(n, 0.0);
  return SymmetricEigensystem(v.data(), n, n, d.data(), hooks);
}

// Solves with the three textbook steps one after the other.
TEigenStatus SolveInSteps(const TMatrix& a, int n, std::vector<double>& d, TMatrix& v,
                          const TEigenHooks& hooks = {}) {
  v = a;
  d.assign(n, 0.0);
  std::vector<double> e(n, 0.0);
  TEigenStatus status = tred2(v.data(), n, n, d.data(), e.data(), hooks);
  if (status != TEigenStatus::Ok) return status;
  status = tqli(d.data(), e.data(), n, v.data(), n, hooks);
  if (status != TEigenStatus::Ok) return status;
  SortEigensystemAscending(d.data(), v.data(), n, n);
  return status;
}

struct TVariant {
  bool InSteps;
  TKernelPath Path;
  int Threads;
};

std::vector<TVariant> AllVariants() {
  std::vector<TVariant> out;
  for (bool steps : {false, true})
    for (TKernelPath path : {TKernelPath::Auto, TKernelPath::Plain})
      for (int threads : {1, 2}) out.push_back({steps, path, threads});
  return out;
}

TEigenStatus SolveVariant(const TVariant& var, const TMatrix& a, int n, std::vector<double>& d, TMatrix& v) {
  TEigenHooks hooks;
  hooks.Path = var.Path;
  if (var.Threads > 1) hooks.ParallelFor = MakeThreadParallelFor(var.Threads);
  return var.InSteps ? SolveInSteps(a, n, d, v, hooks) : Solve(a, n, d, v, hooks);
}

std::string Describe(const TVariant& var, int n) {
  return "n=" + std::to_string(n) + (var.InSteps ? " steps" : " one call") +
         (var.Path == TKernelPath::Plain ? " plain" : " auto") + " threads=" + std::to_string(var.Threads);
}

} // namespace

TEST(Eigensystem, SecondDifferenceMatrixMatchesClosedForm) {
  // -1 2 -1: lambda_k = 2 - 2 cos(k pi / (n + 1)), v_k(j) proportional to sin(j k pi / (n + 1)).
  for (int n : {2, 3, 9, 50, 131}) {
    const TMatrix a = SecondDifference(n);
    for (const TVariant& var : AllVariants()) {
      std::vector<double> d;
      TMatrix v;
      ASSERT_EQ(SolveVariant(var, a, n, d, v), TEigenStatus::Ok) << Describe(var, n);
      for (int k = 1; k <= n; ++k) {
        const double truth = 2.0 - 2.0 * std::cos(k * kPi / (n + 1));
        EXPECT_NEAR(d[k - 1], truth, 1e-13 * 4) << Describe(var, n) << " k=" << k;
        double dot = 0, norm = 0;
        for (int j = 0; j < n; ++j) {
          const double s = std::sin((j + 1) * k * kPi / (n + 1));
          dot += s * v[j * n + k - 1];
          norm += s * s;
        }
        EXPECT_NEAR(std::fabs(dot) / std::sqrt(norm), 1.0, 1e-10) << Describe(var, n) << " k=" << k;
      }
      const TAccuracy acc = Measure(a, d, v);
      EXPECT_LE(acc.Residual, 1e-12 * 4.0) << Describe(var, n);
      EXPECT_LE(acc.Orthogonality, 1e-12 * n) << Describe(var, n);
    }
  }
}

TEST(Eigensystem, TridiagonalQLAloneOnIdentityVectors) {
  // tqli without the reduction: d, e given directly, z starting as the identity.
  const int n = 37;
  std::vector<double> d(n, 2.0), e(n, -1.0);
  e[0] = 0.0;
  TMatrix z(n * n, 0.0);
  for (int i = 0; i < n; ++i) z[i * n + i] = 1.0;
  ASSERT_EQ(tqli(d.data(), e.data(), n, z.data(), n), TEigenStatus::Ok);
  SortEigensystemAscending(d.data(), z.data(), n, n);
  const TMatrix a = SecondDifference(n);
  for (int k = 1; k <= n; ++k) EXPECT_NEAR(d[k - 1], 2.0 - 2.0 * std::cos(k * kPi / (n + 1)), 4e-13);
  const TAccuracy acc = Measure(a, d, z);
  EXPECT_LE(acc.Residual, 4e-12);
  EXPECT_LE(acc.Orthogonality, 1e-12 * n);

  // Eigenvalues only: no vectors, the same values.
  std::vector<double> d2(n, 2.0), e2(n, -1.0);
  ASSERT_EQ(tqli(d2.data(), e2.data(), n, nullptr, 0), TEigenStatus::Ok);
  std::sort(d2.begin(), d2.end());
  for (int k = 0; k < n; ++k) EXPECT_NEAR(d2[k], d[k], 1e-14);
}

TEST(Eigensystem, RepeatedAndWidelySpreadEigenvalues) {
  struct TCase {
    const char* Name;
    std::vector<double> Lambda;
  };
  std::vector<TCase> cases;
  {
    std::vector<double> l;
    for (int i = 0; i < 5; ++i) l.push_back(-3.0);
    for (int i = 0; i < 4; ++i) l.push_back(0.0);
    for (int i = 0; i < 10; ++i) l.push_back(1.0);
    l.push_back(2.5);
    for (int i = 0; i < 20; ++i) l.push_back(7.0);
    cases.push_back({"repeated", l});
  }
  {
    std::vector<double> l;
    for (int i = 0; i < 25; ++i) l.push_back(std::pow(10.0, -12.0 + 24.0 * i / 24.0));
    cases.push_back({"1e-12..1e12", l});
  }
  {
    std::vector<double> l;
    for (int i = 0; i < 33; ++i) l.push_back((i % 2 ? -1.0 : 1.0) * std::pow(10.0, -12.0 + 24.0 * i / 32.0));
    cases.push_back({"signed 1e-12..1e12", l});
  }
  unsigned seed = 11;
  for (const TCase& c : cases) {
    const int n = static_cast<int>(c.Lambda.size());
    const TMatrix a = FromEigensystem(RandomOrthogonal(n, seed++), c.Lambda);
    std::vector<double> sorted = c.Lambda;
    std::sort(sorted.begin(), sorted.end());
    double norm = 0;
    for (double x : sorted) norm = std::max(norm, std::fabs(x));
    for (const TVariant& var : AllVariants()) {
      std::vector<double> d;
      TMatrix v;
      ASSERT_EQ(SolveVariant(var, a, n, d, v), TEigenStatus::Ok) << c.Name << " " << Describe(var, n);
      for (int k = 0; k < n; ++k) EXPECT_NEAR(d[k], sorted[k], 1e-12 * norm) << c.Name << " k=" << k;
      const TAccuracy acc = Measure(a, d, v);
      EXPECT_LE(acc.Residual, 1e-12 * norm) << c.Name << " " << Describe(var, n);
      EXPECT_LE(acc.Orthogonality, 1e-12 * n) << c.Name << " " << Describe(var, n);
    }
  }
}

TEST(Eigensystem, RandomMatrixKeepsTraceAndFrobeniusNorm) {
  const int n = 150;
  std::mt19937 gen(5);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  TMatrix a(n * n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) a[i * n + j] = a[j * n + i] = dist(gen);
  double trace = 0, frob2 = 0;
  for (int i = 0; i < n; ++i) trace += a[i * n + i];
  for (double x : a) frob2 += x * x;
  std::vector<double> d;
  TMatrix v;
  ASSERT_EQ(Solve(a, n, d, v), TEigenStatus::Ok);
  double sum = 0, sum2 = 0;
  for (double x : d) {
    sum += x;
    sum2 += x * x;
  }
  EXPECT_NEAR(sum, trace, 1e-11);
  EXPECT_NEAR(sum2, frob2, 1e-10 * frob2);
  EXPECT_TRUE(std::is_sorted(d.begin(), d.end()));
  const TAccuracy acc = Measure(a, d, v);
  EXPECT_LE(acc.Residual, 1e-12 * std::sqrt(frob2));
  EXPECT_LE(acc.Orthogonality, 1e-12 * n);
}

TEST(Eigensystem, OneByOneZeroAndDiagonalMatrices) {
  std::vector<double> d;
  TMatrix v;
  ASSERT_EQ(Solve({-3.5}, 1, d, v), TEigenStatus::Ok);
  EXPECT_EQ(d[0], -3.5);
  EXPECT_EQ(v[0], 1.0);
  std::vector<double> e1(1);
  TMatrix a1{4.25};
  ASSERT_EQ(tred2(a1.data(), 1, 1, d.data(), e1.data()), TEigenStatus::Ok);
  EXPECT_EQ(d[0], 4.25);
  EXPECT_EQ(a1[0], 1.0);

  // Zero matrix: all eigenvalues 0, an orthonormal basis.
  const int n = 6;
  ASSERT_EQ(Solve(TMatrix(n * n, 0.0), n, d, v), TEigenStatus::Ok);
  for (double x : d) EXPECT_EQ(x, 0.0);
  EXPECT_LE(Measure(TMatrix(n * n, 0.0), d, v).Orthogonality, 1e-15);

  // Diagonal matrix out of order: the vectors are the unit vectors, permuted with the values.
  const std::vector<double> diag{5.0, -1.0, 3.0, 0.5, 2.0, -7.0};
  TMatrix a(n * n, 0.0);
  for (int i = 0; i < n; ++i) a[i * n + i] = diag[i];
  ASSERT_EQ(Solve(a, n, d, v), TEigenStatus::Ok);
  std::vector<double> sorted = diag;
  std::sort(sorted.begin(), sorted.end());
  for (int k = 0; k < n; ++k) {
    EXPECT_EQ(d[k], sorted[k]);
    const int source = static_cast<int>(std::find(diag.begin(), diag.end(), sorted[k]) - diag.begin());
    EXPECT_EQ(std::fabs(v[source * n + k]), 1.0) << "k=" << k;
  }
}

TEST(Eigensystem, SelectionSortOrderAndTies) {
  // 3 1 2 1: the first 1 is taken (a later equal value does not replace it), then the second.
  std::vector<double> d{3.0, 1.0, 2.0, 1.0};
  const int n = 4;
  TMatrix v(n * n);
  for (int r = 0; r < n; ++r)
    for (int c = 0; c < n; ++c) v[r * n + c] = 10.0 * c + r; // column c tagged 10 c
  SortEigensystemAscending(d.data(), v.data(), n, n);
  EXPECT_EQ(d, (std::vector<double>{1.0, 1.0, 2.0, 3.0}));
  const int expectedColumn[n] = {1, 3, 2, 0};
  for (int c = 0; c < n; ++c)
    for (int r = 0; r < n; ++r) EXPECT_EQ(v[r * n + c], 10.0 * expectedColumn[c] + r);
  // Without vectors only the values move.
  std::vector<double> only{2.0, -1.0, 2.0, 0.0};
  SortEigensystemAscending(only.data(), nullptr, 4, 0);
  EXPECT_EQ(only, (std::vector<double>{-1.0, 0.0, 2.0, 2.0}));
}

TEST(Eigensystem, ProgressCountsAndCancelInEachStage) {
  const int n = 40;
  const TMatrix a = FromEigensystem(RandomOrthogonal(n, 3), std::vector<double>(n, 1.0));
  {
    std::vector<long long> seen;
    TEigenHooks hooks;
    hooks.Progress = [&](long long done, long long total) {
      EXPECT_EQ(total, 3LL * n);
      seen.push_back(done);
    };
    TMatrix w = a;
    std::vector<double> d(n), e(n);
    ASSERT_EQ(tred2(w.data(), n, n, d.data(), e.data(), hooks), TEigenStatus::Ok);
    ASSERT_FALSE(seen.empty());
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_EQ(seen.back(), 3LL * n);
  }
  {
    long long last = -1, total = 0;
    TEigenHooks hooks;
    hooks.Progress = [&](long long done, long long t) {
      EXPECT_GE(done, last);
      last = done;
      total = t;
    };
    std::vector<double> d;
    TMatrix v;
    ASSERT_EQ(Solve(SecondDifference(n), n, d, v, hooks), TEigenStatus::Ok);
    EXPECT_EQ(total, 4LL * n);
    EXPECT_EQ(last, 4LL * n);
  }
  // Cancel at the first question, in the middle of the reduction, and once QL has begun.
  const TMatrix b = SecondDifference(n);
  for (int cancelAt : {1, n / 2, n + 9}) {
    int asked = 0;
    TEigenHooks hooks;
    hooks.Cancel = [&]() { return ++asked >= cancelAt; };
    std::vector<double> d;
    TMatrix v;
    EXPECT_EQ(Solve(b, n, d, v, hooks), TEigenStatus::Cancelled) << "cancel at " << cancelAt;
    EXPECT_EQ(asked, cancelAt);
  }
  // A cancel in QL alone: every iteration asks.
  std::vector<double> d(n, 2.0), e(n, -1.0);
  int asked = 0;
  TEigenHooks hooks;
  hooks.Cancel = [&]() { return ++asked >= 3; };
  EXPECT_EQ(tqli(d.data(), e.data(), n, nullptr, 0, hooks), TEigenStatus::Cancelled);
  EXPECT_EQ(asked, 3);
}

TEST(Eigensystem, NonFiniteInputStopsWithoutConvergence) {
  const int n = 12;
  for (double bad : {std::nan(""), HUGE_VAL, -HUGE_VAL}) {
    TMatrix a = SecondDifference(n);
    a[7 * n + 3] = a[3 * n + 7] = bad;
    std::vector<double> d;
    TMatrix v;
    EXPECT_EQ(Solve(a, n, d, v), TEigenStatus::NoConvergence) << bad;
    std::vector<double> dd(n, 1.0), e(n, 0.5);
    dd[4] = bad;
    EXPECT_EQ(tqli(dd.data(), e.data(), n, nullptr, 0), TEigenStatus::NoConvergence) << bad;
  }
}

TEST(Eigensystem, IterationLimitStopsQL) {
  // -1 2 -1 of 30 needs more than 30 iterations in all (about two per eigenvalue).
  const int n = 30;
  int iterations = 0;
  TEigenHooks counting;
  counting.Cancel = [&]() {
    ++iterations;
    return false;
  };
  std::vector<double> d(n, 2.0), e(n, -1.0);
  ASSERT_EQ(tqli(d.data(), e.data(), n, nullptr, 0, counting), TEigenStatus::Ok);
  ASSERT_GT(iterations, n);
  for (long long limit : {1LL, static_cast<long long>(iterations) - 1}) {
    TEigenHooks hooks;
    hooks.IterationLimit = limit;
    std::vector<double> d2(n, 2.0), e2(n, -1.0);
    EXPECT_EQ(tqli(d2.data(), e2.data(), n, nullptr, 0, hooks), TEigenStatus::NoConvergence) << limit;
  }
  TEigenHooks enough;
  enough.IterationLimit = iterations;
  std::vector<double> d3(n, 2.0), e3(n, -1.0);
  EXPECT_EQ(tqli(d3.data(), e3.data(), n, nullptr, 0, enough), TEigenStatus::Ok);
}

TEST(Eigensystem, ThreadCountDoesNotChangeResultsAndPathsAgree) {
  // Not a multiple of the row groups or column strips, and large enough that the reduction's first steps run
  // as two tasks.
  const int n = 403;
  std::mt19937 gen(17);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  TMatrix a(n * n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) a[i * n + j] = a[j * n + i] = dist(gen);
  std::vector<double> d1, d2, d3, dp;
  TMatrix v1, v2, v3, vp;
  TEigenHooks one, two, three, plain;
  two.ParallelFor = MakeThreadParallelFor(2);
  three.ParallelFor = MakeThreadParallelFor(3);
  plain.Path = TKernelPath::Plain;
  plain.ParallelFor = MakeThreadParallelFor(2);
  ASSERT_EQ(Solve(a, n, d1, v1, one), TEigenStatus::Ok);
  ASSERT_EQ(Solve(a, n, d2, v2, two), TEigenStatus::Ok);
  ASSERT_EQ(Solve(a, n, d3, v3, three), TEigenStatus::Ok);
  ASSERT_EQ(Solve(a, n, dp, vp, plain), TEigenStatus::Ok);
  EXPECT_EQ(d1, d2);
  EXPECT_EQ(d1, d3);
  EXPECT_EQ(v1, v2);
  EXPECT_EQ(v1, v3);
  double norm = 0;
  for (double x : a) norm += x * x;
  norm = std::sqrt(norm);
  const TAccuracy acc = Measure(a, d2, v2);
  EXPECT_LE(acc.Residual, 1e-12 * norm);
  EXPECT_LE(acc.Orthogonality, 1e-12 * n);
  double worst = 0;
  for (int k = 0; k < n; ++k) worst = std::max(worst, std::fabs(d1[k] - dp[k]));
  EXPECT_LE(worst, 1e-10);
  // The vectors of both paths agree up to sign (the spectrum of a random matrix is simple).
  for (int k = 0; k < n; ++k) {
    double dot = 0;
    for (int i = 0; i < n; ++i) dot += v1[i * n + k] * vp[i * n + k];
    EXPECT_NEAR(std::fabs(dot), 1.0, 1e-8) << "k=" << k;
  }
}

TEST(Eigensystem, ParallelForRunsEveryTaskOnceAndPassesErrors) {
  const TParallelFor run = MakeThreadParallelFor(3);
  std::vector<int> hits(100, 0);
  run(100, [&](int t) { ++hits[t]; });
  EXPECT_EQ(std::count(hits.begin(), hits.end(), 1), 100);
  run(0, [&](int) { FAIL() << "no task expected"; });
  EXPECT_THROW(run(10,
                   [](int t) {
                     if (t == 4) throw std::runtime_error("task 4");
                   }),
               std::runtime_error);
}

TEST(Eigensystem, WorksInTheCornerOfALargerArray) {
  // The caller keeps an M x M problem in the top left corner of a P x P array (M < P).
  const int n = 45, stride = 52;
  const double sentinel = -999.5;
  const TMatrix a = FromEigensystem(RandomOrthogonal(n, 8), [&] {
    std::vector<double> l(n);
    for (int i = 0; i < n; ++i) l[i] = 0.5 * i - 3.0;
    return l;
  }());
  for (int steps = 0; steps < 2; ++steps) {
    std::vector<double> big(static_cast<std::size_t>(stride) * stride, sentinel);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) big[i * stride + j] = a[i * n + j];
    std::vector<double> d(n), e(n);
    TEigenHooks hooks;
    hooks.ParallelFor = MakeThreadParallelFor(2);
    if (steps) {
      ASSERT_EQ(tred2(big.data(), n, stride, d.data(), e.data(), hooks), TEigenStatus::Ok);
      ASSERT_EQ(tqli(d.data(), e.data(), n, big.data(), stride, hooks), TEigenStatus::Ok);
      SortEigensystemAscending(d.data(), big.data(), n, stride);
    } else {
      ASSERT_EQ(SymmetricEigensystem(big.data(), n, stride, d.data(), hooks), TEigenStatus::Ok);
    }
    TMatrix v(n * n);
    int touched = 0;
    for (int i = 0; i < stride; ++i)
      for (int j = 0; j < stride; ++j) {
        if (i < n && j < n)
          v[i * n + j] = big[i * stride + j];
        else if (big[i * stride + j] != sentinel)
          ++touched;
      }
    EXPECT_EQ(touched, 0) << "steps=" << steps;
    for (int k = 0; k < n; ++k) EXPECT_NEAR(d[k], 0.5 * k - 3.0, 1e-12 * 20) << "steps=" << steps;
    const TAccuracy acc = Measure(a, d, v);
    EXPECT_LE(acc.Residual, 1e-12 * 20) << "steps=" << steps;
    EXPECT_LE(acc.Orthogonality, 1e-12 * n) << "steps=" << steps;
  }
}
