#include "tools/inspect/sequence_check.h"

#include <gtest/gtest.h>

namespace {

using vorn_inspect::SequenceCheck;

TEST(SequenceCheck, AcceptsConsecutiveNumbers) {
  SequenceCheck check;
  for (const unsigned seq : {65534U, 65535U, 0U, 1U}) check.add(static_cast<uint16_t>(seq), 0);
  EXPECT_EQ(0U, check.gaps() + check.repeats() + check.returns());
  EXPECT_TRUE(check.jumps().empty());
}

TEST(SequenceCheck, DistinguishesGapsRepeatsAndReturns) {
  SequenceCheck check;
  uint64_t offset = 0;
  for (const unsigned seq : {1U, 5U, 5U, 4U, 5U, 6U}) check.add(static_cast<uint16_t>(seq), offset += 10);
  EXPECT_EQ(1U, check.gaps());
  EXPECT_EQ(3U, check.missing());
  EXPECT_EQ(1U, check.repeats());
  EXPECT_EQ(1U, check.returns());
  ASSERT_EQ(3U, check.jumps().size());
  EXPECT_EQ(20U, check.jumps()[0].offset);
  EXPECT_EQ(1U, check.jumps()[0].from);
  EXPECT_EQ(5U, check.jumps()[0].to);
}

// The numbers wrap around, so a jump of half of them is ambiguous: less than half counts as forward.
TEST(SequenceCheck, AJumpOfHalfTheNumbersGoesBack) {
  for (const unsigned first : {0U, 0x7FFFU, 0xFFFFU}) {
    SequenceCheck forward;
    for (const unsigned step : {0U, 0x7FFFU}) forward.add(static_cast<uint16_t>(first + step), 0);
    EXPECT_EQ(1U, forward.gaps()) << first;
    EXPECT_EQ(0x7FFEU, forward.missing()) << first;
    EXPECT_EQ(0U, forward.returns()) << first;
    SequenceCheck back;
    for (const unsigned step : {0U, 0x8000U}) back.add(static_cast<uint16_t>(first + step), 0);
    EXPECT_EQ(0U, back.gaps()) << first;
    EXPECT_EQ(0U, back.missing()) << first;
    EXPECT_EQ(1U, back.returns()) << first;
  }
}

TEST(SequenceCheck, KeepsTheFirstJumps) {
  SequenceCheck check;
  for (unsigned i = 0; i < 100; ++i) check.add(7, i);
  EXPECT_EQ(99U, check.repeats());
  EXPECT_EQ(SequenceCheck::MAX_JUMPS, check.jumps().size());
}

}  // namespace
