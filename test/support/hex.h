/// Bytes as text: "A5 01".
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace vorn_test {

/// "A501" for the bytes A5 01.
inline std::string hex_digits(const std::string& bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : bytes) {
    out += digits[static_cast<uint8_t>(c) >> 4];
    out += digits[static_cast<uint8_t>(c) & 15];
  }
  return out;
}

/// "A5 01" for the bytes A5 01.
inline std::string to_hex(const std::string& bytes) {
  std::string out;
  for (const char c : bytes) {
    if (!out.empty()) out += ' ';
    out += hex_digits(std::string(1, c));
  }
  return out;
}

/// "(3:ab)" becomes "ababab"; other text stays.
inline std::string expand(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    if (text[i] != '(') {
      out += text[i++];
      continue;
    }
    const size_t colon = text.find(':', i);
    const size_t close = text.find(')', i);
    if (colon == std::string::npos || close == std::string::npos || colon > close) {
      throw std::invalid_argument("bad repetition in \"" + text + "\"");
    }
    const std::string part = text.substr(colon + 1, close - colon - 1);
    for (unsigned long n = std::stoul(text.substr(i + 1, colon - i - 1)); n > 0; --n) out += part;
    i = close + 1;
  }
  return out;
}

/// The bytes of "A5 01" or "A5 (7:00)"; none for "-" and "".
inline std::string from_hex(const std::string& text) {
  std::string digits;
  for (const char c : expand(text)) {
    if (c != ' ') digits += c;
  }
  if (digits == "-") return "";
  if (digits.size() % 2 != 0) throw std::invalid_argument("odd number of digits: " + text);
  std::string out;
  for (size_t i = 0; i < digits.size(); i += 2) {
    size_t end = 0;
    out += static_cast<char>(std::stoi(digits.substr(i, 2), &end, 16));
    if (end != 2) throw std::invalid_argument("not hexadecimal digits: " + text);
  }
  return out;
}

}  // namespace vorn_test
