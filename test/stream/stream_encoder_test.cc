#include "stream/stream_encoder.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test/support/hex.h"

using namespace VORN;
using STREAM::MessageTooLarge;
using STREAM::StreamEncoder;

namespace {

TEST(StreamEncoder, KeepsTheLimitAndCanStillBeUsed) {
  StreamEncoder encoder({10, false});
  try {
    encoder.frame(VObject("123456789"));
    FAIL();
  } catch (const MessageTooLarge& e) {
    EXPECT_STREQ("a frame of 11 bytes, 10 are allowed", e.what());
  }
  EXPECT_EQ("A5 01 00 00 00 00 00 0A 07 08 31 32 33 34 35 36 37 38",
            vorn_test::to_hex(std::string(encoder.frame(VObject("12345678")))));
  EXPECT_EQ("A5 01 00 01 00 00 00 01 00", vorn_test::to_hex(std::string(encoder.frame(VObject()))));
}

TEST(StreamEncoder, RefusesWhatNestsTooDeeply) {
  VObject deep = VObject::new_vector();
  for (int i = 0; i < 64; ++i) {
    VObject outer = VObject::new_vector();
    outer.append(deep);
    deep = outer;
  }
  StreamEncoder encoder;
  EXPECT_THROW(encoder.frame(deep), VornRuntimeError);
  EXPECT_EQ(9U, encoder.frame(VObject()).size());
}

TEST(StreamEncoder, TheLongerHeaderHasALimitOfItsOwn) {
  StreamEncoder encoder({1U << 30, true});
  EXPECT_THROW(encoder.frame(VObject(std::string(1 << 24, 'x'))), MessageTooLarge);
  EXPECT_EQ(12U + (1U << 24) - 1, encoder.frame(VObject(std::string((1 << 24) - 6, 'x'))).size());
}

TEST(StreamEncoder, AnEmptyFrame) {
  StreamEncoder encoder;
  EXPECT_EQ("A5 01 00 00 00 00 00 00", vorn_test::to_hex(std::string(encoder.frame(std::vector<VObject>()))));
}

}  // namespace
