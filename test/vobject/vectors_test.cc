// The tables that both codecs are held to.

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "proto/packet_buf.h"
#include "proto/packet_frame_in.h"
#include "proto/vorn_runtime_error.h"
#include "test/support/buffers.h"
#include "test/support/hex.h"
#include "test/support/poisoned_tail.h"
#include "test/support/variant_notation.h"
#include "test/support/vectors.h"
#include "vobject/vobject.h"

namespace {

using VORN::VObject;
using VORN::VornRuntimeError;
using VORN::PROTO::PacketBuf;
using VORN::PROTO::PacketFrameIn;
using vorn_test::to_hex;

constexpr uint32_t MAXDEPTH = 64;

std::string message_of(const std::string& fault) {
  static const std::map<std::string, std::string> messages = {
      {"max_depth", "VObject::deserialize: maxdepth exceeded"},
      {"underrun", "VObject::deserialize: buffer underrun"},
      {"underrun_int", "VObject::deserialize: buffer underrun decoding integer"},
      {"underrun_length", "VObject::deserialize_str: buffer underrun decoding data length"},
      {"underrun_string", "VObject::deserialize_str: buffer underrun extracting data bytes"},
      {"underrun_float", "VObject::deserialize_float: buffer underrun"},
      {"underrun_double", "VObject::deserialize_double: buffer underrun"},
      {"underrun_hash", "VObject::deserialize_hash: buffer underrun"},
      {"underrun_array", "VObject::deserialize_array: buffer underrun"},
      {"hash_key", "VObject::deserialize_hash: only hash keys of type string are supported"},
      {"unknown_type", "VObject::deserialize: unrecognized protocol transport type"}};
  return messages.at(fault);
}

// Describes the next value, or its fault; moves the position.
std::string decoded(PacketBuf& buf, bool symbols_as_strings, uint32_t maxdepth = MAXDEPTH) {
  const vorn_test::PoisonedTail tail(buf);
  VObject value;
  try {
    VObject::deserialize(buf, buf.payload_end(), value, symbols_as_strings, maxdepth);
  } catch (const VornRuntimeError& e) {
    return e.what();
  }
  return vorn_test::notation_of(value);
}

std::string expected(const std::string& column) {
  return column[0] == '!' ? message_of(column.substr(1)) : column;
}

class EveryValue : public testing::TestWithParam<vorn_test::ValueVector> {};

INSTANTIATE_TEST_SUITE_P(Table, EveryValue, testing::ValuesIn(vorn_test::value_vectors()));

TEST_P(EveryValue, IsDecoded) {
  PacketBuf buf;
  vorn_test::fill(buf, GetParam().bytes + '\x0C');
  EXPECT_EQ(expected(GetParam().variant), decoded(buf, false));
  if (GetParam().variant[0] != '!') {
    EXPECT_EQ(GetParam().bytes.size(), buf.pos());
  }
  buf.set_pos(0);
  EXPECT_EQ(expected(GetParam().variant_as_strings), decoded(buf, true));
}

TEST_P(EveryValue, IsDecodedAtTheEndOfAPayload) {
  PacketFrameIn frame;
  vorn_test::fill_frame(frame, GetParam().bytes + '\x0C', GetParam().bytes.size());
  EXPECT_EQ(expected(GetParam().variant_as_strings), decoded(frame, true));
}

TEST_P(EveryValue, IsWrittenAsTheTableSays) {
  if (GetParam().variant[0] == '!') return;  // the variant refuses it
  PacketBuf buf;
  vorn_test::fill(buf, GetParam().bytes);
  VObject value;
  VObject::deserialize(buf, buf.payload_end(), value, false, MAXDEPTH);
  PacketBuf out;
  value.serialize(out, MAXDEPTH);
  EXPECT_EQ(to_hex(GetParam().variant_bytes), to_hex(out.data()));
}

TEST_P(EveryValue, CutShortIsAnUnderrun) {
  for (const size_t size : vorn_test::cuts(GetParam().bytes.size())) {
    for (const bool symbols_as_strings : {false, true}) {
      PacketBuf buf;
      vorn_test::fill(buf, GetParam().bytes.substr(0, size));
      const std::string what = decoded(buf, symbols_as_strings);
      // A key of the wrong kind comes before the end, where counting stepped over a string that is cut.
      if (what == message_of("hash_key")) continue;
      ASSERT_NE(std::string::npos, what.find(": buffer underrun")) << "cut to " << size << ": " << what;
    }
  }
}

// All bytes are stored, the payload ends too early: not even a string may run past its end.
TEST_P(EveryValue, BehindThePayloadsEndIsAnUnderrun) {
  for (const size_t size : vorn_test::cuts(GetParam().bytes.size())) {
    PacketFrameIn frame;
    vorn_test::fill_frame(frame, GetParam().bytes, size);
    const std::string what = decoded(frame, true);
    if (what == message_of("hash_key")) continue;
    ASSERT_NE(std::string::npos, what.find(": buffer underrun")) << "cut to " << size << ": " << what;
  }
}

class EveryFault : public testing::TestWithParam<vorn_test::FaultVector> {};

INSTANTIATE_TEST_SUITE_P(Table, EveryFault, testing::ValuesIn(vorn_test::fault_vectors()));

TEST_P(EveryFault, IsReportedAndStopsThere) {
  const auto& vector = GetParam();
  PacketBuf plain;
  PacketFrameIn frame;
  vorn_test::fill(plain, vector.bytes);
  if (!vector.plain_buffer) vorn_test::fill_frame(frame, vector.bytes, vector.payload);
  PacketBuf& buf = vector.plain_buffer ? plain : frame;
  const uint64_t start = buf.pos();
  const vorn_test::PoisonedTail tail(buf);
  const auto maxdepth = static_cast<uint32_t>(vector.maxdepth);
  VObject value;
  try {
    VObject::deserialize(buf, buf.payload_end(), value, false, maxdepth);
    EXPECT_EQ("none", vector.variant);
  } catch (const VornRuntimeError& e) {
    EXPECT_EQ(message_of(vector.variant), e.what());
  }
  EXPECT_EQ(vector.variant_pos, buf.pos() - start);
}

}  // namespace
