// Prints random test images with a curved background, their line flags, and the results of the background
// subtraction in both modes and all orders, as text: a line "NAME NX NY" followed by NY lines of NX values
// (the flags as 0 and 1). Invalid lines hold NaN in the input, which the subtraction must not read. The
// narrow image has one block per line, the wide one several blocks and a tail.
#include "common/numerics/Imagebackground.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

void Print(const std::string& name, const std::vector<float>& v, int nx, int ny) {
  std::printf("%s %d %d\n", name.c_str(), nx, ny);
  for (int y = 0; y < ny; ++y) {
    for (int x = 0; x < nx; ++x) std::printf(" %.9g", v[y * nx + x]);
    std::printf("\n");
  }
}

bool Dump(const std::string& prefix, int nx, int ny, const std::vector<int>& invalidLines, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> d(-10.0f, 10.0f);
  std::unique_ptr<bool[]> valid(new bool[ny]);
  std::vector<float> in(nx * ny), flags(nx * ny);
  for (int y = 0; y < ny; ++y) {
    valid[y] = true;
    for (int bad : invalidLines) valid[y] = valid[y] && y != bad;
    for (int x = 0; x < nx; ++x) {
      // The same surface over any width: t runs 0..40 along the line.
      const double t = 40.0 * x / (nx - 1);
      const double bg = 50.0 + 2.0 * t - 1.5 * y + 0.05 * t * y - 0.004 * t * t * t + 0.01 * y * y;
      in[y * nx + x] = valid[y] ? static_cast<float>(bg + d(g)) : NAN;
      flags[y * nx + x] = valid[y] ? 1.0f : 0.0f;
    }
  }
  Print(prefix + "input", in, nx, ny);
  Print(prefix + "valid", flags, nx, ny);
  for (int mode = 0; mode <= 1; ++mode)
    for (int order = 0; order <= 3; ++order) {
      std::vector<float> out(in.size());
      const TImageBackgroundStatus s = SubtractImageBackground(
          in.data(), out.data(), valid.get(), nx, ny, static_cast<TImageBackgroundMode>(mode), order);
      if (!s.Ok()) {
        std::fprintf(stderr, "%s mode %d order %d: %s\n", prefix.c_str(), mode, order, s.Text().c_str());
        return false;
      }
      Print(prefix + (mode == 0 ? "surface" : "lines") + std::to_string(order), out, nx, ny);
    }
  return true;
}

} // namespace

int main() {
  if (!Dump("narrow_", 41, 29, {3, 4, 20}, 4711)) return 1;
  if (!Dump("wide_", 1029, 7, {2}, 815)) return 1;
  return 0;
}
