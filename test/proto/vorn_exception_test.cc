#include "proto/vorn_exception.h"

#include <exception>
#include <memory>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "proto/vorn_proto_exception.h"
#include "proto/vorn_runtime_error.h"

namespace {

using VORN::VornException;
using VORN::VornRuntimeError;
using VORN::PROTO::VornProtoException;

template <typename Exception>
class VornExceptionTest : public testing::Test {};

using Exceptions = testing::Types<VornException, VornRuntimeError, VornProtoException>;
TYPED_TEST_SUITE(VornExceptionTest, Exceptions, );  // clang++ wants the variadic argument, if empty

TYPED_TEST(VornExceptionTest, SaysWhatItWasMadeWith) {
  EXPECT_STREQ("Thing::work: it broke", TypeParam("Thing::work: it broke").what());
  EXPECT_STREQ("", TypeParam(std::string()).what());
}

TYPED_TEST(VornExceptionTest, KeepsACopyOfTheMessage) {
  auto text = std::make_unique<std::string>(1000, 'x');
  const TypeParam error(*text);
  text.reset();
  EXPECT_EQ(std::string(1000, 'x'), error.what());
}

TYPED_TEST(VornExceptionTest, ACopySaysTheSameAndOutlivesTheOriginal) {
  auto original = std::make_unique<TypeParam>("a message that is too long to be held without an allocation");
  const TypeParam copy(*original);
  TypeParam assigned("another");
  assigned = *original;
  original.reset();
  EXPECT_STREQ("a message that is too long to be held without an allocation", copy.what());
  EXPECT_STREQ("a message that is too long to be held without an allocation", assigned.what());
}

TYPED_TEST(VornExceptionTest, IsCaughtAsTheBaseAndAsAStandardException) {
  try {
    throw TypeParam("caught");
  } catch (const VornException& e) {
    EXPECT_STREQ("caught", e.what());
  }
  try {
    throw TypeParam("caught");
  } catch (const std::exception& e) {
    EXPECT_STREQ("caught", e.what());
  }
}

TEST(VornExceptionTree, TheTwoKindsAreNotEachOther) {
  EXPECT_FALSE((std::is_base_of<VornRuntimeError, VornProtoException>::value));
  EXPECT_FALSE((std::is_base_of<VornProtoException, VornRuntimeError>::value));
}

}  // namespace
