#include "vobject/vobject_payload.h"

#include <boost/make_shared.hpp>
#include <utility>

#include <gtest/gtest.h>

#include "vobject/vobject.h"

using namespace VORN;

namespace {

VObjectPayload text_payload(const char* text) {
  return {DT_STR, boost::make_shared<VObjectString>(text)};
}

TEST(Payload, SharesWhenItIsCopiedAndLeavesNilWhenItIsMoved) {
  VObjectPayload text = text_payload("abc");
  const VObjectPayload copy(text);
  EXPECT_EQ(&text.str(), &copy.str());
  const VObjectPayload moved(std::move(text));
  EXPECT_EQ(&copy.str(), &moved.str());
  EXPECT_EQ(DT_NIL, text.tag());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(0U, text.word());
}

TEST(Payload, KeepsScalarsAsBits) {
  EXPECT_EQ(-1, VObjectPayload(DT_INT, VObjectPayload::word_of(int64_t{-1})).integer());
  EXPECT_EQ(-0.5, VObjectPayload(DT_DOUBLE, VObjectPayload::word_of(-0.5)).real());
  EXPECT_TRUE(VObjectPayload(DT_BOOL, 1).boolean());
  EXPECT_EQ(7U, VObjectPayload(DT_SYMBOL, 7).symbol());
}

TEST(Payload, WhatItHeldEndsWhenItIsOverwritten) {
  const auto text = boost::make_shared<VObjectString>("abc");
  VObjectPayload payload(DT_STR, boost::shared_ptr<void>(text));
  EXPECT_EQ(2, text.use_count());
  payload.replace(VObjectPayload(boost::make_shared<VObject>(1)));
  EXPECT_EQ(1, text.use_count());
  const boost::shared_ptr<VObject> referent = payload.referent();
  EXPECT_EQ(2, referent.use_count());
  payload.set_scalar(DT_INT, 5);
  EXPECT_EQ(1, referent.use_count());
  EXPECT_EQ(5, payload.integer());
}

#ifndef NDEBUG

TEST(PayloadDeathTest, IsReadAsWhatItIs) {
  const VObjectPayload nil;
  EXPECT_DEATH(nil.integer(), "DT_INT");
  EXPECT_DEATH(nil.real(), "DT_DOUBLE");
  EXPECT_DEATH(nil.boolean(), "DT_BOOL");
  EXPECT_DEATH(nil.symbol(), "DT_SYMBOL");
  EXPECT_DEATH(nil.str(), "tag_ == tag");
  EXPECT_DEATH(nil.hash(), "tag_ == tag");
  EXPECT_DEATH(nil.vec(), "tag_ == tag");
  EXPECT_DEATH(nil.udt(), "tag_ == tag");
  EXPECT_DEATH(nil.referent(), "DT_REF");
  EXPECT_DEATH(text_payload("abc").word(), "is_shared_type");
}

TEST(PayloadDeathTest, IsMadeWithTheTagOfItsContents) {
  EXPECT_DEATH(VObjectPayload(DT_STR, 0), "is_shared_type");
  EXPECT_DEATH(VObjectPayload(DT_INT, boost::shared_ptr<void>()), "is_shared_type");
  EXPECT_DEATH(VObjectPayload(DT_REF, boost::shared_ptr<void>()), "DT_REF");
  EXPECT_DEATH(VObjectPayload{boost::shared_ptr<VObject>()}, "referent != nullptr");
}

#endif

}  // namespace
