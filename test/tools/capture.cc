#include "test/tools/capture.h"

#include "proto/frame_header.h"
#include "proto/value_wire.h"

namespace vorn_test {

using namespace VORN::PROTO;

std::string frame(uint16_t seq, const std::string& payload, unsigned layout) {
  char header[12];
  const uint64_t n = encode_frame_header({seq, static_cast<uint32_t>(payload.size())}, layout == 12, header);
  return std::string(header, n) + payload;
}

Capture::Capture(std::mt19937_64& random) : random_(random) {
  const uint16_t first = static_cast<uint16_t>(pick(3) == 0 ? random_() : pick(40));
  const size_t count = 1 + pick(25);
  for (size_t i = 0; i < count; ++i) add_frame(static_cast<uint16_t>(first + i));
}

void Capture::add_frame(uint16_t seq) {
  bool readable = true;
  const unsigned layout = pick(3) == 0 ? 12 : 8;
  const std::string bytes = frame(seq, payload(readable), layout);
  frames_.push_back({bytes_.size(), bytes.size(), readable || layout == 12});
  for (const char c : bytes) bytes_.push_back({c, static_cast<int64_t>(bytes_.size())});
}

std::string Capture::payload(bool& readable) {
  std::string out;
  for (size_t n = pick(4); n > 0; --n) out += value(0);
  if (pick(12) == 0) {
    out += pick(2) == 0 ? "\x0c" : "\x0a\x81";  // no type; an array without an end
    readable = false;
  }
  return out;
}

/// The draws are separate statements, because their order must be the same with all compilers.
int64_t Capture::random_integer() {
  const uint64_t bits = random_();
  return static_cast<int64_t>(bits >> pick(64));
}

std::string Capture::value(unsigned depth) {
  PacketBuf buf;
  switch (pick(depth < 3 ? 9 : 7)) {
    case 0: write_int(buf, random_integer()); break;
    case 1: write_int(buf, 37); break;  // A5 01
    case 2: write_type(buf, static_cast<TransportType>(pick(3))); break;
    case 3: write_double(buf, static_cast<double>(pick(1000)) / 8); break;
    case 4: write_utf8str(buf, "text of a message", static_cast<uint32_t>(pick(17))); break;
    case 5: {
      std::string noise(pick(60), '\0');
      for (char& c : noise) c = static_cast<char>(pick(4) == 0 ? 0xA5 : random_());
      write_binstr(buf, noise.data(), static_cast<uint32_t>(noise.size()));
      break;
    }
    case 6: {
      const unsigned layout = pick(2) == 0 ? 8 : 12;
      const std::string inner = frame(static_cast<uint16_t>(pick(9)), "\x81\x02", layout);
      write_binstr(buf, inner.data(), static_cast<uint32_t>(inner.size()));
      break;
    }
    case 7: {
      write_type(buf, PTT_ARRAY_START);
      for (size_t n = pick(5); n > 0; --n) {
        const std::string element = value(depth + 1);
        buf.write_bytes(element.data(), element.size());
      }
      write_type(buf, PTT_ARRAY_END);
      break;
    }
    default: {
      write_type(buf, PTT_HASH_START);
      for (size_t n = pick(4); n > 0; --n) {
        write_symbol(buf, "method", static_cast<uint32_t>(1 + pick(6)));
        const std::string element = value(depth + 1);
        buf.write_bytes(element.data(), element.size());
      }
      write_type(buf, PTT_HASH_END);
    }
  }
  return buf.data();
}

void Capture::damage() {
  if (bytes_.empty()) return;
  const size_t at = pick(bytes_.size());
  const auto put = [this](size_t i, uint64_t byte) {
    if (bytes_[i].value != static_cast<char>(byte)) bytes_[i] = {static_cast<char>(byte), -1};
  };
  const auto here = bytes_.begin() + static_cast<std::ptrdiff_t>(at);
  const auto end_of = [&](size_t n) { return here + static_cast<std::ptrdiff_t>(std::min(n, bytes_.size() - at)); };
  switch (pick(9)) {
    case 0: put(at, random_()); break;
    case 1: put(at, static_cast<uint8_t>(bytes_[at].value) ^ 1U << pick(8)); break;
    case 2: bytes_.erase(here, end_of(1 + pick(12))); break;
    case 3: {
      std::vector<Byte> noise(1 + pick(12));
      for (Byte& b : noise) b = {static_cast<char>(pick(3) == 0 ? 0xA5 : random_()), -1};
      bytes_.insert(here, noise.begin(), noise.end());
      break;
    }
    case 4: {  // repeat a part of the stream
      const std::vector<Byte> part(here, end_of(1 + pick(80)));
      bytes_.insert(bytes_.begin() + static_cast<std::ptrdiff_t>(pick(bytes_.size())), part.begin(), part.end());
      break;
    }
    case 5: {
      const size_t end = std::min(bytes_.size(), at + 1 + pick(20));
      for (size_t i = at; i < end; ++i) put(i, 0);
      break;
    }
    case 6: {  // damage the length of a frame
      size_t i = frames_[pick(frames_.size())].offset + 4;
      i += pick(4);
      if (i < bytes_.size()) put(i, static_cast<uint64_t>(random_integer()) & 0xFF);
      break;
    }
    case 7: bytes_.erase(bytes_.begin(), here); break;
    default: bytes_.erase(here, bytes_.end());
  }
}

std::string Capture::bytes() const {
  std::string out;
  for (const Byte& b : bytes_) out += b.value;
  return out;
}

std::vector<Capture::Span> Capture::undamaged() const {
  std::vector<Span> out;
  for (size_t i = 0; i < bytes_.size(); ++i) {
    for (const Span& frame : frames_) {
      if (bytes_[i].origin != static_cast<int64_t>(frame.offset) || frame.size > bytes_.size() - i) continue;
      size_t n = 1;
      while (n < frame.size && bytes_[i + n].origin == bytes_[i].origin + static_cast<int64_t>(n)) ++n;
      if (n == frame.size) out.push_back({i, frame.size, frame.findable});
    }
  }
  return out;
}

}  // namespace vorn_test
