#include "proto/packet_buf.h"

#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test/support/allocations.h"
#include "test/support/guarded_bytes.h"

namespace {

using VORN::PROTO::PacketBuf;

constexpr uint64_t MAX = std::numeric_limits<uint64_t>::max();

void write(PacketBuf& buf, const std::string& bytes) {
  buf.write_bytes(bytes.data(), bytes.size());
}

TEST(PacketBuf, IsEmptyAtFirst) {
  const PacketBuf buf;
  EXPECT_EQ(0U, buf.pos());
  EXPECT_EQ("", buf.data());
  EXPECT_EQ(0U, buf.payload_start());
  EXPECT_EQ(0U, buf.payload_end());
  EXPECT_EQ(0U, buf.payload_size());
  EXPECT_FALSE(buf.index_within_payload(0));
}

TEST(PacketBuf, DoesNotAllocateWhileItStaysWithinItsFirstCapacity) {
  PacketBuf buf;
  const vorn_test::AllocationCount allocations;
  const char* const storage = buf.data().data();
  for (uint64_t i = 0; i < PacketBuf::INITIAL_CAPACITY; ++i) buf.write_byte(0x61);
  EXPECT_EQ(0x10000U, buf.data().size());
  EXPECT_EQ(storage, buf.data().data());
  EXPECT_EQ(0U, allocations.count());
}

TEST(PacketBuf, GrowsByMoreThanItNeeds) {
  PacketBuf buf;
  const vorn_test::AllocationCount allocations;
  for (uint64_t i = 0; i < 100 * PacketBuf::INITIAL_CAPACITY; ++i) buf.write_byte(0x61);
  EXPECT_LE(allocations.count(), 10U);
}

TEST(PacketBuf, WriteByteAppends) {
  PacketBuf buf;
  for (unsigned b = 0; b < 256; ++b) buf.write_byte(static_cast<uint8_t>(b));
  ASSERT_EQ(256U, buf.data().size());
  EXPECT_EQ(256U, buf.pos());
  for (unsigned b = 0; b < 256; ++b) EXPECT_EQ(b, static_cast<uint8_t>(buf.data()[b]));
}

TEST(PacketBuf, WritingOverwritesAndNeitherInsertsNorShrinks) {
  PacketBuf buf;
  write(buf, "abc");
  EXPECT_EQ(3U, buf.pos());
  buf.set_pos(1);
  buf.write_byte('X');
  EXPECT_EQ("aXc", buf.data());
  EXPECT_EQ(2U, buf.pos());
  buf.set_pos(0);
  write(buf, "12");
  EXPECT_EQ("12c", buf.data());
  EXPECT_EQ(2U, buf.pos());
  write(buf, "345");
  EXPECT_EQ("12345", buf.data());
  EXPECT_EQ(5U, buf.pos());
}

TEST(PacketBuf, ThePositionMayLieBeyondTheEndAndAWriteFillsTheGapWithZeros) {
  PacketBuf buf;
  buf.set_pos(10);
  EXPECT_EQ(10U, buf.pos());
  EXPECT_EQ("", buf.data());
  write(buf, "x");
  EXPECT_EQ(std::string(10, '\0') + "x", buf.data());
  buf.set_pos(13);
  buf.write_byte('y');
  EXPECT_EQ(std::string(10, '\0') + "x" + std::string(2, '\0') + "y", buf.data());
  EXPECT_EQ(14U, buf.pos());
}

TEST(PacketBuf, WritingNoBytesDoesNothing) {
  PacketBuf buf;
  buf.set_pos(10);
  buf.write_bytes(nullptr, 0);
  EXPECT_EQ(10U, buf.pos());
  EXPECT_EQ("", buf.data());
}

TEST(PacketBuf, ResetMovesThePositionAndKeepsTheBytes) {
  PacketBuf buf;
  write(buf, "abc");
  EXPECT_EQ(0U, buf.reset());
  EXPECT_EQ(0U, buf.pos());
  EXPECT_EQ("abc", buf.data());
  EXPECT_EQ(3U, buf.payload_size());
}

TEST(PacketBuf, ThePayloadIsTheWholeBuffer) {
  PacketBuf buf;
  write(buf, "abc");
  EXPECT_EQ(0U, buf.payload_start());
  EXPECT_EQ(3U, buf.payload_end());
  EXPECT_EQ(3U, buf.payload_size());
  EXPECT_TRUE(buf.index_within_payload(0));
  EXPECT_TRUE(buf.index_within_payload(2));
  EXPECT_FALSE(buf.index_within_payload(3));
  EXPECT_FALSE(buf.index_within_payload(MAX));
}

TEST(PacketBuf, ClaimMakesRoomAndHandsItOut) {
  PacketBuf buf;
  write(buf, "abc");
  buf.set_pos(2);
  char* const at = buf.claim(3);
  EXPECT_EQ(buf.data().data() + 2, at);
  EXPECT_EQ(std::string("abc\0\0", 5), buf.data());
  EXPECT_EQ(5U, buf.pos());
  buf.set_pos(5);
  buf.claim(1);
  EXPECT_EQ(6U, buf.data().size());
}

TEST(PacketBuf, HoldsPointersToItsBytes) {
  PacketBuf buf;
  const std::string other = "abc";
  EXPECT_FALSE(buf.holds(other.data()));
  EXPECT_FALSE(buf.holds(buf.data().data()));
  write(buf, "abc");
  const char* const first = buf.data().data();
  EXPECT_TRUE(buf.holds(first));
  EXPECT_TRUE(buf.holds(first + 2));
  EXPECT_FALSE(buf.holds(first + 3));
  EXPECT_FALSE(buf.holds(other.data()));
}

TEST(PacketBuf, AWriteBeginsOverWhatExistsAlready) {
  PacketBuf buf;
  EXPECT_EQ(nullptr, buf.begin_write(1));
  write(buf, "abc");
  EXPECT_EQ(nullptr, buf.begin_write(1));
  buf.set_pos(1);
  EXPECT_EQ(buf.data().data() + 1, buf.begin_write(2));
  EXPECT_EQ(nullptr, buf.begin_write(3));
  EXPECT_EQ(nullptr, buf.begin_write(MAX));
  EXPECT_EQ(1U, buf.pos());
  buf.end_write(buf.begin_write(2));
  EXPECT_EQ(1U, buf.pos());
  buf.end_write(buf.begin_write(2) + 2);
  EXPECT_EQ(3U, buf.pos());
  for (const uint64_t pos : {uint64_t{4}, uint64_t{1} << 63, MAX - 1, MAX}) {
    buf.set_pos(pos);
    EXPECT_EQ(nullptr, buf.begin_write(1));
    EXPECT_EQ(nullptr, buf.begin_write(3));
  }
  EXPECT_EQ("abc", buf.data());
}

TEST(PacketBuf, ReserveMakesRoomAndStoresNothing) {
  PacketBuf buf;
  write(buf, "abc");
  const size_t capacity = buf.data().capacity();
  for (const uint64_t n : {uint64_t{0}, uint64_t{100}, uint64_t{capacity - 3}}) {
    const vorn_test::FailAllocation none(1);
    buf.reserve(n);
    EXPECT_FALSE(none.failed());
  }
  EXPECT_EQ(capacity, buf.data().capacity());
  buf.reserve(1000000);
  EXPECT_EQ(3U, buf.pos());
  EXPECT_EQ("abc", buf.data());
  const std::string piece(1000, 'x');
  const vorn_test::FailAllocation none(1);
  for (int i = 0; i < 1000; ++i) write(buf, piece);
  EXPECT_FALSE(none.failed());
  EXPECT_EQ(1000003U, buf.pos());
}

TEST(PacketBuf, ReserveFailsAsClaimDoes) {
  PacketBuf buf;
  write(buf, "abc");
  for (const uint64_t n : {uint64_t{buf.data().max_size()} - 2, MAX - 3, MAX - 2, MAX}) {
    EXPECT_THROW(buf.reserve(n), std::length_error);
  }
  {
    const vorn_test::FailAllocation fail(1);
    EXPECT_THROW(buf.reserve(buf.data().capacity()), std::bad_alloc);
  }
  EXPECT_EQ(3U, buf.pos());
  EXPECT_EQ("abc", buf.data());
}

TEST(PacketBuf, ReadsNoByteBehindTheSource) {
  const vorn_test::GuardedBytes source(std::string(5000, 's'));
  for (size_t n = 0; n <= source.size(); ++n) {
    PacketBuf buf;
    buf.write_bytes(source.data() + source.size() - n, n);
    ASSERT_EQ(std::string(n, 's'), buf.data());
  }
}

// Each source range and position in a small buffer, both with room to spare and at the end of the capacity.
TEST(PacketBuf, TheSourceMayBeItsOwnBytes) {
  std::string text = "0123456789";
  for (const uint64_t before : {uint64_t{0}, PacketBuf::INITIAL_CAPACITY - text.size()}) {
    const std::string whole = std::string(before, '.') + text;
    for (size_t from = 0; from < text.size(); ++from) {
      for (size_t n = 1; from + n <= text.size(); ++n) {
        for (size_t to = 0; to <= text.size() + 2; ++to) {
          PacketBuf buf;
          write(buf, whole);
          buf.set_pos(before + to);
          std::string expected = whole;
          if (expected.size() < before + to + n) expected.resize(before + to + n);
          expected.replace(before + to, n, text, from, n);
          buf.write_bytes(buf.data().data() + before + from, n);
          ASSERT_EQ(expected.substr(before), buf.data().substr(before)) << from << ' ' << n << ' ' << to;
          ASSERT_EQ(before + to + n, buf.pos());
        }
      }
    }
  }
}

TEST(PacketBuf, DoublesItselfFromItsOwnBytes) {
  PacketBuf buf;
  write(buf, "ab");
  for (int i = 0; i < 18; ++i) buf.write_bytes(buf.data().data(), buf.data().size());
  ASSERT_EQ(uint64_t{2} << 18, buf.data().size());
  for (size_t i = 0; i < buf.data().size(); ++i) ASSERT_EQ("ab"[i % 2], buf.data()[i]);
}

// Numbers from `least` on where an index or a length could be cut or overflow, on both sides of each: what a string
// can hold, 2^31, 2^32, 2^63 and 2^64 among them.
std::vector<uint64_t> edges(uint64_t least) {
  std::vector<uint64_t> out;
  for (const uint64_t edge : {uint64_t{std::string().max_size()}, uint64_t{1} << 31, uint64_t{1} << 32,
                              uint64_t{1} << 33, uint64_t{1} << 62, uint64_t{1} << 63, uint64_t{0}}) {
    for (const uint64_t delta : {uint64_t{0} - 4096, uint64_t{0} - 4095, uint64_t{0} - 8, uint64_t{0} - 4,
                                 uint64_t{0} - 3, uint64_t{0} - 2, uint64_t{0} - 1, uint64_t{0}, uint64_t{1},
                                 uint64_t{2}, uint64_t{3}, uint64_t{4}, uint64_t{8}, uint64_t{4096}}) {
      if (edge + delta >= least) out.push_back(edge + delta);
    }
  }
  return out;
}

// The outcome of writing n bytes far behind the stored ones, while large blocks are refused.
template <typename Write>
void expect_refused(PacketBuf& buf, uint64_t n, Write write) {
  const uint64_t pos = buf.pos();
  const uint64_t most = std::string().max_size();
  const std::string bytes = buf.data();
  const char* const storage = buf.data().data();
  const vorn_test::LimitAllocations limit(1 << 20);
  if (n > most || pos > most - n) {
    EXPECT_THROW(write(), std::length_error);
  } else {
    EXPECT_THROW(write(), std::bad_alloc);
  }
  EXPECT_EQ(pos, buf.pos());
  EXPECT_EQ(bytes, buf.data());
  EXPECT_EQ(storage, buf.data().data());
}

TEST(PacketBuf, AWriteThatNoStringCanHoldIsALengthErrorAndChangesNothing) {
  const std::string large(4096, 'x');
  for (const uint64_t pos : edges(1 << 21)) {
    SCOPED_TRACE(pos);
    PacketBuf buf;
    write(buf, "abc");
    buf.set_pos(pos);
    expect_refused(buf, 1, [&] { buf.write_byte(0x61); });
    expect_refused(buf, 1, [&] { write(buf, "x"); });
    expect_refused(buf, 9, [&] { write(buf, "123456789"); });
    expect_refused(buf, large.size(), [&] { write(buf, large); });
    expect_refused(buf, 3, [&] { buf.write_bytes(buf.data().data(), 3); });
    write(buf, "");
    EXPECT_EQ(pos, buf.pos());
    EXPECT_EQ("abc", buf.data());
    if (HasFailure()) return;
  }
}

TEST(PacketBuf, AClaimThatNoStringCanHoldIsALengthErrorAndChangesNothing) {
  PacketBuf buf;
  write(buf, "abc");
  for (const uint64_t n : edges(1 << 21)) {
    SCOPED_TRACE(n);
    for (const uint64_t pos : {uint64_t{0}, uint64_t{1}, uint64_t{3}, PacketBuf::INITIAL_CAPACITY}) {
      buf.set_pos(pos);
      expect_refused(buf, n, [&] { buf.claim(n); });
    }
    for (const uint64_t pos : edges(1 << 21)) {
      buf.set_pos(pos);
      expect_refused(buf, n, [&] { buf.claim(n); });
    }
    if (HasFailure()) return;
  }
}

TEST(PacketBuf, NoByteFarBehindTheEndIsThere) {
  PacketBuf buf;
  write(buf, "abc");
  for (const uint64_t i : edges(4)) {
    EXPECT_FALSE(buf.index_within_payload(i)) << i;
    buf.set_pos(i);
    for (const uint64_t n : {uint64_t{1}, uint64_t{3}, uint64_t{4096}, uint64_t{0} - i, uint64_t{3} - i, MAX}) {
      EXPECT_EQ(nullptr, buf.begin_write(n)) << i << ' ' << n;
    }
    buf.set_pos(3);
    EXPECT_EQ(nullptr, buf.begin_write(i)) << i;
    buf.set_pos(0);
    EXPECT_EQ(nullptr, buf.begin_write(i)) << i;
  }
}

TEST(PacketBuf, WithoutMemoryNothingIsWrittenAndNothingMoves) {
  PacketBuf buf;
  write(buf, "abc");
  const size_t capacity = buf.data().capacity();
  buf.set_pos(capacity);
  const std::string large(100, 'x');
  for (int how = 0; how < 4; ++how) {
    const vorn_test::FailAllocation fail(1);
    switch (how) {
      case 0: EXPECT_THROW(buf.write_byte(0x61), std::bad_alloc); break;
      case 1: EXPECT_THROW(write(buf, large), std::bad_alloc); break;
      case 2: EXPECT_THROW(buf.claim(1), std::bad_alloc); break;
      default: EXPECT_THROW(buf.write_bytes(buf.data().data(), 3), std::bad_alloc);
    }
    EXPECT_TRUE(fail.failed());
    EXPECT_EQ(capacity, buf.pos());
    EXPECT_EQ("abc", buf.data());
  }
  write(buf, large);
  EXPECT_EQ(large, buf.data().substr(capacity));
}

TEST(PacketBuf, WithoutMemoryNoneIsMade) {
  const int64_t before = vorn_test::live_allocations();
  {
    const vorn_test::FailAllocation fail(1);
    EXPECT_THROW(PacketBuf(), std::bad_alloc);
  }
  EXPECT_EQ(before, vorn_test::live_allocations());
}

#ifndef NDEBUG

TEST(PacketBufDeathTest, AWriteEndsBetweenItsBeginAndTheStoredBytes) {
  PacketBuf buf;
  write(buf, "abc");
  buf.set_pos(1);
  char* const at = buf.begin_write(2);
  ASSERT_NE(nullptr, at);
  EXPECT_DEATH(buf.end_write(at - 1), "end >= at_pos");
  EXPECT_DEATH(buf.end_write(at + 3), "end >= at_pos");
}

#endif

}  // namespace
