#include "stream/stream_decoder.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "stream/stream_encoder.h"
#include "test/support/allocations.h"
#include "test/support/hex.h"
#include "vobject/render.h"

using namespace VORN;
using STREAM::Damage;
using STREAM::DamagedStream;
using STREAM::StreamDecoder;
using STREAM::StreamEncoder;
using STREAM::StreamFrame;

namespace {

std::string bytes_of(const std::vector<VObject>& messages, bool twelve_byte_header = false) {
  StreamEncoder encoder({STREAM::MAX_LENGTH, twelve_byte_header});
  std::string bytes;
  for (const VObject& message : messages) bytes += encoder.frame(message);
  return bytes;
}

std::vector<int64_t> numbers(StreamDecoder& decoder, std::string_view bytes) {
  std::vector<int64_t> out;
  decoder.feed(bytes, [&](StreamFrame& frame) {
    for (const VObject& message : frame.messages) out.push_back(message.to_i64());
  });
  return out;
}

TEST(StreamDecoder, GivesEachFrameWithItsNumberAndHeader) {
  StreamEncoder encoder;
  std::string bytes(encoder.frame(VObject("one")));
  encoder.use_twelve_byte_header(true);
  bytes += encoder.frame(std::vector<VObject>{VObject(2), VObject(3)});
  StreamDecoder decoder;
  std::vector<std::string> seen;
  decoder.feed(bytes, [&](StreamFrame& frame) {
    seen.push_back(std::to_string(frame.seq) + (frame.twelve_byte_header ? " long " : " short ") +
                   std::to_string(frame.messages.size()));
  });
  EXPECT_EQ((std::vector<std::string>{"0 short 1", "1 long 2"}), seen);
}

TEST(StreamDecoder, MessagesMayBeMovedOut) {
  StreamDecoder decoder;
  std::vector<VObject> taken;
  for (int i = 0; i < 2; ++i) {
    decoder.feed(bytes_of({VObject("text")}), [&](StreamFrame& frame) {
      for (VObject& message : frame.messages) taken.push_back(std::move(message));
    });
  }
  EXPECT_EQ((std::vector<VObject>{VObject("text"), VObject("text")}), taken);
}

TEST(StreamDecoder, WhatACallbackThrowsLeavesTheRest) {
  for (const size_t cut : {size_t{0}, size_t{9}, size_t{12}, size_t{27}}) {
    SCOPED_TRACE(cut);
    const std::string bytes = bytes_of({VObject(1), VObject(2), VObject(3)});
    StreamDecoder decoder;
    std::vector<int64_t> seen;
    const auto throwing = [&](StreamFrame& frame) {
      seen.push_back(frame.messages[0].to_i64());
      throw std::runtime_error("no more");
    };
    std::string_view rest = std::string_view(bytes).substr(0, cut);
    std::string_view behind = std::string_view(bytes).substr(cut);
    for (int i = 0; i < 10 && seen.size() < 3; ++i) {
      try {
        decoder.feed(rest, throwing);
        decoder.feed(behind, throwing);
        behind = {};
      } catch (const std::runtime_error&) {
        if (rest.empty()) behind = {};
      }
      rest = {};
    }
    EXPECT_EQ((std::vector<int64_t>{1, 2, 3}), seen);
    EXPECT_TRUE(decoder.between_frames());
    decoder.finish();
  }
}

TEST(StreamDecoder, ADamagedStreamHasEnded) {
  StreamDecoder decoder;
  std::vector<int64_t> seen;
  const auto take = [&](StreamFrame& frame) { seen.push_back(frame.messages[0].to_i64()); };
  const std::string bytes = bytes_of({VObject(1)}) + "?" + bytes_of({VObject(2)});
  for (int i = 0; i < 3; ++i) {
    try {
      decoder.feed(i == 0 ? bytes : bytes_of({VObject(3)}), take);
      FAIL();
    } catch (const DamagedStream& e) {
      EXPECT_EQ(9U, e.offset());
      EXPECT_STREQ("bytes that belong to no frame (at byte 9 of the stream)", e.what());
    }
  }
  EXPECT_EQ((std::vector<int64_t>{1}), seen);
  EXPECT_THROW(decoder.finish(), DamagedStream);
}

TEST(StreamDecoder, ATruncatedStreamHasEnded) {
  StreamDecoder decoder;
  const std::string bytes = bytes_of({VObject(1)});
  const auto none = [](StreamFrame&) { FAIL(); };
  decoder.feed(std::string_view(bytes).substr(0, 8), none);
  EXPECT_THROW(decoder.finish(), STREAM::TruncatedStream);
  EXPECT_THROW(decoder.feed(std::string_view(bytes).substr(8), none), STREAM::TruncatedStream);
  EXPECT_THROW(decoder.finish(), STREAM::TruncatedStream);
}

TEST(StreamDecoder, AReportThatThrowsLosesItsFrameOnly) {
  bool thrown = false;
  StreamDecoder decoder({}, [&](const Damage& damage) {
    EXPECT_EQ(1U, damage.bytes);
    thrown = true;
    throw std::runtime_error("stop");
  });
  EXPECT_THROW(numbers(decoder, "?" + bytes_of({VObject(1), VObject(2)})), std::runtime_error);
  EXPECT_TRUE(thrown);
  EXPECT_EQ((std::vector<int64_t>{2}), numbers(decoder, ""));
  EXPECT_EQ((std::vector<int64_t>{3}), numbers(decoder, bytes_of({VObject(3)})));
}

TEST(StreamDecoder, TellsACleanEndFromAnyOther) {
  const std::vector<std::string> frames{bytes_of({VObject(1)}), bytes_of({VObject("two")}, true),
                                        vorn_test::from_hex("A5 01 00 00 00 00 00 00"), bytes_of({VObject(3)})};
  std::string bytes;
  for (const std::string& frame : frames) bytes += frame;
  for (size_t length = 0; length <= bytes.size(); ++length) {
    SCOPED_TRACE(length);
    size_t whole = 0;
    uint64_t count = 0;
    while (count < frames.size() && whole + frames[count].size() <= length) whole += frames[count++].size();
    StreamDecoder decoder;
    decoder.feed(std::string_view(bytes).substr(0, length), [](StreamFrame&) {});
    EXPECT_EQ(count, decoder.statistics().frames);
    EXPECT_EQ(whole == length, decoder.between_frames());
    try {
      decoder.finish();
      EXPECT_EQ(whole, length);
    } catch (const STREAM::TruncatedStream& e) {
      EXPECT_EQ(whole, e.offset());
      EXPECT_LT(whole, length);
    }
  }
}

TEST(StreamDecoder, WithoutMemoryForThePayloadTheFrameIsStillToBeRead) {
  STREAM::DecoderOptions options;
  options.max_length = 1 << 24;
  StreamDecoder decoder(options);
  const std::string text(1 << 23, 'x');
  StreamEncoder encoder({1 << 24, false});
  const std::string bytes = std::string(encoder.frame(VObject(1))) + std::string(encoder.frame(VObject(text)));
  size_t frames = 0;
  const auto take = [&](StreamFrame& frame) {
    ++frames;
    EXPECT_TRUE(frames == 1 || text == frame.messages.at(0).getstr());
  };
  {
    const vorn_test::LimitAllocations limit(1 << 22);
    EXPECT_THROW(decoder.feed(std::string_view(bytes).substr(0, 100), take), std::bad_alloc);
  }
  EXPECT_EQ(1U, frames);
  decoder.feed(std::string_view(bytes).substr(100), take);
  EXPECT_EQ(2U, frames);
  decoder.finish();
}

TEST(StreamDecoder, NoLimitIsHigherThanTheAssemblers) {
  STREAM::DecoderOptions options;
  options.max_length = UINT32_MAX;
  StreamDecoder decoder(options);
  try {
    decoder.feed(vorn_test::from_hex("A5 01 00 00 80 00 00 00"), [](StreamFrame&) {});
    FAIL();
  } catch (const DamagedStream& e) {
    EXPECT_STREQ("a frame announces 2147483648 bytes, 2147483647 are accepted (at byte 0 of the stream)", e.what());
  }
}

TEST(StreamDecoder, ManyBeginningsTakeTimeInProportion) {
  std::string bytes;
  for (int i = 0; i < 20000; ++i) bytes += vorn_test::from_hex("A5 00 A5 01 FF");
  uint64_t skipped = 0;
  StreamDecoder decoder({}, [&](const Damage& damage) { skipped += damage.bytes; });
  EXPECT_EQ((std::vector<int64_t>{1}), numbers(decoder, bytes + bytes_of({VObject(1)})));
  EXPECT_EQ(100000U, skipped);
}

// Whatever is changed in a stream, and however it is cut: the same messages, the same damage, no other error.
TEST(StreamDecoder, RandomDamageComesOutTheSameHoweverItIsCut) {
  std::mt19937 random(20);
  const auto up_to = [&](size_t n) { return static_cast<size_t>(random() % n); };
  const std::vector<VObject> messages{VObject(1), VObject("\xA5\xA5"), VObject(2.5), VObject()};
  const std::string original = bytes_of(messages) + bytes_of(messages, true);
  for (int round = 0; round < 2000; ++round) {
    std::string bytes = original;
    for (size_t i = 0; i < 1 + up_to(3); ++i) {
      const size_t at = up_to(bytes.size());
      switch (up_to(3)) {
        case 0: bytes[at] = static_cast<char>(up_to(256)); break;
        case 1: bytes.erase(at, 1 + up_to(4)); break;
        default: bytes.insert(at, 1, static_cast<char>(up_to(256)));
      }
    }
    std::vector<std::string> results;
    for (const bool cut : {false, true}) {
      std::string events;
      STREAM::DecoderOptions options;
      options.max_length = 1000;
      StreamDecoder decoder(options, [&](const Damage& damage) {
        events += std::to_string(damage.offset) + "+" + std::to_string(damage.bytes) + " " + damage.reason + "\n";
      });
      const auto take = [&](StreamFrame& frame) {
        for (const VObject& message : frame.messages) render(message, events);
        events += "\n";
      };
      for (std::string_view rest = bytes; !rest.empty();) {
        const size_t n = cut ? 1 + up_to(20) : rest.size();
        decoder.feed(rest.substr(0, n), take);
        rest.remove_prefix(std::min(n, rest.size()));
      }
      decoder.finish();
      results.push_back(events);
    }
    ASSERT_EQ(results[0], results[1]) << vorn_test::to_hex(bytes);
  }
}

}  // namespace
