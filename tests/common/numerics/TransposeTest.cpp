// Blocked transposition: every element lands in its place for shapes on and off the 8 × 8 blocks and
// the 128-row bands, with strides wider than the matrices; nothing outside the destination's columns
// is written.
#include "common/numerics/Transpose.h"

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr float kUntouched = -1.5f;

void CheckTranspose(int64_t rows, int64_t columns, int64_t sourcePad, int64_t destinationPad) {
  const int64_t sourceStride = columns + sourcePad, destinationStride = rows + destinationPad;
  std::vector<float> source(static_cast<size_t>(rows * sourceStride));
  for (int64_t r = 0; r < rows; ++r)
    for (int64_t c = 0; c < sourceStride; ++c)
      source[static_cast<size_t>(r * sourceStride + c)] = static_cast<float>(r * 10000 + c);
  std::vector<float> destination(static_cast<size_t>(columns * destinationStride), kUntouched);
  TransposeFloats(source.data(), sourceStride, destination.data(), destinationStride, rows, columns);
  for (int64_t c = 0; c < columns; ++c)
    for (int64_t r = 0; r < destinationStride; ++r) {
      const float value = destination[static_cast<size_t>(c * destinationStride + r)];
      if (r < rows)
        ASSERT_EQ(value, static_cast<float>(r * 10000 + c))
            << rows << "x" << columns << " at " << r << "," << c;
      else
        ASSERT_EQ(value, kUntouched) << "padding written at " << r << "," << c;
    }
}

} // namespace

TEST(TransposeTest, EveryElementInPlaceOnAndOffTheBlocks) {
  for (const int64_t rows : {1, 3, 7, 8, 9, 16, 127, 128, 129, 300})
    for (const int64_t columns : {1, 4, 8, 13, 16, 33}) CheckTranspose(rows, columns, 0, 0);
}

TEST(TransposeTest, StridesWiderThanTheMatrices) {
  CheckTranspose(37, 21, 5, 3);
  CheckTranspose(256, 64, 1, 7);
  CheckTranspose(8, 8, 8, 8);
}

TEST(TransposeTest, EmptyShapesWriteNothing) {
  std::vector<float> source(16, 1.0f), destination(16, kUntouched);
  TransposeFloats(source.data(), 4, destination.data(), 4, 0, 4);
  TransposeFloats(source.data(), 4, destination.data(), 4, 4, 0);
  for (float value : destination) EXPECT_EQ(value, kUntouched);
}
