#include "test/support/allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<int64_t> live{0};
thread_local uint64_t allocated = 0;
thread_local uint64_t allocated_bytes = 0;
thread_local uint64_t until_failure = 0;  // 0: no failure is scheduled
thread_local bool standard_exception = true;
thread_local size_t largest = SIZE_MAX;

void* allocate(std::size_t size) {
  if (until_failure != 0 && --until_failure == 0) {
    if (standard_exception) throw std::bad_alloc();
    throw 0;
  }
  if (size > largest) throw std::bad_alloc();
  void* const block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  ++allocated;
  allocated_bytes += size;
  live.fetch_add(1, std::memory_order_relaxed);
  return block;
}

void release(void* block) noexcept {
  if (block != nullptr) live.fetch_sub(1, std::memory_order_relaxed);
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void operator delete(void* block) noexcept {
  release(block);
}
void operator delete[](void* block) noexcept {
  release(block);
}
void operator delete(void* block, std::size_t) noexcept {
  release(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  release(block);
}

namespace vorn_test {

AllocationCount::AllocationCount() : count_(allocated), bytes_(allocated_bytes) {}
uint64_t AllocationCount::count() const {
  return allocated - count_;
}
uint64_t AllocationCount::bytes() const {
  return allocated_bytes - bytes_;
}

int64_t live_allocations() {
  return live.load(std::memory_order_relaxed);
}

FailAllocation::FailAllocation(uint64_t nth, bool with_standard_exception) {
  until_failure = nth;
  standard_exception = with_standard_exception;
}
FailAllocation::~FailAllocation() {
  until_failure = 0;
}
bool FailAllocation::failed() const {
  return until_failure == 0;
}

LimitAllocations::LimitAllocations(size_t bytes) {
  largest = bytes;
}
LimitAllocations::~LimitAllocations() {
  largest = SIZE_MAX;
}

}  // namespace vorn_test
