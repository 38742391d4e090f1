#pragma once

#include <mutex>
#include <string>
#include <utility>

#include "rpc/log.h"

namespace VORN {
namespace RPC {

/// Writes to a log, from one thread at a time.
class Journal {
 public:
  explicit Journal(Log log) : log_(std::move(log)) {}

  /// Without memory for the line, or when the log throws, the line is lost.
  template <typename... Part>
  void write(LogLevel level, const Part&... part) noexcept {
    if (!log_) return;
    try {
      std::string line;
      (line += ... += part);
      const std::lock_guard<std::mutex> hold(lock_);
      log_(level, line);
    } catch (...) {
      return;
    }
  }

 private:
  std::mutex lock_;
  Log log_;
};

}  // namespace RPC
}  // namespace VORN
