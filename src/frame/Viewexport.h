// Export of a view as a picture file: the scene drawn offscreen at a multiple of the window's size and
// written as PNG, JPEG or TIFF (by the file name) through the crash-safe raster writer.
#pragma once

#include <string>

class TOpenGLView;
struct TRasterImage;
struct TOpenGLBitmap;

/// The bitmap as a raster picture.
TRasterImage RasterImageFromBitmap(const TOpenGLBitmap& bitmap);
/// Draws view at scale and writes it to fileName; false with the reason in error.
bool ExportViewBitmap(TOpenGLView& view, const std::string& fileName, double scale, std::string& error);
