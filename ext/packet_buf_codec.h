/// The methods of PacketBuf that write and read whole values, and the options of reading.
#pragma once

#include "ext/ruby_compat.h"

namespace VORN {
namespace EXT {

/// Gives a buffer's Ruby object its options, as `new` has them.
void set_default_options(VALUE buf);

/// Called once by Init. REQUIRES: PacketBuf is defined.
void init_packet_buf_codec();

}  // namespace EXT
}  // namespace VORN
