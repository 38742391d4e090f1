/// Rendering never fails, keeps the text that was there, and shows every byte of a string.
#include <string>

#include "fuzz/check.h"
#include "fuzz/values.h"
#include "vobject/render.h"

using namespace VORN;

namespace {

unsigned hex_value(char c) {
  return static_cast<unsigned>(c <= '9' ? c - '0' : c - 'a' + 10);
}

std::string unescaped(const std::string& text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      bytes += text[i];
    } else if (text.at(++i) == 'x') {
      bytes += static_cast<char>(hex_value(text.at(i + 1)) * 16 + hex_value(text.at(i + 2)));
      i += 2;
    } else {
      VORN_CHECK(text[i] == '"' || text[i] == '\\');
      bytes += text[i];
    }
  }
  return bytes;
}

bool is_one_line(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7F) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vorn_fuzz::Input input(data, size);
  const char quote = static_cast<char>(input.byte() & 0x7F);
  const std::string bytes = input.bytes(input.byte());
  std::string out = "> ";
  escape_str(bytes, out, quote);
  const size_t marks = quote == '\0' ? 0 : 1;
  VORN_CHECK(out.compare(0, 2, "> ") == 0 && out.size() >= 2 + 2 * marks + bytes.size());
  VORN_CHECK(marks == 0 || (out[2] == quote && out.back() == quote));
  const std::string escaped = out.substr(2 + marks, out.size() - 2 - 2 * marks);
  VORN_CHECK(is_one_line(escaped) && unescaped(escaped) == bytes);

  const VObject v = vorn_fuzz::tree(input, 100, true);
  std::string text = out;
  render(v, text);
  VORN_CHECK(text.size() > out.size() && text.compare(0, out.size(), out) == 0);
  VORN_CHECK(is_one_line(text.substr(out.size())));
  std::string again;
  render(v, again);
  VORN_CHECK(text.substr(out.size()) == again);
  return 0;
}
