#include "ext/object_decoder.h"

#include <algorithm>
#include <cassert>
#include <type_traits>

#include "ext/key_cache.h"
#include "ext/machine_stack.h"
#include "ext/member_counts.h"
#include "ext/native_guard.h"
#include "proto/trusting_reader.h"
#include "proto/value_wire.h"

namespace VORN {
namespace EXT {

namespace {

using PROTO::PacketBuf;
using PROTO::TrustingReader;
using PROTO::ValueFault;
using PROTO::WireReader;

int binary_index;
int utf8_index;

/// The state of a building pass. It may be left for ever or entered again, like the frames of that pass, and owns
/// nothing.
///
/// With a TrustingReader nothing is checked again: no code of the program has run since the checking pass, and none can
/// before this pass ends, so the buffer is as it was (docs/development/decisions/0010-no-second-check.md).
template <typename Reader>
struct BuildContext {
  static constexpr bool TRUSTS = std::is_same<Reader, TrustingReader>::value;

  PacketBuf& buf;
  const DecodeOptions options;
  MemberCounts& counts;
  Reader in;
  KeyCache keys{};
  MachineStack stack{};
  HashingRoom hashing{};

  BuildContext(PacketBuf& b, DecodeOptions o, MemberCounts& c, const WireReader& start)
      : buf(b), options(o), counts(c), in(start) {}

  /// Whether a container is empty, whose start is behind us. Then its end is, too.
  bool ends_at_once(uint8_t mark, int32_t depth) {
    return depth <= MachineStack::MAX_DEPTH && in.readable() && at_end(mark);
  }

  /// Whether a container's end mark comes next, which is then behind us. REQUIRES: readable.
  bool at_end(uint8_t mark) {
    if (in.peek() != mark) return false;
    in.skip(1);
    return true;
  }

  /// Whether the interpreter hashes this key, and compares it with another of the same hash value, itself. Of two large
  /// Integers or Floats it may call `eql?`.
  static bool compares_itself(VALUE key) {
    return TRUSTS || FIXNUM_P(key) || RB_TYPE_P(key, T_STRING) || SYMBOL_P(key);
  }

  // As in HashingRoom. Containers are no keys where nothing is checked again.
  size_t begin_hashing() { return TRUSTS ? 0 : hashing.begin(); }
  void end_hashing(size_t outer, size_t own) {
    if (!TRUSTS) hashing.end(outer, own);
  }

  bool too_deep(int32_t depth) const { return !TRUSTS && depth > options.maxdepth; }

  /// Whether a string's bytes, of which there are some, lie in the buffer: below the end of the data, which may be
  /// behind that of the payload.
  bool has_string(uint32_t length) const {
    if constexpr (TRUSTS) {
      assert(in.has(length));
      return true;
    } else {
      return in.pos() + (length - 1) < in.data_len();
    }
  }
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

// The building pass allocates nothing native and throws nothing. `depth` counts the levels around a value, itself
// included. Unless it trusts the checking pass, it checks every bound again: a Hash key's `hash` method may have
// changed the buffer since.

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
template <typename Context>
[[gnu::noinline]] VALUE decode_packetbuf_rbarray(Context& ctx, int32_t depth);
template <typename Context>
[[gnu::noinline]] VALUE decode_packetbuf_rbhash(Context& ctx, int32_t depth);

/// Reads a string's length and steps over its bytes, which are returned.
template <typename Context>
inline const char* read_string_bytes(Context& ctx, uint32_t& length) {
  if (!ctx.in.read_length(length)) raise_fault(ValueFault::underrun_length);
  if (length > 0 && !ctx.has_string(length)) raise_fault(ValueFault::underrun_string);
  const char* const bytes = length > 0 ? ctx.in.bytes() : "";
  ctx.in.skip(length);
  return bytes;
}

template <typename Context>
inline VALUE decode_next_packetbuf_rbstr(Context& ctx, int encoding_index) {
  uint32_t length;
  const char* const bytes = read_string_bytes(ctx, length);
  return new_string(bytes, static_cast<long>(length), encoding_index);
}

template <typename Context>
[[gnu::always_inline]] inline VALUE decode_next_packetbuf_rbobj(Context& ctx, int32_t depth) {
  if (ctx.too_deep(depth)) raise_fault(ValueFault::max_depth);
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
      if (!ctx.options.preserve_symbols) return decode_next_packetbuf_rbstr(ctx, utf8_index);
      uint32_t length;
      const char* const bytes = read_string_bytes(ctx, length);
      return ctx.keys.symbol(bytes, length);
    }
    // Empty ones need no frame (with one: 20,000 empty arrays take a fifth more instructions).
    case PROTO::PTT_HASH_START:
      if (!ctx.ends_at_once(PROTO::PTT_HASH_END, depth)) return decode_packetbuf_rbhash(ctx, depth);
      ctx.end_hashing(ctx.begin_hashing(), HashingRoom::HASH);
      return rb_hash_new();
    case PROTO::PTT_ARRAY_START:
      if (!ctx.ends_at_once(PROTO::PTT_ARRAY_END, depth)) return decode_packetbuf_rbarray(ctx, depth);
      ctx.end_hashing(ctx.begin_hashing(), HashingRoom::ARRAY);
      ctx.counts.next();
      return rb_ary_new();
    default: raise_fault(ValueFault::unknown_type);
  }
}

template <typename Context>
VALUE decode_packetbuf_rbarray(Context& ctx, int32_t depth) {
  VALUE batch[ARRAY_BATCH];
  ctx.stack.enter(depth, batch);
  const size_t hashing_outer = ctx.begin_hashing();
  const uint32_t count = ctx.counts.next();
  int batched = 0;
  VALUE array = count > ARRAY_BATCH ? rb_ary_new_capa(static_cast<long>(count)) : Qnil;
  while (ctx.in.readable()) {
    if (ctx.at_end(PROTO::PTT_ARRAY_END)) {
      ctx.end_hashing(hashing_outer, HashingRoom::ARRAY);
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

/// A Hash's key, a String from the cache, unless many are `before` it. `hashing` is raised to the stack that hashing a
/// container takes.
template <typename Context>
inline VALUE decode_key(Context& ctx, int32_t depth, size_t& hashing, long before) {
  if (!ctx.too_deep(depth) && ctx.in.readable()) {
    const uint8_t type = ctx.in.peek();
    const bool string = type == PROTO::PTT_UTF8STR || type == PROTO::PTT_BINSTR ||
                        (type == PROTO::PTT_SYMBOL && !ctx.options.preserve_symbols);
    if (string) {
      ctx.in.skip(1);
      uint32_t length;
      const char* const bytes = read_string_bytes(ctx, length);
      const int encoding_index = type == PROTO::PTT_BINSTR ? binary_index : utf8_index;
      return before < KeyCache::MOST_KEYS ? ctx.keys.find(bytes, length, encoding_index)
                                          : KeyCache::lone(bytes, length, encoding_index);
    }
  }
  const VALUE key = decode_next_packetbuf_rbobj(ctx, depth);
  if (RB_TYPE_P(key, T_ARRAY) || RB_TYPE_P(key, T_HASH)) hashing = std::max(hashing, ctx.hashing.latest());
  return key;
}

template <typename Context>
VALUE decode_packetbuf_rbhash(Context& ctx, int32_t depth) {
  VALUE batch[HASH_BATCH];
  ctx.stack.enter(depth, batch);
  const VALUE hash = rb_hash_new();
  int batched = 0;
  const size_t hashing_outer = ctx.begin_hashing();
  size_t hashing_keys = 0;
  PairList pairs;
  bool lists = INTERNS_KEYS;  // whether pairs that are too many for the batch are listed, not stored
  const auto store = [&] {
    if (pairs.any()) {
      pairs.add(batch, batched);
      pairs.move_to(hash);
    } else {
      if (hashing_keys > 0) ctx.stack.require_room(batch, hashing_keys);
      KeyCache::store(hash, batch, batched);
    }
    ctx.buf.cut_tail();
    ctx.in.resync(ctx.buf);  // a key's `hash` or `eql?` may have written to the buffer
  };
  while (ctx.in.readable()) {
    if (ctx.at_end(PROTO::PTT_HASH_END)) {
      if (batched > 0) store();
      ctx.end_hashing(hashing_outer, HashingRoom::HASH);
      return hash;
    }
    if (batched == HASH_BATCH) {
      if (lists) {
        pairs.add(batch, batched);
      } else {
        store();
      }
      batched = 0;
      continue;
    }
    const VALUE key = decode_key(ctx, depth + 1, hashing_keys, pairs.size());
    if (lists && !ctx.compares_itself(key)) {
      lists = false;
      if (pairs.any()) {
        store();
        batched = 0;
      }
    }
    batch[batched] = key;
    batch[batched + 1] = decode_next_packetbuf_rbobj(ctx, depth + 1);
    batched += 2;
  }
  raise_fault(ValueFault::underrun_hash);
}

template <typename Reader>
VALUE build_protected(VALUE arg) {
  return decode_next_packetbuf_rbobj(*reinterpret_cast<BuildContext<Reader>*>(arg), 1);
}

/// The building pass. Moves the buffer's position to where reading stops, however that comes about.
template <typename Reader>
VALUE build(PacketBuf& buf, DecodeOptions options, MemberCounts& counts, const WireReader& start) {
  BuildContext<Reader> ctx(buf, options, counts, start);
  int jump_state = 0;
  const VALUE result = rb_protect(build_protected<Reader>, reinterpret_cast<VALUE>(&ctx), &jump_state);
  buf.cut_tail();
  ctx.in.commit(buf);
  if (jump_state != 0) rb_jump_tag(jump_state);
  return result;
}

/// What the checking pass found.
struct Checked {
  ValueFault fault = ValueFault::none;
  bool trusted = false;  ///< nothing can run while this value is built
  int jump_state = 0;    ///< for rb_jump_tag()
};

// With nothing native left on return.
Checked check(WireReader& in, DecodeOptions options, bool build_follows, MemberCounts& kept) {
  Checked checked;
  PROTO::ArrayCounts counts;
  PROTO::KeyTypes keys;
  const PROTO::CheckLimits rules{options.maxdepth, UINT64_MAX, in.data_len()};
  checked.fault = PROTO::check_value(in, rules, counts, keys);
  if (checked.fault == ValueFault::none && build_follows) {
    checked.jump_state = kept.take(counts);
    // The interpreter itself hashes Strings and compares them. It may ask a Symbol's methods.
    checked.trusted =
        HASHES_STRINGS_ITSELF &&
        (keys.only({PROTO::PTT_BINSTR, PROTO::PTT_UTF8STR}) ||
         (!options.preserve_symbols && keys.only({PROTO::PTT_BINSTR, PROTO::PTT_UTF8STR, PROTO::PTT_SYMBOL})));
  }
  return checked;
}

}  // namespace

VALUE deserialize_packetbuf_single_rbobj(PacketBuf& buf, DecodeOptions options, bool scan_only_result) {
  const WireReader start(buf);
  WireReader in = start;
  MemberCounts counts;
  const Checked checked = native_guard([&] { return check(in, options, !scan_only_result, counts); });
  if (checked.jump_state != 0) rb_jump_tag(checked.jump_state);
  if (checked.fault != ValueFault::none || scan_only_result) {
    in.commit(buf);
    if (checked.fault != ValueFault::none) raise_fault(checked.fault);
    return Qnil;
  }
  return checked.trusted ? build<TrustingReader>(buf, options, counts, start)
                         : build<WireReader>(buf, options, counts, start);
}

void init_object_decoder() {
  binary_index = rb_ascii8bit_encindex();
  utf8_index = rb_utf8_encindex();
}

}  // namespace EXT
}  // namespace VORN
