// Axis scaling and ticks.
#include "opengl/Openglticks.h"

#include "common/numerics/Numerics.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {
constexpr double kTiny = 1e-31;
constexpr double kMaxOffsetRatio = 1e10;
} // namespace

double TScalerViewPort::ModelToWorld(double model) const {
  const double t = (model - ModelStart) / (ModelEnd - ModelStart);
  if (Kind == TScaleKind::Linear) return WorldStart + t * (WorldEnd - WorldStart);
  if (WorldStart <= 0 || WorldEnd <= 0) return std::numeric_limits<double>::quiet_NaN();
  return std::pow(10.0, std::log10(WorldStart) + t * (std::log10(WorldEnd) - std::log10(WorldStart)));
}

double TScalerViewPort::WorldToModel(double world) const {
  double t;
  if (Kind == TScaleKind::Linear) {
    t = (world - WorldStart) / (WorldEnd - WorldStart);
  } else {
    if (world <= 0 || WorldStart <= 0 || WorldEnd <= 0) return std::numeric_limits<double>::quiet_NaN();
    t = (std::log10(world) - std::log10(WorldStart)) / (std::log10(WorldEnd) - std::log10(WorldStart));
  }
  return ModelStart + t * (ModelEnd - ModelStart);
}

void TLabelAndTicks::Clear() {
  FTickPositions.clear();
  FLabelValues.clear();
  FLabelPositions.clear();
}

void TLabelAndTicks::Add(const TScalerViewPort& viewport, double world) {
  const double model = viewport.WorldToModel(world);
  FTickPositions.push_back(model);
  FLabelPositions.push_back(model);
  FLabelValues.push_back(world);
}

void TLabelAndTicks::Calculate(const TScalerViewPort& viewport) {
  if (viewport.Kind == TScaleKind::Logarithmic)
    CalculateLogarithmic(viewport);
  else
    CalculateLinear(viewport);
}

bool TLabelAndTicks::InnerRange(const TScalerViewPort& viewport, double& modelStart, double& modelEnd,
                                double& worldStart, double& worldEnd) const {
  const double modelRange = viewport.ModelEnd - viewport.ModelStart;
  if (std::fabs(viewport.WorldEnd - viewport.WorldStart) < kTiny || std::fabs(modelRange) < kTiny ||
      StartMargin + EndMargin > std::fabs(modelRange))
    return false;
  // Shrink by the margins in the direction in which the model range runs.
  const double direction = modelRange > 0 ? 1.0 : -1.0;
  modelStart = viewport.ModelStart + direction * StartMargin;
  modelEnd = viewport.ModelEnd - direction * EndMargin;
  worldStart = viewport.ModelToWorld(modelStart);
  worldEnd = viewport.ModelToWorld(modelEnd);
  if (!std::isfinite(worldStart) || !std::isfinite(worldEnd) || std::fabs(worldEnd - worldStart) < kTiny ||
      std::fabs(modelEnd - modelStart) < kTiny)
    return false;
  if (worldStart > worldEnd) {
    std::swap(worldStart, worldEnd);
    std::swap(modelStart, modelEnd);
  }
  return true;
}

void TLabelAndTicks::CalculateLinear(const TScalerViewPort& viewport) {
  Clear();
  double modelStart, modelEnd, worldStart, worldEnd;
  if (!InnerRange(viewport, modelStart, modelEnd, worldStart, worldEnd)) return;
  const double modelRange = std::fabs(modelEnd - modelStart);
  double minimumDistance = MinimumTickDistance;
  if (0.001 * modelRange > minimumDistance) minimumDistance = 0.001 * modelRange;
  if (!(minimumDistance > 0)) minimumDistance = modelRange;
  double count = std::trunc(modelRange / minimumDistance);
  count = std::clamp(count, 1.0, static_cast<double>(std::max(1, MaximumNumberOfTicks)));
  const double delta = GetDeltaTick((worldEnd - worldStart) / count);
  if (!(delta > 0)) return;
  double first = std::trunc(worldStart / delta) * delta;
  if (std::fabs(first / delta) >= kMaxOffsetRatio) return;
  while (first < worldStart) first += delta;
  // A step cut to its leading digit is more than half the wanted one, so there are at most 2 n + 1 ticks;
  // the bound also ends a walk whose step is lost against the offset.
  const int limit = 2 * static_cast<int>(count) + 2;
  for (int i = 0; i < limit; ++i) {
    const double value = first + i * delta;
    if (value > worldEnd) break;
    Add(viewport, value);
  }
}

void TLabelAndTicks::CalculateLogarithmic(const TScalerViewPort& viewport) {
  Clear();
  if (viewport.WorldStart <= 0 || viewport.WorldEnd <= 0) return;
  double modelStart, modelEnd, worldStart, worldEnd;
  if (!InnerRange(viewport, modelStart, modelEnd, worldStart, worldEnd)) return;
  const double decades = std::log10(worldEnd) - std::log10(worldStart);
  const int firstDecade = static_cast<int>(std::floor(std::log10(worldStart)));
  const int lastDecade = static_cast<int>(std::floor(std::log10(worldEnd)));
  // Below two decades the 2 and 5 of each decade are ticks as well.
  const bool fine = decades < 2.0;
  const double tolerance = 1e-9;
  for (int d = firstDecade; d <= lastDecade && TickCount() < 1000; ++d) {
    const double base = std::pow(10.0, d);
    for (double factor : {1.0, 2.0, 5.0}) {
      if (factor != 1.0 && !fine) continue;
      const double value = factor * base;
      if (value < worldStart * (1 - tolerance) || value > worldEnd * (1 + tolerance)) continue;
      Add(viewport, value);
    }
  }
}
