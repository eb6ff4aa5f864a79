// Writes spectra, ranges and the results of the range reductions as raw little-endian arrays, for the numpy
// cross-check next to this file.
//
// ox_filter_kernel_dump OUTDIR          prints "N COUNT CASES"
//   x_rising.f64, x_falling.f64   N positions of two axes (a falling one as a Raman shift axis is)
//   spectra.f32                   COUNT x N spectra: sloped backgrounds, a Lorentzian band, noise
//   cases.i32                     CASES x 5: axis (0 rising, 1 falling), start, stop, lower, upper pixels
//   results.f64                   CASES x COUNT x 13: sum, average, minimum, minimum x, maximum, maximum x,
//                                 centre of mass, width at 50 %, average - minimum, std. deviation,
//                                 regression offset, regression slope, correlation
#include "Rawarrays.h"
#include "common/numerics/Filterreductions.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: ox_filter_kernel_dump OUTDIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  const int n = 512, count = 16;
  std::mt19937 gen(4711);
  std::normal_distribution<double> normal;
  std::uniform_real_distribution<double> uniform(-1, 1);
  std::vector<double> rising(n), falling(n);
  for (int i = 0; i < n; ++i) {
    rising[i] = 480 + 0.1 * i + 2e-5 * i * i;
    falling[i] = 1800 - 2.5 * i - 1e-4 * i * i;
  }
  std::vector<float> spectra(static_cast<size_t>(count) * n);
  for (int s = 0; s < count; ++s) {
    const double a = 200 + 100 * uniform(gen), b = 80 * uniform(gen), c = 140 + 4 * s, w = 3 + 0.4 * s;
    for (int i = 0; i < n; ++i) {
      const double t = i / double(n);
      spectra[static_cast<size_t>(s) * n + i] =
          static_cast<float>(a + b * t + 900 / (1 + std::pow((i - c) / w, 2)) + 2 * normal(gen));
    }
  }
  // Both background sides, one side missing at each end of the field, none, a single-pixel range.
  const std::vector<int32_t> cases = {0, 120, 200, 4, 4, 1, 120, 200, 4,  4, 0, 0,   90,  4, 4,
                                      1, 0,   90,  4, 4, 0, 430, 511, 4,  4, 1, 430, 511, 3, 6,
                                      0, 100, 220, 0, 0, 1, 100, 220, 16, 0, 0, 150, 150, 2, 2};
  const int ncases = static_cast<int>(cases.size() / 5);
  std::vector<double> results;
  for (int k = 0; k < ncases; ++k) {
    const int32_t* c = &cases[static_cast<size_t>(k) * 5];
    for (int s = 0; s < count; ++s) {
      TFilterField f;
      f.X = c[0] == 0 ? rising.data() : falling.data();
      f.Y = spectra.data() + static_cast<size_t>(s) * n;
      f.Length = n;
      f.Start = c[1];
      f.Stop = c[2];
      SetLowerAndUpperBackground(f, c[3], c[4]);
      const TFilterMinMax m = FilterMinMax(f);
      const TFilterLine line = FilterLinearRegression(f);
      const double values[13] = {FilterSum(f),
                                 FilterAverage(f),
                                 m.Minimum,
                                 m.MinimumX,
                                 m.Maximum,
                                 m.MaximumX,
                                 FilterCenterOfMass(f, 0, 0),
                                 FilterWidth(f, 0.5, false),
                                 FilterAverageMinusMinimum(f),
                                 FilterStandardDeviation(f),
                                 line.Offset,
                                 line.Slope,
                                 line.Correlation};
      results.insert(results.end(), values, values + 13);
    }
  }
  const bool ok = WriteRawArray(dir + "/x_rising.f64", rising) &&
                  WriteRawArray(dir + "/x_falling.f64", falling) &&
                  WriteRawArray(dir + "/spectra.f32", spectra) && WriteRawArray(dir + "/cases.i32", cases) &&
                  WriteRawArray(dir + "/results.f64", results);
  if (!ok) return 1;
  std::printf("%d %d %d\n", n, count, ncases);
  return 0;
}
