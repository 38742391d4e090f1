#include "ext/object_decoder.h"

#include "ext/hash_entries.h"
#include "ext/native_guard.h"
#include "ext/recent_keys.h"
#include "proto/value_wire.h"

namespace VORN {
namespace EXT {

namespace {

using PROTO::ArrayCounts;
using PROTO::PacketBuf;
using PROTO::ValueFault;
using PROTO::WireReader;

int binary_index;
int utf8_index;

struct DecodeContext {
  const PacketBuf& buf;
  WireReader& in;
  ArrayCounts& counts;
  const DecodeOptions options;
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

// Within the default limit the machine stack is deep enough; a larger one is the caller's word, and the bytes
// are a stranger's.
constexpr int32_t UNCHECKED_DEPTH = 64;

// Some 3 MB. Of the main thread's 8 MB Ruby 2.2 does not see the end: it leaves out what lies above its main().
constexpr int32_t RECURSION_DEPTH = 10000;

// Ruby's own check leaves room for one call, 4 KiB in 2.2. A collection takes more, and when it is a collection that
// hits the end of the stack, the interpreter is broken.
constexpr unsigned STACK_STEP = 2048;
constexpr unsigned STACK_STEPS = 16;
constexpr int32_t LEVELS_BETWEEN_CHECKS = 16;

/// Goes down the stack step by step, each within the room that the one before has found.
[[gnu::noinline]] bool stack_has_room(unsigned steps) {
  volatile char step[STACK_STEP];
  step[0] = 0;
  const bool room = !ruby_stack_check() && (steps == 0 || stack_has_room(steps - 1));
  asm volatile("" : : "r"(step) : "memory");  // keeps the step, and the call above from becoming a loop
  return room;
}

inline void check_machine_stack(int32_t depth) {
  if (depth <= UNCHECKED_DEPTH) return;
  if (depth > RECURSION_DEPTH || (depth % LEVELS_BETWEEN_CHECKS == 0 && !stack_has_room(STACK_STEPS))) {
    rb_raise(rb_eSysStackError, "stack level too deep");
  }
}

VALUE decode_packetbuf_rbarray(DecodeContext& ctx, int32_t depth) {
  check_machine_stack(depth);
  const uint32_t count = ctx.counts.next();
  VALUE batch[ARRAY_BATCH];
  int gathered = 0;
  VALUE array = count > ARRAY_BATCH ? rb_ary_new_capa(static_cast<long>(count)) : Qnil;
  while (ctx.in.readable()) {
    if (ctx.in.peek() == PROTO::PTT_ARRAY_END) {
      ctx.in.skip(1);
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

/// A Hash's key: String keys as the Hash would keep them, anything else as it is.
inline VALUE decode_key(DecodeContext& ctx, int32_t depth) {
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
  return decode_next_packetbuf_rbobj(ctx, depth);
}

VALUE decode_packetbuf_rbhash(DecodeContext& ctx, int32_t depth) {
  check_machine_stack(depth);
  const VALUE hash = rb_hash_new();
  VALUE batch[HASH_BATCH];
  int gathered = 0;
  const auto store = [&] {
    store_hash_entries(hash, batch, gathered);
    gathered = 0;
    ctx.in.resync(ctx.buf);  // a key's `hash` or `eql?` may have written to the buffer
  };
  while (ctx.in.readable()) {
    if (ctx.in.peek() == PROTO::PTT_HASH_END) {
      ctx.in.skip(1);
      if (gathered > 0) store();
      return hash;
    }
    if (gathered == HASH_BATCH) {
      store();
      continue;
    }
    batch[gathered] = decode_key(ctx, depth + 1);
    batch[gathered + 1] = decode_next_packetbuf_rbobj(ctx, depth + 1);
    gathered += 2;
  }
  raise_fault(ValueFault::underrun_hash);
}

// A fiber that is suspended in a key's `hash`, and never resumed, takes the frames of this pass with it. What they own
// has to be the collector's: here a String that nobody sees.
VALUE build(VALUE arg) {
  DecodeContext& ctx = *reinterpret_cast<DecodeContext*>(arg);
  const size_t bytes = ctx.counts.own_bytes();
  if (bytes == 0) return decode_next_packetbuf_rbobj(ctx, 1);
  const VALUE owner = rb_str_tmp_new(static_cast<long>(bytes));
  ctx.counts.move_to(reinterpret_cast<uint32_t*>(RSTRING_PTR(owner)));
  const VALUE obj = decode_next_packetbuf_rbobj(ctx, 1);
  rb_str_resize(owner, 0);  // not left to the next collection
  return obj;
}

struct Outcome {
  VALUE result;
  ValueFault fault;
  int jump_state;
};

// Both passes, with everything native released on return: only then may Ruby's exception go on.
Outcome decode(PacketBuf& buf, DecodeOptions options, bool scan_only) {
  Outcome outcome{Qnil, ValueFault::none, 0};
  ArrayCounts counts;
  const WireReader start(buf);
  WireReader in = start;
  const PROTO::ScanRules rules{options.maxdepth, UINT64_MAX, in.data_len()};
  outcome.fault = PROTO::scan_value(in, rules, counts);
  if (outcome.fault == ValueFault::none && !scan_only) {
    in = start;
    DecodeContext ctx{buf, in, counts, options};
    outcome.result = rb_protect(build, reinterpret_cast<VALUE>(&ctx), &outcome.jump_state);
  }
  in.commit(buf);
  return outcome;
}

}  // namespace

VALUE deserialize_packetbuf_single_rbobj(PacketBuf& buf, DecodeOptions options, bool scan_only_result) {
  const Outcome outcome = native_guard([&] { return decode(buf, options, scan_only_result); });
  if (outcome.jump_state != 0) rb_jump_tag(outcome.jump_state);
  if (outcome.fault != ValueFault::none) raise_fault(outcome.fault);
  return outcome.result;
}

void init_object_decoder() {
  binary_index = rb_ascii8bit_encindex();
  utf8_index = rb_utf8_encindex();
}

}  // namespace EXT
}  // namespace VORN
