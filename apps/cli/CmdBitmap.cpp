// orvex export-bitmap / import-bitmap: bitmaps and images of a project to and from PNG, JPEG, TIFF and BMP.
#include "CliCommon.h"
#include "CliProjectFiles.h"
#include "common/Safewrite.h"
#include "common/Saveandload.h"
#include "data/Dbitmap.h"
#include "data/Dimage.h"
#include "imaging/Rasterfile.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>

namespace orvexcli {
namespace {

constexpr const char* kPictureFormats = ".png, .jpg, .jpeg, .tif, .tiff or .bmp";

bool IsBmp(const std::string& fileName) {
  std::string ext = fileName.size() >= 4 ? fileName.substr(fileName.size() - 4) : std::string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return ext == ".bmp";
}

// A bitmap's colours (0x00BBGGRR) as an RGB picture; an image's valid values spread over grey 0..255.
TRasterImage PictureOf(const TData& data) {
  TRasterImage picture;
  if (const auto* bitmap = dynamic_cast<const TDBitmap*>(&data)) {
    picture.Width = bitmap->GetWidth();
    picture.Height = bitmap->GetHeight();
    picture.Pixels.resize(static_cast<size_t>(picture.Width) * picture.Height * 3);
    std::vector<TColor> line(static_cast<size_t>(picture.Width));
    for (int32_t y = 0; y < picture.Height; ++y) {
      bitmap->GetLine(y, line.data());
      for (int32_t x = 0; x < picture.Width; ++x) {
        uint8_t* p = picture.Pixels.data() + (static_cast<size_t>(y) * picture.Width + x) * 3;
        p[0] = static_cast<uint8_t>(line[x] & 0xFF);
        p[1] = static_cast<uint8_t>((line[x] >> 8) & 0xFF);
        p[2] = static_cast<uint8_t>((line[x] >> 16) & 0xFF);
      }
    }
  } else if (const auto* image = dynamic_cast<const TDImage*>(&data)) {
    picture.Width = image->GetSizeX();
    picture.Height = image->GetSizeY();
    picture.Pixels.assign(static_cast<size_t>(picture.Width) * picture.Height * 3, 0);
    float low = 0, high = 0;
    const bool any = image->GetMinMaxValuesForValidPixels(low, high);
    const double scale = any && high > low ? 255.0 / (double(high) - low) : 0.0;
    std::vector<float> line(static_cast<size_t>(picture.Width));
    for (int32_t y = 0; y < picture.Height; ++y) {
      image->GetLine(y, line.data()); // invalid lines stay black
      if (!image->GetLineValid(y)) continue;
      for (int32_t x = 0; x < picture.Width; ++x) {
        const auto grey = static_cast<uint8_t>(std::lround(std::clamp((line[x] - low) * scale, 0.0, 255.0)));
        std::fill_n(picture.Pixels.data() + (static_cast<size_t>(y) * picture.Width + x) * 3, 3, grey);
      }
    }
  }
  return picture;
}

int RunExport(const std::string& fileName, int32_t id, const std::string& out, int quality) {
  // A wrong name of the file to write is a usage error, found before anything is loaded.
  if (!IsBmp(out) && RasterFormatFromFileName(out) == TRasterFormat::Unknown)
    throw CliError(kExitUsage, "cannot write '" + out + "': unknown picture format; use " + kPictureFormats);
  TLoadedFile loaded = LoadProjectOrDataFile(fileName);
  const TData* data = loaded.Project->FindData(id);
  if (!data || (!dynamic_cast<const TDBitmap*>(data) && !dynamic_cast<const TDImage*>(data)))
    throw CliError(kExitFailure,
                   "no bitmap or image with ID " + std::to_string(id) + " in '" + fileName + "'");
  const TRasterImage picture = PictureOf(*data);
  if (!picture.IsValid()) throw CliError(kExitFailure, "object " + std::to_string(id) + " holds no picture");
  if (IsBmp(out)) {
    std::vector<TColor> colours(static_cast<size_t>(picture.Width) * picture.Height);
    for (size_t i = 0; i < colours.size(); ++i)
      colours[i] =
          picture.Pixels[3 * i] | (picture.Pixels[3 * i + 1] << 8) | (picture.Pixels[3 * i + 2] << 16);
    const std::vector<uint8_t> bytes = EncodeBitmapFile(picture.Width, picture.Height, colours);
    std::string error;
    if (WriteFileSafely(
            out,
            [&](TFileHandle file) {
              return WriteAllBytes(file, bytes.data(), static_cast<int64_t>(bytes.size())) ? teNoError
                                                                                           : teWriteFileError;
            },
            &error) < 1)
      throw CliError(kExitFailure, error);
    return kExitOk;
  }
  std::string error;
  if (!WriteRasterFile(out, picture, error, quality)) throw CliError(kExitFailure, error);
  return kExitOk;
}

int RunImport(const std::string& picture, const std::string& into, const std::string& out) {
  ClearLastFileError();
  const TFileHandle probe = OpenFileForReading(picture);
  if (probe == kInvalidFileHandle)
    throw CliError(kExitUsage, "cannot open '" + picture + "': " + FileErrorReason(LastFileError()));
  CloseFile(probe);
  // A file of the wrong kind is bad input, like a picture given to info.
  if (!IsBmp(picture) && RasterFormatFromFileName(picture) == TRasterFormat::Unknown)
    throw CliError(kExitFailure, "'" + picture + "' is not a picture; use " + kPictureFormats);
  TRasterImage image;
  std::string error;
  if (IsBmp(picture)) {
    const std::string bytes = [&] {
      TFileHandle file = OpenFileForReading(picture);
      if (file == kInvalidFileHandle)
        throw CliError(kExitUsage, "cannot open '" + picture + "': " + FileErrorReason(LastFileError()));
      std::string content(static_cast<size_t>(std::max<int64_t>(FileSize(file), 0)), '\0');
      ReadAllBytes(file, content.data(), static_cast<int64_t>(content.size()));
      CloseFile(file);
      return content;
    }();
    std::vector<TColor> colours;
    if (!DecodeBitmapFile(std::vector<uint8_t>(bytes.begin(), bytes.end()), image.Width, image.Height,
                          colours))
      throw CliError(kExitFailure, "'" + picture + "' is not a BMP picture of 24 or 32 bits per pixel");
    image.Pixels.resize(colours.size() * 3);
    for (size_t i = 0; i < colours.size(); ++i) {
      image.Pixels[3 * i] = colours[i] & 0xFF;
      image.Pixels[3 * i + 1] = (colours[i] >> 8) & 0xFF;
      image.Pixels[3 * i + 2] = (colours[i] >> 16) & 0xFF;
    }
  } else if (!ReadRasterFile(picture, image, error)) {
    throw CliError(kExitFailure, "cannot read the picture '" + picture + "': " + error);
  }
  TLoadedFile loaded;
  if (!into.empty()) {
    loaded = LoadProjectOrDataFile(into);
  } else {
    loaded.Project = std::make_unique<TProject>();
  }
  TProject& project = *loaded.Project;
  const size_t slash = picture.find_last_of('/');
  auto bitmap = TDBitmap::CreateNewBitmap(&project, image.Width, image.Height, TDataSaveMode::Always,
                                          slash == std::string::npos ? picture : picture.substr(slash + 1));
  std::vector<TColor> line(static_cast<size_t>(image.Width));
  for (int32_t y = 0; y < image.Height; ++y) {
    for (int32_t x = 0; x < image.Width; ++x) {
      const uint8_t* p = image.Pixels.data() + (static_cast<size_t>(y) * image.Width + x) * 3;
      line[static_cast<size_t>(x)] = p[0] | (p[1] << 8) | (p[2] << 16);
    }
    bitmap->SetLine(y, line.data());
  }
  bitmap->SetAllLinesValid(true);
  bitmap->AddToHistoryList("Imported from " + picture, 0);
  const int32_t id = bitmap->GetID();
  project.AddData(std::move(bitmap));
  SaveProjectOrDataFile(project, out, false);
  std::cout << "imported: " << picture << " as bitmap " << id << " (" << image.Width << " x " << image.Height
            << ") into " << out << "\n";
  return kExitOk;
}

} // namespace

void AddBitmapCommands(CLI::App& app, CliContext& ctx) {
  struct TExportOptions {
    std::string File, Out;
    int32_t ID = 0;
    int Quality = 92;
  };
  auto exportOptions = std::make_shared<TExportOptions>();
  auto* exportCommand = app.add_subcommand(
      "export-bitmap", "Write a bitmap, or an image as grey scale, to a PNG, JPEG, TIFF or BMP file");
  exportCommand->add_option("FILE", exportOptions->File, "Project or data file")->required();
  exportCommand->add_option("ID", exportOptions->ID, "ID of the bitmap or image")->required();
  exportCommand->add_option("-o,--output", exportOptions->Out, "Picture file (.png, .jpg, .tif, .bmp)")
      ->required();
  exportCommand->add_option("--quality", exportOptions->Quality, "JPEG quality, 1 to 100")
      ->check(CLI::Validator(
          [](std::string& text) -> std::string {
            char* end = nullptr;
            const long value = std::strtol(text.c_str(), &end, 10);
            return *end == '\0' && value >= 1 && value <= 100 ? std::string() : "must be 1 to 100";
          },
          "", ""));
  SetCommandAction(exportCommand, ctx, [exportOptions] {
    return RunExport(exportOptions->File, exportOptions->ID, exportOptions->Out, exportOptions->Quality);
  });

  struct TImportOptions {
    std::string Picture, Into, Out;
  };
  auto importOptions = std::make_shared<TImportOptions>();
  auto* importCommand =
      app.add_subcommand("import-bitmap", "Add a PNG, JPEG, TIFF or BMP picture as a bitmap");
  importCommand->add_option("PICTURE", importOptions->Picture, "Picture file")->required();
  importCommand->add_option("--into", importOptions->Into,
                            "Project or data file to add it to (default: a new project)");
  importCommand->add_option("-o,--output", importOptions->Out, "Project or data file to write")->required();
  SetCommandAction(importCommand, ctx, [importOptions] {
    return RunImport(importOptions->Picture, importOptions->Into, importOptions->Out);
  });
}

} // namespace orvexcli
