#include "common/numerics/Peakfind.h"

#include "common/OrvexException.h"
#include "common/Tagcontrol.h"
#include "common/numerics/Numerics.h"
#include "common/numerics/Savgol.h"
#include "common/numerics/Wavelets.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace {

// Wavelet smoothing works on spectra of at least this many points.
constexpr int kMinimumWaveletLength = 16;
// Below this the search gives up: the stencils need three points on each side.
constexpr int kMinimumPeakFindLength = 6;
constexpr double kTiny = 1e-15;

} // namespace

// ---------------------------------------------------------------------------------------------
// Settings

void TPeakFindControlStruct::Init() {
  CalculatePositivePeaks = true;
  CalculateNegativePeaks = false;
  MinPeakValueLimit = MaxPeakValueLimit = MinRelativePeakValueLimit = MaxRelativePeakValueLimit = 0;
  MinFWHMLimit = MaxFWHMLimit = MinAsymmetryLimit = MaxAsymmetryLimit = 0;
  UseMinPeakValueLimit = UseMaxPeakValueLimit = UseMinRelativePeakValueLimit = UseMaxRelativePeakValueLimit =
      false;
  UseMinFWHMLimit = UseMaxFWHMLimit = UseMinAsymmetryLimit = UseMaxAsymmetryLimit = false;
  SmoothLeftPoints = 6;
  SmoothRightPoints = 6;
  SmoothOrder = 4;
  WaveletNoiseFactor = 0.5;
  SmoothKind = 2;
  DerivativeKind = 1;
}

TTagError TPeakFindControlStruct::SaveToTagFile(TFileHandle file) const {
  TTagControl t;
  TTagError e;
  if ((e = t.SaveBoolTag(file, "CalculatePositivePeaks", CalculatePositivePeaks)) < 1) return e;
  if ((e = t.SaveBoolTag(file, "CalculateNegativePeaks", CalculateNegativePeaks)) < 1) return e;
  if ((e = t.SaveBoolTag(file, "UseMinPeakValueLimit", UseMinPeakValueLimit)) < 1) return e;
  if ((e = t.SaveBoolTag(file, "UseMaxPeakValueLimit", UseMaxPeakValueLimit)) < 1) return e;
  if ((e = t.SaveBoolTag(file, "UseMinRelativePeakValueLimit", UseMinRelativePeakValueLimit)) < 1) return e;
  if ((e = t.SaveDoubleTag(file, "MinPeakValueLimit", MinPeakValueLimit)) < 1) return e;
  if ((e = t.SaveDoubleTag(file, "MaxPeakValueLimit", MaxPeakValueLimit)) < 1) return e;
  return t.SaveDoubleTag(file, "MinRelativePeakValueLimit", MinRelativePeakValueLimit);
}

TTagError TPeakFindControlStruct::LoadFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagControl t;
  t.LoadOrDefaultBoolTag(file, "CalculatePositivePeaks", parent, &CalculatePositivePeaks, 1,
                         CalculatePositivePeaks);
  t.LoadOrDefaultBoolTag(file, "CalculateNegativePeaks", parent, &CalculateNegativePeaks, 1,
                         CalculateNegativePeaks);
  t.LoadOrDefaultBoolTag(file, "UseMinPeakValueLimit", parent, &UseMinPeakValueLimit, 1,
                         UseMinPeakValueLimit);
  t.LoadOrDefaultBoolTag(file, "UseMaxPeakValueLimit", parent, &UseMaxPeakValueLimit, 1,
                         UseMaxPeakValueLimit);
  t.LoadOrDefaultBoolTag(file, "UseMinRelativePeakValueLimit", parent, &UseMinRelativePeakValueLimit, 1,
                         UseMinRelativePeakValueLimit);
  t.LoadOrDefaultDoubleTag(file, "MinPeakValueLimit", parent, &MinPeakValueLimit, 1, MinPeakValueLimit);
  t.LoadOrDefaultDoubleTag(file, "MaxPeakValueLimit", parent, &MaxPeakValueLimit, 1, MaxPeakValueLimit);
  t.LoadOrDefaultDoubleTag(file, "MinRelativePeakValueLimit", parent, &MinRelativePeakValueLimit, 1,
                           MinRelativePeakValueLimit);
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// Peak information

TTagError TPeakInformation::SaveToTagFile(TFileHandle file) const {
  TTagControl t;
  TTagError e;
  if ((e = t.SaveBoolTag(file, "IsCustomPeak", IsCustomPeak)) < 1) return e;
  if ((e = t.SaveDoubleTag(file, "PeakPixelPosition", PeakPixelPosition)) < 1) return e;
  if ((e = t.SaveDoubleTag(file, "PeakXPosition", PeakXPosition)) < 1) return e;
  if ((e = t.SaveDoubleTag(file, "OriginalPeakAbsoluteHeight", OriginalPeakAbsoluteHeight)) < 1) return e;
  if ((e = t.SaveDoubleTag(file, "SmoothedPeakAbsoluteHeight", SmoothedPeakAbsoluteHeight)) < 1) return e;
  if ((e = t.SaveDoubleTag(file, "PeakFWHM", PeakFWHM)) < 1) return e;
  if ((e = t.SaveDoubleTag(file, "PeakRelativeHeight", PeakRelativeHeight)) < 1) return e;
  if ((e = t.SaveDoubleTag(file, "FWHMAsymmetryFactor", FWHMAsymmetryFactor)) < 1) return e;
  return t.SaveBoolTag(file, "IsNegativePeak", IsNegativePeak);
}

TTagError TPeakInformation::LoadFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagControl t;
  t.LoadOrDefaultBoolTag(file, "IsCustomPeak", parent, &IsCustomPeak, 1, false);
  t.LoadOrDefaultDoubleTag(file, "PeakPixelPosition", parent, &PeakPixelPosition, 1, 0);
  t.LoadOrDefaultDoubleTag(file, "PeakXPosition", parent, &PeakXPosition, 1, 0);
  t.LoadOrDefaultDoubleTag(file, "OriginalPeakAbsoluteHeight", parent, &OriginalPeakAbsoluteHeight, 1, 0);
  t.LoadOrDefaultDoubleTag(file, "SmoothedPeakAbsoluteHeight", parent, &SmoothedPeakAbsoluteHeight, 1, 0);
  t.LoadOrDefaultDoubleTag(file, "PeakFWHM", parent, &PeakFWHM, 1, 0);
  t.LoadOrDefaultDoubleTag(file, "PeakRelativeHeight", parent, &PeakRelativeHeight, 1, 0);
  t.LoadOrDefaultDoubleTag(file, "FWHMAsymmetryFactor", parent, &FWHMAsymmetryFactor, 1, 0);
  t.LoadOrDefaultBoolTag(file, "IsNegativePeak", parent, &IsNegativePeak, 1, false);
  return teNoError;
}

int TPeakInformationImage::CopyPeakInformationList(const TPeakInformationList& list) {
  FLists.push_back(list);
  return static_cast<int>(FLists.size()) - 1;
}

void TPeakInformationImage::SetPeakInformationList(int index, const TPeakInformationList& list) {
  if (index < 0 || index >= NumberOfLists())
    throw OrvexException("TPeakInformationImage::SetPeakInformationList: index " + std::to_string(index) +
                         " outside 0.." + std::to_string(NumberOfLists() - 1));
  FLists[index] = list;
}

const TPeakInformationList& TPeakInformationImage::PeakInformationList(int index) const {
  if (index < 0 || index >= NumberOfLists())
    throw OrvexException("TPeakInformationImage::PeakInformationList: index " + std::to_string(index) +
                         " outside 0.." + std::to_string(NumberOfLists() - 1));
  return FLists[index];
}

// ---------------------------------------------------------------------------------------------
// The search

TPeakFindCalculate::TPeakFindCalculate() = default;
TPeakFindCalculate::~TPeakFindCalculate() = default;

void TPeakFindCalculate::CleanUp() {
  FPrepared = false;
  FLength = 0;
  FPeaks.clear();
  FSmoothed.clear();
  FFirstDerivative.clear();
  FSecondDerivative.clear();
  FMask.reset();
  FSmoothKernel.clear();
  FFirstDerivativeKernel.clear();
  FSecondDerivativeKernel.clear();
  FWaveletFilter.reset();
  for (auto* s :
       {&FOriginalSpline, &FSmoothedSpline, &FFirstDerivativeSpline, &FSecondDerivativeSpline, &FXSpline})
    s->DeleteArrays();
}

void TPeakFindCalculate::CreateArrays() {
  FSmoothed.assign(FLength, 0.0f);
  FFirstDerivative.assign(FLength, 0.0f);
  FSecondDerivative.assign(FLength, 0.0f);
  FMask = std::make_unique<bool[]>(FLength);
  for (auto* s :
       {&FOriginalSpline, &FSmoothedSpline, &FFirstDerivativeSpline, &FSecondDerivativeSpline, &FXSpline})
    s->CreateArrays(FLength);
}

void TPeakFindCalculate::Postpare() {
  CleanUp();
}

bool TPeakFindCalculate::Prepare(const TPeakFindControlStruct* control, int length, const float* x,
                                 const bool* mask) {
  CleanUp();
  if (control == nullptr || length < 1) return false;
  FLength = length;
  CreateArrays();
  FControl.Assign(*control);
  if (FControl.SmoothKind == 2 && FLength < kMinimumWaveletLength) {
    FControl.SmoothKind = 1;
    if (FControl.DerivativeKind == 1) FControl.DerivativeKind = 0;
  }
  if (FControl.SmoothKind == 2) {
    try {
      FWaveletFilter = std::make_unique<TWaveletNoiseFilter>(FLength, TWaveletKind::Symlet16Taps,
                                                             FControl.WaveletNoiseFactor);
    } catch (const OrvexException&) {
      return false; // a negative or non-finite noise factor
    }
  }
  const int nl = FControl.SmoothLeftPoints, nr = FControl.SmoothRightPoints, order = FControl.SmoothOrder;
  const bool golay = FControl.SmoothKind == 1 || FControl.DerivativeKind == 0;
  if (golay) {
    if (nl < 0 || nr < 0 || order < 0) return false;
    if (FControl.SmoothKind == 1) {
      FSmoothKernel.assign(nl + nr + 1, 0.0);
      if (!SavgolKernel(FSmoothKernel.data(), nl, nr, 0, order)) return false;
    }
    if (FControl.DerivativeKind == 0) {
      FFirstDerivativeKernel.assign(nl + nr + 1, 0.0);
      FSecondDerivativeKernel.assign(nl + nr + 1, 0.0);
      if (!SavgolKernel(FFirstDerivativeKernel.data(), nl, nr, 1, order)) return false;
      if (!SavgolKernel(FSecondDerivativeKernel.data(), nl, nr, 2, order)) return false;
      // The kernel gives the polynomial's coefficient; the second derivative is twice that.
      for (double& c : FSecondDerivativeKernel) c *= 2.0;
    }
  }
  for (int i = 0; i < FLength; ++i) FMask[i] = mask ? mask[i] : true;
  for (auto* s :
       {&FOriginalSpline, &FSmoothedSpline, &FFirstDerivativeSpline, &FSecondDerivativeSpline, &FXSpline})
    for (int i = 0; i < FLength; ++i) s->X[i] = i;
  for (int i = 0; i < FLength; ++i) FXSpline.Y[i] = x ? x[i] : static_cast<double>(i);
  FXSpline.CalculateSpline();
  FPrepared = true;
  return true;
}

void TPeakFindCalculate::Smooth(const float* y) {
  const int n = FLength;
  switch (FControl.SmoothKind) {
  case 1: {
    const int nl = FControl.SmoothLeftPoints, nr = FControl.SmoothRightPoints;
    for (int i = 0; i < n; ++i) {
      double s = 0;
      for (int k = -nl; k <= nr; ++k)
        s += FSmoothKernel[k + nl] * y[ConvertIndexToMirrorPeriodicInterval(i + k, n)];
      FSmoothed[i] = static_cast<float>(s);
    }
    break;
  }
  case 2:
    FWaveletFilter->DoFilter(y, FSmoothed.data());
    break;
  default:
    std::copy(y, y + n, FSmoothed.begin());
  }
}

void TPeakFindCalculate::Derivatives(const float* y) {
  const int n = FLength;
  std::fill(FFirstDerivative.begin(), FFirstDerivative.end(), 0.0f);
  std::fill(FSecondDerivative.begin(), FSecondDerivative.end(), 0.0f);
  if (FControl.DerivativeKind == 0) {
    // On the data, not the smoothed data; only where the whole window lies inside the spectrum.
    const int nl = FControl.SmoothLeftPoints, nr = FControl.SmoothRightPoints;
    for (int i = nl; i < n - nr; ++i) {
      double d1 = 0, d2 = 0;
      for (int k = -nl; k <= nr; ++k) {
        d1 += FFirstDerivativeKernel[k + nl] * y[i + k];
        d2 += FSecondDerivativeKernel[k + nl] * y[i + k];
      }
      FFirstDerivative[i] = static_cast<float>(d1);
      FSecondDerivative[i] = static_cast<float>(d2);
    }
    return;
  }
  const float* s = FSmoothed.data();
  for (int i = 3; i <= n - 4; ++i) {
    // The outer difference enters with 12 and with -5: both weights act on it.
    FFirstDerivative[i] =
        (12.0f * (s[i + 2] - s[i - 2]) + 39.0f * (s[i + 1] - s[i - 1]) - 5.0f * (s[i + 2] - s[i - 2])) *
        0.010416667f;
    FSecondDerivative[i] =
        (s[i + 3] + s[i - 3] + 2.0f * (s[i + 2] + s[i - 2]) - (s[i + 1] + s[i - 1]) - 4.0f * s[i]) * 0.0625f;
  }
}

bool TPeakFindCalculate::FindPeaks(const float* y) {
  FPeaks.clear();
  if (y == nullptr || !FPrepared || FLength < kMinimumPeakFindLength) return false;
  Smooth(y);
  Derivatives(y);
  for (int i = 0; i < FLength; ++i) {
    FOriginalSpline.Y[i] = y[i];
    FSmoothedSpline.Y[i] = FSmoothed[i];
    FFirstDerivativeSpline.Y[i] = FFirstDerivative[i];
    FSecondDerivativeSpline.Y[i] = FSecondDerivative[i];
  }
  for (auto* s : {&FOriginalSpline, &FSmoothedSpline, &FFirstDerivativeSpline, &FSecondDerivativeSpline})
    s->CalculateSpline();
  for (int i = 1; i <= FLength - 2; ++i)
    if (FMask[i]) FindPeakAtPosition(i);
  return true;
}

void TPeakFindCalculate::FindPeakAtPosition(int i) {
  if (FControl.CalculatePositivePeaks) FindPositivePeakAtPosition(i);
  if (FControl.CalculateNegativePeaks) FindNegativePeakAtPosition(i);
}

bool TPeakFindCalculate::FindPositivePeakAtPosition(int i) {
  if (i < 1 || i >= FLength - 1) return false;
  const std::vector<float>& d1 = FFirstDerivative;
  const std::vector<float>& d2 = FSecondDerivative;
  if (!(d1[i - 1] > 0 && d1[i] <= 0)) return false;
  if (d1[i] == 0 && !(d1[i + 1] < 0)) return false; // a flat shoulder, not a top
  if (!(d2[i - 1] < 0 && d2[i] < 0)) return false;
  const TPeakInformation info = Characterise(i, +1);
  if (!CheckIsPositivePeak(info)) return false;
  FPeaks.push_back(info);
  return true;
}

bool TPeakFindCalculate::FindNegativePeakAtPosition(int i) {
  if (i < 1 || i >= FLength - 1) return false;
  const std::vector<float>& d1 = FFirstDerivative;
  const std::vector<float>& d2 = FSecondDerivative;
  if (!(d1[i - 1] < 0 && d1[i] >= 0)) return false;
  if (d1[i] == 0 && !(d1[i + 1] > 0)) return false;
  if (!(d2[i - 1] > 0 && d2[i] > 0)) return false;
  const TPeakInformation info = Characterise(i, -1);
  if (!CheckIsNegativePeak(info)) return false;
  FPeaks.push_back(info);
  return true;
}

TPeakInformation TPeakFindCalculate::Characterise(int i, int sign) const {
  const std::vector<float>& d1 = FFirstDerivative;
  const std::vector<float>& d2 = FSecondDerivative;
  const int n = FLength;
  // d2 keeps the sign of the peak's curvature (negative for a positive peak) between the inflections.
  auto curved = [&](int j) { return sign > 0 ? d2[j] < 0 : d2[j] > 0; };

  double p;
  if (d1[i] == 0) {
    p = i;
  } else {
    const double d = static_cast<double>(d1[i - 1]) - d1[i];
    p = std::fabs(d) >= kTiny ? i + d1[i] / d : i - 0.5;
  }
  TPeakInformation info;
  info.IsNegativePeak = sign < 0;
  info.PeakPixelPosition = p;
  const double h = FSmoothedSpline.CubicSplineInterpolation(p);
  info.SmoothedPeakAbsoluteHeight = h;
  info.OriginalPeakAbsoluteHeight = FOriginalSpline.CubicSplineInterpolation(p);
  info.PeakXPosition = FXSpline.CubicSplineInterpolation(p);

  int j = i - 1;
  while (j > 0 && curved(j)) --j;
  double left;
  if (d2[j] == 0) {
    left = j;
  } else {
    const double d = static_cast<double>(d2[j]) - d2[j + 1];
    left = std::fabs(d) >= kTiny ? j + d2[j] / d : j + 0.5;
  }
  j = i;
  while (j < n - 1 && curved(j)) ++j;
  double right;
  if (d2[j] == 0) {
    right = j;
  } else {
    const double d = static_cast<double>(d2[j - 1]) - d2[j];
    right = std::fabs(d) >= kTiny ? (j - 1) + d2[j - 1] / d : j - 0.5;
  }

  // The inflection points of a Gaussian lie one standard deviation either side of its centre, and its
  // FWHM is sqrt(8 ln 2) standard deviations.
  const double g = std::sqrt(8.0 * std::log(2.0));
  const double wl = g * (p - left), wr = g * (right - p);
  info.PeakFWHM =
      g / 2 * std::fabs(FXSpline.CubicSplineInterpolation(left) - FXSpline.CubicSplineInterpolation(right));
  info.PeakRelativeHeight = ((h - FSmoothedSpline.CubicSplineInterpolation(p - wl / 2)) * 2 +
                             (h - FSmoothedSpline.CubicSplineInterpolation(p + wr / 2)) * 2) /
                            2;
  info.FWHMAsymmetryFactor = std::fabs(wr) <= kTiny ? 0.0 : wl / std::fabs(wr);
  return info;
}

bool TPeakFindCalculate::CheckIsPositivePeak(const TPeakInformation& info) const {
  const TPeakFindControlStruct& c = FControl;
  if (c.UseMinPeakValueLimit && info.SmoothedPeakAbsoluteHeight < c.MinPeakValueLimit) return false;
  if (c.UseMaxPeakValueLimit && info.SmoothedPeakAbsoluteHeight > c.MaxPeakValueLimit) return false;
  if (c.UseMinRelativePeakValueLimit && std::fabs(info.PeakRelativeHeight) < c.MinRelativePeakValueLimit)
    return false;
  if (c.UseMaxRelativePeakValueLimit && std::fabs(info.PeakRelativeHeight) > c.MaxRelativePeakValueLimit)
    return false;
  if (c.UseMinFWHMLimit && info.PeakFWHM < c.MinFWHMLimit) return false;
  if (c.UseMaxFWHMLimit && info.PeakFWHM > c.MaxFWHMLimit) return false;
  if (c.UseMinAsymmetryLimit && info.FWHMAsymmetryFactor < c.MinAsymmetryLimit) return false;
  if (c.UseMaxAsymmetryLimit && info.FWHMAsymmetryFactor > c.MaxAsymmetryLimit) return false;
  return true;
}

bool TPeakFindCalculate::CheckIsNegativePeak(const TPeakInformation& info) const {
  // The same tests on the same fields: a negative peak's limits are given as for positive ones.
  return CheckIsPositivePeak(info);
}

bool TPeakFindCalculate::CheckPeakInformationList(const TPeakInformationList& list, double tolerance,
                                                  double position) {
  return std::any_of(list.begin(), list.end(), [&](const TPeakInformation& info) {
    return info.PeakPixelPosition >= position - tolerance && info.PeakPixelPosition <= position + tolerance;
  });
}

bool TPeakFindCalculate::CheckPeakInformationListByReferencePI(const TPeakInformationList& list,
                                                               double tolerance,
                                                               const TPeakInformation& reference) {
  return CheckPeakInformationList(list, tolerance, reference.PeakPixelPosition);
}
