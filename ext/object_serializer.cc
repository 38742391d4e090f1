#include "ext/object_serializer.h"

#include <algorithm>
#include <cstring>

#include "ext/native_guard.h"
#include "ext/overridden_each.h"
#include "proto/value_wire.h"

namespace VORN {
namespace EXT {

namespace {

using PROTO::PacketBuf;

int utf8_index;

// A value that holds its parts more than once may be small in memory and endless on the wire, so writing checks for
// interrupts. The position serves as the clock, since every member takes at least one byte: hashes of one entry, the
// slowest, take 0.2 ms for so many.
constexpr uint64_t BYTES_BETWEEN_CHECKS = 16384;
// Scalars do not look at the clock. So many take a few microseconds; the loop over a shorter array needs no counter.
constexpr long MEMBERS_BETWEEN_CHECKS = 256;
// They are written in one go, at a byte each or more: the clock's own period.
constexpr long FIXNUMS_BETWEEN_CHECKS = 16384;
// Copied in some milliseconds, and larger than any string for which a second reference would be felt.
constexpr uint32_t STRING_PIECE = 16 << 20;

struct SerializeContext {
  VALUE owner;  ///< the Ruby object that keeps buf alive
  PacketBuf& buf;
  uint64_t check_at;  ///< the position from which on interrupts are due
  BuiltinEach builtin_each{};
};

/// Ruby code may have redefined any `each`, and may have looked at the buffer and moved its position.
inline void after_ruby_code(SerializeContext& ctx) {
  ctx.builtin_each.forget();
  ctx.buf.open_tail();
  ctx.check_at = ctx.buf.pos() + BYTES_BETWEEN_CHECKS;
}

inline SerializeContext context_for(VALUE owner, PacketBuf& buf) {
  buf.open_tail();
  return {owner, buf, buf.pos() + BYTES_BETWEEN_CHECKS};
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

// Scalars are inlined into the loops over their containers (without it: 20,000 Integers, 155 to 212 us).
[[gnu::noinline]] void serialize_rbarray(VALUE array, SerializeContext& ctx, int32_t depth);
[[gnu::noinline]] void serialize_rbhash(VALUE hash, SerializeContext& ctx, int32_t depth);

// Peers on 32-bit machines have no larger immediate Integers: what exceeds 32 bits wraps around. Integers on the heap
// are written in full.
inline int32_t fixnum_value(VALUE fixnum) {
  return static_cast<int32_t>(FIX2LONG(fixnum));
}

/// write_string() in pieces, from a frozen copy: an interrupt may change the string.
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

// A length has 32 bits on the wire. The hot path is inlined for lengths of one byte only.
inline void write_rbstr_bytes(SerializeContext& ctx, PROTO::TransportType type, VALUE str, long length) {
  const uint32_t size = static_cast<uint32_t>(length);
  if (__builtin_expect(size > PROTO::LENGTH_SHAPE.first_data_mask(), false)) {
    return write_long_string(ctx, type, str, size);
  }
  PROTO::write_string(ctx.buf, type, RSTRING_PTR(str), size);
  RB_GC_GUARD(str);
}

inline void serialize_rbstr(VALUE str, SerializeContext& ctx) {
  // UTF-8's index is small enough for the object's flags.
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
  write_rbstr_bytes(ctx, PROTO::PTT_SYMBOL, name, zero == nullptr ? length : static_cast<const char*>(zero) - bytes);
}

inline void check_depth(int32_t depth) {
  if (depth > PROTO::DEFAULT_MAX_DEPTH) rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: maxdepth exceeded");
}

/// REQUIRES: check_depth() has passed.
[[gnu::always_inline]] inline void serialize_at_depth(VALUE obj, SerializeContext& ctx, int32_t depth) {
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

[[gnu::always_inline]] inline void serialize_rbobj_to_packetbuf(VALUE obj, SerializeContext& ctx, int32_t depth) {
  check_depth(depth);
  serialize_at_depth(obj, ctx, depth);
}

/// Writes the Integers from element `i` on, up to `end`, and returns their number.
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

/// Writes the Integers that a long array begins with, up to `length`, and returns their number.
long serialize_leading_fixnums(VALUE array, SerializeContext& ctx, long length) {
  for (long i = 0;;) {
    const long end = std::min({length, RARRAY_LEN(array), i + FIXNUMS_BETWEEN_CHECKS});
    if (i >= end) return i;
    i += serialize_fixnums(array, ctx, i, end);
    if (i < end) return i;
    heed_interrupts(ctx);
  }
}

// Ruby code that an element or an interrupt runs may shorten the array: missing elements are written as nil.
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
    const int32_t depth = iteration.depth + 1;
    check_depth(depth);
    if (FIXNUM_P(key)) {
      PROTO::write_int(iteration.ctx->buf, fixnum_value(key));
    } else {
      serialize_at_depth(key, *iteration.ctx, depth);
    }
    serialize_at_depth(value, *iteration.ctx, depth);
  });
  return ST_CONTINUE;
}

int serialize_entry_of_large_hash(VALUE key, VALUE value, VALUE arg) {
  serialize_hash_entry(key, value, arg);
  heed_interrupts(*reinterpret_cast<HashIteration*>(arg)->ctx);
  return ST_CONTINUE;
}

void serialize_member(VALUE member, const HashPlace& place) {
  SerializeContext ctx = context_for(place.owner, place.buf);
  native_guard([&] { serialize_rbobj_to_packetbuf(member, ctx, place.depth + 1); });
}

void serialize_rbhash(VALUE hash, SerializeContext& ctx, int32_t depth) {
  PROTO::write_type(ctx.buf, PROTO::PTT_HASH_START);
  if (ctx.builtin_each.iterates(hash)) {
    HashIteration iteration{&ctx, depth};
    const bool large = RHASH_SIZE(hash) > static_cast<size_t>(MEMBERS_BETWEEN_CHECKS);
    each_hash_entry(hash, large ? serialize_entry_of_large_hash : serialize_hash_entry,
                    reinterpret_cast<VALUE>(&iteration));
  } else {
    call_overridden_each(hash, {ctx.owner, ctx.buf, depth}, serialize_member);
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
  utf8_index = rb_utf8_encindex();
}

}  // namespace EXT
}  // namespace VORN
