// The graph point reader: every point's values in element order, for tiles read and turned by several threads
// while the tile before is stored, with a tile that doesn't divide the points; stores arrive one at a
// time in order of points; a refused store and a cancel end the run.
#include "exchange/Exportgraphdata.h"

#include "common/threads/Progressandcancel.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "support/TestDataObjects.h"

#include <algorithm>
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

// The parts of spectra that follow one another in memory are turned in place: a graph of one block gives a
// whole column of the map at once, and the values are those GetPartOfSpectrum copies.
TEST_F(GraphPointReaderTest, SpectraPartsAreReadInPlaceWhereTheyLieTogether) {
  int32_t spectra = kSizeY;
  const float* part = FGraphObject->GetSpectraPartReadPointer(3, 0, 10, 20, spectra);
  ASSERT_NE(part, nullptr) << "a graph of more than 2 MiB lies in one block of the heap strategy";
  EXPECT_EQ(spectra, kSizeY);
  std::vector<float> copy(20);
  for (int32_t y : {0, 1, 77, kSizeY - 1}) {
    FGraphObject->GetPartOfSpectrum(3, y, 10, 20, copy.data(), true);
    for (int32_t k = 0; k < 20; ++k)
      ASSERT_EQ(part[static_cast<int64_t>(y) * kPoints + k], copy[static_cast<size_t>(k)]) << y << " " << k;
  }
  spectra = 5;
  EXPECT_NE(FGraphObject->GetSpectraPartReadPointer(0, kSizeY - 5, 0, kPoints, spectra), nullptr);
  EXPECT_EQ(spectra, 5);
  spectra = 6; // one spectrum past the last line
  EXPECT_ANY_THROW(FGraphObject->GetSpectraPartReadPointer(0, kSizeY - 5, 0, kPoints, spectra));
}

// A small graph lies in pages of their own: runs stop at a page's end and a part that crosses one is
// copied instead; elements in any order still give every point's values in element order.
TEST_F(GraphPointReaderTest, SmallGraphsAndAnyElementOrderGiveTheSameValues) {
  // 85 KiB: the first 64 KiB page ends in column 19, in the part of its spectrum y = 5.
  constexpr int32_t sx = 25, sy = 23, points = 37;
  TDGraph small;
  small.SetFieldSize(sx, sy, TDataFieldKind::Float, points);
  std::vector<float> spectrum(points);
  for (int32_t y = 0; y < sy; ++y)
    for (int32_t x = 0; x < sx; ++x) {
      for (int32_t g = 0; g < points; ++g) spectrum[static_cast<size_t>(g)] = float(x * 1000 + y) + g / 64.0f;
      small.SetSpectrum(x, y, spectrum.data());
    }
  int32_t spectra = sy;
  ASSERT_NE(small.GetSpectraPartReadPointer(0, 0, 0, points, spectra), nullptr);
  EXPECT_EQ(spectra, sy) << "column 0 lies in the first page";
  spectra = sy;
  ASSERT_NE(small.GetSpectraPartReadPointer(19, 0, 0, points, spectra), nullptr);
  EXPECT_EQ(spectra, 5) << "the first page ends in spectrum (19, 5)";
  spectra = 1;
  EXPECT_EQ(small.GetSpectraPartReadPointer(19, 5, 0, points, spectra), nullptr) << "it crosses the page end";
  EXPECT_EQ(spectra, 0);
  for (bool reversed : {false, true}) {
    std::vector<int64_t> elements;
    for (int32_t x = 0; x < sx; ++x)
      for (int32_t y = 0; y < sy; ++y) elements.push_back(x + int64_t(y) * sx);
    if (reversed) std::reverse(elements.begin(), elements.end());
    TGraphPointReader reader(small, elements, 3 * 8 * int64_t(sx) * sy * 4);
    bool wrong = false;
    EXPECT_TRUE(reader.RunBlocks(
        [&](int32_t first, int32_t n, const float* values, int64_t count) {
          for (int32_t k = 0; k < n && !wrong; ++k)
            for (int64_t r = 0; r < count && !wrong; ++r) {
              const int64_t e = elements[static_cast<size_t>(r)];
              const float expected = float((e % sx) * 1000 + e / sx) + (first + k) / 64.0f;
              if (values[k * count + r] != expected) {
                ADD_FAILURE() << "point " << first + k << ", element " << e << (reversed ? " reversed" : "");
                wrong = true;
              }
            }
          return true;
        },
        nullptr));
  }
}
