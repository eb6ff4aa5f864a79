// Data exchange between a writer and the readers of an object.
#include "data/Dataexchange.h"

#include "common/OrvexException.h"

#include <algorithm>

void TDataExchangeStruct::Resize(int32_t sizeX, int32_t sizeY) {
  SizeX = std::max(0, sizeX);
  SizeY = std::max(0, sizeY);
  Changed.assign(static_cast<size_t>(SizeX) * static_cast<size_t>(SizeY), 0);
  AnyPixelChanged = false;
}

void TDataExchangeStruct::MarkPixel(int32_t x, int32_t y) {
  if (x < 0 || y < 0 || x >= SizeX || y >= SizeY) return;
  Changed[static_cast<size_t>(x) + static_cast<size_t>(y) * SizeX] = 1;
  AnyPixelChanged = true;
}

void TDataExchangeStruct::MarkLine(int32_t y) {
  if (y < 0 || y >= SizeY || SizeX == 0) return;
  std::fill_n(Changed.begin() + static_cast<ptrdiff_t>(y) * SizeX, SizeX, uint8_t{1});
  AnyPixelChanged = true;
}

void TDataExchangeStruct::MarkAll() {
  std::fill(Changed.begin(), Changed.end(), uint8_t{1});
  AnyPixelChanged = !Changed.empty();
}

void TDataExchangeStruct::Reset() {
  std::fill(Changed.begin(), Changed.end(), uint8_t{0});
  AnyPixelChanged = false;
}

void TDataExchangeHolder::RegisterWriter(const void* writer) {
  std::lock_guard lock(FLock);
  if (FWriter && FWriter != writer)
    throw OrvexException("TData::RegisterDataWriter(): Writer already registered for this Object !");
  FWriter = writer;
}

void TDataExchangeHolder::UnRegisterWriter(const void* writer) {
  std::lock_guard lock(FLock);
  if (FWriter == writer) FWriter = nullptr;
}

bool TDataExchangeHolder::HasWriter() const {
  std::lock_guard lock(FLock);
  return FWriter != nullptr;
}

void TDataExchangeHolder::RegisterReader(const void* reader, std::function<void()> wake) {
  std::lock_guard lock(FLock);
  for (TReader& r : FReaders)
    if (r.Reader == reader) {
      r.Wake = std::move(wake);
      return;
    }
  FReaders.push_back({reader, std::move(wake)});
}

void TDataExchangeHolder::UnRegisterReader(const void* reader) {
  std::lock_guard lock(FLock);
  std::erase_if(FReaders, [reader](const TReader& r) { return r.Reader == reader; });
}

bool TDataExchangeHolder::HasReaders() const {
  std::lock_guard lock(FLock);
  return !FReaders.empty();
}

void TDataExchangeHolder::CreateExchangeStruct(int32_t sizeX, int32_t sizeY) {
  std::lock_guard lock(FLock);
  if (FExchange.SizeX != sizeX || FExchange.SizeY != sizeY) FExchange.Resize(sizeX, sizeY);
}

void TDataExchangeHolder::Mark(const std::function<void(TDataExchangeStruct&)>& mark) {
  std::vector<std::function<void()>> wakes;
  {
    std::lock_guard lock(FLock);
    mark(FExchange);
    for (const TReader& r : FReaders)
      if (r.Wake) wakes.push_back(r.Wake);
  }
  for (const auto& wake : wakes) wake();
}

bool TDataExchangeHolder::Take(TDataExchangeStruct& copy) {
  std::lock_guard lock(FLock);
  copy = FExchange;
  FExchange.Reset();
  return copy.AnyPixelChanged;
}
