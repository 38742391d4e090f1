/// Storing decoded pairs in a Hash with what the interpreter has for it.
///
/// Storing under a String key makes a Hash look up, or make, the interpreter's one frozen copy of that text.
/// From 3.0 on the copy can be had from the bytes, without a String in between, and an empty Hash takes many pairs
/// with such keys at once. The Hash that results is the same.
#pragma once

#include "ext/ruby_compat.h"

namespace VORN {
namespace EXT {

/// Stores keys and values that alternate in `pairs`; later ones replace earlier ones. May run Ruby code: `hash`
/// and `eql?` of keys that are no Strings.
/// REQUIRES: String keys come from RecentKeys where Ruby interns keys.
inline void store_hash_entries(VALUE hash, const VALUE* pairs, int count) {
#ifdef VORN_RUBY_INTERNS_KEYS
  // One that holds some already would be indexed anew, with every key compared again: at a stranger's choice of keys
  // that costs the square or the cube of their number.
  if (RHASH_EMPTY_P(hash)) return rb_hash_bulk_insert(count, pairs, hash);
#endif
  for (int i = 0; i < count; i += 2) rb_hash_aset(hash, pairs[i], pairs[i + 1]);
}

}  // namespace EXT
}  // namespace VORN
