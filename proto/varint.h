/// The shape of a varint: a number in groups of bits, least significant first, one group a byte. Integers and lengths
/// are the two shapes in use.
///
/// Counting from bit 0, the first byte has data bits, a continuation flag, and, in a signed shape, a sign flag. Every
/// continuation byte has seven data bits, and its continuation flag in bit 7.
///
///   integer  first byte 1SCddddd (bit 7 marks the type), then Cddddddd ...
///   length   first byte Cddddddd, then Cddddddd ...
#pragma once

#include <cstdint>

namespace VORN {
namespace PROTO {

/// What the first byte of a varint has.
struct VarintShape {
  unsigned first_byte_bits;  ///< bits that the number may use of its first byte: 2 to 8, signed 3 to 8
  bool is_signed;            ///< one of these bits is a sign flag

  /// The parts of the first byte: how many data bits it has, and the masks of its flags and data.
  /// @{
  constexpr unsigned first_data_bits() const { return first_byte_bits - (is_signed ? 2 : 1); }
  constexpr unsigned continuation_flag() const { return 1U << first_data_bits(); }
  constexpr unsigned first_data_mask() const { return continuation_flag() - 1; }
  constexpr unsigned sign_flag() const { return is_signed ? continuation_flag() << 1 : 0; }
  /// @}
};

/// The longest varint in the shape of integers, that of a 64-bit magnitude.
constexpr unsigned MAX_VARINT_SIZE = 10;

/// The parts of every continuation byte.
/// @{
constexpr unsigned CONTINUATION_BYTE_DATA_BITS = 7;
constexpr unsigned CONTINUATION_BYTE_DATA_MASK = 0x7F;
constexpr unsigned CONTINUATION_BYTE_FLAG = 0x80;
/// @}

/// Reads a varint from the bytes that `next` hands out: false, and no byte, when there is none. False: the bytes ran
/// out before the last one, and the magnitude is 0. Groups beyond bit 63 fold back to bit 0 on.
template <typename Next>
inline bool read_varint_from(const Next& next, VarintShape shape, uint64_t& magnitude, bool& negative) {
  magnitude = 0;
  negative = false;
  unsigned byte;
  if (!next(byte)) return false;
  negative = (byte & shape.sign_flag()) != 0;
  uint64_t value = byte & shape.first_data_mask();
  bool more = (byte & shape.continuation_flag()) != 0;
  for (unsigned shift = shape.first_data_bits(); more; shift += CONTINUATION_BYTE_DATA_BITS) {
    if (!next(byte)) return false;
    value |= uint64_t{byte & CONTINUATION_BYTE_DATA_MASK} << (shift & 63U);
    more = (byte & CONTINUATION_BYTE_FLAG) != 0;
  }
  magnitude = value;
  return true;
}

/// The two shapes in use.
/// @{
constexpr VarintShape INT_SHAPE{7, true};
constexpr VarintShape LENGTH_SHAPE{8, false};
/// @}

}  // namespace PROTO
}  // namespace VORN
