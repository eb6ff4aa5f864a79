// Writes noisy single-band spectra and the results of the Gauss and Lorentz filter objects fitted to them,
// as raw little-endian arrays, for the scipy cross-check next to this file.
//
// ox_filter_fit_dump OUTDIR          prints "N COUNT START STOP"
//   x.f64                 N positions of a falling axis
//   gauss.f32, lorentz.f32   COUNT x N spectra: a band on an offset with noise
//   gauss_out.f64, lorentz_out.f64   COUNT x 5 filter outputs over pixels START..STOP, no background
#include "Rawarrays.h"
#include "data/Dfilter.h"

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: ox_filter_fit_dump OUTDIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  const int n = 300, count = 24, start = 60, stop = 240;
  std::vector<double> x(n);
  for (int i = 0; i < n; ++i) x[i] = 1200 - 1.3 * i;
  std::mt19937 gen(321);
  std::normal_distribution<double> noise;
  std::uniform_real_distribution<double> uniform(0, 1);
  std::vector<float> gauss(static_cast<size_t>(count) * n), lorentz(gauss.size());
  for (int s = 0; s < count; ++s) {
    const double c = x[150] + 20 * (uniform(gen) - 0.5), width = 6 + 10 * uniform(gen);
    const double height = 200 + 800 * uniform(gen), offset = 50 * uniform(gen), sigma = 1 + 5 * uniform(gen);
    for (int i = 0; i < n; ++i) {
      const double d = x[i] - c;
      gauss[static_cast<size_t>(s) * n + i] =
          static_cast<float>(offset + height * std::exp(-0.5 * d * d / (width * width)) + sigma * noise(gen));
      lorentz[static_cast<size_t>(s) * n + i] = static_cast<float>(
          offset + 2 * height * width / M_PI * width / (4 * d * d + width * width) + sigma * noise(gen));
    }
  }
  auto run = [&](TDFilter& filter, const std::vector<float>& spectra) {
    filter.SetInputInteger(TDFilter::kLowerBackgroundInput, 0);
    filter.SetInputInteger(TDFilter::kUpperBackgroundInput, 0);
    filter.SetInputFloat(2, 1e-8); // the tightest tolerance the filters offer
    filter.SetFieldSize(n);
    for (int i = 0; i < n; ++i) filter.SetXPosition(i, x[i]);
    filter.PrepareCalculation(start, stop, "", "");
    std::vector<double> out;
    for (int s = 0; s < count; ++s) {
      filter.Calculation(spectra.data() + static_cast<size_t>(s) * n);
      for (int k = 0; k < 5; ++k) out.push_back(filter.GetParameter(k));
    }
    filter.PostpareCalculation();
    return out;
  };
  TDGaussFilter gaussFilter;
  TDLorentzFilter lorentzFilter;
  const bool ok = WriteRawArray(dir + "/x.f64", x) && WriteRawArray(dir + "/gauss.f32", gauss) &&
                  WriteRawArray(dir + "/lorentz.f32", lorentz) &&
                  WriteRawArray(dir + "/gauss_out.f64", run(gaussFilter, gauss)) &&
                  WriteRawArray(dir + "/lorentz_out.f64", run(lorentzFilter, lorentz));
  if (!ok) return 1;
  std::printf("%d %d %d %d\n", n, count, start, stop);
  return 0;
}
