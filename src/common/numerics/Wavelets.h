// Discrete wavelet transform over several iterations with orthonormal filter tables, weights on the
// detail coefficients, the reconstruction, and the wavelet noise filter built on them.
#pragma once

#include "common/OrvexException.h"

#include <memory>
#include <vector>

/// The filter tables: 0 Haar (2 taps); 1, 2, 3, 4 Daubechies with 8, 16, 32 and 4 taps; 5, 6, 7 least
/// asymmetric (Symlets) with 8, 16 and 32 taps.
enum class TWaveletKind : int {
  Haar = 0,
  Daubechies8Taps = 1,
  Daubechies16Taps = 2,
  Daubechies32Taps = 3,
  Daubechies4Taps = 4,
  Symlet8Taps = 5,
  Symlet16Taps = 6,
  Symlet32Taps = 7
};
constexpr int kNumberOfWaveletKinds = 8;

/// How the signal continues beyond its ends: 0 periodically, 1 mirrored about the half sample beyond the
/// end (x[-1] = x[0]), 2 with zeros.
enum class TWaveletBoundaryPolicy : int { Periodic = 0, Mirror = 1, Zero = 2 };

/// Which weights of a buffer info a call sets.
enum TWaveletBufferFlags : int { wbfDetails = 1, wbfApproximation = 2, wbfAll = 3 };

/// Raised when the data are too short for one iteration of the chosen filter.
class OrvexExceptionWavelet : public OrvexException {
public:
  using OrvexException::OrvexException;
  std::string ClassName() const override { return "Wavelet Exception"; }
  Exception* Clone() const override { return new OrvexExceptionWavelet(*this); }
};

/// A float array of fixed size: coefficients or weights of one iteration.
class TWaveletArray {
public:
  explicit TWaveletArray(int size);
  int Size() const { return static_cast<int>(FValues.size()); }
  float* Values() { return FValues.data(); }
  const float* Values() const { return FValues.data(); }
  float& operator[](int i) { return FValues[i]; }
  float operator[](int i) const { return FValues[i]; }
  /// Copies the values of other, which must have the same size (else OrvexException).
  void CopyValuesFrom(const TWaveletArray& other);
  std::unique_ptr<TWaveletArray> Clone() const;

private:
  std::vector<float> FValues;
};

/// The coefficients of one transform and the weights the reconstruction applies to them: per iteration
/// (0 the finest) the detail coefficients with one weight each, and the approximation of the last
/// iteration with its weights. Also the work space of the transform, so that one transformation serves
/// many threads, each with a buffer info of its own. Made by TWaveletTransformation::CreateBufferInfo with
/// all weights 1.
class TWaveletBufferInfo {
public:
  /// detailSizes[i]: number of coefficients of iteration i; dataSize: values of the signal.
  TWaveletBufferInfo(int dataSize, const std::vector<int>& detailSizes);

  int NumberOfIterations() const { return static_cast<int>(FDetails.size()); }
  int DataSize() const { return FDataSize; }
  TWaveletArray& Details(int iteration) { return FDetails.at(iteration); }
  const TWaveletArray& Details(int iteration) const { return FDetails.at(iteration); }
  TWaveletArray& DetailWeights(int iteration) { return FDetailWeights.at(iteration); }
  const TWaveletArray& DetailWeights(int iteration) const { return FDetailWeights.at(iteration); }
  TWaveletArray& Approximation() { return FApproximation; }
  const TWaveletArray& Approximation() const { return FApproximation; }
  TWaveletArray& ApproximationWeights() { return FApproximationWeights; }
  const TWaveletArray& ApproximationWeights() const { return FApproximationWeights; }

  /// Sets the weights of one iteration: its details (wbfDetails) and, for the last iteration only, the
  /// approximation (wbfApproximation). An iteration out of range raises OrvexException.
  void SetAllValuesOfIterationTo(int iteration, float value, int flags);
  /// Sets the weights of every iteration.
  void SetAllValuesTo(float value, int flags);
  /// True when other has the same layout and the same weights, so it reconstructs alike.
  bool SettingsAreEqualTo(const TWaveletBufferInfo& other) const;
  std::unique_ptr<TWaveletBufferInfo> Clone() const;

private:
  friend class TWaveletTransformation;
  int FDataSize;
  std::vector<TWaveletArray> FDetails, FDetailWeights;
  TWaveletArray FApproximation, FApproximationWeights;
  std::vector<double> FSignal, FNext, FExtended, FWork, FEven, FOdd; // work space of the transform
};

/// The discrete wavelet engine. Set the kind, policy, length and iterations, then CalculateArrays; after that
/// the object is read only and CalculateWT / CalculateReverseWT may run on several threads at once, each
/// with its own buffer info.
///
/// Iteration i turns a signal of s values into (s + L - 1) / 2 approximation and as many detail
/// coefficients (L the filter length): c[k] = sum_j h[j] x[2k + 1 + j - (L - 1)], with x continued beyond its
/// ends by the boundary policy, so that every coefficient touching the signal is kept and the
/// reconstruction is exact for every policy and length.
class TWaveletTransformation {
public:
  TWaveletTransformation() = default;

  void SetWaveletKind(TWaveletKind kind);
  /// Runs the filter table backwards (the mirror image of the wavelet).
  void SetInvertWaveletFilter(bool invert);
  void SetNumberOfDataValues(int count);
  /// 0 (the default) takes the largest possible number.
  void SetNumberOfIterations(int count);
  void SetWaveletBoundaryPolicy(TWaveletBoundaryPolicy policy);

  TWaveletKind WaveletKind() const { return FKind; }
  TWaveletBoundaryPolicy WaveletBoundaryPolicy() const { return FPolicy; }
  int NumberOfDataValues() const { return FDataSize; }
  /// The iterations CalculateArrays settled on.
  int NumberOfIterations() const { return static_cast<int>(FSizes.size()) - 1; }
  int FilterLength() const { return static_cast<int>(FLowPass.size()); }
  /// Analysis filters as applied (correlation form): low pass h, high pass g[k] = (-1)^k h[L-1-k].
  const std::vector<double>& LowPassFilter() const { return FLowPass; }
  const std::vector<double>& HighPassFilter() const { return FHighPass; }

  /// The published scaling filter of a kind (sum sqrt 2, sum of squares 1).
  static std::vector<double> CalculateWaveletFilter(TWaveletKind kind);
  /// Coefficients per iteration of a signal of size values: (size + filterLength - 1) / 2.
  static int GetDataSizeForMirrorPadding(int size, int filterLength);

  /// Largest number of iterations: the length steps through GetDataSizeForMirrorPadding while it still
  /// holds the filter. Raises OrvexExceptionWavelet when not even one iteration fits.
  int CalculateMaxIterations() const;
  /// Fixes filters and sizes from the settings. Raises OrvexExceptionWavelet for too short data and
  /// OrvexException for more iterations than fit.
  void CalculateArrays();
  /// A buffer info for the current layout, all weights 1.
  std::unique_ptr<TWaveletBufferInfo> CreateBufferInfo() const;

  /// Forward transform of NumberOfDataValues values into the coefficients of info.
  void CalculateWT(const float* data, TWaveletBufferInfo* info) const;
  /// Reconstruction from the coefficients of info, each multiplied by its weight, into data. With all
  /// weights 1 it gives back the transformed signal (to float precision).
  void CalculateReverseWT(float* data, TWaveletBufferInfo* info) const;
  /// Sets each detail weight to 0 when its coefficient's magnitude is below threshold and to 1 otherwise
  /// (hard thresholding); the approximation weights become 1.
  void CalculateWeightInWaveletBufferInfo(TWaveletBufferInfo* info, double threshold) const;

private:
  void CheckBufferInfo(const TWaveletBufferInfo* info, const char* operation) const;
  void Extend(const double* x, int size, double* extended) const;

  TWaveletKind FKind = TWaveletKind::Haar;
  TWaveletBoundaryPolicy FPolicy = TWaveletBoundaryPolicy::Periodic;
  bool FInvert = false;
  int FDataSize = 0;
  int FIterations = 0;
  bool FArraysCalculated = false;
  std::vector<double> FLowPass, FHighPass;
  std::vector<double> FPhaseTaps[8]; // the filters split by tap parity, as the filter loops read them
  std::vector<int> FSizes;           // FSizes[0] data values, FSizes[i + 1] coefficients of iteration i
};

/// Wavelet noise filter of spectra of one length: full decomposition with mirrored boundaries, noise level
/// sigma = median(|finest details|) / 0.6745, every detail below noiseFactor sigma sqrt(2 ln n) set to 0,
/// reconstruction. A noise factor of 0 returns the input. The object keeps its work space: one per thread.
class TWaveletNoiseFilter {
public:
  /// Raises OrvexExceptionWavelet when length is too short for the kind, OrvexException for a negative or
  /// non-finite noise factor.
  TWaveletNoiseFilter(int length, TWaveletKind kind, double noiseFactor);
  /// A filter of the same settings with its own work space, for another thread.
  std::unique_ptr<TWaveletNoiseFilter> Clone() const;
  int Length() const { return FTransformation.NumberOfDataValues(); }
  double NoiseFactor() const { return FNoiseFactor; }
  /// Filters length values of in into out; in and out may be the same array.
  void DoFilter(const float* in, float* out);
  /// The noise level sigma estimated by the last DoFilter (0 before any, and for a noise factor of 0).
  double LastNoiseLevel() const { return FLastNoiseLevel; }

private:
  TWaveletNoiseFilter(const TWaveletNoiseFilter& other);
  TWaveletTransformation FTransformation;
  std::unique_ptr<TWaveletBufferInfo> FInfo;
  std::vector<float> FMagnitudes;
  double FNoiseFactor;
  double FLastNoiseLevel = 0;
};
