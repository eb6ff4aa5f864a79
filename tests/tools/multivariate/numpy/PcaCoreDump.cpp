// Runs a principal component analysis on a synthetic stack held as a graph of a project and writes the stack
// and every result graph, read back through the graphs, as raw little-endian arrays for the numpy check next
// to this file.
//
// ox_pca_core_dump OUTDIR      prints "X Y P M K R" (sizes, components, transformed PCs, reconstructed PCs)
//   stack.f32          the stack, spectrum after spectrum, e = x + y * X (P values each)
//   lines.u8           the valid flag of each line of the stack (Y bytes)
//   mask.u8            the spectrum mask (P bytes)
//   evals.f32          " (PCA)(EigenValues)": M values, the largest first
//   evecs.f32          " (PCA)(EigenVectors)": M spectra of P points, spectrum k for PC k
//   average.f32        " (PCA)(Average)": P values
//   transformed.f32    " (PCA)(Transformed)": X * Y spectra of K points (PCs 0..K-1)
//   tlines.u8          its line flags
//   reconstructed.f32  " (PCA)(Reconstructed)": X * Y spectra of P points from PCs 0..R-1
#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "tools/multivariate/Pcacore.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

template <typename T>
bool WriteRaw(const std::string& path, const std::vector<T>& data) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok = std::fwrite(data.data(), sizeof(T), data.size(), f) == data.size();
  return std::fclose(f) == 0 && ok;
}

// All spectra of a graph, e = x + y * X, including invalid lines.
std::vector<float> ReadAll(const TDGraph& graph) {
  const int sx = graph.GetSizeX(), sy = graph.GetSizeY(), p = graph.GetSizeGraph();
  std::vector<float> out(static_cast<std::size_t>(sx) * sy * p);
  for (int y = 0; y < sy; ++y)
    for (int x = 0; x < sx; ++x)
      graph.GetSpectrum(
          x, y, out.data() + (static_cast<std::size_t>(x) + static_cast<std::size_t>(y) * sx) * p, true);
  return out;
}

std::vector<std::uint8_t> Lines(const TDGraph& graph) {
  std::vector<std::uint8_t> out(static_cast<std::size_t>(graph.GetSizeY()));
  for (int y = 0; y < graph.GetSizeY(); ++y) out[y] = graph.GetLineValid(y) ? 1 : 0;
  return out;
}

} // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: ox_pca_core_dump OUTDIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();

  // 48 x 45 pixels (line 7 invalid and full of junk): 2112 spectra, two blocks of the covariance. Five
  // bands of very different strength on a sloping background, with a little noise.
  const int sx = 48, sy = 45, p = 180, junkLine = 7, transformedPCs = 10, reconstructedPCs = 5;
  std::mt19937 gen(61);
  std::normal_distribution<double> normal;
  std::vector<float> stack(static_cast<std::size_t>(sx) * sy * p);
  const double centres[5] = {30, 55, 80, 120, 150}, widths[5] = {6, 10, 4, 15, 8};
  const double strengths[5] = {400, 120, 40, 12, 4};
  for (int e = 0; e < sx * sy; ++e) {
    float* spectrum = stack.data() + static_cast<std::size_t>(e) * p;
    double a[5];
    for (int c = 0; c < 5; ++c) a[c] = strengths[c] * normal(gen);
    for (int g = 0; g < p; ++g) {
      double v = 1000.0 + 2.0 * g;
      for (int c = 0; c < 5; ++c) v += a[c] * std::exp(-0.5 * std::pow((g - centres[c]) / widths[c], 2));
      spectrum[g] = static_cast<float>(v + 0.01 * normal(gen));
    }
    if (e / sx == junkLine)
      for (int g = 0; g < p; ++g) spectrum[g] = static_cast<float>(1e7 * normal(gen));
  }

  TProject project;
  auto source = std::make_unique<TDGraph>();
  source->SetID(project.GetNewDataID());
  source->SetCaption("Synthetic map");
  source->SetFieldSize(sx, sy, TDataFieldKind::Float, p);
  for (int y = 0; y < sy; ++y) {
    for (int x = 0; x < sx; ++x)
      source->SetSpectrum(
          x, y, stack.data() + (static_cast<std::size_t>(x) + static_cast<std::size_t>(y) * sx) * p);
    source->SetLineValid(y, y != junkLine);
  }
  TDGraph* graph = source.get();
  project.AddData(std::move(source));

  TPCASettings settings;
  settings.SpectrumMask.assign(p, true);
  for (int g = 0; g < p; ++g)
    if (g < 10 || (g >= 100 && g < 110) || g >= 175) settings.SpectrumMask[g] = false;
  TPCACore core;
  if (core.Calculate(*graph, settings, nullptr, 2) != TPCAStatus::Ok) {
    std::fprintf(stderr, "calculation failed: %s\n", core.Error().c_str());
    return 1;
  }
  TPCAExtractOptions options;
  options.TransformedSpectra = true;
  for (int k = 0; k < transformedPCs; ++k) options.PCs.push_back(k);
  const TPCAExtractResult first = ExtractPCAResults(project, graph->GetID(), core, options, nullptr, 2);
  TPCAExtractOptions rebuild;
  rebuild.PCAResult = false;
  rebuild.ReconstructedSpectra = true;
  for (int k = 0; k < reconstructedPCs; ++k) rebuild.PCs.push_back(k);
  const TPCAExtractResult second = ExtractPCAResults(project, graph->GetID(), core, rebuild, nullptr, 2);
  if (first.Status != TPCAStatus::Ok || second.Status != TPCAStatus::Ok) {
    std::fprintf(stderr, "extraction failed: %s%s\n", first.Error.c_str(), second.Error.c_str());
    return 1;
  }
  auto find = [&](int32_t id) { return dynamic_cast<const TDGraph*>(project.FindData(id)); };
  const TDGraph* transformed = find(first.TransformedID);
  std::vector<std::uint8_t> mask(p);
  for (int g = 0; g < p; ++g) mask[g] = settings.SpectrumMask[g] ? 1 : 0;
  const bool ok = WriteRaw(dir + "/stack.f32", ReadAll(*graph)) &&
                  WriteRaw(dir + "/lines.u8", Lines(*graph)) && WriteRaw(dir + "/mask.u8", mask) &&
                  WriteRaw(dir + "/evals.f32", ReadAll(*find(first.EigenValuesID))) &&
                  WriteRaw(dir + "/evecs.f32", ReadAll(*find(first.EigenVectorsID))) &&
                  WriteRaw(dir + "/average.f32", ReadAll(*find(first.AverageID))) &&
                  WriteRaw(dir + "/transformed.f32", ReadAll(*transformed)) &&
                  WriteRaw(dir + "/tlines.u8", Lines(*transformed)) &&
                  WriteRaw(dir + "/reconstructed.f32", ReadAll(*find(second.ReconstructedID)));
  if (!ok) {
    std::fprintf(stderr, "cannot write to %s\n", dir.c_str());
    return 1;
  }
  std::printf("%d %d %d %d %d %d\n", sx, sy, p, core.ComponentCount(), transformedPCs, reconstructedPCs);
  return 0;
}
