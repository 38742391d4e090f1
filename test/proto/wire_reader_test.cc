#include "proto/wire_reader.h"

#include <cmath>
#include <limits>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "proto/packet_frame_in.h"
#include "proto/wire_writer.h"
#include "test/support/buffers.h"
#include "test/support/hex.h"
#include "test/support/poisoned_tail.h"
#include "test/support/vectors.h"

namespace {

using namespace VORN::PROTO;
using vorn_test::from_hex;

int64_t read_back(int64_t value) {
  PacketBuf buf;
  write_int(buf, value);
  buf.set_pos(0);
  const vorn_test::PoisonedTail tail(buf);
  WireReader in(buf);
  int64_t out = 0;
  EXPECT_TRUE(in.read_int(out)) << value;
  EXPECT_EQ(buf.data().size(), in.pos()) << value;
  return out;
}

TEST(WireReader, EveryIntegerSurvivesWritingAndReading) {
  std::mt19937_64 random(1);
  for (unsigned shift = 0; shift < 64; ++shift) {
    for (const uint64_t delta : {~uint64_t{0}, uint64_t{0}, uint64_t{1}}) {
      const uint64_t magnitude = (uint64_t{1} << shift) + delta;
      for (const uint64_t bits : {magnitude, 0 - magnitude}) {
        const auto value = static_cast<int64_t>(bits);
        ASSERT_EQ(value, read_back(value));
      }
    }
    for (int i = 0; i < 200; ++i) {
      const auto value = static_cast<int64_t>(random()) >> shift;
      ASSERT_EQ(value, read_back(value));
    }
  }
  EXPECT_EQ(INT64_MIN, read_back(INT64_MIN));
  EXPECT_EQ(INT64_MAX, read_back(INT64_MAX));
}

TEST(WireReader, IntegersOfTheTable) {
  int rows = 0;
  for (const auto& vector : vorn_test::value_vectors()) {
    if (vector.variant.find_first_not_of("-0123456789") != std::string::npos) continue;
    SCOPED_TRACE(vector.name);
    PacketBuf buf;
    vorn_test::fill(buf, vector.bytes);
    WireReader in(buf);
    int64_t value = 0;
    EXPECT_TRUE(in.read_int(value));
    EXPECT_EQ(std::stoll(vector.variant), value);
    EXPECT_EQ(vector.bytes.size(), in.pos());
    ++rows;
  }
  EXPECT_GE(rows, 40);
}

TEST(WireReader, VarintsOfTheTable) {
  for (const auto& vector : vorn_test::varint_vectors()) {
    SCOPED_TRACE(vector.name);
    const VarintShape shape{vector.first_byte_bits, vector.is_signed};
    PacketBuf buf;
    vorn_test::fill(buf, vector.bytes);
    uint64_t magnitude = 0;
    bool negative = false;
    {
      const vorn_test::PoisonedTail tail(buf);
      WireReader in(buf);
      EXPECT_TRUE(in.read_varint(shape, magnitude, negative));
      EXPECT_EQ(vector.magnitude, magnitude);
      EXPECT_EQ(vector.negative, negative);
      EXPECT_EQ(vector.bytes.size(), in.pos());
    }
    for (size_t cut = 0; cut < vector.bytes.size(); ++cut) {
      PacketBuf shorter;
      vorn_test::fill(shorter, vector.bytes.substr(0, cut));
      const vorn_test::PoisonedTail tail(shorter);
      WireReader in(shorter);
      magnitude = 1;
      EXPECT_FALSE(in.read_varint(shape, magnitude, negative));
      EXPECT_EQ(0U, magnitude);
      EXPECT_EQ(cut, in.pos()) << "behind the last byte that was consumed";
    }
  }
}

TEST(WireReader, LengthsKeepTheirLow32Bits) {
  const struct {
    const char* hex;
    uint32_t length;
  } rows[] = {{"00", 0},
              {"7F", 127},
              {"80 01", 128},
              {"FF FF FF FF 0F", 0xFFFFFFFF},
              {"81 80 80 80 10", 1},
              {"(9:FF) 01", 0xFFFFFFFF},
              {"(9:80) 01", 0}};
  for (const auto& row : rows) {
    PacketBuf buf;
    vorn_test::fill(buf, from_hex(row.hex));
    WireReader in(buf);
    uint32_t length = 77;
    EXPECT_TRUE(in.read_length(length)) << row.hex;
    EXPECT_EQ(row.length, length) << row.hex;
    EXPECT_FALSE(in.read_length(length)) << "nothing is left";
    EXPECT_EQ(0U, length);
  }
}

TEST(WireReader, FloatsAndDoubles) {
  PacketBuf buf;
  write_float(buf, 1.5F);
  write_double(buf, -0.1);
  write_float(buf, -std::numeric_limits<float>::infinity());
  write_double(buf, std::nan(""));
  buf.set_pos(0);
  WireReader in(buf);
  float f = 0;
  double d = 0;
  in.skip(1);
  EXPECT_TRUE(in.read_float(f));
  EXPECT_EQ(1.5F, f);
  in.skip(1);
  EXPECT_TRUE(in.read_double(d));
  EXPECT_EQ(-0.1, d);
  in.skip(1);
  EXPECT_TRUE(in.read_float(f));
  EXPECT_EQ(-std::numeric_limits<float>::infinity(), f);
  in.skip(1);
  EXPECT_TRUE(in.read_double(d));
  EXPECT_TRUE(std::isnan(d));
  EXPECT_FALSE(in.readable());
}

TEST(WireReader, AFloatThatDoesNotFitLeavesThePositionWhereItWas) {
  for (size_t size = 0; size < 8; ++size) {
    PacketBuf buf;
    vorn_test::fill(buf, std::string(size, '\x40'));
    const vorn_test::PoisonedTail tail(buf);
    WireReader in(buf);
    double d = 7;
    EXPECT_FALSE(in.read_double(d)) << size;
    EXPECT_EQ(0.0, d);
    EXPECT_FALSE(std::signbit(d));
    EXPECT_EQ(0U, in.pos());
    float f = 7;
    EXPECT_EQ(size >= 4, in.read_float(f)) << size;
    EXPECT_EQ(size >= 4 ? 3.00392151F : 0.0F, f);  // 40 40 40 40
    EXPECT_EQ(size >= 4 ? 4U : 0U, in.pos());
  }
}

// Running out of bytes leaves a defined number, wherever reading starts.
TEST(WireReader, WhatDoesNotFitIsZero) {
  PacketFrameIn frame;
  vorn_test::fill_frame(frame, from_hex("FF FF (6:FF) (8:FF)"), 2);
  for (const uint64_t pos : {uint64_t{0}, uint64_t{7}, uint64_t{8}, uint64_t{9}, uint64_t{10}, uint64_t{24},
                             uint64_t{1} << 32, std::numeric_limits<uint64_t>::max()}) {
    frame.set_pos(pos);
    int64_t n = 7;
    EXPECT_FALSE(WireReader(frame).read_int(n)) << pos;
    EXPECT_EQ(0, n) << pos;
    uint32_t length = 7;
    EXPECT_FALSE(WireReader(frame).read_length(length)) << pos;
    EXPECT_EQ(0U, length) << pos;
    for (const VarintShape shape : {INT_SHAPE, LENGTH_SHAPE}) {
      uint64_t magnitude = 7;
      bool negative;
      EXPECT_FALSE(WireReader(frame).read_varint(shape, magnitude, negative)) << pos;
      EXPECT_EQ(0U, magnitude) << pos;
    }
    float f = 7;
    EXPECT_FALSE(WireReader(frame).read_float(f)) << pos;
    EXPECT_EQ(0.0F, f) << pos;
    double d = 7;
    EXPECT_FALSE(WireReader(frame).read_double(d)) << pos;
    EXPECT_EQ(0.0, d) << pos;
  }
}

TEST(WireReader, NothingIsReadBehindThePayload) {
  PacketFrameIn frame;
  vorn_test::fill_frame(frame, from_hex("40 (7:00)"), 3);
  WireReader in(frame);
  float f;
  EXPECT_EQ(11U, in.limit());
  EXPECT_EQ(16U, in.data_len());
  EXPECT_FALSE(in.read_float(f));
  EXPECT_EQ(8U, in.pos());
  in.skip(3);
  EXPECT_FALSE(in.readable());
  int64_t n;
  EXPECT_FALSE(in.read_int(n));
}

TEST(WireReader, NothingIsReadBeforeThePayload) {
  PacketFrameIn frame;
  vorn_test::fill_frame(frame, from_hex("80 81 82 83"), 4);
  for (uint64_t pos = 0; pos < 8; ++pos) {
    frame.set_pos(pos);
    WireReader in(frame);
    int64_t n;
    float f;
    EXPECT_FALSE(in.readable()) << pos;
    EXPECT_FALSE(in.read_int(n)) << pos;
    EXPECT_FALSE(in.read_float(f)) << pos;
    EXPECT_EQ(pos, in.pos());
  }
}

TEST(WireReader, NothingIsReadFarBehindTheEnd) {
  PacketBuf buf;
  vorn_test::fill(buf, "abc");
  for (const uint64_t pos : {uint64_t{3}, uint64_t{4}, uint64_t{1} << 40, std::numeric_limits<uint64_t>::max()}) {
    buf.set_pos(pos);
    WireReader in(buf);
    int64_t n;
    double d;
    EXPECT_FALSE(in.readable());
    EXPECT_FALSE(in.read_int(n));
    EXPECT_FALSE(in.read_double(d));
    EXPECT_EQ(pos, in.pos());
  }
}

// A frame that failed its soft limit announces more than is stored.
TEST(WireReader, APayloadThatIsNotStoredCannotBeRead) {
  PacketFrameIn frame;
  frame.reset();
  const std::string stream = from_hex("A5 01 00 01 FF FF FF FF");
  frame.assemble(stream.data(), stream.size(), 0);
  ASSERT_TRUE(frame.is_error());
  EXPECT_EQ(uint64_t{8} + 0xFFFFFFFF, frame.payload_end());
  frame.set_pos(8);
  EXPECT_FALSE(WireReader(frame).readable());
}

TEST(WireReader, TheBufferMovesWithCommitOnly) {
  PacketBuf buf;
  vorn_test::fill(buf, from_hex("80 81 61"));
  WireReader in(buf);
  int64_t n;
  EXPECT_TRUE(in.read_int(n));
  EXPECT_TRUE(in.read_int(n));
  EXPECT_EQ(1, n);
  EXPECT_EQ('a', *in.bytes());
  EXPECT_EQ('a', in.peek());
  EXPECT_EQ(0U, buf.pos());
  in.commit(buf);
  EXPECT_EQ(2U, buf.pos());
}

TEST(WireReader, ResyncFollowsABufferThatGrew) {
  PacketBuf buf;
  vorn_test::fill(buf, from_hex("80 81"));
  WireReader in(buf);
  int64_t n;
  EXPECT_TRUE(in.read_int(n));
  buf.set_pos(2);
  const std::string more(2 * PacketBuf::INITIAL_CAPACITY, '\x82');
  buf.write_bytes(more.data(), more.size());
  in.resync(buf);
  EXPECT_EQ(1U, in.pos()) << "reading goes on where it stood";
  EXPECT_EQ(buf.data().size(), in.limit());
  EXPECT_TRUE(in.read_int(n));
  EXPECT_EQ(1, n);
  EXPECT_TRUE(in.read_int(n));
  EXPECT_EQ(2, n);
}

TEST(WireReader, ResyncOfAnUnchangedBufferChangesNothing) {
  PacketBuf buf;
  vorn_test::fill(buf, from_hex("80 81"));
  WireReader in(buf);
  in.skip(1);
  buf.set_pos(2);
  in.resync(buf);
  EXPECT_EQ(1U, in.pos());
  EXPECT_EQ(2U, in.limit());
  EXPECT_EQ(0x81, in.peek());
}

TEST(WireReader, ResyncSeesBytesThatWereAddedInPlace) {
  PacketBuf buf;
  vorn_test::fill(buf, from_hex("80"));
  WireReader in(buf);
  buf.set_pos(1);
  buf.write_byte(0x82);
  EXPECT_EQ(1U, in.limit());
  in.resync(buf);
  EXPECT_EQ(2U, in.limit());
  EXPECT_EQ(2U, in.data_len());
  in.skip(1);
  int64_t n = 0;
  EXPECT_TRUE(in.read_int(n));
  EXPECT_EQ(2, n);
}

#ifndef NDEBUG

TEST(WireReaderDeathTest, LooksAtBytesThatAreThere) {
  PacketBuf buf;
  buf.write_byte(7);
  buf.set_pos(0);
  WireReader in(buf);
  EXPECT_EQ(7, in.peek());
  in.skip(1);
  EXPECT_DEATH(in.peek(), "readable");
  in.bytes();
  in.skip(1);
  EXPECT_DEATH(in.bytes(), "data_len_");
}

#endif

}  // namespace
