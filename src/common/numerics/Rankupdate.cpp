// Symmetric rank-k update C += B^T B of a block of centred spectra: the hot loop of the covariance matrix.
#include "common/numerics/Rankupdate.h"

#include "common/OrvexException.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <thread>
#include <utility>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define OX_RANKUPDATE_X86 1
#endif

namespace {

constexpr int kVec = 24; // micro-tile columns
constexpr int kBc = 4;   // micro-tile rows

// Micro-kernel, portable form: out[r * 24 + t] = sum over s < kc of bc[s * 4 + r] * vec[s * 24 + t].
void MicroKernelPlain(const float* vec, const float* bc, int kc, float* out) {
  float acc[kBc][kVec] = {};
  for (int s = 0; s < kc; ++s) {
    const float* v = vec + static_cast<std::ptrdiff_t>(s) * kVec;
    const float* b = bc + static_cast<std::ptrdiff_t>(s) * kBc;
    for (int r = 0; r < kBc; ++r) {
      const float br = b[r];
      for (int t = 0; t < kVec; ++t) acc[r][t] += br * v[t];
    }
  }
  for (int r = 0; r < kBc; ++r)
    for (int t = 0; t < kVec; ++t) out[r * kVec + t] = acc[r][t];
}

#ifdef OX_RANKUPDATE_X86
// Adds 8 floats to 8 doubles of c.
__attribute__((target("avx2,fma"))) inline void AddTo(double* dst, __m256 v) {
  _mm256_storeu_pd(dst, _mm256_add_pd(_mm256_loadu_pd(dst), _mm256_cvtps_pd(_mm256_castps256_ps128(v))));
  _mm256_storeu_pd(dst + 4,
                   _mm256_add_pd(_mm256_loadu_pd(dst + 4), _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1))));
}

// Adds 24 floats (three vectors) to 24 doubles of one row of c.
__attribute__((target("avx2,fma"))) inline void AddToRow(double* row, __m256 v0, __m256 v1, __m256 v2) {
  AddTo(row, v0);
  AddTo(row + 8, v1);
  AddTo(row + 16, v2);
}

// Micro-kernel on 256-bit vectors: 12 accumulators of 8 floats hold the 4 x 24 tile in registers, each
// step loads three column vectors and broadcasts four row values (12 fused multiply-adds per step; fewer
// broadcasts per multiply-add than a 6 x 16 tile, which keeps the multiply-add units busier). With c
// given, the whole tile is added to four rows of c straight from the registers; otherwise it goes to out.
__attribute__((target("avx2,fma"))) void MicroKernelVector(const float* vec, const float* bc, int kc,
                                                           float* out, double* c, std::ptrdiff_t ldc) {
  __m256 c00 = _mm256_setzero_ps(), c01 = _mm256_setzero_ps(), c02 = _mm256_setzero_ps();
  __m256 c10 = _mm256_setzero_ps(), c11 = _mm256_setzero_ps(), c12 = _mm256_setzero_ps();
  __m256 c20 = _mm256_setzero_ps(), c21 = _mm256_setzero_ps(), c22 = _mm256_setzero_ps();
  __m256 c30 = _mm256_setzero_ps(), c31 = _mm256_setzero_ps(), c32 = _mm256_setzero_ps();
  for (int s = 0; s < kc; ++s) {
    const float* v = vec + static_cast<std::ptrdiff_t>(s) * kVec;
    const float* b = bc + static_cast<std::ptrdiff_t>(s) * kBc;
    const __m256 a0 = _mm256_loadu_ps(v);
    const __m256 a1 = _mm256_loadu_ps(v + 8);
    const __m256 a2 = _mm256_loadu_ps(v + 16);
    __m256 x = _mm256_broadcast_ss(b);
    c00 = _mm256_fmadd_ps(a0, x, c00);
    c01 = _mm256_fmadd_ps(a1, x, c01);
    c02 = _mm256_fmadd_ps(a2, x, c02);
    x = _mm256_broadcast_ss(b + 1);
    c10 = _mm256_fmadd_ps(a0, x, c10);
    c11 = _mm256_fmadd_ps(a1, x, c11);
    c12 = _mm256_fmadd_ps(a2, x, c12);
    x = _mm256_broadcast_ss(b + 2);
    c20 = _mm256_fmadd_ps(a0, x, c20);
    c21 = _mm256_fmadd_ps(a1, x, c21);
    c22 = _mm256_fmadd_ps(a2, x, c22);
    x = _mm256_broadcast_ss(b + 3);
    c30 = _mm256_fmadd_ps(a0, x, c30);
    c31 = _mm256_fmadd_ps(a1, x, c31);
    c32 = _mm256_fmadd_ps(a2, x, c32);
  }
  if (c) {
    AddToRow(c, c00, c01, c02);
    AddToRow(c + ldc, c10, c11, c12);
    AddToRow(c + 2 * ldc, c20, c21, c22);
    AddToRow(c + 3 * ldc, c30, c31, c32);
    return;
  }
  _mm256_storeu_ps(out + 0, c00);
  _mm256_storeu_ps(out + 8, c01);
  _mm256_storeu_ps(out + 16, c02);
  _mm256_storeu_ps(out + 24, c10);
  _mm256_storeu_ps(out + 32, c11);
  _mm256_storeu_ps(out + 40, c12);
  _mm256_storeu_ps(out + 48, c20);
  _mm256_storeu_ps(out + 56, c21);
  _mm256_storeu_ps(out + 64, c22);
  _mm256_storeu_ps(out + 72, c30);
  _mm256_storeu_ps(out + 80, c31);
  _mm256_storeu_ps(out + 88, c32);
}

// The column form for processors with 32 vector registers: the micro-tiles q = 0..count-1 of one column
// panel, all wholly below the diagonal, one after the other. Micro-tile q's bc panel is at bc + q * bcStep
// and its corner of c at c + q * 4 ldc. A micro-tile's sums go to c while the next one is being
// multiplied: each of the first twelve steps adds one of the twelve finished vectors, so the conversions
// and additions run beside the multiply-adds instead of after them (in 16 registers there is no room for
// both sets of sums). The last micro-tile's sums are added after its loop.
#define OX_RANKUPDATE_WIDE __attribute__((target("avx2,fma,avx512f,avx512vl")))
OX_RANKUPDATE_WIDE __attribute__((always_inline)) inline void AddToWide(double* dst, __m256 v) {
  _mm256_storeu_pd(dst, _mm256_add_pd(_mm256_loadu_pd(dst), _mm256_cvtps_pd(_mm256_castps256_ps128(v))));
  _mm256_storeu_pd(dst + 4,
                   _mm256_add_pd(_mm256_loadu_pd(dst + 4), _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1))));
}

// One step of the micro-tile at v, b: three column vectors times four broadcast row values into the twelve
// named sums (named, not an array, so that they stay in registers).
#define OX_WIDE_STEP(v, b)                                                                                   \
  do {                                                                                                       \
    const __m256 a0 = _mm256_loadu_ps(v), a1 = _mm256_loadu_ps((v) + 8), a2 = _mm256_loadu_ps((v) + 16);     \
    __m256 x = _mm256_broadcast_ss(b);                                                                       \
    c00 = _mm256_fmadd_ps(a0, x, c00);                                                                       \
    c01 = _mm256_fmadd_ps(a1, x, c01);                                                                       \
    c02 = _mm256_fmadd_ps(a2, x, c02);                                                                       \
    x = _mm256_broadcast_ss((b) + 1);                                                                        \
    c10 = _mm256_fmadd_ps(a0, x, c10);                                                                       \
    c11 = _mm256_fmadd_ps(a1, x, c11);                                                                       \
    c12 = _mm256_fmadd_ps(a2, x, c12);                                                                       \
    x = _mm256_broadcast_ss((b) + 2);                                                                        \
    c20 = _mm256_fmadd_ps(a0, x, c20);                                                                       \
    c21 = _mm256_fmadd_ps(a1, x, c21);                                                                       \
    c22 = _mm256_fmadd_ps(a2, x, c22);                                                                       \
    x = _mm256_broadcast_ss((b) + 3);                                                                        \
    c30 = _mm256_fmadd_ps(a0, x, c30);                                                                       \
    c31 = _mm256_fmadd_ps(a1, x, c31);                                                                       \
    c32 = _mm256_fmadd_ps(a2, x, c32);                                                                       \
  } while (false)

OX_RANKUPDATE_WIDE void MicroKernelColumnWide(const float* vec, const float* bc, std::ptrdiff_t bcStep,
                                              int count, int kc, double* c, std::ptrdiff_t ldc) {
  // Sums of the micro-tile being multiplied (cRT: row R, part T) and of the one before it (dRT).
  __m256 d00 = _mm256_setzero_ps(), d01 = d00, d02 = d00, d10 = d00, d11 = d00, d12 = d00, d20 = d00,
         d21 = d00, d22 = d00, d30 = d00, d31 = d00, d32 = d00;
  double* done = nullptr;
#define OX_WIDE_ADD_ALL_DONE()                                                                               \
  do {                                                                                                       \
    AddToRow(done, d00, d01, d02);                                                                           \
    AddToRow(done + ldc, d10, d11, d12);                                                                     \
    AddToRow(done + 2 * ldc, d20, d21, d22);                                                                 \
    AddToRow(done + 3 * ldc, d30, d31, d32);                                                                 \
  } while (false)
  for (int q = 0; q < count; ++q) {
    const float* b = bc + q * bcStep;
    __m256 c00 = _mm256_setzero_ps(), c01 = c00, c02 = c00, c10 = c00, c11 = c00, c12 = c00, c20 = c00,
           c21 = c00, c22 = c00, c30 = c00, c31 = c00, c32 = c00;
    int s = 0;
    if (done && kc >= 12) {
      // Step i also adds finished vector i of the micro-tile before.
      OX_WIDE_STEP(vec, b);
      AddToWide(done, d00);
      OX_WIDE_STEP(vec + kVec, b + kBc);
      AddToWide(done + 8, d01);
      OX_WIDE_STEP(vec + 2 * kVec, b + 2 * kBc);
      AddToWide(done + 16, d02);
      OX_WIDE_STEP(vec + 3 * kVec, b + 3 * kBc);
      AddToWide(done + ldc, d10);
      OX_WIDE_STEP(vec + 4 * kVec, b + 4 * kBc);
      AddToWide(done + ldc + 8, d11);
      OX_WIDE_STEP(vec + 5 * kVec, b + 5 * kBc);
      AddToWide(done + ldc + 16, d12);
      OX_WIDE_STEP(vec + 6 * kVec, b + 6 * kBc);
      AddToWide(done + 2 * ldc, d20);
      OX_WIDE_STEP(vec + 7 * kVec, b + 7 * kBc);
      AddToWide(done + 2 * ldc + 8, d21);
      OX_WIDE_STEP(vec + 8 * kVec, b + 8 * kBc);
      AddToWide(done + 2 * ldc + 16, d22);
      OX_WIDE_STEP(vec + 9 * kVec, b + 9 * kBc);
      AddToWide(done + 3 * ldc, d30);
      OX_WIDE_STEP(vec + 10 * kVec, b + 10 * kBc);
      AddToWide(done + 3 * ldc + 8, d31);
      OX_WIDE_STEP(vec + 11 * kVec, b + 11 * kBc);
      AddToWide(done + 3 * ldc + 16, d32);
      s = 12;
    } else if (done) {
      OX_WIDE_ADD_ALL_DONE();
    }
    for (; s < kc; ++s) OX_WIDE_STEP(vec + s * kVec, b + s * kBc);
    d00 = c00, d01 = c01, d02 = c02, d10 = c10, d11 = c11, d12 = c12;
    d20 = c20, d21 = c21, d22 = c22, d30 = c30, d31 = c31, d32 = c32;
    done = c + q * kBc * ldc;
  }
  if (done) OX_WIDE_ADD_ALL_DONE();
}
#undef OX_WIDE_ADD_ALL_DONE
#undef OX_WIDE_STEP

bool HasWideVectorRegisters() {
  static const bool has =
      HasVectorFMA() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl");
  return has;
}
#endif

} // namespace

TSymmetricRankUpdate::TSymmetricRankUpdate(int pointCount, int maxBlockLength, TKernelPath path) {
  if (pointCount < 1 || maxBlockLength < 1)
    throw OrvexException("TSymmetricRankUpdate::TSymmetricRankUpdate: point count " +
                         std::to_string(pointCount) + " and block length " + std::to_string(maxBlockLength) +
                         " must be at least 1");
  M = pointCount;
  MaxK = maxBlockLength;
  TileRows = (M + TileSize - 1) / TileSize;
  VecPanels = (M + VecWidth - 1) / VecWidth;
  BcPanels = (M + BcWidth - 1) / BcWidth;
  Vector = UseVectorPath(path);
#ifdef OX_RANKUPDATE_X86
  Wide = Vector && path == TKernelPath::Auto && HasWideVectorRegisters();
#else
  Vector = false;
#endif
  const std::size_t chunks = (MaxK + MaxSpectraPerPartialSum - 1) / MaxSpectraPerPartialSum;
  VecPack.assign(chunks * VecPanels * MaxSpectraPerPartialSum * VecWidth, 0.0f);
  BcPack.assign(chunks * BcPanels * MaxSpectraPerPartialSum * BcWidth, 0.0f);
}

void TSymmetricRankUpdate::TileOrigin(int tile, int& row, int& column) const {
  if (tile < 0 || tile >= TileCount())
    throw OrvexException("TSymmetricRankUpdate::TileOrigin: tile " + std::to_string(tile) + " not in 0.." +
                         std::to_string(TileCount() - 1));
  int r = static_cast<int>((std::sqrt(8.0 * tile + 1.0) - 1.0) / 2.0);
  while (r * (r + 1) / 2 > tile) --r;
  while ((r + 1) * (r + 2) / 2 <= tile) ++r;
  row = r * TileSize;
  column = (tile - r * (r + 1) / 2) * TileSize;
}

long long TSymmetricRankUpdate::TileWork(int tile) const {
  int row, column;
  TileOrigin(tile, row, column);
  const long long h = std::min(TileSize, M - row);
  const long long w = std::min(TileSize, M - column);
  return row == column ? h * (h + 1) / 2 : h * w;
}

void TSymmetricRankUpdate::ThreadTileRange(int thread, int threadCount, int& first, int& last) const {
  if (threadCount < 1 || thread < 0 || thread >= threadCount)
    throw OrvexException("TSymmetricRankUpdate::ThreadTileRange: thread " + std::to_string(thread) + " of " +
                         std::to_string(threadCount));
  // A tile belongs to the thread in whose equal share of the total work its middle lies; the owner never
  // falls along the tile order, so every thread gets one contiguous range.
  const long long total = static_cast<long long>(M) * (M + 1) / 2;
  first = 0;
  last = -1;
  bool found = false;
  long long before = 0;
  for (int t = 0; t < TileCount(); ++t) {
    const long long w = TileWork(t);
    const long long owner =
        std::min<long long>(threadCount - 1, (2 * before + w) * threadCount / (2 * total));
    before += w;
    if (owner == thread) {
      if (!found) first = t;
      found = true;
      last = t;
    } else if (owner > thread) {
      break;
    }
  }
  if (!found) {
    first = 0;
    last = -1;
  }
}

void TSymmetricRankUpdate::SetBlockLength(int length) {
  if (length < 1 || length > MaxK)
    throw OrvexException("TSymmetricRankUpdate::SetBlockLength: length " + std::to_string(length) +
                         " not in 1.." + std::to_string(MaxK));
  K = length;
}

// Copies one spectrum into both packed forms; the last panel of each is padded with zeros. Spectra are
// grouped in chunks of one partial sum, and a chunk holds all panels, so the writes of one spectrum stay
// within a few pages that the next spectra of the chunk use again.
template <typename T, int Width>
static void PackPanels(const T* values, int m, int s, float* pack) {
  constexpr int kChunk = TSymmetricRankUpdate::MaxSpectraPerPartialSum;
  const int panels = (m + Width - 1) / Width, whole = m / Width;
  float* dst = pack + (static_cast<std::ptrdiff_t>(s / kChunk) * panels * kChunk + s % kChunk) * Width;
  constexpr std::ptrdiff_t panelStride = static_cast<std::ptrdiff_t>(kChunk) * Width;
  for (int p = 0; p < whole; ++p, dst += panelStride) {
    const T* src = values + p * Width;
    for (int t = 0; t < Width; ++t) dst[t] = static_cast<float>(src[t]);
  }
  if (whole * Width < m) {
    const int base = whole * Width;
    for (int t = 0; t < Width; ++t) dst[t] = base + t < m ? static_cast<float>(values[base + t]) : 0.0f;
  }
}

template <typename T>
static void PackSpectrum(const T* values, int m, int s, float* vecPack, float* bcPack) {
  PackPanels<T, kVec>(values, m, s, vecPack);
  PackPanels<T, kBc>(values, m, s, bcPack);
}

void TSymmetricRankUpdate::LoadSpectrum(int s, const float* values) {
  if (s < 0 || s >= K)
    throw OrvexException("TSymmetricRankUpdate::LoadSpectrum: spectrum " + std::to_string(s) + " not in 0.." +
                         std::to_string(K - 1));
  PackSpectrum(values, M, s, VecPack.data(), BcPack.data());
}

void TSymmetricRankUpdate::LoadSpectrum(int s, const double* values) {
  if (s < 0 || s >= K)
    throw OrvexException("TSymmetricRankUpdate::LoadSpectrum: spectrum " + std::to_string(s) + " not in 0.." +
                         std::to_string(K - 1));
  PackSpectrum(values, M, s, VecPack.data(), BcPack.data());
}

void TSymmetricRankUpdate::LoadBlock(const float* values, int length, std::ptrdiff_t stride) {
  SetBlockLength(length);
  for (int s = 0; s < length; ++s) LoadSpectrum(s, values + s * stride);
}

void TSymmetricRankUpdate::UpdateTile(int tile, double* c, std::ptrdiff_t ldc) const {
  if (K < 1) throw OrvexException("TSymmetricRankUpdate::UpdateTile: no block loaded");
  int row, column;
  TileOrigin(tile, row, column);
  UpdateMicroTiles(row, std::min(row + TileSize, M), column, std::min(column + TileSize, M), c, ldc);
}

void TSymmetricRankUpdate::UpdateMicroTiles(int rowBegin, int rowEnd, int colBegin, int colEnd, double* c,
                                            std::ptrdiff_t ldc) const {
  alignas(32) float out[kBc * kVec];
  const int pFirst = colBegin / kVec, pEnd = (colEnd + kVec - 1) / kVec;
  const int qFirst = rowBegin / kBc, qEnd = (rowEnd + kBc - 1) / kBc;
  for (int s0 = 0; s0 < K; s0 += MaxSpectraPerPartialSum) {
    const int kc = std::min(MaxSpectraPerPartialSum, K - s0);
    for (int p = pFirst; p < pEnd; ++p) {
      const int c0 = p * kVec;
      const std::ptrdiff_t chunk = s0 / MaxSpectraPerPartialSum;
      const float* vec = VecPack.data() + (chunk * VecPanels + p) * MaxSpectraPerPartialSum * kVec;
      int q = qFirst;
#ifdef OX_RANKUPDATE_X86
      if (Wide) {
        // The run of micro-tiles wholly below the diagonal and inside the matrix goes in one call.
        int qFull = std::max(qFirst, (c0 + kVec - 1 + kBc - 1) / kBc);
        const int qFullEnd = std::min(qEnd, M / kBc);
        if (qFull < qFullEnd) {
          const float* bc = BcPack.data() + (chunk * BcPanels + qFull) * MaxSpectraPerPartialSum * kBc;
          MicroKernelColumnWide(vec, bc, MaxSpectraPerPartialSum * kBc, qFullEnd - qFull, kc,
                                c + qFull * kBc * ldc + c0, ldc);
        }
        // The others, nearer the diagonal or at the matrix edge, go one by one below.
        for (; q < qEnd; ++q) {
          if (q >= qFull && q < qFullEnd) continue;
          UpdateOneMicroTile(chunk, p, q, kc, vec, c, ldc, out);
        }
        continue;
      }
#endif
      for (; q < qEnd; ++q) UpdateOneMicroTile(chunk, p, q, kc, vec, c, ldc, out);
    }
  }
}

void TSymmetricRankUpdate::UpdateOneMicroTile(std::ptrdiff_t chunk, int p, int q, int kc, const float* vec,
                                              double* c, std::ptrdiff_t ldc, float* out) const {
  const int c0 = p * kVec, r0 = q * kBc;
  if (c0 > r0 + kBc - 1) return; // wholly above the diagonal
  const float* bc = BcPack.data() + (chunk * BcPanels + q) * MaxSpectraPerPartialSum * kBc;
  double* corner = c + r0 * ldc + c0;
  const bool full = r0 + kBc <= M && c0 + kVec - 1 <= r0;
#ifdef OX_RANKUPDATE_X86
  if (Vector) {
    if (full) {
      MicroKernelVector(vec, bc, kc, nullptr, corner, ldc);
      return;
    }
    MicroKernelVector(vec, bc, kc, out, nullptr, 0);
  } else {
    MicroKernelPlain(vec, bc, kc, out);
  }
#else
  MicroKernelPlain(vec, bc, kc, out);
#endif
  for (int r = 0; r < kBc && r0 + r < M; ++r) {
    const int tEnd = std::min(kVec, r0 + r - c0 + 1);
    double* dst = corner + r * ldc;
    for (int t = 0; t < tEnd; ++t) dst[t] += static_cast<double>(out[r * kVec + t]);
  }
}

void TSymmetricRankUpdate::UpdateAllTiles(double* c, std::ptrdiff_t ldc, int threadCount) const {
  threadCount = std::max(1, threadCount);
  auto work = [this, c, ldc, threadCount](int thread) {
    int first, last;
    ThreadTileRange(thread, threadCount, first, last);
    for (int t = first; t <= last; ++t) UpdateTile(t, c, ldc);
  };
  std::vector<std::thread> threads;
  threads.reserve(threadCount - 1);
  for (int i = 1; i < threadCount; ++i) threads.emplace_back(work, i);
  work(0);
  for (std::thread& t : threads) t.join();
}

void TSymmetricRankUpdate::MirrorLowerToUpper(double* c, int n, std::ptrdiff_t ldc) {
  for (int r = 0; r < n; ++r)
    for (int col = 0; col < r; ++col) c[col * ldc + r] = c[r * ldc + col];
}
