/// The String keys of recent messages, by their bytes. Messages of one kind carry the same keys again and again, and
/// the interpreter's own look-up of the one frozen copy of a text takes ten times as long (a small request of six
/// keys, decode: 1.0 us with keys kept for one message only, 0.75 so).
#pragma once

#include <cstdint>
#include <cstring>

#include "ext/ruby_compat.h"

#ifdef VORN_RUBY_INTERNS_KEYS

namespace VORN {
namespace EXT {

/// Each Ractor has its own, since a key found here is used without a lock.
class RecentKeys {
 public:
  /// Lives as long as the Ractor. May raise NoMemoryError, on the first call.
  static RecentKeys& of_this_ractor();

  /// The frozen String that a Hash keeps for a key of these bytes. `encoding_index` is binary or UTF-8.
  VALUE interned(const char* bytes, uint32_t length, int encoding_index) {
    if (length > LONGEST) return intern(bytes, length, encoding_index);
    VALUE& recent = keys_[slot(bytes, length)];
    if (recent != 0 && RSTRING_LEN(recent) == static_cast<long>(length) &&
        ENCODING_GET_INLINED(recent) == encoding_index && std::memcmp(RSTRING_PTR(recent), bytes, length) == 0) {
      return recent;
    }
    return recent = intern(bytes, length, encoding_index);
  }

  void mark() const;

 private:
  // What is kept outlives its message: at most SLOTS * LONGEST bytes of a stranger's.
  static constexpr unsigned SLOTS = 128;
  static constexpr uint32_t LONGEST = 128;

  static VALUE intern(const char* bytes, uint32_t length, int encoding_index) {
    return rb_enc_interned_str(bytes, static_cast<long>(length), rb_enc_from_index(encoding_index));
  }

  static unsigned slot(const char* bytes, uint32_t length) {
    if (length == 0) return 0;
    const auto at = [=](uint32_t i) { return static_cast<unsigned>(static_cast<unsigned char>(bytes[i])); };
    return (length * 7 + at(0) + at(length / 2) * 5 + at(length - 1) * 11) % SLOTS;
  }

  VALUE keys_[SLOTS] = {};
};

void init_recent_keys();

}  // namespace EXT
}  // namespace VORN

#endif
