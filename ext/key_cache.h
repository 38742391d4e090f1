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

  /// More keys than this in one Hash leave no other in the cache.
  static constexpr long MOST_KEYS = 128;

  /// A String for a key of a Hash with more than MOST_KEYS: frozen, so that the Hash takes it as it is. To find or add
  /// the interpreter's copy of each would take longer than to make one (10,000 keys: a third more instructions).
  static VALUE lone(const char* bytes, uint32_t length, int encoding_index);

  /// The Symbol of this name. Raises EncodingError for one that is no UTF-8; may raise NoMemoryError.
  VALUE symbol(const char* bytes, uint32_t length);

  /// Stores keys and values that alternate in `pairs`; later ones replace earlier ones. May run Ruby code: `hash`
  /// and `eql?` of keys that are no Strings.
  /// REQUIRES: String keys come from find().
  static void store(VALUE hash, const VALUE* pairs, int count);

 private:
  struct Slots;

  Slots& slots();

  Slots* slots_ = nullptr;  ///< this Ractor's, once a key was asked for
};

/// The pairs of a Hash that are too many for a batch on the machine stack, until they are inserted all at once: into an
/// empty Hash, which then grows once and is indexed once (pair by pair: a Hash of 10,000 keys takes half as many
/// instructions again).
///
/// They are in an Array that ObjectSpace does not show. REQUIRES: lives on the machine stack; bulk insertion is to be
/// had, and no key runs code of the program.
class PairList {
 public:
  bool any() const { return !NIL_P(members_); }
  /// How many pairs there are.
  long size() const { return any() ? RARRAY_LEN(members_) / 2 : 0; }

  void add(const VALUE* pairs, int count);
  /// Inserts the pairs into this Hash, which should be empty, and lets them go: there are none then.
  void move_to(VALUE hash);

 private:
  VALUE members_ = Qnil;
};

/// Called once by Init.
void init_key_cache();

}  // namespace EXT
}  // namespace VORN
