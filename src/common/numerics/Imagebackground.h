// Polynomial background of an image, fitted by least squares and subtracted: one surface over all valid
// lines, or one polynomial in x per valid line. Works on caller-owned float images (line y starts at
// y * SizeX) with one valid flag per line; invalid lines are neither read nor changed.
#pragma once

#include <string>
#include <vector>

/// Which background is fitted.
enum class TImageBackgroundMode : int {
  Surface = 0, ///< sum of a_ij x^i y^j with i + j <= order over the pixels of all valid lines
  Lines = 1    ///< every valid line its own polynomial in x of the given degree
};

/// Outcome of one step of the subtraction.
enum class TImageBackgroundCode : int {
  Done = 0,
  NotFinite = 1,     ///< a pixel of a valid line is NaN or infinite; X and Y name it
  BadParameters = 2, ///< order outside 0..3, a size below 1, or an unknown mode
  TooFewPixels = 3,  ///< fewer columns or valid lines than the order needs
  Singular = 4       ///< the normal equations could not be solved
};

/// Code and, for NotFinite, the pixel.
struct TImageBackgroundStatus {
  TImageBackgroundCode Code = TImageBackgroundCode::Done;
  int X = -1;
  int Y = -1;
  bool Ok() const { return Code == TImageBackgroundCode::Done; }
  /// One line for the user, e.g. "pixel x = 3, y = 7 is not a finite number".
  std::string Text() const;
};

/// Sums that one share of lines contributes to the surface fit; shares are added with Add.
struct TImageBackgroundSums {
  double R[4][4] = {}; ///< sum over pixels of value * u^i * v^j (i, j: powers of the scaled x and y)
  void Add(const TImageBackgroundSums& other);
};

/// Fits and subtracts the background. Pixel indices are the coordinates, shifted to the centre of the image
/// and scaled to [-1, 1] in each direction, which keeps the normal equations well conditioned.
///
/// Use: Prepare once; for Surface, Accumulate every share of lines (threads may take disjoint shares, each
/// with its own sums), add the sums, Solve; then Subtract every share. For Lines, Subtract alone does the
/// work line by line. After Prepare and Solve the object is read only, so threads may share it.
class TImageBackgroundSubtraction {
public:
  static constexpr int kMaximumOrder = 3;

  /// Checks the parameters and tabulates the powers of the scaled x. lineValid holds sizeY flags or is null
  /// (all lines valid); it is copied. Fails with BadParameters, or TooFewPixels when sizeX (both modes) or
  /// the number of valid lines (Surface) is at most the order.
  TImageBackgroundStatus Prepare(TImageBackgroundMode mode, int order, int sizeX, int sizeY,
                                 const bool* lineValid);

  /// Surface: adds the lines firstLine..lastLine (inclusive) of the image to sums. Stops at the first line
  /// holding a non-finite pixel and names the first such pixel of it.
  TImageBackgroundStatus Accumulate(const float* image, int firstLine, int lastLine,
                                    TImageBackgroundSums& sums) const;
  /// Surface: the coefficients from the sums of all valid lines.
  TImageBackgroundStatus Solve(const TImageBackgroundSums& sums);

  /// Writes in minus the background into out for the valid lines firstLine..lastLine; invalid lines are
  /// copied unchanged (nothing is done to them when out == in). in and out may be the same image.
  /// Lines: fits each line as it goes; a line with a non-finite pixel stops the work with NotFinite, the
  /// lines before it are written and that line and those after it are not.
  TImageBackgroundStatus Subtract(const float* in, float* out, int firstLine, int lastLine) const;

  /// All steps on one thread over the whole image.
  TImageBackgroundStatus Run(const float* in, float* out);

  /// The fitted background at pixel (x, y) in double precision (Surface after Solve only).
  double Background(int x, int y) const;

  TImageBackgroundMode Mode() const { return FMode; }
  int Order() const { return FOrder; }
  int SizeX() const { return FSizeX; }
  int SizeY() const { return FSizeY; }
  bool IsLineValid(int y) const { return FLineValid[y] != 0; }

private:
  double ScaledY(int y) const { return (y - FCentreY) * FScaleY; }
  /// Coefficients of the powers of the scaled x on line y, from the surface coefficients.
  void LineCoefficients(int y, float* c) const;
  /// Sums of value * u^i over one line; false when the line holds a non-finite pixel.
  bool LineSums(const float* line, double* t) const;
  void SubtractLine(const float* in, float* out, const float* c) const;
  static TImageBackgroundStatus NotFiniteAt(const float* line, int sizeX, int y);

  TImageBackgroundMode FMode = TImageBackgroundMode::Surface;
  int FOrder = 0, FSizeX = 0, FSizeY = 0, FValidLines = 0;
  bool FPrepared = false, FSolved = false;
  std::vector<char> FLineValid;
  double FCentreX = 0, FScaleX = 1, FCentreY = 0, FScaleY = 1;
  std::vector<float> FPowers;      ///< u^i at every column, row i at i * sizeX, i = 1..order (row 0 unused)
  double FCoefficients[4][4] = {}; ///< Surface: a_ij of u^i v^j
  std::vector<double> FLineLU;     ///< Lines: LU of the normal matrix of the powers of u
  std::vector<int> FLineIndex;
};

/// Convenience: Prepare and Run on one thread.
TImageBackgroundStatus SubtractImageBackground(const float* in, float* out, const bool* lineValid, int sizeX,
                                               int sizeY, TImageBackgroundMode mode, int order);
