/// Checks the sequence numbers of a stream, which increase by one from frame to frame and wrap around after 65535.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vorn_inspect {

class SequenceCheck {
 public:
  struct Jump {
    uint64_t offset;  ///< of the later frame
    uint16_t from;
    uint16_t to;
  };
  /// Only the first jumps are kept.
  static constexpr size_t MAX_JUMPS = 20;

  void add(uint16_t seq, uint64_t offset);

  uint64_t gaps() const { return gaps_; }        ///< jumps forward
  uint64_t missing() const { return missing_; }  ///< numbers that these jumps leave out
  uint64_t repeats() const { return repeats_; }  ///< frames with the number of the frame before
  uint64_t returns() const { return returns_; }  ///< jumps back, by at most half of the numbers
  const std::vector<Jump>& jumps() const { return jumps_; }

 private:
  bool any_ = false;
  uint16_t last_ = 0;
  uint64_t gaps_ = 0;
  uint64_t missing_ = 0;
  uint64_t repeats_ = 0;
  uint64_t returns_ = 0;
  std::vector<Jump> jumps_;
};

}  // namespace vorn_inspect
