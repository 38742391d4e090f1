#include "proto/value_wire.h"
#include "proto/vorn_runtime_error.h"
#include "vobject/symbol_table.h"
#include "vobject/vobject.h"

namespace VORN {

using namespace PROTO;

struct VObject::SerializeContext {
  PacketBuf* buf;
  int32_t maxdepth;
  int32_t depth;
};

void VObject::serialize(PacketBuf& buf, uint32_t maxdepth) const {
  SerializeContext ctx{&buf, static_cast<int32_t>(maxdepth), 0};
  serialize(ctx);
}

void VObject::serialize(SerializeContext& ctx) const {
  PacketBuf& buf = *ctx.buf;
  if (++ctx.depth > ctx.maxdepth) throw VornRuntimeError("VObject::serialize: maxdepth exceeded");
  switch (tag_) {
    case DT_NIL: write_type(buf, PTT_NIL); break;
    case DT_INT: write_int(buf, as_int()); break;
    case DT_DOUBLE: write_double(buf, as_double()); break;
    case DT_BOOL: write_type(buf, inline_.word != 0 ? PTT_TRUE : PTT_FALSE); break;
    case DT_SYMBOL: {
      const VObjectString* const name = SymbolTable::instance().name_or_null(as_symbol());
      if (name == nullptr) {
        throw VornRuntimeError(
            "VObject::serialize: internal error: SYMBOL symbal points to NULL symbol data");
      }
      write_symbol(buf, name->data(), static_cast<uint32_t>(name->size()));
      break;
    }
    case DT_STR: write_utf8str(buf, as_str().data(), static_cast<uint32_t>(as_str().size())); break;
    case DT_HASH:
      write_type(buf, PTT_HASH_START);
      for (const auto& [key, value] : as_hash()) {
        write_binstr(buf, key.data(), static_cast<uint32_t>(key.length()));
        value.serialize(ctx);
      }
      write_type(buf, PTT_HASH_END);
      break;
    case DT_VECTOR:
      write_type(buf, PTT_ARRAY_START);
      for (const VObject& element : as_vec()) element.serialize(ctx);
      write_type(buf, PTT_ARRAY_END);
      break;
    case DT_UDT: throw VornRuntimeError("VObject::serialize: serialization of DT_UDT not yet supported");
    case DT_REF: throw VornRuntimeError("VObject::serialize: serialization of DT_REF not yet supported");
    default: throw VornRuntimeError("VObject::serialize: unrecognized data type");
  }
  --ctx.depth;
}

}  // namespace VORN
