#include "ext/object_decoder.h"

#include "ext/native_guard.h"
#include "proto/value_wire.h"

namespace VORN {
namespace EXT {

namespace {

using PROTO::ArrayCounts;
using PROTO::PacketBuf;
using PROTO::ValueFault;
using PROTO::WireReader;

struct DecodeContext {
  const PacketBuf& buf;
  WireReader& in;
  ArrayCounts& counts;
  const DecodeOptions options;
  int32_t depth;
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
// checking pass. It allocates nothing native and throws nothing.

VALUE decode_next_packetbuf_rbobj(DecodeContext& ctx);

VALUE decode_next_packetbuf_rbstr(DecodeContext& ctx, rb_encoding* encoding) {
  uint32_t length;
  if (!ctx.in.read_length(length)) raise_fault(ValueFault::underrun_length);
  // The bound is the end of the data, not that of the payload.
  if (length > 0 && ctx.in.pos() + (length - 1) >= ctx.in.data_len()) raise_fault(ValueFault::underrun_string);
  const VALUE str = taint(rb_enc_str_new(length > 0 ? ctx.in.bytes() : "", static_cast<long>(length), encoding));
  ctx.in.skip(length);
  return str;
}

VALUE decode_packetbuf_rbhash(DecodeContext& ctx) {
  const VALUE hash = rb_hash_new();
  while (ctx.in.readable()) {
    if (ctx.in.peek() == PROTO::PTT_HASH_END) {
      ctx.in.skip(1);
      return hash;
    }
    const VALUE key = decode_next_packetbuf_rbobj(ctx);
    const VALUE value = decode_next_packetbuf_rbobj(ctx);
    rb_hash_aset(hash, key, value);
    ctx.in.resync(ctx.buf);
  }
  raise_fault(ValueFault::underrun_hash);
}

VALUE decode_packetbuf_rbarray(DecodeContext& ctx) {
  const VALUE array = rb_ary_new_capa(static_cast<long>(ctx.counts.next()));
  while (ctx.in.readable()) {
    if (ctx.in.peek() == PROTO::PTT_ARRAY_END) {
      ctx.in.skip(1);
      return array;
    }
    rb_ary_push(array, decode_next_packetbuf_rbobj(ctx));
  }
  raise_fault(ValueFault::underrun_array);
}

// Within the default limit the machine stack is deep enough; a larger one is the caller's word, and the bytes
// are a stranger's.
constexpr int32_t UNCHECKED_DEPTH = 64;

VALUE decode_next_packetbuf_rbobj(DecodeContext& ctx) {
  if (++ctx.depth > ctx.options.maxdepth) raise_fault(ValueFault::max_depth);
  if (ctx.depth > UNCHECKED_DEPTH && ruby_stack_check()) rb_raise(rb_eSysStackError, "stack level too deep");
  if (!ctx.in.readable()) raise_fault(ValueFault::underrun);
  const uint8_t type = ctx.in.peek();
  VALUE result = Qnil;
  if (type >= PROTO::PTT_INT) {
    int64_t value;
    if (!ctx.in.read_int(value)) raise_fault(ValueFault::underrun_int);
    result = LL2NUM(value);
  } else {
    ctx.in.skip(1);
    switch (type) {
      case PROTO::PTT_NIL: break;
      case PROTO::PTT_FALSE: result = Qfalse; break;
      case PROTO::PTT_TRUE: result = Qtrue; break;
      case PROTO::PTT_FLOAT: {
        float value;
        if (!ctx.in.read_float(value)) raise_fault(ValueFault::underrun_float);
        result = DBL2NUM(value);
        break;
      }
      case PROTO::PTT_DOUBLE: {
        double value;
        if (!ctx.in.read_double(value)) raise_fault(ValueFault::underrun_double);
        result = DBL2NUM(value);
        break;
      }
      case PROTO::PTT_BINSTR: result = decode_next_packetbuf_rbstr(ctx, rb_ascii8bit_encoding()); break;
      case PROTO::PTT_UTF8STR: result = decode_next_packetbuf_rbstr(ctx, rb_utf8_encoding()); break;
      case PROTO::PTT_SYMBOL:
        result = decode_next_packetbuf_rbstr(ctx, rb_utf8_encoding());
        if (ctx.options.preserve_symbols) result = rb_str_intern(result);
        break;
      case PROTO::PTT_HASH_START: result = decode_packetbuf_rbhash(ctx); break;
      case PROTO::PTT_ARRAY_START: result = decode_packetbuf_rbarray(ctx); break;
      default: raise_fault(ValueFault::unknown_type);
    }
  }
  --ctx.depth;
  return result;
}

VALUE build(VALUE arg) {
  return decode_next_packetbuf_rbobj(*reinterpret_cast<DecodeContext*>(arg));
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
    DecodeContext ctx{buf, in, counts, options, 0};
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

}  // namespace EXT
}  // namespace VORN
