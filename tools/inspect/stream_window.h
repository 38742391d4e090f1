/// The part of a byte stream that is still needed, addressed by offsets in the stream. It is a packet buffer,
/// so that values are read in place, without copying each payload first.
#pragma once

#include <cstdint>
#include <string_view>

#include "proto/packet_buf.h"

namespace vorn_inspect {

class StreamWindow : public VORN::PROTO::PacketBuf {
 public:
  /// Offsets of the first kept byte, and of the end.
  uint64_t start() const { return origin_ + first_; }
  uint64_t end() const { return origin_ + end_; }

  /// Appends the stream's next bytes. Views become invalid. Throws like PacketBuf::claim().
  void append(std::string_view bytes);

  /// Drops the bytes before `offset`. Views stay valid.
  /// REQUIRES: start() <= offset <= end().
  void drop_before(uint64_t offset) { first_ = offset - origin_; }

  /// Bytes of the stream, valid until the next append().
  /// REQUIRES: they lie between start() and end().
  std::string_view view(uint64_t offset, uint64_t size) const { return {data().data() + (offset - origin_), size}; }

  /// Makes [offset, offset + size) the range that values are read from, and moves the position to its start. Valid
  /// until the next append(). REQUIRES: it lies between start() and end().
  void select(uint64_t offset, uint64_t size);

  /// The selection's bounds as indexes, as readers of values need them.
  uint64_t payload_start() const override { return selected_start_; }
  uint64_t payload_end() const override { return selected_end_; }
  uint64_t payload_size() const override { return selected_end_ - selected_start_; }

  /// Converts between positions of the buffer and offsets in the stream.
  uint64_t offset_of(uint64_t position) const { return origin_ + position; }

 private:
  uint64_t origin_ = 0;  ///< offset of the byte at index 0
  uint64_t first_ = 0;   ///< index of the first byte that is kept
  uint64_t end_ = 0;
  uint64_t selected_start_ = 0;
  uint64_t selected_end_ = 0;
};

}  // namespace vorn_inspect
