/// Merging and patches, on trees of all kinds.
#include <string>

#include "fuzz/check.h"
#include "fuzz/patch_law.h"
#include "fuzz/values.h"

using namespace vorn_fuzz;

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
