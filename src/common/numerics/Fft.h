// Discrete Fourier transforms of complex double data of any length: mixed radix where the length factors
// into small primes, chirp-z (Bluestein) over a power-of-two transform otherwise, so every length costs
// O(n log n). Forward transforms are unnormalised, inverse ones are scaled by 1/n; real-input pairs serve
// spectra, and a 2-D transform works rows then columns.
#pragma once

#include <complex>
#include <cstddef>
#include <memory>
#include <vector>

using TComplex = std::complex<double>;

class TFFTPlan;

/// The shared, immutable plan of one length (factors and twiddles), from a process-wide cache. Making a
/// plan takes no lock; only the look-up and insertion into the cache are guarded, so threads asking for
/// different lengths do not wait for each other's set-up. Plans stay cached until the process ends (a few
/// complex values per point of each length asked for). Throws OrvexException for n below 1.
std::shared_ptr<const TFFTPlan> GetFFTPlan(int n);
/// Number of lengths the cache holds (complex plans only).
std::size_t FFTPlanCacheSize();

/// One-dimensional complex transform of a fixed length. The object owns its scratch and refers to the
/// shared plan: use one object per thread; objects of the same length on different threads share the plan.
class TFFT {
public:
  /// Gets the plan of length n and allocates scratch for it.
  explicit TFFT(int n);
  int Length() const { return FLength; }

  /// X[k] = sum_j x[j] exp(-2 pi i j k / n), in place, unnormalised.
  void Forward(TComplex* data);
  /// x[j] = 1/n sum_k X[k] exp(+2 pi i j k / n), in place.
  void Inverse(TComplex* data);
  /// The inverse without the factor 1/n.
  void InverseUnscaled(TComplex* data);

private:
  int FLength;
  std::shared_ptr<const TFFTPlan> FPlan;
  std::vector<TComplex> FScratch;
};

/// Transform of real input of length n: n/2 + 1 complex values (the rest follows by conjugate symmetry),
/// and back. An even length runs as a complex transform of half the length. One object per thread.
class TRealFFT {
public:
  explicit TRealFFT(int n);
  int Length() const { return FLength; }
  /// Number of complex values of the half spectrum: n/2 + 1.
  int SpectrumLength() const { return FLength / 2 + 1; }

  /// out[k] = sum_j in[j] exp(-2 pi i j k / n) for k = 0 .. n/2.
  void Forward(const double* in, TComplex* out);
  /// The real signal whose half spectrum is in (scaled by 1/n). The imaginary parts of in[0] and, for even
  /// n, of in[n/2] do not take part, as for any real signal they are zero.
  void Inverse(const TComplex* in, double* out);

private:
  int FLength;
  int FHalf; // n/2 for even n, 0 for odd n
  std::shared_ptr<const TFFTPlan> FPlan;
  std::vector<TComplex> FTwiddle; // exp(-2 pi i k / n), k = 0 .. n/2 (even n)
  std::vector<TComplex> FWork;
  std::vector<TComplex> FScratch;
};

/// Two-dimensional transform of rows x cols values, row-major (a row holds cols contiguous values): every
/// row is transformed, then every column. One object per thread.
class TFFT2D {
public:
  TFFT2D(int rows, int cols);
  int Rows() const { return FRows; }
  int Cols() const { return FCols; }

  void Forward(TComplex* data);
  /// Scaled by 1/(rows cols).
  void Inverse(TComplex* data);

private:
  void Run(TComplex* data, bool inverse);
  int FRows, FCols;
  TFFT FRowFFT, FColFFT;
  std::vector<TComplex> FColumn;
};

/// The plan of one length. Immutable once made; Execute may run on any number of threads at once, each
/// with its own scratch of ScratchSize() values.
class TFFTPlan {
public:
  explicit TFFTPlan(int n);
  TFFTPlan(const TFFTPlan&) = delete;
  TFFTPlan& operator=(const TFFTPlan&) = delete;

  int Length() const { return FLength; }
  /// True when the length is done by chirp-z over a power-of-two transform.
  bool UsesChirpZ() const { return FSubPlan != nullptr; }
  /// The radices of the mixed-radix passes, in the order they run (empty for chirp-z and for n = 1).
  std::vector<int> Radices() const;
  /// Complex values of scratch that Execute needs.
  std::size_t ScratchSize() const { return FScratchSize; }

  /// Unnormalised transform in place: exponent sign - (forward) or + (inverse).
  void Execute(TComplex* data, TComplex* scratch, bool inverse) const;

private:
  struct TPass {
    int Radix;
    int Stride; // s: number of interleaved sub-sequences
    int Span;   // m: n / (s radix)
    std::size_t TwiddleOffset;
    std::size_t RootOffset; // radix-th roots of unity for the general odd radix
  };
  template <bool Inverse>
  void RunPasses(TComplex* data, TComplex* scratch) const;
  void ExecuteChirpZ(TComplex* data, TComplex* scratch, bool inverse) const;

  int FLength;
  std::size_t FScratchSize = 0;
  std::vector<TPass> FPasses;
  std::vector<TComplex> FTwiddles;
  std::vector<TComplex> FRoots;
  // Chirp-z: chirp w[j] = exp(-i pi j^2 / n), and the transform of the conjugate chirp, scaled by 1/m.
  std::shared_ptr<const TFFTPlan> FSubPlan;
  std::vector<TComplex> FChirp;
  std::vector<TComplex> FChirpSpectrum;
};
