#include <cassert>

#include "proto/vorn_runtime_error.h"
#include "vobject/vobject_internal.h"

namespace VORN {

namespace {

bool replaced_only_by_its_own_kind(uint8_t type) {
  return type == DT_HASH || type == DT_VECTOR || type == DT_UDT;
}

void merge_targets(VObject& dst, const VObject& src);

void merge_hashes(VObjectHash& into, const VObjectHash& from) {
  if (&into == &from) return;
  for (const auto& member : from) {
    const auto [element, is_new] = into.try_emplace(member.first);
    if (is_new) {
      element->second = member.second;
    } else {
      merge_targets(element->second, member.second);
    }
  }
}

void merge_vectors(VObjectVector& into, const VObjectVector& from) {
  if (&into == &from) return;
  const size_t n = into.size();
  for (size_t i = 0; i < from.size(); ++i) {
    if (i < n) {
      merge_targets(into[i], from[i]);
    } else {
      into.push_back(from[i]);
    }
  }
}

/// REQUIRES: neither is a reference.
void merge_into(VObject& dst, const VObject& src) {
  assert(dst.type() != DT_REF && src.type() != DT_REF);
  if (dst.type() != src.type()) {
    if (dst.type() != DT_NIL && src.type() != DT_NIL &&
        (replaced_only_by_its_own_kind(dst.type()) || replaced_only_by_its_own_kind(src.type()))) {
      throw VornRuntimeError("VObject::merge: Won't merge disparate container and/or user-defined types.");
    }
    dst = src;
    return;
  }
  if (dst.type() != DT_HASH && dst.type() != DT_VECTOR) {
    dst = src;
    return;
  }

  // Either side may be part of the other, so merging members may move, overwrite or destroy both values: from here on
  // only these copies of their payloads are used.
  const VObjectPayload into(VObjectInternal::payload(dst));
  const VObjectPayload from(VObjectInternal::payload(src));
  if (into.tag() == DT_HASH) {
    merge_hashes(into.hash(), from.hash());
  } else {
    merge_vectors(into.vec(), from.vec());
  }
}

void merge_targets(VObject& dst, const VObject& src) {
  merge_into(VObjectInternal::target(dst), VObjectInternal::target(src));
}

}  // namespace

VObject& VObject::merge(const VObject& src) {
  VObject& t = target();
  merge_into(t, src.target());
  return t;
}

VObject& merge(VObject& dst, const VObject& src) {
  return dst.merge(src);
}

}  // namespace VORN
