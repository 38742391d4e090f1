/// A stream fed to the decoder: whole, in chunks, and byte by byte, with damage that ends it or is passed over.
///
///   n:byte, n bytes of options and sizes, then the stream
#include <algorithm>
#include <memory>
#include <string>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "stream/stream_decoder.h"
#include "vobject/render.h"

using namespace VORN;
using namespace VORN::STREAM;
using vorn_fuzz::Input;

namespace {

struct Seen {
  std::string events;
  DecoderStatistics statistics;

  bool operator==(const Seen& other) const {
    return events == other.events && statistics.frames == other.statistics.frames &&
           statistics.messages == other.statistics.messages && statistics.skipped == other.statistics.skipped &&
           statistics.damages == other.statistics.damages;
  }
};

template <typename ChunkSize>
Seen feed(const std::string& stream, DecoderOptions options, bool skip, ChunkSize chunk_size) {
  Seen seen;
  StreamDecoder::OnDamage on_damage;
  uint64_t reported_to = 0;
  if (skip) {
    on_damage = [&](const Damage& damage) {
      VORN_CHECK(damage.bytes > 0 && damage.offset >= reported_to);
      reported_to = damage.offset + damage.bytes;
      VORN_CHECK(reported_to <= stream.size());
      seen.events += std::to_string(damage.offset) + "+" + std::to_string(damage.bytes) + " " + damage.reason + "\n";
    };
  }
  StreamDecoder decoder(options, on_damage);
  const auto on_frame = [&](StreamFrame& frame) {
    for (const VObject& message : frame.messages) render(message, seen.events);
    seen.events += " in " + std::to_string(frame.seq) + "\n";
  };
  try {
    for (size_t offset = 0; offset < stream.size();) {
      const size_t n = std::min<size_t>(chunk_size(), stream.size() - offset);
      const std::unique_ptr<char[]> chunk(new char[n]);  // a block of its exact size, so that a sanitizer sees its end
      std::copy_n(stream.data() + offset, n, chunk.get());
      decoder.feed({chunk.get(), n}, on_frame);
      offset += n;
    }
    decoder.finish();
    VORN_CHECK(decoder.between_frames());
    VORN_CHECK(decoder.statistics().bytes == stream.size());
  } catch (const DamagedStream& e) {
    VORN_CHECK(!skip && e.offset() < stream.size());
    seen.events += e.what();
  }
  seen.statistics = decoder.statistics();
  return seen;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const std::string control = in.bytes(in.byte());
  const std::string stream = in.rest();
  Input choices(reinterpret_cast<const uint8_t*>(control.data()), control.size());
  DecoderOptions options;
  const bool skip = choices.below(2) != 0;
  options.symbols_as_strings = true;
  options.max_length = choices.below(2) != 0 ? 0x10000 : choices.byte();
  options.max_depth = choices.below(2) != 0 ? 64 : choices.byte() % 8;

  const Seen whole = feed(stream, options, skip, [&] { return stream.size(); });
  VORN_CHECK(feed(stream, options, skip, [] { return 1; }) == whole);
  VORN_CHECK(feed(stream, options, skip,
                  [&] { return choices.empty() ? stream.size() : size_t{1} + choices.byte() % 32; }) == whole);
  return 0;
}
