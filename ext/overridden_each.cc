#include "ext/overridden_each.h"

#include <new>
#include <type_traits>

namespace VORN {
namespace EXT {

namespace {

ID id_each;
ID id_original_name;

// --- which `each` it is -----------------------------------------------------------------------------------

bool method_cache_numbers_change = false;

/// Where aliases pass for the built-in method: whether a plain Hash's `each` has always had this name. Asking takes
/// 1 us, so a yes holds until a method of Hash changes.
bool each_is_no_alias(VALUE hash) {
  static uint64_t builtin_at = 0;
  const uint64_t number = method_cache_number(rb_cHash);
  if (number == builtin_at && method_cache_numbers_change) return true;
  const VALUE each = rb_obj_method(hash, ID2SYM(id_each));
  if (rb_funcall(each, id_original_name, 0) != ID2SYM(id_each)) return false;
  builtin_at = number;
  return true;
}

// --- one call of an `each` --------------------------------------------------------------------------------

/// What the block needs. Even the machine stack may be gone when it is called, that of a fiber which nobody resumes,
/// so this belongs to a Ruby object.
struct EachCall {
  const HashPlace place;
  const WriteMember write_member;
  bool ended;
};

void mark_each_call(void* data) {
  rb_gc_mark(static_cast<const EachCall*>(data)->place.owner);
}

const rb_data_type_t* each_call_type() {
  static const rb_data_type_t type = [] {
    rb_data_type_t t = rb_data_type_t();
    t.wrap_struct_name = "VORN hash iteration";
    t.function.dmark = mark_each_call;
    t.function.dfree = RUBY_TYPED_DEFAULT_FREE;
    return t;
  }();
  return &type;
}

EachCall& each_call(VALUE handle) {
  return *static_cast<EachCall*>(rb_check_typeddata(handle, each_call_type()));
}

const EachCall& each_call_in_progress(VALUE handle) {
  const EachCall& call = each_call(handle);
  if (call.ended) rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: hash iteration has ended");
  return call;
}

void write_yielded(VALUE member, VALUE handle) {
  const EachCall& call = each_call_in_progress(handle);
  call.write_member(member, call.place);
  RB_GC_GUARD(handle);
}

// An Array's missing members are nil, and those behind the second do not count.
VALUE write_yielded_entry(RB_BLOCK_CALL_FUNC_ARGLIST(yielded, handle)) {
  static_cast<void>(blockarg);
  each_call_in_progress(handle);
  VALUE key, value;
  if (argc == 2) {  // yield key, value
    key = argv[0];
    value = argv[1];
  } else if (argc == 1 && RB_TYPE_P(yielded, T_ARRAY)) {
    key = rb_ary_entry(yielded, 0);
    value = rb_ary_entry(yielded, 1);
  } else {
    rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: hash entry is not a [key, value] pair");
  }
  write_yielded(key, handle);
  write_yielded(value, handle);  // by now the key's own iteration may have let this one end
  rb_thread_check_ints();        // an `each` in C, such as an alias of each_pair, never does
  return Qnil;
}

struct Receiver {
  VALUE hash;
  VALUE handle;
};

VALUE call_each(VALUE arg) {
  const Receiver& receiver = *reinterpret_cast<Receiver*>(arg);
  return rb_block_call(receiver.hash, id_each, 0, nullptr, VALUEFUNC(write_yielded_entry), receiver.handle);
}

VALUE end_each_call(VALUE handle) {
  each_call(handle).ended = true;
  return Qnil;
}

}  // namespace

bool BuiltinEach::look_up(VALUE hash) {
  const VALUE klass = CLASS_OF(hash);
  if (!rb_method_basic_definition_p(klass, id_each)) return false;
  if (ALIASES_PASS_FOR_BUILTIN && (klass != rb_cHash || !each_is_no_alias(hash))) return false;
  known_ = klass;
  return true;
}

void call_overridden_each(VALUE hash, const HashPlace& place, WriteMember write_member) {
  static_assert(std::is_trivially_destructible<EachCall>::value, "the collector frees its memory, no more");
  EachCall* memory;
  // Class 0: nobody finds it in ObjectSpace, and without a class nobody can copy it.
  const VALUE handle = TypedData_Make_Struct(0, EachCall, each_call_type(), memory);
  new (memory) EachCall{place, write_member, false};
  Receiver receiver{hash, handle};
  rb_ensure(VALUEFUNC(call_each), reinterpret_cast<VALUE>(&receiver), VALUEFUNC(end_each_call), handle);
}

void init_overridden_each() {
  id_each = rb_intern("each");
  id_original_name = rb_intern("original_name");
  const uint64_t before = method_cache_number(rb_cHash);
  clear_method_cache(rb_cHash);
  method_cache_numbers_change = method_cache_number(rb_cHash) > before;
}

}  // namespace EXT
}  // namespace VORN
