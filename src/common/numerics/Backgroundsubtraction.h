// Background estimation kernels of spectra: one plain function per method on caller-owned float arrays.
// Each takes the spectrum, its fit mask (the pixels the background is fitted to) and change mask (the
// pixels the result keeps), and writes the background b and the result: y - b inside the change mask,
// 0 outside. A spectrum with NaN or Inf at a fit-mask pixel is not processed: background and result become
// NaN everywhere. Work arrays live in a TBackgroundScratch, one per thread; the polynomial fit's matrix
// lives in a TPolynomialBackgroundFit that several threads share read-only; the shape method's rolling
// circle lives in the scratch as well.
#pragma once

#include <memory>
#include <vector>

class TRollingCircleSubtraction;
class TWaveletTransformation;
class TWaveletBufferInfo;

/// The methods, by their tag value.
enum class TGraphBackgroundSubtractionKind : int {
  Constant = 0,
  Minimum = 1,
  Polynomial = 2,
  AutoPolynomial = 3,
  Shape = 4,
  Average = 5,
  AutoAverage = 6
};

/// What a kernel did with one spectrum.
enum class TBackgroundStatus : int {
  Done = 0,
  NotFinite = 1, ///< NaN or Inf in the fit mask: background and result are NaN
  Refused = 2    ///< the setup cannot serve this spectrum (matrix not prepared, too short for the noise)
};

/// Smallest spectrum the wavelet noise estimate of the automatic methods works on.
constexpr int kMinimumAutoBackgroundLength = 16;

/// Least-squares polynomial over the fit-mask pixels. The pixel index is mapped to [-1, 1] and the normal
/// equations are built and solved in long double, which spans the same polynomials as powers of the
/// index from 1 but stays well conditioned up to order 9 over thousands of pixels. Prepared once, then
/// read only: threads share one object.
class TPolynomialBackgroundFit {
public:
  static constexpr int kMaximumOrder = 9;

  /// Builds and decomposes the normal matrix. False (and Fit refuses) for an order outside 0..9, a length
  /// below 1, fewer fit-mask pixels than order + 1, or a decomposition that reports dependency.
  bool Prepare(int length, const bool* fitMask, int order);
  bool IsPrepared() const { return FPrepared; }
  int Length() const { return FLength; }
  int Order() const { return FOrder; }
  const bool* FitMask() const { return FFitMask.get(); }
  /// Number of pixels set in the fit mask given to Prepare.
  int FitMaskCount() const { return FFitCount; }

  /// The fitted polynomial through values at the fit-mask pixels, evaluated at every pixel into out.
  /// coefficients needs Order() + 1 entries of scratch; it receives the coefficients in the mapped index.
  void Fit(const float* values, float* out, long double* coefficients) const;

private:
  bool FPrepared = false;
  int FLength = 0, FOrder = 0, FFitCount = 0;
  std::unique_ptr<bool[]> FFitMask;
  std::vector<long double> FMatrix; ///< LU of the normal matrix, (order+1)^2
  std::vector<int> FIndex;
  std::vector<double> FMapped;      ///< the pixel index mapped to [-1, 1]
  std::vector<double> FMaskedBasis; ///< the same, zero outside the fit mask
};

/// Settings of the shape method.
struct TShapeSettings {
  int ShapeSize = 100;         ///< radius of the rolled circle in channels (of the normalised spectrum)
  float NoiseFactor = 1.0f;    ///< wavelet noise filter applied before rolling; 0 rolls on the raw values
  bool KeepBorderPeaks = true; ///< the circle stays inside the spectrum, so peaks at the ends are kept
};

/// Work space of one thread for spectra of one length.
class TBackgroundScratch {
public:
  explicit TBackgroundScratch(int length);
  ~TBackgroundScratch();
  TBackgroundScratch(const TBackgroundScratch&) = delete;
  TBackgroundScratch& operator=(const TBackgroundScratch&) = delete;

  int Length() const { return FLength; }
  /// The high-frequency part of y: one iteration of the 16-tap least asymmetric wavelet with mirrored
  /// ends, reconstructed without the approximation. False below kMinimumAutoBackgroundLength pixels.
  bool NoiseSpectrum(const float* y, float* noise);

  /// The rolling circle of the shape method for these settings, made on first use and kept while the
  /// settings stay the same. Null when the spectrum is too short for the circle's noise filter.
  TRollingCircleSubtraction* ShapeCircle(const TShapeSettings& settings);

  std::vector<float> Work, Fit, PreviousFit, Noise, Mean, PointX, PointY, Extended;
  std::vector<long double> Coefficients;

private:
  int FLength;
  std::unique_ptr<TWaveletTransformation> FWavelet;
  std::unique_ptr<TWaveletBufferInfo> FWaveletInfo;
  std::unique_ptr<TRollingCircleSubtraction> FCircle;
  TShapeSettings FCircleSettings;
  bool FCircleTried = false;
};

/// Settings of the automatic polynomial method.
struct TAutoPolynomialSettings {
  float NoiseThreshold = 2.0f; ///< peaks are points above the fit by more than this many |noise|
  double Tolerance = 1e-8;     ///< stop when the relative fall of the change between rounds is below this
  int MaximumRounds = 1000;
};

/// Settings of the automatic average method.
struct TAutoAverageSettings {
  int HalfWidth = 10; ///< the box has 2 HalfWidth + 1 points
  float NoiseThreshold = 2.0f;
  int NumberOfIterations = 100;
};

/// Writes y - b inside the change mask and 0 outside. Exposed for callers that compute b otherwise.
void ApplyBackground(int length, const float* y, const bool* changeMask, const float* background,
                     float* result);
/// True when every fit-mask value of y is finite.
bool FitMaskValuesAreFinite(int length, const float* y, const bool* fitMask);

/// Method 0: b[i] = constant + reference[i]; reference may be null (zeros).
TBackgroundStatus ConstantBackground(int length, const float* y, const bool* fitMask, const bool* changeMask,
                                     double constant, const float* reference, float* background,
                                     float* result);
/// Method 1: b = smallest fit-mask value + offset; with an empty fit mask b = 0.
TBackgroundStatus MinimumBackground(int length, const float* y, const bool* fitMask, const bool* changeMask,
                                    double offset, float* background, float* result);
/// Method 2: the least-squares polynomial of fit (its length, fit mask and order).
TBackgroundStatus PolynomialBackground(const TPolynomialBackgroundFit& fit, const float* y,
                                       const bool* changeMask, float* background, float* result,
                                       TBackgroundScratch& scratch);
/// Method 3: polynomial fits repeated while points above fit + threshold |noise| are cut to the fit.
/// rounds (optional) receives the number of fits made.
TBackgroundStatus AutoPolynomialBackground(const TPolynomialBackgroundFit& fit, const float* y,
                                           const bool* changeMask, const TAutoPolynomialSettings& settings,
                                           float* background, float* result, TBackgroundScratch& scratch,
                                           int* rounds = nullptr);
/// Copies in to out, replacing each run of points marked in ignore by the straight line between the kept
/// points around it; a run at an end takes the nearest kept value. With every point marked, out is 0.
/// out may be in.
void LinearGraphInterpolation(const bool* ignore, const float* in, float* out, int n);
/// Method 4: the background of a circle rolled beneath the (noise-filtered) spectrum; at the pixels outside
/// the fit mask it is replaced by the straight line between the fit-mask pixels around them. An empty fit
/// mask gives b = 0. Refused when the spectrum is too short for the noise filter; raises OrvexException for
/// a shape size below 1 or a negative noise factor.
TBackgroundStatus ShapeBackground(int length, const float* y, const bool* fitMask, const bool* changeMask,
                                  const TShapeSettings& settings, float* background, float* result,
                                  TBackgroundScratch& scratch);
/// The weights of method 5: row 2 size of Pascal's triangle (2 size + 1 values).
std::vector<float> AverageWeights(int size);
/// Method 5: weighted means of each fit-mask pixel with up to size fit-mask neighbours on each side,
/// joined by straight lines from (0, y[0]) to (length-1, y[length-1]). weights: 2 size + 1 values,
/// centre at size (AverageWeights, or a box).
TBackgroundStatus AverageBackground(int length, const float* y, const bool* fitMask, const bool* changeMask,
                                    const float* weights, int size, float* background, float* result,
                                    TBackgroundScratch& scratch);
/// Method 6: repeated mirrored box means, points above mean + threshold |noise| replaced by the mean.
/// The fit mask only decides whether the spectrum is processed (its values must be finite).
TBackgroundStatus AutoAverageBackground(int length, const float* y, const bool* fitMask,
                                        const bool* changeMask, const TAutoAverageSettings& settings,
                                        float* background, float* result, TBackgroundScratch& scratch);
