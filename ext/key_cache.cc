#include "ext/key_cache.h"

#include <cstring>
#include <new>
#include <type_traits>

namespace VORN {
namespace EXT {

// Keys outlive their messages here, whoever chose them: SLOTS * LONGEST bytes is the most that a peer can make us keep.
// 128 places hold the keys of a handful of message kinds with few collisions.
struct KeyCache::Slots {
  static constexpr unsigned SLOTS = 128;
  static constexpr uint32_t LONGEST = 128;

  VALUE& of(const char* bytes, uint32_t length) {
    if (length == 0) return keys[0];
    const auto at = [=](uint32_t i) { return static_cast<unsigned>(static_cast<unsigned char>(bytes[i])); };
    return keys[(length * 7 + at(0) + at(length / 2) * 5 + at(length - 1) * 11) % SLOTS];
  }

  static Slots& of_this_ractor();
  static void mark(void* data);
  static size_t size(const void*) { return sizeof(Slots); }

  VALUE keys[SLOTS] = {};
};

namespace {

RactorLocal ractor_slots;

}  // namespace

void KeyCache::Slots::mark(void* data) {
  for (const VALUE key : static_cast<const Slots*>(data)->keys) {
    if (key != 0) rb_gc_mark(key);
  }
}

KeyCache::Slots& KeyCache::Slots::of_this_ractor() {
  static_assert(std::is_trivially_destructible<Slots>::value, "the collector frees its memory, no more");
  static const rb_data_type_t type = [] {
    rb_data_type_t t = rb_data_type_t();
    t.wrap_struct_name = "VORN recent keys";
    t.function.dmark = mark;
    t.function.dfree = RUBY_TYPED_DEFAULT_FREE;
    t.function.dsize = size;
    return t;
  }();
  VALUE handle;
  if (!ractor_slots.find(&handle)) {
    Slots* memory;
    handle = TypedData_Make_Struct(0, Slots, &type, memory);  // class 0: hidden from ObjectSpace
    new (memory) Slots();
    ractor_slots.set(handle);
  }
  return *static_cast<Slots*>(RTYPEDDATA_DATA(handle));
}

VALUE KeyCache::find(const char* bytes, uint32_t length, int encoding_index) {
  if (!INTERNS_KEYS || length > Slots::LONGEST) return key_string(bytes, static_cast<long>(length), encoding_index);
  if (slots_ == nullptr) slots_ = &Slots::of_this_ractor();
  VALUE& recent = slots_->of(bytes, length);
  if (recent != 0 && RSTRING_LEN(recent) == static_cast<long>(length) &&
      ENCODING_GET_INLINED(recent) == encoding_index && std::memcmp(RSTRING_PTR(recent), bytes, length) == 0) {
    return recent;
  }
  return recent = key_string(bytes, static_cast<long>(length), encoding_index);
}

void KeyCache::store(VALUE hash, const VALUE* pairs, int count) {
  // Bulk insertion spares each pair a call (without it: decode of 1,000 records, 354 to 409 us). A Hash that has
  // entries would be indexed anew, with every key compared again, which costs the square or the cube of their number.
  if (RHASH_EMPTY_P(hash) && insert_in_bulk(hash, pairs, count)) return;
  for (int i = 0; i < count; i += 2) rb_hash_aset(hash, pairs[i], pairs[i + 1]);
}

void init_key_cache() {
  ractor_slots.init();
}

}  // namespace EXT
}  // namespace VORN
