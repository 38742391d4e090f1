/// The kinds of value that a VObject can hold, and the types of what it holds. The numbers are fixed: the text
/// rendering prints one that it does not know, and the order is used (see is_shared_type).
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "vobject/string_ref.h"
#include "vobject/vobject_string.h"
#include "vobject/vobject_udt.h"

namespace VORN {

class VObject;

/// A variant's tag.
enum DataType : uint8_t {
  DT_NIL = 0,
  DT_INT = 1,  ///< signed, 64 bits
  DT_DOUBLE = 2,
  DT_BOOL = 3,
  DT_SYMBOL = 4,  ///< an id of the symbol table
  DT_STR = 5,     ///< bytes: VObjectString
  DT_HASH = 6,    ///< map from bytes to values: VObjectHash
  DT_VECTOR = 7,  ///< VObjectVector
  DT_UDT = 8,     ///< user-defined object, possibly none: VObjectUDT
  DT_REF = 9      ///< another value
};

/// What variants of the kinds DT_HASH and DT_VECTOR hold.
/// @{
using VObjectHash = std::map<string_ref, VObject>;
using VObjectVector = std::vector<VObject>;
/// @}

/// Kinds from DT_STR on live in reference-counted storage; those before it lie in the value itself.
constexpr bool is_shared_type(uint8_t type) {
  return type > DT_SYMBOL;
}

}  // namespace VORN
