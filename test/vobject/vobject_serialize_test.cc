#include <climits>

#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

std::string written(const VObject& v) {
  return to_hex(encoded(v));
}

TEST(Serialize, Scalars) {
  EXPECT_EQ("00", written(VObject()));
  EXPECT_EQ("01", written(false));
  EXPECT_EQ("02", written(true));
  EXPECT_EQ("80", written(0));
  EXPECT_EQ("C1", written(-1));
  EXPECT_EQ("A0 01", written(32));
  EXPECT_EQ("E0 80 80 80 80 80 80 80 80 04", written(INT64_MIN));
  EXPECT_EQ("BF FF FF FF FF FF FF FF FF 03", written(INT64_MAX));
  EXPECT_EQ("04 3F F8 00 00 00 00 00 00", written(1.5));
  EXPECT_EQ("04 3F F8 00 00 00 00 00 00", written(1.5F)) << "no single precision is written";
}

TEST(Serialize, StringsAndSymbols) {
  EXPECT_EQ("07 00", written(""));
  EXPECT_EQ("07 02 61 62", written("ab"));
  EXPECT_EQ("07 03 61 00 62", written(VObject("a\0b", 3)));
  EXPECT_EQ("06 03 61 62 63", written(VObject("abc").intern()));
  EXPECT_EQ("07 80 01", written(std::string(128, 'x')).substr(0, 8));
}

TEST(Serialize, Containers) {
  EXPECT_EQ("08 09", written(VObject::new_hash()));
  EXPECT_EQ("0A 0B", written(VObject::new_vector()));
  EXPECT_EQ("08 05 01 6B 00 09", written(hash({{"k", VObject()}})));
  EXPECT_EQ("0A 81 0A 82 0B 0B", written(vec({1, vec({2})})));
}

TEST(Serialize, HashesInTheOrderOfTheirKeys) {
  EXPECT_EQ("08 05 01 61 82 05 02 61 62 83 05 01 62 81 09", written(hash({{"b", 1}, {"a", 2}, {"ab", 3}})));
}

TEST(Serialize, CountsDepthFromOne) {
  PROTO::PacketBuf buf;
  EXPECT_FAILS("VObject::serialize: maxdepth exceeded", VObject(1).serialize(buf, 0));
  EXPECT_EQ(0U, buf.pos());
  VObject(1).serialize(buf, 1);
  vec({1}).serialize(buf, 2);
  EXPECT_EQ("81 0A 81 0B", to_hex(buf.data()));
}

TEST(Serialize, CountsDepthInHashesToo) {
  PROTO::PacketBuf buf;
  const VObject nested = hash({{"a", hash({{"b", vec({1})}})}});
  nested.serialize(buf, 4);
  EXPECT_FAILS("VObject::serialize: maxdepth exceeded", nested.serialize(buf, 3));
  EXPECT_FAILS("VObject::serialize: maxdepth exceeded", nested.serialize(buf, 1));
  EXPECT_FAILS("VObject::serialize: maxdepth exceeded", hash({{"a", hash({{"b", 1}})}}).serialize(buf, 2));
}

TEST(Serialize, ThatFailsLeavesWhatIsWritten) {
  PROTO::PacketBuf buf;
  EXPECT_FAILS("VObject::serialize: maxdepth exceeded", vec({vec({1})}).serialize(buf, 2));
  EXPECT_EQ("0A 0A", to_hex(buf.data()));
  EXPECT_EQ(2U, buf.pos());
}

TEST(Serialize, ALimitFromTwoToThe31OnCountsAsNegative) {
  PROTO::PacketBuf buf;
  EXPECT_FAILS("VObject::serialize: maxdepth exceeded", VObject(1).serialize(buf, 0x80000000U));
  EXPECT_FAILS("VObject::serialize: maxdepth exceeded", VObject(1).serialize(buf, UINT32_MAX));
  VObject(1).serialize(buf, INT32_MAX);
  EXPECT_EQ(1U, buf.pos());
}

TEST(Serialize, SixtyFourLevels) {
  VObject v = VObject::new_vector();
  for (int i = 1; i < 64; ++i) v = vec({VObject(v)});
  PROTO::PacketBuf buf;
  v.serialize(buf, 64);
  EXPECT_EQ(128U, buf.pos());
  EXPECT_FAILS("VObject::serialize: maxdepth exceeded", vec({VObject(v)}).serialize(buf, 64));
}

TEST(Serialize, RejectsWhatHasNoEncoding) {
  PROTO::PacketBuf buf;
  EXPECT_FAILS("VObject::serialize: serialization of DT_UDT not yet supported", VObject(number(1)).serialize(buf, 64));
  EXPECT_FAILS("VObject::serialize: serialization of DT_UDT not yet supported",
               VObject(boost::shared_ptr<VObjectUDT>()).serialize(buf, 64));
  EXPECT_FAILS("VObject::serialize: serialization of DT_REF not yet supported", make_ref(1).serialize(buf, 64));
  VObject foreign(1);
  force_tag(foreign, 12);
  EXPECT_FAILS("VObject::serialize: unrecognized data type", foreign.serialize(buf, 64));
  EXPECT_EQ(0U, buf.pos());
  EXPECT_FAILS("VObject::serialize: serialization of DT_REF not yet supported",
               hash({{"a", make_ref(1)}}).serialize(buf, 64));
  EXPECT_EQ("08 05 01 61", to_hex(buf.data()));
}

TEST(Serialize, OverwritesAtThePosition) {
  PROTO::PacketBuf buf;
  buf.write_bytes("\xFF\xFF\xFF\xFF", 4);
  buf.set_pos(1);
  vec({1}).serialize(buf, 64);
  EXPECT_EQ("FF 0A 81 0B", to_hex(buf.data()));
  buf.set_pos(3);
  vec({}).serialize(buf, 64);
  EXPECT_EQ("FF 0A 81 0A 0B", to_hex(buf.data()));
  buf.set_pos(6);
  VObject().serialize(buf, 64);
  EXPECT_EQ("FF 0A 81 0A 0B 00 00", to_hex(buf.data())) << "a gap is filled with zeros";
}

}  // namespace
