#include "tools/inspect/json_value.h"

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "test/support/hex.h"
#include "test/tools/written.h"

namespace {

using vorn_test::from_hex;

std::string json_of(const std::string& hex) {
  return vorn_test::written<vorn_inspect::JsonValueWriter>(from_hex(hex));
}

TEST(JsonValue, ShowsScalars) {
  EXPECT_EQ("null", json_of("00"));
  EXPECT_EQ("false", json_of("01"));
  EXPECT_EQ("true", json_of("02"));
  EXPECT_EQ("-1", json_of("C1"));
  EXPECT_EQ("9223372036854775807", json_of("BF (8:FF) 03"));
  EXPECT_EQ("-9223372036854775808", json_of("E0 (8:80) 04"));
}

TEST(JsonValue, DistinguishesDoublesFromIntegers) {
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

TEST(JsonValue, OrdersEntriesAndKeepsTheLastOfEqualKeys) {
  EXPECT_EQ("{\"\":1,\"a\":3,\"b\":4}", json_of("08 05 01 62 82 05 01 61 83 05 00 81 05 01 62 84 09"));
  EXPECT_EQ("{\"$hash\":[[\"$\",{\"a\":[{\"b\":2}]}],[\"c\",3]]}",
            json_of("08 05 01 63 83 05 01 24 08 05 01 61 0A 08 05 01 62 82 09 0B 09 09"));
}

// Enough entries that sorting reorders equal keys unless it compares their order too.
TEST(JsonValue, KeepsTheLastOfManyEqualKeys) {
  for (unsigned entries = 2; entries <= 32; entries += 2) {
    std::string bytes = "\x08";
    for (unsigned i = 0; i < entries; ++i) {
      bytes += {'\x05', '\x01', i % 2 == 0 ? 'b' : 'a', static_cast<char>(0x80 | i)};
    }
    EXPECT_EQ("{\"a\":" + std::to_string(entries - 1) + ",\"b\":" + std::to_string(entries - 2) + "}",
              vorn_test::written<vorn_inspect::JsonValueWriter>(bytes + "\x09"));
  }
}

TEST(JsonValue, EscapesTerminalControls) {
  EXPECT_EQ("\"\\b\\f\\n\\r\\t\\u001b\\\\\"", json_of("05 07 08 0C 0A 0D 09 1B 5C"));
  EXPECT_EQ("\"~\\u007f\\u0080\\u009b\\u009f\xC2\xA0\"", json_of("05 0A 7E 7F C2 80 C2 9B C2 9F C2 A0"));
  EXPECT_EQ("{\"\\u202e\":\"a\\u2066\"}", json_of("08 05 03 E2 80 AE 05 04 61 E2 81 A6 09"));
}

// Escaped text parses to the original, for every character of the basic plane and some above it.
TEST(JsonValue, ParsesToTheSameText) {
  for (unsigned c = 0; c < 0x11000; ++c) {
    if (c >= 0xD800 && c < 0xE000) continue;
    std::string bytes;
    if (c < 0x80) {
      bytes = {static_cast<char>(c)};
    } else if (c < 0x800) {
      bytes = {static_cast<char>(0xC0 | c >> 6), static_cast<char>(0x80 | (c & 0x3F))};
    } else if (c < 0x10000) {
      bytes = {static_cast<char>(0xE0 | c >> 12), static_cast<char>(0x80 | (c >> 6 & 0x3F)),
               static_cast<char>(0x80 | (c & 0x3F))};
    } else {
      bytes = {static_cast<char>(0xF0 | c >> 18), static_cast<char>(0x80 | (c >> 12 & 0x3F)),
               static_cast<char>(0x80 | (c >> 6 & 0x3F)), static_cast<char>(0x80 | (c & 0x3F))};
    }
    const std::string text = "x" + bytes + "y";
    const std::string json =
        vorn_test::written<vorn_inspect::JsonValueWriter>(std::string("\x07") + static_cast<char>(text.size()) + text);
    ASSERT_EQ(text, nlohmann::json::parse(json).get<std::string>()) << c;
  }
}

// Strings longer than the pieces in which they are written.
TEST(JsonValue, WritesLongStrings) {
  std::string text;
  for (int i = 0; i < 40000; ++i) text += i % 7 == 0 ? "\xE2\x80\xAE" : "a\x7F\xC3\xA4";
  std::string bytes = "\x07";
  for (size_t n = text.size(); n != 0; n >>= 7) bytes += static_cast<char>((n & 0x7F) | (n > 0x7F ? 0x80 : 0));
  EXPECT_EQ(text,
            nlohmann::json::parse(vorn_test::written<vorn_inspect::JsonValueWriter>(bytes + text)).get<std::string>());
}

}  // namespace
