#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vorn_inspect {

/// Appends lines of 16 bytes, each with the offset of its first byte, indented by two blanks:
///
///   0000001b  a5 01 00 07 00 00 00 02  41 42                    |......AB|
void append_hex_dump(std::string_view bytes, uint64_t offset, std::string& out);

/// The bytes as pairs of hexadecimal digits, nothing between them.
std::string hex_digits(std::string_view bytes);

}  // namespace vorn_inspect
