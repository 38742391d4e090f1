/// Time for deadlines.
#pragma once

#include <chrono>

namespace VORN {
namespace RPC {

/// Setting the time does not move it.
using Clock = std::chrono::steady_clock;

/// Between two attempts to connect.
constexpr std::chrono::milliseconds FIRST_PAUSE{50};
constexpr std::chrono::milliseconds LONGEST_PAUSE{1000};

}  // namespace RPC
}  // namespace VORN
