// Helpers of the memory tests: a strategy that is the process's allocator for one test.
#pragma once

#include "common/memory/Memorymanagement.h"
#include "common/memory/Memorystrategyheap.h"
#include "common/memory/Memorystrategymmf.h"

#include <memory>
#include <string>

namespace oxtest {

enum class TStrategyKind { Heap, MMF };

inline std::string StrategyName(TStrategyKind kind) {
  return kind == TStrategyKind::Heap ? "Heap" : "MMF";
}

/// Makes an allocator, installs it as TMemoryManagement::PartialMemoryAllocator and removes it again.
class TScopedStrategy {
public:
  /// Heap: limit bytes. MMF: a file of limit bytes in directory (empty: anonymous), mapSize bytes mapped.
  TScopedStrategy(TStrategyKind kind, uint64_t limit, uint32_t mapSize = 1 << 20,
                  const std::string& directory = "") {
    if (kind == TStrategyKind::Heap) {
      auto allocator = std::make_unique<TPartialMemoryFromHeapAllocator>();
      TPartialMemoryHeapConfiguration configuration;
      configuration.LimitInBytes = limit;
      Ok = allocator->Initialize(&configuration);
      FAllocator = std::move(allocator);
    } else {
      auto allocator = std::make_unique<TPartialMemoryFromMMFAllocator>();
      TPartialMemoryMMFConfiguration configuration;
      configuration.FileSizeInBytes = limit;
      configuration.MapSizeInBytes = mapSize;
      configuration.Directory = directory.c_str();
      configuration.DirectoryLength = uint32_t(directory.size());
      Ok = allocator->Initialize(&configuration);
      Mmf = allocator.get();
      FAllocator = std::move(allocator);
    }
    FPrevious = TMemoryManagement::PartialMemoryAllocator;
    FPreviousStrategy = TMemoryManagement::CurrentStrategy;
    TMemoryManagement::PartialMemoryAllocator = FAllocator.get();
    TMemoryManagement::CurrentStrategy = kind == TStrategyKind::Heap ? 0 : 1;
  }
  ~TScopedStrategy() {
    TMemoryManagement::PartialMemoryAllocator = FPrevious;
    TMemoryManagement::CurrentStrategy = FPreviousStrategy;
  }
  IPartialMemoryAllocator* Allocator() const { return FAllocator.get(); }
  uint32_t FreePages() const {
    uint32_t total, free, pageSize;
    FAllocator->GetMemoryStatus(total, free, pageSize);
    return free;
  }

  bool Ok = false;
  TPartialMemoryFromMMFAllocator* Mmf = nullptr;

private:
  std::unique_ptr<IPartialMemoryAllocator> FAllocator;
  IPartialMemoryAllocator* FPrevious = nullptr;
  int FPreviousStrategy = 0;
};

} // namespace oxtest
