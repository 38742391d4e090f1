/// What VORN::Stream does for each value and each header, where Ruby code would take longer than the codec.
#include <string_view>

#include "ext/machine_stack.h"
#include "ext/ruby_compat.h"
#include "proto/frame_header.h"
#include "stream_ext/integer_check.h"

namespace VORN {
namespace STREAM_EXT {

namespace {

// Native.check_integers(value)
VALUE rb_check_integers(VALUE, VALUE value) {
  check_integers(value);
  return Qnil;
}

VALUE reason(const char* text) {
  return rb_enc_str_new_cstr(text, rb_utf8_encoding());
}

// Native.frame_length(bytes, offset, max_length): the length of the frame whose bytes begin there, its header included;
// nil when the header has not arrived whole; or a String that says why no frame begins there that may be assembled. The
// assembler trusts the announced length and reserves it at once, up to 2 GiB for eight bytes from anybody, and sees a
// wrong payload check only behind the payload.
VALUE rb_frame_length(VALUE, VALUE bytes, VALUE offset, VALUE max_length) {
  Check_Type(bytes, T_STRING);
  const size_t begin = NUM2SIZET(offset);
  const uint32_t most = NUM2UINT(max_length);
  const size_t size = static_cast<size_t>(RSTRING_LEN(bytes));
  if (begin >= size) return Qnil;
  const std::string_view frame(RSTRING_PTR(bytes) + begin, size - begin);
  if (static_cast<uint8_t>(frame.front()) != PROTO::PF_START_MARKER) return reason("bytes that belong to no frame");
  if (frame.size() < 2) return Qnil;
  const uint64_t header_len = PROTO::frame_header_len(frame);
  if (frame.size() < header_len) return Qnil;
  if (!PROTO::frame_header_check_passes(frame) || !PROTO::frame_payload_check_passes(frame)) {
    return reason("a frame header with wrong check bytes");
  }
  const uint32_t length = PROTO::decode_frame_header(frame).data_len;
  if (length > most) {
    return rb_enc_sprintf(rb_utf8_encoding(), "a frame announces %u bytes, %u are accepted", length, most);
  }
  return ULL2NUM(header_len + length);
}

}  // namespace

}  // namespace STREAM_EXT
}  // namespace VORN

extern "C" __attribute__((visibility("default"))) void Init_vorn_rpc_stream_ext() {
  using namespace VORN;
  EXT::declare_ractor_safe();
  EXT::init_machine_stack();
  STREAM_EXT::init_integer_check();
  const VALUE mStream = rb_define_module_under(rb_define_module("VORN"), "Stream");
  const VALUE mNative = rb_define_module_under(mStream, "Native");
  rb_define_singleton_method(mNative, "check_integers", VALUEFUNC(STREAM_EXT::rb_check_integers), 1);
  rb_define_singleton_method(mNative, "frame_length", VALUEFUNC(STREAM_EXT::rb_frame_length), 3);
}
