// Range reductions of one spectrum with the background beside the range.
#include "common/numerics/Filterreductions.h"

#include "common/Saveandload.h"
#include "common/numerics/Linalg.h"

#include <algorithm>
#include <cmath>

namespace {

// Mean value and mean x of up to count pixels from first, stepping by step, inside the field.
void SideMean(const TFilterField& f, int first, int step, int count, double& value, double& x, int& used) {
  double sv = 0, sx = 0;
  used = 0;
  for (int k = 0, i = first; k < count; ++k, i += step) {
    if (i < 0 || i >= f.Length) continue;
    sv += f.Y[i];
    sx += f.X[i];
    ++used;
  }
  value = used > 0 ? sv / used : 0.0;
  x = used > 0 ? sx / used : 0.0;
}

bool IsFalling(const double* x, int start, int stop) {
  return x[start] >= x[stop];
}

// The largest value less background over the range and its index; found is false when peakAboveFirst is
// asked and no pixel exceeds the first.
bool FindPeak(const TFilterField& f, bool peakAboveFirst, double& peak, int& index) {
  peak = f.ValueMinusBackground(f.Start);
  index = f.Start;
  for (int i = f.Start + 1; i <= f.Stop; ++i) {
    const double v = f.ValueMinusBackground(i);
    if (v > peak) {
      peak = v;
      index = i;
    }
  }
  return !peakAboveFirst || index != f.Start;
}

} // namespace

void SetLowerAndUpperBackground(TFilterField& f, int lowerPixels, int upperPixels) {
  TFilterBackground& b = f.Background;
  b = TFilterBackground();
  lowerPixels = std::max(lowerPixels, 0);
  upperPixels = std::max(upperPixels, 0);
  if (IsFalling(f.X, f.Start, f.Stop)) {
    SideMean(f, f.Stop + 1, +1, lowerPixels, b.Lower, b.LowerX, b.LowerCount);
    SideMean(f, f.Start - 1, -1, upperPixels, b.Upper, b.UpperX, b.UpperCount);
  } else {
    SideMean(f, f.Start - 1, -1, lowerPixels, b.Lower, b.LowerX, b.LowerCount);
    SideMean(f, f.Stop + 1, +1, upperPixels, b.Upper, b.UpperX, b.UpperCount);
  }
  b.Sides = (b.LowerCount > 0 ? 1 : 0) + (b.UpperCount > 0 ? 1 : 0);
  if (b.Sides > 0)
    b.Mean = ((b.LowerCount > 0 ? b.Lower : 0.0) + (b.UpperCount > 0 ? b.Upper : 0.0)) / b.Sides;
}

void GetPixelRangeNeeded(const double* x, int length, int start, int stop, int lowerPixels, int upperPixels,
                         int& first, int& count) {
  lowerPixels = std::max(lowerPixels, 0);
  upperPixels = std::max(upperPixels, 0);
  const bool falling = IsFalling(x, start, stop);
  const int left = falling ? upperPixels : lowerPixels;
  const int right = falling ? lowerPixels : upperPixels;
  first = std::max(start - left, 0);
  const int last = std::min(stop + right, length - 1);
  count = last - first + 1;
}

double FilterSum(const TFilterField& f) {
  double s = 0;
  for (int i = f.Start; i <= f.Stop; ++i) s += f.Y[i];
  return s - f.RangeCount() * f.Background.Mean;
}

double FilterAverage(const TFilterField& f) {
  double s = 0;
  for (int i = f.Start; i <= f.Stop; ++i) s += f.Y[i];
  return s / f.RangeCount() - f.Background.Mean;
}

TFilterMinMax FilterMinMax(const TFilterField& f) {
  TFilterMinMax r;
  r.Minimum = r.Maximum = f.ValueMinusBackground(f.Start);
  r.MinimumIndex = r.MaximumIndex = f.Start;
  for (int i = f.Start + 1; i <= f.Stop; ++i) {
    const double v = f.ValueMinusBackground(i);
    if (v < r.Minimum) {
      r.Minimum = v;
      r.MinimumIndex = i;
    }
    if (v > r.Maximum) {
      r.Maximum = v;
      r.MaximumIndex = i;
    }
  }
  r.MinimumX = f.X[r.MinimumIndex];
  r.MaximumX = f.X[r.MaximumIndex];
  return r;
}

double FilterCenterOfMass(const TFilterField& f, double threshold, double emptyValue) {
  double s = 0, sx = 0;
  for (int i = f.Start; i <= f.Stop; ++i) {
    const double v = f.ValueMinusBackground(i);
    s += v;
    sx += f.X[i] * v;
  }
  if (std::fabs(s) <= threshold) return emptyValue;
  return sx / s;
}

double FilterWidth(const TFilterField& f, double levelFraction, bool peakAboveFirst) {
  double peak;
  int index;
  if (!FindPeak(f, peakAboveFirst, peak, index)) return 0.0;
  const double level = peak * levelFraction;
  // Rightward: the last pixel that still reaches the level.
  int r = index;
  while (r + 1 < f.Length && f.ValueMinusBackground(r + 1) >= level) ++r;
  // Leftward: the first pixel below the level (pixel 0 when none is).
  int l = index;
  while (l > 0 && f.ValueMinusBackground(l) >= level) --l;
  if (r + 1 >= f.Length || l + 1 >= f.Length) return 0.0; // no pixel behind r: no right crossing
  const double vl = f.ValueMinusBackground(l), vl1 = f.ValueMinusBackground(l + 1);
  const double vr = f.ValueMinusBackground(r), vr1 = f.ValueMinusBackground(r + 1);
  if (!(std::fabs(vl1 - vl) > 1e-30 && std::fabs(vr1 - vr) > 1e-30)) return 0.0;
  const double xl = f.X[l] + (f.X[l + 1] - f.X[l]) * (level - vl) / (vl1 - vl);
  const double xr = f.X[r] + (f.X[r + 1] - f.X[r]) * (level - vr) / (vr1 - vr);
  return std::fabs(xl - xr);
}

double FilterAverageMinusMinimum(const TFilterField& f) {
  double s = 0, minimum = f.ValueMinusBackground(f.Start);
  for (int i = f.Start; i <= f.Stop; ++i) {
    const double v = f.ValueMinusBackground(i);
    s += v;
    minimum = std::min(minimum, v);
  }
  return SafeDoubleToFloat(s / f.RangeCount() - minimum);
}

double FilterStandardDeviation(const TFilterField& f) {
  double s = 0, q = 0;
  for (int i = f.Start; i <= f.Stop; ++i) {
    const double v = f.ValueMinusBackground(i);
    s += v;
    q += v * v;
  }
  const double n = f.RangeCount();
  return std::sqrt(std::fabs((s / n) * (s / n) - q / n));
}

TFilterParabola FilterParabola(const TFilterField& f, double width) {
  TFilterParabola r;
  double peak;
  int index;
  if (!FindPeak(f, true, peak, index)) return r;
  if (index <= 1 || index > f.Length - 2) return r;
  const double half = 0.5 * width, x0 = f.X[index];
  int hi = index, lo = index;
  while (hi < f.Length - 1 && std::fabs(f.X[hi] - x0) < half) ++hi;
  while (lo > 0 && std::fabs(f.X[lo] - x0) < half) --lo;
  // Normal equations of the parabola, in extended precision: the x of a spectral axis reach some
  // thousands, so the sums of x^4 span many orders of magnitude.
  long double s[5] = {0, 0, 0, 0, 0}, t[3] = {0, 0, 0};
  for (int i = lo; i <= hi; ++i) {
    const long double x = f.X[i], v = f.ValueMinusBackground(i);
    long double p = 1;
    for (int k = 0; k < 5; ++k, p *= x) {
      s[k] += p;
      if (k < 3) t[k] += p * v;
    }
  }
  long double a[9] = {s[0], s[1], s[2], s[1], s[2], s[3], s[2], s[3], s[4]}, d;
  int pivots[3];
  if (!ludcmp(a, 3, pivots, &d) || !CheckLinearDependency(a, 3)) return r;
  lubksb(a, 3, pivots, t);
  const double a0 = static_cast<double>(t[0]), a1 = static_cast<double>(t[1]), a2 = static_cast<double>(t[2]);
  double sum = 0;
  int used = 0;
  for (int i = lo; i <= hi; ++i) {
    const double fit = a0 + a1 * f.X[i] + a2 * f.X[i] * f.X[i];
    if (std::fabs(fit) <= 1e-30) continue;
    sum += std::fabs((f.ValueMinusBackground(i) - fit) / fit);
    ++used;
  }
  r.Fitted = true;
  r.Error = used > 0 ? 100.0 * sum / used : 0.0;
  if (std::fabs(a2) > 1e-30) {
    r.Intensity = a0 - a1 * a1 / (4 * a2);
    r.Center = -a1 / (2 * a2);
    r.Curvature = a2;
  }
  return r;
}

TFilterLine FilterLinearRegression(const TFilterField& f) {
  TFilterLine r;
  double n = 0, sx = 0, sv = 0, sxx = 0, sxv = 0;
  for (int i = f.Start; i <= f.Stop; ++i) {
    const double x = f.X[i], v = f.ValueMinusBackground(i);
    n += 1;
    sx += x;
    sv += v;
    sxx += x * x;
    sxv += x * v;
  }
  const double det = n * sxx - sx * sx;
  if (std::fabs(det) < 1e-31 || n < 1e-31) return r;
  r.Offset = (sxx * sv - sx * sxv) / det;
  r.Slope = (n * sxv - sx * sv) / det;
  // The correlation from sums about the means, which keeps its digits where the raw sums cancel.
  const double mx = sx / n, mv = sv / n;
  double cxx = 0, cvv = 0, cxv = 0;
  for (int i = f.Start; i <= f.Stop; ++i) {
    const double dx = f.X[i] - mx, dv = f.ValueMinusBackground(i) - mv;
    cxx += dx * dx;
    cvv += dv * dv;
    cxv += dx * dv;
  }
  r.Correlation = (cxx < 1e-31 || cvv < 1e-31) ? 0.0 : cxv / std::sqrt(cxx * cvv);
  return r;
}
