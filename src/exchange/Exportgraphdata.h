// What the graph filters share: axis values in a chosen unit, and the spectra of a graph read point by
// point (the files want a point's values together, the graph keeps a spectrum's together).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class IDataProject;
class IProgressAndCancel;
class TDGraph;
class TDInterpretation;
class TDTransformation;

/// The interpretation of an axis: interpretationID, or the transformation's own when that is 0. Null when
/// there is none.
const TDInterpretation* AxisInterpretation(const IDataProject& project, int32_t transformationID,
                                           int32_t interpretationID);

/// The values of count pixels along axis (0 x, 1 y; 0 of a one-dimensional transformation) in unit
/// (an index of the interpretation's units; -1 its current one). unit receives the unit's name (the
/// transformation's standard unit without interpretation). False without transformation.
bool ExportAxisValues(const IDataProject& project, int32_t transformationID, int32_t interpretationID,
                      int32_t count, int axis, int32_t unitIndex, std::vector<double>& values,
                      std::string& unitName);

/// Distances of the pixels of a line scan from its first pixel along the scan (x when SizeX > 1, else
/// y), in the space interpretation's unit unitIndex.
bool ExportLineScanValues(const IDataProject& project, const TDGraph& graph, int32_t unitIndex,
                          std::vector<double>& values, std::string& unitName);

/// Reads the spectra of the given elements (e = x + y·SizeX) in tiles of consecutive points through a
/// bounded buffer, each value once, and hands every point's values to store in the order of elements.
/// Large tiles are read and turned by several threads in small pieces while one of them stores the tile
/// before, so store may be called from any of these threads (one call at a time, in order of points).
/// Returns false when store returns false or progress asks to cancel (checked before each tile is turned
/// and before it is stored: no tile is stored after the cancel); progress rises by the values of each tile
/// stored.
class TGraphPointReader {
public:
  /// store(point, values, count): the values of all elements at one point.
  using TStorePoint = std::function<bool(int32_t point, const float* values, int64_t count)>;
  /// store(firstPoint, points, values, count): consecutive points at once, point after point, each with
  /// the values of all count elements; lets a writer take them in one block.
  using TStorePoints =
      std::function<bool(int32_t firstPoint, int32_t points, const float* values, int64_t count)>;

  /// tileBytes bounds the two buffers of one tile together (at least 16 points are read at once).
  TGraphPointReader(const TDGraph& graph, std::vector<int64_t> elements, int64_t tileBytes = 32 << 20);
  bool Run(const TStorePoint& store, IProgressAndCancel* progress);
  bool RunBlocks(const TStorePoints& store, IProgressAndCancel* progress);

private:
  const TDGraph& FGraph;
  std::vector<int64_t> FElements;
  int64_t FTileBytes;
};
