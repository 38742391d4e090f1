/// Sizes counted by powers of two: 0, 1, 2 to 3, 4 to 7, ...
#pragma once

#include <array>
#include <cstdint>

namespace vorn_inspect {

class Histogram {
 public:
  struct Range {
    uint64_t from, to, count;
  };
  static constexpr unsigned RANGES = 65;

  void add(uint64_t size);

  uint64_t count() const { return count_; }
  uint64_t sum() const { return sum_; }
  uint64_t min() const { return count_ == 0 ? 0 : min_; }
  uint64_t max() const { return max_; }

  /// The first and last ranges that are not empty. REQUIRES: count() != 0.
  unsigned first() const;
  unsigned last() const;
  Range range(unsigned index) const;

 private:
  std::array<uint64_t, RANGES> counts_{};
  uint64_t count_ = 0;
  uint64_t sum_ = 0;
  uint64_t min_ = UINT64_MAX;
  uint64_t max_ = 0;
};

}  // namespace vorn_inspect
