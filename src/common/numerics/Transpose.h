// Transposition of float matrices between buffers with their own row strides: what turns spectra read
// one after the other into points whose values lie together (the file layouts of the exports), and back.
#pragma once

#include <cstdint>

/// destination[c * destinationStride + r] = source[r * sourceStride + c] for r < rows, c < columns.
/// Works in 8 × 8 blocks (vector registers where the processor has them), so both sides are touched a
/// cache line at a time. The buffers must not overlap.
void TransposeFloats(const float* source, int64_t sourceStride, float* destination, int64_t destinationStride,
                     int64_t rows, int64_t columns);
