// The five spectrum-to-spectrum filters of a stack behind one interface that works line by line: a thread
// gets a block of lines, reads each line it needs once into its ring and writes each result line.
#pragma once

#include "common/numerics/Golayfilter.h"
#include "common/numerics/Spectrumfilters.h"

#include <functional>
#include <memory>

class TWaveletNoiseFilter;

/// The filter, in the order of the tool's pages.
enum class TGraphFilterMode : int {
  SpikeRemoval = 0,
  SavitzkyGolay = 1,
  WaveletNoise = 2,
  Average = 3,
  Median = 4
};

/// Everything one run needs, with the tool's defaults.
struct TGraphFilterSettings {
  TGraphFilterMode Mode = TGraphFilterMode::SpikeRemoval;
  TSpikeRemovalSettings Spikes;
  int GolayLeft = 5, GolayRight = 5, GolayOrder = 4, GolayDerivative = 0;
  double WaveletNoiseFactor = 0.5;
  int AverageSpectral = 1, AverageSpatial = 0;
  int MedianSpectral = 1, MedianSpatial = 0;

  /// Lines above and below a line that its results read: the spatial half size of the average and median,
  /// else 0 (the spike repair's neighbour spectra lie in the same line).
  int LineReach() const;
};

/// One thread's filter for a stack of sizeX x sizeY spectra of length values. Raises OrvexException for
/// settings the filters refuse (a Savitzky-Golay window that does not determine its polynomial, negative
/// sizes) and OrvexExceptionWavelet for spectra too short for the wavelet noise filter.
class TGraphFilterLines {
public:
  using TLineWriter = std::function<bool(int line, const float* result)>;

  TGraphFilterLines(const TGraphFilterSettings& settings, int sizeX, int sizeY, int length);
  ~TGraphFilterLines();
  TGraphFilterLines(const TGraphFilterLines&) = delete;
  TGraphFilterLines& operator=(const TGraphFilterLines&) = delete;

  /// Filters lines first..last (clipped to the stack): each line needed is read once through read (which
  /// returns the line's validity), each result line of sizeX spectra goes to write, which returns false to
  /// stop (a cancel). Returns false when stopped. Spectra on invalid lines are filtered all the same; their
  /// lines are not used as neighbours.
  bool FilterLines(int first, int last, const TSpectrumLineRing::TLineReader& read, const TLineWriter& write);

  const TGraphFilterSettings& Settings() const { return FSettings; }

private:
  void FilterSpectrum(int x, int y, float* out);

  TGraphFilterSettings FSettings;
  int FLength;
  TSpectrumLineRing FRing;
  std::unique_ptr<TSpikeRemoval> FSpikes;
  std::unique_ptr<TGolayFilter> FGolay;
  std::unique_ptr<TWaveletNoiseFilter> FWavelet;
  std::unique_ptr<TSpectrumNeighbourhoodFilter> FNeighbourhood;
  std::vector<float> FResult;
};
