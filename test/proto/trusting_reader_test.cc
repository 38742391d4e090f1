#include "proto/trusting_reader.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "proto/packet_frame_in.h"
#include "proto/transport_type.h"
#include "test/support/buffers.h"
#include "test/support/hex.h"
#include "test/support/poisoned_tail.h"

namespace {

using namespace VORN::PROTO;
using vorn_test::from_hex;

TEST(TrustingReader, ReadsWhatAWireReaderReads) {
  const std::string bytes = from_hex(
      "80 C1 9F A0 01 E0 80 80 80 80 80 80 80 80 04 BF FF FF FF FF FF FF FF FF 03 A0 80 80 80 80 80 80 80 80 80 08");
  PacketBuf buf;
  vorn_test::fill(buf, bytes);
  WireReader checked(buf);
  TrustingReader in(checked);
  while (checked.readable()) {
    int64_t expected = -1;
    int64_t value = -2;
    ASSERT_TRUE(checked.read_int(expected));
    EXPECT_TRUE(in.readable());
    EXPECT_TRUE(in.read_int(value));
    EXPECT_EQ(expected, value);
    in.commit(buf);
    EXPECT_EQ(checked.pos(), buf.pos());
  }
  EXPECT_FALSE(in.has(1));
}

TEST(TrustingReader, ReadsLengthsFloatsAndBytes) {
  PacketBuf buf;
  vorn_test::fill(buf, from_hex("00 83 80 80 80 10 3F C0 00 00 BF F8 00 00 00 00 00 00 61 62"));
  const vorn_test::PoisonedTail tail(buf);
  TrustingReader in{WireReader(buf)};
  uint32_t length = 1;
  float single;
  double twice;
  EXPECT_TRUE(in.read_length(length));
  EXPECT_EQ(0U, length);
  EXPECT_TRUE(in.read_length(length));
  EXPECT_EQ(3U, length) << "the low 32 bits";
  EXPECT_TRUE(in.read_float(single));
  EXPECT_EQ(1.5F, single);
  EXPECT_TRUE(in.read_double(twice));
  EXPECT_EQ(-1.5, twice);
  EXPECT_EQ('a', in.peek());
  in.resync(buf);
  EXPECT_EQ("ab", std::string(in.bytes(), 2));
  in.skip(2);
  in.commit(buf);
  EXPECT_EQ(buf.data().size(), buf.pos());
}

TEST(TrustingReader, StartsInsideOfAFrame) {
  PacketFrameIn frame;
  vorn_test::fill_frame(frame, from_hex("81 82"), 2);
  frame.set_pos(9);
  TrustingReader in{WireReader(frame)};
  int64_t value;
  EXPECT_TRUE(in.read_int(value));
  EXPECT_EQ(2, value);
  in.commit(frame);
  EXPECT_EQ(10U, frame.pos());
}

#ifndef NDEBUG

TEST(TrustingReaderDeathTest, IsWatchedWhereContractsAreAsserted) {
  PacketBuf buf;
  vorn_test::fill(buf, from_hex("A0"));
  TrustingReader in{WireReader(buf)};
  int64_t value;
  double number;
  EXPECT_DEATH(in.read_int(value), "has");
  EXPECT_DEATH(in.read_double(number), "has");
  EXPECT_DEATH(in.skip(2), "has");
  in.skip(1);
  EXPECT_DEATH(in.peek(), "has");
  EXPECT_DEATH(in.readable(), "has");
  vorn_test::fill(buf, std::string(100000, 'x'));
  EXPECT_DEATH(in.resync(buf), "base_");
}

#endif

}  // namespace
