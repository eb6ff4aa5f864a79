// One heap block carved into aligned work arrays.
#include "common/memory/Heapalignment.h"

#include <cstdlib>
#include <cstring>

THeapAlignment::~THeapAlignment() {
  std::free(FBlock);
  for (uint8_t* block : FForgotten) std::free(block);
}

void THeapAlignment::AddArrays(size_t numberOfArrays, size_t bytesPerArray) {
  FTotalBytes += numberOfArrays * PaddedSize(bytesPerArray);
}

bool THeapAlignment::Allocate() {
  if (FBlock) FForgotten.push_back(FBlock);
  FTotalBytes += FAlignment + FReserve;
  FBlock = static_cast<uint8_t*>(std::malloc(FTotalBytes));
  if (!FBlock) {
    FNextFree = FBlockEnd = nullptr;
    return false;
  }
  FBlockEnd = FBlock + FTotalBytes;
  const auto address = reinterpret_cast<uintptr_t>(FBlock);
  FNextFree = FBlock + (FAlignment - address % FAlignment);
  return true;
}

void* THeapAlignment::GetNextArray(size_t elements, size_t elementSize) {
  if (!FNextFree) return nullptr;
  uint8_t* result = FNextFree;
  const size_t padded = PaddedSize(elements * elementSize);
  if (padded > size_t(FBlockEnd - FNextFree)) {
    FNextFree = nullptr;
    return nullptr;
  }
  FNextFree += padded;
  return result;
}

void THeapAlignment::ClearArray() {
  if (FBlock) std::memset(FBlock, 0, FTotalBytes);
}

void THeapAlignment::Clear() {
  FTotalBytes = 0;
  FNextFree = nullptr;
  FBlockEnd = nullptr;
  if (FBlock) FForgotten.push_back(FBlock);
  FBlock = nullptr;
}
