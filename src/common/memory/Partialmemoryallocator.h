// Page bookkeeping that every memory strategy shares: which pages are given out, how many are
// free, and the optional page actions.
#pragma once

#include "common/memory/Memorylock.h"
#include "common/memory/Partialmemory.h"

#include <cstdint>
#include <vector>

/// Base of the allocators: one lock over the page bytes, the free count and the actions.
/// The lock covers bookkeeping only, never data access.
class TCustomPartialMemoryAllocator : public IPartialMemoryAllocator {
public:
  void SetAllocationAndFreeActions(TPartialMemoryPageAction allocate,
                                   TPartialMemoryPageAction release) override;
  void GetMemoryStatus(uint32_t& totalPages, uint32_t& freePages, uint32_t& pageSize) override;

  /// Pages an array of the given size needs; more than 32 bits can count means "too many".
  static uint64_t PagesNeededFor(uint64_t bytes, uint32_t pageSize);

protected:
  /// All pages free again; the caller holds FLock.
  void ResetPages(uint32_t totalPages);
  /// Takes count free pages, lowest numbers first, marks them and runs the allocation action
  /// for each. False (and nothing taken) when fewer are free. The caller holds FLock.
  bool TakePages(uint32_t count, uint32_t* pageNumbers);
  /// Marks pages free again and runs the release action for each. The caller holds FLock.
  void ReturnPages(const uint32_t* pageNumbers, uint32_t count);

  TPageLock FLock;
  uint32_t FTotalPages = 0;
  uint32_t FFreePages = 0;
  uint32_t FPageSize = kPartialMemoryPageSize;
  std::vector<uint8_t> FPageInUse;
  TPartialMemoryPageAction FAllocateAction;
  TPartialMemoryPageAction FReleaseAction;

private:
  uint32_t FLowestFreeHint = 0; // no free page lies below it
};
