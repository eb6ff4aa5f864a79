#include "common/numerics/Golayfilter.h"

#include "common/OrvexException.h"
#include "common/numerics/Floatvector.h"
#include "common/numerics/Numerics.h"
#include "common/numerics/Savgol.h"

#include <algorithm>
#include <string>

namespace {

// The direct sum at one pixel, terms outside the array left out.
template <typename TIn, typename TOut>
TOut ShortSum(const std::vector<double>& kernel, int left, const TIn* in, int n, int i) {
  double s = 0.0;
  const int first = std::max(-left, -i),
            last = std::min(static_cast<int>(kernel.size()) - 1 - left, n - 1 - i);
  for (int k = first; k <= last; ++k) s += kernel[k + left] * static_cast<double>(in[i + k]);
  return static_cast<TOut>(s);
}

// Pixels whose whole window lies inside the array are summed tap by tap over the whole run, a loop the
// compiler vectorises; the few pixels at the ends go through edge(i).
template <typename TIn, typename TOut, typename TEdge>
void Convolve(const std::vector<double>& kernel, int left, int right, const TIn* in, TOut* out, int n,
              TEdge edge) {
  const int innerFirst = left, innerLast = n - 1 - right;
  if (innerFirst <= innerLast) {
    thread_local std::vector<double> sums;
    const int count = innerLast - innerFirst + 1;
    if (static_cast<int>(sums.size()) < count) sums.resize(count);
    double* s = sums.data();
    std::fill(s, s + count, 0.0);
    for (int k = -left; k <= right; ++k) {
      const double c = kernel[k + left];
      const TIn* src = in + innerFirst + k;
      for (int i = 0; i < count; ++i) s[i] += c * static_cast<double>(src[i]);
    }
    for (int i = 0; i < count; ++i) out[innerFirst + i] = static_cast<TOut>(s[i]);
  }
  for (int i = 0; i < std::min(innerFirst, n); ++i) out[i] = edge(i);
  for (int i = std::max(innerLast + 1, innerFirst); i < n; ++i) out[i] = edge(i);
}

// The float form: pixels left .. n-1-right summed in single precision, sixteen or four at a time on vector
// registers,
// taps in window order (the few pixels past the last block the same way, one at a time).
template <typename TEdge>
void ConvolveFloat(const std::vector<float>& kernel, int left, int right, const float* in, float* out, int n,
                   TEdge edge) {
  const int taps = static_cast<int>(kernel.size());
  const int innerFirst = left, innerLast = n - 1 - right;
  int i = innerFirst;
  // Four independent sums per block keep the adds of consecutive taps from waiting on each other.
  for (; i + 15 <= innerLast; i += 16) {
    oxvec::TFloat4 a0 = oxvec::Splat(0.0f), a1 = a0, a2 = a0, a3 = a0;
    const float* p = in + i - left;
    for (int t = 0; t < taps; ++t) {
      const oxvec::TFloat4 c = oxvec::Splat(kernel[t]);
      a0 += c * oxvec::Load(p + t);
      a1 += c * oxvec::Load(p + t + 4);
      a2 += c * oxvec::Load(p + t + 8);
      a3 += c * oxvec::Load(p + t + 12);
    }
    oxvec::Store(out + i, a0);
    oxvec::Store(out + i + 4, a1);
    oxvec::Store(out + i + 8, a2);
    oxvec::Store(out + i + 12, a3);
  }
  for (; i + 3 <= innerLast; i += 4) {
    oxvec::TFloat4 a0 = oxvec::Splat(0.0f);
    const float* p = in + i - left;
    for (int t = 0; t < taps; ++t) a0 += oxvec::Splat(kernel[t]) * oxvec::Load(p + t);
    oxvec::Store(out + i, a0);
  }
  for (; i <= innerLast; ++i) {
    float s = 0.0f;
    for (int t = 0; t < taps; ++t) s += kernel[t] * in[i - left + t];
    out[i] = s;
  }
  for (int j = 0; j < std::min(innerFirst, n); ++j) out[j] = edge(j);
  for (int j = std::max(innerLast + 1, innerFirst); j < n; ++j) out[j] = edge(j);
}

} // namespace

TGolayFilter::TGolayFilter() {
  SetFilterOptions(5, 5, 0, 4);
}

TGolayFilter::TGolayFilter(int nl, int nr, int ld, int m) {
  if (!SetFilterOptions(nl, nr, ld, m))
    throw OrvexException("TGolayFilter::TGolayFilter: refused window " + std::to_string(nl) + " + " +
                         std::to_string(nr) + " + 1 with order " + std::to_string(m) + " and derivative " +
                         std::to_string(ld));
}

bool TGolayFilter::AreFilterOptionsValid(int nl, int nr, int ld, int m) {
  return nl >= 0 && nr >= 0 && ld >= 0 && m >= 0 && nl + nr + 1 > m && ld <= m;
}

bool TGolayFilter::SetFilterOptions(int nl, int nr, int ld, int m) {
  if (!AreFilterOptionsValid(nl, nr, ld, m)) return false;
  std::vector<double> kernel(nl + nr + 1);
  if (!SavgolKernel(kernel.data(), nl, nr, ld, m)) return false;
  // The kernel gives the polynomial's coefficient of i^ld; the derivative is ld! times that.
  double factorial = 1.0;
  for (int j = 2; j <= ld; ++j) factorial *= j;
  for (double& c : kernel) c *= factorial;
  FLeft = nl;
  FRight = nr;
  FDerivative = ld;
  FOrder = m;
  FKernel = std::move(kernel);
  FKernelFloat.assign(FKernel.begin(), FKernel.end());
  return true;
}

double TGolayFilter::GetSortedFilter(int k) const {
  if (k < -FLeft || k > FRight) return 0.0;
  return FKernel[k + FLeft];
}

void TGolayFilter::Faltung(const float* in, float* out, int n) const {
  ConvolveFloat(FKernelFloat, FLeft, FRight, in, out, n,
                [&](int i) { return ShortSum<float, float>(FKernel, FLeft, in, n, i); });
}

void TGolayFilter::Faltung(const double* in, double* out, int n) const {
  Convolve(FKernel, FLeft, FRight, in, out, n,
           [&](int i) { return ShortSum<double, double>(FKernel, FLeft, in, n, i); });
}

void TGolayFilter::Faltung(const int* in, double* out, int n) const {
  Convolve(FKernel, FLeft, FRight, in, out, n,
           [&](int i) { return ShortSum<int, double>(FKernel, FLeft, in, n, i); });
}

void TGolayFilter::FaltungWithMirrorPeriodicInterval(const float* in, float* out, int n) const {
  // When the window is shorter than the spectrum an index leaves it by less than one length, so a single
  // reflection at the nearer end finds it; otherwise the periodic mirror does.
  const bool once = FLeft + FRight < n;
  ConvolveFloat(FKernelFloat, FLeft, FRight, in, out, n, [&](int i) {
    double s = 0.0;
    for (int k = -FLeft; k <= FRight; ++k) {
      const int j = i + k;
      const int m =
          once ? (j < 0 ? -1 - j : (j >= n ? 2 * n - 1 - j : j)) : ConvertIndexToMirrorPeriodicInterval(j, n);
      s += FKernel[k + FLeft] * static_cast<double>(in[m]);
    }
    return static_cast<float>(s);
  });
}
