#include "tools/inspect/histogram.h"

#include <gtest/gtest.h>

namespace {

using vorn_inspect::Histogram;

TEST(Histogram, CountsByPowersOfTwo) {
  Histogram sizes;
  for (const uint64_t size : {3U, 4U, 7U, 8U, 8U}) sizes.add(size);
  EXPECT_EQ(5U, sizes.count());
  EXPECT_EQ(30U, sizes.sum());
  EXPECT_EQ(3U, sizes.min());
  EXPECT_EQ(8U, sizes.max());
  ASSERT_EQ(2U, sizes.first());
  ASSERT_EQ(4U, sizes.last());
  const Histogram::Range middle = sizes.range(3);
  EXPECT_EQ(4U, middle.from);
  EXPECT_EQ(7U, middle.to);
  EXPECT_EQ(2U, middle.count);
  EXPECT_EQ(1U, sizes.range(2).count);
  EXPECT_EQ(2U, sizes.range(4).count);
}

TEST(Histogram, HasRoomForEverySize) {
  Histogram sizes;
  sizes.add(0);
  sizes.add(UINT64_MAX);
  EXPECT_EQ(0U, sizes.first());
  EXPECT_EQ(1U, sizes.range(0).count);
  EXPECT_EQ(64U, sizes.last());
  EXPECT_EQ(UINT64_MAX, sizes.range(64).to);
  EXPECT_EQ(0U, Histogram().min());
}

}  // namespace
