#include "proto/vorn_runtime_error.h"
#include "vobject/vobject.h"

namespace VORN {

namespace {

bool replaced_only_by_its_own_kind(uint8_t type) {
  return type == DT_HASH || type == DT_VECTOR || type == DT_UDT;
}

}  // namespace

VObject& VObject::merge(const VObject& src) {
  VObject& t = target();
  merge_into(t, src.target());
  return t;
}

/// REQUIRES: neither is a reference.
void VObject::merge_into(VObject& dst, const VObject& src) {
  if (dst.tag_ != src.tag_) {
    if (dst.tag_ != DT_NIL && src.tag_ != DT_NIL &&
        (replaced_only_by_its_own_kind(dst.tag_) || replaced_only_by_its_own_kind(src.tag_))) {
      throw VornRuntimeError("VObject::merge: Won't merge disparate container and/or user-defined types.");
    }
    dst = src;
    return;
  }
  if (dst.tag_ != DT_HASH && dst.tag_ != DT_VECTOR) {
    dst = src;
    return;
  }

  // Either side may be part of the other, so merging members may move, overwrite or end both values. Their
  // contents are held here, and neither value is looked at again.
  const VObject into(dst);
  const VObject from(src);
  if (into.shared_ == from.shared_) return;
  if (into.tag_ == DT_HASH) {
    VObjectHash& hash = into.as_hash();
    for (const auto& member : from.as_hash()) {
      const auto [element, is_new] = hash.try_emplace(member.first);
      if (is_new) {
        element->second = member.second;
      } else {
        merge_into(element->second.target(), member.second.target());
      }
    }
  } else {
    VObjectVector& elements = into.as_vec();
    const VObjectVector& values = from.as_vec();
    const size_t n = elements.size();
    for (size_t i = 0; i < values.size(); ++i) {
      if (i < n) {
        merge_into(elements[i].target(), values[i].target());
      } else {
        elements.push_back(values[i]);
      }
    }
  }
}

VObject& merge(VObject& dst, const VObject& src) {
  return dst.merge(src);
}

}  // namespace VORN
