/// Values on a byte stream, in frames. Copy these two files into your service. They do no input or output.
///
///   FrameWriter writer(LIMIT);
///   socket.send_all(writer.frame(request, false), deadline);
///
///   FrameReader reader(LIMIT);
///   while (socket.receive(bytes)) {
///     reader.feed(bytes, [](InboundFrame& frame) { ... frame.messages ... });
///     bytes.clear();
///   }
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "proto/packet_frame_in.h"
#include "proto/packet_frame_out.h"
#include "vobject/vobject.h"

namespace rpc {

/// The peer's bytes are not this protocol, or exceed this side's limit. No bytes get lost on a socket, so the following
/// ones are no better: close the connection.
class BadFrame : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The message exceeds the limit that both sides agreed upon.
class MessageTooLarge : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct InboundFrame {
  uint16_t seq;
  bool twelve_byte_header;
  std::vector<VORN::VObject> messages;  ///< may be moved out of
};

/// Splits a stream that arrives in chunks of any size into frames, and the frames into values. Symbols arrive as
/// strings.
class FrameReader {
 public:
  using OnFrame = std::function<void(InboundFrame&)>;

  explicit FrameReader(uint32_t max_payload);

  /// Calls on_frame for each frame that the chunk completes, with either header layout. Throws BadFrame, after which
  /// the reader cannot be used, and what on_frame throws.
  void feed(std::string_view chunk, const OnFrame& on_frame);

  /// Whether the stream may end here.
  bool between_frames() const { return header_.empty(); }

 private:
  bool take_header(std::string_view& chunk);
  void deliver(const OnFrame& on_frame);

  const uint32_t max_payload_;
  VORN::PROTO::PacketFrameIn frame_;
  std::string header_;  ///< of the current frame, as far as it has arrived
  bool header_is_whole_ = false;
  InboundFrame inbound_;
};

/// Turns messages into frames, one at a time: a writer has one buffer and one sequence number.
class FrameWriter {
 public:
  explicit FrameWriter(uint32_t max_payload) : max_payload_(max_payload) {}

  /// The bytes to send, valid until the next call. Throw MessageTooLarge, and VornRuntimeError for a value that
  /// has no encoding; the writer can still be used.
  std::string_view frame(const VORN::VObject& message, bool twelve_byte_header);
  std::string_view frame(const std::vector<VORN::VObject>& messages, bool twelve_byte_header);

 private:
  void begin(bool twelve_byte_header);
  std::string_view end();

  const uint32_t max_payload_;
  VORN::PROTO::PacketFrameOut frame_;
};

}  // namespace rpc
