/// Reads Ruby objects from the value encoding, in two passes over the same bytes: a checking pass that builds
/// nothing and counts the members of arrays, and a building pass that runs only when the first succeeded.
#pragma once

#include "ext/ruby_compat.h"
#include "proto/packet_buf.h"

namespace VORN {
namespace EXT {

/// How a value is to be read. Taken from the buffer's Ruby object, afresh for every call.
struct DecodeOptions {
  bool preserve_symbols;  ///< Symbols for symbols; otherwise UTF-8 Strings
  int32_t maxdepth;       ///< levels, scalars included; 0 and below refuse everything
};

/// Reads the value at the buffer's position and returns it; the position is then behind it. With
/// `scan_only_result` the value is checked and passed over, and the result is nil.
///
/// Raises RuntimeError with the text of the fault; the position stays where reading stopped. What the checking
/// pass refuses leaves no object behind. A container used as a Hash key may run Ruby code (`hash`, `eql?`) in the
/// building pass, which may use the buffer.
/// REQUIRES: the caller keeps the buffer's Ruby object alive.
VALUE deserialize_packetbuf_single_rbobj(PROTO::PacketBuf& buf, DecodeOptions options, bool scan_only_result);

/// Called once by Init.
void init_object_decoder();

}  // namespace EXT
}  // namespace VORN
