// Line corrections, sorted extrema, automatic scales and scale kinds of the image viewer.
#include "viewers/Vimagescale.h"

#include "data/Dimage.h"

#include <algorithm>
#include <cmath>

std::string GetImageScaleKindName(TImageScaleKind kind) {
  switch (kind) {
  case TImageScaleKind::Linear:
    return "Linear";
  case TImageScaleKind::Logarithmic:
    return "Logarithmic";
  case TImageScaleKind::SquareRoot:
    return "Square Root";
  }
  return {};
}

std::string GetLineCorrectionName(TLineCorrection correction) {
  switch (correction) {
  case TLineCorrection::None:
    return "None";
  case TLineCorrection::SubAverage:
    return "Sub Average";
  case TLineCorrection::DivAverage:
    return "Div Average";
  case TLineCorrection::SubLine:
    return "Sub Line";
  }
  return {};
}

void CorrectImageLine(const float* values, int32_t count, TLineCorrection correction, float* out) {
  if (out != values) std::copy(values, values + count, out);
  if (correction == TLineCorrection::None || count <= 0) return;
  // Sums over the finite values only, in double.
  double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (int32_t i = 0; i < count; ++i) {
    const double v = values[i];
    if (!std::isfinite(v)) continue;
    n += 1;
    sx += i;
    sy += v;
    sxx += double(i) * i;
    sxy += i * v;
  }
  if (n == 0) return;
  const double mean = sy / n;
  double a = mean, b = 0; // the line a + b x; a single point or equal abscissae give the mean
  if (correction == TLineCorrection::SubLine) {
    const double d = n * sxx - sx * sx;
    if (n >= 2 && d != 0) {
      b = (n * sxy - sx * sy) / d;
      a = (sy - b * sx) / n;
    }
  }
  for (int32_t i = 0; i < count; ++i) {
    const double v = values[i];
    if (!std::isfinite(v)) continue;
    switch (correction) {
    case TLineCorrection::SubAverage:
      out[i] = static_cast<float>(v - mean);
      break;
    case TLineCorrection::DivAverage:
      if (mean != 0) out[i] = static_cast<float>(v / mean);
      break;
    case TLineCorrection::SubLine:
      out[i] = static_cast<float>(v - (a + b * i));
      break;
    case TLineCorrection::None:
      break;
    }
  }
}

bool TImageExtrema::ValueAtPercent(double percent, double& value) const {
  if (Sorted.empty()) return false;
  percent = std::clamp(percent, 0.0, 100.0);
  const auto last = static_cast<double>(Sorted.size() - 1);
  const auto index = static_cast<size_t>(last * percent / 100.0);
  value = Sorted[std::min(index, Sorted.size() - 1)];
  return true;
}

bool TImageExtrema::SmallestPositive(double& value) const {
  const auto it = std::upper_bound(Sorted.begin(), Sorted.end(), 0.0f);
  if (it == Sorted.end()) return false;
  value = *it;
  return true;
}

void GetScaleParameters(const TDImage& image, TLineCorrection correction, TImageExtrema& info) {
  info = TImageExtrema();
  const int32_t sizeX = image.GetSizeX(), sizeY = image.GetSizeY();
  if (sizeX <= 0 || sizeY <= 0) return;
  std::vector<float> line(static_cast<size_t>(sizeX));
  info.Sorted.reserve(static_cast<size_t>(sizeX) * static_cast<size_t>(sizeY));
  for (int32_t y = 0; y < sizeY; ++y) {
    if (!image.GetLineValid(y)) continue; // lines not yet written take no part
    image.GetFastLine(y, line.data());
    CorrectImageLine(line.data(), sizeX, correction, line.data());
    for (float v : line)
      if (std::isfinite(v)) info.Sorted.push_back(v);
  }
  if (info.Sorted.empty()) return;
  std::sort(info.Sorted.begin(), info.Sorted.end());
  info.Minimum = info.Sorted.front();
  info.Maximum = info.Sorted.back();
  info.Valid = true;
}

void KeepPercentLimitsApart(double& lowerPercent, double& upperPercent) {
  if (upperPercent - lowerPercent < 0.1) upperPercent = lowerPercent + 0.1;
}

void KeepScaleLimitsApart(double& minimum, double& maximum) {
  if (!(maximum > minimum)) maximum = minimum + 0.1;
}

bool GetScaleFromLineValues(std::vector<float> values, double& minimum, double& maximum) {
  values.erase(std::remove_if(values.begin(), values.end(), [](float v) { return !std::isfinite(v); }),
               values.end());
  if (values.empty()) return false;
  std::sort(values.begin(), values.end());
  const int64_t n = static_cast<int64_t>(values.size());
  int64_t hiIndex = (n - 1) * 95 / 100, loIndex = (n - 1) * 5 / 100;
  for (;;) {
    const double hi = values[static_cast<size_t>(hiIndex)], lo = values[static_cast<size_t>(loIndex)];
    minimum = (hi + lo - (hi - lo) / 90 * 100) * 0.5;
    maximum = ((hi - lo) / 90 * 100 + hi + lo) * 0.5;
    if (minimum != maximum || (loIndex == 0 && hiIndex == n - 1)) break;
    if (loIndex > 0) --loIndex;
    if (hiIndex < n - 1) ++hiIndex;
  }
  return true;
}

namespace {
double SignedRoot(double v) {
  return v < 0 ? -std::sqrt(-v) : std::sqrt(v);
}
} // namespace

TImageColorMapper::TImageColorMapper(const TDColorProfile& profile, double minimum, double maximum,
                                     TImageScaleKind kind, double positiveFloor)
    : FProfile(profile), FKind(kind), FMinimum(minimum) {
  switch (kind) {
  case TImageScaleKind::Linear:
    FLower = minimum;
    FUpper = maximum;
    break;
  case TImageScaleKind::Logarithmic: {
    const double lower = minimum > 0 ? minimum : positiveFloor;
    FEmpty = !(maximum > 0) || !(lower > 0);
    if (!FEmpty) {
      FLower = std::log10(lower);
      FUpper = std::log10(maximum);
    }
    break;
  }
  case TImageScaleKind::SquareRoot:
    FLower = 0;
    FUpper = SignedRoot(maximum - minimum);
    break;
  }
}

TColor TImageColorMapper::Map(double value) const {
  if (!std::isfinite(value) || FEmpty) return FProfile.GetBottomColor();
  switch (FKind) {
  case TImageScaleKind::Linear:
    return FProfile.GetColorsFromValue(FUpper, FLower, value);
  case TImageScaleKind::Logarithmic:
    if (value <= 0) return FProfile.GetBottomColor();
    return FProfile.GetColorsFromValue(FUpper, FLower, std::log10(value));
  case TImageScaleKind::SquareRoot:
    return FProfile.GetColorsFromValue(FUpper, FLower, SignedRoot(value - FMinimum));
  }
  return FProfile.GetBottomColor();
}
