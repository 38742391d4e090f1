#include "ext/object_serializer.h"

#include <cstring>

#include "ext/native_guard.h"
#include "proto/value_wire.h"

namespace VORN {
namespace EXT {

namespace {

using PROTO::PacketBuf;

ID id_each;
int utf8_index;

struct SerializeContext {
  PacketBuf& buf;
  const int32_t maxdepth;
  int32_t depth;
};

void serialize_rbobj_to_packetbuf(VALUE obj, SerializeContext& ctx);

void put_type(SerializeContext& ctx, PROTO::TransportType type) {
  native_guard([&] { PROTO::write_type(ctx.buf, type); });
}

void put_int(SerializeContext& ctx, int64_t value) {
  native_guard([&] { PROTO::write_int(ctx.buf, value); });
}

void put_double(SerializeContext& ctx, double value) {
  native_guard([&] { PROTO::write_double(ctx.buf, value); });
}

// A length is a 32-bit quantity of the encoding.
void put_string(SerializeContext& ctx, PROTO::TransportType type, VALUE str, long length) {
  native_guard(
      [&] { PROTO::write_string(ctx.buf, type, RSTRING_PTR(str), static_cast<uint32_t>(length)); });
  RB_GC_GUARD(str);
}

void serialize_rbstr(VALUE str, SerializeContext& ctx) {
  const bool utf8 = rb_enc_get_index(str) == utf8_index;
  put_string(ctx, utf8 ? PROTO::PTT_UTF8STR : PROTO::PTT_BINSTR, str, RSTRING_LEN(str));
}

// The name ends at its first zero byte. rb_sym2str, unlike the way over an ID, leaves a dynamic symbol to the
// collector.
void serialize_rbsym(VALUE sym, SerializeContext& ctx) {
  const VALUE name = rb_sym2str(sym);
  const char* const bytes = RSTRING_PTR(name);
  const long length = RSTRING_LEN(name);
  const void* const zero = std::memchr(bytes, 0, static_cast<size_t>(length));
  put_string(ctx, PROTO::PTT_SYMBOL, name,
             zero == nullptr ? length : static_cast<const char*>(zero) - bytes);
}

// An element's serialization may shorten the array; what is missing then is nil.
void serialize_rbarray(VALUE array, SerializeContext& ctx) {
  put_type(ctx, PROTO::PTT_ARRAY_START);
  const long length = RARRAY_LEN(array);
  for (long i = 0; i < length; ++i) serialize_rbobj_to_packetbuf(rb_ary_entry(array, i), ctx);
  put_type(ctx, PROTO::PTT_ARRAY_END);
}

int serialize_hash_entry(VALUE key, VALUE value, VALUE arg) {
  SerializeContext& ctx = *reinterpret_cast<SerializeContext*>(arg);
  serialize_rbobj_to_packetbuf(key, ctx);
  serialize_rbobj_to_packetbuf(value, ctx);
  return ST_CONTINUE;
}

/// One call of an overridden `each`. The block given to it can be kept and called when everything here is long
/// gone, so it holds this through a Ruby object, and the context is taken away at the end.
struct HashIteration {
  VALUE hash;
  VALUE handle;
  SerializeContext* ctx;
  int32_t depth;
};

const rb_data_type_t* hash_iteration_type() {
  static const rb_data_type_t type = [] {
    rb_data_type_t t = rb_data_type_t();
    t.wrap_struct_name = "VORN hash iteration";
    return t;
  }();
  return &type;
}

VALUE serialize_yielded_entry(RB_BLOCK_CALL_FUNC_ARGLIST(yielded, handle)) {
  HashIteration* const iteration = static_cast<HashIteration*>(rb_check_typeddata(handle, hash_iteration_type()));
  if (iteration == nullptr) {
    rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: hash iteration has ended");
  }
  VALUE key, value;
  if (argc == 2) {  // yield key, value
    key = argv[0];
    value = argv[1];
  } else if (RB_TYPE_P(yielded, T_ARRAY) && RARRAY_LEN(yielded) == 2) {
    key = rb_ary_entry(yielded, 0);
    value = rb_ary_entry(yielded, 1);
  } else {
    rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: hash entry is not a [key, value] pair");
  }
  // `each` may have rescued the failure of an earlier entry, which then has not given its levels back.
  iteration->ctx->depth = iteration->depth;
  serialize_rbobj_to_packetbuf(key, *iteration->ctx);
  // The key's own iteration may have let `each` end.
  if (DATA_PTR(handle) == nullptr) rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: hash iteration has ended");
  serialize_rbobj_to_packetbuf(value, *iteration->ctx);
  return Qnil;
}

VALUE call_each(VALUE arg) {
  const HashIteration& iteration = *reinterpret_cast<HashIteration*>(arg);
  return rb_block_call(iteration.hash, id_each, 0, nullptr, VORN_CALLBACK(serialize_yielded_entry),
                       iteration.handle);
}

VALUE end_iteration(VALUE handle) {
  DATA_PTR(handle) = nullptr;
  return Qnil;
}

void serialize_overridden_each(VALUE hash, SerializeContext& ctx) {
  HashIteration iteration{hash, Qnil, &ctx, ctx.depth};
  iteration.handle = TypedData_Wrap_Struct(rb_cObject, hash_iteration_type(), &iteration);
  rb_ensure(VORN_CALLBACK(call_each), reinterpret_cast<VALUE>(&iteration), VORN_CALLBACK(end_iteration),
            iteration.handle);
  ctx.depth = iteration.depth;
}

void serialize_rbhash(VALUE hash, SerializeContext& ctx) {
  put_type(ctx, PROTO::PTT_HASH_START);
  if (rb_method_basic_definition_p(CLASS_OF(hash), id_each)) {
    each_hash_entry(hash, serialize_hash_entry, reinterpret_cast<VALUE>(&ctx));
  } else {
    serialize_overridden_each(hash, ctx);
  }
  put_type(ctx, PROTO::PTT_HASH_END);
}

void serialize_rbobj_to_packetbuf(VALUE obj, SerializeContext& ctx) {
  if (++ctx.depth > ctx.maxdepth) {
    rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: maxdepth exceeded");
  }
  switch (rb_type(obj)) {
    case T_NIL: put_type(ctx, PROTO::PTT_NIL); break;
    case T_FALSE: put_type(ctx, PROTO::PTT_FALSE); break;
    case T_TRUE: put_type(ctx, PROTO::PTT_TRUE); break;
    // Peers on 32-bit machines hold no more in an immediate Integer: larger ones wrap around. Those on the heap
    // are written in full.
    case T_FIXNUM: put_int(ctx, static_cast<int32_t>(FIX2LONG(obj))); break;
    case T_BIGNUM: put_int(ctx, rb_num2ll(obj)); break;
    case T_FLOAT: put_double(ctx, RFLOAT_VALUE(obj)); break;
    case T_STRING: serialize_rbstr(obj, ctx); break;
    case T_SYMBOL: serialize_rbsym(obj, ctx); break;
    case T_ARRAY: serialize_rbarray(obj, ctx); break;
    case T_HASH: serialize_rbhash(obj, ctx); break;
    default: rb_raise(rb_eRuntimeError, "serialize_rbobj_to_packetbuf: unsupported rb_type");
  }
  --ctx.depth;
}

}  // namespace

void serialize_object(VALUE obj, PROTO::PacketBuf& buf, int32_t maxdepth) {
  SerializeContext ctx{buf, maxdepth, 0};
  serialize_rbobj_to_packetbuf(obj, ctx);
}

void init_object_serializer() {
  id_each = rb_intern("each");
  utf8_index = rb_utf8_encindex();
}

}  // namespace EXT
}  // namespace VORN
