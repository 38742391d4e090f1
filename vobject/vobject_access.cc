/// Typed access and the two conversions of scalars.
#include <cstdlib>

#include "proto/vorn_runtime_error.h"
#include "vobject/symbol_table.h"
#include "vobject/vobject.h"

namespace VORN {

VObjectString& VObject::getstr() {
  const VObject& t = target();
  if (t.tag_ != DT_STR) throw VornRuntimeError("VObject::getstr: data type not DT_STR");
  return t.as_str();
}

const VObjectString& VObject::getstr() const {
  return const_cast<VObject*>(this)->getstr();
}

VObjectHash& VObject::gethash() {
  const VObject& t = target();
  if (t.tag_ != DT_HASH) throw VornRuntimeError("VObject::gethash: data type not DT_HASH");
  return t.as_hash();
}

const VObjectHash& VObject::gethash() const {
  return const_cast<VObject*>(this)->gethash();
}

VObjectVector& VObject::getvec() {
  const VObject& t = target();
  if (t.tag_ != DT_VECTOR) throw VornRuntimeError("VObject::getvec: data type not DT_VECTOR");
  return t.as_vec();
}

const VObjectVector& VObject::getvec() const {
  return const_cast<VObject*>(this)->getvec();
}

VObjectUDT* VObject::udt() const noexcept {
  const VObject& t = target();
  return t.tag_ == DT_UDT ? t.as_udt() : nullptr;
}

uint32_t VObject::intern() const {
  const VObject& t = target();
  if (t.tag_ != DT_SYMBOL) throw VornRuntimeError("VObject::intern: data type not DT_SYMBOL");
  return t.as_symbol();
}

const VObjectString& VObject::str_or_symbol_name() const {
  static const VObjectString none;
  switch (tag_) {
    case DT_REF: return ref_->getstr();
    case DT_STR: return as_str();
    case DT_SYMBOL: {
      const VObjectString* const name = SymbolTable::instance().name_slot(as_symbol());
      return name == nullptr ? none : *name;
    }
    default: return none;
  }
}

int64_t VObject::to_i64() const noexcept {
  constexpr double TWO_TO_63 = 9223372036854775808.0;
  const VObject& t = target();
  switch (t.tag_) {
    case DT_NIL:
    case DT_SYMBOL:
    case DT_HASH:
    case DT_VECTOR:
    case DT_UDT: return 0;
    case DT_BOOL: return t.inline_.word != 0 ? 1 : 0;
    case DT_DOUBLE: {
      const double value = t.as_double();
      return value >= -TWO_TO_63 && value < TWO_TO_63 ? static_cast<int64_t>(value) : INT64_MIN;
    }
    // What atoi does with text that is no number, or too large a one, is what is wanted.
    case DT_STR: return std::atoi(t.as_str().c_str());  // NOLINT(cert-err34-c)
    default: return t.as_int();
  }
}

bool VObject::to_bool() const noexcept {
  const VObject& t = target();
  switch (t.tag_) {
    case DT_NIL: return false;
    case DT_DOUBLE: return t.as_double() != 0.0;
    case DT_SYMBOL:
    case DT_HASH:
    case DT_VECTOR: return true;
    case DT_STR: return t.to_i64() != 0;
    case DT_UDT: return t.as_udt() != nullptr;
    default: return t.inline_.word != 0;
  }
}

}  // namespace VORN
