#include "tools/inspect/unicode.h"

#include <fmt/format.h>

namespace vorn_inspect {

bool is_utf8(std::string_view bytes) {
  const auto in = [](unsigned char c, unsigned low, unsigned high) { return c >= low && c <= high; };
  for (size_t i = 0; i < bytes.size();) {
    const auto at = [&](size_t n) { return i + n < bytes.size() ? static_cast<unsigned char>(bytes[i + n]) : 0; };
    const unsigned char first = at(0);
    size_t size;
    unsigned low = 0x80;  // of the second byte
    unsigned high = 0xBF;
    if (first < 0x80) {
      ++i;
      continue;
    }
    if (in(first, 0xC2, 0xDF)) {
      size = 2;
    } else if (in(first, 0xE0, 0xEF)) {
      size = 3;
      if (first == 0xE0) low = 0xA0;
      if (first == 0xED) high = 0x9F;
    } else if (in(first, 0xF0, 0xF4)) {
      size = 4;
      if (first == 0xF0) low = 0x90;
      if (first == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (!in(at(1), low, high)) return false;
    for (size_t n = 2; n < size; ++n) {
      if (!in(at(n), 0x80, 0xBF)) return false;
    }
    i += size;
  }
  return true;
}

bool is_control(char32_t c) {
  const auto in = [c](char32_t low, char32_t high) { return c >= low && c <= high; };
  return c < 0x20 || in(0x7F, 0x9F) || c == 0x061C || in(0x200E, 0x200F) || in(0x2028, 0x202E) || in(0x2066, 0x2069);
}

char32_t take_character(std::string_view& bytes) {
  const auto first = static_cast<unsigned char>(bytes[0]);
  const size_t size = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  char32_t c = size == 1 ? first : first & (0x7FU >> size);
  for (size_t i = 1; i < size; ++i) c = c << 6 | (static_cast<unsigned char>(bytes[i]) & 0x3FU);
  bytes.remove_prefix(size);
  return c;
}

std::string printable(const std::string& bytes) {
  std::string out;
  if (!is_utf8(bytes)) {
    for (const char byte : bytes) {
      if (byte >= 0x20 && byte < 0x7F) {
        out += byte;
      } else {
        out += fmt::format("\\x{:02x}", static_cast<unsigned>(static_cast<unsigned char>(byte)));
      }
    }
    return out;
  }
  for (std::string_view rest = bytes; !rest.empty();) {
    const std::string_view from_here = rest;
    const char32_t c = take_character(rest);
    if (is_control(c)) {
      out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
    } else {
      out += from_here.substr(0, from_here.size() - rest.size());
    }
  }
  return out;
}

}  // namespace vorn_inspect
