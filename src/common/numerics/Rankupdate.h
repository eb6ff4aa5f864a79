// Symmetric rank-k update C += B^T B of a block of centred spectra: the hot loop of the covariance matrix.
#pragma once

#include "common/numerics/Vectorunits.h"

#include <cstddef>
#include <vector>

/// Adds the products of one block of spectra to the lower triangle of a symmetric double matrix.
///
/// A block holds k spectra of m points each (B is k x m). The products are formed in single precision;
/// each partial sum covers at most MaxSpectraPerPartialSum spectra before it is added to the double
/// matrix, so the rounding of a float sum grows with that many terms at most, whatever the block length.
/// The error grows with the length of the sums, about in proportion: with 32 the smallest eigenvalues of a
/// stack's covariance stay within about 5e-9 of the largest even when the components span ten orders of
/// magnitude (128 gives 2e-8); the conversion of the register tile to double costs some 10 % of the time.
///
/// The lower triangle (row >= column) is cut into square tiles of TileSize points. Tiles are disjoint, so
/// any number of threads may run UpdateTile on distinct tiles of one loaded block at the same time.
/// Loading (SetBlockLength, LoadSpectrum) must be finished before the tiles run; LoadSpectrum may itself
/// run on several threads for distinct spectra.
class TSymmetricRankUpdate {
public:
  static constexpr int MaxSpectraPerPartialSum = 32;
  /// Edge of a tile; a multiple of both micro-tile edges (24 columns by 4 rows).
  static constexpr int TileSize = 96;

  /// Prepares for spectra of pointCount points and blocks of up to maxBlockLength spectra. Allocates the
  /// packed copies of a block: 2 x maxBlockLength x pointCount floats, rounded up to the micro-tile edges.
  TSymmetricRankUpdate(int pointCount, int maxBlockLength, TKernelPath path = TKernelPath::Auto);

  int PointCount() const { return M; }
  int MaxBlockLength() const { return MaxK; }
  int BlockLength() const { return K; }
  /// True when the tiles run on the vector units.
  bool UsesVectorPath() const { return Vector; }
  /// True when they use the form for 32 vector registers, which adds each micro-tile's sums to the matrix
  /// while the next one is multiplied.
  bool UsesWideRegisters() const { return Wide; }

  /// Number of tiles of the lower triangle, numbered row by row: (0,0), (1,0), (1,1), (2,0), ...
  int TileCount() const { return TileRows * (TileRows + 1) / 2; }
  /// Tile number -> first row and first column of the tile.
  void TileOrigin(int tile, int& row, int& column) const;
  /// Number of matrix elements the tile adds to per spectrum (the diagonal tiles count their triangle).
  long long TileWork(int tile) const;
  /// The contiguous range of tiles [first, last] of one of threadCount threads, cut so that each thread
  /// gets about the same work. A range may be empty (first > last) when there are more threads than tiles.
  void ThreadTileRange(int thread, int threadCount, int& first, int& last) const;

  /// Starts a new block of length spectra (1..MaxBlockLength).
  void SetBlockLength(int length);
  /// Stores spectrum s (0..BlockLength-1) of the block. The double form rounds each value to float.
  /// Threads that load at the same time do best with contiguous ranges of s (neighbours share lines).
  void LoadSpectrum(int s, const float* values);
  void LoadSpectrum(int s, const double* values);
  /// SetBlockLength(length) and LoadSpectrum for spectra at values + s * stride.
  void LoadBlock(const float* values, int length, std::ptrdiff_t stride);

  /// Adds the loaded block's products to tile t of c: c[r * ldc + col] += sum over s of b[s][r] b[s][col]
  /// for every row r >= column col in the tile. Nothing else of c is touched.
  void UpdateTile(int tile, double* c, std::ptrdiff_t ldc) const;
  /// All tiles, on threadCount std::threads (1: on the calling thread).
  void UpdateAllTiles(double* c, std::ptrdiff_t ldc, int threadCount) const;

  /// Copies the lower triangle of an n x n matrix to the upper one.
  static void MirrorLowerToUpper(double* c, int n, std::ptrdiff_t ldc);

private:
  static constexpr int VecWidth = 24; // columns of a micro-tile: loaded as vectors
  static constexpr int BcWidth = 4;   // rows of a micro-tile: broadcast one at a time

  void UpdateMicroTiles(int rowBegin, int rowEnd, int colBegin, int colEnd, double* c,
                        std::ptrdiff_t ldc) const;
  /// Micro-tile (q, p) of one chunk of the block; out is scratch for a tile that is cut by the diagonal
  /// or the matrix edge.
  void UpdateOneMicroTile(std::ptrdiff_t chunk, int p, int q, int kc, const float* vec, double* c,
                          std::ptrdiff_t ldc, float* out) const;

  int M = 0;
  int MaxK = 0;
  int K = 0;
  int TileRows = 0;
  int VecPanels = 0;
  int BcPanels = 0;
  bool Vector = false;
  bool Wide = false;
  // Spectrum s = 64 c + j (chunk c of one partial sum), panel p of 24 columns:
  // VecPack[((c * VecPanels + p) * 64 + j) * 24 + t] = b[s][24 p + t] (zero beyond m).
  std::vector<float> VecPack;
  // The same with panels q of 4 rows: BcPack[((c * BcPanels + q) * 64 + j) * 4 + t] = b[s][4 q + t].
  std::vector<float> BcPack;
};
