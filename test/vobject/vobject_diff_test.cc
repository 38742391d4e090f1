#include <cfloat>
#include <cmath>

#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

struct Diff {
  Diff(const VObject& a, const VObject& b, double epsilon = 0, int parent_tag = DT_NIL) {
    differ = VObject::diff(a, patch, b, structural, parent_tag, epsilon);
  }
  VObject patch;
  bool structural = true;
  bool differ;
};

TEST(DiffPatch, OfEqualValuesIsNone) {
  for (const VObject& v : {VObject(), VObject(1), VObject("a"), hash({{"a", 1}}), vec({1, vec({})})}) {
    VObject other;
    deep_copy(v, other);
    const Diff d(v, other);
    EXPECT_FALSE(d.differ);
    EXPECT_EQ(DT_NIL, d.patch.type());
    EXPECT_FALSE(d.structural);
  }
}

TEST(DiffPatch, OfScalarsAndKindsIsTheNewValue) {
  EXPECT_EQ(VObject(2), Diff(1, 2).patch);
  EXPECT_EQ(VObject("b"), Diff("a", "b").patch);
  EXPECT_EQ(VObject(true), Diff(false, true).patch);
  EXPECT_EQ(VObject(1.0), Diff(1, 1.0).patch);
  EXPECT_EQ(VObject(number(2)), Diff(VObject(number(1)), VObject(number(2))).patch);
  EXPECT_EQ(DT_NIL, Diff(1, VObject()).patch.type());
  EXPECT_TRUE(Diff(1, VObject()).differ);
  const VObject text("shared");
  EXPECT_EQ(storage_of(text), storage_of(Diff(vec({}), text).patch));
}

TEST(DiffPatch, LeavesOutDoublesWithinEpsilonInclusive) {
  EXPECT_FALSE(Diff(1.0, 1.5, 0.5).differ);
  EXPECT_TRUE(Diff(1.0, 1.5, 0.4999).differ);
  EXPECT_FALSE(Diff(1.0, 1.05, 0.05).differ) << "although 1.05 - 1.0 is a hair more than 0.05";
  EXPECT_FALSE(Diff(1.05, 1.0, 0.05).differ);
  EXPECT_TRUE(Diff(1.0, 1.0500001, 0.05).differ);
  const Diff d(1.0, 1.05, 0.01);
  EXPECT_TRUE(d.differ);
  EXPECT_EQ(VObject(1.05), d.patch);
  EXPECT_FALSE(Diff(0.0, -0.0).differ);
  EXPECT_TRUE(Diff(HUGE_VAL, -HUGE_VAL, 1e300).differ);
  EXPECT_TRUE(Diff(1e308, -1e308, 1.0).differ);
}

/// Whether two doubles differ, which does not depend on their order.
bool far_apart(double a, double b, double epsilon) {
  const bool differ = Diff(a, b, epsilon).differ;
  EXPECT_EQ(differ, Diff(b, a, epsilon).differ) << "in the other order";
  return differ;
}

TEST(DiffEpsilon, CasesInBothOrders) {
  constexpr double INF = HUGE_VAL;
  const double nan = std::nan("");
  const double next = std::nextafter(1.0, 2.0);
  const double ulp = next - 1.0;
  const struct {
    double a;
    double b;
    double epsilon;
    bool differ;
  } cases[] = {
      {1.0, 1.05, 0.05, false},  // 1.05 - 1.0 is a hair more than 0.05, 1.0 + 0.05 is 1.05
      {1.0, 1.05, 0.01, true},
      {-1.0, -1.05, 0.05, false},
      {1.0, 1.5, 0.5, false},
      {1.0, 1.5, 0.5 - ulp, true},
      {1.0, 1.5, 0.5 + ulp, false},
      // The sum of the lesser and epsilon is a hair less than the greater: the distance is epsilon all the same.
      {-62.340920642926115, -0.83200409151240673, 61.508916551413705, false},
      {-62.340920642926115, -0.83200409151240673, std::nextafter(61.508916551413705, 0.0), true},
      // Further apart than epsilon by less than a double of the greater's size can say.
      {1.0, 1.5, std::nextafter(0.5, 0.0), false},
      {-1.0, DBL_TRUE_MIN, 1.0, false},
      {-DBL_TRUE_MIN, 1.0, 1.0, false},
      {1.0, -1.0, std::nextafter(2.0, 0.0), true},
      // With an epsilon of 0, or a negative one, any two unequal doubles differ.
      {1.0, next, 0.0, true},
      {1.0, next, ulp, false},
      {1.0, next, ulp / 4, true},
      {1.0, std::nextafter(1.0, 0.0), 0.0, true},
      {1.0, next, -0.0, true},
      {1.0, next, -1.0, true},
      {1.0, next, -INF, true},
      {1.0, 1.0, -1.0, false},
      {0.0, -0.0, 0.0, false},
      {0.0, -0.0, -1.0, false},
      // Denormal numbers.
      {0.0, DBL_TRUE_MIN, 0.0, true},
      {0.0, DBL_TRUE_MIN, DBL_TRUE_MIN, false},
      {-DBL_TRUE_MIN, DBL_TRUE_MIN, DBL_TRUE_MIN, true},
      {-DBL_TRUE_MIN, DBL_TRUE_MIN, 2 * DBL_TRUE_MIN, false},
      {DBL_MIN, std::nextafter(DBL_MIN, 0.0), 0.0, true},
      {DBL_MIN, std::nextafter(DBL_MIN, 0.0), DBL_TRUE_MIN, false},
      // Large numbers, and distances that are no double.
      {DBL_MAX, std::nextafter(DBL_MAX, 0.0), 0.0, true},
      {DBL_MAX, std::nextafter(DBL_MAX, 0.0), DBL_MAX, false},
      {1e308, DBL_MAX, 1e308, false},
      {DBL_MAX, 0.0, DBL_MAX, false},
      {DBL_MAX, -DBL_MAX, DBL_MAX, true},
      {DBL_MAX, -DBL_MAX, 1.0, true},
      {DBL_MAX, -DBL_MAX, INF, false},
      {1e308, -1e308, 1.0, true},
      // Infinities: an infinite distance is more than any that is finite.
      {INF, 1e308, 1e308, true},
      {-INF, -1e308, 1e308, true},
      {INF, DBL_MAX, DBL_MAX, true},
      {INF, 0.0, 0.0, true},
      {-INF, 0.0, DBL_MAX, true},
      {INF, -INF, 1e300, true},
      {INF, -INF, DBL_MAX, true},
      {INF, -INF, -INF, true},
      {INF, 0.0, INF, false},
      {-INF, 0.0, INF, false},
      {INF, -INF, INF, false},
      {INF, INF, 0.0, false},
      {INF, INF, -1.0, false},
      {0.0, 1.0, INF, false},
      // NaN.
      {nan, nan, 0.0, false},
      {nan, nan, -1.0, false},
      {nan, 1.0, 0.0, false},
      {nan, 1.0, -1.0, false},
      {nan, INF, 1.0, false},
      {nan, -INF, 1.0, false},
      {nan, -INF, -INF, false},
      {nan, 1.0, INF, false},
      {1.0, 2.0, nan, false},
      {INF, -INF, nan, false},
      {nan, nan, nan, false},
  };
  for (const auto& c : cases) {
    char text[120];
    std::snprintf(text, sizeof text, "%.17g, %.17g, epsilon %.17g", c.a, c.b, c.epsilon);
    EXPECT_EQ(c.differ, far_apart(c.a, c.b, c.epsilon)) << text;
  }
}

/// Integers in which the distance and the sum of three doubles are exact.
#ifdef __SIZEOF_INT128__
__extension__ using Exact = __int128;
constexpr unsigned MAX_SHIFT = 60;
#else
// Narrow enough to be exact in the registers of an x87 as well, whose double rounding then shows nothing.
using Exact = int64_t;
constexpr unsigned MAX_SHIFT = 8;
#endif

double nearest(Exact n) {
  const volatile double rounded = static_cast<double>(n);
  return rounded;
}

/// What one step of a double of this size is worth, 0 if less than an integer.
Exact ulp_of(double d) {
  const double size = std::fabs(d);
  return static_cast<Exact>(std::nextafter(size, HUGE_VAL) - size);
}

TEST(DiffEpsilon, AgreesWithExactArithmetic) {
  std::mt19937_64 random(20261121);
  const auto number = [&random] {
    const Exact mantissa = static_cast<int64_t>(random() >> (11 + random() % 53));
    const Exact n = mantissa << (random() % (MAX_SHIFT + 1));
    return random() % 2 == 0 ? n : -n;
  };
  unsigned changes = 0;
  unsigned near = 0;
  unsigned near_by_distance = 0;
  unsigned near_by_sum = 0;
  for (int i = 0; i < 200000; ++i) {
    const Exact a = number();
    const Exact b = random() % 2 == 0 ? number() : a + number() / 1024;
    const double x = nearest(a);
    const double y = nearest(b);
    const Exact distance = static_cast<Exact>(std::max(x, y)) - static_cast<Exact>(std::min(x, y));
    if (distance == 0) continue;
    // Mostly the distance itself, or a step or two beside it.
    const Exact step = std::max<Exact>(1, ulp_of(nearest(distance)));
    const double epsilon = random() % 8 == 0
                               ? std::fabs(nearest(number()))
                               : std::fabs(nearest(distance + step * (static_cast<int>(random() % 5) - 2)));

    const double lesser = std::min(x, y);
    const double greater = std::max(x, y);
    const bool beyond_distance = nearest(distance) > epsilon;
    const bool beyond_sum = greater > nearest(static_cast<Exact>(lesser) + static_cast<Exact>(epsilon));
    const bool differ = far_apart(x, y, epsilon);
    ASSERT_EQ(beyond_distance && beyond_sum, differ) << x << ", " << y << ", " << epsilon;
    // The bounds that hold without any rounding: never a change within epsilon, always one beyond it and the
    // rounding of the two numbers.
    const Exact excess = distance - static_cast<Exact>(epsilon);
    if (excess <= 0) {
      ASSERT_FALSE(differ);
    }
    if (excess > std::max(ulp_of(x), ulp_of(y))) {
      ASSERT_TRUE(differ);
    }
    ++(differ ? changes : excess <= 0 ? near : beyond_distance ? near_by_sum : near_by_distance);
  }
  EXPECT_GT(changes, 1000U);
  EXPECT_GT(near, 1000U);
  EXPECT_GT(near_by_distance, 100U);
  EXPECT_GT(near_by_sum, 1000U);
}

TEST(DiffPatch, OfNaNIsNone) {
  const double nan = std::nan("");
  EXPECT_FALSE(Diff(nan, nan).differ);
  EXPECT_EQ(hash({}), Diff(hash({{"x", 1.0}}), hash({{"x", nan}})).patch);
}

TEST(DiffPatch, OfHashesHoldsAdditionsAndChanges) {
  const Diff d(hash({{"same", 1}, {"changed", 1}, {"deep", hash({{"x", 1}, {"y", 2}})}}),
               hash({{"same", 1}, {"changed", 2}, {"deep", hash({{"x", 1}, {"y", 3}})}, {"new", "n"}}));
  EXPECT_TRUE(d.differ);
  EXPECT_FALSE(d.structural);
  EXPECT_EQ(hash({{"changed", 2}, {"deep", hash({{"y", 3}})}, {"new", "n"}}), d.patch);
}

TEST(DiffPatch, OfARemovedKeyIsStructural) {
  const Diff d(hash({{"a", 1}, {"b", 2}}), hash({{"a", 1}}));
  EXPECT_TRUE(d.differ);
  EXPECT_TRUE(d.structural);
  EXPECT_EQ(VObject::new_hash(), d.patch);
}

TEST(DiffPatch, OfVectorsHasAnElementForEach) {
  const Diff d(vec({hash({{"x", 1}}), 5}), vec({hash({{"x", 1}}), 6}));
  EXPECT_EQ(vec({hash({}), 6}), d.patch);
  EXPECT_FALSE(d.structural);
  EXPECT_EQ(vec({vec({}), "same", 3, "new"}),
            Diff(vec({vec({1}), "same", 2}), vec({vec({1}), "same", 3, "new"})).patch);
}

TEST(DiffPatch, OfAVectorThatBecameShorterIsNotStructural) {
  const Diff d(vec({1, 2, 3}), vec({1, 5}));
  EXPECT_FALSE(d.structural);
  EXPECT_EQ(vec({1, 5}), d.patch);
}

TEST(DiffPatch, OfAHashInAVectorIsStructural) {
  EXPECT_TRUE(Diff(vec({hash({{"x", 1}})}), vec({hash({{"x", 2}})})).structural);
  EXPECT_TRUE(Diff(vec({hash({})}), vec({hash({{"x", 2}})})).structural);
  EXPECT_FALSE(Diff(vec({VObject()}), vec({hash({{"x", 2}})})).structural);
  EXPECT_FALSE(Diff(vec({}), vec({hash({{"x", 2}})})).structural);
  EXPECT_FALSE(Diff(vec({vec({1})}), vec({vec({2})})).structural);
}

TEST(DiffPatch, TheCallersParentTagCountsAtTheTop) {
  EXPECT_TRUE(Diff(hash({}), hash({{"x", 1}}), 0, DT_VECTOR).structural);
  EXPECT_FALSE(Diff(hash({}), hash({{"x", 1}}), 0, DT_HASH).structural);
  EXPECT_FALSE(Diff(1, 2, 0, DT_VECTOR).structural);
  // Only a hash that lies directly in the vector.
  EXPECT_FALSE(Diff(hash({{"h", hash({})}}), hash({{"h", hash({{"x", 1}})}}), 0, DT_HASH).structural);
}

TEST(DiffPatch, WithinEpsilonInsideContainers) {
  EXPECT_EQ(VObject::new_hash(), Diff(hash({{"x", 1.0}}), hash({{"x", 1.25}}), 0.5).patch);
  EXPECT_EQ(vec({1.25}), Diff(vec({1.0}), vec({1.25}), 0.5).patch) << "a no-op element is the new value itself";
}

TEST(DiffPatch, AHashInAVectorThatStaysWithinEpsilonIsNotStructural) {
  const auto point = [](double x) { return vec({hash({{"x", x}})}); };
  const Diff near(point(1.0), point(1.25), 0.5);
  EXPECT_FALSE(near.structural);
  EXPECT_EQ(vec({hash({})}), near.patch);
  EXPECT_TRUE(Diff(point(1.0), point(1.25), 0.125).structural);
  const Diff top(hash({{"x", 1.0}}), hash({{"x", 1.25}}), 0.5, DT_VECTOR);
  EXPECT_FALSE(top.structural);
  EXPECT_EQ(hash({}), top.patch);
}

TEST(DiffPatch, TheShortFormDiffersInNothingElse) {
  VObject patch("old");
  EXPECT_TRUE(VObject::diff(hash({{"a", 1}}), patch, hash({}), DT_NIL, 0));
  EXPECT_EQ(VObject::new_hash(), patch);
  EXPECT_FALSE(VObject::diff(1, patch, 1, DT_NIL, 0));
  EXPECT_EQ(DT_NIL, patch.type());
}

TEST(DiffPatch, FollowsReferences) {
  EXPECT_FALSE(Diff(make_ref(1), 1).differ);
  EXPECT_EQ(DT_INT, Diff(1, make_ref(2)).patch.type());
  EXPECT_EQ(hash({{"a", 2}}), Diff(hash({{"a", make_ref(1)}}), hash({{"a", make_ref(2)}})).patch);
  const Diff same(vec({make_ref(hash({})), 1}), vec({make_ref(hash({})), 2}));
  EXPECT_EQ(DT_HASH, same.patch.getvec()[0].type());
  const VObject r = make_ref(1);
  EXPECT_EQ(r.getref(), Diff(vec({1, 1}), vec({r, 2})).patch.getvec()[0].getref()) << "a copy of the element itself";
}

TEST(DiffOut, IsClearedFirst) {
  VObject out("old");
  bool structural = true;
  EXPECT_FALSE(VObject::diff(1, out, 1, structural, DT_NIL, 0));
  EXPECT_EQ(DT_NIL, out.type());
  EXPECT_FALSE(structural);
}

/// Each level of the patch would make another one to compare.
TEST(DiffOut, InsideOfBothValuesEnds) {
  VObject b = vec({vec({})});
  const VObject a = vec({b});
  VObject& out = b.getvec()[0];
  EXPECT_TRUE(VObject::diff(a, out, b, DT_NIL, 0));
  EXPECT_EQ(DT_VECTOR, out.type());
}

TEST(DiffOut, ThatIsAReferenceStaysOneWhereThatIsWrittenThrough) {
  VObject out = make_ref("old");
  const auto referent = out.getref();
  bool structural;
  EXPECT_FALSE(VObject::diff(1, out, 1, structural, DT_NIL, 0));
  EXPECT_EQ(DT_REF, out.type());
  EXPECT_EQ(DT_NIL, referent->type());
  EXPECT_TRUE(VObject::diff(hash({}), out, hash({{"a", 1}}), structural, DT_NIL, 0));
  EXPECT_EQ(DT_REF, out.type());
  EXPECT_EQ(hash({{"a", 1}}), *referent);
  EXPECT_TRUE(VObject::diff(vec({}), out, vec({1}), structural, DT_NIL, 0));
  EXPECT_EQ(vec({1}), *referent);
  EXPECT_TRUE(VObject::diff("a", out, "b", structural, DT_NIL, 0));
  EXPECT_EQ(VObject("b"), *referent);
  EXPECT_TRUE(VObject::diff(1, out, 2, structural, DT_NIL, 0));
  EXPECT_EQ(DT_INT, out.type()) << "a scalar replaces the reference";
  EXPECT_EQ(DT_NIL, referent->type());
}

TEST(DiffOut, MayHoldWhatIsCompared) {
  VObject out = vec({hash({{"a", 1}}), hash({{"a", 2}})});
  bool structural;
  EXPECT_TRUE(VObject::diff(out.at(0), out, out.at(1), structural, DT_NIL, 0));
  EXPECT_EQ(hash({{"a", 2}}), out);
  VObject v = hash({{"a", 1}});
  EXPECT_TRUE(VObject::diff(v, v, VObject(1), structural, DT_NIL, 0)) << "cleared first, so compared as nil";
  EXPECT_EQ(VObject(1), v);
}

TEST(DiffOut, SharesWithTheNewValueOnly) {
  const VObject b = hash({{"new", hash({{"x", 1}})}});
  Diff d(hash({}), b);
  EXPECT_EQ(storage_of(b.fetch("new")), storage_of(d.patch.fetch("new")));
}

// The law: merging the patch, made with epsilon 0, into a deep copy of `a` gives `b`.
//
// Read off the rules, with both values followed through references:
// - The values must differ at all. An equal pair has no patch; the nil that is left in `out` would make the
//   copy nil. Inside containers an equal pair is left out (hash) or has an element without effect (vector).
// - Kinds that differ: the patch is the new value. Merging assigns it if either side is nil (containers too), or if
//   neither is a hash, vector or user-defined value; otherwise it fails.
// - Hashes: a key that went away is structural. Every key that both have must follow the law; what is added is taken
//   over as it is.
// - Vectors: the new one must not be shorter. A pair of hashes among the elements must be equal, as its change is
//   structural. Every other pair must follow the law; elements behind the old end are taken over.
// - Everything else, doubles without NaN included, is replaced.
//
// These conditions are exact for pairs whose patch is not structural: where one of them fails, merging throws
// or gives something else. They speak of `==`: 0.0 and -0.0 are equal, so a changed sign of zero is not
// carried. References may occur in `b`; `a` must have an encoding, or it has no deep copy. Storage that `a`
// shares within itself is no obstacle, for the copy does not share it; merging into `a` itself would be
// another matter.

const VObject& followed(const VObject& v) {
  const VObject* at = &v;
  while (at->type() == DT_REF) at = at->getref().get();
  return *at;
}

bool is_container(const VObject& v) {
  return v.type() == DT_HASH || v.type() == DT_VECTOR || v.type() == DT_UDT;
}

bool law_holds(const VObject& x, const VObject& y) {
  const VObject& a = followed(x);
  const VObject& b = followed(y);
  if (a.type() != b.type()) {
    return a.type() == DT_NIL || b.type() == DT_NIL || (!is_container(a) && !is_container(b));
  }
  if (a.type() == DT_HASH) {
    for (const auto& [key, value] : b.gethash()) {
      const auto old = a.gethash().find(key);
      if (old != a.gethash().end() && !law_holds(old->second, value)) return false;
    }
  } else if (a.type() == DT_VECTOR) {
    const VObjectVector& from = a.getvec();
    const VObjectVector& to = b.getvec();
    if (to.size() < from.size()) return false;
    for (size_t i = 0; i < from.size(); ++i) {
      if (!law_holds(from[i], to[i])) return false;
    }
  }
  return true;
}

bool is_structural(const VObject& x, const VObject& y, int parent_tag) {
  const VObject& a = followed(x);
  const VObject& b = followed(y);
  if (a.type() != b.type() || a == b) return false;
  if (a.type() == DT_HASH) {
    if (parent_tag == DT_VECTOR) return true;
    for (const auto& [key, value] : a.gethash()) {
      const auto changed = b.gethash().find(key);
      if (changed == b.gethash().end() || is_structural(value, changed->second, DT_HASH)) return true;
    }
  } else if (a.type() == DT_VECTOR) {
    const size_t common = std::min(a.getvec().size(), b.getvec().size());
    for (size_t i = 0; i < common; ++i) {
      if (is_structural(a.getvec()[i], b.getvec()[i], DT_VECTOR)) return true;
    }
  }
  return false;
}

/// Whether the copy of `a`, merged with the patch, equals `b`.
bool patch_works(const VObject& a, const VObject& patch, const VObject& b) {
  VObject copy;
  deep_copy(a, copy);
  try {
    copy.merge(patch);
  } catch (const VornRuntimeError&) {
    return false;
  }
  return copy == b;
}

TEST(DiffLaw, HoldsExactlyUnderItsConditions) {
  RandomValues random(20240229);
  unsigned equal = 0;
  unsigned structural = 0;
  unsigned works = 0;
  unsigned fails = 0;
  for (int i = 0; i < 40000; ++i) {
    const VObject a = random.value(3);
    VObject b;
    if (random.below(3) == 0) {
      b = random.value(3, true);
    } else {
      deep_copy(a, b);
      for (unsigned n = random.below(4); n > 0; --n) random.change(b, true);
    }
    SCOPED_TRACE(rendered(a) + " to " + rendered(b));
    const std::string a_before = rendered(a);
    const std::string b_before = rendered(b);

    const Diff d(a, b);
    ASSERT_EQ(is_structural(a, b, DT_NIL), d.structural);
    if (!d.differ) {
      ++equal;
      ASSERT_EQ(a, b);
      ASSERT_EQ(DT_NIL, d.patch.type());
    } else if (d.structural) {
      ++structural;
    } else {
      ASSERT_EQ(law_holds(a, b), patch_works(a, d.patch, b)) << rendered(d.patch);
      ++(law_holds(a, b) ? works : fails);
    }
    ASSERT_EQ(a_before, rendered(a)) << "neither diff nor the merge changes its sources";
    ASSERT_EQ(b_before, rendered(b));
  }
  EXPECT_GT(equal, 1000U);
  EXPECT_GT(structural, 1000U);
  EXPECT_GT(works, 1000U);
  EXPECT_GT(fails, 1000U);
}

TEST(DiffLaw, ItsConditionsOneByOne) {
  const VObject nil;
  const struct {
    VObject a;
    VObject b;
    bool holds;
  } pairs[] = {
      {1, 2, true},
      {"a", 1, true},
      {nil, hash({{"k", 1}}), true},
      {hash({{"k", 1}}), nil, true},
      {hash({{"k", vec({1})}}), hash({{"k", nil}}), true},
      {hash({{"k", nil}}), hash({{"k", vec({1})}}), true},
      {hash({}), hash({{"k", nil}}), true},
      {vec({nil}), vec({hash({{"k", 1}})}), true},
      {vec({hash({{"k", 1}})}), vec({nil}), true},
      {vec({hash({{"k", 1}}), 1}), vec({hash({{"k", 1}}), 2}), true},
      {vec({nil, 1}), vec({nil, 2}), true},
      {vec({vec({1}), 1}), vec({vec({1}), 2}), true},
      {vec({vec({1})}), vec({vec({1, 2})}), true},
      {vec({}), vec({1}), true},
      {hash({{"k", 1}}), hash({{"k", make_ref(2)}}), true},
      {vec({1, 1}), vec({make_ref(1), 2}), true},
      {nil, VObject(number(1)), true},
      {vec({1}), vec({}), false},
      {vec({vec({1, 2}), 0}), vec({vec({1}), 0}), false},
      {hash({}), vec({}), false},
      {hash({{"k", vec({})}}), hash({{"k", 1}}), false},
      {vec({1}), vec({hash({})}), false},
      {vec({hash({})}), vec({make_ref(vec({}))}), false},
      {1, VObject(number(1)), false},
  };
  for (const auto& pair : pairs) {
    const Diff d(pair.a, pair.b);
    SCOPED_TRACE(rendered(pair.a) + " to " + rendered(pair.b) + " by " + rendered(d.patch));
    EXPECT_TRUE(d.differ);
    EXPECT_FALSE(d.structural);
    EXPECT_EQ(pair.holds, law_holds(pair.a, pair.b));
    EXPECT_EQ(pair.holds, patch_works(pair.a, d.patch, pair.b));
  }
}

TEST(DiffLaw, AnEqualPairHasNoPatch) {
  const Diff d(1, 1);
  EXPECT_FALSE(d.differ);
  EXPECT_FALSE(patch_works(1, d.patch, 1)) << "the nil in `out` is no patch";
}

TEST(DiffLaw, TheSignOfZeroIsNotCarried) {
  const Diff d(hash({{"z", 0.0}, {"n", 1}}), hash({{"z", -0.0}, {"n", 2}}));
  VObject copy = hash({{"z", 0.0}, {"n", 1}});
  copy.merge(d.patch);
  EXPECT_EQ(hash({{"z", -0.0}, {"n", 2}}), copy);
  EXPECT_EQ("{\"n\"=>2, \"z\"=>0.000000}", rendered(copy));
}

TEST(DiffLaw, NaNIsOutside) {
  const VObject nan(std::nan(""));
  const Diff scalar(hash({{"k", 1.0}}), hash({{"k", nan}}));
  EXPECT_TRUE(scalar.differ);
  EXPECT_EQ(VObject::new_hash(), scalar.patch) << "the change is not seen";
  EXPECT_FALSE(patch_works(hash({{"k", 1.0}}), scalar.patch, hash({{"k", nan}})));
  const VObject b = hash({{"k", nan}});
  const Diff added(VObject::new_hash(), b);
  EXPECT_FALSE(patch_works(VObject::new_hash(), added.patch, b)) << "taken over, but not equal";
}

TEST(DiffLaw, MergingIntoTheOriginalChangesWhatItSharesWithinItself) {
  const VObject shared = vec({1});
  VObject a = hash({{"x", shared}, {"y", shared}});
  const VObject b = hash({{"x", vec({2})}, {"y", vec({1})}});
  const Diff d(a, b);
  EXPECT_TRUE(patch_works(a, d.patch, b));
  a.merge(d.patch);
  EXPECT_NE(b, a);
}

TEST(DiffLaw, AReferenceInTheFirstValueHasNoDeepCopy) {
  VObject copy;
  EXPECT_FAILS("VObject::serialize: serialization of DT_REF not yet supported", deep_copy(vec({make_ref(1)}), copy));
}

#ifndef NDEBUG

TEST(DiffDeathTest, UserDefinedValuesHoldObjects) {
  const VObject none{boost::shared_ptr<VObjectUDT>()};
  VObject patch;
  EXPECT_DEATH(VObject::diff(none, patch, VObject(number(1)), DT_NIL, 0), "udt\\(\\) != nullptr");
}

#endif

}  // namespace
