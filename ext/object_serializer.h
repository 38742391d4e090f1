/// Writes Ruby objects in the value encoding.
#pragma once

#include "ext/ruby_compat.h"
#include "proto/packet_buf.h"

namespace VORN {
namespace EXT {

/// Writes `obj` and everything below it at the buffer's position, down to PROTO::DEFAULT_MAX_DEPTH levels whatever
/// @maxdepth says, which is the reader's.
///
/// Raises RuntimeError "serialize_rbobj_to_packetbuf: maxdepth exceeded", "... unsupported rb_type" or "... hash
/// entry is not a [key, value] pair", RangeError for an Integer beyond 64 bits, RuntimeError "C++ exception: ..."
/// when memory runs out, and whatever an overridden `each` raises. What was written by then stays.
///
/// Checks for interrupts every 16 KiB: other threads run, and signal handlers. What Timeout, Thread#kill and
/// Thread#raise raise leaves what a failure leaves.
///
/// A Hash subclass with its own `each` runs Ruby code in the middle of it, which may use the buffer. It may keep the
/// block that it is given, and with it `owner`, the buffer's Ruby object.
/// REQUIRES: the caller keeps `owner` alive until this returns.
void serialize_object(VALUE obj, VALUE owner, PROTO::PacketBuf& buf);

/// Called once by Init.
void init_object_serializer();

}  // namespace EXT
}  // namespace VORN
