#include "proto/wire_writer.h"

#include <limits>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test/support/allocations.h"
#include "test/support/guarded_bytes.h"
#include "test/support/hex.h"
#include "test/support/vectors.h"

namespace {

using namespace VORN::PROTO;
using vorn_test::from_hex;
using vorn_test::to_hex;

// What `write` puts into a buffer, in hex: appended, and over other bytes, of which any number may be left from
// the position on. It must touch its own and none behind them.
template <typename Write>
std::string written(Write write) {
  PacketBuf fresh;
  write(fresh);
  EXPECT_EQ(fresh.data().size(), fresh.pos());
  for (const uint64_t left : vorn_test::cuts(fresh.pos() + 20)) {
    PacketBuf used;
    const std::string old(5 + left, '\xEE');
    used.write_bytes(old.data(), old.size());
    used.set_pos(5);
    write(used);
    EXPECT_EQ(5 + fresh.pos(), used.pos()) << left;
    std::string expected = old;
    if (expected.size() < 5 + fresh.pos()) expected.resize(5 + fresh.pos());
    EXPECT_EQ(expected.replace(5, fresh.pos(), fresh.data()), used.data()) << left;
  }
  return to_hex(fresh.data());
}

std::string int_bytes(int64_t value) {
  return written([value](PacketBuf& buf) { write_int(buf, value); });
}

TEST(WireWriter, Types) {
  EXPECT_EQ("00", written([](PacketBuf& buf) { write_type(buf, PTT_NIL); }));
  EXPECT_EQ("01", written([](PacketBuf& buf) { write_type(buf, PTT_FALSE); }));
  EXPECT_EQ("02", written([](PacketBuf& buf) { write_type(buf, PTT_TRUE); }));
  EXPECT_EQ("08", written([](PacketBuf& buf) { write_type(buf, PTT_HASH_START); }));
  EXPECT_EQ("09", written([](PacketBuf& buf) { write_type(buf, PTT_HASH_END); }));
  EXPECT_EQ("0A", written([](PacketBuf& buf) { write_type(buf, PTT_ARRAY_START); }));
  EXPECT_EQ("0B", written([](PacketBuf& buf) { write_type(buf, PTT_ARRAY_END); }));
  EXPECT_EQ(0x03, PTT_FLOAT);
  EXPECT_EQ(0x04, PTT_DOUBLE);
  EXPECT_EQ(0x05, PTT_BINSTR);
  EXPECT_EQ(0x06, PTT_SYMBOL);
  EXPECT_EQ(0x07, PTT_UTF8STR);
}

// The rows of values.txt that are integers and are written as they stand.
TEST(WireWriter, IntegersOfTheTable) {
  int rows = 0;
  for (const auto& vector : vorn_test::value_vectors()) {
    if (vector.variant.find_first_not_of("-0123456789") != std::string::npos) continue;
    SCOPED_TRACE(vector.name);
    EXPECT_EQ(to_hex(vector.variant_bytes), int_bytes(std::stoll(vector.variant)));
    ++rows;
  }
  EXPECT_GE(rows, 40);
}

// The encoding as docs/wire/value-encoding.md describes it, byte by byte.
std::string plain_int(int64_t value) {
  const bool negative = value < 0;
  uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  std::string out;
  unsigned byte = 0x80 | (negative ? 0x40U : 0U) | static_cast<unsigned>(magnitude & 0x1F);
  unsigned continuation = 0x20;
  for (magnitude >>= 5;; magnitude >>= 7) {
    if (magnitude == 0) return out + static_cast<char>(byte);
    out += static_cast<char>(byte | continuation);
    byte = static_cast<unsigned>(magnitude & 0x7F);
    continuation = 0x80;
  }
}

TEST(WireWriter, IntegersOfEverySize) {
  std::mt19937_64 random(1);
  std::vector<int64_t> values = {INT64_MIN, INT64_MAX};
  for (unsigned shift = 0; shift < 64; ++shift) {
    for (const uint64_t delta : {~uint64_t{0}, uint64_t{0}, uint64_t{1}}) {
      const uint64_t magnitude = (uint64_t{1} << shift) + delta;
      values.push_back(static_cast<int64_t>(magnitude));
      values.push_back(static_cast<int64_t>(0 - magnitude));
    }
    for (int i = 0; i < 20; ++i) values.push_back(static_cast<int64_t>(random()) >> shift);
  }
  for (const int64_t value : values) ASSERT_EQ(to_hex(plain_int(value)), int_bytes(value)) << value;
}

// Runs of every length about those of a batch, of small and of mixed integers.
TEST(WireWriter, IntegersThatFollowOneAnother) {
  std::mt19937_64 random(2);
  for (const size_t count : {0, 1, 2, 3, 63, 64, 65, 127, 128, 129, 300}) {
    for (const unsigned smallest : {0U, 30U, 57U}) {
      std::vector<int64_t> values;
      std::string expected;
      for (size_t i = 0; i < count; ++i) {
        values.push_back(static_cast<int64_t>(random()) >> (smallest + random() % (64 - smallest)));
        expected += plain_int(values.back());
      }
      const auto write = [&](PacketBuf& buf) { write_ints(buf, count, [&](size_t i) { return values[i]; }); };
      ASSERT_EQ(to_hex(expected), written(write)) << count << " integers, shifted by " << smallest << " or more";
    }
  }
}

// The limits of each size, and of what fits a word.
TEST(WireWriter, IntegersThatFollowOneAnotherOfEverySize) {
  for (unsigned shift = 0; shift < 64; ++shift) {
    const uint64_t power = uint64_t{1} << shift;
    const int64_t values[] = {static_cast<int64_t>(power - 1), static_cast<int64_t>(power),
                              static_cast<int64_t>(1 - power), static_cast<int64_t>(0 - power)};
    std::string expected;
    for (const int64_t value : values) expected += plain_int(value);
    ASSERT_EQ(to_hex(expected),
              written([&](PacketBuf& buf) { write_ints(buf, 4, [&](size_t i) { return values[i]; }); }))
        << shift;
  }
}

// The longest integers fill the scratch memory of a batch to its last byte, and shorter ones behind them are stored
// as words: the scratch ends, and starts, at an unreadable page here.
TEST(WireWriter, ABatchOfIntegersKeepsToItsScratchMemory) {
  const int64_t fillers[] = {INT64_MIN, INT64_MAX, -1, 0, 0xFFF, 0x1FFFFFFFF, 0x200000000};
  for (const auto guard : {vorn_test::GuardedBytes::BEHIND, vorn_test::GuardedBytes::BEFORE}) {
    for (const int64_t last : fillers) {
      for (const size_t count : {size_t{1}, INT_BATCH - 1, INT_BATCH}) {
        const auto value_at = [&](size_t i) { return i + 1 < count ? INT64_MIN : last; };
        std::string expected;
        for (size_t i = 0; i < count; ++i) expected += plain_int(value_at(i));
        vorn_test::GuardedBytes scratch(std::string(sizeof(IntScratch), '\xEE'), guard);
        const char* const end = store_ints(scratch.data(), 0, count, value_at);
        ASSERT_EQ(scratch.data() + expected.size(), end);
        ASSERT_EQ(to_hex(expected), to_hex(std::string(scratch.data(), expected.size())));
      }
    }
  }
}

TEST(WireWriter, TheLongestIntegersFollowOneAnother) {
  for (const int64_t value : {INT64_MIN, INT64_MAX}) {
    for (const size_t count : {62, 63, 64, 65, 66, 127, 128, 129, 192, 193}) {
      std::string expected;
      for (size_t i = 0; i < count; ++i) expected += plain_int(value);
      ASSERT_EQ(to_hex(expected),
                written([&](PacketBuf& buf) { write_ints(buf, count, [=](size_t) { return value; }); }))
          << count;
    }
  }
}

TEST(WireWriter, SizesOfIntegers) {
  for (unsigned bits = 0; bits <= 64; ++bits) {
    const uint64_t magnitude = bits == 0 ? 0 : ~uint64_t{0} >> (64 - bits);
    const unsigned size = bits <= 5 ? 1 : 1 + (bits - 5 + 6) / 7;
    EXPECT_EQ(size, varint_size(magnitude, INT_SHAPE)) << bits;
    if (bits > 0) {
      EXPECT_EQ(size, varint_size(uint64_t{1} << (bits - 1), INT_SHAPE)) << bits;
    }
    const unsigned length_size = bits <= 7 ? 1 : (bits + 6) / 7;
    EXPECT_EQ(length_size, varint_size(magnitude, LENGTH_SHAPE)) << bits;
  }
}

TEST(WireWriter, VarintsOfTheTable) {
  for (const auto& vector : vorn_test::varint_vectors()) {
    SCOPED_TRACE(vector.name);
    const VarintShape shape{vector.first_byte_bits, vector.is_signed};
    EXPECT_EQ(to_hex(vector.written),
              written([&](PacketBuf& buf) { write_varint(buf, vector.magnitude, vector.negative, shape); }));
    EXPECT_EQ(vector.written.size(), varint_size(vector.magnitude, shape));
  }
}

TEST(WireWriter, ASignIsDroppedWhereTheShapeHasNone) {
  EXPECT_EQ("05", written([](PacketBuf& buf) { write_varint(buf, 5, true, LENGTH_SHAPE); }));
}

TEST(WireWriter, Doubles) {
  EXPECT_EQ("04 3F F8 00 00 00 00 00 00", written([](PacketBuf& buf) { write_double(buf, 1.5); }));
  EXPECT_EQ("04 80 00 00 00 00 00 00 00", written([](PacketBuf& buf) { write_double(buf, -0.0); }));
  EXPECT_EQ("04 3F B9 99 99 99 99 99 9A", written([](PacketBuf& buf) { write_double(buf, 0.1); }));
  EXPECT_EQ("04 FF F0 00 00 00 00 00 00",
            written([](PacketBuf& buf) { write_double(buf, -std::numeric_limits<double>::infinity()); }));
}

TEST(WireWriter, Floats) {
  EXPECT_EQ("03 3F C0 00 00", written([](PacketBuf& buf) { write_float(buf, 1.5F); }));
  EXPECT_EQ("03 80 00 00 00", written([](PacketBuf& buf) { write_float(buf, -0.0F); }));
  EXPECT_EQ("03 3D CC CC CD", written([](PacketBuf& buf) { write_float(buf, 0.1F); }));
}

TEST(WireWriter, Strings) {
  EXPECT_EQ("05 03 61 62 63", written([](PacketBuf& buf) { write_binstr(buf, "abc", 3); }));
  EXPECT_EQ("06 03 61 62 63", written([](PacketBuf& buf) { write_symbol(buf, "abc", 3); }));
  EXPECT_EQ("07 03 61 62 63", written([](PacketBuf& buf) { write_utf8str(buf, "abc", 3); }));
  EXPECT_EQ("07 03 61 00 62", written([](PacketBuf& buf) { write_utf8str(buf, "a\0b", 3); }));
}

TEST(WireWriter, EmptyStringsNeedNoBytesAtAll) {
  EXPECT_EQ("05 00", written([](PacketBuf& buf) { write_binstr(buf, nullptr, 0); }));
  EXPECT_EQ("06 00", written([](PacketBuf& buf) { write_symbol(buf, nullptr, 0); }));
  EXPECT_EQ("07 00", written([](PacketBuf& buf) { write_utf8str(buf, nullptr, 0); }));
}

TEST(WireWriter, StringsOfManyLengths) {
  const struct {
    uint32_t length;
    const char* prefix;
  } rows[] = {{127, "7F"}, {128, "80 01"}, {16383, "FF 7F"}, {16384, "80 80 01"}, {70000, "F0 A2 04"}};
  for (const auto& row : rows) {
    const vorn_test::GuardedBytes bytes(std::string(row.length, 'z'));
    EXPECT_EQ(to_hex(from_hex(std::string("07") + row.prefix) + std::string(row.length, 'z')),
              written([&](PacketBuf& buf) { write_utf8str(buf, bytes.data(), row.length); }));
  }
}

// Bytes that differ from their neighbours, and from those around the copy.
std::string distinct_bytes(size_t length) {
  std::string out;
  for (size_t i = 0; i < length; ++i) out += static_cast<char>(1 + i);
  return out;
}

// Sources and targets that end, or start, at an unreadable page.
TEST(WireWriter, StringBytesOfEveryLengthAreCopiedAndNothingElseIsTouched) {
  using vorn_test::GuardedBytes;
  for (size_t length = 0; length <= 130; ++length) {
    const std::string bytes = distinct_bytes(length);
    for (const auto source_guard : {GuardedBytes::BEHIND, GuardedBytes::BEFORE}) {
      const GuardedBytes source(bytes, source_guard);
      for (const auto target_guard : {GuardedBytes::BEHIND, GuardedBytes::BEFORE}) {
        GuardedBytes target(std::string(length, '\xEE'), target_guard);
        copy_string_bytes(target.data(), source.data(), length);
        ASSERT_EQ(to_hex(bytes), to_hex(std::string(target.data(), length))) << length;
      }
      std::string around = "before" + std::string(length, '\xEE') + "behind";
      copy_string_bytes(&around[6], source.data(), length);
      ASSERT_EQ("before" + bytes + "behind", around) << length;
      ASSERT_EQ(bytes, std::string(source.data(), length)) << length;
    }
  }
}

TEST(WireWriter, StringsOfEveryShortLength) {
  for (uint32_t length = 0; length <= 130; ++length) {
    const std::string bytes = distinct_bytes(length);
    const std::string prefix =
        length < 128 ? std::string(1, static_cast<char>(length)) : std::string{static_cast<char>(length), '\x01'};
    ASSERT_EQ(to_hex("\x05" + prefix + bytes),
              written([&](PacketBuf& buf) { write_binstr(buf, bytes.data(), length); }));
  }
}

TEST(WireWriter, WithoutMemoryNothingIsWrittenAndNothingMoves) {
  PacketBuf buf;
  const std::string old(buf.data().capacity(), 'o');
  buf.write_bytes(old.data(), old.size());
  buf.set_pos(old.size() - 1);
  const std::string bytes(300, 'b');
  for (int what = 0; what < 5; ++what) {
    const vorn_test::FailAllocation fail(1);
    switch (what) {
      case 0: EXPECT_THROW(write_int(buf, 1000), std::bad_alloc); break;
      case 1: EXPECT_THROW(write_double(buf, 1), std::bad_alloc); break;
      case 2: EXPECT_THROW(write_float(buf, 1), std::bad_alloc); break;
      case 3: EXPECT_THROW(write_utf8str(buf, bytes.data(), 300), std::bad_alloc); break;
      default: EXPECT_THROW(write_varint(buf, 1000, false, LENGTH_SHAPE), std::bad_alloc);
    }
    EXPECT_EQ(old.size() - 1, buf.pos());
    EXPECT_EQ(old, buf.data());
  }
}

#ifndef NDEBUG

TEST(WireWriterDeathTest, AStringComesFromOutsideTheBufferUnderAStringsType) {
  PacketBuf buf;
  write_string(buf, PTT_UTF8STR, "abc", 3);
  EXPECT_DEATH(write_string(buf, PTT_UTF8STR, buf.data().data(), 3), "holds");
  EXPECT_DEATH(write_string(buf, PTT_DOUBLE, "abc", 3), "PTT_BINSTR");
  EXPECT_DEATH(write_string(buf, PTT_HASH_START, "abc", 3), "PTT_UTF8STR");
}

TEST(WireWriterDeathTest, StoresOneBatchAtATime) {
  IntScratch scratch;
  const auto one = [](size_t) { return int64_t{1}; };
  EXPECT_EQ(scratch + INT_BATCH, store_ints(scratch, 0, INT_BATCH, one));
  EXPECT_DEATH(store_ints(scratch, 0, INT_BATCH + 1, one), "INT_BATCH");
}

#endif

}  // namespace
