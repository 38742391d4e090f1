/// The primitive writers of the value encoding. Each knows its exact length first, claims that much of the
/// buffer and stores without further checks. No pointer outlives the call, because other code, Ruby code
/// included, may use the buffer between two values.
///
/// All throw what PacketBuf::claim() throws; the buffer is then as before the call.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "proto/byte_order.h"
#include "proto/packet_buf.h"
#include "proto/transport_type.h"
#include "proto/varint.h"

namespace VORN {
namespace PROTO {

/// Bytes that write_varint() takes for this magnitude.
inline unsigned varint_size(uint64_t magnitude, VarintShape shape) {
  unsigned size = 1;
  for (uint64_t rest = magnitude >> shape.first_data_bits(); rest != 0; rest >>= CONTINUATION_BYTE_DATA_BITS) ++size;
  return size;
}

/// Stores a number in varint_size() bytes and returns the byte behind it.
inline char* store_varint(char* at, uint64_t magnitude, bool negative, unsigned first_byte_mark, VarintShape shape) {
  uint64_t rest = magnitude >> shape.first_data_bits();
  const unsigned first =
      first_byte_mark | (negative ? shape.sign_flag() : 0) | static_cast<unsigned>(magnitude & shape.first_data_mask());
  if (rest == 0) {
    *at++ = static_cast<char>(first);
    return at;
  }
  *at++ = static_cast<char>(first | shape.continuation_flag());
  for (; rest > CONTINUATION_BYTE_DATA_MASK; rest >>= CONTINUATION_BYTE_DATA_BITS) {
    *at++ = static_cast<char>((rest & CONTINUATION_BYTE_DATA_MASK) | CONTINUATION_BYTE_FLAG);
  }
  *at++ = static_cast<char>(rest);
  return at;
}

/// The general form behind integers and lengths. `negative` counts in a signed shape only.
inline void write_varint(PacketBuf& buf, uint64_t magnitude, bool negative, VarintShape shape) {
  char* const at = buf.claim(varint_size(magnitude, shape));
  store_varint(at, magnitude, negative, 0, shape);
}

/// One byte: nil, false, true, or the start or end of a container.
inline void write_type(PacketBuf& buf, TransportType type) {
  *buf.claim(1) = static_cast<char>(type);
}

/// The magnitude of the most negative integer is 2^63, so it is taken in unsigned arithmetic: without a branch,
/// since signs are hard to predict.
inline uint64_t magnitude_of(int64_t value) {
  const uint64_t sign = value < 0 ? ~uint64_t{0} : 0;
  return (static_cast<uint64_t>(value) ^ sign) - sign;
}

/// Any integer, in as few bytes as it takes.
inline void write_int(PacketBuf& buf, int64_t value) {
  const bool negative = value < 0;
  const uint64_t magnitude = magnitude_of(value);
  // Inside a buffer that is reused there are bytes for any integer, and its length need not be known first.
  if (char* const at = buf.begin_write(MAX_VARINT_SIZE)) {
    buf.end_write(store_varint(at, magnitude, negative, PTT_INT, INT_SHAPE));
  } else {
    store_varint(buf.claim(varint_size(magnitude, INT_SHAPE)), magnitude, negative, PTT_INT, INT_SHAPE);
  }
}

/// Stores an integer and returns the byte behind it. Writes one word whatever the size, since the sizes of integers
/// that follow one another are unpredictable. REQUIRES: there are 8 bytes at `at`, or 10 for magnitudes from 2^33 on.
[[gnu::always_inline]] inline char* store_int_word(char* at, uint64_t magnitude, bool negative) {
  if (magnitude >= uint64_t{1} << 33) return store_varint(at, magnitude, negative, PTT_INT, INT_SHAPE);
  const uint64_t groups = (magnitude & 0x1F) | (magnitude << 3 & 0x7F00) | (magnitude << 4 & 0x7F0000) |
                          (magnitude << 5 & 0x7F000000) | (magnitude << 6 & 0x7F00000000);
  const unsigned bits = 64 - static_cast<unsigned>(__builtin_clzll(magnitude | 1));
  const unsigned size = (bits + 8) * 37 >> 8;  // (bits + 8) / 7, for up to 33 bits
  const uint64_t continuations = 0x80808020 & ((uint64_t{1} << 8 * (size - 1)) - 1);
  store_little_endian(at, PTT_INT | uint64_t{negative} * INT_SHAPE.sign_flag() | groups | continuations);
  return at + size;
}

/// How many integers write_ints() encodes at once, and the memory that the longest of them take.
/// @{
constexpr size_t INT_BATCH = 64;
using IntScratch = char[INT_BATCH * MAX_VARINT_SIZE];
/// @}

/// Stores the results of value_at(first) to value_at(last - 1) and returns the byte behind them.
/// REQUIRES: at most INT_BATCH of them, and `at` starts an IntScratch.
template <typename ValueAt>
[[gnu::always_inline]] inline char* store_ints(char* at, size_t first, size_t last, ValueAt value_at) {
  assert(first <= last && last - first <= INT_BATCH);
  for (size_t i = first; i < last; ++i) {
    const int64_t value = value_at(i);
    at = store_int_word(at, magnitude_of(value), value < 0);
  }
  return at;
}

/// Writes integers that follow one another, `count` results of value_at(index). They are encoded in a scratch array,
/// because a word would overwrite what lies behind an integer in the buffer. A failure leaves earlier batches written.
/// Do not replace by a loop over write_int() without the experiment "runs of integers" of
/// docs/development/performance.md.
template <typename ValueAt>
[[gnu::noinline]] void write_ints(PacketBuf& buf, size_t count, ValueAt value_at) {
  IntScratch batch;
  for (size_t i = 0; i < count;) {
    const size_t next = std::min(count, i + INT_BATCH);
    const char* const end = store_ints(batch, i, next, value_at);
    buf.write_bytes(batch, static_cast<uint64_t>(end - batch));
    i = next;
  }
}

/// A type byte and the raw bits of an IEEE-754 number, most significant byte first.
template <typename Bits>
inline void write_float_bits(PacketBuf& buf, TransportType type, Bits bits) {
  char* const at = buf.claim(1 + sizeof bits);
  at[0] = static_cast<char>(type);
  store_big_endian(at + 1, bits);
}

/// A type byte and the number.
/// @{
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
/// @}

/// memcpy without a call for short strings, which most of a message are: two overlapping moves of a fixed size
/// (docs/development/performance.md: short strings).
inline void copy_string_bytes(char* to, const char* from, size_t n) {
  const auto move_ends = [=](auto width) {
    std::memcpy(to, from, width);
    std::memcpy(to + n - width, from + n - width, width);
  };
  if (n > 64) {
    std::memcpy(to, from, n);
  } else if (n >= 32) {
    move_ends(std::integral_constant<size_t, 32>());
  } else if (n >= 16) {
    move_ends(std::integral_constant<size_t, 16>());
  } else if (n >= 8) {
    move_ends(std::integral_constant<size_t, 8>());
  } else if (n >= 4) {
    move_ends(std::integral_constant<size_t, 4>());
  } else if (n > 0) {
    to[0] = from[0];
    to[n / 2] = from[n / 2];
    to[n - 1] = from[n - 1];
  }
}

/// A type byte, the length and the bytes.
/// REQUIRES: `type` is PTT_BINSTR, PTT_SYMBOL or PTT_UTF8STR, and the bytes do not lie in the buffer.
inline void write_string(PacketBuf& buf, TransportType type, const char* bytes, uint32_t length) {
  assert(type >= PTT_BINSTR && type <= PTT_UTF8STR);
  assert(!buf.holds(bytes));
  char* at = buf.claim(1 + varint_size(length, LENGTH_SHAPE) + uint64_t{length});
  *at++ = static_cast<char>(type);
  at = store_varint(at, length, false, 0, LENGTH_SHAPE);
  copy_string_bytes(at, bytes, length);
}

/// write_string() with the type that is named.
/// @{
inline void write_binstr(PacketBuf& buf, const char* bytes, uint32_t length) {
  write_string(buf, PTT_BINSTR, bytes, length);
}

inline void write_symbol(PacketBuf& buf, const char* name, uint32_t length) {
  write_string(buf, PTT_SYMBOL, name, length);
}

inline void write_utf8str(PacketBuf& buf, const char* bytes, uint32_t length) {
  write_string(buf, PTT_UTF8STR, bytes, length);
}
/// @}

}  // namespace PROTO
}  // namespace VORN
