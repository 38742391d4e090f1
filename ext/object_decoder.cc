#include "ext/object_decoder.h"

#include <algorithm>

#include "ext/key_cache.h"
#include "ext/machine_stack.h"
#include "ext/member_counts.h"
#include "ext/native_guard.h"
#include "proto/value_wire.h"

namespace VORN {
namespace EXT {

namespace {

using PROTO::PacketBuf;
using PROTO::ValueFault;
using PROTO::WireReader;

int binary_index;
int utf8_index;

/// One call's state. It may be left for ever or entered again, like the frames of the building pass, and owns nothing.
struct DecodeContext {
  PacketBuf& buf;
  const DecodeOptions options;
  WireReader in;
  MemberCounts counts{};
  KeyCache keys{};
  MachineStack stack{};
  HashingRoom hashing{};
  int jump_state = 0;  ///< for rb_jump_tag(), when the passes are behind us

  DecodeContext(PacketBuf& b, DecodeOptions o) : buf(b), options(o), in(b) {}
};

const char* fault_text(ValueFault fault) {
  switch (fault) {
    case ValueFault::max_depth: return "decode_next_packetbuf_rbobj: maxdepth exceeded";
    case ValueFault::underrun: return "decode_next_packetbuf_rbobj: buffer underrun";
    case ValueFault::underrun_int: return "decode_next_packetbuf_rbobj: buffer underrun decoding integer";
    case ValueFault::underrun_length: return "decode_next_packetbuf_rbstr: buffer underrun decoding data length";
    case ValueFault::underrun_string: return "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes";
    case ValueFault::underrun_float: return "decode_packetbuf_rbfloat: buffer underrun";
    case ValueFault::underrun_double: return "decode_packetbuf_rbdouble: buffer underrun";
    case ValueFault::underrun_hash: return "decode_packetbuf_rbhash: buffer underrun";
    case ValueFault::underrun_array: return "decode_packetbuf_rbarray: buffer underrun";
    case ValueFault::unknown_type: return "decode_next_packetbuf_rbobj: unrecognized protocol transport type";
    case ValueFault::none: break;
  }
  return "decode_next_packetbuf_rbobj: no fault (internal error)";
}

[[noreturn]] void raise_fault(ValueFault fault) {
  rb_raise(rb_eRuntimeError, "%s", fault_text(fault));
}

// The building pass checks every bound again: a Hash key's `hash` method may have changed the buffer since the
// checking pass. It allocates nothing native and throws nothing. `depth` counts the levels around a value, itself
// included.

// Members are batched on the machine stack, where the collector finds them, and stored in their container together
// (without it: 20,000 Integers take half as many instructions again).

// Sixteen pairs: more than most messages' hashes have, so that bulk insertion gets all of them.
constexpr int HASH_BATCH = 32;

// With more than 16 at once the interpreter queues the whole Array for another visit of the collector, which during an
// incremental collection comes soon: an Array of 1,800,000 Hashes was visited so often that its decode took 12 to
// 163 ns a byte, by chance, and takes 11 to 19.
constexpr int ARRAY_BATCH = 16;

// Scalars are inlined into the loops over their containers (without it: 20,000 Integers take a fifth more
// instructions).
[[gnu::noinline]] VALUE decode_packetbuf_rbarray(DecodeContext& ctx, int32_t depth);
[[gnu::noinline]] VALUE decode_packetbuf_rbhash(DecodeContext& ctx, int32_t depth);

/// Reads a string's length and steps over its bytes, which are returned.
inline const char* read_string_bytes(DecodeContext& ctx, uint32_t& length) {
  if (!ctx.in.read_length(length)) raise_fault(ValueFault::underrun_length);
  // The bound is the end of the data, not that of the payload.
  if (length > 0 && ctx.in.pos() + (length - 1) >= ctx.in.data_len()) raise_fault(ValueFault::underrun_string);
  const char* const bytes = length > 0 ? ctx.in.bytes() : "";
  ctx.in.skip(length);
  return bytes;
}

inline VALUE decode_next_packetbuf_rbstr(DecodeContext& ctx, int encoding_index) {
  uint32_t length;
  const char* const bytes = read_string_bytes(ctx, length);
  const VALUE str = rb_str_new(bytes, static_cast<long>(length));
  // rb_enc_associate() would check what is known of a new String, and of an index small enough for its flags.
  ENCODING_SET_INLINED(str, encoding_index);
  return taint(str);
}

[[gnu::always_inline]] inline VALUE decode_next_packetbuf_rbobj(DecodeContext& ctx, int32_t depth) {
  if (depth > ctx.options.maxdepth) raise_fault(ValueFault::max_depth);
  if (!ctx.in.readable()) raise_fault(ValueFault::underrun);
  const uint8_t type = ctx.in.peek();
  if (type >= PROTO::PTT_INT) {
    int64_t value;
    if (!ctx.in.read_int(value)) raise_fault(ValueFault::underrun_int);
    return LL2NUM(value);
  }
  ctx.in.skip(1);
  switch (type) {
    case PROTO::PTT_NIL: return Qnil;
    case PROTO::PTT_FALSE: return Qfalse;
    case PROTO::PTT_TRUE: return Qtrue;
    case PROTO::PTT_FLOAT: {
      float value;
      if (!ctx.in.read_float(value)) raise_fault(ValueFault::underrun_float);
      return DBL2NUM(value);
    }
    case PROTO::PTT_DOUBLE: {
      double value;
      if (!ctx.in.read_double(value)) raise_fault(ValueFault::underrun_double);
      return DBL2NUM(value);
    }
    case PROTO::PTT_BINSTR: return decode_next_packetbuf_rbstr(ctx, binary_index);
    case PROTO::PTT_UTF8STR: return decode_next_packetbuf_rbstr(ctx, utf8_index);
    case PROTO::PTT_SYMBOL: {
      const VALUE name = decode_next_packetbuf_rbstr(ctx, utf8_index);
      return ctx.options.preserve_symbols ? rb_str_intern(name) : name;
    }
    case PROTO::PTT_HASH_START: return decode_packetbuf_rbhash(ctx, depth);
    case PROTO::PTT_ARRAY_START: return decode_packetbuf_rbarray(ctx, depth);
    default: raise_fault(ValueFault::unknown_type);
  }
}

VALUE decode_packetbuf_rbarray(DecodeContext& ctx, int32_t depth) {
  VALUE batch[ARRAY_BATCH];
  ctx.stack.enter(depth, batch);
  const size_t hashing_outer = ctx.hashing.begin();
  const uint32_t count = ctx.counts.next();
  int batched = 0;
  VALUE array = count > ARRAY_BATCH ? rb_ary_new_capa(static_cast<long>(count)) : Qnil;
  while (ctx.in.readable()) {
    if (ctx.in.peek() == PROTO::PTT_ARRAY_END) {
      ctx.in.skip(1);
      ctx.hashing.end(hashing_outer, HashingRoom::ARRAY);
      return NIL_P(array) ? rb_ary_new_from_values(batched, batch) : rb_ary_cat(array, batch, batched);
    }
    if (batched == ARRAY_BATCH) {
      if (NIL_P(array)) array = rb_ary_new();
      rb_ary_cat(array, batch, batched);
      batched = 0;
    }
    batch[batched++] = decode_next_packetbuf_rbobj(ctx, depth + 1);
  }
  raise_fault(ValueFault::underrun_array);
}

/// A Hash's key, a String from the cache. `hashing` is raised to the stack that hashing a container takes.
inline VALUE decode_key(DecodeContext& ctx, int32_t depth, size_t& hashing) {
  if (depth <= ctx.options.maxdepth && ctx.in.readable()) {
    const uint8_t type = ctx.in.peek();
    const bool string = type == PROTO::PTT_UTF8STR || type == PROTO::PTT_BINSTR ||
                        (type == PROTO::PTT_SYMBOL && !ctx.options.preserve_symbols);
    if (string) {
      ctx.in.skip(1);
      uint32_t length;
      const char* const bytes = read_string_bytes(ctx, length);
      return ctx.keys.find(bytes, length, type == PROTO::PTT_BINSTR ? binary_index : utf8_index);
    }
  }
  const VALUE key = decode_next_packetbuf_rbobj(ctx, depth);
  if (RB_TYPE_P(key, T_ARRAY) || RB_TYPE_P(key, T_HASH)) hashing = std::max(hashing, ctx.hashing.latest());
  return key;
}

VALUE decode_packetbuf_rbhash(DecodeContext& ctx, int32_t depth) {
  VALUE batch[HASH_BATCH];
  ctx.stack.enter(depth, batch);
  const VALUE hash = rb_hash_new();
  int batched = 0;
  const size_t hashing_outer = ctx.hashing.begin();
  size_t hashing_keys = 0;
  const auto store = [&] {
    if (hashing_keys > 0) ctx.stack.require_room(batch, hashing_keys);
    KeyCache::store(hash, batch, batched);
    batched = 0;
    ctx.buf.cut_tail();
    ctx.in.resync(ctx.buf);  // a key's `hash` or `eql?` may have written to the buffer
  };
  while (ctx.in.readable()) {
    if (ctx.in.peek() == PROTO::PTT_HASH_END) {
      ctx.in.skip(1);
      if (batched > 0) store();
      ctx.hashing.end(hashing_outer, HashingRoom::HASH);
      return hash;
    }
    if (batched == HASH_BATCH) {
      store();
      continue;
    }
    batch[batched] = decode_key(ctx, depth + 1, hashing_keys);
    batch[batched + 1] = decode_next_packetbuf_rbobj(ctx, depth + 1);
    batched += 2;
  }
  raise_fault(ValueFault::underrun_hash);
}

// With nothing native left on return.
ValueFault check(DecodeContext& ctx, bool build_follows) {
  PROTO::ArrayCounts counts;
  const PROTO::CheckLimits rules{ctx.options.maxdepth, UINT64_MAX, ctx.in.data_len()};
  const WireReader start = ctx.in;
  const ValueFault fault = PROTO::check_value(ctx.in, rules, counts);
  if (fault == ValueFault::none && build_follows) {
    ctx.in = start;
    ctx.jump_state = ctx.counts.take(counts);
  }
  return fault;
}

VALUE build(VALUE arg) {
  return decode_next_packetbuf_rbobj(*reinterpret_cast<DecodeContext*>(arg), 1);
}

}  // namespace

VALUE deserialize_packetbuf_single_rbobj(PacketBuf& buf, DecodeOptions options, bool scan_only_result) {
  DecodeContext ctx(buf, options);
  const ValueFault fault = native_guard([&] { return check(ctx, !scan_only_result); });
  VALUE result = Qnil;
  if (fault == ValueFault::none && !scan_only_result && ctx.jump_state == 0) {
    result = rb_protect(build, reinterpret_cast<VALUE>(&ctx), &ctx.jump_state);
  }
  buf.cut_tail();
  ctx.in.commit(buf);
  if (ctx.jump_state != 0) rb_jump_tag(ctx.jump_state);
  if (fault != ValueFault::none) raise_fault(fault);
  return result;
}

void init_object_decoder() {
  binary_index = rb_ascii8bit_encindex();
  utf8_index = rb_utf8_encindex();
}

}  // namespace EXT
}  // namespace VORN
