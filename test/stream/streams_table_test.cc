// The table of streams that both languages are held to.

#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "stream/stream_decoder.h"
#include "stream/stream_encoder.h"
#include "test/support/variant_notation.h"
#include "test/support/vectors.h"

using namespace VORN;
using namespace vorn_test;
using STREAM::Damage;
using STREAM::DamagedStream;
using STREAM::DecoderOptions;
using STREAM::DecoderStatistics;
using STREAM::StreamDecoder;
using STREAM::StreamFrame;
using STREAM::TruncatedStream;

namespace {

DecoderOptions options_of(const StreamVector& v) {
  return {v.max_length, v.max_depth, !v.symbols};
}

struct Outcome {
  std::vector<std::string> events;
  DecoderStatistics statistics;
};

Outcome outcome_of(const StreamVector& v, const std::vector<std::string_view>& chunks) {
  std::vector<std::string> events;
  StreamDecoder::OnDamage on_damage;
  if (v.skip) {
    on_damage = [&](const Damage& damage) {
      events.push_back(std::to_string(damage.offset) + "+" + std::to_string(damage.bytes) + " " + damage.reason);
    };
  }
  StreamDecoder decoder(options_of(v), on_damage);
  try {
    for (const std::string_view chunk : chunks) {
      decoder.feed(chunk, [&](StreamFrame& frame) {
        std::string messages;
        for (const VObject& message : frame.messages) messages += (messages.empty() ? "" : ", ") + notation_of(message);
        events.push_back("<" + messages + ">");
      });
    }
    const bool truncated = !v.outcome.empty() && v.outcome.back().find("the stream ends") != std::string::npos;
    EXPECT_TRUE(v.skip || decoder.between_frames() != truncated);
    decoder.finish();
    EXPECT_TRUE(decoder.between_frames());
  } catch (const TruncatedStream& e) {
    events.push_back(std::to_string(e.offset()) + "? " + e.what());
  } catch (const DamagedStream& e) {
    events.push_back(std::to_string(e.offset()) + "! " + e.what());
  }
  return {events, decoder.statistics()};
}

class EveryStream : public testing::TestWithParam<StreamVector> {
 protected:
  void check(const std::vector<std::string_view>& chunks) {
    const StreamVector& v = GetParam();
    const Outcome outcome = outcome_of(v, chunks);
    ASSERT_EQ(v.outcome.size(), outcome.events.size());
    uint64_t frames = 0;
    uint64_t messages = 0;
    uint64_t damages = 0;
    for (size_t i = 0; i < v.outcome.size(); ++i) {
      const std::string& wanted = v.outcome[i];
      const std::string& event = outcome.events[i];
      if (wanted[0] == '<') {
        EXPECT_EQ(wanted, event);
        ++frames;
        messages += messages_of(wanted).size();
      } else {
        EXPECT_EQ(wanted, event.substr(0, wanted.size()));
        ++damages;
      }
    }
    EXPECT_EQ(frames, outcome.statistics.frames);
    EXPECT_EQ(messages, outcome.statistics.messages);
    if (!v.skip) return;
    EXPECT_EQ(v.bytes.size(), outcome.statistics.bytes);
    EXPECT_EQ(damages, outcome.statistics.damages);
  }
};

TEST_P(EveryStream, ComesOutAsTheTableSays) {
  const std::string_view bytes = GetParam().bytes;
  check({bytes});
  std::vector<std::string_view> single;
  for (size_t i = 0; i < bytes.size(); ++i) single.push_back(bytes.substr(i, 1));
  check(single);
  for (const size_t cut : cuts(bytes.size())) {
    SCOPED_TRACE(cut);
    check({bytes.substr(0, cut), bytes.substr(cut)});
  }
}

TEST_P(EveryStream, IsWrittenSo) {
  const StreamVector& v = GetParam();
  if (v.written == 0) return;
  STREAM::StreamEncoder encoder({v.max_length, v.written == 12});
  std::string written;
  StreamDecoder decoder(options_of(v));
  decoder.feed(v.bytes, [&](StreamFrame& frame) {
    EXPECT_EQ(v.written == 12, frame.twelve_byte_header);
    written += encoder.frame(frame.messages);
  });
  EXPECT_EQ(v.bytes, written);
}

INSTANTIATE_TEST_SUITE_P(Table, EveryStream, testing::ValuesIn(stream_vectors()), [](const auto& row) {
  std::string name;
  for (const char c : row.param.name) name += std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
  return name;
});

}  // namespace
