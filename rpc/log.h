/// What servers have to say to those who run them.
#pragma once

#include <functional>
#include <string>

#include "rpc/calls_export.h"

namespace VORN {
namespace RPC {

/// How bad it is.
enum class LogLevel {
  info,     ///< a connection ended by its peer
  warning,  ///< a client was refused or closed
  error     ///< a method failed, or the machine
};

/// Takes a line, without its end. A server calls it from the threads that run its methods too, but never twice at the
/// same time. Bytes from clients that could end a line or command a terminal are replaced. It must not throw.
using Log = std::function<void(LogLevel level, const std::string& line)>;

/// Writes to standard error.
VORN_CALLS_API void log_to_stderr(LogLevel level, const std::string& line);

}  // namespace RPC
}  // namespace VORN
