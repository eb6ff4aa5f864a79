// Raster image files through libpng (simplified API), libjpeg and libtiff.
#include "imaging/Rasterfile.h"

#include "common/Safewrite.h"

#include <algorithm>
#include <cctype>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>
#include <png.h>
#include <tiffio.h>
#include <unistd.h>

namespace {

// Pictures larger than this are refused before allocating (a corrupt header can claim anything).
constexpr int64_t kMaxPixels = int64_t(1) << 30;

std::string LowerExtension(const std::string& fileName) {
  const size_t dot = fileName.find_last_of('.');
  if (dot == std::string::npos || fileName.find('/', dot) != std::string::npos) return {};
  std::string ext = fileName.substr(dot + 1);
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return ext;
}

bool SizeAcceptable(int64_t width, int64_t height, std::string& error) {
  if (width <= 0 || height <= 0 || width * height > kMaxPixels) {
    error = "picture size " + std::to_string(width) + " x " + std::to_string(height) + " not accepted";
    return false;
  }
  return true;
}

// --- PNG ---------------------------------------------------------------------------------------

bool ReadPng(const std::string& fileName, TRasterImage& image, std::string& error) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&png, fileName.c_str())) {
    error = png.message;
    return false;
  }
  if (!SizeAcceptable(png.width, png.height, error)) {
    png_image_free(&png);
    return false;
  }
  png.format = PNG_FORMAT_RGB;
  image.Width = static_cast<int32_t>(png.width);
  image.Height = static_cast<int32_t>(png.height);
  image.Pixels.assign(PNG_IMAGE_SIZE(png), 0);
  // Transparent parts are composed over white, as a viewer shows them.
  png_color background{255, 255, 255};
  if (!png_image_finish_read(&png, &background, image.Pixels.data(), 0, nullptr)) {
    error = png.message;
    image = TRasterImage{};
    return false;
  }
  return true;
}

// A stdio stream on a copy of the open file's descriptor, for the libraries that write through stdio;
// closing it leaves the descriptor itself open.
std::FILE* StreamOnDescriptor(int fd) {
  const int copy = ::dup(fd);
  if (copy < 0) return nullptr;
  std::FILE* file = ::fdopen(copy, "wb");
  if (!file) ::close(copy);
  return file;
}

bool WritePng(int fd, const TRasterImage& image, std::string& error) {
  std::FILE* file = StreamOnDescriptor(fd);
  if (!file) {
    error = "can't create the file";
    return false;
  }
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(image.Width);
  png.height = static_cast<png_uint_32>(image.Height);
  png.format = PNG_FORMAT_RGB;
  bool ok = png_image_write_to_stdio(&png, file, 0, image.Pixels.data(), 0, nullptr) != 0;
  if (!ok) error = png.message;
  if (std::fclose(file) != 0 && ok) {
    error = "can't write the file";
    ok = false;
  }
  return ok;
}

// --- JPEG --------------------------------------------------------------------------------------

struct TJpegError {
  jpeg_error_mgr Manager;
  std::jmp_buf Jump;
  char Message[JMSG_LENGTH_MAX];
};

extern "C" void JpegErrorExit(j_common_ptr info) {
  auto* err = reinterpret_cast<TJpegError*>(info->err);
  (*info->err->format_message)(info, err->Message);
  std::longjmp(err->Jump, 1);
}

// Only plain data lives across the jump: the caller owns the buffers.
bool ReadJpegInto(std::FILE* file, TRasterImage& image, std::string& error) {
  jpeg_decompress_struct info{};
  TJpegError err{};
  info.err = jpeg_std_error(&err.Manager);
  err.Manager.error_exit = JpegErrorExit;
  if (setjmp(err.Jump)) {
    jpeg_destroy_decompress(&info);
    error = err.Message;
    return false;
  }
  jpeg_create_decompress(&info);
  jpeg_stdio_src(&info, file);
  jpeg_read_header(&info, TRUE);
  info.out_color_space = JCS_RGB;
  jpeg_start_decompress(&info);
  if (info.output_components != 3 || !SizeAcceptable(info.output_width, info.output_height, error)) {
    if (error.empty()) error = "unsupported JPEG colour layout";
    jpeg_destroy_decompress(&info);
    return false;
  }
  image.Width = static_cast<int32_t>(info.output_width);
  image.Height = static_cast<int32_t>(info.output_height);
  image.Pixels.resize(static_cast<size_t>(image.Width) * image.Height * 3);
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = image.Pixels.data() + static_cast<size_t>(info.output_scanline) * image.Width * 3;
    jpeg_read_scanlines(&info, &row, 1);
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  return true;
}

bool WriteJpegTo(std::FILE* file, const TRasterImage& image, int quality, std::string& error) {
  jpeg_compress_struct info{};
  TJpegError err{};
  info.err = jpeg_std_error(&err.Manager);
  err.Manager.error_exit = JpegErrorExit;
  if (setjmp(err.Jump)) {
    jpeg_destroy_compress(&info);
    error = err.Message;
    return false;
  }
  jpeg_create_compress(&info);
  jpeg_stdio_dest(&info, file);
  info.image_width = static_cast<JDIMENSION>(image.Width);
  info.image_height = static_cast<JDIMENSION>(image.Height);
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, std::clamp(quality, 1, 100), TRUE);
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row =
        const_cast<uint8_t*>(image.Pixels.data()) + static_cast<size_t>(info.next_scanline) * image.Width * 3;
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  return true;
}

bool ReadJpeg(const std::string& fileName, TRasterImage& image, std::string& error) {
  std::FILE* file = std::fopen(fileName.c_str(), "rb");
  if (!file) {
    error = "can't open the file";
    return false;
  }
  const bool ok = ReadJpegInto(file, image, error);
  std::fclose(file);
  if (!ok) image = TRasterImage{};
  return ok;
}

bool WriteJpeg(int fd, const TRasterImage& image, int quality, std::string& error) {
  std::FILE* file = StreamOnDescriptor(fd);
  if (!file) {
    error = "can't create the file";
    return false;
  }
  bool ok = WriteJpegTo(file, image, quality, error);
  if (std::fclose(file) != 0 && ok) {
    error = "can't write the file";
    ok = false;
  }
  return ok;
}

// --- TIFF --------------------------------------------------------------------------------------

thread_local std::string TiffMessage;

extern "C" void TiffErrorHandler(const char* module, const char* format, va_list args) {
  char buffer[512];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  TiffMessage = std::string(module ? module : "TIFF") + ": " + buffer;
}

bool ReadTiff(const std::string& fileName, TRasterImage& image, std::string& error) {
  TIFFSetErrorHandler(TiffErrorHandler);
  TIFFSetWarningHandler(nullptr);
  TiffMessage.clear();
  TIFF* tiff = TIFFOpen(fileName.c_str(), "r");
  if (!tiff) {
    error = TiffMessage.empty() ? "can't open the file" : TiffMessage;
    return false;
  }
  uint32_t width = 0, height = 0;
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
  if (!SizeAcceptable(width, height, error)) {
    TIFFClose(tiff);
    return false;
  }
  std::vector<uint32_t> rgba(static_cast<size_t>(width) * height);
  if (!TIFFReadRGBAImageOriented(tiff, width, height, rgba.data(), ORIENTATION_TOPLEFT, 0)) {
    error = TiffMessage.empty() ? "can't read the picture" : TiffMessage;
    TIFFClose(tiff);
    return false;
  }
  TIFFClose(tiff);
  image.Width = static_cast<int32_t>(width);
  image.Height = static_cast<int32_t>(height);
  image.Pixels.resize(rgba.size() * 3);
  for (size_t i = 0; i < rgba.size(); ++i) {
    image.Pixels[3 * i] = static_cast<uint8_t>(TIFFGetR(rgba[i]));
    image.Pixels[3 * i + 1] = static_cast<uint8_t>(TIFFGetG(rgba[i]));
    image.Pixels[3 * i + 2] = static_cast<uint8_t>(TIFFGetB(rgba[i]));
  }
  return true;
}

bool WriteTiff(int fd, const std::string& fileName, const TRasterImage& image, std::string& error) {
  TIFFSetErrorHandler(TiffErrorHandler);
  TIFFSetWarningHandler(nullptr);
  TiffMessage.clear();
  // The library closes what it opens: it gets a copy of the descriptor.
  const int copy = ::dup(fd);
  TIFF* tiff = copy < 0 ? nullptr : TIFFFdOpen(copy, fileName.c_str(), "w");
  if (!tiff) {
    if (copy >= 0) ::close(copy);
    error = TiffMessage.empty() ? "can't create the file" : TiffMessage;
    return false;
  }
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(image.Width));
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(image.Height));
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tiff, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tiff, 0));
  bool ok = true;
  for (int32_t y = 0; ok && y < image.Height; ++y) {
    auto* row = const_cast<uint8_t*>(image.Pixels.data()) + static_cast<size_t>(y) * image.Width * 3;
    ok = TIFFWriteScanline(tiff, row, static_cast<uint32_t>(y), 0) >= 0;
  }
  TIFFClose(tiff);
  if (!ok) error = TiffMessage.empty() ? "can't write the file" : TiffMessage;
  return ok;
}

} // namespace

TRasterFormat RasterFormatFromFileName(const std::string& fileName) {
  const std::string ext = LowerExtension(fileName);
  if (ext == "png") return TRasterFormat::Png;
  if (ext == "jpg" || ext == "jpeg") return TRasterFormat::Jpeg;
  if (ext == "tif" || ext == "tiff") return TRasterFormat::Tiff;
  return TRasterFormat::Unknown;
}

bool ReadRasterFile(const std::string& fileName, TRasterImage& image, std::string& error) {
  error.clear();
  switch (RasterFormatFromFileName(fileName)) {
  case TRasterFormat::Png:
    return ReadPng(fileName, image, error);
  case TRasterFormat::Jpeg:
    return ReadJpeg(fileName, image, error);
  case TRasterFormat::Tiff:
    return ReadTiff(fileName, image, error);
  default:
    error = "unknown picture format (use .png, .jpg, .jpeg, .tif or .tiff)";
    return false;
  }
}

bool WriteRasterFile(const std::string& fileName, const TRasterImage& image, std::string& error,
                     int jpegQuality) {
  error.clear();
  if (!image.IsValid()) {
    error = "the picture is empty";
    return false;
  }
  const TRasterFormat format = RasterFormatFromFileName(fileName);
  if (format == TRasterFormat::Unknown) {
    error = "unknown picture format (use .png, .jpg, .jpeg, .tif or .tiff)";
    return false;
  }
  // Written beside the target and renamed over it: a failure leaves an old file as it was.
  std::string safeError;
  const TTagError result = WriteFileSafely(
      fileName,
      [&](TFileHandle fd) {
        bool ok = false;
        switch (format) {
        case TRasterFormat::Png:
          ok = WritePng(fd, image, error);
          break;
        case TRasterFormat::Jpeg:
          ok = WriteJpeg(fd, image, jpegQuality, error);
          break;
        case TRasterFormat::Tiff:
          ok = WriteTiff(fd, fileName, image, error);
          break;
        default:
          break;
        }
        return ok ? teNoError : teWriteFileError;
      },
      &safeError);
  if (result >= 1) return true;
  if (error.empty() || LastFileError() != 0) error = safeError;
  return false;
}
