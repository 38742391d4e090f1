#include "packing/packable.h"

#include <boost/make_shared.hpp>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "packing/packed_time.h"
#include "packing/packing_error.h"
#include "test/support/packing_notation.h"
#include "vobject/render.h"

using namespace VORN;
using namespace VORN::PACKING;
using vorn_test::Point;

namespace {

template <typename T>
void expect_refused(const VObject& value) {
  try {
    get<T>(value);
    ADD_FAILURE() << value;
  } catch (const Error&) {
    ADD_FAILURE() << "a type that throws this would not be Malformed";
  } catch (const VornRuntimeError& e) {
    EXPECT_STREQ("get: another kind of value", e.what());
  }
}

TEST(Packable, ObjectsAreHeld) {
  const VObject value = variant_of(Date{2024, 2, 29});
  EXPECT_EQ(DT_UDT, value.type());
  EXPECT_EQ((Date{2024, 2, 29}), get<Date>(value));
  EXPECT_EQ(nullptr, get_if<Time>(value));
  expect_refused<Time>(value);
  expect_refused<int64_t>(value);
  for (const VObject& other : {VObject(), VObject(1), VObject("2024-02-29"), VObject::new_hash()}) {
    EXPECT_EQ(nullptr, get_if<Date>(other));
    expect_refused<Date>(other);
  }
  VObject empty;
  empty.reset_udt();
  EXPECT_EQ(nullptr, get_if<Date>(empty));
}

TEST(Packable, Equality) {
  EXPECT_EQ(variant_of(Date{2024, 2, 29}), variant_of(Date{2024, 2, 29}));
  EXPECT_NE(variant_of(Date{2024, 2, 29}), variant_of(Date{2024, 2, 28}));
  EXPECT_NE(variant_of(Date()), variant_of(Time()));
  EXPECT_NE(variant_of(Time()), variant_of(Date()));
}

TEST(Packable, Rendering) {
  std::string text;
  render(variant_of(Time()), text);
  EXPECT_EQ("<OBJECT>", text);
}

TEST(Packable, KindsOfTheVariant) {
  EXPECT_EQ(VObject(true), variant_of(true));
  EXPECT_EQ(VObject(5), variant_of(int8_t{5}));
  EXPECT_EQ(VObject(2.5), variant_of(2.5));
  EXPECT_EQ(VObject(std::string("a\0b", 3)), variant_of(std::string("a\0b", 3)));
  EXPECT_EQ(VObject::new_hash(), variant_of(VObject::new_hash()));
  EXPECT_EQ(VObject(), variant_of(std::optional<int>()));
  EXPECT_EQ(VObject(3), variant_of(std::optional<int>(3)));
  EXPECT_EQ(variant_of(Date()), variant_of(std::optional<Date>(Date())));

  EXPECT_TRUE(get<bool>(true));
  EXPECT_EQ(2.5, get<double>(2.5));
  EXPECT_EQ(3.0, get<double>(3));
  EXPECT_TRUE(std::isnan(get<double>(std::nan(""))));
  EXPECT_EQ(std::string("a\0b", 3), get<std::string>(VObject("a\0b", 3)));
  EXPECT_EQ(VObject("x"), get<VObject>("x"));
  EXPECT_EQ(std::nullopt, get<std::optional<int>>(VObject()));
  EXPECT_EQ(3, get<std::optional<int>>(3));
  EXPECT_EQ(Date(), get<std::optional<Date>>(variant_of(Date())));
}

// What to_i64(), to_bool() and others would convert.
TEST(Packable, NothingIsConverted) {
  VObject symbol("name");
  symbol.intern();
  for (const VObject& value : {VObject(), VObject("1"), symbol, VObject(VObjectVector{1}), VObject::new_hash()}) {
    expect_refused<int64_t>(value);
    expect_refused<uint64_t>(value);
    expect_refused<bool>(value);
    expect_refused<double>(value);
    expect_refused<Integer>(value);
  }
  expect_refused<int64_t>(1.0);
  expect_refused<int64_t>(true);
  expect_refused<bool>(1);
  expect_refused<double>(true);
  expect_refused<std::string>(symbol);
  expect_refused<std::string>(5);
  expect_refused<std::optional<int>>("");
}

TEST(Packable, RangesOfIntegers) {
  EXPECT_EQ(127, get<int8_t>(127));
  expect_refused<int8_t>(128);
  EXPECT_EQ(-128, get<int8_t>(-128));
  expect_refused<int8_t>(-129);
  EXPECT_EQ(UINT32_MAX, get<uint32_t>(int64_t{UINT32_MAX}));
  expect_refused<uint32_t>(int64_t{UINT32_MAX} + 1);
  expect_refused<uint32_t>(-1);
  EXPECT_EQ(INT64_MIN, get<int64_t>(INT64_MIN));
  expect_refused<uint64_t>(-1);
}

TEST(Packable, IntegersBeyondTheVariant) {
  EXPECT_EQ(DT_INT, variant_of(uint64_t{INT64_MAX}).type());
  const VObject large = variant_of(UINT64_MAX);
  EXPECT_EQ(Integer(UINT64_MAX), *get_if<Integer>(large));
  EXPECT_EQ(UINT64_MAX, get<uint64_t>(large));
  EXPECT_EQ(large, variant_of(18446744073709551615ULL));
  EXPECT_EQ(ULLONG_MAX, get<unsigned long long>(large)) << "another type than uint64_t";
  expect_refused<uint32_t>(large);
  EXPECT_EQ(Integer(UINT64_MAX), get<Integer>(large));
  expect_refused<int64_t>(large);
  expect_refused<uint64_t>(variant_of(Integer("18446744073709551616")));
  expect_refused<uint64_t>(variant_of(Integer("-9223372036854775809")));

  EXPECT_EQ(VObject(INT64_MIN), variant_of(Integer("-9223372036854775808")));
  EXPECT_EQ(DT_UDT, variant_of(Integer("-9223372036854775809")).type());
  EXPECT_EQ(Integer(-5), get<Integer>(-5));
}

TEST(Packable, References) {
  VObject reference;
  reference = boost::make_shared<VObject>(variant_of(Date()));
  EXPECT_EQ(Date(), *get_if<Date>(reference));
  expect_refused<Date>(reference);
  expect_refused<bool>(reference);
}

TEST(Packable, MembersShare) {
  const Point point{VObject(VObjectVector{1}), VObject()};
  const VObject value = variant_of(point);
  get<Point>(value).x.append(2);
  EXPECT_EQ(2U, point.x.getvec().size());
}

}  // namespace
