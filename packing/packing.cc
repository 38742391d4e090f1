#include "packing/packing.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

#include "vobject/render.h"

namespace VORN {
namespace PACKING {

namespace {

constexpr char TILDE = '~';
/// What a message shows of a peer's tag.
constexpr size_t SHOWN = 40;

bool fits_32_bits(int64_t number) {
  return number >= std::numeric_limits<int32_t>::min() && number <= std::numeric_limits<int32_t>::max();
}

bool is_reserved(std::string_view key) {
  return !key.empty() && key.front() == TILDE;
}

void check_levels(uint32_t levels) {
  if (levels == 0) throw TooDeep("more than " + std::to_string(MAX_DEPTH) + " levels");
}

/// Keys come in their order: adding or taking away a tilde does not change it.
void add_last(VObjectHash& hash, std::string_view key, VObject&& value) {
  hash.emplace_hint(hash.end(), string_ref(key.data(), key.size()), std::move(value));
}

}  // namespace

Packing::Packing(std::initializer_list<ReadyMade> ready_made) {
  for (const ReadyMade name : ready_made) add_ready_made(name);
}

Packing::~Packing() = default;
Packing::Packing(const Packing&) = default;
Packing::Packing(Packing&&) noexcept = default;
Packing& Packing::operator=(const Packing&) = default;
Packing& Packing::operator=(Packing&&) noexcept = default;

Packing& Packing::add(std::string_view tag, const std::type_info& type, Packer pack, Unpacker unpack) {
  const bool printable = std::all_of(tag.begin(), tag.end(), [](char c) { return c > ' ' && c < TILDE; });
  if (tag.empty() || !printable) throw std::invalid_argument("a tag is printable ASCII without blanks and tildes");
  const std::string name(tag);
  if (by_tag_.count(name) != 0) throw std::invalid_argument("the tag " + name + " is taken");
  if (by_type_.count(type) != 0) throw std::invalid_argument(std::string("the class ") + type.name() + " has a type");
  if (!pack || !unpack) throw std::invalid_argument("a type without a function");
  const auto added = std::make_shared<const Type>(Type{TILDE + name, std::move(pack), std::move(unpack)});
  const auto place = by_tag_.emplace(name, added).first;
  try {
    by_type_.emplace(type, added);
  } catch (...) {
    by_tag_.erase(place);
    throw;
  }
  return *this;
}

void Packing::check_members(const VObject& body, size_t count) {
  if (body.type() != DT_VECTOR || body.getvec().size() != count) {
    throw std::invalid_argument("a struct of other members");
  }
}

// --- packing ----------------------------------------------------------------------------------------------------

VObject Packing::pack(const VObject& value) const {
  return pack_value(value, MAX_DEPTH);
}

VObject Packing::pack_value(const VObject& value, uint32_t levels) const {
  check_levels(levels);
  switch (value.type()) {
    case DT_INT: {
      if (fits_32_bits(value.to_i64())) return value;
      const auto found = by_type_.find(typeid(Integer));
      return found == by_type_.end() ? value : tagged(*found->second, std::to_string(value.to_i64()), levels);
    }
    case DT_HASH: return pack_hash(value.gethash(), levels - 1);
    case DT_VECTOR: {
      VObject packed = VObject::new_vector(value.getvec().size());
      for (const VObject& member : value.getvec()) packed.getvec().push_back(pack_value(member, levels - 1));
      return packed;
    }
    case DT_UDT: {
      const Type& type = type_of(value);
      return tagged(type, type.pack(static_cast<const AnyObject&>(*value.udt())), levels);
    }
    case DT_REF: throw UnknownType("no type is registered for references");
    default: return value;
  }
}

const Packing::Type& Packing::type_of(const VObject& value) const {
  const VObjectUDT* const udt = value.udt();
  if (udt == nullptr) throw UnknownType("no type is registered for a user-defined value without an object");
  const auto* const object = dynamic_cast<const AnyObject*>(udt);
  const std::type_info& type = object != nullptr ? object->type() : typeid(*udt);
  const auto found = object != nullptr ? by_type_.find(type) : by_type_.end();
  if (found == by_type_.end()) throw UnknownType(std::string("no type is registered for the class ") + type.name());
  return *found->second;
}

VObject Packing::tagged(const Type& type, const VObject& body, uint32_t levels) const {
  VObject packed = VObject::new_hash();
  add_last(packed.gethash(), type.key, pack_value(body, levels - 1));
  return packed;
}

/// Each key by itself, whatever stands beside it: two keys may become one on the way, a symbol and a string, say.
VObject Packing::pack_hash(const VObjectHash& hash, uint32_t levels) const {
  VObject packed = VObject::new_hash();
  for (const auto& [key, member] : hash) {
    std::string escaped;
    if (is_reserved(key.view())) escaped.append(1, TILDE).append(key.view());
    add_last(packed.gethash(), escaped.empty() ? key.view() : escaped, pack_value(member, levels));
  }
  return packed;
}

// --- unpacking --------------------------------------------------------------------------------------------------

VObject Packing::unpack(const VObject& value) const {
  return unpack_value(value, MAX_DEPTH);
}

VObject Packing::unpack_value(const VObject& value, uint32_t levels) const {
  check_levels(levels);
  switch (value.type()) {
    case DT_HASH: return unpack_hash(value.gethash(), levels - 1);
    case DT_VECTOR: {
      VObject unpacked = VObject::new_vector(value.getvec().size());
      for (const VObject& member : value.getvec()) unpacked.getvec().push_back(unpack_value(member, levels - 1));
      return unpacked;
    }
    default: return value;
  }
}

VObject Packing::unpack_hash(const VObjectHash& hash, uint32_t levels) const {
  VObject unpacked = VObject::new_hash();
  for (const auto& [key, member] : hash) {
    std::string_view name = key.view();
    if (is_reserved(name)) {
      name.remove_prefix(1);
      if (!is_reserved(name)) return build(name, hash.size(), member, levels);
    }
    add_last(unpacked.gethash(), name, unpack_value(member, levels));
  }
  return unpacked;
}

/// The tag is looked up in what this side has registered, and in nothing else.
VObject Packing::build(std::string_view tag, size_t keys, const VObject& body, uint32_t levels) const {
  const auto found = by_tag_.find(tag);
  if (found == by_tag_.end()) {
    std::string text = "no type is registered for the tag ";
    escape_str(std::string(tag.substr(0, SHOWN)), text, '"');
    throw UnknownType(text);
  }
  const auto& [name, type] = *found;
  if (keys != 1) throw Malformed("the tag " + name + " stands beside other keys");
  const VObject unpacked = unpack_value(body, levels);
  try {
    return type->unpack(unpacked);
  } catch (const Error&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    std::throw_with_nested(Malformed("cannot unpack the type " + name));
  }
}

}  // namespace PACKING
}  // namespace VORN
