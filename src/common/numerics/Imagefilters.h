// Neighbourhood filters on float images owned by the caller: average, median, Sobel, Kirsch, variance,
// Laplace, selective sharpen and custom kernels, with the choice of how marginal pixels are treated.
// The filters work on a range of lines, so that a caller may give each thread its own share.
#pragma once

#include "common/OrvexException.h"

#include <vector>

/// A filter was given parameters or images it cannot work with.
class OrvexExceptionImageFilter : public OrvexException {
public:
  using OrvexException::OrvexException;
  std::string ClassName() const override { return "Image Filter Exception"; }
  Exception* Clone() const override { return new OrvexExceptionImageFilter(*this); }
};

/// A read-only float image: line y starts at Data + y * SizeX. LineValid holds SizeY flags (null: all
/// lines are valid). Invalid lines are skipped by every filter.
struct TConstFloatImage {
  const float* Data = nullptr;
  const bool* LineValid = nullptr;
  int SizeX = 0;
  int SizeY = 0;
  bool IsLineValid(int y) const { return LineValid == nullptr || LineValid[y]; }
  const float* Line(int y) const { return Data + static_cast<long>(y) * SizeX; }
};

/// A writable float image of the same layout. LineValid may be null when the caller needs no flags.
struct TFloatImage {
  float* Data = nullptr;
  bool* LineValid = nullptr;
  int SizeX = 0;
  int SizeY = 0;
  float* Line(int y) const { return Data + static_cast<long>(y) * SizeX; }
  void SetLineValid(int y, bool valid) const {
    if (LineValid != nullptr) LineValid[y] = valid;
  }
  TConstFloatImage Const() const { return {Data, LineValid, SizeX, SizeY}; }
};

/// Treatment of the pixels whose window reaches beyond the image.
enum class TMarginalPixels : int {
  Mirror = 0, ///< An index i below 0 becomes -i, an index at or above n becomes 2n - 2 - i.
  Copy = 1,   ///< The margin is left out and then takes the nearest calculated pixel.
  Zero = 2    ///< The margin is left out and then set to 0.
};

/// The nine filter kinds by page index.
enum class TImageFilterKind : int {
  Average = 0,
  Anisotropic = 1,
  Median = 2,
  Sobel = 3,
  Kirsch = 4,
  Variance = 5,
  Laplace = 6,
  Sharpen = 7,
  Custom = 8
};

/// Which of the Sobel images a run gives.
enum class TSobelOutput : int { Gx = 0, Gy = 1, G = 2, Theta = 3 };

/// Theta of a pixel whose gradient vanishes in both directions (in radians; scaled with the degrees).
constexpr double kSobelFlatTheta = -6.0;
constexpr double kRadianToDegree = 57.29577951308232;

/// The parameters of one filter run; only those of the chosen kind are read.
struct TImageFilterParameters {
  TImageFilterKind Kind = TImageFilterKind::Average;
  TMarginalPixels Margin = TMarginalPixels::Mirror;
  /// Window half width: Average and Median 0..9, Variance 1..9, Sharpen radius 1..9, Custom 1..3.
  int Size = 1;
  // Sobel: the output, the pixel steps along x and y (1 when pixel based) and theta in degrees.
  TSobelOutput SobelOutput = TSobelOutput::G;
  double StepX = 1.0;
  double StepY = 1.0;
  bool ThetaInDegree = false;
  /// Kirsch: 0 is "GMax", 1..8 the compass masks G1 (north) .. G8, turning clockwise by 45 degrees.
  int KirschDirection = 0;
  /// Laplace: 1, 2 or 3.
  int LaplaceType = 1;
  // Sharpen.
  double SharpenAmount = 1.0;
  double SharpenThreshold = 0.0;
  /// Custom: (2 Size + 1)^2 coefficients, row by row from the top, left first, and the divisor.
  std::vector<double> CustomCoefficients;
  double CustomFactor = 1.0;
};

/// Maps an index beyond 0..n-1 back into the image by mirroring at the edge pixel.
inline int MirrorIndex(int i, int n) {
  if (i < 0) return -i;
  if (i >= n) return 2 * n - 2 - i;
  return i;
}

/// 2 size + 1 binomial coefficients (row 2 size of Pascal's triangle).
std::vector<double> CalculateBinomialBuffer(int size);

/// Fills the margin of width border of image: with the nearest pixel inside the margin (Copy, lines and
/// their flags too) or with 0 (Zero, the lines of the margin are then valid). Mirror leaves the image.
void FillImageBorder(const TFloatImage& image, int border, TMarginalPixels mode);

/// One filter run of an input image into an output image of the same size.
/// Use: construct, then for pass = 0 .. NumberOfPasses()-1 call CalculateLines for every share of lines
/// (all shares of one pass must end before the next pass starts), then FinishImage once. Calculate does
/// all of it on the whole image. Shares of lines may run at the same time in different threads.
class TImageFilter {
public:
  /// Raises OrvexExceptionImageFilter for parameters out of range, a kind not of this class
  /// (Anisotropic), images of different or too small size.
  TImageFilter(const TImageFilterParameters& parameters, const TConstFloatImage& input,
               const TFloatImage& output);

  int NumberOfPasses() const { return FParameters.Kind == TImageFilterKind::Average ? 2 : 1; }
  /// The width of the margin the kind's window needs.
  int Border() const { return FBorder; }
  /// Lines firstLine..lastLine (inclusive, clipped to the image) of the given pass.
  void CalculateLines(int pass, int firstLine, int lastLine);
  /// Fills the margin for Copy and Zero.
  void FinishImage();
  void Calculate();

private:
  void CalculateAverageX(int y);
  void CalculateAverageY(int y);
  void CalculateMedianOrVariance(int y, bool median, std::vector<float>& window);
  void CalculateFixedKernels(int y);
  void CalculateSharpen(int y);
  /// The source row of row index y (mapped for Mirror), or -1 when it lies outside or is invalid.
  int SourceRow(int y) const;
  int FirstColumn() const { return FParameters.Margin == TMarginalPixels::Mirror ? 0 : FBorder; }
  int LastColumn() const {
    return FParameters.Margin == TMarginalPixels::Mirror ? FInput.SizeX - 1 : FInput.SizeX - 1 - FBorder;
  }

  TImageFilterParameters FParameters;
  TConstFloatImage FInput;
  TFloatImage FOutput;
  int FBorder = 0;
  /// Column of x + d for x + d in -border .. SizeX - 1 + border, at index x + d + border.
  std::vector<int> FColumns;
  std::vector<double> FBinomial;
  /// First pass of the average, one line per image line.
  std::vector<double> FAverageX;
  std::vector<char> FAverageXValid;
  /// Kernels of the fixed kinds, (2 border + 1)^2 each, row by row.
  std::vector<std::vector<double>> FKernels;
};
