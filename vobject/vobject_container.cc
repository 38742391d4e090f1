/// Keyed and indexed access.
#include <iterator>

#include "proto/vorn_runtime_error.h"
#include "vobject/vobject.h"

namespace VORN {

namespace {

string_ref borrowed(std::string_view key) {
  return {key.data(), key.size()};
}

}  // namespace

bool VObject::has_key(const char* key) const {
  return has_key(std::string_view(key));
}

bool VObject::has_key(std::string_view key) const {
  const VObject& t = target();
  return t.type() == DT_HASH && t.payload_.hash().find(borrowed(key)) != t.payload_.hash().end();
}

VObject& VObject::fetch(const char* key) {
  return fetch(std::string_view(key));
}

VObject& VObject::fetch(std::string_view key) {
  const VObject& t = target();
  if (t.type() != DT_HASH) throw VornRuntimeError("non-const VObject::fetch called on non-hash object");
  return t.payload_.hash().try_emplace(borrowed(key)).first->second;
}

const VObject& VObject::fetch(const char* key) const {
  return fetch(std::string_view(key));
}

const VObject& VObject::fetch(std::string_view key) const {
  static const VObject nil;
  if (type() == DT_REF) return payload_.referent()->fetch(key);
  if (type() != DT_HASH) return nil;
  const VObjectHash& hash = payload_.hash();
  const auto found = hash.find(borrowed(key));
  return found == hash.end() ? nil : found->second;
}

VObject& VObject::store(const char* key, const VObject& value) {
  return store(std::string_view(key), value);
}

VObject& VObject::store(std::string_view key, const VObject& value) {
  VObject& t = target();
  if (t.type() != DT_HASH) throw VornRuntimeError("VObject::store called on non-hash object");
  t.payload_.hash().try_emplace(borrowed(key)).first->second = value;
  return t;
}

VObject& VObject::at(int64_t index) {
  const VObject& t = target();
  if (t.type() != DT_VECTOR) throw VornRuntimeError("non-const VObject::at called on non-vector object");
  VObjectVector& elements = t.payload_.vec();
  const int64_t size = static_cast<int64_t>(elements.size());
  const int64_t position = index < 0 ? index + size : index;
  if (position < 0 || position >= size) throw VornRuntimeError("non-const VObject::at: index out of range");
  return elements[static_cast<size_t>(position)];
}

VObject& VObject::append(const VObject& value) {
  VObject& t = target();
  if (t.type() != DT_VECTOR) throw VornRuntimeError("VObject::append called on non-vector object");
  t.payload_.vec().push_back(value);
  return t;
}

VObject& VObject::append(const VObjectVector& values) {
  VObject& t = target();
  if (t.type() != DT_VECTOR) throw VornRuntimeError("VObject::append called on non-vector object");
  VObjectVector& elements = t.payload_.vec();
  if (&values == &elements) {
    VObjectVector copy(values);
    elements.insert(elements.end(), std::make_move_iterator(copy.begin()), std::make_move_iterator(copy.end()));
  } else {
    elements.insert(elements.end(), values.begin(), values.end());
  }
  return t;
}

}  // namespace VORN
