#include "vobject/string_ref.h"

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "test/support/allocations.h"
#include "vobject/vobject_string.h"

namespace {

using VORN::string_ref;

bool less(const string_ref& a, const string_ref& b) {
  return std::less<string_ref>()(a, b);
}

TEST(StringRef, BorrowsTheBytesOfAString) {
  const char* const text = "abc";
  const string_ref from_text(text);
  EXPECT_EQ(text, from_text.data());
  EXPECT_EQ(3U, from_text.length());
  EXPECT_EQ(0, from_text.owner_flag());

  const std::string bytes("a\0b", 3);
  const string_ref from_string(bytes);
  EXPECT_EQ(bytes.data(), from_string.data());
  EXPECT_EQ(3U, from_string.length());
  EXPECT_EQ(0, from_string.owner_flag());

  const VORN::VObjectString variant_bytes("xy");
  const string_ref from_variant_string(variant_bytes);
  EXPECT_EQ(variant_bytes.data(), from_variant_string.data());
  EXPECT_EQ(0, from_variant_string.owner_flag());
}

TEST(StringRef, TheCopyOfABorrowedOrOwnedKeyOwnsExactlyItsBytes) {
  const string_ref borrowed("abc");
  const vorn_test::AllocationCount allocations;
  const string_ref copy(borrowed);
  EXPECT_EQ(1U, allocations.count());
  EXPECT_EQ(3U, allocations.bytes());
  EXPECT_EQ(1, copy.owner_flag());
  EXPECT_NE(borrowed.data(), copy.data());
  EXPECT_EQ(borrowed, copy);

  const string_ref copy_of_copy(copy);
  EXPECT_EQ(1, copy_of_copy.owner_flag());
  EXPECT_NE(copy.data(), copy_of_copy.data());
  EXPECT_EQ(borrowed, copy_of_copy);
}

TEST(StringRef, TheCopyOfAStaticKeySharesItsBytes) {
  const char* const text = "static";
  const string_ref key = string_ref::make_static(text, 6);
  EXPECT_LT(key.owner_flag(), 0);
  const vorn_test::AllocationCount allocations;
  const string_ref copy(key);
  EXPECT_EQ(0U, allocations.count());
  EXPECT_EQ(-1, copy.owner_flag());
  EXPECT_EQ(text, copy.data());
}

TEST(StringRef, OwnedBytesAreFreed) {
  const string_ref borrowed("abc");
  const string_ref nothing("");
  const char* volatile seen = nullptr;  // the compiler may omit an unused copy and its allocation
  const int64_t before = vorn_test::live_allocations();
  int64_t during;
  {
    const string_ref copy(borrowed);
    const string_ref copy_of_nothing(nothing);
    seen = copy.data();
    seen = copy_of_nothing.data();
    during = vorn_test::live_allocations();
  }
  const int64_t after = vorn_test::live_allocations();
  EXPECT_NE(nullptr, seen);
  EXPECT_EQ(before + 2, during);
  EXPECT_EQ(before, after);
}

TEST(StringRef, AFailedCopyFreesNothing) {
  const string_ref borrowed("abc");
  const char* volatile seen = nullptr;  // the compiler may omit an unused copy and its allocation
  const vorn_test::FailAllocation failure(1);
  EXPECT_THROW(
      {
        const string_ref copy(borrowed);
        seen = copy.data();
      },
      std::bad_alloc);
  EXPECT_EQ(nullptr, seen);
  EXPECT_EQ("abc", borrowed.view());
}

TEST(StringRef, OrdersBytewiseUnsignedAndTheShorterFirst) {
  EXPECT_TRUE(less("a", "b"));
  EXPECT_FALSE(less("b", "a"));
  EXPECT_TRUE(less("a", "ab"));
  EXPECT_FALSE(less("ab", "a"));
  EXPECT_TRUE(less("ab", "b"));
  EXPECT_TRUE(less("", "a"));
  EXPECT_FALSE(less("", ""));
  EXPECT_TRUE(less("\x7F", "\x80"));
  EXPECT_TRUE(less("z", "\xE9"));
  EXPECT_FALSE(less("abc", "abc"));
}

TEST(StringRef, TheOrderDoesNotStopAtZeroBytes) {
  const std::string x("a\0x", 3);
  const std::string y("a\0y", 3);
  EXPECT_TRUE(less(x, y));
  EXPECT_FALSE(less(y, x));
  EXPECT_NE(string_ref(x), string_ref(y));
  EXPECT_TRUE(less("a", x));
}

// A length has 64 bits everywhere, and is never truncated to the size of an address.
TEST(StringRef, ALengthThatNoMemoryHoldsIsRefused) {
  const uint64_t lengths[] = {0xFFFFFFFF, 0x100000000, 0x100000003, uint64_t{1} << 63, UINT64_MAX};
  for (const uint64_t length : lengths) {
    if (length > SIZE_MAX) {
      EXPECT_THROW(string_ref("abc", length), std::length_error);
      EXPECT_THROW(string_ref::make_static("abc", length), std::length_error);
    } else {
      EXPECT_EQ(length, string_ref("abc", length).length());
      EXPECT_EQ(length, string_ref::make_static("abc", length).length());
    }
  }
}

TEST(StringRef, AnInsertedKeyIsOwnedAndAStaticOneIsNot) {
  std::map<string_ref, int> map;
  {
    const std::string transient("key");
    map[string_ref(transient)] = 1;
  }
  map[string_ref::make_static("zzz", 3)] = 2;
  EXPECT_EQ(1, map.begin()->first.owner_flag());
  EXPECT_EQ("key", map.begin()->first.view());
  EXPECT_EQ(-1, map.rbegin()->first.owner_flag());
}

}  // namespace
