/// What the files of the extension share: the classes, and the functions that define them.
#pragma once

#include "ext/ruby_compat.h"

namespace VORN {
namespace EXT {

// Set once by Init and alive as long as the process.
extern VALUE cPacketBuf;
extern VALUE cPacketFrame;
extern VALUE cPacketFrameIn;
extern VALUE cPacketFrameOut;

void init_packet_buf();
void init_packet_frame();
void init_packet_frame_in();
void init_packet_frame_out();

/// PacketBuf#initialize, which the frame classes register too.
VALUE packetbuf_initialize(VALUE self);

/// Keeps a class alive, whatever becomes of its constant, and says how its objects are made.
void keep_class(VALUE klass, VALUE (*allocate)(VALUE));

}  // namespace EXT
}  // namespace VORN
