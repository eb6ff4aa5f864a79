// Blocked float transposition.
#include "common/numerics/Transpose.h"

#include <algorithm>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

constexpr int64_t kBlock = 8;

// Any block at the edges, element by element.
void TransposeScalar(const float* source, int64_t sourceStride, float* destination, int64_t destinationStride,
                     int64_t rows, int64_t columns) {
  for (int64_t c = 0; c < columns; ++c)
    for (int64_t r = 0; r < rows; ++r) destination[c * destinationStride + r] = source[r * sourceStride + c];
}

#if defined(__SSE2__)
// One 4 × 4 block in registers.
inline void Transpose4(const float* source, int64_t sourceStride, float* destination,
                       int64_t destinationStride) {
  __m128 r0 = _mm_loadu_ps(source);
  __m128 r1 = _mm_loadu_ps(source + sourceStride);
  __m128 r2 = _mm_loadu_ps(source + 2 * sourceStride);
  __m128 r3 = _mm_loadu_ps(source + 3 * sourceStride);
  _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
  _mm_storeu_ps(destination, r0);
  _mm_storeu_ps(destination + destinationStride, r1);
  _mm_storeu_ps(destination + 2 * destinationStride, r2);
  _mm_storeu_ps(destination + 3 * destinationStride, r3);
}
#endif

// One full 8 × 8 block.
inline void Transpose8(const float* source, int64_t sourceStride, float* destination,
                       int64_t destinationStride) {
#if defined(__SSE2__)
  for (int64_t r = 0; r < kBlock; r += 4)
    for (int64_t c = 0; c < kBlock; c += 4)
      Transpose4(source + r * sourceStride + c, sourceStride, destination + c * destinationStride + r,
                 destinationStride);
#else
  TransposeScalar(source, sourceStride, destination, destinationStride, kBlock, kBlock);
#endif
}

} // namespace

void TransposeFloats(const float* source, int64_t sourceStride, float* destination, int64_t destinationStride,
                     int64_t rows, int64_t columns) {
  // Bands of rows small enough to stay in the cache while every column block of them is turned, so each
  // source line is fetched once; in a band the destination gets runs of a band's length per column.
  constexpr int64_t kBand = 128;
  const int64_t fullColumns = columns / kBlock * kBlock;
  for (int64_t band = 0; band < rows; band += kBand) {
    const int64_t bandRows = std::min(kBand, rows - band), fullRows = bandRows / kBlock * kBlock;
    const float* from = source + band * sourceStride;
    float* to = destination + band;
    for (int64_t c = 0; c < fullColumns; c += kBlock)
      for (int64_t r = 0; r < fullRows; r += kBlock)
        Transpose8(from + r * sourceStride + c, sourceStride, to + c * destinationStride + r,
                   destinationStride);
    if (fullRows < bandRows)
      TransposeScalar(from + fullRows * sourceStride, sourceStride, to + fullRows, destinationStride,
                      bandRows - fullRows, fullColumns);
    if (fullColumns < columns)
      TransposeScalar(from + fullColumns, sourceStride, to + fullColumns * destinationStride,
                      destinationStride, bandRows, columns - fullColumns);
  }
}
