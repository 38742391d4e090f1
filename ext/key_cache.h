/// The keys of hashes that are decoded, and how they are stored.
///
/// Storing under a String key makes a Hash look up, or make, the interpreter's one frozen copy of that text. Messages
/// of one kind carry the same keys again and again, so the copies of recent keys are kept at hand by their bytes
/// (without them: decode of 1,000 records, 354 to 637 us). The Hash that results is the same.
#pragma once

#include <cstdint>

#include "ext/ruby_compat.h"

namespace VORN {
namespace EXT {

/// Lives in the frame of one decode, and owns nothing: what it keeps belongs to the Ractor, since a key found here is
/// used without a lock.
class KeyCache {
 public:
  /// The String to store under for a key of these bytes. `encoding_index` is binary or UTF-8. May raise NoMemoryError.
  VALUE find(const char* bytes, uint32_t length, int encoding_index);

  /// Stores keys and values that alternate in `pairs`; later ones replace earlier ones. May run Ruby code: `hash`
  /// and `eql?` of keys that are no Strings.
  /// REQUIRES: String keys come from find().
  static void store(VALUE hash, const VALUE* pairs, int count);

 private:
  struct Slots;

  Slots* slots_ = nullptr;  ///< this Ractor's, once a key was asked for
};

/// Called once by Init.
void init_key_cache();

}  // namespace EXT
}  // namespace VORN
