// Axis values and point-wise reading of graphs for the export filters.
#include "exchange/Exportgraphdata.h"

#include "common/numerics/Transpose.h"
#include "common/threads/Progressandcancel.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"

#include <algorithm>
#include <cmath>
#include <future>
#include <memory>

const TDInterpretation* AxisInterpretation(const IDataProject& project, int32_t transformationID,
                                           int32_t interpretationID) {
  const auto* transformation = dynamic_cast<const TDTransformation*>(project.FindData(transformationID));
  const int32_t id = interpretationID != 0 ? interpretationID
                     : transformation      ? transformation->GetInterpretationID()
                                           : 0;
  return dynamic_cast<const TDInterpretation*>(project.FindData(id));
}

bool ExportAxisValues(const IDataProject& project, int32_t transformationID, int32_t interpretationID,
                      int32_t count, int axis, int32_t unitIndex, std::vector<double>& values,
                      std::string& unitName) {
  const auto* transformation = dynamic_cast<const TDTransformation*>(project.FindData(transformationID));
  if (!transformation || count <= 0) return false;
  const TDInterpretation* interpretation = AxisInterpretation(project, transformationID, interpretationID);
  const int dimension = std::max<int>(transformation->GetDim(), 1);
  const size_t slot = static_cast<size_t>(std::min(axis, dimension - 1));
  std::vector<double> bin(static_cast<size_t>(std::max(dimension, 3)), 0.0), real(bin.size(), 0.0);
  values.resize(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) {
    std::fill(bin.begin(), bin.end(), 0.0);
    bin[slot] = i;
    transformation->BinToReal(bin.data(), real.data());
    values[static_cast<size_t>(i)] =
        interpretation ? interpretation->StandardTo(real[slot], unitIndex) : real[slot];
  }
  unitName = interpretation
                 ? interpretation->UnitString(unitIndex < 0 ? interpretation->GetUnitIndex() : unitIndex)
                 : transformation->GetStandardUnit();
  return true;
}

bool ExportLineScanValues(const IDataProject& project, const TDGraph& graph, int32_t unitIndex,
                          std::vector<double>& values, std::string& unitName) {
  const auto* transformation =
      dynamic_cast<const TDTransformation*>(project.FindData(graph.GetSpaceTransformationID()));
  if (!transformation) return false;
  const TDInterpretation* interpretation = AxisInterpretation(project, graph.GetSpaceTransformationID(), 0);
  const bool alongX = graph.GetSizeX() > 1;
  const int32_t count = alongX ? graph.GetSizeX() : graph.GetSizeY();
  const size_t size = static_cast<size_t>(std::max<int>(transformation->GetDim(), 3));
  std::vector<double> bin(size, 0.0), origin(size, 0.0), real(size, 0.0);
  transformation->BinToReal(bin.data(), origin.data());
  values.resize(static_cast<size_t>(std::max(count, 0)));
  for (int32_t i = 0; i < count; ++i) {
    std::fill(bin.begin(), bin.end(), 0.0);
    bin[alongX ? 0 : 1] = i;
    transformation->BinToReal(bin.data(), real.data());
    double distance = 0;
    for (size_t k = 0; k < std::min<size_t>(size, 3); ++k)
      distance += (real[k] - origin[k]) * (real[k] - origin[k]);
    distance = std::sqrt(distance);
    values[static_cast<size_t>(i)] =
        interpretation ? interpretation->StandardTo(distance, unitIndex) : distance;
  }
  unitName = interpretation
                 ? interpretation->UnitString(unitIndex < 0 ? interpretation->GetUnitIndex() : unitIndex)
                 : transformation->GetStandardUnit();
  return true;
}

TGraphPointReader::TGraphPointReader(const TDGraph& graph, std::vector<int64_t> elements, int64_t tileBytes)
    : FGraph(graph), FElements(std::move(elements)), FTileBytes(tileBytes) {}

bool TGraphPointReader::Run(const TStorePoint& store, IProgressAndCancel* progress) {
  return RunBlocks(
      [&store](int32_t firstPoint, int32_t points, const float* values, int64_t count) {
        for (int32_t k = 0; k < points; ++k)
          if (!store(firstPoint + k, values + k * count, count)) return false;
        return true;
      },
      progress);
}

bool TGraphPointReader::RunBlocks(const TStorePoints& store, IProgressAndCancel* progress) {
  constexpr int64_t kAlign = 16;               // tiles of whole cache lines of points
  constexpr int64_t kParallelValues = 1 << 18; // below this a tile is read and written on this thread alone
  const int64_t rows = static_cast<int64_t>(FElements.size());
  const int32_t points = FGraph.GetSizeGraph();
  if (rows == 0 || points <= 0) return true;
  // Three buffers of a tile each: the spectra's parts as read, and two of the same values point after
  // point, so that one tile is written while the next is read and turned.
  int64_t tilePoints = FTileBytes / 3 / (rows * static_cast<int64_t>(sizeof(float)));
  tilePoints = std::max<int64_t>(kAlign, tilePoints / kAlign * kAlign);
  const int32_t tile = static_cast<int32_t>(std::min<int64_t>(tilePoints, points));
  // Not value-initialised: every value is read before it is used.
  const std::unique_ptr<float[]> spectra(new float[static_cast<size_t>(rows * tile)]);
  const std::unique_ptr<float[]> byPoint[2] = {
      std::unique_ptr<float[]>(new float[static_cast<size_t>(rows * tile)]),
      std::unique_ptr<float[]>(new float[static_cast<size_t>(rows * tile)])};
  const int32_t sizeX = FGraph.GetSizeX();
  const bool parallel = rows * tile >= kParallelValues && rows >= 2 * kAlign;

  // Rows r0..r1 of a tile turned straight out of the graph's memory, a run of spectra that follow one
  // another there at a time; false (with part of the rows turned) when the memory can't be read in place.
  auto turnInPlace = [&](int64_t r0, int64_t r1, int32_t first, int64_t count, float* target) {
    for (int64_t r = r0; r < r1;) {
      const int64_t e = FElements[static_cast<size_t>(r)];
      int64_t run = 1; // the next rows are the next spectra of the same column of the map
      while (r + run < r1 && FElements[static_cast<size_t>(r + run)] == e + run * sizeX) ++run;
      auto spectra = static_cast<int32_t>(run);
      const float* source =
          FGraph.GetSpectraPartReadPointer(static_cast<int32_t>(e % sizeX), static_cast<int32_t>(e / sizeX),
                                           first, static_cast<int32_t>(count), spectra);
      if (!source) return false;
      TransposeFloats(source, points, target + r, rows, spectra, count);
      r += spectra;
    }
    return true;
  };
  // Rows r0..r1 of a tile: their parts of the spectra, then turned into the tile's columns r0..r1.
  auto readAndTurn = [&](int64_t r0, int64_t r1, int32_t first, int64_t count, float* target) {
    if (turnInPlace(r0, r1, first, count, target)) return;
    for (int64_t r = r0; r < r1; ++r) {
      const int64_t e = FElements[static_cast<size_t>(r)];
      FGraph.GetPartOfSpectrum(static_cast<int32_t>(e % sizeX), static_cast<int32_t>(e / sizeX), first,
                               static_cast<int32_t>(count), spectra.get() + r * count, true);
    }
    TransposeFloats(spectra.get() + r0 * count, count, target + r0, rows, r1 - r0, count);
  };

  std::future<bool> writing; // the store of the tile before
  auto finishWriting = [&writing] { return !writing.valid() || writing.get(); };
  for (int32_t first = 0, n = 0; first < points; first += tile, ++n) {
    if (progress && progress->IsCancelled()) {
      finishWriting();
      return false;
    }
    const int64_t count = std::min(tile, points - first);
    float* target = byPoint[n % 2].get();
    if (parallel) {
      // The two halves of the rows on two threads.
      const int64_t half = rows / 2;
      std::future<void> other = std::async(std::launch::async, readAndTurn, half, rows, first, count, target);
      readAndTurn(0, half, first, count, target);
      other.get();
    } else {
      readAndTurn(0, rows, first, count, target);
    }
    if (progress) progress->AddProgress(rows * count);
    if (!finishWriting()) return false;
    if (parallel)
      writing = std::async(std::launch::async, [&store, first, count, target, rows] {
        return store(first, static_cast<int32_t>(count), target, rows);
      });
    else if (!store(first, static_cast<int32_t>(count), target, rows))
      return false;
  }
  return finishWriting();
}
