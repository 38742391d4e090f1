/// Buffers in the states that tests need.
#pragma once

#include <cstdint>
#include <string>

#include "proto/packet_buf.h"
#include "proto/packet_frame_in.h"

namespace vorn_test {

/// Fills a new buffer and moves its position back to the start.
inline void fill(VORN::PROTO::PacketBuf& buf, const std::string& bytes) {
  buf.write_bytes(bytes.data(), bytes.size());
  buf.set_pos(0);
}

/// Makes a complete frame of the 8-byte layout whose payload is only the first `payload` of the bytes after its
/// header: the others are left over from an earlier frame. The position is the payload's start.
inline void fill_frame(VORN::PROTO::PacketFrameIn& frame, const std::string& bytes, uint64_t payload) {
  for (const uint64_t len : {uint64_t{bytes.size()}, payload}) {
    std::string stream("\xA5\x01\x00\x00", 4);
    for (int shift = 24; shift >= 0; shift -= 8) stream += static_cast<char>(len >> shift);
    stream.append(bytes, 0, len);
    frame.reset();
    frame.assemble(stream.data(), stream.size(), 0);
  }
  frame.set_pos(frame.payload_start());
}

}  // namespace vorn_test
