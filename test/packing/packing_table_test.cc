// The table of packed values that both languages are held to.

#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include "packing/packing.h"
#include "proto/packet_buf.h"
#include "test/support/buffers.h"
#include "test/support/packing_notation.h"
#include "test/support/vectors.h"

using namespace VORN;
using namespace vorn_test;

namespace {

// Symbols come as strings, as by proto_extract_messages() and on streams.
VObject decoded(const std::string& bytes) {
  PROTO::PacketBuf buf;
  fill(buf, bytes);
  VObject value;
  VObject::deserialize(buf, bytes.size(), value, true, 64);
  EXPECT_EQ(bytes.size(), buf.pos());
  return value;
}

std::string encoded(const VObject& value) {
  PROTO::PacketBuf buf;
  value.serialize(buf, 64);
  return buf.data();
}

// What becomes of the bytes, in notation, or the error.
std::string meaning_of(const std::string& bytes) {
  VObject value;
  try {
    value = decoded(bytes);
  } catch (const VornRuntimeError& e) {
    EXPECT_STREQ("VObject::deserialize_hash: only hash keys of type string are supported", e.what());
    return "!hash_key";
  }
  try {
    return packing_notation_of(table_packing().unpack(value));
  } catch (const PACKING::UnknownType&) {
    return "!UnknownType";
  } catch (const PACKING::Malformed&) {
    return "!Malformed";
  }
}

class EveryPacking : public testing::TestWithParam<PackingVector> {};

TEST_P(EveryPacking, IsUnpackedAsTheTableSays) {
  EXPECT_EQ(GetParam().variant, meaning_of(GetParam().bytes));
}

// As far as C++ writes what it has read: its keys are binary.
TEST_P(EveryPacking, IsPackedSo) {
  if (GetParam().variant[0] == '!') return;
  const VObject value = decoded(GetParam().bytes);
  EXPECT_EQ(!GetParam().only_read, encoded(table_packing().pack(table_packing().unpack(value))) == encoded(value));
}

INSTANTIATE_TEST_SUITE_P(Table, EveryPacking, testing::ValuesIn(packing_vectors()), [](const auto& row) {
  std::string name;
  for (const char c : row.param.name) name += std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
  return name;
});

}  // namespace
