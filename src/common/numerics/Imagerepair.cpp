#include "common/numerics/Imagerepair.h"

#include <cmath>
#include <random>
#include <string>
#include <vector>

void RepairLineInterpolation(const TFloatImage& image, const bool* mask) {
  const int nx = image.SizeX, ny = image.SizeY;
  for (int x = 0; x < nx; ++x) {
    int y = 0;
    while (y < ny) {
      if (!mask[static_cast<long>(y) * nx + x]) {
        ++y;
        continue;
      }
      const int start = y;
      while (y < ny && mask[static_cast<long>(y) * nx + x]) ++y;
      const int above = start - 1, below = y; // the bounding pixels, if inside
      if (above < 0 && below >= ny) continue; // fully marked column
      const float a = above >= 0 ? image.Line(above)[x] : image.Line(below)[x];
      const float b = below < ny ? image.Line(below)[x] : a;
      for (int k = start; k < below; ++k) {
        const double t = above >= 0 && below < ny ? double(k - above) / (below - above) : 0.0;
        image.Line(k)[x] = static_cast<float>(a + (double(b) - a) * t);
      }
    }
  }
}

void RepairSimpleFilling(const TFloatImage& image, const bool* mask, const TSimpleFillingParameters& p) {
  std::mt19937 generator(p.Seed);
  std::uniform_real_distribution<double> box(0.0, 1.0);
  std::normal_distribution<double> gauss(0.0, 1.0);
  const long n = static_cast<long>(image.SizeX) * image.SizeY;
  for (long i = 0; i < n; ++i) {
    if (!mask[i]) continue;
    double v = p.ReplaceValue ? p.Value : image.Data[i];
    if (p.AddNoise) {
      double noise;
      if (p.Distribution == TNoiseDistribution::Box)
        noise = p.Direction == TNoiseDirection::Symmetric ? 2.0 * box(generator) - 1.0 : box(generator);
      else
        noise = gauss(generator);
      if (p.Direction == TNoiseDirection::Add) noise = std::fabs(noise);
      if (p.Direction == TNoiseDirection::Subtract) noise = -std::fabs(noise);
      v += noise * p.NoiseAmplitude;
    }
    image.Data[i] = static_cast<float>(v);
  }
}

void RepairSimpleInterpolation(const TFloatImage& image, const bool* mask, int iterations) {
  const int nx = image.SizeX, ny = image.SizeY;
  if (iterations < 1 || iterations > 1000000)
    throw OrvexExceptionImageFilter("RepairSimpleInterpolation: iterations " + std::to_string(iterations) +
                                    " outside 1..1000000");
  if (nx < 2 || ny < 2)
    throw OrvexExceptionImageFilter("RepairSimpleInterpolation: the image needs 2 pixels each way");
  std::vector<long> marked;
  double sum = 0;
  long count = 0;
  for (long i = 0; i < static_cast<long>(nx) * ny; ++i) {
    if (mask[i])
      marked.push_back(i);
    else if (std::isfinite(image.Data[i]))
      sum += image.Data[i], ++count;
  }
  const float start = count > 0 ? static_cast<float>(sum / count) : 0.0f;
  for (long i : marked)
    if (!std::isfinite(image.Data[i])) image.Data[i] = start;
  std::vector<float> next(marked.size());
  auto at = [&](int x, int y) { return image.Line(MirrorIndex(y, ny))[MirrorIndex(x, nx)]; };
  for (int it = 0; it < iterations; ++it) {
    for (size_t k = 0; k < marked.size(); ++k) {
      const int x = static_cast<int>(marked[k] % nx), y = static_cast<int>(marked[k] / nx);
      next[k] = 0.25f * (at(x - 1, y) + at(x + 1, y) + at(x, y - 1) + at(x, y + 1));
    }
    for (size_t k = 0; k < marked.size(); ++k) image.Data[marked[k]] = next[k];
  }
}
