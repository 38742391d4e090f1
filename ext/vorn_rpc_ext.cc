#include "ext/vorn_rpc_ext.h"

#include "ext/key_cache.h"
#include "ext/machine_stack.h"
#include "ext/object_decoder.h"
#include "ext/object_serializer.h"
#include "ext/overridden_each.h"
#include "ext/packet_buf_codec.h"

namespace VORN {
namespace EXT {

/*
 * Document-module: VORN
 *
 * Everything of this gem. VORN::PROTO has the classes.
 */

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

void keep_class(VALUE klass, VALUE (*allocate)(VALUE)) {
  rb_gc_register_mark_object(klass);
  rb_define_alloc_func(klass, allocate);
}

}  // namespace EXT
}  // namespace VORN

extern "C" __attribute__((visibility("default"))) void Init_vorn_rpc_ext() {
  using namespace VORN::EXT;
  declare_ractor_safe();
  const VALUE mVorn = rb_define_module("VORN");
  const VALUE mProto = rb_define_module_under(mVorn, "PROTO");
  rb_gc_register_mark_object(mProto);
  init_key_cache();
  init_machine_stack();
  init_overridden_each();
  init_object_serializer();
  init_object_decoder();
  init_packet_buf();
  init_packet_buf_codec();
  init_packet_frame();
  init_packet_frame_in();
  init_packet_frame_out();
}
