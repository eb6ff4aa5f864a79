// THeapAlignment: one heap block carved into many aligned work arrays; sizes are collected
// first, then the block is allocated once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// Collects array sizes with Add..., allocates one block with Allocate, and hands out aligned
/// arrays in the order they were added with Get.... Every array gets a whole alignment extra,
/// also when its size is a multiple of it already.
class THeapAlignment {
public:
  THeapAlignment() = default;
  /// Frees the block.
  ~THeapAlignment();
  THeapAlignment(const THeapAlignment&) = delete;
  THeapAlignment& operator=(const THeapAlignment&) = delete;

  void AddArrays(size_t numberOfArrays, size_t bytesPerArray);
  void AddPointerArrays(size_t numberOfArrays, size_t elements) {
    AddArrays(numberOfArrays, elements * sizeof(void*));
  }
  void AddIntArrays(size_t numberOfArrays, size_t elements) {
    AddArrays(numberOfArrays, elements * sizeof(int));
  }
  void AddFloatArrays(size_t numberOfArrays, size_t elements) {
    AddArrays(numberOfArrays, elements * sizeof(float));
  }
  void AddDoubleArrays(size_t numberOfArrays, size_t elements) {
    AddArrays(numberOfArrays, elements * sizeof(double));
  }
  void AddBoolArrays(size_t numberOfArrays, size_t elements) {
    AddArrays(numberOfArrays, elements * sizeof(bool));
  }
  void AddCharArrays(size_t numberOfArrays, size_t elements) {
    AddArrays(numberOfArrays, elements * sizeof(char));
  }

  /// Allocates the block for all sizes added; false when the heap has no room.
  bool Allocate();
  /// The next array of elements x elementSize bytes, or null once the block is used up (and ever after).
  void* GetNextArray(size_t elements, size_t elementSize);
  double** GetDoublePointerArray(size_t elements) {
    return static_cast<double**>(GetNextArray(elements, sizeof(double*)));
  }
  int* GetIntArray(size_t elements) { return static_cast<int*>(GetNextArray(elements, sizeof(int))); }
  float* GetFloatArray(size_t elements) { return static_cast<float*>(GetNextArray(elements, sizeof(float))); }
  double* GetDoubleArray(size_t elements) {
    return static_cast<double*>(GetNextArray(elements, sizeof(double)));
  }
  bool* GetBoolArray(size_t elements) { return static_cast<bool*>(GetNextArray(elements, sizeof(bool))); }
  char* GetCharArray(size_t elements) { return static_cast<char*>(GetNextArray(elements, sizeof(char))); }

  /// Zeroes the whole block.
  void ClearArray();
  /// Forgets sizes and block without freeing it; freeing is the destructor's job.
  void Clear();

  size_t Alignment() const { return FAlignment; }
  size_t TotalBytes() const { return FTotalBytes; }

private:
  size_t PaddedSize(size_t bytes) const { return bytes + FAlignment - bytes % FAlignment; }

  size_t FAlignment = 8;
  size_t FReserve = 64;
  size_t FTotalBytes = 0;
  uint8_t* FNextFree = nullptr;
  uint8_t* FBlock = nullptr;
  uint8_t* FBlockEnd = nullptr;
  std::vector<uint8_t*> FForgotten; // blocks dropped by Clear or a new Allocate, freed at the end
};
