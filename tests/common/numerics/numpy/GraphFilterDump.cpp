// Writes inputs and results of the spectrum filters (Savitzky-Golay with the mirrored ends, binomial average
// and median over channels and neighbouring spectra, spike removal) as raw little-endian arrays, for the
// scipy cross-check next to this file.
//
// ox_graph_filter_dump OUTDIR
//   prints "SIZEX SIZEY N" on the first line, then one line per result: "sg NAME NL NR LD M",
//   "avg NAME A B", "median NAME A B"
//   map.f32            SIZEY x SIZEX x N float spectra (bands moving from line to line, a sloped baseline,
//                      noise); lines.u8 line validity (one invalid line)
//   poly.f32           N values of a cubic; polysg_NAME.f32 its Savitzky-Golay results
//   sg_NAME.f32        the map's Savitzky-Golay results; avg_NAME.f32, median_NAME.f32 the neighbourhood
//                      filters run line by line through a ring
//   spiky.f32          the map with synthetic spikes (spikes.u8 where they were added); crr_found.u8 the
//                      points found, crr_linear.f32 and crr_median.f32 the repaired map
#include "Rawarrays.h"
#include "common/numerics/Golayfilter.h"
#include "common/numerics/Spectrumfilters.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: ox_graph_filter_dump OUTDIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  const int sx = 9, sy = 7, n = 200;
  const size_t lineSize = static_cast<size_t>(sx) * n;
  std::mt19937 gen(31);
  std::normal_distribution<double> normal;
  std::vector<float> map(lineSize * sy);
  for (int y = 0; y < sy; ++y)
    for (int x = 0; x < sx; ++x)
      for (int i = 0; i < n; ++i)
        map[(static_cast<size_t>(y) * sx + x) * n + i] = static_cast<float>(
            50 + 0.1 * i + 0.5 * x + 30 * std::exp(-0.5 * std::pow((i - 60 - 3 * y) / 4.0, 2)) +
            20 / (1 + std::pow((i - 140 + y) / 3.0, 2)) + normal(gen));
  std::vector<uint8_t> lines(sy, 1);
  lines[3] = 0;
  bool ok = WriteRawArray(dir + "/map.f32", map) && WriteRawArray(dir + "/lines.u8", lines);
  std::printf("%d %d %d\n", sx, sy, n);

  std::vector<float> poly(n);
  for (int i = 0; i < n; ++i) {
    const double t = i - 100.0;
    poly[i] = static_cast<float>(3 + 0.5 * t - 0.02 * t * t + 1e-4 * t * t * t);
  }
  ok = ok && WriteRawArray(dir + "/poly.f32", poly);
  struct TSg {
    int nl, nr, ld, m;
  };
  const TSg settings[] = {{5, 5, 0, 4}, {5, 5, 1, 3}, {5, 5, 2, 4},   {3, 7, 0, 3},
                          {2, 2, 1, 2}, {0, 6, 1, 3}, {10, 10, 3, 5}, {32, 32, 0, 9}};
  std::vector<float> out(map.size()), polyOut(n);
  for (const TSg& s : settings) {
    const TGolayFilter filter(s.nl, s.nr, s.ld, s.m);
    for (size_t e = 0; e < static_cast<size_t>(sx) * sy; ++e)
      filter.FaltungWithMirrorPeriodicInterval(map.data() + e * n, out.data() + e * n, n);
    filter.FaltungWithMirrorPeriodicInterval(poly.data(), polyOut.data(), n);
    const std::string name = std::to_string(s.nl) + "_" + std::to_string(s.nr) + "_" + std::to_string(s.ld) +
                             "_" + std::to_string(s.m);
    ok = ok && WriteRawArray(dir + "/sg_" + name + ".f32", out) &&
         WriteRawArray(dir + "/polysg_" + name + ".f32", polyOut);
    std::printf("sg %s %d %d %d %d\n", name.c_str(), s.nl, s.nr, s.ld, s.m);
  }

  auto read = [&](int line, float* buffer) {
    std::copy(map.begin() + line * lineSize, map.begin() + (line + 1) * lineSize, buffer);
    return lines[line] != 0;
  };
  auto write = [&](int line, const float* values) {
    std::copy(values, values + lineSize, out.begin() + line * lineSize);
    return true;
  };
  for (auto kind : {TNeighbourhoodFilterKind::BinomialAverage, TNeighbourhoodFilterKind::Median}) {
    const bool median = kind == TNeighbourhoodFilterKind::Median;
    for (auto [a, b] : {std::pair{1, 0}, {2, 0}, {0, 1}, {1, 1}, {3, 2}}) {
      TSpectrumNeighbourhoodFilter filter(kind, n, a, b);
      TSpectrumLineRing ring(sx, sy, n, b);
      if (!FilterSpectrumLines(filter, ring, 0, sy - 1, read, write)) return 1;
      const std::string name = std::to_string(a) + "_" + std::to_string(b);
      ok = ok && WriteRawArray(dir + (median ? "/median_" : "/avg_") + name + ".f32", out);
      std::printf("%s %s %d %d\n", median ? "median" : "avg", name.c_str(), a, b);
    }
  }

  // Spikes: isolated, a run of two, at both ends of some spectra; heights far above the noise.
  std::vector<float> spiky = map;
  std::vector<uint8_t> spikes(map.size(), 0);
  std::uniform_int_distribution<int> channel(0, n - 1);
  for (size_t e = 0; e < static_cast<size_t>(sx) * sy; ++e) {
    std::vector<int> at = {channel(gen), channel(gen)};
    if (e % 4 == 0) at.push_back(0);
    if (e % 5 == 0) at.push_back(n - 1);
    if (e % 3 == 0 && at[0] + 1 < n) at.push_back(at[0] + 1);
    for (int i : at) {
      spikes[e * n + i] = 1;
      spiky[e * n + i] = map[e * n + i] + static_cast<float>(200 + 100 * (i % 3));
    }
  }
  ok = ok && WriteRawArray(dir + "/spiky.f32", spiky) && WriteRawArray(dir + "/spikes.u8", spikes);
  std::vector<uint8_t> found(map.size(), 0);
  for (auto mode : {TSpikeInterpolation::NeighborPixelsLinear, TSpikeInterpolation::NeighborSpectraMedian}) {
    TSpikeRemovalSettings s;
    s.Interpolation = mode;
    TSpikeRemoval removal(n, s);
    for (int y = 0; y < sy; ++y)
      for (int x = 0; x < sx; ++x) {
        const size_t e = static_cast<size_t>(y) * sx + x;
        int left = 0, right = 0;
        const bool neighbours = SpikeNeighbourPixels(x, sx, left, right);
        const float* a = neighbours ? spiky.data() + (static_cast<size_t>(y) * sx + left) * n : nullptr;
        const float* b = neighbours ? spiky.data() + (static_cast<size_t>(y) * sx + right) * n : nullptr;
        removal.Filter(spiky.data() + e * n, out.data() + e * n, a, b);
        for (int i = 0; i < n; ++i) found[e * n + i] = removal.Spikes()[i] ? 1 : 0;
      }
    const bool median = mode == TSpikeInterpolation::NeighborSpectraMedian;
    ok = ok && WriteRawArray(dir + (median ? "/crr_median.f32" : "/crr_linear.f32"), out) &&
         WriteRawArray(dir + "/crr_found.u8", found);
  }
  return ok ? 0 : 1;
}
