/// Member counts of the arrays in one value, kept between the checking pass, which counts, and the building
/// pass, which reserves. Both passes meet the arrays in the same order, so a plain list serves: four bytes an
/// array, and no memory of its own for messages of few arrays.
///
/// The counts are hints for reserving. Should the bytes have changed between the passes, the hints are wrong
/// and nothing else is.
#pragma once

#include <algorithm>
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

  /// Checking pass: the array of that slot has so many members.
  void set(size_t slot, uint32_t count) {
    (slot < INLINE_SLOTS ? inline_[slot] : more_[slot - INLINE_SLOTS]) = count;
  }

  /// Between the passes: the memory that these counts have of their own, in bytes; 0 for few arrays.
  size_t own_bytes() const { return more_.size() * sizeof(uint32_t); }

  /// Between the passes: puts that memory into somebody else's care, for a building pass that may be abandoned without
  /// a destructor. REQUIRES: `owned_elsewhere` has room for own_bytes() and outlives the last next().
  void move_to(uint32_t* owned_elsewhere) {
    std::copy(more_.begin(), more_.end(), owned_elsewhere);
    std::vector<uint32_t>().swap(more_);
    moved_ = owned_elsewhere;
  }

  /// Building pass: the count of the next array, in the order of their starts; 0 when there is none.
  uint32_t next() {
    if (next_ >= size_) return 0;
    const size_t slot = next_++;
    if (slot < INLINE_SLOTS) return inline_[slot];
    return (moved_ != nullptr ? moved_ : more_.data())[slot - INLINE_SLOTS];
  }

 private:
  static constexpr size_t INLINE_SLOTS = 32;

  uint32_t inline_[INLINE_SLOTS];
  std::vector<uint32_t> more_;
  const uint32_t* moved_ = nullptr;
  size_t size_ = 0;
  size_t next_ = 0;
};

}  // namespace PROTO
}  // namespace VORN
