// The operator new of allocations.h for a Ruby process: preloaded, so that the extension uses it, and required, so that
// a test can control it. It uses no data of the interpreter, which is not loaded yet at preload time.
#include <ruby.h>

#include <optional>

#include "test/support/allocations.h"

namespace {

std::optional<vorn_test::FailAllocation> pending;

// FailingAllocator.arm(n): the n-th native allocation from here on fails.
VALUE arm(VALUE, VALUE nth) {
  pending.emplace(NUM2ULONG(nth));
  return Qnil;
}

// FailingAllocator.arm_unknown(n): likewise, with an exception that is not a std::exception.
VALUE arm_unknown(VALUE, VALUE nth) {
  pending.emplace(NUM2ULONG(nth), false);
  return Qnil;
}

// FailingAllocator.disarm -> whether it failed
VALUE disarm(VALUE) {
  const bool failed = pending->failed();
  pending.reset();
  return failed ? Qtrue : Qfalse;
}

// FailingAllocator.live -> number of live blocks
VALUE live(VALUE) {
  return LL2NUM(vorn_test::live_allocations());
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void Init_failing_allocator() {
  const VALUE module = rb_define_module("FailingAllocator");
  rb_define_module_function(module, "arm", reinterpret_cast<VALUE (*)(ANYARGS)>(arm), 1);
  rb_define_module_function(module, "arm_unknown", reinterpret_cast<VALUE (*)(ANYARGS)>(arm_unknown), 1);
  rb_define_module_function(module, "disarm", reinterpret_cast<VALUE (*)(ANYARGS)>(disarm), 0);
  rb_define_module_function(module, "live", reinterpret_cast<VALUE (*)(ANYARGS)>(live), 0);
}
