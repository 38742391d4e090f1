/// The looks at bytes that are to become frames.
#pragma once

#include "ext/ruby_compat.h"

namespace VORN {
namespace STREAM_EXT {

/// Native.frame_length(bytes, offset, max_length): the length of the frame whose bytes begin there, its header
/// included; nil when the header has not arrived whole; or a String that says why no frame begins there that may be
/// assembled. The assembler trusts the announced length and reserves it at once, up to 2 GiB for eight bytes from
/// anybody, and sees a wrong payload check only behind the payload.
VALUE rb_frame_length(VALUE self, VALUE bytes, VALUE offset, VALUE max_length);

/// Native.read_frame(frame, bytes, max_length): the messages, in an Array, of the frame that the bytes are, no more and
/// no less; nil when they are none. The PacketFrameIn `frame` assembles it. Raises what assembling and reading raise.
///
/// Such are the chunks of peers that wait for answers. In Ruby the calls took longer than what they called.
VALUE rb_read_frame(VALUE self, VALUE frame, VALUE bytes, VALUE max_length);

/// Called once by Init.
void init_frame_input();

}  // namespace STREAM_EXT
}  // namespace VORN
