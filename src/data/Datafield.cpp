// Data fields: typed n-dimensional arrays on paged memory, with conversions and their file form.
#include "data/Datafield.h"

#include "common/OrvexException.h"
#include "common/memory/Memorymanagement.h"
#include "common/memory/Partialmemory.h"
#include "common/threads/Progressandcancel.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

// Fixed page size of the paged memory: a kind is allowed when pages hold whole elements.
constexpr int64_t kPageSize = 65536;
// Elements converted per block in the float array forms.
constexpr int64_t kConversionBlock = 4096;

// Calls f.template operator()<T>() with the element type of kind.
template <typename F>
void DispatchKind(TDataFieldKind kind, F&& f) {
  switch (kind) {
  case TDataFieldKind::Int64:
    f.template operator()<int64_t>();
    break;
  case TDataFieldKind::Int32:
    f.template operator()<int32_t>();
    break;
  case TDataFieldKind::Int16:
    f.template operator()<int16_t>();
    break;
  case TDataFieldKind::Int8:
    f.template operator()<int8_t>();
    break;
  case TDataFieldKind::UInt32:
    f.template operator()<uint32_t>();
    break;
  case TDataFieldKind::UInt16:
    f.template operator()<uint16_t>();
    break;
  case TDataFieldKind::UInt8:
    f.template operator()<uint8_t>();
    break;
  case TDataFieldKind::Bool:
    f.template operator()<bool>();
    break;
  case TDataFieldKind::Float:
    f.template operator()<float>();
    break;
  case TDataFieldKind::Double:
    f.template operator()<double>();
    break;
  default:
    throw OrvexException("TDataField::GetValue(): no case for DataFieldKind " +
                         std::to_string(static_cast<int32_t>(kind)));
  }
}

// float -> element: integers truncate toward zero and keep their low bits, bool is value != 0.
template <typename T>
T FromFloat(float value) {
  if constexpr (std::is_same_v<T, bool>) {
    return value != 0.0f;
  } else if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(value);
  } else {
    if (std::isnan(value)) return 0;
    const double clamped = std::clamp(static_cast<double>(value), -9.2e18, 9.2e18);
    return static_cast<T>(static_cast<int64_t>(clamped));
  }
}

template <typename T>
float ToFloat(T value) {
  return static_cast<float>(value);
}

} // namespace

// ---------------------------------------------------------------------------------------------

int32_t TDataField::GetDataSizeForFieldKind(TDataFieldKind kind) {
  switch (kind) {
  case TDataFieldKind::Int64:
  case TDataFieldKind::Double:
    return 8;
  case TDataFieldKind::Int32:
  case TDataFieldKind::UInt32:
  case TDataFieldKind::Float:
    return 4;
  case TDataFieldKind::Int16:
  case TDataFieldKind::UInt16:
    return 2;
  case TDataFieldKind::Int8:
  case TDataFieldKind::UInt8:
  case TDataFieldKind::Bool:
    return 1;
  case TDataFieldKind::Extended:
    return 10;
  default:
    return 0;
  }
}

TDataField::TDataField(const int32_t* ranges, int32_t dimension, TDataFieldKind kind)
    : FKind(kind), FDimension(dimension), FElementSize(GetDataSizeForFieldKind(kind)) {
  if (FElementSize == 0 || kPageSize % FElementSize != 0)
    throw OrvexException("TDataField::TDataField(): DataFieldKind is not allowed");
  if (dimension < 1)
    throw OrvexException("TDataField::TDataField(): dimension " + std::to_string(dimension) +
                         " is not allowed");
  FRanges.assign(ranges, ranges + dimension);
  Allocate();
}

TDataField::TDataField(std::initializer_list<int32_t> ranges, TDataFieldKind kind)
    : TDataField(ranges.begin(), static_cast<int32_t>(ranges.size()), kind) {}

void TDataField::Allocate() {
  FStrides.assign(static_cast<size_t>(FDimension), 0);
  int64_t stride = FElementSize;
  for (int32_t i = FDimension - 1; i >= 0; --i) {
    if (FRanges[static_cast<size_t>(i)] < 0) throw OrvexException("TDataField::TDataField(): negative range");
    FStrides[static_cast<size_t>(i)] = stride;
    if (FRanges[static_cast<size_t>(i)] > 0 &&
        stride > std::numeric_limits<int64_t>::max() / FRanges[static_cast<size_t>(i)])
      throw OrvexExceptionMemoryAllocation("TDataField::TDataField(): the field's size overflows");
    stride *= FRanges[static_cast<size_t>(i)];
  }
  int64_t size = stride;
  if (size == 0) size = 16;
  IPartialMemoryAllocator* allocator = TMemoryManagement::PartialMemoryAllocator;
  FMemory = allocator ? allocator->AllocateArray(static_cast<uint64_t>(size)) : nullptr;
  if (!FMemory)
    throw OrvexExceptionMemoryAllocation("PartialMemoryAllocator->AllocateArray(" +
                                         std::to_string(size / (1024 * 1024)) +
                                         " MBytes) did not work: not enough memory");
}

// Deleting the array gives its pages back to the allocator.
TDataField::~TDataField() {
  delete FMemory;
}

void TDataField::GetRanges(int32_t* out) const {
  std::copy(FRanges.begin(), FRanges.end(), out);
}

int64_t TDataField::GetElementCount() const {
  int64_t count = 1;
  for (int32_t r : FRanges) count *= r;
  return count;
}

int64_t TDataField::ByteOffset(const int32_t* index) const {
  int64_t offset = 0;
  for (int32_t i = 0; i < FDimension; ++i)
    offset += static_cast<int64_t>(index[i]) * FStrides[static_cast<size_t>(i)];
  return offset;
}

void TDataField::ClearData() {
  FMemory->ClearData();
}

void TDataField::GetBytes(int64_t offset, void* destination, int64_t size) const {
  if (size > 0)
    FMemory->GetDataAtAddressEx(static_cast<uint64_t>(offset), destination, static_cast<uint64_t>(size));
}

void TDataField::SetBytes(int64_t offset, const void* source, int64_t size) {
  if (size > 0)
    FMemory->SetDataAtAddressEx(static_cast<uint64_t>(offset), source, static_cast<uint64_t>(size));
}

void TDataField::SetValue(const int32_t* index, float value) {
  SetValueArray(index, &value, 1);
}

float TDataField::GetValue(const int32_t* index) const {
  float value = 0;
  GetValueArray(index, &value, 1);
  return value;
}

void TDataField::SetValueArray(const int32_t* index, const float* values, int64_t count) {
  int64_t offset = ByteOffset(index);
  if (FKind == TDataFieldKind::Float) {
    SetBytes(offset, values, count * 4);
    return;
  }
  DispatchKind(FKind, [&]<typename T>() {
    T buffer[kConversionBlock];
    for (int64_t done = 0; done < count;) {
      const int64_t n = std::min(kConversionBlock, count - done);
      for (int64_t i = 0; i < n; ++i) buffer[i] = FromFloat<T>(values[done + i]);
      SetBytes(offset, buffer, n * static_cast<int64_t>(sizeof(T)));
      offset += n * static_cast<int64_t>(sizeof(T));
      done += n;
    }
  });
}

const float* TDataField::GetFloatReadPointer(const int32_t* index, int64_t& available) const {
  available = 0;
  if (FKind != TDataFieldKind::Float || !FMemory) return nullptr;
  uint64_t bytes = 0;
  const void* p = FMemory->GetReadPointer(static_cast<uint64_t>(ByteOffset(index)), bytes);
  if (!p) return nullptr;
  available = static_cast<int64_t>(bytes / sizeof(float));
  return static_cast<const float*>(p);
}

void TDataField::GetValueArray(const int32_t* index, float* values, int64_t count) const {
  int64_t offset = ByteOffset(index);
  if (FKind == TDataFieldKind::Float) {
    GetBytes(offset, values, count * 4);
    return;
  }
  DispatchKind(FKind, [&]<typename T>() {
    T buffer[kConversionBlock];
    for (int64_t done = 0; done < count;) {
      const int64_t n = std::min(kConversionBlock, count - done);
      if constexpr (std::is_same_v<T, bool>) {
        // Read as bytes: any non-zero byte is true.
        uint8_t raw[kConversionBlock];
        GetBytes(offset, raw, n);
        for (int64_t i = 0; i < n; ++i) values[done + i] = raw[i] != 0 ? 1.0f : 0.0f;
      } else {
        GetBytes(offset, buffer, n * static_cast<int64_t>(sizeof(T)));
        for (int64_t i = 0; i < n; ++i) values[done + i] = ToFloat(buffer[i]);
      }
      offset += n * static_cast<int64_t>(sizeof(T));
      done += n;
    }
  });
}

template <typename T>
void TDataField::SetRaw(const int32_t* index, const T* values, int64_t count, TDataFieldKind kind) {
  if (FKind == kind) SetBytes(ByteOffset(index), values, count * static_cast<int64_t>(sizeof(T)));
}

template <typename T>
void TDataField::GetRaw(const int32_t* index, T* values, int64_t count, TDataFieldKind kind) const {
  if (FKind == kind) {
    GetBytes(ByteOffset(index), values, count * static_cast<int64_t>(sizeof(T)));
    return;
  }
  for (int64_t i = 0; i < count; ++i) values[i] = T{};
}

void TDataField::SetBoolValue(const int32_t* index, bool value) {
  SetBoolValueArray(index, &value, 1);
}
bool TDataField::GetBoolValue(const int32_t* index) const {
  bool value = false;
  GetBoolValueArray(index, &value, 1);
  return value;
}
void TDataField::SetBoolValueArray(const int32_t* index, const bool* values, int64_t count) {
  SetRaw(index, values, count, TDataFieldKind::Bool);
}
void TDataField::GetBoolValueArray(const int32_t* index, bool* values, int64_t count) const {
  if (FKind != TDataFieldKind::Bool) {
    std::fill(values, values + count, false);
    return;
  }
  std::vector<uint8_t> raw(static_cast<size_t>(count));
  GetBytes(ByteOffset(index), raw.data(), count);
  for (int64_t i = 0; i < count; ++i) values[i] = raw[static_cast<size_t>(i)] != 0;
}
void TDataField::SetColorValue(const int32_t* index, int32_t value) {
  SetColorValueArray(index, &value, 1);
}
int32_t TDataField::GetColorValue(const int32_t* index) const {
  int32_t value = 0;
  GetColorValueArray(index, &value, 1);
  return value;
}
void TDataField::SetColorValueArray(const int32_t* index, const int32_t* values, int64_t count) {
  SetRaw(index, values, count, TDataFieldKind::Int32);
}
void TDataField::GetColorValueArray(const int32_t* index, int32_t* values, int64_t count) const {
  GetRaw(index, values, count, TDataFieldKind::Int32);
}
void TDataField::SetByteValue(const int32_t* index, uint8_t value) {
  SetByteValueArray(index, &value, 1);
}
uint8_t TDataField::GetByteValue(const int32_t* index) const {
  uint8_t value = 0;
  GetByteValueArray(index, &value, 1);
  return value;
}
void TDataField::SetByteValueArray(const int32_t* index, const uint8_t* values, int64_t count) {
  SetRaw(index, values, count, TDataFieldKind::UInt8);
}
void TDataField::GetByteValueArray(const int32_t* index, uint8_t* values, int64_t count) const {
  GetRaw(index, values, count, TDataFieldKind::UInt8);
}
void TDataField::SetDoubleValue(const int32_t* index, double value) {
  SetDoubleValueArray(index, &value, 1);
}
double TDataField::GetDoubleValue(const int32_t* index) const {
  double value = 0;
  GetDoubleValueArray(index, &value, 1);
  return value;
}
void TDataField::SetDoubleValueArray(const int32_t* index, const double* values, int64_t count) {
  SetRaw(index, values, count, TDataFieldKind::Double);
}
void TDataField::GetDoubleValueArray(const int32_t* index, double* values, int64_t count) const {
  GetRaw(index, values, count, TDataFieldKind::Double);
}

TTagError TDataField::SaveDataToFile(TFileHandle file, IProgressAndCancel* progress) const {
  const int64_t total = GetSizeInBytes();
  const int64_t chunk = std::max<int64_t>(total / 128, 0x100000);
  for (int64_t offset = 0; offset < total;) {
    if (IsCancelled(progress)) return teUnspecificError;
    const int64_t n = std::min(chunk, total - offset);
    if (!FMemory->SaveContentsToFile(file, static_cast<uint64_t>(offset), static_cast<uint64_t>(n)))
      return teWriteFileError;
    offset += n;
    SetProgress(progress, offset / FElementSize, total / FElementSize);
  }
  return teNoError;
}

TTagError TDataField::LoadDataFromFile(TFileHandle file, IProgressAndCancel* progress) {
  const int64_t total = GetSizeInBytes();
  if (TMemoryManagement::DeferArrayLoading && total > 0) {
    // The bytes stay in the file until they are used or saved; the file position moves past them.
    const int64_t position = FilePosition(file);
    if (position < 0) return teReadFileError;
    if (FMemory->DeferContentsFromFile(file, static_cast<uint64_t>(position))) {
      if (FileSeek(file, position + total, TSeekOrigin::Begin) == position + total) {
        SetProgress(progress, total / FElementSize, total / FElementSize);
        return teNoError;
      }
      FMemory->ClearData(); // forgets the note: the bytes are read below after all
      if (FileSeek(file, position, TSeekOrigin::Begin) != position) return teReadFileError;
    }
  }
  const int64_t chunk = std::max<int64_t>(total / 128, 0x100000);
  for (int64_t offset = 0; offset < total;) {
    if (IsCancelled(progress)) return teUnspecificError;
    const int64_t n = std::min(chunk, total - offset);
    if (!FMemory->LoadContentsFromFile(file, static_cast<uint64_t>(offset), static_cast<uint64_t>(n)))
      return teReadFileError;
    offset += n;
    SetProgress(progress, offset / FElementSize, total / FElementSize);
  }
  return teNoError;
}

// ---------------------------------------------------------------------------------------------

TTagError SaveDataFieldToTagFile(TFileHandle file, const std::string& name, const TDataField& field,
                                 IProgressAndCancel* progress) {
  TTagControl list, t, data;
  TTagError result = list.WriteTag(file, name, TTagKind::TagList);
  if (result < 1) return result;
  const int32_t kind = static_cast<int32_t>(field.GetLastDataFieldKind());
  if ((result = t.SaveIntTag(file, "Dimension", field.GetDimension())) < 1 ||
      (result = t.SaveIntTag(file, "DataType", kind)) < 1 ||
      (result = t.SaveIntTag(file, "Ranges", field.Ranges().data(), field.GetDimension())) < 1)
    return result;
  SetProgress(progress, 0, field.GetElementCount());
  if ((result = data.WriteTag(file, "Data", TTagKind::Byte)) < 1 ||
      (result = field.SaveDataToFile(file, progress)) < 1 || (result = data.CloseWriteTag(file)) < 1)
    return result;
  return list.CloseWriteTag(file);
}

TTagError LoadDataFieldFromTagFile(TFileHandle file, const std::string& name, const TTagControl& parent,
                                   std::unique_ptr<TDataField>& field, IProgressAndCancel* progress) {
  TTagControl list, t;
  TTagError result = list.FindTag(file, name, parent);
  if (result < 1) return result;
  int32_t dimension = 0, kind = 0;
  if ((result = t.LoadIntTag(file, "Dimension", list, &dimension, 1)) < 1 ||
      (result = t.LoadIntTag(file, "DataType", list, &kind, 1)) < 1)
    return result;
  if (dimension < 1 || dimension > 16) return teReadFileError;
  std::vector<int32_t> ranges(static_cast<size_t>(dimension));
  if ((result = t.LoadIntTag(file, "Ranges", list, ranges.data(), dimension)) < 1) return result;
  const int32_t elementSize = TDataField::GetDataSizeForFieldKind(static_cast<TDataFieldKind>(kind));
  if (elementSize == 0) return teReadFileError;
  // Sizes that overflow or don't match the stored data are refused before anything is allocated.
  int64_t bytes = elementSize;
  for (int32_t r : ranges) {
    if (r < 0 || (r > 0 && bytes > std::numeric_limits<int64_t>::max() / r)) return teReadFileError;
    bytes *= r;
  }
  TTagControl data;
  if ((result = data.FindTag(file, "Data", list)) < 1) return result;
  if (data.End() - data.Begin() != bytes || data.End() > FileSize(file)) return teReadFileError;
  SetProgress(progress, 0, bytes / elementSize);
  field.reset();
  field = std::make_unique<TDataField>(ranges.data(), dimension, static_cast<TDataFieldKind>(kind));
  FileSeek(file, data.Begin(), TSeekOrigin::Begin);
  return field->LoadDataFromFile(file, progress);
}

// ---------------------------------------------------------------------------------------------
// The old nested form

TDataFieldOld::TDataFieldOld(const int32_t* ranges, int32_t dimension, TDataFieldKind kind)
    : FDimension(dimension), FRange(ranges[0]), FKind(kind) {
  const int32_t size = TDataField::GetDataSizeForFieldKind(kind);
  if (size == 0 || dimension < 1 || FRange < 0)
    throw OrvexException("TDataFieldOld::TDataFieldOld(" + std::to_string(FRange) + "): Could not allocate");
  if (dimension == 1) {
    FBlock.assign(static_cast<size_t>(FRange) * size, 0);
  } else {
    FChildren.resize(static_cast<size_t>(FRange));
    for (auto& child : FChildren) child = std::make_unique<TDataFieldOld>(ranges + 1, dimension - 1, kind);
  }
}

void TDataFieldOld::GetRanges(int32_t* out) const {
  out[0] = FRange;
  if (FDimension > 1 && !FChildren.empty()) FChildren[0]->GetRanges(out + 1);
}

TDataFieldKind TDataFieldOld::GetLastDataFieldKind() const {
  return FDimension > 1 && !FChildren.empty() ? FChildren[0]->GetLastDataFieldKind() : FKind;
}

void TDataFieldOld::SetValue(const int32_t* index, float value) {
  SetValueArray(index, &value, 1);
}

float TDataFieldOld::GetValue(const int32_t* index) const {
  float value = 0;
  GetValueArray(index, &value, 1);
  return value;
}

void TDataFieldOld::SetValueArray(const int32_t* index, const float* values, int64_t count) {
  if (FDimension > 1) {
    FChildren[static_cast<size_t>(index[0])]->SetValueArray(index + 1, values, count);
    return;
  }
  DispatchKind(FKind, [&]<typename T>() {
    for (int64_t i = 0; i < count && index[0] + i < FRange; ++i) {
      const T v = FromFloat<T>(values[i]);
      std::memcpy(FBlock.data() + (index[0] + i) * static_cast<int64_t>(sizeof(T)), &v, sizeof(T));
    }
  });
}

void TDataFieldOld::GetValueArray(const int32_t* index, float* values, int64_t count) const {
  if (FDimension > 1) {
    FChildren[static_cast<size_t>(index[0])]->GetValueArray(index + 1, values, count);
    return;
  }
  DispatchKind(FKind, [&]<typename T>() {
    for (int64_t i = 0; i < count && index[0] + i < FRange; ++i) {
      if constexpr (std::is_same_v<T, bool>) {
        values[i] = FBlock[static_cast<size_t>(index[0] + i)] != 0 ? 1.0f : 0.0f;
      } else {
        T v;
        std::memcpy(&v, FBlock.data() + (index[0] + i) * static_cast<int64_t>(sizeof(T)), sizeof(T));
        values[i] = ToFloat(v);
      }
    }
  });
}

TTagError TDataFieldOld::SaveDataToFile(TFileHandle file) const {
  if (FDimension == 1)
    return WriteAllBytes(file, FBlock.data(), static_cast<int64_t>(FBlock.size())) ? teNoError
                                                                                   : teWriteFileError;
  for (const auto& child : FChildren) {
    const TTagError result = child->SaveDataToFile(file);
    if (result < 1) return result;
  }
  return teNoError;
}

TTagError TDataFieldOld::LoadDataFromFile(TFileHandle file) {
  if (FDimension == 1)
    return ReadAllBytes(file, FBlock.data(), static_cast<int64_t>(FBlock.size())) ==
                   static_cast<int64_t>(FBlock.size())
               ? teNoError
               : teReadFileError;
  for (auto& child : FChildren) {
    const TTagError result = child->LoadDataFromFile(file);
    if (result < 1) return result;
  }
  return teNoError;
}
