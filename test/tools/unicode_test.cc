#include "tools/inspect/unicode.h"

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "test/support/hex.h"

namespace {

using vorn_inspect::is_control;
using vorn_inspect::is_utf8;
using vorn_inspect::printable;
using vorn_test::from_hex;

TEST(Unicode, KnowsUtf8) {
  for (const char* const hex : {"-", "7F", "C2 80", "DF BF", "E0 A0 80", "ED 9F BF", "EE 80 80", "EF BF BF",
                                "F0 90 80 80", "F4 8F BF BF", "61 C3 A4 62"}) {
    EXPECT_TRUE(is_utf8(from_hex(hex))) << hex;
  }
  for (const char* const hex : {"80", "BF", "C0 80", "C1 BF", "C2", "C2 7F", "C2 C0", "E0 9F BF", "ED A0 80", "E1 80",
                                "E1 80 C0", "F0 8F BF BF", "F4 90 80 80", "F5 80 80 80", "F1 80 80", "FF", "61 C3"}) {
    EXPECT_FALSE(is_utf8(from_hex(hex))) << hex;
  }
}

// Text that is_utf8() accepts must be accepted by the JSON library.
TEST(Unicode, AgreesWithTheJsonLibraryAboutUtf8) {
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

TEST(Unicode, KnowsTerminalControls) {
  const std::pair<char32_t, char32_t> controls[] = {{0, 0x1F},        {0x7F, 0x9F},     {0x61C, 0x61C},
                                                    {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}};
  char32_t behind = 0;
  for (const auto& [first, last] : controls) {
    for (char32_t c = behind; c < first; ++c) ASSERT_FALSE(is_control(c)) << std::hex << c;
    for (char32_t c = first; c <= last; ++c) ASSERT_TRUE(is_control(c)) << std::hex << c;
    behind = last + 1;
  }
  for (char32_t c = behind; c < 0x11000; ++c) ASSERT_FALSE(is_control(c)) << std::hex << c;
}

TEST(Unicode, DecodesCharacters) {
  const std::string bytes = from_hex("41 C2 80 DF BF E0 A0 80 EF BF BF F0 90 80 80 F4 8F BF BF");
  std::string_view rest = bytes;
  for (const char32_t c : {0x41, 0x80, 0x7FF, 0x800, 0xFFFF, 0x10000, 0x10FFFF}) {
    EXPECT_EQ(c, vorn_inspect::take_character(rest));
  }
  EXPECT_TRUE(rest.empty());
}

TEST(Unicode, MakesMessagesPrintable) {
  EXPECT_EQ("a \xC3\xA4", printable("a \xC3\xA4"));
  EXPECT_EQ("\\u001b[2J\\u009b\\u202e\\u000a", printable("\x1B[2J\xC2\x9B\xE2\x80\xAE\n"));
  EXPECT_EQ("\\x9b\\x1b\\x7f", printable("\x9B\x1B\x7F"));
}

}  // namespace
