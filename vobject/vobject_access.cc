/// Typed access and the two conversions of scalars.
#include <cstdlib>

#include "proto/vorn_runtime_error.h"
#include "vobject/symbol_table.h"
#include "vobject/vobject.h"
#include "vobject/vobject_internal.h"

namespace VORN {

VObjectString& VObject::getstr() {
  const VObject& t = target();
  if (t.type() != DT_STR) throw VornRuntimeError("VObject::getstr: data type not DT_STR");
  return t.payload_.str();
}

const VObjectString& VObject::getstr() const {
  return const_cast<VObject*>(this)->getstr();
}

VObjectHash& VObject::gethash() {
  const VObject& t = target();
  if (t.type() != DT_HASH) throw VornRuntimeError("VObject::gethash: data type not DT_HASH");
  return t.payload_.hash();
}

const VObjectHash& VObject::gethash() const {
  return const_cast<VObject*>(this)->gethash();
}

VObjectVector& VObject::getvec() {
  const VObject& t = target();
  if (t.type() != DT_VECTOR) throw VornRuntimeError("VObject::getvec: data type not DT_VECTOR");
  return t.payload_.vec();
}

const VObjectVector& VObject::getvec() const {
  return const_cast<VObject*>(this)->getvec();
}

VObjectUDT* VObject::udt() const noexcept {
  const VObject& t = target();
  return t.type() == DT_UDT ? t.payload_.udt() : nullptr;
}

uint32_t VObject::intern() const {
  const VObject& t = target();
  if (t.type() != DT_SYMBOL) throw VornRuntimeError("VObject::intern: data type not DT_SYMBOL");
  return t.payload_.symbol();
}

const VObjectString& VObject::str_or_symbol_name() const {
  static const VObjectString none;
  switch (type()) {
    case DT_REF: return payload_.referent()->getstr();
    case DT_STR: return payload_.str();
    case DT_SYMBOL: {
      const VObjectString* const name = SymbolTable::instance().name_slot(payload_.symbol());
      return name == nullptr ? none : *name;
    }
    default: return none;
  }
}

int64_t VObject::to_i64() const noexcept {
  constexpr double TWO_TO_63 = 9223372036854775808.0;
  const VObject& t = target();
  switch (t.type()) {
    case DT_NIL:
    case DT_SYMBOL:
    case DT_HASH:
    case DT_VECTOR:
    case DT_UDT: return 0;
    case DT_BOOL: return t.payload_.boolean() ? 1 : 0;
    case DT_DOUBLE: {
      const double value = t.payload_.real();
      return value >= -TWO_TO_63 && value < TWO_TO_63 ? static_cast<int64_t>(value) : INT64_MIN;
    }
    // What atoi does with text that is no number, or too large a one, is what is wanted.
    case DT_STR: return std::atoi(t.payload_.str().c_str());  // NOLINT(cert-err34-c)
    default: return static_cast<int64_t>(t.payload_.word());
  }
}

bool VObject::to_bool() const noexcept {
  const VObject& t = target();
  switch (t.type()) {
    case DT_NIL: return false;
    case DT_DOUBLE: return t.payload_.real() != 0.0;
    case DT_SYMBOL:
    case DT_HASH:
    case DT_VECTOR: return true;
    case DT_STR: return t.to_i64() != 0;
    case DT_UDT: return t.payload_.udt() != nullptr;
    default: return t.payload_.word() != 0;
  }
}

double to_double(const VObject& v) {
  const VObjectPayload& payload = VObjectInternal::payload(VObjectInternal::target(v));
  if (payload.tag() == DT_INT) return static_cast<double>(payload.integer());
  if (payload.tag() != DT_DOUBLE) throw VornRuntimeError("to_double: neither an integer nor a double");
  return payload.real();
}

}  // namespace VORN
