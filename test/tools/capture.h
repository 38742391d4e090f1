/// Generates captures to damage: streams of frames, with the origin of each byte.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace vorn_test {

std::string frame(uint16_t seq, const std::string& payload, unsigned layout = 8);

class Capture {
 public:
  struct Span {
    size_t offset;
    size_t size;
    bool findable;  ///< readable values, or the 12-byte layout
  };

  /// Up to 25 frames of all kinds: both layouts, empty ones, payloads that contain start markers and whole frames, and
  /// some with unreadable values.
  explicit Capture(std::mt19937_64& random);

  /// Damages the capture once.
  void damage();

  std::string bytes() const;

  /// The frames whose bytes are still contiguous and unchanged, wherever they are now.
  std::vector<Span> undamaged() const;

 private:
  struct Byte {
    char value;
    int64_t origin;  ///< its original offset; -1: it is new
  };

  void add_frame(uint16_t seq);
  std::string payload(bool& readable);
  int64_t random_integer();
  std::string value(unsigned depth);
  size_t pick(size_t count) { return static_cast<size_t>(random_() % count); }

  std::mt19937_64& random_;
  std::vector<Byte> bytes_;
  std::vector<Span> frames_;
};

}  // namespace vorn_test
