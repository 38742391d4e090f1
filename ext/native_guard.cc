#include "ext/native_guard.h"

namespace VORN {
namespace EXT {

namespace {

struct Wording {
  const char* format;
  const char* what;
};

VALUE make_message(VALUE arg) {
  const Wording& wording = *reinterpret_cast<const Wording*>(arg);
  return rb_sprintf(wording.format, wording.what);
}

}  // namespace

NativeFailure describe_native_failure(const char* format, const char* what) noexcept {
  const Wording wording{format, what};
  NativeFailure failure;
  failure.message = rb_protect(make_message, reinterpret_cast<VALUE>(&wording), &failure.jump_state);
  return failure;
}

void raise_native_failure(const NativeFailure& failure) {
  if (failure.jump_state != 0) rb_jump_tag(failure.jump_state);
  rb_exc_raise(rb_exc_new3(rb_eRuntimeError, failure.message));
  throw std::exception();  // not reached: older headers do not say that rb_exc_raise never returns
}

}  // namespace EXT
}  // namespace VORN
