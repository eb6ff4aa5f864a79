// Arrays of the heap strategy whose contents stay in a file until used: pages come in as they are touched,
// a save copies what is still in the file and writes what was loaded or changed, a file changed in place
// makes the save fail, and threads touching the same pages at once all see the file's bytes.
#include "common/Saveandload.h"
#include "common/memory/Memorystrategyheap.h"
#include "common/memory/Partialmemory.h"
#include "support/TestSupport.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

constexpr uint64_t kMiB = uint64_t(1) << 20;
constexpr uint64_t kHead = 1000;           // bytes before the array's contents in the file
constexpr uint64_t kBytes = 5 * kMiB + 12; // not a whole number of pages
constexpr uint64_t kPage = kPartialMemoryPageSize;

uint8_t ByteAt(uint64_t i) {
  return static_cast<uint8_t>((i * 2654435761u) >> 13);
}

class HeapDeferredTest : public ::testing::Test {
protected:
  void SetUp() override {
    TPartialMemoryHeapConfiguration configuration;
    configuration.LimitInBytes = 64 * kMiB;
    ASSERT_TRUE(FAllocator.Initialize(&configuration));
    FSource = FDir.File("source.oxd");
    std::string bytes(kHead, 'h');
    for (uint64_t i = 0; i < kBytes; ++i) bytes.push_back(static_cast<char>(ByteAt(i)));
    bytes += "tail";
    oxtest::WriteFileBytes(FSource, bytes);
  }
  /// A heap array whose contents wait in the source file; null when the array would not defer.
  std::unique_ptr<TPartialMemoryFromHeapArray> Deferred(uint64_t bytes = kBytes) {
    std::unique_ptr<TPartialMemoryFromHeapArray> array(
        dynamic_cast<TPartialMemoryFromHeapArray*>(FAllocator.AllocateArray(bytes)));
    const int file = ::open(FSource.c_str(), O_RDONLY);
    const bool deferred = array && file >= 0 && array->DeferContentsFromFile(file, kHead);
    if (file >= 0) ::close(file); // the array holds a descriptor of its own
    return deferred ? std::move(array) : nullptr;
  }
  /// What a save of the whole array in pieces of chunk bytes writes (compared with EXPECT_TRUE: a
  /// failure should not print megabytes).
  std::string Saved(IPartialArray& array, uint64_t chunk, bool* ok = nullptr) {
    const std::string name = FDir.File("saved.bin");
    const int file = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    bool all = file >= 0;
    for (uint64_t at = 0; all && at < kBytes; at += chunk)
      all = array.SaveContentsToFile(file, at, std::min(chunk, kBytes - at));
    if (file >= 0) ::close(file);
    if (ok) *ok = all;
    return oxtest::ReadFileBytes(name);
  }
  static std::string Expected() {
    std::string bytes;
    for (uint64_t i = 0; i < kBytes; ++i) bytes.push_back(static_cast<char>(ByteAt(i)));
    return bytes;
  }

  oxtest::TempDir FDir;
  std::string FSource;
  TPartialMemoryFromHeapAllocator FAllocator;
};

} // namespace

TEST_F(HeapDeferredTest, PagesComeInAsTheyAreTouchedAndTheFileIsLetGoWhenAllAreIn) {
  const int before = TPartialMemoryFromHeapArray::DeferredArrays();
  auto array = Deferred();
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(TPartialMemoryFromHeapArray::DeferredArrays(), before + 1);
  // A value across a page boundary, one in the last (short) page, and a whole-range read.
  uint8_t two[2] = {};
  array->GetDataAtAddressEx(3 * kPage - 1, two, 2);
  EXPECT_EQ(two[0], ByteAt(3 * kPage - 1));
  EXPECT_EQ(two[1], ByteAt(3 * kPage));
  uint32_t last = 0;
  array->GetDataAtAddress(kBytes - 4, &last, 4);
  uint32_t expected = 0;
  const std::string all = Expected();
  std::memcpy(&expected, all.data() + kBytes - 4, 4);
  EXPECT_EQ(last, expected);
  EXPECT_TRUE(array->IsDeferred());
  std::vector<uint8_t> whole(kBytes);
  array->GetDataAtAddressEx(0, whole.data(), kBytes);
  EXPECT_EQ(std::memcmp(whole.data(), all.data(), kBytes), 0);
  EXPECT_FALSE(array->IsDeferred());
  EXPECT_EQ(TPartialMemoryFromHeapArray::DeferredArrays(), before);
}

TEST_F(HeapDeferredTest, ASaveCopiesWhatIsInTheFileAndWritesWhatWasLoadedOrChanged) {
  auto untouched = Deferred();
  ASSERT_NE(untouched, nullptr);
  bool ok = false;
  EXPECT_TRUE(Saved(*untouched, 2 * kMiB, &ok) == Expected());
  EXPECT_TRUE(ok);
  EXPECT_TRUE(untouched->IsDeferred()); // saving brought nothing into memory

  // One value changed in page 7, page 20 only read, chunks that cut pages in odd places.
  auto changed = Deferred();
  ASSERT_NE(changed, nullptr);
  const uint32_t value = 0xdeadbeef;
  changed->SetDataAtAddress(7 * kPage + 100, &value, 4);
  uint8_t read = 0;
  changed->GetDataAtAddress(20 * kPage + 5, &read, 1);
  std::string expected = Expected();
  std::memcpy(expected.data() + 7 * kPage + 100, &value, 4);
  EXPECT_TRUE(Saved(*changed, 3 * kPage + 777, &ok) == expected);
  EXPECT_TRUE(ok);
  // The rest of the changed page kept the file's bytes.
  uint8_t neighbour = 0;
  changed->GetDataAtAddress(7 * kPage + 99, &neighbour, 1);
  EXPECT_EQ(neighbour, ByteAt(7 * kPage + 99));
}

TEST_F(HeapDeferredTest, AFileChangedInPlaceMakesTheSaveFail) {
  auto array = Deferred();
  ASSERT_NE(array, nullptr);
  // Another program writes into the file in place (and makes it longer, which no clock can hide).
  {
    const int file = ::open(FSource.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(file, 0);
    ASSERT_EQ(::write(file, "more", 4), 4);
    ::close(file);
  }
  ClearLastFileError();
  bool ok = true;
  Saved(*array, kBytes, &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(LastFileError(), ESTALE);
  EXPECT_NE(FileErrorReason(ESTALE).find("changed since it was loaded"), std::string::npos);
  // Reading what can no longer be trusted gives zeros, and every later save fails as well.
  uint8_t byte = 0xff;
  array->GetDataAtAddress(kPage + 1, &byte, 1);
  EXPECT_EQ(byte, 0);
  Saved(*array, kBytes, &ok);
  EXPECT_FALSE(ok);
  // Clearing gives the array defined contents again.
  array->ClearData();
  EXPECT_TRUE(Saved(*array, kBytes, &ok) == std::string(kBytes, '\0'));
  EXPECT_TRUE(ok);
}

TEST_F(HeapDeferredTest, AFileReplacedByNameLeavesTheArrayWithTheFileItCameFrom) {
  // As a save of the system replaces a file: a new one renamed over it.
  auto kept = Deferred();
  ASSERT_NE(kept, nullptr);
  oxtest::WriteFileBytes(FDir.File("replacement"), std::string(kHead + kBytes, 'x'));
  ASSERT_EQ(std::rename(FDir.File("replacement").c_str(), FSource.c_str()), 0);
  bool ok = false;
  EXPECT_TRUE(Saved(*kept, kBytes, &ok) == Expected());
  EXPECT_TRUE(ok);
}

TEST_F(HeapDeferredTest, SmallArraysAndFilesTooShortAreLoadedTheUsualWay) {
  // Below one huge page an array is made of separate pages: it doesn't defer.
  EXPECT_EQ(Deferred(kMiB), nullptr);
  // The file must hold the whole array behind the offset.
  std::unique_ptr<IPartialArray> array(FAllocator.AllocateArray(kBytes + 8));
  const int file = ::open(FSource.c_str(), O_RDONLY);
  ASSERT_GE(file, 0);
  EXPECT_FALSE(array->DeferContentsFromFile(file, kHead));
  ::close(file);
}

TEST_F(HeapDeferredTest, ThreadsTouchingTheSamePagesAtOnceAllSeeTheFilesBytes) {
  auto array = Deferred();
  ASSERT_NE(array, nullptr);
  const std::string all = Expected();
  std::vector<int> mismatches(8, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      // Every thread walks the whole array in steps that straddle pages, from its own starting point.
      std::vector<uint8_t> part(3001);
      for (uint64_t at = uint64_t(t) * 4099; at + part.size() <= kBytes; at += 7 * kPage / 3) {
        array->GetDataAtAddressEx(at, part.data(), part.size());
        if (std::memcmp(part.data(), all.data() + at, part.size()) != 0) ++mismatches[size_t(t)];
      }
      uint64_t available = 0;
      const auto* direct = static_cast<const uint8_t*>(array->GetReadPointer(kBytes / 2, available));
      if (!direct || available != kBytes - kBytes / 2 || direct[0] != ByteAt(kBytes / 2))
        ++mismatches[size_t(t)];
    });
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 8; ++t) EXPECT_EQ(mismatches[size_t(t)], 0) << "thread " << t;
  EXPECT_FALSE(array->IsDeferred()); // reading in place brought everything in
}
