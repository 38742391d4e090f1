/// Time for deadlines.
#pragma once

#include <chrono>

namespace VORN {
namespace RPC {

/// Setting the time does not move it.
using Clock = std::chrono::steady_clock;

}  // namespace RPC
}  // namespace VORN
