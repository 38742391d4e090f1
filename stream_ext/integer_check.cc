#include "stream_ext/integer_check.h"

#include <cstdint>

#include "ext/machine_stack.h"

namespace VORN {
namespace STREAM_EXT {

namespace {

ID id_each;

/// A walk through a value. Owns nothing: an exception of Ruby's leaves it behind.
struct Walk {
  EXT::MachineStack stack;
  int32_t depth = 0;
};

void check_container(VALUE container, Walk& walk);

// Most members are no containers, and need no frame.
void check_member(VALUE member, Walk& walk) {
  if (FIXNUM_P(member)) {
    const long number = FIX2LONG(member);
    // The others are on the heap, and written in full.
    if (number != static_cast<int32_t>(number)) rb_raise(rb_eRangeError, "%ld would be cut to 32 bits", number);
  } else if (RB_TYPE_P(member, T_ARRAY) || RB_TYPE_P(member, T_HASH)) {
    check_container(member, walk);
  }
}

int check_entry(VALUE key, VALUE value, VALUE arg) {
  Walk& walk = *reinterpret_cast<Walk*>(arg);
  check_member(key, walk);
  check_member(value, walk);
  return ST_CONTINUE;
}

// The block can be kept and called when the walk is long over, so it begins one of its own.
VALUE check_yielded(RB_BLOCK_CALL_FUNC_ARGLIST(yielded, unused)) {
  static_cast<void>(unused);
  static_cast<void>(blockarg);
  Walk walk;
  const bool pair = argc == 1 && RB_TYPE_P(yielded, T_ARRAY);
  check_member(pair ? rb_ary_entry(yielded, 0) : yielded, walk);
  check_member(pair ? rb_ary_entry(yielded, 1) : argc > 1 ? argv[1] : Qnil, walk);
  return Qnil;
}

// As the codec iterates: over an Array's members, but with a Hash's own `each`.
void check_container(VALUE container, Walk& walk) {
  walk.stack.enter(++walk.depth, &container);
  if (RB_TYPE_P(container, T_ARRAY)) {
    for (long i = 0; i < RARRAY_LEN(container); ++i) check_member(RARRAY_AREF(container, i), walk);
  } else if (rb_method_basic_definition_p(CLASS_OF(container), id_each)) {
    EXT::each_hash_entry(container, check_entry, reinterpret_cast<VALUE>(&walk));
  } else {
    rb_block_call(container, id_each, 0, nullptr, VALUEFUNC(check_yielded), Qnil);
  }
  --walk.depth;
}

}  // namespace

void check_integers(VALUE value) {
  Walk walk;
  check_member(value, walk);
}

void init_integer_check() {
  id_each = rb_intern("each");
}

}  // namespace STREAM_EXT
}  // namespace VORN
