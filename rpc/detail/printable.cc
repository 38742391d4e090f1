#include "rpc/detail/printable.h"

#include <algorithm>

namespace VORN {
namespace RPC {

std::string printable(std::string_view text) {
  std::string out(text);
  // Bytes of UTF-8 stay, but for those that some terminals take for control characters of eight bits.
  const auto commands = [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
  };
  std::replace_if(out.begin(), out.end(), commands, '?');
  return out;
}

std::string_view shown(std::string_view name) {
  constexpr size_t MOST = 40;
  return name.substr(0, MOST);
}

}  // namespace RPC
}  // namespace VORN
