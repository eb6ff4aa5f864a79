// Axis ticks: linear steps of one leading digit, margins, reversed axes, degenerate and far-offset ranges,
// logarithmic decades with 2 and 5 below two decades.
#include "opengl/Openglticks.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

TEST(ScalerViewPortTest, LinearAndLogarithmicMapsAreInverse) {
  const TScalerViewPort linear(0, 200, -1, 3);
  EXPECT_DOUBLE_EQ(linear.ModelToWorld(100), 1);
  EXPECT_DOUBLE_EQ(linear.WorldToModel(3), 200);
  const TScalerViewPort log(0, 300, 1, 1000, TScaleKind::Logarithmic);
  EXPECT_NEAR(log.ModelToWorld(100), 10, 1e-12);
  EXPECT_NEAR(log.WorldToModel(100), 200, 1e-9);
  EXPECT_TRUE(std::isnan(log.WorldToModel(-1)));
  EXPECT_TRUE(std::isnan(TScalerViewPort(0, 1, -1, 10, TScaleKind::Logarithmic).ModelToWorld(0.5)));
}

TEST(LabelAndTicksTest, LinearTicksAtRoundSteps) {
  TLabelAndTicks ticks;
  ticks.MaximumNumberOfTicks = 5;
  ticks.MinimumTickDistance = 10;
  ticks.Calculate(TScalerViewPort(0, 500, 0, 1000));
  // 1000 / 5 = 200: ticks 0, 200, ..., 1000 at model 0, 100, ..., 500.
  ASSERT_EQ(ticks.TickCount(), 6);
  for (int i = 0; i < 6; ++i) {
    EXPECT_DOUBLE_EQ(ticks.LabelValues()[static_cast<size_t>(i)], 200.0 * i);
    EXPECT_DOUBLE_EQ(ticks.TickPositions()[static_cast<size_t>(i)], 100.0 * i);
  }
  EXPECT_EQ(ticks.LabelPositions(), ticks.TickPositions());
}

TEST(LabelAndTicksTest, StepIsCutToOneLeadingDigitAndFirstTickIsInside) {
  TLabelAndTicks ticks;
  ticks.MaximumNumberOfTicks = 4;
  ticks.MinimumTickDistance = 1;
  ticks.Calculate(TScalerViewPort(0, 100, 3.7, 11.2)); // (11.2 - 3.7) / 4 = 1.875 -> 1
  ASSERT_GE(ticks.TickCount(), 2);
  EXPECT_DOUBLE_EQ(ticks.LabelValues().front(), 4);
  EXPECT_DOUBLE_EQ(ticks.LabelValues().back(), 11);
  EXPECT_EQ(ticks.TickCount(), 8);
  for (double v : ticks.LabelValues()) {
    EXPECT_GE(v, 3.7);
    EXPECT_LE(v, 11.2);
  }
}

TEST(LabelAndTicksTest, NegativeAndReversedRanges) {
  TLabelAndTicks ticks;
  ticks.MinimumTickDistance = 1;
  ticks.Calculate(TScalerViewPort(0, 100, 50, -50)); // world runs down along the axis
  // Step 100 / 5 = 20; the first multiple is truncated towards zero (-40), then ticks up to 40.
  EXPECT_EQ(ticks.LabelValues(), (std::vector<double>{-40, -20, 0, 20, 40}));
  EXPECT_DOUBLE_EQ(ticks.TickPositions().front(), 90);
  EXPECT_DOUBLE_EQ(ticks.TickPositions().back(), 10);
}

TEST(LabelAndTicksTest, MarginsKeepTicksOffTheEnds) {
  TLabelAndTicks ticks;
  ticks.MinimumTickDistance = 1;
  ticks.StartMargin = 5;
  ticks.EndMargin = 5;
  ticks.Calculate(TScalerViewPort(0, 100, 0, 100));
  ASSERT_GT(ticks.TickCount(), 0);
  for (double p : ticks.TickPositions()) {
    EXPECT_GE(p, 5);
    EXPECT_LE(p, 95);
  }
  ticks.StartMargin = 60;
  ticks.EndMargin = 50; // more than the axis
  ticks.Calculate(TScalerViewPort(0, 100, 0, 100));
  EXPECT_EQ(ticks.TickCount(), 0);
}

TEST(LabelAndTicksTest, ZeroRangesGiveNoTicks) {
  TLabelAndTicks ticks;
  ticks.Calculate(TScalerViewPort(0, 100, 5, 5));
  EXPECT_EQ(ticks.TickCount(), 0);
  ticks.Calculate(TScalerViewPort(7, 7, 0, 10));
  EXPECT_EQ(ticks.TickCount(), 0);
  EXPECT_TRUE(ticks.LabelValues().empty());
}

TEST(LabelAndTicksTest, NarrowRangeFarFromZeroGivesTicksUntilItsOffsetCantBeToldApart) {
  TLabelAndTicks ticks;
  ticks.MaximumNumberOfTicks = 10;
  ticks.MinimumTickDistance = 1;
  ticks.Calculate(TScalerViewPort(0, 1000, 1000.0001, 1000.0002)); // delta 1e-5, first / delta 1e8
  EXPECT_GT(ticks.TickCount(), 1);
  for (double v : ticks.LabelValues()) {
    EXPECT_GE(v, 1000.0001 - 1e-9);
    EXPECT_LE(v, 1000.0002 + 1e-9);
  }
  ticks.Calculate(TScalerViewPort(0, 1000, 1e6, 1e6 + 1e-4)); // delta 1e-5, first / delta 1e11
  EXPECT_EQ(ticks.TickCount(), 0);
}

TEST(LabelAndTicksTest, LogarithmicTicksAtDecadesAndTwoAndFiveBelowTwoDecades) {
  TLabelAndTicks ticks;
  ticks.Calculate(TScalerViewPort(0, 400, 0.01, 100, TScaleKind::Logarithmic)); // four decades
  EXPECT_EQ(ticks.LabelValues(), (std::vector<double>{0.01, 0.1, 1, 10, 100}));
  EXPECT_NEAR(ticks.TickPositions()[2], 200, 1e-9);
  ticks.Calculate(TScalerViewPort(0, 100, 1.5, 60, TScaleKind::Logarithmic)); // 1.6 decades
  const std::vector<double> expected{2, 5, 10, 20, 50};
  ASSERT_EQ(ticks.TickCount(), 5);
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(ticks.LabelValues()[i], expected[i], 1e-12);
  ticks.Calculate(TScalerViewPort(0, 100, -1, 100, TScaleKind::Logarithmic));
  EXPECT_EQ(ticks.TickCount(), 0);
  ticks.Calculate(TScalerViewPort(0, 100, 0, 100, TScaleKind::Logarithmic));
  EXPECT_EQ(ticks.TickCount(), 0);
}

} // namespace
