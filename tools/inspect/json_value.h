/// Values as JSON, losslessly.
#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

#include "proto/packet_buf.h"
#include "vobject/vobject.h"

namespace vorn_inspect {

/// Turns values into JSON, nothing lost, nothing lost: nil, booleans, integers (all 64 bits) and doubles are
/// what JSON calls so; a double always has a point or an exponent. What JSON has no form for is an object
/// with one member, whose name begins with a dollar sign:
///
///   {"$bytes": "c3ff"}                a string that is not UTF-8, as hexadecimal digits
///   {"$double": "7ff8000000000000"}   infinities and what is not a number, by their bits
///   {"$hash": [[KEY, VALUE], ...]}   a hash that has a key which is not UTF-8 or begins with a dollar sign
///
/// Other hashes are objects.
class JsonConverter {
 public:
  /// REQUIRES: the value was decoded with symbols as strings: no references, no symbols, no user-defined
  /// objects.
  nlohmann::json convert(const VORN::VObject& value);

 private:
  nlohmann::json convert_double(const VORN::VObject& value);
  nlohmann::json convert_hash(const VORN::VObjectHash& hash);

  VORN::PROTO::PacketBuf scratch_;
};

/// Well-formed: no overlong forms, no surrogates, nothing above U+10FFFF.
bool is_utf8(std::string_view bytes);

}  // namespace vorn_inspect
