/// The input: a file or standard input, read once from front to back, possibly while it still grows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/inspect/stop_signal.h"

namespace vorn_inspect {

class ByteSource {
 public:
  /// `path`: "-" is standard input. `follow`: the end of a regular file is no end, SIGINT and SIGTERM are.
  /// `output_fd`: while waiting for input, its reader is watched. Throws std::system_error.
  ByteSource(const std::string& path, bool follow, int output_fd);
  ~ByteSource();
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;

  /// Waits for input and reads up to n bytes of it; 0: the end. Throws std::system_error, std::runtime_error
  /// when a followed file became shorter, and OutputClosed when nobody reads the output any more.
  size_t read(char* to, size_t n);

  /// How long the input is, if that can be told and will stay so.
  std::optional<uint64_t> size() const { return follow_ ? std::nullopt : size_; }

 private:
  size_t read_now(char* to, size_t n);
  bool wait(bool for_input, int milliseconds);
  void check_size() const;

  std::string name_;
  int fd_;
  bool close_;
  int output_fd_;
  bool regular_ = false;
  bool follow_;  ///< a regular file, to be followed
  std::optional<uint64_t> size_;
  std::optional<StopSignal> stop_;
};

}  // namespace vorn_inspect
