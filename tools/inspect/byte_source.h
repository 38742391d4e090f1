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
  /// `path`: "-" is standard input. `follow`: the end of a regular file is no end, SIGINT and SIGTERM are,
  /// and what becomes of the file under its name is said on standard error. `output_fd`: while waiting for
  /// input, its reader is watched. Throws std::system_error.
  ByteSource(const std::string& path, bool follow, int output_fd);
  ~ByteSource();
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;

  /// Waits for input and reads up to n bytes of it; 0: the end, or begins_anew(). Throws std::system_error,
  /// and OutputClosed when nobody reads the output any more.
  size_t read(char* to, size_t n);

  /// Whether read() met the end because a followed file became shorter, or another file has its name now. The
  /// next read() is at the beginning of it.
  bool begins_anew() const { return begins_anew_; }

  /// What ends a followed input; null: nothing.
  const StopSignal* stop() const { return stop_ ? &*stop_ : nullptr; }

  /// How long the input is, if that can be told and will stay so.
  std::optional<uint64_t> size() const { return follow_ ? std::nullopt : size_; }

 private:
  size_t read_now(char* to, size_t n);
  bool wait(bool for_input, int milliseconds);
  bool became_shorter();
  bool find_successor();
  void say(const char* what);

  std::string name_;
  int fd_;
  bool close_;
  int output_fd_;
  bool regular_ = false;
  bool follow_;            ///< a regular file, to be followed
  int successor_ = -1;     ///< the file that has the name now, to be read when the old one has been
  const char* said_ = "";  ///< about the file under the name, so that it is said once
  bool begins_anew_ = false;
  std::optional<uint64_t> size_;
  std::optional<StopSignal> stop_;
};

}  // namespace vorn_inspect
