// Axis values and point-wise reading of graphs for the export filters.
#include "exchange/Exportgraphdata.h"

#include "common/numerics/Transpose.h"
#include "common/threads/Progressandcancel.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include <sys/mman.h>

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

namespace {

// The point-wise buffers of a run are kept for the next one: fresh memory costs the system a fault and
// clearing for each of its pages, for two 8 MiB buffers about 4 ms, a sixteenth of a 256 MiB export.
struct TFreeFloats {
  void operator()(float* values) const { std::free(values); }
};
struct TTileBuffer {
  std::unique_ptr<float[], TFreeFloats> Values;
  size_t Size = 0;
};
constexpr size_t kKeptTileBufferBytes = size_t(64) << 20; // at most this much waits
std::mutex gKeptTileBuffersLock;
std::vector<TTileBuffer> gKeptTileBuffers;

// A buffer of at least values floats (not cleared): a kept one not more than twice as large, or a new one.
TTileBuffer TakeTileBuffer(size_t values) {
  {
    std::lock_guard guard(gKeptTileBuffersLock);
    for (auto it = gKeptTileBuffers.begin(); it != gKeptTileBuffers.end(); ++it)
      if (it->Size >= values && it->Size / 2 <= values) {
        TTileBuffer buffer = std::move(*it);
        gKeptTileBuffers.erase(it);
        return buffer;
      }
  }
  // A large buffer lies on huge pages: the turning writes a tile's points far apart, and the system's copy
  // to the file walks all of it; with pages of 4 KiB either would go through thousands of them.
  constexpr size_t kHugePage = size_t(2) << 20;
  size_t bytes = values * sizeof(float);
  const bool huge = bytes >= kHugePage;
  if (huge) bytes = (bytes + kHugePage - 1) / kHugePage * kHugePage;
  auto* block = static_cast<float*>(huge ? std::aligned_alloc(kHugePage, bytes) : std::malloc(bytes));
  if (!block) throw std::bad_alloc();
  if (huge) ::madvise(block, bytes, MADV_HUGEPAGE);
  return {std::unique_ptr<float[], TFreeFloats>(block), bytes / sizeof(float)};
}

// Keeps a buffer for the next run when there is room (the oldest make room).
void KeepTileBuffer(TTileBuffer&& buffer) {
  if (buffer.Size * sizeof(float) > kKeptTileBufferBytes) return;
  std::lock_guard guard(gKeptTileBuffersLock);
  gKeptTileBuffers.push_back(std::move(buffer));
  size_t kept = 0;
  for (const auto& b : gKeptTileBuffers) kept += b.Size * sizeof(float);
  while (kept > kKeptTileBufferBytes) {
    kept -= gKeptTileBuffers.front().Size * sizeof(float);
    gKeptTileBuffers.erase(gKeptTileBuffers.begin());
  }
}

// The two point-wise buffers of one run, given back for the next when the run ends.
struct TTileBufferPair {
  explicit TTileBufferPair(size_t values) : Buffers{TakeTileBuffer(values), TakeTileBuffer(values)} {}
  ~TTileBufferPair() {
    for (auto& buffer : Buffers) KeepTileBuffer(std::move(buffer));
  }
  TTileBufferPair(const TTileBufferPair&) = delete;
  TTileBufferPair& operator=(const TTileBufferPair&) = delete;
  float* operator[](int32_t n) const { return Buffers[n % 2].Values.get(); }
  TTileBuffer Buffers[2];
};

} // namespace

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
  const int32_t tiles = (points + tile - 1) / tile;
  const size_t tileValues = static_cast<size_t>(rows * tile);
  // Not value-initialised: every value is read before it is used. The buffers of the parts, one per tile
  // in work, are touched only for spectra that can't be read in place.
  const std::unique_ptr<float[]> parts[2] = {std::unique_ptr<float[]>(new float[tileValues]),
                                             std::unique_ptr<float[]>(new float[tileValues])};
  const TTileBufferPair byPoint(tileValues);
  const int32_t sizeX = FGraph.GetSizeX();
  auto firstOf = [tile](int32_t n) { return n * tile; };
  auto countOf = [tile, points](int32_t n) { return std::min(tile, points - n * tile); };

  // Rows r0..r1 of tile n turned straight out of the graph's memory, a run of spectra that follow one
  // another there at a time; false (with part of the rows turned) when the memory can't be read in place.
  auto turnInPlace = [&](int64_t r0, int64_t r1, int32_t n, float* target) {
    const int32_t first = firstOf(n), count = countOf(n);
    for (int64_t r = r0; r < r1;) {
      const int64_t e = FElements[static_cast<size_t>(r)];
      int64_t run = 1; // the next rows are the next spectra of the same column of the map
      while (r + run < r1 && FElements[static_cast<size_t>(r + run)] == e + run * sizeX) ++run;
      auto spectra = static_cast<int32_t>(run);
      const float* source = FGraph.GetSpectraPartReadPointer(
          static_cast<int32_t>(e % sizeX), static_cast<int32_t>(e / sizeX), first, count, spectra);
      if (!source) return false;
      TransposeFloats(source, points, target + r, rows, spectra, count);
      r += spectra;
    }
    return true;
  };
  // Rows r0..r1 of tile n: their parts of the spectra, then turned into the tile's columns r0..r1.
  auto readAndTurn = [&](int64_t r0, int64_t r1, int32_t n) {
    float* target = byPoint[n];
    if (turnInPlace(r0, r1, n, target)) return;
    float* part = parts[n % 2].get();
    const int32_t first = firstOf(n), count = countOf(n);
    for (int64_t r = r0; r < r1; ++r) {
      const int64_t e = FElements[static_cast<size_t>(r)];
      FGraph.GetPartOfSpectrum(static_cast<int32_t>(e % sizeX), static_cast<int32_t>(e / sizeX), first, count,
                               part + r * count, true);
    }
    TransposeFloats(part + r0 * count, count, target + r0, rows, r1 - r0, count);
  };

  if (rows * tile < kParallelValues || rows < 2 * kAlign) {
    for (int32_t n = 0; n < tiles; ++n) {
      if (IsCancelled(progress)) return false;
      readAndTurn(0, rows, n);
      if (!store(firstOf(n), countOf(n), byPoint[n], rows)) return false;
      if (progress) progress->AddProgress(rows * countOf(n));
    }
    return true;
  }

  // Every thread takes what is due: the store of the oldest turned tile when nobody stores, else the next
  // chunk of rows of the tile being turned. Tile n + 2 is turned only once tile n is stored (it takes its
  // buffer), and stores go one at a time in order. Work is handed out in small pieces, so a thread that
  // stores or is held up leaves the turning to the others instead of keeping them waiting.
  const int64_t chunkRows = std::max(kAlign, (rows / 16 + kAlign - 1) / kAlign * kAlign);
  std::mutex lock;
  std::condition_variable changed;
  std::vector<int64_t> rowsTurned(static_cast<size_t>(tiles), 0);
  int32_t turning = 0, storing = 0; // the tile whose rows are handed out; the next tile to store
  int64_t nextRow = 0;
  bool storeBusy = false, stop = false, ok = true;
  auto work = [&] {
    std::unique_lock guard(lock);
    while (!stop && storing < tiles) {
      if (!storeBusy && rowsTurned[static_cast<size_t>(storing)] == rows) {
        const int32_t n = storing;
        storeBusy = true;
        guard.unlock();
        // A cancel keeps the tiles not yet stored from the file; a refused store ends the run.
        const bool cancelled = IsCancelled(progress);
        const bool stored = !cancelled && store(firstOf(n), countOf(n), byPoint[n], rows);
        if (stored && progress) progress->AddProgress(rows * countOf(n));
        guard.lock();
        storeBusy = false;
        if (stored)
          ++storing;
        else
          stop = true, ok = false;
        changed.notify_all();
      } else if (turning < tiles && turning < storing + 2) {
        if (nextRow == 0 && IsCancelled(progress)) {
          stop = true, ok = false;
          changed.notify_all();
          break;
        }
        const int32_t n = turning;
        const int64_t r0 = nextRow, r1 = std::min(rows, r0 + chunkRows);
        nextRow = r1;
        if (nextRow == rows) ++turning, nextRow = 0;
        guard.unlock();
        readAndTurn(r0, r1, n);
        guard.lock();
        if ((rowsTurned[static_cast<size_t>(n)] += r1 - r0) == rows) changed.notify_all();
      } else {
        changed.wait(guard);
      }
    }
  };
  const unsigned processors = std::max(2u, std::thread::hardware_concurrency());
  std::vector<std::thread> helpers;
  for (unsigned i = 1; i < std::min(processors, 4u); ++i) helpers.emplace_back(work);
  work();
  for (auto& helper : helpers) helper.join();
  return ok;
}
