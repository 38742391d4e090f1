/// Messages out of the bytes of a stream, which arrive in chunks of any size. Does no input.
///
///   VORN::STREAM::StreamDecoder decoder;
///   while (socket.receive(bytes)) {
///     decoder.feed(bytes, [&](VORN::STREAM::StreamFrame& frame) { ... frame.messages ... });
///   }
///   decoder.finish();
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "proto/export.h"
#include "proto/packet_frame_in.h"
#include "proto/value_wire.h"
#include "stream/damaged_stream.h"
#include "vobject/vobject.h"

namespace VORN {
namespace STREAM {

/// The most payload bytes of a frame, unless a limit is given: 1 MiB.
constexpr uint32_t MAX_LENGTH = 1 << 20;

/// What a decoder accepts.
struct DecoderOptions {
  /// The most payload bytes that a frame may announce. So much, and what the values in it become, is what a peer can
  /// make this side keep. At most 2^31 - 1 counts.
  uint32_t max_length = MAX_LENGTH;
  uint32_t max_depth = PROTO::DEFAULT_MAX_DEPTH;  ///< levels of a message, scalars included
  bool symbols_as_strings = true;                 ///< otherwise interned, for ever: a peer could fill the memory
};

/// Counts since a decoder was made.
struct DecoderStatistics {
  uint64_t bytes = 0;     ///< given to the decoder
  uint64_t frames = 0;    ///< whole ones whose messages could be read, empty ones included
  uint64_t messages = 0;  ///< in these frames
  uint64_t skipped = 0;   ///< bytes that belonged to none of them
  uint64_t damages = 0;   ///< runs of skipped bytes
};

/// A frame that has arrived whole.
struct StreamFrame {
  uint16_t seq = 0;                 ///< sequence number
  bool twelve_byte_header = false;  ///< the longer header, with check bytes
  std::vector<VObject> messages;    ///< may be moved out of
};

/// How the stream was cut into chunks makes no difference to what comes out.
class VORN_API StreamDecoder {
 public:
  /// Called with each frame, which is the decoder's and valid during the call.
  using OnFrame = std::function<void(StreamFrame&)>;
  /// Called with what was passed over.
  using OnDamage = std::function<void(const Damage&)>;

  /// Without on_damage, bytes that are no frames of values throw DamagedStream, and the decoder is of no more use.
  ///
  /// With it the decoder skips them and goes on at the next frame, for media that lose bytes: a serial line, a file
  /// that was cut. It is told of them before the first frame behind them. Do not give it for connections to programs
  /// that you do not trust: bytes inside a damaged frame may then be taken for frames.
  explicit StreamDecoder(DecoderOptions options = DecoderOptions(), OnDamage on_damage = OnDamage());
  ~StreamDecoder();
  StreamDecoder(const StreamDecoder&) = delete;
  StreamDecoder& operator=(const StreamDecoder&) = delete;

  /// Takes bytes, and calls on_frame for each frame that they complete, with either header. A frame is delivered whole
  /// or not at all. Throws DamagedStream, std::bad_alloc, and what the callbacks throw: then the frame at hand counts
  /// as delivered, and the bytes behind it are kept for the next call. REQUIRES: the callbacks do not call the decoder.
  void feed(std::string_view bytes, const OnFrame& on_frame);

  /// Says that the stream has ended. In the middle of a frame that throws TruncatedStream; with on_damage the rest is
  /// reported.
  void finish();

  /// Whether the stream may end here: no frame has begun that is not complete.
  bool between_frames() const { return !in_frame_ && rest_.empty(); }

  /// What was counted up to now.
  const DecoderStatistics& statistics() const { return statistics_; }

 private:
  bool read(std::string_view& bytes, const OnFrame& on_frame);
  std::string header_fault(std::string_view bytes) const;
  bool skip_to_start(std::string_view& bytes, size_t least, const std::string& reason);
  void consume(std::string_view& bytes, uint64_t count);
  void deliver(const OnFrame& on_frame);
  bool read_messages();
  template <typename Error>
  void skip(uint64_t bytes, const std::string& reason, uint64_t begins);
  void report_damage();

  const DecoderOptions options_;
  const OnDamage on_damage_;
  PROTO::PacketFrameIn frame_;
  StreamFrame delivered_;
  bool in_frame_ = false;       ///< a frame is being assembled, whose header has passed
  std::string rest_;            ///< arrived and not read: part of a header, or what is behind a callback that threw
  uint64_t position_ = 0;       ///< in the stream, of what is to be read next
  Damage damage_;               ///< the run of skipped bytes before what comes next
  std::exception_ptr failure_;  ///< what has ended the stream
  DecoderStatistics statistics_;
};

}  // namespace STREAM
}  // namespace VORN
