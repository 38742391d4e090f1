/// Conversions of Ruby arguments. All may run Ruby code (to_int) and may raise.
#pragma once

#include <cstdint>

#include "ext/ruby_compat.h"

namespace VORN {
namespace EXT {

/// The low 32 bits of an Integer.
inline uint32_t cut_to_uint32(VALUE number) {
  return static_cast<uint32_t>(FIXNUM_P(number) ? static_cast<unsigned long>(FIX2LONG(number)) : rb_num2ulong(number));
}

/// The low 16 bits of an Integer.
inline uint16_t cut_to_uint16(VALUE number) {
  return static_cast<uint16_t>(cut_to_uint32(number));
}

/// The low 32 bits of an Integer, as a signed number.
inline int32_t cut_to_int32(VALUE number) {
  return static_cast<int32_t>(FIXNUM_P(number) ? FIX2LONG(number) : rb_num2long(number));
}

/// A non-negative Integer of the low 32 bits of a native position or count.
inline VALUE low_32_bits_to_integer(uint64_t number) {
  return UINT2NUM(static_cast<uint32_t>(number));
}

}  // namespace EXT
}  // namespace VORN
