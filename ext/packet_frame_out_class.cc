#include "ext/arguments.h"
#include "ext/buffer_handle.h"
#include "ext/native_guard.h"
#include "ext/vorn_rpc_ext.h"

namespace VORN {
namespace EXT {

/*
 * Document-class: VORN::PROTO::PacketFrameOut < VORN::PROTO::PacketFrame
 *
 * One frame to send, built in place: reset leaves room for the header, values follow, compute_frame_header writes the
 * header in front of them.
 */
VALUE cPacketFrameOut;

namespace {

using PROTO::PacketFrameOut;

VALUE packetframeout_allocate(VALUE klass) {
  return allocate_native<PacketFrameOut>(klass, packet_frame_out_type, "failed newing PacketFrameOut",
                                         "exception newing PacketFrameOut");
}

/*
 * call-seq:
 *   frame.next_seq -> integer
 *
 * The sequence number that the next header carries, 0 to 65535.
 *
 *   VORN::PROTO::PacketFrameOut.new.next_seq  # => 0
 */
VALUE packetframeout_next_seq(VALUE self) {
  return INT2FIX(packet_frame_out_of(self).next_seq());
}

/*
 * call-seq:
 *   frame.next_seq = integer -> integer
 *
 * Keeps the low 16 bits.
 *
 *   frame = VORN::PROTO::PacketFrameOut.new
 *   frame.next_seq = 70000
 *   frame.next_seq  # => 4464
 */
VALUE packetframeout_set_next_seq(VALUE self, VALUE seq) {
  PacketFrameOut& frame = packet_frame_out_of(self);
  frame.set_next_seq(cut_to_uint16(seq));
  return self;
}

/*
 * call-seq:
 *   frame.inc_seq -> frame
 *
 * On to the next sequence number; 0 follows 65535.
 *
 *   VORN::PROTO::PacketFrameOut.new.inc_seq.next_seq  # => 1
 */
VALUE packetframeout_inc_seq(VALUE self) {
  packet_frame_out_of(self).inc_seq();
  return self;
}

/*
 * call-seq:
 *   frame.compute_frame_header -> frame
 *
 * Writes the header in front of the payload, which is everything between the header and the position. Neither
 * the position nor the sequence number moves.
 *
 * Raises RuntimeError "PacketFrameOut::compute_frame_header: data pos inside header (negative data length)" when
 * the frame was not reset before it was written to, and "PacketFrameOut::compute_frame_header: oversize: data_len
 * N > max M" when the payload is too long for the layout.
 *
 *   frame = VORN::PROTO::PacketFrameOut.new
 *   frame.reset
 *   frame << 42
 *   frame.compute_frame_header.to_str.unpack("H*")[0]  # => "a501000000000002aa01"
 */
VALUE packetframeout_compute_frame_header(VALUE self) {
  PacketFrameOut& frame = packet_frame_out_of(self);
  native_guard([&] { frame.compute_frame_header(); });
  return self;
}

/*
 * call-seq:
 *   frame.use_12byte_header = obj -> obj
 *
 * Chooses the 12-byte header for anything but nil and false, then resets the frame: a payload written before has
 * to be written again.
 *
 *   frame = VORN::PROTO::PacketFrameOut.new
 *   frame.use_12byte_header = true
 *   frame.pos  # => 12
 */
VALUE packetframeout_set_use_12byte_header(VALUE self, VALUE on) {
  PacketFrameOut& frame = packet_frame_out_of(self);
  native_guard([&] {
    frame.set_use_12byte_header(RTEST(on));
    frame.reset();
  });
  return self;
}

/*
 * call-seq:
 *   frame.using_12byte_header? -> true or false
 *
 *   VORN::PROTO::PacketFrameOut.new.using_12byte_header?  # => false
 */
VALUE packetframeout_using_12byte_header(VALUE self) {
  return packet_frame_out_of(self).using_12byte_header() ? Qtrue : Qfalse;
}

/*
 * call-seq:
 *   frame.configured_header_len -> integer
 *
 * 8 or 12.
 *
 *   VORN::PROTO::PacketFrameOut.new.configured_header_len  # => 8
 */
VALUE packetframeout_configured_header_len(VALUE self) {
  return ULONG2NUM(packet_frame_out_of(self).configured_header_len());
}

/*
 * call-seq:
 *   frame.configured_max_data_len -> integer
 *
 * The longest payload that the header can announce: 2147483647 or, with 12 bytes, 16777215.
 *
 *   VORN::PROTO::PacketFrameOut.new.configured_max_data_len  # => 2147483647
 */
VALUE packetframeout_configured_max_data_len(VALUE self) {
  return ULONG2NUM(packet_frame_out_of(self).configured_max_data_len());
}

}  // namespace

void init_packet_frame_out() {
  const VALUE mVorn = rb_define_module("VORN");
  const VALUE mProto = rb_define_module_under(mVorn, "PROTO");
  cPacketFrameOut = rb_define_class_under(mProto, "PacketFrameOut", cPacketFrame);
  keep_class(cPacketFrameOut, packetframeout_allocate);
  rb_define_method(cPacketFrameOut, "initialize", VALUEFUNC(packetbuf_initialize), 0);
  rb_define_method(cPacketFrameOut, "next_seq", VALUEFUNC(packetframeout_next_seq), 0);
  rb_define_method(cPacketFrameOut, "next_seq=", VALUEFUNC(packetframeout_set_next_seq), 1);
  rb_define_method(cPacketFrameOut, "inc_seq", VALUEFUNC(packetframeout_inc_seq), 0);
  rb_define_method(cPacketFrameOut, "compute_frame_header", VALUEFUNC(packetframeout_compute_frame_header), 0);
  rb_define_method(cPacketFrameOut, "use_12byte_header=", VALUEFUNC(packetframeout_set_use_12byte_header), 1);
  rb_define_method(cPacketFrameOut, "using_12byte_header?", VALUEFUNC(packetframeout_using_12byte_header), 0);
  rb_define_method(cPacketFrameOut, "configured_header_len", VALUEFUNC(packetframeout_configured_header_len), 0);
  rb_define_method(cPacketFrameOut, "configured_max_data_len", VALUEFUNC(packetframeout_configured_max_data_len), 0);
}

}  // namespace EXT
}  // namespace VORN
