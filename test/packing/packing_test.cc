#include "packing/packing.h"

#include <boost/make_shared.hpp>
#include <cstdint>
#include <exception>
#include <functional>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>

#include <gtest/gtest.h>

#include "proto/packet_buf.h"
#include "test/support/expect_thrown.h"
#include "test/support/packing_notation.h"
#include "test/support/packing_values.h"
#include "vobject/vobject.h"

using namespace VORN;
using namespace VORN::PACKING;
using vorn_test::expect_thrown;
using vorn_test::packing_notation_of;
using vorn_test::Point;
using vorn_test::table_packing;

namespace {

VObject hash_of(std::string_view key, const VObject& value) {
  VObject hash = VObject::new_hash();
  hash.store(key, value);
  return hash;
}

VObject there_and_back(const VObject& value, const Packing& packing = table_packing()) {
  PROTO::PacketBuf buf;
  packing.pack(value).serialize(buf, 64);
  const uint64_t end = buf.pos();
  buf.set_pos(0);
  VObject received;
  VObject::deserialize(buf, end, received, false, 64);
  return packing.unpack(received);
}

struct Money {
  Decimal amount;
  std::optional<Time> at;
  bool operator==(const Money& other) const { return amount == other.amount && at == other.at; }
};

// --- round trips ------------------------------------------------------------------------------------------------

TEST(Packing, WhatIsPackedComesBack) {
  vorn_test::PackingValues values(20261122);
  for (int i = 0; i < 5000; ++i) {
    const VObject value = values.next();
    const VObject back = there_and_back(value);
    ASSERT_EQ(value, back) << packing_notation_of(value) << "\n" << packing_notation_of(back);
  }
}

TEST(Packing, IntegersBeyond32BitsAsTheyAreWithoutTheType) {
  const Packing none;
  EXPECT_EQ(VObject(INT64_MAX), none.pack(INT64_MAX));
  EXPECT_EQ(hash_of("~integer", "2147483648"), table_packing().pack(int64_t{1} << 31));
  EXPECT_EQ(VObject(INT32_MAX), table_packing().pack(INT32_MAX));
  EXPECT_EQ(hash_of("~integer", "-2147483649"), table_packing().pack(int64_t{INT32_MIN} - 1));
  EXPECT_EQ(VObject(INT32_MIN), table_packing().pack(INT32_MIN));
}

// --- depth ------------------------------------------------------------------------------------------------------

VObject nested(int levels, VObject innermost) {
  for (; levels > 0; --levels) innermost = VObject(VObjectVector{innermost});
  return innermost;
}

TEST(Packing, DepthIsThatOfTheWire) {
  const int64_t large = int64_t{1} << 40;
  EXPECT_EQ(nested(63, 1), there_and_back(nested(63, 1)));
  EXPECT_EQ(nested(62, large), there_and_back(nested(62, large)));
  EXPECT_EQ(nested(62, variant_of(Date())), there_and_back(nested(62, variant_of(Date()))));
  EXPECT_EQ(nested(63, VObject::new_hash()), there_and_back(nested(63, VObject::new_hash())));
  for (const VObject& value : {nested(64, 1), nested(63, large), nested(63, variant_of(Date())),
                               hash_of("~a", nested(63, 1)), variant_of(Point{nested(62, 1), 1})}) {
    expect_thrown<TooDeep>([&] { table_packing().pack(value); }, "more than 64 levels");
  }
  EXPECT_EQ(nested(63, 1), table_packing().unpack(nested(63, 1)));
  for (const VObject& value : {nested(64, 1), hash_of("~~a", nested(63, 1)), hash_of("~point", nested(63, 1))}) {
    expect_thrown<TooDeep>([&] { table_packing().unpack(value); }, "more than 64 levels");
  }
}

struct Endless {
  bool operator==(const Endless&) const { return true; }
};

TEST(Packing, ValuesThatContainThemselves) {
  VObject vector = VObject::new_vector();
  vector.append(vector);
  VObject hash = VObject::new_hash();
  hash.store("a", hash);
  Packing packing;
  packing.type<Endless>(
      "endless", [](const Endless& object) { return variant_of(object); }, [](const VObject&) { return Endless(); });
  for (const VObject& value : {vector, hash, variant_of(Endless())}) {
    expect_thrown<TooDeep>([&] { packing.pack(value); }, "more than 64 levels");
  }
  expect_thrown<TooDeep>([&] { packing.unpack(vector); }, "more than 64 levels");
  vector.reset_vector(0);
  hash.reset_hash();
}

// --- types ------------------------------------------------------------------------------------------------------

struct Foreign : VObjectUDT {
  bool udt_equals(const VObjectUDT& other) const override { return this == &other; }
  void udt_render(std::string& out) const override { out += "foreign"; }
};

TEST(Packing, NothingIsRegisteredByItself) {
  const Packing none;
  expect_thrown<UnknownType>([&] { none.pack(VObject(VObjectVector{variant_of(Time())})); },
                             std::string("no type is registered for the class ") + typeid(Time).name());
  expect_thrown<UnknownType>([&] { none.pack(variant_of(Integer(UINT64_MAX))); },
                             std::string("no type is registered for the class ") + typeid(Integer).name());
  const boost::shared_ptr<VObjectUDT> foreign = boost::make_shared<Foreign>();
  expect_thrown<UnknownType>([&] { table_packing().pack(VObject(foreign)); },
                             std::string("no type is registered for the class ") + typeid(Foreign).name());
  VObject empty;
  empty.reset_udt();
  expect_thrown<UnknownType>([&] { table_packing().pack(empty); },
                             "no type is registered for a user-defined value without an object");
  VObject reference;
  reference = boost::make_shared<VObject>(1);
  expect_thrown<UnknownType>([&] { table_packing().pack(reference); }, "no type is registered for references");
  expect_thrown<UnknownType>([&] { none.unpack(hash_of("~time", 1)); }, "no type is registered for the tag \"time\"");
}

TEST(Packing, WhatAPeerNamesIsShownSafely) {
  const std::string tag = "~\x1B[2J\xE2\x80\xAE" + std::string(100, 'x');
  expect_thrown<UnknownType>(
      [&] { table_packing().unpack(hash_of(tag, 1)); },
      "no type is registered for the tag \"\\x1b[2J\\xe2\\x80\\xae" + std::string(33, 'x') + "\"");
}

TEST(Packing, TypesWithinTypes) {
  Packing packing{ReadyMade::decimal, ReadyMade::time};
  packing.structure("money", &Money::amount, &Money::at);
  const VObject value(
      VObjectVector{variant_of(Money{Decimal("1.10"), std::nullopt}), variant_of(Money{Decimal("-2"), Time()})});
  EXPECT_EQ(value, there_and_back(value, packing));
  EXPECT_EQ(VObject(VObjectVector{hash_of("~decimal", "0.11e1"), VObject()}),
            packing.pack(value).at(0).fetch("~money"));

  const auto refused = [&](const VObject& body) {
    expect_thrown<Malformed>([&] { packing.unpack(hash_of("~money", body)); }, "cannot unpack the type money");
  };
  const VObject amount = hash_of("~decimal", "0.1e1");
  EXPECT_EQ((Money{Decimal("1"), std::nullopt}),
            get<Money>(packing.unpack(hash_of("~money", VObject(VObjectVector{amount, VObject()})))));
  refused(VObject(VObjectVector{amount}));
  refused(VObject(VObjectVector{amount, VObject(), VObject()}));
  refused(VObject(VObjectVector{amount, 1}));
  refused(VObject(VObjectVector{"0.1e1", VObject()}));
  refused(VObject());
  refused(hash_of("amount", amount));
}

TEST(Packing, NumbersAreStrings) {
  VObject symbol("5");
  symbol.intern();
  for (const VObject& body : {symbol, VObject(5), VObject(), VObject(VObjectVector{"5"})}) {
    expect_thrown<Malformed>([&] { table_packing().unpack(hash_of("~integer", body)); },
                             "cannot unpack the type integer");
  }
}

struct A {
  bool operator==(const A&) const { return true; }
};

TEST(Packing, WhatATypeThrows) {
  const auto packing_that = [](const std::function<void()>& fail) {
    Packing packing;
    const auto pack = [fail](const A&) {
      fail();
      return VObject();
    };
    const auto unpack = [fail](const VObject&) {
      fail();
      return A();
    };
    packing.type<A>("a", pack, unpack);
    return packing;
  };
  const Packing hostile = packing_that([] { throw std::domain_error("hostile"); });
  expect_thrown<std::domain_error>([&] { hostile.pack(variant_of(A())); }, "hostile");
  expect_thrown<Malformed>([&] { hostile.unpack(hash_of("~a", 1)); }, "cannot unpack the type a");
  expect_thrown<std::domain_error>(
      [&] {
        try {
          hostile.unpack(hash_of("~a", 1));
        } catch (const Malformed& e) {
          std::rethrow_if_nested(e);
        }
      },
      "hostile");
  const Packing inner = packing_that([] { table_packing().unpack(hash_of("~none", 1)); });
  expect_thrown<UnknownType>([&] { inner.unpack(hash_of("~a", 1)); }, "no type is registered for the tag \"none\"");
  EXPECT_THROW(packing_that([] { throw std::bad_alloc(); }).unpack(hash_of("~a", 1)), std::bad_alloc);
  EXPECT_THROW(packing_that([] { throw 5; }).unpack(hash_of("~a", 1)), int);
}

TEST(Packing, ObjectsThatCannotBePacked) {
  expect_thrown<std::out_of_range>(
      [] {
        table_packing().pack(variant_of(Date{2023, 2, 29}));
      },
      "no day of the calendar");
  const int64_t most = (int64_t{1} << 31) * 86400;
  const auto time = [](int64_t seconds, int32_t nanosecond, std::optional<int32_t> offset) {
    Time time;
    time.seconds = seconds;
    time.nanosecond = nanosecond;
    time.offset = offset;
    return variant_of(time);
  };
  for (const VObject& good : {time(most - 1, 999999999, 86399), time(-most, 0, -86399), time(-1, 0, 0)}) {
    EXPECT_EQ(good, there_and_back(good));
  }
  for (const VObject& bad : {time(most, 0, 0), time(-most - 1, 0, 0), time(INT64_MAX, 0, 0), time(INT64_MIN, 0, 0),
                             time(0, 1000000000, 0), time(0, -1, 0), time(0, 0, 86400), time(0, 0, -86400)}) {
    expect_thrown<std::out_of_range>([&] { table_packing().pack(bad); }, "a time that cannot be packed");
  }
}

TEST(Packing, DecimalsBelowTheLeastPower) {
  const VObject packed = hash_of("~decimal", "0.05e-4096");
  EXPECT_EQ(packed, table_packing().pack(table_packing().unpack(packed)));
}

TEST(Packing, Registration) {
  const std::function<VObject(const A&)> pack = [](const A&) { return VObject(); };
  const std::function<A(const VObject&)> unpack = [](const VObject&) { return A(); };
  Packing packing{ReadyMade::time};
  for (const char* tag : {"", "~a", "a~", "a b", "\xC3\xA9", "a\n", "a\x7F"}) {
    expect_thrown<std::invalid_argument>([&] { packing.type<A>(tag, pack, unpack); },
                                         "a tag is printable ASCII without blanks and tildes");
  }
  expect_thrown<std::invalid_argument>([&] { packing.type<A>("time", pack, unpack); }, "the tag time is taken");
  expect_thrown<std::invalid_argument>([&] { packing.type<A>("a", nullptr, unpack); }, "a type without a function");
  expect_thrown<std::invalid_argument>([&] { packing.type<A>("a", pack, nullptr); }, "a type without a function");
  packing.type<A>("!a}", pack, unpack);
  expect_thrown<std::invalid_argument>([&] { packing.type<A>("b", pack, unpack); },
                                       std::string("the class ") + typeid(A).name() + " has a type");
  expect_thrown<UnknownType>([&] { packing.unpack(hash_of("~b", 1)); }, "no type is registered for the tag \"b\"");
  EXPECT_EQ(variant_of(A()), there_and_back(variant_of(A()), packing));
  expect_thrown<std::invalid_argument>([] { Packing({ReadyMade::time, ReadyMade::time}); }, "the tag time is taken");
}

TEST(Packing, CopiesAreIndependent) {
  Packing packing{ReadyMade::date};
  Packing copy(packing);
  copy.structure("money", &Money::amount, &Money::at);
  EXPECT_THROW(packing.unpack(hash_of("~money", 1)), UnknownType);
  EXPECT_THROW(copy.unpack(hash_of("~money", 1)), Malformed);
  const Packing moved(std::move(copy));
  EXPECT_THROW(moved.unpack(hash_of("~money", 1)), Malformed);
  packing = moved;
  EXPECT_THROW(packing.unpack(hash_of("~money", 1)), Malformed);
  packing = Packing();
  EXPECT_THROW(packing.unpack(hash_of("~money", 1)), UnknownType);
}

TEST(Packing, NothingOfTheValueIsChanged) {
  VObject value = hash_of("~a", VObject(VObjectVector{"text", variant_of(Date())}));
  const VObject packed = table_packing().pack(value);
  EXPECT_EQ("{t:7E61=[t:74657874 @date:1970-1-1]}", packing_notation_of(value));
  const VObject unpacked = table_packing().unpack(packed);
  EXPECT_EQ("{t:7E7E61=[t:74657874 {t:7E64617465=0}]}", packing_notation_of(packed));
  value.fetch("~a").append(1);
  EXPECT_EQ(2U, packed.fetch("~~a").getvec().size());
  EXPECT_EQ(2U, unpacked.fetch("~a").getvec().size());
  EXPECT_EQ(&value.fetch("~a").at(0).getstr(), &unpacked.fetch("~a").getvec()[0].getstr()) << "strings are shared";
}

}  // namespace
