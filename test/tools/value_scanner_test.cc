#include "tools/inspect/value_scanner.h"

#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test/support/hex.h"
#include "test/support/vectors.h"
#include "test/tools/scan_record.h"

namespace {

using vorn_test::from_hex;
using vorn_test::scan_values;
using Lines = std::vector<std::string>;

Lines lines(const std::string& stream, uint32_t max_length = 1 << 20) {
  const Lines whole = scan_values(stream, 0, max_length).lines;
  for (const size_t piece : {1, 3, 17}) EXPECT_EQ(whole, scan_values(stream, piece, max_length).lines) << piece;
  return whole;
}

TEST(ValueScanner, ReportsValues) {
  EXPECT_EQ((Lines{"value 0 size 1: 1", "value 1 size 3: [2]", "value 4 size 3: \"a\""}),
            lines(from_hex("81 0A 82 0B 06 01 61")));
  EXPECT_EQ(Lines{}, lines(""));
}

TEST(ValueScanner, StopsAtAValueWhoseEndIsUnknown) {
  EXPECT_EQ((Lines{"value 0 size 1: 1", "failed 1: 3 VObject::deserialize: unrecognized protocol transport type"}),
            lines(from_hex("81 0A 0C 0B 81")));
  EXPECT_EQ((Lines{"failed 0: 2 VObject::deserialize_array: buffer underrun"}), lines(from_hex("0A 81")));
}

TEST(ValueScanner, ContinuesBehindARefusedValueWithAKnownEnd) {
  EXPECT_EQ((Lines{"failed 0: 2 VObject::deserialize_hash: only hash keys of type string are supported",
                   "value 4 size 1: 5"}),
            lines(from_hex("08 81 82 09 85")));
}

TEST(ValueScanner, LimitsTheLengthOfAValue) {
  const std::string string = from_hex("05 10") + std::string(16, 'x');
  EXPECT_EQ(Lines{"value 0 size 18: \"xxxxxxxxxxxxxxxx\""}, lines(string, 18));
  EXPECT_EQ(Lines{"failed 0: 0 value longer than the limit"}, lines(string, 17));
  EXPECT_EQ(Lines{"failed 0: 0 value longer than the limit"}, lines(from_hex("05 FF FF FF FF 07") + string, 10));
}

// A value in small pieces must not be walked again with each piece: that would take quadratic time.
TEST(ValueScanner, LongValuesCostLinearWork) {
  vorn_test::ScanRecord record;
  vorn_inspect::ValueScanner scanner(record, 64 << 20);
  const std::string piece(256, '\0');
  const std::clock_t start = std::clock();
  scanner.feed("\x0A");
  for (int n = 0; n < 1 << 16; ++n) {
    scanner.feed(piece);
    if (n % 256 == 0) {
      ASSERT_LT(std::clock() - start, 20 * CLOCKS_PER_SEC) << n;
    }
  }
  scanner.feed("\x0B");
  scanner.finish();
  EXPECT_EQ(1U, record.lines.size());
}

TEST(ValueScanner, ReadsTheTables) {
  std::string stream;
  size_t values = 0;
  for (const auto& row : vorn_test::value_vectors()) {
    if (row.variant_as_strings[0] == '!') continue;
    stream += row.bytes;
    ++values;
  }
  const Lines whole = scan_values(stream).lines;
  EXPECT_EQ(values, whole.size());
  for (const std::string& line : whole) EXPECT_EQ(0U, line.find("value ")) << line;
  EXPECT_EQ(whole, scan_values(stream, 1000).lines);
}

}  // namespace
