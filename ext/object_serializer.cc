#include "ext/object_serializer.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <type_traits>

#include "ext/native_guard.h"
#include "proto/value_wire.h"

namespace VORN {
namespace EXT {

namespace {

using PROTO::PacketBuf;

ID id_each;
int utf8_index;

// A value may share its parts and be short in memory and endless in bytes, so interrupts are heeded on the way. How far
// it is, its bytes tell: every member takes at least one. At the slowest, hashes of one entry, these are 0.2 ms.
constexpr uint64_t BYTES_BETWEEN_CHECKS = 16384;
// Of members that are no containers, which look for themselves.
constexpr long MEMBERS_BETWEEN_CHECKS = 256;
constexpr long FIXNUMS_BETWEEN_CHECKS = 16384;
constexpr uint32_t STRING_PIECE = 16 << 20;

struct SerializeContext {
  VALUE owner;  ///< the Ruby object that keeps buf alive
  PacketBuf& buf;
  VALUE plain_hash_class;  ///< a class known to iterate with the built-in `each`; 0: none
  uint64_t check_at;       ///< the position from which on interrupts are due
};

/// Ruby code may have redefined any `each`, and may have moved the position.
inline void after_ruby_code(SerializeContext& ctx) {
  ctx.plain_hash_class = 0;
  ctx.check_at = ctx.buf.pos() + BYTES_BETWEEN_CHECKS;
}

inline SerializeContext context_for(VALUE owner, PacketBuf& buf) {
  return {owner, buf, 0, buf.pos() + BYTES_BETWEEN_CHECKS};
}

[[gnu::noinline, gnu::cold]] void check_interrupts(SerializeContext& ctx) {
  rb_thread_check_ints();
  after_ruby_code(ctx);
}

/// Lets other threads run, and signal handlers; may raise or end the thread. Whatever can change must be read anew.
inline void heed_interrupts(SerializeContext& ctx) {
  if (__builtin_expect(ctx.buf.pos() >= ctx.check_at, false)) check_interrupts(ctx);
}

// `depth` counts the levels around a value, itself included. The functions here may throw what writing throws and
// may raise; nothing in their frames needs destruction. Where Ruby calls back, native_guard() is the border.

// Scalars are written in the loops over their containers, without a call for each (20,000 Integers: 212 us with
// the call, 155 without).
[[gnu::noinline]] void serialize_rbarray(VALUE array, SerializeContext& ctx, int32_t depth);
[[gnu::noinline]] void serialize_rbhash(VALUE hash, SerializeContext& ctx, int32_t depth);

// Peers on 32-bit machines hold no more in an immediate Integer: larger ones wrap around. Those on the heap are
// written in full.
inline int32_t fixnum_value(VALUE fixnum) {
  return static_cast<int32_t>(FIX2LONG(fixnum));
}

/// write_string() in pieces. What is written is the string as it is now, whatever interrupts make of it.
void write_pieces(SerializeContext& ctx, PROTO::TransportType type, VALUE str, uint32_t length) {
  VALUE bytes = rb_str_new_frozen(str);
  ctx.buf.reserve(1 + PROTO::varint_size(length, PROTO::LENGTH_SHAPE) + uint64_t{length});
  PROTO::write_type(ctx.buf, type);
  PROTO::write_varint(ctx.buf, length, false, PROTO::LENGTH_SHAPE);
  for (uint32_t written = 0; written < length;) {
    const uint32_t piece = std::min(STRING_PIECE, length - written);
    ctx.buf.write_bytes(RSTRING_PTR(bytes) + written, piece);
    written += piece;
    heed_interrupts(ctx);
  }
  RB_GC_GUARD(bytes);
}

[[gnu::noinline]] void write_long_string(SerializeContext& ctx, PROTO::TransportType type, VALUE str, uint32_t length) {
  if (length > STRING_PIECE) return write_pieces(ctx, type, str, length);
  PROTO::write_string(ctx.buf, type, RSTRING_PTR(str), length);
  RB_GC_GUARD(str);
  heed_interrupts(ctx);
}

// A length is a 32-bit quantity of the encoding. That of a short string takes one byte, which spares the common case
// more than it costs to set the long ones aside.
inline void write_rbstr_bytes(SerializeContext& ctx, PROTO::TransportType type, VALUE str, long length) {
  const uint32_t size = static_cast<uint32_t>(length);
  if (__builtin_expect(size > PROTO::LENGTH_SHAPE.first_data_mask(), false)) {
    return write_long_string(ctx, type, str, size);
  }
  PROTO::write_string(ctx.buf, type, RSTRING_PTR(str), size);
  RB_GC_GUARD(str);
}

inline void serialize_rbstr(VALUE str, SerializeContext& ctx) {
  // UTF-8 has one of the indexes that are kept in the object's flags.
  const bool utf8 = ENCODING_GET_INLINED(str) == utf8_index;
  write_rbstr_bytes(ctx, utf8 ? PROTO::PTT_UTF8STR : PROTO::PTT_BINSTR, str, RSTRING_LEN(str));
}

// The name ends at its first zero byte. rb_sym2str, unlike the way over an ID, leaves a dynamic symbol to the
// collector.
void serialize_rbsym(VALUE sym, SerializeContext& ctx) {
  const VALUE name = rb_sym2str(sym);
  const char* const bytes = RSTRING_PTR(name);
  const long length = RSTRING_LEN(name);
  const void* const zero = std::memchr(bytes, 0, static_cast<size_t>(length));
  write_rbstr_bytes(ctx, PROTO::PTT_SYMBOL, name,
                    zero == nullptr ? length : static_cast<const char*>(zero) - bytes);
}

[[gnu::always_inline]] inline void serialize_rbobj_to_packetbuf(VALUE obj, SerializeContext& ctx, int32_t depth) {
  if (depth > PROTO::DEFAULT_MAX_DEPTH) rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: maxdepth exceeded");
  switch (rb_type(obj)) {
    case T_NIL: PROTO::write_type(ctx.buf, PROTO::PTT_NIL); break;
    case T_FALSE: PROTO::write_type(ctx.buf, PROTO::PTT_FALSE); break;
    case T_TRUE: PROTO::write_type(ctx.buf, PROTO::PTT_TRUE); break;
    case T_FIXNUM: PROTO::write_int(ctx.buf, fixnum_value(obj)); break;
    case T_BIGNUM: PROTO::write_int(ctx.buf, rb_num2ll(obj)); break;
    case T_FLOAT: PROTO::write_double(ctx.buf, RFLOAT_VALUE(obj)); break;
    case T_STRING: serialize_rbstr(obj, ctx); break;
    case T_SYMBOL: serialize_rbsym(obj, ctx); break;
    case T_ARRAY:
      serialize_rbarray(obj, ctx, depth);
      heed_interrupts(ctx);
      break;
    case T_HASH:
      serialize_rbhash(obj, ctx, depth);
      heed_interrupts(ctx);
      break;
    default: rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: unsupported rb_type");
  }
}

/// Writes the Integers from element `i` on, as far as `end` at most, and returns how many they are.
[[gnu::noinline]] long serialize_fixnums(VALUE array, SerializeContext& ctx, long i, long end) {
  const VALUE* const members = array_members(array);
  const VALUE* const first = members + i;
  const VALUE* const behind = std::find_if_not(first, members + end, [](VALUE v) { return FIXNUM_P(v); });
  const long count = behind - first;
  PROTO::write_ints(ctx.buf, static_cast<size_t>(count), [=](size_t n) { return fixnum_value(first[n]); });
  RB_GC_GUARD(array);
  return count;
}

inline bool begins_with_fixnums(VALUE array, int32_t depth, long length) {
  return length > 1 && FIXNUM_P(RARRAY_AREF(array, 0)) && depth < PROTO::DEFAULT_MAX_DEPTH;
}

/// Writes the Integers that a long array begins with, `length` at most, and returns how many they are.
long serialize_leading_fixnums(VALUE array, SerializeContext& ctx, long length) {
  for (long i = 0;;) {
    const long end = std::min({length, RARRAY_LEN(array), i + FIXNUMS_BETWEEN_CHECKS});
    if (i >= end) return i;
    i += serialize_fixnums(array, ctx, i, end);
    if (i < end) return i;
    heed_interrupts(ctx);
  }
}

// An element's serialization, or an interrupt, may shorten the array; what is missing then is nil.
[[gnu::always_inline]] inline void serialize_elements(VALUE array, SerializeContext& ctx, int32_t depth, long i,
                                                      long end) {
  for (; i < end; ++i) {
    const VALUE element = i < RARRAY_LEN(array) ? RARRAY_AREF(array, i) : Qnil;
    serialize_rbobj_to_packetbuf(element, ctx, depth + 1);
  }
}

[[gnu::noinline]] void serialize_long_rbarray(VALUE array, SerializeContext& ctx, int32_t depth, long length) {
  long i = begins_with_fixnums(array, depth, length) ? serialize_leading_fixnums(array, ctx, length) : 0;
  for (; i < length; i += MEMBERS_BETWEEN_CHECKS) {
    serialize_elements(array, ctx, depth, i, std::min(length, i + MEMBERS_BETWEEN_CHECKS));
    heed_interrupts(ctx);
  }
}

void serialize_rbarray(VALUE array, SerializeContext& ctx, int32_t depth) {
  PROTO::write_type(ctx.buf, PROTO::PTT_ARRAY_START);
  const long length = RARRAY_LEN(array);
  if (__builtin_expect(length > MEMBERS_BETWEEN_CHECKS, false)) {
    serialize_long_rbarray(array, ctx, depth, length);
  } else {
    const long i = begins_with_fixnums(array, depth, length) ? serialize_fixnums(array, ctx, 0, length) : 0;
    serialize_elements(array, ctx, depth, i, length);
  }
  PROTO::write_type(ctx.buf, PROTO::PTT_ARRAY_END);
}

/// A hash in the middle of its iteration.
struct HashIteration {
  SerializeContext* ctx;
  int32_t depth;
};

[[gnu::noinline]] int serialize_hash_entry(VALUE key, VALUE value, VALUE arg) {
  const HashIteration& iteration = *reinterpret_cast<HashIteration*>(arg);
  native_guard([&] {
    serialize_rbobj_to_packetbuf(key, *iteration.ctx, iteration.depth + 1);
    serialize_rbobj_to_packetbuf(value, *iteration.ctx, iteration.depth + 1);
  });
  return ST_CONTINUE;
}

int serialize_entry_of_large_hash(VALUE key, VALUE value, VALUE arg) {
  serialize_hash_entry(key, value, arg);
  heed_interrupts(*reinterpret_cast<HashIteration*>(arg)->ctx);
  return ST_CONTINUE;
}

/// One call of an overridden `each`. The block given to it can be kept and called when everything here is long
/// gone, even the machine stack: that of a fiber which nobody resumes. So a Ruby object holds what the block needs.
struct OverriddenEach {
  const VALUE owner;
  PacketBuf& buf;
  const int32_t depth;
  bool ended;
};

void mark_overridden_each(void* data) {
  rb_gc_mark(static_cast<const OverriddenEach*>(data)->owner);
}

const rb_data_type_t* overridden_each_type() {
  static const rb_data_type_t type = [] {
    rb_data_type_t t = rb_data_type_t();
    t.wrap_struct_name = "VORN hash iteration";
    t.function.dmark = mark_overridden_each;
    t.function.dfree = RUBY_TYPED_DEFAULT_FREE;
    return t;
  }();
  return &type;
}

OverriddenEach& overridden_each(VALUE handle) {
  return *static_cast<OverriddenEach*>(rb_check_typeddata(handle, overridden_each_type()));
}

const OverriddenEach& each_in_progress(VALUE handle) {
  const OverriddenEach& each = overridden_each(handle);
  if (each.ended) rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: hash iteration has ended");
  return each;
}

void serialize_one_of_entry(VALUE obj, VALUE handle) {
  const OverriddenEach& each = each_in_progress(handle);
  SerializeContext ctx = context_for(each.owner, each.buf);
  native_guard([&] { serialize_rbobj_to_packetbuf(obj, ctx, each.depth + 1); });
  RB_GC_GUARD(handle);
}

// An entry is one Array, of which what is missing is nil and what is too much does not count, or a key and a value.
VALUE serialize_yielded_entry(RB_BLOCK_CALL_FUNC_ARGLIST(yielded, handle)) {
  each_in_progress(handle);
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
  serialize_one_of_entry(key, handle);
  serialize_one_of_entry(value, handle);  // by now the key's own iteration may have let this one end
  rb_thread_check_ints();                 // an `each` in C, such as an alias of each_pair, never does
  return Qnil;
}

struct EachCall {
  VALUE hash;
  VALUE handle;
};

VALUE call_each(VALUE arg) {
  const EachCall& call = *reinterpret_cast<EachCall*>(arg);
  return rb_block_call(call.hash, id_each, 0, nullptr, VORN_CALLBACK(serialize_yielded_entry), call.handle);
}

VALUE end_overridden_each(VALUE handle) {
  overridden_each(handle).ended = true;
  return Qnil;
}

#ifdef VORN_RUBY_ALIASES_PASS_FOR_BUILTIN

/// The number of a class's method cache, which changes with every change of its methods. What stands before it is
/// the same in all of 2.2, whose last release there has been.
uint64_t method_cache_number(VALUE klass) {
  struct ClassExtension {
    const void* tables[3];
    const void* subclasses[3];
    unsigned LONG_LONG number;
  };
  return reinterpret_cast<const ClassExtension*>(RCLASS(klass)->ptr)->number;
}

ID id_original_name;
bool cache_numbers_can_be_read = false;

/// Asked for a plain Hash whose `each` passes for the built-in one. An answer takes 1 us, so it is kept until a method
/// of Hash changes.
bool each_is_no_alias(VALUE hash) {
  static uint64_t builtin_at = 0;
  const uint64_t number = method_cache_number(rb_cHash);
  if (number == builtin_at && cache_numbers_can_be_read) return true;
  const VALUE each = rb_obj_method(hash, ID2SYM(id_each));
  if (rb_funcall(each, id_original_name, 0) != ID2SYM(id_each)) return false;
  builtin_at = number;
  return true;
}

void init_alias_check() {
  id_original_name = rb_intern("original_name");
  const uint64_t before = method_cache_number(rb_cHash);
  rb_clear_method_cache_by_class(rb_cHash);
  cache_numbers_can_be_read = method_cache_number(rb_cHash) > before;
}

#endif

// The look-up takes as long as two entries, so it is made once for a run of hashes of one class.
bool iterates_with_builtin_each(VALUE hash, SerializeContext& ctx) {
  const VALUE klass = CLASS_OF(hash);
  if (klass == ctx.plain_hash_class) return true;
  if (!rb_method_basic_definition_p(klass, id_each)) return false;
#ifdef VORN_RUBY_ALIASES_PASS_FOR_BUILTIN
  if (klass != rb_cHash || !each_is_no_alias(hash)) return false;
#endif
  ctx.plain_hash_class = klass;
  return true;
}

void serialize_overridden_each(VALUE hash, const SerializeContext& ctx, int32_t depth) {
  static_assert(std::is_trivially_destructible<OverriddenEach>::value, "the collector frees its memory, no more");
  OverriddenEach* memory;
  // Class 0: nobody finds it in ObjectSpace, and without a class nobody can copy it.
  const VALUE handle = TypedData_Make_Struct(0, OverriddenEach, overridden_each_type(), memory);
  new (memory) OverriddenEach{ctx.owner, ctx.buf, depth, false};
  EachCall call{hash, handle};
  rb_ensure(VORN_CALLBACK(call_each), reinterpret_cast<VALUE>(&call), VORN_CALLBACK(end_overridden_each), handle);
}

void serialize_rbhash(VALUE hash, SerializeContext& ctx, int32_t depth) {
  PROTO::write_type(ctx.buf, PROTO::PTT_HASH_START);
  if (iterates_with_builtin_each(hash, ctx)) {
    HashIteration iteration{&ctx, depth};
    const bool large = RHASH_SIZE(hash) > static_cast<size_t>(MEMBERS_BETWEEN_CHECKS);
    each_hash_entry(hash, large ? serialize_entry_of_large_hash : serialize_hash_entry,
                    reinterpret_cast<VALUE>(&iteration));
  } else {
    serialize_overridden_each(hash, ctx, depth);
    after_ruby_code(ctx);
  }
  PROTO::write_type(ctx.buf, PROTO::PTT_HASH_END);
}

}  // namespace

void serialize_object(VALUE obj, VALUE owner, PROTO::PacketBuf& buf) {
  SerializeContext ctx = context_for(owner, buf);
  native_guard([&] { serialize_rbobj_to_packetbuf(obj, ctx, 1); });
}

void init_object_serializer() {
  id_each = rb_intern("each");
  utf8_index = rb_utf8_encindex();
#ifdef VORN_RUBY_ALIASES_PASS_FOR_BUILTIN
  init_alias_check();
#endif
}

}  // namespace EXT
}  // namespace VORN
