/// The primitive writers of the value encoding. Each knows its exact length first, claims that much of the
/// buffer and stores without further checks. No pointer outlives the call, because other code, Ruby code
/// included, may use the buffer between two values.
///
/// All throw what PacketBuf::claim() throws; the buffer is then as before the call. Source bytes must not lie
/// inside the buffer.
#pragma once

#include <cstdint>
#include <cstring>

#include "proto/group_number.h"
#include "proto/packet_buf.h"
#include "proto/transport_type.h"

namespace VORN {
namespace PROTO {

/// Bytes that write_group_number() takes for this magnitude.
inline unsigned group_number_size(uint64_t magnitude, GroupShape shape) {
  unsigned size = 1;
  for (uint64_t rest = magnitude >> shape.first_data_bits(); rest != 0; rest >>= LATER_DATA_BITS) ++size;
  return size;
}

/// Stores a number of `size` bytes, size being group_number_size(); returns the byte behind it.
inline char* store_group_number(char* at, uint64_t magnitude, bool negative, unsigned first_byte_mark,
                                GroupShape shape) {
  uint64_t rest = magnitude >> shape.first_data_bits();
  *at++ = static_cast<char>(first_byte_mark | (negative ? shape.sign_flag() : 0) |
                            (rest != 0 ? shape.continuation_flag() : 0) |
                            (magnitude & shape.first_data_mask()));
  while (rest != 0) {
    const unsigned low = static_cast<unsigned>(rest & LATER_DATA_MASK);
    rest >>= LATER_DATA_BITS;
    *at++ = static_cast<char>(low | (rest != 0 ? LATER_CONTINUATION_FLAG : 0));
  }
  return at;
}

/// The general form behind integers and lengths. `negative` counts in a signed shape only.
inline void write_group_number(PacketBuf& buf, uint64_t magnitude, bool negative, GroupShape shape) {
  char* const at = buf.claim(group_number_size(magnitude, shape));
  store_group_number(at, magnitude, negative, 0, shape);
}

/// One byte: nil, false, true, or the start or end of a container.
inline void write_type(PacketBuf& buf, TransportType type) {
  *buf.claim(1) = static_cast<char>(type);
}

inline void write_int(PacketBuf& buf, int64_t value) {
  const bool negative = value < 0;
  // The magnitude of the most negative integer is 2^63, so it is taken in unsigned arithmetic.
  const uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  char* const at = buf.claim(group_number_size(magnitude, INT_SHAPE));
  store_group_number(at, magnitude, negative, PTT_INT, INT_SHAPE);
}

/// A type byte and the raw bits of an IEEE-754 number, most significant byte first.
template <typename Bits>
inline void write_float_bits(PacketBuf& buf, TransportType type, Bits bits) {
  char* const at = buf.claim(1 + sizeof bits);
  at[0] = static_cast<char>(type);
  for (unsigned i = 0; i < sizeof bits; ++i) at[1 + i] = static_cast<char>(bits >> (8 * (sizeof bits - 1 - i)));
}

inline void write_float(PacketBuf& buf, float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  write_float_bits(buf, PTT_FLOAT, bits);
}

inline void write_double(PacketBuf& buf, double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  write_float_bits(buf, PTT_DOUBLE, bits);
}

/// `type` is PTT_BINSTR, PTT_SYMBOL or PTT_UTF8STR.
inline void write_string(PacketBuf& buf, TransportType type, const char* bytes, uint32_t length) {
  char* at = buf.claim(1 + group_number_size(length, LENGTH_SHAPE) + uint64_t{length});
  *at++ = static_cast<char>(type);
  at = store_group_number(at, length, false, 0, LENGTH_SHAPE);
  if (length != 0) std::memcpy(at, bytes, length);
}

inline void write_binstr(PacketBuf& buf, const char* bytes, uint32_t length) {
  write_string(buf, PTT_BINSTR, bytes, length);
}

inline void write_symbol(PacketBuf& buf, const char* name, uint32_t length) {
  write_string(buf, PTT_SYMBOL, name, length);
}

inline void write_utf8str(PacketBuf& buf, const char* bytes, uint32_t length) {
  write_string(buf, PTT_UTF8STR, bytes, length);
}

}  // namespace PROTO
}  // namespace VORN
