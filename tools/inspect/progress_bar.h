#pragma once

#include <chrono>
#include <cstdint>

namespace vorn_inspect {

/// A progress line on standard error, erased at the end.
class ProgressBar {
 public:
  /// `size`: of the whole input, not 0.
  explicit ProgressBar(uint64_t size) : size_(size) {}
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// Redraws the line, a few times a second at most.
  void update(uint64_t done);

 private:
  uint64_t size_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

}  // namespace vorn_inspect
