/// The member counts of the arrays in one value, on their way from the checking pass to the building pass.
///
/// A fiber that is suspended in a key's `hash`, and never resumed, takes the frames of the building pass with it, and
/// a continuation taken there may enter them again after they have returned. So the counts are in the frame itself or
/// in a Ruby object: nothing that would have to be released, and nothing that could be released too soon.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ext/ruby_compat.h"
#include "proto/array_counts.h"

namespace VORN {
namespace EXT {

/// REQUIRES: lives on the machine stack, where the collector finds the object that it may have made.
class MemberCounts {
 public:
  MemberCounts() = default;
  MemberCounts(const MemberCounts&) = delete;
  MemberCounts& operator=(const MemberCounts&) = delete;

  /// Takes over what the checking pass has counted. Never jumps: returns the state for rb_jump_tag(), 0 for success.
  int take(const PROTO::ArrayCounts& counts) noexcept;

  /// The count of the next array, in the order of their starts; 0 when there is none.
  uint32_t next() {
    if (left_ == 0) return 0;
    --left_;
    return *next_++;
  }

 private:
  const uint32_t* next_ = nullptr;
  size_t left_ = 0;
  VALUE many_ = Qnil;                               // a hidden String of counts that `few_` has no room for
  uint32_t few_[PROTO::ArrayCounts::INLINE_SLOTS];  // left as it is: most messages use little of it
};

}  // namespace EXT
}  // namespace VORN
