/// A fuzzer's bytes as a series of choices. Behind their end every choice is 0, so any bytes are an input.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace vorn_fuzz {

class Input {
 public:
  Input(const uint8_t* bytes, size_t size) : at_(bytes), end_(bytes + size) {}

  bool empty() const { return at_ == end_; }

  uint8_t byte() { return empty() ? 0 : *at_++; }

  /// REQUIRES: n from 1 to 256.
  unsigned below(unsigned n) { return byte() % n; }

  /// The low n bytes of a word, most significant first.
  uint64_t word(unsigned n) {
    uint64_t value = 0;
    for (; n > 0; --n) value = value << 8 | byte();
    return value;
  }

  /// A position, length or limit: mostly a small one, sometimes any, sometimes one near 2^64.
  uint64_t number() {
    const uint8_t first = byte();
    if (first < 0xE0) return first;
    if (first < 0xF0) return word(2);
    if (first < 0xF8) return word(8);
    return uint64_t{0} - byte();
  }

  std::string bytes(size_t n) {
    n = std::min(n, static_cast<size_t>(end_ - at_));
    std::string taken(reinterpret_cast<const char*>(at_), n);
    at_ += n;
    return taken;
  }

  std::string rest() { return bytes(SIZE_MAX); }

 private:
  const uint8_t* at_;
  const uint8_t* end_;
};

}  // namespace vorn_fuzz
