#include "proto/packet_frame_out.h"

#include <string>

#include "proto/vorn_proto_exception.h"
#include "proto/vorn_runtime_error.h"

namespace VORN {
namespace PROTO {

PacketFrameOut::~PacketFrameOut() = default;

uint64_t PacketFrameOut::reset() {
  set_pos(configured_header_len());
  return pos();
}

uint64_t PacketFrameOut::configured_header_len() const {
  return use_12byte_header_ ? PF12_HEADER_LEN : PF8_HEADER_LEN;
}

uint64_t PacketFrameOut::configured_max_data_len() const {
  return use_12byte_header_ ? PF12_MAX_DATA_LEN : PF8_MAX_DATA_LEN;
}

void PacketFrameOut::compute_frame_header() {
  const uint64_t end = pos();
  const uint64_t header_len = configured_header_len();
  if (end < header_len) {
    throw VornRuntimeError("PacketFrameOut::compute_frame_header: data pos inside header (negative data length)");
  }
  const uint64_t data_len = end - header_len;
  const uint64_t max = configured_max_data_len();
  if (data_len > max) {
    throw VornProtoException("PacketFrameOut::compute_frame_header: oversize: data_len " + std::to_string(data_len) +
                             " > max " + std::to_string(max));
  }
  char header[PF12_HEADER_LEN];
  encode_frame_header({next_seq_, static_cast<uint32_t>(data_len)}, use_12byte_header_, header);
  grow_to(header_len);  // before anything changes: there may be no memory
  set_pos(0);
  write_bytes(header, header_len);
  set_pos(end);
}

}  // namespace PROTO
}  // namespace VORN
