/// The border between C++ and Ruby. No C++ exception passes a Ruby frame: native work that can throw runs in
/// native_guard(), which raises the matching Ruby exception after the native one is gone.
///
/// Ruby raises by a jump that runs no destructors. So frames between a Ruby raise and the nearest rb_protect()
/// hold only what needs no destruction.
#pragma once

#include <exception>
#include <type_traits>
#include <utility>

#include "ext/ruby_compat.h"
#include "proto/vorn_exception.h"

namespace VORN {
namespace EXT {

/// A native failure on its way out of a handler: a Ruby String, or the jump that making it ended in.
struct NativeFailure {
  VALUE message = Qnil;
  int jump_state = 0;
};

/// Words a failure while the native exception still lives. Never jumps. `format` takes `what` as its "%s".
NativeFailure describe_native_failure(const char* format, const char* what) noexcept;

/// Raises RuntimeError. REQUIRES: no handler is open, or its exception object would never be released.
[[noreturn]] void raise_native_failure(const NativeFailure& failure);

/// Runs `work` and returns its result. A VornException becomes RuntimeError with its text, any other standard
/// exception "C++ exception: ...", anything else "unknown C++ exception in vorn-rpc-ext".
/// A Ruby jump may leave `work`. REQUIRES: nothing in the frames that it skips needs destruction.
template <typename Work>
auto native_guard(Work&& work) -> decltype(work()) {
  using Result = decltype(work());
  static_assert(std::is_void<Result>::value || std::is_trivially_destructible<Result>::value,
                "the raise below runs no destructors");
  static_assert(std::is_trivially_destructible<typename std::decay<Work>::type>::value,
                "the raise below runs no destructors");
  NativeFailure failure;
  try {
    return work();
  } catch (const VornException& e) {
    failure = describe_native_failure("%s", e.what());
  } catch (const std::exception& e) {
    failure = describe_native_failure("C++ exception: %s", e.what());
  } catch (...) {
    failure = describe_native_failure("%s", "unknown C++ exception in vorn-rpc-ext");
  }
  raise_native_failure(failure);
}

}  // namespace EXT
}  // namespace VORN
