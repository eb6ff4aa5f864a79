// The draw field of the image viewer.
#include "viewers/Vimagedrawfield.h"

#include "data/Datafield.h"
#include "data/Dimage.h"

#include <algorithm>
#include <cstdlib>

void TImageDrawField::SetSize(int32_t sizeX, int32_t sizeY) {
  if (sizeX <= 0 || sizeY <= 0) {
    Clear();
    return;
  }
  if (sizeX == FSizeX && sizeY == FSizeY) return;
  FSizeX = sizeX;
  FSizeY = sizeY;
  FFlags.assign(static_cast<size_t>(sizeX) * static_cast<size_t>(sizeY), 0);
}

void TImageDrawField::Clear() {
  FSizeX = FSizeY = 0;
  FFlags.clear();
}

bool TImageDrawField::GetPixel(int32_t x, int32_t y) const {
  return Inside(x, y) && FFlags[Index(x, y)] != 0;
}

void TImageDrawField::SetPixel(int32_t x, int32_t y, bool value) {
  if (Inside(x, y)) FFlags[Index(x, y)] = value ? 1 : 0;
}

void TImageDrawField::SetAll(bool value) {
  std::fill(FFlags.begin(), FFlags.end(), value ? 1 : 0);
}

void TImageDrawField::Invert() {
  for (uint8_t& f : FFlags) f = f ? 0 : 1;
}

void TImageDrawField::SetLine(int32_t x1, int32_t y1, int32_t x2, int32_t y2, bool value) {
  // Integer line walk: every step moves one pixel in the longer direction.
  const int32_t dx = std::abs(x2 - x1), dy = -std::abs(y2 - y1);
  const int32_t sx = x1 < x2 ? 1 : -1, sy = y1 < y2 ? 1 : -1;
  int32_t error = dx + dy;
  for (;;) {
    SetPixel(x1, y1, value);
    if (x1 == x2 && y1 == y2) break;
    const int32_t e2 = 2 * error;
    if (e2 >= dy) {
      error += dy;
      x1 += sx;
    }
    if (e2 <= dx) {
      error += dx;
      y1 += sy;
    }
  }
}

void TImageDrawField::DrawSinglePixelWithPen(int32_t x, int32_t y, bool value, int32_t penWidth) {
  penWidth = std::max(1, penWidth);
  const int32_t first = -(penWidth - 1) / 2, last = penWidth / 2;
  for (int32_t j = first; j <= last; ++j)
    for (int32_t i = first; i <= last; ++i) SetPixel(x + i, y + j, value);
}

void TImageDrawField::FloodFillGrow(int32_t x, int32_t y, bool value) {
  if (!Inside(x, y)) return;
  const uint8_t from = FFlags[Index(x, y)], to = value ? 1 : 0;
  if (from == to) return;
  // Scan-free stack fill; the stack holds at most every pixel once since each is changed when pushed.
  std::vector<std::pair<int32_t, int32_t>> stack{{x, y}};
  FFlags[Index(x, y)] = to;
  while (!stack.empty()) {
    const auto [px, py] = stack.back();
    stack.pop_back();
    const std::pair<int32_t, int32_t> next[4] = {{px + 1, py}, {px - 1, py}, {px, py + 1}, {px, py - 1}};
    for (const auto& [nx, ny] : next)
      if (Inside(nx, ny) && FFlags[Index(nx, ny)] == from) {
        FFlags[Index(nx, ny)] = to;
        stack.emplace_back(nx, ny);
      }
  }
}

int64_t TImageDrawField::GetNumberOfPixels(bool value) const {
  const auto set = std::count(FFlags.begin(), FFlags.end(), uint8_t{1});
  return value ? set : static_cast<int64_t>(FFlags.size()) - set;
}

void TImageDrawField::GetAsLinearArray(bool* values) const {
  for (size_t i = 0; i < FFlags.size(); ++i) values[i] = FFlags[i] != 0;
}

void TImageDrawField::SetFromLinearArray(int32_t sizeX, int32_t sizeY, const bool* values) {
  SetSize(sizeX, sizeY);
  for (size_t i = 0; i < FFlags.size(); ++i) FFlags[i] = values[i] ? 1 : 0;
}

std::unique_ptr<TDataField> TImageDrawField::GetAsDataField() const {
  if (!Exists()) return nullptr;
  auto field =
      std::make_unique<TDataField>(std::initializer_list<int32_t>{FSizeX, FSizeY}, TDataFieldKind::Bool);
  for (int32_t y = 0; y < FSizeY; ++y)
    for (int32_t x = 0; x < FSizeX; ++x) {
      const int32_t index[2] = {x, y};
      field->SetBoolValue(index, GetPixel(x, y));
    }
  return field;
}

bool TImageDrawField::SetFromDataField(const TDataField& field) {
  if (field.GetDimension() != 2) return false;
  const int32_t sizeX = field.Ranges()[0], sizeY = field.Ranges()[1];
  if (sizeX <= 0 || sizeY <= 0) return false;
  SetSize(sizeX, sizeY);
  for (int32_t y = 0; y < sizeY; ++y)
    for (int32_t x = 0; x < sizeX; ++x) {
      const int32_t index[2] = {x, y};
      SetPixel(x, y, field.GetBoolValue(index));
    }
  return true;
}

std::unique_ptr<TPartialMemoryArray<bool>> TImageDrawField::GetAsPartialMemoryArray() const {
  if (!Exists()) return nullptr;
  auto array = std::make_unique<TPartialMemoryArray<bool>>(static_cast<uint64_t>(FSizeX),
                                                           static_cast<uint64_t>(FSizeY));
  std::unique_ptr<bool[]> flags(new bool[static_cast<size_t>(FSizeX)]);
  for (int32_t y = 0; y < FSizeY; ++y) {
    for (int32_t x = 0; x < FSizeX; ++x) flags[static_cast<size_t>(x)] = GetPixel(x, y);
    array->SetValueArrayDim1(static_cast<uint64_t>(y), flags.get());
  }
  return array;
}

bool TImageDrawField::SetFromPartialMemoryArray(const TPartialMemoryArray<bool>& array) {
  if (array.Dim3 != 1 || array.Dim1 == 0 || array.Dim2 == 0 || array.Dim1 > INT32_MAX ||
      array.Dim2 > INT32_MAX)
    return false;
  SetSize(static_cast<int32_t>(array.Dim1), static_cast<int32_t>(array.Dim2));
  std::unique_ptr<bool[]> flags(new bool[static_cast<size_t>(FSizeX)]);
  for (int32_t y = 0; y < FSizeY; ++y) {
    array.GetValueArrayDim1(static_cast<uint64_t>(y), flags.get());
    for (int32_t x = 0; x < FSizeX; ++x) SetPixel(x, y, flags[static_cast<size_t>(x)]);
  }
  return true;
}

bool TImageDrawField::GetToImage(TDImage& image) const {
  if (!Exists() || image.GetSizeX() != FSizeX || image.GetSizeY() != FSizeY) return false;
  std::vector<float> line(static_cast<size_t>(FSizeX));
  for (int32_t y = 0; y < FSizeY; ++y) {
    for (int32_t x = 0; x < FSizeX; ++x) line[static_cast<size_t>(x)] = GetPixel(x, y) ? 1.0f : 0.0f;
    image.SetLine(y, line.data());
    image.SetLineValid(y, true);
  }
  return true;
}

void TImageDrawField::SetFromImage(const TDImage& image) {
  SetSize(image.GetSizeX(), image.GetSizeY());
  SetAll(false);
  for (int32_t y = 0; y < FSizeY; ++y)
    for (int32_t x = 0; x < FSizeX; ++x) SetPixel(x, y, image.GetField(x, y) >= 0.5f);
}
