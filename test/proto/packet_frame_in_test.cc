#include "proto/packet_frame_in.h"

#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "proto/vorn_runtime_error.h"
#include "test/support/allocations.h"
#include "test/support/guarded_bytes.h"
#include "test/support/hex.h"
#include "test/support/vectors.h"

namespace {

using VORN::PROTO::PacketBuf;
using VORN::PROTO::PacketFrameIn;
using vorn_test::frame_vectors;
using vorn_test::FrameVector;
using vorn_test::from_hex;
using vorn_test::to_hex;

const char INSIDE_HEADER[] = "PacketFrameIn::st_accept_payload: data pos inside header (internal error)";
const char EXCESS[] = "PacketFrameIn::st_accept_payload: excess payload received (internal error)";

// Feeds bytes that end at an unreadable page.
uint64_t feed(PacketFrameIn& frame, const std::string& bytes) {
  const vorn_test::GuardedBytes chunk(bytes);
  return frame.assemble(chunk.data(), chunk.size(), 0);
}

uint64_t feed_hex(PacketFrameIn& frame, const char* hex) {
  return feed(frame, from_hex(hex));
}

std::string what_of_feeding(PacketFrameIn& frame, const std::string& bytes) {
  try {
    feed(frame, bytes);
  } catch (const VORN::VornRuntimeError& e) {
    return e.what();
  }
  return "nothing was thrown";
}

// An 8-byte header that announces so much, even what no sender may.
std::string header_of(uint32_t data_len) {
  std::string header = from_hex("A5 01 00 01");
  for (int shift = 24; shift >= 0; shift -= 8) header += static_cast<char>(data_len >> shift);
  return header;
}

// Where addresses have 32 bits, a frame may announce more than any string can hold.
bool no_string_holds_frame_of(uint64_t data_len) {
  const uint64_t most = std::string().max_size();
  return data_len > most - PacketFrameIn::PF8_HEADER_LEN;
}

void expect_state(const FrameVector& vector, const PacketFrameIn& frame) {
  EXPECT_EQ(vector.is_complete(), frame.have_complete_frame());
  EXPECT_EQ(!vector.is_complete() && !vector.is_incomplete(), frame.is_error());
  if (frame.is_error()) {
    EXPECT_EQ(vector.state, frame.error_message());
  } else {
    EXPECT_EQ(nullptr, frame.error_message());
  }
  EXPECT_EQ(vector.seq, frame.seq());
  EXPECT_EQ(vector.data_len, frame.data_len());
  EXPECT_EQ(vector.data_len, frame.payload_size());
  EXPECT_EQ(vector.layout == 0 ? 8U : vector.layout, frame.payload_start());
  EXPECT_EQ(frame.payload_start() + frame.payload_size(), frame.payload_end());
  if (vector.is_complete()) {
    EXPECT_EQ(frame.payload_end(), frame.pos());
    EXPECT_EQ(vector.payload, frame.data().substr(frame.payload_start(), frame.payload_size()));
  }
}

class EveryFrame : public testing::TestWithParam<FrameVector> {
 protected:
  void SetUp() override { frame.reset(); }

  PacketFrameIn frame;
};

INSTANTIATE_TEST_SUITE_P(Table, EveryFrame, testing::ValuesIn(frame_vectors()));

TEST_P(EveryFrame, IsAssembledWhole) {
  EXPECT_EQ(GetParam().consumed, feed(frame, GetParam().stream));
  expect_state(GetParam(), frame);
}

TEST_P(EveryFrame, IsAssembledByteByByte) {
  uint64_t consumed = 0;
  bool ended = false;
  for (const char c : GetParam().stream) {
    const uint64_t n = feed(frame, std::string(1, c));
    ASSERT_EQ(ended ? 0U : 1U, n) << "a frame in progress takes each byte";
    consumed += n;
    ended = frame.have_complete_frame() || frame.is_error();
  }
  EXPECT_EQ(GetParam().consumed, consumed);
  expect_state(GetParam(), frame);
}

TEST_P(EveryFrame, IsAssembledFromTwoPieces) {
  const std::string& stream = GetParam().stream;
  for (const size_t cut : vorn_test::cuts(stream.size())) {
    SCOPED_TRACE(cut);
    frame.reset();
    EXPECT_EQ(GetParam().consumed, feed(frame, stream.substr(0, cut)) + feed(frame, stream.substr(cut)));
    expect_state(GetParam(), frame);
  }
}

std::vector<FrameVector> short_frames() {
  std::vector<FrameVector> out;
  for (const FrameVector& vector : frame_vectors()) {
    if (vector.stream.size() <= 17) out.push_back(vector);
  }
  return out;
}

class ShortFrame : public EveryFrame {};

INSTANTIATE_TEST_SUITE_P(Table, ShortFrame, testing::ValuesIn(short_frames()));

TEST_P(ShortFrame, IsAssembledFromEachSetOfPieces) {
  const std::string& stream = GetParam().stream;
  for (unsigned set = 0; set < 1U << (stream.size() - 1); ++set) {
    frame.reset();
    uint64_t consumed = 0;
    for (size_t start = 0, end = 1; end <= stream.size(); ++end) {
      if (end < stream.size() && (set >> (end - 1) & 1) == 0) continue;
      consumed += frame.assemble(stream.data() + start, end - start, 0);
      start = end;
    }
    ASSERT_EQ(GetParam().consumed, consumed) << set;
    expect_state(GetParam(), frame);
    if (HasFailure()) FAIL() << set;
  }
}

TEST_P(EveryFrame, IsAssembledFromAnOffset) {
  for (const size_t before : {1U, 7U, 100U}) {
    const vorn_test::GuardedBytes chunk(std::string(before, '\xA5') + GetParam().stream);
    frame.reset();
    EXPECT_EQ(GetParam().consumed, frame.assemble(chunk.data(), chunk.size(), before));
    expect_state(GetParam(), frame);
  }
}

TEST_P(EveryFrame, IsAssembledOverTheBytesOfAnother) {
  for (const FrameVector& other : frame_vectors()) {
    SCOPED_TRACE(other.name);
    frame.reset();
    feed(frame, other.stream);
    frame.reset();
    EXPECT_EQ(GetParam().consumed, feed(frame, GetParam().stream));
    expect_state(GetParam(), frame);
  }
}

TEST_P(EveryFrame, StaysAsItEndedUntilReset) {
  feed(frame, GetParam().stream);
  if (GetParam().is_incomplete()) return;
  const std::string bytes = frame.data();
  for (int again = 0; again < 3; ++again) {
    EXPECT_EQ(0U, feed(frame, GetParam().stream));
    expect_state(GetParam(), frame);
  }
  EXPECT_EQ(bytes, frame.data());
  EXPECT_EQ(0U, frame.reset());
  EXPECT_FALSE(frame.have_complete_frame());
  EXPECT_FALSE(frame.is_error());
  EXPECT_EQ(nullptr, frame.error_message());
  EXPECT_EQ(0U, frame.seq());
  EXPECT_EQ(0U, frame.data_len());
  EXPECT_EQ(0U, frame.pos());
  EXPECT_EQ(bytes, frame.data());
}

TEST_P(EveryFrame, ACallWithoutBytesForgetsHowItEndedUntilTheNextCallWithBytes) {
  const std::string& stream = GetParam().stream;
  const uint64_t beyond[] = {stream.size(), stream.size() + 1, std::numeric_limits<uint64_t>::max()};
  feed(frame, stream);
  for (const uint64_t offset : beyond) {
    EXPECT_EQ(0U, frame.assemble(stream.data(), stream.size(), offset));
    EXPECT_FALSE(frame.have_complete_frame());
    EXPECT_FALSE(frame.is_error());
  }
  EXPECT_EQ(0U, frame.assemble(nullptr, 5, 0));
  EXPECT_EQ(0U, frame.assemble(stream.data(), 0, 0));
  EXPECT_FALSE(frame.have_complete_frame());
  EXPECT_FALSE(frame.is_error());
  if (GetParam().is_incomplete()) return;
  EXPECT_EQ(0U, feed(frame, "x"));
  expect_state(GetParam(), frame);
}

// The position belongs to the caller too. Wherever it is set in the middle of a frame, the result is an
// exception or a frame, and the next reset recovers.
TEST_P(EveryFrame, SurvivesAPositionThatIsMovedBetweenTwoPieces) {
  const std::string& stream = GetParam().stream;
  const uint64_t positions[] = {0,  1,  2,  3,  7,   8,   9,     11,         12,
                                13, 20, 30, 99, 307, 308, 70000, 1ULL << 40, std::numeric_limits<uint64_t>::max()};
  const vorn_test::LimitAllocations limit(1 << 20);  // a header made of other bytes may announce gigabytes
  for (const size_t cut : vorn_test::cuts(stream.size())) {
    for (const uint64_t pos : positions) {
      PacketFrameIn moved;
      moved.reset();
      feed(moved, stream.substr(0, cut));
      moved.set_pos(pos);
      try {
        const uint64_t rest = stream.size() - cut;
        ASSERT_LE(moved.assemble(stream.data() + cut, rest, 0), rest);
      } catch (const VORN::VornRuntimeError& e) {
        ASSERT_TRUE(e.what() == std::string(INSIDE_HEADER) || e.what() == std::string(EXCESS)) << e.what();
      } catch (const std::bad_alloc&) {
      } catch (const std::length_error&) {
        ASSERT_TRUE(no_string_holds_frame_of(PacketFrameIn::PF8_MAX_DATA_LEN));
      }
      moved.payload_start();
      moved.index_within_payload(pos);
      moved.reset();
      ASSERT_EQ(GetParam().consumed, moved.assemble(stream.data(), stream.size(), 0));
      expect_state(GetParam(), moved);
      if (HasFailure()) FAIL() << "cut " << cut << ", position " << pos;
    }
    if (stream.size() > 1000 && cut > 20) break;
  }
}

TEST(PacketFrameIn, ConsumesNothingBeforeItsFirstReset) {
  PacketFrameIn frame;
  EXPECT_EQ(0U, feed_hex(frame, "A5 01 00 07 00 00 00 02 41 42"));
  EXPECT_FALSE(frame.have_complete_frame());
  EXPECT_FALSE(frame.is_error());
  EXPECT_EQ(nullptr, frame.error_message());
  EXPECT_EQ(0U, frame.seq());
  EXPECT_EQ(0U, frame.data_len());
  EXPECT_EQ(0U, frame.pos());
  EXPECT_EQ("", frame.data());
  EXPECT_EQ(8U, frame.payload_start());
  EXPECT_EQ(8U, frame.payload_end());
  EXPECT_EQ(0x7FFFFFFFU, frame.soft_limit());
}

TEST(PacketFrameIn, TakesTwoFramesFromOneChunk) {
  const std::string chunk = from_hex("00 A5 01 00 01 00 00 00 01 61 A5 00 00 02 00 00 01 DE AD BE EF 5A 62 63");
  PacketFrameIn frame;
  frame.reset();
  EXPECT_EQ(10U, frame.assemble(chunk.data(), chunk.size(), 0));
  EXPECT_EQ(1U, frame.seq());
  frame.reset();
  EXPECT_EQ(13U, frame.assemble(chunk.data(), chunk.size(), 10));
  EXPECT_EQ(2U, frame.seq());
  EXPECT_EQ(12U, frame.payload_start());
  EXPECT_EQ('b', frame.data()[12]);
  frame.reset();
  EXPECT_EQ(1U, frame.assemble(chunk.data(), chunk.size(), 23));
  EXPECT_FALSE(frame.have_complete_frame());
}

TEST(PacketFrameIn, AnEmptyFrameCompletesWithTheLastByteOfItsHeader) {
  PacketFrameIn frame;
  frame.reset();
  EXPECT_EQ(7U, feed_hex(frame, "A5 01 00 00 00 00 00"));
  EXPECT_FALSE(frame.have_complete_frame());
  EXPECT_EQ(1U, feed_hex(frame, "00"));
  EXPECT_TRUE(frame.have_complete_frame());
}

TEST(PacketFrameIn, APayloadCheckFailsOnlyWithTheLastByteOfThePayload) {
  PacketFrameIn frame;
  frame.reset();
  EXPECT_EQ(13U, feed_hex(frame, "A5 00 12 34 00 00 02 DE AD BE EE 5A 41"));
  EXPECT_FALSE(frame.is_error());
  EXPECT_EQ(1U, feed_hex(frame, "42"));
  EXPECT_TRUE(frame.is_error());
  EXPECT_STREQ("Bad Payload Data CRC", frame.error_message());
}

TEST(PacketFrameIn, TheReadableRangeIsThePayloadAndNotWhatIsStoredBehindIt) {
  PacketFrameIn frame;
  frame.reset();
  feed_hex(frame, "A5 01 00 01 00 00 00 04 61 62 63 64");
  frame.reset();
  feed_hex(frame, "A5 01 00 02 00 00 00 01 65");
  EXPECT_EQ(12U, frame.data().size());
  EXPECT_FALSE(frame.index_within_payload(7));
  EXPECT_TRUE(frame.index_within_payload(8));
  EXPECT_FALSE(frame.index_within_payload(9));
}

// A frame over the soft limit allocates nothing for its payload.
TEST(PacketFrameIn, AnAnnouncedPayloadThatIsNotStoredCannotBeRead) {
  PacketFrameIn frame;
  frame.reset();
  feed_hex(frame, "A5 01 00 01 80 00 00 00");
  ASSERT_TRUE(frame.is_error());
  EXPECT_EQ(8U + 0x80000000U, frame.payload_end());
  EXPECT_EQ(8U, frame.data().size());
  EXPECT_FALSE(frame.index_within_payload(8));
  EXPECT_FALSE(frame.index_within_payload(1000));
}

// The header's length is known from its second byte on; bytes of an earlier frame do not count.
TEST(PacketFrameIn, ThePayloadRangeWhileTheHeaderArrives) {
  for (const bool used_before : {false, true}) {
    PacketFrameIn frame;
    frame.reset();
    if (used_before) feed_hex(frame, "A5 00 00 01 00 00 02 DE AD BE EF 5A 41 42");
    frame.reset();
    EXPECT_EQ(8U, frame.payload_start());
    EXPECT_EQ(8U, frame.payload_end());
    EXPECT_EQ(0U, frame.payload_size());
    feed_hex(frame, "FF A5");
    EXPECT_EQ(8U, frame.payload_start());
    feed_hex(frame, "00");
    EXPECT_EQ(12U, frame.payload_start());
    EXPECT_EQ(12U, frame.payload_end());
    feed_hex(frame, "00 02 00 00");
    EXPECT_EQ(0U, frame.payload_size());
    feed_hex(frame, "03 DE AD BE EF 5A");
    EXPECT_EQ(3U, frame.payload_size());
    EXPECT_EQ(15U, frame.payload_end());
  }
}

TEST(PacketFrameIn, ReadingACompleteFrameMayMoveThePosition) {
  PacketFrameIn frame;
  frame.reset();
  feed_hex(frame, "A5 00 00 01 00 00 02 DE AD BE EF 5A 41 42");
  for (const uint64_t pos : {0U, 1U, 2U, 12U, 13U, 14U, 100U}) {
    frame.set_pos(pos);
    EXPECT_EQ(12U, frame.payload_start());
    EXPECT_EQ(14U, frame.payload_end());
    EXPECT_EQ(0U, feed_hex(frame, "43"));
    EXPECT_TRUE(frame.have_complete_frame());
  }
}

TEST(PacketFrameIn, APositionInsideTheHeaderIsRefusedAndTheFrameKeepsItsState) {
  PacketFrameIn frame;
  frame.reset();
  feed_hex(frame, "A5 01 00 07 00 00 00 02 41");
  for (uint64_t pos = 0; pos < 8; ++pos) {
    frame.set_pos(pos);
    EXPECT_EQ(INSIDE_HEADER, what_of_feeding(frame, "B"));
    EXPECT_EQ(pos, frame.pos());
    EXPECT_FALSE(frame.is_error());
  }
  frame.set_pos(9);
  EXPECT_EQ(1U, feed(frame, "B"));
  EXPECT_TRUE(frame.have_complete_frame());
  EXPECT_EQ("AB", frame.data().substr(8));
}

TEST(PacketFrameIn, APositionBehindThePayloadIsRefusedAndTheFrameKeepsItsState) {
  PacketFrameIn frame;
  frame.reset();
  feed_hex(frame, "A5 00 00 07 00 00 02 DE AD BE EF 5A 41");
  for (const uint64_t pos : {uint64_t{15}, uint64_t{70000}, uint64_t{1} << 40, std::numeric_limits<uint64_t>::max()}) {
    frame.set_pos(pos);
    EXPECT_EQ(EXCESS, what_of_feeding(frame, "B"));
    EXPECT_EQ(pos, frame.pos());
    EXPECT_FALSE(frame.is_error());
  }
  frame.set_pos(14);  // all there, as far as the position tells
  EXPECT_EQ(0U, feed(frame, "B"));
  EXPECT_TRUE(frame.have_complete_frame());
}

TEST(PacketFrameIn, APositionMovedBehindAHeaderThatIsNotStoredIsRefused) {
  for (const uint64_t pos : {uint64_t{8}, uint64_t{20}, uint64_t{1} << 40}) {
    PacketFrameIn frame;
    frame.reset();
    feed_hex(frame, "A5");
    frame.set_pos(pos);
    const std::string text = what_of_feeding(frame, "abc");
    EXPECT_TRUE(text == INSIDE_HEADER || text == EXCESS) << text;
    EXPECT_LE(frame.data().size(), 12U);
  }
}

TEST(PacketFrameIn, ALengthUpToTheSoftLimitIsGivenRoom) {
  const vorn_test::LimitAllocations limit(1 << 20);
  for (const uint32_t data_len : {0x200000U, 0x3FFFFFF6U, 0x3FFFFFF7U, 0x3FFFFFFFU, 0x40000000U, 0x7FFFFFF7U,
                                  0x7FFFFFF8U, 0x7FFFFFFEU, 0x7FFFFFFFU}) {
    SCOPED_TRACE(data_len);
    PacketFrameIn frame;
    frame.reset();
    for (const std::string& bytes : {header_of(data_len) + "A", std::string("A")}) {  // the frame keeps its state
      if (no_string_holds_frame_of(data_len)) {
        EXPECT_THROW(feed(frame, bytes), std::length_error);
      } else {
        EXPECT_THROW(feed(frame, bytes), std::bad_alloc);
      }
      EXPECT_EQ(8U, frame.pos());
      EXPECT_EQ(header_of(data_len), frame.data());
      EXPECT_FALSE(frame.is_error());
      EXPECT_FALSE(frame.have_complete_frame());
      EXPECT_EQ(nullptr, frame.error_message());
    }
    EXPECT_EQ(data_len, frame.data_len());
    frame.reset();
    EXPECT_EQ(9U, feed_hex(frame, "A5 01 00 01 00 00 00 01 41"));
    EXPECT_TRUE(frame.have_complete_frame());
  }
}

TEST(PacketFrameIn, ALengthBeyondTheSoftLimitIsGivenNone) {
  const vorn_test::LimitAllocations limit(1 << 20);
  for (const uint32_t data_len : {0x80000000U, 0x80000001U, 0xFFFFFFF7U, 0xFFFFFFF8U, 0xFFFFFFFFU}) {
    PacketFrameIn frame;
    frame.reset();
    EXPECT_EQ(8U, feed(frame, header_of(data_len) + "A"));
    EXPECT_STREQ("Payload size exceeds soft limit", frame.error_message());
    EXPECT_EQ(header_of(data_len), frame.data());
    EXPECT_EQ(8 + uint64_t{data_len}, frame.payload_end());
    for (const uint64_t i : {uint64_t{8}, uint64_t{data_len}, uint64_t{data_len} + 7}) {
      EXPECT_FALSE(frame.index_within_payload(i));
    }
  }
}

TEST(PacketFrameIn, GoesOnWhenThereIsMemoryAgain) {
  PacketFrameIn frame;
  frame.reset();
  const std::string header = from_hex("A5 01 00 01 00 01 11 70");
  {
    const vorn_test::FailAllocation fail(1);
    EXPECT_THROW(frame.assemble(header.data(), header.size(), 0), std::bad_alloc);
    EXPECT_TRUE(fail.failed());
  }
  EXPECT_EQ(8U, frame.pos());
  EXPECT_EQ(70000U, feed(frame, std::string(70001, 'p')));
  EXPECT_TRUE(frame.have_complete_frame());
}

TEST(PacketFrameIn, RoomIsMadeOncePerFrameAndKept) {
  PacketFrameIn frame;
  frame.reset();
  const std::string header = from_hex("A5 01 00 01 00 01 11 70");
  const std::string payload(70000, 'p');
  for (const uint64_t expected : {1U, 0U, 0U}) {
    const vorn_test::AllocationCount allocations;
    frame.reset();
    frame.assemble(header.data(), header.size(), 0);
    for (size_t at = 0; at < payload.size(); at += 1000) frame.assemble(payload.data() + at, 1000, 0);
    EXPECT_TRUE(frame.have_complete_frame());
    EXPECT_EQ(expected, allocations.count());
  }
}

TEST(PacketFrameIn, TakesMemoryOfTheFramesSize) {
  PacketFrameIn frame(0);
  frame.reset();
  EXPECT_EQ(8U + 1000U, feed(frame, header_of(1000) + std::string(1000, 'p')));
  EXPECT_TRUE(frame.have_complete_frame());
  EXPECT_LT(frame.capacity(), 1100U);
}

TEST(PacketFrameIn, StorageNeverShrinksAndHoldsTheAnnouncedPayloadAtOnce) {
  PacketFrameIn frame;
  frame.reset();
  feed_hex(frame, "A5 01 00 01 00 00 00 04");
  EXPECT_EQ(std::string(4, '\0'), frame.data().substr(8));
  feed(frame, "abcd");
  frame.reset();
  feed_hex(frame, "A5 01 00 02 00 00 00 01");
  EXPECT_EQ(12U, frame.data().size());
}

TEST(PacketFrameIn, IsDestroyedThroughItsBase) {
  const int64_t before = vorn_test::live_allocations();
  PacketBuf* const buf = new PacketFrameIn;
  delete buf;
  EXPECT_EQ(before, vorn_test::live_allocations());
}

}  // namespace
