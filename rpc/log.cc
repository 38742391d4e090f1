#include "rpc/log.h"

#include <iostream>

namespace VORN {
namespace RPC {

void log_to_stderr(LogLevel level, const std::string& line) {
  static const char* const NAMES[] = {"INFO ", "WARN ", "ERROR "};
  // One write, so that lines of several servers do not mix.
  std::cerr << NAMES[static_cast<int>(level)] + line + "\n" << std::flush;
}

}  // namespace RPC
}  // namespace VORN
