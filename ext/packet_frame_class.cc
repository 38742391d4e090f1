#include "ext/vorn_rpc_ext.h"
#include "proto/packet_frame.h"

namespace VORN {
namespace EXT {

/*
 * Document-class: VORN::PROTO::PacketFrame < VORN::PROTO::PacketBuf
 *
 * What the two frames have in common. It cannot be instantiated.
 */
VALUE cPacketFrame;

namespace {

using PROTO::PacketFrame;

VALUE packetframe_allocate(VALUE) {
  rb_raise(rb_eNotImpError, "naked PacketFrame instancing not supported; use PacketFrameIn or PacketFrameOut");
  return Qnil;  // not reached: older headers do not say so
}

}  // namespace

void init_packet_frame() {
  const VALUE mVorn = rb_define_module("VORN");
  const VALUE mProto = rb_define_module_under(mVorn, "PROTO");
  cPacketFrame = rb_define_class_under(mProto, "PacketFrame", cPacketBuf);
  keep_class(cPacketFrame, packetframe_allocate);
  /* Bytes of the 8-byte header. */
  rb_define_const(cPacketFrame, "PF8_HEADER_LEN", ULONG2NUM(PacketFrame::PF8_HEADER_LEN));
  /* The most payload bytes behind an 8-byte header. */
  rb_define_const(cPacketFrame, "PF8_MAX_DATA_LEN", ULONG2NUM(PacketFrame::PF8_MAX_DATA_LEN));
  /* Bytes of the 12-byte header. */
  rb_define_const(cPacketFrame, "PF12_HEADER_LEN", ULONG2NUM(PacketFrame::PF12_HEADER_LEN));
  /* The most payload bytes behind a 12-byte header. */
  rb_define_const(cPacketFrame, "PF12_MAX_DATA_LEN", ULONG2NUM(PacketFrame::PF12_MAX_DATA_LEN));
}

}  // namespace EXT
}  // namespace VORN
