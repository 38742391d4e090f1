#include "ext/arguments.h"
#include "ext/buffer_handle.h"
#include "ext/native_guard.h"
#include "ext/packet_buf_codec.h"
#include "ext/vorn_rpc_ext.h"

namespace VORN {
namespace EXT {

/*
 * Document-class: VORN::PROTO::PacketBuf
 *
 * Bytes that grow, and a position in them where values are written and read. Writing overwrites and never inserts.
 * One buffer is used by one thread at a time.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf << [1, "two", 3.0]
 *   buf.seek_payload_start.extract_object     # => [1, "two", 3.0]
 */
VALUE cPacketBuf;

namespace {

using PROTO::PacketBuf;

VALUE packetbuf_allocate(VALUE klass) {
  return allocate_native<PacketBuf>(klass, packet_buf_type, "failed newing PacketBuf", "exception newing PacketBuf");
}

}  // namespace

/*
 * call-seq:
 *   VORN::PROTO::PacketBuf.new -> buf
 *
 * An empty buffer at position 0, with maxdepth 64 and preserve_symbols_on_extract false. It takes no arguments.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.pos       # => 0
 *   buf.maxdepth  # => 64
 */
VALUE packetbuf_initialize(VALUE self) {
  set_default_options(self);
  return self;
}

namespace {

// A copy would have to share or to double bytes, position and a half-read frame. It is refused rather than
// handed out empty.
VALUE packetbuf_initialize_copy(VALUE self, VALUE) {
  rb_raise(rb_eTypeError, "can't copy %s", rb_obj_classname(self));
  return Qnil;  // not reached: older headers do not say so
}

/*
 * call-seq:
 *   buf.reset -> buf
 *
 * Back to the starting position. The bytes stay stored and are overwritten by what is written next. For a
 * PacketFrameOut the start lies behind the header; a PacketFrameIn forgets its frame and looks for the next.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.write_raw("abc")
 *   buf.reset.pos     # => 0
 *   buf.payload_size  # => 3
 */
VALUE packetbuf_reset(VALUE self) {
  PacketBuf& buf = packet_buf_of(self);
  native_guard([&] { buf.reset(); });
  return self;
}

/*
 * call-seq:
 *   buf.pos -> integer
 *
 * Where the next byte is written or read, as a 32-bit number.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf << nil << true
 *   buf.pos  # => 2
 */
VALUE packetbuf_pos(VALUE self) {
  return low_32_bits_to_integer(packet_buf_of(self).pos());
}

/*
 * call-seq:
 *   buf.pos = integer -> integer
 *   buf.seek(integer) -> buf
 *
 * Moves the position to the low 32 bits of the argument, without a check: a write beyond the stored bytes
 * fills the gap with zeros.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.seek(2).write_raw("x").to_str  # => "\x00\x00x"
 */
VALUE packetbuf_set_pos(VALUE self, VALUE pos) {
  packet_buf_of(self);  // what has no buffer raises before Ruby code runs
  const uint32_t to = cut_to_uint32(pos);
  packet_buf_of(self).set_pos(to);
  return self;
}

/*
 * call-seq:
 *   buf.index_within_payload?(integer) -> true or false
 *
 * Whether the byte at this index (its low 32 bits) can be read: it is stored, and belongs to the payload.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.write_raw("abc")
 *   buf.index_within_payload?(2)  # => true
 *   buf.index_within_payload?(3)  # => false
 */
VALUE packetbuf_index_within_payload(VALUE self, VALUE index) {
  packet_buf_of(self);  // as in pos=
  const uint32_t i = cut_to_uint32(index);
  return packet_buf_of(self).index_within_payload(i) ? Qtrue : Qfalse;
}

/*
 * call-seq:
 *   buf.payload_size -> integer
 *
 * The length of the payload, as a 32-bit number: all stored bytes, or, for a PacketFrameIn, what the frame's
 * header announced.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.write_raw("abc")
 *   buf.payload_size  # => 3
 */
VALUE packetbuf_payload_size(VALUE self) {
  return low_32_bits_to_integer(packet_buf_of(self).payload_size());
}

/*
 * call-seq:
 *   buf.seek_payload_start -> buf
 *
 * Moves the position to the first byte of the payload: index 0, or, for a PacketFrameIn, the end of the header.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf << "first" << "second"
 *   buf.seek_payload_start.extract_object  # => "first"
 */
VALUE packetbuf_seek_payload_start(VALUE self) {
  PacketBuf& buf = packet_buf_of(self);
  buf.set_pos(buf.payload_start());
  return self;
}

/*
 * call-seq:
 *   buf.write_raw(string) -> buf
 *
 * Writes the string's bytes as they are, without type or length, over what is stored at the position.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.write_raw("abc").seek(1).write_raw("-")
 *   buf.seek(3).to_str      # => "a-c"
 *   buf.write_raw(:symbol)  # raises RuntimeError "packetbuf_write_raw: value to write must be String"
 */
VALUE packetbuf_write_raw(VALUE self, VALUE str) {
  PacketBuf& buf = packet_buf_of(self);
  if (!RB_TYPE_P(str, T_STRING)) {
    rb_raise(rb_eRuntimeError, "packetbuf_write_raw: value to write must be String");
  }
  native_guard([&] { buf.write_bytes(RSTRING_PTR(str), static_cast<uint32_t>(RSTRING_LEN(str))); });
  RB_GC_GUARD(str);
  report_storage(self);
  return self;
}

/*
 * call-seq:
 *   buf.to_str -> string
 *
 * The bytes before the position, from index 0 on, header included, as a binary String. At position 0 it is
 * empty. A position beyond the payload raises RuntimeError "packetbuf_to_str: pos outside payload".
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.to_str             # => ""
 *   (buf << false).to_str  # => "\x01"
 */
VALUE packetbuf_to_str(VALUE self) {
  const PacketBuf& buf = packet_buf_of(self);
  const uint64_t pos = buf.pos();
  if (pos == 0) return rb_str_new(nullptr, 0);
  if (!buf.index_within_payload(pos - 1)) rb_raise(rb_eRuntimeError, "packetbuf_to_str: pos outside payload");
  const VALUE str = rb_str_new(buf.data().data(), static_cast<long>(static_cast<uint32_t>(pos)));
  RB_GC_GUARD(self);
  return str;
}

}  // namespace

void init_packet_buf() {
  const VALUE mVorn = rb_define_module("VORN");
  const VALUE mProto = rb_define_module_under(mVorn, "PROTO");
  cPacketBuf = rb_define_class_under(mProto, "PacketBuf", rb_cObject);
  keep_class(cPacketBuf, packetbuf_allocate);
  rb_define_method(cPacketBuf, "initialize", VALUEFUNC(packetbuf_initialize), 0);
  rb_define_private_method(cPacketBuf, "initialize_copy", VALUEFUNC(packetbuf_initialize_copy), 1);
  rb_define_method(cPacketBuf, "reset", VALUEFUNC(packetbuf_reset), 0);
  rb_define_method(cPacketBuf, "pos", VALUEFUNC(packetbuf_pos), 0);
  rb_define_method(cPacketBuf, "pos=", VALUEFUNC(packetbuf_set_pos), 1);
  rb_define_alias(cPacketBuf, "seek", "pos=");
  rb_define_method(cPacketBuf, "index_within_payload?", VALUEFUNC(packetbuf_index_within_payload), 1);
  rb_define_method(cPacketBuf, "payload_size", VALUEFUNC(packetbuf_payload_size), 0);
  rb_define_method(cPacketBuf, "seek_payload_start", VALUEFUNC(packetbuf_seek_payload_start), 0);
  rb_define_method(cPacketBuf, "write_raw", VALUEFUNC(packetbuf_write_raw), 1);
  rb_define_method(cPacketBuf, "to_str", VALUEFUNC(packetbuf_to_str), 0);
}

}  // namespace EXT
}  // namespace VORN
