// The point data of a curve in the scene and its reduction for drawing: a long curve is drawn from the
// points that keep its shape within a tolerance (Douglas-Peucker), first and last point always kept.
#pragma once

#include <cstdint>
#include <vector>

/// One point of a curve.
struct TXYPoint {
  double X = 0;
  double Y = 0;
};

/// The data side of a curve object: its points, style flags and the reduced list it is drawn from.
class TOpenGLGraph {
public:
  /// Sets the number of points (new ones are 0, 0); the reduction is dropped.
  void SetNrOfDataPoints(int count);
  int GetNrOfDataPoints() const { return static_cast<int>(FPoints.size()); }
  /// Sets point index (ignored out of range); the reduction is dropped.
  void SetDataPoint(int index, double x, double y);
  const std::vector<TXYPoint>& Points() const { return FPoints; }

  /// Draw from the reduced points (true) or from all.
  bool ShowOptimised = true;
  /// Largest distance, in model units, that a dropped point may lie off the kept line.
  double OptimisationLimit = 0.5;

  /// Rebuilds what is drawn: the reduction when ShowOptimised is on.
  void Update();
  /// Reduces the curve: keeps first and last point and, recursively, the point farthest from the line
  /// between two kept ones while that distance exceeds the limit.
  void OptimizeGraph();
  /// Number of kept points, -1 when no reduction ran.
  int GetOptimisedNrOfPoints() const { return FOptimised ? static_cast<int>(FKept.size()) : -1; }
  /// Indices of the kept points, ascending.
  const std::vector<int32_t>& KeptIndices() const { return FKept; }
  /// The points a drawing uses: the kept ones with ShowOptimised after a reduction, all otherwise.
  std::vector<TXYPoint> PointsToDraw() const;

  /// Distance of p from the line through a and b (from a when a and b coincide).
  static double DistancePointToLine(const TXYPoint& p, const TXYPoint& a, const TXYPoint& b);

private:
  std::vector<TXYPoint> FPoints;
  std::vector<int32_t> FKept;
  bool FOptimised = false;
};
