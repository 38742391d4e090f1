/// Rebuilds one inbound frame from a byte stream that arrives in chunks of any size.
///
///   PacketFrameIn frame;
///   frame.reset();                                  // a new frame consumes nothing before its first reset
///   for (uint64_t off = 0; off < len;) {
///     off += frame.assemble(chunk, len, off);
///     if (frame.is_error()) ...                     // frame.error_message(); reset() to look for the next one
///     if (!frame.have_complete_frame()) continue;   // the chunk is used up
///     ... read the payload ...
///     frame.reset();
///   }
///
/// The machine:
///
///                          0xA5                  header held
///   reset() --> st_sync -----------> st_accept_header --> st_check_header
///                                                           |        | check byte wrong,
///                                                           |        | too long
///                        payload held                       v        v
///   st_check_payload <------------------- st_accept_payload     st_error
///        |       | check word wrong                                  ^
///        |       +---------------------------------------------------+
///        v
///   st_complete
///
/// A frame that fails records why and consumes nothing until the next reset(); only misuse is thrown.
#pragma once

#include "proto/packet_frame.h"

namespace VORN {
namespace PROTO {

/// Finds one frame in a stream and holds it.
class VORN_API PacketFrameIn : public PacketFrame {
 public:
  /// Nothing is held, and nothing consumed before the first reset().
  PacketFrameIn() = default;
  /// The same with `capacity` bytes reserved, as PacketBuf has it. Throws std::bad_alloc.
  explicit PacketFrameIn(size_t capacity) : PacketFrame(capacity) {}
  ~PacketFrameIn() override;

  /// Forgets the frame and looks for the next start marker. Storage is kept. Returns the position, 0.
  uint64_t reset() override;

  /// The frame's payload, as far as its header is known. Before the layout byte is held the header counts as
  /// one of 8 bytes, and before the whole header is held the payload counts as empty.
  /// @{
  uint64_t payload_start() const override;
  uint64_t payload_end() const override;
  uint64_t payload_size() const override;
  /// @}

  /// Consumes bytes of data[offset, len) up to the end of the current frame, never beyond, and returns how
  /// many. While a frame is in progress at least one byte is consumed. A call without bytes (offset >= len)
  /// consumes nothing and makes have_complete_frame() and is_error() false until the next call with bytes.
  ///
  /// The announced payload is allocated at once: up to 2 GiB, because the peer says so.
  ///
  /// Throws std::bad_alloc when there is no memory for that, std::length_error where no string can hold it (from
  /// about 1 GiB on if addresses have 32 bits), and VornRuntimeError when the caller moved the position in the middle
  /// of a frame; the frame keeps its state:
  /// - "PacketFrameIn::st_accept_payload: data pos inside header (internal error)"
  /// - "PacketFrameIn::st_accept_payload: excess payload received (internal error)"
  uint64_t assemble(const char* data, uint64_t len, uint64_t offset);

  /// How it stands with the frame: complete, failed, or neither while it is in progress.
  /// @{
  bool have_complete_frame() const { return status_ == STATUS_COMPLETE; }
  bool is_error() const { return status_ == STATUS_ERROR; }
  /// @}

  /// Why the frame failed, a text that lives as long as the process: "Bad Header CRC", "Bad Payload Data CRC"
  /// or "Payload size exceeds soft limit". Null: it has not failed.
  const char* error_message() const { return error_message_; }

  /// What the header said; 0 before it is held.
  /// @{
  uint16_t seq() const { return seq_; }
  uint32_t data_len() const { return data_len_; }
  /// @}

  /// The largest payload that is accepted.
  uint32_t soft_limit() const { return soft_limit_; }

 private:
  /// Consumes from data at offset and returns how many bytes; may change state_.
  using State = uint64_t (PacketFrameIn::*)(const char* data, uint64_t len, uint64_t offset);

  uint64_t st_sync(const char* data, uint64_t len, uint64_t offset);
  uint64_t st_accept_header(const char* data, uint64_t len, uint64_t offset);
  uint64_t st_check_header(const char* data, uint64_t len, uint64_t offset);
  uint64_t st_accept_payload(const char* data, uint64_t len, uint64_t offset);
  uint64_t st_check_payload(const char* data, uint64_t len, uint64_t offset);
  uint64_t st_complete(const char* data, uint64_t len, uint64_t offset);
  uint64_t st_error(const char* data, uint64_t len, uint64_t offset);

  void fail(const char* message);
  bool header_is_held() const;

  enum Status : uint8_t { STATUS_IN_PROGRESS = 0, STATUS_COMPLETE = 1, STATUS_ERROR = 0xFF };

  State state_ = nullptr;
  const char* error_message_ = nullptr;
  uint32_t soft_limit_ = PF8_MAX_DATA_LEN;
  uint32_t data_len_ = 0;
  uint16_t seq_ = 0;
  Status status_ = STATUS_IN_PROGRESS;
};

}  // namespace PROTO
}  // namespace VORN
