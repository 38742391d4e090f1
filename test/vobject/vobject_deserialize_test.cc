#include <climits>
#include <cmath>
#include <memory>

#include "test/support/allocations.h"
#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

/// A buffer whose payload range can be narrower than its data.
class Source : public PROTO::PacketBuf {
 public:
  explicit Source(const std::string& hex) {
    const std::string bytes = from_hex(hex);
    write_bytes(bytes.data(), bytes.size());
    set_pos(0);
    end_ = data().size();
  }
  uint64_t payload_start() const override { return start_; }
  uint64_t payload_end() const override { return end_; }
  void narrow(uint64_t start, uint64_t end) {
    start_ = start;
    end_ = end;
  }

 private:
  uint64_t start_ = 0;
  uint64_t end_;
};

VObject read(PROTO::PacketBuf& buf, uint32_t maxdepth = 64, bool symbols_as_strings = false) {
  VObject v("old");
  VObject::deserialize(buf, buf.data().size(), v, symbols_as_strings, maxdepth);
  return v;
}

VObject read(const std::string& hex, uint32_t maxdepth = 64, bool symbols_as_strings = false) {
  Source buf(hex);
  const VObject v = read(buf, maxdepth, symbols_as_strings);
  EXPECT_EQ(buf.data().size(), buf.pos());
  return v;
}

/// Fails with the text, at the position, with `out` untouched (a failure of the checking pass).
void expect_rejected(const char* text, const std::string& hex, uint64_t pos, uint32_t maxdepth = 64) {
  SCOPED_TRACE(hex);
  Source buf(hex);
  VObject out("untouched");
  EXPECT_FAILS(text, VObject::deserialize(buf, buf.data().size(), out, false, maxdepth));
  EXPECT_EQ(pos, buf.pos());
  EXPECT_EQ(VObject("untouched"), out);
}

TEST(Deserialize, Scalars) {
  EXPECT_EQ(VObject(), read("00"));
  EXPECT_EQ(VObject(false), read("01"));
  EXPECT_EQ(VObject(true), read("02"));
  EXPECT_EQ(VObject(-1), read("C1"));
  EXPECT_EQ(VObject(0), read("C0"));
  EXPECT_EQ(VObject(INT64_MIN), read("E0 80 80 80 80 80 80 80 80 04"));
  EXPECT_EQ(VObject(1.5), read("03 3F C0 00 00"));
  EXPECT_EQ(DT_DOUBLE, read("03 3F C0 00 00").type());
  EXPECT_EQ(VObject(1.5), read("04 3F F8 00 00 00 00 00 00"));
}

TEST(Deserialize, Strings) {
  EXPECT_EQ(VObject("ab"), read("05 02 61 62"));
  EXPECT_EQ(VObject("ab"), read("07 02 61 62"));
  EXPECT_EQ(VObject(""), read("07 00"));
  EXPECT_EQ(VObject("a\0b", 3), read("05 03 61 00 62"));
}

TEST(Deserialize, Symbols) {
  const VObject symbol = read("06 03 61 62 63");
  EXPECT_EQ(DT_SYMBOL, symbol.type());
  EXPECT_EQ("abc", symbol.str_or_symbol_name());
  EXPECT_EQ(VObject("abc"), read("06 03 61 62 63", 64, true));
}

TEST(Deserialize, Containers) {
  EXPECT_EQ(vec({}), read("0A 0B"));
  EXPECT_EQ(hash({}), read("08 09"));
  EXPECT_EQ(vec({1, vec({2}), hash({{"a", vec({})}})}), read("0A 81 0A 82 0B 08 05 01 61 0A 0B 09 0B"));
}

TEST(Deserialize, HashKeysInAnyOrder) {
  EXPECT_EQ(hash({{"a", 1}, {"b", 2}, {"c", 3}}), read("08 05 01 62 82 07 01 61 81 05 01 63 83 09"));
  EXPECT_EQ(hash({{"", 1}}), read("08 05 00 81 09"));
}

TEST(Deserialize, ARepeatedKeyKeepsTheLaterValue) {
  EXPECT_EQ(hash({{"k", 2}}), read("08 05 01 6B 0A 81 0B 05 01 6B 82 09"));
  EXPECT_EQ(hash({{"a", 3}, {"k", 2}}), read("08 05 01 61 81 05 01 6B 82 07 01 61 83 09"));
}

TEST(Deserialize, SymbolKeysOnlyAsStrings) {
  const std::string bytes = "08 06 01 6B 81 09";
  EXPECT_EQ(hash({{"k", 1}}), read(bytes, 64, true));
  EXPECT_FAILS("VObject::deserialize_hash: only hash keys of type string are supported", read(bytes));
}

TEST(Deserialize, OtherKeysAreFoundInTheBuildingPass) {
  for (const char* bytes : {"08 81 81 09", "08 00 81 09", "08 0A 0B 81 09", "08 08 09 81 09", "08 02 81 09"}) {
    Source buf(bytes);
    VObject out("old");
    EXPECT_FAILS("VObject::deserialize_hash: only hash keys of type string are supported",
                 VObject::deserialize(buf, buf.data().size(), out, false, 64));
    EXPECT_EQ(hash({}), out) << "partly built";
    EXPECT_EQ(buf.data().size() - 2, buf.pos()) << "behind the key";
  }
  Source buf("0A 81 08 05 01 61 82 81 83 09 0B");
  VObject out;
  EXPECT_FAILS("VObject::deserialize_hash: only hash keys of type string are supported",
               VObject::deserialize(buf, buf.data().size(), out, false, 64));
  EXPECT_EQ(vec({1, hash({{"a", 2}})}), out);
}

TEST(Deserialize, ASymbolKeyIsInternedBeforeItIsRejected) {
  const uint32_t before = VObject::intern("just before the key");
  EXPECT_FAILS("VObject::deserialize_hash: only hash keys of type string are supported",
               read("08 06 05 7E 6B 65 79 7E 81 09"));
  EXPECT_EQ(before + 1, VObject::intern("~key~"));
}

TEST(Deserialize, TheCheckingPassInternsNothing) {
  const uint32_t before = VObject::intern("just before the check");
  EXPECT_FAILS("VObject::deserialize_array: buffer underrun", read("0A 06 05 7E 73 79 6D 7E"));
  EXPECT_EQ(before + 1, VObject::intern("just after the check"));
}

TEST(Deserialize, EveryFaultHasItsTextAndPosition) {
  expect_rejected("VObject::deserialize: buffer underrun", "", 0);
  expect_rejected("VObject::deserialize: buffer underrun decoding integer", "A0", 1);
  expect_rejected("VObject::deserialize: buffer underrun decoding integer", "A0 80", 2);
  expect_rejected("VObject::deserialize: unrecognized protocol transport type", "09", 1);
  expect_rejected("VObject::deserialize: unrecognized protocol transport type", "0B", 1);
  expect_rejected("VObject::deserialize: unrecognized protocol transport type", "0C", 1);
  expect_rejected("VObject::deserialize: unrecognized protocol transport type", "7F", 1);
  expect_rejected("VObject::deserialize: unrecognized protocol transport type", "08 05 01 6B 09", 5);
  expect_rejected("VObject::deserialize: unrecognized protocol transport type", "0A 09", 2);
  expect_rejected("VObject::deserialize_str: buffer underrun decoding data length", "05", 1);
  expect_rejected("VObject::deserialize_str: buffer underrun decoding data length", "07 80", 2);
  expect_rejected("VObject::deserialize_float: buffer underrun", "03 00 00 00", 1);
  expect_rejected("VObject::deserialize_double: buffer underrun", "04 00 00 00 00 00 00 00", 1);
  expect_rejected("VObject::deserialize_hash: buffer underrun", "08", 1);
  expect_rejected("VObject::deserialize_hash: buffer underrun", "08 05 01 6B 81", 5);
  expect_rejected("VObject::deserialize: buffer underrun", "08 05 01 6B", 4);
  expect_rejected("VObject::deserialize_array: buffer underrun", "0A", 1);
  expect_rejected("VObject::deserialize_array: buffer underrun", "0A 81", 2);
  expect_rejected("VObject::deserialize_array: buffer underrun", "0A 05 7F 61 0B", 130);
}

TEST(Deserialize, AStringThatIsTooLongIsFoundInTheBuildingPass) {
  Source buf("05 03 61 62");
  VObject out("old");
  EXPECT_FAILS("VObject::deserialize_str: buffer underrun extracting data bytes",
               VObject::deserialize(buf, buf.data().size(), out, false, 64));
  EXPECT_EQ(DT_NIL, out.type());
  EXPECT_EQ(2U, buf.pos());

  // A key's length reaches over the rest of the hash: the first pass steps over it and finds no end.
  expect_rejected("VObject::deserialize: buffer underrun", "08 05 7F 61 81 09", 130);
}

TEST(Deserialize, AStringMustEndInsideThePayload) {
  Source buf("05 03 61 62 63");
  buf.narrow(0, 4);
  VObject out;
  EXPECT_FAILS("VObject::deserialize_str: buffer underrun extracting data bytes",
               VObject::deserialize(buf, 5, out, false, 64));
  buf.set_pos(0);
  buf.narrow(0, 5);
  VObject::deserialize(buf, 5, out, false, 64);
  EXPECT_EQ(VObject("abc"), out);

  Source key("08 05 01 6B 81 09");
  key.narrow(0, 6);
  VObject::deserialize(key, 6, out, false, 64);
  EXPECT_EQ(hash({{"k", 1}}), out);
}

TEST(Deserialize, TheEndStopsValuesNotBodies) {
  // No value starts at or behind the end; a body that has begun may run past it, inside the payload.
  Source str("05 03 61 62 63");
  VObject out;
  VObject::deserialize(str, 1, out, false, 64);
  EXPECT_EQ(VObject("abc"), out);
  Source number("A0 01");
  VObject::deserialize(number, 1, out, false, 64);
  EXPECT_EQ(VObject(32), out);
  Source array("0A 81 0B");
  EXPECT_FAILS("VObject::deserialize_array: buffer underrun", VObject::deserialize(array, 2, out, false, 64));
  Source scalar("81");
  EXPECT_FAILS("VObject::deserialize: buffer underrun", VObject::deserialize(scalar, 0, out, false, 64));
  Source hash_end("08 09");
  EXPECT_FAILS("VObject::deserialize_hash: buffer underrun", VObject::deserialize(hash_end, 1, out, false, 64));
}

TEST(Deserialize, AnEndInsideAValueIsFoundBeforeAnythingIsBuilt) {
  const std::string hex = "08 05 01 61 0A 81 82 0B 09";
  Source whole(hex);
  VObject value;
  VObject::deserialize(whole, 9, value, false, 64);
  EXPECT_EQ(hash({{"a", vec({1, 2})}}), value);
  for (uint64_t end = 0; end < 9; ++end) {
    Source buf(hex);
    VObject out("untouched");
    EXPECT_THROW(VObject::deserialize(buf, end, out, false, 64), VornRuntimeError) << end;
    EXPECT_EQ(VObject("untouched"), out) << end;
  }
}

TEST(Deserialize, AnEndBehindTheDataReadsNothingThere) {
  VObject out;
  for (const uint64_t end : {uint64_t{100}, UINT64_MAX}) {
    Source array("0A 81");
    EXPECT_FAILS("VObject::deserialize_array: buffer underrun", VObject::deserialize(array, end, out, false, 64));
    Source hash("08 05 01 6B 81");
    EXPECT_FAILS("VObject::deserialize_hash: buffer underrun", VObject::deserialize(hash, end, out, false, 64));
    Source empty("");
    EXPECT_FAILS("VObject::deserialize: buffer underrun", VObject::deserialize(empty, end, out, false, 64));
    Source whole("81");
    VObject::deserialize(whole, end, out, false, 64);
    EXPECT_EQ(VObject(1), out);
    whole.set_pos(50);
    EXPECT_FAILS("VObject::deserialize: buffer underrun", VObject::deserialize(whole, end, out, false, 64));
    EXPECT_EQ(50U, whole.pos());
    whole.set_pos(UINT64_MAX);
    EXPECT_FAILS("VObject::deserialize: buffer underrun", VObject::deserialize(whole, end, out, false, 64));
  }
}

TEST(Deserialize, APositionBeforeThePayloadIsAnUnderrun) {
  Source buf("81 82 83");
  buf.narrow(1, 3);
  VObject out("untouched");
  EXPECT_FAILS("VObject::deserialize: buffer underrun", VObject::deserialize(buf, 3, out, false, 64));
  EXPECT_EQ(VObject("untouched"), out);
  buf.set_pos(1);
  VObject::deserialize(buf, 3, out, false, 64);
  EXPECT_EQ(VObject(2), out);
}

TEST(Deserialize, AnEmptyStringNeedsNoBytesAtTheVeryEnd) {
  Source buf("FF 05 00");
  buf.narrow(1, 3);
  buf.set_pos(1);
  VObject out;
  VObject::deserialize(buf, 3, out, false, 64);
  EXPECT_EQ(VObject(""), out);
}

TEST(Deserialize, CountsDepthLikeTheWriter) {
  EXPECT_EQ(VObject(1), read("81", 1));
  EXPECT_EQ(vec({}), read("0A 0B", 1));
  EXPECT_EQ(hash({}), read("08 09", 1));
  expect_rejected("VObject::deserialize: maxdepth exceeded", "0A 81 0B", 1, 1);
  expect_rejected("VObject::deserialize: maxdepth exceeded", "08 05 01 6B 81 09", 1, 1);
  expect_rejected("VObject::deserialize: maxdepth exceeded", "81", 0, 0);
  expect_rejected("VObject::deserialize: maxdepth exceeded", "81", 0, 0x80000000U);
  expect_rejected("VObject::deserialize: maxdepth exceeded", "81", 0, UINT32_MAX);
  EXPECT_EQ(VObject(1), read("81", INT32_MAX));
  EXPECT_EQ(hash({{"k", 1}}), read("08 05 01 6B 81 09", 2));
}

std::string nested(int levels, const std::string& inside) {
  std::string hex;
  for (int i = 0; i < levels; ++i) hex += "0A ";
  hex += inside;
  for (int i = 0; i < levels; ++i) hex += " 0B";
  return hex;
}

TEST(Deserialize, SixtyFourLevels) {
  EXPECT_NO_THROW(read(nested(63, "81")));
  EXPECT_NO_THROW(read(nested(64, "")));
  EXPECT_FAILS("VObject::deserialize: maxdepth exceeded", read(nested(64, "81")));
}

TEST(Deserialize, DeeplyNestedArraysKeepTheirOrderOfCounts) {
  EXPECT_EQ(vec({vec({1, 2}), vec({vec({3}), 4, 5}), vec({})}), read("0A 0A 81 82 0B 0A 0A 83 0B 84 85 0B 0A 0B 0B"));
}

TEST(Deserialize, ADecodedVectorHasExactlyTheCapacityThatItNeeds) {
  EXPECT_EQ(3U, read("0A 00 00 00 0B").getvec().capacity());
  EXPECT_EQ(0U, read("0A 0B").getvec().capacity());
  for (const size_t n : {1, 2, 7, 100, 1000}) {
    VObject v = VObject::new_vector();
    for (size_t i = 0; i < n; ++i) v.append(vec({static_cast<int64_t>(i), vec({1, 2, 3})}));
    VObject copy;
    deep_copy(v, copy);
    EXPECT_EQ(n, copy.getvec().capacity());
    for (const VObject& element : copy.getvec()) {
      EXPECT_EQ(2U, element.getvec().capacity());
      EXPECT_EQ(3U, element.getvec()[1].getvec().capacity());
    }
  }
}

TEST(Deserialize, WritesOverTheTargetItselfWhateverItWas) {
  const auto referent = boost::make_shared<VObject>("kept");
  VObject out;
  out = referent;
  Source buf("05 01 61 0A 0B");
  VObject::deserialize(buf, 5, out, false, 64);
  EXPECT_EQ(DT_STR, out.type()) << "a reference is replaced, not followed";
  EXPECT_EQ("kept", referent->getstr());
  VObject shared = vec({1});
  const VObject sharer = shared;
  VObject::deserialize(buf, 5, shared, false, 64);
  EXPECT_EQ(vec({}), shared);
  EXPECT_EQ(vec({1}), sharer) << "what was shared is left to the others";
}

TEST(Deserialize, ReadsValuesOneAfterAnother) {
  Source buf("81 05 01 61 0A 0B");
  VObject out;
  VObject::deserialize(buf, 6, out, false, 64);
  EXPECT_EQ(1U, buf.pos());
  VObject::deserialize(buf, 6, out, false, 64);
  EXPECT_EQ(4U, buf.pos());
  VObject::deserialize(buf, 6, out, false, 64);
  EXPECT_EQ(6U, buf.pos());
}

TEST(Deserialize, IsTheInverseOfSerialize) {
  RandomValues random(11);
  for (int i = 0; i < 5000; ++i) {
    const VObject v = random.value(4);
    const std::string bytes = encoded(v);
    Source buf(to_hex(bytes));
    VObject back;
    VObject::deserialize(buf, bytes.size(), back, false, 64);
    ASSERT_EQ(bytes.size(), buf.pos());
    ASSERT_EQ(v, back);
    ASSERT_EQ(bytes, encoded(back)) << "zeros keep their sign";
  }
  const VObject nan(std::nan(""));
  EXPECT_TRUE(std::isnan(std::strtod(rendered(read(to_hex(encoded(nan)))).c_str(), nullptr)));
}

TEST(Deserialize, EveryTruncationIsAFailureOfTheLibrary) {
  RandomValues random(12);
  for (int i = 0; i < 300; ++i) {
    const std::string bytes = encoded(random.value(3));
    for (size_t n = 0; n < bytes.size(); ++n) {
      // Copied to a block of its own size, so that a sanitizer sees one byte too far.
      Source buf(to_hex(bytes.substr(0, n)));
      VObject out;
      ASSERT_THROW(VObject::deserialize(buf, UINT64_MAX, out, false, 64), VornRuntimeError);
    }
  }
}

TEST(Deserialize, RandomBytesEndInAValueOrAFailure) {
  std::mt19937 random(13);
  for (int i = 0; i < 50000; ++i) {
    PROTO::PacketBuf buf;
    const unsigned n = random() % 24;
    for (unsigned j = 0; j < n; ++j) buf.write_byte(static_cast<uint8_t>(random() % 3 == 0 ? random() : random() % 12));
    buf.set_pos(0);
    VObject out;
    try {
      VObject::deserialize(buf, n, out, true, 8);
      ASSERT_LE(buf.pos(), n);
    } catch (const VornRuntimeError&) {
    }
  }
}

}  // namespace
