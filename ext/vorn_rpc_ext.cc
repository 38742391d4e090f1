#include "ext/vorn_rpc_ext.h"

#include "ext/key_cache.h"
#include "ext/machine_stack.h"
#include "ext/object_decoder.h"
#include "ext/object_serializer.h"
#include "ext/overridden_each.h"

namespace VORN {
namespace EXT {

/*
 * Document-module: VORN
 *
 * Everything of this gem. VORN::PROTO has the classes.
 */
VALUE mVorn;

/*
 * Document-module: VORN::PROTO
 *
 * Values in a compact binary form, in frames that survive any way a byte stream is chunked. PacketFrameOut makes
 * frames to send, PacketFrameIn finds them in what arrives, PacketBuf holds values without a frame. They do no input
 * or output.
 *
 *   out = VORN::PROTO::PacketFrameOut.new.reset
 *   out << { "name" => "Ada" }
 *   bytes = out.compute_frame_header.to_str
 *
 *   frame = VORN::PROTO::PacketFrameIn.new.reset
 *   frame.assemble(bytes, 0)
 *   frame.have_complete_frame?                # => true
 *   frame.seek_payload_start.extract_object   # => {"name"=>"Ada"}
 */
VALUE mProto;

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

/*
 * Document-class: VORN::PROTO::PacketFrame
 *
 * What the two frames have in common. It cannot be instantiated.
 */
VALUE cPacketFrame;

/*
 * Document-class: VORN::PROTO::PacketFrameIn
 *
 * Finds one frame in a byte stream that arrives in chunks of any size, and holds it. Needs a reset before each frame,
 * the first one included.
 */
VALUE cPacketFrameIn;

/*
 * Document-class: VORN::PROTO::PacketFrameOut
 *
 * One frame to send, built in place: reset leaves room for the header, values follow, compute_frame_header writes the
 * header in front of them.
 */
VALUE cPacketFrameOut;

VALUE define_proto_class(const char* name, VALUE superclass, VALUE (*allocate)(VALUE)) {
  const VALUE klass = rb_define_class_under(mProto, name, superclass);
  rb_gc_register_mark_object(klass);
  rb_define_alloc_func(klass, allocate);
  return klass;
}

}  // namespace EXT
}  // namespace VORN

extern "C" __attribute__((visibility("default"))) void Init_vorn_rpc_ext() {
  using namespace VORN::EXT;
  declare_ractor_safe();
  mVorn = rb_define_module("VORN");
  mProto = rb_define_module_under(mVorn, "PROTO");
  init_key_cache();
  init_machine_stack();
  init_overridden_each();
  init_object_serializer();
  init_object_decoder();
  init_packet_buf();
  init_packet_frame();
  init_packet_frame_in();
  init_packet_frame_out();
}
