// Principal component analysis of the demo map against the truth it was made from: the first ten loadings
// span every true component spectrum, and the first ten score images explain every true abundance.
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "tools/multivariate/Pcacore.h"

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

TEST(PcaDemoTruth, TenComponentsSpanTheSpectraAndExplainTheAbundances) {
  oxtest::EnsureMemoryStrategy();
  RegisterDataClasses();
  TDemoOptions options;
  options.SizeX = options.SizeY = 64;
  options.SizeGraph = 512;
  TProject project;
  const TDemoIDs ids = CreateDemoProject(project, options);
  const TDemoModel model = MakeDemoModel(options);
  const auto* map = dynamic_cast<const TDGraph*>(project.FindData(ids.Map));
  ASSERT_NE(map, nullptr);
  TPCACore core;
  ASSERT_EQ(core.Calculate(*map, {}, nullptr, 2), TPCAStatus::Ok) << core.Error();
  const int p = options.SizeGraph, pixels = 64 * 64, k = 10;
  ASSERT_EQ(core.PixelCount(), pixels);

  // Each true spectrum within 15 degrees of the span of the first ten (orthonormal) loadings.
  for (std::size_t c = 0; c < model.ComponentSpectra.size(); ++c) {
    const std::vector<float>& s = model.ComponentSpectra[c];
    double norm2 = 0, projected2 = 0;
    for (int g = 0; g < p; ++g) norm2 += double(s[g]) * s[g];
    for (int pc = 0; pc < k; ++pc) {
      double dot = 0;
      for (int g = 0; g < p; ++g) dot += s[g] * core.EigenVectorOfPC(g, pc);
      projected2 += dot * dot;
    }
    const double degrees = std::acos(std::min(1.0, std::sqrt(projected2 / norm2))) * 180.0 / M_PI;
    EXPECT_LE(degrees, 15.0) << "component " << c;
  }

  // Score images of the first ten components over all pixels (index x + y * 64).
  std::vector<double> scores(static_cast<std::size_t>(pixels) * k);
  std::vector<float> spectrum(p);
  std::vector<int> pcs;
  for (int pc = 0; pc < k; ++pc) pcs.push_back(pc);
  for (int e = 0; e < pixels; ++e) {
    map->GetSpectrumOfElement(e, spectrum.data());
    core.Scores(spectrum.data(), pcs, scores.data() + static_cast<std::size_t>(e) * k);
  }
  // The score images are uncorrelated over the pixels, so the explained share of a linear fit on them is the
  // sum of the squared correlations.
  std::vector<float> abundance(pixels);
  for (std::size_t c = 0; c < model.ComponentSpectra.size(); ++c) {
    SynthesizeDemoAbundance(model, static_cast<int>(c), abundance.data());
    double mean = 0;
    for (float a : abundance) mean += a;
    mean /= pixels;
    double variance = 0;
    for (float a : abundance) variance += (a - mean) * (a - mean);
    double explained = 0;
    for (int pc = 0; pc < k; ++pc) {
      double cov = 0, var = 0;
      for (int e = 0; e < pixels; ++e) {
        const double s = scores[static_cast<std::size_t>(e) * k + pc];
        cov += (abundance[e] - mean) * s;
        var += s * s;
      }
      explained += cov * cov / (var * variance);
    }
    EXPECT_GE(explained, 0.93) << "abundance " << c;
    EXPECT_LE(explained, 1.0 + 1e-9) << "abundance " << c;
  }
}
