// The workbench's small numeric library: vectors, matrices, statistics, rounding and helpers.
#include "common/numerics/Numerics.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/numerics/Sorttools.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <random>
#include <sstream>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <vector>

// ---------------------------------------------------------------------------------------------
// TExtremaInfo

TExtremaInfo::~TExtremaInfo() {
  delete[] Values;
}

void TExtremaInfo::SetValues(const float* values, int count) {
  delete[] Values;
  Values = nullptr;
  NumberOfValues = 0;
  if (count > 0 && values) {
    Values = new float[count];
    std::memcpy(Values, values, sizeof(float) * count);
    NumberOfValues = count;
  }
}

void TExtremaInfo::CopyFrom(const TExtremaInfo& source) {
  if (&source == this) return;
  Minimum = source.Minimum;
  MinimumIndex = source.MinimumIndex;
  MaximumIndex = source.MaximumIndex;
  ValidCount = source.ValidCount;
  InvalidCount = source.InvalidCount;
  Flags = source.Flags;
  Maximum = source.Maximum;
  if (source.Values)
    SetValues(source.Values, source.NumberOfValues);
  else
    NumberOfValues = source.NumberOfValues;
}

// ---------------------------------------------------------------------------------------------
// Statistics and sampling

namespace {
template <typename T>
double InterpolatedBufferValue(const T* values, int n, double fraction) {
  if (n < 1 || fraction < 0.0 || fraction > 1.0 || !values)
    throw OrvexException("GetInterpolatedBufferValue: Argument Exception");
  const double pos = (n - 1) * fraction;
  const int i = static_cast<int>(pos);
  if (i + 1 > n - 1) return values[i];
  const double f = pos - i;
  return values[i] + (double(values[i + 1]) - values[i]) * f;
}
} // namespace

double GetInterpolatedBufferValue(const double* values, int n, double fraction) {
  return InterpolatedBufferValue(values, n, fraction);
}
float GetInterpolatedBufferValue(const float* values, int n, double fraction) {
  return static_cast<float>(InterpolatedBufferValue(values, n, fraction));
}

void GetStatisticalDescriptionFromArray(double* values, int n, TStatisticalDescription* d) {
  if (!d || n < 1 || !values) return;
  QuickSort(values, static_cast<unsigned>(n));
  d->Lower5Percent = GetInterpolatedBufferValue(values, n, 0.05);
  d->Upper5Percent = GetInterpolatedBufferValue(values, n, 0.95);
  d->Median = GetInterpolatedBufferValue(values, n, 0.5);
  d->Maximum = values[n - 1];
  d->Minimum = values[0];
  long double sum = 0;
  for (int i = 0; i < n; ++i) sum += values[i];
  const long double mean = sum / n;
  long double sq = 0;
  for (int i = 0; i < n; ++i) sq += (values[i] - mean) * (values[i] - mean);
  d->Mean = static_cast<double>(mean);
  d->Variance = static_cast<double>(sq / n);
  d->StandardDeviation = std::sqrt(d->Variance);
}

float GetInterpolatedBufferIndexPercentage(const float* values, int n, float value) {
  if (n < 1 || !values) return 1.0f;
  int i = 0;
  while (i < n && values[i] < value) ++i;
  if (i >= n) return 1.0f;
  if (n == 1) return 0.0f;
  if (values[i] == value) return static_cast<float>(double(i) / (n - 1));
  if (i == 0) return 0.0f;
  const double lo = values[i - 1], hi = values[i];
  const double f = (hi > lo) ? (value - lo) / (hi - lo) : 0.0;
  return static_cast<float>((i - 1 + f) / (n - 1));
}

int ConvertIndexToPeriodicInterval(int i, int n) {
  if (n < 1) return 0;
  int r = i % n;
  if (r < 0) r += n;
  return r;
}

int ConvertIndexToMirrorPeriodicInterval(int i, int n) {
  if (n < 1) return 0;
  const int k = ConvertIndexToPeriodicInterval(i, 2 * n);
  return k >= n ? 2 * n - 1 - k : k;
}

float GetValueFromArrayContinueBorder(int i, const float* values, int n) {
  if (i < 0) return values[0];
  if (i >= n) return values[n - 1];
  return values[i];
}

float GetValueFromArrayPointReflection(int i, const float* values, int n) {
  if (i >= 0 && i < n) return values[i];
  if (i < 0) {
    const int m = std::min(-i, n - 1);
    return 2.0f * values[0] - values[m];
  }
  const int m = std::max(2 * (n - 1) - i, 0);
  return 2.0f * values[n - 1] - values[m];
}

// ---------------------------------------------------------------------------------------------
// Rounding and conversion

namespace {
template <typename T>
T RoundT(T scale, T value) {
  const T s = value > 0 ? T(1) : (value < 0 ? T(-1) : T(0));
  return std::trunc(value * scale + T(0.5) * s) / scale;
}

template <typename T>
T DeltaTick(T value) {
  const T a = std::fabs(value);
  if (a < T(1e-30)) return 0;
  T t = std::pow(T(10), std::trunc(std::log10(a)));
  while (a / t < 1) t /= 10;
  const T r = std::trunc(a / t) * t;
  return value < 0 ? -r : r;
}
} // namespace

float Round(float scale, float value) {
  return RoundT(scale, value);
}
double Round(double scale, double value) {
  return RoundT(scale, value);
}
long double Round(long double scale, long double value) {
  return RoundT(scale, value);
}

double SafeExtendedToDouble(long double x) {
  if (x > 1e306L) return 1e306;
  if (x < -1e306L) return -1e306;
  if (x > 0 && x < 1e-306L) return 1e-306;
  if (x < 0 && x > -1e-306L) return -1e-306;
  return static_cast<double>(x);
}

double SimpleRoundTo(double value, int exponent) {
  const long double factor = std::pow(10.0L, static_cast<long double>(-exponent));
  const long double v = static_cast<long double>(value) * factor;
  const long double r = value < 0 ? std::trunc(v - 0.5L) : std::trunc(v + 0.5L);
  return static_cast<double>(r / factor);
}

double RoundToSignificantDigit(double value, int digits) {
  if (std::fabs(value) < 1e-200) return 0.0;
  const int exponent = static_cast<int>(std::floor(std::log10(std::fabs(value))));
  return SimpleRoundTo(value, exponent - digits);
}

float GetDeltaTick(float value) {
  return DeltaTick(value);
}
double GetDeltaTick(double value) {
  return DeltaTick(value);
}
long double GetDeltaTick(long double value) {
  return DeltaTick(value);
}

double NextPowerOfTwo(double value, bool downward) {
  int k = 0;
  while (value > 1.0 && k < 2000) {
    value *= 0.5;
    ++k;
  }
  return downward ? std::ldexp(1.0, k) : std::ldexp(1.0, k + 1);
}

float Sign(float value) {
  return value > 0 ? 1.0f : (value < 0 ? -1.0f : 0.0f);
}

// ---------------------------------------------------------------------------------------------
// Functions of a line or a Gaussian

float GaussSigma(float x, float sigma) {
  return SafeDoubleToFloat(std::exp(-0.5 * double(x) * x / (double(sigma) * sigma)));
}

float GaussVectorSigma(float sigma, const float* a, const float* b, int n) {
  double d2 = 0;
  for (int i = 0; i < n; ++i) d2 += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
  return GaussSigma(static_cast<float>(std::sqrt(d2)), sigma);
}

void TwoPointToPointSlope(double y1, double y2, double x1, double x2, double* slope, double* offset) {
  *slope = (y1 - y2) / (x1 - x2);
  *offset = y2 - (y1 - y2) * x2 / (x1 - x2);
}

double LinearScale(double y1, double y2, double x1, double x2, double x) {
  double slope, offset;
  TwoPointToPointSlope(y1, y2, x1, x2, &slope, &offset);
  return slope * x + offset;
}

double LogarithmicScale(double x, double a, double b, double c, double d) {
  return std::log(d / c) * (x - a) / std::log(b / c) + a;
}

double ExponentialScale(double x, double a, double b, double c, double d) {
  return a * std::exp(std::log(x / a) * (d - c) / (b - c));
}

namespace {
template <typename T>
void Binomial(T* values, int n, int level) {
  if (n < 0) return;
  if (level == 0) {
    values[0] = 1;
  } else {
    values[level] = 1;
    for (int j = level - 1; j >= 1; --j) values[j] += values[j - 1];
  }
  if (level < n) Binomial(values, n, level + 1);
}
} // namespace

void BinomialValues(double* values, int n, int level) {
  Binomial(values, n, level);
}
void BinomialValues(float* values, int n, int level) {
  Binomial(values, n, level);
}

void ShiftAndStretchPolynom(double a, double b, int order, const double* in, double* out) {
  if (order < 0) return;
  std::vector<double> row(order + 1);
  std::vector<long double> acc(order + 1, 0.0L);
  for (int i = 0; i <= order; ++i) {
    BinomialValues(row.data(), i, 0);
    // in[i] (a x + b)^i = in[i] sum_k C(i,k) a^k x^k b^(i-k)
    for (int k = 0; k <= i; ++k)
      acc[k] += static_cast<long double>(in[i]) * row[k] * std::pow(static_cast<long double>(a), k) *
                std::pow(static_cast<long double>(b), i - k);
  }
  for (int k = 0; k <= order; ++k) out[k] = static_cast<double>(acc[k]);
}

void SwapMin(float& a, float& b) {
  if (a > b) std::swap(a, b);
}
void SwapMin(double& a, double& b) {
  if (a > b) std::swap(a, b);
}
void SwapMin(long double& a, long double& b) {
  if (a > b) std::swap(a, b);
}
void SwapMin(int& a, int& b) {
  if (a > b) std::swap(a, b);
}

bool IsArrayMonotonic(const double* values, int n, bool strict, int direction) {
  if (n < 2) return true;
  bool rising;
  if (direction == 1)
    rising = true;
  else if (direction == 2)
    rising = false;
  else
    rising = values[1] >= values[0];
  if (direction == 1 && values[1] < values[0]) return false;
  if (direction == 2 && values[1] > values[0]) return false;
  for (int i = 1; i < n; ++i) {
    const double d = values[i] - values[i - 1];
    if (strict && d == 0) return false;
    if (rising ? d < 0 : d > 0) return false;
  }
  return true;
}

bool IsAtLeastOneBoolSetInArray(const bool* values, int n) {
  for (int i = 0; i < n; ++i)
    if (values[i]) return true;
  return false;
}

void SetUnitMatrix(float* a, int n) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) a[i * n + j] = (i == j) ? 1.0f : 0.0f;
}

void MultiplyMatrices(float* a, int rowsA, int colsA, const float* b, int rowsB, int colsB) {
  if (colsA != rowsB || rowsA < 1 || colsB < 1) return;
  std::vector<float> r(static_cast<size_t>(rowsA) * colsB);
  for (int i = 0; i < rowsA; ++i)
    for (int j = 0; j < colsB; ++j) {
      double s = 0;
      for (int k = 0; k < colsA; ++k) s += double(a[i * colsA + k]) * b[k * colsB + j];
      r[static_cast<size_t>(i) * colsB + j] = static_cast<float>(s);
    }
  std::copy(r.begin(), r.end(), a);
}

// ---------------------------------------------------------------------------------------------
// Dithered integer subtraction

namespace {
// The carry receives fraction * random(0..1) * 2, whose expectation is the fraction itself.
constexpr double kDitherFactor = 2.0;
} // namespace

void LocalSubtractDoubleArrayFromIntArray(int* a, const double* b, int n) {
  double carry = 0;
  for (int i = 0; i < n; ++i) {
    const double whole = std::trunc(b[i]);
    carry += (b[i] - whole) * Rnd() * kDitherFactor;
    const double c = std::trunc(carry);
    carry -= c;
    a[i] -= static_cast<int>(whole + c);
  }
}

void GlobalSubtractDoubleArrayFromIntArray(int* a, const double* b, int n) {
  // Deterministic error diffusion: the running sum of subtracted integers never differs from the
  // running sum of b by one or more.
  double carry = 0;
  for (int i = 0; i < n; ++i) {
    const double whole = std::trunc(b[i]);
    carry += b[i] - whole;
    const double c = std::trunc(carry);
    carry -= c;
    a[i] -= static_cast<int>(whole + c);
  }
}

void GlobalSubtractDoubleFromIntArray(int* a, int n, double b) {
  const double whole = std::trunc(b + 0.5);
  const double fraction = b - whole; // -0.5 .. 0.5
  double carry = 0;
  for (int i = 0; i < n; ++i) {
    carry += fraction;
    const double c = std::trunc(carry);
    carry -= c;
    a[i] -= static_cast<int>(whole + c);
  }
}

std::string SubtractDoubleArrayFromIntArrayTest() {
  const int n = 10000;
  std::vector<double> b(n);
  for (int i = 0; i < n; ++i) b[i] = 100.0 + 10.0 * std::sin(i * 0.01) + 0.37;
  long double exact = 0;
  for (double v : b) exact += v;
  auto run = [&](auto f) {
    std::vector<int> a(n, 1000);
    f(a.data());
    long double sum = 0;
    for (int v : a) sum += 1000 - v;
    return static_cast<double>((sum - exact) / n);
  };
  std::ostringstream s;
  s << "Local: " << run([&](int* a) { LocalSubtractDoubleArrayFromIntArray(a, b.data(), n); })
    << "; Global: " << run([&](int* a) { GlobalSubtractDoubleArrayFromIntArray(a, b.data(), n); })
    << "; Truncated: " << run([&](int* a) {
         for (int i = 0; i < n; ++i) a[i] -= static_cast<int>(b[i]);
       });
  return s.str();
}

bool AllFinite(const float* values, int64_t n) {
  // A value is NaN or infinite exactly when its exponent bits are all set.
  constexpr uint32_t kExponent = 0x7f800000u;
  int64_t i = 0;
#if defined(__SSE2__)
  const __m128i exponent = _mm_set1_epi32(static_cast<int>(kExponent));
  __m128i found = _mm_setzero_si128();
  for (; i + 4 <= n; i += 4) {
    const __m128i bits = _mm_loadu_si128(reinterpret_cast<const __m128i*>(values + i));
    found = _mm_or_si128(found, _mm_cmpeq_epi32(_mm_and_si128(bits, exponent), exponent));
  }
  if (_mm_movemask_epi8(found) != 0) return false;
#endif
  for (; i < n; ++i) {
    uint32_t bits;
    std::memcpy(&bits, values + i, sizeof bits);
    if ((bits & kExponent) == kExponent) return false;
  }
  return true;
}
