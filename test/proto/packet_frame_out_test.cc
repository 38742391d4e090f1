#include "proto/packet_frame_out.h"

#include <limits>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "proto/vorn_proto_exception.h"
#include "proto/vorn_runtime_error.h"
#include "test/support/allocations.h"
#include "test/support/hex.h"
#include "test/support/vectors.h"

namespace {

using namespace VORN::PROTO;
using vorn_test::to_hex;

// The frame as it would be sent.
std::string sent(const PacketFrameOut& frame) {
  return to_hex(frame.data().substr(0, frame.pos()));
}

template <typename Exception>
std::string what_of(PacketFrameOut& frame) {
  try {
    frame.compute_frame_header();
  } catch (const Exception& e) {
    static_assert(!std::is_same<Exception, VORN::VornException>::value, "ask for the very class");
    return e.what();
  }
  return "nothing was thrown";
}

TEST(PacketFrameOut, StartsWithTheEightByteLayoutAtPositionZero) {
  const PacketFrameOut frame;
  EXPECT_EQ(0U, frame.pos());
  EXPECT_EQ(0U, frame.next_seq());
  EXPECT_FALSE(frame.using_12byte_header());
  EXPECT_EQ(8U, frame.configured_header_len());
  EXPECT_EQ(2147483647U, frame.configured_max_data_len());
}

TEST(PacketFrameOut, TheFlagChoosesTheLayoutAndMovesNothing) {
  PacketFrameOut frame;
  frame.set_use_12byte_header(true);
  EXPECT_TRUE(frame.using_12byte_header());
  EXPECT_EQ(12U, frame.configured_header_len());
  EXPECT_EQ(16777215U, frame.configured_max_data_len());
  EXPECT_EQ(0U, frame.pos());
  frame.set_use_12byte_header(false);
  EXPECT_EQ(8U, frame.configured_header_len());
}

TEST(PacketFrameOut, ResetMovesPastTheHeaderAndKeepsTheBytes) {
  PacketFrameOut frame;
  frame.write_bytes("0123456789abcdef", 16);
  PacketBuf& buf = frame;
  EXPECT_EQ(8U, buf.reset());
  EXPECT_EQ(8U, frame.pos());
  frame.set_use_12byte_header(true);
  EXPECT_EQ(12U, buf.reset());
  EXPECT_EQ(12U, frame.pos());
  EXPECT_EQ("0123456789abcdef", frame.data());
}

TEST(PacketFrameOut, ThePayloadRangeIsTheWholeBuffer) {
  PacketFrameOut frame;
  frame.reset();
  EXPECT_EQ(0U, frame.payload_size());
  frame.write_byte(0x61);
  EXPECT_EQ(0U, frame.payload_start());
  EXPECT_EQ(9U, frame.payload_end());
  EXPECT_EQ(9U, frame.payload_size());
  EXPECT_TRUE(frame.index_within_payload(0));
}

TEST(PacketFrameOut, TheSequenceNumberWraps) {
  PacketFrameOut frame;
  frame.inc_seq();
  EXPECT_EQ(1U, frame.next_seq());
  frame.set_next_seq(65535);
  EXPECT_EQ(65535U, frame.next_seq());
  frame.inc_seq();
  EXPECT_EQ(0U, frame.next_seq());
}

TEST(PacketFrameOut, WritesTheFramesOfTheTable) {
  int written = 0;
  for (const auto& vector : vorn_test::frame_vectors()) {
    if (!vector.is_written) continue;
    SCOPED_TRACE(vector.name);
    PacketFrameOut frame;
    frame.set_use_12byte_header(vector.layout == 12);
    frame.set_next_seq(vector.seq);
    frame.reset();
    frame.write_bytes(vector.payload.data(), vector.payload.size());
    frame.compute_frame_header();
    EXPECT_EQ(to_hex(vector.stream.substr(0, vector.consumed)), sent(frame));
    EXPECT_EQ(vector.seq, frame.next_seq());
    ++written;
  }
  EXPECT_GE(written, 10);
}

TEST(PacketFrameOut, IsUsedAgainAndAgain) {
  PacketFrameOut frame;
  frame.reset();
  frame.write_bytes("long payload", 12);
  frame.compute_frame_header();
  frame.inc_seq();
  frame.reset();
  frame.write_byte(0x80);
  frame.compute_frame_header();
  EXPECT_EQ("A5 01 00 01 00 00 00 01 80", sent(frame));
  frame.set_use_12byte_header(true);
  frame.inc_seq();
  frame.reset();
  frame.write_byte(0x81);
  frame.compute_frame_header();
  EXPECT_EQ("A5 00 00 02 00 00 01 DE AD BE EF 5A 81", sent(frame));
}

TEST(PacketFrameOut, WhatLiesBehindThePositionDoesNotCount) {
  PacketFrameOut frame;
  frame.reset();
  frame.write_bytes("abcdef", 6);
  frame.set_pos(10);
  frame.compute_frame_header();
  EXPECT_EQ("A5 01 00 00 00 00 00 02 61 62", sent(frame));
  EXPECT_EQ(14U, frame.data().size());
}

TEST(PacketFrameOut, ComputesTheHeaderAnewAfterMoreWasWritten) {
  PacketFrameOut frame;
  frame.reset();
  frame.write_byte(0x61);
  frame.compute_frame_header();
  frame.write_byte(0x62);
  frame.compute_frame_header();
  EXPECT_EQ("A5 01 00 00 00 00 00 02 61 62", sent(frame));
}

TEST(PacketFrameOut, APositionInsideTheHeaderIsRefused) {
  for (const bool twelve_bytes : {false, true}) {
    PacketFrameOut frame;
    frame.set_use_12byte_header(twelve_bytes);
    frame.write_bytes("0123456789abcdef", 16);
    for (uint64_t pos = 0; pos < frame.configured_header_len(); ++pos) {
      frame.set_pos(pos);
      EXPECT_EQ("PacketFrameOut::compute_frame_header: data pos inside header (negative data length)",
                what_of<VORN::VornRuntimeError>(frame));
      EXPECT_EQ(pos, frame.pos());
      EXPECT_EQ("0123456789abcdef", frame.data());
    }
    frame.set_pos(frame.configured_header_len());
    EXPECT_NO_THROW(frame.compute_frame_header());
  }
}

TEST(PacketFrameOut, TheLongestPayloadIsAcceptedAndOneMoreByteIsNot) {
  PacketFrameOut frame;
  frame.set_pos(8 + uint64_t{0x7FFFFFFF});
  frame.compute_frame_header();
  EXPECT_EQ("A5 01 00 00 7F FF FF FF", to_hex(frame.data()));
  EXPECT_EQ(8 + uint64_t{0x7FFFFFFF}, frame.pos());
  frame.set_pos(8 + uint64_t{0x80000000});
  EXPECT_EQ("PacketFrameOut::compute_frame_header: oversize: data_len 2147483648 > max 2147483647",
            what_of<VornProtoException>(frame));
  EXPECT_EQ(8 + uint64_t{0x80000000}, frame.pos());
  EXPECT_EQ("A5 01 00 00 7F FF FF FF", to_hex(frame.data()));
  frame.set_pos(std::numeric_limits<uint64_t>::max());
  EXPECT_EQ("PacketFrameOut::compute_frame_header: oversize: data_len 18446744073709551607 > max 2147483647",
            what_of<VornProtoException>(frame));
}

TEST(PacketFrameOut, TheLongestPayloadOfTheTwelveByteLayoutHasRealBytes) {
  PacketFrameOut frame;
  frame.set_use_12byte_header(true);
  frame.reset();
  const std::string payload(16777215, 'p');
  frame.write_bytes(payload.data(), payload.size());
  frame.compute_frame_header();
  EXPECT_EQ("A5 00 00 00 FF FF FF DE AD BE EF 5A 70", to_hex(frame.data().substr(0, 13)));
  EXPECT_EQ(12U + 16777215U, frame.pos());
  frame.write_byte('p');
  EXPECT_EQ("PacketFrameOut::compute_frame_header: oversize: data_len 16777216 > max 16777215",
            what_of<VornProtoException>(frame));
  EXPECT_EQ(12U + 16777216U, frame.pos());
}

TEST(PacketFrameOut, TheHeaderNeedsNoMemory) {
  PacketFrameOut usual;
  PacketFrameOut without_memory(0);
  for (PacketFrameOut* const frame : {&usual, &without_memory}) {
    frame->set_use_12byte_header(true);
    frame->reset();
    const vorn_test::AllocationCount allocations;
    frame->compute_frame_header();
    EXPECT_EQ(0U, allocations.count());
    EXPECT_EQ(12U, frame->data().size());
  }
}

TEST(PacketFrameOut, TakesMemoryOfTheFramesSize) {
  PacketFrameOut usual;
  PacketFrameOut frame(0);
  for (PacketFrameOut* const each : {&usual, &frame}) {
    each->reset();
    each->open_tail();
    each->write_bytes("the payload of the frame", 24);
    each->cut_tail();
    each->compute_frame_header();
  }
  EXPECT_EQ(sent(usual), sent(frame));
  EXPECT_GE(usual.capacity(), PacketBuf::INITIAL_CAPACITY);
  EXPECT_LT(frame.capacity(), 64U);
}

TEST(PacketFrameOut, IsDestroyedThroughItsBase) {
  const int64_t before = vorn_test::live_allocations();
  PacketBuf* const buf = new PacketFrameOut;
  delete buf;
  EXPECT_EQ(before, vorn_test::live_allocations());
}

}  // namespace
