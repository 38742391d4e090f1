/// Member counts of the arrays in one value, kept between the checking pass, which counts, and the building
/// pass, which reserves. Both passes meet the arrays in the same order, so a plain list is enough: four bytes an array,
/// and no allocation for messages of few arrays.
///
/// The counts are hints for reserving. If the bytes change between the passes, arrays are reserved badly and nothing
/// else goes wrong.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace VORN {
namespace PROTO {

/// A list that is filled by the checking pass and read by the building pass.
class ArrayCounts {
 public:
  /// Checking pass: an array starts. Returns its slot for set(). Throws std::bad_alloc.
  size_t add() {
    if (size_ >= INLINE_SLOTS) more_.push_back(0);
    return size_++;
  }

  /// Checking pass: the array of that slot has so many members. REQUIRES: the slot came from add().
  void set(size_t slot, uint32_t count) {
    assert(slot < size_);
    (slot < INLINE_SLOTS ? inline_[slot] : more_[slot - INLINE_SLOTS]) = count;
  }

  /// How many arrays there are.
  size_t size() const { return size_; }

  /// Copies the counts, in the order of the arrays' starts. REQUIRES: there is room for size() of them.
  void copy_to(uint32_t* counts) const {
    std::copy(inline_, inline_ + std::min(size_, INLINE_SLOTS), counts);
    if (size_ > INLINE_SLOTS) std::copy(more_.begin(), more_.end(), counts + INLINE_SLOTS);
  }

  /// Building pass: the count of the next array, in the order of their starts; 0 when there is none.
  uint32_t next() {
    if (next_ >= size_) return 0;
    const size_t slot = next_++;
    return slot < INLINE_SLOTS ? inline_[slot] : more_[slot - INLINE_SLOTS];
  }

  /// Up to this many counts are kept without an allocation.
  static constexpr size_t INLINE_SLOTS = 64;

 private:
  uint32_t inline_[INLINE_SLOTS];
  std::vector<uint32_t> more_;
  size_t size_ = 0;
  size_t next_ = 0;
};

}  // namespace PROTO
}  // namespace VORN
