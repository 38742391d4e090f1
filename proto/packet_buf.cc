#include "proto/packet_buf.h"

#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace VORN {
namespace PROTO {

namespace {

[[noreturn]] void fail_out_of_range() {
  throw std::length_error("PacketBuf::claim: position out of range");
}

}  // namespace

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

void PacketBuf::reserve(uint64_t n) {
  const uint64_t end = pos_ + n;
  if (end < pos_ || end > data_.max_size()) fail_out_of_range();
  if (end > data_.capacity()) data_.reserve(static_cast<size_t>(end));
}

void PacketBuf::write_bytes(const char* src, uint64_t n) {
  if (n == 0) return;
  if (holds(src)) {
    const ptrdiff_t index = src - data_.data();  // growing moves the bytes
    char* const to = claim(n);
    std::memmove(to, data_.data() + index, static_cast<size_t>(n));
  } else {
    std::memcpy(claim(n), src, static_cast<size_t>(n));  // what could be claimed fits a size_t
  }
}

void PacketBuf::grow_to(uint64_t n) {
  if (n <= data_.size()) return;
  // Compared in 64 bits: resize() takes a size_t, which may have 32.
  if (n > data_.max_size()) fail_out_of_range();
  data_.resize(static_cast<size_t>(n));
}

// Out of line: inlined into write_bytes() it would cost saved registers in each call (6 % more instructions for short
// ones).
[[gnu::noinline]] char* PacketBuf::claim_fallback(uint64_t n) {
  const uint64_t end = pos_ + n;
  if (end < pos_) fail_out_of_range();
  grow_to(end);
  return at_pos();
}

}  // namespace PROTO
}  // namespace VORN
