#include "vobject/vobject.h"

#include <climits>
#include <cstddef>
#include <type_traits>

#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

static_assert(sizeof(void*) != 8 || sizeof(VObject) == 24, "payload word, shared count, tag");
static_assert(!std::is_polymorphic<VObject>::value, "no virtual operations");
static_assert(std::is_nothrow_copy_constructible<VObject>::value, "sharing cannot fail");
static_assert(std::is_nothrow_copy_assignable<VObject>::value, "sharing cannot fail");
static_assert(std::is_nothrow_move_constructible<VObject>::value, "a growing vector moves its elements");
static_assert(std::is_nothrow_move_assignable<VObject>::value, "a growing vector moves its elements");
static_assert(!std::is_constructible<VObject, boost::shared_ptr<VObject>>::value, "never made as a reference");
static_assert(!std::is_constructible<VObject, int*>::value, "a pointer is no boolean");
static_assert(!std::is_assignable<VObject&, int*>::value, "a pointer is no boolean");
static_assert(!std::is_convertible<VObjectVector, VObject>::value, "only explicitly");

TEST(VObjectTags, HaveTheirNumbers) {
  EXPECT_EQ(0, DT_NIL);
  EXPECT_EQ(1, DT_INT);
  EXPECT_EQ(2, DT_DOUBLE);
  EXPECT_EQ(3, DT_BOOL);
  EXPECT_EQ(4, DT_SYMBOL);
  EXPECT_EQ(5, DT_STR);
  EXPECT_EQ(6, DT_HASH);
  EXPECT_EQ(7, DT_VECTOR);
  EXPECT_EQ(8, DT_UDT);
  EXPECT_EQ(9, DT_REF);
}

TEST(VObjectConstruction, FromEachKind) {
  EXPECT_EQ(DT_NIL, VObject().type());
  EXPECT_EQ(DT_INT, VObject(42).type());
  EXPECT_EQ(42, VObject(42).to_i64());
  EXPECT_EQ(DT_INT, VObject(INT64_MIN).type());
  EXPECT_EQ(INT64_MIN, VObject(INT64_MIN).to_i64());
  EXPECT_EQ(DT_DOUBLE, VObject(1.5).type());
  EXPECT_EQ(DT_DOUBLE, VObject(1.5F).type());
  EXPECT_EQ(DT_BOOL, VObject(false).type());
  EXPECT_EQ(DT_STR, VObject("abc").type());
  EXPECT_EQ("abc", VObject("abc").getstr());
  EXPECT_EQ(DT_UDT, VObject(number(1)).type());
  EXPECT_EQ(DT_UDT, VObject(boost::make_shared<Number>(1)).type());
  EXPECT_EQ(DT_UDT, VObject(boost::shared_ptr<VObjectUDT>()).type());
  EXPECT_EQ(nullptr, VObject(boost::shared_ptr<VObjectUDT>()).udt());
  EXPECT_EQ(DT_VECTOR, VObject(VObjectVector{VObject(1)}).type());
}

TEST(VObjectConstruction, OfStrings) {
  EXPECT_EQ(std::string("a\0b", 3), VObject("a\0bc", 3).getstr());
  EXPECT_EQ(std::string("a\0b", 3), VObject(std::string("a\0b", 3)).getstr());
  EXPECT_EQ(std::string("a\0b", 3), VObject(std::string_view("a\0bc", 3)).getstr());
  EXPECT_EQ("", VObject(std::string_view()).getstr());
  EXPECT_EQ("a", VObject(VObjectString("a\0b", 3)).getstr()) << "the string class stops at the first zero byte";
  EXPECT_EQ("", VObject("").getstr());
  EXPECT_EQ("", VObject(static_cast<const char*>(nullptr)).getstr());
  EXPECT_EQ("", VObject("abc", 0).getstr());
}

TEST(VObjectConstruction, OfEmptyContainers) {
  EXPECT_EQ(DT_HASH, VObject::new_hash().type());
  EXPECT_TRUE(VObject::new_hash().gethash().empty());
  EXPECT_EQ(DT_VECTOR, VObject::new_vector().type());
  EXPECT_EQ(0U, VObject::new_vector().getvec().capacity());
  const VObject roomy = VObject::new_vector(7);
  EXPECT_TRUE(roomy.getvec().empty());
  EXPECT_EQ(7U, roomy.getvec().capacity());
}

TEST(VObjectConstruction, BracesCopyAVectorOfVariants) {
  const VObjectVector one{VObject(1), VObject(2)};
  const VObjectVector two{one};
  EXPECT_EQ(2U, two.size());
}

TEST(VObjectSetters, TakeEveryIntegerTypeAsInt) {
  VObject v;
  EXPECT_EQ(DT_INT, (v = 42).type());
  EXPECT_EQ(42, v.to_i64());
  v = 0;
  EXPECT_EQ(DT_INT, v.type());
  v = 42U;
  EXPECT_EQ(42, v.to_i64());
  v = 42L;
  EXPECT_EQ(DT_INT, v.type());
  v = 42LL;
  EXPECT_EQ(DT_INT, v.type());
  v = UINT32_MAX;
  EXPECT_EQ(4294967295, v.to_i64());
  v = size_t{7};
  EXPECT_EQ(DT_INT, v.type());
  v = int64_t{INT64_MAX};
  EXPECT_EQ(INT64_MAX, v.to_i64());
  v = static_cast<short>(-3);
  EXPECT_EQ(-3, v.to_i64());
  v = 'a';
  EXPECT_EQ(97, v.to_i64());
  v = DT_BOOL;  // an enumerator
  EXPECT_EQ(DT_INT, v.type());
  EXPECT_EQ(3, v.to_i64());
}

TEST(VObjectSetters, TellBooleansFloatsAndTextsFromIntegers) {
  VObject v;
  v = true;
  EXPECT_EQ(DT_BOOL, v.type());
  EXPECT_EQ(1, v.to_i64());
  v = 1.5;
  EXPECT_EQ(DT_DOUBLE, v.type());
  v = 1.5F;
  EXPECT_EQ(DT_DOUBLE, v.type());
  v = "text";
  EXPECT_EQ(DT_STR, v.type());
  char buffer[] = "text";
  v = buffer;
  EXPECT_EQ("text", v.getstr());
  v = std::string("a\0b", 3);
  EXPECT_EQ(3U, v.getstr().size());
  v = VObjectString("a\0b", 3);
  EXPECT_EQ(3U, v.getstr().size()) << "assignment takes all bytes";
  v = number(3);
  EXPECT_EQ(DT_UDT, v.type());
}

TEST(VObjectSetters, ANullTextIsAnEmptyString) {
  VObject v(1);
  v = static_cast<const char*>(nullptr);
  EXPECT_EQ(DT_STR, v.type());
  EXPECT_EQ("", v.getstr());
  v = nullptr;
  EXPECT_EQ(DT_STR, v.type());
}

TEST(VObjectSetters, AVectorGetsCopiesThatShare) {
  const VObjectVector elements{VObject("shared"), VObject(2)};
  VObject v;
  v = elements;
  EXPECT_EQ(DT_VECTOR, v.type());
  EXPECT_NE(&elements, &v.getvec());
  EXPECT_EQ(storage_of(elements[0]), storage_of(v.getvec()[0]));
  EXPECT_EQ(VObject(2), v.at(1));
}

TEST(VObjectSetters, TakeTheElementsOfAVectorOfBooleans) {
  std::vector<bool> bools{true, false};
  const std::vector<bool>& same = bools;
  VObject v;
  v = bools[0];
  EXPECT_EQ(DT_BOOL, v.type());
  EXPECT_TRUE(v.to_bool());
  v = bools[1];
  EXPECT_EQ(DT_BOOL, v.type());
  EXPECT_FALSE(v.to_bool());
  v = same[0];
  EXPECT_EQ(VObject(true), v);
  EXPECT_EQ(VObject(true), VObject(bools[0]));
  EXPECT_EQ(VObject(false), VObject(same[1]));
  VObject r = make_ref(1);
  r = bools[0];
  EXPECT_EQ(VObject(true), *r.getref()) << "a setter as the others";
  v = VObject::new_vector();
  for (auto bit : bools) v.append(bit);
  EXPECT_EQ(vec({true, false}), v);
}

/// Name<T>::value: whether `t = ...` compiles. Name<T>::result(): what it makes of 5.
#define ASSIGNMENT(Name, ...)                                                                \
  template <typename T, typename = void>                                                     \
  struct Name : std::false_type {};                                                          \
  template <typename T>                                                                      \
  struct Name<T, std::void_t<decltype(std::declval<T&>() = __VA_ARGS__)>> : std::true_type { \
    static T result() {                                                                      \
      T t(5);                                                                                \
      EXPECT_EQ(&t, &(t = __VA_ARGS__));                                                     \
      return t;                                                                              \
    }                                                                                        \
  };

ASSIGNMENT(NoBraces, 0)
ASSIGNMENT(Nullptr, nullptr)
ASSIGNMENT(Null, NULL)
ASSIGNMENT(Empty, {})
ASSIGNMENT(Made, VObject{})
ASSIGNMENT(NoString, std::string{})
ASSIGNMENT(NoElements, VObjectVector{})
ASSIGNMENT(NoObject, boost::shared_ptr<VObjectUDT>{})
ASSIGNMENT(BracedNullptr, {nullptr})
ASSIGNMENT(BracedText, {"a"})
ASSIGNMENT(BracedString, {std::string("a")})
ASSIGNMENT(BracedValue, {VObject(1)})
ASSIGNMENT(BracedValues, {VObject(1), VObject(2)})
ASSIGNMENT(BracedOne, {1})
ASSIGNMENT(BracedTwo, {1, 2})
ASSIGNMENT(BracedTrue, {true})
ASSIGNMENT(BracedDouble, {1.5})
ASSIGNMENT(BracedBraces, {{}})
ASSIGNMENT(BracedOneInBraces, {{1}})
ASSIGNMENT(TwoBraces, {{}, {}})

TEST(VObjectSetters, EmptyBracesAreNilAsInAnInitialisation) {
  VObject v("text");
  v = {};
  EXPECT_EQ(DT_NIL, v.type());
  const VObject made = {};
  EXPECT_EQ(made, v);
  VObject r = make_ref("kept");
  const auto referent = r.getref();
  r = {};
  EXPECT_EQ(DT_NIL, r.type()) << "a nil value that is assigned: r itself, not what it refers to";
  EXPECT_EQ(VObject("kept"), *referent);
}

TEST(VObjectSetters, WhatEveryOtherFormMeans) {
  EXPECT_EQ(VObject(0), NoBraces<VObject>::result());
  EXPECT_EQ(VObject(""), Nullptr<VObject>::result());
  // A C library says which of the two it is: a zero in glibc, nullptr in musl.
  EXPECT_EQ((std::is_same<decltype(NULL), std::nullptr_t>::value ? VObject("") : VObject(0)), Null<VObject>::result());
  EXPECT_EQ(VObject(), Empty<VObject>::result());
  EXPECT_EQ(VObject(), Made<VObject>::result());
  EXPECT_EQ(VObject(""), NoString<VObject>::result());
  EXPECT_EQ(vec({}), NoElements<VObject>::result());
  EXPECT_EQ(DT_UDT, NoObject<VObject>::result().type());
  EXPECT_EQ(VObject(""), BracedNullptr<VObject>::result());
  EXPECT_EQ(VObject("a"), BracedText<VObject>::result());
  EXPECT_EQ(VObject("a"), BracedString<VObject>::result());
  EXPECT_EQ(VObject(1), BracedValue<VObject>::result());
  EXPECT_EQ(vec({1, 2}), BracedValues<VObject>::result());
}

// Braces around one number could mean a number, a character of a string or an element of a vector.
static_assert(!BracedOne<VObject>::value, "no meaning is chosen");
static_assert(!BracedTwo<VObject>::value, "no meaning is chosen");
static_assert(!BracedTrue<VObject>::value, "no meaning is chosen");
static_assert(!BracedDouble<VObject>::value, "no meaning is chosen");
static_assert(!BracedBraces<VObject>::value, "no meaning is chosen");
static_assert(!BracedOneInBraces<VObject>::value, "no meaning is chosen");
static_assert(!TwoBraces<VObject>::value, "no meaning is chosen");

VObject made(uint8_t tag, int salt) {
  VObject v;
  switch (tag) {
    case DT_NIL: break;
    case DT_INT: v = salt; break;
    case DT_DOUBLE: v = salt + 0.5; break;
    case DT_BOOL: v = salt % 2 == 0; break;
    case DT_SYMBOL:
      v = "symbol" + std::to_string(salt);
      v.intern();
      break;
    case DT_STR: v = "string" + std::to_string(salt); break;
    case DT_HASH:
      v.reset_hash();
      v.store("salt", salt);
      break;
    case DT_VECTOR:
      v.reset_vector(0);
      v.append(salt);
      break;
    case DT_UDT: v = number(salt); break;
    case DT_REF: v = boost::make_shared<VObject>("referent" + std::to_string(salt)); break;
    default: break;
  }
  EXPECT_EQ(tag, v.type());
  return v;
}

/// Checks one assignment of `src` to a value of kind `to`; `assign` does it.
template <typename Assign>
void check_assignment(uint8_t from, uint8_t to, Assign assign) {
  SCOPED_TRACE(std::to_string(from) + " onto " + std::to_string(to));
  const VObject src = made(from, 1);
  VObject dst = made(to, 2);
  const boost::shared_ptr<VObject> referent = to == DT_REF ? dst.getref() : nullptr;
  assign(dst, src);

  const bool written_through = to == DT_REF && from >= DT_STR && from != DT_REF;
  if (written_through) {
    EXPECT_EQ(DT_REF, dst.type());
    EXPECT_EQ(referent, dst.getref());
    EXPECT_EQ(from, referent->type());
    EXPECT_EQ(storage_of(src), storage_of(*referent));
  } else {
    EXPECT_EQ(from, dst.type());
    EXPECT_EQ(storage_of(src), storage_of(dst));
    if (referent) {
      EXPECT_EQ(VObject("referent2"), *referent) << "the old referent is as it was";
    }
  }
  EXPECT_EQ(src, dst);
  EXPECT_EQ(made(from, 1), src);
}

TEST(VObjectAssignment, EveryKindOntoEveryKind) {
  for (uint8_t from = DT_NIL; from <= DT_REF; ++from) {
    for (uint8_t to = DT_NIL; to <= DT_REF; ++to) {
      check_assignment(from, to, [](VObject& dst, const VObject& src) { dst = src; });
    }
  }
}

TEST(VObjectAssignment, MovingEveryKindOntoEveryKindIsCopyingAndEndingTheSource) {
  for (uint8_t from = DT_NIL; from <= DT_REF; ++from) {
    for (uint8_t to = DT_NIL; to <= DT_REF; ++to) {
      check_assignment(from, to, [](VObject& dst, const VObject& src) {
        VObject passing(src);
        dst = std::move(passing);
        EXPECT_EQ(DT_NIL, passing.type());  // NOLINT(bugprone-use-after-move)
      });
    }
  }
}

TEST(VObjectAssignment, ConstructionTakesEveryKindAsItIs) {
  for (uint8_t from = DT_NIL; from <= DT_REF; ++from) {
    const VObject src = made(from, 1);
    VObject copy(src);
    EXPECT_EQ(from, copy.type());
    EXPECT_EQ(storage_of(src), storage_of(copy));
    EXPECT_EQ(src, copy);
    const VObject moved(std::move(copy));
    EXPECT_EQ(from, moved.type());
    EXPECT_EQ(storage_of(src), storage_of(moved));
    EXPECT_EQ(DT_NIL, copy.type());  // NOLINT(bugprone-use-after-move)
  }
}

/// Checks a setter on a value of every kind, and through references.
template <typename Set>
void check_setter(uint8_t result, Set set) {
  for (uint8_t to = DT_NIL; to <= DT_REF; ++to) {
    SCOPED_TRACE(static_cast<int>(to));
    VObject v = made(to, 2);
    set(v);
    if (to == DT_REF) {
      EXPECT_EQ(DT_REF, v.type()) << "the value stays a reference";
      EXPECT_EQ(result, v.get_ref_type());
    } else {
      EXPECT_EQ(result, v.type());
    }
  }
}

TEST(VObjectSetters, FromEveryKindAndThroughReferences) {
  check_setter(DT_INT, [](VObject& v) { v = 5; });
  check_setter(DT_DOUBLE, [](VObject& v) { v = 5.5; });
  check_setter(DT_BOOL, [](VObject& v) { v = true; });
  check_setter(DT_STR, [](VObject& v) { v = "text"; });
  check_setter(DT_STR, [](VObject& v) { v = std::string("text"); });
  check_setter(DT_VECTOR, [](VObject& v) { v = VObjectVector(); });
  check_setter(DT_UDT, [](VObject& v) { v = number(1); });
  check_setter(DT_NIL, [](VObject& v) { v.set_nil(); });
  check_setter(DT_HASH, [](VObject& v) { v.reset_hash(); });
  check_setter(DT_VECTOR, [](VObject& v) { v.reset_vector(0); });
  check_setter(DT_UDT, [](VObject& v) { v.reset_udt(); });
}

TEST(VObjectSetters, AReferenceAssignmentMakesAnyKindAReference) {
  for (uint8_t to = DT_NIL; to <= DT_REF; ++to) {
    VObject v = made(to, 2);
    const auto old = to == DT_REF ? v.getref() : nullptr;
    v = boost::make_shared<VObject>(5);
    EXPECT_EQ(DT_REF, v.type());
    EXPECT_EQ(DT_INT, v.get_ref_type());
    if (old) {
      EXPECT_EQ(VObject("referent2"), *old);
    }
  }
}

TEST(VObjectSharing, ACopyOfAHashSeesWhatIsStored) {
  VObject a = VObject::new_hash();
  VObject b = a;
  b.store("k", 1);
  EXPECT_TRUE(a.has_key("k"));
  b.reset_hash();
  EXPECT_TRUE(a.gethash().empty());
  EXPECT_EQ(&a.gethash(), &b.gethash());
}

TEST(VObjectSharing, ResetVectorEmptiesAllSharersAndReserves) {
  VObject a = vec({1, 2});
  VObject b = a;
  b.reset_vector(9);
  EXPECT_TRUE(a.getvec().empty());
  EXPECT_EQ(&a.getvec(), &b.getvec());
  EXPECT_GE(a.getvec().capacity(), 9U);
  VObject c(1);
  c.reset_vector(5);
  EXPECT_EQ(5U, c.getvec().capacity());
  EXPECT_TRUE(c.getvec().empty());
}

TEST(VObjectSharing, ResetVectorKeepsRoomThatSuffices) {
  VObject v = VObject::new_vector(8);
  v.append("text").append(2);
  const VObject sharer = v;
  const VObject* const before = v.getvec().data();
  for (const size_t room : {size_t{0}, size_t{7}, size_t{8}}) {
    v.append(1);
    v.reset_vector(room);
    EXPECT_TRUE(sharer.getvec().empty());
    EXPECT_EQ(8U, sharer.getvec().capacity());
    EXPECT_EQ(before, sharer.getvec().data());
  }
  v.append(1);
  v.reset_vector(9);
  EXPECT_TRUE(sharer.getvec().empty());
  EXPECT_EQ(9U, sharer.getvec().capacity());
}

TEST(VObjectSharing, ResetVectorEndsItsElementsOnce) {
  for (const size_t room : {size_t{0}, size_t{100}}) {
    int destroyed = 0;
    VObject v = vec({VObject(number(1, &destroyed)), VObject(number(2, &destroyed))});
    v.reset_vector(room);
    EXPECT_EQ(2, destroyed);
  }
}

TEST(VObjectSharing, ResetOfAnotherKindLeavesTheSharersAlone) {
  VObject a("text");
  VObject b = a;
  b.reset_hash();
  EXPECT_EQ("text", a.getstr());
  VObject c = a;
  c.reset_vector(0);
  EXPECT_EQ("text", a.getstr());
  VObject d(number(1));
  const VObject e = d;
  d.reset_udt();
  EXPECT_EQ(nullptr, d.udt());
  EXPECT_NE(nullptr, e.udt());
}

TEST(VObjectSharing, StorageLivesAsLongAsItsLastSharer) {
  int destroyed = 0;
  {
    VObject a(number(1, &destroyed));
    {
      const VObject b = a;
      VObject c;
      c = b;
      a.set_nil();
      EXPECT_EQ(0, destroyed);
    }
    EXPECT_EQ(1, destroyed);
  }
  EXPECT_EQ(1, destroyed);
}

TEST(VObjectSharing, OverwritingReleasesTheOldContents) {
  for (uint8_t from = DT_NIL; from <= DT_REF; ++from) {
    int destroyed = 0;
    VObject v(number(1, &destroyed));
    v = made(from, 1);
    EXPECT_EQ(1, destroyed);
  }
}

// The source of an assignment may be part of what it overwrites, and be stored only there.

TEST(VObjectAliasing, SelfAssignmentChangesNothing) {
  for (uint8_t tag = DT_NIL; tag <= DT_REF; ++tag) {
    VObject v = made(tag, 1);
    VObject& same = v;
    v = same;
    EXPECT_EQ(made(tag, 1), v);
    EXPECT_EQ(tag, v.type());
    v = std::move(same);
    EXPECT_EQ(tag, v.type());
    EXPECT_EQ(made(tag, 1), v);
  }
}

TEST(VObjectAliasing, AVectorsOwnElementAssignedToTheVector) {
  for (uint8_t tag = DT_NIL; tag <= DT_REF; ++tag) {
    VObject v = vec({made(tag, 1)});
    v = v.at(0);
    EXPECT_EQ(made(tag, 1), v);
    VObject w = vec({made(tag, 1)});
    w = std::move(w.at(0));
    EXPECT_EQ(made(tag, 1), w);
  }
}

TEST(VObjectAliasing, AHashsOwnElementAssignedToTheHash) {
  for (uint8_t tag = DT_NIL; tag <= DT_REF; ++tag) {
    VObject v = hash({{"k", made(tag, 1)}});
    v = v.fetch("k");
    EXPECT_EQ(made(tag, 1), v);
  }
}

TEST(VObjectAliasing, PartsOfTheTargetGivenToItsSetters) {
  VObject v("text");
  v = v.getstr();
  EXPECT_EQ("text", v.getstr());
  v = v.getstr().c_str() + 1;
  EXPECT_EQ("ext", v.getstr());
  v = vec({1, vec({2, 3})});
  v = v.at(1).getvec();
  EXPECT_EQ(vec({2, 3}), v);
  v = v.getvec();
  EXPECT_EQ(vec({2, 3}), v);
}

TEST(VObjectAliasing, AReferentAssignedThroughItsOnlyReference) {
  // The shared source is reached on the way, so nothing changes.
  VObject r = make_ref("text");
  r = *r.getref();
  EXPECT_EQ(DT_REF, r.type());
  EXPECT_EQ("text", r.getstr());
  r = std::move(*r.getref());
  EXPECT_EQ(DT_REF, r.type());
  EXPECT_EQ("text", r.getstr());
  // A scalar replaces the reference, and so destroys the referent in which it is stored.
  VObject s = make_ref(7);
  s = *s.getref();
  EXPECT_EQ(DT_INT, s.type());
  EXPECT_EQ(7, s.to_i64());
}

TEST(VObjectAliasing, AnElementOfTheReferentAssignedThroughTheReference) {
  VObject r = make_ref(vec({"text"}));
  r = r.at(0);
  EXPECT_EQ(DT_REF, r.type());
  EXPECT_EQ("text", r.getstr());
}

TEST(VObjectAliasing, AValueThatLivesInWhatItOverwrites) {
  // x is an element of the vector to which it refers; nothing else holds either.
  boost::shared_ptr<VObject> home = boost::make_shared<VObject>(VObject::new_vector());
  home->append(VObject());
  VObject* const x = &home->getvec()[0];
  *x = home;
  home.reset();
  *x = VObject("text");  // destroys x and the referent
  SUCCEED() << "the sanitizers say whether anything was touched after its end";

  home = boost::make_shared<VObject>(VObject::new_vector());
  home->append(VObject());
  VObject* const y = &home->getvec()[0];
  *y = home;
  home.reset();
  y->reset_vector(4);

  home = boost::make_shared<VObject>(VObject::new_hash());
  VObject* const z = &home->fetch("z");
  *z = home;
  home.reset();
  z->reset_hash();

  home = boost::make_shared<VObject>(VObject::new_hash());
  VObject* const u = &home->fetch("u");
  *u = home;
  home.reset();
  u->unref();
}

TEST(VObjectMoving, SwapExchangesReferencesAndTexts) {
  VObject a = make_ref(1);
  VObject b("text");
  std::swap(a, b);
  EXPECT_EQ("text", a.getstr());
  EXPECT_EQ(DT_STR, a.type());
  EXPECT_EQ(DT_REF, b.type());
  EXPECT_EQ(VObject(1), *b.getref());
}

TEST(VObjectMoving, AGrowingVectorDoesNotTouchTheCounts) {
  VObjectVector elements;
  elements.emplace_back("text");
  const void* const before = storage_of(elements[0]);
  for (int i = 0; i < 100; ++i) elements.emplace_back(i);
  EXPECT_EQ(before, storage_of(elements[0]));
  EXPECT_EQ(VObject(99), elements.back());
}

TEST(VObjectForeignTag, CanBeCopiedAndEnded) {
  VObject v(77);
  force_tag(v, 12);
  const VObject copy(v);
  EXPECT_EQ(12, copy.type());
  EXPECT_EQ(77, copy.to_i64());
  VObject assigned("text");
  assigned = v;
  EXPECT_EQ(12, assigned.type());
  assigned = 5;
  EXPECT_EQ(DT_INT, assigned.type());
}

}  // namespace
