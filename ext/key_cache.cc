#include "ext/key_cache.h"

#include <cstring>
#include <new>
#include <type_traits>

namespace VORN {
namespace EXT {

// Keys and Symbols outlive their messages here, whoever chose them: SLOTS * LONGEST bytes is the most that a peer can
// make us keep. 128 places hold the keys of a handful of message kinds with few collisions.
struct KeyCache::Slots {
  static constexpr unsigned SLOTS = 128;
  static constexpr uint32_t LONGEST = 128;

  static constexpr uint32_t SYMBOL = 255;  ///< instead of the index of a String's encoding

  /// A text, of which up to 16 bytes are known by two words (compared by memcmp() instead: 10,000 Symbols take 1.8
  /// times the instructions, 1,000 records 3 % more).
  struct Text {
    Text() = default;
    Text(const char* bytes, uint32_t length, uint32_t kind) : id((length + 1) * 256 + kind) {
      if (length >= 8) {
        head = load<uint64_t>(bytes);
        tail = load<uint64_t>(bytes + length - 8);
      } else if (length >= 4) {
        head = load<uint32_t>(bytes);
        tail = load<uint32_t>(bytes + length - 4);
      } else if (length > 0) {
        head = load<uint8_t>(bytes) | uint64_t{load<uint8_t>(bytes + length / 2)} << 8U;
        tail = load<uint8_t>(bytes + length - 1);
      }
    }
    bool operator==(const Text& other) const { return id == other.id && head == other.head && tail == other.tail; }

    // All bits count, and keys that differ in the low bits of their first byte only have places of their own.
    size_t place() const {
      return (head + ((((head >> 7U) + tail * 3) * UINT64_C(0x9E3779B97F4A7C15)) >> 57U)) % SLOTS;
    }

    uint64_t head = 0;
    uint64_t tail = 0;
    uint32_t id = 0;  ///< of the length and the kind; 0: none
  };

  struct Slot {
    Text text;
    VALUE object = 0;  ///< a String or a Symbol; 0: none yet
  };

  template <typename Word>
  static Word load(const char* at) {
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
  }

  /// The object of this text, if need be from `make`, which may raise. It is told whether the object is kept: at once,
  /// or when the text was also the last one in its place.
  template <typename Make>
  VALUE find(const char* bytes, uint32_t length, uint32_t kind, bool at_once, const Make& make) {
    const Text text(bytes, length, kind);
    Slot& slot = slots[text.place()];
    const bool again = slot.text == text;
    if (again && slot.object != 0) {
      if (length <= 16) return slot.object;
      const VALUE string = kind == SYMBOL ? rb_sym2str(slot.object) : slot.object;
      if (std::memcmp(RSTRING_PTR(string), bytes, length) == 0) return slot.object;
    }
    const bool kept = at_once || again;
    const VALUE object = make(kept);
    slot = {text, kept ? object : 0};
    return object;
  }

  static Slots& of_this_ractor();
  static void mark(void* data);
  static size_t size(const void*) { return sizeof(Slots); }

  Slot slots[SLOTS];
};

namespace {

RactorLocal ractor_slots;

}  // namespace

void KeyCache::Slots::mark(void* data) {
  for (const Slot& slot : static_cast<const Slots*>(data)->slots) {
    if (slot.object != 0) rb_gc_mark(slot.object);
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

KeyCache::Slots& KeyCache::slots() {
  if (slots_ == nullptr) slots_ = &Slots::of_this_ractor();
  return *slots_;
}

VALUE KeyCache::find(const char* bytes, uint32_t length, int encoding_index) {
  const auto make = [=](bool kept) {
    return (kept ? stored_key_string : key_string)(bytes, static_cast<long>(length), encoding_index);
  };
  if (length > Slots::LONGEST) return make(false);
  // What a Hash stores takes long to get where the interpreter does not give it: not for keys that never come again.
  return slots().find(bytes, length, static_cast<uint32_t>(encoding_index), INTERNS_KEYS, make);
}

VALUE KeyCache::lone(const char* bytes, uint32_t length, int encoding_index) {
  return rb_obj_freeze(new_string(bytes, static_cast<long>(length), encoding_index));
}

VALUE KeyCache::symbol(const char* bytes, uint32_t length) {
  // One that the program does not hold can be collected, once its place has been taken.
  const auto make = [=](bool) {
    return rb_str_intern(new_string(bytes, static_cast<long>(length), rb_utf8_encindex()));
  };
  return length > Slots::LONGEST ? make(true) : slots().find(bytes, length, Slots::SYMBOL, true, make);
}

void KeyCache::store(VALUE hash, const VALUE* pairs, int count) {
  // Bulk insertion spares each pair a call (without it: decode of 1,000 records, 354 to 409 us). A Hash that has
  // entries would be indexed anew, with every key compared again, which costs the square or the cube of their number.
  if (RHASH_EMPTY_P(hash) && insert_in_bulk(hash, pairs, count)) return;
  for (int i = 0; i < count; i += 2) rb_hash_aset(hash, pairs[i], pairs[i + 1]);
}

void PairList::add(const VALUE* pairs, int count) {
  if (!any()) members_ = rb_obj_hide(rb_ary_new_capa(4L * count));
  // Not all at once: see ARRAY_BATCH in object_decoder.cc.
  constexpr int AT_ONCE = 16;
  for (; count > AT_ONCE; pairs += AT_ONCE, count -= AT_ONCE) rb_ary_cat(members_, pairs, AT_ONCE);
  rb_ary_cat(members_, pairs, count);
}

void PairList::move_to(VALUE hash) {
  insert_in_bulk(hash, RARRAY_CONST_PTR(members_), RARRAY_LEN(members_));
  rb_ary_clear(members_);
  members_ = Qnil;
}

void init_key_cache() {
  ractor_slots.init();
}

}  // namespace EXT
}  // namespace VORN
