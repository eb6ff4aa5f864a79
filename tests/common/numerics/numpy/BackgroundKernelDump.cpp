// Writes inputs and results of the polynomial, constant and minimum background kernels as raw little-endian
// arrays, for the numpy cross-check next to this file.
//
// ox_background_kernel_dump OUTDIR          prints "N COUNT"
//   spectra.f32        COUNT x N float spectra: smooth backgrounds of several shapes, bands and noise
//   fitmask.u8         N fit mask (1 set), with gaps; changemask.u8 N change mask
//   poly_K.f32         COUNT x N polynomial backgrounds of order K (0, 3, 9); polyresult_K.f32 the results
//   constant.f32       COUNT x N results of the constant method (2.5 + reference), reference.f32 N values
//   minimum.f32        COUNT x N results of the minimum method with offset -1.25
#include "Rawarrays.h"
#include "common/numerics/Backgroundsubtraction.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: ox_background_kernel_dump OUTDIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  const int n = 1024, count = 12;
  std::mt19937 gen(99);
  std::normal_distribution<double> normal;
  std::uniform_real_distribution<double> uniform(-1, 1);
  std::vector<float> spectra(static_cast<size_t>(count) * n);
  for (int s = 0; s < count; ++s) {
    const double a = 100 * uniform(gen), b = 50 * uniform(gen), c = 30 * uniform(gen),
                 f = 3 + 5 * (uniform(gen) + 1);
    for (int i = 0; i < n; ++i) {
      const double t = i / double(n - 1);
      spectra[static_cast<size_t>(s) * n + i] =
          static_cast<float>(500 + a * t + b * t * t + c * std::sin(f * t) +
                             40 / (1 + std::pow((i - 300 - 30 * s) / 4.0, 2)) + 3 * normal(gen));
    }
  }
  std::vector<uint8_t> fit(n, 1), change(n, 1);
  for (int i = 0; i < 40; ++i) fit[i] = 0;
  for (int i = 250; i < 420; ++i) fit[i] = 0;
  for (int i = 700; i < 705; ++i) fit[i] = 0;
  for (int i = 0; i < n; i += 5) change[i] = 0;
  std::unique_ptr<bool[]> fitMask(new bool[n]), changeMask(new bool[n]);
  for (int i = 0; i < n; ++i) {
    fitMask[i] = fit[i] != 0;
    changeMask[i] = change[i] != 0;
  }
  bool ok = WriteRawArray(dir + "/spectra.f32", spectra) && WriteRawArray(dir + "/fitmask.u8", fit) &&
            WriteRawArray(dir + "/changemask.u8", change);
  TBackgroundScratch scratch(n);
  std::vector<float> background(static_cast<size_t>(count) * n), result(background.size());
  for (int order : {0, 3, 9}) {
    TPolynomialBackgroundFit poly;
    if (!poly.Prepare(n, fitMask.get(), order)) return 1;
    for (int s = 0; s < count; ++s)
      PolynomialBackground(poly, spectra.data() + static_cast<size_t>(s) * n, changeMask.get(),
                           background.data() + static_cast<size_t>(s) * n,
                           result.data() + static_cast<size_t>(s) * n, scratch);
    ok = ok && WriteRawArray(dir + "/poly_" + std::to_string(order) + ".f32", background) &&
         WriteRawArray(dir + "/polyresult_" + std::to_string(order) + ".f32", result);
  }
  std::vector<float> reference(n);
  for (int i = 0; i < n; ++i) reference[i] = static_cast<float>(0.01 * i - 3);
  std::vector<float> b(n);
  for (int s = 0; s < count; ++s)
    ConstantBackground(n, spectra.data() + static_cast<size_t>(s) * n, fitMask.get(), changeMask.get(), 2.5,
                       reference.data(), b.data(), result.data() + static_cast<size_t>(s) * n);
  ok = ok && WriteRawArray(dir + "/reference.f32", reference) && WriteRawArray(dir + "/constant.f32", result);
  for (int s = 0; s < count; ++s)
    MinimumBackground(n, spectra.data() + static_cast<size_t>(s) * n, fitMask.get(), changeMask.get(), -1.25,
                      b.data(), result.data() + static_cast<size_t>(s) * n);
  ok = ok && WriteRawArray(dir + "/minimum.f32", result);
  if (!ok) return 1;
  std::printf("%d %d\n", n, count);
  return 0;
}
