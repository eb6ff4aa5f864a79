#include "common/numerics/Inpainting.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <string>

namespace {
constexpr double kDataFloor = 1e-3;
}

void TInpainting::Init(float* image, const bool* mask, int sizeX, int sizeY, int windowSize, int rotations) {
  if (windowSize < 1 || windowSize > 20 || rotations < 1 || rotations > 120)
    throw OrvexExceptionImageFilter("TInpainting::Init: window size " + std::to_string(windowSize) +
                                    " or rotations " + std::to_string(rotations) + " out of range");
  if (sizeX < 1 || sizeY < 1 || static_cast<long>(sizeX) * sizeY >= kMaximumPixels)
    throw OrvexExceptionImageFilter("TInpainting::Init: the image must be smaller than 1024*1024 pixels");
  FImage = image;
  FSizeX = sizeX;
  FSizeY = sizeY;
  FWindow = windowSize;
  FRotations = rotations;
  const long n = static_cast<long>(sizeX) * sizeY;
  FTarget.assign(n, 0);
  FBoundary.assign(n, 0);
  FConfidence.assign(n, 1.0);
  FPriority.assign(n, 0.0);
  FRemaining = 0;
  FLeft = sizeX, FTop = sizeY, FRight = -1, FBottom = -1;
  for (int y = 0; y < sizeY; ++y)
    for (int x = 0; x < sizeX; ++x)
      if (mask[Index(x, y)]) {
        FTarget[Index(x, y)] = 1;
        FConfidence[Index(x, y)] = 0.0;
        ++FRemaining;
        FLeft = std::min(FLeft, x), FRight = std::max(FRight, x);
        FTop = std::min(FTop, y), FBottom = std::max(FBottom, y);
      }
  CreateRotationLookUpTable();
  DrawBoundary();
  UpdatePriority(0, 0, sizeX - 1, sizeY - 1);
}

void TInpainting::CreateRotationLookUpTable() {
  const int w = FWindow, width = 2 * w + 1;
  FRotation.assign(FRotations, std::vector<std::pair<int, int>>(width * width));
  for (int k = 0; k < FRotations; ++k) {
    const double angle = 2.0 * std::numbers::pi * k / FRotations;
    const double c = std::cos(angle), s = std::sin(angle);
    for (int dy = -w; dy <= w; ++dy)
      for (int dx = -w; dx <= w; ++dx)
        FRotation[k][(dy + w) * width + dx + w] = {static_cast<int>(std::lround(c * dx - s * dy)),
                                                   static_cast<int>(std::lround(s * dx + c * dy))};
  }
}

void TInpainting::DrawBoundary() {
  UpdateBoundary(0, 0, FSizeX - 1, FSizeY - 1);
}

void TInpainting::UpdateBoundary(int x0, int y0, int x1, int y1) {
  x0 = std::max(x0, 0), y0 = std::max(y0, 0), x1 = std::min(x1, FSizeX - 1), y1 = std::min(y1, FSizeY - 1);
  for (int y = y0; y <= y1; ++y)
    for (int x = x0; x <= x1; ++x) {
      bool boundary = false;
      if (FTarget[Index(x, y)]) {
        const int nx[4] = {x - 1, x + 1, x, x}, ny[4] = {y, y, y - 1, y + 1};
        for (int k = 0; k < 4; ++k)
          if (nx[k] >= 0 && nx[k] < FSizeX && ny[k] >= 0 && ny[k] < FSizeY && !FTarget[Index(nx[k], ny[k])])
            boundary = true;
      }
      FBoundary[Index(x, y)] = boundary ? 1 : 0;
    }
}

void TInpainting::UpdatePriority(int x0, int y0, int x1, int y1) {
  x0 = std::max(x0, 0), y0 = std::max(y0, 0), x1 = std::min(x1, FSizeX - 1), y1 = std::min(y1, FSizeY - 1);
  for (int y = y0; y <= y1; ++y)
    for (int x = x0; x <= x1; ++x) FPriority[Index(x, y)] = FBoundary[Index(x, y)] ? Priority(x, y) : 0.0;
}

double TInpainting::ComputeConfidence(int x, int y) const {
  double sum = 0;
  int count = 0;
  for (int j = std::max(0, y - FWindow); j <= std::min(FSizeY - 1, y + FWindow); ++j)
    for (int i = std::max(0, x - FWindow); i <= std::min(FSizeX - 1, x + FWindow); ++i) {
      sum += FConfidence[Index(i, j)];
      ++count;
    }
  return count > 0 ? sum / count : 0.0;
}

double TInpainting::ComputeData(int x, int y) const {
  auto known = [&](int i, int j) {
    return i >= 0 && i < FSizeX && j >= 0 && j < FSizeY && !FTarget[Index(i, j)];
  };
  double gx = 0, gy = 0, best = -1;
  for (int j = std::max(0, y - FWindow); j <= std::min(FSizeY - 1, y + FWindow); ++j)
    for (int i = std::max(0, x - FWindow); i <= std::min(FSizeX - 1, x + FWindow); ++i) {
      if (!known(i, j) || !known(i - 1, j) || !known(i + 1, j) || !known(i, j - 1) || !known(i, j + 1))
        continue;
      const double dx = 0.5 * (double(FImage[Index(i + 1, j)]) - FImage[Index(i - 1, j)]);
      const double dy = 0.5 * (double(FImage[Index(i, j + 1)]) - FImage[Index(i, j - 1)]);
      if (dx * dx + dy * dy > best) best = dx * dx + dy * dy, gx = dx, gy = dy;
    }
  // Normal of the target at (x, y): the gradient of the target indicator.
  auto target = [&](int i, int j) {
    i = std::clamp(i, 0, FSizeX - 1), j = std::clamp(j, 0, FSizeY - 1);
    return FTarget[Index(i, j)] ? 1.0 : 0.0;
  };
  double nx = 0.5 * (target(x + 1, y) - target(x - 1, y)), ny = 0.5 * (target(x, y + 1) - target(x, y - 1));
  const double length = std::hypot(nx, ny);
  double data = 0;
  if (best > 0 && length > 0) data = std::fabs(-gy * nx / length + gx * ny / length); // isophote . normal
  return data + kDataFloor;
}

bool TInpainting::PatchTexture(int x, int y, int& bestX, int& bestY, int& bestRotation) const {
  const int w = FWindow, width = 2 * w + 1;
  double bestDistance = std::numeric_limits<double>::infinity();
  bool found = false;
  for (int cy = 0; cy < FSizeY; ++cy)
    for (int cx = 0; cx < FSizeX; ++cx) {
      for (int k = 0; k < FRotations; ++k) {
        const auto& table = FRotation[k];
        double distance = 0;
        bool usable = true;
        for (int dy = -w; dy <= w && usable; ++dy)
          for (int dx = -w; dx <= w; ++dx) {
            const auto [rx, ry] = table[(dy + w) * width + dx + w];
            const int sx = cx + rx, sy = cy + ry;
            if (sx < 0 || sx >= FSizeX || sy < 0 || sy >= FSizeY || FTarget[Index(sx, sy)]) {
              usable = false;
              break;
            }
            const int tx = x + dx, ty = y + dy;
            if (tx < 0 || tx >= FSizeX || ty < 0 || ty >= FSizeY || FTarget[Index(tx, ty)]) continue;
            const double d = double(FImage[Index(tx, ty)]) - FImage[Index(sx, sy)];
            distance += d * d;
            if (distance >= bestDistance) {
              usable = false;
              break;
            }
          }
        if (usable && distance < bestDistance) {
          bestDistance = distance;
          bestX = cx, bestY = cy, bestRotation = k;
          found = true;
        }
      }
    }
  return found;
}

void TInpainting::Update(int x, int y, int sourceX, int sourceY, int rotation, double confidence) {
  const int w = FWindow, width = 2 * w + 1;
  for (int dy = -w; dy <= w; ++dy)
    for (int dx = -w; dx <= w; ++dx) {
      const int tx = x + dx, ty = y + dy;
      if (tx < 0 || tx >= FSizeX || ty < 0 || ty >= FSizeY || !FTarget[Index(tx, ty)]) continue;
      const auto [rx, ry] = FRotation[rotation][(dy + w) * width + dx + w];
      FImage[Index(tx, ty)] = FImage[Index(sourceX + rx, sourceY + ry)];
      FConfidence[Index(tx, ty)] = confidence;
      FTarget[Index(tx, ty)] = 0;
      --FRemaining;
    }
}

bool TInpainting::Process() {
  if (FRemaining <= 0) return false;
  int bestX = -1, bestY = -1;
  double best = -1;
  for (int y = FTop; y <= FBottom; ++y)
    for (int x = FLeft; x <= FRight; ++x)
      if (FBoundary[Index(x, y)] && FPriority[Index(x, y)] > best)
        best = FPriority[Index(x, y)], bestX = x, bestY = y;
  if (bestX < 0) return false;
  int sx = 0, sy = 0, rotation = 0;
  if (!PatchTexture(bestX, bestY, sx, sy, rotation)) return false;
  Update(bestX, bestY, sx, sy, rotation, ComputeConfidence(bestX, bestY));
  const int reach = FWindow + 1;
  UpdateBoundary(bestX - reach, bestY - reach, bestX + reach, bestY + reach);
  UpdatePriority(bestX - 2 * reach, bestY - 2 * reach, bestX + 2 * reach, bestY + 2 * reach);
  return true;
}

int TInpainting::ProcessAll(const bool* cancel) {
  int steps = 0;
  while ((cancel == nullptr || !*cancel) && Process()) ++steps;
  return steps;
}
