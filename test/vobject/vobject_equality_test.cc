#include <cmath>

#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

TEST(Equality, WithinOneKind) {
  EXPECT_EQ(VObject(), VObject());
  EXPECT_EQ(VObject(1), VObject(1));
  EXPECT_NE(VObject(1), VObject(2));
  EXPECT_NE(VObject(1), VObject((int64_t{1} << 32) + 1));
  EXPECT_EQ(VObject(0.0), VObject(-0.0));
  EXPECT_NE(VObject(1.0), VObject(1.5));
  EXPECT_EQ(VObject(true), VObject(true));
  EXPECT_NE(VObject(true), VObject(false));
  EXPECT_EQ(VObject("a"), VObject("a"));
  EXPECT_NE(VObject("a"), VObject("ab"));
  EXPECT_NE(VObject("a\0b", 3), VObject("a\0c", 3));
  EXPECT_EQ(VObject("s").intern(), VObject("s").intern());
  EXPECT_NE(VObject("s").intern(), VObject("t").intern());
  EXPECT_EQ(VObject(number(1)), VObject(number(1)));
  EXPECT_NE(VObject(number(1)), VObject(number(2)));
}

TEST(Equality, NeverAcrossKinds) {
  const VObject values[] = {
      VObject(),    VObject(1),          VObject(1.0),          VObject(true),     VObject("1").intern(),
      VObject("1"), VObject::new_hash(), VObject::new_vector(), VObject(number(1))};
  for (const VObject& a : values) {
    for (const VObject& b : values) EXPECT_EQ(&a == &b, a == b) << rendered(a) << " " << rendered(b);
  }
}

TEST(Equality, NaNEqualsNothingElse) {
  const VObject nan(std::nan(""));
  const VObject copy(nan);
  EXPECT_NE(nan, copy);
  EXPECT_TRUE(nan == nan) << "but one object is always equal to itself";
  EXPECT_NE(vec({nan}), vec({nan}));
  const VObject shared = vec({nan});
  EXPECT_EQ(shared, VObject(shared)) << "shared elements are the same objects";
}

TEST(Equality, OfHashes) {
  EXPECT_EQ(hash({{"a", 1}, {"b", 2}}), hash({{"b", 2}, {"a", 1}}));
  EXPECT_NE(hash({{"a", 1}}), hash({{"a", 2}}));
  EXPECT_NE(hash({{"a", 1}}), hash({{"b", 1}}));
  EXPECT_NE(hash({{"a", 1}}), hash({{"a", 1}, {"b", 1}}));
  EXPECT_EQ(hash({{"a", hash({{"b", 1}})}}), hash({{"a", hash({{"b", 1}})}}));
  EXPECT_NE(hash({{"a", hash({{"b", 1}})}}), hash({{"a", hash({{"b", 2}})}}));
}

TEST(Equality, OfVectors) {
  EXPECT_EQ(vec({1, "a"}), vec({1, "a"}));
  EXPECT_NE(vec({1, 2}), vec({2, 1}));
  EXPECT_NE(vec({1}), vec({1, 1}));
  EXPECT_EQ(VObject::new_vector(), VObject::new_vector(5));
  EXPECT_NE(vec({vec({1})}), vec({vec({1.0})}));
}

TEST(Equality, FollowsReferencesOnBothSides) {
  EXPECT_EQ(make_ref(1), VObject(1));
  EXPECT_EQ(VObject(1), make_ref(make_ref(1)));
  EXPECT_EQ(make_ref(1), make_ref(1));
  EXPECT_NE(make_ref(1), make_ref(2));
  EXPECT_EQ(vec({make_ref("a")}), vec({"a"}));
}

TEST(Equality, OfTwoWaysToOneObjectNeedsNoLook) {
  const auto nan = boost::make_shared<VObject>(std::nan(""));
  VObject a;
  VObject b;
  a = nan;
  b = nan;
  EXPECT_EQ(a, b);
  EXPECT_EQ(a, *nan);
  EXPECT_EQ(*nan, b);
  const auto chain = boost::make_shared<VObject>();
  VObject c;
  c = chain;
  *chain = nan;
  EXPECT_EQ(c, a);
  EXPECT_EQ(c, *chain);
}

TEST(Equality, OfForeignTagsIsIdentity) {
  VObject a(1);
  force_tag(a, 12);
  const VObject b(a);
  EXPECT_TRUE(a == a);
  EXPECT_FALSE(a == b);
}

#ifndef NDEBUG

TEST(EqualityDeathTest, UserDefinedValuesHoldObjects) {
  const VObject none{boost::shared_ptr<VObjectUDT>()};
  const VObject some(number(1));
  EXPECT_EQ(none, none);  // never looked at
  EXPECT_DEATH(static_cast<void>(none == some), "udt\\(\\) != nullptr");
  EXPECT_DEATH(static_cast<void>(some == none), "udt\\(\\) != nullptr");
}

#endif

}  // namespace
