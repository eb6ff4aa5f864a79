// Peak finding: Gaussian and Lorentzian bands on a sloped baseline and a nonlinear axis (position, height,
// the inflection width rule), negative peaks, noise, flat tops, the ends, short spectra and the fall-backs,
// the limits, the list checks and the stored settings.
#include "common/numerics/Peakfind.h"

#include "common/OrvexException.h"
#include "common/Tagcontrol.h"
#include "support/TestSupport.h"

#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

const double kG = std::sqrt(8.0 * std::log(2.0));

// A nonlinear axis: the step grows from 2 to about 4 over 1024 pixels.
double Axis(double i) {
  return 100.0 + 2.0 * i + 0.001 * i * i;
}

std::vector<float> AxisValues(int n) {
  std::vector<float> x(n);
  for (int i = 0; i < n; ++i) x[i] = static_cast<float>(Axis(i));
  return x;
}

double Baseline(int i) {
  return 20.0 + 0.02 * i;
}

std::vector<float> WithBands(int n, double gaussCentre, double gaussSigma, double gaussHeight,
                             double lorCentre, double lorHalfWidth, double lorHeight, double noiseSigma = 0,
                             unsigned seed = 1) {
  std::mt19937 g(seed);
  std::normal_distribution<double> noise(0.0, noiseSigma > 0 ? noiseSigma : 1.0);
  std::vector<float> y(n);
  for (int i = 0; i < n; ++i) {
    double v = Baseline(i) + gaussHeight * std::exp(-0.5 * std::pow((i - gaussCentre) / gaussSigma, 2)) +
               lorHeight / (1 + std::pow((i - lorCentre) / lorHalfWidth, 2));
    if (noiseSigma > 0) v += noise(g);
    y[i] = static_cast<float>(v);
  }
  return y;
}

const TPeakInformation* Near(const TPeakInformationList& list, double pixel, double tolerance) {
  for (const TPeakInformation& p : list)
    if (std::fabs(p.PeakPixelPosition - pixel) <= tolerance) return &p;
  return nullptr;
}

// The axis position of a pixel position, for comparing within a fraction of a pixel.
double AxisTolerance(double pixel, double pixels) {
  return (Axis(pixel + pixels) - Axis(pixel - pixels)) / 2;
}

} // namespace

TEST(PeakFindBands, GaussianAndLorentzianOnSlopeAndNonlinearAxis) {
  const int n = 1024;
  const double gc = 300.3, gs = 8.0, gh = 100.0, lc = 700.6, lw = 15.0, lh = 80.0;
  const std::vector<float> y = WithBands(n, gc, gs, gh, lc, lw, lh);
  const std::vector<float> x = AxisValues(n);
  // Without any limit the float rounding ripples of the far tails count as peaks too; a small minimum
  // relative height keeps the bands only.
  TPeakFindControlStruct control;
  control.UseMinRelativePeakValueLimit = true;
  control.MinRelativePeakValueLimit = 0.01;
  TPeakFindCalculate pf;
  ASSERT_TRUE(pf.Prepare(&control, n, x.data(), nullptr));
  ASSERT_TRUE(pf.FindPeaks(y.data()));
  const TPeakInformationList& peaks = pf.GetPeakInformationList();
  ASSERT_EQ(peaks.size(), 2u);

  const TPeakInformation* gauss = Near(peaks, gc, 1.0);
  ASSERT_NE(gauss, nullptr);
  EXPECT_NEAR(gauss->PeakPixelPosition, gc, 0.05);
  EXPECT_NEAR(gauss->PeakXPosition, Axis(gc), AxisTolerance(gc, 0.05));
  // The band, the baseline and the other band's tail at the centre.
  auto model = [&](double i) {
    return 20.0 + 0.02 * i + gh * std::exp(-0.5 * std::pow((i - gc) / gs, 2)) +
           lh / (1 + std::pow((i - lc) / lw, 2));
  };
  EXPECT_NEAR(gauss->OriginalPeakAbsoluteHeight, model(gc), 0.02);
  EXPECT_NEAR(gauss->SmoothedPeakAbsoluteHeight, gauss->OriginalPeakAbsoluteHeight, 0.2);
  // The inflection rule gives the Gaussian's FWHM, here mapped through the axis.
  const double gaussFwhm = kG / 2 * (Axis(gc + gs) - Axis(gc - gs));
  EXPECT_NEAR(gauss->PeakFWHM, gaussFwhm, 0.02 * gaussFwhm);
  EXPECT_NEAR(gauss->PeakRelativeHeight, gh, 0.03 * gh);
  EXPECT_NEAR(gauss->FWHMAsymmetryFactor, 1.0, 0.03);
  EXPECT_FALSE(gauss->IsNegativePeak);
  EXPECT_FALSE(gauss->IsCustomPeak);

  const TPeakInformation* lor = Near(peaks, lc, 1.0);
  ASSERT_NE(lor, nullptr);
  EXPECT_NEAR(lor->PeakPixelPosition, lc, 0.05);
  EXPECT_NEAR(lor->PeakXPosition, Axis(lc), AxisTolerance(lc, 0.05));
  EXPECT_NEAR(lor->OriginalPeakAbsoluteHeight, model(lc), 0.02);
  // For a Lorentzian the rule gives 0.680 of the true FWHM (inflections at +- half width / sqrt 3).
  const double lorFwhm = Axis(lc + lw) - Axis(lc - lw);
  EXPECT_NEAR(lor->PeakFWHM / lorFwhm, 0.680, 0.02);
}

TEST(PeakFindBands, NegativePeaksMirrorPositiveOnes) {
  const int n = 512;
  std::vector<float> y = WithBands(n, 200.25, 7.0, 50.0, 0, 1, 0);
  for (float& v : y) v = 100.0f - v;
  TPeakFindControlStruct control;
  control.CalculatePositivePeaks = false;
  control.CalculateNegativePeaks = true;
  TPeakFindCalculate pf;
  ASSERT_TRUE(pf.Prepare(&control, n, nullptr, nullptr));
  ASSERT_TRUE(pf.FindPeaks(y.data()));
  ASSERT_EQ(pf.GetPeakInformationList().size(), 1u);
  const TPeakInformation& p = pf.GetPeakInformationList()[0];
  EXPECT_TRUE(p.IsNegativePeak);
  EXPECT_NEAR(p.PeakPixelPosition, 200.25, 0.05);
  EXPECT_NEAR(p.PeakXPosition, p.PeakPixelPosition, 1e-9); // no axis: pixel numbers
  EXPECT_NEAR(p.PeakFWHM, kG * 7.0, 0.02 * kG * 7.0);
  EXPECT_NEAR(p.PeakRelativeHeight, -50.0, 1.5);
  // Positive search alone finds nothing in this spectrum's band.
  control.CalculatePositivePeaks = true;
  control.CalculateNegativePeaks = false;
  ASSERT_TRUE(pf.Prepare(&control, n, nullptr, nullptr));
  ASSERT_TRUE(pf.FindPeaks(y.data()));
  EXPECT_FALSE(TPeakFindCalculate::CheckPeakInformationList(pf.GetPeakInformationList(), 3.0, 200.25));
}

TEST(PeakFindBands, NoisyBandsAndNoiseOnly) {
  const int n = 1024;
  const double sigma = 1.0;
  const std::vector<float> y = WithBands(n, 250.4, 6.0, 60.0, 640.7, 5.0, 60.0, sigma, 5);
  TPeakFindControlStruct control;
  control.UseMinRelativePeakValueLimit = true;
  // The relative height is twice the drop to the half-width points, so 8 sigma is a drop of 4 sigma.
  control.MinRelativePeakValueLimit = 8 * sigma;
  TPeakFindCalculate pf;
  ASSERT_TRUE(pf.Prepare(&control, n, nullptr, nullptr));
  ASSERT_TRUE(pf.FindPeaks(y.data()));
  const TPeakInformationList& peaks = pf.GetPeakInformationList();
  EXPECT_EQ(peaks.size(), 2u);
  const TPeakInformation* gauss = Near(peaks, 250.4, 1.0);
  const TPeakInformation* lor = Near(peaks, 640.7, 1.0);
  ASSERT_NE(gauss, nullptr);
  ASSERT_NE(lor, nullptr);
  EXPECT_NEAR(gauss->PeakPixelPosition, 250.4, 0.3);
  EXPECT_NEAR(lor->PeakPixelPosition, 640.7, 0.3);

  for (unsigned seed : {21u, 22u, 23u}) {
    const std::vector<float> noise = WithBands(n, 0, 1, 0, 0, 1, 0, sigma, seed);
    ASSERT_TRUE(pf.FindPeaks(noise.data()));
    EXPECT_TRUE(pf.GetPeakInformationList().empty()) << seed << ": " << pf.GetPeakInformationList().size();
  }
}

TEST(PeakFindRules, SymmetricTopAndFlatShoulder) {
  // No smoothing, fixed stencil: the stencil on a peak symmetric about pixel 20 is exactly 0 there.
  const int n = 41;
  std::vector<float> y(n);
  for (int i = 0; i < n; ++i) y[i] = static_cast<float>(10.0 * std::exp(-0.5 * std::pow((i - 20) / 3.0, 2)));
  TPeakFindControlStruct control;
  control.SmoothKind = 0;
  TPeakFindCalculate pf;
  ASSERT_TRUE(pf.Prepare(&control, n, nullptr, nullptr));
  ASSERT_TRUE(pf.FindPeaks(y.data()));
  ASSERT_EQ(pf.FirstDerivative()[20], 0.0f);
  ASSERT_EQ(pf.GetPeakInformationList().size(), 1u);
  EXPECT_EQ(pf.GetPeakInformationList()[0].PeakPixelPosition, 20.0);

  // A rise into a long flat top: d1 goes positive, zero, zero with d2 negative on both sides of the
  // first zero; the flat shoulder rule refuses it, and no other pixel qualifies.
  std::vector<float> s(n, 0.0f);
  for (int i = 0; i < 15; ++i) s[i] = static_cast<float>(-(15 - i) * (15 - i));
  ASSERT_TRUE(pf.FindPeaks(s.data()));
  const std::vector<float>& d1 = pf.FirstDerivative();
  const std::vector<float>& d2 = pf.SecondDerivative();
  const int c = 17;
  ASSERT_GT(d1[c - 1], 0.0f);
  ASSERT_EQ(d1[c], 0.0f);
  ASSERT_EQ(d1[c + 1], 0.0f);
  ASSERT_LT(d2[c - 1], 0.0f);
  ASSERT_LT(d2[c], 0.0f);
  EXPECT_TRUE(pf.GetPeakInformationList().empty());
}

TEST(PeakFindRules, EndsShortSpectraAndFallBacks) {
  TPeakFindControlStruct control;
  TPeakFindCalculate pf;
  // A maximum at the last pixel and the fixed stencil's zero borders: no peak.
  const int n = 64;
  std::vector<float> rising(n);
  for (int i = 0; i < n; ++i) rising[i] = static_cast<float>(i * i);
  ASSERT_TRUE(pf.Prepare(&control, n, nullptr, nullptr));
  ASSERT_TRUE(pf.FindPeaks(rising.data()));
  EXPECT_TRUE(pf.GetPeakInformationList().empty());
  for (int i : {0, 1, 2, n - 3, n - 2, n - 1}) {
    EXPECT_EQ(pf.FirstDerivative()[i], 0.0f) << i;
    EXPECT_EQ(pf.SecondDerivative()[i], 0.0f) << i;
  }
  // A band centred two pixels from the start is in the stencil's blind border.
  TPeakFindControlStruct limited = control;
  limited.UseMinRelativePeakValueLimit = true;
  limited.MinRelativePeakValueLimit = 0.01;
  ASSERT_TRUE(pf.Prepare(&limited, n, nullptr, nullptr));
  std::vector<float> early(n);
  for (int i = 0; i < n; ++i) early[i] = static_cast<float>(std::exp(-0.5 * std::pow((i - 2) / 1.5, 2)));
  ASSERT_TRUE(pf.FindPeaks(early.data()));
  EXPECT_TRUE(pf.GetPeakInformationList().empty());

  EXPECT_FALSE(pf.FindPeaks(nullptr));
  // Ten points with the wavelet default fall back to Savitzky-Golay smoothing and derivative.
  ASSERT_TRUE(pf.Prepare(&control, 10, nullptr, nullptr));
  EXPECT_EQ(pf.Control().SmoothKind, 1);
  EXPECT_EQ(pf.Control().DerivativeKind, 0);
  const std::vector<float> ten = {0, 1, 3, 6, 9, 9, 6, 3, 1, 0};
  EXPECT_TRUE(pf.FindPeaks(ten.data()));
  // Sixteen keep the wavelet; a fixed stencil stays when the smoothing is not wavelet.
  ASSERT_TRUE(pf.Prepare(&control, 16, nullptr, nullptr));
  EXPECT_EQ(pf.Control().SmoothKind, 2);
  EXPECT_EQ(pf.Control().DerivativeKind, 1);
  TPeakFindControlStruct none = control;
  none.SmoothKind = 0;
  ASSERT_TRUE(pf.Prepare(&none, 10, nullptr, nullptr));
  EXPECT_EQ(pf.Control().SmoothKind, 0);
  EXPECT_EQ(pf.Control().DerivativeKind, 1);
  // Below six points: false and no peaks.
  ASSERT_TRUE(pf.Prepare(&none, 5, nullptr, nullptr));
  const std::vector<float> five = {0, 2, 5, 2, 0};
  EXPECT_FALSE(pf.FindPeaks(five.data()));
  EXPECT_TRUE(pf.GetPeakInformationList().empty());
  // Savitzky-Golay settings that make no filter, and no settings.
  TPeakFindControlStruct bad = control;
  bad.SmoothKind = 1;
  bad.SmoothLeftPoints = bad.SmoothRightPoints = 1;
  bad.SmoothOrder = 4;
  EXPECT_FALSE(pf.Prepare(&bad, 100, nullptr, nullptr));
  EXPECT_FALSE(pf.FindPeaks(rising.data()));
  EXPECT_FALSE(pf.Prepare(nullptr, 100, nullptr, nullptr));
}

TEST(PeakFindRules, SavitzkyGolayPathFindsBands) {
  const int n = 400;
  const std::vector<float> y = WithBands(n, 120.2, 6.0, 40.0, 280.5, 5.0, 40.0);
  TPeakFindControlStruct control;
  control.SmoothKind = 1;
  control.DerivativeKind = 0;
  TPeakFindCalculate pf;
  ASSERT_TRUE(pf.Prepare(&control, n, nullptr, nullptr));
  ASSERT_TRUE(pf.FindPeaks(y.data()));
  EXPECT_EQ(pf.GetPeakInformationList().size(), 2u);
  const TPeakInformation* gauss = Near(pf.GetPeakInformationList(), 120.2, 0.1);
  ASSERT_NE(gauss, nullptr);
  EXPECT_NEAR(gauss->PeakFWHM, kG * 6.0, 0.05 * kG * 6.0);
  EXPECT_NE(Near(pf.GetPeakInformationList(), 280.5, 0.1), nullptr);
}

TEST(PeakFindRules, MaskAndLimits) {
  const int n = 600;
  // A tall narrow band, a low broad one and a skewed one (two Gaussians side by side).
  std::vector<float> y(n);
  for (int i = 0; i < n; ++i)
    y[i] = static_cast<float>(100 * std::exp(-0.5 * std::pow((i - 100) / 4.0, 2)) +
                              20 * std::exp(-0.5 * std::pow((i - 300) / 15.0, 2)) +
                              50 * std::exp(-0.5 * std::pow((i - 480) / 5.0, 2)) +
                              30 * std::exp(-0.5 * std::pow((i - 490) / 8.0, 2)));
  TPeakFindControlStruct control;
  control.UseMinRelativePeakValueLimit = true;
  control.MinRelativePeakValueLimit = 0.01;
  TPeakFindCalculate pf;
  auto positions = [&](const TPeakFindControlStruct& c, const bool* mask = nullptr) {
    EXPECT_TRUE(pf.Prepare(&c, n, nullptr, mask));
    EXPECT_TRUE(pf.FindPeaks(y.data()));
    std::vector<int> out;
    for (const TPeakInformation& p : pf.GetPeakInformationList())
      out.push_back(static_cast<int>(std::lround(p.PeakPixelPosition / 10) * 10));
    return out;
  };
  ASSERT_EQ(positions(control), (std::vector<int>{100, 300, 480}));

  TPeakFindControlStruct c = control;
  c.UseMinPeakValueLimit = true;
  c.MinPeakValueLimit = 30;
  EXPECT_EQ(positions(c), (std::vector<int>{100, 480}));
  c = control;
  c.UseMaxPeakValueLimit = true;
  c.MaxPeakValueLimit = 90;
  EXPECT_EQ(positions(c), (std::vector<int>{300, 480}));
  c = control;
  c.UseMaxFWHMLimit = true;
  c.MaxFWHMLimit = 2.3548 * 10;
  EXPECT_EQ(positions(c), (std::vector<int>{100, 480}));
  c = control;
  c.UseMinFWHMLimit = true;
  c.MinFWHMLimit = 2.3548 * 10;
  EXPECT_EQ(positions(c), (std::vector<int>{300}));
  // The band with a shoulder at its right: the curvature turns between the two components, the right
  // inflection comes early and wl/wr is about 1.27; the single Gaussians give 1.
  c = control;
  c.UseMinAsymmetryLimit = true;
  c.MinAsymmetryLimit = 1.1;
  EXPECT_EQ(positions(c), (std::vector<int>{480}));
  c = control;
  c.UseMaxAsymmetryLimit = true;
  c.MaxAsymmetryLimit = 1.1;
  EXPECT_EQ(positions(c), (std::vector<int>{100, 300}));
  c = control;
  c.UseMinRelativePeakValueLimit = true;
  c.MinRelativePeakValueLimit = 25;
  c.UseMaxRelativePeakValueLimit = true;
  c.MaxRelativePeakValueLimit = 99;
  EXPECT_EQ(positions(c), (std::vector<int>{480}));

  // Pixels outside the mask are not tested.
  std::unique_ptr<bool[]> mask(new bool[n]);
  for (int i = 0; i < n; ++i) mask[i] = i < 200 || i > 400;
  EXPECT_EQ(positions(control, mask.get()), (std::vector<int>{100, 480}));
}

TEST(PeakFindLists, CheckIncludesEndsAndImageHoldsLists) {
  TPeakInformation a, b;
  a.PeakPixelPosition = 10.0;
  b.PeakPixelPosition = 20.5;
  const TPeakInformationList list = {a, b};
  EXPECT_TRUE(TPeakFindCalculate::CheckPeakInformationList(list, 0.5, 20.0));
  EXPECT_TRUE(TPeakFindCalculate::CheckPeakInformationList(list, 0.5, 21.0));
  EXPECT_FALSE(TPeakFindCalculate::CheckPeakInformationList(list, 0.5, 21.25));
  EXPECT_TRUE(TPeakFindCalculate::CheckPeakInformationList(list, 0.0, 10.0));
  EXPECT_FALSE(TPeakFindCalculate::CheckPeakInformationList({}, 100.0, 10.0));
  TPeakInformation ref;
  ref.PeakPixelPosition = 11.0;
  EXPECT_TRUE(TPeakFindCalculate::CheckPeakInformationListByReferencePI(list, 1.0, ref));
  EXPECT_FALSE(TPeakFindCalculate::CheckPeakInformationListByReferencePI(list, 0.9, ref));

  TPeakInformationImage image;
  EXPECT_EQ(image.CopyPeakInformationList(list), 0);
  EXPECT_EQ(image.CopyPeakInformationList({}), 1);
  EXPECT_EQ(image.NumberOfLists(), 2);
  EXPECT_EQ(image.PeakInformationList(0), list);
  EXPECT_TRUE(image.PeakInformationList(1).empty());
  image.SetPeakInformationList(1, {b});
  EXPECT_EQ(image.PeakInformationList(1).size(), 1u);
  EXPECT_THROW(image.PeakInformationList(2), OrvexException);
  EXPECT_THROW(image.SetPeakInformationList(-1, list), OrvexException);
}

TEST(PeakFindSettings, StoredTagsRoundTripAndOthersStayDefault) {
  oxtest::TempDir dir;
  const std::string fileName = dir.File("peaks.oxt");
  TPeakFindControlStruct saved;
  saved.CalculatePositivePeaks = false;
  saved.CalculateNegativePeaks = true;
  saved.UseMinPeakValueLimit = saved.UseMaxPeakValueLimit = saved.UseMinRelativePeakValueLimit = true;
  saved.MinPeakValueLimit = -3.5;
  saved.MaxPeakValueLimit = 1e6;
  saved.MinRelativePeakValueLimit = 0.25;
  saved.UseMaxFWHMLimit = true;
  saved.MaxFWHMLimit = 12;
  saved.SmoothKind = 0;
  TPeakInformation info;
  info.IsCustomPeak = true;
  info.PeakPixelPosition = 12.25;
  info.PeakXPosition = 1580.5;
  info.OriginalPeakAbsoluteHeight = 7;
  info.SmoothedPeakAbsoluteHeight = 6.5;
  info.PeakFWHM = 3.75;
  info.PeakRelativeHeight = -2;
  info.FWHMAsymmetryFactor = 1.125;
  info.IsNegativePeak = true;

  TFileHandle f = CreateTagFile(fileName, "ORX_TEST");
  ASSERT_NE(f, kInvalidFileHandle);
  TTagControl root, peak;
  root.WriteTag(f, "Root", TTagKind::TagList);
  ASSERT_GE(saved.SaveToTagFile(f), 1);
  peak.WriteTag(f, "Peak0", TTagKind::TagList);
  ASSERT_GE(info.SaveToTagFile(f), 1);
  peak.CloseWriteTag(f);
  root.CloseWriteTag(f);
  CloseFile(f);

  TFileHandle r = kInvalidFileHandle;
  TTagControl readRoot;
  ASSERT_EQ(OpenTagFileForReading(fileName, {"ORX_TEST"}, r, readRoot), 1);
  TPeakFindControlStruct loaded;
  ASSERT_GE(loaded.LoadFromTagFile(r, readRoot), 1);
  TTagControl peakTag;
  ASSERT_GE(peakTag.FindTag(r, "Peak0", readRoot), 1);
  TPeakInformation loadedInfo;
  ASSERT_GE(loadedInfo.LoadFromTagFile(r, peakTag), 1);
  CloseFile(r);

  EXPECT_EQ(loaded.CalculatePositivePeaks, false);
  EXPECT_EQ(loaded.CalculateNegativePeaks, true);
  EXPECT_TRUE(loaded.UseMinPeakValueLimit && loaded.UseMaxPeakValueLimit &&
              loaded.UseMinRelativePeakValueLimit);
  EXPECT_EQ(loaded.MinPeakValueLimit, -3.5);
  EXPECT_EQ(loaded.MaxPeakValueLimit, 1e6);
  EXPECT_EQ(loaded.MinRelativePeakValueLimit, 0.25);
  // Not stored: these keep the defaults.
  EXPECT_FALSE(loaded.UseMaxFWHMLimit);
  EXPECT_EQ(loaded.MaxFWHMLimit, 0.0);
  EXPECT_EQ(loaded.SmoothKind, 2);
  EXPECT_EQ(loadedInfo, info);

  // Assign copies every field, the unstored ones too.
  TPeakFindControlStruct copy;
  copy.Assign(saved);
  EXPECT_TRUE(copy.UseMaxFWHMLimit);
  EXPECT_EQ(copy.MaxFWHMLimit, 12.0);
  EXPECT_EQ(copy.SmoothKind, 0);
  copy.Init();
  EXPECT_TRUE(copy.CalculatePositivePeaks);
  EXPECT_FALSE(copy.UseMaxFWHMLimit);
  EXPECT_EQ(copy.SmoothLeftPoints, 6);
  EXPECT_EQ(copy.SmoothRightPoints, 6);
  EXPECT_EQ(copy.SmoothOrder, 4);
  EXPECT_EQ(copy.WaveletNoiseFactor, 0.5);
  EXPECT_EQ(copy.SmoothKind, 2);
  EXPECT_EQ(copy.DerivativeKind, 1);
}

TEST(PeakFindThreads, OneSearchPerThreadGivesTheSameLists) {
  const int n = 512, spectra = 12;
  std::vector<std::vector<float>> ys;
  for (int s = 0; s < spectra; ++s)
    ys.push_back(WithBands(n, 100 + 25 * s, 5.0, 40.0, 400 - 10 * s, 4.0, 30.0, 1.0, 100 + s));
  TPeakFindControlStruct control;
  control.UseMinRelativePeakValueLimit = true;
  control.MinRelativePeakValueLimit = 8;
  auto run = [&](int from, int to, std::vector<TPeakInformationList>& out) {
    TPeakFindCalculate pf;
    ASSERT_TRUE(pf.Prepare(&control, n, nullptr, nullptr));
    for (int s = from; s < to; ++s) {
      ASSERT_TRUE(pf.FindPeaks(ys[s].data()));
      out[s] = pf.GetPeakInformationList();
    }
  };
  std::vector<TPeakInformationList> one(spectra), two(spectra);
  run(0, spectra, one);
  std::thread t([&] { run(0, spectra / 2, two); });
  run(spectra / 2, spectra, two);
  t.join();
  EXPECT_EQ(one, two);
  for (int s = 0; s < spectra; ++s) EXPECT_EQ(one[s].size(), 2u) << s;
}
