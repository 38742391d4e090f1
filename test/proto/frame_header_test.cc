#include "proto/frame_header.h"

#include <string>

#include <gtest/gtest.h>

#include "test/support/guarded_bytes.h"
#include "test/support/hex.h"
#include "test/support/vectors.h"

namespace {

using namespace VORN::PROTO;
using vorn_test::from_hex;
using vorn_test::to_hex;

std::string encoded(const FrameHeader& header, bool twelve_bytes) {
  std::string out(12, '?');
  const uint64_t length = encode_frame_header(header, twelve_bytes, &out[0]);
  EXPECT_EQ(std::string(12 - length, '?'), out.substr(length)) << "wrote behind the header";
  return to_hex(out.substr(0, length));
}

TEST(FrameHeader, TheLayoutsHaveTheseBounds) {
  EXPECT_EQ(8U, PF8_HEADER_LEN);
  EXPECT_EQ(2147483647U, PF8_MAX_DATA_LEN);
  EXPECT_EQ(12U, PF12_HEADER_LEN);
  EXPECT_EQ(16777215U, PF12_MAX_DATA_LEN);
}

TEST(FrameHeader, Encodes) {
  EXPECT_EQ("A5 01 12 34 00 00 00 05", encoded({0x1234, 5}, false));
  EXPECT_EQ("A5 00 12 34 00 00 05 DE AD BE EF 5A", encoded({0x1234, 5}, true));
  EXPECT_EQ("A5 01 00 00 00 00 00 00", encoded({0, 0}, false));
  EXPECT_EQ("A5 00 00 00 00 00 00 DE AD BE EF 5A", encoded({0, 0}, true));
  EXPECT_EQ("A5 01 FF FE 7F FF FF FF", encoded({0xFFFE, 0x7FFFFFFF}, false));
  EXPECT_EQ("A5 00 FF FE FF FF FF DE AD BE EF 5A", encoded({0xFFFE, 0xFFFFFF}, true));
  EXPECT_EQ("A5 01 80 01 01 02 03 04", encoded({0x8001, 0x01020304}, false));
  EXPECT_EQ("A5 00 80 01 02 03 04 DE AD BE EF 5A", encoded({0x8001, 0x020304}, true));
}

TEST(FrameHeader, DecodesWhatItEncoded) {
  for (const bool twelve_bytes : {false, true}) {
    for (const unsigned seq : {0U, 1U, 0xFFU, 0x100U, 0x8000U, 0xFFFFU}) {
      for (const uint32_t data_len : {0U, 1U, 0xFFU, 0x100U, 0xFFFFU, 0x10000U, 0x800000U, 0xFFFFFFU}) {
        char bytes[12];
        const FrameHeader in{static_cast<uint16_t>(seq), data_len};
        const std::string frame(bytes, encode_frame_header(in, twelve_bytes, bytes));
        EXPECT_EQ(frame.size(), frame_header_len(frame));
        EXPECT_EQ(seq, decode_frame_header(frame).seq);
        EXPECT_EQ(data_len, decode_frame_header(frame).data_len);
        EXPECT_TRUE(frame_header_check_passes(frame));
        EXPECT_TRUE(frame_payload_check_passes(frame));
      }
    }
  }
}

TEST(FrameHeader, OnlyBit0OfTheLayoutByteCounts) {
  for (unsigned layout = 0; layout < 256; ++layout) {
    std::string frame = from_hex("A5 00 12 34 01 02 03 04 DE AD BE 00");  // right in neither check
    frame[1] = static_cast<char>(layout);
    const bool eight = (layout & 1) != 0;
    EXPECT_EQ(eight ? 8U : 12U, frame_header_len(frame)) << layout;
    EXPECT_EQ(eight ? 0x01020304U : 0x010203U, decode_frame_header(frame).data_len) << layout;
    EXPECT_EQ(0x1234U, decode_frame_header(frame).seq) << layout;
    EXPECT_EQ(eight, frame_header_check_passes(frame)) << layout;
    EXPECT_EQ(eight, frame_payload_check_passes(frame)) << layout;
  }
}

TEST(FrameHeader, EachBitOfTheCheckFieldsIsDemanded) {
  const std::string good = from_hex("A5 00 12 34 00 00 05 DE AD BE EF 5A");
  for (size_t at = 7; at < 12; ++at) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      std::string bad = good;
      bad[at] = static_cast<char>(bad[at] ^ (1 << bit));
      EXPECT_EQ(at != 11, frame_header_check_passes(bad)) << at;
      EXPECT_EQ(at == 11, frame_payload_check_passes(bad)) << at;
    }
  }
}

TEST(FrameHeader, FewerThanTwoBytesCountAsTheEightByteLayout) {
  for (const char* hex : {"-", "A5", "00"}) {
    const std::string frame = from_hex(hex);
    EXPECT_EQ(8U, frame_header_len(frame)) << hex;
    EXPECT_TRUE(frame_header_check_passes(frame)) << hex;
    EXPECT_TRUE(frame_payload_check_passes(frame)) << hex;
    EXPECT_EQ(0U, decode_frame_header(frame).seq) << hex;
    EXPECT_EQ(0U, decode_frame_header(frame).data_len) << hex;
  }
}

TEST(FrameHeader, MissingBytesReadAsZeroAndAreNotTouched) {
  for (const char* hex : {"A5 01 FF FF FF FF FF FF", "A5 00 FF FF FF FF FF DE AD BE EF 5A"}) {
    const std::string whole = from_hex(hex);
    for (size_t length = 0; length <= whole.size(); ++length) {
      const vorn_test::GuardedBytes bytes(whole.substr(0, length));
      const std::string_view cut(bytes.data(), bytes.size());
      std::string padded = whole.substr(0, length);
      if (length >= 2) padded.resize(12);
      EXPECT_EQ(frame_header_len(padded), frame_header_len(cut));
      EXPECT_EQ(decode_frame_header(padded).seq, decode_frame_header(cut).seq);
      EXPECT_EQ(decode_frame_header(padded).data_len, decode_frame_header(cut).data_len);
      EXPECT_EQ(frame_header_check_passes(padded), frame_header_check_passes(cut));
      EXPECT_EQ(frame_payload_check_passes(padded), frame_payload_check_passes(cut));
    }
  }
}

#ifndef NDEBUG

TEST(FrameHeaderDeathTest, AnnouncesNoMoreThanItsLayoutCan) {
  char out[PF12_HEADER_LEN];
  encode_frame_header({1, PF8_MAX_DATA_LEN}, false, out);
  EXPECT_DEATH(encode_frame_header({1, PF8_MAX_DATA_LEN + 1}, false, out), "data_len <=");
  encode_frame_header({1, PF12_MAX_DATA_LEN}, true, out);
  EXPECT_DEATH(encode_frame_header({1, PF12_MAX_DATA_LEN + 1}, true, out), "data_len <=");
}

#endif

}  // namespace
