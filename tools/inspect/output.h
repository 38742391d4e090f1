/// Standard output, buffered. That its reader went away is no error: OutputClosed tells the program to end.
#pragma once

#include <string>
#include <string_view>

namespace vorn_inspect {

struct OutputClosed {};

class Output {
 public:
  explicit Output(int fd) : fd_(fd) {}

  /// Adds bytes; writes them out now and then. Throws like flush().
  void write(std::string_view bytes) {
    buffer_ += bytes;
    if (buffer_.size() >= FLUSH_SIZE) flush();
  }

  /// Writes everything out. Throws OutputClosed, and std::system_error when the bytes cannot be written.
  void flush();

  int fd() const { return fd_; }

 private:
  static constexpr size_t FLUSH_SIZE = 0x10000;

  int fd_;
  std::string buffer_;
};

}  // namespace vorn_inspect
