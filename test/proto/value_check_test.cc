#include "proto/value_check.h"

#include <algorithm>
#include <limits>
#include <map>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "proto/packet_frame_in.h"
#include "test/support/allocations.h"
#include "test/support/buffers.h"
#include "test/support/hex.h"
#include "test/support/poisoned_tail.h"
#include "test/support/vectors.h"

namespace {

using namespace VORN::PROTO;
using vorn_test::from_hex;

constexpr uint64_t NO_END = std::numeric_limits<uint64_t>::max();

std::string name_of(ValueFault fault) {
  switch (fault) {
    case ValueFault::none: return "none";
    case ValueFault::max_depth: return "max_depth";
    case ValueFault::underrun: return "underrun";
    case ValueFault::underrun_int: return "underrun_int";
    case ValueFault::underrun_length: return "underrun_length";
    case ValueFault::underrun_string: return "underrun_string";
    case ValueFault::underrun_float: return "underrun_float";
    case ValueFault::underrun_double: return "underrun_double";
    case ValueFault::underrun_hash: return "underrun_hash";
    case ValueFault::underrun_array: return "underrun_array";
    case ValueFault::unknown_type: return "unknown_type";
  }
  return "?";
}

struct Result {
  std::string fault;
  uint64_t pos;  ///< from where the value started
};

bool operator==(const Result& a, const Result& b) {
  return a.fault == b.fault && a.pos == b.pos;
}
std::ostream& operator<<(std::ostream& out, const Result& r) {
  return out << r.fault << " at " << r.pos;
}

// With the limits of Ruby's decoder: a string's bytes must be stored.
Result scan_stored(const PacketBuf& buf, int32_t maxdepth) {
  const vorn_test::PoisonedTail tail(buf);
  WireReader in(buf);
  ArrayCounts counts;
  const std::string fault = name_of(check_value(in, {maxdepth, NO_END, in.data_len()}, counts));
  return {fault, in.pos() - buf.pos()};
}

// With the limits of the variant's decoder: the pass steps over strings unchecked, up to the payload's end.
Result scan_unchecked(const PacketBuf& buf, int32_t maxdepth) {
  const vorn_test::PoisonedTail tail(buf);
  WireReader in(buf);
  ArrayCounts counts;
  const std::string fault = name_of(check_value(in, {maxdepth, buf.payload_end(), NO_END}, counts));
  return {fault, in.pos() - buf.pos()};
}

Result scan_bytes(const std::string& bytes, int32_t maxdepth = 64) {
  PacketBuf buf;
  vorn_test::fill(buf, bytes);
  return scan_stored(buf, maxdepth);
}

TEST(ValueCheck, StandsBehindEachValueOfTheTable) {
  for (const auto& vector : vorn_test::value_vectors()) {
    SCOPED_TRACE(vector.name);
    const Result behind{"none", vector.bytes.size()};
    PacketBuf buf;
    vorn_test::fill(buf, vector.bytes);
    EXPECT_EQ(behind, scan_stored(buf, 64));
    EXPECT_EQ(behind, scan_unchecked(buf, 64));
    PacketFrameIn frame;
    vorn_test::fill_frame(frame, vector.bytes + "\x0C", vector.bytes.size());
    EXPECT_EQ(behind, scan_stored(frame, 64));
    EXPECT_EQ(behind, scan_unchecked(frame, 64));
  }
}

TEST(ValueCheck, EachTruncationOfEachValueIsAnUnderrunInsideTheBytes) {
  for (const auto& vector : vorn_test::value_vectors()) {
    for (const size_t size : vorn_test::cuts(vector.bytes.size())) {
      const Result result = scan_bytes(vector.bytes.substr(0, size));
      ASSERT_EQ(0U, result.fault.find("underrun")) << vector.name << " cut to " << size << ": " << result;
      ASSERT_LE(result.pos, size) << vector.name;
    }
  }
}

// With the variant's limits a value that ends in a cut string passes, and the position is then beyond the bytes.
TEST(ValueCheck, EachTruncationIsFoundOrSteppedOver) {
  for (const auto& vector : vorn_test::value_vectors()) {
    for (const size_t size : vorn_test::cuts(vector.bytes.size())) {
      PacketBuf buf;
      vorn_test::fill(buf, vector.bytes.substr(0, size));
      const Result result = scan_unchecked(buf, 64);
      if (result.fault == "none") {
        ASSERT_GT(result.pos, size) << vector.name;
      } else {
        ASSERT_EQ(0U, result.fault.find("underrun")) << vector.name << " cut to " << size << ": " << result;
      }
    }
  }
}

class EveryFault : public testing::TestWithParam<vorn_test::FaultVector> {};

INSTANTIATE_TEST_SUITE_P(Table, EveryFault, testing::ValuesIn(vorn_test::fault_vectors()));

TEST_P(EveryFault, IsFoundWhereTheTableSays) {
  const auto& vector = GetParam();
  PacketBuf plain;
  PacketFrameIn frame;
  vorn_test::fill(plain, vector.bytes);
  if (!vector.plain_buffer) vorn_test::fill_frame(frame, vector.bytes, vector.payload);
  const PacketBuf& buf = vector.plain_buffer ? plain : frame;

  // Interning comes after the checking pass.
  const std::string ruby = vector.ruby == "symbol_encoding" ? "none" : vector.ruby;
  EXPECT_EQ((Result{ruby, vector.ruby_pos}), scan_stored(buf, vector.maxdepth));

  // These two are found by the building pass.
  if (vector.variant == "hash_key" || vector.variant == "underrun_string") {
    EXPECT_EQ("none", scan_unchecked(buf, vector.maxdepth).fault);
  } else {
    EXPECT_EQ((Result{vector.variant, vector.variant_pos}), scan_unchecked(buf, vector.maxdepth));
  }
}

// The shortest value that starts with this byte; the byte alone when there is none.
std::string shortest(unsigned type) {
  std::string out(1, static_cast<char>(type));
  switch (type) {
    case 0x03: return out + std::string(4, '\0');
    case 0x04: return out + std::string(8, '\0');
    case 0x05:
    case 0x06:
    case 0x07: return out + '\0';
    case 0x08: return out + '\x09';
    case 0x0A: return out + '\x0B';
    default: return type >= 0x80 && (type & 0x20) != 0 ? out + '\x01' : out;
  }
}

bool starts_a_value(unsigned type) {
  return type >= 0x80 || (type <= 0x0A && type != 0x09);
}

// Where each of the 256 type bytes may stand, what comes around it, and which end mark belongs there.
TEST(ValueCheck, EveryTypeByteInEveryPlace) {
  const struct {
    const char* place;
    std::string before, behind;
    unsigned end_mark;
  } places[] = {{"top level", "", "", 256},
                {"hash key", "\x08", std::string("\x00\x09", 2), 0x09},
                {"hash value", std::string("\x08\x00", 2), "\x09", 256},
                {"second key", std::string("\x08\x00\x00", 3), std::string("\x00\x09", 2), 0x09},
                {"array member", "\x0A", "\x0B", 0x0B},
                {"second member", std::string("\x0A\x00", 2), "\x0B", 0x0B}};
  for (const auto& place : places) {
    for (unsigned type = 0; type < 256; ++type) {
      const std::string bytes = place.before + shortest(type) + place.behind;
      Result expected{"none", bytes.size()};
      if (type == place.end_mark) {
        expected.pos = place.before.size() + 1;
      } else if (!starts_a_value(type)) {
        expected = {"unknown_type", place.before.size() + 1};
      }
      EXPECT_EQ(expected, scan_bytes(bytes)) << place.place << ", type " << type;
    }
  }
}

TEST(ValueCheck, EveryTypeByteAlone) {
  const std::map<unsigned, std::string> bodies = {
      {0x03, "underrun_float"},  {0x04, "underrun_double"}, {0x05, "underrun_length"}, {0x06, "underrun_length"},
      {0x07, "underrun_length"}, {0x08, "underrun_hash"},   {0x0A, "underrun_array"}};
  for (unsigned type = 0; type < 256; ++type) {
    std::string expected = starts_a_value(type) ? "none" : "unknown_type";
    if (bodies.count(type) != 0) expected = bodies.at(type);
    if (type >= 0x80 && (type & 0x20) != 0) expected = "underrun_int";
    EXPECT_EQ((Result{expected, 1}), scan_bytes(std::string(1, static_cast<char>(type)))) << type;
  }
}

// 63 containers of each mixture around a scalar pass a limit of 64, one more does not.
TEST(ValueCheck, DepthIsCountedOverBothKindsOfContainers) {
  for (unsigned pattern = 0; pattern < 8; ++pattern) {
    for (const size_t depth : {size_t{63}, size_t{64}}) {
      std::string open, close;
      bool hash = false;
      for (size_t i = 0; i < depth; ++i) {
        hash = (pattern >> (i % 3) & 1) != 0;
        open += hash ? std::string("\x08\x00", 2) : "\x0A";
        close.insert(0, 1, hash ? '\x09' : '\x0B');
      }
      const std::string bytes = open + "\x81" + close;
      if (depth == 63) {
        EXPECT_EQ((Result{"none", bytes.size()}), scan_bytes(bytes));
      } else {
        // In a hash the key alone is too deep.
        EXPECT_EQ((Result{"max_depth", open.size() - (hash ? 1 : 0)}), scan_bytes(bytes));
      }
    }
  }
}

TEST(ValueCheck, DepthCostsNoMachineStack) {
  const size_t depth = 3000000;
  const std::string arrays(depth, '\x0A');
  EXPECT_EQ((Result{"underrun_array", depth}), scan_bytes(arrays, INT32_MAX));
  EXPECT_EQ((Result{"none", 2 * depth}), scan_bytes(arrays + std::string(depth, '\x0B'), INT32_MAX));
  EXPECT_EQ((Result{"max_depth", 1000000}), scan_bytes(arrays, 1000000));
}

TEST(ValueCheck, NoValueStartsAtOrBehindTheGivenEnd) {
  PacketBuf buf;
  vorn_test::fill(buf, from_hex("0A 81 A0 01 0B"));
  const struct {
    uint64_t end;
    Result expected;
  } rows[] = {{0, {"underrun", 0}},       {1, {"underrun_array", 1}}, {2, {"underrun_array", 2}},
              {3, {"underrun_array", 4}}, {4, {"underrun_array", 4}}, {5, {"none", 5}},
              {6, {"none", 5}},           {NO_END, {"none", 5}}};
  for (const auto& row : rows) {
    WireReader in(buf);
    ArrayCounts counts;
    const std::string fault = name_of(check_value(in, {64, row.end, NO_END}, counts));
    EXPECT_EQ(row.expected, (Result{fault, in.pos()})) << row.end;
  }
}

TEST(ValueCheck, APositionBeforeOrBehindThePayloadIsAnUnderrun) {
  PacketFrameIn frame;
  vorn_test::fill_frame(frame, from_hex("80 81"), 1);
  for (const uint64_t pos : {uint64_t{0}, uint64_t{7}, uint64_t{9}, uint64_t{10}, uint64_t{1} << 40, NO_END}) {
    frame.set_pos(pos);
    EXPECT_EQ((Result{"underrun", 0}), scan_stored(frame, 64)) << pos;
  }
  frame.set_pos(8);
  EXPECT_EQ((Result{"none", 1}), scan_stored(frame, 64));
}

std::vector<uint32_t> counts_of(const std::string& bytes) {
  PacketBuf buf;
  vorn_test::fill(buf, bytes);
  WireReader in(buf);
  ArrayCounts counts;
  EXPECT_EQ(ValueFault::none, check_value(in, {INT32_MAX, NO_END, NO_END}, counts));
  std::vector<uint32_t> out;
  for (size_t i = 0; i < static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\x0A')); ++i) {
    out.push_back(counts.next());
  }
  EXPECT_EQ(0U, counts.next());
  return out;
}

TEST(ValueCheck, CountsTheMembersOfEachArrayInTheOrderOfTheirStarts) {
  using Counts = std::vector<uint32_t>;
  EXPECT_EQ((Counts{}), counts_of(from_hex("08 81 82 09")));
  EXPECT_EQ((Counts{0}), counts_of(from_hex("0A 0B")));
  EXPECT_EQ((Counts{3}), counts_of(from_hex("0A 00 00 00 0B")));
  EXPECT_EQ((Counts{3, 1, 0, 2}), counts_of(from_hex("0A 0A 81 0B 0A 0B 0A 82 83 0B 0B")));
  EXPECT_EQ((Counts{1, 2}), counts_of(from_hex("08 81 0A 00 0B 82 0A 81 82 0B 09"))) << "hashes have no count";
  EXPECT_EQ((Counts{1}), counts_of(from_hex("0A 08 81 82 83 84 09 0B"))) << "a pair is not a member";
  EXPECT_EQ((Counts{1000}), counts_of(from_hex("0A (1000:80) 0B")));
  EXPECT_EQ((Counts(200, 1)), counts_of(from_hex("(200:0A) 81 (200:0B)")));
}

KeyTypes key_types_of(const std::string& hex) {
  PacketBuf buf;
  vorn_test::fill(buf, from_hex(hex));
  WireReader in(buf);
  ArrayCounts counts;
  KeyTypes keys;
  EXPECT_EQ(ValueFault::none, check_value(in, {64, NO_END, NO_END}, counts, keys)) << hex;
  EXPECT_EQ(buf.data().size(), in.pos()) << hex;
  return keys;
}

TEST(ValueCheck, KnowsTheTypesOfAllKeysAndOfNothingElse) {
  const std::string values =
      " 00 01 02 80 A0 01 03 00 00 00 00 04 00 00 00 00 00 00 00 00 05 00 06 00 07 00 0A 0B 08 09 ";
  EXPECT_TRUE(key_types_of("80").only({})) << "no keys";
  EXPECT_TRUE(key_types_of("07 00").only({}));
  EXPECT_TRUE(key_types_of("0A" + values + "0B").only({})) << "members";
  for (const char* value : {"00", "01", "02", "80", "A0 01", "03 00 00 00 00", "04 00 00 00 00 00 00 00 00", "05 00",
                            "06 00", "07 01 61", "0A 0B", "0A 81 0B", "08 09", "08 07 00 80 09"}) {
    const std::string one = value;
    EXPECT_TRUE(key_types_of("08 07 00 " + one + " 09").only({PTT_UTF8STR})) << one << " as a value";
    EXPECT_TRUE(key_types_of("08 07 00 " + one + " 07 00 " + one + " 09").only({PTT_UTF8STR})) << one;
    const uint8_t type = static_cast<uint8_t>(from_hex(one)[0]);
    for (const std::string& around : {"08 " + one + " 80 09", "08 07 00 80 " + one + " 80 09",
                                      "0A 08 " + one + " 07 00 09 0B", "08 07 00 08 " + one + " 80 09 09"}) {
      const KeyTypes keys = key_types_of(around);
      EXPECT_EQ(type == PTT_UTF8STR, keys.only({PTT_UTF8STR})) << around;
      EXPECT_EQ(type == PTT_BINSTR || type == PTT_UTF8STR, keys.only({PTT_BINSTR, PTT_UTF8STR})) << around;
      if (type < PTT_INT) {
        EXPECT_TRUE(keys.only({PTT_UTF8STR, type})) << around;
      }
    }
  }
}

TEST(ValueCheck, EmptyContainersEndWhereTheBytesDo) {
  EXPECT_EQ((Result{"underrun_array", 1}), scan_bytes(from_hex("0A")));
  EXPECT_EQ((Result{"underrun_hash", 1}), scan_bytes(from_hex("08")));
  EXPECT_EQ((Result{"none", 2}), scan_bytes(from_hex("0A 0B"), 1));
  EXPECT_EQ((Result{"none", 2}), scan_bytes(from_hex("08 09"), 1));
  EXPECT_EQ((Result{"max_depth", 1}), scan_bytes(from_hex("0A 0A 0B 0B"), 1));
  PacketBuf buf;
  vorn_test::fill(buf, from_hex("0A 0B 08 09"));
  for (const uint64_t start : {uint64_t{0}, uint64_t{2}}) {
    buf.set_pos(start);
    WireReader in(buf);
    ArrayCounts counts;
    EXPECT_EQ(start == 0 ? "underrun_array" : "underrun_hash",
              name_of(check_value(in, {64, start + 1, NO_END}, counts)));
  }
}

TEST(ValueCheck, OrdinaryValuesNeedNoMemory) {
  PacketBuf buf;
  vorn_test::fill(buf, from_hex("0A (63:0A 08 81 82 09 07 01 61 0B) 0B"));
  const vorn_test::AllocationCount allocations;
  EXPECT_EQ("none", scan_stored(buf, 64).fault);
  EXPECT_EQ(0U, allocations.count());
}

TEST(ValueCheck, WithoutMemoryTheCursorStays) {
  PacketBuf buf;
  vorn_test::fill(buf, from_hex("(200:0A) 81 (200:0B)"));
  uint64_t nth = 0;
  for (bool done = false; !done;) {
    ++nth;
    WireReader in(buf);
    ArrayCounts counts;
    const vorn_test::FailAllocation fail(nth);
    try {
      EXPECT_EQ(ValueFault::none, check_value(in, {1000, NO_END, NO_END}, counts));
      done = true;
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(0U, in.pos());
    }
  }
  EXPECT_GT(nth, 3U);
}

}  // namespace
