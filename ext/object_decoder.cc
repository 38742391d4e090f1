#include "ext/object_decoder.h"

#include <algorithm>

#include "ext/hash_entries.h"
#include "ext/machine_stack.h"
#include "ext/native_guard.h"
#include "ext/recent_keys.h"
#include "proto/value_wire.h"

namespace VORN {
namespace EXT {

namespace {

using PROTO::PacketBuf;
using PROTO::ValueFault;
using PROTO::WireReader;

int binary_index;
int utf8_index;

/// The member counts of the arrays, in the order of their starts.
struct CountList {
  const uint32_t* counts;
  size_t size;

  /// That of the next array; 0 when there is none.
  uint32_t next() {
    if (size == 0) return 0;
    --size;
    return *counts++;
  }
};

struct DecodeContext {
  const PacketBuf& buf;
  WireReader& in;
  CountList counts;
  const DecodeOptions options;
  MachineStack stack{};
  HashingRoom hashing{};
#ifdef VORN_RUBY_INTERNS_KEYS
  RecentKeys* recent_keys = nullptr;

  RecentKeys& keys() {
    if (recent_keys == nullptr) recent_keys = &RecentKeys::of_this_ractor();
    return *recent_keys;
  }
#endif
};

const char* fault_text(ValueFault fault) {
  switch (fault) {
    case ValueFault::max_depth: return "decode_next_packetbuf_rbobj: maxdepth exceeded";
    case ValueFault::underrun: return "decode_next_packetbuf_rbobj: buffer underrun";
    case ValueFault::underrun_int: return "decode_next_packetbuf_rbobj: buffer underrun decoding integer";
    case ValueFault::underrun_length:
      return "decode_next_packetbuf_rbstr: buffer underrun decoding data length";
    case ValueFault::underrun_string:
      return "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes";
    case ValueFault::underrun_float: return "decode_packetbuf_rbfloat: buffer underrun";
    case ValueFault::underrun_double: return "decode_packetbuf_rbdouble: buffer underrun";
    case ValueFault::underrun_hash: return "decode_packetbuf_rbhash: buffer underrun";
    case ValueFault::underrun_array: return "decode_packetbuf_rbarray: buffer underrun";
    case ValueFault::unknown_type:
      return "decode_next_packetbuf_rbobj: unrecognized protocol transport type";
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

// Members are gathered on the machine stack, where the collector finds them, and go into their container by the
// dozen.
constexpr int HASH_BATCH = 32;

// For more than 16 at once the interpreter marks the whole Array for another visit of the collector, which during an
// incremental collection comes soon: an Array of 1,800,000 Hashes was visited so often that its decode took 12 to
// 163 ns a byte, by chance, and takes 11 to 19.
constexpr int ARRAY_BATCH = 16;

// Scalars are read in the loops over their containers, without a call for each.
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
  // The object is new and its encoding one of those kept in its flags: no need to go through rb_enc_associate().
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

// Some 3 MB. A larger limit is the caller's word, and the bytes are a stranger's.
constexpr int32_t RECURSION_DEPTH = 10000;

[[noreturn]] void raise_too_deep() {
  rb_raise(rb_eSysStackError, "stack level too deep");
}

/// `here` is a local of the caller's.
inline void check_machine_stack(DecodeContext& ctx, int32_t depth, const void* here) {
  if (depth > RECURSION_DEPTH || !ctx.stack.has_room(here)) raise_too_deep();
}

VALUE decode_packetbuf_rbarray(DecodeContext& ctx, int32_t depth) {
  VALUE batch[ARRAY_BATCH];
  check_machine_stack(ctx, depth, batch);
  const size_t hashing_outer = ctx.hashing.begin();
  const uint32_t count = ctx.counts.next();
  int gathered = 0;
  VALUE array = count > ARRAY_BATCH ? rb_ary_new_capa(static_cast<long>(count)) : Qnil;
  while (ctx.in.readable()) {
    if (ctx.in.peek() == PROTO::PTT_ARRAY_END) {
      ctx.in.skip(1);
      ctx.hashing.end(hashing_outer, HashingRoom::ARRAY);
      return NIL_P(array) ? rb_ary_new_from_values(gathered, batch) : rb_ary_cat(array, batch, gathered);
    }
    if (gathered == ARRAY_BATCH) {
      if (NIL_P(array)) array = rb_ary_new();
      rb_ary_cat(array, batch, gathered);
      gathered = 0;
    }
    batch[gathered++] = decode_next_packetbuf_rbobj(ctx, depth + 1);
  }
  raise_fault(ValueFault::underrun_array);
}

/// A Hash's key: String keys as the Hash would keep them, anything else as it is. `hashing` becomes the room that a
/// container needs, if that is more.
inline VALUE decode_key(DecodeContext& ctx, int32_t depth, size_t& hashing) {
#ifdef VORN_RUBY_INTERNS_KEYS
  if (depth <= ctx.options.maxdepth && ctx.in.readable()) {
    const uint8_t type = ctx.in.peek();
    const bool string = type == PROTO::PTT_UTF8STR || type == PROTO::PTT_BINSTR ||
                        (type == PROTO::PTT_SYMBOL && !ctx.options.preserve_symbols);
    if (string) {
      ctx.in.skip(1);
      uint32_t length;
      const char* const bytes = read_string_bytes(ctx, length);
      return ctx.keys().interned(bytes, length, type == PROTO::PTT_BINSTR ? binary_index : utf8_index);
    }
  }
#endif
  const VALUE key = decode_next_packetbuf_rbobj(ctx, depth);
  if (RB_TYPE_P(key, T_ARRAY) || RB_TYPE_P(key, T_HASH)) hashing = std::max(hashing, ctx.hashing.latest());
  return key;
}

VALUE decode_packetbuf_rbhash(DecodeContext& ctx, int32_t depth) {
  VALUE batch[HASH_BATCH];
  check_machine_stack(ctx, depth, batch);
  const VALUE hash = rb_hash_new();
  int gathered = 0;
  const size_t hashing_outer = ctx.hashing.begin();
  size_t hashing_keys = 0;
  const auto store = [&] {
    if (hashing_keys > 0 && !ctx.stack.has_room(batch, hashing_keys)) raise_too_deep();
    store_hash_entries(hash, batch, gathered);
    gathered = 0;
    ctx.in.resync(ctx.buf);  // a key's `hash` or `eql?` may have written to the buffer
  };
  while (ctx.in.readable()) {
    if (ctx.in.peek() == PROTO::PTT_HASH_END) {
      ctx.in.skip(1);
      if (gathered > 0) store();
      ctx.hashing.end(hashing_outer, HashingRoom::HASH);
      return hash;
    }
    if (gathered == HASH_BATCH) {
      store();
      continue;
    }
    batch[gathered] = decode_key(ctx, depth + 1, hashing_keys);
    batch[gathered + 1] = decode_next_packetbuf_rbobj(ctx, depth + 1);
    gathered += 2;
  }
  raise_fault(ValueFault::underrun_hash);
}

// One call's state. A fiber that is suspended in a key's `hash`, and never resumed, takes these frames with it, and a
// continuation taken there may enter them again after they have returned. So while Ruby code can run they own nothing,
// and what they look at stays as long as somebody can look: the counts are here, or in a String that nobody sees and
// that is left to the collector.
struct Decode {
  PacketBuf& buf;
  const DecodeOptions options;
  WireReader in;
  CountList counts{nullptr, 0};
  VALUE many_counts = Qnil;
  int jump_state = 0;
  uint32_t few_counts[PROTO::ArrayCounts::INLINE_SLOTS];  // left as it is: most messages use little of it

  Decode(PacketBuf& b, DecodeOptions o) : buf(b), options(o), in(b) {}
};

VALUE make_room(VALUE bytes) {
  return rb_str_tmp_new(static_cast<long>(bytes));
}

// With nothing native left on return.
ValueFault check(Decode& decode, bool keep_counts) {
  PROTO::ArrayCounts counts;
  const PROTO::CheckLimits rules{decode.options.maxdepth, UINT64_MAX, decode.in.data_len()};
  const WireReader start = decode.in;
  const ValueFault fault = PROTO::check_value(decode.in, rules, counts);
  if (fault != ValueFault::none || !keep_counts) return fault;
  decode.in = start;
  uint32_t* kept = decode.few_counts;
  if (counts.size() > PROTO::ArrayCounts::INLINE_SLOTS) {
    decode.many_counts = rb_protect(make_room, counts.size() * sizeof(uint32_t), &decode.jump_state);
    if (decode.jump_state != 0) return fault;
    kept = reinterpret_cast<uint32_t*>(RSTRING_PTR(decode.many_counts));
  }
  counts.copy_to(kept);
  decode.counts = {kept, counts.size()};
  return fault;
}

VALUE build(VALUE arg) {
  Decode& decode = *reinterpret_cast<Decode*>(arg);
  DecodeContext ctx{decode.buf, decode.in, decode.counts, decode.options};
  return decode_next_packetbuf_rbobj(ctx, 1);
}

}  // namespace

VALUE deserialize_packetbuf_single_rbobj(PacketBuf& buf, DecodeOptions options, bool scan_only_result) {
  Decode decode(buf, options);
  const ValueFault fault = native_guard([&] { return check(decode, !scan_only_result); });
  VALUE result = Qnil;
  if (fault == ValueFault::none && !scan_only_result && decode.jump_state == 0) {
    result = rb_protect(build, reinterpret_cast<VALUE>(&decode), &decode.jump_state);
  }
  decode.in.commit(buf);
  if (decode.jump_state != 0) rb_jump_tag(decode.jump_state);
  if (fault != ValueFault::none) raise_fault(fault);
  RB_GC_GUARD(decode.many_counts);
  return result;
}

void init_object_decoder() {
  binary_index = rb_ascii8bit_encindex();
  utf8_index = rb_utf8_encindex();
}

}  // namespace EXT
}  // namespace VORN
