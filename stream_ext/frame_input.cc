#include "stream_ext/frame_input.h"

#include <cstdint>
#include <string_view>

#include "proto/frame_header.h"

namespace VORN {
namespace STREAM_EXT {

namespace {

ID id_assemble;
ID id_extract_object;
ID id_have_complete_frame;
ID id_pos;
ID id_reset;
ID id_seek_payload_start;

VALUE reason(const char* text) {
  return rb_enc_str_new_cstr(text, rb_utf8_encoding());
}

}  // namespace

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

VALUE rb_read_frame(VALUE self, VALUE frame, VALUE bytes, VALUE max_length) {
  const VALUE length = rb_frame_length(self, bytes, INT2FIX(0), max_length);
  if (NIL_P(length) || RB_TYPE_P(length, T_STRING)) return Qnil;
  const uint64_t end = NUM2ULL(length);
  if (end != static_cast<uint64_t>(RSTRING_LEN(bytes))) return Qnil;
  rb_funcall(frame, id_reset, 0);
  rb_funcall(frame, id_assemble, 2, bytes, INT2FIX(0));
  if (!RTEST(rb_funcall(frame, id_have_complete_frame, 0))) return Qnil;  // the bytes have changed
  rb_funcall(frame, id_seek_payload_start, 0);
  const VALUE messages = rb_ary_new();
  uint64_t position;
  while ((position = NUM2ULL(rb_funcall(frame, id_pos, 0))) < end) {
    rb_ary_push(messages, rb_funcall(frame, id_extract_object, 0));
  }
  // Otherwise a string's length reaches behind the frame, into bytes that an earlier one has left there.
  return position == end ? messages : Qnil;
}

void init_frame_input() {
  id_assemble = rb_intern("assemble");
  id_extract_object = rb_intern("extract_object");
  id_have_complete_frame = rb_intern("have_complete_frame?");
  id_pos = rb_intern("pos");
  id_reset = rb_intern("reset");
  id_seek_payload_start = rb_intern("seek_payload_start");
}

}  // namespace STREAM_EXT
}  // namespace VORN
