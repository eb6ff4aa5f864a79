// Bitmaps: true-colour pictures such as video frames, kept in a colour data field, with their file form
// (the present one and the compatible one that holds a BMP file) and their extraction into images.
#pragma once

#include "data/Dcolorprofile.h"
#include "data/Dimagebase.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// A picture of width x height colours 0x00BBGGRR in a field of ranges (height, width), kind Int32.
class TDBitmap : public TDImageBase {
  ORVEX_DATA_CLASS(TDBitmap, TDImageBase)
public:
  TDBitmap();
  ~TDBitmap() override;
  static constexpr int32_t ThisVersion = 1;

  int32_t GetDataCategory() const override { return 0; }
  TDataField* GetDataField() override { return FField.get(); }
  bool IsLargeObject() const override { return int64_t(FSizeX) * FSizeY >= 490001; }
  /// The present form, or with a compatible save (project save version below 6) version 0 and the picture
  /// as a BMP file in a "TDStream" tag beside the class list.
  TTagError SaveDataToTagFile(TFileHandle file) override;
  /// Accepts both forms.
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;

  /// A new white bitmap with a new ID from project (when given); not added to it.
  static std::unique_ptr<TDBitmap> CreateNewBitmap(IDataProject* project, int32_t width, int32_t height,
                                                   TDataSaveMode saveMode, const std::string& caption);

  /// Remakes the field unless it exists with these sizes; a new field is black (0).
  void SetFieldSize(int32_t width, int32_t height);
  void FreeField();
  bool HasField() const { return FField != nullptr; }
  int32_t GetWidth() const { return FSizeX; }
  int32_t GetHeight() const { return FSizeY; }
  /// All pixels white.
  void ClearBitmap() { SetAllColors(0xFFFFFF); }
  void SetAllColors(TColor colour);
  /// 0 outside.
  TColor GetField(int32_t x, int32_t y) const;
  /// Nothing outside.
  void SetField(int32_t x, int32_t y, TColor colour);
  /// width colours; zeros outside.
  void GetLine(int32_t y, TColor* colours) const;
  void SetLine(int32_t y, const TColor* colours);
  /// Per channel bilinear between the four neighbours; coordinates clamped to the picture.
  TColor GetInterpolatedField(double x, double y) const;
  bool IsDataPointInside(double x, double y) const;
  /// Size, pixels and space transformation of source.
  void CopyFrom(const TDBitmap& source);

  /// Adds an image of the brightness 0.299 R + 0.587 G + 0.114 B to the bitmap's project; returns its ID
  /// (0 outside a project or without a field).
  int32_t ExtractAsImageMonochrome();
  /// Adds three images of the red, green and blue channels; returns their IDs (empty on failure).
  std::vector<int32_t> ExtractAsImageRGB();

private:
  std::unique_ptr<TDataField> FField;
};

/// A BMP file (24 bits per pixel, bottom-up rows padded to four bytes) of a picture given top-down.
std::vector<uint8_t> EncodeBitmapFile(int32_t width, int32_t height, const std::vector<TColor>& pixels);
/// Reads an uncompressed BMP file of 24 or 32 bits per pixel, bottom-up or top-down, into a top-down
/// picture; false for anything else or a file too short for its header.
bool DecodeBitmapFile(const std::vector<uint8_t>& bytes, int32_t& width, int32_t& height,
                      std::vector<TColor>& pixels);

/// Registers the bitmap class.
void RegisterBitmapClasses();
