/// What merging and diff promise of a patch, read off their contracts.
#pragma once

#include <string>

#include "fuzz/check.h"
#include "proto/vorn_runtime_error.h"
#include "vobject/render.h"
#include "vobject/vobject.h"

namespace vorn_fuzz {

using namespace VORN;

inline std::string rendered(const VObject& v) {
  std::string text;
  render(v, text);
  return text;
}

inline const VObject& target(const VObject& v) {
  return v.type() == DT_REF ? target(*v.getref()) : v;
}

/// Only nil and its own kind take the place of these.
inline bool is_guarded(const VObject& v) {
  return v.type() == DT_HASH || v.type() == DT_VECTOR || v.type() == DT_UDT;
}

/// A NaN equals none, and so is never patched.
inline bool has_nan(const VObject& v) {
  const VObject& t = target(v);
  if (t.type() == DT_DOUBLE) return VObject(t) != t;
  if (t.type() == DT_HASH) {
    for (const auto& member : t.gethash()) {
      if (has_nan(member.second)) return true;
    }
  } else if (t.type() == DT_VECTOR) {
    for (const VObject& element : t.getvec()) {
      if (has_nan(element)) return true;
    }
  }
  return false;
}

/// Whether a patch that is not structural leads from one to the other, and nothing else does. REQUIRES:
/// neither has a NaN, and epsilon is 0.
inline bool can_be_patched(const VObject& from, const VObject& to) {
  const VObject& a = target(from);
  const VObject& b = target(to);
  if (a == b) return true;
  if (a.type() != b.type()) {
    return a.type() == DT_NIL || b.type() == DT_NIL || (!is_guarded(a) && !is_guarded(b));
  }
  if (a.type() == DT_HASH) {
    for (const auto& [key, value] : b.gethash()) {
      const auto old = a.gethash().find(key);
      if (old != a.gethash().end() && !can_be_patched(old->second, value)) return false;
    }
  } else if (a.type() == DT_VECTOR) {
    if (b.getvec().size() < a.getvec().size()) return false;
    for (size_t i = 0; i < a.getvec().size(); ++i) {
      if (!can_be_patched(a.getvec()[i], b.getvec()[i])) return false;
    }
  }
  return true;
}

inline bool merges(VObject& dst, const VObject& src) {
  try {
    VORN_CHECK(&dst.merge(src) == &target(dst));
    return true;
  } catch (const VornRuntimeError& e) {
    VORN_CHECK(std::string(e.what()) == "VObject::merge: Won't merge disparate container and/or user-defined types.");
    return false;
  }
}

}  // namespace vorn_fuzz
