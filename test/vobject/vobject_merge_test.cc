#include <functional>

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
  for (const VObject& v : {VObject(1), VObject("a"), hash({{"a", 1}}), vec({1}), VObject(number(1)), VObject()}) {
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
  EXPECT_EQ(hash({{"a", 1}, {"b", 2}, {"c", 3}}), merged(hash({{"a", 0}, {"b", 2}}), hash({{"a", 1}, {"c", 3}})));
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

TEST(MergeAliasing, WhatBothSidesShareIsNotWalked) {
  // 2^64 paths to the innermost value.
  VObject wide = vec({1});
  for (int i = 0; i < 64; ++i) wide = vec({wide, VObject(wide)});
  VObject same(wide);
  same.merge(wide);
  EXPECT_EQ(storage_of(wide), storage_of(same));
  VObject endless = VObject::new_hash();
  endless.store("self", endless);
  endless.merge(VObject(endless));
  EXPECT_EQ(1U, endless.gethash().size());
  endless.reset_hash();
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

/// Copies of all hashes and vectors in a tree; they are emptied at the end, so that cycles are freed.
class Containers {
 public:
  explicit Containers(const VObject& tree) { collect(tree); }
  ~Containers() {
    for (VObject& v : all_) v.type() == DT_HASH ? v.reset_hash() : v.reset_vector(0);
  }
  Containers(const Containers&) = delete;
  Containers& operator=(const Containers&) = delete;

  size_t count() const { return all_.size(); }
  VObject& operator[](size_t i) { return all_[i]; }

 private:
  void collect(const VObject& v) {
    if (v.type() != DT_HASH && v.type() != DT_VECTOR) return;
    all_.push_back(v);
    if (v.type() == DT_HASH) {
      for (const auto& member : v.gethash()) collect(member.second);
    } else {
      for (const VObject& element : v.getvec()) collect(element);
    }
  }

  VObjectVector all_;
};

TEST(MergeAliasing, TheSourcesElementBecomesPartOfItself) {
  VObject outer = hash({{"a", 1}, {"inner", hash({{"b", 2}})}, {"z", "text"}});
  Containers all(outer);
  VObject inner = outer.fetch("inner");
  inner.merge(outer);
  EXPECT_EQ(4U, inner.gethash().size());
  EXPECT_EQ(storage_of(inner), storage_of(inner.fetch("inner"))) << "what was missing is shared, and it is itself";
  EXPECT_EQ(VObject("text"), inner.fetch("z"));
  EXPECT_EQ(3U, outer.gethash().size());

  VObject list = vec({vec({vec({}), 6}), 7, 8});
  Containers lists(list);
  VObject first = list.at(0);
  VObject first_of_first = first.at(0);
  first.merge(list);
  // The first elements merge first: [] with [[], 6], which gives it both.
  ASSERT_EQ(2U, first_of_first.getvec().size());
  EXPECT_EQ(storage_of(first_of_first), storage_of(first_of_first.at(0)));
  EXPECT_EQ(VObject(6), first_of_first.at(1));
  ASSERT_EQ(3U, first.getvec().size());
  EXPECT_EQ(storage_of(first_of_first), storage_of(first.at(0)));
  EXPECT_EQ(VObject(7), first.at(1));
  EXPECT_EQ(VObject(8), first.at(2));
}

TEST(MergeAliasing, OfAnyPartOfATreeWithItsWholeEndsEitherWay) {
  RandomValues random(11);
  unsigned merges = 0;
  unsigned cycles = 0;
  for (int i = 0; i < 20000; ++i) {
    VObject whole = random.below(2) == 0 ? hash({{"a", random.value(4)}, {"b", random.value(3)}})
                                         : vec({random.value(4), random.value(3)});
    Containers parts(whole);
    VObject& part = parts[random.below(static_cast<unsigned>(parts.count()))];
    const bool into_part = random.below(2) == 0;
    try {
      into_part ? part.merge(whole) : whole.merge(part);
      ++merges;
    } catch (const VornRuntimeError& failure) {
      ASSERT_STREQ(DISPARATE, failure.what());
    }
    std::function<bool(const VObject&, std::set<const void*>)> is_cyclic = [&](const VObject& v,
                                                                               std::set<const void*> above) {
      if (v.type() != DT_HASH && v.type() != DT_VECTOR) return false;
      if (!above.insert(storage_of(v)).second) return true;
      if (v.type() == DT_HASH) {
        for (const auto& member : v.gethash()) {
          if (is_cyclic(member.second, above)) return true;
        }
      } else {
        for (const VObject& element : v.getvec()) {
          if (is_cyclic(element, above)) return true;
        }
      }
      return false;
    };
    const bool cyclic = is_cyclic(whole, {});
    if (!into_part) {
      ASSERT_FALSE(cyclic) << "merging a part into its whole makes no cycle";
    }
    cycles += cyclic ? 1 : 0;
  }
  EXPECT_GT(merges, 1000U);
  EXPECT_GT(cycles, 1000U);
}

}  // namespace
