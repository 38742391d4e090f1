#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

/// A chain x -> middle -> end: assignment collapses chains, but a referent can become a reference later.
struct Chain {
  Chain() {
    x = middle;
    *middle = end;
  }
  boost::shared_ptr<VObject> end = boost::make_shared<VObject>("end");
  boost::shared_ptr<VObject> middle = boost::make_shared<VObject>();
  VObject x;
};

TEST(Reference, RefersToTheSharedValue) {
  const auto p = boost::make_shared<VObject>(7);
  VObject x;
  x = p;
  EXPECT_EQ(DT_REF, x.type());
  EXPECT_EQ(p, x.getref());
  EXPECT_EQ(DT_INT, x.get_ref_type());
  *p = "now a text";
  EXPECT_EQ("now a text", x.getstr());
}

TEST(Reference, RejectsNull) {
  VObject x("kept");
  EXPECT_FAILS("VObject::operator=: won't assign null reference", x = boost::shared_ptr<VObject>());
  EXPECT_EQ("kept", x.getstr());
}

TEST(Reference, RejectsItselfDirectlyAndAlongAChain) {
  const auto x = boost::make_shared<VObject>("kept");
  EXPECT_FAILS("VObject::operator=: won't assign reference to self", *x = x);
  EXPECT_EQ(DT_STR, x->type());

  const auto r = boost::make_shared<VObject>();
  *r = x;
  EXPECT_FAILS("VObject::operator=: won't assign reference to self", *x = r);
  EXPECT_EQ("kept", x->getstr());

  const auto rr = boost::make_shared<VObject>();
  const auto middle = boost::make_shared<VObject>();
  *rr = middle;
  *middle = x;
  EXPECT_FAILS("VObject::operator=: won't assign reference to self", *x = rr);
  EXPECT_EQ("kept", x->getstr());
}

TEST(Reference, RejectsANullAlongTheChain) {
  const auto broken = boost::make_shared<VObject>();
  *broken = boost::make_shared<VObject>(1);
  const auto kept = broken->getref();
  broken->getref().reset();
  VObject x(5);
  EXPECT_FAILS("VObject::operator=: won't assign null reference", x = broken);
  EXPECT_EQ(VObject(5), x);
  broken->getref() = kept;
}

TEST(Reference, CollapsesAChain) {
  Chain chain;
  const auto p = boost::make_shared<VObject>(chain.x);
  VObject y;
  y = p;
  EXPECT_EQ(chain.end, y.getref());
}

TEST(Reference, CanBeAssignedItsOwnPointer) {
  VObject x = make_ref(1);
  x = x.getref();
  EXPECT_EQ(DT_REF, x.type());
  EXPECT_EQ(1, x.to_i64());
}

TEST(Reference, WalksAChain) {
  Chain chain;
  EXPECT_EQ(chain.middle, chain.x.getref());
  EXPECT_EQ(DT_STR, chain.x.get_ref_type());
  EXPECT_EQ("end", chain.x.getstr());
  chain.x = 5;
  EXPECT_EQ(VObject(5), *chain.end);
  EXPECT_EQ(DT_REF, chain.middle->type());
  chain.x = VObject("through");
  EXPECT_EQ("through", chain.end->getstr());
  EXPECT_EQ(DT_REF, chain.x.type());
  EXPECT_EQ(DT_REF, chain.middle->type());
  chain.x.set_nil();
  EXPECT_EQ(DT_NIL, chain.end->type());
}

TEST(Reference, ASharedSourceMetAlongTheChainChangesNothing) {
  Chain chain;
  chain.x = *chain.end;
  EXPECT_EQ("end", chain.end->getstr());
  EXPECT_EQ(DT_REF, chain.x.type());
}

TEST(Reference, TheMiddleOfAChainAssignedToItself) {
  const auto unchanged = [](const Chain& chain) {
    EXPECT_EQ(chain.middle, chain.x.getref());
    EXPECT_EQ(chain.end, chain.middle->getref());
    EXPECT_EQ("end", chain.x.getstr());
  };
  Chain chain;
  VObject& middle = *chain.middle;
  *chain.middle = middle;
  unchanged(chain);
  *chain.middle = std::move(middle);
  unchanged(chain);
  EXPECT_FAILS("VObject::operator=: won't assign reference to self", *chain.middle = chain.middle);
  unchanged(chain);
  // The chain leads through the value and beyond it.
  const auto head = boost::make_shared<VObject>(chain.x);
  ASSERT_EQ(chain.middle, head->getref());
  EXPECT_FAILS("VObject::operator=: won't assign reference to self", *chain.middle = head);
  unchanged(chain);
  *chain.middle = chain.middle->getref();
  unchanged(chain);
  *chain.middle = *chain.end;
  unchanged(chain);
}

TEST(Reference, ToAReferenceIsReplacedByItsCopy) {
  Chain chain;
  chain.x = *chain.middle;
  EXPECT_EQ(chain.end, chain.x.getref());
  Chain other;
  other.x = std::move(*other.middle);
  EXPECT_EQ(other.end, other.x.getref());
}

TEST(Reference, TheSetterWritesThroughAndTheCopyOfAScalarReplaces) {
  const auto p = boost::make_shared<VObject>("old");
  VObject x;
  x = p;
  x = 5;
  EXPECT_EQ(DT_REF, x.type());
  EXPECT_EQ(VObject(5), *p);
  x = VObject(6);
  EXPECT_EQ(DT_INT, x.type());
  EXPECT_EQ(VObject(5), *p);
}

TEST(Reference, ACopyOfAReferenceIsASecondOne) {
  VObject r = make_ref(1);
  VObject x = make_ref("other");
  const auto other = x.getref();
  x = r;
  EXPECT_EQ(r.getref(), x.getref());
  EXPECT_EQ("other", other->getstr());
  x = 2;
  EXPECT_EQ(2, r.to_i64());
}

TEST(Reference, UnrefLeavesTheReferent) {
  const auto p = boost::make_shared<VObject>(1);
  VObject x;
  x = p;
  x.unref();
  EXPECT_EQ(DT_NIL, x.type());
  EXPECT_EQ(VObject(1), *p);
  EXPECT_EQ(1, p.use_count());
}

TEST(Reference, AccessorsRejectWhatIsNoReference) {
  for (VObject v : {VObject(), VObject(1), VObject("text"), VObject::new_hash()}) {
    EXPECT_FAILS("VObject::get_ref_type called on non-reference", v.get_ref_type());
    EXPECT_FAILS("VObject::getref called on non-reference", v.getref());
    EXPECT_FAILS("VObject::unref called on non-reference", v.unref());
    const VObject& same = v;
    EXPECT_FAILS("VObject::getref called on non-reference", same.getref());
  }
}

#ifndef NDEBUG

TEST(ReferenceDeathTest, ThePointerIsNotMadeNull) {
  VObject x;
  x = boost::make_shared<VObject>(7);
  x.getref().reset();
  EXPECT_DEATH(x = 5, "v != nullptr");
  EXPECT_DEATH(x.to_i64(), "v != nullptr");
}

#endif

}  // namespace
