// Exemplar-based filling of a marked region of a float image: the boundary pixel of highest priority
// (confidence times data term) gets the best matching patch of the known image, tried at several
// rotations, until the region is filled.
#pragma once

#include "common/numerics/Imagefilters.h"

#include <vector>

class TInpainting {
public:
  /// Images of this many pixels or more are refused.
  static constexpr long kMaximumPixels = 1024L * 1024L;

  /// image: SizeX * SizeY values, changed in place by Process; mask: true for the pixels to fill.
  /// windowSize is the half width of the patch (1..20), rotations the number of patch orientations
  /// (1..120). Raises OrvexExceptionImageFilter for arguments out of range or a too large image.
  void Init(float* image, const bool* mask, int sizeX, int sizeY, int windowSize, int rotations);
  /// One step: fills the best patch around the boundary pixel of highest priority. False when the target
  /// is empty or no source patch was found.
  bool Process();
  /// Process until it returns false or cancel (may be null) turns true; returns the number of steps.
  int ProcessAll(const bool* cancel = nullptr);

  double Priority(int x, int y) const { return ComputeConfidence(x, y) * ComputeData(x, y); }
  /// Mean confidence over the window around (x, y), clipped at the image.
  double ComputeConfidence(int x, int y) const;
  /// Largest gradient in the window among known pixels with four known neighbours, projected on the
  /// direction along the boundary (the isophote against the normal of the target), plus a small floor so
  /// that flat surroundings still fill from the outside in.
  double ComputeData(int x, int y) const;
  int RemainingTargetPixels() const { return FRemaining; }
  bool IsTarget(int x, int y) const { return FTarget[Index(x, y)] != 0; }
  bool IsBoundary(int x, int y) const { return FBoundary[Index(x, y)] != 0; }
  double Confidence(int x, int y) const { return FConfidence[Index(x, y)]; }
  /// Offset (dx, dy) of the window turned by rotation k, rounded to pixels, at index of (dx, dy).
  const std::vector<std::pair<int, int>>& RotationTable(int k) const { return FRotation[k]; }

private:
  long Index(int x, int y) const { return static_cast<long>(y) * FSizeX + x; }
  void CreateRotationLookUpTable();
  void DrawBoundary();
  void UpdateBoundary(int x0, int y0, int x1, int y1);
  void UpdatePriority(int x0, int y0, int x1, int y1);
  bool PatchTexture(int x, int y, int& bestX, int& bestY, int& bestRotation) const;
  void Update(int x, int y, int sourceX, int sourceY, int rotation, double confidence);

  float* FImage = nullptr;
  int FSizeX = 0, FSizeY = 0, FWindow = 1, FRotations = 1;
  int FRemaining = 0;
  std::vector<char> FTarget, FBoundary;
  std::vector<double> FConfidence, FPriority;
  std::vector<std::vector<std::pair<int, int>>> FRotation;
  /// Bounding rectangle of the remaining target.
  int FLeft = 0, FTop = 0, FRight = -1, FBottom = -1;
};
