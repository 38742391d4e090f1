#include "ext/arguments.h"
#include "ext/buffer_handle.h"
#include "ext/native_guard.h"
#include "ext/vorn_rpc_ext.h"

namespace VORN {
namespace EXT {

/*
 * Document-class: VORN::PROTO::PacketFrameIn < VORN::PROTO::PacketFrame
 *
 * Finds one frame in a byte stream that arrives in chunks of any size, and holds it. Needs a reset before each frame,
 * the first one included.
 */
VALUE cPacketFrameIn;

namespace {

using PROTO::PacketFrameIn;

VALUE packetframein_allocate(VALUE klass) {
  return allocate_native<PacketFrameIn>(klass, packet_frame_in_type, "failed newing PacketFrameIn",
                                        "exception newing PacketFrameIn");
}

/*
 * call-seq:
 *   frame.assemble(data, offset) -> integer
 *
 * Feeds the received bytes of data from offset on and returns how many were consumed, never any beyond the end of
 * the current frame. Bytes before a start marker are skipped, and counted. Call reset before the first frame and
 * after each.
 *
 * While a frame is in progress at least one byte is consumed. 0 with have_complete_frame? false means that the
 * frame failed its checks (or was never reset): reset, and go on behind its first byte.
 *
 * Raises ArgumentError "packetframein_assemble: data argument should be T_STRING" and, unless data is empty,
 * "packetframein_assemble: offset argument out of range".
 *
 *   frame = VORN::PROTO::PacketFrameIn.new
 *   frame.reset
 *   chunk = "\xA5\x01\x00\x07\x00\x00\x00\x01\x02and the next frame"
 *   frame.assemble(chunk, 0)    # => 9
 *   frame.have_complete_frame?  # => true
 *   frame.seq                   # => 7
 *   frame.seek_payload_start.extract_object  # => true
 */
VALUE packetframein_assemble(VALUE self, VALUE data, VALUE offset) {
  packet_frame_in_of(self);
  if (!RB_TYPE_P(data, T_STRING)) {
    rb_raise(rb_eArgError, "packetframein_assemble: data argument should be T_STRING");
  }
  if (RSTRING_LEN(data) == 0) return INT2FIX(0);
  const int32_t from = cut_to_int32(offset);  // may run Ruby code, which may change the String's length
  if (from < 0 || from >= RSTRING_LEN(data)) {
    rb_raise(rb_eArgError, "packetframein_assemble: offset argument out of range");
  }
  PacketFrameIn& frame = packet_frame_in_of(self);
  const uint64_t consumed = native_guard([&] {
    return frame.assemble(RSTRING_PTR(data), static_cast<uint64_t>(RSTRING_LEN(data)), static_cast<uint64_t>(from));
  });
  RB_GC_GUARD(data);
  report_storage(self);
  return ULL2NUM(consumed);
}

/*
 * call-seq:
 *   frame.have_complete_frame? -> true or false
 *
 * Whether a frame has arrived whole and passed its checks, and its values can be read. reset makes it false again.
 *
 *   frame = VORN::PROTO::PacketFrameIn.new
 *   frame.have_complete_frame?  # => false
 */
VALUE packetframein_have_complete_frame(VALUE self) {
  return packet_frame_in_of(self).have_complete_frame() ? Qtrue : Qfalse;
}

/*
 * call-seq:
 *   frame.seq -> integer
 *
 * The sequence number of the frame, 0 to 65535; 0 before its header is held.
 *
 *   frame = VORN::PROTO::PacketFrameIn.new
 *   frame.seq  # => 0
 */
VALUE packetframein_seq(VALUE self) {
  return INT2FIX(packet_frame_in_of(self).seq());
}

}  // namespace

void init_packet_frame_in() {
  const VALUE mVorn = rb_define_module("VORN");
  const VALUE mProto = rb_define_module_under(mVorn, "PROTO");
  cPacketFrameIn = rb_define_class_under(mProto, "PacketFrameIn", cPacketFrame);
  keep_class(cPacketFrameIn, packetframein_allocate);
  rb_define_method(cPacketFrameIn, "initialize", VALUEFUNC(packetbuf_initialize), 0);
  rb_define_method(cPacketFrameIn, "assemble", VALUEFUNC(packetframein_assemble), 2);
  rb_define_method(cPacketFrameIn, "have_complete_frame?", VALUEFUNC(packetframein_have_complete_frame), 0);
  rb_define_method(cPacketFrameIn, "seq", VALUEFUNC(packetframein_seq), 0);
}

}  // namespace EXT
}  // namespace VORN
