// Edge-preserving smoothing of an image: a structure tensor steers line integrals that average along
// contours more than across them.
#pragma once

#include "common/numerics/Imagefilters.h"

#include <functional>
#include <vector>

class IProgressAndCancel;

/// The threads that run one calculation together, as a kernel sees them: how many, a barrier they all meet
/// at, and where to ask whether to stop. The default is one thread that is never cancelled. A caller on the
/// calculation controller passes its thread count, its WaitForNextStep and itself as the progress channel.
struct TThreadTeam {
  int NumberOfThreads = 1;
  /// Returns once every thread of the team has called it; may be empty for a team of one.
  std::function<void(int thread)> WaitForNextStep;
  /// Asked once per iteration; null: never cancelled.
  const IProgressAndCancel* Progress = nullptr;
};

/// Classic fourth-order Runge-Kutta step for a path p(s) in the plane with dp/ds = f(p).
class TRungeKutta {
public:
  /// Advances (x, y) by the step h; f(x, y, dx, dy) gives the derivative. False when f refuses a point
  /// (it returns false, e.g. outside its domain).
  template <class F>
  static bool Step(double& x, double& y, double h, F&& f) {
    double k1x, k1y, k2x, k2y, k3x, k3y, k4x, k4y;
    if (!f(x, y, k1x, k1y)) return false;
    if (!f(x + 0.5 * h * k1x, y + 0.5 * h * k1y, k2x, k2y)) return false;
    if (!f(x + 0.5 * h * k2x, y + 0.5 * h * k2y, k3x, k3y)) return false;
    if (!f(x + h * k3x, y + h * k3y, k4x, k4y)) return false;
    x += h / 6.0 * (k1x + 2 * k2x + 2 * k3x + k4x);
    y += h / 6.0 * (k1y + 2 * k2y + 2 * k3y + k4y);
    return true;
  }
};

/// Bilinear value of a SizeX * SizeY field at (x, y); false outside 0..SizeX-1, 0..SizeY-1.
bool GetInterpolatedValue(const float* field, int sizeX, int sizeY, double x, double y, double& value);

/// Use: CreateArrays, SetParameter, SetImageData (and SetMaskData), then run Calculate in every thread of a
/// team (or without a team in one thread), then GetImageData.
class TAnisotropicImageSmoothing {
public:
  /// p1: smoothing strength along contours, p2: along the gradient (both 0.001..1000), deltaT: smoothing
  /// length (0.1..1e7), sigma: smoothing of the structure analysis (0.1..10), iterations at least 1.
  /// Raises OrvexExceptionImageFilter for values out of range.
  void SetParameter(float p1, float p2, float deltaT, float sigma, int iterations);
  /// Raises OrvexExceptionImageFilter below 2 x 2 pixels.
  void CreateArrays(int x, int y);
  void SetImageData(const float* data);
  /// Pixels flagged true keep their original value; null clears the mask.
  void SetMaskData(const bool* mask);
  void GetImageData(float* data) const;
  /// Runs all iterations. All threads of the team call it with their index 0 .. NumberOfThreads - 1 and
  /// take contiguous blocks of lines; they meet at the team's barrier between the steps, and thread 0 alone
  /// does the steps over whole arrays. A cancel ends the loop after the iteration in progress: the image
  /// then holds the iterations completed (CompletedIterations). Raises OrvexExceptionImageFilter before
  /// CreateArrays, and for a team of several threads without a barrier.
  void Calculate(const TThreadTeam& team, int thread);
  /// All iterations on the calling thread alone.
  void Calculate() { Calculate(TThreadTeam(), 0); }

  /// Line integrals use the strengths as they are (set by default); otherwise their square roots.
  bool LineIntegralMode = true;
  /// Scale factor applied by the last run (1 when the image was constant).
  double AppliedScale() const { return FScale; }
  int CompletedIterations() const { return FCompleted; }

private:
  static void Barrier(const TThreadTeam& team, int thread);
  void ScaleImage();
  void CalculateLx(int y0, int y1);
  void CalculateLy(int y0, int y1);
  void CalculateProdukt(int y0, int y1);
  void CalculateGaussFilter(int pass, int y0, int y1);
  void CalculateTensors(int y0, int y1);
  void CalculateField(int orientation, int y0, int y1);
  void IntegrateLines(int y0, int y1);
  void FinishIteration(int y0, int y1);
  bool AnisotropicSmoothingDerivative(double x, double y, double& dx, double& dy) const;

  int FSizeX = 0, FSizeY = 0;
  float FP1 = 1.0f, FP2 = 1.2f, FDeltaT = 5.0f, FSigma = 1.0f;
  int FIterations = 1;
  int FCompleted = 0;
  double FScale = 1.0;
  double FTime = 0.0;
  std::vector<float> FImage, FOriginal, FLx, FLy, FProducts[3], FFiltered[3], FTemp[3], FTensor[3];
  std::vector<float> FFieldX, FFieldY, FOutput;
  std::vector<float> FGauss;
  std::vector<char> FMask;
  bool FHasMask = false;
  bool FStop = false;
};
