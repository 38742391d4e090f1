#pragma once

#include <cstdint>
#include <string_view>

#include "tools/inspect/output.h"

namespace vorn_inspect {

/// Writes lines of 16 bytes, each with the offset of its first byte, indented by two blanks:
///
///   0000001b  a5 01 00 07 00 00 00 02  41 42                    |......AB|
void write_hex_dump(std::string_view bytes, uint64_t offset, Output& output);

/// Writes the bytes as pairs of hexadecimal digits without separators.
void write_hex_digits(std::string_view bytes, Output& output);

}  // namespace vorn_inspect
