#include "common/numerics/Spectrumfilters.h"

#include "common/OrvexException.h"
#include "common/numerics/Floatvector.h"
#include "common/numerics/Numerics.h"
#include "common/numerics/Sorttools.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace {

inline void Order(float& a, float& b) {
  const float lo = std::min(a, b), hi = std::max(a, b);
  a = lo;
  b = hi;
}

// The median of three and of five values by comparator networks: the same middle value that selection
// finds, without the selection's bookkeeping, for the window sizes that dominate the spectral median.
inline float MedianOf3(float a, float b, float c) {
  return std::max(std::min(a, b), std::min(std::max(a, b), c));
}

inline float MedianOf5(const float* v) {
  float a = v[0], b = v[1], c = v[2], d = v[3], e = v[4];
  Order(a, b);
  Order(d, e);
  Order(c, e);
  Order(c, d);
  Order(a, d);
  Order(a, c);
  Order(b, e);
  Order(b, d);
  Order(b, c);
  return c;
}

// The same networks on four channels at once.
inline oxvec::TFloat4 MedianOf3(oxvec::TFloat4 a, oxvec::TFloat4 b, oxvec::TFloat4 c) {
  return oxvec::Max(oxvec::Min(a, b), oxvec::Min(oxvec::Max(a, b), c));
}

inline void Order(oxvec::TFloat4& a, oxvec::TFloat4& b) {
  const oxvec::TFloat4 lo = oxvec::Min(a, b), hi = oxvec::Max(a, b);
  a = lo;
  b = hi;
}

inline oxvec::TFloat4 MedianOf5(oxvec::TFloat4 a, oxvec::TFloat4 b, oxvec::TFloat4 c, oxvec::TFloat4 d,
                                oxvec::TFloat4 e) {
  Order(a, b);
  Order(d, e);
  Order(c, e);
  Order(c, d);
  Order(a, d);
  Order(a, c);
  Order(b, e);
  Order(b, d);
  Order(b, c);
  return c;
}

// Channels a .. n-1-a of a spectral median of half size 1 or 2, four at a time; returns the first channel
// not done.
int SpectralMedianInterior(const float* y, float* out, int n, int a) {
  int i = a;
  if (a == 1)
    for (; i + 3 <= n - 2; i += 4)
      oxvec::Store(out + i, MedianOf3(oxvec::Load(y + i - 1), oxvec::Load(y + i), oxvec::Load(y + i + 1)));
  else if (a == 2)
    for (; i + 3 <= n - 3; i += 4)
      oxvec::Store(out + i, MedianOf5(oxvec::Load(y + i - 2), oxvec::Load(y + i - 1), oxvec::Load(y + i),
                                      oxvec::Load(y + i + 1), oxvec::Load(y + i + 2)));
  return i;
}

inline float MedianOfValues(float* values, int count) {
  if (count == 5) return MedianOf5(values);
  if (count == 3) return MedianOf3(values[0], values[1], values[2]);
  return STCalculateMedian(values, count, true);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Spikes

bool SpikeNeighbourPixels(int x, int sizeX, int& first, int& second) {
  if (sizeX < 5 || x < 0 || x >= sizeX) return false;
  if (x == 0) {
    first = 1;
    second = 2;
  } else if (x == sizeX - 1) {
    first = sizeX - 2;
    second = sizeX - 3;
  } else {
    first = x - 1;
    second = x + 1;
  }
  return true;
}

TSpikeRemoval::TSpikeRemoval(int length, const TSpikeRemovalSettings& settings)
    : FLength(length), FSettings(settings) {
  if (length < 1 || settings.FilterSize < 1 || !std::isfinite(settings.DynamicFactor))
    throw OrvexException("TSpikeRemoval::TSpikeRemoval: length " + std::to_string(length) +
                         " and filter size " + std::to_string(settings.FilterSize) +
                         " must be at least 1, the factor finite");
  FSpikes = std::make_unique<bool[]>(length);
  FWindow.resize(2 * settings.FilterSize + 1);
  FCopy.resize(length);
}

int TSpikeRemoval::DetectSpikes(const float* y, bool* spikes) {
  const int n = FLength, w = FSettings.FilterSize;
  const int window = std::min(2 * w + 1, n);
  const int middle = std::min(w, window - 1);
  float* sorted = FWindow.data();
  int count = 0;
  for (int i = 0; i < n; ++i) {
    const int start = std::clamp(i - w, 0, n - window);
    // Insertion sort: the window holds at most nine values.
    for (int k = 0; k < window; ++k) {
      const float v = y[start + k];
      int j = k;
      for (; j > 0 && sorted[j - 1] > v; --j) sorted[j] = sorted[j - 1];
      sorted[j] = v;
    }
    const double s0 = sorted[0], sw = sorted[middle];
    const double divisor = sw == s0 ? 1.0 : sw - s0;
    spikes[i] = (static_cast<double>(y[i]) - s0) / divisor > FSettings.DynamicFactor;
    count += spikes[i] ? 1 : 0;
  }
  return count;
}

int TSpikeRemoval::Filter(const float* y, float* out, const float* neighbourA, const float* neighbourB) {
  const int n = FLength;
  bool* spikes = FSpikes.get();
  const int count = DetectSpikes(y, spikes);
  if (count == 0) {
    if (out != y) std::copy(y, y + n, out);
    return 0;
  }
  const bool median = FSettings.Interpolation == TSpikeInterpolation::NeighborSpectraMedian &&
                      neighbourA != nullptr && neighbourB != nullptr;
  if (!median) {
    ReplaceSpikesLinear(y, spikes, out, n);
    return count;
  }
  for (int i = 0; i < n; ++i) out[i] = spikes[i] ? MedianOf3(y[i], neighbourA[i], neighbourB[i]) : y[i];
  return count;
}

void ReplaceSpikesLinear(const float* y, const bool* spikes, float* out, int n) {
  // Work from a copy when repairing in place: a bridge reads the good points on both sides.
  std::vector<float> copy;
  const float* in = y;
  if (out == y) {
    copy.assign(y, y + n);
    in = copy.data();
  } else {
    std::copy(y, y + n, out);
  }
  for (int i = 0; i < n;) {
    if (!spikes[i]) {
      ++i;
      continue;
    }
    int end = i;
    while (end + 1 < n && spikes[end + 1]) ++end;
    const int before = i - 1, after = end + 1;
    for (int k = i; k <= end; ++k) {
      if (before < 0 && after >= n)
        out[k] = in[0];
      else if (before < 0)
        out[k] = in[after];
      else if (after >= n)
        out[k] = in[before];
      else
        out[k] = static_cast<float>(in[before] + (static_cast<double>(in[after]) - in[before]) *
                                                     (k - before) / (after - before));
    }
    i = end + 1;
  }
}

// ---------------------------------------------------------------------------------------------
// Neighbourhood filters

std::vector<float> NormalisedBinomialWeights(int size) {
  if (size < 0) throw OrvexException("NormalisedBinomialWeights: negative size " + std::to_string(size));
  std::vector<float> weights(2 * size + 1, 0.0f);
  BinomialValues(weights.data(), 2 * size, 0);
  double sum = 0;
  for (float w : weights) sum += w;
  for (float& w : weights) w = static_cast<float>(w / sum);
  return weights;
}

TSpectrumNeighbourhoodFilter::TSpectrumNeighbourhoodFilter(TNeighbourhoodFilterKind kind, int length,
                                                           int spectralSize, int spatialSize)
    : FKind(kind), FLength(length), FSpectral(spectralSize), FSpatial(spatialSize) {
  if (length < 1 || spectralSize < 0 || spatialSize < 0)
    throw OrvexException("TSpectrumNeighbourhoodFilter::TSpectrumNeighbourhoodFilter: length " +
                         std::to_string(length) + " must be at least 1, sizes " +
                         std::to_string(spectralSize) + " and " + std::to_string(spatialSize) +
                         " at least 0");
  FSpectralWeights = NormalisedBinomialWeights(spectralSize);
  FSpatialWeights = NormalisedBinomialWeights(spatialSize);
  if (kind == TNeighbourhoodFilterKind::BinomialAverage) {
    FSum.resize(length);
    FWeightSum.resize(length);
  }
  FValues.resize(static_cast<size_t>(2 * spectralSize + 1) * NeighbourCount());
  FNeighbours.resize(NeighbourCount());
}

void TSpectrumNeighbourhoodFilter::Filter(const float* const* neighbours, float* out) {
  if (neighbours[NeighbourCount() / 2] == nullptr)
    throw OrvexException("TSpectrumNeighbourhoodFilter::Filter: the centre spectrum is missing");
  if (FKind == TNeighbourhoodFilterKind::Median)
    Median(neighbours, out);
  else
    Average(neighbours, out);
}

void TSpectrumNeighbourhoodFilter::FilterSpectral(const float* y, float* out) {
  std::fill(FNeighbours.begin(), FNeighbours.end(), nullptr);
  FNeighbours[NeighbourCount() / 2] = y;
  Filter(FNeighbours.data(), out);
}

void TSpectrumNeighbourhoodFilter::Filter(const TSpectrumLineRing& ring, int x, int y, float* out) {
  const int b = FSpatial, side = 2 * b + 1;
  if (ring.HalfSize() < b || ring.Length() != FLength)
    throw OrvexException("TSpectrumNeighbourhoodFilter::Filter: the ring holds " +
                         std::to_string(2 * ring.HalfSize() + 1) + " lines of " +
                         std::to_string(ring.Length()) + " points; the filter needs " + std::to_string(side) +
                         " of " + std::to_string(FLength));
  for (int dy = -b; dy <= b; ++dy)
    for (int dx = -b; dx <= b; ++dx) FNeighbours[(dy + b) * side + dx + b] = ring.Spectrum(x + dx, y + dy);
  FNeighbours[NeighbourCount() / 2] = ring.HeldSpectrum(x, y);
  Filter(FNeighbours.data(), out);
}

void TSpectrumNeighbourhoodFilter::Average(const float* const* neighbours, float* out) {
  const int n = FLength, a = FSpectral, b = FSpatial, side = 2 * b + 1;
  double* sum = FSum.data();
  double* weightSum = FWeightSum.data();
  std::fill(sum, sum + n, 0.0);
  std::fill(weightSum, weightSum + n, 0.0);
  for (int dy = -b; dy <= b; ++dy)
    for (int dx = -b; dx <= b; ++dx) {
      const float* p = neighbours[(dy + b) * side + dx + b];
      if (p == nullptr) continue;
      const double spatial = static_cast<double>(FSpatialWeights[dx + b]) * FSpatialWeights[dy + b];
      // Tap by tap over the channels for which channel i + k exists.
      for (int k = -a; k <= a; ++k) {
        const double w = spatial * FSpectralWeights[k + a];
        const int first = std::max(0, -k), last = std::min(n - 1, n - 1 - k);
        for (int i = first; i <= last; ++i) {
          sum[i] += w * p[i + k];
          weightSum[i] += w;
        }
      }
    }
  for (int i = 0; i < n; ++i) out[i] = static_cast<float>(sum[i] / weightSum[i]);
}

void TSpectrumNeighbourhoodFilter::Median(const float* const* neighbours, float* out) {
  const int n = FLength, a = FSpectral, count = NeighbourCount();
  const float* centre = neighbours[count / 2];
  float* values = FValues.data();
  if (count == 1) {
    // The spectral window alone: the centre value first, then the others of the window. Small windows run
    // their full-window channels through the vector networks first.
    auto one = [&](int i) {
      int m = 0;
      values[m++] = centre[i];
      const int first = std::max(0, i - a), last = std::min(n - 1, i + a);
      for (int j = first; j <= last; ++j)
        if (j != i) values[m++] = centre[j];
      out[i] = MedianOfValues(values, m);
    };
    const int start = std::min(a, n);
    const int done = (a == 1 || a == 2) ? SpectralMedianInterior(centre, out, n, a) : start;
    for (int i = 0; i < start; ++i) one(i);
    for (int i = std::max(done, start); i < n; ++i) one(i);
    return;
  }
  for (int i = 0; i < n; ++i) {
    int m = 0;
    values[m++] = centre[i];
    const int first = std::max(0, i - a), last = std::min(n - 1, i + a);
    for (int s = 0; s < count; ++s) {
      const float* p = neighbours[s];
      if (p == nullptr) continue;
      for (int j = first; j <= last; ++j)
        if (p != centre || j != i) values[m++] = p[j];
    }
    out[i] = MedianOfValues(values, m);
  }
}

// ---------------------------------------------------------------------------------------------
// Ring of lines

TSpectrumLineRing::TSpectrumLineRing(int sizeX, int sizeY, int length, int halfSize)
    : FSizeX(sizeX), FSizeY(sizeY), FLength(length), FHalf(halfSize) {
  if (sizeX < 1 || sizeY < 1 || length < 1 || halfSize < 0)
    throw OrvexException("TSpectrumLineRing::TSpectrumLineRing: sizes " + std::to_string(sizeX) + " x " +
                         std::to_string(sizeY) + " x " + std::to_string(length) +
                         " must be at least 1, the half size " + std::to_string(halfSize) + " at least 0");
  const int slots = std::min(2 * halfSize + 1, sizeY);
  FData.resize(static_cast<size_t>(slots) * sizeX * length);
  FLineOfSlot.assign(slots, -1);
  FValid.assign(slots, 0);
}

void TSpectrumLineRing::Clear() {
  std::fill(FLineOfSlot.begin(), FLineOfSlot.end(), -1);
  std::fill(FValid.begin(), FValid.end(), 0);
}

bool TSpectrumLineRing::HoldsLine(int y) const {
  if (y < 0 || y >= FSizeY) return false;
  return FLineOfSlot[y % FLineOfSlot.size()] == y;
}

void TSpectrumLineRing::Advance(int y, const TLineReader& read) {
  const int first = std::max(0, y - FHalf), last = std::min(FSizeY - 1, y + FHalf);
  const int slots = static_cast<int>(FLineOfSlot.size());
  const size_t lineSize = static_cast<size_t>(FSizeX) * FLength;
  for (int line = first; line <= last; ++line) {
    const int slot = line % slots;
    if (FLineOfSlot[slot] == line) continue;
    // The window spans at most as many lines as there are slots, so the line replaced here lies outside it.
    FLineOfSlot[slot] = -1;
    FValid[slot] = read(line, FData.data() + slot * lineSize) ? 1 : 0;
    FLineOfSlot[slot] = line;
  }
}

const float* TSpectrumLineRing::HeldSpectrum(int x, int y) const {
  if (x < 0 || x >= FSizeX || !HoldsLine(y)) return nullptr;
  const size_t slot = y % FLineOfSlot.size();
  return FData.data() + (slot * FSizeX + x) * FLength;
}

const float* TSpectrumLineRing::Spectrum(int x, int y) const {
  if (x < 0 || x >= FSizeX || !HoldsLine(y) || !FValid[y % FLineOfSlot.size()]) return nullptr;
  return HeldSpectrum(x, y);
}

bool FilterSpectrumLines(TSpectrumNeighbourhoodFilter& filter, TSpectrumLineRing& ring, int first, int last,
                         const TSpectrumLineRing::TLineReader& read,
                         const std::function<bool(int line, const float* result)>& write) {
  if (filter.Length() != ring.Length() || filter.SpatialSize() > ring.HalfSize())
    throw OrvexException("FilterSpectrumLines: the ring does not fit the filter");
  const int n = ring.Length();
  std::vector<float> result(static_cast<size_t>(ring.SizeX()) * n);
  for (int y = std::max(0, first); y <= std::min(last, ring.SizeY() - 1); ++y) {
    ring.Advance(y, read);
    for (int x = 0; x < ring.SizeX(); ++x)
      filter.Filter(ring, x, y, result.data() + static_cast<size_t>(x) * n);
    if (!write(y, result.data())) return false;
  }
  return true;
}
