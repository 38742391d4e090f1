#include "ext/vorn_rpc_ext.h"

#include "ext/object_decoder.h"
#include "ext/object_serializer.h"
#include "ext/recent_keys.h"

namespace VORN {
namespace EXT {

VALUE mVorn;
VALUE mProto;
VALUE cPacketBuf;
VALUE cPacketFrame;
VALUE cPacketFrameIn;
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
#ifdef HAVE_RB_EXT_RACTOR_SAFE  // since 3.0
  rb_ext_ractor_safe(true);
#endif
  mVorn = rb_define_module("VORN");
  mProto = rb_define_module_under(mVorn, "PROTO");
#ifdef VORN_RUBY_INTERNS_KEYS
  init_recent_keys();
#endif
  init_object_serializer();
  init_object_decoder();
  init_packet_buf();
  init_packet_frame();
  init_packet_frame_in();
  init_packet_frame_out();
}
