/// The checking pass of every decoder (Ruby's, the variant's, vorn-inspect's): walks one encoded value without building
/// anything, counts the members of its arrays, and collects the types of its keys. The open containers are kept in a
/// list, so that nesting costs no machine stack, however deep the caller's limit allows it to be.
#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>

#include "proto/array_counts.h"
#include "proto/export.h"
#include "proto/wire_reader.h"

namespace VORN {
namespace PROTO {

/// Why a value cannot be decoded. Each decoder words these for its own users.
enum class ValueFault : uint8_t {
  none,
  max_depth,        ///< nested deeper than the limit
  underrun,         ///< no byte where a value should start
  underrun_int,     ///< an integer's continuation flags lead past the range
  underrun_length,  ///< the same for a string's length
  underrun_string,  ///< a string's bytes do not fit
  underrun_float,
  underrun_double,
  underrun_hash,   ///< no byte where a member or the end mark should be
  underrun_array,  ///< the same
  unknown_type     ///< no value starts with this byte
};

/// Where decoders differ.
struct CheckLimits {
  int32_t maxdepth;     ///< levels, scalars included; nothing passes a limit of 0 or below
  uint64_t value_end;   ///< no value, member or end mark may start from here on, even if it is readable
  uint64_t string_end;  ///< the bytes of a string lie below this index
};

/// The types of all keys in a value, each a bit: that of its type byte, the last one for integers.
class KeyTypes {
 public:
  /// Notes a key whose first byte this is.
  void add(uint8_t type) { bits_ |= uint32_t{1} << std::min<uint8_t>(type, 31); }

  /// Whether all keys, if there are any, are of these types.
  bool only(std::initializer_list<uint8_t> types) const {
    uint32_t allowed = 0;
    for (const uint8_t type : types) allowed |= uint32_t{1} << type;
    return (bits_ & ~allowed) == 0;
  }

 private:
  uint32_t bits_ = 0;
};

/// Walks the value at the cursor. On success the cursor stands behind the value; on a fault it stays where
/// reading stopped. Throws std::bad_alloc.
VORN_API ValueFault check_value(WireReader& in, const CheckLimits& limits, ArrayCounts& counts);

/// The same, and adds the types of the keys that it met.
VORN_API ValueFault check_value(WireReader& in, const CheckLimits& limits, ArrayCounts& counts, KeyTypes& keys);

}  // namespace PROTO
}  // namespace VORN
