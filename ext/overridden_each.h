/// Hashes with an `each` of their own, which is Ruby code in the middle of writing, and the look-up that tells them
/// from the others.
#pragma once

#include <cstdint>

#include "ext/ruby_compat.h"
#include "proto/packet_buf.h"

namespace VORN {
namespace EXT {

/// Which hashes iterate with the built-in `each`. The look-up takes as long as two entries, so it is made once for a
/// run of hashes of one class (without: encode of 1,000 records, 111 to 118 us).
class BuiltinEach {
 public:
  bool iterates(VALUE hash) { return CLASS_OF(hash) == known_ || look_up(hash); }

  /// To be called when Ruby code has run, which may have redefined any `each`.
  void forget() { known_ = 0; }

 private:
  bool look_up(VALUE hash);

  VALUE known_ = 0;  ///< a class whose hashes iterate with the built-in `each`; 0: none
};

/// Where a hash is written.
struct HashPlace {
  VALUE owner;  ///< the Ruby object that keeps buf alive
  PROTO::PacketBuf& buf;
  int32_t depth;  ///< levels around the hash, itself included
};

/// Writes a key or a value of the hash at that place. May raise.
using WriteMember = void (*)(VALUE member, const HashPlace& place);

/// Calls the hash's `each` with a block that has `write_member` write the keys and values of what it is given: pairs,
/// as an Array or as two values. Whatever `each` raises goes on.
///
/// The block can be kept and called when everything here is long gone. It then raises RuntimeError
/// "serialize_rbobj_to_packetbuf: hash iteration has ended", unless the call did not end but was abandoned with its
/// fiber; so it keeps `owner` alive.
void call_overridden_each(VALUE hash, const HashPlace& place, WriteMember write_member);

/// Called once by Init.
void init_overridden_each();

}  // namespace EXT
}  // namespace VORN
