#include "tools/inspect/json_value.h"

#include <cmath>
#include <cstring>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tools/inspect/hex_dump.h"
#include "tools/inspect/unicode.h"

namespace vorn_inspect {

namespace {

constexpr HashMarks OBJECT{"{", "", ":", "", "}"};
constexpr HashMarks PAIRS{"{\"$hash\":[", "[", ",", "]", "]}"};

std::string escaped(char32_t c) {
  switch (c) {
    case '"': return "\\\"";
    case '\\': return "\\\\";
    case '\b': return "\\b";
    case '\f': return "\\f";
    case '\n': return "\\n";
    case '\r': return "\\r";
    case '\t': return "\\t";
    default: return fmt::format("\\u{:04x}", static_cast<unsigned>(c));
  }
}

}  // namespace

void JsonValueWriter::write_double(double number) {
  if (std::isfinite(number)) {
    out_.write(nlohmann::json(number).dump());
    return;
  }
  uint64_t bits;
  std::memcpy(&bits, &number, sizeof bits);
  out_.write(fmt::format("{{\"$double\":\"{:016x}\"}}", bits));
}

void JsonValueWriter::write_string(std::string_view bytes) {
  if (is_utf8(bytes)) {
    out_.write("\"");
    write_characters(bytes);
    out_.write("\"");
  } else {
    out_.write("{\"$bytes\":\"");
    write_hex_digits(bytes, out_);
    out_.write("\"}");
  }
}

void JsonValueWriter::write_characters(std::string_view utf8) {
  std::string_view unwritten = utf8;
  while (!utf8.empty()) {
    const std::string_view from_here = utf8;
    const char32_t c = take_character(utf8);
    if (c != '"' && c != '\\' && !is_control(c)) continue;
    out_.write(unwritten.substr(0, unwritten.size() - from_here.size()));
    out_.write(escaped(c));
    unwritten = utf8;
  }
  out_.write(unwritten);
}

bool JsonValueWriter::is_plain_key(std::string_view key) const {
  return is_utf8(key) && (key.empty() || key[0] != '$');
}

const HashMarks& JsonValueWriter::hash_marks(bool plain) const {
  return plain ? OBJECT : PAIRS;
}

}  // namespace vorn_inspect
