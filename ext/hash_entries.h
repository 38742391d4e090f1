/// Storing decoded pairs in a Hash with what the interpreter has for it.
///
/// Storing under a String key makes a Hash look up, or make, the interpreter's one frozen copy of that text.
/// From 3.0 on the copy can be had from the bytes, without a String in between, and pairs with such keys can be
/// stored many at a time. The Hash that results is the same.
#pragma once

#include <cstdint>
#include <cstring>

#include "ext/ruby_compat.h"

#if defined(HAVE_RB_ENC_INTERNED_STR) && defined(HAVE_RB_HASH_BULK_INSERT)
#define VORN_RUBY_INTERNS_KEYS
#endif

namespace VORN {
namespace EXT {

/// The String keys of one decoded value. The members of an array tend to have the same keys, so the most recent
/// ones are kept by their text.
/// REQUIRES: it lives on the machine stack, where the collector finds what it holds.
class HashKeys {
 public:
#ifdef VORN_RUBY_INTERNS_KEYS
  static constexpr bool INTERNED = true;

  /// The frozen String that a Hash keeps for a key of these bytes. `encoding_index` is binary or UTF-8.
  VALUE interned(const char* bytes, uint32_t length, int encoding_index) {
    VALUE& recent = recent_[slot(bytes, length)];
    if (recent != 0 && RSTRING_LEN(recent) == static_cast<long>(length) &&
        ENCODING_GET_INLINED(recent) == encoding_index && std::memcmp(RSTRING_PTR(recent), bytes, length) == 0) {
      return recent;
    }
    return recent = rb_enc_interned_str(bytes, static_cast<long>(length), rb_enc_from_index(encoding_index));
  }

 private:
  static constexpr unsigned SLOTS = 64;

  static unsigned slot(const char* bytes, uint32_t length) {
    if (length == 0) return 0;
    const auto at = [=](uint32_t i) { return static_cast<unsigned>(static_cast<unsigned char>(bytes[i])); };
    return (length * 7 + at(0) + at(length / 2) * 5 + at(length - 1) * 11) % SLOTS;
  }

  VALUE recent_[SLOTS] = {};
#else
  static constexpr bool INTERNED = false;
  VALUE interned(const char*, uint32_t, int) { return Qnil; }
#endif
};

/// Stores keys and values that alternate in `pairs`; later ones replace earlier ones. May run Ruby code: `hash`
/// and `eql?` of keys that are no Strings.
/// REQUIRES: String keys come from HashKeys where it interns.
inline void store_hash_entries(VALUE hash, const VALUE* pairs, int count) {
#ifdef VORN_RUBY_INTERNS_KEYS
  rb_hash_bulk_insert(count, pairs, hash);
#else
  for (int i = 0; i < count; i += 2) rb_hash_aset(hash, pairs[i], pairs[i + 1]);
#endif
}

}  // namespace EXT
}  // namespace VORN
