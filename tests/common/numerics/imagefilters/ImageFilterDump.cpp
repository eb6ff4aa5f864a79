// Prints a random test image and the results of the image filters and the repair on it, as text:
// a line "NAME NX NY" followed by NY lines of NX values (nan for pixels of invalid lines).
#include "common/numerics/Imagefilters.h"
#include "common/numerics/Imagerepair.h"

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kNx = 23, kNy = 19;

void Print(const std::string& name, const std::vector<float>& v, const bool* valid) {
  std::printf("%s %d %d\n", name.c_str(), kNx, kNy);
  for (int y = 0; y < kNy; ++y) {
    for (int x = 0; x < kNx; ++x) {
      if (valid != nullptr && !valid[y])
        std::printf(" nan");
      else
        std::printf(" %.9g", v[y * kNx + x]);
    }
    std::printf("\n");
  }
}

void Filter(const std::string& name, const TImageFilterParameters& p, const std::vector<float>& in,
            const bool* inValid) {
  std::vector<float> out(in.size());
  std::unique_ptr<bool[]> valid(new bool[kNy]);
  TImageFilter filter(p, {in.data(), inValid, kNx, kNy}, {out.data(), valid.get(), kNx, kNy});
  filter.Calculate();
  Print(name, out, valid.get());
}

} // namespace

int main() {
  std::mt19937 g(2024);
  std::uniform_real_distribution<float> d(-10.0f, 10.0f);
  std::vector<float> in(kNx * kNy);
  for (float& v : in) v = d(g);
  Print("input", in, nullptr);

  TImageFilterParameters p;
  for (int s : {0, 1, 2, 3}) {
    p.Kind = TImageFilterKind::Average;
    p.Size = s;
    Filter("average" + std::to_string(s), p, in, nullptr);
    p.Kind = TImageFilterKind::Median;
    Filter("median" + std::to_string(s), p, in, nullptr);
  }
  p.Kind = TImageFilterKind::Variance;
  p.Size = 2;
  Filter("variance2", p, in, nullptr);
  p.Kind = TImageFilterKind::Laplace;
  for (int t = 1; t <= 3; ++t) {
    p.LaplaceType = t;
    Filter("laplace" + std::to_string(t), p, in, nullptr);
  }
  p.Kind = TImageFilterKind::Sobel;
  p.SobelOutput = TSobelOutput::Gx;
  Filter("sobelgx", p, in, nullptr);
  p.SobelOutput = TSobelOutput::Gy;
  Filter("sobelgy", p, in, nullptr);
  p.Kind = TImageFilterKind::Custom;
  p.Size = 1;
  p.CustomCoefficients = {1, 2, 0, -1, 3, 0.5, 0, -2, 4};
  p.CustomFactor = 2.5;
  Filter("custom1", p, in, nullptr);
  p.Size = 2;
  p.CustomCoefficients.clear();
  for (int i = 0; i < 25; ++i) p.CustomCoefficients.push_back((i * 7) % 5 - 1.5 + 0.1 * i);
  p.CustomFactor = -3.0;
  Filter("custom2", p, in, nullptr);
  for (TMarginalPixels m : {TMarginalPixels::Copy, TMarginalPixels::Zero}) {
    const std::string suffix = m == TMarginalPixels::Copy ? "copy" : "zero";
    p = TImageFilterParameters();
    p.Margin = m;
    p.Kind = TImageFilterKind::Median;
    p.Size = 2;
    Filter("median2" + suffix, p, in, nullptr);
    p.Kind = TImageFilterKind::Average;
    Filter("average2" + suffix, p, in, nullptr);
  }
  // Invalid lines 4, 5 and 12 of the input.
  bool valid[kNy];
  for (int y = 0; y < kNy; ++y) valid[y] = y != 4 && y != 5 && y != 12;
  p = TImageFilterParameters();
  p.Kind = TImageFilterKind::Average;
  p.Size = 1;
  Filter("average1invalid", p, in, valid);
  p.Kind = TImageFilterKind::Median;
  Filter("median1invalid", p, in, valid);

  // Neighbour averaging of a block and an edge strip, run to convergence.
  std::vector<float> repaired = in;
  std::unique_ptr<bool[]> mask(new bool[kNx * kNy]());
  for (int y = 6; y < 12; ++y)
    for (int x = 8; x < 15; ++x) mask[y * kNx + x] = true;
  for (int y = 2; y < 7; ++y) mask[y * kNx] = true;
  std::vector<float> maskImage(in.size());
  for (int i = 0; i < kNx * kNy; ++i) maskImage[i] = mask[i] ? 1.0f : 0.0f;
  Print("repairmask", maskImage, nullptr);
  RepairSimpleInterpolation({repaired.data(), nullptr, kNx, kNy}, mask.get(), 5000);
  Print("simpleinterpolation", repaired, nullptr);
  return 0;
}
