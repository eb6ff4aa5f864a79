// A curve in the scene: its point data, its drawing style, and its reduction for drawing: a long curve is
// drawn from the points that keep its shape within a tolerance (Douglas-Peucker), first and last point
// always kept.
#pragma once

#include "opengl/Openglbase.h"

#include <cstdint>
#include <vector>

/// One point of a curve.
struct TXYPoint {
  double X = 0;
  double Y = 0;
};

/// How a curve is drawn: its points, a line through them, or columns from a base line.
enum class TGraphStyle { Points, Line, Histogram };
/// How each point is marked in the Points style.
enum class TGraphPointStyle { Dot, Cross, Square };
/// The line pattern of the Line style.
enum class TGraphLineStyle { Solid, Dashed, Dotted };

/// A curve object: its points, style, and the reduced list it is drawn from. Points are in model units
/// (the viewer maps values to them). SetNrOfDataPoints and SetDataPoint change the data silently (a
/// million single changes must not each ask for a repaint); Update takes them into the drawing.
class TOpenGLGraph : public TOpenGLObject {
public:
  TOpenGLGraph();
  std::string GetClassName() const override { return "TOpenGLGraph"; }
  void RenderData() override;

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

  /// Sets all points at once from two arrays of count values (and updates).
  void SetDataPoints(const double* x, const double* y, int count);

  /// @{ Style.
  void SetStyle(TGraphStyle style);
  TGraphStyle GetStyle() const { return FStyle; }
  void SetPointStyle(TGraphPointStyle style);
  void SetLineStyle(TGraphLineStyle style);
  /// The y of the base line histogram columns stand on.
  void SetHistogramBaseLine(double y);
  /// Width of a histogram column in model units (0: the distance to the next point).
  void SetColumnWidth(double width);
  /// A shift of every point, in model units, applied when drawn.
  void SetShift(double dx, double dy);
  /// @}

  /// Rebuilds what is drawn: the reduction when ShowOptimised is on; then reports the change.
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

protected:
  bool UsesDisplayList() const override { return true; }

private:
  void UpdateBox();
  TGraphStyle FStyle = TGraphStyle::Line;
  TGraphPointStyle FPointStyle = TGraphPointStyle::Dot;
  TGraphLineStyle FLineStyle = TGraphLineStyle::Solid;
  double FBaseLine = 0;
  double FColumnWidth = 0;
  double FShiftX = 0;
  double FShiftY = 0;
  std::vector<TXYPoint> FPoints;
  std::vector<int32_t> FKept;
  bool FOptimised = false;
};
