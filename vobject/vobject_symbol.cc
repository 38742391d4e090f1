/// Symbols: strings into ids, ids into names.
#include "proto/vorn_runtime_error.h"
#include "vobject/symbol_table.h"
#include "vobject/vobject.h"

namespace VORN {

uint32_t VObject::intern_string(const string_ref& name) {
  return SymbolTable::instance().intern(name);
}

uint32_t VObject::intern(const char* name) {
  return intern_string(string_ref(name));
}

uint32_t VObject::intern(const std::string& name) {
  return intern_string(string_ref(name));
}

VObject& VObject::intern() {
  VObject& t = target();
  if (t.type() == DT_STR) {
    t.payload_.set_scalar(DT_SYMBOL, intern_string(string_ref(t.payload_.str())));
  } else if (t.type() != DT_SYMBOL) {
    throw VornRuntimeError("VObject::intern: data type not DT_SYMBOL or DT_STR");
  }
  return t;
}

VObjectString* VObject::sym_lookup(uint32_t id) {
  VObjectString* name = nullptr;
  if (!SymbolTable::instance().find_name(id, name)) {
    throw VornRuntimeError("VObject::sym_lookup: supplied symbol value not found in map");
  }
  return name;
}

}  // namespace VORN
