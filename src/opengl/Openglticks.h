// Axis scaling and ticks: the map between a model range (where an axis lies on the screen) and a world
// range (the values it shows), linear or logarithmic, and the choice of tick positions and labels.
#pragma once

#include <vector>

/// How an axis maps values: linearly, or by the logarithm of positive values.
enum class TScaleKind { Linear, Logarithmic };

/// Maps the model range [ModelStart, ModelEnd] onto the world range [WorldStart, WorldEnd].
class TScalerViewPort {
public:
  TScalerViewPort() = default;
  TScalerViewPort(double modelStart, double modelEnd, double worldStart, double worldEnd,
                  TScaleKind kind = TScaleKind::Linear)
      : ModelStart(modelStart), ModelEnd(modelEnd), WorldStart(worldStart), WorldEnd(worldEnd), Kind(kind) {}

  /// The world value at a model position; logarithmic maps need positive world ends (else NaN).
  double ModelToWorld(double model) const;
  /// The model position of a world value.
  double WorldToModel(double world) const;

  double ModelStart = 0;
  double ModelEnd = 1;
  double WorldStart = 0;
  double WorldEnd = 1;
  TScaleKind Kind = TScaleKind::Linear;
};

/// Tick positions (model units) and label values of one axis.
class TLabelAndTicks {
public:
  /// Most ticks (default 5).
  int MaximumNumberOfTicks = 5;
  /// Space kept free at the start and at the end of the axis, in model units.
  double StartMargin = 0;
  double EndMargin = 0;
  /// Smallest distance of two ticks, in model units.
  double MinimumTickDistance = 1.0;

  /// Ticks by the viewport's kind.
  void Calculate(const TScalerViewPort& viewport);
  /// Ticks at round steps of one leading digit (none for a degenerate range or one whose offset is too
  /// large for its step to be told apart).
  void CalculateLinear(const TScalerViewPort& viewport);
  /// Ticks at the decades of a positive range, and at 2 and 5 times each decade when the range spans fewer
  /// than two decades; none for a range that isn't positive.
  void CalculateLogarithmic(const TScalerViewPort& viewport);

  int TickCount() const { return static_cast<int>(FTickPositions.size()); }
  const std::vector<double>& TickPositions() const { return FTickPositions; }
  const std::vector<double>& LabelValues() const { return FLabelValues; }
  /// The copy of the positions that label objects are placed by.
  const std::vector<double>& LabelPositions() const { return FLabelPositions; }

private:
  void Clear();
  void Add(const TScalerViewPort& viewport, double world);
  /// Model range shrunk by the margins, as a viewport with the world values of its ends; false when
  /// nothing is left.
  bool InnerRange(const TScalerViewPort& viewport, double& modelStart, double& modelEnd, double& worldStart,
                  double& worldEnd) const;

  std::vector<double> FTickPositions;
  std::vector<double> FLabelValues;
  std::vector<double> FLabelPositions;
};
