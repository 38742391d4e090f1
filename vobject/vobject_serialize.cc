#include <algorithm>

#include "proto/value_wire.h"
#include "proto/vorn_runtime_error.h"
#include "vobject/symbol_table.h"
#include "vobject/vobject_internal.h"

namespace VORN {

using namespace PROTO;

namespace {

struct SerializeContext {
  PacketBuf& buf;
  const int32_t maxdepth;
};

void serialize_hash(const VObjectHash& hash, const SerializeContext& ctx, int32_t depth);
void serialize_vector(const VObjectVector& elements, const SerializeContext& ctx, int32_t depth);

void serialize_symbol(uint32_t id, const SerializeContext& ctx) {
  const VObjectString* const name = SymbolTable::instance().name_or_null(id);
  if (name == nullptr) {
    throw VornRuntimeError("VObject::serialize: internal error: SYMBOL symbal points to NULL symbol data");
  }
  write_symbol(ctx.buf, name->data(), static_cast<uint32_t>(name->size()));
}

/// `depth` counts the levels around the value, itself included. Inlined into the loops over containers, so that scalars
/// and strings cost no call (20,000 integers: 165 us with the call, 140 without).
[[gnu::always_inline]] inline void serialize_value(const VObject& v, const SerializeContext& ctx, int32_t depth) {
  PacketBuf& buf = ctx.buf;
  if (depth > ctx.maxdepth) throw VornRuntimeError("VObject::serialize: maxdepth exceeded");
  const VObjectPayload& payload = VObjectInternal::payload(v);
  switch (payload.tag()) {
    case DT_NIL: write_type(buf, PTT_NIL); break;
    case DT_INT: write_int(buf, payload.integer()); break;
    case DT_DOUBLE: write_double(buf, payload.real()); break;
    case DT_BOOL: write_type(buf, payload.boolean() ? PTT_TRUE : PTT_FALSE); break;
    case DT_SYMBOL: serialize_symbol(payload.symbol(), ctx); break;
    case DT_STR: write_utf8str(buf, payload.str().data(), static_cast<uint32_t>(payload.str().size())); break;
    case DT_HASH: serialize_hash(payload.hash(), ctx, depth); break;
    case DT_VECTOR: serialize_vector(payload.vec(), ctx, depth); break;
    case DT_UDT: throw VornRuntimeError("VObject::serialize: serialization of DT_UDT not yet supported");
    case DT_REF: throw VornRuntimeError("VObject::serialize: serialization of DT_REF not yet supported");
    default: throw VornRuntimeError("VObject::serialize: unrecognized data type");
  }
}

void serialize_hash(const VObjectHash& hash, const SerializeContext& ctx, int32_t depth) {
  write_type(ctx.buf, PTT_HASH_START);
  for (const auto& [key, value] : hash) {
    write_binstr(ctx.buf, key.data(), static_cast<uint32_t>(key.length()));
    serialize_value(value, ctx, depth + 1);
  }
  write_type(ctx.buf, PTT_HASH_END);
}

void serialize_vector(const VObjectVector& elements, const SerializeContext& ctx, int32_t depth) {
  write_type(ctx.buf, PTT_ARRAY_START);
  const VObject* const first = elements.data();
  const VObject* const end = first + elements.size();
  const VObject* rest = first;
  if (depth < ctx.maxdepth) {
    rest = std::find_if_not(first, end, [](const VObject& element) { return element.type() == DT_INT; });
    write_ints(ctx.buf, static_cast<size_t>(rest - first),
               [=](size_t i) { return VObjectInternal::payload(first[i]).integer(); });
  }
  for (; rest != end; ++rest) serialize_value(*rest, ctx, depth + 1);
  write_type(ctx.buf, PTT_ARRAY_END);
}

}  // namespace

void VObject::serialize(PacketBuf& buf, uint32_t maxdepth) const {
  struct Tail {
    PacketBuf& buf;
    explicit Tail(PacketBuf& b) : buf(b) { buf.open_tail(); }
    ~Tail() { buf.cut_tail(); }
  };
  const Tail tail(buf);
  const SerializeContext ctx{buf, static_cast<int32_t>(maxdepth)};
  serialize_value(*this, ctx, 1);
}

}  // namespace VORN
