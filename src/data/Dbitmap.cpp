// Bitmaps: pixel access, interpolation, the two file forms with their BMP coding, and extraction into images.
#include "data/Dbitmap.h"

#include "data/Dimage.h"
#include "data/Dinterpretation.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

int Red(TColor c) {
  return static_cast<int>(c & 0xFF);
}
int Green(TColor c) {
  return static_cast<int>((c >> 8) & 0xFF);
}
int Blue(TColor c) {
  return static_cast<int>((c >> 16) & 0xFF);
}
TColor MakeColor(int red, int green, int blue) {
  return static_cast<TColor>(red) | (static_cast<TColor>(green) << 8) | (static_cast<TColor>(blue) << 16);
}

void PutLE(std::vector<uint8_t>& out, size_t at, uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (8 * i));
}
uint32_t GetLE(const std::vector<uint8_t>& in, size_t at, int bytes) {
  uint32_t value = 0;
  for (int i = 0; i < bytes; ++i) value |= static_cast<uint32_t>(in[at + static_cast<size_t>(i)]) << (8 * i);
  return value;
}

constexpr size_t kFileHeaderSize = 14;
constexpr size_t kInfoHeaderSize = 40;
constexpr int64_t kMaxBitmapSide = 1 << 16;

} // namespace

std::vector<uint8_t> EncodeBitmapFile(int32_t width, int32_t height, const std::vector<TColor>& pixels) {
  const size_t stride = (static_cast<size_t>(width) * 3 + 3) / 4 * 4;
  const size_t dataSize = stride * static_cast<size_t>(height);
  const size_t offset = kFileHeaderSize + kInfoHeaderSize;
  std::vector<uint8_t> out(offset + dataSize, 0);
  out[0] = 'B';
  out[1] = 'M';
  PutLE(out, 2, static_cast<uint32_t>(out.size()), 4);
  PutLE(out, 10, static_cast<uint32_t>(offset), 4);
  PutLE(out, 14, static_cast<uint32_t>(kInfoHeaderSize), 4);
  PutLE(out, 18, static_cast<uint32_t>(width), 4);
  PutLE(out, 22, static_cast<uint32_t>(height), 4); // positive: rows bottom-up
  PutLE(out, 26, 1, 2);                             // planes
  PutLE(out, 28, 24, 2);                            // bits per pixel
  PutLE(out, 34, static_cast<uint32_t>(dataSize), 4);
  PutLE(out, 38, 2835, 4); // 72 dpi
  PutLE(out, 42, 2835, 4);
  for (int32_t y = 0; y < height; ++y) {
    size_t at = offset + stride * static_cast<size_t>(height - 1 - y);
    for (int32_t x = 0; x < width; ++x) {
      const TColor c = pixels[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
      out[at++] = static_cast<uint8_t>(Blue(c));
      out[at++] = static_cast<uint8_t>(Green(c));
      out[at++] = static_cast<uint8_t>(Red(c));
    }
  }
  return out;
}

bool DecodeBitmapFile(const std::vector<uint8_t>& bytes, int32_t& width, int32_t& height,
                      std::vector<TColor>& pixels) {
  if (bytes.size() < kFileHeaderSize + kInfoHeaderSize || bytes[0] != 'B' || bytes[1] != 'M') return false;
  const uint32_t offset = GetLE(bytes, 10, 4);
  const uint32_t headerSize = GetLE(bytes, 14, 4);
  const auto w = static_cast<int32_t>(GetLE(bytes, 18, 4));
  const auto h = static_cast<int32_t>(GetLE(bytes, 22, 4));
  const uint32_t bits = GetLE(bytes, 28, 2);
  const uint32_t compression = GetLE(bytes, 30, 4);
  if (headerSize < kInfoHeaderSize || (bits != 24 && bits != 32) || compression != 0 || w <= 0 || h == 0 ||
      w > kMaxBitmapSide || std::abs(static_cast<int64_t>(h)) > kMaxBitmapSide)
    return false;
  const bool topDown = h < 0;
  const int64_t rows = std::abs(static_cast<int64_t>(h));
  const int64_t bytesPerPixel = bits / 8;
  const int64_t stride = (static_cast<int64_t>(w) * bytesPerPixel + 3) / 4 * 4;
  if (static_cast<int64_t>(offset) + stride * rows > static_cast<int64_t>(bytes.size())) return false;
  width = w;
  height = static_cast<int32_t>(rows);
  pixels.assign(static_cast<size_t>(w) * static_cast<size_t>(rows), 0);
  for (int64_t y = 0; y < rows; ++y) {
    const int64_t fileRow = topDown ? y : rows - 1 - y;
    size_t at = offset + static_cast<size_t>(stride * fileRow);
    for (int32_t x = 0; x < w; ++x, at += static_cast<size_t>(bytesPerPixel))
      pixels[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)] =
          MakeColor(bytes[at + 2], bytes[at + 1], bytes[at]);
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// TDBitmap

TDBitmap::TDBitmap() {
  SetImageIndex(0);
  SetCaption("Bitmap");
}

TDBitmap::~TDBitmap() = default;

std::unique_ptr<TDBitmap> TDBitmap::CreateNewBitmap(IDataProject* project, int32_t width, int32_t height,
                                                    TDataSaveMode saveMode, const std::string& caption) {
  auto bitmap = std::make_unique<TDBitmap>();
  bitmap->SetFieldSize(width, height);
  bitmap->ClearBitmap();
  bitmap->SetSaveMode(saveMode);
  bitmap->SetCaption(caption);
  if (project) bitmap->SetID(project->GetNewDataID());
  return bitmap;
}

void TDBitmap::SetFieldSize(int32_t width, int32_t height) {
  width = std::max(width, 0);
  height = std::max(height, 0);
  if (FField && width == FSizeX && height == FSizeY) return;
  FField.reset();
  FField = std::make_unique<TDataField>(std::initializer_list<int32_t>{height, width}, TDataFieldKind::Int32);
  FField->ClearData();
  FSizeX = width;
  FSizeY = height;
  // A picture is whole at once: every line is valid.
  FLineValid.assign(static_cast<size_t>(height), true);
  FLineChanged.assign(static_cast<size_t>(height), false);
}

void TDBitmap::FreeField() {
  FField.reset();
  FSizeX = FSizeY = 0;
  FLineValid.clear();
  FLineChanged.clear();
}

void TDBitmap::SetAllColors(TColor colour) {
  if (!FField) return;
  const std::vector<int32_t> line(static_cast<size_t>(FSizeX), static_cast<int32_t>(colour));
  for (int32_t y = 0; y < FSizeY; ++y) {
    const int32_t index[2] = {y, 0};
    FField->SetColorValueArray(index, line.data(), FSizeX);
  }
}

TColor TDBitmap::GetField(int32_t x, int32_t y) const {
  if (!FField || x < 0 || y < 0 || x >= FSizeX || y >= FSizeY) return 0;
  const int32_t index[2] = {y, x};
  return static_cast<TColor>(FField->GetColorValue(index));
}

void TDBitmap::SetField(int32_t x, int32_t y, TColor colour) {
  if (!FField || x < 0 || y < 0 || x >= FSizeX || y >= FSizeY) return;
  const int32_t index[2] = {y, x};
  FField->SetColorValue(index, static_cast<int32_t>(colour));
}

void TDBitmap::GetLine(int32_t y, TColor* colours) const {
  if (!FField || y < 0 || y >= FSizeY) {
    std::fill_n(colours, std::max(FSizeX, 0), 0u);
    return;
  }
  const int32_t index[2] = {y, 0};
  FField->GetColorValueArray(index, reinterpret_cast<int32_t*>(colours), FSizeX);
}

void TDBitmap::SetLine(int32_t y, const TColor* colours) {
  if (!FField || y < 0 || y >= FSizeY) return;
  const int32_t index[2] = {y, 0};
  FField->SetColorValueArray(index, reinterpret_cast<const int32_t*>(colours), FSizeX);
}

TColor TDBitmap::GetInterpolatedField(double x, double y) const {
  if (!FField || FSizeX < 1 || FSizeY < 1) return 0;
  x = std::clamp(x, 0.0, static_cast<double>(FSizeX - 1));
  y = std::clamp(y, 0.0, static_cast<double>(FSizeY - 1));
  const auto i = static_cast<int32_t>(x);
  const auto j = static_cast<int32_t>(y);
  // On the last column or row there is no neighbour: that direction's fraction counts as 0.
  const double fx = i < FSizeX - 1 ? x - i : 0.0;
  const double fy = j < FSizeY - 1 ? y - j : 0.0;
  if (fx == 0.0 && fy == 0.0) return GetField(i, j);
  const TColor c00 = GetField(i, j), c10 = GetField(i + 1, j), c01 = GetField(i, j + 1),
               c11 = GetField(i + 1, j + 1);
  auto mix = [&](int (*channel)(TColor)) {
    const double value = (1 - fx) * (1 - fy) * channel(c00) + fx * (1 - fy) * channel(c10) +
                         fx * fy * channel(c11) + (1 - fx) * fy * channel(c01);
    return static_cast<int>(std::lround(std::clamp(value, 0.0, 255.0)));
  };
  return MakeColor(mix(Red), mix(Green), mix(Blue));
}

bool TDBitmap::IsDataPointInside(double x, double y) const {
  return x >= -0.0001 && x <= FSizeX - 1 + 0.0001 && y >= -0.0001 && y <= FSizeY - 1 + 0.0001;
}

void TDBitmap::CopyFrom(const TDBitmap& source) {
  if (!source.FField) {
    FreeField();
  } else {
    SetFieldSize(source.FSizeX, source.FSizeY);
    std::vector<TColor> line(static_cast<size_t>(FSizeX));
    for (int32_t y = 0; y < FSizeY; ++y) {
      source.GetLine(y, line.data());
      SetLine(y, line.data());
    }
  }
  FSpaceTransformationID = source.FSpaceTransformationID;
  DoDataChange(TDataChangeInfo::DataChanged);
}

// ---------------------------------------------------------------------------------------------
// Extraction

namespace {

// A float image of the bitmap's size, link and "Bins" unit, with a new ID from the project.
std::unique_ptr<TDImage> MakeChannelImage(TDBitmap& bitmap, IDataProject& project,
                                          const std::string& suffix) {
  auto image = std::make_unique<TDImage>();
  image->SetFieldSize(bitmap.GetWidth(), bitmap.GetHeight(), TDataFieldKind::Float, true);
  image->SetSpaceTransformationID(bitmap.GetSpaceTransformationID());
  image->SetZInterpretationID(GetOrMakeStandardZInterpretation(project, "ZInterpretation Bins", "Bins"));
  image->SetCaption(bitmap.GetCaption() + suffix);
  image->SetSaveMode(TDataSaveMode::Always);
  image->SetID(project.GetNewDataID());
  return image;
}

// Fills the image line by line from the bitmap through a colour-to-value function.
template <class F>
void FillImage(const TDBitmap& bitmap, TDImage& image, F value) {
  std::vector<TColor> colours(static_cast<size_t>(bitmap.GetWidth()));
  std::vector<float> values(colours.size());
  image.SetAutoDataChange(false);
  for (int32_t y = 0; y < bitmap.GetHeight(); ++y) {
    bitmap.GetLine(y, colours.data());
    std::transform(colours.begin(), colours.end(), values.begin(), value);
    image.SetLine(y, values.data());
  }
  image.SetAllLinesValid();
  image.SetAutoDataChange(true);
}

} // namespace

int32_t TDBitmap::ExtractAsImageMonochrome() {
  IDataProject* project = OwningProject(*this);
  if (!project || !FField) return 0;
  auto image = MakeChannelImage(*this, *project, " (Image)");
  FillImage(*this, *image,
            [](TColor c) { return static_cast<float>(0.299 * Red(c) + 0.587 * Green(c) + 0.114 * Blue(c)); });
  const int32_t id = image->GetID();
  project->AddData(std::move(image));
  return id;
}

std::vector<int32_t> TDBitmap::ExtractAsImageRGB() {
  IDataProject* project = OwningProject(*this);
  if (!project || !FField) return {};
  std::vector<int32_t> ids;
  const std::pair<const char*, int (*)(TColor)> channels[3] = {
      {" (Image Red)", Red}, {" (Image Green)", Green}, {" (Image Blue)", Blue}};
  for (const auto& entry : channels) {
    const auto channel = entry.second; // a plain variable: structured bindings can't be captured everywhere
    auto image = MakeChannelImage(*this, *project, entry.first);
    FillImage(*this, *image, [channel](TColor c) { return static_cast<float>(channel(c)); });
    ids.push_back(image->GetID());
    project->AddData(std::move(image));
  }
  return ids;
}

// ---------------------------------------------------------------------------------------------
// File forms

TTagError TDBitmap::SaveDataToTagFile(TFileHandle file) {
  TTagError result = TDImageBase::SaveDataToTagFile(file);
  if (result < 1) return result;
  const bool compatible = TFileVersion::SaveVersion < 6;
  TTagControl own, t;
  if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", compatible ? 0 : ThisVersion)) < 1 ||
      (result = t.SaveIntTag(file, "SpaceTransformationID", FSpaceTransformationID)) < 1)
    return result;
  if (!compatible) {
    if ((result = t.SaveIntTag(file, "SizeX", FSizeX)) < 1 ||
        (result = t.SaveIntTag(file, "SizeY", FSizeY)) < 1)
      return result;
    if (FField) {
      if ((result = SaveDataFieldToTagFile(file, "BitmapData", *FField)) < 1) return result;
    } else {
      const TDataField empty({0, 0}, TDataFieldKind::Int32);
      if ((result = SaveDataFieldToTagFile(file, "BitmapData", empty)) < 1) return result;
    }
    return own.CloseWriteTag(file);
  }
  if ((result = own.CloseWriteTag(file)) < 1) return result;
  // The compatible form: the picture as a BMP file in a stream tag beside the class list.
  std::vector<TColor> pixels(static_cast<size_t>(FSizeX) * static_cast<size_t>(FSizeY));
  for (int32_t y = 0; y < FSizeY; ++y)
    GetLine(y, pixels.data() + static_cast<size_t>(y) * static_cast<size_t>(FSizeX));
  const std::vector<uint8_t> bmp = EncodeBitmapFile(FSizeX, FSizeY, pixels);
  TTagControl stream;
  if ((result = stream.WriteTag(file, "TDStream", TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", 0)) < 1 ||
      (result = t.SaveIntTag(file, "StreamSize", static_cast<int32_t>(bmp.size()))) < 1 ||
      (result = t.SaveByteTag(file, "StreamData", bmp.data(), static_cast<int64_t>(bmp.size()))) < 1)
    return result;
  return stream.CloseWriteTag(file);
}

TTagError TDBitmap::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagError result = TDImageBase::LoadDataFromTagFile(file, parent);
  if (result < 1) return result;
  TTagControl own, t;
  int32_t version = 0;
  if ((result = own.FindTag(file, kClassName, parent)) < 1) return result;
  t.LoadOrDefaultIntTag(file, "Version", own, &version, 1, 0);
  t.LoadOrDefaultIntTag(file, "SpaceTransformationID", own, &FSpaceTransformationID, 1, 0);
  int32_t sizeX = 0, sizeY = 0;
  if (t.LoadIntTag(file, "SizeX", own, &sizeX) >= 1) {
    if ((result = t.LoadIntTag(file, "SizeY", own, &sizeY)) < 1) return result;
    std::unique_ptr<TDataField> field;
    if ((result = LoadDataFieldFromTagFile(file, "BitmapData", own, field)) < 1) return result;
    const std::vector<int32_t> expected{sizeY, sizeX};
    if (field->Ranges() != expected || field->GetLastDataFieldKind() != TDataFieldKind::Int32)
      return teReadFileError;
    FField = std::move(field);
    FSizeX = sizeX;
    FSizeY = sizeY;
    FLineValid.assign(static_cast<size_t>(sizeY), true);
    FLineChanged.assign(static_cast<size_t>(sizeY), false);
    return teNoError;
  }
  // The compatible form: a BMP file in the stream tag beside the class list.
  TTagControl stream;
  int32_t size = 0;
  if ((result = stream.FindTag(file, "TDStream", parent)) < 1 ||
      (result = t.LoadIntTag(file, "StreamSize", stream, &size)) < 1 ||
      (result = t.FindTag(file, "StreamData", stream)) < 1)
    return result;
  if (size < 0 || size > t.End() - t.Begin()) return teReadFileError;
  std::vector<uint8_t> bmp(static_cast<size_t>(size));
  if ((result = LoadByteFromFile(file, bmp.data(), size)) < 1) return result;
  std::vector<TColor> pixels;
  if (!DecodeBitmapFile(bmp, sizeX, sizeY, pixels)) return teReadFileError;
  FreeField();
  SetFieldSize(sizeX, sizeY);
  for (int32_t y = 0; y < sizeY; ++y)
    SetLine(y, pixels.data() + static_cast<size_t>(y) * static_cast<size_t>(sizeX));
  return teNoError;
}

void RegisterBitmapClasses() {
  TData::RegisterDataObject(TDBitmap::kClassName, &TDBitmap::CreateDataObject);
}
