// Prints a random test image with a curved background, its line flags, and the results of the background
// subtraction in both modes and all orders, as text: a line "NAME NX NY" followed by NY lines of NX values
// (the flags as 0 and 1). Invalid lines hold NaN in the input, which the subtraction must not read.
#include "common/numerics/Imagebackground.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kNx = 41, kNy = 29;

void Print(const std::string& name, const std::vector<float>& v) {
  std::printf("%s %d %d\n", name.c_str(), kNx, kNy);
  for (int y = 0; y < kNy; ++y) {
    for (int x = 0; x < kNx; ++x) std::printf(" %.9g", v[y * kNx + x]);
    std::printf("\n");
  }
}

} // namespace

int main() {
  std::mt19937 g(4711);
  std::uniform_real_distribution<float> d(-10.0f, 10.0f);
  std::unique_ptr<bool[]> valid(new bool[kNy]);
  std::vector<float> in(kNx * kNy), flags(kNx * kNy);
  for (int y = 0; y < kNy; ++y) {
    valid[y] = y != 3 && y != 4 && y != 20;
    for (int x = 0; x < kNx; ++x) {
      const double bg = 50.0 + 2.0 * x - 1.5 * y + 0.05 * x * y - 0.004 * x * x * x + 0.01 * y * y;
      in[y * kNx + x] = valid[y] ? static_cast<float>(bg + d(g)) : NAN;
      flags[y * kNx + x] = valid[y] ? 1.0f : 0.0f;
    }
  }
  Print("input", in);
  Print("valid", flags);
  for (int mode = 0; mode <= 1; ++mode)
    for (int order = 0; order <= 3; ++order) {
      std::vector<float> out(in.size());
      const TImageBackgroundStatus s = SubtractImageBackground(
          in.data(), out.data(), valid.get(), kNx, kNy, static_cast<TImageBackgroundMode>(mode), order);
      if (!s.Ok()) {
        std::fprintf(stderr, "mode %d order %d: %s\n", mode, order, s.Text().c_str());
        return 1;
      }
      Print((mode == 0 ? "surface" : "lines") + std::to_string(order), out);
    }
  return 0;
}
