/// Prints a variant in the notation of test/vectors/, which distinguishes what equality and rendering do not: a
/// double's bits, a symbol from a string.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "proto/packet_buf.h"
#include "test/support/hex.h"
#include "vobject/vobject.h"

namespace vorn_test {

/// `other` is called with a value of a kind that the notation has not.
template <typename Other>
std::string notation_of(const VORN::VObject& value, Other other) {
  switch (value.type()) {
    case VORN::DT_NIL: return "nil";
    case VORN::DT_BOOL: return value.to_bool() ? "true" : "false";
    case VORN::DT_INT: return std::to_string(value.to_i64());
    case VORN::DT_DOUBLE: {
      // A variant exposes its exact double only through its encoding: a type byte, then the bits.
      VORN::PROTO::PacketBuf buf;
      value.serialize(buf, 1);
      return "d:" + hex_digits(buf.data().substr(1));
    }
    case VORN::DT_SYMBOL: return "s:" + hex_digits(*VORN::VObject::sym_lookup(value.intern()));
    case VORN::DT_STR: return "t:" + hex_digits(value.getstr());
    case VORN::DT_VECTOR: {
      std::string out = "[";
      for (const VORN::VObject& element : value.getvec()) {
        if (out.size() > 1) out += ' ';
        out += notation_of(element, other);
      }
      return out + "]";
    }
    case VORN::DT_HASH: {
      std::string out = "{";
      for (const auto& entry : value.gethash()) {
        if (out.size() > 1) out += ' ';
        out += "t:" + hex_digits(std::string(entry.first.view())) + "=" + notation_of(entry.second, other);
      }
      return out + "}";
    }
    default: return other(value);
  }
}

inline std::string notation_of(const VORN::VObject& value) {
  return notation_of(value, [](const VORN::VObject&) -> std::string {
    throw std::invalid_argument("no notation for this kind of variant");
  });
}

}  // namespace vorn_test
