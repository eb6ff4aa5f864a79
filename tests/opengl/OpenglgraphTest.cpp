// Curve reduction: first and last point kept, every dropped point within the limit of the kept line,
// straight lines reduced to their ends, corners kept, degenerate inputs.
#include "opengl/Openglgraph.h"

#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

namespace {

// Distance of every point from the polyline of the kept points, segment by segment.
double LargestDeviation(const TOpenGLGraph& graph) {
  const auto& points = graph.Points();
  const auto& kept = graph.KeptIndices();
  double worst = 0;
  for (size_t k = 0; k + 1 < kept.size(); ++k)
    for (int32_t i = kept[k] + 1; i < kept[k + 1]; ++i)
      worst = std::max(worst, TOpenGLGraph::DistancePointToLine(points[static_cast<size_t>(i)],
                                                                points[static_cast<size_t>(kept[k])],
                                                                points[static_cast<size_t>(kept[k + 1])]));
  return worst;
}

TEST(OpenGLGraphTest, NoisyLorentzianIsReducedWithinTheLimitAndKeepsItsEnds) {
  TOpenGLGraph graph;
  const int n = 100000;
  graph.SetNrOfDataPoints(n);
  std::mt19937 random(7);
  std::normal_distribution<double> noise(0, 0.05);
  for (int i = 0; i < n; ++i) {
    const double x = i * 0.01;
    const double dx = x - 500;
    graph.SetDataPoint(i, x, 100.0 / (1 + dx * dx / 4.0) + noise(random));
  }
  EXPECT_EQ(graph.GetOptimisedNrOfPoints(), -1);
  graph.OptimisationLimit = 0.5;
  graph.Update();
  const int kept = graph.GetOptimisedNrOfPoints();
  EXPECT_GT(kept, 2);
  EXPECT_LT(kept, n / 10);
  EXPECT_EQ(graph.KeptIndices().front(), 0);
  EXPECT_EQ(graph.KeptIndices().back(), n - 1);
  EXPECT_TRUE(std::is_sorted(graph.KeptIndices().begin(), graph.KeptIndices().end()));
  EXPECT_LE(LargestDeviation(graph), 0.5);
  // The apex survives: the kept point nearest x = 500 lies close to it in height.
  double apex = 0;
  for (int32_t i : graph.KeptIndices()) apex = std::max(apex, graph.Points()[static_cast<size_t>(i)].Y);
  EXPECT_GT(apex, 99);
  EXPECT_EQ(graph.PointsToDraw().size(), static_cast<size_t>(kept));
  graph.ShowOptimised = false;
  EXPECT_EQ(graph.PointsToDraw().size(), static_cast<size_t>(n));
}

TEST(OpenGLGraphTest, StraightLineKeepsOnlyItsEndsAndCornersStay) {
  TOpenGLGraph graph;
  graph.SetNrOfDataPoints(101);
  for (int i = 0; i <= 100; ++i) graph.SetDataPoint(i, i, 2.0 * i + 1);
  graph.OptimizeGraph();
  EXPECT_EQ(graph.KeptIndices(), (std::vector<int32_t>{0, 100}));
  // A roof: the corner at 50 is kept.
  for (int i = 0; i <= 100; ++i) graph.SetDataPoint(i, i, i <= 50 ? i : 100 - i);
  EXPECT_EQ(graph.GetOptimisedNrOfPoints(), -1); // a change drops the old reduction
  graph.OptimizeGraph();
  EXPECT_EQ(graph.KeptIndices(), (std::vector<int32_t>{0, 50, 100}));
}

TEST(OpenGLGraphTest, DegenerateCurves) {
  TOpenGLGraph graph;
  graph.OptimizeGraph();
  EXPECT_EQ(graph.GetOptimisedNrOfPoints(), 0);
  graph.SetNrOfDataPoints(1);
  graph.OptimizeGraph();
  EXPECT_EQ(graph.KeptIndices(), std::vector<int32_t>{0});
  graph.SetNrOfDataPoints(2);
  graph.OptimizeGraph();
  EXPECT_EQ(graph.KeptIndices(), (std::vector<int32_t>{0, 1}));
  // All points in one place, and a NaN among them: ends kept, nothing else, no endless recursion.
  graph.SetNrOfDataPoints(5);
  graph.SetDataPoint(2, std::numeric_limits<double>::quiet_NaN(), 1);
  graph.OptimizeGraph();
  EXPECT_EQ(graph.KeptIndices(), (std::vector<int32_t>{0, 4}));
  graph.SetDataPoint(99, 1, 1); // out of range: ignored
  EXPECT_EQ(graph.GetNrOfDataPoints(), 5);
  EXPECT_DOUBLE_EQ(TOpenGLGraph::DistancePointToLine({3, 4}, {0, 0}, {0, 0}), 5);
}

} // namespace
