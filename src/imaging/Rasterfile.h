// Raster image files: PNG, JPEG and TIFF read into and written from 8-bit RGB pictures.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// An 8-bit picture, rows top-down, three bytes (red, green, blue) per pixel, no row padding.
struct TRasterImage {
  int32_t Width = 0;
  int32_t Height = 0;
  std::vector<uint8_t> Pixels;

  bool IsValid() const {
    return Width > 0 && Height > 0 && Pixels.size() == static_cast<size_t>(Width) * Height * 3;
  }
};

enum class TRasterFormat { Unknown, Png, Jpeg, Tiff };

/// The format by the file name's extension (.png, .jpg/.jpeg, .tif/.tiff; any case).
TRasterFormat RasterFormatFromFileName(const std::string& fileName);

/// Reads a PNG, JPEG or TIFF file (by its extension) into an RGB picture; grey, palette and alpha are
/// converted. On failure false, with the reason in error.
bool ReadRasterFile(const std::string& fileName, TRasterImage& image, std::string& error);
/// Writes the picture; JPEG with the given quality (1 to 100). The file is written beside the old one and
/// renamed over it, so a failure leaves an existing file as it was.
bool WriteRasterFile(const std::string& fileName, const TRasterImage& image, std::string& error,
                     int jpegQuality = 92);
