#include "common/numerics/Imagefilters.h"

#include "common/numerics/Numerics.h"
#include "common/numerics/Sorttools.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>

namespace {

[[noreturn]] void Fail(const std::string& operation, const std::string& text) {
  throw OrvexExceptionImageFilter("TImageFilter::" + operation + ": " + text);
}

void CheckRange(int value, int lo, int hi, const char* name) {
  if (value < lo || value > hi)
    Fail("TImageFilter", std::string(name) + " " + std::to_string(value) + " is outside " +
                             std::to_string(lo) + ".." + std::to_string(hi));
}

// Kirsch: the eight border cells of a 3x3 window clockwise from the top left corner.
constexpr int kRingX[8] = {-1, 0, 1, 1, 1, 0, -1, -1};
constexpr int kRingY[8] = {-1, -1, -1, 0, 1, 1, 1, 0};

std::vector<double> KirschKernel(int direction) {
  // G1 (north) has 5 on the three top cells; every further direction turns the cells clockwise by one.
  std::vector<double> k(9, 0.0);
  for (int c = 0; c < 8; ++c) {
    const int shifted = (c - (direction - 1) + 8) % 8;
    k[(kRingY[c] + 1) * 3 + kRingX[c] + 1] = shifted <= 2 ? 5.0 : -3.0;
  }
  return k;
}

std::vector<double> LaplaceKernel(int type) {
  switch (type) {
  case 1:
    return {0, 1, 0, 1, -4, 1, 0, 1, 0};
  case 2:
    return {1, 1, 1, 1, -8, 1, 1, 1, 1};
  default:
    return {1, 2, 1, 2, -12, 2, 1, 2, 1};
  }
}

} // namespace

std::vector<double> CalculateBinomialBuffer(int size) {
  std::vector<double> values(2 * size + 1);
  BinomialValues(values.data(), 2 * size, 0);
  return values;
}

void FillImageBorder(const TFloatImage& image, int border, TMarginalPixels mode) {
  if (mode == TMarginalPixels::Mirror || border <= 0) return;
  const int nx = image.SizeX, ny = image.SizeY;
  if (2 * border >= nx || 2 * border >= ny) return;
  const bool zero = mode == TMarginalPixels::Zero;
  for (int y = border; y < ny - border; ++y) {
    float* line = image.Line(y);
    for (int x = 0; x < border; ++x) {
      line[x] = zero ? 0.0f : line[border];
      line[nx - 1 - x] = zero ? 0.0f : line[nx - 1 - border];
    }
  }
  for (int y = 0; y < border; ++y) {
    for (const int target : {y, ny - 1 - y}) {
      const int source = target < border ? border : ny - 1 - border;
      float* line = image.Line(target);
      if (zero) {
        std::fill(line, line + nx, 0.0f);
        image.SetLineValid(target, true);
      } else {
        std::copy(image.Line(source), image.Line(source) + nx, line);
        if (image.LineValid != nullptr) image.LineValid[target] = image.LineValid[source];
      }
    }
  }
}

TImageFilter::TImageFilter(const TImageFilterParameters& parameters, const TConstFloatImage& input,
                           const TFloatImage& output)
    : FParameters(parameters), FInput(input), FOutput(output) {
  const TImageFilterParameters& p = FParameters;
  switch (p.Kind) {
  case TImageFilterKind::Average:
  case TImageFilterKind::Median:
    CheckRange(p.Size, 0, 9, "Size");
    FBorder = p.Size;
    break;
  case TImageFilterKind::Variance:
  case TImageFilterKind::Sharpen:
    CheckRange(p.Size, 1, 9, "Size");
    FBorder = p.Size;
    break;
  case TImageFilterKind::Custom:
    CheckRange(p.Size, 1, 3, "Size");
    FBorder = p.Size;
    break;
  case TImageFilterKind::Sobel:
  case TImageFilterKind::Kirsch:
  case TImageFilterKind::Laplace:
    FBorder = 1;
    break;
  case TImageFilterKind::Anisotropic:
  default:
    Fail("TImageFilter", "the kind is not a neighbourhood filter of this class");
  }
  if (input.Data == nullptr || output.Data == nullptr) Fail("TImageFilter", "an image has no data");
  if (input.Data == output.Data) Fail("TImageFilter", "input and output must be different arrays");
  if (input.SizeX != output.SizeX || input.SizeY != output.SizeY)
    Fail("TImageFilter", "input and output differ in size");
  const int need = p.Margin == TMarginalPixels::Mirror ? FBorder + 1 : 2 * FBorder + 1;
  if (input.SizeX < need || input.SizeY < need)
    Fail("TImageFilter", "the image must have at least " + std::to_string(need) + " pixels each way");

  const int nx = input.SizeX;
  FColumns.resize(nx + 2 * FBorder);
  for (int i = 0; i < nx + 2 * FBorder; ++i) FColumns[i] = MirrorIndex(i - FBorder, nx);

  switch (p.Kind) {
  case TImageFilterKind::Average:
    FBinomial = CalculateBinomialBuffer(p.Size);
    FAverageX.assign(static_cast<size_t>(nx) * input.SizeY, 0.0);
    FAverageXValid.assign(input.SizeY, 0);
    break;
  case TImageFilterKind::Sharpen:
    FBinomial = CalculateBinomialBuffer(p.Size);
    break;
  case TImageFilterKind::Sobel: {
    if (!(p.StepX > 0) || !(p.StepY > 0) || !std::isfinite(p.StepX) || !std::isfinite(p.StepY))
      Fail("TImageFilter", "the pixel steps must be positive");
    CheckRange(static_cast<int>(p.SobelOutput), 0, 3, "Sobel output");
    std::vector<double> gx = {-1, 0, 1, -2, 0, 2, -1, 0, 1};
    std::vector<double> gy = {-1, -2, -1, 0, 0, 0, 1, 2, 1};
    for (double& v : gx) v *= 0.125 / p.StepX;
    for (double& v : gy) v *= 0.125 / p.StepY;
    FKernels = {gx, gy};
    break;
  }
  case TImageFilterKind::Kirsch:
    CheckRange(p.KirschDirection, 0, 8, "Kirsch direction");
    if (p.KirschDirection == 0)
      for (int d = 1; d <= 8; ++d) FKernels.push_back(KirschKernel(d));
    else
      FKernels.push_back(KirschKernel(p.KirschDirection));
    break;
  case TImageFilterKind::Laplace:
    CheckRange(p.LaplaceType, 1, 3, "Laplace type");
    FKernels.push_back(LaplaceKernel(p.LaplaceType));
    break;
  case TImageFilterKind::Custom: {
    const size_t count = static_cast<size_t>(2 * p.Size + 1) * (2 * p.Size + 1);
    if (p.CustomCoefficients.size() != count)
      Fail("TImageFilter", "the custom filter needs " + std::to_string(count) + " coefficients");
    if (p.CustomFactor == 0.0 || !std::isfinite(p.CustomFactor))
      Fail("TImageFilter", "the custom divisor must be finite and not 0");
    std::vector<double> k = p.CustomCoefficients;
    for (double& v : k) v /= p.CustomFactor;
    FKernels.push_back(k);
    break;
  }
  default:
    break;
  }
}

int TImageFilter::SourceRow(int y) const {
  if (FParameters.Margin == TMarginalPixels::Mirror)
    y = MirrorIndex(y, FInput.SizeY);
  else if (y < 0 || y >= FInput.SizeY)
    return -1;
  return FInput.IsLineValid(y) ? y : -1;
}

void TImageFilter::CalculateLines(int pass, int firstLine, int lastLine) {
  if (pass < 0 || pass >= NumberOfPasses()) Fail("CalculateLines", "no such pass");
  const bool mirror = FParameters.Margin == TMarginalPixels::Mirror;
  const int yLo = std::max(firstLine, mirror ? 0 : FBorder);
  const int yHi = std::min(lastLine, mirror ? FInput.SizeY - 1 : FInput.SizeY - 1 - FBorder);
  std::vector<float> window;
  if (FParameters.Kind == TImageFilterKind::Average && pass == 0) {
    // The first pass covers every line (the second reads the rows of the margin too).
    for (int y = std::max(firstLine, 0); y <= std::min(lastLine, FInput.SizeY - 1); ++y) CalculateAverageX(y);
    return;
  }
  for (int y = yLo; y <= yHi; ++y) {
    switch (FParameters.Kind) {
    case TImageFilterKind::Average:
      CalculateAverageY(y);
      break;
    case TImageFilterKind::Median:
      CalculateMedianOrVariance(y, true, window);
      break;
    case TImageFilterKind::Variance:
      CalculateMedianOrVariance(y, false, window);
      break;
    case TImageFilterKind::Sharpen:
      CalculateSharpen(y);
      break;
    default:
      CalculateFixedKernels(y);
      break;
    }
  }
}

void TImageFilter::FinishImage() {
  FillImageBorder(FOutput, FBorder, FParameters.Margin);
}

void TImageFilter::Calculate() {
  for (int pass = 0; pass < NumberOfPasses(); ++pass) CalculateLines(pass, 0, FInput.SizeY - 1);
  FinishImage();
}

void TImageFilter::CalculateAverageX(int y) {
  FAverageXValid[y] = FInput.IsLineValid(y) ? 1 : 0;
  if (!FAverageXValid[y]) return;
  const int s = FBorder;
  const float* in = FInput.Line(y);
  double* out = FAverageX.data() + static_cast<size_t>(y) * FInput.SizeX;
  double weightSum = 0;
  for (double w : FBinomial) weightSum += w;
  const int first = FirstColumn(), last = LastColumn();
  const double* weights = FBinomial.data();
  for (int x = first; x <= last; ++x) {
    double sum = 0;
    if (x >= s && x < FInput.SizeX - s) {
      // Inside the margin the window is contiguous: no index table, so the loop vectorises.
      const float* window = in + x - s;
      for (int d = 0; d <= 2 * s; ++d) sum += weights[d] * window[d];
    } else {
      const int* columns = FColumns.data() + x; // column of x + d at index d + s
      for (int d = 0; d <= 2 * s; ++d) sum += weights[d] * in[columns[d]];
    }
    out[x] = sum / weightSum;
  }
}

void TImageFilter::CalculateAverageY(int y) {
  const int s = FBorder;
  const int nx = FInput.SizeX;
  float* out = FOutput.Line(y);
  double weightSum = 0;
  std::vector<double> acc(nx, 0.0);
  for (int d = -s; d <= s; ++d) {
    int row = FParameters.Margin == TMarginalPixels::Mirror ? MirrorIndex(y + d, FInput.SizeY) : y + d;
    if (row < 0 || row >= FInput.SizeY || !FAverageXValid[row]) continue;
    const double w = FBinomial[d + s];
    weightSum += w;
    const double* line = FAverageX.data() + static_cast<size_t>(row) * nx;
    for (int x = FirstColumn(); x <= LastColumn(); ++x) acc[x] += w * line[x];
  }
  if (weightSum == 0) {
    FOutput.SetLineValid(y, false);
    return;
  }
  for (int x = FirstColumn(); x <= LastColumn(); ++x) out[x] = static_cast<float>(acc[x] / weightSum);
  FOutput.SetLineValid(y, true);
}

void TImageFilter::CalculateMedianOrVariance(int y, bool median, std::vector<float>& window) {
  const int s = FBorder;
  std::vector<const float*> rows;
  for (int d = -s; d <= s; ++d) {
    const int row = SourceRow(y + d);
    if (row >= 0) rows.push_back(FInput.Line(row));
  }
  float* out = FOutput.Line(y);
  if (rows.empty()) {
    FOutput.SetLineValid(y, false);
    return;
  }
  window.resize(rows.size() * (2 * s + 1));
  for (int x = FirstColumn(); x <= LastColumn(); ++x) {
    const int* columns = FColumns.data() + x;
    int n = 0;
    for (const float* line : rows)
      for (int d = 0; d <= 2 * s; ++d) window[n++] = line[columns[d]];
    if (median) {
      out[x] = STCalculateMedian(window.data(), n, true);
    } else {
      double mean = 0;
      for (int i = 0; i < n; ++i) mean += window[i];
      mean /= n;
      double sq = 0;
      for (int i = 0; i < n; ++i) sq += (window[i] - mean) * (window[i] - mean);
      out[x] = static_cast<float>(sq / n);
    }
  }
  FOutput.SetLineValid(y, true);
}

void TImageFilter::CalculateFixedKernels(int y) {
  const int s = FBorder;
  const int width = 2 * s + 1;
  // A row the kernels need with a non-zero coefficient must be valid: the fixed kernels are not
  // renormalised, so a missing row would give a wrong value rather than a less smooth one.
  std::vector<const float*> rows(width, nullptr);
  for (int j = 0; j < width; ++j) {
    bool needed = false;
    for (const auto& k : FKernels)
      for (int i = 0; i < width; ++i) needed = needed || k[j * width + i] != 0.0;
    const int row = SourceRow(y + j - s);
    if (row >= 0) rows[j] = FInput.Line(row);
    if (needed && row < 0) {
      FOutput.SetLineValid(y, false);
      return;
    }
  }
  float* out = FOutput.Line(y);
  const TImageFilterParameters& p = FParameters;
  double responses[8];
  for (int x = FirstColumn(); x <= LastColumn(); ++x) {
    const int* columns = FColumns.data() + x;
    for (size_t k = 0; k < FKernels.size(); ++k) {
      const double* kernel = FKernels[k].data();
      double sum = 0;
      for (int j = 0; j < width; ++j) {
        if (rows[j] == nullptr) continue;
        for (int i = 0; i < width; ++i) sum += kernel[j * width + i] * rows[j][columns[i]];
      }
      responses[k] = sum;
    }
    double value = responses[0];
    if (p.Kind == TImageFilterKind::Sobel) {
      const double gx = responses[0], gy = responses[1];
      switch (p.SobelOutput) {
      case TSobelOutput::Gx:
        value = gx;
        break;
      case TSobelOutput::Gy:
        value = gy;
        break;
      case TSobelOutput::G:
        value = std::sqrt(gx * gx + gy * gy);
        break;
      case TSobelOutput::Theta:
        if (std::fabs(gx) < 1e-30) {
          if (gy > 1e-30)
            value = std::numbers::pi / 2;
          else if (gy < -1e-30)
            value = -std::numbers::pi / 2;
          else
            value = kSobelFlatTheta;
        } else {
          value = std::atan(gy / gx);
        }
        if (p.ThetaInDegree) value *= kRadianToDegree;
        break;
      }
    } else if (p.Kind == TImageFilterKind::Kirsch && FKernels.size() > 1) {
      value = *std::max_element(responses, responses + FKernels.size());
    }
    out[x] = static_cast<float>(value);
  }
  FOutput.SetLineValid(y, true);
}

void TImageFilter::CalculateSharpen(int y) {
  const int s = FBorder;
  // The output keeps the pixel's own value: its line must be valid.
  if (!FInput.IsLineValid(y)) {
    FOutput.SetLineValid(y, false);
    return;
  }
  std::vector<const float*> rows;
  std::vector<double> rowWeights;
  double rowWeightSum = 0;
  for (int d = -s; d <= s; ++d) {
    const int row = SourceRow(y + d);
    if (row < 0) continue;
    rows.push_back(FInput.Line(row));
    rowWeights.push_back(FBinomial[d + s]);
    rowWeightSum += FBinomial[d + s];
  }
  double columnWeightSum = 0;
  for (double w : FBinomial) columnWeightSum += w;
  const double weightSum = rowWeightSum * columnWeightSum;
  const float* in = FInput.Line(y);
  float* out = FOutput.Line(y);
  const double amount = FParameters.SharpenAmount;
  const double threshold = std::fabs(FParameters.SharpenThreshold);
  for (int x = FirstColumn(); x <= LastColumn(); ++x) {
    const int* columns = FColumns.data() + x;
    double sum = 0;
    for (size_t r = 0; r < rows.size(); ++r) {
      double rowSum = 0;
      for (int d = 0; d <= 2 * s; ++d) rowSum += FBinomial[d] * rows[r][columns[d]];
      sum += rowWeights[r] * rowSum;
    }
    const double mean = sum / weightSum;
    double d = in[x] - mean * amount;
    if (std::fabs(d) < threshold) d = 0;
    out[x] = static_cast<float>(in[x] + d);
  }
  FOutput.SetLineValid(y, true);
}
