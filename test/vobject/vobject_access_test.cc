#include <cfloat>
#include <climits>
#include <cmath>
#include <limits>

#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

VObject symbol(const char* name) {
  VObject v(name);
  v.intern();
  return v;
}

TEST(TypedAccess, FollowsReferences) {
  EXPECT_EQ("text", make_ref(make_ref("text")).getstr());
  EXPECT_EQ(1U, make_ref(hash({{"k", 1}})).gethash().size());
  EXPECT_EQ(2U, make_ref(vec({1, 2})).getvec().size());
  const VObject ref_to_symbol = make_ref(symbol("s"));
  EXPECT_EQ(VObject::intern("s"), ref_to_symbol.intern());
}

TEST(TypedAccess, RejectsOtherKinds) {
  const VObject values[] = {VObject(),       VObject(1),          VObject(1.5),          VObject(true),     symbol("s"),
                            VObject("text"), VObject::new_hash(), VObject::new_vector(), VObject(number(1))};
  for (const VObject& v : values) {
    for (const VObject& x : {v, make_ref(v)}) {
      VObject y(x);
      if (v.type() != DT_STR) {
        EXPECT_FAILS("VObject::getstr: data type not DT_STR", x.getstr());
        EXPECT_FAILS("VObject::getstr: data type not DT_STR", y.getstr());
      }
      if (v.type() != DT_HASH) {
        EXPECT_FAILS("VObject::gethash: data type not DT_HASH", x.gethash());
        EXPECT_FAILS("VObject::gethash: data type not DT_HASH", y.gethash());
      }
      if (v.type() != DT_VECTOR) {
        EXPECT_FAILS("VObject::getvec: data type not DT_VECTOR", x.getvec());
        EXPECT_FAILS("VObject::getvec: data type not DT_VECTOR", y.getvec());
      }
      if (v.type() != DT_SYMBOL) EXPECT_FAILS("VObject::intern: data type not DT_SYMBOL", x.intern());
    }
  }
}

TEST(StrOrSymbolName, GivesTextsAndNames) {
  EXPECT_EQ("text", VObject("text").str_or_symbol_name());
  EXPECT_EQ("name", symbol("name").str_or_symbol_name());
  EXPECT_EQ("text", make_ref("text").str_or_symbol_name());
}

TEST(StrOrSymbolName, IsEmptyForOtherKindsAndAlwaysTheSame) {
  const VObjectString* const none = &VObject().str_or_symbol_name();
  EXPECT_EQ("", *none);
  for (const VObject& v :
       {VObject(1), VObject(1.5), VObject(true), VObject::new_hash(), VObject::new_vector(), VObject(number(1))}) {
    EXPECT_EQ(none, &v.str_or_symbol_name());
  }
}

TEST(StrOrSymbolName, OnAReferenceTakesStringsOnly) {
  EXPECT_FAILS("VObject::getstr: data type not DT_STR", make_ref(symbol("name")).str_or_symbol_name());
  EXPECT_FAILS("VObject::getstr: data type not DT_STR", make_ref(1).str_or_symbol_name());
  EXPECT_EQ("text", make_ref(make_ref("text")).str_or_symbol_name());
}

TEST(ToI64, OfEachKind) {
  EXPECT_EQ(0, VObject().to_i64());
  EXPECT_EQ(0, symbol("s").to_i64());
  EXPECT_EQ(0, hash({{"k", 1}}).to_i64());
  EXPECT_EQ(0, vec({1}).to_i64());
  EXPECT_EQ(0, VObject(number(5)).to_i64());
  EXPECT_EQ(INT64_MIN, VObject(INT64_MIN).to_i64());
  EXPECT_EQ(1, VObject(true).to_i64());
  EXPECT_EQ(0, VObject(false).to_i64());
  EXPECT_EQ(9, make_ref(make_ref(9)).to_i64());
}

TEST(ToI64, CutsDoublesTowardsZero) {
  EXPECT_EQ(1, VObject(1.9).to_i64());
  EXPECT_EQ(-1, VObject(-1.9).to_i64());
  EXPECT_EQ(0, VObject(-0.0).to_i64());
  EXPECT_EQ(INT64_MIN, VObject(-9223372036854775808.0).to_i64());
  EXPECT_EQ(9223372036854774784, VObject(9223372036854774784.0).to_i64());
}

TEST(ToI64, OfADoubleThatDoesNotFitIsTheMostNegative) {
  for (const double d : {9223372036854775808.0, 1e300, -1e300, HUGE_VAL, -HUGE_VAL, std::nan("")}) {
    EXPECT_EQ(INT64_MIN, VObject(d).to_i64());
  }
}

TEST(ToI64, ReadsStringsAsAtoiDoes) {
  EXPECT_EQ(42, VObject("42").to_i64());
  EXPECT_EQ(-7, VObject("  -7x").to_i64());
  EXPECT_EQ(0, VObject("abc").to_i64());
  EXPECT_EQ(0, VObject("").to_i64());
  EXPECT_EQ(1, VObject("1\0002", 3).to_i64());
  EXPECT_EQ(std::atoi("4294967296"), VObject("4294967296").to_i64());  // NOLINT(cert-err34-c)
  EXPECT_NE(4294967296, VObject("4294967296").to_i64());
}

TEST(ToBool, OfEachKind) {
  EXPECT_FALSE(VObject().to_bool());
  EXPECT_FALSE(VObject(0).to_bool());
  EXPECT_TRUE(VObject(-1).to_bool());
  EXPECT_TRUE(VObject(int64_t{1} << 40).to_bool());
  EXPECT_FALSE(VObject(false).to_bool());
  EXPECT_TRUE(VObject(true).to_bool());
  EXPECT_FALSE(VObject(0.0).to_bool());
  EXPECT_FALSE(VObject(-0.0).to_bool());
  EXPECT_TRUE(VObject(0.1).to_bool());
  EXPECT_TRUE(VObject(std::nan("")).to_bool());
  EXPECT_TRUE(symbol("").to_bool());
  EXPECT_TRUE(VObject::new_hash().to_bool());
  EXPECT_TRUE(VObject::new_vector().to_bool());
  EXPECT_TRUE(VObject(number(0)).to_bool());
  EXPECT_FALSE(VObject(boost::shared_ptr<VObjectUDT>()).to_bool());
  EXPECT_FALSE(make_ref(0).to_bool());
  EXPECT_TRUE(make_ref(make_ref(1)).to_bool());
}

TEST(ToBool, ReadsStringsAsNumbers) {
  for (const char* text : {"", "0", "abc", "true", "-0"}) EXPECT_FALSE(VObject(text).to_bool()) << text;
  for (const char* text : {"1", "7x", "-1"}) EXPECT_TRUE(VObject(text).to_bool()) << text;
}

TEST(Conversions, OfAForeignTagGiveTheRawWord) {
  VObject v(77);
  force_tag(v, 12);
  EXPECT_EQ(77, v.to_i64());
}

TEST(Access, OfAUserDefinedObjectIsNullForOtherKinds) {
  const auto object = number(1);
  EXPECT_EQ(object.get(), VObject(object).udt());
  EXPECT_EQ(object.get(), make_ref(VObject(object)).udt());
  for (const VObject& v : {VObject(), VObject(1), VObject("text"), hash({}), vec({1}), make_ref(2)}) {
    EXPECT_EQ(nullptr, v.udt()) << rendered(v);
  }
}

TEST(Conversions, OfAWideBooleanAreOneAndTrue) {
  VObject v(true);
  int64_t wide = int64_t{1} << 40;
  std::memcpy(static_cast<void*>(&v), &wide, sizeof wide);
  EXPECT_EQ(1, v.to_i64());
  EXPECT_TRUE(v.to_bool());
  EXPECT_EQ(VObject(true), v);
  EXPECT_EQ("true", rendered(v));
  EXPECT_EQ("02", to_hex(encoded(v)));
}

TEST(ToDouble, IsExact) {
  EXPECT_EQ(0.1, to_double(0.1));
  EXPECT_EQ(DBL_TRUE_MIN, to_double(DBL_TRUE_MIN));
  EXPECT_TRUE(std::signbit(to_double(-0.0)));
  EXPECT_TRUE(std::isnan(to_double(NAN)));
  EXPECT_EQ(-HUGE_VAL, to_double(-HUGE_VAL));
  EXPECT_EQ(-7.0, to_double(-7));
  EXPECT_EQ(9007199254740992.0, to_double(int64_t{9007199254740993})) << "2^53 + 1 is no double";
  EXPECT_EQ(-9223372036854775808.0, to_double(INT64_MIN));
  EXPECT_EQ(2.5, to_double(make_ref(2.5)));
  EXPECT_EQ(3.0, to_double(make_ref(3)));
}

TEST(ToDouble, RejectsOtherKinds) {
  for (const VObject& v : {VObject(), VObject(true), VObject("1.5"), VObject::new_hash(), VObject::new_vector(),
                           VObject(number(1)), make_ref("1.5")}) {
    EXPECT_FAILS("to_double: neither an integer nor a double", to_double(v));
  }
}

}  // namespace
