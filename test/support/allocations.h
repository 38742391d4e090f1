/// Counts allocations of the global operator new, and makes them fail on demand. Linking a test program with this file
/// replaces the operator, which behaves normally while none of these classes is alive.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vorn_test {

/// Counts this thread's allocations since its construction.
class AllocationCount {
 public:
  AllocationCount();
  uint64_t count() const;  ///< allocations so far
  uint64_t bytes() const;  ///< bytes they asked for

 private:
  uint64_t count_;
  uint64_t bytes_;
};

/// Blocks from operator new, on any thread, that have not been freed yet.
int64_t live_allocations();

/// While alive, the n-th allocation of this thread (1 is the next one) throws std::bad_alloc, or something that is not
/// a std::exception; those before and after it succeed. One at a time.
class FailAllocation {
 public:
  explicit FailAllocation(uint64_t nth, bool with_standard_exception = true);
  ~FailAllocation();
  FailAllocation(const FailAllocation&) = delete;
  FailAllocation& operator=(const FailAllocation&) = delete;

  /// Whether the n-th allocation was reached, and therefore failed.
  bool failed() const;
};

/// While alive, allocations of this thread of more than `bytes` throw std::bad_alloc, so that a test can request
/// gigabytes. One at a time.
class LimitAllocations {
 public:
  explicit LimitAllocations(size_t bytes);
  ~LimitAllocations();
  LimitAllocations(const LimitAllocations&) = delete;
  LimitAllocations& operator=(const LimitAllocations&) = delete;
};

}  // namespace vorn_test
