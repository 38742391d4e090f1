/// Merging and patches, on trees of all kinds.
#include <string>

#include "fuzz/check.h"
#include "fuzz/values.h"
#include "proto/vorn_runtime_error.h"
#include "vobject/render.h"

using namespace VORN;

namespace {

std::string rendered(const VObject& v) {
  std::string text;
  render(v, text);
  return text;
}

const VObject& target(const VObject& v) {
  return v.type() == DT_REF ? target(*v.getref()) : v;
}

/// Only nil and its own kind take the place of these.
bool is_guarded(const VObject& v) {
  return v.type() == DT_HASH || v.type() == DT_VECTOR || v.type() == DT_UDT;
}

/// A NaN equals none, and so is never patched.
bool has_nan(const VObject& v) {
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

/// Whether a patch that is not structural leads from one to the other. REQUIRES: neither has a NaN.
bool can_be_patched(const VObject& from, const VObject& to) {
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

bool merges(VObject& dst, const VObject& src) {
  try {
    VORN_CHECK(&dst.merge(src) == &target(dst));
    return true;
  } catch (const VornRuntimeError& e) {
    VORN_CHECK(std::string(e.what()) ==
               "VObject::merge: Won't merge disparate container and/or user-defined types.");
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vorn_fuzz::Input input(data, size);
  const double epsilon = input.below(4) != 0 ? 0 : 0.5;
  const bool from_copy = input.below(2) != 0;
  const VObject a = vorn_fuzz::tree(input, 8, false);
  // Trees grow by the same choices from the same bytes, so changed bytes behind these make similar trees.
  VObject b;
  if (from_copy) {
    deep_copy(a, b);
    merges(b, vorn_fuzz::tree(input, 8, true));
  } else {
    b = vorn_fuzz::tree(input, 8, true);
  }
  const std::string a_before = rendered(a);
  const std::string b_before = rendered(b);

  VObject patch("old");
  bool structural = true;
  const bool differ = VObject::diff(a, patch, b, structural, DT_NIL, epsilon);
  VORN_CHECK(rendered(a) == a_before && rendered(b) == b_before);
  const bool exact = epsilon == 0 && !has_nan(a) && !has_nan(b);
  if (!differ) VORN_CHECK(patch.type() == DT_NIL && !structural);
  if (!differ && exact) VORN_CHECK(a == b);

  VObject copy;
  deep_copy(a, copy);
  if (differ && !structural && exact && can_be_patched(a, b)) {
    VORN_CHECK(merges(copy, patch));
    VORN_CHECK(copy == b);
    // Nothing is left to patch.
    VORN_CHECK(!VObject::diff(copy, patch, b, DT_NIL, epsilon));
    deep_copy(a, copy);
  }

  // Merging the same once more changes nothing.
  if (merges(copy, b)) {
    const std::string once = rendered(copy);
    VORN_CHECK(merges(copy, b) && rendered(copy) == once);
  }
  VORN_CHECK(rendered(a) == a_before);
  return 0;
}
