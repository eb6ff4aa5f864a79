// Curve points and their reduction.
#include "opengl/Openglgraph.h"

#include <algorithm>
#include <cmath>
#include <utility>

void TOpenGLGraph::SetNrOfDataPoints(int count) {
  FPoints.assign(static_cast<size_t>(std::max(0, count)), TXYPoint{});
  FKept.clear();
  FOptimised = false;
}

void TOpenGLGraph::SetDataPoint(int index, double x, double y) {
  if (index < 0 || index >= GetNrOfDataPoints()) return;
  FPoints[static_cast<size_t>(index)] = {x, y};
  FOptimised = false;
}

void TOpenGLGraph::Update() {
  if (ShowOptimised)
    OptimizeGraph();
  else {
    FKept.clear();
    FOptimised = false;
  }
}

double TOpenGLGraph::DistancePointToLine(const TXYPoint& p, const TXYPoint& a, const TXYPoint& b) {
  const double dx = b.X - a.X;
  const double dy = b.Y - a.Y;
  const double length = std::hypot(dx, dy);
  if (length == 0) return std::hypot(p.X - a.X, p.Y - a.Y);
  return std::fabs(dy * (p.X - a.X) - dx * (p.Y - a.Y)) / length;
}

void TOpenGLGraph::OptimizeGraph() {
  FKept.clear();
  FOptimised = true;
  const int n = GetNrOfDataPoints();
  if (n == 0) return;
  if (n == 1) {
    FKept.push_back(0);
    return;
  }
  // The recursion on both halves, with an explicit stack so that a million points can't overflow the
  // call stack; a point is marked when kept and the marks are read in order at the end.
  std::vector<char> keep(static_cast<size_t>(n), 0);
  keep.front() = keep.back() = 1;
  std::vector<std::pair<int, int>> segments{{0, n - 1}};
  while (!segments.empty()) {
    const auto [a, b] = segments.back();
    segments.pop_back();
    if (b - a < 2) continue;
    // The farthest point by the cross product with the chord; one division per segment, not per point.
    const TXYPoint& pa = FPoints[static_cast<size_t>(a)];
    const TXYPoint& pb = FPoints[static_cast<size_t>(b)];
    const double dx = pb.X - pa.X;
    const double dy = pb.Y - pa.Y;
    const double length = std::hypot(dx, dy);
    double farthest = -1;
    int at = -1;
    for (int i = a + 1; i < b; ++i) {
      const TXYPoint& p = FPoints[static_cast<size_t>(i)];
      const double d =
          length == 0 ? std::hypot(p.X - pa.X, p.Y - pa.Y) : std::fabs(dy * (p.X - pa.X) - dx * (p.Y - pa.Y));
      if (d > farthest) {
        farthest = d;
        at = i;
      }
    }
    if (length != 0) farthest /= length;
    // NaN distances (NaN points) never exceed the limit: such points are dropped, the curve goes on.
    if (at < 0 || !(farthest > OptimisationLimit)) continue;
    keep[static_cast<size_t>(at)] = 1;
    segments.emplace_back(a, at);
    segments.emplace_back(at, b);
  }
  for (int i = 0; i < n; ++i)
    if (keep[static_cast<size_t>(i)]) FKept.push_back(i);
}

std::vector<TXYPoint> TOpenGLGraph::PointsToDraw() const {
  if (!ShowOptimised || !FOptimised) return FPoints;
  std::vector<TXYPoint> points;
  points.reserve(FKept.size());
  for (int32_t i : FKept) points.push_back(FPoints[static_cast<size_t>(i)]);
  return points;
}
