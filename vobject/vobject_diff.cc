#include <algorithm>
#include <cassert>
#include <cmath>

#include "vobject/vobject_internal.h"

namespace VORN {

namespace {

/// Forces a double out of registers that are wider, as an x87's are: the same answer on every machine.
double rounded(double value) {
  const volatile double stored = value;
  return stored;
}

/// Whether the distance is greater than epsilon by more than rounding; never with NaN. The distance alone carries
/// the rounding of both numbers: 1.05 - 1.0 is greater than 0.05, and 1.0 + 0.05 is 1.05. The sum alone says
/// nothing where it is infinite, and may round to less than the greater where the distance is epsilon.
bool farther_apart(double a, double b, double epsilon) {
  const double distance = rounded(std::fabs(a - b));
  if (!(distance > epsilon)) return false;
  return std::isinf(distance) || std::max(a, b) > rounded(std::min(a, b) + epsilon);
}

bool diff_targets(const VObject& a, VObject& out, const VObject& b, bool& structural, int parent_tag, double epsilon);

/// REQUIRES: neither a nor b is a reference.
bool diff_into(const VObject& a, VObject& out, const VObject& b, bool& structural, int parent_tag, double epsilon) {
  assert(a.type() != DT_REF && b.type() != DT_REF);
  if (a.type() != b.type()) {
    out = b;
    return true;
  }
  if (a == b) return false;
  const VObjectPayload& old = VObjectInternal::payload(a);
  const VObjectPayload& wanted = VObjectInternal::payload(b);
  switch (a.type()) {
    case DT_DOUBLE:
      if (!farther_apart(old.real(), wanted.real(), epsilon)) return false;
      out = b;
      return true;

    case DT_HASH: {
      const VObjectHash& from = old.hash();
      const VObjectHash& to = wanted.hash();
      out.reset_hash();
      VObjectHash& patch = out.gethash();
      for (const auto& [key, value] : to) {
        const auto found = from.find(key);
        if (found == from.end()) {
          patch.try_emplace(patch.end(), key)->second = value;
          continue;
        }
        VObject change;
        if (diff_targets(found->second, change, value, structural, DT_HASH, epsilon)) {
          patch.try_emplace(patch.end(), key)->second = std::move(change);
        }
      }
      if (parent_tag == DT_VECTOR && !patch.empty()) structural = true;
      for (const auto& member : from) {
        if (to.find(member.first) == to.end()) structural = true;
      }
      return true;
    }

    case DT_VECTOR: {
      const VObjectVector& from = old.vec();
      const VObjectVector& to = wanted.vec();
      out.reset_vector(to.size());
      VObjectVector& patch = out.getvec();
      for (size_t i = 0; i < to.size(); ++i) {
        if (i >= from.size()) {
          patch.push_back(to[i]);
          continue;
        }
        patch.emplace_back();
        if (diff_targets(from[i], patch.back(), to[i], structural, DT_VECTOR, epsilon)) continue;
        // An element that merges into its counterpart without a change.
        switch (VObjectInternal::target(to[i]).type()) {
          case DT_HASH: patch.back().reset_hash(); break;
          case DT_VECTOR: patch.back().reset_vector(0); break;
          default: patch.back() = to[i]; break;
        }
      }
      return true;
    }

    default: out = b; return true;
  }
}

bool diff_targets(const VObject& a, VObject& out, const VObject& b, bool& structural, int parent_tag, double epsilon) {
  return diff_into(VObjectInternal::target(a), out, VObjectInternal::target(b), structural, parent_tag, epsilon);
}

}  // namespace

bool VObject::diff(const VObject& a, VObject& out, const VObject& b, bool& structural, int parent_tag, double epsilon) {
  // Holds what `out` held until the end, since a and b may be part of it.
  const VObject old(std::move(out.target()));
  structural = false;
  // Not built in `out`, which may be part of a or b: a patch that grows inside what is compared might not end.
  VObject patch;
  if (!diff_targets(a, patch, b, structural, parent_tag, epsilon)) return false;
  out = std::move(patch);
  return true;
}

bool VObject::diff(const VObject& a, VObject& out, const VObject& b, int parent_tag, double epsilon) {
  bool structural;
  return diff(a, out, b, structural, parent_tag, epsilon);
}

}  // namespace VORN
