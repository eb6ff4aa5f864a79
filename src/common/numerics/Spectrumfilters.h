// Filters that map a spectrum of a stack to a new spectrum: cosmic-ray spike removal, and binomial average
// and median over a window of channels and of neighbouring spectra. All work on caller-owned float arrays;
// the spatial filters read their neighbours from a ring of lines of spectra that the caller fills, so a
// stack is streamed line by line and never held whole.
#pragma once

#include <functional>
#include <memory>
#include <vector>

// ---------------------------------------------------------------------------------------------
// Cosmic-ray spikes

/// How spike points are replaced, by the tag value of the tool's list.
enum class TSpikeInterpolation : int {
  NeighborPixelsLinear = 0, ///< straight line between the good points around each run of spikes
  NeighborSpectraMedian = 1 ///< median of the channel in the spectrum and two neighbours of its line
};

struct TSpikeRemovalSettings {
  int FilterSize = 2;         ///< w: the detection window has 2w + 1 channels
  double DynamicFactor = 8.0; ///< a point is a spike when (y - min) / (window median - min) exceeds this
  TSpikeInterpolation Interpolation = TSpikeInterpolation::NeighborPixelsLinear;
};

/// The two spectra of the same line (x indices) whose channel values join the spike pixel's own in the
/// median: the left and right neighbours, or the two on the right at the left edge and the two on the left
/// at the right edge. False for lines narrower than 5 spectra, which are always repaired linearly.
bool SpikeNeighbourPixels(int x, int sizeX, int& first, int& second);

/// Spike detection and repair for spectra of one length; one object per thread.
class TSpikeRemoval {
public:
  /// Raises OrvexException for a length below 1, a filter size below 1 or a factor that is not finite.
  TSpikeRemoval(int length, const TSpikeRemovalSettings& settings);

  /// Marks spikes[i] for every spike point of y and returns their number. Each point is compared with a
  /// window of 2w + 1 channels (fewer in a shorter spectrum), centred on it where possible and shifted to
  /// stay inside the spectrum: r = (y[i] - s0) / (sw - s0) with s0 the window's smallest value and sw its
  /// value at sorted index w (divisor 1 when both are equal); a spike is r above the dynamic factor.
  int DetectSpikes(const float* y, bool* spikes);

  /// Writes y with its spikes repaired to out (which may be y) and returns the number of spike points.
  /// With the median setting and both neighbours given, each spike point takes the median of its value and
  /// the neighbours' values at that channel; otherwise runs of spikes are bridged linearly (see
  /// ReplaceSpikesLinear). Detection always reads y as given, so repeating the pass on the same input
  /// changes nothing: one pass is the final outcome.
  int Filter(const float* y, float* out, const float* neighbourA = nullptr,
             const float* neighbourB = nullptr);

  /// The spike marks of the last DetectSpikes or Filter.
  const bool* Spikes() const { return FSpikes.get(); }
  int Length() const { return FLength; }

private:
  int FLength;
  TSpikeRemovalSettings FSettings;
  std::unique_ptr<bool[]> FSpikes;
  std::vector<float> FWindow;
  std::vector<float> FCopy;
};

/// Replaces every run of marked points by the straight line from the last unmarked point before it to the
/// first one after it. A run at the start takes the first unmarked value, a run at the end the last one; if
/// every point is marked, all take y[0]. out may be y.
void ReplaceSpikesLinear(const float* y, const bool* spikes, float* out, int n);

// ---------------------------------------------------------------------------------------------
// Binomial average and median over neighbouring channels and spectra

enum class TNeighbourhoodFilterKind : int { BinomialAverage = 0, Median = 1 };

/// Row 2 size of Pascal's triangle divided by its sum: 2 size + 1 weights summing to 1.
std::vector<float> NormalisedBinomialWeights(int size);

class TSpectrumLineRing;

/// Filters one spectrum from a window of 2a + 1 channels and (2b + 1)^2 spectra around it (a the spectral,
/// b the spatial half size). Neighbours outside the image or on invalid lines, and channels beyond the
/// spectrum's ends, are left out:
/// - the binomial average weighs channel offset k and spectrum offset (dx, dy) by
///   w_a[k] w_b[dx] w_b[dy] (normalised binomial rows) and divides by the sum of the weights it used;
/// - the median takes all available values of the channel's window to STCalculateMedian (the mean of the
///   two middle values for an even count). The pixel's own value comes first, so that fewer than three
///   values (channel 0 with a = 1 and no spatial neighbour) give the pixel's own value.
/// One object per thread: it keeps its work space.
class TSpectrumNeighbourhoodFilter {
public:
  /// Raises OrvexException for a length below 1 or a negative size.
  TSpectrumNeighbourhoodFilter(TNeighbourhoodFilterKind kind, int length, int spectralSize, int spatialSize);

  TNeighbourhoodFilterKind Kind() const { return FKind; }
  int Length() const { return FLength; }
  int SpectralSize() const { return FSpectral; }
  int SpatialSize() const { return FSpatial; }
  /// (2b + 1)^2: the entries of the neighbour array of Filter.
  int NeighbourCount() const { return (2 * FSpatial + 1) * (2 * FSpatial + 1); }

  /// neighbours[(dy + b)(2b + 1) + dx + b] is the spectrum at offset (dx, dy), or null when it is not
  /// available; the centre entry must be given. out must not be one of the neighbours.
  void Filter(const float* const* neighbours, float* out);
  /// The spectral window alone, on one spectrum (spatial neighbours left out).
  void FilterSpectral(const float* y, float* out);
  /// Spectrum (x, y) from the lines held by ring, which must hold y - b .. y + b as far as they lie in the
  /// image (TSpectrumLineRing::Advance). The centre is used even on an invalid line.
  void Filter(const TSpectrumLineRing& ring, int x, int y, float* out);

private:
  void Average(const float* const* neighbours, float* out);
  void Median(const float* const* neighbours, float* out);

  TNeighbourhoodFilterKind FKind;
  int FLength, FSpectral, FSpatial;
  std::vector<float> FSpectralWeights, FSpatialWeights;
  std::vector<double> FSum, FWeightSum;
  std::vector<float> FValues;
  std::vector<const float*> FNeighbours;
};

/// The lines of spectra that the spatial filters of one thread need: 2 halfSize + 1 lines of sizeX spectra
/// of length values each (spectrum x of a line at x * length), reused as the window moves down the image.
class TSpectrumLineRing {
public:
  /// Raises OrvexException for sizes below 1 or a negative half size.
  TSpectrumLineRing(int sizeX, int sizeY, int length, int halfSize);

  int SizeX() const { return FSizeX; }
  int SizeY() const { return FSizeY; }
  int Length() const { return FLength; }
  int HalfSize() const { return FHalf; }

  /// Reads a line into the buffer given (sizeX spectra) and returns whether the line is valid.
  using TLineReader = std::function<bool(int line, float* buffer)>;

  /// Makes the ring hold every line of y - halfSize .. y + halfSize inside the image, reading through read
  /// only those it does not hold yet (so lines visited in rising order are read once each). Lines that
  /// drop out of the window are forgotten.
  void Advance(int y, const TLineReader& read);
  /// True when line y is held.
  bool HoldsLine(int y) const;
  /// Spectrum (x, y) when it lies in the image and its line is held and valid; null otherwise.
  const float* Spectrum(int x, int y) const;
  /// Spectrum (x, y) of a held line whatever its validity; null when the line is not held.
  const float* HeldSpectrum(int x, int y) const;
  /// Forgets every line.
  void Clear();

private:
  int FSizeX, FSizeY, FLength, FHalf;
  std::vector<float> FData;
  std::vector<int> FLineOfSlot; ///< the line held in each slot, -1 for none
  std::vector<char> FValid;
};

/// Filters lines first..last of a stack: for each line, the ring advances (reading what it lacks through
/// read), every spectrum of the line is filtered, and the line's results (sizeX spectra) go to write, which
/// returns false to stop early (a cancel). Returns false when stopped. ring and filter must agree on the
/// length and the spatial half size.
bool FilterSpectrumLines(TSpectrumNeighbourhoodFilter& filter, TSpectrumLineRing& ring, int first, int last,
                         const TSpectrumLineRing::TLineReader& read,
                         const std::function<bool(int line, const float* result)>& write);
