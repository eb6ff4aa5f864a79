// Peak finding in spectra: peaks are the zero crossings of the first derivative where the second is
// negative (positive peaks) or positive (negative peaks), characterised by position, height, width and
// asymmetry through cubic splines over the pixel index of the data, its smoothed form, both derivatives
// and the x axis.
#pragma once

#include "common/Saveandload.h"
#include "common/numerics/Splines.h"

#include <memory>
#include <vector>

class TTagControl;
class TWaveletNoiseFilter;

/// The settings of a peak search.
class TPeakFindControlStruct {
public:
  TPeakFindControlStruct() { Init(); }
  /// The defaults: positive peaks only, every limit 0 and off, 6 + 6 points of order 4, noise factor 0.5,
  /// wavelet smoothing and the fixed derivative stencil.
  void Init();
  void Assign(const TPeakFindControlStruct& other) { *this = other; }
  /// Stores the kinds of peaks and the absolute and minimum relative height limits; the other limits and
  /// the smoothing settings are not stored.
  TTagError SaveToTagFile(TFileHandle file) const;
  /// Reads what SaveToTagFile wrote from the children of parent; missing tags keep their values.
  TTagError LoadFromTagFile(TFileHandle file, const TTagControl& parent);

  bool CalculatePositivePeaks = true;
  bool CalculateNegativePeaks = false;

  double MinPeakValueLimit = 0, MaxPeakValueLimit = 0;
  bool UseMinPeakValueLimit = false, UseMaxPeakValueLimit = false;
  double MinRelativePeakValueLimit = 0, MaxRelativePeakValueLimit = 0;
  bool UseMinRelativePeakValueLimit = false, UseMaxRelativePeakValueLimit = false;
  double MinFWHMLimit = 0, MaxFWHMLimit = 0;
  bool UseMinFWHMLimit = false, UseMaxFWHMLimit = false;
  double MinAsymmetryLimit = 0, MaxAsymmetryLimit = 0;
  bool UseMinAsymmetryLimit = false, UseMaxAsymmetryLimit = false;

  int SmoothLeftPoints = 6;
  int SmoothRightPoints = 6;
  int SmoothOrder = 4;
  double WaveletNoiseFactor = 0.5;
  /// 0 none, 1 Savitzky-Golay, 2 wavelet noise filter.
  int SmoothKind = 2;
  /// 0 Savitzky-Golay, 1 fixed stencil.
  int DerivativeKind = 1;
};

/// One peak of a spectrum.
struct TPeakInformation {
  bool IsCustomPeak = false;
  double PeakPixelPosition = 0;
  double PeakXPosition = 0;
  double OriginalPeakAbsoluteHeight = 0;
  double SmoothedPeakAbsoluteHeight = 0;
  double PeakFWHM = 0;
  double PeakRelativeHeight = 0;
  double FWHMAsymmetryFactor = 0;
  bool IsNegativePeak = false;

  /// One tag per field, named as the field.
  TTagError SaveToTagFile(TFileHandle file) const;
  TTagError LoadFromTagFile(TFileHandle file, const TTagControl& parent);
  bool operator==(const TPeakInformation&) const = default;
};

using TPeakInformationList = std::vector<TPeakInformation>;

/// The peak lists of a graph: one list per spectrum.
class TPeakInformationImage {
public:
  /// count empty lists.
  void SetNumberOfLists(int count) { FLists.assign(count, {}); }
  int NumberOfLists() const { return static_cast<int>(FLists.size()); }
  /// Appends a copy of list as the next spectrum's list; returns its index.
  int CopyPeakInformationList(const TPeakInformationList& list);
  /// Replaces the list of spectrum index with a copy of list (OrvexException outside the range).
  void SetPeakInformationList(int index, const TPeakInformationList& list);
  const TPeakInformationList& PeakInformationList(int index) const;
  void Clear() { FLists.clear(); }

private:
  std::vector<TPeakInformationList> FLists;
};

/// The peak search for spectra of one length and axis. Not shared between threads: one per thread.
class TPeakFindCalculate {
public:
  TPeakFindCalculate();
  ~TPeakFindCalculate();
  TPeakFindCalculate(const TPeakFindCalculate&) = delete;
  TPeakFindCalculate& operator=(const TPeakFindCalculate&) = delete;

  /// Takes a copy of control, the axis values x (null: the pixel numbers) and the mask of pixels that may
  /// be peaks (null: all). Wavelet smoothing needs 16 points: below that the smoothing falls back to
  /// Savitzky-Golay, and with it the fixed stencil falls back to the Savitzky-Golay derivative. False,
  /// and FindPeaks finds nothing, for a null control, a length below 1 or Savitzky-Golay settings that make
  /// no filter.
  bool Prepare(const TPeakFindControlStruct* control, int length, const float* x, const bool* mask);
  /// Fills the peak list from y. False for a null y, a length below 6 or no preparation; the list is
  /// then empty.
  bool FindPeaks(const float* y);
  const TPeakInformationList& GetPeakInformationList() const { return FPeaks; }
  /// Frees the arrays of Prepare.
  void Postpare();

  /// The settings in effect, after the fall-backs of Prepare.
  const TPeakFindControlStruct& Control() const { return FControl; }
  int Length() const { return FLength; }
  /// The arrays of the last FindPeaks.
  const std::vector<float>& SmoothedData() const { return FSmoothed; }
  const std::vector<float>& FirstDerivative() const { return FFirstDerivative; }
  const std::vector<float>& SecondDerivative() const { return FSecondDerivative; }

  /// True when any peak's pixel position lies within position +- tolerance, ends included.
  static bool CheckPeakInformationList(const TPeakInformationList& list, double tolerance, double position);
  static bool CheckPeakInformationListByReferencePI(const TPeakInformationList& list, double tolerance,
                                                    const TPeakInformation& reference);

  /// The limit tests, each only when switched on, in the order absolute height (min, max), |relative
  /// height| (min, max), FWHM (min, max), asymmetry (min, max); false at the first that fails.
  bool CheckIsPositivePeak(const TPeakInformation& info) const;
  bool CheckIsNegativePeak(const TPeakInformation& info) const;

private:
  void CleanUp();
  void CreateArrays();
  void Smooth(const float* y);
  void Derivatives(const float* y);
  void FindPeakAtPosition(int i);
  bool FindPositivePeakAtPosition(int i);
  bool FindNegativePeakAtPosition(int i);
  /// Position, heights, width and asymmetry of a peak at pixel i; sign +1 positive, -1 negative.
  TPeakInformation Characterise(int i, int sign) const;

  TPeakFindControlStruct FControl;
  int FLength = 0;
  bool FPrepared = false;
  TCubicSplineInterpolation FOriginalSpline, FSmoothedSpline, FFirstDerivativeSpline, FSecondDerivativeSpline,
      FXSpline;
  TPeakInformationList FPeaks;
  std::vector<float> FSmoothed, FFirstDerivative, FSecondDerivative;
  std::unique_ptr<bool[]> FMask;
  std::vector<double> FSmoothKernel, FFirstDerivativeKernel, FSecondDerivativeKernel;
  std::unique_ptr<TWaveletNoiseFilter> FWaveletFilter;
};
