#include "ext/machine_stack.h"

#ifdef VORN_RUBY_OVERRUNS_THE_STACK
#include <pthread.h>
#endif

namespace VORN {
namespace EXT {

#ifdef VORN_RUBY_OVERRUNS_THE_STACK

// ruby_stack_check() says that there is room, whatever there is. So the end is found from the stack's bounds: a
// thread's from the system, a fiber's from where the interpreter says that it begins and from the size that all have.

namespace {

// For what the interpreter does at the lowest frame, a collection and an exception included.
constexpr size_t RESERVE = size_t{20} * 1024;

size_t fiber_size;

struct Bounds {
  uintptr_t low = 0;
  uintptr_t high = 0;
};

Bounds bounds_of_thread() noexcept {
  Bounds bounds;
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return bounds;
  void* low;
  size_t size;
  if (pthread_attr_getstack(&attributes, &low, &size) == 0) {
    bounds.low = reinterpret_cast<uintptr_t>(low);
    bounds.high = bounds.low + size;
  }
  pthread_attr_destroy(&attributes);
  return bounds;
}

// A thread's stack stays where it is.
Bounds& own_bounds() {
  thread_local Bounds bounds = bounds_of_thread();
  return bounds;
}

}  // namespace

bool MachineStack::find_room(uintptr_t here, size_t bytes) {
  const Bounds& own = own_bounds();
  uintptr_t low = own.low;
  if (here < own.low || here >= own.high) low = here + ruby_stack_length(nullptr) * sizeof(VALUE) - fiber_size;
  floor_ = low + RESERVE;
  return here >= floor_ && here - floor_ >= bytes;
}

void init_machine_stack() {
  const VALUE vm = rb_const_get(rb_cObject, rb_intern("RubyVM"));
  const VALUE parameters = rb_const_get(vm, rb_intern("DEFAULT_PARAMS"));
  fiber_size = NUM2SIZET(rb_hash_aref(parameters, ID2SYM(rb_intern("fiber_machine_stack_size"))));
}

#else

namespace {

// ruby_stack_check() itself leaves room for 16 KiB.
constexpr size_t STEP = size_t{12} * 1024;

// Frames that are entered without another look. The first look is the shorter one: most values end above its floor.
constexpr size_t STRIDE = size_t{4} * 1024;

/// Goes down the stack step by step, each within the room that ruby_stack_check() has found above it.
[[gnu::noinline]] bool has_room_below(size_t steps) {
  volatile char step[STEP];
  step[0] = 0;
  const bool room = ruby_stack_check() == 0 && (steps <= 1 || has_room_below(steps - 1));
  asm volatile("" : : "r"(step) : "memory");  // keeps the step, and the call above from becoming a loop
  return room;
}

}  // namespace

bool MachineStack::find_room(uintptr_t here, size_t bytes) {
  const bool first = floor_ == UINTPTR_MAX;
  if (ruby_stack_check() != 0 || ((!first || bytes > 0) && !has_room_below(1 + bytes / STEP))) return false;
  floor_ = here - STRIDE;
  return true;
}

void init_machine_stack() {}

#endif

}  // namespace EXT
}  // namespace VORN
