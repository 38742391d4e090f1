#pragma once

#include <string>
#include <string_view>

namespace VORN {
namespace RPC {

/// For the log: what a client sends may be in it, so no line ends there, and no terminal obeys it. Throws
/// std::bad_alloc.
std::string printable(std::string_view text);

/// The beginning of a method's name, which may be long.
std::string_view shown(std::string_view name);

}  // namespace RPC
}  // namespace VORN
