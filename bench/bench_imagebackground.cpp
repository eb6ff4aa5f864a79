// Image background subtraction on a synthetic 2048x2048 float image: Surface and Lines of order 3, on one
// thread and on several (contiguous blocks of lines, sums added between the passes), beside a copy of the
// image. Each figure is the best of five runs, wall-clock and processor time of the process.
//   bench_imagebackground [SIZE [THREADS]]      default 2048, 2
#include "Benchsupport.h"
#include "common/numerics/Imagebackground.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

using oxbench::ProcessCpuSeconds;
using oxbench::Seconds;

struct TFigure {
  double Wall = 1e30, Cpu = 1e30;
};

TFigure Best(const std::function<void()>& work) {
  TFigure f;
  for (int run = 0; run < 5; ++run) {
    const auto start = oxbench::Clock::now();
    const double cpu = ProcessCpuSeconds();
    work();
    f.Wall = std::min(f.Wall, Seconds(start));
    f.Cpu = std::min(f.Cpu, ProcessCpuSeconds() - cpu);
  }
  return f;
}

void Subtract(TImageBackgroundMode mode, int order, const std::vector<float>& in, std::vector<float>& out,
              int n, int threads) {
  TImageBackgroundSubtraction k;
  if (!k.Prepare(mode, order, n, n, nullptr).Ok()) std::abort();
  auto first = [&](int t) { return t * n / threads; };
  if (mode == TImageBackgroundMode::Surface) {
    std::vector<TImageBackgroundSums> sums(threads);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
      pool.emplace_back([&, t] { k.Accumulate(in.data(), first(t), first(t + 1) - 1, sums[t]); });
    for (auto& th : pool) th.join();
    for (int t = 1; t < threads; ++t) sums[0].Add(sums[t]);
    if (!k.Solve(sums[0]).Ok()) std::abort();
  }
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([&, t] { k.Subtract(in.data(), out.data(), first(t), first(t + 1) - 1); });
  for (auto& th : pool) th.join();
}

} // namespace

int main(int argc, char** argv) {
  const int n = argc > 1 ? std::atoi(argv[1]) : 2048;
  const int threads = argc > 2 ? std::atoi(argv[2]) : 2;
  std::mt19937 g(11);
  std::uniform_real_distribution<float> d(0.0f, 100.0f);
  std::vector<float> in(static_cast<size_t>(n) * n), out(in.size());
  for (size_t e = 0; e < in.size(); ++e) in[e] = d(g) + 1e-3f * static_cast<float>(e % n);

  const TFigure copy = Best([&] { std::memcpy(out.data(), in.data(), in.size() * sizeof(float)); });
  std::printf("image %dx%d, %.1f MB\n", n, n, in.size() * sizeof(float) / 1e6);
  std::printf("%-28s %8.4f s wall, %8.4f s CPU\n", "memcpy of the image", copy.Wall, copy.Cpu);
  for (auto mode : {TImageBackgroundMode::Surface, TImageBackgroundMode::Lines})
    for (int t : {1, threads}) {
      const TFigure f = Best([&] { Subtract(mode, 3, in, out, n, t); });
      char name[64];
      std::snprintf(name, sizeof name, "%s order 3, %d thread%s",
                    mode == TImageBackgroundMode::Surface ? "Surface" : "Lines", t, t == 1 ? "" : "s");
      std::printf("%-28s %8.4f s wall, %8.4f s CPU, %5.2f x the copy (wall)\n", name, f.Wall, f.Cpu,
                  f.Wall / copy.Wall);
      if (t == threads) break;
    }
  return 0;
}
