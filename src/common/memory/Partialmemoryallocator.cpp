// Page bookkeeping shared by the memory strategies.
#include "common/memory/Partialmemoryallocator.h"

#include <algorithm>

void TCustomPartialMemoryAllocator::SetAllocationAndFreeActions(TPartialMemoryPageAction allocate,
                                                                TPartialMemoryPageAction release) {
  TPageLockGuard guard(FLock);
  FAllocateAction = std::move(allocate);
  FReleaseAction = std::move(release);
}

void TCustomPartialMemoryAllocator::GetMemoryStatus(uint32_t& totalPages, uint32_t& freePages,
                                                    uint32_t& pageSize) {
  TPageLockGuard guard(FLock);
  totalPages = FTotalPages;
  freePages = FFreePages;
  pageSize = FPageSize;
}

uint64_t TCustomPartialMemoryAllocator::PagesNeededFor(uint64_t bytes, uint32_t pageSize) {
  return bytes / pageSize + (bytes % pageSize != 0 ? 1 : 0);
}

void TCustomPartialMemoryAllocator::ResetPages(uint32_t totalPages) {
  FTotalPages = totalPages;
  FFreePages = totalPages;
  FPageInUse.assign(totalPages, 0);
  FLowestFreeHint = 0;
}

bool TCustomPartialMemoryAllocator::TakePages(uint32_t count, uint32_t* pageNumbers) {
  if (FFreePages < count) return false;
  uint32_t taken = 0;
  for (uint32_t page = FLowestFreeHint; page < FTotalPages && taken < count; ++page) {
    if (FPageInUse[page]) continue;
    FPageInUse[page] = 1;
    pageNumbers[taken++] = page;
    if (FAllocateAction) FAllocateAction(uint64_t(page) * FPageSize, FPageSize);
  }
  FFreePages -= taken;
  if (taken > 0) {
    FLowestFreeHint = pageNumbers[taken - 1] + 1;
    while (FLowestFreeHint < FTotalPages && FPageInUse[FLowestFreeHint]) ++FLowestFreeHint;
  }
  return true;
}

void TCustomPartialMemoryAllocator::ReturnPages(const uint32_t* pageNumbers, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t page = pageNumbers[i];
    if (page >= FTotalPages || !FPageInUse[page]) continue;
    if (FReleaseAction) FReleaseAction(uint64_t(page) * FPageSize, FPageSize);
    FPageInUse[page] = 0;
    ++FFreePages;
    FLowestFreeHint = std::min(FLowestFreeHint, page);
  }
}
