// Pictures of views.
#include "frame/Viewexport.h"

#include "imaging/Rasterfile.h"
#include "opengl/Openglview.h"

TRasterImage RasterImageFromBitmap(const TOpenGLBitmap& bitmap) {
  TRasterImage image;
  image.Width = bitmap.Width;
  image.Height = bitmap.Height;
  image.Pixels = bitmap.Pixels;
  return image;
}

bool ExportViewBitmap(TOpenGLView& view, const std::string& fileName, double scale, std::string& error) {
  if (RasterFormatFromFileName(fileName) == TRasterFormat::Unknown) {
    error = "unknown picture format of \"" + fileName + "\" (use .png, .jpg, .tif)";
    return false;
  }
  TOpenGLBitmap bitmap;
  if (!view.ExportBitmap(scale, bitmap)) {
    error = "the view could not be drawn offscreen";
    return false;
  }
  return WriteRasterFile(fileName, RasterImageFromBitmap(bitmap), error);
}
