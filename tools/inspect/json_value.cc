#include "tools/inspect/json_value.h"

#include <cmath>
#include <cstring>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "proto/wire_reader.h"
#include "tools/inspect/hex_dump.h"

namespace vorn_inspect {

using nlohmann::json;
using VORN::VObject;

namespace {

json string_to_json(std::string_view bytes) {
  if (is_utf8(bytes)) return std::string(bytes);
  return {{"$bytes", hex_digits(bytes)}};
}

bool is_plain_key(std::string_view key) {
  return is_utf8(key) && (key.empty() || key[0] != '$');
}

}  // namespace

json JsonConverter::convert(const VObject& value) {
  switch (value.type()) {
    case VORN::DT_INT: return value.to_i64();
    case VORN::DT_DOUBLE: return convert_double(value);
    case VORN::DT_BOOL: return value.to_bool();
    case VORN::DT_STR: return string_to_json(value.getstr());
    case VORN::DT_HASH: return convert_hash(value.gethash());
    case VORN::DT_VECTOR: {
      json elements = json::array();
      for (const VObject& element : value.getvec()) elements.push_back(convert(element));
      return elements;
    }
    default: return nullptr;
  }
}

// A variant gives its double away by writing it.
json JsonConverter::convert_double(const VObject& value) {
  scratch_.reset();
  value.serialize(scratch_, 1);
  scratch_.reset();
  VORN::PROTO::WireReader in(scratch_);
  in.skip(1);
  double number = 0;
  in.read_double(number);
  if (std::isfinite(number)) return number;
  uint64_t bits;
  std::memcpy(&bits, &number, sizeof bits);
  return {{"$double", fmt::format("{:016x}", bits)}};
}

json JsonConverter::convert_hash(const VORN::VObjectHash& hash) {
  bool plain = true;
  for (const auto& element : hash) plain = plain && is_plain_key(element.first.view());
  if (plain) {
    json object = json::object();
    for (const auto& [key, value] : hash) object.emplace(std::string(key.view()), convert(value));
    return object;
  }
  json pairs = json::array();
  for (const auto& [key, value] : hash) {
    pairs.push_back(json::array({string_to_json(key.view()), convert(value)}));
  }
  return {{"$hash", std::move(pairs)}};
}

bool is_utf8(std::string_view bytes) {
  const auto in = [](unsigned char c, unsigned low, unsigned high) { return c >= low && c <= high; };
  for (size_t i = 0; i < bytes.size();) {
    const auto at = [&](size_t n) {
      return i + n < bytes.size() ? static_cast<unsigned char>(bytes[i + n]) : 0;
    };
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

}  // namespace vorn_inspect
