// Writes inputs and results of the covariance and eigen kernels as raw little-endian arrays, for the numpy
// cross-check next to this file.
//
// ox_pca_kernel_dump OUTDIR
//   spectra.f32      N x M float spectra (N = 5000, M = 257): average + five components + noise
//   covariance.f64   M x M covariance (divisor N) from the blocked rank-k update, blocks of 2000
//   evals.f64        M eigenvalues ascending, evecs.f64 M x M eigenvectors in the columns
//   sym.f64          S x S symmetric double matrix (S = 300), sym_evals.f64, sym_evecs.f64 likewise
#include "Rawarrays.h"
#include "common/numerics/Eigensystem.h"
#include "common/numerics/Rankupdate.h"

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: ox_pca_kernel_dump OUTDIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  const int n = 5000, m = 257, components = 5, blockLength = 2000;

  std::mt19937 gen(2024);
  std::normal_distribution<double> normal;
  std::vector<double> loadings(static_cast<std::size_t>(components) * m);
  for (double& x : loadings) x = normal(gen);
  std::vector<float> spectra(static_cast<std::size_t>(n) * m);
  for (int s = 0; s < n; ++s)
    for (int i = 0; i < m; ++i) {
      double x = 100.0 + 10.0 * std::sin(i * 0.05);
      spectra[s * m + i] = static_cast<float>(x);
    }
  for (int c = 0; c < components; ++c) {
    const double scale = std::pow(4.0, components - c);
    for (int s = 0; s < n; ++s) {
      const double score = scale * normal(gen);
      for (int i = 0; i < m; ++i) spectra[s * m + i] += static_cast<float>(score * loadings[c * m + i]);
    }
  }
  for (float& x : spectra) x += static_cast<float>(0.01 * normal(gen));

  std::vector<double> average(m, 0.0);
  for (int s = 0; s < n; ++s)
    for (int i = 0; i < m; ++i) average[i] += spectra[s * m + i];
  for (double& a : average) a /= n;

  TSymmetricRankUpdate update(m, blockLength);
  std::vector<double> covariance(static_cast<std::size_t>(m) * m, 0.0), centred(m);
  for (int s0 = 0; s0 < n; s0 += blockLength) {
    const int k = std::min(blockLength, n - s0);
    update.SetBlockLength(k);
    for (int s = 0; s < k; ++s) {
      for (int i = 0; i < m; ++i) centred[i] = spectra[(s0 + s) * m + i] - average[i];
      update.LoadSpectrum(s, centred.data());
    }
    update.UpdateAllTiles(covariance.data(), m, 2);
  }
  for (double& x : covariance) x /= n;
  TSymmetricRankUpdate::MirrorLowerToUpper(covariance.data(), m, m);

  TEigenHooks hooks;
  hooks.ParallelFor = MakeThreadParallelFor(2);
  std::vector<double> evecs = covariance, evals(m);
  if (SymmetricEigensystem(evecs.data(), m, m, evals.data(), hooks) != TEigenStatus::Ok) {
    std::fprintf(stderr, "eigen-solver failed on the covariance\n");
    return 1;
  }

  const int ns = 300;
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  std::vector<double> sym(static_cast<std::size_t>(ns) * ns);
  for (int i = 0; i < ns; ++i)
    for (int j = 0; j <= i; ++j) sym[i * ns + j] = sym[j * ns + i] = uniform(gen);
  std::vector<double> symVecs = sym, symVals(ns);
  if (SymmetricEigensystem(symVecs.data(), ns, ns, symVals.data(), hooks) != TEigenStatus::Ok) {
    std::fprintf(stderr, "eigen-solver failed on the symmetric matrix\n");
    return 1;
  }

  const bool ok = WriteRawArray(dir + "/spectra.f32", spectra) &&
                  WriteRawArray(dir + "/covariance.f64", covariance) &&
                  WriteRawArray(dir + "/evals.f64", evals) && WriteRawArray(dir + "/evecs.f64", evecs) &&
                  WriteRawArray(dir + "/sym.f64", sym) && WriteRawArray(dir + "/sym_evals.f64", symVals) &&
                  WriteRawArray(dir + "/sym_evecs.f64", symVecs);
  if (!ok) {
    std::fprintf(stderr, "cannot write to %s\n", dir.c_str());
    return 1;
  }
  std::printf("%d %d %d\n", n, m, ns);
  return 0;
}
