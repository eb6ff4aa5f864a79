#include "common/numerics/Graphfilterlines.h"

#include "common/OrvexException.h"
#include "common/numerics/Wavelets.h"

#include <string>

int TGraphFilterSettings::LineReach() const {
  if (Mode == TGraphFilterMode::Average) return AverageSpatial;
  if (Mode == TGraphFilterMode::Median) return MedianSpatial;
  return 0;
}

TGraphFilterLines::TGraphFilterLines(const TGraphFilterSettings& settings, int sizeX, int sizeY, int length)
    : FSettings(settings), FLength(length), FRing(sizeX, sizeY, length, std::max(0, settings.LineReach())) {
  switch (settings.Mode) {
  case TGraphFilterMode::SpikeRemoval:
    FSpikes = std::make_unique<TSpikeRemoval>(length, settings.Spikes);
    break;
  case TGraphFilterMode::SavitzkyGolay:
    FGolay = std::make_unique<TGolayFilter>(settings.GolayLeft, settings.GolayRight, settings.GolayDerivative,
                                            settings.GolayOrder);
    break;
  case TGraphFilterMode::WaveletNoise:
    FWavelet = std::make_unique<TWaveletNoiseFilter>(length, TWaveletKind::Symlet16Taps,
                                                     settings.WaveletNoiseFactor);
    break;
  case TGraphFilterMode::Average:
    FNeighbourhood = std::make_unique<TSpectrumNeighbourhoodFilter>(
        TNeighbourhoodFilterKind::BinomialAverage, length, settings.AverageSpectral, settings.AverageSpatial);
    break;
  case TGraphFilterMode::Median:
    FNeighbourhood = std::make_unique<TSpectrumNeighbourhoodFilter>(
        TNeighbourhoodFilterKind::Median, length, settings.MedianSpectral, settings.MedianSpatial);
    break;
  default:
    throw OrvexException("TGraphFilterLines::TGraphFilterLines: unknown mode " +
                         std::to_string(static_cast<int>(settings.Mode)));
  }
  FResult.resize(static_cast<size_t>(sizeX) * length);
}

TGraphFilterLines::~TGraphFilterLines() = default;

void TGraphFilterLines::FilterSpectrum(int x, int y, float* out) {
  const float* in = FRing.HeldSpectrum(x, y);
  switch (FSettings.Mode) {
  case TGraphFilterMode::SpikeRemoval: {
    int first = 0, second = 0;
    const bool median = FSettings.Spikes.Interpolation == TSpikeInterpolation::NeighborSpectraMedian &&
                        SpikeNeighbourPixels(x, FRing.SizeX(), first, second);
    FSpikes->Filter(in, out, median ? FRing.HeldSpectrum(first, y) : nullptr,
                    median ? FRing.HeldSpectrum(second, y) : nullptr);
    break;
  }
  case TGraphFilterMode::SavitzkyGolay:
    FGolay->FaltungWithMirrorPeriodicInterval(in, out, FLength);
    break;
  case TGraphFilterMode::WaveletNoise:
    FWavelet->DoFilter(in, out);
    break;
  default:
    FNeighbourhood->Filter(FRing, x, y, out);
  }
}

bool TGraphFilterLines::FilterLines(int first, int last, const TSpectrumLineRing::TLineReader& read,
                                    const TLineWriter& write) {
  for (int y = std::max(0, first); y <= std::min(last, FRing.SizeY() - 1); ++y) {
    FRing.Advance(y, read);
    for (int x = 0; x < FRing.SizeX(); ++x)
      FilterSpectrum(x, y, FResult.data() + static_cast<size_t>(x) * FLength);
    if (!write(y, FResult.data())) return false;
  }
  return true;
}
