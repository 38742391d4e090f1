#include "test/support/allocations.h"
#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

TEST(Fetch, InsertsWhatIsMissing) {
  VObject h = hash({{"a", 1}});
  EXPECT_EQ(VObject(1), h.fetch("a"));
  EXPECT_EQ(DT_NIL, h.fetch("b").type());
  EXPECT_EQ(2U, h.gethash().size());
  h.fetch("b") = 5;
  EXPECT_EQ(VObject(5), h.fetch("b"));
  VObject r = make_ref(h);
  r.fetch("c");
  EXPECT_EQ(3U, h.gethash().size());
}

TEST(Fetch, RejectsOtherKinds) {
  for (VObject v : {VObject(), VObject(1), VObject("a"), VObject::new_vector(), make_ref(1)}) {
    EXPECT_FAILS("non-const VObject::fetch called on non-hash object", v.fetch("a"));
  }
}

TEST(Keys, AreTextsOrAllBytes) {
  const std::string zero("a\0b", 3);
  VObject h = VObject::new_hash();
  h.store(zero, 1).store(std::string_view("bcd").substr(1), 2).store("e", 3);
  EXPECT_EQ(3U, h.gethash().size());
  EXPECT_TRUE(h.has_key(zero));
  EXPECT_TRUE(h.has_key("cd"));
  EXPECT_TRUE(h.has_key(std::string("e")));
  EXPECT_FALSE(h.has_key("a"));
  EXPECT_FALSE(h.has_key(zero.c_str())) << "a text ends at the zero byte";
  EXPECT_EQ(VObject(1), h.fetch(zero));
  h.fetch(std::string_view("new")) = 4;
  const VObject& read_only = h;
  EXPECT_EQ(VObject(4), read_only.fetch(std::string("new")));
  EXPECT_EQ(DT_NIL, read_only.fetch(std::string_view("none")).type());
  EXPECT_EQ(4U, h.gethash().size());
  h.store(VObject("from a string").getstr(), 5);
  EXPECT_TRUE(h.has_key("from a string"));
  h.store(std::string_view(), 6);
  EXPECT_EQ(VObject(6), h.fetch("")) << "no bytes, and no pointer to any";
  VObject not_a_hash(1);
  EXPECT_FAILS("non-const VObject::fetch called on non-hash object", not_a_hash.fetch(zero));
  EXPECT_FAILS("VObject::store called on non-hash object", not_a_hash.store(zero, 1));
}

TEST(ConstFetch, InsertsNothing) {
  const VObject h = hash({{"a", 1}});
  EXPECT_EQ(&h.gethash().begin()->second, &h.fetch("a"));
  const VObject& nil = h.fetch("b");
  EXPECT_EQ(DT_NIL, nil.type());
  EXPECT_EQ(1U, h.gethash().size());
  const VObject not_a_hash(1);
  EXPECT_EQ(&nil, &not_a_hash.fetch("a")) << "one nil answers for all";
}

TEST(ConstFetch, OnAReferenceInsertsAndRejects) {
  const VObject h = hash({{"a", 1}});
  const VObject r = make_ref(h);
  EXPECT_EQ(VObject(1), r.fetch("a"));
  EXPECT_EQ(DT_NIL, r.fetch("b").type());
  EXPECT_EQ(2U, h.gethash().size());
  const VObject rr = make_ref(r);
  rr.fetch("c");
  EXPECT_EQ(3U, h.gethash().size());
  const VObject bad = make_ref(1);
  EXPECT_FAILS("non-const VObject::fetch called on non-hash object", bad.fetch("a"));
}

TEST(Store, InsertsAndOverwrites) {
  VObject h = VObject::new_hash();
  EXPECT_EQ(&h, &h.store("a", 1));
  h.store("a", "text").store("b", 2);
  EXPECT_EQ("{\"a\"=>\"text\", \"b\"=>2}", rendered(h));
  VObject r = make_ref(h);
  EXPECT_EQ(r.getref().get(), &r.store("c", VObject()));
  EXPECT_TRUE(h.has_key("c"));
}

TEST(Store, SharesTheValue) {
  VObject h = VObject::new_hash();
  VObject inner = VObject::new_hash();
  h.store("inner", inner);
  inner.store("k", 1);
  EXPECT_TRUE(h.fetch("inner").has_key("k"));
}

TEST(Store, OntoAReferenceElementFollowsTheAssignmentRules) {
  VObject h = VObject::new_hash();
  VObject r = make_ref("old");
  h.store("r", r);
  h.store("r", "text");
  EXPECT_EQ("text", r.getstr());
  EXPECT_EQ(DT_REF, h.fetch("r").type());
  h.store("r", 1);
  EXPECT_EQ(DT_INT, h.fetch("r").type());
  EXPECT_EQ("text", r.getstr());
}

TEST(Store, OfTheHashsOwnElements) {
  VObject h = hash({{"a", vec({1, "deep"})}});
  h.store("b", h.fetch("a"));
  EXPECT_EQ(storage_of(h.fetch("a")), storage_of(h.fetch("b")));
  h.store("a", h.fetch("a"));
  EXPECT_EQ(vec({1, "deep"}), h.fetch("a"));
  h.store("b", 0);
  h.store("a", h.fetch("a").at(1));
  EXPECT_EQ(VObject("deep"), h.fetch("a"));
}

TEST(Store, RejectsOtherKinds) {
  for (VObject v : {VObject(), VObject("a"), VObject::new_vector(), make_ref(1)}) {
    EXPECT_FAILS("VObject::store called on non-hash object", v.store("a", 1));
  }
}

TEST(HasKey, IsFalseForWhatIsNoHash) {
  EXPECT_TRUE(hash({{"a", VObject()}}).has_key("a"));
  EXPECT_FALSE(hash({{"a", 1}}).has_key("b"));
  EXPECT_FALSE(hash({{"a", 1}}).has_key(""));
  EXPECT_TRUE(make_ref(hash({{"a", 1}})).has_key("a"));
  EXPECT_FALSE(VObject("a").has_key("a"));
  EXPECT_FALSE(VObject().has_key("a"));
}

TEST(HashLookup, AllocatesNothing) {
  const char* const long_key = "a key that is too long for any small string's own storage";
  VObject h = hash({{long_key, 1}, {"b", 2}});
  const VObject& same = h;
  const vorn_test::AllocationCount allocations;
  EXPECT_TRUE(h.has_key(long_key));
  EXPECT_FALSE(h.has_key("missing, and also rather a long one to look for"));
  h.fetch(long_key);
  same.fetch(long_key);
  same.fetch("missing, and also rather a long one to look for");
  h.store(long_key, 3);
  EXPECT_EQ(1U, h.gethash().count(long_key));
  EXPECT_EQ(0U, allocations.count());
}

TEST(At, CountsFromEitherEnd) {
  VObject v = vec({10, 11, 12});
  EXPECT_EQ(VObject(10), v.at(0));
  EXPECT_EQ(VObject(12), v.at(2));
  EXPECT_EQ(VObject(12), v.at(-1));
  EXPECT_EQ(VObject(10), v.at(-3));
  EXPECT_EQ(VObject(11), make_ref(v).at(1));
  v.at(1) = "text";
  EXPECT_EQ("text", v.getvec()[1].getstr());
}

TEST(At, RejectsIndexesOutside) {
  VObject v = vec({10, 11, 12});
  VObject empty = VObject::new_vector(4);
  for (const int64_t i : {int64_t{3}, int64_t{-4}, INT64_MAX, INT64_MIN}) {
    EXPECT_FAILS("non-const VObject::at: index out of range", v.at(i));
  }
  EXPECT_FAILS("non-const VObject::at: index out of range", empty.at(0));
  EXPECT_FAILS("non-const VObject::at: index out of range", empty.at(-1));
}

TEST(At, RejectsOtherKinds) {
  for (VObject v : {VObject(), VObject("a"), VObject::new_hash(), make_ref(1)}) {
    EXPECT_FAILS("non-const VObject::at called on non-vector object", v.at(0));
  }
}

TEST(Append, OneAndMany) {
  VObject v = VObject::new_vector();
  EXPECT_EQ(&v, &v.append(1));
  const VObjectVector more{VObject(2), VObject("text")};
  EXPECT_EQ(&v, &v.append(more));
  EXPECT_EQ(vec({1, 2, "text"}), v);
  EXPECT_EQ(storage_of(more[1]), storage_of(v.at(2)));
  VObject r = make_ref(v);
  EXPECT_EQ(r.getref().get(), &r.append(4));
  EXPECT_EQ(4U, v.getvec().size());
  const VObject ref = make_ref(5);
  v.append(ref);
  EXPECT_EQ(DT_REF, v.at(-1).type()) << "a reference is appended as one";
}

TEST(Append, OfTheVectorsOwnElementsWhileItGrows) {
  VObject v = vec({"text"});
  for (int i = 0; i < 40; ++i) v.append(v.at(0));
  ASSERT_EQ(41U, v.getvec().size());
  for (const VObject& element : v.getvec()) EXPECT_EQ(storage_of(v.at(0)), storage_of(element));
}

TEST(Append, OfTheVectorToItself) {
  VObject v = vec({1, "two"});
  for (int i = 0; i < 3; ++i) v.append(v.getvec());
  ASSERT_EQ(16U, v.getvec().size());
  for (int i = 0; i < 16; i += 2) {
    EXPECT_EQ(VObject(1), v.at(i));
    EXPECT_EQ(VObject("two"), v.at(i + 1));
  }
  VObject copy = v;
  copy.append(v.getvec());
  EXPECT_EQ(32U, v.getvec().size());
  VObject empty = VObject::new_vector();
  empty.append(empty.getvec());
  EXPECT_TRUE(empty.getvec().empty());
}

TEST(Append, OfTheVectorToItselfWithAnyRoom) {
  for (size_t n = 0; n <= 9; ++n) {
    for (size_t room = 0; room <= n + 1; ++room) {
      VObject v = VObject::new_vector(n + room);
      for (size_t i = 0; i < n; ++i) v.append("text " + std::to_string(i));
      ASSERT_EQ(n + room, v.getvec().capacity());
      v.append(v.getvec());
      ASSERT_EQ(2 * n, v.getvec().size());
      for (size_t i = 0; i < n; ++i) {
        ASSERT_EQ(VObject("text " + std::to_string(i)), v.getvec()[i]) << n << " elements, room for " << room;
        ASSERT_EQ(storage_of(v.getvec()[i]), storage_of(v.getvec()[n + i]));
      }
    }
  }
}

TEST(Append, RejectsOtherKinds) {
  for (VObject v : {VObject(), VObject("a"), VObject::new_hash(), make_ref(1)}) {
    EXPECT_FAILS("VObject::append called on non-vector object", v.append(1));
    EXPECT_FAILS("VObject::append called on non-vector object", v.append(VObjectVector()));
  }
}

}  // namespace
