#include "tools/inspect/json_value.h"

#include <string>

#include <gtest/gtest.h>

#include "test/support/hex.h"

namespace {

using vorn_inspect::is_utf8;
using vorn_test::from_hex;

std::string json_of(const std::string& hex) {
  VORN::PROTO::PacketBuf buf;
  const std::string bytes = from_hex(hex);
  buf.write_bytes(bytes.data(), bytes.size());
  buf.reset();
  VORN::VObject value;
  VORN::VObject::deserialize(buf, bytes.size(), value, true, 64);
  return vorn_inspect::JsonConverter().convert(value).dump();
}

TEST(JsonValue, ShowsScalars) {
  EXPECT_EQ("null", json_of("00"));
  EXPECT_EQ("false", json_of("01"));
  EXPECT_EQ("true", json_of("02"));
  EXPECT_EQ("-1", json_of("C1"));
  EXPECT_EQ("9223372036854775807", json_of("BF (8:FF) 03"));
  EXPECT_EQ("-9223372036854775808", json_of("E0 (8:80) 04"));
}

TEST(JsonValue, KeepsDoublesApartFromIntegers) {
  EXPECT_EQ("1.0", json_of("04 3F F0 00 00 00 00 00 00"));
  EXPECT_EQ("-0.0", json_of("04 80 00 00 00 00 00 00 00"));
  EXPECT_EQ("0.1", json_of("04 3F B9 99 99 99 99 99 9A"));
  EXPECT_EQ("1.5", json_of("03 3F C0 00 00"));
  EXPECT_EQ("{\"$double\":\"7ff0000000000000\"}", json_of("04 7F F0 00 00 00 00 00 00"));
  EXPECT_EQ("{\"$double\":\"7ff8000000000001\"}", json_of("04 7F F8 00 00 00 00 00 01"));
}

TEST(JsonValue, LosesNoByteOfAString) {
  EXPECT_EQ("\"\\u0000a\\\"\"", json_of("05 03 00 61 22"));
  EXPECT_EQ("\"\xC3\xA4\"", json_of("07 02 C3 A4"));
  EXPECT_EQ("{\"$bytes\":\"c3\"}", json_of("07 01 C3"));
  EXPECT_EQ("\"sym\"", json_of("06 03 73 79 6D"));
}

TEST(JsonValue, ShowsContainers) {
  EXPECT_EQ("[]", json_of("0A 0B"));
  EXPECT_EQ("{}", json_of("08 09"));
  EXPECT_EQ("{\"a\":[1,{}],\"b\":null}", json_of("08 05 01 62 00 05 01 61 0A 81 08 09 0B 09"));
}

TEST(JsonValue, CannotBeMisledByKeys) {
  EXPECT_EQ("{\"$hash\":[[\"$bytes\",1]]}", json_of("08 05 06 24 62 79 74 65 73 81 09"));
  EXPECT_EQ("{\"$hash\":[[\"a\",1],[{\"$bytes\":\"ff\"},2]]}", json_of("08 05 01 61 81 05 01 FF 82 09"));
}

TEST(JsonValue, KnowsUtf8) {
  for (const char* const hex : {"-", "7F", "C2 80", "DF BF", "E0 A0 80", "ED 9F BF", "EE 80 80", "EF BF BF",
                                "F0 90 80 80", "F4 8F BF BF", "61 C3 A4 62"}) {
    EXPECT_TRUE(is_utf8(from_hex(hex))) << hex;
  }
  for (const char* const hex :
       {"80", "BF", "C0 80", "C1 BF", "C2", "C2 7F", "C2 C0", "E0 9F BF", "ED A0 80", "E1 80", "E1 80 C0",
        "F0 8F BF BF", "F4 90 80 80", "F5 80 80 80", "F1 80 80", "FF", "61 C3"}) {
    EXPECT_FALSE(is_utf8(from_hex(hex))) << hex;
  }
}

// What is_utf8() passes, the JSON library must not refuse.
TEST(JsonValue, AgreesWithTheJsonLibraryAboutUtf8) {
  const auto accepted = [](const std::string& bytes) {
    try {
      nlohmann::json(bytes).dump();
      return true;
    } catch (const nlohmann::json::exception&) {
      return false;
    }
  };
  for (unsigned first = 0; first < 256; ++first) {
    for (unsigned second = 0; second < 256; ++second) {
      for (const char* const rest : {"", "\x80", "\x80\x80", "\xBF\x41"}) {
        const std::string bytes = std::string{static_cast<char>(first), static_cast<char>(second)} + rest;
        ASSERT_EQ(accepted(bytes), is_utf8(bytes)) << vorn_test::to_hex(bytes);
      }
    }
  }
}

}  // namespace
