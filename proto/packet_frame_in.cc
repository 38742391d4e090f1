#include "proto/packet_frame_in.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "proto/vorn_runtime_error.h"

namespace VORN {
namespace PROTO {

PacketFrameIn::~PacketFrameIn() = default;

uint64_t PacketFrameIn::reset() {
  set_pos(0);
  error_message_ = nullptr;
  data_len_ = 0;
  seq_ = 0;
  status_ = STATUS_IN_PROGRESS;
  state_ = &PacketFrameIn::st_sync;
  return pos();
}

// While the header arrives, the position counts its bytes. Afterwards the position belongs to whoever reads the
// payload.
bool PacketFrameIn::header_is_held() const {
  return state_ != nullptr && state_ != &PacketFrameIn::st_sync && state_ != &PacketFrameIn::st_accept_header;
}

uint64_t PacketFrameIn::payload_start() const {
  if (!header_is_held() && pos() < 2) return PF8_HEADER_LEN;
  return frame_header_len(data());
}

uint64_t PacketFrameIn::payload_end() const {
  return payload_size() + payload_start();
}

uint64_t PacketFrameIn::payload_size() const {
  return data_len_;
}

uint64_t PacketFrameIn::assemble(const char* data, uint64_t len, uint64_t offset) {
  status_ = STATUS_IN_PROGRESS;  // a terminal state restores it below
  if (state_ == nullptr || data == nullptr || len == 0 || offset >= len) return 0;
  uint64_t total = 0;
  for (;;) {
    const State current = state_;
    total += (this->*current)(data, len, offset + total);
    if (state_ == current) return total;
  }
}

uint64_t PacketFrameIn::st_sync(const char* data, uint64_t len, uint64_t offset) {
  if (offset >= len) return 0;
  const char* const first = data + offset;
  const void* const marker = std::memchr(first, PF_START_MARKER, static_cast<size_t>(len - offset));
  if (marker == nullptr) return len - offset;
  state_ = &PacketFrameIn::st_accept_header;
  return static_cast<uint64_t>(static_cast<const char*>(marker) - first);
}

uint64_t PacketFrameIn::st_accept_header(const char* data, uint64_t len, uint64_t offset) {
  const uint64_t start = offset;
  while (offset < len && pos() < 2) write_byte(static_cast<uint8_t>(data[offset++]));
  if (pos() >= 2) {
    const uint64_t header_len = frame_header_len(this->data());
    if (pos() < header_len) {
      const uint64_t n = std::min(len - offset, header_len - pos());
      write_bytes(data + offset, n);
      offset += n;
    }
    if (pos() >= header_len) state_ = &PacketFrameIn::st_check_header;
  }
  return offset - start;
}

uint64_t PacketFrameIn::st_check_header(const char*, uint64_t, uint64_t) {
  if (!frame_header_check_passes(data())) {
    fail("Bad Header CRC");
    return 0;
  }
  const FrameHeader header = decode_frame_header(data());
  seq_ = header.seq;
  data_len_ = header.data_len;
  if (data_len_ > soft_limit_) {
    fail("Payload size exceeds soft limit");
    return 0;
  }
  grow_to(frame_header_len(data()) + data_len_);
  state_ = &PacketFrameIn::st_accept_payload;
  return 0;
}

uint64_t PacketFrameIn::st_accept_payload(const char* data, uint64_t len, uint64_t offset) {
  if (offset > len) return 0;
  const uint64_t header_len = frame_header_len(this->data());
  if (pos() < header_len) {
    throw VornRuntimeError("PacketFrameIn::st_accept_payload: data pos inside header (internal error)");
  }
  const uint64_t received = pos() - header_len;
  if (received > data_len_) {
    throw VornRuntimeError("PacketFrameIn::st_accept_payload: excess payload received (internal error)");
  }
  const uint64_t missing = data_len_ - received;
  const uint64_t n = std::min(len - offset, missing);
  write_bytes(data + offset, n);
  if (n == missing) state_ = &PacketFrameIn::st_check_payload;
  return n;
}

uint64_t PacketFrameIn::st_check_payload(const char*, uint64_t, uint64_t) {
  if (frame_payload_check_passes(data())) {
    state_ = &PacketFrameIn::st_complete;
  } else {
    fail("Bad Payload Data CRC");
  }
  return 0;
}

uint64_t PacketFrameIn::st_complete(const char*, uint64_t, uint64_t) {
  status_ = STATUS_COMPLETE;
  return 0;
}

uint64_t PacketFrameIn::st_error(const char*, uint64_t, uint64_t) {
  status_ = STATUS_ERROR;
  return 0;
}

void PacketFrameIn::fail(const char* message) {
  error_message_ = message;
  state_ = &PacketFrameIn::st_error;
}

}  // namespace PROTO
}  // namespace VORN
