#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

const char DISPARATE[] = "VObject::merge: Won't merge disparate container and/or user-defined types.";

VObject merged(VObject dst, const VObject& src) {
  dst.merge(src);
  return dst;
}

TEST(Merge, ReplacesScalarsAndStrings) {
  EXPECT_EQ(VObject(1), merged("text", 1));
  EXPECT_EQ(VObject("text"), merged(1, "text"));
  EXPECT_EQ(VObject(2), merged(1, 2));
  EXPECT_EQ(VObject(true), merged(1.5, true));
  EXPECT_EQ(VObject(number(2)), merged(number(1), number(2)));
}

TEST(Merge, WithNilOnEitherSideAssigns) {
  for (const VObject& v :
       {VObject(1), VObject("a"), hash({{"a", 1}}), vec({1}), VObject(number(1)), VObject()}) {
    EXPECT_EQ(v, merged(VObject(), v));
    EXPECT_EQ(storage_of(v), storage_of(merged(VObject(), v)));
    EXPECT_EQ(DT_NIL, merged(v, VObject()).type());
  }
}

TEST(Merge, RejectsDisparateKinds) {
  const VObject values[] = {VObject(1),   VObject(1.5),        VObject(true),         VObject("s").intern(),
                            VObject("a"), VObject::new_hash(), VObject::new_vector(), VObject(number(1))};
  for (const VObject& a : values) {
    for (const VObject& b : values) {
      if (a.type() == b.type() || (a.type() <= DT_STR && b.type() <= DT_STR)) continue;
      VObject dst(a);
      EXPECT_FAILS(DISPARATE, dst.merge(b));
      EXPECT_EQ(a, dst);
    }
  }
}

TEST(Merge, OfVectorsGoesByIndexAndNeverShrinks) {
  EXPECT_EQ(vec({1, 2, 9}), merged(vec({9, 9, 9}), vec({1, 2})));
  EXPECT_EQ(vec({1, 2, 3}), merged(vec({0}), vec({1, 2, 3})));
  EXPECT_EQ(vec({vec({1, 5}), 2}), merged(vec({vec({0, 5})}), vec({vec({1}), 2})));
}

TEST(Merge, OfHashesGoesByKey) {
  EXPECT_EQ(hash({{"a", 1}, {"b", 2}, {"c", 3}}),
            merged(hash({{"a", 0}, {"b", 2}}), hash({{"a", 1}, {"c", 3}})));
  EXPECT_EQ(hash({{"h", hash({{"x", 1}, {"y", 2}})}}),
            merged(hash({{"h", hash({{"x", 1}})}}), hash({{"h", hash({{"y", 2}})}})));
}

TEST(Merge, SharesWhatWasMissing) {
  VObject inner = hash({{"x", 1}});
  VObject dst = VObject::new_hash();
  dst.merge(hash({{"inner", inner}}));
  inner.store("y", 2);
  EXPECT_TRUE(dst.fetch("inner").has_key("y"));
  dst.fetch("inner").store("z", 3);
  EXPECT_TRUE(inner.has_key("z"));
}

TEST(Merge, ReturnsTheTargetAndIsAFreeFunctionToo) {
  VObject r = make_ref(1);
  EXPECT_EQ(r.getref().get(), &r.merge(2));
  EXPECT_EQ(DT_REF, r.type());
  EXPECT_EQ(2, r.to_i64());
  VObject v(1);
  EXPECT_EQ(&v, &merge(v, make_ref(3)));
  EXPECT_EQ(DT_INT, v.type()) << "the source's target is assigned, not the reference";
}

TEST(Merge, FollowsReferencesInside) {
  VObject r = make_ref(hash({{"x", 1}}));
  VObject dst = hash({{"r", r}});
  dst.merge(hash({{"r", make_ref(hash({{"y", 2}}))}}));
  EXPECT_EQ(DT_REF, dst.fetch("r").type());
  EXPECT_EQ(hash({{"x", 1}, {"y", 2}}), r);
  VObject added = VObject::new_hash();
  added.merge(dst);
  EXPECT_EQ(r.getref(), added.fetch("r").getref()) << "what was missing comes as the reference that it is";
}

TEST(Merge, ThatFailsDeepInsideKeepsWhatIsDone) {
  VObject dst = hash({{"a", 1}, {"b", vec({1})}, {"c", 1}});
  EXPECT_FAILS(DISPARATE, dst.merge(hash({{"a", 2}, {"b", hash({})}, {"c", 2}})));
  EXPECT_EQ(hash({{"a", 2}, {"b", vec({1})}, {"c", 1}}), dst);
}

TEST(MergeAliasing, IntoItselfChangesNothing) {
  const VObject values[] = {
      VObject(),          VObject(1),         VObject("a"),      hash({{"a", vec({1, hash({})})}}),
      vec({1, vec({2})}), VObject(number(1)), make_ref(vec({1}))};
  for (const VObject& v : values) {
    const std::string before = rendered(v);
    VObject same(v);
    same.merge(same);
    EXPECT_EQ(before, rendered(same));
    same.merge(v);
    EXPECT_EQ(before, rendered(same));
  }
}

TEST(MergeAliasing, OfAMemberThatTheMergeOverwrites) {
  // Merging "c" into its owner makes the owner's "c" nil: the end of the source.
  VObject h = hash({{"c", hash({{"c", VObject()}, {"d", "text"}})}});
  h.merge(h.fetch("c"));
  EXPECT_EQ(hash({{"c", VObject()}, {"d", "text"}}), h);

  VObject v = vec({vec({VObject(), "text", vec({3})})});
  v.merge(v.at(0));
  EXPECT_EQ(vec({VObject(), "text", vec({3})}), v);
}

TEST(MergeAliasing, OfTheOwnerIntoItsMember) {
  VObject owner = hash({{"a", 1}, {"child", VObject()}, {"z", "text"}});
  owner.fetch("child").merge(hash({{"a", 2}}));
  VObject& child = owner.fetch("child");
  VObject outer = vec({7, 8, 9, vec({0})});
  outer.at(3).merge(vec({outer.at(0), outer.at(1), outer.at(2)}));
  EXPECT_EQ(vec({7, 8, 9, vec({7, 8, 9})}), outer);
  EXPECT_EQ(hash({{"a", 2}}), child);
}

TEST(MergeAliasing, ADestinationThatTheMergeEnds) {
  // The element "r" refers to the very value that is merged into, and receives nil.
  const auto home = boost::make_shared<VObject>(VObject::new_hash());
  home->store("a", 1);
  home->fetch("r") = home;
  VObject patch = hash({{"r", VObject()}, {"s", 2}});
  home->merge(patch);
  EXPECT_EQ(DT_NIL, home->type());
}

TEST(MergeAliasing, AVectorThatGrowsWhileItIsTheSource) {
  // dst[0] is the source vector itself, and the source's first element makes it grow.
  VObject src = vec({vec({VObject(), VObject(), 1, 2, 3, 4, 5, 6, 7, 8}), VObject()});
  VObject dst = vec({src});
  src.at(0).getvec()[0] = VObject();
  dst.merge(src);
  EXPECT_GE(src.getvec().size(), 10U);
  EXPECT_EQ(storage_of(src), storage_of(dst.at(0)));
}

}  // namespace
