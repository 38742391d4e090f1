/// What VORN::Stream does for each value and each frame, where Ruby code would take longer than the codec.
#include "ext/machine_stack.h"
#include "ext/ruby_compat.h"
#include "stream_ext/frame_input.h"
#include "stream_ext/integer_check.h"

namespace {

// Native.check_integers(value)
VALUE rb_check_integers(VALUE, VALUE value) {
  VORN::STREAM_EXT::check_integers(value);
  return Qnil;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void Init_vorn_rpc_stream_ext() {
  using namespace VORN;
  EXT::declare_ractor_safe();
  EXT::init_machine_stack();
  STREAM_EXT::init_frame_input();
  STREAM_EXT::init_integer_check();
  const VALUE mStream = rb_define_module_under(rb_define_module("VORN"), "Stream");
  const VALUE mNative = rb_define_module_under(mStream, "Native");
  rb_define_singleton_method(mNative, "check_integers", VALUEFUNC(rb_check_integers), 1);
  rb_define_singleton_method(mNative, "frame_length", VALUEFUNC(STREAM_EXT::rb_frame_length), 3);
  rb_define_singleton_method(mNative, "read_frame", VALUEFUNC(STREAM_EXT::rb_read_frame), 3);
}
