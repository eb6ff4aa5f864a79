// Data exchange between one writer (a measurement filling an object) and any number of readers (viewers
// that keep results up to date): the writer marks the pixels it changed and wakes the readers; each reader
// takes the marks, resets them and recomputes only those pixels. Nothing of it is stored in files.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

/// Which pixels of an object changed since a reader last took the marks.
struct TDataExchangeStruct {
  int32_t SizeX = 0;
  int32_t SizeY = 0;
  bool AnyPixelChanged = false;
  std::vector<uint8_t> Changed; ///< one flag per pixel, x + y * SizeX

  /// Sizes the flags anew, all cleared.
  void Resize(int32_t sizeX, int32_t sizeY);
  /// @{ Marks outside the grid are ignored.
  void MarkPixel(int32_t x, int32_t y);
  void MarkLine(int32_t y);
  void MarkAll();
  /// @}
  bool HasXYChanged(int32_t x, int32_t y) const {
    return x >= 0 && y >= 0 && x < SizeX && y < SizeY &&
           Changed[static_cast<size_t>(x) + static_cast<size_t>(y) * SizeX] != 0;
  }
  void Reset();
};

/// What an object holds for the exchange, made when the first writer or reader registers.
class TDataExchangeHolder {
public:
  /// The only writer; a second one raises OrvexException with the class's text.
  void RegisterWriter(const void* writer);
  /// Only the writer registered can unregister.
  void UnRegisterWriter(const void* writer);
  bool HasWriter() const;
  /// wake is called (from the writer's thread, outside the lock) whenever marks arrive.
  void RegisterReader(const void* reader, std::function<void()> wake);
  void UnRegisterReader(const void* reader);
  bool HasReaders() const;
  /// Sizes the marks for the object's pixel grid (unless they have that size already).
  void CreateExchangeStruct(int32_t sizeX, int32_t sizeY);
  /// Marks pixels under the lock, then wakes every reader.
  void Mark(const std::function<void(TDataExchangeStruct&)>& mark);
  /// Copies the marks into copy and resets them, under the lock; returns whether any pixel changed.
  bool Take(TDataExchangeStruct& copy);

private:
  struct TReader {
    const void* Reader;
    std::function<void()> Wake;
  };
  mutable std::mutex FLock;
  const void* FWriter = nullptr;
  std::vector<TReader> FReaders;
  TDataExchangeStruct FExchange;
};
