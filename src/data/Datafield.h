// The n-dimensional typed array behind images, graphs and bitmaps. Its elements live in paged memory and
// are reached only through byte offsets; the last dimension is the fastest.
#pragma once

#include "common/Saveandload.h"
#include "common/Tagcontrol.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class IPartialArray;
class IProgressAndCancel;

/// Element kind of a data field, stored in files as "DataType".
enum class TDataFieldKind : int32_t {
  None = 0,
  Int64 = 1,
  Int32 = 2, ///< also the kind of colour values
  Int16 = 3,
  Int8 = 4,
  UInt32 = 5,
  UInt16 = 6,
  UInt8 = 7,
  Bool = 8,
  Float = 9,
  Double = 10,
  Extended = 11, ///< 10-byte x87 format; refused, as pages don't hold whole elements of it
};

class TDataField {
public:
  /// Allocates ranges[0] * … * ranges[dimension-1] elements (16 bytes when that is 0) in paged memory.
  /// Throws OrvexException for a kind the pages can't hold, OrvexExceptionMemoryAllocation when the
  /// memory strategy refuses.
  TDataField(const int32_t* ranges, int32_t dimension, TDataFieldKind kind);
  TDataField(std::initializer_list<int32_t> ranges, TDataFieldKind kind);
  ~TDataField();
  TDataField(const TDataField&) = delete;
  TDataField& operator=(const TDataField&) = delete;

  static int32_t GetDataSizeForFieldKind(TDataFieldKind kind);
  TDataFieldKind GetLastDataFieldKind() const { return FKind; }
  int32_t GetDimension() const { return FDimension; }
  void GetRanges(int32_t* out) const;
  const std::vector<int32_t>& Ranges() const { return FRanges; }
  int32_t GetElementSize() const { return FElementSize; }
  int64_t GetElementCount() const;
  int64_t GetSizeInBytes() const { return GetElementCount() * FElementSize; }
  /// Byte offset of an index vector (not checked against the ranges).
  int64_t ByteOffset(const int32_t* index) const;

  void ClearData();

  /// @{ Values converted from and to float; integers truncate toward zero, bool is value != 0.
  void SetValue(const int32_t* index, float value);
  float GetValue(const int32_t* index) const;
  /// count elements along the fastest dimension from index on, also past the end of a row.
  void SetValueArray(const int32_t* index, const float* values, int64_t count);
  void GetValueArray(const int32_t* index, float* values, int64_t count) const;
  /// @}
  /// The float values from index on, in place, for reading only: null unless the field holds floats and
  /// its memory lies in one piece there; available gets how many values follow without a break.
  const float* GetFloatReadPointer(const int32_t* index, int64_t& available) const;

  /// @{ Raw access for one kind only; on another kind a set writes nothing and a get gives zero.
  void SetBoolValue(const int32_t* index, bool value);
  bool GetBoolValue(const int32_t* index) const;
  void SetBoolValueArray(const int32_t* index, const bool* values, int64_t count);
  void GetBoolValueArray(const int32_t* index, bool* values, int64_t count) const;
  void SetColorValue(const int32_t* index, int32_t value);
  int32_t GetColorValue(const int32_t* index) const;
  void SetColorValueArray(const int32_t* index, const int32_t* values, int64_t count);
  void GetColorValueArray(const int32_t* index, int32_t* values, int64_t count) const;
  void SetByteValue(const int32_t* index, uint8_t value);
  uint8_t GetByteValue(const int32_t* index) const;
  void SetByteValueArray(const int32_t* index, const uint8_t* values, int64_t count);
  void GetByteValueArray(const int32_t* index, uint8_t* values, int64_t count) const;
  void SetDoubleValue(const int32_t* index, double value);
  double GetDoubleValue(const int32_t* index) const;
  void SetDoubleValueArray(const int32_t* index, const double* values, int64_t count);
  void GetDoubleValueArray(const int32_t* index, double* values, int64_t count) const;
  /// @}

  /// Raw bytes at a byte offset (copies, conversions between fields of the same kind).
  void GetBytes(int64_t offset, void* destination, int64_t size) const;
  void SetBytes(int64_t offset, const void* source, int64_t size);

  /// Streams all bytes between the file's position and the paged memory, in at most 128 steps. progress
  /// (may be null) follows in elements of the element count and is asked for cancel before every step;
  /// a cancelled transfer returns 0 ("Unspecific Error").
  TTagError SaveDataToFile(TFileHandle file, IProgressAndCancel* progress = nullptr) const;
  TTagError LoadDataFromFile(TFileHandle file, IProgressAndCancel* progress = nullptr);

private:
  void Allocate();
  template <typename T>
  void SetRaw(const int32_t* index, const T* values, int64_t count, TDataFieldKind kind);
  template <typename T>
  void GetRaw(const int32_t* index, T* values, int64_t count, TDataFieldKind kind) const;

  TDataFieldKind FKind;
  std::vector<int32_t> FRanges;
  std::vector<int64_t> FStrides;
  int32_t FDimension;
  int32_t FElementSize;
  IPartialArray* FMemory = nullptr;
};

/// Writes a list tag name: "Dimension", "DataType", "Ranges", and "Data" (Byte) with all elements.
/// progress (may be null) counts elements and can cancel the transfer.
TTagError SaveDataFieldToTagFile(TFileHandle file, const std::string& name, const TDataField& field,
                                 IProgressAndCancel* progress = nullptr);
/// Reads the list tag name of parent into a new field (the old one is freed). A field whose sizes don't
/// match its stored data, or whose sizes overflow, is refused with -3 before allocating.
TTagError LoadDataFieldFromTagFile(TFileHandle file, const std::string& name, const TTagControl& parent,
                                   std::unique_ptr<TDataField>& field,
                                   IProgressAndCancel* progress = nullptr);

/// The predecessor of TDataField: nested heap arrays with the same file form (for reading old files).
class TDataFieldOld {
public:
  TDataFieldOld(const int32_t* ranges, int32_t dimension, TDataFieldKind kind);
  int32_t GetDimension() const { return FDimension; }
  void GetRanges(int32_t* out) const;
  TDataFieldKind GetLastDataFieldKind() const;
  int64_t GetDataSize() const { return FRange; }
  TDataFieldOld* GetDataField(int32_t i) const { return FChildren[static_cast<size_t>(i)].get(); }
  void SetDataField(int32_t i, std::unique_ptr<TDataFieldOld> field) {
    FChildren[static_cast<size_t>(i)] = std::move(field);
  }
  void SetValue(const int32_t* index, float value);
  float GetValue(const int32_t* index) const;
  void SetValueArray(const int32_t* index, const float* values, int64_t count);
  void GetValueArray(const int32_t* index, float* values, int64_t count) const;
  TTagError SaveDataToFile(TFileHandle file) const;
  TTagError LoadDataFromFile(TFileHandle file);

private:
  int32_t FDimension;
  int32_t FRange;
  TDataFieldKind FKind;
  std::vector<uint8_t> FBlock;                           ///< dimension 1: the elements
  std::vector<std::unique_ptr<TDataFieldOld>> FChildren; ///< dimension > 1: one field per entry
};
