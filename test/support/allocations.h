/// Counts what the global operator new hands out, and makes it fail on demand. Linking a test program with
/// this file replaces the operator; it stays an ordinary one while neither class below is alive.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vorn_test {

/// Counts this thread's allocations from its construction on.
class AllocationCount {
 public:
  AllocationCount();
  uint64_t count() const;  ///< allocations so far
  uint64_t bytes() const;  ///< bytes they asked for

 private:
  uint64_t count_;
  uint64_t bytes_;
};

/// Blocks that operator new handed out, on any thread, and that were not given back yet.
int64_t live_allocations();

/// While alive, the n-th allocation of this thread (1 is the next one) throws std::bad_alloc, or what is no
/// std::exception; those before and after it succeed. One at a time.
class FailAllocation {
 public:
  explicit FailAllocation(uint64_t nth, bool with_standard_exception = true);
  ~FailAllocation();
  FailAllocation(const FailAllocation&) = delete;
  FailAllocation& operator=(const FailAllocation&) = delete;

  /// Whether the n-th allocation was reached, and so failed.
  bool failed() const;
};

/// While alive, allocations of this thread that ask for more than `bytes` throw std::bad_alloc, so that a test
/// may ask for gigabytes. One at a time.
class LimitAllocations {
 public:
  explicit LimitAllocations(size_t bytes);
  ~LimitAllocations();
  LimitAllocations(const LimitAllocations&) = delete;
  LimitAllocations& operator=(const LimitAllocations&) = delete;
};

}  // namespace vorn_test
