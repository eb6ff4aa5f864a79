// Discrete Fourier transforms: Stockham passes of radix 4, 2, 3, 5 and small odd primes, chirp-z for the
// rest, the real-input pair and the 2-D transform.
#include "common/numerics/Fft.h"

#include "common/OrvexException.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

namespace {

// Largest prime that gets a mixed-radix pass of its own; lengths with a larger prime factor go through
// chirp-z. A general radix-p pass costs about p complex products per value; up to this bound that is less
// than the three power-of-two transforms of chirp-z, which run on at least twice the length.
constexpr int kMaxDirectRadix = 31;

// exp(-2 pi i num / den), computed in extended precision so that the twiddles carry no error beyond the
// rounding to double, whatever the length.
TComplex Root(std::int64_t num, std::int64_t den) {
  num %= den;
  if (num < 0) num += den;
  const long double angle = -2.0L * 3.141592653589793238462643383279502884L * static_cast<long double>(num) /
                            static_cast<long double>(den);
  return {static_cast<double>(std::cos(angle)), static_cast<double>(std::sin(angle))};
}

inline TComplex Mul(const TComplex& a, const TComplex& b) {
  return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}
// a times conj(b)
inline TComplex MulConj(const TComplex& a, const TComplex& b) {
  return {a.real() * b.real() + a.imag() * b.imag(), a.imag() * b.real() - a.real() * b.imag()};
}
// -i a for the forward direction, +i a for the inverse
template <bool Inverse>
inline TComplex RotateQuarter(const TComplex& a) {
  if constexpr (Inverse)
    return {-a.imag(), a.real()};
  else
    return {a.imag(), -a.real()};
}
template <bool Inverse>
inline TComplex Twiddle(const TComplex& b, const TComplex& w) {
  if constexpr (Inverse)
    return MulConj(b, w);
  else
    return Mul(b, w);
}

// Radices of the mixed-radix passes, or empty when a prime factor is too large for a direct pass.
std::vector<int> Factorize(int n, bool& direct) {
  std::vector<int> radices;
  direct = true;
  while (n % 4 == 0) {
    radices.push_back(4);
    n /= 4;
  }
  if (n % 2 == 0) {
    radices.push_back(2);
    n /= 2;
  }
  for (int p = 3; n > 1; p += 2) {
    if (p > kMaxDirectRadix) {
      direct = false;
      return {};
    }
    while (n % p == 0) {
      radices.push_back(p);
      n /= p;
    }
  }
  return radices;
}

// One Stockham pass: sub-length L = radix m, s = n / L interleaved sub-sequences. For every sub-sequence q
// and index pp < m the radix inputs x[q + s (pp + r m)] give a small DFT whose k-th output, times the twiddle
// w_L^(pp k), lands at y[q + s (radix pp + k)]. After the last pass the result is in natural order.
template <bool Inverse>
void Pass2(const TComplex* x, TComplex* y, int s, int m, const TComplex* tw) {
  for (int pp = 0; pp < m; ++pp) {
    const TComplex w1 = tw[pp];
    const TComplex* x0 = x + static_cast<std::ptrdiff_t>(s) * pp;
    const TComplex* x1 = x0 + static_cast<std::ptrdiff_t>(s) * m;
    TComplex* y0 = y + static_cast<std::ptrdiff_t>(s) * 2 * pp;
    TComplex* y1 = y0 + s;
    for (int q = 0; q < s; ++q) {
      const TComplex a0 = x0[q], a1 = x1[q];
      y0[q] = a0 + a1;
      y1[q] = Twiddle<Inverse>(a0 - a1, w1);
    }
  }
}

template <bool Inverse>
void Pass4(const TComplex* x, TComplex* y, int s, int m, const TComplex* tw) {
  const std::ptrdiff_t sm = static_cast<std::ptrdiff_t>(s) * m;
  for (int pp = 0; pp < m; ++pp) {
    const TComplex w1 = tw[3 * pp], w2 = tw[3 * pp + 1], w3 = tw[3 * pp + 2];
    const TComplex* x0 = x + static_cast<std::ptrdiff_t>(s) * pp;
    TComplex* y0 = y + static_cast<std::ptrdiff_t>(s) * 4 * pp;
    for (int q = 0; q < s; ++q) {
      const TComplex a0 = x0[q], a1 = x0[q + sm], a2 = x0[q + 2 * sm], a3 = x0[q + 3 * sm];
      const TComplex t0 = a0 + a2, t1 = a0 - a2, t2 = a1 + a3, t3 = RotateQuarter<Inverse>(a1 - a3);
      y0[q] = t0 + t2;
      y0[q + s] = Twiddle<Inverse>(t1 + t3, w1);
      y0[q + 2 * s] = Twiddle<Inverse>(t0 - t2, w2);
      y0[q + 3 * s] = Twiddle<Inverse>(t1 - t3, w3);
    }
  }
}

template <bool Inverse>
void Pass3(const TComplex* x, TComplex* y, int s, int m, const TComplex* tw) {
  const double c = -0.5, sn = 0.86602540378443864676372317075293618; // cos and sin of 2 pi / 3
  const std::ptrdiff_t sm = static_cast<std::ptrdiff_t>(s) * m;
  for (int pp = 0; pp < m; ++pp) {
    const TComplex w1 = tw[2 * pp], w2 = tw[2 * pp + 1];
    const TComplex* x0 = x + static_cast<std::ptrdiff_t>(s) * pp;
    TComplex* y0 = y + static_cast<std::ptrdiff_t>(s) * 3 * pp;
    for (int q = 0; q < s; ++q) {
      const TComplex a0 = x0[q], a1 = x0[q + sm], a2 = x0[q + 2 * sm];
      const TComplex t = a1 + a2;
      const TComplex u = RotateQuarter<Inverse>(a1 - a2) * sn;
      const TComplex v = a0 + t * c;
      y0[q] = a0 + t;
      y0[q + s] = Twiddle<Inverse>(v + u, w1);
      y0[q + 2 * s] = Twiddle<Inverse>(v - u, w2);
    }
  }
}

template <bool Inverse>
void Pass5(const TComplex* x, TComplex* y, int s, int m, const TComplex* tw) {
  // cos and sin of 2 pi / 5 and 4 pi / 5
  const double c1 = 0.30901699437494742410229341718281906, c2 = -0.80901699437494742410229341718281906;
  const double s1 = 0.95105651629515357211643933337938214, s2 = 0.58778525229247312916870595463907277;
  const std::ptrdiff_t sm = static_cast<std::ptrdiff_t>(s) * m;
  for (int pp = 0; pp < m; ++pp) {
    const TComplex* w = tw + 4 * pp;
    const TComplex* x0 = x + static_cast<std::ptrdiff_t>(s) * pp;
    TComplex* y0 = y + static_cast<std::ptrdiff_t>(s) * 5 * pp;
    for (int q = 0; q < s; ++q) {
      const TComplex a0 = x0[q], a1 = x0[q + sm], a2 = x0[q + 2 * sm], a3 = x0[q + 3 * sm],
                     a4 = x0[q + 4 * sm];
      const TComplex t1 = a1 + a4, t2 = a2 + a3;
      const TComplex t3 = RotateQuarter<Inverse>(a1 - a4), t4 = RotateQuarter<Inverse>(a2 - a3);
      const TComplex e1 = a0 + t1 * c1 + t2 * c2, e2 = a0 + t1 * c2 + t2 * c1;
      const TComplex o1 = t3 * s1 + t4 * s2, o2 = t3 * s2 - t4 * s1;
      y0[q] = a0 + t1 + t2;
      y0[q + s] = Twiddle<Inverse>(e1 + o1, w[0]);
      y0[q + 2 * s] = Twiddle<Inverse>(e2 + o2, w[1]);
      y0[q + 3 * s] = Twiddle<Inverse>(e2 - o2, w[2]);
      y0[q + 4 * s] = Twiddle<Inverse>(e1 - o1, w[3]);
    }
  }
}

// General odd radix p <= kMaxDirectRadix: a direct DFT of p values from the table of p-th roots.
template <bool Inverse>
void PassOdd(const TComplex* x, TComplex* y, int s, int m, int p, const TComplex* tw, const TComplex* roots) {
  TComplex a[kMaxDirectRadix];
  const std::ptrdiff_t sm = static_cast<std::ptrdiff_t>(s) * m;
  for (int pp = 0; pp < m; ++pp) {
    const TComplex* w = tw + static_cast<std::ptrdiff_t>(p - 1) * pp;
    const TComplex* x0 = x + static_cast<std::ptrdiff_t>(s) * pp;
    TComplex* y0 = y + static_cast<std::ptrdiff_t>(s) * p * pp;
    for (int q = 0; q < s; ++q) {
      for (int r = 0; r < p; ++r) a[r] = x0[q + r * sm];
      TComplex b0 = a[0];
      for (int r = 1; r < p; ++r) b0 += a[r];
      y0[q] = b0;
      for (int k = 1; k < p; ++k) {
        TComplex b = a[0];
        int e = 0;
        for (int r = 1; r < p; ++r) {
          e += k;
          if (e >= p) e -= p;
          b += Twiddle<Inverse>(a[r], roots[e]);
        }
        y0[q + static_cast<std::ptrdiff_t>(k) * s] = Twiddle<Inverse>(b, w[k - 1]);
      }
    }
  }
}

struct TPlanCache {
  std::mutex Lock;
  std::unordered_map<int, std::shared_ptr<const TFFTPlan>> Plans;
};
TPlanCache& PlanCache() {
  static TPlanCache cache;
  return cache;
}

} // namespace

std::shared_ptr<const TFFTPlan> GetFFTPlan(int n) {
  if (n < 1) throw OrvexException("GetFFTPlan: length " + std::to_string(n) + " is below 1");
  TPlanCache& cache = PlanCache();
  {
    std::lock_guard<std::mutex> guard(cache.Lock);
    auto it = cache.Plans.find(n);
    if (it != cache.Plans.end()) return it->second;
  }
  // Made outside the lock: a chirp-z plan asks the cache for its power-of-two plan while being made, and
  // other threads need not wait. When two threads make the same plan, the first one inserted wins.
  auto plan = std::make_shared<const TFFTPlan>(n);
  std::lock_guard<std::mutex> guard(cache.Lock);
  return cache.Plans.emplace(n, std::move(plan)).first->second;
}

std::size_t FFTPlanCacheSize() {
  TPlanCache& cache = PlanCache();
  std::lock_guard<std::mutex> guard(cache.Lock);
  return cache.Plans.size();
}

// ---------------------------------------------------------------------------------------------
// TFFTPlan

TFFTPlan::TFFTPlan(int n) : FLength(n) {
  if (n < 1) throw OrvexException("TFFTPlan::TFFTPlan: length " + std::to_string(n) + " is below 1");
  bool direct = true;
  const std::vector<int> radices = Factorize(n, direct);
  if (direct) {
    FScratchSize = static_cast<std::size_t>(n);
    int s = 1;
    for (int p : radices) {
      const int length = n / s; // sub-length of this pass
      const int m = length / p;
      TPass pass{p, s, m, FTwiddles.size(), FRoots.size()};
      for (int pp = 0; pp < m; ++pp)
        for (int k = 1; k < p; ++k) FTwiddles.push_back(Root(static_cast<std::int64_t>(pp) * k, length));
      if (p != 2 && p != 3 && p != 4 && p != 5)
        for (int j = 0; j < p; ++j) FRoots.push_back(Root(j, p));
      FPasses.push_back(pass);
      s *= p;
    }
    return;
  }
  if (n > (1 << 29))
    throw OrvexException("TFFTPlan::TFFTPlan: length " + std::to_string(n) + " is too large");
  int m = 1;
  while (m < 2 * n - 1) m *= 2;
  FSubPlan = GetFFTPlan(m);
  FScratchSize = static_cast<std::size_t>(m) + FSubPlan->ScratchSize();
  FChirp.resize(static_cast<std::size_t>(n));
  const std::int64_t twoN = 2 * static_cast<std::int64_t>(n);
  for (int j = 0; j < n; ++j) {
    // exp(-i pi j^2 / n) = exp(-2 pi i (j^2 mod 2n) / 2n), with j^2 reduced exactly in integers
    const std::int64_t jj = (static_cast<std::int64_t>(j) * j) % twoN;
    FChirp[j] = Root(jj, twoN);
  }
  FChirpSpectrum.assign(static_cast<std::size_t>(m), TComplex(0, 0));
  FChirpSpectrum[0] = std::conj(FChirp[0]);
  for (int j = 1; j < n; ++j) FChirpSpectrum[j] = FChirpSpectrum[m - j] = std::conj(FChirp[j]);
  std::vector<TComplex> scratch(FSubPlan->ScratchSize());
  FSubPlan->Execute(FChirpSpectrum.data(), scratch.data(), false);
  const double scale = 1.0 / m;
  for (TComplex& v : FChirpSpectrum) v *= scale;
}

std::vector<int> TFFTPlan::Radices() const {
  std::vector<int> r;
  for (const TPass& p : FPasses) r.push_back(p.Radix);
  return r;
}

void TFFTPlan::Execute(TComplex* data, TComplex* scratch, bool inverse) const {
  if (FSubPlan)
    ExecuteChirpZ(data, scratch, inverse);
  else if (inverse)
    RunPasses<true>(data, scratch);
  else
    RunPasses<false>(data, scratch);
}

template <bool Inverse>
void TFFTPlan::RunPasses(TComplex* data, TComplex* scratch) const {
  // Passes alternate between data and scratch. The last pass (span 1) writes exactly the places it reads,
  // so with an odd number of passes it runs in place and the result ends in data without a copy.
  TComplex* x = data;
  TComplex* y = scratch;
  const std::size_t passes = FPasses.size();
  for (std::size_t i = 0; i < passes; ++i) {
    const TPass& pass = FPasses[i];
    if (i + 1 == passes && passes % 2 == 1) y = x;
    const TComplex* tw = FTwiddles.data() + pass.TwiddleOffset;
    switch (pass.Radix) {
    case 2:
      Pass2<Inverse>(x, y, pass.Stride, pass.Span, tw);
      break;
    case 3:
      Pass3<Inverse>(x, y, pass.Stride, pass.Span, tw);
      break;
    case 4:
      Pass4<Inverse>(x, y, pass.Stride, pass.Span, tw);
      break;
    case 5:
      Pass5<Inverse>(x, y, pass.Stride, pass.Span, tw);
      break;
    default:
      PassOdd<Inverse>(x, y, pass.Stride, pass.Span, pass.Radix, tw, FRoots.data() + pass.RootOffset);
    }
    std::swap(x, y);
  }
}

// X[k] = w[k] sum_j (x[j] w[j]) conj(w[k-j]) with w[j] = exp(-i pi j^2 / n): a cyclic convolution of length
// m >= 2n - 1 done by the power-of-two plan. The inverse is conj(forward(conj(x))).
void TFFTPlan::ExecuteChirpZ(TComplex* data, TComplex* scratch, bool inverse) const {
  const int n = FLength;
  const int m = FSubPlan->Length();
  TComplex* a = scratch;
  TComplex* subScratch = scratch + m;
  for (int j = 0; j < n; ++j) a[j] = Mul(inverse ? std::conj(data[j]) : data[j], FChirp[j]);
  std::fill(a + n, a + m, TComplex(0, 0));
  FSubPlan->Execute(a, subScratch, false);
  for (int k = 0; k < m; ++k) a[k] = Mul(a[k], FChirpSpectrum[k]);
  FSubPlan->Execute(a, subScratch, true);
  for (int k = 0; k < n; ++k) {
    const TComplex v = Mul(a[k], FChirp[k]);
    data[k] = inverse ? std::conj(v) : v;
  }
}

// ---------------------------------------------------------------------------------------------
// TFFT

TFFT::TFFT(int n) : FLength(n), FPlan(GetFFTPlan(n)), FScratch(FPlan->ScratchSize()) {}

void TFFT::Forward(TComplex* data) {
  FPlan->Execute(data, FScratch.data(), false);
}

void TFFT::InverseUnscaled(TComplex* data) {
  FPlan->Execute(data, FScratch.data(), true);
}

void TFFT::Inverse(TComplex* data) {
  FPlan->Execute(data, FScratch.data(), true);
  const double scale = 1.0 / FLength;
  for (int i = 0; i < FLength; ++i) data[i] *= scale;
}

// ---------------------------------------------------------------------------------------------
// TRealFFT
//
// Even n = 2h: z[j] = x[2j] + i x[2j+1] is transformed with length h; with E and O the transforms of the even
// and odd samples, E[k] = (Z[k] + conj Z[h-k]) / 2, O[k] = (Z[k] - conj Z[h-k]) / 2i and
// X[k] = E[k] + w^k O[k], w = exp(-2 pi i / n). The inverse undoes these steps. Odd n runs as a complex
// transform of the full length.

TRealFFT::TRealFFT(int n) : FLength(n), FHalf(n % 2 == 0 ? n / 2 : 0) {
  if (n < 1) throw OrvexException("TRealFFT::TRealFFT: length " + std::to_string(n) + " is below 1");
  if (FHalf > 0) {
    FPlan = GetFFTPlan(FHalf);
    FTwiddle.resize(static_cast<std::size_t>(FHalf) + 1);
    for (int k = 0; k <= FHalf; ++k) FTwiddle[k] = Root(k, n);
    FWork.resize(static_cast<std::size_t>(FHalf));
  } else {
    FPlan = GetFFTPlan(n);
    FWork.resize(static_cast<std::size_t>(n));
  }
  FScratch.resize(FPlan->ScratchSize());
}

void TRealFFT::Forward(const double* in, TComplex* out) {
  const int h = FHalf;
  if (h == 0) {
    for (int j = 0; j < FLength; ++j) FWork[j] = TComplex(in[j], 0);
    FPlan->Execute(FWork.data(), FScratch.data(), false);
    std::copy(FWork.begin(), FWork.begin() + SpectrumLength(), out);
    return;
  }
  for (int j = 0; j < h; ++j) FWork[j] = TComplex(in[2 * j], in[2 * j + 1]);
  FPlan->Execute(FWork.data(), FScratch.data(), false);
  // Written on the interleaved doubles (an array of complex values may be read so): built from
  // std::complex parts, the loop goes through memory with stalls that cost more than the transform.
  const double* z = reinterpret_cast<const double*>(FWork.data());
  const double* w = reinterpret_cast<const double*>(FTwiddle.data());
  double* o = reinterpret_cast<double*>(out);
  for (int k = 0; k <= h; ++k) {
    const int ik = 2 * (k == h ? 0 : k), ih = 2 * (k == 0 ? 0 : h - k);
    const double zkr = z[ik], zki = z[ik + 1], zhr = z[ih], zhi = z[ih + 1];
    const double er = 0.5 * (zkr + zhr), ei = 0.5 * (zki - zhi);
    const double orr = 0.5 * (zki + zhi), oi = -0.5 * (zkr - zhr); // (Z[k] - conj Z[h-k]) / 2i
    const double tr = w[2 * k], ti = w[2 * k + 1];
    o[2 * k] = er + orr * tr - oi * ti;
    o[2 * k + 1] = ei + orr * ti + oi * tr;
  }
}

void TRealFFT::Inverse(const TComplex* in, double* out) {
  const int h = FHalf;
  if (h == 0) {
    const int n = FLength;
    FWork[0] = TComplex(in[0].real(), 0);
    for (int k = 1; k <= n / 2; ++k) {
      FWork[k] = in[k];
      FWork[n - k] = std::conj(in[k]);
    }
    FPlan->Execute(FWork.data(), FScratch.data(), true);
    const double scale = 1.0 / n;
    for (int j = 0; j < n; ++j) out[j] = FWork[j].real() * scale;
    return;
  }
  const double* x = reinterpret_cast<const double*>(in);
  const double* w = reinterpret_cast<const double*>(FTwiddle.data());
  double* z = reinterpret_cast<double*>(FWork.data());
  for (int k = 0; k < h; ++k) {
    const double xkr = x[2 * k], xhr = x[2 * (h - k)];
    const double xki = k == 0 ? 0.0 : x[2 * k + 1],
                 xhi = k == 0 ? 0.0 : x[2 * (h - k) + 1]; // k = 0 pairs with h
    const double er = 0.5 * (xkr + xhr), ei = 0.5 * (xki - xhi);
    const double dr = 0.5 * (xkr - xhr), di = 0.5 * (xki + xhi);
    const double tr = w[2 * k], ti = w[2 * k + 1];
    const double orr = dr * tr + di * ti, oi = di * tr - dr * ti; // (X[k] - conj X[h-k]) conj(w^k) / 2
    z[2 * k] = er - oi;                                           // E + i O
    z[2 * k + 1] = ei + orr;
  }
  FPlan->Execute(FWork.data(), FScratch.data(), true);
  const double scale = 1.0 / h;
  for (int j = 0; j < h; ++j) {
    out[2 * j] = FWork[j].real() * scale;
    out[2 * j + 1] = FWork[j].imag() * scale;
  }
}

// ---------------------------------------------------------------------------------------------
// TFFT2D

TFFT2D::TFFT2D(int rows, int cols)
    : FRows(rows), FCols(cols), FRowFFT(cols), FColFFT(rows), FColumn(static_cast<std::size_t>(rows)) {}

void TFFT2D::Forward(TComplex* data) {
  Run(data, false);
}

void TFFT2D::Inverse(TComplex* data) {
  Run(data, true);
  const double scale = 1.0 / (static_cast<double>(FRows) * FCols);
  const std::size_t count = static_cast<std::size_t>(FRows) * FCols;
  for (std::size_t i = 0; i < count; ++i) data[i] *= scale;
}

void TFFT2D::Run(TComplex* data, bool inverse) {
  for (int r = 0; r < FRows; ++r) {
    TComplex* row = data + static_cast<std::size_t>(r) * FCols;
    if (inverse)
      FRowFFT.InverseUnscaled(row);
    else
      FRowFFT.Forward(row);
  }
  for (int c = 0; c < FCols; ++c) {
    for (int r = 0; r < FRows; ++r) FColumn[r] = data[static_cast<std::size_t>(r) * FCols + c];
    if (inverse)
      FColFFT.InverseUnscaled(FColumn.data());
    else
      FColFFT.Forward(FColumn.data());
    for (int r = 0; r < FRows; ++r) data[static_cast<std::size_t>(r) * FCols + c] = FColumn[r];
  }
}
