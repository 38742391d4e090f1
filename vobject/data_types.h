/// The kinds of value that a VObject can hold. The numbers are fixed: the text rendering prints one that it
/// does not know, and the order is used (see is_shared_type).
#pragma once

#include <cstdint>

namespace VORN {

/// A variant's tag.
enum DataType : uint8_t {
  DT_NIL = 0,
  DT_INT = 1,  ///< signed, 64 bits
  DT_DOUBLE = 2,
  DT_BOOL = 3,
  DT_SYMBOL = 4,  ///< an id of the symbol table
  DT_STR = 5,     ///< bytes
  DT_HASH = 6,    ///< map from bytes to values
  DT_VECTOR = 7,
  DT_UDT = 8,  ///< user-defined object, possibly none
  DT_REF = 9   ///< another value
};

/// Kinds from DT_STR on live in reference-counted storage; those before it lie in the value itself.
constexpr bool is_shared_type(uint8_t type) {
  return type > DT_SYMBOL;
}

}  // namespace VORN
