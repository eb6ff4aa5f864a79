// Polynomial background of an image: normal equations accumulated in one pass over the valid lines, solved
// by LU decomposition, the background subtracted in a second pass.
#include "common/numerics/Imagebackground.h"

#include "common/numerics/Linalg.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// Four floats in one register: the compiler's portable vector type, so the loops below use the vector
// unit without flags for a particular processor.
using TFloat4 = float __attribute__((vector_size(16)));

inline TFloat4 Load4(const float* p) {
  TFloat4 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void Store4(float* p, TFloat4 v) {
  std::memcpy(p, &v, sizeof v);
}
inline TFloat4 Splat4(float f) {
  return TFloat4{f, f, f, f};
}

/// Sums of z * u^i (i = 0..K) over x0..x1-1 of a line of n pixels in double precision; pw holds u^i at
/// pw + i * n.
template <int K>
void SumScalar(const float* line, const float* pw, int n, int x0, int x1, double* t) {
  for (int i = 0; i <= K; ++i) t[i] = 0;
  for (int x = x0; x < x1; ++x) {
    const double z = line[x];
    t[0] += z;
    for (int i = 1; i <= K; ++i) t[i] += z * pw[i * n + x];
  }
}

/// Sums of z * u^i (i = 0..K) over one line of n pixels. Blocks of 256 pixels are summed in float vectors
/// (eight lanes, so each lane adds 32 values and keeps about single precision), the block sums in double.
/// A block whose float sums overflow is summed again in double, so t[0] is non-finite only when a pixel is.
template <int K>
void SumLine(const float* line, const float* pw, int n, double* t) {
  constexpr int kBlock = 256;
  for (int i = 0; i <= K; ++i) t[i] = 0;
  for (int x0 = 0; x0 < n; x0 += kBlock) {
    const int x1 = std::min(n, x0 + kBlock);
    TFloat4 a[2][K + 1] = {};
    int x = x0;
    for (; x + 8 <= x1; x += 8) {
      for (int l = 0; l < 2; ++l) {
        const TFloat4 z = Load4(line + x + 4 * l);
        a[l][0] += z;
        for (int i = 1; i <= K; ++i) a[l][i] += z * Load4(pw + i * n + x + 4 * l);
      }
    }
    double block[K + 1], tail[K + 1];
    bool finite = true;
    for (int i = 0; i <= K; ++i) {
      const TFloat4 s = a[0][i] + a[1][i];
      block[i] = (double(s[0]) + double(s[1])) + (double(s[2]) + double(s[3]));
      finite = finite && std::isfinite(block[i]);
    }
    if (finite) {
      SumScalar<K>(line, pw, n, x, x1, tail);
      for (int i = 0; i <= K; ++i) block[i] += tail[i];
    } else {
      SumScalar<K>(line, pw, n, x0, x1, block);
    }
    for (int i = 0; i <= K; ++i) t[i] += block[i];
  }
}

/// out = in - (c0 + c1 u + ... + cK u^K) over one line.
template <int K>
void SubtractPolynomial(const float* in, float* out, const float* pw, int n, const float* c) {
  const float c0 = c[0], c1 = K >= 1 ? c[1] : 0.0f, c2 = K >= 2 ? c[2] : 0.0f, c3 = K >= 3 ? c[3] : 0.0f;
  const float* p1 = pw + n;
  const float* p2 = pw + 2 * n;
  const float* p3 = pw + 3 * n;
  const TFloat4 v0 = Splat4(c0), v1 = Splat4(c1), v2 = Splat4(c2), v3 = Splat4(c3);
  int x = 0;
  for (; x + 4 <= n; x += 4) {
    TFloat4 b = v0;
    if constexpr (K >= 1) b += v1 * Load4(p1 + x);
    if constexpr (K >= 2) b += v2 * Load4(p2 + x);
    if constexpr (K >= 3) b += v3 * Load4(p3 + x);
    Store4(out + x, Load4(in + x) - b);
  }
  for (; x < n; ++x) {
    float b = c0;
    if constexpr (K >= 1) b += c1 * p1[x];
    if constexpr (K >= 2) b += c2 * p2[x];
    if constexpr (K >= 3) b += c3 * p3[x];
    out[x] = in[x] - b;
  }
}

} // namespace

std::string TImageBackgroundStatus::Text() const {
  switch (Code) {
  case TImageBackgroundCode::Done:
    return "done";
  case TImageBackgroundCode::NotFinite:
    return "pixel x = " + std::to_string(X) + ", y = " + std::to_string(Y) + " is not a finite number";
  case TImageBackgroundCode::BadParameters:
    return "the order must be 0 to 3 and the image at least one pixel in size";
  case TImageBackgroundCode::TooFewPixels:
    return "the image has too few columns or valid lines for a background of this order";
  case TImageBackgroundCode::Singular:
    return "the background's equations could not be solved";
  }
  return "unknown status";
}

void TImageBackgroundSums::Add(const TImageBackgroundSums& other) {
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) R[i][j] += other.R[i][j];
}

TImageBackgroundStatus TImageBackgroundSubtraction::Prepare(TImageBackgroundMode mode, int order, int sizeX,
                                                            int sizeY, const bool* lineValid) {
  FPrepared = FSolved = false;
  TImageBackgroundStatus status;
  if ((mode != TImageBackgroundMode::Surface && mode != TImageBackgroundMode::Lines) || order < 0 ||
      order > kMaximumOrder || sizeX < 1 || sizeY < 1) {
    status.Code = TImageBackgroundCode::BadParameters;
    return status;
  }
  FMode = mode;
  FOrder = order;
  FSizeX = sizeX;
  FSizeY = sizeY;
  FLineValid.assign(sizeY, 1);
  FValidLines = sizeY;
  if (lineValid != nullptr) {
    for (int y = 0; y < sizeY; ++y) FLineValid[y] = lineValid[y] ? 1 : 0;
    FValidLines = static_cast<int>(std::count(FLineValid.begin(), FLineValid.end(), 1));
  }
  if (sizeX <= order || (mode == TImageBackgroundMode::Surface && FValidLines <= order)) {
    status.Code = TImageBackgroundCode::TooFewPixels;
    return status;
  }
  // Coordinates centred on the image and scaled to [-1, 1]; a single column or line stays at 0.
  FCentreX = 0.5 * (sizeX - 1);
  FScaleX = sizeX > 1 ? 1.0 / FCentreX : 1.0;
  FCentreY = 0.5 * (sizeY - 1);
  FScaleY = sizeY > 1 ? 1.0 / FCentreY : 1.0;
  // The fit and the subtraction both use these rounded powers, so the background removed is exactly the
  // least-squares solution in the basis the sums were taken in.
  FPowers.assign(static_cast<size_t>(order + 1) * sizeX, 1.0f);
  for (int x = 0; x < sizeX; ++x) {
    const double u = (x - FCentreX) * FScaleX;
    double p = 1.0;
    for (int i = 1; i <= order; ++i) {
      p *= u;
      FPowers[static_cast<size_t>(i) * sizeX + x] = static_cast<float>(p);
    }
  }
  if (mode == TImageBackgroundMode::Lines) {
    const int n = order + 1;
    FLineLU.assign(n * n, 0.0);
    FLineIndex.assign(n, 0);
    for (int a = 0; a < n; ++a)
      for (int b = 0; b < n; ++b) {
        double s = 0;
        for (int x = 0; x < sizeX; ++x)
          s += double(FPowers[size_t(a) * sizeX + x]) * double(FPowers[size_t(b) * sizeX + x]);
        FLineLU[a * n + b] = s;
      }
    double d = 0;
    if (!ludcmp(FLineLU.data(), n, FLineIndex.data(), &d) || !CheckLinearDependency(FLineLU.data(), n)) {
      status.Code = TImageBackgroundCode::Singular;
      return status;
    }
  }
  FPrepared = true;
  return status;
}

TImageBackgroundStatus TImageBackgroundSubtraction::NotFiniteAt(const float* line, int sizeX, int y) {
  TImageBackgroundStatus status;
  status.Code = TImageBackgroundCode::NotFinite;
  status.Y = y;
  for (int x = 0; x < sizeX; ++x)
    if (!std::isfinite(line[x])) {
      status.X = x;
      break;
    }
  return status;
}

bool TImageBackgroundSubtraction::LineSums(const float* line, double* t) const {
  switch (FOrder) {
  case 0:
    SumLine<0>(line, FPowers.data(), FSizeX, t);
    break;
  case 1:
    SumLine<1>(line, FPowers.data(), FSizeX, t);
    break;
  case 2:
    SumLine<2>(line, FPowers.data(), FSizeX, t);
    break;
  default:
    SumLine<3>(line, FPowers.data(), FSizeX, t);
    break;
  }
  // The plain sum of the line is finite exactly when every pixel is: finite floats can't overflow a double
  // sum, while NaN and infinity carry through it.
  return std::isfinite(t[0]);
}

void TImageBackgroundSubtraction::SubtractLine(const float* in, float* out, const float* c) const {
  switch (FOrder) {
  case 0:
    SubtractPolynomial<0>(in, out, FPowers.data(), FSizeX, c);
    break;
  case 1:
    SubtractPolynomial<1>(in, out, FPowers.data(), FSizeX, c);
    break;
  case 2:
    SubtractPolynomial<2>(in, out, FPowers.data(), FSizeX, c);
    break;
  default:
    SubtractPolynomial<3>(in, out, FPowers.data(), FSizeX, c);
    break;
  }
}

TImageBackgroundStatus TImageBackgroundSubtraction::Accumulate(const float* image, int firstLine,
                                                               int lastLine,
                                                               TImageBackgroundSums& sums) const {
  TImageBackgroundStatus status;
  if (!FPrepared || FMode != TImageBackgroundMode::Surface) {
    status.Code = TImageBackgroundCode::BadParameters;
    return status;
  }
  firstLine = std::max(firstLine, 0);
  lastLine = std::min(lastLine, FSizeY - 1);
  double t[4];
  for (int y = firstLine; y <= lastLine; ++y) {
    if (!FLineValid[y]) continue;
    const float* line = image + static_cast<size_t>(y) * FSizeX;
    if (!LineSums(line, t)) return NotFiniteAt(line, FSizeX, y);
    const double v = ScaledY(y);
    for (int i = 0; i <= FOrder; ++i) {
      double vj = 1.0;
      for (int j = 0; i + j <= FOrder; ++j, vj *= v) sums.R[i][j] += t[i] * vj;
    }
  }
  return status;
}

TImageBackgroundStatus TImageBackgroundSubtraction::Solve(const TImageBackgroundSums& sums) {
  TImageBackgroundStatus status;
  FSolved = false;
  if (!FPrepared || FMode != TImageBackgroundMode::Surface) {
    status.Code = TImageBackgroundCode::BadParameters;
    return status;
  }
  // The normal matrix separates: sum over pixels of u^(i1+i2) v^(j1+j2) is the column sum of u^i1 u^i2
  // times the sum of v^(j1+j2) over the valid lines.
  const int k = FOrder;
  double px[4][4] = {}, qy[7] = {};
  for (int a = 0; a <= k; ++a)
    for (int b = 0; b <= k; ++b) {
      double s = 0;
      for (int x = 0; x < FSizeX; ++x)
        s += double(FPowers[size_t(a) * FSizeX + x]) * double(FPowers[size_t(b) * FSizeX + x]);
      px[a][b] = s;
    }
  for (int y = 0; y < FSizeY; ++y) {
    if (!FLineValid[y]) continue;
    const double v = ScaledY(y);
    double p = 1.0;
    for (int m = 0; m <= 2 * k; ++m, p *= v) qy[m] += p;
  }
  int ti[10], tj[10], n = 0;
  for (int d = 0; d <= k; ++d)
    for (int j = 0; j <= d; ++j) ti[n] = d - j, tj[n] = j, ++n;
  double m[100], b[10];
  for (int r = 0; r < n; ++r) {
    for (int c = 0; c < n; ++c) m[r * n + c] = px[ti[r]][ti[c]] * qy[tj[r] + tj[c]];
    b[r] = sums.R[ti[r]][tj[r]];
  }
  int index[10];
  double d = 0;
  if (!ludcmp(m, n, index, &d) || !CheckLinearDependency(m, n)) {
    status.Code = TImageBackgroundCode::Singular;
    return status;
  }
  lubksb(m, n, index, b);
  std::memset(FCoefficients, 0, sizeof(FCoefficients));
  for (int r = 0; r < n; ++r) {
    if (!std::isfinite(b[r])) {
      status.Code = TImageBackgroundCode::Singular;
      return status;
    }
    FCoefficients[ti[r]][tj[r]] = b[r];
  }
  FSolved = true;
  return status;
}

void TImageBackgroundSubtraction::LineCoefficients(int y, float* c) const {
  const double v = ScaledY(y);
  for (int i = 0; i <= FOrder; ++i) {
    double s = 0, vj = 1.0;
    for (int j = 0; i + j <= FOrder; ++j, vj *= v) s += FCoefficients[i][j] * vj;
    c[i] = static_cast<float>(s);
  }
}

TImageBackgroundStatus TImageBackgroundSubtraction::Subtract(const float* in, float* out, int firstLine,
                                                             int lastLine) const {
  TImageBackgroundStatus status;
  const bool surface = FMode == TImageBackgroundMode::Surface;
  if (!FPrepared || (surface && !FSolved)) {
    status.Code = TImageBackgroundCode::BadParameters;
    return status;
  }
  firstLine = std::max(firstLine, 0);
  lastLine = std::min(lastLine, FSizeY - 1);
  const int n = FOrder + 1;
  float c[4];
  double t[4];
  for (int y = firstLine; y <= lastLine; ++y) {
    const float* src = in + static_cast<size_t>(y) * FSizeX;
    float* dst = out + static_cast<size_t>(y) * FSizeX;
    if (!FLineValid[y]) {
      if (dst != src) std::memcpy(dst, src, sizeof(float) * FSizeX);
      continue;
    }
    if (surface) {
      LineCoefficients(y, c);
    } else {
      if (!LineSums(src, t)) return NotFiniteAt(src, FSizeX, y);
      lubksb(FLineLU.data(), n, FLineIndex.data(), t);
      for (int i = 0; i < n; ++i) c[i] = static_cast<float>(t[i]);
    }
    SubtractLine(src, dst, c);
  }
  return status;
}

TImageBackgroundStatus TImageBackgroundSubtraction::Run(const float* in, float* out) {
  if (FPrepared && FMode == TImageBackgroundMode::Surface) {
    TImageBackgroundSums sums;
    TImageBackgroundStatus status = Accumulate(in, 0, FSizeY - 1, sums);
    if (!status.Ok()) return status;
    status = Solve(sums);
    if (!status.Ok()) return status;
  }
  return Subtract(in, out, 0, FSizeY - 1);
}

double TImageBackgroundSubtraction::Background(int x, int y) const {
  if (!FSolved || x < 0 || x >= FSizeX || y < 0 || y >= FSizeY) return 0.0;
  const double u = (x - FCentreX) * FScaleX, v = ScaledY(y);
  double s = 0, ui = 1.0;
  for (int i = 0; i <= FOrder; ++i, ui *= u) {
    double vj = 1.0;
    for (int j = 0; i + j <= FOrder; ++j, vj *= v) s += FCoefficients[i][j] * ui * vj;
  }
  return s;
}

TImageBackgroundStatus SubtractImageBackground(const float* in, float* out, const bool* lineValid, int sizeX,
                                               int sizeY, TImageBackgroundMode mode, int order) {
  TImageBackgroundSubtraction kernel;
  const TImageBackgroundStatus status = kernel.Prepare(mode, order, sizeX, sizeY, lineValid);
  if (!status.Ok()) return status;
  return kernel.Run(in, out);
}
