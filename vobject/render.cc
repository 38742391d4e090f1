#include "vobject/render.h"

#include <cassert>
#include <cstdio>
#include <functional>
#include <ostream>
#include <string_view>

#include "vobject/symbol_table.h"
#include "vobject/vobject_internal.h"

namespace VORN {

namespace {

void append_escaped(unsigned char c, std::string& out) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  if (c < 0x20 || c >= 0x80) {
    const char text[] = {'\\', 'x', DIGITS[c >> 4], DIGITS[c & 0xF]};
    out.append(text, sizeof text);
    return;
  }
  if (c == '"' || c == '\\') out += '\\';
  out += static_cast<char>(c);
}

[[maybe_unused]] bool lies_in(std::string_view bytes, const std::string& text) {
  const std::less<const char*> before;
  return !before(bytes.data(), text.data()) && before(bytes.data(), text.data() + text.size());
}

/// REQUIRES: the bytes do not lie in `out`.
void append_escaped(std::string_view bytes, std::string& out, char quote) {
  assert(!lies_in(bytes, out));
  if (quote != '\0') out += quote;
  for (const char c : bytes) append_escaped(static_cast<unsigned char>(c), out);
  if (quote != '\0') out += quote;
}

/// Out of line: its buffer would take stack at every level of nesting.
[[gnu::noinline]] void render_double(double value, std::string& out) {
  // The longest: a sign, 309 digits, the point (of several bytes in some locales), six digits.
  char text[384];
  const int length = std::snprintf(text, sizeof text, "%f", value);
  out.append(text, static_cast<size_t>(length));
}

void render_symbol(uint32_t id, std::string& out) {
  const VObjectString* const name = SymbolTable::instance().name_or_null(id);
  if (name == nullptr) {
    out += ":<ERROR>";
    return;
  }
  out += ':';
  escape_str(*name, out, name->find(' ') == std::string::npos ? '\0' : '"');
}

void render_hash(const VObjectHash& hash, std::string& out) {
  const char* separator = "";
  out += '{';
  for (const auto& [key, value] : hash) {
    out += separator;
    append_escaped(key.view(), out, '"');
    out += "=>";
    render(value, out);
    separator = ", ";
  }
  out += '}';
}

void render_vector(const VObjectVector& elements, std::string& out) {
  const char* separator = "";
  out += '[';
  for (const VObject& element : elements) {
    out += separator;
    render(element, out);
    separator = ", ";
  }
  out += ']';
}

}  // namespace

void escape_str(const std::string& bytes, std::string& out, char quote) {
  if (&bytes == &out) {
    append_escaped(std::string(bytes), out, quote);
  } else {
    append_escaped(bytes, out, quote);
  }
}

void render(const VObject& v, std::string& out) {
  const VObjectPayload& payload = VObjectInternal::payload(v);
  switch (payload.tag()) {
    case DT_NIL: out += "nil"; break;
    case DT_INT: out += std::to_string(payload.integer()); break;
    case DT_DOUBLE: render_double(payload.real(), out); break;
    case DT_BOOL: out += payload.boolean() ? "true" : "false"; break;
    case DT_SYMBOL: render_symbol(payload.symbol(), out); break;
    case DT_STR: escape_str(payload.str(), out, '"'); break;
    case DT_HASH: render_hash(payload.hash(), out); break;
    case DT_VECTOR: render_vector(payload.vec(), out); break;
    case DT_UDT:
      if (const VObjectUDT* const object = payload.udt()) {
        object->udt_render(out);
      } else {
        out += "<UDT:NULL>";
      }
      break;
    case DT_REF:
      out += "<REF:";
      render(*payload.referent(), out);
      out += '>';
      break;
    default:
      out += "<unknown_type:";
      out += std::to_string(payload.tag());
      out += '>';
      break;
  }
}

std::ostream& operator<<(std::ostream& out, const VObject& v) {
  std::string text;
  render(v, text);
  return out << text;
}

}  // namespace VORN
