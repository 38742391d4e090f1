/// The bytes of frames out of messages. Does no output.
///
///   VORN::STREAM::StreamEncoder encoder;
///   socket.send_all(encoder.frame(message));
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "proto/export.h"
#include "proto/packet_frame_out.h"
#include "stream/damaged_stream.h"
#include "stream/stream_decoder.h"
#include "vobject/vobject.h"

namespace VORN {
namespace STREAM {

/// What an encoder makes.
struct EncoderOptions {
  uint32_t max_length = MAX_LENGTH;  ///< the most payload bytes of a frame: what the peer's limit accepts
  bool twelve_byte_header = false;   ///< the longer header, whose check bytes make a frame easier to find again
};

/// Numbers its frames from 0 on. One buffer serves for all of them.
class VORN_API StreamEncoder {
 public:
  /// Throws std::bad_alloc.
  explicit StreamEncoder(EncoderOptions options = EncoderOptions());
  ~StreamEncoder();
  StreamEncoder(const StreamEncoder&) = delete;
  StreamEncoder& operator=(const StreamEncoder&) = delete;

  /// The bytes of a frame with a message, or with several; valid until the next call. Throw MessageTooLarge,
  /// VornRuntimeError for a value that has no encoding or nests too deeply, and std::bad_alloc. The encoder can still
  /// be used.
  /// @{
  std::string_view frame(const VObject& message);
  std::string_view frame(const std::vector<VObject>& messages);
  /// @}

  /// The header of the frames from now on.
  void use_twelve_byte_header(bool on) { options_.twelve_byte_header = on; }

 private:
  void begin();
  std::string_view end();

  EncoderOptions options_;
  PROTO::PacketFrameOut frame_;
};

}  // namespace STREAM
}  // namespace VORN
