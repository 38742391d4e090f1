#include "proto/packet_buf.h"

#include <cstring>
#include <functional>
#include <stdexcept>

namespace VORN {
namespace PROTO {

PacketBuf::PacketBuf() {
  data_.reserve(INITIAL_CAPACITY);
}

PacketBuf::~PacketBuf() = default;

uint64_t PacketBuf::reset() {
  pos_ = 0;
  return pos_;
}

uint64_t PacketBuf::payload_start() const {
  return 0;
}

uint64_t PacketBuf::payload_end() const {
  return data_.size();
}

uint64_t PacketBuf::payload_size() const {
  return payload_end() - payload_start();
}

bool PacketBuf::index_within_payload(uint64_t i) const {
  return i >= payload_start() && i < payload_end() && i < data_.size();
}

void PacketBuf::write_bytes(const char* src, uint64_t n) {
  if (n == 0) return;
  // Growing moves the bytes, so a source inside them is remembered by its index. std::less orders pointers
  // into different objects, the operator does not.
  const std::less<const char*> before;
  const char* const first = data_.data();
  if (!before(src, first) && before(src, first + data_.size())) {
    const uint64_t index = static_cast<uint64_t>(src - first);
    char* const to = claim(n);
    std::memmove(to, data_.data() + index, n);
  } else {
    std::memcpy(claim(n), src, n);
  }
}

void PacketBuf::grow_to(uint64_t n) {
  if (n > data_.size()) data_.resize(n);
}

char* PacketBuf::claim_fallback(uint64_t n) {
  const uint64_t end = pos_ + n;
  if (end < pos_) throw std::length_error("PacketBuf::claim: position out of range");
  grow_to(end);
  return &data_[pos_];
}

}  // namespace PROTO
}  // namespace VORN
