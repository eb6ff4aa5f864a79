#include "common/numerics/Anisotropicsmoothing.h"

#include "common/numerics/Numerics.h"
#include "common/threads/Progressandcancel.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace {

void Check(bool ok, const std::string& operation, const std::string& text) {
  if (!ok) throw OrvexExceptionImageFilter("TAnisotropicImageSmoothing::" + operation + ": " + text);
}

constexpr double kQuarterPi = 0.7853981633974483;

} // namespace

bool GetInterpolatedValue(const float* field, int sizeX, int sizeY, double x, double y, double& value) {
  if (!(x >= 0 && y >= 0 && x <= sizeX - 1 && y <= sizeY - 1)) return false;
  const int x0 = std::min(static_cast<int>(x), sizeX - 2 < 0 ? 0 : sizeX - 2);
  const int y0 = std::min(static_cast<int>(y), sizeY - 2 < 0 ? 0 : sizeY - 2);
  const int x1 = std::min(x0 + 1, sizeX - 1), y1 = std::min(y0 + 1, sizeY - 1);
  const double fx = x - x0, fy = y - y0;
  const double top = field[y0 * sizeX + x0] * (1 - fx) + field[y0 * sizeX + x1] * fx;
  const double bottom = field[y1 * sizeX + x0] * (1 - fx) + field[y1 * sizeX + x1] * fx;
  value = top * (1 - fy) + bottom * fy;
  return true;
}

void TAnisotropicImageSmoothing::SetParameter(float p1, float p2, float deltaT, float sigma, int iterations) {
  Check(p1 >= 0.001f && p1 <= 1000.0f, "SetParameter", "P1 outside 0.001..1000");
  Check(p2 >= 0.001f && p2 <= 1000.0f, "SetParameter", "P2 outside 0.001..1000");
  Check(deltaT >= 0.1f && deltaT <= 1e7f, "SetParameter", "DeltaT outside 0.1..1e7");
  Check(sigma >= 0.1f && sigma <= 10.0f, "SetParameter", "Sigma outside 0.1..10");
  Check(iterations >= 1, "SetParameter", "at least one iteration");
  FP1 = p1, FP2 = p2, FDeltaT = deltaT, FSigma = sigma, FIterations = iterations;
}

void TAnisotropicImageSmoothing::CreateArrays(int x, int y) {
  Check(x >= 2 && y >= 2, "CreateArrays", "the image needs at least 2 x 2 pixels");
  FSizeX = x, FSizeY = y;
  const size_t n = static_cast<size_t>(x) * y;
  for (auto* a : {&FImage, &FOriginal, &FLx, &FLy, &FFieldX, &FFieldY, &FOutput}) a->assign(n, 0.0f);
  for (int k = 0; k < 3; ++k) {
    FProducts[k].assign(n, 0.0f);
    FFiltered[k].assign(n, 0.0f);
    FTemp[k].assign(n, 0.0f);
    FTensor[k].assign(n, 0.0f);
  }
  FMask.assign(n, 0);
  FHasMask = false;
}

void TAnisotropicImageSmoothing::SetImageData(const float* data) {
  Check(FSizeX > 0, "SetImageData", "CreateArrays first");
  std::copy(data, data + FImage.size(), FImage.begin());
  std::copy(data, data + FImage.size(), FOriginal.begin());
}

void TAnisotropicImageSmoothing::SetMaskData(const bool* mask) {
  Check(FSizeX > 0, "SetMaskData", "CreateArrays first");
  FHasMask = mask != nullptr;
  for (size_t i = 0; i < FMask.size(); ++i) FMask[i] = mask != nullptr && mask[i] ? 1 : 0;
}

void TAnisotropicImageSmoothing::GetImageData(float* data) const {
  std::copy(FImage.begin(), FImage.end(), data);
}

void TAnisotropicImageSmoothing::Barrier(const TThreadTeam& team, int thread) {
  if (team.NumberOfThreads > 1) team.WaitForNextStep(thread);
}

void TAnisotropicImageSmoothing::ScaleImage() {
  // Robust range: 5 % and 95 % of the sorted values, widened while they are equal.
  std::vector<float> sorted(FImage);
  std::sort(sorted.begin(), sorted.end());
  const int n = static_cast<int>(sorted.size());
  int lower = static_cast<int>(0.05 * (n - 1)), upper = static_cast<int>(0.95 * (n - 1));
  while (sorted[upper] == sorted[lower] && (lower > 0 || upper < n - 1)) {
    if (lower > 0) --lower;
    if (upper < n - 1) ++upper;
  }
  const double range = double(sorted[upper]) - sorted[lower];
  if (std::fabs(range) > 1e-30) {
    const double factor = 20.0 / range;
    for (float& v : FImage) v = static_cast<float>(v * factor);
    for (float& v : FOriginal) v = static_cast<float>(v * factor);
    FScale *= factor;
  }
}

void TAnisotropicImageSmoothing::CalculateLx(int y0, int y1) {
  for (int y = y0; y <= y1; ++y) {
    const float* line = FImage.data() + static_cast<size_t>(y) * FSizeX;
    for (int x = 0; x < FSizeX; ++x)
      FLx[y * FSizeX + x] = 0.5f * (line[MirrorIndex(x + 1, FSizeX)] - line[MirrorIndex(x - 1, FSizeX)]);
  }
}

void TAnisotropicImageSmoothing::CalculateLy(int y0, int y1) {
  for (int y = y0; y <= y1; ++y) {
    const float* up = FImage.data() + static_cast<size_t>(MirrorIndex(y - 1, FSizeY)) * FSizeX;
    const float* down = FImage.data() + static_cast<size_t>(MirrorIndex(y + 1, FSizeY)) * FSizeX;
    for (int x = 0; x < FSizeX; ++x) FLy[y * FSizeX + x] = 0.5f * (down[x] - up[x]);
  }
}

void TAnisotropicImageSmoothing::CalculateProdukt(int y0, int y1) {
  for (size_t i = static_cast<size_t>(y0) * FSizeX; i < static_cast<size_t>(y1 + 1) * FSizeX; ++i) {
    FProducts[0][i] = FLx[i] * FLx[i];
    FProducts[1][i] = FLy[i] * FLy[i];
    FProducts[2][i] = FLx[i] * FLy[i];
  }
}

void TAnisotropicImageSmoothing::CalculateGaussFilter(int pass, int y0, int y1) {
  const int r = static_cast<int>(FGauss.size()) / 2;
  for (int k = 0; k < 3; ++k)
    for (int y = y0; y <= y1; ++y)
      for (int x = 0; x < FSizeX; ++x) {
        double sum = 0;
        for (int d = -r; d <= r; ++d) {
          const float v = pass == 0 ? FProducts[k][y * FSizeX + MirrorIndex(x + d, FSizeX)]
                                    : FTemp[k][MirrorIndex(y + d, FSizeY) * FSizeX + x];
          sum += FGauss[d + r] * v;
        }
        (pass == 0 ? FTemp[k] : FFiltered[k])[y * FSizeX + x] = static_cast<float>(sum);
      }
}

void TAnisotropicImageSmoothing::CalculateTensors(int y0, int y1) {
  auto eigenvector = [](double a, double b, double c, double lambda, double ex, double ey, double& vx,
                        double& vy) {
    const double u = a - lambda, v = b - lambda;
    vx = ex, vy = ey;
    if (std::fabs(u) > std::fabs(v) && std::fabs(u) > 1e-30)
      vx = -c / u, vy = 1.0;
    else if (std::fabs(v) > 1e-30)
      vx = 1.0, vy = -c / v;
    const double length = std::hypot(vx, vy);
    vx /= length, vy /= length;
  };
  for (size_t i = static_cast<size_t>(y0) * FSizeX; i < static_cast<size_t>(y1 + 1) * FSizeX; ++i) {
    const double a = FFiltered[0][i], b = FFiltered[1][i], c = FFiltered[2][i];
    const double root = std::sqrt(4 * c * c + (a - b) * (a - b));
    const double l1 = 0.5 * (a + b + root), l2 = 0.5 * (a + b - root);
    double e1x, e1y, e2x, e2y;
    eigenvector(a, b, c, l1, 1.0, 1.0, e1x, e1y);
    eigenvector(a, b, c, l2, -1.0, 1.0, e2x, e2y);
    double s1 = 1.0 / std::pow(1.0 + l1 + l2, double(FP1));
    double s2 = 1.0 / std::pow(1.0 + l1 + l2, double(FP2));
    if (!LineIntegralMode) s1 = std::sqrt(s1), s2 = std::sqrt(s2);
    FTensor[0][i] = static_cast<float>(e1x * e1x * s2 + e2x * e2x * s1);
    FTensor[1][i] = static_cast<float>(e1y * e1y * s2 + e2y * e2y * s1);
    FTensor[2][i] = static_cast<float>(e1x * e1y * s2 + e2x * e2y * s1);
  }
}

void TAnisotropicImageSmoothing::CalculateField(int orientation, int y0, int y1) {
  const double angle = orientation * kQuarterPi;
  const double c = std::cos(angle), s = std::sin(angle);
  for (size_t i = static_cast<size_t>(y0) * FSizeX; i < static_cast<size_t>(y1 + 1) * FSizeX; ++i) {
    FFieldX[i] = static_cast<float>(FTensor[0][i] * c + FTensor[2][i] * s);
    FFieldY[i] = static_cast<float>(FTensor[2][i] * c + FTensor[1][i] * s);
  }
}

bool TAnisotropicImageSmoothing::AnisotropicSmoothingDerivative(double x, double y, double& dx,
                                                                double& dy) const {
  // Both components share the cell and the weights (the same arithmetic as GetInterpolatedValue).
  if (!(x >= 0 && y >= 0 && x <= FSizeX - 1 && y <= FSizeY - 1)) return false;
  const int x0 = std::min(static_cast<int>(x), FSizeX - 2), y0 = std::min(static_cast<int>(y), FSizeY - 2);
  const double fx = x - x0, fy = y - y0;
  const size_t i = static_cast<size_t>(y0) * FSizeX + x0, j = i + FSizeX;
  const float* a = FFieldX.data();
  const float* b = FFieldY.data();
  dx = (a[i] * (1 - fx) + a[i + 1] * fx) * (1 - fy) + (a[j] * (1 - fx) + a[j + 1] * fx) * fy;
  dy = (b[i] * (1 - fx) + b[i + 1] * fx) * (1 - fy) + (b[j] * (1 - fx) + b[j + 1] * fx) * fy;
  return true;
}

void TAnisotropicImageSmoothing::IntegrateLines(int y0, int y1) {
  const double fourDeltaT = 4.0 * FDeltaT;
  auto field = [this](double x, double y, double& dx, double& dy) {
    return AnisotropicSmoothingDerivative(x, y, dx, dy);
  };
  for (int y = y0; y <= y1; ++y)
    for (int x = 0; x < FSizeX; ++x) {
      double weightSum = 1.0, sum = FImage[y * FSizeX + x];
      for (const double h : {0.5, -0.5}) {
        double px = x, py = y, s = 0;
        for (;;) {
          if (!TRungeKutta::Step(px, py, h, field)) break;
          s += std::fabs(h);
          const double weight = std::exp(-s * s / fourDeltaT);
          double value;
          if (weight <= 0.1 || !GetInterpolatedValue(FImage.data(), FSizeX, FSizeY, px, py, value)) break;
          sum += weight * value;
          weightSum += weight;
        }
      }
      FOutput[y * FSizeX + x] += static_cast<float>(sum / weightSum);
    }
}

void TAnisotropicImageSmoothing::FinishIteration(int y0, int y1) {
  for (size_t i = static_cast<size_t>(y0) * FSizeX; i < static_cast<size_t>(y1 + 1) * FSizeX; ++i)
    FImage[i] = FHasMask && FMask[i] ? FOriginal[i] : 0.25f * FOutput[i];
}

void TAnisotropicImageSmoothing::Calculate(const TThreadTeam& team, int thread) {
  Check(FSizeX > 0, "Calculate", "CreateArrays first");
  const int threads = std::max(team.NumberOfThreads, 1);
  Check(threads == 1 || team.WaitForNextStep, "Calculate", "a team of several threads needs a barrier");
  Check(thread >= 0 && thread < threads, "Calculate", "thread index outside the team");
  // Contiguous blocks of lines, split as the calculation controller splits elements; a thread without
  // lines (more threads than lines) still meets the others at every barrier.
  int y0 = 0, y1 = FSizeY - 1;
  if (threads > 1) {
    if (FSizeY <= thread) {
      y0 = 0, y1 = -1;
    } else if (FSizeY < threads) {
      y0 = y1 = thread;
    } else {
      y0 = static_cast<int>(static_cast<long long>(thread) * FSizeY / threads);
      y1 = static_cast<int>((static_cast<long long>(thread) + 1) * FSizeY / threads) - 1;
    }
  }
  if (thread == 0) {
    FScale = 1.0;
    FTime = 0.0;
    FCompleted = 0;
    FStop = false;
    const int r = std::max(1, static_cast<int>(std::ceil(3.0 * FSigma)));
    FGauss.resize(2 * r + 1);
    double sum = 0;
    for (int d = -r; d <= r; ++d) sum += FGauss[d + r] = GaussSigma(static_cast<float>(d), FSigma);
    for (float& g : FGauss) g = static_cast<float>(g / sum);
  }
  Barrier(team, thread);
  for (int iteration = 0; iteration < FIterations; ++iteration) {
    if (thread == 0) {
      ScaleImage();
      std::fill(FOutput.begin(), FOutput.end(), 0.0f);
    }
    Barrier(team, thread);
    CalculateLx(y0, y1);
    CalculateLy(y0, y1);
    CalculateProdukt(y0, y1);
    Barrier(team, thread);
    CalculateGaussFilter(0, y0, y1);
    Barrier(team, thread);
    CalculateGaussFilter(1, y0, y1);
    CalculateTensors(y0, y1);
    Barrier(team, thread);
    for (int k = 0; k < 4; ++k) {
      CalculateField(k, y0, y1);
      Barrier(team, thread);
      IntegrateLines(y0, y1);
      Barrier(team, thread);
    }
    FinishIteration(y0, y1);
    if (thread == 0) {
      FTime += FDeltaT;
      ++FCompleted;
      FStop = IsCancelled(team.Progress);
    }
    Barrier(team, thread);
    if (FStop) break;
  }
  if (thread == 0 && FScale != 1.0) {
    for (float& v : FImage) v = static_cast<float>(v / FScale);
    for (float& v : FOriginal) v = static_cast<float>(v / FScale);
  }
  Barrier(team, thread);
}
