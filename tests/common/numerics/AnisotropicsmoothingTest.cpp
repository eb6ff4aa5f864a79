// Edge-preserving smoothing: constant images stay, a noisy step keeps its contrast while the noise falls,
// masked pixels keep their values, one and two threads agree, and the helpers give known numbers.
#include "common/numerics/Anisotropicsmoothing.h"

#include "support/TestProgress.h"

#include <barrier>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<float> Smooth(const std::vector<float>& in, int nx, int ny, int threads,
                          const bool* mask = nullptr, int iterations = 1, double* scale = nullptr) {
  TAnisotropicImageSmoothing smoothing;
  smoothing.CreateArrays(nx, ny);
  smoothing.SetParameter(0.1f, 5.0f, 5.0f, 1.0f, iterations);
  smoothing.SetImageData(in.data());
  smoothing.SetMaskData(mask);
  if (threads == 0) {
    smoothing.Calculate();
  } else {
    // A team of plain threads: the kernel needs a barrier and nothing else of a calculation controller.
    std::barrier<> barrier(threads);
    TThreadTeam team;
    team.NumberOfThreads = threads;
    team.WaitForNextStep = [&](int) { barrier.arrive_and_wait(); };
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) pool.emplace_back([&, t] { smoothing.Calculate(team, t); });
    for (auto& th : pool) th.join();
  }
  std::vector<float> out(in.size());
  smoothing.GetImageData(out.data());
  if (scale != nullptr) *scale = smoothing.AppliedScale();
  return out;
}

std::vector<float> NoisyStep(int nx, int ny) {
  std::mt19937 g(17);
  std::normal_distribution<float> noise(0.0f, 0.5f);
  std::vector<float> v(nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) v[y * nx + x] = (x >= nx / 2 ? 10.0f : 0.0f) + noise(g);
  return v;
}

double ColumnStats(const std::vector<float>& v, int nx, int ny, int x0, int x1, double& deviation) {
  double sum = 0, sq = 0;
  int n = 0;
  for (int y = 2; y < ny - 2; ++y)
    for (int x = x0; x <= x1; ++x) sum += v[y * nx + x], sq += double(v[y * nx + x]) * v[y * nx + x], ++n;
  const double mean = sum / n;
  deviation = std::sqrt(sq / n - mean * mean);
  return mean;
}

} // namespace

TEST(AnisotropicSmoothing, HelpersGiveKnownNumbers) {
  const float field[] = {0, 1, 2, 3, 4, 5}; // 3 x 2
  double v = 0;
  ASSERT_TRUE(GetInterpolatedValue(field, 3, 2, 1.5, 0.5, v));
  EXPECT_DOUBLE_EQ(v, 0.25 * (1 + 2 + 4 + 5));
  ASSERT_TRUE(GetInterpolatedValue(field, 3, 2, 2.0, 1.0, v));
  EXPECT_DOUBLE_EQ(v, 5.0);
  EXPECT_FALSE(GetInterpolatedValue(field, 3, 2, 2.01, 0.0, v));
  EXPECT_FALSE(GetInterpolatedValue(field, 3, 2, 0.0, -0.01, v));
  // dp/ds = (p_y, -p_x): a circle; one step of 0.1 stays on it to fifth order.
  double x = 1, y = 0;
  auto rotate = [](double px, double py, double& dx, double& dy) {
    dx = py, dy = -px;
    return true;
  };
  for (int i = 0; i < 10; ++i) TRungeKutta::Step(x, y, 0.1, rotate);
  EXPECT_NEAR(x, std::cos(1.0), 1e-6);
  EXPECT_NEAR(y, -std::sin(1.0), 1e-6);
}

TEST(AnisotropicSmoothing, ConstantImageIsUnchangedAndNotScaled) {
  const std::vector<float> flat(20 * 16, 2.5f);
  double scale = 0;
  const std::vector<float> out = Smooth(flat, 20, 16, 0, nullptr, 2, &scale);
  EXPECT_EQ(scale, 1.0);
  for (float v : out) ASSERT_NEAR(v, 2.5f, 1e-5);
}

TEST(AnisotropicSmoothing, NoisyStepKeepsContrastWhileTheNoiseFalls) {
  const int nx = 40, ny = 32;
  const std::vector<float> in = NoisyStep(nx, ny);
  const std::vector<float> out = Smooth(in, nx, ny, 0);
  double dIn = 0, dOut = 0, dInRight = 0, dOutRight = 0;
  const double leftIn = ColumnStats(in, nx, ny, 4, 15, dIn), leftOut = ColumnStats(out, nx, ny, 4, 15, dOut);
  const double rightIn = ColumnStats(in, nx, ny, 24, 35, dInRight);
  const double rightOut = ColumnStats(out, nx, ny, 24, 35, dOutRight);
  EXPECT_NEAR(rightOut - leftOut, rightIn - leftIn, 0.3);
  EXPECT_LT(dOut, 0.6 * dIn);
  EXPECT_LT(dOutRight, 0.6 * dInRight);
  // The columns next to the edge stay apart by most of the step.
  double d = 0;
  const double justLeft = ColumnStats(out, nx, ny, nx / 2 - 1, nx / 2 - 1, d);
  const double justRight = ColumnStats(out, nx, ny, nx / 2, nx / 2, d);
  EXPECT_GT(justRight - justLeft, 7.0);
}

TEST(AnisotropicSmoothing, MaskedPixelsKeepTheirValuesAndThreadsAgree) {
  const int nx = 24, ny = 21;
  const std::vector<float> in = NoisyStep(nx, ny);
  std::unique_ptr<bool[]> mask(new bool[nx * ny]());
  for (int i = 0; i < nx * ny; i += 7) mask[i] = true;
  const std::vector<float> one = Smooth(in, nx, ny, 1, mask.get(), 2);
  for (int i = 0; i < nx * ny; ++i) {
    if (mask[i]) {
      ASSERT_NEAR(one[i], in[i], 1e-5f * (1 + std::fabs(in[i])));
    }
  }
  bool changed = false;
  for (int i = 0; i < nx * ny; ++i) changed = changed || (!mask[i] && one[i] != in[i]);
  EXPECT_TRUE(changed);
  const std::vector<float> two = Smooth(in, nx, ny, 2, mask.get(), 2);
  const std::vector<float> none = Smooth(in, nx, ny, 0, mask.get(), 2);
  EXPECT_EQ(0, std::memcmp(one.data(), two.data(), one.size() * sizeof(float)));
  EXPECT_EQ(0, std::memcmp(one.data(), none.data(), one.size() * sizeof(float)));
}

TEST(AnisotropicSmoothing, ParametersOutOfRangeAreRefused) {
  TAnisotropicImageSmoothing s;
  EXPECT_THROW(s.SetParameter(0.0f, 1.2f, 5.0f, 1.0f, 1), OrvexExceptionImageFilter);
  EXPECT_THROW(s.SetParameter(1.0f, 1001.0f, 5.0f, 1.0f, 1), OrvexExceptionImageFilter);
  EXPECT_THROW(s.SetParameter(1.0f, 1.2f, 0.05f, 1.0f, 1), OrvexExceptionImageFilter);
  EXPECT_THROW(s.SetParameter(1.0f, 1.2f, 5.0f, 11.0f, 1), OrvexExceptionImageFilter);
  EXPECT_THROW(s.SetParameter(1.0f, 1.2f, 5.0f, 1.0f, 0), OrvexExceptionImageFilter);
  EXPECT_THROW(s.CreateArrays(1, 5), OrvexExceptionImageFilter);
  EXPECT_THROW(s.Calculate(), OrvexExceptionImageFilter);
  s.CreateArrays(4, 4);
  TThreadTeam withoutBarrier;
  withoutBarrier.NumberOfThreads = 2;
  EXPECT_THROW(s.Calculate(withoutBarrier, 0), OrvexExceptionImageFilter);
}

TEST(AnisotropicSmoothing, CancelEndsAfterTheIterationInProgress) {
  const int nx = 16, ny = 12;
  const std::vector<float> in = NoisyStep(nx, ny);
  TAnisotropicImageSmoothing s;
  s.CreateArrays(nx, ny);
  s.SetParameter(0.1f, 5.0f, 5.0f, 1.0f, 5);
  s.SetImageData(in.data());
  oxtest::TRecordingProgress progress(1); // the second question is answered with a cancel
  TThreadTeam team;
  team.Progress = &progress;
  s.Calculate(team, 0);
  EXPECT_EQ(s.CompletedIterations(), 2);
  // The image holds exactly the two iterations done, as a run of two would leave it.
  std::vector<float> cancelled(in.size());
  s.GetImageData(cancelled.data());
  const std::vector<float> two = Smooth(in, nx, ny, 0, nullptr, 2);
  EXPECT_EQ(0, std::memcmp(cancelled.data(), two.data(), two.size() * sizeof(float)));
}
