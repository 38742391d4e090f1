/// Standard output, buffered. A reader that closes its end is not an error: OutputClosed tells the program to end.
#pragma once

#include <string>
#include <string_view>

#include "tools/inspect/stop_signal.h"

namespace vorn_inspect {

struct OutputClosed {};

class Output {
 public:
  explicit Output(int fd) : fd_(fd) {}

  /// From now on a signal that arrives while the reader is stalled counts as the reader leaving. Null: no longer.
  void set_stop(const StopSignal* stop) { stop_ = stop; }

  /// Adds bytes to the buffer; flushes when it is full. Throws like flush().
  void write(std::string_view bytes) {
    while (bytes.size() >= FLUSH_SIZE - buffer_.size()) {
      const size_t fitting = FLUSH_SIZE - buffer_.size();
      buffer_ += bytes.substr(0, fitting);
      bytes.remove_prefix(fitting);
      flush();
    }
    buffer_ += bytes;
  }

  /// Writes out the buffer. Throws OutputClosed, and std::system_error when writing fails.
  void flush();

  int fd() const { return fd_; }

 private:
  static constexpr size_t FLUSH_SIZE = 0x10000;

  size_t wait_for_room(size_t wanted) const;

  int fd_;
  const StopSignal* stop_ = nullptr;
  std::string buffer_;
};

}  // namespace vorn_inspect
