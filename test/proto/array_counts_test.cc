#include "proto/array_counts.h"

#include <new>
#include <vector>

#include <gtest/gtest.h>

#include "test/support/allocations.h"

namespace {

using VORN::PROTO::ArrayCounts;

TEST(ArrayCounts, GivesTheCountsInTheOrderOfTheSlots) {
  for (const uint32_t arrays : {0U, 1U, 63U, 64U, 65U, 66U, 1000U}) {
    ArrayCounts counts;
    for (uint32_t i = 0; i < arrays; ++i) EXPECT_EQ(i, counts.add());
    for (uint32_t i = arrays; i > 0; --i) counts.set(i - 1, 10 * i);  // an inner array ends before its outer
    for (uint32_t i = 0; i < arrays; ++i) ASSERT_EQ(10 * (i + 1), counts.next()) << i << " of " << arrays;
    EXPECT_EQ(0U, counts.next());
    EXPECT_EQ(0U, counts.next());
  }
}

TEST(ArrayCounts, IsCopied) {
  for (const uint32_t arrays : {0U, 1U, 64U, 65U, 1000U}) {
    ArrayCounts counts;
    for (uint32_t i = 0; i < arrays; ++i) counts.set(counts.add(), i + 1);
    ASSERT_EQ(arrays, counts.size());
    std::vector<uint32_t> copy(arrays + 1, UINT32_MAX);
    counts.copy_to(copy.data());
    for (uint32_t i = 0; i < arrays; ++i) ASSERT_EQ(i + 1, copy[i]) << i << " of " << arrays;
    EXPECT_EQ(UINT32_MAX, copy[arrays]) << "what is behind them stays";
  }
}

TEST(ArrayCounts, HoldsTheLargestCount) {
  ArrayCounts counts;
  counts.set(counts.add(), UINT32_MAX);
  EXPECT_EQ(UINT32_MAX, counts.next());
}

TEST(ArrayCounts, NeedsNoMemoryForFewArrays) {
  const vorn_test::AllocationCount allocations;
  ArrayCounts counts;
  for (int i = 0; i < 64; ++i) counts.add();
  EXPECT_EQ(0U, allocations.count());
}

TEST(ArrayCounts, WithoutMemoryNoSlotIsAdded) {
  ArrayCounts counts;
  for (uint32_t i = 0; i < 64; ++i) counts.set(counts.add(), i);
  {
    const vorn_test::FailAllocation fail(1);
    EXPECT_THROW(counts.add(), std::bad_alloc);
  }
  counts.set(counts.add(), 64);
  for (uint32_t i = 0; i < 65; ++i) EXPECT_EQ(i, counts.next());
  EXPECT_EQ(0U, counts.next());
}

#ifndef NDEBUG

TEST(ArrayCountsDeathTest, SetsOnlySlotsThatWereAdded) {
  ArrayCounts counts;
  counts.add();
  counts.set(0, 1);
  EXPECT_DEATH(counts.set(1, 1), "slot < size_");
}

#endif

}  // namespace
