/// One outbound frame, built in place: room for the header, then the payload, then the header itself.
///
///   PacketFrameOut frame;
///   frame.reset();                      // past the header; forgetting it is the usual mistake
///   write_int(frame, 42);               // payload
///   frame.compute_frame_header();
///   send(frame.data().data(), frame.pos());
///   frame.inc_seq();
///   frame.reset();                      // ready for the next frame
///
/// The payload is what lies between the header and the position. The payload range of an outbound frame is the
/// whole buffer, header included.
#pragma once

#include "proto/packet_frame.h"

namespace VORN {
namespace PROTO {

/// Holds one frame, and numbers those that follow one another.
class VORN_API PacketFrameOut : public PacketFrame {
 public:
  /// At position 0 (call reset() before writing), sequence number 0, 8-byte header.
  PacketFrameOut() = default;
  /// The same with `capacity` bytes reserved, as PacketBuf has it. Throws std::bad_alloc.
  explicit PacketFrameOut(size_t capacity) : PacketFrame(capacity) {}
  ~PacketFrameOut() override;

  /// Moves the position past the header. Returns the header's length.
  uint64_t reset() override;

  /// The sequence number that the next header carries. inc_seq() wraps from 65535 to 0.
  /// @{
  uint16_t next_seq() const { return next_seq_; }
  void set_next_seq(uint16_t s) { next_seq_ = s; }
  void inc_seq() { ++next_seq_; }
  /// @}

  /// Chooses the header layout. The position stays where it is: call reset() and build the frame anew.
  /// @{
  bool using_12byte_header() const { return use_12byte_header_; }
  void set_use_12byte_header(bool on) { use_12byte_header_ = on; }
  /// @}

  /// The chosen header's length, and the most payload bytes that it can announce.
  /// @{
  uint64_t configured_header_len() const;
  uint64_t configured_max_data_len() const;
  /// @}

  /// Writes the header in front of the payload; the position and the sequence number stay.
  /// Throws, the frame being unchanged:
  /// - VornRuntimeError "PacketFrameOut::compute_frame_header: data pos inside header (negative data length)"
  /// - VornProtoException "PacketFrameOut::compute_frame_header: oversize: data_len N > max M"
  void compute_frame_header();

 private:
  uint16_t next_seq_ = 0;
  bool use_12byte_header_ = false;
};

}  // namespace PROTO
}  // namespace VORN
