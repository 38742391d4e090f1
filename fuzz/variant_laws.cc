/// Laws for any two values without cycles, however much they share: encoding, copies, patches.
#include <string>

#include "fuzz/patch_law.h"
#include "fuzz/variant_program.h"

using namespace vorn_fuzz;

namespace {

std::string failure_of_reading(PROTO::PacketBuf& buf, uint64_t end, VObject& out, uint32_t maxdepth) {
  buf.set_pos(0);
  return failure_of([&] { VObject::deserialize(buf, end, out, false, maxdepth); });
}

/// The value's own depth is the least limit that passes, encoding and decoding; and every byte is needed.
void check_wire(const VObject& v) {
  const uint32_t levels = levels_of(v);
  PROTO::PacketBuf buf;
  VORN_CHECK(failure_of([&] { v.serialize(buf, levels - 1); }) == "VObject::serialize: maxdepth exceeded");
  buf.set_pos(0);
  v.serialize(buf, levels);
  const uint64_t end = buf.pos();
  VObject back("before");
  VORN_CHECK(failure_of_reading(buf, end, back, levels - 1) == "VObject::deserialize: maxdepth exceeded");
  VORN_CHECK(back == VObject("before"));
  VORN_CHECK(failure_of_reading(buf, end, back, levels).empty() && buf.pos() == end);
  VORN_CHECK(encoded(back) == encoded(v) && rendered(back) == rendered(v));
  if (is_guarded(v)) VORN_CHECK(!failure_of_reading(buf, end - 1, back, levels).empty() && buf.pos() == end - 1);
}

/// Equal but for doubles whose distance is no change. REQUIRES: no NaN.
bool is_near(const VObject& x, const VObject& y, double epsilon) {
  const VObject& a = target(x);
  const VObject& b = target(y);
  if (a == b) return true;
  if (a.type() != b.type()) return false;
  if (a.type() == DT_DOUBLE) {
    return !Model::is_change(double_in(a), double_in(b), epsilon);
  }
  if (a.type() == DT_HASH && a.gethash().size() == b.gethash().size()) {
    for (const auto& [key, value] : a.gethash()) {
      const auto other = b.gethash().find(key);
      if (other == b.gethash().end() || !is_near(value, other->second, epsilon)) return false;
    }
    return true;
  }
  if (a.type() == DT_VECTOR && a.getvec().size() == b.getvec().size()) {
    for (size_t i = 0; i < a.getvec().size(); ++i) {
      if (!is_near(a.getvec()[i], b.getvec()[i], epsilon)) return false;
    }
    return true;
  }
  return false;
}

/// A patch leads to the new value, up to epsilon, just where it is said to. REQUIRES: `a` has an encoding of
/// at most 64 levels; neither value has a NaN.
void check_patch(const VObject& a, const VObject& b, double epsilon) {
  VObject patch("old");
  bool structural = true;
  if (!VObject::diff(a, patch, b, structural, DT_NIL, epsilon)) {
    VORN_CHECK(is_near(a, b, epsilon) && patch.type() == DT_NIL && !structural);
    return;
  }
  VORN_CHECK(a != b);
  if (structural) return;
  VObject copy;
  deep_copy(a, copy);
  const bool works = merges(copy, patch) && is_near(copy, b, epsilon);
  VORN_CHECK(epsilon == 0 ? works == can_be_patched(a, b) : works || !can_be_patched(a, b));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  static const double epsilons[] = {0, 0, 0.05, 0.5};
  const double epsilon = epsilons[input.below(4)];
  Program program(input);
  program.run();
  const VObject& a = program.value(0);
  const VObject& b = program.value(1);
  const std::string text = rendered(a) + rendered(b);

  VObject copy("old");
  if (!failure_of([&] { deep_copy(a, copy); }).empty()) {
    VORN_CHECK(copy.type() == DT_NIL);
    return 0;
  }
  check_wire(a);
  VORN_CHECK(encoded(copy) == encoded(a));
  VORN_CHECK(copy == a || has_nan(a));
  if (text.find("<UDT:NULL>") == std::string::npos && !has_nan(a) && !has_nan(b)) check_patch(a, b, epsilon);

  // Merging the same once more changes nothing.
  if (merges(copy, b)) {
    const std::string once = rendered(copy);
    VORN_CHECK(merges(copy, b) && rendered(copy) == once);
  }
  VORN_CHECK(rendered(a) + rendered(b) == text);
  return 0;
}
