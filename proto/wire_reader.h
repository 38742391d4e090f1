/// A read cursor over a buffer's readable range, with the primitive readers of the value encoding.
///
/// The cursor asks the buffer for its range once and then compares numbers. It holds a pointer into the
/// buffer, so the buffer must outlive it, and after code that may have written to the buffer comes resync().
/// The buffer's own position does not move before commit().
///
///   WireReader in(buf);
///   int64_t n;
///   if (!in.readable() || !in.read_int(n)) ...     // no reason given; the caller words the error
///   in.commit(buf);
#pragma once

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>

#include "proto/byte_order.h"
#include "proto/packet_buf.h"
#include "proto/transport_type.h"
#include "proto/varint.h"

namespace VORN {
namespace PROTO {

/// A position, and how far it may go.
class WireReader {
 public:
  /// Starts at the buffer's position.
  explicit WireReader(const PacketBuf& buf) : pos_(buf.pos()) { take_range(buf); }

  /// Moves the buffer's position to where reading stands.
  void commit(PacketBuf& buf) const { buf.set_pos(pos_); }

  /// Takes the range anew when the buffer's storage has moved or changed its size. What is then read is what
  /// the buffer holds now.
  void resync(const PacketBuf& buf) {
    if (base_ != bytes_of(buf) || data_len_ != buf.data().size()) take_range(buf);
  }

  /// Where reading stands, as an index into the buffer.
  uint64_t pos() const { return pos_; }
  /// Bytes from here on cannot be read. 0 when the position lies before the payload.
  uint64_t limit() const { return limit_; }
  /// All bytes that the buffer stores, payload or not.
  uint64_t data_len() const { return data_len_; }

  /// Whether there is a byte at the position.
  bool readable() const { return pos_ < limit_; }

  /// The byte at the position, which stays. REQUIRES: readable().
  uint8_t peek() const {
    assert(readable());
    return base_[pos_];
  }

  /// Moves past n bytes without a look at them.
  void skip(uint64_t n) { pos_ += n; }

  /// The bytes at the position. REQUIRES: the position is at most data_len().
  const char* bytes() const {
    assert(pos_ <= data_len_);
    return reinterpret_cast<const char*>(base_ + pos_);
  }

  /// Readers that answer false where the bytes run out; what they read is then 0.
  /// @{

  /// Reads the general form behind integers and lengths. False: the bytes ran out before the last one; the
  /// position is then behind those that were consumed. Groups beyond bit 63 fold back to bit 0 on.
  bool read_varint(VarintShape shape, uint64_t& magnitude, bool& negative);

  /// Reads an integer, its type byte included. Negative zero is 0.
  bool read_int(int64_t& value);

  /// Reads a string's length, of which only the low 32 bits count.
  bool read_length(uint32_t& length);

  /// Read the body behind the type byte. False: it does not fit; the position stays.
  bool read_float(float& value);
  bool read_double(double& value);
  /// @}

 private:
  static const uint8_t* bytes_of(const PacketBuf& buf) { return reinterpret_cast<const uint8_t*>(buf.data().data()); }

  void take_range(const PacketBuf& buf) {
    base_ = bytes_of(buf);
    data_len_ = buf.data().size();
    limit_ = pos_ < buf.payload_start() ? 0 : std::min(buf.payload_end(), data_len_);
  }

  template <typename Bits, typename Float>
  bool read_float_bits(Float& value);

  const uint8_t* base_;
  uint64_t pos_;
  uint64_t limit_;
  uint64_t data_len_;
};

inline bool WireReader::read_varint(VarintShape shape, uint64_t& magnitude, bool& negative) {
  const auto next = [this](unsigned& byte) {
    if (pos_ >= limit_) return false;
    byte = base_[pos_++];
    return true;
  };
  return read_varint_from(next, shape, magnitude, negative);
}

inline bool WireReader::read_int(int64_t& value) {
  uint64_t magnitude;
  bool negative;
  const bool complete = read_varint(INT_SHAPE, magnitude, negative);
  value = static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
  return complete;
}

inline bool WireReader::read_length(uint32_t& length) {
  uint64_t magnitude;
  bool negative;
  const bool complete = read_varint(LENGTH_SHAPE, magnitude, negative);
  length = static_cast<uint32_t>(magnitude);
  return complete;
}

template <typename Bits, typename Float>
inline bool WireReader::read_float_bits(Float& value) {
  static_assert(sizeof(Bits) == sizeof(Float), "the bits of a number");
  value = 0;
  if (pos_ >= limit_ || limit_ - pos_ < sizeof(Bits)) return false;
  const Bits bits = load_big_endian<Bits>(base_ + pos_);
  std::memcpy(&value, &bits, sizeof value);
  pos_ += sizeof bits;
  return true;
}

inline bool WireReader::read_float(float& value) {
  return read_float_bits<uint32_t>(value);
}

inline bool WireReader::read_double(double& value) {
  return read_float_bits<uint64_t>(value);
}

}  // namespace PROTO
}  // namespace VORN
