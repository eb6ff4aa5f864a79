// Curve points and their reduction.
#include "opengl/Openglgraph.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <GL/gl.h>

TOpenGLGraph::TOpenGLGraph() {
  SetColor({1, 0, 0, 1});
}

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

void TOpenGLGraph::SetDataPoints(const double* x, const double* y, int count) {
  FPoints.resize(static_cast<size_t>(std::max(0, count)));
  for (size_t i = 0; i < FPoints.size(); ++i) FPoints[i] = {x[i], y[i]};
  FOptimised = false;
  Update();
}

void TOpenGLGraph::Update() {
  if (ShowOptimised)
    OptimizeGraph();
  else {
    FKept.clear();
    FOptimised = false;
  }
  UpdateBox();
  ObjectChanged();
}

void TOpenGLGraph::UpdateBox() {
  TOpenGLBox box;
  for (const TXYPoint& p : FPoints)
    if (std::isfinite(p.X) && std::isfinite(p.Y)) box.Add({p.X + FShiftX, p.Y + FShiftY, 0});
  if (FStyle == TGraphStyle::Histogram && !box.IsEmpty()) box.Add({box.Min.X, FBaseLine + FShiftY, 0});
  SetLocalBoundingBox(box);
}

void TOpenGLGraph::SetStyle(TGraphStyle style) {
  if (FStyle == style) return;
  FStyle = style;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLGraph::SetPointStyle(TGraphPointStyle style) {
  if (FPointStyle == style) return;
  FPointStyle = style;
  ObjectChanged();
}

void TOpenGLGraph::SetLineStyle(TGraphLineStyle style) {
  if (FLineStyle == style) return;
  FLineStyle = style;
  ObjectChanged();
}

void TOpenGLGraph::SetHistogramBaseLine(double y) {
  FBaseLine = y;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLGraph::SetColumnWidth(double width) {
  FColumnWidth = width;
  ObjectChanged();
}

void TOpenGLGraph::SetShift(double dx, double dy) {
  FShiftX = dx;
  FShiftY = dy;
  UpdateBox();
  ObjectChanged();
}

void TOpenGLGraph::RenderData() {
  const std::vector<TXYPoint> points = PointsToDraw();
  if (points.empty()) return;
  // Float vertices after the shift; a NaN point breaks the line there.
  std::vector<float> vertices;
  vertices.reserve(points.size() * 2);
  auto flush = [&](GLenum mode) {
    if (vertices.empty()) return;
    glVertexPointer(2, GL_FLOAT, 0, vertices.data());
    glDrawArrays(mode, 0, static_cast<GLsizei>(vertices.size() / 2));
    vertices.clear();
  };
  glEnableClientState(GL_VERTEX_ARRAY);
  switch (FStyle) {
  case TGraphStyle::Line: {
    const bool stipple = FLineStyle != TGraphLineStyle::Solid;
    if (stipple) {
      glEnable(GL_LINE_STIPPLE);
      glLineStipple(1, FLineStyle == TGraphLineStyle::Dashed ? 0x0F0F : 0x3333);
    }
    for (const TXYPoint& p : points) {
      if (!std::isfinite(p.X) || !std::isfinite(p.Y)) {
        flush(GL_LINE_STRIP);
        continue;
      }
      vertices.push_back(static_cast<float>(p.X + FShiftX));
      vertices.push_back(static_cast<float>(p.Y + FShiftY));
    }
    flush(GL_LINE_STRIP);
    if (stipple) glDisable(GL_LINE_STIPPLE);
    break;
  }
  case TGraphStyle::Points: {
    for (const TXYPoint& p : points) {
      if (!std::isfinite(p.X) || !std::isfinite(p.Y)) continue;
      vertices.push_back(static_cast<float>(p.X + FShiftX));
      vertices.push_back(static_cast<float>(p.Y + FShiftY));
    }
    if (FPointStyle == TGraphPointStyle::Dot) {
      flush(GL_POINTS);
      break;
    }
    // Crosses and squares of three point sizes, in model units.
    const float r = 1.5f * GetPointSize();
    std::vector<float> shapes;
    for (size_t i = 0; i + 1 < vertices.size(); i += 2) {
      const float x = vertices[i], y = vertices[i + 1];
      if (FPointStyle == TGraphPointStyle::Cross)
        shapes.insert(shapes.end(), {x - r, y, x + r, y, x, y - r, x, y + r});
      else
        shapes.insert(shapes.end(), {x - r, y - r, x + r, y - r, x + r, y - r, x + r, y + r, x + r, y + r,
                                     x - r, y + r, x - r, y + r, x - r, y - r});
    }
    vertices = std::move(shapes);
    flush(GL_LINES);
    break;
  }
  case TGraphStyle::Histogram: {
    // One column per point, centred on it, from the base line to the point.
    for (size_t i = 0; i < points.size(); ++i) {
      const TXYPoint& p = points[i];
      if (!std::isfinite(p.X) || !std::isfinite(p.Y)) continue;
      double width = FColumnWidth;
      if (width <= 0) {
        const size_t j = i + 1 < points.size() ? i + 1 : (i > 0 ? i - 1 : i);
        width = std::fabs(points[j].X - p.X);
        if (width <= 0) width = 1;
      }
      const auto x0 = static_cast<float>(p.X + FShiftX - width / 2),
                 x1 = static_cast<float>(p.X + FShiftX + width / 2);
      const auto y0 = static_cast<float>(FBaseLine + FShiftY), y1 = static_cast<float>(p.Y + FShiftY);
      vertices.insert(vertices.end(), {x0, y0, x1, y0, x1, y1, x0, y1});
    }
    flush(GL_QUADS);
    break;
  }
  }
  glDisableClientState(GL_VERTEX_ARRAY);
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
