// TPartialMemoryArray<T>: a dense array of up to three dimensions whose elements live in pages of
// the running memory strategy, so that it may be larger than memory; and TPMASequentialAccess<T>,
// a buffered cursor over such an array.
#pragma once

#include "common/OrvexException.h"
#include "common/memory/Memorymanagement.h"
#include "common/memory/Partialmemory.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

/// Dense array with Dim1 x Dim2 x Dim3 elements; element (i, j, k) has the linear index
/// i + Dim1 * j + Dim1 * Dim2 * k. Its bytes come from TMemoryManagement::PartialMemoryAllocator,
/// which must outlive the array. Indices are not checked.
template <typename T>
class TPartialMemoryArray {
  static_assert(std::is_trivially_copyable_v<T>, "elements are copied as bytes");
  // Single elements may use the one-page operations when no element straddles two pages.
  static constexpr bool kElementFitsPages = kPartialMemoryPageSize % sizeof(T) == 0;

public:
  /// An array with undefined contents. A dimension of 0 gives an empty array without pages.
  /// Throws OrvexExceptionMemoryAllocation when the strategy has no room or the size overflows.
  explicit TPartialMemoryArray(uint64_t dim1, uint64_t dim2 = 1, uint64_t dim3 = 1)
      : Dim1(dim1), Dim2(dim2), Dim3(dim3) {
    uint64_t elements = 0;
    uint64_t bytes = 0;
    if (__builtin_mul_overflow(dim1, dim2, &elements) || __builtin_mul_overflow(elements, dim3, &elements) ||
        __builtin_mul_overflow(elements, uint64_t(sizeof(T)), &bytes))
      throw OrvexExceptionMemoryAllocation(
          "TPartialMemoryArray::TPartialMemoryArray(): " + std::to_string(dim1) + " x " +
          std::to_string(dim2) + " x " + std::to_string(dim3) + " elements of " + std::to_string(sizeof(T)) +
          " bytes: not enough memory (the size exceeds 64 bits)");
    FTotalBytes = bytes;
    if (bytes == 0) return;
    IPartialMemoryAllocator* allocator = TMemoryManagement::PartialMemoryAllocator;
    if (allocator) FArray = allocator->AllocateArray(bytes);
    if (!FArray)
      throw OrvexExceptionMemoryAllocation("TPartialMemoryArray::TPartialMemoryArray(): "
                                           "PartialMemoryAllocator->AllocateArray(" +
                                           std::to_string(bytes / 1024 / 1024) +
                                           " MBytes) did not work: not enough memory" +
                                           (allocator ? "" : " (no memory strategy)"));
  }
  ~TPartialMemoryArray() { delete FArray; }
  TPartialMemoryArray(const TPartialMemoryArray&) = delete;
  TPartialMemoryArray& operator=(const TPartialMemoryArray&) = delete;

  const uint64_t Dim1;
  const uint64_t Dim2;
  const uint64_t Dim3;

  uint64_t GetNumberOfElements() const { return Dim1 * Dim2 * Dim3; }
  uint64_t GetTotalBytes() const { return FTotalBytes; }
  /// The pages behind the array; null for an empty array.
  IPartialArray* GetPartialArray() const { return FArray; }

  ///@{ One element.
  T GetValue(uint64_t i) const {
    T value{};
    if (!FArray) return value;
    if constexpr (kElementFitsPages)
      FArray->GetDataAtAddress(i * sizeof(T), &value, sizeof(T));
    else
      FArray->GetDataAtAddressEx(i * sizeof(T), &value, sizeof(T));
    return value;
  }
  T GetValue(uint64_t i, uint64_t j) const { return GetValue(i + Dim1 * j); }
  T GetValue(uint64_t i, uint64_t j, uint64_t k) const { return GetValue(i + Dim1 * j + Dim1 * Dim2 * k); }
  void SetValue(uint64_t i, const T& value) {
    if (!FArray) return;
    if constexpr (kElementFitsPages)
      FArray->SetDataAtAddress(i * sizeof(T), &value, sizeof(T));
    else
      FArray->SetDataAtAddressEx(i * sizeof(T), &value, sizeof(T));
  }
  void SetValue(uint64_t i, uint64_t j, const T& value) { SetValue(i + Dim1 * j, value); }
  void SetValue(uint64_t i, uint64_t j, uint64_t k, const T& value) {
    SetValue(i + Dim1 * j + Dim1 * Dim2 * k, value);
  }
  ///@}

  ///@{ count elements from linear index index on.
  void GetValueArray(uint64_t index, T* destination, uint64_t count) const {
    if (FArray && count > 0) FArray->GetDataAtAddressEx(index * sizeof(T), destination, count * sizeof(T));
  }
  void SetValueArray(uint64_t index, const T* source, uint64_t count) {
    if (FArray && count > 0) FArray->SetDataAtAddressEx(index * sizeof(T), source, count * sizeof(T));
  }
  /// The whole run j along the first dimension: Dim1 elements from index j * Dim1.
  void GetValueArrayDim1(uint64_t j, T* destination) const { GetValueArray(j * Dim1, destination, Dim1); }
  void SetValueArrayDim1(uint64_t j, const T* source) { SetValueArray(j * Dim1, source, Dim1); }
  ///@}

  /// Every element becomes value; works through a scratch buffer of at most 1 MiB.
  void FillWithValue(const T& value) {
    if (!FArray) return;
    const uint64_t total = GetNumberOfElements();
    const uint64_t chunk = ScratchElements();
    std::unique_ptr<T[]> buffer(new T[chunk]);
    std::fill_n(buffer.get(), chunk, value);
    uint64_t index = 0;
    while (index + chunk < total) {
      SetValueArray(index, buffer.get(), chunk);
      index += chunk;
    }
    SetValueArray(index, buffer.get(), total - index);
  }

  /// Copies all elements of other, which must have the same dimensions.
  void CopyFrom(const TPartialMemoryArray& other) {
    if (other.Dim1 != Dim1 || other.Dim2 != Dim2 || other.Dim3 != Dim3)
      throw OrvexException("TPartialMemoryArray::CopyFrom(): Arrays must have the same size !");
    if (!FArray || &other == this) return;
    const uint64_t total = GetNumberOfElements();
    const uint64_t chunk = ScratchElements();
    std::unique_ptr<T[]> buffer(new T[chunk]);
    for (uint64_t index = 0; index < total; index += chunk) {
      const uint64_t count = std::min<uint64_t>(chunk, total - index);
      other.GetValueArray(index, buffer.get(), count);
      SetValueArray(index, buffer.get(), count);
    }
  }

  /// A new array of the same dimensions (contents undefined), owned by the caller.
  std::unique_ptr<TPartialMemoryArray> CreateArrayWithSameSize() const {
    return std::make_unique<TPartialMemoryArray>(Dim1, Dim2, Dim3);
  }

  /// Every byte of the array's pages becomes 0.
  void ClearData() {
    if (FArray) FArray->ClearData();
  }

private:
  size_t ScratchElements() const {
    return size_t(std::max<uint64_t>(1, std::min<uint64_t>(FTotalBytes, 1048576) / sizeof(T)));
  }

  IPartialArray* FArray = nullptr;
  uint64_t FTotalBytes = 0;
};

/// Reads or writes a TPartialMemoryArray one element after the other through a buffer, so that
/// the array is reached in blocks. Written values reach the array on FlushBuffer, on a move to
/// another block, or never: the destructor does not flush.
template <typename T>
class TPMASequentialAccess {
public:
  static constexpr uint64_t kNoIndex = ~uint64_t(0);

  /// Loads the first block at once.
  TPMASequentialAccess(TPartialMemoryArray<T>& array, uint64_t capacity)
      : FArray(array), FCapacity(std::max<uint64_t>(capacity, 1)), FBuffer(new T[FCapacity]()) {
    LoadBuffer(0);
  }
  TPMASequentialAccess(const TPMASequentialAccess&) = delete;
  TPMASequentialAccess& operator=(const TPMASequentialAccess&) = delete;

  T GetNextValue() {
    if (FValidCount <= FPosition) {
      if (FValidCount != FCapacity)
        throw OrvexException("TPMASequentialAccess<Kind>::GetNextValue(): End of Array");
      LoadBuffer(FStartIndex + FCapacity);
      FPosition = 0;
    }
    return FBuffer[FPosition++];
  }

  void SetNextValue(const T& value) {
    if (FValidCount <= FPosition) {
      if (FValidCount != FCapacity)
        throw OrvexException("TPMASequentialAccess<Kind>::SetNextValue(): End of Array");
      LoadBuffer(FStartIndex + FCapacity);
      FPosition = 0;
    }
    FBuffer[FPosition++] = value;
    FDirty = true;
  }

  /// The next value read or written is the element at index.
  void SetPosition(uint64_t index) { LoadBuffer(index); }

  /// Stores a changed buffer, then fills it from index on.
  void LoadBuffer(uint64_t index) {
    if (FDirty) StoreBuffer();
    const uint64_t elements = FArray.GetNumberOfElements();
    FValidCount = index < elements ? std::min(FCapacity, elements - index) : 0;
    if (FValidCount > 0) FArray.GetValueArray(index, FBuffer.get(), FValidCount);
    FStartIndex = index;
    FPosition = 0;
  }

  /// Writes the valid part of the buffer back to the array.
  void StoreBuffer() {
    if (FValidCount > 0 && FStartIndex != kNoIndex)
      FArray.SetValueArray(FStartIndex, FBuffer.get(), FValidCount);
    FDirty = false;
  }

  void FlushBuffer() {
    if (FDirty) StoreBuffer();
  }

  /// Linear index of the element the next call reads or writes.
  uint64_t CurrentIndex() const { return FStartIndex + FPosition; }

private:
  TPartialMemoryArray<T>& FArray;
  uint64_t FCapacity;
  std::unique_ptr<T[]> FBuffer; // not std::vector: vector<bool> has no contiguous data
  uint64_t FValidCount = 0;
  uint64_t FPosition = 0;
  bool FDirty = false;
  uint64_t FStartIndex = kNoIndex;
};
