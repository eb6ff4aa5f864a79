// The draw field of an image viewer: one flag per pixel that the user paints over the image and that tools
// read as a mask, with the pen, lines, flood fill and the conversions to the forms tools take (a plain bool
// array, a data field, an image of 0 and 1, a paged bool array).
#pragma once

#include "common/memory/Partialmemoryarraytemplate.h"

#include <cstdint>
#include <memory>
#include <vector>

class TDataField;
class TDImage;

class TImageDrawField {
public:
  /// Makes the field of sizeX x sizeY pixels, all false (an existing one of this size is kept).
  void SetSize(int32_t sizeX, int32_t sizeY);
  /// Drops the field.
  void Clear();
  bool Exists() const { return FSizeX > 0 && FSizeY > 0; }
  int32_t GetSizeX() const { return FSizeX; }
  int32_t GetSizeY() const { return FSizeY; }

  /// False outside.
  bool GetPixel(int32_t x, int32_t y) const;
  /// Nothing outside.
  void SetPixel(int32_t x, int32_t y, bool value);
  void SetAll(bool value);
  void Invert();
  /// The pixels of the line from (x1, y1) to (x2, y2), both ends included (parts outside are skipped).
  void SetLine(int32_t x1, int32_t y1, int32_t x2, int32_t y2, bool value);
  /// A square pen of penWidth pixels centred on (x, y).
  void DrawSinglePixelWithPen(int32_t x, int32_t y, bool value, int32_t penWidth = 1);
  /// Sets the four-connected region of pixels that share the flag of (x, y) to value.
  void FloodFillGrow(int32_t x, int32_t y, bool value);
  /// The number of pixels whose flag is value.
  int64_t GetNumberOfPixels(bool value) const;

  /// @{ Conversions. Pixel (x, y) is element x + y * sizeX of linear forms; the data field has ranges
  /// (sizeX, sizeY) and kind Bool; the image holds 1 for set pixels and 0 for others. The setters take
  /// the size of their source; a source of a different size than an existing field replaces it.
  void GetAsLinearArray(bool* values) const;
  void SetFromLinearArray(int32_t sizeX, int32_t sizeY, const bool* values);
  /// A new data field of the field (null without a field).
  std::unique_ptr<TDataField> GetAsDataField() const;
  /// False when field isn't two-dimensional.
  bool SetFromDataField(const TDataField& field);
  /// A paged array of sizeX x sizeY flags (null without a field).
  std::unique_ptr<TPartialMemoryArray<bool>> GetAsPartialMemoryArray() const;
  /// False when the array's second and third dimensions don't describe an image.
  bool SetFromPartialMemoryArray(const TPartialMemoryArray<bool>& array);
  /// Writes 1 and 0 into image, which must have the field's size (false otherwise); all lines valid.
  bool GetToImage(TDImage& image) const;
  /// Values of valid lines at or above 0.5 set a pixel.
  void SetFromImage(const TDImage& image);
  /// @}

  /// Line after line, as the viewer stores it.
  const std::vector<uint8_t>& Flags() const { return FFlags; }
  bool operator==(const TImageDrawField&) const = default;

private:
  bool Inside(int32_t x, int32_t y) const { return x >= 0 && y >= 0 && x < FSizeX && y < FSizeY; }
  size_t Index(int32_t x, int32_t y) const {
    return static_cast<size_t>(y) * static_cast<size_t>(FSizeX) + static_cast<size_t>(x);
  }
  int32_t FSizeX = 0;
  int32_t FSizeY = 0;
  std::vector<uint8_t> FFlags;
};
