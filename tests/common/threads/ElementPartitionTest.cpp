// Element division of a multi-core calculation over every thread count.
#include "common/threads/Multicorecalc.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

// Every element is handed to exactly one thread, ranges are contiguous and in thread order, and an
// idle thread gets the empty range -1 … -2.
void ExpectExactCover(int threads, int elements) {
  std::vector<int> owner(elements, -1);
  int nextExpected = 0;
  for (int t = 0; t < threads; ++t) {
    const int first = TMCC::GetFirstElementIndex(t, threads, elements);
    const int last = TMCC::GetLastElementIndex(t, threads, elements);
    if (first == -1) {
      EXPECT_EQ(last, -2) << "t=" << t << " n=" << threads << " m=" << elements;
      continue;
    }
    ASSERT_LE(first, last) << "t=" << t << " n=" << threads << " m=" << elements;
    ASSERT_EQ(first, nextExpected) << "t=" << t << " n=" << threads << " m=" << elements;
    for (int e = first; e <= last; ++e) {
      ASSERT_GE(e, 0);
      ASSERT_LT(e, elements);
      ASSERT_EQ(owner[e], -1) << "element " << e << " doubled";
      owner[e] = t;
    }
    nextExpected = last + 1;
  }
  EXPECT_EQ(nextExpected, elements) << "n=" << threads << " m=" << elements;
}

} // namespace

TEST(ElementPartition, KnownRanges) {
  EXPECT_EQ(TMCC::GetFirstElementIndex(0, 4, 0), -1);
  EXPECT_EQ(TMCC::GetLastElementIndex(0, 4, 0), -2);
  EXPECT_EQ(TMCC::GetFirstElementIndex(2, 4, 3), 2);
  EXPECT_EQ(TMCC::GetLastElementIndex(2, 4, 3), 2);
  EXPECT_EQ(TMCC::GetFirstElementIndex(3, 4, 3), -1);
  EXPECT_EQ(TMCC::GetLastElementIndex(3, 4, 3), -2);
  const int first[] = {0, 2, 5, 7};
  const int last[] = {1, 4, 6, 9};
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(TMCC::GetFirstElementIndex(t, 4, 10), first[t]);
    EXPECT_EQ(TMCC::GetLastElementIndex(t, 4, 10), last[t]);
  }
}

TEST(ElementPartition, EveryThreadCountCoversEveryElementOnce) {
  for (int threads = 1; threads <= TMCC::MaxNumberOfThreads; ++threads)
    for (int elements = 0; elements <= 300; ++elements) ExpectExactCover(threads, elements);
}

TEST(ElementPartition, FewerElementsThanThreadsGivesOneEachToTheFirst) {
  for (int threads = 2; threads <= TMCC::MaxNumberOfThreads; ++threads) {
    for (int elements = 1; elements < threads; ++elements) {
      for (int t = 0; t < threads; ++t) {
        const bool busy = t < elements;
        EXPECT_EQ(TMCC::GetFirstElementIndex(t, threads, elements), busy ? t : -1);
        EXPECT_EQ(TMCC::GetLastElementIndex(t, threads, elements), busy ? t : -2);
      }
    }
  }
}

TEST(ElementPartition, LargeCountsDoNotOverflowAndStayBalanced) {
  // t * m exceeds 32 bits here; the ranges must still be exact and differ in size by at most one.
  const int elements = 2'000'000'011;
  for (int threads : {3, 7, 64}) {
    ExpectExactCover(threads, 0);
    long long covered = 0;
    int smallest = elements, largest = 0;
    for (int t = 0; t < threads; ++t) {
      const int first = TMCC::GetFirstElementIndex(t, threads, elements);
      const int last = TMCC::GetLastElementIndex(t, threads, elements);
      ASSERT_EQ(first, t == 0 ? 0 : TMCC::GetLastElementIndex(t - 1, threads, elements) + 1);
      covered += last - first + 1;
      smallest = std::min(smallest, last - first + 1);
      largest = std::max(largest, last - first + 1);
    }
    EXPECT_EQ(covered, elements);
    EXPECT_LE(largest - smallest, 1);
  }
}
