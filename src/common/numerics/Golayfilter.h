// Savitzky-Golay smoothing and differentiation of spectra with a precomputed kernel.
#pragma once

#include <vector>

/// One Savitzky-Golay kernel: a window of nl points left and nr points right of each pixel, a local
/// polynomial of order m, derivative order ld. The kernel is made once by SetFilterOptions and then only
/// read, so one object may serve several threads. A derivative is the true derivative per pixel of the
/// local polynomial (ld! times its coefficient): derivative 2 of i^2 is 2 everywhere.
class TGolayFilter {
public:
  /// A smoothing kernel of 5 + 5 points and order 4 (the tool's defaults).
  TGolayFilter();
  /// Raises OrvexException when the options are refused (see AreFilterOptionsValid).
  TGolayFilter(int nl, int nr, int ld, int m);

  /// True for nl, nr, ld, m at least 0, nl + nr + 1 above m (the window determines the polynomial) and ld at
  /// most m.
  static bool AreFilterOptionsValid(int nl, int nr, int ld, int m);
  /// Recomputes the kernel. Refused options (or a singular design) return false and leave the filter as it
  /// was.
  bool SetFilterOptions(int nl, int nr, int ld, int m);

  int Left() const { return FLeft; }
  int Right() const { return FRight; }
  int Order() const { return FOrder; }
  int Derivative() const { return FDerivative; }
  int WindowLength() const { return FLeft + FRight + 1; }
  /// True when the window is shorter than a spectrum of n points, which the tool requires.
  bool FitsSpectrumLength(int n) const { return WindowLength() < n; }

  /// The weight of the value k pixels from the filtered one, k from -Left() to Right(); 0 outside.
  double GetSortedFilter(int k) const;
  const std::vector<double>& Kernel() const { return FKernel; }

  /// out[i] = sum over k of GetSortedFilter(k) in[i + k]; near the ends only the terms inside the array are
  /// summed (a shorter sum, not renormalised). in and out must not overlap. The float forms sum the pixels
  /// whose window lies inside the array in single precision on vector registers (the error bound of a sum of
  /// window-length float terms, a few units of the data's own rounding); the ends, and the double and integer
  /// forms, sum in double.
  void Faltung(const float* in, float* out, int n) const;
  void Faltung(const double* in, double* out, int n) const;
  void Faltung(const int* in, double* out, int n) const;
  /// The same sum with the spectrum continued mirrored at both ends (index k read at
  /// ConvertIndexToMirrorPeriodicInterval(k, n)), so every pixel gets the full window. in and out must not
  /// overlap.
  void FaltungWithMirrorPeriodicInterval(const float* in, float* out, int n) const;

private:
  int FLeft = 0, FRight = 0, FDerivative = 0, FOrder = 0;
  std::vector<double> FKernel; ///< weight of offset k at k + FLeft
  std::vector<float> FKernelFloat;
};
