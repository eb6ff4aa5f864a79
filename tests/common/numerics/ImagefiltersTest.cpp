// Neighbourhood image filters: closed forms on constant, linear, quadratic, delta and step images, the
// margins, invalid lines, parameter checks, and equal results for any split of the lines.
#include "common/numerics/Imagefilters.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <numbers>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Image {
  int nx, ny;
  std::vector<float> data;
  std::unique_ptr<bool[]> valid;
  Image(int x, int y, const std::function<float(int, int)>& f)
      : nx(x), ny(y), data(x * y), valid(new bool[y]) {
    for (int j = 0; j < ny; ++j) {
      valid[j] = true;
      for (int i = 0; i < nx; ++i) data[j * nx + i] = f(i, j);
    }
  }
  float At(int x, int y) const { return data[y * nx + x]; }
  TConstFloatImage In() const { return {data.data(), valid.get(), nx, ny}; }
  TFloatImage Out() { return {data.data(), valid.get(), nx, ny}; }
};

Image Filter(const TImageFilterParameters& p, const Image& in) {
  Image out(in.nx, in.ny, [](int, int) { return -999.0f; });
  TImageFilter filter(p, in.In(), out.Out());
  filter.Calculate();
  return out;
}

TImageFilterParameters Params(TImageFilterKind kind, int size = 1,
                              TMarginalPixels margin = TMarginalPixels::Mirror) {
  TImageFilterParameters p;
  p.Kind = kind;
  p.Size = size;
  p.Margin = margin;
  return p;
}

Image Noise(int nx, int ny, unsigned seed) {
  std::mt19937 g(seed);
  std::uniform_real_distribution<float> d(-5.0f, 5.0f);
  return Image(nx, ny, [&](int, int) { return d(g); });
}

std::vector<TImageFilterParameters> AllKinds() {
  std::vector<TImageFilterParameters> all;
  for (TMarginalPixels m : {TMarginalPixels::Mirror, TMarginalPixels::Copy, TMarginalPixels::Zero}) {
    all.push_back(Params(TImageFilterKind::Average, 2, m));
    all.push_back(Params(TImageFilterKind::Median, 2, m));
    all.push_back(Params(TImageFilterKind::Variance, 1, m));
    all.push_back(Params(TImageFilterKind::Sharpen, 2, m));
    all.push_back(Params(TImageFilterKind::Kirsch, 1, m));
    all.push_back(Params(TImageFilterKind::Laplace, 1, m));
    TImageFilterParameters sobel = Params(TImageFilterKind::Sobel, 1, m);
    sobel.SobelOutput = TSobelOutput::Theta;
    all.push_back(sobel);
    TImageFilterParameters custom = Params(TImageFilterKind::Custom, 1, m);
    custom.CustomCoefficients = {1, -2, 0.5, 3, 0, -1, 0.25, 2, -4};
    custom.CustomFactor = 3.0;
    all.push_back(custom);
  }
  return all;
}

} // namespace

TEST(ImageFilterMargins, MirrorIndexAndBinomialBuffer) {
  EXPECT_EQ(MirrorIndex(-1, 5), 1);
  EXPECT_EQ(MirrorIndex(-3, 5), 3);
  EXPECT_EQ(MirrorIndex(5, 5), 3);
  EXPECT_EQ(MirrorIndex(7, 5), 1);
  EXPECT_EQ(MirrorIndex(4, 5), 4);
  EXPECT_EQ(CalculateBinomialBuffer(0), std::vector<double>({1}));
  EXPECT_EQ(CalculateBinomialBuffer(2), std::vector<double>({1, 4, 6, 4, 1}));
}

TEST(ImageFilterMargins, FillImageBorderCopiesNearestOrZeroes) {
  Image img(6, 5, [](int x, int y) { return float(10 * y + x); });
  img.valid[1] = false;
  Image copy(6, 5, [&](int x, int y) { return img.At(x, y); });
  copy.valid[1] = false;
  FillImageBorder(copy.Out(), 1, TMarginalPixels::Copy);
  EXPECT_EQ(copy.At(0, 2), img.At(1, 2));
  EXPECT_EQ(copy.At(5, 3), img.At(4, 3));
  EXPECT_EQ(copy.At(0, 0), img.At(1, 1)); // corner: nearest calculated pixel
  EXPECT_EQ(copy.At(5, 4), img.At(4, 3));
  EXPECT_FALSE(copy.valid[0]); // takes the flag of the line it copies
  FillImageBorder(img.Out(), 1, TMarginalPixels::Zero);
  EXPECT_EQ(img.At(0, 2), 0.0f);
  EXPECT_EQ(img.At(3, 4), 0.0f);
  EXPECT_TRUE(img.valid[0]);
  EXPECT_EQ(img.At(2, 2), 22.0f);
}

TEST(ImageFilterKinds, ConstantImageGivesConstantOrZero) {
  const Image flat(9, 7, [](int, int) { return 3.5f; });
  for (const TImageFilterParameters& p : AllKinds()) {
    if (p.Margin == TMarginalPixels::Zero) continue;
    const Image out = Filter(p, flat);
    float expected = 0.0f;
    if (p.Kind == TImageFilterKind::Average || p.Kind == TImageFilterKind::Median ||
        p.Kind == TImageFilterKind::Sharpen)
      expected = 3.5f;
    if (p.Kind == TImageFilterKind::Sobel) expected = float(kSobelFlatTheta);
    if (p.Kind == TImageFilterKind::Custom) expected = 3.5f * (1 - 2 + 0.5 + 3 - 1 + 0.25 + 2 - 4) / 3.0f;
    for (int y = 0; y < flat.ny; ++y)
      for (int x = 0; x < flat.nx; ++x)
        ASSERT_NEAR(out.At(x, y), expected, 1e-5) << "kind " << int(p.Kind) << " at " << x << "," << y;
  }
}

TEST(ImageFilterKinds, SizeZeroCopiesTheImage) {
  const Image in = Noise(8, 6, 3);
  for (TImageFilterKind k : {TImageFilterKind::Average, TImageFilterKind::Median}) {
    const Image out = Filter(Params(k, 0), in);
    EXPECT_EQ(out.data, in.data);
  }
}

TEST(ImageFilterKinds, AverageOfDeltaIsTheBinomialProduct) {
  const Image delta(11, 11, [](int x, int y) { return x == 5 && y == 5 ? 1.0f : 0.0f; });
  for (int s : {1, 2, 3}) {
    const std::vector<double> b = CalculateBinomialBuffer(s);
    const double norm = std::pow(4.0, 2 * s);
    const Image out = Filter(Params(TImageFilterKind::Average, s), delta);
    for (int y = 0; y < 11; ++y)
      for (int x = 0; x < 11; ++x) {
        const int i = x - 5 + s, j = y - 5 + s;
        const double expected = (i >= 0 && i <= 2 * s && j >= 0 && j <= 2 * s) ? b[i] * b[j] / norm : 0.0;
        ASSERT_NEAR(out.At(x, y), expected, 1e-7) << s << " " << x << "," << y;
      }
  }
}

TEST(ImageFilterKinds, AverageAtTheEdgeUsesMirroredPixels) {
  // A pixel at x = 0 with size 1 sees x = 1, 0, 1: (1 a1 + 2 a0 + 1 a1) / 4 along a single row profile.
  const Image in(6, 4, [](int x, int) { return float(x * x); });
  const Image out = Filter(Params(TImageFilterKind::Average, 1), in);
  EXPECT_NEAR(out.At(0, 2), (1 + 0 + 1) / 4.0, 1e-6);
  EXPECT_NEAR(out.At(5, 0), (16 + 2 * 25 + 16) / 4.0, 1e-5);
  EXPECT_NEAR(out.At(2, 1), (1 + 8 + 9) / 4.0, 1e-5);
}

TEST(ImageFilterKinds, MedianRemovesAnOutlierAndMatchesSortedWindows) {
  Image in = Noise(7, 6, 11);
  const Image out = Filter(Params(TImageFilterKind::Median, 1), in);
  for (int y = 0; y < in.ny; ++y)
    for (int x = 0; x < in.nx; ++x) {
      std::vector<float> w;
      for (int j = -1; j <= 1; ++j)
        for (int i = -1; i <= 1; ++i)
          w.push_back(in.At(MirrorIndex(x + i, in.nx), MirrorIndex(y + j, in.ny)));
      std::sort(w.begin(), w.end());
      ASSERT_EQ(out.At(x, y), w[4]) << x << "," << y;
    }
  Image spike(5, 5, [](int x, int y) { return x == 2 && y == 2 ? 1000.0f : 1.0f; });
  EXPECT_EQ(Filter(Params(TImageFilterKind::Median, 1), spike).At(2, 2), 1.0f);
}

TEST(ImageFilterKinds, VarianceDividesByTheCount) {
  const Image checker(6, 6, [](int x, int y) { return (x + y) % 2 == 0 ? 1.0f : 0.0f; });
  const Image out = Filter(Params(TImageFilterKind::Variance, 1), checker);
  EXPECT_NEAR(out.At(2, 2), 20.0 / 81.0, 1e-6); // five ones, four zeros
  EXPECT_NEAR(out.At(3, 2), 20.0 / 81.0, 1e-6); // four ones, five zeros
}

TEST(ImageFilterKinds, SobelOnARampGivesItsSlopesDividedByTheStep) {
  const Image ramp(8, 7, [](int x, int y) { return 3.0f * x - 2.0f * y + 1.0f; });
  TImageFilterParameters p = Params(TImageFilterKind::Sobel);
  p.StepX = 0.5;
  p.StepY = 2.0;
  const double gx = 3.0 / 0.5, gy = -2.0 / 2.0;
  const std::pair<TSobelOutput, double> cases[] = {{TSobelOutput::Gx, gx},
                                                   {TSobelOutput::Gy, gy},
                                                   {TSobelOutput::G, std::hypot(gx, gy)},
                                                   {TSobelOutput::Theta, std::atan(gy / gx)}};
  for (const auto& [output, expected] : cases) {
    p.SobelOutput = output;
    const Image out = Filter(p, ramp);
    for (int y = 1; y < 6; ++y)
      for (int x = 1; x < 7; ++x) ASSERT_NEAR(out.At(x, y), expected, 1e-5) << int(output);
  }
  p.SobelOutput = TSobelOutput::Theta;
  p.ThetaInDegree = true;
  EXPECT_NEAR(Filter(p, ramp).At(3, 3), std::atan(gy / gx) * kRadianToDegree, 1e-4);
  // Vertical gradient only: +-90 degrees; flat: the marker, scaled too.
  const Image down(5, 5, [](int, int y) { return float(y); });
  EXPECT_NEAR(Filter(p, down).At(2, 2), 90.0, 1e-4);
  const Image up(5, 5, [](int, int y) { return float(-y); });
  EXPECT_NEAR(Filter(p, up).At(2, 2), -90.0, 1e-4);
  const Image flat(5, 5, [](int, int) { return 1.0f; });
  EXPECT_NEAR(Filter(p, flat).At(2, 2), -6.0 * kRadianToDegree, 1e-3);
  p.ThetaInDegree = false;
  EXPECT_EQ(Filter(p, flat).At(0, 0), -6.0f);
}

TEST(ImageFilterKinds, KirschOnAHorizontalStep) {
  const Image step(6, 8, [](int, int y) { return y >= 4 ? 10.0f : 0.0f; });
  TImageFilterParameters p = Params(TImageFilterKind::Kirsch);
  p.KirschDirection = 1; // north: 5 on the top row
  EXPECT_NEAR(Filter(p, step).At(2, 3), -90.0, 1e-5);
  EXPECT_NEAR(Filter(p, step).At(2, 4), -150.0, 1e-5);
  p.KirschDirection = 5; // south, four turns clockwise
  EXPECT_NEAR(Filter(p, step).At(2, 3), 150.0, 1e-5);
  EXPECT_NEAR(Filter(p, step).At(2, 4), 90.0, 1e-5);
  p.KirschDirection = 3; // east: right column
  EXPECT_NEAR(Filter(p, step).At(2, 3), 50.0 - 30.0 - 30.0, 1e-5);
  p.KirschDirection = 2; // north east: top row right, right column top
  EXPECT_NEAR(Filter(p, step).At(2, 3), -3.0 * 10 - 3.0 * 10 - 3.0 * 10, 1e-5);
  p.KirschDirection = 0;
  EXPECT_NEAR(Filter(p, step).At(2, 3), 150.0, 1e-5);
  EXPECT_NEAR(Filter(p, step).At(2, 4), 90.0, 1e-5);
  EXPECT_NEAR(Filter(p, step).At(2, 1), 0.0, 1e-5);
}

TEST(ImageFilterKinds, LaplaceTypesOnAQuadratic) {
  const Image quad(9, 9, [](int x, int) { return float(x * x); });
  const double expected[] = {2.0, 6.0, 8.0};
  TImageFilterParameters p = Params(TImageFilterKind::Laplace);
  for (int type = 1; type <= 3; ++type) {
    p.LaplaceType = type;
    const Image out = Filter(p, quad);
    for (int y = 0; y < 9; ++y)
      for (int x = 1; x < 8; ++x) ASSERT_NEAR(out.At(x, y), expected[type - 1], 1e-4) << type;
  }
}

TEST(ImageFilterKinds, CustomCoefficientsAreNotFlipped) {
  const Image in = Noise(7, 6, 5);
  TImageFilterParameters p = Params(TImageFilterKind::Custom);
  // Coefficient (i = 2, j = 0) reads pixel (x + 1, y - 1).
  p.CustomCoefficients = {0, 0, 1, 0, 0, 0, 0, 0, 0};
  p.CustomFactor = 2.0;
  const Image out = Filter(p, in);
  for (int y = 0; y < in.ny; ++y)
    for (int x = 0; x < in.nx; ++x)
      ASSERT_FLOAT_EQ(out.At(x, y), in.At(MirrorIndex(x + 1, in.nx), MirrorIndex(y - 1, in.ny)) / 2.0f);
}

TEST(ImageFilterKinds, SharpenAddsTheDeviationAboveTheThreshold) {
  const Image delta(7, 7, [](int x, int y) { return x == 3 && y == 3 ? 1.0f : 0.0f; });
  TImageFilterParameters p = Params(TImageFilterKind::Sharpen, 1);
  const Image out = Filter(p, delta);
  EXPECT_NEAR(out.At(3, 3), 1.0 + (1.0 - 4.0 / 16.0), 1e-6);
  EXPECT_NEAR(out.At(2, 3), 0.0 - 2.0 / 16.0, 1e-6);
  EXPECT_NEAR(out.At(2, 2), -1.0 / 16.0, 1e-6);
  p.SharpenThreshold = -0.2; // only |threshold| counts: deviations of 1/16 and 1/8 are dropped
  const Image kept = Filter(p, delta);
  EXPECT_NEAR(kept.At(3, 3), 1.75, 1e-6);
  EXPECT_EQ(kept.At(2, 3), 0.0f);
  EXPECT_EQ(kept.At(2, 2), 0.0f);
  p.SharpenThreshold = 0;
  p.SharpenAmount = 0.5;
  EXPECT_NEAR(Filter(p, delta).At(3, 3), 1.0 + (1.0 - 0.5 * 0.25), 1e-6);
}

TEST(ImageFilterMargins, CopyAndZeroKeepTheInteriorOfMirror) {
  const Image in = Noise(10, 9, 21);
  for (TImageFilterKind k :
       {TImageFilterKind::Average, TImageFilterKind::Median, TImageFilterKind::Laplace}) {
    const int s = 2;
    const Image mirror = Filter(Params(k, s), in);
    const Image copy = Filter(Params(k, s, TMarginalPixels::Copy), in);
    const Image zero = Filter(Params(k, s, TMarginalPixels::Zero), in);
    const int b = k == TImageFilterKind::Laplace ? 1 : s;
    for (int y = 0; y < in.ny; ++y)
      for (int x = 0; x < in.nx; ++x) {
        const bool inside = x >= b && x < in.nx - b && y >= b && y < in.ny - b;
        if (inside) {
          ASSERT_FLOAT_EQ(copy.At(x, y), mirror.At(x, y));
          ASSERT_FLOAT_EQ(zero.At(x, y), mirror.At(x, y));
        } else {
          ASSERT_EQ(zero.At(x, y), 0.0f);
          const int cx = std::clamp(x, b, in.nx - 1 - b), cy = std::clamp(y, b, in.ny - 1 - b);
          ASSERT_EQ(copy.At(x, y), mirror.At(cx, cy));
        }
      }
  }
}

TEST(ImageFilterLines, InvalidLinesAreSkipped) {
  Image ramp(6, 8, [](int x, int y) { return float(x + 10 * y); });
  ramp.valid[3] = false;
  for (int x = 0; x < 6; ++x) ramp.data[3 * 6 + x] = 1e6f; // must never be read
  const Image avg = Filter(Params(TImageFilterKind::Average, 1), ramp);
  EXPECT_TRUE(avg.valid[3]);
  EXPECT_NEAR(avg.At(2, 3), 32.0, 1e-4);                // rows 2 and 4 with equal weights: linear in y
  EXPECT_NEAR(avg.At(2, 2), (12 + 2 * 22) / 3.0, 1e-4); // rows 1, 2 with weights 1, 2
  const Image med = Filter(Params(TImageFilterKind::Median, 1), ramp);
  EXPECT_TRUE(med.valid[3]);
  EXPECT_LT(med.At(2, 3), 1000.0f);
  // Fixed kernels need every row they weigh: lines 2, 3, 4 become invalid.
  const Image lap = Filter(Params(TImageFilterKind::Laplace), ramp);
  EXPECT_FALSE(lap.valid[2]);
  EXPECT_FALSE(lap.valid[3]);
  EXPECT_FALSE(lap.valid[4]);
  EXPECT_TRUE(lap.valid[5]);
  EXPECT_FALSE(Filter(Params(TImageFilterKind::Sharpen), ramp).valid[3]);
  // A window without any valid row: weight sum 0, the output line is invalid.
  const Image copy = Filter(Params(TImageFilterKind::Average, 0), ramp);
  EXPECT_FALSE(copy.valid[3]);
  ramp.valid[2] = ramp.valid[4] = false;
  EXPECT_FALSE(Filter(Params(TImageFilterKind::Average, 1), ramp).valid[3]);
  EXPECT_FALSE(Filter(Params(TImageFilterKind::Variance, 1), ramp).valid[3]);
  EXPECT_TRUE(Filter(Params(TImageFilterKind::Variance, 1), ramp).valid[5]);
}

TEST(ImageFilterLines, AnySplitOfTheLinesGivesTheSameBits) {
  Image in = Noise(23, 19, 99);
  in.valid[7] = false;
  for (const TImageFilterParameters& p : AllKinds()) {
    const Image whole = Filter(p, in);
    for (int parts : {2, 3}) {
      Image out(in.nx, in.ny, [](int, int) { return -999.0f; });
      TImageFilter filter(p, in.In(), out.Out());
      for (int pass = 0; pass < filter.NumberOfPasses(); ++pass) {
        std::vector<std::thread> threads;
        for (int t = 0; t < parts; ++t)
          threads.emplace_back(
              [&, t] { filter.CalculateLines(pass, t * in.ny / parts, (t + 1) * in.ny / parts - 1); });
        for (auto& th : threads) th.join();
      }
      filter.FinishImage();
      ASSERT_EQ(0, std::memcmp(out.data.data(), whole.data.data(), out.data.size() * sizeof(float)))
          << "kind " << int(p.Kind) << " margin " << int(p.Margin) << " parts " << parts;
      for (int y = 0; y < in.ny; ++y) ASSERT_EQ(out.valid[y], whole.valid[y]);
    }
  }
}

TEST(ImageFilterParameters, BadParametersAndImagesAreRefused) {
  const Image in = Noise(5, 5, 1);
  Image out(5, 5, [](int, int) { return 0.0f; });
  auto refuses = [&](const TImageFilterParameters& p) {
    EXPECT_THROW(TImageFilter(p, in.In(), out.Out()), OrvexExceptionImageFilter) << int(p.Kind);
  };
  refuses(Params(TImageFilterKind::Average, 10));
  refuses(Params(TImageFilterKind::Median, -1));
  refuses(Params(TImageFilterKind::Variance, 0));
  refuses(Params(TImageFilterKind::Anisotropic, 1));
  refuses(Params(TImageFilterKind::Average, 5)); // Mirror needs size + 1 = 6 pixels
  TImageFilterParameters custom = Params(TImageFilterKind::Custom, 1);
  custom.CustomCoefficients.assign(8, 1.0);
  refuses(custom);
  custom.CustomCoefficients.assign(9, 1.0);
  custom.CustomFactor = 0.0;
  refuses(custom);
  refuses(Params(TImageFilterKind::Median, 3, TMarginalPixels::Copy)); // needs 7 pixels
  TImageFilterParameters laplace = Params(TImageFilterKind::Laplace);
  laplace.LaplaceType = 4;
  refuses(laplace);
  EXPECT_NO_THROW(
      TImageFilter(Params(TImageFilterKind::Median, 2, TMarginalPixels::Copy), in.In(), out.Out()));
  EXPECT_NO_THROW(TImageFilter(Params(TImageFilterKind::Median, 4), in.In(), out.Out()));
  Image small(5, 4, [](int, int) { return 0.0f; });
  EXPECT_THROW(TImageFilter(Params(TImageFilterKind::Median, 1), in.In(), small.Out()),
               OrvexExceptionImageFilter);
}
