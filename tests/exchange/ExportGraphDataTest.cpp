// The graph point reader: every point's values in element order, for tiles read and turned on two threads
// while the tile before is stored, with a tile that doesn't divide the points; stores arrive one at a
// time in order of points; a refused store and a cancel end the run.
#include "exchange/Exportgraphdata.h"

#include "common/threads/Progressandcancel.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "support/TestDataObjects.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace {

// 128 × 130 spectra: enough rows that a tile of 16 points is worked on by two threads.
constexpr int32_t kSizeX = 128, kSizeY = 130, kPoints = 53;

float Value(int32_t x, int32_t y, int32_t g) {
  return static_cast<float>(x + kSizeX * y) + static_cast<float>(g) / 64.0f;
}

class CountingProgress : public IProgressAndCancel {
public:
  void SetProgressCaption(const std::string&) override {}
  void SetProgress(std::int64_t, std::int64_t) override {}
  void AddProgress(std::int64_t delta) override { Done += delta; }
  bool IsCancelled() const override { return CancelAfter >= 0 && Done >= CancelAfter; }
  std::atomic<int64_t> Done{0};
  int64_t CancelAfter = -1;
};

class GraphPointReaderTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
    FGraphObject = std::make_unique<TDGraph>(); // after the memory strategy: its field lives there
    FGraphObject->SetFieldSize(kSizeX, kSizeY, TDataFieldKind::Float, kPoints);
    std::vector<float> spectrum(kPoints);
    for (int32_t y = 0; y < kSizeY; ++y)
      for (int32_t x = 0; x < kSizeX; ++x) {
        for (int32_t g = 0; g < kPoints; ++g) spectrum[static_cast<size_t>(g)] = Value(x, y, g);
        FGraphObject->SetSpectrum(x, y, spectrum.data());
      }
    // The export's order: y fastest, then x.
    for (int32_t x = 0; x < kSizeX; ++x)
      for (int32_t y = 0; y < kSizeY; ++y) FElements.push_back(x + static_cast<int64_t>(y) * kSizeX);
  }
  /// Tile bytes that give tiles of 16 points.
  static int64_t SixteenPointTiles() { return 3 * 16 * int64_t(kSizeX) * kSizeY * 4; }

  std::unique_ptr<TDGraph> FGraphObject;
  std::vector<int64_t> FElements;
};

} // namespace

TEST_F(GraphPointReaderTest, EveryPointInElementOrderAcrossTiles) {
  TGraphPointReader reader(*FGraphObject, FElements, SixteenPointTiles());
  std::vector<int32_t> firsts;
  std::atomic<int> inStore{0};
  bool overlapped = false, wrong = false;
  CountingProgress progress;
  const bool done = reader.RunBlocks(
      [&](int32_t first, int32_t points, const float* values, int64_t count) {
        overlapped |= inStore.fetch_add(1) != 0;
        firsts.push_back(first);
        for (int32_t k = 0; k < points && !wrong; ++k)
          for (int64_t r = 0; r < count && !wrong; ++r) {
            const int64_t e = FElements[static_cast<size_t>(r)];
            const float expected =
                Value(static_cast<int32_t>(e % kSizeX), static_cast<int32_t>(e / kSizeX), first + k);
            if (values[k * count + r] != expected) {
              ADD_FAILURE() << "point " << first + k << ", element " << e << ": " << values[k * count + r]
                            << " instead of " << expected;
              wrong = true;
            }
          }
        inStore.fetch_sub(1);
        return true;
      },
      &progress);
  EXPECT_TRUE(done);
  EXPECT_FALSE(overlapped) << "stores overlapped";
  EXPECT_EQ(firsts, (std::vector<int32_t>{0, 16, 32, 48})) << "three full tiles and one of 5 points";
  EXPECT_EQ(progress.Done.load(), int64_t(kSizeX) * kSizeY * kPoints);
}

TEST_F(GraphPointReaderTest, ARefusedStoreAndACancelEndTheRun) {
  TGraphPointReader reader(*FGraphObject, FElements, SixteenPointTiles());
  int stores = 0;
  EXPECT_FALSE(reader.RunBlocks(
      [&](int32_t first, int32_t, const float*, int64_t) {
        ++stores;
        return first < 16; // the second tile is refused
      },
      nullptr));
  EXPECT_EQ(stores, 2) << "nothing is stored after a refusal";

  CountingProgress progress;
  progress.CancelAfter = 1; // asked to cancel once the first tile is read
  stores = 0;
  EXPECT_FALSE(reader.RunBlocks(
      [&](int32_t, int32_t, const float*, int64_t) {
        ++stores;
        return true;
      },
      &progress));
  EXPECT_EQ(stores, 1) << "the tile read before the cancel is stored, no other";
}

TEST_F(GraphPointReaderTest, ASmallSelectionRunsOnOneThreadWithTheSameValues) {
  const std::vector<int64_t> some = {5, 0, kSizeX * 3 + 7};
  TGraphPointReader reader(*FGraphObject, some);
  std::vector<float> got;
  EXPECT_TRUE(reader.Run(
      [&](int32_t, const float* values, int64_t count) {
        got.insert(got.end(), values, values + count);
        return true;
      },
      nullptr));
  ASSERT_EQ(got.size(), some.size() * kPoints);
  EXPECT_EQ(got[0], Value(5, 0, 0));
  EXPECT_EQ(got[1], Value(0, 0, 0));
  EXPECT_EQ(got[2], Value(7, 3, 0));
  EXPECT_EQ(got[3 * (kPoints - 1) + 2], Value(7, 3, kPoints - 1));
}
