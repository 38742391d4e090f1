/// The first byte of every encoded value. Containers are a start byte, their members, an end byte; there is no
/// length in front, so a writer can stream members without knowing their count.
///
///   value  := NIL | FALSE | TRUE
///           | FLOAT  byte[4]            IEEE-754, big-endian
///           | DOUBLE byte[8]            IEEE-754, big-endian
///           | BINSTR  length byte[length]
///           | SYMBOL  length byte[length]
///           | UTF8STR length byte[length]
///           | HASH_START (value value)* HASH_END
///           | ARRAY_START value* ARRAY_END
///           | integer                   its own first byte, 0x80 to 0xFF
///
/// Bytes 0x0C to 0x7F mean nothing, and an end byte means something only where a member could start.
#pragma once

#include <cstdint>

namespace VORN {
namespace PROTO {

/// The values of the first byte.
enum TransportType : uint8_t {
  PTT_NIL = 0x00,
  PTT_FALSE = 0x01,
  PTT_TRUE = 0x02,
  PTT_FLOAT = 0x03,  ///< read, never written
  PTT_DOUBLE = 0x04,
  PTT_BINSTR = 0x05,
  PTT_SYMBOL = 0x06,
  PTT_UTF8STR = 0x07,
  PTT_HASH_START = 0x08,
  PTT_HASH_END = 0x09,
  PTT_ARRAY_START = 0x0A,
  PTT_ARRAY_END = 0x0B,
  PTT_INT = 0x80  ///< this bit marks an integer
};

}  // namespace PROTO
}  // namespace VORN
