#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

void collect_storage(const VObject& v, std::set<const void*>& storage) {
  if (storage_of(v) != nullptr) storage.insert(storage_of(v));
  if (v.type() == DT_HASH) {
    for (const auto& member : v.gethash()) {
      storage.insert(member.first.data());
      collect_storage(member.second, storage);
    }
  } else if (v.type() == DT_VECTOR) {
    for (const VObject& element : v.getvec()) collect_storage(element, storage);
  }
}

TEST(DeepCopy, EqualsItsSourceAndSharesNothingWithIt) {
  RandomValues random(3);
  for (int i = 0; i < 3000; ++i) {
    const VObject v = random.value(4);
    VObject copy("old");
    ASSERT_EQ(&copy, &deep_copy(v, copy));
    ASSERT_EQ(v, copy);
    ASSERT_EQ(rendered(v), rendered(copy));
    std::set<const void*> ours;
    std::set<const void*> theirs;
    collect_storage(v, ours);
    collect_storage(copy, theirs);
    for (const void* const storage : theirs) ASSERT_EQ(0U, ours.count(storage));
  }
}

TEST(DeepCopy, UndoesSharingWithinTheSource) {
  const VObject shared = vec({1});
  VObject copy;
  deep_copy(vec({shared, shared}), copy);
  copy.at(0).append(2);
  EXPECT_EQ(vec({vec({1, 2}), vec({1})}), copy);
}

TEST(DeepCopy, KeepsSymbols) {
  VObject symbol("name");
  symbol.intern();
  VObject copy;
  deep_copy(vec({symbol}), copy);
  EXPECT_EQ(DT_SYMBOL, copy.at(0).type());
  EXPECT_EQ(vec({symbol}), copy);
}

TEST(DeepCopy, RejectsWhatHasNoEncoding) {
  VObject copy("old");
  EXPECT_FAILS("VObject::serialize: serialization of DT_REF not yet supported", deep_copy(make_ref(1), copy));
  EXPECT_EQ(DT_NIL, copy.type()) << "cleared first";
  EXPECT_FAILS("VObject::serialize: serialization of DT_UDT not yet supported", deep_copy(VObject(number(1)), copy));
  VObject deep = VObject::new_vector();
  for (int i = 1; i < 64; ++i) deep = vec({VObject(deep)});
  EXPECT_EQ(deep, deep_copy(deep, copy));
  deep = vec({VObject(deep)});
  EXPECT_FAILS("VObject::serialize: maxdepth exceeded", deep_copy(deep, copy));
  EXPECT_EQ(DT_NIL, copy.type());
}

TEST(DeepCopy, ReplacesAReferenceAndClearsItsReferent) {
  VObject target = make_ref("old");
  const auto referent = target.getref();
  deep_copy(vec({1}), target);
  EXPECT_EQ(DT_VECTOR, target.type());
  EXPECT_EQ(DT_NIL, referent->type());
  VObject kept = make_ref("old");
  EXPECT_FAILS("VObject::serialize: serialization of DT_REF not yet supported", deep_copy(make_ref(1), kept));
  EXPECT_EQ(DT_REF, kept.type()) << "the reference goes only with the copy";
  EXPECT_EQ(DT_NIL, kept.get_ref_type());
}

TEST(DeepCopy, OfAPartOfItsTarget) {
  VObject v = vec({hash({{"k", "text"}})});
  deep_copy(v.at(0), v);
  EXPECT_EQ(hash({{"k", "text"}}), v);
  VObject self("text");
  deep_copy(self, self);
  EXPECT_EQ(DT_NIL, self.type()) << "cleared first";
}

}  // namespace
