#include "ext/machine_stack.h"

namespace VORN {
namespace EXT {

namespace {

// --- by the interpreter's own check -----------------------------------------------------------------------

// ruby_stack_check() itself leaves room for 16 KiB. Steps well within that cannot jump over its reserve.
constexpr size_t STEP = size_t{12} * 1024;

// Frames that are entered without another look: a dozen levels. The 12 KiB below them are enough for what the
// interpreter does at the lowest: a collection took 1.3 KiB there, SystemStackError 2.9, the error about an invalid
// Symbol 5.2 (Ruby 2.7, 3.1 and 3.3). Nested keys take more, by their depth.
constexpr size_t STRIDE = size_t{4} * 1024;

/// Goes down the stack step by step, each within the room that ruby_stack_check() has found above it.
[[gnu::noinline]] bool has_room_below(size_t steps) {
  volatile char step[STEP];
  step[0] = 0;
  const bool room = ruby_stack_check() == 0 && (steps <= 1 || has_room_below(steps - 1));
  asm volatile("" : : "r"(step) : "memory");  // keeps the step, and the call above from becoming a loop
  return room;
}

// --- by the stack's bounds --------------------------------------------------------------------------------

// A thread's are known to the system, a fiber's follow from where the interpreter says that it begins and from the
// size that all have.

// For what the interpreter does at the lowest frame, a collection and an exception included.
constexpr size_t RESERVE = size_t{20} * 1024;

size_t fiber_size;

struct Bounds {
  uintptr_t low = 0;
  uintptr_t high = 0;
};

// A thread's stack stays where it is.
const Bounds& bounds_of_thread() {
  thread_local const Bounds bounds = []() noexcept {
    void* low;
    size_t size;
    if (!get_thread_stack(&low, &size)) return Bounds();
    const uintptr_t address = reinterpret_cast<uintptr_t>(low);
    return Bounds{address, address + size};
  }();
  return bounds;
}

uintptr_t lowest_frame(uintptr_t here) {
  const Bounds& thread = bounds_of_thread();
  const bool in_fiber = here < thread.low || here >= thread.high;
  const uintptr_t low = in_fiber ? here + ruby_stack_length(nullptr) * sizeof(VALUE) - fiber_size : thread.low;
  return low + RESERVE;
}

}  // namespace

void MachineStack::raise_too_deep() {
  rb_raise(rb_eSysStackError, "stack level too deep");
}

bool MachineStack::find_room(uintptr_t here, size_t bytes) {
  if (OVERRUNS_THE_STACK) {
    floor_ = lowest_frame(here);
    return here >= floor_ && here - floor_ >= bytes;
  }
  if (ruby_stack_check() != 0 || (bytes > 0 && !has_room_below(1 + bytes / STEP))) return false;
  floor_ = here - STRIDE;
  return true;
}

void init_machine_stack() {
  if (!OVERRUNS_THE_STACK) return;
  const VALUE vm = rb_const_get(rb_cObject, rb_intern("RubyVM"));
  const VALUE parameters = rb_const_get(vm, rb_intern("DEFAULT_PARAMS"));
  fiber_size = NUM2SIZET(rb_hash_aref(parameters, ID2SYM(rb_intern("fiber_machine_stack_size"))));
}

}  // namespace EXT
}  // namespace VORN
