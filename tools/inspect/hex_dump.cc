#include "tools/inspect/hex_dump.h"

#include <algorithm>
#include <iterator>
#include <string>

#include <fmt/format.h>

namespace vorn_inspect {

namespace {

constexpr size_t LINE = 16;
constexpr size_t PIECE = 4096;
constexpr char DIGITS[] = "0123456789abcdef";

void append_digits(char c, std::string& out) {
  const unsigned byte = static_cast<unsigned char>(c);
  out += DIGITS[byte >> 4];
  out += DIGITS[byte & 0xF];
}

}  // namespace

void write_hex_dump(std::string_view bytes, uint64_t offset, Output& output) {
  std::string out;
  for (size_t at = 0; at < bytes.size(); at += LINE) {
    const std::string_view line = bytes.substr(at, LINE);
    fmt::format_to(std::back_inserter(out), "  {:08x} ", offset + at);
    for (size_t i = 0; i < LINE; ++i) {
      if (i % 8 == 0) out += ' ';
      if (i < line.size()) {
        append_digits(line[i], out);
        out += ' ';
      } else {
        out += "   ";
      }
    }
    out += " |";
    for (const char c : line) out += c >= 0x20 && c < 0x7F ? c : '.';
    out += "|\n";
    output.write(out);
    out.clear();
  }
}

void write_hex_digits(std::string_view bytes, Output& output) {
  std::string out;
  for (; !bytes.empty(); bytes.remove_prefix(std::min(PIECE, bytes.size()))) {
    out.clear();
    for (const char c : bytes.substr(0, PIECE)) append_digits(c, out);
    output.write(out);
  }
}

}  // namespace vorn_inspect
